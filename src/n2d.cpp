// 2D raster operations: whole-framebuffer copies and fills, unscaled and scaled 8-bit blits,
// and the stencil operations behind reveals, strokes, heals and cut-outs. They run every frame
// over full-screen planes, so stencils are walked a 32-bit word and a run of bits at a time
// (zero and all-ones words cost one test) and runs are moved with wide stores; every operation
// clips against every buffer it touches, so no placement reads or writes outside one.
#include "n2d.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "diag.h"

constexpr uint32_t N2D_WORD_BITS = 32;          // stencil bits per word
constexpr uint32_t N2D_WORD_SHIFT = 5;          // log2 of N2D_WORD_BITS
constexpr uint32_t N2D_ALL_BITS = 0xFFFFFFFFu;  // bit 31 is the leftmost pixel of a word
constexpr size_t N2D_LONG_RUN_BYTES = 128;      // from here the C library's vector loops beat 8-byte stores
constexpr uint32_t N2D_CHUNK_PIXELS = 2048;    // stencil bits extracted at a time: the widest frame (N3D_MAX_FRAME_DIM)
constexpr uint64_t N2D_BYTE_SPREAD = 0x0101010101010101ull;
constexpr uint64_t N2D_U16_SPREAD = 0x0001000100010001ull;
constexpr int64_t N2D_UV_ONE = (int64_t)1 << N2D_UV_FRACTION_BITS;
// Fixed-point source positions are held in 64 bits and kept within this bound, so the products
// and quotients of the source clip cannot overflow whatever floats come in.
constexpr int64_t N2D_UV_LIMIT = (int64_t)1 << 50;
constexpr uint32_t N2D_LEVEL_ROW_STRIDE = (uint32_t)1 << N3D_MIP_SLOT_H_SHIFT;  // slot of level (k, j) is k + 128 j

// ---- small helpers ----

static int64_t n2d_min64(int64_t a, int64_t b) { return a < b ? a : b; }
static int64_t n2d_max64(int64_t a, int64_t b) { return a > b ? a : b; }

static int32_t n2d_saturate32(int64_t v)
{
    return v < INT32_MIN ? INT32_MIN : v > INT32_MAX ? INT32_MAX : (int32_t)v;
}

// A clipped rectangle: the destination start, how far it moved (the source offset) and its size.
struct n2d_clipped {
    int64_t x, y;
    int64_t src_x, src_y;
    int64_t width, height;  // 0 when nothing is left
};

// 64-bit clip, so that positions plus sizes near the 32-bit limits cannot wrap.
static n2d_clipped n2d_clip64(int64_t x0, int64_t y0, int64_t x1, int64_t y1, int64_t clip_x0, int64_t clip_y0,
                              int64_t clip_x1, int64_t clip_y1)
{
    n2d_clipped c = {x0, y0, 0, 0, 0, 0};
    if (x0 < clip_x0) {
        c.src_x = clip_x0 - x0;
        c.x = clip_x0;
    }
    if (y0 < clip_y0) {
        c.src_y = clip_y0 - y0;
        c.y = clip_y0;
    }
    c.width = n2d_max64(n2d_min64(x1, clip_x1) - c.x, 0);
    c.height = n2d_max64(n2d_min64(y1, clip_y1) - c.y, 0);
    return c;
}

void n2d_clip_rect(int32_t* src_x, int32_t* src_y, int32_t* width, int32_t* height, int32_t x0, int32_t y0,
                   int32_t x1, int32_t y1, int32_t clip_x0, int32_t clip_y0, int32_t clip_x1, int32_t clip_y1)
{
    int64_t left = x0, top = y0;
    *src_x = 0;
    *src_y = 0;
    if (left < clip_x0) {
        *src_x = n2d_saturate32((int64_t)clip_x0 - left);
        left = clip_x0;
    }
    if (top < clip_y0) {
        *src_y = n2d_saturate32((int64_t)clip_y0 - top);
        top = clip_y0;
    }
    *width = n2d_saturate32(n2d_min64(x1, clip_x1) - left);
    *height = n2d_saturate32(n2d_min64(y1, clip_y1) - top);
}

// Fills n bytes with the byte repeated in `pattern`. Short runs take two overlapping stores of
// the largest size that fits (the bytes are all equal, so overlap is harmless) instead of a
// loop over bytes; long runs go to memset's vector stores.
static inline void n2d_fill_bytes(uint8_t* p, uint64_t pattern, size_t n)
{
    if (n >= N2D_LONG_RUN_BYTES) {
        memset(p, (int)(pattern & 0xFF), n);
    } else if (n >= 8) {
        uint8_t* const last = p + n - 8;
        for (; p < last; p += 8)
            memcpy(p, &pattern, 8);
        memcpy(last, &pattern, 8);
    } else if (n >= 4) {
        const uint32_t v = (uint32_t)pattern;
        memcpy(p, &v, 4);
        memcpy(p + n - 4, &v, 4);
    } else if (n >= 2) {
        const uint16_t v = (uint16_t)pattern;
        memcpy(p, &v, 2);
        memcpy(p + n - 2, &v, 2);
    } else if (n == 1) {
        *p = (uint8_t)pattern;
    }
}

