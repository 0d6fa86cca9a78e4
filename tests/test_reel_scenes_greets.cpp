// The greetings scene pass by pass: the line list, the still rendered once into each video
// buffer, the lanes' timing and the magnified panel. The 3D scene is a camera and two empty nodes:
// it draws nothing, so the still is what the video buffers held and every pixel can be predicted.
#include <gtest/gtest.h>

#include <cmath>

#include "font_fixture.h"
#include "mad.h"
#include "scene_fixture.h"

namespace {

constexpr uint16_t STILL = 0x1234;  // what the video buffers hold before the scene
constexpr uint16_t A_GREY = 0x8000 | 25 << 10 | 25 << 5 | 25;  // pixel value 200 >> 3 = 25 on each channel
constexpr uint16_t B_GREY = 0x8000 | 1 << 10 | 1 << 5 | 1;     // 9 >> 3

// 'A': 10 x 4 above the baseline; 'B': 4 x 60 from 40 above it, taller than the panel.
const std::vector<test_glyph_spec> GLYPHS = {
    {std::vector<std::string>(4, std::string(10, '8')), std::vector<std::string>(4, std::string(10, '#')), 0, -4, 10},
    {std::vector<std::string>(60, std::string(4, '9')), {}, 0, -40, 4}};

// The still's 3D scene: a camera and two nodes without meshes, one animation without channels.
struct empty_pack {
    mad_camera camera = {0, 0, 0.5f, 0, 0, 0, 0.7853982f};
    mad_node nodes[3] = {
        {(char*)"cam", nullptr, nullptr, &camera, {1, 1, 1}, {0, 0, 0, 1}, {}, 0, nullptr, nullptr},
        {(char*)"special", nullptr, nullptr, nullptr, {1, 1, 1}, {0, 0, 0, 1}, {}, 0, nullptr, nullptr},
        {(char*)"optional", nullptr, nullptr, nullptr, {1, 1, 1}, {0, 0, 0, 1}, {}, 0, nullptr, nullptr}};
    mad_animation animation = {(char*)"hold", 0, nullptr, 0, nullptr};
    mad_datapack pack = {3, nodes, 0, nullptr, 0, nullptr, 1, &camera, 1, &animation, 0, nullptr, 0, nullptr};
};

const char* const ARGS = "still,0,1,hold,cam,special,optional,0";

struct greets_fixture : scene_fixture {
    empty_pack data;
    test_font font = test_font(65, GLYPHS);
    std::string text;

