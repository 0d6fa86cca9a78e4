// Resources: the cache, pack overriding, each kind's loader against its writer in both byte
// orders, in-place use, and the refusal of missing, unknown and damaged resources.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <numeric>

#include "font_fixture.h"
#include "mad.h"
#include "n3d_io.h"
#include "reel_resource.h"
#include "scene_fixture.h"

namespace {

using bytes = std::vector<uint8_t>;

// An engine record with only what resource loading uses: packs, the two arenas and the cache.
struct test_engine {
    test_arena memory = test_arena(6u << 20), tmp_memory = test_arena(2u << 20);
    reel_fs_pack packs[REEL_PACK_COUNT];
    reel_engine engine = {};
    test_engine() { engine.arena = &memory.arena, engine.tmp_arena = &tmp_memory.arena, engine.packs = packs; }
    // Packs the inputs with the pack writer and opens the pack as the next one.
    void add_pack(int32_t order, const std::vector<test_pack_input>& inputs)
    {
        test_write_pack(test_temp_path("pak.rpk"), inputs, order);
        reel_fs_open_file(&packs[engine.pack_count++], test_temp_path("pak.rpk").c_str(), &memory.arena);
    }
    bool in_pack_0(const void* p) const
    {
        const reel_fs_entry& last = packs[0].entries[packs[0].count - 1];
        return (const uint8_t*)p >= packs[0].entries[0].data && (const uint8_t*)p < last.data + last.size;
    }
};

bytes palette_file(uint32_t first, uint32_t count, int32_t order)
{
    bytes entries(count * 4);
    std::iota(entries.begin(), entries.end(), (uint8_t)first);
    const reel_palette p = {first, count, entries.data()};
    return test_block(&p, order, reel_palette_write_size, reel_palette_write);
}

// A function that writes a record back as its writer does, after the marker.
template <class R>
std::function<bytes(const void*)> writer(int32_t order, uint64_t (*size)(const R*),
                                         uint8_t* (*write)(uint8_t*, const R*, int32_t))
{
    return [=](const void* r) { return test_block((const R*)r, order, size, write); };
}

// The marker and u32 values in order, then raw bytes.
bytes block(int32_t order, std::initializer_list<uint32_t> values, std::initializer_list<uint8_t> tail = {})
{
    bytes b(4 * (values.size() + 1));
    uint8_t* p = stream_write_u32(b.data(), BYTE_ORDER_MARKER, order);
    for (uint32_t v : values)
        p = stream_write_u32(p, v, order);
    b.insert(b.end(), tail.begin(), tail.end());
    return b;
}

// Glyph 0 an empty space, glyph 1 two pixels wide and three high.
const std::vector<test_glyph_spec> two_glyphs = {{{}, {}, 0.0f, 0.0f, 4.0f},
                                                 {{"12", "34", "56"}, {"#.", ".#", "##"}, -0.5f, 0.25f, 3.0f}};

}  // namespace

TEST(reel_resource, cache_by_kind_and_name_and_later_packs_override_earlier_ones)
{
    test_engine te;
    te.add_pack(BYTE_ORDER_NATIVE, {{3, "p", palette_file(0, 2, BYTE_ORDER_NATIVE), 0}, {5, "p", bytes{1, 2, 3}, 0},
                                    {3, "first only", palette_file(1, 1, BYTE_ORDER_NATIVE), 0}});
    te.add_pack(BYTE_ORDER_NATIVE, {});
    te.add_pack(BYTE_ORDER_NATIVE, {{3, "p", palette_file(16, 4, BYTE_ORDER_NATIVE), 0}});
    const uint64_t tmp_mark = te.engine.tmp_arena->sp;
    reel_palette* p = reel_load_palette(&te.engine, "p");  // from pak 2
    EXPECT_TRUE(p->first == 16u && reel_load_palette(&te.engine, "first only")->first == 1u);
    EXPECT_EQ(reel_load_palette(&te.engine, "p"), p);
    // the palette "p" does not answer for the image "p": that one is read from its own block
    EXPECT_FATAL(reel_load_image(&te.engine, "p"), "resource \"p\" \\(image\\)");
    EXPECT_TRUE(te.engine.resource_cache.name == nullptr && te.engine.tmp_arena->sp == tmp_mark);

    // pak 1 swapped and a block whose own marker says swapped: both are ignored, pak 0's order decodes
    test_engine mixed;
    bytes marked_swapped = palette_file(16, 4, BYTE_ORDER_NATIVE);
    stream_write_u32(marked_swapped.data(), BYTE_ORDER_MARKER, BYTE_ORDER_SWAPPED);
    mixed.add_pack(BYTE_ORDER_NATIVE, {});
    mixed.add_pack(BYTE_ORDER_SWAPPED, {{3, "p", marked_swapped, 0}});
    const reel_palette* q = reel_load_palette(&mixed.engine, "p");
    EXPECT_TRUE(q->first == 16u && q->count == 4u);
}

