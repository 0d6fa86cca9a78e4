// Draw functions: checks and their order, variant choice, projection, culling, clipping, skinning,
// phong terms, batching and the profile report. A rasterizer under a bit no real variant uses
// records what the draw functions hand over.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "diag.h"
#include "n3d.h"
#include "n3d_camera.h"
#include "n3d_draw.h"
#include "n3d_rasterizers.h"
#include "test_fatal.h"

namespace {

std::string exact(const char* function, const char* message, const char* tail = "")
{
    return test_fatal(function, "src/n3d_draw", message, tail);
}

constexpr uint32_t RECORD_FLAGS = 2048;
constexpr uint32_t RECORD_PHONG_FLAGS = RECORD_FLAGS | N3D_RASTERIZER_PHONG;
constexpr uint32_t TRIANGLES = 64;  // the pipeline's triangle bit: harmless to the draw functions

struct recorded_call {
    n3d_raster_call c;
    uint32_t current_triangle_id;
};
std::vector<recorded_call> recorded;

int record_rasterizer(n3d_raster_call* c)
{
    recorded.push_back({*c, n3d_current_triangle_id});
    return 1;
}
void record_names(n3d_rasterizer_entry* e) { e->block_count = 0; }

// A framebuffer whose rows lie between canary columns and canary rows.
struct guarded_framebuffer {
    static constexpr int PAD = 16;
    static constexpr uint16_t CANARY = 0x1234;
    std::vector<uint16_t> block;
    int width, height, stride;

    explicit guarded_framebuffer(n3d_framecontext* fc)
        : width(fc->framebuffer->width), height(fc->framebuffer->height), stride(width + 2 * PAD)
    {
        block.assign((size_t)stride * (height + 2 * PAD), CANARY);
        fc->framebuffer->pixels = (uint8_t*)(block.data() + PAD * stride + PAD);
        fc->framebuffer->row_bytes = stride * 2;
        n3d_framebuffer_clear(fc->framebuffer);
    }
    uint16_t at(int x, int y) const { return block[(size_t)(y + PAD) * stride + PAD + x]; }
    int canaries_touched() const
    {
        int n = 0;
        for (int y = -PAD; y < height + PAD; y++)
            for (int x = -PAD; x < width + PAD; x++)
                n += (x < 0 || x >= width || y < 0 || y >= height) && at(x, y) != CANARY;
        return n;
    }
};

class n3d_draw : public testing::Test {
protected:
    test_arena memory = test_arena(8 << 20);
    xmemarena& arena = memory.arena;
    n3d_framecontext fc;
    n3d_texture tex16, tex8;
    void* mips16[1];
    void* mips8[1];
    uint16_t palette[256];
    uint16_t shades[256 * 32];
    uint8_t phong_storage[272];
    n3d_draw_slots slots = {};
    mat4x4 mvp;
    mat4x4 skin[2];
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
        clear();
        // one colour everywhere: red 16-bit texels, 8-bit texels of index 7
        auto* texels16 = (uint16_t*)xmemarena_push_align(&arena, 65536 * 2, 32);
        auto* texels8 = (uint8_t*)xmemarena_push_align(&arena, 65536, 32);
        for (uint32_t i = 0; i < 65536; i++)
            texels16[i] = 0xFC00, texels8[i] = 7;
        for (uint32_t i = 0; i < 256; i++)
            palette[i] = (uint16_t)(0x8000 | i << 5);
        for (uint32_t i = 0; i < 256 * 32; i++)
            shades[i] = (uint16_t)(0x8000 | (i & 0x7FFF));
        memset(phong_storage, 20, sizeof(phong_storage));
        init_texture(&tex16, N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, mips16, texels16);
        init_texture(&tex8, N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555, mips8, texels8);
        slots = {&tex16, phong_storage + 8};
        for (mat4x4* m : {&mvp, &skin[0], &skin[1]})
            mat4x4_identity(*m);
    }
    void init_texture(n3d_texture* t, uint32_t format, void** mips, void* texels)
    {
        test_texture_256(t, format, mips, texels, palette, shades);
    }
    void clear() { test_clear_target(&fc); }

