// libFuzzer target for the resource loaders: the first input byte picks the kind (low four bits,
// so kinds 10 to 15 test the refusal of unknown kinds) and the pack's byte order (bit 4); the
// rest is the single block of a one-entry pack in an engine record, loaded with
// reel_load_resource. Every accepted block must give a cached record that its writer turns
// back into the block's own bytes, and blobs and raw blocks must be the block itself.
#include "fuzz_harness.h"
#include "reel_resource.h"
#include "n3d_io.h"

static reel_engine fuzz_engine;

template <class R, uint64_t (*size)(const R*), uint8_t* (*write)(uint8_t*, const R*, int32_t)>
static void fuzz_writes_back(const void* record, const uint8_t* body, uint64_t left, int32_t order)
{
    const uint64_t n = size((const R*)record);
    fuzz_expect(n <= left, "record is larger than the block it was read from");
    auto* out = (uint8_t*)xmemarena_push_align(&fuzz_global.arena, n + 1, 32);
    fuzz_expect(write(out, (const R*)record, order) == out + n, "writer wrote another size than it announced");
    fuzz_expect(memcmp(out, body, n) == 0, "record does not write back to the bytes it was read from");
}

// The round trip of kinds 0 to 7, by kind; madpacks have their own target.
static void (*const fuzz_round_trips[8])(const void*, const uint8_t*, uint64_t, int32_t) = {
    fuzz_writes_back<n3d_coverage_buffer, n3d_coverage_buffer_write_size, n3d_coverage_buffer_write>,
    fuzz_writes_back<n3d_texture, n3d_texture_write_size, n3d_texture_write>,
    fuzz_writes_back<reel_palette_animation, reel_palette_animation_write_size, reel_palette_animation_write>,
    fuzz_writes_back<reel_palette, reel_palette_write_size, reel_palette_write>,
    fuzz_writes_back<reel_rle_image, reel_rle_image_write_size, reel_rle_image_write>,
    fuzz_writes_back<reel_image, reel_image_write_size, reel_image_write>,
    nullptr,
    fuzz_writes_back<reel_font, reel_font_write_size, reel_font_write>,
};

static void fuzz_resource_load(const uint8_t* data, size_t size)
{
    if (size == 0)
        return;
    const uint32_t kind = data[0] & 0x0F;
    const int32_t order = (data[0] & 0x10) ? BYTE_ORDER_SWAPPED : BYTE_ORDER_NATIVE;
    const uint32_t block_size = (uint32_t)(size - 1);
    const uint8_t* block = fuzz_shifted_copy(data + 1, block_size);

    xmemarena* arena = &fuzz_global.arena;
    reel_fs_entry entry = {0, (uint16_t)kind, 5, 0, block_size, "fuzz", block};
    reel_fs_pack pack = {order, 1, &entry, "fuzz.rpk"};
    memset(&fuzz_engine, 0, sizeof(fuzz_engine));
    fuzz_engine.tmp_arena = xmemarena_push_arena(arena, "reel_tmp_arena", 1u << 16);
    fuzz_engine.arena = arena, fuzz_engine.packs = &pack, fuzz_engine.pack_count = 1;

    void* record = reel_load_resource(&fuzz_engine, "fuzz", kind);
    fuzz_expect(record != nullptr, "loader accepted a block but gave no record");
    fuzz_expect(reel_load_resource(&fuzz_engine, "fuzz", kind) == record, "second request missed the cache");

    const uint8_t* body = block + 4;  // after the marker, for kinds 0 to 7
    const uint64_t left = block_size >= 4 ? block_size - 4 : 0;
    if (kind < 8 && fuzz_round_trips[kind])
        fuzz_round_trips[kind](record, body, left, order);
    const auto* blob = (const reel_blob*)record;
    fuzz_expect(kind != REEL_KIND_BLOB || (blob->data == block && blob->size == block_size), "blob is not the block itself");
    fuzz_expect(kind != REEL_KIND_RAW || record == block, "raw resource is not the block itself");
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return fuzz_run(fuzz_resource_load, data, size);
}
