// Rasterizer variants against an independent floating-point reference, pixels worked out by hand
// from the fixed-point arithmetic, every kernel set against the portable one, the profile blocks'
// counts, the fixed-point helpers and the filling rules (shared edges, wrap and clamp, coverage, depth).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "n3d.h"
#include "n3d_draw.h"
#include "n3d_rasterizers.h"
#include "test_fatal.h"
#include "vmath.h"

namespace {

struct raster_env {
    test_arena memory = test_arena(8 << 20);
    xmemarena& arena = memory.arena;
    n3d_framecontext fc;
    n3d_texture tex16, tex8, tex_white;
    void *mips16[1], *mips8[1], *mips_white[1];
    uint16_t palette[256], shades[256 * 32];
    uint8_t phong_storage[272], phong_full_storage[272];
    const uint8_t* phong_table = phong_storage + 8;            // lighting index / 8
    const uint8_t* phong_full_table = phong_full_storage + 8;  // 31 everywhere

    raster_env()
    {
        n3d_init(&arena);
        n3d_framecontext_init(&fc, &arena, 320, 240, N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555,
                              N3D_FRAMECONTEXT_COVERAGE | N3D_FRAMECONTEXT_ZBUFFER);
        uint16_t* texels16 = (uint16_t*)xmemarena_push_align(&arena, 65536 * 2, 32);
        uint8_t* texels8 = (uint8_t*)xmemarena_push_align(&arena, 65536, 32);
        // 16-bit texel: red = u mod 32, green = v mod 32, blue = (u / 32) mod 8 + 8 (v / 32)
        // mod 4; 8-bit texel: low nibble u mod 16, high nibble v mod 16
        for (uint32_t v = 0; v < 256; v++)
            for (uint32_t u = 0; u < 256; u++) {
                const uint32_t i = n3d_swizzle(u, v);
                texels16[i] = (uint16_t)(0x8000 | (u & 31) << 10 | (v & 31) << 5 | ((u >> 5) & 7) |
                                         ((v >> 5) & 3) << 3);
                texels8[i] = (uint8_t)((u & 15) | (v & 15) << 4);
            }
        for (uint32_t i = 0; i < 256 * 32; i++)  // bit 13 set: never the cleared 0x8000
            palette[i % 256] = (uint16_t)(0xA000 | i % 256), shades[i] = (uint16_t)(0xA000 | i / 32 | (i % 32) << 8);
        // the lighting index / 8 as the shade, with the usual guards
        for (int i = 0; i < 272; i++)
            phong_storage[i] = (uint8_t)(i < 8 ? 0 : i >= 264 ? 31 : (i - 8) >> 3);
        memset(phong_full_storage, 31, sizeof(phong_full_storage));
        void* white = memset(xmemarena_push_align(&arena, 65536 * 2, 32), 0xFF, 65536 * 2);
        test_texture_256(&tex_white, N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, mips_white, white, palette, shades);
        test_texture_256(&tex16, N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, mips16, texels16, palette, shades);
        test_texture_256(&tex8, N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555, mips8, texels8, palette, shades);
    }
    void clear() { test_clear_target(&fc); }
    uint16_t pixel(int x, int y) const { return test_pixel16(&fc, x, y); }
    bool covered(int x, int y) const { return (fc.coverage[0]->bits[(y * 320 + x) / 32] << (x & 31)) & 0x80000000u; }
};

struct tri_vertex { float x, y, w, u, v, p0, p1; };

bool is_phong(const n3d_rasterizer_entry* e) { return (e->flags & N3D_RASTERIZER_PHONG) != 0; }

// Fills a call the way the draw functions do: attributes times iw, gradients over the area.
n3d_raster_call make_call(raster_env& env, n3d_rasterizer_entry* e, const tri_vertex t[3],
                          n3d_texture* texture = nullptr, const uint8_t* const* phong = nullptr)
{
    static n3d_texture* textures[1];
    textures[0] = texture ? texture : (e->flags & N3D_RASTERIZER_T0_I8ARGB1555) ? &env.tex8 : &env.tex16;
    n3d_raster_call c = {};
    c.entry = e;
    c.fc = &env.fc;
    c.textures = textures;
    c.phong = phong ? phong : &env.phong_table;
    const int n = is_phong(e) ? 5 : 3;
    float attr[3][5];  // u*iw, v*iw (, p0*iw, p1*iw), iw
    float max_iw = 0;
    for (int i = 0; i < 3; i++) {
        const float iw = 1.0f / t[i].w;
        max_iw = iw > max_iw ? iw : max_iw;
        const float v[7] = {t[i].x, t[i].y, iw, t[i].u * iw, t[i].v * iw, t[i].p0 * iw, t[i].p1 * iw};
        memcpy(c.vertices[i], v, sizeof(v));
        for (int a = 0; a < n; a++)
            attr[i][a] = a == n - 1 ? iw : v[3 + a];
    }
    const float x0 = t[0].x, y0 = t[0].y, x1 = t[1].x, y1 = t[1].y, x2 = t[2].x, y2 = t[2].y;
    const float area = (x1 - x2) * (y0 - y2) - (x0 - x2) * (y1 - y2);
    for (int a = 0; a < n; a++) {
        c.grad_x[a] = ((attr[1][a] - attr[2][a]) * (y0 - y2) - (attr[0][a] - attr[2][a]) * (y1 - y2)) / area;
        c.grad_y[a] = -((attr[1][a] - attr[2][a]) * (x0 - x2) - (attr[0][a] - attr[2][a]) * (x1 - x2)) / area;
    }
    c.area = area;
    c.depth_norm = 1.0f / max_iw;
    return c;
}

n3d_rasterizer_entry* variant_with_flags(uint32_t flags) { return &n3d_rasterizer_table[n3d_find_rasterizer(flags)]; }

struct reference_pixel {
    bool inside;
    bool boundary;  // within rounding distance of an edge: either answer is right
    double u, v, light;  // texel coordinates (with the 7/16 bias) and lighting index
};

reference_pixel reference_at(const tri_vertex t[3], int px, int py, bool affine)
{
    reference_pixel r = {true, false, 0, 0, 0};
    double e[3], len[3], area = 0, min_dist = 1e9;
    for (int i = 0; i < 3; i++) {
        const tri_vertex &a = t[(i + 1) % 3], &b = t[(i + 2) % 3];
        e[i] = ((double)b.x - a.x) * (py - a.y) - ((double)b.y - a.y) * (px - a.x);
        len[i] = std::hypot((double)b.x - a.x, (double)b.y - a.y);
        area += e[i];
    }
    for (int i = 0; i < 3; i++) {  // distance of the centre to each edge, in pixels
        const double d = (area < 0 ? -e[i] : e[i]) / len[i];
        min_dist = d < min_dist ? d : min_dist;
        r.inside = r.inside && d > 0;
    }
    r.boundary = std::fabs(min_dist) < 0.02;
    if (!r.inside && !r.boundary)
        return r;
    // barycentric weights; perspective-correct, or for the affine variant u * iw and v * iw
    // interpolated as they are (what the draw functions hand every variant)
    double wsum = 0, us = 0, vs = 0, p0s = 0, p1s = 0;
    for (int i = 0; i < 3; i++) {
        const double b = e[i] / area / t[i].w;  // weight times iw
        wsum += b, us += b * t[i].u, vs += b * t[i].v, p0s += b * t[i].p0, p1s += b * t[i].p1;
    }
    const double u = affine ? us : us / wsum, v = affine ? vs : vs / wsum;
    r.u = u * 255.0 + 7.0 / 16.0;
    r.v = v * 255.0 + 7.0 / 16.0;
    r.light = 128.0 * ((p0s / wsum) * (p0s / wsum) + (p1s / wsum) * (p1s / wsum));
    return r;
}

void drawable_winding(const tri_vertex in[3], tri_vertex out[3])
{
    const float area = (in[1].x - in[2].x) * (in[0].y - in[2].y) - (in[0].x - in[2].x) * (in[1].y - in[2].y);
    out[0] = in[0];
    out[1] = area > 0 ? in[1] : in[2];
    out[2] = area > 0 ? in[2] : in[1];
}

int draw_flat(raster_env& env, uint32_t flags, tri_vertex a, tri_vertex b, tri_vertex c)
{
    tri_vertex given[3] = {a, b, c}, tri[3];
    drawable_winding(given, tri);
    n3d_raster_call call = make_call(env, variant_with_flags(flags), tri);
    return call.entry->rasterizer(&call);
}

tri_vertex at(float x, float y, float u = 0.5f, float v = 0.5f, float w = 1.0f) { return {x, y, w, u, v, 0, 0}; }

int circular_distance(int a, int b, int period)
{
    const int d = ((a - b) % period + period) % period;
    return d > period / 2 ? period - d : d;
}

// Decoded texel coordinates (modulo what the texel holds) and shade; -1 where the pass has none.
struct decoded { int u, v, period_u, period_v, shade; };

enum test_pass { PASS_FULL, PASS_COORDINATES, PASS_LIGHT };

// A channel c scaled by shade 31 comes out as c - 1 (0 for c = 0 and 1): unscaled as + 1.
decoded decode_pixel(const n3d_rasterizer_entry* e, uint16_t px, test_pass pass)
{
    const int r = (px >> 10) & 31, g = (px >> 5) & 31;
    if (e->flags & N3D_RASTERIZER_T0_I8ARGB1555)
        return {px & 15, (px >> 4) & 15, 16, 16, is_phong(e) ? (px >> 8) & 31 : -1};
    if (pass == PASS_COORDINATES)
        return {(r + 1) & 31, (g + 1) & 31, 32, 32, -1};
    if (pass == PASS_LIGHT)
        return {-1, -1, 32, 32, r + 1};  // white texel: every channel is shade - 1
    return {r | (px & 7) << 5, g | ((px >> 3) & 3) << 5, 256, 128, -1};
}

// Tolerances, in texels and in shades, what fixed point allows: coordinates carry 4 fraction
// bits and a 7/16 bias, the reciprocal is interpolated in a 32-entry table and segments step
// linearly between perspective-correct ends 8 pixels apart, so a texel or shade may land one
// past the exact one's floor (and one more where a shade-31 scaling hides 0 from 1).
constexpr int TEXEL_TOLERANCE = 1;
constexpr int SHADE_TOLERANCE = 1;

// u, v inside [0, 1]: no wrapping anywhere; the last has a vertex above the screen, so its rows
// start at 0 with the edges advanced to it
const tri_vertex reference_triangles[][3] = {
    {{20.3f, 10.7f, 1.0f, 0.05f, 0.05f, -0.4f, 0.3f}, {200.6f, 40.2f, 1.6f, 0.95f, 0.2f, 0.5f, -0.2f},
     {60.1f, 180.9f, 1.2f, 0.3f, 0.9f, 0.1f, 0.6f}},
    {{300.0f, 5.5f, 1.9f, 0.9f, 0.1f, 0.2f, 0.2f}, {310.5f, 230.25f, 1.1f, 0.8f, 0.95f, -0.5f, 0.1f},
     {100.75f, 120.5f, 1.4f, 0.1f, 0.5f, 0.3f, -0.6f}},
    {{150.0f, 100.0f, 1.0f, 0.5f, 0.5f, 0.0f, 0.0f}, {158.0f, 103.0f, 1.0f, 0.53f, 0.5f, 0.1f, 0.0f},
     {151.0f, 109.0f, 1.0f, 0.5f, 0.54f, 0.0f, 0.1f}},
    {{100.0f, -50.5f, 1.0f, 0.5f, 0.5f, 0.2f, 0.1f}, {20.0f, 100.0f, 1.0f, 0.1f, 0.9f, 0.0f, 0.3f},
     {180.0f, 100.0f, 1.0f, 0.9f, 0.9f, -0.3f, 0.0f}},
};

// Texture, palette, shade and phong contents with no pattern, so that an index wrong in any
// bit, or a lighting index off by one, changes a pixel. The 16-bit texture has every level
// down to 4 x 4 for the mipconst variant, each level with its own texels.
struct exact_assets {
    std::vector<uint8_t> texels8 = std::vector<uint8_t>(65536);
    std::vector<std::vector<uint16_t>> levels16;
    std::vector<void*> mips16 = std::vector<void*>(n3d_mip_slot_count(8, 8, 2, 2));
    void* mips8[1];
    uint16_t palette[256], shades[256 * 32];
    uint8_t phong_storage[272];
    const uint8_t* phong = phong_storage + 8;
    n3d_texture tex8, tex16;

