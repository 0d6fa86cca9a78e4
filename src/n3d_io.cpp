// Mesh, texture and stencil blocks: readers that validate each block against its end before
// they take memory, writers in either byte order, file loaders and the whole-file reads.
#include "n3d_io.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "diag.h"

// ---- shared ----

// "<file>: <message>" from the reader that found the fault, so the report names both.
[[noreturn]] static void n3d_io_fail(const stream_cursor* cur, int line, const char* function, const char* fmt, ...)
    DIAG_PRINTF(4, 5);

static void n3d_io_fail(const stream_cursor* cur, int line, const char* function, const char* fmt, ...)
{
    char text[512];
    va_list args;
    va_start(args, fmt);
    vsnprintf(text, sizeof(text), fmt, args);
    va_end(args);
    crash_in("src/n3d_io", line, function, "%s: %s", cur->file, text);
}

// A file holds its marker and exactly one block; anything after it means a wrong or damaged file.
static void n3d_io_expect_end(const stream_cursor* cur, const char* function)
{
    if (stream_cursor_left(cur) != 0)
        n3d_io_fail(cur, __LINE__, function, "%llu unexpected bytes after the block at offset %llu\n",
                    (unsigned long long)stream_cursor_left(cur), (unsigned long long)stream_cursor_offset(cur));
}

// Reads the whole file into arena and positions the cursor after the marker, in the order the
// marker gives; null when the file cannot be read (the read function has said why).
static const uint8_t* n3d_io_open_block(stream_cursor* cur, xmemarena* arena, const char* path, const char* function)
{
    uint64_t size = 0;
    const uint8_t* data = (const uint8_t*)file_read_arena(path, arena, &size);
    if (!data)
        return nullptr;
    stream_cursor_init(cur, data, size, BYTE_ORDER_NATIVE, path);
    stream_cursor_need(cur, 4, "endian marker");
    uint32_t marker;
    cur->p = stream_read_u32(&marker, cur->p, BYTE_ORDER_NATIVE);
    cur->order = byte_order_from_marker(marker);
    if (cur->order < 0) {
        printf("%s: first word 0x%08x is 0xabcd in neither byte order\n", path, marker);
        crash_in("src/n3d_io", __LINE__, function, "invalid endian marker?\n");
    }
    return data;
}

// ---- vertex arrays ----

struct n3d_io_vertex_array {
    uint32_t flag;
    uint32_t components;
    uint32_t component_bytes;
    float* n3d_vertices::*member;  // null for joints, the one array of bytes
    const char* what;
};

// File order and record order are the same.
static const n3d_io_vertex_array n3d_io_vertex_arrays[] = {
    {N3D_VERTICES_XYZ, 3, 4, &n3d_vertices::xyz, "vertex xyz"},
    {N3D_VERTICES_UV0, 2, 4, &n3d_vertices::uv0, "vertex uv0"},
    {N3D_VERTICES_N_XYZ, 3, 4, &n3d_vertices::n_xyz, "vertex n_xyz"},
    {N3D_VERTICES_T_XYZ, 3, 4, &n3d_vertices::t_xyz, "vertex t_xyz"},
    {N3D_VERTICES_B_XYZ, 3, 4, &n3d_vertices::b_xyz, "vertex b_xyz"},
    {N3D_VERTICES_UV1, 2, 4, &n3d_vertices::uv1, "vertex uv1"},
    {N3D_VERTICES_JOINTS, 4, 1, nullptr, "vertex joints"},
    {N3D_VERTICES_WEIGHTS, 4, 4, &n3d_vertices::weights, "vertex weights"},
};
constexpr uint32_t N3D_IO_VERTEX_FLAGS_KNOWN = 0xFF;

static const void* n3d_io_vertex_array_data(const n3d_vertices* v, const n3d_io_vertex_array* a)
{
    return a->member ? (const void*)(v->*(a->member)) : (const void*)v->joints;
}

