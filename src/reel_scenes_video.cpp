// Video-plane effect scenes: the tunnel, the bump map and the scrolling background. Each checks
// its bindings and its resources once, when its argument text is parsed and again in its load
// call (a scene description may have bound the values instead), so that the per-frame code and
// the drawing routines it calls trust their data.
#include <cmath>
#include <cstring>

#include "n2d.h"
#include "n3d_convert.h"
#include "reel_bumpmap.h"
#include "reel_scenes.h"
#include "reel_tunnel_func.h"

static const char* const REEL_VIDEO_FILE = "src/reel_scenes";

// The bump map's source rectangle: the part of its 512 x 256 textures that the show lights.
constexpr int32_t REEL_BUMPMAP_SOURCE_X1 = 310;
constexpr int32_t REEL_BUMPMAP_SOURCE_Y1 = 256;
constexpr uint32_t REEL_BUMPMAP_COLOURS = 4;  // emission, ambient, light colour, highlight colour

// A binding array at least `count` long. A shorter one is replaced, not copied: every caller then
// stores all `count` slots.
template <typename T>
static T* reel_video_array(T** array, uint32_t* have, uint32_t count, xmemarena* arena)
{
    if (*have < count) {
        *array = (T*)xmemarena_push_align(arena, count * sizeof(T), alignof(T));
        *have = count;
    }
    return *array;
}

static float reel_video_clamp01(float t) { return t > 0.0f ? (t < 1.0f ? t : 1.0f) : 0.0f; }

// ---- tunnel ----

static void reel_video_tunnel_check(const char* function, const reel_scene* scene, const reel_sequence_row* row)
{
    reel_tunnel_check_color_map(scene->textures[0]);
}

void scene_video_tunnel_parse_args(reel_scene* scene, reel_parse_context* ctx)
{
    const char* cursor = ctx->row->args;
    const char* name = parse_arg_string(&cursor, ctx->row, ctx->tmp_arena);  // the cache keeps its own copy
    const float distance_speed = parse_arg_float(&cursor, ctx->row);
    const float angle_speed = parse_arg_float(&cursor, ctx->row);
    reel_video_array(&scene->textures, &scene->texture_count, 1, ctx->arena)[0] = reel_load_texture(ctx->engine, name);
    float* floats = reel_video_array(&scene->floats, &scene->float_count, 2, ctx->arena);
    floats[0] = distance_speed;
    floats[1] = angle_speed;
    reel_video_tunnel_check("scene_video_tunnel_parse_args", scene, ctx->row);
}

// The low byte of trunc(v): fmod keeps what the truncation keeps modulo 256, so no value is too
// large to convert; NaN gives 0.
static uint8_t reel_video_offset(float v)
{
    const double m = fmod((double)v, 256.0);
    return m == m ? (uint8_t)(int32_t)m : 0;
}

void scene_video_tunnel(reel_scene* scene, reel_run_context* ctx)
{
    if (!scene->load_complete)
        reel_video_tunnel_check("scene_video_tunnel", scene, ctx->row);
    scene->load_complete = 1;
    if (!scene->ready || ctx->pass != REEL_PASS_UPDATE)
        return;
    const float s = scene->since_start_seconds;
    const uint8_t distance = reel_video_offset(scene->floats[0] * s);
    const uint8_t angle = reel_video_offset(scene->floats[1] * s);
    const n3d_framebuffer* fb = ctx->video->framebuffer;
    reel_tunnel_argb1555(ctx->video, scene->textures[0], &ctx->engine->tunnel_table, 0, 0, fb->width, fb->height,
                         distance, angle);
}

// ---- bump map ----

static void reel_video_bumpmap_check(const char* function, const reel_scene* scene, const reel_sequence_row* row)
{
    reel_bumpmap_check_textures(scene->textures[1], scene->textures[0]);
}