// Copies n bytes between distinct buffers, by the same scheme as n2d_fill_bytes: the tail store
// rewrites a few bytes with the values they already got.
static inline void n2d_copy_bytes(uint8_t* dst, const uint8_t* src, size_t n)
{
    if (n >= N2D_LONG_RUN_BYTES) {
        memcpy(dst, src, n);
    } else if (n >= 8) {
        uint64_t v;
        for (size_t i = 0; i + 8 < n; i += 8) {
            memcpy(&v, src + i, 8);
            memcpy(dst + i, &v, 8);
        }
        memcpy(&v, src + n - 8, 8);
        memcpy(dst + n - 8, &v, 8);
    } else if (n >= 4) {
        uint32_t a, b;
        memcpy(&a, src, 4);
        memcpy(&b, src + n - 4, 4);
        memcpy(dst, &a, 4);
        memcpy(dst + n - 4, &b, 4);
    } else if (n >= 2) {
        uint16_t a, b;
        memcpy(&a, src, 2);
        memcpy(&b, src + n - 2, 2);
        memcpy(dst, &a, 2);
        memcpy(dst + n - 2, &b, 2);
    } else if (n == 1) {
        *dst = *src;
    }
}

// Sets bits c0 to c1 - 1 (c0 < c1) of a coverage row: edge words by masks, whole words between.
static void n2d_set_bits(uint32_t* row, uint32_t c0, uint32_t c1)
{
    const uint32_t first = c0 >> N2D_WORD_SHIFT;
    const uint32_t last = (c1 - 1) >> N2D_WORD_SHIFT;
    const uint32_t head = N2D_ALL_BITS >> (c0 % N2D_WORD_BITS);
    const uint32_t tail = N2D_ALL_BITS << (N2D_WORD_BITS - 1 - (c1 - 1) % N2D_WORD_BITS);
    if (first == last) {
        row[first] |= head & tail;
        return;
    }
    row[first] |= head;
    for (uint32_t w = first + 1; w < last; ++w)
        row[w] = N2D_ALL_BITS;
    row[last] |= tail;
}

// ---- run walking ----
//
// Walks the selection of one row of `width` pixels, 32 pixels per word: word_at(k) gives the
// selection bits of pixels 32k to 32k + 31 (bits past the width are masked off here), mark(k,
// bits) sees every non-zero word, and run(start, length) gets each run of selected pixels once,
// merged across word boundaries so that a long run is one wide store. A zero word, and an
// all-ones word inside a run, cost one test each.
template <typename WordFn, typename MarkFn, typename RunFn>
static inline void n2d_for_each_run(uint32_t width, WordFn word_at, MarkFn mark, RunFn run)
{
    const uint32_t words = (width + N2D_WORD_BITS - 1) >> N2D_WORD_SHIFT;
    const uint32_t tail = width % N2D_WORD_BITS;
    const uint32_t last_mask = tail ? ~(N2D_ALL_BITS >> tail) : N2D_ALL_BITS;
    bool open = false;  // a run reaches the end of the previous word
    uint32_t start = 0;
    for (uint32_t k = 0; k < words; ++k) {
        uint32_t bits = word_at(k);
        if (k + 1 == words)
            bits &= last_mask;
        const uint32_t base = k * N2D_WORD_BITS;
        if (bits == 0) {
            if (open) {
                run(start, base - start);
                open = false;
            }
            continue;
        }
        mark(k, bits);
        if (open) {
            if (bits == N2D_ALL_BITS)
                continue;
            const uint32_t ones = (uint32_t)__builtin_clz(~bits);  // ~bits is not zero here
            run(start, base + ones - start);
            open = false;
            bits &= N2D_ALL_BITS >> ones;
        }
        while (bits != 0) {
            const uint32_t first = (uint32_t)__builtin_clz(bits);
            const uint32_t end = first + u32_clz_or_32(~(bits << first));
            if (end == N2D_WORD_BITS) {
                start = base + first;
                open = true;
                break;
            }
            run(base + first, end - first);
            bits &= N2D_ALL_BITS >> end;
        }
    }
    if (open)
        run(start, width - start);  // only when the width is whole words: a masked tail closes runs
}

// Copies `width` (at most N2D_CHUNK_PIXELS) bits of a stencil row from bit `first` on into
// whole words, 32 drawn pixels each, the bits past the width cleared. Returns the OR of the
// words: zero when nothing is selected, so that an empty stretch is skipped in one test.
static uint32_t n2d_extract_bits(uint32_t* out, const uint32_t* row, uint32_t row_words, uint64_t first, uint32_t width)
{
    const uint32_t* src = row + (first >> N2D_WORD_SHIFT);
    const uint32_t available = row_words - (uint32_t)(first >> N2D_WORD_SHIFT);
    const uint32_t shift = (uint32_t)first % N2D_WORD_BITS;
    const uint32_t words = (width + N2D_WORD_BITS - 1) >> N2D_WORD_SHIFT;
    uint32_t any = 0;
    // every word but the last needs its successor's bits too, and that word lies inside the row
    for (uint32_t k = 0; k + 1 < words; ++k) {
        const uint64_t pair = (uint64_t)src[k] << N2D_WORD_BITS | src[k + 1];
        out[k] = (uint32_t)((pair << shift) >> N2D_WORD_BITS);
        any |= out[k];
    }
    const uint32_t k = words - 1;
    const uint64_t pair = (uint64_t)src[k] << N2D_WORD_BITS | (k + 1 < available ? src[k + 1] : 0u);  // the row may end here
    const uint32_t tail = width % N2D_WORD_BITS;
    out[k] = (uint32_t)((pair << shift) >> N2D_WORD_BITS) & (tail ? ~(N2D_ALL_BITS >> tail) : N2D_ALL_BITS);
    return any | out[k];
}

