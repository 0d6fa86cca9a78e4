// The bump map's drawing. Per pixel, in single precision: the unit direction l to the light in
// the image plane, the half vector h = (l, 1) / |(l, 1)| reduced to its x and y, a bias that
// brightens the pixels near the light, a base that darkens as the light falls flatter, and the
// tilt of the bump normal towards the light; their sum indexes the phong table. The float part
// runs four pixels at a time where SSE2 is there: its sqrt, division, min, max and truncation are
// the exact IEEE operations of the one-pixel code, so both give the same bytes. On x86-64
// processors with AVX2 and FMA the float part runs eight pixels at a time, mostly on a fast
// estimate that is proven to truncate to the same integers (see reel_bumpmap_fast8), and the
// look-ups then read one prepared word per pixel.
#include "reel_bumpmap.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <numbers>

#include "diag.h"
#include "n3d_convert.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#if defined(__x86_64__)
#include <immintrin.h>
#define REEL_BUMPMAP_AVX2 __attribute__((target("avx2,fma")))
#endif

static const char* const REEL_BUMPMAP_FILE = "src/reel_bumpmap";

constexpr uint32_t REEL_BUMPMAP_SHADE_BITS = 5;  // shade-table entry = colour index << 5 | shade
constexpr float REEL_BUMPMAP_PX_START = -0.1f;   // every row's first column (the image sits right of centre)
constexpr float REEL_BUMPMAP_PY_START = -1.0f;
constexpr float REEL_BUMPMAP_NEAR = 64.0f;      // a = clamp(64 r - 1): full bias within 1/65 of the light
constexpr float REEL_BUMPMAP_BIAS = 128.0f;     // phong index added at full bias
constexpr float REEL_BUMPMAP_BASE = -127.0f;    // phong index added as the light falls flat
constexpr float REEL_BUMPMAP_S_LIMIT = 127.0f;  // the normal's tilt term stays within +-127
constexpr int32_t REEL_BUMPMAP_INDEX_MAX = 255;
constexpr int32_t REEL_BUMPMAP_MAX_WIDTH = N3D_MAX_FRAME_DIM;
// A pixel's look-up word: its phong index in the low byte, above it the colour's first entry in
// the shade table (colour texel << 5), so that one load serves both look-ups.
constexpr uint32_t REEL_BUMPMAP_WORD_INDEX_BITS = 8;
constexpr uint32_t REEL_BUMPMAP_WORD_INDEX = (1u << REEL_BUMPMAP_WORD_INDEX_BITS) - 1;
constexpr uint32_t REEL_BUMPMAP_WORD_COLOR_SHIFT = REEL_BUMPMAP_WORD_INDEX_BITS + REEL_BUMPMAP_SHADE_BITS;

// Clamps in the form that min and max instructions take: NaN gives the lower bound.
static inline float reel_bumpmap_clamp(float v, float lo, float hi) { return v > lo ? (v < hi ? v : hi) : lo; }

// The phong-table index of one pixel at (px, py) with the light at (lx, ly).
static inline uint32_t reel_bumpmap_index(float px, float py, float lx, float ly, uint32_t texel)
{
    const float dx = lx - px, dy = ly - py;
    const float r = 1.0f / sqrtf(dx * dx + dy * dy);
    const float ux = dx * r, uy = dy * r;
    const float k = 1.0f / sqrtf(ux * ux + uy * uy + 1.0f);
    const float hx = ux * k, hy = uy * k;
    const float a = reel_bumpmap_clamp(REEL_BUMPMAP_NEAR * r - 1.0f, 0.0f, 1.0f);
    const float biasf = REEL_BUMPMAP_BIAS * a;
    int32_t bias = (int32_t)biasf;  // rounded half away from zero (biasf >= 0)
    bias += biasf - (float)bias >= 0.5f;
    const int32_t base = (int32_t)(REEL_BUMPMAP_BASE * reel_bumpmap_clamp(hx * hx + hy * hy, 0.0f, 1.0f));
    const float nx = (float)(int8_t)(texel >> 24), ny = (float)(int8_t)(texel >> 16), h = (float)(texel & 0xFF);
    const int32_t s =
        (int32_t)reel_bumpmap_clamp(2.0f * hx * nx + 2.0f * hy * ny + h, -REEL_BUMPMAP_S_LIMIT, REEL_BUMPMAP_S_LIMIT);
    const int32_t index = base + s + bias;
    return (uint32_t)(index < 0 ? 0 : (index > REEL_BUMPMAP_INDEX_MAX ? REEL_BUMPMAP_INDEX_MAX : index));
}

