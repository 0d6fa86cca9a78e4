// The show engine: resources from the pack files, the sequence (the show's script), scene
// descriptions and argument parsing, the scene table and the sequencer that calls scene
// functions over their spans of music time, and the engine frame the host drives twice per
// loop pass (`demosys`). The records here are shared by every part of the engine and by the
// scene functions.
#pragma once

#include <cstdint>

#include "diag.h"
#include "display.h"
#include "memarena.h"
#include "n3d.h"
#include "n3d_convert.h"
#include "reel_fs.h"

struct mad_datapack;

// ---- resources ----

enum : uint32_t {
    REEL_KIND_STENCIL = 0,            // n3d_coverage_buffer
    REEL_KIND_TEXTURE = 1,            // n3d_texture
    REEL_KIND_PALETTE_ANIMATION = 2,  // reel_palette_animation
    REEL_KIND_PALETTE = 3,            // reel_palette
    REEL_KIND_RLE_IMAGE = 4,          // reel_rle_image
    REEL_KIND_IMAGE = 5,              // reel_image
    REEL_KIND_MADPACK = 6,            // mad_datapack
    REEL_KIND_FONT = 7,               // reel_font
    REEL_KIND_BLOB = 8,               // reel_blob
    REEL_KIND_RAW = 9,                // the block itself
    REEL_KIND_COUNT = 10,
};

struct reel_palette_animation {
    uint32_t width;
    uint32_t height;
    uint32_t palette_count;
    uint8_t* pixels;         // width x height colour indices
    reel_palette* palettes;  // palette_count records
};

struct reel_rle_image {
    uint32_t width;
    uint32_t height;
    uint32_t size;        // bytes of encoded rows
    const uint8_t* data;  // in the pack's image when the byte order is native, else a copy
};

struct reel_image {
    uint32_t width;   // the visible rectangle, at the texture's top left
    uint32_t height;
    n3d_texture texture;  // linear index8
};

struct reel_glyph {
    uint32_t width;
    uint32_t height;
    float x_offset;
    float y_offset;
    float advance;
    uint8_t* pixels;  // width x height colour indices, 0 transparent
    n3d_coverage_buffer stencil;
};

struct reel_font {
    uint32_t first;
    uint32_t last;
    uint32_t glyph_count;  // last - first + 1
    reel_glyph* glyphs;
};

struct reel_blob {
    const uint8_t* data;  // in the pack's image
    uint64_t size;
};

// One cached resource; the first node lives in the engine record and has no name.
// The cache is keyed by kind and name: a name loaded under one kind is looked up in the packs
// again under another, so a scene never receives a record of a kind it does not read.
struct reel_resource_node {
    uint32_t kind;
    const char* name;
    void* record;
    reel_resource_node* next;
};

// ---- the sequence ----

constexpr uint32_t SEQ_ROW_BARRIER_AFTER = 1;
constexpr uint32_t SEQ_BARRIER_PREV_COMPLETED = 1;
constexpr int32_t REEL_SAMPLES_PER_SECOND = 22050;

struct reel_sequence_row {
    uint32_t index;
    uint32_t line;
    const char* function;
    const char* args;  // null when column 8 is not followed by a comma
    uint32_t flags;    // SEQ_ROW_BARRIER_AFTER
    const char* start_mode;
    const char* start_reference;
    int32_t start_ms;
    int32_t preload_ms;
    const char* end_mode;
    const char* end_reference;
    int32_t end_ms;
    int32_t start;  // resolved, samples of the show clock
    int32_t end;
    int32_t load;  // start - preload: from here on the scene may be loaded
};

struct reel_sequence_label {
    const char* name;
    uint32_t line;
    uint32_t row;  // index of the scene row the label names
};

struct reel_sequence_barrier {
    uint32_t kind;  // SEQ_BARRIER_PREV_COMPLETED
    uint32_t line;
    int32_t row;  // the scene row before the barrier line
};

