// libFuzzer target for datapack blocks: the input is a datapack file (marker and block). A block
// the reader accepts must be safe to animate and to walk (which check nothing themselves), must
// be as long as the writer says, and its writing must read back and write again to the same
// bytes. (The first writing may differ from the input where a vertex block spells flags 63,
// which the writer spells 0.)
#include "fuzz_harness.h"
#include "mad.h"
#include "mad_anim.h"

static uint8_t* fuzz_mad_write(const mad_datapack* d, int32_t order, uint64_t expected)
{
    xmemarena* arena = &fuzz_global.arena;
    fuzz_expect(mad_datapack_write_size(d) == expected, "datapack write size differs from the bytes read");
    auto* out = (uint8_t*)xmemarena_push_align(arena, expected ? expected : 1, 32);
    fuzz_expect(mad_datapack_write(out, d, order) == out + expected, "datapack writer wrote another size");
    return out;
}

static void fuzz_mad_exercise(mad_datapack* d)
{
    xmemarena* arena = &fuzz_global.arena;
    auto* world = (mat4x4*)xmemarena_push_align(arena, (uint64_t)d->node_count * sizeof(mat4x4) + 1, 32);
    static const float times[] = {-1.0f, 0.0f, 0.5f, 1e9f};
    for (uint32_t i = 0; i < d->animation_count; i++) {
        for (float t : times) {
            mad_animate(d, i, t);
            mad_compute_world_matrices(world, d, arena);
        }
    }
    mad_compute_world_matrices(world, d, arena);
    uint32_t most_joints = 0;
    for (uint32_t i = 0; i < d->skin_count; i++)
        most_joints = d->skins[i].joint_count > most_joints ? d->skins[i].joint_count : most_joints;
    auto* joints = (mat4x4*)xmemarena_push_align(arena, (uint64_t)most_joints * sizeof(mat4x4) + 1, 32);
    for (uint32_t i = 0; i < d->skin_count; i++)
        mad_compute_joint_matrices(joints, world, &d->skins[i]);
}

static void fuzz_mad_read(const uint8_t* data, size_t size)
{
    xmemarena* arena = &fuzz_global.arena;
    stream_cursor cur;
    fuzz_block_cursor(&cur, data, size, "fuzz.mad");
    mad_datapack d;
    const uint8_t* end = mad_datapack_read(&d, arena, &cur);
    const uint64_t consumed = fuzz_block_read(&cur, end, data, size);

    uint8_t* first = fuzz_mad_write(&d, cur.order, consumed);
    stream_cursor again;
    stream_cursor_init(&again, first, consumed, cur.order, "fuzz.mad rewritten");
    mad_datapack d2;
    fuzz_expect(mad_datapack_read(&d2, arena, &again) == first + consumed, "rewritten datapack reads to another end");
    uint8_t* second = fuzz_mad_write(&d2, cur.order, consumed);
    fuzz_expect(memcmp(first, second, consumed) == 0, "rewritten datapack does not write back to the same bytes");

    fuzz_mad_exercise(&d);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) { return fuzz_run(fuzz_mad_read, data, size); }
