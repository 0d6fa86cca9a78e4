// The scene table and the control scenes: loading scenes ahead of time (at once or one per
// pass), starting and synchronising the music, fading it out and ending the show. Effect
// scenes join the table in its fixed order as they are built; the order matters because a
// sequence row binds to the first table row whose name begins with the row's function name.
#include "reel_scenes.h"

#include <climits>
#include <cstring>

#include "mad.h"
#include "music.h"

static const char* const REEL_SCENES_FILE = "src/reel_scenes";
constexpr int32_t REEL_FADE_OUT_LEAD = 66150;  // the fade starts 3 s before the row's end

// A one-entry binding array for a scene that has none yet (the argument parsers of the control
// scenes store their single value there).
static int32_t* reel_scenes_one_integer(reel_scene* scene, xmemarena* arena)
{
    if (scene->integer_count == 0) {
        scene->integers = (int32_t*)xmemarena_push_record(arena, sizeof(int32_t));
        scene->integer_count = 1;
    }
    return &scene->integers[0];
}

float reel_scene_progress(const reel_scene* scene)
{
    // a row of no duration is over as soon as it starts
    if (scene->span_seconds == 0.0f)
        return 1.0f;
    return scene->since_start_seconds / scene->span_seconds;
}

// ---- load_sync and load_async: load the scenes of every row before a label ----

struct scene_load_async_state {
    uint32_t progress;  // rows loaded so far
};

void scene_load_sync_parse_args(reel_scene* scene, reel_parse_context* ctx)
{
    const char* cursor = ctx->row->args;
    const char* name = parse_arg_string(&cursor, ctx->row, ctx->tmp_arena);
    const reel_sequence_label* label = seq_find_label(&ctx->engine->sequence, name);
    if (!label)
        crash_in(REEL_SCENES_FILE, __LINE__, "scene_load_sync_parse_args", "could not find label \"%s\" in sequence!\n",
                 name);
    *reel_scenes_one_integer(scene, ctx->arena) = (int32_t)label->row;
}

void scene_load_sync(reel_scene* scene, reel_run_context* ctx)
{
    if (scene->load_complete)
        return;
    reel_engine* e = ctx->engine;
    const uint32_t until = (uint32_t)scene->integers[0];
    for (uint32_t i = 0; i < until && i < e->scene_count; i++)
        reel_load_scene(e, &e->scenes[i], &e->sequence.rows[i]);
    scene->load_complete = 1;
}

void scene_load_async_parse_args(reel_scene* scene, reel_parse_context* ctx)
{
    scene_load_sync_parse_args(scene, ctx);
    reel_scene_state<scene_load_async_state>(scene)->progress = 0;
}

void scene_load_async(reel_scene* scene, reel_run_context* ctx)
{
    if (scene->load_complete)
        return;
    reel_engine* e = ctx->engine;
    scene_load_async_state* state = reel_scene_state<scene_load_async_state>(scene);
    if (state->progress >= (uint32_t)scene->integers[0] || state->progress >= e->scene_count) {
        scene->load_complete = 1;
        return;
    }
    reel_load_scene(e, &e->scenes[state->progress], &e->sequence.rows[state->progress]);
    state->progress += 1;  // one scene per call, so loading spreads over passes
}

// ---- music ----

void scene_music_start_parse_args(reel_scene* scene, reel_parse_context* ctx)
{
    const char* cursor = ctx->row->args;
    const char* name = parse_arg_string(&cursor, ctx->row, ctx->tmp_arena);
    if (scene->blob_count == 0) {
        scene->blobs = (reel_blob**)xmemarena_push_record(ctx->arena, sizeof(reel_blob*));
        scene->blob_count = 1;
    }
    scene->blobs[0] = reel_load_blob(ctx->engine, name);
}

void scene_music_start(reel_scene* scene, reel_run_context* ctx)
{
    scene->load_complete = 1;
    // once, in the first update pass: a render pass may come first and must not restart it later
    if (scene->ready && scene->first_update && ctx->pass == REEL_PASS_UPDATE) {
        const reel_blob* blob = scene->blobs[0];
        music_start(blob->data, (uint32_t)blob->size, 0);
    }
}

void scene_music_sync_parse_args(reel_scene* scene, reel_parse_context* ctx)
{
    (void)scene, (void)ctx;  // the sequence loader consumed the argument
}

void scene_music_sync(reel_scene* scene, reel_run_context* ctx)
{
    (void)ctx;
    scene->load_complete = 1;
}

void scene_fade_out_music_parse_args(reel_scene* scene, reel_parse_context* ctx)
{
    (void)scene, (void)ctx;
}

void scene_fade_out_music(reel_scene* scene, reel_run_context* ctx)
{
    scene->load_complete = 1;
    if (!scene->ready)
        return;
    if (scene->first_update && ctx->pass == REEL_PASS_UPDATE) {
        // in 64 bits: a span of hours and a late position may not fit the sum; the fade start is
        // a music position, so it stays within what the clock can hold
        const int64_t position = music_global.music_position.load(std::memory_order_relaxed);
        const int64_t fade_start = position + scene->span - REEL_FADE_OUT_LEAD;
        music_set_fade_start(
            (int32_t)(fade_start < INT32_MIN ? INT32_MIN : fade_start > INT32_MAX ? INT32_MAX : fade_start));
    }
    if (scene->ending)
        ctx->engine->quit = 1;  // the host loop ends after this pass
}

