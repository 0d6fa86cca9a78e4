// The greetings scene, driven pass by pass as the sequencer calls it: the line list split from
// the text, the still rendered once into each video buffer, the lanes' timing (which line each
// shows when, and where), and the magnified panel's rows and columns in the video plane. The
// 3D scene is a datapack of a camera and two empty nodes: it draws nothing, so the still is
// what the video buffers held, and every pixel of the grid can be predicted.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "font_fixture.h"
#include "mad.h"
#include "scene_fixture.h"

namespace {

constexpr uint16_t STILL = 0x1234;  // what the video buffers hold before the scene
constexpr uint8_t A_VALUE = 200, B_VALUE = 9;
constexpr uint16_t A_GREY = 0x8000 | 25 << 10 | 25 << 5 | 25;  // 200 >> 3 = 25 on each channel
constexpr uint16_t B_GREY = 0x8000 | 1 << 10 | 1 << 5 | 1;

// 'A': 10 x 4 above the baseline; 'B': 4 x 60 from 40 above it, taller than the panel.
std::vector<test_glyph_spec> glyphs()
{
    const std::string a(10, (char)('0' + 8)), b(4, (char)('0' + 9));
    test_glyph_spec A = {std::vector<std::string>(4, a), std::vector<std::string>(4, std::string(10, '#')), 0, -4, 10};
    test_glyph_spec B = {std::vector<std::string>(60, b), {}, 0, -40, 4};
    return {A, B};
}

// The still's 3D scene: a camera and two nodes without meshes, one animation without channels.
struct empty_pack {
    mad_camera camera = {0, 0, 0.5f, 0, 0, 0, 0.7853982f};
    mad_node nodes[3];
    mad_animation animation = {(char*)"hold", 0, nullptr, 0, nullptr};
    mad_datapack pack;
    empty_pack()
    {
        const char* names[3] = {"cam", "special", "optional"};
        for (uint32_t i = 0; i < 3; i++) {
            nodes[i] = {};
            nodes[i].name = (char*)names[i];
            vec3_set(nodes[i].scale, 1, 1, 1);
            nodes[i].rotation[3] = 1;
        }
        nodes[0].camera = &camera;
        pack = {3, nodes, 0, nullptr, 0, nullptr, 1, &camera, 1, &animation, 0, nullptr, 0, nullptr};
    }
};

const char* const ARGS = "still,0,1,hold,cam,special,optional,0";

struct greets_fixture : scene_fixture {
    empty_pack data;
    test_font font = test_font(65, glyphs());
    std::string text;

