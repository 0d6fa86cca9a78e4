// libFuzzer target for what sits above the readers: a script and its scene descriptions played
// by the engine. The input is a byte that picks the clock step (low 3 bits) and a key held every
// FUZZ_SCENES_KEY_EVERY frames (a seeking key, a debug view or the pause key), then the texts of
// "sequence.csv", "a.ini", "b.ini" and "c.ini" separated by FUZZ_SCENES_SEPARATOR, each stored
// in a pack exactly as given
// (a text without its NUL is the input's own choice). They join a fixed pack of small resources
// (palettes, palette animations, a stencil, a run-length image, music, an empty datapack, some
// sharing a name across kinds), and the engine runs as the show does: its three init steps,
// then update and render passes until the show quits or FUZZ_SCENES_FRAMES frames have passed,
// the clock moving by the chosen step each frame (through the music once it has started, else
// by seeking). Every row is bound, described or parsed, loaded and run. A clean fatal message
// is a refused input; a sanitizer report or a signal is a finding.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "display.h"
#define FUZZ_OWN_INITIALIZE
#include "fuzz_harness.h"
#include "music.h"
#include "reel.h"
#include "reel_fs.h"
#include "reel_resource.h"
#include "n3d_io.h"

constexpr uint8_t FUZZ_SCENES_SEPARATOR = 0x1E;  // the ASCII record separator
constexpr uint32_t FUZZ_SCENES_FRAMES = 150;     // an update and a render pass each
constexpr uint32_t FUZZ_SCENES_BASE_STEP = 368;  // one frame of music at 60 frames per second
constexpr uint32_t FUZZ_SCENES_MAX_STEP = FUZZ_SCENES_BASE_STEP << 7;
constexpr uint32_t FUZZ_SCENES_KEY_EVERY = 5;
static const char fuzz_scenes_keys[] = "\0qead6789iox";  // none, then the engine's keys
static const char* const fuzz_scenes_text_names[] = {"sequence.csv", "a.ini", "b.ini", "c.ini"};

struct fuzz_pack_file {
    uint32_t kind;
    std::string name;
    std::vector<uint8_t> block;
};

struct fuzz_scenes_world {
    xmemarena platform;
    display_device display;
    demosys initial;  // demosys_global right after demosys_init, restored for every input
    uint64_t demo_sp;
    std::string text_pack_path;
    std::string play_folder;
    int start_folder;
    int16_t samples[FUZZ_SCENES_MAX_STEP * 2];
    uint8_t keys[256];
};

static fuzz_scenes_world* fuzz_world;

// A pack in the machine's order, made by the pack writer from the blocks written beside it.
static void fuzz_write_pack(const std::string& path, const std::vector<fuzz_pack_file>& files)
{
    static xmemarena memory = {};
    if (!memory.base)
        xmemarena_init(&memory, "fuzz_pack_writer", 1u << 20, aligned_alloc(64, 1u << 20));
    xmemarena_reset(&memory);
    reel_fs_writer writer;
    reel_fs_pack_begin(&writer, BYTE_ORDER_NATIVE);
    for (size_t i = 0; i < files.size(); i++) {
        const std::string block = path + ".in" + std::to_string(i);
        FILE* out = fopen(block.c_str(), "wb");
        if (!out || fwrite(files[i].block.data(), 1, files[i].block.size(), out) != files[i].block.size() ||
            fclose(out) != 0) {
            fprintf(fuzz_global.report, "fuzz_scenes: cannot write %s\n", block.c_str());
            abort();
        }
        reel_fs_pack_add_file(&writer, &memory, files[i].kind, 0, files[i].name.c_str(), block.c_str());
    }
    reel_fs_pack_end(&writer, path.c_str(), &memory);
}

// A block of kinds 0 to 7: the marker, then what the record's writer makes of it.
template <class R>
static fuzz_pack_file fuzz_block(uint32_t kind, const char* name, const R* record, uint64_t (*size)(const R*),
                                 uint8_t* (*write)(uint8_t*, const R*, int32_t))
{
    std::vector<uint8_t> block(4 + size(record));
    stream_write_u32(block.data(), BYTE_ORDER_MARKER, BYTE_ORDER_NATIVE);
    write(block.data() + 4, record, BYTE_ORDER_NATIVE);
    return {kind, name, block};
}

