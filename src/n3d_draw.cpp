// The rasterizer registry (the table of variants that n3d_init fills once at start-up) and the
// draw functions that bring a mesh's triangles from model space to the variants.
#include "n3d_draw.h"

#include <cmath>
#include <cstdio>
#include <cstring>

#include <emmintrin.h>

#include "diag.h"
#include "n3d_io.h"
#include "n3d_rasterizers.h"

n3d_rasterizer_entry n3d_rasterizer_table[N3D_RASTERIZER_TABLE_CAPACITY];
uint32_t n3d_rasterizer_table_count;

void n3d_register_rasterizer(const char* name, uint32_t attribute_count, n3d_rasterizer_fn* rasterizer,
                             n3d_rasterizer_names_fn* names, uint32_t flags, const char* file, int line)
{
    for (uint32_t i = 0; i < n3d_rasterizer_table_count; i++)
        if (n3d_rasterizer_table[i].flags == flags)
            crash_in("src/n3d_draw", __LINE__, "n3d_register_rasterizer",
                     "a rasterizer with these flags were already regisered! flags: %d (this one was at: %s:%d)\n",
                     (int)flags, file, line);
    if (n3d_rasterizer_table_count == N3D_RASTERIZER_TABLE_CAPACITY)
        crash_in("src/n3d_draw", __LINE__, "n3d_register_rasterizer", "rasterizer table is full (%u entries)\n",
                 N3D_RASTERIZER_TABLE_CAPACITY);
    n3d_rasterizer_entry* e = &n3d_rasterizer_table[n3d_rasterizer_table_count++];
    memset(e, 0, sizeof(*e));
    e->flags = flags;
    e->name = name;
    e->attribute_count = attribute_count;
    e->rasterizer = rasterizer;
    e->names = names;
    names(e);
}

int32_t n3d_find_rasterizer(uint32_t flags)
{
    for (uint32_t i = 0; i < n3d_rasterizer_table_count; i++)
        if (n3d_rasterizer_table[i].flags == flags)
            return (int32_t)i;
    return -1;
}

// ---- draw functions ----
//
// Per call: the checks, the variant, the viewport folded into the matrix and the scratch. Per
// chunk of triangles (the index's chunks, or N3D_DRAW_PLAIN_TRIANGLES of a plain list whose
// every corner is a vertex): every distinct vertex transformed to clip space with its outcode
// and projected, four at a time; then each triangle's path is decided (dropped when
// all its vertices are outside one plane, or when none is outside anything and its projected
// area is not positive; drawn directly when none is outside anything; clipped otherwise), and
// only the vertices of triangles that are drawn get their phong terms. Then, triangle by
// triangle in order: drawn directly from the projected vertices, or clipped against the near
// plane in clip space, projected, clipped against the four screen edges and drawn as a fan.

uint32_t n3d_current_triangle_id;

