// Small fixed-size linear algebra shared by the renderer, the camera, the animated scenes and
// the colour code: 3- and 4-component float vectors, column-major 4 x 4 matrices, unit
// quaternions, a few scalar helpers, colour conversions and the shared PCG32 random generator.
//
// Vectors are plain float arrays (vec3 = float[3], vec4 = float[4]) so that a matrix is four
// vec4 columns and m[c][r] is column c, row r with no casts, and every call reads
// vec3_add(r, a, b). Arrays cannot be assigned: copy with vec3_dup / vec4_dup / mat4x4_dup, or
// put them inside a record. A quat is a vec4 with the real part in element 3; colours are vec4
// RGBA. Column vectors: a point p becomes M x (p, 1), the translation is column 3, and A x B
// applies B first. The storage order is also the order of matrices in files.
//
// All functions work on caller-owned storage, allocate nothing and never fail. Every result may
// share storage with any input (functions that read inputs after writing compute into locals).
// norm of a zero vector and invert of a singular matrix give non-finite values: callers avoid both.
#pragma once

#include <bit>
#include <cmath>
#include <cstdint>

#include "memarena.h"

typedef float vec3[3];
typedef float vec4[4];
typedef vec4 quat;
typedef vec4 mat4x4[4];

static_assert(sizeof(vec3) == 12 && sizeof(vec4) == 16, "vectors are packed floats");
static_assert(sizeof(mat4x4) == 64, "matrices are read from files as 16 consecutive floats");

// ---- vectors ----

static inline void vec3_set(vec3 v, float x, float y, float z)
{
    v[0] = x;
    v[1] = y;
    v[2] = z;
}
static inline void vec4_set(vec4 v, float x, float y, float z, float w)
{
    v[0] = x;
    v[1] = y;
    v[2] = z;
    v[3] = w;
}
static inline void vec3_dup(vec3 r, const vec3 v)
{
    for (int i = 0; i < 3; ++i)
        r[i] = v[i];
}
static inline void vec4_dup(vec4 r, const vec4 v)
{
    for (int i = 0; i < 4; ++i)
        r[i] = v[i];
}
static inline void vec3_add(vec3 r, const vec3 a, const vec3 b)
{
    for (int i = 0; i < 3; ++i)
        r[i] = a[i] + b[i];
}
static inline void vec4_add(vec4 r, const vec4 a, const vec4 b)
{
    for (int i = 0; i < 4; ++i)
        r[i] = a[i] + b[i];
}
static inline void vec3_sub(vec3 r, const vec3 a, const vec3 b)
{
    for (int i = 0; i < 3; ++i)
        r[i] = a[i] - b[i];
}
static inline void vec4_sub(vec4 r, const vec4 a, const vec4 b)
{
    for (int i = 0; i < 4; ++i)
        r[i] = a[i] - b[i];
}
static inline void vec3_scale(vec3 r, const vec3 v, float s)
{
    for (int i = 0; i < 3; ++i)
        r[i] = v[i] * s;
}
static inline void vec4_scale(vec4 r, const vec4 v, float s)
{
    for (int i = 0; i < 4; ++i)
        r[i] = v[i] * s;
}
static inline float vec3_mul_inner(const vec3 a, const vec3 b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }
static inline float vec4_mul_inner(const vec4 a, const vec4 b)
{
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2] + a[3] * b[3];
}
static inline float vec3_len(const vec3 v) { return sqrtf(vec3_mul_inner(v, v)); }
static inline float vec4_len(const vec4 v) { return sqrtf(vec4_mul_inner(v, v)); }
static inline void vec3_norm(vec3 r, const vec3 v) { vec3_scale(r, v, f32_rcp(vec3_len(v))); }
static inline void vec4_norm(vec4 r, const vec4 v) { vec4_scale(r, v, f32_rcp(vec4_len(v))); }

