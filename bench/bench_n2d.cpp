// Per-frame costs of the 2D operations on full-screen planes, in pixels per second: the masked
// fill and copy, the heal, the background copy and the threshold mask over stencils of the
// shapes the show draws (a disc, a noise blob with a dithered edge, text-like glyph blocks, thin
// diagonal strokes, next to all-set and all-clear), and the scaled blit.
#include <benchmark/benchmark.h>

#include <cmath>
#include <vector>

#include "n2d.h"

namespace {

constexpr uint32_t BENCH_W = 640;
constexpr uint32_t BENCH_H = 480;

enum bench_shape : int { SHAPE_DISC, SHAPE_BLOB, SHAPE_TEXT, SHAPE_STROKES, SHAPE_FULL, SHAPE_EMPTY, SHAPE_COUNT };
const char* const BENCH_SHAPE_NAMES[SHAPE_COUNT] = {"disc", "noise blob", "text", "diagonal strokes", "all set",
                                                    "all clear"};

uint32_t bench_random(uint32_t* seed) { return (*seed = *seed * 1664525u + 1013904223u) >> 8; }

struct bench_stencil {
    std::vector<uint32_t> words;
    n3d_coverage_buffer cb;
    bench_stencil(uint32_t w, uint32_t h) : words(w / 32 * h), cb{nullptr, w, h} { cb.bits = words.data(); }
    bench_stencil(const bench_stencil&) = delete;
    void set(uint32_t x, uint32_t y) { words[(y * cb.width + x) / 32] |= 0x80000000u >> (x % 32); }
};

// value noise on a 32-pixel lattice, bilinear between lattice points
float bench_noise(const std::vector<float>& lattice, uint32_t stride, float x, float y)
{
    const uint32_t ix = (uint32_t)x, iy = (uint32_t)y;
    const float fx = x - (float)ix, fy = y - (float)iy;
    const float* r0 = &lattice[iy * stride + ix];
    const float* r1 = r0 + stride;
    return (r0[0] * (1 - fx) + r0[1] * fx) * (1 - fy) + (r1[0] * (1 - fx) + r1[1] * fx) * fy;
}

// A stencil of the given shape, shifted by (dx, dy) so that a heal sees a moved drawing.
void bench_make_shape(bench_stencil* s, int shape, int32_t dx, int32_t dy)
{
    const uint32_t w = s->cb.width, h = s->cb.height;
    uint32_t seed = 12345;
    std::vector<float> lattice(32 * 32);
    for (float& v : lattice)
        v = (float)(bench_random(&seed) & 0xFFFF) / 65535.0f;
    std::vector<uint8_t> glyph_cells((w / 8 + 1) * (h / 12 + 1));
    for (uint8_t& g : glyph_cells)
        g = (uint8_t)bench_random(&seed);
    for (uint32_t y = 0; y < h; ++y)
        for (uint32_t x = 0; x < w; ++x) {
            const float px = (float)((int32_t)x - dx), py = (float)((int32_t)y - dy);
            const float cx = px - (float)w / 2, cy = py - (float)h / 2;
            bool on = false;
            switch (shape) {
            case SHAPE_DISC:
                on = cx * cx + cy * cy < 200.0f * 200.0f;
                break;
            case SHAPE_BLOB: {
                // a noisy blob whose edge is dithered: scattered single pixels and short runs there
                const float n = bench_noise(lattice, 32, (px + 64) / 32.0f, (py + 64) / 32.0f);
                const float falloff = 1.0f - sqrtf(cx * cx + cy * cy) / 260.0f;
                const float jitter = (float)(bench_random(&seed) & 0xFF) / 255.0f * 0.2f;
                on = n * 0.5f + falloff + jitter > 0.75f;
                break;
            }
            case SHAPE_TEXT: {
                // lines of 8 x 12 glyph cells, each with a few one- and two-pixel strokes
                const int32_t gx = (int32_t)px / 8, gy = (int32_t)py / 12, lx = (int32_t)px % 8, ly = (int32_t)py % 12;
                if (px < 16 || py < 16 || px >= (float)w - 16 || py >= (float)h - 16 || (gy % 2) == 1)
                    break;
                const uint8_t g = glyph_cells[(uint32_t)gy * (w / 8 + 1) + (uint32_t)gx];
                if (g < 40 || lx == 7 || ly >= 10)
                    break;  // spaces between words, glyph spacing, line gaps
                on = ((g & 1) && lx <= 1) || ((g & 2) && lx >= 5 && lx <= 6) || ((g & 4) && ly <= 1) ||
                     ((g & 8) && ly >= 4 && ly <= 5) || ((g & 16) && ly >= 8);
                break;
            }
            case SHAPE_STROKES: {
                const int32_t d = ((int32_t)px + (int32_t)py) % 24, e = ((int32_t)px - (int32_t)py + 4800) % 56;
                on = (d >= 0 && d < 3) || (e >= 0 && e < 2);
                break;
            }
            case SHAPE_FULL:
                on = true;
                break;
            default:
                break;
            }
            if (on)
                s->set(x, y);
        }
}

struct bench_frame {
    std::vector<uint8_t> bytes;
    n3d_framebuffer fb;
    bench_frame(N3D_TEXEL_FORMAT format, uint32_t w, uint32_t h, uint32_t row_bytes)
        : bytes((size_t)row_bytes * h, 3), fb{format, (int32_t)w, (int32_t)h, (int32_t)row_bytes, nullptr}
    {
        fb.pixels = bytes.data();
        uint32_t seed = 99;
        for (uint8_t& b : bytes)
            b = (uint8_t)bench_random(&seed);
    }
    bench_frame(const bench_frame&) = delete;
};

void bench_finish(benchmark::State& state, uint64_t pixels, int shape)
{
    state.SetItemsProcessed((int64_t)state.iterations() * (int64_t)pixels);
    if (shape >= 0)
        state.SetLabel(BENCH_SHAPE_NAMES[shape]);
}

void bench_masked_fill(benchmark::State& state)
{
    const int shape = (int)state.range(0);
    bench_frame frame(N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8, BENCH_W, BENCH_H, BENCH_W);
    bench_stencil stencil(BENCH_W, BENCH_H), coverage(BENCH_W, BENCH_H);
    bench_make_shape(&stencil, shape, 0, 0);
    for (auto _ : state) {
        n2d_fb_i8_and_cb_mask_fill_if_cb0(&frame.fb, &coverage.cb, 0, 0, 7, &stencil.cb, 0, BENCH_H);
        benchmark::ClobberMemory();
    }
    bench_finish(state, BENCH_W * BENCH_H, shape);
}
BENCHMARK(bench_masked_fill)->DenseRange(0, SHAPE_COUNT - 1)->Unit(benchmark::kMicrosecond);

void bench_masked_copy(benchmark::State& state)
{
    const int shape = (int)state.range(0);
    bench_frame frame(N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8, BENCH_W, BENCH_H, BENCH_W);
    bench_frame back(N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8, BENCH_W, BENCH_H, BENCH_W);
    bench_stencil stencil(BENCH_W, BENCH_H), coverage(BENCH_W, BENCH_H);
    bench_make_shape(&stencil, shape, 0, 0);
    // a stroke's erase places its stencil off the word grid: every word is read shifted
    for (auto _ : state) {
        n2d_fb_i8_and_cb_mask_copy_if_cb0(&frame.fb, &coverage.cb, -13, 0, &back.fb, &stencil.cb, 0, BENCH_H);
        benchmark::ClobberMemory();
    }
    bench_finish(state, BENCH_W * BENCH_H, shape);
}
BENCHMARK(bench_masked_copy)->DenseRange(0, SHAPE_COUNT - 1)->Unit(benchmark::kMicrosecond);

void bench_heal(benchmark::State& state)
{
    const int shape = (int)state.range(0);
    bench_frame frame(N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8, BENCH_W, BENCH_H, BENCH_W);
    bench_frame back(N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8, BENCH_W, BENCH_H, BENCH_W);
    bench_stencil now(BENCH_W, BENCH_H), before(BENCH_W, BENCH_H);
    // the drawing moved by (5, 3) since the last frame: its trailing edges are healed
    bench_make_shape(&now, shape, 5, 3);
    bench_make_shape(&before, shape, 0, 0);
    for (auto _ : state) {
        n2d_fb_i8_copy_if_cb1_not_cb0(&frame.fb, 0, 0, &back.fb, &now.cb, &before.cb, 0, BENCH_H);
        benchmark::ClobberMemory();
    }
    bench_finish(state, BENCH_W * BENCH_H, shape);
}
BENCHMARK(bench_heal)->DenseRange(0, SHAPE_COUNT - 1)->Unit(benchmark::kMicrosecond);

void bench_background_copy(benchmark::State& state)
{
    const int shape = (int)state.range(0);
    // the video plane (320 x 240, 1024-byte rows) from a viewport into a 512 x 512 texture
    bench_frame video(N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, 320, 240, 1024);
    bench_frame texture(N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, 512, 512, 1024);
    n3d_framebuffer view = texture.fb;
    view.pixels += 40 * view.row_bytes + 2 * 60;
    bench_stencil covered(320, 240);
    bench_make_shape(&covered, shape, 0, 0);
    for (auto _ : state) {
        n2d_fb_argb1555_copy_if_not_cb0(&video.fb, 0, 0, &view, &covered.cb, 0, 240);
        benchmark::ClobberMemory();
    }
    bench_finish(state, 320 * 240, shape);
}
BENCHMARK(bench_background_copy)->DenseRange(0, SHAPE_COUNT - 1)->Unit(benchmark::kMicrosecond);

void bench_threshold_mask(benchmark::State& state)
{
    const int shape = (int)state.range(0);
    std::vector<uint8_t> texels((size_t)1024 * 512);
    uint32_t seed = 5;
    for (uint8_t& t : texels)
        t = (uint8_t)bench_random(&seed);
    void* level = texels.data();
    const n3d_texture texture = {N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8, 1, 10, 9, 10, 9, &level, 256, 32, nullptr,
                                 nullptr};
    bench_stencil shape_mask(BENCH_W, BENCH_H), out(BENCH_W, BENCH_H);
    bench_make_shape(&shape_mask, shape, 0, 0);
    for (auto _ : state) {
        n2d_cb_from_texture_i8_range(&out.cb, &shape_mask.cb, &texture, 1, 140, 0, BENCH_H);
        benchmark::ClobberMemory();
    }
    bench_finish(state, BENCH_W * BENCH_H, shape);
}
BENCHMARK(bench_threshold_mask)->DenseRange(0, SHAPE_COUNT - 1)->Unit(benchmark::kMicrosecond);

// A 256 x 256 texture with its mip chain onto the overlay: magnified to the full screen,
// minified to 120 x 100 (reads level 1), and magnified with interlace.
void bench_scaled_blit(benchmark::State& state)
{
    const int mode = (int)state.range(0);
    std::vector<std::vector<uint8_t>> levels;
    std::vector<void*> slots(n3d_mip_slot_count(8, 8, 2, 2), nullptr);
    n3d_texture texture = {N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8, 1, 8, 8, 2, 2, slots.data(), 256, 32, nullptr,
                           nullptr};
    levels.reserve(slots.size());
    uint32_t seed = 17;
    for (uint32_t w = 8; w >= 2; --w)
        for (uint32_t h = 8; h >= 2; --h) {
            levels.emplace_back((size_t)1 << (w + h));
            for (uint8_t& b : levels.back())
                b = (uint8_t)bench_random(&seed);
            slots[n3d_mip_slot(&texture, w, h)] = levels.back().data();
        }
    bench_frame frame(N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8, BENCH_W, BENCH_H, BENCH_W);
    bench_stencil coverage(BENCH_W, BENCH_H);
    n3d_framecontext fc = {0, &frame.fb, nullptr, {&coverage.cb, nullptr}};
    const float x1 = mode == 1 ? 120.0f : (float)BENCH_W, y1 = mode == 1 ? 100.0f : (float)BENCH_H;
    int parity = 0;
    for (auto _ : state) {
        n2d_blit_scaled_index8(&fc, &texture, 0.25f, 0.5f, x1, y1, 0, 0, 256, 256, mode == 2, parity, 0, BENCH_H);
        parity ^= 1;
        benchmark::ClobberMemory();
    }
    const uint64_t pixels = (uint64_t)x1 * (uint64_t)y1 / (mode == 2 ? 2 : 1);
    state.SetItemsProcessed((int64_t)state.iterations() * (int64_t)pixels);
    static const char* const labels[] = {"256x256 onto 640x480", "256x256 onto 120x100 (level 1)",
                                         "256x256 onto 640x480, interlaced (pixels written)"};
    state.SetLabel(labels[mode]);
}
BENCHMARK(bench_scaled_blit)->DenseRange(0, 2)->Unit(benchmark::kMicrosecond);

}  // namespace
