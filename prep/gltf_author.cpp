// Authoring glTF 2.0 models in code (see gltf_author.h).
#include "gltf_author.h"

#include <algorithm>
#include <cstring>

#include "n3d_convert.h"
#include "n3d_io.h"
#include "tool.h"

using json = nlohmann::json;

void gltf_author_vertex(gltf_author_mesh* m, const vec3 p, const vec3 n, const vec3 t, float u, float v)
{
    m->position.insert(m->position.end(), p, p + 3);
    m->normal.insert(m->normal.end(), n, n + 3);
    m->tangent.insert(m->tangent.end(), {t[0], t[1], t[2], 1.0f});
    m->uv.insert(m->uv.end(), {u, v});
}

void gltf_author_uv_rect(gltf_author_mesh* m, size_t first_vertex, float u0, float v0, float du, float dv)
{
    for (size_t i = first_vertex; i < gltf_author_vertex_count(m); i++)
        m->uv[2 * i] = u0 + du * m->uv[2 * i], m->uv[2 * i + 1] = v0 + dv * m->uv[2 * i + 1];
}

void gltf_author_translate(gltf_author_mesh* m, size_t first_vertex, float x, float y, float z)
{
    for (size_t i = first_vertex; i < gltf_author_vertex_count(m); i++)
        m->position[3 * i] += x, m->position[3 * i + 1] += y, m->position[3 * i + 2] += z;
}

void gltf_author_sphere(gltf_author_mesh* m, float radius, uint32_t rings, uint32_t sides, bool inward)
{
    gltf_author_revolve(m, rings, sides, inward, [&](vec3 p, vec3 n, vec3 t, uint32_t ring, uint32_t side) {
        const float polar = GLTF_AUTHOR_PI * (float)ring / (float)rings;  // from the top down
        const float a = 2.0f * GLTF_AUTHOR_PI * (float)side / (float)sides;
        vec3_set(n, sinf(polar) * sinf(a), cosf(polar), sinf(polar) * cosf(a));
        vec3_scale(p, n, radius);
        vec3_set(t, cosf(a), 0.0f, -sinf(a));
    });
}

void gltf_author_tube(gltf_author_mesh* m, float radius, float y0, float y1, uint32_t rings, uint32_t sides)
{
    gltf_author_revolve(m, rings, sides, false, [&](vec3 p, vec3 n, vec3 t, uint32_t ring, uint32_t side) {
        const float a = 2.0f * GLTF_AUTHOR_PI * (float)side / (float)sides;
        vec3_set(n, sinf(a), 0.0f, cosf(a));
        vec3_set(p, radius * sinf(a), y0 + (y1 - y0) * (1.0f - (float)ring / (float)rings), radius * cosf(a));
        vec3_set(t, cosf(a), 0.0f, -sinf(a));
    });
}

// Triangles of a flat face at height y, each three indices into the outline (-1: its centre),
// counter-clockwise seen from above; reversed for a face seen from below.
static void gltf_author_face(gltf_author_mesh* m, const float* outline, const std::vector<int32_t>& triangles, float y,
                             bool up, float extent)
{
    const vec3 n = {0.0f, up ? 1.0f : -1.0f, 0.0f}, t = {1.0f, 0.0f, 0.0f};
    const float scale = 0.5f / extent;
    for (size_t i = 0; i < triangles.size(); i += 3)
        for (size_t k = 0; k < 3; k++) {
            const int32_t corner = triangles[i + (up ? k : 2 - k)];
            const float x = corner < 0 ? 0.0f : outline[2 * corner], z = corner < 0 ? 0.0f : outline[2 * corner + 1];
            const vec3 p = {x, y, z};
            gltf_author_vertex(m, p, n, t, 0.5f + x * scale, 0.5f + z * scale);
        }
}

void gltf_author_cap(gltf_author_mesh* m, const float* outline, uint32_t count, float y, bool up, float extent)
{
    std::vector<int32_t> fan;
    for (uint32_t i = 0; i < count; i++)
        fan.insert(fan.end(), {-1, (int32_t)i, (int32_t)((i + 1) % count)});
    gltf_author_face(m, outline, fan, y, up, extent);
}

