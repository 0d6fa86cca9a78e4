// The renderer's binary files: vertex-array blocks (meshes), texture blocks and coverage-mask
// blocks (stencils), each readable in both byte orders and writable in either, plus the
// whole-file reads the renderer and the show load their data with. A file is the 32-bit
// marker 0xABCD in the file's byte order followed by one block.
//
// Readers take a stream_cursor over exactly their data: they validate every header field and
// count against the bytes that remain before taking any memory, never read past the cursor's
// end, and stop through the fatal path with the cursor's file name and what is wrong. Each
// returns the position after its block, which is also left in the cursor.
#pragma once

#include <cstdint>

#include "memarena.h"
#include "n3d.h"

// Limits the readers enforce (what the drawing code relies on afterwards).
constexpr uint32_t N3D_IO_MAX_VERTICES = 1u << 26;       // keeps count x 4 components in 32 bits
constexpr uint32_t N3D_IO_MAX_LOG2_SWIZZLED = 8;         // the swizzle rule covers 256 x 256 only
constexpr uint32_t N3D_IO_MAX_LOG2_LINEAR = 12;          // 4096 texels a side: 64 MiB at 4 bytes
constexpr uint32_t N3D_IO_TEXTURE_COLORS = 256;          // one palette entry per u8 texel value
constexpr uint32_t N3D_IO_TEXTURE_SHADES = 32;           // rasterizers index colour x 32 + shade
constexpr uint64_t N3D_IO_MAX_COVERAGE_PIXELS = 0x7FFFFFFF;  // width x height as a signed 32-bit value

// ---- vertex arrays (.mesh) ----

// Fills `vertices` (all present arrays in one 32-byte-aligned allocation from arena).
const uint8_t* n3d_vertices_read(n3d_vertices* vertices, xmemarena* arena, stream_cursor* cur);
uint64_t n3d_vertices_write_size(const n3d_vertices* vertices);
// The arrays `vertices` holds, in file order: each one's data and bytes per vertex (at most
// N3D_VERTICES_ARRAYS); returns how many.
constexpr uint32_t N3D_VERTICES_ARRAYS = 8;
uint32_t n3d_vertices_arrays(const n3d_vertices* vertices, const uint8_t* data[N3D_VERTICES_ARRAYS],
                             uint32_t bytes[N3D_VERTICES_ARRAYS]);
uint8_t* n3d_vertices_write(uint8_t* stream, const n3d_vertices* vertices, int32_t order);
// Prints "<path> -> vertices: <count>"; null when the file cannot be read.
n3d_vertices* n3d_mesh_file_load(xmemarena* arena, const char* path);

// ---- textures (.tmap) ----

// With in_place set and a block in the machine's own order, tables and levels point into the
// block (which must then outlive the texture) wherever the element type's alignment allows.
const uint8_t* n3d_texture_read(xmemarena* arena, n3d_texture* texture, stream_cursor* cur, uint32_t in_place);
uint64_t n3d_texture_write_size(const n3d_texture* texture);
uint8_t* n3d_texture_write(uint8_t* stream, const n3d_texture* texture, int32_t order);
// Always copies; null when the file cannot be read.
n3d_texture* n3d_texture_file_load(xmemarena* arena, const char* path);

// ---- coverage masks (stencils) ----

const uint8_t* n3d_coverage_buffer_read(xmemarena* arena, n3d_coverage_buffer* cb, stream_cursor* cur);
uint64_t n3d_coverage_buffer_write_size(const n3d_coverage_buffer* cb);
uint8_t* n3d_coverage_buffer_write(uint8_t* stream, const n3d_coverage_buffer* cb, int32_t order);

// ---- files ----

// Writes the marker in `order`, then the bytes begin..end. 0 on success, 1 when the file
// cannot be opened or the marker cannot be written.
int32_t n3d_io_write_file(const char* path, const uint8_t* begin, const uint8_t* end, int32_t order);

// 0 on success, 1 on failure (after a message on standard output). A null buffer only
// measures; otherwise the buffer must hold the whole file. size is untouched when the file
// cannot be opened.
int32_t file_read_all(const char* path, void* buffer, uint64_t* size);
// The whole file in a 32-byte-aligned block from arena (so blocks used in place are aligned
// as they were written), or null with the arena as it was.
void* file_read_arena(const char* path, xmemarena* arena, uint64_t* size);
// The whole file followed by a NUL, or null.
char* file_read_text(const char* path, xmemarena* arena);
// The first n bytes of the file into buffer: 0, or 1 when the file is missing or shorter.
int32_t file_read_prefix(void* buffer, const char* path, uint64_t n);
// The byte order the file's leading marker gives (-1 for no marker); fatal when unreadable.
int32_t n3d_io_get_endian_from_file(const char* path);
