// The show's pictures made in code: its palettes and palette animations (index images with
// lists of palettes to cycle through), written as resource files that the show's pack
// manifests (show/pak*.manifest) name.
//
//   reel_showgen OUTDIR
//
// Colour index plan of the overlay: 0 is transparent (the video plane shows), 1 to 64 are
// the animated gradient the palette animations cycle, 200 is the beat ring the script pulses
// in time with the music, the rest stay black.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "display.h"
#include "memarena.h"
#include "n3d_io.h"
#include "reel.h"
#include "reel_resource.h"
#include "tool.h"

namespace {

constexpr uint32_t SHOWGEN_W = 640;
constexpr uint32_t SHOWGEN_H = 480;
constexpr uint32_t SHOWGEN_GRADIENT_FIRST = 1;
constexpr uint32_t SHOWGEN_GRADIENT_COUNT = 64;
constexpr uint32_t SHOWGEN_BEAT_INDEX = 200;
constexpr uint32_t SHOWGEN_PALETTES = 16;  // one full cycle of the gradient

const char SHOWGEN_USAGE[] =
    "usage: reel_showgen OUTDIR\n"
    "Writes the show's palettes and palette animations into OUTDIR (created if needed).\n";
const tool_info SHOWGEN_TOOL = {"reel_showgen", SHOWGEN_USAGE};

struct showgen_rgb {
    float r, g, b;
};

// A closed gradient through a few key colours, sampled at t in [0, 1).
showgen_rgb showgen_gradient(const showgen_rgb* keys, uint32_t key_count, float t)
{
    const float x = t * (float)key_count;
    const uint32_t i = (uint32_t)x % key_count;
    const float f = x - floorf(x);
    const float s = f * f * (3.0f - 2.0f * f);  // eased between keys
    const showgen_rgb a = keys[i], b = keys[(i + 1) % key_count];
    return {a.r + (b.r - a.r) * s, a.g + (b.g - a.g) * s, a.b + (b.b - a.b) * s};
}

void showgen_entry(uint8_t* e, showgen_rgb c)
{
    e[0] = (uint8_t)fminf(255.0f, fmaxf(0.0f, c.r * 255.0f + 0.5f));
    e[1] = (uint8_t)fminf(255.0f, fmaxf(0.0f, c.g * 255.0f + 0.5f));
    e[2] = (uint8_t)fminf(255.0f, fmaxf(0.0f, c.b * 255.0f + 0.5f));
    e[3] = 255;
}

// Palette k of an animation: the gradient rotated by k / SHOWGEN_PALETTES of a turn.
void showgen_cycle_palettes(reel_palette* palettes, xmemarena* arena, const showgen_rgb* keys, uint32_t key_count)
{
    for (uint32_t k = 0; k < SHOWGEN_PALETTES; k++) {
        reel_palette* p = &palettes[k];
        p->first = SHOWGEN_GRADIENT_FIRST;
        p->count = SHOWGEN_GRADIENT_COUNT;
        p->entries = (uint8_t*)xmemarena_push(arena, SHOWGEN_GRADIENT_COUNT * 4);
        for (uint32_t j = 0; j < SHOWGEN_GRADIENT_COUNT; j++) {
            const float t = fmodf((float)j / SHOWGEN_GRADIENT_COUNT + (float)k / SHOWGEN_PALETTES, 1.0f);
            showgen_entry(p->entries + 4 * j, showgen_gradient(keys, key_count, t));
        }
    }
}

// A resource file: the byte-order marker, then the block.
void showgen_write(const char* dir, const char* file, const uint8_t* begin, const uint8_t* end)
{
    char path[TOOL_PATH_MAX];
    tool_join_path(path, dir, file);
    uint8_t marker[4];
    stream_write_u32(marker, BYTE_ORDER_MARKER, BYTE_ORDER_NATIVE);
    tool_write_file(path, marker, sizeof(marker), begin, (size_t)(end - begin));
    printf("wrote %llu bytes to \"%s\"\n", (unsigned long long)(end - begin), path);
}

void showgen_write_palette(const char* dir, const char* file, const reel_palette* palette, xmemarena* arena)
{
    const uint64_t mark = xmemarena_get_sp(arena);
    auto* block = (uint8_t*)xmemarena_push(arena, reel_palette_write_size(palette));
    uint8_t* end = reel_palette_write(block, palette, BYTE_ORDER_NATIVE);
    showgen_write(dir, file, block, end);
    xmemarena_set_sp(arena, mark);
}

void showgen_write_animation(const char* dir, const char* file, const reel_palette_animation* animation,
                             xmemarena* arena)
{
    const uint64_t mark = xmemarena_get_sp(arena);
    auto* block = (uint8_t*)xmemarena_push(arena, reel_palette_animation_write_size(animation));
    uint8_t* end = reel_palette_animation_write(block, animation, BYTE_ORDER_NATIVE);
    showgen_write(dir, file, block, end);
    xmemarena_set_sp(arena, mark);
}

// The base colour table: black, the first gradient, a grey ramp, a white beat ring.
void showgen_base_palette(const char* dir, xmemarena* arena, const showgen_rgb* keys, uint32_t key_count)
{
    reel_palette p = {0, DISPLAY_CLUT_ENTRIES, (uint8_t*)xmemarena_push_zero(arena, DISPLAY_CLUT_ENTRIES * 4)};
    for (uint32_t i = 0; i < DISPLAY_CLUT_ENTRIES; i++) {
        showgen_rgb c = {0, 0, 0};
        if (i >= SHOWGEN_GRADIENT_FIRST && i < SHOWGEN_GRADIENT_FIRST + SHOWGEN_GRADIENT_COUNT)
            c = showgen_gradient(keys, key_count, (float)(i - SHOWGEN_GRADIENT_FIRST) / SHOWGEN_GRADIENT_COUNT);
        else if (i == SHOWGEN_BEAT_INDEX)
            c = {1, 1, 1};
        else if (i > SHOWGEN_GRADIENT_FIRST + SHOWGEN_GRADIENT_COUNT && i < SHOWGEN_BEAT_INDEX)
            c.r = c.g = c.b = (float)(i - 65) / 134.0f;
        showgen_entry(p.entries + 4 * i, c);
    }
    showgen_write_palette(dir, "base.pal", &p, arena);
}

// Concentric rings around the centre, transparent outside, with the beat ring around them.
void showgen_rings(const char* dir, xmemarena* arena, const showgen_rgb* keys, uint32_t key_count)
{
    reel_palette_animation a = {SHOWGEN_W, SHOWGEN_H, SHOWGEN_PALETTES,
                                (uint8_t*)xmemarena_push(arena, SHOWGEN_W * SHOWGEN_H), nullptr};
    a.palettes = (reel_palette*)xmemarena_push(arena, sizeof(reel_palette) * SHOWGEN_PALETTES);
    for (uint32_t y = 0; y < SHOWGEN_H; y++)
        for (uint32_t x = 0; x < SHOWGEN_W; x++) {
            const float dx = (float)x - 320.0f + 0.5f, dy = ((float)y - 240.0f + 0.5f) * 1.05f;
            const float d = sqrtf(dx * dx + dy * dy);
            const float angle = atan2f(dy, dx);
            uint8_t index = 0;
            if (d < 200.0f) {
                // rings that twist a little with the angle, so the cycling reads as a spiral
                const float phase = d / 200.0f * 3.0f + angle / (2.0f * (float)M_PI);
                index = (uint8_t)(SHOWGEN_GRADIENT_FIRST + (uint32_t)(fmodf(phase + 10.0f, 1.0f) * SHOWGEN_GRADIENT_COUNT) %
                                                               SHOWGEN_GRADIENT_COUNT);
            } else if (d >= 212.0f && d < 220.0f) {
                index = SHOWGEN_BEAT_INDEX;
            }
            a.pixels[y * SHOWGEN_W + x] = index;
        }
    showgen_cycle_palettes(a.palettes, arena, keys, key_count);
    showgen_write_animation(dir, "rings.pan", &a, arena);
}

// A full-screen plasma with a transparent window in the middle and the beat ring around it.
void showgen_plasma(const char* dir, xmemarena* arena, const showgen_rgb* keys, uint32_t key_count)
{
    reel_palette_animation a = {SHOWGEN_W, SHOWGEN_H, SHOWGEN_PALETTES,
                                (uint8_t*)xmemarena_push(arena, SHOWGEN_W * SHOWGEN_H), nullptr};
    a.palettes = (reel_palette*)xmemarena_push(arena, sizeof(reel_palette) * SHOWGEN_PALETTES);
    for (uint32_t y = 0; y < SHOWGEN_H; y++)
        for (uint32_t x = 0; x < SHOWGEN_W; x++) {
            const float fx = (float)x / 640.0f, fy = (float)y / 480.0f;
            const float v = sinf(fx * 9.0f) + sinf(fy * 7.0f + fx * 3.0f) + sinf(sqrtf((fx - 0.5f) * (fx - 0.5f) * 60.0f +
                                                                                       (fy - 0.4f) * (fy - 0.4f) * 40.0f) * 5.0f);
            const float dx = (float)x - 320.0f, dy = (float)y - 240.0f;
            const float box = fmaxf(fabsf(dx) / 1.333f, fabsf(dy));
            uint8_t index;
            if (box < 100.0f)
                index = 0;
            else if (box < 108.0f)
                index = SHOWGEN_BEAT_INDEX;
            else
                index = (uint8_t)(SHOWGEN_GRADIENT_FIRST +
                                  (uint32_t)((v + 3.0f) / 6.0f * 2.0f * SHOWGEN_GRADIENT_COUNT) % SHOWGEN_GRADIENT_COUNT);
            a.pixels[y * SHOWGEN_W + x] = index;
        }
    showgen_cycle_palettes(a.palettes, arena, keys, key_count);
    showgen_write_animation(dir, "plasma.pan", &a, arena);
}

}  // namespace

