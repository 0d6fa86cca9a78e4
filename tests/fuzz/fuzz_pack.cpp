// libFuzzer target for pack directories: the input is a whole pack file. Every pack the reader
// accepts must keep each block and name inside the file, and a lookup of any entry's kind and
// name must give the first entry that has them.
#include "fuzz_harness.h"
#include "reel_fs.h"

static void fuzz_pack_read(const uint8_t* data, size_t size)
{
    const uint8_t* image = fuzz_shifted_copy(data, size);
    reel_fs_pack pack;
    reel_fs_open_image(&pack, image, size, "fuzz.rpk", &fuzz_global.arena);
    fuzz_expect(pack.order == BYTE_ORDER_NATIVE || pack.order == BYTE_ORDER_SWAPPED, "pack accepted without a marker");
    fuzz_expect(8 + (uint64_t)pack.count * 16 <= size, "directory larger than the file");
    for (uint32_t i = 0; i < pack.count; i++) {
        const reel_fs_entry* e = &pack.entries[i];
        fuzz_expect(e->data >= image + 8 + (uint64_t)pack.count * 16, "block inside the directory");
        fuzz_expect(e->data == image + e->offset && e->offset + (uint64_t)e->size <= size, "block outside the file");
        fuzz_expect(strlen(e->name) + 1 == e->name_length, "name length differs from the name");
        uint32_t found_size = 0;
        const uint8_t* found = reel_fs_find_file(&pack, e->kind, e->name, &found_size);
        uint32_t first = 0;
        while (pack.entries[first].kind != e->kind || strcmp(pack.entries[first].name, e->name) != 0)
            first++;
        fuzz_expect(found == pack.entries[first].data && found_size == pack.entries[first].size,
                    "lookup did not give the first entry of that kind and name");
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) { return fuzz_run(fuzz_pack_read, data, size); }
