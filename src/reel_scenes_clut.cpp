// Palette and clear scenes: clears of the video plane, the overlay plane and an overlay back
// buffer; setting, resetting, fading and pulsing colour-table entries; and the palette
// animation, which shows an index image on the overlay and cycles its colours through a list of
// palettes. Every value that addresses a colour table or a back buffer is checked once, when
// the argument text is parsed and again in the scene's load call (a scene description may have
// bound the values instead), so that the per-frame code trusts its data.
#include <cmath>
#include <cstring>
#include <numbers>

#include "n2d.h"
#include "reel_scenes.h"
#include "vmath.h"

static const char* const REEL_CLUT_FILE = "src/reel_scenes";

// The fades blend in 16.16: a weight of REEL_CLUT_FADE_ONE is all target.
constexpr int32_t REEL_CLUT_FADE_BITS = 16;
constexpr uint32_t REEL_CLUT_FADE_ONE = 1u << REEL_CLUT_FADE_BITS;
// The overlay fade reaches its target at this fraction of the span and holds it.
constexpr double REEL_CLUT_OVERLAY_FADE_END = 0.9;
// video_clear keeps filling while the scene has had at most this many update runs.
constexpr uint32_t REEL_VIDEO_CLEAR_UPDATE_RUNS = 2;

enum : int32_t {
    REEL_PALETTE_ANIMATION_LOOP = 0,
    REEL_PALETTE_ANIMATION_HOLD = 1,
    REEL_PALETTE_ANIMATION_REVERSE_ONCE = 2,
    REEL_PALETTE_ANIMATION_FORTH_AND_BACK = 3,
};

// ---- argument arrays and checks ----

// NaN gives 0, so that no weight or blend factor leaves [0, 1].
static double reel_clut_clamp01(double t) { return t > 0.0 ? (t < 1.0 ? t : 1.0) : 0.0; }

// The integer array, at least `count` long. A shorter array is replaced, not copied: every
// caller then stores all `count` slots.
static int32_t* reel_clut_integers(reel_scene* scene, xmemarena* arena, uint32_t count)
{
    if (scene->integer_count < count) {
        scene->integers = (int32_t*)xmemarena_push_align(arena, count * sizeof(int32_t), alignof(int32_t));
        scene->integer_count = count;
    }
    return scene->integers;
}

static float* reel_clut_floats(reel_scene* scene, xmemarena* arena, uint32_t count)
{
    if (scene->float_count < count) {
        scene->floats = (float*)xmemarena_push_align(arena, count * sizeof(float), alignof(float));
        scene->float_count = count;
    }
    return scene->floats;
}

static void reel_clut_parse_integers(int32_t* values, uint32_t count, const char** cursor, const reel_sequence_row* row)
{
    for (uint32_t i = 0; i < count; i++)
        values[i] = parse_arg_int(nullptr, cursor, row);
}

static void reel_clut_store_integers(reel_scene* scene, xmemarena* arena, const int32_t* values, uint32_t count)
{
    memcpy(reel_clut_integers(scene, arena, count), values, count * sizeof(int32_t));
}

static int reel_clut_line(const reel_sequence_row* row) { return row ? (int)row->line : 0; }

static void reel_clut_check_backbuffer(const char* function, const reel_sequence_row* row, int32_t number,
                                       uint32_t backbuffer_count)
{
    if (number < 0 || (uint32_t)number >= backbuffer_count)
        crash_in(REEL_CLUT_FILE, __LINE__, function,
                 "back buffer %d is not one of the %u overlay back buffers (sequence line %d)\n", number,
                 backbuffer_count, reel_clut_line(row));
}

// Fade ranges that run past entry 255 are refused rather than clipped: the script asked for
// entries that do not exist, and the hooks would copy past the end of the table.
static void reel_clut_check_fade(const char* function, const reel_scene* scene, const reel_sequence_row* row)
{
    const int64_t first = scene->integers[0];
    const int64_t count = scene->integers[1];
    if (first < 0 || count < 0 || first + count > (int64_t)DISPLAY_CLUT_ENTRIES)
        crash_in(REEL_CLUT_FILE, __LINE__, function,
                 "fade of %lld entries from %lld is not inside the %u entries of a colour table (sequence line %d)\n",
                 (long long)count, (long long)first, DISPLAY_CLUT_ENTRIES, reel_clut_line(row));
}

