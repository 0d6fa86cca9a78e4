// Vector, matrix, quaternion, colour and random-generator math: expected values come from hand
// arithmetic, from a second formula for the same transform, or from a reference written here.
#include "vmath.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <initializer_list>
#include <numbers>

constexpr float kPi = std::numbers::pi_v<float>;

static void expect_near(const float* got, std::initializer_list<float> want, float eps = 1e-5f)
{
    for (size_t i = 0; i < want.size(); ++i)
        EXPECT_NEAR(got[i], want.begin()[i], eps) << "element " << i;
}

static void expect_mat_near(const mat4x4 got, const mat4x4 want, float eps)
{
    for (int i = 0; i < 16; ++i)
        EXPECT_NEAR(got[i / 4][i % 4], want[i / 4][i % 4], eps) << "column " << i / 4 << " row " << i % 4;
}

// M applied to p, as a point (w 1) or a direction (w 0).
static std::array<float, 3> apply(const mat4x4 M, const vec3 p, float w)
{
    std::array<float, 3> r;
    mat4x4_mul_vec3(r.data(), M, p, w);
    return r;
}

TEST(Vmath, ColumnMajorProductInverseRotationAndLookAt)
{
    // translation in elements 12-14, as in files
    const float v[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 10, 20, 30, 1};
    mat4x4 T, I, S, TS;
    mat4x4_set(T, v);
    mat4x4_identity(I);
    mat4x4_scale_aniso(S, I, 2, 3, 4);
    mat4x4_mul(TS, T, S);
    const vec3 p = {1, 2, 3};
    expect_near(apply(TS, p, 1.0f).data(), {12, 26, 42});
    expect_near(apply(TS, p, 0.0f).data(), {2, 6, 12});

    // invertible, with no zero and no symmetry, so swapped indices show up
    const float m[16] = {2, 1, 0.5f, 0.1f, -1, 3, 0.25f, 0, 0.5f, -2, 4, -0.2f, 7, -3, 5, 1};
    mat4x4 M, inv, P, R, Q;
    mat4x4_set(M, m);
    mat4x4_invert(inv, M);
    mat4x4_mul(P, inv, M);
    expect_mat_near(P, I, 1e-5f);
    mat4x4_invert(M, M);  // in place
    expect_mat_near(M, inv, 0.0f);

    // an oblique, not normalised axis against the quaternion formula: |(1, -2, 2)| = 3
    const float h = sinf(0.55f) / 3;
    const quat q = {h, -2 * h, 2 * h, cosf(0.55f)};
    mat4x4_rotate(R, I, 1, -2, 2, 1.1f);
    mat4x4_from_quat(Q, q);
    expect_mat_near(R, Q, 1e-5f);

    // the target lies straight ahead at the eye's distance and world up stays up
    const vec3 eye = {3, 4, 5}, center = {0, 0, 0}, up = {0, 1, 0};
    mat4x4_look_at(P, eye, center, up);
    expect_near(apply(P, center, 1.0f).data(), {0, 0, -sqrtf(50.0f)});
    EXPECT_TRUE(apply(P, up, 0.0f)[1] > 0.0f && fabsf(apply(P, up, 0.0f)[0]) < 1e-6f);
}

// Reference generator written independently: multiply by shift-and-add, rotate one bit at a time.
static uint32_t test_vmath_reference_next(uint64_t* state, uint64_t increment)
{
    const uint64_t old = *state;
    uint64_t product = 0;
    for (int i = 0; i < 64; ++i)
        product += ((6364136223846793005ull >> i) & 1) ? old << i : 0;
    *state = product + increment;
    uint32_t x = (uint32_t)(((old >> 18) ^ old) >> 27);
    for (uint64_t n = old >> 59; n > 0; --n)
        x = (x >> 1) | ((x & 1u) << 31);
    return x;
}