    // With the identity mvp clip space is (160 x, 120 y, z, 1): screen (160 x + 160.5, 120 y + 120.5).
    void vertex(float x, float y, float z, float u = 0.0f, float v = 0.0f)
    {
        xyz.insert(xyz.end(), {x, y, z});
        uv.insert(uv.end(), {u, v});
        normals.insert(normals.end(), {0.0f, 0.0f, 1.0f});
        tangents.insert(tangents.end(), {1.0f, 0.0f, 0.0f});
        bitangents.insert(bitangents.end(), {0.0f, 1.0f, 0.0f});
        joints.insert(joints.end(), {0, 1, 0, 0});
        weights.insert(weights.end(), {1.0f, 0.0f, 0.0f, 0.0f});
    }
    void screen_vertex(float sx, float sy, float u = 0.0f, float v = 0.0f)
    {
        vertex((sx - 160.5f) / 160.0f, (sy - 120.5f) / 120.0f, 0.0f, u, v);
    }
    void visible_triangle()  // counter-clockwise on screen, well inside
    {
        screen_vertex(100, 60), screen_vertex(110, 180), screen_vertex(220, 70);
    }
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
        n3d_draw_call c;
        memset(&c, 0, sizeof(c));
        c.rasterizer_flags = flags, c.draw_mode = mode, c.fc = &fc, c.batch_arena = n3d_batch_arena;
        c.vertices = &vertices, c.textures = &slots, c.triangle_count = (int32_t)(vertices.count / 3);
        c.skin_matrices = skin, c.mvp = &mvp;
        return c;
    }

    uint16_t pixel(int x, int y) const { return test_pixel16(&fc, x, y); }
};

using n3d_draw_death = n3d_draw;

uint32_t setup_hits(const n3d_rasterizer_entry* e) { return e->blocks[N3D_RASTERIZER_BLOCK_SETUP].hits; }

// Death-test children report, after the fatal text, how many triangles reached a rasterizer.
void report_draws_at_exit()
{
    atexit([] {
        uint32_t hits = (uint32_t)recorded.size();
        for (uint32_t i = 0; i < n3d_rasterizer_table_count; i++)
            hits += setup_hits(&n3d_rasterizer_table[i]);
        fprintf(stderr, "triangles drawn: %u\n", hits);
    });
}

}  // namespace

// ---- checks ----

