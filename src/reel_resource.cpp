// Resources: named, typed blocks of the pack files turned into the records effects draw with,
// decoded once on first request and cached by name for the whole run. Every block is read
// through a cursor that ends where its pack entry ends and is checked for what the effects
// rely on (colour-table ranges, run-length rows that fill their width exactly, glyph stencils
// that cover their glyphs), so drawing code can trust the records without checks of its own.
#include "reel_resource.h"

#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "mad.h"
#include "n3d_io.h"
#include "reel_rle_image.h"

static const char* const reel_kind_names[REEL_KIND_COUNT] = {
    "stencil", "texture", "palette_animation", "palette", "rle_image", "image", "madpack", "font", "blob", "raw",
};

const char* reel_kind_name(uint32_t kind) { return kind < REEL_KIND_COUNT ? reel_kind_names[kind] : nullptr; }

[[noreturn]] static void reel_resource_fail(const stream_cursor* cur, int line, const char* function, const char* fmt,
                                            ...) DIAG_PRINTF(4, 5);

// "<resource>: <fault>" through the fatal path, from the reader that found the fault.
static void reel_resource_fail(const stream_cursor* cur, int line, const char* function, const char* fmt, ...)
{
    char text[512];
    va_list args;
    va_start(args, fmt);
    vsnprintf(text, sizeof(text), fmt, args);
    va_end(args);
    crash_in("src/reel", line, function, "%s: %s", cur->file, text);
}

// Writers store some fields in 16 bits: a larger value would silently become another block.
static uint16_t reel_resource_u16_field(uint32_t value, const char* what, const char* function)
{
    if (value > 0xFFFF)
        crash_in("src/reel", __LINE__, function, "%s %u does not fit the block's 16 bits\n", what, value);
    return (uint16_t)value;
}

// Bytes copied from the block into arena; null for none.
static uint8_t* reel_resource_copy(xmemarena* arena, const uint8_t* src, uint64_t size)
{
    if (size == 0)
        return nullptr;
    auto* dst = (uint8_t*)xmemarena_push_align(arena, size, 4);
    memcpy(dst, src, size);
    return dst;
}

// ---- palette (kind 3) ----

const uint8_t* reel_palette_read(xmemarena* arena, reel_palette* palette, stream_cursor* cur)
{
    memset(palette, 0, sizeof(*palette));
    const uint32_t first = stream_cursor_u16(cur, "palette first");
    const uint32_t count = stream_cursor_u16(cur, "palette count");
    // the display's colour-table hooks copy first..first + count unchecked into 256-entry tables
    if (first + count > REEL_PALETTE_ENTRIES)
        reel_resource_fail(cur, __LINE__, "reel_palette_read",
                           "palette of %u entries from %u runs past the %u entries of a colour table\n", count, first,
                           REEL_PALETTE_ENTRIES);
    const uint8_t* entries = stream_cursor_bytes(cur, (uint64_t)count * 4, "palette entries");
    palette->first = first;
    palette->count = count;
    palette->entries = reel_resource_copy(arena, entries, (uint64_t)count * 4);
    return cur->p;
}

uint64_t reel_palette_write_size(const reel_palette* palette) { return 4 + (uint64_t)palette->count * 4; }

uint8_t* reel_palette_write(uint8_t* p, const reel_palette* palette, int32_t order)
{
    p = stream_write_u16(p, reel_resource_u16_field(palette->first, "palette first", "reel_palette_write"), order);
    p = stream_write_u16(p, reel_resource_u16_field(palette->count, "palette count", "reel_palette_write"), order);
    if (palette->count)
        memcpy(p, palette->entries, (size_t)palette->count * 4);
    return p + (size_t)palette->count * 4;
}

// ---- palette animation (kind 2) ----