struct reel_sequence {
    uint32_t row_count;
    uint32_t label_count;
    reel_sequence_label* labels;
    uint32_t barrier_count;
    reel_sequence_barrier* barriers;
    reel_sequence_row* rows;
    uint32_t lead_in;  // clock value at which music byte 0 plays
};

// ---- scenes ----

enum : uint32_t {
    REEL_PASS_UPDATE = 0,  // every host loop pass ("regular")
    REEL_PASS_RENDER = 1,  // once per displayed frame ("vbl")
};

struct reel_color {
    uint32_t rgba;      // red << 24 | green << 16 | blue << 8 | alpha
    float linear[4];    // linear light, alpha as is
    uint32_t argb1555;  // alpha >= 128 as the alpha bit, then 5 bits per channel
};

constexpr uint32_t REEL_SCENE_PRIVATE_BYTES = 140;

struct reel_run_context;
struct reel_scene;
struct reel_engine;

typedef void reel_scene_run_fn(reel_scene* scene, reel_run_context* ctx);

struct reel_scene {
    uint32_t loaded;
    uint64_t load_cycles;
    const char* name;
    reel_scene_run_fn* run;
    // bindings of the scene description and the argument parsers
    uint32_t integer_count;
    int32_t* integers;
    uint32_t float_count;
    float* floats;
    uint32_t palette_count;
    reel_palette** palettes;
    uint32_t rle_image_count;
    reel_rle_image** rle_images;
    uint32_t image_count;
    reel_image** images;
    uint32_t stencil_count;
    n3d_coverage_buffer** stencils;
    uint32_t texture_count;
    n3d_texture** textures;
    uint32_t palette_animation_count;
    reel_palette_animation** palette_animations;
    uint32_t madpack_count;
    mad_datapack** madpacks;
    uint32_t colour_count;
    reel_color* colours;
    uint32_t font_count;
    reel_font** fonts;
    uint32_t blob_count;
    reel_blob** blobs;
    // time of the current call
    int32_t since_start;
    uint32_t since_start_frames;
    float since_start_seconds;
    int32_t span;
    uint32_t span_frames;
    float span_seconds;
    float clock_seconds;
    pass_timer run_timer;
    pass_timer load_timer;
    pass_timer end_timer;
    uint32_t ending;
    uint32_t ready;
    uint32_t first_update;
    uint32_t first_render;
    int64_t load_budget;  // cycles the current load call may spend; 0 = no limit
    uint32_t update_runs;
    uint32_t render_runs;
    uint32_t load_complete;  // set by the scene function when its preparation is done
    alignas(8) uint8_t private_state[REEL_SCENE_PRIVATE_BYTES];
    uint32_t ended_update;
    uint32_t ended_render;
};

// A scene function's own state, kept in the scene record.
template <typename T>
static inline T* reel_scene_state(reel_scene* scene)
{
    static_assert(sizeof(T) <= REEL_SCENE_PRIVATE_BYTES, "scene state does not fit the scene record");
    static_assert(alignof(T) <= 8, "scene state needs more alignment than the scene record gives");
    return reinterpret_cast<T*>(scene->private_state);
}

struct reel_parse_context {
    reel_engine* engine;
    reel_sequence_row* row;
    xmemarena* arena;      // "reel_arena"
    xmemarena* tmp_arena;  // "reel_tmp_arena"
};

typedef void reel_scene_parse_fn(reel_scene* scene, reel_parse_context* ctx);

// The least number of entries of each binding that a scene's run function reads: loading
// refuses a scene that has fewer (a description may bind anything, or nothing), naming the
// scene, its line and the binding, so the run function can index them without checks. The
// members have defaults so that a table row names only what it needs.
struct reel_scene_needs {
    uint8_t integers = 0;
    uint8_t floats = 0;
    uint8_t palettes = 0;
    uint8_t rle_images = 0;
    uint8_t images = 0;
    uint8_t stencils = 0;
    uint8_t textures = 0;
    uint8_t palette_animations = 0;
    uint8_t madpacks = 0;
    uint8_t colours = 0;
    uint8_t fonts = 0;
    uint8_t blobs = 0;
};

