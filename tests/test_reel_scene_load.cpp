// Scene loading: binding rows to the scene table by prefix, scene descriptions (the parser alone and
// through reel_load_scene with resources already in the cache), the argument parsers and colours.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "scene_fixture.h"

namespace {

// Each binding: its name in loading's messages, its need in the table, its count in the scene.
#define NEED(binding, count) {#binding, &reel_scene_needs::binding, &reel_scene::count}
const struct { const char* name; uint8_t reel_scene_needs::*need; uint32_t reel_scene::*count; } need_fields[] = {
    NEED(integers, integer_count), NEED(floats, float_count), NEED(palettes, palette_count),
    NEED(rle_images, rle_image_count), NEED(images, image_count), NEED(stencils, stencil_count),
    NEED(textures, texture_count), NEED(palette_animations, palette_animation_count), NEED(madpacks, madpack_count),
    NEED(colours, colour_count), NEED(fonts, font_count), NEED(blobs, blob_count)};
#undef NEED

// Counts as large as the needs, as if a description had bound them (loading reads no entries).
void grant_needs(reel_scene* s, const reel_scene_needs& n)
{
    for (const auto& field : need_fields)
        s->*field.count = n.*field.need;
}

// What ini_parse hands to its callbacks (a list of texts), checked for the NUL it promises
// while the call lasts.
void record_value(const char* key, uint32_t key_length, const char* value, uint32_t value_length, void* user)
{
    EXPECT_TRUE(key[key_length] == 0 && value[value_length] == 0);
    ((std::vector<std::string>*)user)->push_back(std::string(key) + "=" + value);
}

void record_item(const char* key, uint32_t key_length, const char* item, uint32_t length, uint32_t index,
                 uint32_t count, void* user)
{
    EXPECT_TRUE(key[key_length] == 0 && item[length] == 0);
    ((std::vector<std::string>*)user)->push_back(key + ("[" + std::to_string(index) + "/" + std::to_string(count) + "]=") + item);
}

std::vector<std::string> parse(const std::string& text)
{
    std::vector<char> buffer(text.c_str(), text.c_str() + text.size() + 1);  // with its NUL
    std::vector<std::string> calls;
    ini_parse(buffer.data(), "scene.ini", record_value, record_item, &calls);
    EXPECT_EQ(std::string(buffer.data()), text) << "the parser must put back every character it replaced";
    return calls;
}

}  // namespace

TEST(reel_scene_load, a_row_binds_to_the_first_table_row_its_function_name_begins_unless_already_loaded)
{
    // "music_s": both music_start and music_sync begin so, the earlier row wins; "overlay_clut_set"
    // is not overlay_clut_set1_pulsate, which comes later
    const struct { const char* function; const char* expected;
    } cases[] = {{"music_sync", "music_sync"},
                 {"music_s", "music_start"},
                 {"load", "load_sync"},
                 {"overlay_clut_set", "overlay_clut_set"},
                 {"overlay_clut_set1", "overlay_clut_set1_pulsate"},
                 {"video_cl", "video_clut_reset"},
                 {"video_clea", "video_clear"}};
    for (const auto& c : cases) {
        const reel_scene_binding& expected = reel_scene_table[scene_table_row(c.expected)];
        scene_engine f;
        f.load(c.function, nullptr, 9.0f, [&] { grant_needs(&f.scene, expected.needs); });
        EXPECT_TRUE(f.scene.run == expected.run && !strcmp(f.scene.name, c.function) && f.scene.loaded &&
                    f.scene.first_update && f.scene.first_render) << c.function;
    }
    scene_engine f;
    EXPECT_FATAL(f.load("music_stop", nullptr),
                 test_literal("crash in reel_load_scene at src/reel:") + "[0-9]+\n" +
                     test_literal("failed find binding for \"music_stop\" on line: 12\n"));
    // argument text goes to the scene's parser, and there must be one
    EXPECT_FATAL(
        f.load("video_clut_reset", "1"),
        test_literal("sequence args not supported for function \"video_clut_reset\" (line: 12 in sequence file)\n"));
    f.row.function = "music_sync";
    f.row.args = "22050";
    f.scene.integer_count = 99, f.scene.loaded = 1;  // a loaded scene is left as it is
    reel_load_scene(&f.engine, &f.scene, &f.row);
    EXPECT_EQ(f.scene.name, nullptr);
    f.scene.loaded = 0;
    reel_load_scene(&f.engine, &f.scene, &f.row);
    EXPECT_TRUE(f.scene.run == reel_scene_table[scene_table_row("music_sync")].run &&
                xmemarena_get_sp(f.engine.tmp_arena) == 0u && !strcmp(f.row.args, "22050"));
}

