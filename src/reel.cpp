// The engine frame: what the host creates at start-up and calls twice per loop pass. The first
// three engine passes do the start-up work (arenas, buffers, tables, packs, the sequence and
// the scene records) so that frames are presented while it runs; afterwards every pass runs
// the sequencer, and offers the seeking keys and the debug views.
#include "reel.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "music.h"
#include "n2d.h"
#include "reel_tunnel_func.h"

static const char* const REEL_FILE = "src/reel";
static const char* const REEL_SEQUENCE_NAME = "sequence.csv";

demosys demosys_global;

// Debug view selections, process-wide: i and o step them, 8 and 9 show them.
static uint32_t reel_backbuffer_view_index;
static uint32_t reel_stencil_view_index;

enum : uint32_t {
    REEL_KEY_SEEK_BACK_SHORT = 'q',
    REEL_KEY_SEEK_FORWARD_SHORT = 'e',
    REEL_KEY_SEEK_BACK_LONG = 'a',
    REEL_KEY_SEEK_FORWARD_LONG = 'd',
    REEL_KEY_PAUSE = 'x',
    REEL_KEY_VIEW_OVERLAY_COVERAGE = '6',
    REEL_KEY_VIEW_VIDEO_COVERAGE = '7',
    REEL_KEY_VIEW_BACKBUFFER = '8',
    REEL_KEY_VIEW_STENCIL = '9',
    REEL_KEY_NEXT_BACKBUFFER = 'i',
    REEL_KEY_NEXT_STENCIL = 'o',
};
constexpr int32_t REEL_SEEK_SHORT = 2205;   // 0.1 s
constexpr int32_t REEL_SEEK_LONG = 22050;   // 1 s

static void reel_wrap_plane(n3d_framebuffer* fb, const display_plane* plane, N3D_TEXEL_FORMAT format)
{
    n3d_framebuffer_wrap(fb, format, plane->width, plane->height, plane->pitch, plane->pixels);
}

int demosys_init(demosys* sys, display_device* display)
{
    memset(sys, 0, sizeof(*sys));
    xmemarena_init(&sys->arena, "demo_arena", REEL_DEMO_ARENA_SIZE, malloc(REEL_DEMO_ARENA_SIZE));
    n3d_init(&sys->arena);

    reel_wrap_plane(&sys->overlay_framebuffer, &display->overlay, N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8);
    n3d_framecontext_init(&sys->overlay, &sys->arena, display->overlay.width, display->overlay.height,
                          N3D_TEXEL_FORMAT_NONE, N3D_FRAMECONTEXT_COVERAGE);
    sys->overlay.framebuffer = &sys->overlay_framebuffer;
    n3d_framebuffer_clear(&sys->overlay_framebuffer);

    n3d_zbuffer_init(&sys->video_zbuffer, display->video[0].width, display->video[0].height, &sys->arena);
    for (uint32_t i = 0; i < 2; i++) {
        reel_wrap_plane(&sys->video_framebuffers[i], &display->video[i], N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555);
        n3d_framecontext_init(&sys->video_contexts[i], &sys->arena, display->video[i].width, display->video[i].height,
                              N3D_TEXEL_FORMAT_NONE, N3D_FRAMECONTEXT_COVERAGE);
        sys->video_contexts[i].framebuffer = &sys->video_framebuffers[i];
        sys->video_contexts[i].zbuffer = &sys->video_zbuffer;
        n3d_framebuffer_clear(&sys->video_framebuffers[i]);
    }
    sys->current_video = &sys->video_contexts[display->back_index];
    sys->engine_enabled = 1;
    return 0;
}

