// The sequencer's call pattern over scripts made here: run, load and end calls per pass kind,
// spans skipped by a seek, barriers, load budgets, and the control scenes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "music.h"
#include "reel.h"
#include "reel_scenes.h"
#include "test_fatal.h"

namespace {

// What the test's scene function saw, per call (kind 0 load, 1 run, 2 end).
struct seen_call { uint32_t row, pass, kind; int32_t since_start; int64_t budget; };
std::vector<seen_call> calls;
uint32_t complete_after_loads = 1;  // load calls a recording scene needs before it is complete

void recording_scene(reel_scene* scene, reel_run_context* ctx)
{
    const uint32_t kind = scene->ending ? 2 : (!scene->load_complete ? 0 : 1);
    calls.push_back({ctx->row->index, ctx->pass, kind, scene->since_start, scene->load_budget});
    if (kind == 0 && ++*reel_scene_state<uint32_t>(scene) >= complete_after_loads)
        scene->load_complete = 1;
}

struct sequencer_fixture : testing::Test {
    test_arena memory = test_arena(4 << 20), tmp_memory = test_arena(4 << 20);
    xmemarena &arena = memory.arena, &tmp = tmp_memory.arena;
    reel_engine engine;
    reel_run_context ctx;
    uint8_t keys[256] = {};
    std::string text;
    void SetUp() override
    {
        calls.clear();
        complete_after_loads = 1;
        music_reset();
        memset(&engine, 0, sizeof(engine));
        memset(&ctx, 0, sizeof(ctx));
        engine.arena = &arena, engine.tmp_arena = &tmp, ctx.engine = &engine, ctx.keys = keys;
    }
    // Loads the script; rows whose function is "test" get the recording scene, already bound.
    void load(const std::string& rows)
    {
        text = "start mode,ref,ms,preload,end mode,ref,ms,function,args\n" + rows;
        reel_load_sequence(&engine.sequence, text.c_str(), "sequence.csv", &arena, &tmp);
        engine.scene_count = engine.sequence.row_count;
        engine.scenes = (reel_scene*)xmemarena_push_record(&arena, sizeof(reel_scene) * engine.scene_count);
        for (uint32_t i = 0; i < engine.scene_count; i++) {
            reel_scene* s = &engine.scenes[i];
            s->first_update = s->first_render = 1;
            if (strcmp(engine.sequence.rows[i].function, "test") == 0)
                s->loaded = 1, s->run = recording_scene, s->name = "test";
        }
        music_prepare((int32_t)engine.sequence.lead_in);
        static const uint8_t silence[1] = {0x77};
        music_start(silence, 1, 0);  // the clock runs; the tests move it by hand
    }
    void at(int32_t clock) { music_global.sample_counter.store(clock); }
    void pass(uint32_t kind) { ctx.pass = kind, reel_sequencer_step(&engine, &ctx); }
    void both(int32_t clock) { at(clock), pass(REEL_PASS_UPDATE), pass(REEL_PASS_RENDER); }
    std::vector<seen_call> of(uint32_t row, uint32_t kind) const
    {
        std::vector<seen_call> r;
        std::copy_if(calls.begin(), calls.end(), std::back_inserter(r),
                     [&](auto& c) { return c.row == row && c.kind == kind; });
        return r;
    }
};

}  // namespace

TEST_F(sequencer_fixture, run_calls_inside_the_span_and_end_calls_after_it_even_when_a_seek_skips_it)
{
    load("abs,,2000,0,abs,,4000,test\n");  // 44,100 to 88,200 samples
    both(44099);
    EXPECT_TRUE(calls.empty());  // no preload: not even a load call before its start
    both(44100);  // the load call at the start, then the run call at once
    ASSERT_TRUE(of(0, 0).size() == 1u && of(0, 1).size() == 2u && of(0, 1)[0].since_start == 0);
    both(88199);
    EXPECT_TRUE(of(0, 1).size() == 4u && of(0, 1).back().since_start == 88199 - 44100);
    both(88200);  // neither a run call nor an end call
    EXPECT_TRUE(of(0, 1).size() == 4u && of(0, 2).empty());
    // end calls repeat in update passes until the render pass had its own, then never again
    at(88201);
    pass(REEL_PASS_UPDATE);
    pass(REEL_PASS_UPDATE);
    EXPECT_EQ(of(0, 2).size(), 2u);
    pass(REEL_PASS_RENDER);
    pass(REEL_PASS_UPDATE);
    ASSERT_TRUE(of(0, 2).size() == 3u && of(0, 2)[1].pass == REEL_PASS_UPDATE && of(0, 2)[2].pass == REEL_PASS_RENDER);
    both(100000);
    EXPECT_TRUE(of(0, 2).size() == 3u && engine.scenes[0].update_runs == 2 && engine.scenes[0].render_runs == 2);

    // a span skipped by a seek still runs once per pass kind, then ends
    SetUp();
    load("abs,,0,0,abs,,100,test\nabs,,1000,0,abs,,2000,test\n");
    both(0), both(100000);  // far past the second row's span
    ASSERT_TRUE(of(1, 1).size() == 2u && of(1, 1)[0].pass == REEL_PASS_UPDATE && of(1, 1)[1].pass == REEL_PASS_RENDER &&
                of(1, 2).empty());
    both(100001);
    EXPECT_TRUE(of(1, 2).size() == 2u && of(1, 1).size() == 2u);
}

