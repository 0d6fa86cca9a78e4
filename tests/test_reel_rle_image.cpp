// Run-length images: the encoder's worked encodings, drawing in both modes onto frames with
// row tails (a write past a run or a row shows), the visible/invisible boundary, the crop
// messages, and clipping on the left and at the top of the encoder's output.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <vector>

#include "memarena.h"
#include "reel_rle_image.h"
#include "rle_image_encode.h"
#include "test_fatal.h"

namespace {

typedef std::vector<uint8_t> bytes;

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

// A frame of w x h with 5 bytes of tail per row, filled with a background value.
struct frame {
    bytes pixels;
    n3d_framebuffer fb;
    frame(int32_t w, int32_t h, uint8_t fill = 99) : pixels((size_t)(w + 5) * h, fill)
    {
        n3d_framebuffer_wrap(&fb, N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8, w, h, w + 5, pixels.data());
    }
    uint8_t at(int32_t x, int32_t y) const { return pixels[(size_t)y * fb.row_bytes + x]; }
};

TEST_F(rle_fixture, encodings_of_the_worked_examples)
{
    // 4 x 2: a transparent row, then 5, 5, 5, 7
    EXPECT_EQ(encode({0, 0, 0, 0, 5, 5, 5, 7}, 4, 2), (bytes{0, 3, 5, 1, 7}));
    // 300 pixels of 9: runs split at 127
    EXPECT_EQ(encode(bytes(300, 9), 300, 1), (bytes{127, 9, 127, 9, 46, 9}));
    // 300 transparent pixels then something visible: transparent runs split the same way
    bytes late(301, 0);
    late[300] = 4;
    EXPECT_EQ(encode(late, 301, 1), (bytes{128, 127, 128, 127, 128, 46, 1, 4}));
    // trailing transparency is a run like any other; the key is any index
    EXPECT_EQ(encode({7, 3, 3, 7, 7}, 5, 1, 7), (bytes{128, 1, 2, 3, 128, 2}));
    EXPECT_EQ(encode({7, 7, 0, 0}, 2, 2, 7), (bytes{0, 2, 0}));
}

TEST_F(rle_fixture, encoder_refuses_other_formats_on_standard_output)
{
    bytes pixels(8);
    n3d_framebuffer fb;
    n3d_framebuffer_wrap(&fb, N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, 2, 2, 4, pixels.data());
    reel_rle_image image;
    EXPECT_FATAL_OUT(reel_rle_image_from_framebuffer(&image, &arena, &fb, 0),
                     "^only N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8 framebuffer supported for now!\n$");
}

const uint8_t worked[] = {0, 3, 5, 1, 7};  // the 4 x 2 image above
const reel_rle_image worked_image = {4, 2, sizeof(worked), worked};

TEST_F(rle_fixture, both_modes_write_exactly_the_coloured_runs)
{
    const struct {
        uint32_t mode;
        bytes row1;
    } cases[] = {{REEL_RLE_MODE_COLORS, {5, 5, 5, 7}}, {REEL_RLE_MODE_SILHOUETTE, {200, 200, 200, 200}}};
    for (const auto& c : cases) {
        frame f(8, 4);
        EXPECT_EQ(reel_rle_image_draw_ex(&f.fb, &worked_image, 3, 1, c.mode, 200), 3);
        frame expected(8, 4);
        memcpy(&expected.pixels[2 * expected.fb.row_bytes + 3], c.row1.data(), 4);
        EXPECT_EQ(f.pixels, expected.pixels) << c.mode;
    }
    // skips leave the frame alone, in both modes
    const uint8_t holes[] = {2, 4, 128, 3, 1, 6};  // 4, 4, -, -, -, 6
    const reel_rle_image holes_image = {6, 1, sizeof(holes), holes};
    frame f(6, 1);
    reel_rle_image_draw(&f.fb, &holes_image, 0, 0);
    EXPECT_EQ(bytes(f.pixels.begin(), f.pixels.begin() + 6), (bytes{4, 4, 99, 99, 99, 6}));
    reel_rle_image_draw_color(&f.fb, &holes_image, 0, 0, 1);
    EXPECT_EQ(bytes(f.pixels.begin(), f.pixels.begin() + 6), (bytes{1, 1, 99, 99, 99, 1}));
}

TEST_F(rle_fixture, images_wholly_outside_draw_nothing_and_overhangs_right_or_below_are_fatal)
{
    const int32_t W = 4, H = 2, FW = 16, FH = 8;
    const struct {
        int32_t x, y;
    } outside[] = {{FW, 0}, {0, FH}, {-W - 1, 0}, {0, -H - 1}, {FW + 1000, -5000}, {INT32_MIN, INT32_MIN}, {INT32_MAX, 0}};
    for (const auto& p : outside) {
        frame f(FW, FH);
        EXPECT_EQ(reel_rle_image_draw(&f.fb, &worked_image, p.x, p.y), (int32_t)((int64_t)p.y + H)) << p.x << "," << p.y;
        EXPECT_EQ(f.pixels, frame(FW, FH).pixels) << p.x << "," << p.y;
    }
    frame f(FW, FH);
    reel_rle_image_draw(&f.fb, &worked_image, FW - W, FH - H);  // touching both edges is inside
    EXPECT_EQ(f.at(FW - 1, FH - 1), 7);
    EXPECT_FATAL(reel_rle_image_draw(&f.fb, &worked_image, 0, FH - H + 1),
                 "crash in reel_rle_image_draw_ex at src/reel_rle_image:[0-9]+\n"
                 "crop not implemented.. image height \\+ dst_y0 > fb height! \\(2\\+7 vs 8\\)\n");
    EXPECT_FATAL(reel_rle_image_draw(&f.fb, &worked_image, FW - W + 1, 0),
                 "crop not implemented.. image width \\+ dst_x0 > fb width! \\(4\\+13 vs 16\\)\n");
    // the height is checked first
    EXPECT_FATAL(reel_rle_image_draw(&f.fb, &worked_image, FW - 1, FH - 1), "image height");
}

// Images partly off the left or top edge are clipped there: each pixel lands where it would
// on a larger frame, and nothing is written outside.
TEST_F(rle_fixture, partly_visible_on_the_left_or_top_is_clipped)
{
    bytes pixels(10 * 6);
    for (size_t i = 0; i < pixels.size(); i++)
        pixels[i] = (i * 7) % 5 == 0 ? 0 : (uint8_t)(1 + i % 3);
    const bytes data = encode(pixels, 10, 6);
    const reel_rle_image image = {10, 6, (uint32_t)data.size(), data.data()};
    for (int32_t x = -11; x <= 2; x++)
        for (int32_t y = -7; y <= 2; y++) {
            frame f(12, 8);
            reel_rle_image_draw(&f.fb, &image, x, y);
            for (int32_t fy = 0; fy < 8; fy++)
                for (int32_t fx = 0; fx < 17; fx++) {  // the tails too
                    const int32_t ix = fx - x, iy = fy - y;
                    uint8_t want = 99;
                    if (fx < 12 && ix >= 0 && ix < 10 && iy >= 0 && iy < 6 && pixels[iy * 10 + ix] != 0)
                        want = pixels[iy * 10 + ix];
                    ASSERT_EQ(f.pixels[fy * 17 + fx], want) << x << "," << y << " at " << fx << "," << fy;
                }
        }
}

}  // namespace
