// The script linter (see lint.h). It reads the script line by line with the engine's rules,
// but checks every field strictly and goes on after a finding; when it has found no error it
// hands the text to the engine's own loader for the resolved times, so the timeline is exactly
// what the show will play.
#include "lint.h"

#include <csetjmp>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "diag.h"
#include "reel.h"
#include "reel_resource.h"

namespace {

constexpr uint32_t LINT_ARGS_MAX = 13;
constexpr uint32_t LINT_COLUMNS = 8;  // before the argument text
constexpr uint32_t LINT_SCENE_CADENCE = 1;       // acts only while few update passes have run
constexpr uint32_t LINT_SCENE_IGNORES_TEXT = 2;  // its parser reads nothing
constexpr double LINT_SAMPLES_PER_SECOND = 22050.0;
const char* const LINT_SEQUENCE = "sequence.csv";

enum lint_arg_type : uint32_t {
    LINT_ARG_INT,
    LINT_ARG_FLOAT,
    LINT_ARG_LABEL,
    LINT_ARG_RESOURCE,
    LINT_ARG_RESOURCE_OR_0,  // "0" stands for none
    LINT_ARG_COLOUR,         // #rrggbbaa
    LINT_ARG_NAME,           // a node or animation of a datapack: the linter does not open datapacks
};

struct lint_arg {
    const char* name;
    lint_arg_type type;
    int64_t min, max;  // integers
    uint32_t kind;     // resources
};

constexpr lint_arg lint_int(const char* name, int64_t min, int64_t max) { return {name, LINT_ARG_INT, min, max, 0}; }
constexpr lint_arg lint_byte(const char* name) { return {name, LINT_ARG_INT, 0, 255, 0}; }
constexpr lint_arg lint_float(const char* name) { return {name, LINT_ARG_FLOAT, 0, 0, 0}; }
constexpr lint_arg lint_label(const char* name) { return {name, LINT_ARG_LABEL, 0, 0, 0}; }
constexpr lint_arg lint_res(const char* name, uint32_t kind) { return {name, LINT_ARG_RESOURCE, 0, 0, kind}; }
constexpr lint_arg lint_res_or_0(const char* name, uint32_t kind) { return {name, LINT_ARG_RESOURCE_OR_0, 0, 0, kind}; }
constexpr lint_arg lint_colour(const char* name) { return {name, LINT_ARG_COLOUR, 0, 0, 0}; }
constexpr lint_arg lint_name(const char* name) { return {name, LINT_ARG_NAME, 0, 0, 0}; }
constexpr lint_arg lint_pos(const char* name) { return lint_int(name, INT32_MIN, INT32_MAX); }
constexpr lint_arg lint_flag(const char* name) { return lint_int(name, 0, 1); }

// The argument text of each scene function, as its parser reads it. Keep in step with the
// parsers in src/reel_scenes*.cpp and with docs/scripts.md.
struct lint_scene_args {
    const char* name;
    uint32_t flags;
    uint32_t count;
    lint_arg args[LINT_ARGS_MAX];
};

constexpr int64_t LINT_LAST_BACKBUFFER = REEL_BACKBUFFER_COUNT - 1;
constexpr int64_t LINT_LAST_STENCIL_SLOT = REEL_STENCIL_COUNT - 1;
// video_madpack and video_madpack_greets read the same text
#define LINT_MADPACK_ARGS                                                                                              \
    {lint_res("datapack", REEL_KIND_MADPACK), lint_float("time offset in seconds"), lint_float("time speed"),          \
     lint_name("animation"), lint_name("camera node"), lint_name("special node"), lint_name("optional node"),          \
     lint_name("second animation or 0")}

const lint_scene_args lint_scenes[] = {
    {"load_sync", 0, 1, {lint_label("label of the first row not to load")}},
    {"load_async", 0, 1, {lint_label("label of the first row not to load")}},
    {"music_start", 0, 1, {lint_res("music", REEL_KIND_BLOB)}},
    {"music_sync", 0, 1, {lint_int("music position in samples", 0, INT32_MAX)}},
    {"fade_out_music", LINT_SCENE_IGNORES_TEXT, 0, {}},
    {"overlay_clear", 0, 1, {lint_byte("colour index")}},
    {"overlay_backbuffer_clear", 0, 2, {lint_int("back buffer", 0, LINT_LAST_BACKBUFFER), lint_byte("colour index")}},
    {"overlay_clut_fade_to_color",
     0,
     5,
     {lint_int("first entry", 0, 255), lint_int("count", 0, 256), lint_byte("red"), lint_byte("green"),
      lint_byte("blue")}},
    {"overlay_clut_set", 0, 1, {lint_res("palette", REEL_KIND_PALETTE)}},
    {"overlay_palette_animation",
     0,
     4,
     {lint_int("back buffer", 0, LINT_LAST_BACKBUFFER), lint_res("palette animation", REEL_KIND_PALETTE_ANIMATION),
      lint_int("mode", 0, 3), lint_float("speed in palettes per second")}},
    {"overlay_clut_set1_pulsate",
     0,
     9,
     {lint_byte("colour index"), lint_float("phase in cycles"), lint_float("frequency in cycles per second"),
      lint_byte("red 1"), lint_byte("green 1"), lint_byte("blue 1"), lint_byte("red 2"), lint_byte("green 2"),
      lint_byte("blue 2")}},
    {"video_clut_reset", 0, 0, {}},
    {"video_clut_fade_to_color",
     0,
     5,
     {lint_int("first entry", 0, 255), lint_int("count", 0, 256), lint_byte("red"), lint_byte("green"),
      lint_byte("blue")}},
    {"video_clear", LINT_SCENE_CADENCE, 3, {lint_byte("red"), lint_byte("green"), lint_byte("blue")}},
    {"overlay_rle_image",
     0,
     7,
     {lint_res("rle image", REEL_KIND_RLE_IMAGE), lint_flag("single colour"), lint_byte("colour index"),
      lint_pos("start x"), lint_pos("start y"), lint_pos("end x"), lint_pos("end y")}},
    {"overlay_stencil_set",
     0,
     4,
     {lint_int("stencil slot", 0, LINT_LAST_STENCIL_SLOT), lint_res("stencil", REEL_KIND_STENCIL), lint_pos("x"),
      lint_pos("y")}},
    {"overlay_heal", 0, 1, {lint_int("back buffer", 0, LINT_LAST_BACKBUFFER)}},
    {"overlay_scale",
     0,
     8,
     {lint_res("texture", REEL_KIND_TEXTURE), lint_flag("interlace"), lint_pos("x offset"), lint_pos("y offset"),
      lint_pos("start width"), lint_pos("start height"), lint_pos("end width"), lint_pos("end height")}},
    {"overlay_stroke",
     0,
     8,
     {lint_int("back buffer", 0, LINT_LAST_BACKBUFFER), lint_res("image", REEL_KIND_IMAGE),
      lint_float("fade-in seconds"), lint_float("fade-out seconds"), lint_byte("colour index"), lint_flag("origin"),
      lint_pos("x offset"), lint_pos("y offset")}},
    {"overlay_starfield",
     0,
     10,
     {lint_int("stencil slot or -1", -1, LINT_LAST_STENCIL_SLOT),
      lint_res_or_0("threshold image or 0", REEL_KIND_IMAGE),
      lint_int("star count", 1, REEL_STAR_COUNT), lint_res("palette", REEL_KIND_PALETTE), lint_float("yaw"),
      lint_float("pitch"), lint_pos("first level"), lint_pos("last level"), lint_pos("x offset"),
      lint_pos("y offset")}},
    {"video_tunnel",
     0,
     3,
     {lint_res("texture", REEL_KIND_TEXTURE), lint_float("distance speed"), lint_float("angle speed")}},
    {"video_bumpmap",
     0,
     13,
     {lint_res("colour texture", REEL_KIND_TEXTURE), lint_res("bump texture", REEL_KIND_TEXTURE),
      lint_res("stencil", REEL_KIND_STENCIL), lint_float("metallic"), lint_float("roughness"), lint_colour("emission"),
      lint_colour("ambient"), lint_colour("light colour"), lint_colour("highlight colour"), lint_pos("start x"),
      lint_pos("start y"), lint_pos("end x"), lint_pos("end y")}},
    {"video_background",
     0,
     5,
     {lint_res("texture", REEL_KIND_TEXTURE), lint_int("start x", 0, INT32_MAX), lint_int("start y", 0, INT32_MAX),
      lint_int("end x", 0, INT32_MAX), lint_int("end y", 0, INT32_MAX)}},
    {"video_madpack", 0, 8, LINT_MADPACK_ARGS},
    {"video_madpack_greets", 0, 8, LINT_MADPACK_ARGS},
};
#undef LINT_MADPACK_ARGS

// Description list keys in the order the engine compares them, with the binding each fills
// (numbers have no resource kind). Madpacks, colours, fonts and blobs come only from arguments.
constexpr uint32_t LINT_NUMBERS = REEL_KIND_COUNT;
const struct {
    const char* key;
    uint32_t kind;
    uint8_t reel_scene_needs::*need;
} lint_ini_keys[] = {
    {"palette_animations", REEL_KIND_PALETTE_ANIMATION, &reel_scene_needs::palette_animations},
    {"palettes", REEL_KIND_PALETTE, &reel_scene_needs::palettes},
    {"rle_images", REEL_KIND_RLE_IMAGE, &reel_scene_needs::rle_images},
    {"images", REEL_KIND_IMAGE, &reel_scene_needs::images},
    {"stencils", REEL_KIND_STENCIL, &reel_scene_needs::stencils},
    {"textures", REEL_KIND_TEXTURE, &reel_scene_needs::textures},
    {"integers", LINT_NUMBERS, &reel_scene_needs::integers},
    {"floats", LINT_NUMBERS, &reel_scene_needs::floats},
};
constexpr uint32_t LINT_INI_KEYS = sizeof(lint_ini_keys) / sizeof(lint_ini_keys[0]);
const struct {
    const char* name;
    uint8_t reel_scene_needs::*need;
} lint_argument_only_bindings[] = {
    {"madpacks", &reel_scene_needs::madpacks},
    {"colours", &reel_scene_needs::colours},
    {"fonts", &reel_scene_needs::fonts},
    {"blobs", &reel_scene_needs::blobs},
};

struct lint_label_entry {
    const char* name;
    uint32_t line;
};

struct lint_context {
    const lint_show* show;
    FILE* out;
    xmemarena* arena;
    lint_result result;
    lint_label_entry* labels;
    uint32_t label_count;
    // the description being read, for the callbacks
    const char* ini_name;
    const char* ini_text;
    uint32_t ini_counts[LINT_INI_KEYS];  // entries bound per key (a later list replaces an earlier)
};

void lint_report(lint_context* c, const char* file, uint32_t line, const char* level, const char* fmt, ...)
    DIAG_PRINTF(5, 6);

void lint_report(lint_context* c, const char* file, uint32_t line, const char* level, const char* fmt, ...)
{
    if (line)
        fprintf(c->out, "%s:%u: %s: ", file, line, level);
    else
        fprintf(c->out, "%s: %s: ", file, level);
    va_list args;
    va_start(args, fmt);
    vfprintf(c->out, fmt, args);
    va_end(args);
    fputc('\n', c->out);
    if (level[0] == 'e')
        c->result.errors++;
    else if (level[0] == 'w')
        c->result.warnings++;
    else
        c->result.notes++;
}

const lint_resource* lint_find(const lint_show* show, uint32_t kind, const char* name)
{
    for (uint32_t i = 0; i < show->count; i++)
        if (show->resources[i].kind == kind && strcmp(show->resources[i].name, name) == 0)
            return &show->resources[i];
    return nullptr;
}

const lint_scene_args* lint_scene(const char* name)
{
    for (const lint_scene_args& s : lint_scenes)
        if (strcmp(s.name, name) == 0)
            return &s;
    return nullptr;
}

// The engine's binding: the first table row whose name begins with the function name.
const reel_scene_binding* lint_binding(const char* function)
{
    const size_t length = strlen(function);
    for (uint32_t i = 0; i < reel_scene_table_count; i++)
        if (strncmp(reel_scene_table[i].name, function, length) == 0)
            return &reel_scene_table[i];
    return nullptr;
}

// A whole decimal number (optional sign) and nothing else, within 32 bits.
bool lint_is_int(const char* text, int64_t* value)
{
    const char* p = text + (*text == '-' || *text == '+');
    if (*p < '0' || *p > '9')
        return false;
    for (const char* q = p; *q; q++)
        if (*q < '0' || *q > '9')
            return false;
    *value = strtoll(text, nullptr, 10);
    return *value >= INT32_MIN && *value <= INT32_MAX;
}

// As the engine reads a colour: '#' and four bytes of two hex digits, nothing after.
bool lint_is_colour(const char* text)
{
    return text[0] == '#' && strlen(text) == 9 && strspn(text + 1, "0123456789abcdefABCDEF") == 8;
}

bool lint_is_float(const char* text)
{
    char* end = nullptr;
    strtof(text, &end);
    return end != text && *end == 0 && text[0] != ' ' && text[0] != '\t';
}

// Splits text at commas in place, up to max fields; the last field keeps any further commas.
uint32_t lint_split(char* text, char** fields, uint32_t max)
{
    uint32_t n = 0;
    fields[n++] = text;
    for (char* p = text; *p && n < max; p++)
        if (*p == ',') {
            *p = 0;
            fields[n++] = p + 1;
        }
    return n;
}

// The engine's word field: up to a space or a tab, which may only trail.
const char* lint_word(lint_context* c, uint32_t line, char* field, const char* what)
{
    char* end = field + strcspn(field, " \t");
    if (end[strspn(end, " \t")] != 0)
        lint_report(c, LINT_SEQUENCE, line, "error", "%s \"%s\" holds a space: the engine reads only \"%.*s\"", what,
                    field, (int)(end - field), field);
    *end = 0;
    return field;
}

void lint_time_column(lint_context* c, uint32_t line, const char* text, const char* what)
{
    int64_t value = 0;
    const char* p = text + strspn(text, " \t");
    if (!lint_is_int(p, &value))
        lint_report(c, LINT_SEQUENCE, line, "error", "%s \"%s\" is not a whole number of milliseconds", what, text);
}

bool lint_has_label(const lint_context* c, const char* name)
{
    for (uint32_t i = 0; i < c->label_count; i++)
        if (strcmp(c->labels[i].name, name) == 0)
            return true;
    return false;
}

void lint_time_reference(lint_context* c, uint32_t line, const char* mode, const char* reference, bool is_end)
{
    const char* side = is_end ? "end" : "start";
    if (strcmp(mode, "abs") == 0)
        return;
    if (strcmp(mode, "relstart") != 0 && strcmp(mode, "relend") != 0) {
        lint_report(c, LINT_SEQUENCE, line, "error", "unknown %s mode \"%s\" (abs, relstart or relend)", side, mode);
        return;
    }
    if (strcmp(reference, "me") == 0 && (strcmp(mode, is_end ? "relend" : "relstart") == 0)) {
        lint_report(c, LINT_SEQUENCE, line, "error", "the %s cannot be relative to its own %s", side, side);
        return;
    }
    if (strcmp(reference, "prev") != 0 && strcmp(reference, "me") != 0 && !lint_has_label(c, reference))
        lint_report(c, LINT_SEQUENCE, line, "error", "%s refers to \"%s\", which is neither prev, me nor a label",
                    side, reference);
}

void lint_argument(lint_context* c, uint32_t line, const char* function, const lint_arg* a, uint32_t number,
                   const char* text)
{
    int64_t value = 0;
    switch (a->type) {
    case LINT_ARG_INT:
        if (!lint_is_int(text + strspn(text, " \t"), &value))
            lint_report(c, LINT_SEQUENCE, line, "error",
                        "%s argument %u (%s) \"%s\" is not a whole number (the engine reads %d)", function, number,
                        a->name, text, atoi(text));
        else if (value < a->min || value > a->max)
            lint_report(c, LINT_SEQUENCE, line, a->max == 255 && value > 255 ? "warning" : "error",
                        "%s argument %u (%s) is %lld, outside %lld to %lld%s", function, number, a->name,
                        (long long)value, (long long)a->min, (long long)a->max,
                        a->max == 255 ? " (the engine keeps only the low byte)" : "");
        break;
    case LINT_ARG_FLOAT:
        if (!lint_is_float(text))
            lint_report(c, LINT_SEQUENCE, line, "error", "%s argument %u (%s) \"%s\" is not a number (the engine reads %g)",
                        function, number, a->name, text, atof(text));
        break;
    case LINT_ARG_LABEL:
        if (!lint_has_label(c, text))
            lint_report(c, LINT_SEQUENCE, line, "error", "%s argument %u: no label \"%s\" in the script", function,
                        number, text);
        break;
    case LINT_ARG_COLOUR:
        if (!lint_is_colour(text))
            lint_report(c, LINT_SEQUENCE, line, "error", "%s argument %u (%s) \"%s\" is not a colour #rrggbbaa",
                        function, number, a->name, text);
        break;
    case LINT_ARG_NAME:
        break;
    case LINT_ARG_RESOURCE_OR_0:
    case LINT_ARG_RESOURCE:
        if (!(a->type == LINT_ARG_RESOURCE_OR_0 && strcmp(text, "0") == 0) && !lint_find(c->show, a->kind, text))
            lint_report(c, LINT_SEQUENCE, line, "error", "%s argument %u: %s \"%s\" is in no pack", function, number,
                        reel_kind_name(a->kind), text);
        break;
    }
}

void lint_arguments(lint_context* c, uint32_t line, const char* function, const reel_scene_binding* binding,
                    char* args)
{
    const lint_scene_args* spec = lint_scene(binding->name);
    if (!binding->parse_args) {
        lint_report(c, LINT_SEQUENCE, line, "error", "%s takes no arguments, but has \"%s\"", function, args);
        return;
    }
    if (!spec) {
        lint_report(c, LINT_SEQUENCE, line, "note", "the arguments of %s are not checked (the linter does not know them)",
                    binding->name);
        return;
    }
    if (spec->flags & LINT_SCENE_IGNORES_TEXT) {
        if (args[0])
            lint_report(c, LINT_SEQUENCE, line, "warning", "%s ignores its arguments \"%s\"", function, args);
        return;
    }
    char* fields[LINT_ARGS_MAX + 1];
    const uint32_t n = lint_split(args, fields, spec->count + 1);
    for (uint32_t i = 0; i < spec->count && i < n; i++)
        lint_argument(c, line, binding->name, &spec->args[i], i + 1, fields[i]);
    if (n < spec->count)
        lint_report(c, LINT_SEQUENCE, line, "error", "%s needs %u arguments, has %u: %s is missing", binding->name,
                    spec->count, n, spec->args[n].name);
    if (n > spec->count)
        lint_report(c, LINT_SEQUENCE, line, "warning", "%s takes %u arguments; the rest \"%s\" is ignored",
                    binding->name, spec->count, fields[spec->count]);
}

// ---- scene descriptions ----

uint32_t lint_ini_line(const lint_context* c, const char* at)
{
    uint32_t line = 1;
    for (const char* p = c->ini_text; p < at; p++)
        line += *p == '\n';
    return line;
}

void lint_ini_value(const char* key, uint32_t key_length, const char* value, uint32_t value_length, void* user)
{
    auto* c = (lint_context*)user;
    if (key_length && strncmp(key, "scene_name", key_length) == 0)
        return;
    lint_report(c, c->ini_name, lint_ini_line(c, key), "warning", "unknown key \"%s\" (value \"%.*s\") is skipped", key,
                (int)value_length, value);
}

void lint_ini_item(const char* key, uint32_t key_length, const char* item, uint32_t item_length, uint32_t index,
                   uint32_t count, void* user)
{
    (void)item_length, (void)count;
    auto* c = (lint_context*)user;
    const uint32_t line = lint_ini_line(c, item);
    if (strchr(item, ']'))
        lint_report(c, c->ini_name, line, "error", "item \"%s\" holds the closing bracket: put a space before ]", item);
    uint32_t which = 0;
    while (which < LINT_INI_KEYS && strncmp(lint_ini_keys[which].key, key, key_length) != 0)
        which++;
    if (which == LINT_INI_KEYS) {
        if (index == 0)
            lint_report(c, c->ini_name, line, "warning", "unknown array key \"%s\" is skipped", key);
        return;
    }
    const auto& k = lint_ini_keys[which];
    if (index == 0) {
        c->ini_counts[which] = count;
        if (k.kind != LINT_NUMBERS && strcmp(k.key, key) != 0)
            lint_report(c, c->ini_name, line, "warning", "key \"%s\" is read as \"%s\"", key, k.key);
    }
    int64_t value = 0;
    if (k.kind != LINT_NUMBERS) {
        if (!lint_find(c->show, k.kind, item))
            lint_report(c, c->ini_name, line, "error", "%s \"%s\" is in no pack", reel_kind_name(k.kind), item);
    } else if (k.need == &reel_scene_needs::integers) {
        if (!lint_is_int(item, &value))
            lint_report(c, c->ini_name, line, "error", "integer \"%s\" is not a whole number (the engine reads %d)",
                        item, atoi(item));
    } else if (!lint_is_float(item)) {
        lint_report(c, c->ini_name, line, "error", "float \"%s\" is not a number (the engine reads %g)", item,
                    atof(item));
    }
}

// The description replaces the argument text: it must bind every entry the scene reads.
void lint_description_needs(lint_context* c, uint32_t line, const reel_scene_binding* binding, const char* name)
{
    for (uint32_t i = 0; i < LINT_INI_KEYS; i++)
        if (c->ini_counts[i] < binding->needs.*lint_ini_keys[i].need)
            lint_report(c, LINT_SEQUENCE, line, "error", "%s reads %u %s, description \"%s\" binds %u", binding->name,
                        binding->needs.*lint_ini_keys[i].need, lint_ini_keys[i].key, name, c->ini_counts[i]);
    for (const auto& b : lint_argument_only_bindings)
        if (binding->needs.*b.need)
            lint_report(c, LINT_SEQUENCE, line, "error",
                        "%s reads %s, which only its arguments give, not a description", binding->name, b.name);
}

jmp_buf lint_fatal_jump;

void lint_on_fatal() { longjmp(lint_fatal_jump, 1); }

// Runs one of the engine's own readers with its fatal exit turned into a finding (the engine's
// message is already on standard error then). setjmp stays in this frame, which outlives the
// jump.
template <class F>
bool lint_engine_run(lint_context* c, const char* file, F&& reader)
{
    fflush(c->out);
    if (setjmp(lint_fatal_jump) != 0) {
        diag_set_fatal_hook(nullptr);
        lint_report(c, file, 0, "error", "the engine refuses it with the message above");
        return false;
    }
    diag_set_fatal_hook(lint_on_fatal);
    reader();
    diag_set_fatal_hook(nullptr);
    return true;
}

void lint_description(lint_context* c, uint32_t line, const reel_scene_binding* binding, const char* name)
{
    const lint_resource* r = lint_find(c->show, REEL_KIND_RAW, name);
    if (!r || !r->text) {
        lint_report(c, LINT_SEQUENCE, line, "error", "scene description \"%s\" is in no pack (kind raw)", name);
        return;
    }
    const uint64_t mark = xmemarena_get_sp(c->arena);
    const size_t length = strlen(r->text);
    auto* text = (char*)xmemarena_push(c->arena, length + 1);
    memcpy(text, r->text, length + 1);
    c->ini_name = name;
    c->ini_text = text;
    memset(c->ini_counts, 0, sizeof(c->ini_counts));
    if (lint_engine_run(c, name, [&] { ini_parse(text, name, lint_ini_value, lint_ini_item, c); }))
        lint_description_needs(c, line, binding, name);
    xmemarena_set_sp(c->arena, mark);
}

// ---- the script ----

struct lint_line {
    char* text;  // the line without its line end, a copy
    uint32_t number;
};

// The next line of the text, CR LF or LF ended; false at the end.
bool lint_next_line(const char** cursor, lint_line* l, xmemarena* arena)
{
    const char* p = *cursor;
    if (!*p)
        return false;
    const char* end = p + strcspn(p, "\n");
    const char* stop = end > p && end[-1] == '\r' ? end - 1 : end;
    l->text = (char*)xmemarena_push(arena, (uint64_t)(stop - p) + 1);
    memcpy(l->text, p, (size_t)(stop - p));
    l->text[stop - p] = 0;
    l->number++;
    *cursor = *end ? end + 1 : end;
    return true;
}

// A label line's name, or null: its first field (up to a comma, space or tab) ends in a colon.
const char* lint_label_name(char* text)
{
    const size_t first = strcspn(text, ", \t");
    const char* colon = (const char*)memchr(text, ':', first);
    if (!colon)
        return nullptr;
    text[colon - text] = 0;
    return text;
}

// Rows of the functions that start, tie and end the show, counted over the script.
struct lint_control_rows {
    uint32_t music_starts;
    uint32_t music_syncs;
    uint32_t fades;
};

void lint_row(lint_context* c, lint_line* l, lint_control_rows* control)
{
    char* columns[LINT_COLUMNS + 1];
    const uint32_t n = lint_split(l->text, columns, LINT_COLUMNS + 1);
    if (n < LINT_COLUMNS) {
        lint_report(c, LINT_SEQUENCE, l->number, "error",
                    "a scene row has 8 columns before its arguments (start mode, start reference, start, preload, "
                    "end mode, end reference, end, function), this one %u",
                    n);
        return;
    }
    const char* start_mode = lint_word(c, l->number, columns[0], "start mode");
    const char* start_reference = lint_word(c, l->number, columns[1], "start reference");
    const char* end_mode = lint_word(c, l->number, columns[4], "end mode");
    const char* end_reference = lint_word(c, l->number, columns[5], "end reference");
    lint_time_reference(c, l->number, start_mode, start_reference, false);
    lint_time_reference(c, l->number, end_mode, end_reference, true);
    lint_time_column(c, l->number, columns[2], "start");
    lint_time_column(c, l->number, columns[3], "preload");
    lint_time_column(c, l->number, columns[6], "end");
    const char* function = lint_word(c, l->number, columns[7], "function");
    control->music_starts += strcmp(function, "music_start") == 0;
    control->music_syncs += strcmp(function, "music_sync") == 0;
    control->fades += strcmp(function, "fade_out_music") == 0;
    const reel_scene_binding* binding = lint_binding(function);
    if (!function[0] || !binding) {
        lint_report(c, LINT_SEQUENCE, l->number, "error", "unknown scene function \"%s\"", function);
        return;
    }
    if (strcmp(binding->name, function) != 0)
        lint_report(c, LINT_SEQUENCE, l->number, "warning", "\"%s\" binds to %s by its prefix: write the whole name",
                    function, binding->name);
    const lint_scene_args* spec = lint_scene(binding->name);
    if (spec && (spec->flags & LINT_SCENE_CADENCE))
        lint_report(c, LINT_SEQUENCE, l->number, "warning",
                    "%s acts only in render calls while it has had at most 2 update calls: live, where many update "
                    "passes come before each frame, it usually does nothing (reel_capture shows the same by default)",
                    binding->name);
    if (n <= LINT_COLUMNS)
        return;
    char* args = columns[LINT_COLUMNS];
    if (args[0] == '@')
        lint_description(c, l->number, binding, args + 1);
    else
        lint_arguments(c, l->number, function, binding, args);
}

// Labels first, so that rows may refer to labels further down.
void lint_collect_labels(lint_context* c, const char* body)
{
    lint_line l = {nullptr, 1};
    c->label_count = 0;
    c->labels = (lint_label_entry*)xmemarena_push_align(c->arena, (strlen(body) + 1) * sizeof(lint_label_entry),
                                                        alignof(lint_label_entry));
    while (lint_next_line(&body, &l, c->arena)) {
        if (l.text[0] == '#' || strncmp(l.text, "barrier,", 8) == 0)
            continue;
        if (const char* name = lint_label_name(l.text))
            c->labels[c->label_count++] = {name, l.number};
    }
}

void lint_lines(lint_context* c, const char* body, uint32_t* rows)
{
    lint_line l = {nullptr, 1};
    lint_control_rows control = {0, 0, 0};
    while (lint_next_line(&body, &l, c->arena)) {
        if (l.text[0] == '#' || l.text[0] == 0)
            continue;
        if (strncmp(l.text, "barrier,", 8) == 0) {
            if (strcmp(l.text + 8, "prev_completed") != 0)
                lint_report(c, LINT_SEQUENCE, l.number, "error", "barrier \"%s\" is not prev_completed", l.text + 8);
            if (*rows == 0)
                lint_report(c, LINT_SEQUENCE, l.number, "error", "a barrier before the first scene row");
            continue;
        }
        if (const char* name = lint_label_name(l.text)) {
            if (!name[0])
                lint_report(c, LINT_SEQUENCE, l.number, "error", "a label without a name");
            for (uint32_t i = 0; i < c->label_count && c->labels[i].line < l.number; i++)
                if (name[0] && strcmp(c->labels[i].name, name) == 0)
                    lint_report(c, LINT_SEQUENCE, l.number, "warning", "label \"%s\" is already on line %u: rows refer "
                                "to that one", name, c->labels[i].line);
            continue;
        }
        lint_row(c, &l, &control);
        *rows += 1;
    }
    if (control.music_starts == 0)
        lint_report(c, LINT_SEQUENCE, 0, "error", "no music_start row: the clock never moves and no row after 0 runs");
    if (control.music_syncs > 1)
        lint_report(c, LINT_SEQUENCE, 0, "error", "%u music_sync rows; there can be at most one", control.music_syncs);
    if (control.fades == 0)
        lint_report(c, LINT_SEQUENCE, 0, "warning",
                    "no fade_out_music row: the show never ends by itself (only Escape ends it)");
}

double lint_seconds(int32_t samples) { return (double)samples / LINT_SAMPLES_PER_SECOND; }

// What only the resolved times tell, and the timeline itself.
void lint_timeline(lint_context* c, const reel_sequence* seq, bool print)
{
    int32_t show_end = INT32_MAX;
    for (uint32_t i = 0; i < seq->row_count; i++)
        if (strcmp(seq->rows[i].function, "fade_out_music") == 0 && seq->rows[i].end < show_end)
            show_end = seq->rows[i].end;
    for (uint32_t i = 0; i < seq->row_count; i++) {
        const reel_sequence_row* r = &seq->rows[i];
        if (strcmp(r->function, "music_start") == 0) {
            // a scene runs at once in the pass its loading completes, so a load time of 0 is enough
            if (r->load > 0)
                lint_report(c, LINT_SEQUENCE, r->line, "error",
                            "music_start loads at %.3f s, but the clock stays at 0 until the music starts: the "
                            "show would never begin (give it a preload of at least its start)",
                            lint_seconds(r->load));
        }
        if (r->end < r->start)
            lint_report(c, LINT_SEQUENCE, r->line, "error", "%s ends at %.3f s, before it starts at %.3f s", r->function,
                        lint_seconds(r->end), lint_seconds(r->start));
        if (r->load < 0)
            lint_report(c, LINT_SEQUENCE, r->line, "warning",
                        "%s should load at %.3f s, before the clock starts at 0: it loads at 0 s", r->function,
                        lint_seconds(r->load));
        if (r->preload_ms < 0)
            lint_report(c, LINT_SEQUENCE, r->line, "warning", "%s has a negative preload: it starts unloaded",
                        r->function);
        if (r->start >= show_end)
            lint_report(c, LINT_SEQUENCE, r->line, "warning", "%s starts at %.3f s, when the show has ended (%.3f s)",
                        r->function, lint_seconds(r->start), lint_seconds(show_end));
    }
    if (!print)
        return;
    fprintf(c->out, "timeline (seconds of the show clock; music byte 0 plays at %.3f s):\n", lint_seconds((int32_t)seq->lead_in));
    fprintf(c->out, "%6s  %-28s %10s %10s %10s\n", "line", "function", "start", "end", "load");
    for (uint32_t i = 0; i < seq->row_count; i++) {
        const reel_sequence_row* r = &seq->rows[i];
        fprintf(c->out, "%6u  %-28s %10.3f %10.3f %10.3f\n", r->line, r->function, lint_seconds(r->start),
                lint_seconds(r->end), lint_seconds(r->load));
    }
}

}  // namespace