namespace {

enum n3d_draw_kind : uint32_t {
    N3D_DRAW_KIND_DEFAULT,
    N3D_DRAW_KIND_SKINNED,
    N3D_DRAW_KIND_PHONG,
};

// Outcode bits: the four screen edges (projected x in [0, width], y in [0, height]; the half
// pixel is the pixel-centre offset of the projection), the near plane and the far plane.
enum : uint32_t {
    N3D_OUT_LEFT = 1,
    N3D_OUT_RIGHT = 2,
    N3D_OUT_TOP = 4,
    N3D_OUT_BOTTOM = 8,
    N3D_OUT_NEAR = 16,
    N3D_OUT_FAR = 32,
};

// The variants a draw mode picks when the call names none; each must match the registry entry
// of the variant named beside it.
constexpr uint32_t N3D_CHOICE_T0I8 =  // n3d_render_triangle_v8_argb1555_t0i8argb1555
    N3D_RASTERIZER_FB_ARGB1555 | N3D_RASTERIZER_T0_I8ARGB1555;
constexpr uint32_t N3D_CHOICE_T0I8_COVRW01 =  // n3d_render_triangle_v8_argb1555_t0i8argb1555_covrw01
    N3D_CHOICE_T0I8 | N3D_RASTERIZER_COVERAGE_WRITE;
constexpr uint32_t N3D_CHOICE_T0ARGB =  // n3d_render_triangle_v8_argb1555_t0argb1555
    N3D_RASTERIZER_FB_ARGB1555 | N3D_RASTERIZER_T0_ARGB1555;
constexpr uint32_t N3D_CHOICE_PHONG_T0ARGB =  // n3d_render_triangle_v8_phong_argb1555_t0argb1555
    N3D_CHOICE_T0ARGB | N3D_RASTERIZER_PHONG;
constexpr uint32_t N3D_CHOICE_PHONG_T0I8 =  // n3d_render_triangle_v8_phong_argb1555_t0i8argb1555
    N3D_CHOICE_T0I8 | N3D_RASTERIZER_PHONG;
constexpr uint32_t N3D_CHOICE_PHONG_T0I8_COVRW01 =  // n3d_render_triangle_v8_phong_argb1555_t0i8argb1555_covrw01
    N3D_CHOICE_PHONG_T0I8 | N3D_RASTERIZER_COVERAGE_WRITE;
constexpr uint32_t N3D_CHOICE_PHONG_T0I8_COVRW01_ZBUFFRW11 =  // ..._t0i8argb1555_covrw01_zbuffrw11
    N3D_CHOICE_PHONG_T0I8_COVRW01 | N3D_RASTERIZER_ZBUFFER_READ | N3D_RASTERIZER_ZBUFFER_WRITE;

// After the near clip a camera's projection leaves w' >= its near plane, so projected
// coordinates stay moderate; far beyond them lies w' near 0 under other matrices, and such a
// polygon is dropped before the differences of its coordinates could overflow.
constexpr float N3D_CLIP_COORD_LIMIT = 1e30f;

typedef float n3d_clip_vertex_floats[N3D_CLIP_VERTEX_FLOATS];

// A batch vertex: clip coordinates with the viewport folded in, and its attributes (u, v, and
// for phong p0, p1) before the multiplication by iw.
struct n3d_batch_vertex {
    float clip[4];
    float attr[4];
};

// What the per-triangle code needs of the frame.
struct n3d_draw_frame {
    float hw, hh;           // half the framebuffer's width and height
    float width, height;    // the projected area [0, width] x [0, height]
    float guard_x_lo, guard_x_hi, guard_y_lo, guard_y_hi;  // hw + 0.5, hw - 0.5, hh + 0.5, hh - 0.5
    // The affine variant interpolates its texture coordinates linearly on screen: it gets u
    // and v themselves, so that it textures like an affine mapper, not u * iw, which it
    // could not divide back (the perspective variants, mipconst included, get u * iw).
    uint32_t attributes_times_iw;
};

uint32_t n3d_draw_choose_flags(n3d_draw_kind kind, uint32_t m)
{
    if (kind == N3D_DRAW_KIND_PHONG) {
        if (!(m & N3D_DRAW_MODE_TEXTURE0_INDEX8_ARGB1555))
            return N3D_CHOICE_PHONG_T0ARGB;
        if (m & N3D_DRAW_MODE_COVERAGE)
            return (m & N3D_DRAW_MODE_ZBUFFER) ? N3D_CHOICE_PHONG_T0I8_COVRW01_ZBUFFRW11
                                               : N3D_CHOICE_PHONG_T0I8_COVRW01;
        return N3D_CHOICE_PHONG_T0I8;
    }
    if (m & N3D_DRAW_MODE_TEXTURE0_INDEX8_ARGB1555)
        return (m & N3D_DRAW_MODE_COVERAGE) ? N3D_CHOICE_T0I8_COVRW01 : N3D_CHOICE_T0I8;
    return N3D_CHOICE_T0ARGB;
}

// The checks every draw function starts with, in their order; returns the variant to draw with.
n3d_rasterizer_entry* n3d_draw_prepare(const n3d_draw_call* call, n3d_draw_kind kind, const char* function)
{
    if (call->fc->framebuffer->format != N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555)
        crash_in("src/n3d_draw", __LINE__, function, "framebuffer only 16bpp supported for now\n");
    const n3d_texture* texture0 = call->textures ? call->textures->texture0 : nullptr;
    if (!texture0)
        crash_in("src/n3d_draw", __LINE__, function, "texture0 is null!\n");
    if (texture0->linear)
        crash_in("src/n3d_draw", __LINE__, function,
                 "texture0 is not swizzled! (all rasterizers require textures that are swizzled!\n");

    const uint32_t m = call->draw_mode;
    const uint32_t f = call->rasterizer_flags;
    int32_t index;
    if (f != 0) {
        index = n3d_find_rasterizer(f);
        if (index < 0)
            crash_in("src/n3d_draw", __LINE__, function,
                     "could not find rasterizer with flags: %d (maybe combination is not generated, see "
                     "n3d_rasterizers.h)\n",
                     (int)f);
        if ((m & N3D_DRAW_MODE_DEFAULT) && (f & N3D_RASTERIZER_PHONG))
            crash_in("src/n3d_draw", __LINE__, function,
                     "N3D_DRAW_MODE_DEFAULT not compatible with N3D_RASTERIZER_PHONG\n");
        if ((m & N3D_DRAW_MODE_DEFAULT) && (f & N3D_RASTERIZER_AFFINE))
            crash_in("src/n3d_draw", __LINE__, function,
                     "N3D_DRAW_MODE_DEFAULT not compatible with N3D_RASTERIZER_AFFINE\n");
        if (!(m & N3D_DRAW_MODE_PHONG) && (f & N3D_RASTERIZER_PHONG))
            crash_in("src/n3d_draw", __LINE__, function, "N3D_RASTERIZER_PHONG requires N3D_DRAW_MODE_PHONG\n");
        if ((m & N3D_DRAW_MODE_PHONG) && !(f & N3D_RASTERIZER_PHONG))
            crash_in("src/n3d_draw", __LINE__, function, "N3D_DRAW_MODE_PHONG requires N3D_RASTERIZER_PHONG\n");
        if (!(m & N3D_DRAW_MODE_TEXTURE0_INDEX8_ARGB1555) && (f & N3D_RASTERIZER_T0_I8ARGB1555))
            crash_in("src/n3d_draw", __LINE__, function,
                     "N3D_RASTERIZER_T0_I8ARGB1555 requires N3D_DRAW_MODE_TEXTURE0_INDEX8_ARGB1555\n");
        // the draw-mode bit 128 also stands for an ARGB1555 texture 0
        if (!(m & N3D_DRAW_MODE_TEXTURE0_INDEX8_ARGB1555) && (f & N3D_RASTERIZER_T0_ARGB1555))
            crash_in("src/n3d_draw", __LINE__, function,
                     "N3D_RASTERIZER_T0_ARGB1555 requires N3D_DRAW_MODE_TEXTURE0_ARGB1555\n");
        if ((m & N3D_DRAW_MODE_TEXTURE0_INDEX8_ARGB1555) &&
            !(f & (N3D_RASTERIZER_T0_I8ARGB1555 | N3D_RASTERIZER_T0_ARGB1555)))
            crash_in("src/n3d_draw", __LINE__, function,
                     "N3D_DRAW_MODE_TEXTURE0_INDEX8_ARGB1555 requires either N3D_RASTERIZER_T0_ARGB1555 or "
                     "N3D_RASTERIZER_T0_ARGB1555\n");
    } else {
        const uint32_t chosen = n3d_draw_choose_flags(kind, m);
        index = n3d_find_rasterizer(chosen);
        if (index < 0)
            crash_in("src/n3d_draw", __LINE__, function,
                     "could not find rasterizer with flags: %d (maybe combination is not generated, see "
                     "n3d_rasterizers.h)\n",
                     (int)chosen);
    }
    n3d_rasterizer_entry* entry = &n3d_rasterizer_table[index];

    // what the vertex loop and the variant read without looking again
    const n3d_vertices* v = call->vertices;
    if (!v || !v->xyz || !v->uv0)
        crash_in("src/n3d_draw", __LINE__, function, "vertices need xyz and uv0!\n");
    if (call->triangle_count < 0 || (uint32_t)call->triangle_count > v->count / 3)
        crash_in("src/n3d_draw", __LINE__, function, "triangle_count %d but the vertices hold %u triangles\n",
                 (int)call->triangle_count, v->count / 3);
    if (call->index && call->index->triangle_count != (uint32_t)call->triangle_count)
        crash_in("src/n3d_draw", __LINE__, function, "the vertex index holds %u triangles but the call draws %d\n",
                 call->index->triangle_count, (int)call->triangle_count);
    if (kind == N3D_DRAW_KIND_SKINNED && (!v->joints || !v->weights || !call->skin_matrices))
        crash_in("src/n3d_draw", __LINE__, function, "skinned drawing needs joints, weights and skin_matrices!\n");
    // the half vector is projected on tangent and bitangent only: normals may be absent
    if (kind == N3D_DRAW_KIND_PHONG && (!v->t_xyz || !v->b_xyz))
        crash_in("src/n3d_draw", __LINE__, function, "phong drawing needs t_xyz and b_xyz!\n");
    const uint32_t attributes = kind == N3D_DRAW_KIND_PHONG ? 4 : 2;
    if (entry->attribute_count != attributes)
        crash_in("src/n3d_draw", __LINE__, function, "%s interpolates %u attributes but %s hands it %u\n",
                 entry->name, entry->attribute_count, function, attributes);
    if ((entry->flags & N3D_RASTERIZER_PHONG) && !call->textures->phong_table)
        crash_in("src/n3d_draw", __LINE__, function, "%s needs a phong table but slot 1 is null!\n", entry->name);
    return entry;
}

inline float n3d_draw_clamp(float x, float lo, float hi) { return x < lo ? lo : (x > hi ? hi : x); }

// Projects a clip-space vertex: x, y, iw and the attributes (times iw but for the affine variant).
template <int Attrs>
inline void n3d_draw_project(float* out, const n3d_batch_vertex& v, const n3d_draw_frame& fr)
{
    const float iw = 1.0f / v.clip[3];
    out[0] = v.clip[0] * iw + fr.hw + 0.5f;
    out[1] = v.clip[1] * iw + fr.hh + 0.5f;
    out[2] = iw;
    const float scale = fr.attributes_times_iw ? iw : 1.0f;
    for (int a = 0; a < Attrs; a++)
        out[3 + a] = v.attr[a] * scale;
}

inline float n3d_draw_area(const float* v0, const float* v1, const float* v2)
{
    return (v1[0] - v2[0]) * (v0[1] - v2[1]) - (v0[0] - v2[0]) * (v1[1] - v2[1]);
}

// Gradients, depth normalisation and the variant's call for the triangle in rc->vertices.
template <int Attrs>
inline int32_t n3d_draw_raster(n3d_raster_call* rc, float area, uint32_t triangle_id)
{
    const float(*v)[7] = rc->vertices;
    const float dx02 = v[0][0] - v[2][0], dx12 = v[1][0] - v[2][0];
    const float dy02 = v[0][1] - v[2][1], dy12 = v[1][1] - v[2][1];
    const float inv_area = 1.0f / area;
    // gradient order: the attributes times iw, then iw
    int a = 0;
    if constexpr (Attrs == 4) {
        // the four attributes side by side in lanes, each as the loop below computes it
        const __m128 v0 = _mm_loadu_ps(&v[0][3]), v1 = _mm_loadu_ps(&v[1][3]), v2 = _mm_loadu_ps(&v[2][3]);
        const __m128 d0 = _mm_sub_ps(v0, v2), d1 = _mm_sub_ps(v1, v2);
        const __m128 inv = _mm_set1_ps(inv_area);
        const __m128 gx = _mm_sub_ps(_mm_mul_ps(d1, _mm_set1_ps(dy02)), _mm_mul_ps(d0, _mm_set1_ps(dy12)));
        const __m128 gy = _mm_sub_ps(_mm_mul_ps(d1, _mm_set1_ps(dx02)), _mm_mul_ps(d0, _mm_set1_ps(dx12)));
        _mm_storeu_ps(rc->grad_x, _mm_mul_ps(gx, inv));
        _mm_storeu_ps(rc->grad_y, _mm_mul_ps(_mm_xor_ps(gy, _mm_set1_ps(-0.0f)), inv));
        a = 4;
    }
    for (; a <= Attrs; a++) {
        const int k = a < Attrs ? 3 + a : 2;
        const float d0 = v[0][k] - v[2][k];
        const float d1 = v[1][k] - v[2][k];
        rc->grad_x[a] = (d1 * dy02 - d0 * dy12) * inv_area;
        rc->grad_y[a] = -(d1 * dx02 - d0 * dx12) * inv_area;
    }
    float max_iw = v[0][2] > v[1][2] ? v[0][2] : v[1][2];
    max_iw = v[2][2] > max_iw ? v[2][2] : max_iw;
    rc->depth_norm = 1.0f / max_iw;
    rc->area = area;
    rc->triangle_id = triangle_id;
    n3d_current_triangle_id = triangle_id;
    return rc->entry->rasterizer(rc) == 1 ? 1 : 0;
}

// Clips against the near plane (z' >= -w') in clip space and projects what remains into out.
// Returns the vertex count, or 0 when the polygon vanishes or cannot be projected.
template <int Attrs>
int n3d_draw_clip_near(const n3d_batch_vertex* tri, n3d_clip_vertex_floats* out, const n3d_draw_frame& fr)
{
    int n = 0;
    const n3d_batch_vertex* prev = &tri[2];
    float d_prev = prev->clip[2] + prev->clip[3];
    for (int i = 0; i < 3; i++) {
        const n3d_batch_vertex* cur = &tri[i];
        const float d_cur = cur->clip[2] + cur->clip[3];
        if ((d_cur >= 0.0f) != (d_prev >= 0.0f)) {
            const float t = d_prev / (d_prev - d_cur);
            n3d_batch_vertex nv;
            for (int k = 0; k < 4; k++)
                nv.clip[k] = prev->clip[k] + t * (cur->clip[k] - prev->clip[k]);
            for (int k = 0; k < Attrs; k++)
                nv.attr[k] = prev->attr[k] + t * (cur->attr[k] - prev->attr[k]);
            n3d_draw_project<Attrs>(out[n++], nv, fr);
        }
        if (d_cur >= 0.0f)
            n3d_draw_project<Attrs>(out[n++], *cur, fr);
        prev = cur;
        d_prev = d_cur;
    }
    // A camera's projection leaves w' >= its near plane here; other matrices can leave w' <= 0
    // in the kept half-space, which would mirror the polygon through the eye.
    for (int i = 0; i < n; i++)
        if (!(out[i][2] > 0.0f) || !(fabsf(out[i][0]) < N3D_CLIP_COORD_LIMIT) ||
            !(fabsf(out[i][1]) < N3D_CLIP_COORD_LIMIT))
            return 0;
    return n;
}

// One screen edge: keeps the side where sign * (coordinate - edge) >= 0. New vertices get the
// edge value itself. other_max >= 0 clamps the other coordinate to [0, other_max]: it was clipped
// already, and interpolating between two values inside can round one step past its edge.
template <int Floats>
int n3d_draw_clip_edge(const n3d_clip_vertex_floats* in, int n, n3d_clip_vertex_floats* out, int axis, float edge,
                       float sign, float other_max)
{
    if (n < 3)
        return 0;
    int m = 0;
    const float* prev = in[n - 1];
    float d_prev = sign * (prev[axis] - edge);
    for (int i = 0; i < n; i++) {
        const float* cur = in[i];
        const float d_cur = sign * (cur[axis] - edge);
        if ((d_cur >= 0.0f) != (d_prev >= 0.0f)) {
            // a convex polygon gains at most one vertex per edge; a sliver that rounding made
            // concave could gain more and is dropped instead
            if (m == (int)N3D_CLIP_MAX_VERTICES)
                return 0;
            const float t = d_prev / (d_prev - d_cur);
            float* nv = out[m++];
            for (int k = 0; k < Floats; k++)
                nv[k] = prev[k] + t * (cur[k] - prev[k]);
            nv[axis] = edge;
            if (other_max >= 0.0f)
                nv[1 - axis] = n3d_draw_clamp(nv[1 - axis], 0.0f, other_max);
        }
        if (d_cur >= 0.0f) {
            if (m == (int)N3D_CLIP_MAX_VERTICES)
                return 0;
            float* nv = out[m++];
            for (int k = 0; k < Floats; k++)
                nv[k] = cur[k];
        }
        prev = cur;
        d_prev = d_cur;
    }
    return m;
}

// The clipping path of one triangle; a and b are the two scratch polygons.
template <int Attrs>
int32_t n3d_draw_clipped(n3d_raster_call* rc, const n3d_batch_vertex* tri, const n3d_draw_frame& fr,
                         n3d_clip_vertex_floats* a, n3d_clip_vertex_floats* b, uint32_t triangle_id)
{
    constexpr int floats = 3 + Attrs;
    int n = n3d_draw_clip_near<Attrs>(tri, a, fr);
    n = n3d_draw_clip_edge<floats>(a, n, b, 0, 0.0f, 1.0f, -1.0f);
    n = n3d_draw_clip_edge<floats>(b, n, a, 0, fr.width, -1.0f, -1.0f);
    n = n3d_draw_clip_edge<floats>(a, n, b, 1, 0.0f, 1.0f, fr.width);
    n = n3d_draw_clip_edge<floats>(b, n, a, 1, fr.height, -1.0f, fr.width);
    int32_t drawn = 0;
    for (int i = 1; i + 1 < n; i++) {
        const float area = n3d_draw_area(a[0], a[i], a[i + 1]);
        if (!(area >= 0.0f))
            continue;
        for (int k = 0; k < floats; k++) {
            rc->vertices[0][k] = a[0][k];
            rc->vertices[1][k] = a[i][k];
            rc->vertices[2][k] = a[i + 1][k];
        }
        drawn += n3d_draw_raster<Attrs>(rc, area, triangle_id);
    }
    return drawn;
}

// Outcodes, projection and lighting run on four vertices at once in SSE2 lanes (the x86-64
// baseline). Every lane performs the scalar operations in the scalar order, so the results are
// bit for bit those of one vertex at a time.
typedef __m128 n3d_lanes;

inline n3d_lanes n3d_lanes_set(float x) { return _mm_set1_ps(x); }

// x < lo ? lo : (x > hi ? hi : x), NaN passing through as in n3d_draw_clamp: max and min
// return their second operand when the comparison fails.
inline n3d_lanes n3d_lanes_clamp(n3d_lanes x, n3d_lanes lo, n3d_lanes hi)
{
    return _mm_min_ps(hi, _mm_max_ps(lo, x));
}

// (float)(1 / sqrt((double)x)) per lane, as f32_rsqrt computes it.
inline n3d_lanes n3d_lanes_rsqrt(n3d_lanes x)
{
    const __m128d one = _mm_set1_pd(1.0);
    const __m128d lo = _mm_div_pd(one, _mm_sqrt_pd(_mm_cvtps_pd(x)));
    const __m128d hi = _mm_div_pd(one, _mm_sqrt_pd(_mm_cvtps_pd(_mm_movehl_ps(x, x))));
    return _mm_movelh_ps(_mm_cvtpd_ps(lo), _mm_cvtpd_ps(hi));
}

// (a0 b0 + a1 b1) + a2 b2, as vec3_mul_inner.
inline n3d_lanes n3d_lanes_dot(const n3d_lanes* a, const n3d_lanes* b)
{
    return _mm_add_ps(_mm_add_ps(_mm_mul_ps(a[0], b[0]), _mm_mul_ps(a[1], b[1])), _mm_mul_ps(a[2], b[2]));
}

inline void n3d_lanes_normalize(n3d_lanes* v)
{
    const n3d_lanes s = n3d_lanes_rsqrt(n3d_lanes_dot(v, v));
    for (int c = 0; c < 3; c++)
        v[c] = _mm_mul_ps(v[c], s);
}

// bit where the lanes' comparison holds
inline __m128i n3d_lanes_bit(n3d_lanes mask, uint32_t bit)
{
    return _mm_and_si128(_mm_castps_si128(mask), _mm_set1_epi32((int)bit));
}

// Set beside the outcode bits: w' is not above 0 (NaN included), so the vertex cannot be
// projected as it is. It takes no part in the test of all vertices outside one plane.
constexpr uint32_t N3D_OUT_UNPROJECTABLE = 64;
constexpr uint32_t N3D_OUT_PLANES = 63;

// A chunk of the call's triangles (N3D_DRAW_PLAIN_TRIANGLES of a plain list, or one chunk of its
// index) and its distinct vertices, one array per component (clip and attr are
// n3d_batch_vertex's fields, outcode has the N3D_OUT_ bits), but for proj: each vertex's
// projected floats of the direct path (x and y clamped to the frame), ready to be copied for the
// rasterizer. Vertex slots are the places in the chunk's list of distinct vertices.
constexpr int32_t N3D_DRAW_BATCH_VERTICES = (int32_t)N3D_DRAW_CHUNK_VERTICES;
constexpr int32_t N3D_DRAW_BATCH_TRIANGLES = (int32_t)N3D_DRAW_CHUNK_TRIANGLES;
constexpr int32_t N3D_DRAW_PLAIN_TRIANGLES = N3D_DRAW_BATCH_VERTICES / 3;  // a corner is a vertex

struct n3d_draw_batch {
    alignas(16) float clip[4][N3D_DRAW_BATCH_VERTICES];
    alignas(16) float attr[4][N3D_DRAW_BATCH_VERTICES];
    alignas(16) float proj[N3D_DRAW_BATCH_VERTICES][8];  // vertex by vertex, as the rasterizer reads it
    alignas(16) float scale[N3D_DRAW_BATCH_VERTICES];  // what the attributes are multiplied by: iw or 1
    alignas(16) uint32_t outcode[N3D_DRAW_BATCH_VERTICES];
    // per triangle: how it is drawn, and for N3D_DRAW_DIRECT its area
    uint32_t path[N3D_DRAW_BATCH_TRIANGLES];
    float area[N3D_DRAW_BATCH_TRIANGLES];
    // the slots of the vertices of triangles that are drawn, each once, in order of first use
    int32_t lit[N3D_DRAW_BATCH_VERTICES + 3];
    uint8_t is_lit[N3D_DRAW_BATCH_VERTICES];
    // the chunk's vertices (indices into the call's vertex arrays) and its corners' slots
    uint32_t plain_vertices[N3D_DRAW_BATCH_VERTICES];
};

// The corners of a plain list's chunk: corner k is slot k.
struct n3d_draw_identity {
    uint16_t slot[N3D_DRAW_BATCH_VERTICES];
    constexpr n3d_draw_identity() : slot()
    {
        for (int32_t k = 0; k < N3D_DRAW_BATCH_VERTICES; k++)
            slot[k] = (uint16_t)k;
    }
};
constexpr n3d_draw_identity n3d_draw_plain_corners;

// How a batch triangle is drawn: not at all (outside one plane, or a back face or empty on the
// direct path), directly from its projected vertices, or through clipping.
enum : uint32_t {
    N3D_DRAW_SKIP = 0,
    N3D_DRAW_DIRECT = 1,
    N3D_DRAW_CLIPPED = 2,
};

// The frame's and the call's values that every lane reads.
struct n3d_draw_lanes_frame {
    n3d_lanes m[4][4];  // the viewport-folded matrix, element by element
    n3d_lanes light[3], camera[3];
    n3d_lanes hw, hh, width, height, half, zero, one, minus_one, attribute_scale_is_iw;
    n3d_lanes guard_x_lo, guard_x_hi, guard_y_lo, guard_y_hi;
};

// The skinned kind has no single matrix: it blends batch vertex k's clip position (vertex i of
// the call) one vertex at a time.
inline void n3d_draw_skin_vertex(n3d_draw_batch* b, int32_t k, uint32_t i, const n3d_draw_call* call,
                                 const n3d_draw_frame& fr)
{
    const n3d_vertices* vx = call->vertices;
    const float* p = vx->xyz + 3 * i;
    float c[4] = {0.0f, 0.0f, 0.0f, 0.0f};
    for (int j = 0; j < 4; j++) {
        const mat4x4& s = call->skin_matrices[vx->joints[4 * i + j]];
        const float wt = vx->weights[4 * i + j];
        for (int r = 0; r < 4; r++)
            c[r] += wt * (s[0][r] * p[0] + s[1][r] * p[1] + s[2][r] * p[2] + s[3][r]);
    }
    // skin matrices end in clip space; the viewport is applied here instead
    b->clip[0][k] = c[0] * fr.hw;
    b->clip[1][k] = c[1] * fr.hh;
    b->clip[2][k] = c[2];
    b->clip[3][k] = c[3];
}

// Component c of four vertices' records of `stride` floats.
inline n3d_lanes n3d_lanes_gather(const float* array, uint32_t stride, const uint32_t* index, uint32_t c)
{
    return _mm_setr_ps(array[stride * index[0] + c], array[stride * index[1] + c], array[stride * index[2] + c],
                       array[stride * index[3] + c]);
}

// Batch vertices k to k + 3 (vertices index[0] to index[3] of the call): clip position (but for
// the skinned kind, whose positions are in the batch already), texture coordinates, outcode and
// projection.
template <n3d_draw_kind Kind>
inline void n3d_draw_lanes_position(n3d_draw_batch* b, int32_t k, const uint32_t* index, const n3d_vertices* vx,
                                    const n3d_draw_lanes_frame& lf)
{
    n3d_lanes clip[4];
    if constexpr (Kind == N3D_DRAW_KIND_SKINNED) {
        for (int r = 0; r < 4; r++)
            clip[r] = _mm_load_ps(&b->clip[r][k]);
    } else {
        n3d_lanes p[3];
        for (int c = 0; c < 3; c++)
            p[c] = n3d_lanes_gather(vx->xyz, 3, index, (uint32_t)c);
        for (int r = 0; r < 4; r++) {
            clip[r] = _mm_add_ps(_mm_add_ps(_mm_add_ps(_mm_mul_ps(lf.m[0][r], p[0]), _mm_mul_ps(lf.m[1][r], p[1])),
                                            _mm_mul_ps(lf.m[2][r], p[2])),
                                 lf.m[3][r]);
            _mm_store_ps(&b->clip[r][k], clip[r]);
        }
    }

    const n3d_lanes w = clip[3];
    const n3d_lanes minus_w = _mm_xor_ps(w, _mm_set1_ps(-0.0f));
    __m128i code = n3d_lanes_bit(_mm_cmplt_ps(clip[0], _mm_mul_ps(minus_w, lf.guard_x_lo)), N3D_OUT_LEFT);
    code = _mm_or_si128(code, n3d_lanes_bit(_mm_cmpgt_ps(clip[0], _mm_mul_ps(w, lf.guard_x_hi)), N3D_OUT_RIGHT));
    code = _mm_or_si128(code, n3d_lanes_bit(_mm_cmplt_ps(clip[1], _mm_mul_ps(minus_w, lf.guard_y_lo)), N3D_OUT_TOP));
    code = _mm_or_si128(code, n3d_lanes_bit(_mm_cmpgt_ps(clip[1], _mm_mul_ps(w, lf.guard_y_hi)), N3D_OUT_BOTTOM));
    code = _mm_or_si128(code, n3d_lanes_bit(_mm_cmplt_ps(clip[2], minus_w), N3D_OUT_NEAR));
    code = _mm_or_si128(code, n3d_lanes_bit(_mm_cmpgt_ps(clip[2], w), N3D_OUT_FAR));
    code = _mm_or_si128(code, n3d_lanes_bit(_mm_cmpngt_ps(w, lf.zero), N3D_OUT_UNPROJECTABLE));
    _mm_store_si128((__m128i*)&b->outcode[k], code);

    // as n3d_draw_project, then clamped as the direct path wants it; lanes that go to the
    // clipping path instead are projected again there
    const n3d_lanes iw = _mm_div_ps(lf.one, w);
    const n3d_lanes x = _mm_add_ps(_mm_add_ps(_mm_mul_ps(clip[0], iw), lf.hw), lf.half);
    const n3d_lanes y = _mm_add_ps(_mm_add_ps(_mm_mul_ps(clip[1], iw), lf.hh), lf.half);
    const n3d_lanes scale = _mm_or_ps(_mm_and_ps(lf.attribute_scale_is_iw, iw),
                                      _mm_andnot_ps(lf.attribute_scale_is_iw, lf.one));
    _mm_store_ps(&b->scale[k], scale);
    n3d_lanes projected[8];
    projected[0] = n3d_lanes_clamp(x, lf.zero, lf.width);
    projected[1] = n3d_lanes_clamp(y, lf.zero, lf.height);
    projected[2] = iw;
    for (int a = 0; a < 2; a++) {
        const n3d_lanes attr = n3d_lanes_gather(vx->uv0, 2, index, (uint32_t)a);
        _mm_store_ps(&b->attr[a][k], attr);
        projected[3 + a] = _mm_mul_ps(attr, scale);
    }
    // the phong terms follow for the vertices that are lit
    projected[5] = projected[6] = projected[7] = lf.zero;
    for (int half = 0; half < 8; half += 4) {
        _MM_TRANSPOSE4_PS(projected[half], projected[half + 1], projected[half + 2], projected[half + 3]);
        for (int j = 0; j < 4; j++)
            _mm_store_ps(&b->proj[k + j][half], projected[half + j]);
    }
}

// The half-vector terms of the four batch vertices at slot[0] to slot[3] (vertices
// source[slot[j]] of the call): the lighting of the phong kind, as attributes 2 and 3 and their projections.
inline void n3d_draw_lanes_phong(n3d_draw_batch* b, const int32_t* slot, const uint32_t* source,
                                 const n3d_vertices* vx, const n3d_draw_lanes_frame& lf)
{
    uint32_t index[4];
    for (int j = 0; j < 4; j++)
        index[j] = source[slot[j]];
    n3d_lanes p[3], l[3], v[3], h[3], t[3], bt[3];
    for (int c = 0; c < 3; c++) {
        p[c] = n3d_lanes_gather(vx->xyz, 3, index, (uint32_t)c);
        l[c] = _mm_sub_ps(lf.light[c], p[c]);
        v[c] = _mm_sub_ps(lf.camera[c], p[c]);
    }
    n3d_lanes_normalize(l);
    n3d_lanes_normalize(v);
    for (int c = 0; c < 3; c++) {
        h[c] = _mm_add_ps(l[c], v[c]);
        t[c] = n3d_lanes_gather(vx->t_xyz, 3, index, (uint32_t)c);
        bt[c] = n3d_lanes_gather(vx->b_xyz, 3, index, (uint32_t)c);
    }
    n3d_lanes_normalize(h);
    const n3d_lanes scale = _mm_setr_ps(b->scale[slot[0]], b->scale[slot[1]], b->scale[slot[2]], b->scale[slot[3]]);
    alignas(16) float terms[2][4], projected[2][4];
    for (int a = 0; a < 2; a++) {
        const n3d_lanes term = n3d_lanes_clamp(n3d_lanes_dot(h, a == 0 ? t : bt), lf.minus_one, lf.one);
        _mm_store_ps(terms[a], term);
        _mm_store_ps(projected[a], _mm_mul_ps(term, scale));
    }
    for (int j = 0; j < 4; j++)
        for (int a = 0; a < 2; a++) {
            b->attr[2 + a][slot[j]] = terms[a][j];
            b->proj[slot[j]][5 + a] = projected[a][j];
        }
}

// Batch vertex k as the clipping path reads it.
template <int Attrs>
inline void n3d_draw_batch_vertex_at(n3d_batch_vertex* out, const n3d_draw_batch* b, int32_t k)
{
    for (int c = 0; c < 4; c++)
        out->clip[c] = b->clip[c][k];
    for (int a = 0; a < Attrs; a++)
        out->attr[a] = b->attr[a][k];
}

template <n3d_draw_kind Kind>
int32_t n3d_draw_kind_triangles(const n3d_draw_call* call, const char* function)
{
    constexpr bool phong = Kind == N3D_DRAW_KIND_PHONG;
    constexpr int attrs = phong ? 4 : 2;
    constexpr int floats = 3 + attrs;
    n3d_rasterizer_entry* entry = n3d_draw_prepare(call, Kind, function);

    prof_block_begin(BLOCK_RENDER_MESH_TRANSFORM_VERTICES_SETUP);
    xmemarena* arena = call->batch_arena;
    const uint64_t mark = xmemarena_get_sp(arena);
    auto* scratch =
        (n3d_clip_vertex_floats*)xmemarena_push_align(arena, N3D_DRAW_SCRATCH_BYTES, N3D_DRAW_SCRATCH_ALIGN);
    n3d_clip_vertex_floats* poly_a = scratch;
    n3d_clip_vertex_floats* poly_b = scratch + N3D_CLIP_MAX_VERTICES;

    const n3d_framebuffer* fb = call->fc->framebuffer;
    n3d_draw_frame fr;
    fr.width = (float)fb->width;
    fr.height = (float)fb->height;
    fr.hw = 0.5f * fr.width;
    fr.hh = 0.5f * fr.height;
    fr.guard_x_lo = fr.hw + 0.5f;
    fr.guard_x_hi = fr.hw - 0.5f;
    fr.guard_y_lo = fr.hh + 0.5f;
    fr.guard_y_hi = fr.hh - 0.5f;
    fr.attributes_times_iw = (entry->flags & (N3D_RASTERIZER_AFFINE | N3D_RASTERIZER_PHONG)) != N3D_RASTERIZER_AFFINE;

    n3d_draw_lanes_frame lf;
    if constexpr (Kind != N3D_DRAW_KIND_SKINNED) {
        // the viewport folded into rows 0 and 1, so that projection is one multiply-add per axis
        mat4x4 m;
        mat4x4_dup(m, *call->mvp);
        for (int c = 0; c < 4; c++) {
            m[c][0] *= fr.hw;
            m[c][1] *= fr.hh;
        }
        for (int c = 0; c < 4; c++)
            for (int r = 0; r < 4; r++)
                lf.m[c][r] = n3d_lanes_set(m[c][r]);
    }
    for (int c = 0; c < 3; c++) {
        lf.light[c] = n3d_lanes_set(call->light_position[c]);
        lf.camera[c] = n3d_lanes_set(call->camera_position[c]);
    }
    lf.hw = n3d_lanes_set(fr.hw);
    lf.hh = n3d_lanes_set(fr.hh);
    lf.width = n3d_lanes_set(fr.width);
    lf.height = n3d_lanes_set(fr.height);
    lf.half = n3d_lanes_set(0.5f);
    lf.zero = n3d_lanes_set(0.0f);
    lf.one = n3d_lanes_set(1.0f);
    lf.minus_one = n3d_lanes_set(-1.0f);
    lf.attribute_scale_is_iw = _mm_castsi128_ps(_mm_set1_epi32(fr.attributes_times_iw ? -1 : 0));
    lf.guard_x_lo = n3d_lanes_set(fr.guard_x_lo);
    lf.guard_x_hi = n3d_lanes_set(fr.guard_x_hi);
    lf.guard_y_lo = n3d_lanes_set(fr.guard_y_lo);
    lf.guard_y_hi = n3d_lanes_set(fr.guard_y_hi);

    n3d_raster_call rc;
    memset(&rc, 0, sizeof(rc));
    rc.entry = entry;
    rc.fc = call->fc;
    rc.textures = &call->textures->texture0;
    rc.phong = &call->textures->phong_table;
    prof_block_end(BLOCK_RENDER_MESH_TRANSFORM_VERTICES_SETUP, "src/n3d_draw", __LINE__);

    const n3d_vertices* vx = call->vertices;
    const n3d_vertex_index* vi = call->index;
    const int32_t count = call->triangle_count;
    int32_t drawn = 0;
    n3d_draw_batch batch;
    int32_t chunk = 0;
    for (int32_t first = 0; first < count;) {
        // the chunk: its triangles, its distinct vertices and which of them each corner is
        int32_t n, vertices;
        const uint32_t* source;
        const uint16_t* corner;
        if (vi) {
            const n3d_vertex_chunk* c = &vi->chunks[chunk++];
            n = (int32_t)c->triangle_count;
            vertices = (int32_t)c->vertex_count;
            source = vi->vertices + c->first_vertex;
            corner = vi->corners + 3 * (uint32_t)first;
        } else {
            n = count - first < N3D_DRAW_PLAIN_TRIANGLES ? count - first : N3D_DRAW_PLAIN_TRIANGLES;
            vertices = 3 * n;
            for (int32_t k = 0; k < vertices; k++)
                batch.plain_vertices[k] = (uint32_t)(3 * first + k);
            source = batch.plain_vertices;
            corner = n3d_draw_plain_corners.slot;
        }

        prof_block_begin(BLOCK_RENDER_MESH_TRANSFORM_VERTICES);
        const int32_t lanes_end = (vertices + 3) & ~3;
        for (int32_t k = 0; k < lanes_end; k += 4) {
            uint32_t index[4];
            for (int32_t j = 0; j < 4; j++)  // the last lanes of a short chunk repeat its last vertex
                index[j] = source[k + j < vertices ? k + j : vertices - 1];
            if constexpr (Kind == N3D_DRAW_KIND_SKINNED)
                for (int32_t j = 0; j < 4; j++)
                    n3d_draw_skin_vertex(&batch, k + j, index[j], call, fr);
            n3d_draw_lanes_position<Kind>(&batch, k, index, vx, lf);
        }
        // Which triangles are drawn, and how: back faces and triangles outside one plane are
        // known from positions alone, so only the others' vertices are lit.
        int32_t lit = 0;
        if constexpr (phong)
            memset(batch.is_lit, 0, (size_t)vertices);
        for (int32_t t = 0; t < n; t++) {
            const uint16_t* s = corner + 3 * t;
            const uint32_t o0 = batch.outcode[s[0]], o1 = batch.outcode[s[1]], o2 = batch.outcode[s[2]];
            uint32_t path = N3D_DRAW_CLIPPED;
            if (o0 & o1 & o2 & N3D_OUT_PLANES) {
                path = N3D_DRAW_SKIP;
            } else if (!(o0 | o1 | o2)) {
                // the outcodes admit exactly [0, width] x [0, height]; the projection's rounding
                // may not, and the variants draw only what they are given: hence the clamped x, y
                const float area = n3d_draw_area(batch.proj[s[0]], batch.proj[s[1]], batch.proj[s[2]]);
                batch.area[t] = area;
                path = area > 0.0f ? N3D_DRAW_DIRECT : N3D_DRAW_SKIP;
            }
            batch.path[t] = path;
            if (phong && path != N3D_DRAW_SKIP)
                for (int32_t j = 0; j < 3; j++)
                    if (!batch.is_lit[s[j]]) {
                        batch.is_lit[s[j]] = 1;
                        batch.lit[lit++] = s[j];
                    }
        }
        if constexpr (phong) {
            for (int32_t j = lit; j < ((lit + 3) & ~3); j++)
                batch.lit[j] = batch.lit[lit - 1];  // spare lanes repeat the last vertex
            for (int32_t j = 0; j < lit; j += 4)
                n3d_draw_lanes_phong(&batch, &batch.lit[j], source, vx, lf);
        }
        prof_block_end(BLOCK_RENDER_MESH_TRANSFORM_VERTICES, "src/n3d_draw", __LINE__);

        for (int32_t t = 0; t < n; t++) {
            const uint16_t* s = corner + 3 * t;
            const uint32_t id = (uint32_t)(first + t);
            if (batch.path[t] == N3D_DRAW_DIRECT) {
                for (int j = 0; j < 3; j++)
                    memcpy(rc.vertices[j], batch.proj[s[j]], floats * sizeof(float));
                drawn += n3d_draw_raster<attrs>(&rc, batch.area[t], id);
            } else if (batch.path[t] == N3D_DRAW_CLIPPED) {
                n3d_batch_vertex tri[3];
                for (int j = 0; j < 3; j++)
                    n3d_draw_batch_vertex_at<attrs>(&tri[j], &batch, s[j]);
                drawn += n3d_draw_clipped<attrs>(&rc, tri, fr, poly_a, poly_b, id);
            }
        }
        first += n;
    }

    xmemarena_set_sp(arena, mark);
    return drawn;
}

}  // namespace

