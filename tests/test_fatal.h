// Shared test helpers: death-test patterns (a text as a literal regular expression, crash_in's whole
// output), the drawing tests' target and textures, arenas, written records, packs and temporary files.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <vector>
#include "n3d.h"
#include "reel_fs.h"

inline std::string test_literal(const std::string& text)
{
    std::string out;
    for (char c : text)
        out += strchr("\\^$.|?*+()[]{}", c) ? std::string("\\") + c : std::string(1, c);
    return out;
}
// A fatal end: exit status 1 with standard error matching `regex`. The _OUT form first sends standard
// output to standard error, for messages printed there or a detail line before the fatal text (in order).
#define EXPECT_FATAL(statement, regex) EXPECT_EXIT(statement, testing::ExitedWithCode(1), regex)
#define EXPECT_FATAL_OUT(statement, regex) \
    EXPECT_EXIT((fflush(stdout), dup2(fileno(stderr), fileno(stdout)), statement), testing::ExitedWithCode(1), regex)
// `tail` is a pattern matched after the message (text a test prints at exit, say).
inline std::string test_fatal(const char* function, const char* module, const std::string& message,
                              const char* tail = "")
{
    return std::string("^crash in ") + function + " at " + module + ":[0-9]+\n" + test_literal(message) + tail + "$";
}

// A 256 x 256 texture of one level at `texels`; an 8-bit one shows through palette and shades.
inline void test_texture_256(n3d_texture* t, uint32_t format, void** mips, void* texels, uint16_t* palette,
                             uint16_t* shades)
{
    memset(t, 0, sizeof(*t));
    t->format = format;
    t->mips = mips;
    mips[0] = texels;
    t->log2_w = t->log2_h = t->min_log2_w = t->min_log2_h = 8;
    if (format == N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555)
        t->colors_count = 256, t->shades_per_color = 32, t->palette = palette, t->shade_table = shades;
}
// Clears the pixels, the current coverage and the depth blocks; reads a pixel of a 16-bit target.
inline void test_clear_target(n3d_framecontext* fc)
{
    n3d_framebuffer_clear(fc->framebuffer);
    n3d_coverage_buffer_clear(fc->coverage[0]);
    n3d_zbuffer_clear(fc->zbuffer);
}
inline uint16_t test_pixel16(const n3d_framecontext* fc, int x, int y)
{
    return ((const uint16_t*)(fc->framebuffer->pixels + y * fc->framebuffer->row_bytes))[x];
}
// The unit half vector between the directions from p to the light and from p to the camera.
inline void test_half_vector(double h[3], const float p[3], const float light[3], const float camera[3])
{
    double l[3], c[3], ll = 0, cl = 0, hl = 0;
    for (int k = 0; k < 3; k++)
        l[k] = light[k] - p[k], c[k] = camera[k] - p[k], ll += l[k] * l[k], cl += c[k] * c[k];
    for (int k = 0; k < 3; k++)
        h[k] = l[k] / std::sqrt(ll) + c[k] / std::sqrt(cl), hl += h[k] * h[k];
    for (int k = 0; k < 3; k++)
        h[k] /= std::sqrt(hl);
}

// An arena over a 64-byte-aligned block pre-filled with 0xAB, so that zeroing shows.
struct test_arena {
    std::vector<uint8_t> memory;
    xmemarena arena;
    explicit test_arena(uint64_t capacity = 1u << 20) : memory(capacity + 64, 0xAB)
    {
        xmemarena_init(&arena, "test_arena", capacity, (void*)(((uintptr_t)memory.data() + 63) & ~(uintptr_t)63));
    }
};

// A record as its writer makes it, after the byte-order marker unless `marker` is false.
template <class R>
std::vector<uint8_t> test_block(const R* r, int32_t order, uint64_t (*size)(const R*),
                                uint8_t* (*write)(uint8_t*, const R*, int32_t), bool marker = true)
{
    std::vector<uint8_t> b((marker ? 4 : 0) + size(r));
    uint8_t* p = marker ? stream_write_u32(b.data(), BYTE_ORDER_MARKER, order) : b.data();
    EXPECT_EQ(write(p, r, order), b.data() + b.size());
    return b;
}

// A file in this program's own folder, removed at exit by the process that made it (not its children).
inline std::string test_temp_path(const std::string& name)
{
    static struct folder {
        pid_t owner = getpid();
        std::string path = "/tmp/reel_test_" + std::to_string(owner);
        folder() { std::filesystem::create_directory(path); }
        ~folder() { getpid() == owner ? (void)std::filesystem::remove_all(path) : (void)0; }
    } f;
    return f.path + "/" + name;
}

// A pack entry: its contents, as text or as bytes, and the zero bytes the writer adds after them.
struct test_pack_input {
    uint32_t kind, extra = 0;
    std::string name, contents;
    test_pack_input(uint32_t k, std::string n, std::string c, uint32_t e = 0) : kind(k), extra(e), name(n), contents(c)
    {
    }
    test_pack_input(uint32_t k, std::string n, const std::vector<uint8_t>& c, uint32_t e = 0)
        : test_pack_input(k, n, std::string(c.begin(), c.end()), e) {}
};

// Writes each input to a file beside `path` and packs them there with the pack writer.
inline void test_write_pack(const std::string& path, const std::vector<test_pack_input>& inputs, int32_t order)
{
    static test_arena writer_memory(1u << 20);
    xmemarena_reset(&writer_memory.arena);
    reel_fs_writer writer;
    reel_fs_pack_begin(&writer, order);
    for (const test_pack_input& in : inputs) {
        const std::string file = path + ".in" + std::to_string(&in - inputs.data());
        std::ofstream(file, std::ios::binary) << in.contents;
        reel_fs_pack_add_file(&writer, &writer_memory.arena, in.kind, in.extra, in.name.c_str(), file.c_str());
    }
    testing::internal::CaptureStdout();  // the writer reports every block it writes
    reel_fs_pack_end(&writer, path.c_str(), &writer_memory.arena);
    testing::internal::GetCapturedStdout();
}
