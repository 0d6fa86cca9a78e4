// The animated 3D scene: a datapack's nodes animated and drawn into the video plane. Each
// frame the scene evaluates one animation (or two, the second on top of the first), takes its
// camera from a camera node or from the debug fly camera (key '2' switches), moves one point
// light on a fixed path, gives every index8 texture a physically based shade table from the
// engine's cache and draws in two pipeline passes: every mesh node but the special one, lit;
// then the special node, unlit with a direct-colour texture, at a fifth of its size. The
// greetings scene reuses the parser and the run function on its own datapack.
#include <cmath>
#include <cstdio>
#include <cstring>

#include "mad.h"
#include "mad_anim.h"
#include "n3d_camera.h"
#include "n3d_pipeline.h"
#include "reel_scenes.h"

static const char* const REEL_MADPACK_FILE = "src/reel_scenes";

constexpr float REEL_MADPACK_DEGREES_TO_RADIANS = 0.017453292f;
constexpr float REEL_MADPACK_FLY_FOV_Y = 0.7853982f;  // pi / 4
constexpr float REEL_MADPACK_FLY_NEAR_PLANE = 0.5f;
constexpr float REEL_MADPACK_FLY_DT = 1.0f / 60.0f;  // one displayed frame, however often update passes come
constexpr uint32_t REEL_MADPACK_KEY_FLY_CAMERA = '2';
constexpr float REEL_MADPACK_SPECIAL_SCALE = 0.2f;

// The lit pass: phong, index8 texture with an ARGB1555 palette, depth read and write, coverage
// write; the special pass: a direct-colour texture that fills only what the first left uncovered.
constexpr uint32_t REEL_MADPACK_LIT_FLAGS = N3D_RASTERIZER_PHONG | N3D_RASTERIZER_T0_I8ARGB1555 |
                                            N3D_RASTERIZER_FB_ARGB1555 | N3D_RASTERIZER_ZBUFFER_WRITE |
                                            N3D_RASTERIZER_ZBUFFER_READ | N3D_RASTERIZER_COVERAGE_WRITE;
constexpr uint32_t REEL_MADPACK_LIT_MODE = N3D_DRAW_MODE_ZBUFFER | N3D_DRAW_MODE_TEXTURE0_INDEX8_ARGB1555 |
                                           N3D_DRAW_MODE_TRIANGLES | N3D_DRAW_MODE_PHONG;
constexpr uint32_t REEL_MADPACK_SPECIAL_FLAGS =
    N3D_RASTERIZER_T0_ARGB1555 | N3D_RASTERIZER_FB_ARGB1555 | N3D_RASTERIZER_COVERAGE_READ;
constexpr uint32_t REEL_MADPACK_SPECIAL_MODE = N3D_DRAW_MODE_TEXTURE0_INDEX8_ARGB1555 | N3D_DRAW_MODE_TRIANGLES;
static_assert(REEL_MADPACK_LIT_FLAGS == 190 && REEL_MADPACK_LIT_MODE == 1220, "the lit pass's variant and mode");
static_assert(REEL_MADPACK_SPECIAL_FLAGS == 81 && REEL_MADPACK_SPECIAL_MODE == 192, "the special pass's variant");

// The look of every shade table: sRGB bytes, turned into linear light when a table is built.
static const uint8_t REEL_MADPACK_EMISSION[3] = {34, 33, 41};
static const uint8_t REEL_MADPACK_AMBIENT[3] = {26, 32, 68};
static const uint8_t REEL_MADPACK_LIGHT_COLOR[3] = {34, 33, 41};
static const vec3 REEL_MADPACK_HIGHLIGHT_COLOR = {0.74786305f, 0.0f, 1.0f};
constexpr float REEL_MADPACK_METALLIC = 0.0f;
constexpr float REEL_MADPACK_ROUGHNESS = 0.5f;

fly_camera reel_madpack_fly_camera;
uint32_t reel_madpack_fly_mode;

static scene_video_madpack_state* reel_madpack_state(reel_scene* scene)
{
    return reel_scene_state<scene_video_madpack_state>(scene);
}

