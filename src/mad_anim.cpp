// Keyframe evaluation and node matrices of animated scenes, called once per rendered frame.
#include "mad_anim.h"

#include <cstdio>

#include "diag.h"

// Keys closer together than this count as one key: the quotient over their gap would be noise.
constexpr double MAD_MIN_KEY_SPACING = 0.00001;

static uint32_t mad_anim_components(uint32_t path) { return path == MAD_PATH_ROTATION ? 4 : 3; }

static const mad_animation* mad_anim_get(const mad_datapack* datapack, uint32_t animation_index, const char* function)
{
    if (animation_index >= datapack->animation_count)
        crash_in("src/mad_anim", __LINE__, function, "animation index %u is out of range (%u animations)\n",
                 animation_index, datapack->animation_count);
    return &datapack->animations[animation_index];
}

void mad_sampler_eval(float* target, const mad_sampler* sampler, uint32_t path, uint32_t* cursor, float time)
{
    const uint32_t count = sampler->input_count;
    if (count == 0)
        return;  // no key to hold; the reader lets no channel use such a sampler
    const float* input = sampler->input;
    uint32_t k = *cursor < count - 1 ? *cursor + 1 : count - 1;
    while (input[k] < time && k + 1 < count)
        k++;
    const uint32_t k0 = k > 0 ? k - 1 : 0;
    *cursor = k0;
    const uint32_t n = mad_anim_components(path);
    const float* a = sampler->output + k0 * n;
    const float* b = sampler->output + k * n;
    const float t0 = input[k0];
    const float dt = input[k] - t0;
    if (!((double)dt >= MAD_MIN_KEY_SPACING)) {
        // one key, or keys too close to tell apart: hold the earlier one
        for (uint32_t i = 0; i < n; i++)
            target[i] = a[i];
        return;
    }
    float s = (time - t0) / dt;
    if (!(s > 0.0f))  // before the earlier key, or a NaN time
        s = 0.0f;
    else if (s > 1.0f)
        s = 1.0f;
    if (path == MAD_PATH_ROTATION && sampler->interpolation == MAD_INTERPOLATION_LINEAR) {
        quat_slerp(target, a, b, s);
    } else if (sampler->interpolation == MAD_INTERPOLATION_STEP) {
        for (uint32_t i = 0; i < n; i++)
            target[i] = a[i];
    } else if (sampler->interpolation == MAD_INTERPOLATION_LINEAR) {
        for (uint32_t i = 0; i < n; i++)
            target[i] = (1.0f - s) * a[i] + s * b[i];
    }
    // any other interpolation leaves the target as it was
}

void mad_animate(mad_datapack* datapack, uint32_t animation_index, float time)
{
    const mad_animation* animation = mad_anim_get(datapack, animation_index, "mad_animate");
    for (uint32_t i = 0; i < animation->channel_count; i++) {
        const mad_channel* c = &animation->channels[i];
        float* target = c->path == MAD_PATH_TRANSLATION ? c->node->translation
                        : c->path == MAD_PATH_ROTATION  ? c->node->rotation
                        : c->path == MAD_PATH_SCALE     ? c->node->scale
                                                        : nullptr;
        if (!target)
            continue;
        uint32_t cursor = 0;  // every evaluation searches from the first key
        mad_sampler_eval(target, c->sampler, c->path, &cursor, time);
    }
}

void mad_node_local_matrix(mat4x4 m, const vec3 scale, const quat rotation, const vec3 translation)
{
    mat4x4_identity(m);
    mat4x4_scale_aniso(m, m, scale[0], scale[1], scale[2]);
    mat4x4 r;
    mat4x4_from_quat(r, rotation);
    mat4x4_mul(m, r, m);
    mat4x4 t;
    mat4x4_translate(t, translation[0], translation[1], translation[2]);
    mat4x4_mul(m, t, m);
}

// In a forest every node but a root is pushed exactly once, so counting pushes bounds both the
// stack and the walk; the reader refuses any other hierarchy, a record built by hand might not.
static void mad_anim_push_children(uint32_t* stack, uint32_t* top, uint32_t* pushed, const mad_node* node,
                                   uint32_t node_count)
{
    for (uint32_t j = 0; j < node->child_count; j++) {
        if (*pushed == node_count)
            crash_in("src/mad_anim", __LINE__, "mad_compute_world_matrices",
                     "the node hierarchy is not a forest: more than %u nodes to visit\n", node_count);
        *pushed += 1;
        stack[(*top)++] = node->children[j];
    }
}

void mad_compute_world_matrices(mat4x4* world, const mad_datapack* datapack, xmemarena* arena)
{
    const mad_datapack* d = datapack;
    for (uint32_t i = 0; i < d->node_count; i++)
        mad_node_local_matrix(world[i], d->nodes[i].scale, d->nodes[i].rotation, d->nodes[i].translation);

    const uint64_t mark = xmemarena_get_sp(arena);
    auto* stack = (uint32_t*)xmemarena_push_align(arena, (uint64_t)d->node_count * sizeof(uint32_t), alignof(uint32_t));
    uint32_t top = 0, pushed = 0;
    for (uint32_t i = 0; i < d->node_count; i++)
        if (!d->nodes[i].parent)
            mad_anim_push_children(stack, &top, &pushed, &d->nodes[i], d->node_count);
    // last in, first out: a node is combined only after its parent, which pushed it
    while (top) {
        const uint32_t c = stack[--top];
        const mad_node* node = &d->nodes[c];
        mat4x4_mul(world[c], world[node->parent - d->nodes], world[c]);
        mad_anim_push_children(stack, &top, &pushed, node, d->node_count);
    }
    xmemarena_set_sp(arena, mark);
}

void mad_compute_joint_matrices(mat4x4* out, const mat4x4* world, const mad_skin* skin)
{
    for (uint32_t j = 0; j < skin->joint_count; j++)
        mat4x4_mul(out[j], world[skin->joints[j]], skin->inverse_bind_matrices[j]);
}

static const char* mad_anim_path_name(uint32_t path)
{
    switch (path) {
    case MAD_PATH_TRANSLATION: return "translation";
    case MAD_PATH_ROTATION: return "rotation";
    case MAD_PATH_SCALE: return "scale";
    default: return "";
    }
}

void mad_dump_animation(const mad_datapack* datapack, uint32_t animation_index)
{
    const mad_animation* animation = mad_anim_get(datapack, animation_index, "mad_dump_animation");
    for (uint32_t i = 0; i < animation->channel_count; i++) {
        const mad_channel* c = &animation->channels[i];
        const mad_sampler* s = c->sampler;
        printf("node[%d].%s keyframes: %d\n", (int)(c->node - datapack->nodes), mad_anim_path_name(c->path),
               (int)s->input_count);
        for (uint32_t k = 0; k < s->input_count; k++) {
            const double time = s->input[k];
            if (c->path == MAD_PATH_TRANSLATION || c->path == MAD_PATH_SCALE) {
                const float* v = s->output + 3 * k;
                // %2.f: the last value is rounded to a whole number, unlike the others
                printf("\t[%d][%.2f]: %.2f %.2f %2.f\n", (int)k, time, (double)v[0], (double)v[1], (double)v[2]);
            } else if (c->path == MAD_PATH_ROTATION) {
                const float* v = s->output + 4 * k;
                printf("\t[%d][%.2f]: %.2f %.2f %.2f %2.f\n", (int)k, time, (double)v[0], (double)v[1], (double)v[2],
                       (double)v[3]);
            }
            // another path has no known layout of values: its header alone is printed
        }
        printf("]\n");
    }
}