static void reel_run_pass(demosys* sys, display_device* display, const uint8_t* key_table, void* host, uint32_t pass)
{
    reel_run_context ctx;
    memset(&ctx, 0, sizeof(ctx));
    ctx.engine = &sys->engine;
    ctx.pass = pass;
    ctx.arena = &sys->arena;
    ctx.display = display;
    ctx.overlay = &sys->overlay;
    ctx.video_contexts = pass == REEL_PASS_UPDATE ? sys->video_contexts : nullptr;
    ctx.video = sys->current_video;
    ctx.host = host;
    ctx.keys = key_table;
    ctx.mouse_x = sys->mouse_x;
    ctx.mouse_y = sys->mouse_y;
    ctx.mouse_dx = sys->mouse_dx;
    ctx.mouse_dy = sys->mouse_dy;
    reel_engine_frame(&ctx);
    sys->quit = sys->engine.quit;
}

void demosys_update(demosys* sys, display_device* display, const uint8_t* key_table, void* host)
{
    sys->current_video = &sys->video_contexts[display->back_index];
    if (key_table[REEL_KEY_PAUSE])
        sys->engine_enabled = 1 - sys->engine_enabled;  // every update pass while x is held
    if (sys->engine_enabled)
        reel_run_pass(sys, display, key_table, host, REEL_PASS_UPDATE);
}

void demosys_render(demosys* sys, display_device* display, const uint8_t* key_table, void* host)
{
    sys->current_video = &sys->video_contexts[display->back_index];
    if (sys->engine_enabled)
        reel_run_pass(sys, display, key_table, host, REEL_PASS_RENDER);
}

void demosys_shutdown(demosys* sys) { (void)sys; }

uint32_t reel_key_pressed(const reel_run_context* ctx, uint32_t key)
{
    return ctx->keys[key & 255] && !ctx->engine->previous_keys[key & 255];
}

// Is a block of this kind and name in any opened pack? (No loading.)
static bool reel_resource_present(const reel_engine* e, const char* name, uint32_t kind)
{
    uint32_t size = 0;
    for (uint32_t i = 0; i < e->pack_count; i++)
        if (reel_fs_find_file(&e->packs[i], kind, name, &size))
            return true;
    return false;
}

static void reel_init_step_arenas_and_tables(reel_engine* e, xmemarena* demo)
{
    xmemarena_init(&e->arena_record, "reel_arena", REEL_ARENA_SIZE, xmemarena_push(demo, REEL_ARENA_SIZE));
    xmemarena_init(&e->tmp_arena_record, "reel_tmp_arena", REEL_TMP_ARENA_SIZE, xmemarena_push(demo, REEL_TMP_ARENA_SIZE));
    e->arena = &e->arena_record;
    e->tmp_arena = &e->tmp_arena_record;

    e->backbuffer_count = REEL_BACKBUFFER_COUNT;
    e->backbuffers = (n3d_framecontext*)xmemarena_push_record(e->arena, sizeof(n3d_framecontext) * REEL_BACKBUFFER_COUNT);
    for (uint32_t i = 0; i < REEL_BACKBUFFER_COUNT; i++)
        n3d_framecontext_init(&e->backbuffers[i], demo, DISPLAY_OVERLAY_WIDTH, DISPLAY_OVERLAY_HEIGHT,
                              N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8, N3D_FRAMECONTEXT_COVERAGE);
    e->stencil_count = REEL_STENCIL_COUNT;
    e->stencils = (n3d_coverage_buffer*)xmemarena_push_record(e->arena, sizeof(n3d_coverage_buffer) * REEL_STENCIL_COUNT);
    for (uint32_t i = 0; i < REEL_STENCIL_COUNT; i++) {
        n3d_coverage_buffer_init(&e->stencils[i], DISPLAY_OVERLAY_WIDTH, DISPLAY_OVERLAY_HEIGHT, demo);
        n3d_coverage_buffer_clear(&e->stencils[i]);
    }
    n3d_phong_lut_init(&e->phong_lut, demo, 0.3f, 0);
    n3d_phong_lut_set_default(&e->phong_lut);
    e->star_count = REEL_STAR_COUNT;
    e->stars = (uint8_t*)xmemarena_push_record(e->arena, (uint64_t)REEL_STAR_COUNT * REEL_STAR_BYTES);
    for (reel_shade_table_entry& entry : e->shade_tables)
        entry.table = (uint16_t*)xmemarena_push_align(e->arena, REEL_SHADE_TABLE_BYTES, 32);
    e->shade_table_count = 0;
}