void scene_video_bumpmap_parse_args(reel_scene* scene, reel_parse_context* ctx)
{
    const char* cursor = ctx->row->args;
    const char* color_name = parse_arg_string(&cursor, ctx->row, ctx->tmp_arena);
    const char* bump_name = parse_arg_string(&cursor, ctx->row, ctx->tmp_arena);
    const char* stencil_name = parse_arg_string(&cursor, ctx->row, ctx->tmp_arena);
    float material[2];  // metallic, roughness
    for (float& m : material)
        m = parse_arg_float(&cursor, ctx->row);
    reel_color colours[REEL_BUMPMAP_COLOURS];  // emission, ambient, light colour, highlight colour
    for (reel_color& c : colours)
        parse_arg_color(&c, &cursor, ctx->row, ctx->tmp_arena);
    int32_t positions[4];  // start x, start y, end x, end y
    for (int32_t& p : positions)
        p = parse_arg_int(nullptr, &cursor, ctx->row);

    n3d_texture** textures = reel_video_array(&scene->textures, &scene->texture_count, 2, ctx->arena);
    textures[0] = reel_load_texture(ctx->engine, color_name);
    textures[1] = reel_load_texture(ctx->engine, bump_name);
    reel_video_array(&scene->stencils, &scene->stencil_count, 1, ctx->arena)[0] =
        reel_load_stencil(ctx->engine, stencil_name);
    memcpy(reel_video_array(&scene->floats, &scene->float_count, 2, ctx->arena), material, sizeof(material));
    memcpy(reel_video_array(&scene->colours, &scene->colour_count, REEL_BUMPMAP_COLOURS, ctx->arena), colours,
           sizeof(colours));
    memcpy(reel_video_array(&scene->integers, &scene->integer_count, 4, ctx->arena), positions, sizeof(positions));
    reel_video_bumpmap_check("scene_video_bumpmap_parse_args", scene, ctx->row);
}

// lerp in single precision, then ceil in double: the image lands on the first whole pixel at or
// after the exact position
static int32_t reel_video_slide(int32_t from, int32_t to, float p)
{
    const float v = (float)from + p * ((float)to - (float)from);
    // positions this far off the plane draw nothing anyway; the limit keeps the conversion defined
    const double limit = (double)(1 << 30);
    const double c = ceil((double)v);
    return (int32_t)(c < -limit ? -limit : (c > limit ? limit : c));
}

void scene_video_bumpmap(reel_scene* scene, reel_run_context* ctx)
{
    if (ctx->pass != REEL_PASS_UPDATE)
        return;
    n3d_texture* color = scene->textures ? scene->textures[0] : nullptr;
    if (!scene->load_complete) {
        reel_video_bumpmap_check("scene_video_bumpmap", scene, ctx->row);
        color = scene->textures[0];
        // palette colour, light colour and material response baked in once: a lit pixel is one read
        const reel_color* c = scene->colours;
        n3d_texture_build_shade_table_argb1555_pbr((uint16_t*)color->shade_table, N3D_SHADES_PER_COLOR,
                                                   N3D_PALETTE_COLORS, c[0].linear, c[1].linear, c[2].linear,
                                                   c[3].linear, scene->floats[0], scene->floats[1],
                                                   (const uint16_t*)color->palette);
        scene->load_complete = 1;
    }
    if (!scene->ready)
        return;
    const float p = reel_video_clamp01(reel_scene_progress(scene));
    const int32_t* v = scene->integers;
    const int32_t x = reel_video_slide(v[0], v[2], p);
    const int32_t y = reel_video_slide(v[1], v[3], p);
    n3d_framebuffer* fb = ctx->video->framebuffer;
    reel_bumpmap_argb1555(fb, scene->since_start_seconds, x, y, 0, 0, REEL_BUMPMAP_SOURCE_X1, REEL_BUMPMAP_SOURCE_Y1,
                          scene->textures[1], color, ctx->engine->phong_lut.table);
    // later coverage-reading drawing keeps off the image where the stencil does not cover it
    n3d_coverage_buffer* coverage = ctx->video->coverage[0];
    n2d_cb_clear(coverage);
    n2d_cb_or_not_rect(coverage, x, y, scene->stencils[0], 0, fb->height);
}

