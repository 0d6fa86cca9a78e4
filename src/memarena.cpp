// Arenas, byte order, stream primitives and the bounds-aware stream cursor.
#include "memarena.h"

#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "diag.h"

static_assert(sizeof(xmemarena) == 40, "the arena record is five 8-byte fields");

void xmemarena_init(xmemarena* arena, const char* name, uint64_t capacity, void* base)
{
    if (capacity != 0 && base == nullptr) {
        printf("arena \"%s\" size %llu got a zero pointer!\n", name, (unsigned long long)capacity);
        crash_in("src/memarena", __LINE__, "xmemarena_init", "arena got a zero pointer!\n");
    }
    memset(arena, 0, sizeof(*arena));
    arena->name = name;
    arena->capacity = capacity;
    arena->base = (uint8_t*)base;
}

void* xmemarena_push(xmemarena* arena, uint64_t size)
{
    if (size == 0)
        return nullptr;
    // written as a subtraction so that a huge size cannot wrap the sum past the check
    if (size > arena->capacity - arena->sp) {
        printf("arena: %s is out of mem, capacity is %llu but needed %llu tried alloc %llu\n", arena->name,
               (unsigned long long)arena->capacity, (unsigned long long)(arena->sp + size),
               (unsigned long long)size);
        crash_in("src/memarena", __LINE__, "xmemarena_push", "arena is out of mem\n");
    }
    void* p = arena->base + arena->sp;
    arena->sp += size;
    arena->high_water = arena->sp > arena->high_water ? arena->sp : arena->high_water;
    return p;
}

void* xmemarena_push_zero(xmemarena* arena, uint64_t size)
{
    void* p = xmemarena_push(arena, size);
    if (p)
        memset(p, 0, size);
    return p;
}

void* xmemarena_push_align(xmemarena* arena, uint64_t size, uint64_t alignment)
{
    if (alignment == 0 || (alignment & (alignment - 1)) != 0)
        crash_in("src/memarena", __LINE__, "xmemarena_push_align", "alignment %llu is not a power of two\n",
                 (unsigned long long)alignment);
    if (size == 0)
        return nullptr;
    // aligned on the absolute address, so the result is aligned even if the block is not
    const uint64_t address = (uint64_t)(uintptr_t)(arena->base + arena->sp);
    const uint64_t misalign = address & (alignment - 1);
    const uint64_t padding = misalign ? alignment - misalign : 0;
    if (size > UINT64_MAX - padding)
        xmemarena_push(arena, UINT64_MAX);  // reports the arena as out of memory
    uint8_t* p = (uint8_t*)xmemarena_push(arena, size + padding);
    return p + padding;
}

void* xmemarena_push_align_size(xmemarena* arena, uint64_t size, uint64_t alignment)
{
    if (alignment == 0 || (alignment & (alignment - 1)) != 0)
        crash_in("src/memarena", __LINE__, "xmemarena_push_align_size", "alignment %llu is not a power of two\n",
                 (unsigned long long)alignment);
    if (size == 0)
        return nullptr;
    if (size > UINT64_MAX - (alignment - 1))
        xmemarena_push(arena, UINT64_MAX);
    const uint64_t rounded = (size + alignment - 1) & ~(alignment - 1);
    return xmemarena_push_align(arena, rounded, alignment);
}

void* xmemarena_push_record(xmemarena* arena, uint64_t size)
{
    void* p = xmemarena_push_align(arena, size, XMEMARENA_RECORD_ALIGN);
    if (p)
        memset(p, 0, size);
    return p;
}

xmemarena* xmemarena_push_arena(xmemarena* parent, const char* name, uint64_t capacity)
{
    auto* child = (xmemarena*)xmemarena_push_align(parent, sizeof(xmemarena), alignof(xmemarena));
    void* base = xmemarena_push(parent, capacity);
    xmemarena_init(child, name, capacity, base);
    return child;
}

uint64_t xmemarena_pop_size(xmemarena* arena, uint64_t size)
{
    if (arena->sp < size) {
        printf("arena: %s is at sp: %llu and asked to pop size %llu\n", arena->name, (unsigned long long)arena->sp,
               (unsigned long long)size);
        crash_in("src/memarena", __LINE__, "xmemarena_pop_size", "arena bad pop\n");
    }
    arena->sp -= size;
    return arena->sp;
}

