// Mesh, texture and coverage-mask blocks: sizes, round trips in both orders, file reads, damage.
#include "n3d_io.h"
#include "test_fatal.h"

namespace {
void write_bytes(const std::string& path, const std::vector<uint8_t>& bytes)
{
    FILE* f = fopen(path.c_str(), "wb");
    ASSERT_TRUE(f && fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size() && fclose(f) == 0);
}

// Blocks as their writers make them, after the byte-order marker.
auto mesh_file(const n3d_vertices* v, int o) { return test_block(v, o, n3d_vertices_write_size, n3d_vertices_write); }
auto texture_file(const n3d_texture* t, int o) { return test_block(t, o, n3d_texture_write_size, n3d_texture_write); }
auto coverage_file(const n3d_coverage_buffer* c, int32_t o)
{
    return test_block(c, o, n3d_coverage_buffer_write_size, n3d_coverage_buffer_write);
}

// A copy of the file on a 32-byte boundary, with the cursor past its marker.
stream_cursor cursor_over(xmemarena* a, const std::vector<uint8_t>& file)
{
    auto* copy = (uint8_t*)xmemarena_push_align(a, file.size(), 32);
    memcpy(copy, file.data(), file.size());
    stream_cursor cur;
    stream_cursor_init(&cur, copy, file.size(), BYTE_ORDER_NATIVE, "test.bin");
    stream_cursor_read_marker(&cur);
    return cur;
}

struct mesh_storage { std::vector<float> floats; std::vector<uint8_t> joints; n3d_vertices v{}; };

// count vertices with the arrays in `mask`, every value distinct
void make_mesh(mesh_storage* m, uint32_t mask, uint32_t count)
{
    m->floats.resize(count * 22);
    m->joints.resize(count * 4);
    for (size_t i = 0; i < m->floats.size(); i++)
        m->floats[i] = 0.25f * (float)i - 3.0f;
    for (size_t i = 0; i < m->joints.size(); i++)
        m->joints[i] = (uint8_t)(i * 3 + 1);
    m->v = {count, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};
    float** arrays[] = {&m->v.xyz, &m->v.uv0, &m->v.n_xyz, &m->v.t_xyz, &m->v.b_xyz, &m->v.uv1};
    for (uint32_t i = 0; i < 6; i++)
        if (mask & (1u << i))
            *arrays[i] = m->floats.data() + i * count * 3;
    m->v.joints = (mask & N3D_VERTICES_JOINTS) ? m->joints.data() : nullptr;
    m->v.weights = (mask & N3D_VERTICES_WEIGHTS) ? m->floats.data() + 18 * count : nullptr;
}

struct texture_storage {  // u32 storage keeps u16 and u32 views aligned
    std::vector<uint32_t> tables;
    std::vector<std::vector<uint32_t>> levels;
    std::vector<void*> mips;
    n3d_texture t{};
};

// A texture whose palette, shade table and levels hold distinct byte patterns.
void make_texture(texture_storage* s, uint32_t format, uint32_t linear, uint32_t lw, uint32_t lh, uint32_t mw,
                  uint32_t mh)
{
    n3d_texture& t = s->t;
    const bool indexed = format == 1 || format == 3;
    t = {format, linear, lw, lh, mw, mh, nullptr, indexed ? 256u : 0u, indexed ? 32u : 0u, nullptr, nullptr};
    if (indexed) {
        const uint32_t entry = format == 1 ? 2 : 1;
        s->tables.resize(256 * 33 * entry / 4 + 1);
        auto* bytes = (uint8_t*)s->tables.data();
        for (uint32_t i = 0; i < 256 * 33 * entry; i++)
            bytes[i] = (uint8_t)(i * 5 + i / 256);
        t.palette = bytes;
        t.shade_table = bytes + 256 * entry;
    }
    s->mips.assign(n3d_mip_slot_count(lw, lh, mw, mh), nullptr);
    for (uint32_t w = lw + 1; w-- > mw;)
        for (uint32_t h = lh + 1; h-- > mh;) {
            const uint32_t size = n3d_mipmap_size(format, !linear, w, h);
            s->levels.emplace_back(size / 4 + 1);
            auto* bytes = (uint8_t*)s->levels.back().data();
            for (uint32_t i = 0; i < size; i++)
                bytes[i] = (uint8_t)(i * 7 + w * 31 + h * 17);
            s->mips[n3d_mip_slot(&t, w, h)] = bytes;
        }
    t.mips = s->mips.data();
}

bool points_into(const void* p, const stream_cursor& c) { return p >= c.begin && p < c.end; }
}  // namespace

