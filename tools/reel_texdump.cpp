// reel_texdump: converts a PNG into a texture exactly as the engine does and writes what came
// out back as pictures a person can look at: every level as level_w<W>_h<H>.png (swizzled order
// undone, palettes and display indices looked up, bump texels drawn as a normal map) and the
// shade table as shades.png (colours down, shades across). `--flare` does the same for the
// built-in flare in formats 1 and 2, as the rasterizer benchmark converts it.
#include <sys/stat.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bitmap.h"
#include "memarena.h"
#include "n3d.h"
#include "n3d_convert.h"

// Taken once at start; untouched pages cost nothing, so they are generous enough for 2048 x 2048.
constexpr uint64_t TEXDUMP_IMAGE_BYTES = 64ull << 20;
constexpr uint64_t TEXDUMP_TEXTURE_BYTES = 128ull << 20;
constexpr uint64_t TEXDUMP_TMP_BYTES = 512ull << 20;
constexpr uint32_t TEXDUMP_SHADE_CELL_W = 8;  // shades.png draws each table entry as an 8 x 2 block
constexpr uint32_t TEXDUMP_SHADE_CELL_H = 2;

struct texdump_options {
    const char* input;
    const char* outdir;
    N3D_TEXEL_FORMAT format;
    uint32_t swizzle;
    uint32_t mips;
    uint32_t mips_from_full;
    uint32_t transparent_index;
    float alpha_threshold;
    uint32_t flare;
};

struct texdump_arenas {
    xmemarena image;
    xmemarena texture;
    xmemarena tmp;
};

static int texdump_usage()
{
    printf("usage: reel_texdump INPUT.png OUTDIR [--format 1|2|3|4] [--swizzle] [--mips] [--mips-from-full]\n"
           "                    [--transparent N] [--alpha-threshold F]\n"
           "       reel_texdump --flare OUTDIR\n"
           "Converts the picture to a texture and writes each level as OUTDIR/level_w<W>_h<H>.png and the\n"
           "shade table as OUTDIR/shades.png (colours down, shades across).\n"
           "  --format 1  8-bit palette of ARGB1555 colours (default)   2  ARGB1555\n"
           "           3  8-bit display indices, shown through a grey ramp   4  bump map (never swizzled)\n"
           "  --transparent N      index of pixels whose alpha is below the threshold (formats 1 and 3);\n"
           "                       texels holding it are drawn transparent\n"
           "  --alpha-threshold F  default 0.5\n"
           "--flare converts the built-in flare to formats 1 and 2, swizzled with mips, into\n"
           "OUTDIR/format1 and OUTDIR/format2, and writes the flare itself as OUTDIR/flare.png.\n");
    return 1;
}

static int texdump_parse_u32(const char* text, uint32_t* out)
{
    char* end = nullptr;
    errno = 0;
    const unsigned long long v = strtoull(text, &end, 0);
    if (errno || end == text || *end || text[0] == '-' || v > 0xFFFFFFFFull)
        return 0;
    *out = (uint32_t)v;
    return 1;
}

static int texdump_parse_args(texdump_options* o, int argc, char** argv)
{
    memset(o, 0, sizeof(*o));
    o->format = N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555;
    o->transparent_index = N3D_TRANSPARENT_INDEX_NONE;
    o->alpha_threshold = 0.5f;
    if (argc == 3 && strcmp(argv[1], "--flare") == 0) {
        o->flare = 1;
        o->outdir = argv[2];
        return 1;
    }
    if (argc < 3 || argv[1][0] == '-' || argv[2][0] == '-')
        return 0;
    o->input = argv[1];
    o->outdir = argv[2];
    for (int i = 3; i < argc; ++i) {
        const char* a = argv[i];
        const int has_value = i + 1 < argc;
        if (strcmp(a, "--swizzle") == 0) {
            o->swizzle = 1;
        } else if (strcmp(a, "--mips") == 0) {
            o->mips = 1;
        } else if (strcmp(a, "--mips-from-full") == 0) {
            o->mips = 1;  // levels from the full size need levels in the first place
            o->mips_from_full = 1;
        } else if (strcmp(a, "--format") == 0 && has_value) {
            if (!texdump_parse_u32(argv[++i], &o->format) || o->format < 1 || o->format > 4)
                return 0;
        } else if (strcmp(a, "--transparent") == 0 && has_value) {
            if (!texdump_parse_u32(argv[++i], &o->transparent_index))
                return 0;
        } else if (strcmp(a, "--alpha-threshold") == 0 && has_value) {
            char* end = nullptr;
            const char* text = argv[++i];
            o->alpha_threshold = strtof(text, &end);
            if (end == text || *end || !std::isfinite(o->alpha_threshold))
                return 0;
        } else {
            return 0;
        }
    }
    if (o->format == N3D_TEXEL_FORMAT_BUMPMAP && o->swizzle) {
        printf("reel_texdump: bump maps are never swizzled\n");
        return 0;
    }
    return 1;
}