    greets_fixture()
    {
        font.pixel_storage[0].assign(40, A_VALUE);  // digits stop at 9: the real values
        font.pixel_storage[1].assign(240, B_VALUE);
        font.glyphs[0].pixels = font.pixel_storage[0].data(), font.glyphs[1].pixels = font.pixel_storage[1].data();
        n3d_init(&demo);
        add(REEL_KIND_MADPACK, "still", &data.pack);
        add(REEL_KIND_FONT, "greetings.fnt", &font.font);
        for (n3d_framebuffer& fb : video_framebuffers)
            for (int32_t y = 0; y < fb.height; y++)
                for (int32_t x = 0; x < fb.width; x++)
                    memcpy(fb.pixels + y * fb.row_bytes + 2 * x, &STILL, 2);
    }
    void start(const char* greetings)
    {
        text = greetings;
        add(REEL_KIND_RAW, "greetings.ini", text.data());
        load("video_madpack_greets", ARGS, 30.0f);
    }
};

// ---- parse ----

TEST_F(greets_fixture, lines_are_the_non_empty_ones_ended_by_a_line_feed)
{
    const struct { const char* text; std::vector<std::string> lines; } cases[] = {  // "C" has no line feed
        {"A\n\nB\nC", {"A", "B"}}, {"", {}}, {"\n\n", {}}, {"first line\nsecond\n", {"first line", "second"}}};
    for (const auto& c : cases) {
        engine.greetings = {};
        start(c.text);
        std::vector<std::string> got(engine.greetings.lines, engine.greetings.lines + engine.greetings.line_count);
        EXPECT_EQ(got, c.lines) << c.text;
        EXPECT_TRUE(scene.font_count == 1 && scene.fonts[0] == &font.font);
    }
    // the cache hands the split text to a second greetings scene: its list is kept
    engine.greetings = {};
    start("A\nB\n");
    const char** lines = engine.greetings.lines;
    load("video_madpack_greets", ARGS);
    EXPECT_TRUE(engine.greetings.lines == lines && engine.greetings.line_count == 2);
}

// ---- the still ----

TEST_F(greets_fixture, still_is_rendered_once_into_each_video_buffer_in_the_first_update)
{
    start("A\n");
    const uint32_t words = 320 / 32 * 240;
    auto fill = [&](uint32_t value) {
        for (n3d_framecontext& v : video_contexts)
            std::fill(v.coverage[0]->bits, v.coverage[0]->bits + words, value);
    };
    auto all = [&](const n3d_framecontext& v, uint32_t value) {
        return std::all_of(v.coverage[0]->bits, v.coverage[0]->bits + words, [value](uint32_t w) { return w == value; });
    };
    pass(REEL_PASS_RENDER, 0.0f);
    EXPECT_FALSE(scene.load_complete) << "render calls return at once";
    fill(~0u);
    n3d_framecontext* current = ctx.video;
    const uint64_t sp = xmemarena_get_sp(&demo);
    pass(REEL_PASS_UPDATE, 0.0f);  // the load call, then the first run call
    EXPECT_EQ(xmemarena_get_sp(&demo), sp + 16) << "only the lane state stays";
    EXPECT_EQ(ctx.video, current);
    EXPECT_TRUE(all(video_contexts[0], 0) && all(video_contexts[1], 0)) << "the 3D scene cleared its coverage: it drew here";
    fill(~0u);
    pass(REEL_PASS_UPDATE, 0.5f);
    pass(REEL_PASS_RENDER, 0.5f);
    EXPECT_TRUE(all(video_contexts[0], ~0u) && all(video_contexts[1], ~0u)) << "and never again";
}

// ---- lanes and the panel ----

struct lane_view { int32_t line; float start; };  // line -1: the lane draws nothing
struct frame_case { float t; lane_view lanes[2]; };

constexpr float LANE_START_X[2] = {60, 60}, LANE_BASE_Y[2] = {22, 45}, LANE_SPEED[2] = {-58, -55};
constexpr float LANE_PHASE[2] = {0, 0.7f};

// The panel the lanes draw: every glyph a solid block at its pen position.
std::vector<uint16_t> expected_panel(const frame_case& f, const std::vector<std::string>& lines)
{
    std::vector<uint16_t> panel(124 * 54, 0);
    for (uint32_t l = 0; l < 2; l++) {
        if (f.lanes[l].line < 0)
            continue;
        const float dt = f.t - f.lanes[l].start;
        const int32_t x = (int32_t)floorf(LANE_START_X[l] + LANE_SPEED[l] * dt);
        const float angle = 6.28318530718f * (0.2f * dt + LANE_PHASE[l]);
        const int32_t y = (int32_t)floorf((float)(LANE_BASE_Y[l] + 5.0 * sin((double)angle)));
        int32_t pen = x;
        for (char c : lines[f.lanes[l].line]) {
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

TEST_F(greets_fixture, lanes_take_turns_and_the_panel_lands_magnified_on_the_grid)
{
    const std::vector<std::string> lines = {"AAAAAAAAAA", "BA", "A", "AAA"};
    start("AAAAAAAAAA\nBA\nA\nAAA\n");
    // Line 0 is 100 pixels wide: floor(60 - 58 dt) + 100 < 0 first when dt > 160 / 58 = 2.7586.
    // Line 1 is 14 wide in lane 1, which starts at 3 s: gone when dt > 74 / 55 = 1.345.
    const frame_case frames[] = {
        {0.0f, {{0, 0.0f}, {-1, 0}}},     // lane 1 waits for 3 s
        {1.0f, {{0, 0.0f}, {-1, 0}}},
        {2.75f, {{0, 0.0f}, {-1, 0}}},    // pen ends at exactly 0: not yet gone
        {2.76f, {{0, 0.0f}, {-1, 0}}},    // pen ends at -1: drawn off the panel, then line 2 from 2.76 s
        {2.9f, {{2, 2.76f}, {-1, 0}}},
        {2.99f, {{2, 2.76f}, {-1, 0}}},
        {3.0f, {{2, 2.76f}, {1, 3.0f}}},  // ... and also runs past the panel's shown rows
        {4.3f, {{2, 2.76f}, {1, 3.0f}}},   // line 2 (10 wide) is gone after 70 / 58 = 1.207 s
        {4.35f, {{-1, 0}, {1, 3.0f}}},     // lane 0 ran out of lines at 4.3 s (its next would be line 4)
        {4.4f, {{-1, 0}, {3, 4.35f}}},
        {9.0f, {{-1, 0}, {3, 4.35f}}},
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
}

TEST_F(greets_fixture, a_run_call_before_the_start_uses_up_no_lines)
{
    start("AAAAAAAAAA\nBA\n");
    pass(REEL_PASS_UPDATE, 0.0f);
    // as the sequencer calls a row loaded ahead of its start: since start -1 s, taken unsigned
    scene.since_start = -22050;
    scene.since_start_seconds = (float)(uint32_t)scene.since_start / 22050.0f;
    scene.run(&scene, &ctx);
    pass(REEL_PASS_UPDATE, 0.5f);
    EXPECT_EQ(video_pixel(99 + 2 * 40, 48 + 2 * 21), A_GREY) << "line 0, from x 31 (60 - 29) on rows 20 to 23, is still lane 0's";
}

}  // namespace
