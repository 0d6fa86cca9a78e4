// Draw functions: checks and their order, variant choice, projection, culling, clipping, skinning,
// phong terms and the vertex index. A rasterizer under a bit no real variant uses records what
// the draw functions hand over.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "n3d_camera.h"
#include "n3d_draw.h"
#include "n3d_rasterizers.h"
#include "test_fatal.h"

namespace {

constexpr uint32_t RECORD_FLAGS = 2048;
constexpr uint32_t RECORD_PHONG_FLAGS = RECORD_FLAGS | N3D_RASTERIZER_PHONG;
constexpr uint32_t TRIANGLES = 64;  // the pipeline's triangle bit: harmless to the draw functions

std::vector<n3d_raster_call> recorded;

int record_rasterizer(n3d_raster_call* c)
{
    EXPECT_EQ(n3d_current_triangle_id, c->triangle_id);  // kept for diagnostics
    recorded.push_back(*c);
    return 1;
}
void record_names(n3d_rasterizer_entry* e) { e->block_count = 0; }

enum draw_function { DRAW, SKINNED, PHONG };
const char* const FUNCTION_NAMES[] = {"n3d_draw_triangles", "n3d_draw_triangles_skinned", "n3d_draw_triangles_phong"};

int32_t draw_with(draw_function f, n3d_draw_call* c)
{
    return f == DRAW      ? n3d_draw_triangles(c)
           : f == SKINNED ? n3d_draw_triangles_skinned(c)
                          : n3d_draw_triangles_phong(c);
}

class n3d_draw : public testing::Test {
public:
    test_arena memory = test_arena(8 << 20);
    xmemarena& arena = memory.arena;
    n3d_framecontext fc;
    n3d_texture tex16, tex8;
    void* mips[2][1];
    uint16_t palette[256], shades[256 * 32];
    uint8_t phong_storage[272];
    n3d_draw_slots slots = {};
    mat4x4 mvp, skin[2];
    std::vector<float> xyz, uv, normals, tangents, bitangents, weights;
    std::vector<uint8_t> joints;
    n3d_vertices vertices = {};

    void SetUp() override
    {
        recorded.clear();
        n3d_init(&arena);
        n3d_register_rasterizer("record", 2, record_rasterizer, record_names, RECORD_FLAGS, __FILE__, __LINE__);
        n3d_register_rasterizer("record_phong", 4, record_rasterizer, record_names, RECORD_PHONG_FLAGS, __FILE__,
                                __LINE__);
        n3d_framecontext_init(&fc, &arena, 320, 240, N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555,
                              N3D_FRAMECONTEXT_COVERAGE | N3D_FRAMECONTEXT_ZBUFFER);
        test_clear_target(&fc);
        // one colour everywhere: red 16-bit texels, 8-bit texels of index 7
        auto* texels16 = (uint16_t*)xmemarena_push_align(&arena, 65536 * 2, 32);
        auto* texels8 = (uint8_t*)xmemarena_push_align(&arena, 65536, 32);
        for (uint32_t i = 0; i < 65536; i++)
            texels16[i] = 0xFC00, texels8[i] = 7;
        for (uint32_t i = 0; i < 256 * 32; i++) {
            shades[i] = (uint16_t)(0x8000 | (i & 0x7FFF));
            palette[i % 256] = (uint16_t)(0x8000 | (i % 256) << 5);
        }
        memset(phong_storage, 20, sizeof(phong_storage));
        test_texture_256(&tex16, N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, mips[0], texels16, palette, shades);
        test_texture_256(&tex8, N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555, mips[1], texels8, palette, shades);
        slots = {&tex16, phong_storage + 8};
        for (mat4x4* m : {&mvp, &skin[0], &skin[1]})
            mat4x4_identity(*m);
    }

