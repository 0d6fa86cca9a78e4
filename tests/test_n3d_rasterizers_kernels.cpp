// What the span kernels report in their profile blocks: one "inner_scanline" hit per span
// drawn (rows whose span is empty do not count), one "inner_row" hit per half of the triangle
// that has rows, and the spans' time equal to the row loops' (the spans are timed together).
#include <gtest/gtest.h>

#include <cstring>

#include "n3d.h"
#include "n3d_draw.h"
#include "n3d_rasterizers.h"
#include "test_fatal.h"

namespace {

// A 320 x 240 target with coverage and depth, one 16-bit and one 8-bit texture of constant
// texels (the counts do not depend on what is drawn) and a constant phong table.
struct kernels_env {
    test_arena memory = test_arena(4 << 20);
    n3d_framecontext fc;
    n3d_texture textures[2];  // 16-bit, 8-bit
    void* mips[2][1];
    uint16_t tables[256 + 256 * 32];  // palette, shades
    uint8_t phong_storage[272];
    const uint8_t* phong = phong_storage + 8;

    kernels_env()
    {
        n3d_init(&memory.arena);
        n3d_framecontext_init(&fc, &memory.arena, 320, 240, N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555,
                              N3D_FRAMECONTEXT_COVERAGE | N3D_FRAMECONTEXT_ZBUFFER);
        void* texels16 = memset(xmemarena_push_align(&memory.arena, 65536 * 2, 32), 0x5A, 65536 * 2);
        void* texels8 = memset(xmemarena_push_align(&memory.arena, 65536, 32), 7, 65536);
        memset(tables, 0x11, sizeof(tables));
        memset(phong_storage, 16, sizeof(phong_storage));
        test_texture_256(&textures[0], N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, mips[0], texels16, tables,
                         tables + 256);
        test_texture_256(&textures[1], N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555, mips[1], texels8, tables,
                         tables + 256);
    }
};

// A flat triangle (w = 1, constant texture and lighting coordinates, so every gradient is 0)
// with its vertices on whole pixels, in the winding the variants draw.
n3d_raster_call flat_call(kernels_env& env, n3d_rasterizer_entry* e, const float xy[3][2])
{
    static n3d_texture* textures[1];
    textures[0] = &env.textures[(e->flags & N3D_RASTERIZER_T0_I8ARGB1555) ? 1 : 0];
    n3d_raster_call c;
    memset(&c, 0, sizeof(c));
    c.entry = e;
    c.fc = &env.fc;
    c.textures = textures;
    c.phong = &env.phong;
    for (int i = 0; i < 3; i++) {
        const float attributes[7] = {xy[i][0], xy[i][1], 1.0f, 0.5f, 0.5f, 0.25f, 0.25f};
        memcpy(c.vertices[i], attributes, sizeof(attributes));
    }
    c.depth_norm = 1.0f;
    return c;
}

}  // namespace

TEST(n3d_rasterizers_kernels, profile_blocks_count_spans_and_halves)
{
    static kernels_env env;
    // Spans run from edge L (top to the next vertex) to edge R (top to the one after), left
    // edge inclusive, right edge exclusive, on rows from the top's to the bottom's.
    struct case_t {
        const char* what;
        float xy[3][2];
        uint32_t spans, halves;
    } cases[] = {
        // flat top: half 1 only, rows 10-29, row y from 10 to 50 - 2 (y - 10): 40 down to 2 pixels
        {"flat top", {{10, 10}, {10, 30}, {50, 10}}, 20, 1},
        // rows 10-24 end at 10 + 2 (y - 10) (row 10 empty), rows 25-39 at 40 - 2 (y - 25)
        {"two halves", {{10, 10}, {10, 40}, {40, 25}}, 14 + 15, 2},
        // one row (10-11), one pixel
        {"one pixel", {{10, 10}, {10, 11}, {11, 10}}, 1, 1},
    };
    const n3d_raster_kernels best = n3d_raster_use_kernels(N3D_RASTER_KERNELS_BEST);
    for (uint32_t k = N3D_RASTER_KERNELS_PORTABLE; k <= best; k++) {
        n3d_raster_use_kernels((n3d_raster_kernels)k);
        for (const case_t& t : cases)
            for (uint32_t vi = 0; vi < n3d_rasterizer_table_count; vi++) {
                n3d_rasterizer_entry* e = &n3d_rasterizer_table[vi];
                test_clear_target(&env.fc);
                memset(e->blocks, 0, sizeof(e->blocks));
                n3d_raster_call c = flat_call(env, e, t.xy);
                ASSERT_EQ(e->rasterizer(&c), 1) << e->name << ", " << t.what;
                const n3d_rasterizer_block& rows = e->blocks[N3D_RASTERIZER_BLOCK_INNER_ROW];
                const n3d_rasterizer_block& spans = e->blocks[N3D_RASTERIZER_BLOCK_INNER_SCANLINE];
                const char* kernels = n3d_raster_kernels_name((n3d_raster_kernels)k);
                EXPECT_EQ(spans.hits, t.spans) << e->name << ", " << t.what << ", " << kernels;
                EXPECT_EQ(rows.hits, t.halves) << e->name << ", " << t.what << ", " << kernels;
                EXPECT_EQ(spans.cycles, rows.cycles) << e->name << ", " << t.what << ", " << kernels;
                EXPECT_EQ(e->blocks[N3D_RASTERIZER_BLOCK_SETUP].hits, 1u) << e->name;
                EXPECT_EQ(e->blocks[N3D_RASTERIZER_BLOCK_SPAN_SETUP].hits, 0u) << e->name;
            }
    }
    n3d_raster_use_kernels(N3D_RASTER_KERNELS_BEST);
}
