// The animated 3D example scene, authored in code as a glTF 2.0 model: a checkered ground, a
// striped totem skinned to two bones that spin, bounce and sway it, a crate circling it, a
// moon that a second animation brings in, a sky sphere with a direct-colour texture (the
// scene's special node, drawn behind everything at a fifth of its size) and an animated camera
// that swings round the totem. The importer turns the model into the show's datapack and
// palette textures like any other glTF; the sky's texture, which the special node needs as
// direct colour, is written here too, under the name the import gives it, for a later pack.
//
//   reel_madgen OUTDIR   (the folder is created)
// writes OUTDIR/madpack.gltf, OUTDIR/madpack.bin, the PNG images the model names and
// OUTDIR/madpack_sky.tmap (ARGB1555, swizzled).
#include <cmath>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "bitmap.h"
#include "n3d_convert.h"
#include "n3d_io.h"
#include "tool.h"
#include "vmath.h"

namespace {

using json = nlohmann::json;

constexpr float MADGEN_PI = 3.14159265f;
constexpr float MADGEN_SECONDS = 12.0f;  // the animations' length
constexpr float MADGEN_KEY_STEP = 0.25f;
constexpr uint32_t MADGEN_KEYS = (uint32_t)(MADGEN_SECONDS / MADGEN_KEY_STEP) + 1;
constexpr float MADGEN_SKY_RADIUS = 100.0f;  // drawn at a fifth: 20 units round the totem

// One primitive's vertex arrays, as glTF attributes.
struct madgen_mesh {
    std::vector<float> position, normal, tangent, uv;  // tangent: xyz and the bitangent's sign
    std::vector<uint8_t> joints;
    std::vector<float> weights;
    void vertex(const vec3 p, const vec3 n, const vec3 t, float u, float v)
    {
        position.insert(position.end(), p, p + 3);
        normal.insert(normal.end(), n, n + 3);
        tangent.insert(tangent.end(), {t[0], t[1], t[2], 1.0f});
        uv.insert(uv.end(), {u, v});
    }
};

// A sphere-like surface of revolution round y: f(ring, side) gives the point; the quads are
// wound counter-clockwise seen from outside, or from inside when `inward`.
template <typename Surface>
void madgen_revolve(madgen_mesh* m, uint32_t rings, uint32_t sides, bool inward, Surface surface)
{
    // (ring, side) corners: rings run down from the top and sides round y, so this order is
    // counter-clockwise seen from outside
    const uint32_t corners[6][2] = {{0, 0}, {1, 1}, {0, 1}, {0, 0}, {1, 0}, {1, 1}};
    for (uint32_t r = 0; r < rings; r++)
        for (uint32_t s = 0; s < sides; s++)
            for (uint32_t k = 0; k < 6; k++) {
                const uint32_t* c = corners[inward ? 5 - k : k];
                vec3 p, n, t;
                surface(p, n, t, r + c[0], s + c[1]);
                if (inward)
                    vec3_scale(n, n, -1.0f);
                m->vertex(p, n, t, (float)(s + c[1]) / (float)sides, (float)(r + c[0]) / (float)rings);
            }
}

void madgen_sphere(madgen_mesh* m, float radius, uint32_t rings, uint32_t sides, bool inward)
{
    madgen_revolve(m, rings, sides, inward, [&](vec3 p, vec3 n, vec3 t, uint32_t ring, uint32_t side) {
        const float polar = MADGEN_PI * (float)ring / (float)rings;  // from the top down
        const float a = 2.0f * MADGEN_PI * (float)side / (float)sides;
        vec3_set(n, sinf(polar) * sinf(a), cosf(polar), sinf(polar) * cosf(a));
        vec3_scale(p, n, radius);
        vec3_set(t, cosf(a), 0.0f, -sinf(a));
    });
}

// The totem: a cylinder from y = 0 to `height`, skinned to joint 0 (the base) and joint 1 (at
// half height), the upper joint's weight rising from a quarter to three quarters of the height.
void madgen_totem(madgen_mesh* m, float radius, float height, uint32_t rings, uint32_t sides)
{
    madgen_revolve(m, rings, sides, false, [&](vec3 p, vec3 n, vec3 t, uint32_t ring, uint32_t side) {
        const float a = 2.0f * MADGEN_PI * (float)side / (float)sides;
        vec3_set(n, sinf(a), 0.0f, cosf(a));
        vec3_set(p, radius * sinf(a), height * (1.0f - (float)ring / (float)rings), radius * cosf(a));
        vec3_set(t, cosf(a), 0.0f, -sinf(a));
    });
    for (size_t i = 0; i < m->position.size() / 3; i++) {
        const float y = m->position[i * 3 + 1] / height;
        const float top = y < 0.25f ? 0.0f : y > 0.75f ? 1.0f : (y - 0.25f) * 2.0f;
        m->joints.insert(m->joints.end(), {0, 1, 0, 0});
        m->weights.insert(m->weights.end(), {1.0f - top, top, 0.0f, 0.0f});
    }
}

// A square of `size` in the y = 0 plane facing up, cut into cells so that clipping stays local.
void madgen_ground(madgen_mesh* m, float size, uint32_t cells, float repeat)
{
    const vec3 up = {0, 1, 0}, along = {1, 0, 0};
    const uint32_t corners[6][2] = {{0, 0}, {0, 1}, {1, 1}, {0, 0}, {1, 1}, {1, 0}};
    for (uint32_t z = 0; z < cells; z++)
        for (uint32_t x = 0; x < cells; x++)
            for (const auto& c : corners) {
                const float u = (float)(x + c[0]) / (float)cells, v = (float)(z + c[1]) / (float)cells;
                const vec3 p = {(u - 0.5f) * size, 0.0f, (v - 0.5f) * size};
                m->vertex(p, up, along, u * repeat, v * repeat);
            }
}

// A cube of side `size` about the origin, each face its own four corners of the texture.
void madgen_cube(madgen_mesh* m, float size)
{
    const float h = 0.5f * size;
    for (uint32_t axis = 0; axis < 3; axis++)
        for (float sign : {1.0f, -1.0f}) {
            vec3 n = {0, 0, 0}, t = {0, 0, 0}, b = {0, 0, 0};
            n[axis] = sign, t[(axis + 1) % 3] = 1.0f;
            vec3_mul_cross(b, n, t);  // t x b = n: counter-clockwise seen from outside
            const float corners[6][2] = {{-1, -1}, {1, -1}, {1, 1}, {-1, -1}, {1, 1}, {-1, 1}};
            for (const auto& c : corners) {
                vec3 p;
                for (int i = 0; i < 3; i++)
                    p[i] = h * (n[i] + c[0] * t[i] + c[1] * b[i]);
                m->vertex(p, n, t, 0.5f * (c[0] + 1), 0.5f * (c[1] + 1));
            }
        }
}

// ---- the model's JSON and binary buffer ----

struct madgen_model {
    json gltf;
    std::vector<uint8_t> bin;

