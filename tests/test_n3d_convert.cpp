// Texture conversion and lighting tables: addressing, level chains, palettes and their tie rule,
// transparent indices, texel encodings, shade tables, the phong LUT and the PBR table.
#include "n3d_convert.h"

#include "bitmap.h"
#include "vmath.h"
#include "test_fatal.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

namespace {

std::string test_fatal_convert(const char* function, const char* message)
{
    return test_fatal(function, "src/n3d_convert", message);
}

struct convert_arenas {
    test_arena main_block = test_arena(4 << 20), tmp_block = test_arena(8 << 20);
    xmemarena &arena = main_block.arena, &tmp = tmp_block.arena;
};

// What most tests here need: the arenas and a texture to convert into.
struct n3d_convert : testing::Test {
    convert_arenas a;
    n3d_texture t;
};

// A new sRGB bitmap with straight alpha, pixel i (in row order) handed to paint(i, rgba).
template <class F>
bitmap* convert_painted(xmemarena* arena, uint32_t w, uint32_t h, F paint)
{
    bitmap* bm = bitmap_create(arena, w, h, BITMAP_SRGB | BITMAP_CHANNELS_4);
    for (uint32_t i = 0; i < w * h; ++i)
        paint(i, bitmap_pixel(bm, i % w, i / w));
    return bm;
}

bitmap* convert_solid(xmemarena* arena, uint32_t w, uint32_t h, const uint8_t rgba[4])
{
    return convert_painted(arena, w, h, [rgba](uint32_t, uint8_t* p) { memcpy(p, rgba, 4); });
}

void convert_texture(convert_arenas* a, n3d_texture* t, N3D_TEXEL_FORMAT format, uint32_t swizzle, uint32_t mips,
                     const bitmap* bm, const n3d_display_clut* clut = nullptr,
                     uint32_t transparent = N3D_TRANSPARENT_INDEX_NONE, float threshold = 0.5f, uint32_t from_full = 0)
{
    testing::internal::CaptureStdout();  // the size line
    n3d_texture_from_bitmap(t, &a->arena, &a->tmp, format, swizzle, mips, from_full, bm, clut, transparent, threshold);
    testing::internal::GetCapturedStdout();
}

// A CLUT of 256 greys, entry i of value i.
const std::vector<uint8_t> GREY_RAMP = [] {
    std::vector<uint8_t> colors(256 * 4, 255);
    for (int i = 0; i < 256 * 3; ++i)
        colors[i / 3 * 4 + i % 3] = (uint8_t)(i / 3);
    return colors;
}();

}  // namespace

TEST_F(n3d_convert, swizzled_index_and_its_inverse_mipmap_sizes_and_nearest_colour_ties)
{
    // format, log2 width, swizzled, x, y, index
    const uint32_t indices[][6] = {{1, 8, 1, 1, 0, 4}, {1, 8, 1, 0, 1, 1},         {2, 8, 1, 0, 4, 256},
                                   {3, 8, 1, 64, 0, 16384}, {4, 5, 0, 3, 2, 2 << 5 | 3}};
    for (const auto& i : indices)
        EXPECT_EQ(n3d_texel_index(i[0], i[1], i[2], i[3], i[4]), i[5]) << i[0] << ": " << i[3] << ", " << i[4];
    for (uint32_t index = 0, x, y; index < 65536; ++index) {
        n3d_texel_index_to_xy(index, &x, &y);
        ASSERT_TRUE(x < 256 && y < 256 && n3d_swizzle(x, y) == index) << index;
    }
    // format, swizzled, log2 sizes, bytes: a swizzled 4 x 8 level reaches byte 272, not 32
    const uint32_t sizes[][5] = {{1, 1, 8, 8, 65536}, {2, 1, 8, 8, 131072}, {1, 1, 2, 3, 272},
                                 {3, 1, 7, 7, 24576}, {4, 0, 3, 2, 128},    {2, 0, 9, 8, 262144}};
    for (const auto& s : sizes)
        EXPECT_EQ(n3d_mipmap_size(s[0], s[1], s[2], s[3]), s[4]) << s[0] << ": " << s[2] << " x " << s[3];
    const vec4 colors[4] = {{1, 0, 0, 1}, {0, 1, 0, 1}, {0, 0.5f, 0, 0}, {0, 0.5f, 0, 1}};
    const vec4 green = {0, 0.5f, 0, 1}, b = {0.5f, 0.5f, 0, 1};
    EXPECT_EQ(n3d_color_nearest(colors, 4, green), 2u);  // alpha is ignored
    EXPECT_TRUE(n3d_color_nearest(colors, 2, b) == 0 && n3d_color_nearest(colors, 0, b) == 0);  // equally near 0 and 1
}

