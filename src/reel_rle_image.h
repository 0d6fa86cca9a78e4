// Run-length images: overlay pictures that are mostly transparent, drawn straight from their
// encoded rows into an 8-bit framebuffer. A row is the single byte 0 when all of it is
// transparent, else pairs whose pixel counts add up to the width: (128, n) skips n pixels,
// (n, c) writes n pixels of index c (n from 1 to 127 in both). The resource reader has checked
// every row, so the drawer walks the data without checks of its own.
#pragma once

#include <cstdint>

#include "reel.h"

constexpr uint8_t REEL_RLE_EMPTY_ROW = 0;
constexpr uint8_t REEL_RLE_SKIP = 128;     // first byte of a transparent run
constexpr uint32_t REEL_RLE_MAX_RUN = 127;

enum : uint32_t {
    REEL_RLE_MODE_COLORS = 0,     // every run in its own index
    REEL_RLE_MODE_SILHOUETTE = 1, // every coloured run in one given index
};

// Draws the image with its top left at (x, y); returns y + height. An image entirely outside
// draws nothing. One that overhangs the right or bottom edge ends the process (crop messages);
// one that overhangs the left or top edge is clipped there.
int32_t reel_rle_image_draw_ex(n3d_framebuffer* fb, const reel_rle_image* image, int32_t x, int32_t y, uint32_t mode,
                               uint8_t color);
int32_t reel_rle_image_draw(n3d_framebuffer* fb, const reel_rle_image* image, int32_t x, int32_t y);
int32_t reel_rle_image_draw_color(n3d_framebuffer* fb, const reel_rle_image* image, int32_t x, int32_t y,
                                  uint8_t color);