    // A buffer view and accessor over the floats or bytes; returns the accessor index.
    template <typename T>
    uint32_t accessor(const std::vector<T>& values, const char* type, uint32_t components, bool with_bounds = false)
    {
        while (bin.size() % 4)
            bin.push_back(0);
        const size_t offset = bin.size();
        bin.resize(offset + values.size() * sizeof(T));
        memcpy(bin.data() + offset, values.data(), values.size() * sizeof(T));
        gltf["bufferViews"].push_back({{"buffer", 0}, {"byteOffset", offset}, {"byteLength", values.size() * sizeof(T)}});
        json a = {{"bufferView", gltf["bufferViews"].size() - 1},
                  {"componentType", sizeof(T) == 1 ? 5121 : 5126},
                  {"count", values.size() / components},
                  {"type", type}};
        if (with_bounds) {
            std::vector<float> lo(components, 1e30f), hi(components, -1e30f);
            for (size_t i = 0; i < values.size(); i++)
                lo[i % components] = std::min(lo[i % components], (float)values[i]),
                hi[i % components] = std::max(hi[i % components], (float)values[i]);
            a["min"] = lo, a["max"] = hi;
        }
        gltf["accessors"].push_back(a);
        return (uint32_t)gltf["accessors"].size() - 1;
    }