static void reel_init_step_packs_and_sequence(reel_engine* e, xmemarena* demo)
{
    e->pack_count = REEL_PACK_COUNT;
    e->packs = (reel_fs_pack*)xmemarena_push_record(demo, sizeof(reel_fs_pack) * REEL_PACK_COUNT);
    for (uint32_t i = 0; i < REEL_PACK_COUNT; i++) {
        const uint64_t mark = xmemarena_get_sp(e->tmp_arena);
        const char* name = memprintf(e->tmp_arena, "pak%d.rpk", (int)i);
        const char* path = memprintf(e->tmp_arena, "%s/%s", e->pack_folder ? e->pack_folder : REEL_PACK_FOLDER, name);
        reel_fs_open_file(&e->packs[i], path, e->arena);  // a missing pack is fatal in there
        xmemarena_set_sp(e->tmp_arena, mark);
    }
    // looked up first, so that a show without a script says so rather than "could not find"
    if (!reel_resource_present(e, REEL_SEQUENCE_NAME, REEL_KIND_RAW))
        crash_in(REEL_FILE, __LINE__, "reel_init_step", "failed open \"%s\"\n", REEL_SEQUENCE_NAME);
    const char* text = (const char*)reel_load_resource(e, REEL_SEQUENCE_NAME, REEL_KIND_RAW);
    reel_load_sequence(&e->sequence, text, REEL_SEQUENCE_NAME, e->arena, e->tmp_arena);
    e->scene_count = e->sequence.row_count;
    e->scenes = (reel_scene*)xmemarena_push_record(e->arena, sizeof(reel_scene) * (uint64_t)e->scene_count);
    for (uint32_t i = 0; i < e->scene_count; i++) {
        e->scenes[i].first_update = 1;
        e->scenes[i].first_render = 1;
    }
}

void reel_init_step(reel_run_context* ctx)
{
    reel_engine* e = ctx->engine;
    const uint64_t t0 = prof_cycles_now();
    switch (e->init_step) {
    case 0:
        reel_init_step_arenas_and_tables(e, ctx->arena);
        reel_init_step_packs_and_sequence(e, ctx->arena);
        break;
    case 1:
        // the tunnel's (angle, distance) table, the size of the overlay plane
        n3d_framebuffer_init_argb1555(&e->tunnel_table, REEL_TUNNEL_TABLE_WIDTH, REEL_TUNNEL_TABLE_HEIGHT, e->arena);
        reel_tunnel_table_init(&e->tunnel_table);
        break;
    default:
        e->init_done = 1;
        break;
    }
    e->step_cycles[e->init_step < REEL_INIT_STEPS ? e->init_step : REEL_INIT_STEPS - 1] = prof_cycles_since(t0);
    e->init_step += 1;
    music_prepare((int32_t)e->sequence.lead_in);  // every step: the show begins with the clock at 0
}

