// The tunnel's table fill and its per-frame drawing. All trigonometry and square roots are paid
// once, at start-up. A frame adds the offsets to each entry's two bytes, modulo 256, eight
// entries per vector addition, and reads one colour-map texel per pixel.
#include "reel_tunnel_func.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numbers>

#include "diag.h"
#include "n2d.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

static const char* const REEL_TUNNEL_FILE = "src/reel_tunnel_func";

constexpr uint32_t REEL_TUNNEL_BYTE_STEPS = 256;  // a byte's range: angle and distance wrap at 256
// The offsets as one entry: angle offset in the high byte, distance offset in the low one.
constexpr uint32_t REEL_TUNNEL_ANGLE_SHIFT = 8;
constexpr uint32_t REEL_TUNNEL_DISTANCE_BYTE = 0x00FFu;
// Indices are made a chunk of a row at a time: any width, and the chunk stays in the first-level cache.
constexpr int32_t REEL_TUNNEL_CHUNK = 256;

void reel_tunnel_table_init(n3d_framebuffer* table)
{
    if (table->format != N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555 || table->width <= 0 || table->height <= 0)
        crash_in(REEL_TUNNEL_FILE, __LINE__, "reel_tunnel_table_init",
                 "the table must be a 16-bit framebuffer (format %d, %d x %d)\n", (int)table->format, table->width,
                 table->height);
    if (table->width > N3D_MAX_FRAME_DIM)
        crash_in(REEL_TUNNEL_FILE, __LINE__, "reel_tunnel_table_init", "the table is wider than %d (%d)\n",
                 N3D_MAX_FRAME_DIM, table->width);
    const float w = (float)table->width, h = (float)table->height;
    const float a = h / w;
    const float corner_norm = 1.0f + a * a;  // squared distance of the screen corners
    float column_px[N3D_MAX_FRAME_DIM];  // the same in every row
    for (int32_t x = 0; x < table->width; x++)
        column_px[x] = -1.0f + 2.0f * ((float)x + 0.5f) / w;
    for (int32_t y = 0; y < table->height; y++) {
        uint16_t* row = (uint16_t*)(table->pixels + (int64_t)y * table->row_bytes);
        const float py = a * (-1.0f + 2.0f * ((float)y + 0.5f) / h);
        for (int32_t x = 0; x < table->width; x++) {
            const float px = column_px[x];
            double t = 0.5 + 0.5 * atan2((double)py, (double)px) / std::numbers::pi;
            t = t > 0.0 ? (t < 1.0 ? t : 1.0) : 0.0;
            // at pixel centres neither byte reaches 256; the limit only keeps a wider table sane
            uint32_t angle = (uint32_t)(t * REEL_TUNNEL_BYTE_STEPS);
            angle = angle < REEL_TUNNEL_BYTE_STEPS ? angle : REEL_TUNNEL_BYTE_STEPS - 1;
            const float q = (px * px + py * py) / corner_norm;
            // 256 q / sqrt(q) is 256 sqrt(q); q is never 0 at a pixel centre, but 0 / 0 must not be
            float d = q > 0.0f ? (float)REEL_TUNNEL_BYTE_STEPS * q / sqrtf(q) : 0.0f;
            d = d < (float)(REEL_TUNNEL_BYTE_STEPS - 1) ? d : (float)(REEL_TUNNEL_BYTE_STEPS - 1);
            row[x] = (uint16_t)(angle << 8 | (uint32_t)d);
        }
    }
}

// A row's colour-map indices: each entry's angle and distance bytes are increased by the offsets'
// bytes modulo 256 (a byte-wise addition, so no carry crosses from distance into angle).
static void reel_tunnel_indices(uint16_t* index, const uint8_t* entries, int32_t count, uint32_t add)
{
    int32_t i = 0;
#if defined(__SSE2__)
    const __m128i bytes = _mm_set1_epi16((short)add);
    for (; i + 8 <= count; i += 8)
        _mm_store_si128((__m128i*)(index + i), _mm_add_epi8(_mm_loadu_si128((const __m128i*)(entries + 2 * i)), bytes));
#endif
    for (; i < count; i++) {
        uint16_t e;
        memcpy(&e, entries + 2 * i, sizeof(e));
        const uint32_t angle_bytes = ~REEL_TUNNEL_DISTANCE_BYTE;
        index[i] = (uint16_t)(((e + add) & REEL_TUNNEL_DISTANCE_BYTE) | ((e & angle_bytes) + (add & angle_bytes)));
    }
}

