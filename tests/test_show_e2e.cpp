// End to end: a small show made here (a script and a music blob) is packed with reel_pack and
// played headless with reel_capture, as a person would; its frames are written and its audio
// is compared sample for sample with the music decoder, through the fade to silence.
#include <gtest/gtest.h>

#include <sstream>

#include "music.h"
#include "tool_fixture.h"

namespace {

const std::string tools = REEL_TOOLS_DIR;

std::string e2e_dir(const char* name)
{
    const std::string dir = tool_fixture_dir(REEL_TEST_OUTPUT_DIR, name);
    std::system(("mkdir -p '" + dir + "/assets/reel/le'").c_str());
    return dir;
}

std::vector<uint8_t> read_file(const std::string& path)
{
    const std::string bytes = tool_fixture_read(path);
    return std::vector<uint8_t>(bytes.begin(), bytes.end());
}

// A tool of the build run in dir, both its streams in *output; a sanitizer's report exits with
// 86, not with the 1 of the fatal path.
int run(const std::string& dir, const std::string& command, std::string* output)
{
    const tool_run_result r = tool_fixture_run(dir, "ASAN_OPTIONS=\"${ASAN_OPTIONS:+$ASAN_OPTIONS:}exitcode=86\" "
                                                    "UBSAN_OPTIONS=\"${UBSAN_OPTIONS:+$UBSAN_OPTIONS:}exitcode=86\" " +
                                                        tools + "/" + command);
    *output = r.out + r.err;
    return r.status;
}

// Packs the three pack files of a show folder from their manifests.
void pack_show(const std::string& dir, const std::string manifests[3])
{
    for (int i = 0; i < 3; i++) {
        const std::string n = std::to_string(i), manifest = "pak" + n + ".manifest";
        tool_fixture_write(dir + "/" + manifest, manifests[i]);
        std::string out;
        ASSERT_EQ(run(dir, "reel_pack " + manifest + " assets/reel/le/pak" + n + ".rpk", &out), 0) << out;
    }
}

}  // namespace

