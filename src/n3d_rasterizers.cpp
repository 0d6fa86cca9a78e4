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
#else
#define RASTER_X86 0
#endif

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
    alignas(32) int32_t texel_shift[RASTER_LANES];  // 8-bit: of v >> 1; 16-bit: of v (bit 4, times 16)
    alignas(32) int32_t texel_word_bit[RASTER_LANES];  // 16-bit: of v >> 4 (bit 5 is in the word index)
    alignas(32) int32_t q_step[RASTER_LANES];   // phong: what Q and dQ of a lane gain over 8 pixels
    alignas(32) int32_t dq_step[RASTER_LANES];
    alignas(32) int32_t lane_qxx[RASTER_LANES];   // phong: i Qxx and i (i - 1) / 2 Qxx in lane i
    alignas(32) int32_t pairs_qxx[RASTER_LANES];
    alignas(16) int16_t z_step[RASTER_LANES];   // depth gained over 8 pixels
    alignas(32) int32_t phong[RASTER_PHONG_WORDS];
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

inline void raster_coverage_write(uint32_t* row, int32_t xl, int32_t xr)
{
    const int32_t first = xl >> 5;
    const int32_t last = (xr - 1) >> 5;
    const uint32_t head = 0xFFFFFFFFu >> (xl & 31);
    const uint32_t tail = 0xFFFFFFFFu << (31 - ((xr - 1) & 31));
    if (first == last) {
        row[first] |= head & tail;
        return;
    }
    row[first] |= head;
    for (int32_t i = first + 1; i < last; i++)
        row[i] = 0xFFFFFFFFu;
    row[last] |= tail;
}

// Validates the depth blocks a span touches (16 pixels a block): a block not yet touched this
// frame is zeroed. A word of block bits at a time, as they are nearly always all set.
inline void raster_depth_blocks(const n3d_zbuffer* zb, int32_t row, int32_t xl, int32_t xr)
{
    const uint32_t words_per_row = zb->blocks.width >> 5;
    uint32_t* block_row = zb->blocks.bits + (uint32_t)row * words_per_row;
    const uint32_t first = (uint32_t)(xl * 2) >> 5;
    const uint32_t last = (uint32_t)(xr * 2 - 2) >> 5;
    for (uint32_t w = first >> 5; w <= last >> 5; w++) {
        const uint32_t from = w == first >> 5 ? first & 31 : 0;
        const uint32_t to = w == last >> 5 ? last & 31 : 31;
        const uint32_t range = (0xFFFFFFFFu >> from) & (0xFFFFFFFFu << (31 - to));
        for (uint32_t missing = range & ~block_row[w]; missing;) {
            const uint32_t b = (uint32_t)__builtin_clz(missing);
            missing &= ~(0x80000000u >> b);
            zero_block32(zb->values, ((uint64_t)row * zb->width + (w * 32 + b) * 16) * 2);
        }
        block_row[w] |= range;
    }
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
// kernel, a pixel pair at a time.
template <uint32_t F>
void raster_span_portable(const raster_span_ctx& s, const raster_span_job& job, const raster_span_job* next,
                          raster_span_plans* plans)
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

#if RASTER_X86
// ---- the vector kernel: the 8 pixels of a segment at once ----
//
// Inside a segment the portable kernel steps the packed coordinate w by (w + step) AND NOT
// the gap mask. Its 13-bit u field (bits 0-9 and 16-18 of w) then runs through
// u0 + i du modulo 2^12 (bit 12 is cleared after every step), while each carry out of the u
// field lands in v's lowest bit. Only whole-texel bits 4-11 of u and v reach the index, so
// pixel i of the segment has, exactly:
//   S_i = (u0 AND 0xFFF) + i du                  u's index bits are bits 4-11 of S_i
//   V_i = v0 + i dv + C_i                        C_i carries out of the u field so far
// where, with h = bit 12 of du, g = du >> 12 and K the carry of the very first step (whose w
// is not masked, so u0's bit 12 can take part):
//   C_i = K + h ((S_i >> 12) - i g)  for i >= 1, C_0 = 0.
// The carries make a difference: a negative du has bit 12 set, and then nearly every step
// nudges v by a sixteenth.
//
// A span's segment ends are computed 8 at a time first (lane j: the end of segment j), so
// that a segment only broadcasts its values; Q and depth are stepped along the span in
// lanes (lane i: the segment's pixel i).

// Fills the lane constants of a triangle whose other span values are set.
template <uint32_t F>
RASTER_AVX2 void raster_lane_setup_avx2(raster_span_ctx* s)
{
    raster_lane_constants* c = &s->lanes;
    const uint32_t mask = s->index_mask;
    const __m128i z_step = _mm_set1_epi16((short)((uint32_t)s->z_x << 3));
    _mm_store_si128((__m128i*)c->z_step, z_step);
    const __m256i qxx = _mm256_set1_epi32(s->qxx);
    _mm256_store_si256((__m256i*)c->mask_u_low, _mm256_set1_epi32((int)(mask & 0xFC)));
    _mm256_store_si256((__m256i*)c->mask_u_high, _mm256_set1_epi32((int)(mask & 0xC000)));
    _mm256_store_si256((__m256i*)c->mask_v_high, _mm256_set1_epi32((int)(mask & 0x3F00)));
    _mm256_store_si256((__m256i*)c->texel_shift, _mm256_set1_epi32((F & RF_T8) ? (int)(mask & 3) << 3 : (int)(mask & 1) << 4));
    _mm256_store_si256((__m256i*)c->texel_word_bit, _mm256_set1_epi32((int)(mask & 2)));
    _mm256_store_si256((__m256i*)c->q_step, _mm256_mullo_epi32(qxx, _mm256_set1_epi32(28)));  // 8 * 7 / 2 Qxx
    _mm256_store_si256((__m256i*)c->dq_step, _mm256_slli_epi32(qxx, 3));
    _mm256_store_si256((__m256i*)c->lane_qxx, _mm256_mullo_epi32(qxx, _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7)));
    _mm256_store_si256((__m256i*)c->pairs_qxx, _mm256_mullo_epi32(qxx, _mm256_setr_epi32(0, 0, 1, 3, 6, 10, 15, 21)));
    if constexpr (F & RF_PHONG) {
        // the indices the kernel can look up, clamped into the guards as the portable kernel does
        const int32_t from = (F & RF_LARGE_SPANS) ? RASTER_PHONG_WORDS_LOW : RASTER_PHONG_GUARD_LOW;
        const int32_t to = (F & RF_LARGE_SPANS) ? 127 : RASTER_PHONG_GUARD_HIGH;
        int32_t* words = c->phong - RASTER_PHONG_WORDS_LOW;
        const __m256i low5 = _mm256_set1_epi32(0x1F);
        const __m256i below = _mm256_set1_epi32(s->phong[RASTER_PHONG_GUARD_LOW] & 0x1F);
        int32_t i = from;
        for (; i < RASTER_PHONG_GUARD_LOW; i += RASTER_LANES)
            _mm256_storeu_si256((__m256i*)(words + i), below);
        for (; i <= to; i += RASTER_LANES) {
            const __m128i bytes = _mm_loadl_epi64((const __m128i*)(s->phong + i));
            _mm256_storeu_si256((__m256i*)(words + i), _mm256_and_si256(_mm256_cvtepu8_epi32(bytes), low5));
        }
    }
}

