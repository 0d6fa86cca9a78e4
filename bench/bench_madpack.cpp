// Frame cost of the animated 3D scene on the video plane: a datapack of nine textured, lit tori
// (eight of 480 triangles in the lit pass, one of 1,152 as the special node: 4,992 triangles),
// each spinning and circling on its own animation, under an animated camera node, drawn by
// scene_video_madpack exactly as the show calls it once per frame. Prints milliseconds per
// frame, triangles per second and the split between animation (keys and world matrices),
// rasterization (the variants' own profile blocks: set-up and spans), the clears of coverage
// and depth, and the rest of the pipeline (transforms, clipping, projection, gradients), which
// is split again into the draw functions' vertex stage (their profile blocks: transform,
// lighting, outcodes, projection, culling decisions) and the per-triangle rest, each also in
// cycles per submitted triangle.
//
//   bench_madpack [--model WORKDIR NAME ARGS] [frames, default 600] [PNG of the last frame]
// With --model, the frame is that of an example's imported model instead: WORKDIR/imported/NAME.mad
// with its textures (WORKDIR/<image>.tmap where the example's generator wrote one, as the
// direct-colour sky, else WORKDIR/imported/<image>.tmap), played with the row's arguments after
// the datapack's name, e.g. `--model build/examples/machine/work machine
// 0,1,main,camera,sky,core,extra`.
// The first frame, which builds the shade tables, is drawn before timing starts. On a busy
// machine the median and least frame say more than the mean.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bitmap.h"
#include "mad.h"
#include "mad_anim.h"
#include "n3d_convert.h"
#include "n3d_draw.h"
#include "n3d_io.h"
#include "reel_scenes.h"