uint32_t n3d_vertices_arrays(const n3d_vertices* vertices, const uint8_t* data[N3D_VERTICES_ARRAYS],
                             uint32_t bytes[N3D_VERTICES_ARRAYS])
{
    static_assert(sizeof(n3d_io_vertex_arrays) / sizeof(n3d_io_vertex_arrays[0]) == N3D_VERTICES_ARRAYS);
    uint32_t count = 0;
    for (const n3d_io_vertex_array& a : n3d_io_vertex_arrays)
        if (const void* p = n3d_io_vertex_array_data(vertices, &a)) {
            data[count] = (const uint8_t*)p;
            bytes[count++] = a.components * a.component_bytes;
        }
    return count;
}

static uint32_t n3d_io_vertex_mask(const n3d_vertices* v)
{
    uint32_t mask = 0;
    for (const n3d_io_vertex_array& a : n3d_io_vertex_arrays)
        if (n3d_io_vertex_array_data(v, &a))
            mask |= a.flag;
    return mask;
}

static uint64_t n3d_io_vertex_bytes(uint32_t mask)
{
    uint64_t bytes = 0;
    for (const n3d_io_vertex_array& a : n3d_io_vertex_arrays)
        if (mask & a.flag)
            bytes += a.components * a.component_bytes;
    return bytes;
}

const uint8_t* n3d_vertices_read(n3d_vertices* vertices, xmemarena* arena, stream_cursor* cur)
{
    memset(vertices, 0, sizeof(*vertices));
    uint32_t flags = stream_cursor_u32(cur, "vertex flags");
    const uint32_t count = stream_cursor_u32(cur, "vertex count");
    if (flags & ~N3D_IO_VERTEX_FLAGS_KNOWN)
        n3d_io_fail(cur, __LINE__, "n3d_vertices_read", "unknown vertex array flags 0x%x\n", flags);
    if (flags == 0)
        flags = N3D_VERTICES_BASE_SIX;
    if (count > N3D_IO_MAX_VERTICES)
        n3d_io_fail(cur, __LINE__, "n3d_vertices_read", "vertex count %u is over the limit of %u\n", count,
                    N3D_IO_MAX_VERTICES);
    // checked before the allocation, so a damaged count cannot ask for more than the file holds
    stream_cursor_need_array(cur, count, n3d_io_vertex_bytes(flags), "vertex arrays");

    // pass 1: one block for every array, with room to align each one
    uint64_t total = 0;
    for (const n3d_io_vertex_array& a : n3d_io_vertex_arrays)
        if (flags & a.flag)
            total += (uint64_t)count * a.components * a.component_bytes + 32;
    xmemarena sub;
    xmemarena_init(&sub, "vertices_arena", total, xmemarena_push_align(arena, total, 32));

    // pass 2: the arrays in file order
    vertices->count = count;
    for (const n3d_io_vertex_array& a : n3d_io_vertex_arrays) {
        if (!(flags & a.flag))
            continue;
        const uint64_t bytes = (uint64_t)count * a.components * a.component_bytes;
        // an empty array is still present: one byte keeps its pointer from being null
        uint8_t* dst = (uint8_t*)xmemarena_push_align(&sub, bytes ? bytes : 1, 32);
        if (a.member) {
            stream_cursor_f32_array(cur, (float*)dst, count * a.components, a.what);
            vertices->*(a.member) = (float*)dst;
        } else {
            const uint8_t* src = stream_cursor_bytes(cur, bytes, a.what);
            memcpy(dst, src, bytes);
            vertices->joints = dst;
        }
    }
    return cur->p;
}

uint64_t n3d_vertices_write_size(const n3d_vertices* vertices)
{
    return 8 + (uint64_t)vertices->count * n3d_io_vertex_bytes(n3d_io_vertex_mask(vertices));
}

