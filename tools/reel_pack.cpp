// reel_pack: builds a pack file from a manifest, or lists a pack's directory. The manifest
// names one block per line: its kind, the name the show asks for, the file that holds it and
// optionally a count of zero bytes to append (1 gives a text its terminating NUL). The files
// go into the pack as they are: resource files must already be in the byte order the pack
// is written in.
#include <sys/stat.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "diag.h"
#include "memarena.h"
#include "n3d_io.h"
#include "reel_fs.h"
#include "reel_resource.h"
#include "tool.h"

constexpr uint32_t PACK_MAX_EXTRA_BYTES = 0x7FFFFFFF;
constexpr uint32_t PACK_MAX_NAME_BYTES = 65534;  // the entry stores the length with its NUL in 16 bits

struct pack_manifest_entry {
    uint32_t line;
    uint32_t kind;
    uint32_t extra_bytes;
    const char* name;
    const char* path;  // the manifest's folder joined with the path as written
    uint64_t file_size;
};

struct pack_manifest {
    const char* path;
    uint32_t count;
    pack_manifest_entry* entries;
};

static const char PACK_USAGE[] =
    "usage: reel_pack [--swapped] MANIFEST OUT.rpk\n"
    "       reel_pack --list PACK\n"
    "Builds a pack from MANIFEST, in this machine's byte order or, with --swapped, in the other one;\n"
    "--list prints a pack's directory: index, kind, name, offset and size of every entry.\n"
    "A manifest line is  KIND NAME PATH [EXTRA_BYTES]  separated by spaces or tabs, where KIND is a\n"
    "number from 0 to 9 or one of stencil, texture, palette_animation, palette, rle_image, image,\n"
    "madpack, font, blob, raw; PATH is relative to the manifest's folder; EXTRA_BYTES zero bytes\n"
    "(default 0) follow the file's contents. Blank lines and everything from a field starting\n"
    "with # to the end of the line are ignored. Names and paths cannot contain spaces.\n";

static const tool_info PACK_TOOL = {"reel_pack", PACK_USAGE};

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

static bool pack_parse_u32(const char* text, uint32_t max, uint32_t* value)
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

static bool pack_parse_kind(const char* text, uint32_t* kind)
{
    if (pack_parse_u32(text, REEL_KIND_COUNT - 1, kind))
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
static uint32_t pack_split_fields(char* line, char** fields, uint32_t max)
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

// Reads and checks the whole manifest before anything is written: every line's fields, that each
// file exists, and that no kind and name is given twice (the pack would only ever find the first).
static void pack_read_manifest(pack_manifest* m, xmemarena* arena)
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
        const uint32_t n = pack_split_fields(line, fields, 4);
        line = next;
        if (n == 0)
            continue;
        if (n < 3 || n > 4)
            pack_manifest_fail(m, number, "expected KIND NAME PATH [EXTRA_BYTES]");
        pack_manifest_entry* e = &m->entries[m->count];
        memset(e, 0, sizeof(*e));
        e->line = number;
        if (!pack_parse_kind(fields[0], &e->kind))
            pack_manifest_fail(m, number,
                               "unknown kind \"%s\" (0 to 9, or stencil, texture, palette_animation, palette, "
                               "rle_image, image, madpack, font, blob, raw)",
                               fields[0]);
        e->name = fields[1];
        if (strlen(e->name) > PACK_MAX_NAME_BYTES)
            pack_manifest_fail(m, number, "name of %zu bytes is too long (at most %u)", strlen(e->name),
                               PACK_MAX_NAME_BYTES);
        if (n == 4 && !pack_parse_u32(fields[3], PACK_MAX_EXTRA_BYTES, &e->extra_bytes))
            pack_manifest_fail(m, number, "bad extra byte count \"%s\" (a number from 0 to %u)", fields[3],
                               PACK_MAX_EXTRA_BYTES);
        const size_t path_bytes = strlen(fields[2]) + 1;
        const size_t prefix = fields[2][0] == '/' ? 0 : folder_bytes;
        char* path = (char*)xmemarena_push(arena, prefix + path_bytes);
        memcpy(path, m->path, prefix);
        memcpy(path + prefix, fields[2], path_bytes);
        e->path = path;
        struct stat st;
        if (stat(path, &st) != 0)
            pack_manifest_fail(m, number, "cannot read \"%s\": %s", path, strerror(errno));
        if (!S_ISREG(st.st_mode))
            pack_manifest_fail(m, number, "\"%s\" is not a file", path);
        e->file_size = (uint64_t)st.st_size;
        for (uint32_t i = 0; i < m->count; i++)
            if (m->entries[i].kind == e->kind && strcmp(m->entries[i].name, e->name) == 0)
                pack_manifest_fail(m, number, "\"%s\" of kind %s is already on line %u", e->name,
                                   reel_kind_name(e->kind), m->entries[i].line);
        m->count++;
    }
}

