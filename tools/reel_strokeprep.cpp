// reel_strokeprep: makes a stroke image for overlay_stroke, an image resource whose texel values
// give the order in which the pen reveals its pixels (1 first, 255 last, 0 not drawn), from a
// path drawn with a round pen, from a picture walked outwards from a starting point, or from a
// grey picture whose values already are the order.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "bitmap.h"
#include "overlay_prep.h"
#include "reel_resource.h"
#include "tool.h"

namespace {

constexpr uint64_t STROKEPREP_ARENA_BYTES = 512ull << 20;
constexpr uint32_t STROKEPREP_MAX_SIDE = 4096;
constexpr uint32_t STROKEPREP_MAX_POINTS = 4096;
constexpr uint8_t STROKEPREP_SHAPE_ALPHA = 128;  // pixels at least half opaque belong to the shape

const char* const STROKEPREP_USAGE =
    "usage: reel_strokeprep OUTPUT --path \"X,Y X,Y ...\" --size WxH [--radius R]\n"
    "       reel_strokeprep OUTPUT --picture INPUT.png [--start X,Y]\n"
    "       reel_strokeprep OUTPUT --grey INPUT.png\n"
    "Writes a stroke image resource (this machine's byte order) for overlay_stroke: texel values are\n"
    "the order in which the pen reveals the pixels, 1 first and 255 last; 0 is never drawn.\n"
    "  --path     a polyline in pixels on a WxH picture, drawn with a round pen of radius R\n"
    "             (default 3); the order follows the path from its first point\n"
    "  --picture  the pixels of INPUT that are at least half opaque, in order of their walking\n"
    "             distance from X,Y (default: the first such pixel in reading order)\n"
    "  --grey     INPUT's grey values (the red channel) are the order as they are\n"
    "The texture is at least 32 texels wide, as the stroke's masks need.\n";

const tool_info STROKEPREP_TOOL = {"reel_strokeprep", STROKEPREP_USAGE};

bool strokeprep_pair(const char* text, char separator, float* a, float* b)
{
    char* end = nullptr;
    errno = 0;
    *a = strtof(text, &end);
    if (errno || end == text || *end != separator)
        return false;
    const char* second = end + 1;
    *b = strtof(second, &end);
    return !errno && end != second && (*end == 0 || *end == ' ');
}

bool strokeprep_points(const char* text, std::vector<float>* points)
{
    for (const char* p = text; *p;) {
        while (*p == ' ')
            p++;
        if (!*p)
            break;
        float x, y;
        if (!strokeprep_pair(p, ',', &x, &y) || points->size() >= 2 * STROKEPREP_MAX_POINTS)
            return false;
        points->push_back(x), points->push_back(y);
        while (*p && *p != ' ')
            p++;
    }
    return !points->empty();
}

}  // namespace

int main(int argc, char** argv)
{
    tool_begin(&STROKEPREP_TOOL, argc, argv);
    const char *output = nullptr, *path = nullptr, *size = nullptr, *picture = nullptr, *grey = nullptr,
               *start = nullptr;
    float radius = 3.0f;
    for (int i = 1; i < argc; i++) {
        const char* a = argv[i];
        const char** slot = strcmp(a, "--path") == 0      ? &path
                            : strcmp(a, "--size") == 0    ? &size
                            : strcmp(a, "--picture") == 0 ? &picture
                            : strcmp(a, "--grey") == 0    ? &grey
                            : strcmp(a, "--start") == 0   ? &start
                                                          : nullptr;
        if (slot)
            *slot = tool_option_value(argc, argv, &i);
        else if (strcmp(a, "--radius") == 0)
            radius = (float)tool_parse_double(a, tool_option_value(argc, argv, &i), 0.01, 999.0);
        else if (a[0] == '-')
            tool_usage_error("unknown option \"%s\"", a);
        else if (output)
            tool_usage_error("one OUTPUT only, not also \"%s\"", a);
        else
            output = a;
    }
    if (!output)
        tool_usage_error("no OUTPUT");
    if ((path != nullptr) + (picture != nullptr) + (grey != nullptr) != 1)
        tool_usage_error("needs one of --path, --picture and --grey");
    if (!path != !size)
        tool_usage_error("--path and --size go together");
    float w = 0, h = 0, sx = -1, sy = -1;
    std::vector<float> points;
    if (size && (!strokeprep_pair(size, 'x', &w, &h) ||
                 !(w >= 1 && w <= STROKEPREP_MAX_SIDE && h >= 1 && h <= STROKEPREP_MAX_SIDE)))
        tool_usage_error("--size needs WxH with sides from 1 to %u, not \"%s\"", STROKEPREP_MAX_SIDE, size);
    if (path && !strokeprep_points(path, &points))
        tool_usage_error("--path needs from 1 to %u points \"X,Y X,Y ...\"", STROKEPREP_MAX_POINTS);
    if (start && !picture)
        tool_usage_error("--start goes with --picture only");
    if (start && (!strokeprep_pair(start, ',', &sx, &sy) || sx < 0 || sy < 0))
        tool_usage_error("--start needs X,Y, not \"%s\"", start);

    std::vector<uint8_t> memory(STROKEPREP_ARENA_BYTES);
    xmemarena arena;
    xmemarena_init(&arena, "reel_strokeprep", memory.size(), memory.data());
    prep_index_picture order = {};
    if (path) {
        order.width = (uint32_t)w, order.height = (uint32_t)h;
        order.pixels = (uint8_t*)xmemarena_push(&arena, (uint64_t)order.width * order.height);
        prep_stroke_from_path(order.pixels, order.width, order.height, points.data(), (uint32_t)points.size() / 2,
                              radius);
    } else {
        const char* input = picture ? picture : grey;
        bitmap* bm = bitmap_load_png(&arena, input, 4);
        if (!bm)
            tool_fail("cannot read \"%s\": %s", input, errno ? strerror(errno) : "not a PNG this tool reads");
        if (bm->width > STROKEPREP_MAX_SIDE || bm->height > STROKEPREP_MAX_SIDE)
            tool_fail("\"%s\" is larger than %u a side", input, STROKEPREP_MAX_SIDE);
        order.width = bm->width, order.height = bm->height;
        order.pixels = (uint8_t*)xmemarena_push(&arena, (uint64_t)order.width * order.height);
        for (uint32_t y = 0; y < bm->height; y++)
            for (uint32_t x = 0; x < bm->width; x++) {
                const uint8_t* p = bitmap_pixel(bm, x, y);
                order.pixels[y * bm->width + x] = grey ? p[0] : (p[3] >= STROKEPREP_SHAPE_ALPHA);
            }
        if (picture) {
            auto* shape = (uint8_t*)xmemarena_push(&arena, (uint64_t)order.width * order.height);
            memcpy(shape, order.pixels, (size_t)order.width * order.height);
            prep_stroke_from_shape(order.pixels, shape, order.width, order.height, start ? (uint32_t)sx : UINT32_MAX,
                                   start ? (uint32_t)sy : UINT32_MAX, &arena);
        }
    }
    order.key = 0;
    reel_image image = {order.width, order.height, {}};
    prep_texture_from_indices(&image.texture, &arena, &order, PREP_STROKE_MIN_WIDTH, 0);
    std::vector<uint8_t> block(reel_image_write_size(&image));
    reel_image_write(block.data(), &image, BYTE_ORDER_NATIVE);
    tool_write_resource(output, block.data(), block.size());
    printf("%s: stroke image of %u x %u\n", output, order.width, order.height);
    return 0;
}
