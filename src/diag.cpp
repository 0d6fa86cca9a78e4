// Fatal path, messages and profiling.
#include "diag.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>

static constexpr const char* prof_block_names[] = {
    "CYCLES_BLOCK_TOTAL",
    "CYCLES_BLOCK_FRAMEBUFFER_BLIT",
    "CYCLES_BLOCK_DEMO_CLEAR",
    "BLOCK_RENDER_MESH",
    "BLOCK_RENDER_MESH_TRANSFORM_VERTICES",
    "BLOCK_RENDER_MESH_TRANSFORM_VERTICES_SETUP",
    "BLOCK_CLEAR_FRAMEBUFFER",
    "BLOCK_CLEAR_FRAMEBUFFER_ONLY_DIRTY",
    "BLOCK_CLEAR_DEPTH",
    "BLOCK_WAIT_VBL",
    "BLOCK_CLEAR_COVERAGE",
    "BLOCK_UPDATE_NORMAL",
    "BLOCK_UPDATE_DURING_VBL",
    "BLOCK_INPUT",
    "BLOCK_EMULATE_VANTOREL",
};
static_assert(sizeof(prof_block_names) / sizeof(prof_block_names[0]) == BLOCK_EMULATE_VANTOREL + 1);

// The table is named from the start, so that code measured before prof_init (tests, tools)
// counts into named blocks; prof_init resets it all the same.
static constexpr prof_state prof_initial_state()
{
    prof_state p = {};
    for (int i = 0; i < PROF_BLOCK_COUNT; i++)
        p.names[i] = i <= (int)BLOCK_EMULATE_VANTOREL ? prof_block_names[i] : "unnamed-block";
    return p;
}

prof_state prof_global = prof_initial_state();
static diag_fatal_hook_fn* diag_fatal_hook = nullptr;

void diag_set_fatal_hook(diag_fatal_hook_fn* hook) { diag_fatal_hook = hook; }

[[noreturn]] static void diag_crash_tail(const char* fmt, va_list args)
{
    vfprintf(stderr, fmt, args);
    fflush(stderr);
    if (diag_fatal_hook)
        diag_fatal_hook();
    exit(1);
}

void crash_at(const char* file, int line, const char* fmt, ...)
{
    fflush(stdout);  // a detail line the caller printed must come out before the crash text
    fprintf(stderr, "crash at %s:%d\n", file, line);
    va_list args;
    va_start(args, fmt);
    diag_crash_tail(fmt, args);
}

void crash_in(const char* file, int line, const char* function, const char* fmt, ...)
{
    fflush(stdout);
    fprintf(stderr, "crash in %s at %s:%d\n", function, file, line);
    va_list args;
    va_start(args, fmt);
    diag_crash_tail(fmt, args);
}

void diag_exit(const char* fmt, ...)
{
    fflush(stdout);
    va_list args;
    va_start(args, fmt);
    diag_crash_tail(fmt, args);
}

void diag_exit_stdout(const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    vprintf(fmt, args);
    va_end(args);
    fflush(stdout);
    exit(1);
}

void log_at(const char* file, int line, const char* fmt, ...)
{
    fflush(stdout);
    fprintf(stderr, "[%s:%d] ", file, line);
    va_list args;
    va_start(args, fmt);
    vfprintf(stderr, fmt, args);
    va_end(args);
}

uint64_t prof_monotonic_ns()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (uint64_t)ts.tv_sec * 1000000000ull + (uint64_t)ts.tv_nsec;
}

uint64_t prof_perf_counter() { return prof_monotonic_ns(); }
uint64_t prof_perf_frequency() { return 1000000000ull; }

double prof_cycles_to_ms(uint64_t cycles) { return 1000.0 * (double)cycles / prof_global.cycles_per_second; }

void prof_calibrate()
{
    const uint64_t frequency = prof_perf_frequency();
    const uint64_t q0 = prof_perf_counter();
    while (prof_perf_counter() == q0) {
    }
    const uint64_t c0 = prof_cycles_now();
    uint64_t q = prof_perf_counter();
    while ((double)(q - q0) / (double)frequency < 0.01)
        q = prof_perf_counter();
    const uint64_t c1 = prof_cycles_now();
    prof_global.cycles_per_second = (double)(c1 - c0) / ((double)(q - q0) / (double)frequency);
}


void prof_init()
{
    prof_calibrate();
    prof_global.cycles_per_second_u64 = (uint64_t)prof_global.cycles_per_second;
    for (int i = 0; i < PROF_BLOCK_COUNT; i++) {
        prof_global.hits[i] = 0;
        prof_global.cycles[i] = 0;
        prof_global.start[i] = 0;
        prof_global.names[i] = "unnamed-block";
    }
    for (uint32_t i = 0; i <= BLOCK_EMULATE_VANTOREL; i++)
        prof_global.names[i] = prof_block_names[i];
}

void prof_report_unnamed(const char* file, int line) { printf("unnamed block at %s:%d\n", file, line); }

void prof_print()
{
    const float total = (float)prof_global.cycles[CYCLES_BLOCK_TOTAL];
    for (int i = 0; i < PROF_BLOCK_COUNT; i++) {
        const uint32_t hits = prof_global.hits[i];
        if (hits == 0)
            continue;
        const float c = (float)prof_global.cycles[i];
        const float average = c / (float)hits;
        // When the loop was left by a quit request block 0 has no cycles: print 0% rather than
        // a division by zero.
        const double percentage = total > 0.0f ? 100.0 * (double)c / (double)total : 0.0;
        printf("[%6.2f%%][hits: %11u][cycles: %12.0f][<cycles>: %11.1f][%s]\n", percentage, hits, (double)c,
               (double)average, prof_global.names[i] ? prof_global.names[i] : "unnamed-block");
    }
}

void pass_timer_add(pass_timer* timer, uint64_t start, uint32_t vbl)
{
    const uint64_t cycles = prof_cycles_since(start);
    if (vbl) {
        timer->vbl_cycles += cycles;
        timer->vbl_frames += 1;
    } else {
        timer->regular_cycles += cycles;
        timer->regular_frames += 1;
    }
}

void pass_timer_print(const char* label, uint32_t vbl, const pass_timer* timer)
{
    const uint32_t frames = vbl ? timer->vbl_frames : timer->regular_frames;
    const uint64_t cycles = vbl ? timer->vbl_cycles : timer->regular_cycles;
    const double ms = frames ? prof_cycles_to_ms(cycles) / (double)frames : 0.0;
    const uint64_t per_frame = frames ? cycles / frames : 0;
    printf("%s: %.2f ms %.2f cycles/frame (frames %d cycles: %llu)\n", label, (double)(float)ms,
           (double)(float)per_frame, (int)frames, (unsigned long long)cycles);
}
