// Mesh rendering and the draw pipeline: choices by draw mode, checks in their order, skinning,
// the pipeline's limits, validation before drawing, push order, light and camera in model space.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "diag.h"
#include "n3d_pipeline.h"
#include "n3d_rasterizers.h"
#include "test_fatal.h"

namespace {

constexpr uint16_t RED = 0xFC00, GREEN = 0x83E0, CLEAR = 0x8000;
constexpr uint32_t INDEX = 7;  // every texel of the 8-bit texture
constexpr uint32_t RECORD_PHONG_FLAGS = 2048 | N3D_RASTERIZER_PHONG;  // no real variant has bit 2048
constexpr uint32_t TRIS = N3D_DRAW_MODE_TRIANGLES;

std::vector<n3d_raster_call> recorded;
const uint8_t* recorded_phong_table;  // what the last call's phong slot held while it drew
int record_rasterizer(n3d_raster_call* c)
{
    recorded.push_back(*c);
    recorded_phong_table = *c->phong;
    return 1;
}
void record_names(n3d_rasterizer_entry* e) { e->block_count = 0; }

// A quad of two triangles over [-1, 1]^2 at z = 0, facing +z, with joint 0 at full weight.
struct quad_mesh {
    float xyz[18] = {-1, -1, 0, 1, -1, 0, 1, 1, 0, -1, -1, 0, 1, 1, 0, -1, 1, 0};
    float uv[12] = {0, 0, 1, 0, 1, 1, 0, 0, 1, 1, 0, 1};
    float n[18] = {0, 0, 1, 0, 0, 1, 0, 0, 1, 0, 0, 1, 0, 0, 1, 0, 0, 1};
    float t[18] = {1, 0, 0, 1, 0, 0, 1, 0, 0, 1, 0, 0, 1, 0, 0, 1, 0, 0};
    float b[18] = {0, 1, 0, 0, 1, 0, 0, 1, 0, 0, 1, 0, 0, 1, 0, 0, 1, 0};
    float weights[24] = {1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0};
    uint8_t joints[24] = {};
    n3d_vertices vertices() { return {6, xyz, uv, n, t, b, nullptr, nullptr, nullptr}; }
};

// Pixels that differ from the clear colour.
int drawn_pixels(const n3d_framecontext* fc)
{
    int n = 0;
    for (int y = 0; y < 240; y++)
        for (int x = 0; x < 320; x++)
            n += test_pixel16(fc, x, y) != CLEAR;
    return n;
}

n3d_pipeline the_pipeline;  // large: kept off the stack

class n3d_pipeline_test : public testing::Test {
protected:
    test_arena memory = test_arena(8 << 20);
    xmemarena& arena = memory.arena;
    n3d_framecontext fc;
    n3d_texture red, green, indexed;
    void* mips[3][1];
    uint16_t palette[256], shades[256 * 32];
    n3d_phong_lut lut;
    n3d_texture* format1[2] = {};
    n3d_texture* format2[3] = {};
    const uint8_t* phong_luts[2] = {};
    n3d_render_context tc;
    quad_mesh quad;
    n3d_vertices v = quad.vertices();  // what the pipeline commands draw
    n3d_mesh mesh = {};
    mat4x4 joint[1], skin[1];
    n3d_pipeline* p = &the_pipeline;

    void SetUp() override
    {
        recorded.clear();
        n3d_init(&arena);
        n3d_register_rasterizer("record_phong", 4, record_rasterizer, record_names, RECORD_PHONG_FLAGS, __FILE__,
                                __LINE__);
        n3d_framecontext_init(&fc, &arena, 320, 240, N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555,
                              N3D_FRAMECONTEXT_COVERAGE | N3D_FRAMECONTEXT_ZBUFFER);
        clear();
        for (uint32_t i = 0; i < 256 * 32; i++) {  // the shade in the low bits
            shades[i] = (uint16_t)(0x9000 | (i & 31));
            palette[i % 256] = (uint16_t)(0x8000 | i % 256);
        }
        auto* texels = (uint16_t*)xmemarena_push_align(&arena, 3 * 65536 * 2, 32);
        std::fill(texels, texels + 65536, RED);
        std::fill(texels + 65536, texels + 2 * 65536, GREEN);
        memset(texels + 2 * 65536, INDEX, 65536);
        test_texture_256(&red, N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, mips[0], texels, palette, shades);
        test_texture_256(&green, N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, mips[1], texels + 65536, palette, shades);
        test_texture_256(&indexed, N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555, mips[2], texels + 2 * 65536, palette,
                         shades);
        n3d_phong_lut_init(&lut, &arena, 0.5f, 1);
        format1[1] = &indexed;
        format2[0] = &red, format2[1] = &green;
        phong_luts[1] = lut.table;
        n3d_texture* const* const tables[N3D_TEXEL_FORMAT_COUNT] = {nullptr, format1, format2, nullptr, nullptr};
        mat4x4 view;
        mat4x4_translate(view, 0.0f, 0.0f, -3.0f);  // the camera 3 units in front of the quad
        n3d_render_context_init(&tc, &fc, tables, phong_luts, view, 0.7853982f, 0.5f);
        mat4x4_identity(mesh.model);
        mat4x4_identity(mesh.world_to_model);
        mesh.vertices = quad.vertices();
    }

