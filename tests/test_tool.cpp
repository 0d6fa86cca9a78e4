// The tools' shared manners: every program's --help, its usage errors and its failed writes,
// run as a person runs them; and the safe output files in process.
#include "tool.h"

#include <sys/resource.h>

#include <csignal>

#include "bitmap.h"
#include "test_fatal.h"
#include "tool_fixture.h"

namespace {

const std::string tools = REEL_TOOLS_DIR, root = REEL_TEST_OUTPUT_DIR;

const char* const tool_programs[] = {"reel_capture",    "reel_lint",       "reel_music",      "reel_pack",
                                     "reel_rasterpics", "reel_showgen",    "reel_texdump",    "reel_videoprep",
                                     "reel_overlayprep", "reel_strokeprep", "reel_overlaygen", "reel_madgen", "reel_fontmake"};

TEST(tool, help_prints_the_usage_on_standard_output_and_touches_nothing)
{
    std::vector<std::pair<std::string, std::vector<const char*>>> runs;
    for (const char* program : tool_programs)  // --help wins wherever it stands, also where a folder name is expected
        runs.push_back({program, {" --help", " -h", " out --help"}});
    runs.push_back({"reel_gltf", {" --help"}});  // the glTF importer knows --help only as the first argument
    for (const auto& [program, all_args] : runs) {
        const std::string dir = tool_fixture_dir(root, "help");
        for (const char* args : all_args) {
            const tool_run_result r = tool_fixture_run(dir, tools + "/" + program + args);
            EXPECT_EQ(r.status, 0) << program << args << "\n" << r.err;
            EXPECT_EQ(r.out.rfind("usage: " + program, 0), 0u) << program << args << "\n" << r.out;
            EXPECT_EQ(r.err, "") << program << args;
        }
        EXPECT_EQ(tool_fixture_list(dir), std::vector<std::string>()) << program;
    }
}

struct tool_usage_case {
    const char* program;
    const char* args;
    const char* message;  // the first line on standard error, after "<program>: "; "" when the usage comes first
};

const tool_usage_case tool_usage_cases[] = {
    {"reel_capture", "--frames 0", "--frames needs a whole number of at least 1, not \"0\""},
    {"reel_lint", "a b", "one folder only"},
    {"reel_music", "a.bin --beam 33", "--beam needs a whole number from 1 to 32, not \"33\""},
    {"reel_pack", "-x a", "unknown option \"-x\""},
    {"reel_rasterpics", "", "no output folder"},
    {"reel_showgen", "a b", "one output folder only"},
    {"reel_texdump", "in.png out --format 5", "--format needs a whole number from 1 to 4, not \"5\""},
    {"reel_gltf", "only_one_argument", ""},
    {"reel_videoprep", "bump --strength 0 a.png b.tmap", "--strength needs a number from 0.001 to 1000, not \"0\""},
    {"reel_overlayprep", "image in.png out --key 256", "--key needs a whole number from 0 to 255, not \"256\""},
    {"reel_strokeprep", "out --path \"0,0 9,9\"", "--path and --size go together"},
    {"reel_overlaygen", "", "no output folder"},
    {"reel_madgen", "--model cube out", "--model needs totem or machine, not \"cube\""},
    {"reel_fontmake", "a 0 b", "PIXELS needs a whole number from 1 to 1024, not \"0\""},
};

TEST(tool, wrong_arguments_give_the_reason_and_the_usage_on_standard_error_and_status_2)
{
    for (const tool_usage_case& c : tool_usage_cases) {
        const std::string dir = tool_fixture_dir(root, "usage");
        const tool_run_result r = tool_fixture_run(dir, tools + "/" + c.program + " " + c.args);
        EXPECT_EQ(r.status, 2) << c.program << " " << c.args << "\n" << r.err;
        EXPECT_EQ(r.out, "") << c.program << " " << c.args;
        const std::string usage = std::string("usage: ") + c.program;
        const std::string first = c.message[0] ? std::string(c.program) + ": " + c.message + "\n" + usage : usage;
        EXPECT_EQ(r.err.rfind(first, 0), 0u) << c.program << " " << c.args << "\n" << r.err;
        EXPECT_EQ(tool_fixture_list(dir), std::vector<std::string>()) << c.program << " " << c.args;
    }
}

struct tool_failure_case {
    const char* command;
    std::string message;  // a line on standard error, after "<program>: "
};

// run in an empty folder that holds only the manifest m and the black 32 x 8 picture in.png
const tool_failure_case tool_failure_cases[] = {
    {"reel_pack m /dev/full", "cannot write \"/dev/full\": No space left on device"},
    {"reel_pack --list missing.rpk", "cannot read \"missing.rpk\" (the reason is above)"},
    {"reel_showgen m/x", "cannot create folder \"m/x\": \"m\" exists and is not a folder"},
    {"reel_texdump missing.png out", "cannot read \"missing.png\" (the reason is above)"},
    {"reel_gltf missing.gltf out", "missing.gltf: cannot open: No such file or directory"},
    {"reel_videoprep stencil missing.png a.tmap", "cannot read \"missing.png\": No such file or directory"},
    {"reel_overlayprep image missing.png x.img", "missing.png: No such file or directory"},
    {"reel_strokeprep x.img --picture missing.png", "cannot read \"missing.png\": No such file or directory"},
    {"reel_fontmake missing.ttf 18 x.fnt", "missing.ttf: No such file or directory"},
};

TEST(tool, failed_writes_name_the_path_and_the_reason_exit_1_and_leave_no_file)
{
    test_arena memory;
    bitmap* picture = bitmap_create(&memory.arena, 32, 8, BITMAP_SRGB | BITMAP_CHANNELS_4);  // black
    memset(picture->pixels, 0, (size_t)picture->row_bytes * picture->height);
    struct stat device;
    ASSERT_EQ(stat("/dev/full", &device), 0);
    for (const tool_failure_case& c : tool_failure_cases) {
        const std::string dir = tool_fixture_dir(root, "failure");
        tool_fixture_write(dir + "/m", "raw a m 1\n");
        tool_save_png(picture, (dir + "/in.png").c_str(), &memory.arena);
        const tool_run_result r = tool_fixture_run(dir, tools + "/" + c.command);
        EXPECT_EQ(r.status, 1) << c.command << "\n" << r.out << r.err;
        const std::string line = std::string(c.command, strchr(c.command, ' ')) + ": " + c.message + "\n";
        EXPECT_NE(r.err.find(line), std::string::npos) << c.command << "\n" << r.err;
        EXPECT_EQ(tool_fixture_list(dir), std::vector<std::string>({"in.png", "m"})) << c.command;
        struct stat st;
        EXPECT_TRUE(stat("/dev/full", &st) == 0 && S_ISCHR(st.st_mode) && st.st_rdev == device.st_rdev) << c.command;
    }
    // "the reason above" is the system's
    const std::string dir = tool_fixture_dir(root, "failure");
    EXPECT_EQ(tool_fixture_run(dir, tools + "/reel_texdump missing.png out").out,
              "bitmap_load_png: cannot load missing.png: No such file or directory\n");
}

const tool_info test_tool_info = {"test_tool", "usage: test_tool\n"};

// Writes `bytes` bytes of 'x' to path through a temporary name with file sizes limited to
// `limit` bytes, so the write fails part of the way (a full disk, as far as the tool can tell).
void tool_write_limited(const std::string& path, size_t bytes, rlim_t limit)
{
    char* argv[] = {(char*)"test_tool", nullptr};
    tool_begin(&test_tool_info, 1, argv);
    signal(SIGXFSZ, SIG_IGN);  // the write then fails with EFBIG instead of killing the process
    const rlimit l = {limit, limit};
    setrlimit(RLIMIT_FSIZE, &l);
    const std::string data(bytes, 'x');
    tool_write_file(path.c_str(), "", 0, data.data(), data.size());
    exit(0);
}

TEST(tool, a_failed_write_keeps_the_old_file_and_leaves_no_temporary_one)
{
    const std::string dir = tool_fixture_dir(root, "safe");
    const std::string path = dir + "/out.bin";
    tool_fixture_write(path, "old");
    EXPECT_EXIT(tool_write_limited(path, 1 << 20, 4096), testing::ExitedWithCode(1),
                "test_tool: cannot write \"" + path + "\": File too large\n");
    EXPECT_EQ(tool_fixture_read(path), "old");
    EXPECT_EQ(tool_fixture_list(dir), std::vector<std::string>({"out.bin"}));
    // a write that fits replaces the file whole
    EXPECT_EXIT(tool_write_limited(path, 1000, 4096), testing::ExitedWithCode(0), "");
    EXPECT_EQ(tool_fixture_read(path), std::string(1000, 'x'));
    EXPECT_EQ(tool_fixture_list(dir), std::vector<std::string>({"out.bin"}));
}

}  // namespace