uint8_t* n3d_vertices_write(uint8_t* stream, const n3d_vertices* vertices, int32_t order)
{
    const uint32_t mask = n3d_io_vertex_mask(vertices);
    if (mask == 0 && vertices->count != 0)
        crash_in("src/n3d_io", __LINE__, "n3d_vertices_write",
                 "%u vertices without arrays cannot be written: flags 0 means the six base arrays\n", vertices->count);
    // flags 0 stands for exactly the six base arrays; joints or weights need the explicit mask
    const uint32_t flags = mask == N3D_VERTICES_BASE_SIX ? 0 : mask;
    stream = stream_write_u32(stream, flags, order);
    stream = stream_write_u32(stream, vertices->count, order);
    for (const n3d_io_vertex_array& a : n3d_io_vertex_arrays) {
        if (!(mask & a.flag))
            continue;
        if (a.member) {
            stream = stream_write_f32_array(stream, vertices->*(a.member), vertices->count * a.components, order);
        } else if (vertices->count) {
            memcpy(stream, vertices->joints, (size_t)vertices->count * a.components);
            stream += (size_t)vertices->count * a.components;
        }
    }
    return stream;
}

n3d_vertices* n3d_mesh_file_load(xmemarena* arena, const char* path)
{
    stream_cursor cur;
    if (!n3d_io_open_block(&cur, arena, path, "n3d_mesh_file_load"))
        return nullptr;
    auto* vertices = (n3d_vertices*)xmemarena_push_align(arena, sizeof(n3d_vertices), alignof(n3d_vertices));
    n3d_vertices_read(vertices, arena, &cur);
    n3d_io_expect_end(&cur, "n3d_mesh_file_load");
    printf("%s -> vertices: %d\n", path, (int)vertices->count);
    return vertices;
}

// ---- textures ----

static bool n3d_io_texture_indexed(uint32_t format)
{
    return format == N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555 || format == N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8;
}

// Palette and shade-table entries: u16 ARGB1555 for format 1, u8 display indices for format 3.
static uint32_t n3d_io_table_entry_bytes(uint32_t format)
{
    return format == N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555 ? 2 : 1;
}

static uint64_t n3d_io_texture_levels_bytes(const n3d_texture* t)
{
    uint64_t bytes = 0;
    for (uint32_t w = t->log2_w + 1; w-- > t->min_log2_w;)
        for (uint32_t h = t->log2_h + 1; h-- > t->min_log2_h;)
            bytes += n3d_mipmap_size(t->format, !t->linear, w, h);
    return bytes;
}

// The next count values of elem_bytes each (1, 2 or 4), in the machine's order.
static void* n3d_io_texture_values(xmemarena* arena, stream_cursor* cur, uint64_t count, uint32_t elem_bytes,
                                   bool use_block, const char* what)
{
    const uint64_t bytes = count * elem_bytes;
    const uint8_t* src = stream_cursor_bytes(cur, bytes, what);
    // Typed access through a misaligned pointer is undefined behaviour, so values that do not
    // sit on a multiple of their size are copied even where the block could be used in place.
    // The const goes because the block is the caller's own loaded image, kept for the texture.
    if (use_block && ((uintptr_t)src & (elem_bytes - 1)) == 0)
        return const_cast<uint8_t*>(src);
    uint8_t* dst = (uint8_t*)xmemarena_push_align(arena, bytes, 32);
    if (elem_bytes == 2) {
        for (uint64_t i = 0; i < count; i++)
            stream_read_u16((uint16_t*)dst + i, src + 2 * i, cur->order);
    } else if (elem_bytes == 4) {
        for (uint64_t i = 0; i < count; i++)
            stream_read_u32((uint32_t*)dst + i, src + 4 * i, cur->order);
    } else {
        memcpy(dst, src, bytes);
    }
    return dst;
}