RASTER_AVX2 inline __m256i raster_lanes(const int32_t* values) { return _mm256_load_si256((const __m256i*)values); }

// 8 32-bit words from base + index * Scale bytes. A gather merges into its destination, so it
// is given a freshly zeroed one (hidden from the compiler, which would drop it): otherwise it
// waits for whatever last wrote that register, often another gather.
template <int Scale>
RASTER_AVX2 inline __m256i raster_gather(const void* base, __m256i index)
{
    __m256i fresh = _mm256_setzero_si256(), all = _mm256_set1_epi32(-1);
    __asm__ volatile("" : "+x"(fresh), "+x"(all));
    return _mm256_mask_i32gather_epi32(fresh, (const int*)base, index, all, Scale);
}

// A ramp is base + i step over the lanes. Texel coordinates, their steps and squared
// reciprocals fit 16 bits in the perspective variants (a coordinate is a 32-bit product
// shifted right by 18), so there a ramp is one word, step in the low half and base in the
// high half, and one multiply-add of 16-bit pairs makes it. The affine variant's coordinates
// are wider: it keeps base and step apart.

// Per segment of a group of 8: what raster_segment_avx2 broadcasts to its lanes.
struct raster_segment_group {
    alignas(32) int32_t u[RASTER_LANES];       // ramp of S: u0 AND 0xFFF, du
    alignas(32) int32_t v[RASTER_LANES];       // ramp of v0, dv - h g
    alignas(32) int32_t r2[RASTER_LANES];      // phong: ramp of the squared reciprocal
    alignas(32) int32_t u_step[RASTER_LANES];  // affine: the steps (u, v hold the bases)
    alignas(32) int32_t v_step[RASTER_LANES];
    alignas(32) int32_t h_mask[RASTER_LANES];      // -h
    alignas(32) int32_t carry_mask[RASTER_LANES];  // -K
};

// The word of a 16-bit ramp.
RASTER_AVX2 inline __m256i raster_ramp_word(__m256i base, __m256i step)
{
    return _mm256_or_si256(_mm256_slli_epi32(base, 16), _mm256_and_si256(step, _mm256_set1_epi32(0xFFFF)));
}

// Ramp j of a group, lane i holding base + i step.
template <uint32_t F>
RASTER_AVX2 inline __m256i raster_ramp(const int32_t* ramps, const int32_t* steps, uint32_t j)
{
    if constexpr (F & RF_AFFINE) {
        const __m256i lane = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
        return _mm256_add_epi32(_mm256_set1_epi32(ramps[j]), _mm256_mullo_epi32(lane, _mm256_set1_epi32(steps[j])));
    } else {
        (void)steps;
        const __m256i lane_and_one = _mm256_setr_epi16(0, 1, 1, 1, 2, 1, 3, 1, 4, 1, 5, 1, 6, 1, 7, 1);
        return _mm256_madd_epi16(lane_and_one, _mm256_set1_epi32(ramps[j]));
    }
}