    exact_assets()
    {
        pcg32 rng = {0x2545F4914F6CDD1Dull, 0x9E3779B97F4A7C15ull};
        auto fill = [&](auto& items) {
            for (auto& item : items)
                item = (std::remove_reference_t<decltype(item)>)pcg32_random(&rng);
        };
        fill(texels8);
        fill(palette);
        fill(shades);
        fill(phong_storage);  // bits above the 5 a shade uses, too
        test_texture_256(&tex8, N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555, mips8, texels8.data(), palette, shades);
        test_texture_256(&tex16, N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, mips16.data(), nullptr, palette, shades);
        tex16.min_log2_w = tex16.min_log2_h = 2;
        for (uint32_t lw = 2; lw <= 8; lw++)
            for (uint32_t lh = 2; lh <= 8; lh++) {
                levels16.emplace_back(n3d_mipmap_size(N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, 1, lw, lh) / 2);
                fill(levels16.back());
                mips16[n3d_mip_slot(&tex16, lw, lh)] = levels16.back().data();
            }
    }
};

// Kinds of triangle, each aimed at a different path through the spans.
enum exact_kind {
    EXACT_ANY,          // anywhere on the screen, texture and lighting inside their ranges
    EXACT_WRAPPING,     // texture coordinates far outside [0, 1] and negative
    EXACT_LONG_SPANS,   // spans across most of the screen, beyond its left and right edges
    EXACT_PERSPECTIVE,  // depth ratios up to and past the usable range
    EXACT_SLIVER,       // a few pixels wide: short spans, odd columns, lone segments
    EXACT_TINY,         // spans of 1 to 5 pixels only
    EXACT_BORDERS,      // vertices on the framebuffer's borders and corners
    EXACT_MINIFIED,     // up to thousands of texels a pixel: the mipconst variant's small levels
    EXACT_KIND_COUNT,
};

float exact_range(pcg32* rng, float lo, float hi) { return lo + (hi - lo) * pcg32_random_float01(rng); }

void exact_triangle(pcg32* rng, exact_kind kind, tri_vertex t[3])
{
    const float cx = exact_range(rng, 0, 320), cy = exact_range(rng, 0, 240);
    const float texels = std::exp(exact_range(rng, 4, 11));  // the minified kind's coordinate range
    for (int i = 0; i < 3; i++) {
        tri_vertex& v = t[i];
        v.x = exact_range(rng, 0, 320);
        v.y = exact_range(rng, 0, 240);
        v.w = exact_range(rng, 1, 4);
        v.u = pcg32_random_float01(rng);
        v.v = pcg32_random_float01(rng);
        v.p0 = exact_range(rng, -1, 1);
        v.p1 = exact_range(rng, -1, 1);
        switch (kind) {
        case EXACT_WRAPPING:
            v.u = exact_range(rng, -40, 40);
            v.v = exact_range(rng, -40, 40);
            v.p0 = exact_range(rng, -2, 2);  // lighting indices past the table's range too
            break;
        case EXACT_LONG_SPANS:
            v.x = i == 0 ? exact_range(rng, -60, 40) : exact_range(rng, 280, 380);
            v.y = i == 2 ? exact_range(rng, -20, 260) : exact_range(rng, 0, 240);
            v.u = exact_range(rng, -3, 3);
            break;
        case EXACT_PERSPECTIVE:
            v.w = exact_range(rng, 1, 11);
            break;
        case EXACT_SLIVER:
            v.x = cx + exact_range(rng, -4, 4) + (i == 2 ? exact_range(rng, -60, 60) : 0);
            v.y = i == 2 ? cy : exact_range(rng, 0, 240);
            break;
        case EXACT_TINY:
            v.x = cx + exact_range(rng, -3, 3);
            v.y = cy + exact_range(rng, -3, 3);
            break;
        case EXACT_MINIFIED:
            v.u = exact_range(rng, -texels, texels);
            v.v = exact_range(rng, -texels, texels);
            break;
        case EXACT_BORDERS:  // each coordinate on a border (0 or the far one) half the time
            v.x = (pcg32_random(rng) & 1) ? 320.0f * (float)(pcg32_random(rng) & 1) : v.x;
            v.y = (pcg32_random(rng) & 1) ? 240.0f * (float)(pcg32_random(rng) & 1) : v.y;
            break;
        default:
            break;
        }
    }
}

// The same random state in both targets (320 x 240, tight rows): pixels, coverage bits (read by
// the covrw1x variants), depth-block bits and depth values, so depth variants meet partly valid blocks.
void exact_random_state(pcg32* rng, raster_env& e, raster_env& r)
{
    n3d_zbuffer *ze = e.fc.zbuffer, *zr = r.fc.zbuffer;
    for (int32_t i = 0; i < 320 * 240 * 2; i++)
        e.fc.framebuffer->pixels[i] = r.fc.framebuffer->pixels[i] = (uint8_t)pcg32_random(rng);
    for (uint32_t i = 0; i < 320 / 32 * 240; i++)
        e.fc.coverage[0]->bits[i] = r.fc.coverage[0]->bits[i] = pcg32_random(rng) & pcg32_random(rng);
    for (uint32_t i = 0; i < ze->blocks.width / 32 * 240; i++)
        ze->blocks.bits[i] = zr->blocks.bits[i] = pcg32_random(rng) & pcg32_random(rng);
    for (uint32_t i = 0; i < 320 * 240; i++)
        ze->values[i] = zr->values[i] = (uint16_t)(pcg32_random(rng) >> 17);  // depths up to 32767
}

::testing::AssertionResult exact_same_state(const raster_env& a, const raster_env& b)
{
    const n3d_zbuffer *za = a.fc.zbuffer, *zb = b.fc.zbuffer;
    for (int32_t i = 0; i < 320 * 240; i++)
        if (a.pixel(i % 320, i / 320) != b.pixel(i % 320, i / 320) || za->values[i] != zb->values[i])
            return ::testing::AssertionFailure() << "pixel or depth " << i % 320 << "," << i / 320;
    if (memcmp(a.fc.coverage[0]->bits, b.fc.coverage[0]->bits, 320 / 8 * 240) != 0 ||
        memcmp(za->blocks.bits, zb->blocks.bits, za->blocks.width / 8 * 240) != 0)
        return ::testing::AssertionFailure() << "coverage or depth blocks differ";
    return ::testing::AssertionSuccess();
}

// Fills the stack the next call will use with a byte, so that a kernel reading a slot of its
// stack-held tables (the phong words, the lane constants) that it never filled reads that
// byte, not what an earlier call of another variant or kernel set left there.
__attribute__((noinline)) void exact_poison_stack(uint8_t byte)
{
    uint8_t junk[64 * 1024];
    memset(junk, byte, sizeof junk);
    __asm__ volatile("" : : "r"(junk) : "memory");
}

}  // namespace