// 32 bits of a stencil row from bit `first` on (first >= -31), bits outside the row as 0.
static inline uint32_t n2d_bits_at(const uint32_t* row, uint32_t count, int64_t first)
{
    if (first < 0)
        return row[0] >> (uint32_t)-first;
    const uint64_t w = (uint64_t)first >> N2D_WORD_SHIFT;
    const uint32_t shift = (uint32_t)first % N2D_WORD_BITS;
    uint32_t bits = w < count ? row[w] << shift : 0u;
    if (shift != 0 && w + 1 < count)
        bits |= row[w + 1] >> (N2D_WORD_BITS - shift);
    return bits;
}

// ---- framebuffer copies, blits and fills ----

void n2d_copy_fb(n3d_framebuffer* dst, const n3d_framebuffer* src)
{
    if (dst->format != src->format || dst->width != src->width || dst->height != src->height)
        crash_in("src/n2d", __LINE__, "n2d_copy_fb",
                 "dst_fb and src_fb must have same format, w and h. src: %d %d %d vs dst %d %d %d\n", (int)src->format,
                 src->width, src->height, (int)dst->format, dst->width, dst->height);
    if (dst->row_bytes != src->row_bytes)
        crash_in("src/n2d", __LINE__, "n2d_copy_fb", "rowbytes must be the same for dst and src, src: %d dst: %d\n",
                 src->row_bytes, dst->row_bytes);
    if (dst->row_bytes % 8 != 0 || src->row_bytes % 8 != 0)
        crash_in("src/n2d", __LINE__, "n2d_copy_fb",
                 "rowbytes must be aligned to 8 bytes dst_fb row_bytes %d src_fb row_bytes: %d\n", dst->row_bytes,
                 src->row_bytes);
    if (dst->height <= 0 || dst->row_bytes <= 0)
        return;
    // equal row strides: the rows with their tails are one block; memmove so that a buffer
    // copied onto itself stays intact
    memmove(dst->pixels, src->pixels, (size_t)dst->row_bytes * (size_t)dst->height);
}

void n2d_blit_buffer_index8(n3d_framecontext* fc, const uint8_t* src, int32_t src_row_bytes, int32_t x0, int32_t y0,
                            int32_t x1, int32_t y1, int32_t first_row, int32_t max_rows)
{
    n3d_framebuffer* fb = fc->framebuffer;
    const n2d_clipped c = n2d_clip64(x0, y0, x1, y1, 0, 0, fb->width, fb->height);
    // checked whatever the placement, so that a bad call fails where it is made and not only
    // once the image moves into view
    if (fb->row_bytes % 4 != 0 || src_row_bytes % 4 != 0)
        crash_in("src/n2d", __LINE__, "n2d_blit_buffer_index8",
                 "fc row bytes and src row bytes must be multiple of 4 bytes, is: %d %d respectively\n", fb->row_bytes,
                 src_row_bytes);
    if (fb->format != N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8)
        crash_in("src/n2d", __LINE__, "n2d_blit_buffer_index8", "format %d not implemented/supported?\n",
                 (int)fb->format);
    // a negative first row would read above the image: it counts as 0
    const int64_t skip = n2d_max64(first_row, 0);
    const int64_t rows = n2d_min64(c.height - skip, max_rows);
    if (c.width <= 0 || rows <= 0)
        return;
    // exactly the clipped width, not rounded up to whole 8-byte words: the rounded span would
    // reach past the image's right edge and, when clipped, past the frame's
    const size_t bytes = (size_t)c.width;
    uint8_t* d = fb->pixels + (c.y + skip) * fb->row_bytes + c.x;
    const uint8_t* s = src + (c.src_y + skip) * (int64_t)src_row_bytes + c.src_x;
    for (int64_t y = 0; y < rows; ++y, d += fb->row_bytes, s += src_row_bytes)
        memcpy(d, s, bytes);
}

// 16.16 from a float, kept inside N2D_UV_LIMIT; NaN goes to the lower bound, where the source
// clip finds nothing to sample.
static int64_t n2d_uv_fixed(float value)
{
    const float scaled = roundf(value * (float)N2D_UV_ONE);
    if (!(scaled > (float)-N2D_UV_LIMIT))
        return -N2D_UV_LIMIT;
    if (scaled > (float)N2D_UV_LIMIT)
        return N2D_UV_LIMIT;
    return (int64_t)scaled;
}

// The reduced level for a step: log2 of the whole texels per pixel, so that a minified image
// reads neighbouring bytes; 0 under two texels per pixel, at most the smallest level.
static uint32_t n2d_level_for_step(int64_t step, uint32_t max_level)
{
    const uint64_t whole = (uint64_t)(step < 0 ? -step : step) >> N2D_UV_FRACTION_BITS;
    if (whole == 0)
        return 0;
    const uint32_t level = 63u - (uint32_t)__builtin_clzll(whole);
    return level < max_level ? level : max_level;
}

static int64_t n2d_div_ceil(int64_t a, int64_t b) { return (a + b - 1) / b; }  // a >= 0, b > 0