// The lanes moved up by one, lane 0 taking the last lane of `before`.
RASTER_AVX2 inline __m256i raster_lanes_after(__m256i v, __m256i before)
{
    const __m256i up = _mm256_setr_epi32(7, 0, 1, 2, 3, 4, 5, 6);
    return _mm256_blend_epi32(_mm256_permutevar8x32_epi32(v, up), _mm256_permutevar8x32_epi32(before, up), 0x01);
}

// x / 2^k truncating toward zero, k per lane (as raster_div_pow2)
RASTER_AVX2 inline __m256i raster_div_pow2_lanes(__m256i x, __m256i k)
{
    const __m256i bias = _mm256_srlv_epi32(_mm256_srai_epi32(x, 31), _mm256_sub_epi32(_mm256_set1_epi32(32), k));
    return _mm256_srav_epi32(_mm256_add_epi32(x, bias), k);
}

// Texel coordinates and squared reciprocal at the ends of a group's segments: the next
// group's first segment starts from the last lane.
struct raster_segment_ends {
    __m256i u, v, r2;
};

// Segments first to first + 7 of a span whose attributes at its first pixel are `a`: their
// ends, and what each segment broadcasts. Segment j < count8 has 8 pixels, then come one of
// `partial` pixels (4 or 2) and, when partial is 4 and a 2 follows, one of 2.
template <uint32_t F>
RASTER_AVX2 inline void raster_segment_group_avx2(const raster_span_ctx& s, const raster_attrs& a, int32_t first,
                                                  int32_t count8, int32_t partial, raster_segment_ends* ends,
                                                  raster_segment_group* grp)
{
    const __m256i lane = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
    const __m256i j = _mm256_add_epi32(_mm256_set1_epi32(first), lane);
    // segments past the 8-pixel ones: the first has `partial` pixels, a second one 2
    const __m256i past = _mm256_min_epi32(_mm256_max_epi32(_mm256_sub_epi32(j, _mm256_set1_epi32(count8 - 1)),
                                                           _mm256_setzero_si256()),
                                          _mm256_set1_epi32(2));
    const __m256i partial_end = _mm256_permutevar8x32_epi32(_mm256_setr_epi32(0, partial, partial + 2, 0, 0, 0, 0, 0), past);
    const __m256i log2_length = _mm256_permutevar8x32_epi32(_mm256_setr_epi32(3, partial == 4 ? 2 : 1, 1, 0, 0, 0, 0, 0), past);
    const __m256i end = _mm256_add_epi32(
        _mm256_slli_epi32(_mm256_min_epi32(_mm256_add_epi32(j, _mm256_set1_epi32(1)), _mm256_set1_epi32(count8)), 3),
        partial_end);

    // attributes at the ends, and texel coordinates there
    const __m256i iw = _mm256_add_epi32(_mm256_set1_epi32((int)a.iw), _mm256_mullo_epi32(end, _mm256_set1_epi32(s.iw_x)));
    const __m256i ua = _mm256_add_epi32(_mm256_set1_epi32((int)a.u), _mm256_mullo_epi32(end, _mm256_set1_epi32(s.u_x)));
    const __m256i va = _mm256_add_epi32(_mm256_set1_epi32((int)a.v), _mm256_mullo_epi32(end, _mm256_set1_epi32(s.v_x)));
    __m256i u, v, r2 = _mm256_setzero_si256();
    if constexpr (F & RF_AFFINE) {
        (void)iw;
        u = _mm256_add_epi32(_mm256_srai_epi32(ua, N3D_AFFINE_SHIFT), _mm256_set1_epi32(N3D_TEXEL_BIAS));
        v = _mm256_add_epi32(_mm256_srai_epi32(va, N3D_AFFINE_SHIFT), _mm256_set1_epi32(N3D_TEXEL_BIAS));
    } else {
        // as raster_reciprocal, clamp included
        const __m256i index = _mm256_min_epi32(
            _mm256_max_epi32(_mm256_srai_epi32(iw, N3D_IW_LUT_SHIFT), _mm256_setzero_si256()),
            _mm256_set1_epi32(N3D_FIXED_IIW_LUT_SIZE - 2));
        const __m256i t0 = raster_gather<4>(n3d_fixed_iiw_lut, index);
        const __m256i t1 = raster_gather<4>(n3d_fixed_iiw_lut + 1, index);
        const __m256i f = _mm256_and_si256(iw, _mm256_set1_epi32((1 << N3D_IW_LUT_SHIFT) - 1));
        const __m256i r = _mm256_add_epi32(t0, _mm256_srai_epi32(_mm256_mullo_epi32(_mm256_sub_epi32(t1, t0), f),
                                                                 N3D_IW_LUT_SHIFT));
        u = _mm256_add_epi32(_mm256_srai_epi32(_mm256_mullo_epi32(ua, r), N3D_UV_PRODUCT_SHIFT),
                             _mm256_set1_epi32(N3D_TEXEL_BIAS));
        v = _mm256_add_epi32(_mm256_srai_epi32(_mm256_mullo_epi32(va, r), N3D_UV_PRODUCT_SHIFT),
                             _mm256_set1_epi32(N3D_TEXEL_BIAS));
        if constexpr (F & RF_PHONG)  // as raster_rsqr
            r2 = _mm256_srli_epi32(_mm256_mullo_epi32(r, _mm256_srai_epi32(r, 5)), 13);
    }

    // each segment runs from the previous one's end
    const __m256i u0 = raster_lanes_after(u, ends->u);
    const __m256i v0 = raster_lanes_after(v, ends->v);
    const __m256i du = raster_div_pow2_lanes(_mm256_sub_epi32(u, u0), log2_length);
    const __m256i dv = raster_div_pow2_lanes(_mm256_sub_epi32(v, v0), log2_length);
    const __m256i wrap = _mm256_set1_epi32((int)RASTER_U_WRAP_MASK);
    const __m256i u_low = _mm256_and_si256(u0, wrap);
    const __m256i du_high = _mm256_srai_epi32(du, RASTER_U_WRAP_BITS);
    const __m256i h = _mm256_and_si256(du_high, _mm256_set1_epi32(1));
    const __m256i h_mask = _mm256_sub_epi32(_mm256_setzero_si256(), h);
    const __m256i first_step_wraps = _mm256_srli_epi32(_mm256_add_epi32(u_low, _mm256_and_si256(du, wrap)), RASTER_U_WRAP_BITS);
    const __m256i first_carry = _mm256_and_si256(_mm256_srli_epi32(u0, RASTER_U_WRAP_BITS),
                                                 _mm256_and_si256(_mm256_xor_si256(h, first_step_wraps), _mm256_set1_epi32(1)));
    const __m256i dv_carried = _mm256_sub_epi32(dv, _mm256_and_si256(du_high, h_mask));
    if constexpr (F & RF_AFFINE) {
        _mm256_store_si256((__m256i*)grp->u, u_low);
        _mm256_store_si256((__m256i*)grp->u_step, du);
        _mm256_store_si256((__m256i*)grp->v, v0);
        _mm256_store_si256((__m256i*)grp->v_step, dv_carried);
    } else {
        _mm256_store_si256((__m256i*)grp->u, raster_ramp_word(u_low, du));
        _mm256_store_si256((__m256i*)grp->v, raster_ramp_word(v0, dv_carried));
    }
    _mm256_store_si256((__m256i*)grp->h_mask, h_mask);
    _mm256_store_si256((__m256i*)grp->carry_mask, _mm256_sub_epi32(_mm256_setzero_si256(), first_carry));
    if constexpr (F & RF_PHONG) {
        const __m256i r2_0 = raster_lanes_after(r2, ends->r2);
        const __m256i dr2 = raster_div_pow2_lanes(_mm256_sub_epi32(r2, r2_0), log2_length);
        _mm256_store_si256((__m256i*)grp->r2, raster_ramp_word(r2_0, dr2));
    }
    ends->u = u, ends->v = v, ends->r2 = r2;
}