    uint32_t mesh(const char* name, const madgen_mesh& m, uint32_t material)
    {
        json attributes = {{"POSITION", accessor(m.position, "VEC3", 3, true)},
                           {"NORMAL", accessor(m.normal, "VEC3", 3)},
                           {"TANGENT", accessor(m.tangent, "VEC4", 4)},
                           {"TEXCOORD_0", accessor(m.uv, "VEC2", 2)}};
        if (!m.joints.empty())
            attributes["JOINTS_0"] = accessor(m.joints, "VEC4", 4), attributes["WEIGHTS_0"] = accessor(m.weights, "VEC4", 4);
        gltf["meshes"].push_back({{"name", name}, {"primitives", {{{"attributes", attributes}, {"material", material}}}}});
        return (uint32_t)gltf["meshes"].size() - 1;
    }

    // A material whose base colour is the image `name`.png.
    uint32_t material(const char* name)
    {
        gltf["images"].push_back({{"name", name}, {"uri", std::string(name) + ".png"}});
        gltf["textures"].push_back({{"source", gltf["images"].size() - 1}, {"sampler", 0}});
        gltf["materials"].push_back(
            {{"name", name},
             {"pbrMetallicRoughness", {{"baseColorTexture", {{"index", gltf["textures"].size() - 1}}}}}});
        return (uint32_t)gltf["materials"].size() - 1;
    }

    uint32_t node(json n)
    {
        gltf["nodes"].push_back(n);
        return (uint32_t)gltf["nodes"].size() - 1;
    }
};

// One animation channel sampled every MADGEN_KEY_STEP seconds: f(time, out) gives the value.
struct madgen_animation {
    madgen_model* model;
    json animation;
    uint32_t times;

