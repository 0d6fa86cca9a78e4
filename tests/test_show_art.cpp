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

struct art_canvas {
    std::vector<uint8_t> cover;
    show_art_canvas c;
    art_canvas(uint32_t w, uint32_t h, uint8_t fill) : cover((size_t)w * h, fill) { c = {w, h, cover.data()}; }
    uint8_t at(uint32_t x, uint32_t y) const { return cover[(size_t)y * c.width + x]; }
};

struct art_pixel {
    uint32_t x, y;
    uint8_t value;
};

// Every pixel of the canvas: the listed ones hold their values, all others `fill`.
void expect_canvas(const art_canvas& canvas, uint8_t fill, const std::vector<art_pixel>& pixels)
{
    for (uint32_t y = 0; y < canvas.c.height; y++)
        for (uint32_t x = 0; x < canvas.c.width; x++) {
            uint8_t expected = fill;
            for (const art_pixel& p : pixels)
                if (p.x == x && p.y == y)
                    expected = p.value;
            EXPECT_EQ(canvas.at(x, y), expected) << "pixel (" << x << ", " << y << ")";
        }
}

}  // namespace

TEST(show_art, text_width_is_the_pens_travel_rounded_up)
{
    const art_font f;
    const struct {
        const char* text;
        uint32_t width;
    } cases[] = {
        {"", 0},
        {"A", 3},
        {"AB", 4},
        {"ABC", 5},    // 4.25 rounds up
        {"A?B~", 4},   // '?' and '~' lie outside 'A' to 'C' and advance nothing
        {"CCCC", 1},   // exactly 1
    };
    for (const auto& c : cases)
        EXPECT_EQ(show_art_text_width(&f.font, c.text), c.width) << c.text;
}

TEST(show_art, glyphs_land_at_the_pen_plus_their_offsets_rounded)
{
    const art_font f;
    const struct {
        const char* text;
        float x, baseline;
        uint8_t fill;
        std::vector<art_pixel> pixels;
    } cases[] = {
        // A from (round(1.6), round(1.6)) = (2, 2); the pen moves to 4: B at (4, 4)
        {"AB", 1.0f, 4.0f, 0, {{2, 2, 10}, {3, 2, 20}, {2, 3, 30}, {3, 3, 40}, {4, 4, 200}}},
        // A from (round(-1.4), round(-1.4)) = (-1, -1): only its last pixel is on the canvas
        {"AB", -2.0f, 1.0f, 0, {{0, 0, 40}, {1, 1, 200}}},
        // the far edges cut as well: A from (7, 6) is wholly below the canvas, from (7, 5) shows its first pixel
        {"A", 6.0f, 8.0f, 0, {}},
        {"A", 6.0f, 7.0f, 0, {{7, 5, 10}}},
        // a pixel keeps the larger coverage: 10 and 20 stay 25
        {"A", 1.0f, 4.0f, 25, {{2, 3, 30}, {3, 3, 40}}},
        // characters outside the font neither draw nor move the pen
        {"?A~B", 1.0f, 4.0f, 0, {{2, 2, 10}, {3, 2, 20}, {2, 3, 30}, {3, 3, 40}, {4, 4, 200}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.text) + " at " + std::to_string(c.x) + ", " + std::to_string(c.baseline));
        art_canvas canvas(8, 6, c.fill);
        show_art_draw_text(&canvas.c, &f.font, c.text, c.x, c.baseline);
        expect_canvas(canvas, c.fill, c.pixels);
    }
}

TEST(show_art, centred_text_starts_half_its_width_left_of_the_centre)
{
    const art_font f;
    art_canvas canvas(8, 6, 0);
    // "AB" is 4 wide: centred on 3 the pen starts at 1, as in the first placement case
    show_art_draw_text_centred(&canvas.c, &f.font, "AB", 3.0f, 4.0f);
    expect_canvas(canvas, 0, {{2, 2, 10}, {3, 2, 20}, {2, 3, 30}, {3, 3, 40}, {4, 4, 200}});
}

TEST(show_art, blinds_frames_open_band_by_band_up_to_the_whole_shape)
{
    // a 12 x 2 shape, fully covered but for (1, 0) at 100 and (7, 1) at 127, below the threshold
    std::vector<uint8_t> cover(24, 255);
    cover[1] = 100, cover[12 + 7] = 127;
    const show_art_canvas shape = {12, 2, cover.data()};
    const struct {
        uint32_t band, k, count;
        const char* columns;  // the columns a frame opens in each band, as '#', of all 12
    } cases[] = {
        // band 4 in four frames: column x opens in frame x % 4
        {4, 0, 4, "#...#...#..."},
        {4, 1, 4, "##..##..##.."},
        {4, 3, 4, "############"},
        // band 6 in four frames: x % 6 x 4 < 6 (k + 1) opens 2, 3, 5, 6 columns
        {6, 0, 4, "##....##...."},
        {6, 1, 4, "###...###..."},
        {6, 2, 4, "#####.#####."},
        {6, 3, 4, "############"},
        // one frame holds everything at once
        {5, 0, 1, "############"},
    };
    std::vector<uint8_t> out(24);
    for (const auto& c : cases) {
        SCOPED_TRACE("band " + std::to_string(c.band) + ", frame " + std::to_string(c.k) + " of " + std::to_string(c.count));
        show_art_blinds_frame(out.data(), &shape, 128, c.band, c.k, c.count);
        for (uint32_t y = 0; y < 2; y++)
            for (uint32_t x = 0; x < 12; x++) {
                const bool below = (x == 1 && y == 0) || (x == 7 && y == 1);
                EXPECT_EQ(out[y * 12 + x], c.columns[x] == '#' && !below ? 1 : 0) << "pixel (" << x << ", " << y << ")";
            }
    }
}

TEST(show_art_death, a_frame_outside_the_reveal_is_fatal)
{
    uint8_t cover[4] = {255, 255, 255, 255}, out[4];
    const show_art_canvas shape = {4, 1, cover};
    EXPECT_EXIT(show_art_blinds_frame(out, &shape, 1, 2, 4, 4), testing::ExitedWithCode(1),
                test_fatal("show_art_blinds_frame", "prep/show_art", "frame 4 of 4 with bands of 2 pixels\n"));
    EXPECT_EXIT(show_art_blinds_frame(out, &shape, 1, 0, 0, 4), testing::ExitedWithCode(1),
                test_fatal("show_art_blinds_frame", "prep/show_art", "frame 0 of 4 with bands of 0 pixels\n"));
}
