// The triangle rasterizer family: fifteen variants written once as a template over their
// feature bits, each instantiated under its exact name and entered into the registry. They
// fill screen-space triangles of an ARGB1555 framebuffer from a swizzled texture, in integer
// fixed point throughout: 24.8 vertices, floor-division edges with top-left filling, a
// 32-entry reciprocal table instead of a division by depth per pixel, texel coordinates
// stepped in one packed register and turned into swizzled addresses with rotate-and-mask.
#pragma once

#include <cstdint>

#include "n3d.h"
#include "n3d_draw.h"

// What a draw hands to a variant for one triangle.
struct n3d_raster_call {
    n3d_rasterizer_entry* entry;  // the variant's registry entry: its profile counters
    n3d_framecontext* fc;         // ARGB1555 framebuffer; coverage[0] and depth where used
    // x, y (screen pixels), iw (1/w), u*iw, v*iw, and for phong variants p0*iw, p1*iw
    float vertices[3][7];
    // screen-space derivatives: [u*iw, v*iw, iw], or with phong [u*iw, v*iw, p0*iw, p1*iw, iw]
    float grad_x[5];
    float grad_y[5];
    float area;        // twice the signed screen area (not read by the variants)
    float depth_norm;  // 1 / the largest iw of the three vertices
    n3d_texture* const* textures;  // entry 0 is the texture used
    const uint8_t* const* phong;   // *phong is the phong table (256 entries with guards)
    uint32_t triangle_id;
};

// ---- fixed-point formats ----

constexpr int32_t N3D_SUBPIXEL_BITS = 8;         // vertex positions are 24.8
constexpr int32_t N3D_EDGE_DELTA_SCALE = 1024;   // edge deltas dx, dy
constexpr int32_t N3D_IW_SCALE = 1024;           // iw is scaled by 1024 * s
constexpr int32_t N3D_IW_NEAREST = 480;          // the nearest vertex maps to 480 * 1024
constexpr float N3D_IW_S_MAX = 4096.0f;
constexpr int32_t N3D_IW_LUT_SHIFT = 14;         // iw >> 14 is the reciprocal-table index
constexpr int32_t N3D_UV_PRODUCT_SHIFT = 18;     // (U * r) >> 18: texels with 4 fraction bits
constexpr int32_t N3D_TEXEL_FRACTION_BITS = 4;
constexpr int32_t N3D_TEXEL_BIAS = 7;            // 7/16 texel
constexpr int32_t N3D_AFFINE_SCALE = 1024;       // affine attributes: (size - 1) * 1024
constexpr int32_t N3D_AFFINE_SHIFT = 6;          // affine value >> 6: 4 fraction bits
constexpr float N3D_DEPTH_SCALE = 8192.0f;       // depth z = iw * 8192 as u16
constexpr float N3D_PHONG_Q_SCALE = 128.0f;      // Q and its derivatives are scaled by 128 s^2
constexpr int32_t N3D_PHONG_Q_SHIFT = 8;         // ((Q >> 8) * r2) >> 16 is the phong-table index
constexpr int32_t N3D_PHONG_INDEX_SHIFT = 16;
constexpr int32_t N3D_PHONG_PRODUCT_SHIFT = 24;  // large spans: (Q * r2) >> 24
constexpr uint32_t N3D_PACKED_GAP_MASK = 0x4FC00;  // gap bits 10-15 and whole-u bit 8

// ---- small integer operations ----

// Floor division and modulo; a zero divisor is fatal ("A oh dear!" / "B oh dear!").
int32_t n3d_floor_div(int32_t a, int32_t b);
int32_t n3d_floor_mod(int32_t a, int32_t b);

// Bits are numbered 0 (most significant) to 31; mb > me wraps the mask around.
constexpr uint32_t n3d_mask_msb(uint32_t mb, uint32_t me)
{
    const uint32_t from_mb = 0xFFFFFFFFu >> mb;
    const uint32_t to_me = 0xFFFFFFFFu << (31 - me);
    return mb <= me ? (from_mb & to_me) : (from_mb | to_me);
}
constexpr uint32_t n3d_rotl32(uint32_t x, uint32_t n) { return (x << (n & 31)) | (x >> ((32 - n) & 31)); }
constexpr uint32_t rotate_and_mask(uint32_t x, uint32_t n, uint32_t mb, uint32_t me)
{
    return n3d_rotl32(x, n) & n3d_mask_msb(mb, me);
}
constexpr uint32_t rotate_and_insert(uint32_t dst, uint32_t x, uint32_t n, uint32_t mb, uint32_t me)
{
    return (dst & ~n3d_mask_msb(mb, me)) | (n3d_rotl32(x, n) & n3d_mask_msb(mb, me));
}

