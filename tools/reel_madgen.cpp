// The animated 3D example scenes, authored in code as glTF 2.0 models that the importer turns
// into the show's datapacks and palette textures like any other glTF.
//
// totem (the default): a checkered island, a striped totem skinned to two bones that spin,
// bounce and sway it, a crate circling it, a moon that a second animation brings in, and an
// animated camera that swings round the totem over 12 s. A sky sphere with a direct-colour
// texture is its special node (drawn behind everything at a fifth of its size); the special node
// needs that texture as direct colour, so it is written here too, under the name the import
// gives it, for a later pack.
//
// machine: a clockwork on a ring-topped dais over a pit: a large brass gear meshing with four
// small ones, two more gears stacked on the axle, four pistons and a ring of eight lamps
// hovering round it, all moving on the beats of a 120 bpm bar (a beat every 0.5 s): the gears
// snap forward a tooth or two at once, the pistons strike in a pattern of the bar, the lamps
// flash round the ring. The camera circles it once in 16 s (eight bars), swooping in lower twice; a second
// animation brings in a crystal (the optional node) that shoots up out of the axle, spins on
// the beats and sinks back at the end. Both animations end where they began, so a scene
// restarted every 16 s plays on without a seam. Its sky is no mesh: a panorama picture for a
// scrolling background behind the scene (which costs a copy of the pixels the machine leaves
// free, where a sky sphere would be drawn over the whole screen in every pass); the camera is
// the special node, which has no mesh.
//
//   reel_madgen [--model totem|machine] OUTDIR   (the folder is created)
// writes OUTDIR/<model file>.gltf, its .bin and the PNG images the model names; for the totem
// (model file "madpack") also OUTDIR/madpack_sky.tmap (ARGB1555, swizzled), for the machine
// OUTDIR/machine_sky.png, its MACHINE_SKY_WIDTH x 256 panorama.
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "gltf_author.h"
#include "tool.h"

