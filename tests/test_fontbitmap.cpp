// The bitmap font renderer: glyphs clipped at every edge of both framebuffer formats, coverage from
// the stencil, the pen's rounding and advance, characters outside the font, and the fatal paths.
#include <gtest/gtest.h>
#include "font_fixture.h"
#include "fontbitmap.h"

namespace {
constexpr uint8_t NOISE = 0xEE;  // what a framebuffer holds before drawing, tails included

struct test_frame {
    std::vector<uint8_t> bytes;
    n3d_framebuffer fb;
    test_frame(N3D_TEXEL_FORMAT format, int32_t w, int32_t h, int32_t row_bytes)
        : bytes((size_t)row_bytes * h, NOISE), fb{format, w, h, row_bytes, nullptr} { fb.pixels = bytes.data(); }
    uint32_t at(int32_t x, int32_t y) const  // a byte or a 16-bit pixel of this little-endian host
    {
        const uint8_t* p = &bytes[(size_t)y * fb.row_bytes];
        return fb.format == N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8 ? p[x] : (uint32_t)(p[2 * x] | p[2 * x + 1] << 8);
    }
};

const struct colour_maps { uint8_t map8[256]; uint16_t map16[256]; } maps = [] {
    colour_maps m;
    for (uint32_t v = 0; v < 256; v++) {
        m.map8[v] = (uint8_t)(100 + v);
        m.map16[v] = (uint16_t)(0x8000 | v * 0x21);
    }
    return m;
}();

// 4 x 3 with a hole; (1, 1) is covered though transparent, (3, 2) painted though not covered
const test_glyph_spec GLYPH = {{"1234", "5.67", "89.4"}, {"####", "####", "##.."}, 0, 0, 5};

TEST(fontbitmap, glyph_is_clipped_at_every_edge_in_both_formats_and_marks_its_stencil)
{
    const struct { int32_t x, y; const char* what;
    } placements[] = {{2, 2, "inside"},
                      {-3, 1, "over the left edge: columns 3 on at column 0"},
                      {7, 1, "over the right edge"},
                      {2, -2, "over the top"},
                      {7, 5, "bottom-right corner"},
                      {-4, 0, "just off the left"},
                      {9, 0, "just off the right"},
                      {INT32_MIN, INT32_MIN, "as far off as a position goes"},
                      {INT32_MAX - 1, INT32_MAX - 1, "at the other end"}};
    const test_font f(65, {GLYPH});
    const reel_glyph* g = &f.glyphs[0];
    for (N3D_TEXEL_FORMAT format :
         {N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8, N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555}) {
        const bool wide = format == N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555;
        for (const auto& p : placements) {
            SCOPED_TRACE(testing::Message() << p.what << " at " << p.x << ", " << p.y << ", format " << format);
            test_frame frame(format, 9, 7, wide ? 24 : 12);  // row tails that must stay untouched
            std::vector<uint32_t> words(7);  // a row of 32 bits, wider than the frame: nothing beyond it is drawn
            n3d_coverage_buffer coverage = {words.data(), 32, 7};
            fontbitmap_draw_glyph(g, &frame.fb, &coverage, p.x, p.y, maps.map8, maps.map16);
            for (int32_t py = 0; py < 7; py++) {
                for (int32_t px = 0; px < 32; px++) {
                    const int64_t gx = px - (int64_t)p.x, gy = py - (int64_t)p.y, b = gy * g->stencil.width + gx;
                    const bool inside = gx >= 0 && gy >= 0 && gx < g->width && gy < g->height;
                    const uint32_t v = inside ? g->pixels[gy * g->width + gx] : 0;
                    const bool covered = inside && (g->stencil.bits[b / 32] & (0x80000000u >> (b % 32)));
                    const uint32_t expected = v > 0 ? (wide ? maps.map16[v] : maps.map8[v]) : wide ? 0xEEEEu : NOISE;
                    ASSERT_TRUE(px >= 9 || frame.at(px, py) == expected) << px << ", " << py;
                    ASSERT_EQ((words[py] >> (31 - px)) & 1, px < 9 && covered) << px << ", " << py;
                }
                for (int32_t b = wide ? 18 : 9; b < frame.fb.row_bytes; b++)
                    ASSERT_EQ(frame.bytes[(size_t)py * frame.fb.row_bytes + b], NOISE) << "row tail of " << py;
            }
        }
    }
}

TEST(fontbitmap, text_pen_is_rounded_down_glyphs_go_to_the_nearest_pixel_and_unknown_characters_draw_nothing)
{
    const struct { float pen_x, pen_y, x_offset, y_offset; int32_t x, y; } cases[] = {  // x, y: where the pixel lands
        {10.0f, 3.0f, -0.5f, 0.0f, 10, 3},    // floor(9.5 + 0.5)
        {10.9f, 3.9f, 0.0f, 0.0f, 10, 3},     // the pen is rounded down before the offset
        {-0.25f, 5.0f, 1.0f, -2.0f, 0, 3},    // floor(-1 + 1 + 0.5)
        {1.0f, 1.5f, -1.6f, -1.6f, -1, -1},   // drawn off the frame: nothing anywhere
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "pen " << c.pen_x << ", " << c.pen_y << " offset " << c.x_offset);
        const test_font f(65, {{{"1"}, {"#"}, c.x_offset, c.y_offset, 2.75f}});
        test_frame frame(N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8, 16, 8, 16);
        float pen_x = c.pen_x, pen_y = c.pen_y;
        fontbitmap_draw_text_i8(&f.font, &frame.fb, nullptr, &pen_x, &pen_y, "A", maps.map8);
        EXPECT_TRUE(pen_x == floorf(c.pen_x) + 2.75f && pen_y == floorf(c.pen_y))
            << "the pen y is written back rounded down";
        for (int32_t i = 0; i < 16 * 8; i++)
            ASSERT_EQ(frame.at(i % 16, i / 16), i % 16 == c.x && i / 16 == c.y ? 101u : NOISE)
                << i % 16 << ", " << i / 16;
    }
    // A font of 65 to 200: byte 0xC1 would be glyph 193 if bytes were unsigned; as a signed character it is -63
    std::vector<test_glyph_spec> specs(136, test_glyph_spec{{"2"}, {"#"}, 0.0f, 0.0f, 1.0f});
    specs[0] = {{"1"}, {"#"}, 0.0f, 0.0f, 2.75f};  // 'A'
    const test_font f(65, specs);
    test_frame frame(N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8, 16, 1, 16);
    float pen_x = 0.0f, pen_y = 0.0f;
    fontbitmap_draw_text(&f.font, &frame.fb, nullptr, &pen_x, &pen_y, " A\xC1@A\x7F", maps.map8, nullptr);
    // space and '@' are below 65; 0x7F (127) draws 2; at floor(0.5), floor(3.25) and floor(6)
    EXPECT_EQ(pen_x, 6.5f) << "advances add up unrounded: a pen rounded per glyph would end at 7";
    for (int32_t x = 0; x < 16; x++)
        EXPECT_EQ(frame.at(x, 0), x == 0 || x == 3 ? 101u : x == 6 ? 102u : NOISE) << x;
}

TEST(fontbitmap_death, other_formats_and_missing_colour_maps_end_the_process)
{
    const test_font f(65, {GLYPH});
    test_frame index8(N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8, 4, 4, 4),
        argb(N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, 4, 4, 8);
    test_frame palettised(N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555, 4, 4, 4);
    EXPECT_EXIT(fontbitmap_draw_glyph(&f.glyphs[0], &palettised.fb, nullptr, 0, 0, maps.map8, maps.map16),
                testing::ExitedWithCode(1), "crash at src/fontbitmap:[0-9]+\nnot implemented for dst format 1\n");
    float x = 0, y = 0;
    EXPECT_EXIT(fontbitmap_draw_text_argb1555(&f.font, &index8.fb, nullptr, &x, &y, "A", maps.map16),
                testing::ExitedWithCode(1), "fontbitmap_draw_glyph.*no 8-bit colour map for an index8 framebuffer");
    EXPECT_EXIT(fontbitmap_draw_text_i8(&f.font, &argb.fb, nullptr, &x, &y, "A", maps.map8),
                testing::ExitedWithCode(1), "fontbitmap_draw_glyph.*no 16-bit colour map for an ARGB1555 framebuffer");
}
}  // namespace