void fly_camera_init(fly_camera* state, const vec3 position, float yaw_degrees)
{
    vec3_dup(state->position, position);
    state->yaw = yaw_degrees * REEL_MADPACK_DEGREES_TO_RADIANS;
    state->pitch = 0.0f;
    state->mouse_sensitivity = 0.025f;
    state->speed = 2.0f;
}

void reel_madpack_light_position(vec3 light, float seconds)
{
    const float u = 0.2f * seconds;
    const float pi = 3.14159265f;
    vec3_set(light, 5.0f * sinf(pi * u), 5.0f * cosf(pi * u), 2.0f * cosf(0.6f * pi * u) * sinf(2.0f * pi * u));
}

// ---- texture table ----

// Calls visit(primitive) for every primitive of a node's mesh whose material names an image, in
// node order, then primitive order: the order of the texture table.
template <typename Visit>
static void reel_madpack_each_textured_primitive(const mad_datapack* datapack, Visit visit)
{
    for (uint32_t i = 0; i < datapack->node_count; i++) {
        const mad_mesh* mesh = datapack->nodes[i].mesh;
        if (!mesh)
            continue;
        for (uint32_t p = 0; p < mesh->primitive_count; p++) {
            const mad_material* material = mesh->primitives[p].material;
            if (material && material->base_color_image)
                visit(material->base_color_image);
        }
    }
}

void mad_build_texture_table(reel_engine* engine, mad_datapack* datapack, xmemarena* arena, n3d_texture*** table_out,
                             uint32_t* count_out)
{
    uint32_t count = 0;
    reel_madpack_each_textured_primitive(datapack, [&](mad_image*) { count++; });
    auto** table = (n3d_texture**)xmemarena_push_align(arena, (uint64_t)count * sizeof(n3d_texture*) + 1,
                                                       alignof(n3d_texture*));
    uint32_t slot = 0;
    // one slot per primitive, so an image drawn by several primitives keeps its last slot
    reel_madpack_each_textured_primitive(datapack, [&](mad_image* image) {
        table[slot] = reel_load_texture(engine, memprintf(arena, "%s.tmap", image->name));
        image->texture_index = slot++;
    });
    *table_out = table;
    *count_out = count;
}

// ---- parse ----

static float* reel_madpack_floats(reel_scene* scene, xmemarena* arena)
{
    if (scene->float_count < 2) {
        scene->floats = (float*)xmemarena_push_align(arena, 2 * sizeof(float), alignof(float));
        scene->float_count = 2;
    }
    return scene->floats;
}

