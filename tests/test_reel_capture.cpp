// reel_capture as a person runs it: the pass cadence that makes a capture look like the live
// show, videos through ffmpeg, and failed writes.
#include <gtest/gtest.h>

#include <algorithm>
#include <regex>

#include "bitmap.h"
#include "memarena.h"
#include "test_fatal.h"
#include "tool_fixture.h"

namespace {

const std::string tools = REEL_TOOLS_DIR;
const std::string root = REEL_TEST_OUTPUT_DIR;

// Two seconds: the music starts, the video plane is cleared to red by video_clear (which acts
// only in render calls while its update runs are at most 2), then the show fades out and ends.
const char* const capture_script =
    "mode,ref,start,preload,mode,ref,end,function,args\n"
    "abs,,0,0,abs,,100,music_start,music\n"
    "abs,,0,0,abs,,2000,video_clear,255,0,0\n"
    "abs,,0,0,abs,,2000,fade_out_music\n";

std::string capture_show(const std::string& name)
{
    const std::string dir = tool_fixture_dir(root, name);
    EXPECT_EQ(tool_fixture_pack_show(dir, tools, capture_script, 2 * 22050), 0);
    return dir;
}

// The colour of the middle of frame F as captured with the given options.
uint32_t capture_centre(const std::string& dir, const std::string& options, uint32_t frame)
{
    const std::string out = "frames" + std::to_string(frame);
    const tool_run_result r = tool_fixture_run(dir, tools + "/reel_capture --frames " + std::to_string(frame + 1) +
                                                        " --png-at " + std::to_string(frame) + " --out " + out +
                                                        " " + options);
    EXPECT_EQ(r.status, 0) << options << "\n" << r.out << r.err;
    test_arena memory(8 << 20);
    char name[64];
    snprintf(name, sizeof(name), "/frame_%06u.png", frame);
    const bitmap* bm = bitmap_load_png(&memory.arena, (dir + "/" + out + name).c_str(), 3);
    if (!bm)
        return 0xDEADBEEF;
    const uint8_t* p = bitmap_pixel(bm, 320, 240);
    return (uint32_t)p[0] << 16 | (uint32_t)p[1] << 8 | p[2];
}

bool capture_have_ffmpeg() { return std::system("ffmpeg -version >/dev/null 2>&1") == 0; }

}  // namespace

TEST(reel_capture, the_default_cadence_shows_what_the_live_loop_shows)
{
    const std::string dir = capture_show("cadence");
    // live, the loop runs many update passes before each render pass: video_clear's render
    // calls come too late to clear, and the plane stays black; so with the default cadence
    const uint32_t live = capture_centre(dir, "--updates-per-frame 200", 30);
    EXPECT_EQ(live, 0x000000u);
    EXPECT_EQ(capture_centre(dir, "", 30), live);
    // one update pass per frame is still there, and clears both video buffers to red
    EXPECT_EQ(capture_centre(dir, "--updates-per-frame 1", 30), 0xFF0000u);
}

TEST(reel_capture, a_failed_wav_write_names_the_path_and_the_reason)
{
    const std::string dir = capture_show("full_disk");
    const tool_run_result r = tool_fixture_run(dir, tools + "/reel_capture --wav /dev/full");
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    EXPECT_NE(r.err.find("reel_capture: cannot write \"/dev/full\": No space left on device\n"), std::string::npos)
        << r.err;
}

TEST(reel_capture, a_video_without_ffmpeg_says_what_to_install)
{
    const std::string dir = capture_show("no_ffmpeg");
    const tool_run_result r = tool_fixture_run(dir, "PATH=/nonexistent " + tools + "/reel_capture --video show.mp4");
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    EXPECT_EQ(r.err, "reel_capture: --video needs ffmpeg, which is not installed (on Debian: sudo apt-get install "
                     "ffmpeg)\n");
    EXPECT_FALSE(tool_fixture_exists(dir + "/show.mp4"));
}

