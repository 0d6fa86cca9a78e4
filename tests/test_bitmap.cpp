// The image library: the pixel decode rule per encoding, whole-image decode against the pixel
// decode, conversion, filtered downscaling in linear premultiplied light, PNG files and the flare.
#include "bitmap.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

namespace {

struct bitmap_arena {
    std::vector<uint8_t> block;
    xmemarena arena;
    explicit bitmap_arena(uint64_t capacity) : block(capacity)
    {
        xmemarena_init(&arena, "test_bitmap", capacity, block.data());
    }
};

std::string bitmap_test_path(const char* name) { return testing::TempDir() + "reel_test_bitmap_" + name; }

}  // namespace

TEST(bitmap, create_sets_row_bytes_from_the_channel_flag_and_zeroes_pixels)
{
    bitmap_arena a(1 << 16);
    const uint32_t flags[4] = {BITMAP_CHANNELS_1, BITMAP_CHANNELS_2, BITMAP_CHANNELS_3, BITMAP_CHANNELS_4};
    for (uint32_t i = 0; i < 4; ++i) {
        bitmap* bm = bitmap_create(&a.arena, 7, 3, BITMAP_SRGB | flags[i]);
        EXPECT_EQ(bm->row_bytes, 7 * (i + 1));
        EXPECT_EQ(bm->width, 7u);
        EXPECT_EQ(bm->height, 3u);
        EXPECT_EQ(bitmap_pixel(bm, 2, 1), bm->pixels + bm->row_bytes + 2 * (i + 1));
        for (uint32_t b = 0; b < bm->row_bytes * bm->height; ++b)
            ASSERT_EQ(bm->pixels[b], 0);
    }
}

TEST(bitmap, decode_follows_the_encoding_flags)
{
    const uint8_t p[4] = {255, 128, 0, 128};
    const double a = 128 / 255.0;
    vec4 v;
    bitmap_decode_pixel(v, p, BITMAP_CHANNELS_4);  // straight, linear: multiply by alpha
    EXPECT_FLOAT_EQ(v[0], (float)a);
    EXPECT_FLOAT_EQ(v[1], (float)(a * a));
    EXPECT_EQ(v[2], 0.0f);
    EXPECT_FLOAT_EQ(v[3], (float)a);
    bitmap_decode_pixel(v, p, BITMAP_SRGB | BITMAP_CHANNELS_4);
    EXPECT_FLOAT_EQ(v[0], (float)a);
    EXPECT_FLOAT_EQ(v[1], (float)(srgb_to_linear(a) * a));
    bitmap_decode_pixel(v, p, BITMAP_PREMULTIPLIED | BITMAP_CHANNELS_4);  // taken as it is
    EXPECT_FLOAT_EQ(v[0], 1.0f);
    EXPECT_FLOAT_EQ(v[1], (float)a);
    // premultiplied sRGB: un-premultiply (clamped), decode, premultiply again
    bitmap_decode_pixel(v, p, BITMAP_SRGB | BITMAP_PREMULTIPLIED | BITMAP_CHANNELS_4);
    EXPECT_FLOAT_EQ(v[0], (float)a);
    EXPECT_FLOAT_EQ(v[1], (float)a);
    const uint8_t clear[4] = {90, 90, 90, 0};
    bitmap_decode_pixel(v, clear, BITMAP_SRGB | BITMAP_PREMULTIPLIED | BITMAP_CHANNELS_4);
    EXPECT_EQ(v[0], 0.0f);
    EXPECT_EQ(v[3], 0.0f);
    // missing colours are 0, missing alpha is 1
    const uint8_t red[1] = {255};
    bitmap_decode_pixel(v, red, BITMAP_SRGB | BITMAP_CHANNELS_1);
    EXPECT_EQ(v[0], 1.0f);
    EXPECT_EQ(v[1], 0.0f);
    EXPECT_EQ(v[2], 0.0f);
    EXPECT_EQ(v[3], 1.0f);
}

TEST(bitmap, encode_inverts_decode_for_every_byte)
{
    const uint32_t encodings[4] = {0, BITMAP_SRGB, BITMAP_PREMULTIPLIED, BITMAP_SRGB | BITMAP_PREMULTIPLIED};
    for (uint32_t e : encodings) {
        for (int i = 0; i < 256; ++i) {
            const uint8_t p[4] = {(uint8_t)i, (uint8_t)(255 - i), (uint8_t)(i / 2), 255};
            vec4 v;
            uint8_t back[4];
            bitmap_decode_pixel(v, p, e | BITMAP_CHANNELS_4);
            bitmap_encode_pixel(back, e | BITMAP_CHANNELS_4, v);
            for (int c = 0; c < 4; ++c)
                ASSERT_EQ(back[c], p[c]) << "flags " << e << " byte " << i << " channel " << c;
        }
    }
    // straight alpha survives whatever the colour: transparent pixels encode colour 0
    const vec4 clear = {0.3f, 0.3f, 0.3f, 0.0f};
    uint8_t out[4];
    bitmap_encode_pixel(out, BITMAP_SRGB | BITMAP_CHANNELS_4, clear);
    EXPECT_EQ(out[0], 0);
    EXPECT_EQ(out[3], 0);
}