const uint8_t* n3d_texture_read(xmemarena* arena, n3d_texture* texture, stream_cursor* cur, uint32_t in_place)
{
    memset(texture, 0, sizeof(*texture));
    // a block in the other byte order is swapped into copies
    const bool use_block = in_place && cur->order == BYTE_ORDER_NATIVE;
    n3d_texture* t = texture;
    t->format = stream_cursor_u8(cur, "texture format");
    t->linear = stream_cursor_u8(cur, "texture linear flag");
    t->log2_w = stream_cursor_u8(cur, "texture log2_w");
    t->log2_h = stream_cursor_u8(cur, "texture log2_h");
    t->min_log2_w = stream_cursor_u8(cur, "texture min_log2_w");
    t->min_log2_h = stream_cursor_u8(cur, "texture min_log2_h");

    if (t->format < N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555 || t->format > N3D_TEXEL_FORMAT_BUMPMAP) {
        printf("%s: texture format %u\n", cur->file, t->format);
        crash_in("src/n3d_io", __LINE__, "n3d_texture_read", "not implemented\n");
    }
    if (t->linear > 1)
        n3d_io_fail(cur, __LINE__, "n3d_texture_read", "linear flag %u is neither 0 nor 1\n", t->linear);
    if (t->format == N3D_TEXEL_FORMAT_BUMPMAP && !t->linear) {  // swizzled bump maps have no level size
        printf("%s: swizzled bump-map texture\n", cur->file);
        crash_in("src/n3d_io", __LINE__, "n3d_texture_read", "not implemented texture format %d\n", (int)t->format);
    }
    const uint32_t max_log2 = t->linear ? N3D_IO_MAX_LOG2_LINEAR : N3D_IO_MAX_LOG2_SWIZZLED;
    if (t->log2_w > max_log2 || t->log2_h > max_log2 || t->min_log2_w > t->log2_w || t->min_log2_h > t->log2_h)
        n3d_io_fail(cur, __LINE__, "n3d_texture_read",
                    "bad log2 sizes %u x %u down to %u x %u (%s textures: at most %u, smallest not above largest)\n",
                    t->log2_w, t->log2_h, t->min_log2_w, t->min_log2_h, t->linear ? "linear" : "swizzled", max_log2);

    const bool indexed = n3d_io_texture_indexed(t->format);
    const uint32_t entry_bytes = n3d_io_table_entry_bytes(t->format);
    if (indexed) {
        t->colors_count = stream_cursor_u16(cur, "texture colors_count");
        t->shades_per_color = stream_cursor_u16(cur, "texture shades_per_color");
        // rasterizers look up palette[texel] and shade_table[texel * 32 + shade] unchecked
        if (t->colors_count != N3D_IO_TEXTURE_COLORS || t->shades_per_color != N3D_IO_TEXTURE_SHADES)
            n3d_io_fail(cur, __LINE__, "n3d_texture_read", "palette of %u colors x %u shades (needs %u x %u)\n",
                        t->colors_count, t->shades_per_color, N3D_IO_TEXTURE_COLORS, N3D_IO_TEXTURE_SHADES);
    }
    const uint64_t table_entries = (uint64_t)t->colors_count * (1 + t->shades_per_color);
    stream_cursor_need(cur, table_entries * entry_bytes + n3d_io_texture_levels_bytes(t), "texture tables and levels");

    if (indexed) {
        t->palette = n3d_io_texture_values(arena, cur, t->colors_count, entry_bytes, use_block, "texture palette");
        t->shade_table = n3d_io_texture_values(arena, cur, (uint64_t)t->colors_count * t->shades_per_color,
                                               entry_bytes, use_block, "texture shade table");
    }
    const uint32_t slots = n3d_mip_slot_count(t->log2_w, t->log2_h, t->min_log2_w, t->min_log2_h);
    t->mips = (void**)xmemarena_push_align(arena, slots * sizeof(void*), alignof(void*));
    memset(t->mips, 0, slots * sizeof(void*));  // slots between the rows of the table stay null
    const uint32_t texel_bytes = n3d_bytes_per_texel(t->format, "src/n3d_io", __LINE__, "n3d_texture_read");
    for (uint32_t w = t->log2_w + 1; w-- > t->min_log2_w;) {
        for (uint32_t h = t->log2_h + 1; h-- > t->min_log2_h;) {
            const uint32_t size = n3d_mipmap_size(t->format, !t->linear, w, h);
            t->mips[n3d_mip_slot(t, w, h)] =
                n3d_io_texture_values(arena, cur, size / texel_bytes, texel_bytes, use_block, "texture level");
        }
    }
    return cur->p;
}

