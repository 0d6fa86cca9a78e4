// The rasterizer registry and the triangle draw functions. Every rasterizer variant is entered
// once at start-up under its exact feature flags, with its name and profile counters; a draw call
// names the variant by those flags (or leaves the choice to its draw mode) and states its intent
// by a draw mode. The draw functions check that the two agree, then transform the call's
// triangles, clip them to the screen, project them, cull back faces and hand each remaining
// triangle with its screen-space gradients to the variant.
#pragma once

#include <cstdint>

#include "memarena.h"
#include "n3d.h"
#include "vmath.h"

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

// ---- draw calls ----

// What a draw call's texture pointer leads to: the rasterizer reads &texture0 as its texture array
// and &phong_table as its phong table slot, so both stay where the caller put them.
struct n3d_draw_slots {
    n3d_texture* texture0;
    const uint8_t* phong_table;  // an n3d_phong_lut's table for phong drawing, else null
};

// Distinct vertices of a triangle list, so that the vertex work (transform, outcodes,
// projection, lighting) is done once per vertex rather than once per corner. The triangles are
// cut, in their order, into chunks of at most N3D_DRAW_CHUNK_TRIANGLES triangles and
// N3D_DRAW_CHUNK_VERTICES distinct vertices; a chunk lists its distinct vertices (indices into
// the vertex arrays) and each of its corners names one of them. Two corners share a vertex only
// when every attribute array present holds the same bytes for both, so whatever a draw mode
// reads, each corner draws exactly as it would on its own.
constexpr uint32_t N3D_DRAW_CHUNK_VERTICES = 192;
constexpr uint32_t N3D_DRAW_CHUNK_TRIANGLES = 2 * N3D_DRAW_CHUNK_VERTICES;  // a grid has two per vertex
static_assert(N3D_DRAW_CHUNK_VERTICES % 12 == 0, "whole lanes, and whole triangles of a plain list");

struct n3d_vertex_chunk {
    uint32_t first_triangle;
    uint32_t triangle_count;  // at most N3D_DRAW_CHUNK_TRIANGLES
    uint32_t first_vertex;    // its distinct vertices in n3d_vertex_index.vertices
    uint32_t vertex_count;    // at most N3D_DRAW_CHUNK_VERTICES
};

struct n3d_vertex_index {
    uint32_t triangle_count;  // of the vertices it was built for
    uint32_t chunk_count;
    n3d_vertex_chunk* chunks;
    uint32_t* vertices;  // chunk after chunk, the distinct vertices in order of first use
    uint16_t* corners;   // per corner (3 per triangle), its vertex's place in its chunk's list
};

// Builds the index of v's count / 3 triangles from arena: one pass over the corners counts
// chunks and vertices, a second fills the arrays (no other memory).
void n3d_vertex_index_build(n3d_vertex_index* index, const n3d_vertices* v, xmemarena* arena);

// One mesh's triangles for one draw function.
struct n3d_draw_call {
    uint32_t rasterizer_flags;  // the variant, by its exact flags; 0 lets the draw mode choose
    uint32_t draw_mode;         // N3D_DRAW_MODE_ bits
    n3d_framecontext* fc;
    xmemarena* batch_arena;  // scratch for clipped polygons, given back before the call returns
    const n3d_vertices* vertices;
    const n3d_draw_slots* textures;
    int32_t triangle_count;  // vertices->count / 3
    vec3 light_position;     // model space
    vec3 camera_position;    // model space
    const mat4x4* joint_matrices;  // skinned meshes only, else null
    const mat4x4* skin_matrices;   // view_projection x joint matrix, one per joint
    const mat4x4* mvp;             // view_projection x model
    const n3d_vertex_index* index;  // the vertices' index, or null to work corner by corner
};

// Clipping works on polygons of projected vertices (x, y, iw, u*iw, v*iw, p0*iw, p1*iw). A
// triangle gains at most one vertex per clipping plane (the near plane and the four screen
// edges), so a clipped polygon has at most 3 + 5 vertices; the scratch holds two of them because
// each plane reads one polygon and writes the other.
constexpr uint32_t N3D_CLIP_MAX_VERTICES = 3 + 5;
constexpr uint32_t N3D_CLIP_VERTEX_FLOATS = 7;
constexpr uint64_t N3D_DRAW_SCRATCH_BYTES = 2 * N3D_CLIP_MAX_VERTICES * N3D_CLIP_VERTEX_FLOATS * sizeof(float);
constexpr uint64_t N3D_DRAW_SCRATCH_ALIGN = 32;
static_assert(N3D_DRAW_SCRATCH_BYTES <= N3D_BATCH_ARENA_SIZE, "a draw call's scratch must fit the batch arena");

// The triangle being handed to a rasterizer (its index in its draw call), for diagnostics.
extern uint32_t n3d_current_triangle_id;

// Each returns the number of triangles the rasterizer reported as drawn. Fatal when the frame
// context, texture 0, the rasterizer flags and the draw mode do not fit together.
int32_t n3d_draw_triangles(const n3d_draw_call* call);
// Clip positions are the weighted sums of the four joints' skin matrices times the position.
int32_t n3d_draw_triangles_skinned(const n3d_draw_call* call);
// Adds the per-vertex half-vector terms (H.T, H.B) that the phong variants light with.
int32_t n3d_draw_triangles_phong(const n3d_draw_call* call);

// Every variant's non-empty profile blocks against the frame profiler's total, on stdout.
void n3d_profile_report_rasterizers();