TEST(bitmap, whole_image_decode_equals_the_pixel_decode)
{
    bitmap_arena a(1 << 20);
    const uint32_t flag_sets[5] = {BITMAP_SRGB | BITMAP_CHANNELS_4, BITMAP_SRGB | BITMAP_CHANNELS_3,
                                   BITMAP_SRGB | BITMAP_CHANNELS_2, BITMAP_CHANNELS_4,
                                   BITMAP_SRGB | BITMAP_PREMULTIPLIED | BITMAP_CHANNELS_4};
    for (uint32_t flags : flag_sets) {
        bitmap* bm = bitmap_create(&a.arena, 16, 16, flags);
        for (uint32_t b = 0; b < bm->row_bytes * bm->height; ++b)
            bm->pixels[b] = (uint8_t)(b * 37 + 11);
        std::vector<float> all(16 * 16 * 4);
        bitmap_decode(bm, all.data());
        for (uint32_t y = 0; y < 16; ++y)
            for (uint32_t x = 0; x < 16; ++x) {
                vec4 v;
                bitmap_decode_pixel(v, bitmap_pixel(bm, x, y), flags);
                for (int c = 0; c < 4; ++c)
                    ASSERT_EQ(all[(y * 16 + x) * 4 + c], v[c]) << "flags " << flags;
            }
    }
}

TEST(bitmap, convert_between_channel_counts_and_encodings)
{
    bitmap_arena a(1 << 16);
    bitmap* rgba = bitmap_create(&a.arena, 2, 1, BITMAP_SRGB | BITMAP_CHANNELS_4);
    const uint8_t px[8] = {200, 100, 50, 255, 10, 20, 30, 255};
    for (int i = 0; i < 8; ++i)
        rgba->pixels[i] = px[i];
    bitmap* red = bitmap_create(&a.arena, 2, 1, BITMAP_SRGB | BITMAP_CHANNELS_1);
    bitmap_convert(red, rgba);
    EXPECT_EQ(red->pixels[0], 200);
    EXPECT_EQ(red->pixels[1], 10);
    bitmap* back = bitmap_create(&a.arena, 2, 1, BITMAP_SRGB | BITMAP_CHANNELS_4);
    bitmap_convert(back, red);
    const uint8_t want[8] = {200, 0, 0, 255, 10, 0, 0, 255};
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(back->pixels[i], want[i]) << i;
    // sRGB to linear bytes
    bitmap* lin = bitmap_create(&a.arena, 2, 1, BITMAP_CHANNELS_3);
    bitmap_convert(lin, rgba);
    EXPECT_EQ(lin->pixels[0], (uint8_t)lround(255.0 * srgb_to_linear(200 / 255.0)));
    // same flags: a row copy that honours both row strides
    bitmap wide = *rgba;
    wide.row_bytes = 64;
    wide.pixels = (uint8_t*)xmemarena_push_zero(&a.arena, 64);
    bitmap_convert(&wide, rgba);
    EXPECT_EQ(wide.pixels[4], 10);
}

TEST(bitmap, downscale_keeps_a_constant_image_constant)
{
    bitmap_arena a(4 << 20);
    bitmap* src = bitmap_create(&a.arena, 64, 32, BITMAP_SRGB | BITMAP_CHANNELS_4);
    for (uint32_t y = 0; y < 32; ++y)
        for (uint32_t x = 0; x < 64; ++x) {
            uint8_t* p = bitmap_pixel(src, x, y);
            p[0] = 10, p[1] = 200, p[2] = 77, p[3] = 128;
        }
    for (uint32_t kind = BITMAP_FILTER_BOX; kind <= BITMAP_FILTER_LANCZOS; ++kind) {
        const uint32_t sizes[3][2] = {{16, 8}, {1, 32}, {4, 4}};
        for (auto& s : sizes) {
            const uint64_t sp = a.arena.sp;
            bitmap* dst = bitmap_create(&a.arena, s[0], s[1], BITMAP_SRGB | BITMAP_CHANNELS_4);
            const uint64_t scratch_mark = a.arena.sp;
            bitmap_downscale(dst, src, kind, &a.arena);
            ASSERT_EQ(a.arena.sp, scratch_mark);  // scratch given back
            for (uint32_t y = 0; y < dst->height; ++y)
                for (uint32_t x = 0; x < dst->width; ++x) {
                    const uint8_t* p = bitmap_pixel(dst, x, y);
                    ASSERT_EQ(p[0], 10);
                    ASSERT_EQ(p[1], 200);
                    ASSERT_EQ(p[2], 77);
                    ASSERT_EQ(p[3], 128) << "kind " << kind << " at " << x << "," << y;
                }
            a.arena.sp = sp;
        }
    }
}