// The side wall of the closed outline from y0 up to y1.
static void gltf_author_wall(gltf_author_mesh* m, const float* outline, uint32_t count, float y0, float y1)
{
    float perimeter = 0.0f, length = 0.0f;  // u runs from 0 to 1 round the outline
    for (uint32_t i = 0; i < count; i++)
        perimeter += hypotf(outline[2 * ((i + 1) % count)] - outline[2 * i],
                            outline[2 * ((i + 1) % count) + 1] - outline[2 * i + 1]);
    for (uint32_t i = 0; i < count; i++) {
        const float* a = outline + 2 * i;
        const float* b = outline + 2 * ((i + 1) % count);
        const float dx = b[0] - a[0], dz = b[1] - a[1];
        const float side = hypotf(dx, dz);
        if (side <= 0.0f)
            continue;
        // counter-clockwise from above: the outward normal is the edge turned clockwise
        const vec3 n = {-dz / side, 0.0f, dx / side}, t = {dx / side, 0.0f, dz / side};
        const float u0 = length / perimeter, u1 = (length + side) / perimeter;
        length += side;
        const float corners[6][3] = {{a[0], a[1], 0}, {b[0], b[1], 1}, {b[0], b[1], 0},
                                     {a[0], a[1], 0}, {a[0], a[1], 1}, {b[0], b[1], 1}};
        for (const auto& c : corners) {
            const bool bottom = c[2] != 0.0f;
            const vec3 p = {c[0], bottom ? y0 : y1, c[1]};
            gltf_author_vertex(m, p, n, t, c[0] == a[0] && c[1] == a[1] ? u0 : u1, bottom ? 1.0f : 0.0f);
        }
    }
}

void gltf_author_prism(gltf_author_mesh* m, const float* outline, uint32_t count, float y0, float y1, float extent,
                       uint32_t caps)
{
    if (caps & GLTF_AUTHOR_CAP_TOP)
        gltf_author_cap(m, outline, count, y1, true, extent);
    if (caps & GLTF_AUTHOR_CAP_BOTTOM)
        gltf_author_cap(m, outline, count, y0, false, extent);
    gltf_author_wall(m, outline, count, y0, y1);
}

std::vector<float> gltf_author_gear_outline(uint32_t teeth, float root_radius, float tip_radius)
{
    // in pitches: flanks from 0 to 0.2 and 0.45 to 0.65, the tip between, the root to 1; so a
    // tooth is 0.45 wide at mid height (centred at 0.325) and the gap 0.55 (centred at 0.825)
    const float fractions[4] = {0.0f, 0.2f, 0.45f, 0.65f};
    const float radii[4] = {root_radius, tip_radius, tip_radius, root_radius};
    std::vector<float> outline;
    for (uint32_t k = 0; k < teeth; k++)
        for (uint32_t i = 0; i < 4; i++) {
            const float a = 2.0f * GLTF_AUTHOR_PI * ((float)k + fractions[i]) / (float)teeth;
            // counter-clockwise seen from above (+y): x = cos, z = -sin
            outline.insert(outline.end(), {radii[i] * cosf(a), -radii[i] * sinf(a)});
        }
    return outline;
}

void gltf_author_gear(gltf_author_mesh* m, uint32_t teeth, float root_radius, float tip_radius, float y0, float y1,
                      uint32_t caps)
{
    const std::vector<float> outline = gltf_author_gear_outline(teeth, root_radius, tip_radius);
    // the faces: a fan over the roots and each tooth as two triangles on it; no triangle runs
    // from the centre to a tip, so there are half as many long thin ones as in a fan of the outline
    std::vector<int32_t> face;
    for (int32_t k = 0; k < (int32_t)teeth; k++) {
        const int32_t a = 4 * k, next = 4 * ((k + 1) % (int32_t)teeth);
        face.insert(face.end(), {-1, a, a + 3, -1, a + 3, next, a, a + 1, a + 2, a, a + 2, a + 3});
    }
    if (caps & GLTF_AUTHOR_CAP_TOP)
        gltf_author_face(m, outline.data(), face, y1, true, tip_radius);
    if (caps & GLTF_AUTHOR_CAP_BOTTOM)
        gltf_author_face(m, outline.data(), face, y0, false, tip_radius);
    if (!(caps & GLTF_AUTHOR_NO_WALL))
        gltf_author_wall(m, outline.data(), teeth * 4, y0, y1);
}