    greets_fixture()
    {
        std::fill(font.pixel_storage[0].begin(), font.pixel_storage[0].end(), 200);  // digits stop at 9
        n3d_init(&demo);
        add(REEL_KIND_MADPACK, "still", &data.pack);
        add(REEL_KIND_FONT, "greetings.fnt", &font.font);
        for (n3d_framecontext& v : video_contexts) {
            ctx.video = &v;
            fill_video(STILL);
        }
        ctx.video = &video_contexts[display.back_index];
    }
    void start(const char* greetings)
    {
        text = greetings;
        add(REEL_KIND_RAW, "greetings.ini", text.data());
        load("video_madpack_greets", ARGS, 30.0f);
    }
};

TEST_F(greets_fixture, lines_are_the_non_empty_ones_ended_by_a_line_feed)
{
    const struct { const char* text; std::vector<std::string> lines; } cases[] = {  // "C" has no line feed
        {"A\n\nB\nC", {"A", "B"}}, {"\n\n", {}}, {"first line\nsecond\n", {"first line", "second"}}};
    for (const auto& c : cases) {
        engine.greetings = {};
        start(c.text);
        EXPECT_EQ(
            std::vector<std::string>(engine.greetings.lines, engine.greetings.lines + engine.greetings.line_count),
            c.lines)
            << c.text;
    }
    const char** lines = engine.greetings.lines;  // the cache hands the split text to a second scene: its list is kept
    load("video_madpack_greets", ARGS);
    EXPECT_TRUE(engine.greetings.lines == lines && engine.greetings.line_count == 2);
}

struct frame_case { float t; struct { int32_t line; float start; } lanes[2]; };  // line -1: the lane draws nothing

constexpr float LANE_START_X[2] = {60, 60}, LANE_BASE_Y[2] = {22, 45}, LANE_SPEED[2] = {-58, -55},
                LANE_PHASE[2] = {0, 0.7f};

// The panel the lanes draw: every glyph a solid block at its pen position.
std::vector<uint16_t> expected_panel(const frame_case& f, const std::vector<std::string>& lines)
{
    std::vector<uint16_t> panel(124 * 54, 0);
    for (uint32_t l = 0; l < 2; l++) {
        const float dt = f.t - f.lanes[l].start, angle = 6.28318530718f * (0.2f * dt + LANE_PHASE[l]);
        const int32_t y = (int32_t)floorf((float)(LANE_BASE_Y[l] + 5.0 * sin((double)angle)));
        int32_t pen = (int32_t)floorf(LANE_START_X[l] + LANE_SPEED[l] * dt);
        for (char c : f.lanes[l].line < 0 ? std::string() : lines[f.lanes[l].line]) {
            const bool a = c == 'A';
            const int32_t w = a ? 10 : 4, top = a ? y - 4 : y - 40, h = a ? 4 : 60;
            for (int32_t py = std::max(top, 0); py < std::min(top + h, 54); py++)
                for (int32_t px = std::max(pen, 0); px < std::min(pen + w, 124); px++)
                    panel[py * 124 + px] = a ? A_GREY : B_GREY;
            pen += w;
        }
    }
    return panel;
}

TEST_F(greets_fixture, the_still_is_rendered_once_then_lanes_take_turns_on_the_magnified_panel)
{
    const std::vector<std::string> lines = {"AAAAAAAAAA", "BA", "A", "AAA"};
    start("AAAAAAAAAA\nBA\nA\nAAA\n");
    const size_t bytes = 320 / 8 * 240;  // of each video buffer's coverage
    auto fill = [&](uint8_t value) {
        for (n3d_framecontext& v : video_contexts)
            memset(v.coverage[0]->bits, value, bytes);
    };
    auto count_not = [&](uint8_t value) {
        return scene_count_not((uint8_t*)video_contexts[0].coverage[0]->bits, bytes, value) +
               scene_count_not((uint8_t*)video_contexts[1].coverage[0]->bits, bytes, value);
    };
    fill(0xFF);
    n3d_framecontext* current = ctx.video;
    const uint64_t sp = xmemarena_get_sp(&demo);
    pass(REEL_PASS_UPDATE, 0.0f);  // the load call, then the first run call
    EXPECT_EQ(xmemarena_get_sp(&demo), sp + 16) << "only the lane state stays";
    EXPECT_TRUE(ctx.video == current && count_not(0) == 0)
        << "the 3D scene cleared each buffer's coverage: it drew there";
    fill(0xFF);
    // a run call before the start uses up no lines: as the sequencer calls a row loaded ahead of
    // its start, since start -1 s taken unsigned
    scene.since_start = -22050;
    scene.since_start_seconds = (float)(uint32_t)scene.since_start / 22050.0f;
    scene.run(&scene, &ctx);
    // Line 0 is 100 pixels wide: floor(60 - 58 dt) + 100 < 0 first when dt > 160 / 58 = 2.7586.
    // Line 1 is 14 wide in lane 1, which starts at 3 s: gone when dt > 74 / 55 = 1.345.
    const frame_case frames[] = {
        {0.0f, {{0, 0.0f}, {-1, 0}}},     // lane 1 waits for 3 s
        {2.75f, {{0, 0.0f}, {-1, 0}}},    // pen ends at exactly 0: not yet gone
        {2.76f, {{0, 0.0f}, {-1, 0}}},    // pen ends at -1: drawn off the panel, then line 2 from 2.76 s
        {2.99f, {{2, 2.76f}, {-1, 0}}},
        {3.0f, {{2, 2.76f}, {1, 3.0f}}},  // ... and also runs past the panel's shown rows
        {4.3f, {{2, 2.76f}, {1, 3.0f}}},   // line 2 (10 wide) is gone after 70 / 58 = 1.207 s
        {4.35f, {{-1, 0}, {1, 3.0f}}},     // lane 0 ran out of lines at 4.3 s (its next would be line 4)
        {4.4f, {{-1, 0}, {3, 4.35f}}},     {9.0f, {{-1, 0}, {3, 4.35f}}},
    };
    for (const frame_case& f : frames) {
        SCOPED_TRACE(testing::Message() << "at " << f.t << " s");
        pass(REEL_PASS_UPDATE, f.t);
        const std::vector<uint16_t> panel = expected_panel(f, lines);
        for (int32_t y = 40; y < 160; y++)
            for (int32_t x = 90; x < 230; x++) {
                const bool grid = y >= 47 && y <= 153 && x >= 99 && x <= 222;
                uint16_t want = STILL;
                if (grid && y % 2 == 0)  // panel row (y - 48) / 2, its pixel (x - 99) / 2, black between
                    want = x % 2 ? panel[(y - 48) / 2 * 124 + (x - 99) / 2] : 0x8000;
                else if (grid && x % 2)
                    want = 0x8000;
                ASSERT_EQ(video_pixel(x, y), want) << x << ", " << y;
            }
    }
    EXPECT_EQ(count_not(0xFF), 0u) << "the still is rendered only in the first update";
}

}  // namespace
