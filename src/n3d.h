// The software 3D renderer's shared records: texel formats, framebuffers, 1-bit coverage
// buffers, 16-bit depth buffers with lazily cleared blocks, frame contexts, textures and
// vertex arrays, and the texel addressing rule (swizzled order, mip slots) that conversion,
// texture files and rasterizers all follow.
#pragma once

#include <cstdint>

#include "memarena.h"

// ---- texel formats ----

enum : uint32_t {
    N3D_TEXEL_FORMAT_NONE = 0,
    N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555 = 1,    // u8 index into the texture's ARGB1555 palette
    N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555 = 2,  // u16: bit 15 alpha, 14-10 red, 9-5 green, 4-0 blue
    N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8 = 3,      // u8 index into the overlay plane's colour table
    N3D_TEXEL_FORMAT_BUMPMAP = 4,                    // u32 bump texel; never swizzled
};
typedef uint32_t N3D_TEXEL_FORMAT;

constexpr int32_t N3D_MAX_FRAME_DIM = 2048;

// ---- frame records ----

struct n3d_framebuffer {
    N3D_TEXEL_FORMAT format;
    int32_t width;
    int32_t height;
    int32_t row_bytes;  // width x bytes per texel here; 1024 for the video plane's buffers
    uint8_t* pixels;    // pixel (x, y) at pixels + y * row_bytes + x * bytes per texel
};

// One bit per pixel, most significant bit leftmost; rows start on word boundaries because
// the width is a multiple of 32. Stencils are coverage buffers too.
struct n3d_coverage_buffer {
    uint32_t* bits;  // width * height / 8 bytes, 32-byte aligned
    uint32_t width;
    uint32_t height;
};

// Depth values are valid only where the block bit (one per 16 values, 32 bytes) is set;
// a depth-testing rasterizer zeroes a block the first time it touches it in a frame.
struct n3d_zbuffer {
    uint16_t* values;  // width * height, no row gap, 32-byte aligned
    uint32_t width;
    uint32_t height;
    n3d_coverage_buffer blocks;  // width (width >> 4) rounded up to a multiple of 32
};

enum : uint32_t {
    N3D_FRAMECONTEXT_ZBUFFER = 4,         // init creates a depth buffer
    N3D_FRAMECONTEXT_COVERAGE = 8,        // init creates the two coverage buffers
    N3D_FRAMECONTEXT_KEEP_COVERAGE = 16,  // frame start clears no coverage; no dirty clear
};

struct n3d_framecontext {
    uint32_t flags;  // as given to the last frame start
    n3d_framebuffer* framebuffer;
    n3d_zbuffer* zbuffer;               // or null
    n3d_coverage_buffer* coverage[2];   // [0] this frame's, [1] the previous frame's; or null
};

// ---- textures ----

// Mip chains are two-dimensional: every (w, h) with w in log2_w..min_log2_w and h in
// log2_h..min_log2_h is a level, at slot (log2_w - w) | ((log2_h - h) << 7).
constexpr uint32_t N3D_MIP_SLOT_H_SHIFT = 7;

struct n3d_texture {
    N3D_TEXEL_FORMAT format;
    uint32_t linear;  // 1: row after row; 0: swizzled (every rasterizer needs swizzled)
    uint32_t log2_w;
    uint32_t log2_h;
    uint32_t min_log2_w;
    uint32_t min_log2_h;
    void** mips;  // one texel block per slot; only the slots of existing levels are set
    uint32_t colors_count;      // 256 for the index formats, else 0
    uint32_t shades_per_color;  // 32 for the index formats, else 0
    void* palette;      // format 1: 256 x u16 ARGB1555; format 3: 256 bytes; else null
    void* shade_table;  // colors_count x shades_per_color: u16 (format 1) or u8 (format 3)
};

static inline uint32_t n3d_mip_slot(const n3d_texture* t, uint32_t w, uint32_t h)
{
    return (t->log2_w - w) | ((t->log2_h - h) << N3D_MIP_SLOT_H_SHIFT);
}
static inline uint32_t n3d_mip_slot_count(uint32_t log2_w, uint32_t log2_h, uint32_t min_log2_w, uint32_t min_log2_h)
{
    return ((log2_w - min_log2_w) | ((log2_h - min_log2_h) << N3D_MIP_SLOT_H_SHIFT)) + 1;
}

// Swizzled order of a texture at most 256 x 256: bands of 64 columns (bits 14-15), groups of
// four rows (bits 8-13), inside a group column by column (bits 2-7) with the four rows of a
// column adjacent (bits 0-1). The same index addresses 8-, 16- and 32-bit texels.
static inline uint32_t n3d_swizzle(uint32_t x, uint32_t y)
{
    return (y & 3) | ((x & 63) << 2) | (((y >> 2) & 63) << 8) | (((x >> 6) & 3) << 14);
}
static inline void n3d_texel_index_to_xy(uint32_t index, uint32_t* x, uint32_t* y)
{
    *x = (((index >> 14) & 3) * 64) | ((index >> 2) & 63);
    *y = (((index >> 8) & 63) * 4) | (index & 3);
}

