// Death-test patterns: a text as a literal extended regular expression, and the whole fatal
// output of crash_in (its line with the function and module, then exactly the message); and the
// target and texture set-up the drawing tests share.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "n3d.h"

inline std::string test_literal(const std::string& text)
{
    std::string out;
    for (char c : text) {
        if (strchr("\\^$.|?*+()[]{}", c))
            out += '\\';
        out += c;
    }
    return out;
}

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
    t->log2_w = t->log2_h = t->min_log2_w = t->min_log2_h = 8;
    t->mips = mips;
    mips[0] = texels;
    if (format == N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555)
        t->colors_count = 256, t->shades_per_color = 32, t->palette = palette, t->shade_table = shades;
}

// Clears the pixels, the current coverage and the depth blocks.
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

// An arena over a 64-byte-aligned block pre-filled with 0xAB, so that zeroing shows.
struct test_arena {
    std::vector<uint8_t> memory;
    xmemarena arena;
    explicit test_arena(uint64_t capacity = 1u << 20) : memory(capacity + 64, 0xAB)
    {
        const uintptr_t aligned = ((uintptr_t)memory.data() + 63) & ~(uintptr_t)63;
        xmemarena_init(&arena, "test_arena", capacity, (void*)aligned);
    }
};

// A file in this program's own folder, removed at exit by the process that made it (not by
// death-test children).
inline std::string test_temp_path(const std::string& name)
{
    static struct folder {
        pid_t owner = getpid();
        std::string path = "/tmp/reel_test_" + std::to_string(owner);
        folder() { mkdir(path.c_str(), 0700); }
        ~folder()
        {
            if (getpid() == owner)
                std::filesystem::remove_all(path);
        }
    } f;
    return f.path + "/" + name;
}