static int texdump_make_dir(const char* path)
{
    if (mkdir(path, 0777) == 0 || errno == EEXIST)
        return 1;
    printf("reel_texdump: cannot create %s: %s\n", path, strerror(errno));
    return 0;
}

static uint8_t texdump_5bit_to_byte(uint32_t v) { return (uint8_t)((v * 255 + 15) / 31); }

static void texdump_argb1555_to_rgba(uint8_t* out, uint16_t v)
{
    out[0] = texdump_5bit_to_byte((v >> 10) & 31);
    out[1] = texdump_5bit_to_byte((v >> 5) & 31);
    out[2] = texdump_5bit_to_byte(v & 31);
    out[3] = (v & 0x8000) ? 255 : 0;
}

static void texdump_display_index_to_rgba(uint8_t* out, uint8_t index, const n3d_display_clut* clut)
{
    if (index < clut->first_index || index >= clut->first_index + clut->count) {
        out[0] = 255, out[1] = 0, out[2] = 255, out[3] = 255;  // magenta: outside the CLUT, should not happen
        return;
    }
    memcpy(out, clut->colors + 4 * (index - clut->first_index), 4);
}

// The signed x and y of the bump texel, z rebuilt, drawn the usual way: (n + 1) / 2 per channel.
static void texdump_bump_to_rgba(uint8_t* out, uint32_t texel)
{
    const float nx = (float)(int8_t)(texel >> 24) / 127.0f;
    const float ny = (float)(int8_t)(texel >> 16) / 127.0f;
    const float zz = 1.0f - nx * nx - ny * ny;
    const float n[3] = {nx, ny, zz > 0.0f ? sqrtf(zz) : 0.0f};
    for (int i = 0; i < 3; ++i) {
        const float v = (n[i] * 0.5f + 0.5f) * 255.0f + 0.5f;
        out[i] = (uint8_t)(v < 0.0f ? 0.0f : (v > 255.0f ? 255.0f : v));
    }
    out[3] = 255;
}

static void texdump_texel_to_rgba(uint8_t* out, const n3d_texture* t, const void* block, uint32_t index,
                                  const n3d_display_clut* clut, uint32_t transparent_index)
{
    const uint32_t indexed = t->format == N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555 ||
                             t->format == N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8;
    if (indexed && ((const uint8_t*)block)[index] == transparent_index) {  // shown as the engine skips it
        memset(out, 0, 4);
        return;
    }
    switch (t->format) {
    case N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555:
        texdump_argb1555_to_rgba(out, ((const uint16_t*)t->palette)[((const uint8_t*)block)[index]]);
        break;
    case N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555:
        texdump_argb1555_to_rgba(out, ((const uint16_t*)block)[index]);
        break;
    case N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8:
        texdump_display_index_to_rgba(out, ((const uint8_t*)block)[index], clut);
        break;
    default:
        texdump_bump_to_rgba(out, ((const uint32_t*)block)[index]);
        break;
    }
}

static int texdump_save(const bitmap* bm, const char* dir, const char* name, xmemarena* tmp)
{
    char path[4096];
    snprintf(path, sizeof path, "%s/%s", dir, name);
    if (!bitmap_save_png(bm, path, tmp))
        return 0;
    printf("wrote %s\n", path);
    return 1;
}

