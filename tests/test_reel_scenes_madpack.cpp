// The animated 3D scene, pass by pass, over a datapack built here from records: the parser's
// tables and messages, the texture table, the light, the fly camera, the shade-table cache, the
// two draw passes and the exits.
#include <gtest/gtest.h>

#include "mad.h"
#include "n3d_io.h"
#include "scene_fixture.h"

namespace {

constexpr uint16_t SPECIAL_COLOR = 0xFC00;  // opaque red: the special node's direct-colour texel

// A square of side 2 about the origin in the z = 0 plane, both windings, with every attribute
// the lit pass reads.
struct square_vertices {
    float xyz[12 * 3], uv[12 * 2], n[12 * 3], t[12 * 3], b[12 * 3];
    square_vertices()
    {
        const float corners[6][2] = {{-1, -1}, {1, -1}, {1, 1}, {-1, -1}, {1, 1}, {-1, 1}};
        for (uint32_t v = 0; v < 12; v++) {
            const float x = corners[v < 6 ? v : 11 - v][0], y = corners[v < 6 ? v : 11 - v][1];  // then backwards
            const float vertex[4][3] = {{x, y, 0}, {0, 0, 1}, {1, 0, 0}, {0, 1, 0}};  // position, n, t, b
            for (uint32_t k = 0; k < 3; k++) {
                xyz[v * 3 + k] = vertex[0][k];
                n[v * 3 + k] = vertex[1][k];
                t[v * 3 + k] = vertex[2][k];
                b[v * 3 + k] = vertex[3][k];
            }
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
    mad_primitive primitives[3] = {{square.vertices(), &materials[0]}, {square.vertices(), &materials[1]},
                                   {square.vertices(), &materials[2]}};  // lit, special, unused: no node draws mesh 2
    mad_mesh meshes[3] = {{1, &primitives[0]}, {1, &primitives[1]}, {1, &primitives[2]}};
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
        const char* names[5] = {"root", "lit", "special", "cam", "optional"};
        mad_mesh* node_meshes[5] = {nullptr, &meshes[0], &meshes[1], nullptr, &meshes[0]};
        for (uint32_t i = 0; i < 5; i++)
            nodes[i] = {(char*)names[i], node_meshes[i], nullptr, nullptr, {1, 1, 1},
                        {0, 0, 0, 1},    {0, 0, 0},      0,       nullptr, nullptr};
        nodes[0].child_count = 1;
        nodes[0].children = root_children;
        nodes[1].parent = &nodes[0];
        nodes[3].camera = &cameras[0];
        nodes[3].translation[2] = 5;
        pack = {5, nodes, 3, meshes, 0, nullptr, 1, cameras, 2, animations, 3, images, 3, materials};
    }
};

struct madpack_fixture : scene_fixture {
    test_pack data;
    uint16_t palette[256];
    uint16_t file_shades[256 * 32] = {};
    std::vector<n3d_texture*> textures;
    std::vector<std::string> names = std::vector<std::string>(32);  // reserved: the cache keeps pointers to them

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
        add(REEL_KIND_MADPACK, "scene", &data.pack);
        add_texture("wood.tmap", N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555);
        add_texture("flat.tmap", N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555);
        add_texture("unused.tmap", N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555);
    }

    // Index 7 everywhere, read through the file's own palette and shade table, or the special colour.
    void add_texture(const char* name, N3D_TEXEL_FORMAT format)
    {
        n3d_texture* t = texture(format, 8, 8, 0);
        if (format == N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555) {
            memset(t->mips[0], 7, 256 * 256);
            t->palette = palette;
            t->shade_table = file_shades;
        } else
            std::fill((uint16_t*)t->mips[0], (uint16_t*)t->mips[0] + 256 * 256, SPECIAL_COLOR);
        names[textures.size()] = name;
        textures.push_back(t);
        add(REEL_KIND_TEXTURE, names[textures.size() - 1].c_str(), t);
    }

    scene_video_madpack_state* state() { return reel_scene_state<scene_video_madpack_state>(&scene); }
    const uint16_t* video() { return (const uint16_t*)ctx.video->framebuffer->pixels; }

