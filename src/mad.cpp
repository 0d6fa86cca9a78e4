// Datapack blocks of animated scenes: the reader that validates a block against its end, its
// counts and its indices before it takes memory or resolves a pointer, the writer in either
// byte order, the file loader, name lookups and the scene's lookup-table check.
#include "mad.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "diag.h"
#include "n3d_io.h"

// The fewest bytes one element of each part of a block can take, so that a count can be
// checked against the bytes left before its array is allocated.
constexpr uint64_t MAD_NODE_MIN_BYTES = 1 + 4 + 10 * 4 + 3 * 4 + 4;  // name, child_count, TRS, mesh/skin/camera, parent
constexpr uint64_t MAD_IMAGE_MIN_BYTES = 1;                          // an empty name
constexpr uint64_t MAD_MATERIAL_BYTES = 4 + 4 * 4;
constexpr uint64_t MAD_MESH_MIN_BYTES = 4;
constexpr uint64_t MAD_SKIN_MIN_BYTES = 4;
constexpr uint64_t MAD_CAMERA_BYTES = 4 + 4 * 4;
constexpr uint64_t MAD_ANIMATION_MIN_BYTES = 1 + 4 + 4;
constexpr uint64_t MAD_PRIMITIVE_MIN_BYTES = 8 + 4;  // vertex flags and count, material
constexpr uint64_t MAD_JOINT_BYTES = 4 + 16 * 4;     // node index and inverse bind matrix
constexpr uint64_t MAD_SAMPLER_MIN_BYTES = 3 * 4;
constexpr uint64_t MAD_CHANNEL_BYTES = 3 * 4;

// ---- reading ----

// "<file>: <message>" through the fatal path, from the reader, so the report names both.
[[noreturn]] static void mad_fail(const stream_cursor* cur, int line, const char* fmt, ...) DIAG_PRINTF(3, 4);

static void mad_fail(const stream_cursor* cur, int line, const char* fmt, ...)
{
    char text[512];
    va_list args;
    va_start(args, fmt);
    vsnprintf(text, sizeof(text), fmt, args);
    va_end(args);
    crash_in("src/mad", line, "mad_datapack_read", "%s: %s", cur->file, text);
}

// count zeroed records from arena (null for none); the count was checked against the block first.
template <class T> static T* mad_push_array(xmemarena* arena, uint64_t count)
{
    auto* array = (T*)xmemarena_push_align(arena, count * sizeof(T), alignof(T));
    if (array)
        memset((void*)array, 0, count * sizeof(T));
    return array;
}

static char* mad_read_string(xmemarena* arena, stream_cursor* cur, const char* what)
{
    const char* text = stream_cursor_string(cur, what);
    const uint64_t size = strlen(text) + 1;
    auto* copy = (char*)xmemarena_push(arena, size);
    memcpy(copy, text, size);
    return copy;
}

enum mad_index_rule {
    MAD_INDEX_ONE_BASED,    // 0 = none, i = element i - 1
    MAD_INDEX_NONE_MARKED,  // 0-based, MAD_INDEX_NONE = none
    MAD_INDEX_ZERO_BASED,   // 0-based, no none
};

static const char* const mad_index_rule_names[] = {"1-based, 0 for none", "0-based, 0xffffffff for none", "0-based"};

// The element an index of the block refers to, null for "none"; fatal when the index lies
// outside the array. owner[owner_index] and field name the place of the index in the message.
template <class T>
static T* mad_resolve(const stream_cursor* cur, uint32_t value, mad_index_rule rule, T* array, uint32_t count,
                      const char* owner, uint32_t owner_index, const char* field, const char* items)
{
    if ((rule == MAD_INDEX_ONE_BASED && value == 0) || (rule == MAD_INDEX_NONE_MARKED && value == MAD_INDEX_NONE))
        return nullptr;
    const uint32_t index = rule == MAD_INDEX_ONE_BASED ? value - 1 : value;
    if (index >= count)
        mad_fail(cur, __LINE__, "%s[%u]: %s %u is out of range (%s; %u %s)\n", owner, owner_index, field, value,
                 mad_index_rule_names[rule], count, items);
    return &array[index];
}

