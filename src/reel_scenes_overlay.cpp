// Overlay scenes: run-length images placed once, stencils placed into the engine's stencil
// slots or cycled as a bobbing fill, the starfield, pen strokes revealed and erased, healing of
// last frame's drawings, a scaled texture and the load-progress bar. Every value that picks a
// back buffer, a stencil slot or an array entry, and every resource property the drawing code
// relies on, is checked once: when the argument text is parsed and again in the scene's first
// load call (a scene description may have bound the values instead), so the per-frame code
// trusts its data.
#include <cmath>
#include <cstring>
#include <numbers>

#include "music.h"
#include "n2d.h"
#include "reel_image.h"
#include "reel_rle_image.h"
#include "reel_scenes.h"
#include "reel_starfield.h"
#include "reel_stroke.h"
#include "vmath.h"

static const char* const REEL_OVERLAY_FILE = "src/reel_scenes";

constexpr float REEL_STARFIELD_CAMERA_SPEED = 0.8f;  // world units per second of scene time
constexpr double REEL_STENCIL_BOB_ROWS = 10.0;       // the stencil animation bobs +-10 rows once a second

// ---- argument arrays and checks ----

// The binding array, at least `count` long. A shorter array is replaced by a longer copy, since
// parsers store their values in the order of the argument text, not slot by slot.
template <typename T>
static T* reel_overlay_slots(T** array, uint32_t* have, xmemarena* arena, uint32_t count)
{
    if (*have < count) {
        T* longer = (T*)xmemarena_push_align(arena, count * sizeof(T), alignof(T));
        if (*have)
            memcpy((void*)longer, (const void*)*array, *have * sizeof(T));
        *array = longer;
        *have = count;
    }
    return *array;
}

static void reel_overlay_parse_integers(reel_scene* scene, reel_parse_context* ctx, const char** cursor,
                                        uint32_t first, uint32_t count)
{
    int32_t* v = reel_overlay_slots(&scene->integers, &scene->integer_count, ctx->arena, first + count);
    for (uint32_t i = 0; i < count; i++)
        v[first + i] = parse_arg_int(nullptr, cursor, ctx->row);
}

static int reel_overlay_line(const reel_sequence_row* row) { return row ? (int)row->line : 0; }

// Back buffer and stencil slot numbers beyond the engine's are refused, not wrapped.
static void reel_overlay_check_index(const char* function, const reel_sequence_row* row, const char* what,
                                     int32_t number, uint32_t count)
{
    if (number < 0 || (uint32_t)number >= count)
        crash_in(REEL_OVERLAY_FILE, __LINE__, function, "%s %d is not one of the %u overlay %ss (sequence line %d)\n",
                 what, number, count, what, reel_overlay_line(row));
}

// Float products converted to integers: NaN gives 0 and values past 32 bits saturate, where a
// plain conversion would be undefined.
static int32_t reel_overlay_trunc(double v)
{
    if (!(v == v))
        return 0;
    if (v >= 2147483647.0)
        return INT32_MAX;
    if (v <= -2147483648.0)
        return INT32_MIN;
    return (int32_t)v;
}

static float reel_overlay_clamp01(float t) { return t > 0.0f ? (t < 1.0f ? t : 1.0f) : 0.0f; }

// ---- run-length image ----

void scene_overlay_rle_image_parse_args(reel_scene* scene, reel_parse_context* ctx)
{
    const char* cursor = ctx->row->args;
    const char* name = parse_arg_string(&cursor, ctx->row, ctx->tmp_arena);  // the cache keeps its own copy
    // single-colour flag, colour index, start x, start y, end x, end y
    reel_overlay_parse_integers(scene, ctx, &cursor, 0, 6);
    reel_overlay_slots(&scene->rle_images, &scene->rle_image_count, ctx->arena, 1)[0] =
        reel_load_rle_image(ctx->engine, name);
}

