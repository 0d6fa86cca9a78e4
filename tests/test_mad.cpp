// Datapacks and their animation: round trips, the block layout, lookups, damage and key evaluation.
#include <array>
#include <bit>
#include <functional>
#include <memory>

#include "mad.h"
#include "mad_anim.h"
#include "n3d_io.h"
#include "test_fatal.h"

namespace {

std::vector<uint8_t> write_block(const mad_datapack* d, int32_t order)
{
    return test_block(d, order, mad_datapack_write_size, mad_datapack_write, false);
}

// Reads a copy of the block (so a read past it is the sanitizer's to see) into arena.
mad_datapack read_block(xmemarena* arena, const std::vector<uint8_t>& bytes, int32_t order)
{
    auto* copy = (uint8_t*)xmemarena_push_align(arena, bytes.size() + 1, 32);
    memcpy(copy, bytes.data(), bytes.size());
    stream_cursor cur;
    stream_cursor_init(&cur, copy, bytes.size(), order, "test.mad");
    mad_datapack d;
    EXPECT_EQ(mad_datapack_read(&d, arena, &cur), copy + bytes.size());
    EXPECT_EQ(cur.p, copy + bytes.size());
    return d;
}

constexpr float SQRT_HALF = 0.70710678f;

// Nodes: 0 root (children 1 and 3, mesh 0), 1 arm (child 2, skin), 2 hand (mesh 1), 3 cam
// (perspective camera), 4 prop (a second root: mesh 0, orthographic camera), 5 "arm" again.
struct sample_pack {
    float xyz[18] = {0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1, 1, 1, 0, 1, 0, 1};
    float uv[6] = {0, 0, 1, 0, 0, 1}, normals[9] = {0, 0, 1, 0, 0, 1, 0, 0, 1};
    uint8_t joints[12] = {0, 1, 0, 0, 1, 0, 0, 0, 1, 1, 0, 0};
    float weights[12] = {1, 0, 0, 0, 0.5f, 0.5f, 0, 0, 0.25f, 0.75f, 0, 0};
    mad_image images[2] = {{(char*)"wood", 0}, {(char*)"stone", 0}};
    mad_material materials[2] = {{&images[1], {1, 0.5f, 0.25f, 1}}, {nullptr, {0, 0, 0, 0.5f}}};
    mad_primitive primitives0[2] = {
        {{3, xyz, uv, normals, normals, normals, uv, nullptr, nullptr}, &materials[0]},
        {{3, xyz, nullptr, nullptr, nullptr, nullptr, nullptr, joints, weights}, nullptr}};
    mad_primitive primitives1[1] = {
        {{6, xyz, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr}, &materials[1]}};
    mad_mesh meshes[2] = {{2, primitives0}, {1, primitives1}};
    uint32_t skin_joints[2] = {1, 2}, root_children[2] = {1, 3}, arm_children[1] = {2};
    mat4x4 inverse_binds[2], binds[2];
    mad_skin skins[1] = {{2, skin_joints, inverse_binds, binds}};
    // the pair a type does not store holds junk here: the reader must give 0 for it
    mad_camera cameras[2] = {{0, 100, 0.5f, 7, 7, 1.5f, 0.7f}, {1, 50, 0.1f, 2, 3, 7, 7}};
    mad_node nodes[6];
    float step_times[3] = {0, 1, 2}, step_values[9] = {0, 0, 0, 1, 2, 3, 4, 5, 6};
    float spin_times[2] = {0, 1}, spin_values[8] = {0, 0, 0, 1, 0, 0, -SQRT_HALF, -SQRT_HALF};  // dot product < 0
    float grow_times[2] = {0, 2}, grow_values[6] = {1, 1, 1, 3, 5, 7.6f};
    float idle_times[1] = {0.5f}, idle_values[3] = {9, 8, 7};
    mad_sampler walk_samplers[3] = {{MAD_INTERPOLATION_STEP, 3, 9, step_times, step_values},
                                    {MAD_INTERPOLATION_LINEAR, 2, 8, spin_times, spin_values},
                                    {MAD_INTERPOLATION_LINEAR, 2, 6, grow_times, grow_values}};
    mad_sampler idle_samplers[1] = {{MAD_INTERPOLATION_LINEAR, 1, 3, idle_times, idle_values}};
    mad_channel walk_channels[3] = {{&nodes[1], &walk_samplers[0], MAD_PATH_TRANSLATION},
                                    {&nodes[2], &walk_samplers[1], MAD_PATH_ROTATION},
                                    {&nodes[0], &walk_samplers[2], MAD_PATH_SCALE}};
    mad_channel idle_channels[1] = {{&nodes[4], &idle_samplers[0], MAD_PATH_TRANSLATION}};
    mad_animation animations[2] = {{(char*)"walk", 3, walk_samplers, 3, walk_channels},
                                   {(char*)"idle", 1, idle_samplers, 1, idle_channels}};
    mad_datapack d = {6, nodes, 2, meshes, 1, skins, 2, cameras, 2, animations, 2, images, 2, materials};
};

void node_set(mad_node* n, const char* name, const vec3 s, const quat r, const vec3 t, mad_node* parent = nullptr,
              uint32_t child_count = 0, uint32_t* children = nullptr)
{
    *n = {(char*)name, nullptr, nullptr, nullptr, {}, {}, {}, child_count, children, parent};
    vec3_dup(n->scale, s);
    vec4_dup(n->rotation, r);
    vec3_dup(n->translation, t);
}

std::unique_ptr<sample_pack> make_sample()
{
    auto s = std::make_unique<sample_pack>();
    mat4x4_translate(s->inverse_binds[0], 0, -1, 0);
    mat4x4_translate(s->inverse_binds[1], -1, -2, -3);
    mat4x4_scale_aniso(s->inverse_binds[1], s->inverse_binds[1], 2, 2, 2);
    vec3 one = {1, 1, 1}, two = {2, 2, 2}, arm_s = {1, 0.5f, 1};
    quat id = {0, 0, 0, 1}, about_y = {0, SQRT_HALF, 0, SQRT_HALF}, about_x = {0.38268343f, 0, 0, 0.92387953f};
    vec3 t_root = {1, 2, 3}, t_arm = {0, 1, 0}, t_hand = {0, 0, 2}, zero = {0, 0, 0};
    mad_node* n = s->nodes;
    node_set(&n[0], "root", two, about_y, t_root, nullptr, 2, s->root_children);
    node_set(&n[1], "arm", arm_s, about_x, t_arm, &n[0], 1, s->arm_children);
    node_set(&n[2], "hand", one, id, t_hand, &n[1]);
    node_set(&n[3], "cam", one, id, zero, &n[0]);
    node_set(&n[4], "prop", one, id, zero);
    node_set(&n[5], "arm", one, id, zero);
    n[0].mesh = n[4].mesh = &s->meshes[0];
    n[1].skin = &s->skins[0];
    n[2].mesh = &s->meshes[1];
    n[3].camera = &s->cameras[0];
    n[4].camera = &s->cameras[1];
    return s;
}

struct block_writer {
    std::vector<uint8_t> bytes;
    int32_t order;
    void u32(const std::vector<uint32_t>& vs)
    {
        for (uint32_t v : vs) {
            bytes.resize(bytes.size() + 4);
            stream_write_u32(&bytes[bytes.size() - 4], v, order);
        }
    }
    void f32(const std::vector<float>& vs)
    {
        for (float v : vs)
            u32({std::bit_cast<uint32_t>(v)});
    }
    // a node: name, child count, scale, rotation, translation, mesh, skin, camera, children, parent
    void node(const char* name, const std::vector<float>& srt, const std::vector<uint32_t>& msc,
              const std::vector<uint32_t>& children, uint32_t parent)
    {
        text(name);
        u32({(uint32_t)children.size()});
        f32(srt);
        u32(msc);
        u32(children);
        u32({parent});
    }
    void text(const char* s) { bytes.insert(bytes.end(), s, s + strlen(s) + 1); }
};

// The fields the death tests damage, with the values of a good block.
struct tiny_fields {
    // nodes, meshes, skins, cameras, animations, images, materials
    std::vector<uint32_t> counts = {2, 1, 1, 1, 1, 1, 1};
    std::vector<uint32_t> root_children = {1}, leaf_children = {};
    uint32_t root_parent = 0, root_mesh = 1, leaf_parent = 1, leaf_skin = 1, leaf_camera = 1, material_image = 0;
    uint32_t primitive_count = 1, vertex_count = 3, primitive_material = MAD_INDEX_NONE, joint_count = 1, joint = 1;
    uint32_t sampler_count = 1, interpolation = MAD_INTERPOLATION_LINEAR, input_count = 2, output_count = 8;
    uint32_t channel_count = 1, channel_node = 1, channel_path = MAD_PATH_ROTATION, channel_sampler = 0;
    float second_time = 1;
    uint32_t leaf_mesh = 0;      // 1: the skinned leaf draws the mesh too
    std::vector<uint8_t> joints;  // four per vertex when present
    size_t vertices_at = 0, animation_name_at = 0;  // out: where the vertex block and the animation's name start
};

std::vector<uint8_t> tiny_block(tiny_fields* f, int32_t order)
{
    block_writer w = {{}, order};
    w.u32(f->counts);
    w.node("root", {1, 1, 1, 0, 0, 0, 1, 1, 2, 3}, {f->root_mesh, 0, 0}, f->root_children, f->root_parent);
    w.node("leaf", {2, 2, 2, 0, 0.6f, 0, 0.8f, 0, 0, -1}, {f->leaf_mesh, f->leaf_skin, f->leaf_camera},
           f->leaf_children, f->leaf_parent);
    w.text("bark"), w.u32({f->material_image}), w.f32({0.5f, 0.25f, 1, 1});  // the image, then the material
    w.u32({f->primitive_count});  // the mesh: one primitive of xyz only
    f->vertices_at = w.bytes.size();
    w.u32({N3D_VERTICES_XYZ | (f->joints.empty() ? 0u : (uint32_t)N3D_VERTICES_JOINTS), f->vertex_count});
    w.f32({0, 1, 2, 3, 4, 5, 6, 7, 8});
    w.bytes.insert(w.bytes.end(), f->joints.begin(), f->joints.end());
    w.u32({f->primitive_material, f->joint_count, f->joint});  // the skin's joint: its inverse bind scales by 2
    w.f32({2, 0, 0, 0, 0, 2, 0, 0, 0, 0, 2, 0, 0, 0, 0, 1});
    w.u32({0}), w.f32({100, 0.5f, 1.5f, 0.75f});  // a perspective camera
    f->animation_name_at = w.bytes.size();
    w.text("spin");  // one linear rotation sampler of two keys
    w.u32({f->sampler_count, f->interpolation, f->input_count, f->output_count});
    w.f32({0, f->second_time, 0, 0, 0, 1, 0, 0, 1, 0});
    w.u32({f->channel_count, f->channel_node, f->channel_path, f->channel_sampler});
    return w.bytes;
}

struct damage { std::function<void(tiny_fields*)> change; const char* message; };

// Each damaged block is refused with `before`, then the message as it stands, then `after`.
void expect_refused(const std::vector<damage>& cases, const std::string& before, const std::string& after = "")
{
    for (const damage& c : cases) {
        SCOPED_TRACE(c.message);
        tiny_fields f;
        c.change(&f);
        test_arena a;
        EXPECT_FATAL(read_block(&a.arena, tiny_block(&f, BYTE_ORDER_NATIVE), BYTE_ORDER_NATIVE),
                     before + test_literal(c.message) + after);
    }
}

// The sampler's value at t with the search from the first key, over a target filled with -1.
std::array<float, 4> value_at(const mad_sampler* s, uint32_t path, float t)
{
    std::array<float, 4> v = {-1, -1, -1, -1};
    uint32_t cursor = 0;
    mad_sampler_eval(v.data(), s, path, &cursor, t);
    return v;
}

}  // namespace