const uint8_t* reel_palette_animation_read(xmemarena* arena, reel_palette_animation* animation, stream_cursor* cur)
{
    memset(animation, 0, sizeof(*animation));
    const uint32_t width = stream_cursor_u16(cur, "palette animation width");
    const uint32_t height = stream_cursor_u16(cur, "palette animation height");
    const uint32_t palette_count = stream_cursor_u16(cur, "palette animation palette count");
    // the effect picks a palette as a position modulo the count
    if (palette_count == 0)
        reel_resource_fail(cur, __LINE__, "reel_palette_animation_read", "palette animation without palettes\n");
    const uint64_t pixel_bytes = (uint64_t)width * height;
    const uint8_t* pixels = stream_cursor_bytes(cur, pixel_bytes, "palette animation pixels");
    // every palette takes at least its 4-byte head: checked before the array is allocated
    stream_cursor_need_array(cur, palette_count, 4, "palette animation palettes");
    // the effect blits the image from rows of width bytes, which the 2D blits take in 4-byte words
    if (width % 4 != 0)
        reel_resource_fail(cur, __LINE__, "reel_palette_animation_read",
                           "palette animation width %u is not a multiple of 4\n", width);
    animation->width = width;
    animation->height = height;
    animation->palette_count = palette_count;
    animation->pixels = reel_resource_copy(arena, pixels, pixel_bytes);
    animation->palettes = (reel_palette*)xmemarena_push_align(arena, (uint64_t)palette_count * sizeof(reel_palette),
                                                              alignof(reel_palette));
    for (uint32_t i = 0; i < palette_count; i++)
        reel_palette_read(arena, &animation->palettes[i], cur);
    return cur->p;
}

uint64_t reel_palette_animation_write_size(const reel_palette_animation* animation)
{
    uint64_t size = 6 + (uint64_t)animation->width * animation->height;
    for (uint32_t i = 0; i < animation->palette_count; i++)
        size += reel_palette_write_size(&animation->palettes[i]);
    return size;
}

uint8_t* reel_palette_animation_write(uint8_t* p, const reel_palette_animation* animation, int32_t order)
{
    const char* fn = "reel_palette_animation_write";
    p = stream_write_u16(p, reel_resource_u16_field(animation->width, "palette animation width", fn), order);
    p = stream_write_u16(p, reel_resource_u16_field(animation->height, "palette animation height", fn), order);
    p = stream_write_u16(p, reel_resource_u16_field(animation->palette_count, "palette count", fn), order);
    const size_t pixel_bytes = (size_t)animation->width * animation->height;
    if (pixel_bytes)
        memcpy(p, animation->pixels, pixel_bytes);
    p += pixel_bytes;
    for (uint32_t i = 0; i < animation->palette_count; i++)
        p = reel_palette_write(p, &animation->palettes[i], order);
    return p;
}

// ---- run-length image (kind 4) ----

// The drawer walks the data with no checks: every row must be a single 0 or runs of 1 to 127
// pixels adding up to exactly the width, and the rows must use up the data exactly.
static void reel_rle_image_check_rows(const stream_cursor* cur, const uint8_t* data, uint32_t size, uint32_t width,
                                      uint32_t height)
{
    uint64_t pos = 0;
    for (uint32_t row = 0; row < height; row++) {
        if (pos >= size)
            reel_resource_fail(cur, __LINE__, "reel_rle_image_read",
                               "run-length data of %u bytes ends before row %u of %u\n",
                               size, row, height);
        if (data[pos] == 0) {
            pos++;
            continue;
        }
        uint64_t x = 0;
        while (x < width) {
            if (size - pos < 2)
                reel_resource_fail(cur, __LINE__, "reel_rle_image_read", "row %u: run at data offset %llu is cut off\n",
                                   row, (unsigned long long)pos);
            const uint32_t a = data[pos], b = data[pos + 1];
            const uint32_t n = a == REEL_RLE_SKIP ? b : a;
            if (a > REEL_RLE_SKIP || n == 0 || n > REEL_RLE_MAX_RUN)
                reel_resource_fail(cur, __LINE__, "reel_rle_image_read",
                                   "row %u: bad run (%u, %u) at data offset %llu\n",
                                   row, a, b, (unsigned long long)pos);
            x += n;
            pos += 2;
        }
        if (x != width)
            reel_resource_fail(cur, __LINE__, "reel_rle_image_read",
                               "row %u: runs cover %llu pixels of a %u-pixel row\n",
                               row, (unsigned long long)x, width);
    }
    if (pos != size)
        reel_resource_fail(cur, __LINE__, "reel_rle_image_read",
                           "run-length data of %u bytes has %llu bytes after its last row\n", size,
                           (unsigned long long)(size - pos));
}