// Every kind loaded and written back gives the block it was read from, in both byte orders; blocks
// are used in place only in the machine's order (blobs and texts always).
TEST(reel_resource, every_kind_loads_and_writes_back_in_both_orders)
{
    for (int32_t order : {BYTE_ORDER_NATIVE, BYTE_ORDER_SWAPPED}) {
        SCOPED_TRACE(order);
        uint32_t mask_bits[4] = {0x80000000u, 0x80000001u, 0x80000000u, 0};  // (0,0), (32,0), (63,0), (0,1)
        const n3d_coverage_buffer mask = {mask_bits, 64, 2};
        uint8_t pixels[8 * 5], entries[3][8] = {{1, 2, 3, 4, 5, 6, 7, 8}, {9, 10, 11, 12}, {}};
        std::iota(std::begin(pixels), std::end(pixels), 13);
        reel_palette palettes[3] = {{0, 2, entries[0]}, {255, 1, entries[1]}, {7, 0, nullptr}};
        const reel_palette_animation animation = {8, 5, 3, pixels, palettes};  // rows of whole 4-byte words
        const uint8_t runs[] = {0, 3, 5, 1, 7};  // 4 x 2: an empty row, then colours 5, 5, 5 and 7
        const reel_rle_image rle = {4, 2, sizeof(runs), runs};
        scene_test_image image(3, 2, 6, 4);  // a 6 x 4 image on an 8 x 4 texture
        std::iota(image.tables.begin(), image.tables.end(), 3), std::iota(image.texels.begin(), image.texels.end(), 11);
        test_font font(32, two_glyphs);
        const mad_datapack empty_datapack = {};
        struct {
            uint32_t kind;
            const char* name;
            const void* record;
            std::function<bytes(const void*)> write;
            bytes file = {};
        } blocks[] = {
            {3, "pal", &palettes[0], writer(order, reel_palette_write_size, reel_palette_write)},
            {0, "mask", &mask, writer(order, n3d_coverage_buffer_write_size, n3d_coverage_buffer_write)},
            {2, "anim", &animation, writer(order, reel_palette_animation_write_size, reel_palette_animation_write)},
            {4, "rle", &rle, writer(order, reel_rle_image_write_size, reel_rle_image_write)},
            {5, "image", &image.image, writer(order, reel_image_write_size, reel_image_write)},
            {7, "font", &font.font, writer(order, reel_font_write_size, reel_font_write)},
            {1, "texture", &image.image.texture, writer(order, n3d_texture_write_size, n3d_texture_write)},
            {6, "scene", &empty_datapack, writer(order, mad_datapack_write_size, mad_datapack_write)},
        };
        std::vector<test_pack_input> inputs = {{8, "music", bytes{1, 2, 3, 4, 5}, 3}, {9, "text", bytes{'h', 'i'}, 1}};
        for (auto& b : blocks) {  // bytes after a block are allowed
            b.file = b.write(b.record);
            inputs.push_back({b.kind, b.name, b.file, b.kind == 6 ? 2u : 0u});
        }
        test_engine te;
        te.add_pack(order, inputs);
        for (const auto& b : blocks)
            EXPECT_EQ(b.write(reel_load_resource(&te.engine, b.name, b.kind)), b.file) << b.name;

        const bool native = order == BYTE_ORDER_NATIVE;
        EXPECT_EQ(te.in_pack_0(reel_load_rle_image(&te.engine, "rle")->data), native);
        EXPECT_EQ(te.in_pack_0(reel_load_image(&te.engine, "image")->texture.mips[0]), native);
        EXPECT_EQ(te.in_pack_0(reel_load_texture(&te.engine, "texture")->palette), native);
        const reel_blob* blob = reel_load_blob(&te.engine, "music");
        EXPECT_EQ(bytes(blob->data, blob->data + blob->size), (bytes{1, 2, 3, 4, 5, 0, 0, 0}));
        char* text = (char*)reel_load_resource(&te.engine, "text", REEL_KIND_RAW);
        EXPECT_TRUE(te.in_pack_0(blob->data) && te.in_pack_0(text) && !strcmp(text, "hi"));
    }
}