TEST(mad_block, write_read_write_reproduces_the_block_in_both_orders_from_a_file_and_lookups)
{
    auto s = make_sample();
    test_arena a;
    const int32_t orders[2] = {BYTE_ORDER_NATIVE, BYTE_ORDER_SWAPPED};
    const std::vector<uint8_t> blocks[2] = {write_block(&s->d, orders[0]), write_block(&s->d, orders[1])};
    EXPECT_NE(blocks[0], blocks[1]);
    for (int i = 0; i < 4; i++) {
        const mad_datapack d = read_block(&a.arena, blocks[i / 2], orders[i / 2]);
        EXPECT_EQ(write_block(&d, orders[i % 2]), blocks[i % 2]) << i;
    }
    // the writer's layout is the one written field by field here
    tiny_fields f;
    const std::vector<uint8_t> tiny = tiny_block(&f, BYTE_ORDER_SWAPPED);
    const mad_datapack d = read_block(&a.arena, tiny, BYTE_ORDER_SWAPPED);
    EXPECT_EQ(write_block(&d, BYTE_ORDER_SWAPPED), tiny);
    // what a rewrite cannot show: names are copied, not borrowed; bind matrices are derived,
    // (T(-1, -2, -3) S(2))^-1 = S(1/2) T(1, 2, 3); only the pair a camera's type selects is stored
    const mad_datapack r = read_block(&a.arena, blocks[1], BYTE_ORDER_SWAPPED);
    EXPECT_TRUE(!strcmp(r.nodes[2].name, "hand") && r.nodes[2].name != s->nodes[2].name);
    EXPECT_TRUE(r.skins[0].bind_matrices[1][3][2] == 1.5f && r.skins[0].bind_matrices[1][1][1] == 0.5f);
    EXPECT_TRUE(r.cameras[0].yfov == 0.7f && r.cameras[0].ortho_a == 0 && r.cameras[0].ortho_b == 0);
    EXPECT_TRUE(r.cameras[1].ortho_b == 3.0f && r.cameras[1].persp_a == 0 && r.cameras[1].yfov == 0);

    // from a file, and damaged files
    const std::vector<uint8_t>& block = blocks[1];  // in the swapped order
    const std::string path = test_temp_path("test.mad");
    testing::internal::CaptureStdout();  // the writer's report
    ASSERT_EQ(n3d_io_write_file(path.c_str(), block.data(), block.data() + block.size(), BYTE_ORDER_SWAPPED), 0);
    testing::internal::GetCapturedStdout();
    const mad_datapack* loaded = mad_datapack_file_load(&a.arena, path.c_str());
    ASSERT_NE(loaded, nullptr);
    EXPECT_EQ(write_block(loaded, BYTE_ORDER_SWAPPED), block);

    const auto put = [&](const char* mode, int byte) {
        FILE* file = fopen(path.c_str(), mode);
        fputc(byte, file);
        fclose(file);
    };
    put("ab", 0);  // one byte more than the block
    EXPECT_EXIT(mad_datapack_file_load(&a.arena, path.c_str()), testing::ExitedWithCode(1),
                "crash in mad_datapack_file_load at src/mad:[0-9]+\n.*" +
                    test_literal(": 1 unexpected bytes after the block at offset " + std::to_string(4 + block.size())));
    put("r+b", 0x12);
    EXPECT_FATAL(mad_datapack_file_load(&a.arena, path.c_str()), "at src/mad:[0-9]+\ninvalid endian marker\\?\n$");
    remove(path.c_str());
    // lookups: the first exact match, or -1 with a message
    testing::internal::CaptureStdout();
    EXPECT_EQ(mad_find_node(&s->d, "arm"), 1);  // node 5 has the same name
    EXPECT_EQ(mad_find_animation(&s->d, "idle"), 1);
    EXPECT_TRUE(mad_find_node(&s->d, "Arm") == -1 && mad_find_node(&s->d, "ar") == -1);
    EXPECT_EQ(mad_find_animation(&s->d, "hand"), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "failed find node \"Arm\"\nfailed find node \"ar\"\nfailed find animation \"hand\"\n");
}

