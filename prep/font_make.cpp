// The font maker, over stb_truetype (Debian's libstb-dev). stb_truetype trusts the offsets in
// the font, so before it sees a file this module checks what it will follow: every table of
// the directory lies inside the file, and for outlines in a 'glyf' table, the 'loca' entry of
// every glyph rendered lies inside 'glyf'. Its scratch memory comes from an arena (its frees do
// nothing; the arena is rewound after each glyph) and its internal checks end the process
// through the fatal path instead of aborting.
#include "font_make.h"

#include <cmath>
#include <cstdio>
#include <cstring>

#include "diag.h"
#include "n3d_io.h"
#include "reel_resource.h"

static void* font_make_scratch(size_t size, void* arena);

#define STBTT_STATIC
#define STBTT_malloc(size, user) font_make_scratch(size, user)
#define STBTT_free(pointer, user) ((void)(pointer), (void)(user))
#define STBTT_assert(x) ((x) ? (void)0 : crash_in("prep/font_make", __LINE__, "font_make", "font data fails: %s\n", #x))
#define STB_TRUETYPE_IMPLEMENTATION
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wunused-function"  // the parts of the library this maker does not use
#include <stb_truetype.h>
#pragma GCC diagnostic pop

constexpr uint32_t FONT_MAKE_WORD_BITS = 32;  // stencil rows are whole 32-bit words
constexpr uint32_t FONT_MAKE_LEFT_BIT = 0x80000000u;
constexpr uint64_t FONT_MAKE_DIRECTORY_BYTES = 12;  // version, table count and search fields
constexpr uint64_t FONT_MAKE_TABLE_RECORD_BYTES = 16;
constexpr uint64_t FONT_MAKE_COLLECTION_BYTES = 16;  // a collection's header up to its first font's offset
constexpr uint64_t FONT_MAKE_HEAD_LOCA_FORMAT = 50;  // offset of indexToLocFormat in 'head'
constexpr uint64_t FONT_MAKE_MAXP_GLYPHS = 4;        // offset of numGlyphs in 'maxp'
constexpr uint64_t FONT_MAKE_HHEA_LONG_METRICS = 34; // offset of numberOfHMetrics in 'hhea'

static void* font_make_scratch(size_t size, void* arena)
{
    // stb_truetype tests its allocations for null; an arena gives null only for 0 bytes
    return xmemarena_push_align((xmemarena*)arena, size ? size : 1, 16);
}

// ---- checking the file before stb_truetype follows its offsets ----

struct font_make_table {
    uint64_t offset, length;  // 0, 0 when absent
};

static bool font_make_be(const uint8_t* data, uint64_t size, uint64_t offset, uint32_t bytes, uint32_t* value)
{
    if (offset > size || size - offset < bytes)
        return false;
    uint32_t v = 0;
    for (uint32_t i = 0; i < bytes; i++)
        v = v << 8 | data[offset + i];
    *value = v;
    return true;
}

// Finds a table in the directory at `font`; false when the directory itself is damaged.
static bool font_make_find_table(const uint8_t* data, uint64_t size, uint64_t font, const char* tag,
                                 font_make_table* table, char* why, size_t why_size)
{
    uint32_t count = 0;
    if (!font_make_be(data, size, font + 4, 2, &count) ||
        size - font < FONT_MAKE_DIRECTORY_BYTES + count * FONT_MAKE_TABLE_RECORD_BYTES) {
        snprintf(why, why_size, "the table directory does not fit the file");
        return false;
    }
    *table = {0, 0};
    for (uint32_t i = 0; i < count; i++) {
        const uint64_t record = font + FONT_MAKE_DIRECTORY_BYTES + i * FONT_MAKE_TABLE_RECORD_BYTES;
        uint32_t offset = 0, length = 0;
        font_make_be(data, size, record + 8, 4, &offset);
        font_make_be(data, size, record + 12, 4, &length);
        if ((uint64_t)offset + length > size) {
            snprintf(why, why_size, "table '%.4s' runs past the end of the file", (const char*)data + record);
            return false;
        }
        if (memcmp(data + record, tag, 4) == 0)
            *table = {offset, length};
    }
    return true;
}

// Reads a big-endian field of a table the caller has found: the table lies inside the file,
// so only the field's own place within the table needs checking.
static bool font_make_field(const uint8_t* data, const font_make_table& table, uint64_t at, uint32_t bytes,
                            uint32_t* value)
{
    if (at + bytes > table.length)
        return false;
    uint32_t v = 0;
    for (uint32_t i = 0; i < bytes; i++)
        v = v << 8 | data[table.offset + at + i];
    *value = v;
    return true;
}

