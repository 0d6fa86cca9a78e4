// The greetings: an animated 3D scene rendered once into both video buffers as a still
// picture, and lines of greetings text scrolling through a small panel that is drawn into the
// still every update, magnified twice with a scanline grid. Two lanes take the lines in turn
// (lane 0 the even ones, lane 1 the odd ones), each bobbing gently while its line scrolls from
// the right of the panel's shown part to beyond its left edge; then the lane takes its next line.
#include <array>
#include <cmath>
#include <cstring>

#include "fontbitmap.h"
#include "reel_scenes.h"

static const char* const REEL_GREETS_FILE = "src/reel_scenes";

// The text panel, drawn from scratch every update.
constexpr uint32_t REEL_GREETS_PANEL_WIDTH = 124;
constexpr uint32_t REEL_GREETS_PANEL_HEIGHT = 54;
constexpr uint32_t REEL_GREETS_PANEL_ROW_BYTES = REEL_GREETS_PANEL_WIDTH * 2;
// Where the panel lands in the video plane: rows 47 to 153 from column 99, every second column
// and row a grid line. Even rows show panel rows 0 to 52, each its pixels 0 to 61.
constexpr int32_t REEL_GREETS_GRID_FIRST_ROW = 47;
constexpr int32_t REEL_GREETS_GRID_LAST_ROW = 153;
constexpr int32_t REEL_GREETS_GRID_FIRST_COLUMN = 99;
constexpr int32_t REEL_GREETS_GRID_LAST_COLUMN = 221;  // the last column a panel pixel lands on
constexpr uint16_t REEL_GREETS_GRID_COLOR = 0x8000;     // opaque black

constexpr uint32_t REEL_GREETS_LANES = 2;
constexpr float REEL_GREETS_TWO_PI = 6.28318530718f;

struct reel_greets_lane_constants {
    float start_x, base_y;
    float speed_x;    // pixels per second
    float amplitude;  // pixels
    float frequency;  // cycles per second
    float phase;      // cycles
    uint32_t first_line;
    float first_start;  // scene seconds
};

static constexpr reel_greets_lane_constants REEL_GREETS_LANE_CONSTANTS[REEL_GREETS_LANES] = {
    {60.0f, 22.0f, -58.0f, 5.0f, 0.2f, 0.0f, 0, 0.0f},
    {60.0f, 45.0f, -55.0f, 5.0f, 0.2f, 0.7f, 1, 3.0f},
};

// A grey ramp from the glyph's pixel value (its coverage) to a 5-bit grey, opaque.
static constexpr std::array<uint16_t, 256> reel_greets_make_colour_map()
{
    std::array<uint16_t, 256> map = {};
    for (uint32_t i = 0; i < 256; i++)
        map[i] = (uint16_t)(0x8000 | ((i >> 3) << 10) | ((i >> 3) << 5) | (i >> 3));
    return map;
}
static constexpr std::array<uint16_t, 256> REEL_GREETS_COLOUR_MAP = reel_greets_make_colour_map();

struct reel_greets_lane {
    uint32_t line;      // the line shown
    float start;        // scene seconds at which it entered
};
static_assert(sizeof(reel_greets_lane) * REEL_GREETS_LANES == 16, "the lane state is 16 bytes");

struct scene_video_madpack_greets_state {
    scene_video_madpack_state madpack;  // first: video_madpack's own functions keep their state there
    reel_greets_lane* lanes;            // from "demo_arena", pushed by the first load call
};

static scene_video_madpack_greets_state* reel_greets_state(reel_scene* scene)
{
    return reel_scene_state<scene_video_madpack_greets_state>(scene);
}

// ---- parse ----

// Splits the text in place: every line feed becomes a NUL and each non-empty line ended by one
// is a line; text after the last line feed is not. The same text comes back from the resource
// cache already split, so its list is kept rather than rebuilt from a text without line feeds.
static void reel_greets_split(reel_greetings* greetings, char* text, xmemarena* arena)
{
    if (greetings->text == text)
        return;
    uint32_t feeds = 0;
    for (const char* p = text; *p; p++)
        feeds += *p == '\n';
    greetings->lines = (const char**)xmemarena_push_align(arena, (uint64_t)feeds * sizeof(char*) + 1, alignof(char*));
    greetings->line_count = 0;
    char* line = text;
    for (char* p = text; *p; p++) {
        if (*p != '\n')
            continue;
        *p = 0;
        if (p > line)
            greetings->lines[greetings->line_count++] = line;
        line = p + 1;
    }
    greetings->text = text;
}

void scene_video_madpack_greets_parse_args(reel_scene* scene, reel_parse_context* ctx)
{
    scene_video_madpack_parse_args(scene, ctx);
    scene->fonts = (reel_font**)xmemarena_push_record(ctx->arena, sizeof(reel_font*));
    scene->font_count = 1;
    scene->fonts[0] = reel_load_font(ctx->engine, "greetings.fnt");
    auto* text = (char*)reel_load_resource(ctx->engine, "greetings.ini", REEL_KIND_RAW);
    reel_greets_split(&ctx->engine->greetings, text, ctx->arena);
}

// ---- run ----