static void reel_clut_check_pulsate(const char* function, const reel_scene* scene, const reel_sequence_row* row)
{
    const int32_t index = scene->integers[0];
    if (index < 0 || (uint32_t)index >= DISPLAY_CLUT_ENTRIES)
        crash_in(REEL_CLUT_FILE, __LINE__, function,
                 "colour index %d is not inside the %u entries of a colour table (sequence line %d)\n", index,
                 DISPLAY_CLUT_ENTRIES, reel_clut_line(row));
}

// Modes outside 0 to 3 are refused: a mistyped mode is a script error, better reported than
// shown as some palette.
static void reel_clut_check_palette_animation(const char* function, const reel_scene* scene,
                                              const reel_sequence_row* row, uint32_t backbuffer_count)
{
    reel_clut_check_backbuffer(function, row, scene->integers[0], backbuffer_count);
    const int32_t mode = scene->integers[1];
    if (mode < REEL_PALETTE_ANIMATION_LOOP || mode > REEL_PALETTE_ANIMATION_FORTH_AND_BACK)
        crash_in(REEL_CLUT_FILE, __LINE__, function,
                 "palette animation mode %d is none of 0 (loop), 1 (hold), 2 (reverse once), 3 (forth and back) "
                 "(sequence line %d)\n",
                 mode, reel_clut_line(row));
    if (scene->palette_animations[0]->palette_count == 0)
        crash_in(REEL_CLUT_FILE, __LINE__, function, "palette animation without palettes (sequence line %d)\n",
                 reel_clut_line(row));
}

// ---- clears ----

void scene_video_clear_parse_args(reel_scene* scene, reel_parse_context* ctx)
{
    const char* cursor = ctx->row->args;
    int32_t values[3];  // red, green, blue; only their low bytes are used, as n2d_fb_clear_color does
    reel_clut_parse_integers(values, 3, &cursor, ctx->row);
    reel_clut_store_integers(scene, ctx->arena, values, 3);
}

void scene_video_clear(reel_scene* scene, reel_run_context* ctx)
{
    scene->load_complete = 1;
    if (!scene->ready || ctx->pass != REEL_PASS_RENDER)
        return;
    // only over the scene's first update runs: it lays a backdrop once and then leaves the
    // plane to the scenes drawn over it, rather than clearing every frame
    if (scene->update_runs <= REEL_VIDEO_CLEAR_UPDATE_RUNS)
        n2d_fb_clear_color(ctx->video->framebuffer, (uint32_t)scene->integers[0], (uint32_t)scene->integers[1],
                           (uint32_t)scene->integers[2]);
}

void scene_video_clut_reset(reel_scene* scene, reel_run_context* ctx)
{
    if (!scene->load_complete && ctx->pass == REEL_PASS_UPDATE)
        scene->load_complete = 1;
    if (!scene->ready || ctx->pass != REEL_PASS_UPDATE || !scene->first_update)
        return;
    const reel_palette* grey = &ctx->display->default_video_clut;
    ctx->display->set_video_clut(ctx->display, grey->first, grey->count, grey->entries);
}

void scene_overlay_clear_parse_args(reel_scene* scene, reel_parse_context* ctx)
{
    const char* cursor = ctx->row->args;
    int32_t index;  // only its low byte is used, as n2d_fb_clear_color does
    reel_clut_parse_integers(&index, 1, &cursor, ctx->row);
    reel_clut_store_integers(scene, ctx->arena, &index, 1);
}

void scene_overlay_clear(reel_scene* scene, reel_run_context* ctx)
{
    scene->load_complete = 1;
    if (!scene->ready || ctx->pass != REEL_PASS_RENDER || !scene->first_render)
        return;
    n2d_fb_clear_color(ctx->overlay->framebuffer, (uint32_t)scene->integers[0], 0, 0);
}

void scene_overlay_backbuffer_clear_parse_args(reel_scene* scene, reel_parse_context* ctx)
{
    const char* cursor = ctx->row->args;
    int32_t values[2];  // back buffer number, colour index
    reel_clut_parse_integers(values, 2, &cursor, ctx->row);
    reel_clut_check_backbuffer("scene_overlay_backbuffer_clear_parse_args", ctx->row, values[0],
                               REEL_BACKBUFFER_COUNT);
    reel_clut_store_integers(scene, ctx->arena, values, 2);
}

void scene_overlay_backbuffer_clear(reel_scene* scene, reel_run_context* ctx)
{
    if (!scene->load_complete) {
        reel_clut_check_backbuffer("scene_overlay_backbuffer_clear", ctx->row, scene->integers[0],
                                   ctx->backbuffer_count);
    }
    scene->load_complete = 1;
    if (!scene->ready || ctx->pass != REEL_PASS_RENDER || !scene->first_render)
        return;
    n2d_fb_clear_color(ctx->backbuffers[scene->integers[0]].framebuffer, (uint32_t)scene->integers[1], 0, 0);
}

