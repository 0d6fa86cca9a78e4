// Texture conversion and lighting tables: texel addressing, bitmaps to textures (levels, swizzle,
// palette by histogram, reverse palette, shade tables), the colour conversions they share, the
// phong LUT and the GGX shade-table builder. Offline-grade: float colour math per pixel, run at
// load or preparation time, never per frame.
#include "n3d_convert.h"

#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "diag.h"

uint32_t n3d_bytes_per_texel(N3D_TEXEL_FORMAT format, const char* file, int line, const char* function)
{
    switch (format) {
    case N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555:
    case N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8:
        return 1;
    case N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555:
        return 2;
    case N3D_TEXEL_FORMAT_BUMPMAP:
        return 4;
    default:
        crash_in(file, line, function, "bad N3D_TEXEL_FORMAT %d?\n", (int)format);
    }
}

uint32_t n3d_texel_index(N3D_TEXEL_FORMAT format, uint32_t log2_w, uint32_t swizzled, uint32_t x, uint32_t y)
{
    if (format < N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555 || format > N3D_TEXEL_FORMAT_BUMPMAP)
        crash_in("src/n3d_convert", __LINE__, "n3d_texel_index", "not implemented texture format %d\n", (int)format);
    return swizzled ? n3d_swizzle(x, y) : (y << log2_w) | x;
}

uint32_t n3d_mipmap_size(N3D_TEXEL_FORMAT format, uint32_t swizzled, uint32_t log2_w, uint32_t log2_h)
{
    if (!swizzled)
        return (1u << log2_w << log2_h) *
               n3d_bytes_per_texel(format, "src/n3d_convert", __LINE__, "n3d_mipmap_size");
    const uint32_t last = n3d_swizzle((1u << log2_w) - 1, (1u << log2_h) - 1);
    switch (format) {
    case N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555:
    case N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8:
        return last + 1;
    case N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555:
        return 2 * last + 2;
    default:
        crash_in("src/n3d_convert", __LINE__, "n3d_mipmap_size", "not implemented texture format %d\n", (int)format);
    }
}

// ---- tables ----

const float N3D_HALF_ANGLE_COS[N3D_SHADES_PER_COLOR] = {
    0.9901245f, 0.9660669f, 0.9413946f, 0.916058f,  0.8900001f, 0.8631557f,  0.8378049f, 0.8140631f,
    0.7896075f, 0.7643697f, 0.7382693f, 0.7112113f, 0.6830818f, 0.6537423f,  0.6230217f, 0.5940427f,
    0.5670175f, 0.538637f,  0.508674f,  0.4768295f, 0.4426966f, 0.4105687f,  0.3808245f, 0.3485458f,
    0.3129448f, 0.2727119f, 0.234162f,  0.1977812f, 0.1528557f, 0.1084652f,  0.06262243f, 0.0f,
};

// where each 5-bit sRGB step begins in linear light
const float N3D_LINEAR_TO_5BIT[N3D_SHADES_PER_COLOR] = {
    0.0f,      0.002276f, 0.004976f, 0.008848f, 0.014069f, 0.020749f, 0.028987f, 0.03887f,
    0.050482f, 0.0639f,   0.079197f, 0.09644f,  0.115695f, 0.137024f, 0.160486f, 0.186139f,
    0.214036f, 0.244231f, 0.276775f, 0.311718f, 0.349108f, 0.38899f,  0.431411f, 0.476415f,
    0.524045f, 0.574342f, 0.627349f, 0.683104f, 0.741648f, 0.803019f, 0.867254f, 0.934392f,
};

// (float)srgb_to_linear(i / 31.0); a test checks every entry against the function
const float N3D_ARGB1555_CHANNEL_TO_LINEAR[32] = {
    0.0f,          0.00249675428f, 0.00537053728f, 0.00952947885f, 0.0151335075f, 0.0222988836f, 0.0311300904f,
    0.0417225733f, 0.0541645736f,  0.0685384125f,  0.0849214569f,  0.103386834f,  0.124004006f,  0.146839231f,
    0.171955898f,  0.199414894f,   0.229274765f,   0.26159206f,    0.296421349f,  0.333815575f,  0.373826027f,
    0.416502535f,  0.461893588f,   0.510046422f,   0.561007023f,   0.614820361f,  0.671530306f,  0.731179774f,
    0.793810725f,  0.859464347f,   0.928180933f,   1.0f,
};