    void clear() { test_clear_target(&fc); }
    uint16_t pixel(int x, int y) const { return test_pixel16(&fc, x, y); }

    // A pipeline command drawing the quad moved by (dx, dy) in the world.
    n3d_pipeline_draw_cmd command(uint32_t flags, uint32_t mode, n3d_texture* texture, const n3d_vertices* vx,
                                  float dx = 0.0f, float dy = 0.0f)
    {
        n3d_pipeline_draw_cmd cmd = {};
        cmd.rasterizer_flags = flags;
        cmd.draw_mode = mode;
        cmd.texture0 = texture;
        cmd.vertices = vx;
        cmd.phong_lut = (flags & N3D_RASTERIZER_PHONG) ? &lut : nullptr;
        cmd.light = &tc.light;
        mat4x4_translate(cmd.model, dx, dy, 0.0f);
        mat4x4_translate(cmd.world_to_model, -dx, -dy, 0.0f);
        return cmd;
    }
};

using n3d_pipeline_death = n3d_pipeline_test;

// Death-test children report, after the fatal text, how many pixels were drawn.
const n3d_framecontext* exit_report_fc;
void report_pixels_at_exit()
{
    atexit([] { fprintf(stderr, "pixels drawn: %d\n", drawn_pixels(exit_report_fc)); });
}

}  // namespace

TEST_F(n3d_pipeline_test, render_mesh_takes_texture_draw_function_and_skinning_from_mode_and_mesh)
{
    const struct {
        uint32_t texture_id, phong_lut_id, mode;
        uint16_t mask, pixel;
    } rows[] = {
        {0, 0, N3D_DRAW_MODE_DEFAULT | TRIS, 0xFFFF, RED},
        {1, 0, N3D_DRAW_MODE_DEFAULT | TRIS, 0xFFFF, GREEN},
        {1, 0, N3D_DRAW_MODE_DEFAULT | TRIS | 128, 0xFFFF, palette[INDEX]},  // the format-1 table, through the palette
        {1, 1, N3D_DRAW_MODE_PHONG | TRIS | 128, 0xFFE0, 0x9000},  // the shade table, lit through LUT 1
    };
    for (const auto& r : rows) {
        clear();
        mesh.texture_id = r.texture_id;
        mesh.phong_lut_id = r.phong_lut_id;
        const uint32_t hits = prof_global.hits[BLOCK_RENDER_MESH];
        n3d_render_mesh(&tc, &mesh, r.mode);
        EXPECT_EQ(pixel(160, 120) & r.mask, r.pixel) << r.mode;
        EXPECT_EQ(prof_global.hits[BLOCK_RENDER_MESH], hits + 1);
    }
    // with joint matrices, through the skin matrices (view_projection x joint), not the model
    clear();
    mesh.texture_id = 0;
    mat4x4_translate(joint[0], -1.5f, 0.0f, 0.0f);
    mesh.joint_matrices = joint;
    mesh.skin_matrices = skin;
    mesh.vertices.joints = quad.joints;
    mesh.vertices.weights = quad.weights;
    n3d_mesh_update_skin_matrices(&mesh, 1, &tc.camera);
    mat4x4 expected;
    mat4x4_mul(expected, tc.camera.view_projection, joint[0]);
    EXPECT_TRUE(std::equal(&skin[0][0][0], &skin[0][0][0] + 16, &expected[0][0]));
    n3d_render_mesh(&tc, &mesh, N3D_DRAW_MODE_DEFAULT | TRIS);
    EXPECT_EQ(pixel(60, 120), RED);  // moved left by the joint, not drawn where the model puts it
    EXPECT_EQ(pixel(200, 120), CLEAR);
}

