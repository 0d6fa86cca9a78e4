// reel_videoprep: makes the resources of the video-plane effects from PNG pictures: the tunnel's
// colour map, the bump map's colour texture, bump texels from a height map or a normal map,
// background textures and stencils; and, with `generate`, the pictures of the demonstration shows
// made in code. The files it writes are what the pack manifests name (kind texture or stencil).
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "bitmap.h"
#include "memarena.h"
#include "n3d_io.h"
#include "prep_file.h"
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

[[noreturn]] void videoprep_usage_error(const char* why)
{
    fprintf(stderr, "reel_videoprep: %s\n%s", why, VIDEOPREP_USAGE);
    exit(2);
}

[[noreturn]] void videoprep_fail(const char* fmt, const char* path, const char* reason)
{
    fprintf(stderr, "reel_videoprep: ");
    fprintf(stderr, fmt, path, reason);
    fputc('\n', stderr);
    exit(1);
}

[[noreturn]] void videoprep_refuse(const char* path, const bitmap* picture, const char* what, const char* why)
{
    fprintf(stderr, "reel_videoprep: \"%s\" (%u x %u) cannot become %s: %s\n", path, picture->width,
            picture->height, what, why);
    exit(1);
}

struct videoprep_arenas {
    xmemarena image, output, tmp;
};
// Held for the whole run, on every path out of it (the fatal ones included).
videoprep_arenas videoprep_memory;

void videoprep_arena(xmemarena* arena, const char* name, uint64_t size)
{
    void* memory = malloc(size);
    if (!memory) {
        fprintf(stderr, "reel_videoprep: cannot take %llu bytes of memory\n", (unsigned long long)size);
        exit(1);
    }
    xmemarena_init(arena, name, size, memory);
}

// The picture at `path`, four channels; the system's reason when the file cannot be opened.
bitmap* videoprep_load(xmemarena* arena, const char* path)
{
    FILE* f = fopen(path, "rb");
    if (!f)
        videoprep_fail("cannot read \"%s\": %s", path, strerror(errno));
    fclose(f);
    bitmap* bm = bitmap_load_png(arena, path, 4);
    if (!bm)
        videoprep_fail("\"%s\" is not a picture this tool can read%s", path, " (see the line above)");
    return bm;
}

void videoprep_write_block(const char* path, const uint8_t* begin, const uint8_t* end)
{
    if (video_prep_write_file(path, begin, end) != 0)
        videoprep_fail("cannot write \"%s\": %s", path, strerror(errno));
}

void videoprep_write_texture(const char* path, const n3d_texture* texture, xmemarena* arena)
{
    auto* block = (uint8_t*)xmemarena_push(arena, n3d_texture_write_size(texture));
    videoprep_write_block(path, block, n3d_texture_write(block, texture, BYTE_ORDER_NATIVE));
}

// A number from text with nothing after it; false when it is not one.
bool videoprep_parse_float(const char* text, float* value)
{
    char* end = nullptr;
    errno = 0;
    *value = strtof(text, &end);
    return errno == 0 && end != text && *end == 0;
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
    for (const auto& p : pictures) {
        char path[4096], temporary[4200];
        snprintf(path, sizeof(path), "%s/%s", dir, p.name);
        snprintf(temporary, sizeof(temporary), "%s.tmp%ld.png", path, (long)getpid());
        if (video_prep_make_parents(path) != 0)
            videoprep_fail("cannot make the folder of \"%s\": %s", path, strerror(errno));
        const uint64_t mark = xmemarena_get_sp(&a->image);
        if (!bitmap_save_png(p.make(&a->image), temporary, &a->tmp)) {
            remove(temporary);
            videoprep_fail("cannot write \"%s\"%s", path, " (see the line above)");
        }
        if (prep_file_commit(temporary, path) != 0)
            videoprep_fail("cannot write \"%s\": %s", path, strerror(errno));
        xmemarena_set_sp(&a->image, mark);
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc == 2 && strcmp(argv[1], "--help") == 0) {
        fputs(VIDEOPREP_USAGE, stdout);
        return 0;
    }
    if (argc < 3)
        videoprep_usage_error("missing arguments");
    const char* command = argv[1];
    videoprep_arenas& a = videoprep_memory;
    videoprep_arena(&a.image, "videoprep_image", VIDEOPREP_IMAGE_BYTES);
    videoprep_arena(&a.output, "videoprep_output", VIDEOPREP_OUTPUT_BYTES);
    videoprep_arena(&a.tmp, "videoprep_tmp", VIDEOPREP_TMP_BYTES);
    if (strcmp(command, "generate") == 0) {
        if (argc != 3)
            videoprep_usage_error("generate takes one folder");
        return videoprep_generate(argv[2], &a);
    }

    const char* const commands[] = {"colormap", "image", "bump", "background", "stencil"};
    bool known = false;
    for (const char* c : commands)
        known = known || strcmp(command, c) == 0;
    if (!known)
        videoprep_usage_error("unknown command");

    // options, then IN and OUT
    float strength = VIDEO_PREP_BUMP_STRENGTH, threshold = (float)VIDEO_PREP_STENCIL_THRESHOLD;
    bool normals = false;
    int i = 2;
    for (; i < argc && strncmp(argv[i], "--", 2) == 0; i++) {
        const bool bump = strcmp(command, "bump") == 0, stencil = strcmp(command, "stencil") == 0;
        if (bump && strcmp(argv[i], "--normals") == 0)
            normals = true;
        else if (bump && strcmp(argv[i], "--strength") == 0 && i + 1 < argc) {
            if (!videoprep_parse_float(argv[++i], &strength) || !(strength > 0.0f))
                videoprep_usage_error("--strength takes a number above 0");
        } else if (stencil && strcmp(argv[i], "--threshold") == 0 && i + 1 < argc) {
            if (!videoprep_parse_float(argv[++i], &threshold) || !(threshold >= 1.0f && threshold <= 255.0f))
                videoprep_usage_error("--threshold takes a number from 1 to 255");
        } else {
            videoprep_usage_error("unknown option for this command");
        }
    }
    if (argc - i != 2)
        videoprep_usage_error("expected IN.png OUT");
    const char* in = argv[i];
    const char* out = argv[i + 1];

    bitmap* picture = videoprep_load(&a.image, in);
    if (strcmp(command, "stencil") == 0) {
        n3d_coverage_buffer stencil;
        if (const char* why = video_prep_stencil(&stencil, &a.output, picture, (uint32_t)threshold))
            videoprep_refuse(in, picture, "a stencil", why);
        auto* block = (uint8_t*)xmemarena_push(&a.output, n3d_coverage_buffer_write_size(&stencil));
        videoprep_write_block(out, block, n3d_coverage_buffer_write(block, &stencil, BYTE_ORDER_NATIVE));
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
