// Resources: the cache, pack overriding, each kind's loader against its writer in both byte
// orders, in-place use, and the refusal of missing, unknown and damaged resources.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "mad.h"
#include "n3d_io.h"
#include "reel_resource.h"
#include "test_fatal.h"

namespace {

using bytes = std::vector<uint8_t>;

// An engine record with only what resource loading uses: packs, the two arenas and the cache.
struct test_engine {
    test_arena memory = test_arena(6u << 20), tmp_memory = test_arena(2u << 20);
    xmemarena &arena = memory.arena, &tmp = tmp_memory.arena;
    reel_fs_pack packs[REEL_PACK_COUNT];
    reel_engine engine;
    test_engine()
    {
        memset(&engine, 0, sizeof(engine));
        engine.arena = &arena;
        engine.tmp_arena = &tmp;
        engine.packs = packs;
    }
    // Packs the inputs with the pack writer and opens the pack as the next one.
    void add_pack(int32_t order, const std::vector<test_pack_input>& inputs)
    {
        test_write_pack(test_temp_path("pak.rpk"), inputs, order);
        reel_fs_open_file(&packs[engine.pack_count++], test_temp_path("pak.rpk").c_str(), &arena);
    }
    uint32_t cache_nodes() const
    {
        uint32_t n = 0;
        for (const reel_resource_node* node = engine.resource_cache.next; node; node = node->next, n++) {}
        return n;
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
    for (uint32_t i = 0; i < count * 4; i++)
        entries[i] = (uint8_t)(i * 9 + first);
    const reel_palette p = {first, count, entries.data()};
    return test_block(&p, order, reel_palette_write_size, reel_palette_write);
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

// Glyph 0 an empty space; the others 1 to 4 pixels wide, 3 high, with a 32 x 3 stencil.
struct font_storage {
    std::vector<reel_glyph> glyphs;
    bytes pixels = bytes(12 * 64);
    std::vector<uint32_t> bits = std::vector<uint32_t>(3 * 64);
    reel_font font{};
    font_storage(uint32_t first, uint32_t last) : glyphs(last - first + 1)
    {
        for (size_t i = 0; i < pixels.size(); i++)
            pixels[i] = (uint8_t)(i % 7);
        for (size_t i = 0; i < bits.size(); i++)
            bits[i] = 0xF0000000u >> (i % 29);
        glyphs[0].advance = 4.0f;
        for (uint32_t i = 1; i < glyphs.size(); i++)
            glyphs[i] = {1 + i % 4, 3, -0.5f * (float)i, 0.25f, 2.0f + (float)(i % 4), &pixels[i * 12], {&bits[i * 3], 32, 3}};
        font = {first, last, (uint32_t)glyphs.size(), glyphs.data()};
    }
};

// A linear (or swizzled) index8 texture of 2^lw x 2^lh without smaller levels.
struct texture_storage {
    bytes tables = bytes(256 * 33), level = bytes(64 * 64);
    void* mips[1] = {level.data()};
    n3d_texture t{};
    texture_storage(uint32_t lw, uint32_t lh, uint32_t linear = 1)
    {
        for (size_t i = 0; i < tables.size(); i++)
            tables[i] = (uint8_t)(i * 3);
        for (size_t i = 0; i < level.size(); i++)
            level[i] = (uint8_t)(i * 11);
        t = {N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8, linear, lw, lh, lw, lh, mips, 256, 32, tables.data(), tables.data() + 256};
    }
};

}  // namespace

TEST(reel_resource, cache_by_kind_and_name_and_later_packs_override_earlier_ones)
{
    test_engine te;
    te.add_pack(BYTE_ORDER_NATIVE, {{3, "p", palette_file(0, 2, BYTE_ORDER_NATIVE), 0},
                                    {5, "p", bytes{1, 2, 3}, 0},
                                    {3, "first only", palette_file(1, 1, BYTE_ORDER_NATIVE), 0}});
    te.add_pack(BYTE_ORDER_NATIVE, {});
    te.add_pack(BYTE_ORDER_NATIVE, {{3, "p", palette_file(16, 4, BYTE_ORDER_NATIVE), 0}});
    const uint64_t tmp_mark = te.tmp.sp;
    reel_palette* p = reel_load_palette(&te.engine, "p");
    EXPECT_EQ(p->first, 16u);  // from pak 2
    EXPECT_EQ(reel_load_palette(&te.engine, "first only")->first, 1u);
    EXPECT_TRUE(reel_load_palette(&te.engine, "p") == p && te.cache_nodes() == 2u);
    // the palette "p" does not answer for the image "p": that one is read from its own block
    EXPECT_FATAL(reel_load_image(&te.engine, "p"), "resource \"p\" \\(image\\)");
    EXPECT_EQ(te.engine.resource_cache.name, nullptr);
    EXPECT_EQ(te.tmp.sp, tmp_mark);

    // pak 1 swapped and a block whose own marker says swapped: both are ignored, pak 0's order decodes
    test_engine mixed;
    bytes marked_swapped = palette_file(16, 4, BYTE_ORDER_NATIVE);
    stream_write_u32(marked_swapped.data(), BYTE_ORDER_MARKER, BYTE_ORDER_SWAPPED);
    mixed.add_pack(BYTE_ORDER_NATIVE, {});
    mixed.add_pack(BYTE_ORDER_SWAPPED, {{3, "p", marked_swapped, 0}});
    const reel_palette* q = reel_load_palette(&mixed.engine, "p");
    EXPECT_TRUE(q->first == 16u && q->count == 4u);
}

TEST(reel_resource, every_kind_loads_and_writes_back_in_both_orders)
{
    for (int32_t order : {BYTE_ORDER_NATIVE, BYTE_ORDER_SWAPPED}) {
        SCOPED_TRACE(order);
        uint32_t mask_bits[4] = {0x80000000u, 0x80000001u, 0x80000000u, 0};  // (0,0), (32,0), (63,0), (0,1)
        const n3d_coverage_buffer mask = {mask_bits, 64, 2};
        uint8_t pixels[8 * 5], entries[3][8] = {{1, 2, 3, 4, 5, 6, 7, 8}, {9, 10, 11, 12}, {}};
        for (uint32_t i = 0; i < sizeof(pixels); i++)
            pixels[i] = (uint8_t)(i * 13);
        reel_palette palettes[3] = {{0, 2, entries[0]}, {255, 1, entries[1]}, {7, 0, nullptr}};
        const reel_palette_animation animation = {8, 5, 3, pixels, palettes};  // rows of whole 4-byte words
        const uint8_t runs[] = {0, 3, 5, 1, 7};  // 4 x 2: an empty row, then colours 5, 5, 5 and 7
        const reel_rle_image rle = {4, 2, sizeof(runs), runs};
        texture_storage ts(3, 2);
        const reel_image image = {6, 4, ts.t};
        font_storage fs(32, 90);
        const mad_datapack empty_datapack = {};

        const bytes files[] = {
            palette_file(16, 4, order),
            test_block(&mask, order, n3d_coverage_buffer_write_size, n3d_coverage_buffer_write),
            test_block(&animation, order, reel_palette_animation_write_size, reel_palette_animation_write),
            test_block(&rle, order, reel_rle_image_write_size, reel_rle_image_write),
            test_block(&image, order, reel_image_write_size, reel_image_write),
            test_block(&fs.font, order, reel_font_write_size, reel_font_write),
            test_block(&ts.t, order, n3d_texture_write_size, n3d_texture_write),
            test_block(&empty_datapack, order, mad_datapack_write_size, mad_datapack_write),
        };
        test_engine te;
        te.add_pack(order, {{3, "pal", files[0], 0}, {0, "mask", files[1], 0}, {2, "anim", files[2], 0},
                            {4, "rle", files[3], 0}, {5, "image", files[4], 0}, {7, "font", files[5], 0},
                            {1, "texture", files[6], 0}, {6, "scene", files[7], 2},  // bytes after a block are allowed
                            {8, "music", bytes{1, 2, 3, 4, 5}, 3}, {9, "text", bytes{'h', 'i'}, 1}});
        const bool native = order == BYTE_ORDER_NATIVE;

        const reel_palette* pal = reel_load_palette(&te.engine, "pal");
        EXPECT_TRUE(pal->first == 16u && pal->count == 4u);
        EXPECT_EQ(bytes(pal->entries, pal->entries + 16), bytes(files[0].begin() + 8, files[0].end()));
        EXPECT_EQ(test_block(pal, order, reel_palette_write_size, reel_palette_write), files[0]);

        const n3d_coverage_buffer* m = reel_load_stencil(&te.engine, "mask");
        EXPECT_EQ(std::make_pair(m->width, m->height), std::make_pair(64u, 2u));
        EXPECT_EQ(memcmp(m->bits, mask_bits, sizeof(mask_bits)), 0);

        const reel_palette_animation* a = reel_load_palette_animation(&te.engine, "anim");
        EXPECT_EQ(a->palettes[1].first, 255u);
        EXPECT_EQ(test_block(a, order, reel_palette_animation_write_size, reel_palette_animation_write), files[2]);

        const reel_rle_image* r = reel_load_rle_image(&te.engine, "rle");
        EXPECT_EQ(te.in_pack_0(r->data), native);  // used in place only in the machine's order
        EXPECT_EQ(test_block(r, order, reel_rle_image_write_size, reel_rle_image_write), files[3]);

        const reel_image* i = reel_load_image(&te.engine, "image");
        EXPECT_EQ(std::make_pair(i->width, i->height), std::make_pair(6u, 4u));
        EXPECT_EQ(te.in_pack_0(i->texture.mips[0]), native);
        EXPECT_EQ(test_block(i, order, reel_image_write_size, reel_image_write), files[4]);

        const reel_font* f = reel_load_font(&te.engine, "font");
        EXPECT_TRUE(f->glyph_count == 59u && f->glyphs[0].stencil.bits == nullptr && f->glyphs[5].x_offset == -2.5f);
        EXPECT_EQ(test_block(f, order, reel_font_write_size, reel_font_write), files[5]);

        const n3d_texture* t = reel_load_texture(&te.engine, "texture");
        EXPECT_EQ(te.in_pack_0(t->palette), native);
        EXPECT_EQ(reel_load_madpack(&te.engine, "scene")->node_count, 0u);

        const reel_blob* blob = reel_load_blob(&te.engine, "music");
        EXPECT_TRUE(te.in_pack_0(blob->data));
        EXPECT_EQ(bytes(blob->data, blob->data + blob->size), (bytes{1, 2, 3, 4, 5, 0, 0, 0}));
        char* text = (char*)reel_load_resource(&te.engine, "text", REEL_KIND_RAW);
        EXPECT_TRUE(te.in_pack_0(text));
        EXPECT_STREQ(text, "hi");
        EXPECT_EQ(te.cache_nodes(), 10u);
    }
}

TEST(reel_resource_death, missing_names_unknown_kinds_and_damaged_blocks)
{
    test_engine te;
    te.add_pack(BYTE_ORDER_NATIVE, {{10, "future", bytes{0, 0, 0, 0}, 0}});
    EXPECT_FATAL(reel_load_resource(&te.engine, "future", 10),
                 "crash in reel_load_resource at src/reel:[0-9]+\nkind 10\\?\\?\n$");
    EXPECT_FATAL(reel_load_resource(&te.engine, "past", 10),
                 "crash in reel_load_resource at src/reel:[0-9]+\ncould not find \"past\" with kind 10 in pak file!\n$");
    EXPECT_FATAL(reel_load_palette(&te.engine, "future"), "could not find \"future\" with kind 3");

    const int32_t n = BYTE_ORDER_NATIVE;
    font_storage fs(65, 66);
    bytes nan_advance = test_block(&fs.font, n, reel_font_write_size, reel_font_write);
    const float nan = std::nanf("");
    memcpy(&nan_advance[4 + 8 + 4 + 8], &nan, 4);  // glyph 0's advance
    fs.glyphs[1].stencil.height = 2;               // short of the glyph's 3 rows
    texture_storage small(2, 2), swizzled(3, 3, 0);
    const reel_image too_wide = {5, 4, small.t}, not_linear = {8, 8, swizzled.t};
    const struct { uint32_t kind; bytes block; const char* message; } cases[] = {
        {3, bytes{0xCD, 0xAB}, "resource \"bad\" \\(palette\\): truncated block marker: needs 4 bytes at offset 0, 2 left"},
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
        {5, test_block(&too_wide, n, reel_image_write_size, reel_image_write), "5 x 4 pixels is larger than its 4 x 4 texture"},
        {5, test_block(&not_linear, n, reel_image_write_size, reel_image_write), "must be linear index8 \\(format 3, swizzled\\)"},
        {7, block(n, {90, 32}), "\\(font\\): font glyph table from 90 to 32: last is below first"},
        {7, block(n, {0, 0xFFFFFFFF, 0}), "truncated font glyphs: 4294967296 entries of 24 bytes"},
        {7, nan_advance, "glyph 0: glyph advance -?nan is not a finite value"},
        {7, test_block(&fs.font, n, reel_font_write_size, reel_font_write), "glyph 1: stencil of 32 x 2 does not cover its 2 x 3"},
        {0, block(n, {33, 1, 0}), "resource \"bad\" \\(stencil\\): coverage width 33 is not a multiple of 32"},
        {9, bytes{'a', ',', 'b', '\n'}, "pak.rpk: resource \"bad\" \\(raw\\): text of 4 bytes has no terminating NUL"},
    };
    for (const auto& c : cases) {
        test_engine bad;
        bad.add_pack(n, {{c.kind, "bad", c.block, 0}});
        EXPECT_FATAL(reel_load_resource(&bad.engine, "bad", c.kind), c.message);
    }
}