TEST(show_e2e, a_packed_show_plays_to_its_end_with_the_music_decoded_exactly)
{
    const std::string dir = e2e_dir("music_show");
    // 6 s of music bytes; the fade row starts at 2 s and ends the show at 6 s
    std::vector<uint8_t> music(6 * 22050);
    uint32_t seed = 99;
    for (uint8_t& b : music)
        b = (uint8_t)((seed = seed * 1664525u + 1013904223u) >> 24);
    tool_fixture_write(dir + "/music.bin", std::string(music.begin(), music.end()));
    tool_fixture_write(dir + "/sequence.csv",
               "start mode,start ref,start ms,preload ms,end mode,end ref,end ms,function,args\n"
               "abs,,0,0,abs,,6000,music_start,music\n"
               "abs,,2000,0,abs,,6000,fade_out_music\n");
    tool_fixture_write(dir + "/readme.txt", "pack 1 holds nothing the show uses\n");
    // the script in pack 0, a decoy in pack 1, the music in pack 2
    const std::string manifests[3] = {"raw sequence.csv sequence.csv 1\n", "raw readme readme.txt 1\n",
                                      "# kind name path extra bytes\nblob music music.bin\n"};
    pack_show(dir, manifests);

    std::string out;
    ASSERT_EQ(run(dir, "reel_capture --png-every 120 --out frames --wav music.wav", &out), 0) << out;
    EXPECT_NE(out.find("the show ended"), std::string::npos) << out;
    for (const char* frame : {"frames/frame_000000.png", "frames/frame_000120.png", "frames/frame_000240.png"})
        EXPECT_TRUE(tool_fixture_exists(dir + "/" + frame)) << frame;

    const std::vector<uint8_t> wav = read_file(dir + "/music.wav");
    ASSERT_GT(wav.size(), 44u);
    ASSERT_EQ(std::string(wav.begin(), wav.begin() + 4), "RIFF");
    const size_t samples = (wav.size() - 44) / 4;
    EXPECT_GT(samples, (size_t)(6 * 22050));  // the show quits in the first pass after 6 s
    EXPECT_LT(samples, (size_t)(6 * 22050 + 2000));
    auto sample = [&](size_t frame, int channel) {
        const uint8_t* p = wav.data() + 44 + frame * 4 + channel * 2;
        return (int32_t)(int16_t)(p[0] | p[1] << 8);
    };

    // the reference stream, straight from the decoder
    adpcm_decoder left, right;
    adpcm_reset(&left);
    adpcm_reset(&right);
    std::vector<int32_t> ref(music.size() * 2);
    for (size_t i = 0; i < music.size(); i++) {
        ref[2 * i] = adpcm_decode_nibble(&left, music[i] & 15);
        ref[2 * i + 1] = adpcm_decode_nibble(&right, music[i] >> 4);
    }
    // silence while the engine starts up, then music byte 0 at a frame boundary
    size_t start = 0;
    while (start < samples && sample(start, 0) == 0 && sample(start, 1) == 0)
        start++;
    ASSERT_LT(start, (size_t)(5 * 368));
    while (start > 0 && !(sample(start, 0) == ref[0] && sample(start, 1) == ref[1]))
        start--;  // the stream itself may begin with zeros
    // before the fade (the first 2.5 s of music) every sample is the decoder's
    for (size_t i = 0; i < (size_t)(2.5 * 22050); i++) {
        ASSERT_EQ(sample(start + i, 0), ref[2 * i]) << i;
        ASSERT_EQ(sample(start + i, 1), ref[2 * i + 1]) << i;
    }
    // then the fade: it starts 22,050 samples after the fade row's first update (the clock counts
    // from the music's start), never louder than the music, and silent by the end
    int64_t early = 0, late = 0;
    for (size_t i = (size_t)(2.5 * 22050); start + i < samples && i < music.size(); i++) {
        const int32_t got = sample(start + i, 0), want = ref[2 * i];
        ASSERT_LE(std::abs(got), std::abs(want)) << i;
        if (i < (size_t)(3.5 * 22050))
            early += std::abs(got);
        else if (i > 131950)  // fade start 66,150 (+ one frame), then 127 steps of 512 samples, a frame at a time
            late += std::abs(got);
    }
    EXPECT_GT(early, 0);
    EXPECT_EQ(late, 0);
}

TEST(show_e2e, a_show_without_a_script_says_so)
{
    const std::string dir = e2e_dir("no_script");
    tool_fixture_write(dir + "/readme.txt", "x\n");
    const std::string manifests[3] = {"raw readme readme.txt 1\n", "raw readme readme.txt 1\n",
                                      "raw readme readme.txt 1\n"};
    pack_show(dir, manifests);
    std::string out;
    EXPECT_EQ(run(dir, "reel_capture --frames 5", &out), 1);
    EXPECT_NE(out.find("failed open \"sequence.csv\"\n"), std::string::npos) << out;
}

#ifdef REEL_SHOW_DIR
#include <algorithm>
#include <cstring>

#include "bitmap.h"