static uint32_t mad_check_node_index(const stream_cursor* cur, uint32_t value, uint32_t node_count,
                                     const char* owner, uint32_t owner_index, const char* field)
{
    if (value >= node_count)
        mad_fail(cur, __LINE__, "%s[%u]: %s %u is out of range (0-based; %u nodes)\n", owner, owner_index, field, value,
                 node_count);
    return value;
}

// World matrices are built from the roots down with a stack of node-count entries, which holds
// only when every node is listed once, by its own parent, and every node has a root above it.
static void mad_check_hierarchy(const stream_cursor* cur, xmemarena* arena, const mad_datapack* d)
{
    const uint64_t mark = xmemarena_get_sp(arena);
    auto* state = mad_push_array<uint8_t>(arena, d->node_count);  // 1 listed by its parent, 2 reached from a root
    auto* stack = mad_push_array<uint32_t>(arena, d->node_count);
    for (uint32_t p = 0; p < d->node_count; p++) {
        const mad_node* parent = &d->nodes[p];
        for (uint32_t j = 0; j < parent->child_count; j++) {
            const uint32_t c = parent->children[j];
            const mad_node* child = &d->nodes[c];
            if (child->parent != parent) {
                if (child->parent)
                    mad_fail(cur, __LINE__, "node[%u] lists node[%u] as a child, but its parent is node[%u]\n", p, c,
                             (uint32_t)(child->parent - d->nodes));
                mad_fail(cur, __LINE__, "node[%u] lists node[%u] as a child, but that node is a root\n", p, c);
            }
            if (state[c])
                mad_fail(cur, __LINE__, "node[%u] lists node[%u] as a child more than once\n", p, c);
            state[c] = 1;
        }
    }
    uint32_t top = 0;
    for (uint32_t i = 0; i < d->node_count; i++) {
        const mad_node* node = &d->nodes[i];
        if (node->parent && !state[i])
            mad_fail(cur, __LINE__, "node[%u] has parent node[%u], which does not list it as a child\n", i,
                     (uint32_t)(node->parent - d->nodes));
        if (!node->parent)
            stack[top++] = i;
    }
    // each node is listed at most once, so the stack never holds more than node_count entries
    while (top) {
        const uint32_t i = stack[--top];
        state[i] = 2;
        for (uint32_t j = 0; j < d->nodes[i].child_count; j++)
            stack[top++] = d->nodes[i].children[j];
    }
    for (uint32_t i = 0; i < d->node_count; i++)
        if (state[i] != 2)
            mad_fail(cur, __LINE__, "node[%u] \"%s\" has no root above it: its parents form a cycle\n", i,
                     d->nodes[i].name);
    xmemarena_set_sp(arena, mark);
}

static void mad_read_node(mad_datapack* d, uint32_t i, xmemarena* arena, stream_cursor* cur)
{
    mad_node* n = &d->nodes[i];
    n->name = mad_read_string(arena, cur, "node name");
    n->child_count = stream_cursor_u32(cur, "node child count");
    stream_cursor_f32_array(cur, n->scale, 3, "node scale");
    stream_cursor_f32_array(cur, n->rotation, 4, "node rotation");
    stream_cursor_f32_array(cur, n->translation, 3, "node translation");
    const uint32_t mesh = stream_cursor_u32(cur, "node mesh");
    const uint32_t skin = stream_cursor_u32(cur, "node skin");
    const uint32_t camera = stream_cursor_u32(cur, "node camera");
    n->mesh = mad_resolve(cur, mesh, MAD_INDEX_ONE_BASED, d->meshes, d->mesh_count, "node", i, "mesh", "meshes");
    n->skin = mad_resolve(cur, skin, MAD_INDEX_ONE_BASED, d->skins, d->skin_count, "node", i, "skin", "skins");
    n->camera =
        mad_resolve(cur, camera, MAD_INDEX_ONE_BASED, d->cameras, d->camera_count, "node", i, "camera", "cameras");
    // the children and the parent index after them
    stream_cursor_need_array(cur, (uint64_t)n->child_count + 1, 4, "node children and parent");
    n->children = mad_push_array<uint32_t>(arena, n->child_count);
    for (uint32_t j = 0; j < n->child_count; j++)
        n->children[j] =
            mad_check_node_index(cur, stream_cursor_u32(cur, "node child"), d->node_count, "node", i, "child");
    const uint32_t parent = stream_cursor_u32(cur, "node parent");
    n->parent = mad_resolve(cur, parent, MAD_INDEX_ONE_BASED, d->nodes, d->node_count, "node", i, "parent", "nodes");
}