void scene_overlay_rle_image(reel_scene* scene, reel_run_context* ctx)
{
    if (!scene->load_complete && ctx->pass == REEL_PASS_UPDATE)
        scene->load_complete = 1;
    if (!scene->ready || ctx->pass != REEL_PASS_RENDER || !scene->first_render)
        return;
    const int32_t* v = scene->integers;
    const float t = reel_overlay_clamp01(reel_scene_progress(scene));
    const int32_t x = reel_overlay_trunc((float)v[2] + ((float)v[4] - (float)v[2]) * t);
    const int32_t y = reel_overlay_trunc((float)v[3] + ((float)v[5] - (float)v[3]) * t);
    if (v[0])
        reel_rle_image_draw_color(ctx->overlay->framebuffer, scene->rle_images[0], x, y, (uint8_t)v[1]);
    else
        reel_rle_image_draw(ctx->overlay->framebuffer, scene->rle_images[0], x, y);
}

// ---- stencils ----

void scene_overlay_stencil_set_parse_args(reel_scene* scene, reel_parse_context* ctx)
{
    const char* cursor = ctx->row->args;
    reel_overlay_parse_integers(scene, ctx, &cursor, 0, 1);  // slot number
    const char* name = parse_arg_string(&cursor, ctx->row, ctx->tmp_arena);
    reel_overlay_parse_integers(scene, ctx, &cursor, 1, 2);  // x, y
    reel_overlay_check_index("scene_overlay_stencil_set_parse_args", ctx->row, "stencil slot", scene->integers[0],
                             REEL_STENCIL_COUNT);
    reel_overlay_slots(&scene->stencils, &scene->stencil_count, ctx->arena, 1)[0] = reel_load_stencil(ctx->engine, name);
}

void scene_overlay_stencil_set(reel_scene* scene, reel_run_context* ctx)
{
    if (!scene->load_complete) {
        reel_overlay_check_index("scene_overlay_stencil_set", ctx->row, "stencil slot", scene->integers[0],
                                 ctx->stencil_count);
    }
    scene->load_complete = 1;
    if (!scene->ready || ctx->pass != REEL_PASS_RENDER || !scene->first_render)
        return;
    // a stencil smaller than the slot sets only the bits it covers; the copy clips to both
    n3d_coverage_buffer* slot = &ctx->stencils[scene->integers[0]];
    n2d_cb_copy_rect(slot, scene->integers[1], scene->integers[2], scene->stencils[0], 0, (int32_t)slot->height);
}

void scene_overlay_stencil_animation(reel_scene* scene, reel_run_context* ctx)
{
    scene->load_complete = 1;
    if (!scene->ready || ctx->pass != REEL_PASS_RENDER)
        return;
    const float seconds = scene->since_start_seconds;
    const int32_t frame = reel_overlay_trunc(scene->floats[0] * seconds);
    // a negative frame (a seek before the start, a negative speed) counts back from the last stencil
    const int32_t count = (int32_t)scene->stencil_count;
    const int32_t number = ((frame % count) + count) % count;
    const int32_t y = reel_overlay_trunc(REEL_STENCIL_BOB_ROWS * sin(2.0 * std::numbers::pi * (double)seconds));
    n3d_framebuffer* fb = ctx->overlay->framebuffer;
    n2d_fb_i8_and_cb_mask_fill_if_cb0(fb, ctx->overlay->coverage[0], 0, y, (uint8_t)scene->integers[0],
                                      scene->stencils[number], 0, fb->height);
}

// ---- starfield ----

namespace {
struct reel_overlay_starfield_state {
    reel_starfield* starfield;  // in "demo_arena" for the rest of the run
};
}  // namespace

