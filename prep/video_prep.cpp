// Asset preparation for the video-plane effects (see video_prep.h).
#include "video_prep.h"



#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <numbers>

#include "n3d_convert.h"

constexpr float VIDEO_PREP_ALPHA_THRESHOLD = 0.5f;  // unused by the formats made here, kept at the usual value

static bool video_prep_pow2(uint32_t v) { return v != 0 && (v & (v - 1)) == 0; }

// Power-of-two sides within [min, VIDEO_PREP_MAX_SIDE]; null when they are.
static const char* video_prep_check_sides(const bitmap* picture, uint32_t min_w, uint32_t min_h)
{
    if (!video_prep_pow2(picture->width) || !video_prep_pow2(picture->height) || picture->width < min_w ||
        picture->height < min_h || picture->width > VIDEO_PREP_MAX_SIDE || picture->height > VIDEO_PREP_MAX_SIDE)
        return "its sides must be powers of two, at least the minimum this resource needs and at most 4096";
    return nullptr;
}

static void video_prep_convert(n3d_texture* texture, xmemarena* arena, xmemarena* tmp, N3D_TEXEL_FORMAT format,
                               const bitmap* picture)
{
    n3d_texture_from_bitmap(texture, arena, tmp, format, 0, 0, 0, picture, nullptr, N3D_TRANSPARENT_INDEX_NONE,
                            VIDEO_PREP_ALPHA_THRESHOLD);
}

const char* video_prep_color_map(n3d_texture* texture, xmemarena* arena, xmemarena* tmp, const bitmap* picture)
{
    const uint32_t n = VIDEO_PREP_COLOR_MAP_SIZE;
    if (picture->width < n || picture->height < n)
        return "a colour map needs at least 256 x 256 pixels";
    const bitmap* source = picture;
    const uint64_t mark = xmemarena_get_sp(tmp);
    if (picture->width != n || picture->height != n) {
        bitmap* resampled = bitmap_create(tmp, n, n, picture->flags);
        bitmap_downscale(resampled, picture, BITMAP_FILTER_LANCZOS, tmp);
        source = resampled;
    }
    video_prep_convert(texture, arena, tmp, N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, source);
    xmemarena_set_sp(tmp, mark);
    return nullptr;
}

const char* video_prep_bump_image(n3d_texture* texture, xmemarena* arena, xmemarena* tmp, const bitmap* picture)
{
    if (const char* why = video_prep_check_sides(picture, 4, 4))
        return why;
    video_prep_convert(texture, arena, tmp, N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555, picture);
    return nullptr;
}

const char* video_prep_bump_from_normals(n3d_texture* texture, xmemarena* arena, xmemarena* tmp,
                                         const bitmap* normals)
{
    if (const char* why = video_prep_check_sides(normals, 4, 4))
        return why;
    // the channels are vector components, not colours: read them as plain fractions
    bitmap plain = *normals;
    plain.flags &= ~(uint32_t)(BITMAP_SRGB | BITMAP_PREMULTIPLIED);
    video_prep_convert(texture, arena, tmp, N3D_TEXEL_FORMAT_BUMPMAP, &plain);
    return nullptr;
}

// The picture's brightness at (x, y), 0..1, from its bytes as they are stored.
static float video_prep_height(const bitmap* bm, uint32_t x, uint32_t y)
{
    const uint8_t* p = bitmap_pixel(bm, x, y);
    const uint32_t channels = bitmap_channels(bm->flags, "video_prep_height");
    return (channels >= 3 ? ((float)p[0] + (float)p[1] + (float)p[2]) / 3.0f : (float)p[0]) / 255.0f;
}

static uint8_t video_prep_unit_byte(float v) { return (uint8_t)lrintf((v * 0.5f + 0.5f) * 255.0f); }