const uint8_t* reel_rle_image_read(xmemarena* arena, reel_rle_image* image, stream_cursor* cur, uint32_t in_place)
{
    memset(image, 0, sizeof(*image));
    const uint32_t width = stream_cursor_u32(cur, "rle image width");
    const uint32_t height = stream_cursor_u32(cur, "rle image height");
    const uint32_t size = stream_cursor_u32(cur, "rle image size");
    if (width > REEL_RLE_MAX_SIDE || height > REEL_RLE_MAX_SIDE)
        reel_resource_fail(cur, __LINE__, "reel_rle_image_read",
                           "rle image of %u x %u pixels is too large (at most %u a side)\n",
                           width, height, REEL_RLE_MAX_SIDE);
    const uint8_t* data = stream_cursor_bytes(cur, size, "rle image data");
    reel_rle_image_check_rows(cur, data, size, width, height);
    image->width = width;
    image->height = height;
    image->size = size;
    // runs are bytes: the block's own order does not matter, only whether it may be kept
    image->data = in_place ? data : reel_resource_copy(arena, data, size);
    return cur->p;
}

uint64_t reel_rle_image_write_size(const reel_rle_image* image) { return 12 + (uint64_t)image->size; }

uint8_t* reel_rle_image_write(uint8_t* p, const reel_rle_image* image, int32_t order)
{
    p = stream_write_u32(p, image->width, order);
    p = stream_write_u32(p, image->height, order);
    p = stream_write_u32(p, image->size, order);
    if (image->size)
        memcpy(p, image->data, image->size);
    return p + image->size;
}

// ---- image (kind 5) ----

const uint8_t* reel_image_read(xmemarena* arena, reel_image* image, stream_cursor* cur, uint32_t in_place)
{
    memset(image, 0, sizeof(*image));
    const uint32_t width = stream_cursor_u32(cur, "image width");
    const uint32_t height = stream_cursor_u32(cur, "image height");
    n3d_texture_read(arena, &image->texture, cur, in_place);
    const n3d_texture* t = &image->texture;
    // the image blit copies rows of 2^log2_w bytes from the first level
    if (!t->linear || (t->format != N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555 &&
                       t->format != N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8))
        reel_resource_fail(cur, __LINE__, "reel_image_read", "image texture must be linear index8 (format %u, %s)\n",
                           (uint32_t)t->format, t->linear ? "linear" : "swizzled");
    if (width > (1u << t->log2_w) || height > (1u << t->log2_h))
        reel_resource_fail(cur, __LINE__, "reel_image_read",
                           "image of %u x %u pixels is larger than its %u x %u texture\n",
                           width, height, 1u << t->log2_w, 1u << t->log2_h);
    image->width = width;
    image->height = height;
    return cur->p;
}

uint64_t reel_image_write_size(const reel_image* image) { return 8 + n3d_texture_write_size(&image->texture); }

uint8_t* reel_image_write(uint8_t* p, const reel_image* image, int32_t order)
{
    p = stream_write_u32(p, image->width, order);
    p = stream_write_u32(p, image->height, order);
    return n3d_texture_write(p, &image->texture, order);
}

// ---- font (kind 7) ----

constexpr uint64_t REEL_FONT_GLYPH_MIN_BYTES = 2 + 2 + 3 * 4 + 4 + 4;  // sizes, metrics, empty stencil

static float reel_font_metric(stream_cursor* cur, const char* what, uint32_t glyph)
{
    const float v = stream_cursor_f32(cur, what);
    // the drawer converts pen positions built from these to integers; NaN fails the test too
    if (!(fabsf(v) <= REEL_FONT_MAX_METRIC))
        reel_resource_fail(cur, __LINE__, "reel_font_read",
                           "glyph %u: %s %g is not a finite value within +-%g\n", glyph,
                           what, (double)v, (double)REEL_FONT_MAX_METRIC);
    return v;
}