#if defined(__SSE2__)
static inline __m128 reel_bumpmap_clamp4(__m128 v, __m128 lo, __m128 hi)
{
    return _mm_min_ps(_mm_max_ps(v, lo), hi);  // maxps gives its second operand for NaN, as above
}

// Four pixels of reel_bumpmap_index, operation for operation, as look-up words.
static inline void reel_bumpmap_words4(uint32_t* out, const float* px, float py, float lx, float ly,
                                       const uint32_t* texels, const uint8_t* color)
{
    const __m128 one = _mm_set1_ps(1.0f);
    const __m128 dx = _mm_sub_ps(_mm_set1_ps(lx), _mm_loadu_ps(px));
    const __m128 dy = _mm_set1_ps(ly - py);
    const __m128 r = _mm_div_ps(one, _mm_sqrt_ps(_mm_add_ps(_mm_mul_ps(dx, dx), _mm_mul_ps(dy, dy))));
    const __m128 ux = _mm_mul_ps(dx, r), uy = _mm_mul_ps(dy, r);
    const __m128 k =
        _mm_div_ps(one, _mm_sqrt_ps(_mm_add_ps(_mm_add_ps(_mm_mul_ps(ux, ux), _mm_mul_ps(uy, uy)), one)));
    const __m128 hx = _mm_mul_ps(ux, k), hy = _mm_mul_ps(uy, k);
    const __m128 a = reel_bumpmap_clamp4(_mm_sub_ps(_mm_mul_ps(_mm_set1_ps(REEL_BUMPMAP_NEAR), r), one),
                                         _mm_setzero_ps(), one);
    const __m128 biasf = _mm_mul_ps(_mm_set1_ps(REEL_BUMPMAP_BIAS), a);
    __m128i bias = _mm_cvttps_epi32(biasf);
    const __m128 frac = _mm_sub_ps(biasf, _mm_cvtepi32_ps(bias));
    bias = _mm_sub_epi32(bias, _mm_castps_si128(_mm_cmpge_ps(frac, _mm_set1_ps(0.5f))));  // true is -1
    const __m128 q = reel_bumpmap_clamp4(_mm_add_ps(_mm_mul_ps(hx, hx), _mm_mul_ps(hy, hy)), _mm_setzero_ps(), one);
    const __m128i base = _mm_cvttps_epi32(_mm_mul_ps(_mm_set1_ps(REEL_BUMPMAP_BASE), q));
    const __m128i t = _mm_loadu_si128((const __m128i*)texels);
    const __m128 nx = _mm_cvtepi32_ps(_mm_srai_epi32(t, 24));
    const __m128 ny = _mm_cvtepi32_ps(_mm_srai_epi32(_mm_slli_epi32(t, 8), 24));
    const __m128 h = _mm_cvtepi32_ps(_mm_and_si128(t, _mm_set1_epi32(0xFF)));
    const __m128 two = _mm_set1_ps(2.0f);
    const __m128 sf = _mm_add_ps(_mm_add_ps(_mm_mul_ps(_mm_mul_ps(two, hx), nx), _mm_mul_ps(_mm_mul_ps(two, hy), ny)), h);
    const __m128i s = _mm_cvttps_epi32(
        reel_bumpmap_clamp4(sf, _mm_set1_ps(-REEL_BUMPMAP_S_LIMIT), _mm_set1_ps(REEL_BUMPMAP_S_LIMIT)));
    // sums lie within [-254, 382]: 16 bits hold them, and SSE2 clamps 16-bit lanes
    __m128i index = _mm_add_epi32(_mm_add_epi32(base, s), bias);
    index = _mm_packs_epi32(index, index);
    index = _mm_min_epi16(_mm_max_epi16(index, _mm_setzero_si128()), _mm_set1_epi16(REEL_BUMPMAP_INDEX_MAX));
    uint32_t colors;
    memcpy(&colors, color, sizeof(colors));
    const __m128i zero = _mm_setzero_si128();
    const __m128i c = _mm_unpacklo_epi16(_mm_unpacklo_epi8(_mm_cvtsi32_si128((int)colors), zero), zero);
    const __m128i words = _mm_or_si128(_mm_unpacklo_epi16(index, zero), _mm_slli_epi32(c, REEL_BUMPMAP_WORD_COLOR_SHIFT));
    _mm_storeu_si128((__m128i*)out, words);
}
#endif