TEST_F(n3d_pipeline_death, render_mesh_checks_come_in_their_order)
{
    n3d_mesh bad_texture = mesh, skinned = mesh, no_tangents = mesh, no_tangents_lut1 = mesh;
    bad_texture.texture_id = 2;
    skinned.joint_matrices = joint;
    no_tangents.vertices.t_xyz = no_tangents_lut1.vertices.t_xyz = nullptr;
    no_tangents_lut1.phong_lut_id = 1;
    const uint32_t lines = N3D_DRAW_MODE_LINES, tris = TRIS;
    const struct {
        const n3d_mesh* mesh;
        uint32_t mode;
        const char* message;
    } cases[] = {
        // the texture first, even for a mode that is wrong in every other way
        {&bad_texture, lines, "tc->textures_per_format[texture_formats[0] == 2][mesh->texture_id == 2] is null!\n"},
        {&mesh, 128 | N3D_DRAW_MODE_DEFAULT | tris,
         "tc->textures_per_format[texture_formats[0] == 1][mesh->texture_id == 0] is null!\n"},
        // lines before the triangle checks
        {&mesh, lines | tris, "draw_mode 96 for lines not implemented\n"},
        {&skinned, lines | tris, "skinning not implemented for lines\n"},
        {&mesh, N3D_DRAW_MODE_DEFAULT, "invalid draw_mode\n"},
        {&mesh, tris, "invalid draw_mode for triangles? 64\n"},
        // phong: the LUT before the vertex arrays
        {&no_tangents, N3D_DRAW_MODE_PHONG | tris,
         "N3D_DRAW_MODE_PHONG: tc->phong_luts[mesh->phong_lut_id == 0] is null!\n"},
        {&no_tangents_lut1, N3D_DRAW_MODE_PHONG | tris,
         "N3D_DRAW_MODE_PHONG was used but the mesh has nil on n_xyz and/or t_xyz and/or b_xyz!\n"},
    };
    for (const auto& c : cases)
        EXPECT_EXIT(n3d_render_mesh(&tc, c.mesh, c.mode), testing::ExitedWithCode(1),
                    test_fatal("n3d_render_mesh", "src/n3d", c.message));
}

TEST_F(n3d_pipeline_death, limits_stop_the_push_that_crosses_them)
{
    n3d_vertices one = quad.vertices();
    one.count = 3;
    n3d_pipeline_draw_cmd cmd = command(80, 128 | TRIS, &red, &one);
    n3d_pipeline_begin(p, &fc, &tc.camera);
    for (int i = 0; i < 100; i++)
        n3d_pipeline_push(p, &cmd);
    EXPECT_TRUE(p->count == 100 && p->primitives == 100);
    EXPECT_EXIT(n3d_pipeline_push(p, &cmd), testing::ExitedWithCode(1),
                test_fatal("n3d_pipeline_push", "src/n3d_pipeline",
                      "reached max cmds: 100 (increase N3D_PIPELINE_DRAW_CMD_MAX_COUNT)\n"));
    // exactly 4096 triangles fit; begin starts the count afresh
    n3d_vertices many = one;
    many.count = 4095 * 3;
    n3d_pipeline_begin(p, &fc, &tc.camera);
    EXPECT_TRUE(p->count == 0 && p->primitives == 0);
    n3d_pipeline_draw_cmd big = command(80, 128 | TRIS, &red, &many);
    n3d_pipeline_push(p, &big);
    n3d_pipeline_push(p, &cmd);
    EXPECT_EQ(p->primitives, 4096u);
    EXPECT_EXIT(n3d_pipeline_push(p, &cmd), testing::ExitedWithCode(1),
                test_fatal("n3d_pipeline_push", "src/n3d_pipeline",
                           "reached max primitives: 4096 (increase N3D_PIPELINE_MAX_PRIMITIVES)\n"));
}

