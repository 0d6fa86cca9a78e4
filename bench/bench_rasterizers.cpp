// Rasterizer throughput: every variant on the benchmark's random-triangle workload (random
// triangles in a 320 x 200 area, w between 1 and 2, coverage and depth cleared every 100
// triangles), and the fill cost on large triangles with the set-up amortised. Prints
// triangles/s, pixels/s and time-stamp cycles per pixel.
//
//   bench_rasterizers [seconds per variant, default 1] [variant name filter] [triangle count]
//                     [kernels: 0 portable, 1 AVX2, 2 AVX-512; default the best there is]
// With a triangle count (0: none) the random workload stops after that many drawn triangles
// instead of after the time (for instruction counting under callgrind), and the pixel count
// is printed. For the random workload the variant's own profile blocks split the cycles per
// pixel into set-up, edge walking and spans (a span's time includes the edge step before it).
// The "least" column is robust on a busy machine: the workload's first 2000 triangles drawn
// 7 times, each triangle counted at the least it took.
#include "bench_workload.h"
#include "tool.h"

namespace {

// The first `count` triangles of the workload drawn `passes` times, each pass from the same
// cleared state; a triangle's cost is the least it took in any pass, so that time lost to
// other processes on a busy machine does not count. Returns cycles per pixel.
double bench_random_least(n3d_rasterizer_entry* e, n3d_framecontext* fc, n3d_texture* const* tex,
                          const uint8_t* const* phong, uint32_t count, uint32_t passes)
{
    auto* calls = (n3d_raster_call*)malloc(count * sizeof(n3d_raster_call));
    auto* least = (uint64_t*)malloc(count * sizeof(uint64_t));
    pcg32 rng = {BENCH_SEED_STATE, BENCH_SEED_INCREMENT};
    double pixels = 0;
    for (uint32_t i = 0; i < count;) {
        float area;
        calls[i] = bench_call(e, fc, tex, phong);
        if (!bench_next_triangle(&rng, &calls[i], e->attribute_count, &area))
            continue;
        calls[i].triangle_id = i & 0xFFF;
        least[i] = UINT64_MAX;
        pixels += 0.5 * area;
        i++;
    }
    for (uint32_t pass = 0; pass < passes; pass++) {
        n3d_framebuffer_clear(fc->framebuffer);
        for (uint32_t i = 0; i < count; i++) {
            bench_clear_every_100(e, fc, i);
            const uint64_t start = prof_cycles_now();
            e->rasterizer(&calls[i]);
            const uint64_t took = prof_cycles_since(start);
            least[i] = took < least[i] ? took : least[i];
        }
    }
    double cycles = 0;
    for (uint32_t i = 0; i < count; i++)
        cycles += (double)least[i];
    free(calls);
    free(least);
    return cycles / pixels;
}

// Fill cost: two triangles covering the 320 x 200 area, drawn over and over.
bench_result bench_large(n3d_rasterizer_entry* e, n3d_framecontext* fc, n3d_texture* const* tex,
                         const uint8_t* const* phong, double seconds)
{
    n3d_raster_call c = bench_call(e, fc, tex, phong);
    // wound so that twice the signed area is positive (the drawn winding)
    const float quads[2][3][2] = {{{0, 0}, {0, 200}, {320, 0}}, {{320, 0}, {0, 200}, {320, 200}}};
    const float uv[2][3][4] = {{{0, 0, -0.5f, -0.5f}, {0, 1, -0.5f, 0.5f}, {1, 0, 0.5f, -0.5f}},
                               {{1, 0, 0.5f, -0.5f}, {0, 1, -0.5f, 0.5f}, {1, 1, 0.5f, 0.5f}}};
    const float iws[2][3] = {{1.0f, 0.8f, 0.6f}, {0.6f, 0.8f, 0.5f}};
    uint64_t drawn = 0;
    double pixels = 0;
    bench_reset_blocks(e);
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
    return bench_finish(e, (double)drawn, pixels, (double)prof_cycles_since(start));
}

}  // namespace

