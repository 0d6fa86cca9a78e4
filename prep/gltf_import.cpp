// The glTF 2.0 importer; what it converts and what it refuses is listed in gltf_import.h.
//
// The model is parsed by tinygltf into its C++ records; everything read from them is checked
// here before use (tinygltf checks the JSON's shape, not that indices and byte ranges agree).
// The conversion first builds plain intermediate records that refer to each other by index,
// then lays the datapack's records out in the arena with pointers, as mad_datapack_write
// expects them (every pointer an element of the datapack's own arrays).
#include "gltf_import.h"

#include <sys/stat.h>

#include <cerrno>
#include <cfloat>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <algorithm>
#include <array>
#include <map>
#include <set>

#include <tiny_gltf.h>

// The pictures glTF models carry are PNG or JPEG. stb_image is compiled static here: the image
// library keeps its own PNG-only copy, and neither exports it.
#define STB_IMAGE_STATIC
#define STB_IMAGE_IMPLEMENTATION
#define STBI_ONLY_PNG
#define STBI_ONLY_JPEG
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wunused-function"
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"
#pragma GCC diagnostic ignored "-Wshadow"
#endif
#include <stb_image.h>
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif

#include "bitmap.h"
#include "diag.h"
#include "mad_anim.h"
#include "color_quantize.h"
#include "n3d_convert.h"
#include "n3d_io.h"
#include "n3d_pipeline.h"
#include "prep_file.h"
#include "reel.h"

namespace tg = tinygltf;

// ---- context and messages ----

struct gltf_image_state {
    std::string failure;  // why the picture could not be decoded, or empty
};

struct gltf_ctx {
    const tg::Model* model;
    xmemarena* arena;
    xmemarena* tmp;
    const gltf_import_options* options;
    gltf_import_result* result;
    std::string* error;
};

static std::string gltf_format(const char* fmt, va_list args)
{
    char text[1024];
    vsnprintf(text, sizeof(text), fmt, args);
    return text;
}

// Sets the error and returns false, so that callers can `return gltf_fail(...)`.
static bool gltf_fail(gltf_ctx* c, const char* fmt, ...) DIAG_PRINTF(2, 3);
static bool gltf_fail(gltf_ctx* c, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    *c->error = gltf_format(fmt, args);
    va_end(args);
    return false;
}

static void gltf_note(gltf_ctx* c, const char* fmt, ...) DIAG_PRINTF(2, 3);
static void gltf_note(gltf_ctx* c, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    c->result->notes.push_back(gltf_format(fmt, args));
    va_end(args);
}

// A number of the JSON text or of an accessor that becomes a float must fit one.
static bool gltf_finite(double v) { return std::isfinite(v) && fabs(v) <= FLT_MAX; }

// ---- accessors ----

enum : int {
    GLTF_BYTE = 5120,
    GLTF_UNSIGNED_BYTE = 5121,
    GLTF_SHORT = 5122,
    GLTF_UNSIGNED_SHORT = 5123,
    GLTF_UNSIGNED_INT = 5125,
    GLTF_FLOAT = 5126,
};

static uint32_t gltf_component_size(int type)
{
    switch (type) {
    case GLTF_BYTE:
    case GLTF_UNSIGNED_BYTE: return 1;
    case GLTF_SHORT:
    case GLTF_UNSIGNED_SHORT: return 2;
    case GLTF_UNSIGNED_INT:
    case GLTF_FLOAT: return 4;
    default: return 0;
    }
}

static uint32_t gltf_type_components(int type)
{
    switch (type) {
    case TINYGLTF_TYPE_SCALAR: return 1;
    case TINYGLTF_TYPE_VEC2: return 2;
    case TINYGLTF_TYPE_VEC3: return 3;
    case TINYGLTF_TYPE_VEC4: return 4;
    case TINYGLTF_TYPE_MAT4: return 16;
    default: return 0;  // MAT2 and MAT3 have padded columns and no use here
    }
}

// An accessor whose every element lies inside its buffer: element i starts at base + i * stride.
struct gltf_accessor_view {
    const uint8_t* base;
    uint64_t stride;
    uint32_t count;
    uint32_t components;
    int component_type;
    bool normalized;
};

static bool gltf_accessor_open(gltf_ctx* c, int index, const char* what, gltf_accessor_view* v)
{
    const tg::Model* m = c->model;
    if (index < 0 || (size_t)index >= m->accessors.size())
        return gltf_fail(c, "%s: accessor %d does not exist (%zu accessors)", what, index, m->accessors.size());
    const tg::Accessor& a = m->accessors[(size_t)index];
    const uint32_t size = gltf_component_size(a.componentType);
    const uint32_t components = gltf_type_components(a.type);
    if (size == 0)
        return gltf_fail(c, "%s: accessors[%d] has component type %d, which glTF does not define", what, index,
                         a.componentType);
    if (components == 0)
        return gltf_fail(c, "%s: accessors[%d] has type %d, which is not read here", what, index, a.type);
    if (a.sparse.isSparse)
        return gltf_fail(c, "%s: accessors[%d] is sparse, which is not read here", what, index);
    if (a.count == 0 || a.count > N3D_IO_MAX_VERTICES)
        return gltf_fail(c, "%s: accessors[%d] has count %zu (1 to %u are read)", what, index, a.count,
                         N3D_IO_MAX_VERTICES);
    const uint64_t element = (uint64_t)size * components;
    *v = {nullptr, element, (uint32_t)a.count, components, a.componentType, a.normalized};
    // without a view the accessor is all zeros: legal, but only of use with sparse values
    if (a.bufferView < 0)
        return gltf_fail(c, "%s: accessors[%d] has no buffer view (all zeros), which is not read here", what, index);
    if ((size_t)a.bufferView >= m->bufferViews.size())
        return gltf_fail(c, "%s: accessors[%d] refers to buffer view %d (%zu views)", what, index, a.bufferView,
                         m->bufferViews.size());
    const tg::BufferView& bv = m->bufferViews[(size_t)a.bufferView];
    if (bv.buffer < 0 || (size_t)bv.buffer >= m->buffers.size())
        return gltf_fail(c, "%s: bufferViews[%d] refers to buffer %d (%zu buffers)", what, a.bufferView, bv.buffer,
                         m->buffers.size());
    const std::vector<unsigned char>& data = m->buffers[(size_t)bv.buffer].data;
    if (bv.byteOffset > data.size() || bv.byteLength > data.size() - bv.byteOffset)
        return gltf_fail(c, "%s: bufferViews[%d] spans bytes %zu to %zu of buffers[%d], which holds %zu", what,
                         a.bufferView, bv.byteOffset, bv.byteOffset + bv.byteLength, bv.buffer, data.size());
    if (bv.byteStride != 0) {
        if (bv.byteStride < element || bv.byteStride % size != 0)
            return gltf_fail(c, "%s: bufferViews[%d] has stride %zu, but accessors[%d] has elements of %llu bytes",
                             what, a.bufferView, bv.byteStride, index, (unsigned long long)element);
        v->stride = bv.byteStride;
    }
    const uint64_t needed = (uint64_t)a.byteOffset + v->stride * (a.count - 1) + element;
    if (a.byteOffset > bv.byteLength || needed > bv.byteLength)
        return gltf_fail(c, "%s: accessors[%d] needs %llu bytes from offset %zu of bufferViews[%d], which holds %zu",
                         what, index, (unsigned long long)(needed - a.byteOffset), a.byteOffset, a.bufferView,
                         bv.byteLength);
    v->base = data.data() + bv.byteOffset + a.byteOffset;
    return true;
}

static double gltf_component_value(const uint8_t* p, int type, bool normalized)
{
    switch (type) {
    case GLTF_FLOAT: {
        float f;
        memcpy(&f, p, 4);
        return f;
    }
    case GLTF_BYTE: {
        const double v = (int8_t)p[0];
        return normalized ? fmax(v / 127.0, -1.0) : v;
    }
    case GLTF_UNSIGNED_BYTE: return normalized ? p[0] / 255.0 : p[0];
    case GLTF_SHORT: {
        int16_t s;
        memcpy(&s, p, 2);
        return normalized ? fmax(s / 32767.0, -1.0) : s;
    }
    case GLTF_UNSIGNED_SHORT: {
        uint16_t s;
        memcpy(&s, p, 2);
        return normalized ? s / 65535.0 : s;
    }
    default: {
        uint32_t u;
        memcpy(&u, p, 4);
        return u;
    }
    }
}

// count x components floats; the accessor must have `components` per element. Integer
// component types are read as glTF defines them (normalized or as plain numbers).
static bool gltf_read_floats(gltf_ctx* c, int index, uint32_t components, const char* what, std::vector<float>* out,
                             uint32_t* count)
{
    gltf_accessor_view v;
    if (!gltf_accessor_open(c, index, what, &v))
        return false;
    if (v.components != components)
        return gltf_fail(c, "%s: accessors[%d] has %u components per element, %u expected", what, index, v.components,
                         components);
    out->assign((size_t)v.count * components, 0.0f);
    const uint32_t size = gltf_component_size(v.component_type);
    for (uint32_t i = 0; i < v.count; i++) {
        for (uint32_t k = 0; k < components; k++) {
            const double value = gltf_component_value(v.base + i * v.stride + k * size, v.component_type, v.normalized);
            if (!gltf_finite(value))
                return gltf_fail(c, "%s: accessors[%d] element %u holds a value that is not finite", what, index, i);
            (*out)[(size_t)i * components + k] = (float)value;
        }
    }
    *count = v.count;
    return true;
}

// Unsigned integers (indices, joints): the component type must be an unsigned integer type.
static bool gltf_read_uints(gltf_ctx* c, int index, uint32_t components, const char* what,
                            std::vector<uint32_t>* out, uint32_t* count)
{
    gltf_accessor_view v;
    if (!gltf_accessor_open(c, index, what, &v))
        return false;
    if (v.components != components)
        return gltf_fail(c, "%s: accessors[%d] has %u components per element, %u expected", what, index, v.components,
                         components);
    if (v.component_type != GLTF_UNSIGNED_BYTE && v.component_type != GLTF_UNSIGNED_SHORT &&
        v.component_type != GLTF_UNSIGNED_INT)
        return gltf_fail(c, "%s: accessors[%d] has component type %d, an unsigned integer type expected", what, index,
                         v.component_type);
    out->assign((size_t)v.count * components, 0);
    const uint32_t size = gltf_component_size(v.component_type);
    for (uint32_t i = 0; i < v.count; i++)
        for (uint32_t k = 0; k < components; k++)
            (*out)[(size_t)i * components + k] =
                (uint32_t)gltf_component_value(v.base + i * v.stride + k * size, v.component_type, false);
    *count = v.count;
    return true;
}

// ---- intermediate records ----