constexpr uint16_t N3D_ARGB1555_ALPHA = 0x8000;
constexpr uint32_t N3D_ARGB1555_ALPHA_SHIFT = 15;
constexpr uint32_t N3D_ARGB1555_COLOR_MASK = 0x7FFF;  // the 15 colour bits: a reverse palette index
constexpr uint32_t N3D_ARGB1555_RED_SHIFT = 10;
constexpr uint32_t N3D_ARGB1555_GREEN_SHIFT = 5;
constexpr uint32_t N3D_ARGB1555_CHANNEL_MAX = 31;
constexpr uint32_t N3D_CONVERT_MIN_LOG2 = 2;           // the smallest level is 4 x 4
constexpr uint32_t N3D_SWIZZLE_MAX_SIZE = 256;         // the swizzled index has 8 bits of x and of y
constexpr uint32_t N3D_CONVERT_MAX_LOG2_AREA = 28;     // keeps 4-byte texel blocks below 2^32 bytes
constexpr uint32_t N3D_HISTOGRAM_KEYS = 65536;         // every ARGB1555 value
constexpr uint32_t N3D_REVERSE_PALETTE_COLORS = 255;   // entry 255 is never a nearest match
constexpr uint32_t N3D_COVERAGE_FIT_ITERATIONS = 50;
constexpr float N3D_PBR_MIN_DISTRIBUTION = 0.001f;

static float n3d_clampf(float v, float lo, float hi) { return !(v > lo) ? lo : (v > hi ? hi : v); }
static double n3d_clampd(double v, double lo, double hi) { return !(v > lo) ? lo : (v > hi ? hi : v); }
static long n3d_clampl(long v, long lo, long hi) { return v < lo ? lo : (v > hi ? hi : v); }
static uint32_t n3d_log2_ceil(uint32_t v) { return v <= 1 ? 0 : 32u - (uint32_t)__builtin_clz(v - 1); }

// ---- colours ----

void n3d_argb1555_to_linear(vec4 out, uint16_t value)
{
    if (!(value & N3D_ARGB1555_ALPHA)) {
        vec4_set(out, 0.0f, 0.0f, 0.0f, 0.0f);
        return;
    }
    out[0] = N3D_ARGB1555_CHANNEL_TO_LINEAR[(value >> N3D_ARGB1555_RED_SHIFT) & N3D_ARGB1555_CHANNEL_MAX];
    out[1] = N3D_ARGB1555_CHANNEL_TO_LINEAR[(value >> N3D_ARGB1555_GREEN_SHIFT) & N3D_ARGB1555_CHANNEL_MAX];
    out[2] = N3D_ARGB1555_CHANNEL_TO_LINEAR[value & N3D_ARGB1555_CHANNEL_MAX];
    out[3] = 1.0f;
}

uint16_t n3d_linear_to_argb1555(const vec4 rgba)
{
    const float a = rgba[3];
    const float unpremultiply = a == 0.0f ? 0.0f : (a == 1.0f ? 1.0f : 1.0f / a);
    uint32_t q[3];
    for (int i = 0; i < 3; ++i) {
        const double c = linear_to_srgb((double)(rgba[i] * unpremultiply));
        q[i] = (uint32_t)n3d_clampd(c * N3D_ARGB1555_CHANNEL_MAX + 0.5, 0.0, N3D_ARGB1555_CHANNEL_MAX);
    }
    const uint32_t alpha = (uint32_t)n3d_clampf(a + 0.5f, 0.0f, 1.0f);
    return (uint16_t)(alpha << N3D_ARGB1555_ALPHA_SHIFT | q[0] << N3D_ARGB1555_RED_SHIFT |
                      q[1] << N3D_ARGB1555_GREEN_SHIFT | q[2]);
}

uint32_t n3d_color_nearest(const vec4* colors, uint32_t count, const vec4 rgba)
{
    float best = FLT_MAX;
    uint32_t best_index = 0;
    for (uint32_t i = 0; i < count; ++i) {
        const float dr = rgba[0] - colors[i][0];
        const float dg = rgba[1] - colors[i][1];
        const float db = rgba[2] - colors[i][2];
        const float d = dr * dr + dg * dg + db * db;
        if (d < best) {  // strictly: ties keep the lower index
            best = d;
            best_index = i;
        }
    }
    return best_index;
}

uint32_t n3d_linear_to_5bit(float v)
{
    uint32_t lo = 0, hi = N3D_SHADES_PER_COLOR;  // the answer is in [lo, hi)
    while (hi - lo > 1) {
        const uint32_t mid = (lo + hi) / 2;
        if (v >= N3D_LINEAR_TO_5BIT[mid])
            lo = mid;
        else
            hi = mid;
    }
    return lo;
}

// Display CLUT bytes to linear: sRGB colour, alpha as it is, not premultiplied.
static void n3d_clut_to_linear(vec4* out, const uint8_t* colors, uint32_t count)
{
    for (uint32_t i = 0; i < count; ++i)
        color_srgb_bytes_to_linear(out[i], colors + 4 * i);
}

// ---- palettes and shade tables ----