TEST(n3d_rasterizers, floor_division_modulo_and_reciprocal_tables)
{
    // a, b, floor(a / b), a - b floor(a / b)
    const int32_t cases[][4] = {{7, 2, 3, 1}, {-7, 2, -4, 1}, {-8, 2, -4, 0}, {7, -2, -4, -1}, {-1, 1024, -1, 1023}};
    for (const auto& c : cases)
        EXPECT_TRUE(n3d_floor_div(c[0], c[1]) == c[2] && n3d_floor_mod(c[0], c[1]) == c[3]) << c[0] << " / " << c[1];
    EXPECT_EXIT(n3d_floor_div(1, 0), testing::ExitedWithCode(1), "A oh dear!\n");
    EXPECT_EXIT(n3d_floor_mod(1, 0), testing::ExitedWithCode(1), "B oh dear!\n");
    test_arena a(4096);
    n3d_init(&a.arena);
    const uint32_t iiw[][2] = {{0, 65535}, {1, 4096}, {2, 2048}, {3, 43690}, {31, 4228}};
    for (const auto& e : iiw)
        EXPECT_EQ(n3d_fixed_iiw_lut[e[0]], e[1]) << e[0];
    const float reciprocal[][2] = {{0, 1.0f}, {4, 0.25f}, {2.5f, (0.5f + 1.0f / 3.0f) / 2.0f}, {255.5f, 1.0f / 255.0f}};
    for (const auto& r : reciprocal)  // table entries, then interpolated between them
        EXPECT_FLOAT_EQ(r[0] == (int)r[0] ? n3d_reciprocal_table[(int)r[0]] : n3d_reciprocal_lut(r[0]), r[1]) << r[0];
    EXPECT_EXIT(n3d_reciprocal_lut(256.0f), testing::ExitedWithCode(1),
                "n3d_reciprocal_lut: x is 256.000000 must be >= 0 and < 256\n");
}

