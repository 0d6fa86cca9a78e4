// The image library: bitmaps in arenas, the one pixel decode and encode every step shares,
// channel conversion, separable filtered downscaling, PNG files through stb, the flare picture.
#include "bitmap.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <numbers>

#include "diag.h"

// stb is compiled here and nowhere else; static so the engine library exports none of it.
#define STB_IMAGE_STATIC
#define STB_IMAGE_IMPLEMENTATION
#define STBI_ONLY_PNG
#define STB_IMAGE_WRITE_STATIC
#define STB_IMAGE_WRITE_IMPLEMENTATION
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wunused-function"  // the writers this library does not use
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"
#endif
#include <stb_image.h>
#include <stb_image_write.h>
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif

static_assert(sizeof(bitmap) == 24, "texture conversion and tools share this record");

constexpr uint32_t BITMAP_ENCODING_MASK = BITMAP_SRGB | BITMAP_PREMULTIPLIED;
constexpr uint32_t BITMAP_LANCZOS_LOBES = 3;

uint32_t bitmap_channels(uint32_t flags, const char* function)
{
    switch (flags & BITMAP_CHANNELS_MASK) {
    case BITMAP_CHANNELS_4:
        return 4;
    case BITMAP_CHANNELS_3:
        return 3;
    case BITMAP_CHANNELS_2:
        return 2;
    case BITMAP_CHANNELS_1:
        return 1;
    default:
        crash_in("src/bitmap", __LINE__, function, "bitmap flags 0x%x need exactly one channel count\n",
                 (unsigned)flags);
    }
}

void bitmap_init(bitmap* bm, xmemarena* arena, uint32_t width, uint32_t height, uint32_t flags)
{
    const uint32_t channels = bitmap_channels(flags, "bitmap_init");
    memset(bm, 0, sizeof(*bm));
    bm->flags = flags;
    bm->row_bytes = width * channels;
    bm->width = width;
    bm->height = height;
    bm->pixels = (uint8_t*)xmemarena_push_zero(arena, (uint64_t)bm->row_bytes * height);
}

bitmap* bitmap_create(xmemarena* arena, uint32_t width, uint32_t height, uint32_t flags)
{
    auto* bm = (bitmap*)xmemarena_push_align(arena, sizeof(bitmap), alignof(bitmap));
    bitmap_init(bm, arena, width, height, flags);
    return bm;
}

// ---- decode and encode ----

static double bitmap_clamp01(double v) { return v < 0.0 ? 0.0 : (v > 1.0 ? 1.0 : v); }

// c holds the three colour channels as byte / 255 (0 where missing); a is alpha (1 where missing).
static void bitmap_decode_channels(vec4 out, const double c[3], double a, uint32_t flags)
{
    for (int i = 0; i < 3; ++i) {
        double v;
        switch (flags & BITMAP_ENCODING_MASK) {
        case BITMAP_SRGB | BITMAP_PREMULTIPLIED:
            v = a != 0.0 ? srgb_to_linear(bitmap_clamp01(c[i] / a)) * a : 0.0;
            break;
        case BITMAP_SRGB:
            v = srgb_to_linear(bitmap_clamp01(c[i])) * a;
            break;
        case BITMAP_PREMULTIPLIED:
            v = c[i];
            break;
        default:
            v = c[i] * a;
            break;
        }
        out[i] = (float)v;
    }
    out[3] = (float)a;
}

void bitmap_decode_pixel(vec4 out, const uint8_t* p, uint32_t flags)
{
    const uint32_t channels = bitmap_channels(flags, "bitmap_decode_pixel");
    const uint32_t colors = channels < 4 ? channels : 3;
    double c[3] = {0.0, 0.0, 0.0};
    for (uint32_t i = 0; i < colors; ++i)
        c[i] = p[i] / 255.0;
    const double a = channels == 4 ? p[3] / 255.0 : 1.0;
    bitmap_decode_channels(out, c, a, flags);
}

