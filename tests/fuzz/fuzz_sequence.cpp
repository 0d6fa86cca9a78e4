// libFuzzer target for the sequence loader: the input is the script's text. Every script the
// loader accepts must come out consistent: rows in file order within the table the text's line
// feeds bound, load times preload ahead of starts, labels and barriers pointing at real rows.
#include <climits>

#include "fuzz_harness.h"
#include "reel.h"

static void fuzz_sequence_read(const uint8_t* data, size_t size)
{
    char* text = fuzz_text(data, size);

    xmemarena* arena = &fuzz_global.arena;
    xmemarena* tmp_arena = xmemarena_push_arena(arena, "fuzz_tmp_arena", 1u << 20);
    reel_sequence seq;
    reel_load_sequence(&seq, text, "fuzz.csv", arena, tmp_arena);

    uint32_t line_feeds = 0;
    for (const char* p = text; *p; p++)
        line_feeds += *p == '\n';
    fuzz_expect(seq.row_count < line_feeds, "more rows than lines after the header");
    uint32_t previous_line = 1;
    for (uint32_t i = 0; i < seq.row_count; i++) {
        const reel_sequence_row& row = seq.rows[i];
        fuzz_expect(row.index == i, "row index is not its position");
        fuzz_expect(row.line > previous_line && row.line <= line_feeds, "row lines are not increasing");
        previous_line = row.line;
        fuzz_expect(row.function && row.start_mode && row.end_mode, "a row text is missing");
        // in 64 bits like the loader: preloads from about 97,392 ms on overflow a 32-bit product
        fuzz_expect((int64_t)row.load == (int64_t)row.start - (int64_t)row.preload_ms * REEL_SAMPLES_PER_SECOND / 1000,
                    "load time is not the preload ahead of the start");
        fuzz_expect(!(row.flags & ~SEQ_ROW_BARRIER_AFTER), "unknown row flag");
        const int64_t span = (int64_t)row.end - row.start;
        fuzz_expect(span >= INT32_MIN && span <= INT32_MAX, "a row's span does not fit the 32-bit clock");
    }
    for (uint32_t i = 0; i < seq.label_count; i++)
        fuzz_expect(seq.labels[i].name[0] && seq.labels[i].row <= seq.row_count, "label names no row");
    for (uint32_t i = 0; i < seq.barrier_count; i++) {
        const reel_sequence_barrier& b = seq.barriers[i];
        fuzz_expect(b.row >= 0 && (uint32_t)b.row < seq.row_count, "barrier after no row");
        fuzz_expect(seq.rows[b.row].flags & SEQ_ROW_BARRIER_AFTER, "barrier row lacks its flag");
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return fuzz_run(fuzz_sequence_read, data, size);
}
