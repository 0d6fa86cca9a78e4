// The rasterizer registry: every triangle rasterizer variant is entered once at start-up under
// its exact feature flags, with its name and profile counters, and draw calls find the variant
// by those flags. Also the draw-mode bits by which a draw call states its intent.
#pragma once

#include <cstdint>

#include "n3d.h"

// Feature bits of a variant; a variant is found only by exactly equal flags.
enum : uint32_t {
    N3D_RASTERIZER_COVERAGE_READ = 1,           // skip pixels already covered this frame
    N3D_RASTERIZER_COVERAGE_WRITE = 2,          // mark drawn spans in coverage[0]
    N3D_RASTERIZER_ZBUFFER_READ = 4,            // depth test
    N3D_RASTERIZER_ZBUFFER_WRITE = 8,           // depth write
    N3D_RASTERIZER_FB_ARGB1555 = 16,            // every variant draws into ARGB1555
    N3D_RASTERIZER_T0_I8ARGB1555 = 32,          // texture 0 holds 8-bit indices
    N3D_RASTERIZER_T0_ARGB1555 = 64,            // texture 0 holds ARGB1555 texels
    N3D_RASTERIZER_PHONG = 128,                 // per-pixel lighting term from the phong table
    N3D_RASTERIZER_AFFINE = 256,                // affine texturing (the mipconst variant carries it too)
    N3D_RASTERIZER_WIP_RSQR_LARGE_SPANS = 1024, // lighting index stepped as a product over long spans
};

// Draw-mode bits of a draw call (32 lines and 64 triangles belong to the draw pipeline).
enum : uint32_t {
    N3D_DRAW_MODE_DEFAULT = 1,
    N3D_DRAW_MODE_PHONG = 4,
    N3D_DRAW_MODE_TEXTURE0_INDEX8_ARGB1555 = 128,
    N3D_DRAW_MODE_COVERAGE = 512,  // with no rasterizer named: the coverage-writing variants
    N3D_DRAW_MODE_ZBUFFER = 1024,  // with no rasterizer named: the depth variant
};

// The profile blocks every variant times, in this order.
enum : uint32_t {
    N3D_RASTERIZER_BLOCK_SETUP = 0,
    N3D_RASTERIZER_BLOCK_INNER = 1,
    N3D_RASTERIZER_BLOCK_INNER_ROW = 2,
    N3D_RASTERIZER_BLOCK_INNER_SCANLINE = 3,
    N3D_RASTERIZER_BLOCK_SPAN_SETUP = 4,  // named, but no variant times it
    N3D_RASTERIZER_BLOCK_COUNT = 5,
};

// Fifteen variants exist; the spare entries leave room for experiments without a bound check
// on every registration.
constexpr uint32_t N3D_RASTERIZER_TABLE_CAPACITY = 32;

struct n3d_raster_call;
struct n3d_rasterizer_entry;

// 1 when the triangle was processed, 0 when it lies outside the usable depth range.
typedef int n3d_rasterizer_fn(n3d_raster_call* call);
// Fills the entry's block names.
typedef void n3d_rasterizer_names_fn(n3d_rasterizer_entry* entry);

struct n3d_rasterizer_block {
    uint64_t start;   // cycle counter at the block's begin
    uint64_t cycles;  // accumulated
    uint32_t hits;
};

struct n3d_rasterizer_entry {
    uint32_t flags;  // N3D_RASTERIZER_ bits; unique in the table
    const char* name;
    uint32_t attribute_count;  // interpolated besides iw: 2 (u, v), 4 with phong (u, v, p0, p1)
    n3d_rasterizer_fn* rasterizer;
    n3d_rasterizer_names_fn* names;
    uint32_t block_count;
    const char* block_names[N3D_RASTERIZER_BLOCK_COUNT];
    n3d_rasterizer_block blocks[N3D_RASTERIZER_BLOCK_COUNT];
};

extern n3d_rasterizer_entry n3d_rasterizer_table[N3D_RASTERIZER_TABLE_CAPACITY];
extern uint32_t n3d_rasterizer_table_count;

// Enters every variant, in a fixed order; called once by n3d_init.
void n3d_register_rasterizers();
// Appends one variant; fatal when its flags are already in the table.
void n3d_register_rasterizer(const char* name, uint32_t attribute_count, n3d_rasterizer_fn* rasterizer,
                             n3d_rasterizer_names_fn* names, uint32_t flags, const char* file, int line);
// The entry index with exactly these flags, or -1.
int32_t n3d_find_rasterizer(uint32_t flags);