TEST_F(n3d_convert, full_mip_chain_of_a_256_texture)
{
    bitmap* flare = bitmap_create_flare(&a.tmp);
    const uint64_t tmp_used = a.tmp.sp;
    convert_texture(&a, &t, N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555, 1, 1, flare);
    EXPECT_EQ(a.tmp.sp, tmp_used);
    EXPECT_EQ((std::vector<uint32_t>{t.format, t.linear, t.log2_w, t.log2_h, t.min_log2_w, t.min_log2_h,
                                     t.colors_count, t.shades_per_color}),
              (std::vector<uint32_t>{N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555, 0, 8, 8, 2, 2, 256, 32}));
    ASSERT_EQ(n3d_mip_slot_count(8, 8, 2, 2), 775u);
    EXPECT_EQ(std::count_if(t.mips, t.mips + 775, [](void* m) { return m != nullptr; }), 49);
    // every level from 4 x 4 to 256 x 256 is there; the flare's centre is white and its corners clear
    const auto* palette = (const uint16_t*)t.palette;
    for (uint32_t w = 2; w <= 8; ++w)
        for (uint32_t h = 2; h <= 8; ++h) {
            const auto* texels = (const uint8_t*)t.mips[n3d_mip_slot(&t, w, h)];
            ASSERT_NE(texels, nullptr);
            EXPECT_EQ(palette[texels[n3d_swizzle(1u << (w - 1), 1u << (h - 1))]], 0xFBDE) << w << "," << h;
            EXPECT_EQ(palette[texels[n3d_swizzle(0, 0)]] & 0x7FFF, 0) << w << "," << h;
        }
}

using n3d_convert_death = n3d_convert;

TEST_F(n3d_convert_death, every_refused_conversion_ends_with_its_message)
{
    const std::string re = test_fatal_convert("n3d_texture_from_bitmap",
                                              "cannot create texture, did not meet requirements, see above logs\n");
    // w, h, format, swizzle: not a power of two, too small, too large to swizzle, no CLUT, no such format
    const uint32_t sizes[][4] = {{300, 256, 2, 0}, {2, 256, 2, 0}, {512, 256, 2, 1}, {8, 8, 3, 1}, {8, 8, 5, 1}};
    const uint8_t px[4] = {1, 2, 3, 255};
    for (const auto& c : sizes)
        EXPECT_FATAL(convert_texture(&a, &t, c[2], c[3], 0, convert_solid(&a.tmp, c[0], c[1], px)), re)
            << c[0] << "x" << c[1] << " format " << c[2];
    const n3d_display_clut past_the_end = {200, 100, GREY_RAMP.data()};
    EXPECT_FATAL(
        n3d_texture_from_bitmap(&t, &a.arena, &a.tmp, N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8, 1, 0, 0,
                                convert_solid(&a.tmp, 4, 4, px), &past_the_end, N3D_TRANSPARENT_INDEX_NONE, 0.5f),
        test_fatal_convert("n3d_texture_build_shade_table_index8", "palette uses 300 colors but max is 256!\n"));
    // width 4: 4 x 4, 6: 6 x 2
    const struct {
        N3D_TEXEL_FORMAT format;
        int32_t width;
        uint32_t swizzle;
        const char *function, *message;
    } cases[] = {
        {3, 4, 1, "n3d_framebuffer_from_bitmap", "must provide display_clut (was nil) for format 3\n"},
        {1, 4, 1, "n3d_framebuffer_from_bitmap", "must provide reverse_palette (was nil) for format 1\n"},
        {2, 6, 1, "n3d_framebuffer_from_bitmap", "can only swizzle when width is pow2! width is: 6\n"},
        {7, 6, 0, "n3d_framebuffer_from_bitmap", "bad N3D_TEXEL_FORMAT 7?\n"},
        {7, 4, 0, "n3d_texel_index", "not implemented texture format 7\n"},
    };
    for (const auto& c : cases) {
        uint8_t texels[64] = {};
        const int32_t height = c.width == 4 ? 4 : 2;
        n3d_framebuffer fb = {c.format, c.width, height, 2 * c.width, texels};
        bitmap* bm = convert_solid(&a.tmp, (uint32_t)c.width, (uint32_t)height, px);
        EXPECT_FATAL(n3d_framebuffer_from_bitmap(&fb, c.format, c.swizzle, nullptr, nullptr, bm,
                                                 N3D_TRANSPARENT_INDEX_NONE, 0.5f),
                     test_fatal_convert(c.function, c.message));
    }
    uint16_t table[4];
    const vec3 z = {0, 0, 0};
    EXPECT_FATAL(
        n3d_texture_build_shade_table_argb1555_pbr(table, 257, 1, z, z, z, z, 0.0f, 0.5f, table),
        test_fatal_convert("n3d_texture_build_shade_table_argb1555_pbr", "shades per color must be < 256 is 257\n"));
    n3d_phong_lut lut = {};
    EXPECT_FATAL(n3d_phong_lut_set_default(&lut),
                 test_fatal_convert("n3d_phong_lut_set_default", "phong lut has no storage (not initialised)\n"));
}

