#include "capture_report.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <numeric>
#include <string>
#include <vector>

#include "bitmap.h"
#include "memarena.h"

namespace {

// The mean, the nearest-rank 99th percentile (rank ceil(0.99 n)) and the maximum.
TEST(capture_report, cost_summary_takes_the_nearest_rank_percentile)
{
    auto range = [](uint64_t first, uint64_t last) {
        std::vector<uint64_t> v(last - first + 1);
        std::iota(v.rbegin(), v.rend(), first);  // from last down to first: unsorted on purpose
        return v;
    };
    std::vector<uint64_t> spike(100, 1);
    spike[37] = 1000;
    const struct { const char* what; std::vector<uint64_t> values; double mean; uint64_t p99, max; } cases[] = {
        {"nothing", {}, 0.0, 0, 0},
        {"one value", {5}, 5.0, 5, 5},
        {"1 to 100: rank 99", range(1, 100), 50.5, 99, 100},
        {"1 to 101: rank ceil(99.99) = 100", range(1, 101), 51.0, 100, 101},
        {"one slow frame in 100 is above the p99", spike, (99.0 + 1000.0) / 100.0, 1, 1000},
    };
    for (const auto& c : cases) {
        std::vector<uint64_t> v = c.values;
        const capture_cost_summary s = capture_cost_summarise(v.data(), v.size());
        EXPECT_DOUBLE_EQ(s.mean, c.mean) << c.what;
        EXPECT_TRUE(s.count == c.values.size() && s.p99 == c.p99 && s.max == c.max) << c.what << ": " << s.p99;
    }
}

// The slowest function is the first of the largest costs; none (the count) when nothing cost.
TEST(capture_report, the_slowest_index_is_the_first_of_the_largest)
{
    const struct { std::vector<uint64_t> cycles; uint32_t slowest; } cases[] = {
        {{}, 0}, {{0, 0, 0}, 3}, {{1, 9, 3}, 1}, {{7, 2, 7}, 0}, {{0, 0, 1}, 2}, {{UINT64_MAX, 1}, 0}};
    for (const auto& c : cases)
        EXPECT_EQ(capture_slowest_index(c.cycles.data(), (uint32_t)c.cycles.size()), c.slowest) << c.cycles.size();
}

// A cost line: the frame in six or more digits, four costs with three decimals, the function;
// a name too long for the line is cut, and the line still ends with its line feed.
TEST(capture_report, cost_lines_carry_the_frame_its_costs_and_its_function)
{
    char line[CAPTURE_COST_LINE_MAX];
    const double costs[4] = {1.5, 1.2344, 0.0004, 0.2656};
    size_t len = capture_cost_line(line, 10561, costs, "video_madpack");
    EXPECT_EQ(std::string(line, len), "010561 1.500 1.234 0.000 0.266 video_madpack\n");
    len = capture_cost_line(line, 1234567, costs, "none");
    EXPECT_EQ(std::string(line, len), "1234567 1.500 1.234 0.000 0.266 none\n");
    const std::string long_name(400, 'x');
    len = capture_cost_line(line, 7, costs, long_name.c_str());
    EXPECT_TRUE(len == CAPTURE_COST_LINE_MAX - 1 && strlen(line) == len && line[len - 1] == '\n' &&
                line[len - 2] == 'x');
    EXPECT_EQ(std::string(line, 31), "000007 1.500 1.234 0.000 0.266 ");
}

TEST(capture_report, any_changed_or_missing_byte_changes_the_hash)
{
    std::vector<uint8_t> data(1468);  // one frame of stereo samples: 367 x 4 bytes, a 4-byte tail
    for (size_t i = 0; i < data.size(); i++)
        data[i] = (uint8_t)(i * 7);
    const uint64_t h = capture_hash(CAPTURE_HASH_SEED, data.data(), data.size());
    EXPECT_NE(h, capture_hash(CAPTURE_HASH_SEED, data.data(), data.size() - 1));
    for (size_t at : {(size_t)0, (size_t)7, (size_t)8, (size_t)733, (size_t)1463, (size_t)1464, (size_t)1467}) {
        data[at] ^= 1;
        EXPECT_NE(h, capture_hash(CAPTURE_HASH_SEED, data.data(), data.size())) << "byte " << at;
        data[at] ^= 1;
    }
}

constexpr uint32_t rgba(uint32_t r, uint32_t g, uint32_t b) { return r << 24 | g << 16 | b << 8 | 255; }

TEST(capture_report, a_thumbnail_pixel_is_the_rounded_mean_of_its_4x4_block)
{
    std::vector<uint32_t> frame(640 * 480, rgba(0, 0, 0));
    // block (0, 0): half the pixels red 255, green 1 in one pixel, blue 10 in all; block (159, 119),
    // the last one: green 8 in 15 pixels and 7 in one
    for (uint32_t y = 0; y < 4; y++)
        for (uint32_t x = 0; x < 4; x++) {
            frame[y * 640 + x] = rgba(x < 2 ? 255 : 0, x == 3 && y == 3 ? 1 : 0, 10);
            frame[(476 + y) * 640 + 636 + x] = rgba(0, x == 0 && y == 0 ? 7 : 8, 0);
        }
    // pixel (4, 0) belongs to block (1, 0): 200 / 16 = 12.5 rounds to 13
    frame[4] = rgba(0, 0, 200);
    std::vector<uint8_t> thumb(CONTACT_SHEET_THUMB_BYTES, 99);
    contact_sheet_thumbnail(thumb.data(), frame.data());
    auto at = [&](uint32_t x, uint32_t y) {
        return std::vector<int>(&thumb[(y * 160 + x) * 3], &thumb[(y * 160 + x) * 3 + 3]);
    };
    EXPECT_EQ(at(0, 0), (std::vector<int>{128, 0, 10}));  // 2040 / 16 = 127.5 up; 1 / 16 down
    EXPECT_EQ(at(1, 0), (std::vector<int>{0, 0, 13}));
    EXPECT_EQ(at(159, 119), (std::vector<int>{0, 8, 0}));  // 127 / 16 = 7.94
    EXPECT_EQ(at(0, 1), (std::vector<int>{0, 0, 0}));
}

TEST(capture_report, times_are_written_as_minutes_and_two_digit_seconds)
{
    char text[16];
    for (const auto& [seconds, expected] :
         {std::pair{0u, "0:00"}, {9u, "0:09"}, {60u, "1:00"}, {65u, "1:05"}, {720u, "12:00"}}) {
        contact_sheet_time_text(text, seconds);
        EXPECT_STREQ(text, expected) << seconds;
    }
}

TEST(capture_report, digits_and_the_colon_are_drawn_at_twice_their_3x5_size)
{
    // "1:" then a character the font lacks, which keeps its room, then "7"
    const uint32_t width = 32, height = 12;
    std::vector<uint8_t> rgb(width * height * 3, 0);
    EXPECT_EQ(contact_sheet_draw_text(rgb.data(), width * 3, 0, 1, "1:x7"), 32u);
    // rows 1 to 10 hold each row of the 3 x 5 glyphs twice; rows 0 and 11 stay blank
    const char* const glyph_rows[5] = {
        "..##....................######..",
        "####......##................##..",
        "..##........................##..",
        "..##......##................##..",
        "######......................##..",
    };
    std::vector<std::string> got(height, std::string(width, '.')), want = got;
    for (uint32_t i = 0; i < width * height; i++)  // the picture as '#' (ink) and '.' (anything else)
        got[i / width][i % width] = rgb[i * 3] == CONTACT_SHEET_INK ? '#' : '.';
    for (uint32_t y = 1; y <= 10; y++)
        want[y] = glyph_rows[(y - 1) / 2];
    EXPECT_EQ(got, want);
}

TEST(capture_report, the_sheet_puts_six_pictures_a_row_each_with_its_time_below)
{
    static std::vector<uint8_t> block(16 << 20);
    xmemarena arena;
    xmemarena_init(&arena, "sheet", block.size(), block.data());
    // seven pictures, picture i filled with grey 10 x (i + 1)
    const uint32_t count = 7, seconds[count] = {0, 4, 8, 12, 16, 20, 24};
    std::vector<uint8_t> thumbs(count * CONTACT_SHEET_THUMB_BYTES);
    for (uint32_t i = 0; i < count; i++)
        memset(&thumbs[i * CONTACT_SHEET_THUMB_BYTES], (int)(10 * (i + 1)), CONTACT_SHEET_THUMB_BYTES);
    const bitmap* sheet = contact_sheet_compose(&arena, thumbs.data(), seconds, count);
    // 4 + 6 x (160 + 4) wide; 4 + 2 x (120 + 14 + 4) high
    ASSERT_TRUE(sheet->width == 988u && sheet->height == 280u) << sheet->width << " x " << sheet->height;
    const int back = CONTACT_SHEET_BACKGROUND, ink = CONTACT_SHEET_INK;
    const struct { uint32_t x, y; int value; } probes[] = {
        {0, 0, back}, {4, 4, 10}, {163, 123, 10}, {164, 4, back},  // the margin, picture 0's corners, the gap after it
        {168, 4, 20}, {824, 4, 60}, {987, 4, back},                // picture 1; picture 5, the last of the first row
        {4, 142, 70}, {168, 142, back},                            // picture 6 starts the second row (4 + 138), alone
        {4, 126, ink}, {6, 130, back},  // "0:00": the top of the first 0, 2 px below the picture, and its hollow
        {168 + 8 + 8 + 8 + 4, 126, ink}, {168 + 8 + 8 + 8 + 2, 126, back},  // picture 1 says 0:04: the 4's top right
        {4 + 8 + 8 + 8 + 4, 270, ink}, {4 + 8 + 8 + 8, 270, back},  // picture 6 says 0:24: the stem of its 4 (264 + 6)
    };
    for (const auto& p : probes)
        EXPECT_EQ((int)bitmap_pixel(sheet, p.x, p.y)[0], p.value) << "at " << p.x << ", " << p.y;
}

}  // namespace