TEST(mad_block_death, damaged_blocks_are_refused_with_their_message)
{
    expect_refused(
        {
            {[](auto* f) { f->root_mesh = 2; }, "node[0]: mesh 2 is out of range (1-based, 0 for none; 1 meshes)"},
            {[](auto* f) { f->leaf_camera = 0xFFFFFFFF; }, "node[1]: camera 4294967295 is out of range"},
            {[](auto* f) { f->root_children = {2}; }, "node[0]: child 2 is out of range (0-based; 2 nodes)"},
            {[](auto* f) { f->leaf_parent = 3; }, "node[1]: parent 3 is out of range (1-based, 0 for none; 2 nodes)"},
            {[](auto* f) { f->material_image = 1; },
             "material[0]: base_color_image 1 is out of range (0-based, 0xffffffff for none; 1 images)"},
            {[](auto* f) { f->joint = 2; }, "skin[0]: joint 2 is out of range (0-based; 2 nodes)"},
            {[](auto* f) { f->channel_node = 2; }, "animation[0]: channel node 2 is out of range (0-based; 2 nodes)"},
            {[](auto* f) { f->channel_path = 0; },
             "animation[0] channel[0]: path 0 is not 1 (translation), 2 (rotation) or 3 (scale)"},
            // seven floats are too few for three rotation keys, and a channel needs a key to hold
            {[](auto* f) { f->input_count = 3, f->output_count = 7, f->second_time = 0; },
             "animation[0] channel[0]: sampler[0] has 3 keys and 7 values, but path 2 needs at least one key and 4 "
             "values per key"},
            {[](auto* f) { f->second_time = -1; }, "animation[0] sampler[0]: key time 1 (-1) is before key time 0 (0)"},
        },
        "crash in mad_datapack_read at src/mad:[0-9]+\ntest.mad: .*");

    // The skinned draw path indexes its node's skin with every vertex joint: a joint the skin does
    // not have is refused where the datapack is read. Joints of a mesh no skinned node draws are
    // never looked up.
    const std::vector<uint8_t> in_range(12, 0), joint_one = {0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0};
    for (uint32_t leaf_mesh : {0u, 1u}) {
        tiny_fields f;
        f.leaf_mesh = leaf_mesh;
        f.joints = leaf_mesh ? in_range : joint_one;  // the root draws it unskinned
        test_arena a;
        const mad_datapack d = read_block(&a.arena, tiny_block(&f, BYTE_ORDER_NATIVE), BYTE_ORDER_NATIVE);
        EXPECT_EQ(d.meshes[0].primitives[0].vertices.joints[6], leaf_mesh ? 0 : 1);
    }
    expect_refused({{[joint_one](auto* f) { f->leaf_mesh = 1, f->joints = joint_one; },
                     "node[1]: vertex 1 of primitive 0 uses joint 1, its skin has 1 joints"}},
                   "crash in mad_datapack_read at src/mad:[0-9]+\ntest.mad: ");

    // the hierarchy must be a forest whose parents and children agree
    expect_refused(
        {
            {[](auto* f) { f->leaf_parent = 0; }, "node[0] lists node[1] as a child, but that node is a root"},
            {[](auto* f) { f->root_children = {}; }, "node[1] has parent node[0], which does not list it as a child"},
            {[](auto* f) { f->root_children = {1, 1}; }, "node[0] lists node[1] as a child more than once"},
            {[](auto* f) { f->root_children = {}, f->leaf_children = {1}; },
             "node[1] lists node[1] as a child, but its parent is node[0]"},
            {[](auto* f) { f->root_parent = 2, f->leaf_children = {0}; },
             "node[0] \"root\" has no root above it: its parents form a cycle"},
        },
        "test.mad: ", "\n$");
}