TEST(n3d_rasterizers, every_variant_matches_the_float_reference)
{
    raster_env env;
    for (uint32_t vi = 0; vi < n3d_rasterizer_table_count; vi++) {
        n3d_rasterizer_entry* e = &n3d_rasterizer_table[vi];
        const bool affine = e->flags == 336;
        const bool writes_coverage = e->flags != 49 && e->flags != 176;
        // 16-bit phong variants scale the texel by the shade: their coordinates are checked
        // at full light, their lighting on a white texture
        const bool phong16 = is_phong(e) && (e->flags & N3D_RASTERIZER_T0_ARGB1555);
        for (test_pass pass : {PASS_FULL, PASS_COORDINATES, PASS_LIGHT})
            for (const auto& given : reference_triangles) {
                if ((pass == PASS_FULL) == phong16)
                    continue;
                tri_vertex tri[3];
                drawable_winding(given, tri);
                env.clear();
                n3d_raster_call c = make_call(env, e, tri, pass == PASS_LIGHT ? &env.tex_white : nullptr,
                                              pass == PASS_COORDINATES ? &env.phong_full_table : nullptr);
                ASSERT_EQ(e->rasterizer(&c), 1) << e->name;
                int drawn = 0, bad_cover = 0, bad_texel = 0, bad_shade = 0;
                for (int y = 0; y < 240; y++)
                    for (int x = 0; x < 320; x++) {
                        const reference_pixel r = reference_at(tri, x, y, affine);
                        const uint16_t px = env.pixel(x, y);
                        const bool was_drawn = writes_coverage ? env.covered(x, y) : px != 0x8000;
                        if (r.boundary || !(was_drawn || r.inside))
                            continue;
                        if (was_drawn != r.inside) {
                            bad_cover++;
                            continue;
                        }
                        drawn++;
                        const decoded d = decode_pixel(e, px, pass);
                        // the shade-31 scaling cannot tell 0 from 1: allow one more there
                        const int texels = TEXEL_TOLERANCE + (pass == PASS_COORDINATES ? 1 : 0);
                        bad_texel += d.u >= 0 && (circular_distance(d.u, (int)std::floor(r.u), d.period_u) > texels ||
                                                  circular_distance(d.v, (int)std::floor(r.v), d.period_v) > texels);
                        const int want = std::min((int)std::floor(r.light) >> 3, 31);
                        bad_shade += d.shade >= 0 &&
                                     std::abs(d.shade - want) > SHADE_TOLERANCE + (pass == PASS_LIGHT ? 1 : 0);
                    }
                EXPECT_GT(drawn, 20) << e->name;
                EXPECT_EQ(bad_cover, 0) << e->name;
                EXPECT_EQ(bad_texel, 0) << e->name << " pass " << pass;
                EXPECT_EQ(bad_shade, 0) << e->name << " pass " << pass;
            }
    }
}

