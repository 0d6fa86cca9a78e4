// Pack files: the writer that asset preparation uses to gather files into one pack, and the
// reader the show opens its packs with. The reader checks the whole directory against the
// file's length before anything is handed out, so a damaged pack is refused at start-up
// with the file and the fault named, and no block pointer can reach outside the file image.
#include "reel_fs.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "diag.h"
#include "n3d_io.h"

constexpr uint32_t REEL_FS_ENTRY_BYTES = 16;   // reserved u32, kind u16, name length u16, offset u32, size u32
constexpr uint32_t REEL_FS_HEADER_BYTES = 8;   // marker u32, count u32
constexpr uint32_t REEL_FS_OFFSET_UNSET = 0xFFFFFFFF;
constexpr uint32_t REEL_FS_NAME_MAX = 65535;   // name length is a u16 and counts the NUL

// ---- writer ----

reel_fs_writer* reel_fs_pack_begin(reel_fs_writer* writer, int32_t order)
{
    memset(writer, 0, sizeof(*writer));
    writer->order = order;
    return writer;
}

uint32_t reel_fs_pack_add_file(reel_fs_writer* writer, xmemarena* arena, uint32_t kind, uint32_t extra_bytes,
                               const char* name, const char* path)
{
    const size_t name_bytes = strlen(name) + 1;
    // both are stored as u16 in the entry record: larger values would be written truncated
    if (name_bytes > REEL_FS_NAME_MAX)
        crash_in("src/reel_fs", __LINE__, "reel_fs_pack_add_file",
                 "name of %zu bytes is too long (at most %u): \"%.40s...\"\n",
                 name_bytes - 1, REEL_FS_NAME_MAX - 1, name);
    if (kind > 0xFFFF)
        crash_in("src/reel_fs", __LINE__, "reel_fs_pack_add_file",
                 "kind %u of \"%s\" does not fit 16 bits\n", kind, name);

    uint64_t file_size = 0;
    if (file_read_all(path, nullptr, &file_size))
        crash_in("src/reel_fs", __LINE__, "reel_fs_pack_add_file", "failed open \"%s\"\n", path);
    if (file_size + extra_bytes > 0xFFFFFFFFull)
        crash_in("src/reel_fs", __LINE__, "reel_fs_pack_add_file",
                 "\"%s\" with %u extra bytes does not fit a pack block (%llu bytes)\n", path, extra_bytes,
                 (unsigned long long)file_size);
    const uint32_t size = (uint32_t)(file_size + extra_bytes);
    // zero-filled, so the extra bytes after the contents are zeros (a text's terminating NUL)
    auto* data = (uint8_t*)xmemarena_push_zero(arena, size);
    // exactly the measured bytes: a file that changed since it was measured cannot overrun the buffer
    if (file_size != 0 && file_read_prefix(data, path, file_size))
        crash_in("src/reel_fs", __LINE__, "reel_fs_pack_add_file", "failed read \"%s\"\n", path);

    auto* node = (reel_fs_node*)xmemarena_push_align(arena, sizeof(reel_fs_node), alignof(reel_fs_node));
    memset(node, 0, sizeof(*node));
    node->data = data;
    node->reserved = 0;
    node->kind = (uint16_t)kind;
    node->name_length = (uint16_t)name_bytes;
    node->offset = REEL_FS_OFFSET_UNSET;
    node->size = size;
    char* name_copy = (char*)xmemarena_push(arena, name_bytes);
    memcpy(name_copy, name, name_bytes);
    node->name = name_copy;
    if (writer->last)
        writer->last->next = node;
    else
        writer->first = node;
    writer->last = node;
    return (uint32_t)name_bytes;
}

uint32_t reel_fs_pack_header_size(const reel_fs_writer* writer)
{
    uint32_t count = 0;
    uint64_t names = 0;
    for (const reel_fs_node* n = writer->first; n; n = n->next) {
        count++;
        names += n->name_length;
    }
    // With two or more entries the space reserved is 20 bytes plus the name per entry: 4 bytes
    // per entry more than the 16-byte record, which over-reserves 4 bytes for every entry past
    // the second (the unused gap before the first block). Readers must not assume that the data
    // starts right after the names.
    const uint64_t size = count < 2 ? REEL_FS_HEADER_BYTES + (uint64_t)count * REEL_FS_ENTRY_BYTES + names
                                    : (uint64_t)count * 20 + names;
    if (size > 0xFFFFFFFFull)
        crash_in("src/reel_fs", __LINE__, "reel_fs_pack_header_size", "header of %u entries does not fit 32 bits\n",
                 count);
    return (uint32_t)size;
}

