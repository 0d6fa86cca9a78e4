// Overlay scenes pass by pass: where and when run-length images and stencils land, the stencil
// animation's frame and bob, heal, the scale's size and interlace parity, the progress bar, the
// stroke over its span, the starfield's set-up, and the fatal checks of arguments and bindings.
#include <gtest/gtest.h>

#include "music.h"
#include "reel_starfield.h"
#include "scene_fixture.h"

namespace {

typedef std::vector<uint8_t> bytes;
typedef scene_fixture overlay_fixture;

TEST_F(overlay_fixture, rle_image_lands_once_at_its_progress_between_start_and_end)
{
    const uint8_t data[] = {0, 3, 5, 1, 7};  // 4 x 2: a transparent row, then 5, 5, 5, 7
    reel_rle_image image = {4, 2, sizeof(data), data};
    add(REEL_KIND_RLE_IMAGE, "logo", &image);
    const struct { const char* args; float since; int32_t x, y; bytes row; } cases[] = {
        {"logo,0,9,100,40,200,80", 4.5f, 150, 60, {5, 5, 5, 7}},    // halfway over 9 s
        {"logo,1,9,100,40,200,80", 9.0f, 200, 80, {9, 9, 9, 9}},    // at the end, one colour
        {"logo,0,9,10,10,-13,-13", 4.5f, -1, -1, {5, 5, 7}},        // trunc(-1.5): clipped at the left
    };
    for (const auto& c : cases) {
        n3d_framebuffer_clear(&overlay_framebuffer);
        load("overlay_rle_image", c.args);
        pass(REEL_PASS_UPDATE, c.since);
        pass(REEL_PASS_RENDER, c.since);
        const uint8_t* second = overlay_framebuffer.pixels + (c.y + 1) * 640 + std::max(c.x, 0);
        EXPECT_EQ(bytes(second, second + c.row.size()), c.row) << c.args;
        EXPECT_EQ(scene_count_not(overlay_framebuffer.pixels, 640 * 480, 0), c.row.size()) << c.args;
        n3d_framebuffer_clear(&overlay_framebuffer);
        pass(REEL_PASS_RENDER, c.since);
        end_call(REEL_PASS_RENDER);
        EXPECT_EQ(scene_count_not(overlay_framebuffer.pixels, 640 * 480, 0), 0u) << "drawn in the first render call only";
    }
}

TEST_F(overlay_fixture, stencil_set_copies_its_stencil_into_the_slot_once)
{
    uint32_t words[2 * 3] = {0x7FFFFFFFu, ~0u, ~0u, ~0u, ~0u, ~0u};  // (0, 0) of the stencil clear
    n3d_coverage_buffer small = {words, 64, 3};
    add(REEL_KIND_STENCIL, "tile", &small);
    memset(stencils[2].bits, 0xFF, 640 / 8 * 480);
    load("overlay_stencil_set", "2,tile,100,200");
    pass(REEL_PASS_UPDATE, 0.0f), pass(REEL_PASS_RENDER, 0.0f);  // render calls only, the first of them
    // the one clear bit lands at (100, 200); outside the stencil the slot keeps its bits
    EXPECT_EQ(scene_coverage_bit(&stencils[2], 100, 200), 0u);
    EXPECT_EQ(scene_count_not((const uint8_t*)stencils[2].bits, 640 / 8 * 480, 0xFF) +
                  scene_count_not((const uint8_t*)stencils[1].bits, 640 / 8 * 480, 0), 1u);
    memset(stencils[2].bits, 0xFF, 640 / 8 * 480);
    pass(REEL_PASS_RENDER, 1.0f);
    EXPECT_EQ(scene_coverage_bit(&stencils[2], 100, 200), 1u);
}

TEST_F(overlay_fixture, stencil_animation_cycles_stencils_and_bobs_ten_rows_a_second)
{
    // stencil i covers rows 100 + 10 i to 104 + 10 i
    std::vector<uint32_t> words[4];
    n3d_coverage_buffer cbs[4], *list[4];
    for (int32_t i = 0; i < 4; i++) {
        words[i].assign(20 * 480, 0);
        std::fill_n(words[i].begin() + 20 * (100 + 10 * i), 20 * 5, ~0u);
        cbs[i] = {words[i].data(), 640, 480};
        list[i] = &cbs[i];
    }
    float speed = 8.0f;
    int32_t colour = 44;
    load("overlay_stencil_animation", nullptr, 9.0f, [&] {
        scene.float_count = 1, scene.floats = &speed, scene.integer_count = 1, scene.integers = &colour;
        scene.stencil_count = 4, scene.stencils = list;
    });
    // frame 4: stencil 0, bob trunc(-5.88) = -5; frame 6: stencil 2, 10 x sin(1.5 pi) = -10; frame 2,
    // bob +10; frame 8: stencil 0, sin(2 pi) is a hair below 0
    const struct {
        float since;
        int32_t first_row;
    } cases[] = {{0.6f, 100 - 5}, {0.75f, 120 - 10}, {0.25f, 120 + 10}, {1.0f, 100}};
    for (const auto& c : cases) {
        n3d_framebuffer_clear(&overlay_framebuffer);
        n3d_coverage_buffer_clear(overlay.coverage[0]);
        pass(REEL_PASS_RENDER, c.since);
        for (int32_t y = 0; y < 480; y++) {
            const bool in = y >= c.first_row && y < c.first_row + 5;
            ASSERT_TRUE(overlay_framebuffer.pixels[y * 640 + 320] == (in ? 44 : 0) &&
                        scene_coverage_bit(overlay.coverage[0], 639, y) == in) << c.since << " row " << y;
        }
    }
}

TEST_F(overlay_fixture, heal_restores_what_was_drawn_last_frame_and_not_this_one)
{
    load("overlay_heal", "1");
    memset(backbuffers[1].framebuffer->pixels, 66, 640 * 480);
    memset(overlay_framebuffer.pixels, 9, 640 * 480);
    // last frame drew (10, 10), (11, 10) and (600, 470); this frame draws (11, 10) again and (12, 10)
    const int32_t drawn[5][3] = {{1, 10, 10}, {1, 11, 10}, {1, 600, 470}, {0, 11, 10}, {0, 12, 10}};
    for (const auto& d : drawn)
        overlay.coverage[d[0]]->bits[d[2] * 20 + d[1] / 32] |= 0x80000000u >> (d[1] % 32);
    pass(REEL_PASS_UPDATE, 0.0f);
    EXPECT_EQ(scene_count_not(overlay_framebuffer.pixels, 640 * 480, 9), 0u) << "render calls only";
    pass(REEL_PASS_RENDER, 0.0f);
    EXPECT_TRUE(overlay_framebuffer.pixels[10 * 640 + 10] == 66 && overlay_framebuffer.pixels[470 * 640 + 600] == 66);
    EXPECT_EQ(scene_count_not(overlay_framebuffer.pixels, 640 * 480, 9), 2u) << "(11, 10) and (12, 10) are kept";
}

TEST_F(overlay_fixture, scale_grows_about_the_centre_and_interlaces_alternate_rows)
{
    scene_test_image img(7, 7, 128, 128);
    std::fill(img.texels.begin(), img.texels.end(), 3);
    add(REEL_KIND_TEXTURE, "ball", &img.image.texture);
    const struct { const char* args; float since; int32_t x0, y0, size; } cases[] = {
        {"ball,0,7,-5,64,64,256,256", 2.0f, 320 - 80 + 7, 240 - 80 - 5, 160},  // halfway over 4 s, offset
        {"ball,0,0,0,64,64,256,256", 6.0f, 320 - 128, 240 - 128, 256},        // clamped at the end size
    };
    for (const auto& c : cases) {
        n3d_framebuffer_clear(&overlay_framebuffer);
        load("overlay_scale", c.args, 4.0f);
        pass(REEL_PASS_UPDATE, c.since);
        pass(REEL_PASS_RENDER, c.since);
        EXPECT_EQ(scene_count_not(overlay_framebuffer.pixels, 640 * 480, 0), (uint32_t)(c.size * c.size)) << c.args;
        EXPECT_TRUE(overlay_framebuffer.pixels[c.y0 * 640 + c.x0] == 3 &&
                    overlay_framebuffer.pixels[(c.y0 + c.size - 1) * 640 + c.x0 + c.size - 1] == 3) << c.args;
    }
    // interlaced: parity 0 skips even rows, then 1 skips odd rows; coverage marks every row
    load("overlay_scale", "ball,1,0,0,64,64,64,64", 4.0f);
    pass(REEL_PASS_UPDATE, 0.0f);
    for (uint32_t call = 0; call < 4; call++) {
        n3d_framebuffer_clear(&overlay_framebuffer);
        n3d_coverage_buffer_clear(overlay.coverage[0]);
        pass(REEL_PASS_RENDER, 1.0f);
        for (int32_t y = 208; y < 272; y++) {
            ASSERT_TRUE(overlay_framebuffer.pixels[y * 640 + 300] == ((y & 1) != (int32_t)(call & 1) ? 3 : 0) &&
                        scene_coverage_bit(overlay.coverage[0], 300, y) == 1) << call << " row " << y;
        }
    }
}

TEST_F(overlay_fixture, progress_bar_runs_from_the_show_start_to_the_end_of_its_row)
{
    // entries 0 black, 1 pure red, 2 dark red; palette placed from index 50
    uint8_t entries[12] = {0, 0, 0, 255, 255, 0, 0, 255, 120, 0, 0, 255};
    reel_palette palette = {50, 3, entries}, *palettes[1] = {&palette};
    scene_test_image head0(3, 2, 8, 4), head1(3, 2, 8, 4);  // head image frames of 8 x 4
    head0.texels.assign(32, 7), head1.texels.assign(32, 8);
    reel_image* heads[2] = {&head0.image, &head1.image};
    int32_t integers[7] = {250, 10, 10, 100, 300, 208, 6};  // colour, bar x, y, length, height
    float fps = 2.0f;
    row.end = 441000;
    load("overlay_load_progress", nullptr, 9.0f, [&] {
        scene.integer_count = 7, scene.integers = integers, scene.float_count = 1, scene.floats = &fps;
        scene.palette_count = 1, scene.palettes = palettes, scene.image_count = 2, scene.images = heads;
    });
    // p = 0.5 of (208 - 8); p = 0.75, and the second frame: trunc(2 x 15.5) mod 2 = 1; past the row's end: p = 1
    const struct { int32_t samples; float clock; int32_t head_x; } cases[] = {
        {0, 0.0f, 100}, {220500, 10.0f, 100 + 100}, {330750, 15.5f, 100 + 150}, {500000, 20.0f, 100 + 200}};
    pass(REEL_PASS_UPDATE, 0.0f);
    int32_t previous = 100;
    for (const auto& c : cases) {
        music_global.sample_counter.store(c.samples);
        scene.clock_seconds = c.clock;
        memset(overlay_framebuffer.pixels, 0, 640 * 480);
        pass(REEL_PASS_RENDER, 0.0f);
        const uint8_t* clut = display_live_overlay_clut();  // the palette is set in the first render call
        EXPECT_TRUE(c.samples != 0 || bytes(clut + 50 * 4, clut + 53 * 4) == bytes(entries, entries + 12));
        const uint8_t frame = (uint8_t)(7 + (int32_t)(2.0f * c.clock) % 2);  // frames per second x music clock
        // the head image, 8 x 4, over the bar; of the bar only the newly reached strip, in the entry
        // nearest to (250, 10, 10): pure red; the bar is 6 rows high, the head 4
        for (int32_t x = 90; x < 320; x++)
            ASSERT_EQ(overlay_framebuffer.pixels[302 * 640 + x], x >= c.head_x && x < c.head_x + 8 ? frame
                                                                 : x >= previous && x < c.head_x   ? 51
                                                                                                   : 0)
                << c.samples << " " << x;
        EXPECT_TRUE(overlay_framebuffer.pixels[305 * 640 + (previous + c.head_x) / 2] ==
                        (previous < c.head_x ? 51 : 0) &&
                    overlay_framebuffer.pixels[306 * 640 + c.head_x - 1] == 0)
            << c.samples;
        previous = c.head_x;
    }
    music_global.sample_counter.store(0);
}

TEST_F(overlay_fixture, stroke_draws_holds_erases_and_restores_everything_at_its_end)
{
    // 32 x 2 texels: pixel x of row 0 appears at order 8 x (x + 1) (8 to 256 capped at 255), row 1 empty
    scene_test_image img(5, 1, 32, 2);
    for (uint32_t x = 0; x < 32; x++)
        img.texel(x, 0) = (uint8_t)std::min(8u * (x + 1), 255u);
    add(REEL_KIND_IMAGE, "pen", &img.image);
    memset(backbuffers[2].framebuffer->pixels, 77, 640 * 480);
    load("overlay_stroke", "2,pen,2,2,200,0,5,-7", 5.0f), pass(REEL_PASS_UPDATE, 0.0f);  // hold 1 s
    const uint8_t* shape = overlay_framebuffer.pixels + (240 - 1 - 7) * 640 + 320 - 16 + 5;
    auto shown = [&] { return std::pair{std::count(shape, shape + 32, 200), std::count(shape, shape + 32, 77)}; };
    // level 127: threshold trunc(255 s(127 / 255)) = 187 -> texels 8..184; held at level 255: threshold 254,
    // the texel 255 stays out; erasing from level 127 (threshold 187): texels 192 and up; after the span: level 0
    const struct { float since; long drawn, restored; } cases[] = {
        {0.0f, 0, 0}, {1.0f, 187 / 8, 0}, {2.5f, 31, 0}, {4.0f, 0, 32 - 23}, {6.0f, 0, 32}};
    for (const auto& c : cases) {
        memset(overlay_framebuffer.pixels, 0, 640 * 480);
        pass(REEL_PASS_RENDER, c.since);
        EXPECT_EQ(shown(), (std::pair{c.drawn, c.restored})) << c.since;
        EXPECT_EQ(scene_count_not(overlay_framebuffer.pixels, 640 * 480, 0), c.drawn + c.restored) << c.since;
    }
    memset(overlay_framebuffer.pixels, 0, 640 * 480);
    scene.since_start_seconds = 1.0f;
    end_call(REEL_PASS_RENDER);
    EXPECT_EQ(shown(), (std::pair{0l, 32l})) << "the end call restores the whole shape";
}

TEST_F(overlay_fixture, starfield_scene_rounds_its_star_count_to_a_power_of_two_and_flies_forward)
{
    uint8_t entries[64 * 4] = {};
    reel_palette palette = {16, 64, entries};
    add(REEL_KIND_PALETTE, "stars", &palette);
    load("overlay_starfield", "-1,0,1000,stars,0,0,0,31,0,0");
    pass(REEL_PASS_UPDATE, 0.0f);
    const reel_starfield* sf = *(reel_starfield**)scene.private_state;
    EXPECT_TRUE(sf->log2_star_count == 10 && sf->stencil == nullptr && sf->image == nullptr);  // "0" is no image
    pass(REEL_PASS_RENDER, 2.5f);
    EXPECT_EQ(sf->camera[2], 2.0f);
    EXPECT_GT(scene_count_not(overlay_framebuffer.pixels, 640 * 480, 0), 100u) << "stars the camera passed respawn";
}

TEST_F(overlay_fixture, numbers_outside_their_ranges_and_missing_bindings_are_fatal)
{
    uint8_t entries[8] = {};
    reel_palette palette = {0, 2, entries}, empty = {0, 0, entries};
    add(REEL_KIND_PALETTE, "stars", &palette);
    add(REEL_KIND_PALETTE, "none", &empty);
    scene_test_image small(8, 8, 200, 200);
    add(REEL_KIND_IMAGE, "small", &small.image);
    const struct { const char* function; const char* args; const char* message; bool at_load; } cases[] = {
        {"overlay_starfield", "-1,0,20000,stars,0,0,0,31,0,0",
         "crash in scene_overlay_starfield_parse_args at src/reel_scenes:[0-9]+\nmax stars is set to 16384\n", false},
        {"overlay_starfield", "-1,0,0,stars,0,0,0,31,0,0", "star count 0 is not at least 1 \\(sequence line 12\\)", false},
        {"overlay_starfield", "3,0,10,stars,0,0,0,31,0,0", "stencil slot 3 is not one of the 3 overlay stencil slots", false},
        {"overlay_starfield", "-1,0,10,none,0,0,0,31,0,0", "starfield palette has no entries", false},
        {"overlay_heal", "3", "crash in scene_overlay_heal_parse_args.*\nback buffer 3 is not one of the 3 overlay back buffers", false},
        // found in the scene's load call, not by its parser
        {"overlay_starfield", "-1,small,10,stars,0,0,0,31,0,0",
         "threshold image of 256 x 256 texels does not cover the 640 x 480 overlay", true},
        {"overlay_starfield", "-1,0,10,stars,0,0,16,40,0,0", "but has 25 levels\n", true},
    };
    for (const auto& c : cases)
        EXPECT_FATAL((load(c.function, c.args), c.at_load ? pass(REEL_PASS_UPDATE, 0.0f) : void()), c.message)
            << c.function << " " << c.args;
}
}  // namespace
