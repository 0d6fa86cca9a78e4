// The engine frame over packs made here: the init steps in the first passes, the seeking keys,
// pause, the debug views and the statistics report.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstring>
#include <vector>

#include "music.h"
#include "reel.h"
#include "test_fatal.h"
#include "tool_fixture.h"

namespace {

struct engine_fixture : testing::Test {
    std::vector<uint8_t> platform_block = std::vector<uint8_t>(4 << 20);
    xmemarena platform_arena;
    display_device display;
    uint8_t keys[256] = {};
    demosys* sys = &demosys_global;

    // A show folder with three packs: a script of one music_start row in pack 0, a music blob in
    // pack 1, pack 2 empty but present; the engine started there.
    void start()
    {
        const std::string name = testing::UnitTest::GetInstance()->current_test_info()->name(),
                          dir = tool_fixture_dir(REEL_TEST_OUTPUT_DIR, name), packs = dir + "/assets/reel/le/pak";
        std::filesystem::create_directories(dir + "/assets/reel/le");
        test_write_pack(packs + "0.rpk",
                        {{REEL_KIND_RAW, "sequence.csv",
                          "start mode,ref,ms,preload,end mode,ref,ms,"
                          "function,args\nabs,,0,0,abs,,60000,music_start,music\n",
                          1}},
                        BYTE_ORDER_NATIVE);
        test_write_pack(packs + "1.rpk", {{REEL_KIND_BLOB, "music", std::string(44100, 0x17)}}, BYTE_ORDER_NATIVE);
        test_write_pack(packs + "2.rpk", {}, BYTE_ORDER_NATIVE);
        ASSERT_EQ(chdir(dir.c_str()), 0);
        xmemarena_init(&platform_arena, "platform_arena", platform_block.size(), platform_block.data());
        display_init(&display, &platform_arena);
        music_reset();
        prof_init();
        ASSERT_EQ(demosys_init(sys, &display), 0);
    }
    void update() { demosys_update(sys, &display, keys, nullptr); }
    void render() { demosys_render(sys, &display, keys, nullptr); }
    void frame() { update(), render(), display_flip(&display); }
};

}  // namespace

TEST_F(engine_fixture, the_first_three_passes_are_the_init_steps)
{
    start();
    reel_engine& e = sys->engine;
    update();
    EXPECT_TRUE(sys->engine_enabled && e.init_step == 1 && e.scene_count == 1 && e.scenes[0].first_update &&
                !e.scenes[0].loaded);
    EXPECT_TRUE(!strcmp(e.arena->name, "reel_arena") && e.arena->capacity == 30ull << 20 &&
                e.tmp_arena->capacity == 6ull << 20);
    music_seek(5000);  // each init step puts the clock back to 0
    render();
    // the tunnel table is filled in the same step: its corner lies at the largest distance
    EXPECT_TRUE(e.init_step == 2 && music_sample_counter() == 0 && e.tunnel_table.width == 640 &&
                (*(const uint16_t*)e.tunnel_table.pixels & 0xFF) == 255);
    update();
    EXPECT_TRUE(e.init_done && !e.scenes[0].loaded);  // no scene ran yet
    update();  // the fourth pass runs the sequencer: music_start starts the music
    EXPECT_TRUE(e.scenes[0].loaded && e.scenes[0].update_runs == 1 && music_global.started.load());
}

TEST_F(engine_fixture, keys_seek_pause_and_select_debug_views_and_statistics_list_every_row)
{
    start();
    for (int i = 0; i < 4; i++)  // the init steps and a first run
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
    keys['e'] = 0, keys['x'] = 1;  // held, x toggles the engine in every update pass: off, nothing runs; on
    const uint32_t runs = sys->engine.scenes[0].update_runs;
    update();
    render();
    EXPECT_TRUE(sys->engine_enabled == 0 && sys->engine.scenes[0].update_runs == runs);
    update();
    EXPECT_TRUE(sys->engine_enabled == 1 && sys->engine.scenes[0].update_runs == runs + 1);
    keys['x'] = 0, memset(sys->engine.backbuffers[1].framebuffer->pixels, 42, 640 * 480);  // the debug views
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

    testing::internal::CaptureStdout();
    reel_print_statistics(&sys->engine);
    const std::string out = testing::internal::GetCapturedStdout();
    for (const char* line :
         {"=== init system ===\n", "[step:2] (cycles: ", "=== load scenes ===\n",
          "=== vbl ===\ntotal: ", "[row: line 2 func music_start args: music] (cycles: ", "music_start: "})
        EXPECT_NE(out.find(line), std::string::npos) << line << "\n" << out;
}
