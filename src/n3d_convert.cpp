// Texture conversion: texel addressing, mip chains, palettes and shade tables.
#include "n3d.h"

#include "diag.h"

uint32_t n3d_bytes_per_texel(N3D_TEXEL_FORMAT format, const char* file, int line, const char* function)
{
    switch (format) {
    case N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555:
    case N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8:
        return 1;
    case N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555:
        return 2;
    case N3D_TEXEL_FORMAT_BUMPMAP:
        return 4;
    default:
        crash_in(file, line, function, "bad N3D_TEXEL_FORMAT %d?\n", (int)format);
    }
}

uint32_t n3d_texel_index(N3D_TEXEL_FORMAT format, uint32_t log2_w, uint32_t swizzled, uint32_t x, uint32_t y)
{
    if (format < N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555 || format > N3D_TEXEL_FORMAT_BUMPMAP)
        crash_in("src/n3d_convert", __LINE__, "n3d_texel_index", "not implemented texture format %d\n", (int)format);
    return swizzled ? n3d_swizzle(x, y) : (y << log2_w) | x;
}

uint32_t n3d_mipmap_size(N3D_TEXEL_FORMAT format, uint32_t swizzled, uint32_t log2_w, uint32_t log2_h)
{
    if (!swizzled)
        return (1u << log2_w << log2_h) *
               n3d_bytes_per_texel(format, "src/n3d_convert", __LINE__, "n3d_mipmap_size");
    const uint32_t last = n3d_swizzle((1u << log2_w) - 1, (1u << log2_h) - 1);
    switch (format) {
    case N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555:
    case N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8:
        return last + 1;
    case N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555:
        return 2 * last + 2;
    default:
        crash_in("src/n3d_convert", __LINE__, "n3d_mipmap_size", "not implemented texture format %d\n", (int)format);
    }
}