    void start(const char* args) { load("video_madpack", args), pass(REEL_PASS_UPDATE, 0.0f); }
    void update(float seconds)  // and keeps the keys as the engine frame does after each pass
    {
        pass(REEL_PASS_UPDATE, seconds);
        memcpy(engine.previous_keys, keys, sizeof(keys));
    }
};

const char *const ARGS = "scene,0,1,move,cam,special,optional,0", *const ARGS_TWO =
                                                                      "scene,0.5,2,move,cam,special,optional,extra";

TEST_F(madpack_fixture, parser_fills_the_node_and_animation_tables_and_the_texture_table_in_node_order)
{
    load("video_madpack", ARGS_TWO);
    const reel_madfx& fx = state()->madfx;  // special, camera, optional
    EXPECT_EQ(std::vector<uint32_t>(fx.node_index_lut, fx.node_index_lut + fx.node_lut_count),
              (std::vector<uint32_t>{2, 3, 4}));
    EXPECT_EQ(std::vector<uint32_t>(fx.animation_index_lut, fx.animation_index_lut + fx.animation_lut_count),
              (std::vector<uint32_t>{0, 1}));
    // node 1 draws wood, node 2 flat, node 4 wood again; mesh 2 belongs to no node: the cache hands
    // out the same record again, an image keeps the last slot, an image no node draws is not touched
    EXPECT_EQ(std::vector<n3d_texture*>(state()->textures, state()->textures + state()->texture_count),
              (std::vector<n3d_texture*>{textures[0], textures[1], textures[0]}));
    EXPECT_TRUE(data.images[0].texture_index == 2 && data.images[1].texture_index == 1 && data.images[2].texture_index == 9);
}

TEST_F(madpack_fixture, names_not_found_and_a_camera_node_without_a_camera_are_fatal_at_parse)
{
    const struct { const char* args; const char* message; } cases[] = {
        {"scene,0,1,move,nocam,special,optional,0",
         "failed find node \"nocam\"\n(.|\n)*reel_madfx_validate(.|\n)*node_index_lut\\[1\\] is null!\n"},
        {"scene,0,1,walk,cam,special,optional,0", "failed find animation \"walk\"\n(.|\n)*animation_index_lut\\[0\\]"},
        {"scene,0,1,move,cam,special,optional,Extra", "animation_index_lut\\[1\\] is null!\n"},
        {"scene,0,1,move,lit,special,optional,0",
         "scene_video_madpack_parse_args(.|\n)*node\\[1\\] with name lit is not a camera\\?\n"},
    };
    for (const auto& c : cases)
        EXPECT_FATAL_OUT(load("video_madpack", c.args), c.message) << c.args;
}

TEST(madpack_light, moves_on_its_path_at_known_times)
{
    // u = seconds / 5: (5 sin(pi u), 5 cos(pi u), 2 cos(0.6 pi u) sin(2 pi u)); at u = 1/4
    // 2 cos(0.15 pi) = 1.782013, at u = 3/4 2 cos(0.45 pi) sin(1.5 pi) = -0.312869
    const float cases[][4] = {{0.0f, 0.0f, 5.0f, 0.0f},
                              {1.25f, 3.5355339f, 3.5355339f, 1.7820130f},
                              {2.5f, 5.0f, 0.0f, 0.0f},
                              {3.75f, 3.5355339f, -3.5355339f, -0.3128690f},
                              {5.0f, 0.0f, -5.0f, 0.0f}};
    for (const auto& c : cases) {
        vec3 light;
        reel_madpack_light_position(light, c[0]);
        for (int k = 0; k < 3; k++)
            EXPECT_NEAR(light[k], c[1 + k], 2e-5f) << c[0] << " " << k;
    }
}

TEST_F(madpack_fixture, first_update_sets_up_the_fly_camera_and_key_2_toggles_it_keeping_its_pose)
{
    reel_madpack_fly_camera = {{1, 2, 3}, 1, 1, 1, 1};
    start(ARGS);  // the set-up call, then the first frame
    const fly_camera& f = reel_madpack_fly_camera;
    EXPECT_TRUE(f.position[0] == 0 && f.position[1] == 0 && f.position[2] == 0 && f.yaw == 0.0f && f.pitch == 0.0f &&
                f.mouse_sensitivity == 0.025f && f.speed == 2.0f);
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

TEST_F(madpack_fixture, special_node_is_drawn_last_at_a_fifth_of_its_size_where_nothing_else_covers)
{
    ASSERT_EQ(ctx.video->framebuffer->row_bytes, 1024);
    auto specials = [&] { return std::count(video(), video() + 240 * 512, SPECIAL_COLOR); };
    // The camera is 5 units from the special square: its corners (+-0.2 after scaling) land
    // 0.2 x 1.8106601 / 5 x 160 = 11.59 pixels (and 0.2 x 2.4142137 / 5 x 120 = 11.59 rows) from
    // the centre, which the projection puts at (160.5, 120.5): columns 148.91 to 172.09 and rows
    // 108.91 to 132.09, so pixels 149 to 172 and rows 109 to 132.
    start(ARGS);
    update(1.0f);  // "move" has taken the lit square to x = 4: off screen
    for (int y = 0; y < 240; y++)
        for (int x = 0; x < 320; x++)
            ASSERT_EQ(video()[y * 512 + x] == SPECIAL_COLOR, x >= 149 && x <= 172 && y >= 109 && y <= 132)
                << x << "," << y;

    n3d_framebuffer_clear(ctx.video->framebuffer);
    update(0.0f);  // the lit square, drawn first, covers the centre: the special node draws nothing
    EXPECT_TRUE(specials() == 0 && video()[120 * 512 + 160] != 0x8000);

    // the optional node is drawn only with a second animation: ARGS_TWO at 0.25 s is t = speed x
    // seconds + offset = 1, the lit square is off screen, and "extra" holds the optional square
    // 4 units in front of the camera, over the centre
    start(ARGS_TWO);
    n3d_framebuffer_clear(ctx.video->framebuffer);
    update(0.25f);
    EXPECT_EQ(specials(), 0);

    // lit textures read one cached shade table per texture: the lit and the optional square share
    // wood; every texel is index 7, so the optional square at the centre shows one of its 32 shades
    n3d_framebuffer_clear(ctx.video->framebuffer);
    update(0.0f);
    ASSERT_EQ(engine.shade_table_count, 1u);
    EXPECT_TRUE(engine.shade_tables[0].texture == textures[0] && textures[0]->shade_table == engine.shade_tables[0].table);
    EXPECT_EQ(textures[1]->shade_table, nullptr) << "the direct-colour texture has none";
    const uint16_t* row7 = engine.shade_tables[0].table + 7 * 32;
    EXPECT_TRUE(row7[0] != 0 && std::find(row7, row7 + 32, video()[120 * 512 + 160]) != row7 + 32);
    EXPECT_EQ(std::count(file_shades, file_shades + 256 * 32, 0), 256 * 32) << "the file's own table is left as it was";
}

TEST_F(madpack_fixture, ten_distinct_textures_fit_the_cache_an_eleventh_is_fatal)
{
    mad_image images[11];
    mad_material materials[11];
    mad_primitive primitives[11];
    char image_names[11][8];
    for (uint32_t i = 0; i < 11; i++) {
        snprintf(image_names[i], sizeof(image_names[i]), "t%u", i);
        add_texture((std::string(image_names[i]) + ".tmap").c_str(), N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555);
        images[i] = {image_names[i], 0};
        materials[i] = {&images[i], {1, 1, 1, 1}};
        primitives[i] = {data.square.vertices(), &materials[i]};
    }
    data.meshes[0] = {10, primitives};
    start(ARGS);
    EXPECT_EQ(engine.shade_table_count, 10u);
    data.meshes[0].primitive_count = 11;
    engine.shade_table_count = 0;
    EXPECT_DEATH(start(ARGS), "scene_video_madpack(.|\n)*exhausted REEL_SHADE_TABLE_CACHE_MAX \\(10\\)\n");
}

// Messages anchored at both ends are printed on standard output alone by the first pass's checks.
TEST_F(madpack_fixture, missing_or_wrong_textures_end_the_process_with_their_message)
{
    const struct { const char* what; void (*spoil_it)(madpack_fixture*); const char* message;
    } cases[] = {
        {"no image", [](madpack_fixture* f) { f->data.materials[0].base_color_image = nullptr; },
         "^mesh has no base_color_image\\?\n$"},
        {"no texture", [](madpack_fixture* f) { f->data.images[0].texture_index = 99; }, "^failed get texture!\n$"},
        {"index8 expected",
         [](madpack_fixture* f) { f->textures[0]->format = N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555; },
         "^wrong format for texture \"wood\" is 2 but expected 1\n$"},
        // the special node's primitive without a material reads slot 0, which must be direct colour
        {"slot 0 stands in", [](madpack_fixture* f) { f->data.primitives[1].material = nullptr; },
         "scene_video_madpack(.|\n)*wrong format for texture \"wood\" is 1 but expected 2\n"},
        {"near camera", [](madpack_fixture* f) { f->data.cameras[0].yfov = 0.7f, f->data.cameras[0].znear = 0.1f; },
         "near_plane must be >= N3D_ZBUFFER_MIN_NEAR_PLANE but is 0.10"},
        {"no argument text",  // bound by a description: what it can bind, but no node tables
         [](madpack_fixture* f) {
             f->load("video_madpack", nullptr, 9, [f] { f->scene.madpack_count = 1, f->scene.float_count = 2; });
         },
         "needs its argument text"},
    };
    for (const auto& c : cases)
        EXPECT_FATAL_OUT((load("video_madpack", ARGS), c.spoil_it(this), pass(REEL_PASS_UPDATE, 0.0f)), c.message)
            << c.what;
}

}  // namespace
