// 2D raster operations against per-pixel references, on and off the buffers, and every fatal path.
// Buffers have row tails and exact-size storage: a write past the width or a read past the end shows.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "n2d.h"
#include "test_fatal.h"
#include "vmath.h"

namespace {

pcg32 test_rng() { return pcg32{0x853c49e6748fea9bull, 0xda3e39cb94b95bdbull}; }

template <class T>
void noise(std::vector<T>& items, pcg32* rng)
{
    for (T& item : items)
        item = (T)pcg32_random(rng);
}

// Buffers hold their own storage; they are filled with noise so that untouched bytes are checked too.
struct frame {
    std::vector<uint8_t> bytes;
    n3d_framebuffer fb;
    frame(N3D_TEXEL_FORMAT format, int32_t w, int32_t h, int32_t row_bytes, pcg32* rng)
        : bytes((size_t)row_bytes * h), fb{format, w, h, row_bytes, nullptr}
    {
        noise(bytes, rng);
        fb.pixels = bytes.data();
    }
};

struct stencil {
    std::vector<uint32_t> words;
    n3d_coverage_buffer cb;
    stencil(uint32_t w, uint32_t h) : words(w / 32 * h), cb{nullptr, w, h} { cb.bits = words.data(); }
    uint32_t& word(int64_t x, int64_t y) { return words[(y * cb.width + x) / 32]; }
    bool bit(int64_t x, int64_t y) const
    {
        return x >= 0 && y >= 0 && x < cb.width && y < cb.height && (words[(y * cb.width + x) / 32] << (x % 32)) >> 31;
    }
    void set(int64_t x, int64_t y, bool on = true)
    {
        word(x, y) = (word(x, y) & ~(0x80000000u >> (x % 32))) | (uint32_t)on << (31 - x % 32);
    }
    // 0: every word shape (empty, full, noise, one bit, runs to and from a word edge); 1: rows of
    // runs crossing word boundaries; 2: everything set; 3: nothing set
    void fill(int shape, pcg32* rng)
    {
        for (uint32_t& w : words) {
            const uint32_t r = pcg32_random(rng), kind = pcg32_random(rng) % 6;
            const uint32_t shapes[6] = {0u, ~0u, r, 0x80000000u >> (r % 32), ~0u >> (r % 32), ~(~0u >> (r % 32))};
            w = shape == 0 ? shapes[kind] : shape == 2 ? ~0u : 0u;
        }
        if (shape == 1)
            for (uint32_t y = 0; y < cb.height; ++y)
                for (uint32_t x = pcg32_random(rng) % 20; x < cb.width; x += 1 + pcg32_random(rng) % 40)
                    for (uint32_t end = x + 1 + pcg32_random(rng) % 70; x < end && x < cb.width; ++x)
                        set(x, y);
    }
};

struct texture8 {
    std::vector<std::vector<uint8_t>> levels;  // exact sizes: reading past a level is an ASan error
    std::vector<void*> slots;
    n3d_texture t = {};
    texture8(uint32_t log2_w, uint32_t log2_h, uint32_t min_w, uint32_t min_h, pcg32* rng)
    {
        t = {N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8, 1, log2_w, log2_h, min_w, min_h, nullptr, 256, 32, nullptr, nullptr};
        slots.assign(n3d_mip_slot_count(log2_w, log2_h, min_w, min_h), nullptr);
        for (uint32_t w = log2_w; w + 1 > min_w; --w)
            for (uint32_t h = log2_h; h + 1 > min_h; --h) {
                levels.emplace_back((size_t)1 << (w + h));
                noise(levels.back(), rng);
                slots[n3d_mip_slot(&t, w, h)] = levels.back().data();
            }
        t.mips = slots.data();
    }
    uint8_t at(uint32_t level_x, uint32_t level_y, uint32_t x, uint32_t y) const
    {
        return ((const uint8_t*)slots[level_x + 128 * level_y])[(y << (t.log2_w - level_x)) + x];
    }
};

const int32_t PLACES_X[] = {INT32_MIN, -5000, -40, -33, -32, -1, 0, 1, 5, 31, 33, 64, 99, 100, INT32_MAX - 10};
const int32_t PLACES_Y[] = {INT32_MIN, -20, -1, 0, 3, 36, 37, INT32_MAX};
const int32_t BANDS[][2] = {{0, 37}, {5, 10}, {-3, 1000}, {30, 0}};  // first row, row count

}  // namespace

