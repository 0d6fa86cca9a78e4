// Frame costs of the overlay effects in time-stamp-counter cycles: run-length drawing per
// coloured pixel (long runs, and a picture of short runs), the starfield per star with the
// engine's 16,384 stars, and the heal and a stroke over the full 640 x 480 overlay per frame.
// Each benchmark reports its counter next to Google Benchmark's own time; the bars these are
// held to: at most 1 cycle per coloured pixel on long runs, 40 cycles per star, 0.3 ms a frame.
#include <benchmark/benchmark.h>

#include <cmath>
#include <string>
#include <vector>

#include "diag.h"
#include "n2d.h"
#include "reel_rle_image.h"
#include "reel_starfield.h"
#include "reel_stroke.h"
#include "rle_image_encode.h"

namespace {

constexpr int32_t BENCH_W = 640;
constexpr int32_t BENCH_H = 480;

struct bench_arena {
    std::vector<uint8_t> memory = std::vector<uint8_t>(64u << 20);
    xmemarena arena;
    bench_arena() { xmemarena_init(&arena, "bench", memory.size(), memory.data()); }
};

// Cycles of the timed loop, as "<counter>" per `units` units of an iteration: the mean, and the
// fastest iteration ("best"), which on a machine shared with other work is the one the others
// disturbed least.
template <typename F>
void bench_cycles(benchmark::State& state, const char* counter, double units, F&& body)
{
    uint64_t cycles = 0, best = UINT64_MAX;
    for (auto _ : state) {
        const uint64_t t0 = prof_cycles_now();
        body();
        const uint64_t spent = prof_cycles_now() - t0;
        cycles += spent;
        best = spent < best ? spent : best;
    }
    state.counters[counter] = (double)cycles / ((double)state.iterations() * units);
    state.counters[std::string("best ") + counter] = (double)best / units;
    state.counters["best us/frame"] = (double)best / prof_global.cycles_per_second * 1e6;
}

// A full-screen picture: long runs (bands 600 pixels wide with a transparent margin) or short
// runs (stripes of 3 pixels alternating with transparent gaps of 2).
void bench_rle(benchmark::State& state)
{
    const bool long_runs = state.range(0) != 0;
    bench_arena a;
    std::vector<uint8_t> pixels(BENCH_W * BENCH_H);
    uint64_t coloured = 0;
    for (int32_t y = 0; y < BENCH_H; y++)
        for (int32_t x = 0; x < BENCH_W; x++) {
            const bool on = long_runs ? (x >= 20 && x < 620) : (x % 5) < 3;
            pixels[y * BENCH_W + x] = on ? (uint8_t)(1 + (x / 40 + y) % 200) : 0;
            coloured += on;
        }
    n3d_framebuffer src, dst;
    n3d_framebuffer_wrap(&src, N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8, BENCH_W, BENCH_H, BENCH_W, pixels.data());
    reel_rle_image image;
    reel_rle_image_from_framebuffer(&image, &a.arena, &src, 0);
    n3d_framebuffer_init_index8(&dst, BENCH_W, BENCH_H, &a.arena);
    bench_cycles(state, "cycles/pixel", (double)coloured, [&] {
        reel_rle_image_draw(&dst, &image, 0, 0);
        benchmark::ClobberMemory();
    });
}
BENCHMARK(bench_rle)->Arg(1)->Arg(0)->ArgName("long_runs");

void bench_starfield(benchmark::State& state)
{
    bench_arena a;
    std::vector<reel_star> stars(REEL_STAR_COUNT);
    std::vector<uint8_t> entries(256 * 4);
    reel_palette palette = {0, 64, entries.data()};
    n3d_framecontext fc;
    n3d_framecontext_init(&fc, &a.arena, BENCH_W, BENCH_H, N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8,
                          N3D_FRAMECONTEXT_COVERAGE);
    reel_starfield sf;
    reel_starfield_init_i8(&sf, 14, stars.data(), 1, BENCH_W, BENCH_H, &palette, 16, 47, &a.arena);
    sf.yaw = 0.3f, sf.pitch = -0.1f;
    reel_starfield_reset_all(&sf);
    float seconds = 0.0f;
    bench_cycles(state, "cycles/star", REEL_STAR_COUNT, [&] {
        sf.camera[2] = 0.8f * seconds;  // the scene's flight, a frame at a time
        seconds += 1.0f / 60.0f;
        reel_starfield_draw_i8(&sf, &fc, nullptr);
        benchmark::ClobberMemory();
    });
}
BENCHMARK(bench_starfield);

// The heal after a frame whose drawing (a disc of radius 200) moved by 3 pixels.
void bench_heal(benchmark::State& state)
{
    bench_arena a;
    n3d_framebuffer fb, back;
    n3d_framebuffer_init_index8(&fb, BENCH_W, BENCH_H, &a.arena);
    n3d_framebuffer_init_index8(&back, BENCH_W, BENCH_H, &a.arena);
    n3d_coverage_buffer now, before;
    n3d_coverage_buffer_init(&now, BENCH_W, BENCH_H, &a.arena);
    n3d_coverage_buffer_init(&before, BENCH_W, BENCH_H, &a.arena);
    for (int32_t y = 0; y < BENCH_H; y++)
        for (int32_t x = 0; x < BENCH_W; x++) {
            const float dx = (float)x - 320.0f, dy = (float)y - 240.0f;
            if (dx * dx + dy * dy < 200.0f * 200.0f)
                now.bits[(y * BENCH_W + x) / 32] |= 0x80000000u >> (x % 32);
            if ((dx - 3) * (dx - 3) + dy * dy < 200.0f * 200.0f)
                before.bits[(y * BENCH_W + x) / 32] |= 0x80000000u >> (x % 32);
        }
    bench_cycles(state, "cycles/pixel", (double)BENCH_W * BENCH_H, [&] {
        n2d_fb_i8_copy_if_cb1_not_cb0(&fb, 0, 0, &back, &now, &before, 0, BENCH_H);
        benchmark::ClobberMemory();
    });
}
BENCHMARK(bench_heal);

// A stroke over the whole overlay: a 1024 x 512 order image of a thick spiral, revealed (draw)
// or erased at a mid level.
void bench_stroke(benchmark::State& state)
{
    const bool erase = state.range(0) != 0;
    bench_arena a;
    std::vector<uint8_t> texels(1024 * 512), tables(256 * 33);
    for (int32_t y = 0; y < 512; y++)
        for (int32_t x = 0; x < 1024; x++) {
            const float dx = (float)x - 320.0f, dy = (float)y - 240.0f, r = sqrtf(dx * dx + dy * dy);
            const float turns = (atan2f(dy, dx) + 3.1415927f) / 6.2831853f;
            const float along = fmodf(r / 40.0f - turns + 10.0f, 1.0f);
            if (x < BENCH_W && y < BENCH_H && along < 0.4f)
                texels[y * 1024 + x] = (uint8_t)(1 + fminf(254.0f, r / 400.0f * 254.0f));
        }
    void* mips[1] = {texels.data()};
    const reel_image image = {BENCH_W, BENCH_H,
                              {N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8, 1, 10, 9, 10, 9, mips, 256, 32, tables.data(),
                               tables.data() + 256}};
    reel_stroke stroke;
    reel_stroke_init(&stroke, &image, &a.arena);
    n3d_framebuffer fb, back;
    n3d_framebuffer_init_index8(&fb, BENCH_W, BENCH_H, &a.arena);
    n3d_framebuffer_init_index8(&back, BENCH_W, BENCH_H, &a.arena);
    n3d_coverage_buffer coverage;
    n3d_coverage_buffer_init(&coverage, BENCH_W, BENCH_H, &a.arena);
    bench_cycles(state, "cycles/pixel", (double)BENCH_W * BENCH_H, [&] {
        if (erase)
            reel_stroke_erase(&stroke, 128, &fb, &coverage, &back, 0, 0, 0, BENCH_H);
        else
            reel_stroke_draw(&stroke, 128, 48, &fb, &coverage, 0, 0, 0, BENCH_H);
        benchmark::ClobberMemory();
    });
}
BENCHMARK(bench_stroke)->Arg(0)->Arg(1)->ArgName("erase");

}  // namespace

// The cycle counter's rate, for the microseconds; Google Benchmark's own main runs the rest.
static const int bench_overlay_calibrated = (prof_calibrate(), 0);
