// The shared set-up of scene tests: a display with its planes, the engine's frame contexts (overlay,
// back buffers, stencils, both video buffers with one depth buffer) and an engine whose resource
// cache is filled by hand, so scenes bind, load and run pass by pass as the sequencer calls them.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <vector>

#include "reel_scenes.h"
#include "test_fatal.h"

// A reel_image over a linear index8 texture of 2^log2_w x 2^log2_h texels (format 3 unless
// given), its visible rectangle w x h; texel(x, y) sets the texels.
struct scene_test_image {
    std::vector<uint8_t> texels, tables = std::vector<uint8_t>(256 * 33);
    void* mips[1];
    reel_image image;
    scene_test_image(uint32_t log2_w, uint32_t log2_h, uint32_t w, uint32_t h,
                     N3D_TEXEL_FORMAT format = N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8)
        : texels((size_t)1 << (log2_w + log2_h))
    {
        mips[0] = texels.data();
        image = {w, h, {format, 1, log2_w, log2_h, log2_w, log2_h, mips, 256, 32, tables.data(), tables.data() + 256}};
    }
    scene_test_image(const scene_test_image&) = delete;
    uint8_t& texel(uint32_t x, uint32_t y) { return texels[((size_t)y << image.texture.log2_w) + x]; }
};

// Bit (x, y) of a coverage buffer, and how many of n bytes differ from v.
inline uint32_t scene_coverage_bit(const n3d_coverage_buffer* cb, int32_t x, int32_t y)
{
    return (cb->bits[y * (cb->width / 32) + x / 32] >> (31 - x % 32)) & 1;
}
inline uint32_t scene_count_not(const uint8_t* p, size_t n, uint8_t v)
{
    return (uint32_t)(n - std::count(p, p + n, v));
}

// The row of the scene table with this name, or -1.
inline int64_t scene_table_row(const char* name)
{
    for (uint32_t i = 0; i < reel_scene_table_count; i++)
        if (strcmp(reel_scene_table[i].name, name) == 0)
            return i;
    return -1;
}

struct scene_engine {
    std::vector<uint8_t> memory = std::vector<uint8_t>(48u << 20);
    xmemarena platform, demo;
    display_device display;
    n3d_framebuffer overlay_framebuffer, video_framebuffers[2];  // the display's planes, as the engine wraps them
    n3d_framecontext overlay, backbuffers[REEL_BACKBUFFER_COUNT], video_contexts[2];
    n3d_coverage_buffer stencils[REEL_STENCIL_COUNT];
    n3d_zbuffer video_zbuffer;
    reel_engine engine;
    std::vector<reel_resource_node> nodes = std::vector<reel_resource_node>(32);
    uint32_t node_count = 0;
    reel_sequence_row row = {};
    reel_scene scene;
    reel_run_context ctx = {};
    uint8_t keys[256] = {};

    scene_engine()
    {
        uint8_t* m = memory.data();
        xmemarena_init(&platform, "platform_arena", 4u << 20, m);
        xmemarena_init(&demo, "demo_arena", 20u << 20, m + (4u << 20));
        memset((void*)&engine, 0, sizeof(engine));
        memset((void*)&scene, 0, sizeof(scene));
        xmemarena_init(&engine.arena_record, "reel_arena", 16u << 20, m + (24u << 20));
        xmemarena_init(&engine.tmp_arena_record, "reel_tmp_arena", 8u << 20, m + (40u << 20));
        engine.arena = &engine.arena_record, engine.tmp_arena = &engine.tmp_arena_record;
        engine.star_count = REEL_STAR_COUNT;  // the star array the engine makes at start-up
        engine.stars = (uint8_t*)xmemarena_push_record(engine.arena, (uint64_t)REEL_STAR_COUNT * REEL_STAR_BYTES);
        display_init(&display, &platform);  // also puts the grey ramps back into the live tables
        auto wrap = [&](n3d_framebuffer* fb, n3d_framecontext* fc, N3D_TEXEL_FORMAT format, const display_plane& p) {
            n3d_framebuffer_wrap(fb, format, p.width, p.height, p.pitch, p.pixels);
            n3d_framecontext_init(fc, &demo, p.width, p.height, N3D_TEXEL_FORMAT_NONE, N3D_FRAMECONTEXT_COVERAGE);
            fc->framebuffer = fb;
            n3d_framebuffer_clear(fb);
        };
        wrap(&overlay_framebuffer, &overlay, N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8, display.overlay);
        for (n3d_framecontext& b : backbuffers)
            n3d_framecontext_init(&b, &demo, DISPLAY_OVERLAY_WIDTH, DISPLAY_OVERLAY_HEIGHT,
                                  N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8, 0);
        for (n3d_coverage_buffer& s : stencils) {
            n3d_coverage_buffer_init(&s, DISPLAY_OVERLAY_WIDTH, DISPLAY_OVERLAY_HEIGHT, &demo);
            n3d_coverage_buffer_clear(&s);
        }
        n3d_zbuffer_init(&video_zbuffer, DISPLAY_VIDEO_WIDTH, DISPLAY_VIDEO_HEIGHT, &demo);
        for (uint32_t i = 0; i < 2; i++)  // both video buffers share one depth buffer
            wrap(&video_framebuffers[i], &video_contexts[i], N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555,
                 display.video[i]),
                video_contexts[i].zbuffer = &video_zbuffer;
        engine.backbuffer_count = REEL_BACKBUFFER_COUNT, engine.backbuffers = backbuffers;
        engine.stencil_count = REEL_STENCIL_COUNT, engine.stencils = stencils;
        ctx.engine = &engine, ctx.row = &row, ctx.arena = &demo, ctx.display = &display, ctx.overlay = &overlay;
        ctx.backbuffer_count = REEL_BACKBUFFER_COUNT, ctx.backbuffers = backbuffers;
        ctx.stencil_count = REEL_STENCIL_COUNT, ctx.stencils = stencils;
        ctx.video_contexts = video_contexts, ctx.video = &video_contexts[display.back_index];
        ctx.keys = keys;
        row.line = 12;
    }

