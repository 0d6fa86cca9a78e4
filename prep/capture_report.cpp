// Hashes, the per-frame cost summary and the contact sheet of the headless capture.
#include "capture_report.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "bitmap.h"
#include "diag.h"
#include "memarena.h"

namespace {

constexpr uint64_t CAPTURE_HASH_MULTIPLIER = 0xFF51AFD7ED558CCDull;  // odd: every word changes the state
constexpr uint32_t CAPTURE_HASH_ROTATION = 29;  // spreads the product's high bits into the low ones
constexpr uint32_t CAPTURE_P99_PERMILLE = 990;

constexpr uint32_t CONTACT_SHEET_GLYPH_WIDTH = 3;
constexpr uint32_t CONTACT_SHEET_GLYPH_HEIGHT = 5;
constexpr uint32_t CONTACT_SHEET_GLYPH_ADVANCE = (CONTACT_SHEET_GLYPH_WIDTH + 1) * CONTACT_SHEET_DIGIT_SCALE;
constexpr uint32_t CONTACT_SHEET_LABEL_TOP = 2;  // pixels between a thumbnail and its label

// The 3 x 5 glyphs of 0 to 9 and the colon: one row a byte, bit 2 the leftmost pixel.
constexpr uint8_t CONTACT_SHEET_GLYPHS[11][CONTACT_SHEET_GLYPH_HEIGHT] = {
    {7, 5, 5, 5, 7}, {2, 6, 2, 2, 7}, {7, 1, 7, 4, 7}, {7, 1, 7, 1, 7}, {5, 5, 7, 1, 1}, {7, 4, 7, 1, 7},
    {7, 4, 7, 5, 7}, {7, 1, 1, 1, 1}, {7, 5, 7, 5, 7}, {7, 5, 7, 1, 7}, {0, 2, 0, 2, 0},
};
constexpr uint32_t CONTACT_SHEET_COLON = 10;

inline uint64_t capture_hash_word(uint64_t h, uint64_t w)
{
    h ^= w;
    h *= CAPTURE_HASH_MULTIPLIER;
    return h << CAPTURE_HASH_ROTATION | h >> (64 - CAPTURE_HASH_ROTATION);
}

}  // namespace

uint64_t capture_hash(uint64_t h, const void* data, size_t bytes)
{
    const auto* p = (const uint8_t*)data;
    size_t i = 0;
    for (; i + 8 <= bytes; i += 8) {
        uint64_t w;
        memcpy(&w, p + i, 8);
        h = capture_hash_word(h, w);
    }
    for (; i < bytes; i++)
        h = capture_hash_word(h, p[i]);
    return h;
}

capture_cost_summary capture_cost_summarise(uint64_t* values, uint64_t count)
{
    capture_cost_summary s = {count, 0.0, 0, 0};
    if (count == 0)
        return s;
    std::sort(values, values + count);
    double sum = 0.0;
    for (uint64_t i = 0; i < count; i++)
        sum += (double)values[i];
    s.mean = sum / (double)count;
    // rank ceil(0.99 n), counted from 1
    const uint64_t rank = (count * CAPTURE_P99_PERMILLE + 999) / 1000;
    s.p99 = values[rank - 1];
    s.max = values[count - 1];
    return s;
}

uint32_t capture_slowest_index(const uint64_t* values, uint32_t count)
{
    uint32_t slowest = count;
    uint64_t most = 0;
    for (uint32_t k = 0; k < count; k++)
        if (values[k] > most)
            most = values[k], slowest = k;
    return slowest;
}

size_t capture_cost_line(char* line, uint64_t frame, const double ms[4], const char* function)
{
    const int len = snprintf(line, CAPTURE_COST_LINE_MAX, "%06llu %.3f %.3f %.3f %.3f %s\n", (unsigned long long)frame,
                             ms[0], ms[1], ms[2], ms[3], function);
    if (len >= (int)CAPTURE_COST_LINE_MAX) {  // cut short, but still a line
        line[CAPTURE_COST_LINE_MAX - 2] = '\n';
        return CAPTURE_COST_LINE_MAX - 1;
    }
    return (size_t)len;
}

