// The script linter: one broken script per finding, a clean script with its timeline, and reel_lint.
#include "lint.h"

#include "reel.h"
#include "test_fatal.h"
#include "tool_fixture.h"

namespace {

const char* const LINT_HEADER = "start mode,start ref,start ms,preload ms,end mode,end ref,end ms,function,args\n";
// Every script below starts the music and ends the show, so that only its own fault is found.
const char* const LINT_OPENING = "abs,,0,0,abs,,10000,music_start,music\n";
const char* const LINT_ENDING = "abs,,8000,0,abs,,10000,fade_out_music\n";

struct lint_fixture {
    test_arena memory = test_arena(16u << 20);
    xmemarena& arena = memory.arena;
    std::string script, description;

    // The findings and the timeline, as reel_lint prints them.
    std::string check(const std::string& body, lint_result* result = nullptr)
    {
        script = LINT_HEADER + body;
        const lint_resource resources[] = {
            {REEL_KIND_RAW, "sequence.csv", script.c_str()},   {REEL_KIND_BLOB, "music", nullptr},
            {REEL_KIND_PALETTE, "base", nullptr},              {REEL_KIND_PALETTE_ANIMATION, "rings", nullptr},
            {REEL_KIND_RAW, "scene.ini", description.c_str()},
        };
        const lint_show show = {sizeof(resources) / sizeof(resources[0]), resources};
        char* text = nullptr;
        size_t size = 0;
        FILE* out = open_memstream(&text, &size);
        const lint_result r = lint_check(&show, LINT_PRINT_TIMELINE, &arena, out);
        fclose(out);
        const std::string printed(text, size);
        free(text);
        if (result)
            *result = r;
        return printed;
    }
};

struct lint_case {
    const char* rows;     // after the opening and the ending rows (line 4 on)
    const char* finding;  // a line the linter must print
};

const lint_case lint_cases[] = {
    {"abss,,0,0,abs,,100,overlay_clear,0\n", "sequence.csv:4: error: unknown start mode \"abss\" (abs, relstart or relend)"},
    {"relend,intro,0,0,abs,,100,overlay_clear,0\n",
     "sequence.csv:4: error: start refers to \"intro\", which is neither prev, me nor a label"},
    {"abs,,0,0,abs,100,overlay_clear\n", "sequence.csv:4: error: a scene row has 8 columns"},
    {"abs,,0,0,abs,,100,overlay_clearr,0\n", "sequence.csv:4: error: unknown scene function \"overlay_clearr\""},
    {"abs,,0,0,abs,,100,video_clut\n", "sequence.csv:4: warning: \"video_clut\" binds to video_clut_reset by its prefix"},
    {"abs,,0,0,abs,,100,overlay_palette_animation,0,rings,7,8\n",
     "sequence.csv:4: error: overlay_palette_animation argument 3 (mode) is 7, outside 0 to 3"},
    {"abs,,0,0,abs,,100,load_sync,later\n", "sequence.csv:4: error: load_sync argument 1: no label \"later\" in the script"},
    {"abs,,500,0,abs,,100,overlay_clear,0\n",
     "sequence.csv:4: error: overlay_clear ends at 0.100 s, before it starts at 0.500 s"},
    {"abs,,100,1000,abs,,200,overlay_clear,0\n",
     "sequence.csv:4: warning: overlay_clear should load at -0.900 s, before the clock starts at 0: it loads at 0 s"},
    {"barrier,prev_done\n", "sequence.csv:4: error: barrier \"prev_done\" is not prev_completed"},
    {"abs,,0,0,abs,,1,music_sync,0\nabs,,0,0,abs,,1,music_sync,0\n",
     "sequence.csv: error: 2 music_sync rows; there can be at most one"},
    {"abs,,2000,0,abs,,2000,music_sync,88200\n",
     "sequence.csv:2: error: music_start loads at 2.000 s, but the clock stays at 0 until the music starts"},
    // what only the engine's loader finds comes back as a finding, not as the end of the linter
    {"abs,,0,0,abs,,99999999,overlay_clear,0\n", "sequence.csv: error: the engine refuses it with the message above"},
};

TEST(lint, each_broken_script_gives_its_finding_with_file_and_line)
{
    for (const lint_case& c : lint_cases) {
        lint_fixture f;
        const std::string out = f.check(std::string(LINT_OPENING) + LINT_ENDING + c.rows);
        EXPECT_NE(out.find(std::string(c.finding)), std::string::npos) << c.rows << "\n" << out;
    }
}

TEST(lint, a_script_without_an_end_and_broken_descriptions_are_reported)
{
    lint_fixture f;
    f.description = "scene_name = a\npalettes = [ base nothere ]\nintegers = [ 1 2x ]\nfloats = [ 1.5.1 ]\n"
                    "colour = red\nrle_images = [ x]\n";
    const std::string out = f.check("abs,,0,0,abs,,100,overlay_clut_set,@scene.ini\n");
    for (const char* finding : {
             "sequence.csv: warning: no fade_out_music row: the show never ends by itself",
             "sequence.csv: error: no music_start row: the clock never moves and no row after 0 runs",
             "scene.ini:2: error: palette \"nothere\" is in no pack",
             "scene.ini:5: warning: unknown key \"colour\" (value \"red\") is skipped",
             "scene.ini:6: error: item \"x]\" holds the closing bracket: put a space before ]",
         })
        EXPECT_NE(out.find(finding), std::string::npos) << finding << "\n" << out;
}

TEST(lint, a_clean_script_prints_its_resolved_timeline_and_windows_line_ends_read_the_same)
{
    const std::string body = std::string(LINT_OPENING) +
                             "intro:\n"
                             "relstart,prev,1000,500,relstart,me,2000,overlay_clut_set,base\n"
                             "barrier,prev_completed\n"
                             "relend,intro,0,0,abs,,8000,overlay_palette_animation,0,rings,3,8\n" +
                             LINT_ENDING;
    lint_fixture unix_text, windows_text;
    lint_result r;
    const std::string out = unix_text.check(body, &r);
    EXPECT_EQ(r.errors + r.warnings, 0u) << out;
    // line, function, start, end and load in seconds
    EXPECT_NE(out.find("     4  overlay_clut_set                  1.000      3.000      0.500\n"), std::string::npos)
        << out;
    EXPECT_NE(out.find("     6  overlay_palette_animation         3.000      8.000      3.000\n"), std::string::npos)
        << out;
    std::string crlf;
    for (char c : body)
        crlf += c == '\n' ? std::string("\r\n") : std::string(1, c);
    EXPECT_EQ(windows_text.check(crlf), out);
}

TEST(lint, reel_lint_reads_packs_or_a_source_folder_and_exits_1_on_errors)
{
    const std::string tools = REEL_TOOLS_DIR;
    const std::string dir = tool_fixture_dir(REEL_TEST_OUTPUT_DIR, "packs");
    ASSERT_EQ(tool_fixture_pack_show(dir, tools, std::string(LINT_HEADER) + LINT_OPENING + LINT_ENDING, 100), 0);
    tool_run_result r = tool_fixture_run(dir, tools + "/reel_lint");
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_EQ(r.out.rfind("checking the packs in ./assets/reel/le/\n", 0), 0u) << r.out;
    EXPECT_NE(r.out.find("\n0 errors, 0 warnings\n"), std::string::npos) << r.out;

    // the same folder as a source: the manifests and the files they name, a broken row added
    tool_fixture_write(dir + "/sequence.csv", std::string(LINT_HEADER) + LINT_OPENING + LINT_ENDING +
                                                  "abs,,0,0,abs,,1,overlay_clut_set,nowhere\n");
    std::system(("rm -rf '" + dir + "/assets' '" + dir + "/music.bin'").c_str());  // not made yet
    r = tool_fixture_run(dir, tools + "/reel_lint --no-timeline .");
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    EXPECT_EQ(r.out, "checking the show source in ./ (its pack manifests)\n"
                     "sequence.csv:4: error: overlay_clut_set argument 1: palette \"nowhere\" is in no pack\n"
                     "1 errors, 0 warnings\n");
}

}  // namespace
