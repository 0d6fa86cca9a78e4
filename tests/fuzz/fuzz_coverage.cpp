// libFuzzer target for coverage-mask blocks (stencils): the input is a marker and a block. Every
// block the reader accepts must write back to exactly the bytes it read.
#include "fuzz_harness.h"
#include "n3d_io.h"

static void fuzz_coverage_read(const uint8_t* data, size_t size)
{
    xmemarena* arena = &fuzz_global.arena;
    stream_cursor cur;
    fuzz_block_cursor(&cur, data, size, "fuzz.stencil");
    n3d_coverage_buffer cb;
    const uint8_t* end = n3d_coverage_buffer_read(arena, &cb, &cur);
    const uint64_t consumed = fuzz_block_read(&cur, end, data, size);
    fuzz_expect(cb.width % 32 == 0 && (uintptr_t)cb.bits % 32 == 0, "coverage buffer breaks its layout rules");
    fuzz_expect(n3d_coverage_buffer_write_size(&cb) == consumed, "coverage write size differs from the bytes read");
    auto* out = (uint8_t*)xmemarena_push_align(arena, consumed, 32);
    fuzz_expect(n3d_coverage_buffer_write(out, &cb, cur.order) == out + consumed, "coverage writer wrote another size");
    fuzz_expect(memcmp(out, data + 4, consumed) == 0, "coverage mask does not write back to the bytes read");
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return fuzz_run(fuzz_coverage_read, data, size);
}
