// Frame records: buffer geometry, frame contexts, clears and the per-frame coverage swap.
#include <gtest/gtest.h>
#include <vector>

#include "n3d.h"
#include "test_fatal.h"
#include "vmath.h"

namespace {
struct test_frame {
    std::vector<uint8_t> bytes;
    n3d_framebuffer fb;
    test_frame(N3D_TEXEL_FORMAT format, int32_t width, int32_t height, int32_t row_bytes, uint8_t fill,
               uint32_t offset = 0)
        : bytes((size_t)row_bytes * height + offset + 8, fill),
          fb{format, width, height, row_bytes, bytes.data() + offset}
    {
    }
    uint8_t u8(int32_t x, int32_t y) const { return fb.pixels[y * fb.row_bytes + x]; }
    uint16_t u16(int32_t x, int32_t y) const { return ((const uint16_t*)(fb.pixels + y * fb.row_bytes))[x]; }
};

bool covered(const n3d_coverage_buffer* cb, uint32_t x, uint32_t y)
{
    return (cb->bits[(y * cb->width + x) / 32] << x % 32) >> 31;
}
void cover(n3d_coverage_buffer* cb, uint32_t x, uint32_t y)
{
    cb->bits[(y * cb->width + x) / 32] |= 0x80000000u >> (x % 32);
}

// Words all clear, all set, random, and one run with a stray bit, so every word shape occurs.
void fill_pattern(n3d_coverage_buffer* cb, pcg32* rng)
{
    for (uint32_t i = 0; i < cb->width / 32 * cb->height; ++i) {
        const uint32_t kind = pcg32_random(rng) % 4, r = pcg32_random(rng);
        cb->bits[i] = kind == 0 ? 0u : kind == 1 ? ~0u : kind == 2 ? r : (~0u >> (r % 32)) ^ (r & 1);
    }
}

}  // namespace

TEST(n3d, buffers_have_their_word_and_block_geometry_and_frame_contexts_what_the_flags_ask_for)
{
    test_arena a(4 * 1024 * 1024);
    n3d_coverage_buffer cb;
    for (uint32_t width : {32u, 320u, 640u}) {
        const uint64_t before = a.arena.sp;
        n3d_coverage_buffer_init(&cb, width, 240, &a.arena);
        EXPECT_TRUE((uintptr_t)cb.bits % 32 == 0 && a.arena.sp - before == width * 240 / 8) << width;
        cover(&cb, 0, 1);  // row 1 starts right after row 0's words
        EXPECT_EQ(cb.bits[width / 32], 0x80000000u);
    }
    EXPECT_FATAL(n3d_coverage_buffer_init(&cb, 336, 240, &a.arena),
                 test_fatal("n3d_coverage_buffer_init", "src/n3d",
                            "coverage buffer only supports width evenly divisable by 32 (was 336)\n"));

    n3d_zbuffer zb;
    n3d_zbuffer_init(&zb, 320, 240, &a.arena);
    EXPECT_TRUE(zb.blocks.width == 32u && zb.blocks.height == 240u && (uintptr_t)zb.values % 32 == 0);
    zb.values[320 * 240 - 1] = 0x4321;
    cover(&zb.blocks, 19, 239);
    n3d_zbuffer_clear(&zb);
    EXPECT_TRUE(!covered(&zb.blocks, 19, 239) && zb.values[320 * 240 - 1] == 0x4321);  // values stay
    // 520 values per row are 33 blocks; the last 32-byte block stays inside the buffer's memory
    n3d_zbuffer_init(&zb, 520, 3, &a.arena);
    EXPECT_TRUE(zb.blocks.width == 64u && (uint8_t*)zb.values + 3136 <= (uint8_t*)zb.blocks.bits);
    n3d_framecontext fc;
    n3d_framecontext_init(&fc, &a.arena, 320, 240, N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555,
                          N3D_FRAMECONTEXT_ZBUFFER | N3D_FRAMECONTEXT_COVERAGE);
    ASSERT_TRUE(fc.zbuffer && fc.coverage[0] && fc.coverage[1] && fc.coverage[0]->bits != fc.coverage[1]->bits);
    EXPECT_TRUE(fc.coverage[1]->bits[320 / 32 * 240 - 1] == 0u && fc.framebuffer->row_bytes == 640);
    for (int i = 0; i < 320 * 240; ++i)
        ASSERT_EQ(((const uint16_t*)fc.framebuffer->pixels)[i], 0x8000) << i;  // opaque black, not 0
    n3d_framecontext overlay;
    n3d_framecontext_init(&overlay, &a.arena, 64, 4, N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8, 0);
    EXPECT_TRUE(!overlay.zbuffer && !overlay.coverage[0] && !overlay.coverage[1]);
    EXPECT_EQ(overlay.framebuffer->row_bytes, 64);
    n3d_framecontext empty;
    n3d_framecontext_init(&empty, &a.arena, 640, 480, N3D_TEXEL_FORMAT_NONE, N3D_FRAMECONTEXT_COVERAGE);
    EXPECT_TRUE(empty.framebuffer->pixels == nullptr && empty.coverage[0]->width == 640u);
    EXPECT_FATAL(
        n3d_framecontext_init(&empty, &a.arena, 32, 2, N3D_TEXEL_FORMAT_BUMPMAP, 0),
        test_fatal("n3d_framecontext_init", "src/n3d", "init framecontext with bad format 4? or not yet implemented?"));
}