int32_t n3d_draw_triangles(const n3d_draw_call* call)
{
    return n3d_draw_kind_triangles<N3D_DRAW_KIND_DEFAULT>(call, "n3d_draw_triangles");
}

int32_t n3d_draw_triangles_skinned(const n3d_draw_call* call)
{
    return n3d_draw_kind_triangles<N3D_DRAW_KIND_SKINNED>(call, "n3d_draw_triangles_skinned");
}

int32_t n3d_draw_triangles_phong(const n3d_draw_call* call)
{
    return n3d_draw_kind_triangles<N3D_DRAW_KIND_PHONG>(call, "n3d_draw_triangles_phong");
}

// ---- vertex index ----

namespace {

// The attribute arrays a vertex has, as bytes per vertex.
struct n3d_index_attributes {
    const uint8_t* data[N3D_VERTICES_ARRAYS];
    uint32_t bytes[N3D_VERTICES_ARRAYS];
    uint32_t count;
};

// FNV-1a over every byte of vertex i.
uint32_t n3d_index_hash(const n3d_index_attributes& a, uint32_t i)
{
    uint32_t h = 2166136261u;
    for (uint32_t k = 0; k < a.count; k++) {
        const uint8_t* p = a.data[k] + (uint64_t)i * a.bytes[k];
        for (uint32_t b = 0; b < a.bytes[k]; b++)
            h = (h ^ p[b]) * 16777619u;
    }
    return h;
}

bool n3d_index_same(const n3d_index_attributes& a, uint32_t i, uint32_t j)
{
    for (uint32_t k = 0; k < a.count; k++)
        if (memcmp(a.data[k] + (uint64_t)i * a.bytes[k], a.data[k] + (uint64_t)j * a.bytes[k], a.bytes[k]) != 0)
            return false;
    return true;
}

// Open addressing over a chunk's vertices: slot + 1, 0 for empty; at most half full.
constexpr uint32_t N3D_INDEX_TABLE_SIZE = 2 * 256;
static_assert(N3D_INDEX_TABLE_SIZE >= 2 * N3D_DRAW_CHUNK_VERTICES, "the chunk's table stays at most half full");

// One pass over the triangles: counts chunks and vertices, and fills the index's arrays when
// they are there (the second pass).
void n3d_index_pass(n3d_vertex_index* index, const n3d_vertices* v, uint32_t* chunk_count, uint32_t* vertex_count)
{
    n3d_index_attributes a;
    a.count = n3d_vertices_arrays(v, a.data, a.bytes);
    const uint32_t triangles = v->count / 3;
    uint16_t table[N3D_INDEX_TABLE_SIZE];
    uint32_t local[N3D_DRAW_CHUNK_VERTICES];  // the chunk's vertices so far
    uint32_t chunks = 0, total = 0;
    uint32_t chunk_first = 0, chunk_vertices = 0;
    memset(table, 0, sizeof(table));
    for (uint32_t t = 0; t <= triangles; t++) {
        // a triangle may bring three new vertices: the chunk ends before it could overflow
        const bool end = t == triangles || t - chunk_first == N3D_DRAW_CHUNK_TRIANGLES ||
                         chunk_vertices + 3 > N3D_DRAW_CHUNK_VERTICES;
        if (end && t > chunk_first) {
            if (index->chunks)
                index->chunks[chunks] = {chunk_first, t - chunk_first, total, chunk_vertices};
            chunks++;
            total += chunk_vertices;
            chunk_first = t;
            chunk_vertices = 0;
            memset(table, 0, sizeof(table));
        }
        if (t == triangles)
            break;
        for (uint32_t c = 3 * t; c < 3 * t + 3; c++) {
            uint32_t h = n3d_index_hash(a, c) & (N3D_INDEX_TABLE_SIZE - 1);
            while (table[h] && !n3d_index_same(a, local[table[h] - 1], c))
                h = (h + 1) & (N3D_INDEX_TABLE_SIZE - 1);
            if (!table[h]) {
                local[chunk_vertices] = c;
                table[h] = (uint16_t)(++chunk_vertices);
                if (index->vertices)
                    index->vertices[total + chunk_vertices - 1] = c;
            }
            if (index->corners)
                index->corners[c] = (uint16_t)(table[h] - 1);
        }
    }
    *chunk_count = chunks;
    *vertex_count = total;
}

}  // namespace

