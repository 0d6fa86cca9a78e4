// Run-length images: the encoder's worked encodings, drawing in both modes onto frames with row
// tails (a write past a run or a row shows), clipping at the left and top, the crop messages.
#include <gtest/gtest.h>

#include "reel_rle_image.h"
#include "rle_image_encode.h"
#include "test_fatal.h"

namespace {

typedef std::vector<uint8_t> bytes;

// A frame of w x h with 5 bytes of tail per row, filled with a background value.
struct frame {
    bytes pixels;
    n3d_framebuffer fb;
    frame(int32_t w, int32_t h, uint8_t fill = 99) : pixels((size_t)(w + 5) * h, fill)
    {
        n3d_framebuffer_wrap(&fb, N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8, w, h, w + 5, pixels.data());
    }
};

struct rle_fixture : testing::Test {
    test_arena memory = test_arena(4u << 20);
    xmemarena& arena = memory.arena;

    bytes encode(const bytes& pixels, int32_t w, int32_t h, uint8_t key = 0)
    {
        n3d_framebuffer fb;
        n3d_framebuffer_wrap(&fb, N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8, w, h, w, const_cast<uint8_t*>(pixels.data()));
        reel_rle_image image;
        reel_rle_image_from_framebuffer(&image, &arena, &fb, key);
        EXPECT_TRUE(image.width == (uint32_t)w && image.height == (uint32_t)h);
        return bytes(image.data, image.data + image.size);
    }
};

TEST_F(rle_fixture, encodings_of_the_worked_examples_from_index8_frames_only)
{
    EXPECT_EQ(encode({0, 0, 0, 0, 5, 5, 5, 7}, 4, 2), (bytes{0, 3, 5, 1, 7}));  // a transparent row, then 5, 5, 5, 7
    EXPECT_EQ(encode(bytes(300, 9), 300, 1), (bytes{127, 9, 127, 9, 46, 9}));  // 300 pixels of 9: runs split at 127
    // 300 transparent pixels then something visible: transparent runs split the same way
    bytes late(300, 0);
    late.push_back(4);
    EXPECT_EQ(encode(late, 301, 1), (bytes{128, 127, 128, 127, 128, 46, 1, 4}));
    // trailing transparency is a run like any other; the key is any index
    EXPECT_EQ(encode({7, 3, 3, 7, 7}, 5, 1, 7), (bytes{128, 1, 2, 3, 128, 2}));
    EXPECT_EQ(encode({7, 7, 0, 0}, 2, 2, 7), (bytes{0, 2, 0}));

    frame f(2, 2);
    f.fb.format = N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555;
    reel_rle_image image;
    EXPECT_FATAL_OUT(reel_rle_image_from_framebuffer(&image, &arena, &f.fb, 0),
                     "^only N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8 framebuffer supported for now!\n$");
}

// Images partly off the left or top edge are clipped there (wholly off at the extremes): each
// pixel lands where it would on a larger frame, in its colour or (mode 1) the one given, and
// nothing else is written: not the transparent runs, not the tails.
TEST_F(rle_fixture, both_modes_write_exactly_the_coloured_runs_clipped_at_the_left_and_top)
{
    bytes pixels(10 * 6);
    for (size_t i = 0; i < pixels.size(); i++)
        pixels[i] = (i * 7) % 5 == 0 ? 0 : (uint8_t)(1 + i % 3);
    const bytes data = encode(pixels, 10, 6);
    const reel_rle_image image = {10, 6, (uint32_t)data.size(), data.data()};
    for (uint32_t mode : {REEL_RLE_MODE_COLORS, REEL_RLE_MODE_SILHOUETTE})
        for (int32_t x = -11; x <= 2; x++)
            for (int32_t y = -7; y <= 2; y++) {
                frame f(12, 8);
                const int32_t next = mode ? reel_rle_image_draw_color(&f.fb, &image, x, y, 200)
                                          : reel_rle_image_draw(&f.fb, &image, x, y);
                EXPECT_EQ(next, y + 6);
                for (int32_t fy = 0; fy < 8; fy++)
                    for (int32_t fx = 0; fx < 17; fx++) {
                        const int32_t ix = fx - x, iy = fy - y;
                        const bool shown =
                            fx < 12 && ix >= 0 && ix < 10 && iy >= 0 && iy < 6 && pixels[iy * 10 + ix] != 0;
                        ASSERT_EQ(f.pixels[fy * 17 + fx], shown ? mode ? 200 : pixels[iy * 10 + ix] : 99)
                            << mode << ": " << x << "," << y << " at " << fx << "," << fy;
                    }
            }
}

const uint8_t worked[] = {0, 3, 5, 1, 7};  // the 4 x 2 image above
const reel_rle_image worked_image = {4, 2, sizeof(worked), worked};

TEST_F(rle_fixture, images_wholly_outside_draw_nothing_and_overhangs_right_or_below_are_fatal)
{
    const int32_t W = 4, H = 2, FW = 16, FH = 8;
    const struct {
        int32_t x, y;
    } outside[] = {{FW, 0}, {0, FH}, {FW + 1000, -5000}, {INT32_MIN, INT32_MIN}, {INT32_MAX, 0}};
    for (const auto& p : outside) {
        frame f(FW, FH);
        EXPECT_EQ(reel_rle_image_draw(&f.fb, &worked_image, p.x, p.y), (int32_t)((int64_t)p.y + H)) << p.x << "," << p.y;
        EXPECT_EQ(f.pixels, frame(FW, FH).pixels) << p.x << "," << p.y;
    }
    frame f(FW, FH);
    reel_rle_image_draw_ex(&f.fb, &worked_image, FW - W, FH - H, REEL_RLE_MODE_COLORS,
                           0);  // touching both edges is inside
    EXPECT_EQ(f.pixels[(FH - 1) * f.fb.row_bytes + FW - 1], 7);
    EXPECT_FATAL(reel_rle_image_draw(&f.fb, &worked_image, 0, FH - H + 1),
                 "crash in reel_rle_image_draw_ex at src/reel_rle_image:[0-9]+\n"
                 "crop not implemented.. image height \\+ dst_y0 > fb height! \\(2\\+7 vs 8\\)\n");
    EXPECT_FATAL(reel_rle_image_draw(&f.fb, &worked_image, FW - W + 1, 0),
                 "crop not implemented.. image width \\+ dst_x0 > fb width! \\(4\\+13 vs 16\\)\n");
}

}  // namespace