// round(255 v) with halves away from zero, clamped to a byte; NaN gives 0
static uint8_t bitmap_quantize(double v)
{
    const double s = 255.0 * v;
    if (!(s > 0.0))
        return 0;
    if (s >= 255.0)
        return 255;
    return (uint8_t)(s + 0.5);
}

void bitmap_encode_pixel(uint8_t* p, uint32_t flags, const vec4 rgba)
{
    const uint32_t channels = bitmap_channels(flags, "bitmap_encode_pixel");
    const uint32_t colors = channels < 4 ? channels : 3;
    const double a = rgba[3];
    for (uint32_t i = 0; i < colors; ++i) {
        const double c = rgba[i];
        double v;
        switch (flags & BITMAP_ENCODING_MASK) {
        case BITMAP_SRGB | BITMAP_PREMULTIPLIED:
            v = a != 0.0 ? linear_to_srgb(c / a) * a : 0.0;
            break;
        case BITMAP_SRGB:
            v = a != 0.0 ? linear_to_srgb(c / a) : 0.0;
            break;
        case BITMAP_PREMULTIPLIED:
            v = c;
            break;
        default:
            v = a != 0.0 ? c / a : 0.0;
            break;
        }
        p[i] = bitmap_quantize(v);
    }
    if (channels == 4)
        p[3] = bitmap_quantize(a);
}

void bitmap_decode(const bitmap* bm, float* out)
{
    const uint32_t channels = bitmap_channels(bm->flags, "bitmap_decode");
    if ((bm->flags & BITMAP_ENCODING_MASK) != BITMAP_SRGB) {
        for (uint32_t y = 0; y < bm->height; ++y)
            for (uint32_t x = 0; x < bm->width; ++x, out += 4)
                bitmap_decode_pixel(out, bm->pixels + (uint64_t)y * bm->row_bytes + x * channels, bm->flags);
        return;
    }
    // straight sRGB channels are whole bytes: one table lookup, the same value the pixel decode gives
    double to_linear[256];
    for (int i = 0; i < 256; ++i)
        to_linear[i] = srgb_to_linear(i / 255.0);
    const uint32_t colors = channels < 4 ? channels : 3;
    for (uint32_t y = 0; y < bm->height; ++y) {
        const uint8_t* p = bm->pixels + (uint64_t)y * bm->row_bytes;
        for (uint32_t x = 0; x < bm->width; ++x, p += channels, out += 4) {
            const double a = channels == 4 ? p[3] / 255.0 : 1.0;
            for (uint32_t i = 0; i < 3; ++i)
                out[i] = i < colors ? (float)(to_linear[p[i]] * a) : 0.0f;
            out[3] = (float)a;
        }
    }
}

void bitmap_encode(bitmap* bm, const float* in)
{
    const uint32_t channels = bitmap_channels(bm->flags, "bitmap_encode");
    for (uint32_t y = 0; y < bm->height; ++y) {
        uint8_t* p = bm->pixels + (uint64_t)y * bm->row_bytes;
        for (uint32_t x = 0; x < bm->width; ++x, p += channels, in += 4)
            bitmap_encode_pixel(p, bm->flags, in);
    }
}

void bitmap_convert(bitmap* dst, const bitmap* src)
{
    if (dst->width != src->width || dst->height != src->height)
        crash_in("src/bitmap", __LINE__, "bitmap_convert", "sizes differ: %ux%u into %ux%u\n", (unsigned)src->width,
                 (unsigned)src->height, (unsigned)dst->width, (unsigned)dst->height);
    const uint32_t src_channels = bitmap_channels(src->flags, "bitmap_convert");
    const uint32_t dst_channels = bitmap_channels(dst->flags, "bitmap_convert");
    if (dst->flags == src->flags) {
        for (uint32_t y = 0; y < src->height; ++y)
            memcpy(dst->pixels + (uint64_t)y * dst->row_bytes, src->pixels + (uint64_t)y * src->row_bytes,
                   (uint64_t)src->width * src_channels);
        return;
    }
    for (uint32_t y = 0; y < src->height; ++y) {
        const uint8_t* s = src->pixels + (uint64_t)y * src->row_bytes;
        uint8_t* d = dst->pixels + (uint64_t)y * dst->row_bytes;
        for (uint32_t x = 0; x < src->width; ++x, s += src_channels, d += dst_channels) {
            vec4 v;
            bitmap_decode_pixel(v, s, src->flags);
            bitmap_encode_pixel(d, dst->flags, v);
        }
    }
}