// Which 16-bit lanes of a load or store are real: segments of 4 and 2 pixels use the low ones.
template <uint32_t K>
RASTER_AVX2 inline __m128i raster_load_lanes(const uint16_t* p)
{
    if constexpr (K == 3)
        return _mm_loadu_si128((const __m128i*)p);
    if constexpr (K == 2)
        return _mm_loadl_epi64((const __m128i*)p);
    uint32_t pair;
    memcpy(&pair, p, 4);
    return _mm_cvtsi32_si128((int)pair);
}

template <uint32_t K>
RASTER_AVX2 inline void raster_store_lanes(uint16_t* p, __m128i v)
{
    if constexpr (K == 3) {
        _mm_storeu_si128((__m128i*)p, v);
    } else if constexpr (K == 2) {
        _mm_storel_epi64((__m128i*)p, v);
    } else {
        const uint32_t pair = (uint32_t)_mm_cvtsi128_si32(v);
        memcpy(p, &pair, 4);
    }
}

// Low 16 bits of each 32-bit lane, as 8 16-bit lanes.
RASTER_AVX2 inline __m128i raster_pack_lanes(__m256i v)
{
    const __m256i low_halves = _mm256_setr_epi8(0, 1, 4, 5, 8, 9, 12, 13, -1, -1, -1, -1, -1, -1, -1, -1, 0, 1, 4, 5,
                                                8, 9, 12, 13, -1, -1, -1, -1, -1, -1, -1, -1);
    return _mm256_castsi256_si128(_mm256_permute4x64_epi64(_mm256_shuffle_epi8(v, low_halves), 0x08));
}

// What the vector kernel carries along a span from one segment to the next.
struct raster_span_lanes {
    __m256i q, dq;  // phong: Q and dQ at the next segment's first 8 pixels
    __m128i z;      // depth there (only 16 bits are compared)
};