static void reel_debug_views(reel_run_context* ctx)
{
    reel_engine* e = ctx->engine;
    n3d_framebuffer* overlay = ctx->overlay->framebuffer;
    if (ctx->keys[REEL_KEY_VIEW_OVERLAY_COVERAGE]) {
        printf("display overlay coverage buffer\n");
        n3d_coverage_buffer_display(ctx->overlay->coverage[0], overlay);
    }
    if (ctx->keys[REEL_KEY_VIEW_VIDEO_COVERAGE]) {
        printf("display video coverage buffer\n");
        n3d_coverage_buffer_display(ctx->video->coverage[0], overlay);
    }
    if (reel_key_pressed(ctx, REEL_KEY_NEXT_BACKBUFFER))
        reel_backbuffer_view_index += 1;
    if (ctx->keys[REEL_KEY_VIEW_BACKBUFFER] && e->backbuffer_count) {
        const uint32_t k = reel_backbuffer_view_index % e->backbuffer_count;
        printf("display overlay backbuffer[%d]\n", (int)k);
        n2d_copy_fb(overlay, e->backbuffers[k].framebuffer);
    }
    if (reel_key_pressed(ctx, REEL_KEY_NEXT_STENCIL))
        reel_stencil_view_index += 1;
    if (ctx->keys[REEL_KEY_VIEW_STENCIL] && e->stencil_count) {
        const uint32_t k = reel_stencil_view_index % e->stencil_count;
        printf("display overlay stencil[%d]\n", (int)k);
        n3d_coverage_buffer_display(&e->stencils[k], overlay);
    }
}

void reel_engine_frame(reel_run_context* ctx)
{
    reel_engine* e = ctx->engine;
    const uint64_t t0 = prof_cycles_now();
    if (reel_key_pressed(ctx, REEL_KEY_SEEK_BACK_SHORT))
        music_seek(-REEL_SEEK_SHORT);
    if (reel_key_pressed(ctx, REEL_KEY_SEEK_FORWARD_SHORT))
        music_seek(REEL_SEEK_SHORT);
    if (reel_key_pressed(ctx, REEL_KEY_SEEK_BACK_LONG))
        music_seek(-REEL_SEEK_LONG);
    if (reel_key_pressed(ctx, REEL_KEY_SEEK_FORWARD_LONG))
        music_seek(REEL_SEEK_LONG);
    if (!e->init_done) {
        reel_init_step(ctx);  // previous keys stay zero through the init steps
        return;
    }
    if (ctx->pass == REEL_PASS_RENDER) {
        // the start of an overlay frame: last frame's coverage becomes the previous one
        n3d_framecontext* overlay = ctx->overlay;
        n3d_coverage_buffer* current = overlay->coverage[0];
        overlay->coverage[0] = overlay->coverage[1];
        overlay->coverage[1] = current;
        n3d_coverage_buffer_clear(overlay->coverage[0]);
    }
    reel_sequencer_step(e, ctx);
    reel_debug_views(ctx);
    memcpy(e->previous_keys, ctx->keys, sizeof(e->previous_keys));
    pass_timer_add(&e->total_timer, t0, ctx->pass);
}

void reel_print_statistics(const reel_engine* e, const char* const* row_labels)
{
    printf("=== init system ===\n");
    for (uint32_t i = 0; i < e->init_step && i < REEL_INIT_STEPS; i++)
        printf("%.2f ms [step:%d] (cycles: %llu)\n", prof_cycles_to_ms(e->step_cycles[i]), (int)i,
               (unsigned long long)e->step_cycles[i]);
    printf("=== load scenes ===\n");
    for (uint32_t i = 0; i < e->scene_count; i++) {
        const reel_sequence_row* row = &e->sequence.rows[i];
        const reel_scene* scene = &e->scenes[i];
        printf("%.2f ms [row: line %d func %s args: %s] (cycles: %llu)\n", prof_cycles_to_ms(scene->load_cycles),
               (int)row->line, row_labels ? row_labels[i] : row->function, row->args ? row->args : "(null)",
               (unsigned long long)scene->load_cycles);
    }
    printf("=== runtime ===\n");
    static const char* const kinds[2] = {"regular", "vbl"};
    for (uint32_t pass = 0; pass < 2; pass++) {
        printf("=== %s ===\n", kinds[pass]);
        pass_timer_print("total", pass, &e->total_timer);
        for (uint32_t i = 0; i < e->scene_count; i++) {
            const reel_scene* scene = &e->scenes[i];
            const char* label = scene->name ? scene->name : e->sequence.rows[i].function;
            pass_timer_print(row_labels ? row_labels[i] : label, pass, &scene->run_timer);
        }
    }
}