TEST(bitmap, downscale_averages_in_linear_premultiplied_light)
{
    bitmap_arena a(4 << 20);
    bitmap* checker = bitmap_create(&a.arena, 8, 8, BITMAP_SRGB | BITMAP_CHANNELS_4);
    // red opaque beside transparent green: premultiplied filtering must not bleed the green
    bitmap* fringe = bitmap_create(&a.arena, 8, 8, BITMAP_SRGB | BITMAP_CHANNELS_4);
    for (uint32_t y = 0; y < 8; ++y)
        for (uint32_t x = 0; x < 8; ++x) {
            const uint8_t on = ((x + y) & 1) ? 255 : 0;
            uint8_t* p = bitmap_pixel(checker, x, y);
            p[0] = p[1] = p[2] = on, p[3] = 255;
            uint8_t* q = bitmap_pixel(fringe, x, y);
            q[0] = on, q[1] = 255 - on, q[2] = 0, q[3] = on;
        }
    const vec4 half = {0.5f, 0.5f, 0.5f, 1.0f};
    uint8_t grey[4];
    bitmap_encode_pixel(grey, BITMAP_SRGB | BITMAP_CHANNELS_4, half);
    EXPECT_GT(grey[0], 180);  // mid grey in linear light, not the 128 of averaging sRGB bytes
    for (uint32_t kind = BITMAP_FILTER_BOX; kind <= BITMAP_FILTER_LANCZOS; ++kind) {
        bitmap* dst = bitmap_create(&a.arena, 4, 4, BITMAP_SRGB | BITMAP_CHANNELS_4);
        bitmap_downscale(dst, checker, kind, &a.arena);
        bitmap* red = bitmap_create(&a.arena, 4, 4, BITMAP_SRGB | BITMAP_CHANNELS_4);
        bitmap_downscale(red, fringe, kind, &a.arena);
        for (uint32_t y = 0; y < 4; ++y)
            for (uint32_t x = 0; x < 4; ++x) {
                for (int c = 0; c < 4; ++c)
                    ASSERT_EQ(bitmap_pixel(dst, x, y)[c], grey[c]) << "kind " << kind << " channel " << c;
                const uint8_t* q = bitmap_pixel(red, x, y);
                ASSERT_EQ(q[0], 255);
                ASSERT_EQ(q[1], 0);
                ASSERT_EQ(q[3], 128);
            }
    }
}

TEST(bitmap, png_round_trip_through_a_file)
{
    bitmap_arena a(1 << 20);
    bitmap* rgba = bitmap_create(&a.arena, 5, 3, BITMAP_SRGB | BITMAP_CHANNELS_4);
    for (uint32_t b = 0; b < 5 * 3 * 4; ++b)
        rgba->pixels[b] = (uint8_t)(b * 17 + 3);
    const std::string path = bitmap_test_path("rgba.png");
    ASSERT_EQ(bitmap_save_png(rgba, path.c_str(), &a.arena), 1u);
    bitmap* loaded = bitmap_load_png(&a.arena, path.c_str(), 0);
    ASSERT_NE(loaded, nullptr);
    EXPECT_EQ(loaded->flags, BITMAP_SRGB | BITMAP_CHANNELS_4);
    EXPECT_EQ(loaded->width, 5u);
    EXPECT_EQ(loaded->height, 3u);
    for (uint32_t b = 0; b < 5 * 3 * 4; ++b)
        ASSERT_EQ(loaded->pixels[b], rgba->pixels[b]) << b;
    bitmap* rgb = bitmap_load_png(&a.arena, path.c_str(), 3);
    ASSERT_NE(rgb, nullptr);
    EXPECT_EQ(rgb->flags, BITMAP_SRGB | BITMAP_CHANNELS_3);
    EXPECT_EQ(rgb->pixels[3], rgba->pixels[4]);

    // a one-channel bitmap is red, and is written as such
    bitmap* red = bitmap_create(&a.arena, 2, 2, BITMAP_SRGB | BITMAP_CHANNELS_1);
    red->pixels[3] = 99;
    const std::string red_path = bitmap_test_path("red.png");
    ASSERT_EQ(bitmap_save_png(red, red_path.c_str(), &a.arena), 1u);
    bitmap* red_back = bitmap_load_png(&a.arena, red_path.c_str(), 0);
    ASSERT_NE(red_back, nullptr);
    const uint8_t want[4] = {99, 0, 0, 255};
    for (int c = 0; c < 4; ++c)
        EXPECT_EQ(bitmap_pixel(red_back, 1, 1)[c], want[c]);
    remove(path.c_str());
    remove(red_path.c_str());
}

