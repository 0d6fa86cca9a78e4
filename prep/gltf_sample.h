// A small glTF 2.0 model written in code: the fuzz target's starting inputs and a model for
// tests of the importer, as .gltf text with embedded data or as a .glb.
//
// Nodes: 0 "body" (root; mesh 0, skin 0; children 1 and 3), 1 "bone" (child 2), 2 "tip",
// 3 "camera" (perspective camera 0). Mesh 0: one indexed quad of two triangles with normals,
// texture coordinates, JOINTS_0 and WEIGHTS_0, material 0 (base colour texture 0 of image 0,
// a 1 x 1 PNG); skin 0: joints 1 and 2. Animation 0 "wave": bone translation (linear), tip
// rotation (linear), body scale (step), three keys at 0, 1 and 2 seconds.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

std::vector<uint8_t> gltf_sample_model(uint32_t binary);

// Standard base64 with padding, as data URIs hold binary buffers.
std::string gltf_sample_base64(const uint8_t* bytes, size_t size);
