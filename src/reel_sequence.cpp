// The show's script: reads the sequence text (scene rows with their spans of music time, labels
// that name rows, barriers that hold later rows back, at most one music sync row) into a
// reel_sequence whose times are all resolved to samples of the show clock. Runs once at start-up;
// anything malformed ends the process with the line it was found on.
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "reel.h"

static const char* const SEQ_SOURCE = "src/reel";
static const char SEQ_EMPTY_TEXT[] = "";  // what an empty word field reads as
// Times convert to samples in 64 bits, so a script may run for hours; only a result beyond the
// 32-bit show clock (about 27 hours) is refused.
constexpr int32_t SEQ_MS_MAX = (int32_t)((int64_t)INT32_MAX * 1000 / REEL_SAMPLES_PER_SECOND);
constexpr uint32_t SEQ_RESOLVE_PASSES = 4;

// The cursor of the tokenizer and what its messages need.
struct seq_reader {
    const char* p;
    uint32_t line;
    const char* file_name;
};

static char* seq_copy_text(xmemarena* arena, const char* begin, size_t length)
{
    auto* copy = (char*)xmemarena_push(arena, length + 1);
    memcpy(copy, begin, length);
    copy[length] = 0;
    return copy;
}

static bool seq_is_word_end(char c) { return c == ',' || c == ' ' || c == '\t' || c == '\n' || c == 0; }

// Leaves the cursor on the line feed (or the end of the text), never past it.
static void seq_skip_to_line_end(seq_reader* r)
{
    while (*r->p != '\n' && *r->p != 0)
        r->p++;
}

static const char* seq_read_label(seq_reader* r, xmemarena* arena)
{
    const char* q = r->p;
    while (*q != ':' && !seq_is_word_end(*q))
        q++;
    if (*q != ':')
        return nullptr;
    const char* name = seq_copy_text(arena, r->p, (size_t)(q - r->p));
    r->p = q;
    seq_skip_to_line_end(r);
    return name;
}

static const char* seq_read_field(seq_reader* r, xmemarena* arena)
{
    const char* q = r->p;
    while (!seq_is_word_end(*q))
        q++;
    const char* field = q == r->p ? SEQ_EMPTY_TEXT : seq_copy_text(arena, r->p, (size_t)(q - r->p));
    while (*q == ' ' || *q == '\t')
        q++;
    r->p = q;
    return field;
}

static long seq_read_int(seq_reader* r)
{
    char* end = nullptr;
    const long value = strtol(r->p, &end, 10);
    // strtol skips any white space, line feeds included: a number on the next line is not this field
    if (end == r->p || memchr(r->p, '\n', (size_t)(end - r->p)))
        diag_exit("failed parse line %d in \"%s\"\n", (int)r->line, r->file_name);
    r->p = end;
    return value;
}

static void seq_expect_comma(seq_reader* r)
{
    if (*r->p != ',')
        diag_exit("expected ',' failed parse line %d in \"%s\"\n", (int)r->line, r->file_name);
    r->p++;
}

// A time in milliseconds, limited to what converts to samples without overflowing 32 bits.
static int32_t seq_read_ms(seq_reader* r)
{
    const long ms = seq_read_int(r);
    if (ms < -SEQ_MS_MAX || ms > SEQ_MS_MAX)
        crash_in(SEQ_SOURCE, __LINE__, "reel_load_sequence",
                 "time %ld ms on line %d in \"%s\" is out of range (at most %d ms either way)\n", ms, (int)r->line,
                 r->file_name, SEQ_MS_MAX);
    return (int32_t)ms;
}

static int32_t seq_ms_to_samples(int32_t ms) { return (int32_t)((int64_t)ms * REEL_SAMPLES_PER_SECOND / 1000); }

