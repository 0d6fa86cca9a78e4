// The video-plane scenes pass by pass: the tunnel's offsets from time, the bump map's slide,
// shade table and coverage, the background's scroll over uncovered pixels, and what they refuse.
#include <gtest/gtest.h>

#include "n3d_convert.h"
#include "reel_tunnel_func.h"
#include "scene_fixture.h"

namespace {

constexpr uint16_t UNTOUCHED = 0x7C1F;

struct video_fixture : scene_fixture {
    video_fixture() { fill_video(UNTOUCHED); }
    bool covered(int32_t x, int32_t y) { return scene_coverage_bit(ctx.video->coverage[0], x, y); }
};

TEST_F(video_fixture, tunnel_offsets_grow_with_time_and_wrap_at_256)
{
    n3d_texture* map = texture(N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, 8, 8);
    for (uint32_t i = 0; i < 65536; i++)
        ((uint16_t*)map->mips[0])[i] = (uint16_t)i;  // each pixel shows its colour-map index
    add(REEL_KIND_TEXTURE, "rings", map);
    const n3d_framebuffer& t = engine.tunnel_table;  // the video plane reads its centred 320 x 240
    n3d_framebuffer_init_argb1555(&engine.tunnel_table, REEL_TUNNEL_TABLE_WIDTH, REEL_TUNNEL_TABLE_HEIGHT,
                                  engine.arena);
    reel_tunnel_table_init(&engine.tunnel_table);
    // still: every pixel shows its own table entry; 261 mod 256, and -3 is 253 in the low byte;
    // whole turns are no change; trunc(21.0), trunc(3.8)
    const struct { const char* args; float seconds; uint32_t distance, angle; } cases[] = {
        {"rings,0,0", 5.0f, 0, 0}, {"rings,261,-3", 1.0f, 5, 253}, {"rings,256,512", 3.0f, 0, 0}, {"rings,10.5,1.9", 2.0f, 21, 3}};
    for (const auto& c : cases) {
        load("video_tunnel", c.args);
        pass(REEL_PASS_UPDATE, c.seconds);
        for (int32_t y = 0; y < 240; y += 13)
            for (int32_t x = 0; x < 320; x += 3) {
                const uint32_t e = ((const uint16_t*)(t.pixels + (y + 120) * t.row_bytes))[x + 160];
                const uint32_t expect = ((e >> 8) + c.angle) % 256 << 8 | ((e & 0xFF) + c.distance) % 256;
                ASSERT_EQ(video_pixel(x, y), expect) << c.args << " at " << x << " " << y;
            }
    }
}

TEST_F(video_fixture, bumpmap_bakes_its_shade_table_once_then_slides_and_marks_coverage)
{
    n3d_texture* color = texture(N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555, 9, 8);
    for (uint32_t c = 0; c < 256; c++)
        ((uint16_t*)color->palette)[c] = (uint16_t)(0x8000 | (c & 31) << 10 | (c >> 3));
    // a stencil with a set square from (8, 4) to (40, 20): the image shows around it
    std::vector<uint32_t> words(10 * 256);
    n3d_coverage_buffer stencil = {words.data(), 320, 256};
    for (uint32_t y = 4; y < 20; y++) {
        stencil.bits[y * 10] = 0x00FFFFFF;
        stencil.bits[y * 10 + 1] = 0xFF000000;
    }
    add(REEL_KIND_TEXTURE, "stones", color);
    add(REEL_KIND_TEXTURE, "stones_bump", texture(N3D_TEXEL_FORMAT_BUMPMAP, 9, 8));
    add(REEL_KIND_STENCIL, "stones_mask", &stencil);
    n3d_phong_lut_init(&engine.phong_lut, &demo, 0.3f, 0);
    n3d_phong_lut_set_default(&engine.phong_lut);
    load("video_bumpmap", "stones,stones_bump,stones_mask,0.25,0.5,#10000000,#00200000,#ffffffff,#ffe0c0ff,0,0,10,21",
         8.0f);
    // the colour texture's shade table is lit with the four colours and the material
    std::vector<uint16_t> expect(256 * 32);
    const reel_color* c = scene.colours;
    n3d_texture_build_shade_table_argb1555_pbr(expect.data(), 32, 256, c[0].linear, c[1].linear, c[2].linear,
                                               c[3].linear, 0.25f, 0.5f, (const uint16_t*)color->palette);
    ctx.video->coverage[0]->bits[0] = 0xFFFFFFFF;  // left from an earlier frame: cleared
    pass(REEL_PASS_UPDATE, 4.0f);  // progress 0.5: at (ceil 5, ceil 10.5) = (5, 11)
    EXPECT_EQ(memcmp(color->shade_table, expect.data(), expect.size() * 2), 0);
    const uint16_t* shades = (const uint16_t*)color->shade_table;
    EXPECT_TRUE(video_pixel(4, 11) == UNTOUCHED && video_pixel(5, 10) == UNTOUCHED);
    EXPECT_EQ(video_pixel(5, 11), shades[11]);  // colour 0, flat texel: shade 11
    for (int32_t y = 0; y < 240; y++)
        for (int32_t x = 0; x < 320; x++)  // the image from (5, 11) on, but for the stencil's square moved with it
            ASSERT_EQ(covered(x, y), x >= 5 && y >= 11 && !(x >= 13 && x < 45 && y >= 15 && y < 31)) << x << " " << y;

    memset(color->shade_table, 0, 256 * 32 * 2);
    pass(REEL_PASS_UPDATE, 8.0f);  // no second bake; the end position
    EXPECT_TRUE(video_pixel(10, 21) == 0 && !covered(9, 21) && covered(10, 21));
}

struct background_fixture : video_fixture {
    n3d_texture* wall = texture(N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, 9, 8);
    background_fixture()
    {
        for (uint32_t y = 0; y < 256; y++)
            for (uint32_t x = 0; x < 512; x++)
                ((uint16_t*)wall->mips[0])[y * 512 + x] = (uint16_t)(0x8000 | ((y << 9 | x) & 0x7FFF));
        add(REEL_KIND_TEXTURE, "wall", wall);
    }
    uint16_t texel(int32_t x, int32_t y) { return ((const uint16_t*)wall->mips[0])[y * 512 + x]; }
    // the viewport at (vx, vy) in every pixel that nothing covered; covered ones keep what was drawn
    bool shows(int32_t vx, int32_t vy)
    {
        for (int32_t y = 0; y < 240; y++)
            for (int32_t x = 0; x < 320; x++)
                if (video_pixel(x, y) != (covered(x, y) ? UNTOUCHED : texel(vx + x, vy + y)))
                    return false;
        return true;
    }
};

TEST_F(background_fixture, it_scrolls_linearly_over_uncovered_pixels_and_holds_the_end_position)
{
    n3d_coverage_buffer* cb = ctx.video->coverage[0];
    n3d_coverage_buffer_clear(cb);
    for (uint32_t y = 30; y < 40; y++)
        cb->bits[y * 10 + 2] = 0x0000FFFF, cb->bits[y * 10 + 9] = 0x80000001;  // x 80 to 95, 288 and 319
    load("video_background", "wall,0,0,192,16", 8.0f);
    const struct { float seconds; int32_t x, y; } steps[] = {{0.0f, 0, 0}, {4.0f, 96, 8}, {2.0f, 48, 4}, {8.0f, 192, 16}, {9.5f, 192, 16}};
    for (const auto& s : steps) {
        pass(REEL_PASS_UPDATE, s.seconds);
        EXPECT_TRUE(shows(s.x, s.y)) << s.seconds;
    }
    load("video_background", "wall,0,0,192,16", 0.0f);  // no duration: at the end at once
    pass(REEL_PASS_UPDATE, 0.0f);
    EXPECT_TRUE(shows(192, 16));
}

TEST_F(background_fixture, it_refuses_swizzled_textures_and_viewports_outside_the_texture)
{
    add(REEL_KIND_TEXTURE, "swizzled", texture(N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, 8, 8, 0));
    EXPECT_FATAL(load("video_background", "swizzled,0,0,0,0"),
                 "crash in scene_video_background_parse_args at src/reel_scenes:[0-9]+\n"
                 "swizzled not supported for video background texture\n");
    const char* outside[] = {"wall,193,0,0,0", "wall,0,0,0,-1"};
    for (const char* args : outside)
        EXPECT_FATAL(load("video_background", args),
                     "viewport of 320 x 240 at \\(-?[0-9]+, -?[0-9]+\\) is not inside the 512 x 256 background texture")
            << args;

    // another format passes the parser and ends in the copy, or at the row bytes if unknown
    add(REEL_KIND_TEXTURE, "indexed", texture(N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555, 9, 8));
    EXPECT_FATAL_OUT((load("video_background", "indexed,0,0,0,0"), pass(REEL_PASS_UPDATE, 0.0f)),
                     "src_fb format must be N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555 \\(was 1\\)");
    load("video_background", "wall,0,0,0,0");
    pass(REEL_PASS_UPDATE, 0.0f);
    wall->format = 7;
    EXPECT_FATAL(pass(REEL_PASS_UPDATE, 0.0f),
                 "crash in scene_video_background at src/reel_scenes:[0-9]+\nbad N3D_TEXEL_FORMAT 7\\?\n");
}

}  // namespace
