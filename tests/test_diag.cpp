// The fatal path's lines, the named cycle blocks and their table, and the pass timers.
#include "diag.h"
#include "test_fatal.h"

// 1 cycle = 1 ms, so the figures below are exact
static void diag_reset_blocks() { prof_init(), prof_global.cycles_per_second = 1000.0; }

TEST(diag_death, crash_lines_name_function_file_and_line)
{
    EXPECT_FATAL(crash_in("src/n3d", 42, "n3d_init", "bad %s %d\n", "value", 7),
                 "^crash in n3d_init at src/n3d:42\nbad value 7\n$");
    EXPECT_FATAL(crash_at("src/reel", 9, "no line end"), "^crash at src/reel:9\nno line end$");
}

TEST(diag, calibration_and_names)
{
    prof_init();
    EXPECT_GT(prof_global.cycles_per_second, 1e6);
    EXPECT_STREQ(prof_global.names[14], "BLOCK_EMULATE_VANTOREL");  // the last named block
    EXPECT_STREQ(prof_global.names[15], "unnamed-block");
}

// Only blocks with hits are printed; a block without a name reports where it ended.
TEST(diag, blocks_count_and_the_table_prints_hit_blocks_only)
{
    diag_reset_blocks();
    testing::internal::CaptureStdout();
    prof_block_begin(BLOCK_RENDER_MESH);
    prof_block_end(BLOCK_RENDER_MESH, "src/n3d_pipeline", 10);
    prof_block_begin(20);
    prof_block_end(20, "src/n3d", 77);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "unnamed block at src/n3d:77\n");
    EXPECT_TRUE(prof_global.hits[BLOCK_RENDER_MESH] == 1 && prof_global.hits[20] == 1);
    diag_reset_blocks();
    prof_global.cycles[0] = 2000;
    prof_global.hits[0] = 1;
    prof_global.cycles[6] = 500;
    prof_global.hits[6] = 4;
    testing::internal::CaptureStdout();
    prof_print();
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[100.00%][hits:           1][cycles:         2000][<cycles>:      2000.0][CYCLES_BLOCK_TOTAL]\n"
              "[ 25.00%][hits:           4][cycles:          500][<cycles>:       125.0][BLOCK_CLEAR_FRAMEBUFFER]\n");
}

TEST(diag, pass_timers_split_passes_and_print)
{
    diag_reset_blocks();
    pass_timer t = {};
    testing::internal::CaptureStdout();
    pass_timer_print("total", 1, &t);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "total: 0.00 ms 0.00 cycles/frame (frames 0 cycles: 0)\n");
    pass_timer_add(&t, prof_cycles_now(), 0);
    pass_timer_add(&t, prof_cycles_now(), 1);
    pass_timer_add(&t, prof_cycles_now(), 1);
    EXPECT_TRUE(t.regular_frames == 1 && t.vbl_frames == 2);
    t.regular_frames = 3, t.regular_cycles = 10;
    testing::internal::CaptureStdout();
    pass_timer_print("scene_tunnel", 0, &t);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "scene_tunnel: 3.33 ms 3.00 cycles/frame (frames 3 cycles: 10)\n");
    EXPECT_DOUBLE_EQ(prof_cycles_to_ms(1500), 1500.0);
}
