// Pictures of every rasterizer variant: a textured torus lit by a point light, drawn through
// the draw functions with each variant's exact flags into a 320 x 240 frame with coverage
// and depth, written as one PNG per variant plus a contact sheet of all of them.
//
//   reel_rasterpics OUTDIR
//
// Only the depth variants hide the torus's far side; the others draw triangles in mesh order,
// which is what they are for (the show sorts or uses coverage instead).
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bitmap.h"
#include "n3d.h"
#include "n3d_camera.h"
#include "n3d_convert.h"
#include "n3d_draw.h"
#include "n3d_pipeline.h"
#include "tool.h"
#include "vmath.h"

namespace {

constexpr uint32_t PICS_W = 320;
constexpr uint32_t PICS_H = 240;
constexpr uint32_t PICS_RINGS = 32;   // around the torus's main circle
constexpr uint32_t PICS_SIDES = 16;   // around its tube
constexpr float PICS_MAJOR = 1.0f;
constexpr float PICS_MINOR = 0.42f;

// The torus as a triangle list with texture coordinates, normals, tangents and bitangents.
n3d_vertices* pics_torus(xmemarena* arena)
{
    auto* v = (n3d_vertices*)xmemarena_push_zero(arena, sizeof(n3d_vertices));
    const uint32_t count = PICS_RINGS * PICS_SIDES * 6;
    v->count = count;
    v->xyz = (float*)xmemarena_push_align(arena, count * 12, 32);
    v->uv0 = (float*)xmemarena_push_align(arena, count * 8, 32);
    v->n_xyz = (float*)xmemarena_push_align(arena, count * 12, 32);
    v->t_xyz = (float*)xmemarena_push_align(arena, count * 12, 32);
    v->b_xyz = (float*)xmemarena_push_align(arena, count * 12, 32);
    uint32_t k = 0;
    auto emit = [&](uint32_t ring, uint32_t side) {
        const float a = 2.0f * (float)M_PI * (float)ring / PICS_RINGS;
        const float b = 2.0f * (float)M_PI * (float)side / PICS_SIDES;
        const float ca = cosf(a), sa = sinf(a), cb = cosf(b), sb = sinf(b);
        const float radius = PICS_MAJOR + PICS_MINOR * cb;
        const float p[3] = {radius * ca, PICS_MINOR * sb, radius * sa};
        const float n[3] = {cb * ca, sb, cb * sa};
        const float t[3] = {-sa, 0.0f, ca};                   // along the ring
        const float bt[3] = {-sb * ca, cb, -sb * sa};         // around the tube
        memcpy(v->xyz + 3 * k, p, 12);
        memcpy(v->n_xyz + 3 * k, n, 12);
        memcpy(v->t_xyz + 3 * k, t, 12);
        memcpy(v->b_xyz + 3 * k, bt, 12);
        v->uv0[2 * k] = 3.0f * (float)ring / PICS_RINGS;  // the texture repeats three times around
        v->uv0[2 * k + 1] = (float)side / PICS_SIDES;
        k++;
    };
    for (uint32_t r = 0; r < PICS_RINGS; r++)
        for (uint32_t s = 0; s < PICS_SIDES; s++) {
            emit(r, s), emit(r + 1, s), emit(r + 1, s + 1);
            emit(r, s), emit(r + 1, s + 1), emit(r, s + 1);
        }
    return v;
}

// A colourful 256 x 256 pattern: checks of 32 texels whose hue runs across the texture.
bitmap* pics_pattern(xmemarena* arena)
{
    bitmap* bm = bitmap_create(arena, 256, 256, BITMAP_SRGB | BITMAP_CHANNELS_4);
    for (uint32_t y = 0; y < 256; y++)
        for (uint32_t x = 0; x < 256; x++) {
            uint8_t* p = bitmap_pixel(bm, x, y);
            const bool dark = ((x >> 5) ^ (y >> 5)) & 1;
            const float hue = (float)x / 256.0f * 6.0f;
            const float f = hue - floorf(hue);
            const float rgb[6][3] = {{1, f, 0}, {1 - f, 1, 0}, {0, 1, f}, {0, 1 - f, 1}, {f, 0, 1}, {1, 0, 1 - f}};
            const float* c = rgb[(int)hue % 6];
            const float level = dark ? 0.35f : 1.0f;
            for (int i = 0; i < 3; i++)
                p[i] = (uint8_t)(255.0f * (0.15f + 0.85f * c[i]) * level);
            p[3] = 255;
        }
    return bm;
}

void pics_save(const n3d_framebuffer* fb, const char* path, xmemarena* tmp)
{
    const uint64_t mark = xmemarena_get_sp(tmp);
    bitmap* out = bitmap_create(tmp, (uint32_t)fb->width, (uint32_t)fb->height, BITMAP_SRGB | BITMAP_CHANNELS_3);
    for (int32_t y = 0; y < fb->height; y++)
        for (int32_t x = 0; x < fb->width; x++) {
            const uint16_t v = ((const uint16_t*)(fb->pixels + y * fb->row_bytes))[x];
            uint8_t* p = bitmap_pixel(out, (uint32_t)x, (uint32_t)y);
            const uint32_t c[3] = {(v >> 10) & 31u, (v >> 5) & 31u, v & 31u};
            for (int i = 0; i < 3; i++)
                p[i] = (uint8_t)(c[i] * 8 + (c[i] & 7));  // 5 to 8 bits as the display widens them
        }
    tool_save_png(out, path, tmp);
    printf("wrote %s\n", path);
    xmemarena_set_sp(tmp, mark);
}

}  // namespace