// What stb_truetype follows without looking: the tables it needs, the character maps' records
// and lengths, the metrics of every glyph and, for 'glyf' outlines, every glyph's range in
// 'loca' (composite glyphs reach any glyph). Glyph outlines themselves are read by
// stb_truetype unchecked, from inside the 'glyf' table. Gives the glyph count.
static bool font_make_check_tables(const uint8_t* data, uint64_t size, uint64_t font, uint32_t* glyph_count,
                                   char* why, size_t why_size)
{
    font_make_table cmap, head, hhea, hmtx, maxp, loca, glyf;
    if (!font_make_find_table(data, size, font, "cmap", &cmap, why, why_size) ||
        !font_make_find_table(data, size, font, "head", &head, why, why_size) ||
        !font_make_find_table(data, size, font, "hhea", &hhea, why, why_size) ||
        !font_make_find_table(data, size, font, "hmtx", &hmtx, why, why_size) ||
        !font_make_find_table(data, size, font, "maxp", &maxp, why, why_size) ||
        !font_make_find_table(data, size, font, "loca", &loca, why, why_size) ||
        !font_make_find_table(data, size, font, "glyf", &glyf, why, why_size))
        return false;
    uint32_t glyphs = 0, long_metrics = 0, loca_format = 0, maps = 0;
    if (!font_make_field(data, head, FONT_MAKE_HEAD_LOCA_FORMAT, 2, &loca_format) ||
        !font_make_field(data, maxp, FONT_MAKE_MAXP_GLYPHS, 2, &glyphs) ||
        !font_make_field(data, hhea, FONT_MAKE_HHEA_LONG_METRICS, 2, &long_metrics) ||
        !font_make_field(data, cmap, 2, 2, &maps)) {
        snprintf(why, why_size, "a 'head', 'maxp', 'hhea' or 'cmap' table is missing or too short");
        return false;
    }
    if (long_metrics < 1 || long_metrics > glyphs ||
        hmtx.length < 4ull * long_metrics + 2ull * (glyphs - long_metrics)) {
        snprintf(why, why_size, "the 'hmtx' table does not hold the metrics of %u glyphs", glyphs);
        return false;
    }
    for (uint32_t i = 0; i < maps; i++) {
        uint32_t offset = 0, format = 0, length = 0;
        const bool found = font_make_field(data, cmap, 4 + 8ull * i + 4, 4, &offset) &&
                           font_make_field(data, cmap, offset, 2, &format);
        const bool wide = format >= 8;  // formats 8 to 14 keep their length in 32 bits, after a reserved field
        if (!found || !font_make_field(data, cmap, (uint64_t)offset + (wide ? 4 : 2), wide ? 4 : 2, &length) ||
            (uint64_t)offset + length > cmap.length) {
            snprintf(why, why_size, "character map %u runs past the 'cmap' table", i);
            return false;
        }
    }
    *glyph_count = glyphs;
    if (glyf.length == 0)
        return true;  // outlines in CFF, which stb_truetype reads through bounded buffers
    const uint32_t entry = loca_format ? 4 : 2;
    const uint64_t scale = loca_format ? 1 : 2;  // short offsets count 16-bit words
    uint32_t start = 0, end = 0;
    for (uint32_t g = 0; g < glyphs; g++) {
        if (!font_make_field(data, loca, (uint64_t)g * entry, entry, &start) ||
            !font_make_field(data, loca, (uint64_t)(g + 1) * entry, entry, &end) || start > end ||
            end * scale > glyf.length) {
            snprintf(why, why_size, "glyph %u lies outside the 'glyf' table", g);
            return false;
        }
    }
    return true;
}

// ---- rendering ----

static void font_make_stencil(reel_glyph* g, xmemarena* arena, uint32_t threshold)
{
    g->stencil.width = (g->width + FONT_MAKE_WORD_BITS - 1) / FONT_MAKE_WORD_BITS * FONT_MAKE_WORD_BITS;
    g->stencil.height = g->height;
    const uint64_t words = (uint64_t)g->stencil.width / FONT_MAKE_WORD_BITS * g->height;
    g->stencil.bits = (uint32_t*)xmemarena_push_align(arena, words * 4, 32);
    memset(g->stencil.bits, 0, words * 4);
    for (uint32_t y = 0; y < g->height; y++)
        for (uint32_t x = 0; x < g->width; x++)
            if (g->pixels[y * g->width + x] >= threshold) {
                const uint32_t bit = y * g->stencil.width + x;
                g->stencil.bits[bit / FONT_MAKE_WORD_BITS] |= FONT_MAKE_LEFT_BIT >> (bit % FONT_MAKE_WORD_BITS);
            }
}

