// The larger matrix operations (product, inverse, rotation, camera, quaternion to matrix),
// quaternion interpolation and the colour conversions; the small ones are inline in vmath.h.
#include "vmath.h"

#include <cmath>

void mat4x4_mul(mat4x4 M, const mat4x4 a, const mat4x4 b)
{
    // into a temporary first: M may be a or b
    mat4x4 t;
    for (int c = 0; c < 4; ++c)
        for (int r = 0; r < 4; ++r)
            t[c][r] = a[0][r] * b[c][0] + a[1][r] * b[c][1] + a[2][r] * b[c][2] + a[3][r] * b[c][3];
    mat4x4_dup(M, t);
}

// Cofactor expansion through the twelve 2 x 2 determinants of the column pairs (0, 1) and
// (2, 3). The formula is symmetric under transposition, so it holds whether m[i][j] is read as
// column-row or row-column.
void mat4x4_invert(mat4x4 T, const mat4x4 M)
{
    const float(*a)[4] = M;
    float s[6];
    float c[6];
    s[0] = a[0][0] * a[1][1] - a[1][0] * a[0][1];
    s[1] = a[0][0] * a[1][2] - a[1][0] * a[0][2];
    s[2] = a[0][0] * a[1][3] - a[1][0] * a[0][3];
    s[3] = a[0][1] * a[1][2] - a[1][1] * a[0][2];
    s[4] = a[0][1] * a[1][3] - a[1][1] * a[0][3];
    s[5] = a[0][2] * a[1][3] - a[1][2] * a[0][3];

    c[0] = a[2][0] * a[3][1] - a[3][0] * a[2][1];
    c[1] = a[2][0] * a[3][2] - a[3][0] * a[2][2];
    c[2] = a[2][0] * a[3][3] - a[3][0] * a[2][3];
    c[3] = a[2][1] * a[3][2] - a[3][1] * a[2][2];
    c[4] = a[2][1] * a[3][3] - a[3][1] * a[2][3];
    c[5] = a[2][2] * a[3][3] - a[3][2] * a[2][3];

    const float det = s[0] * c[5] - s[1] * c[4] + s[2] * c[3] + s[3] * c[2] - s[4] * c[1] + s[5] * c[0];
    const float idet = 1.0f / det;

    mat4x4 t;
    t[0][0] = (a[1][1] * c[5] - a[1][2] * c[4] + a[1][3] * c[3]) * idet;
    t[0][1] = (-a[0][1] * c[5] + a[0][2] * c[4] - a[0][3] * c[3]) * idet;
    t[0][2] = (a[3][1] * s[5] - a[3][2] * s[4] + a[3][3] * s[3]) * idet;
    t[0][3] = (-a[2][1] * s[5] + a[2][2] * s[4] - a[2][3] * s[3]) * idet;

    t[1][0] = (-a[1][0] * c[5] + a[1][2] * c[2] - a[1][3] * c[1]) * idet;
    t[1][1] = (a[0][0] * c[5] - a[0][2] * c[2] + a[0][3] * c[1]) * idet;
    t[1][2] = (-a[3][0] * s[5] + a[3][2] * s[2] - a[3][3] * s[1]) * idet;
    t[1][3] = (a[2][0] * s[5] - a[2][2] * s[2] + a[2][3] * s[1]) * idet;

    t[2][0] = (a[1][0] * c[4] - a[1][1] * c[2] + a[1][3] * c[0]) * idet;
    t[2][1] = (-a[0][0] * c[4] + a[0][1] * c[2] - a[0][3] * c[0]) * idet;
    t[2][2] = (a[3][0] * s[4] - a[3][1] * s[2] + a[3][3] * s[0]) * idet;
    t[2][3] = (-a[2][0] * s[4] + a[2][1] * s[2] - a[2][3] * s[0]) * idet;

    t[3][0] = (-a[1][0] * c[3] + a[1][1] * c[1] - a[1][2] * c[0]) * idet;
    t[3][1] = (a[0][0] * c[3] - a[0][1] * c[1] + a[0][2] * c[0]) * idet;
    t[3][2] = (-a[3][0] * s[3] + a[3][1] * s[1] - a[3][2] * s[0]) * idet;
    t[3][3] = (a[2][0] * s[3] - a[2][1] * s[1] + a[2][2] * s[0]) * idet;

    mat4x4_dup(T, t);
}

// Axis-angle form: u u^T + (I - u u^T) cos + [u]x sin, the last being the cross-product matrix.
void mat4x4_rotate(mat4x4 R, const mat4x4 M, float x, float y, float z, float angle)
{
    const float s = sinf(angle);
    const float c = cosf(angle);
    vec3 u = {x, y, z};

    // a near-zero axis has no usable direction; leave the matrix as it was
    if (!(vec3_len(u) > 1e-4f)) {
        mat4x4_dup(R, M);
        return;
    }
    vec3_norm(u, u);

    mat4x4 T;
    mat4x4_from_vec3_mul_outer(T, u, u);

    mat4x4 S;
    vec4_set(S[0], 0.0f, u[2], -u[1], 0.0f);
    vec4_set(S[1], -u[2], 0.0f, u[0], 0.0f);
    vec4_set(S[2], u[1], -u[0], 0.0f, 0.0f);
    vec4_set(S[3], 0.0f, 0.0f, 0.0f, 0.0f);
    mat4x4_scale(S, S, s);

    mat4x4 C;
    mat4x4_identity(C);
    mat4x4_sub(C, C, T);
    mat4x4_scale(C, C, c);

    mat4x4_add(T, T, C);
    mat4x4_add(T, T, S);
    T[3][3] = 1.0f;
    mat4x4_mul(R, M, T);
}

