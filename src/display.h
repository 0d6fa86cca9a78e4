// The emulated two-plane display: a 640 x 480 overlay of 8-bit colour indices with one
// transparent index, over a double-buffered 320 x 240 ARGB1555 video plane shown at twice its
// size. Colour tables live in the display's "registers" (one set per process) and are changed
// only through the device's hooks; composition writes the 640 x 480 RGBA8888 image the host
// scales to the window. No SDL in here: tests and headless hosts drive it directly.
#pragma once

#include <cstdint>

#include "memarena.h"

constexpr uint32_t DISPLAY_OVERLAY_WIDTH = 640;
constexpr uint32_t DISPLAY_OVERLAY_HEIGHT = 480;
constexpr uint32_t DISPLAY_OVERLAY_PITCH = 640;
constexpr uint32_t DISPLAY_VIDEO_WIDTH = 320;
constexpr uint32_t DISPLAY_VIDEO_HEIGHT = 240;
constexpr uint32_t DISPLAY_VIDEO_PITCH = 1024;  // 512 pixels' room per row, 320 shown
constexpr uint32_t DISPLAY_VIDEO_BUFFER_BYTES = DISPLAY_VIDEO_PITCH * DISPLAY_VIDEO_HEIGHT;
constexpr uint32_t DISPLAY_OUTPUT_WIDTH = 640;
constexpr uint32_t DISPLAY_OUTPUT_HEIGHT = 480;
constexpr uint32_t DISPLAY_CLUT_ENTRIES = 256;
constexpr uint32_t DISPLAY_VIDEO_COLORS = 32768;  // 15-bit colours: alpha is not shown
static_assert(DISPLAY_VIDEO_BUFFER_BYTES == 0x3c000);

// A colour-table fragment: entries [first, first + count) of a 256-entry table, each 4 bytes
// red, green, blue, alpha.
struct reel_palette {
    uint32_t first;
    uint32_t count;
    uint8_t* entries;  // count x 4 bytes
};

struct display_plane {
    uint8_t* pixels;  // first byte of row 0
    uint32_t pitch;   // bytes per row
    uint32_t width;
    uint32_t height;
};

struct display_device;
typedef uint32_t display_clut_set_fn(display_device* device, uint32_t first, uint32_t count, const uint8_t* src);
typedef uint32_t display_clut_get_fn(display_device* device, uint32_t first, uint32_t count, uint8_t* dst);
typedef void display_transparent_fn(display_device* device, uint32_t index);

struct display_device {
    display_plane overlay;
    display_plane video[2];
    uint32_t back_index;  // the video buffer the engine draws into this frame
    reel_palette default_overlay_clut;
    reel_palette default_video_clut;
    display_clut_set_fn* set_overlay_clut;
    display_clut_set_fn* set_video_clut;
    display_clut_get_fn* get_overlay_clut;
    display_clut_get_fn* get_video_clut;
    display_transparent_fn* set_transparent_index;
    // composition cache: the output word of every 15-bit video colour, rebuilt only when the
    // live video CLUT differs from the copy it was built from
    uint32_t* video_rgba;      // 32768 entries
    uint8_t* video_rgba_clut;  // 1024 bytes
    uint32_t video_rgba_valid;
};

void display_init(display_device* device, xmemarena* arena);

// The composition kernels: portable, or 64 output pixels at a time with AVX-512 (byte table
// look-ups) on x86-64 processors that have it. display_init picks the best the processor has;
// both write exactly the same pixels, so a lower one is only asked for to compare them.
enum display_kernels : uint32_t {
    DISPLAY_KERNELS_PORTABLE = 0,
    DISPLAY_KERNELS_AVX512 = 1,
    DISPLAY_KERNELS_BEST = DISPLAY_KERNELS_AVX512,
};
// Uses the best kernels the processor has up to `wanted`; returns the ones now in use.
display_kernels display_use_kernels(display_kernels wanted);
void display_flip(display_device* device);
// Composes overlay over video into 640 x 480 pixels of R << 24 | G << 16 | B << 8 | 255.
void display_output_rgba(display_device* device, void* dst, uint32_t dst_pitch);

// The display "registers" shared by every device: live CLUTs (256 x RGBA) and the
// transparent index. Read-only views for the engine's debug output and for tests.
const uint8_t* display_live_overlay_clut();
const uint8_t* display_live_video_clut();
uint8_t display_transparent_index();
// The video buffer the composition shows: the one drawn before the latest flip.
static inline const display_plane* display_shown_video(const display_device* device)
{
    return &device->video[device->back_index ? 0 : 1];
}
