// Overlay asset preparation: textures, stencils and stroke orders from index pictures; the tools.
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
    bytes entries = {0, 0, 0, 0, 255, 0, 0, 255, 0, 0, 255, 255};  // transparent black, opaque red, opaque blue
    prep_index_picture picture(uint32_t w, uint32_t h, bytes& pixels)
    {
        return {w, h, pixels.data(), {0, 3, entries.data()}, 0};
    }
};

TEST_F(prep_fixture, textures_stencils_and_run_length_images_from_an_index_picture)
{
    bytes pixels = {1, 2, 1, 2, 1, 2, 1, 0, 1, 2, 1, 2, 1, 2, 1};  // 5 x 3, red and blue, the key at (2, 1)
    const prep_index_picture p = picture(5, 3, pixels);
    n3d_texture t;
    prep_texture_from_indices(&t, &memory.arena, &p, PREP_STROKE_MIN_WIDTH, 1);
    // at least 32 wide and 4 high, levels down to 4 x 4 (none below 4 high); the picture at the top left
    EXPECT_TRUE(t.log2_w == 5 && t.log2_h == 2 && t.min_log2_w == 2 && t.min_log2_h == 2);
    const auto* level0 = (const uint8_t*)t.mips[0];
    for (uint32_t i = 0; i < 32 * 4; i++)
        ASSERT_EQ(level0[i], i % 32 < 5 && i / 32 < 3 ? pixels[i / 32 * 5 + i % 32] : 0) << i % 32 << "," << i / 32;
    const auto* half = (const uint8_t*)t.mips[n3d_mip_slot(&t, 4, 2)];  // halved across only
    EXPECT_TRUE(half && half[0 * 16 + 1] == level0[0 * 32 + 2] && half[1 * 16 + 2] == level0[1 * 32 + 4]);
    n3d_coverage_buffer cb;
    prep_stencil_from_indices(&cb, &memory.arena, &p);
    EXPECT_TRUE(cb.width == 32 && cb.height == 3 && cb.bits[0] == 0xF8000000u && cb.bits[1] == 0xD8000000u);
    reel_rle_image rle;
    prep_rle_from_indices(&rle, &memory.arena, &p);
    EXPECT_EQ(bytes(rle.data, rle.data + 6), (bytes{1, 1, 1, 2, 1, 1}));
}

TEST_F(prep_fixture, stroke_orders_follow_a_path_and_walk_a_shape)
{
    bytes texels(128 * 8);
    const float line[4] = {0.0f, 2.0f, 100.0f, 2.0f};
    prep_stroke_from_path(texels.data(), 128, 8, line, 2, 1.0f);
    // pixel centres within 1 of the line: rows 1 and 2; the order is 1 + 254 x (x + 0.5) / 100
    for (uint32_t i = 0; i < 128 * 8; i++) {
        const uint32_t x = i % 128, y = i / 128, on = (y == 1 || y == 2) && x < 101;
        ASSERT_EQ(texels[i], on ? 1 + (uint32_t)(254.0f * std::min(x + 0.5f, 100.0f) / 100.0f) : 0) << x << "," << y;
    }
    // an L: a column from (0, 0) down to (0, 4), then a row to (4, 4); a separate dot at (4, 0)
    bytes shape = {1, 0, 0, 0, 1, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 1, 1, 1, 1}, order(5 * 5);
    prep_stroke_from_shape(order.data(), shape.data(), 5, 5, 0, 0, &memory.arena);
    // walking distances 0 to 7 along the L (a diagonal step from (0, 3) cuts the corner), the unreached dot last
    const uint32_t walked[][2] = {{0, 1}, {3 * 5, 1 + 3 * 254 / 8}, {4 * 5 + 1, 1 + 4 * 254 / 8},
                                  {4 * 5 + 4, 1 + 7 * 254 / 8}, {4, 255}};
    for (const auto& w : walked)
        EXPECT_EQ(order[w[0]], w[1]) << "pixel " << w[0] % 5 << "," << w[0] / 5;
}

TEST_F(prep_fixture, tools_write_files_the_engine_reads_back_into_new_folders)
{
    const std::string tools = REEL_TOOLS_DIR, dir = tool_fixture_dir(REEL_TEST_OUTPUT_DIR, "tools");
    bytes pixels = {1, 1, 0, 2, 2, 2, 0, 0};  // the 4 x 2 picture
    const prep_index_picture p = picture(4, 2, pixels);
    uint64_t size = 0;
    const uint8_t* png = prep_encode_indexed_png(&p, &memory.arena, &size);
    tool_write_file((dir + "/in.png").c_str(), png, size, nullptr, 0);
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
    reel_image_read(&memory.arena, &image, &cur, 0);
    EXPECT_TRUE(image.width == 40 && image.texture.log2_w == 6 &&
                ((uint8_t*)image.texture.mips[0])[2 * 64 + 2] == 1 + (uint32_t)(254.0f * 0.5f / 28.0f));
    EXPECT_EQ(tool_fixture_list(dir + "/new/folder"), std::vector<std::string>({"logo.rle"}));
}
}  // namespace
