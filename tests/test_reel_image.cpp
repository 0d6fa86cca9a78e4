// Image drawing: the visible rectangle lands at its position, clipped at the frame's edges,
// and each unsupported texture or frame is refused with its own message.
#include <gtest/gtest.h>

#include "reel_image.h"
#include "scene_fixture.h"

namespace {

typedef scene_fixture image_fixture;

TEST_F(image_fixture, draws_the_visible_rectangle_clipped_to_the_frame)
{
    scene_test_image img(4, 3, 10, 5);  // 16 x 8 texels, 10 x 5 visible
    for (uint32_t y = 0; y < 8; y++)
        for (uint32_t x = 0; x < 16; x++)
            img.texel(x, y) = (uint8_t)(1 + x + 16 * y);
    const struct {
        uint32_t x, y;
    } places[] = {{0, 0}, {300, 200}, {635, 477}, {0xFFFFFFFEu, 0xFFFFFFFDu}};  // the last is (-2, -3)
    for (const auto& p : places) {
        n3d_framebuffer_clear(&overlay_framebuffer);
        reel_image_draw(&overlay, p.x, p.y, &img.image);
        const int32_t x0 = (int32_t)p.x, y0 = (int32_t)p.y;
        for (int32_t y = 0; y < 480; y++)
            for (int32_t x = 0; x < 640; x++) {
                const int32_t u = x - x0, v = y - y0;
                const uint8_t want = u >= 0 && u < 10 && v >= 0 && v < 5 ? img.texel(u, v) : 0;
                ASSERT_EQ(overlay_framebuffer.pixels[y * 640 + x], want) << x0 << "," << y0 << " at " << x << "," << y;
            }
    }
}

TEST_F(image_fixture, unsupported_textures_and_frames_are_fatal)
{
    scene_test_image swizzled(4, 4, 16, 16), argb(4, 4, 16, 16, N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555),
        fine(4, 4, 16, 16);
    swizzled.image.texture.linear = 0;
    EXPECT_FATAL(reel_image_draw(&overlay, 0, 0, &swizzled.image),
                 "crash in reel_image_draw at src/reel_image:[0-9]+\nreel_image_draw: only unswizzled texture supported\n");
    EXPECT_FATAL(reel_image_draw(&overlay, 0, 0, &argb.image), "reel_image_draw: only index8 texture supported\n");
    EXPECT_FATAL(reel_image_draw(ctx.video, 0, 0, &fine.image),
                 "reel_image_draw: only index8 frame context supported\n");
}

}  // namespace
