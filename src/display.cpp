// Display planes, colour-table hooks, flip and composition.
#include "display.h"

#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#define DISPLAY_X86 1
// compiled for AVX-512 with byte permutes whatever the build's baseline, chosen at run time
#define DISPLAY_AVX512 __attribute__((target("avx512f,avx512bw,avx512vl,avx512vbmi")))
#else
#define DISPLAY_X86 0
#endif

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
    display_use_kernels(DISPLAY_KERNELS_BEST);
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

// The portable composition.
static void display_compose_portable(display_device* device, void* dst, uint32_t dst_pitch)
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

#if DISPLAY_X86
// (GCC 12's AVX-512 headers seed some intrinsics with an undefined register and warn about it)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#ifndef __clang__  // a warning only GCC has
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
// 64 output pixels at a time. Overlay colours come from three 256-byte channel tables (two
// 128-byte byte permutes and a select on the index's top bit each), video colours from three
// 32-entry word tables indexed by the 5-bit channels; a video row is made once, doubled, for
// the two output rows it covers, and the overlay's transparent bytes pick it by mask. Blocks
// of 64 wholly transparent or wholly opaque overlay bytes skip the other side.
DISPLAY_AVX512 static void display_compose_avx512(display_device* device, void* dst, uint32_t dst_pitch)
{
    alignas(64) uint8_t channel[3][256];
    const uint8_t* oc = display_live_overlay.entries;
    for (uint32_t i = 0; i < 256; i++)
        channel[0][i] = oc[i * 4], channel[1][i] = oc[i * 4 + 1], channel[2][i] = oc[i * 4 + 2];
    __m512i table[3][4];
    for (uint32_t c = 0; c < 3; c++)
        for (uint32_t q = 0; q < 4; q++)
            table[c][q] = _mm512_load_si512(channel[c] + q * 64);

    alignas(64) uint32_t video_words[3][32];
    const uint8_t* vc = display_live_video.entries;
    for (uint32_t c = 0; c < 32; c++) {
        const uint32_t e = c * 8 + (c & 7);  // 5 to 8 bits: 0 -> 0, 1 -> 9, 16 -> 128, 31 -> 255
        video_words[0][c] = (uint32_t)vc[e * 4 + 0] << 24;
        video_words[1][c] = (uint32_t)vc[e * 4 + 1] << 16;
        video_words[2][c] = (uint32_t)vc[e * 4 + 2] << 8 | 255u;
    }
    __m512i vtable[3][2];
    for (uint32_t c = 0; c < 3; c++)
        for (uint32_t h = 0; h < 2; h++)
            vtable[c][h] = _mm512_load_si512(video_words[c] + h * 16);

    // after the byte interleaves below, output word j of each 16 comes from this input byte
    alignas(64) uint8_t order[64];
    for (uint32_t lane = 0; lane < 4; lane++)
        for (uint32_t q = 0; q < 4; q++)
            for (uint32_t i = 0; i < 4; i++)
                order[lane * 16 + q * 4 + i] = (uint8_t)(q * 16 + lane * 4 + i);
    const __m512i interleave = _mm512_load_si512(order);
    const __m512i low5 = _mm512_set1_epi32(31);
    const __m512i doubled_low = _mm512_setr_epi32(0, 0, 1, 1, 2, 2, 3, 3, 4, 4, 5, 5, 6, 6, 7, 7);
    const __m512i doubled_high = _mm512_setr_epi32(8, 8, 9, 9, 10, 10, 11, 11, 12, 12, 13, 13, 14, 14, 15, 15);
    const __m512i alpha = _mm512_set1_epi8((char)255);
    const __m512i transparent = _mm512_set1_epi8((char)display_transparent);

    const display_plane* video = display_shown_video(device);
    alignas(64) uint32_t video_row[DISPLAY_OUTPUT_WIDTH];  // one video row, each pixel doubled
    for (uint32_t vy = 0; vy < DISPLAY_VIDEO_HEIGHT; vy++) {
        const auto* vp = (const uint16_t*)(video->pixels + vy * video->pitch);
        for (uint32_t vx = 0; vx < DISPLAY_VIDEO_WIDTH; vx += 16) {
            const __m512i v = _mm512_cvtepu16_epi32(_mm256_loadu_si256((const __m256i*)(vp + vx)));
            const __m512i r = _mm512_and_si512(_mm512_srli_epi32(v, 10), low5);
            const __m512i g = _mm512_and_si512(_mm512_srli_epi32(v, 5), low5);
            const __m512i b = _mm512_and_si512(v, low5);  // permutes read 5 index bits only
            const __m512i rgba = _mm512_or_si512(
                _mm512_or_si512(_mm512_permutex2var_epi32(vtable[0][0], r, vtable[0][1]),
                                _mm512_permutex2var_epi32(vtable[1][0], g, vtable[1][1])),
                _mm512_permutex2var_epi32(vtable[2][0], b, vtable[2][1]));
            _mm512_store_si512(video_row + 2 * vx, _mm512_permutexvar_epi32(doubled_low, rgba));
            _mm512_store_si512(video_row + 2 * vx + 16, _mm512_permutexvar_epi32(doubled_high, rgba));
        }
        for (uint32_t y = vy * 2; y < vy * 2 + 2; y++) {
            const uint8_t* op = device->overlay.pixels + y * device->overlay.pitch;
            auto* out = (uint32_t*)((uint8_t*)dst + (uint64_t)y * dst_pitch);
            for (uint32_t x = 0; x < DISPLAY_OUTPUT_WIDTH; x += 64) {
                const __m512i index = _mm512_loadu_si512(op + x);
                const __mmask64 see_through = _mm512_cmpeq_epi8_mask(index, transparent);
                if (see_through == ~(__mmask64)0) {
                    for (uint32_t j = 0; j < 64; j += 16)
                        _mm512_storeu_si512(out + x + j, _mm512_load_si512(video_row + x + j));
                    continue;
                }
                // the three channel bytes of each index, in interleave order
                const __m512i ordered = _mm512_permutexvar_epi8(interleave, index);
                const __mmask64 upper = _mm512_movepi8_mask(ordered);
                __m512i ch[3];
                for (uint32_t c = 0; c < 3; c++)
                    ch[c] = _mm512_mask_blend_epi8(upper, _mm512_permutex2var_epi8(table[c][0], ordered, table[c][1]),
                                                   _mm512_permutex2var_epi8(table[c][2], ordered, table[c][3]));
                // bytes 255, B, G, R of each word: R << 24 | G << 16 | B << 8 | 255
                const __m512i ab_low = _mm512_unpacklo_epi8(alpha, ch[2]), ab_high = _mm512_unpackhi_epi8(alpha, ch[2]);
                const __m512i gr_low = _mm512_unpacklo_epi8(ch[1], ch[0]), gr_high = _mm512_unpackhi_epi8(ch[1], ch[0]);
                const __m512i words[4] = {_mm512_unpacklo_epi16(ab_low, gr_low), _mm512_unpackhi_epi16(ab_low, gr_low),
                                          _mm512_unpacklo_epi16(ab_high, gr_high),
                                          _mm512_unpackhi_epi16(ab_high, gr_high)};
                for (uint32_t j = 0; j < 4; j++) {
                    const __mmask16 k = (__mmask16)(see_through >> (16 * j));
                    const __m512i rgba = k ? _mm512_mask_blend_epi32(k, words[j], _mm512_load_si512(video_row + x + 16 * j))
                                           : words[j];
                    _mm512_storeu_si512(out + x + 16 * j, rgba);
                }
            }
        }
    }
}
#pragma GCC diagnostic pop
#endif

static display_kernels display_kernels_in_use = DISPLAY_KERNELS_PORTABLE;

display_kernels display_use_kernels(display_kernels wanted)
{
    display_kernels best = DISPLAY_KERNELS_PORTABLE;
#if DISPLAY_X86
    if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
        __builtin_cpu_supports("avx512vl") && __builtin_cpu_supports("avx512vbmi"))
        best = DISPLAY_KERNELS_AVX512;
#endif
    display_kernels_in_use = wanted < best ? wanted : best;
    return display_kernels_in_use;
}

void display_output_rgba(display_device* device, void* dst, uint32_t dst_pitch)
{
#if DISPLAY_X86
    if (display_kernels_in_use == DISPLAY_KERNELS_AVX512) {
        display_compose_avx512(device, dst, dst_pitch);
        return;
    }
#endif
    display_compose_portable(device, dst, dst_pitch);
}
