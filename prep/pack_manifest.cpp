// Reading pack manifests (see pack_manifest.h).
#include "pack_manifest.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "diag.h"
#include "n3d_io.h"
#include "reel_resource.h"
#include "tool.h"

[[noreturn]] static void pack_manifest_fail(const pack_manifest* m, uint32_t line, const char* fmt, ...)
    DIAG_PRINTF(3, 4);

static void pack_manifest_fail(const pack_manifest* m, uint32_t line, const char* fmt, ...)
{
    fprintf(stderr, "%s:%u: ", m->path, line);
    va_list args;
    va_start(args, fmt);
    vfprintf(stderr, fmt, args);
    va_end(args);
    fputc('\n', stderr);
    exit(1);
}

static bool pack_manifest_parse_u32(const char* text, uint32_t max, uint32_t* value)
{
    if (*text < '0' || *text > '9')
        return false;
    errno = 0;
    char* end = nullptr;
    const unsigned long long v = strtoull(text, &end, 10);
    if (errno || *end != 0 || v > max)
        return false;
    *value = (uint32_t)v;
    return true;
}

static bool pack_manifest_parse_kind(const char* text, uint32_t* kind)
{
    if (pack_manifest_parse_u32(text, REEL_KIND_COUNT - 1, kind))
        return true;
    for (uint32_t k = 0; k < REEL_KIND_COUNT; k++) {
        if (strcmp(text, reel_kind_name(k)) == 0) {
            *kind = k;
            return true;
        }
    }
    return false;
}

// Splits the line in place into at most `max` fields; a field starting with # ends the line.
static uint32_t pack_manifest_split_fields(char* line, char** fields, uint32_t max)
{
    uint32_t count = 0;
    char* p = line;
    while (true) {
        while (*p == ' ' || *p == '\t' || *p == '\r')
            p++;
        if (*p == 0 || *p == '#')
            return count;
        if (count == max)
            return max + 1;  // too many: the caller reports the line
        fields[count++] = p;
        while (*p && *p != ' ' && *p != '\t' && *p != '\r')
            p++;
        if (*p)
            *p++ = 0;
    }
}

void pack_manifest_read(pack_manifest* m, xmemarena* arena)
{
    char* text = file_read_text(m->path, arena);
    if (!text) {
        tool_fail("cannot read manifest \"%s\" (the reason is above)", m->path);
    }
    uint32_t lines = 1;
    for (const char* c = text; *c; c++)
        lines += *c == '\n';
    m->entries = (pack_manifest_entry*)xmemarena_push_align(arena, lines * sizeof(pack_manifest_entry),
                                                            alignof(pack_manifest_entry));
    const char* slash = strrchr(m->path, '/');
    const size_t folder_bytes = slash ? (size_t)(slash - m->path) + 1 : 0;

    char* line = text;
    for (uint32_t number = 1; line; number++) {
        char* next = strchr(line, '\n');
        if (next)
            *next++ = 0;
        char* fields[4];
        const uint32_t n = pack_manifest_split_fields(line, fields, 4);
        line = next;
        if (n == 0)
            continue;
        if (n < 3 || n > 4)
            pack_manifest_fail(m, number, "expected KIND NAME PATH [EXTRA_BYTES]");
        pack_manifest_entry* e = &m->entries[m->count];
        memset(e, 0, sizeof(*e));
        e->line = number;
        if (!pack_manifest_parse_kind(fields[0], &e->kind))
            pack_manifest_fail(m, number,
                               "unknown kind \"%s\" (0 to 9, or stencil, texture, palette_animation, palette, "
                               "rle_image, image, madpack, font, blob, raw)",
                               fields[0]);
        e->name = fields[1];
        if (strlen(e->name) > PACK_MANIFEST_MAX_NAME_BYTES)
            pack_manifest_fail(m, number, "name of %zu bytes is too long (at most %u)", strlen(e->name),
                               PACK_MANIFEST_MAX_NAME_BYTES);
        if (n == 4 && !pack_manifest_parse_u32(fields[3], PACK_MANIFEST_MAX_EXTRA_BYTES, &e->extra_bytes))
            pack_manifest_fail(m, number, "bad extra byte count \"%s\" (a number from 0 to %u)", fields[3],
                               PACK_MANIFEST_MAX_EXTRA_BYTES);
        const size_t path_bytes = strlen(fields[2]) + 1;
        const size_t prefix = fields[2][0] == '/' ? 0 : folder_bytes;
        char* path = (char*)xmemarena_push(arena, prefix + path_bytes);
        memcpy(path, m->path, prefix);
        memcpy(path + prefix, fields[2], path_bytes);
        e->path = path;
        struct stat st;
        if (!m->names_only) {
            if (stat(path, &st) != 0)
                pack_manifest_fail(m, number, "cannot read \"%s\": %s", path, strerror(errno));
            if (!S_ISREG(st.st_mode))
                pack_manifest_fail(m, number, "\"%s\" is not a file", path);
            e->file_size = (uint64_t)st.st_size;
        }
        for (uint32_t i = 0; i < m->count; i++)
            if (m->entries[i].kind == e->kind && strcmp(m->entries[i].name, e->name) == 0)
                pack_manifest_fail(m, number, "\"%s\" of kind %s is already on line %u", e->name,
                                   reel_kind_name(e->kind), m->entries[i].line);
        m->count++;
    }
}


uint64_t pack_manifest_arena_bytes(const char* manifest_path, uint64_t manifest_size)
{
    // text, one entry record and one joined path per possible line
    const uint64_t lines = manifest_size + 1;
    return 2 * manifest_size + 64 + lines * (sizeof(pack_manifest_entry) + 16) + lines * (strlen(manifest_path) + 2);
}