struct reel_scene_binding {
    const char* name;
    reel_scene_run_fn* run;
    reel_scene_parse_fn* parse_args;  // null: the row takes no argument text
    reel_scene_needs needs = {};      // all zero for a row that leaves it out
};

struct reel_run_context {
    reel_engine* engine;  // its first field is the quit flag
    reel_sequence_row* row;
    uint32_t pass;
    xmemarena* arena;  // "demo_arena"
    display_device* display;
    n3d_framecontext* overlay;
    uint32_t backbuffer_count;
    n3d_framecontext* backbuffers;
    uint32_t stencil_count;
    n3d_coverage_buffer* stencils;
    n3d_framecontext* video_contexts;  // both video contexts in update passes, null in render passes
    n3d_framecontext* video;           // the video buffer drawn this frame
    void* host;
    const uint8_t* keys;
    int32_t mouse_x, mouse_y, mouse_dx, mouse_dy;
};

// ---- the engine ----

constexpr uint64_t REEL_DEMO_ARENA_SIZE = 40ull << 20;
constexpr uint64_t REEL_ARENA_SIZE = 30ull << 20;
constexpr uint64_t REEL_TMP_ARENA_SIZE = 6ull << 20;
constexpr uint32_t REEL_INIT_STEPS = 3;
constexpr uint32_t REEL_STAR_COUNT = 16384;
constexpr uint32_t REEL_STAR_BYTES = 12;
constexpr uint32_t REEL_SHADE_TABLE_CACHE_MAX = 10;
constexpr uint32_t REEL_SHADE_TABLE_BYTES = 16384;  // 256 colours x 32 shades x ARGB1555
constexpr uint32_t REEL_BACKBUFFER_COUNT = 3;
constexpr uint32_t REEL_STENCIL_COUNT = 3;
constexpr uint32_t REEL_PACK_COUNT = 3;
#define REEL_PACK_FOLDER "assets/reel/le"

struct reel_shade_table_entry {
    uint16_t* table;  // 256 x 32 ARGB1555, taken at start-up
    const n3d_texture* texture;  // the texture it was built for
};

// The greetings' lines: the "greetings.ini" text split in place at its line feeds, shared by
// every greetings scene (each parse sets it; the same text is split only once).
struct reel_greetings {
    char* text;
    uint32_t line_count;
    const char** lines;  // line_count non-empty lines, in file order
};

struct reel_engine {
    uint32_t quit;  // set by the fade_out_music scene's end call
    uint32_t init_step;
    uint64_t step_cycles[REEL_INIT_STEPS];
    uint32_t init_done;
    xmemarena* arena;      // "reel_arena"
    xmemarena* tmp_arena;  // "reel_tmp_arena"
    xmemarena arena_record;
    xmemarena tmp_arena_record;
    uint32_t star_count;
    uint8_t* stars;  // star_count x 12 bytes, shared by the starfields
    n3d_phong_lut phong_lut;
    uint32_t shade_table_count;
    reel_shade_table_entry shade_tables[REEL_SHADE_TABLE_CACHE_MAX];
    reel_resource_node resource_cache;
    n3d_framebuffer tunnel_table;  // 640 x 480, format 2
    uint32_t scene_count;
    reel_scene* scenes;  // one per sequence row
    reel_sequence sequence;
    pass_timer total_timer;
    uint8_t previous_keys[256];
    uint32_t backbuffer_count;
    n3d_framecontext* backbuffers;
    uint32_t stencil_count;
    n3d_coverage_buffer* stencils;
    uint32_t pack_count;
    reel_fs_pack* packs;
    reel_greetings greetings;
    const char* pack_folder;  // where the packs are read from; null: REEL_PACK_FOLDER
};

