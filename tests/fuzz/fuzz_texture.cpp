// libFuzzer target for texture blocks: the input is a texture file (marker and block). Every
// block the reader accepts must write back to exactly the bytes it read, whether it was used
// in place, from a misaligned copy or copied.
#include "fuzz_harness.h"
#include "n3d_io.h"

static void fuzz_texture_read(const uint8_t* data, size_t size, uint32_t in_place)
{
    xmemarena* arena = &fuzz_global.arena;
    stream_cursor cur;
    fuzz_block_cursor(&cur, data, size, "fuzz.tmap");
    n3d_texture texture;
    const uint8_t* end = n3d_texture_read(arena, &texture, &cur, in_place);
    const uint64_t consumed = fuzz_block_read(&cur, end, data, size);
    fuzz_expect(n3d_texture_write_size(&texture) == consumed, "texture write size differs from the bytes read");
    auto* out = (uint8_t*)xmemarena_push_align(arena, consumed, 32);
    fuzz_expect(n3d_texture_write(out, &texture, cur.order) == out + consumed, "texture writer wrote another size");
    fuzz_expect(memcmp(out, data + 4, consumed) == 0, "texture does not write back to the bytes read");
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    xmemarena_reset(&fuzz_global.arena);
    if (setjmp(fuzz_global.resume))
        return 0;  // the reader refused the input with a fatal message
    fuzz_texture_read(data, size, 1);
    fuzz_texture_read(fuzz_shifted_copy(data, size), size, 1);
    fuzz_texture_read(data, size, 0);
    return 0;
}