// A glyph without pixels (a space) may have an empty stencil, which coverage masks elsewhere may not.
static void reel_font_stencil_read(xmemarena* arena, n3d_coverage_buffer* stencil, stream_cursor* cur)
{
    stream_cursor peek = *cur;
    const uint32_t width = stream_cursor_u32(&peek, "glyph stencil width");
    const uint32_t height = stream_cursor_u32(&peek, "glyph stencil height");
    if (width != 0 && height != 0) {
        n3d_coverage_buffer_read(arena, stencil, cur);
        return;
    }
    if (width % 32 != 0)
        reel_resource_fail(cur, __LINE__, "reel_font_read", "glyph stencil width %u is not a multiple of 32\n", width);
    *cur = peek;
    stencil->bits = nullptr;
    stencil->width = width;
    stencil->height = height;
}

const uint8_t* reel_font_read(xmemarena* arena, reel_font* font, stream_cursor* cur)
{
    memset(font, 0, sizeof(*font));
    const uint32_t first = stream_cursor_u32(cur, "font first");
    const uint32_t last = stream_cursor_u32(cur, "font last");
    if (last < first)
        reel_resource_fail(cur, __LINE__, "reel_font_read",
                           "font glyph table from %u to %u: last is below first\n", first,
                           last);
    const uint64_t count = (uint64_t)last - first + 1;
    // before the glyph array is allocated, so a damaged range cannot ask for more than the block holds
    stream_cursor_need_array(cur, count, REEL_FONT_GLYPH_MIN_BYTES, "font glyphs");
    font->first = first;
    font->last = last;
    font->glyph_count = (uint32_t)count;
    font->glyphs = (reel_glyph*)xmemarena_push_align(arena, count * sizeof(reel_glyph), alignof(reel_glyph));
    for (uint32_t i = 0; i < count; i++) {
        reel_glyph* g = &font->glyphs[i];
        memset(g, 0, sizeof(*g));
        g->width = stream_cursor_u16(cur, "glyph width");
        g->height = stream_cursor_u16(cur, "glyph height");
        g->x_offset = reel_font_metric(cur, "glyph x offset", i);
        g->y_offset = reel_font_metric(cur, "glyph y offset", i);
        g->advance = reel_font_metric(cur, "glyph advance", i);
        const uint64_t pixel_bytes = (uint64_t)g->width * g->height;
        g->pixels = reel_resource_copy(arena, stream_cursor_bytes(cur, pixel_bytes, "glyph pixels"), pixel_bytes);
        reel_font_stencil_read(arena, &g->stencil, cur);
        // coverage is taken from the stencil at every drawn glyph pixel
        if (pixel_bytes && (g->stencil.width < g->width || g->stencil.height < g->height))
            reel_resource_fail(cur, __LINE__, "reel_font_read",
                               "glyph %u: stencil of %u x %u does not cover its %u x %u pixels\n",
                               i, g->stencil.width, g->stencil.height, g->width, g->height);
    }
    return cur->p;
}

uint64_t reel_font_write_size(const reel_font* font)
{
    uint64_t size = 8;
    for (uint32_t i = 0; i < font->glyph_count; i++) {
        const reel_glyph* g = &font->glyphs[i];
        size += 16 + (uint64_t)g->width * g->height + n3d_coverage_buffer_write_size(&g->stencil);
    }
    return size;
}