void contact_sheet_thumbnail(uint8_t* thumb, const uint32_t* rgba)
{
    constexpr uint32_t n = CONTACT_SHEET_SCALE * CONTACT_SHEET_SCALE;
    for (uint32_t ty = 0; ty < CONTACT_SHEET_THUMB_HEIGHT; ty++)
        for (uint32_t tx = 0; tx < CONTACT_SHEET_THUMB_WIDTH; tx++) {
            uint32_t sum[3] = {0, 0, 0};
            for (uint32_t y = 0; y < CONTACT_SHEET_SCALE; y++) {
                const uint32_t* row = rgba + (ty * CONTACT_SHEET_SCALE + y) * 640 + tx * CONTACT_SHEET_SCALE;
                for (uint32_t x = 0; x < CONTACT_SHEET_SCALE; x++) {
                    sum[0] += row[x] >> 24;
                    sum[1] += (row[x] >> 16) & 255;
                    sum[2] += (row[x] >> 8) & 255;
                }
            }
            uint8_t* p = thumb + (ty * CONTACT_SHEET_THUMB_WIDTH + tx) * 3;
            for (uint32_t c = 0; c < 3; c++)
                p[c] = (uint8_t)((sum[c] + n / 2) / n);
        }
}

void contact_sheet_time_text(char* text, uint32_t seconds)
{
    snprintf(text, 16, "%u:%02u", seconds / 60, seconds % 60);
}

uint32_t contact_sheet_draw_text(uint8_t* rgb, uint32_t row_bytes, uint32_t x, uint32_t y, const char* text)
{
    uint32_t width = 0;
    for (const char* c = text; *c; c++, width += CONTACT_SHEET_GLYPH_ADVANCE) {
        const uint32_t glyph = *c == ':' ? CONTACT_SHEET_COLON : (uint32_t)(*c - '0');
        if (glyph > CONTACT_SHEET_COLON)
            continue;
        for (uint32_t gy = 0; gy < CONTACT_SHEET_GLYPH_HEIGHT * CONTACT_SHEET_DIGIT_SCALE; gy++)
            for (uint32_t gx = 0; gx < CONTACT_SHEET_GLYPH_WIDTH * CONTACT_SHEET_DIGIT_SCALE; gx++) {
                const uint32_t bits = CONTACT_SHEET_GLYPHS[glyph][gy / CONTACT_SHEET_DIGIT_SCALE];
                if (!(bits >> (CONTACT_SHEET_GLYPH_WIDTH - 1 - gx / CONTACT_SHEET_DIGIT_SCALE) & 1))
                    continue;
                memset(rgb + (size_t)(y + gy) * row_bytes + (size_t)(x + width + gx) * 3, CONTACT_SHEET_INK, 3);
            }
    }
    return width;
}

bitmap* contact_sheet_compose(xmemarena* arena, const uint8_t* thumbs, const uint32_t* seconds, uint32_t count)
{
    if (count == 0)
        crash_in("prep/capture_report", __LINE__, "contact_sheet_compose", "a contact sheet needs a picture\n");
    const uint32_t columns = std::min(count, CONTACT_SHEET_COLUMNS);
    const uint32_t rows = (count + CONTACT_SHEET_COLUMNS - 1) / CONTACT_SHEET_COLUMNS;
    const uint32_t cell_w = CONTACT_SHEET_THUMB_WIDTH + CONTACT_SHEET_GAP;
    const uint32_t cell_h = CONTACT_SHEET_THUMB_HEIGHT + CONTACT_SHEET_LABEL_HEIGHT + CONTACT_SHEET_GAP;
    bitmap* sheet = bitmap_create(arena, CONTACT_SHEET_GAP + columns * cell_w, CONTACT_SHEET_GAP + rows * cell_h,
                                  BITMAP_SRGB | BITMAP_CHANNELS_3);
    for (uint32_t y = 0; y < sheet->height; y++)
        memset(sheet->pixels + (size_t)y * sheet->row_bytes, CONTACT_SHEET_BACKGROUND, (size_t)sheet->width * 3);
    for (uint32_t i = 0; i < count; i++) {
        const uint32_t x0 = CONTACT_SHEET_GAP + (i % CONTACT_SHEET_COLUMNS) * cell_w;
        const uint32_t y0 = CONTACT_SHEET_GAP + (i / CONTACT_SHEET_COLUMNS) * cell_h;
        const uint8_t* thumb = thumbs + (size_t)i * CONTACT_SHEET_THUMB_BYTES;
        for (uint32_t y = 0; y < CONTACT_SHEET_THUMB_HEIGHT; y++)
            memcpy(bitmap_pixel(sheet, x0, y0 + y), thumb + (size_t)y * CONTACT_SHEET_THUMB_WIDTH * 3,
                   (size_t)CONTACT_SHEET_THUMB_WIDTH * 3);
        char text[16];
        contact_sheet_time_text(text, seconds[i]);
        contact_sheet_draw_text(sheet->pixels, sheet->row_bytes, x0, y0 + CONTACT_SHEET_THUMB_HEIGHT + CONTACT_SHEET_LABEL_TOP,
                                text);
    }
    return sheet;
}