void scene_video_madpack_parse_args(reel_scene* scene, reel_parse_context* ctx)
{
    const char* cursor = ctx->row->args ? ctx->row->args : "";
    const reel_sequence_row* row = ctx->row;
    const char* pack_name = parse_arg_string(&cursor, row, ctx->tmp_arena);
    const float time_offset = parse_arg_float(&cursor, row);
    const float time_speed = parse_arg_float(&cursor, row);
    const char* animation = parse_arg_string(&cursor, row, ctx->tmp_arena);
    const char* camera = parse_arg_string(&cursor, row, ctx->tmp_arena);
    const char* special = parse_arg_string(&cursor, row, ctx->tmp_arena);
    const char* optional = parse_arg_string(&cursor, row, ctx->tmp_arena);
    const char* second_animation = parse_arg_string(&cursor, row, ctx->tmp_arena);

    if (scene->madpack_count == 0) {
        scene->madpacks = (mad_datapack**)xmemarena_push_record(ctx->arena, sizeof(mad_datapack*));
        scene->madpack_count = 1;
    }
    mad_datapack* datapack = reel_load_madpack(ctx->engine, pack_name);
    scene->madpacks[0] = datapack;

    scene_video_madpack_state* state = reel_madpack_state(scene);
    mad_build_texture_table(ctx->engine, datapack, ctx->arena, &state->textures, &state->texture_count);

    float* floats = reel_madpack_floats(scene, ctx->arena);
    floats[0] = time_offset;
    floats[1] = time_speed;

    reel_madfx* fx = &state->madfx;
    const bool two_animations = strcmp(second_animation, "0") != 0;
    fx->node_lut_count = REEL_MADPACK_NODE_LUT_COUNT;
    fx->animation_lut_count = two_animations ? 2 : 1;
    fx->node_index_lut = (uint32_t*)xmemarena_push_align(ctx->arena, 3 * sizeof(uint32_t), alignof(uint32_t));
    fx->animation_index_lut = (uint32_t*)xmemarena_push_align(ctx->arena, 2 * sizeof(uint32_t), alignof(uint32_t));
    // -1 from a failed look-up is the tables' 0xFFFFFFFF
    fx->node_index_lut[REEL_MADPACK_SPECIAL_NODE] = (uint32_t)mad_find_node(datapack, special);
    fx->node_index_lut[REEL_MADPACK_CAMERA_NODE] = (uint32_t)mad_find_node(datapack, camera);
    fx->node_index_lut[REEL_MADPACK_OPTIONAL_NODE] = (uint32_t)mad_find_node(datapack, optional);
    fx->animation_index_lut[0] = (uint32_t)mad_find_animation(datapack, animation);
    if (two_animations)
        fx->animation_index_lut[1] = (uint32_t)mad_find_animation(datapack, second_animation);
    reel_madfx_validate(fx);

    const mad_node* camera_node = &datapack->nodes[fx->node_index_lut[REEL_MADPACK_CAMERA_NODE]];
    if (!camera_node->camera)
        crash_in(REEL_MADPACK_FILE, __LINE__, "scene_video_madpack_parse_args", "node[%d] with name %s is not a camera?\n",
                 (int)REEL_MADPACK_CAMERA_NODE, camera_node->name);
}

// ---- run ----

// The cached shade table of a texture, built on its first use; the cache holds
// REEL_SHADE_TABLE_CACHE_MAX tables for the whole run, shared by every instance.
static uint16_t* reel_madpack_shade_table(reel_engine* engine, const n3d_texture* texture)
{
    for (uint32_t i = 0; i < engine->shade_table_count; i++)
        if (engine->shade_tables[i].texture == texture)
            return engine->shade_tables[i].table;
    if (engine->shade_table_count >= REEL_SHADE_TABLE_CACHE_MAX)
        crash_in(REEL_MADPACK_FILE, __LINE__, "scene_video_madpack", "exhausted REEL_SHADE_TABLE_CACHE_MAX (%d)\n",
                 (int)engine->shade_table_count);
    reel_shade_table_entry* entry = &engine->shade_tables[engine->shade_table_count++];
    vec3 emission, ambient, light_color;
    for (uint32_t c = 0; c < 3; c++) {
        emission[c] = (float)srgb_to_linear(REEL_MADPACK_EMISSION[c] / 255.0);
        ambient[c] = (float)srgb_to_linear(REEL_MADPACK_AMBIENT[c] / 255.0);
        light_color[c] = (float)srgb_to_linear(REEL_MADPACK_LIGHT_COLOR[c] / 255.0);
    }
    n3d_texture_build_shade_table_argb1555_pbr(entry->table, N3D_SHADES_PER_COLOR, N3D_PALETTE_COLORS, emission, ambient,
                                               light_color, REEL_MADPACK_HIGHLIGHT_COLOR, REEL_MADPACK_METALLIC,
                                               REEL_MADPACK_ROUGHNESS, (const uint16_t*)texture->palette);
    entry->texture = texture;
    return entry->table;
}

// A primitive's vertex index when it has one.
static const n3d_vertex_index* reel_madpack_index(const mad_primitive* primitive)
{
    return primitive->index.chunks ? &primitive->index : nullptr;
}

static n3d_texture* reel_madpack_table_texture(const scene_video_madpack_state* state, uint32_t index)
{
    return index < state->texture_count ? state->textures[index] : nullptr;
}