uint8_t* reel_font_write(uint8_t* p, const reel_font* font, int32_t order)
{
    // the block has no count: the reader takes last - first + 1 glyphs
    if (font->last < font->first || (uint64_t)font->last - font->first + 1 != font->glyph_count)
        crash_in("src/reel", __LINE__, "reel_font_write", "font from %u to %u cannot hold %u glyphs\n", font->first,
                 font->last, font->glyph_count);
    p = stream_write_u32(p, font->first, order);
    p = stream_write_u32(p, font->last, order);
    for (uint32_t i = 0; i < font->glyph_count; i++) {
        const reel_glyph* g = &font->glyphs[i];
        p = stream_write_u16(p, reel_resource_u16_field(g->width, "glyph width", "reel_font_write"), order);
        p = stream_write_u16(p, reel_resource_u16_field(g->height, "glyph height", "reel_font_write"), order);
        p = stream_write_f32(p, g->x_offset, order);
        p = stream_write_f32(p, g->y_offset, order);
        p = stream_write_f32(p, g->advance, order);
        const size_t pixel_bytes = (size_t)g->width * g->height;
        if (pixel_bytes)
            memcpy(p, g->pixels, pixel_bytes);
        p += pixel_bytes;
        p = n3d_coverage_buffer_write(p, &g->stencil, order);
    }
    return p;
}

// ---- loading ----

static const char* reel_resource_pack_name(const reel_fs_pack* pack)
{
    return pack->name ? pack->name : "a pack";
}

template <typename T>
static T* reel_resource_push(xmemarena* arena)
{
    return (T*)xmemarena_push_align(arena, sizeof(T), alignof(T));
}

// The record of one block of kinds 0 to 7 (after its marker), or null when a reader gives up.
static void* reel_resource_decode(xmemarena* arena, stream_cursor* cur, uint32_t kind, uint32_t in_place)
{
    switch (kind) {
    case REEL_KIND_STENCIL: {
        auto* r = reel_resource_push<n3d_coverage_buffer>(arena);
        return n3d_coverage_buffer_read(arena, r, cur) ? r : nullptr;
    }
    case REEL_KIND_TEXTURE: {
        auto* r = reel_resource_push<n3d_texture>(arena);
        return n3d_texture_read(arena, r, cur, in_place) ? r : nullptr;
    }
    case REEL_KIND_PALETTE_ANIMATION: {
        auto* r = reel_resource_push<reel_palette_animation>(arena);
        return reel_palette_animation_read(arena, r, cur) ? r : nullptr;
    }
    case REEL_KIND_PALETTE: {
        auto* r = reel_resource_push<reel_palette>(arena);
        return reel_palette_read(arena, r, cur) ? r : nullptr;
    }
    case REEL_KIND_RLE_IMAGE: {
        auto* r = reel_resource_push<reel_rle_image>(arena);
        return reel_rle_image_read(arena, r, cur, in_place) ? r : nullptr;
    }
    case REEL_KIND_IMAGE: {
        auto* r = reel_resource_push<reel_image>(arena);
        return reel_image_read(arena, r, cur, in_place) ? r : nullptr;
    }
    case REEL_KIND_MADPACK: {
        auto* r = reel_resource_push<mad_datapack>(arena);
        memset(r, 0, sizeof(*r));
        return mad_datapack_read(r, arena, cur) ? r : nullptr;
    }
    case REEL_KIND_FONT: {
        auto* r = reel_resource_push<reel_font>(arena);
        return reel_font_read(arena, r, cur) ? r : nullptr;
    }
    default:
        return nullptr;
    }
}