// Draws each lane's line into the panel and moves a lane whose line has left on to its next.
static void reel_greets_draw_lanes(reel_scene* scene, const reel_greetings* greetings, reel_greets_lane* lanes,
                                   n3d_framebuffer* panel)
{
    const float now = scene->since_start_seconds;
    for (uint32_t l = 0; l < REEL_GREETS_LANES; l++) {
        const reel_greets_lane_constants& k = REEL_GREETS_LANE_CONSTANTS[l];
        reel_greets_lane* lane = &lanes[l];
        const float dt = now - lane->start;
        if (!(dt >= 0.0f) || lane->line >= greetings->line_count)
            continue;
        float pen_x = k.start_x + k.speed_x * dt;
        const float angle = REEL_GREETS_TWO_PI * (k.frequency * dt + k.phase);  // in single precision ...
        float pen_y = (float)((double)k.base_y + (double)k.amplitude * sin((double)angle));  // ... the rest in double
        fontbitmap_draw_text_argb1555(scene->fonts[0], panel, nullptr, &pen_x, &pen_y, greetings->lines[lane->line],
                                      REEL_GREETS_COLOUR_MAP.data());
        if (pen_x < 0.0f) {  // the whole line has left the panel on the left
            lane->line += REEL_GREETS_LANES;
            lane->start = now;
        }
    }
}

// Every second row of the grid shows a panel row on every second column with black between;
// the rows between are black on the panel's columns and leave the still's pixels between them.
static void reel_greets_magnify(n3d_framebuffer* fb, const uint16_t* panel)
{
    if (fb->format != N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555 || fb->width <= REEL_GREETS_GRID_LAST_COLUMN + 1 ||
        fb->height <= REEL_GREETS_GRID_LAST_ROW)
        crash_in(REEL_GREETS_FILE, __LINE__, "scene_video_madpack_greets",
                 "the video frame of format %d, %d x %d, cannot hold the greetings panel\n", (int)fb->format,
                 fb->width, fb->height);
    for (int32_t r = REEL_GREETS_GRID_FIRST_ROW; r <= REEL_GREETS_GRID_LAST_ROW; r++) {
        auto* row = (uint16_t*)(fb->pixels + (size_t)r * fb->row_bytes);
        if (r & 1) {
            for (int32_t c = REEL_GREETS_GRID_FIRST_COLUMN; c <= REEL_GREETS_GRID_LAST_COLUMN; c += 2)
                row[c] = REEL_GREETS_GRID_COLOR;
            continue;
        }
        const uint16_t* src = panel;
        for (int32_t c = REEL_GREETS_GRID_FIRST_COLUMN; c <= REEL_GREETS_GRID_LAST_COLUMN; c += 2) {
            row[c] = *src++;
            row[c + 1] = REEL_GREETS_GRID_COLOR;
        }
        panel += REEL_GREETS_PANEL_WIDTH;
    }
}

// The 3D scene once into each video buffer: the still that the panel is drawn over.
static void reel_greets_render_still(reel_scene* scene, reel_run_context* ctx)
{
    n3d_framecontext* current = ctx->video;
    for (uint32_t i = 0; i < 2; i++) {
        ctx->video = &ctx->video_contexts[i];
        scene_video_madpack(scene, ctx);
    }
    ctx->video = current;
}

void scene_video_madpack_greets(reel_scene* scene, reel_run_context* ctx)
{
    if (ctx->pass == REEL_PASS_RENDER)
        return;  // everything happens in update calls
    scene_video_madpack_greets_state* state = reel_greets_state(scene);
    if (!scene->load_complete) {
        if (!state->lanes) {  // once, though the 3D scene may take several load calls
            state->lanes = (reel_greets_lane*)xmemarena_push_align(ctx->arena, sizeof(reel_greets_lane) * REEL_GREETS_LANES,
                                                                   alignof(reel_greets_lane));
            for (uint32_t l = 0; l < REEL_GREETS_LANES; l++)
                state->lanes[l] = {REEL_GREETS_LANE_CONSTANTS[l].first_line, REEL_GREETS_LANE_CONSTANTS[l].first_start};
        }
        scene_video_madpack(scene, ctx);
        return;
    }
    if (!scene->ready)
        return;
    if (scene->first_update)
        reel_greets_render_still(scene, ctx);

    xmemarena* arena = ctx->arena;
    const uint64_t mark = xmemarena_get_sp(arena);
    const uint64_t panel_bytes = (uint64_t)REEL_GREETS_PANEL_ROW_BYTES * REEL_GREETS_PANEL_HEIGHT;
    auto* pixels = (uint8_t*)memset(xmemarena_push_align(arena, panel_bytes, 32), 0, panel_bytes);
    n3d_framebuffer panel;
    n3d_framebuffer_wrap(&panel, N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, REEL_GREETS_PANEL_WIDTH,
                         REEL_GREETS_PANEL_HEIGHT, REEL_GREETS_PANEL_ROW_BYTES, pixels);
    // a run call before the row's start (right after loading ahead of it) has a negative
    // since start and a huge unsigned since start seconds, which would use up every line at once
    if (scene->since_start >= 0)
        reel_greets_draw_lanes(scene, &ctx->engine->greetings, state->lanes, &panel);
    reel_greets_magnify(ctx->video->framebuffer, (const uint16_t*)pixels);
    xmemarena_set_sp(arena, mark);
}