#if defined(REEL_BUMPMAP_AVX2)
// k = 1 / sqrt(v) for the eight floats v from three steps below 2.0f to four above, as the
// one-pixel code computes it (filled when the kernels are chosen).
constexpr int32_t REEL_BUMPMAP_K_STEPS = 8;
constexpr int32_t REEL_BUMPMAP_K_FIRST_BITS = 0x40000000 - 4;  // 2.0f is 0x40000000
static float reel_bumpmap_k_table[REEL_BUMPMAP_K_STEPS];

REEL_BUMPMAP_AVX2 static inline __m256 reel_bumpmap_clamp8(__m256 v, __m256 lo, __m256 hi)
{
    return _mm256_min_ps(_mm256_max_ps(v, lo), hi);  // NaN gives the lower bound, as above
}

// Eight pixels of reel_bumpmap_index, operation for operation: their phong indices. The table
// reads stay scalar: gathers are slower than eight loads on processors that are common today.
REEL_BUMPMAP_AVX2 static inline __m256i reel_bumpmap_exact8(const float* px, float py, float lx, float ly,
                                                            const uint32_t* bump, __m256 k_table)
{
    const __m256 one = _mm256_set1_ps(1.0f), zero = _mm256_setzero_ps();
    const __m256 dx = _mm256_sub_ps(_mm256_set1_ps(lx), _mm256_loadu_ps(px));
    const __m256 dy = _mm256_set1_ps(ly - py);
    const __m256 r =
        _mm256_div_ps(one, _mm256_sqrt_ps(_mm256_add_ps(_mm256_mul_ps(dx, dx), _mm256_mul_ps(dy, dy))));
    const __m256 ux = _mm256_mul_ps(dx, r), uy = _mm256_mul_ps(dy, r);
    // u is a unit vector, so v = |u|^2 + 1 lies within a few steps of 2.0f: k is read from the
    // table of those steps, and only a group with a lane outside them pays the sqrt and division
    const __m256 v = _mm256_add_ps(_mm256_add_ps(_mm256_mul_ps(ux, ux), _mm256_mul_ps(uy, uy)), one);
    const __m256i step = _mm256_sub_epi32(_mm256_castps_si256(v), _mm256_set1_epi32(REEL_BUMPMAP_K_FIRST_BITS));
    const __m256i inside = _mm256_and_si256(_mm256_cmpgt_epi32(_mm256_set1_epi32(REEL_BUMPMAP_K_STEPS), step),
                                            _mm256_cmpgt_epi32(step, _mm256_set1_epi32(-1)));
    const __m256 k = _mm256_movemask_ps(_mm256_castsi256_ps(inside)) == 0xFF
                         ? _mm256_permutevar8x32_ps(k_table, step)
                         : _mm256_div_ps(one, _mm256_sqrt_ps(v));
    const __m256 hx = _mm256_mul_ps(ux, k), hy = _mm256_mul_ps(uy, k);
    const __m256 a =
        reel_bumpmap_clamp8(_mm256_sub_ps(_mm256_mul_ps(_mm256_set1_ps(REEL_BUMPMAP_NEAR), r), one), zero, one);
    const __m256 biasf = _mm256_mul_ps(_mm256_set1_ps(REEL_BUMPMAP_BIAS), a);
    __m256i bias = _mm256_cvttps_epi32(biasf);
    const __m256 frac = _mm256_sub_ps(biasf, _mm256_cvtepi32_ps(bias));
    bias = _mm256_sub_epi32(bias, _mm256_castps_si256(_mm256_cmp_ps(frac, _mm256_set1_ps(0.5f), _CMP_GE_OQ)));
    const __m256 q = reel_bumpmap_clamp8(_mm256_add_ps(_mm256_mul_ps(hx, hx), _mm256_mul_ps(hy, hy)), zero, one);
    const __m256i base = _mm256_cvttps_epi32(_mm256_mul_ps(_mm256_set1_ps(REEL_BUMPMAP_BASE), q));
    const __m256i t = _mm256_loadu_si256((const __m256i*)bump);
    const __m256 nx = _mm256_cvtepi32_ps(_mm256_srai_epi32(t, 24));
    const __m256 ny = _mm256_cvtepi32_ps(_mm256_srai_epi32(_mm256_slli_epi32(t, 8), 24));
    const __m256 h = _mm256_cvtepi32_ps(_mm256_and_si256(t, _mm256_set1_epi32(0xFF)));
    const __m256 two = _mm256_set1_ps(2.0f);
    const __m256 sf = _mm256_add_ps(
        _mm256_add_ps(_mm256_mul_ps(_mm256_mul_ps(two, hx), nx), _mm256_mul_ps(_mm256_mul_ps(two, hy), ny)), h);
    const __m256i s = _mm256_cvttps_epi32(
        reel_bumpmap_clamp8(sf, _mm256_set1_ps(-REEL_BUMPMAP_S_LIMIT), _mm256_set1_ps(REEL_BUMPMAP_S_LIMIT)));
    const __m256i index = _mm256_add_epi32(_mm256_add_epi32(base, s), bias);
    return _mm256_min_epi32(_mm256_max_epi32(index, _mm256_setzero_si256()), _mm256_set1_epi32(REEL_BUMPMAP_INDEX_MAX));
}

