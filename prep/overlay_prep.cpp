// Pictures of colour indices from PNG files, the overlay resources made from them, stroke
// orders, and the careful file writing the preparation tools share.
#include "overlay_prep.h"

#include "prep_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>

#include "bitmap.h"
#include "n3d_io.h"
#include "reel_rle_image.h"
#include "rle_image_encode.h"
#include "vmath.h"

static const char* const PREP_FILE = "prep/overlay_prep";
constexpr uint32_t PREP_PNG_COLOR_TYPE_INDEXED = 3;
constexpr uint32_t PREP_MAX_LOG2 = N3D_IO_MAX_LOG2_LINEAR;
constexpr uint32_t PREP_MIN_LOG2 = 2;  // rows of at least 4 bytes, as the image blit copies them
constexpr uint8_t PREP_ALPHA_OPAQUE_FROM = 128;

static uint32_t prep_be32(const uint8_t* p) { return (uint32_t)p[0] << 24 | p[1] << 16 | p[2] << 8 | p[3]; }

// The colour type and the PLTE and tRNS chunks of a PNG held in memory, every length checked
// against the bytes that remain.
static uint32_t prep_png_chunks(reel_palette* palette, uint32_t* color_type, xmemarena* arena, const uint8_t* data,
                                uint64_t size, const char** why)
{
    static const uint8_t signature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    if (size < 8 || memcmp(data, signature, 8) != 0)
        return *why = "not a PNG file", 0;
    memset(palette, 0, sizeof(*palette));
    palette->entries = (uint8_t*)xmemarena_push_zero(arena, 256 * 4);
    *color_type = 0;
    const uint8_t* trns = nullptr;
    uint32_t trns_count = 0;
    for (uint64_t pos = 8; pos + 12 <= size;) {
        const uint32_t length = prep_be32(data + pos);
        if (length > size - pos - 12)
            return *why = "a PNG chunk runs past the end of the file", 0;
        const uint8_t* type = data + pos + 4;
        const uint8_t* body = data + pos + 8;
        if (memcmp(type, "IHDR", 4) == 0 && length >= 10)
            *color_type = body[9];
        else if (memcmp(type, "PLTE", 4) == 0) {
            if (length % 3 != 0 || length > 256 * 3)
                return *why = "the PNG's palette chunk is not 1 to 256 colours", 0;
            palette->count = length / 3;
            for (uint32_t i = 0; i < palette->count; i++) {
                memcpy(palette->entries + i * 4, body + i * 3, 3);
                palette->entries[i * 4 + 3] = 255;
            }
        } else if (memcmp(type, "tRNS", 4) == 0) {
            trns = body, trns_count = length;
        } else if (memcmp(type, "IEND", 4) == 0) {
            break;
        }
        pos += 12 + (uint64_t)length;
    }
    for (uint32_t i = 0; trns && i < trns_count && i < palette->count; i++)
        palette->entries[i * 4 + 3] = trns[i];
    return 1;
}

// The same, for a file read whole into arena.
static uint32_t prep_png_file_chunks(reel_palette* palette, uint32_t* color_type, xmemarena* arena, const char* path,
                                     const char** why)
{
    uint64_t size = 0;
    errno = 0;
    auto* data = (const uint8_t*)file_read_arena(path, arena, &size);
    if (!data)
        return *why = strerror(errno ? errno : ENOENT), 0;
    return prep_png_chunks(palette, color_type, arena, data, size, why);
}

uint32_t prep_png_palette(reel_palette* palette, xmemarena* arena, const char* path, const char** why)
{
    uint32_t color_type = 0;
    reel_palette found;
    if (!prep_png_file_chunks(&found, &color_type, arena, path, why))
        return 0;
    if (color_type == PREP_PNG_COLOR_TYPE_INDEXED && found.count > 0) {
        *palette = found;
        return 1;
    }
    bitmap* bm = bitmap_load_png(arena, path, 4);
    if (!bm)
        return *why = "the PNG cannot be decoded", 0;
    if ((uint64_t)bm->width * bm->height > 256)
        return *why = "a palette picture holds at most 256 pixels", 0;
    palette->first = 0;
    palette->count = bm->width * bm->height;
    palette->entries = found.entries;
    for (uint32_t i = 0; i < palette->count; i++)
        memcpy(palette->entries + i * 4, bitmap_pixel(bm, i % bm->width, i / bm->width), 4);
    return 1;
}

