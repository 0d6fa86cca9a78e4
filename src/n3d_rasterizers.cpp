// The triangle rasterizer family: one template over the feature bits, fifteen instantiations.
//
// A triangle is cut at its middle vertex into two halves; each half walks its rows between a
// left edge L and a right edge R stepped with floor-division error terms (top-left filling:
// a pixel centre on a left or top edge is inside, on a right or bottom edge outside). The
// interpolated attributes are carried by edge L only. A span is cut into segments of 8, 4 or
// 2 pixels: the perspective division happens at segment ends through the span reciprocal
// table, and inside a segment the texel coordinate is stepped linearly in a packed register.
// The last pixels of a span (the tail) get their own reciprocal each and clamp instead of
// wrapping. On x86-64 processors with AVX2 a segment's pixels are computed 8 at a time by
// a vector kernel that draws exactly what the portable one draws.
//
// Accumulators that are stepped many times are unsigned so that extreme (but harmless)
// inputs wrap like the 32-bit registers they model instead of overflowing.
#include "n3d_rasterizers.h"

#include <cmath>
#include <cstring>

#include "diag.h"

#if defined(__x86_64__) || defined(__i386__)
#define RASTER_X86 1
#include <immintrin.h>
// vector kernels are compiled for AVX2 whatever the build's baseline and chosen at run time
#define RASTER_AVX2 __attribute__((target("avx2")))
#define RASTER_AVX512 __attribute__((target("avx2,avx512f,avx512bw,avx512vl,avx512vbmi")))
#else
#define RASTER_X86 0
#endif
// the vector kernels' small helpers: a call would pass their vector arguments through memory
#define RASTER_INLINE inline __attribute__((always_inline))

int32_t n3d_floor_div(int32_t a, int32_t b)
{
    if (b == 0)
        crash_in("src/n3d_rasterizers", __LINE__, "n3d_floor_div", "A oh dear!\n");
    const int64_t q = (int64_t)a / b;
    const int64_t r = (int64_t)a % b;
    return (int32_t)((r != 0 && ((r < 0) != (b < 0))) ? q - 1 : q);
}

int32_t n3d_floor_mod(int32_t a, int32_t b)
{
    if (b == 0)
        crash_in("src/n3d_rasterizers", __LINE__, "n3d_floor_mod", "B oh dear!\n");
    const int64_t r = (int64_t)a % b;
    return (int32_t)((r != 0 && ((r < 0) != (b < 0))) ? r + b : r);
}

float n3d_reciprocal_lut(float x)
{
    if (!(x >= 0.0f && x < (float)N3D_RECIPROCAL_LUT_SIZE))
        crash_in("src/n3d_rasterizers", __LINE__, "n3d_reciprocal_lut", "n3d_reciprocal_lut: x is %f must be >= 0 and < %d\n",
                 (double)x, (int)N3D_RECIPROCAL_LUT_SIZE);
    const uint32_t i = (uint32_t)x;
    const float f = x - (float)i;
    const float a = n3d_reciprocal_table[i];
    const float b = n3d_reciprocal_table[i + 1 < N3D_RECIPROCAL_LUT_SIZE ? i + 1 : i];
    return a + (b - a) * f;
}