void xmemarena_print(const xmemarena* arena)
{
    printf("arena: %s capacity: %llu used: %llu\n", arena->name, (unsigned long long)arena->capacity,
           (unsigned long long)arena->sp);
}

void xmemarena_print_high_water(const xmemarena* arena)
{
    printf("arena: %s capacity: %llu used: %llu high water: %llu\n", arena->name, (unsigned long long)arena->capacity,
           (unsigned long long)arena->sp, (unsigned long long)arena->high_water);
}

// ---- byte order and raw streams ----

int32_t byte_order_from_marker(uint32_t marker)
{
    if (marker == BYTE_ORDER_MARKER)
        return BYTE_ORDER_NATIVE;
    if (marker == u32_byteswap(BYTE_ORDER_MARKER))
        return BYTE_ORDER_SWAPPED;
    return -1;
}

uint8_t* stream_write_u8(uint8_t* p, uint8_t value)
{
    *p = value;
    return p + 1;
}

uint8_t* stream_write_u16(uint8_t* p, uint16_t value, int32_t order)
{
    if (order == BYTE_ORDER_SWAPPED)
        value = u16_byteswap(value);
    memcpy(p, &value, 2);
    return p + 2;
}

uint8_t* stream_write_u32(uint8_t* p, uint32_t value, int32_t order)
{
    if (order == BYTE_ORDER_SWAPPED)
        value = u32_byteswap(value);
    memcpy(p, &value, 4);
    return p + 4;
}

uint8_t* stream_write_f32(uint8_t* p, float value, int32_t order)
{
    uint32_t bits;
    memcpy(&bits, &value, 4);
    return stream_write_u32(p, bits, order);
}

uint8_t* stream_write_f32_array(uint8_t* p, const float* values, uint32_t count, int32_t order)
{
    for (uint32_t i = 0; i < count; i++)
        p = stream_write_f32(p, values[i], order);
    return p;
}

uint8_t* stream_write_string(uint8_t* p, const char* text)
{
    const size_t n = strlen(text) + 1;
    memcpy(p, text, n);
    return p + n;
}

const uint8_t* stream_read_u8(uint8_t* dst, const uint8_t* p)
{
    *dst = *p;
    return p + 1;
}

const uint8_t* stream_read_u16(uint16_t* dst, const uint8_t* p, int32_t order)
{
    uint16_t v;
    memcpy(&v, p, 2);
    *dst = order == BYTE_ORDER_SWAPPED ? u16_byteswap(v) : v;
    return p + 2;
}

const uint8_t* stream_read_u32(uint32_t* dst, const uint8_t* p, int32_t order)
{
    uint32_t v;
    memcpy(&v, p, 4);
    *dst = order == BYTE_ORDER_SWAPPED ? u32_byteswap(v) : v;
    return p + 4;
}

const uint8_t* stream_read_f32(float* dst, const uint8_t* p, int32_t order)
{
    uint32_t bits;
    p = stream_read_u32(&bits, p, order);
    memcpy(dst, &bits, 4);
    return p;
}

const uint8_t* stream_read_f32_array(float* dst, uint32_t count, const uint8_t* p, int32_t order)
{
    for (uint32_t i = 0; i < count; i++)
        p = stream_read_f32(&dst[i], p, order);
    return p;
}

const uint8_t* stream_read_string(char** slot, xmemarena* arena, const uint8_t* p)
{
    const size_t n = strlen((const char*)p) + 1;
    char* copy = (char*)xmemarena_push(arena, n);
    memcpy(copy, p, n);
    *slot = copy;
    return p + n;
}

// ---- bounds-aware cursor ----

void stream_cursor_init(stream_cursor* cur, const void* data, uint64_t size, int32_t order, const char* file)
{
    cur->begin = (const uint8_t*)data;
    cur->p = cur->begin;
    cur->end = cur->begin + size;
    cur->file = file ? file : "(unnamed block)";
    cur->order = order;
}

void stream_cursor_fail(const stream_cursor* cur, const char* fmt, ...)
{
    char text[512];
    va_list args;
    va_start(args, fmt);
    vsnprintf(text, sizeof(text), fmt, args);
    va_end(args);
    crash_in("src/memarena", __LINE__, "stream_cursor", "%s: %s", cur->file, text);
}

