// Asset preparation for the overlay effects: pictures of colour indices read from PNG files
// (an indexed PNG as it is, or an RGBA PNG mapped onto a palette), turned into run-length
// images, images, linear index8 textures, stencils and palettes; and stroke images, whose
// texel values give the order in which a pen reveals their pixels (1 first, 255 last, 0 not
// part of the stroke), made from a path or from a picture.
#pragma once

#include <cstdint>

#include "reel.h"

constexpr uint32_t PREP_NO_KEY = 256;           // no index is transparent
constexpr uint32_t PREP_STROKE_MIN_WIDTH = 32;  // the stroke's masks are whole 32-bit words wide

// Colour indices, row after row (row bytes = width), with the palette they index.
struct prep_index_picture {
    uint32_t width;
    uint32_t height;
    uint8_t* pixels;
    reel_palette palette;  // first 0; entries red, green, blue, alpha
    uint32_t key;          // the first entry with alpha 0, else PREP_NO_KEY
};

// The palette of a PNG file: its PLTE and tRNS chunks for an indexed file, else its pixels in
// reading order (at most 256). 0 and the reason in `why` when the file is not a PNG or holds
// more than 256 colours.
uint32_t prep_png_palette(reel_palette* palette, xmemarena* arena, const char* path, const char** why);

// An indexed PNG: each decoded pixel maps back to the first palette entry of its colour.
// 0 and the reason when the file cannot be read or is not indexed.
uint32_t prep_load_indexed_png(prep_index_picture* picture, xmemarena* arena, const char* path, const char** why);
// Any PNG mapped onto a palette: pixels with alpha below one half take `key` (which must then
// be an index), the others the palette entry nearest in linear light (ties to the first).
uint32_t prep_load_png_with_palette(prep_index_picture* picture, xmemarena* arena, const char* path,
                                    const reel_palette* palette, uint32_t key, const char** why);

// A linear format-3 texture whose power-of-two sides (at least 4, at most 4096) hold the
// picture at its top left, texels outside it key (or 0); with mips, every reduced level
// down to 4 x 4 takes the top-left texel of each 2 x 2 block. Fatal when the picture is larger
// than 4096 a side.
void prep_texture_from_indices(n3d_texture* texture, xmemarena* arena, const prep_index_picture* picture,
                               uint32_t min_width, uint32_t mips);
// A stencil whose bits are set where the picture is not the key; width rounded up to 32.
void prep_stencil_from_indices(n3d_coverage_buffer* stencil, xmemarena* arena, const prep_index_picture* picture);
// Transparent where the picture is the key (index 0 when there is none, as the overlay's).
void prep_rle_from_indices(reel_rle_image* image, xmemarena* arena, const prep_index_picture* picture);

// Stroke order along a polyline of `count` points (x, y pairs): every texel within `radius` of
// the path gets 1 + 254 x (arc length at its nearest point / path length), rounded down.
void prep_stroke_from_path(uint8_t* texels, uint32_t width, uint32_t height, const float* points, uint32_t count,
                           float radius);
// Stroke order over a shape (non-zero bytes of `shape`): its pixels in order of their
// eight-connected walking distance from (start x, start y), then from the first unreached pixel
// in reading order for each part not connected to the start, scaled to 1 to 255.
// `scratch_arena` lends the queue and distances under a mark.
void prep_stroke_from_shape(uint8_t* texels, const uint8_t* shape, uint32_t width, uint32_t height, uint32_t start_x,
                            uint32_t start_y, xmemarena* scratch_arena);

// The picture as an indexed PNG file's bytes (PLTE, and tRNS when an entry is not opaque),
// stored without compression: what a person or another tool opens to see or edit the indices.
// The file and its scratch come from arena; *bytes is the file's size.
uint8_t* prep_encode_indexed_png(const prep_index_picture* picture, xmemarena* arena, uint64_t* bytes);