// Stars are counted from 1 up to the engine's limit; 0 and negative counts have no power of
// two to round to and are refused.
static void reel_overlay_check_starfield(const char* function, const reel_scene* scene, const reel_sequence_row* row,
                                         uint32_t stencil_count, uint32_t star_limit)
{
    const int32_t slot = scene->integers[0];
    if (slot != -1)
        reel_overlay_check_index(function, row, "stencil slot", slot, stencil_count);
    const int32_t count = scene->integers[1];
    if (count <= 0)
        crash_in(REEL_OVERLAY_FILE, __LINE__, function, "star count %d is not at least 1 (sequence line %d)\n", count,
                 reel_overlay_line(row));
    if ((1ull << u32_log2_ceil((uint32_t)count)) > star_limit)
        crash_in(REEL_OVERLAY_FILE, __LINE__, function, "max stars is set to %d\n", (int)star_limit);
    if (scene->palettes[0]->count == 0)
        crash_in(REEL_OVERLAY_FILE, __LINE__, function, "starfield palette has no entries (sequence line %d)\n",
                 reel_overlay_line(row));
}

// The threshold image and the stencil are read at every projected pixel: both must cover the frame.
static void reel_overlay_check_starfield_cover(const reel_scene* scene, const reel_run_context* ctx)
{
    const n3d_framebuffer* fb = ctx->overlay->framebuffer;
    const reel_image* image = scene->images[0];
    if (image && ((1u << image->texture.log2_w) < (uint32_t)fb->width ||
                  (1u << image->texture.log2_h) < (uint32_t)fb->height))
        crash_in(REEL_OVERLAY_FILE, __LINE__, "scene_overlay_starfield",
                 "threshold image of %u x %u texels does not cover the %d x %d overlay (sequence line %d)\n",
                 1u << image->texture.log2_w, 1u << image->texture.log2_h, fb->width, fb->height,
                 reel_overlay_line(ctx->row));
    const int32_t slot = scene->integers[0];
    if (slot >= 0 && (ctx->stencils[slot].width < (uint32_t)fb->width ||
                      ctx->stencils[slot].height < (uint32_t)fb->height))
        crash_in(REEL_OVERLAY_FILE, __LINE__, "scene_overlay_starfield",
                 "stencil slot %d does not cover the overlay (sequence line %d)\n", slot,
                 reel_overlay_line(ctx->row));
}

void scene_overlay_starfield_parse_args(reel_scene* scene, reel_parse_context* ctx)
{
    const char* cursor = ctx->row->args;
    reel_overlay_parse_integers(scene, ctx, &cursor, 0, 1);  // stencil slot or -1
    const char* image_name = parse_arg_string(&cursor, ctx->row, ctx->tmp_arena);
    reel_overlay_parse_integers(scene, ctx, &cursor, 1, 1);  // star count
    const char* palette_name = parse_arg_string(&cursor, ctx->row, ctx->tmp_arena);
    float* floats = reel_overlay_slots(&scene->floats, &scene->float_count, ctx->arena, 2);
    floats[0] = parse_arg_float(&cursor, ctx->row);          // yaw
    floats[1] = parse_arg_float(&cursor, ctx->row);          // pitch
    reel_overlay_parse_integers(scene, ctx, &cursor, 2, 4);  // first and last level index, x and y offset
    reel_overlay_slots(&scene->images, &scene->image_count, ctx->arena, 1)[0] =
        strcmp(image_name, "0") == 0 ? nullptr : reel_load_image(ctx->engine, image_name);
    reel_overlay_slots(&scene->palettes, &scene->palette_count, ctx->arena, 1)[0] =
        reel_load_palette(ctx->engine, palette_name);
    reel_overlay_check_starfield("scene_overlay_starfield_parse_args", scene, ctx->row, REEL_STENCIL_COUNT,
                                 REEL_STAR_COUNT);
}

// Stencil, image and offsets are set again every frame: the scene's bindings may change them.
static void reel_overlay_starfield_inputs(reel_starfield* sf, const reel_scene* scene, const reel_run_context* ctx)
{
    const int32_t slot = scene->integers[0];
    sf->stencil = slot >= 0 ? &ctx->stencils[slot] : nullptr;
    sf->image = scene->images[0];
    sf->x_offset = scene->integers[4];
    sf->y_offset = scene->integers[5];
}

