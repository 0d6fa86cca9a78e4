// The emulated display: plane layout, flips, CLUT hooks and the composition of overlay over video.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "display.h"

namespace {

struct display_fixture : testing::Test {
    std::vector<uint8_t> block = std::vector<uint8_t>(2 << 20);
    xmemarena arena;
    display_device dev;
    std::vector<uint32_t> out = std::vector<uint32_t>(640 * 480);

    void SetUp() override
    {
        xmemarena_init(&arena, "platform_arena", block.size(), block.data());
        display_init(&dev, &arena);
        dev.set_transparent_index(&dev, 0);
        memset(dev.overlay.pixels, 0, 640 * 480);
    }
    uint16_t* video(uint32_t buffer, uint32_t x, uint32_t y)
    {
        return (uint16_t*)(dev.video[buffer].pixels + y * 1024) + x;
    }
};

// the reference composition, written straight from the pixel rule
uint32_t display_reference(const display_device* dev, uint32_t x, uint32_t y)
{
    const uint8_t i = dev->overlay.pixels[y * dev->overlay.pitch + x];
    const uint8_t *oc = display_live_overlay_clut(), *vc = display_live_video_clut();
    if (i != display_transparent_index())
        return (uint32_t)oc[i * 4] << 24 | oc[i * 4 + 1] << 16 | oc[i * 4 + 2] << 8 | 255;
    const display_plane* v = display_shown_video(dev);
    uint16_t px;
    memcpy(&px, v->pixels + (y / 2) * v->pitch + (x / 2) * 2, 2);
    uint32_t rgba = 255;
    for (uint32_t c = 0; c < 3; c++) {  // red, green, blue: 5 bits each, widened through the video CLUT
        const uint32_t c5 = (px >> (10 - 5 * c)) & 31;
        rgba |= (uint32_t)vc[(c5 * 8 + (c5 & 7)) * 4 + c] << (24 - 8 * c);
    }
    return rgba;
}

}  // namespace

