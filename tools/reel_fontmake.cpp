// reel_fontmake: makes the show's bitmap font resource from a TrueType or OpenType font. Each
// character of a range is rendered at a pixel height into glyph pixels (coverage 0 to 255), a
// stencil and its offsets and advance; the file is the byte-order marker and the font block,
// ready for a pack manifest line "font NAME FILE".
//
//   reel_fontmake [--first CODE] [--last CODE] [--threshold N] [--swapped] FONT PIXELS OUT.fnt
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "font_make.h"
#include "memarena.h"
#include "prep_file.h"

namespace {

constexpr uint64_t FONTMAKE_ARENA_BYTES = 256ull << 20;
constexpr uint64_t FONTMAKE_TMP_BYTES = 16ull << 20;
constexpr int FONTMAKE_EXIT_USAGE = 2;

struct fontmake_options {
    const char* font_path;
    const char* out_path;
    font_make_options make;
    int32_t order;
};

void fontmake_print_usage(FILE* out)
{
    fprintf(out,
            "usage: reel_fontmake [--first CODE] [--last CODE] [--threshold N] [--swapped] FONT PIXELS OUT.fnt\n"
            "Renders the characters FIRST to LAST of the TrueType or OpenType file FONT at PIXELS pixels from\n"
            "ascent to descent and writes them as a font resource to OUT.fnt (its folder is created).\n"
            "  --first CODE    first character code, decimal or 0x hex (default %u, space)\n"
            "  --last CODE     last character code, at most %u (default %u, '~'); text is drawn byte by\n"
            "                  byte as signed characters, so codes above 127 are stored but never drawn\n"
            "  --threshold N   pixels of coverage N (1 to 255) or more are set in the glyph stencils\n"
            "                  (default %u: every painted pixel)\n"
            "  --swapped       write the other byte order than this machine's\n"
            "Glyph pixels are coverage values 0 (transparent) to 255; the pen's y is the baseline.\n"
            "Characters the font lacks become empty glyphs that do not move the pen.\n",
            FONT_MAKE_DEFAULT_FIRST, FONT_MAKE_MAX_CODE, FONT_MAKE_DEFAULT_LAST, FONT_MAKE_DEFAULT_THRESHOLD);
}

[[noreturn]] void fontmake_usage_error(const char* fmt, const char* what)
{
    fprintf(stderr, "reel_fontmake: ");
    fprintf(stderr, fmt, what);
    fprintf(stderr, "\n");
    fontmake_print_usage(stderr);
    exit(FONTMAKE_EXIT_USAGE);
}

uint32_t fontmake_number(const char* text, const char* option)
{
    char* end = nullptr;
    errno = 0;
    const unsigned long long v = text && *text >= '0' && *text <= '9' ? strtoull(text, &end, 0) : 0;
    if (!text || !end || *end || errno || v > 0xFFFFFFFFull)
        fontmake_usage_error("%s needs a whole number", option);
    return (uint32_t)v;
}

fontmake_options fontmake_parse(int argc, char** argv)
{
    fontmake_options o = {nullptr, nullptr, {0, FONT_MAKE_DEFAULT_FIRST, FONT_MAKE_DEFAULT_LAST, FONT_MAKE_DEFAULT_THRESHOLD},
                          BYTE_ORDER_NATIVE};
    const char* positional[3] = {};
    int positional_count = 0;
    for (int i = 1; i < argc; i++) {
        const char* a = argv[i];
        const char* next = i + 1 < argc ? argv[i + 1] : nullptr;
        if (!strcmp(a, "--help") || !strcmp(a, "-h")) {
            fontmake_print_usage(stdout);
            exit(0);
        } else if (!strcmp(a, "--first")) {
            o.make.first = fontmake_number(next, a), i++;
        } else if (!strcmp(a, "--last")) {
            o.make.last = fontmake_number(next, a), i++;
        } else if (!strcmp(a, "--threshold")) {
            o.make.stencil_threshold = fontmake_number(next, a), i++;
        } else if (!strcmp(a, "--swapped")) {
            o.order = BYTE_ORDER_SWAPPED;
        } else if (a[0] == '-' && a[1] != 0) {
            fontmake_usage_error("unknown option \"%s\"", a);
        } else if (positional_count == 3) {
            fontmake_usage_error("one argument too many: \"%s\"", a);
        } else {
            positional[positional_count++] = a;
        }
    }
    if (positional_count < 3)
        fontmake_usage_error("%s", "needs FONT, PIXELS and OUT.fnt");
    o.font_path = positional[0];
    o.make.pixel_height = fontmake_number(positional[1], "PIXELS");
    o.out_path = positional[2];
    if (o.make.pixel_height < 1 || o.make.pixel_height > FONT_MAKE_MAX_PIXELS)
        fontmake_usage_error("PIXELS \"%s\" is not from 1 to 1024", positional[1]);
    if (o.make.first > o.make.last || o.make.last > FONT_MAKE_MAX_CODE)
        fontmake_usage_error("%s", "--first and --last must give a range within 0 to 255");
    if (o.make.stencil_threshold < 1 || o.make.stencil_threshold > 255)
        fontmake_usage_error("%s", "--threshold must be from 1 to 255");
    return o;
}

}  // namespace

int main(int argc, char** argv)
{
    const fontmake_options o = fontmake_parse(argc, argv);
    static xmemarena arena, tmp;
    xmemarena_init(&arena, "fontmake_arena", FONTMAKE_ARENA_BYTES, malloc(FONTMAKE_ARENA_BYTES));
    xmemarena_init(&tmp, "fontmake_tmp_arena", FONTMAKE_TMP_BYTES, malloc(FONTMAKE_TMP_BYTES));
    char why[1024];
    uint64_t size = 0;
    const uint8_t* data = prep_file_read(o.font_path, &arena, &size, why, sizeof(why));
    if (!data) {
        fprintf(stderr, "reel_fontmake: %s\n", why);
        return 1;
    }
    reel_font font;
    font_make_summary summary;
    if (font_make(&font, &summary, &arena, &tmp, data, size, &o.make, why, sizeof(why)) != 0) {
        fprintf(stderr, "reel_fontmake: %s: %s\n", o.font_path, why);
        return 1;
    }
    uint64_t file_size = 0;
    const uint8_t* file = font_make_file(&font, &arena, o.order, &file_size);
    if (prep_file_write(o.out_path, file, file_size, why, sizeof(why)) != 0) {
        fprintf(stderr, "reel_fontmake: %s\n", why);
        return 1;
    }
    printf("%s: characters %u to %u at %u pixels: ascent %d, descent %d, line gap %d; %u without a glyph\n",
           o.font_path, font.first, font.last, o.make.pixel_height, summary.ascent, summary.descent, summary.line_gap,
           summary.missing);
    printf("wrote %llu bytes to \"%s\"\n", (unsigned long long)file_size, o.out_path);
    return 0;
}