// The resources the texts may name: "base", "rings" and "plasma" under more than one kind.
static std::vector<fuzz_pack_file> fuzz_resources()
{
    static uint8_t entries[64 * 4];
    for (uint32_t i = 0; i < sizeof(entries); i++)
        entries[i] = (uint8_t)(i * 37);
    static reel_palette palettes[3] = {{0, 64, entries}, {16, 4, entries}, {255, 1, entries + 8}};
    static uint8_t pixels[8 * 4];
    for (uint32_t i = 0; i < sizeof(pixels); i++)
        pixels[i] = (uint8_t)(i * 13);
    static const reel_palette_animation rings = {8, 4, 3, pixels, palettes};
    static const reel_palette_animation plasma = {4, 2, 1, pixels, palettes + 1};
    static uint32_t bits[8] = {0x80000000u, 1, 0xFFFFFFFFu, 0, 0x0F0F0F0Fu, 0xF0F0F0F0u, 2, 3};
    static const n3d_coverage_buffer mask = {bits, 64, 4};
    static const uint8_t runs[] = {0, 3, 5, 1, 7, 128, 2, 2, 9};  // 4 x 3: empty, coloured, transparent then coloured
    static const reel_rle_image logo = {4, 3, sizeof(runs), runs};

    std::vector<fuzz_pack_file> files;
    files.push_back(fuzz_block(REEL_KIND_PALETTE, "base", &palettes[0], reel_palette_write_size, reel_palette_write));
    files.push_back(fuzz_block(REEL_KIND_PALETTE, "rings", &palettes[1], reel_palette_write_size, reel_palette_write));
    files.push_back(fuzz_block(REEL_KIND_PALETTE_ANIMATION, "rings", &rings, reel_palette_animation_write_size,
                               reel_palette_animation_write));
    files.push_back(fuzz_block(REEL_KIND_PALETTE_ANIMATION, "plasma", &plasma, reel_palette_animation_write_size,
                               reel_palette_animation_write));
    files.push_back(fuzz_block(REEL_KIND_STENCIL, "mask", &mask, n3d_coverage_buffer_write_size,
                               n3d_coverage_buffer_write));
    files.push_back(fuzz_block(REEL_KIND_RLE_IMAGE, "logo", &logo, reel_rle_image_write_size, reel_rle_image_write));
    files.push_back({REEL_KIND_MADPACK, "empty", std::vector<uint8_t>(4 + 28, 0)});  // seven zero counts
    stream_write_u32(files.back().block.data(), BYTE_ORDER_MARKER, BYTE_ORDER_NATIVE);
    std::vector<uint8_t> music(4096);
    for (size_t i = 0; i < music.size(); i++)
        music[i] = (uint8_t)(i * 2654435761u >> 13);
    files.push_back({REEL_KIND_BLOB, "music", music});
    files.push_back({REEL_KIND_BLOB, "base", {1, 2, 3, 4}});
    const char greetings[] = "hello\nworld\n";
    files.push_back({REEL_KIND_RAW, "greetings.ini", std::vector<uint8_t>(greetings, greetings + sizeof(greetings))});
    return files;
}

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    fuzz_init(argc, argv, "-close_fd_mask=3");  // scenes and loaders report progress on standard output
    fuzz_world = new fuzz_scenes_world();
    fuzz_scenes_world* w = fuzz_world;

    // The packs go where the engine looks for them, under a folder of this process's own, which
    // is the working folder only while an input plays: libFuzzer's own paths are relative to
    // the folder it was started in.
    char folder[] = "/tmp/reel_fuzz_scenes_XXXXXX";
    w->start_folder = open(".", O_RDONLY | O_DIRECTORY);
    if (!mkdtemp(folder) || w->start_folder < 0) {
        fprintf(fuzz_global.report, "fuzz_scenes: no working folder\n");
        abort();
    }
    w->play_folder = folder;
    atexit([] { std::filesystem::remove_all(fuzz_world->play_folder); });  // libFuzzer ends with exit
    const std::string packs = std::string(folder) + "/" REEL_PACK_FOLDER;
    for (size_t at = packs.find('/', 1); at != std::string::npos; at = packs.find('/', at + 1))
        mkdir(packs.substr(0, at).c_str(), 0777);
    mkdir(packs.c_str(), 0777);
    fuzz_write_pack(packs + "/pak0.rpk", fuzz_resources());
    fuzz_write_pack(packs + "/pak1.rpk", {});
    w->text_pack_path = packs + "/pak2.rpk";

    const uint64_t platform_size = 8u << 20;
    xmemarena_init(&w->platform, "platform_arena", platform_size, aligned_alloc(64, platform_size));
    display_init(&w->display, &w->platform);
    prof_init();
    demosys_init(&demosys_global, &w->display);
    w->initial = demosys_global;
    w->demo_sp = xmemarena_get_sp(&demosys_global.arena);
    return 0;
}

static void fuzz_scenes_play(const uint8_t* data, size_t size)
{
    fuzz_scenes_world* w = fuzz_world;
    if (size == 0)
        return;
    const uint32_t step = FUZZ_SCENES_BASE_STEP << (data[0] & 7);
    const uint8_t key = (uint8_t)fuzz_scenes_keys[(data[0] >> 3) % (sizeof(fuzz_scenes_keys) - 1)];
    static std::vector<fuzz_pack_file> texts;  // static: a fatal jump skips destructors
    texts.clear();
    const uint8_t* p = data + 1;
    const uint8_t* end = data + size;
    for (const char* name : fuzz_scenes_text_names) {
        const uint8_t* stop = (const uint8_t*)memchr(p, FUZZ_SCENES_SEPARATOR, (size_t)(end - p));
        if (!stop)
            stop = end;
        texts.push_back({REEL_KIND_RAW, name, std::vector<uint8_t>(p, stop)});
        p = stop == end ? end : stop + 1;
    }
    fuzz_write_pack(w->text_pack_path, texts);

    if (chdir(w->play_folder.c_str()) != 0)
        abort();
    demosys_global = w->initial;
    xmemarena_set_sp(&demosys_global.arena, w->demo_sp);
    music_reset();
    for (uint32_t frame = 0; frame < FUZZ_SCENES_FRAMES && !demosys_global.quit; frame++) {
        if (music_global.started.load())
            music_mix(w->samples, step);
        else
            music_seek((int32_t)step);  // no music: move the clock anyway, so that spans pass
        w->keys[key] = frame % FUZZ_SCENES_KEY_EVERY == 0;
        demosys_update(&demosys_global, &w->display, w->keys, nullptr);
        demosys_render(&demosys_global, &w->display, w->keys, nullptr);
        display_flip(&w->display);
    }
    if (getenv("REEL_FUZZ_SHOW_FATAL"))
        fprintf(fuzz_global.report, "played to clock %d, %u rows, quit %u\n", music_sample_counter(),
                demosys_global.engine.scene_count, demosys_global.quit);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (setjmp(fuzz_global.resume) == 0)
        fuzz_scenes_play(data, size);
    // else the engine refused the script or a description with a fatal message
    if (fchdir(fuzz_world->start_folder) != 0)
        abort();
    return 0;
}