// ---- downscaling ----

// Source taps of one axis: destination index k reads taps[k * count + t] with weights[...].
struct bitmap_axis_taps {
    uint32_t count;
    uint32_t* index;
    float* weights;
};

static double bitmap_sinc(double x)
{
    if (x == 0.0)
        return 1.0;
    const double px = std::numbers::pi * x;
    return sin(px) / px;
}

// x in destination pixels from the footprint's centre
static double bitmap_filter_weight(uint32_t kind, double x)
{
    const double ax = fabs(x);
    if (kind == BITMAP_FILTER_TENT)
        return ax < 1.0 ? 1.0 - ax : 0.0;
    const double lobes = BITMAP_LANCZOS_LOBES;
    return ax < lobes ? bitmap_sinc(x) * bitmap_sinc(x / lobes) : 0.0;
}

// weight of source pixel i (covering [i, i + 1)) for a footprint centred at `center`
static double bitmap_tap_weight(uint32_t kind, double i, double center, double radius, double footprint)
{
    if (kind == BITMAP_FILTER_BOX) {  // the share of the pixel inside the footprint
        const double lo = fmax(i, center - radius);
        const double hi = fmin(i + 1.0, center + radius);
        return hi > lo ? hi - lo : 0.0;
    }
    return bitmap_filter_weight(kind, (i + 0.5 - center) / footprint);
}

static void bitmap_axis_taps_build(bitmap_axis_taps* taps, xmemarena* tmp, uint32_t src_n, uint32_t dst_n,
                                   uint32_t kind)
{
    if (src_n == dst_n) {  // every kernel is 1 at 0 and 0 at the other whole offsets: a plain copy
        taps->count = 1;
        taps->index = (uint32_t*)xmemarena_push_align(tmp, sizeof(uint32_t) * dst_n, 16);
        taps->weights = (float*)xmemarena_push_align(tmp, sizeof(float) * dst_n, 16);
        for (uint32_t k = 0; k < dst_n; ++k) {
            taps->index[k] = k;
            taps->weights[k] = 1.0f;
        }
        return;
    }
    const double scale = (double)src_n / dst_n;
    const double footprint = scale > 1.0 ? scale : 1.0;  // upscaling interpolates at source spacing
    const double radius = footprint * (kind == BITMAP_FILTER_BOX    ? 0.5
                                       : kind == BITMAP_FILTER_TENT ? 1.0
                                                                    : (double)BITMAP_LANCZOS_LOBES);
    taps->count = (uint32_t)ceil(2.0 * radius) + 2;
    taps->index = (uint32_t*)xmemarena_push_align(tmp, sizeof(uint32_t) * taps->count * dst_n, 16);
    taps->weights = (float*)xmemarena_push_align(tmp, sizeof(float) * taps->count * dst_n, 16);
    for (uint32_t k = 0; k < dst_n; ++k) {
        const double center = (k + 0.5) * scale;
        const int64_t first = (int64_t)floor(center - radius);
        double sum = 0.0;
        for (uint32_t t = 0; t < taps->count; ++t)
            sum += bitmap_tap_weight(kind, (double)(first + t), center, radius, footprint);
        for (uint32_t t = 0; t < taps->count; ++t) {
            const double w = bitmap_tap_weight(kind, (double)(first + t), center, radius, footprint);
            const int64_t n = (int64_t)src_n;
            taps->index[k * taps->count + t] = (uint32_t)(((first + t) % n + n) % n);  // textures repeat
            taps->weights[k * taps->count + t] = (float)(w / sum);
        }
    }
}

