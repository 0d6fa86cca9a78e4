// Authoring glTF 2.0 models in code: primitive shapes as vertex arrays with the attributes the
// importer and the lit draw mode use (position, normal, tangent, one set of texture
// coordinates, optionally four joints and weights), the model's JSON and binary buffer, animation
// channels sampled at evenly spaced keys, painted images, and the writing of the files. The
// example generators build their models with it; the importer reads them back like any other glTF.
#pragma once

#include <cmath>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "bitmap.h"
#include "memarena.h"
#include "vmath.h"

constexpr float GLTF_AUTHOR_PI = 3.14159265f;

// One primitive's vertex arrays, as glTF attributes: three vertices per triangle, no indices.
struct gltf_author_mesh {
    std::vector<float> position, normal, tangent, uv;  // tangent: xyz and the bitangent's sign
    std::vector<uint8_t> joints;
    std::vector<float> weights;
};

void gltf_author_vertex(gltf_author_mesh* m, const vec3 p, const vec3 n, const vec3 t, float u, float v);
inline uint32_t gltf_author_triangles(const gltf_author_mesh* m) { return (uint32_t)(m->position.size() / 9); }
// Moves every texture coordinate into the rectangle at (u0, v0) of size (du, dv): the part of a
// shared picture (an atlas) that the mesh shows.
void gltf_author_uv_rect(gltf_author_mesh* m, size_t first_vertex, float u0, float v0, float du, float dv);
// Moves the vertices from first_vertex on by (x, y, z): parts built about the origin, placed in a mesh.
void gltf_author_translate(gltf_author_mesh* m, size_t first_vertex, float x, float y, float z);
inline size_t gltf_author_vertex_count(const gltf_author_mesh* m) { return m->position.size() / 3; }

// A surface of revolution round y: surface(p, n, t, ring, side) gives the point at ring 0..rings
// (top to bottom) and side 0..sides; the quads are wound counter-clockwise seen from outside, or
// from inside when `inward` (the normals then point in). u runs round, v down.
template <typename Surface>
void gltf_author_revolve(gltf_author_mesh* m, uint32_t rings, uint32_t sides, bool inward, Surface surface)
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
                gltf_author_vertex(m, p, n, t, (float)(s + c[1]) / (float)sides, (float)(r + c[0]) / (float)rings);
            }
}

void gltf_author_sphere(gltf_author_mesh* m, float radius, uint32_t rings, uint32_t sides, bool inward);
// An open cylinder round y from y0 up to y1 (its side only), `rings` bands high.
void gltf_author_tube(gltf_author_mesh* m, float radius, float y0, float y1, uint32_t rings, uint32_t sides);
// A flat polygon at height y facing up (or down when !up): a fan from the centre to the closed
// outline of `count` points (x, z pairs, counter-clockwise seen from above). Texture coordinates
// map x and z from -extent..extent to 0..1.
void gltf_author_cap(gltf_author_mesh* m, const float* outline, uint32_t count, float y, bool up, float extent);
// The outline prism: the side wall from y0 to y1 with outward normals per face (flat-shaded
// walls, u from 0 to 1 round the outline, v from 0 at the top to 1 at the bottom), and the caps
// that `caps` asks for: the one at y1 facing up, the one at y0 facing down (a part that stands
// on something needs no bottom, and the renderer draws back faces too).
// GLTF_AUTHOR_NO_WALL leaves the side wall out: a flat plate, for parts whose thin side is
// never worth its triangles.
enum gltf_author_caps {
    GLTF_AUTHOR_CAP_TOP = 1,
    GLTF_AUTHOR_CAP_BOTTOM = 2,
    GLTF_AUTHOR_CAPS_BOTH = 3,
    GLTF_AUTHOR_NO_WALL = 4
};
void gltf_author_prism(gltf_author_mesh* m, const float* outline, uint32_t count, float y0, float y1, float extent,
                       uint32_t caps);
// The outline of a gear round y: `teeth` teeth of four points each (root, tip, tip, root),
// counter-clockwise seen from above, 8 x teeth floats.
std::vector<float> gltf_author_gear_outline(uint32_t teeth, float root_radius, float tip_radius);
// A gear round y from y0 to y1 with that outline: its wall (unless GLTF_AUTHOR_NO_WALL), and the
// faces `caps` asks for.
void gltf_author_gear(gltf_author_mesh* m, uint32_t teeth, float root_radius, float tip_radius, float y0, float y1,
                      uint32_t caps);
