// reel_overlayprep: turns a picture into an overlay resource file ready for a pack manifest: a
// run-length image, an image, a linear index8 texture, a stencil or a palette. The picture is
// an indexed PNG, whose palette indices are used as they are, or any PNG mapped onto the
// palette of another file with --palette.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "n3d_io.h"
#include "overlay_prep.h"
#include "reel_resource.h"
#include "tool.h"

namespace {

constexpr uint64_t OVERLAYPREP_ARENA_BYTES = 512ull << 20;  // untouched pages cost nothing

const char* const OVERLAYPREP_USAGE =
    "usage: reel_overlayprep KIND INPUT.png OUTPUT [--palette PALETTE.png] [--key N] [--first N] [--mips]\n"
    "Writes INPUT as an overlay resource file (this machine's byte order) for a pack manifest.\n"
    "KIND is one of\n"
    "  rle_image  run-length image: pixels of the transparent index are left out\n"
    "  image      image: a linear index8 texture holding the picture at its top left\n"
    "  texture    the same texture alone (with --mips also its reduced levels), for overlay_scale\n"
    "  stencil    stencil: a bit for every pixel that is not of the transparent index\n"
    "  palette    the picture's palette, as a colour-table fragment from --first\n"
    "INPUT is an indexed PNG, or any PNG when --palette gives the colours: PALETTE.png's own palette\n"
    "when it is indexed, else its pixels in reading order (at most 256). Pixels map to the nearest\n"
    "colour; with --palette, pixels less than half opaque take the transparent index.\n"
    "  --key N    the transparent index (default: the first palette entry with alpha 0, else 0)\n"
    "  --first N  the first colour-table index of a palette (default 0)\n"
    "  --mips     reduced levels for a texture\n";

const tool_info OVERLAYPREP_TOOL = {"reel_overlayprep", OVERLAYPREP_USAGE};

// The block for `kind` in a buffer from arena; false for an unknown kind.
bool overlayprep_block(std::vector<uint8_t>* block, const char* kind, const prep_index_picture* picture,
                       uint32_t first, uint32_t mips, xmemarena* arena)
{
    auto write = [&](uint64_t size, auto&& writer) {
        block->resize(size);
        writer(block->data());
    };
    if (strcmp(kind, "rle_image") == 0) {
        reel_rle_image image;
        prep_rle_from_indices(&image, arena, picture);
        write(reel_rle_image_write_size(&image), [&](uint8_t* p) { reel_rle_image_write(p, &image, BYTE_ORDER_NATIVE); });
    } else if (strcmp(kind, "image") == 0) {
        reel_image image = {picture->width, picture->height, {}};
        prep_texture_from_indices(&image.texture, arena, picture, 0, 0);
        write(reel_image_write_size(&image), [&](uint8_t* p) { reel_image_write(p, &image, BYTE_ORDER_NATIVE); });
    } else if (strcmp(kind, "texture") == 0) {
        n3d_texture texture;
        prep_texture_from_indices(&texture, arena, picture, 0, mips);
        write(n3d_texture_write_size(&texture), [&](uint8_t* p) { n3d_texture_write(p, &texture, BYTE_ORDER_NATIVE); });
    } else if (strcmp(kind, "stencil") == 0) {
        n3d_coverage_buffer stencil;
        prep_stencil_from_indices(&stencil, arena, picture);
        write(n3d_coverage_buffer_write_size(&stencil),
              [&](uint8_t* p) { n3d_coverage_buffer_write(p, &stencil, BYTE_ORDER_NATIVE); });
    } else if (strcmp(kind, "palette") == 0) {
        const reel_palette palette = {first, picture->palette.count, picture->palette.entries};
        write(reel_palette_write_size(&palette), [&](uint8_t* p) { reel_palette_write(p, &palette, BYTE_ORDER_NATIVE); });
    } else {
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv)
{
    tool_begin(&OVERLAYPREP_TOOL, argc, argv);
    const char* positional[3] = {};
    uint32_t positional_count = 0, key = PREP_NO_KEY, first = 0, mips = 0;
    const char* palette_path = nullptr;
    for (int i = 1; i < argc; i++) {
        const char* a = argv[i];
        if (strcmp(a, "--palette") == 0)
            palette_path = tool_option_value(argc, argv, &i);
        else if (strcmp(a, "--key") == 0)
            key = (uint32_t)tool_parse_u64(a, tool_option_value(argc, argv, &i), 0, 255);
        else if (strcmp(a, "--first") == 0)
            first = (uint32_t)tool_parse_u64(a, tool_option_value(argc, argv, &i), 0, 255);
        else if (strcmp(a, "--mips") == 0)
            mips = 1;
        else if (a[0] == '-')
            tool_usage_error("unknown option \"%s\"", a);
        else if (positional_count == 3)
            tool_usage_error("one argument too many: \"%s\"", a);
        else
            positional[positional_count++] = a;
    }
    if (positional_count != 3)
        tool_usage_error("needs KIND, INPUT.png and OUTPUT");
    static const char* const kinds[] = {"rle_image", "image", "texture", "stencil", "palette"};
    bool known = false;
    for (const char* k : kinds)
        known |= strcmp(positional[0], k) == 0;
    if (!known)
        tool_usage_error("unknown kind \"%s\"", positional[0]);
    const char* kind = positional[0];
    const char* input = positional[1];
    const char* output = positional[2];

    std::vector<uint8_t> memory(OVERLAYPREP_ARENA_BYTES);
    xmemarena arena;
    xmemarena_init(&arena, "reel_overlayprep", memory.size(), memory.data());
    const char* why = nullptr;
    prep_index_picture picture;
    if (palette_path) {
        reel_palette palette;
        if (!prep_png_palette(&palette, &arena, palette_path, &why))
            tool_fail("%s: %s", palette_path, why);
        if (!prep_load_png_with_palette(&picture, &arena, input, &palette, key != PREP_NO_KEY ? key : 0, &why))
            tool_fail("%s: %s", input, why);
    } else {
        if (!prep_load_indexed_png(&picture, &arena, input, &why))
            tool_fail("%s: %s", input, why);
        if (key != PREP_NO_KEY)
            picture.key = key;
    }
    if (picture.key == PREP_NO_KEY)
        picture.key = 0;  // no transparent entry: index 0, the overlay's transparent index
    std::vector<uint8_t> block;
    overlayprep_block(&block, kind, &picture, first, mips, &arena);
    tool_write_resource(output, block.data(), block.size());
    printf("%s: %s of %u x %u from %s\n", output, kind, picture.width, picture.height, input);
    return 0;
}