void bitmap_downscale(bitmap* dst, const bitmap* src, uint32_t filter_kind, xmemarena* tmp)
{
    if (filter_kind > BITMAP_FILTER_LANCZOS)
        crash_in("src/bitmap", __LINE__, "bitmap_downscale", "unknown filter kind %u\n", (unsigned)filter_kind);
    if (src->width == 0 || src->height == 0 || dst->width == 0 || dst->height == 0)
        return;
    const uint64_t mark = xmemarena_get_sp(tmp);
    const uint32_t sw = src->width, sh = src->height, dw = dst->width, dh = dst->height;
    bitmap_axis_taps tx, ty;
    bitmap_axis_taps_build(&tx, tmp, sw, dw, filter_kind);
    bitmap_axis_taps_build(&ty, tmp, sh, dh, filter_kind);
    auto* source = (float*)xmemarena_push_align(tmp, (uint64_t)sw * sh * 4 * sizeof(float), 16);
    auto* rows = (float*)xmemarena_push_align(tmp, (uint64_t)dw * sh * 4 * sizeof(float), 16);
    bitmap_decode(src, source);
    for (uint32_t y = 0; y < sh; ++y) {
        const float* s = source + (uint64_t)y * sw * 4;
        float* r = rows + (uint64_t)y * dw * 4;
        for (uint32_t x = 0; x < dw; ++x, r += 4) {
            float acc[4] = {0.0f, 0.0f, 0.0f, 0.0f};
            for (uint32_t t = 0; t < tx.count; ++t) {
                const float w = tx.weights[x * tx.count + t];
                const float* p = s + (uint64_t)tx.index[x * tx.count + t] * 4;
                for (int c = 0; c < 4; ++c)
                    acc[c] += w * p[c];
            }
            vec4_dup(r, acc);
        }
    }
    const uint32_t dst_channels = bitmap_channels(dst->flags, "bitmap_downscale");
    for (uint32_t y = 0; y < dh; ++y) {
        uint8_t* d = dst->pixels + (uint64_t)y * dst->row_bytes;
        for (uint32_t x = 0; x < dw; ++x, d += dst_channels) {
            vec4 acc = {0.0f, 0.0f, 0.0f, 0.0f};
            for (uint32_t t = 0; t < ty.count; ++t) {
                const float w = ty.weights[y * ty.count + t];
                const float* p = rows + ((uint64_t)ty.index[y * ty.count + t] * dw + x) * 4;
                for (int c = 0; c < 4; ++c)
                    acc[c] += w * p[c];
            }
            // negative lobes ring: keep a valid premultiplied pixel, colour never above alpha
            acc[3] = acc[3] < 0.0f ? 0.0f : (acc[3] > 1.0f ? 1.0f : acc[3]);
            for (int c = 0; c < 3; ++c)
                acc[c] = acc[c] < 0.0f ? 0.0f : (acc[c] > acc[3] ? acc[3] : acc[c]);
            bitmap_encode_pixel(d, dst->flags, acc);
        }
    }
    xmemarena_set_sp(tmp, mark);
}

// ---- PNG files ----

bitmap* bitmap_load_png(xmemarena* arena, const char* path, uint32_t channels)
{
    if (channels != 0 && channels != 3 && channels != 4)
        crash_in("src/bitmap", __LINE__, "bitmap_load_png", "can load 3 or 4 channels (or 0: as the file), not %u\n",
                 (unsigned)channels);
    int w = 0, h = 0, file_channels = 0;
    errno = 0;
    if (!stbi_info(path, &w, &h, &file_channels)) {
        // the system's reason when the file would not open, else the decoder's
        printf("bitmap_load_png: cannot load %s: %s\n", path, errno ? strerror(errno) : stbi_failure_reason());
        return nullptr;
    }
    // grey and grey-alpha files become RGB and RGBA: one or two channels here mean red (and green)
    const int want = channels ? (int)channels : (file_channels == 2 || file_channels == 4 ? 4 : 3);
    uint8_t* decoded = stbi_load(path, &w, &h, &file_channels, want);
    if (!decoded) {
        printf("bitmap_load_png: cannot load %s: %s\n", path, stbi_failure_reason());
        return nullptr;
    }
    bitmap* bm = bitmap_create(arena, (uint32_t)w, (uint32_t)h,
                               BITMAP_SRGB | (want == 4 ? BITMAP_CHANNELS_4 : BITMAP_CHANNELS_3));
    memcpy(bm->pixels, decoded, (uint64_t)bm->row_bytes * bm->height);
    stbi_image_free(decoded);  // the pixels live in the arena from here on
    return bm;
}

