// Mesh rendering and the draw pipeline: fills draw calls from meshes or queued commands and
// calls the draw function their draw mode asks for. Nothing is sorted or culled here; the
// per-triangle work is the draw functions'.
#include "n3d_pipeline.h"

#include <cstring>

#include "diag.h"

// The model-space position of a world-space point.
static void n3d_pipeline_to_model(vec3 out, const mat4x4 world_to_model, const vec3 world)
{
    mat4x4_mul_vec3(out, world_to_model, world, 1.0f);
}

void n3d_render_context_init(n3d_render_context* tc, n3d_framecontext* fc,
                             n3d_texture* const* const textures_per_format[N3D_TEXEL_FORMAT_COUNT],
                             const uint8_t* const* phong_luts, const mat4x4 view, float fov_y, float near_plane)
{
    tc->fc = fc;
    for (uint32_t i = 0; i < N3D_TEXEL_FORMAT_COUNT; i++)
        tc->textures_per_format[i] = textures_per_format[i];
    tc->phong_luts = phong_luts;
    vec3_set(tc->light, 0.0f, 0.0f, 0.0f);
    mat4x4 camera_to_world;
    mat4x4_invert(camera_to_world, view);
    n3d_camera_init(&tc->camera, fc, view, camera_to_world, fov_y, near_plane);
}

void n3d_mesh_update_skin_matrices(n3d_mesh* mesh, uint32_t joint_count, const n3d_camera* camera)
{
    for (uint32_t i = 0; i < joint_count; i++)
        mat4x4_mul(mesh->skin_matrices[i], camera->view_projection, mesh->joint_matrices[i]);
}

void n3d_render_mesh(n3d_render_context* tc, const n3d_mesh* mesh, uint32_t draw_mode)
{
    prof_block_begin(BLOCK_RENDER_MESH);

    mat4x4 mvp;
    mat4x4_mul(mvp, tc->camera.view_projection, mesh->model);

    const uint32_t format = (draw_mode & N3D_DRAW_MODE_TEXTURE0_INDEX8_ARGB1555)
                                ? N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555
                                : N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555;
    n3d_texture* const* table = tc->textures_per_format[format];
    n3d_texture* texture0 = table ? table[mesh->texture_id] : nullptr;
    if (!texture0)
        crash_in("src/n3d", __LINE__, "n3d_render_mesh",
                 "tc->textures_per_format[texture_formats[0] == %d][mesh->texture_id == %d] is null!\n", (int)format,
                 (int)mesh->texture_id);

    n3d_draw_slots slots = {texture0, nullptr};
    n3d_draw_call call;
    memset(&call, 0, sizeof(call));
    // No flags: the draw functions choose the variant from the draw mode, and texture 0's table
    // follows the same mode bit, so the variant's texel format always matches the texture.
    call.rasterizer_flags = 0;
    call.draw_mode = draw_mode;
    call.fc = tc->fc;
    call.batch_arena = n3d_batch_arena;
    call.vertices = &mesh->vertices;
    call.textures = &slots;
    call.triangle_count = (int32_t)(mesh->vertices.count / 3);
    n3d_pipeline_to_model(call.light_position, mesh->world_to_model, tc->light);
    n3d_pipeline_to_model(call.camera_position, mesh->world_to_model, tc->camera.position);
    call.joint_matrices = mesh->joint_matrices;
    call.skin_matrices = mesh->skin_matrices;
    call.mvp = &mvp;

    if (draw_mode & N3D_DRAW_MODE_LINES) {
        if (!mesh->joint_matrices)
            crash_in("src/n3d", __LINE__, "n3d_render_mesh", "draw_mode %d for lines not implemented\n",
                     (int)draw_mode);
        crash_in("src/n3d", __LINE__, "n3d_render_mesh", "skinning not implemented for lines\n");
    }
    if (!(draw_mode & N3D_DRAW_MODE_TRIANGLES))
        crash_in("src/n3d", __LINE__, "n3d_render_mesh", "invalid draw_mode\n");

    if (!(draw_mode & N3D_DRAW_MODE_DEFAULT)) {
        if (!(draw_mode & N3D_DRAW_MODE_PHONG))
            crash_in("src/n3d", __LINE__, "n3d_render_mesh", "invalid draw_mode for triangles? %d\n", (int)draw_mode);
        slots.phong_table = tc->phong_luts ? tc->phong_luts[mesh->phong_lut_id] : nullptr;
        if (!slots.phong_table)
            crash_in("src/n3d", __LINE__, "n3d_render_mesh",
                     "N3D_DRAW_MODE_PHONG: tc->phong_luts[mesh->phong_lut_id == %d] is null!\n",
                     (int)mesh->phong_lut_id);
        const n3d_vertices* v = &mesh->vertices;
        if (!v->n_xyz || !v->t_xyz || !v->b_xyz)
            crash_in("src/n3d", __LINE__, "n3d_render_mesh",
                     "N3D_DRAW_MODE_PHONG was used but the mesh has nil on n_xyz and/or t_xyz and/or b_xyz!\n");
        n3d_draw_triangles_phong(&call);
    } else if (mesh->joint_matrices) {
        n3d_draw_triangles_skinned(&call);
    } else {
        n3d_draw_triangles(&call);
    }

    prof_block_end(BLOCK_RENDER_MESH, "src/n3d", __LINE__);
}

