// Pen strokes: envelope and threshold curve at worked values; an image revealed and erased level by level.
#include <gtest/gtest.h>

#include "reel_stroke.h"
#include "scene_fixture.h"

namespace {

TEST(stroke, envelope_rises_holds_and_falls_and_the_threshold_curve_is_the_srgb_encoding_with_exponent_0_41666)
{
    // rise 2 s, hold 1 s, fall 2 s; with no hold the fall starts at once
    const float envelope[][2] = {{-0.5f, 0}, {0, 0}, {1, 127.5f}, {2, 255}, {2.5f, 255}, {4, 127.5f}, {5, 0}, {7, 0}};
    for (const auto& c : envelope)
        EXPECT_FLOAT_EQ(reel_envelope(c[0], 2.0f, 1.0f, 2.0f), c[1]) << c[0];
    EXPECT_TRUE(reel_envelope(1.0f, 2.0f, 0.0f, 2.0f) == 127.5f && reel_envelope(2.0f, 2.0f, 0.0f, 2.0f) == 255.0f &&
                reel_envelope(3.0f, 2.0f, 0.0f, 2.0f) == 127.5f);
    // trunc(255 x (1.055 x (l / 255)^0.41666 - 0.055)), and 12.92 x below 0.0031308; 192 gives 224
    // with the exponent 1 / 2.4; at 254 and 255, 1.055 - 0.055 is just below 1 in double precision
    const int32_t threshold[][2] = {{0, 0},     {1, 12},    {2, 21},    {64, 137}, {128, 187},
                                    {192, 225}, {254, 254}, {255, 254}, {-3, 0},   {300, 255}};
    for (const auto& c : threshold)
        EXPECT_EQ(reel_stroke_threshold(c[0]), c[1]) << c[0];
}

typedef scene_fixture stroke_fixture;

// 64 x 4 texels, visible 40 x 3: texel (x, y) = 1 + x + 60 y for x < 40, y < 3, every fifth column outside
// the shape (0); texel 200 in the last row, outside the visible rectangle but in the texture, is shape too.
TEST_F(stroke_fixture, reveals_the_lowest_texels_first_erases_the_highest_first_and_refuses_other_images)
{
    scene_test_image img(6, 2, 40, 3);
    for (uint32_t y = 0; y < 3; y++)
        for (uint32_t x = 0; x < 40; x++)
            img.texel(x, y) = x % 5 == 4 ? 0 : (uint8_t)(1 + x + 60 * y);
    img.texel(10, 3) = 200;
    reel_stroke stroke;
    reel_stroke_init(&stroke, &img.image, &demo);
    memset(backbuffers[0].framebuffer->pixels, 33, 640 * 480);
    n3d_framebuffer* fb = overlay.framebuffer;
    n3d_coverage_buffer* cb = overlay.coverage[0];
    const int32_t ox = 100, oy = 50;  // where the image lands
    auto check = [&](int32_t low, int32_t high, uint8_t inside, const char* what) {
        for (int32_t y = 0; y < 8; y++)
            for (int32_t x = 0; x < 80; x++) {
                const int32_t t = x < 64 && y < 4 ? img.texel(x, y) : 0, selected = t != 0 && t >= low && t <= high;
                ASSERT_TRUE(fb->pixels[(oy + y) * 640 + ox + x] == (selected ? inside : 0) &&
                            scene_coverage_bit(cb, ox + x, oy + y) == (uint32_t)selected)
                    << what << " at " << x << "," << y;
            }
    };
    // draws at levels 0, 64, 128 and 255, then erases at 255, 128, 1 and 0, with their thresholds
    const int32_t steps[][3] = {{0, 0, 0},     {0, 64, 137},  {0, 128, 187}, {0, 255, 254},
                                {1, 255, 254}, {1, 128, 187}, {1, 1, 12},    {1, 0, 0}};
    for (const auto& s : steps) {
        n3d_framebuffer_clear(fb);
        n3d_coverage_buffer_clear(cb);
        if (s[0] == 0)
            reel_stroke_draw(&stroke, s[1], 7, fb, cb, ox, oy, 0, 480), check(1, s[2], 7, "draw");
        else
            reel_stroke_erase(&stroke, s[1], fb, cb, backbuffers[0].framebuffer, ox, oy, 0, 480), check(s[2], 255, 33, "erase");
    }
    scene_test_image narrow(4, 4, 16, 16);  // one message for each thing the masks cannot take
    EXPECT_FATAL(reel_stroke_init(&stroke, &narrow.image, &demo),
                 "crash in reel_stroke_init at src/reel_stroke:[0-9]+\nstroke image must be a linear index8 texture "
                 "\\(format 3\\) at least 32 texels wide \\(format 3, linear, 16 texels wide\\)");
    EXPECT_FATAL((img.image.texture.linear = 0, reel_stroke_init(&stroke, &img.image, &demo)), "format 3, swizzled");
}

}  // namespace