static void mad_read_mesh(mad_datapack* d, uint32_t i, xmemarena* arena, stream_cursor* cur)
{
    mad_mesh* m = &d->meshes[i];
    m->primitive_count = stream_cursor_u32(cur, "mesh primitive count");
    stream_cursor_need_array(cur, m->primitive_count, MAD_PRIMITIVE_MIN_BYTES, "mesh primitives");
    m->primitives = mad_push_array<mad_primitive>(arena, m->primitive_count);
    for (uint32_t j = 0; j < m->primitive_count; j++) {
        mad_primitive* p = &m->primitives[j];
        n3d_vertices_read(&p->vertices, arena, cur);
        n3d_vertex_index_build(&p->index, &p->vertices, arena);
        const uint32_t material = stream_cursor_u32(cur, "primitive material");
        p->material = mad_resolve(cur, material, MAD_INDEX_NONE_MARKED, d->materials, d->material_count, "mesh", i,
                                  "primitive material", "materials");
    }
}

static void mad_read_skin(mad_datapack* d, uint32_t i, xmemarena* arena, stream_cursor* cur)
{
    mad_skin* s = &d->skins[i];
    s->joint_count = stream_cursor_u32(cur, "skin joint count");
    stream_cursor_need_array(cur, s->joint_count, MAD_JOINT_BYTES, "skin joints");
    s->joints = mad_push_array<uint32_t>(arena, s->joint_count);
    s->inverse_bind_matrices = mad_push_array<mat4x4>(arena, s->joint_count);
    s->bind_matrices = mad_push_array<mat4x4>(arena, s->joint_count);
    for (uint32_t j = 0; j < s->joint_count; j++)
        s->joints[j] =
            mad_check_node_index(cur, stream_cursor_u32(cur, "skin joint"), d->node_count, "skin", i, "joint");
    for (uint32_t j = 0; j < s->joint_count; j++) {
        // storage order is the file's column-major order
        stream_cursor_f32_array(cur, &s->inverse_bind_matrices[j][0][0], 16, "skin inverse bind matrix");
        mat4x4_invert(s->bind_matrices[j], s->inverse_bind_matrices[j]);
    }
}

// The skinned draw path looks each vertex's four joints up in its node's skin: every joint index
// of a mesh must be below the joint count of each skin the mesh is drawn with.
static void mad_check_vertex_joints(const stream_cursor* cur, const mad_datapack* d)
{
    for (uint32_t i = 0; i < d->node_count; i++) {
        const mad_node* n = &d->nodes[i];
        if (!n->mesh || !n->skin)
            continue;
        for (uint32_t j = 0; j < n->mesh->primitive_count; j++) {
            const n3d_vertices* v = &n->mesh->primitives[j].vertices;
            for (uint64_t k = 0; v->joints && k < (uint64_t)v->count * 4; k++)
                if (v->joints[k] >= n->skin->joint_count)
                    mad_fail(cur, __LINE__,
                             "node[%u]: vertex %llu of primitive %u uses joint %u, its skin has %u joints\n", i,
                             (unsigned long long)(k / 4), j, v->joints[k], n->skin->joint_count);
        }
    }
}

static void mad_read_camera(mad_camera* c, stream_cursor* cur)
{
    c->type = stream_cursor_u32(cur, "camera type");
    c->range_a = stream_cursor_f32(cur, "camera range_a");
    c->znear = stream_cursor_f32(cur, "camera znear");
    if (c->type != 0) {
        c->ortho_a = stream_cursor_f32(cur, "camera ortho_a");
        c->ortho_b = stream_cursor_f32(cur, "camera ortho_b");
    } else {
        c->persp_a = stream_cursor_f32(cur, "camera persp_a");
        c->yfov = stream_cursor_f32(cur, "camera yfov");
    }
}

