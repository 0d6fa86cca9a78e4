// reel_videoprep: makes the resources of the video-plane effects from PNG pictures: the tunnel's
// colour map, the bump map's colour texture, bump texels from a height map or a normal map,
// background textures and stencils; and, with `generate`, the pictures of the demonstration shows
// made in code. The files it writes are what the pack manifests name (kind texture or stencil).
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bitmap.h"
#include "memarena.h"
#include "n3d_io.h"
#include "tool.h"
#include "video_prep.h"

namespace {

// Taken once; untouched pages cost nothing, so they are generous enough for 4096 x 4096 pictures.
constexpr uint64_t VIDEOPREP_IMAGE_BYTES = 96ull << 20;
constexpr uint64_t VIDEOPREP_OUTPUT_BYTES = 160ull << 20;
constexpr uint64_t VIDEOPREP_TMP_BYTES = 640ull << 20;

const char* const VIDEOPREP_USAGE =
    "usage: reel_videoprep colormap IN.png OUT.tmap\n"
    "       reel_videoprep image IN.png OUT.tmap\n"
    "       reel_videoprep bump [--strength S | --normals] IN.png OUT.tmap\n"
    "       reel_videoprep background IN.png OUT.tmap\n"
    "       reel_videoprep stencil [--threshold N] IN.png OUT.stencil\n"
    "       reel_videoprep generate OUTDIR\n"
    "Makes the video-plane effects' resources from PNG pictures, in this machine's byte order:\n"
    "  colormap    the tunnel's 256 x 256 ARGB1555 colour map (row = angle, column = distance);\n"
    "              larger pictures are resampled to 256 x 256\n"
    "  image       the bump map's colour texture: 256 palette colours with a shade table\n"
    "  bump        the bump map's bump texels from a height map (brightness = height; slopes\n"
    "              scaled by S, default 4), or with --normals from a normal map (red, green, blue =\n"
    "              x, y, z, y pointing down); same size as its colour texture\n"
    "  background  a large ARGB1555 texture for the scrolling background, power-of-two sides\n"
    "              from 512 x 256 to 4096\n"
    "  stencil     a stencil with a bit set where the picture is at least N bright and opaque\n"
    "              (default 128 of 255); the width must be a multiple of 32\n"
    "  generate    writes the demonstration shows' pictures, made in code, as PNG files:\n"
    "              tunnel.png, tiles.png, tiles_height.png, window.png, landscape.png\n"
    "Texture and stencil files are what the pack manifests name as kinds texture and stencil.\n"
    "Sides must be powers of two (4 to 4096) except for stencils and colour maps.\n";

const tool_info VIDEOPREP_TOOL = {"reel_videoprep", VIDEOPREP_USAGE};

[[noreturn]] void videoprep_refuse(const char* path, const bitmap* picture, const char* what, const char* why)
{
    tool_fail("\"%s\" (%u x %u) cannot become %s: %s", path, picture->width, picture->height, what, why);
}

struct videoprep_arenas {
    xmemarena image, output, tmp;
};
// Held for the whole run, on every path out of it (the fatal ones included).
videoprep_arenas videoprep_memory;

void videoprep_arena(xmemarena* arena, const char* name, uint64_t size)
{
    void* memory = malloc(size);
    if (!memory)
        tool_fail("cannot take %llu bytes of memory", (unsigned long long)size);
    xmemarena_init(arena, name, size, memory);
}

// The picture at `path`, four channels; the system's reason when the file cannot be opened.
bitmap* videoprep_load(xmemarena* arena, const char* path)
{
    FILE* f = fopen(path, "rb");
    if (!f)
        tool_fail("cannot read \"%s\": %s", path, strerror(errno));
    fclose(f);
    bitmap* bm = bitmap_load_png(arena, path, 4);
    if (!bm)
        tool_fail("\"%s\" is not a picture this tool can read (see the line above)", path);
    return bm;
}

void videoprep_write_texture(const char* path, const n3d_texture* texture, xmemarena* arena)
{
    auto* block = (uint8_t*)xmemarena_push(arena, n3d_texture_write_size(texture));
    tool_write_resource(path, block, (size_t)(n3d_texture_write(block, texture, BYTE_ORDER_NATIVE) - block));
}

int videoprep_generate(const char* dir, videoprep_arenas* a)
{
    struct {
        const char* name;
        bitmap* (*make)(xmemarena*);
    } pictures[] = {
        {"tunnel.png", video_prep_make_tunnel_picture},     {"tiles.png", video_prep_make_tile_colors},
        {"tiles_height.png", video_prep_make_tile_heights}, {"window.png", video_prep_make_window_picture},
        {"landscape.png", video_prep_make_landscape},
    };
    tool_make_dir(dir);
    for (const auto& p : pictures) {
        char path[TOOL_PATH_MAX];
        tool_join_path(path, dir, p.name);
        const uint64_t mark = xmemarena_get_sp(&a->image);
        tool_save_png(p.make(&a->image), path, &a->tmp);
        xmemarena_set_sp(&a->image, mark);
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    tool_begin(&VIDEOPREP_TOOL, argc, argv);
    if (argc < 3)
        tool_usage_error("missing arguments");
    const char* command = argv[1];
    videoprep_arenas& a = videoprep_memory;
    videoprep_arena(&a.image, "videoprep_image", VIDEOPREP_IMAGE_BYTES);
    videoprep_arena(&a.output, "videoprep_output", VIDEOPREP_OUTPUT_BYTES);
    videoprep_arena(&a.tmp, "videoprep_tmp", VIDEOPREP_TMP_BYTES);
    if (strcmp(command, "generate") == 0) {
        if (argc != 3)
            tool_usage_error("generate takes one folder");
        return videoprep_generate(argv[2], &a);
    }

    const char* const commands[] = {"colormap", "image", "bump", "background", "stencil"};
    bool known = false;
    for (const char* c : commands)
        known = known || strcmp(command, c) == 0;
    if (!known)
        tool_usage_error("unknown command \"%s\"", command);

    // options, then IN and OUT
    float strength = VIDEO_PREP_BUMP_STRENGTH, threshold = (float)VIDEO_PREP_STENCIL_THRESHOLD;
    bool normals = false;
    int i = 2;
    for (; i < argc && strncmp(argv[i], "--", 2) == 0; i++) {
        const bool bump = strcmp(command, "bump") == 0, stencil = strcmp(command, "stencil") == 0;
        const char* option = argv[i];
        if (bump && strcmp(option, "--normals") == 0) {
            normals = true;
        } else if (bump && strcmp(option, "--strength") == 0) {
            strength = (float)tool_parse_double(option, tool_option_value(argc, argv, &i), 0.001, 1000.0);
        } else if (stencil && strcmp(option, "--threshold") == 0) {
            threshold = (float)tool_parse_double(option, tool_option_value(argc, argv, &i), 1.0, 255.0);
        } else {
            tool_usage_error("%s takes no option \"%s\"", command, option);
        }
    }
    if (argc - i != 2)
        tool_usage_error("expected IN.png OUT");
    const char* in = argv[i];
    const char* out = argv[i + 1];

    bitmap* picture = videoprep_load(&a.image, in);
    if (strcmp(command, "stencil") == 0) {
        n3d_coverage_buffer stencil;
        if (const char* why = video_prep_stencil(&stencil, &a.output, picture, (uint32_t)threshold))
            videoprep_refuse(in, picture, "a stencil", why);
        auto* block = (uint8_t*)xmemarena_push(&a.output, n3d_coverage_buffer_write_size(&stencil));
        tool_write_resource(out, block, (size_t)(n3d_coverage_buffer_write(block, &stencil, BYTE_ORDER_NATIVE) - block));
        return 0;
    }
    n3d_texture texture;
    const char* why = nullptr;
    const char* what = command;
    if (strcmp(command, "colormap") == 0)
        why = video_prep_color_map(&texture, &a.output, &a.tmp, picture), what = "a colour map";
    else if (strcmp(command, "image") == 0)
        why = video_prep_bump_image(&texture, &a.output, &a.tmp, picture), what = "a bump map's colour texture";
    else if (strcmp(command, "bump") == 0 && normals)
        why = video_prep_bump_from_normals(&texture, &a.output, &a.tmp, picture), what = "bump texels";
    else if (strcmp(command, "bump") == 0)
        why = video_prep_bump_from_heights(&texture, &a.output, &a.tmp, picture, strength), what = "bump texels";
    else
        why = video_prep_background(&texture, &a.output, &a.tmp, picture), what = "a background";
    if (why)
        videoprep_refuse(in, picture, what, why);
    videoprep_write_texture(out, &texture, &a.output);
    return 0;
}
