// reel_texdump: converts a PNG into a texture exactly as the engine does and writes what came
// out back as pictures a person can look at: every level as level_w<W>_h<H>.png (swizzled order
// undone, palettes and display indices looked up, bump texels drawn as a normal map) and the
// shade table as shades.png (colours down, shades across). `--flare` does the same for the
// built-in flare in formats 1 and 2, as the rasterizer benchmark converts it.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bitmap.h"
#include "memarena.h"
#include "n3d.h"
#include "n3d_convert.h"
#include "tool.h"

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

static const char TEXDUMP_USAGE[] =
    "usage: reel_texdump INPUT.png OUTDIR [--format 1|2|3|4] [--swizzle] [--mips] [--mips-from-full]\n"
    "                    [--transparent N] [--alpha-threshold F]\n"
    "       reel_texdump --flare OUTDIR\n"
    "Converts the picture to a texture and writes each level as OUTDIR/level_w<W>_h<H>.png and the\n"
    "shade table as OUTDIR/shades.png (colours down, shades across); OUTDIR is created if needed.\n"
    "The picture's width and height must be powers of two, at least 4 (at most 256 with --swizzle).\n"
    "  --format 1  8-bit palette of ARGB1555 colours (default)   2  ARGB1555\n"
    "           3  8-bit display indices, shown through a grey ramp   4  bump map (never swizzled)\n"
    "  --transparent N      index of pixels whose alpha is below the threshold (formats 1 and 3);\n"
    "                       texels holding it are drawn transparent\n"
    "  --alpha-threshold F  default 0.5\n"
    "--flare converts the built-in flare to formats 1 and 2, swizzled with mips, into\n"
    "OUTDIR/format1 and OUTDIR/format2, and writes the flare itself as OUTDIR/flare.png.\n";

static const tool_info TEXDUMP_TOOL = {"reel_texdump", TEXDUMP_USAGE};

static void texdump_parse_args(texdump_options* o, int argc, char** argv)
{
    memset(o, 0, sizeof(*o));
    o->format = N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555;
    o->transparent_index = N3D_TRANSPARENT_INDEX_NONE;
    o->alpha_threshold = 0.5f;
    if (argc >= 2 && strcmp(argv[1], "--flare") == 0) {
        if (argc != 3)
            tool_usage_error("--flare takes one output folder");
        o->flare = 1;
        o->outdir = argv[2];
        return;
    }
    if (argc < 3)
        tool_usage_error("needs an input picture and an output folder");
    for (int i = 1; i < 3; ++i)
        if (argv[i][0] == '-')
            tool_usage_error("unknown option \"%s\" where the %s belongs", argv[i], i == 1 ? "input picture" : "output folder");
    o->input = argv[1];
    o->outdir = argv[2];
    for (int i = 3; i < argc; ++i) {
        const char* a = argv[i];
        if (strcmp(a, "--swizzle") == 0) {
            o->swizzle = 1;
        } else if (strcmp(a, "--mips") == 0) {
            o->mips = 1;
        } else if (strcmp(a, "--mips-from-full") == 0) {
            o->mips = 1;  // levels from the full size need levels in the first place
            o->mips_from_full = 1;
        } else if (strcmp(a, "--format") == 0) {
            o->format = (N3D_TEXEL_FORMAT)tool_parse_u64(a, tool_option_value(argc, argv, &i), 1, 4);
        } else if (strcmp(a, "--transparent") == 0) {
            o->transparent_index = (uint32_t)tool_parse_u64(a, tool_option_value(argc, argv, &i), 0, 255);
        } else if (strcmp(a, "--alpha-threshold") == 0) {
            o->alpha_threshold = (float)tool_parse_double(a, tool_option_value(argc, argv, &i), 0.0, 1.0);
        } else {
            tool_usage_error("unknown argument \"%s\"", a);
        }
    }
    if (o->format == N3D_TEXEL_FORMAT_BUMPMAP && o->swizzle)
        tool_usage_error("bump maps are never swizzled");
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

static void texdump_save(const bitmap* bm, const char* dir, const char* name, xmemarena* tmp)
{
    char path[TOOL_PATH_MAX];
    tool_join_path(path, dir, name);
    tool_save_png(bm, path, tmp);
    printf("wrote %s\n", path);
}

static void texdump_write_texture(const n3d_texture* t, const char* dir, const n3d_display_clut* clut,
                                 uint32_t transparent_index, xmemarena* tmp)
{
    tool_make_dir(dir);
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
            texdump_save(out, dir, name, tmp);
            xmemarena_set_sp(tmp, mark);
        }
    }
    if (!t->shade_table)
        return;
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
    texdump_save(shades, dir, "shades.png", tmp);
    xmemarena_set_sp(tmp, mark);
}

static void texdump_flare(texdump_arenas* a, const char* outdir)
{
    tool_make_dir(outdir);
    bitmap* flare = bitmap_create_flare(&a->image);
    texdump_save(flare, outdir, "flare.png", &a->tmp);
    const N3D_TEXEL_FORMAT formats[2] = {N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555,
                                         N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555};
    for (N3D_TEXEL_FORMAT format : formats) {
        n3d_texture t;
        n3d_texture_from_bitmap(&t, &a->texture, &a->tmp, format, 1, 1, 0, flare, nullptr, N3D_TRANSPARENT_INDEX_NONE,
                                0.5f);
        char dir[TOOL_PATH_MAX];
        snprintf(dir, sizeof dir, "%s/format%u", outdir, (unsigned)format);
        texdump_write_texture(&t, dir, nullptr, N3D_TRANSPARENT_INDEX_NONE, &a->tmp);
    }
}

int main(int argc, char** argv)
{
    tool_begin(&TEXDUMP_TOOL, argc, argv);
    texdump_options o;
    texdump_parse_args(&o, argc, argv);
    texdump_arenas a;
    void* image_block = malloc(TEXDUMP_IMAGE_BYTES);
    void* texture_block = malloc(TEXDUMP_TEXTURE_BYTES);
    void* tmp_block = malloc(TEXDUMP_TMP_BYTES);
    xmemarena_init(&a.image, "texdump_image", TEXDUMP_IMAGE_BYTES, image_block);
    xmemarena_init(&a.texture, "texdump_texture", TEXDUMP_TEXTURE_BYTES, texture_block);
    xmemarena_init(&a.tmp, "texdump_tmp", TEXDUMP_TMP_BYTES, tmp_block);

    if (o.flare) {
        texdump_flare(&a, o.outdir);
    } else {
        bitmap* bm = bitmap_load_png(&a.image, o.input, 0);
        if (!bm)
            tool_fail("cannot read \"%s\" (the reason is above)", o.input);
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
        tool_make_dir(o.outdir);
        texdump_write_texture(&t, o.outdir, clut, o.transparent_index, &a.tmp);
    }
    free(tmp_block);
    free(texture_block);
    free(image_block);
    return 0;
}