// Fatal "not implemented texture format %d\n" for formats outside 1..4.
uint32_t n3d_texel_index(N3D_TEXEL_FORMAT format, uint32_t log2_w, uint32_t swizzled, uint32_t x, uint32_t y);
// Bytes of one level; swizzled levels take the block that reaches their last texel.
uint32_t n3d_mipmap_size(N3D_TEXEL_FORMAT format, uint32_t swizzled, uint32_t log2_w, uint32_t log2_h);
// 1, 2, 1, 4 for formats 1 to 4; fatal "bad N3D_TEXEL_FORMAT %d?\n" from `function` otherwise.
uint32_t n3d_bytes_per_texel(N3D_TEXEL_FORMAT format, const char* file, int line, const char* function);

// ---- vertex arrays ----

enum : uint32_t {
    N3D_VERTICES_XYZ = 1,
    N3D_VERTICES_UV0 = 2,
    N3D_VERTICES_N_XYZ = 4,
    N3D_VERTICES_T_XYZ = 8,
    N3D_VERTICES_B_XYZ = 16,
    N3D_VERTICES_UV1 = 32,
    N3D_VERTICES_JOINTS = 64,
    N3D_VERTICES_WEIGHTS = 128,
    N3D_VERTICES_BASE_SIX = 63,  // what flags 0 means in a file
};

// A plain triangle list: triangle i is vertices 3i, 3i + 1, 3i + 2. Present arrays are
// 32-byte aligned; absent ones are null.
struct n3d_vertices {
    uint32_t count;
    float* xyz;        // count x 3
    float* uv0;        // count x 2
    float* n_xyz;      // count x 3
    float* t_xyz;      // count x 3
    float* b_xyz;      // count x 3
    float* uv1;        // count x 2
    uint8_t* joints;   // count x 4
    float* weights;    // count x 4
};

// ---- start-up, frame contexts and clears ----

constexpr uint64_t N3D_BATCH_ARENA_SIZE = 480;  // scratch of one mesh draw call

// Float reciprocals 1/i (entry 0 holds 1.0 so that a look-up at 0 stays finite).
constexpr uint32_t N3D_RECIPROCAL_LUT_SIZE = 256;
// Span reciprocals: 1/x as 16-bit fractions, entries from N3D_FIXPT_IIW_LUT_F_SCALE2_INDEX on
// with N3D_FIXPT_IIW_LUT_F_SCALE2_BITS more bits because they have that many leading zeros.
constexpr int32_t N3D_FIXED_IIW_LUT_SIZE = 32;
constexpr int32_t N3D_FIXPT_IIW_LUT_F = 16;
constexpr int32_t N3D_FIXPT_IIW_LUT_F_SCALE2_INDEX = 3;
constexpr int32_t N3D_FIXPT_IIW_LUT_F_SCALE2_BITS = 5;

extern xmemarena* n3d_batch_arena;  // carved by n3d_init; per-call scratch of mesh rendering
extern float n3d_reciprocal_table[N3D_RECIPROCAL_LUT_SIZE];
extern int32_t n3d_fixed_iiw_lut[N3D_FIXED_IIW_LUT_SIZE];

// Once, before any drawing: batch arena, rasterizer registry, profiling names, reciprocal tables.
void n3d_init(xmemarena* arena);

void n3d_framecontext_init(n3d_framecontext* fc, xmemarena* arena, uint32_t width, uint32_t height,
                           N3D_TEXEL_FORMAT format, uint32_t flags);
// A framebuffer record over pixels someone else owns (a display plane).
void n3d_framebuffer_wrap(n3d_framebuffer* fb, N3D_TEXEL_FORMAT format, uint32_t width, uint32_t height,
                          uint32_t row_bytes, uint8_t* pixels);
void n3d_framebuffer_init_argb1555(n3d_framebuffer* fb, uint32_t width, uint32_t height, xmemarena* arena);
void n3d_framebuffer_init_index8(n3d_framebuffer* fb, uint32_t width, uint32_t height, xmemarena* arena);
void n3d_coverage_buffer_init(n3d_coverage_buffer* cb, uint32_t width, uint32_t height, xmemarena* arena);
void n3d_coverage_buffer_clear(n3d_coverage_buffer* cb);
void n3d_zbuffer_init(n3d_zbuffer* zb, uint32_t width, uint32_t height, xmemarena* arena);
// Clears only the block bits: depth values are zeroed lazily, block by block, by the rasterizers.
void n3d_zbuffer_clear(n3d_zbuffer* zb);

// ARGB1555 pixels become 0x8000 (opaque black), 8-bit pixels 0.
void n3d_framebuffer_clear(n3d_framebuffer* fb);
void n3d_framebuffer_clear_uncovered(n3d_framebuffer* fb, const n3d_coverage_buffer* cb);
// Erases what the previous frame drew and this frame did not.
void n3d_framebuffer_clear_only_dirty(n3d_framebuffer* fb, const n3d_coverage_buffer* cb_current,
                                      const n3d_coverage_buffer* cb_previous);

void n3d_framecontext_begin_frame(n3d_framecontext* fc, uint32_t flags);
void n3d_framecontext_clear_dirty(n3d_framecontext* fc);

// Debug view: covered pixels red over the dimmed old colour, the rest blue (8-bit: 255 / 0).
void n3d_coverage_buffer_display(const n3d_coverage_buffer* cb, n3d_framebuffer* fb);
// 0 when the rasterizers can draw into fb, 1 otherwise.
uint32_t n3d_framebuffer_check_dims(const n3d_framebuffer* fb);
