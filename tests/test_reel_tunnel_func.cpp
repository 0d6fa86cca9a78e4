// The tunnel: the table's (angle, distance) bytes at the points whose values follow from the
// geometry, and the drawing's byte arithmetic, region, clipping and undrawn tail columns.
#include <gtest/gtest.h>

#include <algorithm>

#include "reel_tunnel_func.h"
#include "scene_fixture.h"

namespace {

struct tunnel_fixture : scene_fixture {
    n3d_framebuffer table;
    n3d_texture* map;

    tunnel_fixture()
    {
        n3d_framebuffer_init_argb1555(&table, REEL_TUNNEL_TABLE_WIDTH, REEL_TUNNEL_TABLE_HEIGHT, engine.arena);
        reel_tunnel_table_init(&table);
        // texel i holds i itself, so every pixel shows the index it was drawn from
        map = texture(N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, 8, 8);
        for (uint32_t i = 0; i < 65536; i++)
            ((uint16_t*)map->mips[0])[i] = (uint16_t)i;
    }
    uint16_t entry(int32_t x, int32_t y) const { return ((const uint16_t*)(table.pixels + y * table.row_bytes))[x]; }
    uint32_t angle(int32_t x, int32_t y) const { return entry(x, y) >> 8; }
    uint32_t distance(int32_t x, int32_t y) const { return entry(x, y) & 0xFF; }
};

// The video plane reads the table's centred region: columns 160 to 479, rows 120 to 359.
constexpr int32_t VX = 160, VY = 120;

// Table values at points whose angle or distance follows from the geometry.
TEST_F(tunnel_fixture, table_distance_and_angle_at_the_centre_corners_and_axes)
{
    // distance 0 at the centre, 255 at the table's corners; the video plane's corners lie at half
    // the table's corner distance: 256 x 0.4982 = 127.5
    for (int32_t i = 0; i < 4; i++) {
        const int32_t dx = i & 1, dy = i >> 1;
        EXPECT_EQ(distance(319 + dx, 239 + dy), 0u) << i;
        EXPECT_EQ(distance(VX + 319 * dx, VY + 239 * dy), 127u) << i;
        EXPECT_EQ(distance(639 * dx, 479 * dy), 255u) << i;
    }
    // the two middle rows straddle the horizontal axis (rows above it have py < 0): on the left
    // just past -pi above the axis, just short of +pi below it; on the right, t = 0.5 -+ 0.0005:
    // 127.87 above, 128.13 below; just right of straight up (-pi/2 + 0.002) a quarter turn, of
    // straight down (pi/2 - 0.002) just short of three quarters, just left of it past them
    // points mirrored through the centre lie half a turn apart at the same distance
    for (int32_t y = 0; y < 480; y += 37)
        for (int32_t x = 0; x < 640; x += 41) {
            ASSERT_EQ(distance(x, y), distance(639 - x, 479 - y)) << x << " " << y;
            const uint32_t turn = (angle(639 - x, 479 - y) - angle(x, y)) & 0xFF;
            ASSERT_TRUE(turn >= 127 && turn <= 129) << x << " " << y << " " << turn;
        }
}

// Whole frames against the per-pixel rule on a map of random texels: each drawn pixel shows the
// texel at (angle + angle offset) mod 256, (distance + distance offset) mod 256 of its region
// entry; pixels outside the rectangle and in its last width mod 4 columns keep their value.
TEST_F(tunnel_fixture, odd_rectangles_and_offsets_draw_exactly_the_per_pixel_rule)
{
    uint32_t seed = 5;
    for (uint32_t i = 0; i < 65536; i++)
        ((uint16_t*)map->mips[0])[i] = (uint16_t)((seed = seed * 1664525u + 1013904223u) >> 16);
    const struct { int32_t x0, y0, x1, y1; uint8_t distance, angle; } cases[] = {
        {0, 0, 320, 240, 77, 201},  {1, 3, 318, 239, 255, 1},    {7, 0, 8, 5, 13, 130},
        {5, 9, 12, 20, 128, 128},   {-3, -5, 30, 12, 200, 255},  {301, 230, 330, 250, 3, 99},
        {2, 1, 2 + 9 + 16 * 17, 4, 1, 254}, {0, 0, 4 * 67 + 3, 2, 90, 45},
    };
    for (const auto& c : cases) {
        fill_video(0x2D2D);
        reel_tunnel_argb1555(ctx.video, map, &table, c.x0, c.y0, c.x1, c.y1, c.distance, c.angle);
        const int32_t x0 = std::max(c.x0, 0), y0 = std::max(c.y0, 0);
        const int32_t x1 = std::min(c.x1, 320), y1 = std::min(c.y1, 240);
        const int32_t drawn_x1 = x0 + (x1 - x0) / 4 * 4;
        for (int32_t y = 0; y < 240; y++)
            for (int32_t x = 0; x < 320; x++) {
                uint16_t expect = 0x2D2D;
                if (x >= x0 && x < drawn_x1 && y >= y0 && y < y1) {
                    const uint32_t a = (angle(VX + x - x0, VY + y - y0) + c.angle) & 0xFF;
                    const uint32_t d = (distance(VX + x - x0, VY + y - y0) + c.distance) & 0xFF;
                    expect = ((const uint16_t*)map->mips[0])[a * 256 + d];
                }
                ASSERT_EQ(video_pixel(x, y), expect) << x << " " << y << " rectangle " << c.x0 << " " << c.y0 << " "
                                                    << c.x1 << " " << c.y1;
            }
    }
}

TEST_F(tunnel_fixture, a_map_or_framebuffer_it_cannot_read_ends_the_process)
{
    n3d_texture* small = texture(N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, 7, 8);
    EXPECT_FATAL(reel_tunnel_argb1555(ctx.video, small, &table, 0, 0, 320, 240, 0, 0),
                 "crash in reel_tunnel_argb1555 at src/reel_tunnel_func:[0-9]+\ncolor map must be 256x256 texture for now\n");
    n3d_texture* indexed = texture(N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555, 8, 8);
    EXPECT_FATAL(reel_tunnel_argb1555(ctx.video, indexed, &table, 0, 0, 320, 240, 0, 0),
                 "color map must be a linear N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555 texture \\(format 1, linear 1\\)");
    EXPECT_FATAL(reel_tunnel_argb1555(&overlay, map, &table, 0, 0, 320, 240, 0, 0),
                 "crash in reel_tunnel_argb1555 at src/reel_tunnel_func:[0-9]+\nnot implemented/supported\\?\n");
    n3d_framebuffer small_table;
    n3d_framebuffer_init_argb1555(&small_table, 160, 120, engine.arena);
    EXPECT_FATAL(reel_tunnel_argb1555(ctx.video, map, &small_table, 0, 0, 320, 240, 0, 0),
                 "tunnel table \\(160 x 120, format 2\\) must be a 16-bit table at least as large as the framebuffer");
}

}  // namespace