struct n3d_histogram_entry {
    uint32_t count;
    uint16_t color;
};

// The 256 most frequent 15-bit colours (plus alpha bit) of the bitmap, most frequent first.
static void n3d_palette_from_bitmap(uint16_t* palette, const bitmap* bm, xmemarena* tmp)
{
    const uint64_t mark = xmemarena_get_sp(tmp);
    auto* entries = (n3d_histogram_entry*)xmemarena_push_align(tmp, sizeof(n3d_histogram_entry) * N3D_HISTOGRAM_KEYS,
                                                               alignof(n3d_histogram_entry));
    memset(entries, 0, sizeof(n3d_histogram_entry) * N3D_HISTOGRAM_KEYS);
    for (uint32_t y = 0; y < bm->height; ++y) {
        for (uint32_t x = 0; x < bm->width; ++x) {
            vec4 v;
            bitmap_decode_pixel(v, bitmap_pixel(bm, x, y), bm->flags);
            uint32_t q[3];
            // premultiplied and truncated; a full channel lands on 30, as 1.055 - 0.055 is just below 1
            for (int i = 0; i < 3; ++i) {
                const double c = linear_to_srgb((double)v[i]) * N3D_ARGB1555_CHANNEL_MAX;
                q[i] = (uint32_t)(c < N3D_ARGB1555_CHANNEL_MAX ? c : N3D_ARGB1555_CHANNEL_MAX);
            }
            const uint32_t alpha = (uint32_t)v[3];  // 1 only for full alpha
            const uint32_t key = alpha << N3D_ARGB1555_ALPHA_SHIFT | q[0] << N3D_ARGB1555_RED_SHIFT |
                                 q[1] << N3D_ARGB1555_GREEN_SHIFT | q[2];
            entries[key].color = (uint16_t)key;
            entries[key].count += 1;
        }
    }
    for (uint32_t i = 0; i < N3D_PALETTE_COLORS; ++i) {
        uint32_t best = entries[i].count;
        uint32_t b = i;
        for (uint32_t j = i + 1; j < N3D_HISTOGRAM_KEYS; ++j) {
            if (entries[j].count > best) {  // strictly: ties keep the earlier entry
                best = entries[j].count;
                b = j;
            }
        }
        if (b != i) {
            const n3d_histogram_entry swap = entries[i];
            entries[i] = entries[b];
            entries[b] = swap;
        }
    }
    for (uint32_t i = 0; i < N3D_PALETTE_COLORS; ++i)
        palette[i] = entries[i].color;
    xmemarena_set_sp(tmp, mark);
}

static void n3d_reverse_palette_build(uint8_t* reverse_palette, const uint16_t* palette)
{
    vec4 colors[N3D_REVERSE_PALETTE_COLORS];
    for (uint32_t i = 0; i < N3D_REVERSE_PALETTE_COLORS; ++i)
        n3d_argb1555_to_linear(colors[i], palette[i]);
    for (uint32_t red = 0; red <= N3D_ARGB1555_CHANNEL_MAX; ++red) {
        for (uint32_t green = 0; green <= N3D_ARGB1555_CHANNEL_MAX; ++green) {
            for (uint32_t blue = 0; blue <= N3D_ARGB1555_CHANNEL_MAX; ++blue) {
                const uint32_t value = red << N3D_ARGB1555_RED_SHIFT | N3D_ARGB1555_ALPHA |
                                       green << N3D_ARGB1555_GREEN_SHIFT | blue;
                vec4 v;
                n3d_argb1555_to_linear(v, (uint16_t)value);
                reverse_palette[value & N3D_ARGB1555_COLOR_MASK] =
                    (uint8_t)n3d_color_nearest(colors, N3D_REVERSE_PALETTE_COLORS, v);
            }
        }
    }
}

// Shade s of colour c is the colour's red, green and blue times (s + 1) / 32: shade 31 is the colour.
void n3d_texture_build_shade_table_argb1555(n3d_texture* texture)
{
    const auto* palette = (const uint16_t*)texture->palette;
    auto* table = (uint16_t*)texture->shade_table;
    const uint32_t shades = texture->shades_per_color;
    for (uint32_t c = 0; c < texture->colors_count; ++c) {
        vec4 color;
        n3d_argb1555_to_linear(color, palette[c]);
        for (uint32_t s = 0; s < shades; ++s) {
            const float k = (float)(s + 1) / (float)shades;
            const vec4 v = {color[0] * k, color[1] * k, color[2] * k, color[3]};
            table[c * shades + s] = n3d_linear_to_argb1555(v);
        }
    }
}

