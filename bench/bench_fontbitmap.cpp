// The bitmap font renderer on the greetings' work: a line of text in an 18-pixel DejaVu Sans
// Bold font (made here by the font maker) drawn into the 124 x 54 ARGB1555 text panel, mostly
// clipped as a scrolling line is, and in full into the 640 x 480 index8 overlay with coverage.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "font_make.h"
#include "fontbitmap.h"
#include "prep_file.h"

namespace {

const char* const BENCH_FONT = "/usr/share/fonts/truetype/dejavu/DejaVuSans-Bold.ttf";
const char* const BENCH_LINE = "hello to everyone reading the source";

struct bench_font {
    std::vector<uint8_t> memory = std::vector<uint8_t>(64u << 20);
    xmemarena arena, tmp;
    reel_font font = {};
    bool ok = false;
    bench_font()
    {
        xmemarena_init(&arena, "bench_arena", 48u << 20, memory.data());
        xmemarena_init(&tmp, "bench_tmp", 16u << 20, memory.data() + (48u << 20));
        char why[512];
        uint64_t size = 0;
        const uint8_t* data = prep_file_read(BENCH_FONT, &arena, &size, why, sizeof(why));
        const font_make_options options = {18, FONT_MAKE_DEFAULT_FIRST, FONT_MAKE_DEFAULT_LAST, 1};
        font_make_summary summary;
        ok = data && font_make(&font, &summary, &arena, &tmp, data, size, &options, why, sizeof(why)) == 0;
    }
};

bench_font& bench_the_font()
{
    static bench_font f;
    return f;
}

// One greetings lane: the panel cleared and the line drawn at a scroll position that leaves
// about a quarter of it inside the panel.
void bench_panel_line(benchmark::State& state)
{
    bench_font& f = bench_the_font();
    if (!f.ok) {
        state.SkipWithError("needs fonts-dejavu-core");
        return;
    }
    std::vector<uint16_t> pixels(124 * 54);
    n3d_framebuffer panel;
    n3d_framebuffer_wrap(&panel, N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, 124, 54, 248, (uint8_t*)pixels.data());
    uint16_t map[256];
    for (uint32_t i = 0; i < 256; i++)
        map[i] = (uint16_t)(0x8000 | (i >> 3) * 0x421);
    for (auto _ : state) {
        memset(pixels.data(), 0, pixels.size() * 2);
        float x = -250.0f, y = 22.0f;
        fontbitmap_draw_text_argb1555(&f.font, &panel, nullptr, &x, &y, BENCH_LINE, map);
        benchmark::DoNotOptimize(pixels.data());
    }
    state.SetItemsProcessed(state.iterations() * (int64_t)strlen(BENCH_LINE));
    state.SetLabel("glyphs/s counts every character of the line");
}
BENCHMARK(bench_panel_line);

void bench_overlay_line_with_coverage(benchmark::State& state)
{
    bench_font& f = bench_the_font();
    if (!f.ok) {
        state.SkipWithError("needs fonts-dejavu-core");
        return;
    }
    std::vector<uint8_t> pixels(640 * 480);
    std::vector<uint32_t> words(640 / 32 * 480);
    n3d_framebuffer overlay;
    n3d_framebuffer_wrap(&overlay, N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8, 640, 480, 640, pixels.data());
    n3d_coverage_buffer coverage = {words.data(), 640, 480};
    uint8_t map[256];
    for (uint32_t i = 0; i < 256; i++)
        map[i] = (uint8_t)i;
    for (auto _ : state) {
        float x = 20.0f, y = 200.0f;
        fontbitmap_draw_text_i8(&f.font, &overlay, &coverage, &x, &y, BENCH_LINE, map);
        benchmark::DoNotOptimize(pixels.data());
    }
    state.SetItemsProcessed(state.iterations() * (int64_t)strlen(BENCH_LINE));
}
BENCHMARK(bench_overlay_line_with_coverage);

}  // namespace
