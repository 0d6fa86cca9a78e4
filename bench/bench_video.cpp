// Frame costs of the video-plane effects in time-stamp cycles per pixel of the 320 x 240 video
// plane: the tunnel, the background copy (no pixel covered, and half of them covered), the bump
// map (its 310 x 240 image; per drawn pixel and per plane pixel), and the tunnel table's fill at
// start-up in milliseconds. Each case runs a number of frames; "least" is the cheapest frame (a
// frame is shorter than a scheduler slice, so on a busy machine some frames still run undisturbed:
// the quiet-machine figure), "median" the middle one (what a loaded machine gives).
//
//   bench_video [frames per case, default 2000]
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "diag.h"
#include "n2d.h"
#include "n3d.h"
#include "n3d_convert.h"
#include "reel_bumpmap.h"
#include "reel_tunnel_func.h"

namespace {

constexpr int32_t BENCH_W = 320, BENCH_H = 240, BENCH_ROW_BYTES = 1024;  // the video plane's buffers
constexpr double BENCH_PIXELS = (double)BENCH_W * BENCH_H;

struct bench_frames {
    std::vector<uint64_t> cycles;
    void add(uint64_t c) { cycles.push_back(c); }
    void print(const char* name, double pixels) const
    {
        std::vector<uint64_t> sorted = cycles;
        std::sort(sorted.begin(), sorted.end());
        printf("%-34s %8.3f least  %8.3f median cycles/pixel  (%zu frames, %.0f pixels)\n", name,
               (double)sorted.front() / pixels, (double)sorted[sorted.size() / 2] / pixels, sorted.size(), pixels);
    }
};

n3d_texture* bench_texture(xmemarena* arena, N3D_TEXEL_FORMAT format, uint32_t log2_w, uint32_t log2_h)
{
    auto* t = (n3d_texture*)xmemarena_push_zero(arena, sizeof(n3d_texture));
    t->format = format, t->linear = 1, t->log2_w = t->min_log2_w = log2_w, t->log2_h = t->min_log2_h = log2_h;
    t->mips = (void**)xmemarena_push_zero(arena, sizeof(void*));
    t->mips[0] = xmemarena_push_align(arena, n3d_mipmap_size(format, 0, log2_w, log2_h), 64);
    return t;
}

void bench_random_fill(void* p, uint64_t bytes, uint32_t seed)
{
    auto* b = (uint8_t*)p;
    for (uint64_t i = 0; i < bytes; i++)
        b[i] = (uint8_t)((seed = seed * 1664525u + 1013904223u) >> 24);
}

}  // namespace