// The fast estimate, for rows whose every squared distance to the light lies within
// [REEL_BUMPMAP_FAST_DD_MIN, REEL_BUMPMAP_FAST_DD_MAX]. There a = 1 (64 r - 1 >= 1.1), so
// bias = 128, and hx^2 + hy^2 = 1/2 within 40 ulps, so base = trunc(-63.5...) = -63: the index is
// clamp(trunc(sf) + 65, 0, 255) with sf = 2 hx nx + 2 hy ny + h, and only sf needs care.
// sf is estimated as c (dx nx + dy ny) + h with c = sqrt(2) / |d| from the reciprocal square root
// and one Newton step. Against the true values, the exact chain's 2 hx and 2 hy are within 10 ulps
// (u = 2^-24) and the estimate's c within 11 u, its inner sum within 2 u |d| g, g = |nx| + |ny|;
// |2 hx|, |2 hy|, c |dx| and c |dy| are at most 1.415. So the two sf differ by less than
// g x 2.0e-6, plus 4.6e-5 for the roundings next to h (|sf| < 512). The estimate is kept when
// sf - e and sf + e truncate alike, with e = g 2^-17 + 2^-12 (four times that bound): then the exact
// sf truncates alike too. For g = 0 both sf are h exactly, and e = 0. Any other group of eight
// returns false and is computed exactly: about one in fifty for random texels. (Over 2 x 10^7
// random pixels the largest difference seen was 0.55 of the bound, 0.11 of e.)
constexpr float REEL_BUMPMAP_FAST_DD_MIN = 0x1p-60f;  // no underflow that matters, no division by 0
constexpr float REEL_BUMPMAP_FAST_DD_MAX = 900.0f;    // |d| <= 30: r > 1/32, so a = 1
constexpr float REEL_BUMPMAP_FAST_E_PER_TILT = 0x1p-17f;
constexpr float REEL_BUMPMAP_FAST_E_ROUNDING = 0x1p-12f;
constexpr int32_t REEL_BUMPMAP_FAST_OFFSET = 128 - 63;  // bias + base

