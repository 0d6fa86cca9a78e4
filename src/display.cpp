// Display planes, colour-table hooks, flip and composition.
#include "display.h"

#include <cstring>

// The display "registers": one set per process, shared by every device.
static reel_palette display_live_overlay;
static reel_palette display_live_video;
static uint8_t display_transparent = 0;

static uint32_t display_set_overlay_clut(display_device*, uint32_t first, uint32_t count, const uint8_t* src)
{
    memcpy(display_live_overlay.entries + first * 4, src, count * 4);
    return count * 4;
}

static uint32_t display_set_video_clut(display_device*, uint32_t first, uint32_t count, const uint8_t* src)
{
    memcpy(display_live_video.entries + first * 4, src, count * 4);
    return count * 4;
}

static uint32_t display_get_overlay_clut(display_device*, uint32_t first, uint32_t count, uint8_t* dst)
{
    memcpy(dst, display_live_overlay.entries + first * 4, count * 4);
    return count * 4;
}

static uint32_t display_get_video_clut(display_device*, uint32_t first, uint32_t count, uint8_t* dst)
{
    memcpy(dst, display_live_video.entries + first * 4, count * 4);
    return count * 4;
}

static void display_set_transparent_index(display_device*, uint32_t index) { display_transparent = (uint8_t)index; }

static void display_palette_init_grey(reel_palette* palette, xmemarena* arena)
{
    palette->first = 0;
    palette->count = DISPLAY_CLUT_ENTRIES;
    palette->entries = (uint8_t*)xmemarena_push_zero(arena, DISPLAY_CLUT_ENTRIES * 4);
    for (uint32_t i = 0; i < DISPLAY_CLUT_ENTRIES; i++) {
        palette->entries[i * 4 + 0] = (uint8_t)i;
        palette->entries[i * 4 + 1] = (uint8_t)i;
        palette->entries[i * 4 + 2] = (uint8_t)i;
        palette->entries[i * 4 + 3] = 255;
    }
}

void display_init(display_device* device, xmemarena* arena)
{
    memset(device, 0, sizeof(*device));
    device->set_overlay_clut = display_set_overlay_clut;
    device->set_video_clut = display_set_video_clut;
    device->get_overlay_clut = display_get_overlay_clut;
    device->get_video_clut = display_get_video_clut;
    device->set_transparent_index = display_set_transparent_index;

    display_palette_init_grey(&display_live_overlay, arena);
    display_palette_init_grey(&display_live_video, arena);
    display_palette_init_grey(&device->default_overlay_clut, arena);
    display_palette_init_grey(&device->default_video_clut, arena);

    device->overlay.pitch = DISPLAY_OVERLAY_PITCH;
    device->overlay.width = DISPLAY_OVERLAY_WIDTH;
    device->overlay.height = DISPLAY_OVERLAY_HEIGHT;
    device->overlay.pixels = (uint8_t*)xmemarena_push_zero(arena, DISPLAY_OVERLAY_PITCH * DISPLAY_OVERLAY_HEIGHT);
    for (display_plane& video : device->video) {
        video.pitch = DISPLAY_VIDEO_PITCH;
        video.width = DISPLAY_VIDEO_WIDTH;
        video.height = DISPLAY_VIDEO_HEIGHT;
        video.pixels = (uint8_t*)xmemarena_push_zero(arena, DISPLAY_VIDEO_BUFFER_BYTES);
    }
    memset(device->overlay.pixels, display_transparent, DISPLAY_OVERLAY_PITCH * DISPLAY_OVERLAY_HEIGHT);
    device->back_index = 0;
    device->video_rgba = (uint32_t*)xmemarena_push_align(arena, DISPLAY_VIDEO_COLORS * 4, 64);
    device->video_rgba_clut = (uint8_t*)xmemarena_push_zero(arena, DISPLAY_CLUT_ENTRIES * 4);
    device->video_rgba_valid = 0;
}

void display_flip(display_device* device) { device->back_index = 1 - device->back_index; }

const uint8_t* display_live_overlay_clut() { return display_live_overlay.entries; }
const uint8_t* display_live_video_clut() { return display_live_video.entries; }
uint8_t display_transparent_index() { return display_transparent; }