TEST(n3d_rasterizers, portable_and_vector_kernels_draw_the_same_bytes)
{
    const n3d_raster_kernels best = n3d_raster_use_kernels(N3D_RASTER_KERNELS_BEST);
    if (best == N3D_RASTER_KERNELS_PORTABLE)
        GTEST_SKIP() << "this processor has only the portable kernel";
    static raster_env portable, vector;  // one target drawn with each kernel set
    static exact_assets assets;
    const char* rounds_env = getenv("REEL_RASTER_EXACT_ROUNDS");  // rounds per variant and kernel set
    const int rounds = rounds_env ? atoi(rounds_env) : 700;
    for (uint32_t k = N3D_RASTER_KERNELS_AVX2; k <= best; k++)
    for (uint32_t vi = 0; vi < n3d_rasterizer_table_count; vi++) {
        n3d_rasterizer_entry* e = &n3d_rasterizer_table[vi];
        n3d_texture* texture = (e->flags & N3D_RASTERIZER_T0_I8ARGB1555) ? &assets.tex8 : &assets.tex16;
        pcg32 rng = {0x853c49e6748fea9bull + vi, 0xda3e39cb94b95bdbull};
        for (int round = 0; round < rounds; round++) {
            if (round % 60 == 0)
                exact_random_state(&rng, portable, vector);
            tri_vertex given[3], tri[3];
            exact_triangle(&rng, (exact_kind)(round % EXACT_KIND_COUNT), given);
            drawable_winding(given, tri);
            n3d_raster_call cp = make_call(portable, e, tri, texture, &assets.phong);
            n3d_raster_call cv = make_call(vector, e, tri, texture, &assets.phong);
            n3d_raster_use_kernels(N3D_RASTER_KERNELS_PORTABLE);
            exact_poison_stack((uint8_t)(round * 37 + vi));
            const int drawn = e->rasterizer(&cp);
            n3d_raster_use_kernels((n3d_raster_kernels)k);
            exact_poison_stack((uint8_t)(round * 53 + vi + 1));
            ASSERT_EQ(e->rasterizer(&cv), drawn) << e->name;
            ASSERT_TRUE(exact_same_state(portable, vector))
                << e->name << ", round " << round << ", kind " << round % EXACT_KIND_COUNT << ", kernels " << k;
        }
    }
}