REEL_BUMPMAP_AVX2 static inline bool reel_bumpmap_fast8(__m256i* index, const float* px, __m256 dy, __m256 dy2,
                                                        __m256 lx, const uint32_t* bump)
{
    const __m256 dx = _mm256_sub_ps(lx, _mm256_loadu_ps(px));
    const __m256 dd = _mm256_fmadd_ps(dx, dx, dy2);
    // c = sqrt(2) / |d| = y (3/2 sqrt(2) - 1/2 sqrt(2) dd y^2), y the 12-bit estimate of 1 / |d|
    const __m256 y = _mm256_rsqrt_ps(dd);
    const __m256 ddyy = _mm256_mul_ps(_mm256_mul_ps(dd, y), y);
    const __m256 c = _mm256_mul_ps(
        y, _mm256_fnmadd_ps(ddyy, _mm256_set1_ps(0.5f * std::numbers::sqrt2_v<float>),
                            _mm256_set1_ps(1.5f * std::numbers::sqrt2_v<float>)));
    const __m256i t = _mm256_loadu_si256((const __m256i*)bump);
    const __m256 nx = _mm256_cvtepi32_ps(_mm256_srai_epi32(t, 24));
    const __m256 ny = _mm256_cvtepi32_ps(_mm256_srai_epi32(_mm256_slli_epi32(t, 8), 24));
    const __m256 h = _mm256_cvtepi32_ps(_mm256_and_si256(t, _mm256_set1_epi32(0xFF)));
    const __m256 sf = _mm256_fmadd_ps(c, _mm256_fmadd_ps(dx, nx, _mm256_mul_ps(dy, ny)), h);
    const __m256 sign = _mm256_set1_ps(-0.0f), one = _mm256_set1_ps(1.0f);
    const __m256 g = _mm256_add_ps(_mm256_andnot_ps(sign, nx), _mm256_andnot_ps(sign, ny));
    const __m256 e = _mm256_fmadd_ps(g, _mm256_set1_ps(REEL_BUMPMAP_FAST_E_PER_TILT),
                                     _mm256_mul_ps(_mm256_min_ps(g, one), _mm256_set1_ps(REEL_BUMPMAP_FAST_E_ROUNDING)));
    const __m256i low = _mm256_cvttps_epi32(_mm256_sub_ps(sf, e));
    const __m256i high = _mm256_cvttps_epi32(_mm256_add_ps(sf, e));
    // trunc(clamp(sf, -127, 127)) + 65 = clamp(trunc(sf) + 65, 0, 192) for finite sf
    *index = _mm256_min_epi32(_mm256_max_epi32(_mm256_add_epi32(low, _mm256_set1_epi32(REEL_BUMPMAP_FAST_OFFSET)),
                                               _mm256_setzero_si256()),
                              _mm256_set1_epi32(REEL_BUMPMAP_FAST_OFFSET + (int32_t)REEL_BUMPMAP_S_LIMIT));
    return _mm256_movemask_epi8(_mm256_cmpeq_epi32(low, high)) == -1;
}

// Eight look-up words from eight phong indices and the colour texels.
REEL_BUMPMAP_AVX2 static inline void reel_bumpmap_store8(uint32_t* word, const uint8_t* color, __m256i index)
{
    const __m256i c = _mm256_cvtepu8_epi32(_mm_loadl_epi64((const __m128i*)color));
    _mm256_storeu_si256((__m256i*)word, _mm256_or_si256(index, _mm256_slli_epi32(c, REEL_BUMPMAP_WORD_COLOR_SHIFT)));
}

// A row's look-up words in groups of eight, in one call so that the constants stay in registers;
// returns how many pixels it did.
REEL_BUMPMAP_AVX2 static int64_t reel_bumpmap_words_row8(uint32_t* word, const float* px, float py, float lx, float ly,
                                                         const uint32_t* bump, const uint8_t* color, int64_t count)
{
    if (count < 8)
        return 0;
    const __m256 k_table = _mm256_loadu_ps(reel_bumpmap_k_table);
    const float dy = ly - py, dy2 = dy * dy;
    // dx is monotonic along the row, so its ends bound every squared distance (NaN fails both)
    const float dx_first = lx - px[0], dx_last = lx - px[count - 1];
    const float dx2_max = std::max(dx_first * dx_first, dx_last * dx_last);
    const bool fast = dy2 >= REEL_BUMPMAP_FAST_DD_MIN && dx2_max + dy2 <= REEL_BUMPMAP_FAST_DD_MAX;
    // the last group ends at the row's end, overlapping the one before: no pixel is left over
    const int64_t groups = (count + 7) / 8;
    auto start = [count](int64_t g) { return std::min(g * 8, count - 8); };
    if (!fast) {
        for (int64_t g = 0; g < groups; g++)
            reel_bumpmap_store8(word + start(g), color + start(g),
                                reel_bumpmap_exact8(px + start(g), py, lx, ly, bump + start(g), k_table));
        return count;
    }
    // groups the estimate cannot decide are listed and redone after the row, without a branch here
    int64_t redo[REEL_BUMPMAP_MAX_WIDTH / 8];
    int64_t redo_count = 0;
    const __m256 dy8 = _mm256_set1_ps(dy), dy2_8 = _mm256_set1_ps(dy2), lx8 = _mm256_set1_ps(lx);
    for (int64_t g = 0; g < groups; g++) {
        const int64_t i = start(g);
        __m256i index;
        const bool decided = reel_bumpmap_fast8(&index, px + i, dy8, dy2_8, lx8, bump + i);
        redo[redo_count] = i;
        redo_count += !decided;
        reel_bumpmap_store8(word + i, color + i, index);
    }
    for (int64_t k = 0; k < redo_count; k++) {
        const int64_t i = redo[k];
        reel_bumpmap_store8(word + i, color + i, reel_bumpmap_exact8(px + i, py, lx, ly, bump + i, k_table));
    }
    return count;
}
#endif