// Every scene that reads bindings, one entry short of one of them (a different one from row to row).
TEST(reel_scene_load, a_description_short_of_a_binding_the_scene_reads_is_fatal)
{
    static char nothing[] = "# binds nothing\n";
    uint32_t turn = 0;
    for (uint32_t t = 0; t < reel_scene_table_count; t++) {
        const reel_scene_binding& r = reel_scene_table[t];
        uint32_t asked = 0;
        for (const auto& field : need_fields)
            asked += r.needs.*field.need != 0;
        for (uint32_t pick = asked ? turn++ % asked : 0; const auto& field : need_fields) {
            const uint32_t need = r.needs.*field.need;
            if (need == 0 || pick-- != 0)
                continue;
            scene_engine f;
            f.add(REEL_KIND_RAW, "d.ini", nothing);
            reel_scene_needs one_short = r.needs;
            one_short.*field.need = (uint8_t)(need - 1);
            EXPECT_FATAL(f.load(r.name, "@d.ini", 9.0f, [&] { grant_needs(&f.scene, one_short); }),
                         test_literal("scene \"" + std::string(r.name) + "\" on line 12 reads " + std::to_string(need) +
                                      " " + field.name + ", it was given " + std::to_string(need - 1) + "\n"));
        }
    }
}

TEST(reel_scene_load, a_description_binds_names_numbers_and_resources)
{
    scene_engine f;
    std::string text = "# tunnel, first part\nscene_name = tunnel_a\ntextures = [ wall\tfloor # the two of them\n  ]\n"
                       "integers=[1 -2 3 ]\nfloats = [9 ]\nfloats = [0.5 2 ]  # replaces the first list\n"
                       "speed = fast\ncolors = [red ]\npal = [ripple ]\npalettes = [sky ]\n";
    std::vector<char> ini(text.c_str(), text.c_str() + text.size() + 1);
    n3d_texture wall = {}, floor = {};
    reel_palette sky = {};
    reel_palette_animation ripple = {};
    f.add(REEL_KIND_RAW, "tunnel_a.ini", ini.data());
    f.add(REEL_KIND_TEXTURE, "wall", &wall), f.add(REEL_KIND_TEXTURE, "floor", &floor);
    f.add(REEL_KIND_PALETTE, "sky", &sky), f.add(REEL_KIND_PALETTE_ANIMATION, "ripple", &ripple);
    testing::internal::CaptureStdout();
    f.load("music_sync", "@tunnel_a.ini");
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[speed]=[fast] - unhandled key value pair?\n[colors][0/1]=[red] - unhandled key array?\n"
              "[pal] - only a prefix of [palette_animations], bound as that key\n");
    const reel_scene& g = f.scene;
    EXPECT_EQ(std::vector<n3d_texture*>(g.textures, g.textures + g.texture_count), (std::vector<n3d_texture*>{&wall, &floor}));
    EXPECT_EQ(std::vector<int32_t>(g.integers, g.integers + g.integer_count), (std::vector<int32_t>{1, -2, 3}));
    EXPECT_EQ(std::vector<float>(g.floats, g.floats + g.float_count), (std::vector<float>{0.5f, 2.0f}));
    // keys are compared over their own length, in a fixed order: "pal" is palette_animations
    EXPECT_TRUE(g.palette_animation_count == 1 && g.palette_animations[0] == &ripple && g.palette_count == 1 &&
                g.palettes[0] == &sky);
    // no argument parser runs after a description
    EXPECT_TRUE(g.run == reel_scene_table[scene_table_row("music_sync")].run && !strcmp(g.name, "tunnel_a") &&
                f.row.args == nullptr && std::string(ini.data()) == text);
}