void* reel_load_resource(reel_engine* engine, const char* name, uint32_t kind)
{
    reel_resource_node* last = &engine->resource_cache;
    for (reel_resource_node* n = &engine->resource_cache; n; n = n->next) {
        if (n->name && n->kind == kind && strcmp(n->name, name) == 0)
            return n->record;
        last = n;
    }
    xmemarena* arena = engine->arena;
    const uint64_t tmp_mark = xmemarena_get_sp(engine->tmp_arena);

    // every block is decoded in pack 0's order, whichever pack it comes from
    const int32_t order = engine->pack_count ? engine->packs[0].order : BYTE_ORDER_NATIVE;
    const uint32_t in_place = order == BYTE_ORDER_NATIVE;

    // the last opened pack first, so later packs override earlier ones
    const uint8_t* block = nullptr;
    const reel_fs_pack* from = nullptr;
    uint32_t size = 0;
    for (uint32_t i = engine->pack_count; i-- > 0 && !block;)
        if ((block = reel_fs_find_file(&engine->packs[i], kind, name, &size)))
            from = &engine->packs[i];
    if (!block)
        crash_in("src/reel", __LINE__, "reel_load_resource", "could not find \"%s\" with kind %d in pak file!\n", name,
                 (int)kind);

    void* result = nullptr;
    if (kind == REEL_KIND_BLOB) {
        auto* blob = reel_resource_push<reel_blob>(arena);
        blob->data = block;
        blob->size = size;
        result = blob;
    } else if (kind == REEL_KIND_RAW) {
        // Raw blocks are texts that their users read up to a NUL: one without a NUL inside the
        // block would run on into the next block or past the pack's image.
        if (!memchr(block, 0, size))
            crash_in("src/reel", __LINE__, "reel_load_resource",
                     "%s: resource \"%s\" (raw): text of %u bytes has no terminating NUL\n",
                     reel_resource_pack_name(from), name, size);
        // handed out in place and writable: the greetings scene splits its text by writing NULs into it
        result = const_cast<uint8_t*>(block);
    } else if (kind < REEL_KIND_COUNT) {
        char label[192];
        snprintf(label, sizeof(label), "%s: resource \"%s\" (%s)", reel_resource_pack_name(from), name,
                 reel_kind_name(kind));
        stream_cursor cur;
        stream_cursor_init(&cur, block, size, order, label);
        // the block's own marker is skipped unread: pack 0's order decides, whatever it states
        stream_cursor_bytes(&cur, 4, "block marker");
        result = reel_resource_decode(arena, &cur, kind, in_place);
        if (!result)
            crash_in("src/reel", __LINE__, "reel_load_resource", "failed load \"%s\" tag %d\n", name, (int)kind);
    } else {
        crash_in("src/reel", __LINE__, "reel_load_resource", "kind %d??\n", (int)kind);
    }

    auto* node = reel_resource_push<reel_resource_node>(arena);
    memset(node, 0, sizeof(*node));
    const size_t name_bytes = strlen(name) + 1;
    char* name_copy = (char*)xmemarena_push(arena, name_bytes);
    memcpy(name_copy, name, name_bytes);
    node->kind = kind;
    node->name = name_copy;
    node->record = result;
    last->next = node;

    xmemarena_set_sp(engine->tmp_arena, tmp_mark);
    return result;
}

n3d_coverage_buffer* reel_load_stencil(reel_engine* engine, const char* name)
{
    return (n3d_coverage_buffer*)reel_load_resource(engine, name, REEL_KIND_STENCIL);
}

n3d_texture* reel_load_texture(reel_engine* engine, const char* name)
{
    return (n3d_texture*)reel_load_resource(engine, name, REEL_KIND_TEXTURE);
}

reel_palette_animation* reel_load_palette_animation(reel_engine* engine, const char* name)
{
    return (reel_palette_animation*)reel_load_resource(engine, name, REEL_KIND_PALETTE_ANIMATION);
}

reel_palette* reel_load_palette(reel_engine* engine, const char* name)
{
    return (reel_palette*)reel_load_resource(engine, name, REEL_KIND_PALETTE);
}

reel_rle_image* reel_load_rle_image(reel_engine* engine, const char* name)
{
    return (reel_rle_image*)reel_load_resource(engine, name, REEL_KIND_RLE_IMAGE);
}

reel_image* reel_load_image(reel_engine* engine, const char* name)
{
    return (reel_image*)reel_load_resource(engine, name, REEL_KIND_IMAGE);
}

mad_datapack* reel_load_madpack(reel_engine* engine, const char* name)
{
    return (mad_datapack*)reel_load_resource(engine, name, REEL_KIND_MADPACK);
}

reel_font* reel_load_font(reel_engine* engine, const char* name)
{
    return (reel_font*)reel_load_resource(engine, name, REEL_KIND_FONT);
}

reel_blob* reel_load_blob(reel_engine* engine, const char* name)
{
    return (reel_blob*)reel_load_resource(engine, name, REEL_KIND_BLOB);
}
