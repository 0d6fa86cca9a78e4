// Loading a scene: binding a sequence row to its scene function, then giving the scene its data,
// either from a scene description (an at sign and a resource name in the row's argument text: a
// small key = value / key = [items] text that names the resources and numbers of the scene) or
// through the function's own argument parser, which reads the text with the parse_arg_ family.
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "reel.h"
#include "vmath.h"

static const char* const REEL_LOAD_SOURCE = "src/reel";
static const char* const REEL_ARGS_SOURCE = "src/reel_scenes";  // the argument parsers belong with the scenes
constexpr uint32_t REEL_COLOR_TEXT_LENGTH = 9;                  // '#' and four pairs of hex digits

// What the description callbacks work on.
struct reel_ini_user {
    reel_engine* engine;
    reel_scene* scene;
    xmemarena* arena;
    xmemarena* tmp_arena;
    const reel_scene_binding* table;
    uint32_t table_count;
};

// ---- scene descriptions ----

static bool ini_is_space(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

static bool ini_is_word(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

// White space and comments, counting line feeds; stops at the text's end.
static char* ini_skip_space(char* p, uint32_t* line)
{
    for (;;) {
        if (*p == '\n')
            (*line)++;
        if (ini_is_space(*p)) {
            p++;
        } else if (*p == '#') {
            while (*p != '\n' && *p != 0)
                p++;
        } else {
            return p;
        }
    }
}

// The items between an opening bracket and its closing bracket; an item runs to the next white
// space, so one touching the closing bracket keeps the bracket. Without a callback it only counts.
static uint32_t ini_walk_items(char* open, const char* close, const char* key, uint32_t key_length,
                               reel_ini_item_fn* on_item, uint32_t count, void* user)
{
    uint32_t index = 0;
    uint32_t ignored_lines = 0;  // counted when the closing bracket was found
    char* p = open + 1;
    for (;;) {
        p = ini_skip_space(p, &ignored_lines);
        if (p >= close)
            return index;
        char* item = p;
        while (*p != 0 && !ini_is_space(*p))
            p++;
        if (on_item) {
            const char saved = *p;
            *p = 0;
            on_item(key, key_length, item, (uint32_t)(p - item), index, count, user);
            *p = saved;
        }
        index++;
    }
}

void ini_parse(char* text, const char* file_name, reel_ini_value_fn* on_value, reel_ini_item_fn* on_item, void* user)
{
    // a carriage return right before a line feed is a Windows line end, read as a line end
    for (const char* p = text; *p != '\n' && *p != 0; p++)
        if (*p == '\r' && p[1] != '\n')
            diag_exit("txt contains \\r either bug or unpacked using some tool that converts unix lines to mac.. "
                     "tryp MacZip\n");

    uint32_t line = 1;
    char* p = text;
    for (;;) {
        p = ini_skip_space(p, &line);
        char* key = p;
        while (ini_is_word(*p))
            p++;
        if (p == key)
            return;
        char* key_end = p;
        const uint32_t key_line = line;
        while (*p != '=' && *p != 0) {
            line += *p == '\n';
            p++;
        }
        if (*p == 0)
            diag_exit("missing '%c' on line %d in file \"%s\"\n", '=', (int)key_line, file_name);
        p = ini_skip_space(p + 1, &line);
        const uint32_t key_length = (uint32_t)(key_end - key);

        if (*p == '[') {
            char* open = p;
            const uint32_t open_line = line;
            char* close = open + 1;
            while (*close != ']' && *close != 0) {
                line += *close == '\n';
                close++;
            }
            if (*close == 0)
                diag_exit("expected '%c' to close array starting on line %d in file \"%s\"\n", ']', (int)open_line,
                          file_name);
            const char saved_key_end = *key_end;
            *key_end = 0;
            const uint32_t count = ini_walk_items(open, close, key, key_length, nullptr, 0, user);
            ini_walk_items(open, close, key, key_length, on_item, count, user);
            *key_end = saved_key_end;
            p = close + 1;
        } else {
            char* value = p;
            while (ini_is_word(*p))
                p++;
            const char saved_key_end = *key_end, saved_value_end = *p;
            *key_end = 0;
            *p = 0;
            on_value(key, key_length, value, (uint32_t)(p - value), user);
            *p = saved_value_end;
            *key_end = saved_key_end;
        }
    }
}

// Keys match a known key by prefix; one that is only a prefix is most likely a typo (palette for
// palettes binds palette_animations), so it is reported the way unknown keys are, and bound.
static void reel_ini_report_prefix(const char* key, uint32_t key_length, const char* known)
{
    if (strlen(known) != key_length)
        printf("[%.*s] - only a prefix of [%s], bound as that key\n", (int)key_length, key, known);
}

static void reel_ini_on_value(const char* key, uint32_t key_length, const char* value, uint32_t value_length,
                              void* user)
{
    auto* u = (reel_ini_user*)user;
    if (strncmp(key, "scene_name", key_length) == 0) {
        reel_ini_report_prefix(key, key_length, "scene_name");
        auto* name = (char*)xmemarena_push(u->arena, value_length + 1);
        memcpy(name, value, value_length + 1);
        u->scene->name = name;
        return;
    }
    printf("[%.*s]=[%.*s] - unhandled key value pair?\n", (int)key_length, key, (int)value_length, value);
}

// A fresh array of `count` entries at item 0, replacing any earlier one.
template <class T>
static T* reel_ini_array(uint32_t* slot_count, T** slot, uint32_t index, uint32_t count, xmemarena* arena)
{
    if (index == 0) {
        *slot_count = count;
        *slot = (T*)xmemarena_push_align(arena, (uint64_t)count * sizeof(T), alignof(T));
        memset((void*)*slot, 0, (size_t)count * sizeof(T));
    }
    return &(*slot)[index];
}

template <class T>
static void reel_ini_resource(uint32_t* slot_count, T*** slot, const char* item, uint32_t index, uint32_t count,
                              const reel_ini_user* u, T* (*load)(reel_engine*, const char*))
{
    T** entry = reel_ini_array(slot_count, slot, index, count, u->arena);
    *entry = load(u->engine, item);
}

static void reel_ini_on_array_item(const char* key, uint32_t key_length, const char* item, uint32_t item_length,
                                   uint32_t index, uint32_t count, void* user)
{
    static const char* const keys[] = {"palette_animations", "palettes", "rle_images", "images",
                                       "stencils",           "textures", "integers",   "floats"};
    auto* u = (reel_ini_user*)user;
    reel_scene* s = u->scene;
    uint32_t which = 0;
    while (which < sizeof(keys) / sizeof(keys[0]) && strncmp(key, keys[which], key_length) != 0)
        which++;
    if (index == 0 && which < sizeof(keys) / sizeof(keys[0]))
        reel_ini_report_prefix(key, key_length, keys[which]);
    switch (which) {
    case 0:
        reel_ini_resource(&s->palette_animation_count, &s->palette_animations, item, index, count, u,
                          reel_load_palette_animation);
        break;
    case 1:
        reel_ini_resource(&s->palette_count, &s->palettes, item, index, count, u, reel_load_palette);
        break;
    case 2:
        reel_ini_resource(&s->rle_image_count, &s->rle_images, item, index, count, u, reel_load_rle_image);
        break;
    case 3:
        reel_ini_resource(&s->image_count, &s->images, item, index, count, u, reel_load_image);
        break;
    case 4:
        reel_ini_resource(&s->stencil_count, &s->stencils, item, index, count, u, reel_load_stencil);
        break;
    case 5:
        reel_ini_resource(&s->texture_count, &s->textures, item, index, count, u, reel_load_texture);
        break;
    case 6:
        *reel_ini_array(&s->integer_count, &s->integers, index, count, u->arena) = (int32_t)atoi(item);
        break;
    case 7:
        *reel_ini_array(&s->float_count, &s->floats, index, count, u->arena) = (float)atof(item);
        break;
    default:
        printf("[%.*s][%d/%d]=[%.*s] - unhandled key array?\n", (int)key_length, key, (int)index, (int)count,
               (int)item_length, item);
        break;
    }
}

// ---- binding and loading ----

// The first table row whose name begins with the function name; an empty name binds to nothing.
static const reel_scene_binding* reel_find_binding(const char* function)
{
    const size_t length = strlen(function);
    if (length == 0)
        return nullptr;
    for (uint32_t i = 0; i < reel_scene_table_count; i++)
        if (strncmp(reel_scene_table[i].name, function, length) == 0)
            return &reel_scene_table[i];
    return nullptr;
}

// Each binding with what its count is checked against.
struct reel_scene_need_field {
    const char* name;
    uint32_t reel_scene::*count;
    uint8_t reel_scene_needs::*need;
};

static const reel_scene_need_field reel_scene_need_fields[] = {
    {"integers", &reel_scene::integer_count, &reel_scene_needs::integers},
    {"floats", &reel_scene::float_count, &reel_scene_needs::floats},
    {"palettes", &reel_scene::palette_count, &reel_scene_needs::palettes},
    {"rle_images", &reel_scene::rle_image_count, &reel_scene_needs::rle_images},
    {"images", &reel_scene::image_count, &reel_scene_needs::images},
    {"stencils", &reel_scene::stencil_count, &reel_scene_needs::stencils},
    {"textures", &reel_scene::texture_count, &reel_scene_needs::textures},
    {"palette_animations", &reel_scene::palette_animation_count, &reel_scene_needs::palette_animations},
    {"madpacks", &reel_scene::madpack_count, &reel_scene_needs::madpacks},
    {"colours", &reel_scene::colour_count, &reel_scene_needs::colours},
    {"fonts", &reel_scene::font_count, &reel_scene_needs::fonts},
    {"blobs", &reel_scene::blob_count, &reel_scene_needs::blobs},
};

// Before the scene's first call: every binding its run function reads holds enough entries.
static void reel_check_needs(const reel_scene* scene, const reel_scene_binding* binding, const reel_sequence_row* row)
{
    for (const reel_scene_need_field& f : reel_scene_need_fields) {
        const uint32_t need = binding->needs.*f.need, have = scene->*f.count;
        if (have < need)
            crash_in(REEL_LOAD_SOURCE, __LINE__, "reel_load_scene",
                     "scene \"%s\" on line %d reads %u %s, it was given %u\n", binding->name, (int)row->line, need,
                     f.name, have);
    }
}

void reel_load_scene(reel_engine* engine, reel_scene* scene, reel_sequence_row* row)
{
    if (scene->loaded)
        return;
    const uint64_t mark = xmemarena_get_sp(engine->tmp_arena);
    const uint64_t start_cycles = prof_cycles_now();

    const reel_scene_binding* binding = reel_find_binding(row->function);
    if (!binding)
        crash_in(REEL_LOAD_SOURCE, __LINE__, "reel_load_scene", "failed find binding for \"%s\" on line: %d\n",
                 row->function, (int)row->line);
    scene->run = binding->run;

    if (row->args && row->args[0] == '@') {
        const char* name = row->args + 1;
        auto* text = (char*)reel_load_resource(engine, name, REEL_KIND_RAW);
        if (!text)
            crash_in(REEL_LOAD_SOURCE, __LINE__, "reel_load_scene",
                     "failed open ini file (line: %d in sequence file): \"%s\"\n", (int)row->line, name);
        reel_ini_user user = {engine, scene, engine->arena, engine->tmp_arena, reel_scene_table, reel_scene_table_count};
        ini_parse(text, name, reel_ini_on_value, reel_ini_on_array_item, &user);
        row->args = nullptr;  // the description replaces the argument text
    }
    if (row->args) {
        if (!binding->parse_args)
            crash_in(REEL_LOAD_SOURCE, __LINE__, "reel_load_scene",
                     "sequence args not supported for function \"%s\" (line: %d in sequence file)\n", row->function,
                     (int)row->line);
        reel_parse_context ctx = {engine, row, engine->arena, engine->tmp_arena};
        binding->parse_args(scene, &ctx);
    }
    reel_check_needs(scene, binding, row);
    if (!scene->name)
        scene->name = row->function;
    scene->first_update = 1;
    scene->first_render = 1;
    scene->loaded = 1;
    scene->load_cycles = prof_cycles_since(start_cycles);
    xmemarena_set_sp(engine->tmp_arena, mark);
}

// ---- argument parsers ----

static const char* reel_args_text(const reel_sequence_row* row) { return row->args ? row->args : ""; }

int32_t parse_arg_int(uint32_t* counter, const char** cursor, const reel_sequence_row* row)
{
    const char* text = *cursor;
    char* end = nullptr;
    errno = 0;
    const long value = strtol(text, &end, 10);
    if (end == text)
        crash_in(REEL_ARGS_SOURCE, __LINE__, "parse_arg_int", "parse_arg_int failed \"%s\" (sequence line %d, args: \"%s\")\n",
                 text, (int)row->line, reel_args_text(row));
    if (errno == ERANGE || value < INT32_MIN || value > INT32_MAX)
        crash_in(REEL_ARGS_SOURCE, __LINE__, "parse_arg_int",
                 "parse_arg_int out of range \"%s\" (sequence line %d, args: \"%s\")\n", text, (int)row->line,
                 reel_args_text(row));
    if (*end == ',')
        end++;
    *cursor = end;
    if (counter)
        *counter += 1;
    return (int32_t)value;
}

float parse_arg_float(const char** cursor, const reel_sequence_row* row)
{
    const char* text = *cursor;
    char* end = nullptr;
    const float value = strtof(text, &end);
    if (end == text)
        crash_in(REEL_ARGS_SOURCE, __LINE__, "parse_arg_float",
                 "parse_arg_float failed \"%s\" (sequence line %d, args: \"%s\")\n", text, (int)row->line,
                 reel_args_text(row));
    if (*end == ',')
        end++;
    *cursor = end;
    return value;
}

char* parse_arg_string(const char** cursor, const reel_sequence_row* row, xmemarena* arena)
{
    const char* begin = *cursor;
    const char* p = begin;
    while (*p != ',' && *p != '\n' && *p != 0)
        p++;
    const size_t length = (size_t)(p - begin);
    auto* text = (char*)xmemarena_push(arena, length + 1);
    memcpy(text, begin, length);
    text[length] = 0;
    *cursor = *p == ',' ? p + 1 : p;
    return text;
}

uint32_t hex_digit_value(uint32_t* value, char c)
{
    if (c >= '0' && c <= '9')
        *value = (uint32_t)(c - '0');
    else if (c >= 'a' && c <= 'f')
        *value = (uint32_t)(c - 'a' + 10);
    else if (c >= 'A' && c <= 'F')
        *value = (uint32_t)(c - 'A' + 10);
    else
        return 1;
    return 0;
}

void parse_arg_color(reel_color* result, const char** cursor, const reel_sequence_row* row, xmemarena* arena)
{
    const char* text = parse_arg_string(cursor, row, arena);
    if (text[0] != '#')
        crash_in(REEL_ARGS_SOURCE, __LINE__, "parse_arg_color", "expected '#' for start of hexcolor on line: %d\n",
                 (int)row->line);
    if (strlen(text) != REEL_COLOR_TEXT_LENGTH)
        crash_in(REEL_ARGS_SOURCE, __LINE__, "parse_arg_color",
                 "expected 4 hex values of 2 digits, e.g. #00112233 (for r,g,b,a) on line: %d\n", (int)row->line);
    uint32_t rgba = 0;
    for (uint32_t i = 1; i < REEL_COLOR_TEXT_LENGTH; i++) {
        uint32_t digit = 0;
        if (hex_digit_value(&digit, text[i]))
            crash_in(REEL_ARGS_SOURCE, __LINE__, "parse_arg_color",
                     "could not parse color value after # (invalid hex?) on line: %d\n", (int)row->line);
        rgba = rgba << 4 | digit;
    }
    const uint32_t red = rgba >> 24, green = (rgba >> 16) & 0xFF, blue = (rgba >> 8) & 0xFF, alpha = rgba & 0xFF;
    result->rgba = rgba;
    color_srgb_u32_to_linear(result->linear, rgba);
    result->argb1555 = (alpha >= 128 ? 1u : 0u) << 15 | (red >> 3) << 10 | (green >> 3) << 5 | (blue >> 3);
}

// ---- small helpers of the scenes and the engine ----

char* memprintf(xmemarena* arena, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    const int n = vsnprintf(nullptr, 0, format, args);
    va_end(args);
    if (n < 0) {
        va_end(again);
        crash_in(REEL_LOAD_SOURCE, __LINE__, "memprintf", "failed?? w: %d n: %d\n", n, n);
    }
    auto* text = (char*)xmemarena_push(arena, (uint64_t)n + 1);
    const int w = vsnprintf(text, (size_t)n + 1, format, again);
    va_end(again);
    if (w != n)
        crash_in(REEL_LOAD_SOURCE, __LINE__, "memprintf", "failed?? w: %d n: %d\n", w, n);
    return text;
}

float lerpf_clamped(float a, float b, float t)
{
    const float clamped = t < 0.0f ? 0.0f : t > 1.0f ? 1.0f : t;
    return a + clamped * (b - a);
}