TEST(Vmath, InterpolationColourSrgbTransferAndRandomGenerator)
{
    const vec4 a = {0, 0, 0, 0}, b = {2, 4, 6, 8};
    vec4 l;
    vec4_lerp_clamped(l, a, b, 0.25f);
    expect_near(l, {0.5f, 1, 1.5f, 2});
    vec4_lerp_clamped(l, a, b, 7.0f);
    expect_near(l, {2, 4, 6, 8});
    const quat id = {0, 0, 0, 1}, z90 = {0, 0, sinf(kPi / 4), cosf(kPi / 4)};
    quat r;
    quat_slerp(r, id, z90, 0.5f);
    expect_near(r, {0, 0, sinf(kPi / 8), cosf(kPi / 8)});
    // dot above 0.9995: linear blend, then normalised. q2 is deliberately not unit length so
    // that the arc formula would give q1 instead.
    const quat close = {0.03f, 0, 0, 1};
    quat_slerp(r, id, close, 0.5f);
    const float n = sqrtf(0.015f * 0.015f + 1.0f);
    expect_near(r, {0.015f / n, 0, 0, 1.0f / n}, 1e-6f);

    // linear 0.5 encodes to 187.517 of 255, alpha is not encoded
    uint8_t bytes[4];
    const vec4 colour = {0.5f, 0.0f, 1.0f, 0.5f};
    color_linear_to_srgb_bytes(bytes, colour);
    EXPECT_EQ((uint32_t)(bytes[0] << 24 | bytes[1] << 16 | bytes[2] << 8 | bytes[3]), 0xBB00FF7Fu);
    // floats to bytes: trunc(255 c) clamped, NaN to 0
    const vec4 clamped = {0.999f, -0.5f, 7.0f, NAN};
    color_floats_to_bytes(bytes, clamped);
    EXPECT_EQ((uint32_t)(bytes[0] << 24 | bytes[1] << 16 | bytes[2] << 8 | bytes[3]), 0xFE00FF00u);
    color_srgb_u32_to_linear(l, 0xFF800040u);  // red in the high byte
    expect_near(l, {1.0f, 0.2158605f, 0.0f, 64.0f / 255.0f}, 1e-6f);
    // premultiplied: rgb x alpha; over: dst x (1 - 0.25) + src x 0.25, alpha 0.5 x 0.75 + 0.25
    const vec4 dst = {0.2f, 0.4f, 0.6f, 0.5f}, src = {0, 0, 1, 0.25f};
    color_premultiply(l, dst);
    expect_near(l, {0.1f, 0.2f, 0.3f, 0.5f});
    color_blend_over(l, dst, src);
    expect_near(l, {0.15f, 0.3f, 0.7f, 0.625f});

    const struct { double (*f)(double); double x, y; } cases[] = {
        {srgb_to_linear, 0.5, 0.21404114048223255}, {srgb_to_linear, 0.04045, 0.0031308049535603713},
        {linear_to_srgb, 0.5, 0.7353606352856508}, {linear_to_srgb, 0.003, 0.03876},
        {linear_to_srgb, 0.0031308, 0.040453576944652785}};
    for (const auto& c : cases)
        EXPECT_NEAR(c.f(c.x), c.y, 1e-15) << c.x;

    for (double (*f)(double) : {srgb_to_linear, linear_to_srgb})
        for (double x : {(double)NAN, -0.1, 1.5})
            EXPECT_EQ(f(x), x > 1.0 ? 1.0 : 0.0) << x;
    // the random generator against the reference
    const uint64_t seed = 0x853c49e6748fea9bull, inc = 0xda3e39cb94b95bdbull;
    pcg32 rng = {seed, inc}, f = {seed, inc};
    for (uint64_t i = 0, ref = seed; i < 1000; ++i) {
        const uint32_t want = test_vmath_reference_next(&ref, inc);
        ASSERT_EQ(pcg32_random(&rng), want) << "output " << i;
        ASSERT_EQ(pcg32_random_float01(&f), (float)((double)(want & 0x7FFFFFu) / 8388608.0)) << "output " << i;
    }
}