TEST(reel_capture, a_video_is_made_in_one_command_with_progress_on_standard_error)
{
    if (!capture_have_ffmpeg())
        GTEST_SKIP() << "ffmpeg is not installed (Debian package ffmpeg); videos cannot be made";
    const std::string dir = capture_show("video");
    const tool_run_result r = tool_fixture_run(dir, tools + "/reel_capture --video show.mkv");
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_NE(r.out.find("the show ended"), std::string::npos) << r.out;
    EXPECT_TRUE(testing::internal::RE::PartialMatch(r.err, "frame [0-9]+, show time [0-9.]+ s, speed [0-9.]+x\n$"))
        << r.err;
    // the file is there with a video and an audio stream, and no temporary file is left
    const tool_run_result probe = tool_fixture_run(
        dir, "ffprobe -v error -show_entries stream=codec_type,width,height -of csv=p=0 show.mkv");
    EXPECT_EQ(probe.out, "video,640,480\naudio\n") << probe.err;
    for (const std::string& name : tool_fixture_list(dir))
        EXPECT_EQ(name.find(".tmp"), std::string::npos) << name;

    // "-" streams Matroska to standard output, and nothing else goes there
    const tool_run_result piped = tool_fixture_run(dir, tools + "/reel_capture --frames 30 --video -");
    ASSERT_EQ(piped.status, 0) << piped.err;
    EXPECT_EQ(piped.out.substr(0, 4), std::string("\x1A\x45\xDF\xA3")) << piped.out.substr(0, 80);
    EXPECT_NE(piped.err.find("captured 30 frames"), std::string::npos) << piped.err;
}

namespace {

std::string capture_line(const std::string& out, const std::string& head)
{
    const size_t at = out.find("\n" + head);
    if (at == std::string::npos)
        return "";
    return out.substr(at + 1, out.find('\n', at + 1) - at - 1);
}

}  // namespace

TEST(reel_capture, stats_name_rows_by_function_list_the_functions_called_and_end_with_the_frame_cost)
{
    const std::string dir = capture_show("stats");
    const tool_run_result r = tool_fixture_run(dir, tools + "/reel_capture --stats");
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    // the rows in script order after each pass kind's total
    for (const char* kind : {"=== regular ===\n", "=== vbl ===\n"}) {
        const size_t at = r.out.find(kind);
        ASSERT_NE(at, std::string::npos) << r.out;
        EXPECT_TRUE(testing::internal::RE::PartialMatch(r.out.substr(at), "^=== [a-z]+ ===\ntotal: [^\n]*\nmusic_start: "
                                                                          "[^\n]*\nvideo_clear: [^\n]*\nfade_out_music: "))
            << r.out.substr(at);
    }
    EXPECT_EQ(capture_line(r.out, "scene functions called: "), "scene functions called: 3 of 27");
    EXPECT_EQ(capture_line(r.out, "called: "), "called: music_start fade_out_music video_clear");  // table order
    EXPECT_EQ(capture_line(r.out, "not called: ").find("not called: load_sync load_async music_sync "), 0u);
    EXPECT_NE(capture_line(r.out, "arena: demo_arena capacity: 41943040 used: "), "") << r.out;
    EXPECT_TRUE(testing::internal::RE::PartialMatch(
        r.out, "\nframe ms: mean [0-9]+\\.[0-9]{2} p99 [0-9]+\\.[0-9]{2} max [0-9]+\\.[0-9]{2} \\(slowest: [a-z_]+\\)\n$"))
        << r.out;
}

// The cost file has a line per frame: the frame's cost and its three parts (which add up to it
// within the rounding of the last digit), and the scene function that cost most in it; in this
// show video_clear runs only in the first two seconds' rows with music_start and fade_out_music.
TEST(reel_capture, the_cost_file_has_each_frame_its_parts_and_its_slowest_function)
{
    const std::string dir = capture_show("costs");
    const tool_run_result r = tool_fixture_run(dir, tools + "/reel_capture --frames 60 --costs costs/frames.txt");
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    const std::string file = tool_fixture_read(dir + "/costs/frames.txt");
    ASSERT_EQ(std::count(file.begin(), file.end(), '\n'), 60);
    const std::regex line_re("([0-9]{6}) ([0-9]+\\.[0-9]{3}) ([0-9]+\\.[0-9]{3}) ([0-9]+\\.[0-9]{3}) "
                             "([0-9]+\\.[0-9]{3}) (music_start|video_clear|fade_out_music|none)");
    size_t at = 0;
    for (int frame = 0; frame < 60; frame++) {
        const size_t end = file.find('\n', at);
        const std::string line = file.substr(at, end - at);
        at = end + 1;
        std::smatch m;
        ASSERT_TRUE(std::regex_match(line, m, line_re)) << line;
        EXPECT_EQ(std::stoi(m[1]), frame);
        EXPECT_NEAR(std::stod(m[3]) + std::stod(m[4]) + std::stod(m[5]), std::stod(m[2]), 0.0021) << line;
    }
    // usage errors write nothing
    for (const char* args : {"--costs", "--costs ''"}) {
        const tool_run_result bad = tool_fixture_run(dir, tools + "/reel_capture " + args);
        EXPECT_EQ(bad.status, 2) << args;
        EXPECT_NE(bad.err.find("usage: reel_capture"), std::string::npos) << args;
    }
}

