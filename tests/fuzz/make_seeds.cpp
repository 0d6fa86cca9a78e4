// Writes the fuzz targets' starting inputs with the engine's own writers: a few meshes, textures
// and coverage masks in both byte orders, into <folder>/mesh, <folder>/texture and
// <folder>/coverage.
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "n3d_io.h"

static std::string seeds_folder;

static const char* seeds_order_name(int32_t order) { return order == BYTE_ORDER_NATIVE ? "native" : "swapped"; }

static void seeds_write(const char* kind, const std::string& name, const std::vector<uint8_t>& block, int32_t order)
{
    const std::string folder = seeds_folder + "/" + kind;
    std::filesystem::create_directories(folder);
    const std::string path = folder + "/" + name;
    if (n3d_io_write_file(path.c_str(), block.data(), block.data() + block.size(), order)) {
        fprintf(stderr, "cannot write %s\n", path.c_str());
        exit(1);
    }
}

static void seeds_mesh(uint32_t mask, uint32_t count, int32_t order)
{
    std::vector<float> floats(count * 4);
    std::vector<uint8_t> joints(count * 4);
    for (size_t i = 0; i < floats.size(); i++)
        floats[i] = 0.5f * (float)i - 1.0f;
    for (size_t i = 0; i < joints.size(); i++)
        joints[i] = (uint8_t)i;
    n3d_vertices v = {count, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};
    float** arrays[] = {&v.xyz, &v.uv0, &v.n_xyz, &v.t_xyz, &v.b_xyz, &v.uv1};
    for (uint32_t i = 0; i < 6; i++)
        if (mask & (1u << i))
            *arrays[i] = floats.data();  // arrays may share storage: only the bytes matter here
    if (mask & N3D_VERTICES_JOINTS)
        v.joints = joints.data();
    if (mask & N3D_VERTICES_WEIGHTS)
        v.weights = floats.data();
    std::vector<uint8_t> block(n3d_vertices_write_size(&v));
    n3d_vertices_write(block.data(), &v, order);
    seeds_write("mesh", "flags" + std::to_string(mask) + "_count" + std::to_string(count) + "_" +
                            seeds_order_name(order) + ".mesh",
                block, order);
}

static void seeds_texture(uint32_t format, uint32_t linear, uint32_t lw, uint32_t lh, uint32_t mw, uint32_t mh,
                          int32_t order)
{
    n3d_texture t = {format, linear, lw, lh, mw, mh, nullptr, 0, 0, nullptr, nullptr};
    std::vector<uint32_t> tables(256 * 33);  // u32 storage keeps every view aligned
    for (size_t i = 0; i < tables.size(); i++)
        tables[i] = (uint32_t)(i * 2654435761u);
    if (format == 1 || format == 3) {
        t.colors_count = 256;
        t.shades_per_color = 32;
        t.palette = tables.data();
        t.shade_table = tables.data() + 256;
    }
    std::vector<void*> mips(n3d_mip_slot_count(lw, lh, mw, mh), nullptr);
    // swizzled levels narrower than 64 texels take more than width x height: size by the largest
    std::vector<uint32_t> texels(n3d_mipmap_size(format, !linear, lw, lh) / 4 + 1);
    for (size_t i = 0; i < texels.size(); i++)
        texels[i] = (uint32_t)(i * 40503u);
    t.mips = mips.data();
    for (uint32_t w = lw + 1; w-- > mw;)
        for (uint32_t h = lh + 1; h-- > mh;)
            mips[n3d_mip_slot(&t, w, h)] = texels.data();
    std::vector<uint8_t> block(n3d_texture_write_size(&t));
    n3d_texture_write(block.data(), &t, order);
    seeds_write("texture", "format" + std::to_string(format) + (linear ? "_linear_" : "_swizzled_") +
                               std::to_string(lw) + "x" + std::to_string(lh) + "_to_" + std::to_string(mw) + "x" +
                               std::to_string(mh) + "_" + seeds_order_name(order) + ".tmap",
                block, order);
}

static void seeds_coverage(uint32_t width, uint32_t height, int32_t order)
{
    std::vector<uint32_t> bits(width * height / 32);
    for (size_t i = 0; i < bits.size(); i++)
        bits[i] = (uint32_t)(0x80000001u >> (i % 31));
    const n3d_coverage_buffer cb = {bits.data(), width, height};
    std::vector<uint8_t> block(n3d_coverage_buffer_write_size(&cb));
    n3d_coverage_buffer_write(block.data(), &cb, order);
    seeds_write("coverage", std::to_string(width) + "x" + std::to_string(height) + "_" + seeds_order_name(order) +
                                ".stencil",
                block, order);
}

int main(int argc, char** argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: %s <seed folder>\n", argv[0]);
        return 1;
    }
    seeds_folder = argv[1];
    const int32_t native = BYTE_ORDER_NATIVE, swapped = BYTE_ORDER_SWAPPED;

    seeds_mesh(N3D_VERTICES_BASE_SIX, 3, native);
    seeds_mesh(N3D_VERTICES_XYZ, 3, swapped);
    seeds_mesh(0xFF, 2, native);
    seeds_mesh(N3D_VERTICES_XYZ | N3D_VERTICES_JOINTS | N3D_VERTICES_WEIGHTS, 1, swapped);
    seeds_mesh(N3D_VERTICES_UV1, 0, native);

    seeds_texture(1, 0, 3, 3, 2, 2, native);
    seeds_texture(1, 1, 2, 2, 2, 2, swapped);
    seeds_texture(2, 0, 4, 3, 2, 2, native);
    seeds_texture(2, 1, 3, 3, 3, 3, swapped);
    seeds_texture(3, 0, 2, 2, 2, 2, swapped);
    seeds_texture(3, 1, 3, 2, 2, 2, native);
    seeds_texture(4, 1, 3, 3, 2, 2, native);
    seeds_texture(4, 1, 2, 2, 2, 2, swapped);

    seeds_coverage(64, 2, native);
    seeds_coverage(32, 3, swapped);
    seeds_coverage(96, 1, native);
    return 0;
}
