// What the headless capture measures and draws besides the frames themselves: a running hash of
// what it composed and mixed (two runs that made the same pictures and sound end with the same
// hash), the summary of the per-frame cost (mean, 99th percentile, maximum), and the contact
// sheet, one picture of small frames labelled with their show times.
#pragma once

#include <cstddef>
#include <cstdint>

struct bitmap;
struct xmemarena;

// ---- hashes ----

constexpr uint64_t CAPTURE_HASH_SEED = 0x9E3779B97F4A7C15ull;

// Folds bytes into h, eight at a time with a multiply and a rotation (the tail byte by byte);
// fast enough for every composed frame. Not for security: only to tell runs apart.
uint64_t capture_hash(uint64_t h, const void* data, size_t bytes);

// ---- per-frame cost ----

struct capture_cost_summary {
    uint64_t count;
    double mean;
    uint64_t p99;  // nearest rank: the smallest value that at least 99 % of the values do not exceed
    uint64_t max;
};

// Sorts values (count of them) in place and summarises them; a count of 0 gives all zeros.
capture_cost_summary capture_cost_summarise(uint64_t* values, uint64_t count);

// The index of the largest of count values, the first of equal ones; count when all are 0.
uint32_t capture_slowest_index(const uint64_t* values, uint32_t count);

// A frame's line of the per-frame cost file: "NNNNNN total update render compose function\n",
// the frame number in six or more digits and the four costs in ms with three decimals (the
// whole frame, its update passes, its render pass, its flip and composition). Returns its
// length; the line (at most CAPTURE_COST_LINE_MAX bytes with its NUL) is cut short if the
// function's name is too long.
constexpr size_t CAPTURE_COST_LINE_MAX = 160;
size_t capture_cost_line(char* line, uint64_t frame, const double ms[4], const char* function);

// ---- contact sheet ----

constexpr uint32_t CONTACT_SHEET_SCALE = 4;  // a thumbnail pixel is the mean of 4 x 4 frame pixels
constexpr uint32_t CONTACT_SHEET_THUMB_WIDTH = 640 / CONTACT_SHEET_SCALE;
constexpr uint32_t CONTACT_SHEET_THUMB_HEIGHT = 480 / CONTACT_SHEET_SCALE;
constexpr uint32_t CONTACT_SHEET_THUMB_BYTES = CONTACT_SHEET_THUMB_WIDTH * CONTACT_SHEET_THUMB_HEIGHT * 3;
constexpr uint32_t CONTACT_SHEET_COLUMNS = 6;
constexpr uint32_t CONTACT_SHEET_GAP = 4;            // pixels between and around the cells
constexpr uint32_t CONTACT_SHEET_DIGIT_SCALE = 2;    // the 3 x 5 digits drawn at 6 x 10
constexpr uint32_t CONTACT_SHEET_LABEL_HEIGHT = 5 * CONTACT_SHEET_DIGIT_SCALE + 4;
constexpr uint8_t CONTACT_SHEET_BACKGROUND = 32;     // dark grey between the cells
constexpr uint8_t CONTACT_SHEET_INK = 255;           // white labels

// One thumbnail (RGB, CONTACT_SHEET_THUMB_BYTES) of a 640 x 480 composition whose 32-bit values
// are R << 24 | G << 16 | B << 8 | 255: each channel the rounded mean of a 4 x 4 block.
void contact_sheet_thumbnail(uint8_t* thumb, const uint32_t* rgba);

// Writes "m:ss" of seconds into text (at least 16 bytes): 0:00, 1:05, 12:00.
void contact_sheet_time_text(char* text, uint32_t seconds);

// Draws text of digits and colons with the built-in 3 x 5 font at (x, y) of an RGB picture of
// row_bytes per row, scaled by CONTACT_SHEET_DIGIT_SCALE, in CONTACT_SHEET_INK; returns the
// width drawn. Other characters leave a blank of a character's width.
uint32_t contact_sheet_draw_text(uint8_t* rgb, uint32_t row_bytes, uint32_t x, uint32_t y, const char* text);

// The sheet: count thumbnails (one after the other in thumbs) in rows of CONTACT_SHEET_COLUMNS,
// each with its time (seconds[i]) written under it. From arena.
bitmap* contact_sheet_compose(xmemarena* arena, const uint8_t* thumbs, const uint32_t* seconds, uint32_t count);