// Sums of resolved times stay on the 32-bit show clock.
static int32_t seq_checked_sum(int64_t sum, const reel_sequence_row* row, const char* file_name)
{
    if (sum < INT32_MIN || sum > INT32_MAX)
        crash_in(SEQ_SOURCE, __LINE__, "reel_load_sequence",
                 "a time of the row on line %d in \"%s\" is out of range of the show clock\n", (int)row->line,
                 file_name);
    return (int32_t)sum;
}

const reel_sequence_label* seq_find_label(const reel_sequence* seq, const char* name)
{
    for (uint32_t i = 0; i < seq->label_count; i++)
        if (strcmp(seq->labels[i].name, name) == 0)
            return &seq->labels[i];
    return nullptr;
}

static uint32_t seq_count_char(const char* text, char c)
{
    uint32_t count = 0;
    for (; *text; text++)
        count += *text == c;
    return count;
}

static uint32_t seq_count_text(const char* text, const char* needle)
{
    uint32_t count = 0;
    for (const char* p = strstr(text, needle); p; p = strstr(p + 1, needle))
        count++;
    return count;
}

template <class T>
static T* seq_push_table(xmemarena* arena, uint32_t count)
{
    auto* table = (T*)xmemarena_push_align(arena, (uint64_t)count * sizeof(T), alignof(T));
    if (table)
        memset((void*)table, 0, (size_t)count * sizeof(T));
    return table;
}

static void seq_read_barrier(reel_sequence* seq, seq_reader* r, xmemarena* tmp_arena)
{
    seq_read_field(r, tmp_arena);  // "barrier"
    seq_expect_comma(r);
    const char* value = seq_read_field(r, tmp_arena);
    if (strcmp(value, "prev_completed") != 0)
        crash_in(SEQ_SOURCE, __LINE__, "reel_load_sequence",
                 "barrier on line %d in \"%s\" has unexpected/unsupported value: \"%s\"\n", (int)r->line,
                 r->file_name, value);
    if (seq->row_count == 0)
        crash_in(SEQ_SOURCE, __LINE__, "reel_load_sequence",
                 "barrier on line %d in \"%s\" comes before the first scene row\n", (int)r->line, r->file_name);
    seq->rows[seq->row_count - 1].flags |= SEQ_ROW_BARRIER_AFTER;
    seq->barriers[seq->barrier_count++] = {SEQ_BARRIER_PREV_COMPLETED, r->line, (int32_t)seq->row_count - 1};
    seq_skip_to_line_end(r);
}

static void seq_read_row(reel_sequence* seq, seq_reader* r, xmemarena* arena)
{
    reel_sequence_row* row = &seq->rows[seq->row_count];
    row->index = seq->row_count;
    row->line = r->line;
    row->start_mode = seq_read_field(r, arena);
    seq_expect_comma(r);
    row->start_reference = seq_read_field(r, arena);
    seq_expect_comma(r);
    row->start_ms = seq_read_ms(r);
    seq_expect_comma(r);
    row->preload_ms = seq_read_ms(r);
    seq_expect_comma(r);
    row->end_mode = seq_read_field(r, arena);
    seq_expect_comma(r);
    row->end_reference = seq_read_field(r, arena);
    seq_expect_comma(r);
    row->end_ms = seq_read_ms(r);
    seq_expect_comma(r);
    row->function = seq_read_field(r, arena);
    if (*r->p == ',') {
        const char* args = ++r->p;
        seq_skip_to_line_end(r);
        row->args = seq_copy_text(arena, args, (size_t)(r->p - args));
    }
    row->start = seq_ms_to_samples(row->start_ms);
    row->end = seq_ms_to_samples(row->end_ms);
    seq_skip_to_line_end(r);
    seq->row_count++;
}