static int texdump_write_texture(const n3d_texture* t, const char* dir, const n3d_display_clut* clut,
                                 uint32_t transparent_index, xmemarena* tmp)
{
    if (!texdump_make_dir(dir))
        return 0;
    const uint32_t swizzled = t->linear ? 0 : 1;
    for (uint32_t w = t->log2_w; w >= t->min_log2_w && w <= t->log2_w; --w) {
        for (uint32_t h = t->log2_h; h >= t->min_log2_h && h <= t->log2_h; --h) {
            const uint64_t mark = xmemarena_get_sp(tmp);
            const void* block = t->mips[n3d_mip_slot(t, w, h)];
            bitmap* out = bitmap_create(tmp, 1u << w, 1u << h, BITMAP_SRGB | BITMAP_CHANNELS_4);
            for (uint32_t y = 0; y < out->height; ++y)
                for (uint32_t x = 0; x < out->width; ++x)
                    texdump_texel_to_rgba(bitmap_pixel(out, x, y), t, block,
                                          n3d_texel_index(t->format, w, swizzled, x, y), clut, transparent_index);
            char name[64];
            snprintf(name, sizeof name, "level_w%u_h%u.png", 1u << w, 1u << h);
            const int ok = texdump_save(out, dir, name, tmp);
            xmemarena_set_sp(tmp, mark);
            if (!ok)
                return 0;
        }
    }
    if (!t->shade_table)
        return 1;
    const uint64_t mark = xmemarena_get_sp(tmp);
    bitmap* shades = bitmap_create(tmp, t->shades_per_color * TEXDUMP_SHADE_CELL_W,
                                   t->colors_count * TEXDUMP_SHADE_CELL_H, BITMAP_SRGB | BITMAP_CHANNELS_4);
    for (uint32_t c = 0; c < t->colors_count; ++c) {
        for (uint32_t s = 0; s < t->shades_per_color; ++s) {
            uint8_t rgba[4];
            const uint32_t entry = c * t->shades_per_color + s;
            if (t->format == N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555)
                texdump_argb1555_to_rgba(rgba, ((const uint16_t*)t->shade_table)[entry]);
            else
                texdump_display_index_to_rgba(rgba, ((const uint8_t*)t->shade_table)[entry], clut);
            for (uint32_t dy = 0; dy < TEXDUMP_SHADE_CELL_H; ++dy)
                for (uint32_t dx = 0; dx < TEXDUMP_SHADE_CELL_W; ++dx)
                    memcpy(bitmap_pixel(shades, s * TEXDUMP_SHADE_CELL_W + dx, c * TEXDUMP_SHADE_CELL_H + dy), rgba, 4);
        }
    }
    const int ok = texdump_save(shades, dir, "shades.png", tmp);
    xmemarena_set_sp(tmp, mark);
    return ok;
}

static int texdump_flare(texdump_arenas* a, const char* outdir)
{
    if (!texdump_make_dir(outdir))
        return 1;
    bitmap* flare = bitmap_create_flare(&a->image);
    if (!texdump_save(flare, outdir, "flare.png", &a->tmp))
        return 1;
    const N3D_TEXEL_FORMAT formats[2] = {N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555,
                                         N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555};
    for (N3D_TEXEL_FORMAT format : formats) {
        n3d_texture t;
        n3d_texture_from_bitmap(&t, &a->texture, &a->tmp, format, 1, 1, 0, flare, nullptr, N3D_TRANSPARENT_INDEX_NONE,
                                0.5f);
        char dir[4096];
        snprintf(dir, sizeof dir, "%s/format%u", outdir, (unsigned)format);
        if (!texdump_write_texture(&t, dir, nullptr, N3D_TRANSPARENT_INDEX_NONE, &a->tmp))
            return 1;
    }
    return 0;
}

int main(int argc, char** argv)
{
    texdump_options o;
    if (!texdump_parse_args(&o, argc, argv))
        return texdump_usage();
    texdump_arenas a;
    void* image_block = malloc(TEXDUMP_IMAGE_BYTES);
    void* texture_block = malloc(TEXDUMP_TEXTURE_BYTES);
    void* tmp_block = malloc(TEXDUMP_TMP_BYTES);
    xmemarena_init(&a.image, "texdump_image", TEXDUMP_IMAGE_BYTES, image_block);
    xmemarena_init(&a.texture, "texdump_texture", TEXDUMP_TEXTURE_BYTES, texture_block);
    xmemarena_init(&a.tmp, "texdump_tmp", TEXDUMP_TMP_BYTES, tmp_block);

    int status = 0;
    if (o.flare) {
        status = texdump_flare(&a, o.outdir);
    } else {
        bitmap* bm = bitmap_load_png(&a.image, o.input, 0);
        if (!bm) {
            status = 1;
        } else {
            if (o.format == N3D_TEXEL_FORMAT_BUMPMAP)
                bm->flags &= ~BITMAP_SRGB;  // a normal map's bytes are directions, not sRGB colours
            uint8_t ramp[256 * 4];
            for (uint32_t i = 0; i < 256; ++i) {
                ramp[4 * i + 0] = ramp[4 * i + 1] = ramp[4 * i + 2] = (uint8_t)i;
                ramp[4 * i + 3] = 255;
            }
            const n3d_display_clut grey = {0, 256, ramp};
            const n3d_display_clut* clut = o.format == N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8 ? &grey : nullptr;
            n3d_texture t;
            n3d_texture_from_bitmap(&t, &a.texture, &a.tmp, o.format, o.swizzle, o.mips, o.mips_from_full, bm, clut,
                                    o.transparent_index, o.alpha_threshold);
            if (!texdump_make_dir(o.outdir) || !texdump_write_texture(&t, o.outdir, clut, o.transparent_index, &a.tmp))
                status = 1;
        }
    }
    free(tmp_block);
    free(texture_block);
    free(image_block);
    return status;
}
