// reel_pack: builds a pack file from a manifest (pack_manifest.h), or lists a pack's directory.
// The files go into the pack as they are: resource files must already be in the byte order the
// pack is written in.

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "diag.h"
#include "memarena.h"
#include "n3d_io.h"
#include "pack_manifest.h"
#include "reel_fs.h"
#include "reel_resource.h"
#include "tool.h"

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

static int pack_build(const char* manifest_path, const char* out_path, int32_t order)
{
    uint64_t manifest_size = 0;
    if (file_read_all(manifest_path, nullptr, &manifest_size))
        tool_fail("cannot read manifest \"%s\" (the reason is above)", manifest_path);
    const uint64_t meta_bytes = pack_manifest_arena_bytes(manifest_path, manifest_size);
    void* meta_memory = malloc(meta_bytes);
    if (!meta_memory)
        tool_fail("cannot take %llu bytes for the manifest", (unsigned long long)meta_bytes);
    xmemarena meta;
    xmemarena_init(&meta, "manifest_arena", meta_bytes, meta_memory);
    pack_manifest m = {manifest_path, 0, nullptr, 0};
    pack_manifest_read(&m, &meta);

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