lint_result lint_check(const lint_show* show, uint32_t flags, xmemarena* arena, FILE* out)
{
    lint_context c;
    memset(&c, 0, sizeof(c));
    c.show = show;
    c.out = out;
    c.arena = arena;
    const uint64_t mark = xmemarena_get_sp(arena);
    const lint_resource* script = lint_find(show, REEL_KIND_RAW, LINT_SEQUENCE);
    if (!script || !script->text) {
        lint_report(&c, LINT_SEQUENCE, 0, "error", "no script: \"sequence.csv\" of kind raw is in no pack");
        return c.result;
    }
    const char* text = script->text;
    const size_t length = strlen(text);
    if (length == 0 || text[length - 1] != '\n') {
        lint_report(&c, LINT_SEQUENCE, 0, "error", "the script is empty or its last line has no line end");
        return c.result;
    }
    const char* body = strchr(text, '\n') + 1;  // line 1 is a header
    lint_collect_labels(&c, body);
    uint32_t rows = 0;
    lint_lines(&c, body, &rows);
    if (c.result.errors == 0) {
        // the engine's own reading, for the times it will play
        xmemarena* seq_arena = xmemarena_push_arena(arena, "lint_sequence_arena", 256 * (uint64_t)length + (1u << 16));
        xmemarena* tmp_arena = xmemarena_push_arena(arena, "lint_tmp_arena", 4 * (uint64_t)length + (1u << 16));
        reel_sequence seq;
        if (lint_engine_run(&c, LINT_SEQUENCE, [&] { reel_load_sequence(&seq, text, LINT_SEQUENCE, seq_arena, tmp_arena); }))
            lint_timeline(&c, &seq, (flags & LINT_PRINT_TIMELINE) != 0);
    }
    xmemarena_set_sp(arena, mark);
    return c.result;
}

void lint_print_scenes(FILE* out)
{
    for (uint32_t i = 0; i < reel_scene_table_count; i++) {
        const reel_scene_binding* b = &reel_scene_table[i];
        const lint_scene_args* spec = lint_scene(b->name);
        fprintf(out, "%s", b->name);
        if (!b->parse_args)
            fprintf(out, " (no arguments)");
        else if (!spec)
            fprintf(out, " (arguments not described)");
        else if (spec->flags & LINT_SCENE_IGNORES_TEXT)
            fprintf(out, " (ignores its arguments)");
        for (uint32_t a = 0; spec && a < spec->count; a++)
            fprintf(out, "%s%s", a ? ", " : ": ", spec->args[a].name);
        fputc('\n', out);
    }
}