static inline void vec3_mul_cross(vec3 r, const vec3 a, const vec3 b)
{
    const float x = a[1] * b[2] - a[2] * b[1];
    const float y = a[2] * b[0] - a[0] * b[2];
    const float z = a[0] * b[1] - a[1] * b[0];
    vec3_set(r, x, y, z);
}

// t below 0 gives a and above 1 gives b, so animation keys can overshoot their time range.
static inline void vec4_lerp_clamped(vec4 r, const vec4 a, const vec4 b, float t)
{
    if (t < 0.0f) {
        vec4_dup(r, a);
    } else if (t > 1.0f) {
        vec4_dup(r, b);
    } else {
        for (int i = 0; i < 4; ++i)
            r[i] = a[i] * (1.0f - t) + b[i] * t;
    }
}

// ---- matrices ----

static inline void mat4x4_identity(mat4x4 M)
{
    for (int c = 0; c < 4; ++c)
        for (int r = 0; r < 4; ++r)
            M[c][r] = c == r ? 1.0f : 0.0f;
}
// `values` holds 16 floats in storage order: column 0 rows 0-3 first.
static inline void mat4x4_set(mat4x4 M, const float* values)
{
    for (int c = 0; c < 4; ++c)
        for (int r = 0; r < 4; ++r)
            M[c][r] = values[c * 4 + r];
}
static inline void mat4x4_dup(mat4x4 M, const mat4x4 N)
{
    for (int c = 0; c < 4; ++c)
        vec4_dup(M[c], N[c]);
}
static inline void mat4x4_row(vec4 r, const mat4x4 M, int i) { vec4_set(r, M[0][i], M[1][i], M[2][i], M[3][i]); }
static inline void mat4x4_add(mat4x4 M, const mat4x4 a, const mat4x4 b)
{
    for (int c = 0; c < 4; ++c)
        vec4_add(M[c], a[c], b[c]);
}
static inline void mat4x4_sub(mat4x4 M, const mat4x4 a, const mat4x4 b)
{
    for (int c = 0; c < 4; ++c)
        vec4_sub(M[c], a[c], b[c]);
}
static inline void mat4x4_scale(mat4x4 M, const mat4x4 a, float s)
{
    for (int c = 0; c < 4; ++c)
        vec4_scale(M[c], a[c], s);
}
// M = a x diag(x, y, z, 1): the scale acts before a.
static inline void mat4x4_scale_aniso(mat4x4 M, const mat4x4 a, float x, float y, float z)
{
    vec4_scale(M[0], a[0], x);
    vec4_scale(M[1], a[1], y);
    vec4_scale(M[2], a[2], z);
    vec4_dup(M[3], a[3]);
}
static inline void mat4x4_translate(mat4x4 T, float x, float y, float z)
{
    mat4x4_identity(T);
    vec4_set(T[3], x, y, z, 1.0f);
}
// M = M x translate(x, y, z) without the full product: only column 3 changes.
static inline void mat4x4_translate_in_place(mat4x4 M, float x, float y, float z)
{
    for (int i = 0; i < 4; ++i)
        M[3][i] += M[0][i] * x + M[1][i] * y + M[2][i] * z;
}
// The 3 x 3 part is a b^T; row 3 and column 3 are zero, M[3][3] included.
static inline void mat4x4_from_vec3_mul_outer(mat4x4 M, const vec3 a, const vec3 b)
{
    vec3 u, v;  // a or b may be a column of M
    vec3_dup(u, a);
    vec3_dup(v, b);
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j)
            M[i][j] = i < 3 && j < 3 ? u[i] * v[j] : 0.0f;
}
static inline void mat4x4_mul_vec4(vec4 r, const mat4x4 M, const vec4 v)
{
    vec4 t;
    for (int i = 0; i < 4; ++i)
        t[i] = M[0][i] * v[0] + M[1][i] * v[1] + M[2][i] * v[2] + M[3][i] * v[3];
    vec4_dup(r, t);
}
// w = 1 transforms a point, w = 0 a direction.
static inline void mat4x4_mul_vec3(vec3 r, const mat4x4 M, const vec3 v, float w)
{
    vec3 t;
    for (int i = 0; i < 3; ++i)
        t[i] = M[0][i] * v[0] + M[1][i] * v[1] + M[2][i] * v[2] + M[3][i] * w;
    vec3_dup(r, t);
}