static int32_t reel_bumpmap_kernels = -1;  // chosen at the first draw unless set before

reel_bumpmap_kernel_set reel_bumpmap_use_kernels(reel_bumpmap_kernel_set wanted)
{
    reel_bumpmap_kernel_set use = REEL_BUMPMAP_KERNELS_PORTABLE;
#if defined(REEL_BUMPMAP_AVX2)
    if (wanted == REEL_BUMPMAP_KERNELS_AVX2 && __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")) {
        use = REEL_BUMPMAP_KERNELS_AVX2;
        for (int32_t i = 0; i < REEL_BUMPMAP_K_STEPS; i++) {
            const int32_t bits = REEL_BUMPMAP_K_FIRST_BITS + i;
            float v;
            memcpy(&v, &bits, sizeof(v));
            reel_bumpmap_k_table[i] = 1.0f / sqrtf(v);
        }
    }
#endif
    reel_bumpmap_kernels = (int32_t)use;
    return use;
}

void reel_bumpmap_check_textures(const n3d_texture* bump, const n3d_texture* color)
{
    if (bump->log2_w != color->log2_w || bump->log2_h != color->log2_h) {
        printf("bumpmap must have same width height as texture (%d %d vs %d %d)\n", 1 << bump->log2_w,
               1 << bump->log2_h, 1 << color->log2_w, 1 << color->log2_h);
        fflush(stdout);
        exit(1);
    }
    if (color->format != N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555 || !color->linear)
        crash_in(REEL_BUMPMAP_FILE, __LINE__, "reel_bumpmap_argb1555",
                 "color texture must not be swizzled (is swizzled: %d) with format "
                 "N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555 (is: %d)\n",
                 color->linear ? 0 : 1, (int)color->format);
    if (bump->format != N3D_TEXEL_FORMAT_BUMPMAP || !bump->linear)
        crash_in(REEL_BUMPMAP_FILE, __LINE__, "reel_bumpmap_argb1555",
                 "bumpmap texture must not be swizzled (is swizzled: %d) with format N3D_TEXEL_FORMAT_BUMPMAP (is: "
                 "%d)\n",
                 bump->linear ? 0 : 1, (int)bump->format);
    // every index of 8-bit texels and every shade must have its entry
    if (!color->shade_table || color->colors_count != 256 || color->shades_per_color != (1u << REEL_BUMPMAP_SHADE_BITS))
        crash_in(REEL_BUMPMAP_FILE, __LINE__, "reel_bumpmap_argb1555",
                 "color texture needs a shade table of 256 colours x 32 shades (has %u x %u)\n", color->colors_count,
                 color->shades_per_color);
}