void n3d_render_meshes(n3d_render_context* tc, const n3d_mesh* meshes, uint32_t count, uint32_t draw_mode)
{
    for (uint32_t i = 0; i < count; i++)
        n3d_render_mesh(tc, &meshes[i], draw_mode);
}

// ---- draw pipeline ----

void n3d_pipeline_begin(n3d_pipeline* pipeline, n3d_framecontext* fc, const n3d_camera* camera)
{
    pipeline->count = 0;
    pipeline->primitives = 0;
    pipeline->fc = fc;
    pipeline->camera = camera;
}

void n3d_pipeline_push(n3d_pipeline* pipeline, const n3d_pipeline_draw_cmd* cmd)
{
    if (pipeline->count >= N3D_PIPELINE_DRAW_CMD_MAX_COUNT)
        crash_in("src/n3d_pipeline", __LINE__, "n3d_pipeline_push",
                 "reached max cmds: %d (increase N3D_PIPELINE_DRAW_CMD_MAX_COUNT)\n",
                 (int)N3D_PIPELINE_DRAW_CMD_MAX_COUNT);
    pipeline->cmds[pipeline->count++] = *cmd;
    pipeline->primitives += cmd->vertices->count / 3;
    if (pipeline->primitives > N3D_PIPELINE_MAX_PRIMITIVES)
        crash_in("src/n3d_pipeline", __LINE__, "n3d_pipeline_push",
                 "reached max primitives: %d (increase N3D_PIPELINE_MAX_PRIMITIVES)\n",
                 (int)N3D_PIPELINE_MAX_PRIMITIVES);
}

// Every command of the pass, before any of them is drawn.
static void n3d_pipeline_validate(const n3d_pipeline* pipeline)
{
    for (uint32_t i = 0; i < pipeline->count; i++) {
        const n3d_pipeline_draw_cmd* cmd = &pipeline->cmds[i];
        if (!cmd->texture0)
            continue;  // the draw function stops at it with "texture0 is null!"
        const uint32_t format = cmd->texture0->format;
        if ((cmd->rasterizer_flags & N3D_RASTERIZER_T0_I8ARGB1555) &&
            format != N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555)
            crash_in("src/n3d_pipeline", __LINE__, "n3d_pipeline_flush",
                     "cmd[%d] has rasterizer flag N3D_RASTERIZER_T0_I8ARGB1555 but texture format is not "
                     "N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555!\n",
                     (int)i);
        if ((cmd->rasterizer_flags & N3D_RASTERIZER_T0_ARGB1555) &&
            format != N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555)
            crash_in("src/n3d_pipeline", __LINE__, "n3d_pipeline_flush",
                     "cmd[%d] has rasterizer flag N3D_RASTERIZER_T0_ARGB1555 but texture format is not "
                     "N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555!\n",
                     (int)i);
    }
}

void n3d_pipeline_flush(n3d_pipeline* pipeline)
{
    n3d_pipeline_validate(pipeline);

    const n3d_camera* camera = pipeline->camera;
    for (uint32_t i = 0; i < pipeline->count; i++) {
        const n3d_pipeline_draw_cmd* cmd = &pipeline->cmds[i];
        const n3d_draw_slots slots = {cmd->texture0, cmd->phong_lut ? cmd->phong_lut->table : nullptr};
        mat4x4 mvp;
        mat4x4_mul(mvp, camera->view_projection, cmd->model);

        n3d_draw_call call;
        memset(&call, 0, sizeof(call));
        call.rasterizer_flags = cmd->rasterizer_flags;
        call.draw_mode = cmd->draw_mode;
        call.fc = pipeline->fc;
        call.batch_arena = n3d_batch_arena;
        call.vertices = cmd->vertices;
        call.index = cmd->index;
        call.textures = &slots;
        call.triangle_count = (int32_t)(cmd->vertices->count / 3);
        n3d_pipeline_to_model(call.light_position, cmd->world_to_model, *cmd->light);
        n3d_pipeline_to_model(call.camera_position, cmd->world_to_model, camera->position);
        call.mvp = &mvp;

        if (cmd->draw_mode & N3D_DRAW_MODE_PHONG)
            n3d_draw_triangles_phong(&call);
        else
            n3d_draw_triangles(&call);
    }
}
