// The show's pictures drawn in code: text from the font maker's glyphs and reveal frames.
#include "show_art.h"

#include <cmath>

#include "diag.h"

static const reel_glyph* show_art_glyph(const reel_font* font, unsigned char c)
{
    if (c < font->first || c > font->last)
        return nullptr;
    return &font->glyphs[c - font->first];
}

uint32_t show_art_text_width(const reel_font* font, const char* text)
{
    float pen = 0.0f;
    for (const char* p = text; *p; p++)
        if (const reel_glyph* g = show_art_glyph(font, (unsigned char)*p))
            pen += g->advance;
    return (uint32_t)ceilf(pen);
}

void show_art_draw_text(show_art_canvas* canvas, const reel_font* font, const char* text, float x, float baseline)
{
    float pen = x;
    for (const char* p = text; *p; p++) {
        const reel_glyph* g = show_art_glyph(font, (unsigned char)*p);
        if (!g)
            continue;
        const int64_t left = lroundf(pen + g->x_offset);
        const int64_t top = lroundf(baseline + g->y_offset);
        for (uint32_t j = 0; j < g->height; j++) {
            const int64_t y = top + j;
            if (y < 0 || y >= (int64_t)canvas->height)
                continue;
            for (uint32_t i = 0; i < g->width; i++) {
                const int64_t cx = left + i;
                if (cx < 0 || cx >= (int64_t)canvas->width)
                    continue;
                uint8_t* dst = &canvas->cover[(uint64_t)y * canvas->width + (uint64_t)cx];
                const uint8_t v = g->pixels[j * g->width + i];
                if (v > *dst)
                    *dst = v;
            }
        }
        pen += g->advance;
    }
}

void show_art_draw_text_centred(show_art_canvas* canvas, const reel_font* font, const char* text, float centre_x,
                                float baseline)
{
    const float width = (float)show_art_text_width(font, text);
    show_art_draw_text(canvas, font, text, centre_x - width / 2.0f, baseline);
}

void show_art_blinds_frame(uint8_t* out, const show_art_canvas* shape, uint8_t threshold, uint32_t band, uint32_t k,
                           uint32_t count)
{
    if (band == 0 || count == 0 || k >= count)
        crash_in("prep/show_art", __LINE__, "show_art_blinds_frame", "frame %u of %u with bands of %u pixels\n", k,
                 count, band);
    const uint64_t open = (uint64_t)band * (k + 1);  // compared against column x count: no rounding
    for (uint32_t y = 0; y < shape->height; y++)
        for (uint32_t x = 0; x < shape->width; x++) {
            const uint64_t i = (uint64_t)y * shape->width + x;
            out[i] = shape->cover[i] >= threshold && (uint64_t)(x % band) * count < open ? 1 : 0;
        }
}