TEST(bitmap, loading_a_missing_or_broken_file_says_why_and_gives_null)
{
    bitmap_arena a(1 << 16);
    const std::string missing = bitmap_test_path("does_not_exist.png");
    testing::internal::CaptureStdout();
    EXPECT_EQ(bitmap_load_png(&a.arena, missing.c_str(), 0), nullptr);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out.rfind("bitmap_load_png: cannot load " + missing + ": ", 0), 0u) << out;

    const std::string broken = bitmap_test_path("broken.png");
    FILE* f = fopen(broken.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    fputs("\x89PNG\r\n\x1a\n not really", f);
    fclose(f);
    testing::internal::CaptureStdout();
    EXPECT_EQ(bitmap_load_png(&a.arena, broken.c_str(), 0), nullptr);
    out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out.rfind("bitmap_load_png: cannot load " + broken + ": ", 0), 0u) << out;
    EXPECT_EQ(a.arena.sp, 0u);
    remove(broken.c_str());
}

TEST(bitmap, flare_is_a_white_radial_falloff)
{
    bitmap_arena a(1 << 20);
    bitmap* flare = bitmap_create_flare(&a.arena);
    ASSERT_EQ(flare->width, BITMAP_FLARE_SIZE);
    ASSERT_EQ(flare->height, BITMAP_FLARE_SIZE);
    EXPECT_EQ(flare->flags, BITMAP_SRGB | BITMAP_CHANNELS_4);
    const uint32_t n = BITMAP_FLARE_SIZE;
    EXPECT_EQ(bitmap_pixel(flare, n / 2, n / 2)[3], 255);
    EXPECT_EQ(bitmap_pixel(flare, 0, 0)[3], 0);
    EXPECT_EQ(bitmap_pixel(flare, 0, n / 2)[3], 0);  // r is 1 at the middle of an edge
    // (1 - r^2)^4 at r = 0.5 (pixel centre 64.5 from the centre 128 is r = 63.5 / 128)
    const double r = 63.5 / 128.0;
    EXPECT_EQ(bitmap_pixel(flare, 64, n / 2)[3], (uint8_t)lround(255.0 * pow(1.0 - r * r, 4)));
    for (uint32_t y = 0; y < n; ++y)
        for (uint32_t x = 0; x < n; ++x) {
            const uint8_t* p = bitmap_pixel(flare, x, y);
            ASSERT_EQ(p[0], 255);
            ASSERT_EQ(p[1], 255);
            ASSERT_EQ(p[2], 255);
            ASSERT_EQ(p[3], bitmap_pixel(flare, n - 1 - x, y)[3]);
            ASSERT_EQ(p[3], bitmap_pixel(flare, y, x)[3]);
            if (x > 0 && x <= n / 2) {  // rising towards the centre
                ASSERT_GE(p[3], bitmap_pixel(flare, x - 1, y)[3]);
            }
        }
}

TEST(bitmap_death, broken_contracts_are_fatal)
{
    EXPECT_EXIT(
        {
            bitmap_arena a(1 << 10);
            bitmap_create(&a.arena, 4, 4, BITMAP_SRGB | BITMAP_CHANNELS_3 | BITMAP_CHANNELS_4);
        },
        testing::ExitedWithCode(1),
        "crash in bitmap_init at src/bitmap:[0-9]+\nbitmap flags 0xd need exactly one channel count\n");
    EXPECT_EXIT(
        {
            bitmap_arena a(1 << 10);
            bitmap* x = bitmap_create(&a.arena, 4, 4, BITMAP_CHANNELS_1);
            bitmap* y = bitmap_create(&a.arena, 4, 2, BITMAP_CHANNELS_1);
            bitmap_convert(y, x);
        },
        testing::ExitedWithCode(1), "crash in bitmap_convert at src/bitmap:[0-9]+\nsizes differ: 4x4 into 4x2\n");
    EXPECT_EXIT(
        {
            bitmap_arena a(1 << 10);
            bitmap* x = bitmap_create(&a.arena, 4, 4, BITMAP_CHANNELS_1);
            bitmap_downscale(x, x, 3, &a.arena);
        },
        testing::ExitedWithCode(1), "crash in bitmap_downscale at src/bitmap:[0-9]+\nunknown filter kind 3\n");
}
