// Pen strokes on the overlay: an index8 image whose texel values give the order in which its
// pixels appear (1 first, 255 last; 0 is not part of the shape) is revealed in one colour as a
// level rises, and erased in reverse order, highest texels first, by restoring the pixels from
// a back buffer as the level falls. Levels go through a threshold curve (the sRGB encoding,
// with the exponent 0.41666) so that the reveal starts quickly and slows towards the end.
#pragma once

#include <cstdint>

#include "reel.h"

// A float from 0 to 255 at time e: rises over a, holds for h, falls over r, 0 outside.
float reel_envelope(float e, float a, float h, float r);
// trunc(255 x s(level / 255)), s the sRGB encoding with the exponent 0.41666.
int32_t reel_stroke_threshold(int32_t level);

struct reel_stroke {
    const reel_image* image;
    n3d_coverage_buffer shape;     // texels 1 to 255 of the image
    n3d_coverage_buffer masks[2];  // the reveal masks, used alternately; masks[0] is the current one
    uint32_t pad[2];
};
static_assert(sizeof(reel_stroke) == 64, "the stroke state is a 64-byte record");

// Zeroes the state and takes the shape and both masks (the image texture's full size) from arena.
// The texture must be linear with format 3 and at least 32 texels wide.
void reel_stroke_init(reel_stroke* stroke, const reel_image* image, xmemarena* arena);
// Pixels of the shape whose texel is at most the level's threshold get the colour and their
// coverage bits; the image's top left is at (x, y).
void reel_stroke_draw(reel_stroke* stroke, int32_t level, uint8_t color, n3d_framebuffer* fb,
                      n3d_coverage_buffer* coverage, int32_t x, int32_t y, int32_t first_row, int32_t row_count);
// Pixels of the shape whose texel is at least the level's threshold are copied back from src
// (at the same position) and get their coverage bits.
void reel_stroke_erase(reel_stroke* stroke, int32_t level, n3d_framebuffer* fb, n3d_coverage_buffer* coverage,
                       const n3d_framebuffer* src, int32_t x, int32_t y, int32_t first_row, int32_t row_count);
