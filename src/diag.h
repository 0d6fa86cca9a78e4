// Diagnostics shared by every module: the fatal path, messages on standard error,
// the calibrated cycle counter, the fixed table of profiling blocks and the pass timers.
#pragma once

#include <cstdint>

#if defined(__GNUC__)
#define DIAG_PRINTF(fmt_index, first_arg) __attribute__((format(printf, fmt_index, first_arg)))
#else
#define DIAG_PRINTF(fmt_index, first_arg)
#endif

// Fatal path: flush stdout, write "crash at FILE:LINE\n" (or "crash in FN at FILE:LINE\n")
// and the formatted message to stderr, exit with status 1. `file` is the caller's module path
// ("src/memarena"); callers pass it and their line literally.
[[noreturn]] void crash_at(const char* file, int line, const char* fmt, ...) DIAG_PRINTF(3, 4);
[[noreturn]] void crash_in(const char* file, int line, const char* function, const char* fmt, ...)
    DIAG_PRINTF(4, 5);
void log_at(const char* file, int line, const char* fmt, ...) DIAG_PRINTF(3, 4);
// The plain fatal exit of the text parsers: flush stdout, write only the formatted message to
// stderr (no crash line), exit with status 1 (or take the fuzz hook).
[[noreturn]] void diag_exit(const char* fmt, ...) DIAG_PRINTF(1, 2);
// The checks that print their message on standard output and end the process with status 1
// without the fatal path (no crash line, nothing on standard error).
[[noreturn]] void diag_exit_stdout(const char* fmt, ...) DIAG_PRINTF(1, 2);

// Fuzz targets and the script linter only: called after the fatal text is written, in place of
// exit(1). The hook must not return (they longjmp back to take the next input or finding).
typedef void diag_fatal_hook_fn();
void diag_set_fatal_hook(diag_fatal_hook_fn* hook);

// ---- cycle counting ----

constexpr int PROF_BLOCK_COUNT = 30;

uint64_t prof_monotonic_ns();
void prof_report_unnamed(const char* file, int line);

enum prof_block_id : uint32_t {
    CYCLES_BLOCK_TOTAL = 0,
    CYCLES_BLOCK_FRAMEBUFFER_BLIT = 1,
    CYCLES_BLOCK_DEMO_CLEAR = 2,
    BLOCK_RENDER_MESH = 3,
    BLOCK_RENDER_MESH_TRANSFORM_VERTICES = 4,
    BLOCK_RENDER_MESH_TRANSFORM_VERTICES_SETUP = 5,
    BLOCK_CLEAR_FRAMEBUFFER = 6,
    BLOCK_CLEAR_FRAMEBUFFER_ONLY_DIRTY = 7,
    BLOCK_CLEAR_DEPTH = 8,
    BLOCK_WAIT_VBL = 9,
    BLOCK_CLEAR_COVERAGE = 10,
    BLOCK_UPDATE_NORMAL = 11,
    BLOCK_UPDATE_DURING_VBL = 12,
    BLOCK_INPUT = 13,
    BLOCK_EMULATE_VANTOREL = 14,
};

struct prof_state {
    double cycles_per_second;
    uint64_t cycles_per_second_u64;  // the integer copy the sequencer's load budget uses
    const char* names[PROF_BLOCK_COUNT];
    uint64_t start[PROF_BLOCK_COUNT];
    uint64_t cycles[PROF_BLOCK_COUNT];
    uint32_t hits[PROF_BLOCK_COUNT];
};

extern prof_state prof_global;

// The processor's time-stamp counter where there is one; elsewhere nanoseconds of the
// monotonic clock, so that calibration then yields 1e9 cycles per second.
static inline uint64_t prof_cycles_now()
{
#if defined(__x86_64__) || defined(__i386__)
    return __builtin_ia32_rdtsc();
#else
    return prof_monotonic_ns();
#endif
}

static inline uint64_t prof_cycles_since(uint64_t earlier) { return prof_cycles_now() - earlier; }

double prof_cycles_to_ms(uint64_t cycles);
// The operating system's high-resolution counter and its frequency (the calibration reference).
uint64_t prof_perf_counter();
uint64_t prof_perf_frequency();
void prof_calibrate();
void prof_init();
void prof_print();

static inline void prof_block_begin(uint32_t id) { prof_global.start[id] = prof_cycles_now(); }

static inline void prof_block_end(uint32_t id, const char* file, int line)
{
    prof_global.cycles[id] += prof_cycles_now() - prof_global.start[id];
    prof_global.hits[id] += 1;
    if (prof_global.names[id][0] == 'u') {
        prof_report_unnamed(file, line);
    }
}

// ---- pass timers: update ("regular") and render ("vbl") passes ----

struct pass_timer {
    uint32_t regular_frames;
    uint64_t regular_cycles;
    uint32_t vbl_frames;
    uint64_t vbl_cycles;
};

void pass_timer_add(pass_timer* timer, uint64_t start, uint32_t vbl);
void pass_timer_print(const char* label, uint32_t vbl, const pass_timer* timer);
