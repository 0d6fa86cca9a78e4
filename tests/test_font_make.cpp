// The font maker against DejaVu Sans (Debian's fonts-dejavu-core): glyph boxes, offsets and
// advances from the font's own numbers (units per em 2048, hhea ascender 1901 and descender
// -483, and each glyph's advance and outline box), stencils against the threshold, the block
// read back in both byte orders, refusal of damaged fonts and options, and the tool's output.
#include <cmath>
#include <cstring>

#include "font_make.h"
#include "reel_resource.h"
#include "test_fatal.h"
#include "tool_fixture.h"

namespace {

const char* const DEJAVU = "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf";
constexpr double DEJAVU_HEIGHT_UNITS = 1901 + 483;  // ascender - descender: what the pixel height spans

std::vector<uint8_t> read_file(const char* path)
{
    const std::string bytes = tool_fixture_read(path);
    return std::vector<uint8_t>(bytes.begin(), bytes.end());
}

struct maker : testing::Test {
    test_arena memory = test_arena(16u << 20), tmp_memory = test_arena(8u << 20);
    xmemarena &arena = memory.arena, &tmp = tmp_memory.arena;
    std::vector<uint8_t> dejavu = read_file(DEJAVU);
    reel_font font;
    font_make_summary summary;
    char why[512] = "";