// The hashes of two runs agree exactly when their pictures and sound do: the pass cadence
// changes what video_clear shows (red at one update pass per frame, black at three) and not
// the music.
TEST(reel_capture, hashes_tell_runs_with_the_same_pictures_and_sound_apart_from_others)
{
    const std::string dir = capture_show("hashes");
    struct hashes {
        std::string frames, audio, file;
    };
    auto capture = [&](const std::string& options, const std::string& file) {
        const tool_run_result r = tool_fixture_run(dir, tools + "/reel_capture --frames 100 --stats --hashes " + file +
                                                            " " + options);
        EXPECT_EQ(r.status, 0) << r.out << r.err;
        return hashes{capture_line(r.out, "frames hash: "), capture_line(r.out, "audio hash: "),
                      tool_fixture_read(dir + "/" + file)};
    };
    const hashes a = capture("", "a.txt"), b = capture("", "b.txt"), red = capture("--updates-per-frame 1", "red.txt");
    EXPECT_TRUE(testing::internal::RE::FullMatch(a.frames, "frames hash: [0-9a-f]{16} \\(100 frames\\)")) << a.frames;
    EXPECT_TRUE(testing::internal::RE::FullMatch(a.audio, "audio hash: [0-9a-f]{16} \\(36750 samples\\)")) << a.audio;
    EXPECT_EQ(a.frames, b.frames);
    EXPECT_EQ(a.audio, b.audio);
    EXPECT_EQ(a.file, b.file);
    EXPECT_NE(a.frames, red.frames);
    EXPECT_EQ(a.audio, red.audio);
    // a line per frame, numbered from 0
    EXPECT_EQ(std::count(a.file.begin(), a.file.end(), '\n'), 100);
    EXPECT_TRUE(testing::internal::RE::PartialMatch(a.file, "^000000 [0-9a-f]{16}\n000001 ")) << a.file.substr(0, 60);
    EXPECT_NE(a.file.find("\n000099 "), std::string::npos);
}

TEST(reel_capture, a_contact_sheet_shows_a_picture_per_interval_with_its_time)
{
    const std::string dir = capture_show("sheet");
    // at one update pass per frame the video plane is red; 100 frames hold the times 0:00 and 0:01
    const tool_run_result r = tool_fixture_run(
        dir, tools + "/reel_capture --frames 100 --updates-per-frame 1 --contact-sheet docs/show.png --every 1000");
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    static std::vector<uint8_t> block(8 << 20);
    xmemarena arena;
    xmemarena_init(&arena, "sheet", block.size(), block.data());
    const bitmap* sheet = bitmap_load_png(&arena, (dir + "/docs/show.png").c_str(), 3);
    ASSERT_NE(sheet, nullptr);
    // two cells of 160 + 4, a margin of 4; one row of 120 + 14 + 4
    EXPECT_EQ(sheet->width, 4u + 2 * 164);
    EXPECT_EQ(sheet->height, 4u + 138);
    auto rgb = [&](uint32_t x, uint32_t y) {
        const uint8_t* p = bitmap_pixel(sheet, x, y);
        return (uint32_t)p[0] << 16 | (uint32_t)p[1] << 8 | p[2];
    };
    EXPECT_EQ(rgb(168 + 80, 4 + 60), 0xFF0000u);         // frame 60 in the second cell
    EXPECT_EQ(rgb(168 + 24 + 2, 126), 0xFFFFFFu);        // its "0:01": the top of the 1
    EXPECT_EQ(rgb(168 + 24, 126), 0x202020u);
    EXPECT_EQ(rgb(4 + 24 + 2, 126), 0xFFFFFFu);          // the first says 0:00: the 0's top has no gap
    EXPECT_EQ(rgb(4 + 24, 126), 0xFFFFFFu);
    for (const std::string& name : tool_fixture_list(dir + "/docs"))
        EXPECT_EQ(name, "show.png");  // no temporary file is left
}
