// Rasterizer throughput: every variant on the benchmark's random-triangle workload (random
// triangles in a 320 x 200 area, w between 1 and 2, coverage and depth cleared every 100
// triangles), and the fill cost on large triangles with the set-up amortised. Prints
// triangles/s, pixels/s and time-stamp cycles per pixel.
//
//   bench_rasterizers [seconds per variant, default 1] [variant name filter] [triangle count]
// With a triangle count the random workload stops after that many drawn triangles instead of
// after the time (for instruction counting under callgrind).
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bitmap.h"
#include "diag.h"
#include "n3d.h"
#include "n3d_convert.h"
#include "n3d_draw.h"
#include "n3d_rasterizers.h"
#include "vmath.h"

namespace {

struct bench_textures {
    n3d_texture t8;
    n3d_texture t16;
};

void bench_make_textures(bench_textures* t, xmemarena* arena)
{
    auto* tmp_block = (uint8_t*)malloc(6u << 20);
    xmemarena tmp;
    xmemarena_init(&tmp, "n3d_benchmark_tmp_arena", 6u << 20, tmp_block);
    bitmap* flare = bitmap_create_flare(&tmp);
    // conversion logs go to stdout; keep the benchmark's table readable
    fflush(stdout);
    FILE* saved = stdout;
    stdout = fopen("/dev/null", "w");
    n3d_texture_from_bitmap(&t->t8, arena, &tmp, N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555, 1, 1, 0, flare, nullptr,
                            0xFFFFFFFFu, 0.5f);
    n3d_texture_from_bitmap(&t->t16, arena, &tmp, N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, 1, 1, 0, flare,
                            nullptr, 0xFFFFFFFFu, 0.5f);
    fclose(stdout);
    stdout = saved;
    free(tmp_block);
}

struct bench_result {
    double triangles, pixels, cycles;
};

void bench_fill_call(n3d_raster_call* c, const float xs[3], const float ys[3], const float iws[3], const float attr[3][4],
                     uint32_t attributes)
{
    const float x0 = xs[0], y0 = ys[0], x1 = xs[1], y1 = ys[1], x2 = xs[2], y2 = ys[2];
    const float area = (x1 - x2) * (y0 - y2) - (x0 - x2) * (y1 - y2);
    float values[3][5];
    for (int i = 0; i < 3; i++) {
        c->vertices[i][0] = xs[i];
        c->vertices[i][1] = ys[i];
        c->vertices[i][2] = iws[i];
        for (uint32_t a = 0; a < attributes; a++) {
            c->vertices[i][3 + a] = attr[i][a] * iws[i];
            values[i][a] = attr[i][a] * iws[i];
        }
        values[i][attributes] = iws[i];
    }
    const float rcp = 1.0f / area;
    for (uint32_t a = 0; a <= attributes; a++) {
        c->grad_x[a] = ((values[1][a] - values[2][a]) * (y0 - y2) - (values[0][a] - values[2][a]) * (y1 - y2)) * rcp;
        c->grad_y[a] = ((values[1][a] - values[2][a]) * (x0 - x2) - (values[0][a] - values[2][a]) * (x1 - x2)) * -rcp;
    }
    c->area = area;
    float max_iw = iws[0] > iws[1] ? iws[0] : iws[1];
    max_iw = max_iw > iws[2] ? max_iw : iws[2];
    c->depth_norm = 1.0f / max_iw;
}

// The benchmark's workload: the same random sequence for every variant.
bench_result bench_random(n3d_rasterizer_entry* e, n3d_framecontext* fc, n3d_texture* const* tex,
                          const uint8_t* const* phong, double seconds, uint64_t count)
{
    pcg32 rng = {0x853c49e6748fea9bull, 0xda3e39cb94b95bdbull};
    n3d_raster_call c;
    memset(&c, 0, sizeof(c));
    c.entry = e;
    c.fc = fc;
    c.textures = tex;
    c.phong = phong;
    const uint32_t attributes = e->attribute_count;
    uint64_t drawn = 0;
    double pixels = 0;
    const uint64_t start = prof_cycles_now();
    const uint64_t limit = (uint64_t)(seconds * prof_global.cycles_per_second);
    for (;;) {
        float xs[3], ys[3], iws[3], attr[3][4];
        for (int i = 0; i < 3; i++) {
            xs[i] = 320.0f * pcg32_random_float01(&rng);
            ys[i] = 200.0f * pcg32_random_float01(&rng);
        }
        for (float& iw : iws)
            iw = 0.5f + 0.5f * pcg32_random_float01(&rng);
        const float area = (xs[1] - xs[2]) * (ys[0] - ys[2]) - (xs[0] - xs[2]) * (ys[1] - ys[2]);
        if (count ? drawn >= count : prof_cycles_since(start) > limit)
            break;
        if (!(area > 0.000001f))
            continue;
        if (drawn % 100 == 0) {
            if (e->flags & N3D_RASTERIZER_COVERAGE_READ)
                n3d_coverage_buffer_clear(fc->coverage[0]);
            if (e->flags & N3D_RASTERIZER_ZBUFFER_READ)
                n3d_zbuffer_clear(fc->zbuffer);
        }
        for (int i = 0; i < 3; i++) {
            attr[i][0] = pcg32_random_float01(&rng);
            attr[i][1] = pcg32_random_float01(&rng);
            if (attributes == 4) {
                attr[i][2] = -0.5f + pcg32_random_float01(&rng);
                attr[i][3] = -0.5f + pcg32_random_float01(&rng);
            }
        }
        bench_fill_call(&c, xs, ys, iws, attr, attributes);
        c.triangle_id = (uint32_t)(drawn & 0xFFF);
        e->rasterizer(&c);
        drawn++;
        pixels += 0.5 * area;
    }
    const double cycles = (double)prof_cycles_since(start);
    return {(double)drawn, pixels, cycles};
}

// Fill cost: two triangles covering the 320 x 200 area, drawn over and over.
bench_result bench_large(n3d_rasterizer_entry* e, n3d_framecontext* fc, n3d_texture* const* tex,
                         const uint8_t* const* phong, double seconds)
{
    n3d_raster_call c;
    memset(&c, 0, sizeof(c));
    c.entry = e;
    c.fc = fc;
    c.textures = tex;
    c.phong = phong;
    // wound so that twice the signed area is positive (the drawn winding)
    const float quads[2][3][2] = {{{0, 0}, {0, 200}, {320, 0}}, {{320, 0}, {0, 200}, {320, 200}}};
    const float uv[2][3][4] = {{{0, 0, -0.5f, -0.5f}, {0, 1, -0.5f, 0.5f}, {1, 0, 0.5f, -0.5f}},
                               {{1, 0, 0.5f, -0.5f}, {0, 1, -0.5f, 0.5f}, {1, 1, 0.5f, 0.5f}}};
    const float iws[2][3] = {{1.0f, 0.8f, 0.6f}, {0.6f, 0.8f, 0.5f}};
    uint64_t drawn = 0;
    double pixels = 0;
    const uint64_t start = prof_cycles_now();
    const uint64_t limit = (uint64_t)(seconds * prof_global.cycles_per_second);
    while (prof_cycles_since(start) < limit) {
        for (int q = 0; q < 2; q++) {
            float xs[3], ys[3];
            for (int i = 0; i < 3; i++)
                xs[i] = quads[q][i][0], ys[i] = quads[q][i][1];
            if (e->flags & N3D_RASTERIZER_COVERAGE_READ)
                n3d_coverage_buffer_clear(fc->coverage[0]);
            if (e->flags & N3D_RASTERIZER_ZBUFFER_READ)
                n3d_zbuffer_clear(fc->zbuffer);
            bench_fill_call(&c, xs, ys, iws[q], uv[q], e->attribute_count);
            e->rasterizer(&c);
            drawn++;
            pixels += 0.5 * c.area;
        }
    }
    return {(double)drawn, pixels, (double)prof_cycles_since(start)};
}

}  // namespace