void mat4x4_look_at(mat4x4 M, const vec3 eye, const vec3 center, const vec3 up)
{
    vec3 f;
    vec3_sub(f, center, eye);
    vec3_norm(f, f);

    vec3 s;
    vec3_mul_cross(s, f, up);
    vec3_norm(s, s);

    vec3 t;
    vec3_mul_cross(t, s, f);

    // the rows are the camera axes in world space: right, up and backward
    vec4_set(M[0], s[0], t[0], -f[0], 0.0f);
    vec4_set(M[1], s[1], t[1], -f[1], 0.0f);
    vec4_set(M[2], s[2], t[2], -f[2], 0.0f);
    vec4_set(M[3], 0.0f, 0.0f, 0.0f, 1.0f);

    mat4x4_translate_in_place(M, -eye[0], -eye[1], -eye[2]);
}

void mat4x4_from_quat(mat4x4 M, const quat q)
{
    const float a = q[3];
    const float b = q[0];
    const float c = q[1];
    const float d = q[2];
    const float a2 = a * a;
    const float b2 = b * b;
    const float c2 = c * c;
    const float d2 = d * d;

    vec4_set(M[0], a2 + b2 - c2 - d2, 2.0f * (b * c + a * d), 2.0f * (b * d - a * c), 0.0f);
    vec4_set(M[1], 2.0f * (b * c - a * d), a2 - b2 + c2 - d2, 2.0f * (c * d + a * b), 0.0f);
    vec4_set(M[2], 2.0f * (b * d + a * c), 2.0f * (c * d - a * b), a2 - b2 - c2 + d2, 0.0f);
    vec4_set(M[3], 0.0f, 0.0f, 0.0f, 1.0f);
}

void quat_slerp(quat r, const quat q1, const quat q2, float t)
{
    float d = vec4_mul_inner(q1, q2);
    quat out;

    // nearly parallel keys: q2 - q1 d below is too short to normalise reliably
    if (d > 0.9995f) {
        for (int i = 0; i < 4; ++i)
            out[i] = q1[i] + t * (q2[i] - q1[i]);
        vec4_norm(r, out);
        return;
    }

    d = fminf(fmaxf(d, -1.0f), 1.0f);
    // v: the unit direction in q1's plane with q2 that is orthogonal to q1
    quat v;
    for (int i = 0; i < 4; ++i)
        v[i] = q2[i] - q1[i] * d;
    vec4_norm(v, v);

    const float theta = acosf(d) * t;
    const float c = cosf(theta);
    const float s = sinf(theta);
    for (int i = 0; i < 4; ++i)
        out[i] = q1[i] * c + v[i] * s;
    vec4_dup(r, out);
}

// ---- colour ----

double srgb_to_linear(double v)
{
    if (!(v >= 0.0))  // also catches NaN
        return 0.0;
    if (v > 1.0)
        return 1.0;
    if (v <= 0.04045)
        return v / 12.92;
    return pow((v + 0.055) / 1.055, 2.4);
}

double linear_to_srgb(double v)
{
    if (std::isnan(v))
        return 0.0;
    if (v > 1.0)
        return 1.0;
    if (v <= 0.0)
        return 0.0;
    if (v < 0.0031308)
        return 12.92 * v;
    // 0.41666 exactly, not 1 / 2.4: every encoder in the system uses this value so that colours
    // built by different modules agree to the byte
    return 1.055 * pow(v, 0.41666) - 0.055;
}

void color_bytes_to_floats(vec4 r, const uint8_t* rgba)
{
    for (int i = 0; i < 4; ++i)
        r[i] = (float)rgba[i] / 255.0f;
}

void color_floats_to_bytes(uint8_t* rgba, const vec4 c)
{
    for (int i = 0; i < 4; ++i) {
        float v = 255.0f * c[i];
        // written so that NaN lands on 0: converting NaN to an integer is undefined
        if (!(v > 0.0f))
            v = 0.0f;
        if (v > 255.0f)
            v = 255.0f;
        rgba[i] = (uint8_t)v;
    }
}

void color_linear_to_srgb_bytes(uint8_t* rgba, const vec4 c)
{
    vec4 e;
    for (int i = 0; i < 3; ++i)
        e[i] = (float)linear_to_srgb((double)c[i]);
    e[3] = c[3];
    color_floats_to_bytes(rgba, e);
}

void color_srgb_bytes_to_linear(vec4 r, const uint8_t* rgba)
{
    color_bytes_to_floats(r, rgba);
    for (int i = 0; i < 3; ++i)
        r[i] = (float)srgb_to_linear((double)r[i]);
}

void color_srgb_u32_to_linear(vec4 r, uint32_t rrggbbaa)
{
    const uint8_t rgba[4] = {(uint8_t)(rrggbbaa >> 24), (uint8_t)(rrggbbaa >> 16), (uint8_t)(rrggbbaa >> 8),
                             (uint8_t)rrggbbaa};
    color_srgb_bytes_to_linear(r, rgba);
}

void color_premultiply(vec4 r, const vec4 c)
{
    const float a = c[3];
    for (int i = 0; i < 3; ++i)
        r[i] = c[i] * a;
    r[3] = a;
}

void color_blend_over(vec4 r, const vec4 dst, const vec4 src)
{
    const float a = src[3];
    const float keep = 1.0f - a;
    for (int i = 0; i < 3; ++i)
        r[i] = dst[i] * keep + src[i] * a;
    r[3] = dst[3] * keep + a;
}
