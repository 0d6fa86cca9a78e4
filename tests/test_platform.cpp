// The pure pieces of the host's loop: the picture's place, the mouse, the keys, the packs, the summary.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include "platform.h"

TEST(platform, destination_rect_keeps_4_to_3_centred_the_mouse_scales_in_single_precision_and_the_summary_adds_up)
{
    // window w, h; then x, y, w, h. Narrower than 4:3: negative x, the blit clips the sides
    const int32_t cases[][6] = {
        {1920, 1080, 240, 0, 1440, 1080}, {640, 480, 0, 0, 640, 480}, {1280, 1024, -42, 0, 1365, 1024}};
    for (const auto& c : cases) {
        const platform_rect r = platform_destination_rect(c[0], c[1]);
        EXPECT_TRUE(r.x == c[2] && r.y == c[3] && r.w == c[4] && r.h == c[5]) << c[0] << "x" << c[1];
    }
    EXPECT_TRUE(platform_scale_mouse_y(63) == 62 && platform_scale_mouse_y(0) == 0 && platform_scale_mouse_y(240) == 240);
    for (int32_t x = 0; x < 640; x++)
        ASSERT_EQ(platform_scale_mouse_x(x), x);
    platform_frame_stats stats = {0, 0, 0, 1000};
    for (uint64_t now : {1010u, 1030u, 1060u})  // frames of 10, 20 and 30 ticks
        platform_frame_stats_add(&stats, now);
    const platform_frame_stats none = {0, 0, 0, 0};
    testing::internal::CaptureStdout();
    platform_print_summary(&stats, 2500, 1000);
    platform_print_summary(&none, 0, 1000);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "played 2.50 s: 3 frames presented, frame time mean 20.00 ms, worst 30.00 ms\n"
              "played 0.00 s: 0 frames presented, frame time mean 0.00 ms, worst 0.00 ms\n");
}

// scancode s is key s + 100 but for the letters (4..29 -> 'a'..'z') and 200, a key code beyond the table
static int32_t fake_key_from_scancode(int32_t s) { return s >= 4 && s <= 29 ? 'a' + (s - 4) : s == 200 ? 0x40000052 : s + 100; }

TEST(platform, key_table_from_keyboard_state)
{
    uint8_t table[256], state[256] = {};
    memset(table, 0xEE, sizeof(table));
    state[20] = state[7] = state[200] = 1;  // 'q', 'd', and a key code above 255 (ignored)
    EXPECT_EQ(platform_fill_key_table(table, state, 256, fake_key_from_scancode), 0u);
    for (int k = 0; k < 256; k++)
        EXPECT_EQ(table[k], (k == 'q' || k == 'd') ? 1 : 0) << k;
    state[41] = 1;  // a held Escape quits at once
    EXPECT_EQ(platform_fill_key_table(table, state, 256, fake_key_from_scancode), 1u);
    // keys beyond the reported state length are not read
    EXPECT_TRUE(platform_fill_key_table(table, state, 8, fake_key_from_scancode) == 0u && table['q'] == 0 &&
                table['d'] == 1);
}

TEST(platform, packs_are_looked_for_in_the_working_folder_then_by_the_executable)
{
    const std::filesystem::path old_cwd = std::filesystem::current_path();
    const std::string root = testing::TempDir() + "platform_packs";
    // the folder (below root) that gets packs/pak0.rpk, "" for none, and which of the three places is chosen
    const struct { const char* holder; int32_t found; } cases[] = {{"", -1}, {"cwd", 0}, {"exe", 1}, {".", 2}};
    for (const auto& c : cases) {
        std::filesystem::remove_all(root);
        std::filesystem::create_directories(root + "/cwd"), std::filesystem::create_directories(root + "/exe");
        if (c.holder[0])
            std::filesystem::create_directories(root + "/" + c.holder + "/packs"),
                std::ofstream(root + "/" + c.holder + "/packs/pak0.rpk");
        std::filesystem::current_path(root + "/cwd");
        platform_pack_search s;
        platform_find_packs(&s, "packs", "pak0.rpk", (root + "/exe/").c_str());
        ASSERT_TRUE(s.found == c.found && s.tried_count == 3u) << c.holder;
        EXPECT_EQ(std::string(s.tried[0]) + " " + s.tried[1] + " " + s.tried[2],
                  "packs " + root + "/exe/packs " + root + "/exe/../packs");
        platform_find_packs(&s, "packs", "pak0.rpk", nullptr);  // without it only the working folder is tried
        EXPECT_TRUE(s.tried_count == 1 && s.found == (c.found == 0 ? 0 : -1)) << c.holder;
    }
    std::filesystem::current_path(old_cwd);
}
