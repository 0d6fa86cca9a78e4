// The example models that reel_madgen writes, run as a person runs it and read back through the
// importer, and the authoring module's shapes and buffer that they are made of.
#include <algorithm>
#include "bitmap.h"
#include "gltf_author.h"
#include "gltf_import.h"
#include "mad_anim.h"
#include "n3d_io.h"
#include "n3d_pipeline.h"
#include "test_fatal.h"
#include "tool_fixture.h"

namespace {

const std::string tools = REEL_TOOLS_DIR, root = REEL_TEST_OUTPUT_DIR;

struct madgen_fixture : testing::Test {
    test_arena memory = test_arena(64u << 20), tmp_memory = test_arena(32u << 20);
    xmemarena &arena = memory.arena, &tmp = tmp_memory.arena;
    gltf_import_result imported;

    // Runs reel_madgen with `args` into a fresh folder `name` and imports `model`.gltf from it.
    std::string generate_and_import(const std::string& name, const std::string& args, const char* model)
    {
        const std::string dir = tool_fixture_dir(root, name);
        const tool_run_result r = tool_fixture_run(dir, tools + "/reel_madgen " + args);
        EXPECT_EQ(r.status, 0) << args << "\n" << r.err;
        std::string error;
        const gltf_import_options options = {model, 4096, 1, nullptr};
        const std::string path = dir + "/out/" + model + ".gltf";
        EXPECT_EQ(gltf_import_file(&imported, &arena, &tmp, path.c_str(), &options, &error), 0) << error;
        return dir + "/out";
    }

    mad_node* node(const char* name)
    {
        const int32_t i = mad_find_node(&imported.datapack, name);
        return i < 0 ? (ADD_FAILURE() << "no node " << name, nullptr) : &imported.datapack.nodes[i];
    }

