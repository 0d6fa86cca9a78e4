// reel_overlaygen: draws the pictures of the overlay effect examples in code, as a person would
// paint them: indexed PNGs over one shared 64-colour palette (a badge, four wave stencils, a
// disc mask, a ball, four progress-head frames) and an RGBA spiral for the stroke maker. The
// examples turn them into resources with reel_overlayprep and reel_strokeprep.
//
//   reel_overlaygen OUTDIR   (the folder is created)
//
// Palette plan: 0 transparent; 1 to 15 a warm gradient (the badge); 16 to 47 a ramp from black
// through blue to white (stars, the ball); 48 white, 49 cyan, 50 lime; 51 to 63 greys.
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "bitmap.h"
#include "overlay_prep.h"
#include "tool.h"

namespace {

constexpr uint32_t GEN_COLOURS = 64;
constexpr uint32_t GEN_W = 640, GEN_H = 480;
constexpr float GEN_PI = 3.14159265f;

struct gen_rgb {
    float r, g, b;
};

gen_rgb gen_mix(gen_rgb a, gen_rgb b, float t) { return {a.r + (b.r - a.r) * t, a.g + (b.g - a.g) * t, a.b + (b.b - a.b) * t}; }

void gen_palette(uint8_t* e)
{
    auto set = [&](uint32_t i, gen_rgb c) {
        e[i * 4 + 0] = (uint8_t)lroundf(c.r * 255.0f);
        e[i * 4 + 1] = (uint8_t)lroundf(c.g * 255.0f);
        e[i * 4 + 2] = (uint8_t)lroundf(c.b * 255.0f);
        e[i * 4 + 3] = 255;
    };
    memset(e, 0, GEN_COLOURS * 4);  // entry 0: transparent black
    for (uint32_t i = 1; i < 16; i++)
        set(i, gen_mix({0.55f, 0.05f, 0.1f}, {1.0f, 0.85f, 0.3f}, (float)(i - 1) / 14.0f));
    for (uint32_t i = 16; i < 48; i++) {
        const float t = (float)(i - 16) / 31.0f;
        set(i, t < 0.5f ? gen_mix({0, 0, 0}, {0.15f, 0.25f, 0.75f}, t * 2.0f)
                        : gen_mix({0.15f, 0.25f, 0.75f}, {1, 1, 1}, (t - 0.5f) * 2.0f));
    }
    set(48, {1, 1, 1});
    set(49, {0.3f, 0.95f, 1.0f});
    set(50, {0.6f, 1.0f, 0.2f});
    for (uint32_t i = 51; i < GEN_COLOURS; i++)
        set(i, gen_mix({0.2f, 0.2f, 0.2f}, {0.9f, 0.9f, 0.9f}, (float)(i - 51) / 12.0f));
}

struct gen_picture {
    std::vector<uint8_t> pixels;
    prep_index_picture p;
    gen_picture(uint32_t w, uint32_t h, uint8_t* palette) : pixels((size_t)w * h)
    {
        p = {w, h, pixels.data(), {0, GEN_COLOURS, palette}, 0};
    }
    uint8_t& at(uint32_t x, uint32_t y) { return pixels[(size_t)y * p.width + x]; }
};

const tool_info GEN_TOOL = {"reel_overlaygen", "usage: reel_overlaygen OUTDIR\n"
                                                "  draws the overlay examples' pictures into OUTDIR (created)\n"};

void gen_save(const gen_picture& g, const char* dir, const std::string& name, xmemarena* arena)
{
    char path[TOOL_PATH_MAX];
    tool_join_path(path, dir, name.c_str());
    const uint64_t mark = xmemarena_get_sp(arena);
    uint64_t bytes = 0;
    const uint8_t* png = prep_encode_indexed_png(&g.p, arena, &bytes);
    tool_write_file(path, png, bytes, nullptr, 0);
    xmemarena_set_sp(arena, mark);
}

// A rounded badge: a light rim, diagonal stripes of the warm gradient inside, transparent outside.
void gen_badge(gen_picture& g)
{
    const float w = (float)g.p.width, h = (float)g.p.height, r = 28.0f;
    for (uint32_t y = 0; y < g.p.height; y++)
        for (uint32_t x = 0; x < g.p.width; x++) {
            const float px = (float)x + 0.5f, py = (float)y + 0.5f;
            const float dx = fmaxf(fmaxf(r - px, px - (w - r)), 0.0f), dy = fmaxf(fmaxf(r - py, py - (h - r)), 0.0f);
            const float d = sqrtf(dx * dx + dy * dy);  // 0 inside the straight part, grows into the corners
            if (d > r)
                continue;
            const float edge = fminf(fminf(px, w - px), fminf(py, h - py));
            if (d > r - 5.0f || (d == 0.0f && edge < 5.0f))
                g.at(x, y) = 48;
            else
                g.at(x, y) = (uint8_t)(1 + ((uint32_t)((px + py) / 12.0f) % 15));
        }
}

}  // namespace