TEST_F(n3d_draw_death, checks_are_fatal_in_their_order_before_any_triangle)
{
    visible_triangle();
    const char* fn = "n3d_draw_triangles";
    const n3d_draw_call good = call(80, 1 | 128 | TRIANGLES);

    // the framebuffer before the texture, the texture before unknown flags
    n3d_framebuffer fb8 = *fc.framebuffer;
    fb8.format = N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8;
    n3d_framecontext fc8 = fc;
    fc8.framebuffer = &fb8;
    n3d_texture linear = tex16;
    linear.linear = 1;
    n3d_draw_slots no_texture = {nullptr, nullptr}, linear_slots = {&linear, nullptr};
    const struct {
        n3d_framecontext* fc;
        n3d_draw_slots* textures;
        uint32_t flags;
        const char* message;
    } firsts[] = {
        {&fc8, &no_texture, 12345, "framebuffer only 16bpp supported for now\n"},
        {&fc, &no_texture, 12345, "texture0 is null!\n"},
        {&fc, &linear_slots, 12345, "texture0 is not swizzled! (all rasterizers require textures that are swizzled!\n"},
        {&fc, &slots, 12345,
         "could not find rasterizer with flags: 12345 (maybe combination is not generated, see n3d_rasterizers.h)\n"},
    };
    n3d_draw_call c = good;
    for (const auto& f : firsts) {
        c.fc = f.fc, c.textures = f.textures, c.rasterizer_flags = f.flags;
        EXPECT_EXIT(n3d_draw_triangles(&c), testing::ExitedWithCode(1), exact(fn, f.message));
    }

    // each compatibility rule, given a combination that breaks every later rule too
    struct rule {
        uint32_t mode, flags;
        const char* message;
    };
    const rule rules[] = {
        {1, 179, "N3D_DRAW_MODE_DEFAULT not compatible with N3D_RASTERIZER_PHONG\n"},
        {1, 336, "N3D_DRAW_MODE_DEFAULT not compatible with N3D_RASTERIZER_AFFINE\n"},
        {0, 179, "N3D_RASTERIZER_PHONG requires N3D_DRAW_MODE_PHONG\n"},
        {4, 48, "N3D_DRAW_MODE_PHONG requires N3D_RASTERIZER_PHONG\n"},
        {0, 48, "N3D_RASTERIZER_T0_I8ARGB1555 requires N3D_DRAW_MODE_TEXTURE0_INDEX8_ARGB1555\n"},
        {0, 81, "N3D_RASTERIZER_T0_ARGB1555 requires N3D_DRAW_MODE_TEXTURE0_ARGB1555\n"},
        {128, RECORD_FLAGS,
         "N3D_DRAW_MODE_TEXTURE0_INDEX8_ARGB1555 requires either N3D_RASTERIZER_T0_ARGB1555 or "
         "N3D_RASTERIZER_T0_ARGB1555\n"},
    };
    for (const rule& r : rules) {
        c = good;
        c.draw_mode = r.mode | TRIANGLES, c.rasterizer_flags = r.flags;
        EXPECT_EXIT((report_draws_at_exit(), n3d_draw_triangles(&c)), testing::ExitedWithCode(1),
                    exact(fn, r.message, "triangles drawn: 0\n"))
            << r.mode << " " << r.flags;
    }
    // every draw function checks under its own name
    c = good;
    c.draw_mode = 128 | TRIANGLES, c.rasterizer_flags = 179;
    EXPECT_EXIT(n3d_draw_triangles_skinned(&c), testing::ExitedWithCode(1),
                exact("n3d_draw_triangles_skinned", "N3D_RASTERIZER_PHONG requires N3D_DRAW_MODE_PHONG\n"));
    c.draw_mode = 4 | 128 | TRIANGLES, c.rasterizer_flags = 81;
    EXPECT_EXIT(n3d_draw_triangles_phong(&c), testing::ExitedWithCode(1),
                exact("n3d_draw_triangles_phong", "N3D_DRAW_MODE_PHONG requires N3D_RASTERIZER_PHONG\n"));
}

TEST_F(n3d_draw_death, what_the_loops_read_unchecked_is_checked_once_per_call)
{
    visible_triangle();
    n3d_draw_call c = call(RECORD_FLAGS, 1 | TRIANGLES);
    c.triangle_count = 2;
    EXPECT_EXIT(n3d_draw_triangles(&c), testing::ExitedWithCode(1),
                exact("n3d_draw_triangles", "triangle_count 2 but the vertices hold 1 triangles\n"));
    c = call(RECORD_FLAGS, 1 | TRIANGLES);
    vertices.weights = nullptr;
    EXPECT_EXIT(n3d_draw_triangles_skinned(&c), testing::ExitedWithCode(1),
                exact("n3d_draw_triangles_skinned", "skinned drawing needs joints, weights and skin_matrices!\n"));
    // a phong variant through the unlit draw, or the reverse, would read the wrong gradients
    c = call(RECORD_PHONG_FLAGS, 4 | TRIANGLES);
    EXPECT_EXIT(n3d_draw_triangles(&c), testing::ExitedWithCode(1),
                exact("n3d_draw_triangles",
                      "record_phong interpolates 4 attributes but n3d_draw_triangles hands it 2\n"));
    slots.phong_table = nullptr;
    EXPECT_EXIT(n3d_draw_triangles_phong(&c), testing::ExitedWithCode(1),
                exact("n3d_draw_triangles_phong", "record_phong needs a phong table but slot 1 is null!\n"));
    vertices.t_xyz = nullptr;
    EXPECT_EXIT(n3d_draw_triangles_phong(&c), testing::ExitedWithCode(1),
                exact("n3d_draw_triangles_phong", "phong drawing needs t_xyz and b_xyz!\n"));
}

// ---- variants ----