static void n3d_io_texture_check_format(const n3d_texture* t, int line, const char* function)
{
    if (t->format < N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555 || t->format > N3D_TEXEL_FORMAT_BUMPMAP)
        crash_in("src/n3d_io", line, function, "not implemented for texture format %d\n", (int)t->format);
}

uint64_t n3d_texture_write_size(const n3d_texture* texture)
{
    n3d_io_texture_check_format(texture, __LINE__, "n3d_texture_write_size");
    uint64_t bytes = 6 + n3d_io_texture_levels_bytes(texture);
    if (n3d_io_texture_indexed(texture->format))
        bytes += 4 + (uint64_t)texture->colors_count * (1 + texture->shades_per_color) *
                         n3d_io_table_entry_bytes(texture->format);
    return bytes;
}

static uint8_t* n3d_io_write_values(uint8_t* stream, const void* values, uint64_t count, uint32_t elem_bytes,
                                    int32_t order)
{
    if (elem_bytes == 2) {
        for (uint64_t i = 0; i < count; i++)
            stream = stream_write_u16(stream, ((const uint16_t*)values)[i], order);
    } else if (elem_bytes == 4) {
        for (uint64_t i = 0; i < count; i++)
            stream = stream_write_u32(stream, ((const uint32_t*)values)[i], order);
    } else {
        memcpy(stream, values, count);
        stream += count;
    }
    return stream;
}

uint8_t* n3d_texture_write(uint8_t* stream, const n3d_texture* texture, int32_t order)
{
    const n3d_texture* t = texture;
    n3d_io_texture_check_format(t, __LINE__, "n3d_texture_write");
    stream = stream_write_u8(stream, (uint8_t)t->format);
    stream = stream_write_u8(stream, (uint8_t)t->linear);
    stream = stream_write_u8(stream, (uint8_t)t->log2_w);
    stream = stream_write_u8(stream, (uint8_t)t->log2_h);
    stream = stream_write_u8(stream, (uint8_t)t->min_log2_w);
    stream = stream_write_u8(stream, (uint8_t)t->min_log2_h);
    if (n3d_io_texture_indexed(t->format)) {
        const uint32_t entry_bytes = n3d_io_table_entry_bytes(t->format);
        stream = stream_write_u16(stream, (uint16_t)t->colors_count, order);
        stream = stream_write_u16(stream, (uint16_t)t->shades_per_color, order);
        stream = n3d_io_write_values(stream, t->palette, t->colors_count, entry_bytes, order);
        stream = n3d_io_write_values(stream, t->shade_table, (uint64_t)t->colors_count * t->shades_per_color,
                                     entry_bytes, order);
    }
    const uint32_t texel_bytes = n3d_bytes_per_texel(t->format, "src/n3d_io", __LINE__, "n3d_texture_write");
    for (uint32_t w = t->log2_w + 1; w-- > t->min_log2_w;) {
        for (uint32_t h = t->log2_h + 1; h-- > t->min_log2_h;) {
            const void* level = t->mips[n3d_mip_slot(t, w, h)];
            if (!level)
                crash_in("src/n3d_io", __LINE__, "n3d_texture_write", "level %u x %u of the mip chain is missing\n",
                         1u << w, 1u << h);
            const uint32_t size = n3d_mipmap_size(t->format, !t->linear, w, h);
            stream = n3d_io_write_values(stream, level, size / texel_bytes, texel_bytes, order);
        }
    }
    return stream;
}

