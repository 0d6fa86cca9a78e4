// Animated-scene datapacks: one block that holds a node hierarchy with translation, rotation
// and scale, meshes of primitives with materials, skins, cameras, keyframe animations and the
// names of the images the materials use. The reader builds the records below in one arena
// with every index resolved to a pointer; the writer turns them back into the same block.
//
// The reader validates the whole block before the records are used: every count against the
// bytes that remain, every index against the array it refers to, the hierarchy (children and
// parents agree, no cycles) and each animation channel's keys against its path. Evaluation
// (mad_anim) relies on that and checks nothing per frame.
#pragma once

#include <cstdint>

#include "memarena.h"
#include "n3d.h"
#include "n3d_draw.h"
#include "vmath.h"

constexpr uint32_t MAD_INDEX_NONE = 0xFFFFFFFF;  // "none" of the none-marked indices in a block

enum mad_interpolation : uint32_t {
    MAD_INTERPOLATION_STEP = 1,
    MAD_INTERPOLATION_LINEAR = 2,  // other values leave the animated value unchanged
};

enum mad_path : uint32_t {
    MAD_PATH_TRANSLATION = 1,
    MAD_PATH_ROTATION = 2,
    MAD_PATH_SCALE = 3,
};

struct mad_image {
    char* name;              // base name of a texture resource, without extension
    uint32_t texture_index;  // set when a scene binds the datapack's textures; 0 after reading
};

struct mad_material {
    mad_image* base_color_image;  // or null
    vec4 base_color_factor;       // RGBA
};

struct mad_primitive {
    n3d_vertices vertices;
    mad_material* material;  // or null
    // its distinct vertices (n3d_draw.h), built by the reader and never written; a primitive
    // made otherwise may leave it empty (no chunks) and is then drawn corner by corner
    n3d_vertex_index index = {};
};

struct mad_mesh {
    uint32_t primitive_count;
    mad_primitive* primitives;
};

struct mad_skin {
    uint32_t joint_count;
    uint32_t* joints;  // node indices
    mat4x4* inverse_bind_matrices;
    mat4x4* bind_matrices;  // derived by the reader, never written
};

struct mad_camera {
    uint32_t type;  // 0 stores persp_a and yfov, anything else ortho_a and ortho_b
    float range_a;
    float znear;  // near-plane distance
    float ortho_a;
    float ortho_b;
    float persp_a;
    float yfov;  // vertical field of view in radians
};

struct mad_node {
    char* name;
    mad_mesh* mesh;      // or null
    mad_skin* skin;      // or null
    mad_camera* camera;  // or null
    vec3 scale;
    quat rotation;  // x, y, z, w
    vec3 translation;
    uint32_t child_count;
    uint32_t* children;  // node indices
    mad_node* parent;    // null for a root
};

struct mad_sampler {
    uint32_t interpolation;  // mad_interpolation
    uint32_t input_count;
    uint32_t output_count;  // floats: 3 per key for translation and scale, 4 for rotation
    float* input;           // key times, ascending
    float* output;
};

struct mad_channel {
    mad_node* node;
    mad_sampler* sampler;  // one of its animation's samplers
    uint32_t path;         // mad_path
};

struct mad_animation {
    char* name;
    uint32_t sampler_count;
    mad_sampler* samplers;
    uint32_t channel_count;
    mad_channel* channels;
};

struct mad_datapack {
    uint32_t node_count;
    mad_node* nodes;
    uint32_t mesh_count;
    mad_mesh* meshes;
    uint32_t skin_count;
    mad_skin* skins;
    uint32_t camera_count;
    mad_camera* cameras;
    uint32_t animation_count;
    mad_animation* animations;
    uint32_t image_count;
    mad_image* images;
    uint32_t material_count;
    mad_material* materials;
};

// The nodes and animations a scene refers to by name; MAD_INDEX_NONE marks a name not found.
struct reel_madfx {
    uint32_t node_lut_count;
    uint32_t animation_lut_count;
    uint32_t* node_index_lut;
    uint32_t* animation_index_lut;
};

// Reads the block at the cursor (in the cursor's byte order) into records from arena and
// returns the position after it, which is also left in the cursor. Everything is copied, so
// the block need not outlive the datapack. Damaged data ends the process with a message that
// names the cursor's file and the fault.
const uint8_t* mad_datapack_read(mad_datapack* datapack, xmemarena* arena, stream_cursor* cur);
uint64_t mad_datapack_write_size(const mad_datapack* datapack);
// Writes the block (no marker) and returns the position after it; a pointer that is not an
// element of the datapack's own arrays is fatal.
uint8_t* mad_datapack_write(uint8_t* stream, const mad_datapack* datapack, int32_t order);
// A file of the marker and one block. Null when the file cannot be read (after the read
// function's message); a bad marker or bytes after the block are fatal.
mad_datapack* mad_datapack_file_load(xmemarena* arena, const char* path);

// First exact match in file order, or -1 after "failed find node \"<name>\"" on standard output.
int32_t mad_find_node(const mad_datapack* datapack, const char* name);
int32_t mad_find_animation(const mad_datapack* datapack, const char* name);

// Fatal at the first MAD_INDEX_NONE entry, node table first.
void reel_madfx_validate(const reel_madfx* madfx);