void gltf_author_ground(gltf_author_mesh* m, float size, uint32_t cells, float repeat)
{
    const vec3 up = {0, 1, 0}, along = {1, 0, 0};
    const uint32_t corners[6][2] = {{0, 0}, {0, 1}, {1, 1}, {0, 0}, {1, 1}, {1, 0}};
    for (uint32_t z = 0; z < cells; z++)
        for (uint32_t x = 0; x < cells; x++)
            for (const auto& c : corners) {
                const float u = (float)(x + c[0]) / (float)cells, v = (float)(z + c[1]) / (float)cells;
                const vec3 p = {(u - 0.5f) * size, 0.0f, (v - 0.5f) * size};
                gltf_author_vertex(m, p, up, along, u * repeat, v * repeat);
            }
}

void gltf_author_cube(gltf_author_mesh* m, float size)
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
                gltf_author_vertex(m, p, n, t, 0.5f * (c[0] + 1), 0.5f * (c[1] + 1));
            }
        }
}

// ---- the model's JSON and binary buffer ----

void gltf_author_begin(gltf_author_model* model, const char* generator)
{
    model->gltf = {{"asset", {{"version", "2.0"}, {"generator", generator}}}, {"scene", 0}};
    model->gltf["samplers"] = {{{"magFilter", 9729}, {"minFilter", 9729}}};
    model->bin.clear();
}

// The bytes at the buffer's next 4-byte boundary and their view; returns the view's index.
static size_t gltf_author_view(gltf_author_model* model, const void* data, size_t bytes)
{
    while (model->bin.size() % 4)
        model->bin.push_back(0);
    const size_t offset = model->bin.size();
    model->bin.resize(offset + bytes);
    memcpy(model->bin.data() + offset, data, bytes);
    model->gltf["bufferViews"].push_back({{"buffer", 0}, {"byteOffset", offset}, {"byteLength", bytes}});
    return model->gltf["bufferViews"].size() - 1;
}

static uint32_t gltf_author_push_accessor(gltf_author_model* model, const json& accessor)
{
    model->gltf["accessors"].push_back(accessor);
    return (uint32_t)model->gltf["accessors"].size() - 1;
}

uint32_t gltf_author_accessor(gltf_author_model* model, const std::vector<float>& values, const char* type,
                              uint32_t components, bool with_bounds)
{
    json a = {{"bufferView", gltf_author_view(model, values.data(), values.size() * sizeof(float))},
              {"componentType", 5126},
              {"count", values.size() / components},
              {"type", type}};
    if (with_bounds) {
        std::vector<float> lo(components, 1e30f), hi(components, -1e30f);
        for (size_t i = 0; i < values.size(); i++)
            lo[i % components] = std::min(lo[i % components], values[i]),
            hi[i % components] = std::max(hi[i % components], values[i]);
        a["min"] = lo, a["max"] = hi;
    }
    return gltf_author_push_accessor(model, a);
}

uint32_t gltf_author_accessor(gltf_author_model* model, const std::vector<uint8_t>& values, const char* type,
                              uint32_t components)
{
    return gltf_author_push_accessor(model, {{"bufferView", gltf_author_view(model, values.data(), values.size())},
                                             {"componentType", 5121},
                                             {"count", values.size() / components},
                                             {"type", type}});
}

uint32_t gltf_author_add_mesh(gltf_author_model* model, const char* name, const gltf_author_mesh* m, uint32_t material)
{
    json attributes = {{"POSITION", gltf_author_accessor(model, m->position, "VEC3", 3, true)},
                       {"NORMAL", gltf_author_accessor(model, m->normal, "VEC3", 3)},
                       {"TANGENT", gltf_author_accessor(model, m->tangent, "VEC4", 4)},
                       {"TEXCOORD_0", gltf_author_accessor(model, m->uv, "VEC2", 2)}};
    if (!m->joints.empty()) {
        attributes["JOINTS_0"] = gltf_author_accessor(model, m->joints, "VEC4", 4);
        attributes["WEIGHTS_0"] = gltf_author_accessor(model, m->weights, "VEC4", 4);
    }
    model->gltf["meshes"].push_back(
        {{"name", name}, {"primitives", {{{"attributes", attributes}, {"material", material}}}}});
    return (uint32_t)model->gltf["meshes"].size() - 1;
}