    template <typename Value>
    void channel(uint32_t node, const char* path, uint32_t components, Value value)
    {
        std::vector<float> out;
        float previous[4] = {0, 0, 0, 0};
        for (uint32_t k = 0; k < MADGEN_KEYS; k++) {
            float v[4];
            value((float)k * MADGEN_KEY_STEP, v);
            // rotation keys on the side of the one before: the player's slerp does not choose
            const float dot = v[0] * previous[0] + v[1] * previous[1] + v[2] * previous[2] + v[3] * previous[3];
            if (components == 4 && dot < 0.0f)
                for (float& c : v)
                    c = -c;
            memcpy(previous, v, sizeof(v));
            out.insert(out.end(), v, v + components);
        }
        const uint32_t output = model->accessor(out, components == 4 ? "VEC4" : "VEC3", components);
        animation["samplers"].push_back({{"input", times}, {"output", output}, {"interpolation", "LINEAR"}});
        animation["channels"].push_back(
            {{"sampler", animation["samplers"].size() - 1}, {"target", {{"node", node}, {"path", path}}}});
    }
};

void madgen_quat_axis(float* q, float x, float y, float z, float angle)
{
    const float s = sinf(0.5f * angle);
    q[0] = x * s, q[1] = y * s, q[2] = z * s, q[3] = cosf(0.5f * angle);
}

void madgen_quat_mul(float* r, const float* a, const float* b)
{
    r[0] = a[3] * b[0] + a[0] * b[3] + a[1] * b[2] - a[2] * b[1];
    r[1] = a[3] * b[1] - a[0] * b[2] + a[1] * b[3] + a[2] * b[0];
    r[2] = a[3] * b[2] + a[0] * b[1] - a[1] * b[0] + a[2] * b[3];
    r[3] = a[3] * b[3] - a[0] * b[0] - a[1] * b[1] - a[2] * b[2];
}

// ---- images ----

typedef void madgen_paint_fn(uint8_t* rgba, float u, float v);

bitmap* madgen_image(xmemarena* arena, uint32_t side, madgen_paint_fn* paint)
{
    bitmap* bm = bitmap_create(arena, side, side, BITMAP_SRGB | BITMAP_CHANNELS_4);
    for (uint32_t y = 0; y < side; y++)
        for (uint32_t x = 0; x < side; x++) {
            uint8_t* p = bitmap_pixel(bm, x, y);
            paint(p, ((float)x + 0.5f) / (float)side, ((float)y + 0.5f) / (float)side);
            p[3] = 255;
        }
    return bm;
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

const tool_info MADGEN_TOOL = {
    "reel_madgen", "usage: reel_madgen OUTDIR\n"
                   "Writes the animated 3D example as a glTF model: OUTDIR/madpack.gltf, OUTDIR/madpack.bin,\n"
                   "its PNG images, and OUTDIR/madpack_sky.tmap (the sky as a direct-colour texture).\n"
                   "OUTDIR is created when it does not exist.\n"};

// dir/name, for the tool's messages and writes.
std::string madgen_path(const char* dir, const std::string& name)
{
    char path[TOOL_PATH_MAX];
    tool_join_path(path, dir, name.c_str());
    return path;
}

}  // namespace

int main(int argc, char** argv)
{
    tool_begin(&MADGEN_TOOL, argc, argv);
    const char* dir = tool_one_operand(argc, argv, "output folder");
    tool_make_dir(dir);

    madgen_model m;
    m.gltf = {{"asset", {{"version", "2.0"}, {"generator", "reel_madgen"}}}, {"scene", 0}};
    m.gltf["samplers"] = {{{"magFilter", 9729}, {"minFilter", 9729}}};

    // meshes
    madgen_mesh ground, totem, crate, moon, sky;
    madgen_ground(&ground, 24.0f, 8, 6.0f);
    madgen_totem(&totem, 0.5f, 3.0f, 6, 16);
    madgen_cube(&crate, 0.9f);
    madgen_sphere(&moon, 0.45f, 8, 12, false);
    madgen_sphere(&sky, MADGEN_SKY_RADIUS, 12, 24, true);
    const char* image_names[5] = {"ground", "totem", "crate", "moon", "sky"};
    madgen_paint_fn* painters[5] = {madgen_paint_ground, madgen_paint_totem, madgen_paint_crate, madgen_paint_moon,
                                    madgen_paint_sky};
    const madgen_mesh* meshes[5] = {&ground, &totem, &crate, &moon, &sky};
    uint32_t mesh_index[5];
    for (uint32_t i = 0; i < 5; i++)
        mesh_index[i] = m.mesh(image_names[i], *meshes[i], m.material(image_names[i]));

    // nodes: the totem's mesh hangs under its base bone, so that the bones carry it here too,
    // where a skinned mesh is drawn in its bind pose
    const uint32_t ground_node = m.node({{"name", "ground"}, {"mesh", mesh_index[0]}});
    const uint32_t top_bone = m.node({{"name", "bone_top"}, {"translation", {0.0, 1.5, 0.0}}});
    const uint32_t totem_node = m.node({{"name", "totem"}, {"mesh", mesh_index[1]}, {"skin", 0}});
    const uint32_t base_bone = m.node({{"name", "bone_base"}, {"children", {top_bone, totem_node}}});
    const uint32_t crate_node = m.node({{"name", "crate"}, {"mesh", mesh_index[2]}});
    const uint32_t moon_node = m.node({{"name", "moon"}, {"mesh", mesh_index[3]}, {"translation", {0.0, 4.5, 0.0}}});
    const uint32_t sky_node = m.node({{"name", "sky"}, {"mesh", mesh_index[4]}});
    const uint32_t camera_node = m.node({{"name", "camera"}, {"camera", 0}});
    m.gltf["scenes"] = {{{"nodes", {ground_node, base_bone, crate_node, moon_node, sky_node, camera_node}}}};
    m.gltf["cameras"] = {{{"type", "perspective"},
                          {"perspective", {{"yfov", 0.8}, {"znear", 0.5}, {"aspectRatio", 4.0 / 3.0}}}}};
    // inverse bind matrices: the base bone at the origin, the top one 1.5 up
    const std::vector<float> inverse_binds = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1,
                                              1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, -1.5f, 0, 1};
    m.gltf["skins"] = {{{"name", "totem_skin"},
                        {"joints", {base_bone, top_bone}},
                        {"inverseBindMatrices", m.accessor(inverse_binds, "MAT4", 16)}}};