// The show of this repository, as the build packs it, played to its end.
TEST(show_e2e, the_show_plays_to_its_end_with_moving_pictures_and_music)
{
    const std::string out_dir = tool_fixture_dir(REEL_TEST_OUTPUT_DIR, "show_frames");
    std::string out;
    ASSERT_EQ(run(REEL_SHOW_DIR, "reel_capture --png-every 60 --out '" + out_dir + "' --wav '" + out_dir + "/show.wav'",
                  &out),
              0)
        << out;
    EXPECT_NE(out.find("the show ended"), std::string::npos) << out;

    // one picture a second: consecutive pictures differ, and so do the sections of the show
    static std::vector<uint8_t> block(64 << 20);
    xmemarena arena;
    xmemarena_init(&arena, "e2e_frames", block.size(), block.data());
    std::vector<uint8_t> previous;  // one frame at a time: the whole show's do not fit in memory
    size_t frame_count = 0;
    int changed = 0;
    for (int f = 0;; f += 60) {
        char path[4096];
        snprintf(path, sizeof(path), "%s/frame_%06d.png", out_dir.c_str(), f);
        if (!tool_fixture_exists(path))
            break;
        const uint64_t mark = xmemarena_get_sp(&arena);
        const bitmap* frame = bitmap_load_png(&arena, path, 3);
        ASSERT_NE(frame, nullptr);
        ASSERT_EQ(frame->width, 640u);
        ASSERT_EQ(frame->height, 480u);
        if (!previous.empty())
            changed += memcmp(frame->pixels, previous.data(), 640 * 480 * 3) != 0;
        previous.assign(frame->pixels, frame->pixels + 640 * 480 * 3);
        frame_count++;
        xmemarena_set_sp(&arena, mark);
    }
    ASSERT_GE(frame_count, 176u);  // a show of 176 seconds
    EXPECT_GE(changed, (int)frame_count * 3 / 4) << "pictures should move from second to second";

    const std::vector<uint8_t> wav = read_file(out_dir + "/show.wav");
    ASSERT_GT(wav.size(), 44u + 30 * 22050 * 4);
    int64_t energy = 0;
    for (size_t i = 44; i + 1 < wav.size(); i += 2)
        energy += std::abs((int32_t)(int16_t)(wav[i] | wav[i + 1] << 8));
    EXPECT_GT(energy / ((int64_t)wav.size() / 2), 200) << "the music should be audible";
}

// ---- what edits of the show's script and damage to its packs may do ----

// The show's texts from show/ (one line changed), packed into a pak0 of the case's own; its
// pictures and music packs as the build made them. The edited line's number is returned.
static int edited_show(const std::string& dir, const char* file, const std::string& line, const std::string& edit)
{
    const std::string source = std::string(REEL_SHOW_DIR) + "/show/";
    int edited_line = 0;
    for (const char* name : {"sequence.csv", "progress.ini", "title_reveal.ini", "credits_reveal.ini", "waves.ini",
                             "greetings.ini", "pak0.manifest"}) {
        std::istringstream in(tool_fixture_read(source + name));
        std::string text, l;
        for (int n = 1; std::getline(in, l); n++) {
            if (!strcmp(name, file) && l == line)
                edited_line = n, l = edit;
            text += l + "\n";
        }
        tool_fixture_write(dir + "/" + name, text);
    }
    EXPECT_NE(edited_line, 0) << "no line \"" << line << "\" in show/" << file;
    std::string out;
    EXPECT_EQ(run(dir, "reel_pack pak0.manifest assets/reel/le/pak0.rpk", &out), 0) << out;
    for (const char* pack : {"pak1.rpk", "pak2.rpk"})
        std::system(("cp '" REEL_SHOW_DIR "/assets/reel/le/" + std::string(pack) + "' '" + dir + "/assets/reel/le/'")
                        .c_str());
    return edited_line;
}