static void n3d_texture_build_shade_table_index8(n3d_texture* texture, const n3d_display_clut* clut)
{
    if (texture->colors_count > N3D_PALETTE_COLORS)
        crash_in("src/n3d_convert", __LINE__, "n3d_texture_build_shade_table_index8",
                 "max colors count is 256 (can't use more in an 8bpp trexture...)\n");
    if ((uint64_t)clut->first_index + clut->count > texture->colors_count)
        crash_in("src/n3d_convert", __LINE__, "n3d_texture_build_shade_table_index8",
                 "palette uses %d colors but max is %d!\n", (int)(clut->first_index + clut->count),
                 (int)texture->colors_count);
    vec4 colors[N3D_PALETTE_COLORS];
    n3d_clut_to_linear(colors, clut->colors, clut->count);
    auto* table = (uint8_t*)texture->shade_table;
    const uint32_t shades = texture->shades_per_color;
    for (uint32_t k = clut->first_index; k < clut->first_index + clut->count; ++k) {
        const float* color = colors[k - clut->first_index];
        for (uint32_t s = 0; s < shades; ++s) {
            const float f = (float)(s + 1) / (float)shades;
            const vec4 v = {color[0] * f, color[1] * f, color[2] * f, color[3]};
            table[k * shades + s] = (uint8_t)(clut->first_index + n3d_color_nearest(colors, clut->count, v));
        }
    }
}

// ---- coverage fit ----

// Share of the level's pixels whose alpha is below `limit`.
static float n3d_share_below(const bitmap* bm, float limit)
{
    uint32_t below = 0;
    for (uint32_t y = 0; y < bm->height; ++y) {
        for (uint32_t x = 0; x < bm->width; ++x) {
            vec4 v;
            bitmap_decode_pixel(v, bitmap_pixel(bm, x, y), bm->flags);
            below += v[3] < limit;
        }
    }
    return (float)below / (float)((uint64_t)bm->width * bm->height);
}

// alpha_threshold / c, written out for c = 0 so that no float division by zero happens
static float n3d_threshold_over(float alpha_threshold, float c)
{
    if (c > 0.0f)
        return alpha_threshold / c;
    return alpha_threshold > 0.0f ? INFINITY : 0.0f;
}

// Scales the level's alpha by a factor c in [0, 1], searched so that the share of pixels an
// alpha test removes tracks the full-size image's share.
static void n3d_coverage_fit(bitmap* level, float alpha_threshold, float full_cover)
{
    const float n = (float)((uint64_t)level->width * level->height);
    const float h = 0.001f;
    float c = 1.0f;
    for (uint32_t iter = 0; iter < N3D_COVERAGE_FIT_ITERATIONS; ++iter) {
        const float f0 = n3d_share_below(level, n3d_threshold_over(alpha_threshold, c));
        const float f1 = n3d_share_below(level, n3d_threshold_over(alpha_threshold, c + h));
        const float slope = (f1 - f0) / h;
        const float err = f0 - full_cover;
        if (err < 1.0f / n)
            break;
        const float next = c + slope * err;
        printf("iter[%d] err %f c: %f newc: %f\n", (int)iter, err, c, next);
        c = n3d_clampf(next, 0.0f, 1.0f);
    }
    if (c == 1.0f)  // nothing to scale; skipping keeps the bytes exactly as the downscale left them
        return;
    for (uint32_t y = 0; y < level->height; ++y) {
        for (uint32_t x = 0; x < level->width; ++x) {
            uint8_t* p = bitmap_pixel(level, x, y);
            vec4 v;
            bitmap_decode_pixel(v, p, level->flags);
            v[3] *= c;
            bitmap_encode_pixel(p, level->flags, v);
        }
    }
}

// ---- conversion ----

// The bump texel: the unit normal's x and y as signed bytes, then two magnitudes the bump
// effect uses for its lighting.
static uint32_t n3d_bump_texel(const vec4 v)
{
    const float nxu = 2.0f * v[0] - 1.0f;
    const float nyu = 2.0f * v[1] - 1.0f;
    const float nzu = 2.0f * v[2] - 1.0f;
    const float len = sqrtf(nxu * nxu + nyu * nyu + nzu * nzu);
    const float nx = len > 0.0f ? nxu / len : 0.0f;  // a zero vector has no direction: flat
    const float ny = len > 0.0f ? nyu / len : 0.0f;
    const long sx = n3d_clampl(std::lrint(nx * 127.0f), -128, 127);
    const long sy = n3d_clampl(std::lrint(ny * 127.0f), -128, 127);
    const uint32_t m1 = (uint32_t)n3d_clampf((nxu * nxu + nyu * nyu) * 255.0f, 0.0f, 255.0f);  // unnormalised
    const long m0 = n3d_clampl(n3d_clampl(std::lrint(nx * nx * 127.0f), 0, 127) +
                                   n3d_clampl(std::lrint(ny * ny * 127.0f), 0, 127),
                               0, 255);
    return (uint32_t)(uint8_t)sx << 24 | (uint32_t)(uint8_t)sy << 16 | m1 << 8 | (uint32_t)m0;
}