static int pack_build(const char* manifest_path, const char* out_path, int32_t order)
{
    uint64_t manifest_size = 0;
    if (file_read_all(manifest_path, nullptr, &manifest_size))
        tool_fail("cannot read manifest \"%s\" (the reason is above)", manifest_path);
    // text, one entry record and one joined path per possible line
    const uint64_t lines = manifest_size + 1;
    const uint64_t meta_bytes = 2 * manifest_size + 64 + lines * (sizeof(pack_manifest_entry) + 16) +
                                lines * (strlen(manifest_path) + 2);
    void* meta_memory = malloc(meta_bytes);
    if (!meta_memory)
        tool_fail("cannot take %llu bytes for the manifest", (unsigned long long)meta_bytes);
    xmemarena meta;
    xmemarena_init(&meta, "manifest_arena", meta_bytes, meta_memory);
    pack_manifest m = {manifest_path, 0, nullptr};
    pack_read_manifest(&m, &meta);

    // file contents with their extra bytes, nodes, name copies and the header image
    uint64_t pack_bytes = 64;
    for (uint32_t i = 0; i < m.count; i++)
        pack_bytes += m.entries[i].file_size + m.entries[i].extra_bytes + sizeof(reel_fs_node) + 64 +
                      2 * (strlen(m.entries[i].name) + 1) + 24;
    void* pack_memory = malloc(pack_bytes);
    if (!pack_memory)
        tool_fail("cannot take %llu bytes for the pack", (unsigned long long)pack_bytes);
    xmemarena arena;
    xmemarena_init(&arena, "pack_arena", pack_bytes, pack_memory);
    reel_fs_writer writer;
    reel_fs_pack_begin(&writer, order);
    for (uint32_t i = 0; i < m.count; i++) {
        const pack_manifest_entry* e = &m.entries[i];
        reel_fs_pack_add_file(&writer, &arena, e->kind, e->extra_bytes, e->name, e->path);
    }
    // written under a temporary name: a failed write leaves no broken pack behind
    tool_output out;
    tool_output_begin(&out, out_path);
    if (reel_fs_pack_end(&writer, out.temp, &arena) != 0)
        tool_fail("cannot write \"%s\": %s", out_path, strerror(errno));
    uint64_t written = 0;
    file_read_all(out.temp, nullptr, &written);
    tool_output_commit(&out);
    printf("wrote \"%s\": %u entries, %llu bytes, %s byte order\n", out_path, m.count, (unsigned long long)written,
           order == BYTE_ORDER_NATIVE ? "native" : "swapped");
    free(pack_memory);
    free(meta_memory);
    return 0;
}

static int pack_list(const char* path)
{
    uint64_t size = 0;
    if (file_read_all(path, nullptr, &size))
        tool_fail("cannot read \"%s\" (the reason is above)", path);
    // the image, and at most one directory entry per 16 bytes and names no longer than the file
    const uint64_t bytes = 2 * size + (size / 16 + 1) * sizeof(reel_fs_entry) + 256;
    void* memory = malloc(bytes);
    if (!memory)
        tool_fail("cannot take %llu bytes for \"%s\"", (unsigned long long)bytes, path);
    xmemarena arena;
    xmemarena_init(&arena, "pack_arena", bytes, memory);
    reel_fs_pack pack;
    reel_fs_open_file(&pack, path, &arena);  // a damaged pack ends the program with its fault named

    int name_width = 4;
    for (uint32_t i = 0; i < pack.count; i++) {
        const int len = (int)strlen(pack.entries[i].name);
        if (len > name_width)
            name_width = len < 48 ? len : 48;
    }
    printf("\"%s\": %u entries, %s byte order\n", path, pack.count,
           pack.order == BYTE_ORDER_NATIVE ? "native" : "swapped");
    printf("index  %-20s  %-*s  %10s  %10s\n", "kind", name_width, "name", "offset", "size");
    for (uint32_t i = 0; i < pack.count; i++) {
        const reel_fs_entry* e = &pack.entries[i];
        const char* kind_name = reel_kind_name(e->kind);
        printf("%5u  %2u %-17s  %-*s  %10u  %10u\n", i, e->kind, kind_name ? kind_name : "?", name_width, e->name,
               e->offset, e->size);
    }
    free(memory);
    return 0;
}

int main(int argc, char** argv)
{
    tool_begin(&PACK_TOOL, argc, argv);
    const bool list = argc > 1 && strcmp(argv[1], "--list") == 0;
    const bool swapped = argc > 1 && strcmp(argv[1], "--swapped") == 0;
    const int wanted = list ? 3 : swapped ? 4 : 3;
    if (argc != wanted)
        tool_usage_error(argc < wanted ? "too few arguments" : "too many arguments");
    for (int i = list || swapped ? 2 : 1; i < argc; i++)
        if (argv[i][0] == '-')
            tool_usage_error("unknown option \"%s\"", argv[i]);
    if (list)
        return pack_list(argv[2]);
    return pack_build(argv[argc - 2], argv[argc - 1], swapped ? BYTE_ORDER_SWAPPED : BYTE_ORDER_NATIVE);
}