    // With the identity mvp clip space is (160 x, 120 y, z, 1): screen (160 x + 160.5, 120 y + 120.5).
    void vertex(float x, float y, float z, float u = 0.0f, float v = 0.0f)
    {
        xyz.insert(xyz.end(), {x, y, z});
        uv.insert(uv.end(), {u, v});
        normals.insert(normals.end(), {0, 0, 1});
        tangents.insert(tangents.end(), {1, 0, 0});
        bitangents.insert(bitangents.end(), {0, 1, 0});
        joints.insert(joints.end(), {0, 1, 0, 0});
        weights.insert(weights.end(), {1, 0, 0, 0});
    }
    // w is the clip w the mvp gives (mvp[3][3]), so that the vertex lands on (sx, sy)
    void screen_vertex(float sx, float sy, float u = 0.0f, float v = 0.0f, float w = 1.0f)
    {
        vertex(w * (sx - 160.5f) / 160.0f, w * (sy - 120.5f) / 120.0f, 0.0f, u, v);
    }
    void visible_triangle() { screen_vertex(100, 60), screen_vertex(110, 180), screen_vertex(220, 70); }
    void clear_mesh()
    {
        for (auto* a : {&xyz, &uv, &normals, &tangents, &bitangents, &weights})
            a->clear();
        joints.clear();
    }

    n3d_draw_call call(uint32_t flags, uint32_t mode)
    {
        vertices = {(uint32_t)(xyz.size() / 3), xyz.data(), uv.data(), normals.data(), tangents.data(),
                    bitangents.data(), nullptr, joints.data(), weights.data()};
        n3d_draw_call c = {};
        c.rasterizer_flags = flags, c.draw_mode = mode, c.fc = &fc, c.batch_arena = n3d_batch_arena;
        c.vertices = &vertices, c.textures = &slots, c.triangle_count = (int32_t)(vertices.count / 3);
        c.skin_matrices = skin, c.mvp = &mvp;
        return c;
    }
    uint16_t pixel(int x, int y) const { return test_pixel16(&fc, x, y); }
};

using n3d_draw_death = n3d_draw;

// Death-test children report, after the fatal text, how many triangles reached a rasterizer.
void report_draws_at_exit()
{
    atexit([] {
        uint32_t hits = (uint32_t)recorded.size();
        for (uint32_t i = 0; i < n3d_rasterizer_table_count; i++)
            hits += n3d_rasterizer_table[i].blocks[N3D_RASTERIZER_BLOCK_SETUP].hits;
        fprintf(stderr, "triangles drawn: %u\n", hits);
    });
}

}  // namespace

