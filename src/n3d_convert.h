// Texture conversion and lighting tables: bitmaps become textures (power-of-two levels, swizzled
// order, two-dimensional mip chains, palettes with their reverse lookup and shade tables), and
// the phong LUT and the physically based shade tables that the lit rasterizers read.
//
// Colour arithmetic is on linear-light premultiplied RGBA floats; every 5-bit colour of an
// ARGB1555 value and every byte of a display colour table is sRGB-encoded.
// Texel addressing (n3d_texel_index, n3d_mipmap_size, n3d_bytes_per_texel) is declared in n3d.h.
#pragma once

#include <cstdint>

#include "bitmap.h"
#include "memarena.h"
#include "n3d.h"
#include "vmath.h"

constexpr uint32_t N3D_TRANSPARENT_INDEX_NONE = 0xFFFFFFFF;
constexpr uint32_t N3D_PALETTE_COLORS = 256;
constexpr uint32_t N3D_SHADES_PER_COLOR = 32;
constexpr uint32_t N3D_REVERSE_PALETTE_SIZE = 32768;  // one byte per 15-bit colour r << 10 | g << 5 | b

// The overlay plane's colours that a format-3 texture is matched against: display index of
// entry i is first_index + i.
struct n3d_display_clut {
    uint32_t first_index;
    uint32_t count;         // at most 256
    const uint8_t* colors;  // count x red, green, blue, alpha; sRGB-encoded
};

// Maps 0..255 (how close a surface faces its light) to a shade 0..31, with 8 guard bytes on
// each side so that an index that overshoots by up to 8 still reads an end value.
constexpr uint32_t N3D_PHONG_LUT_GUARD = 8;
constexpr uint32_t N3D_PHONG_LUT_ENTRIES = 256;
constexpr uint32_t N3D_PHONG_LUT_BYTES = N3D_PHONG_LUT_GUARD + N3D_PHONG_LUT_ENTRIES + N3D_PHONG_LUT_GUARD;

struct n3d_phong_lut {
    uint8_t* storage;  // N3D_PHONG_LUT_BYTES
    uint8_t* table;    // storage + N3D_PHONG_LUT_GUARD: what draw calls hold
    uint32_t guard;
    float falloff;       // 0 for the stored table
    uint32_t min_shade;  // 1 for the stored table
};

// Shade s of a PBR table stands for this cosine of the half angle (s = 0 faces the highlight).
extern const float N3D_HALF_ANGLE_COS[N3D_SHADES_PER_COLOR];
// Ascending thresholds: linear v becomes the largest i with v >= N3D_LINEAR_TO_5BIT[i].
extern const float N3D_LINEAR_TO_5BIT[N3D_SHADES_PER_COLOR];
// srgb_to_linear(i / 31): the linear value of each 5-bit sRGB channel.
extern const float N3D_ARGB1555_CHANNEL_TO_LINEAR[32];

// ---- colours ----

// (0, 0, 0, 0) without bit 15, else opaque premultiplied linear colour.
void n3d_argb1555_to_linear(vec4 out, uint16_t value);
uint16_t n3d_linear_to_argb1555(const vec4 rgba);
// Nearest of `count` colours by red, green and blue (alpha ignored); ties go to the lowest index.
uint32_t n3d_color_nearest(const vec4* colors, uint32_t count, const vec4 rgba);
uint32_t n3d_linear_to_5bit(float v);

// ---- conversion ----

// Builds `texture` from the bitmap: storage from arena, scratch from tmp_arena (given back before
// returning). Fatal unless the sizes are powers of two of at least 4 (at most 256 when swizzled),
// the format is 1 to 4 and format 3 has a display CLUT. transparent_index is
// N3D_TRANSPARENT_INDEX_NONE or the index that pixels with alpha below alpha_threshold take.
void n3d_texture_from_bitmap(n3d_texture* texture, xmemarena* arena, xmemarena* tmp_arena, N3D_TEXEL_FORMAT format,
                             uint32_t swizzle, uint32_t mips, uint32_t mips_from_full, const bitmap* bm,
                             const n3d_display_clut* display_clut, uint32_t transparent_index, float alpha_threshold);
// Every pixel of the bitmap into the texels of fb (width, height, row_bytes and pixels set).
// Format 1 needs reverse_palette, format 3 needs display_clut.
void n3d_framebuffer_from_bitmap(n3d_framebuffer* fb, N3D_TEXEL_FORMAT format, uint32_t swizzle,
                                 const uint8_t* reverse_palette, const n3d_display_clut* display_clut,
                                 const bitmap* bm, uint32_t transparent_index, float alpha_threshold);
// A format-1 texture's shade table from its palette: shade s of colour c is the colour's red,
// green and blue times (s + 1) / shades_per_color, so the last shade is the colour itself.
void n3d_texture_build_shade_table_argb1555(n3d_texture* texture);
// 1 when the records and (for the index formats) the shade tables agree; texels are not compared.
uint32_t n3d_textures_dbg_cmp(const n3d_texture* a, const n3d_texture* b);

// ---- lighting tables ----

// table[i] = max(min_shade, trunc(31 x max(1 - sqrt(2i / 255) / falloff, 0))).
void n3d_phong_lut_init(n3d_phong_lut* lut, xmemarena* arena, float falloff, uint32_t min_shade);
// The same table without a record; returns the table pointer (guards included before and after).
uint8_t* n3d_phong_lut_alloc(xmemarena* arena, float falloff, uint32_t min_shade);
// Replaces an initialised LUT's contents with the stored, hand-tuned table.
void n3d_phong_lut_set_default(n3d_phong_lut* lut);

// GGX lighting of each palette colour at the N3D_HALF_ANGLE_COS shades into table
// (colors x shades ARGB1555, entry (c, s) at c * shades + s, bit 15 always set). Colours are
// linear RGB. Fatal when shades > 256; callers use 32. Returns colors.
uint32_t n3d_texture_build_shade_table_argb1555_pbr(uint16_t* table, uint32_t shades, uint32_t colors,
                                                   const vec3 emission, const vec3 ambient, const vec3 light_color,
                                                   const vec3 highlight_color, float metallic, float roughness,
                                                   const uint16_t* palette);