TEST_F(n3d_draw, compatible_flags_and_modes_draw)
{
    visible_triangle();
    // the animated scene's two combinations, and bit 128 standing for an ARGB1555 texture 0
    slots.texture0 = &tex8;
    n3d_draw_call c = call(190, 1220);
    EXPECT_EQ(n3d_draw_triangles_phong(&c), 1);
    EXPECT_EQ(pixel(140, 100), shades[7 * 32 + 20]);
    clear();
    slots.texture0 = &tex16;
    c = call(81, 192);
    EXPECT_EQ(n3d_draw_triangles(&c), 1);
    EXPECT_EQ(pixel(140, 100), 0xFC00);
    c = call(80, 128 | TRIANGLES);
    EXPECT_EQ(n3d_draw_triangles(&c), 1);
    EXPECT_EQ(setup_hits(&n3d_rasterizer_table[n3d_find_rasterizer(80)]), 1u);
}

TEST_F(n3d_draw, no_flags_let_the_draw_mode_choose_the_variant)
{
    visible_triangle();
    enum { DRAW, SKINNED, PHONG };
    const struct {
        int function;
        uint32_t mode;
        const char* name;
    } choices[] = {
        {DRAW, 1, "n3d_render_triangle_v8_argb1555_t0argb1555"},
        {DRAW, 1 | 512 | 1024, "n3d_render_triangle_v8_argb1555_t0argb1555"},
        {DRAW, 1 | 128 | 1024, "n3d_render_triangle_v8_argb1555_t0i8argb1555"},
        {DRAW, 1 | 128 | 512, "n3d_render_triangle_v8_argb1555_t0i8argb1555_covrw01"},
        {SKINNED, 1, "n3d_render_triangle_v8_argb1555_t0argb1555"},
        {SKINNED, 1 | 128, "n3d_render_triangle_v8_argb1555_t0i8argb1555"},
        {SKINNED, 1 | 128 | 512, "n3d_render_triangle_v8_argb1555_t0i8argb1555_covrw01"},
        {PHONG, 4 | 512 | 1024, "n3d_render_triangle_v8_phong_argb1555_t0argb1555"},
        {PHONG, 4 | 128 | 1024, "n3d_render_triangle_v8_phong_argb1555_t0i8argb1555"},
        {PHONG, 4 | 128 | 512, "n3d_render_triangle_v8_phong_argb1555_t0i8argb1555_covrw01"},
        {PHONG, 4 | 128 | 512 | 1024, "n3d_render_triangle_v8_phong_argb1555_t0i8argb1555_covrw01_zbuffrw11"},
    };
    for (const auto& ch : choices) {
        for (uint32_t i = 0; i < n3d_rasterizer_table_count; i++)
            memset(n3d_rasterizer_table[i].blocks, 0, sizeof(n3d_rasterizer_table[i].blocks));
        slots.texture0 = (ch.mode & 128) ? &tex8 : &tex16;
        n3d_draw_call c = call(0, ch.mode | TRIANGLES);
        const int32_t drawn = ch.function == DRAW      ? n3d_draw_triangles(&c)
                              : ch.function == SKINNED ? n3d_draw_triangles_skinned(&c)
                                                       : n3d_draw_triangles_phong(&c);
        EXPECT_EQ(drawn, 1) << ch.name;
        std::string used;
        for (uint32_t i = 0; i < n3d_rasterizer_table_count; i++)
            if (setup_hits(&n3d_rasterizer_table[i]))
                used += n3d_rasterizer_table[i].name;
        EXPECT_EQ(used, ch.name) << "mode " << ch.mode;
    }
}

// ---- projection, gradients, culling ----

TEST_F(n3d_draw, projection_folds_the_viewport_and_gradients_follow_the_area)
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
    const n3d_raster_call& r = recorded[0].c;
    const float expected[3][5] = {
        {160.5f, 120.5f, 1.0f, 0.0f, 0.0f},
        {160.5f, 210.5f, 0.5f, 0.0f, 0.5f},  // x, y, iw, u*iw, v*iw
        {240.5f, 120.5f, 0.5f, 0.5f, 0.0f},
    };
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

    // clockwise on screen: culled, by a real variant too
    std::swap_ranges(xyz.begin() + 3, xyz.begin() + 6, xyz.begin() + 6);
    c = call(RECORD_FLAGS, 1 | TRIANGLES);
    EXPECT_EQ(n3d_draw_triangles(&c), 0);
    c = call(80, 128 | TRIANGLES);
    EXPECT_EQ(n3d_draw_triangles(&c), 0);
    EXPECT_EQ(recorded.size(), 1u);
    EXPECT_EQ(pixel(180, 140), 0x8000);
}