static uint32_t mad_path_components(uint32_t path) { return path == MAD_PATH_ROTATION ? 4 : 3; }

static void mad_read_animation(mad_datapack* d, uint32_t i, xmemarena* arena, stream_cursor* cur)
{
    mad_animation* a = &d->animations[i];
    a->name = mad_read_string(arena, cur, "animation name");
    a->sampler_count = stream_cursor_u32(cur, "animation sampler count");
    stream_cursor_need_array(cur, a->sampler_count, MAD_SAMPLER_MIN_BYTES, "animation samplers");
    a->samplers = mad_push_array<mad_sampler>(arena, a->sampler_count);
    for (uint32_t j = 0; j < a->sampler_count; j++) {
        mad_sampler* s = &a->samplers[j];
        s->interpolation = stream_cursor_u32(cur, "sampler interpolation");
        s->input_count = stream_cursor_u32(cur, "sampler input count");
        s->output_count = stream_cursor_u32(cur, "sampler output count");
        stream_cursor_need_array(cur, (uint64_t)s->input_count + s->output_count, 4, "sampler keys");
        s->input = mad_push_array<float>(arena, s->input_count);
        s->output = mad_push_array<float>(arena, s->output_count);
        stream_cursor_f32_array(cur, s->input, s->input_count, "sampler input");
        stream_cursor_f32_array(cur, s->output, s->output_count, "sampler output");
        // Not needed for safety, but the key search assumes it; a NaN time fails it too.
        for (uint32_t k = 1; k < s->input_count; k++)
            if (!(s->input[k] >= s->input[k - 1]))
                mad_fail(cur, __LINE__, "animation[%u] sampler[%u]: key time %u (%g) is before key time %u (%g)\n", i,
                         j, k, (double)s->input[k], k - 1, (double)s->input[k - 1]);
    }
    a->channel_count = stream_cursor_u32(cur, "animation channel count");
    stream_cursor_need_array(cur, a->channel_count, MAD_CHANNEL_BYTES, "animation channels");
    a->channels = mad_push_array<mad_channel>(arena, a->channel_count);
    for (uint32_t j = 0; j < a->channel_count; j++) {
        mad_channel* c = &a->channels[j];
        const uint32_t node = stream_cursor_u32(cur, "channel node");
        c->path = stream_cursor_u32(cur, "channel path");
        const uint32_t sampler = stream_cursor_u32(cur, "channel sampler");
        c->node = &d->nodes[mad_check_node_index(cur, node, d->node_count, "animation", i, "channel node")];
        if (c->path < MAD_PATH_TRANSLATION || c->path > MAD_PATH_SCALE)
            mad_fail(cur, __LINE__,
                     "animation[%u] channel[%u]: path %u is not 1 (translation), 2 (rotation) or 3 (scale)\n", i, j,
                     c->path);
        c->sampler = mad_resolve(cur, sampler, MAD_INDEX_ZERO_BASED, a->samplers, a->sampler_count, "animation", i,
                                 "channel sampler", "samplers");
        // evaluation reads the key at or after the time and the one before it, n floats each;
        // more values than that are valid (an interpolation the evaluator leaves alone may have them)
        const uint64_t needed = (uint64_t)c->sampler->input_count * mad_path_components(c->path);
        if (c->sampler->input_count == 0 || c->sampler->output_count < needed)
            mad_fail(cur, __LINE__,
                     "animation[%u] channel[%u]: sampler[%u] has %u keys and %u values, but path %u needs at least "
                     "one key and %u values per key\n",
                     i, j, sampler, c->sampler->input_count, c->sampler->output_count, c->path,
                     mad_path_components(c->path));
    }
}