n3d_texture* n3d_texture_file_load(xmemarena* arena, const char* path)
{
    stream_cursor cur;
    if (!n3d_io_open_block(&cur, arena, path, "n3d_texture_file_load"))
        return nullptr;
    auto* texture = (n3d_texture*)xmemarena_push_align(arena, sizeof(n3d_texture), alignof(n3d_texture));
    n3d_texture_read(arena, texture, &cur, 0);
    n3d_io_expect_end(&cur, "n3d_texture_file_load");
    return texture;
}

// ---- coverage masks ----

const uint8_t* n3d_coverage_buffer_read(xmemarena* arena, n3d_coverage_buffer* cb, stream_cursor* cur)
{
    memset(cb, 0, sizeof(*cb));
    const uint32_t width = stream_cursor_u32(cur, "coverage width");
    const uint32_t height = stream_cursor_u32(cur, "coverage height");
    // rows start on word boundaries only when the width is a multiple of 32
    if (width % 32 != 0)
        n3d_io_fail(cur, __LINE__, "n3d_coverage_buffer_read", "coverage width %u is not a multiple of 32\n", width);
    if (width == 0 || height == 0)
        n3d_io_fail(cur, __LINE__, "n3d_coverage_buffer_read", "coverage mask of %u x %u pixels is empty\n", width,
                    height);
    if ((uint64_t)width * height > N3D_IO_MAX_COVERAGE_PIXELS)
        n3d_io_fail(cur, __LINE__, "n3d_coverage_buffer_read", "coverage mask of %u x %u pixels is too large\n", width,
                    height);
    const uint64_t words = ((uint64_t)width * height) >> 5;
    stream_cursor_need_array(cur, words, 4, "coverage words");
    const uint8_t* src = stream_cursor_bytes(cur, words * 4, "coverage words");
    cb->bits = (uint32_t*)xmemarena_push_align(arena, words * 4, 32);
    for (uint64_t i = 0; i < words; i++)
        stream_read_u32(&cb->bits[i], src + 4 * i, cur->order);
    cb->width = width;
    cb->height = height;
    return cur->p;
}

uint64_t n3d_coverage_buffer_write_size(const n3d_coverage_buffer* cb)
{
    return 8 + (((uint64_t)cb->width * cb->height) >> 5) * 4;
}

uint8_t* n3d_coverage_buffer_write(uint8_t* stream, const n3d_coverage_buffer* cb, int32_t order)
{
    stream = stream_write_u32(stream, cb->width, order);
    stream = stream_write_u32(stream, cb->height, order);
    return n3d_io_write_values(stream, cb->bits, ((uint64_t)cb->width * cb->height) >> 5, 4, order);
}

// ---- files ----

int32_t n3d_io_write_file(const char* path, const uint8_t* begin, const uint8_t* end, int32_t order)
{
    FILE* f = fopen(path, "wb");
    if (!f)
        return 1;
    uint8_t marker[4];
    stream_write_u32(marker, BYTE_ORDER_MARKER, order);
    if (fwrite(marker, 1, 4, f) != 4) {
        fclose(f);
        return 1;
    }
    const size_t written = end > begin ? fwrite(begin, 1, (size_t)(end - begin), f) : 0;
    printf("wrote %lu bytes to \"%s\"\n", (unsigned long)written, path);
    fclose(f);
    return 0;
}

static void n3d_io_print_short_read(uint64_t got, uint64_t expected, const char* path)
{
    printf("fread failed, only read %lu bytes (expected %lu) path: %s\n", (unsigned long)got, (unsigned long)expected,
           path);
}