    uint32_t triangles(const mad_node* n)
    {
        uint32_t count = 0;
        for (uint32_t p = 0; n->mesh && p < n->mesh->primitive_count; p++)
            count += n->mesh->primitives[p].vertices.count / 3;
        return count;
    }
};

TEST_F(madgen_fixture, the_totem_keeps_its_nodes_meshes_and_keys)
{
    const std::string dir = generate_and_import("totem", "--model totem out", "madpack");
    EXPECT_EQ(tool_fixture_list(dir),
              (std::vector<std::string>{"crate.png", "ground.png", "madpack.bin", "madpack.gltf", "madpack_sky.tmap",
                                        "moon.png", "sky.png", "totem.png"}));
    // node by node: the triangles each shape makes (two per quad, one per side of the island)
    const struct { const char* name; uint32_t triangles; } nodes[] = {
        {"ground", 16}, {"bone_top", 0}, {"totem", 4 * 10 * 2}, {"bone_base", 0},
        {"crate", 6 * 2}, {"moon", 5 * 8 * 2}, {"sky", 12 * 24 * 2}, {"camera", 0}};
    ASSERT_EQ(imported.datapack.node_count, 9u);  // and the importer's empty "reel_special" (no direct node given)
    for (uint32_t i = 0; i < 8; i++) {
        EXPECT_STREQ(imported.datapack.nodes[i].name, nodes[i].name);
        EXPECT_EQ(triangles(&imported.datapack.nodes[i]), nodes[i].triangles) << nodes[i].name;
    }
    EXPECT_NE(node("totem")->skin, nullptr);
    ASSERT_EQ(imported.datapack.animation_count, 2u);
    for (uint32_t a = 0; a < 2; a++)
        for (uint32_t c = 0; c < imported.datapack.animations[a].channel_count; c++)
            EXPECT_EQ(imported.datapack.animations[a].channels[c].sampler->input_count, 12u * 4 + 1);  // 12 s, 4 a second
    EXPECT_TRUE(imported.datapack.animations[0].channel_count == 7u &&
                imported.datapack.animations[1].channel_count == 2u);
}

// The rows of the show name these; the scene draws the first pass's primitives within one
// pipeline pass and builds one shade table per palette texture (ten for the whole show). The
// camera is also the special node: there is no sky mesh, whose texture would have to be direct
// colour and which would be drawn over the whole picture in every update pass. Every triangle
// costs its set-up in each update pass: per mesh, a gear's top face has four triangles a tooth
// and its wall round the roots two; a prism's wall two a side and its top cap one; a gem two a
// side; the dais a ring and a wall of two a side each. The sky is a panorama the show scrolls by
// 1728 pixels a turn of the camera: column x and column x + 1728 are alike.
TEST_F(madgen_fixture, the_machine_imports_with_the_names_limits_and_sky_the_scene_needs)
{
    const std::string dir = generate_and_import("machine", "out --model machine", "machine");
    mad_datapack* pack = &imported.datapack;
    EXPECT_TRUE(mad_find_animation(pack, "main") >= 0 && mad_find_animation(pack, "extra") >= 0);
    const mad_node* camera = node("camera");
    ASSERT_NE(camera->camera, nullptr);
    EXPECT_FLOAT_EQ(camera->camera->yfov, 0.8f);
    EXPECT_GE(camera->camera->znear, 0.25f);  // the renderer's least near plane
    EXPECT_TRUE(camera->mesh == nullptr && mad_find_node(pack, "sky") < 0);
    std::vector<std::string> resources;
    for (const gltf_import_texture& t : imported.textures)
        resources.push_back(t.resource);
    EXPECT_EQ(resources, (std::vector<std::string>{"machine_floor.tmap", "machine_parts.tmap"}));
    EXPECT_EQ(tool_fixture_list(dir), (std::vector<std::string>{"floor.png", "machine.bin", "machine.gltf",
                                                                 "machine_sky.png", "parts.png"}));
    const struct { const char* name; uint32_t triangles; } parts[] = {
        {"gear_big", 12 * 4 + 12 * 2}, {"gear_small0", 6 * 4}, {"gear_upper", 8 * 4 + 8 * 2}, {"gear_top", 6 * 4},
        {"piston0", 3 * 2 + 4 * 2 + 4},  // the rod, the head and its top
        {"lamp0", 3 * 2}, {"core", 6 * 2}, {"floor", 12 * 2 + 12 * 2},
        {"frame", 4 * 2 + 4 + 4 * (4 * 2 + 4)},  // the axle with its top, four housings with theirs
    };
    for (const auto& p : parts) {
        const mad_node* n = node(p.name);
        ASSERT_NE(n, nullptr);
        EXPECT_EQ(triangles(n), p.triangles) << p.name;
    }
    uint32_t first_pass = 0, commands = 0, lit = 0;
    for (uint32_t i = 0; i < pack->node_count; i++)
        if (pack->nodes[i].mesh) {
            first_pass += triangles(&pack->nodes[i]), commands += pack->nodes[i].mesh->primitive_count;
            lit += strcmp(pack->nodes[i].name, "core") ? triangles(&pack->nodes[i]) : 0;
        }
    EXPECT_LE(first_pass, N3D_PIPELINE_MAX_PRIMITIVES);
    EXPECT_LE(commands, N3D_PIPELINE_DRAW_CMD_MAX_COUNT);
    // a frame without the crystal: the large gear, four small ones, the stacked two, four
    // pistons, eight lamps, the dais and the frame
    EXPECT_EQ(lit, 72u + 4 * 24 + 48 + 24 + 4 * 18 + 8 * 6 + 48 + 60);

    bitmap* sky = bitmap_load_png(&arena, (dir + "/machine_sky.png").c_str(), 3);
    ASSERT_NE(sky, nullptr);
    ASSERT_TRUE(sky->width == 2048u && sky->height == 256u);
    uint32_t worst = 0;
    for (uint32_t y = 0; y < 256; y++)
        for (uint32_t x = 0; x < 320 * 3; x++)
            worst = std::max(worst, (uint32_t)abs((int)bitmap_pixel(sky, x / 3, y)[x % 3] -
                                                  (int)bitmap_pixel(sky, x / 3 + 1728, y)[x % 3]));
    EXPECT_LE(worst, 2u) << "the seam shows";
}

// Rows restart the animations every 16 s (eight bars): every channel ends where it began, a
// gear's turn up to a whole number of teeth. Where a small gear meets the large one, a tooth of
// one must face a gap of the other at every key: on the pitch circle a tooth spans 0.1 to 0.55 of
// its pitch (mid-flank to mid-flank).
TEST_F(madgen_fixture, the_machine_loops_in_sixteen_seconds_and_its_gears_mesh_tooth_to_gap)
{
    generate_and_import("machine_loop", "--model machine out", "machine");
    mad_datapack* pack = &imported.datapack;
    const struct {
        const char* prefix;
        uint32_t teeth;  // rotation symmetry: 1 for a part that must come back exactly
    } parts[] = {{"gear_big", 12}, {"gear_small", 6}, {"gear_upper", 8}, {"gear_top", 6}, {"piston", 1},
                 {"lamp", 1},      {"camera", 1},     {"core", 1}};
    for (uint32_t a = 0; a < pack->animation_count; a++)
        for (uint32_t c = 0; c < pack->animations[a].channel_count; c++) {
            const mad_channel* ch = &pack->animations[a].channels[c];
            const mad_sampler* s = ch->sampler;
            ASSERT_EQ(s->input_count, 16u * 16 + 1) << ch->node->name;  // sixteen keys a second
            EXPECT_FLOAT_EQ(s->input[s->input_count - 1], 16.0f);
            uint32_t teeth = 0;
            for (const auto& p : parts)
                teeth = strncmp(ch->node->name, p.prefix, strlen(p.prefix)) ? teeth : p.teeth;
            ASSERT_NE(teeth, 0u) << ch->node->name;
            const uint32_t n = ch->path == MAD_PATH_ROTATION ? 4 : 3;
            const float *first = s->output, *last = s->output + (s->input_count - 1) * n;
            if (ch->path != MAD_PATH_ROTATION || teeth == 1) {
                float dot = 0;  // q and -q are the same rotation
                for (uint32_t i = 0; i < n; i++)
                    dot += first[i] * last[i];
                const float sign = n == 4 && dot < 0 ? -1.0f : 1.0f;
                for (uint32_t i = 0; i < n; i++)
                    EXPECT_NEAR(first[i], sign * last[i], 2e-3f) << ch->node->name << " path " << ch->path;
                continue;
            }
            // turns about y only: the angle between the two ends, in teeth
            const float turn = 2.0f * (atan2f(last[1], last[3]) - atan2f(first[1], first[3]));
            const float in_teeth = turn / (2.0f * GLTF_AUTHOR_PI / (float)teeth);
            EXPECT_NEAR(in_teeth, roundf(in_teeth), 0.02f) << ch->node->name;
        }

    const int32_t main_animation = mad_find_animation(pack, "main");
    ASSERT_GE(main_animation, 0);
    const int32_t big = mad_find_node(pack, "gear_big");
    auto* world = (mat4x4*)xmemarena_push_align(&arena, sizeof(mat4x4) * pack->node_count, 16);
    auto tooth_at = [&](int32_t gear, const vec4 point, uint32_t teeth) {
        mat4x4 inverse;
        vec4 local;
        mat4x4_invert(inverse, world[gear]);
        mat4x4_mul_vec4(local, inverse, point);
        const float angle = atan2f(-local[2], local[0]);  // the outline's x = cos a, z = -sin a
        float pitches = angle / (2.0f * GLTF_AUTHOR_PI / (float)teeth);
        pitches -= floorf(pitches);
        return pitches > 0.1f && pitches < 0.55f;
    };
    uint32_t teeth_met = 0;
    for (uint32_t k = 0; k <= 16 * 16; k++) {
        mad_animate(pack, (uint32_t)main_animation, (float)k / 16.0f);
        mad_compute_world_matrices(world, pack, &arena);
        for (uint32_t s = 0; s < 4; s++) {
            const int32_t small = mad_find_node(pack, ("gear_small" + std::to_string(s)).c_str());
            ASSERT_GE(small, 0);
            // the pitch circles touch at 12 / (12 + 6) of the way from the large gear's centre
            vec4 contact = {0, 0, 0, 1};
            for (int i = 0; i < 3; i++)
                contact[i] = world[big][3][i] + (world[small][3][i] - world[big][3][i]) * 2.0f / 3.0f;
            const bool big_tooth = tooth_at(big, contact, 12), small_tooth = tooth_at(small, contact, 6);
            EXPECT_FALSE(big_tooth && small_tooth) << "gear_small" << s << " at key " << k;
            teeth_met += big_tooth || small_tooth;
        }
    }
    EXPECT_GT(teeth_met, 4u * 257 / 2) << "a tooth is in the contact most of the time";
}

// Every triangle of every shape is wound counter-clockwise seen from the side its normals point
// to (the renderer culls the others) and its normals are unit length.
TEST(gltf_author, shapes_face_the_way_their_normals_point)
{
    static const float square[8] = {1, 0, 0, -1, -1, 0, 0, 1};  // counter-clockwise from above
    const struct {
        const char* what;
        void (*make)(gltf_author_mesh*);
        uint32_t triangles;
    } shapes[] = {
        {"sphere", [](gltf_author_mesh* m) { gltf_author_sphere(m, 2.0f, 4, 6, false); }, 4 * 6 * 2},
        {"sky", [](gltf_author_mesh* m) { gltf_author_sphere(m, 9.0f, 3, 5, true); }, 3 * 5 * 2},
        {"tube", [](gltf_author_mesh* m) { gltf_author_tube(m, 0.5f, -1.0f, 2.0f, 2, 7); }, 2 * 7 * 2},
        {"ground", [](gltf_author_mesh* m) { gltf_author_ground(m, 4.0f, 3, 2.0f); }, 3 * 3 * 2},
        {"cube", [](gltf_author_mesh* m) { gltf_author_cube(m, 1.0f); }, 6 * 2},
        {"prism, both caps",
         [](gltf_author_mesh* m) { gltf_author_prism(m, square, 4, 0, 1, 1, GLTF_AUTHOR_CAPS_BOTH); }, 4 + 4 + 4 * 2},
        {"prism, bottom", [](gltf_author_mesh* m) { gltf_author_prism(m, square, 4, 0, 1, 1, GLTF_AUTHOR_CAP_BOTTOM); },
         4 + 4 * 2},
        // a face of four triangles a tooth, a wall of two per outline edge
        {"gear, top", [](gltf_author_mesh* m) { gltf_author_gear(m, 6, 1, 1.3f, 0, 0.2f, GLTF_AUTHOR_CAP_TOP); },
         6 * 4 + 6 * 4 * 2},
        {"gear, both", [](gltf_author_mesh* m) { gltf_author_gear(m, 6, 1, 1.3f, -0.1f, 0.1f, GLTF_AUTHOR_CAPS_BOTH); },
         2 * 6 * 4 + 6 * 4 * 2},
        {"gear, plate",
         [](gltf_author_mesh* m) {
             gltf_author_gear(m, 6, 1, 1.3f, 0, 0.2f, GLTF_AUTHOR_CAP_TOP | GLTF_AUTHOR_NO_WALL);
         },
         6 * 4},
    };
    for (const auto& shape : shapes) {
        gltf_author_mesh m;
        shape.make(&m);
        uint32_t faced = 0;
        ASSERT_EQ(gltf_author_triangles(&m), shape.triangles) << shape.what;
        for (uint32_t t = 0; t < gltf_author_triangles(&m); t++) {
            const float* p = &m.position[9 * t];
            const float* n = &m.normal[9 * t];
            vec3 e1, e2, cross;
            vec3_sub(e1, p + 3, p);
            vec3_sub(e2, p + 6, p);
            vec3_mul_cross(cross, e1, e2);
            const float longer = fmaxf(vec3_len(e1), vec3_len(e2));
            if (vec3_len(cross) <= 1e-4f * longer * longer)
                continue;  // a sphere's triangles at the poles have two corners there
            faced++;
            EXPECT_GT(vec3_mul_inner(cross, n), 0.0f) << shape.what << " triangle " << t;
            EXPECT_NEAR(vec3_len(n), 1.0f, 1e-5f) << shape.what << " triangle " << t;
        }
        EXPECT_GE(faced, gltf_author_triangles(&m) / 2) << shape.what;
        EXPECT_TRUE(m.uv.size() == 2 * gltf_author_vertex_count(&m) &&
                    m.tangent.size() == 4 * gltf_author_vertex_count(&m))
            << shape.what;
    }
}

// The outline alternates root, tip, tip, root at the pitch fractions that make a tooth 0.45 of
// a pitch wide half way up, and the texture coordinates of faces and walls stay within 0..1.
TEST(gltf_author, gear_outline_and_texture_coordinates)
{
    const uint32_t teeth = 5;
    const std::vector<float> outline = gltf_author_gear_outline(teeth, 2.0f, 2.5f);
    ASSERT_EQ(outline.size(), 8u * teeth);
    const float fractions[4] = {0.0f, 0.2f, 0.45f, 0.65f}, radii[4] = {2.0f, 2.5f, 2.5f, 2.0f};
    for (uint32_t i = 0; i < 4 * teeth; i++) {
        const float x = outline[2 * i], z = outline[2 * i + 1];
        EXPECT_NEAR(hypotf(x, z), radii[i % 4], 1e-5f) << i;
        float a = atan2f(-z, x) / (2.0f * GLTF_AUTHOR_PI) * (float)teeth;  // in pitches
        a += a < -1e-4f ? (float)teeth : 0.0f;
        EXPECT_NEAR(a, (float)(i / 4) + fractions[i % 4], 1e-4f) << i;
    }
    gltf_author_mesh m;
    gltf_author_gear(&m, teeth, 2.0f, 2.5f, 0.0f, 0.3f, GLTF_AUTHOR_CAPS_BOTH);
    for (float uv : m.uv)
        EXPECT_TRUE(uv >= 0.0f && uv <= 1.0f) << uv;
}

// A picture is painted at its texels' centres whatever its shape, opaque.
TEST(gltf_author, pictures_are_painted_at_texel_centres)
{
    static uint8_t block[1 << 16];
    xmemarena arena;
    xmemarena_init(&arena, "test_gltf_author", sizeof(block), block);
    bitmap* bm = gltf_author_picture(&arena, 4, 2, [](uint8_t* p, float u, float v) {
        p[0] = (uint8_t)(u * 100), p[1] = (uint8_t)(v * 100), p[2] = 7;
    });
    ASSERT_TRUE(bm->width == 4u && bm->height == 2u);
    const uint8_t u[4] = {12, 37, 62, 87}, v[2] = {25, 75};  // 100 x (i + 0.5) / n, truncated
    for (uint32_t i = 0; i < 8; i++) {
        const uint8_t* p = bitmap_pixel(bm, i % 4, i / 4);
        EXPECT_TRUE(p[0] == u[i % 4] && p[1] == v[i / 4] && p[3] == 255) << i % 4 << "," << i / 4;
    }
}

// Accessors start on 4-byte boundaries after bytes, carry their element count and bounds;
// quaternions compose as rotations do.
TEST(gltf_author, buffer_accessors_and_rotations)
{
    gltf_author_model model;
    gltf_author_begin(&model, "test");
    const uint32_t bytes = gltf_author_accessor(&model, std::vector<uint8_t>{1, 2, 3, 4, 5, 6}, "VEC2", 2);
    const uint32_t floats = gltf_author_accessor(&model, std::vector<float>{3, -1, 7, 0, 2, -5}, "VEC3", 3, true);
    const nlohmann::json& g = model.gltf;
    EXPECT_TRUE(g["accessors"][bytes]["componentType"] == 5121 && g["accessors"][bytes]["count"] == 3);
    EXPECT_EQ(g["bufferViews"][(int)g["accessors"][floats]["bufferView"]]["byteOffset"], 8);  // 6 bytes, padded
    EXPECT_EQ(g["accessors"][floats]["min"], nlohmann::json({0.0f, -1.0f, -5.0f}));
    EXPECT_EQ(g["accessors"][floats]["max"], nlohmann::json({3.0f, 2.0f, 7.0f}));
    EXPECT_EQ(model.bin.size(), 8u + 24u);

    // a quarter turn about y after one about x: (1/2, 1/2, -1/2, 1/2)
    float y90[4], x90[4], r[4];
    gltf_author_quat_axis(y90, 0, 1, 0, 0.5f * GLTF_AUTHOR_PI);
    gltf_author_quat_axis(x90, 1, 0, 0, 0.5f * GLTF_AUTHOR_PI);
    gltf_author_quat_mul(r, y90, x90);
    const float expected[4] = {0.5f, 0.5f, -0.5f, 0.5f};
    for (int i = 0; i < 4; i++)
        EXPECT_NEAR(r[i], expected[i], 1e-6f) << i;
}

}  // namespace
