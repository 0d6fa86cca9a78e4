// Pack files: both byte orders, the header size rule with its gap, extra bytes, lookups, the
// refusal of damaged packs, and the reel_pack tool from manifest to listing.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "reel_fs.h"
#include "test_fatal.h"
#include "tool_fixture.h"

namespace {

using bytes = std::vector<uint8_t>;

// The pack the writer makes of the inputs, as bytes.
bytes make_pack(const std::vector<test_pack_input>& inputs, int32_t order)
{
    test_write_pack(test_temp_path("made.rpk"), inputs, order);
    const std::string s = tool_fixture_read(test_temp_path("made.rpk"));
    return bytes(s.begin(), s.end());
}

struct test_reader {
    test_arena memory;
    xmemarena& arena = memory.arena;
    reel_fs_pack open(const bytes& image)
    {
        reel_fs_pack pack;
        reel_fs_open_image(&pack, image.data(), image.size(), "test.rpk", &arena);
        return pack;
    }
};

const std::vector<test_pack_input> three_inputs = {
    {3, "sunset.pal", "PALETTE", 0}, {9, "sequence.csv", "a,b,c\n", 1}, {8, "music", std::string("\x01\x00\x02", 3), 0}};

// reel_pack (tests are built in <build>/tests, tools in <build>): exit status and all it printed.
std::pair<int, std::string> run_tool(const std::string& args)
{
    const tool_run_result r = tool_fixture_run(
        ".", std::filesystem::canonical("/proc/self/exe").parent_path().parent_path().string() + "/reel_pack " + args);
    return {r.status, r.out + r.err};
}

}  // namespace

TEST(reel_fs, both_byte_orders_the_header_size_rule_extra_bytes_and_lookups)
{
    const bytes native = make_pack(three_inputs, BYTE_ORDER_NATIVE),
                swapped = make_pack(three_inputs, BYTE_ORDER_SWAPPED);
    EXPECT_EQ(bytes(native.begin(), native.begin() + 8), (bytes{0xCD, 0xAB, 0, 0, 3, 0, 0, 0}));
    EXPECT_EQ(bytes(swapped.begin(), swapped.begin() + 8), (bytes{0, 0, 0xAB, 0xCD, 0, 0, 0, 3}));
    // names, gap and blocks are bytes: only the numbers of the header differ
    EXPECT_EQ(bytes(native.begin() + 56, native.end()), bytes(swapped.begin() + 56, swapped.end()));
    test_reader r;
    const reel_fs_pack n = r.open(native), s = r.open(swapped);
    ASSERT_TRUE(n.order == BYTE_ORDER_NATIVE && s.order == BYTE_ORDER_SWAPPED && n.count == 3 && s.count == 3);
    const uint32_t offsets[] = {90, 97, 104};  // H = 3 x 21 + 10 + 12 + 5, then each block's size
    for (uint32_t i = 0; i < 6; i++) {
        const reel_fs_entry& e = (i < 3 ? n : s).entries[i % 3];
        const test_pack_input& in = three_inputs[i % 3];
        EXPECT_TRUE(e.kind == in.kind && e.name == in.name && e.name_length == in.name.size() + 1 &&
                    e.offset == offsets[i % 3] && e.size == in.contents.size() + in.extra) << i;
        EXPECT_EQ(std::string((const char*)e.data, in.contents.size()), in.contents);
    }
    // the header size rule and its gap
    const bytes two = make_pack({{3, "a", "xy", 0}, {3, "bc", "z", 0}}, BYTE_ORDER_NATIVE);
    EXPECT_TRUE(two.size() == 45u + 3u && two[45] == 'x');  // (20 + 1 + 1) + (20 + 2 + 1): exactly the header
    const bytes three = make_pack({{1, "a", "1", 0}, {1, "b", "2", 0}, {1, "c", "3", 0}}, BYTE_ORDER_NATIVE);
    EXPECT_EQ(std::string(three.begin() + 62, three.end()), std::string("\0\0\0\0" "123", 7));  // 4-byte gap
    EXPECT_TRUE(make_pack({{0, "a", "q", 0}}, BYTE_ORDER_NATIVE).size() == 26u + 1u &&  // 8 + 17 + 1
                make_pack({}, BYTE_ORDER_SWAPPED).size() == 8u);
    // extra bytes are zeros inside the entry's size, even after an empty file
    const bytes extra = make_pack({{9, "t", "abc", 1}, {9, "e", "", 2}}, BYTE_ORDER_NATIVE);
    const reel_fs_pack pack = r.open(extra);
    EXPECT_EQ(std::string((const char*)pack.entries[0].data, pack.entries[0].size), std::string("abc\0", 4));
    EXPECT_TRUE(pack.entries[1].size == 2 && extra.size() == pack.entries[1].offset + 2u);
    // lookups by kind and name
    const bytes lookup =
        make_pack({{3, "x", "palette", 0}, {5, "x", "image", 0}, {3, "x", "second", 0}, {3, "X", "upper", 0}},
                  BYTE_ORDER_SWAPPED);
    const reel_fs_pack found = r.open(lookup);
    auto find = [&](uint32_t kind, const char* name) {
        uint32_t size = 12345;
        const uint8_t* p = reel_fs_find_file(&found, kind, name, &size);
        return p ? std::string((const char*)p, size) : "null " + std::to_string(size);
    };
    // the first of two with the same kind and name; a miss leaves the size alone; kinds are not cut to 16 bits
    EXPECT_EQ(find(3, "x") + " " + find(5, "x") + " " + find(3, "X"), "palette image upper");
    EXPECT_EQ(find(9, "x") + " " + find(3, "x ") + " " + find(3 + 65536, "x"), "null 12345 null 12345 null 12345");
}