namespace {

using json = nlohmann::json;

constexpr float MADGEN_PI = GLTF_AUTHOR_PI;

// ---- the totem ----

constexpr float TOTEM_SECONDS = 12.0f;  // the animations' length
constexpr float TOTEM_KEY_STEP = 0.25f;
constexpr uint32_t TOTEM_KEYS = (uint32_t)(TOTEM_SECONDS / TOTEM_KEY_STEP) + 1;
constexpr float MADGEN_SKY_RADIUS = 100.0f;  // drawn at a fifth: 20 units round the model
constexpr float TOTEM_ISLAND_RADIUS = 4.6f;    // the crate circles at 3.2
constexpr uint32_t TOTEM_ISLAND_SIDES = 16;

// A closed regular polygon of `count` corners (x, z), counter-clockwise from above.
std::vector<float> madgen_circle(uint32_t count, float radius)
{
    std::vector<float> outline;
    for (uint32_t i = 0; i < count; i++) {
        const float a = 2.0f * MADGEN_PI * (float)i / (float)count;
        outline.insert(outline.end(), {radius * cosf(a), -radius * sinf(a)});
    }
    return outline;
}

// The totem: a cylinder from y = 0 to `height`, skinned to joint 0 (the base) and joint 1 (at
// half height), the upper joint's weight rising from a quarter to three quarters of the height.
void madgen_totem_mesh(gltf_author_mesh* m, float radius, float height, uint32_t rings, uint32_t sides)
{
    gltf_author_tube(m, radius, 0.0f, height, rings, sides);
    for (size_t i = 0; i < gltf_author_vertex_count(m); i++) {
        const float y = m->position[i * 3 + 1] / height;
        const float top = y < 0.25f ? 0.0f : y > 0.75f ? 1.0f : (y - 0.25f) * 2.0f;
        m->joints.insert(m->joints.end(), {0, 1, 0, 0});
        m->weights.insert(m->weights.end(), {1.0f - top, top, 0.0f, 0.0f});
    }
}

void madgen_paint_ground(uint8_t* p, float u, float v)
{
    const bool dark = ((int)(u * 4) ^ (int)(v * 4)) & 1;
    p[0] = dark ? 40 : 120, p[1] = dark ? 110 : 190, p[2] = dark ? 60 : 90;
}

void madgen_paint_totem(uint8_t* p, float u, float v)
{
    const int band = (int)(v * 6);
    const uint8_t colours[6][3] = {{230, 60, 40}, {250, 200, 50}, {60, 170, 230}, {240, 240, 230}, {150, 70, 200},
                                   {40, 200, 120}};
    const float zig = 0.5f + 0.5f * sinf(u * 8.0f * MADGEN_PI);  // a zigzag where bands meet
    const int b = (v * 6 - (float)band) < 0.15f * zig ? (band + 5) % 6 : band;
    memcpy(p, colours[b], 3);
}

void madgen_paint_crate(uint8_t* p, float u, float v)
{
    const bool edge = u < 0.1f || u > 0.9f || v < 0.1f || v > 0.9f || fabsf(u - v) < 0.07f;
    const float grain = 0.85f + 0.15f * sinf(v * 40.0f + 3.0f * sinf(u * 6.0f));
    p[0] = (uint8_t)((edge ? 120 : 200) * grain), p[1] = (uint8_t)((edge ? 70 : 140) * grain),
    p[2] = (uint8_t)((edge ? 30 : 70) * grain);
}

void madgen_paint_moon(uint8_t* p, float u, float v)
{
    const float crater = sinf(u * 23.0f) * sinf(v * 17.0f) + 0.5f * sinf(u * 51.0f + v * 7.0f);
    const uint8_t g = (uint8_t)(200 + 40 * (crater > 0.6f ? -1.0f : crater * 0.3f));
    p[0] = g, p[1] = g, p[2] = (uint8_t)(g * 0.9f);
}

// The sky from inside: v runs from the zenith (0) to the nadir (1); a warm glow near the
// horizon on one side, where the sun sets.
void madgen_paint_sky(uint8_t* p, float u, float v)
{
    const float height = 1.0f - 2.0f * v;  // 1 up, -1 down
    const float glow = expf(-20.0f * height * height) * (0.6f + 0.4f * cosf(2.0f * MADGEN_PI * u));
    const float up = height > 0 ? height : 0.0f;
    p[0] = (uint8_t)fminf(255.0f, 30 + 40 * (1 - up) + 200 * glow);
    p[1] = (uint8_t)fminf(255.0f, 40 + 60 * (1 - up) + 110 * glow);
    p[2] = (uint8_t)fminf(255.0f, 110 + 90 * up + 20 * glow);
}

// One painted picture per material, written as name.png; the special node's also as a
// direct-colour texture under the name the import gives it.
struct madgen_picture {
    const char* name;
    uint32_t side;
    gltf_author_paint_fn* paint;
};

void madgen_write_pictures(const char* dir, const char* model_name, const madgen_picture* pictures, uint32_t count,
                           const char* special)
{
    static uint8_t block[16u << 20], tmp_block[16u << 20];
    xmemarena arena, tmp_arena;
    xmemarena_init(&arena, "reel_madgen", sizeof(block), block);
    xmemarena_init(&tmp_arena, "reel_madgen_tmp", sizeof(tmp_block), tmp_block);
    for (uint32_t i = 0; i < count; i++) {
        bitmap* bm = gltf_author_image(&arena, pictures[i].side, pictures[i].paint);
        tool_save_png(bm, gltf_author_path(dir, std::string(pictures[i].name) + ".png").c_str(), &arena);
        if (special && strcmp(pictures[i].name, special) == 0)
            gltf_author_write_direct_texture(
                bm, gltf_author_path(dir, std::string(model_name) + "_" + special + ".tmap").c_str(), &arena,
                &tmp_arena);
    }
}

// The perspective camera both models' camera nodes carry.
void madgen_add_camera(gltf_author_model* m)
{
    m->gltf["cameras"] = {
        {{"type", "perspective"}, {"perspective", {{"yfov", 0.8}, {"znear", 0.5}, {"aspectRatio", 4.0 / 3.0}}}}};
}

// The rotation that turns a camera (looking down -z) at `position` towards `target`.
void madgen_look_at(float* q, const float* position, const float* target)
{
    const float dx = target[0] - position[0], dy = target[1] - position[1], dz = target[2] - position[2];
    float yaw[4], pitch[4];
    gltf_author_quat_axis(yaw, 0, 1, 0, atan2f(-dx, -dz));
    gltf_author_quat_axis(pitch, 1, 0, 0, atan2f(dy, sqrtf(dx * dx + dz * dz)));
    gltf_author_quat_mul(q, yaw, pitch);
}

void madgen_totem(const char* dir)
{
    gltf_author_model m;
    gltf_author_begin(&m, "reel_madgen");

    // meshes
    // Every triangle costs its set-up and every pixel its shading in each update pass: the ground
    // is a round island, a few units across, rather than a plain to the horizon (behind it the
    // show scrolls a landscape, the example has the sky), and the totem has as few sides and rings
    // as still read round and bend smoothly.
    gltf_author_mesh ground, totem, crate, moon, sky;
    const std::vector<float> island = madgen_circle(TOTEM_ISLAND_SIDES, TOTEM_ISLAND_RADIUS);
    gltf_author_cap(&ground, island.data(), TOTEM_ISLAND_SIDES, 0.0f, true, TOTEM_ISLAND_RADIUS);
    for (float& uv : ground.uv)  // a check a unit wide, as on the plain it was
        uv *= TOTEM_ISLAND_RADIUS * 2.0f / 4.0f;
    madgen_totem_mesh(&totem, 0.5f, 3.0f, 4, 10);
    gltf_author_cube(&crate, 0.9f);
    gltf_author_sphere(&moon, 0.45f, 5, 8, false);
    gltf_author_sphere(&sky, MADGEN_SKY_RADIUS, 12, 24, true);
    const madgen_picture pictures[5] = {{"ground", 128, madgen_paint_ground},
                                        {"totem", 128, madgen_paint_totem},
                                        {"crate", 64, madgen_paint_crate},
                                        {"moon", 64, madgen_paint_moon},
                                        {"sky", 128, madgen_paint_sky}};
    const gltf_author_mesh* meshes[5] = {&ground, &totem, &crate, &moon, &sky};
    uint32_t mesh_index[5];
    uint32_t triangles = 0;
    for (uint32_t i = 0; i < 5; i++) {
        mesh_index[i] = gltf_author_add_mesh(&m, pictures[i].name, meshes[i], gltf_author_add_material(&m, pictures[i].name));
        triangles += gltf_author_triangles(meshes[i]);
    }

    // nodes: the totem's mesh hangs under its base bone, so that the bones carry it here too,
    // where a skinned mesh is drawn in its bind pose
    const uint32_t ground_node = gltf_author_add_node(&m, {{"name", "ground"}, {"mesh", mesh_index[0]}});
    const uint32_t top_bone = gltf_author_add_node(&m, {{"name", "bone_top"}, {"translation", {0.0, 1.5, 0.0}}});
    const uint32_t totem_node = gltf_author_add_node(&m, {{"name", "totem"}, {"mesh", mesh_index[1]}, {"skin", 0}});
    const uint32_t base_bone = gltf_author_add_node(&m, {{"name", "bone_base"}, {"children", {top_bone, totem_node}}});
    const uint32_t crate_node = gltf_author_add_node(&m, {{"name", "crate"}, {"mesh", mesh_index[2]}});
    const uint32_t moon_node =
        gltf_author_add_node(&m, {{"name", "moon"}, {"mesh", mesh_index[3]}, {"translation", {0.0, 4.5, 0.0}}});
    const uint32_t sky_node = gltf_author_add_node(&m, {{"name", "sky"}, {"mesh", mesh_index[4]}});
    const uint32_t camera_node = gltf_author_add_node(&m, {{"name", "camera"}, {"camera", 0}});
    m.gltf["scenes"] = {{{"nodes", {ground_node, base_bone, crate_node, moon_node, sky_node, camera_node}}}};
    madgen_add_camera(&m);
    // inverse bind matrices: the base bone at the origin, the top one 1.5 up
    const std::vector<float> inverse_binds = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1,
                                              1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, -1.5f, 0, 1};
    m.gltf["skins"] = {{{"name", "totem_skin"},
                        {"joints", {base_bone, top_bone}},
                        {"inverseBindMatrices", gltf_author_accessor(&m, inverse_binds, "MAT4", 16)}}};

