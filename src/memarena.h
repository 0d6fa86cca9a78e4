// Named linear allocators, the byte-order code and byte-stream primitives of the binary
// file formats, a bounds-aware stream cursor for readers of file data, and bit/float helpers.
#pragma once

#include <cstddef>
#include <cstdint>

struct xmemarena {
    const char* name;  // not copied: always a literal
    uint64_t capacity;
    uint8_t* base;  // not owned: from the heap or from a parent arena
    uint64_t sp;    // bytes in use; the next push starts at base + sp
    uint64_t high_water;  // the largest sp ever reached: what the arena really needed
};

void xmemarena_init(xmemarena* arena, const char* name, uint64_t capacity, void* base);
void* xmemarena_push(xmemarena* arena, uint64_t size);
void* xmemarena_push_zero(xmemarena* arena, uint64_t size);
void* xmemarena_push_align(xmemarena* arena, uint64_t size, uint64_t alignment);
void* xmemarena_push_align_size(xmemarena* arena, uint64_t size, uint64_t alignment);
// A zero-filled record (or array of records), aligned for any field type a record holds.
constexpr uint64_t XMEMARENA_RECORD_ALIGN = 16;
void* xmemarena_push_record(xmemarena* arena, uint64_t size);
xmemarena* xmemarena_push_arena(xmemarena* parent, const char* name, uint64_t capacity);
uint64_t xmemarena_pop_size(xmemarena* arena, uint64_t size);
static inline uint64_t xmemarena_get_sp(const xmemarena* arena) { return arena->sp; }
static inline xmemarena* xmemarena_set_sp(xmemarena* arena, uint64_t mark)
{
    arena->sp = mark;
    return arena;
}
static inline void xmemarena_reset(xmemarena* arena) { arena->sp = 0; }
static inline uint64_t xmemarena_free_size(const xmemarena* arena) { return arena->capacity - arena->sp; }
void xmemarena_print(const xmemarena* arena);
// "arena: NAME capacity: C used: U high water: H\n"
void xmemarena_print_high_water(const xmemarena* arena);

// ---- byte order ----

constexpr uint32_t BYTE_ORDER_MARKER = 0xABCD;
constexpr int32_t BYTE_ORDER_NATIVE = 0x1234;
constexpr int32_t BYTE_ORDER_SWAPPED = 0x4321;

// The marker as read in the machine's own order: 0xABCD -> native, 0xCDAB0000 -> swapped, else -1.
int32_t byte_order_from_marker(uint32_t marker);

static inline uint16_t u16_byteswap(uint16_t v) { return (uint16_t)((v >> 8) | (v << 8)); }
static inline uint32_t u32_byteswap(uint32_t v) { return __builtin_bswap32(v); }

// ---- raw stream primitives: return the pointer advanced past what they wrote or read ----

uint8_t* stream_write_u8(uint8_t* p, uint8_t value);
uint8_t* stream_write_u16(uint8_t* p, uint16_t value, int32_t order);
uint8_t* stream_write_u32(uint8_t* p, uint32_t value, int32_t order);
uint8_t* stream_write_f32(uint8_t* p, float value, int32_t order);
uint8_t* stream_write_f32_array(uint8_t* p, const float* values, uint32_t count, int32_t order);
uint8_t* stream_write_string(uint8_t* p, const char* text);

const uint8_t* stream_read_u8(uint8_t* dst, const uint8_t* p);
const uint8_t* stream_read_u16(uint16_t* dst, const uint8_t* p, int32_t order);
const uint8_t* stream_read_u32(uint32_t* dst, const uint8_t* p, int32_t order);
const uint8_t* stream_read_f32(float* dst, const uint8_t* p, int32_t order);
const uint8_t* stream_read_f32_array(float* dst, uint32_t count, const uint8_t* p, int32_t order);
const uint8_t* stream_read_string(char** slot, xmemarena* arena, const uint8_t* p);

// ---- bounds-aware reading ----
//
// A cursor over one block of file data that knows where the block ends. Every read checks
// the bytes that remain first; a read past the end ends the process through the fatal path
// with "<file>: truncated <what>: needs N bytes at offset O, R left\n", so readers of packs,
// meshes, textures and scripts never read outside their block.

struct stream_cursor {
    const uint8_t* begin;
    const uint8_t* p;
    const uint8_t* end;
    const char* file;  // named in every message: the file or resource the block came from
    int32_t order;
};

void stream_cursor_init(stream_cursor* cur, const void* data, uint64_t size, int32_t order, const char* file);
static inline uint64_t stream_cursor_offset(const stream_cursor* cur) { return (uint64_t)(cur->p - cur->begin); }
static inline uint64_t stream_cursor_left(const stream_cursor* cur) { return (uint64_t)(cur->end - cur->p); }
// Fatal unless `size` bytes remain; `what` names the field for the message.
void stream_cursor_need(const stream_cursor* cur, uint64_t size, const char* what);
// Fatal unless count elements of elem_size bytes remain (no overflow for huge counts).
void stream_cursor_need_array(const stream_cursor* cur, uint64_t count, uint64_t elem_size, const char* what);
// Reads the leading 0xABCD marker and sets the cursor's order from it; fatal on any other value.
int32_t stream_cursor_read_marker(stream_cursor* cur);
uint8_t stream_cursor_u8(stream_cursor* cur, const char* what);
uint16_t stream_cursor_u16(stream_cursor* cur, const char* what);
uint32_t stream_cursor_u32(stream_cursor* cur, const char* what);
float stream_cursor_f32(stream_cursor* cur, const char* what);
void stream_cursor_f32_array(stream_cursor* cur, float* dst, uint32_t count, const char* what);
// Returns a pointer to `size` bytes inside the block and steps over them.
const uint8_t* stream_cursor_bytes(stream_cursor* cur, uint64_t size, const char* what);
// A NUL-terminated text that must end inside the block; returned in place (not copied).
const char* stream_cursor_string(stream_cursor* cur, const char* what);
// Stops the process with "<file>: <message>" for faults the reader finds in the data itself.
[[noreturn]] void stream_cursor_fail(const stream_cursor* cur, const char* fmt, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 2, 3)))
#endif
    ;

// ---- bit and float helpers ----

static inline uint32_t u32_clz(uint32_t v) { return v ? (uint32_t)__builtin_clz(v) : 31u; }
static inline uint32_t u32_clz_or_32(uint32_t v) { return v ? (uint32_t)__builtin_clz(v) : 32u; }
uint32_t u32_log2_ceil(uint32_t v);  // v = 0 is fatal
void zero_block32(void* base, uint64_t offset);
static inline float f32_rcp(float x) { return 1.0f / x; }
float f32_rsqrt(float x);
int32_t f32_round_to_int(float x);
