// The sample model of gltf_sample.h: one buffer of floats and small integers, laid out by the
// code below, described by JSON text.
#include "gltf_sample.h"

#include <cstring>

// a 1 x 1 opaque RGBA PNG
static const char* const GLTF_SAMPLE_PNG =
    "iVBORw0KGgoAAAANSUhEUgAAAAEAAAABCAYAAAAfFcSJAAAADUlEQVR42mNk+M9QDwADhgGAWjR9awAAAABJRU5ErkJggg==";

std::string gltf_sample_base64(const uint8_t* bytes, size_t size)
{
    static const char* table = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    for (size_t i = 0; i < size; i += 3) {
        const uint32_t b1 = i + 1 < size ? bytes[i + 1] : 0, b2 = i + 2 < size ? bytes[i + 2] : 0;
        const uint32_t v = (uint32_t)bytes[i] << 16 | b1 << 8 | b2;
        out += table[(v >> 18) & 63];
        out += table[(v >> 12) & 63];
        out += i + 1 < size ? table[(v >> 6) & 63] : '=';
        out += i + 2 < size ? table[v & 63] : '=';
    }
    return out;
}

struct gltf_sample_buffer {
    std::vector<uint8_t> bytes;
    std::string views;  // one buffer view per array, in order

    void add(const void* data, size_t size)
    {
        if (!views.empty())
            views += ",";
        views += "{\"buffer\":0,\"byteOffset\":" + std::to_string(bytes.size()) +
                 ",\"byteLength\":" + std::to_string(size) + "}";
        bytes.insert(bytes.end(), (const uint8_t*)data, (const uint8_t*)data + size);
        while (bytes.size() % 4)
            bytes.push_back(0);
    }
};

