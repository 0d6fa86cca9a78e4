// Rasterizer benchmark: the program's mode when started with an argument.
#include "n3d_benchmark.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bitmap.h"
#include "diag.h"
#include "n3d_convert.h"
#include "n3d_draw.h"
#include "n3d_rasterizers.h"
#include "vmath.h"

uint32_t n3d_benchmark_duration_ms = N3D_BENCHMARK_DURATION_MS;

static const char* const N3D_BENCHMARK_TIMED_VARIANT =
    "n3d_render_triangle_v8_phong_argb1555_t0i8argb1555_covrw01_zbuffrw11_wip_rsqr_large_spans";
constexpr uint64_t N3D_BENCHMARK_SEED_STATE = 0x853c49e6748fea9bull;
constexpr uint64_t N3D_BENCHMARK_SEED_INCREMENT = 0xda3e39cb94b95bdbull;
constexpr uint32_t N3D_BENCHMARK_CLEAR_EVERY = 100;
constexpr uint32_t N3D_BENCHMARK_TARGETS = 2;

struct n3d_benchmark_target {
    uint32_t in_video_memory;
    n3d_framecontext* fc;
};

static void n3d_benchmark_wrap_plane(n3d_framebuffer* fb, const display_plane* plane, N3D_TEXEL_FORMAT format)
{
    n3d_framebuffer_wrap(fb, format, plane->width, plane->height, plane->pitch, plane->pixels);
}

void n3d_benchmark(display_device* display)
{
    static xmemarena arena;
    xmemarena_init(&arena, "n3d_benchmark", N3D_BENCHMARK_ARENA_SIZE, malloc(N3D_BENCHMARK_ARENA_SIZE));
    if (const char* ms = getenv("REEL_BENCHMARK_MS"))
        n3d_benchmark_duration_ms = (uint32_t)strtoul(ms, nullptr, 10);
    prof_init();
    n3d_init(&arena);

    // the whole overlay see-through, so the video plane shows what is drawn
    display->set_transparent_index(display, 0);
    auto* overlay = (n3d_framebuffer*)xmemarena_push_record(&arena, sizeof(n3d_framebuffer));
    n3d_benchmark_wrap_plane(overlay, &display->overlay, N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8);
    n3d_framebuffer_clear(overlay);

    n3d_framecontext* video[2];
    for (uint32_t i = 0; i < 2; i++) {
        auto* fb = (n3d_framebuffer*)xmemarena_push_record(&arena, sizeof(n3d_framebuffer));
        n3d_benchmark_wrap_plane(fb, &display->video[i], N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555);
        video[i] = (n3d_framecontext*)xmemarena_push_record(&arena, sizeof(n3d_framecontext));
        n3d_framecontext_init(video[i], &arena, N3D_BENCHMARK_AREA_W, N3D_BENCHMARK_AREA_H, N3D_TEXEL_FORMAT_NONE,
                              N3D_FRAMECONTEXT_COVERAGE);
        video[i]->framebuffer = fb;
        n3d_framebuffer_clear(fb);
    }
    printf("running benchmark - will take a few seconds\n");
    n3d_benchmark_run(&arena, video[display->back_index != 0 ? 1 : 0]);
}

// Each conversion prints its "bitmap wh: ..." line ahead of the benchmark's header.
static void n3d_benchmark_convert(n3d_texture* texture, xmemarena* arena, xmemarena* tmp, N3D_TEXEL_FORMAT format,
                                  const bitmap* flare)
{
    n3d_texture_from_bitmap(texture, arena, tmp, format, 1, 1, 0, flare, nullptr, N3D_TRANSPARENT_INDEX_NONE, 0.5f);
}

// Screen-space gradients of each attribute over twice the signed area.
static void n3d_benchmark_gradients(n3d_raster_call* c, const float values[3][5], uint32_t count, float area)
{
    const float x0 = c->vertices[0][0], y0 = c->vertices[0][1];
    const float x1 = c->vertices[1][0], y1 = c->vertices[1][1];
    const float x2 = c->vertices[2][0], y2 = c->vertices[2][1];
    const float rx = 1.0f / area;
    const float ry = -1.0f / area;
    for (uint32_t a = 0; a < count; a++) {
        c->grad_x[a] = ((values[1][a] - values[2][a]) * (y0 - y2) - (values[0][a] - values[2][a]) * (y1 - y2)) * rx;
        c->grad_y[a] = ((values[1][a] - values[2][a]) * (x0 - x2) - (values[0][a] - values[2][a]) * (x1 - x2)) * ry;
    }
}

