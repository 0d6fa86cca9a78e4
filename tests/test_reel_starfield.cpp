// The starfield: its set-up, the first frame's star pixels from the fixed seed, levels and colours
// at the depth limits, culling and respawning, the stencil and the threshold image.
#include <gtest/gtest.h>

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
    uint32_t drawn() const { return scene_count_not(overlay_framebuffer.pixels, 640 * 480, 0); }
};

// Stars placed by the same stream of random floats as the field draws them: (x', y', r) with
// yaw and pitch 0 and the camera at the origin, so the projection is 320 + 320 x' / r.
reel_star place(pcg32* rng, const reel_starfield& sf)
{
    const float u1 = pcg32_random_float01(rng), u2 = pcg32_random_float01(rng), u3 = pcg32_random_float01(rng);
    const float n3 = 0.1f * 0.1f * 0.1f, f3 = 6.0f * 6.0f * 6.0f, r = powf(u1 * (f3 - n3) + n3, 0.33333334f);
    return {(2.0f * u2 - 1.0f) * r * sf.half_extent_x, (2.0f * u3 - 1.0f) * r * sf.half_extent_y, r};
}

TEST_F(starfield_fixture, set_up_values_the_first_frame_from_the_fixed_seed_and_the_threshold_image)
{
    init(12);  // 4096 stars
    EXPECT_TRUE(sf.random.state == 0x853c49e6748fea9bull && sf.random.increment == 0xda3e39cb94b95bdbull &&
                sf.log2_levels == 5);  // levels 16 to 47
    // far, near, aspect, focal length 480 / (2 tan 45 degrees), half extents
    const float want[] = {6.0f, 0.1f, 4.0f / 3.0f, 240.0f, 1.0f, 4.0f / 3.0f};
    const float got[] = {sf.far_plane, sf.near_plane, sf.aspect, sf.focal_length, sf.half_extent_y, sf.half_extent_x};
    for (int i = 0; i < 6; i++)
        EXPECT_FLOAT_EQ(got[i], want[i]) << i;
    EXPECT_FATAL(init(10, 16, 40), "crash in reel_starfield_init_i8 at src/reel_starfield:[0-9]+\nstars "
                                   "brightess levels must be a log2 number of entries but has 25 levels\n");
    reel_starfield_reset_all(&sf);
    pcg32 rng = {REEL_STARFIELD_SEED_STATE, REEL_STARFIELD_SEED_INCREMENT};
    std::vector<reel_star> placed;
    for (uint32_t i = 0; i < 4096; i++)
        placed.push_back(place(&rng, sf));
    reel_starfield_draw_i8(&sf, &overlay, &engine);
    std::map<std::pair<int32_t, int32_t>, uint32_t> brightest;
    uint32_t outside = 0;
    const float fx = sf.focal_length * sf.aspect, fy = sf.focal_length;
    for (uint32_t i = 0; i < 4096; i++) {
        const reel_star& s = placed[i];
        const float px = roundf(320.0f + fx * s.x / s.z), py = roundf(240.0f + fy * s.y / s.z);
        if (s.z > 6.0f || px < 0 || px >= 640 || py < 0 || py >= 480) {
            ASSERT_EQ(stars()[i].z, place(&rng, sf).z) << i << ": respawned in star order";
            outside++;
            continue;
        }
        const float b = 1.0f - ((s.z - 0.1f) * (1.0f / (6.0f - 0.1f)) - 0.1f) / 0.9f;
        const float bright = fminf(fmaxf(b * b * b * b * b, 0.0f), 1.0f);
        const uint32_t k = std::min((uint32_t)roundf(bright * 32767.0f) >> 10, 31u);
        brightest[{(int32_t)px, (int32_t)py}] = std::max(brightest[{(int32_t)px, (int32_t)py}], 16 + k);
    }
    EXPECT_GT(outside, 500u) << "spawned across the horizontal extent times the aspect: about a quarter lands outside";
    for (int32_t y = 0; y < 480; y++)
        for (int32_t x = 0; x < 640; x++) {
            const auto it = brightest.find({x, y});
            const bool star = it != brightest.end();
            ASSERT_TRUE(pixel(x, y) == (star ? it->second : 0) && scene_coverage_bit(overlay.coverage[0], x, y) == star)
                << x << "," << y;
        }
    // the threshold image hides darker stars: the same frame without an image or with all texels one value
    scene_test_image img(10, 9, 640, 480);
    const reel_starfield settled = sf;
    const std::vector<reel_star> at(stars(), stars() + 4096);
    auto frame_with = [&](const reel_image* image, uint8_t texel) {
        std::fill(img.texels.begin(), img.texels.end(), texel);
        sf = settled;
        sf.image = image;
        std::copy(at.begin(), at.end(), stars());
        n3d_framebuffer_clear(&overlay_framebuffer);
        reel_starfield_draw_i8(&sf, &overlay, &engine);
        return std::vector<uint8_t>(overlay_framebuffer.pixels, overlay_framebuffer.pixels + 640 * 480);
    };
    const std::vector<uint8_t> plain = frame_with(nullptr, 0), zero = frame_with(&img.image, 0);
    EXPECT_EQ(frame_with(&img.image, 255), std::vector<uint8_t>(640 * 480));
    // texel 0 keeps every star with level16 of at least 128: all above level 0 (level16 >= 1024)
    uint32_t dropped = 0;
    for (uint32_t i = 0; i < 640 * 480; i++) {
        ASSERT_TRUE(zero[i] == plain[i] || (plain[i] <= 16 && zero[i] == 0)) << i;
        dropped += zero[i] != plain[i];
    }
    EXPECT_GT(dropped, 0u) << "the faintest stars are gone";
}

