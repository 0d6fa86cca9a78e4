// Pack files: both byte orders, the header size rule with its gap, extra bytes, lookups, the
// refusal of damaged packs, and the reel_pack tool from manifest to listing.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "reel_fs.h"
#include "test_fatal.h"
#include "tool_fixture.h"

namespace {

using bytes = std::vector<uint8_t>;

const auto write_text = tool_fixture_write;

bytes read_file(const std::string& path)
{
    const std::string s = tool_fixture_read(path);
    return bytes(s.begin(), s.end());
}

// The pack the writer makes of the inputs, as bytes.
bytes make_pack(const std::string& pack_name, const std::vector<test_pack_input>& inputs, int32_t order)
{
    test_write_pack(test_temp_path(pack_name), inputs, order);
    return read_file(test_temp_path(pack_name));
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

}  // namespace

TEST(reel_fs, both_byte_orders_decode_to_the_same_directory)
{
    const bytes native = make_pack("native.rpk", three_inputs, BYTE_ORDER_NATIVE);
    const bytes swapped = make_pack("swapped.rpk", three_inputs, BYTE_ORDER_SWAPPED);
    EXPECT_EQ(bytes(native.begin(), native.begin() + 8), (bytes{0xCD, 0xAB, 0, 0, 3, 0, 0, 0}));
    EXPECT_EQ(bytes(swapped.begin(), swapped.begin() + 8), (bytes{0, 0, 0xAB, 0xCD, 0, 0, 0, 3}));
    // names, gap and blocks are bytes: only the numbers of the header differ
    EXPECT_EQ(bytes(native.begin() + 56, native.end()), bytes(swapped.begin() + 56, swapped.end()));

    test_reader r;
    const reel_fs_pack n = r.open(native), s = r.open(swapped);
    ASSERT_TRUE(n.order == BYTE_ORDER_NATIVE && s.order == BYTE_ORDER_SWAPPED && n.count == 3 && s.count == 3);
    const uint32_t offsets[] = {90, 97, 104};  // H = 3 x 21 + 10 + 12 + 5, then each block's size
    for (uint32_t i = 0; i < 3; i++) {
        for (const reel_fs_pack* p : {&n, &s}) {
            const reel_fs_entry& e = p->entries[i];
            const test_pack_input& in = three_inputs[i];
            EXPECT_TRUE(e.kind == in.kind && e.name == in.name && e.name_length == in.name.size() + 1) << i;
            EXPECT_TRUE(e.offset == offsets[i] && e.size == in.contents.size() + in.extra) << i;
        }
        EXPECT_EQ(std::string((const char*)n.entries[i].data, three_inputs[i].contents.size()), three_inputs[i].contents);
    }
}

TEST(reel_fs, header_size_rule_gap_and_extra_bytes)
{
    const bytes two = make_pack("two.rpk", {{3, "a", "xy", 0}, {3, "bc", "z", 0}}, BYTE_ORDER_NATIVE);
    EXPECT_TRUE(two.size() == 45u + 3u && two[45] == 'x');  // (20 + 1 + 1) + (20 + 2 + 1): exactly the header
    const bytes three = make_pack("three.rpk", {{1, "a", "1", 0}, {1, "b", "2", 0}, {1, "c", "3", 0}}, BYTE_ORDER_NATIVE);
    EXPECT_EQ(std::string(three.begin() + 62, three.end()), std::string("\0\0\0\0" "123", 7));  // 4-byte gap
    EXPECT_EQ(make_pack("one.rpk", {{0, "a", "q", 0}}, BYTE_ORDER_NATIVE).size(), 26u + 1u);  // 8 + 17 + 1
    EXPECT_EQ(make_pack("none.rpk", {}, BYTE_ORDER_SWAPPED).size(), 8u);

    // extra bytes are zeros inside the entry's size, even after an empty file
    test_reader r;
    const bytes extra = make_pack("extra.rpk", {{9, "t", "abc", 1}, {9, "e", "", 2}}, BYTE_ORDER_NATIVE);
    const reel_fs_pack pack = r.open(extra);
    EXPECT_EQ(std::string((const char*)pack.entries[0].data, pack.entries[0].size), std::string("abc\0", 4));
    EXPECT_TRUE(pack.entries[1].size == 2 && extra.size() == pack.entries[1].offset + 2u);
}

TEST(reel_fs, lookups_by_kind_and_name)
{
    test_reader r;
    const bytes image = make_pack(
        "lookup.rpk", {{3, "x", "palette", 0}, {5, "x", "image", 0}, {3, "x", "second", 0}, {3, "X", "upper", 0}}, BYTE_ORDER_SWAPPED);
    const reel_fs_pack pack = r.open(image);
    auto find = [&](uint32_t kind, const char* name) {
        uint32_t size = 12345;
        const uint8_t* p = reel_fs_find_file(&pack, kind, name, &size);
        return p ? std::string((const char*)p, size) : "null " + std::to_string(size);
    };
    // the first of two with the same kind and name; a miss leaves the size alone; kinds are not cut to 16 bits
    EXPECT_EQ(find(3, "x") + " " + find(5, "x") + " " + find(3, "X"), "palette image upper");
    EXPECT_EQ(find(9, "x") + " " + find(3, "x ") + " " + find(3 + 65536, "x"), "null 12345 null 12345 null 12345");
}

TEST(reel_fs_death, damaged_packs_are_refused_naming_the_fault)
{
    const bytes good = make_pack("damage.rpk", three_inputs, BYTE_ORDER_NATIVE);
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
}

TEST(reel_fs_death, writer_failures)
{
    test_reader r;
    const std::string empty = test_temp_path("empty.rpk");
    write_text(empty, "");
    reel_fs_writer writer;
    reel_fs_pack_begin(&writer, BYTE_ORDER_NATIVE);
    EXPECT_FATAL(reel_fs_pack_add_file(&writer, &r.arena, 9, 0, "x", test_temp_path("missing.txt").c_str()),
                 "crash in reel_fs_pack_add_file .*\nfailed open \".*missing.txt\"\n$");
    EXPECT_FATAL(reel_fs_pack_add_file(&writer, &r.arena, 70000, 0, "x", empty.c_str()),
                 "kind 70000 of \"x\" does not fit 16 bits");
    EXPECT_FATAL(reel_fs_pack_end(&writer, test_temp_path("no/folder.rpk").c_str(), &r.arena),
                 "crash in reel_fs_pack_end .*\nfailed open \".*folder.rpk\"\n$");
}

// ---- the reel_pack tool ----

namespace {

// tests are built in <build>/tests, tools in <build>
std::string tool_path()
{
    return std::filesystem::canonical("/proc/self/exe").parent_path().parent_path().string() + "/reel_pack";
}

// Exit status and everything the tool printed.
std::pair<int, std::string> run_tool(const std::string& args)
{
    const tool_run_result r = tool_fixture_run(".", tool_path() + " " + args);
    return {r.status, r.out + r.err};
}

}  // namespace

// The reason goes to standard output on a line before the fatal message; the children send
// their standard output to standard error so that both can be matched.
TEST(reel_fs_death, empty_and_oversized_packs_say_why_they_cannot_be_read)
{
    const std::string empty = test_temp_path("nothing.rpk"), big = test_temp_path("big.rpk");
    write_text(empty, "");
    write_text(big, std::string(100, 'x'));
    reel_fs_pack pack;
    test_reader r;
    EXPECT_FATAL_OUT(reel_fs_open_file(&pack, empty.c_str(), &r.arena),
                     "^pack \".*nothing.rpk\" is empty\ncrash in reel_fs_open_file at src/reel_fs:[0-9]+\n"
                     "failed read \".*nothing.rpk\"\n$");
    alignas(32) static uint8_t small_memory[128];
    // 128 bytes left; 99; 108, which hold the pack but not the 12 bytes that align it to 32 first
    for (uint64_t used : {0, 29, 20}) {
        xmemarena small;
        xmemarena_init(&small, "small_arena", sizeof(small_memory), small_memory);
        xmemarena_push(&small, used);
        const uint64_t left = sizeof(small_memory) - used;
        if (left >= 100 + (32 - used % 32) % 32) {
            reel_fs_pack fits;
            EXPECT_FATAL((reel_fs_open_file(&fits, big.c_str(), &small), exit(0)), "not a pack file")
                << "a pack that fits reaches the reader";
            continue;
        }
        EXPECT_FATAL_OUT(reel_fs_open_file(&pack, big.c_str(), &small),
                         "^pack \".*big.rpk\" of 100 bytes does not fit the " + std::to_string(left) +
                         " bytes left in \"small_arena\"\n.*\ncrash in xmemarena_push at src/memarena:[0-9]+\n"
                         "arena is out of mem\n$")
            << used;
    }
}

TEST(reel_pack_tool, builds_and_lists_a_pack_from_a_manifest)
{
    ASSERT_TRUE(std::filesystem::exists(tool_path())) << "build the reel_pack target first";
    std::filesystem::create_directories(test_temp_path("assets/sub"));
    for (const auto& [name, text] : {std::pair{"sub/sunset.pal", "PAL"}, {"sequence.csv", "row\n"}, {"music.raw", "MUSIC"}})
        write_text(test_temp_path("assets/") + name, text);
    const std::string manifest = test_temp_path("assets/show.manifest");
    write_text(manifest,
               "# the show's first pack\n\n"
               "palette   sunset.pal    sub/sunset.pal\n"
               "9 sequence.csv sequence.csv 1   # text: one NUL after it\n"
               "  blob\tmusic\tmusic.raw\t0\n"
               "3 music sub/sunset.pal\n");
    const std::string native = test_temp_path("tool_native.rpk"), swapped = test_temp_path("tool_swapped.rpk");
    auto [status, out] = run_tool(manifest + " " + native);
    ASSERT_EQ(status, 0) << out;
    EXPECT_NE(out.find("node[sunset.pal] write data[116]\n"), std::string::npos) << out;
    ASSERT_EQ(run_tool("--swapped " + manifest + " " + swapped).first, 0);
    EXPECT_EQ(read_file(swapped)[3], 0xCD);
    // byte for byte what the writer makes of the same files
    EXPECT_EQ(read_file(native),
              make_pack("tool_expected.rpk",
                        {{3, "sunset.pal", "PAL", 0}, {9, "sequence.csv", "row\n", 1}, {8, "music", "MUSIC", 0},
                         {3, "music", "PAL", 0}},
                        BYTE_ORDER_NATIVE));

    const std::string listing = "index  kind                  name              offset        size\n"
                                "    0   3 palette            sunset.pal           116           3\n"
                                "    1   9 raw                sequence.csv         119           5\n"
                                "    2   8 blob               music                124           5\n"
                                "    3   3 palette            music                129           3\n";
    EXPECT_EQ(run_tool("--list " + native), std::make_pair(0, "\"" + native + "\": 4 entries, native byte order\n" + listing));
    EXPECT_EQ(run_tool("--list " + swapped).second, "\"" + swapped + "\": 4 entries, swapped byte order\n" + listing);
}

TEST(reel_pack_tool, bad_manifests_are_reported_with_their_line)
{
    ASSERT_TRUE(std::filesystem::exists(tool_path())) << "build the reel_pack target first";
    const std::string manifest = test_temp_path("bad.manifest");
    write_text(test_temp_path("present.bin"), "x");
    const std::pair<const char*, const char*> cases[] = {
        {"raw a present.bin\n# fine so far\nsprite b present.bin\n", ":3: unknown kind \"sprite\""},
        {"10 a present.bin\n", ":1: unknown kind \"10\""},
        {"\n\nraw a\n", ":3: expected KIND NAME PATH \\[EXTRA_BYTES\\]"},
        {"raw a present.bin -1\n", ":1: bad extra byte count \"-1\""},
        {"raw a absent.bin\n", ":1: cannot read \".*absent.bin\": No such file or directory"},
        {"raw a present.bin\nblob b present.bin\n9 a present.bin\n", ":3: \"a\" of kind raw is already on line 1"},
    };
    for (const auto& [text, message] : cases) {
        write_text(manifest, text);
        const auto [status, out] = run_tool(manifest + " " + test_temp_path("bad.rpk"));
        EXPECT_EQ(status, 1) << text;
        EXPECT_TRUE(testing::internal::RE::PartialMatch(out, testing::internal::RE(message))) << out;
    }
}