const uint8_t* mad_datapack_read(mad_datapack* datapack, xmemarena* arena, stream_cursor* cur)
{
    memset(datapack, 0, sizeof(*datapack));
    mad_datapack* d = datapack;
    d->node_count = stream_cursor_u32(cur, "node count");
    d->mesh_count = stream_cursor_u32(cur, "mesh count");
    d->skin_count = stream_cursor_u32(cur, "skin count");
    d->camera_count = stream_cursor_u32(cur, "camera count");
    d->animation_count = stream_cursor_u32(cur, "animation count");
    d->image_count = stream_cursor_u32(cur, "image count");
    d->material_count = stream_cursor_u32(cur, "material count");
    // every part together, so that damaged counts cannot take more memory than the block could describe
    const uint64_t least = d->node_count * MAD_NODE_MIN_BYTES + d->mesh_count * MAD_MESH_MIN_BYTES +
                           d->skin_count * MAD_SKIN_MIN_BYTES + d->camera_count * MAD_CAMERA_BYTES +
                           d->animation_count * MAD_ANIMATION_MIN_BYTES + d->image_count * MAD_IMAGE_MIN_BYTES +
                           d->material_count * MAD_MATERIAL_BYTES;
    if (least > stream_cursor_left(cur))
        mad_fail(cur, __LINE__,
                 "truncated datapack: %u nodes, %u meshes, %u skins, %u cameras, %u animations, %u images and %u "
                 "materials need at least %llu bytes, %llu left\n",
                 d->node_count, d->mesh_count, d->skin_count, d->camera_count, d->animation_count, d->image_count,
                 d->material_count, (unsigned long long)least, (unsigned long long)stream_cursor_left(cur));
    // all arrays first, so that an index into any of them resolves to a pointer at once
    d->nodes = mad_push_array<mad_node>(arena, d->node_count);
    d->meshes = mad_push_array<mad_mesh>(arena, d->mesh_count);
    d->skins = mad_push_array<mad_skin>(arena, d->skin_count);
    d->cameras = mad_push_array<mad_camera>(arena, d->camera_count);
    d->animations = mad_push_array<mad_animation>(arena, d->animation_count);
    d->images = mad_push_array<mad_image>(arena, d->image_count);
    d->materials = mad_push_array<mad_material>(arena, d->material_count);

    for (uint32_t i = 0; i < d->node_count; i++)
        mad_read_node(d, i, arena, cur);
    mad_check_hierarchy(cur, arena, d);
    for (uint32_t i = 0; i < d->image_count; i++)
        d->images[i].name = mad_read_string(arena, cur, "image name");
    for (uint32_t i = 0; i < d->material_count; i++) {
        mad_material* m = &d->materials[i];
        const uint32_t image = stream_cursor_u32(cur, "material base_color_image");
        m->base_color_image = mad_resolve(cur, image, MAD_INDEX_NONE_MARKED, d->images, d->image_count, "material", i,
                                          "base_color_image", "images");
        stream_cursor_f32_array(cur, m->base_color_factor, 4, "material base_color_factor");
    }
    for (uint32_t i = 0; i < d->mesh_count; i++)
        mad_read_mesh(d, i, arena, cur);
    for (uint32_t i = 0; i < d->skin_count; i++)
        mad_read_skin(d, i, arena, cur);
    mad_check_vertex_joints(cur, d);
    for (uint32_t i = 0; i < d->camera_count; i++)
        mad_read_camera(&d->cameras[i], cur);
    for (uint32_t i = 0; i < d->animation_count; i++)
        mad_read_animation(d, i, arena, cur);
    return cur->p;
}

// ---- writing ----

// The position of element in array; fatal for a pointer that is not one of its elements, which
// only a record assembled by hand can hold.
template <class T>
static uint32_t mad_index_of(const T* element, const T* array, uint32_t count, const char* what)
{
    const uintptr_t offset = (uintptr_t)element - (uintptr_t)array;
    if (!array || (uintptr_t)element < (uintptr_t)array || offset % sizeof(T) != 0 || offset / sizeof(T) >= count)
        crash_in("src/mad", __LINE__, "mad_datapack_write", "%s does not point into the datapack's array of %u\n",
                 what, count);
    return (uint32_t)(offset / sizeof(T));
}

template <class T>
static uint8_t* mad_write_one_based(uint8_t* p, const T* element, const T* array, uint32_t count, int32_t order,
                                    const char* what)
{
    return stream_write_u32(p, element ? mad_index_of(element, array, count, what) + 1 : 0, order);
}

template <class T>
static uint8_t* mad_write_none_marked(uint8_t* p, const T* element, const T* array, uint32_t count, int32_t order,
                                      const char* what)
{
    return stream_write_u32(p, element ? mad_index_of(element, array, count, what) : MAD_INDEX_NONE, order);
}