void n3d_vertex_index_build(n3d_vertex_index* index, const n3d_vertices* v, xmemarena* arena)
{
    memset(index, 0, sizeof(*index));
    index->triangle_count = v->count / 3;
    uint32_t chunks, vertices;
    n3d_index_pass(index, v, &chunks, &vertices);
    index->chunks = (n3d_vertex_chunk*)xmemarena_push_align(arena, sizeof(n3d_vertex_chunk) * chunks, 4);
    index->vertices = (uint32_t*)xmemarena_push_align(arena, sizeof(uint32_t) * vertices, 4);
    index->corners = (uint16_t*)xmemarena_push_align(arena, sizeof(uint16_t) * 3 * index->triangle_count, 2);
    n3d_index_pass(index, v, &chunks, &vertices);
    index->chunk_count = chunks;
}

// ---- profile report ----

void n3d_profile_report_rasterizers()
{
    const double total = (double)prof_global.cycles[CYCLES_BLOCK_TOTAL];
    printf("total cycles: %f\n", total);
    for (uint32_t i = 0; i < n3d_rasterizer_table_count; i++) {
        const n3d_rasterizer_entry* e = &n3d_rasterizer_table[i];
        for (uint32_t b = 0; b < e->block_count; b++) {
            const n3d_rasterizer_block* block = &e->blocks[b];
            if (block->hits == 0)
                continue;
            // with no frame profiled (a run stopped early) the share reads 0 rather than nan
            const double share = total > 0.0 ? 100.0 * (double)block->cycles / total : 0.0;
            printf("[%6.2f%%][hits: %11u][cycles: %12.f][<cycles>: %11.1f][%s - %s]\n", share, block->hits,
                   (double)block->cycles, (double)(block->cycles / block->hits), e->block_names[b], e->name);
        }
    }
}
