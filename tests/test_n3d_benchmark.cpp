// The benchmark's workload: which random number goes where, what a triangle facing away takes
// of the sequence, and the coverage and depth clears before every 100th drawn triangle.
#include "n3d_benchmark.h"
#include "n3d_draw.h"
#include "test_fatal.h"

namespace {

struct bench_seen {
    bool coverage_clear, depth_clear;
    float v[3][7];
};
std::vector<bench_seen> bench_calls;

// Records what it was handed, then dirties coverage and depth again for the next call.
int bench_record(n3d_raster_call* c)
{
    bench_seen s;
    s.coverage_clear = c->fc->coverage[0]->bits[0] == 0;
    s.depth_clear = c->fc->zbuffer->blocks.bits[0] == 0;
    memcpy(s.v, c->vertices, sizeof(s.v));
    bench_calls.push_back(s);
    c->fc->coverage[0]->bits[0] = c->fc->zbuffer->blocks.bits[0] = 1;
    return 1;
}

void bench_names(n3d_rasterizer_entry* e) { e->block_count = 0; }

}  // namespace

TEST(n3d_benchmark, workload_takes_its_numbers_in_order_and_clears_every_100_triangles)
{
    test_arena memory(8u << 20);
    xmemarena& arena = memory.arena;
    n3d_init(&arena);
    // a phong variant reading coverage and depth (bit 4096: no real variant has it)
    const uint32_t flags = 4096 | N3D_RASTERIZER_PHONG | N3D_RASTERIZER_T0_I8ARGB1555 |
                           N3D_RASTERIZER_COVERAGE_READ | N3D_RASTERIZER_ZBUFFER_READ;
    n3d_register_rasterizer("record", 4, bench_record, bench_names, flags, __FILE__, __LINE__);
    n3d_rasterizer_entry* e = &n3d_rasterizer_table[n3d_find_rasterizer(flags)];
    n3d_framecontext fc;
    n3d_framecontext_init(&fc, &arena, 320, 200, N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555,
                          N3D_FRAMECONTEXT_COVERAGE | N3D_FRAMECONTEXT_ZBUFFER);
    fc.coverage[0]->bits[0] = fc.zbuffer->blocks.bits[0] = 1;
    n3d_texture t8 = {};
    const uint8_t* phong = nullptr;
    n3d_benchmark_workload w;
    n3d_benchmark_workload_init(&w, e, &fc, &t8, nullptr, &phong);

    pcg32 rng = {0x853c49e6748fea9bull, 0xda3e39cb94b95bdbull};  // every variant's run starts here
    bench_calls.clear();
    uint32_t away = 0;
    for (int t = 0; t < 450; t++) {
        float r[9];
        for (float& x : r)
            x = pcg32_random_float01(&rng);
        n3d_benchmark_positions(&w);
        for (int i = 0; i < 3; i++) {
            ASSERT_EQ(w.x[i], 320.0f * r[2 * i]) << t;
            ASSERT_EQ(w.y[i], 200.0f * r[2 * i + 1]) << t;
            ASSERT_EQ(w.iw[i], 0.5f + 0.5f * r[6 + i]) << t;
        }
        const float area = (w.x[1] - w.x[2]) * (w.y[0] - w.y[2]) - (w.x[0] - w.x[2]) * (w.y[1] - w.y[2]);
        const size_t before = bench_calls.size();
        ASSERT_EQ(n3d_benchmark_draw(&w), area > 0.000001f);
        if (bench_calls.size() == before) {  // facing away: nine numbers taken, none for attributes
            away++;
            continue;
        }
        const bench_seen& s = bench_calls.back();
        for (int i = 0; i < 12; i++)  // u, v, p0, p1 of each vertex in turn (p0 and p1 less 0.5), times its iw
            EXPECT_EQ(s.v[i / 4][3 + i % 4], (pcg32_random_float01(&rng) - (i % 4 < 2 ? 0.0f : 0.5f)) * w.iw[i / 4]) << i;
        const bool clears = before % 100 == 0;  // drawn triangles 0, 100, 200
        EXPECT_EQ(s.coverage_clear, clears) << before;
        EXPECT_EQ(s.depth_clear, clears) << before;
    }
    EXPECT_GT(away, 150u);  // about half of all random triangles face away
    EXPECT_EQ(w.drawn, bench_calls.size());
    EXPECT_GT(w.drawn, 200u);
}