uint64_t mad_datapack_write_size(const mad_datapack* datapack)
{
    const mad_datapack* d = datapack;
    uint64_t bytes = 7 * 4;
    for (uint32_t i = 0; i < d->node_count; i++)
        bytes += strlen(d->nodes[i].name) + MAD_NODE_MIN_BYTES + 4ull * d->nodes[i].child_count;
    for (uint32_t i = 0; i < d->image_count; i++)
        bytes += strlen(d->images[i].name) + 1;
    bytes += d->material_count * MAD_MATERIAL_BYTES;
    for (uint32_t i = 0; i < d->mesh_count; i++) {
        bytes += 4;
        for (uint32_t j = 0; j < d->meshes[i].primitive_count; j++)
            bytes += n3d_vertices_write_size(&d->meshes[i].primitives[j].vertices) + 4;
    }
    for (uint32_t i = 0; i < d->skin_count; i++)
        bytes += 4 + d->skins[i].joint_count * MAD_JOINT_BYTES;
    bytes += d->camera_count * MAD_CAMERA_BYTES;
    for (uint32_t i = 0; i < d->animation_count; i++) {
        const mad_animation* a = &d->animations[i];
        bytes += strlen(a->name) + 1 + 4 + 4 + a->channel_count * MAD_CHANNEL_BYTES;
        for (uint32_t j = 0; j < a->sampler_count; j++)
            bytes += MAD_SAMPLER_MIN_BYTES + 4ull * a->samplers[j].input_count + 4ull * a->samplers[j].output_count;
    }
    return bytes;
}

uint8_t* mad_datapack_write(uint8_t* stream, const mad_datapack* datapack, int32_t order)
{
    const mad_datapack* d = datapack;
    uint8_t* p = stream;
    p = stream_write_u32(p, d->node_count, order);
    p = stream_write_u32(p, d->mesh_count, order);
    p = stream_write_u32(p, d->skin_count, order);
    p = stream_write_u32(p, d->camera_count, order);
    p = stream_write_u32(p, d->animation_count, order);
    p = stream_write_u32(p, d->image_count, order);
    p = stream_write_u32(p, d->material_count, order);

    for (uint32_t i = 0; i < d->node_count; i++) {
        const mad_node* n = &d->nodes[i];
        p = stream_write_string(p, n->name);
        p = stream_write_u32(p, n->child_count, order);
        p = stream_write_f32_array(p, n->scale, 3, order);
        p = stream_write_f32_array(p, n->rotation, 4, order);
        p = stream_write_f32_array(p, n->translation, 3, order);
        p = mad_write_one_based(p, n->mesh, d->meshes, d->mesh_count, order, "node mesh");
        p = mad_write_one_based(p, n->skin, d->skins, d->skin_count, order, "node skin");
        p = mad_write_one_based(p, n->camera, d->cameras, d->camera_count, order, "node camera");
        for (uint32_t j = 0; j < n->child_count; j++)
            p = stream_write_u32(p, n->children[j], order);
        p = mad_write_one_based(p, n->parent, d->nodes, d->node_count, order, "node parent");
    }
    for (uint32_t i = 0; i < d->image_count; i++)
        p = stream_write_string(p, d->images[i].name);
    for (uint32_t i = 0; i < d->material_count; i++) {
        const mad_material* m = &d->materials[i];
        p = mad_write_none_marked(p, m->base_color_image, d->images, d->image_count, order,
                                  "material base_color_image");
        p = stream_write_f32_array(p, m->base_color_factor, 4, order);
    }
    for (uint32_t i = 0; i < d->mesh_count; i++) {
        const mad_mesh* m = &d->meshes[i];
        p = stream_write_u32(p, m->primitive_count, order);
        for (uint32_t j = 0; j < m->primitive_count; j++) {
            p = n3d_vertices_write(p, &m->primitives[j].vertices, order);
            p = mad_write_none_marked(p, m->primitives[j].material, d->materials,
                                      d->material_count, order, "primitive material");
        }
    }
    for (uint32_t i = 0; i < d->skin_count; i++) {
        const mad_skin* s = &d->skins[i];
        p = stream_write_u32(p, s->joint_count, order);
        for (uint32_t j = 0; j < s->joint_count; j++)
            p = stream_write_u32(p, s->joints[j], order);
        for (uint32_t j = 0; j < s->joint_count; j++)
            p = stream_write_f32_array(p, &s->inverse_bind_matrices[j][0][0], 16, order);
    }
    for (uint32_t i = 0; i < d->camera_count; i++) {
        const mad_camera* c = &d->cameras[i];
        p = stream_write_u32(p, c->type, order);
        p = stream_write_f32(p, c->range_a, order);
        p = stream_write_f32(p, c->znear, order);
        p = stream_write_f32(p, c->type != 0 ? c->ortho_a : c->persp_a, order);
        p = stream_write_f32(p, c->type != 0 ? c->ortho_b : c->yfov, order);
    }
    for (uint32_t i = 0; i < d->animation_count; i++) {
        const mad_animation* a = &d->animations[i];
        p = stream_write_string(p, a->name);
        p = stream_write_u32(p, a->sampler_count, order);
        for (uint32_t j = 0; j < a->sampler_count; j++) {
            const mad_sampler* s = &a->samplers[j];
            p = stream_write_u32(p, s->interpolation, order);
            p = stream_write_u32(p, s->input_count, order);
            p = stream_write_u32(p, s->output_count, order);
            p = stream_write_f32_array(p, s->input, s->input_count, order);
            p = stream_write_f32_array(p, s->output, s->output_count, order);
        }
        p = stream_write_u32(p, a->channel_count, order);
        for (uint32_t j = 0; j < a->channel_count; j++) {
            const mad_channel* c = &a->channels[j];
            p = stream_write_u32(p, mad_index_of(c->node, d->nodes, d->node_count, "channel node"),
                                 order);
            p = stream_write_u32(p, c->path, order);
            p = stream_write_u32(p,
                                 mad_index_of(c->sampler, a->samplers, a->sampler_count,
                                              "channel sampler"),
                                 order);
        }
    }
    return p;
}