int main(int argc, char** argv)
{
    tool_begin(&SHOWGEN_TOOL, argc, argv);
    const char* dir = tool_one_operand(argc, argv, "output folder");
    tool_make_dir(dir);
    static uint8_t block[8u << 20];
    xmemarena arena;
    xmemarena_init(&arena, "reel_showgen", sizeof(block), block);

    // warm sunset colours for the rings, cold blues and violets for the plasma
    static const showgen_rgb warm[] = {{1.0f, 0.85f, 0.3f}, {1.0f, 0.4f, 0.1f}, {0.6f, 0.05f, 0.3f}, {0.15f, 0.0f, 0.25f},
                                       {0.9f, 0.2f, 0.2f}};
    static const showgen_rgb cold[] = {{0.05f, 0.1f, 0.4f}, {0.1f, 0.6f, 0.9f}, {0.9f, 0.95f, 1.0f}, {0.5f, 0.2f, 0.9f},
                                       {0.1f, 0.0f, 0.3f}};
    showgen_base_palette(dir, &arena, warm, sizeof(warm) / sizeof(warm[0]));
    showgen_rings(dir, &arena, warm, sizeof(warm) / sizeof(warm[0]));
    xmemarena_reset(&arena);
    showgen_plasma(dir, &arena, cold, sizeof(cold) / sizeof(cold[0]));
    return 0;
}