TEST(n3d_io, mesh_flags_sizes_and_file_round_trip_in_both_orders_and_whole_file_reads)
{
    struct { uint32_t mask, count; size_t file_size; uint32_t flags; } cases[] = {
        {63, 3, 204, 0}, {1, 3, 48, 1}, {127, 3, 4 + 8 + 3 * 68, 127}, {255, 2, 4 + 8 + 2 * 84, 255}};
    for (const auto& c : cases)
        for (int32_t order : {BYTE_ORDER_NATIVE, BYTE_ORDER_SWAPPED}) {
            mesh_storage m;
            make_mesh(&m, c.mask, c.count);
            const std::vector<uint8_t> file = mesh_file(&m.v, order);
            ASSERT_EQ(file.size(), c.file_size);
            uint32_t flags;
            stream_read_u32(&flags, file.data() + 4, order);
            EXPECT_EQ(flags, c.flags);
            const std::string path = test_temp_path("round.mesh");
            write_bytes(path, file);
            test_arena a;
            testing::internal::CaptureStdout();
            n3d_vertices* v = n3d_mesh_file_load(&a.arena, path.c_str());
            EXPECT_EQ(testing::internal::GetCapturedStdout(), path + " -> vertices: " + std::to_string(c.count) + "\n");
            ASSERT_NE(v, nullptr);
            const void* arrays[] = {v->xyz, v->uv0, v->n_xyz, v->t_xyz, v->b_xyz, v->uv1, v->joints, v->weights};
            for (const void* array : arrays)  // which arrays exist shows in the rewrite's flags
                EXPECT_EQ((uintptr_t)array % 32, 0u);
            EXPECT_EQ(mesh_file(v, order), file);
            EXPECT_EQ(mesh_file(v, BYTE_ORDER_NATIVE), mesh_file(&m.v, BYTE_ORDER_NATIVE));
        }
    // whole-file reads: a missing file, a written one, a prefix longer than the file
    const std::string missing = test_temp_path("missing.bin");
    testing::internal::CaptureStdout();
    test_arena a;
    EXPECT_EQ(n3d_texture_file_load(&a.arena, missing.c_str()), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              missing + ": No such file or directory\nfopen failed, path: " + missing + "\n");
    EXPECT_EQ(a.arena.sp, 0u);

    const std::string path = test_temp_path("five.bin");
    const uint8_t five[] = {'h', 'e', 'l', 'l', 'o'};  // after the 4-byte marker: 9 bytes
    testing::internal::CaptureStdout();
    ASSERT_EQ(n3d_io_write_file(path.c_str(), five, five + 5, BYTE_ORDER_SWAPPED), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "wrote 5 bytes to \"" + path + "\"\n");
    EXPECT_EQ(n3d_io_get_endian_from_file(path.c_str()), BYTE_ORDER_SWAPPED);
    uint8_t head[10];
    testing::internal::CaptureStderr();
    EXPECT_EQ(file_read_prefix(head, path.c_str(), 10), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "file size 9 is smaller than n = 10 bytes to be read!\n");
}

