// The bitmap font renderer: proportional glyphs of a `reel_font` drawn into an index8 or an
// ARGB1555 framebuffer through a colour map indexed by the glyph's pixel values (0 is
// transparent), optionally marking the drawn pixels in a coverage buffer. Coverage comes from
// each glyph's stencil, not from its pixels, so a font can cover less (or more) than it paints.
// Everything is clipped: no pen position, however far outside, writes outside a buffer.
#pragma once

#include <cstdint>

#include "n3d.h"
#include "reel.h"

// Draws one glyph with its top-left pixel at (x, y). map8 serves index8 framebuffers, map16
// ARGB1555 ones; the map the framebuffer's format needs must be given. A coverage bit is set
// for every drawn position whose stencil bit is set (positions outside the coverage buffer
// are skipped). Other framebuffer formats end the process.
void fontbitmap_draw_glyph(const reel_glyph* glyph, n3d_framebuffer* fb, n3d_coverage_buffer* coverage, int32_t x,
                           int32_t y, const uint8_t* map8, const uint16_t* map16);

// Draws a NUL-terminated text with its pen at (*pen_x, *pen_y), both first rounded down and
// written back; *pen_x is advanced by every glyph drawn. Bytes are taken as signed characters:
// those outside the font's range draw nothing and leave the pen where it is.
void fontbitmap_draw_text(const reel_font* font, n3d_framebuffer* fb, n3d_coverage_buffer* coverage, float* pen_x,
                          float* pen_y, const char* text, const uint8_t* map8, const uint16_t* map16);
void fontbitmap_draw_text_argb1555(const reel_font* font, n3d_framebuffer* fb, n3d_coverage_buffer* coverage,
                                   float* pen_x, float* pen_y, const char* text, const uint16_t* map16);
void fontbitmap_draw_text_i8(const reel_font* font, n3d_framebuffer* fb, n3d_coverage_buffer* coverage, float* pen_x,
                             float* pen_y, const char* text, const uint8_t* map8);