std::vector<uint8_t> gltf_sample_model(uint32_t binary)
{
    static const float positions[] = {-1, 0, 0, 1, 0, 0, 1, 2, 0, -1, 2, 0};
    static const float normals[] = {0, 0, 1, 0, 0, 1, 0, 0, 1, 0, 0, 1};
    static const float uvs[] = {0, 1, 1, 1, 1, 0, 0, 0};
    static const uint8_t joints[] = {0, 1, 0, 0, 0, 1, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0};
    static const float weights[] = {1, 0, 0, 0, 0.75f, 0.25f, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0};
    static const uint16_t indices[] = {0, 1, 2, 0, 2, 3};
    static const float inverse_bind[] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1,
                                         1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, -1, 0, 1};
    static const float times[] = {0, 1, 2};
    static const float moves[] = {0, 1, 0, 0.5f, 1, 0, 0, 1, 0};
    static const float turns[] = {0, 0, 0, 1, 0, 0, 0.38268343f, 0.92387953f, 0, 0, 0, 1};
    static const float scales[] = {1, 1, 1, 1.5f, 1.5f, 1.5f, 1, 1, 1};
    gltf_sample_buffer b;
    b.add(positions, sizeof(positions));
    b.add(normals, sizeof(normals));
    b.add(uvs, sizeof(uvs));
    b.add(joints, sizeof(joints));
    b.add(weights, sizeof(weights));
    b.add(indices, sizeof(indices));
    b.add(inverse_bind, sizeof(inverse_bind));
    b.add(times, sizeof(times));
    b.add(moves, sizeof(moves));
    b.add(turns, sizeof(turns));
    b.add(scales, sizeof(scales));
    auto accessor = [](int view, int count, const char* type, int component) {
        return "{\"bufferView\":" + std::to_string(view) + ",\"count\":" + std::to_string(count) + ",\"type\":\"" +
               type + "\",\"componentType\":" + std::to_string(component) + "}";
    };
    const std::string accessors = accessor(0, 4, "VEC3", 5126) + "," + accessor(1, 4, "VEC3", 5126) + "," +
                                  accessor(2, 4, "VEC2", 5126) + "," + accessor(3, 4, "VEC4", 5121) + "," +
                                  accessor(4, 4, "VEC4", 5126) + "," + accessor(5, 6, "SCALAR", 5123) + "," +
                                  accessor(6, 2, "MAT4", 5126) + "," + accessor(7, 3, "SCALAR", 5126) + "," +
                                  accessor(8, 3, "VEC3", 5126) + "," + accessor(9, 3, "VEC4", 5126) + "," +
                                  accessor(10, 3, "VEC3", 5126);
    const std::string buffer = binary ? "{\"byteLength\":" + std::to_string(b.bytes.size()) + "}"
                                      : "{\"byteLength\":" + std::to_string(b.bytes.size()) +
                                            ",\"uri\":\"data:application/octet-stream;base64," +
                                            gltf_sample_base64(b.bytes.data(), b.bytes.size()) + "\"}";
    std::string json =
        "{\"asset\":{\"version\":\"2.0\"},\"scene\":0,\"scenes\":[{\"nodes\":[0]}],"
        "\"nodes\":[{\"name\":\"body\",\"mesh\":0,\"skin\":0,\"children\":[1,3]},"
        "{\"name\":\"bone\",\"children\":[2],\"translation\":[0,1,0]},{\"name\":\"tip\",\"rotation\":[0,0,0,1]},"
        "{\"name\":\"camera\",\"camera\":0,\"translation\":[0,1,5]}],"
        "\"cameras\":[{\"type\":\"perspective\",\"perspective\":{\"yfov\":0.8,\"znear\":0.5,\"zfar\":100,"
        "\"aspectRatio\":1.333}}],"
        "\"meshes\":[{\"primitives\":[{\"attributes\":{\"POSITION\":0,\"NORMAL\":1,\"TEXCOORD_0\":2,\"JOINTS_0\":3,"
        "\"WEIGHTS_0\":4},\"indices\":5,\"material\":0}]}],"
        "\"skins\":[{\"joints\":[1,2],\"inverseBindMatrices\":6}],"
        "\"materials\":[{\"pbrMetallicRoughness\":{\"baseColorTexture\":{\"index\":0}}}],"
        "\"textures\":[{\"source\":0}],"
        "\"images\":[{\"name\":\"dot\",\"uri\":\"data:image/png;base64," +
        std::string(GLTF_SAMPLE_PNG) +
        "\"}],"
        "\"animations\":[{\"name\":\"wave\",\"samplers\":[{\"input\":7,\"output\":8},{\"input\":7,\"output\":9},"
        "{\"input\":7,\"output\":10,\"interpolation\":\"STEP\"}],"
        "\"channels\":[{\"sampler\":0,\"target\":{\"node\":1,\"path\":\"translation\"}},"
        "{\"sampler\":1,\"target\":{\"node\":2,\"path\":\"rotation\"}},"
        "{\"sampler\":2,\"target\":{\"node\":0,\"path\":\"scale\"}}]}],"
        "\"buffers\":[" +
        buffer + "],\"bufferViews\":[" + b.views + "],\"accessors\":[" + accessors + "]}";
    if (!binary)
        return std::vector<uint8_t>(json.begin(), json.end());
    // .glb: header, JSON chunk (padded with spaces), BIN chunk (padded with zeros)
    while (json.size() % 4)
        json += ' ';
    const uint32_t total = 12 + 8 + (uint32_t)json.size() + 8 + (uint32_t)b.bytes.size();
    std::vector<uint8_t> out;
    auto u32 = [&out](uint32_t v) {
        for (int k = 0; k < 4; k++)
            out.push_back((uint8_t)(v >> (8 * k)));
    };
    out.insert(out.end(), {'g', 'l', 'T', 'F'});
    u32(2);
    u32(total);
    u32((uint32_t)json.size());
    out.insert(out.end(), {'J', 'S', 'O', 'N'});
    out.insert(out.end(), json.begin(), json.end());
    u32((uint32_t)b.bytes.size());
    out.insert(out.end(), {'B', 'I', 'N', 0});
    out.insert(out.end(), b.bytes.begin(), b.bytes.end());
    return out;
}