struct demosys {
    uint32_t quit;  // copied from the engine after every pass; the host loop ends when non-zero
    xmemarena arena;  // "demo_arena"
    n3d_framebuffer overlay_framebuffer;
    n3d_framecontext overlay;
    n3d_framebuffer video_framebuffers[2];
    n3d_zbuffer video_zbuffer;  // shared by both video contexts
    n3d_framecontext video_contexts[2];
    n3d_framecontext* current_video;  // video_contexts[display back index]
    int32_t mouse_buttons;
    int32_t mouse_x;
    int32_t mouse_y;
    int32_t mouse_dx;
    int32_t mouse_dy;
    uint32_t engine_enabled;
    reel_engine engine;
};

extern demosys demosys_global;

// Engine frame (reel.cpp).
int demosys_init(demosys* sys, display_device* display);
void demosys_update(demosys* sys, display_device* display, const uint8_t* key_table, void* host);
void demosys_render(demosys* sys, display_device* display, const uint8_t* key_table, void* host);
void demosys_shutdown(demosys* sys);
void reel_engine_frame(reel_run_context* ctx);
void reel_init_step(reel_run_context* ctx);
uint32_t reel_key_pressed(const reel_run_context* ctx, uint32_t key);
// row_labels (one per row) replace the function name and the scene name in the report; null
// keeps them.
void reel_print_statistics(const reel_engine* engine, const char* const* row_labels = nullptr);

// Resources (reel_resource.cpp).
void* reel_load_resource(reel_engine* engine, const char* name, uint32_t kind);
n3d_coverage_buffer* reel_load_stencil(reel_engine* engine, const char* name);
n3d_texture* reel_load_texture(reel_engine* engine, const char* name);
reel_palette_animation* reel_load_palette_animation(reel_engine* engine, const char* name);
reel_palette* reel_load_palette(reel_engine* engine, const char* name);
reel_rle_image* reel_load_rle_image(reel_engine* engine, const char* name);
reel_image* reel_load_image(reel_engine* engine, const char* name);
mad_datapack* reel_load_madpack(reel_engine* engine, const char* name);
reel_font* reel_load_font(reel_engine* engine, const char* name);
reel_blob* reel_load_blob(reel_engine* engine, const char* name);

// The sequence (reel_sequence.cpp).
void reel_load_sequence(reel_sequence* seq, const char* text, const char* file_name, xmemarena* arena, xmemarena* tmp_arena);
const reel_sequence_label* seq_find_label(const reel_sequence* seq, const char* name);

// Scene descriptions and arguments (reel_scene_load.cpp).
void reel_load_scene(reel_engine* engine, reel_scene* scene, reel_sequence_row* row);
typedef void reel_ini_value_fn(const char* key, uint32_t key_length, const char* value, uint32_t value_length,
                               void* user);
typedef void reel_ini_item_fn(const char* key, uint32_t key_length, const char* item, uint32_t item_length,
                              uint32_t index, uint32_t count, void* user);
void ini_parse(char* text, const char* file_name, reel_ini_value_fn* on_value, reel_ini_item_fn* on_item, void* user);
int32_t parse_arg_int(uint32_t* counter, const char** cursor, const reel_sequence_row* row);
float parse_arg_float(const char** cursor, const reel_sequence_row* row);
char* parse_arg_string(const char** cursor, const reel_sequence_row* row, xmemarena* arena);
void parse_arg_color(reel_color* result, const char** cursor, const reel_sequence_row* row, xmemarena* arena);
uint32_t hex_digit_value(uint32_t* value, char c);
char* memprintf(xmemarena* arena, const char* format, ...) DIAG_PRINTF(2, 3);
float lerpf_clamped(float a, float b, float t);

// Scene table and sequencer (reel_scenes.cpp, reel_sequencer.cpp).
extern const reel_scene_binding reel_scene_table[];
extern const uint32_t reel_scene_table_count;
void reel_sequencer_step(reel_engine* engine, reel_run_context* ctx);