// The pixels of segment j of a group, 2^K pixels from column x.
template <uint32_t F, uint32_t K>
RASTER_AVX2 inline void raster_segment_avx2(const raster_span_ctx& s, const raster_segment_group& grp, uint32_t j,
                                            raster_span_lanes* l, uint16_t* dst, const uint32_t* cov,
                                            uint16_t* zrow, int32_t x)
{
    const __m256i lane_past_first = _mm256_setr_epi32(0, 1, 1, 1, 1, 1, 1, 1);

    // texel coordinates of the 8 pixels in closed form (see above)
    const __m256i S = raster_ramp<F>(grp.u, grp.u_step, j);
    __m256i V = raster_ramp<F>(grp.v, grp.v_step, j);
    V = _mm256_add_epi32(V, _mm256_and_si256(_mm256_srai_epi32(S, RASTER_U_WRAP_BITS), _mm256_set1_epi32(grp.h_mask[j])));
    V = _mm256_add_epi32(V, _mm256_and_si256(lane_past_first, _mm256_set1_epi32(grp.carry_mask[j])));

    // the lighting look-up first: it does not wait for the texel, so it is under way while
    // the texel's index is formed
    const raster_lane_constants& c = s.lanes;
    __m256i b = _mm256_setzero_si256();
    if constexpr (F & RF_PHONG) {
        const __m256i r2 = raster_ramp<F>(grp.r2, nullptr, j);
        __m256i pi;
        if constexpr (F & RF_LARGE_SPANS) {
            // P = Q r2 is what the cubic steps; its top byte is the index, inside the word table
            pi = _mm256_srai_epi32(_mm256_mullo_epi32(l->q, r2), N3D_PHONG_PRODUCT_SHIFT);
        } else {
            pi = _mm256_srai_epi32(_mm256_mullo_epi32(_mm256_srai_epi32(l->q, N3D_PHONG_Q_SHIFT), r2),
                                   N3D_PHONG_INDEX_SHIFT);
            pi = _mm256_min_epi32(_mm256_max_epi32(pi, _mm256_set1_epi32(RASTER_PHONG_GUARD_LOW)),
                                  _mm256_set1_epi32(RASTER_PHONG_GUARD_HIGH));
        }
        b = raster_gather<4>(c.phong - RASTER_PHONG_WORDS_LOW, pi);  // AND 31 already
    }

    // swizzled index without v's two lowest bits, which pick the texel inside an aligned
    // 32-bit word: the word is gathered whole so that no read leaves the level
    const __m256i index_high = _mm256_or_si256(
        _mm256_or_si256(_mm256_and_si256(_mm256_srli_epi32(S, 2), raster_lanes(c.mask_u_low)),
                        _mm256_and_si256(_mm256_slli_epi32(S, 4), raster_lanes(c.mask_u_high))),
        _mm256_and_si256(_mm256_slli_epi32(V, 2), raster_lanes(c.mask_v_high)));
    __m256i texel;
    if constexpr (F & RF_T8) {
        // v's bits 4-5 are the byte inside the word: a shift of 8 times them
        const __m256i shift = _mm256_and_si256(_mm256_srli_epi32(V, 1), raster_lanes(c.texel_shift));
        texel = _mm256_srlv_epi32(raster_gather<1>(s.tex8, index_high), shift);
    } else {
        // v's bit 4 is the half inside the word, bit 5 part of the word's index
        const __m256i word = _mm256_or_si256(index_high, _mm256_and_si256(_mm256_srli_epi32(V, 4), raster_lanes(c.texel_word_bit)));
        const __m256i shift = _mm256_and_si256(V, raster_lanes(c.texel_shift));
        texel = _mm256_srlv_epi32(raster_gather<2>(s.tex16, word), shift);
    }

    __m256i pixel;
    if constexpr (F & RF_PHONG) {
        if constexpr (F & RF_T8) {
            // shade table entry texel * 32 + b, gathered as the word holding it
            const __m256i entry_word = _mm256_or_si256(
                _mm256_and_si256(_mm256_slli_epi32(texel, 4), _mm256_set1_epi32(0xFF0)), _mm256_srli_epi32(b, 1));
            const __m256i half = _mm256_slli_epi32(_mm256_and_si256(b, _mm256_set1_epi32(1)), 4);
            pixel = _mm256_srlv_epi32(raster_gather<4>(s.shade_table, entry_word), half);
        } else {
            // channels spread 10 bits apart so one multiply scales all three
            const __m256i spread = _mm256_or_si256(
                _mm256_or_si256(_mm256_and_si256(texel, _mm256_set1_epi32(0x1F)),
                                _mm256_and_si256(_mm256_slli_epi32(texel, 5), _mm256_set1_epi32(0x1F << 10))),
                _mm256_and_si256(_mm256_slli_epi32(texel, 10), _mm256_set1_epi32(0x1F << 20)));
            const __m256i p = _mm256_mullo_epi32(spread, b);
            pixel = _mm256_or_si256(
                _mm256_or_si256(_mm256_and_si256(_mm256_srli_epi32(p, 5), _mm256_set1_epi32(0x1F)),
                                _mm256_and_si256(_mm256_srli_epi32(p, 10), _mm256_set1_epi32(0x1F << 5))),
                _mm256_or_si256(_mm256_and_si256(_mm256_srli_epi32(p, 15), _mm256_set1_epi32(0x1F << 10)),
                                _mm256_set1_epi32(0x8000)));
        }
        // Q moves on by the segment's length (only the last segments have fewer than 8)
        if constexpr (K == 3) {
            l->q = _mm256_add_epi32(l->q, _mm256_add_epi32(_mm256_slli_epi32(l->dq, K), raster_lanes(c.q_step)));
            l->dq = _mm256_add_epi32(l->dq, raster_lanes(c.dq_step));
        } else {
            const uint32_t qxx = (uint32_t)s.qxx;
            constexpr uint32_t pairs = ((1u << K) - 1) << K >> 1;
            l->q = _mm256_add_epi32(l->q, _mm256_add_epi32(_mm256_slli_epi32(l->dq, K), _mm256_set1_epi32((int)(qxx * pairs))));
            l->dq = _mm256_add_epi32(l->dq, _mm256_set1_epi32((int)(qxx << K)));
        }
    } else {
        if constexpr (F & RF_T8) {
            const __m256i entry_word = _mm256_and_si256(_mm256_srli_epi32(texel, 1), _mm256_set1_epi32(0x7F));
            const __m256i half = _mm256_slli_epi32(_mm256_and_si256(texel, _mm256_set1_epi32(1)), 4);
            pixel = _mm256_srlv_epi32(raster_gather<4>(s.palette, entry_word), half);
        } else {
            pixel = texel;
        }
    }
    const __m128i pixels = raster_pack_lanes(pixel);

    uint16_t* out = dst + x;
    if constexpr (F & (RF_COV_READ | RF_DEPTH)) {
        // lanes that keep what is there: covered, or not nearer
        __m128i keep = _mm_setzero_si128();
        if constexpr (F & RF_COV_READ) {
            const uint32_t* word = cov + (x >> 5);
            const uint32_t bit = (uint32_t)x & 31;
            uint64_t window = (uint64_t)word[0] << 32;
            if (bit + (1u << K) > 32)  // the segment runs into the next coverage word
                window |= word[1];
            const int bits = (int)((window << bit) >> 56);  // most significant bit: column x
            const __m128i lane_bit = _mm_setr_epi16(0x80, 0x40, 0x20, 0x10, 8, 4, 2, 1);
            keep = _mm_cmpeq_epi16(_mm_and_si128(_mm_set1_epi16((short)bits), lane_bit), lane_bit);
        }
        if constexpr (F & RF_DEPTH) {
            uint16_t* zout = zrow + x;
            // the nearer of the two is what stays: the stored value where the test fails
            const __m128i z_old = raster_load_lanes<K>(zout);
            const __m128i z_new = _mm_max_epu16(l->z, z_old);
            keep = _mm_or_si128(keep, _mm_cmpeq_epi16(z_new, z_old));
            raster_store_lanes<K>(zout, z_new);
            if constexpr (K == 3)
                l->z = _mm_add_epi16(l->z, _mm_load_si128((const __m128i*)c.z_step));
            else
                l->z = _mm_add_epi16(l->z, _mm_set1_epi16((short)((uint32_t)s.z_x << K)));
        }
        raster_store_lanes<K>(out, _mm_blendv_epi8(pixels, raster_load_lanes<K>(out), keep));
    } else {
        (void)cov, (void)zrow;
        raster_store_lanes<K>(out, pixels);
    }
}