void reel_tunnel_check_color_map(const n3d_texture* color_map)
{
    if (color_map->log2_w != REEL_TUNNEL_MAP_LOG2 || color_map->log2_h != REEL_TUNNEL_MAP_LOG2)
        crash_in(REEL_TUNNEL_FILE, __LINE__, "reel_tunnel_argb1555", "color map must be 256x256 texture for now\n");
    // the loop reads 16-bit texels row after row: anything else would read outside the map
    if (color_map->format != N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555 || !color_map->linear)
        crash_in(REEL_TUNNEL_FILE, __LINE__, "reel_tunnel_argb1555",
                 "color map must be a linear N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555 texture (format %d, "
                 "linear %d)\n",
                 (int)color_map->format, (int)color_map->linear);
}

void reel_tunnel_argb1555(n3d_framecontext* fc, const n3d_texture* color_map, const n3d_framebuffer* table,
                          int32_t x0, int32_t y0, int32_t x1, int32_t y1, uint8_t distance_offset,
                          uint8_t angle_offset)
{
    const n3d_framebuffer* fb = fc->framebuffer;
    reel_tunnel_check_color_map(color_map);
    if (fb->format != N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555)
        crash_in(REEL_TUNNEL_FILE, __LINE__, "reel_tunnel_argb1555", "not implemented/supported?\n");
    if (table->format != N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555 || table->width < fb->width ||
        table->height < fb->height)
        crash_in(REEL_TUNNEL_FILE, __LINE__, "reel_tunnel_argb1555",
                 "tunnel table (%d x %d, format %d) must be a 16-bit table at least as large as the framebuffer "
                 "(%d x %d)\n",
                 table->width, table->height, (int)table->format, fb->width, fb->height);

    int32_t skip_x = 0, skip_y = 0, w = 0, h = 0;
    n2d_clip_rect(&skip_x, &skip_y, &w, &h, x0, y0, x1, y1, 0, 0, fb->width, fb->height);
    if (w <= 0 || h <= 0)
        return;
    x0 += skip_x, y0 += skip_y;
    const int32_t groups = w / 4;

    const uint16_t* map = (const uint16_t*)color_map->mips[0];
    const uint8_t* src = table->pixels + (int64_t)(table->height / 2 - fb->height / 2) * table->row_bytes +
                         (int64_t)(table->width / 2 - fb->width / 2) * 2;
    uint8_t* dst = fb->pixels + (int64_t)y0 * fb->row_bytes + (int64_t)x0 * 2;
    const uint32_t add = (uint32_t)angle_offset << REEL_TUNNEL_ANGLE_SHIFT | distance_offset;
    alignas(16) uint16_t index[REEL_TUNNEL_CHUNK];
    for (int32_t row = 0; row < h; row++) {
        for (int32_t from = 0; from < groups * 4; from += REEL_TUNNEL_CHUNK) {
            const int32_t count = std::min(REEL_TUNNEL_CHUNK, groups * 4 - from);
            reel_tunnel_indices(index, src + 2 * from, count, add);
            // four texels, first pixel lowest, as one 8-byte store
            uint8_t* d = dst + 2 * from;
            for (int32_t i = 0; i < count; i += 4, d += 8) {
                const uint64_t out = (uint64_t)map[index[i]] | (uint64_t)map[index[i + 1]] << 16 |
                                     (uint64_t)map[index[i + 2]] << 32 | (uint64_t)map[index[i + 3]] << 48;
                memcpy(d, &out, sizeof(out));
            }
        }
        src += table->row_bytes;
        dst += fb->row_bytes;
    }
}