namespace {

constexpr uint32_t BENCH_LIT_TORI = 8;
constexpr uint32_t BENCH_NODES = BENCH_LIT_TORI + 2;  // the tori, the special torus, the camera
constexpr float BENCH_PI = 3.14159265f;

// A torus of rings x sides quads as a triangle list with every attribute the lit pass reads.
n3d_vertices bench_torus(xmemarena* arena, uint32_t rings, uint32_t sides, float major, float minor)
{
    n3d_vertices v = {};
    v.count = rings * sides * 6;
    float** arrays[5] = {&v.xyz, &v.n_xyz, &v.t_xyz, &v.b_xyz, &v.uv0};
    for (uint32_t i = 0; i < 5; i++)
        *arrays[i] = (float*)xmemarena_push_align(arena, (uint64_t)v.count * (i == 4 ? 8 : 12), 32);
    uint32_t k = 0;
    const uint32_t corners[6][2] = {{0, 0}, {1, 0}, {1, 1}, {0, 0}, {1, 1}, {0, 1}};
    for (uint32_t r = 0; r < rings; r++)
        for (uint32_t s = 0; s < sides; s++)
            for (const auto& c : corners) {
                const float a = 2.0f * BENCH_PI * (float)(r + c[0]) / (float)rings;
                const float b = 2.0f * BENCH_PI * (float)(s + c[1]) / (float)sides;
                const float radius = major + minor * cosf(b);
                const float values[4][3] = {{radius * cosf(a), minor * sinf(b), radius * sinf(a)},
                                            {cosf(b) * cosf(a), sinf(b), cosf(b) * sinf(a)},
                                            {-sinf(a), 0.0f, cosf(a)},
                                            {-sinf(b) * cosf(a), cosf(b), -sinf(b) * sinf(a)}};
                for (uint32_t i = 0; i < 4; i++)
                    memcpy(*arrays[i] + 3 * k, values[i], 12);
                v.uv0[2 * k] = 2.0f * (float)(r + c[0]) / (float)rings;
                v.uv0[2 * k + 1] = (float)(s + c[1]) / (float)sides;
                k++;
            }
    return v;
}

// Warm checks with a hue across, 256 x 256.
bitmap* bench_pattern(xmemarena* arena)
{
    bitmap* bm = bitmap_create(arena, 256, 256, BITMAP_SRGB | BITMAP_CHANNELS_4);
    for (uint32_t y = 0; y < 256; y++)
        for (uint32_t x = 0; x < 256; x++) {
            uint8_t* p = bitmap_pixel(bm, x, y);
            const bool dark = ((x >> 5) ^ (y >> 5)) & 1;
            p[0] = (uint8_t)(dark ? 90 : 240), p[1] = (uint8_t)(x * 3 / 4), p[2] = (uint8_t)(255 - y), p[3] = 255;
        }
    return bm;
}

struct bench_keys {
    float times[5];
    float rotations[20];
    float translations[15];
    mad_sampler samplers[2];
};

// A full turn about y in four quarter steps and a circle of radius `radius`, over 4 s.
void bench_animate_node(bench_keys* k, float radius, float phase)
{
    for (uint32_t i = 0; i < 5; i++) {
        k->times[i] = (float)i;
        const float half = 0.25f * BENCH_PI * (float)i;
        const float q[4] = {0.0f, sinf(half), 0.0f, cosf(half)};
        memcpy(k->rotations + 4 * i, q, 16);
        const float a = phase + 0.5f * BENCH_PI * (float)i;
        const float t[3] = {radius * cosf(a), 0.6f * sinf(a), radius * sinf(a)};
        memcpy(k->translations + 3 * i, t, 12);
    }
    k->samplers[0] = {MAD_INTERPOLATION_LINEAR, 5, 20, k->times, k->rotations};
    k->samplers[1] = {MAD_INTERPOLATION_LINEAR, 5, 15, k->times, k->translations};
}

double bench_ms(uint64_t cycles) { return (double)cycles * 1000.0 / prof_global.cycles_per_second; }

// The draw functions' vertex stage (per-call set-up and every batch's vertices), from the frame
// profiler's blocks.
uint64_t bench_vertex_cycles()
{
    return prof_global.cycles[BLOCK_RENDER_MESH_TRANSFORM_VERTICES] +
           prof_global.cycles[BLOCK_RENDER_MESH_TRANSFORM_VERTICES_SETUP];
}

uint64_t bench_raster_cycles()
{
    uint64_t sum = 0;
    for (uint32_t i = 0; i < n3d_rasterizer_table_count; i++)
        sum += n3d_rasterizer_table[i].blocks[N3D_RASTERIZER_BLOCK_SETUP].cycles +
               n3d_rasterizer_table[i].blocks[N3D_RASTERIZER_BLOCK_INNER].cycles;
    return sum;
}

// The --model case: the example's datapack and textures, in a cache the scene looks them up in.
// Returns the row's arguments; *special gets the special node's name (for the count).
std::string bench_load_model(reel_engine* engine, const char* workdir, const char* name, const char* args,
                             mad_datapack** pack, std::string* special)
{
    const std::string dir = workdir;
    *pack = mad_datapack_file_load(engine->arena, (dir + "/imported/" + name + ".mad").c_str());
    if (!*pack) {
        fprintf(stderr, "bench_madpack: cannot load the model %s in %s\n", name, workdir);
        exit(1);
    }
    static std::vector<std::string> names;
    names.push_back(std::string(name) + ".mad");
    for (uint32_t i = 0; i < (*pack)->image_count; i++)
        names.push_back(std::string((*pack)->images[i].name) + ".tmap");
    auto* cache = (reel_resource_node*)xmemarena_push_align(engine->arena, sizeof(reel_resource_node) * names.size(), 8);
    for (size_t i = 0; i < names.size(); i++) {
        void* record = *pack;
        if (i > 0) {
            FILE* direct = fopen((dir + "/" + names[i]).c_str(), "rb");
            const std::string path = (direct ? dir + "/" : dir + "/imported/") + names[i];
            if (direct)
                fclose(direct);
            record = n3d_texture_file_load(engine->arena, path.c_str());
        }
        cache[i] = {i == 0 ? REEL_KIND_MADPACK : REEL_KIND_TEXTURE, names[i].c_str(), record,
                    i + 1 < names.size() ? &cache[i + 1] : nullptr};
    }
    engine->resource_cache.next = &cache[0];
    const std::string row = names[0] + "," + args;
    size_t start = 0;  // the special node is the row's sixth argument
    for (int field = 0; field < 5; field++)
        start = row.find(',', start) + 1;
    *special = row.substr(start, row.find(',', start) - start);
    return row;
}

}  // namespace

