// The font maker against DejaVu Sans (fonts-dejavu-core): glyph boxes and advances from the font's
// own numbers, the block read back in both byte orders, refusals of damaged fonts, and the tool.
#include "font_make.h"
#include "reel_resource.h"
#include "test_fatal.h"
#include "tool_fixture.h"

namespace {
const char* const DEJAVU = "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf";
struct maker : testing::Test {
    test_arena memory = test_arena(16u << 20), tmp_memory = test_arena(8u << 20);
    xmemarena &arena = memory.arena, &tmp = tmp_memory.arena;
    std::string dejavu = tool_fixture_read(DEJAVU);
    reel_font font;
    font_make_summary summary;
    char why[512] = "";

    void SetUp() override { if (dejavu.empty()) GTEST_SKIP() << DEJAVU << " is missing: install fonts-dejavu-core"; }
    int32_t make(const std::string& data, font_make_options o)
    {
        why[0] = 0;
        return font_make(&font, &summary, &arena, &tmp, (const uint8_t*)data.data(), data.size(), &o, why, sizeof(why));
    }
};

TEST_F(maker, glyph_boxes_offsets_and_advances_follow_the_fonts_own_numbers)
{
    ASSERT_EQ(make(dejavu, {24, 31, 127, 1}), 0) << why;
    const double scale = 24.0 / (1901 + 483);  // ascender - descender: what the pixel height spans
    // ascent 1901 x 24 / 2384 = 19.14, descent -4.86; 31 and 127 have no glyph in the font
    EXPECT_TRUE(summary.ascent == 19 && summary.descent == -5 && summary.missing == 2 && font.glyph_count == 97);
    // the advance and the outline's box in font units, y up; the box in pixels is the outline's box
    // scaled, rounded outward, y pointing down from the baseline
    const struct { char c; int32_t advance_units, x_min, y_min, x_max, y_max; } boxes[] = {
        {'H', 1540, 201, 0, 1339, 1493}, {'o', 1253, 113, -29, 1141, 1147}, {'p', 1300, 186, -426, 1188, 1147}};
    for (const auto& b : boxes) {
        const reel_glyph& g = font.glyphs[b.c - 31];
        const int32_t x0 = (int32_t)floor(b.x_min * scale), x1 = (int32_t)ceil(b.x_max * scale);
        const int32_t y0 = (int32_t)floor(-b.y_max * scale), y1 = (int32_t)ceil(-b.y_min * scale);
        EXPECT_TRUE(g.x_offset == x0 && g.y_offset == y0 && (int32_t)g.width == x1 - x0 && (int32_t)g.height == y1 - y0)
            << b.c;
        EXPECT_NEAR(g.advance, b.advance_units * scale, 1e-4) << b.c;
    }
    const reel_glyph& h = font.glyphs['H' - 31];  // 12 x 16 from (2, -16)
    // pixel x 3..4 lies inside the left stem (x 2.02 to 4.03), x 8..9 between the stems, above the bar
    EXPECT_TRUE(h.pixels[2 * h.width + 1] == 255 && h.pixels[2 * h.width + 6] == 0);
}

// The block reads back in both byte orders; the tool writes it, in this host's order, into a new folder.
TEST_F(maker, the_file_reads_back_in_both_byte_orders_and_the_tool_writes_it_into_a_new_folder)
{
    const std::string dir = tool_fixture_dir(REEL_TEST_OUTPUT_DIR, "tool");
    const tool_run_result r = tool_fixture_run(
        dir, std::string(REEL_TOOLS_DIR) + "/reel_fontmake --first 65 --last 0x5A " + DEJAVU + " 18 fonts/deep/g.fnt");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(tool_fixture_list(dir + "/fonts/deep"), std::vector<std::string>({"g.fnt"})) << "no temporary left";
    ASSERT_EQ(make(dejavu, {18, 65, 90, 1}), 0) << why;
    for (int32_t order : {BYTE_ORDER_SWAPPED, BYTE_ORDER_NATIVE}) {
        uint64_t size = 0, again = 0;
        const uint8_t* file = font_make_file(&font, &arena, order, &size);
        stream_cursor cur;
        stream_cursor_init(&cur, file, size, BYTE_ORDER_NATIVE, "test.fnt");
        ASSERT_EQ(stream_cursor_read_marker(&cur), order);
        reel_font back;
        ASSERT_EQ(reel_font_read(&arena, &back, &cur), file + size) << "the reader ends where the file ends";
        const uint8_t* rewritten = font_make_file(&back, &arena, order, &again);
        EXPECT_EQ(std::string((const char*)rewritten, again), std::string((const char*)file, size));
        if (order == BYTE_ORDER_NATIVE) {
            EXPECT_EQ(tool_fixture_read(dir + "/fonts/deep/g.fnt"), std::string((const char*)file, size));
        }
    }
}

// Offset of a table in the font's directory (big-endian), 0 when absent.
uint32_t table_offset(const std::string& f, const char* tag)
{
    auto be = [&](size_t o, int n) { uint32_t v = 0; while (n--) v = v << 8 | (uint8_t)f[o++]; return v; };
    for (uint32_t i = 0; i < be(4, 2); i++)
        if (memcmp(&f[12 + 16 * i], tag, 4) == 0)
            return be(12 + 16 * i + 8, 4);
    return 0;
}

TEST_F(maker, damaged_fonts_and_options_out_of_range_are_refused_with_a_reason)
{
    std::string bad_loca = dejavu;  // glyph 36 ('A') said to end far beyond 'glyf'
    const uint32_t loca = table_offset(dejavu, "loca"), head = table_offset(dejavu, "head"),
                   cmap = table_offset(dejavu, "cmap");
    const uint32_t entry = dejavu[head + 50] || dejavu[head + 51] ? 4 : 2;  // long or short 'loca' offsets
    bad_loca.replace(loca + 37 * entry, entry, entry, 0x7F);
    std::string bad_cmap = dejavu;  // the first character map said to start far beyond 'cmap'
    bad_cmap[cmap + 8] = 0x00, bad_cmap[cmap + 9] = 0xFF;
    const struct refusal { std::string data; font_make_options options; const char* why; } cases[] = {
        {"not a font at all", {16, 32, 126, 1}, "not a TrueType or OpenType font"},
        {dejavu.substr(0, 4096), {16, 32, 126, 1}, "runs past the end of the file"},
        {bad_loca, {16, 65, 65, 1}, "glyph 36 lies outside the 'glyf' table"},
        {bad_cmap, {16, 65, 65, 1}, "character map 0 runs past the 'cmap' table"},
        {dejavu, {16, 66, 65, 1}, "character range 66 to 65"},
    };
    for (const refusal& r : cases)
        EXPECT_TRUE(make(r.data, r.options) == 1 && strstr(why, r.why)) << r.why << ": " << why;
}
}  // namespace
