// Run-length image drawing. The common case, an image wholly inside the frame, walks the runs
// with no clipping at all; images that stick out on the left or at the top take the clipping
// variant, which still walks every row's data (rows have no lengths) but writes only inside.
// Partly visible on the left or top is clipped rather than refused: a title sliding in from
// the edge is a natural use, and the clip costs nothing in the common case.
#include "reel_rle_image.h"

#include <cstring>

static const char* const REEL_RLE_FILE = "src/reel_rle_image";

// Fills a coloured run. memset moves whole words inside long runs and only the run's n bytes change.
static inline void reel_rle_fill(uint8_t* dst, uint8_t color, uint32_t n)
{
    if (n < 8) {
        for (uint32_t i = 0; i < n; i++)
            dst[i] = color;
        return;
    }
    memset(dst, color, n);
}

// One variant per mode and clipping: the mode and the clip are never tested per run.
template <uint32_t Mode, bool Clip>
static void reel_rle_image_rows(n3d_framebuffer* fb, const reel_rle_image* image, int32_t x, int32_t y, uint8_t color)
{
    const uint8_t* data = image->data;
    const int32_t w = (int32_t)image->width;
    for (int32_t r = 0; r < (int32_t)image->height; r++) {
        if (*data == REEL_RLE_EMPTY_ROW) {
            data++;
            continue;
        }
        const int32_t dy = y + r;
        // rows above the frame are walked, not drawn (Clip only: otherwise dy >= 0)
        uint8_t* row = (!Clip || dy >= 0) ? fb->pixels + (int64_t)dy * fb->row_bytes : nullptr;
        int32_t col = x;
        const int32_t end = x + w;
        while (col < end) {
            const uint32_t a = data[0], b = data[1];
            data += 2;
            if (a == REEL_RLE_SKIP) {
                col += (int32_t)b;
                continue;
            }
            const uint8_t c = Mode == REEL_RLE_MODE_SILHOUETTE ? color : (uint8_t)b;
            if constexpr (Clip) {
                const int32_t from = col < 0 ? 0 : col;
                const int32_t to = col + (int32_t)a;
                if (row && to > from)
                    reel_rle_fill(row + from, c, (uint32_t)(to - from));
            } else {
                reel_rle_fill(row + col, c, a);
            }
            col += (int32_t)a;
        }
    }
}

int32_t reel_rle_image_draw_ex(n3d_framebuffer* fb, const reel_rle_image* image, int32_t x, int32_t y, uint32_t mode,
                               uint8_t color)
{
    // the reader keeps sides at most 65535, so these sums stay in 64 bits' comfortable range
    const int64_t w = image->width, h = image->height;
    const int64_t right = (int64_t)x + w, bottom = (int64_t)y + h;
    if (x >= fb->width || y >= fb->height || right < 0 || bottom < 0)
        return (int32_t)bottom;
    if (bottom > fb->height)
        crash_in(REEL_RLE_FILE, __LINE__, "reel_rle_image_draw_ex",
                 "crop not implemented.. image height + dst_y0 > fb height! (%d+%d vs %d)\n", (int)h, y, fb->height);
    if (right > fb->width)
        crash_in(REEL_RLE_FILE, __LINE__, "reel_rle_image_draw_ex",
                 "crop not implemented.. image width + dst_x0 > fb width! (%d+%d vs %d)\n", (int)w, x, fb->width);
    const bool clip = x < 0 || y < 0;
    if (mode == REEL_RLE_MODE_SILHOUETTE)
        clip ? reel_rle_image_rows<REEL_RLE_MODE_SILHOUETTE, true>(fb, image, x, y, color)
             : reel_rle_image_rows<REEL_RLE_MODE_SILHOUETTE, false>(fb, image, x, y, color);
    else
        clip ? reel_rle_image_rows<REEL_RLE_MODE_COLORS, true>(fb, image, x, y, color)
             : reel_rle_image_rows<REEL_RLE_MODE_COLORS, false>(fb, image, x, y, color);
    return (int32_t)bottom;
}

int32_t reel_rle_image_draw(n3d_framebuffer* fb, const reel_rle_image* image, int32_t x, int32_t y)
{
    return reel_rle_image_draw_ex(fb, image, x, y, REEL_RLE_MODE_COLORS, 0);
}

int32_t reel_rle_image_draw_color(n3d_framebuffer* fb, const reel_rle_image* image, int32_t x, int32_t y,
                                  uint8_t color)
{
    return reel_rle_image_draw_ex(fb, image, x, y, REEL_RLE_MODE_SILHOUETTE, color);
}