// One side (start or end) of a row; true once it is resolved. Rows earlier in the file are
// final; later rows still hold their unresolved values, since rows resolve in file order.
static bool seq_resolve_side(const reel_sequence* seq, reel_sequence_row* row, bool is_end, bool other_resolved,
                             const char* file_name)
{
    static const reel_sequence_row seq_origin_row = {};  // "prev" of the first row: start and end 0
    const char* mode = is_end ? row->end_mode : row->start_mode;
    const char* reference = is_end ? row->end_reference : row->start_reference;
    int32_t* value = is_end ? &row->end : &row->start;
    if (strcmp(mode, "abs") == 0)
        return true;

    const reel_sequence_row* other;
    if (strcmp(reference, "prev") == 0) {
        other = row->index ? &seq->rows[row->index - 1] : &seq_origin_row;
    } else if (strcmp(reference, "me") == 0) {
        other = row;
    } else {
        const reel_sequence_label* label = seq_find_label(seq, reference);
        if (!label)
            crash_in(SEQ_SOURCE, __LINE__, "reel_load_sequence", "could not find label: \"%s\"\n", reference);
        if (label->row >= seq->row_count)  // a label after the last row names nothing to take times from
            crash_in(SEQ_SOURCE, __LINE__, "reel_load_sequence",
                     "label \"%s\" on line %d names no scene row (used on line %d in %s)\n", reference,
                     (int)label->line, (int)row->line, file_name);
        other = &seq->rows[label->row];
    }

    if (strcmp(mode, "relend") == 0) {
        if (other == row) {
            if (is_end)
                crash_in(SEQ_SOURCE, __LINE__, "reel_load_sequence",
                         "cannot take end to be relative its own end! line: %d in %s\n", (int)row->line, file_name);
            if (!other_resolved)
                return false;
        }
        *value = seq_checked_sum((int64_t)*value + other->end, row, file_name);
        return true;
    }
    if (strcmp(mode, "relstart") == 0) {
        if (other == row) {
            if (!is_end)
                crash_in(SEQ_SOURCE, __LINE__, "reel_load_sequence",
                         "cannot take start to be relative its own start! line: %d in %s\n", (int)row->line,
                         file_name);
            if (!other_resolved)
                return false;
        }
        *value = seq_checked_sum((int64_t)*value + other->start, row, file_name);
        return true;
    }
    return false;
}

static void seq_resolve_row(const reel_sequence* seq, reel_sequence_row* row, const char* file_name)
{
    bool start_resolved = false, end_resolved = false;
    for (uint32_t pass = 0; pass < SEQ_RESOLVE_PASSES; pass++) {
        if (!start_resolved)
            start_resolved = seq_resolve_side(seq, row, false, end_resolved, file_name);
        if (!end_resolved)
            end_resolved = seq_resolve_side(seq, row, true, start_resolved, file_name);
    }
    if (!start_resolved || !end_resolved)
        crash_in(SEQ_SOURCE, __LINE__, "reel_load_sequence",
                 "could not resolve start/end on line: %d in %s (bug? or are you doing something weird?)\n",
                 (int)row->line, file_name);
    row->load = seq_checked_sum((int64_t)row->start - seq_ms_to_samples(row->preload_ms), row, file_name);
    // the sequencer and the scenes take end - start as a 32-bit span
    const int64_t span = (int64_t)row->end - row->start;
    if (span < INT32_MIN || span > INT32_MAX)
        crash_in(SEQ_SOURCE, __LINE__, "reel_load_sequence",
                 "the row on line %d in \"%s\" spans %lld samples from its start to its end, more than the show "
                 "clock holds\n",
                 (int)row->line, file_name, (long long)span);
}

