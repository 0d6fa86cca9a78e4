// reel_fontmake: makes the show's bitmap font resource from a TrueType or OpenType font. Each
// character of a range is rendered at a pixel height into glyph pixels (coverage 0 to 255), a
// stencil and its offsets and advance; the file is the byte-order marker and the font block,
// ready for a pack manifest line "font NAME FILE".
//
//   reel_fontmake [--first CODE] [--last CODE] [--threshold N] [--swapped] FONT PIXELS OUT.fnt
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "font_make.h"
#include "memarena.h"
#include "prep_file.h"
#include "tool.h"

namespace {

constexpr uint64_t FONTMAKE_ARENA_BYTES = 256ull << 20;
constexpr uint64_t FONTMAKE_TMP_BYTES = 16ull << 20;

struct fontmake_options {
    const char* font_path;
    const char* out_path;
    font_make_options make;
    int32_t order;
};

char fontmake_usage[1024];
const tool_info FONTMAKE_TOOL = {"reel_fontmake", fontmake_usage};

void fontmake_make_usage()
{
    snprintf(fontmake_usage, sizeof(fontmake_usage),
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

// A character code: decimal, or hexadecimal after "0x".
uint32_t fontmake_code(const char* option, const char* text)
{
    if (text[0] != '0' || (text[1] != 'x' && text[1] != 'X'))
        return (uint32_t)tool_parse_u64(option, text, 0, FONT_MAKE_MAX_CODE);
    char* end = nullptr;
    errno = 0;
    const unsigned long long v = isxdigit((unsigned char)text[2]) ? strtoull(text + 2, &end, 16) : 0;
    if (!end || *end || errno || v > FONT_MAKE_MAX_CODE)
        tool_usage_error("%s needs a whole number from 0 to %u, not \"%s\"", option, FONT_MAKE_MAX_CODE, text);
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
        if (!strcmp(a, "--first")) {
            o.make.first = fontmake_code(a, tool_option_value(argc, argv, &i));
        } else if (!strcmp(a, "--last")) {
            o.make.last = fontmake_code(a, tool_option_value(argc, argv, &i));
        } else if (!strcmp(a, "--threshold")) {
            o.make.stencil_threshold = (uint32_t)tool_parse_u64(a, tool_option_value(argc, argv, &i), 1, 255);
        } else if (!strcmp(a, "--swapped")) {
            o.order = BYTE_ORDER_SWAPPED;
        } else if (a[0] == '-' && a[1] != 0) {
            tool_usage_error("unknown option \"%s\"", a);
        } else if (positional_count == 3) {
            tool_usage_error("one argument too many: \"%s\"", a);
        } else {
            positional[positional_count++] = a;
        }
    }
    if (positional_count < 3)
        tool_usage_error("needs FONT, PIXELS and OUT.fnt");
    o.font_path = positional[0];
    o.make.pixel_height = (uint32_t)tool_parse_u64("PIXELS", positional[1], 1, FONT_MAKE_MAX_PIXELS);
    o.out_path = positional[2];
    if (o.make.first > o.make.last)
        tool_usage_error("--first %u is after --last %u", o.make.first, o.make.last);
    return o;
}

}  // namespace

int main(int argc, char** argv)
{
    fontmake_make_usage();
    tool_begin(&FONTMAKE_TOOL, argc, argv);
    const fontmake_options o = fontmake_parse(argc, argv);
    static xmemarena arena, tmp;
    xmemarena_init(&arena, "fontmake_arena", FONTMAKE_ARENA_BYTES, malloc(FONTMAKE_ARENA_BYTES));
    xmemarena_init(&tmp, "fontmake_tmp_arena", FONTMAKE_TMP_BYTES, malloc(FONTMAKE_TMP_BYTES));
    char why[1024];
    uint64_t size = 0;
    const uint8_t* data = prep_file_read(o.font_path, &arena, &size, why, sizeof(why));
    if (!data)
        tool_fail("%s", why);
    reel_font font;
    font_make_summary summary;
    if (font_make(&font, &summary, &arena, &tmp, data, size, &o.make, why, sizeof(why)) != 0)
        tool_fail("%s: %s", o.font_path, why);
    uint64_t file_size = 0;
    const uint8_t* file = font_make_file(&font, &arena, o.order, &file_size);
    tool_make_parent_dir(o.out_path);
    tool_write_file(o.out_path, file, file_size, nullptr, 0);
    printf("%s: characters %u to %u at %u pixels: ascent %d, descent %d, line gap %d; %u without a glyph\n",
           o.font_path, font.first, font.last, o.make.pixel_height, summary.ascent, summary.descent, summary.line_gap,
           summary.missing);
    printf("wrote %llu bytes to \"%s\"\n", (unsigned long long)file_size, o.out_path);
    return 0;
}
