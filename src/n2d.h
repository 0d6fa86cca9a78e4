// 2D raster operations on the renderer's framebuffers, frame contexts and coverage buffers,
// with no 3D machinery: whole-framebuffer copies and fills, clipped blits of 8-bit images
// (unscaled, and scaled with a reduced level), and the stencil operations that fill, copy or
// restore pixels a run of coverage bits at a time and build, copy or combine stencils.
// Everything here clips: no placement, however far outside, reads or writes past a buffer.
#pragma once

#include <cstdint>

#include "n3d.h"

// Fixed point of the scaled blit's source coordinates: unsigned 16.16.
constexpr int32_t N2D_UV_FRACTION_BITS = 16;

// Clips the destination rectangle (x0, y0)-(x1, y1), ends exclusive, against the clip rectangle.
// Yields how far the start moved (add it to the destination position and to the source
// offset) and the width and height left; zero or less draws nothing. Values that would not fit
// 32 bits saturate.
void n2d_clip_rect(int32_t* src_x, int32_t* src_y, int32_t* width, int32_t* height, int32_t x0, int32_t y0,
                   int32_t x1, int32_t y1, int32_t clip_x0, int32_t clip_y0, int32_t clip_x1, int32_t clip_y1);

// ---- framebuffer copies, blits and fills ----

// Every row, tails included: same format, size and row_bytes, row_bytes a multiple of 8.
void n2d_copy_fb(n3d_framebuffer* dst, const n3d_framebuffer* src);

// Copies the 8-bit image under the destination rectangle (x0, y0)-(x1, y1), clipped to the
// frame; rows from first_row of the image on, at most max_rows of them (a partial reveal).
void n2d_blit_buffer_index8(n3d_framecontext* fc, const uint8_t* src, int32_t src_row_bytes, int32_t x0, int32_t y0,
                            int32_t x1, int32_t y1, int32_t first_row, int32_t max_rows);

// Draws the source rectangle (u0, v0)-(u1, v1) of an 8-bit linear texture, in texels of its
// full-size level, scaled onto the destination rectangle, reading from the reduced level that
// keeps the step under two texels; only rows first_row to first_row + row_count - 1 of the
// frame. With interlace, rows whose parity equals skip_parity keep their pixels. Coverage of
// every row in the band is marked in fc's current coverage, skipped rows included.
void n2d_blit_scaled_index8(n3d_framecontext* fc, const n3d_texture* texture, float x0, float y0, float x1, float y1,
                            float src_u0, float src_v0, float src_u1, float src_v1, int interlace, int skip_parity,
                            int first_row, int row_count);

// Fills every row with a colour: ARGB1555 from the three channels (alpha set), an 8-bit
// framebuffer with the index given as red.
void n2d_fb_clear_color(n3d_framebuffer* fb, uint32_t red, uint32_t green, uint32_t blue);

// Fills the rectangle (x0, y0)-(x1, y1) of an 8-bit framebuffer with an index.
void n2d_fb_i8_fill_rect(n3d_framebuffer* fb, uint8_t index, int32_t x0, int32_t y0, int32_t x1, int32_t y1);

// ---- coverage-masked operations ----
//
// cb0 selects pixels, cb1 is the previous state of a mask. Stencils placed at (x, y) have their
// top-left bit on that pixel and are clipped to every buffer involved.

// Pixels under set bits of cb0 get the index; their bits are set in out_coverage. Only frame
// rows first_row to first_row + row_count - 1 are drawn.
void n2d_fb_i8_and_cb_mask_fill_if_cb0(n3d_framebuffer* fb, n3d_coverage_buffer* out_coverage, int32_t x, int32_t y,
                                       uint8_t index, const n3d_coverage_buffer* cb0, int32_t first_row,
                                       int32_t row_count);
// As the fill, but pixels get the source framebuffer's pixel at the same position.
void n2d_fb_i8_and_cb_mask_copy_if_cb0(n3d_framebuffer* fb, n3d_coverage_buffer* out_coverage, int32_t x, int32_t y,
                                       const n3d_framebuffer* src, const n3d_coverage_buffer* cb0, int32_t first_row,
                                       int32_t row_count);

// Heal: pixels that cb1 covered and cb0 no longer covers are copied back from src; rows
// row_begin to row_end - 1. x and y must be 0.
void n2d_fb_i8_copy_if_cb1_not_cb0(n3d_framebuffer* fb, int32_t x, int32_t y, const n3d_framebuffer* src,
                                   const n3d_coverage_buffer* cb0, const n3d_coverage_buffer* cb1, int32_t row_begin,
                                   int32_t row_end);
// ARGB1555 pixels whose cb0 bit is clear get src's pixel; src may be larger than fb and cb0.
void n2d_fb_argb1555_copy_if_not_cb0(n3d_framebuffer* fb, int32_t x, int32_t y, const n3d_framebuffer* src,
                                     const n3d_coverage_buffer* cb0, int32_t row_begin, int32_t row_end);

// out bit = in bit and low <= texel <= high, over rows first_row to first_row + row_count - 1;
// the texture's first level lies under the mask from (0, 0). Other rows keep their words.
void n2d_cb_from_texture_i8_range(n3d_coverage_buffer* out, const n3d_coverage_buffer* in, const n3d_texture* texture,
                                  int32_t low, int32_t high, int32_t first_row, int32_t row_count);

// With src's top-left bit at (x, y) of dst, over dst rows row_begin to row_end - 1: the copy
// makes each dst bit the src bit; the combine sets dst bits where src bits are clear.
void n2d_cb_copy_rect(n3d_coverage_buffer* dst, int32_t x, int32_t y, const n3d_coverage_buffer* src,
                      int32_t row_begin, int32_t row_end);
void n2d_cb_or_not_rect(n3d_coverage_buffer* dst, int32_t x, int32_t y, const n3d_coverage_buffer* src,
                        int32_t row_begin, int32_t row_end);

void n2d_cb_clear(n3d_coverage_buffer* cb);