// Fill and copy per pixel: frame rows in the band, inside frame, output coverage and source.
static void reference_masked(frame* dst, stencil* out, int32_t x, int32_t y, uint8_t index, const frame* src,
                             const stencil* cb0, int32_t first_row, int32_t row_count)
{
    const int32_t bpp = dst->fb.format == 2 ? 2 : 1;
    for (int64_t fy = std::max(first_row, 0); fy < std::min<int64_t>((int64_t)first_row + row_count, dst->fb.height);
         ++fy)
        for (int64_t fx = 0; fx < dst->fb.width; ++fx) {
            if (fx >= out->cb.width || fy >= out->cb.height || (src && (fx >= src->fb.width || fy >= src->fb.height)) ||
                !cb0->bit(fx - x, fy - y))
                continue;
            for (int32_t b = 0; b < bpp; ++b)
                dst->bytes[fy * dst->fb.row_bytes + fx * bpp + b] =
                    src ? src->bytes[fy * src->fb.row_bytes + fx * bpp + b] : index;
            out->set(fx, fy);
        }
}

TEST(n2d, masked_fill_copy_heal_and_background_copy_match_reference)
{
    pcg32 rng = test_rng();
    struct setup { N3D_TEXEL_FORMAT format; int32_t src_w, src_h; uint32_t cb_w, cb_h; };
    // 8-bit with a larger stencil, a smaller source and a narrow stencil; 16-bit steps whole pixels
    const setup setups[] = {{3, 100, 37, 160, 50}, {3, 70, 30, 96, 20}, {3, 100, 37, 32, 64}, {2, 100, 37, 96, 40}};
    for (const setup& s : setups)
        for (int shape = 0; shape < 4; ++shape)
            for (int32_t x : PLACES_X)
                for (int32_t y : PLACES_Y)
                    for (const auto& band : BANDS) {
                        const int32_t bpp = s.format == 2 ? 2 : 1;
                        frame got(s.format, 100, 37, 100 * bpp + 8, &rng), want(s.format, 100, 37, 100 * bpp + 8, &rng);
                        frame src(s.format, s.src_w, s.src_h, s.src_w * bpp + 4, &rng);
                        stencil cb0(s.cb_w, s.cb_h), cov(128, 40), want_cov(128, 40);
                        cb0.fill(shape, &rng);
                        want.bytes = got.bytes;
                        const bool copy = (x ^ y ^ shape) & 1;
                        if (copy)
                            n2d_fb_i8_and_cb_mask_copy_if_cb0(&got.fb, &cov.cb, x, y, &src.fb, &cb0.cb, band[0], band[1]);
                        else
                            n2d_fb_i8_and_cb_mask_fill_if_cb0(&got.fb, &cov.cb, x, y, 77, &cb0.cb, band[0], band[1]);
                        reference_masked(&want, &want_cov, x, y, 77, copy ? &src : nullptr, &cb0, band[0], band[1]);
                        ASSERT_EQ(got.bytes, want.bytes) << "format " << s.format << " shape " << shape << " at " << x
                                                         << "," << y << " band " << band[0] << " copy " << copy;
                        ASSERT_EQ(cov.words, want_cov.words) << "shape " << shape << " at " << x << "," << y;
                    }

    // the heal (old mask's pixels the new one no longer covers) with equal and with empty masks,
    // and the background copy under the new mask, into rows with tails from a larger viewport
    const int32_t rows[][2] = {{0, 20}, {5, 12}, {-5, 100}, {10, 10}};
    for (int shape = 0; shape < 6; ++shape)
        for (const auto& r : rows) {
            stencil cb0(96, 20), cb1(96, 20);
            cb0.fill(shape < 4 ? shape : 0, &rng);
            cb1.fill(shape == 3 ? 0 : 1, &rng);
            if (shape == 4)
                cb1.words = cb0.words;  // the same mask twice restores nothing
            if (shape == 5)
                cb0.fill(3, &rng);  // an empty new mask restores all of the old one
            frame got(3, 96, 20, 100, &rng), want(3, 96, 20, 100, &rng), src(3, 96, 20, 96, &rng);
            frame bg(2, 96, 20, 200, &rng), bg_want(2, 96, 20, 200, &rng), view(2, 150, 30, 512, &rng);
            want.bytes = got.bytes;
            bg_want.bytes = bg.bytes;
            n2d_fb_i8_copy_if_cb1_not_cb0(&got.fb, 0, 0, &src.fb, &cb0.cb, &cb1.cb, r[0], r[1]);
            n2d_fb_argb1555_copy_if_not_cb0(&bg.fb, 0, 0, &view.fb, &cb0.cb, r[0], r[1]);
            for (int64_t y = std::max(r[0], 0); y < std::min(r[1], 20); ++y)
                for (int64_t x = 0; x < 96; ++x) {
                    if (!cb0.bit(x, y) && cb1.bit(x, y))
                        want.bytes[y * 100 + x] = src.bytes[y * 96 + x];
                    if (!cb0.bit(x, y))
                        memcpy(&bg_want.bytes[y * 200 + 2 * x], &view.bytes[y * 512 + 2 * x], 2);
                }
            ASSERT_EQ(got.bytes, want.bytes) << "heal shape " << shape << " rows " << r[0];
            ASSERT_EQ(bg.bytes, bg_want.bytes) << "background shape " << shape << " rows " << r[0];
        }
}

