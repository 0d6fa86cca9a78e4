// The rasterizer benchmark the program runs when started with any argument: random
// triangles in a 320 x 200 area, the same sequence for every variant and target, timed for
// a fixed duration, with triangles and pixels per second printed per timed variant.
#pragma once

#include <cstdint>

#include "display.h"
#include "memarena.h"
#include "n3d.h"
#include "n3d_rasterizers.h"
#include "vmath.h"

constexpr uint64_t N3D_BENCHMARK_ARENA_SIZE = 4u << 20;
constexpr uint64_t N3D_BENCHMARK_TMP_ARENA_SIZE = 6u << 20;
constexpr uint32_t N3D_BENCHMARK_DURATION_MS = 5000;
constexpr int32_t N3D_BENCHMARK_AREA_W = 320;
constexpr int32_t N3D_BENCHMARK_AREA_H = 200;

// How long each timed variant runs. The program keeps 5000 ms; tests shorten it through the
// environment variable REEL_BENCHMARK_MS, which the driver reads.
extern uint32_t n3d_benchmark_duration_ms;

// The driver: arena, renderer, overlay made see-through, video buffers wrapped, then the run.
void n3d_benchmark(display_device* display);
// The timed part, drawing into the given video frame context and an off-screen target.
void n3d_benchmark_run(xmemarena* arena, n3d_framecontext* video);

// One variant's workload: the random sequence (seeded alike for every variant and target), the
// call it fills, and its counts. Each triangle takes nine numbers for its positions and depths
// (x0, y0, x1, y1, x2, y2, then iw0, iw1, iw2); only a triangle that faces the viewer takes its
// attributes (u, v, and for phong variants p0, p1, vertex after vertex) and is drawn.
struct n3d_benchmark_workload {
    pcg32 rng;
    uint32_t drawn, ids;
    double pixels;
    float x[3], y[3], iw[3], area;
    n3d_texture* textures[1];
    n3d_raster_call call;
};
void n3d_benchmark_workload_init(n3d_benchmark_workload* w, n3d_rasterizer_entry* e, n3d_framecontext* fc,
                                 n3d_texture* t8, n3d_texture* t16, const uint8_t* const* phong);
// The next triangle's positions, depths and twice its signed area.
void n3d_benchmark_positions(n3d_benchmark_workload* w);
// Draws the triangle of the last n3d_benchmark_positions unless it faces away; clears coverage
// and depth (as the variant reads them) before every 100th drawn triangle, the first included.
bool n3d_benchmark_draw(n3d_benchmark_workload* w);