const char* video_prep_bump_from_heights(n3d_texture* texture, xmemarena* arena, xmemarena* tmp,
                                         const bitmap* heights, float strength)
{
    if (const char* why = video_prep_check_sides(heights, 4, 4))
        return why;
    const uint64_t mark = xmemarena_get_sp(tmp);
    const uint32_t w = heights->width, h = heights->height;
    bitmap* normals = bitmap_create(tmp, w, h, BITMAP_CHANNELS_3);
    for (uint32_t y = 0; y < h; y++)
        for (uint32_t x = 0; x < w; x++) {
            // slopes across the neighbours, wrapping like the texture; rows grow downwards, as the
            // image plane's y does in the effect
            const float dx = (video_prep_height(heights, (x + 1) % w, y) - video_prep_height(heights, (x + w - 1) % w, y)) *
                             0.5f * strength;
            const float dy = (video_prep_height(heights, x, (y + 1) % h) - video_prep_height(heights, x, (y + h - 1) % h)) *
                             0.5f * strength;
            const float len = sqrtf(dx * dx + dy * dy + 1.0f);
            uint8_t* p = bitmap_pixel(normals, x, y);
            p[0] = video_prep_unit_byte(-dx / len);
            p[1] = video_prep_unit_byte(-dy / len);
            p[2] = video_prep_unit_byte(1.0f / len);
        }
    video_prep_convert(texture, arena, tmp, N3D_TEXEL_FORMAT_BUMPMAP, normals);
    xmemarena_set_sp(tmp, mark);
    return nullptr;
}

const char* video_prep_background(n3d_texture* texture, xmemarena* arena, xmemarena* tmp, const bitmap* picture)
{
    if (video_prep_check_sides(picture, VIDEO_PREP_VIEW_WIDTH, VIDEO_PREP_VIEW_HEIGHT))
        return "a background needs power-of-two sides from 512 x 256 (to hold the 320 x 240 view) up to 4096";
    video_prep_convert(texture, arena, tmp, N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, picture);
    return nullptr;
}

const char* video_prep_stencil(n3d_coverage_buffer* stencil, xmemarena* arena, const bitmap* picture,
                               uint32_t threshold)
{
    if (picture->width == 0 || picture->width % 32 != 0 || picture->height == 0)
        return "a stencil's width must be a multiple of 32 pixels";
    n3d_coverage_buffer_init(stencil, picture->width, picture->height, arena);
    n3d_coverage_buffer_clear(stencil);
    const uint32_t channels = bitmap_channels(picture->flags, "video_prep_stencil");
    for (uint32_t y = 0; y < picture->height; y++)
        for (uint32_t x = 0; x < picture->width; x++) {
            const uint8_t* p = bitmap_pixel(picture, x, y);
            const uint32_t bright = channels >= 3 ? ((uint32_t)p[0] + p[1] + p[2]) / 3 : p[0];
            const uint32_t alpha = channels == 4 ? p[3] : 255;
            if (bright >= threshold && alpha >= threshold) {
                const uint32_t i = y * picture->width + x;
                stencil->bits[i / 32] |= 0x80000000u >> (i % 32);  // leftmost pixel in the top bit
            }
        }
    return nullptr;
}

// ---- pictures made in code ----

namespace {
struct video_prep_rgb {
    float r, g, b;  // sRGB-encoded, 0..1
};
}  // namespace

static float video_prep_clamp01(float v) { return v < 0.0f ? 0.0f : (v > 1.0f ? 1.0f : v); }
static float video_prep_smooth(float e0, float e1, float v)
{
    const float t = video_prep_clamp01((v - e0) / (e1 - e0));
    return t * t * (3.0f - 2.0f * t);
}
static video_prep_rgb video_prep_mix(video_prep_rgb a, video_prep_rgb b, float t)
{
    return {a.r + (b.r - a.r) * t, a.g + (b.g - a.g) * t, a.b + (b.b - a.b) * t};
}
static void video_prep_put(bitmap* bm, uint32_t x, uint32_t y, video_prep_rgb c)
{
    uint8_t* p = bitmap_pixel(bm, x, y);
    p[0] = (uint8_t)lrintf(video_prep_clamp01(c.r) * 255.0f);
    p[1] = (uint8_t)lrintf(video_prep_clamp01(c.g) * 255.0f);
    p[2] = (uint8_t)lrintf(video_prep_clamp01(c.b) * 255.0f);
    p[3] = 255;
}
static bitmap* video_prep_picture(xmemarena* arena, uint32_t w, uint32_t h)
{
    return bitmap_create(arena, w, h, BITMAP_SRGB | BITMAP_CHANNELS_4);
}
// A repeatable pseudo-random 0..1 per integer pair.
static float video_prep_hash(uint32_t a, uint32_t b)
{
    uint32_t v = a * 73856093u ^ b * 19349663u;
    v ^= v >> 13, v *= 0x5bd1e995u, v ^= v >> 15;
    return (float)(v & 0xFFFF) / 65535.0f;
}

