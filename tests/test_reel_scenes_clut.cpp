// Palette and clear scenes pass by pass: fades, the pulsing entry, palette animation, which call
// of which pass acts, and the parsers' checks.
#include <gtest/gtest.h>

#include "scene_fixture.h"

namespace {

typedef std::vector<uint8_t> bytes;
bytes overlay_entry(uint32_t i) { return bytes(display_live_overlay_clut() + i * 4, display_live_overlay_clut() + i * 4 + 4); }
bytes video_entry(uint32_t i) { return bytes(display_live_video_clut() + i * 4, display_live_video_clut() + i * 4 + 4); }
bytes grey(uint32_t i) { return {(uint8_t)i, (uint8_t)i, (uint8_t)i, 255}; }
bytes rgb(bytes entry) { return entry.resize(3), entry; }
bool all_zero(const uint8_t* p, size_t n) { return scene_count_not(p, n, 0) == 0; }
uint8_t blend(uint32_t from, uint32_t to, uint32_t w) { return (uint8_t)(((65536 - w) * from + w * to) >> 16); }

typedef scene_fixture clut_fixture;

TEST_F(clut_fixture, overlay_fade_reads_the_table_first_then_holds_the_target_from_90_percent)
{
    load("overlay_clut_fade_to_color", "0,256,255,255,255");
    pass(REEL_PASS_RENDER, 0.0f);
    EXPECT_FALSE(scene.load_complete) << "it prepares in an update pass";
    pass(REEL_PASS_UPDATE, 0.0f);
    const uint64_t sp_loaded = xmemarena_get_sp(&demo);
    EXPECT_EQ((pass(REEL_PASS_RENDER, 5.0f), overlay_entry(200)), grey(200))
        << "first render call: the table is only read";
    const uint8_t dark[4] = {9, 9, 9, 9};  // changed after the snapshot: the fade still starts from grey
    display.set_overlay_clut(&display, 7, 1, dark);
    pass(REEL_PASS_RENDER, 4.5f);
    const uint32_t w = 36408;  // progress 0.5 is trunc(0.5 / 0.9 x 65536) of the way
    for (uint32_t i = 0; i < 256; i++)
        ASSERT_EQ(overlay_entry(i), (bytes{blend(i, 255, w), blend(i, 255, w), blend(i, 255, w), 0})) << i;
    EXPECT_EQ(xmemarena_get_sp(&demo), sp_loaded) << "the blend's scratch is given back";

    auto at_target = [] { return overlay_entry(0) == bytes{255, 255, 255, 0} && overlay_entry(255) == bytes{255, 255, 255, 0}; };
    for (float s : {8.1f, 8.99f})
        EXPECT_TRUE((pass(REEL_PASS_RENDER, s), at_target())) << s;
    EXPECT_LT((pass(REEL_PASS_RENDER, 1.0f), overlay_entry(0)[0]), 255);
    EXPECT_TRUE((end_call(REEL_PASS_RENDER), at_target())) << "the end call lands on the target whatever the progress";
}

TEST_F(clut_fixture, video_fade_is_halfway_at_half_the_span_and_reaches_the_target_only_at_its_end)
{
    load("video_clut_fade_to_color", "16,8,0,128,255");
    pass(REEL_PASS_UPDATE, 0.0f);
    pass(REEL_PASS_RENDER, 0.0f);
    EXPECT_EQ((pass(REEL_PASS_UPDATE, 4.5f), video_entry(16)), grey(16)) << "update calls do not blend";
    pass(REEL_PASS_RENDER, 4.5f);  // w = 32768
    for (uint32_t g = 16; g < 24; g++)
        EXPECT_EQ(video_entry(g), (bytes{(uint8_t)(g >> 1), (uint8_t)((g + 128) >> 1), (uint8_t)((g + 255) >> 1), 0}));
    EXPECT_TRUE(video_entry(15) == grey(15) && video_entry(24) == grey(24) && overlay_entry(16) == grey(16));
    EXPECT_LT((pass(REEL_PASS_RENDER, 8.1f), video_entry(16)[2]), 255) << "where the overlay fade is done";
    EXPECT_LT((end_call(REEL_PASS_RENDER), video_entry(16)[2]), 255)
        << "no rule for the end call: the last progress holds";
    pass(REEL_PASS_RENDER, 9.0f);
    EXPECT_TRUE(video_entry(16) == (bytes{0, 128, 255, 0}) && video_entry(23) == (bytes{0, 128, 255, 0}));
}

TEST_F(clut_fixture, pulsate_blends_two_colours_in_linear_light_with_a_sine)
{
    load("overlay_clut_set1_pulsate", "5,0,1,255,0,0,0,0,255"),
        pass(REEL_PASS_UPDATE, 0.0f);  // index, phase, frequency
    // t = 0.5, 1, 0
    const struct { float since; uint8_t red, blue; } expected[] = {{0.0f, 187, 187}, {0.25f, 0, 255}, {0.75f, 255, 0}};
    for (const auto& e : expected)
        EXPECT_EQ((pass(REEL_PASS_RENDER, e.since), rgb(overlay_entry(5))), (bytes{e.red, 0, e.blue})) << e.since;
    EXPECT_TRUE(overlay_entry(4) == grey(4) && overlay_entry(6) == grey(6));
}

// Four palettes of two entries; palette i writes red i + 1 into entry 0.
struct animation_data {
    bytes pixels, entries = bytes(4 * 8);
    reel_palette palettes[4];
    reel_palette_animation animation;
    animation_data(uint32_t width, uint32_t height) : pixels(width * height)
    {
        for (uint32_t i = 0; i < width * height; i++)
            pixels[i] = (uint8_t)((i % width + 3 * (i / width)) % 255 + 1);
        for (uint32_t i = 0; i < 4; i++) {
            entries[i * 8] = (uint8_t)(i + 1);
            palettes[i] = {0, 2, &entries[i * 8]};
        }
        animation = {width, height, 4, pixels.data(), palettes};
    }
    // rows of the frame equal to the image, from the top
    uint32_t rows_in(const n3d_framebuffer* fb) const
    {
        uint32_t y = 0;
        while (y < animation.height &&
               memcmp(fb->pixels + y * fb->row_bytes, &pixels[y * animation.width], animation.width) == 0)
            y++;
        return y;
    }
};

TEST_F(clut_fixture, palette_animation_modes_pick_palettes_at_whole_palettes_per_second)
{
    animation_data a(64, 8);
    add(REEL_KIND_PALETTE_ANIMATION, "waves", &a.animation);
    // loop, hold, reverse once, forth and back (the step that would be -1 stays on 0)
    const uint32_t expected[4][10] = {
        {0, 1, 2, 3, 0, 1, 2, 3, 0, 1}, {0, 1, 2, 3, 3, 3, 3, 3, 3, 3}, {3, 2, 1, 0, 0, 0, 0, 0, 0, 0}, {0, 1, 2, 3, 2, 1, 0, 0, 0, 1}};
    for (uint32_t mode = 0; mode < 4; mode++) {
        load("overlay_palette_animation", ("2,waves," + std::to_string(mode) + ",2.9").c_str());
        pass(REEL_PASS_UPDATE, 0.0f);
        const bytes before = overlay_entry(0);
        display.set_transparent_index(&display, 7), pass(REEL_PASS_RENDER, 0.0f);  // first render call: the image only
        EXPECT_TRUE(overlay_entry(0) == before && display_transparent_index() == 7 && a.rows_in(overlay.framebuffer) == 8);
        for (uint32_t p = 0; p < 10; p++) {
            display.set_transparent_index(&display, 7);
            pass(REEL_PASS_RENDER, 0.5f * (float)p);  // 2.9 palettes per second count as 2
            EXPECT_TRUE(overlay_entry(0)[0] == expected[mode][p] + 1 && display_transparent_index() == 0)
                << "mode " << mode << " at " << 0.5 * p;
        }
    }
}

TEST_F(clut_fixture, palette_animation_loads_its_image_at_once_without_budget_and_in_row_slices_with_one)
{
    animation_data small(64, 8), full(640, 480);
    add(REEL_KIND_PALETTE_ANIMATION, "waves", &small.animation);
    add(REEL_KIND_PALETTE_ANIMATION, "full", &full.animation);
    load("overlay_palette_animation", "1,waves,0,1");
    pass(REEL_PASS_UPDATE, 0.0f, 0);
    const uint8_t* back1 = backbuffers[1].framebuffer->pixels;  // nothing below or right of the image, nor elsewhere
    EXPECT_TRUE(scene.load_complete && small.rows_in(backbuffers[1].framebuffer) == 8);
    EXPECT_TRUE(all_zero(back1 + 8 * 640, 640 * 472) && all_zero(back1 + 64, 640 - 64));

    load("overlay_palette_animation", "0,full,0,1");
    uint32_t calls = 0, copied = 0;
    while (!scene.load_complete && calls++ < 1000000) {
        pass(REEL_PASS_UPDATE, 0.0f, 3000);  // cycles for a few dozen rows
        const uint32_t now = full.rows_in(backbuffers[0].framebuffer);
        ASSERT_GE(now, copied) << "slices continue where the last call stopped";
        ASSERT_TRUE(scene.load_complete || all_zero(backbuffers[0].framebuffer->pixels + now * 640, (480 - now) * 640));
        copied = now;
    }
    EXPECT_TRUE(calls > 1 && copied == 480) << calls << " " << copied;
}

TEST_F(clut_fixture, video_clear_fills_in_render_calls_while_update_runs_are_at_most_2)
{
    load("video_clear", "255,128,7");
    const uint16_t colour = 0x8000 | 31 << 10 | 16 << 5 | 0;  // (255, 128, 7) in 5 bits a channel
    auto filled = [&] { return video_pixel(0, 0) == colour && video_pixel(319, 239) == colour; };
    for (uint32_t runs = 0; runs <= 4; runs++) {
        n3d_framebuffer_clear(ctx.video->framebuffer);
        if (runs > 0) {
            pass(REEL_PASS_UPDATE, 0.0f);
            EXPECT_FALSE(filled()) << "update calls never fill";
        }
        pass(REEL_PASS_RENDER, 0.0f);
        EXPECT_EQ(filled(), runs <= 2) << runs;
    }
}

TEST_F(clut_fixture, overlay_clears_and_clut_set_act_only_in_their_first_render_call)
{
    uint8_t entries[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    reel_palette sky = {3, 2, entries};
    add(REEL_KIND_PALETTE, "sky", &sky);
    const uint8_t* bottom_right = overlay.framebuffer->pixels + 640 * 480 - 1;
    const uint8_t* back2 = backbuffers[2].framebuffer->pixels + 640 * 480 - 1;
    const struct { const char* function; const char* args; uint8_t overlay, back2; bytes entry4;
    } cases[] = {{"overlay_clear", "7", 7, 0, grey(4)},
                 {"overlay_backbuffer_clear", "2,9", 0, 9, grey(4)},
                 {"overlay_clut_set", "sky", 0, 0, {5, 6, 7, 8}}};
    for (const auto& c : cases) {
        load(c.function, c.args);
        pass(REEL_PASS_UPDATE, 0.0f);
        EXPECT_EQ(*bottom_right + *back2, 0) << c.function;
        pass(REEL_PASS_RENDER, 0.0f);
        EXPECT_TRUE(*bottom_right == c.overlay && *back2 == c.back2 && overlay_entry(4) == c.entry4) << c.function;
        EXPECT_TRUE(all_zero(backbuffers[1].framebuffer->pixels, 640 * 480));
        // undone, then later calls of both passes and the end call leave everything alone
        n3d_framebuffer_clear(overlay.framebuffer);
        n3d_framebuffer_clear(backbuffers[2].framebuffer);
        display.set_overlay_clut(&display, 0, 256, display.default_overlay_clut.entries);
        pass(REEL_PASS_RENDER, 1.0f);
        pass(REEL_PASS_UPDATE, 1.0f);
        end_call(REEL_PASS_RENDER);
        EXPECT_TRUE(*bottom_right + *back2 == 0 && overlay_entry(4) == grey(4)) << c.function;
    }
}

TEST_F(clut_fixture, numbers_outside_a_table_or_the_back_buffers_are_fatal)
{
    animation_data a(64, 8);
    add(REEL_KIND_PALETTE_ANIMATION, "waves", &a.animation);
    const struct { const char* function; const char* args; const char* message; } cases[] = {
        {"overlay_backbuffer_clear", "3,0",
         "crash in scene_overlay_backbuffer_clear_parse_args at src/reel_scenes:[0-9]+\n"
         "back buffer 3 is not one of the 3 overlay back buffers \\(sequence line 12\\)\n"},
        {"overlay_palette_animation", "0,waves,4,1", "palette animation mode 4 is none of 0"},
        {"overlay_clut_fade_to_color", "250,7,0,0,0", "fade of 7 entries from 250 is not inside the 256 entries"},
        {"overlay_clut_set1_pulsate", "256,0,1,0,0,0,0,0,0", "colour index 256 is not inside the 256 entries"},
    };
    for (const auto& c : cases)
        EXPECT_FATAL(load(c.function, c.args), c.message) << c.args;
    load("overlay_clut_fade_to_color", "0,256,0,0,0");  // the whole table is fine

    // values a scene description bound meet the same checks in the scene's load call
    int32_t fade[5] = {200, 100, 0, 0, 0};
    load("video_clut_fade_to_color", nullptr, 9.0f, [&] { scene.integer_count = 5, scene.integers = fade; });
    EXPECT_FATAL(pass(REEL_PASS_UPDATE, 0.0f), "fade of 100 entries from 200");
}

}  // namespace