int main(int argc, char** argv)
{
    static const tool_info pics_tool = {"reel_rasterpics",
                                        "usage: reel_rasterpics OUTDIR\n"
                                        "Draws a lit, textured torus with every rasterizer variant into\n"
                                        "OUTDIR/NN_<variant>.png and all of them on OUTDIR/all_variants.png\n"
                                        "(OUTDIR is created if needed).\n"};
    tool_begin(&pics_tool, argc, argv);
    const char* out_dir = tool_one_operand(argc, argv, "output folder");
    tool_make_dir(out_dir);

    static uint8_t block[48u << 20];
    xmemarena arena;
    xmemarena_init(&arena, "reel_rasterpics", sizeof(block), block);
    xmemarena* tmp = xmemarena_push_arena(&arena, "reel_rasterpics_tmp", 16u << 20);
    n3d_init(&arena);

    n3d_framecontext fc;
    n3d_framecontext_init(&fc, &arena, PICS_W, PICS_H, N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555,
                          N3D_FRAMECONTEXT_COVERAGE | N3D_FRAMECONTEXT_ZBUFFER);
    n3d_framecontext sheet;
    n3d_framecontext_init(&sheet, &arena, PICS_W * 4, PICS_H * 4, N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, 0);

    const bitmap* pattern = pics_pattern(tmp);
    n3d_texture t8, t16;
    n3d_texture_from_bitmap(&t8, &arena, tmp, N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555, 1, 1, 0, pattern, nullptr,
                            N3D_TRANSPARENT_INDEX_NONE, 0.5f);
    n3d_texture_from_bitmap(&t16, &arena, tmp, N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, 1, 1, 0, pattern, nullptr,
                            N3D_TRANSPARENT_INDEX_NONE, 0.5f);
    xmemarena_reset(tmp);
    n3d_phong_lut lut;
    n3d_phong_lut_init(&lut, &arena, 0.3f, 0);
    n3d_phong_lut_set_default(&lut);

    const n3d_vertices* torus = pics_torus(&arena);
    mat4x4 view, camera_to_world, model, world_to_model, mvp;
    const vec3 eye = {0.0f, 1.9f, 3.0f}, centre = {0.0f, 0.0f, 0.0f}, up = {0.0f, 1.0f, 0.0f};
    mat4x4_look_at(view, eye, centre, up);
    mat4x4_invert(camera_to_world, view);
    n3d_camera camera;
    n3d_camera_init(&camera, &fc, view, camera_to_world, 0.9f, 0.5f);
    mat4x4_identity(model);
    mat4x4_rotate(model, model, 1.0f, 0.0f, 0.3f, 0.5f);
    mat4x4_invert(world_to_model, model);
    mat4x4_mul(mvp, camera.view_projection, model);
    const vec4 light_world = {2.0f, 2.5f, 2.0f, 1.0f};
    vec4 light_model, camera_model;
    mat4x4_mul_vec4(light_model, world_to_model, light_world);
    const vec4 eye4 = {eye[0], eye[1], eye[2], 1.0f};
    mat4x4_mul_vec4(camera_model, world_to_model, eye4);

    n3d_framebuffer_clear(sheet.framebuffer);
    for (uint32_t i = 0; i < n3d_rasterizer_table_count; i++) {
        const n3d_rasterizer_entry* e = &n3d_rasterizer_table[i];
        const bool phong = (e->flags & N3D_RASTERIZER_PHONG) != 0;
        n3d_framebuffer_clear(fc.framebuffer);
        n3d_coverage_buffer_clear(fc.coverage[0]);
        n3d_zbuffer_clear(fc.zbuffer);
        n3d_draw_slots slots = {(e->flags & N3D_RASTERIZER_T0_I8ARGB1555) ? &t8 : &t16, phong ? lut.table : nullptr};
        n3d_draw_call call;
        memset(&call, 0, sizeof(call));
        call.rasterizer_flags = e->flags;
        call.draw_mode = N3D_DRAW_MODE_TEXTURE0_INDEX8_ARGB1555 | (phong ? (uint32_t)N3D_DRAW_MODE_PHONG : 0u);
        call.fc = &fc;
        call.batch_arena = n3d_batch_arena;
        call.vertices = torus;
        call.textures = &slots;
        call.triangle_count = (int32_t)(torus->count / 3);
        vec3_set(call.light_position, light_model[0], light_model[1], light_model[2]);
        vec3_set(call.camera_position, camera_model[0], camera_model[1], camera_model[2]);
        call.mvp = &mvp;
        const int32_t drawn = phong ? n3d_draw_triangles_phong(&call) : n3d_draw_triangles(&call);
        char name[256];
        snprintf(name, sizeof(name), "%02u_%s.png", i, e->name);
        char path[TOOL_PATH_MAX];
        tool_join_path(path, out_dir, name);
        printf("%-90s %d triangles\n", e->name, drawn);
        pics_save(fc.framebuffer, path, tmp);
        // place it on the contact sheet, four across
        for (uint32_t y = 0; y < PICS_H; y++)
            memcpy(sheet.framebuffer->pixels + ((i / 4) * PICS_H + y) * sheet.framebuffer->row_bytes + (i % 4) * PICS_W * 2,
                   fc.framebuffer->pixels + y * fc.framebuffer->row_bytes, PICS_W * 2);
    }
    char path[TOOL_PATH_MAX];
    tool_join_path(path, out_dir, "all_variants.png");
    pics_save(sheet.framebuffer, path, tmp);
    return 0;
}