bitmap* video_prep_make_tunnel_picture(xmemarena* arena)
{
    constexpr uint32_t N = VIDEO_PREP_COLOR_MAP_SIZE, CELLS = 8;
    bitmap* bm = video_prep_picture(arena, N, N);
    const video_prep_rgb cold[2] = {{0.05f, 0.1f, 0.35f}, {0.3f, 0.85f, 1.0f}};
    const video_prep_rgb warm[2] = {{0.35f, 0.02f, 0.2f}, {1.0f, 0.7f, 0.2f}};
    for (uint32_t a = 0; a < N; a++)
        for (uint32_t d = 0; d < N; d++) {
            const float fa = (float)(a * CELLS % N) / N, fd = (float)(d * CELLS % N) / N;
            const bool odd = ((a * CELLS / N) + (d * CELLS / N)) & 1;
            // soft-edged cells: bright in the middle, dark at the seams
            const float e = sqrtf(sinf((float)std::numbers::pi * fa) * sinf((float)std::numbers::pi * fd));
            const video_prep_rgb* ramp = odd ? warm : cold;
            video_prep_put(bm, d, a, video_prep_mix(ramp[0], ramp[1], e));
        }
    return bm;
}

// Tiles of 64 x 64 in courses shifted by half a tile: the tile's number and its edge distance.
static void video_prep_tile(uint32_t x, uint32_t y, uint32_t* id, float* edge, float* knob)
{
    constexpr uint32_t T = 64;
    const uint32_t course = y / T;
    const uint32_t sx = x + (course & 1) * T / 2;
    const float u = (float)(sx % T) + 0.5f, v = (float)(y % T) + 0.5f;
    *id = course * 64 + sx / T;
    *edge = fminf(fminf(u, (float)T - u), fminf(v, (float)T - v));
    const float du = u - T / 2.0f, dv = v - T / 2.0f;
    *knob = (*id % 3 == 0) ? fmaxf(0.0f, 1.0f - sqrtf(du * du + dv * dv) / 16.0f) : 0.0f;
}

bitmap* video_prep_make_tile_heights(xmemarena* arena)
{
    bitmap* bm = video_prep_picture(arena, 512, 256);
    for (uint32_t y = 0; y < 256; y++)
        for (uint32_t x = 0; x < 512; x++) {
            uint32_t id;
            float edge, knob;
            video_prep_tile(x, y, &id, &edge, &knob);
            const float grain = 0.04f * sinf((float)x * 0.9f + video_prep_hash(id, 1) * 6.0f) * sinf((float)y * 0.7f);
            const float h = 0.15f + 0.5f * video_prep_smooth(2.0f, 12.0f, edge) + 0.3f * knob * knob + grain;
            video_prep_put(bm, x, y, {h, h, h});
        }
    return bm;
}

