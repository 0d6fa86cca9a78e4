// libFuzzer target for vertex-array blocks: the input is a mesh file (marker and block). Every
// block the reader accepts must write back to the bytes it read, but for explicit flags 63,
// which the writer spells 0.
#include "fuzz_harness.h"
#include "n3d_io.h"

static void fuzz_mesh_read(const uint8_t* data, size_t size)
{
    xmemarena* arena = &fuzz_global.arena;
    stream_cursor cur;
    fuzz_block_cursor(&cur, data, size, "fuzz.mesh");
    n3d_vertices vertices;
    const uint8_t* end = n3d_vertices_read(&vertices, arena, &cur);
    const uint64_t consumed = fuzz_block_read(&cur, end, data, size);
    const void* arrays[] = {vertices.xyz,   vertices.uv0, vertices.n_xyz,  vertices.t_xyz,
                            vertices.b_xyz, vertices.uv1, vertices.joints, vertices.weights};
    for (const void* array : arrays)
        fuzz_expect((uintptr_t)array % 32 == 0, "vertex array is not 32-byte aligned");
    fuzz_expect(n3d_vertices_write_size(&vertices) == consumed, "vertex write size differs from the bytes read");
    auto* out = (uint8_t*)xmemarena_push_align(arena, consumed, 32);
    fuzz_expect(n3d_vertices_write(out, &vertices, cur.order) == out + consumed, "vertex writer wrote another size");

    uint32_t flags_in, flags_out;
    stream_read_u32(&flags_in, data + 4, cur.order);
    stream_read_u32(&flags_out, out, cur.order);
    fuzz_expect(flags_out == (flags_in == N3D_VERTICES_BASE_SIX ? 0 : flags_in), "vertex flags changed");
    fuzz_expect(memcmp(out + 4, data + 8, consumed - 4) == 0, "vertices do not write back to the bytes read");
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) { return fuzz_run(fuzz_mesh_read, data, size); }