// The steps k in [0, count) at which start + k x step lies in [0, limit): the destination pixels
// (or rows) whose texel exists. Solved once per call so that the inner loops test nothing.
static void n2d_steps_inside(int64_t start, int64_t step, int64_t limit, int64_t count, int64_t* first, int64_t* end)
{
    int64_t lo = 0, hi = count;
    if (step == 0) {
        if (start < 0 || start >= limit)
            hi = 0;
    } else if (step > 0) {
        if (start < 0)
            lo = n2d_div_ceil(-start, step);
        hi = n2d_min64(hi, limit - start <= 0 ? 0 : n2d_div_ceil(limit - start, step));
    } else {
        const int64_t down = -step;
        if (start >= limit)
            lo = (start - limit) / down + 1;
        hi = n2d_min64(hi, start < 0 ? 0 : start / down + 1);
    }
    *first = lo;
    *end = n2d_max64(hi, lo);
}

// One destination row of the scaled blit: texel (u >> 16) for each pixel, stepping u by du;
// the pixels between the first and last 8-byte boundary go out as whole aligned words.
static void n2d_scale_row(uint8_t* dst, int64_t count, const uint8_t* texels, int64_t u, int64_t du)
{
    uint8_t* const end = dst + count;
    while (dst < end && ((uintptr_t)dst & 7) != 0) {
        *dst++ = texels[u >> N2D_UV_FRACTION_BITS];
        u += du;
    }
    for (; end - dst >= 8; dst += 8) {
        uint64_t group = 0;
        for (uint32_t i = 0; i < 8; ++i) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
            group |= (uint64_t)texels[u >> N2D_UV_FRACTION_BITS] << (56 - 8 * i);
#else
            group |= (uint64_t)texels[u >> N2D_UV_FRACTION_BITS] << (8 * i);  // the first pixel is the lowest byte
#endif
            u += du;
        }
        memcpy(dst, &group, 8);
    }
    while (dst < end) {
        *dst++ = texels[u >> N2D_UV_FRACTION_BITS];
        u += du;
    }
}

void n2d_blit_scaled_index8(n3d_framecontext* fc, const n3d_texture* texture, float x0, float y0, float x1, float y1,
                            float src_u0, float src_v0, float src_u1, float src_v1, int interlace, int skip_parity,
                            int first_row, int row_count)
{
    const float du_dx = (src_u1 - src_u0) / (x1 - x0);
    const float dv_dy = (src_v1 - src_v0) / (y1 - y0);
    n3d_framebuffer* fb = fc->framebuffer;
    if (fb->format != N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8)
        diag_exit_stdout("dst: only N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8 supported for now\n");
    if (texture->format != N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8)
        diag_exit_stdout("src: only N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8 supported for now\n");
    if (texture->linear == 0)
        diag_exit_stdout("src: swizzled not supported for this (would be slower)\n");

    // pixels are sampled at their integer coordinates: start at the first whole pixel
    const float snapped_x0 = ceilf(x0);
    src_u0 += (snapped_x0 - x0) * du_dx;
    x0 = snapped_x0;
    const float snapped_y0 = ceilf(y0);
    src_v0 += (snapped_y0 - y0) * dv_dy;
    y0 = snapped_y0;
    // written as a negation so that NaN coordinates draw nothing
    if (!(x1 >= 0 && y1 >= 0 && x0 < (float)fb->width && y0 < (float)fb->height))
        return;
    if (x0 < 0) {
        src_u0 += -x0 * du_dx;
        x0 = 0;
    }
    if (y0 < 0) {
        src_v0 += -y0 * dv_dy;
        y0 = 0;
    }
    x1 = fminf(x1, (float)fb->width);
    y1 = fminf(y1, (float)fb->height);

    int64_t u = n2d_uv_fixed(src_u0), v = n2d_uv_fixed(src_v0);
    int64_t du = n2d_uv_fixed(du_dx), dv = n2d_uv_fixed(dv_dy);
    const uint32_t level_x = n2d_level_for_step(du, texture->log2_w - texture->min_log2_w);
    const uint32_t level_y = n2d_level_for_step(dv, texture->log2_h - texture->min_log2_h);
    // A source running right to left (or bottom to top) samples texel ceil(u) - 1 instead of
    // floor(u), so that (w, 0) draws the mirror image of the same texels that (0, w) draws.
    if (du < 0)
        u -= 1;
    if (dv < 0)
        v -= 1;
    // arithmetic shifts: a negative step keeps its sign in the reduced level
    u >>= level_x;
    du >>= level_x;
    v >>= level_y;
    dv >>= level_y;
    const uint32_t row_shift = texture->log2_w - level_x;
    const int64_t level_w = (int64_t)1 << row_shift;
    const int64_t level_h = (int64_t)1 << (texture->log2_h - level_y);
    const uint8_t* level = (const uint8_t*)texture->mips[level_x + N2D_LEVEL_ROW_STRIDE * level_y];

    const int64_t ix0 = (int64_t)x0, ix1 = (int64_t)x1, iy0 = (int64_t)y0, iy1 = (int64_t)y1;
    if (ix0 >= ix1 || iy0 >= iy1)
        return;
    // Source clip: pixels and rows whose texel lies outside the level are neither drawn nor
    // marked. A source rectangle inside the texture loses nothing here; one that reaches out
    // of it (or float rounding of a huge magnification at its far edge) cannot read outside.
    int64_t kx0, kx1, ky0, ky1;
    n2d_steps_inside(u, du, level_w << N2D_UV_FRACTION_BITS, ix1 - ix0, &kx0, &kx1);
    n2d_steps_inside(v, dv, level_h << N2D_UV_FRACTION_BITS, iy1 - iy0, &ky0, &ky1);
    const int64_t px0 = ix0 + kx0, px1 = ix0 + kx1;
    if (px0 >= px1)
        return;
    const int64_t band_start = n2d_min64(n2d_max64(iy0, first_row), iy1);
    const int64_t band_end = n2d_min64(iy1, (int64_t)first_row + row_count);
    const int64_t row_start = n2d_max64(band_start, iy0 + ky0);
    const int64_t row_end = n2d_min64(band_end, iy0 + ky1);

    // coverage is marked only inside the coverage buffer, which is normally the frame's size
    n3d_coverage_buffer* coverage = fc->coverage[0];
    const int64_t cover_x1 = coverage ? n2d_min64(px1, coverage->width) : 0;
    const int64_t cover_y1 = coverage ? n2d_min64(row_end, coverage->height) : 0;
    const uint32_t cover_stride = coverage ? coverage->width / N2D_WORD_BITS : 0;

    const int64_t row_u = u + (px0 - ix0) * du;  // within the level by the source clip
    for (int64_t y = row_start; y < row_end; ++y) {
        if (!(interlace && (y & 1) == skip_parity)) {
            const int64_t row_v = v + (y - iy0) * dv;
            const uint8_t* texels = level + ((row_v >> N2D_UV_FRACTION_BITS) << row_shift);
            n2d_scale_row(fb->pixels + y * fb->row_bytes + px0, px1 - px0, texels, row_u, du);
        }
        if (px0 < cover_x1 && y < cover_y1)
            n2d_set_bits(coverage->bits + y * cover_stride, (uint32_t)px0, (uint32_t)cover_x1);
    }
}