TEST(reel_scene_load, the_description_parser_reads_words_items_and_comments_and_refuses_the_rest)
{
    EXPECT_EQ(parse("scene_name = my-scene\nfloats = [1 ]\n"), std::vector<std::string>{"scene_name=my"});
    EXPECT_EQ(parse("a=[x y]\nb=z"), (std::vector<std::string>{"a[0/2]=x", "a[1/2]=y]", "b=z"}));
    EXPECT_EQ(parse("a = [ ]\n#only a comment\nb =\n  # between\n  c1 # trailing"), (std::vector<std::string>{"b=c1"}));
    // after line 1 a carriage return is white space; Windows line ends, the first line's included, are line ends
    EXPECT_EQ(parse("first = 1\nkey junk = v\r\n"), (std::vector<std::string>{"first=1", "key=v"}));
    EXPECT_EQ(parse("scene_name = a\r\nfloats = [ 1 # one\n 2 ]\r\nb = c # x\r\n"),
              (std::vector<std::string>{"scene_name=a", "floats[0/2]=1", "floats[1/2]=2", "b=c"}));
    EXPECT_EQ(parse("a = -1"), std::vector<std::string>{"a="});
    EXPECT_EQ(parse(""), std::vector<std::string>{});

    EXPECT_FATAL(parse("a = 1\rb = 2\r"),
                 test_literal("txt contains \\r either bug or unpacked using some tool that converts unix lines to mac.. tryp "
                              "MacZip\n"));
    EXPECT_FATAL(parse("a = 1\n\nkey"), test_literal("missing '=' on line 3 in file \"scene.ini\"\n"));
    EXPECT_FATAL(parse("a = 1\nb = [ x\n y\n"),
                 test_literal("expected ']' to close array starting on line 2 in file \"scene.ini\"\n"));
}

TEST(reel_scene_load, integer_float_string_and_colour_arguments_advance_past_one_comma)
{
    reel_sequence_row r = {};
    r.line = 12;
    r.args = "12,34, -7,x";
    const char* cursor = r.args;
    uint32_t counter = 0;
    EXPECT_TRUE(parse_arg_int(&counter, &cursor, &r) == 12 && !strcmp(cursor, "34, -7,x"));
    EXPECT_TRUE(parse_arg_int(&counter, &cursor, &r) == 34 && parse_arg_int(&counter, &cursor, &r) == -7 && counter == 3u);
    EXPECT_FATAL(parse_arg_int(&counter, &cursor, &r),
                 test_literal("crash in parse_arg_int at src/reel_scenes:") + "[0-9]+\n" +
                     test_literal("parse_arg_int failed \"x\" (sequence line 12, args: \"12,34, -7,x\")\n"));
    const char* huge = "4294967296";
    EXPECT_FATAL(parse_arg_int(&counter, &huge, &r),
                 test_literal("parse_arg_int out of range \"4294967296\" (sequence line 12, args: \"12,34, -7,x\")\n"));

    r.args = cursor = "0.5,-1e3,";
    EXPECT_TRUE(parse_arg_float(&cursor, &r) == 0.5f && parse_arg_float(&cursor, &r) == -1000.0f);
    EXPECT_FATAL(parse_arg_float(&cursor, &r),
                 test_literal("parse_arg_float failed \"\" (sequence line 12, args: \"0.5,-1e3,\")\n"));

    scene_engine f;
    cursor = "logo,,a b\nrest";
    EXPECT_STREQ(parse_arg_string(&cursor, &r, &f.demo), "logo");
    EXPECT_STREQ(parse_arg_string(&cursor, &r, &f.demo), "");
    EXPECT_STREQ(parse_arg_string(&cursor, &r, &f.demo), "a b");
    EXPECT_STREQ(cursor, "\nrest");
    // colours read as rgba, argb1555 and linear
    cursor = "#ff8000ff,#0A1B2C7f";
    reel_color c;
    parse_arg_color(&c, &cursor, &r, &f.demo);
    EXPECT_TRUE(c.rgba == 0xFF8000FFu && c.argb1555 == 0xFE00u && c.linear[0] == 1.0f && c.linear[2] == 0.0f &&
                c.linear[3] == 1.0f);
    EXPECT_NEAR(c.linear[1], 0.2158605f, 1e-5);
    parse_arg_color(&c, &cursor, &r, &f.demo);
    // alpha below 128: the bit is clear
    EXPECT_TRUE(c.rgba == 0x0A1B2C7Fu && c.argb1555 == ((0x0Au >> 3) << 10 | (0x1Bu >> 3) << 5 | (0x2Cu >> 3)));
    EXPECT_NEAR(c.linear[3], 127.0f / 255.0f, 1e-7);

    for (const auto& [text, message] :
         {std::pair{"ff8000ff", "expected '#' for start of hexcolor on line: 12\n"},
          {"#ff8000", "expected 4 hex values of 2 digits, e.g. #00112233 (for r,g,b,a) on line: 12\n"},
          {"#ff80g0ff", "could not parse color value after # (invalid hex?) on line: 12\n"}}) {
        const char* at = text;
        EXPECT_FATAL(parse_arg_color(&c, &at, &r, &f.demo),
                     test_literal("crash in parse_arg_color at src/reel_scenes:") + "[0-9]+\n" + test_literal(message));
    }
}
