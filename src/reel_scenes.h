// Scene functions and their argument parsers, one pair per row of the scene table.
//
// A new scene's table row says, in its `needs`, how many entries of each binding its run
// function reads: a scene that reads integers[0], integers[1] and textures[0] has the row
// {"video_name", scene_video_name, scene_video_name_parse_args, {.integers = 2, .textures = 1}}.
// A row bound through a scene description gets whatever the description lists (or nothing), so
// loading checks these counts after the description or the argument parser has run and ends
// with a message naming the scene, its line and the binding before the scene is first called;
// run functions then index their bindings without checks. Resources come typed: a binding of
// textures only ever holds textures (the resource cache is keyed by kind and name). Values
// inside a binding (a colour index, a back buffer number) are still the scene's to check, once,
// in its argument parser and its first load call.
#pragma once

#include "mad.h"
#include "n3d_camera.h"
#include "reel.h"

void scene_load_sync(reel_scene* scene, reel_run_context* ctx);
void scene_load_sync_parse_args(reel_scene* scene, reel_parse_context* ctx);
void scene_load_async(reel_scene* scene, reel_run_context* ctx);
void scene_load_async_parse_args(reel_scene* scene, reel_parse_context* ctx);
void scene_music_start(reel_scene* scene, reel_run_context* ctx);
void scene_music_start_parse_args(reel_scene* scene, reel_parse_context* ctx);
void scene_music_sync(reel_scene* scene, reel_run_context* ctx);
void scene_music_sync_parse_args(reel_scene* scene, reel_parse_context* ctx);
void scene_fade_out_music(reel_scene* scene, reel_run_context* ctx);
void scene_fade_out_music_parse_args(reel_scene* scene, reel_parse_context* ctx);

// A scene's since start seconds over its span seconds; 1 when the span is 0.
float reel_scene_progress(const reel_scene* scene);

// Palette and clear scenes (reel_scenes_clut.cpp).
void scene_video_clear(reel_scene* scene, reel_run_context* ctx);
void scene_video_clear_parse_args(reel_scene* scene, reel_parse_context* ctx);
void scene_video_clut_reset(reel_scene* scene, reel_run_context* ctx);
void scene_video_clut_fade_to_color(reel_scene* scene, reel_run_context* ctx);
void scene_video_clut_fade_to_color_parse_args(reel_scene* scene, reel_parse_context* ctx);
void scene_overlay_clear(reel_scene* scene, reel_run_context* ctx);
void scene_overlay_clear_parse_args(reel_scene* scene, reel_parse_context* ctx);
void scene_overlay_backbuffer_clear(reel_scene* scene, reel_run_context* ctx);
void scene_overlay_backbuffer_clear_parse_args(reel_scene* scene, reel_parse_context* ctx);
void scene_overlay_clut_set(reel_scene* scene, reel_run_context* ctx);
void scene_overlay_clut_set_parse_args(reel_scene* scene, reel_parse_context* ctx);
void scene_overlay_clut_fade_to_color(reel_scene* scene, reel_run_context* ctx);
void scene_overlay_clut_fade_to_color_parse_args(reel_scene* scene, reel_parse_context* ctx);
void scene_overlay_clut_set1_pulsate(reel_scene* scene, reel_run_context* ctx);
void scene_overlay_clut_set1_pulsate_parse_args(reel_scene* scene, reel_parse_context* ctx);
void scene_overlay_palette_animation(reel_scene* scene, reel_run_context* ctx);
void scene_overlay_palette_animation_parse_args(reel_scene* scene, reel_parse_context* ctx);

// Video-plane effects: tunnel, bump map, scrolling background (reel_scenes_video.cpp).
void scene_video_tunnel(reel_scene* scene, reel_run_context* ctx);
void scene_video_tunnel_parse_args(reel_scene* scene, reel_parse_context* ctx);
void scene_video_bumpmap(reel_scene* scene, reel_run_context* ctx);
void scene_video_bumpmap_parse_args(reel_scene* scene, reel_parse_context* ctx);
void scene_video_background(reel_scene* scene, reel_run_context* ctx);
void scene_video_background_parse_args(reel_scene* scene, reel_parse_context* ctx);
// Animated 3D scene (reel_scenes_madpack.cpp). The greetings scene calls both functions on its
// own scene record: this state sits at the start of the record's private state.
// Positions in the node table of reel_madfx.
enum : uint32_t {
    REEL_MADPACK_SPECIAL_NODE = 0,   // drawn last, unlit, at a fifth of its size
    REEL_MADPACK_CAMERA_NODE = 1,    // the camera when the fly camera is off
    REEL_MADPACK_OPTIONAL_NODE = 2,  // drawn only while a second animation runs
    REEL_MADPACK_NODE_LUT_COUNT = 3,
};
struct scene_video_madpack_state {
    n3d_texture** textures;  // one slot per textured primitive (mad_build_texture_table)
    uint32_t texture_count;
    uint32_t init_done;  // the first update call only sets up
    reel_madfx madfx;    // tables from the parse arena
};
void scene_video_madpack(reel_scene* scene, reel_run_context* ctx);
void scene_video_madpack_parse_args(reel_scene* scene, reel_parse_context* ctx);
// One texture per primitive (of a node's mesh) whose material names an image, in node and
// primitive order, loaded as "<image name>.tmap"; each image keeps the last slot loaded for it.
void mad_build_texture_table(reel_engine* engine, mad_datapack* datapack, xmemarena* arena, n3d_texture*** table_out,
                             uint32_t* count_out);
void fly_camera_init(fly_camera* state, const vec3 position, float yaw_degrees);
// The moving light at a scene's local time in seconds.
void reel_madpack_light_position(vec3 light, float seconds);
// The fly camera and whether it replaces the camera node: one of each for the whole process.
extern fly_camera reel_madpack_fly_camera;
extern uint32_t reel_madpack_fly_mode;
// Overlay scenes: run-length images, stencils, starfield, strokes, heal, scale and load
// progress (reel_scenes_overlay.cpp).
void scene_overlay_load_progress(reel_scene* scene, reel_run_context* ctx);
void scene_overlay_stencil_animation(reel_scene* scene, reel_run_context* ctx);
void scene_overlay_rle_image(reel_scene* scene, reel_run_context* ctx);
void scene_overlay_rle_image_parse_args(reel_scene* scene, reel_parse_context* ctx);
void scene_overlay_stencil_set(reel_scene* scene, reel_run_context* ctx);
void scene_overlay_stencil_set_parse_args(reel_scene* scene, reel_parse_context* ctx);
void scene_overlay_heal(reel_scene* scene, reel_run_context* ctx);
void scene_overlay_heal_parse_args(reel_scene* scene, reel_parse_context* ctx);
void scene_overlay_scale(reel_scene* scene, reel_run_context* ctx);
void scene_overlay_scale_parse_args(reel_scene* scene, reel_parse_context* ctx);
void scene_overlay_stroke(reel_scene* scene, reel_run_context* ctx);
void scene_overlay_stroke_parse_args(reel_scene* scene, reel_parse_context* ctx);
void scene_overlay_starfield(reel_scene* scene, reel_run_context* ctx);
void scene_overlay_starfield_parse_args(reel_scene* scene, reel_parse_context* ctx);

// Greetings (reel_scenes_greets.cpp): a still frame of an animated 3D scene with lines of text
// scrolling through a magnified panel in it.
void scene_video_madpack_greets(reel_scene* scene, reel_run_context* ctx);
void scene_video_madpack_greets_parse_args(reel_scene* scene, reel_parse_context* ctx);
