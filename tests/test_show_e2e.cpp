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
#include <chrono>
#include <cstring>
#include <set>

#include "reel.h"

// ---- the show of this repository, as the build packs it, played to its end ----

// Whether the show in show/ uses every function of the scene table; until it does, the test
// asks only that every function its script names was called.
constexpr bool kShowUsesEveryScene = true;

constexpr int32_t kClipRunMax = 3;                   // clipped samples in a row that are still fine
constexpr int32_t kSilenceLevel = 8;                 // |sample| at most this is silence
constexpr size_t kSilenceMaxSamples = 22050;         // one second
constexpr int kDistinctTimes = 8;                    // frames compared across the show

// One capture of the show with --stats, its music and one hash per frame.
struct show_run {
    int status;
    std::string out;
    std::vector<std::string> lines;
    std::vector<std::string> hashes;  // per frame: "NNNNNN HASH"
    std::vector<int16_t> samples;     // interleaved left, right
    double seconds;                   // wall time of the capture
};

// In a folder of this process's own (ctest runs each test in a process of its own, at the same
// time as others), removed afterwards: the music of a long show is tens of megabytes.
static show_run play_show(const char* name)
{
    const std::string dir = tool_fixture_dir(REEL_TEST_OUTPUT_DIR, name + std::string("_") + std::to_string(getpid()));
    show_run r;
    const auto t0 = std::chrono::steady_clock::now();
    r.status = run(REEL_SHOW_DIR, "reel_capture --stats --wav '" + dir + "/show.wav' --hashes '" + dir + "/hashes.txt'",
                   &r.out);
    r.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
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

// The lines after the one that starts with `head`, up to the first that starts with "===" or
// the end; the line that starts with head itself when `only` is set.
static std::vector<std::string> report_lines(const show_run& r, const std::string& head, bool only = false)
{
    std::vector<std::string> found;
    for (size_t i = 0; i < r.lines.size(); i++) {
        if (r.lines[i].rfind(head, 0) != 0)
            continue;
        if (only)
            return {r.lines[i]};
        for (size_t j = i + 1; j < r.lines.size() && r.lines[j].rfind("===", 0) != 0; j++)
            found.push_back(r.lines[j]);
        return found;
    }
    return found;
}

static std::set<std::string> words_after(const std::string& line, const std::string& head)
{
    std::set<std::string> words;
    std::istringstream in(line.substr(head.size()));
    for (std::string w; in >> w;)
        words.insert(w);
    return words;
}

class show_capture : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        first = new show_run(play_show("show_run"));
        std::printf("the show's capture took %.1f s of wall time for %zu frames\n", first->seconds,
                    first->hashes.size());
        // the script as the engine reads it: its rows with resolved times in samples
        static std::vector<uint8_t> block(8 << 20);
        xmemarena_init(&arena, "e2e_sequence", block.size() / 2, block.data());
        xmemarena_init(&tmp_arena, "e2e_sequence_tmp", block.size() / 2, block.data() + block.size() / 2);
        script_text = tool_fixture_read(REEL_SHOW_DIR "/show/sequence.csv");
        reel_load_sequence(&sequence, script_text.c_str(), "sequence.csv", &arena, &tmp_arena);
    }
    static void TearDownTestSuite() { delete first; }

    static show_run* first;
    static xmemarena arena, tmp_arena;
    static std::string script_text;
    static reel_sequence sequence;
};
show_run* show_capture::first;
xmemarena show_capture::arena;
xmemarena show_capture::tmp_arena;
std::string show_capture::script_text;
reel_sequence show_capture::sequence;