    // animations
    const uint32_t times = gltf_author_key_times(&m, TOTEM_KEYS, TOTEM_KEY_STEP);
    gltf_author_animation main_animation = {&m, {{"name", "main"}}, times, TOTEM_KEYS, TOTEM_KEY_STEP};
    // the camera swings +-0.7 rad round the totem, 9 out and 3.2 up, looking down at its middle
    gltf_author_channel(&main_animation, camera_node, "translation", 3, [](float t, float* v) {
        const float a = 0.7f * sinf(2.0f * MADGEN_PI * t / TOTEM_SECONDS);
        v[0] = 9.0f * sinf(a), v[1] = 3.2f, v[2] = 9.0f * cosf(a);
    });
    gltf_author_channel(&main_animation, camera_node, "rotation", 4, [](float t, float* v) {
        const float a = 0.7f * sinf(2.0f * MADGEN_PI * t / TOTEM_SECONDS);
        float yaw[4], pitch[4];
        gltf_author_quat_axis(yaw, 0, 1, 0, a);
        gltf_author_quat_axis(pitch, 1, 0, 0, -atanf(1.7f / 9.0f));
        gltf_author_quat_mul(v, yaw, pitch);
    });
    gltf_author_channel(&main_animation, base_bone, "rotation", 4,
                        [](float t, float* v) { gltf_author_quat_axis(v, 0, 1, 0, 0.8f * MADGEN_PI * t); });
    gltf_author_channel(&main_animation, base_bone, "translation", 3, [](float t, float* v) {
        v[0] = 0.0f, v[1] = 0.4f * fabsf(sinf(1.5f * MADGEN_PI * t)), v[2] = 0.0f;
    });
    gltf_author_channel(&main_animation, top_bone, "rotation", 4, [](float t, float* v) {
        gltf_author_quat_axis(v, 0, 0, 1, 0.4f * sinf(2.0f * MADGEN_PI * t));
    });
    gltf_author_channel(&main_animation, crate_node, "translation", 3, [](float t, float* v) {
        const float a = 2.0f * MADGEN_PI * t / 6.0f;
        v[0] = 3.2f * cosf(a), v[1] = 0.6f + 0.3f * sinf(3.0f * a), v[2] = 3.2f * sinf(a);
    });
    gltf_author_channel(&main_animation, crate_node, "rotation", 4,
                        [](float t, float* v) { gltf_author_quat_axis(v, 0.6f, 0.8f, 0.0f, 1.3f * MADGEN_PI * t); });
    // the second animation brings the moon in, growing from nothing, and circles it over the totem
    gltf_author_animation extra = {&m, {{"name", "extra"}}, times, TOTEM_KEYS, TOTEM_KEY_STEP};
    gltf_author_channel(&extra, moon_node, "scale", 3,
                        [](float t, float* v) { v[0] = v[1] = v[2] = fminf(1.0f, t / 2.0f); });
    gltf_author_channel(&extra, moon_node, "translation", 3, [](float t, float* v) {
        v[0] = 1.5f * sinf(MADGEN_PI * t / 3.0f), v[1] = 4.3f, v[2] = 1.5f * cosf(MADGEN_PI * t / 3.0f);
    });
    m.gltf["animations"] = {main_animation.animation, extra.animation};

    madgen_write_pictures(dir, "madpack", pictures, 5, "sky");
    gltf_author_write(&m, dir, "madpack");
    printf("reel_madgen: wrote %s/madpack.gltf (%u triangles, %u keys per channel) and its images\n", dir, triangles,
           TOTEM_KEYS);
}

// ---- the machine ----

constexpr float MACHINE_SECONDS = 16.0f;  // eight bars of 120 bpm
constexpr float MACHINE_BEAT = 0.5f;
constexpr float MACHINE_KEY_STEP = 0.0625f;  // eight keys a beat: a strike rises within one key
constexpr uint32_t MACHINE_KEYS = (uint32_t)(MACHINE_SECONDS / MACHINE_KEY_STEP) + 1;
// The gears: teeth of one pitch (arc length on the pitch circle) so that any two mesh.
// Few, chunky teeth: every triangle costs the renderer its set-up, and a gear's wall is made of
// small ones (two per corner of the outline).
constexpr float MACHINE_PITCH = 1.0472f;  // 2 pi x 2.0 / 12
constexpr float MACHINE_TOOTH = 0.29f;    // from the pitch circle to the tip, and to the root
constexpr uint32_t MACHINE_BIG_TEETH = 12, MACHINE_SMALL_TEETH = 6, MACHINE_UPPER_TEETH = 8, MACHINE_TOP_TEETH = 6;
constexpr uint32_t MACHINE_SATELLITES = 4, MACHINE_PISTONS = 4, MACHINE_LAMPS = 8;
constexpr float MACHINE_GEAR_Y = 0.55f;  // just above the dais: no posts needed under the small gears
constexpr float MACHINE_DAIS_TOP = 0.35f;
constexpr float MACHINE_AXLE_TOP = 4.0f;
constexpr float MACHINE_PISTON_RADIUS = 3.4f;  // on the diagonals between the small gears
constexpr float MACHINE_LAMP_RADIUS = 4.8f;  // hovering round the dais, past its edge
// The dais: a drum whose top carries the gears and whose side drops into the pit below; its top
// is a ring, as the large gear covers its middle.
constexpr float MACHINE_DAIS_RADIUS = 4.1f, MACHINE_DAIS_HOLE = 3.2f, MACHINE_DAIS_BOTTOM = -0.15f;
// The sky panorama: as wide as a background texture may be for the camera's turn, 256 rows (the
// video plane's 240 and room to place them). The scene's row scrolls it by MACHINE_SKY_PERIOD
// pixels in the 16 s of a turn, leftwards as the camera turns left, so it repeats every
// MACHINE_SKY_PERIOD columns (the last 320 columns are the first ones again) and a row restarted
// at its start shows the same sky. 1728 pixels a turn is about the video plane's 284 pixels a
// radian at the centre of a 0.8 rad field of view (1784 a turn): the sky turns with the machine.
constexpr uint32_t MACHINE_SKY_WIDTH = 2048, MACHINE_SKY_HEIGHT = 256;
constexpr uint32_t MACHINE_SKY_PERIOD = MACHINE_SKY_WIDTH - 320;