    // animations
    std::vector<float> times;
    for (uint32_t k = 0; k < MADGEN_KEYS; k++)
        times.push_back((float)k * MADGEN_KEY_STEP);
    const uint32_t time_accessor = m.accessor(times, "SCALAR", 1, true);
    madgen_animation main_animation = {&m, {{"name", "main"}}, time_accessor};
    // the camera swings +-0.7 rad round the totem, 9 out and 3.2 up, looking down at its middle
    main_animation.channel(camera_node, "translation", 3, [](float t, float* v) {
        const float a = 0.7f * sinf(2.0f * MADGEN_PI * t / MADGEN_SECONDS);
        v[0] = 9.0f * sinf(a), v[1] = 3.2f, v[2] = 9.0f * cosf(a);
    });
    main_animation.channel(camera_node, "rotation", 4, [](float t, float* v) {
        const float a = 0.7f * sinf(2.0f * MADGEN_PI * t / MADGEN_SECONDS);
        float yaw[4], pitch[4];
        madgen_quat_axis(yaw, 0, 1, 0, a);
        madgen_quat_axis(pitch, 1, 0, 0, -atanf(1.7f / 9.0f));
        madgen_quat_mul(v, yaw, pitch);
    });
    main_animation.channel(base_bone, "rotation", 4,
                           [](float t, float* v) { madgen_quat_axis(v, 0, 1, 0, 0.8f * MADGEN_PI * t); });
    main_animation.channel(base_bone, "translation", 3, [](float t, float* v) {
        v[0] = 0.0f, v[1] = 0.4f * fabsf(sinf(1.5f * MADGEN_PI * t)), v[2] = 0.0f;
    });
    main_animation.channel(top_bone, "rotation", 4,
                           [](float t, float* v) { madgen_quat_axis(v, 0, 0, 1, 0.4f * sinf(2.0f * MADGEN_PI * t)); });
    main_animation.channel(crate_node, "translation", 3, [](float t, float* v) {
        const float a = 2.0f * MADGEN_PI * t / 6.0f;
        v[0] = 3.2f * cosf(a), v[1] = 0.6f + 0.3f * sinf(3.0f * a), v[2] = 3.2f * sinf(a);
    });
    main_animation.channel(crate_node, "rotation", 4,
                           [](float t, float* v) { madgen_quat_axis(v, 0.6f, 0.8f, 0.0f, 1.3f * MADGEN_PI * t); });
    // the second animation brings the moon in, growing from nothing, and circles it over the totem
    madgen_animation extra = {&m, {{"name", "extra"}}, time_accessor};
    extra.channel(moon_node, "scale", 3, [](float t, float* v) { v[0] = v[1] = v[2] = fminf(1.0f, t / 2.0f); });
    extra.channel(moon_node, "translation", 3, [](float t, float* v) {
        v[0] = 1.5f * sinf(MADGEN_PI * t / 3.0f), v[1] = 4.3f, v[2] = 1.5f * cosf(MADGEN_PI * t / 3.0f);
    });
    m.gltf["animations"] = {main_animation.animation, extra.animation};
    m.gltf["buffers"] = {{{"uri", "madpack.bin"}, {"byteLength", m.bin.size()}}};

    static uint8_t block[16u << 20], tmp_block[16u << 20];
    xmemarena arena, tmp_arena;
    xmemarena_init(&arena, "reel_madgen", sizeof(block), block);
    xmemarena_init(&tmp_arena, "reel_madgen_tmp", sizeof(tmp_block), tmp_block);
    for (uint32_t i = 0; i < 5; i++) {
        bitmap* bm = madgen_image(&arena, i == 2 || i == 3 ? 64 : 128, painters[i]);
        tool_save_png(bm, madgen_path(dir, std::string(image_names[i]) + ".png").c_str(), &arena);
        if (i == 4) {  // the sky, for the special node: direct colour, swizzled, no mips
            n3d_texture sky_texture;
            n3d_texture_from_bitmap(&sky_texture, &arena, &tmp_arena, N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, 1, 0, 0,
                                    bm, nullptr, N3D_TRANSPARENT_INDEX_NONE, 0.5f);
            std::vector<uint8_t> bytes(n3d_texture_write_size(&sky_texture));
            n3d_texture_write(bytes.data(), &sky_texture, BYTE_ORDER_NATIVE);
            tool_write_resource(madgen_path(dir, "madpack_sky.tmap").c_str(), bytes.data(), bytes.size());
        }
    }
    const std::string text = m.gltf.dump(1);
    tool_write_file(madgen_path(dir, "madpack.bin").c_str(), m.bin.data(), m.bin.size(), nullptr, 0);
    tool_write_file(madgen_path(dir, "madpack.gltf").c_str(), text.data(), text.size(), nullptr, 0);
    printf("reel_madgen: wrote %s/madpack.gltf (%zu triangles, %u keys per channel) and its images\n", dir,
           (ground.position.size() + totem.position.size() + crate.position.size() + moon.position.size() +
            sky.position.size()) / 9,
           MADGEN_KEYS);
    return 0;
}