void n3d_benchmark_workload_init(n3d_benchmark_workload* w, n3d_rasterizer_entry* e, n3d_framecontext* fc,
                                 n3d_texture* t8, n3d_texture* t16, const uint8_t* const* phong)
{
    memset(w, 0, sizeof(*w));
    w->rng = {N3D_BENCHMARK_SEED_STATE, N3D_BENCHMARK_SEED_INCREMENT};
    w->call.entry = e;
    w->call.fc = fc;
    w->call.textures = w->textures;
    w->call.phong = phong;
    if (e->flags & N3D_RASTERIZER_T0_I8ARGB1555)
        w->textures[0] = t8;
    else if (e->flags & N3D_RASTERIZER_T0_ARGB1555)
        w->textures[0] = t16;
    else
        crash_in("src/n3d", __LINE__, "n3d_benchmark_run",
                 "n3d_benchmark only supports N3D_RASTERIZER_T0_I8ARGB1555 N3D_RASTERIZER_T0_ARGB1555 so far\n");
    if (e->attribute_count != ((e->flags & N3D_RASTERIZER_PHONG) ? 4u : 2u))
        crash_in("src/n3d", __LINE__, "n3d_benchmark_run", "?\n");
}

void n3d_benchmark_positions(n3d_benchmark_workload* w)
{
    for (int i = 0; i < 3; i++) {
        w->x[i] = (float)N3D_BENCHMARK_AREA_W * pcg32_random_float01(&w->rng);
        w->y[i] = (float)N3D_BENCHMARK_AREA_H * pcg32_random_float01(&w->rng);
    }
    for (float& iw : w->iw)
        iw = 0.5f + 0.5f * pcg32_random_float01(&w->rng);  // w between 1 and 2
    w->area = (w->x[1] - w->x[2]) * (w->y[0] - w->y[2]) - (w->x[0] - w->x[2]) * (w->y[1] - w->y[2]);
}

bool n3d_benchmark_draw(n3d_benchmark_workload* w)
{
    if (!(w->area > 0.000001f))
        return false;  // facing away or degenerate: its attributes are never drawn
    n3d_raster_call* c = &w->call;
    const n3d_rasterizer_entry* e = c->entry;
    if (w->drawn % N3D_BENCHMARK_CLEAR_EVERY == 0) {
        if (e->flags & N3D_RASTERIZER_COVERAGE_READ)
            n3d_coverage_buffer_clear(c->fc->coverage[0]);
        if (e->flags & N3D_RASTERIZER_ZBUFFER_READ)
            n3d_zbuffer_clear(c->fc->zbuffer);
    }
    c->triangle_id = w->ids & 0xFFF;
    w->ids += 1;
    const uint32_t phong_variant = (e->flags & N3D_RASTERIZER_PHONG) != 0;
    float values[3][5];
    for (int i = 0; i < 3; i++) {
        float attr[4];
        attr[0] = pcg32_random_float01(&w->rng);
        attr[1] = pcg32_random_float01(&w->rng);
        if (phong_variant) {
            attr[2] = -0.5f + pcg32_random_float01(&w->rng);
            attr[3] = -0.5f + pcg32_random_float01(&w->rng);
        }
        c->vertices[i][0] = w->x[i];
        c->vertices[i][1] = w->y[i];
        c->vertices[i][2] = w->iw[i];
        for (uint32_t a = 0; a < e->attribute_count; a++) {
            c->vertices[i][3 + a] = attr[a] * w->iw[i];
            values[i][a] = attr[a] * w->iw[i];
        }
        values[i][e->attribute_count] = w->iw[i];
    }
    n3d_benchmark_gradients(c, values, e->attribute_count + 1, w->area);
    c->area = w->area;
    const float* iw = w->iw;
    const float max_iw = iw[0] > iw[1] ? (iw[0] > iw[2] ? iw[0] : iw[2]) : (iw[1] > iw[2] ? iw[1] : iw[2]);
    c->depth_norm = 1.0f / max_iw;
    e->rasterizer(c);
    w->drawn += 1;
    w->pixels += 0.5 * (double)w->area;
    return true;
}