// Each row breaks its own rule and every later one, so that the first failing check speaks.
TEST_F(n3d_draw_death, checks_are_fatal_in_their_order_before_any_triangle)
{
    visible_triangle();
    n3d_framebuffer fb8 = *fc.framebuffer;
    fb8.format = N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8;
    n3d_framecontext fc8 = fc;
    fc8.framebuffer = &fb8;
    n3d_texture linear = tex16;
    linear.linear = 1;
    n3d_draw_slots none = {nullptr, nullptr}, linear_slots = {&linear, nullptr}, tableless = {&tex16, nullptr};
    n3d_vertex_index two = {2, 0, nullptr, nullptr, nullptr};
    const n3d_draw_call good = call(12345, 1 | 128 | TRIANGLES);
    n3d_vertices unweighted = vertices, untangented = vertices;
    unweighted.weights = untangented.t_xyz = nullptr;
    enum { AS_IS, FB8, NO_TEXTURE, LINEAR, COUNT_2, INDEX_2, UNWEIGHTED, TABLELESS, UNTANGENTED };
    const struct {
        draw_function function;
        int damage;
        uint32_t mode, flags;
        const char* message;
    } rows[] = {
        {DRAW, FB8, 1, 12345, "framebuffer only 16bpp supported for now\n"},
        {DRAW, NO_TEXTURE, 1, 12345, "texture0 is null!\n"},
        {DRAW, LINEAR, 1, 12345, "texture0 is not swizzled! (all rasterizers require textures that are swizzled!\n"},
        {DRAW, AS_IS, 1, 12345,
         "could not find rasterizer with flags: 12345 (maybe combination is not generated, see n3d_rasterizers.h)\n"},
        {DRAW, AS_IS, 1, 179, "N3D_DRAW_MODE_DEFAULT not compatible with N3D_RASTERIZER_PHONG\n"},
        {DRAW, AS_IS, 1, 336, "N3D_DRAW_MODE_DEFAULT not compatible with N3D_RASTERIZER_AFFINE\n"},
        {SKINNED, AS_IS, 0, 179, "N3D_RASTERIZER_PHONG requires N3D_DRAW_MODE_PHONG\n"},
        {PHONG, AS_IS, 4, 48, "N3D_DRAW_MODE_PHONG requires N3D_RASTERIZER_PHONG\n"},
        {DRAW, AS_IS, 0, 48, "N3D_RASTERIZER_T0_I8ARGB1555 requires N3D_DRAW_MODE_TEXTURE0_INDEX8_ARGB1555\n"},
        {DRAW, AS_IS, 0, 81, "N3D_RASTERIZER_T0_ARGB1555 requires N3D_DRAW_MODE_TEXTURE0_ARGB1555\n"},
        {DRAW, AS_IS, 128, RECORD_FLAGS,
         "N3D_DRAW_MODE_TEXTURE0_INDEX8_ARGB1555 requires either N3D_RASTERIZER_T0_ARGB1555 or "
         "N3D_RASTERIZER_T0_ARGB1555\n"},
        // what the vertex loops read unchecked is checked once per call
        {DRAW, COUNT_2, 1, RECORD_FLAGS, "triangle_count 2 but the vertices hold 1 triangles\n"},
        {DRAW, INDEX_2, 1, RECORD_FLAGS, "the vertex index holds 2 triangles but the call draws 1\n"},
        {SKINNED, UNWEIGHTED, 1, RECORD_FLAGS, "skinned drawing needs joints, weights and skin_matrices!\n"},
        // a phong variant through the unlit draw, or the reverse, would read the wrong gradients
        {DRAW, AS_IS, 4, RECORD_PHONG_FLAGS,
         "record_phong interpolates 4 attributes but n3d_draw_triangles hands it 2\n"},
        {PHONG, TABLELESS, 4, RECORD_PHONG_FLAGS, "record_phong needs a phong table but slot 1 is null!\n"},
        {PHONG, UNTANGENTED, 4, RECORD_PHONG_FLAGS, "phong drawing needs t_xyz and b_xyz!\n"},
    };
    for (const auto& r : rows) {
        n3d_draw_call c = good;
        c.draw_mode = r.mode | TRIANGLES, c.rasterizer_flags = r.flags;
        c.fc = r.damage == FB8 ? &fc8 : &fc;
        c.textures = r.damage == FB8 || r.damage == NO_TEXTURE ? &none
                   : r.damage == LINEAR                       ? &linear_slots
                   : r.damage == TABLELESS                    ? &tableless
                                                              : &slots;
        c.triangle_count = r.damage == COUNT_2 ? 2 : 1;
        c.index = r.damage == INDEX_2 ? &two : nullptr;
        c.vertices = r.damage == UNWEIGHTED ? &unweighted : r.damage == UNTANGENTED ? &untangented : &vertices;
        EXPECT_EXIT((report_draws_at_exit(), draw_with(r.function, &c)), testing::ExitedWithCode(1),
                    test_fatal(FUNCTION_NAMES[r.function], "src/n3d_draw", r.message, "triangles drawn: 0\n"))
            << r.message;
    }
}