static uint32_t prep_first_transparent(const reel_palette* palette)
{
    for (uint32_t i = 0; i < palette->count; i++)
        if (palette->entries[i * 4 + 3] == 0)
            return i;
    return PREP_NO_KEY;
}

uint32_t prep_load_indexed_png(prep_index_picture* picture, xmemarena* arena, const char* path, const char** why)
{
    uint32_t color_type = 0;
    if (!prep_png_file_chunks(&picture->palette, &color_type, arena, path, why))
        return 0;
    if (color_type != PREP_PNG_COLOR_TYPE_INDEXED || picture->palette.count == 0)
        return *why = "not an indexed PNG (give a palette to map its colours onto)", 0;
    bitmap* bm = bitmap_load_png(arena, path, 4);
    if (!bm)
        return *why = "the PNG cannot be decoded", 0;
    picture->width = bm->width;
    picture->height = bm->height;
    picture->pixels = (uint8_t*)xmemarena_push(arena, (uint64_t)bm->width * bm->height);
    picture->key = prep_first_transparent(&picture->palette);
    const reel_palette* p = &picture->palette;
    for (uint32_t y = 0; y < bm->height; y++)
        for (uint32_t x = 0; x < bm->width; x++) {
            const uint8_t* rgba = bitmap_pixel(bm, x, y);
            uint32_t i = 0;
            while (i < p->count && memcmp(p->entries + i * 4, rgba, 4) != 0)
                i++;
            if (i == p->count)
                return *why = "a pixel has a colour its palette does not hold", 0;
            picture->pixels[y * bm->width + x] = (uint8_t)i;
        }
    return 1;
}

// Nearest colour by red, green and blue in linear light, never the transparent index: an opaque
// pixel stays visible however dark it is. Ties go to the first entry.
static uint32_t prep_nearest_opaque(const vec4* colors, uint32_t count, const vec4 c, uint32_t key)
{
    uint32_t best = key == 0 && count > 1 ? 1 : 0;
    float best_distance = INFINITY;
    for (uint32_t i = 0; i < count; i++) {
        if (i == key)
            continue;
        const float dr = colors[i][0] - c[0], dg = colors[i][1] - c[1], db = colors[i][2] - c[2];
        const float d = dr * dr + dg * dg + db * db;
        if (d < best_distance)
            best_distance = d, best = i;
    }
    return best;
}

uint32_t prep_load_png_with_palette(prep_index_picture* picture, xmemarena* arena, const char* path,
                                    const reel_palette* palette, uint32_t key, const char** why)
{
    if (palette->count == 0)
        return *why = "the palette is empty", 0;
    bitmap* bm = bitmap_load_png(arena, path, 4);
    if (!bm)
        return *why = "the PNG cannot be read or decoded", 0;
    picture->width = bm->width;
    picture->height = bm->height;
    picture->palette = *palette;
    picture->key = key;
    picture->pixels = (uint8_t*)xmemarena_push(arena, (uint64_t)bm->width * bm->height);
    vec4 linear[256];
    for (uint32_t i = 0; i < palette->count; i++)
        color_srgb_bytes_to_linear(linear[i], palette->entries + i * 4);
    for (uint32_t y = 0; y < bm->height; y++)
        for (uint32_t x = 0; x < bm->width; x++) {
            const uint8_t* rgba = bitmap_pixel(bm, x, y);
            uint32_t index;
            if (rgba[3] < PREP_ALPHA_OPAQUE_FROM) {
                if (key >= 256)
                    return *why = "the picture has transparent pixels but no transparent index was given", 0;
                index = key;
            } else {
                vec4 c;
                color_srgb_bytes_to_linear(c, rgba);
                index = prep_nearest_opaque(linear, palette->count, c, key);
            }
            picture->pixels[y * bm->width + x] = (uint8_t)index;
        }
    return 1;
}

static uint32_t prep_log2_at_least(uint32_t v, uint32_t minimum)
{
    uint32_t l = minimum;
    while ((1u << l) < v)
        l++;
    return l;
}