void scene_overlay_starfield(reel_scene* scene, reel_run_context* ctx)
{
    reel_overlay_starfield_state* state = reel_scene_state<reel_overlay_starfield_state>(scene);
    reel_engine* engine = ctx->engine;
    n3d_framebuffer* fb = ctx->overlay->framebuffer;
    if (!scene->load_complete && ctx->pass == REEL_PASS_UPDATE) {
        reel_overlay_check_starfield("scene_overlay_starfield", scene, ctx->row, ctx->stencil_count,
                                     engine->star_count);
        reel_overlay_check_starfield_cover(scene, ctx);
        auto* sf = (reel_starfield*)xmemarena_push_record(ctx->arena, sizeof(reel_starfield));
        reel_starfield_init_i8(sf, u32_log2_ceil((uint32_t)scene->integers[1]), (reel_star*)engine->stars, 1,
                               fb->width, fb->height, scene->palettes[0], scene->integers[2], scene->integers[3],
                               ctx->arena);
        reel_overlay_starfield_inputs(sf, scene, ctx);
        sf->yaw = scene->floats[0];
        sf->pitch = scene->floats[1];
        reel_starfield_reset_all(sf);  // the camera is at the origin
        state->starfield = sf;
        scene->load_complete = 1;
    }
    if (!scene->ready || ctx->pass != REEL_PASS_RENDER)
        return;
    reel_starfield* sf = state->starfield;
    reel_overlay_starfield_inputs(sf, scene, ctx);
    sf->camera[2] = (float)((double)REEL_STARFIELD_CAMERA_SPEED * (double)scene->since_start_seconds);
    sf->yaw = scene->floats[0];
    sf->pitch = scene->floats[1];
    reel_starfield_draw_i8(sf, ctx->overlay, engine);
}

// ---- stroke ----

namespace {
struct reel_overlay_stroke_state {
    reel_stroke* stroke;  // in "demo_arena" for the rest of the run
};
}  // namespace

void scene_overlay_stroke_parse_args(reel_scene* scene, reel_parse_context* ctx)
{
    const char* cursor = ctx->row->args;
    reel_overlay_parse_integers(scene, ctx, &cursor, 0, 1);  // back buffer
    const char* name = parse_arg_string(&cursor, ctx->row, ctx->tmp_arena);
    float* floats = reel_overlay_slots(&scene->floats, &scene->float_count, ctx->arena, 2);
    floats[0] = parse_arg_float(&cursor, ctx->row);          // fade-in seconds
    floats[1] = parse_arg_float(&cursor, ctx->row);          // fade-out seconds
    reel_overlay_parse_integers(scene, ctx, &cursor, 1, 4);  // colour, origin flag, x offset, y offset
    reel_overlay_check_index("scene_overlay_stroke_parse_args", ctx->row, "back buffer", scene->integers[0],
                             REEL_BACKBUFFER_COUNT);
    reel_overlay_slots(&scene->images, &scene->image_count, ctx->arena, 1)[0] = reel_load_image(ctx->engine, name);
}