// ---- setting a palette ----

void scene_overlay_clut_set_parse_args(reel_scene* scene, reel_parse_context* ctx)
{
    const char* cursor = ctx->row->args;
    const char* name = parse_arg_string(&cursor, ctx->row, ctx->tmp_arena);  // the cache keeps its own copy
    if (scene->palette_count == 0) {
        scene->palettes = (reel_palette**)xmemarena_push_align(ctx->arena, sizeof(reel_palette*), alignof(reel_palette*));
        scene->palette_count = 1;
    }
    scene->palettes[0] = reel_load_palette(ctx->engine, name);
}

void scene_overlay_clut_set(reel_scene* scene, reel_run_context* ctx)
{
    scene->load_complete = 1;
    if (!scene->ready || ctx->pass != REEL_PASS_RENDER || !scene->first_render)
        return;
    // the palette loader has checked that first + count stays inside the table
    const reel_palette* palette = scene->palettes[0];
    ctx->display->set_overlay_clut(ctx->display, palette->first, palette->count, palette->entries);
}

// ---- fades ----

namespace {
struct reel_clut_fade_state {
    reel_palette* from;  // the table's entries when the fade began, in "demo_arena" for the rest of the run
};
}  // namespace

static void reel_clut_fade_parse(reel_scene* scene, reel_parse_context* ctx, const char* function)
{
    const char* cursor = ctx->row->args;
    int32_t values[5];  // first index, count, red, green, blue
    reel_clut_parse_integers(values, 5, &cursor, ctx->row);
    reel_clut_store_integers(scene, ctx->arena, values, 5);
    reel_clut_check_fade(function, scene, ctx->row);
}

// One algorithm for both tables; `overlay` picks the table, its hooks and its timing.
static void reel_clut_fade(reel_scene* scene, reel_run_context* ctx, bool overlay, const char* function)
{
    reel_clut_fade_state* state = reel_scene_state<reel_clut_fade_state>(scene);
    if (!scene->load_complete && ctx->pass == REEL_PASS_UPDATE) {
        reel_clut_check_fade(function, scene, ctx->row);
        reel_palette* from = (reel_palette*)xmemarena_push_record(ctx->arena, sizeof(reel_palette));
        from->first = (uint32_t)scene->integers[0];
        from->count = (uint32_t)scene->integers[1];
        from->entries = (uint8_t*)xmemarena_push_zero(ctx->arena, (uint64_t)from->count * 4);
        state->from = from;
        scene->load_complete = 1;
    }
    if (!scene->ready || ctx->pass != REEL_PASS_RENDER)
        return;
    display_device* display = ctx->display;
    const reel_palette* from = state->from;
    if (scene->first_render) {
        // the fade starts from the table as the render passes have left it; nothing changes yet
        if (overlay)
            display->get_overlay_clut(display, from->first, from->count, from->entries);
        else
            display->get_video_clut(display, from->first, from->count, from->entries);
        return;
    }

    double t = reel_scene_progress(scene);
    if (overlay)
        t = scene->ending ? 1.0 : t / REEL_CLUT_OVERLAY_FADE_END;  // the end call lands on the target exactly
    t = reel_clut_clamp01(t);
    const uint32_t w = (uint32_t)(t * REEL_CLUT_FADE_ONE);
    const uint32_t iw = REEL_CLUT_FADE_ONE - w;
    // channels are bytes: only the low byte of a target counts, as in the clears
    const uint32_t target[3] = {(uint8_t)scene->integers[2], (uint8_t)scene->integers[3], (uint8_t)scene->integers[4]};

    const uint64_t mark = xmemarena_get_sp(ctx->arena);
    uint8_t* out = (uint8_t*)xmemarena_push_zero(ctx->arena, (uint64_t)from->count * 4);  // alpha stays 0
    for (uint32_t k = 0; k < from->count; k++)
        for (uint32_t c = 0; c < 3; c++)
            out[k * 4 + c] = (uint8_t)((iw * from->entries[k * 4 + c] + w * target[c]) >> REEL_CLUT_FADE_BITS);
    if (overlay)
        display->set_overlay_clut(display, from->first, from->count, out);
    else
        display->set_video_clut(display, from->first, from->count, out);
    xmemarena_set_sp(ctx->arena, mark);
}

