// The glTF importer: models written here as glTF text (hierarchy, animation keys, skin weights and
// refusals, checked against the glTF's own numbers) and the Debian samples run through the tool.
#include <sys/wait.h>

#include <algorithm>

#include "bitmap.h"
#include "gltf_import.h"
#include "gltf_sample.h"
#include "mad.h"
#include "mad_anim.h"
#include "test_fatal.h"
#include "tool_fixture.h"

namespace {

const char* const SAMPLES = "/usr/share/assimp/models/glTF2";

struct imported {
    test_arena memory = test_arena(8u << 20), tmp_memory = test_arena(16u << 20);
    gltf_import_result result;
    std::string error;
    int status = -1;
};

const std::string MESH = "\"meshes\":[{\"primitives\":[{\"attributes\":{\"POSITION\":0}}]}],";

// A buffer of floats and bytes, as a data URI: first the triangle (0,0,0) (1,0,0) (0,1,0), accessor 0.
struct buffer_builder {
    std::vector<uint8_t> bytes;
    buffer_builder() { floats({0, 0, 0, 1, 0, 0, 0, 1, 0}); }
    size_t floats(const std::vector<float>& values) { return add(values.data(), values.size() * 4); }
    size_t raw(const std::vector<uint8_t>& values) { return add(values.data(), values.size()); }
    size_t add(const void* values, size_t size)  // from a multiple of 4 bytes
    {
        const size_t at = bytes.size();
        bytes.insert(bytes.end(), (const uint8_t*)values, (const uint8_t*)values + size);
        bytes.resize((bytes.size() + 3) & ~(size_t)3);
        return at;
    }
    std::string uri() const { return "data:application/octet-stream;base64," + gltf_sample_base64(bytes.data(), bytes.size()); }
};

// Imports the text; true when it is accepted.
bool imports(imported* m, const std::string& json)
{
    const gltf_import_options options = {"m", 1024, 1, nullptr};
    m->status = gltf_import_memory(&m->result, &m->memory.arena, &m->tmp_memory.arena, (const uint8_t*)json.data(),
                                   json.size(), 0, "", &options, &m->error);
    return m->status == 0;
}

// Buffer view 0 is the whole buffer; extra_views follow it.
std::string model(const buffer_builder& b, const std::string& accessors, const std::string& rest,
                  const std::string& extra_views = "")
{
    return "{\"asset\":{\"version\":\"2.0\"},\"buffers\":[{\"byteLength\":" + std::to_string(b.bytes.size()) +
           ",\"uri\":\"" + b.uri() + "\"}],\"bufferViews\":[{\"buffer\":0,\"byteLength\":" +
           std::to_string(b.bytes.size()) + "}" + extra_views + "],\"accessors\":[" + accessors + "]," + rest + "}";
}

std::string accessor(size_t offset, uint32_t count, const char* type, int component = 5126)
{
    return "{\"bufferView\":0,\"byteOffset\":" + std::to_string(offset) + ",\"count\":" + std::to_string(count) +
           ",\"type\":\"" + type + "\",\"componentType\":" + std::to_string(component) + "}";
}

// Node 2 is the root; 0 its child, 1 the grandchild with the triangle; node 3 has a matrix (scale
// 2, then a quarter turn about z, then a move by (1, 2, 3)); 4 and 5 bear the names the importer
// would give the camera, the still and the special node it adds to a model without them. The
// triangle in the world: (0, 0, 0) (1, 0, 0) (0, 1, 0) turned, moved up 1 and scaled by 2 is
// (0, 2, 0) (0, 4, 0) (-2, 2, 0), a box with centre (-1, 3, 0) and radius sqrt(2): the camera
// stands radius / sin(pi / 8) from it with the near plane half-way to the sphere.
TEST(gltf_import, node_hierarchy_names_and_transforms_follow_the_gltf_and_a_camera_frames_it)
{
    buffer_builder b;
    const std::string rest =
        MESH + "\"nodes\":[{\"name\":\"arm\",\"children\":[1],\"translation\":[0,1,0]},"
        "{\"name\":\"hand\",\"mesh\":0,\"rotation\":[0,0,0.70710678,0.70710678]},"
        "{\"name\":\"root\",\"children\":[0],\"scale\":[2,2,2]},"
        "{\"matrix\":[0,2,0,0, -2,0,0,0, 0,0,2,0, 1,2,3,1]},{\"name\":\"reel_camera\"},{\"name\":\"reel_special\"}]";
    imported m;
    ASSERT_TRUE(imports(&m, model(b, accessor(0, 3, "VEC3"), rest))) << m.error;
    mad_datapack* d = &m.result.datapack;
    ASSERT_EQ(d->node_count, 8u);  // and the added camera and special node
    EXPECT_STREQ(d->nodes[0].name, "arm");
    EXPECT_STREQ(d->nodes[3].name, "node3");  // unnamed nodes get their index
    EXPECT_TRUE(d->nodes[2].parent == nullptr && d->nodes[2].child_count == 1 && d->nodes[1].mesh == &d->meshes[0]);
    // the matrix node: translation (1, 2, 3), scale 2, a positive quarter turn about z
    const mad_node* n3 = &d->nodes[3];
    EXPECT_TRUE(n3->translation[0] == 1.0f && n3->translation[2] == 3.0f);
    for (float v : {n3->scale[0], n3->scale[1], n3->scale[2], 4 * n3->rotation[2] * n3->rotation[3]})
        EXPECT_NEAR(v, 2.0f, 4e-6f);
    std::vector<mat4x4> world(d->node_count);
    mad_compute_world_matrices(world.data(), d, &m.tmp_memory.arena);
    vec3 p;  // the hand's world matrix takes (1, 0, 0) to root(scale 2) x arm(up 1) x hand(turn): (0, 4, 0)
    const vec3 x = {1, 0, 0};
    mat4x4_mul_vec3(p, world[1], x, 1.0f);
    EXPECT_TRUE(fabsf(p[0]) < 1e-5f && fabsf(p[1] - 4.0f) < 1e-5f) << p[0] << ", " << p[1];
    const std::string row = gltf_import_scene_row(&m.result);
    EXPECT_EQ(row.substr(row.find("video_madpack")),
              "video_madpack,m.mad,0,1,reel_still,reel_camera_1,reel_special_1,reel_special_1,0");
    const int camera = mad_find_node(d, m.result.play_camera.c_str());
    const int special = mad_find_node(d, m.result.play_special.c_str());
    ASSERT_TRUE(camera >= 0 && special >= 0 && d->nodes[special].mesh == nullptr);
    // the still: one key at 0 s holding node 0 where it stands
    ASSERT_TRUE(d->animation_count == 1u && d->animations[0].channel_count == 1u);
    const mad_channel& still = d->animations[0].channels[0];
    EXPECT_TRUE(still.node == &d->nodes[0] && still.path == MAD_PATH_TRANSLATION);
    EXPECT_TRUE(still.sampler->input_count == 1 && still.sampler->output[1] == 1.0f);
    const mad_camera* k = d->nodes[camera].camera;
    ASSERT_NE(k, nullptr);
    const float radius = sqrtf(2.0f), distance = radius / sinf(0.3926991f);
    EXPECT_FLOAT_EQ(k->yfov, 0.7853982f);
    EXPECT_NEAR(k->znear, (distance - radius) / 2, 1e-5f);
    const mat4x4& w = world[(size_t)camera];
    const float centre[3] = {-1.0f, 3.0f, 0.0f};
    for (int j = 0; j < 3; j++)  // the camera looks down its -z at the centre, from `distance`
        EXPECT_NEAR(w[3][j] - distance * w[2][j], centre[j], 1e-4f) << j;
    EXPECT_NEAR(sqrtf(w[2][0] * w[2][0] + w[2][1] * w[2][1] + w[2][2] * w[2][2]), 1.0f, 1e-5f);
    EXPECT_GT(w[1][1], 0.5f);  // upright
}

// Linear, step and cubic-spline keys. A spline's key holds in-tangent, value, out-tangent: value
// 0 to 1 over 2 s with out- and in-tangent 0.5 per second is resampled through
// p(s) = (s^3 - 2s^2 + s) x 2 x 0.5 + (-2s^3 + 3s^2) + (s^3 - s^2) x 2 x 0.5.
TEST(gltf_import, animation_keys_keep_the_gltf_times_and_values)
{
    buffer_builder b;
    const size_t times = b.floats({0.0f, 1.0f, 2.5f});
    const size_t moves = b.floats({0, 0, 0, 1, 2, 3, -4, 5, 6});
    // rotations: identity, then twice one turn about x written on the far side of it (dot -0.8):
    // the importer brings each key to the side of the one before as brought, so both are negated
    const size_t turns = b.floats({0, 0, 0, 1, 0.6f, 0, 0, -0.8f, 0.6f, 0, 0, -0.8f});
    const size_t steps = b.floats({1, 1, 1, 2, 2, 2, 3, 3, 3});
    const size_t spline_times = b.floats({0.0f, 2.0f});
    const size_t spline = b.floats({0, 0, 0, 0, 0, 0, 0.5f, 0, 0, 0.5f, 0, 0, 1, 0, 0, 0, 0, 0});
    const std::string accessors = accessor(0, 3, "VEC3") + "," + accessor(times, 3, "SCALAR") + "," +
                                  accessor(moves, 3, "VEC3") + "," + accessor(turns, 3, "VEC4") + "," +
                                  accessor(steps, 3, "VEC3") + "," + accessor(spline_times, 2, "SCALAR") + "," +
                                  accessor(spline, 6, "VEC3");
    const std::string rest =
        MESH + "\"nodes\":[{\"mesh\":0},{\"name\":\"spinner\"}],"
        "\"animations\":[{\"name\":\"move\",\"samplers\":[{\"input\":1,\"output\":2},"
        "{\"input\":1,\"output\":3},{\"input\":1,\"output\":4,\"interpolation\":\"STEP\"},"
        "{\"input\":5,\"output\":6,\"interpolation\":\"CUBICSPLINE\"}],"
        "\"channels\":[{\"sampler\":0,\"target\":{\"node\":1,\"path\":\"translation\"}},"
        "{\"sampler\":1,\"target\":{\"node\":1,\"path\":\"rotation\"}},"
        "{\"sampler\":2,\"target\":{\"node\":0,\"path\":\"scale\"}},"
        "{\"sampler\":0,\"target\":{\"node\":0,\"path\":\"weights\"}},"
        "{\"sampler\":3,\"target\":{\"node\":0,\"path\":\"translation\"}}]}]";
    imported m;
    ASSERT_TRUE(imports(&m, model(b, accessors, rest))) << m.error;
    const mad_datapack* d = &m.result.datapack;
    ASSERT_EQ(d->animation_count, 1u);
    const mad_animation* a = &d->animations[0];
    EXPECT_STREQ(a->name, "move");
    ASSERT_EQ(a->channel_count, 4u);  // the weights channel is left out
    const mad_sampler* r = a->channels[1].sampler;
    ASSERT_EQ(r->output_count, 12u);
    EXPECT_TRUE(r->output[4] == -0.6f && r->output[7] == 0.8f && r->output[8] == -0.6f) << r->output[8];
    EXPECT_TRUE(std::any_of(m.result.notes.begin(), m.result.notes.end(), [](const std::string& note) {
        return note.find("animations[0].channels[3]: path \"weights\"") != std::string::npos;
    }));
    const mad_sampler* c = a->channels[3].sampler;
    ASSERT_TRUE(c->input_count == GLTF_IMPORT_SPLINE_STEPS + 1 && c->output_count == 3 * c->input_count);
    for (uint32_t k = 0; k <= GLTF_IMPORT_SPLINE_STEPS; k++) {
        const float u = (float)k / GLTF_IMPORT_SPLINE_STEPS;
        const float expect = (u * u * u - 2 * u * u + u) + (-2 * u * u * u + 3 * u * u) + (u * u * u - u * u);
        EXPECT_FLOAT_EQ(c->input[k], 2.0f * u);
        EXPECT_NEAR(c->output[k * 3], expect, 1e-6f) << "key " << k;
    }
    // evaluated as the show does: halfway between keys 1 and 2 of the move (at 1 s and 2.5 s),
    // (-1.5, 3.5, 4.5); the step holds key 1
    mad_animate((mad_datapack*)d, 0, 1.75f);
    EXPECT_TRUE(d->nodes[1].translation[0] == -1.5f && d->nodes[1].translation[1] == 3.5f &&
                d->nodes[0].scale[0] == 2.0f);
}

TEST(gltf_import, skin_weights_follow_every_corner_and_extra_sets_keep_the_four_largest)
{
    buffer_builder b;
    const size_t j0 = b.raw({0, 1, 0, 0, 1, 0, 0, 0, 2, 3, 4, 5});
    const size_t w0 = b.floats({0.25f, 0.75f, 0, 0, 1, 0, 0, 0, 0.1f, 0.2f, 0.3f, 0.1f});
    const size_t j1 = b.raw({0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0});
    const size_t w1 = b.floats({0, 0, 0, 0, 0, 0, 0, 0, 0.3f, 0, 0, 0});
    std::vector<float> matrices;  // six identities, the first moved by (0, -1, 0)
    for (int j = 0; j < 6; j++)
        matrices.insert(matrices.end(), {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, j ? 0.0f : -1.0f, 0, 1});
    const size_t ibm = b.floats(matrices);
    // indices 2, 0, 1 so that corner order differs from vertex order
    const size_t idx = b.raw({2, 0, 1});
    const std::string accessors = accessor(0, 3, "VEC3") + "," + accessor(j0, 3, "VEC4", 5121) + "," +
                                  accessor(w0, 3, "VEC4") + "," + accessor(j1, 3, "VEC4", 5121) + "," +
                                  accessor(w1, 3, "VEC4") + "," + accessor(ibm, 6, "MAT4") + "," +
                                  accessor(idx, 3, "SCALAR", 5121);
    const std::string rest =
        "\"meshes\":[{\"primitives\":[{\"indices\":6,\"attributes\":{\"POSITION\":0,\"JOINTS_0\":1,\"WEIGHTS_0\":2,"
        "\"JOINTS_1\":3,\"WEIGHTS_1\":4}}]}],"
        "\"skins\":[{\"joints\":[1,2,3,4,5,6],\"inverseBindMatrices\":5}],"
        "\"nodes\":[{\"mesh\":0,\"skin\":0},{},{},{},{},{},{}]";
    imported m;
    ASSERT_TRUE(imports(&m, model(b, accessors, rest))) << m.error;
    const mad_datapack* d = &m.result.datapack;
    const n3d_vertices* v = &d->meshes[0].primitives[0].vertices;
    ASSERT_TRUE(v->count == 3 && v->joints && v->weights);
    // corner 1 is vertex 0: joints 0 and 1 with 0.25 and 0.75
    EXPECT_TRUE(v->joints[4] == 0 && v->joints[5] == 1 && v->weights[4] == 0.25f && v->weights[5] == 0.75f);
    // corner 0 is vertex 2: weights 0.1 (j2) 0.2 (j3) 0.3 (j4) 0.1 (j5) and 0.3 (j1) from the
    // second set: the first 0.1 gives way, the rest are scaled by 1 / 0.9
    const float expect[6] = {-1, 0.3f / 0.9f, -1, 0.2f / 0.9f, 0.3f / 0.9f, 0.1f / 0.9f};  // by joint; joint 2 is gone
    for (int q = 0; q < 4; q++)
        EXPECT_FLOAT_EQ(v->weights[q], v->joints[q] < 6 ? expect[v->joints[q]] : -1) << "joint " << (int)v->joints[q];
    ASSERT_EQ(d->skin_count, 1u);
    const mad_skin& k = d->skins[0];
    EXPECT_TRUE(k.joint_count == 6 && k.joints[5] == 6 && k.inverse_bind_matrices[0][3][1] == -1.0f &&
                k.bind_matrices[0][3][1] == 1.0f);
}

struct refusal_case {
    const char* what;
    std::string accessors, rest;
    const char* message;
    std::string extra_views = "";
};

TEST(gltf_import, malformed_models_are_refused_naming_the_element)
{
    buffer_builder b;
    const size_t idx = b.raw({0, 1, 7});
    const std::string tri = accessor(0, 3, "VEC3");
    const std::string view1 = "{\"bufferView\":1,\"count\":3,\"type\":\"VEC3\",\"componentType\":5126}";
    const std::vector<refusal_case> cases = {
        {"accessor past its view", accessor(8, 3, "VEC3"), MESH + "\"nodes\":[]",
         "meshes[0].primitives[0].attributes.POSITION: accessors[0] needs 36 bytes from offset 8 of bufferViews[0], "
         "which holds 40"},
        {"joint beyond the skin", tri + "," + accessor(idx, 1, "VEC4", 5121) + "," + accessor(0, 3, "VEC4"),
         "\"meshes\":[{\"primitives\":[{\"attributes\":{\"POSITION\":0,\"JOINTS_0\":1,\"WEIGHTS_0\":2}}]}],"
         "\"skins\":[{\"joints\":[0]}],\"nodes\":[{\"mesh\":0,\"skin\":0}]",
         "meshes[0].primitives[0].attributes.JOINTS_0: 1 elements, but POSITION has 3"},
        {"key times going back", tri + "," + accessor(8, 3, "SCALAR") + "," + tri,
         "\"nodes\":[{}],\"animations\":[{\"samplers\":[{\"input\":1,\"output\":0}],"
         "\"channels\":[{\"sampler\":0,\"target\":{\"node\":0,\"path\":\"scale\"}}]}]",
         "animations[0].samplers[0].input: key time 2 (0) is before key time 1 (1)"},  // the triangle's floats 2 to 4
        {"view past its buffer", view1, MESH + "\"nodes\":[]",
         "meshes[0].primitives[0].attributes.POSITION: bufferViews[1] spans bytes 8 to 48 of buffers[0], which holds "
         "40",
         ",{\"buffer\":0,\"byteOffset\":8,\"byteLength\":40}"},
        {"stride shorter than an element", view1, MESH + "\"nodes\":[]",
         "meshes[0].primitives[0].attributes.POSITION: bufferViews[1] has stride 8, but accessors[0] has elements of "
         "12 bytes",
         ",{\"buffer\":0,\"byteLength\":40,\"byteStride\":8}"},
        {"indices of a signed type", tri + "," + accessor(idx, 3, "SCALAR", 5120),
         "\"meshes\":[{\"primitives\":[{\"indices\":1,\"attributes\":{\"POSITION\":0}}]}]",
         "meshes[0].primitives[0].indices: accessors[1] has component type 5120, an unsigned integer type expected"},
        {"shearing matrix", tri, "\"nodes\":[{\"matrix\":[1,0,0,0, 1,1,0,0, 0,0,1,0, 0,0,0,1]}]",
         "nodes[0].matrix: the matrix shears, which translation, rotation and scale cannot hold"},
    };
    for (const refusal_case& rc : cases) {
        imported m;
        EXPECT_FALSE(imports(&m, model(b, rc.accessors, rc.rest, rc.extra_views)));
        EXPECT_TRUE(m.status == 1 && m.error == rc.message) << rc.what << ": " << m.error;
    }
}

// Every glTF file of the Debian package is imported (status 0) or refused (status 1, with
// a message naming what is wrong); the broken ones on purpose are refused for their fault.
TEST(reel_gltf, every_debian_sample_is_imported_or_refused_for_its_fault)
{
    if (!tool_fixture_exists(SAMPLES))
        GTEST_SKIP() << "assimp-testmodels is not installed (" << SAMPLES << " is missing)";
    const struct refusal { const char* file; const char* reason; } refused[] = {
        {"BoxTextured-glTF-techniqueWebGL/BoxTextured.gltf", "extensionsRequired names \"KHR_technique_webgl\""},
        {"BoxWithInfinites-glTF-Binary/BoxWithInfinites.glb", "holds a value that is not finite"},
        {"IncorrectVertexArrays/Cube.gltf", "35 indices do not make whole triangles"},
        {"IndexOutOfRange/AllIndicesOutOfRange.gltf", "index 65535 at position 0 is out of range"},
        {"IndexOutOfRange/IndexOutOfRange.gltf", "index 255 at position 0 is out of range"},
        {"MissingBin/BoxTextured.gltf", "BoxTextured0.bin"},
        {"RecursiveNodes/RecursiveNodes.gltf", "the node hierarchy has a cycle"},
        {"SchemaFailures/sceneWrongType.gltf", "not read as glTF 2.0"},
        {"draco/2CylinderEngine.gltf", "not read as glTF 2.0"},
    };
    FILE* list = popen("find /usr/share/assimp/models/glTF2 -name '*.gltf' -o -name '*.glb' | sort", "r");
    ASSERT_NE(list, nullptr);
    char line[1024];
    uint32_t files = 0;
    while (fgets(line, sizeof(line), list)) {
        const std::string path(line, strlen(line) - 1);
        const std::string relative = path.substr(strlen(SAMPLES) + 1);
        const refusal* expect = std::find_if(std::begin(refused), std::end(refused),
                                             [&](const refusal& r) { return relative == r.file; });
        const std::string dir = tool_fixture_dir(REEL_TEST_OUTPUT_DIR, "gltf_samples");
        const tool_run_result run = tool_fixture_run(dir, std::string(REEL_GLTF_TOOL) + " '" + path + "' out");
        files++;
        if (expect != std::end(refused)) {
            EXPECT_EQ(run.status, 1) << relative;
            EXPECT_EQ(run.err.rfind("reel_gltf: " + path + ": ", 0), 0u) << relative << ": " << run.err;
            EXPECT_NE(run.err.find(expect->reason), std::string::npos) << relative << ": " << run.err;
        } else {
            EXPECT_EQ(run.status, 0) << relative << ": " << run.err;
            EXPECT_EQ(run.out.rfind("imported \"" + path + "\": ", 0), 0u) << relative;
        }
    }
    pclose(list);
    EXPECT_EQ(files, 46u);
}

// The four samples the scene must play: each is imported, packed with a script made of the row
// the tool prints, and played for a few frames; the picture holds more than one colour.
TEST(reel_gltf, the_named_debian_samples_play_in_the_animated_scene_as_imported)
{
    if (!tool_fixture_exists(SAMPLES))
        GTEST_SKIP() << "assimp-testmodels is not installed (" << SAMPLES << " is missing)";
    const std::string tool = REEL_GLTF_TOOL, tools = tool.substr(0, tool.rfind('/'));  // reel_pack, reel_capture
    for (const char* relative : {"BoxTextured-glTF/BoxTextured.gltf", "BoxTextured-glTF-Binary/BoxTextured.glb",
                                 "simple_skin/simple_skin.gltf", "cameras/Cameras.gltf"}) {
        SCOPED_TRACE(relative);
        const std::string d = tool_fixture_dir(REEL_TEST_OUTPUT_DIR, "gltf_play");
        // the row is the import's last line; the manifest's paths are made relative to the show
        const std::string pack = " && " + tools + "/reel_pack p";
        const std::string script =
            "cd '" + d + "' && mkdir -p assets/reel/le && " + tool + " '" + SAMPLES + "/" + relative +
            "' imported > import.txt && (echo 'start mode,start ref,start ms,preload ms,end mode,end ref,end ms,"
            "function,args'; tail -n 1 import.txt) > sequence.csv && echo 'raw sequence.csv sequence.csv 1' > p0 && "
            "sed 's# \\([^ ]*\\)$# imported/\\1#' imported/*.manifest > p1 && : > p2" +
            pack + "0 assets/reel/le/pak0.rpk" + pack + "1 assets/reel/le/pak1.rpk" + pack +
            "2 assets/reel/le/pak2.rpk && " + tools + "/reel_capture --frames 12 --png-at 10 --out frames";
        const int status = std::system((script + " > log.txt 2>&1").c_str());
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << tool_fixture_read(d + "/log.txt");
        test_arena a(4u << 20);
        const bitmap* frame = bitmap_load_png(&a.arena, (d + "/frames/frame_000010.png").c_str(), 3);
        ASSERT_NE(frame, nullptr);
        uint32_t lit = 0, other = 0;
        for (uint32_t i = 0; i < 640 * 480; i++) {
            const uint8_t* p = bitmap_pixel(frame, i % 640, i / 640);
            other += memcmp(p, bitmap_pixel(frame, 0, 0), 3) != 0, lit += p[0] | p[1] | p[2] ? 1 : 0;
        }
        EXPECT_GT(other, 0u) << "more than one colour";
        EXPECT_GT(lit, 640u * 480 / 20) << "the model covers at least a twentieth of the picture";
    }
}

}  // namespace
