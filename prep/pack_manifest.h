// Pack manifests: the text from which reel_pack builds a pack, and from which reel_lint learns
// what a show's source folder will pack. One block per line: its kind, the name the show asks
// for, the file that holds it and optionally a count of zero bytes to append (1 gives a text
// its terminating NUL).
#pragma once

#include <cstdint>

#include "memarena.h"

constexpr uint32_t PACK_MANIFEST_MAX_EXTRA_BYTES = 0x7FFFFFFF;
constexpr uint32_t PACK_MANIFEST_MAX_NAME_BYTES = 65534;  // the entry stores the length with its NUL in 16 bits

struct pack_manifest_entry {
    uint32_t line;
    uint32_t kind;
    uint32_t extra_bytes;
    const char* name;
    const char* path;  // the manifest's folder joined with the path as written
    uint64_t file_size;
};

struct pack_manifest {
    const char* path;  // of the manifest itself
    uint32_t count;
    pack_manifest_entry* entries;
    uint32_t names_only;  // 1: the files need not exist yet (a show's source before its build)
};

// Reads and checks the whole manifest at m->path: every line's fields, that each file exists
// (unless names_only),
// and that no kind and name is given twice (the pack would only ever find the first). A
// mistake ends the program with "<manifest>:<line>: <what>" on standard error and status 1.
void pack_manifest_read(pack_manifest* m, xmemarena* arena);
// What pack_manifest_read may take from its arena for a manifest of that size.
uint64_t pack_manifest_arena_bytes(const char* manifest_path, uint64_t manifest_size);