void scene_overlay_clut_fade_to_color_parse_args(reel_scene* scene, reel_parse_context* ctx)
{
    reel_clut_fade_parse(scene, ctx, "scene_overlay_clut_fade_to_color_parse_args");
}

void scene_overlay_clut_fade_to_color(reel_scene* scene, reel_run_context* ctx)
{
    reel_clut_fade(scene, ctx, true, "scene_overlay_clut_fade_to_color");
}

void scene_video_clut_fade_to_color_parse_args(reel_scene* scene, reel_parse_context* ctx)
{
    reel_clut_fade_parse(scene, ctx, "scene_video_clut_fade_to_color_parse_args");
}

void scene_video_clut_fade_to_color(reel_scene* scene, reel_run_context* ctx)
{
    reel_clut_fade(scene, ctx, false, "scene_video_clut_fade_to_color");
}

// ---- one pulsing entry ----

void scene_overlay_clut_set1_pulsate_parse_args(reel_scene* scene, reel_parse_context* ctx)
{
    const char* cursor = ctx->row->args;
    int32_t values[7];  // colour index, then red, green, blue of colour 1 and of colour 2
    reel_clut_parse_integers(&values[0], 1, &cursor, ctx->row);
    const float phase = parse_arg_float(&cursor, ctx->row);      // cycles
    const float frequency = parse_arg_float(&cursor, ctx->row);  // cycles per second
    reel_clut_parse_integers(&values[1], 6, &cursor, ctx->row);
    reel_clut_store_integers(scene, ctx->arena, values, 7);
    float* floats = reel_clut_floats(scene, ctx->arena, 2);
    floats[0] = frequency;
    floats[1] = phase;
    reel_clut_check_pulsate("scene_overlay_clut_set1_pulsate_parse_args", scene, ctx->row);
}

void scene_overlay_clut_set1_pulsate(reel_scene* scene, reel_run_context* ctx)
{
    if (!scene->load_complete)
        reel_clut_check_pulsate("scene_overlay_clut_set1_pulsate", scene, ctx->row);
    scene->load_complete = 1;
    if (!scene->ready || ctx->pass != REEL_PASS_RENDER || scene->ending)
        return;
    const int32_t* v = scene->integers;
    const float a = scene->floats[0] * scene->since_start_seconds + scene->floats[1];
    const double t = reel_clut_clamp01(0.5 + 0.5 * sin(2.0 * std::numbers::pi * (double)a));
    // blended in linear light so that the midway colour looks midway; alpha (1/255) is carried
    // along unused, the composition shows no overlay alpha
    const uint8_t bytes1[4] = {(uint8_t)v[1], (uint8_t)v[2], (uint8_t)v[3], 1};
    const uint8_t bytes2[4] = {(uint8_t)v[4], (uint8_t)v[5], (uint8_t)v[6], 1};
    vec4 c1, c2, c;
    color_srgb_bytes_to_linear(c1, bytes1);
    color_srgb_bytes_to_linear(c2, bytes2);
    vec4_lerp_clamped(c, c1, c2, (float)t);
    uint8_t entry[4];
    color_linear_to_srgb_bytes(entry, c);
    ctx->display->set_overlay_clut(ctx->display, (uint32_t)v[0], 1, entry);
}

// ---- palette animation ----

namespace {
struct reel_clut_animation_state {
    uint32_t rows_copied;  // rows of the index image already in the back buffer
};
}  // namespace

void scene_overlay_palette_animation_parse_args(reel_scene* scene, reel_parse_context* ctx)
{
    const char* function = "scene_overlay_palette_animation_parse_args";
    const char* cursor = ctx->row->args;
    int32_t values[2];  // back buffer number, mode
    reel_clut_parse_integers(&values[0], 1, &cursor, ctx->row);
    const char* name = parse_arg_string(&cursor, ctx->row, ctx->tmp_arena);  // the cache keeps its own copy
    reel_clut_parse_integers(&values[1], 1, &cursor, ctx->row);
    const float speed = parse_arg_float(&cursor, ctx->row);  // palettes per second
    // checked before the resource loads, so a bad number is reported as such
    reel_clut_check_backbuffer(function, ctx->row, values[0], REEL_BACKBUFFER_COUNT);
    reel_clut_store_integers(scene, ctx->arena, values, 2);
    reel_clut_floats(scene, ctx->arena, 1)[0] = speed;
    if (scene->palette_animation_count == 0) {
        scene->palette_animations = (reel_palette_animation**)xmemarena_push_align(
            ctx->arena, sizeof(reel_palette_animation*), alignof(reel_palette_animation*));
        scene->palette_animation_count = 1;
    }
    scene->palette_animations[0] = reel_load_palette_animation(ctx->engine, name);
    reel_clut_check_palette_animation(function, scene, ctx->row, REEL_BACKBUFFER_COUNT);
}