int main(int argc, char** argv)
{
    tool_begin(&GEN_TOOL, argc, argv);
    const char* dir = tool_one_operand(argc, argv, "output folder");
    tool_make_dir(dir);
    std::vector<uint8_t> memory(64u << 20);
    xmemarena arena;
    xmemarena_init(&arena, "reel_overlaygen", memory.size(), memory.data());
    uint8_t palette[GEN_COLOURS * 4];
    gen_palette(palette);

    gen_picture badge(224, 96, palette);
    gen_badge(badge);
    gen_save(badge, dir, "badge.png", &arena);

    for (uint32_t i = 0; i < 4; i++) {  // a sine band a quarter turn further each frame
        gen_picture wave(GEN_W, GEN_H, palette);
        for (uint32_t x = 0; x < GEN_W; x++) {
            const float c = 380.0f + 40.0f * sinf((float)x / GEN_W * 4.0f * GEN_PI + (float)i * GEN_PI / 2.0f);
            for (uint32_t y = 0; y < GEN_H; y++)
                wave.at(x, y) = fabsf((float)y - c) < 14.0f ? 1 : 0;
        }
        gen_save(wave, dir, "wave" + std::to_string(i) + ".png", &arena);
    }

    gen_picture mask(GEN_W, GEN_H, palette);
    for (uint32_t y = 0; y < GEN_H; y++)
        for (uint32_t x = 0; x < GEN_W; x++)
            mask.at(x, y) = hypotf((float)x - 320.0f, (float)y - 240.0f) < 130.0f ? 1 : 0;
    gen_save(mask, dir, "mask.png", &arena);

    gen_picture ball(128, 128, palette);
    for (uint32_t y = 0; y < 128; y++)
        for (uint32_t x = 0; x < 128; x++) {
            const float dx = ((float)x - 63.5f) / 60.0f, dy = ((float)y - 63.5f) / 60.0f, d2 = dx * dx + dy * dy;
            if (d2 >= 1.0f)
                continue;
            const float light = fmaxf(0.0f, -0.4f * dx - 0.5f * dy + 0.77f * sqrtf(1.0f - d2));
            ball.at(x, y) = (uint8_t)(17 + (uint32_t)fminf(30.0f, light * 31.0f));
        }
    gen_save(ball, dir, "ball.png", &arena);

    for (uint32_t f = 0; f < 4; f++) {  // a dot with a white wedge turning a quarter each frame
        gen_picture head(16, 16, palette);
        for (uint32_t y = 0; y < 16; y++)
            for (uint32_t x = 0; x < 16; x++) {
                const float dx = (float)x - 7.5f, dy = (float)y - 7.5f;
                if (dx * dx + dy * dy > 56.0f)
                    continue;
                const float a = atan2f(dy, dx) - (float)f * GEN_PI / 2.0f;
                head.at(x, y) = cosf(a) > 0.7f ? 48 : 49;
            }
        gen_save(head, dir, "head" + std::to_string(f) + ".png", &arena);
    }

    bitmap* spiral = bitmap_create(&arena, 256, 256, BITMAP_SRGB | BITMAP_CHANNELS_4);
    for (uint32_t y = 0; y < 256; y++)
        for (uint32_t x = 0; x < 256; x++) {
            const float dx = (float)x - 127.5f, dy = (float)y - 127.5f, r = sqrtf(dx * dx + dy * dy);
            const float turns = (atan2f(dy, dx) + GEN_PI) / (2.0f * GEN_PI);
            const float along = fmodf(r / 24.0f - turns + 10.0f, 1.0f);  // arms 24 pixels apart
            if (r < 120.0f && along < 0.35f)
                memset(bitmap_pixel(spiral, x, y), 255, 4);
        }
    char path[TOOL_PATH_MAX];
    tool_join_path(path, dir, "spiral.png");
    tool_save_png(spiral, path, &arena);
    return 0;
}
