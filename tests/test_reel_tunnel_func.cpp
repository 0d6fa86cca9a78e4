// The tunnel: table bytes where the geometry fixes them; the drawing's byte arithmetic, region, clipping, tail.
#include <gtest/gtest.h>

#include "reel_tunnel_func.h"
#include "scene_fixture.h"

namespace {

struct tunnel_fixture : scene_fixture {
    n3d_framebuffer table;
    n3d_texture* map = texture(N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, 8, 8);
    tunnel_fixture() { n3d_framebuffer_init_argb1555(&table, 640, 480, engine.arena), reel_tunnel_table_init(&table); }
    uint16_t entry(int32_t x, int32_t y) const { return ((const uint16_t*)(table.pixels + y * table.row_bytes))[x]; }
    uint32_t angle(int32_t x, int32_t y) const { return entry(x, y) >> 8; }
    uint32_t distance(int32_t x, int32_t y) const { return entry(x, y) & 0xFF; }
};

constexpr int32_t VX = 160, VY = 120;  // the video plane reads the table's centred 320 x 240

TEST_F(tunnel_fixture, table_distance_and_angle_at_the_centre_corners_and_axes)
{
    // distance 0 at the centre, 255 at the table's corners; the video plane's corners lie at half
    // the table's corner distance: 256 x 0.4982 = 127.5
    for (int32_t dx = 0; dx < 2; dx++)
        for (int32_t dy = 0; dy < 2; dy++)
            EXPECT_TRUE(distance(319 + dx, 239 + dy) == 0 && distance(VX + 319 * dx, VY + 239 * dy) == 127 &&
                        distance(639 * dx, 479 * dy) == 255) << dx << dy;
    // middle rows straddle the axis (py < 0 above): left just past -pi above, short of +pi below; right
    // t = 0.5 -+ 0.0005; just right of straight up a quarter turn, of straight down short of 3/4, left of it past
    const uint32_t points[][3] = {{0, 239, 0},    {0, 240, 255}, {639, 239, 127}, {639, 240, 128},
                                  {320, 0, 64}, {320, 479, 191}, {319, 479, 192}};
    for (const auto& p : points)
        EXPECT_EQ(angle(p[0], p[1]), p[2]) << p[0] << " " << p[1];
    // points mirrored through the centre lie half a turn apart at the same distance
    for (int32_t y = 0; y < 480; y += 37)
        for (int32_t x = 0; x < 640; x += 41)  // 127 to 129 turn steps apart
            ASSERT_TRUE(distance(x, y) == distance(639 - x, 479 - y) &&
                        ((angle(639 - x, 479 - y) - angle(x, y) - 127) & 0xFF) <= 2)
                << x << " " << y;
}

// Whole frames against the per-pixel rule on random texels: a drawn pixel shows texel (angle + offset,
// distance + offset) mod 256 of its entry; outside the rectangle and in its last width mod 4 columns, none.
TEST_F(tunnel_fixture, odd_rectangles_and_offsets_draw_exactly_the_per_pixel_rule)
{
    for (uint32_t i = 0, seed = 5; i < 65536; i++)
        ((uint16_t*)map->mips[0])[i] = (uint16_t)((seed = seed * 1664525u + 1013904223u) >> 16);
    const struct { int32_t x0, y0, x1, y1; uint8_t distance, angle;
    } cases[] = {{0, 0, 320, 240, 77, 201},          {1, 3, 318, 239, 255, 1},     {7, 0, 8, 5, 13, 130},
                 {5, 9, 12, 20, 128, 128},           {-3, -5, 30, 12, 200, 255},   {301, 230, 330, 250, 3, 99},
                 {2, 1, 2 + 9 + 16 * 17, 4, 1, 254}, {0, 0, 4 * 67 + 3, 2, 90, 45}};
    for (const auto& c : cases) {
        fill_video(0x2D2D);
        reel_tunnel_argb1555(ctx.video, map, &table, c.x0, c.y0, c.x1, c.y1, c.distance, c.angle);
        const int32_t x0 = std::max(c.x0, 0), y0 = std::max(c.y0, 0), y1 = std::min(c.y1, 240),
                      drawn_x1 = x0 + (std::min(c.x1, 320) - x0) / 4 * 4;
        for (int32_t y = 0; y < 240; y++)
            for (int32_t x = 0; x < 320; x++) {
                uint16_t expect = 0x2D2D;
                if (x >= x0 && x < drawn_x1 && y >= y0 && y < y1)
                    expect =
                        ((const uint16_t*)map->mips[0])[((angle(VX + x - x0, VY + y - y0) + c.angle) & 0xFF) * 256 +
                                                        ((distance(VX + x - x0, VY + y - y0) + c.distance) & 0xFF)];
                ASSERT_EQ(video_pixel(x, y), expect)
                    << x << " " << y << " rectangle " << c.x0 << " " << c.y0 << " " << c.x1;
            }
    }
}

TEST_F(tunnel_fixture, a_map_or_framebuffer_it_cannot_read_ends_the_process)
{
    auto draw = [&](n3d_framecontext* fc, n3d_texture* m, n3d_framebuffer* t) {
        reel_tunnel_argb1555(fc, m, t, 0, 0, 320, 240, 0, 0);
    };
    EXPECT_FATAL(draw(ctx.video, texture(N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, 7, 8), &table),
                 "crash in reel_tunnel_argb1555 at src/reel_tunnel_func:[0-9]+\ncolor map must be 256x256 texture for now\n");
    EXPECT_FATAL(draw(ctx.video, texture(N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555, 8, 8), &table),
                 "color map must be a linear N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555 texture \\(format 1, linear 1\\)");
    EXPECT_FATAL(draw(&overlay, map, &table),
                 "crash in reel_tunnel_argb1555 at src/reel_tunnel_func:[0-9]+\nnot implemented/supported\\?\n");
    n3d_framebuffer small_table;
    n3d_framebuffer_init_argb1555(&small_table, 160, 120, engine.arena);
    EXPECT_FATAL(draw(ctx.video, map, &small_table),
                 "tunnel table \\(160 x 120, format 2\\) must be a 16-bit table at least as large as the framebuffer");
}

}  // namespace