// Writes n bytes of a repeating 8-byte pattern from p, phase 0 at p.
static void n2d_fill_pattern(uint8_t* p, uint64_t pattern, size_t n)
{
    size_t i = 0;
    for (; i + 8 <= n; i += 8)
        memcpy(p + i, &pattern, 8);
    memcpy(p + i, &pattern, n - i);
}

void n2d_fb_clear_color(n3d_framebuffer* fb, uint32_t red, uint32_t green, uint32_t blue)
{
    // channels are bytes: only the low byte counts, so a larger value cannot spill into another
    // channel or the alpha bit
    red &= 0xFF;
    green &= 0xFF;
    blue &= 0xFF;
    uint64_t pattern = 0;
    switch (fb->format) {
    case N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555:
        pattern = (uint64_t)(0x8000u | ((red >> 3) << 10) | ((green >> 3) << 5) | (blue >> 3)) * N2D_U16_SPREAD;
        break;
    case N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8:
        pattern = red * N2D_BYTE_SPREAD;
        break;
    default:
        crash_at("src/n2d", __LINE__, "not implemented\n");
    }
    if (fb->row_bytes <= 0)
        return;
    // all row_bytes of every row, also when row_bytes is not a multiple of 8 (an 8-bit frame
    // 100 pixels wide keeps no unfilled pixels at its right edge)
    for (int32_t y = 0; y < fb->height; ++y)
        n2d_fill_pattern(fb->pixels + (int64_t)y * fb->row_bytes, pattern, (size_t)fb->row_bytes);
}

void n2d_fb_i8_fill_rect(n3d_framebuffer* fb, uint8_t index, int32_t x0, int32_t y0, int32_t x1, int32_t y1)
{
    // clipped to the frame, which the progress bar's own arithmetic does not promise
    const n2d_clipped c = n2d_clip64(x0, y0, x1, y1, 0, 0, fb->width, fb->height);
    if (c.width <= 0 || c.height <= 0)
        return;
    uint8_t* row = fb->pixels + c.y * fb->row_bytes + c.x;
    for (int64_t y = 0; y < c.height; ++y, row += fb->row_bytes)
        memset(row, index, (size_t)c.width);
}

// ---- coverage-masked operations ----