TEST(mad_sampler, keys_before_between_on_and_after_and_slerp_without_sign_flip)
{
    float times[3] = {0, 1, 2}, values[9] = {10, 20, 30, 14, 24, 34, 0, 0, 0};
    const mad_sampler linear = {MAD_INTERPOLATION_LINEAR, 2, 6, times, values};
    EXPECT_FLOAT_EQ(value_at(&linear, MAD_PATH_TRANSLATION, 0.25f)[0], 11.0f);  // 0.75 x first + 0.25 x second
    EXPECT_FLOAT_EQ(value_at(&linear, MAD_PATH_SCALE, 0.25f)[2], 31.0f);
    EXPECT_EQ(value_at(&linear, MAD_PATH_SCALE, 0.25f)[3], -1.0f);  // three floats only
    for (float t : {-1.0f, 0.0f, NAN})
        EXPECT_EQ(value_at(&linear, MAD_PATH_SCALE, t)[1], 20.0f) << t;
    for (float t : {1.0f, 2.0f, INFINITY})
        EXPECT_EQ(value_at(&linear, MAD_PATH_SCALE, t)[1], 24.0f) << t;

    // step holds the earlier key, also exactly on the later one
    const mad_sampler step = {MAD_INTERPOLATION_STEP, 3, 9, times, values};
    for (float t : {0.99f, 1.0f})
        EXPECT_EQ(value_at(&step, MAD_PATH_TRANSLATION, t)[0], 10.0f) << t;

    const mad_sampler unknown = {3, 2, 6, times, values};
    EXPECT_EQ(value_at(&unknown, MAD_PATH_TRANSLATION, 0.5f)[0], -1.0f);  // left alone

    // (0, 0, -s, -s) is the same turn as (0, 0, s, s), 90 degrees about z, but its dot product
    // with the identity is negative: halfway lies on the long arc, 135 / 2 degrees from the first
    float quats[8] = {0, 0, 0, 1, 0, 0, -SQRT_HALF, -SQRT_HALF};
    mad_sampler spin = {MAD_INTERPOLATION_LINEAR, 2, 8, times, quats};
    const std::array<float, 4> q = value_at(&spin, MAD_PATH_ROTATION, 0.5f);
    const float half = 67.5f * (float)M_PI / 180.0f;
    EXPECT_TRUE(fabsf(q[0]) < 1e-6f && fabsf(q[2] + sinf(half)) < 1e-5f && fabsf(q[3] - cosf(half)) < 1e-5f);
    spin.interpolation = MAD_INTERPOLATION_STEP;
    EXPECT_EQ(value_at(&spin, MAD_PATH_ROTATION, 0.5f)[3], 1.0f);
}

