// The image library: 8-bit-per-channel bitmaps in arena memory, PNG reading and writing,
// conversion between channel counts and encodings, filtered downscaling in linear light, and
// the built-in flare picture. Used by texture conversion, tools and tests, never by the show.
//
// Every pixel operation goes through one decode to linear-light premultiplied RGBA floats and
// one encode back, so conversion, downscaling and texture conversion agree to the byte. A
// bitmap with fewer than four channels holds red (1), red and green (2) or red, green and blue
// (3); missing colour channels read as 0 and a missing alpha as 1.
#pragma once

#include <cstdint>

#include "memarena.h"
#include "vmath.h"

enum : uint32_t {
    BITMAP_SRGB = 1,            // colour channels are sRGB-encoded (alpha never is)
    BITMAP_PREMULTIPLIED = 2,   // colour channels are already multiplied by alpha
    BITMAP_CHANNELS_4 = 4,      // red, green, blue, alpha
    BITMAP_CHANNELS_3 = 8,      // red, green, blue
    BITMAP_CHANNELS_2 = 16,     // red, green
    BITMAP_CHANNELS_1 = 32,     // red
    BITMAP_CHANNELS_MASK = 60,  // exactly one of the four must be set
};

enum : uint32_t {
    BITMAP_FILTER_BOX = 0,      // area average over the destination pixel's footprint
    BITMAP_FILTER_TENT = 1,     // triangle as wide as two footprints
    BITMAP_FILTER_LANCZOS = 2,  // windowed sinc, three lobes per side of the footprint
};

constexpr uint32_t BITMAP_FLARE_SIZE = 256;

struct bitmap {
    uint8_t* pixels;  // pixel (x, y) starts at pixels + y * row_bytes + x * channels
    uint32_t flags;
    uint32_t row_bytes;
    uint32_t width;
    uint32_t height;
};

// 1 to 4 from the channel flag; fatal from `function` unless exactly one channel flag is set.
uint32_t bitmap_channels(uint32_t flags, const char* function);
static inline uint8_t* bitmap_pixel(const bitmap* bm, uint32_t x, uint32_t y)
{
    return bm->pixels + (uint64_t)y * bm->row_bytes + (uint64_t)x * bitmap_channels(bm->flags, "bitmap_pixel");
}

// Fills `bm` with zeroed pixels of row_bytes = width x channels from the arena.
void bitmap_init(bitmap* bm, xmemarena* arena, uint32_t width, uint32_t height, uint32_t flags);
// The same, with the record itself taken from the arena too.
bitmap* bitmap_create(xmemarena* arena, uint32_t width, uint32_t height, uint32_t flags);

// Pixel at `p` of a bitmap with `flags` to linear premultiplied RGBA.
void bitmap_decode_pixel(vec4 out, const uint8_t* p, uint32_t flags);
// Linear premultiplied RGBA to the pixel at `p` of a bitmap with `flags`.
void bitmap_encode_pixel(uint8_t* p, uint32_t flags, const vec4 rgba);
// Whole images: width x height x 4 floats, row after row.
void bitmap_decode(const bitmap* bm, float* out);
void bitmap_encode(bitmap* bm, const float* in);

// Same size, any flags on either side: copies rows when the flags match, else decodes and
// encodes every pixel. Fatal when the sizes differ.
void bitmap_convert(bitmap* dst, const bitmap* src);
// Resamples src into dst (whose size and flags are set) in linear premultiplied light with
// BITMAP_FILTER_*; edges wrap around because textures repeat. Scratch comes from tmp under a mark.
void bitmap_downscale(bitmap* dst, const bitmap* src, uint32_t filter_kind, xmemarena* tmp);

// Reads a PNG into the arena as sRGB with straight alpha. channels 1 to 4 asks for that many;
// 0 keeps the file's colour model, with grey files made RGB (3) or RGBA (4) because one or two
// channels here mean red or red and green. A missing or broken file prints why and gives null.
bitmap* bitmap_load_png(xmemarena* arena, const char* path, uint32_t channels);
// Writes sRGB straight-alpha bitmaps of three or four channels as they are; any other bitmap
// is first converted to four channels in tmp (under a mark). 1 on success; on failure prints
// why and gives 0.
uint32_t bitmap_save_png(const bitmap* bm, const char* path, xmemarena* tmp);
// The same picture encoded as a PNG file's bytes in a block from arena (its size in *bytes),
// for writers that check every write themselves; any conversion also stays in arena, so take
// a mark around it. Null when encoding fails.
uint8_t* bitmap_encode_png(const bitmap* bm, xmemarena* arena, uint64_t* bytes);

// BITMAP_FLARE_SIZE square, four-channel sRGB: white everywhere, alpha (1 - r^2)^4 with r the
// distance from the centre over half the width, 0 from r = 1 out.
bitmap* bitmap_create_flare(xmemarena* arena);