bitmap* video_prep_make_tile_colors(xmemarena* arena)
{
    bitmap* bm = video_prep_picture(arena, 512, 256);
    const video_prep_rgb stones[4] = {{0.75f, 0.55f, 0.35f}, {0.6f, 0.35f, 0.25f}, {0.85f, 0.75f, 0.55f},
                                      {0.45f, 0.5f, 0.55f}};
    for (uint32_t y = 0; y < 256; y++)
        for (uint32_t x = 0; x < 512; x++) {
            uint32_t id;
            float edge, knob;
            video_prep_tile(x, y, &id, &edge, &knob);
            const video_prep_rgb base = stones[(uint32_t)(video_prep_hash(id, 2) * 4.0f) & 3];
            const float shade = 0.8f + 0.2f * video_prep_hash(x / 4, y / 4);
            video_prep_rgb c = {base.r * shade, base.g * shade, base.b * shade};
            c = video_prep_mix(c, {0.9f, 0.8f, 0.3f}, knob * 0.8f);                       // brass knobs
            c = video_prep_mix({0.18f, 0.16f, 0.15f}, c, video_prep_smooth(1.0f, 3.0f, edge));  // mortar
            video_prep_put(bm, x, y, c);
        }
    return bm;
}

bitmap* video_prep_make_window_picture(xmemarena* arena)
{
    constexpr float W = 320.0f, H = 256.0f, INSET = 24.0f, RADIUS = 40.0f;
    bitmap* bm = video_prep_picture(arena, (uint32_t)W, (uint32_t)H);
    for (uint32_t y = 0; y < (uint32_t)H; y++)
        for (uint32_t x = 0; x < (uint32_t)W; x++) {
            // distance outside a rounded rectangle inset from the edges
            const float qx = fabsf((float)x + 0.5f - W / 2) - (W / 2 - INSET - RADIUS);
            const float qy = fabsf((float)y + 0.5f - H / 2) - (H / 2 - INSET - RADIUS);
            const float outside = sqrtf(fmaxf(qx, 0.0f) * fmaxf(qx, 0.0f) + fmaxf(qy, 0.0f) * fmaxf(qy, 0.0f)) - RADIUS;
            const float v = outside > 0.0f ? 1.0f : 0.0f;
            video_prep_put(bm, x, y, {v, v, v});
        }
    return bm;
}

bitmap* video_prep_make_landscape(xmemarena* arena)
{
    constexpr uint32_t W = 1024, H = 512;
    bitmap* bm = video_prep_picture(arena, W, H);
    const video_prep_rgb zenith = {0.08f, 0.1f, 0.35f}, horizon = {1.0f, 0.55f, 0.3f}, sun = {1.0f, 0.95f, 0.7f};
    const video_prep_rgb hills[3] = {{0.45f, 0.3f, 0.5f}, {0.3f, 0.2f, 0.4f}, {0.15f, 0.12f, 0.25f}};
    for (uint32_t y = 0; y < H; y++)
        for (uint32_t x = 0; x < W; x++) {
            const float fx = (float)x, fy = (float)y;
            video_prep_rgb c = video_prep_mix(zenith, horizon, video_prep_smooth(0.0f, 330.0f, fy));
            const float ds = sqrtf((fx - 640.0f) * (fx - 640.0f) + (fy - 250.0f) * (fy - 250.0f));
            c = video_prep_mix(c, sun, 1.0f - video_prep_smooth(44.0f, 48.0f, ds));
            // stars in the upper sky
            if (fy < 180.0f && video_prep_hash(x, y) > 0.997f)
                c = video_prep_mix(c, {1, 1, 1}, 0.8f);
            for (uint32_t i = 0; i < 3; i++) {
                const float k = (float)(i + 1);
                const float top = 250.0f + 45.0f * k + 30.0f * sinf(fx * 0.006f * k + k * 1.7f) +
                                  14.0f * sinf(fx * 0.023f * k + k);
                if (fy > top)
                    c = hills[i];
            }
            if (fy > 430.0f) {  // a checkered ground whose squares show the scroll
                const bool odd = ((x / 32) + (y / 16)) & 1;
                c = odd ? video_prep_rgb{0.1f, 0.35f, 0.15f} : video_prep_rgb{0.15f, 0.5f, 0.2f};
            }
            video_prep_put(bm, x, y, c);
        }
    return bm;
}
