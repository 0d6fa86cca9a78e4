// The starfield: its set-up values, the first frame's star pixels from the fixed seed worked out
// from the placement and projection formulas, levels and colours at the depth limits, culling
// and respawning, the stencil and the threshold image, and replay from the same seed.
#include <gtest/gtest.h>

#include <cmath>
#include <map>

#include "reel_starfield.h"
#include "scene_fixture.h"

namespace {

struct starfield_fixture : scene_fixture {
    std::vector<uint8_t> entries = std::vector<uint8_t>(256 * 4);
    reel_palette palette = {0, 256, entries.data()};
    reel_starfield sf;
    reel_star* stars() { return (reel_star*)engine.stars; }

    void init(uint32_t log2_stars, int32_t first = 16, int32_t last = 47)
    {
        reel_starfield_init_i8(&sf, log2_stars, stars(), 1, 640, 480, &palette, first, last, &demo);
    }
    uint8_t pixel(int32_t x, int32_t y) const { return overlay_framebuffer.pixels[y * 640 + x]; }
    uint32_t covered(int32_t x, int32_t y) const { return scene_coverage_bit(overlay.coverage[0], x, y); }
    uint32_t drawn() const { return scene_count_not(overlay_framebuffer.pixels, 640 * 480, 0); }
};

TEST_F(starfield_fixture, set_up_values_and_level_counts)
{
    init(10);
    EXPECT_TRUE(sf.random.state == 0x853c49e6748fea9bull && sf.random.increment == 0xda3e39cb94b95bdbull);
    EXPECT_EQ(sf.log2_levels, 5u);  // 16 to 47
    // far, near, aspect, focal length 480 / (2 tan 45 degrees), half extents
    const float want[] = {6.0f, 0.1f, 4.0f / 3.0f, 240.0f, 1.0f, 4.0f / 3.0f};
    const float got[] = {sf.far_plane, sf.near_plane, sf.aspect, sf.focal_length, sf.half_extent_y, sf.half_extent_x};
    for (int i = 0; i < 6; i++)
        EXPECT_FLOAT_EQ(got[i], want[i]) << i;
    for (const auto& bad : {std::pair{16, 40}, std::pair{16, 15}, std::pair{5, 3}})
        EXPECT_FATAL(init(10, bad.first, bad.second), "crash in reel_starfield_init_i8 at src/reel_starfield:[0-9]+\nstars "
                     "brightess levels must be a log2 number of entries but has " + std::to_string(bad.second - bad.first + 1) + " levels\n");
}

// Stars placed by the same stream of random floats as the field draws them: (x', y', r) with
// yaw and pitch 0 and the camera at the origin, so the projection is 320 + 320 x' / r.
struct expected_star { float x, y, r; };
expected_star place(pcg32* rng, const reel_starfield& sf)
{
    const float u1 = pcg32_random_float01(rng), u2 = pcg32_random_float01(rng), u3 = pcg32_random_float01(rng);
    const float n3 = 0.1f * 0.1f * 0.1f, f3 = 6.0f * 6.0f * 6.0f;
    const float r = powf(u1 * (f3 - n3) + n3, 0.33333334f);
    return {(2.0f * u2 - 1.0f) * r * sf.half_extent_x, (2.0f * u3 - 1.0f) * r * sf.half_extent_y, r};
}

TEST_F(starfield_fixture, first_frame_from_the_fixed_seed)
{
    init(12);  // 4096 stars
    reel_starfield_reset_all(&sf);
    pcg32 rng = {REEL_STARFIELD_SEED_STATE, REEL_STARFIELD_SEED_INCREMENT};
    std::vector<expected_star> placed;
    for (uint32_t i = 0; i < 4096; i++) {
        placed.push_back(place(&rng, sf));
        ASSERT_EQ(stars()[i].x, placed[i].x);
        ASSERT_EQ(stars()[i].z, placed[i].r);
    }
    reel_starfield_draw_i8(&sf, &overlay, &engine);

    std::map<std::pair<int32_t, int32_t>, uint32_t> brightest;
    uint32_t outside = 0;
    for (uint32_t i = 0; i < 4096; i++) {
        const expected_star& s = placed[i];
        const float fx = sf.focal_length * sf.aspect, fy = sf.focal_length;
        const float px = roundf(320.0f + fx * s.x / s.r), py = roundf(240.0f + fy * s.y / s.r);
        if (s.r > 6.0f || px < 0 || px >= 640 || py < 0 || py >= 480) {
            const expected_star again = place(&rng, sf);  // respawned in star order
            ASSERT_EQ(stars()[i].z, again.r) << i;
            outside++;
            continue;
        }
        const float b = 1.0f - ((s.r - 0.1f) * (1.0f / (6.0f - 0.1f)) - 0.1f) / 0.9f;
        const float bright = fminf(fmaxf(b * b * b * b * b, 0.0f), 1.0f);
        const uint32_t k = std::min((uint32_t)roundf(bright * 32767.0f) >> 10, 31u);
        uint32_t& level = brightest[{(int32_t)px, (int32_t)py}];
        level = std::max(level, 16 + k);
    }
    EXPECT_GT(outside, 500u) << "spawned across the horizontal extent times the aspect: about a quarter lands outside";
    for (int32_t y = 0; y < 480; y++)
        for (int32_t x = 0; x < 640; x++) {
            const auto it = brightest.find({x, y});
            ASSERT_EQ(pixel(x, y), it == brightest.end() ? 0 : it->second) << x << "," << y;
            ASSERT_EQ(covered(x, y), it == brightest.end() ? 0u : 1u) << x << "," << y;
        }
}

TEST_F(starfield_fixture, levels_and_colours_at_the_depth_limits)
{
    // at near: bright 1 (b = 1.11, clamped), the last level; at far: bright 0, level 0; the palette
    // ends first: 40 - 1, not 47; offsets add to the palette's first index
    const struct { float z; uint32_t first, count; int32_t first_level; uint8_t colour; } cases[] = {
        {0.1f, 0, 256, 16, 47}, {6.0f, 0, 256, 16, 16}, {0.1f, 0, 40, 16, 39}, {0.1f, 100, 8, 0, 107}};
    for (const auto& c : cases) {
        palette = {c.first, c.count, entries.data()};
        init(0, c.first_level, c.first_level + 31);
        stars()[0] = {0.0f, 0.0f, c.z};
        n3d_framebuffer_clear(&overlay_framebuffer);
        reel_starfield_draw_i8(&sf, &overlay, &engine);
        EXPECT_TRUE(pixel(320, 240) == c.colour && drawn() == 1u) << c.z << " " << c.count;
    }
    // ARGB1555: the level in each channel
    std::vector<uint16_t> video(320 * 240);
    n3d_framebuffer fb;
    n3d_framebuffer_wrap(&fb, N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, 320, 240, 640, (uint8_t*)video.data());
    n3d_framecontext fc = overlay;
    fc.framebuffer = &fb;
    reel_starfield_init_i8(&sf, 0, stars(), 1, 320, 240, &palette, 0, 31, &demo);
    stars()[0] = {0.0f, 0.0f, 0.1f};
    reel_starfield_draw_i8(&sf, &fc, &engine);
    EXPECT_EQ(video[120 * 320 + 160], 0x8000 | 31 << 10 | 31 << 5 | 31);
}

TEST_F(starfield_fixture, stars_outside_the_view_are_respawned_and_hidden_ones_are_not)
{
    // before near, beyond far, 320 + 320 = 640 (one past the right edge), 639.4 (rounds to 639),
    // -0.6 (rounds to -1)
    const struct { reel_star star; bool respawned; } cases[] = {
        {{0.0f, 0.0f, 0.09f}, true}, {{0.0f, 0.0f, 6.01f}, true}, {{1.0f, 0.0f, 1.0f}, true},
        {{319.4f / 320.0f, 0.0f, 1.0f}, false}, {{0.0f, -240.6f / 240.0f, 1.0f}, true}};
    for (const auto& c : cases) {
        init(0);
        stars()[0] = c.star;
        n3d_framebuffer_clear(&overlay_framebuffer);
        reel_starfield_draw_i8(&sf, &overlay, &engine);
        EXPECT_TRUE((stars()[0].z != c.star.z) == c.respawned && drawn() == (c.respawned ? 0u : 1u))
            << c.star.x << "," << c.star.y << "," << c.star.z;
    }

    // behind a stencil of all ones nothing is drawn and nothing respawns
    init(0);
    memset(stencils[1].bits, 0xFF, 640 / 8 * 480);
    sf.stencil = &stencils[1];
    stars()[0] = {0.0f, 0.0f, 1.0f};
    reel_starfield_draw_i8(&sf, &overlay, &engine);
    EXPECT_TRUE(drawn() == 0 && stars()[0].z == 1.0f && sf.random.state == REEL_STARFIELD_SEED_STATE);
}

TEST_F(starfield_fixture, threshold_image_hides_stars_darker_than_its_texel)
{
    scene_test_image img(10, 9, 640, 480);
    init(12);
    reel_starfield_reset_all(&sf);
    reel_starfield_draw_i8(&sf, &overlay, &engine);
    const reel_starfield settled = sf;  // every star inside the view now
    const std::vector<reel_star> at(stars(), stars() + 4096);

    // the same frame from the same stars, without an image or with every texel the given value
    auto frame_with = [&](const reel_image* image, uint8_t texel) {
        std::fill(img.texels.begin(), img.texels.end(), texel);
        sf = settled;
        std::copy(at.begin(), at.end(), stars());
        sf.image = image;
        n3d_framebuffer_clear(&overlay_framebuffer);
        reel_starfield_draw_i8(&sf, &overlay, &engine);
        return std::vector<uint8_t>(overlay_framebuffer.pixels, overlay_framebuffer.pixels + 640 * 480);
    };
    const std::vector<uint8_t> plain = frame_with(nullptr, 0), zero = frame_with(&img.image, 0);
    EXPECT_EQ(frame_with(&img.image, 255), std::vector<uint8_t>(640 * 480));
    // texel 0 keeps every star with level16 of at least 128: all above level 0 (level16 >= 1024)
    uint32_t dropped = 0;
    for (uint32_t i = 0; i < 640 * 480; i++) {
        if (plain[i] > 16) {
            ASSERT_EQ(zero[i], plain[i]) << i;
        } else if (zero[i] != plain[i]) {
            ASSERT_EQ(zero[i], 0) << i;
            dropped++;
        }
    }
    EXPECT_GT(dropped, 0u) << "the faintest stars are gone";
}

}  // namespace
