// libFuzzer target for the scene-description parser: the input is the description's text, the
// callbacks only count. Every call must see a NUL-terminated key of its stated length, items
// must come with increasing indices below their count, and the text must be as it was afterwards.
#include "fuzz_harness.h"
#include "reel.h"

struct fuzz_ini_counts {
    uint32_t values;
    uint32_t items;
    uint32_t next_index;  // the index the next item of the current array must have
};

static void fuzz_ini_on_value(const char* key, uint32_t key_length, const char* value, uint32_t value_length,
                              void* user)
{
    fuzz_expect(key_length > 0 && strlen(key) == key_length, "key is not NUL-terminated at its length");
    fuzz_expect(strlen(value) == value_length, "value is not NUL-terminated at its length");
    ((fuzz_ini_counts*)user)->values++;
}

static void fuzz_ini_on_item(const char* key, uint32_t key_length, const char* item, uint32_t item_length,
                             uint32_t index, uint32_t count, void* user)
{
    auto* counts = (fuzz_ini_counts*)user;
    fuzz_expect(key_length > 0 && strlen(key) == key_length, "key is not NUL-terminated at its length");
    fuzz_expect(item_length > 0 && strlen(item) == item_length, "item is not NUL-terminated at its length");
    if (index == 0)
        counts->next_index = 0;
    fuzz_expect(index == counts->next_index && index < count, "items out of order or beyond their count");
    counts->next_index++;
    counts->items++;
}

static void fuzz_ini_read(const uint8_t* data, size_t size)
{
    char* text = fuzz_text(data, size);

    fuzz_ini_counts counts = {};
    ini_parse(text, "fuzz.ini", fuzz_ini_on_value, fuzz_ini_on_item, &counts);
    fuzz_expect(memcmp(text, data, size) == 0 && text[size] == 0, "the parser left the text changed");
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) { return fuzz_run(fuzz_ini_read, data, size); }
