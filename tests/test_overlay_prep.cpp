// Overlay asset preparation: textures, stencils and stroke orders from index pictures; the tools.
#include "bitmap.h"
#include "n3d_io.h"
#include "overlay_prep.h"
#include "reel_resource.h"
#include "test_fatal.h"
#include "tool.h"
#include "tool_fixture.h"

namespace {
typedef std::vector<uint8_t> bytes;
struct prep_fixture : testing::Test {
    test_arena memory = test_arena(64u << 20);
    xmemarena& arena = memory.arena;
    std::string dir =
        tool_fixture_dir(REEL_TEST_OUTPUT_DIR, testing::UnitTest::GetInstance()->current_test_info()->name());
    // 3 colours: transparent black, opaque red, opaque blue
    bytes entries = {0, 0, 0, 0, 255, 0, 0, 255, 0, 0, 255, 255};
    prep_index_picture picture(uint32_t w, uint32_t h, bytes& pixels)
    {
        return {w, h, pixels.data(), {0, 3, entries.data()}, 0};
    }
};

void save_indexed_png(const prep_index_picture* p, const std::string& path, xmemarena* arena)
{
    uint64_t size = 0;
    const uint8_t* png = prep_encode_indexed_png(p, arena, &size);
    tool_write_file(path.c_str(), png, size, nullptr, 0);
}

TEST_F(prep_fixture, textures_stencils_and_run_length_images_from_an_index_picture)
{
    bytes pixels(5 * 3);
    for (size_t i = 0; i < pixels.size(); i++)
        pixels[i] = (uint8_t)(1 + i % 2);
    pixels[7] = 0;
    const prep_index_picture p = picture(5, 3, pixels);

    n3d_texture t;
    prep_texture_from_indices(&t, &arena, &p, PREP_STROKE_MIN_WIDTH, 1);
    // at least 32 wide and 4 high, levels down to 4 x 4 (none below 4 high)
    EXPECT_TRUE(t.log2_w == 5 && t.log2_h == 2 && t.min_log2_w == 2 && t.min_log2_h == 2);
    const auto* level0 = (const uint8_t*)t.mips[0];
    for (uint32_t y = 0; y < 4; y++)
        for (uint32_t x = 0; x < 32; x++)
            ASSERT_EQ(level0[y * 32 + x], x < 5 && y < 3 ? pixels[y * 5 + x] : 0) << x << "," << y;
    const auto* half = (const uint8_t*)t.mips[n3d_mip_slot(&t, 4, 2)];  // halved across only
    ASSERT_NE(half, nullptr);
    EXPECT_EQ(half[0 * 16 + 1], level0[0 * 32 + 2]);
    EXPECT_EQ(half[1 * 16 + 2], level0[1 * 32 + 4]);
    n3d_coverage_buffer cb;
    prep_stencil_from_indices(&cb, &arena, &p);
    EXPECT_TRUE(cb.width == 32 && cb.height == 3 && cb.bits[0] == 0xF8000000u);
    EXPECT_EQ(cb.bits[1], 0xD8000000u) << "pixel (2, 1) is the key";

    reel_rle_image rle;
    prep_rle_from_indices(&rle, &arena, &p);
    EXPECT_EQ(bytes(rle.data, rle.data + 6), (bytes{1, 1, 1, 2, 1, 1}));
}

TEST_F(prep_fixture, stroke_orders_follow_a_path_and_walk_a_shape)
{
    bytes texels(128 * 8);
    const float line[4] = {0.0f, 2.0f, 100.0f, 2.0f};
    prep_stroke_from_path(texels.data(), 128, 8, line, 2, 1.0f);
    for (uint32_t y = 0; y < 8; y++)
        for (uint32_t x = 0; x < 128; x++) {
            // pixel centres within 1 of the line: rows 1 and 2; the order is 1 + 254 x (x + 0.5) / 100
            const bool on = (y == 1 || y == 2) && x < 101;
            const uint32_t want = on ? 1 + (uint32_t)std::min(254.0f, 254.0f * std::min(x + 0.5f, 100.0f) / 100.0f) : 0;
            ASSERT_EQ(texels[y * 128 + x], want) << x << "," << y;
        }
    // an L: a column from (0, 0) down to (0, 4), then a row to (4, 4); a separate dot at (4, 0)
    bytes shape(5 * 5), order(5 * 5);
    for (uint32_t i = 0; i < 5; i++)
        shape[i * 5] = shape[4 * 5 + i] = 1;
    shape[4] = 1;
    prep_stroke_from_shape(order.data(), shape.data(), 5, 5, 0, 0, &arena);
    // walking distances 0 to 7 along the L (the corner is cut by a diagonal step), then the dot at 8
    EXPECT_EQ(order[0], 1);
    EXPECT_EQ(order[3 * 5], 1 + 3 * 254 / 8);
    EXPECT_EQ(order[4 * 5 + 1], 1 + 4 * 254 / 8) << "the diagonal step from (0, 3)";
    EXPECT_EQ(order[4 * 5 + 4], 1 + 7 * 254 / 8);
    EXPECT_EQ(order[4], 255) << "the part the start does not reach comes last";
}

TEST_F(prep_fixture, tools_write_files_the_engine_reads_back_into_new_folders)
{
    const std::string tools = std::string(REEL_TOOLS_DIR);
    bytes pixels = {1, 1, 0, 2, 2, 2, 0, 0};
    const prep_index_picture p = picture(4, 2, pixels);
    save_indexed_png(&p, dir + "/in.png", &arena);
    ASSERT_EQ(tool_fixture_run(dir, tools + "/reel_overlayprep rle_image in.png new/folder/logo.rle").status, 0);
    ASSERT_EQ(tool_fixture_run(dir, tools + "/reel_strokeprep pen.img --path \"2,2 30,2\" --size 40x5").status, 0);
    const std::string rle = tool_fixture_read(dir + "/new/folder/logo.rle");
    ASSERT_GE(rle.size(), 4u);
    EXPECT_EQ(bytes(rle.begin() + 4, rle.end()),  // little-endian host
              bytes({4, 0, 0, 0, 2, 0, 0, 0, 10, 0, 0, 0, 2, 1, 128, 1, 1, 2, 2, 2, 128, 2}));
    const std::string pen = tool_fixture_read(dir + "/pen.img");
    ASSERT_GE(pen.size(), 4u);
    stream_cursor cur;
    stream_cursor_init(&cur, (const uint8_t*)pen.data() + 4, pen.size() - 4, BYTE_ORDER_NATIVE, "pen.img");
    reel_image image;
    reel_image_read(&arena, &image, &cur, 0);
    EXPECT_TRUE(image.width == 40 && image.texture.log2_w == 6);
    EXPECT_EQ(((uint8_t*)image.texture.mips[0])[2 * 64 + 2], 1 + (uint32_t)(254.0f * 0.5f / 28.0f));
    EXPECT_EQ(tool_fixture_list(dir + "/new/folder"), std::vector<std::string>({"logo.rle"}));
}
}  // namespace
