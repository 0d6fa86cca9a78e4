// reel_capture as a person runs it: the pass cadence that makes a capture look like the live
// show, videos through ffmpeg, failed writes, and its hash, cost and contact sheet files.
#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <sstream>

#include "bitmap.h"
#include "test_fatal.h"
#include "tool_fixture.h"

namespace {

const std::string tools = REEL_TOOLS_DIR;

// Two seconds: the music starts, the video plane is cleared to red by video_clear (which acts
// only in render calls while its update runs are at most 2), then the show fades out and ends.
std::string capture_show(const std::string& name)
{
    const std::string dir = tool_fixture_dir(REEL_TEST_OUTPUT_DIR, name);
    EXPECT_EQ(tool_fixture_pack_show(dir, tools, "mode,ref,start,preload,mode,ref,end,function,args\n"
                                     "abs,,0,0,abs,,100,music_start,music\nabs,,0,0,abs,,2000,video_clear,255,0,0\n"
                                     "abs,,0,0,abs,,2000,fade_out_music\n", 2 * 22050), 0);
    return dir;
}

// The colour at (x, y) of a PNG (0xDEADBEEF when there is none), and its size in *size.
uint32_t capture_png_rgb(const std::string& path, uint32_t x, uint32_t y, std::pair<uint32_t, uint32_t>* size = nullptr)
{
    test_arena memory(8 << 20);
    const bitmap* bm = bitmap_load_png(&memory.arena, path.c_str(), 3);
    if (!bm)
        return 0xDEADBEEF;
    if (size)
        *size = {bm->width, bm->height};
    const uint8_t* p = bitmap_pixel(bm, x, y);
    return (uint32_t)p[0] << 16 | (uint32_t)p[1] << 8 | p[2];
}

// The colour of the middle of frame 30 as captured with the given options.
uint32_t capture_centre(const std::string& dir, const std::string& options)
{
    const tool_run_result r =
        tool_fixture_run(dir, tools + "/reel_capture --frames 31 --png-at 30 --out frames " + options);
    EXPECT_EQ(r.status, 0) << options << "\n" << r.out << r.err;
    return capture_png_rgb(dir + "/frames/frame_000030.png", 320, 240);
}

// The line of the output that starts with `head`, or "".
std::string capture_line(const std::string& out, const std::string& head)
{
    const size_t at = out.find("\n" + head);
    return at == std::string::npos ? "" : out.substr(at + 1, out.find('\n', at + 1) - at - 1);
}

}  // namespace

TEST(reel_capture, the_default_cadence_shows_what_the_live_loop_shows)
{
    const std::string dir = capture_show("cadence");
    // live, the loop runs many update passes before each render pass: video_clear's render
    // calls come too late to clear, and the plane stays black; so with the default cadence
    EXPECT_EQ(capture_centre(dir, "--updates-per-frame 200"), 0x000000u);
    EXPECT_EQ(capture_centre(dir, ""), 0x000000u);
    // one update pass per frame is still there, and clears both video buffers to red
    EXPECT_EQ(capture_centre(dir, "--updates-per-frame 1"), 0xFF0000u);
}

TEST(reel_capture, failed_writes_and_a_missing_ffmpeg_are_named_and_leave_nothing)
{
    const std::string dir = capture_show("full_disk");
    const tool_run_result r = tool_fixture_run(dir, tools + "/reel_capture --wav /dev/full");
    EXPECT_TRUE(r.status == 1 && r.err.find("reel_capture: cannot write \"/dev/full\": No space left on device\n") !=
                                     std::string::npos) << r.status << r.err;
    const tool_run_result v = tool_fixture_run(dir, "PATH=/nonexistent " + tools + "/reel_capture --video show.mp4");
    EXPECT_EQ(v.status, 1) << v.out << v.err;
    EXPECT_EQ(v.err, "reel_capture: --video needs ffmpeg, which is not installed (on Debian: sudo apt-get install "
                     "ffmpeg)\n");
    EXPECT_FALSE(tool_fixture_exists(dir + "/show.mp4"));
}