TEST_F(n3d_draw, flags_pick_their_variant_and_no_flags_let_the_draw_mode_choose)
{
    visible_triangle();
    // the animated scene's two combinations, and bit 128 standing for an ARGB1555 texture 0
    const struct {
        draw_function function;
        uint32_t flags, mode;
        const char* name;
    } choices[] = {
        {PHONG, 190, 1220, "n3d_render_triangle_v8_phong_argb1555_t0i8argb1555_covrw01_zbuffrw11"},
        {DRAW, 81, 192, "n3d_render_triangle_v8_argb1555_t0argb1555_covrw10"},
        {DRAW, 0, 1, "n3d_render_triangle_v8_argb1555_t0argb1555"},
        {DRAW, 0, 1 | 512 | 1024, "n3d_render_triangle_v8_argb1555_t0argb1555"},
        {DRAW, 0, 1 | 128 | 1024, "n3d_render_triangle_v8_argb1555_t0i8argb1555"},
        {DRAW, 0, 1 | 128 | 512, "n3d_render_triangle_v8_argb1555_t0i8argb1555_covrw01"},
        {SKINNED, 0, 1 | 128 | 512, "n3d_render_triangle_v8_argb1555_t0i8argb1555_covrw01"},
        {PHONG, 0, 4 | 512 | 1024, "n3d_render_triangle_v8_phong_argb1555_t0argb1555"},
        {PHONG, 0, 4 | 128 | 1024, "n3d_render_triangle_v8_phong_argb1555_t0i8argb1555"},
        {PHONG, 0, 4 | 128 | 512, "n3d_render_triangle_v8_phong_argb1555_t0i8argb1555_covrw01"},
        {PHONG, 0, 4 | 128 | 512 | 1024, "n3d_render_triangle_v8_phong_argb1555_t0i8argb1555_covrw01_zbuffrw11"},
    };
    for (const auto& ch : choices) {
        for (uint32_t i = 0; i < n3d_rasterizer_table_count; i++)
            memset(n3d_rasterizer_table[i].blocks, 0, sizeof(n3d_rasterizer_table[i].blocks));
        const bool index8 = (ch.flags & N3D_RASTERIZER_T0_I8ARGB1555) || (!ch.flags && (ch.mode & 128));
        slots.texture0 = index8 ? &tex8 : &tex16;
        n3d_draw_call c = call(ch.flags, ch.mode | TRIANGLES);
        EXPECT_EQ(draw_with(ch.function, &c), 1) << ch.name;
        std::string used;
        for (uint32_t i = 0; i < n3d_rasterizer_table_count; i++)
            if (n3d_rasterizer_table[i].blocks[N3D_RASTERIZER_BLOCK_SETUP].hits)
                used += n3d_rasterizer_table[i].name;
        EXPECT_EQ(used, ch.name) << "flags " << ch.flags << " mode " << ch.mode;
    }
}