    void SetUp() override
    {
        if (dejavu.empty())
            GTEST_SKIP() << DEJAVU << " is missing: install fonts-dejavu-core";
    }
    int32_t make(const std::vector<uint8_t>& data, font_make_options o)
    {
        return font_make(&font, &summary, &arena, &tmp, data.data(), data.size(), &o, why, sizeof(why));
    }
};

struct glyph_box {
    char c;
    int32_t advance_units;
    int32_t x_min, y_min, x_max, y_max;  // the outline's box in font units, y up
};

TEST_F(maker, glyph_boxes_offsets_and_advances_follow_the_fonts_own_numbers)
{
    ASSERT_EQ(make(dejavu, {24, 31, 127, 1}), 0) << why;
    const double scale = 24 / DEJAVU_HEIGHT_UNITS;
    // ascent 1901 x 24 / 2384 = 19.14, descent -4.86; 31 and 127 have no glyph in the font
    EXPECT_TRUE(summary.ascent == 19 && summary.descent == -5 && summary.missing == 2 && font.glyph_count == 97);
    for (uint32_t code : {31u, 127u}) {
        const reel_glyph& g = font.glyphs[code - 31];
        EXPECT_EQ(g.width * g.height, 0u);
        EXPECT_EQ(g.advance, 0.0f) << "a missing character does not move the pen";
    }
    const reel_glyph& space = font.glyphs[' ' - 31];
    EXPECT_EQ(space.width * space.height, 0u);
    EXPECT_NEAR(space.advance, 651 * scale, 1e-4);

    // the box in pixels is the outline's box scaled, rounded outward, y pointing down from the baseline
    const glyph_box boxes[] = {
        {'H', 1540, 201, 0, 1339, 1493},
        {'o', 1253, 113, -29, 1141, 1147},
        {'p', 1300, 186, -426, 1188, 1147},
    };
    for (const glyph_box& b : boxes) {
        SCOPED_TRACE(b.c);
        const reel_glyph& g = font.glyphs[b.c - 31];
        const int32_t x0 = (int32_t)floor(b.x_min * scale), x1 = (int32_t)ceil(b.x_max * scale);
        const int32_t y0 = (int32_t)floor(-b.y_max * scale), y1 = (int32_t)ceil(-b.y_min * scale);
        EXPECT_EQ(std::vector<float>({g.x_offset, g.y_offset, (float)g.width, (float)g.height}),
                  std::vector<float>({(float)x0, (float)y0, (float)(x1 - x0), (float)(y1 - y0)}));
        EXPECT_NEAR(g.advance, b.advance_units * scale, 1e-4);
    }
    const reel_glyph& h = font.glyphs['H' - 31];  // 12 x 16 from (2, -16)
    EXPECT_EQ(h.pixels[2 * h.width + 1], 255) << "pixel x 3..4 lies inside the left stem (x 2.02 to 4.03)";
    EXPECT_EQ(h.pixels[2 * h.width + 6], 0) << "between the stems, above the bar";
}

TEST_F(maker, stencil_bits_are_the_pixels_at_or_above_the_threshold)
{
    for (uint32_t threshold : {1u, 128u, 255u}) {
        ASSERT_EQ(make(dejavu, {20, 33, 126, threshold}), 0) << why;
        for (uint32_t i = 0; i < font.glyph_count; i++) {
            const reel_glyph& g = font.glyphs[i];
            ASSERT_EQ(g.stencil.width, (g.width + 31) / 32 * 32);
            ASSERT_EQ(g.stencil.height, g.height);
            for (uint32_t y = 0; y < g.height; y++)
                for (uint32_t x = 0; x < g.stencil.width; x++) {
                    const uint32_t b = y * g.stencil.width + x;
                    const bool bit = g.stencil.bits[b / 32] & (0x80000000u >> (b % 32));
                    ASSERT_EQ(bit, x < g.width && g.pixels[y * g.width + x] >= threshold)
                        << "threshold " << threshold << " glyph " << i + 33 << " at " << x << ", " << y;
                }
        }
    }
}

TEST_F(maker, the_file_reads_back_as_the_same_font_in_both_byte_orders)
{
    ASSERT_EQ(make(dejavu, {16, 32, 126, 1}), 0) << why;
    for (int32_t order : {BYTE_ORDER_NATIVE, BYTE_ORDER_SWAPPED}) {
        uint64_t size = 0;
        const uint8_t* file = font_make_file(&font, &arena, order, &size);
        stream_cursor cur;
        stream_cursor_init(&cur, file, size, BYTE_ORDER_NATIVE, "test.fnt");
        ASSERT_EQ(stream_cursor_read_marker(&cur), order);
        reel_font back;
        ASSERT_EQ(reel_font_read(&arena, &back, &cur), file + size) << "the reader ends where the file ends";
        ASSERT_EQ(back.glyph_count, font.glyph_count);
        for (uint32_t i = 0; i < font.glyph_count; i++) {
            const reel_glyph &a = font.glyphs[i], &b = back.glyphs[i];
            ASSERT_EQ(std::vector<float>({a.x_offset, a.y_offset, a.advance}),
                      std::vector<float>({b.x_offset, b.y_offset, b.advance}));
            ASSERT_EQ(std::vector<uint8_t>(a.pixels, a.pixels + a.width * a.height),
                      std::vector<uint8_t>(b.pixels, b.pixels + b.width * b.height));
            const uint32_t words = a.stencil.width / 32 * a.stencil.height;
            ASSERT_EQ(std::vector<uint32_t>(a.stencil.bits, a.stencil.bits + words),
                      std::vector<uint32_t>(b.stencil.bits, b.stencil.bits + words));
        }
    }
}

// Offset of a table in the font's directory (big-endian), 0 when absent.
uint32_t table_offset(const std::vector<uint8_t>& f, const char* tag)
{
    auto be = [&](size_t o, int n) { uint32_t v = 0; for (int i = 0; i < n; i++) v = v << 8 | f[o + i]; return v; };
    for (uint32_t i = 0; i < be(4, 2); i++)
        if (memcmp(&f[12 + 16 * i], tag, 4) == 0)
            return be(12 + 16 * i + 8, 4);
    return 0;
}

TEST_F(maker, damaged_fonts_and_options_out_of_range_are_refused_with_a_reason)
{
    std::vector<uint8_t> truncated(dejavu.begin(), dejavu.begin() + 4096);
    std::vector<uint8_t> bad_loca = dejavu;  // glyph 36 ('A') said to end far beyond 'glyf'
    const uint32_t loca = table_offset(dejavu, "loca"), head = table_offset(dejavu, "head");
    ASSERT_NE(loca, 0u);
    const uint32_t entry = dejavu[head + 50] || dejavu[head + 51] ? 4 : 2;
    for (uint32_t i = 0; i < entry; i++)
        bad_loca[loca + 37 * entry + i] = 0x7F;
    std::vector<uint8_t> bad_cmap = dejavu;  // the first character map said to start far beyond 'cmap'
    const uint32_t cmap = table_offset(dejavu, "cmap");
    bad_cmap[cmap + 8] = 0x00, bad_cmap[cmap + 9] = 0xFF;
    std::vector<uint8_t> bad_hhea = dejavu;  // more long metrics than glyphs
    const uint32_t hhea = table_offset(dejavu, "hhea");
    bad_hhea[hhea + 34] = 0xFF, bad_hhea[hhea + 35] = 0xFF;
    const std::string text = "not a font at all";
    struct refusal {
        std::vector<uint8_t> data;
        font_make_options options;
        const char* why;
    } cases[] = {
        {{}, {16, 32, 126, 1}, "not a TrueType or OpenType font"},
        {std::vector<uint8_t>(text.begin(), text.end()), {16, 32, 126, 1}, "not a TrueType or OpenType font"},
        {truncated, {16, 32, 126, 1}, "runs past the end of the file"},
        {bad_loca, {16, 65, 65, 1}, "glyph 36 lies outside the 'glyf' table"},
        {bad_cmap, {16, 65, 65, 1}, "character map 0 runs past the 'cmap' table"},
        {bad_hhea, {16, 65, 65, 1}, "the 'hmtx' table does not hold the metrics of"},
        {dejavu, {0, 32, 126, 1}, "pixel height 0 is not from 1 to 1024"},
        {dejavu, {1025, 32, 126, 1}, "pixel height 1025"},
        {dejavu, {16, 66, 65, 1}, "character range 66 to 65"},
        {dejavu, {16, 32, 256, 1}, "character range 32 to 256"},
        {dejavu, {16, 32, 126, 0}, "stencil threshold 0"},
        {dejavu, {16, 32, 126, 256}, "stencil threshold 256"},
    };
    for (const refusal& r : cases) {
        why[0] = 0;
        EXPECT_EQ(make(r.data, r.options), 1) << r.why;
        EXPECT_NE(std::string(why).find(r.why), std::string::npos) << why;
    }
}

// ---- the tool ----

TEST_F(maker, tool_writes_the_same_file_into_a_new_folder)
{
    const std::string dir = tool_fixture_dir(REEL_TEST_OUTPUT_DIR, "tool");
    const tool_run_result r =
        tool_fixture_run(dir, std::string(REEL_TOOLS_DIR) + "/reel_fontmake --first 65 --last 0x5A " + DEJAVU +
                                  " 18 fonts/deep/g.fnt");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("characters 65 to 90 at 18 pixels"), std::string::npos) << r.out;
    ASSERT_EQ(make(dejavu, {18, 65, 90, 1}), 0);
    uint64_t size = 0;
    const uint8_t* expected = font_make_file(&font, &arena, BYTE_ORDER_NATIVE, &size);
    EXPECT_EQ(tool_fixture_read(dir + "/fonts/deep/g.fnt"), std::string((const char*)expected, size));
    EXPECT_EQ(tool_fixture_list(dir + "/fonts/deep"), std::vector<std::string>({"g.fnt"})) << "no temporary left";
    // (--help, usage errors, unreadable fonts and failed writes are in test_tool's tables)
}

}  // namespace
