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

}  // namespace

TEST(show_e2e, a_packed_show_plays_to_its_end_with_the_music_decoded_exactly)
{
    const std::string dir = tool_fixture_dir(REEL_TEST_OUTPUT_DIR, "music_show");
    // 6 s of music bytes; the fade row starts at 2 s and ends the show at 6 s
    std::vector<uint8_t> music(6 * 22050);
    uint32_t seed = 99;
    for (uint8_t& b : music)
        b = (uint8_t)((seed = seed * 1664525u + 1013904223u) >> 24);
    ASSERT_EQ(tool_fixture_pack_show(dir, tools,
                                     "start mode,start ref,start ms,preload ms,end mode,end ref,end ms,function,args\n"
                                     "abs,,0,0,abs,,6000,music_start,music\n"
                                     "abs,,2000,0,abs,,6000,fade_out_music\n",
                                     0),
              0);
    tool_fixture_write(dir + "/music.bin", std::string(music.begin(), music.end()));
    std::string out;
    ASSERT_EQ(run(dir, "reel_pack pak0.manifest assets/reel/le/pak0.rpk", &out), 0) << out;

    ASSERT_EQ(run(dir, "reel_capture --png-every 120 --out frames --wav music.wav", &out), 0) << out;
    EXPECT_NE(out.find("the show ended"), std::string::npos) << out;
    EXPECT_EQ(tool_fixture_list(dir + "/frames"), (std::vector<std::string>{"frame_000000.png", "frame_000120.png",
                                                                            "frame_000240.png", "frame_000360.png"}));

    const std::string wav = tool_fixture_read(dir + "/music.wav");
    ASSERT_TRUE(wav.size() > 44 && wav.substr(0, 4) == "RIFF") << wav.size();
    const size_t samples = (wav.size() - 44) / 4;
    EXPECT_GT(samples, (size_t)(6 * 22050));  // the show quits in the first pass after 6 s
    EXPECT_LT(samples, (size_t)(6 * 22050 + 2000));
    auto sample = [&](size_t frame, int channel) {
        const uint8_t* p = (const uint8_t*)wav.data() + 44 + frame * 4 + channel * 2;
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
    for (size_t i = 0; i < (size_t)(2.5 * 22050); i++)
        ASSERT_TRUE(sample(start + i, 0) == ref[2 * i] && sample(start + i, 1) == ref[2 * i + 1]) << i;
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

#ifdef REEL_SHOW_DIR
#include <algorithm>
#include <cstring>

#include "reel.h"
#include "test_fatal.h"

// ---- the show of this repository, as the build packs it, played to its end ----

// One capture of the show with --stats, its music and one hash per frame.
struct show_run {
    int status;
    std::string out;
    std::vector<std::string> lines;
    std::vector<std::string> hashes;  // per frame: "NNNNNN HASH"
    std::vector<int16_t> samples;     // interleaved left, right
};

// In a folder of this process's own (ctest runs each test in a process of its own, at the same
// time as others), removed afterwards: the music of a long show is tens of megabytes.
static show_run play_show(const char* name)
{
    const std::string dir = tool_fixture_dir(REEL_TEST_OUTPUT_DIR, name + std::string("_") + std::to_string(getpid()));
    show_run r;
    r.status = run(REEL_SHOW_DIR, "reel_capture --stats --wav '" + dir + "/show.wav' --hashes '" + dir + "/hashes.txt'",
                   &r.out);
    std::istringstream lines(r.out), hashes(tool_fixture_read(dir + "/hashes.txt"));
    for (std::string l; std::getline(lines, l);)
        r.lines.push_back(l);
    for (std::string l; std::getline(hashes, l);)
        r.hashes.push_back(l);
    const std::string wav = tool_fixture_read(dir + "/show.wav");
    if (wav.size() > 44) {
        r.samples.resize((wav.size() - 44) / 2);
        memcpy(r.samples.data(), wav.data() + 44, r.samples.size() * 2);
    }
    std::system(("rm -rf '" + dir + "'").c_str());
    return r;
}

// The first line that starts with `head`, or "".
static std::string report_line(const show_run& r, const std::string& head)
{
    for (const std::string& l : r.lines)
        if (l.rfind(head, 0) == 0)
            return l;
    return "";
}

// The show's script as the engine reads it: rows with resolved times in samples.
static const reel_sequence& show_sequence()
{
    static test_arena memory(4 << 20), tmp_memory(4 << 20);
    static const std::string text = tool_fixture_read(REEL_SHOW_DIR "/show/sequence.csv");
    static reel_sequence sequence;
    reel_load_sequence(&sequence, text.c_str(), "sequence.csv", &memory.arena, &tmp_memory.arena);
    return sequence;
}

TEST(show_e2e, the_whole_show_ends_by_itself_and_holds_what_it_must)
{
    const show_run r = play_show("show_run");
    const reel_sequence& sequence = show_sequence();
    ASSERT_TRUE(r.status == 0 && !r.lines.empty() && sequence.row_count > 0) << r.out;
    EXPECT_NE(r.out.find("the show ended"), std::string::npos) << "the fade_out_music row should end the show\n"
                                                               << r.out;

    // every row named by its scene function, in script order, after each pass kind's "total"
    for (const char* kind : {"=== regular ===", "=== vbl ==="}) {
        const size_t at = std::find(r.lines.begin(), r.lines.end(), kind) - r.lines.begin() + 2;
        ASSERT_LE(at + sequence.row_count, r.lines.size()) << kind;
        for (uint32_t i = 0; i < sequence.row_count; i++) {
            const std::string& l = r.lines[at + i];
            const std::string f = sequence.rows[i].function;
            EXPECT_TRUE(l.rfind(f + ": ", 0) == 0 || l.rfind(f + " ", 0) == 0) << kind << " row " << i << ": " << l;
        }
    }

    // every function of the scene table called, and listed so
    const std::string count = std::to_string(reel_scene_table_count), called = report_line(r, "called: ") + " ";
    EXPECT_EQ(report_line(r, "scene functions called: "), "scene functions called: " + count + " of " + count);
    for (uint32_t k = 0; k < reel_scene_table_count; k++)
        EXPECT_NE(called.find(" " + std::string(reel_scene_table[k].name) + " "), std::string::npos)
            << reel_scene_table[k].name << " was not called";

    // every arena below its capacity
    int arenas = 0;
    for (const std::string& l : r.lines) {
        char name[128];
        unsigned long long capacity, used, high;
        const bool arena = sscanf(l.c_str(), "arena: %127s capacity: %llu used: %llu high water: %llu", name, &capacity,
                                  &used, &high) == 4;
        arenas += arena;
        EXPECT_TRUE(!arena || high < capacity) << l;
    }
    EXPECT_GE(arenas, 4) << r.out;

    // the report ends with the frame cost
    EXPECT_TRUE(testing::internal::RE::FullMatch(
        r.lines.back(), "frame ms: mean [0-9]+\\.[0-9][0-9] p99 [0-9]+\\.[0-9][0-9] max [0-9]+\\.[0-9][0-9] "
                        "\\(slowest: [a-z0-9_]+\\)"))
        << r.lines.back();

    // frames differ across the show, from second to second
    ASSERT_GE(r.hashes.size(), (size_t)(30 * 60)) << "a show of at least half a minute";
    int moved = 0, seconds = 0;
    for (size_t f = 60; f < r.hashes.size(); f += 60, seconds++)
        moved += r.hashes[f].substr(7) != r.hashes[f - 60].substr(7);
    EXPECT_GE(moved, seconds * 3 / 4) << "pictures should move from second to second";

    // the music: never clipped for long, never silent for a second before the fade row starts
    const reel_sequence_row* fade =
        std::find_if(sequence.rows, sequence.rows + sequence.row_count,
                     [](const auto& row) { return !strcmp(row.function, "fade_out_music"); });
    ASSERT_NE(fade, sequence.rows + sequence.row_count) << "the show ends with a fade_out_music row";
    ASSERT_GT(r.samples.size(), (size_t)fade->start * 2);
    for (int channel = 0; channel < 2; channel++) {
        int32_t clipped = 0, longest_clip = 0;
        size_t quiet = 0, longest_quiet = 0;
        for (size_t i = channel; i < r.samples.size(); i += 2) {
            const int32_t v = r.samples[i];
            clipped = v >= 32767 || v <= -32768 ? clipped + 1 : 0;
            longest_clip = std::max(longest_clip, clipped);
            // the capture's sample i / 2 is a little after show clock i / 2: the music starts
            // once the engine's first passes have run, so this stops early rather than late
            if (i / 2 < (size_t)fade->start) {
                quiet = std::abs(v) <= 8 ? quiet + 1 : 0;
                longest_quiet = std::max(longest_quiet, quiet);
            }
        }
        EXPECT_LE(longest_clip, 3) << "channel " << channel << " clips for so many samples in a row";
        EXPECT_LE(longest_quiet, 22050u) << "channel " << channel << " is silent (|sample| <= 8) for so many samples";
    }
}

TEST(show_e2e, a_second_run_makes_the_same_frames_and_the_same_music)
{
    const show_run first = play_show("show_run"), second = play_show("show_run_again");
    ASSERT_TRUE(first.status == 0 && second.status == 0) << first.out << second.out;
    EXPECT_TRUE(!first.hashes.empty() && first.hashes == second.hashes) << "the frames differ";
    EXPECT_TRUE(!first.samples.empty() && first.samples == second.samples) << "the music differs";
}

// ---- what edits of the show's script and damage to its packs may do ----

// The show's texts from show/ (one line changed), packed into a pak0 of the case's own; its
// pictures and music packs as the build made them. The edited line's number is returned.
static int edited_show(const std::string& dir, const char* file, const std::string& line, const std::string& edit)
{
    int edited_line = 0;
    for (const char* name : {"sequence.csv", "progress.ini", "title_reveal.ini", "credits_reveal.ini", "waves.ini",
                             "greetings.ini", "pak0.manifest"}) {
        std::istringstream in(tool_fixture_read(REEL_SHOW_DIR "/show/" + std::string(name)));
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
    std::system(("cp '" REEL_SHOW_DIR "/assets/reel/le/pak1.rpk' '" REEL_SHOW_DIR "/assets/reel/le/pak2.rpk' '" + dir +
                 "/assets/reel/le/'").c_str());
    return edited_line;
}

TEST(show_e2e, one_line_edits_of_the_script_end_with_a_message_and_never_a_crash)
{
    const std::string progress_bytes = std::to_string(tool_fixture_read(REEL_SHOW_DIR "/show/progress.ini").size());
    const std::string clut = "abs,,0,0,abs,,100,overlay_clut_set,", music = "abs,,0,0,abs,,176000,",
                      fade = "abs,,168000,0,abs,,176000,", pak0 = "pak0.manifest", script = "sequence.csv";
    // the file, its line and the line's edit; whether the capture plays to its end (status 0) or
    // 30 frames (status 1); the messages, where %d is the edited line's number
    const struct { std::string file, line, edit; bool to_the_end; std::vector<std::string> messages; } cases[] = {
        // the script is looked up before it is loaded
        {pak0, "raw     sequence.csv        sequence.csv        1", "#", false, {"failed open \"sequence.csv\"\n"}},
        // a name loaded as one kind is not handed out as another
        {script, clut + "show_dark", clut + "aurora", false, {"could not find \"aurora\" with kind 3 in pak file!\n"}},
        // a key that only begins a known key is reported, and bound as that key
        {"progress.ini", "palettes = [ show_dark ]", "palette = [ show_dark ]", false,
         {"[palette] - only a prefix of [palette_animations], bound as that key\n",
          "could not find \"show_dark\" with kind 2 in pak file!\n"}},
        // control scenes bound through a description get no values they read
        {script, music + "music_start,music", music + "music_start,@progress.ini", false,
         {"scene \"music_start\" on line %d reads 1 blobs, it was given 0\n"}},
        // a text packed without its NUL
        {pak0, "raw     progress.ini        progress.ini        1", "raw progress.ini progress.ini 0", false,
         {"assets/reel/le/pak0.rpk: resource \"progress.ini\" (raw): text of " + progress_bytes +
          " bytes has no terminating NUL\n"}},
        // spans of the 32-bit clock: (97391548 x 22050) / 1000 = 2147483633 samples either way
        {script, fade + "fade_out_music", "abs,,-1000,0,abs,,97391548,fade_out_music", false,
         {"the row on line %d in \"sequence.csv\" spans 2147505683 samples from its start to its end, more than the "
          "show clock holds\n"}},
        // without a fade_out_music row the capture still ends, and says why
        {script, fade + "fade_out_music", fade + "overlay_clear,0", true,
         {"capture stops: every row of the script has ended and the music has run out\n"}},
        {script, music + "music_start,music", music + "overlay_clear,0", true,
         {"capture stops: the script started no music, so the show clock cannot move\n"}},
    };
    int n = 0;
    for (const auto& c : cases) {
        const std::string dir = e2e_dir(("edit_" + std::to_string(n++)).c_str());
        const int line = edited_show(dir, c.file.c_str(), c.line, c.edit);
        std::string out;
        EXPECT_EQ(run(dir, c.to_the_end ? "reel_capture" : "reel_capture --frames 30", &out), c.to_the_end ? 0 : 1)
            << c.edit << "\n" << out;
        for (const std::string& m : c.messages) {
            char expected[512];
            snprintf(expected, sizeof(expected), m.c_str(), line);
            EXPECT_NE(out.find(expected), std::string::npos) << c.edit << "\nexpected: " << expected << "\n" << out;
        }
    }
}

// The show's own packs truncated or with a byte flipped at chosen offsets: the header, the first
// entry's kind, offset and size, its name, the first block, the middle and the end of each. Every
// run ends normally or through the fatal path, never by a signal or a sanitizer's report.
TEST(show_e2e, damaged_packs_end_the_show_with_a_message_or_not_at_all)
{
    for (const char* name : {"pak0.rpk", "pak1.rpk", "pak2.rpk"}) {
        const std::string original = tool_fixture_read(REEL_SHOW_DIR "/assets/reel/le/" + std::string(name));
        ASSERT_GT(original.size(), 64u);
        size_t block = 0;  // the first entry's offset (a little-endian u32)
        memcpy(&block, &original[16], 4);
        const size_t size = original.size();
        std::vector<std::string> damaged;
        for (size_t t : {(size_t)0, (size_t)3, (size_t)23, block + 6, size / 2, size - 1})
            damaged.push_back(original.substr(0, t));
        for (size_t f : {(size_t)0, (size_t)4, (size_t)12, (size_t)16, (size_t)20, (size_t)27, block + 2}) {
            damaged.push_back(original);
            damaged.back()[std::min(f, size - 1)] ^= 0xA5;
        }
        for (size_t i = 0; i < damaged.size(); i++) {
            const std::string dir = e2e_dir(("damaged_" + std::string(name) + "_" + std::to_string(i)).c_str());
            std::system(("cp '" REEL_SHOW_DIR "/assets/reel/le/'pak?.rpk '" + dir + "/assets/reel/le/'").c_str());
            tool_fixture_write(dir + "/assets/reel/le/" + name, damaged[i]);
            std::string out;
            const int status = run(dir, "reel_capture --frames 20", &out);
            EXPECT_TRUE(status == 0 || (status == 1 && out.find_last_not_of('\n') != std::string::npos))
                << name << " damaged, case " << i << ": status " << status << "\n" << out;
        }
    }
}
#endif