// Every attribute constant over a flat triangle (w = 1, so s = 480, iw = 30 << 14 and the
// reciprocal is table entry 30, 65535 * 32 / 480 = 4369): each pixel has the same texel.
// u = 0.3915: U = round(0.3915 * 255 * 2 * 480) = 95839, (95839 * 4369) >> 18 = 1597, + 7 = 1604:
// texel 100 (1597 alone would be 99: the 7/16 bias decides). v = 0.1447: V = 35423, 590 + 7
// = 597: texel 37 (36 without the bias). Texel (100, 37) of the 16-bit texture is 0x90AB, of
// the 8-bit texture index 0x54, shown by the palette as 0xA054.
// With p0 = 0.5, p1 = 0.25: Q = (0.25 + 0.0625) * 128 * 480^2 = 9216000, r2 = (4369 * (4369 >> 5))
// >> 13 = 72, index = ((9216000 >> 8) * 72) >> 16 = 39 (40 in exact arithmetic), the large-spans
// product 9216000 * 72 >> 24 = 39 too; the test table's shade is 39 / 8 = 4: shade_table[0x54 *
// 32 + 4] = 0xA454.
// At w = 10 the scale is capped at 4096: iw = round(0.1 * 1024 * 4096) = 419430 = 25 << 14 + 9830,
// r = 5243 + (((5041 - 5243) * 9830) >> 14) = 5121 (interpolated between entries 25 and 26).
// u = 0.2353: U = 49153, (49153 * 5121) >> 18 = 960, + 7: texel 60 (61 with entry 25 alone);
// v = 0.603: V = 125964, 2460 + 7 = 2467: texel 154 (157 with entry 25 alone): 0xF341.
TEST(n3d_rasterizers, hand_worked_pixels_and_the_mip_level_the_gradients_pick)
{
    raster_env env;
    const struct { uint32_t flags; float u, v, w, p0, p1; uint16_t pixel; } cases[] = {
        {80, 0.3915f, 0.1447f, 1, 0, 0, 0x90AB},   {81, 0.3915f, 0.1447f, 1, 0, 0, 0x90AB},
        {336, 0.3915f, 0.1447f, 1, 0, 0, 0x90AB},  // affine: U = round(0.3915 * 255 * 1024) >> 6, + 7
        {48, 0.3915f, 0.1447f, 1, 0, 0, 0xA054},   {178, 0.3915f, 0.1447f, 1, 0.5f, 0.25f, 0xA454},
        {190, 0.3915f, 0.1447f, 1, 0.5f, 0.25f, 0xA454}, {1214, 0.3915f, 0.1447f, 1, 0.5f, 0.25f, 0xA454},
        {80, 0.2353f, 0.603f, 10, 0, 0, 0xF341},
    };
    for (const auto& c : cases) {
        env.clear();
        const tri_vertex t[3] = {{10, 10, c.w, c.u, c.v, c.p0, c.p1}, {40, 150, c.w, c.u, c.v, c.p0, c.p1},
                                 {200, 30, c.w, c.u, c.v, c.p0, c.p1}};
        n3d_raster_call call = make_call(env, variant_with_flags(c.flags), t);
        ASSERT_EQ(call.entry->rasterizer(&call), 1);
        int drawn = 0;
        for (int i = 0; i < 320 * 240; i++) {
            const uint16_t px = env.pixel(i % 320, i / 320);
            drawn += px != 0x8000;
            ASSERT_TRUE(px == 0x8000 || px == c.pixel) << c.flags << " at " << i % 320 << "," << i / 320 << ": " << px;
        }
        EXPECT_GT(drawn, 9000) << c.flags;
    }
    // The mipconst variant picks one level from grad_x: u grows 256 a pixel, so g = ((round(256 *
    // 255 * 960) >> 18) >> 4) = (239 >> 4) = 14 and level_u = floor(log2 14) = 3; v grows 64 a
    // pixel, g = (59 >> 4) = 3, level_v = 1. Each level holds one texel value, red 4 level_u + 2 and
    // green 4 level_v + 2: level (3, 1) gives red 14 and green 6, lit by shade 31 to (14 * 31) >> 5
    // = 13 and (6 * 31) >> 5 = 5: 0xB4A0.
    env.clear();
    std::vector<void*> mips(n3d_mip_slot_count(8, 8, 2, 2));
    std::vector<std::vector<uint16_t>> levels;
    n3d_texture t = env.tex16;
    t.min_log2_w = t.min_log2_h = 2;
    t.mips = mips.data();
    for (uint32_t lu = 0; lu <= 6; lu++)
        for (uint32_t lv = 0; lv <= 6; lv++) {
            levels.emplace_back(n3d_mipmap_size(N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, 1, 8 - lu, 8 - lv) / 2,
                                (uint16_t)(0x8000 | (4 * lu + 2) << 10 | (4 * lv + 2) << 5));
            mips[lu + 128 * lv] = levels.back().data();
        }
    const tri_vertex tri[3] = {{100, 100, 1, 0, 0, 0, 0}, {100, 112, 1, 0, 0, 0, 0}, {112, 100, 1, 3072, 768, 0, 0}};
    n3d_raster_call call = make_call(env, variant_with_flags(466), tri, &t, &env.phong_full_table);
    ASSERT_EQ(call.entry->rasterizer(&call), 1);
    EXPECT_EQ(env.pixel(103, 103), 0xB4A0);
    EXPECT_EQ(env.pixel(100, 110), 0xB4A0);
}