static void n3d_benchmark_variant(n3d_rasterizer_entry* e, const n3d_benchmark_target* target, uint32_t target_index,
                                  n3d_texture* t8, n3d_texture* t16, const uint8_t* const* phong)
{
    n3d_benchmark_workload w;
    n3d_benchmark_workload_init(&w, e, target->fc, t8, t16, phong);
    const uint64_t start = prof_cycles_now();
    for (;;) {
        n3d_benchmark_positions(&w);
        if (prof_cycles_to_ms(prof_cycles_since(start)) > (double)n3d_benchmark_duration_ms)
            break;
        n3d_benchmark_draw(&w);
    }
    const double ms = prof_cycles_to_ms(prof_cycles_since(start));
    printf("%.2f ~pixels/sec: %.2f triangles/sec\t[%d]\t%s\n", 1000.0 * w.pixels / ms, 1000.0 * w.drawn / ms,
           (int)target_index, e->name);
}

void n3d_benchmark_run(xmemarena* arena, n3d_framecontext* video)
{
    xmemarena tmp;
    xmemarena_init(&tmp, "n3d_benchmark_tmp_arena", N3D_BENCHMARK_TMP_ARENA_SIZE, malloc(N3D_BENCHMARK_TMP_ARENA_SIZE));
    const bitmap* flare = bitmap_create_flare(&tmp);
    auto* t8 = (n3d_texture*)xmemarena_push_record(arena, sizeof(n3d_texture));
    auto* t16 = (n3d_texture*)xmemarena_push_record(arena, sizeof(n3d_texture));
    n3d_benchmark_convert(t8, arena, &tmp, N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555, flare);
    n3d_benchmark_convert(t16, arena, &tmp, N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, flare);
    xmemarena_reset(&tmp);
    static const uint8_t* phong_table;
    phong_table = n3d_phong_lut_alloc(arena, 0.5f, 1);

    auto* ram = (n3d_framecontext*)xmemarena_push_record(arena, sizeof(n3d_framecontext));
    n3d_framecontext_init(ram, arena, N3D_BENCHMARK_AREA_W, N3D_BENCHMARK_AREA_H,
                          N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, N3D_FRAMECONTEXT_COVERAGE);
    const n3d_benchmark_target targets[N3D_BENCHMARK_TARGETS] = {{1, video}, {0, ram}};
    for (const n3d_benchmark_target& t : targets) {
        if (!t.fc->zbuffer) {
            t.fc->zbuffer = (n3d_zbuffer*)xmemarena_push_record(arena, sizeof(n3d_zbuffer));
            n3d_zbuffer_init(t.fc->zbuffer, (uint32_t)t.fc->framebuffer->width, (uint32_t)t.fc->framebuffer->height,
                             arena);
        }
    }

    printf("n3d_benchmark v102\n");
    printf("- each rasterizer starts with same random seed draws random triangles for 5s (in 320x200 area regardless "
           "of target dimensions)\n");
    printf("- pixels/s is sum of triangle area (underestimates for small triangles)\n");
    printf("- texture is 256x256 tiled, zbuffer is 16bit\n");
    printf("- coverage buffer and zbuffer is cleared every 100 triangels (if rasterizer uses it)\n");
    printf("- v102: fixed bug was not dividing vertex attributes by w\n");
    printf("- v101: texture is a flare now instead of a 2 color checkerboard pattern, as the latter makes shade_table "
           "only accessed in 2 color entries for phong\n");
    for (uint32_t i = 0; i < N3D_BENCHMARK_TARGETS; i++) {
        const n3d_framebuffer* fb = targets[i].fc->framebuffer;
        printf("[%d]: %dx%d %s (only draws in %dx%d)\n", (int)i, fb->width, fb->height,
               targets[i].in_video_memory ? "vram" : "ram", N3D_BENCHMARK_AREA_W, N3D_BENCHMARK_AREA_H);
    }
    for (uint32_t i = 0; i < N3D_BENCHMARK_TARGETS; i++)
        for (uint32_t v = 0; v < n3d_rasterizer_table_count; v++) {
            n3d_rasterizer_entry* e = &n3d_rasterizer_table[v];
            if (strcmp(e->name, N3D_BENCHMARK_TIMED_VARIANT) != 0)
                continue;
            n3d_benchmark_variant(e, &targets[i], i, t8, t16, &phong_table);
        }
    free(tmp.base);
}