uint32_t gltf_author_add_material(gltf_author_model* model, const char* name)
{
    json& g = model->gltf;
    g["images"].push_back({{"name", name}, {"uri", std::string(name) + ".png"}});
    g["textures"].push_back({{"source", g["images"].size() - 1}, {"sampler", 0}});
    g["materials"].push_back(
        {{"name", name}, {"pbrMetallicRoughness", {{"baseColorTexture", {{"index", g["textures"].size() - 1}}}}}});
    return (uint32_t)g["materials"].size() - 1;
}

uint32_t gltf_author_add_node(gltf_author_model* model, json node)
{
    model->gltf["nodes"].push_back(node);
    return (uint32_t)model->gltf["nodes"].size() - 1;
}

uint32_t gltf_author_key_times(gltf_author_model* model, uint32_t keys, float step)
{
    std::vector<float> times;
    for (uint32_t k = 0; k < keys; k++)
        times.push_back((float)k * step);
    return gltf_author_accessor(model, times, "SCALAR", 1, true);
}

void gltf_author_quat_axis(float* q, float x, float y, float z, float angle)
{
    const float s = sinf(0.5f * angle);
    q[0] = x * s, q[1] = y * s, q[2] = z * s, q[3] = cosf(0.5f * angle);
}

void gltf_author_quat_mul(float* r, const float* a, const float* b)
{
    r[0] = a[3] * b[0] + a[0] * b[3] + a[1] * b[2] - a[2] * b[1];
    r[1] = a[3] * b[1] - a[0] * b[2] + a[1] * b[3] + a[2] * b[0];
    r[2] = a[3] * b[2] + a[0] * b[1] - a[1] * b[0] + a[2] * b[3];
    r[3] = a[3] * b[3] - a[0] * b[0] - a[1] * b[1] - a[2] * b[2];
}

// ---- images and files ----

bitmap* gltf_author_picture(xmemarena* arena, uint32_t width, uint32_t height, gltf_author_paint_fn* paint)
{
    bitmap* bm = bitmap_create(arena, width, height, BITMAP_SRGB | BITMAP_CHANNELS_4);
    for (uint32_t y = 0; y < height; y++)
        for (uint32_t x = 0; x < width; x++) {
            uint8_t* p = bitmap_pixel(bm, x, y);
            paint(p, ((float)x + 0.5f) / (float)width, ((float)y + 0.5f) / (float)height);
            p[3] = 255;
        }
    return bm;
}

bitmap* gltf_author_image(xmemarena* arena, uint32_t side, gltf_author_paint_fn* paint)
{
    return gltf_author_picture(arena, side, side, paint);
}

std::string gltf_author_path(const char* dir, const std::string& name)
{
    char path[TOOL_PATH_MAX];
    tool_join_path(path, dir, name.c_str());
    return path;
}

void gltf_author_write(gltf_author_model* model, const char* dir, const char* name)
{
    const std::string base = name;
    model->gltf["buffers"] = {{{"uri", base + ".bin"}, {"byteLength", model->bin.size()}}};
    const std::string text = model->gltf.dump(1);
    tool_write_file(gltf_author_path(dir, base + ".bin").c_str(), model->bin.data(), model->bin.size(), nullptr, 0);
    tool_write_file(gltf_author_path(dir, base + ".gltf").c_str(), text.data(), text.size(), nullptr, 0);
}

void gltf_author_write_direct_texture(const bitmap* bm, const char* path, xmemarena* arena, xmemarena* tmp)
{
    const uint64_t mark = xmemarena_get_sp(arena);
    n3d_texture texture;
    n3d_texture_from_bitmap(&texture, arena, tmp, N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, 1, 0, 0, bm, nullptr,
                            N3D_TRANSPARENT_INDEX_NONE, 0.5f);
    std::vector<uint8_t> bytes(n3d_texture_write_size(&texture));
    n3d_texture_write(bytes.data(), &texture, BYTE_ORDER_NATIVE);
    tool_write_resource(path, bytes.data(), bytes.size());
    xmemarena_set_sp(arena, mark);
}
