// Evaluation of datapack animations: keyframe samplers applied to the nodes' translation,
// rotation and scale, local and world matrices through the node hierarchy, the joint matrices
// of a skin, and a text dump of an animation's keys. Nothing here keeps state between calls;
// the datapack's reader has validated every index and key count this relies on.
#pragma once

#include <cstdint>

#include "mad.h"
#include "memarena.h"
#include "vmath.h"

// Evaluates every channel of animations[animation_index] at `time` (seconds) into its node.
void mad_animate(mad_datapack* datapack, uint32_t animation_index, float time);
// Writes the sampler's value at `time` into target (3 floats, 4 for MAD_PATH_ROTATION). cursor
// is the key search's start, in and out; times outside the keys give the first or last key.
void mad_sampler_eval(float* target, const mad_sampler* sampler, uint32_t path, uint32_t* cursor, float time);
// m = translate(translation) x rotation x scale(scale)
void mad_node_local_matrix(mat4x4 m, const vec3 scale, const quat rotation, const vec3 translation);
// world[i] for every node: its parent's world matrix times its local matrix. arena gives
// scratch of node-count u32 for the walk, taken back before the call returns.
void mad_compute_world_matrices(mat4x4* world, const mad_datapack* datapack, xmemarena* arena);
// out[j] = world[joints[j]] x inverse_bind_matrices[j]
void mad_compute_joint_matrices(mat4x4* out, const mat4x4* world, const mad_skin* skin);
// Prints every channel's keys to standard output.
void mad_dump_animation(const mad_datapack* datapack, uint32_t animation_index);