static bool font_make_options_ok(const font_make_options* o, char* why, size_t why_size)
{
    if (o->pixel_height < 1 || o->pixel_height > FONT_MAKE_MAX_PIXELS)
        snprintf(why, why_size, "pixel height %u is not from 1 to %u", o->pixel_height, FONT_MAKE_MAX_PIXELS);
    else if (o->first > o->last || o->last > FONT_MAKE_MAX_CODE)
        snprintf(why, why_size, "character range %u to %u is not within 0 to %u, first to last", o->first, o->last,
                 FONT_MAKE_MAX_CODE);
    else if (o->stencil_threshold < 1 || o->stencil_threshold > 255)
        snprintf(why, why_size, "stencil threshold %u is not from 1 to 255", o->stencil_threshold);
    else
        return true;
    return false;
}

int32_t font_make(reel_font* font, font_make_summary* summary, xmemarena* arena, xmemarena* tmp, const uint8_t* data,
                  uint64_t size, const font_make_options* options, char* why, size_t why_size)
{
    if (!font_make_options_ok(options, why, why_size))
        return 1;
    // stb_truetype takes an int offset and looks at the first bytes before any check of its own
    const int offset = size >= FONT_MAKE_COLLECTION_BYTES && size < INT32_MAX ? stbtt_GetFontOffsetForIndex(data, 0) : -1;
    uint32_t glyphs = 0;
    if (offset < 0 || !font_make_check_tables(data, size, (uint64_t)offset, &glyphs, why, why_size)) {
        if (offset < 0)
            snprintf(why, why_size, "not a TrueType or OpenType font");
        return 1;
    }
    const uint64_t mark = xmemarena_get_sp(tmp);
    stbtt_fontinfo info;
    if (!stbtt_InitFont(&info, data, offset)) {
        snprintf(why, why_size, "not a TrueType or OpenType font with a Unicode character map");
        return 1;
    }
    info.userdata = tmp;
    const float scale = stbtt_ScaleForPixelHeight(&info, (float)options->pixel_height);
    int ascent, descent, line_gap;
    stbtt_GetFontVMetrics(&info, &ascent, &descent, &line_gap);
    *summary = {(int32_t)lroundf(ascent * scale), (int32_t)lroundf(descent * scale), (int32_t)lroundf(line_gap * scale), 0};

    memset(font, 0, sizeof(*font));
    font->first = options->first;
    font->last = options->last;
    font->glyph_count = options->last - options->first + 1;
    font->glyphs = (reel_glyph*)xmemarena_push_record(arena, font->glyph_count * sizeof(reel_glyph));
    for (uint32_t i = 0; i < font->glyph_count; i++) {
        reel_glyph* g = &font->glyphs[i];
        const int index = stbtt_FindGlyphIndex(&info, (int)(options->first + i));
        if (index == 0) {
            summary->missing += 1;  // an empty glyph of no advance: the text closes up around it
            continue;
        }
        if ((uint32_t)index >= glyphs) {
            snprintf(why, why_size, "the character map names glyph %d of %u for character %u", index, glyphs,
                     options->first + i);
            return 1;
        }
        int advance, left_bearing, x0, y0, x1, y1;
        stbtt_GetGlyphHMetrics(&info, index, &advance, &left_bearing);
        stbtt_GetGlyphBitmapBox(&info, index, scale, scale, &x0, &y0, &x1, &y1);
        g->x_offset = (float)x0;
        g->y_offset = (float)y0;
        g->advance = (float)advance * scale;
        if (x1 > x0 && y1 > y0) {
            g->width = (uint32_t)(x1 - x0);
            g->height = (uint32_t)(y1 - y0);
            g->pixels = (uint8_t*)xmemarena_push_align(arena, (uint64_t)g->width * g->height, 4);
            stbtt_MakeGlyphBitmap(&info, g->pixels, (int)g->width, (int)g->height, (int)g->width, scale, scale, index);
            font_make_stencil(g, arena, options->stencil_threshold);
        }
        xmemarena_set_sp(tmp, mark);
    }
    xmemarena_set_sp(tmp, mark);
    return 0;
}

uint8_t* font_make_file(const reel_font* font, xmemarena* arena, int32_t order, uint64_t* size)
{
    *size = 4 + reel_font_write_size(font);
    auto* file = (uint8_t*)xmemarena_push_align(arena, *size, 4);
    uint8_t* end = reel_font_write(stream_write_u32(file, BYTE_ORDER_MARKER, order), font, order);
    if ((uint64_t)(end - file) != *size)
        crash_in("prep/font_make", __LINE__, "font_make_file", "font block of %llu bytes, expected %llu\n",
                 (unsigned long long)(end - file), (unsigned long long)*size);
    return file;
}