TEST(n3d_rasterizers, filling_rules_spans_coverage_depth_and_the_usable_depth_range)
{
    raster_env env;
    n3d_coverage_buffer* cb = env.fc.coverage[0];
    // the two halves of a quad never share a pixel and leave none out: every centre inside either,
    // off the edges, is drawn, and the 64 x 64 square's halves draw 64 x 64 pixels, its diagonal
    // too; a slanted, an axis-aligned and a thin fan-like quad (0: pixels not worked out)
    const struct { tri_vertex v[4]; int pixels; } quads[] = {
        {{at(10.3f, 12.7f), at(90.6f, 20.1f), at(20.2f, 80.9f), at(100.5f, 95.25f)}, 0},
        {{at(0.0f, 0.0f), at(64.0f, 0.0f), at(0.0f, 64.0f), at(64.0f, 64.0f)}, 64 * 64},
        {{at(140.0f, 30.5f), at(151.5f, 200.5f), at(149.5f, 110.0f), at(300.0f, 31.0f)}, 0}};
    for (const auto& q : quads) {
        const tri_vertex t0[3] = {q.v[0], q.v[1], q.v[2]};
        const tri_vertex t1[3] = {q.v[1], q.v[3], q.v[2]};
        env.clear();
        draw_flat(env, 81, q.v[0], q.v[1], q.v[2]);
        const std::vector<uint32_t> first(cb->bits, cb->bits + 320 / 32 * 240);
        env.clear();
        draw_flat(env, 81, q.v[1], q.v[3], q.v[2]);
        int overlap = 0;
        int pixels = 0;
        int inside_missing = 0;
        for (int i = 0; i < 320 * 240; i++) {
            const bool one = (first[i / 32] << (i % 32)) & 0x80000000u;
            const bool two = env.covered(i % 320, i / 320);
            const reference_pixel r0 = reference_at(t0, i % 320, i / 320, false);
            const reference_pixel r1 = reference_at(t1, i % 320, i / 320, false);
            overlap += one && two;
            pixels += one || two;
            inside_missing += (r0.inside || r1.inside) && !(r0.boundary || r1.boundary) && !(one || two);
        }
        EXPECT_EQ(overlap, 0);
        EXPECT_EQ(inside_missing, 0);
        EXPECT_TRUE(q.pixels == 0 || pixels == q.pixels) << pixels;
    }
    // horizontal top edge: its row is drawn from the left vertex up to (not including) the right;
    // the bottom vertex's row is outside
    env.clear();
    draw_flat(env, 80, at(10, 10), at(50, 10), at(30, 40));
    EXPECT_TRUE(env.covered(10, 10) && env.covered(49, 10));
    EXPECT_FALSE(env.covered(50, 10) || env.covered(30, 9) || env.covered(30, 40));
    // horizontal bottom edge: its row is not drawn; the apex row's span is empty
    env.clear();
    draw_flat(env, 80, at(30, 10), at(10, 40), at(50, 40));
    EXPECT_TRUE(env.covered(30, 11) && env.covered(11, 39));
    EXPECT_FALSE(env.covered(30, 10) || env.covered(30, 40));
    // u grows by about 255 texels per pixel along x: inside segments the coordinate wraps
    // at 256, in the tail it clamps at 255. Right edge x = 40 - y: row y spans 40 - y pixels.
    env.clear();
    draw_flat(env, 336, at(0, 0, 0.0f, 0.0f), at(0, 40, 0.0f, 0.0f), at(40, 0, 40.0f, 0.0f));
    auto texel_u = [&](int x, int y) { return (int)(((env.pixel(x, y) >> 10) & 31) | (env.pixel(x, y) & 7) << 5); };
    // 5 pixels: one 4-pixel segment (wrapping) and one tail pixel (clamped to 255)
    EXPECT_TRUE(env.covered(4, 35) && !env.covered(5, 35));
    EXPECT_NE(texel_u(3, 35), 255);
    EXPECT_EQ(texel_u(4, 35), 255);
    // 20 pixels: 8 + 8 + 2 in segments, 2 in the tail
    EXPECT_TRUE(env.covered(19, 20) && !env.covered(20, 20));
    EXPECT_NE(texel_u(17, 20), 255);
    EXPECT_EQ(texel_u(18, 20), 255);
    EXPECT_EQ(texel_u(19, 20), 255);
    for (int x = 1; x < 4; x++)  // 4 pixels: no segment at all, every pixel clamped
        EXPECT_EQ(texel_u(x, 36), 255) << x;
    // coverage-reading variants keep a covered pixel's colour; the read-only one (49) leaves
    // coverage alone, the read-write one (51) marks what it draws; the write-only one (80) draws over
    for (uint32_t flags : {51u, 49u, 80u}) {
        env.clear();
        cb->bits[(50 * cb->width + 40) / 32] |= 0x80000000u >> (40 % 32);
        draw_flat(env, flags, at(10, 10), at(100, 20), at(30, 90));
        EXPECT_EQ(env.pixel(40, 50) == 0x8000, flags != 80) << flags;
        EXPECT_NE(env.pixel(41, 50), 0x8000) << flags;
        EXPECT_EQ(env.covered(41, 50), flags != 49) << flags;
    }
    env.clear();  // the depth test with lazily cleared blocks
    auto square = [&](float x, float size, float uv, float w) {
        return draw_flat(env, 190, at(x, x, uv, uv, w), at(x + size, x, uv, uv, w), at(x, x + size, uv, uv, w));
    };
    const uint16_t* depth = &env.fc.zbuffer->values[50 * 320 + 50];
    // far (w = 2): the blocks are invalid after the clear, so it passes everywhere
    EXPECT_EQ(square(10, 190, 0.5f, 2.0f), 1);
    EXPECT_NE(env.pixel(50, 50), 0x8000);
    EXPECT_EQ(*depth, 4096);  // iw 0.5 * 8192
    // nearer (w = 1) wins; an equal depth does not; farther (w = 4) loses
    n3d_framebuffer_clear(env.fc.framebuffer);
    square(40, 40, 0.1f, 1.0f);
    EXPECT_NE(env.pixel(50, 50), 0x8000);
    EXPECT_EQ(*depth, 8192);
    n3d_framebuffer_clear(env.fc.framebuffer);
    square(40, 40, 0.9f, 1.0f);
    square(40, 40, 0.9f, 4.0f);
    EXPECT_EQ(env.pixel(50, 50), 0x8000);
    // after the depth clear the farthest triangle passes again: stale values do not count
    n3d_zbuffer_clear(env.fc.zbuffer);
    square(40, 40, 0.9f, 4.0f);
    EXPECT_NE(env.pixel(50, 50), 0x8000);
    EXPECT_EQ(*depth, 2048);
    // triangles too deep for the reciprocal table are skipped
    env.clear();
    auto draw = [&](uint32_t flags, float far_w) {
        return draw_flat(env, flags, at(10, 10), at(100, 10, 0.5f, 0.5f, far_w), at(10, 100));
    };
    // farthest iw below 3/30 of the nearest: index < 3, rejected with result 0, nothing drawn
    EXPECT_EQ(draw(80, 11.0f), 0);
    for (int i = 0; i < 320 * 240; i++)
        ASSERT_FALSE(env.covered(i % 320, i / 320));
    // just inside the range it is drawn; the affine variant has no such rule
    EXPECT_EQ(draw(80, 9.0f), 1);
    EXPECT_EQ(draw(336, 11.0f), 1);
}