namespace {

// Features of one instantiation (not the registry flags: the mipconst variant carries the
// affine registry bit but divides by depth like the others).
enum : uint32_t {
    RF_AFFINE = 1,
    RF_T8 = 2,  // 8-bit texels (through the palette, or the shade table with phong)
    RF_PHONG = 4,
    RF_COV_READ = 8,
    RF_COV_WRITE = 16,
    RF_DEPTH = 32,
    RF_LARGE_SPANS = 64,
    RF_MIPCONST = 128,
};

// Round half away from zero to a 32-bit integer; out-of-range values saturate (they only
// arise from degenerate input, never from a triangle the draw functions produce).
inline int32_t raster_fixed(double x)
{
    if (!(x > -2147483648.0))
        return x != x ? 0 : INT32_MIN;
    if (!(x < 2147483647.0))
        return INT32_MAX;
    return (int32_t)std::trunc(x + std::copysign(0.5, x));
}

inline int32_t raster_s32(uint32_t v) { return (int32_t)v; }

// The phong table has guards from index -8 to 263; indices are clamped into them.
constexpr int32_t RASTER_PHONG_GUARD_LOW = -8;
constexpr int32_t RASTER_PHONG_GUARD_HIGH = 263;

// u wraps at 256 texels of 16ths inside a segment: 12 bits
constexpr int32_t RASTER_U_WRAP_BITS = 12;
constexpr uint32_t RASTER_U_WRAP_MASK = (1u << RASTER_U_WRAP_BITS) - 1;

// Reciprocal of a scaled iw through the span table, linearly interpolated.
inline int32_t raster_reciprocal(uint32_t iw)
{
    int32_t index = raster_s32(iw) >> N3D_IW_LUT_SHIFT;
    // iw never leaves [3, 30] << 14 for a triangle that passed the depth-range rule; the
    // clamp only keeps degenerate input inside the table
    index = index < 0 ? 0 : (index > N3D_FIXED_IIW_LUT_SIZE - 2 ? N3D_FIXED_IIW_LUT_SIZE - 2 : index);
    const int32_t f = raster_s32(iw) & 0x3FFF;
    const int32_t t0 = n3d_fixed_iiw_lut[index];
    const int32_t t1 = n3d_fixed_iiw_lut[index + 1];
    return t0 + (((t1 - t0) * f) >> N3D_IW_LUT_SHIFT);
}

inline int32_t raster_texel(uint32_t a, int32_t r)
{
    return (raster_s32(a * (uint32_t)r) >> N3D_UV_PRODUCT_SHIFT) + N3D_TEXEL_BIAS;
}

inline int32_t raster_rsqr(int32_t r) { return (int32_t)(((uint32_t)r * (uint32_t)(r >> 5)) >> 13); }

// x / 2^k truncating toward zero, as the signed division it replaces (no divide per segment)
inline int32_t raster_div_pow2(int32_t x, uint32_t k)
{
    const int32_t bias = (int32_t)((uint32_t)(x >> 31) >> (32 - k));  // 2^k - 1 for negative x
    return (x + bias) >> k;
}

inline int32_t raster_clamp(int32_t v, int32_t hi) { return v < 0 ? 0 : (v > hi ? hi : v); }

inline uint32_t raster_log2_floor(uint32_t v) { return v ? 31u - (uint32_t)__builtin_clz(v) : 0u; }

struct raster_vertex {
    int32_t x, y;  // 24.8
    float fy;      // as given, for the first-row rule
    int32_t iw, u, v, z;
    float p0, p1;  // p * iw, for the phong polynomial
};

struct raster_edge {
    int32_t x;  // first covered column of the current row
    int32_t error;
    int32_t step;
    int32_t error_step;
    int32_t dy;
};

// Attributes carried by edge L, at its current column.
struct raster_attrs {
    uint32_t iw, u, v, z;
    uint32_t q, dq, da, db;  // phong: Q, per-pixel difference, row differences of moves A, B
};

// Screen-space derivatives in fixed point, and the phong polynomial's constants.
struct raster_grads {
    int32_t iw_x, iw_y, u_x, u_y, v_x, v_y, z_x, z_y;
    int32_t qx, qy;  // at the start vertex of edge L (phong)
    int32_t qxx, qxy, qyy;
    // per-row increments of edge L for a move by step columns (A) and by step + 1 (B)
    uint32_t iw_a, u_a, v_a, z_a;
    uint32_t haa, hab, hbb, dq_a, dq_b;
};

// Per-triangle values of the vector kernel, each repeated in 8 lanes so that a use is one load.
constexpr uint32_t RASTER_LANES = 8;
// The phong table as 32-bit words (clamped index, AND 31) over every index the kernel looks
// up: the product's top byte [-128, 127] for large spans, [-8, 263] for the others.
constexpr int32_t RASTER_PHONG_WORDS_LOW = -128;
constexpr int32_t RASTER_PHONG_WORDS = RASTER_PHONG_GUARD_HIGH + 1 - RASTER_PHONG_WORDS_LOW;
struct raster_lane_constants {
    // the texel index mask split by source field: u bits 0-5 (index bits 2-7), u bits 6-7
    // (14-15), v bits 2-7 (8-13); v bits 0-1 (0-1) pick the texel inside a 32-bit word
    alignas(32) int32_t mask_u_low[RASTER_LANES];
    alignas(32) int32_t mask_u_high[RASTER_LANES];
    alignas(32) int32_t mask_v_high[RASTER_LANES];
    alignas(32) int32_t mask_v_low[RASTER_LANES];
    alignas(32) int32_t texel_shift[RASTER_LANES];  // 8-bit: of v >> 1; 16-bit: of v (bit 4, times 16)
    alignas(32) int32_t texel_word_bit[RASTER_LANES];  // 16-bit: of v >> 4 (bit 5 is in the word index)
    alignas(32) int32_t q_step[RASTER_LANES];   // phong: what Q and dQ of a lane gain over 8 pixels
    alignas(32) int32_t dq_step[RASTER_LANES];
    alignas(32) int32_t lane_qxx[RASTER_LANES];   // phong: i Qxx and i (i - 1) / 2 Qxx in lane i
    alignas(32) int32_t pairs_qxx[RASTER_LANES];
    alignas(16) int16_t z_step[RASTER_LANES];   // depth gained over 8 pixels
    alignas(32) int32_t phong[RASTER_PHONG_WORDS];
    alignas(64) uint8_t phong_bytes[256];  // AVX-512, large spans: word k at byte k AND 255
};

// Everything a span needs that does not change along the triangle.
struct raster_span_ctx {
    const uint8_t* tex8;
    const uint16_t* tex16;
    const uint16_t* palette;      // 8-bit variants without phong
    const uint16_t* shade_table;  // 8-bit phong variants: colour * 32 + shade
    const uint8_t* phong;         // the phong table (guards at -8 and 256)
    uint32_t index_mask;          // keeps texel indices inside the level (a no-op at 256 x 256)
    int32_t u_max, v_max;         // tail clamps: (size - 1) * 16
    int32_t qxx;
    int32_t iw_x, u_x, v_x, z_x;
    raster_lane_constants lanes;  // filled only when the vector kernel draws the triangle
};

inline int32_t raster_phong_index_clamp(int32_t index)
{
    // the table's guards cover an overshoot of 8 on either side; anything further only comes
    // from degenerate input and is kept inside them
    return index < RASTER_PHONG_GUARD_LOW ? RASTER_PHONG_GUARD_LOW
                                          : (index > RASTER_PHONG_GUARD_HIGH ? RASTER_PHONG_GUARD_HIGH : index);
}

template <uint32_t F>
inline uint16_t raster_shade(const raster_span_ctx& s, uint32_t index, int32_t phong_index)
{
    index &= s.index_mask;
    if constexpr (F & RF_PHONG) {
        const uint32_t b = s.phong[raster_phong_index_clamp(phong_index)];
        if constexpr (F & RF_T8) {
            return s.shade_table[rotate_and_insert(b, s.tex8[index], 5, 19, 26) & 0x1FFF];
        } else {
            const uint32_t t = s.tex16[index];
            // channels spread 10 bits apart so one multiply scales all three
            uint32_t spread = rotate_and_insert(t & 31, t, 5, 17, 21);  // green to bits 10-14
            spread = rotate_and_insert(spread, t, 10, 7, 11);           // red to bits 20-24
            const uint32_t p = spread * (b & 31);
            return (uint16_t)(0x8000 | ((p >> 5) & 31) | (((p >> 15) & 31) << 5) | (((p >> 25) & 31) << 10));
        }
    } else {
        (void)phong_index;
        if constexpr (F & RF_T8)
            return s.palette[s.tex8[index]];
        else
            return s.tex16[index];
    }
}

inline bool raster_covered(const uint32_t* row, int32_t x) { return (row[x >> 5] << (x & 31)) & 0x80000000u; }

// The coverage words of columns xl to xr - 1: the first and last word, and the bits of the
// columns in each (the words between are whole).
struct raster_coverage_words {
    int32_t first, last;
    uint32_t head, tail;
};

inline raster_coverage_words raster_coverage_words_of(int32_t xl, int32_t xr)
{
    return {xl >> 5, (xr - 1) >> 5, 0xFFFFFFFFu >> (xl & 31), 0xFFFFFFFFu << (31 - ((xr - 1) & 31))};
}

inline void raster_coverage_write(uint32_t* row, int32_t xl, int32_t xr)
{
    const raster_coverage_words w = raster_coverage_words_of(xl, xr);
    if (w.first == w.last) {
        row[w.first] |= w.head & w.tail;
        return;
    }
    row[w.first] |= w.head;
    for (int32_t i = w.first + 1; i < w.last; i++) {
        row[i] = 0xFFFFFFFFu;
        __asm__("" : "+r"(i));  // one or two words: a store each, not a call to memset
    }
    row[w.last] |= w.tail;
}

// Whether columns xl to xr - 1 of a coverage row are all covered (the span draws nothing).
inline bool raster_coverage_full(const uint32_t* row, int32_t xl, int32_t xr)
{
    raster_coverage_words w = raster_coverage_words_of(xl, xr);
    if (w.first == w.last)
        w.head &= w.tail;
    else if ((row[w.last] & w.tail) != w.tail)
        return false;
    if ((row[w.first] & w.head) != w.head)
        return false;
    for (int32_t i = w.first + 1; i < w.last; i++) {
        if (row[i] != 0xFFFFFFFFu)
            return false;
    }
    return true;
}

// Zeroes the depth blocks first to last (block numbers in the row) that were not yet touched
// this frame, and marks them.
__attribute__((noinline)) void raster_depth_blocks_zero(const n3d_zbuffer* zb, uint32_t* block_row, int32_t row,
                                                        uint32_t first, uint32_t last)
{
    for (uint32_t w = first >> 5; w <= last >> 5; w++) {
        const uint32_t from = w == first >> 5 ? first & 31 : 0;
        const uint32_t to = w == last >> 5 ? last & 31 : 31;
        const uint32_t range = (0xFFFFFFFFu >> from) & (0xFFFFFFFFu << (31 - to));
        for (uint32_t missing = range & ~block_row[w]; missing;) {
            // a run of missing blocks at a time (after a clear, every block of the span), zeroed
            // in place: a call per block cost more than the stores
            const uint32_t b = (uint32_t)__builtin_clz(missing);
            const uint32_t run = (uint32_t)__builtin_clzll(~((uint64_t)(missing << b) << 32));
            missing &= ~(0xFFFFFFFFu >> b) | (uint32_t)((0xFFFFFFFFull >> b) >> run);
            // the 32-byte block holding the first one's values, as zero_block32 finds it
            const uintptr_t at = (uintptr_t)(zb->values + (uint64_t)row * zb->width + (w * 32 + b) * 16);
            auto* block = (uint8_t*)(at & ~(uintptr_t)31);
            for (uint32_t k = 0; k < run; k++)
                memset(block + k * 32, 0, 32);
        }
        block_row[w] |= range;
    }
}

// Validates the depth blocks a span touches (16 pixels a block; block_row holds the row's
// bits): a block not yet touched this frame is zeroed. Inline only the usual case: the span's
// blocks are in one word and valid.
inline void raster_depth_blocks(const n3d_zbuffer* zb, uint32_t* block_row, int32_t row, int32_t xl, int32_t xr)
{
    const uint32_t first = (uint32_t)xl >> 4;
    const uint32_t last = (uint32_t)(xr - 1) >> 4;
    const uint32_t range = (0xFFFFFFFFu >> (first & 31)) & (0xFFFFFFFFu << (31 - (last & 31)));
    if ((first >> 5) == (last >> 5) && !(range & ~block_row[first >> 5]))
        return;
    raster_depth_blocks_zero(zb, block_row, row, first, last);
}

// Writes one pixel under the variant's coverage and depth rules.
template <uint32_t F>
inline void raster_put(uint16_t* dst, const uint32_t* cov, uint16_t* zrow, int32_t x, uint16_t pixel, uint32_t z)
{
    if constexpr (F & RF_COV_READ) {
        if (raster_covered(cov, x))
            return;
    }
    if constexpr (F & RF_DEPTH) {
        if ((uint16_t)z <= zrow[x])
            return;
        zrow[x] = (uint16_t)z;
    }
    dst[x] = pixel;
}

// The span kernels in use: set by n3d_raster_use_kernels, read once per triangle.
n3d_raster_kernels raster_kernels_in_use = N3D_RASTER_KERNELS_PORTABLE;

// One row's span: columns xl to xr - 1, with the attributes of edge L at xl.
struct raster_span_job {
    uint16_t* dst;   // the row's pixels
    uint32_t* cov;   // its coverage words, or null
    uint16_t* zrow;  // its depth values (depth variants)
    int32_t xl, xr;
    raster_attrs a;
};

// What the vector kernel prepares of a span before drawing it (defined with the kernel).
struct raster_span_plans;

// Draws `job`. `next` is the span drawn by the following call (or null): the vector kernel
// prepares it first, so that its long chain of multiplies and look-ups overlaps this span's
// pixel work instead of stalling the next call.
using raster_span_fn = void(const raster_span_ctx& s, const raster_span_job& job, const raster_span_job* next,
                            raster_span_plans* plans);

// Texel coordinates at a pixel with the attributes iw, U, V there; r is the reciprocal used
// (0 for the affine variant, which divides by nothing).
template <uint32_t F>
inline void raster_texel_coords(uint32_t iw, uint32_t ua, uint32_t va, int32_t* u, int32_t* v, int32_t* r)
{
    if constexpr (F & RF_AFFINE) {
        (void)iw;
        *r = 0;
        *u = (raster_s32(ua) >> N3D_AFFINE_SHIFT) + N3D_TEXEL_BIAS;
        *v = (raster_s32(va) >> N3D_AFFINE_SHIFT) + N3D_TEXEL_BIAS;
    } else {
        *r = raster_reciprocal(iw);
        *u = raster_texel(ua, *r);
        *v = raster_texel(va, *r);
    }
}

// Lighting carried into a span's tail by the large-spans variant once a segment ran: the
// product's cubic continues, which is Q times the last segment's squared reciprocal
// extrapolated linearly (P = Q r2 holds exactly in wrapping 32-bit arithmetic).
struct raster_carried_light {
    uint32_t r2, dr2;
};

// The last pixels of a span, one at a time: each gets its own reciprocal and clamps its
// coordinates instead of wrapping. `a` holds the attributes at pixel x.
template <uint32_t F>
inline void raster_tail(const raster_span_ctx& s, uint16_t* dst, const uint32_t* cov, uint16_t* zrow, int32_t x,
                        int32_t count, raster_attrs a, const raster_carried_light* carried)
{
    uint32_t r2 = carried ? carried->r2 : 0;
    for (int32_t i = 0; i < count; i++, x++) {
        int32_t u, v, rt;
        raster_texel_coords<F>(a.iw, a.u, a.v, &u, &v, &rt);
        u = raster_clamp(u, s.u_max);
        v = raster_clamp(v, s.v_max);
        int32_t pi = 0;
        if constexpr (F & RF_PHONG) {
            if ((F & RF_LARGE_SPANS) && carried) {
                pi = raster_s32(a.q * r2) >> N3D_PHONG_PRODUCT_SHIFT;
                r2 += carried->dr2;
            } else {
                pi = raster_s32((uint32_t)(raster_s32(a.q) >> N3D_PHONG_Q_SHIFT) * (uint32_t)raster_rsqr(rt)) >>
                     N3D_PHONG_INDEX_SHIFT;
            }
            a.q += a.dq, a.dq += (uint32_t)s.qxx;
        }
        raster_put<F>(dst, cov, zrow, x, raster_shade<F>(s, n3d_packed_index8(n3d_pack_uv((uint32_t)u, (uint32_t)v)), pi),
                      a.z);
        a.iw += (uint32_t)s.iw_x, a.u += (uint32_t)s.u_x, a.v += (uint32_t)s.v_x;
        if constexpr (F & RF_DEPTH)
            a.z += (uint32_t)s.z_x;
    }
}

// Segment lengths of a span of m + 1 pixels: 8 while at least 8 remain beyond the first, then
// 4, then 2; spans of fewer than 5 pixels have none.
inline uint32_t raster_segment_log2(int32_t m) { return m >= 8 ? 3 : (m >= 4 ? 2 : 1); }

// One span, columns xl to xr - 1 of one row, with the attributes of edge L at xl: the portable
// kernel, a pixel pair at a time. A call of its own from the row walk: inlined there it ran about
// 1.5 % slower (the walk's values spill around its loop).
template <uint32_t F>
__attribute__((noinline)) void raster_span_portable(const raster_span_ctx& s, const raster_span_job& job,
                                                    const raster_span_job* next, raster_span_plans* plans)
{
    (void)next, (void)plans;
    uint16_t* dst = job.dst;
    const uint32_t* cov = job.cov;
    uint16_t* zrow = job.zrow;
    raster_attrs a = job.a;
    int32_t x = job.xl;
    int32_t m = job.xr - job.xl - 1;
    if (m < 4) {
        raster_tail<F>(s, dst, cov, zrow, x, m + 1, a, nullptr);
        return;
    }
    int32_t u0, v0, r;
    raster_texel_coords<F>(a.iw, a.u, a.v, &u0, &v0, &r);
    raster_carried_light carried = {};
    while (m >= 2) {
        const uint32_t k = raster_segment_log2(m);
        const int32_t n = 1 << k;
        m -= n;
        a.iw += (uint32_t)s.iw_x << k;
        a.u += (uint32_t)s.u_x << k;
        a.v += (uint32_t)s.v_x << k;
        int32_t u1, v1, r1;
        raster_texel_coords<F>(a.iw, a.u, a.v, &u1, &v1, &r1);
        const int32_t du = raster_div_pow2(u1 - u0, k);
        const int32_t dv = raster_div_pow2(v1 - v0, k);
        uint32_t w = n3d_pack_uv((uint32_t)u0, (uint32_t)v0);
        const uint32_t wstep = n3d_pack_uv_step((uint32_t)du, (uint32_t)dv);

        // lighting across the segment: squared reciprocal stepped linearly, or the product
        // itself as a cubic (large spans)
        uint32_t r2 = 0, dr2 = 0;
        uint32_t P = 0, D1 = 0, D2 = 0, D3 = 0;
        if constexpr (F & RF_PHONG) {
            const int32_t r2_0 = raster_rsqr(r);
            const int32_t d = raster_div_pow2(raster_rsqr(r1) - r2_0, k);
            r2 = (uint32_t)r2_0;
            dr2 = (uint32_t)d;
            if constexpr (F & RF_LARGE_SPANS) {
                const uint32_t qxx = (uint32_t)s.qxx;
                P = a.q * r2;
                D1 = a.q * dr2 + a.dq * (r2 + dr2);
                D2 = qxx * r2 + 2u * dr2 * (a.dq + qxx);
                D3 = 3u * qxx * dr2;
                carried = {r2 + (uint32_t)n * dr2, dr2};
            }
        }
        for (int32_t i = 0; i < n; i += 2) {
            int32_t pi0 = 0, pi1 = 0;
            if constexpr (F & RF_LARGE_SPANS) {
                pi0 = raster_s32(P) >> N3D_PHONG_PRODUCT_SHIFT;
                P += D1, D1 += D2, D2 += D3;
                pi1 = raster_s32(P) >> N3D_PHONG_PRODUCT_SHIFT;
                P += D1, D1 += D2, D2 += D3;
            } else if constexpr (F & RF_PHONG) {
                pi0 = raster_s32((uint32_t)(raster_s32(a.q) >> N3D_PHONG_Q_SHIFT) * r2) >> N3D_PHONG_INDEX_SHIFT;
                a.q += a.dq, a.dq += (uint32_t)s.qxx, r2 += dr2;
                pi1 = raster_s32((uint32_t)(raster_s32(a.q) >> N3D_PHONG_Q_SHIFT) * r2) >> N3D_PHONG_INDEX_SHIFT;
                a.q += a.dq, a.dq += (uint32_t)s.qxx, r2 += dr2;
            }
            const uint16_t p0 = raster_shade<F>(s, n3d_packed_index8(w), pi0);
            w = (w + wstep) & ~N3D_PACKED_GAP_MASK;
            const uint16_t p1 = raster_shade<F>(s, n3d_packed_index8(w), pi1);
            w = (w + wstep) & ~N3D_PACKED_GAP_MASK;
            if constexpr (F & (RF_COV_READ | RF_DEPTH)) {
                raster_put<F>(dst, cov, zrow, x + i, p0, a.z);
                if constexpr (F & RF_DEPTH)
                    a.z += (uint32_t)s.z_x;
                raster_put<F>(dst, cov, zrow, x + i + 1, p1, a.z);
                if constexpr (F & RF_DEPTH)
                    a.z += (uint32_t)s.z_x;
            } else {
                const uint32_t pair = (uint32_t)p0 | (uint32_t)p1 << 16;  // first pixel low
                memcpy(dst + x + i, &pair, 4);
            }
        }
        if constexpr (F & RF_LARGE_SPANS) {
            // Q follows the segment in closed form; the cubic stepped the product instead
            const uint32_t qxx = (uint32_t)s.qxx;
            a.q += (uint32_t)n * a.dq + qxx * (uint32_t)((n - 1) * n / 2);
            a.dq += (uint32_t)n * qxx;
        }
        x += n;
        u0 = u1, v0 = v1, r = r1;
    }
    raster_tail<F>(s, dst, cov, zrow, x, m + 1, a, (F & RF_LARGE_SPANS) ? &carried : nullptr);
}

// the vector kernels, in a file of their own (x86-64, chosen at run time): the records they
// share, then (after the row walk, which every set instantiates) the AVX2 and the AVX-512
// sets, each in a namespace of its own
#include "n3d_rasterizers_avx2.h"

// Returns all ones when the edge's error wrapped (the row moved by step + 1 columns), else
// 0. Without a branch: whether it wraps follows the slope, which no predictor guesses well.
inline uint32_t raster_edge_next(raster_edge* e)
{
    const int32_t error = e->error + e->error_step;
    const uint32_t wrapped = -(uint32_t)(error >= e->dy);
    e->x += e->step + (int32_t)(wrapped & 1);
    e->error = error - (e->dy & (int32_t)wrapped);
    return wrapped;
}

// One half of a triangle: its rows, and what the next half carries on from this one (edges,
// edge L's attributes).
struct raster_rows {
    const raster_span_ctx* sc;
    const raster_grads* g;
    const n3d_zbuffer* zb;
    raster_edge el, er;
    raster_attrs at;
    uint16_t* dst_row;    // the pixels of row y
    uint32_t* cov_row;    // its coverage words, or null
    uint16_t* zrow;       // depth variants: its depth values
    uint32_t* block_row;  // and its depth-block bits
    int64_t row_bytes;
    uint32_t cov_words, z_width, block_words;
    int32_t y, y_end;  // rows y to y_end - 1
    int32_t fb_w;
};

// Draws the spans of a half's rows and returns how many it drew. Each span is drawn once the
// next one is known, so that the kernel can prepare it. Instantiated per kernel set inside a
// function compiled for that set, so that the span function is inlined into its one call.
template <uint32_t F, raster_span_fn* Span>
RASTER_INLINE uint32_t raster_walk_rows(raster_rows* w)
{
    const raster_span_ctx& sc = *w->sc;
    const raster_grads& g = *w->g;
    raster_edge el = w->el;
    raster_edge er = w->er;
    raster_attrs at = w->at;
    uint16_t* dst_row = w->dst_row;
    uint32_t* cov_row = w->cov_row;
    uint16_t* zrow = w->zrow;
    uint32_t* block_row = w->block_row;
    const int32_t fb_w = w->fb_w;
    raster_span_plans plans;
    plans.ready = -1;
    raster_span_job pending;
    bool have_pending = false;
    uint32_t spans_drawn = 0;
    // one pass past the last row draws the last span: one call of the span function in all
    for (int32_t y = w->y;; y++) {
        const bool past = y >= w->y_end;
        int32_t xl = el.x;
        int32_t xr = er.x;
        raster_attrs sa = at;
        if (!past && (xl < 0 || xr > fb_w)) {
            // never for triangles the draw functions clip; keeps other input inside
            if (xl < 0) {
                const uint32_t skip = (uint32_t)-xl;
                sa.iw += skip * (uint32_t)g.iw_x;
                sa.u += skip * (uint32_t)g.u_x;
                sa.v += skip * (uint32_t)g.v_x;
                sa.z += skip * (uint32_t)g.z_x;
                xl = 0;
            }
            xr = xr > fb_w ? fb_w : xr;
        }
        const bool found = !past && xl < xr;
        if (found || past) {
            if constexpr (F & RF_DEPTH) {
                if (found)
                    raster_depth_blocks(w->zb, block_row, y, xl, xr);  // before the row is drawn, after the last
            }
            const raster_span_job job = {dst_row, cov_row, zrow, xl, xr, sa};
            if (have_pending) {
                Span(sc, pending, found ? &job : nullptr, &plans);
                if constexpr (F & RF_COV_WRITE)
                    raster_coverage_write(pending.cov, pending.xl, pending.xr);
                spans_drawn++;
            }
            if (past)
                break;
            pending = job;
            have_pending = true;
        }
        // next row: both edges step; edge L's attributes follow its move
        raster_edge_next(&er);
        const uint32_t b = raster_edge_next(&el);  // all ones: move B, else move A
        at.iw += g.iw_a + (b & (uint32_t)g.iw_x);
        at.u += g.u_a + (b & (uint32_t)g.u_x);
        at.v += g.v_a + (b & (uint32_t)g.v_x);
        at.z += g.z_a + (b & (uint32_t)g.z_x);
        if constexpr (F & RF_PHONG) {
            at.q += (at.db & b) | (at.da & ~b);
            at.da += (g.hab & b) | (g.haa & ~b);
            at.db += (g.hbb & b) | (g.hab & ~b);
            at.dq += (g.dq_b & b) | (g.dq_a & ~b);
        }
        dst_row = (uint16_t*)((uint8_t*)dst_row + w->row_bytes);
        if (cov_row)
            cov_row += w->cov_words;
        if constexpr (F & RF_DEPTH) {
            zrow += w->z_width;
            block_row += w->block_words;
        }
    }
    w->el = el;
    w->er = er;
    w->at = at;
    return spans_drawn;
}

using raster_rows_fn = uint32_t(raster_rows* w);

template <uint32_t F>
uint32_t raster_rows_portable(raster_rows* w)
{
    return raster_walk_rows<F, raster_span_portable<F>>(w);
}

#if RASTER_X86
#define RASTER_VEC RASTER_AVX2
#define RASTER_VEC_512 0
namespace vec_avx2 {
#include "n3d_rasterizers_avx2.h"
}  // namespace vec_avx2
#undef RASTER_VEC
#undef RASTER_VEC_512
#pragma GCC diagnostic push  // GCC 12's AVX-512 headers seed some intrinsics with undefined registers
#pragma GCC diagnostic ignored "-Wuninitialized"
#ifndef __clang__  // a warning only GCC has
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#define RASTER_VEC RASTER_AVX512
#define RASTER_VEC_512 1
namespace vec_avx512 {
#include "n3d_rasterizers_avx2.h"
}  // namespace vec_avx512
#undef RASTER_VEC
#undef RASTER_VEC_512
#pragma GCC diagnostic pop
#endif

inline void raster_block_end(n3d_rasterizer_block* block, uint64_t now)
{
    block->cycles += now - block->start;
    block->hits += 1;
}

// Sets up an edge from vertex a to vertex b at the row whose 24.8 position is y0.
inline void raster_edge_setup(raster_edge* e, const raster_vertex& a, float ax, float ay, float bx, float by,
                              int32_t y0)
{
    const int32_t dx = raster_fixed((double)((bx - ax) * (float)N3D_EDGE_DELTA_SCALE));
    const int32_t dy = raster_fixed((double)((by - ay) * (float)N3D_EDGE_DELTA_SCALE));
    const int64_t ix = a.x / 256;
    const int64_t fx = a.x - 256 * ix;
    const int64_t iy = (int64_t)(y0 - a.y) >> 8;
    const int64_t fy = (int64_t)(y0 - a.y) & 255;
    // the edge's x at row y0 times dy, less one: a pixel centre exactly on the edge is inside
    int64_t n = (int64_t)dx * iy + ix * dy + (((int64_t)dx * fy + fx * dy) >> 8) - 1;
    n = n < INT32_MIN ? INT32_MIN : (n > INT32_MAX ? INT32_MAX : n);
    e->dy = dy;
    e->x = n3d_floor_div((int32_t)n, dy) + 1;
    e->error = n3d_floor_mod((int32_t)n, dy);
    e->step = n3d_floor_div(dx, dy);
    e->error_step = n3d_floor_mod(dx, dy);
}

// Linear attribute at an offset (24.8 in both axes) from its vertex.
inline uint32_t raster_attr_at(int32_t value, int32_t ax, int32_t ay, int64_t ox, int64_t fox, int64_t oy, int64_t foy)
{
    const int64_t a = (int64_t)value + ((fox * ax + foy * ay) >> 8) + ox * ax + oy * ay;
    return (uint32_t)a;
}

template <uint32_t F>
int n3d_raster_triangle(n3d_raster_call* c)
{
    n3d_rasterizer_entry* entry = c->entry;
    entry->blocks[N3D_RASTERIZER_BLOCK_SETUP].start = prof_cycles_now();

    const n3d_framebuffer* fb = c->fc->framebuffer;
    const n3d_texture* tex = c->textures[0];

    // level: the full-size one, or for mipconst one reduced level for the whole triangle
    const float (*vf)[7] = c->vertices;
    float min_iw = vf[0][2], max_iw = vf[0][2];
    for (int i = 1; i < 3; i++) {
        min_iw = vf[i][2] < min_iw ? vf[i][2] : min_iw;
        max_iw = vf[i][2] > max_iw ? vf[i][2] : max_iw;
    }
    (void)max_iw;
    float s = 0.0f;
    if constexpr (!(F & RF_AFFINE)) {
        s = (float)N3D_IW_NEAREST * c->depth_norm;
        s = s > N3D_IW_S_MAX ? N3D_IW_S_MAX : s;
        // table entries below 3 are not usable: a triangle that deep is not drawn
        if ((raster_fixed((double)(min_iw * (float)N3D_IW_SCALE * s)) >> N3D_IW_LUT_SHIFT) < 3) {
            raster_block_end(&entry->blocks[N3D_RASTERIZER_BLOCK_SETUP], prof_cycles_now());
            return 0;
        }
    }

    uint32_t log2_w = tex->log2_w, log2_h = tex->log2_h;
    const void* level = tex->mips[0];
    const uint32_t iw_index = (F & RF_PHONG) ? 4 : 2;  // iw's place in the gradient arrays
    if constexpr (F & RF_MIPCONST) {
        uint32_t lu = 0, lv = 0;
        const float scale_u = (float)((1u << log2_w) - 1) * 2.0f * s;
        const float scale_v = (float)((1u << log2_h) - 1) * 2.0f * s;
        const int32_t gu = raster_fixed((double)(c->grad_x[0] * scale_u)) >> N3D_UV_PRODUCT_SHIFT;
        const int32_t gv = raster_fixed((double)(c->grad_x[1] * scale_v)) >> N3D_UV_PRODUCT_SHIFT;
        lu = raster_log2_floor((uint32_t)(gu < 0 ? -(int64_t)gu : gu) >> 4);
        lv = raster_log2_floor((uint32_t)(gv < 0 ? -(int64_t)gv : gv) >> 4);
        const uint32_t max_u = log2_w >= 2 ? log2_w - 2 : 0;
        const uint32_t max_v = log2_h >= 2 ? log2_h - 2 : 0;
        lu = lu > max_u ? max_u : lu;
        lv = lv > max_v ? max_v : lv;
        // the level exists only if the chain reaches it; otherwise stay at the smallest made
        const uint32_t chain_u = tex->log2_w - tex->min_log2_w;
        const uint32_t chain_v = tex->log2_h - tex->min_log2_h;
        lu = lu > chain_u ? chain_u : lu;
        lv = lv > chain_v ? chain_v : lv;
        level = tex->mips[lu + (lv << N3D_MIP_SLOT_H_SHIFT)];
        log2_w -= lu;
        log2_h -= lv;
    }
    const int32_t size_u = 1 << log2_w;
    const int32_t size_v = 1 << log2_h;

    raster_span_ctx sc;
    sc.tex8 = (const uint8_t*)level;
    sc.tex16 = (const uint16_t*)level;
    sc.palette = (const uint16_t*)tex->palette;
    sc.shade_table = (const uint16_t*)tex->shade_table;
    sc.phong = (F & RF_PHONG) ? *c->phong : nullptr;
    sc.index_mask = n3d_swizzle((uint32_t)size_u - 1, (uint32_t)size_v - 1);
    sc.u_max = (size_u - 1) << N3D_TEXEL_FRACTION_BITS;
    sc.v_max = (size_v - 1) << N3D_TEXEL_FRACTION_BITS;

    // scales from float to fixed point
    const float iw_scale = (float)N3D_IW_SCALE * s;
    float u_scale, v_scale;
    if constexpr (F & RF_AFFINE) {
        u_scale = (float)(size_u - 1) * (float)N3D_AFFINE_SCALE;
        v_scale = (float)(size_v - 1) * (float)N3D_AFFINE_SCALE;
    } else {
        u_scale = (float)(size_u - 1) * 2.0f * s;
        v_scale = (float)(size_v - 1) * 2.0f * s;
    }

    raster_vertex v[3];
    for (int i = 0; i < 3; i++) {
        v[i].x = raster_fixed((double)(vf[i][0] * 256.0f));
        v[i].y = raster_fixed((double)(vf[i][1] * 256.0f));
        v[i].fy = vf[i][1];
        v[i].iw = raster_fixed((double)(vf[i][2] * iw_scale));
        v[i].u = raster_fixed((double)(vf[i][3] * u_scale));
        v[i].v = raster_fixed((double)(vf[i][4] * v_scale));
        v[i].z = (F & RF_DEPTH) ? raster_fixed((double)(vf[i][2] * N3D_DEPTH_SCALE)) : 0;
        v[i].p0 = (F & RF_PHONG) ? vf[i][5] : 0.0f;
        v[i].p1 = (F & RF_PHONG) ? vf[i][6] : 0.0f;
    }
    raster_grads g;
    memset(&g, 0, sizeof(g));
    g.iw_x = raster_fixed((double)(c->grad_x[iw_index] * iw_scale));
    g.iw_y = raster_fixed((double)(c->grad_y[iw_index] * iw_scale));
    g.u_x = raster_fixed((double)(c->grad_x[0] * u_scale));
    g.u_y = raster_fixed((double)(c->grad_y[0] * u_scale));
    g.v_x = raster_fixed((double)(c->grad_x[1] * v_scale));
    g.v_y = raster_fixed((double)(c->grad_y[1] * v_scale));
    if constexpr (F & RF_DEPTH) {
        g.z_x = raster_fixed((double)(c->grad_x[iw_index] * N3D_DEPTH_SCALE));
        g.z_y = raster_fixed((double)(c->grad_y[iw_index] * N3D_DEPTH_SCALE));
    }
    float p0x = 0, p1x = 0, p0y = 0, p1y = 0, q_scale = 0;
    if constexpr (F & RF_PHONG) {
        p0x = c->grad_x[2], p1x = c->grad_x[3], p0y = c->grad_y[2], p1y = c->grad_y[3];
        q_scale = N3D_PHONG_Q_SCALE * s * s;
        g.qxx = raster_fixed((double)(2.0f * (p0x * p0x + p1x * p1x) * q_scale));
        g.qyy = raster_fixed((double)(2.0f * (p0y * p0y + p1y * p1y) * q_scale));
        g.qxy = raster_fixed((double)(2.0f * (p0x * p0y + p1x * p1y) * q_scale));
    }
    sc.qxx = g.qxx;
    sc.iw_x = g.iw_x, sc.u_x = g.u_x, sc.v_x = g.v_x, sc.z_x = g.z_x;

    // vertex order: top (smallest y, then smallest x), bottom (largest y, first found)
    int top = 0;
    for (int i = 1; i < 3; i++)
        if (vf[i][1] < vf[top][1] || (vf[i][1] == vf[top][1] && vf[i][0] < vf[top][0]))
            top = i;
    int bottom = 0;
    for (int i = 1; i < 3; i++)
        if (vf[i][1] > vf[bottom][1])
            bottom = i;
    const int second = (top + 1) % 3;
    const int third = (top + 2) % 3;
    const int middle = second != bottom ? second : third;

    // the vector kernel reads texels as aligned 32-bit words, which stay inside levels of at
    // least 4 x 4 texels (every level these variants address)
    raster_rows_fn* rows = raster_rows_portable<F>;
#if RASTER_X86
    if (raster_kernels_in_use >= N3D_RASTER_KERNELS_AVX512 && size_u >= 4 && size_v >= 4) {
        vec_avx512::raster_lane_setup_avx2<F>(&sc);
        rows = vec_avx512::raster_rows_avx2<F>;
    } else if (raster_kernels_in_use >= N3D_RASTER_KERNELS_AVX2 && size_u >= 4 && size_v >= 4) {
        vec_avx2::raster_lane_setup_avx2<F>(&sc);
        rows = vec_avx2::raster_rows_avx2<F>;
    }
#endif

    uint64_t now = prof_cycles_now();
    raster_block_end(&entry->blocks[N3D_RASTERIZER_BLOCK_SETUP], now);
    entry->blocks[N3D_RASTERIZER_BLOCK_INNER].start = now;

    const int32_t fb_w = fb->width;
    const int32_t fb_h = fb->height;
    const n3d_coverage_buffer* cov = c->fc->coverage[0];
    const n3d_zbuffer* zb = c->fc->zbuffer;
    const uint32_t cov_words = cov ? cov->width >> 5 : 0;
    const int64_t row_bytes = fb->row_bytes;

    // first row of an edge: ceil of the vertex y at 8 fraction bits; y <= 0 starts at row 0
    auto first_row = [](float y) -> int32_t {
        if (!(y > 0.0f))
            return 0;
        const double t = std::trunc((double)y * 256.0);
        const int64_t yi = t > 2147483000.0 ? 2147483000 : (int64_t)t;
        return (int32_t)((yi + 255) & ~(int64_t)255);
    };

    raster_rows w = {};
    w.sc = &sc;
    w.g = &g;
    w.zb = zb;
    w.row_bytes = row_bytes;
    w.cov_words = cov_words;
    w.z_width = zb ? zb->width : 0;
    w.block_words = zb ? zb->blocks.width >> 5 : 0;
    w.fb_w = fb_w;
    raster_edge& el = w.el;
    raster_attrs& at = w.at;
    int l_from = top, l_to = second;
    int r_from = top, r_to = third;
    bool l_ready = false, r_ready = false;

    for (int half = 0; half < 2; half++) {
        if (half == 1) {
            // the edge that ended at the middle vertex is replaced by middle to bottom
            if (l_to == middle) {
                l_from = middle, l_to = bottom, l_ready = false;
            } else {
                r_from = middle, r_to = bottom, r_ready = false;
            }
        }
        const int32_t y_top = first_row(half == 0 ? vf[top][1] : vf[middle][1]);
        int32_t y_end = first_row(half == 0 ? vf[middle][1] : vf[bottom][1]);
        const int32_t dy_l = raster_fixed((double)((vf[l_to][1] - vf[l_from][1]) * (float)N3D_EDGE_DELTA_SCALE));
        const int32_t dy_r = raster_fixed((double)((vf[r_to][1] - vf[r_from][1]) * (float)N3D_EDGE_DELTA_SCALE));
        if (dy_l == 0 || dy_r == 0 || y_top >= y_end)
            continue;
        const int32_t row_limit = fb_h << 8;  // rows below the framebuffer are never drawn
        y_end = y_end > row_limit ? row_limit : y_end;

        if (!r_ready)
            raster_edge_setup(&w.er, v[r_from], vf[r_from][0], vf[r_from][1], vf[r_to][0], vf[r_to][1], y_top);
        if (!l_ready) {
            raster_edge_setup(&el, v[l_from], vf[l_from][0], vf[l_from][1], vf[l_to][0], vf[l_to][1], y_top);
            const raster_vertex& a = v[l_from];
            const int64_t offx = (int64_t)el.x * 256 - a.x;
            const int64_t offy = (int64_t)y_top - a.y;
            const int64_t ox = offx >> 8, fox = offx & 255, oy = offy >> 8, foy = offy & 255;
            at.iw = raster_attr_at(a.iw, g.iw_x, g.iw_y, ox, fox, oy, foy);
            at.u = raster_attr_at(a.u, g.u_x, g.u_y, ox, fox, oy, foy);
            at.v = raster_attr_at(a.v, g.v_x, g.v_y, ox, fox, oy, foy);
            at.z = raster_attr_at(a.z, g.z_x, g.z_y, ox, fox, oy, foy);
            const int64_t st = el.step;
            g.iw_a = (uint32_t)(g.iw_x * st + g.iw_y);
            g.u_a = (uint32_t)(g.u_x * st + g.u_y);
            g.v_a = (uint32_t)(g.v_x * st + g.v_y);
            g.z_a = (uint32_t)(g.z_x * st + g.z_y);
            if constexpr (F & RF_PHONG) {
                // Q = P0^2 + P1^2 and its derivatives at the start vertex of edge L, carried to
                // the first pixel by the second-order expansion over the same offsets
                const float P0 = a.p0, P1 = a.p1;
                const int64_t q0 = raster_fixed((double)((P0 * P0 + P1 * P1) * q_scale));
                const int64_t qx0 = raster_fixed((double)(2.0f * (P0 * p0x + P1 * p1x) * q_scale));
                const int64_t qy0 = raster_fixed((double)(2.0f * (P0 * p0y + P1 * p1y) * q_scale));
                const int64_t qxx = g.qxx, qxy = g.qxy, qyy = g.qyy;
                const int64_t q = q0 + ox * qx0 + oy * qy0 + ((fox * qx0 + foy * qy0) >> 8) + qxx * ox * ox / 2 +
                                  qxy * ox * oy + qyy * oy * oy / 2 +
                                  ((qxx * ox * fox + qxy * (ox * foy + oy * fox) + qyy * oy * foy) >> 8) +
                                  ((qxx * fox * fox / 2 + qxy * fox * foy + qyy * foy * foy / 2) >> 16);
                const int64_t qx = qx0 + qxx * ox + qxy * oy + ((qxx * fox + qxy * foy) >> 8);
                const int64_t qy = qy0 + qxy * ox + qyy * oy + ((qxy * fox + qyy * foy) >> 8);
                const int64_t sb = st + 1;
                at.q = (uint32_t)q;
                at.dq = (uint32_t)(qx + qxx / 2);
                at.da = (uint32_t)(qx * st + qy + (qxx / 2) * st * st + qxy * st + qyy / 2);
                at.db = (uint32_t)(qx * sb + qy + (qxx / 2) * sb * sb + qxy * sb + qyy / 2);
                g.haa = (uint32_t)(qxx * st * st + 2 * qxy * st + qyy);
                g.hab = (uint32_t)(qxx * st * sb + qxy * (2 * st + 1) + qyy);
                g.hbb = (uint32_t)(qxx * sb * sb + 2 * qxy * sb + qyy);
                g.dq_a = (uint32_t)(qxx * st + qxy);
                g.dq_b = (uint32_t)(qxx * sb + qxy);
            }
        }
        l_ready = r_ready = true;

        // no counter read per span (it cost about a tenth of a span's time): the half's row
        // loop is timed once, and the span block gets that time with one hit per span drawn,
        // so its cycles per hit are a span's average, edge stepping between spans included
        const uint64_t rows_start = prof_cycles_now();
        entry->blocks[N3D_RASTERIZER_BLOCK_INNER_ROW].start = rows_start;
        const int32_t y0 = y_top >> 8;
        w.dst_row = (uint16_t*)(fb->pixels + (int64_t)y0 * row_bytes);
        w.cov_row = cov ? cov->bits + (uint64_t)y0 * cov_words : nullptr;
        if constexpr (F & RF_DEPTH) {
            w.zrow = zb->values + (uint64_t)y0 * w.z_width;
            w.block_row = zb->blocks.bits + (uint64_t)y0 * w.block_words;
        }
        w.y = y0;
        w.y_end = y_end >> 8;
        const uint32_t spans_drawn = rows(&w);
        const uint64_t rows_end = prof_cycles_now();
        raster_block_end(&entry->blocks[N3D_RASTERIZER_BLOCK_INNER_ROW], rows_end);
        n3d_rasterizer_block* scanline = &entry->blocks[N3D_RASTERIZER_BLOCK_INNER_SCANLINE];
        scanline->cycles += rows_end - rows_start;
        scanline->hits += spans_drawn;
    }
    raster_block_end(&entry->blocks[N3D_RASTERIZER_BLOCK_INNER], prof_cycles_now());
    return 1;
}

constexpr uint32_t RFV_PHONG8 = RF_T8 | RF_PHONG;

void n3d_rasterizer_block_names(n3d_rasterizer_entry* entry)
{
    entry->block_count = N3D_RASTERIZER_BLOCK_COUNT;
    entry->block_names[N3D_RASTERIZER_BLOCK_SETUP] = "setup";
    entry->block_names[N3D_RASTERIZER_BLOCK_INNER] = "inner";
    entry->block_names[N3D_RASTERIZER_BLOCK_INNER_ROW] = "inner_row";
    entry->block_names[N3D_RASTERIZER_BLOCK_INNER_SCANLINE] = "inner_scanline";
    entry->block_names[N3D_RASTERIZER_BLOCK_SPAN_SETUP] = "span_setup";
}

}  // namespace

