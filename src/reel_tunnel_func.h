// The tunnel: every screen pixel has a precomputed (angle, distance) pair in a 640 x 480 table;
// each frame both bytes are shifted by offsets that grow with time and the shifted pair indexes
// a 256 x 256 ARGB1555 colour map (row = angle, column = distance).
#pragma once

#include <cstdint>

#include "n3d.h"

constexpr int32_t REEL_TUNNEL_TABLE_WIDTH = 640;
constexpr int32_t REEL_TUNNEL_TABLE_HEIGHT = 480;
constexpr uint32_t REEL_TUNNEL_MAP_LOG2 = 8;  // the colour map is 256 x 256

// Entry (x, y) = angle byte << 8 | distance byte. The table is a format-2 framebuffer of any size
// (the engine's is 640 x 480, from n3d_framebuffer_init_argb1555).
void reel_tunnel_table_init(n3d_framebuffer* table);

// The colour map checks of the drawing, for a scene to make once when it loads: 256 x 256, and
// linear ARGB1555 (the loop reads 16-bit texels row after row). Fatal otherwise.
void reel_tunnel_check_color_map(const n3d_texture* color_map);

// Draws the rectangle (x0, y0)-(x1, y1), ends exclusive and clipped to the framebuffer, from the
// framebuffer-sized region centred in the table: the i-th drawn row reads the region's row i.
// Whole groups of four pixels only: the last width mod 4 columns stay as they were.
void reel_tunnel_argb1555(n3d_framecontext* fc, const n3d_texture* color_map, const n3d_framebuffer* table,
                          int32_t x0, int32_t y0, int32_t x1, int32_t y1, uint8_t distance_offset,
                          uint8_t angle_offset);