// A square of `size` in the y = 0 plane facing up, cut into cells so that clipping stays local;
// the texture repeats `repeat` times across it.
void gltf_author_ground(gltf_author_mesh* m, float size, uint32_t cells, float repeat);
// A cube of side `size` about the origin, each face its own four corners of the texture.
void gltf_author_cube(gltf_author_mesh* m, float size);

// ---- the model's JSON and binary buffer ----

struct gltf_author_model {
    nlohmann::json gltf;
    std::vector<uint8_t> bin;
};

// The asset header, the scene index and one linear sampler that every texture uses.
void gltf_author_begin(gltf_author_model* model, const char* generator);
// A buffer view and accessor over the floats or bytes (type "VEC3", ...; `components` per
// element); with bounds, the accessor carries min and max. Returns the accessor index.
uint32_t gltf_author_accessor(gltf_author_model* model, const std::vector<float>& values, const char* type,
                              uint32_t components, bool with_bounds = false);
uint32_t gltf_author_accessor(gltf_author_model* model, const std::vector<uint8_t>& values, const char* type,
                              uint32_t components);
// A mesh of one primitive; returns the mesh index.
uint32_t gltf_author_add_mesh(gltf_author_model* model, const char* name, const gltf_author_mesh* m,
                              uint32_t material);
// A material whose base colour is the image `name`.png; returns the material index.
uint32_t gltf_author_add_material(gltf_author_model* model, const char* name);
uint32_t gltf_author_add_node(gltf_author_model* model, nlohmann::json node);
// An accessor of the key times 0, step, 2 step, ... (`keys` of them), for the channels.
uint32_t gltf_author_key_times(gltf_author_model* model, uint32_t keys, float step);

// One animation: channels sampled at the same evenly spaced keys.
struct gltf_author_animation {
    gltf_author_model* model;
    nlohmann::json animation;  // {"name": ...} to begin with
    uint32_t times;            // the key times' accessor
    uint32_t keys;
    float step;
};

// A linear channel whose key k holds value(k x step); path "translation" or "scale" take 3
// components, "rotation" 4. Rotation keys are put on the side of the one before: the player's
// slerp does not choose the shorter way.
template <typename Value>
void gltf_author_channel(gltf_author_animation* a, uint32_t node, const char* path, uint32_t components, Value value)
{
    std::vector<float> out;
    float previous[4] = {0, 0, 0, 0};
    for (uint32_t k = 0; k < a->keys; k++) {
        float v[4] = {0, 0, 0, 0};
        value((float)k * a->step, v);
        const float dot = v[0] * previous[0] + v[1] * previous[1] + v[2] * previous[2] + v[3] * previous[3];
        if (components == 4 && dot < 0.0f)
            for (float& c : v)
                c = -c;
        for (uint32_t i = 0; i < 4; i++)
            previous[i] = v[i];
        out.insert(out.end(), v, v + components);
    }
    const uint32_t output = gltf_author_accessor(a->model, out, components == 4 ? "VEC4" : "VEC3", components);
    a->animation["samplers"].push_back({{"input", a->times}, {"output", output}, {"interpolation", "LINEAR"}});
    a->animation["channels"].push_back(
        {{"sampler", a->animation["samplers"].size() - 1}, {"target", {{"node", node}, {"path", path}}}});
}

// q = rotation by `angle` radians about the unit axis (x, y, z), as x, y, z, w.
void gltf_author_quat_axis(float* q, float x, float y, float z, float angle);
// r = a b (b applied first).
void gltf_author_quat_mul(float* r, const float* a, const float* b);

// ---- images and files ----

typedef void gltf_author_paint_fn(uint8_t* rgba, float u, float v);

// A width x height sRGB picture, each texel painted at its centre's (u, v), opaque.
bitmap* gltf_author_picture(xmemarena* arena, uint32_t width, uint32_t height, gltf_author_paint_fn* paint);
// The same, square.
bitmap* gltf_author_image(xmemarena* arena, uint32_t side, gltf_author_paint_fn* paint);
// Writes dir/<name>.bin and dir/<name>.gltf (the buffer's URI set to <name>.bin), each safely.
void gltf_author_write(gltf_author_model* model, const char* dir, const char* name);
// Writes the picture as a direct-colour (ARGB1555, swizzled, no mips) texture resource, as the
// scene's special node needs it.
void gltf_author_write_direct_texture(const bitmap* bm, const char* path, xmemarena* arena, xmemarena* tmp);
// dir/name, for messages and writes.
std::string gltf_author_path(const char* dir, const std::string& name);