TEST(reel_fs_death, damaged_packs_are_refused_naming_the_fault_and_so_are_files_the_writer_cannot_pack)
{
    const bytes good = make_pack(three_inputs, BYTE_ORDER_NATIVE);
    test_reader r;
    // the good pack with little-endian values of n bytes written at the given offsets
    auto damaged = [&](std::initializer_list<std::pair<size_t, uint32_t>> changes, size_t n = 4) {
        bytes b = good;
        for (const auto& [at, v] : changes)
            for (size_t k = 0; k < n; k++)
                b.at(at + k) = (uint8_t)(v >> (8 * k));
        return b;
    };
    bytes no_nul = good;
    std::replace(no_nul.begin() + 56, no_nul.begin() + 90, (uint8_t)0, (uint8_t)'_');
    const struct { bytes image; const char* message; } cases[] = {
        {damaged({{0, 0xABCE}}), "crash in reel_fs_open_image at src/reel_fs:[0-9]+\ntest.rpk: not a pack file: marker 0x0000abce"},
        {bytes(good.begin(), good.begin() + 6), "test.rpk: truncated pack header: needs 8 bytes at offset 0, 6 left"},
        {bytes(good.begin(), good.begin() + 50), "directory of 3 entries needs 48 bytes, the file has 42 after the count"},
        {damaged({{4, 0xFFFFFFFF}}), "directory of 4294967295 entries needs 68719476720 bytes"},
        {bytes(good.begin(), good.end() - 1), "entry 2: block at offset 104 of 3 bytes ends past the end of the file \\(106"},
        // offset + size wraps to 16 in 32 bits
        {damaged({{8 + 32 + 8, 0xFFFFFFF0}, {8 + 32 + 12, 0x20}}), "entry 2: block at offset 4294967280 of 32 bytes ends past"},
        {damaged({{8 + 16 + 8, 20}}), "a block starts at offset 20, inside the directory \\(which ends at 56\\)"},
        {no_nul, "entry 0: name at offset 56 has no NUL before the data at offset 90"},
        {damaged({{8 + 16 + 6, 12}}, 2), "entry 1: name \"sequence.csv\" has 13 bytes with its NUL, its record says 12"},
    };
    for (const auto& c : cases)
        EXPECT_FATAL(r.open(c.image), c.message);
    // files the writer cannot pack; a pack that is empty or does not fit the arena says why on
    // standard output on a line before the fatal message (EXPECT_FATAL_OUT matches both)
    const std::string empty = test_temp_path("nothing.rpk"), big = test_temp_path("big.rpk");
    tool_fixture_write(empty, "");
    tool_fixture_write(big, std::string(100, 'x'));
    reel_fs_writer writer;
    reel_fs_pack_begin(&writer, BYTE_ORDER_NATIVE);  // files it cannot pack
    EXPECT_FATAL(reel_fs_pack_add_file(&writer, &r.arena, 9, 0, "x", test_temp_path("missing.txt").c_str()),
                 "crash in reel_fs_pack_add_file .*\nfailed open \".*missing.txt\"\n$");
    EXPECT_FATAL(reel_fs_pack_add_file(&writer, &r.arena, 70000, 0, "x", empty.c_str()),
                 "kind 70000 of \"x\" does not fit 16 bits");
    reel_fs_pack pack;
    EXPECT_FATAL_OUT(reel_fs_open_file(&pack, empty.c_str(), &r.arena),
                     "^pack \".*nothing.rpk\" is empty\ncrash in reel_fs_open_file at src/reel_fs:[0-9]+\n"
                     "failed read \".*nothing.rpk\"\n$");
    // 128 bytes, 20 of them used: the 108 left hold the pack but not the 12 bytes that align it
    // to 32 first; with none used the pack fits and reaches the reader
    alignas(32) static uint8_t small_memory[128];
    xmemarena small;
    xmemarena_init(&small, "small_arena", sizeof(small_memory), small_memory);
    EXPECT_FATAL((reel_fs_open_file(&pack, big.c_str(), &small), exit(0)), "not a pack file");
    xmemarena_push(&small, 20);
    EXPECT_FATAL_OUT(reel_fs_open_file(&pack, big.c_str(), &small),
                     "^pack \".*big.rpk\" of 100 bytes does not fit the 108 bytes left in \"small_arena\"\n.*\n"
                     "crash in xmemarena_push at src/memarena:[0-9]+\narena is out of mem\n$");
}

