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
