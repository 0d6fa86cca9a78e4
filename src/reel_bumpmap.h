// The bump map: a palette image lit per pixel by a point light that moves over it. Each pixel
// turns its bump texel (a tilted normal and a height term) and the direction to the light into
// an index of the phong table, whose shade selects the lit colour of the pixel's palette index in
// the colour texture's shade table.
#pragma once

#include <cstdint>

#include "n3d.h"

// Lissajous path of the light over the image plane: periods in seconds and amplitude.
constexpr double REEL_BUMPMAP_LIGHT_PERIOD_X = 10.0;
constexpr double REEL_BUMPMAP_LIGHT_PERIOD_Y = 5.0;
constexpr double REEL_BUMPMAP_LIGHT_RADIUS = 1.5;

// The kernels of the drawing's float part: the portable ones (four pixels at a time with SSE2,
// else one), or eight pixels at a time with AVX2 and FMA on x86-64 processors that have them.
// Every kernel gives the same pixels; the first draw picks the best the processor has unless a
// choice was made before.
enum reel_bumpmap_kernel_set : uint32_t {
    REEL_BUMPMAP_KERNELS_PORTABLE = 0,
    REEL_BUMPMAP_KERNELS_AVX2 = 1,
};
// Uses the best kernels the processor has up to `wanted`; returns the ones now in use.
reel_bumpmap_kernel_set reel_bumpmap_use_kernels(reel_bumpmap_kernel_set wanted);

// The texture checks of the drawing, for a scene to make once when it loads: same size (else the
// message and exit status 1), the formats and linear layout, a 256 x 32 shade table (fatal).
void reel_bumpmap_check_textures(const n3d_texture* bump, const n3d_texture* color);

// Draws the source rectangle (src_x0, src_y0)-(src_x1, src_y1) of the textures at (x, y) of the
// framebuffer, clipped to the framebuffer and to the textures, with the light where it is t
// seconds into its path. The bump texture is format 4, the colour texture format 1 with its
// shade table, both linear and of one size; phong is the phong table (256 shades).
void reel_bumpmap_argb1555(n3d_framebuffer* fb, float t, int32_t x, int32_t y, int32_t src_x0, int32_t src_y0,
                           int32_t src_x1, int32_t src_y1, const n3d_texture* bump, const n3d_texture* color,
                           const uint8_t* phong);