void reel_bumpmap_argb1555(n3d_framebuffer* fb, float t, int32_t x, int32_t y, int32_t src_x0, int32_t src_y0,
                           int32_t src_x1, int32_t src_y1, const n3d_texture* bump, const n3d_texture* color,
                           const uint8_t* phong)
{
    reel_bumpmap_check_textures(bump, color);
    if (fb->format != N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555 || fb->width > REEL_BUMPMAP_MAX_WIDTH)
        crash_in(REEL_BUMPMAP_FILE, __LINE__, "reel_bumpmap_argb1555",
                 "framebuffer must be N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555 at most %d wide (format %d, width "
                 "%d)\n",
                 REEL_BUMPMAP_MAX_WIDTH, (int)fb->format, fb->width);
    if (src_x0 < 0 || src_y0 < 0)
        crash_in(REEL_BUMPMAP_FILE, __LINE__, "reel_bumpmap_argb1555",
                 "source rectangle must start inside the textures (at %d %d)\n", src_x0, src_y0);

    const int32_t w = src_x1 - src_x0, h = src_y1 - src_y0;  // the normalised positions span these
    if (x < 0)
        src_x0 -= x, x = 0;
    if (y < 0)
        src_y0 -= y, y = 0;
    // Rectangles that reach past the textures are cut at their edges: texel indices do not wrap.
    const int64_t tex_w = 1ll << bump->log2_w, tex_h = 1ll << bump->log2_h;
    int64_t cols = std::min<int64_t>((int64_t)fb->width, (int64_t)x + (src_x1 - src_x0)) - x;
    int64_t rows = std::min<int64_t>((int64_t)fb->height, (int64_t)y + (src_y1 - src_y0)) - y;
    cols = std::min<int64_t>(cols, tex_w - src_x0);
    rows = std::min<int64_t>(rows, tex_h - src_y0);
    if (cols <= 0 || rows <= 0)
        return;

    const double angle = (double)t * 2.0 * std::numbers::pi;
    const float lx = (float)(REEL_BUMPMAP_LIGHT_RADIUS * sin(angle / REEL_BUMPMAP_LIGHT_PERIOD_X));
    const float ly = (float)(REEL_BUMPMAP_LIGHT_RADIUS * cos(angle / REEL_BUMPMAP_LIGHT_PERIOD_Y));

    // px is the same in every row: its additions are made once
    float px[REEL_BUMPMAP_MAX_WIDTH];
    const float step_x = 2.0f / (float)(w - 1), step_y = 2.0f / (float)(h - 1);
    px[0] = REEL_BUMPMAP_PX_START;
    for (int64_t i = 1; i < cols; i++)
        px[i] = px[i - 1] + step_x;

    const uint32_t* bump_texels = (const uint32_t*)bump->mips[0];
    const uint8_t* color_texels = (const uint8_t*)color->mips[0];
    const uint16_t* shades = (const uint16_t*)color->shade_table;
    uint32_t word[REEL_BUMPMAP_MAX_WIDTH];
    if (reel_bumpmap_kernels < 0)
        reel_bumpmap_use_kernels(REEL_BUMPMAP_KERNELS_AVX2);
    const bool avx2 = reel_bumpmap_kernels == REEL_BUMPMAP_KERNELS_AVX2;
    float py = REEL_BUMPMAP_PY_START;
    for (int64_t row = 0; row < rows; row++, py += step_y) {
        const int64_t texel_row = (src_y0 + row) << bump->log2_w;
        const uint32_t* b = bump_texels + texel_row + src_x0;
        const uint8_t* c = color_texels + texel_row + src_x0;
        uint8_t* d = fb->pixels + (int64_t)(y + row) * fb->row_bytes + (int64_t)x * 2;
        int64_t i = 0;
#if defined(REEL_BUMPMAP_AVX2)
        if (avx2)
            i = reel_bumpmap_words_row8(word, px, py, lx, ly, b, c, cols);
#endif
#if defined(__SSE2__)
        for (; i + 4 <= cols; i += 4)
            reel_bumpmap_words4(word + i, px + i, py, lx, ly, b + i, c + i);
#endif
        for (; i < cols; i++)
            word[i] = (uint32_t)c[i] << REEL_BUMPMAP_WORD_COLOR_SHIFT | reel_bumpmap_index(px[i], py, lx, ly, b[i]);

        auto pixel = [&](int64_t k) -> uint16_t {
            return shades[word[k] >> REEL_BUMPMAP_WORD_INDEX_BITS | phong[word[k] & REEL_BUMPMAP_WORD_INDEX]];
        };
        // four pixels per 8-byte store, first pixel lowest: the same bytes as single stores
        for (i = 0; i + 4 <= cols; i += 4) {
            const uint64_t quad = (uint64_t)pixel(i) | (uint64_t)pixel(i + 1) << 16 | (uint64_t)pixel(i + 2) << 32 |
                                  (uint64_t)pixel(i + 3) << 48;
            memcpy(d + i * 2, &quad, sizeof(quad));
        }
        for (; i < cols; i++) {
            const uint16_t p = pixel(i);
            memcpy(d + i * 2, &p, sizeof(p));
        }
    }
}