TEST(show_e2e, one_line_edits_of_the_script_end_with_a_message_and_never_a_crash)
{
    const std::string progress_bytes = std::to_string(tool_fixture_read(REEL_SHOW_DIR "/show/progress.ini").size());
    const struct {
        const char* file;
        const char* line;
        const char* edit;
        const char* frames;  // "" plays until the capture stops by itself
        int status;
        std::vector<std::string> messages;  // %d: the edited line's number
    } cases[] = {
        // a name loaded as one kind is not handed out as another
        {"sequence.csv", "abs,,0,0,abs,,100,overlay_clut_set,show_dark", "abs,,0,0,abs,,100,overlay_clut_set,aurora",
         "30", 1, {"could not find \"aurora\" with kind 3 in pak file!\n"}},
        {"sequence.csv", "abs,,0,0,abs,,100,overlay_clut_set,show_dark",
         "abs,,0,0,abs,,100,overlay_clut_set,sequence.csv", "30", 1,
         {"could not find \"sequence.csv\" with kind 3 in pak file!\n"}},
        // a key that only begins a known key is reported, and bound as that key
        {"progress.ini", "palettes = [ show_dark ]", "palette = [ show_dark ]", "30", 1,
         {"[palette] - only a prefix of [palette_animations], bound as that key\n",
          "could not find \"show_dark\" with kind 2 in pak file!\n"}},
        // control scenes bound through a description get no values they read
        {"sequence.csv", "abs,,0,0,abs,,176000,music_start,music", "abs,,0,0,abs,,176000,music_start,@progress.ini", "30",
         1, {"scene \"music_start\" on line %d reads 1 blobs, it was given 0\n"}},
        // and a description that binds other kinds than its scene reads
        {"sequence.csv", "abs,,0,0,abs,,100,overlay_clut_set,show_dark",
         "abs,,0,0,abs,,100,overlay_clut_set,@waves.ini", "30", 1, {"scene \"overlay_clut_set\" on line %d reads 1 palettes, it was given 0\n"}},
        // a text packed without its NUL
        {"pak0.manifest", "raw     progress.ini        progress.ini        1", "raw progress.ini progress.ini 0", "30", 1,
         {"assets/reel/le/pak0.rpk: resource \"progress.ini\" (raw): text of " + progress_bytes +
          " bytes has no terminating NUL\n"}},
        // spans of the 32-bit clock: (97391548 x 22050) / 1000 = 2147483633 samples either way
        {"sequence.csv", "abs,,0,0,abs,,100,overlay_clear,0", "abs,,-97391548,0,abs,,97391548,overlay_clear,0", "30",
         1,
         {"the row on line %d in \"sequence.csv\" spans 4294967266 samples from its start to its end, more than the "
          "show clock holds\n"}},
        {"sequence.csv", "abs,,168000,0,abs,,176000,fade_out_music", "abs,,-1000,0,abs,,97391548,fade_out_music", "30",
         1,
         {"the row on line %d in \"sequence.csv\" spans 2147505683 samples from its start to its end, more than the "
          "show clock holds\n"}},
        {"sequence.csv", "abs,,0,0,abs,,100,overlay_clear,0", "abs,,0,0,abs,,97391549,overlay_clear,0", "30", 1,
         {"time 97391549 ms on line %d in \"sequence.csv\" is out of range (at most 97391548 ms either way)\n"}},
        // without a fade_out_music row the capture still ends, and says why
        {"sequence.csv", "abs,,168000,0,abs,,176000,fade_out_music", "abs,,168000,0,abs,,176000,overlay_clear,0", "", 0,
         {"capture stops: every row of the script has ended and the music has run out\n"}},
        {"sequence.csv", "abs,,0,0,abs,,176000,music_start,music", "abs,,0,0,abs,,176000,overlay_clear,0", "", 0,
         {"capture stops: the script started no music, so the show clock cannot move\n"}},
    };
    int n = 0;
    for (const auto& c : cases) {
        const std::string dir = e2e_dir(("edit_" + std::to_string(n++)).c_str());
        const int line = edited_show(dir, c.file, c.line, c.edit);
        std::string out;
        const int status = run(dir, std::string("reel_capture ") + (*c.frames ? std::string("--frames ") + c.frames : ""), &out);
        EXPECT_EQ(status, c.status) << c.edit << "\n" << out;
        for (const std::string& m : c.messages) {
            char expected[512];
            snprintf(expected, sizeof(expected), m.c_str(), line);
            EXPECT_NE(out.find(expected), std::string::npos) << c.edit << "\nexpected: " << expected << "\n" << out;
        }
    }
}