const char* n3d_raster_kernels_name(n3d_raster_kernels kernels)
{
    static const char* const names[] = {"portable", "AVX2", "AVX-512"};
    return kernels <= N3D_RASTER_KERNELS_BEST ? names[kernels] : "?";
}

n3d_raster_kernels n3d_raster_use_kernels(n3d_raster_kernels wanted)
{
    n3d_raster_kernels best = N3D_RASTER_KERNELS_PORTABLE;
#if RASTER_X86
    if (__builtin_cpu_supports("avx2"))
        best = N3D_RASTER_KERNELS_AVX2;
    if (best == N3D_RASTER_KERNELS_AVX2 && __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
        __builtin_cpu_supports("avx512vl") && __builtin_cpu_supports("avx512vbmi"))
        best = N3D_RASTER_KERNELS_AVX512;
#endif
    raster_kernels_in_use = wanted < best ? wanted : best;
    return raster_kernels_in_use;
}

int n3d_render_triangle_v8_affine_argb1555_t0argb1555(n3d_raster_call* c)
{
    return n3d_raster_triangle<RF_AFFINE | RF_COV_WRITE>(c);
}
int n3d_render_triangle_v8_argb1555_t0argb1555(n3d_raster_call* c) { return n3d_raster_triangle<RF_COV_WRITE>(c); }
int n3d_render_triangle_v8_argb1555_t0argb1555_covrw10(n3d_raster_call* c)
{
    return n3d_raster_triangle<RF_COV_READ | RF_COV_WRITE>(c);  // writes coverage too
}
int n3d_render_triangle_v8_argb1555_t0i8argb1555(n3d_raster_call* c)
{
    return n3d_raster_triangle<RF_T8 | RF_COV_WRITE>(c);
}
int n3d_render_triangle_v8_argb1555_t0i8argb1555_covrw01(n3d_raster_call* c)
{
    return n3d_raster_triangle<RF_T8 | RF_COV_WRITE>(c);
}
int n3d_render_triangle_v8_argb1555_t0i8argb1555_covrw11(n3d_raster_call* c)
{
    return n3d_raster_triangle<RF_T8 | RF_COV_READ | RF_COV_WRITE>(c);
}
int n3d_render_triangle_v8_argb1555_t0i8argb1555_covrw10(n3d_raster_call* c)
{
    return n3d_raster_triangle<RF_T8 | RF_COV_READ>(c);
}
int n3d_render_triangle_v8_phong_argb1555_t0i8argb1555_covrw11(n3d_raster_call* c)
{
    return n3d_raster_triangle<RFV_PHONG8 | RF_COV_READ | RF_COV_WRITE>(c);
}
int n3d_render_triangle_v8_phong_argb1555_t0i8argb1555_covrw01(n3d_raster_call* c)
{
    return n3d_raster_triangle<RFV_PHONG8 | RF_COV_WRITE>(c);
}
int n3d_render_triangle_v8_phong_argb1555_t0i8argb1555_covrw01_zbuffrw11(n3d_raster_call* c)
{
    return n3d_raster_triangle<RFV_PHONG8 | RF_COV_WRITE | RF_DEPTH>(c);
}
int n3d_render_triangle_v8_phong_argb1555_t0i8argb1555_covrw01_zbuffrw11_wip_rsqr_large_spans(n3d_raster_call* c)
{
    return n3d_raster_triangle<RFV_PHONG8 | RF_COV_WRITE | RF_DEPTH | RF_LARGE_SPANS>(c);
}
int n3d_render_triangle_v8_phong_argb1555_t0i8argb1555(n3d_raster_call* c)
{
    return n3d_raster_triangle<RFV_PHONG8>(c);
}
int n3d_render_triangle_v8_phong_argb1555_t0argb1555(n3d_raster_call* c)
{
    return n3d_raster_triangle<RF_PHONG | RF_COV_WRITE>(c);
}
int n3d_render_triangle_v8_phong_argb1555_t0argb1555_covrw01(n3d_raster_call* c)
{
    return n3d_raster_triangle<RF_PHONG | RF_COV_WRITE>(c);
}
int n3d_render_triangle_v8_phong_argb1555_t0argb1555_covrw01_mipconst(n3d_raster_call* c)
{
    return n3d_raster_triangle<RF_PHONG | RF_COV_WRITE | RF_MIPCONST>(c);
}