// Opens path for reading and measures it; null (after a message) when that fails.
static FILE* n3d_io_open_measured(const char* path, uint64_t* size)
{
    // the system's reason goes on its own line before the message
    FILE* f = fopen(path, "rb");
    struct stat st;
    if (f && fstat(fileno(f), &st) == 0 && S_ISDIR(st.st_mode)) {
        fclose(f);
        f = nullptr;
        errno = EISDIR;  // a folder opens for reading here but is no file
    }
    if (!f) {
        printf("%s: %s\n", path, strerror(errno));
        printf("fopen failed, path: %s\n", path);
        return nullptr;
    }
    long end = -1;
    if (fseek(f, 0, SEEK_END) == 0)
        end = ftell(f);
    if (end < 0 || fseek(f, 0, SEEK_SET) != 0) {
        printf("fseek failed, path: %s\n", path);
        fclose(f);
        return nullptr;
    }
    // a folder opens and claims a huge size: one byte read tells it apart before anyone
    // allocates that size
    if (end > 0) {
        const int first = fgetc(f);
        if (first == EOF || fseek(f, 0, SEEK_SET) != 0) {
            n3d_io_print_short_read(0, (uint64_t)end, path);
            fclose(f);
            return nullptr;
        }
    }
    *size = (uint64_t)end;
    return f;
}

// Reads size bytes into buffer and closes the file; 1 after a message on a short read.
static int32_t n3d_io_read_and_close(FILE* f, void* buffer, uint64_t size, const char* path)
{
    const size_t got = size ? fread(buffer, 1, (size_t)size, f) : 0;
    const int error = ferror(f) ? errno : 0;
    fclose(f);
    if (got < size) {
        if (error)
            printf("%s: %s\n", path, strerror(error));
        n3d_io_print_short_read(got, size, path);
        return 1;
    }
    return 0;
}

int32_t file_read_all(const char* path, void* buffer, uint64_t* size)
{
    uint64_t measured = 0;
    FILE* f = n3d_io_open_measured(path, &measured);
    if (!f)
        return 1;
    *size = measured;
    if (!buffer) {
        fclose(f);
        return 0;
    }
    return n3d_io_read_and_close(f, buffer, measured, path);
}

// The file in a block from arena with `extra` zeroed bytes after it, or null with arena unchanged.
static uint8_t* n3d_io_read_into_arena(const char* path, xmemarena* arena, uint64_t extra, uint64_t* size)
{
    uint64_t measured = 0;
    FILE* f = n3d_io_open_measured(path, &measured);
    if (!f)
        return nullptr;
    const uint64_t mark = xmemarena_get_sp(arena);
    // never a zero-size push, so an empty file still gives a block rather than null
    const uint64_t bytes = measured + extra;
    auto* data = (uint8_t*)xmemarena_push_align(arena, bytes ? bytes : 1, 32);
    if (n3d_io_read_and_close(f, data, measured, path)) {
        xmemarena_set_sp(arena, mark);
        return nullptr;
    }
    memset(data + measured, 0, extra);
    *size = measured;
    return data;
}

void* file_read_arena(const char* path, xmemarena* arena, uint64_t* size)
{
    uint64_t measured = 0;
    uint8_t* data = n3d_io_read_into_arena(path, arena, 0, &measured);
    if (data && size)
        *size = measured;
    return data;
}

char* file_read_text(const char* path, xmemarena* arena)
{
    uint64_t measured = 0;
    return (char*)n3d_io_read_into_arena(path, arena, 1, &measured);
}

int32_t file_read_prefix(void* buffer, const char* path, uint64_t n)
{
    uint64_t size = 0;
    FILE* f = n3d_io_open_measured(path, &size);
    if (!f)
        return 1;
    if (size < n) {
        fprintf(stderr, "file size %lu is smaller than n = %lu bytes to be read!\n", (unsigned long)size,
                (unsigned long)n);
        fclose(f);
        return 1;
    }
    return n3d_io_read_and_close(f, buffer, n, path);
}

int32_t n3d_io_get_endian_from_file(const char* path)
{
    uint8_t head[4];
    if (file_read_prefix(head, path, 4))
        crash_in("src/n3d_io", __LINE__, "n3d_io_get_endian_from_file", "failed read endian from file \"%s\"", path);
    uint32_t marker;
    stream_read_u32(&marker, head, BYTE_ORDER_NATIVE);
    return byte_order_from_marker(marker);
}