int main(int argc, char** argv)
{
    const double seconds = argc > 1 ? atof(argv[1]) : 1.0;
    const char* filter = argc > 2 ? argv[2] : nullptr;
    const uint64_t count = argc > 3 ? strtoull(argv[3], nullptr, 10) : 0;
    prof_init();
    static uint8_t block[24u << 20];
    xmemarena arena;
    xmemarena_init(&arena, "bench_rasterizers", sizeof(block), block);
    n3d_init(&arena);
    n3d_framecontext fc;
    n3d_framecontext_init(&fc, &arena, 320, 240, N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555,
                          N3D_FRAMECONTEXT_COVERAGE | N3D_FRAMECONTEXT_ZBUFFER);
    bench_textures textures;
    bench_make_textures(&textures, &arena);
    const uint8_t* phong_table = n3d_phong_lut_alloc(&arena, 0.5f, 1);
    n3d_texture* t8[1] = {&textures.t8};
    n3d_texture* t16[1] = {&textures.t16};

    printf("time-stamp counter: %.0f cycles/s; %.1f s per variant and workload\n", prof_global.cycles_per_second,
           seconds);
    printf("%-88s %12s %14s %8s | %8s\n", "variant (random triangles in 320x200 | large triangles)", "tris/s",
           "pixels/s", "cyc/px", "cyc/px");
    for (uint32_t i = 0; i < n3d_rasterizer_table_count; i++) {
        n3d_rasterizer_entry* e = &n3d_rasterizer_table[i];
        if (filter && !strstr(e->name, filter))
            continue;
        n3d_texture* const* tex = (e->flags & N3D_RASTERIZER_T0_I8ARGB1555) ? t8 : t16;
        n3d_framebuffer_clear(fc.framebuffer);
        const bench_result r = bench_random(e, &fc, tex, &phong_table, seconds, count);
        const bench_result l = count ? r : bench_large(e, &fc, tex, &phong_table, seconds / 2);
        const double s = r.cycles / prof_global.cycles_per_second;
        printf("%-88s %12.0f %14.0f %8.2f | %8.2f\n", e->name, r.triangles / s, r.pixels / s, r.cycles / r.pixels,
               l.cycles / l.pixels);
    }
    return 0;
}