void n3d_framebuffer_from_bitmap(n3d_framebuffer* fb, N3D_TEXEL_FORMAT format, uint32_t swizzle,
                                 const uint8_t* reverse_palette, const n3d_display_clut* display_clut,
                                 const bitmap* bm, uint32_t transparent_index, float alpha_threshold)
{
    if (format == N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8 && !display_clut)
        crash_in("src/n3d_convert", __LINE__, "n3d_framebuffer_from_bitmap",
                 "must provide display_clut (was nil) for format %d\n", (int)format);
    if (format == N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555 && !reverse_palette)
        crash_in("src/n3d_convert", __LINE__, "n3d_framebuffer_from_bitmap",
                 "must provide reverse_palette (was nil) for format %d\n", (int)format);
    const uint32_t width = (uint32_t)fb->width;
    const uint32_t pow2 = width != 0 && (width & (width - 1)) == 0;
    if (swizzle && !pow2)
        crash_in("src/n3d_convert", __LINE__, "n3d_framebuffer_from_bitmap",
                 "can only swizzle when width is pow2! width is: %d\n", (int)fb->width);
    vec4 clut[N3D_PALETTE_COLORS];
    uint32_t clut_count = 0, clut_first = 0;
    if (display_clut) {
        clut_count = display_clut->count < N3D_PALETTE_COLORS ? display_clut->count : N3D_PALETTE_COLORS;
        clut_first = display_clut->first_index;
        n3d_clut_to_linear(clut, display_clut->colors, clut_count);
    }
    const uint32_t log2_w = pow2 ? (uint32_t)__builtin_ctz(width) : 0;
    const uint32_t transparent = transparent_index != N3D_TRANSPARENT_INDEX_NONE;
    for (uint32_t y = 0; y < bm->height; ++y) {
        const uint32_t row_texel = pow2 ? 0
                                        : y * (uint32_t)fb->row_bytes /
                                              n3d_bytes_per_texel(format, "src/n3d_convert", __LINE__,
                                                                  "n3d_framebuffer_from_bitmap");
        for (uint32_t x = 0; x < bm->width; ++x) {
            const uint32_t index = pow2 ? n3d_texel_index(format, log2_w, swizzle, x, y) : row_texel + x;
            vec4 v;
            bitmap_decode_pixel(v, bitmap_pixel(bm, x, y), bm->flags);
            switch (format) {
            case N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555:
                fb->pixels[index] = transparent && alpha_threshold > v[3]
                                        ? (uint8_t)transparent_index
                                        : reverse_palette[n3d_linear_to_argb1555(v) & N3D_ARGB1555_COLOR_MASK];
                break;
            case N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8:
                fb->pixels[index] = transparent && alpha_threshold > v[3]
                                        ? (uint8_t)transparent_index
                                        : (uint8_t)(clut_first + n3d_color_nearest(clut, clut_count, v));
                break;
            case N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555: {
                uint32_t q[3];
                for (int i = 0; i < 3; ++i)  // premultiplied as it is: a transparent pixel is black
                    q[i] = (uint32_t)(linear_to_srgb((double)v[i]) * N3D_ARGB1555_CHANNEL_MAX + 0.5);
                ((uint16_t*)fb->pixels)[index] = (uint16_t)(N3D_ARGB1555_ALPHA | q[0] << N3D_ARGB1555_RED_SHIFT |
                                                            q[1] << N3D_ARGB1555_GREEN_SHIFT | q[2]);
                break;
            }
            case N3D_TEXEL_FORMAT_BUMPMAP:
                ((uint32_t*)fb->pixels)[index] = n3d_bump_texel(v);
                break;
            default:
                crash_in("src/n3d_convert", __LINE__, "n3d_framebuffer_from_bitmap",
                         "not implemented texture format %d\n", (int)format);
            }
        }
    }
}

