// Per-frame costs of the host: composing one 640 x 480 frame and decoding one second of
// music, each next to a plain memory copy of the same bytes for scale.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "display.h"
#include "music.h"

namespace {

struct bench_display {
    std::vector<uint8_t> block = std::vector<uint8_t>(2 << 20);
    xmemarena arena;
    display_device dev;
    std::vector<uint32_t> out = std::vector<uint32_t>(640 * 480);

    // overlay_mode: 0 all transparent, 1 all opaque, 2 realistic mix (text and strokes over
    // video: runs of both with ragged edges)
    explicit bench_display(int overlay_mode)
    {
        xmemarena_init(&arena, "platform_arena", block.size(), block.data());
        display_init(&dev, &arena);
        dev.set_transparent_index(&dev, 0);
        uint32_t seed = 1;
        for (uint32_t b = 0; b < 2; b++)
            for (uint32_t i = 0; i < DISPLAY_VIDEO_BUFFER_BYTES / 2; i++)
                ((uint16_t*)dev.video[b].pixels)[i] = (uint16_t)(seed = seed * 1664525u + 1013904223u);
        for (uint32_t y = 0; y < 480; y++)
            for (uint32_t x = 0; x < 640; x++) {
                seed = seed * 1664525u + 1013904223u;
                uint8_t v = 0;
                if (overlay_mode == 1)
                    v = (uint8_t)(1 + (seed >> 24) % 255);
                else if (overlay_mode == 2)
                    v = (((x / 24) + (y / 16)) % 3 == 0 || (seed >> 28) == 0) ? (uint8_t)(1 + (seed >> 24) % 200) : 0;
                dev.overlay.pixels[y * 640 + x] = v;
            }
    }
};

void bench_compose(benchmark::State& state)
{
    const int mode = (int)state.range(0);
    bench_display d(mode == 3 ? 2 : mode);
    uint8_t clut[1024];
    d.dev.get_video_clut(&d.dev, 0, 256, clut);
    uint8_t step = 0;
    for (auto _ : state) {
        if (mode == 3) {
            // a video fade: the colour table changes every frame
            clut[4 * (step++)] ^= 1;
            d.dev.set_video_clut(&d.dev, 0, 256, clut);
        }
        display_output_rgba(&d.dev, d.out.data(), 640 * 4);
        benchmark::DoNotOptimize(d.out.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed((int64_t)state.iterations() * 640 * 480 * 4);
    static const char* const labels[] = {"overlay transparent", "overlay opaque", "mixed",
                                         "mixed, video colour table changed every frame"};
    state.SetLabel(labels[mode]);
}
BENCHMARK(bench_compose)->Arg(0)->Arg(1)->Arg(2)->Arg(3)->Unit(benchmark::kMicrosecond);

void bench_memcpy_frame(benchmark::State& state)
{
    std::vector<uint32_t> src(640 * 480, 0x12345678), dst(640 * 480);
    for (auto _ : state) {
        memcpy(dst.data(), src.data(), 640 * 480 * 4);
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed((int64_t)state.iterations() * 640 * 480 * 4);
    state.SetLabel("memcpy of one composed frame (1,228,800 bytes)");
}
BENCHMARK(bench_memcpy_frame)->Unit(benchmark::kMicrosecond);

void bench_music_second(benchmark::State& state)
{
    std::vector<uint8_t> data(MUSIC_SAMPLE_RATE);
    uint32_t seed = 7;
    for (uint8_t& b : data)
        b = (uint8_t)((seed = seed * 1664525u + 1013904223u) >> 24);
    std::vector<int16_t> out(2 * MUSIC_SAMPLE_RATE);
    for (auto _ : state) {
        music_reset();
        music_prepare(0);
        music_start(data.data(), (uint32_t)data.size(), 0);
        for (uint32_t done = 0; done < MUSIC_SAMPLE_RATE; done += MUSIC_CALLBACK_FRAMES) {
            const uint32_t n = MUSIC_SAMPLE_RATE - done < MUSIC_CALLBACK_FRAMES ? MUSIC_SAMPLE_RATE - done
                                                                                : MUSIC_CALLBACK_FRAMES;
            music_mix(out.data() + 2 * done, n);
        }
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed((int64_t)state.iterations() * MUSIC_SAMPLE_RATE * 4);
    state.SetLabel("one second of stereo output (88,200 bytes)");
}
BENCHMARK(bench_music_second)->Unit(benchmark::kMicrosecond);

void bench_memcpy_music_second(benchmark::State& state)
{
    std::vector<int16_t> src(2 * MUSIC_SAMPLE_RATE, 3), dst(2 * MUSIC_SAMPLE_RATE);
    for (auto _ : state) {
        memcpy(dst.data(), src.data(), dst.size() * 2);
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed((int64_t)state.iterations() * MUSIC_SAMPLE_RATE * 4);
    state.SetLabel("memcpy of one second of output");
}
BENCHMARK(bench_memcpy_music_second)->Unit(benchmark::kMicrosecond);

}  // namespace