// Validation covers every command before any is drawn; what it lets through meets the draw
// function's own checks once the commands before it are drawn.
TEST_F(n3d_pipeline_death, flush_validates_every_command_before_drawing_any)
{
    exit_report_fc = &fc;
    n3d_vertex_index one_triangle = {1, 0, nullptr, nullptr, nullptr};
    n3d_pipeline_draw_cmd indexed_wrongly = command(81, 192, &red, &v);
    indexed_wrongly.index = &one_triangle;
    const struct {
        n3d_pipeline_draw_cmd wrong;
        const char *function, *module, *message, *drawn;
    } cases[] = {
        {command(81, 192, &indexed, &v, 1.0f), "n3d_pipeline_flush", "src/n3d_pipeline",
         "cmd[1] has rasterizer flag N3D_RASTERIZER_T0_ARGB1555 but texture format is not "
         "N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555!\n", "0"},
        {command(190, 1220, &red, &v), "n3d_pipeline_flush", "src/n3d_pipeline",
         "cmd[1] has rasterizer flag N3D_RASTERIZER_T0_I8ARGB1555 but texture format is not "
         "N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555!\n", "0"},
        {command(81, 192, nullptr, &v), "n3d_draw_triangles", "src/n3d_draw", "texture0 is null!\n", "[1-9][0-9]*"},
        {indexed_wrongly, "n3d_draw_triangles", "src/n3d_draw",
         "the vertex index holds 1 triangles but the call draws 2\n", "[1-9][0-9]*"},
    };
    const n3d_pipeline_draw_cmd ok = command(81, 192, &red, &v);
    for (const auto& c : cases) {
        n3d_pipeline_begin(p, &fc, &tc.camera);
        n3d_pipeline_push(p, &ok);
        n3d_pipeline_push(p, &c.wrong);
        const std::string drawn = std::string("pixels drawn: ") + c.drawn + "\n";
        EXPECT_EXIT((report_pixels_at_exit(), n3d_pipeline_flush(p)), testing::ExitedWithCode(1),
                    test_fatal(c.function, c.module, c.message, drawn.c_str()));
    }
}

TEST_F(n3d_pipeline_test, passes_draw_in_push_order_with_light_and_camera_in_model_space)
{
    v.n_xyz = nullptr;  // phong drawing projects on tangent and bitangent only: normals may be absent

    // first pass: a lit 8-bit quad in the middle, with depth and coverage
    n3d_pipeline_begin(p, &fc, &tc.camera);
    n3d_pipeline_draw_cmd lit = command(190, 1220, &indexed, &v);
    n3d_pipeline_push(p, &lit);
    n3d_pipeline_flush(p);
    EXPECT_EQ(pixel(160, 120) & ~31, 0x9000);
    // second pass: two coverage-reading quads to the right, the red one pushed first; each
    // leaves alone what is already covered
    n3d_pipeline_begin(p, &fc, &tc.camera);
    n3d_pipeline_draw_cmd first = command(81, 192, &red, &v, 1.0f);
    n3d_pipeline_draw_cmd second = command(81, 192, &green, &v, 1.5f, -0.5f);
    n3d_pipeline_push(p, &first);
    n3d_pipeline_push(p, &second);
    n3d_pipeline_flush(p);
    EXPECT_EQ(pixel(160, 120) & ~31, 0x9000);  // the first pass keeps its pixels
    EXPECT_EQ(pixel(290, 120), RED);            // red and green overlap: red came first
    EXPECT_EQ(pixel(290, 230), GREEN);          // green alone
    EXPECT_EQ(pixel(20, 120), CLEAR);
    // flushing again draws the same commands again; begin empties the pass
    n3d_pipeline_begin(p, &fc, &tc.camera);
    clear();
    n3d_pipeline_flush(p);
    EXPECT_EQ(drawn_pixels(&fc), 0);

    // light and camera reach the draw in the command's model space
    vec3_set(tc.light, 0.0f, 4.0f, 1.0f);
    n3d_pipeline_begin(p, &fc, &tc.camera);
    n3d_pipeline_draw_cmd cmd = command(RECORD_PHONG_FLAGS, N3D_DRAW_MODE_PHONG | TRIS, &indexed, &v);
    // world_to_model need not invert model: lighting happens in its space
    mat4x4_translate(cmd.world_to_model, 0.0f, -4.0f, 2.0f);
    n3d_pipeline_push(p, &cmd);
    n3d_pipeline_flush(p);
    ASSERT_EQ(recorded.size(), 2u);
    EXPECT_EQ(recorded_phong_table, lut.table);
    // vertex 0 of the quad, (-1, -1, 0); light (0, 0, 3) and camera (0, -4, 5) in model space
    const float pos[3] = {-1, -1, 0}, light[3] = {0, 0, 3}, camera[3] = {0, -4, 5};
    double h[3];
    test_half_vector(h, pos, light, camera);
    const float iw = recorded[0].vertices[0][2];
    EXPECT_NEAR(recorded[0].vertices[0][5] / iw, h[0], 1e-5);  // H . tangent (1, 0, 0)
    EXPECT_NEAR(recorded[0].vertices[0][6] / iw, h[1], 1e-5);  // H . bitangent (0, 1, 0)
}