void n3d_texture_from_bitmap(n3d_texture* texture, xmemarena* arena, xmemarena* tmp_arena, N3D_TEXEL_FORMAT format,
                             uint32_t swizzle, uint32_t mips, uint32_t mips_from_full, const bitmap* bm,
                             const n3d_display_clut* display_clut, uint32_t transparent_index, float alpha_threshold)
{
    const uint64_t tmp_mark = xmemarena_get_sp(tmp_arena);
    const uint32_t W = n3d_log2_ceil(bm->width);
    const uint32_t H = n3d_log2_ceil(bm->height);
    const uint32_t min_w = mips ? N3D_CONVERT_MIN_LOG2 : W;
    const uint32_t min_h = mips ? N3D_CONVERT_MIN_LOG2 : H;

    // each broken rule is printed first: they are the "logs above" the fatal message names
    uint32_t ok = 1;
    if (format < N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555 || format > N3D_TEXEL_FORMAT_BUMPMAP)
        ok = 0, printf("texture format %d is not one of 1 to 4\n", (int)format);
    if (bm->width != (uint64_t)1 << W || bm->height != (uint64_t)1 << H)
        ok = 0, printf("a texture's width and height must be powers of two, not %u x %u\n", bm->width, bm->height);
    if (bm->width < 4 || bm->height < 4)
        ok = 0, printf("a texture must be at least 4 x 4, not %u x %u\n", bm->width, bm->height);
    if (swizzle && (bm->width > N3D_SWIZZLE_MAX_SIZE || bm->height > N3D_SWIZZLE_MAX_SIZE))
        ok = 0, printf("a swizzled texture is at most %u x %u, not %u x %u\n", N3D_SWIZZLE_MAX_SIZE,
                       N3D_SWIZZLE_MAX_SIZE, bm->width, bm->height);
    if (format == N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8 && !display_clut)
        ok = 0, printf("a texture of display indices needs the display's colour table\n");
    if (W + H > N3D_CONVERT_MAX_LOG2_AREA)
        ok = 0, printf("a texture has at most 2^%u texels, not %u x %u\n", N3D_CONVERT_MAX_LOG2_AREA, bm->width,
                       bm->height);
    if (!ok)
        crash_in("src/n3d_convert", __LINE__, "n3d_texture_from_bitmap",
                 "cannot create texture, did not meet requirements, see above logs\n");

    memset(texture, 0, sizeof(*texture));
    texture->format = format;
    texture->linear = swizzle ? 0 : 1;
    texture->log2_w = W;
    texture->log2_h = H;
    texture->min_log2_w = min_w;
    texture->min_log2_h = min_h;
    const uint32_t slots = n3d_mip_slot_count(W, H, min_w, min_h);
    texture->mips = (void**)xmemarena_push_align(arena, sizeof(void*) * slots, alignof(void*));
    memset(texture->mips, 0, sizeof(void*) * slots);  // slots between levels read null

    uint64_t total = 0;
    for (uint32_t w = W; w >= min_w; --w) {  // min_w >= 2, so w never wraps
        for (uint32_t h = H; h >= min_h; --h) {
            const uint32_t size = n3d_mipmap_size(format, swizzle, w, h);
            void* block = xmemarena_push_align(arena, size, 32);  // 16- and 32-bit texels stay aligned
            memset(block, 0, size);
            texture->mips[n3d_mip_slot(texture, w, h)] = block;
            total += size;
        }
    }
    printf("bitmap wh: %u %u => texture (mips: %d) total bytes: %d => %.2f mb\n", (unsigned)bm->width,
           (unsigned)bm->height, (int)mips, (int)total, (double)total / 1024.0 / 1024.0);

    auto* levels = (bitmap*)xmemarena_push_align(tmp_arena, sizeof(bitmap) * slots, alignof(bitmap));
    memset(levels, 0, sizeof(bitmap) * slots);
    for (uint32_t w = W; w >= min_w; --w)
        for (uint32_t h = H; h >= min_h; --h)
            bitmap_init(&levels[n3d_mip_slot(texture, w, h)], tmp_arena, 1u << w, 1u << h, bm->flags);
    bitmap_convert(&levels[0], bm);

    uint8_t* reverse_palette = nullptr;
    if (format == N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8) {
        texture->colors_count = N3D_PALETTE_COLORS;
        texture->shades_per_color = N3D_SHADES_PER_COLOR;
        texture->palette = xmemarena_push_zero(arena, N3D_PALETTE_COLORS);  // carried by texture files only
        // rows outside the CLUT's range are never written: zeroed so that tables compare equal
        texture->shade_table = xmemarena_push_zero(arena, N3D_PALETTE_COLORS * N3D_SHADES_PER_COLOR);
        n3d_texture_build_shade_table_index8(texture, display_clut);
    } else if (format == N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555) {
        texture->colors_count = N3D_PALETTE_COLORS;
        texture->shades_per_color = N3D_SHADES_PER_COLOR;
        auto* palette = (uint16_t*)xmemarena_push_align(arena, sizeof(uint16_t) * N3D_PALETTE_COLORS, 32);
        memset(palette, 0, sizeof(uint16_t) * N3D_PALETTE_COLORS);
        texture->palette = palette;
        n3d_palette_from_bitmap(palette, bm, tmp_arena);
        texture->shade_table =
            xmemarena_push_align(arena, sizeof(uint16_t) * N3D_PALETTE_COLORS * N3D_SHADES_PER_COLOR, 32);
        n3d_texture_build_shade_table_argb1555(texture);
        reverse_palette = (uint8_t*)xmemarena_push(tmp_arena, N3D_REVERSE_PALETTE_SIZE);
        n3d_reverse_palette_build(reverse_palette, palette);
    }

    uint64_t below = 0;
    for (uint32_t y = 0; y < bm->height; ++y) {
        for (uint32_t x = 0; x < bm->width; ++x) {
            vec4 v;
            bitmap_decode_pixel(v, bitmap_pixel(bm, x, y), bm->flags);
            below += v[3] < alpha_threshold;
        }
    }
    const float full_cover = (float)below / (float)((uint64_t)bm->width * bm->height);

    const uint32_t fit = (format == N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555 ||
                          format == N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8) &&
                         transparent_index != N3D_TRANSPARENT_INDEX_NONE;
    const uint32_t texel_bytes = n3d_bytes_per_texel(format, "src/n3d_convert", __LINE__, "n3d_texture_from_bitmap");
    for (uint32_t w = W; w >= min_w; --w) {
        for (uint32_t h = H; h >= min_h; --h) {
            const uint32_t slot = n3d_mip_slot(texture, w, h);
            bitmap* level = &levels[slot];
            if (slot != 0) {
                // at most four times larger each way, and made already: the loops run from large to small
                const uint32_t src_w = mips_from_full ? W : (w + 2 < W ? w + 2 : W);
                const uint32_t src_h = mips_from_full ? H : (h + 2 < H ? h + 2 : H);
                bitmap_downscale(level, &levels[n3d_mip_slot(texture, src_w, src_h)], BITMAP_FILTER_LANCZOS,
                                 tmp_arena);
            }
            if (fit)
                n3d_coverage_fit(level, alpha_threshold, full_cover);
            n3d_framebuffer fb;
            fb.format = format;
            fb.width = (int32_t)(1u << w);
            fb.height = (int32_t)(1u << h);
            fb.row_bytes = (int32_t)((1u << w) * texel_bytes);
            fb.pixels = (uint8_t*)texture->mips[slot];
            n3d_framebuffer_from_bitmap(&fb, format, swizzle, reverse_palette, display_clut, level, transparent_index,
                                        alpha_threshold);
        }
    }
    xmemarena_set_sp(tmp_arena, tmp_mark);
}