// Ties the row's start to a music position: the script moves later, or the music starts later.
static void seq_apply_music_sync(reel_sequence* seq, const char* file_name)
{
    const reel_sequence_row* sync = nullptr;
    for (uint32_t i = 0; i < seq->row_count; i++) {
        if (strcmp(seq->rows[i].function, "music_sync") != 0)
            continue;
        if (sync)
            crash_in(SEQ_SOURCE, __LINE__, "reel_load_sequence",
                     "there can be at most one \"music_sync\" but there was one on line %d and on line %d\n",
                     (int)sync->line, (int)seq->rows[i].line);
        sync = &seq->rows[i];
    }
    seq->lead_in = 0;
    if (!sync)
        return;
    if (!sync->args)
        crash_in(SEQ_SOURCE, __LINE__, "reel_load_sequence",
                 "\"music_sync\" on line %d in \"%s\" needs the music position in samples as its argument\n",
                 (int)sync->line, file_name);
    const char* cursor = sync->args;
    uint32_t arg_count = 0;
    const int64_t position = parse_arg_int(&arg_count, &cursor, sync);
    const int64_t delay = position - sync->start;
    if (delay < 0) {
        seq->lead_in = (uint32_t)-delay;
        return;
    }
    for (uint32_t i = 0; i < seq->row_count; i++) {
        reel_sequence_row* row = &seq->rows[i];
        row->start = seq_checked_sum(row->start + delay, row, file_name);
        row->end = seq_checked_sum(row->end + delay, row, file_name);
        row->load = seq_checked_sum(row->load + delay, row, file_name);
    }
}

// Windows line ends: a carriage return right before a line feed is part of the line end, so
// the text is read without it (in tmp_arena; line numbers do not change).
static const char* seq_without_crlf(const char* text, xmemarena* tmp_arena)
{
    if (!strstr(text, "\r\n"))
        return text;
    auto* copy = (char*)xmemarena_push(tmp_arena, strlen(text) + 1);
    char* out = copy;
    for (const char* p = text; *p; p++)
        if (p[0] != '\r' || p[1] != '\n')
            *out++ = *p;
    *out = 0;
    return copy;
}

void reel_load_sequence(reel_sequence* seq, const char* text, const char* file_name, xmemarena* arena,
                        xmemarena* tmp_arena)
{
    memset(seq, 0, sizeof(*seq));
    text = seq_without_crlf(text, tmp_arena);
    const size_t length = strlen(text);
    // every line, the last included, ends with a line feed: that is what bounds the row table
    if (length == 0 || text[length - 1] != '\n')
        crash_in(SEQ_SOURCE, __LINE__, "reel_load_sequence",
                 "sequence \"%s\" is empty or does not end with a line feed\n", file_name);
    const char* body = strchr(text, '\n') + 1;  // line 1 is a header

    // Each row, label and barrier takes a line of its own, and no line is read past its line
    // feed, so these counts bound the tables.
    const uint32_t row_capacity = seq_count_char(body, '\n');
    const uint32_t label_capacity = seq_count_char(body, ':');
    const uint32_t barrier_capacity = seq_count_text(body, "barrier,");
    seq->rows = seq_push_table<reel_sequence_row>(arena, row_capacity);
    seq->labels = seq_push_table<reel_sequence_label>(arena, label_capacity);
    seq->barriers = seq_push_table<reel_sequence_barrier>(arena, barrier_capacity);

    seq_reader r = {body, 2, file_name};
    while (*r.p) {
        if (*r.p == '#') {
            seq_skip_to_line_end(&r);
        } else if (strncmp(r.p, "barrier,", 8) == 0) {
            seq_read_barrier(seq, &r, tmp_arena);
        } else if (*r.p != '\n') {
            const char* name = seq_read_label(&r, arena);
            if (name && !name[0])
                crash_in(SEQ_SOURCE, __LINE__, "reel_load_sequence",
                         "found ':' but has no name for the label? on line %d in \"%s\"\n", (int)r.line, file_name);
            if (name)
                seq->labels[seq->label_count++] = {name, r.line, seq->row_count};
            else
                seq_read_row(seq, &r, arena);
        }
        if (*r.p == '\n') {
            r.p++;
            r.line++;
        }
    }

    for (uint32_t i = 0; i < seq->row_count; i++)
        seq_resolve_row(seq, &seq->rows[i], file_name);
    seq_apply_music_sync(seq, file_name);
}
