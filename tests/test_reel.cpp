// The engine frame over packs made here: the init steps in the first passes, the seeking keys,
// pause, the debug views and the statistics report.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "music.h"
#include "reel.h"
#include "test_fatal.h"
#include "tool_fixture.h"

namespace {

const char* const SCRIPT_HEADER = "start mode,ref,ms,preload,end mode,ref,ms,function,args\n";

// A show folder with three packs: the script in pack 0, a music blob in pack 1, pack 2 empty
// but present.
void make_show(const std::string& dir, const std::string& script)
{
    std::system(("rm -rf '" + dir + "' && mkdir -p '" + dir + "/assets/reel/le'").c_str());
    const std::string packs = dir + "/assets/reel/le/pak";
    test_write_pack(packs + "0.rpk", {{REEL_KIND_RAW, "sequence.csv", script, 1}}, BYTE_ORDER_NATIVE);
    test_write_pack(packs + "1.rpk", {{REEL_KIND_BLOB, "music", std::string(44100, 0x17)}}, BYTE_ORDER_NATIVE);
    test_write_pack(packs + "2.rpk", {}, BYTE_ORDER_NATIVE);
}

struct engine_fixture : testing::Test {
    std::vector<uint8_t> platform_block = std::vector<uint8_t>(4 << 20);
    xmemarena platform_arena;
    display_device display;
    uint8_t keys[256] = {};
    demosys* sys = &demosys_global;

    void start(const std::string& script)
    {
        const std::string dir = std::string(REEL_TEST_OUTPUT_DIR) + "/" +
                                testing::UnitTest::GetInstance()->current_test_info()->name();
        make_show(dir, std::string(SCRIPT_HEADER) + script);
        ASSERT_EQ(chdir(dir.c_str()), 0);
        xmemarena_init(&platform_arena, "platform_arena", platform_block.size(), platform_block.data());
        display_init(&display, &platform_arena);
        music_reset();
        prof_init();
        ASSERT_EQ(demosys_init(sys, &display), 0);
    }
    void update() { demosys_update(sys, &display, keys, nullptr); }
    void render() { demosys_render(sys, &display, keys, nullptr); }
    void frame()
    {
        update();
        render();
        display_flip(&display);
    }
};

}  // namespace

TEST_F(engine_fixture, the_first_three_passes_are_the_init_steps)
{
    start("abs,,0,0,abs,,60000,music_start,music\n");
    EXPECT_EQ(sys->engine_enabled, 1u);
    reel_engine& e = sys->engine;
    update();
    EXPECT_TRUE(e.init_step == 1 && e.scene_count == 1 && e.scenes[0].first_update && !e.scenes[0].loaded);
    EXPECT_TRUE(!strcmp(e.arena->name, "reel_arena") && e.arena->capacity == 30ull << 20 && e.tmp_arena->capacity == 6ull << 20);
    music_seek(5000);  // each init step puts the clock back to 0
    render();
    // the tunnel table is filled in the same step: its corner lies at the largest distance
    EXPECT_TRUE(e.init_step == 2 && music_sample_counter() == 0 && e.tunnel_table.width == 640);
    EXPECT_EQ(*(const uint16_t*)e.tunnel_table.pixels & 0xFF, 255);
    update();
    EXPECT_TRUE(e.init_done && !e.scenes[0].loaded);  // no scene ran yet
    update();  // the fourth pass runs the sequencer: music_start starts the music
    EXPECT_TRUE(e.scenes[0].loaded && e.scenes[0].update_runs == 1 && music_global.started.load());
}

TEST_F(engine_fixture, seeking_keys_move_the_clock_once_per_press)
{
    start("abs,,0,0,abs,,60000,music_start,music\n");
    for (int i = 0; i < 4; i++)
        frame();
    music_seek(100000 - music_sample_counter());
    keys['q'] = 1;
    update(), update(), render();  // held: one seek
    EXPECT_EQ(music_sample_counter(), 100000 - 2205);
    for (const auto& [key, clock] : {std::pair{'d', 100000 - 2205 + 22050}, {'a', 100000 - 2205}, {'e', 100000}}) {
        keys['q'] = keys['d'] = keys['a'] = 0;
        update();  // released
        keys[(uint8_t)key] = 1;
        update();
        EXPECT_EQ(music_sample_counter(), clock) << key;
    }
}

TEST_F(engine_fixture, holding_x_toggles_the_engine_every_update_pass)
{
    start("abs,,0,0,abs,,60000,music_start,music\n");
    keys['x'] = 1;
    update();
    render();
    EXPECT_TRUE(sys->engine_enabled == 0 && sys->engine.init_step == 0);  // nothing ran
    update();
    EXPECT_TRUE(sys->engine_enabled == 1 && sys->engine.init_step == 1);
}

TEST_F(engine_fixture, debug_views_show_the_selected_backbuffer_and_stencil)
{
    start("abs,,0,0,abs,,60000,music_start,music\n");
    for (int i = 0; i < 3; i++)
        frame();
    memset(sys->engine.backbuffers[1].framebuffer->pixels, 42, 640 * 480);
    for (int i = 0; i < 8; i++)  // four presses of i: 4 mod 3 selects backbuffer 1
        keys['i'] = i % 2 == 0, update();
    keys['8'] = 1;
    testing::internal::CaptureStdout();
    update(), render();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "display overlay backbuffer[1]\ndisplay overlay backbuffer[1]\n");
    EXPECT_TRUE(display.overlay.pixels[0] == 42 && display.overlay.pixels[640 * 480 - 1] == 42);
    keys['8'] = 0, keys['9'] = 1, keys['6'] = 1;
    testing::internal::CaptureStdout();
    update();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "display overlay coverage buffer\ndisplay overlay stencil[0]\n");
    EXPECT_EQ(display.overlay.pixels[0], 0);  // an empty stencil shows as 0
}

TEST_F(engine_fixture, statistics_list_the_steps_and_every_row_with_its_scene)
{
    start("abs,,0,0,abs,,60000,music_start,music\nabs,,0,0,abs,,60000,music_sync,0\n");
    for (int i = 0; i < 5; i++)
        frame();
    testing::internal::CaptureStdout();
    reel_print_statistics(&sys->engine);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out.rfind("=== init system ===\n", 0), 0u) << out;
    for (const char* line : {"[step:2] (cycles: ", "=== load scenes ===\n", "=== runtime ===\n", "=== regular ===\n",
                             "=== vbl ===\ntotal: ", "[row: line 2 func music_start args: music] (cycles: ",
                             "[row: line 3 func music_sync args: 0] (cycles: ", "music_start: "})
        EXPECT_NE(out.find(line), std::string::npos) << line << "\n" << out;
}
