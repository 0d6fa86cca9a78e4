// Writes the fuzz targets' starting inputs with the engine's own writers: a few meshes, textures
// and coverage masks in both byte orders, into <folder>/mesh, <folder>/texture and
// <folder>/coverage; and sequence and scene-description texts into <folder>/sequence and
// <folder>/ini; packs made by the pack writer into <folder>/pack; and resource blocks behind a
// kind byte into <folder>/resource; datapacks into <folder>/mad; glTF models (text and binary)
// into <folder>/gltf; scripts with their scene descriptions into <folder>/scenes.
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "gltf_sample.h"
#include "mad.h"
#include "n3d_io.h"
#include "reel_fs.h"
#include "reel_resource.h"

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

static void seeds_bytes(const std::string& path, const std::vector<uint8_t>& bytes)
{
    FILE* f = fopen(path.c_str(), "wb");
    if (!f || fwrite(bytes.data(), 1, bytes.size(), f) != bytes.size() || fclose(f) != 0) {
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

// ---- datapacks ----

// A three-level hierarchy with a mesh, a skin, both camera types and an animation of every
// path, or with `empty` nothing but the seven zero counts.
static void seeds_mad(bool empty, int32_t order)
{
    float xyz[9] = {0, 0, 0, 1, 0, 0, 0, 1, 0};
    mad_image images[1] = {{(char*)"bark", 0}};
    mad_material materials[1] = {{&images[0], {1, 0.5f, 0.25f, 1}}};
    mad_primitive primitives[1] = {{{3, xyz, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr},
                                    &materials[0]}};
    mad_mesh meshes[1] = {{1, primitives}};
    uint32_t joints[2] = {1, 2};
    mat4x4 inverse_binds[2], binds[2];
    mat4x4_identity(inverse_binds[0]);
    mat4x4_translate(inverse_binds[1], 0, -1, 0);
    mad_skin skins[1] = {{2, joints, inverse_binds, binds}};
    mad_camera cameras[2] = {{0, 100, 0.5f, 0, 0, 1.5f, 0.7f}, {1, 50, 0.1f, 2, 3, 0, 0}};
    uint32_t children[2][1] = {{1}, {2}};
    mad_node nodes[3] = {};
    const char* names[3] = {"root", "arm", "hand"};
    for (uint32_t i = 0; i < 3; i++) {
        nodes[i].name = (char*)names[i];
        vec3_set(nodes[i].scale, 1, 1, 1);
        vec4_set(nodes[i].rotation, 0, 0, 0, 1);
        vec3_set(nodes[i].translation, 0, (float)i, 0);
        nodes[i].parent = i ? &nodes[i - 1] : nullptr;
        nodes[i].child_count = i < 2 ? 1 : 0;
        nodes[i].children = i < 2 ? children[i] : nullptr;
    }
    nodes[0].mesh = &meshes[0];
    nodes[1].skin = &skins[0];
    nodes[2].camera = &cameras[0];
    float times[3] = {0, 0.5f, 1};
    float moves[9] = {0, 0, 0, 1, 2, 3, 4, 5, 6};
    float turns[8] = {0, 0, 0, 1, 0, 0, -0.7071f, -0.7071f};
    float sizes[6] = {1, 1, 1, 2, 2, 2};
    mad_sampler samplers[3] = {{MAD_INTERPOLATION_STEP, 3, 9, times, moves},
                               {MAD_INTERPOLATION_LINEAR, 2, 8, times, turns},
                               {MAD_INTERPOLATION_LINEAR, 2, 6, times, sizes}};
    mad_channel channels[3] = {{&nodes[1], &samplers[0], MAD_PATH_TRANSLATION},
                               {&nodes[2], &samplers[1], MAD_PATH_ROTATION},
                               {&nodes[0], &samplers[2], MAD_PATH_SCALE}};
    mad_animation animations[1] = {{(char*)"wave", 3, samplers, 3, channels}};
    mad_datapack d = {3, nodes, 1, meshes, 1, skins, 2, cameras, 1, animations, 1, images, 1, materials};
    if (empty)
        d = {};
    std::vector<uint8_t> block(mad_datapack_write_size(&d));
    mad_datapack_write(block.data(), &d, order);
    seeds_write("mad", std::string(empty ? "empty_" : "scene_") + seeds_order_name(order) + ".mad", block, order);
}

// A text as it is stored in a pack: the bytes alone, no marker.
static void seeds_text(const char* kind, const char* name, const char* text)
{
    std::filesystem::create_directories(seeds_folder + "/" + kind);
    seeds_bytes(seeds_folder + "/" + kind + "/" + name, std::vector<uint8_t>(text, text + strlen(text)));
}

// ---- packs and resources ----

// A pack of the given kinds and contents, written by the pack writer into <folder>/pack; odd
// entries get one extra byte.
static void seeds_pack(const std::string& name, const std::vector<std::pair<uint32_t, std::string>>& files,
                       int32_t order)
{
    const std::string inputs = seeds_folder + "/pack_inputs";
    std::filesystem::create_directories(inputs);
    std::filesystem::create_directories(seeds_folder + "/pack");
    std::vector<uint8_t> memory(1u << 20);
    xmemarena arena;
    xmemarena_init(&arena, "seeds_pack", memory.size(), memory.data());
    reel_fs_writer writer;
    reel_fs_pack_begin(&writer, order);
    for (size_t i = 0; i < files.size(); i++) {
        const std::string path = inputs + "/" + std::to_string(i);
        seeds_bytes(path, std::vector<uint8_t>(files[i].second.begin(), files[i].second.end()));
        const std::string entry = i == 2 ? "entry0" : "entry" + std::to_string(i);  // a shared name too
        reel_fs_pack_add_file(&writer, &arena, files[i].first, (uint32_t)(i % 2), entry.c_str(), path.c_str());
    }
    reel_fs_pack_end(&writer, (seeds_folder + "/pack/" + name).c_str(), &arena);
    std::filesystem::remove_all(inputs);
}

// The kind byte (bit 4 for a swapped pack), then the marker for kinds 0 to 7, then the block.
static void seeds_resource(uint32_t kind, const std::string& name, const std::vector<uint8_t>& block, int32_t order)
{
    std::filesystem::create_directories(seeds_folder + "/resource");
    std::vector<uint8_t> input(1, (uint8_t)(kind | (order == BYTE_ORDER_SWAPPED ? 0x10 : 0)));
    if (kind < REEL_KIND_BLOB) {
        input.resize(5);
        stream_write_u32(&input[1], BYTE_ORDER_MARKER, order);
    }
    input.insert(input.end(), block.begin(), block.end());
    seeds_bytes(seeds_folder + "/resource/" + name + (order == BYTE_ORDER_NATIVE ? "_native" : "_swapped"), input);
}

template <class R>
static std::vector<uint8_t> seeds_block(const R* r, int32_t order, uint64_t (*size)(const R*),
                                        uint8_t* (*write)(uint8_t*, const R*, int32_t))
{
    std::vector<uint8_t> block(size(r));
    write(block.data(), r, order);
    return block;
}

static void seeds_resources(int32_t order)
{
    uint8_t entries[16];
    for (uint32_t i = 0; i < 16; i++)
        entries[i] = (uint8_t)(i * 17);
    reel_palette palettes[2] = {{16, 4, entries}, {0, 1, entries + 4}};
    seeds_resource(REEL_KIND_PALETTE, "palette", seeds_block(&palettes[0], order, reel_palette_write_size, reel_palette_write),
                   order);

    uint8_t pixels[8] = {0, 1, 2, 3, 3, 2, 1, 0};
    const reel_palette_animation animation = {4, 2, 2, pixels, palettes};
    seeds_resource(REEL_KIND_PALETTE_ANIMATION, "palette_animation",
                   seeds_block(&animation, order, reel_palette_animation_write_size, reel_palette_animation_write), order);

    const uint8_t runs[] = {0, 3, 5, 1, 7, 128, 2, 2, 9};  // 4 x 3: empty, coloured, transparent then coloured
    const reel_rle_image rle = {4, 3, sizeof(runs), runs};
    seeds_resource(REEL_KIND_RLE_IMAGE, "rle_image", seeds_block(&rle, order, reel_rle_image_write_size, reel_rle_image_write),
                   order);

    std::vector<uint8_t> tables(256 * 33), level(64);
    for (size_t i = 0; i < tables.size(); i++)
        tables[i] = (uint8_t)(i * 7);
    void* mips[1] = {level.data()};
    const n3d_texture texture = {N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8, 1, 3, 3, 3, 3, mips, 256, 32, tables.data(),
                                 tables.data() + 256};
    const reel_image image = {6, 5, texture};
    seeds_resource(REEL_KIND_IMAGE, "image", seeds_block(&image, order, reel_image_write_size, reel_image_write), order);
    seeds_resource(REEL_KIND_TEXTURE, "texture", seeds_block(&texture, order, n3d_texture_write_size, n3d_texture_write),
                   order);

    uint32_t bits[4] = {0x80000000u, 0x80000001u, 0x80000000u, 0};
    const n3d_coverage_buffer stencil = {bits, 64, 2};
    seeds_resource(REEL_KIND_STENCIL, "stencil",
                   seeds_block(&stencil, order, n3d_coverage_buffer_write_size, n3d_coverage_buffer_write), order);

    uint8_t glyph_pixels[9] = {0, 1, 1, 1, 0, 1, 1, 1, 0};
    reel_glyph glyphs[3] = {};
    glyphs[0].advance = 4.0f;  // a space: no pixels, empty stencil
    for (uint32_t i = 1; i < 3; i++)
        glyphs[i] = {i + 1, 3, -0.5f, 1.0f, (float)i + 2.0f, glyph_pixels, {bits, 32, 3}};
    const reel_font font = {32, 34, 3, glyphs};
    seeds_resource(REEL_KIND_FONT, "font", seeds_block(&font, order, reel_font_write_size, reel_font_write), order);

    seeds_resource(REEL_KIND_MADPACK, "madpack", std::vector<uint8_t>(28, 0), order);  // seven empty counts
    seeds_resource(REEL_KIND_BLOB, "blob", {1, 2, 3, 0}, order);
    seeds_resource(REEL_KIND_RAW, "raw", {'a', ',', 'b', '\n', 0}, order);
}

// ---- scripts played by the engine ----

// The step byte, then the script and up to three descriptions, each with its NUL, separated by
// the record separator (fuzz_scenes.cpp reads them into a pack as "sequence.csv", "a.ini",
// "b.ini" and "c.ini").
static void seeds_scenes(const char* name, uint8_t step, const std::vector<std::string>& texts)
{
    std::filesystem::create_directories(seeds_folder + "/scenes");
    std::vector<uint8_t> input(1, step);
    for (size_t i = 0; i < texts.size(); i++) {
        if (i)
            input.push_back(0x1E);
        input.insert(input.end(), texts[i].begin(), texts[i].end());
        input.push_back(0);
    }
    seeds_bytes(seeds_folder + "/scenes/" + name, input);
}

static void seeds_scene_scripts()
{
    const std::string header = "start mode,start ref,start ms,preload ms,end mode,end ref,end ms,function,args\n";
    seeds_scenes("show", 5,
                 {header + "abs,,0,0,abs,,100,load_sync,end\n"
                           "abs,,0,0,abs,,3000,music_start,music\n"
                           "abs,,0,0,abs,,100,video_clut_reset\n"
                           "abs,,0,0,abs,,100,video_clear,10,14,48\n"
                           "abs,,0,0,abs,,100,overlay_clear,0\n"
                           "abs,,0,0,abs,,100,overlay_clut_set,@a.ini\n"
                           "abs,,0,0,abs,,100,overlay_backbuffer_clear,1,0\n"
                           "intro:\n"
                           "abs,,0,0,abs,,1200,overlay_palette_animation,0,rings,0,8\n"
                           "abs,,400,0,abs,,2800,overlay_clut_set1_pulsate,200,0.25,2,40,40,60,255,255,255\n"
                           "relend,intro,0,200,relstart,me,1600,overlay_palette_animation,1,plasma,3,8\n"
                           "barrier,prev_completed\n"
                           "abs,,1200,0,abs,,2000,video_clut_fade_to_color,0,256,120,40,200\n"
                           "abs,,2000,0,abs,,2800,overlay_clut_fade_to_color,1,64,255,255,255\n"
                           "abs,,2000,0,abs,,3000,fade_out_music\n"
                           "end:\n",
                  "scene_name = intro_colours\npalettes = [ base ]\n"});
    seeds_scenes("descriptions", 3,
                 {header + "abs,,0,0,abs,,500,load_async,later\n"
                           "abs,,0,0,abs,,2000,music_start,music\n"
                           "abs,,0,100,abs,,800,overlay_palette_animation,@b.ini\n"
                           "abs,,0,0,abs,,800,overlay_clear,@c.ini\n"
                           "later:\n"
                           "abs,,100,0,relstart,me,900,overlay_clut_set,rings\n"
                           "abs,,200,0,abs,,1000,video_clear,@a.ini\n"
                           "abs,,300,0,abs,,400,music_sync,8820\n",
                  "integers = [ 1 2 3 ]\nfloats = [ 0.5 ]\n",
                  "integers = [ 2 3 ]\nfloats = [ 4 ]\npalette_animations = [ rings ]\n",
                  "scene_name = tune\nintegers = [ 3 ]\nblobs = [ music ]\nstencils = [ mask ]\nrle_images = [ logo ]\n"});
    seeds_scenes("short_spans", 7,
                 {header + "abs,,0,0,abs,,0,overlay_clear,7\n"
                           "relend,prev,-5,0,relend,prev,-1,video_clut_reset\n"
                           "abs,,10,-20,abs,,5,overlay_backbuffer_clear,2,255\n"
                           "abs,,0,0,abs,,2000,music_start,music\n"
                           "relend,me,-10,0,abs,,50,overlay_clut_set,base\n"});
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

    seeds_mad(false, native);
    seeds_mad(false, swapped);
    seeds_mad(true, native);

    seeds_text("sequence", "show.csv",
               "start_mode,start_ref,start,preload,end_mode,end_ref,end,function,args\n"
               "# the opening\n"
               "abs,,0,0,abs,,1000,load_sync,intro\n"
               "abs,,0,0,relend,prev,0,music_start,music.raw\n"
               "\n"
               "intro: the first picture\n"
               "relend,prev,0,500,relstart,me,8000,video_madpack,@scene_a.ini\n"
               "relstart,intro,250,0,relend,intro,-250,overlay_clut_set,#ff8000ff,16\n"
               "barrier,prev_completed\n"
               "relend,me,-1000,0,abs,,60000,overlay_clear,3\n"
               "abs,,2000,0,relstart,me,1,music_sync,66150\n"
               "relend,prev,0,0,relstart,me,10000,fade_out_music\n");
    seeds_text("sequence", "lead_in.csv",
               "header\nabs,,2000,0,abs,,3000,music_sync,22050\nend:\n");
    // found by the fuzzer: a preload whose sample count overflowed a 32-bit product in the check
    seeds_text("sequence", "long_preload.csv", "header\nabs,,200000,97393,abs,,300000,load_sync,a\n");
    seeds_text("ini", "scene_a.ini",
               "# first part of the tunnel\n"
               "scene_name = tunnel_a\n"
               "textures = [ wall floor # the two of them\n"
               "  ]\n"
               "integers = [1 -2 3 ]\n"
               "floats = [0.5 2]\n"
               "palettes=[sky]\n");
    seeds_text("ini", "unknown_keys.ini", "speed = fast\ncolors = [red green ]\nscene_name = my-scene\n");

    seeds_pack("three_native.rpk", {{3, "PALETTE"}, {9, "a,b,c\n"}, {3, "other"}}, native);
    seeds_pack("three_swapped.rpk", {{3, "PALETTE"}, {9, "a,b,c\n"}, {3, "other"}}, swapped);
    seeds_pack("two_native.rpk", {{8, "MUSIC"}, {0, ""}}, native);
    seeds_pack("empty_swapped.rpk", {}, swapped);
    seeds_resources(native);
    seeds_resources(swapped);
    std::filesystem::create_directories(seeds_folder + "/gltf");
    seeds_bytes(seeds_folder + "/gltf/sample.gltf", gltf_sample_model(0));
    seeds_bytes(seeds_folder + "/gltf/sample.glb", gltf_sample_model(1));
    seeds_scene_scripts();
    return 0;
}