// true when any byte of v is zero (exact, not the cheap approximation)
static inline bool display_has_zero_byte(uint64_t v)
{
    return ((v - 0x0101010101010101ull) & ~v & 0x8080808080808080ull) != 0;
}

void display_output_rgba(display_device* device, void* dst, uint32_t dst_pitch)
{
    // Per frame, the CLUTs become ready-made output words, so that a pixel costs one lookup
    // (overlay) or three lookups and two ORs per video pixel, shared by the 2 x 2 output
    // pixels it covers.
    uint32_t overlay_rgba[256];
    const uint8_t* oc = display_live_overlay.entries;
    for (uint32_t i = 0; i < 256; i++)
        overlay_rgba[i] = (uint32_t)oc[i * 4] << 24 | (uint32_t)oc[i * 4 + 1] << 16 | (uint32_t)oc[i * 4 + 2] << 8 | 255u;

    // The video CLUT becomes one output word per 15-bit colour, rebuilt only when the CLUT
    // changed since the last frame; a video pixel then costs one look-up.
    const uint8_t* vc = display_live_video.entries;
    if (!device->video_rgba_valid || memcmp(device->video_rgba_clut, vc, DISPLAY_CLUT_ENTRIES * 4) != 0) {
        uint32_t red[32], green[32], blue[32];
        for (uint32_t c = 0; c < 32; c++) {
            const uint32_t e = c * 8 + (c & 7);  // 5 to 8 bits: 0 -> 0, 1 -> 9, 16 -> 128, 31 -> 255
            red[c] = (uint32_t)vc[e * 4 + 0] << 24;
            green[c] = (uint32_t)vc[e * 4 + 1] << 16;
            blue[c] = (uint32_t)vc[e * 4 + 2] << 8 | 255u;
        }
        uint32_t* lut = device->video_rgba;
        for (uint32_t r = 0; r < 32; r++)
            for (uint32_t g = 0; g < 32; g++) {
                const uint32_t rg = red[r] | green[g];
                for (uint32_t b = 0; b < 32; b++)
                    *lut++ = rg | blue[b];
            }
        memcpy(device->video_rgba_clut, vc, DISPLAY_CLUT_ENTRIES * 4);
        device->video_rgba_valid = 1;
    }
    const uint32_t* video_rgba = device->video_rgba;

    const uint8_t transparent = display_transparent;
    const uint64_t transparent8 = 0x0101010101010101ull * transparent;
    const display_plane* video = display_shown_video(device);
    uint32_t video_row[DISPLAY_OUTPUT_WIDTH];  // one video row, each pixel doubled

    for (uint32_t vy = 0; vy < DISPLAY_VIDEO_HEIGHT; vy++) {
        const auto* vp = (const uint16_t*)(video->pixels + vy * video->pitch);
        for (uint32_t vx = 0; vx < DISPLAY_VIDEO_WIDTH; vx++) {
            const uint32_t rgba = video_rgba[vp[vx] & 0x7FFF];  // the alpha bit is not shown
            video_row[2 * vx] = rgba;
            video_row[2 * vx + 1] = rgba;
        }
        for (uint32_t y = vy * 2; y < vy * 2 + 2; y++) {
            const uint8_t* op = device->overlay.pixels + y * device->overlay.pitch;
            auto* out = (uint32_t*)((uint8_t*)dst + (uint64_t)y * dst_pitch);
            for (uint32_t x = 0; x < DISPLAY_OUTPUT_WIDTH; x += 8) {
                uint64_t word;
                memcpy(&word, op + x, 8);
                const uint64_t diff = word ^ transparent8;  // zero bytes: transparent pixels
                if (diff == 0) {
                    memcpy(out + x, video_row + x, 32);
                } else if (!display_has_zero_byte(diff)) {
                    for (uint32_t k = 0; k < 8; k++)
                        out[x + k] = overlay_rgba[op[x + k]];
                } else {
                    // mixed block: select by mask, no branch per pixel to mispredict
                    for (uint32_t k = 0; k < 8; k++) {
                        const uint8_t i = op[x + k];
                        const uint32_t show_video = 0u - (uint32_t)(i == transparent);
                        out[x + k] = (overlay_rgba[i] & ~show_video) | (video_row[x + k] & show_video);
                    }
                }
            }
        }
    }
}