TEST(mad_animate, channels_write_their_nodes_leave_the_rest_and_dump)
{
    auto s = make_sample();
    mad_datapack* d = &s->d;  // walk: step, linear rotation and scale; idle: one key
    mad_animate(d, 0, 0.5f);
    EXPECT_TRUE(d->nodes[1].translation[1] == 0.0f && d->nodes[1].scale[1] == 0.5f);  // step: key 0; not animated
    EXPECT_NEAR(d->nodes[2].rotation[2], -0.92387953f, 1e-5f);
    EXPECT_NEAR(d->nodes[2].rotation[3], 0.38268343f, 1e-5f);
    EXPECT_FLOAT_EQ(d->nodes[0].scale[2], 1.0f + 0.25f * 6.6f);
    EXPECT_EQ(d->nodes[4].translation[0], 0.0f);
    // a second animation on top of the first
    mad_animate(d, 1, 0.0f);
    EXPECT_TRUE(d->nodes[4].translation[0] == 9.0f && d->nodes[1].translation[1] == 0.0f);
    EXPECT_EXIT(mad_animate(d, 2, 0.0f), testing::ExitedWithCode(1),
                "crash in mad_animate at src/mad_anim:[0-9]+\nanimation index 2 is out of range \\(2 animations\\)");
    // the dump prints every key in its format
    testing::internal::CaptureStdout();
    mad_dump_animation(&s->d, 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "node[1].translation keyframes: 3\n\t[0][0.00]: 0.00 0.00  0\n\t[1][1.00]: 1.00 2.00  3\n"
              "\t[2][2.00]: 4.00 5.00  6\n]\n"
              "node[2].rotation keyframes: 2\n\t[0][0.00]: 0.00 0.00 0.00  1\n\t[1][1.00]: 0.00 0.00 -0.71 -1\n]\n"
              "node[0].scale keyframes: 2\n\t[0][0.00]: 1.00 1.00  1\n\t[1][2.00]: 3.00 5.00  8\n]\n");
}
