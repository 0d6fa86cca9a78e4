// The show's pictures drawn in code: lines of text set in a font from the font maker onto a
// coverage canvas (0 nothing, 255 fully covered), and the stencil frames that reveal a shape a
// slice at a time. The show's generator turns canvases into pictures of colour indices.
#pragma once

#include <cstdint>

#include "reel.h"

struct show_art_canvas {
    uint32_t width;
    uint32_t height;
    uint8_t* cover;  // width x height, row after row
};

// The pen's travel over the text: the sum of its glyphs' advances, rounded up. Characters
// outside the font's range advance nothing.
uint32_t show_art_text_width(const reel_font* font, const char* text);

// Sets the text with the pen starting at (x, baseline): each glyph's top left lands at the pen
// plus its offsets, rounded to the nearest pixel, and the pen moves on by its advance. A pixel
// keeps the larger of its coverage and the glyph's; whatever falls outside the canvas is cut.
void show_art_draw_text(show_art_canvas* canvas, const reel_font* font, const char* text, float x, float baseline);

// The same, centred on the canvas's column `centre_x`.
void show_art_draw_text_centred(show_art_canvas* canvas, const reel_font* font, const char* text, float centre_x,
                                float baseline);

// Frame `k` of `count` of a blinds reveal: the shape's pixels (coverage at least `threshold`)
// whose column within each band of `band` pixels is below band x (k + 1) / count, as 0 or 1
// per pixel into `out` (the canvas's size). The frames grow one into the next and the last
// holds the whole shape.
void show_art_blinds_frame(uint8_t* out, const show_art_canvas* shape, uint8_t threshold, uint32_t band, uint32_t k,
                           uint32_t count);
