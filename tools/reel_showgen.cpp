// The show's pictures made in code. Written as resource files: the palette example's base
// palette and palette animations (rings, plasma), and the show's overlay colour table and its two
// palette animations (aurora, frame). Written as PNG files for the preparation tools, which the
// build turns into the resources the show's pack manifests (show/pak*.manifest) name: indexed
// pictures over the show's colour table (title and credits, their reveal frames, the star mask,
// the climax's wave stencils, the load bar's head, the orb), RGBA pictures for the stroke maker
// (the pen's words) and for the video-plane effects (the tunnel's colour map, the relief that is
// bump-mapped, its window).
//
//   reel_showgen [--font FONT.ttf] OUTDIR
//
// Colour index plan of the palette example: 0 is transparent (the video plane shows), 1 to 64
// are the animated gradient the palette animations cycle, 200 is the beat ring, the rest black.
// The show's own plan is SHOW_* below.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bitmap.h"
#include "display.h"
#include "font_make.h"
#include "memarena.h"
#include "n3d_io.h"
#include "reel.h"
#include "overlay_prep.h"
#include "prep_file.h"
#include "reel_resource.h"
#include "show_art.h"
#include "tool.h"

namespace {

constexpr uint32_t SHOWGEN_W = 640;
constexpr uint32_t SHOWGEN_H = 480;
constexpr uint32_t SHOWGEN_GRADIENT_FIRST = 1;
constexpr uint32_t SHOWGEN_GRADIENT_COUNT = 64;
constexpr uint32_t SHOWGEN_BEAT_INDEX = 200;
constexpr uint32_t SHOWGEN_PALETTES = 16;  // one full cycle of the gradient
#define SHOWGEN_DEFAULT_FONT "/usr/share/fonts/truetype/dejavu/DejaVuSans-Bold.ttf"

const char SHOWGEN_USAGE[] =
    "usage: reel_showgen [--font FONT.ttf] OUTDIR\n"
    "Writes the show's palettes and palette animations, and the pictures the preparation tools\n"
    "turn into its other resources, into OUTDIR (created if needed). Text is set in FONT\n"
    "(default " SHOWGEN_DEFAULT_FONT ").\n";
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

// Palette k of an animation: the gradient over entries first to first + 63, rotated by
// k / SHOWGEN_PALETTES of a turn (palette 0 is the gradient as the colour tables hold it).
void showgen_cycle_palettes(reel_palette* palettes, xmemarena* arena, const showgen_rgb* keys, uint32_t key_count,
                            uint32_t first)
{
    for (uint32_t k = 0; k < SHOWGEN_PALETTES; k++) {
        reel_palette* p = &palettes[k];
        p->first = first;
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
    showgen_cycle_palettes(a.palettes, arena, keys, key_count, SHOWGEN_GRADIENT_FIRST);
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
    showgen_cycle_palettes(a.palettes, arena, keys, key_count, SHOWGEN_GRADIENT_FIRST);
    showgen_write_animation(dir, "plasma.pan", &a, arena);
}

// ---- the show's own pictures ----

// The show's overlay colour plan (the script names these indices): 0 transparent; two bands of
// 64 cycled by the palette animations, which the colour table holds at their first palette so
// that an animation's first frame, drawn before it sets a palette, shows its own colours; 32
// star levels; the title's gold; the credits' ice; single colours for pens, bars and waves.
constexpr uint32_t SHOW_AURORA_FIRST = 1;    // to 64: the intro's aurora
constexpr uint32_t SHOW_STAR_FIRST = 65;     // to 96: star brightness, dark to white
constexpr uint32_t SHOW_STAR_COUNT = 32;     // a power of two, as the star field needs
constexpr uint32_t SHOW_GOLD_FIRST = 97;     // to 127: the title, top to bottom
constexpr uint32_t SHOW_GOLD_COUNT = 31;
constexpr uint32_t SHOW_FRAME_FIRST = 128;   // to 191: the climax's frame
constexpr uint32_t SHOW_ICE_FIRST = 192;     // to 223: credits and the orb, dark to light
constexpr uint32_t SHOW_ICE_COUNT = 32;
constexpr uint8_t SHOW_WHITE = 224;          // reveal flashes, the load bar's head
constexpr uint8_t SHOW_BAR = 225;            // the load bar
constexpr uint8_t SHOW_RIM = 226;            // the title's rim, pulsed on the beat
constexpr uint8_t SHOW_PEN_WARM = 227;
constexpr uint8_t SHOW_PEN_COLD = 228;
constexpr uint8_t SHOW_WAVE = 229;
constexpr uint8_t SHOW_SUBTITLE = 230;
constexpr uint8_t SHOW_SET = 1;              // a stencil picture's set pixels
constexpr uint32_t SHOW_REVEAL_FRAMES = 8;   // stencil frames of a reveal
constexpr uint8_t SHOW_SHAPE = 128;          // coverage from which a pixel belongs to a letter

const showgen_rgb SHOW_AURORA_KEYS[] = {{0.05f, 0.9f, 0.55f}, {0.1f, 0.35f, 0.8f}, {0.55f, 0.1f, 0.7f},
                                        {0.02f, 0.05f, 0.2f}, {0.2f, 1.0f, 0.8f}};
const showgen_rgb SHOW_FRAME_KEYS[] = {{1.0f, 0.1f, 0.6f}, {0.1f, 0.0f, 0.2f}, {0.1f, 0.9f, 1.0f},
                                       {0.0f, 0.1f, 0.2f}, {1.0f, 0.9f, 0.2f}};
constexpr uint32_t SHOW_KEY_COUNT = 5;

showgen_rgb showgen_mix(showgen_rgb a, showgen_rgb b, float t)
{
    return {a.r + (b.r - a.r) * t, a.g + (b.g - a.g) * t, a.b + (b.b - a.b) * t};
}

// The whole colour table of the show's overlay.
void showgen_show_palette(uint8_t* e)
{
    memset(e, 0, DISPLAY_CLUT_ENTRIES * 4);
    for (uint32_t j = 0; j < SHOWGEN_GRADIENT_COUNT; j++) {
        const float t = (float)j / SHOWGEN_GRADIENT_COUNT;
        showgen_entry(e + 4 * (SHOW_AURORA_FIRST + j), showgen_gradient(SHOW_AURORA_KEYS, SHOW_KEY_COUNT, t));
        showgen_entry(e + 4 * (SHOW_FRAME_FIRST + j), showgen_gradient(SHOW_FRAME_KEYS, SHOW_KEY_COUNT, t));
    }
    for (uint32_t j = 0; j < SHOW_STAR_COUNT; j++) {
        const float t = (float)j / (SHOW_STAR_COUNT - 1);
        showgen_entry(e + 4 * (SHOW_STAR_FIRST + j), t < 0.5f ? showgen_mix({0, 0, 0}, {0.3f, 0.4f, 0.9f}, t * 2.0f)
                                                            : showgen_mix({0.3f, 0.4f, 0.9f}, {1, 1, 1}, t * 2.0f - 1.0f));
    }
    for (uint32_t j = 0; j < SHOW_GOLD_COUNT; j++) {
        const float t = (float)j / (SHOW_GOLD_COUNT - 1);
        showgen_entry(e + 4 * (SHOW_GOLD_FIRST + j), t < 0.5f ? showgen_mix({1.0f, 0.95f, 0.6f}, {1.0f, 0.7f, 0.15f}, t * 2.0f)
                                                            : showgen_mix({1.0f, 0.7f, 0.15f}, {0.6f, 0.2f, 0.05f}, t * 2.0f - 1.0f));
    }
    for (uint32_t j = 0; j < SHOW_ICE_COUNT; j++)
        showgen_entry(e + 4 * (SHOW_ICE_FIRST + j),
                      showgen_mix({0.05f, 0.2f, 0.35f}, {0.85f, 1.0f, 1.0f}, (float)j / (SHOW_ICE_COUNT - 1)));
    showgen_entry(e + 4 * SHOW_WHITE, {1, 1, 1});
    showgen_entry(e + 4 * SHOW_BAR, {0.6f, 1.0f, 0.25f});
    showgen_entry(e + 4 * SHOW_RIM, {1.0f, 0.35f, 0.1f});
    showgen_entry(e + 4 * SHOW_PEN_WARM, {1.0f, 0.8f, 0.4f});
    showgen_entry(e + 4 * SHOW_PEN_COLD, {0.4f, 0.95f, 1.0f});
    showgen_entry(e + 4 * SHOW_WAVE, {1.0f, 0.3f, 0.85f});
    showgen_entry(e + 4 * SHOW_SUBTITLE, {0.95f, 0.95f, 0.9f});
}

// The colour table before the title is revealed: the title's entries black, so that the title
// can lie in the aurora's picture (and so in its back buffer, from which the heal restores it)
// unseen on the black video plane until its colours are set.
void showgen_hide_title(uint8_t* e)
{
    for (uint32_t i = 0; i < DISPLAY_CLUT_ENTRIES; i++)
        if ((i >= SHOW_GOLD_FIRST && i < SHOW_GOLD_FIRST + SHOW_GOLD_COUNT) || i == SHOW_RIM || i == SHOW_SUBTITLE)
            showgen_entry(e + 4 * i, {0, 0, 0});
}

// A palette animation over the whole overlay cycling the 64 entries from `first`: index_at
// gives each pixel's colour index (0 leaves it see-through).
template <typename IndexAt>
void showgen_animation(const char* dir, const char* file, xmemarena* arena, const showgen_rgb* keys, uint32_t first,
                       IndexAt index_at)
{
    const uint64_t mark = xmemarena_get_sp(arena);
    reel_palette_animation a = {SHOWGEN_W, SHOWGEN_H, SHOWGEN_PALETTES,
                                (uint8_t*)xmemarena_push(arena, SHOWGEN_W * SHOWGEN_H), nullptr};
    a.palettes = (reel_palette*)xmemarena_push(arena, sizeof(reel_palette) * SHOWGEN_PALETTES);
    for (uint32_t y = 0; y < SHOWGEN_H; y++)
        for (uint32_t x = 0; x < SHOWGEN_W; x++) {
            a.pixels[y * SHOWGEN_W + x] = index_at(x, y);
        }
    showgen_cycle_palettes(a.palettes, arena, keys, SHOW_KEY_COUNT, first);
    showgen_write_animation(dir, file, &a, arena);
    xmemarena_set_sp(arena, mark);
}

// A picture of colour indices over the show's colour table, written as an indexed PNG.
struct showgen_picture {
    prep_index_picture p;
    uint8_t& at(uint32_t x, uint32_t y) { return p.pixels[(uint64_t)y * p.width + x]; }
};

showgen_picture showgen_new_picture(xmemarena* arena, uint8_t* palette, uint32_t w, uint32_t h)
{
    return {{w, h, (uint8_t*)xmemarena_push_zero(arena, (uint64_t)w * h), {0, DISPLAY_CLUT_ENTRIES, palette}, 0}};
}

void showgen_save_picture(const showgen_picture& g, const char* dir, const char* file, xmemarena* arena)
{
    char path[TOOL_PATH_MAX];
    tool_join_path(path, dir, file);
    const uint64_t mark = xmemarena_get_sp(arena);
    uint64_t bytes = 0;
    const uint8_t* png = prep_encode_indexed_png(&g.p, arena, &bytes);
    tool_write_file(path, png, bytes, nullptr, 0);
    xmemarena_set_sp(arena, mark);
    printf("wrote \"%s\"\n", path);
}

// An RGBA picture filled by colour_at (red, green, blue, alpha from 0 to 1), saved as PNG.
template <typename ColourAt>
void showgen_rgba(const char* dir, const char* file, xmemarena* arena, uint32_t w, uint32_t h, ColourAt colour_at)
{
    const uint64_t mark = xmemarena_get_sp(arena);
    bitmap* bm = bitmap_create(arena, w, h, BITMAP_SRGB | BITMAP_CHANNELS_4);
    for (uint32_t y = 0; y < h; y++)
        for (uint32_t x = 0; x < w; x++) {
            float c[4] = {0, 0, 0, 1};
            colour_at(x, y, c);
            auto* px = (uint8_t*)bitmap_pixel(bm, x, y);
            for (uint32_t k = 0; k < 4; k++)
                px[k] = (uint8_t)fminf(255.0f, fmaxf(0.0f, c[k] * 255.0f + 0.5f));
        }
    char path[TOOL_PATH_MAX];
    tool_join_path(path, dir, file);
    tool_save_png(bm, path, arena);
    xmemarena_set_sp(arena, mark);
    printf("wrote \"%s\"\n", path);
}

show_art_canvas showgen_canvas(xmemarena* arena, uint32_t w, uint32_t h)
{
    return {w, h, (uint8_t*)xmemarena_push_zero(arena, (uint64_t)w * h)};
}

// The font at a pixel height, its glyphs from arena.
reel_font showgen_font(const uint8_t* data, uint64_t size, uint32_t pixels, xmemarena* arena, xmemarena* tmp,
                       const char* path)
{
    const font_make_options options = {pixels, FONT_MAKE_DEFAULT_FIRST, FONT_MAKE_DEFAULT_LAST,
                                       FONT_MAKE_DEFAULT_THRESHOLD};
    reel_font font;
    font_make_summary summary;
    char why[512];
    if (font_make(&font, &summary, arena, tmp, data, size, &options, why, sizeof(why)) != 0)
        tool_fail("%s: %s", path, why);
    return font;
}

struct showgen_fonts {
    reel_font huge, large, small;
};

// Whether any pixel within `radius` of (x, y) (a square) belongs to the shape.
bool showgen_near(const show_art_canvas& c, uint32_t x, uint32_t y, int32_t radius)
{
    for (int32_t dy = -radius; dy <= radius; dy++)
        for (int32_t dx = -radius; dx <= radius; dx++) {
            const int64_t sx = (int64_t)x + dx, sy = (int64_t)y + dy;
            if (sx >= 0 && sy >= 0 && sx < c.width && sy < c.height && c.cover[sy * c.width + sx] >= SHOW_SHAPE)
                return true;
        }
    return false;
}

// The reveal frames of a picture: stencils of its opaque pixels opening as blinds.
void showgen_reveal_frames(const showgen_picture& picture, const char* dir, const char* stem, uint32_t band,
                           xmemarena* arena, uint8_t* palette)
{
    const uint64_t mark = xmemarena_get_sp(arena);
    show_art_canvas shape = showgen_canvas(arena, picture.p.width, picture.p.height);
    for (uint64_t i = 0; i < (uint64_t)shape.width * shape.height; i++)
        shape.cover[i] = picture.p.pixels[i] ? 255 : 0;
    showgen_picture frame = showgen_new_picture(arena, palette, shape.width, shape.height);
    for (uint32_t k = 0; k < SHOW_REVEAL_FRAMES; k++) {
        show_art_blinds_frame(frame.p.pixels, &shape, 255, band, k, SHOW_REVEAL_FRAMES);
        char file[64];
        snprintf(file, sizeof(file), "%s%u.png", stem, k);
        showgen_save_picture(frame, dir, file, arena);
    }
    xmemarena_set_sp(arena, mark);
}

// The title: REEL in gold, shaded from top to bottom, with a rim the script pulses, and the
// subtitle in white; its reveal frames; the mask that keeps the stars off it and off the load bar.
showgen_picture showgen_title(const char* dir, xmemarena* arena, uint8_t* palette, const showgen_fonts& fonts)
{
    show_art_canvas big = showgen_canvas(arena, SHOWGEN_W, SHOWGEN_H);
    show_art_canvas small = showgen_canvas(arena, SHOWGEN_W, SHOWGEN_H);
    show_art_draw_text_centred(&big, &fonts.huge, "REEL", 320.0f, 250.0f);
    show_art_draw_text_centred(&small, &fonts.small, "a show drawn in software", 320.0f, 306.0f);
    showgen_picture title = showgen_new_picture(arena, palette, SHOWGEN_W, SHOWGEN_H);
    showgen_picture mask = showgen_new_picture(arena, palette, SHOWGEN_W, SHOWGEN_H);
    const float top = 120.0f, bottom = 252.0f;  // the capitals' extent at this size and baseline
    for (uint32_t y = 0; y < SHOWGEN_H; y++)
        for (uint32_t x = 0; x < SHOWGEN_W; x++) {
            const uint8_t b = big.cover[y * SHOWGEN_W + x], s = small.cover[y * SHOWGEN_W + x];
            if (b >= SHOW_SHAPE) {
                const float t = fminf(1.0f, fmaxf(0.0f, ((float)y - top) / (bottom - top)));
                title.at(x, y) = (uint8_t)(SHOW_GOLD_FIRST + (uint32_t)(t * (SHOW_GOLD_COUNT - 1)));
            } else if (showgen_near(big, x, y, 3)) {
                title.at(x, y) = SHOW_RIM;
            } else if (s >= SHOW_SHAPE) {
                title.at(x, y) = SHOW_SUBTITLE;
            }
            if ((x >= 100 && x < 540 && y >= 100 && y < 320) || y >= 424)
                mask.at(x, y) = SHOW_SET;
        }
    showgen_save_picture(title, dir, "title.png", arena);
    showgen_save_picture(mask, dir, "starmask.png", arena);
    showgen_reveal_frames(title, dir, "title_reveal", 16, arena, palette);
    return title;
}

// The credits: lines in the ice colours, lightest at the top, and their reveal frames.
void showgen_credits(const char* dir, xmemarena* arena, uint8_t* palette, const showgen_fonts& fonts)
{
    const uint64_t mark = xmemarena_get_sp(arena);
    static const char* const lines[] = {"REEL", "code, pictures and music", "all made by the reel tools",
                                        "text in DejaVu Sans Bold", "thanks for watching"};
    show_art_canvas text = showgen_canvas(arena, SHOWGEN_W, SHOWGEN_H);
    show_art_draw_text_centred(&text, &fonts.large, lines[0], 320.0f, 130.0f);
    for (uint32_t i = 1; i < sizeof(lines) / sizeof(lines[0]); i++)
        show_art_draw_text_centred(&text, &fonts.small, lines[i], 320.0f, 190.0f + 50.0f * (float)i);
    showgen_picture credits = showgen_new_picture(arena, palette, SHOWGEN_W, SHOWGEN_H);
    for (uint32_t y = 0; y < SHOWGEN_H; y++)
        for (uint32_t x = 0; x < SHOWGEN_W; x++)
            if (text.cover[y * SHOWGEN_W + x] >= SHOW_SHAPE)
                credits.at(x, y) = (uint8_t)(SHOW_ICE_FIRST + SHOW_ICE_COUNT - 1 - (y * 12) / SHOWGEN_H);
    showgen_save_picture(credits, dir, "credits.png", arena);
    showgen_reveal_frames(credits, dir, "credits_reveal", 24, arena, palette);
    xmemarena_set_sp(arena, mark);
}

// Words for the pen: white where a letter is, transparent elsewhere (the stroke maker walks them).
void showgen_pen_word(const char* dir, const char* file, const char* word, xmemarena* arena, const reel_font* font)
{
    const uint64_t mark = xmemarena_get_sp(arena);
    show_art_canvas text = showgen_canvas(arena, 576, 160);
    show_art_draw_text_centred(&text, font, word, 288.0f, 118.0f);
    showgen_rgba(dir, file, arena, text.width, text.height, [&](uint32_t x, uint32_t y, float* c) {
        const bool on = text.cover[y * text.width + x] >= SHOW_SHAPE;
        c[0] = c[1] = c[2] = 1.0f;
        c[3] = on ? 1.0f : 0.0f;
    });
    xmemarena_set_sp(arena, mark);
}

// Small pictures: the load bar's turning head, the wave stencils, the orb that scales.
void showgen_small_pictures(const char* dir, xmemarena* arena, uint8_t* palette)
{
    const uint64_t mark = xmemarena_get_sp(arena);
    const float pi = (float)M_PI;
    for (uint32_t f = 0; f < 4; f++) {  // a dot with a white wedge turning a quarter each frame
        showgen_picture head = showgen_new_picture(arena, palette, 16, 16);
        for (uint32_t y = 0; y < 16; y++)
            for (uint32_t x = 0; x < 16; x++) {
                const float dx = (float)x - 7.5f, dy = (float)y - 7.5f;
                if (dx * dx + dy * dy <= 56.0f)
                    head.at(x, y) = cosf(atan2f(dy, dx) - (float)f * pi / 2.0f) > 0.7f ? SHOW_WHITE : SHOW_BAR;
            }
        char file[32];
        snprintf(file, sizeof(file), "head%u.png", f);
        showgen_save_picture(head, dir, file, arena);
    }
    for (uint32_t f = 0; f < 4; f++) {  // two sine lines along the top and the bottom, a quarter on
        showgen_picture wave = showgen_new_picture(arena, palette, SHOWGEN_W, SHOWGEN_H);
        for (uint32_t x = 0; x < SHOWGEN_W; x++) {
            const float s = sinf((float)x / SHOWGEN_W * 6.0f * pi + (float)f * pi / 2.0f);
            for (uint32_t y = 0; y < SHOWGEN_H; y++)
                if (fabsf((float)y - (56.0f + 24.0f * s)) < 5.0f || fabsf((float)y - (424.0f - 24.0f * s)) < 5.0f)
                    wave.at(x, y) = SHOW_SET;
        }
        char file[32];
        snprintf(file, sizeof(file), "wave%u.png", f);
        showgen_save_picture(wave, dir, file, arena);
    }
    showgen_picture orb = showgen_new_picture(arena, palette, 128, 128);
    for (uint32_t y = 0; y < 128; y++)
        for (uint32_t x = 0; x < 128; x++) {
            const float dx = ((float)x - 63.5f) / 62.0f, dy = ((float)y - 63.5f) / 62.0f;
            const float d = sqrtf(dx * dx + dy * dy);
            if (d >= 1.0f)
                continue;
            // a bright ring with a soft glow inside and rays of light around the turn
            const float ring = expf(-(d - 0.8f) * (d - 0.8f) * 120.0f);
            const float glow = 0.35f * (1.0f - d) * (0.75f + 0.25f * cosf(8.0f * atan2f(dy, dx)));
            const float v = fminf(1.0f, ring + glow);
            if (v > 0.04f)
                orb.at(x, y) = (uint8_t)(SHOW_ICE_FIRST + (uint32_t)(v * (SHOW_ICE_COUNT - 1)));
        }
    showgen_save_picture(orb, dir, "orb.png", arena);
    xmemarena_set_sp(arena, mark);
}

// The video plane's pictures: the tunnel's neon colour map (rows the angle, columns the
// distance, both periodic so that the map wraps), the relief the bump map lights (its heights and
// colours: studs around the word REEL) and the round window it is seen through.
void showgen_video_pictures(const char* dir, xmemarena* arena, const showgen_fonts& fonts)
{
    const float pi = (float)M_PI;
    showgen_rgba(dir, "tunnel.png", arena, 256, 256, [&](uint32_t x, uint32_t y, float* c) {
        const float hue = 0.5f + 0.5f * cosf(2.0f * pi * (float)y * 4.0f / 256.0f);
        const showgen_rgb band = showgen_mix({1.0f, 0.15f, 0.75f}, {0.1f, 0.8f, 1.0f}, hue);
        const float ring = 0.5f + 0.5f * cosf(2.0f * pi * (float)x * 8.0f / 256.0f);
        const float line = powf(0.5f + 0.5f * cosf(2.0f * pi * (float)y * 16.0f / 256.0f), 24.0f);
        const float light = 0.25f + 0.75f * ring * ring;
        c[0] = band.r * light + line * 0.8f;
        c[1] = band.g * light + line * 0.8f;
        c[2] = band.b * light + line * 0.8f;
    });
    const uint64_t mark = xmemarena_get_sp(arena);
    show_art_canvas word = showgen_canvas(arena, 512, 256);
    show_art_draw_text_centred(&word, &fonts.large, "REEL", 155.0f, 160.0f);
    auto height_at = [&](uint32_t x, uint32_t y) {
        const float letter = (float)word.cover[y * 512 + x] / 255.0f;
        const float cx = fmodf((float)x, 32.0f) - 16.0f, cy = fmodf((float)y + 16.0f * (float)((x / 32) % 2), 32.0f) - 16.0f;
        const float d = sqrtf(cx * cx + cy * cy) / 12.0f;
        const float stud = d < 1.0f ? sqrtf(1.0f - d * d) : 0.0f;
        return fmaxf(letter, 0.45f * stud);
    };
    showgen_rgba(dir, "relief_height.png", arena, 512, 256, [&](uint32_t x, uint32_t y, float* c) {
        c[0] = c[1] = c[2] = height_at(x, y);
    });
    showgen_rgba(dir, "relief.png", arena, 512, 256, [&](uint32_t x, uint32_t y, float* c) {
        const float letter = (float)word.cover[y * 512 + x] / 255.0f;
        const showgen_rgb plate = showgen_mix({0.05f, 0.25f, 0.3f}, {0.7f, 0.4f, 0.2f}, height_at(x, y) / 0.45f * 0.6f);
        const showgen_rgb v = showgen_mix(plate, {1.0f, 0.8f, 0.35f}, letter);
        c[0] = v.r, c[1] = v.g, c[2] = v.b;
    });
    xmemarena_set_sp(arena, mark);
    showgen_rgba(dir, "porthole.png", arena, 320, 256, [&](uint32_t x, uint32_t y, float* c) {
        const float dx = (float)x - 155.0f, dy = (float)y - 124.0f;
        c[0] = c[1] = c[2] = dx * dx + dy * dy < 112.0f * 112.0f ? 0.0f : 1.0f;  // set outside the window
    });
}

// Everything the show itself draws.
void showgen_show(const char* dir, const char* font_path, xmemarena* arena, xmemarena* tmp)
{
    uint8_t* palette = (uint8_t*)xmemarena_push_zero(arena, DISPLAY_CLUT_ENTRIES * 4);
    showgen_show_palette(palette);
    reel_palette table = {0, DISPLAY_CLUT_ENTRIES, palette};
    showgen_write_palette(dir, "show.pal", &table, arena);
    reel_palette dark = {0, DISPLAY_CLUT_ENTRIES, (uint8_t*)xmemarena_push(arena, DISPLAY_CLUT_ENTRIES * 4)};
    memcpy(dark.entries, palette, DISPLAY_CLUT_ENTRIES * 4);
    showgen_hide_title(dark.entries);
    showgen_write_palette(dir, "show_dark.pal", &dark, arena);

    uint64_t size = 0;
    char why[1024];
    const uint8_t* data = prep_file_read(font_path, arena, &size, why, sizeof(why));
    if (!data)
        tool_fail("%s", why);
    showgen_fonts fonts = {showgen_font(data, size, 160, arena, tmp, font_path),
                           showgen_font(data, size, 96, arena, tmp, font_path),
                           showgen_font(data, size, 30, arena, tmp, font_path)};
    const showgen_picture title = showgen_title(dir, arena, palette, fonts);

    // the aurora: wavy curtains along the top and the bottom, and between them the title, whose
    // colours stay black until the script reveals it
    showgen_animation(dir, "aurora.pan", arena, SHOW_AURORA_KEYS, SHOW_AURORA_FIRST, [&](uint32_t x, uint32_t y) {
        const float fx = (float)x, fy = (float)y;
        const float edge = 80.0f + 22.0f * sinf(fx / 57.0f) + 12.0f * sinf(fx / 23.0f + 1.3f);
        const float from_edge = fy < 240.0f ? fy : 479.0f - fy;
        if (from_edge >= edge)
            return title.p.pixels[y * SHOWGEN_W + x];
        return (uint8_t)(SHOW_AURORA_FIRST + (uint32_t)(fmodf(fx / 640.0f * 2.0f + from_edge / edge * 0.6f + 4.0f, 1.0f) * 64.0f));
    });
    // the frame: a chequer of diagonal stripes 36 pixels deep round the edge of the screen
    showgen_animation(dir, "frame.pan", arena, SHOW_FRAME_KEYS, SHOW_FRAME_FIRST, [](uint32_t x, uint32_t y) {
        const float edge = fminf(fminf((float)x, 639.0f - (float)x), fminf((float)y, 479.0f - (float)y));
        if (edge >= 36.0f)
            return (uint8_t)0;
        return (uint8_t)(SHOW_FRAME_FIRST + (uint32_t)(fmodf((float)(x + y) / 160.0f + edge / 72.0f, 1.0f) * 64.0f));
    });
    showgen_credits(dir, arena, palette, fonts);
    showgen_pen_word(dir, "pen_software.png", "software", arena, &fonts.large);
    showgen_pen_word(dir, "pen_rendered.png", "rendered", arena, &fonts.large);
    showgen_small_pictures(dir, arena, palette);
    showgen_video_pictures(dir, arena, fonts);
}

}  // namespace

int main(int argc, char** argv)
{
    tool_begin(&SHOWGEN_TOOL, argc, argv);
    const char* font_path = SHOWGEN_DEFAULT_FONT;
    const char* dir = tool_one_operand_with_option(argc, argv, "output folder", "--font", &font_path);
    tool_make_dir(dir);
    // taken once; untouched pages cost nothing
    constexpr uint64_t arena_bytes = 256ull << 20, tmp_bytes = 64ull << 20;
    void* arena_memory = malloc(arena_bytes);
    void* tmp_memory = malloc(tmp_bytes);
    xmemarena arena, tmp;
    xmemarena_init(&arena, "reel_showgen", arena_bytes, arena_memory);
    xmemarena_init(&tmp, "reel_showgen_tmp", tmp_bytes, tmp_memory);

    // warm sunset colours for the rings, cold blues and violets for the plasma
    static const showgen_rgb warm[] = {{1.0f, 0.85f, 0.3f}, {1.0f, 0.4f, 0.1f}, {0.6f, 0.05f, 0.3f}, {0.15f, 0.0f, 0.25f},
                                       {0.9f, 0.2f, 0.2f}};
    static const showgen_rgb cold[] = {{0.05f, 0.1f, 0.4f}, {0.1f, 0.6f, 0.9f}, {0.9f, 0.95f, 1.0f}, {0.5f, 0.2f, 0.9f},
                                       {0.1f, 0.0f, 0.3f}};
    showgen_base_palette(dir, &arena, warm, sizeof(warm) / sizeof(warm[0]));
    showgen_rings(dir, &arena, warm, sizeof(warm) / sizeof(warm[0]));
    xmemarena_reset(&arena);
    showgen_plasma(dir, &arena, cold, sizeof(cold) / sizeof(cold[0]));
    xmemarena_reset(&arena);
    showgen_show(dir, font_path, &arena, &tmp);
    free(tmp_memory);
    free(arena_memory);
    return 0;
}