// ---- animated 3D scenes ----

// Every node and animation the effect names must have been found in its datapack.
void reel_madfx_validate(const reel_madfx* madfx)
{
    for (uint32_t i = 0; i < madfx->node_lut_count; i++)
        if (madfx->node_index_lut[i] == MAD_INDEX_NONE)
            crash_in(REEL_SCENES_FILE, __LINE__, "reel_madfx_validate", "node_index_lut[%d] is null!\n", (int)i);
    for (uint32_t i = 0; i < madfx->animation_lut_count; i++)
        if (madfx->animation_index_lut[i] == MAD_INDEX_NONE)
            crash_in(REEL_SCENES_FILE, __LINE__, "reel_madfx_validate", "animation_index_lut[%d] is null!\n", (int)i);
}

// ---- the table ----

const reel_scene_binding reel_scene_table[] = {
    {"load_sync", scene_load_sync, scene_load_sync_parse_args, {.integers = 1}},
    {"load_async", scene_load_async, scene_load_async_parse_args, {.integers = 1}},
    {"music_start", scene_music_start, scene_music_start_parse_args, {.blobs = 1}},
    {"music_sync", scene_music_sync, scene_music_sync_parse_args},
    {"overlay_load_progress", scene_overlay_load_progress, nullptr,
     {.integers = 7, .floats = 1, .palettes = 1, .images = 1}},
    {"overlay_stencil_animation", scene_overlay_stencil_animation, nullptr,
     {.integers = 1, .floats = 1, .stencils = 1}},
    {"overlay_rle_image", scene_overlay_rle_image, scene_overlay_rle_image_parse_args,
     {.integers = 6, .rle_images = 1}},
    {"overlay_clear", scene_overlay_clear, scene_overlay_clear_parse_args, {.integers = 1}},
    {"overlay_backbuffer_clear", scene_overlay_backbuffer_clear, scene_overlay_backbuffer_clear_parse_args,
     {.integers = 2}},
    {"overlay_stencil_set", scene_overlay_stencil_set, scene_overlay_stencil_set_parse_args,
     {.integers = 3, .stencils = 1}},
    {"overlay_clut_fade_to_color", scene_overlay_clut_fade_to_color, scene_overlay_clut_fade_to_color_parse_args,
     {.integers = 5}},
    // before overlay_clut_set1_pulsate, so that a row naming overlay_clut_set binds here
    {"overlay_clut_set", scene_overlay_clut_set, scene_overlay_clut_set_parse_args, {.palettes = 1}},
    {"overlay_heal", scene_overlay_heal, scene_overlay_heal_parse_args, {.integers = 1}},
    {"overlay_scale", scene_overlay_scale, scene_overlay_scale_parse_args, {.integers = 7, .textures = 1}},
    {"overlay_stroke", scene_overlay_stroke, scene_overlay_stroke_parse_args,
     {.integers = 5, .floats = 2, .images = 1}},
    {"overlay_palette_animation", scene_overlay_palette_animation, scene_overlay_palette_animation_parse_args,
     {.integers = 2, .floats = 1, .palette_animations = 1}},
    {"overlay_starfield", scene_overlay_starfield, scene_overlay_starfield_parse_args,
     {.integers = 6, .floats = 2, .palettes = 1, .images = 1}},
    {"overlay_clut_set1_pulsate", scene_overlay_clut_set1_pulsate, scene_overlay_clut_set1_pulsate_parse_args,
     {.integers = 7, .floats = 2}},
    {"fade_out_music", scene_fade_out_music, scene_fade_out_music_parse_args},
    {"video_clut_reset", scene_video_clut_reset, nullptr},
    {"video_clut_fade_to_color", scene_video_clut_fade_to_color, scene_video_clut_fade_to_color_parse_args,
     {.integers = 5}},
    {"video_clear", scene_video_clear, scene_video_clear_parse_args, {.integers = 3}},
    {"video_tunnel", scene_video_tunnel, scene_video_tunnel_parse_args, {.floats = 2, .textures = 1}},
    {"video_bumpmap", scene_video_bumpmap, scene_video_bumpmap_parse_args,
     {.integers = 4, .floats = 2, .stencils = 1, .textures = 2, .colours = 4}},
    {"video_background", scene_video_background, scene_video_background_parse_args, {.integers = 4, .textures = 1}},
    // before video_madpack_greets, so that a row naming video_madpack binds here
    {"video_madpack", scene_video_madpack, scene_video_madpack_parse_args, {.floats = 2, .madpacks = 1}},
    {"video_madpack_greets", scene_video_madpack_greets, scene_video_madpack_greets_parse_args,
     {.floats = 2, .madpacks = 1, .fonts = 1}},
};
const uint32_t reel_scene_table_count = sizeof(reel_scene_table) / sizeof(reel_scene_table[0]);