// The picture atlas "parts": brass, steel, hazard stripes and glow in its four quarters, so
// that the whole machine takes one palette texture (the scene keeps ten shade tables for the
// whole show). Each part's texture coordinates are moved into its quarter, inset by a margin.
enum machine_surface { MACHINE_BRASS, MACHINE_STEEL, MACHINE_HAZARD, MACHINE_LAMP_GLOW, MACHINE_CORE_GLOW };

void machine_finish(gltf_author_mesh* m, size_t first_vertex, machine_surface finish)
{
    // the glow quarter holds two halves: amber for the lamps, cyan for the crystal
    const float rects[5][4] = {{0.02f, 0.02f, 0.46f, 0.46f},
                               {0.52f, 0.02f, 0.46f, 0.46f},
                               {0.02f, 0.52f, 0.46f, 0.46f},
                               {0.52f, 0.52f, 0.21f, 0.46f},
                               {0.77f, 0.52f, 0.21f, 0.46f}};
    const float* r = rects[finish];
    gltf_author_uv_rect(m, first_vertex, r[0], r[1], r[2], r[3]);
}

// A prism of a regular polygon at (x, z), from y0 to y1, in one finish, with the caps one sees.
void machine_post(gltf_author_mesh* m, uint32_t sides, float radius, float x, float z, float y0, float y1,
                  machine_surface finish, uint32_t caps)
{
    const size_t first = gltf_author_vertex_count(m);
    const std::vector<float> outline = madgen_circle(sides, radius);
    gltf_author_prism(m, outline.data(), sides, y0, y1, radius, caps);
    gltf_author_translate(m, first, x, 0.0f, z);
    machine_finish(m, first, finish);
}

// The dais: its top, a flat ring from MACHINE_DAIS_HOLE out (four plates across it, eight round),
// and its side wall, eight plates round.
void machine_dais(gltf_author_mesh* m, uint32_t sides)
{
    const vec3 up = {0, 1, 0};
    gltf_author_revolve(m, 1, sides, false, [&](vec3 p, vec3 n, vec3 t, uint32_t ring, uint32_t side) {
        const float a = 2.0f * MADGEN_PI * (float)side / (float)sides;
        const float r = ring ? MACHINE_DAIS_RADIUS : MACHINE_DAIS_HOLE;
        vec3_set(p, r * cosf(a), MACHINE_DAIS_TOP, -r * sinf(a));
        vec3_dup(n, up);
        vec3_set(t, -sinf(a), 0.0f, -cosf(a));
    });
    const size_t first_wall = gltf_author_vertex_count(m);
    const std::vector<float> outline = madgen_circle(sides, MACHINE_DAIS_RADIUS);
    gltf_author_prism(m, outline.data(), sides, MACHINE_DAIS_BOTTOM, MACHINE_DAIS_TOP, MACHINE_DAIS_RADIUS, 0);
    for (size_t i = 0; i < gltf_author_vertex_count(m); i++)
        m->uv[2 * i] *= i < first_wall ? 4.0f : 8.0f;
}

// A gear of `teeth` about its own origin, centred on y = 0, with the pitch of every gear here:
// its top face and, unless GLTF_AUTHOR_NO_WALL, a wall round its roots (a polygon of a side per
// tooth) for its thickness: from the camera's distance the teeth's own sides would be slivers of
// a pixel or two, each costing a triangle's set-up.
void machine_gear(gltf_author_mesh* m, uint32_t teeth, float thickness, uint32_t caps)
{
    const float pitch_radius = MACHINE_PITCH * (float)teeth / (2.0f * MADGEN_PI);
    gltf_author_gear(m, teeth, pitch_radius - MACHINE_TOOTH, pitch_radius + MACHINE_TOOTH, -0.5f * thickness,
                     0.5f * thickness, caps | GLTF_AUTHOR_NO_WALL);
    if (!(caps & GLTF_AUTHOR_NO_WALL)) {
        const std::vector<float> roots = madgen_circle(teeth, pitch_radius - MACHINE_TOOTH);
        gltf_author_prism(m, roots.data(), teeth, -0.5f * thickness, 0.5f * thickness, pitch_radius, 0);
    }
    machine_finish(m, 0, MACHINE_BRASS);
}

// A cut gem round y about its own origin: two pyramids of `sides` faces on one polygon, the
// points `height` above and below it, flat-shaded.
void machine_gem(gltf_author_mesh* m, uint32_t sides, float radius, float height)
{
    for (uint32_t i = 0; i < sides; i++)
        for (float sign : {1.0f, -1.0f}) {
            const float a0 = 2.0f * MADGEN_PI * (float)i / (float)sides;
            const float a1 = 2.0f * MADGEN_PI * (float)(i + 1) / (float)sides;
            const vec3 tip = {0.0f, sign * height, 0.0f};
            const vec3 p0 = {radius * sinf(a0), 0.0f, radius * cosf(a0)};
            const vec3 p1 = {radius * sinf(a1), 0.0f, radius * cosf(a1)};
            vec3 e0, e1, n, t;
            vec3_sub(e0, p1, p0), vec3_sub(e1, tip, p0);
            vec3_mul_cross(n, e0, e1);
            vec3_scale(n, n, sign / vec3_len(n));  // outward, up for the upper pyramid
            vec3_norm(t, e0);
            const float u0 = (float)i / (float)sides, u1 = (float)(i + 1) / (float)sides;
            // counter-clockwise seen from outside: p0, p1, tip above; p1, p0, tip below
            gltf_author_vertex(m, sign > 0 ? p0 : p1, n, t, sign > 0 ? u0 : u1, 0.5f);
            gltf_author_vertex(m, sign > 0 ? p1 : p0, n, t, sign > 0 ? u1 : u0, 0.5f);
            gltf_author_vertex(m, tip, n, t, 0.5f * (u0 + u1), sign > 0 ? 0.0f : 1.0f);
        }
}

