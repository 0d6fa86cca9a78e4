// The glTF 2.0 importer: turns a .gltf or .glb model into an animated-scene datapack and one
// palette texture per base-colour image, as the animated 3D scene draws them.
//
// What the datapack cannot hold is converted in a stated way (each conversion is reported as a
// note that names the glTF element) or refused with a message that names it:
// - triangle strips and fans become triangle lists; points and lines are left out;
// - morph targets are baked into the mesh at the mesh's default weights; "weights" animation
//   channels are left out;
// - more than four joints per vertex (JOINTS_1, ...): the four largest weights are kept and
//   scaled to sum to 1; joint indices above 255 are refused;
// - materials without a base-colour texture (or whose image could not be loaded, or is not
//   glTF's own) and primitives without a material (glTF's default material, white) share one
//   swatch texture: each distinct base colour factor gets a cell, and the primitives' texture
//   coordinates all point into the middle of their material's cell;
// - CUBICSPLINE samplers are resampled into linear keys, GLTF_IMPORT_SPLINE_STEPS per segment;
// - rotation keys are made unit length and each is negated where that brings it to the same
//   side as the key before (the same rotation, but the renderer's slerp takes no shortest path
//   of its own);
// - a node's matrix is split into translation, rotation and scale (shear is lost: refused
//   when the columns are not orthogonal);
// - a camera's near plane below GLTF_IMPORT_MIN_ZNEAR is moved out to it (the renderer refuses
//   nearer ones).
// So that the animated 3D scene plays every model it accepts as it is (it names a camera node,
// an animation and a special node):
// - a model without a perspective camera gets a node "reel_camera" with one, framing the bounding
//   sphere of the mesh vertices at rest from the front, right and above, yfov
//   GLTF_IMPORT_ADDED_YFOV;
// - a model without animations gets "reel_still", one key that holds the scene;
// - without a direct node, an empty node "reel_special" (no mesh: the scene draws it as nothing).
// An added name that a node or animation of the model already has gets "_1", "_2", ... appended.
// Every accessor is checked against its buffer view and buffer (offset, stride, count,
// component type, the end of the data) before a byte of it is read, and every float read must
// be finite.
//
// Errors are returned, not fatal: the importer runs inside tools, tests and a fuzz target, and
// owns C++ containers that must be released.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "mad.h"
#include "memarena.h"
#include "n3d.h"

constexpr float GLTF_IMPORT_MIN_ZNEAR = 0.25f;
constexpr float GLTF_IMPORT_ADDED_YFOV = 0.7853982f;  // pi / 4
constexpr uint32_t GLTF_IMPORT_SPLINE_STEPS = 4;
constexpr uint32_t GLTF_IMPORT_MAX_TEXTURE_LOG2 = 8;  // swizzled textures are at most 256 x 256
constexpr uint32_t GLTF_IMPORT_MIN_TEXTURE_LOG2 = 2;
// Untextured materials share one swatch texture of 16 x 16 cells of 4 x 4 texels.
constexpr uint32_t GLTF_IMPORT_SWATCH_LOG2 = 6;
constexpr uint32_t GLTF_IMPORT_SWATCH_COLUMNS = 16;
constexpr uint32_t GLTF_IMPORT_SWATCH_CELLS = GLTF_IMPORT_SWATCH_COLUMNS * GLTF_IMPORT_SWATCH_COLUMNS;
constexpr uint32_t GLTF_IMPORT_MAX_JOINT = 255;       // joints are stored as bytes

struct gltf_import_options {
    const char* name;         // base of every resource name (datapack and textures)
    uint32_t max_image_side;  // larger source images are refused before they are decoded
    uint32_t allow_files;     // 0: buffers and images given by a file path are not read (fuzzing)
    // Null, or the name of the node the scene draws unlit in its second pass (its "special"
    // node), which takes ARGB1555 textures: its primitives get their own materials and copies
    // of their images ("<image>_direct", and a swatch "<name>_colors_direct") in that format.
    // Its mesh must be its own.
    const char* direct_node;
};

// One texture resource: its name as the show asks for it (image name + ".tmap") and the texture.
struct gltf_import_texture {
    std::string resource;
    std::string source;  // what it was made from, for the report: an image or a material
    uint32_t source_width, source_height;
    uint32_t colors;  // distinct palette colours after quantisation
    n3d_texture texture;
};

struct gltf_import_result {
    mad_datapack datapack;  // records in the arena given to the import
    std::string datapack_resource;  // name + ".mad"
    std::vector<gltf_import_texture> textures;  // texture i belongs to datapack image i
    std::vector<std::string> notes;  // the conversions made, one line each
    uint32_t triangle_count;
    // the names the scene's row gives to play the import: its first animation, its first node
    // with a perspective camera, the special node (also the optional one, hidden with one animation)
    std::string play_animation, play_camera, play_special;
};

// 0 on success; 1 with *error naming the glTF element. Everything the result points to comes
// from arena (and tmp for scratch, given back).
int gltf_import_file(gltf_import_result* result, xmemarena* arena, xmemarena* tmp, const char* path,
                     const gltf_import_options* options, std::string* error);
// The same for a model in memory: binary (a .glb) or JSON text; base_dir resolves relative URIs.
int gltf_import_memory(gltf_import_result* result, xmemarena* arena, xmemarena* tmp, const uint8_t* data,
                       uint64_t size, uint32_t binary, const char* base_dir, const gltf_import_options* options,
                       std::string* error);

// The base name a model's resources get by default: the file name without folder and
// extension, with every character but letters, digits, '_', '-' and '.' made '_' (resource
// names go into manifests, which split at spaces, and scene arguments, which split at commas).
std::string gltf_import_name_from_path(const char* path);
// The same rule for any text.
std::string gltf_import_sanitize(const std::string& text);

// Writes OUTDIR/<datapack resource>, OUTDIR/<texture resource>... and OUTDIR/<name>.manifest
// (the reel_pack lines for them), each through a temporary name renamed into place once every
// file is written. The folder is created when missing. 0 on success; 1 with *error (the path
// and the system's reason).
int gltf_import_write(const gltf_import_result* result, const char* outdir, const char* name, xmemarena* tmp,
                      std::string* error);
// The manifest text: one line per file written, datapack first.
std::string gltf_import_manifest(const gltf_import_result* result);
// A script row that plays the import for ten seconds from the start of the show.
std::string gltf_import_scene_row(const gltf_import_result* result);