// Depth blocks of 16 pixels: a span zeroes the blocks it reaches that are not yet valid this
// frame, whole (also their pixels outside the span), then tests against them; a valid block keeps
// its values; a block no span reaches is left alone. Row 50 of the triangle runs from x = 20 to
// the right edge 300 - 14 (50.5 - 40) = 153 (exclusive): blocks 1 to 9. Stored depths 0xFFFF are
// never passed (w = 1 draws 8192), so a pixel is drawn exactly where its block was zeroed.
TEST(n3d_rasterizers, depth_blocks_are_zeroed_whole_where_spans_reach_them)
{
    raster_env env;
    n3d_zbuffer* zb = env.fc.zbuffer;
    const uint32_t words = zb->blocks.width / 32;
    uint32_t valid = 0;  // runs of invalid blocks between the valid ones: 1, 4-5, 7-8
    for (int block : {0, 2, 3, 6, 9, 12})
        valid |= 0x80000000u >> block;
    const n3d_raster_kernels best = n3d_raster_use_kernels(N3D_RASTER_KERNELS_BEST);
    for (uint32_t k = N3D_RASTER_KERNELS_PORTABLE; k <= best; k++)
        for (uint32_t flags : {190u, 1214u}) {
            n3d_raster_use_kernels((n3d_raster_kernels)k);
            env.clear();
            for (uint32_t y = 0; y < 240; y++)
                for (uint32_t w = 0; w < words; w++)
                    zb->blocks.bits[y * words + w] = w == 0 ? valid : 0;
            std::fill(zb->values, zb->values + 320 * 240, (uint16_t)0xFFFF);
            draw_flat(env, flags, at(20, 40), at(300, 40), at(20, 60));
            const std::string where = std::to_string(flags) + ", " + n3d_raster_kernels_name((n3d_raster_kernels)k);
            for (int x = 0; x < 320; x++) {
                const int block = x >> 4;
                const bool zeroed = block >= 1 && block <= 9 && !((valid << block) & 0x80000000u);
                const bool drawn = zeroed && x >= 20 && x < 153;
                EXPECT_EQ(zb->values[50 * 320 + x], drawn ? 8192 : zeroed ? 0 : 0xFFFF) << where << ", x " << x;
                EXPECT_EQ(env.pixel(x, 50) != 0x8000, drawn) << where << ", x " << x;
            }
            EXPECT_EQ(zb->blocks.bits[50 * words], valid | 0x7FC00000u) << where;  // blocks 1-9 now valid
        }
    n3d_raster_use_kernels(N3D_RASTER_KERNELS_BEST);
}

// Profile blocks: one "inner_scanline" hit per span drawn (not for empty rows), one "inner_row"
// hit per half of the triangle that has rows, the spans timed together with the rows. Spans run
// from edge L (top to the next vertex) to edge R (top to the one after), left edge inclusive,
// right edge exclusive, on rows from the top's to the bottom's.
TEST(n3d_rasterizers, profile_blocks_count_spans_and_halves)
{
    raster_env env;
    const struct {
        const char* what;
        tri_vertex tri[3];
        uint32_t spans, halves;
    } cases[] = {
        // half 1 only, rows 10-29, row y from 10 to 50 - 2 (y - 10): 40 down to 2 pixels
        {"flat top", {at(10, 10), at(10, 30), at(50, 10)}, 20, 1},
        // rows 10-24 end at 10 + 2 (y - 10) (row 10 empty), rows 25-39 at 40 - 2 (y - 25)
        {"two halves", {at(10, 10), at(10, 40), at(40, 25)}, 14 + 15, 2},
        {"one pixel", {at(10, 10), at(10, 11), at(11, 10)}, 1, 1},  // one row (10-11)
    };
    const n3d_raster_kernels best = n3d_raster_use_kernels(N3D_RASTER_KERNELS_BEST);
    for (uint32_t k = N3D_RASTER_KERNELS_PORTABLE; k <= best; k++) {
        n3d_raster_use_kernels((n3d_raster_kernels)k);
        for (const auto& t : cases)
            for (uint32_t vi = 0; vi < n3d_rasterizer_table_count; vi++) {
                n3d_rasterizer_entry* e = &n3d_rasterizer_table[vi];
                env.clear();
                memset(e->blocks, 0, sizeof(e->blocks));
                n3d_raster_call c = make_call(env, e, t.tri);
                const std::string where = std::string(e->name) + ", " + t.what + ", " +
                                          n3d_raster_kernels_name((n3d_raster_kernels)k);
                ASSERT_EQ(e->rasterizer(&c), 1) << where;
                const n3d_rasterizer_block* b = e->blocks;
                EXPECT_EQ(b[N3D_RASTERIZER_BLOCK_INNER_SCANLINE].hits, t.spans) << where;
                EXPECT_EQ(b[N3D_RASTERIZER_BLOCK_INNER_ROW].hits, t.halves) << where;
                EXPECT_EQ(b[N3D_RASTERIZER_BLOCK_INNER_SCANLINE].cycles, b[N3D_RASTERIZER_BLOCK_INNER_ROW].cycles)
                    << where;
                EXPECT_EQ(b[N3D_RASTERIZER_BLOCK_SETUP].hits, 1u) << where;
                EXPECT_EQ(b[N3D_RASTERIZER_BLOCK_SPAN_SETUP].hits, 0u) << where;
            }
    }
    n3d_raster_use_kernels(N3D_RASTER_KERNELS_BEST);
}