// The masked fill and copy. Frame rows first_row to first_row + row_count - 1 are drawn (with
// first_row 0 and row_count the frame's height, as every caller passes, that is the whole
// frame), clipped to the frame, the output coverage and, for the copy, the source. Pixels step
// by their own size, so 16- and 32-bit frames get whole pixels: the index byte in every byte of
// a pixel, or the source pixel's bytes.
template <bool Copy>
static void n2d_masked_runs(n3d_framebuffer* fb, n3d_coverage_buffer* out, int32_t x, int32_t y, uint8_t index,
                            const n3d_framebuffer* src, const n3d_coverage_buffer* cb0, int32_t first_row,
                            int32_t row_count, uint32_t bytes_per_pixel)
{
    int64_t clip_x1 = n2d_min64(fb->width, out->width);
    int64_t clip_y1 = n2d_min64(n2d_min64(fb->height, out->height), (int64_t)first_row + row_count);
    if constexpr (Copy) {
        clip_x1 = n2d_min64(clip_x1, src->width);
        clip_y1 = n2d_min64(clip_y1, src->height);
    }
    const n2d_clipped c = n2d_clip64(x, y, (int64_t)x + cb0->width, (int64_t)y + cb0->height, 0,
                                     n2d_max64(first_row, 0), clip_x1, clip_y1);
    if (c.width <= 0 || c.height <= 0)
        return;
    const uint32_t width = (uint32_t)c.width;
    const uint32_t stencil_stride = cb0->width / N2D_WORD_BITS;
    const uint32_t out_stride = out->width / N2D_WORD_BITS;
    const uint32_t out_word = (uint32_t)(c.x >> N2D_WORD_SHIFT);
    const uint32_t out_shift = (uint32_t)(c.x % N2D_WORD_BITS);
    const uint64_t pattern = index * N2D_BYTE_SPREAD;

    uint32_t selection[N2D_CHUNK_PIXELS / N2D_WORD_BITS];
    for (int64_t row = 0; row < c.height; ++row) {
        const uint32_t* stencil = cb0->bits + (uint64_t)(c.src_y + row) * stencil_stride;
        // runs are not merged across chunks: a frame wider than one chunk gets one more store
        for (uint32_t done = 0; done < width; done += N2D_CHUNK_PIXELS) {
            const uint32_t part = width - done < N2D_CHUNK_PIXELS ? width - done : N2D_CHUNK_PIXELS;
            if (n2d_extract_bits(selection, stencil, stencil_stride, (uint64_t)c.src_x + done, part) == 0)
                continue;
            uint32_t* cover = out->bits + (uint64_t)(c.y + row) * out_stride + out_word + done / N2D_WORD_BITS;
            uint8_t* dst = fb->pixels + (c.y + row) * fb->row_bytes + (c.x + done) * bytes_per_pixel;
            const uint8_t* from = nullptr;
            if constexpr (Copy)
                from = src->pixels + (c.y + row) * src->row_bytes + (c.x + done) * bytes_per_pixel;
            n2d_for_each_run(
                part, [&](uint32_t k) { return selection[k]; },
                [&](uint32_t k, uint32_t bits) {
                    // the selection is exactly the bits to mark: OR it in, shifted to the frame's column
                    cover[k] |= bits >> out_shift;
                    if (out_shift != 0) {
                        const uint32_t spill = bits << (N2D_WORD_BITS - out_shift);
                        if (spill != 0)  // only bits inside the drawn width spill, so the word exists
                            cover[k + 1] |= spill;
                    }
                },
                [&](uint32_t start, uint32_t length) {
                    if constexpr (Copy)
                        n2d_copy_bytes(dst + start * bytes_per_pixel, from + start * bytes_per_pixel,
                                       (size_t)length * bytes_per_pixel);
                    else
                        n2d_fill_bytes(dst + start * bytes_per_pixel, pattern, (size_t)length * bytes_per_pixel);
                });
        }
    }
}

void n2d_fb_i8_and_cb_mask_fill_if_cb0(n3d_framebuffer* fb, n3d_coverage_buffer* out_coverage, int32_t x, int32_t y,
                                       uint8_t index, const n3d_coverage_buffer* cb0, int32_t first_row,
                                       int32_t row_count)
{
    const uint32_t bytes_per_pixel =
        n3d_bytes_per_texel(fb->format, "src/n2d", __LINE__, "n2d_fb_i8_and_cb_mask_fill_if_cb0");
    n2d_masked_runs<false>(fb, out_coverage, x, y, index, nullptr, cb0, first_row, row_count, bytes_per_pixel);
}

void n2d_fb_i8_and_cb_mask_copy_if_cb0(n3d_framebuffer* fb, n3d_coverage_buffer* out_coverage, int32_t x, int32_t y,
                                       const n3d_framebuffer* src, const n3d_coverage_buffer* cb0, int32_t first_row,
                                       int32_t row_count)
{
    const uint32_t bytes_per_pixel =
        n3d_bytes_per_texel(fb->format, "src/n2d", __LINE__, "n2d_fb_i8_and_cb_mask_copy_if_cb0");
    const uint32_t src_bytes_per_pixel =
        n3d_bytes_per_texel(src->format, "src/n2d", __LINE__, "n2d_fb_i8_and_cb_mask_copy_if_cb0");
    // pixels of different sizes cannot be copied byte for byte
    if (src_bytes_per_pixel != bytes_per_pixel)
        crash_in("src/n2d", __LINE__, "n2d_fb_i8_and_cb_mask_copy_if_cb0",
                 "src_fb pixels are %d bytes but dst_fb pixels %d bytes\n", (int)src_bytes_per_pixel,
                 (int)bytes_per_pixel);
    n2d_masked_runs<true>(fb, out_coverage, x, y, 0, src, cb0, first_row, row_count, bytes_per_pixel);
}

// Copies src's pixels where cb0 is clear (and, for the heal, cb1 is set), at the same position,
// over rows row_begin to row_end - 1 of all three: every row pointer starts at row_begin (a
// heal of the lower half heals the lower half). Clipped to the smallest of the buffers, so a
// destination smaller than the stencil is not written past.
template <bool Heal>
static void n2d_copy_where_clear(n3d_framebuffer* fb, const n3d_framebuffer* src, const n3d_coverage_buffer* cb0,
                                 const n3d_coverage_buffer* cb1, int32_t row_begin, int32_t row_end,
                                 uint32_t bytes_per_pixel)
{
    const int64_t width = n2d_min64(n2d_min64(cb0->width, fb->width), src->width);
    const int64_t height = n2d_min64(n2d_min64(cb0->height, fb->height), src->height);
    const int64_t first = n2d_max64(row_begin, 0);
    const int64_t end = n2d_min64(row_end, height);
    if (width <= 0 || first >= end)
        return;
    const uint32_t stride = cb0->width / N2D_WORD_BITS;  // cb1 has cb0's size
    for (int64_t y = first; y < end; ++y) {
        const uint32_t* now = cb0->bits + (uint64_t)y * stride;
        const uint32_t* before = Heal ? cb1->bits + (uint64_t)y * stride : nullptr;
        uint8_t* dst = fb->pixels + y * fb->row_bytes;
        const uint8_t* from = src->pixels + y * src->row_bytes;
        n2d_for_each_run(
            (uint32_t)width,
            [&](uint32_t k) {
                if constexpr (Heal)
                    return ~now[k] & before[k];
                else
                    return ~now[k];
            },
            [](uint32_t, uint32_t) {},
            [&](uint32_t start, uint32_t length) {
                n2d_copy_bytes(dst + start * bytes_per_pixel, from + start * bytes_per_pixel,
                               (size_t)length * bytes_per_pixel);
            });
    }
}

