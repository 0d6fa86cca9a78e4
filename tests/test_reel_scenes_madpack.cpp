// The animated 3D scene, driven pass by pass as the sequencer calls it, over a datapack built
// here from records: the argument parser's tables and messages, the texture table, the moving
// light, the fly camera and its key, the shade-table cache, the two draw passes and the exits.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <string>
#include <vector>

#include "mad.h"
#include "n3d_io.h"
#include "scene_fixture.h"

namespace {

constexpr uint16_t SPECIAL_COLOR = 0xFC00;  // opaque red: the special node's direct-colour texel
constexpr uint32_t SIDE = 256;

// A square of side 2 about the origin in the z = 0 plane, both windings, with every attribute
// the lit pass reads.
struct square_vertices {
    float xyz[12 * 3], uv[12 * 2], n[12 * 3], t[12 * 3], b[12 * 3];
    square_vertices()
    {
        const float corners[6][2] = {{-1, -1}, {1, -1}, {1, 1}, {-1, -1}, {1, 1}, {-1, 1}};
        for (uint32_t v = 0; v < 12; v++) {
            const uint32_t c = v < 6 ? v : 11 - (v - 6);  // the second half backwards
            const float x = corners[c % 6][0], y = corners[c % 6][1];
            const float vertex[4][3] = {{x, y, 0}, {0, 0, 1}, {1, 0, 0}, {0, 1, 0}};  // position, n, t, b
            for (uint32_t k = 0; k < 3; k++)
                xyz[v * 3 + k] = vertex[0][k], n[v * 3 + k] = vertex[1][k], t[v * 3 + k] = vertex[2][k],
                b[v * 3 + k] = vertex[3][k];
            uv[v * 2] = (x + 1) * 0.5f, uv[v * 2 + 1] = (y + 1) * 0.5f;
        }
    }
    n3d_vertices vertices() { return {12, xyz, uv, n, t, b, nullptr, nullptr, nullptr}; }
};

// Nodes: 0 "root" (no mesh, parent of 1), 1 "lit" (mesh 0: wood), 2 "special" (mesh 1: flat),
// 3 "cam" (camera 5 units up +z, looking down -z), 4 "optional" (mesh 0 again).
// Animations: "move" slides "lit" along x, "extra" moves "optional".
struct test_pack {
    square_vertices square;
    mad_image images[3] = {{(char*)"wood", 9}, {(char*)"flat", 9}, {(char*)"unused", 9}};
    mad_material materials[3] = {{&images[0], {1, 1, 1, 1}}, {&images[1], {1, 1, 1, 1}}, {&images[2], {1, 1, 1, 1}}};
    mad_primitive lit_primitives[1], special_primitives[1], unused_primitives[1];
    mad_mesh meshes[3] = {{1, lit_primitives}, {1, special_primitives}, {1, unused_primitives}};
    mad_camera cameras[1] = {{0, 0, 0.5f, 0, 0, 0, 0.7853982f}};
    uint32_t root_children[1] = {1};
    mad_node nodes[5];
    float move_times[2] = {0, 1}, move_values[6] = {0, 0, 0, 4, 0, 0};
    float extra_times[1] = {0}, extra_values[3] = {0, 0, 1};
    mad_sampler move_samplers[1] = {{MAD_INTERPOLATION_LINEAR, 2, 6, move_times, move_values}};
    mad_sampler extra_samplers[1] = {{MAD_INTERPOLATION_LINEAR, 1, 3, extra_times, extra_values}};
    mad_channel move_channels[1] = {{&nodes[1], &move_samplers[0], MAD_PATH_TRANSLATION}};
    mad_channel extra_channels[1] = {{&nodes[4], &extra_samplers[0], MAD_PATH_TRANSLATION}};
    mad_animation animations[2] = {{(char*)"move", 1, move_samplers, 1, move_channels},
                                   {(char*)"extra", 1, extra_samplers, 1, extra_channels}};
    mad_datapack pack;