// The first pass: every mesh node but the special one (and the optional one unless a second
// animation runs), lit, its textures given their shade tables.
static void reel_madpack_push_lit(n3d_pipeline* pipeline, reel_engine* engine, const scene_video_madpack_state* state,
                                  const mad_datapack* datapack, const mat4x4* world, const vec3* light)
{
    const reel_madfx* fx = &state->madfx;
    const uint32_t special = fx->node_index_lut[REEL_MADPACK_SPECIAL_NODE];
    const uint32_t optional = fx->node_index_lut[REEL_MADPACK_OPTIONAL_NODE];
    const bool show_optional = fx->animation_lut_count == 2;
    for (uint32_t i = 0; i < datapack->node_count; i++) {
        const mad_mesh* mesh = datapack->nodes[i].mesh;
        if (!mesh || i == special || (i == optional && !show_optional))
            continue;
        for (uint32_t p = 0; p < mesh->primitive_count; p++) {
            const mad_primitive* primitive = &mesh->primitives[p];
            // the first pass's checks print on standard output and exit without the fatal path
            if (!primitive->material || !primitive->material->base_color_image)
                diag_exit_stdout("mesh has no base_color_image?\n");
            const mad_image* image = primitive->material->base_color_image;
            n3d_texture* texture = reel_madpack_table_texture(state, image->texture_index);
            if (!texture)
                diag_exit_stdout("failed get texture!\n");
            if (texture->format != N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555)
                diag_exit_stdout("wrong format for texture \"%s\" is %d but expected %d\n", image->name,
                                  (int)texture->format, (int)N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555);
            // the texture's own table from its file gives way for the rest of the run
            texture->shade_table = reel_madpack_shade_table(engine, texture);

            n3d_pipeline_draw_cmd cmd;
            cmd.rasterizer_flags = REEL_MADPACK_LIT_FLAGS;
            cmd.draw_mode = REEL_MADPACK_LIT_MODE;
            cmd.texture0 = texture;
            cmd.phong_lut = &engine->phong_lut;
            cmd.light = light;
            mat4x4_invert(cmd.world_to_model, world[i]);
            mat4x4_dup(cmd.model, world[i]);
            cmd.vertices = &primitive->vertices;
            cmd.index = reel_madpack_index(primitive);
            n3d_pipeline_push(pipeline, &cmd);
        }
    }
}

// The image whose texture fills table slot 0: the first textured primitive's.
static const char* reel_madpack_first_image_name(const mad_datapack* datapack)
{
    const char* name = "";
    reel_madpack_each_textured_primitive(datapack, [&](mad_image* image) {
        if (!*name)
            name = image->name;
    });
    return name;
}

// The second pass: the special node at a fifth of its size about its own origin, lit in its
// unscaled space.
static void reel_madpack_push_special(n3d_pipeline* pipeline, const scene_video_madpack_state* state,
                                      const mad_datapack* datapack, const mat4x4* world, const vec3* light)
{
    const uint32_t special = state->madfx.node_index_lut[REEL_MADPACK_SPECIAL_NODE];
    const mad_mesh* mesh = datapack->nodes[special].mesh;
    if (!mesh)
        return;
    for (uint32_t p = 0; p < mesh->primitive_count; p++) {
        const mad_primitive* primitive = &mesh->primitives[p];
        const mad_material* material = primitive->material;
        const bool has_image = material && material->base_color_image;
        // without an image slot 0 stands in; an instance with no textures at all has none to offer
        n3d_texture* texture = reel_madpack_table_texture(state, has_image ? material->base_color_image->texture_index : 0);
        if (!texture)
            crash_in(REEL_MADPACK_FILE, __LINE__, "scene_video_madpack", "failed get texture!\n");
        if (texture->format != N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555)
            crash_in(REEL_MADPACK_FILE, __LINE__, "scene_video_madpack",
                     "wrong format for texture \"%s\" is %d but expected %d\n",
                     has_image ? material->base_color_image->name : reel_madpack_first_image_name(datapack),
                     (int)texture->format, (int)N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555);
        n3d_pipeline_draw_cmd cmd;
        cmd.rasterizer_flags = REEL_MADPACK_SPECIAL_FLAGS;
        cmd.draw_mode = REEL_MADPACK_SPECIAL_MODE;
        cmd.texture0 = texture;
        cmd.phong_lut = nullptr;
        cmd.light = light;
        mat4x4_invert(cmd.world_to_model, world[special]);
        mat4x4_scale_aniso(cmd.model, world[special], REEL_MADPACK_SPECIAL_SCALE, REEL_MADPACK_SPECIAL_SCALE,
                           REEL_MADPACK_SPECIAL_SCALE);
        cmd.vertices = &primitive->vertices;
        cmd.index = reel_madpack_index(primitive);
        n3d_pipeline_push(pipeline, &cmd);
    }
}