// ---- clipping ----

TEST_F(n3d_draw, triangles_off_screen_vanish_and_crossing_ones_are_cut_at_the_edges)
{
    screen_vertex(-100, 50), screen_vertex(-90, 150), screen_vertex(-1, 60);  // all left of the screen
    n3d_draw_call c = call(RECORD_FLAGS, 1 | TRIANGLES);
    EXPECT_EQ(n3d_draw_triangles(&c), 0);
    EXPECT_TRUE(recorded.empty());

    // across the left edge, and one over the whole screen; with w' = 1 the attributes are linear
    // on screen: u = (x + 60.5) / 200, v = y / 240
    clear_mesh();
    auto at = [this](float sx, float sy) { screen_vertex(sx, sy, (sx + 60.5f) / 200.0f, sy / 240.0f); };
    at(-60.5f, 40.5f), at(20.5f, 200.5f), at(100.5f, 60.5f);
    at(160.5f, -300.0f), at(-400.0f, 500.0f), at(700.0f, 500.0f);
    c = call(RECORD_FLAGS, 1 | TRIANGLES);
    EXPECT_GE(n3d_draw_triangles(&c), 3);
    int on_left_edge = 0;
    float lo[2] = {1e9f, 1e9f}, hi[2] = {-1e9f, -1e9f};
    for (const recorded_call& rc : recorded)
        for (int i = 0; i < 3; i++) {
            const float* v = rc.c.vertices[i];
            on_left_edge += rc.c.triangle_id == 0 && v[0] == 0.0f;
            for (int k = 0; k < 2; k++)
                lo[k] = std::fmin(lo[k], v[k]), hi[k] = std::fmax(hi[k], v[k]);
            EXPECT_NEAR(v[3], (v[0] + 60.5f) / 200.0f, 1e-4f);
            EXPECT_NEAR(v[4], v[1] / 240.0f, 1e-4f);
        }
    EXPECT_GE(on_left_edge, 2);  // both cut edges end exactly on x = 0
    EXPECT_TRUE(lo[0] == 0.0f && lo[1] == 0.0f && hi[0] == 320.0f && hi[1] == 240.0f);

    // a real variant fills up to column 0 and the last column, and nothing beyond
    guarded_framebuffer g(&fc);
    c = call(80, 128 | TRIANGLES);
    n3d_draw_triangles(&c);
    EXPECT_EQ(g.canaries_touched(), 0);
    EXPECT_TRUE(g.at(0, 0) == 0xFC00 && g.at(319, 239) == 0xFC00);
    EXPECT_TRUE(fc.coverage[0]->bits[0] & 0x80000000u);
}

TEST_F(n3d_draw, triangles_through_the_near_plane_are_cut_in_front_of_the_eye)
{
    n3d_perspective(mvp, 320.0f, 240.0f, 0.7853982f, 0.5f);
    // a floor below the eye: two vertices in front, one behind
    vertex(1.0f, -1.0f, -3.0f, 1.0f, 0.0f);
    vertex(-1.0f, -1.0f, -3.0f, 0.0f, 0.0f);
    vertex(0.0f, -1.0f, 2.0f, 0.5f, 1.0f);
    n3d_draw_call c = call(RECORD_FLAGS, 1 | TRIANGLES);
    EXPECT_GE(n3d_draw_triangles(&c), 1);
    ASSERT_FALSE(recorded.empty());
    for (const recorded_call& rc : recorded)
        for (int i = 0; i < 3; i++) {
            const float* v = rc.c.vertices[i];
            EXPECT_TRUE(v[2] > 0.0f && v[2] <= 2.0f + 1e-5f) << v[2];  // w' at least the near plane
            EXPECT_TRUE(v[0] >= 0.0f && v[0] <= 320.0f && v[1] >= 0.0f && v[1] <= 240.0f);
        }
    guarded_framebuffer g(&fc);
    c = call(80, 128 | TRIANGLES);
    EXPECT_GE(n3d_draw_triangles(&c), 1);
    EXPECT_EQ(g.canaries_touched(), 0);
    EXPECT_EQ(g.at(160, 235), 0xFC00);  // the near part reaches the bottom of the screen
    EXPECT_EQ(g.at(160, 200), 0x8000);  // above the far end

    for (size_t i = 2; i < xyz.size(); i += 3)
        xyz[i] = -0.4f;  // wholly inside the near plane
    recorded.clear();
    c = call(RECORD_FLAGS, 1 | TRIANGLES);
    EXPECT_EQ(n3d_draw_triangles(&c), 0);
    EXPECT_TRUE(recorded.empty());
}