void stream_cursor_need(const stream_cursor* cur, uint64_t size, const char* what)
{
    if (size > stream_cursor_left(cur))
        stream_cursor_fail(cur, "truncated %s: needs %llu bytes at offset %llu, %llu left\n", what,
                           (unsigned long long)size, (unsigned long long)stream_cursor_offset(cur),
                           (unsigned long long)stream_cursor_left(cur));
}

void stream_cursor_need_array(const stream_cursor* cur, uint64_t count, uint64_t elem_size, const char* what)
{
    const uint64_t left = stream_cursor_left(cur);
    if (elem_size != 0 && count > left / elem_size)
        stream_cursor_fail(cur, "truncated %s: %llu entries of %llu bytes at offset %llu, %llu bytes left\n", what,
                           (unsigned long long)count, (unsigned long long)elem_size,
                           (unsigned long long)stream_cursor_offset(cur), (unsigned long long)left);
}

int32_t stream_cursor_read_marker(stream_cursor* cur)
{
    stream_cursor_need(cur, 4, "endian marker");
    uint32_t marker;
    cur->p = stream_read_u32(&marker, cur->p, BYTE_ORDER_NATIVE);
    const int32_t order = byte_order_from_marker(marker);
    if (order < 0) {
        printf("%s: first word 0x%08x is 0xabcd in neither byte order\n", cur->file, marker);
        crash_in("src/memarena", __LINE__, "stream_cursor_read_marker", "invalid endian marker?\n");
    }
    cur->order = order;
    return order;
}

uint8_t stream_cursor_u8(stream_cursor* cur, const char* what)
{
    stream_cursor_need(cur, 1, what);
    return *cur->p++;
}

uint16_t stream_cursor_u16(stream_cursor* cur, const char* what)
{
    stream_cursor_need(cur, 2, what);
    uint16_t v;
    cur->p = stream_read_u16(&v, cur->p, cur->order);
    return v;
}

uint32_t stream_cursor_u32(stream_cursor* cur, const char* what)
{
    stream_cursor_need(cur, 4, what);
    uint32_t v;
    cur->p = stream_read_u32(&v, cur->p, cur->order);
    return v;
}

float stream_cursor_f32(stream_cursor* cur, const char* what)
{
    stream_cursor_need(cur, 4, what);
    float v;
    cur->p = stream_read_f32(&v, cur->p, cur->order);
    return v;
}

void stream_cursor_f32_array(stream_cursor* cur, float* dst, uint32_t count, const char* what)
{
    stream_cursor_need_array(cur, count, 4, what);
    cur->p = stream_read_f32_array(dst, count, cur->p, cur->order);
}

const uint8_t* stream_cursor_bytes(stream_cursor* cur, uint64_t size, const char* what)
{
    stream_cursor_need(cur, size, what);
    const uint8_t* p = cur->p;
    cur->p += size;
    return p;
}

const char* stream_cursor_string(stream_cursor* cur, const char* what)
{
    const uint64_t left = stream_cursor_left(cur);
    const void* nul = left ? memchr(cur->p, 0, left) : nullptr;
    if (!nul)
        stream_cursor_fail(cur, "unterminated %s at offset %llu: no NUL before the end of the block\n", what,
                           (unsigned long long)stream_cursor_offset(cur));
    const char* text = (const char*)cur->p;
    cur->p = (const uint8_t*)nul + 1;
    return text;
}

// ---- bit and float helpers ----

uint32_t u32_log2_ceil(uint32_t v)
{
    if (v == 0)
        crash_in("src/memarena", __LINE__, "u32_log2_ceil", "u32_log2_ceil of 0\n");
    if (v == 1)
        return 0;
    return 32u - (uint32_t)__builtin_clz(v - 1);
}

void zero_block32(void* base, uint64_t offset)
{
    const uintptr_t block = ((uintptr_t)base + offset) & ~(uintptr_t)31;
    memset((void*)block, 0, 32);
}

float f32_rsqrt(float x) { return (float)(1.0 / sqrt((double)x)); }

int32_t f32_round_to_int(float x) { return (int32_t)lroundf(x); }