TEST(reel_pack_tool, builds_and_lists_a_pack_from_a_manifest_and_names_the_line_of_a_bad_one)
{
    std::filesystem::create_directories(test_temp_path("assets/sub"));
    tool_fixture_write(test_temp_path("assets/sub/sunset.pal"), "PAL");
    tool_fixture_write(test_temp_path("assets/sequence.csv"), "row\n");
    tool_fixture_write(test_temp_path("assets/music.raw"), "MUSIC");
    const std::string manifest = test_temp_path("assets/show.manifest"), native = test_temp_path("tool.rpk");
    tool_fixture_write(manifest, "# the show's first pack\n\npalette   sunset.pal    sub/sunset.pal\n"
                         "9 sequence.csv sequence.csv 1   # text: one NUL after it\n"
                         "  blob\tmusic\tmusic.raw\t0\n3 music sub/sunset.pal\n");
    ASSERT_EQ(run_tool(manifest + " " + native).first, 0);
    // byte for byte what the writer makes of the same files, and its directory listed
    const std::string made = tool_fixture_read(native);
    EXPECT_EQ(bytes(made.begin(), made.end()), make_pack({{3, "sunset.pal", "PAL", 0}, {9, "sequence.csv", "row\n", 1},
                                                          {8, "music", "MUSIC", 0}, {3, "music", "PAL", 0}},
                                                         BYTE_ORDER_NATIVE));
    EXPECT_EQ(run_tool("--list " + native),
              std::make_pair(0, "\"" + native +
                                    "\": 4 entries, native byte order\n"
                                    "index  kind                  name              offset        size\n"
                                    "    0   3 palette            sunset.pal           116           3\n"
                                    "    1   9 raw                sequence.csv         119           5\n"
                                    "    2   8 blob               music                124           5\n"
                                    "    3   3 palette            music                129           3\n"));

    // a bad manifest is named with its line (comments and empty lines count)
    const std::pair<const char*, const char*> cases[] = {
        {"raw a assets/music.raw\n# fine so far\nsprite b assets/music.raw\n", ":3: unknown kind \"sprite\""},
        {"raw a assets/music.raw\nblob b assets/music.raw\n9 a assets/music.raw\n",
         ":3: \"a\" of kind raw is already on line 1"},
    };
    for (const auto& [text, message] : cases) {
        tool_fixture_write(test_temp_path("bad.manifest"), text);
        const auto r = run_tool(test_temp_path("bad.manifest") + " " + test_temp_path("bad.rpk"));
        EXPECT_TRUE(r.first == 1 && testing::internal::RE::PartialMatch(r.second, testing::internal::RE(message)))
            << r.second;
    }
}