mad_datapack* mad_datapack_file_load(xmemarena* arena, const char* path)
{
    uint64_t size = 0;
    const uint8_t* data = (const uint8_t*)file_read_arena(path, arena, &size);
    if (!data)
        return nullptr;
    stream_cursor cur;
    stream_cursor_init(&cur, data, size, BYTE_ORDER_NATIVE, path);
    stream_cursor_need(&cur, 4, "endian marker");
    uint32_t marker;
    cur.p = stream_read_u32(&marker, cur.p, BYTE_ORDER_NATIVE);
    cur.order = byte_order_from_marker(marker);
    if (cur.order < 0) {
        printf("%s: first word 0x%08x is 0xabcd in neither byte order\n", path, marker);
        crash_in("src/mad", __LINE__, "mad_datapack_file_load", "invalid endian marker?\n");
    }
    auto* datapack = (mad_datapack*)xmemarena_push_align(arena, sizeof(mad_datapack), alignof(mad_datapack));
    mad_datapack_read(datapack, arena, &cur);
    // a file holds exactly one block: anything after it means a wrong or damaged file
    if (stream_cursor_left(&cur) != 0)
        crash_in("src/mad", __LINE__, "mad_datapack_file_load",
                 "%s: %llu unexpected bytes after the block at offset %llu\n", path,
                 (unsigned long long)stream_cursor_left(&cur), (unsigned long long)stream_cursor_offset(&cur));
    return datapack;
}

// ---- lookups ----

int32_t mad_find_node(const mad_datapack* datapack, const char* name)
{
    for (uint32_t i = 0; i < datapack->node_count; i++)
        if (strcmp(datapack->nodes[i].name, name) == 0)
            return (int32_t)i;
    printf("failed find node \"%s\"\n", name);
    return -1;
}

int32_t mad_find_animation(const mad_datapack* datapack, const char* name)
{
    for (uint32_t i = 0; i < datapack->animation_count; i++)
        if (strcmp(datapack->animations[i].name, name) == 0)
            return (int32_t)i;
    printf("failed find animation \"%s\"\n", name);
    return -1;
}