int main(int argc, char** argv)
{
    static const tool_info bench_tool = {
        "bench_rasterizers",
        "usage: bench_rasterizers [SECONDS] [FILTER] [TRIANGLES] [KERNELS]\n"
        "Times every rasterizer variant whose name contains FILTER on random and on large triangles.\n"
        "  SECONDS    per variant and workload, more than 0 and at most 600 (default 1)\n"
        "  TRIANGLES  stop the random workload after this many triangles instead (0: by time)\n"
        "  KERNELS    0 portable span kernels, 1 AVX2, 2 AVX-512 (default: the best there is)\n"};
    tool_begin(&bench_tool, argc, argv);
    if (argc > 5)
        tool_usage_error("at most four arguments");
    // a mistyped argument is refused before anything runs, rather than read as 0 or a huge time
    const double seconds = argc > 1 ? tool_parse_double("SECONDS", argv[1], 1e-3, 600.0) : 1.0;
    const char* filter = argc > 2 ? argv[2] : nullptr;
    const uint64_t count = argc > 3 ? tool_parse_u64("TRIANGLES", argv[3], 0, UINT32_MAX) : 0;
    const uint32_t wanted =
        argc > 4 ? (uint32_t)tool_parse_u64("KERNELS", argv[4], N3D_RASTER_KERNELS_PORTABLE, N3D_RASTER_KERNELS_BEST)
                 : N3D_RASTER_KERNELS_BEST;
    prof_init();
    static uint8_t block[24u << 20];
    xmemarena arena;
    xmemarena_init(&arena, "bench_rasterizers", sizeof(block), block);
    n3d_init(&arena);
    const n3d_raster_kernels kernels = n3d_raster_use_kernels((n3d_raster_kernels)wanted);
    n3d_framecontext fc;
    n3d_framecontext_init(&fc, &arena, 320, 240, N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555,
                          N3D_FRAMECONTEXT_COVERAGE | N3D_FRAMECONTEXT_ZBUFFER);
    bench_textures textures;
    bench_make_textures(&textures, &arena);
    const uint8_t* phong_table = n3d_phong_lut_alloc(&arena, 0.5f, 1);
    n3d_texture* t8[1] = {&textures.t8};
    n3d_texture* t16[1] = {&textures.t16};

    printf("time-stamp counter: %.0f cycles/s; %.1f s per variant and workload; %s span kernels\n",
           prof_global.cycles_per_second, seconds, n3d_raster_kernels_name(kernels));
    printf("%-88s %10s %11s %6s %6s | %5s %5s %5s %6s | %6s\n",
           "variant (random triangles in 320x200 | large triangles)", "tris/s", "pixels/s", "cyc/px", "least", "setup",
           "edges", "spans", "px/spn", "cyc/px");
    for (uint32_t i = 0; i < n3d_rasterizer_table_count; i++) {
        n3d_rasterizer_entry* e = &n3d_rasterizer_table[i];
        if (filter && !strstr(e->name, filter))
            continue;
        n3d_texture* const* tex = (e->flags & N3D_RASTERIZER_T0_I8ARGB1555) ? t8 : t16;
        n3d_framebuffer_clear(fc.framebuffer);
        const bench_result r = bench_random(e, &fc, tex, &phong_table, seconds, count);
        const bench_result l = count ? r : bench_large(e, &fc, tex, &phong_table, seconds / 2);
        const double least = count ? r.cycles / r.pixels : bench_random_least(e, &fc, tex, &phong_table, 2000, 7);
        const double s = r.cycles / prof_global.cycles_per_second;
        printf("%-88s %10.0f %11.0f %6.2f %6.2f | %5.2f %5.2f %5.2f %6.1f | %6.2f\n", e->name, r.triangles / s,
               r.pixels / s, r.cycles / r.pixels, least, r.setup_cycles / r.pixels,
               (r.row_cycles - r.span_cycles) / r.pixels, r.span_cycles / r.pixels, r.pixels / r.spans,
               l.cycles / l.pixels);
        if (count)
            printf("%.0f triangles, %.0f pixels\n", r.triangles, r.pixels);
    }
    return 0;
}
