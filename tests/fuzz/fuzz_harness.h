// Shared set-up of the libFuzzer targets: one arena taken once, and a fatal hook that jumps back
// to the start of the current input, so that a reader's clean refusal of damaged data ends that
// input instead of the process. Anything else (a sanitizer report, a crash, a failed round trip)
// still ends the run as a finding.
#pragma once

#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <unistd.h>

#include "diag.h"
#include "memarena.h"

constexpr uint64_t FUZZ_ARENA_CAPACITY = 64u << 20;

struct fuzz_state {
    jmp_buf resume;  // set at the start of every input
    xmemarena arena;
    FILE* report;    // the real standard error, for findings
};

static fuzz_state fuzz_global;

[[noreturn]] static void fuzz_on_fatal() { longjmp(fuzz_global.resume, 1); }

// Refusals are expected by the thousand, each with its fatal text on standard error. Unless
// REEL_FUZZ_SHOW_FATAL is set, libFuzzer is asked to discard them: `quiet_flag` goes in front
// of the command line's own flags (which win), and "-close_fd_mask=2" makes libFuzzer keep a
// copy of descriptor 2 for its own and the sanitizers' reports before it points descriptor 2 at
// /dev/null (3 does the same to standard output). Findings go to a copy taken here.
static void fuzz_init(int* argc, char*** argv, const char* quiet_flag = "-close_fd_mask=2")
{
    void* memory = aligned_alloc(64, FUZZ_ARENA_CAPACITY);
    xmemarena_init(&fuzz_global.arena, "fuzz_arena", FUZZ_ARENA_CAPACITY, memory);
    diag_set_fatal_hook(fuzz_on_fatal);
    const int copy = getenv("REEL_FUZZ_SHOW_FATAL") ? -1 : dup(2);
    fuzz_global.report = copy >= 0 ? fdopen(copy, "w") : nullptr;
    if (!fuzz_global.report) {
        fuzz_global.report = stderr;
        return;
    }
    setvbuf(fuzz_global.report, nullptr, _IONBF, 0);
    char** args = (char**)calloc((size_t)*argc + 2, sizeof(char*));  // kept: libFuzzer reads it later
    args[0] = (*argv)[0], args[1] = (char*)quiet_flag;
    for (int i = 1; i < *argc; i++)
        args[i + 1] = (*argv)[i];
    *argv = args, *argc += 1;
}

// A broken property of data the reader accepted: a finding, like a sanitizer report.
static inline void fuzz_expect(bool ok, const char* what)
{
    if (!ok) {
        fprintf(fuzz_global.report, "fuzz finding: %s\n", what);
        abort();
    }
}

// The input copied so that it starts one byte past malloc's alignment, ending exactly at the end
// of its own allocation (so the address sanitizer still sees a read past it). Freed at the next
// input, since a fatal jump skips anything after the read.
static inline const uint8_t* fuzz_shifted_copy(const uint8_t* data, size_t size)
{
    static uint8_t* previous = nullptr;
    free(previous);
    previous = (uint8_t*)malloc(size + 1);
    if (size)
        memcpy(previous + 1, data, size);
    return previous + 1;
}

// The input as a writable NUL-terminated text that ends exactly at its allocation, so that a read
// past the NUL is seen. Freed at the next input.
static inline char* fuzz_text(const uint8_t* data, size_t size)
{
    static char* previous = nullptr;
    free(previous);
    previous = (char*)malloc(size + 1);
    memcpy(previous, data, size);
    previous[size] = 0;
    return previous;
}

// A file of one block: a cursor past its byte-order marker, and after the read, the block's
// length, checked to end where the cursor stands, inside the input.
static inline void fuzz_block_cursor(stream_cursor* cur, const uint8_t* data, size_t size, const char* name)
{
    stream_cursor_init(cur, data, size, BYTE_ORDER_NATIVE, name);
    stream_cursor_read_marker(cur);
}
static inline uint64_t fuzz_block_read(const stream_cursor* cur, const uint8_t* end, const uint8_t* data, size_t size)
{
    fuzz_expect(end == cur->p && end <= data + size, "reader returned a position outside its block");
    return (uint64_t)(end - data) - 4;
}

// One input through a reader that refuses damaged data through the fatal path, on an empty arena.
static inline int fuzz_run(void (*read)(const uint8_t*, size_t), const uint8_t* data, size_t size)
{
    xmemarena_reset(&fuzz_global.arena);
    if (setjmp(fuzz_global.resume) == 0)
        read(data, size);
    return 0;
}

// A target with more to set up defines FUZZ_OWN_INITIALIZE and calls fuzz_init from its own.
#ifndef FUZZ_OWN_INITIALIZE
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    fuzz_init(argc, argv);
    return 0;
}
#endif