    test_pack()
    {
        lit_primitives[0] = {square.vertices(), &materials[0]};
        special_primitives[0] = {square.vertices(), &materials[1]};
        unused_primitives[0] = {square.vertices(), &materials[2]};  // no node draws mesh 2
        const char* names[5] = {"root", "lit", "special", "cam", "optional"};
        for (uint32_t i = 0; i < 5; i++) {
            nodes[i] = {};
            nodes[i].name = (char*)names[i];
            vec3_set(nodes[i].scale, 1, 1, 1);
            nodes[i].rotation[3] = 1;
        }
        nodes[0].child_count = 1, nodes[0].children = root_children;
        nodes[1].mesh = &meshes[0], nodes[1].parent = &nodes[0];
        nodes[2].mesh = &meshes[1];
        nodes[3].camera = &cameras[0];
        vec3_set(nodes[3].translation, 0, 0, 5);
        nodes[4].mesh = &meshes[0];
        pack = {5, nodes, 3, meshes, 0, nullptr, 1, cameras, 2, animations, 3, images, 3, materials};
    }
};

struct madpack_fixture : scene_fixture {
    test_pack data;
    uint16_t palette[256];
    uint16_t file_shades[256 * 32] = {};
    std::vector<n3d_texture*> textures;
    std::vector<std::string> names;

    madpack_fixture()
    {
        n3d_init(&demo);
        n3d_phong_lut_init(&engine.phong_lut, &demo, 0.3f, 0);
        n3d_phong_lut_set_default(&engine.phong_lut);
        for (reel_shade_table_entry& entry : engine.shade_tables)
            entry.table = (uint16_t*)xmemarena_push_align(engine.arena, REEL_SHADE_TABLE_BYTES, 32);
        for (uint32_t i = 0; i < 256; i++)
            palette[i] = (uint16_t)(0x8000 | i << 5);
        reel_madpack_fly_mode = 0;
        names.reserve(32);  // the cache keeps pointers to these names
        add(REEL_KIND_MADPACK, "scene", &data.pack);
        add_texture("wood.tmap", N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555);
        add_texture("flat.tmap", N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555);
        add_texture("unused.tmap", N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555);
    }

    // Index 7 everywhere, read through the file's own palette and shade table, or the special colour.
    n3d_texture* add_texture(const char* name, N3D_TEXEL_FORMAT format)
    {
        n3d_texture* t = texture(format, 8, 8, 0);
        if (format == N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555) {
            memset(t->mips[0], 7, SIDE * SIDE);
            t->palette = palette, t->shade_table = file_shades;
        } else {
            std::fill((uint16_t*)t->mips[0], (uint16_t*)t->mips[0] + SIDE * SIDE, SPECIAL_COLOR);
        }
        names.push_back(name);
        textures.push_back(t);
        add(REEL_KIND_TEXTURE, names.back().c_str(), t);
        return t;
    }

    scene_video_madpack_state* state() { return reel_scene_state<scene_video_madpack_state>(&scene); }
    const uint16_t* video() { return (const uint16_t*)ctx.video->framebuffer->pixels; }

    // Loads the row and makes the first update pass: the set-up call, then the first frame at 0 s.
    void start(const char* args)
    {
        load("video_madpack", args);
        pass(REEL_PASS_UPDATE, 0.0f);
    }

