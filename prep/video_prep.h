// Asset preparation for the video-plane effects: the tunnel's 256 x 256 colour map, the bump
// map's pair of textures (a palette image and its bump texels, made from a height map or a
// normal map), large background textures, and stencils from pictures; and the pictures of the
// demonstration shows made in code. Everything turns bitmaps into textures with the engine's own
// conversion, so that what a tool writes is what the effects read.
//
// Conversions return null on success, or the reason a picture cannot become that resource (for
// a tool to print beside the file's path); contract violations are fatal as everywhere.
#pragma once

#include <cstdint>

#include "bitmap.h"
#include "memarena.h"
#include "n3d.h"

constexpr uint32_t VIDEO_PREP_COLOR_MAP_SIZE = 256;
constexpr uint32_t VIDEO_PREP_MAX_SIDE = 4096;          // what the texture reader accepts, linear
constexpr uint32_t VIDEO_PREP_VIEW_WIDTH = 320;         // the video plane a background fills
constexpr uint32_t VIDEO_PREP_VIEW_HEIGHT = 240;
constexpr float VIDEO_PREP_BUMP_STRENGTH = 4.0f;        // slope scale of height maps by default
constexpr uint32_t VIDEO_PREP_STENCIL_THRESHOLD = 128;  // a pixel at least this bright and opaque is set

// The tunnel's colour map: linear ARGB1555, 256 x 256 (row = angle, column = distance). Larger
// square-or-not pictures are resampled to 256 x 256 in linear light; smaller ones are refused.
const char* video_prep_color_map(n3d_texture* texture, xmemarena* arena, xmemarena* tmp, const bitmap* picture);

// The bump map's colour texture: linear, 8-bit indices into its own 256-colour palette, with a
// shade table (which the scene relights with its material when it loads).
const char* video_prep_bump_image(n3d_texture* texture, xmemarena* arena, xmemarena* tmp, const bitmap* picture);

// Bump texels from a normal map (red, green, blue = x, y, z of the normal, each 0..255 for
// -1..1, read as plain numbers: no sRGB decoding) or from a height map (brightness = height),
// whose normals come from central differences, wrapping at the edges, scaled by strength.
const char* video_prep_bump_from_normals(n3d_texture* texture, xmemarena* arena, xmemarena* tmp,
                                         const bitmap* normals);
const char* video_prep_bump_from_heights(n3d_texture* texture, xmemarena* arena, xmemarena* tmp,
                                         const bitmap* heights, float strength);

// A background: linear ARGB1555 of power-of-two sides from 512 x 256 (the smallest that holds the
// 320 x 240 viewport) up to 4096.
const char* video_prep_background(n3d_texture* texture, xmemarena* arena, xmemarena* tmp, const bitmap* picture);

// A stencil with a bit set for each pixel at least `threshold` bright (the mean of its sRGB red,
// green and blue bytes) and at least that opaque; the width must be a multiple of 32.
const char* video_prep_stencil(n3d_coverage_buffer* stencil, xmemarena* arena, const bitmap* picture,
                               uint32_t threshold);

// ---- the demonstration shows' pictures, made in code (four-channel sRGB bitmaps) ----

// 256 x 256: eight bands around the tunnel by eight rings along it, a checker of two colour
// ramps with soft edges, seamless in both directions because both bytes wrap.
bitmap* video_prep_make_tunnel_picture(xmemarena* arena);
// 512 x 256 rounded tiles: their heights (grey) and their colours (warm stone shades).
bitmap* video_prep_make_tile_heights(xmemarena* arena);
bitmap* video_prep_make_tile_colors(xmemarena* arena);
// 320 x 256: white (set) outside a rounded window, black inside.
bitmap* video_prep_make_window_picture(xmemarena* arena);
// 1024 x 512 landscape: sky, sun, three ranges of hills and a checkered ground.
bitmap* video_prep_make_landscape(xmemarena* arena);