// A span's first group of segment ends and its starting lanes, computed before it is drawn.
struct raster_span_plan {
    raster_segment_group grp;
    raster_segment_ends ends;  // at the ends of grp's segments
    raster_span_lanes lanes;   // at the span's first 8 pixels
};

struct raster_span_plans {
    raster_span_plan plan[2];
    int32_t ready;  // the plan made for the span drawn next, or -1
};

// Segments of 8 while at least 8 pixels remain beyond the first, then one of 4, one of 2.
struct raster_segment_counts {
    int32_t count8, partial, count;
};

inline raster_segment_counts raster_segments_of(const raster_span_job& job)
{
    const int32_t m = job.xr - job.xl - 1;
    return {m >> 3, (m & 4) ? 4 : 2, (m >> 3) + ((m >> 2) & 1) + ((m >> 1) & 1)};
}

// The vector kernel's preparation of a span: its first group of segments, Q and depth lanes.
template <uint32_t F>
RASTER_AVX2 inline void raster_plan_avx2(const raster_span_ctx& s, const raster_span_job& job, raster_span_plan* plan)
{
    if (job.xr - job.xl - 1 < 4)
        return;  // no segment: the whole span is tail
    const raster_segment_counts n = raster_segments_of(job);
    const raster_attrs& a = job.a;
    const __m256i lane = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
    raster_span_lanes& l = plan->lanes;
    l.q = l.dq = _mm256_setzero_si256();
    if constexpr (F & RF_PHONG) {
        // Q + i dQ + i (i - 1) / 2 Qxx, and dQ + i Qxx
        l.q = _mm256_add_epi32(
            _mm256_add_epi32(_mm256_set1_epi32((int)a.q), _mm256_mullo_epi32(lane, _mm256_set1_epi32((int)a.dq))),
            raster_lanes(s.lanes.pairs_qxx));
        l.dq = _mm256_add_epi32(_mm256_set1_epi32((int)a.dq), raster_lanes(s.lanes.lane_qxx));
    }
    l.z = _mm_setzero_si128();
    if constexpr (F & RF_DEPTH)
        l.z = _mm_add_epi16(_mm_set1_epi16((short)a.z),
                            _mm_mullo_epi16(_mm_setr_epi16(0, 1, 2, 3, 4, 5, 6, 7), _mm_set1_epi16((short)s.z_x)));
    int32_t u0, v0, r;
    raster_texel_coords<F>(a.iw, a.u, a.v, &u0, &v0, &r);
    plan->ends.u = _mm256_set1_epi32(u0);
    plan->ends.v = _mm256_set1_epi32(v0);
    plan->ends.r2 = _mm256_set1_epi32((F & RF_PHONG) ? raster_rsqr(r) : 0);
    raster_segment_group_avx2<F>(s, a, 0, n.count8, n.partial, &plan->ends, &plan->grp);
}