void scene_overlay_stroke(reel_scene* scene, reel_run_context* ctx)
{
    reel_overlay_stroke_state* state = reel_scene_state<reel_overlay_stroke_state>(scene);
    if (!scene->load_complete && ctx->pass == REEL_PASS_UPDATE) {
        reel_overlay_check_index("scene_overlay_stroke", ctx->row, "back buffer", scene->integers[0],
                                 ctx->backbuffer_count);
        state->stroke = (reel_stroke*)xmemarena_push_record(ctx->arena, sizeof(reel_stroke));
        reel_stroke_init(state->stroke, scene->images[0], ctx->arena);
        scene->load_complete = 1;
    }
    if (!scene->ready || ctx->pass != REEL_PASS_RENDER)
        return;
    const int32_t* v = scene->integers;
    const float fade_in = scene->floats[0], fade_out = scene->floats[1];
    const float hold = fmaxf(scene->span_seconds - fade_in - fade_out, 0.0f);
    const float seconds = scene->since_start_seconds;
    const int32_t level = reel_overlay_trunc(reel_envelope(seconds, fade_in, hold, fade_out));
    n3d_framebuffer* fb = ctx->overlay->framebuffer;
    n3d_coverage_buffer* coverage = ctx->overlay->coverage[0];
    const reel_image* image = scene->images[0];
    int32_t x = 0, y = 0;
    if (!v[2]) {
        x = fb->width / 2 - (int32_t)image->width / 2 + v[3];
        y = fb->height / 2 - (int32_t)image->height / 2 + v[4];
    }
    const n3d_framebuffer* back = ctx->backbuffers[v[0]].framebuffer;
    if (scene->ending)
        reel_stroke_erase(state->stroke, 0, fb, coverage, back, x, y, 0, fb->height);  // the whole shape
    else if (seconds > fade_in + hold)
        reel_stroke_erase(state->stroke, level, fb, coverage, back, x, y, 0, fb->height);
    else
        reel_stroke_draw(state->stroke, level, (uint8_t)v[1], fb, coverage, x, y, 0, fb->height);
}

// ---- heal ----

void scene_overlay_heal_parse_args(reel_scene* scene, reel_parse_context* ctx)
{
    const char* cursor = ctx->row->args;
    reel_overlay_parse_integers(scene, ctx, &cursor, 0, 1);
    reel_overlay_check_index("scene_overlay_heal_parse_args", ctx->row, "back buffer", scene->integers[0],
                             REEL_BACKBUFFER_COUNT);
}

void scene_overlay_heal(reel_scene* scene, reel_run_context* ctx)
{
    if (!scene->load_complete)
        reel_overlay_check_index("scene_overlay_heal", ctx->row, "back buffer", scene->integers[0],
                                 ctx->backbuffer_count);
    scene->load_complete = 1;
    if (!scene->ready || ctx->pass != REEL_PASS_RENDER)
        return;
    n3d_framecontext* o = ctx->overlay;
    n2d_fb_i8_copy_if_cb1_not_cb0(o->framebuffer, 0, 0, ctx->backbuffers[scene->integers[0]].framebuffer,
                                  o->coverage[0], o->coverage[1], 0, o->framebuffer->height);
}

// ---- scale ----

namespace {
struct reel_overlay_scale_state {
    uint32_t skip_parity;  // flipped after every drawing: interlaced frames refresh alternate rows
};
}  // namespace

void scene_overlay_scale_parse_args(reel_scene* scene, reel_parse_context* ctx)
{
    const char* cursor = ctx->row->args;
    const char* name = parse_arg_string(&cursor, ctx->row, ctx->tmp_arena);
    // interlace flag, x offset, y offset, start width, start height, end width, end height
    reel_overlay_parse_integers(scene, ctx, &cursor, 0, 7);
    reel_overlay_slots(&scene->textures, &scene->texture_count, ctx->arena, 1)[0] = reel_load_texture(ctx->engine, name);
}

void scene_overlay_scale(reel_scene* scene, reel_run_context* ctx)
{
    if (!scene->load_complete && ctx->pass == REEL_PASS_UPDATE)
        scene->load_complete = 1;
    if (!scene->ready || ctx->pass != REEL_PASS_RENDER)
        return;
    reel_overlay_scale_state* state = reel_scene_state<reel_overlay_scale_state>(scene);
    const int32_t* v = scene->integers;
    const n3d_texture* texture = scene->textures[0];
    n3d_framebuffer* fb = ctx->overlay->framebuffer;
    const float tw = (float)(1u << texture->log2_w), th = (float)(1u << texture->log2_h);
    const float t = scene->ending ? 1.0f : reel_overlay_clamp01(reel_scene_progress(scene));
    const float sw = truncf((float)v[3] + t * (float)(v[5] - v[3]));
    const float sh = truncf((float)v[4] + t * (float)(v[6] - v[4]));
    const float fx = sw / tw, fy = sh / th;
    const double half_w = (double)(fx * tw) / 2.0, half_h = (double)(fy * th) / 2.0;
    const double cx = (double)(fb->width / 2 + v[1]), cy = (double)(fb->height / 2 + v[2]);
    n2d_blit_scaled_index8(ctx->overlay, texture, (float)(cx - half_w), (float)(cy - half_h), (float)(cx + half_w),
                           (float)(cy + half_h), 0.0f, 0.0f, tw, th, v[0], (int)state->skip_parity, 0, fb->height);
    state->skip_parity = state->skip_parity == 0 ? 1 : 0;
}

