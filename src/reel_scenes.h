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