// Where a small gear sits: direction theta from the axle (angle a: x = cos a, z = -sin a).
float machine_satellite_theta(uint32_t i) { return 2.0f * MADGEN_PI * (float)i / (float)MACHINE_SATELLITES; }

// 0 at a beat, up to 1 within the first key, back down to 0 by the next beat: a strike.
float machine_hit(float beat_fraction)
{
    const float rise = MACHINE_KEY_STEP / MACHINE_BEAT;
    if (beat_fraction < rise)
        return beat_fraction / rise;
    const float fall = 1.0f - (beat_fraction - rise) / (1.0f - rise);
    return fall * fall;
}

// A step taken at once, in the first 0.3 of a beat, then held: 0 to 1.
float machine_snap(float beat_fraction)
{
    const float f = fminf(1.0f, beat_fraction / 0.3f);
    return 1.0f - (1.0f - f) * (1.0f - f) * (1.0f - f);
}

// The beat (0, 1, ...) and how far into it t is.
float machine_beat(float t, uint32_t* beat)
{
    const float beats = t / MACHINE_BEAT;
    *beat = (uint32_t)beats;
    return beats - (float)*beat;
}

// The large gear's turn at t: two teeth a beat, 64 teeth (five and a third turns) in the 16 s.
float machine_big_angle(float t)
{
    uint32_t beat;
    const float f = machine_beat(t, &beat);
    return 2.0f * ((float)beat + machine_snap(f)) * 2.0f * MADGEN_PI / (float)MACHINE_BIG_TEETH;
}

// A small gear turns the other way, as many teeth; its start puts a gap where the large gear's
// tooth meets it. In pitches at the contact, the large gear's position p and the small one's q
// move oppositely, and a tooth centre (0.325 of a pitch) meets a gap centre (0.825): p + q = 1.15.
float machine_satellite_angle(uint32_t i, float t)
{
    const float big_step = 2.0f * MADGEN_PI / (float)MACHINE_BIG_TEETH;
    const float small_step = 2.0f * MADGEN_PI / (float)MACHINE_SMALL_TEETH;
    const float theta = machine_satellite_theta(i);
    const float start = theta + MADGEN_PI - small_step * (1.15f - theta / big_step);
    return start - machine_big_angle(t) * (float)MACHINE_BIG_TEETH / (float)MACHINE_SMALL_TEETH;
}

// How far the crystal is out: rising over the first two beats, sinking over the last one.
float machine_core_presence(float t)
{
    const float in = fminf(1.0f, t / (2.0f * MACHINE_BEAT));
    const float out = fminf(1.0f, (MACHINE_SECONDS - t) / MACHINE_BEAT);
    const float x = fmaxf(0.0f, fminf(in, out));
    return x * x * (3.0f - 2.0f * x);
}

// The lamps' scale: lamp i flashes on the beats that come round to it (once in two bars), and
// all of them a little on every bar's first beat.
float machine_lamp_scale(uint32_t i, float t)
{
    uint32_t beat;
    const float hit = machine_hit(machine_beat(t, &beat));
    return 1.0f + (beat % MACHINE_LAMPS == i ? 0.9f * hit : 0.0f) + (beat % 4 == 0 ? 0.35f * hit : 0.0f);
}

// The pistons' lift: all four on a bar's first beat, then the opposite pairs in turn (A B A).
float machine_piston_lift(uint32_t i, float t)
{
    uint32_t beat;
    const float hit = machine_hit(machine_beat(t, &beat));
    const uint32_t in_bar = beat % 4;
    const bool strikes = in_bar == 0 || (in_bar == 2 ? i % 2 == 1 : i % 2 == 0);
    return strikes ? 1.1f * hit : 0.0f;
}

// The camera: once round in the 16 s, swooping in from MACHINE_CAMERA_FAR out and 9.6 up to
// MACHINE_CAMERA_NEAR out and 5.6 up at 4 s and 12 s, pushed in a little on every bar's first
// beat, looking at the gears. Far enough that the machine fills the middle of the picture: each
// update pass draws it whole, and a triangle costs the rasterizer a step on every row it crosses.
constexpr float MACHINE_CAMERA_FAR = 24.0f, MACHINE_CAMERA_NEAR = 19.0f;
void machine_camera_position(float t, float* p)
{
    uint32_t beat;
    const float hit = machine_hit(machine_beat(t, &beat));
    const float swoop = sinf(MADGEN_PI * t / 8.0f) * sinf(MADGEN_PI * t / 8.0f);
    const float radius = MACHINE_CAMERA_FAR - (MACHINE_CAMERA_FAR - MACHINE_CAMERA_NEAR) * swoop -
                         (beat % 4 == 0 ? 0.5f * hit : 0.0f);
    const float a = 2.0f * MADGEN_PI * t / MACHINE_SECONDS + 0.3f;
    p[0] = radius * sinf(a), p[1] = 9.6f - 4.0f * swoop, p[2] = radius * cosf(a);
}

void machine_paint_floor(uint8_t* p, float u, float v)
{
    // dark steel plates with seams, rivets in the corners and a raised diamond tread
    const float fu = u * 2.0f - floorf(u * 2.0f), fv = v * 2.0f - floorf(v * 2.0f);
    const bool seam = fu < 0.03f || fv < 0.03f;
    const float cu = fminf(fu, 1.0f - fu), cv = fminf(fv, 1.0f - fv);
    const bool rivet = (cu - 0.09f) * (cu - 0.09f) + (cv - 0.09f) * (cv - 0.09f) < 0.0012f;
    const float du = u * 16.0f - floorf(u * 16.0f) - 0.5f, dv = v * 16.0f - floorf(v * 16.0f) - 0.5f;
    const bool tread = fabsf(du + dv) < 0.12f || fabsf(du - dv) < 0.12f;
    const float g = seam ? 50.0f : rivet ? 230.0f : tread ? 170.0f : 125.0f;
    p[0] = (uint8_t)g, p[1] = (uint8_t)(g * 1.04f), p[2] = (uint8_t)(g * 1.18f);
}