int main(int argc, char** argv)
{
    const int frames = argc > 1 ? atoi(argv[1]) : 2000;
    if (frames <= 0) {
        fprintf(stderr, "usage: bench_video [frames per case, default 2000]\n");
        return 2;
    }
    prof_calibrate();
    std::vector<uint8_t> memory(96u << 20);
    xmemarena arena;
    xmemarena_init(&arena, "bench_video", memory.size(), memory.data());
    printf("time-stamp counter: %.0f cycles per second\n", prof_global.cycles_per_second);

    // the video plane as the engine wraps it: 320 x 240 in rows of 1024 bytes, with coverage
    n3d_framebuffer fb;
    n3d_framebuffer_wrap(&fb, N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, BENCH_W, BENCH_H, BENCH_ROW_BYTES,
                         (uint8_t*)xmemarena_push_zero(&arena, (uint64_t)BENCH_ROW_BYTES * BENCH_H));
    n3d_framecontext fc;
    n3d_framecontext_init(&fc, &arena, BENCH_W, BENCH_H, N3D_TEXEL_FORMAT_NONE, N3D_FRAMECONTEXT_COVERAGE);
    fc.framebuffer = &fb;

    // the tunnel table's fill, as init step 1 makes it
    n3d_framebuffer table;
    n3d_framebuffer_init_argb1555(&table, REEL_TUNNEL_TABLE_WIDTH, REEL_TUNNEL_TABLE_HEIGHT, &arena);
    bench_frames fill;
    for (int i = 0; i < 5; i++) {
        const uint64_t t0 = prof_cycles_now();
        reel_tunnel_table_init(&table);
        fill.add(prof_cycles_since(t0));
    }
    std::sort(fill.cycles.begin(), fill.cycles.end());
    printf("%-34s %8.2f least  %8.2f median ms  (5 fills of 640 x 480)\n", "tunnel table fill",
           prof_cycles_to_ms(fill.cycles.front()), prof_cycles_to_ms(fill.cycles[2]));

    n3d_texture* map = bench_texture(&arena, N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, 8, 8);
    bench_random_fill(map->mips[0], 65536 * 2, 1);
    bench_frames tunnel;
    for (int i = 0; i < frames; i++) {
        const uint64_t t0 = prof_cycles_now();
        reel_tunnel_argb1555(&fc, map, &table, 0, 0, BENCH_W, BENCH_H, (uint8_t)(i * 3), (uint8_t)i);
        tunnel.add(prof_cycles_since(t0));
    }
    tunnel.print("tunnel", BENCH_PIXELS);

    // the background's viewport into a 1024 x 512 texture, moving one pixel per frame
    n3d_texture* wall = bench_texture(&arena, N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, 10, 9);
    bench_random_fill(wall->mips[0], 1024 * 512 * 2, 2);
    for (int covered = 0; covered < 2; covered++) {
        n3d_coverage_buffer_clear(fc.coverage[0]);
        if (covered)  // every other 32-pixel run covered: half the pixels, many short runs
            for (uint32_t w = 0; w < BENCH_W / 32 * BENCH_H; w += 2)
                fc.coverage[0]->bits[w] = 0xFFFFFFFF;
        bench_frames copy;
        for (int i = 0; i < frames; i++) {
            const int32_t x = i % 704, y = i % 272;
            n3d_framebuffer view = {wall->format, 1024, 512, 2048, (uint8_t*)wall->mips[0] + y * 2048 + x * 2};
            const uint64_t t0 = prof_cycles_now();
            n2d_fb_argb1555_copy_if_not_cb0(&fb, 0, 0, &view, fc.coverage[0], 0, BENCH_H);
            copy.add(prof_cycles_since(t0));
        }
        copy.print(covered ? "background copy, half covered" : "background copy, none covered", BENCH_PIXELS);
    }

    // the bump map as the scene draws it: 310 x 256 of 512 x 256 textures at (0, 0)
    n3d_texture* bump = bench_texture(&arena, N3D_TEXEL_FORMAT_BUMPMAP, 9, 8);
    n3d_texture* color = bench_texture(&arena, N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555, 9, 8);
    bench_random_fill(bump->mips[0], 512 * 256 * 4, 3);
    bench_random_fill(color->mips[0], 512 * 256, 4);
    color->colors_count = 256, color->shades_per_color = 32;
    color->shade_table = xmemarena_push_zero(&arena, 256 * 32 * 2);
    bench_random_fill(color->shade_table, 256 * 32 * 2, 5);
    n3d_phong_lut phong;
    n3d_phong_lut_init(&phong, &arena, 0.3f, 0);
    n3d_phong_lut_set_default(&phong);
    // the kernels the processor runs by default, then the portable ones for comparison
    for (const reel_bumpmap_kernel_set kernels : {REEL_BUMPMAP_KERNELS_AVX2, REEL_BUMPMAP_KERNELS_PORTABLE}) {
        const bool portable = reel_bumpmap_use_kernels(kernels) == REEL_BUMPMAP_KERNELS_PORTABLE;
        if (portable && kernels != REEL_BUMPMAP_KERNELS_PORTABLE)
            printf("(this processor has no AVX2 and FMA: the bump map runs its portable kernels)\n");
        bench_frames lit;
        for (int i = 0; i < frames; i++) {
            const uint64_t t0 = prof_cycles_now();
            reel_bumpmap_argb1555(&fb, (float)i / 60.0f, 0, 0, 0, 0, 310, 256, bump, color, phong.table);
            lit.add(prof_cycles_since(t0));
        }
        if (kernels == REEL_BUMPMAP_KERNELS_PORTABLE) {
            lit.print("bump map, portable, per drawn pixel", 310.0 * BENCH_H);
            continue;
        }
        lit.print("bump map, per drawn pixel", 310.0 * BENCH_H);
        lit.print("bump map, per video plane pixel", BENCH_PIXELS);
    }
    return 0;
}