TEST_F(n3d_draw, projection_folds_the_viewport_gradients_follow_the_area_and_skins_blend)
{
    mvp[2][3] = 1.0f;  // w' = 1 + z
    vertex(0.0f, 0.0f, 0.0f, 0.0f, 0.0f);  // w' 1: (160.5, 120.5)
    vertex(0.0f, 1.5f, 1.0f, 0.0f, 1.0f);  // w' 2: (160.5, 210.5)
    vertex(1.0f, 0.0f, 1.0f, 1.0f, 0.0f);  // w' 2: (240.5, 120.5)
    n3d_draw_call c = call(RECORD_FLAGS, 1 | TRIANGLES);
    const uint64_t sp = n3d_batch_arena->sp;
    ASSERT_EQ(n3d_draw_triangles(&c), 1);
    EXPECT_EQ(n3d_batch_arena->sp, sp);  // the scratch is given back
    ASSERT_EQ(recorded.size(), 1u);
    const n3d_raster_call& r = recorded[0];
    const float expected[3][5] = {{160.5f, 120.5f, 1.0f, 0.0f, 0.0f},  // x, y, iw, u*iw, v*iw
                                  {160.5f, 210.5f, 0.5f, 0.0f, 0.5f},
                                  {240.5f, 120.5f, 0.5f, 0.5f, 0.0f}};
    for (int i = 0; i < 3; i++)
        for (int k = 0; k < 5; k++)
            EXPECT_EQ(r.vertices[i][k], expected[i][k]) << i << "," << k;
    EXPECT_TRUE(r.area == 7200.0f && r.depth_norm == 1.0f);  // 1 / the largest iw
    // u*iw rises by 0.5 over 80 pixels in x; v*iw by 0.5 over 90 in y; iw falls by 0.5 over both
    const float gx[3] = {0.5f / 80.0f, 0.0f, -0.5f / 80.0f}, gy[3] = {0.0f, 0.5f / 90.0f, -0.5f / 90.0f};
    for (int a = 0; a < 3; a++) {
        EXPECT_FLOAT_EQ(r.grad_x[a], gx[a]) << a;
        EXPECT_FLOAT_EQ(r.grad_y[a], gy[a]) << a;
    }
    EXPECT_TRUE(r.textures == &slots.texture0 && r.phong == &slots.phong_table);
    // skinned: the weighted sum of the joints' skin matrices times the position; no mvp
    clear_mesh();
    recorded.clear();
    mat4x4_translate(skin[1], 0.4f, -0.25f, 0.0f);
    vertex(0.0f, 0.0f, 0.0f);
    vertex(0.0f, 0.5f, 0.0f);
    vertex(0.5f, 0.0f, 0.0f);
    // vertex 0 all joint 0, vertex 1 half and half, vertex 2 all joint 1
    const float w[3][4] = {{1, 0, 0, 0}, {0.5f, 0.5f, 0, 0}, {0, 1, 0, 0}};
    memcpy(weights.data(), w, sizeof(w));
    mvp[3][0] = 100.0f;  // the mvp plays no part in skinned drawing
    c = call(RECORD_FLAGS, 1 | TRIANGLES);
    ASSERT_EQ(n3d_draw_triangles_skinned(&c), 1);
    const float clip[3][2] = {{0, 0}, {0.2f, 0.375f}, {0.9f, -0.25f}};  // joint 1 moves by (0.4, -0.25)
    const float half[2] = {160.0f, 120.0f};  // the viewport: clip (x, y) lands on half (x + 1) + 0.5
    for (int i = 0; i < 3; i++)
        for (int k = 0; k < 2; k++)
            EXPECT_FLOAT_EQ(recorded.at(0).vertices[i][k], half[k] * clip[i][k] + half[k] + 0.5f) << i;
}

// Off screen: nothing. Across the left edge and over the whole screen (w' = 1, so the attributes
// are linear on screen: u = (x + 60.5) / 200, v = y / 240): cut exactly at the edges. Through the
// near plane: cut in front of the eye. A real variant fills to the last pixel.
TEST_F(n3d_draw, triangles_are_cut_at_the_screen_edges_and_the_near_plane)
{
    screen_vertex(-100, 50), screen_vertex(-90, 150), screen_vertex(-1, 60);  // all left of the screen
    auto at = [this](float sx, float sy) { screen_vertex(sx, sy, (sx + 60.5f) / 200.0f, sy / 240.0f); };
    at(-60.5f, 40.5f), at(20.5f, 200.5f), at(100.5f, 60.5f);
    at(160.5f, -300.0f), at(-400.0f, 500.0f), at(700.0f, 500.0f);
    n3d_draw_call c = call(RECORD_FLAGS, 1 | TRIANGLES);
    EXPECT_GE(n3d_draw_triangles(&c), 3);
    int on_left_edge = 0;
    float lo[2] = {1e9f, 1e9f}, hi[2] = {-1e9f, -1e9f};
    for (const n3d_raster_call& rc : recorded)
        for (int i = 0; i < 3; i++) {
            const float* v = rc.vertices[i];
            EXPECT_NE(rc.triangle_id, 0u);
            on_left_edge += rc.triangle_id == 1 && v[0] == 0.0f;
            for (int k = 0; k < 2; k++)
                lo[k] = std::fmin(lo[k], v[k]), hi[k] = std::fmax(hi[k], v[k]);
            EXPECT_NEAR(v[3], (v[0] + 60.5f) / 200.0f, 1e-4f);
            EXPECT_NEAR(v[4], v[1] / 240.0f, 1e-4f);
        }
    EXPECT_GE(on_left_edge, 2);  // both cut edges end exactly on x = 0
    EXPECT_TRUE(lo[0] == 0.0f && lo[1] == 0.0f && hi[0] == 320.0f && hi[1] == 240.0f);
    c = call(80, 128 | TRIANGLES);
    n3d_draw_triangles(&c);
    EXPECT_TRUE(pixel(0, 0) == 0xFC00 && pixel(319, 239) == 0xFC00);

    // a floor below the eye: two vertices in front, one behind; then wholly inside the near plane
    n3d_perspective(mvp, 320.0f, 240.0f, 0.7853982f, 0.5f);
    clear_mesh();
    recorded.clear();
    vertex(1.0f, -1.0f, -3.0f, 1.0f, 0.0f);
    vertex(-1.0f, -1.0f, -3.0f);
    vertex(0.0f, -1.0f, 2.0f, 0.5f, 1.0f);
    c = call(RECORD_FLAGS, 1 | TRIANGLES);
    EXPECT_GE(n3d_draw_triangles(&c), 1);
    ASSERT_FALSE(recorded.empty());
    for (const n3d_raster_call& rc : recorded)
        for (const float* v : rc.vertices) {
            EXPECT_TRUE(v[2] > 0.0f && v[2] <= 2.0f + 1e-5f) << v[2];  // w' at least the near plane
            EXPECT_TRUE(v[0] >= 0.0f && v[0] <= 320.0f && v[1] >= 0.0f && v[1] <= 240.0f);
        }
    for (size_t i = 2; i < xyz.size(); i += 3)
        xyz[i] = -0.4f;
    recorded.clear();
    c = call(RECORD_FLAGS, 1 | TRIANGLES);
    EXPECT_EQ(n3d_draw_triangles(&c), 0);
    EXPECT_TRUE(recorded.empty());
}