// The marker, the count, the entry records and the names, in the writer's byte order.
static uint8_t* reel_fs_pack_write_header(uint8_t* p, const reel_fs_writer* writer)
{
    uint32_t count = 0;
    for (const reel_fs_node* n = writer->first; n; n = n->next)
        count++;
    p = stream_write_u32(p, BYTE_ORDER_MARKER, writer->order);
    p = stream_write_u32(p, count, writer->order);
    for (const reel_fs_node* n = writer->first; n; n = n->next) {
        p = stream_write_u32(p, n->reserved, writer->order);
        p = stream_write_u16(p, n->kind, writer->order);
        p = stream_write_u16(p, n->name_length, writer->order);
        p = stream_write_u32(p, n->offset, writer->order);
        p = stream_write_u32(p, n->size, writer->order);
    }
    for (const reel_fs_node* n = writer->first; n; n = n->next)
        p = stream_write_string(p, n->name);
    return p;
}

int reel_fs_pack_end(reel_fs_writer* writer, const char* path, xmemarena* arena)
{
    const uint32_t header_size = reel_fs_pack_header_size(writer);
    // zero-filled so that the gap is zeros and equal inputs give byte-identical packs
    auto* header = (uint8_t*)xmemarena_push_zero(arena, header_size);

    uint64_t offset = header_size;
    for (reel_fs_node* n = writer->first; n; n = n->next) {
        // offsets are u32 in the entry records; the reader also needs offset + size to fit
        if (offset + n->size > 0xFFFFFFFFull)
            crash_in("src/reel_fs", __LINE__, "reel_fs_pack_end",
                     "pack \"%s\" would grow past 4 GiB at \"%s\" (offset %llu, %u bytes)\n", path, n->name,
                     (unsigned long long)offset, n->size);
        n->offset = (uint32_t)offset;
        offset += n->size;
    }
    reel_fs_pack_write_header(header, writer);

    FILE* f = fopen(path, "wb+");
    if (!f)
        crash_in("src/reel_fs", __LINE__, "reel_fs_pack_end", "failed open \"%s\"\n", path);
    if (fwrite(header, 1, header_size, f) != header_size)
        crash_in("src/reel_fs", __LINE__, "reel_fs_pack_end", "failed write header of size %d to file \"%s\"\n",
                 (int)header_size, path);
    for (const reel_fs_node* n = writer->first; n; n = n->next) {
        printf("node[%s] write data[%u]\n", n->name, n->offset);
        if (fseek(f, (long)n->offset, SEEK_SET) != 0)
            crash_in("src/reel_fs", __LINE__, "reel_fs_pack_end", "fseek failed!\n");
        const size_t written = n->size ? fwrite(n->data, 1, n->size, f) : 0;
        if (written != n->size)
            crash_in("src/reel_fs", __LINE__, "reel_fs_pack_end",
                     "failed write to file! wrote %u bytes out of %u bytes\n",
                     (uint32_t)written, n->size);
    }
    return fclose(f);
}

// ---- reader ----

[[noreturn]] static void reel_fs_open_fail(const char* name, int line, const char* fmt, ...) DIAG_PRINTF(3, 4);

// "<file>: <fault>" through the fatal path, for faults of the directory itself.
static void reel_fs_open_fail(const char* name, int line, const char* fmt, ...)
{
    char text[512];
    va_list args;
    va_start(args, fmt);
    vsnprintf(text, sizeof(text), fmt, args);
    va_end(args);
    crash_in("src/reel_fs", line, "reel_fs_open_image", "%s: %s", name, text);
}

