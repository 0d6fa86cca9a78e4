// The rasterizer benchmark the program runs when started with any argument: random
// triangles in a 320 x 200 area, the same sequence for every variant and target, timed for
// a fixed duration, with triangles and pixels per second printed per timed variant.
#pragma once

#include <cstdint>

#include "display.h"
#include "memarena.h"
#include "n3d.h"

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