int main(int argc, char** argv)
{
    const char* model[3] = {nullptr, nullptr, nullptr};
    if (argc > 4 && strcmp(argv[1], "--model") == 0) {
        model[0] = argv[2], model[1] = argv[3], model[2] = argv[4];
        argc -= 4, argv += 4;
    }
    const uint32_t frames = argc > 1 ? (uint32_t)atoi(argv[1]) : 600;
    prof_init();
    const uint64_t size = 96ull << 20;
    auto* block = (uint8_t*)malloc(size);
    xmemarena demo;
    xmemarena_init(&demo, "demo_arena", 32ull << 20, block);
    n3d_init(&demo);

    static reel_engine engine;
    xmemarena_init(&engine.arena_record, "reel_arena", 32ull << 20, block + (32ull << 20));
    xmemarena_init(&engine.tmp_arena_record, "reel_tmp_arena", 32ull << 20, block + (64ull << 20));
    engine.arena = &engine.arena_record, engine.tmp_arena = &engine.tmp_arena_record;
    n3d_phong_lut_init(&engine.phong_lut, &demo, 0.3f, 0);
    n3d_phong_lut_set_default(&engine.phong_lut);
    for (reel_shade_table_entry& entry : engine.shade_tables)
        entry.table = (uint16_t*)xmemarena_push_align(engine.arena, REEL_SHADE_TABLE_BYTES, 32);

    // the video plane as the engine wraps it: 320 x 240 ARGB1555 with coverage and depth
    n3d_framecontext fc;
    n3d_framecontext_init(&fc, &demo, 320, 240, N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555,
                          N3D_FRAMECONTEXT_COVERAGE | N3D_FRAMECONTEXT_ZBUFFER);

    // textures: the pattern as index8 for the lit pass, as direct colour for the special node
    xmemarena* tmp = engine.tmp_arena;
    bitmap* pattern = bench_pattern(tmp);
    static n3d_texture lit_texture, special_texture;
    fflush(stdout);
    FILE* saved = stdout;
    stdout = fopen("/dev/null", "w");  // conversion reports would bury the figures
    n3d_texture_from_bitmap(&lit_texture, engine.arena, tmp, N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555, 1, 1, 0, pattern,
                            nullptr, N3D_TRANSPARENT_INDEX_NONE, 0.5f);
    n3d_texture_from_bitmap(&special_texture, engine.arena, tmp, N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, 1, 1, 0,
                            pattern, nullptr, N3D_TRANSPARENT_INDEX_NONE, 0.5f);
    fclose(stdout);
    stdout = saved;
    xmemarena_reset(tmp);

    // the datapack: nodes 0-7 lit tori, 8 the special torus, 9 the camera
    static mad_image images[2] = {{(char*)"lit", 0}, {(char*)"special", 0}};
    static mad_material materials[2] = {{&images[0], {1, 1, 1, 1}}, {&images[1], {1, 1, 1, 1}}};
    static mad_primitive primitives[2];
    primitives[0] = {bench_torus(engine.arena, 24, 10, 0.8f, 0.3f), &materials[0]};
    primitives[1] = {bench_torus(engine.arena, 24, 24, 2.0f, 0.8f), &materials[1]};
    for (mad_primitive& p : primitives)  // as the datapack reader indexes what it reads
        n3d_vertex_index_build(&p.index, &p.vertices, engine.arena);
    static mad_mesh meshes[2] = {{1, &primitives[0]}, {1, &primitives[1]}};
    static mad_camera camera = {0, 0, 0.5f, 0, 0, 0, 0.9f};
    static mad_node nodes[BENCH_NODES];
    static bench_keys keys[BENCH_NODES];
    static mad_channel channels[BENCH_NODES * 2];
    static mad_animation animation = {(char*)"spin", 0, nullptr, BENCH_NODES * 2, channels};
    const char* names[BENCH_NODES] = {"t0", "t1", "t2", "t3", "t4", "t5", "t6", "t7", "special", "camera"};
    for (uint32_t i = 0; i < BENCH_NODES; i++) {
        nodes[i].name = (char*)names[i];
        vec3_set(nodes[i].scale, 1, 1, 1);
        nodes[i].rotation[3] = 1;
        nodes[i].mesh = i < BENCH_LIT_TORI ? &meshes[0] : i == BENCH_LIT_TORI ? &meshes[1] : nullptr;
        const bool is_camera = i == BENCH_NODES - 1;
        bench_animate_node(&keys[i], is_camera ? 0.5f : 2.2f, 2.0f * BENCH_PI * (float)i / BENCH_LIT_TORI);
        channels[2 * i] = {&nodes[i], &keys[i].samplers[0], MAD_PATH_ROTATION};
        channels[2 * i + 1] = {&nodes[i], &keys[i].samplers[1], MAD_PATH_TRANSLATION};
    }
    nodes[BENCH_NODES - 1].camera = &camera;
    // the camera sways on a small circle 8 units out and 4 up, looking down at the tori by 0.46 rad
    for (uint32_t i = 0; i < 5; i++) {
        keys[BENCH_NODES - 1].translations[3 * i + 1] += 4.0f;
        keys[BENCH_NODES - 1].translations[3 * i + 2] += 8.0f;
        const float pitch_down[4] = {sinf(-0.23f), 0, 0, cosf(-0.23f)};
        memcpy(keys[BENCH_NODES - 1].rotations + 4 * i, pitch_down, 16);
    }
    static mad_datapack pack = {BENCH_NODES, nodes, 2, meshes, 0, nullptr, 1, &camera, 1, &animation, 2, images,
                                2, materials};

    static reel_resource_node cache[3] = {{REEL_KIND_MADPACK, "bench", &pack, &cache[1]},
                                          {REEL_KIND_TEXTURE, "lit.tmap", &lit_texture, &cache[2]},
                                          {REEL_KIND_TEXTURE, "special.tmap", &special_texture, nullptr}};
    engine.resource_cache.next = &cache[0];
    mad_datapack* used = &pack;
    std::string special = "special", model_row;
    if (model[0])
        model_row = bench_load_model(&engine, model[0], model[1], model[2], &used, &special);

    static reel_scene scene;
    static reel_sequence_row row;
    row.function = "video_madpack";
    row.args = "bench,0,1,spin,camera,special,t0,spin";  // a second animation: every torus is drawn
    if (model[0])
        row.args = model_row.c_str();
    reel_load_scene(&engine, &scene, &row);
    static uint8_t key_table[256];
    reel_run_context ctx = {};
    ctx.engine = &engine, ctx.row = &row, ctx.pass = REEL_PASS_UPDATE, ctx.arena = &demo, ctx.video = &fc;
    ctx.keys = key_table;
    scene.run(&scene, &ctx);  // the set-up call
    scene.ready = 1;
    scene.run(&scene, &ctx);  // builds the shade table

    uint32_t triangles = 0, special_triangles = 0;
    for (uint32_t i = 0; i < used->node_count; i++)
        for (uint32_t p = 0; used->nodes[i].mesh && p < used->nodes[i].mesh->primitive_count; p++) {
            const uint32_t count = used->nodes[i].mesh->primitives[p].vertices.count / 3;
            triangles += count;
            special_triangles += special == used->nodes[i].name ? count : 0;
        }

    // the animation alone, as the scene evaluates it each frame (twice: both entries are "spin";
    // a model's first two animations)
    auto* world = (mat4x4*)xmemarena_push_align(&demo, sizeof(mat4x4) * used->node_count, 16);
    uint64_t start = prof_cycles_now();
    for (uint32_t f = 0; f < frames; f++)
        for (uint32_t a = 0; a < 2; a++) {
            mad_animate(used, a < used->animation_count ? a : 0, (float)f / 60.0f);
            mad_compute_world_matrices(world, used, &demo);
        }
    const uint64_t animation_cycles = prof_cycles_since(start);
    // the clears the scene starts each frame with: coverage and depth of the video buffer
    start = prof_cycles_now();
    for (uint32_t f = 0; f < frames; f++) {
        n3d_coverage_buffer_clear(fc.coverage[0]);
        n3d_zbuffer_clear(fc.zbuffer);
    }
    const uint64_t clear_cycles = prof_cycles_since(start);

    const uint64_t raster_before = bench_raster_cycles();
    const uint64_t vertex_before = bench_vertex_cycles();
    auto* took = (uint64_t*)xmemarena_push_align(&demo, sizeof(uint64_t) * frames, 8);
    start = prof_cycles_now();
    for (uint32_t f = 0; f < frames; f++) {
        scene.since_start_seconds = (float)f / 60.0f;
        const uint64_t frame_start = prof_cycles_now();
        scene.run(&scene, &ctx);
        took[f] = prof_cycles_since(frame_start);
    }
    const uint64_t total_cycles = prof_cycles_since(start);
    const uint64_t raster_cycles = bench_raster_cycles() - raster_before;
    const uint64_t vertex_cycles = bench_vertex_cycles() - vertex_before;

    uint64_t drawn = 0;
    for (uint32_t i = 0; i < n3d_rasterizer_table_count; i++)
        drawn += n3d_rasterizer_table[i].blocks[N3D_RASTERIZER_BLOCK_SETUP].hits;
    const double frame_ms = bench_ms(total_cycles) / frames;
    const double animation_ms = bench_ms(animation_cycles) / frames;
    const double raster_ms = bench_ms(raster_cycles) / frames;
    printf("video_madpack: %u triangles a frame (%u lit in the first pass, %u in the special node's), %u frames\n",
           triangles, triangles - special_triangles, special_triangles, frames);
    std::sort(took, took + frames);
    printf("frame:         %.3f ms mean, %.3f ms median, %.3f ms least  (target <= 1.5 ms)\n", frame_ms,
           bench_ms(took[frames / 2]), bench_ms(took[0]));
    printf("triangles/s:   %.2f million submitted, %.2f million reaching a rasterizer\n",
           triangles * frames / (bench_ms(total_cycles) / 1000.0) / 1e6,
           (double)drawn / (bench_ms(total_cycles) / 1000.0) / 1e6);
    printf("animation:     %.3f ms  (%.0f%%)  keys and world matrices, both entries\n", animation_ms,
           100.0 * animation_ms / frame_ms);
    printf("rasterization: %.3f ms  (%.0f%%)  variant set-up and spans\n", raster_ms, 100.0 * raster_ms / frame_ms);
    const double clear_ms = bench_ms(clear_cycles) / frames;
    const double pipeline_ms = frame_ms - animation_ms - raster_ms - clear_ms;
    printf("pipeline:      %.3f ms  (%.0f%%)  transforms, clipping, projection, gradients, commands\n", pipeline_ms,
           100.0 * pipeline_ms / frame_ms);
    // the pipeline split into its vertex stage and the rest (the scene's commands, culling,
    // clipping, gradients and the calls of the variants), with cycles per submitted triangle
    const double vertex_ms = bench_ms(vertex_cycles) / frames;
    const double cycles_per_ms = prof_global.cycles_per_second / 1000.0;
    printf("  vertices:    %.3f ms  %.0f cycles a triangle  transform, lighting, outcodes, projection, culling\n", vertex_ms,
           vertex_ms * cycles_per_ms / triangles);
    printf("  triangles:   %.3f ms  %.0f cycles a triangle  commands, clipping, gradients, calls\n",
           pipeline_ms - vertex_ms, (pipeline_ms - vertex_ms) * cycles_per_ms / triangles);
    // the clears mark depth blocks invalid rather than fill them: microseconds, not milliseconds
    printf("clears:        %.2f us  (%.1f%%)  coverage and depth\n", clear_ms * 1000.0, 100.0 * clear_ms / frame_ms);
    if (argc > 2) {
        bitmap* out = bitmap_create(tmp, 320, 240, BITMAP_SRGB | BITMAP_CHANNELS_3);
        for (uint32_t y = 0; y < 240; y++)
            for (uint32_t x = 0; x < 320; x++) {
                const uint16_t v = ((const uint16_t*)(fc.framebuffer->pixels + y * fc.framebuffer->row_bytes))[x];
                const uint32_t c[3] = {(v >> 10) & 31u, (v >> 5) & 31u, v & 31u};
                for (uint32_t i = 0; i < 3; i++)
                    bitmap_pixel(out, x, y)[i] = (uint8_t)(c[i] << 3 | c[i] >> 2);
            }
        bitmap_save_png(out, argv[2], tmp);
    }
    free(block);
    return 0;
}
