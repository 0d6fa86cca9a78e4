// The run-length encoder of asset preparation: an index8 framebuffer becomes a run-length image
// whose key-coloured pixels are transparent.
#pragma once

#include <cstdint>

#include "reel.h"

// Encodes fb (format 3, else a message and exit status 1) into image, the data pushed from
// arena: exactly as many bytes as the encoding needs. Each row is row_bytes pixels long, so
// the framebuffer's row_bytes should equal its width.
void reel_rle_image_from_framebuffer(reel_rle_image* image, xmemarena* arena, const n3d_framebuffer* fb,
                                     uint8_t key);
