// The script linter: one broken script per finding, a clean script with its timeline, and reel_lint.
#include "lint.h"

#include "reel.h"
#include "test_fatal.h"
#include "tool_fixture.h"

namespace {

const std::string LINT_HEADER = "start mode,start ref,start ms,preload ms,end mode,end ref,end ms,function,args\n";
// Every script below starts the music and ends the show, so that only its own fault is found.
const std::string LINT_OPENING = "abs,,0,0,abs,,10000,music_start,music\n",
                  LINT_ENDING = "abs,,8000,0,abs,,10000,fade_out_music\n";

lint_result lint_last;  // the counts of the last run
// The findings and the timeline of a script and a scene.ini, as reel_lint prints them.
std::string lint_run(const std::string& body, const std::string& description = "")
{
    static test_arena memory(16u << 20);
    xmemarena_reset(&memory.arena);
    const std::string script = LINT_HEADER + body;
    const lint_resource resources[] = {
        {REEL_KIND_RAW, "sequence.csv", script.c_str()},   {REEL_KIND_BLOB, "music", nullptr},
        {REEL_KIND_PALETTE, "base", nullptr},              {REEL_KIND_PALETTE_ANIMATION, "rings", nullptr},
        {REEL_KIND_RAW, "scene.ini", description.c_str()},
    };
    const lint_show show = {sizeof(resources) / sizeof(resources[0]), resources};
    char* text = nullptr;
    size_t size = 0;
    FILE* out = open_memstream(&text, &size);
    lint_last = lint_check(&show, LINT_PRINT_TIMELINE, &memory.arena, out);
    fclose(out);
    const std::string printed(text, size);
    free(text);
    return printed;
}

// rows after the opening and the ending (line 4 on), and a line the linter must print after "sequence.csv"
const struct lint_case { const char* rows; const char* finding;
} lint_cases[] = {
    {"abss,,0,0,abs,,100,overlay_clear,0\n", ":4: error: unknown start mode \"abss\" (abs, relstart or relend)"},
    {"relend,intro,0,0,abs,,100,overlay_clear,0\n",
     ":4: error: start refers to \"intro\", which is neither prev, me nor a label"},
    {"abs,,0,0,abs,100,overlay_clear\n", ":4: error: a scene row has 8 columns"},
    {"abs,,0,0,abs,,100,overlay_clearr,0\n", ":4: error: unknown scene function \"overlay_clearr\""},
    {"abs,,0,0,abs,,100,video_clut\n", ":4: warning: \"video_clut\" binds to video_clut_reset by its prefix"},
    {"abs,,0,0,abs,,100,overlay_palette_animation,0,rings,7,8\n",
     ":4: error: overlay_palette_animation argument 3 (mode) is 7, outside 0 to 3"},
    {"abs,,500,0,abs,,100,overlay_clear,0\n", ":4: error: overlay_clear ends at 0.100 s, before it starts at 0.500 s"},
    {"abs,,100,1000,abs,,200,overlay_clear,0\n",
     ":4: warning: overlay_clear should load at -0.900 s, before the clock starts at 0: it loads at 0 s"},
    {"barrier,prev_done\n", ":4: error: barrier \"prev_done\" is not prev_completed"},
    {"abs,,0,0,abs,,1,music_sync,0\nabs,,0,0,abs,,1,music_sync,0\n",
     ": error: 2 music_sync rows; there can be at most one"},
    {"abs,,2000,0,abs,,2000,music_sync,88200\n",
     ":2: error: music_start loads at 2.000 s, but the clock stays at 0 until the music starts"},
    // what only the engine's loader finds comes back as a finding, not as the end of the linter
    {"abs,,0,0,abs,,99999999,overlay_clear,0\n", ": error: the engine refuses it with the message above"},
};

TEST(lint, each_broken_script_gives_its_finding_with_file_and_line)
{
    for (const lint_case& c : lint_cases) {
        const std::string out = lint_run(LINT_OPENING + LINT_ENDING + c.rows);
        EXPECT_NE(out.find(std::string("sequence.csv") + c.finding), std::string::npos) << c.rows << "\n" << out;
    }
    const std::string out =
        lint_run("abs,,0,0,abs,,100,overlay_clut_set,@scene.ini\n",
                 "scene_name = a\npalettes = [ base nothere ]\nintegers = [ 1 2x ]\nfloats = [ 1.5.1 ]\n"
                 "colour = red\nrle_images = [ x]\n");
    for (const char* finding :
         {"sequence.csv: warning: no fade_out_music row: the show never ends by itself",
          "sequence.csv: error: no music_start row: the clock never moves and no row after 0 runs",
          "scene.ini:2: error: palette \"nothere\" is in no pack",
          "scene.ini:5: warning: unknown key \"colour\" (value \"red\") is skipped",
          "scene.ini:6: error: item \"x]\" holds the closing bracket: put a space before ]"})
        EXPECT_NE(out.find(finding), std::string::npos) << finding << "\n" << out;
}

TEST(lint, a_clean_script_prints_its_resolved_timeline_and_windows_line_ends_read_the_same)
{
    const std::string body =
        LINT_OPENING +
        "intro:\nrelstart,prev,1000,500,relstart,me,2000,overlay_clut_set,base\n"
        "barrier,prev_completed\nrelend,intro,0,0,abs,,8000,overlay_palette_animation,0,rings,3,8\n" +
        LINT_ENDING;
    const std::string out = lint_run(body);
    EXPECT_EQ(lint_last.errors + lint_last.warnings, 0u) << out;
    for (const char* row : {"     4  overlay_clut_set                  1.000      3.000      0.500\n",
                            "     6  overlay_palette_animation         3.000      8.000      3.000\n"})
        EXPECT_NE(out.find(row), std::string::npos) << out;  // line, function, start, end and load in seconds
    std::string windows;
    for (char ch : body)
        windows += ch == '\n' ? std::string("\r\n") : std::string(1, ch);
    EXPECT_EQ(lint_run(windows), out);
}

TEST(lint, reel_lint_reads_packs_or_a_source_folder_and_exits_1_on_errors)
{
    const std::string tools = REEL_TOOLS_DIR, dir = tool_fixture_dir(REEL_TEST_OUTPUT_DIR, "packs");
    ASSERT_EQ(tool_fixture_pack_show(dir, tools, LINT_HEADER + LINT_OPENING + LINT_ENDING, 100), 0);
    tool_run_result r = tool_fixture_run(dir, tools + "/reel_lint");
    EXPECT_TRUE(r.status == 0 && r.out.rfind("checking the packs in ./assets/reel/le/\n", 0) == 0) << r.out << r.err;
    // the same folder as a source: the manifests and the files they name, a broken row added
    std::ofstream(dir + "/sequence.csv", std::ios::app) << "abs,,0,0,abs,,1,overlay_clut_set,nowhere\n";
    std::filesystem::remove_all(dir + "/assets"), std::filesystem::remove(dir + "/music.bin");  // not made yet
    r = tool_fixture_run(dir, tools + "/reel_lint --no-timeline .");
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    EXPECT_EQ(r.out, "checking the show source in ./ (its pack manifests)\n"
                     "sequence.csv:4: error: overlay_clut_set argument 1: palette \"nowhere\" is in no pack\n"
                     "1 errors, 0 warnings\n");
}

}  // namespace