TEST_F(sequencer_fixture, preloading_budgets_and_a_run_at_the_load_time)
{
    // start at 1 s with a 500 ms preload: loadable from 11,025 samples on
    prof_global.cycles_per_second_u64 = 3000000000ull;
    complete_after_loads = 3;
    load("abs,,1000,500,abs,,3000,test\n");
    both(11024);
    EXPECT_TRUE(of(0, 0).empty());
    both(11025);
    ASSERT_TRUE(of(0, 0).size() == 2u && of(0, 0)[0].budget == 1500000 && of(0, 0)[1].budget == 300000 &&
                of(0, 1).empty());
    // still loading when the start comes: no limit any more; the run follows the completing call
    both(22050);
    ASSERT_TRUE(of(0, 0).size() == 3u && of(0, 0)[2].budget == 0 && of(0, 1).size() == 2u);

    // ready before its start, a scene runs once at its load time (in the update pass), then from its start
    SetUp();
    load("abs,,1000,500,abs,,3000,test\n");
    both(11025);
    ASSERT_TRUE(of(0, 1).size() == 1u && of(0, 1)[0].since_start == 11025 - 22050);
    both(15000);
    both(22049);
    EXPECT_EQ(of(0, 1).size(), 1u);
    both(22050);
    EXPECT_EQ(of(0, 1).size(), 3u);
}

TEST_F(sequencer_fixture, barriers_hold_later_rows_until_the_row_has_completed)
{
    load("abs,,0,0,abs,,1000,test\nabs,,0,0,abs,,1000,test\nabs,,0,0,abs,,1000,test\nabs,,0,0,abs,,2000,test\n"
         "barrier,prev_completed\nabs,,0,0,abs,,5000,test\nabs,,0,0,abs,,5000,test\n");
    both(0);
    // loading goes on behind the barrier, running does not
    EXPECT_TRUE(of(3, 1).size() == 2u && of(4, 1).empty() && of(5, 1).empty() && of(4, 0).size() == 1u);
    both(44099);  // c + 1 = 44,100 = row 3's end: completed
    EXPECT_TRUE(of(4, 1).size() == 2u && of(5, 1).size() == 2u);
}

TEST_F(sequencer_fixture, load_sync_loads_every_row_before_its_label_at_once_load_async_one_per_call)
{
    // a loading row, then `others` rows before the label "ready" and a recording row after it
    auto rows_before_label = [](const char* function, int others) {
        std::string rows = std::string("abs,,0,0,abs,,100000,") + function + ",ready\n";
        for (int i = 0; i < others; i++)
            rows += "abs,,50000,0,abs,,60000,fade_out_music\n";
        return rows + "ready:\nabs,,50000,0,abs,,60000,test\n";
    };
    load(rows_before_label("load_sync", 9));
    both(0);
    EXPECT_TRUE(std::all_of(engine.scenes, engine.scenes + 10, [](const reel_scene& s) { return s.loaded; }));
    EXPECT_TRUE(engine.scenes[0].load_complete && engine.scenes[0].integers[0] == 10);

    // rows 0 to 10 come before the label: eleven calls load them, the twelfth completes
    SetUp();
    load(rows_before_label("load_async", 10));
    for (int call = 1; call <= 11; call++) {
        at(0);
        pass(REEL_PASS_UPDATE);
        EXPECT_EQ(engine.scenes[0].load_complete, 0u) << call;
    }
    EXPECT_TRUE(std::all_of(engine.scenes, engine.scenes + 11, [](const reel_scene& s) { return s.loaded; }));
    pass(REEL_PASS_UPDATE);
    EXPECT_TRUE(engine.scenes[0].load_complete && engine.scenes[0].ready);

    load("abs,,0,0,abs,,1000,load_sync,nowhere\n");
    EXPECT_FATAL(reel_load_scene(&engine, &engine.scenes[0], &engine.sequence.rows[0]),
                 "crash in scene_load_sync_parse_args at src/reel_scenes:[0-9]+\ncould not find label \"nowhere\" in "
                 "sequence!\n");
}

TEST_F(sequencer_fixture, fade_out_music_sets_the_fade_and_ends_the_show)
{
    load("abs,,0,0,abs,,10000,fade_out_music\n");  // the fade starts 154,350 samples after the first update's position
    reel_load_scene(&engine, &engine.scenes[0], &engine.sequence.rows[0]);
    music_global.music_position.store(1234);
    both(0);
    EXPECT_TRUE(music_global.fade_start.load() == 1234 + 154350 && engine.quit == 0u);
    both(220500);
    const uint32_t quit_at_the_end = engine.quit;
    at(220501);
    pass(REEL_PASS_UPDATE);
    EXPECT_TRUE(quit_at_the_end == 0 && engine.quit == 1u);
}
