// Image drawing: the checks a caller's data must pass, then one unscaled blit of the texture's
// first level.
#include "reel_image.h"

#include "n2d.h"

static const char* const REEL_IMAGE_FILE = "src/reel_image";

static bool reel_image_is_index8(uint32_t format)
{
    return format == N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555 || format == N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8;
}

void reel_image_draw(n3d_framecontext* fc, uint32_t x, uint32_t y, const reel_image* image)
{
    const n3d_texture* t = &image->texture;
    if (!t->linear)
        crash_in(REEL_IMAGE_FILE, __LINE__, "reel_image_draw", "reel_image_draw: only unswizzled texture supported\n");
    if (!reel_image_is_index8(t->format))
        crash_in(REEL_IMAGE_FILE, __LINE__, "reel_image_draw", "reel_image_draw: only index8 texture supported\n");
    if (!reel_image_is_index8(fc->framebuffer->format))
        crash_in(REEL_IMAGE_FILE, __LINE__, "reel_image_draw", "reel_image_draw: only index8 frame context supported\n");
    // the position is unsigned; as a signed rectangle a value past 2^31 lies left of or above the
    // frame and is clipped away there
    const int32_t x0 = (int32_t)x, y0 = (int32_t)y;
    const int64_t x1 = (int64_t)x0 + image->width, y1 = (int64_t)y0 + image->height;
    n2d_blit_buffer_index8(fc, (const uint8_t*)t->mips[0], 1 << t->log2_w, x0, y0,
                           (int32_t)(x1 > INT32_MAX ? INT32_MAX : x1), (int32_t)(y1 > INT32_MAX ? INT32_MAX : y1), 0,
                           (int32_t)image->height);
}