TEST_F(n3d_convert, palette_of_one_colour_the_tie_rule_and_shade_tables)
{
    // Histogram keys truncate: sRGB 128 gives trunc(31 x 0.502) = 15, and even 255 gives 30,
    // because 1.055 x 1^0.41666 - 0.055 is 1 - 2^-53 in double precision, not 1.
    const uint8_t orange[4] = {255, 128, 0, 255};
    convert_texture(&a, &t, N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555, 1, 0, convert_solid(&a.tmp, 8, 8, orange));
    std::vector<uint16_t> want(256, 0);
    want[0] = 0x8000 | 30 << 10 | 15 << 5;
    EXPECT_EQ(std::vector<uint16_t>((const uint16_t*)t.palette, (const uint16_t*)t.palette + 256), want);
    EXPECT_EQ(std::vector<uint8_t>((const uint8_t*)t.mips[0], (const uint8_t*)t.mips[0] + 64),
              std::vector<uint8_t>(64, 0));

    // 16 green, 8 blue, 8 red: blue's key is lower than red's, so it wins the tie
    convert_texture(
        &a, &t, N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555, 1, 0,
        convert_painted(&a.tmp, 8, 4, [](uint32_t i, uint8_t* p) { p[3] = p[i < 8 ? 0 : (i < 16 ? 2 : 1)] = 255; }));
    EXPECT_EQ(std::vector<uint16_t>((const uint16_t*)t.palette, (const uint16_t*)t.palette + 4),
              (std::vector<uint16_t>{0x8000 | 30 << 5, 0x8000 | 30, 0xF800, 0}));
    bitmap* bm = convert_painted(&a.tmp, 8, 4, [](uint32_t i, uint8_t* p) {
        p[0] = (uint8_t)(i * 8);
        p[1] = 255;
        p[2] = (uint8_t)(255 - i * 5);
        p[3] = i < 24 ? 255 : (uint8_t)((i - 24) * 30);  // the last row: translucent, palette keys without alpha
        if (i < 8)
            memset(p, 255, 4);  // a first row of white, the most frequent colour
    });
    convert_texture(&a, &t, N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555, 1, 0, bm);
    ASSERT_EQ(((const uint16_t*)t.palette)[0], 0xFBDE);  // white's histogram key: (30, 30, 30)
    // 1/32 of that: 0.92818 / 32 = 0.029006 encodes to 0.18634, x 31 = 5.78 -> 6
    EXPECT_EQ(((const uint16_t*)t.shade_table)[0], 0x8000 | 6 << 10 | 6 << 5 | 6);
    // an index texture's shades are display colours: shade 31 is the colour itself
    const uint8_t white[4] = {255, 255, 255, 255};
    const n3d_display_clut full = {0, 256, GREY_RAMP.data()};
    convert_texture(&a, &t, N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8, 1, 0, convert_solid(&a.tmp, 4, 4, white), &full);
    const auto* table = (const uint8_t*)t.shade_table;
    for (uint32_t k = 0; k < 256; ++k)
        ASSERT_EQ(table[k * 32 + 31], k);
    // 1/32 in linear light lies between grey 49 (0.03071) and 50 (0.03190), nearer 49
    EXPECT_EQ(table[255 * 32 + 0], 49);
    EXPECT_EQ(((const uint8_t*)t.mips[0])[0], 255);
}

