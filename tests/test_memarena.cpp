// The foundation: arenas, byte order, streams and the bounds-aware cursor, bit helpers.
#include <algorithm>
#include <cstring>

#include "memarena.h"
#include "test_fatal.h"

TEST(memarena, alignment_on_the_absolute_address_marks_zero_fill_pop_and_capacity)
{
    test_arena f(256);
    xmemarena* a = &f.arena;
    a->base += 3;  // base + sp ends in ...3
    a->capacity = 100;
    uint8_t* p = (uint8_t*)xmemarena_push_align(a, 8, 32);
    EXPECT_TRUE((uintptr_t)p % 32 == 0u && p - a->base == 29 && a->sp == 29u + 8u);
    xmemarena_set_sp(a, 29);  // already aligned: no padding
    EXPECT_TRUE((uint8_t*)xmemarena_push_align(a, 4, 32) == p && a->sp == 33u);
    const uint64_t mark = xmemarena_get_sp(a);
    void* first = xmemarena_push(a, 16);  // over the test arena's 0xAB
    xmemarena_push(a, 30);
    xmemarena_set_sp(a, mark);
    auto* again = (uint8_t*)xmemarena_push_zero(a, 16);
    EXPECT_TRUE(again == first && std::all_of(again, again + 16, [](uint8_t b) { return b == 0; }));
    EXPECT_EQ(xmemarena_pop_size(a, 16), 33u);
    EXPECT_EQ(a->high_water, 33u + 46u);  // the deepest the arena went, marks and pops aside
    EXPECT_EQ((uint8_t*)xmemarena_push(a, 67), a->base + 33);
    EXPECT_TRUE(a->sp == a->capacity && xmemarena_free_size(a) == 0u);
    // size 0 on a full arena is still a harmless null, aligned forms too
    EXPECT_TRUE(!xmemarena_push(a, 0) && !xmemarena_push_zero(a, 0) && !xmemarena_push_align(a, 0, 32) &&
                !xmemarena_push_align_size(a, 0, 32) && a->sp == 100u);
}

// Each refusal: its detail line on standard output, flushed before the fatal text (both
// streams share one pipe in the child, so their order shows).
TEST(memarena_death, refusals_print_their_detail_then_the_fatal_text)
{
    const struct { void (*run)(xmemarena* a); const char* output; } cases[] = {
        {[](xmemarena* a) { xmemarena_push(a, 60), xmemarena_push(a, 41); },
         "^arena: test_arena is out of mem, capacity is 100 but needed 101 tried alloc 41\n"
         "crash in xmemarena_push at src/memarena:[0-9]+\narena is out of mem\n$"},
        // a size whose padding wraps round is out of memory too, not a small push
        {[](xmemarena* a) { xmemarena_push_align_size(a, UINT64_MAX - 5, 64); }, "arena is out of mem\n$"},
        {[](xmemarena* a) { xmemarena_push(a, 10), xmemarena_pop_size(a, 11); },
         "^arena: test_arena is at sp: 10 and asked to pop size 11\n"
         "crash in xmemarena_pop_size at src/memarena:[0-9]+\narena bad pop\n$"},
        {[](xmemarena* z) { xmemarena_init(z, "nobase", 16, nullptr); },
         "^arena \"nobase\" size 16 got a zero pointer!\ncrash in xmemarena_init at src/memarena:[0-9]+\n"
         "arena got a zero pointer!\n$"},
    };
    for (const auto& c : cases) {
        test_arena f(100);
        EXPECT_FATAL_OUT(c.run(&f.arena), c.output);
    }
}