uint32_t n3d_textures_dbg_cmp(const n3d_texture* a, const n3d_texture* b)
{
    if (a->format != b->format || a->linear != b->linear || a->log2_w != b->log2_w || a->log2_h != b->log2_h)
        return 0;
    if (a->colors_count != b->colors_count || a->shades_per_color != b->shades_per_color)
        return 0;
    if ((a->shade_table == nullptr) != (b->shade_table == nullptr))
        return 0;
    if (a->format == N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555 || a->format == N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8) {
        if (!a->shade_table)
            return 0;
        const uint64_t bytes = (uint64_t)a->colors_count * a->shades_per_color *
                               (a->format == N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555 ? 2 : 1);
        return memcmp(a->shade_table, b->shade_table, bytes) == 0;
    }
    return 1;
}

// ---- phong LUT ----

static void n3d_phong_lut_guards(uint8_t* storage)
{
    uint8_t* table = storage + N3D_PHONG_LUT_GUARD;
    for (uint32_t i = 0; i < N3D_PHONG_LUT_GUARD; ++i) {
        storage[i] = table[0];
        table[N3D_PHONG_LUT_ENTRIES + i] = table[N3D_PHONG_LUT_ENTRIES - 1];
    }
}

static void n3d_phong_lut_fill(uint8_t* storage, float falloff, uint32_t min_shade)
{
    uint8_t* table = storage + N3D_PHONG_LUT_GUARD;
    for (uint32_t i = 0; i < N3D_PHONG_LUT_ENTRIES; ++i) {
        const float spread = sqrtf(2.0f * (float)i / 255.0f);
        // a falloff of 0 is a highlight of no width: full at index 0, nothing beyond
        const float v = falloff > 0.0f ? 1.0f - spread / falloff : (i == 0 ? 1.0f : 0.0f);
        const uint32_t shade = (uint32_t)(31.0f * (v > 0.0f ? v : 0.0f));
        table[i] = (uint8_t)(shade > min_shade ? shade : min_shade);
    }
    n3d_phong_lut_guards(storage);
}

void n3d_phong_lut_init(n3d_phong_lut* lut, xmemarena* arena, float falloff, uint32_t min_shade)
{
    memset(lut, 0, sizeof(*lut));
    lut->storage = (uint8_t*)xmemarena_push(arena, N3D_PHONG_LUT_BYTES);
    lut->table = lut->storage + N3D_PHONG_LUT_GUARD;
    lut->guard = N3D_PHONG_LUT_GUARD;
    lut->falloff = falloff;
    lut->min_shade = min_shade;
    n3d_phong_lut_fill(lut->storage, falloff, min_shade);
}

