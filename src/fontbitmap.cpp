// The bitmap font renderer. A text is a row of glyphs placed at whole pixels from a float pen
// (so fractional advances add up without drift); each glyph is clipped once against the
// framebuffer and then painted by one routine per pixel type, writing the colour map's entry
// for every non-zero glyph pixel. Coverage is a second, separate walk over the glyph's stencil:
// it marks what the font says the glyph covers, which need not be what it paints.
#include "fontbitmap.h"

#include <cmath>

#include "diag.h"
#include "n2d.h"

static const char* const FONTBITMAP_FILE = "src/fontbitmap";

constexpr uint32_t FONTBITMAP_WORD_SHIFT = 5;  // 32 coverage bits per word
constexpr uint32_t FONTBITMAP_BIT_MASK = 31;
constexpr uint32_t FONTBITMAP_LEFT_BIT = 0x80000000u;  // the leftmost pixel of a word
// Pen positions are turned into pixels within this bound: far enough outside any framebuffer to
// draw nothing, near enough that adding a glyph's size cannot overflow 32 bits.
constexpr float FONTBITMAP_PEN_LIMIT = 1073741824.0f;  // 2^30

// floor(v) as a pixel position; NaN and values beyond the limit land at the limit.
static int32_t fontbitmap_pixel(float v)
{
    if (!(v > -FONTBITMAP_PEN_LIMIT))
        return (int32_t)-FONTBITMAP_PEN_LIMIT;
    if (v > FONTBITMAP_PEN_LIMIT)
        return (int32_t)FONTBITMAP_PEN_LIMIT;
    return (int32_t)floorf(v);
}

// Writes map[v] for every non-zero glyph pixel v of the clipped rectangle.
template <typename Pixel>
static void fontbitmap_paint(const reel_glyph* glyph, n3d_framebuffer* fb, int32_t x, int32_t y, int32_t sx,
                             int32_t sy, int32_t width, int32_t height, const Pixel* map)
{
    for (int32_t row = 0; row < height; row++) {
        const uint8_t* src = glyph->pixels + (size_t)(sy + row) * glyph->width + sx;
        Pixel* dst = (Pixel*)(fb->pixels + (size_t)(y + row) * fb->row_bytes) + x;
        for (int32_t column = 0; column < width; column++) {
            const uint8_t v = src[column];
            if (v != 0)  // glyph index 0 is transparent
                dst[column] = map[v];
        }
    }
}

// Sets the coverage bit of every drawn position whose stencil bit is set; the rectangle is
// clipped again to the coverage buffer, which may be smaller than the framebuffer.
static void fontbitmap_mark_coverage(const reel_glyph* glyph, n3d_coverage_buffer* coverage, int32_t x, int32_t y,
                                     int32_t sx, int32_t sy, int32_t width, int32_t height)
{
    const n3d_coverage_buffer* stencil = &glyph->stencil;
    const int64_t cover_width = (int64_t)coverage->width - x < width ? (int64_t)coverage->width - x : width;
    const int64_t cover_height = (int64_t)coverage->height - y < height ? (int64_t)coverage->height - y : height;
    for (int64_t row = 0; row < cover_height; row++) {
        const uint64_t src_bit = (uint64_t)(sy + row) * stencil->width + (uint64_t)sx;
        const uint64_t dst_bit = (uint64_t)(y + row) * coverage->width + (uint64_t)x;
        for (int64_t column = 0; column < cover_width; column++) {
            const uint64_t s = src_bit + (uint64_t)column, d = dst_bit + (uint64_t)column;
            if (stencil->bits[s >> FONTBITMAP_WORD_SHIFT] & (FONTBITMAP_LEFT_BIT >> (s & FONTBITMAP_BIT_MASK)))
                coverage->bits[d >> FONTBITMAP_WORD_SHIFT] |= FONTBITMAP_LEFT_BIT >> (d & FONTBITMAP_BIT_MASK);
        }
    }
}

void fontbitmap_draw_glyph(const reel_glyph* glyph, n3d_framebuffer* fb, n3d_coverage_buffer* coverage, int32_t x,
                           int32_t y, const uint8_t* map8, const uint16_t* map16)
{
    const int64_t x1 = (int64_t)x + glyph->width, y1 = (int64_t)y + glyph->height;
    int32_t sx, sy, width, height;
    n2d_clip_rect(&sx, &sy, &width, &height, x, y, x1 > INT32_MAX ? INT32_MAX : (int32_t)x1,
                  y1 > INT32_MAX ? INT32_MAX : (int32_t)y1, 0, 0, fb->width, fb->height);
    x += sx;
    y += sy;
    if (fb->format == N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8) {
        if (!map8)
            crash_in(FONTBITMAP_FILE, __LINE__, "fontbitmap_draw_glyph", "no 8-bit colour map for an index8 framebuffer\n");
        if (width > 0 && height > 0)
            fontbitmap_paint<uint8_t>(glyph, fb, x, y, sx, sy, width, height, map8);
    } else if (fb->format == N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555) {
        if (!map16)
            crash_in(FONTBITMAP_FILE, __LINE__, "fontbitmap_draw_glyph", "no 16-bit colour map for an ARGB1555 framebuffer\n");
        if (width > 0 && height > 0)
            fontbitmap_paint<uint16_t>(glyph, fb, x, y, sx, sy, width, height, map16);
    } else {
        crash_at(FONTBITMAP_FILE, __LINE__, "not implemented for dst format %d\n", (int)fb->format);
    }
    if (coverage && width > 0 && height > 0)
        fontbitmap_mark_coverage(glyph, coverage, x, y, sx, sy, width, height);
}

void fontbitmap_draw_text(const reel_font* font, n3d_framebuffer* fb, n3d_coverage_buffer* coverage, float* pen_x,
                          float* pen_y, const char* text, const uint8_t* map8, const uint16_t* map16)
{
    *pen_x = floorf(*pen_x);
    *pen_y = floorf(*pen_y);
    for (const char* p = text; *p; p++) {
        // a signed character: bytes above 127 are negative and never inside a font's range
        const int64_t c = (signed char)*p;
        if (c < (int64_t)font->first || c > (int64_t)font->last)
            continue;
        const reel_glyph* glyph = &font->glyphs[c - font->first];
        const int32_t gx = fontbitmap_pixel(*pen_x + glyph->x_offset + 0.5f);
        const int32_t gy = fontbitmap_pixel(*pen_y + glyph->y_offset + 0.5f);
        *pen_x += glyph->advance;
        fontbitmap_draw_glyph(glyph, fb, coverage, gx, gy, map8, map16);
    }
}

void fontbitmap_draw_text_argb1555(const reel_font* font, n3d_framebuffer* fb, n3d_coverage_buffer* coverage,
                                   float* pen_x, float* pen_y, const char* text, const uint16_t* map16)
{
    fontbitmap_draw_text(font, fb, coverage, pen_x, pen_y, text, nullptr, map16);
}

void fontbitmap_draw_text_i8(const reel_font* font, n3d_framebuffer* fb, n3d_coverage_buffer* coverage, float* pen_x,
                             float* pen_y, const char* text, const uint8_t* map8)
{
    fontbitmap_draw_text(font, fb, coverage, pen_x, pen_y, text, map8, nullptr);
}