TEST(reel_capture, a_video_is_made_in_one_command_with_progress_on_standard_error)
{
    if (std::system("ffmpeg -version >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "ffmpeg is not installed (Debian package ffmpeg); videos cannot be made";
    const std::string dir = capture_show("video");
    const tool_run_result r = tool_fixture_run(dir, tools + "/reel_capture --video show.mkv");
    ASSERT_TRUE(r.status == 0 && r.out.find("the show ended") != std::string::npos) << r.out << r.err;
    EXPECT_TRUE(testing::internal::RE::PartialMatch(r.err, "frame [0-9]+, show time [0-9.]+ s, speed [0-9.]+x\n$"))
        << r.err;
    // the file is there with a video and an audio stream, and no temporary file is left
    const tool_run_result probe = tool_fixture_run(
        dir, "ffprobe -v error -show_entries stream=codec_type,width,height -of csv=p=0 show.mkv");
    EXPECT_EQ(probe.out, "video,640,480\naudio\n") << probe.err;
    for (const std::string& name : tool_fixture_list(dir))
        EXPECT_EQ(name.find(".tmp"), std::string::npos) << name;
}

// The cost file has a line per frame: the frame's cost and its three parts (which add up to it
// within the rounding of the last digit), and the scene function that cost most in it.
TEST(reel_capture, the_cost_file_has_each_frame_its_parts_and_its_slowest_function)
{
    const std::string dir = capture_show("costs");
    const tool_run_result r = tool_fixture_run(dir, tools + "/reel_capture --frames 60 --costs costs/frames.txt");
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    std::istringstream file(tool_fixture_read(dir + "/costs/frames.txt"));
    const std::regex line_re("([0-9]{6}) ([0-9]+\\.[0-9]{3}) ([0-9]+\\.[0-9]{3}) ([0-9]+\\.[0-9]{3}) "
                             "([0-9]+\\.[0-9]{3}) (music_start|video_clear|fade_out_music|none)");
    int frame = 0;
    for (std::string line; std::getline(file, line); frame++) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(line, m, line_re)) << line;
        EXPECT_EQ(std::stoi(m[1]), frame);
        EXPECT_NEAR(std::stod(m[3]) + std::stod(m[4]) + std::stod(m[5]), std::stod(m[2]), 0.0021) << line;
    }
    EXPECT_EQ(frame, 60);
}

// The hashes of two runs agree exactly when their pictures and sound do: the cadence changes what
// video_clear shows (red at one update pass per frame, black at three), not the music.
TEST(reel_capture, hashes_tell_runs_with_the_same_pictures_and_sound_apart_from_others)
{
    const std::string dir = capture_show("hashes");
    struct hashes { std::string frames, audio, file, out; };
    auto capture = [&](const std::string& options, const std::string& file) {
        const tool_run_result r =
            tool_fixture_run(dir, tools + "/reel_capture --frames 100 --stats --hashes " + file + " " + options);
        EXPECT_EQ(r.status, 0) << r.out << r.err;
        return hashes{capture_line(r.out, "frames hash: "), capture_line(r.out, "audio hash: "),
                      tool_fixture_read(dir + "/" + file), r.out};
    };
    const hashes a = capture("", "a.txt"), b = capture("", "b.txt"), red = capture("--updates-per-frame 1", "red.txt");
    EXPECT_TRUE(testing::internal::RE::FullMatch(a.frames, "frames hash: [0-9a-f]{16} \\(100 frames\\)")) << a.frames;
    EXPECT_TRUE(testing::internal::RE::FullMatch(a.audio, "audio hash: [0-9a-f]{16} \\(36750 samples\\)")) << a.audio;
    EXPECT_TRUE(a.frames == b.frames && a.audio == b.audio && a.file == b.file);
    EXPECT_TRUE(a.frames != red.frames && a.audio == red.audio);
    // a line per frame, numbered from 0
    EXPECT_TRUE(testing::internal::RE::PartialMatch(a.file, "^000000 [0-9a-f]{16}\n000001 ") &&
                std::count(a.file.begin(), a.file.end(), '\n') == 100 && a.file.find("\n000099 ") != std::string::npos)
        << a.file.substr(0, 60);
    EXPECT_EQ(capture_line(a.out, "scene functions called: "), "scene functions called: 3 of 27");
    EXPECT_EQ(capture_line(a.out, "called: "), "called: music_start fade_out_music video_clear");
}

TEST(reel_capture, a_contact_sheet_shows_a_picture_per_interval_with_its_time)
{
    const std::string dir = capture_show("sheet");
    // at one update pass per frame the video plane is red; 100 frames hold the times 0:00 and 0:01
    const tool_run_result r = tool_fixture_run(
        dir, tools + "/reel_capture --frames 100 --updates-per-frame 1 --contact-sheet docs/show.png --every 1000");
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    // two cells of 160 + 4, a margin of 4; one row of 120 + 14 + 4; frame 60 in the second cell
    std::pair<uint32_t, uint32_t> size;
    EXPECT_EQ(capture_png_rgb(dir + "/docs/show.png", 168 + 80, 4 + 60, &size), 0xFF0000u);
    EXPECT_EQ(size, std::make_pair(4u + 2 * 164, 4u + 138));
    // its time, 0:01: the top of the 1 is ink with background before it, where a 0 is ink
    EXPECT_EQ(capture_png_rgb(dir + "/docs/show.png", 168 + 24 + 2, 126), 0xFFFFFFu);
    EXPECT_EQ(capture_png_rgb(dir + "/docs/show.png", 168 + 24, 126), 0x202020u);
    EXPECT_EQ(tool_fixture_list(dir + "/docs"), std::vector<std::string>{"show.png"});  // no temporary file is left
}