void n3d_register_rasterizers()
{
    n3d_rasterizer_table_count = 0;  // a second n3d_init starts the table afresh
    n3d_raster_use_kernels(N3D_RASTER_KERNELS_BEST);
#define N3D_REGISTER(fn, attributes, flags) \
    n3d_register_rasterizer(#fn, attributes, fn, n3d_rasterizer_block_names, flags, "src/n3d_rasterizers", __LINE__)
    N3D_REGISTER(n3d_render_triangle_v8_affine_argb1555_t0argb1555, 2, 336);
    N3D_REGISTER(n3d_render_triangle_v8_argb1555_t0argb1555, 2, 80);
    N3D_REGISTER(n3d_render_triangle_v8_argb1555_t0argb1555_covrw10, 2, 81);
    N3D_REGISTER(n3d_render_triangle_v8_argb1555_t0i8argb1555, 2, 48);
    N3D_REGISTER(n3d_render_triangle_v8_argb1555_t0i8argb1555_covrw01, 2, 50);
    N3D_REGISTER(n3d_render_triangle_v8_argb1555_t0i8argb1555_covrw11, 2, 51);
    N3D_REGISTER(n3d_render_triangle_v8_argb1555_t0i8argb1555_covrw10, 2, 49);
    N3D_REGISTER(n3d_render_triangle_v8_phong_argb1555_t0i8argb1555_covrw11, 4, 179);
    N3D_REGISTER(n3d_render_triangle_v8_phong_argb1555_t0i8argb1555_covrw01, 4, 178);
    N3D_REGISTER(n3d_render_triangle_v8_phong_argb1555_t0i8argb1555_covrw01_zbuffrw11, 4, 190);
    N3D_REGISTER(n3d_render_triangle_v8_phong_argb1555_t0i8argb1555_covrw01_zbuffrw11_wip_rsqr_large_spans, 4, 1214);
    N3D_REGISTER(n3d_render_triangle_v8_phong_argb1555_t0i8argb1555, 4, 176);
    N3D_REGISTER(n3d_render_triangle_v8_phong_argb1555_t0argb1555, 4, 208);
    N3D_REGISTER(n3d_render_triangle_v8_phong_argb1555_t0argb1555_covrw01, 4, 210);
    N3D_REGISTER(n3d_render_triangle_v8_phong_argb1555_t0argb1555_covrw01_mipconst, 4, 466);
#undef N3D_REGISTER
}