void n2d_fb_i8_copy_if_cb1_not_cb0(n3d_framebuffer* fb, int32_t x, int32_t y, const n3d_framebuffer* src,
                                   const n3d_coverage_buffer* cb0, const n3d_coverage_buffer* cb1, int32_t row_begin,
                                   int32_t row_end)
{
    if (x != 0 || y != 0)
        diag_exit_stdout("not impl..\n");
    if (cb0->width != cb1->width || cb0->height != cb1->height)
        diag_exit_stdout("cb0 and cb1 must have same width and height (%d %d vs %d %d)\n", (int)cb0->width,
                              (int)cb0->height, (int)cb1->width, (int)cb1->height);
    if ((int64_t)cb0->width != src->width || (int64_t)cb0->height != src->height)
        diag_exit_stdout("cb0 and src_fb must have same width and height (%d %d vs %d %d)\n", (int)cb0->width,
                              (int)cb0->height, src->width, src->height);
    if (fb->format != N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8)
        diag_exit_stdout("dst_fb format must be N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8 (was %d)\n",
                              (int)fb->format);
    if (src->format != N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8)
        diag_exit_stdout("src_fb format must be N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8 (was %d)\n",
                              (int)src->format);
    n2d_copy_where_clear<true>(fb, src, cb0, cb1, row_begin, row_end, 1);
}

void n2d_fb_argb1555_copy_if_not_cb0(n3d_framebuffer* fb, int32_t x, int32_t y, const n3d_framebuffer* src,
                                     const n3d_coverage_buffer* cb0, int32_t row_begin, int32_t row_end)
{
    if (x != 0 || y != 0)
        diag_exit_stdout("not impl..\n");
    // compared with the destination: the source (a viewport into a large texture) may be larger
    if ((int64_t)cb0->width != fb->width || (int64_t)cb0->height != fb->height)
        diag_exit_stdout("cb0 and src_fb must have same width and height (%d %d vs %d %d)\n", (int)cb0->width,
                              (int)cb0->height, fb->width, fb->height);
    if (fb->format != N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555)
        diag_exit_stdout("dst_fb format must be N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555 (was %d)\n",
                              (int)fb->format);
    if (src->format != N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555)
        diag_exit_stdout("src_fb format must be N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555 (was %d)\n",
                              (int)src->format);
    n2d_copy_where_clear<false>(fb, src, cb0, nullptr, row_begin, row_end, 2);
}

// Bit 31 - i set when texel i of `count` (at most 32) lies in [low, low + span]: one unsigned
// compare per texel, no branch.
static inline uint32_t n2d_range_bits(const uint8_t* texels, uint32_t count, uint8_t low, uint8_t span)
{
    uint32_t bits = 0;
    for (uint32_t i = 0; i < count; ++i)
        bits |= (uint32_t)((uint8_t)(texels[i] - low) <= span) << (N2D_WORD_BITS - 1 - i);
    return bits;
}

#if defined(__SSE2__)
// The same for a whole word of 32 texels, 16 compares at a time.
static inline uint32_t n2d_range_bits32(const uint8_t* texels, uint8_t low, uint8_t span)
{
    const __m128i lows = _mm_set1_epi8((char)low), spans = _mm_set1_epi8((char)span), zero = _mm_setzero_si128();
    const __m128i a = _mm_loadu_si128((const __m128i*)texels);
    const __m128i b = _mm_loadu_si128((const __m128i*)(texels + 16));
    // texel - low, saturated down by span: zero exactly when the texel is in range
    const __m128i out_a = _mm_subs_epu8(_mm_sub_epi8(a, lows), spans);
    const __m128i out_b = _mm_subs_epu8(_mm_sub_epi8(b, lows), spans);
    uint32_t bits = (uint32_t)_mm_movemask_epi8(_mm_cmpeq_epi8(out_a, zero)) |
                    ((uint32_t)_mm_movemask_epi8(_mm_cmpeq_epi8(out_b, zero)) << 16);
    // the mask has texel i in bit i; stencils want the leftmost texel in bit 31
    bits = ((bits >> 1) & 0x55555555u) | ((bits & 0x55555555u) << 1);
    bits = ((bits >> 2) & 0x33333333u) | ((bits & 0x33333333u) << 2);
    bits = ((bits >> 4) & 0x0F0F0F0Fu) | ((bits & 0x0F0F0F0Fu) << 4);
    return __builtin_bswap32(bits);
}
#else
static inline uint32_t n2d_range_bits32(const uint8_t* texels, uint8_t low, uint8_t span)
{
    return n2d_range_bits(texels, N2D_WORD_BITS, low, span);
}
#endif