// ---- skinning, phong terms, batches ----

TEST_F(n3d_draw, skinned_positions_blend_the_joint_matrices_by_weight)
{
    mat4x4_translate(skin[1], 0.4f, -0.25f, 0.0f);
    vertex(0.0f, 0.0f, 0.0f), vertex(0.0f, 0.5f, 0.0f), vertex(0.5f, 0.0f, 0.0f);
    // vertex 0 all joint 0, vertex 1 half and half, vertex 2 all joint 1
    const float w[3][4] = {{1, 0, 0, 0}, {0.5f, 0.5f, 0, 0}, {0, 1, 0, 0}};
    memcpy(weights.data(), w, sizeof(w));
    mvp[3][0] = 100.0f;  // the mvp plays no part in skinned drawing
    n3d_draw_call c = call(RECORD_FLAGS, 1 | TRIANGLES);
    ASSERT_EQ(n3d_draw_triangles_skinned(&c), 1);
    const n3d_raster_call& r = recorded.at(0).c;
    const float clip[3][2] = {{0, 0}, {0.2f, 0.375f}, {0.9f, -0.25f}};  // joint 1 moves by (0.4, -0.25)
    for (int i = 0; i < 3; i++) {
        EXPECT_FLOAT_EQ(r.vertices[i][0], 160.0f * clip[i][0] + 160.5f) << i;
        EXPECT_FLOAT_EQ(r.vertices[i][1], 120.0f * clip[i][1] + 120.5f) << i;
    }
}

TEST_F(n3d_draw, phong_terms_are_the_half_vector_against_tangent_and_bitangent)
{
    vertex(0.0f, 0.0f, 0.0f, 0.0f, 0.0f), vertex(0.0f, 0.5f, 0.0f, 0.0f, 1.0f), vertex(0.5f, 0.0f, 0.0f, 1.0f, 0.0f);
    const float t[3][3] = {{0, 0, 2}, {1, 0, 0}, {0.6f, 0, 0.8f}};  // the first overshoots: clamped to 1
    const float b[3][3] = {{0, 1, 0}, {0, 0.6f, 0.8f}, {0, -1, 0}};
    memcpy(tangents.data(), t, sizeof(t));
    memcpy(bitangents.data(), b, sizeof(b));
    mvp[3][3] = 2.0f;  // iw = 0.5: the terms arrive multiplied by it
    n3d_draw_call c = call(RECORD_PHONG_FLAGS, 4 | TRIANGLES);
    vec3_set(c.light_position, 0.0f, 0.0f, 4.0f);
    vec3_set(c.camera_position, 1.0f, 2.0f, 3.0f);
    ASSERT_EQ(n3d_draw_triangles_phong(&c), 1);
    const n3d_raster_call& r = recorded.at(0).c;
    for (int i = 0; i < 3; i++) {
        double h[3], p0 = 0, p1 = 0;
        test_half_vector(h, &xyz[3 * i], c.light_position, c.camera_position);
        for (int k = 0; k < 3; k++)
            p0 += h[k] * t[i][k], p1 += h[k] * b[i][k];
        EXPECT_NEAR(r.vertices[i][5], 0.5 * std::fmin(p0, 1.0), 1e-5) << i;
        EXPECT_NEAR(r.vertices[i][6], 0.5 * std::fmax(p1, -1.0), 1e-5) << i;
    }
    EXPECT_EQ(r.vertices[0][5], 0.5f);  // clamped to 1, times iw
    // gradient order: u*iw, v*iw, p0*iw, p1*iw, then iw (constant here)
    EXPECT_FLOAT_EQ(r.grad_x[0], 0.5f / 40.0f);
    EXPECT_FLOAT_EQ(r.grad_y[1], 0.5f / 30.0f);
    EXPECT_EQ(r.grad_x[4], 0.0f);
}


