// Asset preparation for the video-plane effects: conversions of pictures with known pixels and the tool.
#include "n3d_io.h"
#include "test_fatal.h"
#include "tool_fixture.h"
#include "video_prep.h"

namespace {
struct video_prep_fixture : testing::Test {
    test_arena memory = test_arena(32u << 20), tmp_memory = test_arena(64u << 20);
    xmemarena &arena = memory.arena, &tmp = tmp_memory.arena;
    n3d_texture texture = {};
    bitmap* picture(uint32_t w, uint32_t h, const std::vector<uint8_t>& fill)
    {
        bitmap* bm = bitmap_create(&arena, w, h, BITMAP_SRGB | BITMAP_CHANNELS_4);
        for (uint32_t i = 0; i < w * h; i++)
            memcpy(bitmap_pixel(bm, i % w, i / w), fill.data(), fill.size());
        return bm;
    }
    uint32_t texel32(uint32_t x, uint32_t y) const { return ((const uint32_t*)texture.mips[0])[(y << texture.log2_w) + x]; }
};

TEST_F(video_prep_fixture, bump_texels_from_normal_maps_read_the_channels_as_plain_numbers)
{
    // n = (2 x 64/255 - 1, 2 x 128/255 - 1, 1) = (-0.498, 0.0039, 1), |n| = 1.1172: nx -0.4458 is
    // -57 of 127; m1 = trunc(0.2480 x 255) = 63; m0 = lrint(0.1987 x 127) = 25 (an sRGB reading
    // of 64 would give nx -85)
    ASSERT_EQ(video_prep_bump_from_normals(&texture, &arena, &tmp, picture(8, 4, {64, 128, 255, 255})), nullptr);
    EXPECT_TRUE(texture.format == 4 && texture.linear && texture.log2_w == 3 && texture.log2_h == 2);
    EXPECT_EQ(texel32(5, 3), 0xC7003F19u);
}

TEST_F(video_prep_fixture, bump_texels_from_heights_tilt_away_from_rising_ground)
{
    // a ridge along y at x = 8: heights rise to it from the left by 16 a pixel and fall after it
    bitmap* heights = picture(16, 8, {0, 0, 0, 255});
    for (uint32_t i = 0; i < 16 * 8; i++)
        memset(bitmap_pixel(heights, i % 16, i / 16), (i % 16 <= 8 ? i % 16 : 16 - i % 16) * 16, 3);
    ASSERT_EQ(video_prep_bump_from_heights(&texture, &arena, &tmp, heights, 4.0f), nullptr);
    // slope 16/255 per pixel, times 4: the normal (-0.251, 0, 1) / 1.031 has x -0.2434 = -31 of 127;
    // x then y of the normal at x 4, x at 12 and on the ridge, which is level
    EXPECT_TRUE((int8_t)(texel32(4, 2) >> 24) == -31 && (int8_t)(texel32(4, 2) >> 16) == 0 &&
                (int8_t)(texel32(12, 2) >> 24) == 31 && (int8_t)(texel32(8, 2) >> 24) == 0)
        << std::hex << texel32(4, 2);
}

TEST_F(video_prep_fixture, stencils_set_bright_opaque_pixels_leftmost_first)
{
    bitmap* bm = picture(64, 2, {0, 0, 0, 255});
    const struct { uint32_t x, y; std::vector<uint8_t> rgba; } pixels[] = {
        {0, 0, {255, 255, 255, 255}}, {32, 0, {128, 128, 128, 128}}, {0, 1, {200, 100, 90, 255}},
        {5, 1, {255, 255, 255, 127}}, {6, 1, {127, 127, 127, 255}}};
    for (const auto& p : pixels)
        memcpy(bitmap_pixel(bm, p.x, p.y), p.rgba.data(), 4);
    n3d_coverage_buffer stencil;
    ASSERT_EQ(video_prep_stencil(&stencil, &arena, bm, VIDEO_PREP_STENCIL_THRESHOLD), nullptr);
    // (0, 0), (32, 0) and (0, 1), of mean 130; (5, 1) is too transparent, (6, 1) too dark
    EXPECT_EQ(std::vector<uint32_t>(stencil.bits, stencil.bits + 4),
              (std::vector<uint32_t>{0x80000000u, 0x80000000u, 0x80000000u, 0}));
}

TEST_F(video_prep_fixture, the_tool_makes_resources_of_its_generated_pictures_in_new_folders)
{
    const std::string dir = tool_fixture_dir(REEL_TEST_OUTPUT_DIR, "tool"), tool = REEL_TOOLS_DIR "/reel_videoprep ";
    ASSERT_EQ(tool_fixture_run(dir, tool + "generate pictures").status, 0);
    const struct { const char* args; int status;
    } steps[] = {{"colormap pictures/tunnel.png made/tunnel.tmap", 0},
                 {"image pictures/tiles.png made/tiles.tmap", 0},
                 {"bump pictures/tiles_height.png made/tiles_bump.tmap", 0},
                 {"stencil pictures/window.png made/window.stencil", 0},
                 {"background pictures/landscape.png made/landscape.tmap", 0},
                 {"background pictures/tunnel.png made/no.tmap", 1}};
    for (const auto& s : steps)
        EXPECT_EQ(tool_fixture_run(dir, tool + s.args).status, s.status) << s.args;
    n3d_texture* map = n3d_texture_file_load(&arena, (dir + "/made/tunnel.tmap").c_str());
    EXPECT_TRUE(map && map->log2_w == 8 && map->format == N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555);
    EXPECT_FALSE(tool_fixture_exists(dir + "/made/no.tmap"));
}

}  // namespace