    // Puts a record into the engine's cache as if it had been loaded from a pack.
    void add(uint32_t kind, const char* name, void* record)
    {
        nodes[node_count] = {kind, name, record, engine.resource_cache.next};
        engine.resource_cache.next = &nodes[node_count++];
    }

    // A fresh scene record, given bindings by `bind`, bound through the scene table, its arguments parsed.
    void load(const char* function, const char* args, float span_seconds = 9.0f, const std::function<void()>& bind = {})
    {
        memset((void*)&scene, 0, sizeof(scene));
        row.function = function, row.args = args;
        if (bind)
            bind();
        reel_load_scene(&engine, &scene, &row);
        scene.span_seconds = span_seconds;
        scene.span = (int32_t)(span_seconds * 22050.0f);
    }

    // One pass as the sequencer makes it for a row inside its span: a load call while loading is
    // not complete, then a run call once ready. Render passes see no video_contexts.
    void pass(uint32_t kind, float since_seconds, int64_t budget = 0)
    {
        ctx.pass = kind;
        ctx.video_contexts = kind == REEL_PASS_UPDATE ? video_contexts : nullptr;
        if (!scene.load_complete) {
            scene.load_budget = budget;
            scene.since_start_seconds = 0.0f;
            scene.run(&scene, &ctx);
            scene.ready = scene.load_complete;
        }
        if (!scene.ready)
            return;
        scene.since_start_seconds = since_seconds;
        scene.since_start = (int32_t)(since_seconds * 22050.0f);
        scene.since_start_frames = (uint32_t)((int64_t)scene.since_start * 2 / 735);
        scene.run(&scene, &ctx);
        (kind == REEL_PASS_UPDATE ? scene.first_update : scene.first_render) = 0;
        (kind == REEL_PASS_UPDATE ? scene.update_runs : scene.render_runs) += 1;
    }

    // Row y of the current video buffer, its pixel (x, y), and all its pixels set to one value.
    uint16_t* video_row(int32_t y) const
    {
        return (uint16_t*)(ctx.video->framebuffer->pixels + y * ctx.video->framebuffer->row_bytes);
    }
    uint16_t video_pixel(int32_t x, int32_t y) const { return video_row(y)[x]; }
    void fill_video(uint16_t v)
    {
        for (int32_t y = 0; y < ctx.video->framebuffer->height; y++)
            std::fill_n(video_row(y), ctx.video->framebuffer->width, v);
    }

    // A texture of one level, zeroed, from "demo_arena"; index formats get a palette and 256 x 32 shades.
    n3d_texture* texture(N3D_TEXEL_FORMAT format, uint32_t log2_w, uint32_t log2_h, uint32_t linear = 1)
    {
        auto* t = (n3d_texture*)xmemarena_push_zero(&demo, sizeof(n3d_texture));
        t->format = format, t->linear = linear;
        t->log2_w = t->min_log2_w = log2_w, t->log2_h = t->min_log2_h = log2_h;
        t->mips = (void**)xmemarena_push_zero(&demo, sizeof(void*));
        t->mips[0] = xmemarena_push_zero(&demo, n3d_mipmap_size(format, 0, log2_w, log2_h));
        const uint32_t entry = format == N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555 ? 2 : 1;
        if (format == N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555 || format == N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8)
            t->colors_count = 256, t->shades_per_color = 32, t->palette = xmemarena_push_zero(&demo, 256 * entry),
            t->shade_table = xmemarena_push_zero(&demo, 256 * 32 * entry);
        return t;
    }

    void end_call(uint32_t kind) { ctx.pass = kind, scene.ending = 1, scene.run(&scene, &ctx); }
};

// The same as a GoogleTest fixture; scene_engine alone where a test wants several fresh ones.
struct scene_fixture : testing::Test, scene_engine {};