TEST_F(display_fixture, init_lays_out_planes_and_grey_ramps_flips_alternate_and_clut_hooks_copy_ranges)
{
    EXPECT_TRUE(dev.overlay.pitch == 640 && dev.overlay.width == 640 && dev.overlay.height == 480 &&
                dev.back_index == 0);
    for (const display_plane& v : dev.video)
        EXPECT_TRUE(v.pitch == 1024 && v.width == 320 && v.height == 240);
    EXPECT_EQ(dev.video[1].pixels - dev.video[0].pixels, 0x3c000);
    const uint8_t* oc = display_live_overlay_clut();
    for (uint32_t i = 0; i < 256; i++)
        ASSERT_TRUE(oc[i * 4] == i && oc[i * 4 + 3] == 255 && dev.default_overlay_clut.entries[i * 4 + 2] == i) << i;
    // the overlay starts filled with the transparent index current at init
    dev.set_transparent_index(&dev, 0x1F7);
    display_device second;
    display_init(&second, &arena);
    EXPECT_TRUE(second.overlay.pixels[0] == 0xF7 && second.overlay.pixels[640 * 480 - 1] == 0xF7);
    dev.set_transparent_index(&dev, 0);

    // flips alternate the shown buffer
    *video(0, 0, 0) = 0x001F, *video(1, 0, 0) = 0x7C00;
    for (uint32_t flips = 0; flips < 3; flips++, display_flip(&dev)) {  // the back buffer is not shown
        display_output_rgba(&dev, out.data(), 640 * 4);
        EXPECT_TRUE(dev.back_index == flips % 2 && out[0] == (flips % 2 ? 0x0000FFFFu : 0xFF0000FFu)) << flips;
    }

    // the CLUT hooks copy ranges and say how many bytes
    uint8_t entries[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    EXPECT_TRUE(dev.set_overlay_clut(&dev, 0, 0, entries) == 0 && display_live_overlay_clut()[0] == 0);
    EXPECT_EQ(dev.set_overlay_clut(&dev, 254, 2, entries), 8u);
    uint8_t back[12] = {};
    EXPECT_EQ(dev.get_overlay_clut(&dev, 253, 3, back), 12u);
    EXPECT_TRUE(back[0] == 253 && memcmp(back + 4, entries, 8) == 0);
    EXPECT_TRUE(dev.get_video_clut(&dev, 10, 1, back) == 4 && back[0] == 10);
    EXPECT_EQ(dev.set_video_clut(&dev, 10, 1, entries), 4u);
    EXPECT_TRUE(display_live_video_clut()[40] == 1 && display_live_overlay_clut()[40] == 10);  // separate tables
}

TEST_F(display_fixture,
       every_kernel_set_composes_blocks_of_each_kind_with_grey_ramps_and_mixed_content_by_the_pixel_rule)
{
    // grey ramps: an opaque index i shows (i, i, i); a video channel c shows c * 8 + (c AND 7)
    const struct { uint16_t pixel; uint32_t rgba; } video_cases[] = {
        {0x7FFF, 0xFFFFFFFF}, {0x0421, 0x090909FF}, {0xFFFF, 0xFFFFFFFF},  // alpha bit not shown
        {0x4210, 0x808080FF}, {0x7C00, 0xFF0000FF}, {0x001F, 0x0000FFFF}, {0x0000, 0x000000FF},
    };
    const uint32_t cases = sizeof(video_cases) / sizeof(video_cases[0]);
    for (uint32_t i = 0; i < 320 * 240; i++)
        *video(1, i % 320, i / 320) = video_cases[(i % 320 + i / 320) % cases].pixel;
    for (uint32_t transparent : {0u, 128u, 255u}) {
        dev.set_transparent_index(&dev, transparent);
        // per row: a transparent block, an opaque block from the table's upper half, then
        // alternating pixels, each 64 wide
        auto index_at = [&](uint32_t x, uint32_t y) -> uint32_t {
            const uint32_t part = (x / 64) % 3, colour = (x * 7 + y) % 256 == transparent ? 1 : (x * 7 + y) % 256;
            return part == 0 ? transparent : part == 1 ? (colour | 0x80) : ((x & 1) ? transparent : colour);
        };
        for (uint32_t i = 0; i < 640 * 480; i++)
            dev.overlay.pixels[i] = (uint8_t)index_at(i % 640, i / 640);
        for (display_kernels k : {DISPLAY_KERNELS_PORTABLE, DISPLAY_KERNELS_BEST}) {
            SCOPED_TRACE(display_use_kernels(k));
            display_output_rgba(&dev, out.data(), 640 * 4);
            for (uint32_t p = 0, x = 0, y = 0; p < 640 * 480; p++, x = p % 640, y = p / 640) {
                const uint32_t i = index_at(x, y);
                const uint32_t want =
                    i == transparent ? video_cases[(x / 2 + y / 2) % cases].rgba : i << 24 | i << 16 | i << 8 | 255;
                ASSERT_EQ(out[p], want) << x << "," << y << " transparent " << transparent;
            }
        }
    }

    // random overlay with runs of transparent, opaque and mixed bytes (short ones, then long
    // ones that fill whole blocks), random video and CLUTs; every kernel set
    uint32_t seed = 12345;
    auto next = [&seed] { return (seed = seed * 1664525u + 1013904223u) >> 8; };
    uint8_t clut[2][1024];
    for (uint32_t i = 0; i < 2048; i++)
        clut[i / 1024][i % 1024] = (uint8_t)next();
    dev.set_overlay_clut(&dev, 0, 256, clut[0]);
    dev.set_video_clut(&dev, 0, 256, clut[1]);
    dev.set_transparent_index(&dev, 7);
    for (uint32_t i = 0; i < 640 * 480; i++) {
        const uint32_t run = (i / (i < 640 * 240 ? 13 : 128)) % 3;
        dev.overlay.pixels[i] = run == 0 ? 7 : run == 1 ? (uint8_t)next() : ((next() & 1) ? 7 : (uint8_t)next());
    }
    for (uint32_t i = 0; i < 2 * 240 * 512; i++)
        *video(i / (240 * 512), i % 512, i / 512 % 240) = (uint16_t)next();
    display_flip(&dev);
    for (display_kernels k : {DISPLAY_KERNELS_PORTABLE, DISPLAY_KERNELS_BEST}) {
        SCOPED_TRACE(display_use_kernels(k));
        std::vector<uint32_t> wide(700 * 480, 0xDEADBEEF);  // a pitch wider than the image
        display_output_rgba(&dev, wide.data(), 700 * 4);
        for (uint32_t y = 0; y < 480; y++) {
            for (uint32_t x = 0; x < 640; x++)
                ASSERT_EQ(wide[y * 700 + x], display_reference(&dev, x, y)) << x << "," << y;
            ASSERT_EQ(wide[y * 700 + 640], 0xDEADBEEFu);
        }
    }
}