struct gltf_out_image {
    std::string name;   // resource base name
    std::string source;  // for the report
    int gltf_image;      // -1: the colour swatch
    std::vector<std::array<float, 3>> cells;  // the swatch's colours, linear RGB
    bool direct = false;  // written as ARGB1555 for the direct node
};

struct gltf_out_material {
    int image;  // into the output images
    int cell;   // the material's colour in the swatch, or -1 for a textured material
    vec4 factor;
};

struct gltf_out_primitive {
    n3d_vertices vertices;
    int material;        // into the output materials
    uint32_t joint_end;  // largest joint index + 1, 0 without joints
};

struct gltf_out_sampler {
    uint32_t interpolation;
    std::vector<float> input;
    std::vector<float> output;
};

struct gltf_out_channel {
    uint32_t node, path, sampler;
};

struct gltf_out_animation {
    std::string name;
    std::vector<gltf_out_sampler> samplers;
    std::vector<gltf_out_channel> channels;
};

struct gltf_out {
    std::vector<gltf_out_image> images;
    std::vector<gltf_out_material> materials;  // glTF materials first, then the default one
    int default_material = -1;
    int swatch = -1;  // the image of the untextured materials' colours
    int direct_swatch = -1;
    std::set<std::string> image_names;
    std::vector<std::vector<gltf_out_primitive>> meshes;
    std::vector<gltf_out_animation> animations;
};

// ---- names ----