TEST_F(n3d_convert, bump_texels_hold_the_normal_and_its_magnitudes_and_the_phong_lut_its_formula)
{
    bitmap* bm = bitmap_create(&a.tmp, 4, 1, BITMAP_CHANNELS_3);  // normals are not sRGB
    const uint8_t normals[12] = {128, 128, 255, 255, 128, 128, 0, 128, 128, 128, 128, 128};
    memcpy(bitmap_pixel(bm, 0, 0), normals, 12);
    uint32_t texels[4];
    n3d_framebuffer fb = {4, 4, 1, 16, (uint8_t*)texels};
    n3d_framebuffer_from_bitmap(&fb, N3D_TEXEL_FORMAT_BUMPMAP, 0, nullptr, nullptr, bm, N3D_TRANSPARENT_INDEX_NONE,
                                0.5f);
    // flat: x and y round to 0, so do both magnitudes; +x: 127, 0, magnitude 255, 127 + 0; -x: -127
    // is 0x81; a short vector still has a unit direction (0.577 x 127 = 73 = 0x49, 0.333 x 127 = 42
    // twice), while the magnitude byte comes from the short vector itself
    EXPECT_EQ(std::vector<uint32_t>(texels, texels + 4),
              (std::vector<uint32_t>{0x00000000u, 0x7F00FF7Fu, 0x8100FF7Fu, 0x49490054u}));

    n3d_phong_lut lut;
    n3d_phong_lut_init(&lut, &a.arena, 0.5f, 1);
    EXPECT_TRUE(lut.table == lut.storage + 8 && lut.guard == 8u && lut.falloff == 0.5f && lut.min_shade == 1u);
    // 8: 1 - sqrt(16 / 255) / 0.5 = 0.4990, x 31 = 15.47; 32: sqrt(64 / 255) = 0.501 is past the falloff
    EXPECT_TRUE(lut.table[0] == 31 && lut.table[8] == 15 && lut.table[32] == 1 && lut.table[255] == 1);
    for (int i = 1; i <= 8; ++i)
        EXPECT_TRUE(lut.table[-i] == 31 && lut.table[255 + i] == 1) << i;
    const uint8_t* floor0 = n3d_phong_lut_alloc(&a.arena, 0.3f, 0);
    EXPECT_TRUE(floor0[255] == 0 && floor0[0] == 31);
}

// Black opaque (0x8000) with metallic 0: F0 = 0.04 and no diffuse term, so an entry is the emission
// plus light x spec. Roughness 0 makes D = 0.001 at every shade: spec stays under 0.001 and only
// the emission is left. Roughness 1 makes D = 1 and k = 0.5: at shade 31 (c = 0) n = 0.5,
// G = 2/3 and F = 1, spec = 0.667; at shade 0 (c = 0.9901245) n = 0.99017, G = 0.99506 and
// F = 0.04, spec = 0.0398. Light (1, 0, 1) with highlight (1, 1, 0) lights red by spec, green by
// spec^2 and blue by (1 - spec) spec: 0.667, 0.444, 0.222 -> 26, 22, 16; 0.0398, 0.0016, 0.0382 -> 7, 0, 6.
TEST(n3d_convert_pbr, black_entries_hold_emission_and_the_specular_term_by_roughness)
{
    const uint16_t black = 0x8000;
    const vec3 none = {0, 0, 0}, white = {1, 1, 1}, emission = {0.5f, 0.0023f, 0.934392f};
    const vec3 light = {1, 0, 1}, highlight = {1, 1, 0};
    uint16_t table[32];
    EXPECT_EQ(n3d_texture_build_shade_table_argb1555_pbr(table, 32, 1, emission, none, white, white, 0, 0, &black), 1u);
    for (uint32_t s = 0; s < 32; s++)
        EXPECT_EQ(table[s], 0x8000 | 23 << 10 | 1 << 5 | 31) << s;
    n3d_texture_build_shade_table_argb1555_pbr(table, 32, 1, none, none, light, highlight, 0, 1, &black);
    EXPECT_EQ(table[31], 0x8000 | 26 << 10 | 22 << 5 | 16);
    EXPECT_EQ(table[0], 0x8000 | 7 << 10 | 0 << 5 | 6);
}