void machine_paint_parts(uint8_t* p, float u, float v)
{
    const int quarter = (u >= 0.5f ? 1 : 0) + (v >= 0.5f ? 2 : 0);
    const float x = u * 2.0f - floorf(u * 2.0f), y = v * 2.0f - floorf(v * 2.0f);  // in the quarter
    const float dx = x - 0.5f, dy = y - 0.5f, r = sqrtf(dx * dx + dy * dy);
    if (quarter == 0) {  // brass: machined rings, a dark hub, bolt holes round it
        const float rings = 0.9f + 0.1f * sinf(r * 70.0f);
        const float a = atan2f(dy, dx);
        const bool hole = fabsf(r - 0.25f) < 0.035f && cosf(6.0f * a) > 0.93f;
        const float k = r < 0.1f ? 0.45f : hole ? 0.3f : rings;
        p[0] = (uint8_t)(255 * k), p[1] = (uint8_t)(205 * k), p[2] = (uint8_t)(80 * k);
    } else if (quarter == 1) {  // steel: blue-grey panels, seams and rivets
        const float px = x * 4.0f - floorf(x * 4.0f), py = y * 2.0f - floorf(y * 2.0f);
        const bool seam = px < 0.05f || py < 0.05f;
        const bool rivet = (px - 0.15f) * (px - 0.15f) + (py - 0.15f) * (py - 0.15f) < 0.004f;
        const float g = seam ? 90.0f : rivet ? 255.0f : 215.0f + 15.0f * sinf(x * 25.0f);
        p[0] = (uint8_t)(g * 0.82f), p[1] = (uint8_t)(g * 0.92f), p[2] = (uint8_t)g;
    } else if (quarter == 2) {  // hazard: yellow and black stripes
        const bool black = (int)floorf((x + y) * 6.0f) % 2 != 0;
        p[0] = black ? 40 : 255, p[1] = black ? 40 : 215, p[2] = black ? 35 : 30;
    } else {  // glow: amber on the left half, cyan on the right, white-hot bands across
        const float band = 0.5f + 0.5f * cosf(y * 6.0f * MADGEN_PI);
        const float hot = band * band * band;
        if (x < 0.5f)
            p[0] = 255, p[1] = (uint8_t)(190 + 65 * hot), p[2] = (uint8_t)(60 + 195 * hot);
        else
            p[0] = (uint8_t)(90 + 165 * hot), p[1] = (uint8_t)(230 + 25 * hot), p[2] = 255;
    }
}

// The machine's sky, all round: a night of smoke over a furnace glow along the horizon (a third
// of the way down, where the camera sees it), the smoke's pattern repeating every
// MACHINE_SKY_PERIOD columns; below, the dark of the pit the dais stands over.
void machine_paint_sky(uint8_t* p, float u, float v)
{
    const float a = 2.0f * MADGEN_PI * u * (float)MACHINE_SKY_WIDTH / (float)MACHINE_SKY_PERIOD;  // the turn
    const float height = 2.0f * (0.36f - v);  // 0 at the horizon, up from it
    const float smoke = 0.5f + 0.5f * sinf(7.0f * a + 4.0f * v) * sinf(3.0f * a - 9.0f * v);
    const float glow = expf(-30.0f * height * height) * (0.6f + 0.4f * smoke);
    const float up = height > 0 ? fminf(1.0f, height) : 0.0f;
    const float pit = height < 0 ? fminf(1.0f, -1.5f * height) : 0.0f;
    p[0] = (uint8_t)fminf(255.0f, (25 + 30 * (1 - up) + 170 * glow) * (1 - 0.6f * pit));
    p[1] = (uint8_t)fminf(255.0f, (12 + 10 * (1 - up) + 70 * glow) * (1 - 0.6f * pit));
    p[2] = (uint8_t)fminf(255.0f, (45 + 40 * up + 10 * glow) * (1 - 0.7f * pit));
}