// Phong terms are clamp(H.T), clamp(H.B) times iw (0.5 here), for the vertices of drawn triangles
// whatever surrounds them: V is drawn, B its back face, O right of the screen, P cut at the left
// edge into two. The tangent frame follows the position, so repeated letters repeat vertices, but
// `differs` sets each triangle's corners apart in that attribute alone. Through the vertex index
// every call is the same bits; the index holds each chunk's distinct vertices.
TEST_F(n3d_draw, phong_terms_follow_their_vertices_whatever_is_culled_or_shared_around_them)
{
    using attribute = std::vector<float> n3d_draw::*;
    std::string mix;  // across the end of a plain list's chunk
    for (int i = 0; i < 17; i++)
        mix += "VBOP";
    const std::string v400(400, 'V'), b64(64, 'B'), o64(64, 'O'), p70(70, 'P');
    const struct {
        std::string triangles;
        attribute differs;
        uint32_t distinct, chunks;
    } rows[] = {{"V", nullptr, 3, 1}, {"BV", nullptr, 3, 1}, {"OBOV", nullptr, 6, 1}, {"VPBV", nullptr, 4, 1},
                {b64 + "V", nullptr, 3, 1}, {o64 + "OV", nullptr, 6, 1},
                {mix + "VB", nullptr, 7, 1}, {p70, nullptr, 3, 1},
                {"VVVVV", &n3d_draw::uv, 15, 1}, {"VVVVV", &n3d_draw::normals, 15, 1},
                {"VVVVV", &n3d_draw::tangents, 15, 1}, {"VVVVV", &n3d_draw::bitangents, 15, 1},
                {v400, nullptr, 6, 2},                       // 384 triangles a chunk
                {v400.substr(0, 70), &n3d_draw::uv, 210, 2}};  // 192 vertices a chunk: 64 triangles
    const float screens[4][3][2] = {{{100, 60}, {110, 180}, {220, 70}},   // V
                                    {{100, 60}, {220, 70}, {110, 180}},   // B
                                    {{400, 60}, {410, 180}, {520, 70}},   // O
                                    {{-50, 60}, {110, 180}, {220, 70}}};  // P
    const float light[3] = {0.0f, 0.0f, 4.0f}, camera[3] = {1.0f, 2.0f, 3.0f};
    mvp[3][3] = 2.0f;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.triangles.substr(0, 20) + (row.differs ? " differing" : ""));
        clear_mesh();
        const uint32_t count = (uint32_t)row.triangles.size();
        for (uint32_t t = 0; t < count; t++) {
            const int kind = (int)(strchr("VBOP", row.triangles[t]) - "VBOP");
            for (int i = 0; i < 3; i++) {
                const float sx = screens[kind][i][0], sy = screens[kind][i][1], a = 0.01f * (sx + sy);
                screen_vertex(sx, sy, 0.0f, 0.0f, 2.0f);  // a tangent frame of the position, longer than 1
                const size_t n = 3 * (3 * t + i);
                tangents[n] = 1.5f * std::cos(a);
                tangents[n + 1] = 1.5f * std::sin(a);
                bitangents[n + 1] = std::cos(a);
                bitangents[n + 2] = std::sin(a);
            }
            for (size_t i = 1; row.differs && i <= 3; i++) {  // a corner's first component, by its triangle
                std::vector<float>& a = this->*row.differs;
                a[a.size() - i * (a.size() / (3 * (t + 1)))] += 0.001f * (float)t;
            }
        }
        n3d_draw_call c = call(RECORD_PHONG_FLAGS, 4 | TRIANGLES);
        vec3_dup(c.light_position, light);
        vec3_dup(c.camera_position, camera);
        recorded.clear();
        n3d_draw_triangles_phong(&c);
        const std::vector<n3d_raster_call> plain = recorded;
        n3d_vertex_index index;
        n3d_vertex_index_build(&index, &vertices, &arena);
        uint32_t distinct = 0;
        for (uint32_t k = 0; k < index.chunk_count; k++)
            distinct += index.chunks[k].vertex_count;
        EXPECT_TRUE(index.chunk_count == row.chunks && distinct == row.distinct)
            << index.chunk_count << " " << distinct;
        recorded.clear();
        c.index = &index;
        n3d_draw_triangles_phong(&c);
        ASSERT_EQ(recorded.size(), plain.size());
        for (size_t i = 0; i < plain.size(); i++)
            EXPECT_TRUE(memcmp(&plain[i].vertices, &recorded[i].vertices, 33 * sizeof(float)) == 0 &&
                        plain[i].triangle_id == recorded[i].triangle_id) << "call " << i;
        // V is drawn as one call, P as two; B and O not at all
        ASSERT_EQ(plain.size(), std::count(row.triangles.begin(), row.triangles.end(), 'V') +
                                    2 * std::count(row.triangles.begin(), row.triangles.end(), 'P'));
        for (const n3d_raster_call& rc : plain) {
            const uint32_t t = rc.triangle_id;
            ASSERT_TRUE(t < count && (row.triangles[t] == 'V' || row.triangles[t] == 'P')) << t;
            EXPECT_TRUE(rc.grad_x[4] == 0.0f && rc.grad_y[4] == 0.0f);  // iw comes last, constant here
            for (int j = 0; j < 3; j++)
                for (uint32_t n = 3 * t; n < 3 * t + 3; n++) {
                    const float sx = 80.0f * xyz[3 * n] + 160.5f, sy = 60.0f * xyz[3 * n + 1] + 120.5f;
                    if (std::fabs(rc.vertices[j][0] - sx) > 1e-3f || std::fabs(rc.vertices[j][1] - sy) > 1e-3f)
                        continue;
                    double h[3], p0 = 0, p1 = 0;
                    test_half_vector(h, &xyz[3 * n], light, camera);
                    for (int k = 0; k < 3; k++)
                        p0 += h[k] * tangents[3 * n + k], p1 += h[k] * bitangents[3 * n + k];
                    EXPECT_NEAR(rc.vertices[j][5], 0.5 * std::fmax(-1.0, std::fmin(p0, 1.0)), 1e-5) << "vertex " << n;
                    EXPECT_NEAR(rc.vertices[j][6], 0.5 * std::fmax(-1.0, std::fmin(p1, 1.0)), 1e-5) << "vertex " << n;
                }
        }
    }
}