// Each smaller level is the Lanczos downscale of the level the rule names: with mips_from_full
// the full-size one, otherwise the one at most four times larger each way (w + 2, h + 2, capped
// at the full size). The expected chain is rebuilt here with the image library, from the right
// sources, and compared texel by texel; noise makes every other source give other texels.
TEST_F(n3d_convert, each_level_is_scaled_from_the_level_the_rule_names_and_coverage_fit_steps_chain)
{
    pcg32 rng = {42, 54};
    const bitmap* src = convert_painted(&a.tmp, 32, 16, [&](uint32_t, uint8_t* p) {
        const uint32_t r = pcg32_random(&rng);
        memcpy(p, &r, 3);
        p[3] = 255;
    });
    for (uint32_t from_full = 0; from_full < 2; from_full++) {
        convert_texture(&a, &t, N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, 0, 1, src, nullptr,
                        N3D_TRANSPARENT_INDEX_NONE, 0.5f, from_full);
        bitmap* chain[6][5] = {};  // [log2 w][log2 h]
        for (uint32_t w = 5; w >= 2; w--)
            for (uint32_t h = 4; h >= 2; h--) {
                chain[w][h] = bitmap_create(&a.tmp, 1u << w, 1u << h, src->flags);
                const uint32_t sw = from_full ? 5 : std::min(w + 2, 5u), sh = from_full ? 4 : std::min(h + 2, 4u);
                if (w == 5 && h == 4)
                    memcpy(chain[w][h]->pixels, src->pixels, (size_t)src->row_bytes * src->height);
                else
                    bitmap_downscale(chain[w][h], chain[sw][sh], BITMAP_FILTER_LANCZOS, &a.tmp);
                std::vector<uint16_t> want((1u << w) << h);
                n3d_framebuffer fb = {N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, (int32_t)(1u << w),
                                      (int32_t)(1u << h), (int32_t)(2u << w), (uint8_t*)want.data()};
                n3d_framebuffer_from_bitmap(&fb, fb.format, 0, nullptr, nullptr, chain[w][h],
                                            N3D_TRANSPARENT_INDEX_NONE, 0.5f);
                EXPECT_EQ(memcmp(t.mips[n3d_mip_slot(&t, w, h)], want.data(), want.size() * 2), 0)
                    << "level " << w << "x" << h << (from_full ? " from the full size" : "");
            }
    }
    // The coverage fit runs on every level of an index texture with a transparent index: a thin grid
    // that blurs below the threshold makes it iterate, and each printed step takes c to the clamped
    // value the step before computed.
    const bitmap* grid = convert_painted(&a.tmp, 64, 64, [](uint32_t i, uint8_t* p) {
        const bool line = (i % 64) % 8 == 0 || (i / 64) % 8 == 0;
        p[0] = p[1] = p[2] = 255;
        p[3] = line ? 255 : 0;
    });
    testing::internal::CaptureStdout();
    n3d_texture_from_bitmap(&t, &a.arena, &a.tmp, N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555, 1, 1, 0, grid, nullptr, 0,
                            0.5f);
    const std::string out = testing::internal::GetCapturedStdout();
    int iterations = 0, previous = -1;
    float next_c = 1.0f;
    for (size_t at = out.find("iter["); at != std::string::npos; at = out.find("iter[", at + 1)) {
        int k;
        float err, c, newc;  // each step starts at the clamped value the step before computed
        ASSERT_EQ(sscanf(out.c_str() + at, "iter[%d] err %f c: %f newc: %f", &k, &err, &c, &newc), 4);
        EXPECT_TRUE(k == 0 || k == previous + 1) << k;  // numbered from 0 within each level
        EXPECT_NEAR(c, k == 0 ? 1.0f : next_c, 1e-6f) << k;
        EXPECT_GT(err, 0.0f);
        next_c = std::min(std::max(newc, 0.0f), 1.0f);
        previous = k;
        iterations++;
    }
    EXPECT_GT(iterations, 0);
}
