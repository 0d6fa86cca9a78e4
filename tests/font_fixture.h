// Fonts written by hand for the tests of the font renderer and the greetings scene: glyphs from
// pictures of text rows, with storage the font keeps, so a test states each pixel and stencil
// bit it relies on.
#pragma once

#include <cstring>
#include <string>
#include <vector>

#include "reel.h"

// A glyph from rows of digits (its pixel values, '.' for 0) and rows of '#' / '.' (its stencil,
// which may differ from the pixels and is 32 bits wide per 32 columns).
struct test_glyph_spec {
    std::vector<std::string> pixels;
    std::vector<std::string> stencil;
    float x_offset, y_offset, advance;
};

struct test_font {
    reel_font font = {};
    std::vector<reel_glyph> glyphs;
    std::vector<std::vector<uint8_t>> pixel_storage;
    std::vector<std::vector<uint32_t>> stencil_storage;

    test_font(uint32_t first, const std::vector<test_glyph_spec>& specs)
        : glyphs(specs.size()), pixel_storage(specs.size()), stencil_storage(specs.size())
    {
        for (size_t i = 0; i < specs.size(); i++) {
            const test_glyph_spec& s = specs[i];
            reel_glyph& g = glyphs[i];
            memset((void*)&g, 0, sizeof(g));
            g.height = (uint32_t)s.pixels.size();
            g.width = g.height ? (uint32_t)s.pixels[0].size() : 0;
            g.x_offset = s.x_offset, g.y_offset = s.y_offset, g.advance = s.advance;
            for (const std::string& row : s.pixels)
                for (char c : row)
                    pixel_storage[i].push_back(c == '.' ? 0 : (uint8_t)(c - '0'));
            g.pixels = pixel_storage[i].data();
            g.stencil.width = (g.width + 31) / 32 * 32;
            g.stencil.height = g.height;
            stencil_storage[i].assign(g.stencil.width / 32 * g.height + 1, 0u);
            for (uint32_t y = 0; y < s.stencil.size(); y++)
                for (uint32_t x = 0; x < s.stencil[y].size(); x++)
                    if (s.stencil[y][x] == '#')
                        stencil_storage[i][(y * g.stencil.width + x) / 32] |= 0x80000000u >> (x % 32);
            g.stencil.bits = stencil_storage[i].data();
        }
        font.first = first;
        font.last = first + (uint32_t)specs.size() - 1;
        font.glyph_count = (uint32_t)specs.size();
        font.glyphs = glyphs.data();
    }
    test_font(const test_font&) = delete;
};