void n2d_cb_from_texture_i8_range(n3d_coverage_buffer* out, const n3d_coverage_buffer* in, const n3d_texture* texture,
                                  int32_t low, int32_t high, int32_t first_row, int32_t row_count)
{
    if (out->width != in->width || out->height != in->height)
        diag_exit_stdout("cb0 width and height must equal cb1! (%d %d vs %d %d)\n", (int)out->width,
                              (int)out->height, (int)in->width, (int)in->height);
    if (texture->format != N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8)
        diag_exit_stdout("texture: only N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8 supported\n");
    if (texture->linear == 0)
        diag_exit_stdout("swizzled texture not implemented\n");

    const int64_t first = n2d_max64(first_row, 0);
    const int64_t end = n2d_min64((int64_t)first_row + row_count, in->height);
    const uint32_t words = in->width / N2D_WORD_BITS;
    // the range as bytes: low above high, or a range missing 0..255, selects nothing
    const int64_t lo = n2d_max64(low, 0), hi = n2d_min64(high, 255);
    const bool empty = lo > hi;
    const uint8_t low8 = (uint8_t)(empty ? 0 : lo), span8 = (uint8_t)(empty ? 0 : hi - lo);
    // Pixels outside the texture have no texel and are never selected; the texture is read only
    // inside its own width and height.
    const uint32_t log2_w = texture->log2_w;
    const int64_t tex_w = (int64_t)1 << log2_w, tex_h = (int64_t)1 << texture->log2_h;
    const uint32_t full_words = (uint32_t)n2d_min64(words, tex_w / N2D_WORD_BITS);
    const uint32_t part = (uint32_t)(tex_w < N2D_WORD_BITS ? tex_w : 0);  // a texture narrower than one word
    const uint8_t* texels = (const uint8_t*)texture->mips[0];
    for (int64_t y = first; y < end; ++y) {
        const uint32_t* src = in->bits + (uint64_t)y * words;
        uint32_t* dst = out->bits + (uint64_t)y * words;
        if (empty || y >= tex_h) {
            memset(dst, 0, (size_t)words * sizeof(uint32_t));
            continue;
        }
        const uint8_t* row = texels + ((uint64_t)y << log2_w);
        uint32_t k = 0;
        for (; k < full_words; ++k) {
            const uint32_t bits = src[k];
            dst[k] = bits == 0 ? 0u : bits & n2d_range_bits32(row + k * N2D_WORD_BITS, low8, span8);
        }
        if (part != 0 && k < words) {
            dst[k] = src[k] & n2d_range_bits(row, part, low8, span8);
            ++k;
        }
        for (; k < words; ++k)
            dst[k] = 0;
    }
}

// The rectangle copy and combine: dst columns max(x, 0) to min(dst width, x + src width) - 1
// and rows max(y, row_begin, 0) to min(row_end, dst height, y + src height) - 1, each dst bit
// paired with src bit (column - x, row - y). Placements partly off dst or beyond src are clipped.
template <bool OrNot>
static void n2d_cb_rect(n3d_coverage_buffer* dst, int32_t x, int32_t y, const n3d_coverage_buffer* src,
                        int32_t row_begin, int32_t row_end)
{
    const int64_t c0 = n2d_max64(x, 0);
    const int64_t c1 = n2d_min64(dst->width, (int64_t)x + src->width);
    const int64_t r0 = n2d_max64(n2d_max64(y, row_begin), 0);
    const int64_t r1 = n2d_min64(n2d_min64(row_end, dst->height), (int64_t)y + src->height);
    if (c0 >= c1 || r0 >= r1)
        return;
    const uint32_t dst_stride = dst->width / N2D_WORD_BITS;
    const uint32_t src_stride = src->width / N2D_WORD_BITS;
    const uint32_t w0 = (uint32_t)(c0 >> N2D_WORD_SHIFT), w1 = (uint32_t)((c1 - 1) >> N2D_WORD_SHIFT);
    const uint32_t head = N2D_ALL_BITS >> (c0 % N2D_WORD_BITS);
    const uint32_t tail = N2D_ALL_BITS << (N2D_WORD_BITS - 1 - (c1 - 1) % N2D_WORD_BITS);
    for (int64_t r = r0; r < r1; ++r) {
        uint32_t* d = dst->bits + (uint64_t)r * dst_stride;
        const uint32_t* s = src->bits + (uint64_t)(r - y) * src_stride;
        for (uint32_t w = w0; w <= w1; ++w) {
            uint32_t mask = N2D_ALL_BITS;
            if (w == w0)
                mask &= head;
            if (w == w1)
                mask &= tail;
            const uint32_t bits = n2d_bits_at(s, src_stride, (int64_t)w * N2D_WORD_BITS - x);
            if constexpr (OrNot)
                d[w] |= ~bits & mask;
            else
                d[w] = (d[w] & ~mask) | (bits & mask);
        }
    }
}

void n2d_cb_copy_rect(n3d_coverage_buffer* dst, int32_t x, int32_t y, const n3d_coverage_buffer* src,
                      int32_t row_begin, int32_t row_end)
{
    n2d_cb_rect<false>(dst, x, y, src, row_begin, row_end);
}

void n2d_cb_or_not_rect(n3d_coverage_buffer* dst, int32_t x, int32_t y, const n3d_coverage_buffer* src,
                        int32_t row_begin, int32_t row_end)
{
    n2d_cb_rect<true>(dst, x, y, src, row_begin, row_end);
}

void n2d_cb_clear(n3d_coverage_buffer* cb)
{
    if (cb->bits)
        memset(cb->bits, 0, (size_t)(cb->width / N2D_WORD_BITS) * sizeof(uint32_t) * cb->height);
}