void madgen_machine(const char* dir)
{
    gltf_author_model m;
    gltf_author_begin(&m, "reel_madgen");
    const uint32_t floor_material = gltf_author_add_material(&m, "floor");
    const uint32_t parts_material = gltf_author_add_material(&m, "parts");

    // Every triangle costs its set-up and every pixel its shading in each update pass, so the
    // shapes have as few sides as still read round from the camera's distance, and no faces that
    // the camera (always above the gears, looking down) never sees.
    // the floor: the dais, in the floor's steel plates
    gltf_author_mesh floor, frame, big, small, upper, top, piston, lamp, core;
    machine_dais(&floor, 12);
    // the still frame: the axle and the piston housings
    // (tall, thin triangles cost a step of the rasterizer on each row they cross: the axle is a
    // square shaft, and the lamps hover without posts)
    machine_post(&frame, 4, 0.3f, 0, 0, MACHINE_DAIS_TOP, MACHINE_AXLE_TOP, MACHINE_STEEL, GLTF_AUTHOR_CAP_TOP);
    const float satellite_distance = MACHINE_PITCH * (float)(MACHINE_BIG_TEETH + MACHINE_SMALL_TEETH) / (2.0f * MADGEN_PI);
    for (uint32_t i = 0; i < MACHINE_PISTONS; i++) {
        const float a = 2.0f * MADGEN_PI * ((float)i + 0.5f) / (float)MACHINE_PISTONS;
        machine_post(&frame, 4, 0.42f, MACHINE_PISTON_RADIUS * cosf(a), -MACHINE_PISTON_RADIUS * sinf(a),
                     MACHINE_DAIS_TOP, 1.5f, MACHINE_STEEL, GLTF_AUTHOR_CAP_TOP);
    }
    // the moving parts, each about its own origin
    // the camera never goes below 5.6: every gear (the top one at 3.4) is seen from above only;
    // the small gears, low on the dais, are plates
    machine_gear(&big, MACHINE_BIG_TEETH, 0.3f, GLTF_AUTHOR_CAP_TOP);
    machine_gear(&small, MACHINE_SMALL_TEETH, 0.26f, GLTF_AUTHOR_CAP_TOP | GLTF_AUTHOR_NO_WALL);
    machine_gear(&upper, MACHINE_UPPER_TEETH, 0.26f, GLTF_AUTHOR_CAP_TOP);
    machine_gear(&top, MACHINE_TOP_TEETH, 0.22f, GLTF_AUTHOR_CAP_TOP | GLTF_AUTHOR_NO_WALL);
    // the rod, inside the housing at rest, and the head
    machine_post(&piston, 3, 0.13f, 0, 0, 0.0f, 1.3f, MACHINE_STEEL, 0);
    machine_post(&piston, 4, 0.5f, 0, 0, 1.3f, 1.55f, MACHINE_HAZARD, GLTF_AUTHOR_CAP_TOP);
    machine_gem(&lamp, 3, 0.36f, 0.42f);  // a cut glass
    machine_finish(&lamp, 0, MACHINE_LAMP_GLOW);
    machine_gem(&core, 6, 0.6f, 0.8f);  // a cut crystal
    machine_finish(&core, 0, MACHINE_CORE_GLOW);

    struct {
        const char* name;
        const gltf_author_mesh* mesh;
        uint32_t material;
    } meshes[] = {{"floor", &floor, floor_material}, {"frame", &frame, parts_material},
                  {"gear_big", &big, parts_material}, {"gear_small", &small, parts_material},
                  {"gear_upper", &upper, parts_material}, {"gear_top", &top, parts_material},
                  {"piston", &piston, parts_material}, {"lamp", &lamp, parts_material},
                  {"core", &core, parts_material}};
    uint32_t mesh_index[9];
    for (uint32_t i = 0; i < 9; i++)
        mesh_index[i] = gltf_author_add_mesh(&m, meshes[i].name, meshes[i].mesh, meshes[i].material);

    // nodes: the moving parts in their places, turned and lifted by the channels below
    std::vector<uint32_t> roots;
    auto add = [&](json node) {
        roots.push_back(gltf_author_add_node(&m, node));
        return roots.back();
    };
    // the scene draws in node order with a depth test: the parts nearer the camera (which looks
    // down on the machine) come first, so that fewer hidden pixels are shaded; the dais comes last
    uint32_t satellite_nodes[MACHINE_SATELLITES], piston_nodes[MACHINE_PISTONS], lamp_nodes[MACHINE_LAMPS];
    // the crystal waits inside the axle's top, too small to see, until the second animation
    const uint32_t core_node = add({{"name", "core"},
                                    {"mesh", mesh_index[8]},
                                    {"translation", {0.0f, MACHINE_AXLE_TOP - 0.3f, 0.0f}},
                                    {"scale", {0.01f, 0.01f, 0.01f}}});
    for (uint32_t i = 0; i < MACHINE_LAMPS; i++) {
        const float a = 2.0f * MADGEN_PI * (float)i / (float)MACHINE_LAMPS;
        const json at = {MACHINE_LAMP_RADIUS * sinf(a), 1.9f, MACHINE_LAMP_RADIUS * cosf(a)};
        lamp_nodes[i] = add({{"name", "lamp" + std::to_string(i)}, {"mesh", mesh_index[7]}, {"translation", at}});
    }
    const uint32_t top_node = add({{"name", "gear_top"}, {"mesh", mesh_index[5]}, {"translation", {0.0f, 3.4f, 0.0f}}});
    const uint32_t upper_node =
        add({{"name", "gear_upper"}, {"mesh", mesh_index[4]}, {"translation", {0.0f, 2.3f, 0.0f}}});
    for (uint32_t i = 0; i < MACHINE_PISTONS; i++)
        piston_nodes[i] = add({{"name", "piston" + std::to_string(i)}, {"mesh", mesh_index[6]}});
    const uint32_t big_node =
        add({{"name", "gear_big"}, {"mesh", mesh_index[2]}, {"translation", {0.0f, MACHINE_GEAR_Y, 0.0f}}});
    for (uint32_t i = 0; i < MACHINE_SATELLITES; i++) {
        const float theta = machine_satellite_theta(i);
        const json at = {satellite_distance * cosf(theta), MACHINE_GEAR_Y, -satellite_distance * sinf(theta)};
        satellite_nodes[i] =
            add({{"name", "gear_small" + std::to_string(i)}, {"mesh", mesh_index[3]}, {"translation", at}});
    }
    add({{"name", "frame"}, {"mesh", mesh_index[1]}});
    add({{"name", "floor"}, {"mesh", mesh_index[0]}});
    const uint32_t camera_node = add({{"name", "camera"}, {"camera", 0}});
    m.gltf["scenes"] = {{{"nodes", roots}}};
    madgen_add_camera(&m);

    const uint32_t times = gltf_author_key_times(&m, MACHINE_KEYS, MACHINE_KEY_STEP);
    gltf_author_animation main_animation = {&m, {{"name", "main"}}, times, MACHINE_KEYS, MACHINE_KEY_STEP};
    gltf_author_animation* a = &main_animation;
    gltf_author_channel(a, camera_node, "translation", 3, machine_camera_position);
    gltf_author_channel(a, camera_node, "rotation", 4, [](float t, float* v) {
        float position[3];
        const float target[3] = {0.0f, 1.2f, 0.0f};
        machine_camera_position(t, position);
        madgen_look_at(v, position, target);
    });
    gltf_author_channel(a, big_node, "rotation", 4,
                        [](float t, float* v) { gltf_author_quat_axis(v, 0, 1, 0, machine_big_angle(t)); });
    for (uint32_t i = 0; i < MACHINE_SATELLITES; i++)
        gltf_author_channel(a, satellite_nodes[i], "rotation", 4, [i](float t, float* v) {
            gltf_author_quat_axis(v, 0, 1, 0, machine_satellite_angle(i, t));
        });
    // the stacked gears on the axle: the upper one against the large gear, the top one snapping
    // on every half beat
    gltf_author_channel(a, upper_node, "rotation", 4, [](float t, float* v) {
        gltf_author_quat_axis(v, 0, 1, 0, -1.5f * machine_big_angle(t));  // eight whole turns in the 16 s
    });
    gltf_author_channel(a, top_node, "rotation", 4, [](float t, float* v) {
        uint32_t half_beats;
        const float f = machine_beat(2.0f * t, &half_beats);
        gltf_author_quat_axis(v, 0, 1, 0, ((float)half_beats + machine_snap(f)) * 2.0f * MADGEN_PI / MACHINE_TOP_TEETH);
    });
    for (uint32_t i = 0; i < MACHINE_PISTONS; i++) {
        const float angle = 2.0f * MADGEN_PI * ((float)i + 0.5f) / (float)MACHINE_PISTONS;
        gltf_author_channel(a, piston_nodes[i], "translation", 3, [&](float t, float* v) {
            v[0] = MACHINE_PISTON_RADIUS * cosf(angle), v[1] = MACHINE_DAIS_TOP + machine_piston_lift(i, t),
            v[2] = -MACHINE_PISTON_RADIUS * sinf(angle);
        });
    }
    for (uint32_t i = 0; i < MACHINE_LAMPS; i++)
        gltf_author_channel(a, lamp_nodes[i], "scale", 3,
                            [i](float t, float* v) { v[0] = v[1] = v[2] = machine_lamp_scale(i, t); });
    // the second animation: the crystal shoots up out of the axle over the first two beats,
    // spins a quarter turn on every beat, jumps with the strikes and sinks back in over the last
    // beat, so that it plays on from one 16 s to the next like the first
    gltf_author_animation extra = {&m, {{"name", "extra"}}, times, MACHINE_KEYS, MACHINE_KEY_STEP};
    gltf_author_channel(&extra, core_node, "translation", 3, [](float t, float* v) {
        uint32_t beat;
        const float hit = machine_hit(machine_beat(t, &beat));
        v[0] = 0.0f, v[1] = MACHINE_AXLE_TOP - 0.3f + (1.2f + 0.3f * hit) * machine_core_presence(t), v[2] = 0.0f;
    });
    gltf_author_channel(&extra, core_node, "scale", 3, [](float t, float* v) {
        uint32_t beat;
        const float hit = machine_hit(machine_beat(t, &beat));
        v[0] = v[1] = v[2] = fmaxf(0.01f, machine_core_presence(t) * (1.0f + 0.25f * hit));
    });
    gltf_author_channel(&extra, core_node, "rotation", 4, [](float t, float* v) {
        uint32_t beat;
        const float f = machine_beat(t, &beat);
        float spin[4], tilt[4];
        gltf_author_quat_axis(spin, 0, 1, 0, ((float)beat + machine_snap(f)) * 0.5f * MADGEN_PI);
        gltf_author_quat_axis(tilt, 1, 0, 0, 0.35f);
        gltf_author_quat_mul(v, spin, tilt);
    });
    m.gltf["animations"] = {main_animation.animation, extra.animation};

    const madgen_picture pictures[2] = {{"floor", 128, machine_paint_floor}, {"parts", 256, machine_paint_parts}};
    madgen_write_pictures(dir, "machine", pictures, 2, nullptr);
    {
        static uint8_t block[2 * MACHINE_SKY_WIDTH * MACHINE_SKY_HEIGHT * 4];
        xmemarena arena;
        xmemarena_init(&arena, "reel_madgen_sky", sizeof(block), block);
        const bitmap* sky = gltf_author_picture(&arena, MACHINE_SKY_WIDTH, MACHINE_SKY_HEIGHT, machine_paint_sky);
        tool_save_png(sky, gltf_author_path(dir, "machine_sky.png").c_str(), &arena);
    }
    gltf_author_write(&m, dir, "machine");
    uint32_t triangles = 0;
    for (const auto& mesh : meshes)
        triangles += gltf_author_triangles(mesh.mesh);
    const uint32_t lit = gltf_author_triangles(&floor) + gltf_author_triangles(&frame) + gltf_author_triangles(&big) +
          MACHINE_SATELLITES * gltf_author_triangles(&small) + gltf_author_triangles(&upper) +
          gltf_author_triangles(&top) + MACHINE_PISTONS * gltf_author_triangles(&piston) +
          MACHINE_LAMPS * gltf_author_triangles(&lamp);
    printf("reel_madgen: wrote %s/machine.gltf (%u triangles in its meshes, %u drawn lit a frame without the "
           "crystal, %u keys per channel) and its images\n",
           dir, triangles, lit, MACHINE_KEYS);
}

const tool_info MADGEN_TOOL = {
    "reel_madgen",
    "usage: reel_madgen [--model totem|machine] OUTDIR\n"
    "Writes an animated 3D example as a glTF model with its PNG images: the totem (the default) as\n"
    "OUTDIR/madpack.gltf and OUTDIR/madpack.bin, with its sky as a direct-colour texture\n"
    "OUTDIR/madpack_sky.tmap; the machine as OUTDIR/machine.gltf and OUTDIR/machine.bin, with its\n"
    "sky as a 2048 x 256 panorama OUTDIR/machine_sky.png for a scrolling background. OUTDIR is\n"
    "created when it does not exist.\n"};

}  // namespace

int main(int argc, char** argv)
{
    tool_begin(&MADGEN_TOOL, argc, argv);
    const char* model = "totem";
    const char* dir = tool_one_operand_with_option(argc, argv, "output folder", "--model", &model);
    if (strcmp(model, "totem") != 0 && strcmp(model, "machine") != 0)
        tool_usage_error("--model needs totem or machine, not \"%s\"", model);
    tool_make_dir(dir);
    if (strcmp(model, "totem") == 0)
        madgen_totem(dir);
    else
        madgen_machine(dir);
    return 0;
}