    void update(float seconds)
    {
        pass(REEL_PASS_UPDATE, seconds);
        memcpy(engine.previous_keys, keys, sizeof(keys));  // as the engine frame does after each pass
    }
};

const char* const ARGS = "scene,0,1,move,cam,special,optional,0";
const char* const ARGS_TWO = "scene,0.5,2,move,cam,special,optional,extra";

// ---- parse ----

TEST_F(madpack_fixture, parser_fills_the_tables_in_their_fixed_positions)
{
    const struct {
        const char* args;
        uint32_t animation_count;
        uint32_t second;
        float offset, speed;
    } cases[] = {{ARGS, 1, 0, 0.0f, 1.0f}, {ARGS_TWO, 2, 1, 0.5f, 2.0f}};
    for (const auto& c : cases) {
        load("video_madpack", c.args);
        const reel_madfx& fx = state()->madfx;
        // special, camera, optional
        EXPECT_EQ(std::vector<uint32_t>(fx.node_index_lut, fx.node_index_lut + fx.node_lut_count),
                  (std::vector<uint32_t>{2, 3, 4}));
        ASSERT_EQ(fx.animation_lut_count, c.animation_count) << c.args;
        EXPECT_TRUE(fx.animation_index_lut[0] == 0 && (c.animation_count == 1 || fx.animation_index_lut[1] == c.second));
        ASSERT_TRUE(scene.madpack_count == 1 && scene.float_count >= 2);
        EXPECT_TRUE(scene.madpacks[0] == &data.pack && scene.floats[0] == c.offset && scene.floats[1] == c.speed);
    }
}

TEST_F(madpack_fixture, texture_table_has_one_slot_per_textured_primitive_of_a_node_in_node_order)
{
    load("video_madpack", ARGS);
    // node 1 draws wood, node 2 flat, node 4 wood again; mesh 2 belongs to no node
    // the cache hands out the same record again; an image keeps the last slot; an image no node
    // draws is not touched
    const scene_video_madpack_state* s = state();
    EXPECT_EQ(std::vector<n3d_texture*>(s->textures, s->textures + s->texture_count),
              (std::vector<n3d_texture*>{textures[0], textures[1], textures[0]}));
    EXPECT_TRUE(data.images[0].texture_index == 2 && data.images[1].texture_index == 1 && data.images[2].texture_index == 9);
}

TEST_F(madpack_fixture, names_not_found_and_a_camera_node_without_a_camera_are_fatal_at_parse)
{
    const struct { const char* args; const char* message; } cases[] = {
        {"scene,0,1,move,nocam,special,optional,0",
         "failed find node \"nocam\"\n(.|\n)*reel_madfx_validate(.|\n)*node_index_lut\\[1\\] is null!\n"},
        {"scene,0,1,move,cam,special,gone,0", "failed find node \"gone\"\n(.|\n)*node_index_lut\\[2\\] is null!\n"},
        {"scene,0,1,walk,cam,special,optional,0", "failed find animation \"walk\"\n(.|\n)*animation_index_lut\\[0\\]"},
        {"scene,0,1,move,cam,special,optional,Extra", "animation_index_lut\\[1\\] is null!\n"},
        {"scene,0,1,move,lit,special,optional,0",
         "scene_video_madpack_parse_args(.|\n)*node\\[1\\] with name lit is not a camera\\?\n"},
    };
    for (const auto& c : cases)
        EXPECT_FATAL_OUT(load("video_madpack", c.args), c.message) << c.args;
}

// ---- light and camera ----

TEST(madpack_light, moves_on_its_path_at_known_times)
{
    // u = seconds / 5: (5 sin(pi u), 5 cos(pi u), 2 cos(0.6 pi u) sin(2 pi u))
    const struct { float seconds; float x, y, z; } cases[] = {
        {0.0f, 0.0f, 5.0f, 0.0f},
        {1.25f, 3.5355339f, 3.5355339f, 1.7820130f},  // u = 1/4: 2 cos(0.15 pi) = 1.782013
        {2.5f, 5.0f, 0.0f, 0.0f},                     // u = 1/2: sin(pi) = 0
        {3.75f, 3.5355339f, -3.5355339f, -0.3128690f},  // u = 3/4: 2 cos(0.45 pi) sin(1.5 pi)
        {5.0f, 0.0f, -5.0f, 0.0f},
    };
    for (const auto& c : cases) {
        vec3 light;
        reel_madpack_light_position(light, c.seconds);
        const float want[3] = {c.x, c.y, c.z};
        for (int k = 0; k < 3; k++)
            EXPECT_NEAR(light[k], want[k], 2e-5f) << c.seconds << " " << k;
    }
}

TEST_F(madpack_fixture, first_update_call_only_sets_up_the_fly_camera_render_calls_do_nothing)
{
    reel_madpack_fly_camera = {{1, 2, 3}, 1, 1, 1, 1};
    load("video_madpack", ARGS);
    pass(REEL_PASS_RENDER, 0.0f);
    EXPECT_FALSE(scene.load_complete);
    EXPECT_EQ(reel_madpack_fly_camera.position[0], 1.0f);
    pass(REEL_PASS_UPDATE, 0.0f);
    EXPECT_TRUE(scene.load_complete);
    const fly_camera& f = reel_madpack_fly_camera;
    EXPECT_TRUE(f.position[0] == 0 && f.position[1] == 0 && f.position[2] == 0 && f.yaw == 0.0f && f.pitch == 0.0f);
    EXPECT_TRUE(f.mouse_sensitivity == 0.025f && f.speed == 2.0f);
}

TEST_F(madpack_fixture, key_2_switches_to_the_fly_camera_which_keeps_its_pose_until_the_next_press)
{
    start(ARGS);
    const float step = 2.0f / 60.0f;  // speed x 1/60 along -z while 'w' is held
    // '2' and 'w' held or not in an update pass, then the mode and the fly camera's z after it: off,
    // the fly camera stays put; pressed: on, and it moves this frame; still held: no second toggle;
    // pressed again: back to the camera node; on again: the pose survived the switch
    const struct { uint8_t two, w; uint32_t mode; float z; } steps[] = {
        {0, 1, 0, 0.0f},      {1, 1, 1, -step},     {1, 1, 1, -2 * step}, {0, 1, 1, -3 * step},
        {1, 1, 0, -3 * step}, {0, 1, 0, -3 * step}, {1, 0, 1, -3 * step}};
    for (const auto& s : steps) {
        keys['2'] = s.two, keys['w'] = s.w;
        update(0.1f * (float)(&s - steps + 1));
        EXPECT_EQ(reel_madpack_fly_mode, s.mode) << &s - steps;
        EXPECT_NEAR(reel_madpack_fly_camera.position[2], s.z, 1e-6f) << &s - steps;
    }
}

TEST_F(madpack_fixture, a_camera_node_nearer_than_the_depth_buffer_allows_is_fatal)
{
    data.cameras[0].yfov = 0.7f, data.cameras[0].znear = 0.1f;
    EXPECT_DEATH(start(ARGS), "near_plane must be >= N3D_ZBUFFER_MIN_NEAR_PLANE but is 0.10");
}

// ---- drawing ----

struct box {
    uint32_t count = 0;
    int x0 = 1 << 30, y0 = 1 << 30, x1 = -1, y1 = -1;
};

box pixels_of(const uint16_t* pixels, uint16_t value)
{
    box b;
    for (int y = 0; y < 240; y++)
        for (int x = 0; x < 320; x++)
            if (pixels[y * 512 + x] == value) {
                b.count++;
                b.x0 = std::min(b.x0, x), b.y0 = std::min(b.y0, y), b.x1 = std::max(b.x1, x), b.y1 = std::max(b.y1, y);
            }
    return b;
}

TEST_F(madpack_fixture, special_node_is_drawn_last_at_a_fifth_of_its_size_where_nothing_else_covers)
{
    ASSERT_EQ(ctx.video->framebuffer->row_bytes, 1024);
    // The camera is 5 units from the special square: its corners (+-0.2 after scaling) land
    // 0.2 x 1.8106601 / 5 x 160 = 11.59 pixels (and 0.2 x 2.4142137 / 5 x 120 = 11.59 rows) from
    // the centre, which the projection puts at (160.5, 120.5): columns 148.91 to 172.09 and rows
    // 108.91 to 132.09, so pixels 149 to 172 and rows 109 to 132.
    start(ARGS);
    update(1.0f);  // "move" has taken the lit square to x = 4: off screen
    const box red = pixels_of(video(), SPECIAL_COLOR);
    EXPECT_TRUE(red.x0 == 149 && red.x1 == 172 && red.y0 == 109 && red.y1 == 132 && red.count == 24 * 24)
        << red.x0 << ".." << red.x1 << ", " << red.y0 << ".." << red.y1 << ": " << red.count;

    n3d_framebuffer_clear(ctx.video->framebuffer);
    update(0.0f);  // the lit square, drawn first, covers the centre: the special node draws nothing
    EXPECT_EQ(pixels_of(video(), SPECIAL_COLOR).count, 0u);
    EXPECT_NE(video()[120 * 512 + 160], 0x8000);

    // the optional node is drawn only with a second animation: ARGS_TWO at 0.25 s is t = speed x
    // seconds + offset = 1, the lit square is off screen, and "extra" holds the optional square
    // 4 units in front of the camera, over the centre
    start(ARGS_TWO);
    n3d_framebuffer_clear(ctx.video->framebuffer);
    update(0.25f);
    EXPECT_EQ(pixels_of(video(), SPECIAL_COLOR).count, 0u);
}

TEST_F(madpack_fixture, lit_textures_read_one_cached_shade_table_per_texture)
{
    start(ARGS_TWO);  // the lit and the optional square share wood
    update(0.0f);
    ASSERT_EQ(engine.shade_table_count, 1u);
    EXPECT_TRUE(engine.shade_tables[0].texture == textures[0] && textures[0]->shade_table == engine.shade_tables[0].table);
    EXPECT_EQ(textures[1]->shade_table, nullptr) << "the direct-colour texture has none";
    // every texel is index 7: the centre shows one of its 32 shades from the new table
    const uint16_t* row7 = engine.shade_tables[0].table + 7 * 32;
    EXPECT_NE(std::find(row7, row7 + 32, video()[120 * 512 + 160]), row7 + 32);
    EXPECT_NE(row7[0], 0) << "the table was built";
    for (uint32_t i = 0; i < 256 * 32; i++)
        ASSERT_EQ(file_shades[i], 0) << "the file's own table is left as it was";
}

TEST_F(madpack_fixture, ten_distinct_textures_fit_the_cache_an_eleventh_is_fatal)
{
    for (uint32_t distinct : {10u, 11u}) {
        mad_image images[11];
        mad_material materials[11];
        mad_primitive primitives[11];
        char image_names[11][16], file_names[11][24];
        for (uint32_t i = 0; i < distinct; i++) {
            snprintf(image_names[i], sizeof(image_names[i]), "t%u", i);
            snprintf(file_names[i], sizeof(file_names[i]), "t%u.tmap", i);
            add_texture(file_names[i], N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555);
            images[i] = {image_names[i], 0};
            materials[i] = {&images[i], {1, 1, 1, 1}};
            primitives[i] = {data.square.vertices(), &materials[i]};
        }
        data.meshes[0] = {distinct, primitives};
        engine.shade_table_count = 0;
        if (distinct == 10) {
            start(ARGS);
            EXPECT_EQ(engine.shade_table_count, 10u);
        } else {
            EXPECT_DEATH(start(ARGS), "scene_video_madpack(.|\n)*exhausted REEL_SHADE_TABLE_CACHE_MAX \\(10\\)\n");
        }
    }
}

// Messages anchored at both ends are printed on standard output alone by the first pass's checks.
TEST_F(madpack_fixture, missing_or_wrong_textures_end_the_process_with_their_message)
{
    using spoil = std::function<void(madpack_fixture*)>;
    const struct { const char* what; spoil spoil_it; const char* message; } cases[] = {
        {"no material", [](madpack_fixture* f) { f->data.lit_primitives[0].material = nullptr; },
         "^mesh has no base_color_image\\?\n$"},
        {"no image", [](madpack_fixture* f) { f->data.materials[0].base_color_image = nullptr; },
         "^mesh has no base_color_image\\?\n$"},
        {"no texture", [](madpack_fixture* f) { f->data.images[0].texture_index = 99; }, "^failed get texture!\n$"},
        {"index8 expected", [](madpack_fixture* f) { f->textures[0]->format = N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555; },
         "^wrong format for texture \"wood\" is 2 but expected 1\n$"},
        {"direct colour expected", [](madpack_fixture* f) { f->textures[1]->format = N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555; },
         "scene_video_madpack(.|\n)*wrong format for texture \"flat\" is 1 but expected 2\n"},
        {"slot 0 stands in", [](madpack_fixture* f) { f->data.special_primitives[0].material = nullptr; },
         "scene_video_madpack(.|\n)*wrong format for texture \"wood\" is 1 but expected 2\n"},
        // only the special node has a mesh, and no material: the table is empty, slot 0 does not exist
        {"no slot 0",
         [](madpack_fixture* f) {
             f->data.nodes[1].mesh = nullptr, f->data.nodes[4].mesh = nullptr;
             f->data.special_primitives[0].material = nullptr;
             f->load("video_madpack", ARGS);
         },
         "scene_video_madpack(.|\n)*failed get texture!\n"},
        {"no argument text",  // bound by a description: what it can bind, but no node tables
         [](madpack_fixture* f) {
             f->load("video_madpack", nullptr, 9.0f, [f] { f->scene.madpack_count = 1, f->scene.float_count = 2; });
         },
         "needs its argument text"},
    };
    for (const auto& c : cases)
        EXPECT_FATAL_OUT((load("video_madpack", ARGS), c.spoil_it(this), pass(REEL_PASS_UPDATE, 0.0f)), c.message)
            << c.what;
}

}  // namespace
