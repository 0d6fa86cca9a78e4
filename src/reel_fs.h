// Pack files: many named, kind-tagged blocks of bytes in one file. The writer collects files
// from disk and writes them in either byte order; the reader takes a whole pack into an
// arena, decodes its directory and hands out blocks in place by kind and name.
#pragma once

#include <cstdint>

#include "memarena.h"

struct reel_fs_entry {
    uint32_t reserved;
    uint16_t kind;
    uint16_t name_length;  // with the NUL
    uint32_t offset;       // of the data block from the start of the file
    uint32_t size;
    const char* name;      // copy in the arena
    const uint8_t* data;   // the block in place, inside the file image
};

struct reel_fs_pack {
    int32_t order;  // BYTE_ORDER_NATIVE or BYTE_ORDER_SWAPPED
    uint32_t count;
    reel_fs_entry* entries;
    const char* name;  // the path or name it was opened under, for messages about its blocks; may be null
};

struct reel_fs_node {
    uint8_t* data;  // the file's bytes and the extra zero bytes
    uint32_t reserved;
    uint16_t kind;
    uint16_t name_length;
    uint32_t offset;  // 0xFFFFFFFF until the pack is written
    uint32_t size;
    const char* name;
    reel_fs_node* next;
};

struct reel_fs_writer {
    int32_t order;
    reel_fs_node* first;
    reel_fs_node* last;
};

// Writer.
reel_fs_writer* reel_fs_pack_begin(reel_fs_writer* writer, int32_t order);
uint32_t reel_fs_pack_add_file(reel_fs_writer* writer, xmemarena* arena, uint32_t kind, uint32_t extra_bytes,
                               const char* name, const char* path);
int reel_fs_pack_end(reel_fs_writer* writer, const char* path, xmemarena* arena);
uint32_t reel_fs_pack_header_size(const reel_fs_writer* writer);

// Reader: fills the record or ends the process naming the file and the fault.
void reel_fs_open_file(reel_fs_pack* pack, const char* path, xmemarena* arena);
// The same for a pack image already in memory (size bytes, kept by the caller for as long as
// the pack is used: entries point into it); name is used in messages.
void reel_fs_open_image(reel_fs_pack* pack, const uint8_t* image, uint64_t size, const char* name, xmemarena* arena);
// The block of this kind and name (the first in directory order), or null; size set when found.
const uint8_t* reel_fs_find_file(const reel_fs_pack* pack, uint32_t kind, const char* name, uint32_t* size);