TEST_F(show_capture, the_whole_show_ends_by_itself_and_holds_what_it_must)
{
    const show_run& r = *first;
    ASSERT_EQ(r.status, 0) << r.out;
    EXPECT_NE(r.out.find("the show ended"), std::string::npos) << "the fade_out_music row should end the show\n"
                                                               << r.out;
    ASSERT_GT(sequence.row_count, 0u);

    // every row named by its scene function, in script order, in both pass kinds
    for (const char* kind : {"=== regular ===", "=== vbl ==="}) {
        const std::vector<std::string> rows = report_lines(r, kind);
        ASSERT_GE(rows.size(), sequence.row_count + 1) << kind;  // "total" first
        for (uint32_t i = 0; i < sequence.row_count; i++) {
            const std::string& l = rows[i + 1];
            const std::string f = sequence.rows[i].function;
            EXPECT_TRUE(l.rfind(f + ": ", 0) == 0 || l.rfind(f + " ", 0) == 0) << kind << " row " << i << ": " << l;
        }
    }

    // the scene functions called: all of the table's once the show uses every scene, and until
    // then at least every one its script names
    const std::vector<std::string> count = report_lines(r, "scene functions called: ", true);
    const std::vector<std::string> called_line = report_lines(r, "called: ", true);
    const std::vector<std::string> missing_line = report_lines(r, "not called:", true);
    ASSERT_TRUE(count.size() == 1 && called_line.size() == 1 && missing_line.size() == 1) << r.out;
    const std::set<std::string> called = words_after(called_line[0], "called: ");
    const std::set<std::string> missing = words_after(missing_line[0], "not called:");
    EXPECT_EQ(count[0], "scene functions called: " + std::to_string(called.size()) + " of " +
                            std::to_string(reel_scene_table_count));
    for (uint32_t k = 0; k < reel_scene_table_count; k++) {
        const std::string name = reel_scene_table[k].name;
        EXPECT_NE(called.count(name), missing.count(name)) << name << " should be in exactly one list";
        if (kShowUsesEveryScene) {
            EXPECT_EQ(called.count(name), 1u) << name << " was not called";
        }
    }
    for (uint32_t i = 0; i < sequence.row_count; i++)
        EXPECT_EQ(called.count(sequence.rows[i].function), 1u) << sequence.rows[i].function << " on line "
                                                               << sequence.rows[i].line << " was not called";

    // every arena below its capacity
    int arenas = 0;
    for (const std::string& l : r.lines) {
        char name[128];
        unsigned long long capacity, used, high;
        if (sscanf(l.c_str(), "arena: %127s capacity: %llu used: %llu high water: %llu", name, &capacity, &used,
                   &high) != 4)
            continue;
        arenas++;
        EXPECT_LT(high, capacity) << l;
    }
    EXPECT_GE(arenas, 4) << r.out;

    // the report ends with the frame cost
    ASSERT_FALSE(r.lines.empty());
    EXPECT_TRUE(testing::internal::RE::FullMatch(
        r.lines.back(), "frame ms: mean [0-9]+\\.[0-9][0-9] p99 [0-9]+\\.[0-9][0-9] max [0-9]+\\.[0-9][0-9] "
                        "\\(slowest: [a-z0-9_]+\\)"))
        << r.lines.back();

    // frames differ across the show: at kDistinctTimes times spread over it, and from second to second
    ASSERT_GE(r.hashes.size(), (size_t)(30 * 60)) << "a show of at least half a minute";
    std::set<std::string> spread;
    for (int i = 0; i < kDistinctTimes; i++)
        spread.insert(r.hashes[(r.hashes.size() * (2 * i + 1)) / (2 * kDistinctTimes)].substr(7));
    EXPECT_GE(spread.size(), (size_t)kDistinctTimes - 1) << "the pictures at " << kDistinctTimes
                                                         << " times over the show should differ";
    int moved = 0, seconds = 0;
    for (size_t f = 60; f < r.hashes.size(); f += 60, seconds++)
        moved += r.hashes[f].substr(7) != r.hashes[f - 60].substr(7);
    EXPECT_GE(moved, seconds * 3 / 4) << "pictures should move from second to second";

    // the music: never clipped for long, never silent for a second before the fade row starts
    const reel_sequence_row* fade = nullptr;
    for (uint32_t i = 0; i < sequence.row_count; i++)
        if (!strcmp(sequence.rows[i].function, "fade_out_music"))
            fade = &sequence.rows[i];
    ASSERT_NE(fade, nullptr) << "the show ends with a fade_out_music row";
    ASSERT_GT(r.samples.size(), (size_t)fade->start * 2);
    for (int channel = 0; channel < 2; channel++) {
        int32_t clipped = 0, longest_clip = 0;
        size_t quiet = 0, longest_quiet = 0, quiet_end = 0;
        for (size_t i = channel; i < r.samples.size(); i += 2) {
            const int32_t v = r.samples[i];
            clipped = v >= 32767 || v <= -32768 ? clipped + 1 : 0;
            longest_clip = std::max(longest_clip, clipped);
            // the capture's sample i / 2 is a little after show clock i / 2: the music starts
            // once the engine's first passes have run, so this stops early rather than late
            if (i / 2 < (size_t)fade->start) {
                quiet = std::abs(v) <= kSilenceLevel ? quiet + 1 : 0;
                if (quiet > longest_quiet)
                    longest_quiet = quiet, quiet_end = i / 2;
            }
        }
        EXPECT_LE(longest_clip, kClipRunMax) << "channel " << channel;
        EXPECT_LE(longest_quiet, kSilenceMaxSamples)
            << "channel " << channel << " is silent for " << longest_quiet << " samples up to sample " << quiet_end;
    }
}

TEST_F(show_capture, a_second_run_makes_the_same_frames_and_the_same_music)
{
    const show_run second = play_show("show_run_again");
    ASSERT_EQ(second.status, 0) << second.out;
    for (const char* head : {"frames hash: ", "audio hash: "}) {
        const std::vector<std::string> a = report_lines(*first, head, true), b = report_lines(second, head, true);
        ASSERT_EQ(a.size(), 1u) << first->out;
        EXPECT_EQ(a, b);
    }
    ASSERT_EQ(first->hashes.size(), second.hashes.size());
    for (size_t f = 0; f < first->hashes.size(); f++)
        ASSERT_EQ(first->hashes[f], second.hashes[f]) << "the first frame that differs";
    EXPECT_TRUE(first->samples == second.samples);
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