TEST(n3d_io, texture_and_coverage_mask_round_trips_byte_for_byte_in_every_layout_and_order)
{
    struct { uint32_t format, linear, lw, lh, mw, mh; } cases[] = {
        {1, 0, 4, 3, 2, 2}, {1, 1, 3, 3, 3, 3}, {2, 0, 5, 2, 5, 2}, {2, 1, 4, 4, 2, 2},
        {3, 0, 3, 5, 3, 5}, {3, 1, 5, 3, 2, 2}, {4, 1, 3, 2, 3, 2}, {4, 1, 4, 3, 2, 2}};
    for (const auto& c : cases) {
        texture_storage s;
        make_texture(&s, c.format, c.linear, c.lw, c.lh, c.mw, c.mh);
        for (int32_t order : {BYTE_ORDER_NATIVE, BYTE_ORDER_SWAPPED})
            for (uint32_t in_place : {0u, 1u}) {
                SCOPED_TRACE(testing::Message() << c.format << c.linear << " order " << order << " in place "
                                                << in_place);
                test_arena a;
                const std::vector<uint8_t> file = texture_file(&s.t, order);
                stream_cursor cur = cursor_over(&a.arena, file);
                n3d_texture t;
                EXPECT_EQ(n3d_texture_read(&a.arena, &t, &cur, in_place), cur.end);
                EXPECT_EQ(texture_file(&t, order), file);
                // the same content as the original, not just a symmetric mistake of both ways
                EXPECT_EQ(texture_file(&t, BYTE_ORDER_NATIVE), texture_file(&s.t, BYTE_ORDER_NATIVE));
                // in place only for a block in the machine's order; bytes and u16 here are aligned
                const bool inside = points_into(t.mips[0], cur);
                EXPECT_EQ(inside, in_place && order == BYTE_ORDER_NATIVE && c.format != 4);
                EXPECT_TRUE(!t.palette || points_into(t.palette, cur) == inside);
            }
    }

    uint32_t bits[4] = {0x80000001u, 0x12345678u, 0xFFFF0000u, 0x0000FFFFu};
    const n3d_coverage_buffer cb = {bits, 64, 2};
    for (int32_t order : {BYTE_ORDER_NATIVE, BYTE_ORDER_SWAPPED}) {
        const std::vector<uint8_t> file = coverage_file(&cb, order);
        ASSERT_EQ(file.size(), 4u + 8u + 16u);
        test_arena a;
        stream_cursor cur = cursor_over(&a.arena, file);
        n3d_coverage_buffer out;
        EXPECT_EQ(n3d_coverage_buffer_read(&a.arena, &out, &cur), cur.end);
        EXPECT_TRUE(out.width == 64 && out.height == 2 && memcmp(out.bits, bits, 16) == 0);
        EXPECT_EQ(coverage_file(&out, order), file);
    }
}

TEST(n3d_io_death, bad_markers_trailing_bytes_and_texture_headers)
{
    mesh_storage m;
    make_mesh(&m, 1, 3);
    std::vector<uint8_t> file = mesh_file(&m.v, BYTE_ORDER_NATIVE);
    const std::string path = test_temp_path("bad.mesh");
    test_arena a;
    file.push_back(0);
    write_bytes(path, file);
    EXPECT_FATAL(n3d_mesh_file_load(&a.arena, path.c_str()),
                 "bad.mesh: 1 unexpected bytes after the block at offset 48\n$");
    file[0] ^= 0x10;
    write_bytes(path, file);
    EXPECT_FATAL(n3d_mesh_file_load(&a.arena, path.c_str()),
                 test_fatal("n3d_mesh_file_load", "src/n3d_io", "invalid endian marker?\n"));
    auto read_header = [](std::vector<uint8_t> bytes) {  // after the marker, and 64 zero bytes
        bytes.insert(bytes.begin(), {0xCD, 0xAB, 0, 0});
        bytes.resize(bytes.size() + 64);
        test_arena arena;
        stream_cursor cur = cursor_over(&arena.arena, bytes);
        n3d_texture t;
        n3d_texture_read(&arena.arena, &t, &cur, 1);
    };
    const struct { std::vector<uint8_t> fields; const char* message; } cases[] = {
        {{0, 1, 2, 2, 2, 2}, "crash in n3d_texture_read at src/n3d_io:[0-9]+\nnot implemented\n$"},
        {{4, 0, 2, 2, 2, 2}, "[0-9]\nnot implemented texture format 4\n$"},
        {{2, 2, 2, 2, 2, 2}, "linear flag 2 is neither 0 nor 1"},
        {{2, 0, 9, 2, 9, 2}, "bad log2 sizes 9 x 2 down to 9 x 2 \\(swizzled textures: at most 8"},
        {{2, 1, 3, 3, 2, 4}, "bad log2 sizes 3 x 3 down to 2 x 4"},
        {{1, 0, 2, 2, 2, 2, 0x2C, 0x01, 32, 0}, "palette of 300 colors x 32 shades \\(needs 256 x 32\\)"},
    };
    for (const auto& c : cases)
        EXPECT_FATAL(read_header(c.fields), c.message);
}