TEST_F(starfield_fixture, one_star_at_the_depth_limits_out_of_view_and_behind_the_stencil)
{
    // Drawn (colour, at column x of row 240): at near bright 1 (b = 1.11, clamped), the last level; at
    // far bright 0, level 0; the palette ends first: 40 - 1, not 47; offsets add to the palette's first
    // index; 639.4 rounds to 639, z = 1 is b = 0.94162, b^5 x 32767 = 24256: level 23. Respawned, which
    // draws random numbers (colour 0): before near, beyond far, 320 + 320 = 640 (one past the right
    // edge), -0.6 (rounds to -1). Behind a stencil of all ones (hidden): neither drawn nor respawned.
    const struct {
        reel_star star;
        uint32_t first, count;
        int32_t first_level;
        bool hidden;
        uint8_t colour;
        int32_t x;
    } cases[] = {{{0, 0, 0.1f}, 0, 256, 16, false, 47, 320},
                 {{0, 0, 6.0f}, 0, 256, 16, false, 16, 320},
                 {{0, 0, 0.1f}, 0, 40, 16, false, 39, 320},
                 {{0, 0, 0.1f}, 100, 8, 0, false, 107, 320},
                 {{319.4f / 320.0f, 0, 1}, 0, 256, 16, false, 16 + 23, 639},
                 {{0, 0, 0.09f}, 0, 256, 16, false, 0, 0},
                 {{0, 0, 6.01f}, 0, 256, 16, false, 0, 0},
                 {{1, 0, 1}, 0, 256, 16, false, 0, 0},
                 {{0, -240.6f / 240.0f, 1}, 0, 256, 16, false, 0, 0},
                 {{0, 0, 1}, 0, 256, 16, true, 0, 0}};
    memset(stencils[1].bits, 0xFF, 640 / 8 * 480);
    for (const auto& c : cases) {
        palette = {c.first, c.count, entries.data()};
        init(0, c.first_level, c.first_level + 31);
        stars()[0] = c.star;
        sf.stencil = c.hidden ? &stencils[1] : nullptr;
        n3d_framebuffer_clear(&overlay_framebuffer);
        reel_starfield_draw_i8(&sf, &overlay, &engine);
        const bool respawned = c.colour == 0 && !c.hidden;
        EXPECT_TRUE((stars()[0].z != c.star.z) == respawned &&
                    (sf.random.state != REEL_STARFIELD_SEED_STATE) == respawned && drawn() == (c.colour ? 1u : 0u) &&
                    (c.colour == 0 || pixel(c.x, 240) == c.colour))
            << c.star.x << "," << c.star.y << "," << c.star.z << " in " << c.first << "+" << c.count;
    }
    n3d_framecontext fc = overlay;  // ARGB1555: the level in each channel
    fc.framebuffer = ctx.video->framebuffer;
    reel_starfield_init_i8(&sf, 0, stars(), 1, 320, 240, &palette, 0, 31, &demo);
    stars()[0] = {0.0f, 0.0f, 0.1f};
    reel_starfield_draw_i8(&sf, &fc, &engine);
    EXPECT_EQ(video_pixel(160, 120), 0x8000 | 31 << 10 | 31 << 5 | 31);
}

}  // namespace
