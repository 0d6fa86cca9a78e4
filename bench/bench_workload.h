// The rasterizer benchmark's workload, shared by the benchmarks that time it: the flare
// textures, the random triangle sequence (320 x 200 area, w between 1 and 2, phong
// coordinates in [-0.5, 0.5)), the clears every 100 triangles, and the timed loop over one
// variant.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "bitmap.h"
#include "diag.h"
#include "n3d.h"
#include "n3d_convert.h"
#include "n3d_draw.h"
#include "n3d_rasterizers.h"
#include "vmath.h"

constexpr uint64_t BENCH_SEED_STATE = 0x853c49e6748fea9bull;
constexpr uint64_t BENCH_SEED_INCREMENT = 0xda3e39cb94b95bdbull;
constexpr float BENCH_AREA_W = 320.0f;
constexpr float BENCH_AREA_H = 200.0f;
constexpr uint64_t BENCH_CLEAR_EVERY = 100;

struct bench_textures {
    n3d_texture t8;
    n3d_texture t16;
};

inline void bench_make_textures(bench_textures* t, xmemarena* arena)
{
    auto* tmp_block = (uint8_t*)malloc(6u << 20);
    xmemarena tmp;
    xmemarena_init(&tmp, "n3d_benchmark_tmp_arena", 6u << 20, tmp_block);
    bitmap* flare = bitmap_create_flare(&tmp);
    // each conversion prints its "bitmap wh: ..." line before the table
    n3d_texture_from_bitmap(&t->t8, arena, &tmp, N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555, 1, 1, 0, flare, nullptr,
                            0xFFFFFFFFu, 0.5f);
    n3d_texture_from_bitmap(&t->t16, arena, &tmp, N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, 1, 1, 0, flare,
                            nullptr, 0xFFFFFFFFu, 0.5f);
    free(tmp_block);
}

struct bench_result {
    double triangles, pixels, cycles;
    // the variant's own profile blocks over the run: set-up, row loops and spans
    double setup_cycles, row_cycles, span_cycles, spans;
};

inline void bench_reset_blocks(n3d_rasterizer_entry* e)
{
    for (n3d_rasterizer_block& b : e->blocks)
        b.cycles = 0, b.hits = 0;
}

inline bench_result bench_finish(const n3d_rasterizer_entry* e, double drawn, double pixels, double cycles)
{
    const n3d_rasterizer_block* b = e->blocks;
    return {drawn,
            pixels,
            cycles,
            (double)b[N3D_RASTERIZER_BLOCK_SETUP].cycles,
            (double)b[N3D_RASTERIZER_BLOCK_INNER_ROW].cycles,
            (double)b[N3D_RASTERIZER_BLOCK_INNER_SCANLINE].cycles,
            (double)b[N3D_RASTERIZER_BLOCK_INNER_SCANLINE].hits};
}

inline void bench_fill_call(n3d_raster_call* c, const float xs[3], const float ys[3], const float iws[3], const float attr[3][4],
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

// One triangle of the random sequence: screen positions, iw = 1/w and the per-vertex
// attributes (u, v and, for phong, p0, p1) before the division by w.
struct bench_triangle {
    float xs[3], ys[3], iws[3], attr[3][4];
    float area;  // twice the signed area; drawn when positive
};

// The next triangle of the benchmark's random sequence; false when it faces away or is
// degenerate (it then consumes no attribute numbers).
inline bool bench_next_triangle_raw(pcg32* rng, uint32_t attributes, bench_triangle* t)
{
    for (int i = 0; i < 3; i++) {
        t->xs[i] = BENCH_AREA_W * pcg32_random_float01(rng);
        t->ys[i] = BENCH_AREA_H * pcg32_random_float01(rng);
    }
    for (float& iw : t->iws)
        iw = 0.5f + 0.5f * pcg32_random_float01(rng);
    t->area = (t->xs[1] - t->xs[2]) * (t->ys[0] - t->ys[2]) - (t->xs[0] - t->xs[2]) * (t->ys[1] - t->ys[2]);
    if (!(t->area > 0.000001f))
        return false;
    for (int i = 0; i < 3; i++) {
        t->attr[i][0] = pcg32_random_float01(rng);
        t->attr[i][1] = pcg32_random_float01(rng);
        if (attributes == 4) {
            t->attr[i][2] = -0.5f + pcg32_random_float01(rng);
            t->attr[i][3] = -0.5f + pcg32_random_float01(rng);
        }
    }
    return true;
}

// The same, filled into a rasterizer call.
inline bool bench_next_triangle(pcg32* rng, n3d_raster_call* c, uint32_t attributes, float* area)
{
    bench_triangle t;
    if (!bench_next_triangle_raw(rng, attributes, &t))
        return false;
    *area = t.area;
    bench_fill_call(c, t.xs, t.ys, t.iws, t.attr, attributes);
    return true;
}

inline void bench_clear_every_100(const n3d_rasterizer_entry* e, n3d_framecontext* fc, uint64_t drawn)
{
    if (drawn % BENCH_CLEAR_EVERY == 0) {
        if (e->flags & N3D_RASTERIZER_COVERAGE_READ)
            n3d_coverage_buffer_clear(fc->coverage[0]);
        if (e->flags & N3D_RASTERIZER_ZBUFFER_READ)
            n3d_zbuffer_clear(fc->zbuffer);
    }
}

inline n3d_raster_call bench_call(n3d_rasterizer_entry* e, n3d_framecontext* fc, n3d_texture* const* tex,
                           const uint8_t* const* phong)
{
    n3d_raster_call c;
    memset(&c, 0, sizeof(c));
    c.entry = e;
    c.fc = fc;
    c.textures = tex;
    c.phong = phong;
    return c;
}

// Time in time-stamp cycles: the counter itself (wall time), or the process's processor time
// converted at the counter's rate. On a machine shared with other work the processor time
// leaves out the time other processes had the core.
inline uint64_t bench_now(bool cpu_time)
{
    if (!cpu_time)
        return prof_cycles_now();
    timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return (uint64_t)(((double)ts.tv_sec + (double)ts.tv_nsec * 1e-9) * prof_global.cycles_per_second);
}

// The benchmark's workload: the same random sequence for every variant, for a time or for a
// number of drawn triangles. With cpu_time the clock is read every 100 triangles only.
inline bench_result bench_random(n3d_rasterizer_entry* e, n3d_framecontext* fc, n3d_texture* const* tex,
                                 const uint8_t* const* phong, double seconds, uint64_t count, bool cpu_time = false)
{
    pcg32 rng = {BENCH_SEED_STATE, BENCH_SEED_INCREMENT};
    n3d_raster_call c = bench_call(e, fc, tex, phong);
    uint64_t drawn = 0;
    double pixels = 0;
    bench_reset_blocks(e);
    const uint64_t start = bench_now(cpu_time);
    const uint64_t limit = (uint64_t)(seconds * prof_global.cycles_per_second);
    for (;;) {
        if (count ? drawn >= count : ((!cpu_time || drawn % BENCH_CLEAR_EVERY == 0) && bench_now(cpu_time) - start > limit))
            break;
        float area;
        if (!bench_next_triangle(&rng, &c, e->attribute_count, &area))
            continue;
        bench_clear_every_100(e, fc, drawn);
        c.triangle_id = (uint32_t)(drawn & 0xFFF);
        e->rasterizer(&c);
        drawn++;
        pixels += 0.5 * area;
    }
    const double cycles = (double)(bench_now(cpu_time) - start);
    return bench_finish(e, (double)drawn, pixels, cycles);
}