// Vertices are lit only for the triangles that are drawn: whatever the batch holds around a
// triangle (back faces, triangles off screen, triangles cut at an edge, batch ends), the terms
// that reach the rasterizer are its own vertices' half vectors. V is drawn as it is, B is its
// back face, O lies right of the screen and P reaches past the left edge (cut into two).
TEST_F(n3d_draw, phong_terms_follow_their_triangle_whatever_is_culled_around_it)
{
    const struct {
        const char* triangles;
    } rows[] = {{"V"}, {"BV"}, {"OBOV"}, {"VPBV"}, {"BBBBBBBBBBBBBBBV"}, {"OOOOOOOOOOOOOOOOV"},
                {"VBOPVBOPVBOPVBOPVB"}, {"PPPPPPPPPPPPPPPPPPPP"}};
    const float screens[4][3][2] = {{{100, 60}, {110, 180}, {220, 70}},   // V
                                    {{100, 60}, {220, 70}, {110, 180}},   // B
                                    {{400, 60}, {410, 180}, {520, 70}},   // O
                                    {{-50, 60}, {110, 180}, {220, 70}}};  // P
    const float light[3] = {0.0f, 0.0f, 4.0f}, camera[3] = {1.0f, 2.0f, 3.0f};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.triangles);
        clear_mesh();
        recorded.clear();
        const uint32_t count = (uint32_t)strlen(row.triangles);
        for (uint32_t t = 0; t < count; t++) {
            const int kind = (int)(strchr("VBOP", row.triangles[t]) - "VBOP");
            for (int i = 0; i < 3; i++)
                screen_vertex(screens[kind][i][0], screens[kind][i][1]);
        }
        for (uint32_t n = 0; n < 3 * count; n++) {  // every vertex its own tangent frame
            const float a = 0.3f * (float)n;
            const float t[3] = {std::cos(a), std::sin(a), 0.0f}, b[3] = {0.0f, std::cos(a), std::sin(a)};
            memcpy(&tangents[3 * n], t, sizeof(t));
            memcpy(&bitangents[3 * n], b, sizeof(b));
        }
        n3d_draw_call c = call(RECORD_PHONG_FLAGS, 4 | TRIANGLES);
        vec3_dup(c.light_position, light);
        vec3_dup(c.camera_position, camera);
        n3d_draw_triangles_phong(&c);

        uint32_t expected_calls = 0;
        std::vector<bool> matched(3 * count, false);
        for (uint32_t t = 0; t < count; t++)
            expected_calls += row.triangles[t] == 'V' ? 1 : row.triangles[t] == 'P' ? 2 : 0;
        ASSERT_EQ(recorded.size(), expected_calls);
        for (const recorded_call& rc : recorded) {
            const uint32_t t = rc.current_triangle_id;
            ASSERT_LT(t, count);
            EXPECT_TRUE(row.triangles[t] == 'V' || row.triangles[t] == 'P') << t;
            for (int j = 0; j < 3; j++)
                for (uint32_t n = 3 * t; n < 3 * t + 3; n++) {
                    const float sx = 160.0f * xyz[3 * n] + 160.5f, sy = 120.0f * xyz[3 * n + 1] + 120.5f;
                    if (std::fabs(rc.c.vertices[j][0] - sx) > 1e-3f || std::fabs(rc.c.vertices[j][1] - sy) > 1e-3f)
                        continue;
                    double h[3], p0 = 0, p1 = 0;
                    test_half_vector(h, &xyz[3 * n], light, camera);
                    for (int k = 0; k < 3; k++)
                        p0 += h[k] * tangents[3 * n + k], p1 += h[k] * bitangents[3 * n + k];
                    EXPECT_NEAR(rc.c.vertices[j][5], p0, 1e-5) << "triangle " << t << " vertex " << n;
                    EXPECT_NEAR(rc.c.vertices[j][6], p1, 1e-5) << "triangle " << t << " vertex " << n;
                    matched[n] = true;
                }
        }
        // V hands over its three vertices, P its two inside the screen
        for (uint32_t n = 0; n < 3 * count; n++) {
            const char kind = row.triangles[n / 3];
            EXPECT_EQ(matched[n], kind == 'V' || (kind == 'P' && n % 3 != 0)) << "vertex " << n;
        }
    }
}
