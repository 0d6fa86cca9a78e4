// Run-length encoding in two passes over the same rows: the first counts the bytes, the second
// writes them into exactly that much arena memory.
#include "rle_image_encode.h"

#include <cstdio>
#include <cstdlib>

#include "reel_rle_image.h"

// Encodes one row; with out null only counts. Returns the bytes the row takes.
static uint32_t reel_rle_encode_row(uint8_t* out, const uint8_t* row, uint32_t length, uint8_t key)
{
    uint32_t key_pixels = 0;
    while (key_pixels < length && row[key_pixels] == key)
        key_pixels++;
    if (key_pixels == length) {
        if (out)
            out[0] = REEL_RLE_EMPTY_ROW;
        return 1;
    }
    uint32_t bytes = 0;
    for (uint32_t x = 0; x < length;) {
        uint32_t n = 0;
        uint8_t first, second;
        while (x + n < length && n < REEL_RLE_MAX_RUN && row[x + n] == key)
            n++;
        if (n > 0) {
            first = REEL_RLE_SKIP, second = (uint8_t)n;
        } else {
            const uint8_t c = row[x];
            while (x + n < length && n < REEL_RLE_MAX_RUN && row[x + n] == c)
                n++;
            first = (uint8_t)n, second = c;
        }
        if (out)
            out[bytes] = first, out[bytes + 1] = second;
        bytes += 2;
        x += n;
    }
    return bytes;
}

void reel_rle_image_from_framebuffer(reel_rle_image* image, xmemarena* arena, const n3d_framebuffer* fb, uint8_t key)
{
    if (fb->format != N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8) {
        printf("only N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8 framebuffer supported for now!\n");
        fflush(stdout);
        exit(1);
    }
    const uint32_t length = (uint32_t)fb->row_bytes;
    uint64_t size = 0;
    for (int32_t y = 0; y < fb->height; y++)
        size += reel_rle_encode_row(nullptr, fb->pixels + (int64_t)y * fb->row_bytes, length, key);
    if (size > UINT32_MAX)
        crash_in("prep/rle_image_encode", __LINE__, "reel_rle_image_from_framebuffer",
                 "encoding of %llu bytes does not fit a run-length image\n", (unsigned long long)size);
    auto* data = (uint8_t*)xmemarena_push(arena, size);
    uint8_t* out = data;
    for (int32_t y = 0; y < fb->height; y++)
        out += reel_rle_encode_row(out, fb->pixels + (int64_t)y * fb->row_bytes, length, key);
    image->width = (uint32_t)fb->width;
    image->height = (uint32_t)fb->height;
    image->size = (uint32_t)size;
    image->data = data;
}