void reel_fs_open_image(reel_fs_pack* pack, const uint8_t* image, uint64_t size, const char* name, xmemarena* arena)
{
    memset(pack, 0, sizeof(*pack));
    stream_cursor cur;
    stream_cursor_init(&cur, image, size, BYTE_ORDER_NATIVE, name);
    stream_cursor_need(&cur, REEL_FS_HEADER_BYTES, "pack header");
    uint32_t marker;
    cur.p = stream_read_u32(&marker, cur.p, BYTE_ORDER_NATIVE);
    pack->order = byte_order_from_marker(marker);
    // without a known marker no field can be decoded: refuse instead of guessing an order
    if (pack->order < 0)
        reel_fs_open_fail(name, __LINE__, "not a pack file: marker 0x%08x (expected 0xabcd in either byte order)\n",
                          marker);
    cur.order = pack->order;
    const uint32_t count = stream_cursor_u32(&cur, "entry count");
    // checked before the directory is allocated, so a damaged count cannot ask for more memory than the file holds
    if (count > stream_cursor_left(&cur) / REEL_FS_ENTRY_BYTES)
        reel_fs_open_fail(name, __LINE__,
                          "directory of %u entries needs %llu bytes, the file has %llu after the count\n",
                          count, (unsigned long long)count * REEL_FS_ENTRY_BYTES,
                          (unsigned long long)stream_cursor_left(&cur));
    pack->count = count;
    pack->entries = count ? (reel_fs_entry*)xmemarena_push_align(arena, (uint64_t)count * sizeof(reel_fs_entry),
                                                                 alignof(reel_fs_entry))
                          : nullptr;
    if (count)
        memset(pack->entries, 0, (size_t)count * sizeof(reel_fs_entry));

    // Every block must lie inside the file and after the names: the data area begins at the
    // lowest offset, and no name may run into it.
    uint64_t data_start = size;
    for (uint32_t i = 0; i < count; i++) {
        reel_fs_entry* e = &pack->entries[i];
        e->reserved = stream_cursor_u32(&cur, "entry reserved");
        e->kind = stream_cursor_u16(&cur, "entry kind");
        e->name_length = stream_cursor_u16(&cur, "entry name length");
        e->offset = stream_cursor_u32(&cur, "entry offset");
        e->size = stream_cursor_u32(&cur, "entry size");
        // 64-bit sum: offset + size cannot wrap around
        if ((uint64_t)e->offset + e->size > size)
            reel_fs_open_fail(name, __LINE__,
                              "entry %u: block at offset %u of %u bytes ends past the end of the file (%llu bytes)\n",
                              i, e->offset, e->size, (unsigned long long)size);
        if (e->offset < data_start)
            data_start = e->offset;
    }
    const uint64_t names_start = stream_cursor_offset(&cur);
    if (count && data_start < names_start)
        reel_fs_open_fail(name, __LINE__, "a block starts at offset %llu, inside the directory (which ends at %llu)\n",
                          (unsigned long long)data_start, (unsigned long long)names_start);

    const size_t name_bytes = strlen(name) + 1;
    pack->name = (const char*)memcpy(xmemarena_push(arena, name_bytes), name, name_bytes);

    const char* names = (const char*)image + names_start;
    const char* names_end = (const char*)image + data_start;
    for (uint32_t i = 0; i < count; i++) {
        reel_fs_entry* e = &pack->entries[i];
        const char* nul = (const char*)memchr(names, 0, (size_t)(names_end - names));
        if (!nul)
            reel_fs_open_fail(name, __LINE__,
                              "entry %u: name at offset %llu has no NUL before the data at offset %llu\n",
                              i, (unsigned long long)((const uint8_t*)names - image), (unsigned long long)data_start);
        const size_t bytes = (size_t)(nul - names) + 1;
        // the reader goes by the NUL; a length that disagrees means the names are not where the records say
        if (bytes != e->name_length)
            reel_fs_open_fail(name, __LINE__,
                              "entry %u: name \"%.64s\" has %zu bytes with its NUL, its record says %u\n",
                              i, names, bytes, e->name_length);
        char* copy = (char*)xmemarena_push(arena, bytes);
        memcpy(copy, names, bytes);
        e->name = copy;
        e->data = image + e->offset;
        names = nul + 1;
    }
}

void reel_fs_open_file(reel_fs_pack* pack, const char* path, xmemarena* arena)
{
    // The reasons go on a line of their own before the fatal message, which names only the
    // operation that failed.
    uint64_t size = 0;
    if (file_read_all(path, nullptr, &size) != 0)  // it has said why
        crash_in("src/reel_fs", __LINE__, "reel_fs_open_file", "failed read \"%s\"\n", path);
    if (size == 0) {
        printf("pack \"%s\" is empty\n", path);
        crash_in("src/reel_fs", __LINE__, "reel_fs_open_file", "failed read \"%s\"\n", path);
    }
    // the image is pushed 32-byte aligned, after padding to the next multiple of 32
    const uint64_t padding = (0u - (uint64_t)(uintptr_t)(arena->base + arena->sp)) & 31u;
    const uint64_t free = xmemarena_free_size(arena);
    if (padding > free || size > free - padding) {
        printf("pack \"%s\" of %llu bytes does not fit the %llu bytes left in \"%s\"\n", path,
               (unsigned long long)size, (unsigned long long)free, arena->name);
        xmemarena_push(arena, free + 1);  // ends with the arena's own message
    }
    const uint8_t* image = (const uint8_t*)file_read_arena(path, arena, &size);
    if (!image || size == 0)
        crash_in("src/reel_fs", __LINE__, "reel_fs_open_file", "failed read \"%s\"\n", path);
    reel_fs_open_image(pack, image, size, path, arena);
}

const uint8_t* reel_fs_find_file(const reel_fs_pack* pack, uint32_t kind, const char* name, uint32_t* size)
{
    for (uint32_t i = 0; i < pack->count; i++) {
        const reel_fs_entry* e = &pack->entries[i];
        if ((uint32_t)e->kind == kind && strcmp(e->name, name) == 0) {
            *size = e->size;
            return e->data;
        }
    }
    return nullptr;
}
