#include <gtest/gtest.h>

#include <cstring>

#include "platform.h"

TEST(platform, destination_rect_keeps_4_to_3_centred)
{
    platform_rect r = platform_destination_rect(1920, 1080);
    EXPECT_EQ(r.x, 240);
    EXPECT_EQ(r.y, 0);
    EXPECT_EQ(r.w, 1440);
    EXPECT_EQ(r.h, 1080);
    r = platform_destination_rect(640, 480);
    EXPECT_EQ(r.x, 0);
    EXPECT_EQ(r.w, 640);
    // narrower than 4:3: negative x, the blit clips the sides
    r = platform_destination_rect(1280, 1024);
    EXPECT_EQ(r.w, 1365);
    EXPECT_EQ(r.x, -42);
    r = platform_destination_rect(1024, 768);
    EXPECT_EQ(r.x, 0);
    EXPECT_EQ(r.w, 1024);
}

TEST(platform, mouse_scaling_rounds_in_single_precision)
{
    EXPECT_EQ(platform_scale_mouse_x(63), 63);
    EXPECT_EQ(platform_scale_mouse_y(63), 62);
    EXPECT_EQ(platform_scale_mouse_y(0), 0);
    EXPECT_EQ(platform_scale_mouse_y(240), 240);
    for (int32_t x = 0; x < 640; x++)
        ASSERT_EQ(platform_scale_mouse_x(x), x);
}

namespace {
// scancode s maps to key s + 100, except the letters block (4..29 -> 'a'..'z')
int32_t fake_key_from_scancode(int32_t s)
{
    if (s >= 4 && s <= 29)
        return 'a' + (s - 4);
    if (s == 200)
        return 0x40000052;  // a key code outside the table
    return s + 100;
}
}  // namespace

TEST(platform, key_table_from_keyboard_state)
{
    uint8_t table[256];
    memset(table, 0xEE, sizeof(table));
    uint8_t state[256] = {};
    state[20] = 1;   // 'q'
    state[7] = 1;    // 'd'
    state[200] = 1;  // ignored: key code above 255
    EXPECT_EQ(platform_fill_key_table(table, state, 256, fake_key_from_scancode), 0u);
    for (int k = 0; k < 256; k++)
        EXPECT_EQ(table[k], (k == 'q' || k == 'd') ? 1 : 0) << k;
    // a held Escape quits at once
    state[41] = 1;
    EXPECT_EQ(platform_fill_key_table(table, state, 256, fake_key_from_scancode), 1u);
    // keys beyond the reported state length are not read
    EXPECT_EQ(platform_fill_key_table(table, state, 8, fake_key_from_scancode), 0u);
    EXPECT_EQ(table['q'], 0);
    EXPECT_EQ(table['d'], 1);
}