TEST(n2d, threshold_mask_and_coverage_rects_match_reference)
{
    pcg32 rng = test_rng();
    const int32_t ranges[][2] = {{1, 255}, {0, 0}, {100, 140}, {200, 100}, {-50, 10}, {250, 999}};
    const int32_t bands[][2] = {{0, 16}, {3, 5}, {-2, 100}, {12, 100}};
    const uint32_t sizes[][4] = {{6, 4, 64, 16}, {4, 3, 64, 12}};  // texture as large as the mask, and smaller
    for (const auto& s : sizes)
        for (const auto& range : ranges)
            for (const auto& band : bands) {
                texture8 tex(s[0], s[1], s[0], s[1], &rng);
                stencil in(s[2], s[3]), out(s[2], s[3]), want(s[2], s[3]);
                in.fill(0, &rng);
                out.fill(0, &rng);
                want.words = out.words;
                n2d_cb_from_texture_i8_range(&out.cb, &in.cb, &tex.t, range[0], range[1], band[0], band[1]);
                for (int64_t y = std::max(band[0], 0); y < std::min<int64_t>(band[0] + band[1], s[3]); ++y)
                    for (uint32_t x = 0; x < s[2]; ++x) {
                        const int32_t t = x < (1u << s[0]) && y < (1 << s[1]) ? tex.at(0, 0, x, (uint32_t)y) : -1;
                        want.set(x, y, t >= 0 && in.bit(x, y) && range[0] <= t && t <= range[1]);
                    }
                ASSERT_EQ(out.words, want.words) << "range " << range[0] << ".." << range[1] << " band " << band[0];
            }
    // a stencil copied into another, or combined with it as "or not", at every placement
    const int32_t rows[][2] = {{0, 20}, {4, 9}, {-10, 100}};
    for (int32_t x : {INT32_MIN, -40, -1, 0, 1, 17, 32, 50, 95, 96, 200})
        for (int32_t y : {-5, 0, 3, 19, 20, INT32_MAX})
            for (const auto& r : rows)
                for (int combine = 0; combine < 2; ++combine) {
                    stencil dst(96, 20), src(64, 12), want(96, 20);
                    dst.fill(0, &rng);
                    src.fill((x & 3) == 1 ? 1 : 0, &rng);
                    want.words = dst.words;
                    (combine ? n2d_cb_or_not_rect : n2d_cb_copy_rect)(&dst.cb, x, y, &src.cb, r[0], r[1]);
                    for (int64_t dy = std::max(r[0], 0); dy < std::min(r[1], 20); ++dy)
                        for (int64_t dx = std::max<int64_t>(x, 0); dx < std::min<int64_t>((int64_t)x + 64, 96); ++dx)
                            if (dy - y >= 0 && dy - y < 12)
                                want.set(
                                    dx, dy,
                                    combine ? want.bit(dx, dy) || !src.bit(dx - x, dy - y) : src.bit(dx - x, dy - y));
                    ASSERT_EQ(dst.words, want.words) << "at " << x << "," << y << " rows " << r[0] << " combine " << combine;
                }
    stencil full(64, 3);
    full.fill(2, &rng);
    n2d_cb_clear(&full.cb);
    EXPECT_EQ(full.words, std::vector<uint32_t>(6, 0u));
}

