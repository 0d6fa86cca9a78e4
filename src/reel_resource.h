// Resource blocks beyond what reel.h declares: the readers of each kind's block (which
// reel_load_resource runs over a cursor limited to the pack entry) and the writers asset
// preparation uses to produce the same blocks. Blocks carry no marker here: a resource file
// is the marker (n3d_io_write_file) followed by one block.
#pragma once

#include <cstdint>

#include "reel.h"

// Limits the readers enforce, for what the effects rely on afterwards.
constexpr uint32_t REEL_PALETTE_ENTRIES = 256;   // first + count within one colour table
constexpr uint32_t REEL_RLE_MAX_SIDE = 65535;     // keeps x + width and y + height in signed 32 bits
constexpr float REEL_FONT_MAX_METRIC = 65536.0f;  // offsets and advances stay convertible to int

// "stencil", "texture", ... for kinds 0 to 9; null for any other number.
const char* reel_kind_name(uint32_t kind);

// Readers: fill the record (arrays from arena, in file order), return the position after the
// block, which is also left in the cursor. Damaged blocks end the process naming the cursor's
// file and the fault. With in_place set and a block in the machine's order, bulk data points
// into the block, which must then outlive the record.
const uint8_t* reel_palette_read(xmemarena* arena, reel_palette* palette, stream_cursor* cur);
const uint8_t* reel_palette_animation_read(xmemarena* arena, reel_palette_animation* animation, stream_cursor* cur);
const uint8_t* reel_rle_image_read(xmemarena* arena, reel_rle_image* image, stream_cursor* cur, uint32_t in_place);
const uint8_t* reel_image_read(xmemarena* arena, reel_image* image, stream_cursor* cur, uint32_t in_place);
const uint8_t* reel_font_read(xmemarena* arena, reel_font* font, stream_cursor* cur);

// Writers: the block (no marker) at p in order; return the position after it. A field that
// does not fit its block type ends the process.
uint64_t reel_palette_write_size(const reel_palette* palette);
uint8_t* reel_palette_write(uint8_t* p, const reel_palette* palette, int32_t order);
uint64_t reel_palette_animation_write_size(const reel_palette_animation* animation);
uint8_t* reel_palette_animation_write(uint8_t* p, const reel_palette_animation* animation, int32_t order);
uint64_t reel_rle_image_write_size(const reel_rle_image* image);
uint8_t* reel_rle_image_write(uint8_t* p, const reel_rle_image* image, int32_t order);
uint64_t reel_image_write_size(const reel_image* image);
uint8_t* reel_image_write(uint8_t* p, const reel_image* image, int32_t order);
uint64_t reel_font_write_size(const reel_font* font);
uint8_t* reel_font_write(uint8_t* p, const reel_font* font, int32_t order);
