// Scene functions and their argument parsers, one pair per row of the scene table.
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