void prep_texture_from_indices(n3d_texture* texture, xmemarena* arena, const prep_index_picture* picture,
                               uint32_t min_width, uint32_t mips)
{
    const uint32_t lw = prep_log2_at_least(std::max(picture->width, min_width), PREP_MIN_LOG2);
    const uint32_t lh = prep_log2_at_least(picture->height, PREP_MIN_LOG2);
    if (lw > PREP_MAX_LOG2 || lh > PREP_MAX_LOG2)
        crash_in(PREP_FILE, __LINE__, "prep_texture_from_indices", "picture of %u x %u is larger than %u a side\n",
                 picture->width, picture->height, 1u << PREP_MAX_LOG2);
    memset(texture, 0, sizeof(*texture));
    texture->format = N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8;
    texture->linear = 1;
    texture->log2_w = lw, texture->log2_h = lh;
    texture->min_log2_w = mips ? PREP_MIN_LOG2 : lw;
    texture->min_log2_h = mips ? PREP_MIN_LOG2 : lh;
    texture->colors_count = N3D_IO_TEXTURE_COLORS;
    texture->shades_per_color = N3D_IO_TEXTURE_SHADES;
    texture->palette = xmemarena_push_zero(arena, N3D_IO_TEXTURE_COLORS);
    // overlay effects draw the indices themselves: every shade of a colour is that colour
    auto* shades = (uint8_t*)xmemarena_push(arena, N3D_IO_TEXTURE_COLORS * N3D_IO_TEXTURE_SHADES);
    for (uint32_t i = 0; i < N3D_IO_TEXTURE_COLORS * N3D_IO_TEXTURE_SHADES; i++)
        shades[i] = (uint8_t)(i / N3D_IO_TEXTURE_SHADES);
    texture->shade_table = shades;
    const uint32_t slots = n3d_mip_slot_count(lw, lh, texture->min_log2_w, texture->min_log2_h);
    texture->mips = (void**)xmemarena_push_zero(arena, slots * sizeof(void*));
    const uint8_t outside = picture->key < 256 ? (uint8_t)picture->key : 0;
    const uint32_t w = 1u << lw, h = 1u << lh;
    auto* level0 = (uint8_t*)xmemarena_push_align(arena, (uint64_t)w * h, 32);
    memset(level0, outside, (size_t)w * h);
    for (uint32_t y = 0; y < picture->height; y++)
        memcpy(level0 + (uint64_t)y * w, picture->pixels + (uint64_t)y * picture->width, picture->width);
    texture->mips[0] = level0;
    for (uint32_t a = lw + 1; a-- > texture->min_log2_w;)
        for (uint32_t b = lh + 1; b-- > texture->min_log2_h;) {
            if (a == lw && b == lh)
                continue;
            const uint32_t sx = lw - a, sy = lh - b;
            auto* level = (uint8_t*)xmemarena_push_align(arena, (uint64_t)1 << (a + b), 32);
            for (uint32_t y = 0; y < (1u << b); y++)
                for (uint32_t x = 0; x < (1u << a); x++)
                    level[((uint64_t)y << a) + x] = level0[((uint64_t)(y << sy) << lw) + (x << sx)];
            texture->mips[n3d_mip_slot(texture, a, b)] = level;
        }
}

void prep_stencil_from_indices(n3d_coverage_buffer* stencil, xmemarena* arena, const prep_index_picture* picture)
{
    const uint32_t width = (picture->width + 31) / 32 * 32;
    n3d_coverage_buffer_init(stencil, width, picture->height, arena);
    for (uint32_t y = 0; y < picture->height; y++)
        for (uint32_t x = 0; x < picture->width; x++)
            if (picture->pixels[y * picture->width + x] != picture->key)
                stencil->bits[(y * width + x) / 32] |= 0x80000000u >> (x % 32);
}

void prep_rle_from_indices(reel_rle_image* image, xmemarena* arena, const prep_index_picture* picture)
{
    n3d_framebuffer fb;
    n3d_framebuffer_wrap(&fb, N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8, picture->width, picture->height, picture->width,
                         picture->pixels);
    reel_rle_image_from_framebuffer(image, arena, &fb, (uint8_t)(picture->key < 256 ? picture->key : 0));
}

