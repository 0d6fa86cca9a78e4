// The sequencer: every engine pass it reads the show clock once and walks the rows in script
// order, giving end calls to rows whose span is over, load calls (within a cycle budget) to
// rows whose load time has come, and run calls to ready rows inside their span unless a
// barrier holds them back.
#include "music.h"
#include "reel.h"

constexpr double REEL_LOAD_BUDGET_UPDATE_SECONDS = 0.5 / 1000.0;
constexpr double REEL_LOAD_BUDGET_RENDER_SECONDS = 0.1 / 1000.0;
constexpr uint32_t REEL_SAMPLES_PER_TWO_FRAMES = 735;  // 60 frames per second: (samples x 2) / 735

static inline uint32_t reel_has_run(const reel_scene* scene, uint32_t pass)
{
    return pass == REEL_PASS_UPDATE ? scene->first_update == 0 : scene->first_render == 0;
}

// Samples, frames and seconds of a signed sample count taken unsigned, as scenes see them.
static inline uint32_t reel_frames_of(int32_t samples) { return (uint32_t)samples * 2u / REEL_SAMPLES_PER_TWO_FRAMES; }
static inline float reel_seconds_of(int32_t samples) { return (float)((double)(uint32_t)samples / 22050.0); }

void reel_sequencer_step(reel_engine* engine, reel_run_context* ctx)
{
    ctx->backbuffer_count = engine->backbuffer_count;
    ctx->backbuffers = engine->backbuffers;
    ctx->stencil_count = engine->stencil_count;
    ctx->stencils = engine->stencils;
    const int32_t c = music_sample_counter();  // one reading: every row of this step sees the same clock
    const float c_s = (float)c / 22050.0f;
    const uint32_t pass = ctx->pass;
    reel_sequence_row* rows = engine->sequence.rows;
    reel_scene* scenes = engine->scenes;
    const uint32_t count = engine->scene_count;

    // end calls: once per pass kind, from the first pass after the span
    for (uint32_t i = 0; i < count; i++) {
        reel_scene* scene = &scenes[i];
        if (reel_has_run(scene, pass) && c > rows[i].end && !(scene->ended_update && scene->ended_render)) {
            ctx->row = &rows[i];
            scene->ending = 1;
            const uint64_t t0 = prof_cycles_now();
            scene->run(scene, ctx);
            pass_timer_add(&scene->end_timer, t0, pass);
            if (pass == REEL_PASS_UPDATE)
                scene->ended_update = 1;
            else
                scene->ended_render = 1;
        }
    }

    // load and run calls
    bool blocked = false;
    const double budget_seconds = pass == REEL_PASS_UPDATE ? REEL_LOAD_BUDGET_UPDATE_SECONDS : REEL_LOAD_BUDGET_RENDER_SECONDS;
    for (uint32_t i = 0; i < count; i++) {
        reel_scene* scene = &scenes[i];
        reel_sequence_row* row = &rows[i];
        const uint32_t has_run = reel_has_run(scene, pass);
        // a scene that never ran in this pass kind gets its calls even after its span
        const bool in_span = c >= row->start && (c < row->end || !has_run);
        const bool load_due = c >= row->load && !scene->load_complete;
        if (i > 0) {
            const reel_sequence_row* prev = &rows[i - 1];
            const uint32_t prev_has_run = reel_has_run(&scenes[i - 1], pass);
            const bool prev_active = (int64_t)c + 1 >= prev->start && ((int64_t)prev->end > (int64_t)c + 1 || !prev_has_run);
            const bool prev_completed = prev_has_run && !prev_active;
            if ((prev->flags & SEQ_ROW_BARRIER_AFTER) && !prev_completed)
                blocked = true;  // and for every later row of this step
        }
        ctx->row = row;
        if (!in_span && !load_due)
            continue;
        if (!scene->loaded)
            reel_load_scene(engine, scene, row);
        if (load_due) {
            scene->load_budget = (int32_t)(int64_t)(budget_seconds * (double)prof_global.cycles_per_second_u64);
            if (in_span)
                scene->load_budget = 0;  // due now: no limit
            scene->since_start = 0;
            scene->since_start_frames = 0;
            scene->since_start_seconds = 0.0f;
            scene->clock_seconds = c_s;
            scene->span = row->end - row->start;
            scene->span_frames = reel_frames_of(scene->span);
            scene->span_seconds = reel_seconds_of(scene->span);
            const uint64_t t0 = prof_cycles_now();
            scene->run(scene, ctx);
            pass_timer_add(&scene->load_timer, t0, pass);
            if (scene->load_complete)
                scene->ready = 1;
        }
        if (scene->ready && !blocked) {
            scene->since_start = (int32_t)((uint32_t)c - (uint32_t)row->start);
            scene->since_start_frames = reel_frames_of(scene->since_start);
            scene->since_start_seconds = reel_seconds_of(scene->since_start);
            scene->clock_seconds = c_s;
            const uint64_t t0 = prof_cycles_now();
            scene->run(scene, ctx);
            pass_timer_add(&scene->run_timer, t0, pass);
            if (pass == REEL_PASS_UPDATE) {
                scene->first_update = 0;
                scene->update_runs += 1;
            } else {
                scene->first_render = 0;
                scene->render_runs += 1;
            }
        }
    }
}
