// Colour quantisation for palette textures: picks at most 256 colours that stand for the
// colours of a picture, in linear light.
//
// The method is median cut followed by k-means. Distinct colours (each with the number of
// pixels that have it) start in one box; the box with the largest weighted squared error is
// cut across its widest axis (the axis of largest variance), at the place where the two
// parts' summed squared errors along that axis are least (rather than at the median, which
// can cut a dense cluster in two), until there are as many boxes as colours wanted or no box
// holds two distinct colours. The boxes'
// weighted means then seed Lloyd's k-means iterations (every colour to its nearest centre,
// every centre to the weighted mean of its colours) until no colour changes centre or the
// iteration limit is reached. Distances are squared Euclidean in linear RGB, the same measure
// n3d_color_nearest maps pixels with, so the centres are what that mapping minimises.
// Alpha is not quantised: palette entries are opaque.
#pragma once

#include <cstdint>

#include "bitmap.h"
#include "memarena.h"
#include "vmath.h"

constexpr uint32_t COLOR_QUANTIZE_MAX_COLORS = 256;
constexpr uint32_t COLOR_QUANTIZE_KMEANS_ITERATIONS = 16;

// One distinct colour of a picture, in linear light, and how many pixels have it.
struct color_quantize_point {
    vec3 rgb;
    uint32_t weight;
};

// Fills centres[0..result) (linear RGB) for `count` points; result is at most max_colors and
// at most the number of points. Scratch from tmp under a mark. Points with weight 0 count as 1.
uint32_t color_quantize_points(vec3* centres, uint32_t max_colors, const color_quantize_point* points, uint32_t count,
                               xmemarena* tmp);

// The distinct colours of a bitmap (straight colour: premultiplied pixels are divided by their
// alpha, fully transparent ones count as black), in tmp; returns their count.
uint32_t color_quantize_collect(color_quantize_point** points, const bitmap* bm, xmemarena* tmp);

// A palette of ARGB1555 colours (bit 15 set) for the bitmap: quantised centres rounded to 5
// bits per channel, repeats removed. Entries from the result up to 256 are left as they were.
uint32_t color_quantize_palette_argb1555(uint16_t* palette, const bitmap* bm, xmemarena* tmp);
