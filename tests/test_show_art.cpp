// The show's drawing helpers: text set from glyph records onto a coverage canvas, and the
// blinds frames that reveal a shape. The glyphs are made here, so every expected pixel follows
// from the placement rule: top left = pen + offset, rounded to the nearest pixel.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "show_art.h"
#include "test_fatal.h"

namespace {

// 'A': 2 x 2 pixels 10 20 / 30 40 at (+0.6, -2.4), advancing 3; 'B': one pixel of 200 at (0, 0),
// advancing 1; 'C': no pixels, advancing 0.25.
struct art_font {
    uint8_t a_pixels[4] = {10, 20, 30, 40};
    uint8_t b_pixels[1] = {200};
    reel_glyph glyphs[3];
    reel_font font;
    art_font()
    {
        memset(glyphs, 0, sizeof(glyphs));
        glyphs[0].width = 2, glyphs[0].height = 2, glyphs[0].x_offset = 0.6f, glyphs[0].y_offset = -2.4f;
        glyphs[0].advance = 3.0f, glyphs[0].pixels = a_pixels;
        glyphs[1].width = 1, glyphs[1].height = 1, glyphs[1].advance = 1.0f, glyphs[1].pixels = b_pixels;
        glyphs[2].advance = 0.25f;
        font = {'A', 'C', 3, glyphs};
    }
};

struct art_pixel { uint32_t x, y; uint8_t value; };

}  // namespace

TEST(show_art, text_width_is_the_pens_travel_rounded_up)
{
    const art_font f;
    // "ABC" is 4.25, rounded up; '?' and '~' lie outside 'A' to 'C' and advance nothing; "CCCC" is exactly 1
    const struct {
        const char* text;
        uint32_t width;
    } cases[] = {{"", 0}, {"AB", 4}, {"ABC", 5}, {"A?B~", 4}, {"CCCC", 1}};
    for (const auto& c : cases)
        EXPECT_EQ(show_art_text_width(&f.font, c.text), c.width) << c.text;
}

TEST(show_art, glyphs_land_at_the_pen_plus_their_offsets_rounded)
{
    const art_font f;
    const std::vector<art_pixel> ab = {{2, 2, 10}, {3, 2, 20}, {2, 3, 30}, {3, 3, 40}, {4, 4, 200}};
    const struct {
        const char* text;
        float x, baseline;
        bool centred;
        uint8_t fill;
        std::vector<art_pixel> pixels;
    } cases[] = {
        // A from (round(1.6), round(1.6)) = (2, 2); the pen moves to 4: B at (4, 4)
        {"AB", 1.0f, 4.0f, false, 0, ab},
        // "AB" is 4 wide: centred on 3 the pen starts at 1
        {"AB", 3.0f, 4.0f, true, 0, ab},
        // A from (round(-1.4), round(-1.4)) = (-1, -1): only its last pixel is on the canvas
        {"AB", -2.0f, 1.0f, false, 0, {{0, 0, 40}, {1, 1, 200}}},
        // the far edges cut as well: A from (7, 6) is wholly below the canvas, from (7, 5) shows its first pixel
        {"A", 6.0f, 8.0f, false, 0, {}},
        {"A", 6.0f, 7.0f, false, 0, {{7, 5, 10}}},
        // a pixel keeps the larger coverage: 10 and 20 stay 25
        {"A", 1.0f, 4.0f, false, 25, {{2, 3, 30}, {3, 3, 40}}},
        // characters outside the font neither draw nor move the pen
        {"?A~B", 1.0f, 4.0f, false, 0, ab},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.text) + " at " + std::to_string(c.x) + ", " + std::to_string(c.baseline));
        // on a canvas of 8 x 6 filled with c.fill, only the listed pixels change
        std::vector<uint8_t> cover(8 * 6, c.fill), expected = cover;
        show_art_canvas canvas = {8, 6, cover.data()};
        (c.centred ? show_art_draw_text_centred : show_art_draw_text)(&canvas, &f.font, c.text, c.x, c.baseline);
        for (const art_pixel& p : c.pixels)
            expected[p.y * 8 + p.x] = p.value;
        EXPECT_EQ(cover, expected);
    }
}

TEST(show_art, blinds_frames_open_band_by_band_up_to_the_whole_shape)
{
    // a 12 x 2 shape, fully covered but for (1, 0) at 100 and (7, 1) at 127, below the threshold
    std::vector<uint8_t> cover(24, 255);
    cover[1] = 100, cover[12 + 7] = 127;
    const show_art_canvas shape = {12, 2, cover.data()};
    // the columns a frame opens in each band, as '#': band 4 in four frames opens column x in
    // frame x % 4; band 6 in four frames, x % 6 x 4 < 6 (k + 1): 2, 3, 5, 6 columns; one frame all
    const struct { uint32_t band, k, count; const char* columns; } cases[] = {
        {4, 0, 4, "#...#...#..."}, {4, 1, 4, "##..##..##.."}, {4, 3, 4, "############"}, {6, 0, 4, "##....##...."},
        {6, 1, 4, "###...###..."}, {6, 2, 4, "#####.#####."}, {6, 3, 4, "############"}, {5, 0, 1, "############"},
    };
    std::vector<uint8_t> out(24);
    for (const auto& c : cases) {
        SCOPED_TRACE("band " + std::to_string(c.band) + ", frame " + std::to_string(c.k) + " of " + std::to_string(c.count));
        show_art_blinds_frame(out.data(), &shape, 128, c.band, c.k, c.count);
        for (uint32_t i = 0; i < 24; i++)
            EXPECT_EQ(out[i], c.columns[i % 12] == '#' && i != 1 && i != 12 + 7 ? 1 : 0) << "pixel " << i;
    }
}

TEST(show_art_death, a_frame_outside_the_reveal_is_fatal)
{
    uint8_t cover[4] = {255, 255, 255, 255}, out[4];
    const show_art_canvas shape = {4, 1, cover};
    EXPECT_FATAL(show_art_blinds_frame(out, &shape, 1, 2, 4, 4),
                 test_fatal("show_art_blinds_frame", "prep/show_art", "frame 4 of 4 with bands of 2 pixels\n"));
    EXPECT_FATAL(show_art_blinds_frame(out, &shape, 1, 0, 0, 4),
                 test_fatal("show_art_blinds_frame", "prep/show_art", "frame 0 of 4 with bands of 0 pixels\n"));
}