// The vector form of raster_span_portable: the same segments, each drawn by
// raster_segment_avx2, and the same tail.
template <uint32_t F>
RASTER_AVX2 void raster_span_avx2(const raster_span_ctx& s, const raster_span_job& job, const raster_span_job* next,
                                  raster_span_plans* plans)
{
    int32_t current = plans->ready;
    if (current < 0) {
        current = 0;
        raster_plan_avx2<F>(s, job, &plans->plan[0]);
    }
    plans->ready = -1;
    if (next) {
        raster_plan_avx2<F>(s, *next, &plans->plan[current ^ 1]);
        plans->ready = current ^ 1;
    }

    uint16_t* dst = job.dst;
    const uint32_t* cov = job.cov;
    uint16_t* zrow = job.zrow;
    const int32_t m = job.xr - job.xl - 1;
    if (m < 4) {
        raster_tail<F>(s, dst, cov, zrow, job.xl, m + 1, job.a, nullptr);
        return;
    }
    const raster_segment_counts n = raster_segments_of(job);
    raster_span_plan& plan = plans->plan[current];
    raster_span_lanes l = plan.lanes;
    // groups after the first are computed one ahead of the one drawn, for the same reason
    raster_segment_group spare[2];
    const raster_segment_group* grp = &plan.grp;
    const raster_segment_group* last_grp = grp;
    int32_t x = job.xl;
    int32_t last = 0;  // the lane of the last segment drawn
    for (int32_t first = 0; first < n.count; first += RASTER_LANES) {
        const raster_segment_group* following = nullptr;
        if (first + (int32_t)RASTER_LANES < n.count) {
            raster_segment_group* g = &spare[(first / RASTER_LANES) & 1];
            raster_segment_group_avx2<F>(s, job.a, first + RASTER_LANES, n.count8, n.partial, &plan.ends, g);
            following = g;
        }
        // the group's 8-pixel segments, then the one of 4 and the one of 2 if they are in it
        const int32_t full = n.count8 - first < (int32_t)RASTER_LANES ? n.count8 - first : (int32_t)RASTER_LANES;
        for (int32_t k = 0; k < full; k++, x += 8)
            raster_segment_avx2<F, 3>(s, *grp, (uint32_t)k, &l, dst, cov, zrow, x);
        last = full - 1;
        const uint32_t lane4 = (uint32_t)(n.count8 - first), lane2 = lane4 + ((m >> 2) & 1);
        if ((m & 4) && lane4 < RASTER_LANES) {
            raster_segment_avx2<F, 2>(s, *grp, lane4, &l, dst, cov, zrow, x);
            x += 4, last = (int32_t)lane4;
        }
        if ((m & 2) && lane2 < RASTER_LANES) {
            raster_segment_avx2<F, 1>(s, *grp, lane2, &l, dst, cov, zrow, x);
            x += 2, last = (int32_t)lane2;
        }
        last_grp = grp;
        grp = following;
    }

    // the tail starts where the segments ended
    raster_attrs a = job.a;
    const uint32_t done = (uint32_t)(x - job.xl);
    a.iw += done * (uint32_t)s.iw_x, a.u += done * (uint32_t)s.u_x, a.v += done * (uint32_t)s.v_x;
    a.z += done * (uint32_t)s.z_x;
    raster_carried_light carried = {};
    if constexpr (F & RF_PHONG) {
        const uint32_t qxx = (uint32_t)s.qxx;
        a.q += done * a.dq + qxx * (done * (done - 1) / 2);
        a.dq += done * qxx;
        const uint32_t length = (m & 2) ? 2 : ((m & 4) ? 4 : 8);  // of the last segment
        const int32_t ramp = last_grp->r2[last];
        const uint32_t dr2 = (uint32_t)(int32_t)(int16_t)ramp;
        carried = {(uint32_t)(ramp >> 16) + length * dr2, dr2};
    }
    raster_tail<F>(s, dst, cov, zrow, x, m + 1 - (int32_t)done, a, (F & RF_LARGE_SPANS) ? &carried : nullptr);
}
#else
struct raster_span_plans {
    int32_t ready;
};
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
    raster_span_fn* span = raster_span_portable<F>;
