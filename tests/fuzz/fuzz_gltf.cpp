// libFuzzer target for the glTF importer: the input is a .glb when it starts with "glTF", else
// glTF JSON text. The importer must import it or refuse it with a message, never reaching the
// fatal path; files beside the model are not read. What it imports must write as a datapack
// and textures that the engine's readers take back whole.
#include <string>

#include "fuzz_harness.h"
#include "gltf_import.h"
#include "mad.h"
#include "n3d_io.h"

constexpr uint64_t FUZZ_GLTF_TMP_CAPACITY = 64u << 20;
static xmemarena fuzz_gltf_tmp;

static void fuzz_gltf_reads_back(const gltf_import_result* r)
{
    xmemarena* arena = &fuzz_global.arena;
    const uint64_t size = mad_datapack_write_size(&r->datapack);
    auto* block = (uint8_t*)xmemarena_push_align(arena, size ? size : 1, 32);
    fuzz_expect(mad_datapack_write(block, &r->datapack, BYTE_ORDER_NATIVE) == block + size,
                "datapack writer wrote another size");
    stream_cursor cur;
    stream_cursor_init(&cur, block, size, BYTE_ORDER_NATIVE, "fuzz.mad");
    mad_datapack back;
    fuzz_expect(mad_datapack_read(&back, arena, &cur) == block + size, "imported datapack reads to another end");
    fuzz_expect(back.image_count == r->textures.size(), "one texture per datapack image");
    for (const gltf_import_texture& t : r->textures) {
        const uint64_t tsize = n3d_texture_write_size(&t.texture);
        auto* tblock = (uint8_t*)xmemarena_push_align(arena, tsize, 32);
        n3d_texture_write(tblock, &t.texture, BYTE_ORDER_NATIVE);
        stream_cursor tcur;
        stream_cursor_init(&tcur, tblock, tsize, BYTE_ORDER_NATIVE, "fuzz.tmap");
        n3d_texture texture;
        fuzz_expect(n3d_texture_read(arena, &texture, &tcur, 0) == tblock + tsize, "texture reads to another end");
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (!fuzz_gltf_tmp.base)
        xmemarena_init(&fuzz_gltf_tmp, "fuzz_gltf_tmp", FUZZ_GLTF_TMP_CAPACITY,
                       aligned_alloc(64, FUZZ_GLTF_TMP_CAPACITY));
    xmemarena_reset(&fuzz_global.arena);
    xmemarena_reset(&fuzz_gltf_tmp);
    // The importer reports its refusals by status; a jump back here from the fatal path would
    // skip its C++ destructors, and is a finding.
    if (setjmp(fuzz_global.resume))
        fuzz_expect(false, "the importer reached the fatal path");
    const gltf_import_options options = {"fuzz", 256, 0};
    const uint32_t binary = size >= 4 && memcmp(data, "glTF", 4) == 0;
    std::string error;
    gltf_import_result* result = new gltf_import_result();
    if (gltf_import_memory(result, &fuzz_global.arena, &fuzz_gltf_tmp, data, size, binary, "", &options, &error) == 0)
        fuzz_gltf_reads_back(result);
    delete result;
    return 0;
}