// Packed texel coordinate: bits 31-19 v (9 whole bits, 4 fraction bits), 18-16 whole-u bits
// 8-6, 15-10 a gap, 9-0 whole-u bits 5-0 and the u fraction.
constexpr uint32_t n3d_pack_uv(uint32_t u, uint32_t v)
{
    uint32_t w = rotate_and_insert(u, u & ~0x3FFu, 6, 0, 21);
    return rotate_and_insert(w, v, 19, 0, 12);
}
// The step: gap bits set, so that a carry out of bit 9 crosses the gap.
constexpr uint32_t n3d_pack_uv_step(uint32_t du, uint32_t dv)
{
    uint32_t w = rotate_and_insert(du, (du & ~0x3FFu) | 0x3F0u, 6, 0, 21);
    return rotate_and_insert(w, dv, 19, 0, 12);
}
// Swizzled texel index of a packed coordinate (the 16-bit byte offset is twice this).
constexpr uint32_t n3d_packed_index8(uint32_t w)
{
    uint32_t index = rotate_and_mask(w, 30, 16, 29);
    index = rotate_and_insert(index, w, 9, 30, 31);
    return rotate_and_insert(index, w, 15, 18, 23);
}

// Linear interpolation in the 256-entry float reciprocal table; x in [0, 256), else fatal.
float n3d_reciprocal_lut(float x);

// The span kernels the variants run: the portable one, or 8 pixels at a time with AVX2 (or
// AVX2 with AVX-512 permutes and masked stores) on x86-64 processors that have it. n3d_init
// picks the best the processor has, which is also the fastest; every kernel draws exactly the
// same pixels, so a lower one is only asked for to compare them.
enum n3d_raster_kernels : uint32_t {
    N3D_RASTER_KERNELS_PORTABLE = 0,
    N3D_RASTER_KERNELS_AVX2 = 1,
    N3D_RASTER_KERNELS_AVX512 = 2,  // AVX2 kernels with register permutes for table look-ups
    N3D_RASTER_KERNELS_BEST = N3D_RASTER_KERNELS_AVX512,  // the highest there is
};
// "portable", "AVX2", "AVX-512"
const char* n3d_raster_kernels_name(n3d_raster_kernels kernels);
// Uses the best kernels the processor has up to `wanted`; returns the ones now in use.
n3d_raster_kernels n3d_raster_use_kernels(n3d_raster_kernels wanted);

// The fifteen variants, in registration order.
int n3d_render_triangle_v8_affine_argb1555_t0argb1555(n3d_raster_call* c);
int n3d_render_triangle_v8_argb1555_t0argb1555(n3d_raster_call* c);
int n3d_render_triangle_v8_argb1555_t0argb1555_covrw10(n3d_raster_call* c);
int n3d_render_triangle_v8_argb1555_t0i8argb1555(n3d_raster_call* c);
int n3d_render_triangle_v8_argb1555_t0i8argb1555_covrw01(n3d_raster_call* c);
int n3d_render_triangle_v8_argb1555_t0i8argb1555_covrw11(n3d_raster_call* c);
int n3d_render_triangle_v8_argb1555_t0i8argb1555_covrw10(n3d_raster_call* c);
int n3d_render_triangle_v8_phong_argb1555_t0i8argb1555_covrw11(n3d_raster_call* c);
int n3d_render_triangle_v8_phong_argb1555_t0i8argb1555_covrw01(n3d_raster_call* c);
int n3d_render_triangle_v8_phong_argb1555_t0i8argb1555_covrw01_zbuffrw11(n3d_raster_call* c);
int n3d_render_triangle_v8_phong_argb1555_t0i8argb1555_covrw01_zbuffrw11_wip_rsqr_large_spans(n3d_raster_call* c);
int n3d_render_triangle_v8_phong_argb1555_t0i8argb1555(n3d_raster_call* c);
int n3d_render_triangle_v8_phong_argb1555_t0argb1555(n3d_raster_call* c);
int n3d_render_triangle_v8_phong_argb1555_t0argb1555_covrw01(n3d_raster_call* c);
int n3d_render_triangle_v8_phong_argb1555_t0argb1555_covrw01_mipconst(n3d_raster_call* c);