void mat4x4_mul(mat4x4 M, const mat4x4 a, const mat4x4 b);
void mat4x4_invert(mat4x4 T, const mat4x4 M);
// R = M x rotation by `angle` radians about (x, y, z); an axis shorter than 0.0001 copies M.
void mat4x4_rotate(mat4x4 R, const mat4x4 M, float x, float y, float z, float angle);
// World to a right-handed camera space that looks down -z with +y up.
void mat4x4_look_at(mat4x4 M, const vec3 eye, const vec3 center, const vec3 up);
void mat4x4_from_quat(mat4x4 M, const quat q);

// ---- quaternions ----

// q2 is never negated: keys whose dot product is negative take the longer arc, as authored.
void quat_slerp(quat r, const quat q1, const quat q2, float t);

// ---- scalars ----

// Smallest k with 2^k >= v; v = 0 is a broken contract and stops the program.
static inline uint32_t ceil_log2(uint32_t v) { return u32_log2_ceil(v); }
static inline uint32_t count_leading_zeros(uint32_t v) { return u32_clz_or_32(v); }
// Reciprocal (f32_rcp), reciprocal square root (f32_rsqrt) and rounding to the nearest integer
// (f32_round_to_int) come from memarena.h; the quotient completes the set.
static inline float f32_div(float a, float b) { return a / b; }

// ---- colour (RGBA vec4, channels in [0, 1]) ----

double srgb_to_linear(double v);
double linear_to_srgb(double v);

void color_bytes_to_floats(vec4 r, const uint8_t* rgba);
// Each channel becomes trunc(clamp(255 c, 0, 255)), so 0.5 gives 127; NaN gives 0.
void color_floats_to_bytes(uint8_t* rgba, const vec4 c);
// Encodes red, green and blue with linear_to_srgb; alpha is stored as it is.
void color_linear_to_srgb_bytes(uint8_t* rgba, const vec4 c);
// Decodes red, green and blue with srgb_to_linear; alpha is byte / 255.
void color_srgb_bytes_to_linear(vec4 r, const uint8_t* rgba);
// The same for a packed 0xRRGGBBAA value.
void color_srgb_u32_to_linear(vec4 r, uint32_t rrggbbaa);
void color_premultiply(vec4 r, const vec4 c);
// src (straight alpha) over dst.
void color_blend_over(vec4 r, const vec4 dst, const vec4 src);

// ---- random numbers ----

// PCG32 with 64-bit state and 32-bit output (XSH RR). Effects that must replay identically set
// state and increment directly; the increment must be odd.
struct pcg32 {
    uint64_t state;
    uint64_t increment;
};

static inline uint32_t pcg32_random(pcg32* rng)
{
    const uint64_t old = rng->state;
    rng->state = old * 6364136223846793005ull + rng->increment;
    const uint32_t xorshifted = (uint32_t)(((old >> 18) ^ old) >> 27);
    const uint32_t rot = (uint32_t)(old >> 59);
    // the mask keeps the left shift below 32 when rot is 0
    return (xorshifted >> rot) | (xorshifted << ((32u - rot) & 31u));
}

// [0, 1) with 23 random mantissa bits: a float in [1, 2) built from the bits, then minus 1.
static inline float pcg32_random_float01(pcg32* rng)
{
    const uint32_t bits = 0x3F800000u | (pcg32_random(rng) & 0x7FFFFFu);
    return std::bit_cast<float>(bits) - 1.0f;
}
