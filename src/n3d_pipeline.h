// Mesh rendering: the records that say what to draw (render context, mesh, draw command) and the
// two ways from them to the triangle draw functions. The direct path renders mesh records one
// by one, with skinning and the phong mode; the draw pipeline queues up to
// N3D_PIPELINE_DRAW_CMD_MAX_COUNT commands per pass, validates them all and then draws them in
// the order they were pushed. Light and camera are brought into each mesh's model space once,
// so the per-vertex lighting needs no matrix.
#pragma once

#include <cstdint>

#include "n3d.h"
#include "n3d_camera.h"
#include "n3d_convert.h"
#include "n3d_draw.h"
#include "vmath.h"

// Draw-mode bits that only mesh rendering reads (the others are in n3d_draw.h).
constexpr uint32_t N3D_DRAW_MODE_LINES = 32;  // no line drawing exists: fatal
constexpr uint32_t N3D_DRAW_MODE_TRIANGLES = 64;

constexpr uint32_t N3D_TEXEL_FORMAT_COUNT = 5;  // N3D_TEXEL_FORMAT values 0 to 4

// Everything the direct path draws with (`tc` in its messages).
struct n3d_render_context {
    n3d_framecontext* fc;
    // per texel format, the textures a mesh's texture_id selects among
    n3d_texture* const* textures_per_format[N3D_TEXEL_FORMAT_COUNT];
    const uint8_t* const* phong_luts;  // phong table pointers (n3d_phong_lut.table) by phong_lut_id
    vec3 light;                        // world position of the single point light
    n3d_camera camera;
};

struct n3d_mesh {
    mat4x4 world_to_model;  // the inverse of model
    mat4x4 model;
    uint32_t texture_id;    // into the table of texture 0's format
    uint32_t phong_lut_id;  // into phong_luts
    n3d_vertices vertices;
    const mat4x4* joint_matrices;  // null for an unskinned mesh
    mat4x4* skin_matrices;         // one per joint: view_projection x joint matrix, updated per frame
};

// Light at the origin; the camera from view (its inverse is computed here) and fc's aspect ratio.
void n3d_render_context_init(n3d_render_context* tc, n3d_framecontext* fc,
                             n3d_texture* const* const textures_per_format[N3D_TEXEL_FORMAT_COUNT],
                             const uint8_t* const* phong_luts, const mat4x4 view, float fov_y, float near_plane);
// Once per frame before a skinned mesh is drawn.
void n3d_mesh_update_skin_matrices(n3d_mesh* mesh, uint32_t joint_count, const n3d_camera* camera);
// draw_mode must have N3D_DRAW_MODE_TRIANGLES and either N3D_DRAW_MODE_DEFAULT or
// N3D_DRAW_MODE_PHONG; texture 0 comes from the format-1 table when it has
// N3D_DRAW_MODE_TEXTURE0_INDEX8_ARGB1555, else from the format-2 table.
void n3d_render_mesh(n3d_render_context* tc, const n3d_mesh* mesh, uint32_t draw_mode);
void n3d_render_meshes(n3d_render_context* tc, const n3d_mesh* meshes, uint32_t count, uint32_t draw_mode);

// ---- draw pipeline ----

constexpr uint32_t N3D_PIPELINE_DRAW_CMD_MAX_COUNT = 100;
constexpr uint32_t N3D_PIPELINE_MAX_PRIMITIVES = 4096;  // triangles per pass

struct n3d_pipeline_draw_cmd {
    uint32_t rasterizer_flags;
    uint32_t draw_mode;
    n3d_texture* texture0;
    const n3d_phong_lut* phong_lut;  // or null
    const vec3* light;               // world position
    mat4x4 world_to_model;  // need not be model's exact inverse: lighting may use an unscaled space
    mat4x4 model;
    const n3d_vertices* vertices;
    const n3d_vertex_index* index;  // the vertices' index, or null
};

struct n3d_pipeline {
    n3d_framecontext* fc;
    const n3d_camera* camera;
    uint32_t count;  // commands queued
    n3d_pipeline_draw_cmd cmds[N3D_PIPELINE_DRAW_CMD_MAX_COUNT];  // copied in
    uint32_t primitives;  // triangles queued
};

// A pass is begin, any number of pushes, flush; begin starts from zero commands and triangles.
void n3d_pipeline_begin(n3d_pipeline* pipeline, n3d_framecontext* fc, const n3d_camera* camera);
// Fatal when the pass would exceed either limit.
void n3d_pipeline_push(n3d_pipeline* pipeline, const n3d_pipeline_draw_cmd* cmd);
// Validates every command's texture format against its rasterizer flags, then draws them in order.
void n3d_pipeline_flush(n3d_pipeline* pipeline);