uint8_t* n3d_phong_lut_alloc(xmemarena* arena, float falloff, uint32_t min_shade)
{
    auto* storage = (uint8_t*)xmemarena_push(arena, N3D_PHONG_LUT_BYTES);
    n3d_phong_lut_fill(storage, falloff, min_shade);
    return storage + N3D_PHONG_LUT_GUARD;
}

void n3d_phong_lut_set_default(n3d_phong_lut* lut)
{
    if (!lut->storage)
        crash_in("src/n3d_convert", __LINE__, "n3d_phong_lut_set_default",
                 "phong lut has no storage (not initialised)\n");
    // last index of each shade 0..31; the shape was tuned by eye and has no formula
    static const uint8_t last_index[N3D_SHADES_PER_COLOR] = {
        5,  11, 17, 23, 29, 35, 40, 45, 50,  55,  60,  65,  70,  75,  80,  84,
        88, 92, 96, 100, 104, 107, 110, 113, 116, 119, 121, 123, 125, 126, 127, 255,
    };
    uint32_t shade = 0;
    for (uint32_t i = 0; i < N3D_PHONG_LUT_ENTRIES; ++i) {
        while (i > last_index[shade])
            ++shade;
        lut->table[i] = (uint8_t)shade;
    }
    n3d_phong_lut_guards(lut->storage);
    lut->falloff = 0.0f;
    lut->min_shade = 1;
}

// ---- PBR shade table ----

uint32_t n3d_texture_build_shade_table_argb1555_pbr(uint16_t* table, uint32_t shades, uint32_t colors,
                                                   const vec3 emission, const vec3 ambient, const vec3 light_color,
                                                   const vec3 highlight_color, float metallic, float roughness,
                                                   const uint16_t* palette)
{
    const float m = n3d_clampf(metallic, 0.0f, 1.0f);
    const float r = n3d_clampf(roughness, 0.0f, 1.0f);
    const float alpha = r * r;
    const float alpha2 = alpha * alpha;
    const float k = (r + 1.0f) * (r + 1.0f) / 8.0f;
    if (shades > 256)
        crash_in("src/n3d_convert", __LINE__, "n3d_texture_build_shade_table_argb1555_pbr",
                 "shades per color must be < 256 is %d\n", (int)shades);

    float spec_base[256], fresnel[256], ndl[256];
    for (uint32_t s = 0; s < shades; ++s) {
        // shades past the table stay at its last cosine (perpendicular) instead of reading past it
        const float c = N3D_HALF_ANGLE_COS[s < N3D_SHADES_PER_COLOR ? s : N3D_SHADES_PER_COLOR - 1];
        const float d = c * c * (alpha2 - 1.0f) + 1.0f;
        const float D = fmaxf(alpha2 / (d * d), N3D_PBR_MIN_DISTRIBUTION);  // fmaxf also turns 0 / 0 into the floor
        const float n = n3d_clampf(1.0f - 0.5f * (1.0f - c * c), 0.0f, 1.0f);
        const float G = n / (n * (1.0f - k) + k);
        spec_base[s] = D * G;
        const float f = 1.0f - c;
        fresnel[s] = f * f * f * f * f;
        ndl[s] = n;
    }
    for (uint32_t i = 0; i < colors; ++i) {
        vec4 albedo;
        n3d_argb1555_to_linear(albedo, palette[i]);
        float f0[3], diffuse[3];
        for (int j = 0; j < 3; ++j) {
            f0[j] = 0.04f * (1.0f - m) + albedo[j] * m;
            diffuse[j] = albedo[j] * (1.0f - m);
        }
        for (uint32_t s = 0; s < shades; ++s) {
            uint32_t q[3];
            for (int j = 0; j < 3; ++j) {
                const float F = f0[j] + (1.0f - f0[j]) * fresnel[s];
                const float spec = n3d_clampf(spec_base[s] * F, 0.0f, 1.0f);
                const float diff = n3d_clampf(diffuse[j] * ndl[s], 0.0f, 1.0f);
                const float light = light_color[j] + spec * (highlight_color[j] - light_color[j]);
                const float out = n3d_clampf(emission[j] + ambient[j] * albedo[j] + light * (spec + diff), 0.0f, 1.0f);
                q[j] = n3d_linear_to_5bit(out);
            }
            table[i * shades + s] = (uint16_t)(q[0] << N3D_ARGB1555_RED_SHIFT | N3D_ARGB1555_ALPHA |
                                               q[1] << N3D_ARGB1555_GREEN_SHIFT | q[2]);
        }
    }
    return colors;
}
