#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "platform.h"

TEST(platform, destination_rect_keeps_4_to_3_centred)
{
    // window w, h; then x, y, w, h. Narrower than 4:3: negative x, the blit clips the sides
    const int32_t cases[][6] = {{1920, 1080, 240, 0, 1440, 1080}, {640, 480, 0, 0, 640, 480},
                                {1280, 1024, -42, 0, 1365, 1024}};
    for (const auto& c : cases) {
        const platform_rect r = platform_destination_rect(c[0], c[1]);
        EXPECT_TRUE(r.x == c[2] && r.y == c[3] && r.w == c[4] && r.h == c[5]) << c[0] << "x" << c[1];
    }
}

TEST(platform, mouse_scaling_rounds_in_single_precision)
{
    EXPECT_TRUE(platform_scale_mouse_y(63) == 62 && platform_scale_mouse_y(0) == 0 && platform_scale_mouse_y(240) == 240);
    for (int32_t x = 0; x < 640; x++)
        ASSERT_EQ(platform_scale_mouse_x(x), x);
}

// scancode s maps to key s + 100, except the letters block (4..29 -> 'a'..'z') and 200, a key
// code outside the table
static int32_t fake_key_from_scancode(int32_t s) { return s >= 4 && s <= 29 ? 'a' + (s - 4) : s == 200 ? 0x40000052 : s + 100; }

TEST(platform, key_table_from_keyboard_state)
{
    uint8_t table[256];
    memset(table, 0xEE, sizeof(table));
    uint8_t state[256] = {};
    state[20] = state[7] = state[200] = 1;  // 'q', 'd', and a key code above 255 (ignored)
    EXPECT_EQ(platform_fill_key_table(table, state, 256, fake_key_from_scancode), 0u);
    for (int k = 0; k < 256; k++)
        EXPECT_EQ(table[k], (k == 'q' || k == 'd') ? 1 : 0) << k;
    // a held Escape quits at once
    state[41] = 1;
    EXPECT_EQ(platform_fill_key_table(table, state, 256, fake_key_from_scancode), 1u);
    // keys beyond the reported state length are not read
    EXPECT_EQ(platform_fill_key_table(table, state, 8, fake_key_from_scancode), 0u);
    EXPECT_TRUE(table['q'] == 0 && table['d'] == 1);
}

TEST(platform, packs_are_looked_for_in_the_working_folder_then_by_the_executable)
{
    char old_cwd[4096];
    ASSERT_NE(getcwd(old_cwd, sizeof(old_cwd)), nullptr);
    const std::string root = testing::TempDir() + "platform_packs";
    // which of the three places holds pak0.rpk, and which one must be chosen
    const struct {
        const char* holder;  // folder (relative to root) that gets packs/pak0.rpk, or "" for none
        int32_t found;
    } cases[] = {{"", -1}, {"cwd", 0}, {"exe", 1}, {".", 2}};
    for (const auto& c : cases) {
        std::system(("rm -rf '" + root + "' && mkdir -p '" + root + "/cwd' '" + root + "/exe'").c_str());
        if (c.holder[0])
            std::system(("mkdir -p '" + root + "/" + c.holder + "/packs' && touch '" + root + "/" + c.holder +
                         "/packs/pak0.rpk'")
                            .c_str());
        ASSERT_EQ(chdir((root + "/cwd").c_str()), 0);
        platform_pack_search s;
        platform_find_packs(&s, "packs", "pak0.rpk", (root + "/exe/").c_str());
        EXPECT_EQ(s.found, c.found) << c.holder;
        ASSERT_EQ(s.tried_count, 3u);
        EXPECT_EQ(std::string(s.tried[0]) + " " + s.tried[1] + " " + s.tried[2],
                  "packs " + root + "/exe/packs " + root + "/exe/../packs");
        // without the executable's folder only the working folder is tried
        platform_find_packs(&s, "packs", "pak0.rpk", nullptr);
        EXPECT_TRUE(s.tried_count == 1 && s.found == (c.found == 0 ? 0 : -1)) << c.holder;
    }
    ASSERT_EQ(chdir(old_cwd), 0);
}

TEST(platform, the_summary_gives_the_mean_and_the_worst_frame)
{
    platform_frame_stats stats = {0, 0, 0, 1000};
    for (uint64_t now : {1010u, 1030u, 1060u})  // frames of 10, 20 and 30 ticks
        platform_frame_stats_add(&stats, now);
    testing::internal::CaptureStdout();
    platform_print_summary(&stats, 2500, 1000);
    const platform_frame_stats none = {0, 0, 0, 0};
    platform_print_summary(&none, 0, 1000);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "played 2.50 s: 3 frames presented, frame time mean 20.00 ms, worst 30.00 ms\n"
              "played 0.00 s: 0 frames presented, frame time mean 0.00 ms, worst 0.00 ms\n");
}