// ---- load progress ----

namespace {
struct reel_overlay_progress_state {
    int32_t previous_head_x;
};
}  // namespace

// The palette entry nearest to the colour, over all four channels with the colour opaque; ties
// go to the first entry.
static uint8_t reel_overlay_nearest_index(const reel_palette* palette, const int32_t* rgb)
{
    float target[4];
    for (uint32_t c = 0; c < 3; c++)
        target[c] = (float)linear_to_srgb(srgb_to_linear((double)(uint8_t)rgb[c] / 255.0));
    target[3] = 1.0f;
    uint32_t best = 0;
    float best_distance = INFINITY;
    for (uint32_t i = 0; i < palette->count; i++) {
        float d = 0.0f;
        for (uint32_t c = 0; c < 4; c++) {
            const float e = (float)palette->entries[i * 4 + c] / 255.0f - target[c];
            d += e * e;
        }
        if (d < best_distance)
            best_distance = d, best = i;
    }
    return (uint8_t)(palette->first + best);
}

static void reel_overlay_check_progress(const reel_scene* scene, const reel_run_context* ctx)
{
    const char* function = "scene_overlay_load_progress";
    if (scene->palettes[0]->count == 0)
        crash_in(REEL_OVERLAY_FILE, __LINE__, function, "bar palette has no entries (sequence line %d)\n",
                 reel_overlay_line(ctx->row));
}

void scene_overlay_load_progress(reel_scene* scene, reel_run_context* ctx)
{
    reel_load_scene(ctx->engine, scene, ctx->row);
    if (!scene->load_complete)
        reel_overlay_check_progress(scene, ctx);
    scene->load_complete = 1;
    if (!scene->ready || ctx->pass != REEL_PASS_RENDER)
        return;
    reel_overlay_progress_state* state = reel_scene_state<reel_overlay_progress_state>(scene);
    const int32_t* v = scene->integers;  // red, green, blue, bar x, bar y, bar length, bar height
    const reel_palette* palette = scene->palettes[0];
    const uint8_t color = reel_overlay_nearest_index(palette, v);
    if (scene->first_render) {
        ctx->display->set_overlay_clut(ctx->display, palette->first, palette->count, palette->entries);
        state->previous_head_x = v[3];
    }
    // from the start of the show to the end of this row, whatever the row's start; a row that
    // ends at 0 is complete at once
    const int32_t end = ctx->row->end;
    const float p = end > 0 ? reel_overlay_clamp01((float)music_sample_counter() / (float)end) : 1.0f;
    const float bar_x = (float)v[3];
    const int32_t head_x =
        reel_overlay_trunc(bar_x + p * ((bar_x + (float)v[5] - (float)scene->images[0]->width) - bar_x));
    const int32_t count = (int32_t)scene->image_count;
    const int32_t frame = reel_overlay_trunc(scene->floats[0] * scene->clock_seconds) % count;
    const reel_image* image = scene->images[frame < 0 ? frame + count : frame];
    n2d_fb_i8_fill_rect(ctx->overlay->framebuffer, color, state->previous_head_x, v[4], head_x,
                        reel_overlay_trunc((double)v[4] + v[6]));
    reel_image_draw(ctx->overlay, (uint32_t)head_x, (uint32_t)v[4], image);
    state->previous_head_x = head_x;
}
