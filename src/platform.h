// The pure pieces of the host's frame loop, kept apart from SDL so that tests can call them:
// where the 640 x 480 composition lands in the window, how the mouse position is scaled, and
// how the keyboard state becomes the engine's key table.
#pragma once

#include <cstdint>

constexpr uint32_t PLATFORM_FRAMEBUFFER_WIDTH = 640;
constexpr uint32_t PLATFORM_FRAMEBUFFER_HEIGHT = 480;
constexpr uint32_t PLATFORM_NOMINAL_WINDOW_WIDTH = 640;  // used only to scale the mouse
constexpr uint32_t PLATFORM_NOMINAL_WINDOW_HEIGHT = 480;
constexpr uint32_t PLATFORM_KEY_TABLE_SIZE = 256;
constexpr int32_t PLATFORM_SCANCODE_ESCAPE = 41;
constexpr int32_t PLATFORM_KEY_ESCAPE = 27;
constexpr int32_t PLATFORM_KEY_M = 109;
constexpr uint32_t PLATFORM_FRAMES_PER_SECOND = 60;

struct platform_rect {
    int32_t x, y, w, h;
};

// The composition scaled to the full window height at 4:3 and centred; on a window narrower
// than 4:3 x is negative and the blit clips the sides.
platform_rect platform_destination_rect(int32_t window_w, int32_t window_h);

// Window mouse position to framebuffer position, in single precision and truncated
// (x comes out unchanged, some y one less: 63 gives 62).
int32_t platform_scale_mouse_x(int32_t x);
int32_t platform_scale_mouse_y(int32_t y);

typedef int32_t platform_key_from_scancode_fn(int32_t scancode);

// Rebuilds the key table (256 bytes, by key code) from a keyboard state array of n
// scancodes. Returns 1 when Escape is held: the loop must quit at once (the table is then
// left as far as it got), else 0.
uint32_t platform_fill_key_table(uint8_t* key_table, const uint8_t* state, int32_t n,
                                 platform_key_from_scancode_fn* key_from_scancode);

// Whether a loop pass presents a frame: strictly more than one frame's ticks since the last.
static inline bool platform_frame_due(uint64_t now, uint64_t last, uint64_t ticks_per_frame)
{
    return now - last > ticks_per_frame;
}

// ---- where the packs are, and what a run looked like ----

constexpr uint32_t PLATFORM_PATH_MAX = 4096;
constexpr uint32_t PLATFORM_PACK_PLACES = 3;

// The folders tried for the show's packs, in order: the pack folder relative to the working
// folder (where the show has always looked), then beside the executable, then in the
// executable folder's parent (a build folder inside the repository).
struct platform_pack_search {
    char tried[PLATFORM_PACK_PLACES][PLATFORM_PATH_MAX];
    uint32_t tried_count;
    int32_t found;  // index into tried of the first folder holding the first pack, -1 for none
};

// folder: the pack folder ("assets/reel/le"); first_pack: the name of pack 0; exe_dir: the
// executable's folder ending in '/', or null when unknown (only the working folder is tried).
void platform_find_packs(platform_pack_search* search, const char* folder, const char* first_pack,
                         const char* exe_dir);

// Presented frames and the time between them, in performance-counter ticks.
struct platform_frame_stats {
    uint64_t frames;
    uint64_t ticks_sum;
    uint64_t ticks_worst;
    uint64_t last;  // tick of the previous frame, or of the loop's start
};

void platform_frame_stats_add(platform_frame_stats* stats, uint64_t now);
// "played S s: N frames presented, frame time mean M ms, worst W ms\n" on standard output.
void platform_print_summary(const platform_frame_stats* stats, uint64_t loop_ticks, uint64_t ticks_per_second);