// Copies the index image into the back buffer, all at once without a budget, else one row per
// slice for as long as the next slice is expected to fit the budget.
static void reel_clut_animation_load(reel_scene* scene, reel_run_context* ctx)
{
    const uint64_t call_start = prof_cycles_now();
    reel_clut_animation_state* state = reel_scene_state<reel_clut_animation_state>(scene);
    const reel_palette_animation* animation = scene->palette_animations[0];
    n3d_framecontext* backbuffer = &ctx->backbuffers[scene->integers[0]];
    const uint32_t height = (uint32_t)ctx->overlay->framebuffer->height;
    const int32_t w = (int32_t)animation->width;
    const int32_t h = (int32_t)animation->height;
    // the blit clips to the image's rectangle, so rows past a short image copy nothing
    if (scene->load_budget == 0) {
        n2d_blit_buffer_index8(backbuffer, animation->pixels, w, 0, 0, w, h, (int32_t)state->rows_copied,
                               (int32_t)(height - state->rows_copied));
        state->rows_copied = height;
    } else {
        uint64_t previous_slice = 0;
        while (state->rows_copied < height) {
            const uint64_t slice_start = prof_cycles_now();
            if ((int64_t)(slice_start - call_start + previous_slice) > scene->load_budget)
                return;
            n2d_blit_buffer_index8(backbuffer, animation->pixels, w, 0, 0, w, h, (int32_t)state->rows_copied, 1);
            state->rows_copied += 1;
            previous_slice = prof_cycles_now() - slice_start;
        }
    }
    if (state->rows_copied == height)
        scene->load_complete = 1;
}

static uint32_t reel_clut_animation_pick(int32_t mode, uint32_t p, uint32_t c)
{
    switch (mode) {
    case REEL_PALETTE_ANIMATION_LOOP:
        return p % c;
    case REEL_PALETTE_ANIMATION_HOLD:
        return p < c - 1 ? p : c - 1;
    case REEL_PALETTE_ANIMATION_REVERSE_ONCE:
        return p < c - 1 ? c - 1 - p : 0;
    case REEL_PALETTE_ANIMATION_FORTH_AND_BACK: {
        const uint32_t m = p % (2 * c);  // c is a 16-bit count: 2c fits
        if (m < c)
            return m;
        // the last step of the way back would be palette -1: the ramp stays on 0 for it, so
        // the cycle is 0 .. c-1 .. 0, 0 and always 2c steps long
        return m == 2 * c - 1 ? 0 : 2 * c - 2 - m;
    }
    default:
        return 0;  // refused when the scene loads
    }
}

void scene_overlay_palette_animation(reel_scene* scene, reel_run_context* ctx)
{
    if (!scene->load_complete && ctx->pass == REEL_PASS_UPDATE) {
        reel_clut_check_palette_animation("scene_overlay_palette_animation", scene, ctx->row, ctx->backbuffer_count);
        reel_clut_animation_load(scene, ctx);
    }
    if (!scene->ready || ctx->pass != REEL_PASS_RENDER)
        return;
    const reel_palette_animation* animation = scene->palette_animations[0];
    if (scene->first_render) {
        const int32_t w = (int32_t)animation->width;
        const int32_t h = (int32_t)animation->height;
        n2d_blit_buffer_index8(ctx->overlay, animation->pixels, w, 0, 0, w, h, 0, ctx->overlay->framebuffer->height);
        return;
    }
    // palettes per second count whole palettes only (2.9 is 2); a position that is negative,
    // NaN or past 32 bits is clamped rather than left to an undefined conversion
    const double position = trunc((double)scene->floats[0]) * (double)scene->since_start_seconds;
    const uint32_t p = position >= 4294967295.0 ? UINT32_MAX : (position >= 0.0 ? (uint32_t)position : 0);
    const reel_palette* palette =
        &animation->palettes[reel_clut_animation_pick(scene->integers[1], p, animation->palette_count)];
    ctx->display->set_overlay_clut(ctx->display, palette->first, palette->count, palette->entries);
    ctx->display->set_transparent_index(ctx->display, 0);
}