// The show's own packs truncated or with a byte flipped at chosen offsets: the header, the first
// entry's kind, offset and size, its name, the first block, the middle and the end of each. Every run ends normally or through
// the fatal path with its message, never by a signal or a sanitizer's report.
TEST(show_e2e, damaged_packs_end_the_show_with_a_message_or_not_at_all)
{
    for (int pack = 0; pack < 3; pack++) {
        const std::string name = "pak" + std::to_string(pack) + ".rpk";
        const std::vector<uint8_t> original = read_file(REEL_SHOW_DIR "/assets/reel/le/" + name);
        ASSERT_GT(original.size(), 64u);
        const uint32_t first_block = original[16] | original[17] << 8 | original[18] << 16 | (uint32_t)original[19] << 24;
        const size_t size = original.size();
        const size_t truncations[] = {0, 3, 23, first_block + 6u, size / 2, size - 1};
        const size_t flips[] = {0, 4, 12, 16, 20, 27, first_block + 2u};
        std::vector<std::vector<uint8_t>> damaged;
        for (size_t t : truncations)
            damaged.emplace_back(original.begin(), original.begin() + (long)std::min(t, size));
        for (size_t f : flips) {
            damaged.push_back(original);
            damaged.back()[std::min(f, size - 1)] ^= 0xA5;
        }
        for (size_t i = 0; i < damaged.size(); i++) {
            const std::string dir = e2e_dir(("damaged_" + std::to_string(pack) + "_" + std::to_string(i)).c_str());
            for (const char* p : {"pak0.rpk", "pak1.rpk", "pak2.rpk"})
                std::system(("cp '" REEL_SHOW_DIR "/assets/reel/le/" + std::string(p) + "' '" + dir +
                             "/assets/reel/le/'").c_str());
            tool_fixture_write(dir + "/assets/reel/le/" + name, std::string(damaged[i].begin(), damaged[i].end()));
            std::string out;
            const int status = run(dir, "reel_capture --frames 20", &out);
            SCOPED_TRACE(name + (i < std::size(truncations) ? " truncated" : " flipped") + " case " + std::to_string(i));
            ASSERT_TRUE(status == 0 || status == 1) << "status " << status << "\n" << out;
            if (status == 1) {  // the fatal path says what it refused
                EXPECT_NE(out.find_last_not_of('\n'), std::string::npos);
            }
        }
    }
}
#endif

#ifdef REEL_GREETINGS_EXAMPLE_DIR
#include "bitmap.h"

// The greetings example as the build makes it (its font by reel_fontmake, its 3D scene by
// reel_gltf): the still stays as it was rendered while the panel's text moves, on its grid.
TEST(show_e2e, greetings_example_scrolls_text_over_a_still_that_stays)
{
    const std::string out_dir = tool_fixture_dir(REEL_TEST_OUTPUT_DIR, "greetings_frames");
    std::string out;
    ASSERT_EQ(run(REEL_GREETINGS_EXAMPLE_DIR, "reel_capture --frames 320 --png-at 30 --png-at 300 --out '" + out_dir + "'",
                  &out),
              0)
        << out;
    static std::vector<uint8_t> block(16 << 20);
    xmemarena arena;
    xmemarena_init(&arena, "e2e_greetings", block.size(), block.data());
    const bitmap* early = bitmap_load_png(&arena, (out_dir + "/frame_000030.png").c_str(), 3);
    const bitmap* late = bitmap_load_png(&arena, (out_dir + "/frame_000300.png").c_str(), 3);
    ASSERT_TRUE(early && late);
    // video pixel (x, y) is the 2 x 2 block from (2x, 2y) of the 640 x 480 picture
    auto at = [](const bitmap* b, int32_t x, int32_t y) {
        const uint8_t* p = bitmap_pixel(b, (uint32_t)x * 2, (uint32_t)y * 2);
        return (uint32_t)p[0] << 16 | (uint32_t)p[1] << 8 | p[2];
    };
    int32_t still_differs = 0, panel_differs = 0, bright = 0, grid_not_black = 0;
    for (int32_t y = 0; y < 240; y++)
        for (int32_t x = 0; x < 320; x++) {
            const bool grid = y >= 47 && y <= 153 && x >= 99 && x <= 222;
            const bool grid_line = grid && (y % 2 ? x % 2 : x % 2 == 0);  // written black every frame
            const bool panel_pixel = grid && y % 2 == 0 && x % 2;
            still_differs += !grid && at(early, x, y) != at(late, x, y);
            panel_differs += panel_pixel && at(early, x, y) != at(late, x, y);
            bright += panel_pixel && (at(early, x, y) & 0xFF) > 0xC0;
            grid_not_black += grid_line && (at(early, x, y) != 0 || at(late, x, y) != 0);
        }
    EXPECT_EQ(still_differs, 0) << "the still outside the panel never changes";
    EXPECT_EQ(grid_not_black, 0);
    EXPECT_GT(panel_differs, 100) << "the text moves";
    EXPECT_GT(bright, 100) << "white text in the panel at 0.5 s";
}
#endif