// ---- stroke orders ----

void prep_stroke_from_path(uint8_t* texels, uint32_t width, uint32_t height, const float* points, uint32_t count,
                           float radius)
{
    memset(texels, 0, (size_t)width * height);
    float total = 0.0f;
    for (uint32_t i = 1; i < count; i++)
        total += hypotf(points[2 * i] - points[2 * i - 2], points[2 * i + 1] - points[2 * i - 1]);
    for (uint32_t y = 0; y < height; y++)
        for (uint32_t x = 0; x < width; x++) {
            const float px = (float)x + 0.5f, py = (float)y + 0.5f;
            float best = INFINITY, at = 0.0f, along = 0.0f;
            for (uint32_t i = 0; i + 1 < count || (count == 1 && i == 0); i++) {
                const float ax = points[2 * i], ay = points[2 * i + 1];
                const float bx = count > 1 ? points[2 * i + 2] : ax, by = count > 1 ? points[2 * i + 3] : ay;
                const float dx = bx - ax, dy = by - ay, len2 = dx * dx + dy * dy;
                const float t = len2 > 0.0f ? std::clamp(((px - ax) * dx + (py - ay) * dy) / len2, 0.0f, 1.0f) : 0.0f;
                const float d = hypotf(ax + t * dx - px, ay + t * dy - py);
                if (d < best)
                    best = d, at = along + t * sqrtf(len2);
                along += sqrtf(len2);
            }
            if (best <= radius)
                texels[y * width + x] = (uint8_t)(1 + (total > 0.0f ? std::min(254.0f, 254.0f * at / total) : 0.0f));
        }
}

void prep_stroke_from_shape(uint8_t* texels, const uint8_t* shape, uint32_t width, uint32_t height, uint32_t start_x,
                            uint32_t start_y, xmemarena* scratch_arena)
{
    const uint64_t mark = xmemarena_get_sp(scratch_arena);
    const uint64_t n = (uint64_t)width * height;
    auto* distance = (uint32_t*)xmemarena_push_align(scratch_arena, n * 4, 4);
    auto* queue = (uint32_t*)xmemarena_push_align(scratch_arena, n * 4, 4);
    memset(distance, 0xFF, n * 4);
    uint64_t head = 0, tail = 0;
    uint32_t base = 0, farthest = 0;
    uint64_t next_seed = 0;
    auto seed = [&](uint64_t i) {
        distance[i] = base;
        queue[tail++] = (uint32_t)i;
    };
    if (start_x < width && start_y < height && shape[(uint64_t)start_y * width + start_x])
        seed((uint64_t)start_y * width + start_x);
    while (true) {
        while (head < tail) {
            const uint32_t i = queue[head++];
            const uint32_t x = i % width, y = i / width, d = distance[i];
            farthest = std::max(farthest, d);
            for (int32_t oy = -1; oy <= 1; oy++)
                for (int32_t ox = -1; ox <= 1; ox++) {
                    const int64_t nx = (int64_t)x + ox, ny = (int64_t)y + oy;
                    if (nx < 0 || ny < 0 || nx >= width || ny >= height)
                        continue;
                    const uint64_t j = (uint64_t)ny * width + nx;
                    if (shape[j] && distance[j] == UINT32_MAX) {
                        distance[j] = d + 1;
                        queue[tail++] = (uint32_t)j;
                    }
                }
        }
        // parts the start does not reach follow, each from its first pixel in reading order
        while (next_seed < n && !(shape[next_seed] && distance[next_seed] == UINT32_MAX))
            next_seed++;
        if (next_seed == n)
            break;
        base = farthest + 1;
        seed(next_seed);
    }
    for (uint64_t i = 0; i < n; i++)
        texels[i] = shape[i] ? (uint8_t)(1 + (uint64_t)distance[i] * 254 / std::max(farthest, 1u)) : 0;
    xmemarena_set_sp(scratch_arena, mark);
}

// ---- files ----

static uint32_t prep_crc32(const uint8_t* p, uint64_t n, uint32_t crc = 0)
{
    crc = ~crc;
    for (uint64_t i = 0; i < n; i++) {
        crc ^= p[i];
        for (int k = 0; k < 8; k++)
            crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1)));
    }
    return ~crc;
}

