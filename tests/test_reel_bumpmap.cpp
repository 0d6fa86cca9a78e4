// The bump map: phong indices worked out by hand for known light positions and texel tilts, whole
// frames against the per-pixel rule, the texture checks. Shade entries hold colour << 5 | shade.
#include <gtest/gtest.h>

#include <cmath>

#include "reel_bumpmap.h"
#include "scene_fixture.h"

namespace {

constexpr uint16_t UNTOUCHED = 0x7C1F;

struct bumpmap_fixture : scene_fixture {
    n3d_phong_lut phong;
    n3d_texture *color = texture(N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555, 9, 8),
                *bump = texture(N3D_TEXEL_FORMAT_BUMPMAP, 9, 8);

    bumpmap_fixture()
    {
        n3d_phong_lut_init(&phong, &demo, 0.3f, 0);
        n3d_phong_lut_set_default(&phong);  // index 65 -> 11, 67 -> 12, 107 -> 21, 23 -> 3, 128 on -> 31
        for (uint32_t i = 0; i < 256 * 32; i++)
            ((uint16_t*)color->shade_table)[i] = (uint16_t)(0x8000 | i);  // colour i / 32, shade i % 32
        for (uint32_t i = 0; i < 512 * 256; i++)
            ((uint8_t*)color->mips[0])[i] = (uint8_t)(i % 512 + 3 * (i / 512));
        fill_video(UNTOUCHED);
    }
    void draw(float t, const n3d_texture* b, const n3d_texture* c = nullptr)
    {
        reel_bumpmap_argb1555(ctx.video->framebuffer, t, 0, 0, 0, 0, 310, 256, b, c ? c : color, phong.table);
    }
};

uint32_t texel(int8_t nx, int8_t ny, uint8_t h) { return (uint32_t)(uint8_t)nx << 24 | (uint32_t)(uint8_t)ny << 16 | h; }

TEST_F(bumpmap_fixture, texels_of_known_tilt_face_the_light_where_its_path_puts_it)
{
    // first pixel (px -0.1, py -1) and last column of the first row (px 1.9); the light is at
    // (0, 1.5) at t = 0 and at (1.5, -1.5) at t = 2.5 s (a quarter of the x period, half the y)
    const struct { float t; uint32_t texel, first, last; } cases[] = {  // expected shades
        // flat: l is a unit vector, so hx^2 + hy^2 = 1/2 and base = trunc(-63.5); the light is never
        // farther than 1/32 away from full bias (a = 1, bias 128): index 65; bits 15-8 are not read
        {0.0f, texel(0, 0, 0) | 0xFF00, 11, 11},
        // nx 50: s = 100 hx with hx = l.x / sqrt(2)
        {0.0f, texel(50, 0, 0), 12, 3},   // l.x 0.040 -> index 67; l.x -0.605 -> 23
        {2.5f, texel(50, 0, 0), 31, 3},   // l.x 0.954 -> 132; l.x -0.625 -> 21
        {0.0f, texel(0, 30, 0), 21, 19},  // ny 30: l.y 0.999 -> 107; l.y 0.796 -> 98
        {0.0f, texel(0, 0, 40), 21, 21},  // height 40 alone: 105
        {2.5f, texel(-128, 0, 0), 0, 31},  // s clamped to -127: index -62 -> 0; 90 -> 192
    };
    for (const auto& c : cases) {
        std::fill_n((uint32_t*)bump->mips[0], 512 * 256, c.texel), draw(c.t, bump);
        EXPECT_TRUE((video_pixel(0, 0) & 31) == c.first && (video_pixel(309, 0) & 31) == c.last)
            << c.t << " " << std::hex << c.texel;
    }
}

// The per-pixel rule in single precision: what every kernel must give to the byte (no NaN: no pixel under the light).
uint32_t phong_index_by_rule(float px, float py, float lx, float ly, uint32_t b)
{
    const float dx = lx - px, dy = ly - py, r = 1.0f / sqrtf(dx * dx + dy * dy), ux = dx * r, uy = dy * r;
    const float k = 1.0f / sqrtf(ux * ux + uy * uy + 1.0f), hx = ux * k, hy = uy * k;
    const float a = std::clamp(64.0f * r - 1.0f, 0.0f, 1.0f);
    const int32_t bias = (int32_t)roundf(128.0f * a), base = (int32_t)(-127.0f * (hx * hx + hy * hy));
    const float nx = (float)(int8_t)(b >> 24), ny = (float)(int8_t)(b >> 16), h = (float)(b & 0xFF);
    const int32_t s = (int32_t)std::clamp(2.0f * hx * nx + 2.0f * hy * ny + h, -127.0f, 127.0f);
    return (uint32_t)std::clamp(base + s + bias, 0, 255);
}

// Whole frames against the rule: odd placements and widths that leave partial groups, clipping,
// source rectangles cut at the texture's right edge and, at t = 1.25 s with 257 rows, at its
// bottom, where row 128 passes within 1e-16 of the light's height. Texels: random ones (a few in a
// hundred land next to an integer), flat ones and ones tilted by a single step.
TEST_F(bumpmap_fixture, odd_placements_draw_exactly_the_per_pixel_rule)
{
    for (uint32_t i = 0, seed = 3; i < 512 * 256; i++) {
        seed = seed * 1664525u + 1013904223u;
        const uint32_t kind = seed >> 30, h = seed >> 8 & 0xFF;
        ((uint32_t*)bump->mips[0])[i] = kind == 0 ? h : kind == 1 ? texel((int8_t)(seed >> 20 & 1), (int8_t)-1, (uint8_t)h)
                                                                   : seed * 2654435761u;
    }
    const struct { float t; int32_t x, y, src_x0, src_y0, src_x1, src_y1; } cases[] = {
        {0.0f, 0, 0, 0, 0, 310, 256},      {1.25f, 3, 0, 0, 0, 310, 257},  {2.7f, -5, -2, 0, 0, 301, 256},
        {7.3f, 1, 7, 3, 5, 3 + 17, 5 + 40}, {4.4f, 311, 200, 0, 0, 310, 256}, {9.9f, 2, 3, 505, 1, 520, 13},
    };
    for (const auto k : {REEL_BUMPMAP_KERNELS_PORTABLE, REEL_BUMPMAP_KERNELS_AVX2}) {
        if (reel_bumpmap_use_kernels(k) != k)
            continue;
        for (const auto& c : cases) {
            fill_video(UNTOUCHED);
            reel_bumpmap_argb1555(ctx.video->framebuffer, c.t, c.x, c.y, c.src_x0, c.src_y0, c.src_x1, c.src_y1, bump,
                                  color, phong.table);
            const float lx = (float)(1.5 * sin((double)c.t * 2.0 * M_PI / 10.0)),
                        ly = (float)(1.5 * cos((double)c.t * 2.0 * M_PI / 5.0));
            const float step_x = 2.0f / (float)(c.src_x1 - c.src_x0 - 1), step_y = 2.0f / (float)(c.src_y1 - c.src_y0 - 1);
            const int32_t x0 = std::max(c.x, 0), y0 = std::max(c.y, 0), sx0 = c.src_x0 + x0 - c.x,
                          sy0 = c.src_y0 + y0 - c.y;
            float py = -1.0f;
            for (int32_t y = 0; y < 240; y++) {
                const bool row_drawn = y >= y0 && sy0 + y - y0 < std::min(c.src_y1, 256);
                float px = -0.1f;
                for (int32_t x = 0; x < 320; x++) {
                    uint16_t expect = UNTOUCHED;
                    const int32_t sx = sx0 + x - x0, sy = sy0 + y - y0;
                    if (row_drawn && x >= x0 && sx < std::min(c.src_x1, 512)) {
                        const uint32_t i = sy * 512 + sx,
                                       index = phong_index_by_rule(px, py, lx, ly, ((uint32_t*)bump->mips[0])[i]);
                        expect = (uint16_t)(0x8000 | ((uint8_t*)color->mips[0])[i] << 5 | phong.table[index]);
                        px += step_x;
                    }
                    ASSERT_EQ(video_pixel(x, y), expect) << x << " " << y << " t " << c.t << " kernels " << k;
                }
                py += row_drawn ? step_y : 0.0f;
            }
        }
    }
    reel_bumpmap_use_kernels(REEL_BUMPMAP_KERNELS_AVX2);
}

TEST_F(bumpmap_fixture, mismatched_or_wrong_textures_end_the_process)
{
    // this message goes to standard output: the child sends it to standard error to be matched
    EXPECT_FATAL_OUT(draw(0.0f, texture(N3D_TEXEL_FORMAT_BUMPMAP, 8, 8)),
                     "^bumpmap must have same width height as texture \\(256 256 vs 512 256\\)\n$");
    EXPECT_FATAL(draw(0.0f, bump, texture(N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, 9, 8)),
                 "crash in reel_bumpmap_argb1555 at src/reel_bumpmap:[0-9]+\ncolor texture must not be swizzled "
                 "\\(is swizzled: 0\\) with format N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555 \\(is: 2\\)\n");
    EXPECT_FATAL(draw(0.0f, texture(N3D_TEXEL_FORMAT_BUMPMAP, 9, 8, 0)),
                 "bumpmap texture must not be swizzled \\(is swizzled: 1\\) with format N3D_TEXEL_FORMAT_BUMPMAP "
                 "\\(is: 4\\)\n");
    EXPECT_FATAL((color->shade_table = nullptr, draw(0.0f, bump)), "color texture needs a shade table");
}

}  // namespace