#if RASTER_X86
    if (raster_kernels_in_use >= N3D_RASTER_KERNELS_AVX2 && size_u >= 4 && size_v >= 4) {
        raster_lane_setup_avx2<F>(&sc);
        span = raster_span_avx2<F>;
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

    // first row of an edge: ceil of the vertex y at 8 fraction bits; y <= 0 starts at row 0
    auto first_row = [](float y) -> int32_t {
        if (!(y > 0.0f))
            return 0;
        const double t = std::trunc((double)y * 256.0);
        const int64_t yi = t > 2147483000.0 ? 2147483000 : (int64_t)t;
        return (int32_t)((yi + 255) & ~(int64_t)255);
    };

    raster_edge el = {}, er = {};
    raster_attrs at = {};
    raster_span_plans plans;
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
            raster_edge_setup(&er, v[r_from], vf[r_from][0], vf[r_from][1], vf[r_to][0], vf[r_to][1], y_top);
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

        // one counter read per span: a span's time runs from the previous span's end (or the
        // row loop's start), so it includes the few cycles of stepping the edges between them
        uint64_t span_start = prof_cycles_now();
        entry->blocks[N3D_RASTERIZER_BLOCK_INNER_ROW].start = span_start;
        // each span is drawn once the next one is known, so that the kernel can prepare it
        raster_span_job pending;
        bool have_pending = false;
        plans.ready = -1;
        auto draw = [&](const raster_span_job* next) {
            span(sc, pending, next, &plans);
            if constexpr (F & RF_COV_WRITE)
                raster_coverage_write(pending.cov, pending.xl, pending.xr);
            n3d_rasterizer_block* scanline = &entry->blocks[N3D_RASTERIZER_BLOCK_INNER_SCANLINE];
            scanline->start = span_start;
            span_start = prof_cycles_now();
            raster_block_end(scanline, span_start);
        };
        auto* dst_row = (uint16_t*)(fb->pixels + (int64_t)(y_top >> 8) * fb->row_bytes);
        uint32_t* cov_row = cov ? cov->bits + (uint64_t)(y_top >> 8) * cov_words : nullptr;
        for (int32_t y = y_top >> 8; y < (y_end >> 8); y++) {
            int32_t xl = el.x;
            int32_t xr = er.x;
            if (xl < xr) {
                raster_attrs sa = at;
                if (xl < 0 || xr > fb_w) {
                    // never for triangles the draw functions clip; keeps other input inside
                    if (xl < 0) {
                        const uint32_t skip = (uint32_t)-xl;
                        sa.iw += skip * (uint32_t)g.iw_x, sa.u += skip * (uint32_t)g.u_x;
                        sa.v += skip * (uint32_t)g.v_x, sa.z += skip * (uint32_t)g.z_x;
                        xl = 0;
                    }
                    xr = xr > fb_w ? fb_w : xr;
                }
                if (xl < xr) {
                    uint16_t* zrow = nullptr;
                    if constexpr (F & RF_DEPTH) {
                        raster_depth_blocks(zb, y, xl, xr);  // before the row is drawn, after the last
                        zrow = zb->values + (uint64_t)y * zb->width;
                    }
                    const raster_span_job job = {dst_row, cov_row, zrow, xl, xr, sa};
                    if (have_pending)
                        draw(&job);
                    pending = job;
                    have_pending = true;
                }
            }
            // next row: both edges step; edge L's attributes follow its move
            raster_edge_next(&er);
            const uint32_t b = raster_edge_next(&el);  // all ones: move B, else move A
            at.iw += g.iw_a + (b & (uint32_t)g.iw_x), at.u += g.u_a + (b & (uint32_t)g.u_x);
            at.v += g.v_a + (b & (uint32_t)g.v_x), at.z += g.z_a + (b & (uint32_t)g.z_x);
            if constexpr (F & RF_PHONG) {
                at.q += (at.db & b) | (at.da & ~b);
                at.da += (g.hab & b) | (g.haa & ~b);
                at.db += (g.hbb & b) | (g.hab & ~b);
                at.dq += (g.dq_b & b) | (g.dq_a & ~b);
            }
            dst_row = (uint16_t*)((uint8_t*)dst_row + fb->row_bytes);
            if (cov_row)
                cov_row += cov_words;
        }
        if (have_pending)
            draw(nullptr);
        raster_block_end(&entry->blocks[N3D_RASTERIZER_BLOCK_INNER_ROW], prof_cycles_now());
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

n3d_raster_kernels n3d_raster_use_kernels(n3d_raster_kernels wanted)
{
    n3d_raster_kernels best = N3D_RASTER_KERNELS_PORTABLE;
#if RASTER_X86
    if (__builtin_cpu_supports("avx2"))
        best = N3D_RASTER_KERNELS_AVX2;
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
    n3d_raster_use_kernels(N3D_RASTER_KERNELS_AVX2);
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