void scene_video_madpack(reel_scene* scene, reel_run_context* ctx)
{
    if (ctx->pass == REEL_PASS_RENDER)
        return;  // everything happens in update calls
    scene_video_madpack_state* state = reel_madpack_state(scene);
    if (!state->init_done) {
        // a row bound by a scene description alone has no datapack: nothing would say which
        if (!state->madfx.node_index_lut)
            crash_in(REEL_MADPACK_FILE, __LINE__, "scene_video_madpack",
                     "needs its argument text (datapack, time offset, time speed, animation, camera, special, "
                     "optional, second animation or 0) (sequence line %d)\n",
                     ctx->row ? (int)ctx->row->line : 0);
        const vec3 origin = {0.0f, 0.0f, 0.0f};
        fly_camera_init(&reel_madpack_fly_camera, origin, 0.0f);
        state->init_done = 1;
        scene->load_complete = 1;
        return;
    }
    if (!scene->ready)
        return;

    n3d_framecontext* fc = ctx->video;
    n3d_coverage_buffer_clear(fc->coverage[0]);
    n3d_zbuffer_clear(fc->zbuffer);  // once per frame: the special pass tests against the first
    if (reel_key_pressed(ctx, REEL_MADPACK_KEY_FLY_CAMERA))
        reel_madpack_fly_mode ^= 1;

    mad_datapack* datapack = scene->madpacks[0];
    const reel_madfx* fx = &state->madfx;
    xmemarena* arena = ctx->arena;
    const uint64_t mark = xmemarena_get_sp(arena);
    auto* world = (mat4x4*)xmemarena_push_align(arena, (uint64_t)datapack->node_count * sizeof(mat4x4) + 1, 16);

    const float t = scene->floats[1] * scene->since_start_seconds + scene->floats[0];
    for (uint32_t a = 0; a < fx->animation_lut_count; a++) {
        mad_animate(datapack, fx->animation_index_lut[a], t);
        mad_compute_world_matrices(world, datapack, arena);
    }

    mat4x4 view, camera_to_world;
    float fov_y, near_plane;
    if (reel_madpack_fly_mode) {
        const int32_t mouse_delta[2] = {ctx->mouse_dx, ctx->mouse_dy};
        fly_camera_update(&reel_madpack_fly_camera, ctx->keys, mouse_delta, REEL_MADPACK_FLY_DT, view);
        mat4x4_invert(camera_to_world, view);
        fov_y = REEL_MADPACK_FLY_FOV_Y;
        near_plane = REEL_MADPACK_FLY_NEAR_PLANE;
    } else {
        const uint32_t c = fx->node_index_lut[REEL_MADPACK_CAMERA_NODE];
        mat4x4_dup(camera_to_world, world[c]);
        mat4x4_invert(view, camera_to_world);
        fov_y = datapack->nodes[c].camera->yfov;
        near_plane = datapack->nodes[c].camera->znear;
    }
    n3d_camera camera;
    n3d_camera_init(&camera, fc, view, camera_to_world, fov_y, near_plane);

    vec3 light;
    reel_madpack_light_position(light, scene->since_start_seconds);

    auto* pipeline = (n3d_pipeline*)xmemarena_push_align(arena, sizeof(n3d_pipeline), alignof(n3d_pipeline));
    n3d_pipeline_begin(pipeline, fc, &camera);
    reel_madpack_push_lit(pipeline, ctx->engine, state, datapack, world, &light);
    n3d_pipeline_flush(pipeline);

    n3d_pipeline_begin(pipeline, fc, &camera);
    reel_madpack_push_special(pipeline, state, datapack, world, &light);
    n3d_pipeline_flush(pipeline);

    xmemarena_set_sp(arena, mark);
}