TEST(n2d, blits_and_fills_clip_reveal_row_bands_choose_levels_interlace_cover_and_write_row_tails)
{
    pcg32 rng = test_rng();
    for (int32_t x : PLACES_X)
        for (int32_t y : PLACES_Y)
            for (const auto& band : {std::pair{0, 1000}, {3, 5}, {24, 1000}, {0, 0}, {-4, 2}}) {  // first row, max rows
                frame got(3, 100, 37, 104, &rng), want(3, 100, 37, 104, &rng);
                std::vector<uint8_t> image(40 * 24);  // exact size: no read past its last row
                noise(image, &rng);
                want.bytes = got.bytes;
                n3d_framecontext fc = {0, &got.fb, nullptr, {nullptr, nullptr}};
                n2d_blit_buffer_index8(&fc, image.data(), 40, x, y,
                                       (int32_t)std::min<int64_t>((int64_t)x + 40, INT32_MAX),
                                       (int32_t)std::min<int64_t>((int64_t)y + 24, INT32_MAX), band.first, band.second);
                // the first row counts from the first visible row; at most max rows after it
                int64_t visible = 0, drawn = 0;
                for (int64_t iy = 0; iy < 24; ++iy) {
                    const int64_t fy = (int64_t)y + iy;
                    if (fy < 0 || fy >= 37 || visible++ < band.first)
                        continue;
                    if (drawn++ >= band.second)
                        break;
                    for (int64_t ix = std::max<int64_t>(-(int64_t)x, 0); ix < 40 && (int64_t)x + ix < 100; ++ix)
                        want.bytes[fy * 104 + x + ix] = image[iy * 40 + ix];
                }
                ASSERT_EQ(got.bytes, want.bytes)
                    << "at " << x << "," << y << " band " << band.first << "," << band.second;
            }
    // the scaled blit: level choice, placement, bands, interlace and coverage
    texture8 mipped(4, 3, 2, 2, &rng), flat(4, 3, 4, 3, &rng);
    frame f(3, 64, 32, 72, &rng), before(3, 64, 32, 72, &rng);
    stencil cov(96, 32);
    n3d_framecontext fc = {0, &f.fb, nullptr, {&cov.cb, nullptr}};
    // draws, then compares every pixel (row tails included) and coverage bit with expected(x, y),
    // which gives a texel, or -1 for an untouched pixel, or -2 for an untouched but covered one
    const auto blit = [&](const texture8& t, float x0, float y0, float x1, float y1, float u0, float v0, float u1,
                          float v1, int interlace, int first_row, int row_count, auto expected) {
        before.bytes = f.bytes;
        n3d_coverage_buffer_clear(&cov.cb);
        n2d_blit_scaled_index8(&fc, &t.t, x0, y0, x1, y1, u0, v0, u1, v1, interlace, 0, first_row, row_count);
        for (int y = 0; y < 32; ++y)
            for (int x = 0; x < 96; ++x) {
                const int want = x < 72 ? expected(x, y) : -1;
                ASSERT_TRUE(x >= 72 || f.bytes[y * 72 + x] == (want >= 0 ? want : before.bytes[y * 72 + x]))
                    << x << "," << y;
                ASSERT_EQ(cov.bit(x, y), want != -1) << x << "," << y;
            }
    };
    const auto inside = [](int x, int y, int x0, int y0, int x1, int y1) {
        return x >= x0 && x < x1 && y >= y0 && y < y1;
    };
    // twice the size: level 0, every texel twice in both directions
    blit(mipped, 0, 0, 32, 16, 0, 0, 16, 8, 0, 0, 32,
         [&](int x, int y) { return inside(x, y, 0, 0, 32, 16) ? mipped.at(0, 0, x / 2, y / 2) : -1; });
    // half the size: two texels a pixel read the level halved both ways, or level 0 when there is none
    blit(mipped, 0, 0, 8, 4, 0, 0, 16, 8, 0, 0, 32,
         [&](int x, int y) { return inside(x, y, 0, 0, 8, 4) ? mipped.at(1, 1, x, y) : -1; });
    blit(flat, 0, 0, 8, 4, 0, 0, 16, 8, 0, 0, 32,
         [&](int x, int y) { return inside(x, y, 0, 0, 8, 4) ? flat.at(0, 0, 2 * x, 2 * y) : -1; });
    // a start off the top left at half pixels: pixel x samples 0.5 (x + 3.5), row y 0.5 (y + 2.5)
    blit(flat, -3.5f, -2.5f, 28.5f, 13.5f, 0, 0, 16, 8, 0, 0, 32, [&](int x, int y) {
        return inside(x, y, 0, 0, 28, 13) ? flat.at(0, 0, (2 * x + 7) / 4, (2 * y + 5) / 4) : -1;
    });
    // a source running right to left and bottom to top draws the mirror image
    blit(flat, 10, 20, 26, 28, 16, 8, 0, 0, 0, 0, 32,
         [&](int x, int y) { return inside(x, y, 10, 20, 26, 28) ? flat.at(0, 0, 25 - x, 27 - y) : -1; });
    // frame rows 3 to 24 only; with interlace and skip parity 0 the even ones keep their pixels but are covered
    blit(flat, 4, 0, 36, 32, 0, 0, 16, 8, 1, 3, 22, [&](int x, int y) {
        return !inside(x, y, 4, 3, 36, 25) ? -1 : (y & 1) ? flat.at(0, 0, (x - 4) / 2, y / 4) : -2;
    });
    // a source reaching past every edge of the texture draws and covers only the texels that exist
    blit(flat, 0, 0, 64, 32, -8, -4, 24, 12, 0, 0, 32, [&](int x, int y) {
        return inside(x, y, 16, 8, 48, 24) ? flat.at(0, 0, (x - 16) / 2, (y - 8) / 2) : -1;
    });
    // off the frame, NaN, infinite or huge coordinates: nothing, or a defined texel, never a read outside
    for (const auto& n : {std::array<float, 8>{64, 0, 96, 8, 0, 0, 16, 8}, {-40, -9, -8, -1, 0, 0, 16, 8},
                          {NAN, 0, 16, 8, 0, 0, 16, 8}, {0, 0, 16, 8, 0, 0, NAN, 8}, {0, 0, 16, 8, 1e30f, 0, 1e30f, 8}})
        blit(flat, n[0], n[1], n[2], n[3], n[4], n[5], n[6], n[7], 0, 0, 32, [](int, int) { return -1; });
    blit(flat, -1e30f, 0, INFINITY, 8, 0, 0, 16, 8, 0, 0, 32,
         [&](int x, int y) { return y < 8 && x < 64 ? flat.at(0, 0, 0, y) : -1; });  // a step of 0 texels
    frame video(2, 20, 3, 48, &rng);
    const uint16_t colours[][4] = {{255, 255, 255, 0xFFFF}, {0, 0, 0, 0x8000}, {8, 16, 255, 0x8000 | 1 << 10 | 2 << 5 | 31}};
    for (const auto& c : colours) {
        n2d_fb_clear_color(&video.fb, c[0], c[1], c[2]);
        for (size_t i = 0; i < video.bytes.size(); i += 2)
            ASSERT_EQ(video.bytes[i] | video.bytes[i + 1] << 8, c[3]) << "byte " << i;
    }
    frame overlay(3, 100, 3, 100, &rng);  // rows not a multiple of 8 bytes: still filled to the end
    n2d_fb_clear_color(&overlay.fb, 0x1C7, 0, 0);
    EXPECT_EQ(overlay.bytes, std::vector<uint8_t>(300, 0xC7));

    const int32_t rects[][4] = {{3, 1, 17, 6}, {-5, -2, 4, 30}, {45, 8, 90, 12}, {10, 2, 10, 9}, {INT32_MIN, 0, INT32_MAX, 1}};
    for (const auto& r : rects) {
        frame got(3, 50, 10, 56, &rng);
        std::vector<uint8_t> want = got.bytes;
        n2d_fb_i8_fill_rect(&got.fb, 9, r[0], r[1], r[2], r[3]);
        for (int64_t y = std::max(r[1], 0); y < std::min(r[3], 10); ++y)
            for (int64_t x = std::max(r[0], 0); x < std::min(r[2], 50); ++x)
                want[y * 56 + x] = 9;
        ASSERT_EQ(got.bytes, want) << r[0] << "," << r[1];
    }

    frame a(3, 64, 4, 72, &rng), b(3, 64, 4, 72, &rng);
    n2d_copy_fb(&a.fb, &b.fb);
    EXPECT_EQ(a.bytes, b.bytes);
}