// Values written after the marker, unaligned on purpose, read back raw and through the cursor.
TEST(memarena_stream, values_round_trip_in_both_orders_and_the_marker_decides_the_order)
{
    EXPECT_TRUE(byte_order_from_marker(0xABCD) == BYTE_ORDER_NATIVE &&
                byte_order_from_marker(0xCDAB0000) == BYTE_ORDER_SWAPPED && byte_order_from_marker(0xCDAB) == -1 &&
                byte_order_from_marker(0) == -1);
    for (int32_t order : {BYTE_ORDER_NATIVE, BYTE_ORDER_SWAPPED}) {
        uint8_t buf[64] = {};
        const float floats[3] = {1.5f, -2.25f, 1e-20f};
        uint8_t* w = stream_write_u8(stream_write_u32(buf + 1, BYTE_ORDER_MARKER, order), 0x7F);
        w = stream_write_f32(stream_write_u32(stream_write_u16(w, 0xBEEF, order), 0xDEADBEEF, order), 3.0f, order);
        w = stream_write_string(stream_write_f32_array(w, floats, 3, order), "mesh");
        EXPECT_EQ(w - buf, 1 + 4 + 1 + 2 + 4 + 4 + 12 + 5);
        EXPECT_EQ(buf[6],
                  order == BYTE_ORDER_SWAPPED ? 0xBE : 0xEF);  // the swapped order really swaps (little-endian host)
        test_arena strings(64);
        uint8_t u8; uint16_t u16; uint32_t u32; float f, fa[3]; char* text;
        const uint8_t* r = stream_read_u16(&u16, stream_read_u8(&u8, buf + 5), order);
        r = stream_read_f32(&f, stream_read_u32(&u32, r, order), order);
        r = stream_read_string(&text, &strings.arena, stream_read_f32_array(fa, 3, r, order));
        EXPECT_TRUE(r == w && u8 == 0x7F && u16 == 0xBEEF && u32 == 0xDEADBEEFu && f == 3.0f && !memcmp(fa, floats, 12));
        EXPECT_TRUE(!strcmp(text, "mesh") && (uint8_t*)text == strings.arena.base && strings.arena.sp == 5);
        stream_cursor c;
        stream_cursor_init(&c, buf + 1, (uint64_t)(w - buf - 1), BYTE_ORDER_NATIVE, "test.bin");
        EXPECT_TRUE(stream_cursor_read_marker(&c) == order && stream_cursor_u8(&c, "kind") == 0x7F &&
                    stream_cursor_u16(&c, "count") == 0xBEEF && stream_cursor_u32(&c, "size") == 0xDEADBEEFu);
        EXPECT_TRUE(stream_cursor_f32(&c, "scale") == 3.0f && stream_cursor_bytes(&c, 12, "floats") == buf + 16);
        EXPECT_TRUE(!strcmp(stream_cursor_string(&c, "name"), "mesh") && stream_cursor_left(&c) == 0u &&
                    stream_cursor_offset(&c) == 32u);
    }
}

TEST(memarena_death, cursor_refuses_truncated_and_malformed_data)
{
    static const uint8_t data[6] = {0xCD, 0xAB, 0, 0, 'x', 'y'};
    const struct { void (*read)(stream_cursor* c); const char* message; } cases[] = {
        {[](stream_cursor* c) { stream_cursor_read_marker(c), stream_cursor_u32(c, "vertex count"); },
         "test.bin: truncated vertex count: needs 4 bytes at offset 4, 2 left\n"},
        {[](stream_cursor* c) { stream_cursor_bytes(c, 4, "marker"), stream_cursor_string(c, "entry name"); },
         "test.bin: unterminated entry name at offset 4"},
        {[](stream_cursor* c) { stream_cursor_need_array(c, 0x40000000u, 16, "texels"); },
         "test.bin: truncated texels: 1073741824 entries of 16 bytes"},
        {[](stream_cursor* c) { stream_cursor_bytes(c, 2, "pad"), stream_cursor_read_marker(c); },  // 00 00 'x' 'y'
         "at src/memarena:[0-9]+\ninvalid endian marker\\?\n$"},
    };
    for (const auto& k : cases) {
        stream_cursor c;
        stream_cursor_init(&c, data, sizeof(data), BYTE_ORDER_NATIVE, "test.bin");
        EXPECT_FATAL(k.read(&c), k.message);
    }
}

TEST(memarena_bits, clz_log2_and_rounding)
{
    EXPECT_TRUE(u32_clz(0) == 31 && u32_clz_or_32(0) == 32 && u32_clz(1) == 31 && u32_clz(0x80000000u) == 0 &&
                u32_clz_or_32(0x00010000u) == 15);
    const uint32_t log2s[][2] = {{1, 0}, {2, 1}, {3, 2}, {256, 8}, {300, 9}, {0x80000000u, 31}, {0x80000001u, 32}};
    for (const auto& l : log2s)
        EXPECT_EQ(u32_log2_ceil(l[0]), l[1]) << l[0];
    const float halves[][2] = {{2.5f, 3}, {-2.5f, -3}, {2.49f, 2}, {-0.4f, 0}};  // half away from zero
    for (const auto& h : halves)
        EXPECT_EQ(f32_round_to_int(h[0]), (int32_t)h[1]) << h[0];
    EXPECT_FLOAT_EQ(f32_rsqrt(4.0f), 0.5f);
    EXPECT_FLOAT_EQ(f32_rcp(8.0f), 0.125f);
    EXPECT_FATAL(u32_log2_ceil(0), "u32_log2_ceil");
}
