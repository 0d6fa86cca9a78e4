// Stroke state and drawing. Every frame builds the current reveal mask from the shape 32 pixels
// per word (n2d_cb_from_texture_i8_range), then fills or restores only the masked runs.
#include "reel_stroke.h"

#include <cmath>
#include <cstring>
#include <utility>

#include "n2d.h"

static const char* const REEL_STROKE_FILE = "src/reel_stroke";

constexpr int32_t REEL_STROKE_FIRST_TEXEL = 1;  // texel 0 is outside the shape
constexpr int32_t REEL_STROKE_LAST_TEXEL = 255;
constexpr double REEL_STROKE_EXPONENT = 0.41666;  // as the curve was tuned, not 1 / 2.4

float reel_envelope(float e, float a, float h, float r)
{
    if (e < 0.0f)
        return 0.0f;
    if (e < a)
        return 255.0f * e / a;
    if (e < a + h)
        return 255.0f;
    if (e >= a + h + r)
        return 0.0f;
    return 255.0f * (1.0f - (e - a - h) / r);
}

int32_t reel_stroke_threshold(int32_t level)
{
    const double v = (double)level / 255.0;
    double s;
    if (std::isnan(v) || v <= 0.0)
        s = 0.0;
    else if (v > 1.0)
        s = 1.0;
    else if (v < 0.0031308)
        s = 12.92 * v;
    else
        s = 1.055 * pow(v, REEL_STROKE_EXPONENT) - 0.055;
    return (int32_t)(255.0 * s);
}

void reel_stroke_init(reel_stroke* stroke, const reel_image* image, xmemarena* arena)
{
    memset(stroke, 0, sizeof(*stroke));
    const n3d_texture* t = &image->texture;
    if (!t->linear || t->format != N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8 || t->log2_w < 5)
        crash_in(REEL_STROKE_FILE, __LINE__, "reel_stroke_init",
                 "stroke image must be a linear index8 texture (format 3) at least 32 texels wide "
                 "(format %d, %s, %u texels wide)\n",
                 (int)t->format, t->linear ? "linear" : "swizzled", 1u << t->log2_w);
    stroke->image = image;
    const uint32_t w = 1u << t->log2_w, h = 1u << t->log2_h;
    n3d_coverage_buffer_init(&stroke->shape, w, h, arena);
    n3d_coverage_buffer_init(&stroke->masks[0], w, h, arena);
    n3d_coverage_buffer_init(&stroke->masks[1], w, h, arena);
    // the shape is every non-zero texel: selected through a mask of all ones, lent for the moment
    memset(stroke->masks[1].bits, 0xFF, (size_t)(w / 32) * 4 * h);
    n2d_cb_from_texture_i8_range(&stroke->shape, &stroke->masks[1], t, REEL_STROKE_FIRST_TEXEL, REEL_STROKE_LAST_TEXEL,
                                 0, (int32_t)h);
    n2d_cb_clear(&stroke->masks[1]);
}

// Swaps the reveal masks and makes the current one the shape's texels from low to high. All
// of the mask's rows, not only those the frame shows: a mask placed above the frame's top
// must not bring rows of an older frame into view.
static const n3d_coverage_buffer* reel_stroke_mask(reel_stroke* stroke, int32_t low, int32_t high)
{
    std::swap(stroke->masks[0], stroke->masks[1]);
    n3d_coverage_buffer* mask = &stroke->masks[0];
    n2d_cb_from_texture_i8_range(mask, &stroke->shape, &stroke->image->texture, low, high, 0, (int32_t)mask->height);
    return mask;
}

void reel_stroke_draw(reel_stroke* stroke, int32_t level, uint8_t color, n3d_framebuffer* fb,
                      n3d_coverage_buffer* coverage, int32_t x, int32_t y, int32_t first_row, int32_t row_count)
{
    const int32_t threshold = reel_stroke_threshold(level);
    const n3d_coverage_buffer* mask = reel_stroke_mask(stroke, REEL_STROKE_FIRST_TEXEL, threshold);
    n2d_fb_i8_and_cb_mask_fill_if_cb0(fb, coverage, x, y, color, mask, first_row, row_count);
}

void reel_stroke_erase(reel_stroke* stroke, int32_t level, n3d_framebuffer* fb, n3d_coverage_buffer* coverage,
                       const n3d_framebuffer* src, int32_t x, int32_t y, int32_t first_row, int32_t row_count)
{
    const int32_t threshold = reel_stroke_threshold(level);
    const n3d_coverage_buffer* mask = reel_stroke_mask(stroke, threshold, REEL_STROKE_LAST_TEXEL);
    n2d_fb_i8_and_cb_mask_copy_if_cb0(fb, coverage, x, y, src, mask, first_row, row_count);
}