// Writers that take bitmaps of any flags see sRGB with three or four channels, as a PNG viewer expects.
static const bitmap* bitmap_png_ready(const bitmap* bm, bitmap* converted, xmemarena* arena)
{
    const uint32_t channels = bitmap_channels(bm->flags, "bitmap_save_png");
    if ((bm->flags & BITMAP_ENCODING_MASK) == BITMAP_SRGB && channels >= 3)
        return bm;
    bitmap_init(converted, arena, bm->width, bm->height, BITMAP_SRGB | BITMAP_CHANNELS_4);
    bitmap_convert(converted, bm);
    return converted;
}

uint32_t bitmap_save_png(const bitmap* bm, const char* path, xmemarena* tmp)
{
    const uint64_t mark = xmemarena_get_sp(tmp);
    bitmap converted;
    const bitmap* out = bitmap_png_ready(bm, &converted, tmp);
    const int ok = stbi_write_png(path, (int)out->width, (int)out->height,
                                  (int)bitmap_channels(out->flags, "bitmap_save_png"), out->pixels,
                                  (int)out->row_bytes);
    xmemarena_set_sp(tmp, mark);
    if (!ok) {
        printf("bitmap_save_png: cannot write %s\n", path);
        return 0;
    }
    return 1;
}

struct bitmap_png_sink {
    xmemarena* arena;
    uint8_t* data;
    uint64_t bytes;
};

// stb hands over the whole encoded file in one call
static void bitmap_png_to_arena(void* context, void* data, int size)
{
    auto* sink = (bitmap_png_sink*)context;
    sink->data = (uint8_t*)xmemarena_push(sink->arena, (uint64_t)size);
    memcpy(sink->data, data, (size_t)size);
    sink->bytes = (uint64_t)size;
}

uint8_t* bitmap_encode_png(const bitmap* bm, xmemarena* arena, uint64_t* bytes)
{
    bitmap converted;
    const bitmap* out = bitmap_png_ready(bm, &converted, arena);
    bitmap_png_sink sink = {arena, nullptr, 0};
    if (!stbi_write_png_to_func(bitmap_png_to_arena, &sink, (int)out->width, (int)out->height,
                                (int)bitmap_channels(out->flags, "bitmap_encode_png"), out->pixels,
                                (int)out->row_bytes))
        return nullptr;
    *bytes = sink.bytes;
    return sink.data;
}

// ---- the flare ----

bitmap* bitmap_create_flare(xmemarena* arena)
{
    bitmap* bm = bitmap_create(arena, BITMAP_FLARE_SIZE, BITMAP_FLARE_SIZE, BITMAP_SRGB | BITMAP_CHANNELS_4);
    const double half = BITMAP_FLARE_SIZE / 2.0;
    for (uint32_t y = 0; y < BITMAP_FLARE_SIZE; ++y) {
        for (uint32_t x = 0; x < BITMAP_FLARE_SIZE; ++x) {
            const double dx = (x + 0.5 - half) / half;  // pixel centres, so the picture is symmetric
            const double dy = (y + 0.5 - half) / half;
            const double r2 = dx * dx + dy * dy;
            const double fall = r2 < 1.0 ? 1.0 - r2 : 0.0;  // (1 - r^2)^4: flat top, soft rim, zero at r = 1
            uint8_t* p = bitmap_pixel(bm, x, y);
            p[0] = p[1] = p[2] = 255;
            p[3] = bitmap_quantize(fall * fall * fall * fall);
        }
    }
    return bm;
}
