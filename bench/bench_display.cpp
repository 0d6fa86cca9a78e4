// Composition of the two display planes into the 640 x 480 32-bit output, against a
// cache-hot copy of that output, for each kind of overlay: wholly transparent (video only),
// wholly opaque, every pixel a coin toss, and runs of 13 alternating transparent, opaque and
// mixed (text and strokes over video). Each figure is the least of many frames (on a shared
// machine the least disturbed one), in time-stamp cycles per frame; the ratio is to the copy.
//
//   bench_display [FRAMES per figure, default 300]
#include <cstdio>
#include <cstring>
#include <vector>

#include "diag.h"
#include "display.h"
#include "tool.h"

namespace {

constexpr uint32_t BENCH_OUT_BYTES = DISPLAY_OUTPUT_WIDTH * DISPLAY_OUTPUT_HEIGHT * 4;

template <typename F>
double bench_least_cycles(uint32_t frames, F&& body)
{
    uint64_t least = UINT64_MAX;
    for (uint32_t i = 0; i < frames; i++) {
        const uint64_t t0 = prof_cycles_now();
        body();
        const uint64_t spent = prof_cycles_now() - t0;
        least = spent < least ? spent : least;
    }
    return (double)least;
}

uint32_t bench_random_next(uint32_t* seed)
{
    *seed = *seed * 1664525u + 1013904223u;
    return *seed >> 8;
}

}  // namespace

int main(int argc, char** argv)
{
    static const tool_info bench_tool = {
        "bench_display",
        "usage: bench_display [FRAMES]\n"
        "Times the composition of each overlay kind against a copy of the 640 x 480 32-bit output.\n"
        "  FRAMES  frames per figure, the least is printed (1 to 100000, default 300)\n"};
    tool_begin(&bench_tool, argc, argv);
    if (argc > 2)
        tool_usage_error("at most one argument");
    const uint32_t frames = argc > 1 ? (uint32_t)tool_parse_u64("FRAMES", argv[1], 1, 100000) : 300;
    prof_init();
    static uint8_t block[4u << 20];
    xmemarena arena;
    xmemarena_init(&arena, "bench_display", sizeof(block), block);
    display_device dev;
    display_init(&dev, &arena);

    uint32_t seed = 1;
    uint8_t clut[1024];
    for (uint8_t& c : clut)
        c = (uint8_t)bench_random_next(&seed);
    dev.set_overlay_clut(&dev, 0, 256, clut);
    dev.set_transparent_index(&dev, 0);
    for (const display_plane& v : dev.video)
        for (uint32_t i = 0; i < DISPLAY_VIDEO_BUFFER_BYTES; i++)
            v.pixels[i] = (uint8_t)bench_random_next(&seed);

    std::vector<uint32_t> src(BENCH_OUT_BYTES / 4, 0x12345678u), out(BENCH_OUT_BYTES / 4);
    const double copy = bench_least_cycles(frames, [&] {
        memcpy(out.data(), src.data(), BENCH_OUT_BYTES);
        __asm__ volatile("" : : "r"(out.data()) : "memory");
    });
    printf("time-stamp counter: %.0f cycles/s; least of %u frames\n", prof_global.cycles_per_second, frames);
    printf("%-34s %12s %8s %6s\n", "", "cycles/frame", "cyc/px", "x copy");
    printf("%-34s %12.0f %8.3f %6.2f\n", "copy of the 640x480 output", copy, copy / (640.0 * 480.0), 1.0);

    const char* const kinds[] = {"transparent", "opaque", "coin toss", "runs of 13"};
    for (display_kernels k : {DISPLAY_KERNELS_PORTABLE, DISPLAY_KERNELS_BEST}) {
        if (display_use_kernels(k) != k)
            continue;
        for (uint32_t kind = 0; kind < 4; kind++) {
            uint8_t* op = dev.overlay.pixels;
            for (uint32_t i = 0; i < DISPLAY_OVERLAY_PITCH * DISPLAY_OVERLAY_HEIGHT; i++) {
                const uint8_t colour = (uint8_t)(1 + bench_random_next(&seed) % 255);
                const uint32_t run = (i / 13) % 3;
                const bool coin = bench_random_next(&seed) & 1;
                op[i] = kind == 0 ? 0
                        : kind == 1 ? colour
                        : kind == 2 ? (coin ? colour : 0)
                                    : (run == 0 ? 0 : run == 1 ? colour : (coin ? colour : 0));
            }
            const double cycles = bench_least_cycles(frames, [&] {
                display_output_rgba(&dev, out.data(), DISPLAY_OUTPUT_WIDTH * 4);
                __asm__ volatile("" : : "r"(out.data()) : "memory");
            });
            char label[64];
            snprintf(label, sizeof(label), "%s, %s", k == DISPLAY_KERNELS_PORTABLE ? "portable" : "AVX-512", kinds[kind]);
            printf("%-34s %12.0f %8.3f %6.2f\n", label, cycles, cycles / (640.0 * 480.0), cycles / copy);
        }
    }
    return 0;
}