TEST(reel_resource_death, missing_names_unknown_kinds_and_damaged_blocks)
{
    test_engine none;
    EXPECT_FATAL(reel_load_resource(&none.engine, "past", 10),
                 "crash in reel_load_resource at src/reel:[0-9]+\ncould not find \"past\" with kind 10 in pak file!\n$");

    const int32_t n = BYTE_ORDER_NATIVE;
    test_font fs(65, two_glyphs);
    bytes nan_advance = test_block(&fs.font, n, reel_font_write_size, reel_font_write);
    const float nan = std::nanf("");
    memcpy(&nan_advance[4 + 8 + 4 + 8], &nan, 4);  // glyph 0's advance
    fs.glyphs[1].stencil.height = 2;               // short of the glyph's 3 rows
    scene_test_image too_wide(2, 2, 5, 4), not_linear(3, 3, 8, 8);
    // swizzled levels are padded: more texels than the linear 8 x 8
    not_linear.texels.resize(4096);
    not_linear.mips[0] = not_linear.texels.data();
    not_linear.image.texture.linear = 0;
    const struct { uint32_t kind; bytes block; const char* message;
    } cases[] = {
        {10, bytes{0, 0, 0, 0}, "crash in reel_load_resource at src/reel:[0-9]+\nkind 10\\?\\?\n$"},
        {3, bytes{0xCD, 0xAB},
         "resource \"bad\" \\(palette\\): truncated block marker: needs 4 bytes at offset 0, 2 left"},
        {3, block(n, {}, {16, 0, 4, 0, 1, 2, 3}), "truncated palette entries: needs 16 bytes"},
        {3, palette_file(250, 7, n), "palette of 7 entries from 250 runs past the 256 entries of a colour table"},
        {2, block(n, {}, {2, 0, 2, 0, 0, 0}), "palette animation without palettes"},
        {2, block(n, {}, {255, 255, 255, 255, 1, 0}), "truncated palette animation pixels: needs 4294836225 bytes"},
        {2, block(n, {}, {1, 0, 1, 0, 255, 255, 9}), "truncated palette animation palettes: 65535 entries"},
        {2, block(n, {}, {6, 0, 1, 0, 1, 0, 1, 2, 3, 4, 5, 6, 0, 0, 0, 0}),
         "resource \"bad\" \\(palette_animation\\): palette animation width 6 is not a multiple of 4"},
        {4, block(n, {4, 1, 4}, {3, 5, 3, 5}), "row 0: runs cover 6 pixels of a 4-pixel row"},
        {4, block(n, {4, 1, 2}, {129, 4}), "row 0: bad run \\(129, 4\\) at data offset 0"},
        {4, block(n, {4, 2, 3}, {0, 3, 1}), "row 1: run at data offset 3 is cut off"},
        {4, block(n, {4, 2, 3}, {0, 0, 0}), "has 1 bytes after its last row"},
        {4, block(n, {4, 3, 2}, {0, 0}), "data of 2 bytes ends before row 2 of 3"},
        {4, block(n, {4, 1, 100}), "truncated rle image data: needs 100 bytes"},
        {4, block(n, {70000, 1, 0}), "rle image of 70000 x 1 pixels is too large"},
        {5, test_block(&too_wide.image, n, reel_image_write_size, reel_image_write),
         "5 x 4 pixels is larger than its 4 x 4 texture"},
        {5, test_block(&not_linear.image, n, reel_image_write_size, reel_image_write),
         "must be linear index8 \\(format 3, swizzled\\)"},
        {7, block(n, {90, 32}), "\\(font\\): font glyph table from 90 to 32: last is below first"},
        {7, block(n, {0, 0xFFFFFFFF, 0}), "truncated font glyphs: 4294967296 entries of 24 bytes"},
        {7, nan_advance, "glyph 0: glyph advance -?nan is not a finite value"},
        {7, test_block(&fs.font, n, reel_font_write_size, reel_font_write),
         "glyph 1: stencil of 32 x 2 does not cover its 2 x 3"},
        {0, block(n, {33, 1, 0}), "resource \"bad\" \\(stencil\\): coverage width 33 is not a multiple of 32"},
        {9, bytes{'a', ',', 'b', '\n'}, "pak.rpk: resource \"bad\" \\(raw\\): text of 4 bytes has no terminating NUL"},
    };
    for (const auto& c : cases) {
        test_engine bad;
        bad.add_pack(n, {{c.kind, "bad", c.block, 0}});
        EXPECT_FATAL(reel_load_resource(&bad.engine, "bad", c.kind), c.message);
    }
}