// Resource names go into manifests (no spaces) and scene arguments (no commas).
std::string gltf_import_sanitize(const std::string& text)
{
    std::string out;
    for (char ch : text) {
        const bool ok = (ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z') || (ch >= '0' && ch <= '9') ||
                        ch == '_' || ch == '-' || ch == '.';
        out += ok ? ch : '_';
    }
    return out;
}

std::string gltf_import_name_from_path(const char* path)
{
    std::string base = path;
    base = base.substr(base.find_last_of('/') + 1);
    const size_t dot = base.find_last_of('.');
    return gltf_import_sanitize(dot == std::string::npos || dot == 0 ? base : base.substr(0, dot));
}

// A node's name in the datapack: its own, or "node<index>" for an unnamed one.
static std::string gltf_node_name(const tg::Model* m, size_t index)
{
    return m->nodes[index].name.empty() ? "node" + std::to_string(index) : m->nodes[index].name;
}

static std::string gltf_unique_image_name(gltf_out* out, const std::string& name)
{
    std::string candidate = name;
    for (uint32_t k = 2; out->image_names.count(candidate); k++)
        candidate = name + "_" + std::to_string(k);
    out->image_names.insert(candidate);
    return candidate;
}

static std::string gltf_image_base_name(const tg::Image& image, int index)
{
    if (!image.name.empty())
        return image.name;
    if (!image.uri.empty() && image.uri.compare(0, 5, "data:") != 0) {
        std::string base = image.uri.substr(image.uri.find_last_of('/') + 1);
        return base.substr(0, base.find_last_of('.'));
    }
    return "image" + std::to_string(index);
}

// ---- materials and images ----

// Untextured materials share one texture: a swatch of 4 x 4 cells, one per distinct colour,
// which their primitives' texture coordinates all point into the middle of (so that one
// shade table serves every such material: the scene caches only ten).
// The direct node has a swatch of its own, in the direct format.
static bool gltf_swatch_cell(gltf_ctx* c, gltf_out* out, gltf_out_material* mat, const char* what, bool direct = false)
{
    int* swatch = direct ? &out->direct_swatch : &out->swatch;
    if (*swatch < 0) {
        gltf_out_image im;
        im.name = gltf_unique_image_name(
            out, gltf_import_sanitize(std::string(c->options->name) + (direct ? "_colors_direct" : "_colors")));
        im.source = "the base colours of untextured materials";
        im.gltf_image = -1;
        im.direct = direct;
        *swatch = (int)out->images.size();
        out->images.push_back(im);
    }
    std::vector<std::array<float, 3>>& cells = out->images[(size_t)*swatch].cells;
    const std::array<float, 3> rgb = {mat->factor[0], mat->factor[1], mat->factor[2]};
    size_t k = 0;
    while (k < cells.size() && cells[k] != rgb)
        k++;
    if (k == cells.size()) {
        if (k == GLTF_IMPORT_SWATCH_CELLS)
            return gltf_fail(c, "%s: more than %u distinct colours of untextured materials", what,
                             GLTF_IMPORT_SWATCH_CELLS);
        cells.push_back(rgb);
    }
    mat->image = *swatch;
    mat->cell = (int)k;
    return true;
}

static bool gltf_convert_materials(gltf_ctx* c, gltf_out* out)
{
    const tg::Model* m = c->model;
    std::map<int, int> image_slot;  // glTF image -> output image
    for (size_t i = 0; i < m->materials.size(); i++) {
        const tg::PbrMetallicRoughness& pbr = m->materials[i].pbrMetallicRoughness;
        gltf_out_material mat = {-1, -1, {1, 1, 1, 1}};
        if (pbr.baseColorFactor.size() == 4)
            for (int k = 0; k < 4; k++) {
                if (!gltf_finite(pbr.baseColorFactor[(size_t)k]))
                    return gltf_fail(c, "materials[%zu].pbrMetallicRoughness.baseColorFactor is not finite", i);
                mat.factor[k] = (float)pbr.baseColorFactor[(size_t)k];
            }
        const int t = pbr.baseColorTexture.index;
        if (t >= 0 && (size_t)t >= m->textures.size())
            return gltf_fail(c, "materials[%zu].pbrMetallicRoughness.baseColorTexture refers to texture %d (%zu textures)",
                             i, t, m->textures.size());
        const int source = t >= 0 ? m->textures[(size_t)t].source : -1;
        if (source >= 0 && (size_t)source >= m->images.size())
            return gltf_fail(c, "textures[%d] refers to image %d (%zu images)", t, source, m->images.size());
        const std::string label = "materials[" + std::to_string(i) + "]";
        if (pbr.baseColorTexture.extensions.count("KHR_texture_transform"))
            gltf_note(c, "%s: KHR_texture_transform of the base colour texture is not applied", label.c_str());
        if (m->materials[i].alphaMode == "BLEND" || m->materials[i].alphaMode == "MASK")
            gltf_note(c, "%s: alphaMode %s: drawn opaque", label.c_str(), m->materials[i].alphaMode.c_str());
        if (t >= 0 && source < 0)
            gltf_note(c, "%s: textures[%d] has no image glTF defines (an extension's?): the base colour factor is used",
                      label.c_str(), t);
        if (source >= 0 && m->images[(size_t)source].image.empty())
            gltf_note(c, "%s: images[%d] (\"%s\") could not be loaded: the base colour factor is used instead",
                      label.c_str(), source, m->images[(size_t)source].uri.substr(0, 200).c_str());
        if (source < 0 || m->images[(size_t)source].image.empty()) {
            if (!gltf_swatch_cell(c, out, &mat, label.c_str()))
                return false;
        } else {
            auto found = image_slot.find(source);
            if (found == image_slot.end()) {
                gltf_out_image im;
                im.name = gltf_unique_image_name(
                    out, gltf_import_sanitize(std::string(c->options->name) + "_" +
                                       gltf_image_base_name(m->images[(size_t)source], source)));
                im.source = "images[" + std::to_string(source) + "]";
                im.gltf_image = source;
                found = image_slot.emplace(source, (int)out->images.size()).first;
                out->images.push_back(im);
            }
            mat.image = found->second;
        }
        out->materials.push_back(mat);
    }
    return true;
}

// glTF's default material, white, for primitives without one; -1 after an error.
static int gltf_default_material(gltf_ctx* c, gltf_out* out)
{
    if (out->default_material < 0) {
        gltf_out_material mat = {-1, -1, {1, 1, 1, 1}};
        if (!gltf_swatch_cell(c, out, &mat, "the default material"))
            return -1;
        out->default_material = (int)out->materials.size();
        out->materials.push_back(mat);
    }
    return out->default_material;
}

// Texture coordinates of the middle of a swatch cell.
static void gltf_swatch_uv(float uv[2], int cell)
{
    const uint32_t side = 1u << GLTF_IMPORT_SWATCH_LOG2, cell_side = side / GLTF_IMPORT_SWATCH_COLUMNS;
    uv[0] = (float)(((uint32_t)cell % GLTF_IMPORT_SWATCH_COLUMNS) * cell_side + cell_side / 2) / (float)side;
    uv[1] = (float)(((uint32_t)cell / GLTF_IMPORT_SWATCH_COLUMNS) * cell_side + cell_side / 2) / (float)side;
}

// ---- meshes ----

// The triangle list of a primitive's index list by its mode (4 list, 5 strip, 6 fan).
static bool gltf_triangulate(gltf_ctx* c, const char* what, int mode, const std::vector<uint32_t>& index,
                             std::vector<uint32_t>* tri)
{
    const size_t n = index.size();
    tri->clear();
    if (mode == TINYGLTF_MODE_TRIANGLES) {
        if (n % 3 != 0)
            return gltf_fail(c, "%s: %zu indices do not make whole triangles", what, n);
        *tri = index;
    } else if (mode == TINYGLTF_MODE_TRIANGLE_STRIP) {
        for (size_t i = 0; i + 2 < n; i++) {
            const bool odd = i & 1;  // every other triangle of a strip is wound the other way
            tri->insert(tri->end(), {index[odd ? i + 1 : i], index[odd ? i : i + 1], index[i + 2]});
        }
    } else {
        for (size_t i = 1; i + 1 < n; i++)
            tri->insert(tri->end(), {index[0], index[i], index[i + 1]});
    }
    return true;
}

// Adds w times the target's values to `base` (count x components).
static bool gltf_add_target(gltf_ctx* c, const tg::Primitive& p, const char* attribute, uint32_t components,
                            const std::vector<double>& weights, std::vector<float>* base, const char* what)
{
    for (size_t t = 0; t < p.targets.size() && t < weights.size(); t++) {
        const auto found = p.targets[t].find(attribute);
        if (found == p.targets[t].end() || weights[t] == 0.0)
            continue;
        std::vector<float> delta;
        uint32_t count = 0;
        const std::string label = std::string(what) + ".targets[" + std::to_string(t) + "]." + attribute;
        if (!gltf_read_floats(c, found->second, components, label.c_str(), &delta, &count))
            return false;
        if (delta.size() != base->size())
            return gltf_fail(c, "%s: %u elements, but the primitive has %zu vertices", label.c_str(), count,
                             base->size() / components);
        for (size_t k = 0; k < base->size(); k++)
            (*base)[k] += (float)weights[t] * delta[k];
    }
    return true;
}

static void gltf_any_perpendicular(vec3 out, const vec3 n)
{
    const vec3 axis = {fabsf(n[0]) < 0.9f ? 1.0f : 0.0f, fabsf(n[0]) < 0.9f ? 0.0f : 1.0f, 0.0f};
    vec3 t;
    vec3_mul_cross(t, axis, n);
    vec3_norm(out, t);
}

// Tangents per indexed vertex from the texture coordinates' gradients over each triangle.
static void gltf_accumulate_tangents(const std::vector<uint32_t>& tri, const std::vector<float>& pos,
                                     const std::vector<float>& uv, std::vector<float>* tan, std::vector<float>* bit)
{
    tan->assign(pos.size(), 0.0f);
    bit->assign(pos.size(), 0.0f);
    for (size_t i = 0; i + 2 < tri.size(); i += 3) {
        const uint32_t a = tri[i], b = tri[i + 1], d = tri[i + 2];
        vec3 e1, e2;
        vec3_sub(e1, &pos[b * 3], &pos[a * 3]);
        vec3_sub(e2, &pos[d * 3], &pos[a * 3]);
        const float du1 = uv[b * 2] - uv[a * 2], dv1 = uv[b * 2 + 1] - uv[a * 2 + 1];
        const float du2 = uv[d * 2] - uv[a * 2], dv2 = uv[d * 2 + 1] - uv[a * 2 + 1];
        const float det = du1 * dv2 - du2 * dv1;
        if (!(fabsf(det) > 1e-20f))
            continue;  // no texture gradient on this triangle
        const float r = 1.0f / det;
        for (uint32_t v : {a, b, d})
            for (int k = 0; k < 3; k++) {
                (*tan)[v * 3 + k] += (e1[k] * dv2 - e2[k] * dv1) * r;
                (*bit)[v * 3 + k] += (e2[k] * du1 - e1[k] * du2) * r;
            }
    }
}

template <typename T>
static T* gltf_push_array(xmemarena* arena, uint64_t count)
{
    return (T*)xmemarena_push_align(arena, sizeof(T) * (count ? count : 1), 32);
}

// The four largest (joint, weight) pairs of all sets, weights scaled to sum to 1.
static void gltf_top_four(const std::vector<std::vector<uint32_t>>& joints,
                          const std::vector<std::vector<float>>& weights, uint32_t v, uint32_t out_joint[4],
                          float out_weight[4], bool* dropped)
{
    for (int k = 0; k < 4; k++) {
        out_joint[k] = 0;
        out_weight[k] = 0.0f;
    }
    for (size_t s = 0; s < joints.size(); s++) {
        for (uint32_t k = 0; k < 4; k++) {
            const uint32_t j = joints[s][v * 4 + k];
            const float w = weights[s][v * 4 + k];
            int slot = -1;
            for (int q = 0; q < 4; q++)
                if (w > out_weight[q] && (slot < 0 || out_weight[q] < out_weight[slot]))
                    slot = q;
            if (slot < 0) {
                *dropped = *dropped || w > 0.0f;
                continue;
            }
            *dropped = *dropped || out_weight[slot] > 0.0f;
            out_joint[slot] = j;
            out_weight[slot] = w;
        }
    }
    const float sum = out_weight[0] + out_weight[1] + out_weight[2] + out_weight[3];
    for (int q = 0; q < 4 && sum > 0.0f; q++)
        out_weight[q] /= sum;
}

static bool gltf_convert_primitive(gltf_ctx* c, gltf_out* out, size_t mesh_index, size_t prim_index,
                                   gltf_out_primitive* result, bool* keep)
{
    const tg::Mesh& mesh = c->model->meshes[mesh_index];
    const tg::Primitive& p = mesh.primitives[prim_index];
    const std::string label = "meshes[" + std::to_string(mesh_index) + "].primitives[" + std::to_string(prim_index) + "]";
    const char* what = label.c_str();
    *keep = false;
    if (p.mode >= TINYGLTF_MODE_POINTS && p.mode <= TINYGLTF_MODE_LINE_STRIP) {
        gltf_note(c, "%s: mode %d (points or lines) is left out: only triangles are drawn", what, p.mode);
        return true;
    }
    if (p.mode != TINYGLTF_MODE_TRIANGLES && p.mode != TINYGLTF_MODE_TRIANGLE_STRIP &&
        p.mode != TINYGLTF_MODE_TRIANGLE_FAN)
        return gltf_fail(c, "%s: mode %d is not a glTF primitive mode", what, p.mode);
    if (p.mode != TINYGLTF_MODE_TRIANGLES)
        gltf_note(c, "%s: triangle %s converted to a triangle list", what,
                  p.mode == TINYGLTF_MODE_TRIANGLE_STRIP ? "strip" : "fan");

    // positions and the triangle list
    const auto position = p.attributes.find("POSITION");
    if (position == p.attributes.end())
        return gltf_fail(c, "%s: has no POSITION attribute", what);
    std::vector<float> pos;
    uint32_t n = 0;
    if (!gltf_read_floats(c, position->second, 3, (label + ".attributes.POSITION").c_str(), &pos, &n))
        return false;
    std::vector<uint32_t> index, tri;
    if (p.indices >= 0) {
        uint32_t count = 0;
        if (!gltf_read_uints(c, p.indices, 1, (label + ".indices").c_str(), &index, &count))
            return false;
        for (uint32_t i = 0; i < count; i++)
            if (index[i] >= n)
                return gltf_fail(c, "%s.indices: index %u at position %u is out of range (%u vertices)", what,
                                 index[i], i, n);
    } else {
        for (uint32_t i = 0; i < n; i++)
            index.push_back(i);
    }
    if (!gltf_triangulate(c, what, p.mode, index, &tri))
        return false;
    if (tri.size() > N3D_IO_MAX_VERTICES)
        return gltf_fail(c, "%s: %zu triangle corners, at most %u are stored", what, tri.size(), N3D_IO_MAX_VERTICES);

    // attributes of every indexed vertex
    auto read_attribute = [&](const char* name, uint32_t components, std::vector<float>* values) -> int {
        const auto found = p.attributes.find(name);
        if (found == p.attributes.end())
            return 0;
        uint32_t count = 0;
        if (!gltf_read_floats(c, found->second, components, (label + ".attributes." + name).c_str(), values, &count))
            return -1;
        if (count != n)
            return gltf_fail(c, "%s.attributes.%s: %u elements, but POSITION has %u", what, name, count, n), -1;
        return 1;
    };
    std::vector<float> normal, tangent, uv;
    const int has_normal = read_attribute("NORMAL", 3, &normal);
    const int has_tangent = read_attribute("TANGENT", 4, &tangent);
    int material = p.material;
    if (material >= 0 && (size_t)material >= c->model->materials.size())
        return gltf_fail(c, "%s: material %d does not exist (%zu materials)", what, material,
                         c->model->materials.size());
    const int tex_coord =
        material >= 0 ? c->model->materials[(size_t)material].pbrMetallicRoughness.baseColorTexture.texCoord : 0;
    const std::string uv_name = "TEXCOORD_" + std::to_string(tex_coord < 0 ? 0 : tex_coord);
    const int has_uv = read_attribute(uv_name.c_str(), 2, &uv);
    if (has_normal < 0 || has_tangent < 0 || has_uv < 0)
        return false;
    if (!has_uv)
        uv.assign((size_t)n * 2, 0.0f);

    if (!p.targets.empty()) {
        if (!gltf_add_target(c, p, "POSITION", 3, mesh.weights, &pos, what) ||
            (has_normal && !gltf_add_target(c, p, "NORMAL", 3, mesh.weights, &normal, what)))
            return false;
        gltf_note(c, "%s: %zu morph targets baked in at the mesh's default weights", what, p.targets.size());
    }

    // joints and weights, every set
    std::vector<std::vector<uint32_t>> joint_sets;
    std::vector<std::vector<float>> weight_sets;
    for (uint32_t s = 0;; s++) {
        const std::string jn = "JOINTS_" + std::to_string(s), wn = "WEIGHTS_" + std::to_string(s);
        const auto j = p.attributes.find(jn), w = p.attributes.find(wn);
        if (j == p.attributes.end() && w == p.attributes.end())
            break;
        if (j == p.attributes.end() || w == p.attributes.end())
            return gltf_fail(c, "%s: has %s without %s", what, (j == p.attributes.end() ? wn : jn).c_str(),
                             (j == p.attributes.end() ? jn : wn).c_str());
        std::vector<uint32_t> joints;
        std::vector<float> weights;
        uint32_t count = 0;
        if (!gltf_read_uints(c, j->second, 4, (label + ".attributes." + jn).c_str(), &joints, &count))
            return false;
        if (count != n)
            return gltf_fail(c, "%s.attributes.%s: %u elements, but POSITION has %u", what, jn.c_str(), count, n);
        if (read_attribute(wn.c_str(), 4, &weights) < 0)
            return false;
        joint_sets.push_back(joints);
        weight_sets.push_back(weights);
    }

    // the triangle list with every attribute per corner
    const uint32_t corners = (uint32_t)tri.size();
    n3d_vertices* v = &result->vertices;
    memset(v, 0, sizeof(*v));
    v->count = corners;
    v->xyz = gltf_push_array<float>(c->arena, (uint64_t)corners * 3);
    v->uv0 = gltf_push_array<float>(c->arena, (uint64_t)corners * 2);
    v->n_xyz = gltf_push_array<float>(c->arena, (uint64_t)corners * 3);
    v->t_xyz = gltf_push_array<float>(c->arena, (uint64_t)corners * 3);
    v->b_xyz = gltf_push_array<float>(c->arena, (uint64_t)corners * 3);
    std::vector<float> acc_tan, acc_bit;
    if (!has_tangent)
        gltf_accumulate_tangents(tri, pos, uv, &acc_tan, &acc_bit);
    if (!has_normal)
        gltf_note(c, "%s: has no normals: flat normals computed", what);
    for (uint32_t k = 0; k < corners; k++) {
        const uint32_t i = tri[k];
        memcpy(&v->xyz[k * 3], &pos[i * 3], 12);
        memcpy(&v->uv0[k * 2], &uv[i * 2], 8);
        vec3 nrm;
        if (has_normal) {
            vec3_dup(nrm, &normal[i * 3]);
        } else {
            const uint32_t first = k - k % 3;
            vec3 e1, e2;
            vec3_sub(e1, &pos[tri[first + 1] * 3], &pos[tri[first] * 3]);
            vec3_sub(e2, &pos[tri[first + 2] * 3], &pos[tri[first] * 3]);
            vec3_mul_cross(nrm, e1, e2);
        }
        if (vec3_len(nrm) > 1e-20f)
            vec3_norm(nrm, nrm);
        else
            vec3_set(nrm, 0, 0, 1);
        vec3 t, b;
        float handedness = 1.0f;
        if (has_tangent) {
            vec3_dup(t, &tangent[i * 4]);
            handedness = tangent[i * 4 + 3] < 0 ? -1.0f : 1.0f;
        } else {
            vec3_dup(t, &acc_tan[i * 3]);
        }
        // Gram-Schmidt against the normal; a tangent along the normal (or none) takes any perpendicular
        vec3 along;
        vec3_scale(along, nrm, vec3_mul_inner(nrm, t));
        vec3_sub(t, t, along);
        if (vec3_len(t) > 1e-12f)
            vec3_norm(t, t);
        else
            gltf_any_perpendicular(t, nrm);
        vec3_mul_cross(b, nrm, t);
        if (!has_tangent && vec3_mul_inner(b, &acc_bit[i * 3]) < 0.0f)
            handedness = -1.0f;
        vec3_scale(b, b, handedness);
        memcpy(&v->n_xyz[k * 3], nrm, 12);
        memcpy(&v->t_xyz[k * 3], t, 12);
        memcpy(&v->b_xyz[k * 3], b, 12);
    }
    if (!joint_sets.empty()) {
        v->joints = gltf_push_array<uint8_t>(c->arena, (uint64_t)corners * 4);
        v->weights = gltf_push_array<float>(c->arena, (uint64_t)corners * 4);
        bool dropped = false;
        for (uint32_t k = 0; k < corners; k++) {
            uint32_t joint[4];
            gltf_top_four(joint_sets, weight_sets, tri[k], joint, &v->weights[k * 4], &dropped);
            for (int q = 0; q < 4; q++) {
                if (joint[q] > GLTF_IMPORT_MAX_JOINT)
                    return gltf_fail(c, "%s: joint %u of vertex %u is above %u, the largest a vertex can name", what,
                                     joint[q], tri[k], GLTF_IMPORT_MAX_JOINT);
                // a joint without weight still has to name a joint of the skin
                if (v->weights[k * 4 + q] > 0.0f && joint[q] + 1 > result->joint_end)
                    result->joint_end = joint[q] + 1;
                v->joints[k * 4 + q] = (uint8_t)(v->weights[k * 4 + q] > 0.0f ? joint[q] : 0);
            }
        }
        if (joint_sets.size() > 1)
            gltf_note(c, "%s: %zu joint sets%s", what, joint_sets.size(),
                      dropped ? ": the four largest weights of each vertex kept and scaled to sum to 1"
                              : " (no vertex has more than four weights)");
    }
    result->material = material >= 0 ? material : gltf_default_material(c, out);
    if (result->material < 0)
        return false;
    const int cell = out->materials[(size_t)result->material].cell;
    for (uint32_t k = 0; cell >= 0 && k < corners; k++)
        gltf_swatch_uv(&v->uv0[k * 2], cell);
    *keep = true;
    return true;
}

static bool gltf_convert_meshes(gltf_ctx* c, gltf_out* out)
{
    const tg::Model* m = c->model;
    for (size_t i = 0; i < m->meshes.size(); i++) {
        std::vector<gltf_out_primitive> prims;
        for (size_t j = 0; j < m->meshes[i].primitives.size(); j++) {
            gltf_out_primitive p = {};
            bool keep = false;
            if (!gltf_convert_primitive(c, out, i, j, &p, &keep))
                return false;
            if (keep) {
                prims.push_back(p);
                c->result->triangle_count += p.vertices.count / 3;
            }
        }
        out->meshes.push_back(prims);
    }
    return true;
}

// ---- animations ----

static void gltf_hermite(float* out, const float* v0, const float* b0, const float* v1, const float* a1, float dt,
                         float s, uint32_t n)
{
    const float s2 = s * s, s3 = s2 * s;
    for (uint32_t k = 0; k < n; k++)
        out[k] = (2 * s3 - 3 * s2 + 1) * v0[k] + (s3 - 2 * s2 + s) * dt * b0[k] + (-2 * s3 + 3 * s2) * v1[k] +
                 (s3 - s2) * dt * a1[k];
}

static bool gltf_convert_sampler(gltf_ctx* c, const char* what, const tg::AnimationSampler& s, uint32_t path,
                                 gltf_out_sampler* out)
{
    const uint32_t n = path == MAD_PATH_ROTATION ? 4 : 3;
    std::vector<float> input, output;
    uint32_t keys = 0, values = 0;
    if (!gltf_read_floats(c, s.input, 1, (std::string(what) + ".input").c_str(), &input, &keys) ||
        !gltf_read_floats(c, s.output, n, (std::string(what) + ".output").c_str(), &output, &values))
        return false;
    for (uint32_t k = 1; k < keys; k++)
        if (!(input[k] >= input[k - 1]))
            return gltf_fail(c, "%s.input: key time %u (%g) is before key time %u (%g)", what, k, (double)input[k],
                             k - 1, (double)input[k - 1]);
    const bool spline = s.interpolation == "CUBICSPLINE";
    if (values != (spline ? 3 * keys : keys))
        return gltf_fail(c, "%s: %u key times but %u output values (%s needs %u)", what, keys, values,
                         s.interpolation.c_str(), spline ? 3 * keys : keys);
    out->interpolation = s.interpolation == "STEP" ? MAD_INTERPOLATION_STEP : MAD_INTERPOLATION_LINEAR;
    if (!spline) {
        out->input = input;
        out->output = output;
    } else {
        // element k is in-tangent (3k), value (3k + 1), out-tangent (3k + 2)
        for (uint32_t k = 0; k + 1 < keys; k++) {
            const float dt = input[k + 1] - input[k];
            for (uint32_t j = 0; j < GLTF_IMPORT_SPLINE_STEPS; j++) {
                const float sj = (float)j / GLTF_IMPORT_SPLINE_STEPS;
                float value[4];
                gltf_hermite(value, &output[(3 * k + 1) * n], &output[(3 * k + 2) * n], &output[(3 * k + 4) * n],
                             &output[(3 * k + 3) * n], dt, sj, n);
                out->input.push_back(input[k] + sj * dt);
                out->output.insert(out->output.end(), value, value + n);
            }
        }
        out->input.push_back(input[keys - 1]);
        out->output.insert(out->output.end(), &output[(3 * (keys - 1) + 1) * n], &output[(3 * (keys - 1) + 1) * n] + n);
    }
    if (path == MAD_PATH_ROTATION) {
        for (size_t k = 0; k < out->input.size(); k++) {
            float* q = &out->output[k * 4];
            const float len = vec4_len(q);
            if (!(len > 1e-6f))
                return gltf_fail(c, "%s.output: rotation key %zu is not a rotation (length %g)", what, k, (double)len);
            vec4_scale(q, q, 1.0f / len);
            if (k > 0 && vec4_mul_inner(q, q - 4) < 0.0f)
                vec4_scale(q, q, -1.0f);
        }
    }
    return true;
}

static bool gltf_convert_animations(gltf_ctx* c, gltf_out* out)
{
    const tg::Model* m = c->model;
    for (size_t i = 0; i < m->animations.size(); i++) {
        const tg::Animation& a = m->animations[i];
        gltf_out_animation oa;
        oa.name = a.name.empty() ? "animation" + std::to_string(i) : a.name;
        std::map<std::pair<int, uint32_t>, uint32_t> made;  // (glTF sampler, path) -> output sampler
        for (size_t j = 0; j < a.channels.size(); j++) {
            const tg::AnimationChannel& ch = a.channels[j];
            const std::string label = "animations[" + std::to_string(i) + "].channels[" + std::to_string(j) + "]";
            const uint32_t path = ch.target_path == "translation" ? (uint32_t)MAD_PATH_TRANSLATION
                                  : ch.target_path == "rotation"  ? (uint32_t)MAD_PATH_ROTATION
                                  : ch.target_path == "scale"     ? (uint32_t)MAD_PATH_SCALE
                                                                  : 0u;
            if (path == 0) {
                gltf_note(c, "%s: path \"%s\" is left out (nodes animate translation, rotation and scale only)",
                          label.c_str(), ch.target_path.substr(0, 64).c_str());
                continue;
            }
            if (ch.target_node < 0) {
                gltf_note(c, "%s: has no target node and is left out", label.c_str());
                continue;
            }
            if ((size_t)ch.target_node >= m->nodes.size())
                return gltf_fail(c, "%s: target node %d does not exist (%zu nodes)", label.c_str(), ch.target_node,
                                 m->nodes.size());
            if (ch.sampler < 0 || (size_t)ch.sampler >= a.samplers.size())
                return gltf_fail(c, "%s: sampler %d does not exist (%zu samplers)", label.c_str(), ch.sampler,
                                 a.samplers.size());
            const auto key = std::make_pair(ch.sampler, path == MAD_PATH_ROTATION ? 4u : 3u);
            auto found = made.find(key);
            if (found == made.end()) {
                const std::string sampler_label =
                    "animations[" + std::to_string(i) + "].samplers[" + std::to_string(ch.sampler) + "]";
                gltf_out_sampler os;
                if (!gltf_convert_sampler(c, sampler_label.c_str(), a.samplers[(size_t)ch.sampler], path, &os))
                    return false;
                if (a.samplers[(size_t)ch.sampler].interpolation == "CUBICSPLINE")
                    gltf_note(c, "%s: CUBICSPLINE resampled into linear keys, %u per segment", sampler_label.c_str(),
                              GLTF_IMPORT_SPLINE_STEPS);
                found = made.emplace(key, (uint32_t)oa.samplers.size()).first;
                oa.samplers.push_back(os);
            }
            oa.channels.push_back({(uint32_t)ch.target_node, path, found->second});
        }
        out->animations.push_back(oa);
    }
    return true;
}

// ---- nodes, skins and cameras ----

static bool gltf_vector(gltf_ctx* c, const char* what, const std::vector<double>& values, size_t size, float* out)
{
    if (values.empty())
        return true;
    if (values.size() != size)
        return gltf_fail(c, "%s has %zu numbers, %zu expected", what, values.size(), size);
    for (size_t k = 0; k < size; k++) {
        if (!gltf_finite(values[k]))
            return gltf_fail(c, "%s holds a number that is not finite", what);
        out[k] = (float)values[k];
    }
    return true;
}

// Splits a column-major affine matrix into translation, rotation and scale.
static bool gltf_decompose(gltf_ctx* c, const char* what, const float* m16, mad_node* n)
{
    mat4x4 m;
    mat4x4_set(m, m16);
    vec3_set(n->translation, m[3][0], m[3][1], m[3][2]);
    vec3 col[3];
    for (int k = 0; k < 3; k++) {
        vec3_set(col[k], m[k][0], m[k][1], m[k][2]);
        n->scale[k] = vec3_len(col[k]);
        if (!(n->scale[k] > 1e-12f))
            return gltf_fail(c, "%s: the matrix has a zero scale", what);
        vec3_scale(col[k], col[k], 1.0f / n->scale[k]);
    }
    for (int k = 0; k < 3; k++)
        if (fabsf(vec3_mul_inner(col[k], col[(k + 1) % 3])) > 1e-3f)
            return gltf_fail(c, "%s: the matrix shears, which translation, rotation and scale cannot hold", what);
    vec3 cross;
    vec3_mul_cross(cross, col[0], col[1]);
    if (vec3_mul_inner(cross, col[2]) < 0) {  // a mirror: one negative scale
        n->scale[2] = -n->scale[2];
        vec3_scale(col[2], col[2], -1.0f);
    }
    // rotation matrix to quaternion (x, y, z, w); R[row][column] = col[column][row]
    const float trace = col[0][0] + col[1][1] + col[2][2];
    quat q;
    if (trace > 0) {
        const float s = sqrtf(trace + 1.0f) * 2;
        q[3] = 0.25f * s;
        q[0] = (col[1][2] - col[2][1]) / s;
        q[1] = (col[2][0] - col[0][2]) / s;
        q[2] = (col[0][1] - col[1][0]) / s;
    } else if (col[0][0] > col[1][1] && col[0][0] > col[2][2]) {
        const float s = sqrtf(1.0f + col[0][0] - col[1][1] - col[2][2]) * 2;
        q[3] = (col[1][2] - col[2][1]) / s;
        q[0] = 0.25f * s;
        q[1] = (col[1][0] + col[0][1]) / s;
        q[2] = (col[2][0] + col[0][2]) / s;
    } else if (col[1][1] > col[2][2]) {
        const float s = sqrtf(1.0f + col[1][1] - col[0][0] - col[2][2]) * 2;
        q[3] = (col[2][0] - col[0][2]) / s;
        q[0] = (col[1][0] + col[0][1]) / s;
        q[1] = 0.25f * s;
        q[2] = (col[2][1] + col[1][2]) / s;
    } else {
        const float s = sqrtf(1.0f + col[2][2] - col[0][0] - col[1][1]) * 2;
        q[3] = (col[0][1] - col[1][0]) / s;
        q[0] = (col[2][0] + col[0][2]) / s;
        q[1] = (col[2][1] + col[1][2]) / s;
        q[2] = 0.25f * s;
    }
    vec4_norm(n->rotation, q);
    return true;
}

static char* gltf_push_string(xmemarena* arena, const std::string& text)
{
    const size_t len = strlen(text.c_str());  // a name with a NUL inside ends there, as the file stores it
    auto* s = (char*)xmemarena_push(arena, len + 1);
    memcpy(s, text.c_str(), len + 1);
    return s;
}

static bool gltf_convert_nodes(gltf_ctx* c, const gltf_out* out, mad_datapack* d)
{
    const tg::Model* m = c->model;
    std::vector<int> parent(m->nodes.size(), -1);
    for (size_t i = 0; i < m->nodes.size(); i++) {
        const tg::Node& g = m->nodes[i];
        mad_node* n = &d->nodes[i];
        memset(n, 0, sizeof(*n));
        const std::string label = "nodes[" + std::to_string(i) + "]";
        n->name = gltf_push_string(c->arena, gltf_node_name(m, i));
        vec3_set(n->scale, 1, 1, 1);
        vec4_set(n->rotation, 0, 0, 0, 1);
        if (!g.matrix.empty()) {
            float m16[16] = {};
            if (!gltf_vector(c, (label + ".matrix").c_str(), g.matrix, 16, m16) ||
                !gltf_decompose(c, (label + ".matrix").c_str(), m16, n))
                return false;
        }
        if (!gltf_vector(c, (label + ".translation").c_str(), g.translation, 3, n->translation) ||
            !gltf_vector(c, (label + ".rotation").c_str(), g.rotation, 4, n->rotation) ||
            !gltf_vector(c, (label + ".scale").c_str(), g.scale, 3, n->scale))
            return false;
        if (!(vec4_len(n->rotation) > 1e-6f))
            return gltf_fail(c, "%s.rotation is not a rotation (length 0)", label.c_str());
        vec4_norm(n->rotation, n->rotation);
        if (g.mesh >= 0 && (size_t)g.mesh >= m->meshes.size())
            return gltf_fail(c, "%s: mesh %d does not exist (%zu meshes)", label.c_str(), g.mesh, m->meshes.size());
        if (g.skin >= 0 && (size_t)g.skin >= m->skins.size())
            return gltf_fail(c, "%s: skin %d does not exist (%zu skins)", label.c_str(), g.skin, m->skins.size());
        if (g.camera >= 0 && (size_t)g.camera >= m->cameras.size())
            return gltf_fail(c, "%s: camera %d does not exist (%zu cameras)", label.c_str(), g.camera,
                             m->cameras.size());
        n->mesh = g.mesh >= 0 ? &d->meshes[g.mesh] : nullptr;
        n->skin = g.skin >= 0 ? &d->skins[g.skin] : nullptr;
        n->camera = g.camera >= 0 ? &d->cameras[g.camera] : nullptr;
        if (g.mesh >= 0 && g.skin >= 0) {
            const size_t joints = m->skins[(size_t)g.skin].joints.size();
            for (size_t j = 0; j < out->meshes[(size_t)g.mesh].size(); j++)
                if (out->meshes[(size_t)g.mesh][j].joint_end > joints)
                    return gltf_fail(c, "%s: meshes[%d] names joint %u, but skins[%d] has %zu joints", label.c_str(),
                                     g.mesh, out->meshes[(size_t)g.mesh][j].joint_end - 1, g.skin, joints);
        }
        n->child_count = (uint32_t)g.children.size();
        n->children = gltf_push_array<uint32_t>(c->arena, n->child_count);
        for (size_t k = 0; k < g.children.size(); k++) {
            const int child = g.children[k];
            if (child < 0 || (size_t)child >= m->nodes.size())
                return gltf_fail(c, "%s.children: node %d does not exist (%zu nodes)", label.c_str(), child,
                                 m->nodes.size());
            if (parent[(size_t)child] >= 0)
                return gltf_fail(c, "nodes[%d] is a child of both nodes[%d] and nodes[%zu]", child,
                                 parent[(size_t)child], i);
            parent[(size_t)child] = (int)i;
            n->children[k] = (uint32_t)child;
        }
    }
    // with one parent each, a walk up that meets a node of the same walk goes round a cycle;
    // nodes already known to lead to a root end a walk, so every node is walked once
    std::vector<uint8_t> state(m->nodes.size(), 0);  // 0 not seen, 1 on this walk, 2 leads to a root
    for (size_t i = 0; i < m->nodes.size(); i++) {
        d->nodes[i].parent = parent[i] >= 0 ? &d->nodes[parent[i]] : nullptr;
        int p = (int)i;
        while (p >= 0 && state[(size_t)p] == 0) {
            state[(size_t)p] = 1;
            p = parent[(size_t)p];
        }
        if (p >= 0 && state[(size_t)p] == 1)
            return gltf_fail(c, "nodes[%d] is its own ancestor: the node hierarchy has a cycle", p);
        for (p = (int)i; p >= 0 && state[(size_t)p] == 1; p = parent[(size_t)p])
            state[(size_t)p] = 2;
    }
    return true;
}

static bool gltf_convert_skins(gltf_ctx* c, mad_datapack* d)
{
    const tg::Model* m = c->model;
    for (size_t i = 0; i < m->skins.size(); i++) {
        const tg::Skin& s = m->skins[i];
        mad_skin* k = &d->skins[i];
        const std::string label = "skins[" + std::to_string(i) + "]";
        k->joint_count = (uint32_t)s.joints.size();
        k->joints = gltf_push_array<uint32_t>(c->arena, k->joint_count);
        k->inverse_bind_matrices = gltf_push_array<mat4x4>(c->arena, k->joint_count);
        k->bind_matrices = gltf_push_array<mat4x4>(c->arena, k->joint_count);
        for (size_t j = 0; j < s.joints.size(); j++) {
            if (s.joints[j] < 0 || (size_t)s.joints[j] >= m->nodes.size())
                return gltf_fail(c, "%s.joints[%zu]: node %d does not exist (%zu nodes)", label.c_str(), j,
                                 s.joints[j], m->nodes.size());
            k->joints[j] = (uint32_t)s.joints[j];
            mat4x4_identity(k->inverse_bind_matrices[j]);
        }
        if (s.inverseBindMatrices >= 0) {
            std::vector<float> values;
            uint32_t count = 0;
            if (!gltf_read_floats(c, s.inverseBindMatrices, 16, (label + ".inverseBindMatrices").c_str(), &values,
                                  &count))
                return false;
            if (count < k->joint_count)
                return gltf_fail(c, "%s.inverseBindMatrices: %u matrices for %u joints", label.c_str(), count,
                                 k->joint_count);
            for (uint32_t j = 0; j < k->joint_count; j++)
                mat4x4_set(k->inverse_bind_matrices[j], &values[(size_t)j * 16]);
        }
        for (uint32_t j = 0; j < k->joint_count; j++)
            mat4x4_invert(k->bind_matrices[j], k->inverse_bind_matrices[j]);
    }
    return true;
}

static bool gltf_convert_cameras(gltf_ctx* c, mad_datapack* d)
{
    const tg::Model* m = c->model;
    for (size_t i = 0; i < m->cameras.size(); i++) {
        const tg::Camera& g = m->cameras[i];
        mad_camera* k = &d->cameras[i];
        memset(k, 0, sizeof(*k));
        double znear, zfar;
        if (g.type == "perspective") {
            const tg::PerspectiveCamera& p = g.perspective;
            if (!gltf_finite(p.yfov) || !(p.yfov > 0.0 && p.yfov < M_PI) || !gltf_finite(p.aspectRatio))
                return gltf_fail(c, "cameras[%zu].perspective: yfov %g is not between 0 and pi", i, p.yfov);
            k->type = 0;
            k->persp_a = (float)p.aspectRatio;
            k->yfov = (float)p.yfov;
            znear = p.znear;
            zfar = p.zfar;
        } else if (g.type == "orthographic") {
            const tg::OrthographicCamera& o = g.orthographic;
            if (!gltf_finite(o.xmag) || !gltf_finite(o.ymag))
                return gltf_fail(c, "cameras[%zu].orthographic: xmag or ymag is not finite", i);
            k->type = 1;
            k->ortho_a = (float)o.xmag;
            k->ortho_b = (float)o.ymag;
            znear = o.znear;
            zfar = o.zfar;
            gltf_note(c, "cameras[%zu] is orthographic: the show draws through a camera's yfov, which it lacks", i);
        } else {
            return gltf_fail(c, "cameras[%zu] has type \"%s\" (perspective or orthographic)", i,
                             g.type.substr(0, 64).c_str());
        }
        if (!gltf_finite(znear) || !gltf_finite(zfar) || znear < 0.0)
            return gltf_fail(c, "cameras[%zu]: znear %g or zfar %g is not a distance", i, znear, zfar);
        if (znear < GLTF_IMPORT_MIN_ZNEAR) {
            gltf_note(c, "cameras[%zu]: znear %g moved out to %g, the nearest plane the renderer takes", i, znear,
                      (double)GLTF_IMPORT_MIN_ZNEAR);
            znear = GLTF_IMPORT_MIN_ZNEAR;
        }
        k->znear = (float)znear;
        k->range_a = (float)zfar;
    }
    return true;
}

// ---- textures ----

static uint32_t gltf_texture_log2(uint32_t side)
{
    // the power of two nearest in ratio: sides up to 1.41 x 2^k become 2^k
    uint32_t log2 = 0;
    while (log2 < 31 && (double)(1u << (log2 + 1)) <= side * 1.0)
        log2++;
    if (log2 < 31 && side > (double)(1u << log2) * M_SQRT2)
        log2++;
    log2 = log2 < GLTF_IMPORT_MIN_TEXTURE_LOG2 ? GLTF_IMPORT_MIN_TEXTURE_LOG2 : log2;
    return log2 > GLTF_IMPORT_MAX_TEXTURE_LOG2 ? GLTF_IMPORT_MAX_TEXTURE_LOG2 : log2;
}

// A swizzled format-1 texture with every level down to 4 x 4, each level scaled from the
// source with the Lanczos filter and mapped to the nearest of the quantised palette colours.
static void gltf_make_texture(gltf_ctx* c, gltf_import_texture* out, const bitmap* source, uint32_t mips)
{
    xmemarena* arena = c->arena;
    xmemarena* tmp = c->tmp;
    const uint64_t mark = xmemarena_get_sp(tmp);
    const uint32_t lw = gltf_texture_log2(source->width), lh = gltf_texture_log2(source->height);
    n3d_texture* t = &out->texture;
    memset(t, 0, sizeof(*t));
    t->format = N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555;
    t->linear = 0;
    t->log2_w = lw;
    t->log2_h = lh;
    t->min_log2_w = mips ? GLTF_IMPORT_MIN_TEXTURE_LOG2 : lw;
    t->min_log2_h = mips ? GLTF_IMPORT_MIN_TEXTURE_LOG2 : lh;
    const uint32_t slots = n3d_mip_slot_count(lw, lh, t->min_log2_w, t->min_log2_h);
    t->mips = (void**)xmemarena_push_record(arena, sizeof(void*) * slots);
    t->colors_count = N3D_PALETTE_COLORS;
    t->shades_per_color = N3D_SHADES_PER_COLOR;
    auto* palette = gltf_push_array<uint16_t>(arena, N3D_PALETTE_COLORS);
    t->palette = palette;
    t->shade_table = gltf_push_array<uint16_t>(arena, N3D_PALETTE_COLORS * N3D_SHADES_PER_COLOR);

    bitmap full;
    bitmap_init(&full, tmp, 1u << lw, 1u << lh, BITMAP_SRGB | BITMAP_CHANNELS_4);
    bitmap_downscale(&full, source, BITMAP_FILTER_LANCZOS, tmp);
    for (uint32_t k = 0; k < N3D_PALETTE_COLORS; k++)
        palette[k] = 0x8000;  // unused entries: opaque black, never chosen
    out->colors = color_quantize_palette_argb1555(palette, &full, tmp);
    vec4 linear[N3D_PALETTE_COLORS];
    for (uint32_t k = 0; k < out->colors; k++)
        n3d_argb1555_to_linear(linear[k], palette[k]);
    n3d_texture_build_shade_table_argb1555(t);

    for (uint32_t w = lw + 1; w-- > t->min_log2_w;) {
        for (uint32_t h = lh + 1; h-- > t->min_log2_h;) {
            const uint64_t level_mark = xmemarena_get_sp(tmp);
            bitmap level;
            bitmap_init(&level, tmp, 1u << w, 1u << h, BITMAP_SRGB | BITMAP_CHANNELS_4);
            bitmap_downscale(&level, &full, BITMAP_FILTER_LANCZOS, tmp);
            auto* texels = (uint8_t*)xmemarena_push_zero(arena, n3d_mipmap_size(t->format, 1, w, h));
            t->mips[n3d_mip_slot(t, w, h)] = texels;
            for (uint32_t y = 0; y < level.height; y++)
                for (uint32_t x = 0; x < level.width; x++) {
                    vec4 px;
                    bitmap_decode_pixel(px, bitmap_pixel(&level, x, y), level.flags);
                    const float inv = px[3] > 0 ? 1.0f / px[3] : 0.0f;
                    vec4_set(px, px[0] * inv, px[1] * inv, px[2] * inv, 1.0f);
                    texels[n3d_texel_index(t->format, w, 1, x, y)] = (uint8_t)n3d_color_nearest(linear, out->colors, px);
                }
            xmemarena_set_sp(tmp, level_mark);
        }
    }
    xmemarena_set_sp(tmp, mark);
}

// ARGB1555 (format 2), swizzled: the source scaled to its power-of-two size with the Lanczos
// filter, then the engine's own conversion (levels from the full-size one).
static void gltf_make_direct_texture(gltf_ctx* c, gltf_import_texture* out, const bitmap* source, uint32_t mips)
{
    const uint64_t mark = xmemarena_get_sp(c->tmp);
    bitmap full;
    bitmap_init(&full, c->tmp, 1u << gltf_texture_log2(source->width), 1u << gltf_texture_log2(source->height),
                BITMAP_SRGB | BITMAP_CHANNELS_4);
    bitmap_downscale(&full, source, BITMAP_FILTER_LANCZOS, c->tmp);
    n3d_texture_from_bitmap(&out->texture, c->arena, c->tmp, N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, 1, mips, 1,
                            &full, nullptr, N3D_TRANSPARENT_INDEX_NONE, 0.5f);
    out->colors = 0;
    xmemarena_set_sp(c->tmp, mark);
}

static bool gltf_convert_textures(gltf_ctx* c, const gltf_out* out)
{
    for (const gltf_out_image& im : out->images) {
        gltf_import_texture tex;
        tex.resource = im.name + ".tmap";
        tex.source = im.source;
        const uint64_t mark = xmemarena_get_sp(c->tmp);
        bitmap source;
        if (im.gltf_image >= 0) {
            const tg::Image& g = c->model->images[(size_t)im.gltf_image];
            // the image loader below stores 8-bit RGBA only
            if (g.width <= 0 || g.height <= 0 || g.component != 4 || g.bits != 8 ||
                g.image.size() != (size_t)g.width * (size_t)g.height * 4)
                return gltf_fail(c, "images[%d]: decoded picture of %d x %d has %zu bytes", im.gltf_image, g.width,
                                 g.height, g.image.size());
            source = {(uint8_t*)g.image.data(), BITMAP_SRGB | BITMAP_CHANNELS_4, (uint32_t)g.width * 4,
                      (uint32_t)g.width, (uint32_t)g.height};
        } else {
            // cells without a colour stay black; one level only, so that no cell bleeds into another
            const uint32_t side = 1u << GLTF_IMPORT_SWATCH_LOG2, cell_side = side / GLTF_IMPORT_SWATCH_COLUMNS;
            bitmap_init(&source, c->tmp, side, side, BITMAP_SRGB | BITMAP_CHANNELS_4);
            for (uint32_t y = 0; y < side; y++)
                for (uint32_t x = 0; x < side; x++) {
                    const size_t cell = (y / cell_side) * GLTF_IMPORT_SWATCH_COLUMNS + x / cell_side;
                    vec4 rgba = {0, 0, 0, 1};
                    if (cell < im.cells.size())
                        vec4_set(rgba, im.cells[cell][0], im.cells[cell][1], im.cells[cell][2], 1.0f);
                    bitmap_encode_pixel(bitmap_pixel(&source, x, y), source.flags, rgba);
                }
            tex.source = im.source + " (" + std::to_string(im.cells.size()) + ")";
        }
        tex.source_width = source.width;
        tex.source_height = source.height;
        if (im.direct)
            gltf_make_direct_texture(c, &tex, &source, im.gltf_image >= 0);
        else
            gltf_make_texture(c, &tex, &source, im.gltf_image >= 0);
        xmemarena_set_sp(c->tmp, mark);
        c->result->textures.push_back(tex);
    }
    return true;
}

// ---- assembling the datapack ----

static void gltf_assemble(gltf_ctx* c, const gltf_out* out, mad_datapack* d)
{
    xmemarena* arena = c->arena;
    d->image_count = (uint32_t)out->images.size();
    d->images = gltf_push_array<mad_image>(arena, d->image_count);
    for (uint32_t i = 0; i < d->image_count; i++)
        d->images[i] = {gltf_push_string(arena, out->images[i].name), 0};
    d->material_count = (uint32_t)out->materials.size();
    d->materials = gltf_push_array<mad_material>(arena, d->material_count);
    for (uint32_t i = 0; i < d->material_count; i++) {
        d->materials[i].base_color_image = &d->images[out->materials[i].image];
        vec4_dup(d->materials[i].base_color_factor, out->materials[i].factor);
    }
    for (uint32_t i = 0; i < d->mesh_count; i++) {
        const std::vector<gltf_out_primitive>& prims = out->meshes[i];
        d->meshes[i].primitive_count = (uint32_t)prims.size();
        d->meshes[i].primitives = gltf_push_array<mad_primitive>(arena, prims.size());
        for (size_t j = 0; j < prims.size(); j++)
            d->meshes[i].primitives[j] = {prims[j].vertices, &d->materials[prims[j].material]};
    }
    d->animation_count = (uint32_t)out->animations.size();
    d->animations = gltf_push_array<mad_animation>(arena, d->animation_count);
    for (uint32_t i = 0; i < d->animation_count; i++) {
        const gltf_out_animation& oa = out->animations[i];
        mad_animation* a = &d->animations[i];
        a->name = gltf_push_string(arena, oa.name);
        a->sampler_count = (uint32_t)oa.samplers.size();
        a->samplers = gltf_push_array<mad_sampler>(arena, a->sampler_count);
        for (uint32_t j = 0; j < a->sampler_count; j++) {
            const gltf_out_sampler& os = oa.samplers[j];
            mad_sampler* s = &a->samplers[j];
            s->interpolation = os.interpolation;
            s->input_count = (uint32_t)os.input.size();
            s->output_count = (uint32_t)os.output.size();
            s->input = gltf_push_array<float>(arena, s->input_count);
            s->output = gltf_push_array<float>(arena, s->output_count);
            memcpy(s->input, os.input.data(), sizeof(float) * s->input_count);
            memcpy(s->output, os.output.data(), sizeof(float) * s->output_count);
        }
        a->channel_count = (uint32_t)oa.channels.size();
        a->channels = gltf_push_array<mad_channel>(arena, a->channel_count);
        for (uint32_t j = 0; j < a->channel_count; j++)
            a->channels[j] = {&d->nodes[oa.channels[j].node], &a->samplers[oa.channels[j].sampler],
                              oa.channels[j].path};
    }
}

// The node the scene draws in its second pass needs ARGB1555 textures: its primitives get
// materials of their own whose images are copies written in that format (so that a picture it
// shares with other nodes stays a palette texture for them).
static bool gltf_convert_direct_node(gltf_ctx* c, gltf_out* out)
{
    const tg::Model* m = c->model;
    const char* name = c->options->direct_node;
    size_t node = 0;
    while (node < m->nodes.size() && gltf_node_name(m, node) != name)
        node++;
    if (node == m->nodes.size())
        return gltf_fail(c, "no node is named \"%s\" (the direct node)", name);
    const int mesh = m->nodes[node].mesh;
    if (mesh < 0 || (size_t)mesh >= m->meshes.size())
        return gltf_fail(c, "nodes[%zu] (\"%s\", the direct node) has no mesh", node, name);
    for (size_t i = 0; i < m->nodes.size(); i++)
        if (i != node && m->nodes[i].mesh == mesh)
            return gltf_fail(c, "meshes[%d] of the direct node \"%s\" is also the mesh of nodes[%zu]", mesh, name, i);
    std::map<int, int> direct_image;  // image -> its direct copy
    for (gltf_out_primitive& p : out->meshes[(size_t)mesh]) {
        gltf_out_material mat = out->materials[(size_t)p.material];
        if (mat.cell >= 0) {
            if (!gltf_swatch_cell(c, out, &mat, "the direct node", true))
                return false;
            for (uint32_t k = 0; k < p.vertices.count; k++)
                gltf_swatch_uv(&p.vertices.uv0[k * 2], mat.cell);
        } else {
            auto found = direct_image.find(mat.image);
            if (found == direct_image.end()) {
                gltf_out_image im = out->images[(size_t)mat.image];
                im.name = gltf_unique_image_name(out, im.name + "_direct");
                im.direct = true;
                found = direct_image.emplace(mat.image, (int)out->images.size()).first;
                out->images.push_back(im);
            }
            mat.image = found->second;
        }
        p.material = (int)out->materials.size();
        out->materials.push_back(mat);
    }
    return true;
}

// ---- what the scene needs to play the model as it is ----

// The scene names a camera node, an animation and a special node; a model without them gets
// its own, each under a name no node or animation of the model has.
static std::string gltf_unused_name(const std::vector<std::string>& taken, const char* base)
{
    std::string name = base;
    for (uint32_t k = 1; std::find(taken.begin(), taken.end(), name) != taken.end(); k++)
        name = std::string(base) + "_" + std::to_string(k);
    return name;
}

static bool gltf_has_perspective_camera(const tg::Model* m)
{
    for (const tg::Node& n : m->nodes)
        if (n.camera >= 0 && (size_t)n.camera < m->cameras.size() && m->cameras[(size_t)n.camera].type == "perspective")
            return true;
    return false;
}

static void gltf_init_added_node(mad_node* n, char* name)
{
    memset(n, 0, sizeof(*n));
    n->name = name;
    vec3_set(n->scale, 1, 1, 1);
    vec4_set(n->rotation, 0, 0, 0, 1);
    n->children = nullptr;
}

// The added camera frames the bounding sphere of every mesh vertex at rest, seen from the front,
// a little right and above (glTF's +y is up, a camera looks down its -z).
static bool gltf_place_camera(gltf_ctx* c, const gltf_out* out, mad_datapack* d, mad_node* camera_node)
{
    const tg::Model* m = c->model;
    auto* world = gltf_push_array<mat4x4>(c->tmp, d->node_count);
    mad_compute_world_matrices(world, d, c->tmp);
    vec3 lo = {FLT_MAX, FLT_MAX, FLT_MAX}, hi = {-FLT_MAX, -FLT_MAX, -FLT_MAX};
    for (size_t i = 0; i < m->nodes.size(); i++) {
        if (m->nodes[i].mesh < 0)
            continue;
        for (const gltf_out_primitive& p : out->meshes[(size_t)m->nodes[i].mesh])
            for (uint32_t k = 0; k < p.vertices.count; k++) {
                const vec4 v = {p.vertices.xyz[k * 3], p.vertices.xyz[k * 3 + 1], p.vertices.xyz[k * 3 + 2], 1};
                vec4 w;
                mat4x4_mul_vec4(w, world[i], v);
                for (int j = 0; j < 3; j++) {
                    lo[j] = std::min(lo[j], w[j]);
                    hi[j] = std::max(hi[j], w[j]);
                }
            }
    }
    vec3 centre = {0, 0, 0};
    float radius = 1.0f;  // a model without vertices: a unit sphere about the origin
    if (lo[0] <= hi[0]) {
        vec3 half;
        vec3_add(centre, lo, hi);
        vec3_scale(centre, centre, 0.5f);
        vec3_sub(half, hi, centre);
        radius = std::max(vec3_len(half), 1e-3f);
    }
    // the whole sphere inside the vertical field of view, and beyond the near plane
    const float distance = std::max(radius / sinf(GLTF_IMPORT_ADDED_YFOV * 0.5f), radius + 2 * GLTF_IMPORT_MIN_ZNEAR);
    const vec3 direction_raw = {0.5f, 0.4f, 1.0f};
    vec3 z, x, y, position;
    vec3_norm(z, direction_raw);
    const vec3 up = {0, 1, 0};
    vec3_mul_cross(x, up, z);
    vec3_norm(x, x);
    vec3_mul_cross(y, z, x);
    vec3_scale(position, z, distance);
    vec3_add(position, position, centre);
    const float m16[16] = {x[0], x[1], x[2], 0, y[0], y[1], y[2], 0, z[0], z[1], z[2], 0,
                           position[0], position[1], position[2], 1};
    if (!gltf_finite(distance) || !gltf_decompose(c, "the added camera", m16, camera_node))
        return gltf_fail(c, "the model's bounds are too large to frame with a camera");
    mad_camera* k = camera_node->camera;
    memset(k, 0, sizeof(*k));
    k->yfov = GLTF_IMPORT_ADDED_YFOV;
    k->persp_a = 4.0f / 3.0f;  // the video plane's 320 x 240
    k->znear = std::max(GLTF_IMPORT_MIN_ZNEAR, (distance - radius) * 0.5f);
    k->range_a = (distance + radius) * 2;
    gltf_note(c, "no perspective camera: added node \"%s\" at (%g, %g, %g), %g from the middle (%g, %g, %g) of the "
              "model's bounds (radius %g), yfov %g, znear %g", camera_node->name, (double)position[0],
              (double)position[1], (double)position[2], (double)distance, (double)centre[0], (double)centre[1],
              (double)centre[2], (double)radius, (double)k->yfov, (double)k->znear);
    return true;
}

// A still: one key at 0 s holding nodes[0]'s translation where it stands.
static void gltf_add_still(gltf_ctx* c, gltf_out* out, const mad_datapack* d, const std::vector<std::string>& taken)
{
    gltf_out_animation still;
    still.name = gltf_unused_name(taken, "reel_still");
    gltf_out_sampler s;
    s.interpolation = MAD_INTERPOLATION_LINEAR;
    s.input = {0.0f};
    s.output.assign(d->nodes[0].translation, d->nodes[0].translation + 3);
    still.samplers.push_back(s);
    still.channels.push_back({0, MAD_PATH_TRANSLATION, 0});
    out->animations.push_back(still);
    gltf_note(c, "no animation: added \"%s\", one key at 0 s that holds nodes[0] (\"%s\") where it stands",
              still.name.c_str(), d->nodes[0].name);
}

static bool gltf_convert(gltf_ctx* c)
{
    const tg::Model* m = c->model;
    mad_datapack* d = &c->result->datapack;
    memset(d, 0, sizeof(*d));
    gltf_out out;
    if (!gltf_convert_materials(c, &out) || !gltf_convert_meshes(c, &out) || !gltf_convert_animations(c, &out) ||
        (c->options->direct_node && !gltf_convert_direct_node(c, &out)))
        return false;
    // the scene's camera, special and optional nodes (the optional one is the special one: the
    // scene hides it without a second animation) and its animation
    const bool add_camera = !gltf_has_perspective_camera(m);
    const bool add_special = !c->options->direct_node;
    std::vector<std::string> taken;
    for (size_t i = 0; i < m->nodes.size(); i++)
        taken.push_back(gltf_node_name(m, i));
    for (const gltf_out_animation& a : out.animations)
        taken.push_back(a.name);
    const uint32_t model_nodes = (uint32_t)m->nodes.size();
    d->node_count = model_nodes + add_camera + add_special;
    d->nodes = gltf_push_array<mad_node>(c->arena, d->node_count);
    d->mesh_count = (uint32_t)m->meshes.size();
    d->meshes = gltf_push_array<mad_mesh>(c->arena, d->mesh_count);
    d->skin_count = (uint32_t)m->skins.size();
    d->skins = gltf_push_array<mad_skin>(c->arena, d->skin_count);
    d->camera_count = (uint32_t)m->cameras.size() + add_camera;
    d->cameras = gltf_push_array<mad_camera>(c->arena, d->camera_count);
    if (!gltf_convert_nodes(c, &out, d) || !gltf_convert_skins(c, d) || !gltf_convert_cameras(c, d))
        return false;
    mad_node* special = nullptr;
    if (add_special) {
        special = &d->nodes[model_nodes + add_camera];
        gltf_init_added_node(special, gltf_push_string(c->arena, gltf_unused_name(taken, "reel_special")));
        gltf_note(c, "no special node given (--direct): added node \"%s\" without a mesh, which the scene draws as "
                  "nothing", special->name);
    }
    if (add_camera) {
        mad_node* camera = &d->nodes[model_nodes];
        gltf_init_added_node(camera, gltf_push_string(c->arena, gltf_unused_name(taken, "reel_camera")));
        camera->camera = &d->cameras[d->camera_count - 1];
        const uint64_t mark = xmemarena_get_sp(c->tmp);
        const bool placed = gltf_place_camera(c, &out, d, camera);
        xmemarena_set_sp(c->tmp, mark);
        if (!placed)
            return false;
    }
    if (out.animations.empty())
        gltf_add_still(c, &out, d, taken);
    gltf_assemble(c, &out, d);
    // the names of the scene row that plays the import
    gltf_import_result* r = c->result;
    r->play_animation = d->animations[0].name;
    for (uint32_t i = 0; i < d->node_count && r->play_camera.empty(); i++)
        if (d->nodes[i].camera && d->nodes[i].camera->type == 0)
            r->play_camera = d->nodes[i].name;
    r->play_special = special ? special->name : c->options->direct_node;
    if (!gltf_convert_textures(c, &out))
        return false;
    // what the scene's draw passes take (every node with a mesh draws each of its primitives)
    uint32_t drawn_primitives = 0, drawn_triangles = 0;
    for (uint32_t i = 0; i < d->node_count; i++)
        for (uint32_t j = 0; d->nodes[i].mesh && j < d->nodes[i].mesh->primitive_count; j++) {
            drawn_primitives++;
            drawn_triangles += d->nodes[i].mesh->primitives[j].vertices.count / 3;
        }
    if (drawn_primitives > N3D_PIPELINE_DRAW_CMD_MAX_COUNT || drawn_triangles > N3D_PIPELINE_MAX_PRIMITIVES)
        gltf_note(c, "%u primitives of %u triangles in all: the animated 3D scene draws at most %u primitives and %u "
                  "triangles a pass", drawn_primitives, drawn_triangles, N3D_PIPELINE_DRAW_CMD_MAX_COUNT,
                  N3D_PIPELINE_MAX_PRIMITIVES);
    if (c->result->textures.size() > REEL_SHADE_TABLE_CACHE_MAX)
        gltf_note(c, "%zu textures: the animated 3D scene lights at most %u different textures in one run",
                  c->result->textures.size(), REEL_SHADE_TABLE_CACHE_MAX);
    return true;
}

// ---- loading ----

struct gltf_loader_state {
    uint32_t max_side;
    std::vector<std::string>* notes;
};

// Decodes with stb_image into 8-bit RGBA. A picture that cannot be decoded, or is larger than
// allowed, is left empty (the importer then uses the material's colour and says so) rather
// than failing the whole model.
static bool gltf_load_image(tg::Image* image, const int index, std::string*, std::string*, int, int,
                            const unsigned char* bytes, int size, void* user)
{
    auto* state = (gltf_loader_state*)user;
    int w = 0, h = 0, comp = 0;
    image->image.clear();
    if (!stbi_info_from_memory(bytes, size, &w, &h, &comp)) {
        state->notes->push_back("images[" + std::to_string(index) + "]: not decoded: " + stbi_failure_reason());
        return true;
    }
    if ((uint32_t)w > state->max_side || (uint32_t)h > state->max_side) {
        state->notes->push_back("images[" + std::to_string(index) + "]: " + std::to_string(w) + " x " +
                                std::to_string(h) + " is larger than " + std::to_string(state->max_side) +
                                " a side and not decoded");
        return true;
    }
    stbi_uc* pixels = stbi_load_from_memory(bytes, size, &w, &h, &comp, 4);
    if (!pixels) {
        state->notes->push_back("images[" + std::to_string(index) + "]: not decoded: " + stbi_failure_reason());
        return true;
    }
    image->width = w;
    image->height = h;
    image->component = 4;
    image->bits = 8;
    image->pixel_type = GLTF_UNSIGNED_BYTE;
    image->image.assign(pixels, pixels + (size_t)w * h * 4);
    stbi_image_free(pixels);
    return true;
}

static bool gltf_no_file_exists(const std::string&, void*) { return false; }
static std::string gltf_no_expand(const std::string& path, void*) { return path; }
static bool gltf_no_read(std::vector<unsigned char>*, std::string* err, const std::string& path, void*)
{
    if (err)
        *err += "\"" + path.substr(0, 200) + "\" not read: files beside the model are not read here\n";
    return false;
}
static bool gltf_no_write(std::string*, const std::string&, const std::vector<unsigned char>&, void*) { return false; }

static std::string gltf_trim(std::string text)
{
    while (!text.empty() && (text.back() == '\n' || text.back() == ' '))
        text.pop_back();
    return text.size() > 600 ? text.substr(0, 600) + "..." : text;
}

int gltf_import_memory(gltf_import_result* result, xmemarena* arena, xmemarena* tmp, const uint8_t* data,
                       uint64_t size, uint32_t binary, const char* base_dir, const gltf_import_options* options,
                       std::string* error)
{
    result->datapack_resource = std::string(options->name) + ".mad";
    result->textures.clear();
    result->notes.clear();
    result->triangle_count = 0;
    if (size > 0x7FFFFFFF) {
        *error = "the model is larger than 2 GiB";
        return 1;
    }
    tg::TinyGLTF loader;
    gltf_loader_state state = {options->max_image_side, &result->notes};
    loader.SetImageLoader(gltf_load_image, &state);
    if (!options->allow_files)
        loader.SetFsCallbacks({gltf_no_file_exists, gltf_no_expand, gltf_no_read, gltf_no_write, nullptr});
    tg::Model model;
    std::string err, warn;
    const bool ok = binary ? loader.LoadBinaryFromMemory(&model, &err, &warn, data, (unsigned int)size, base_dir)
                           : loader.LoadASCIIFromString(&model, &err, &warn, (const char*)data, (unsigned int)size,
                                                        base_dir);
    if (!warn.empty())
        result->notes.push_back("glTF reader: " + gltf_trim(warn));
    if (!ok) {
        *error = "not read as glTF 2.0: " + gltf_trim(err.empty() ? warn : err);
        return 1;
    }
    for (const std::string& ext : model.extensionsRequired)
        if (ext != "KHR_materials_pbrSpecularGlossiness" && ext != "KHR_texture_transform" &&
            ext != "KHR_materials_unlit")
            return *error = "extensionsRequired names \"" + ext.substr(0, 64) + "\", which is not read here", 1;
    gltf_ctx c = {&model, arena, tmp, options, result, error};
    return gltf_convert(&c) ? 0 : 1;
}

int gltf_import_file(gltf_import_result* result, xmemarena* arena, xmemarena* tmp, const char* path,
                     const gltf_import_options* options, std::string* error)
{
    FILE* f = fopen(path, "rb");
    if (!f) {
        *error = std::string("cannot open: ") + strerror(errno);
        return 1;
    }
    std::vector<uint8_t> bytes;
    uint8_t block[65536];
    size_t got;
    while ((got = fread(block, 1, sizeof(block), f)) > 0)
        bytes.insert(bytes.end(), block, block + got);
    const int read_error = ferror(f);
    fclose(f);
    if (read_error) {
        *error = std::string("cannot read: ") + strerror(errno);
        return 1;
    }
    const std::string p = path;
    const size_t slash = p.find_last_of('/');
    const std::string base_dir = slash == std::string::npos ? "" : p.substr(0, slash);
    const uint32_t binary = bytes.size() >= 4 && memcmp(bytes.data(), "glTF", 4) == 0;
    return gltf_import_memory(result, arena, tmp, bytes.data(), bytes.size(), binary, base_dir.c_str(), options,
                              error);
}

// ---- writing ----

std::string gltf_import_manifest(const gltf_import_result* result)
{
    std::string text = "madpack " + result->datapack_resource + " " + result->datapack_resource + "\n";
    for (const gltf_import_texture& t : result->textures)
        text += "texture " + t.resource + " " + t.resource + "\n";
    return text;
}

std::string gltf_import_scene_row(const gltf_import_result* r)
{
    return "abs,,0,0,abs,,10000,video_madpack," + r->datapack_resource + ",0,1," + r->play_animation + "," +
           r->play_camera + "," + r->play_special + "," + r->play_special + ",0";
}

static int gltf_mkdirs(const std::string& dir, std::string* error)
{
    for (size_t i = 1; i <= dir.size(); i++) {
        if (i < dir.size() && dir[i] != '/')
            continue;
        const std::string part = dir.substr(0, i);
        struct stat st;
        if (stat(part.c_str(), &st) == 0) {
            if (!S_ISDIR(st.st_mode))
                return *error = part + ": " + strerror(ENOTDIR), 1;
            continue;
        }
        if (mkdir(part.c_str(), 0777) != 0 && errno != EEXIST)
            return *error = part + ": " + strerror(errno), 1;
    }
    return 0;
}

int gltf_import_write(const gltf_import_result* result, const char* outdir, const char* name, xmemarena* tmp,
                      std::string* error)
{
    if (gltf_mkdirs(outdir, error))
        return 1;
    const std::string dir = std::string(outdir) + "/";
    std::vector<std::string> finals;
    const uint64_t mark = xmemarena_get_sp(tmp);
    auto write_block = [&](const std::string& file, const uint8_t* begin, const uint8_t* end) -> int {
        const std::string final_path = dir + file, temp = final_path + ".tmp";
        errno = 0;
        if (n3d_io_write_file(temp.c_str(), begin, end, BYTE_ORDER_NATIVE) != 0)
            return *error = temp + ": " + strerror(errno ? errno : EIO), 1;
        finals.push_back(final_path);
        return 0;
    };
    const mad_datapack* d = &result->datapack;
    const uint64_t dsize = mad_datapack_write_size(d);
    auto* dbytes = (uint8_t*)xmemarena_push_align(tmp, dsize ? dsize : 1, 32);
    int failed = write_block(result->datapack_resource, dbytes, mad_datapack_write(dbytes, d, BYTE_ORDER_NATIVE));
    for (size_t i = 0; !failed && i < result->textures.size(); i++) {
        const n3d_texture* t = &result->textures[i].texture;
        auto* tbytes = (uint8_t*)xmemarena_push_align(tmp, n3d_texture_write_size(t), 32);
        failed = write_block(result->textures[i].resource, tbytes, n3d_texture_write(tbytes, t, BYTE_ORDER_NATIVE));
    }
    if (!failed) {
        const std::string manifest = dir + name + ".manifest", temp = manifest + ".tmp";
        const std::string text = gltf_import_manifest(result);
        errno = 0;
        FILE* f = fopen(temp.c_str(), "wb");
        bool ok = f != nullptr;
        if (f) {
            ok = fwrite(text.data(), 1, text.size(), f) == text.size();
            ok = fclose(f) == 0 && ok;
            finals.push_back(manifest);  // removed below when anything failed
        }
        if (!ok) {
            *error = temp + ": " + strerror(errno ? errno : EIO);
            failed = 1;
        }
    }
    // every file is complete before any takes its final name
    for (const std::string& f : finals) {
        const std::string temp = f + ".tmp";
        if (failed)
            remove(temp.c_str());
        else if (prep_file_commit(temp.c_str(), f.c_str()) != 0 && !failed)
            failed = (*error = f + ": " + strerror(errno), 1);
    }
    xmemarena_set_sp(tmp, mark);
    return failed;
}