static uint8_t* prep_put_be32(uint8_t* p, uint32_t v)
{
    p[0] = (uint8_t)(v >> 24), p[1] = (uint8_t)(v >> 16), p[2] = (uint8_t)(v >> 8), p[3] = (uint8_t)v;
    return p + 4;
}

// One chunk: length, type, body, CRC over type and body.
static uint8_t* prep_png_chunk(uint8_t* p, const char* type, const uint8_t* body, uint32_t length)
{
    p = prep_put_be32(p, length);
    memcpy(p, type, 4);
    if (length)
        memcpy(p + 4, body, length);
    const uint32_t crc = prep_crc32(p, 4 + (uint64_t)length);
    return prep_put_be32(p + 4 + length, crc);
}

uint8_t* prep_encode_indexed_png(const prep_index_picture* picture, xmemarena* arena, uint64_t* bytes)
{
    const uint32_t w = picture->width, h = picture->height;
    const uint64_t raw_size = (uint64_t)(w + 1) * h;  // a filter byte (0, none) before every row
    constexpr uint32_t STORED_BLOCK = 65535;
    const uint64_t blocks = raw_size / STORED_BLOCK + 1;
    const uint64_t zlib_size = 2 + raw_size + 5 * blocks + 4;
    auto* out = (uint8_t*)xmemarena_push(arena, zlib_size + 8 + 25 + 12 + 256 * 3 + 12 + 256 + 12 + 12 + 12);
    auto* raw = (uint8_t*)xmemarena_push(arena, raw_size);
    for (uint32_t y = 0; y < h; y++) {
        raw[(uint64_t)y * (w + 1)] = 0;
        memcpy(raw + (uint64_t)y * (w + 1) + 1, picture->pixels + (uint64_t)y * w, w);
    }
    auto* zlib = (uint8_t*)xmemarena_push(arena, zlib_size);
    uint8_t* z = zlib;
    *z++ = 0x78, *z++ = 0x01;  // deflate, 32 KiB window, no preset dictionary
    uint32_t a = 1, b = 0;     // Adler-32 of the raw bytes
    for (uint64_t pos = 0; pos < raw_size || pos == 0;) {
        const uint32_t n = (uint32_t)std::min<uint64_t>(STORED_BLOCK, raw_size - pos);
        *z++ = pos + n == raw_size ? 1 : 0;  // stored block, final or not
        *z++ = (uint8_t)n, *z++ = (uint8_t)(n >> 8), *z++ = (uint8_t)~n, *z++ = (uint8_t)(~n >> 8);
        memcpy(z, raw + pos, n);
        for (uint32_t i = 0; i < n; i++)
            a = (a + raw[pos + i]) % 65521, b = (b + a) % 65521;
        z += n, pos += n;
        if (raw_size == 0)
            break;
    }
    z = prep_put_be32(z, b << 16 | a);

    static const uint8_t signature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    uint8_t* p = out;
    memcpy(p, signature, 8), p += 8;
    uint8_t ihdr[13];
    prep_put_be32(prep_put_be32(ihdr, w), h);
    ihdr[8] = 8, ihdr[9] = PREP_PNG_COLOR_TYPE_INDEXED, ihdr[10] = ihdr[11] = ihdr[12] = 0;
    p = prep_png_chunk(p, "IHDR", ihdr, 13);
    const reel_palette* pal = &picture->palette;
    uint8_t plte[256 * 3], trns[256];
    bool opaque = true;
    for (uint32_t i = 0; i < pal->count; i++) {
        memcpy(plte + i * 3, pal->entries + i * 4, 3);
        trns[i] = pal->entries[i * 4 + 3];
        opaque &= trns[i] == 255;
    }
    p = prep_png_chunk(p, "PLTE", plte, pal->count * 3);
    if (!opaque)
        p = prep_png_chunk(p, "tRNS", trns, pal->count);
    p = prep_png_chunk(p, "IDAT", zlib, (uint32_t)(z - zlib));
    p = prep_png_chunk(p, "IEND", nullptr, 0);

    *bytes = (uint64_t)(p - out);
    return out;
}