TEST(n2d_death, every_failed_check_ends_the_process_with_its_message)
{
    pcg32 rng = test_rng();
    frame a(3, 32, 4, 32, &rng), wide(3, 40, 4, 40, &rng), pad(3, 32, 4, 48, &rng), odd(3, 32, 4, 36, &rng);
    frame a_small(3, 32, 2, 32, &rng), argb(2, 32, 4, 64, &rng);
    frame i8argb(1, 32, 4, 32, &rng), bad(7, 32, 4, 32, &rng);
    texture8 tex(4, 3, 4, 3, &rng), argb_tex(4, 3, 4, 3, &rng), swizzled(4, 3, 4, 3, &rng);
    argb_tex.t.format = 2;
    swizzled.t.linear = 0;
    stencil cb(32, 4), cb_short(32, 2), cov(32, 4);
    n3d_framecontext fc = {0, &a.fb, nullptr, {&cov.cb, nullptr}}, fc_argb = {0, &argb.fb, nullptr, {&cov.cb, nullptr}};
    const uint8_t image[64] = {};
    const char* const printed = "";  // printed on standard output and exit(1), not the fatal path
    // function null: the fatal path without a function name
    const struct { std::function<void()> call; const char* function; const char* message; } checks[] = {
        {[&] { n2d_copy_fb(&a.fb, &wide.fb); }, "n2d_copy_fb",
         "dst_fb and src_fb must have same format, w and h. src: 3 40 4 vs dst 3 32 4\n"},
        {[&] { n2d_copy_fb(&a.fb, &pad.fb); }, "n2d_copy_fb", "rowbytes must be the same for dst and src, src: 48 dst: 32\n"},
        {[&] { n2d_copy_fb(&odd.fb, &odd.fb); }, "n2d_copy_fb",
         "rowbytes must be aligned to 8 bytes dst_fb row_bytes 36 src_fb row_bytes: 36\n"},
        // checked even when the image lies entirely off the frame
        {[&] { n2d_blit_buffer_index8(&fc, image, 6, -100, 0, -92, 8, 0, 8); }, "n2d_blit_buffer_index8",
         "fc row bytes and src row bytes must be multiple of 4 bytes, is: 32 6 respectively\n"},
        {[&] { n2d_blit_buffer_index8(&fc_argb, image, 8, 0, 0, 8, 8, 0, 8); }, "n2d_blit_buffer_index8",
         "format 2 not implemented/supported?\n"},
        {[&] { n2d_fb_clear_color(&i8argb.fb, 1, 2, 3); }, nullptr, "not implemented\n"},
        {[&] { n2d_fb_i8_and_cb_mask_fill_if_cb0(&bad.fb, &cov.cb, 0, 0, 1, &cb.cb, 0, 4); },
         "n2d_fb_i8_and_cb_mask_fill_if_cb0", "bad N3D_TEXEL_FORMAT 7?\n"},
        {[&] { n2d_fb_i8_and_cb_mask_copy_if_cb0(&a.fb, &cov.cb, 0, 0, &argb.fb, &cb.cb, 0, 4); },
         "n2d_fb_i8_and_cb_mask_copy_if_cb0", "src_fb pixels are 2 bytes but dst_fb pixels 1 bytes\n"},
        {[&] { n2d_blit_scaled_index8(&fc_argb, &tex.t, 0, 0, 8, 8, 0, 0, 16, 8, 0, 0, 0, 4); }, printed,
         "dst: only N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8 supported for now\n"},
        {[&] { n2d_blit_scaled_index8(&fc, &argb_tex.t, 0, 0, 8, 8, 0, 0, 16, 8, 0, 0, 0, 4); }, printed,
         "src: only N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8 supported for now\n"},
        {[&] { n2d_blit_scaled_index8(&fc, &swizzled.t, 0, 0, 8, 8, 0, 0, 16, 8, 0, 0, 0, 4); }, printed,
         "src: swizzled not supported for this (would be slower)\n"},
        {[&] { n2d_fb_i8_copy_if_cb1_not_cb0(&a.fb, 0, 1, &a.fb, &cb.cb, &cb.cb, 0, 4); }, printed, "not impl..\n"},
        {[&] { n2d_fb_i8_copy_if_cb1_not_cb0(&a.fb, 0, 0, &a.fb, &cb.cb, &cb_short.cb, 0, 4); }, printed,
         "cb0 and cb1 must have same width and height (32 4 vs 32 2)\n"},
        {[&] { n2d_fb_i8_copy_if_cb1_not_cb0(&a.fb, 0, 0, &a_small.fb, &cb.cb, &cb.cb, 0, 4); }, printed,
         "cb0 and src_fb must have same width and height (32 4 vs 32 2)\n"},
        {[&] { n2d_fb_i8_copy_if_cb1_not_cb0(&i8argb.fb, 0, 0, &a.fb, &cb.cb, &cb.cb, 0, 4); }, printed,
         "dst_fb format must be N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8 (was 1)\n"},
        {[&] { n2d_fb_argb1555_copy_if_not_cb0(&a.fb, 0, 0, &argb.fb, &cb.cb, 0, 4); }, printed,
         "dst_fb format must be N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555 (was 3)\n"},
        {[&] { n2d_cb_from_texture_i8_range(&cb.cb, &cb_short.cb, &tex.t, 1, 255, 0, 4); }, printed,
         "cb0 width and height must equal cb1! (32 4 vs 32 2)\n"},
        {[&] { n2d_cb_from_texture_i8_range(&cb.cb, &cov.cb, &argb_tex.t, 1, 255, 0, 4); }, printed,
         "texture: only N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8 supported\n"},
        {[&] { n2d_cb_from_texture_i8_range(&cb.cb, &cov.cb, &swizzled.t, 1, 255, 0, 4); }, printed,
         "swizzled texture not implemented\n"},
    };
    for (const auto& c : checks) {
        const std::string message = test_literal(c.message) + "$";
        const std::string re = c.function == printed ? std::string("^") + message
                               : c.function ? test_fatal(c.function, "src/n2d", c.message)
                                            : std::string("^crash at src/n2d:[0-9]+\n") + message;
        EXPECT_FATAL_OUT(c.call(), re) << c.message;  // standard output joins standard error
    }
}
