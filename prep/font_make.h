// The font maker: renders a range of characters of a TrueType or OpenType font at a pixel
// height into a `reel_font` (glyph pixels, stencils, offsets and advances) that the bitmap font
// renderer draws, and writes it as the font resource file the pack builder takes.
//
// Glyph pixels are the outline's coverage, 0 (transparent) to 255, so a colour map indexed by
// them shades the edges. The stencil marks the pixels whose coverage reaches a threshold. The
// pen's y is the baseline: y offsets are negative above it. The height is the font's ascent
// minus its descent, scaled to that many pixels. Characters the font has no glyph for become
// empty glyphs that do not advance the pen. Kerning is not kept: the font format has none.
#pragma once

#include <cstddef>
#include <cstdint>

#include "memarena.h"
#include "reel.h"

constexpr uint32_t FONT_MAKE_DEFAULT_FIRST = 32;   // space
constexpr uint32_t FONT_MAKE_DEFAULT_LAST = 126;   // '~'
constexpr uint32_t FONT_MAKE_MAX_CODE = 255;       // text is bytes; the renderer reaches 0 to 127
constexpr uint32_t FONT_MAKE_MAX_PIXELS = 1024;    // keeps every glyph inside the block's 16-bit sizes
constexpr uint32_t FONT_MAKE_DEFAULT_THRESHOLD = 1;  // every painted pixel is covered

struct font_make_options {
    uint32_t pixel_height;
    uint32_t first, last;         // character codes (Unicode, which is Latin-1 up to 255)
    uint32_t stencil_threshold;   // 1 to 255: pixels at least this are set in the stencil
};

struct font_make_summary {
    int32_t ascent, descent, line_gap;  // in pixels, rounded: the line spacing a user needs
    uint32_t missing;                   // characters of the range without a glyph in the font
};

// Fills font (glyph records, pixels and stencils from arena; scratch from tmp, given back) from
// the font file's bytes. Returns 0, or 1 with the reason in `why` when the bytes are not a font
// this maker reads or the options are out of range.
int32_t font_make(reel_font* font, font_make_summary* summary, xmemarena* arena, xmemarena* tmp, const uint8_t* data,
                  uint64_t size, const font_make_options* options, char* why, size_t why_size);

// The resource file: the byte-order marker and the font block, in `order`, into arena.
uint8_t* font_make_file(const reel_font* font, xmemarena* arena, int32_t order, uint64_t* size);