// ---- background ----

// The viewport must stay inside the texture over the whole scroll: the copy neither wraps nor
// clamps, and the positions in between lie on the line between the two ends.
static void reel_video_background_check(const char* function, const reel_scene* scene, const reel_sequence_row* row,
                                        int32_t view_w, int32_t view_h)
{
    const n3d_texture* t = scene->textures[0];
    if (!t->linear)
        crash_in(REEL_VIDEO_FILE, __LINE__, function, "swizzled not supported for video background texture\n");
    const int64_t tex_w = 1ll << t->log2_w, tex_h = 1ll << t->log2_h;
    for (int i = 0; i < 4; i += 2) {
        const int64_t x = scene->integers[i], y = scene->integers[i + 1];
        if (x < 0 || y < 0 || x + view_w > tex_w || y + view_h > tex_h)
            crash_in(REEL_VIDEO_FILE, __LINE__, function,
                     "viewport of %d x %d at (%lld, %lld) is not inside the %lld x %lld background texture "
                     "(sequence line %d)\n",
                     view_w, view_h, (long long)x, (long long)y, (long long)tex_w, (long long)tex_h,
                     row ? (int)row->line : 0);
    }
}

void scene_video_background_parse_args(reel_scene* scene, reel_parse_context* ctx)
{
    const char* cursor = ctx->row->args;
    const char* name = parse_arg_string(&cursor, ctx->row, ctx->tmp_arena);
    reel_video_array(&scene->textures, &scene->texture_count, 1, ctx->arena)[0] = reel_load_texture(ctx->engine, name);
    int32_t* v = reel_video_array(&scene->integers, &scene->integer_count, 4, ctx->arena);
    for (int i = 0; i < 4; i++)
        v[i] = parse_arg_int(nullptr, &cursor, ctx->row);
    reel_video_background_check("scene_video_background_parse_args", scene, ctx->row, DISPLAY_VIDEO_WIDTH,
                                DISPLAY_VIDEO_HEIGHT);
}

void scene_video_background(reel_scene* scene, reel_run_context* ctx)
{
    if (ctx->pass != REEL_PASS_UPDATE)
        return;
    n3d_framecontext* video = ctx->video;
    if (!scene->load_complete) {
        reel_video_background_check("scene_video_background", scene, ctx->row, video->framebuffer->width,
                                    video->framebuffer->height);
        scene->load_complete = 1;
    }
    if (!scene->ready)
        return;
    const n3d_texture* texture = scene->textures[0];
    const float t = reel_video_clamp01(reel_scene_progress(scene));
    const int32_t* v = scene->integers;
    const int32_t x = (int32_t)((float)v[0] + t * (float)(v[2] - v[0]));
    const int32_t y = (int32_t)((float)v[1] + t * (float)(v[3] - v[1]));
    const uint32_t bytes = n3d_bytes_per_texel(texture->format, REEL_VIDEO_FILE, __LINE__, "scene_video_background");
    // a framebuffer record over the whole first level, its pixels moved to the viewport's corner
    n3d_framebuffer viewport;
    viewport.format = texture->format;
    viewport.width = 1 << texture->log2_w;
    viewport.height = 1 << texture->log2_h;
    viewport.row_bytes = (int32_t)(bytes << texture->log2_w);
    viewport.pixels = (uint8_t*)texture->mips[0] + (int64_t)y * viewport.row_bytes + (int64_t)x * bytes;
    n3d_framebuffer* fb = video->framebuffer;
    n2d_fb_argb1555_copy_if_not_cb0(fb, 0, 0, &viewport, video->coverage[0], 0, fb->height);
}
