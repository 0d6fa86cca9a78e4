// Images: a full rectangle of index8 pixels in a linear texture, drawn with a plain clipped blit
// (the starfield's threshold image and the load-progress head frames).
#pragma once

#include <cstdint>

#include "reel.h"

// Copies the image's visible rectangle to (x, y) of fc's framebuffer, clipped to the frame.
// The image must be a linear index8 texture and the framebuffer index8 (fatal otherwise).
void reel_image_draw(n3d_framecontext* fc, uint32_t x, uint32_t y, const reel_image* image);
