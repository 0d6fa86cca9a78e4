// The image library: pixel decode per encoding, downscaling in linear premultiplied light, the flare.
#include <cmath>
#include "bitmap.h"
#include "test_fatal.h"

TEST(bitmap, decode_follows_the_encoding_flags)
{
    const uint8_t p[4] = {255, 128, 0, 128}, clear[4] = {90, 90, 90, 0}, red[1] = {255};
    const float a = (float)(128 / 255.0), a2 = (float)(128 / 255.0 * 128 / 255.0),
                srgb_a = (float)(srgb_to_linear(a) * a);
    const struct { const uint8_t* pixel; uint32_t flags; vec4 want; } cases[] = {
        {p, BITMAP_CHANNELS_4, {a, a2, 0, a}},  // straight, linear: multiply by alpha
        {p, BITMAP_SRGB | BITMAP_CHANNELS_4, {a, srgb_a, 0, a}},
        {p, BITMAP_PREMULTIPLIED | BITMAP_CHANNELS_4, {1, a, 0, a}},  // taken as it is
        // premultiplied sRGB: un-premultiply (clamped), decode, premultiply again
        {p, BITMAP_SRGB | BITMAP_PREMULTIPLIED | BITMAP_CHANNELS_4, {a, a, 0, a}},
        {clear, BITMAP_SRGB | BITMAP_PREMULTIPLIED | BITMAP_CHANNELS_4, {0, 0, 0, 0}},
        {red, BITMAP_SRGB | BITMAP_CHANNELS_1, {1, 0, 0, 1}},  // missing colours are 0, missing alpha 1
    };
    for (const auto& c : cases) {
        vec4 v;
        bitmap_decode_pixel(v, c.pixel, c.flags);
        for (int k = 0; k < 4; k++)
            EXPECT_FLOAT_EQ(v[k], c.want[k]) << "flags " << c.flags << " channel " << k;
    }
}

TEST(bitmap, downscale_averages_in_linear_premultiplied_light_and_the_flare_falls_off)
{
    test_arena a(4 << 20);
    bitmap* checker = bitmap_create(&a.arena, 8, 8, BITMAP_SRGB | BITMAP_CHANNELS_4);
    // red opaque beside transparent green: premultiplied filtering must not bleed the green
    bitmap* fringe = bitmap_create(&a.arena, 8, 8, BITMAP_SRGB | BITMAP_CHANNELS_4);
    for (uint32_t i = 0; i < 64; ++i) {
        const uint8_t on = ((i % 8 + i / 8) & 1) ? 255 : 0, grey_on[4] = {on, on, on, 255}, red_on[4] = {on, 0, 0, on};
        memcpy(bitmap_pixel(checker, i % 8, i / 8), grey_on, 4);
        memcpy(bitmap_pixel(fringe, i % 8, i / 8), red_on, 4);
        bitmap_pixel(fringe, i % 8, i / 8)[1] = (uint8_t)(255 - on);
    }
    const vec4 half = {0.5f, 0.5f, 0.5f, 1.0f};
    uint8_t grey[4];
    bitmap_encode_pixel(grey, BITMAP_SRGB | BITMAP_CHANNELS_4, half);
    EXPECT_GT(grey[0], 180);  // mid grey in linear light, not the 128 of averaging sRGB bytes
    for (uint32_t kind = BITMAP_FILTER_BOX; kind <= BITMAP_FILTER_LANCZOS; ++kind) {
        bitmap *dst = bitmap_create(&a.arena, 4, 4, checker->flags),
               *red = bitmap_create(&a.arena, 4, 4, checker->flags);
        bitmap_downscale(dst, checker, kind, &a.arena);
        bitmap_downscale(red, fringe, kind, &a.arena);
        for (uint32_t i = 0; i < 16; ++i) {
            const uint8_t* q = bitmap_pixel(red, i % 4, i / 4);
            ASSERT_EQ(memcmp(bitmap_pixel(dst, i % 4, i / 4), grey, 4), 0) << "kind " << kind;
            ASSERT_TRUE(q[0] == 255 && q[1] == 0 && q[3] == 128) << "kind " << kind;
        }
    }
    bitmap* flare = bitmap_create_flare(&a.arena);
    const uint32_t n = BITMAP_FLARE_SIZE;
    // the flare: opaque in the middle, clear in the corner and where r is 1, at the middle of an edge; (1 - r^2)^4
    // at r = 0.5 (pixel centre 64.5 from the centre 128 is r = 63.5 / 128)
    const double r = 63.5 / 128.0;
    EXPECT_TRUE(bitmap_pixel(flare, n / 2, n / 2)[3] == 255 && bitmap_pixel(flare, 0, 0)[3] == 0 &&
                bitmap_pixel(flare, 0, n / 2)[3] == 0);
    EXPECT_EQ(bitmap_pixel(flare, 64, n / 2)[3], (uint8_t)lround(255.0 * pow(1.0 - r * r, 4)));
}

TEST(bitmap_death, broken_contracts_are_fatal)
{
    test_arena a(1 << 10);
    bitmap *x = bitmap_create(&a.arena, 4, 4, BITMAP_CHANNELS_1), *y = bitmap_create(&a.arena, 4, 2, BITMAP_CHANNELS_1);
    EXPECT_FATAL(bitmap_create(&a.arena, 4, 4, BITMAP_SRGB | BITMAP_CHANNELS_3 | BITMAP_CHANNELS_4),
                 test_fatal("bitmap_init", "src/bitmap", "bitmap flags 0xd need exactly one channel count\n"));
    EXPECT_FATAL(bitmap_convert(y, x), test_fatal("bitmap_convert", "src/bitmap", "sizes differ: 4x4 into 4x2\n"));
    EXPECT_FATAL(bitmap_downscale(x, x, 3, &a.arena),
                 test_fatal("bitmap_downscale", "src/bitmap", "unknown filter kind 3\n"));
}