TEST(n3d, clears_touch_only_their_rectangle_and_the_pixels_their_bits_select_and_frames_erase_what_the_last_left)
{
    test_frame video(N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, 320, 3, 1024, 0x55);
    n3d_framebuffer_clear(&video.fb);
    for (int i = 0; i < 3 * 512; ++i)  // 320 pixels, then a tail of 192 pixels' worth
        ASSERT_EQ(video.u16(i % 512, i / 512), i % 512 < 320 ? 0x8000 : 0x5555) << i % 512 << "," << i / 512;
    test_frame odd(N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, 7, 3, 14, 0x55, 2);  // gapless, off an 8-byte start
    n3d_framebuffer_clear(&odd.fb);
    for (int i = 0; i < 21; ++i)
        ASSERT_EQ(odd.u16(i, 0), 0x8000) << i;
    EXPECT_TRUE(odd.bytes[1] == 0x55 && odd.bytes[2 + 42] == 0x55);
    test_frame overlay(N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555, 13, 2, 16, 0x55);
    n3d_framebuffer_clear(&overlay.fb);
    for (int i = 0; i < 32; ++i)
        ASSERT_EQ(overlay.u8(i % 16, i / 16), i % 16 < 13 ? 0 : 0x55) << i % 16 << "," << i / 16;
    test_frame bump(N3D_TEXEL_FORMAT_BUMPMAP, 4, 4, 16, 0);
    EXPECT_FATAL(n3d_framebuffer_clear(&bump.fb), test_fatal("n3d_framebuffer_clear", "src/n3d", "not implemented\n"));

    // both coverage-driven clears per pixel, on a framebuffer narrower than the coverage (tails stay)
    test_arena a(64 * 1024);
    pcg32 rng = {0x853c49e6748fea9bull, 0xda3e39cb94b95bdbull};
    n3d_coverage_buffer current, previous;
    n3d_coverage_buffer_init(&current, 128, 6, &a.arena);
    n3d_coverage_buffer_init(&previous, 128, 6, &a.arena);
    fill_pattern(&current, &rng);
    fill_pattern(&previous, &rng);
    for (int dirty_only = 0; dirty_only < 2; ++dirty_only)
        for (N3D_TEXEL_FORMAT format : {1u, 2u, 3u}) {
            if (format == 3 && !dirty_only)
                continue;
            const bool wide = format == 2;
            test_frame frame(format, 101, 5, 256, 0x22);
            if (dirty_only)
                n3d_framebuffer_clear_only_dirty(&frame.fb, &current, &previous);
            else
                n3d_framebuffer_clear_uncovered(&frame.fb, &current);
            for (int i = 0; i < 5 * 128; ++i) {
                const int x = i % 128, y = i / 128;
                const bool erase = x < 101 && !covered(&current, x, y) && (!dirty_only || covered(&previous, x, y));
                ASSERT_EQ(wide ? frame.u16(x, y) : frame.u8(x, y),
                          erase ? (wide ? 0x8000u : 0u) : (wide ? 0x2222u : 0x22u))
                    << "format " << format << " dirty " << dirty_only << " at " << x << "," << y;
            }
        }
    EXPECT_FATAL(n3d_framebuffer_clear_only_dirty(&bump.fb, &current, &previous),
                 test_fatal("n3d_framebuffer_clear_only_dirty", "src/n3d", "not implemented for format 4\n"));

    n3d_framecontext fc;
    n3d_framecontext_init(&fc, &a.arena, 64, 2, N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, N3D_FRAMECONTEXT_COVERAGE);
    uint16_t* px = (uint16_t*)fc.framebuffer->pixels;
    n3d_coverage_buffer *first = fc.coverage[0], *second = fc.coverage[1];
    // frame 1 draws A (3, 0) and B (40, 1); C (10, 1) is written without coverage
    n3d_framecontext_begin_frame(&fc, 0);
    EXPECT_TRUE(fc.coverage[0] == second && fc.coverage[1] == first);
    px[3] = 0x7FFF;
    px[64 + 40] = 0x7C00;
    px[64 + 10] = 0x03E0;
    cover(fc.coverage[0], 3, 0);
    cover(fc.coverage[0], 40, 1);
    n3d_framecontext_clear_dirty(&fc);
    EXPECT_EQ(px[64 + 40], 0x7C00);
    n3d_framecontext_begin_frame(&fc, 0);  // frame 2 draws A again only
    EXPECT_TRUE(fc.coverage[0] == first && !covered(fc.coverage[0], 3, 0));  // the new current one starts empty
    cover(fc.coverage[0], 3, 0);
    n3d_framecontext_clear_dirty(&fc);
    EXPECT_EQ(px[3], 0x7FFF);        // drawn both frames: survives
    EXPECT_EQ(px[64 + 40], 0x8000);  // drawn only last frame: erased
    EXPECT_EQ(px[64 + 10], 0x03E0);  // drawn in neither: untouched
    // keep-coverage: the pair still swaps (current is the one from two frames ago), nothing is cleared
    px[64 + 40] = 0x001F;
    n3d_framecontext_begin_frame(&fc, N3D_FRAMECONTEXT_KEEP_COVERAGE);
    EXPECT_TRUE(fc.flags == N3D_FRAMECONTEXT_KEEP_COVERAGE && fc.coverage[0] == second &&
                covered(fc.coverage[0], 40, 1));
    fc.coverage[0]->bits[0] = 0;
    fc.coverage[1]->bits[0] = ~0u;
    n3d_framecontext_clear_dirty(&fc);
    EXPECT_TRUE(px[3] == 0x7FFF && px[64 + 40] == 0x001F);
}

