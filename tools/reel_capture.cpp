// A headless host: plays the show in the current folder exactly like the program does, but
// deterministically and as fast as it can. Per displayed frame it advances the music player
// by 1/60 s through the same mixing code as the audio callback (367 or 368 stereo samples, so
// that 60 frames are exactly 22,050 samples), runs one update pass and one render pass, flips
// the video plane and composes both planes. It is how tests run whole shows, and how a person
// makes a video of one (PNG frames and a WAV of the music).
//
//   reel_capture [--frames N] [--png-every K] [--png-at F]... [--out DIR] [--wav FILE] [--stats]
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

#include "bitmap.h"
#include "diag.h"
#include "display.h"
#include "memarena.h"
#include "music.h"
#include "reel.h"

namespace {

constexpr uint64_t CAPTURE_PLATFORM_ARENA_SIZE = 10ull << 20;
constexpr uint32_t CAPTURE_FRAMES_PER_SECOND = 60;
constexpr uint32_t CAPTURE_MAX_PNG_AT = 256;
constexpr uint32_t CAPTURE_MAX_FRAME_SAMPLES = MUSIC_SAMPLE_RATE / CAPTURE_FRAMES_PER_SECOND + 1;

struct capture_options {
    uint64_t frames;  // 0: until the show quits
    uint64_t png_every;
    uint64_t png_at[CAPTURE_MAX_PNG_AT];
    uint32_t png_at_count;
    const char* out_dir;
    const char* wav_path;
    bool stats;
};

[[noreturn]] void capture_usage(const char* why)
{
    // --help: to standard output, status 0; a wrong argument: to standard error, status 2
    FILE* out = why ? stderr : stdout;
    if (why)
        fprintf(stderr, "reel_capture: %s\n", why);
    fprintf(out,
            "usage: reel_capture [--frames N] [--png-every K] [--png-at F]... [--out DIR] [--wav FILE] [--stats]\n"
            "  plays the show of assets/reel/le/ headless, 60 frames per second of music\n"
            "  --frames N     stop after N frames (otherwise when the show ends or nothing more can happen)\n"
            "  --png-every K  write every K-th frame's 640 x 480 composition as OUT/frame_NNNNNN.png\n"
            "  --png-at F     write frame F (frames count from 0; may be repeated)\n"
            "  --out DIR      folder for the PNG frames (default: the current folder)\n"
            "  --wav FILE     write the mixed music (22,050 Hz, 16-bit stereo)\n"
            "  --stats        print the engine's statistics, the per-pass cost and the arenas' use\n");
    exit(why ? 2 : 0);
}

uint64_t capture_number(const char* option, const char* text)
{
    char* end = nullptr;
    errno = 0;
    const unsigned long long v = text ? strtoull(text, &end, 10) : 0;
    if (!text || !*text || *end || errno || text[0] == '-') {
        char why[256];
        snprintf(why, sizeof(why), "%s needs a whole number, got \"%s\"", option, text ? text : "");
        capture_usage(why);
    }
    return (uint64_t)v;
}

capture_options capture_parse(int argc, char** argv)
{
    capture_options o;
    memset(&o, 0, sizeof(o));
    o.out_dir = ".";
    for (int i = 1; i < argc; i++) {
        const char* a = argv[i];
        const char* next = i + 1 < argc ? argv[i + 1] : nullptr;
        if (!strcmp(a, "--frames")) {
            o.frames = capture_number(a, next), i++;
            if (o.frames == 0)
                capture_usage("--frames must be at least 1");
        } else if (!strcmp(a, "--png-every")) {
            o.png_every = capture_number(a, next), i++;
        } else if (!strcmp(a, "--png-at")) {
            if (o.png_at_count == CAPTURE_MAX_PNG_AT)
                capture_usage("too many --png-at options");
            o.png_at[o.png_at_count++] = capture_number(a, next), i++;
        } else if (!strcmp(a, "--out")) {
            if (!next)
                capture_usage("--out needs a folder");
            o.out_dir = next, i++;
        } else if (!strcmp(a, "--wav")) {
            if (!next)
                capture_usage("--wav needs a file name");
            o.wav_path = next, i++;
        } else if (!strcmp(a, "--stats")) {
            o.stats = true;
        } else if (!strcmp(a, "--help") || !strcmp(a, "-h")) {
            capture_usage(nullptr);
        } else {
            char why[256];
            snprintf(why, sizeof(why), "unknown option \"%s\"", a);
            capture_usage(why);
        }
    }
    return o;
}

bool capture_png_due(const capture_options* o, uint64_t frame)
{
    if (o->png_every && frame % o->png_every == 0)
        return true;
    for (uint32_t i = 0; i < o->png_at_count; i++)
        if (o->png_at[i] == frame)
            return true;
    return false;
}

void capture_write_u32(FILE* f, uint32_t v)
{
    const uint8_t b[4] = {(uint8_t)v, (uint8_t)(v >> 8), (uint8_t)(v >> 16), (uint8_t)(v >> 24)};
    fwrite(b, 1, 4, f);
}

void capture_write_u16(FILE* f, uint16_t v)
{
    const uint8_t b[2] = {(uint8_t)v, (uint8_t)(v >> 8)};
    fwrite(b, 1, 2, f);
}

// The RIFF header of 16-bit stereo PCM; the sizes are filled in when the capture ends.
void capture_wav_header(FILE* f, uint32_t data_bytes)
{
    fwrite("RIFF", 1, 4, f);
    capture_write_u32(f, 36 + data_bytes);
    fwrite("WAVEfmt ", 1, 8, f);
    capture_write_u32(f, 16);
    capture_write_u16(f, 1);  // PCM
    capture_write_u16(f, (uint16_t)MUSIC_CHANNELS);
    capture_write_u32(f, MUSIC_SAMPLE_RATE);
    capture_write_u32(f, MUSIC_SAMPLE_RATE * MUSIC_CHANNELS * 2);
    capture_write_u16(f, (uint16_t)(MUSIC_CHANNELS * 2));
    capture_write_u16(f, 16);
    fwrite("data", 1, 4, f);
    capture_write_u32(f, data_bytes);
}

void capture_save_png(const uint32_t* rgba, uint64_t frame, const char* out_dir, xmemarena* tmp)
{
    const uint64_t mark = xmemarena_get_sp(tmp);
    bitmap* bm = bitmap_create(tmp, DISPLAY_OUTPUT_WIDTH, DISPLAY_OUTPUT_HEIGHT, BITMAP_SRGB | BITMAP_CHANNELS_3);
    for (uint32_t y = 0; y < DISPLAY_OUTPUT_HEIGHT; y++)
        for (uint32_t x = 0; x < DISPLAY_OUTPUT_WIDTH; x++) {
            const uint32_t v = rgba[y * DISPLAY_OUTPUT_WIDTH + x];  // R << 24 | G << 16 | B << 8 | 255
            uint8_t* p = bitmap_pixel(bm, x, y);
            p[0] = (uint8_t)(v >> 24), p[1] = (uint8_t)(v >> 16), p[2] = (uint8_t)(v >> 8);
        }
    char path[4096];
    snprintf(path, sizeof(path), "%s/frame_%06llu.png", out_dir, (unsigned long long)frame);
    if (!bitmap_save_png(bm, path, tmp)) {
        fprintf(stderr, "reel_capture: could not write \"%s\"\n", path);
        exit(1);
    }
    xmemarena_set_sp(tmp, mark);
}

// Without --frames the capture ends with the show: when the show quits (its fade_out_music row
// has ended), or once nothing more can happen, which the live program does not look for (it
// keeps running until the viewer quits): the clock is past the end of every row and the music
// has run out, or no music was started after a whole frame of sequencer passes, so the clock
// stays where it is. Null while the show goes on, else why it is over.
const char* capture_show_over(bool sequenced_whole_frame)
{
    const reel_engine* e = &demosys_global.engine;
    if (!e->init_done || !sequenced_whole_frame)
        return nullptr;
    if (!music_global.started.load(std::memory_order_relaxed))
        return "the script started no music, so the show clock cannot move";
    const int64_t c = music_sample_counter();
    const int64_t played = c - music_global.lead_in.load(std::memory_order_relaxed);
    if (played < (int64_t)music_global.length.load(std::memory_order_relaxed))
        return nullptr;
    for (uint32_t i = 0; i < e->sequence.row_count; i++)
        if (c <= e->sequence.rows[i].end)
            return nullptr;
    return "every row of the script has ended and the music has run out";
}

}  // namespace

int main(int argc, char** argv)
{
    const capture_options opt = capture_parse(argc, argv);
    if (opt.png_every || opt.png_at_count) {
        mkdir(opt.out_dir, 0777);  // an existing folder is fine; a failure shows at the first write
    }
    FILE* wav = nullptr;
    if (opt.wav_path) {
        wav = fopen(opt.wav_path, "wb");
        if (!wav) {
            fprintf(stderr, "reel_capture: could not create \"%s\"\n", opt.wav_path);
            return 1;
        }
        capture_wav_header(wav, 0);
    }

    static xmemarena platform_arena;
    xmemarena_init(&platform_arena, "platform_arena", CAPTURE_PLATFORM_ARENA_SIZE, malloc(CAPTURE_PLATFORM_ARENA_SIZE));
    static display_device display;
    display_init(&display, &platform_arena);
    auto* composed = (uint32_t*)xmemarena_push_align(&platform_arena, DISPLAY_OUTPUT_WIDTH * DISPLAY_OUTPUT_HEIGHT * 4, 64);
    xmemarena* png_tmp = xmemarena_push_arena(&platform_arena, "capture_png_arena", 2u << 20);
    prof_init();
    music_reset();
    if (demosys_init(&demosys_global, &display) != 0) {
        printf("failed init demosys\n");
        return 1;
    }

    static uint8_t keys[256];  // nobody presses anything
    int16_t samples[CAPTURE_MAX_FRAME_SAMPLES * 2];
    uint64_t wav_bytes = 0;
    uint64_t frame = 0;
    for (;;) {
        if (opt.frames && frame >= opt.frames)
            break;
        // 1/60 s of music: 60 frames are exactly one second of samples
        const uint64_t n = ((frame + 1) * MUSIC_SAMPLE_RATE) / CAPTURE_FRAMES_PER_SECOND -
                           (frame * MUSIC_SAMPLE_RATE) / CAPTURE_FRAMES_PER_SECOND;
        music_mix(samples, (uint32_t)n);
        if (wav) {
            for (uint64_t i = 0; i < n * 2; i++)
                capture_write_u16(wav, (uint16_t)samples[i]);
            wav_bytes += n * 4;
        }
        const bool sequenced = demosys_global.engine.init_done != 0;  // both passes of this frame run the script
        demosys_update(&demosys_global, &display, keys, nullptr);
        demosys_render(&demosys_global, &display, keys, nullptr);
        display_flip(&display);
        display_output_rgba(&display, composed, DISPLAY_OUTPUT_WIDTH * 4);
        if (capture_png_due(&opt, frame))
            capture_save_png(composed, frame, opt.out_dir, png_tmp);
        frame++;
        if (demosys_global.quit)
            break;
        const char* over = opt.frames ? nullptr : capture_show_over(sequenced);
        if (over) {
            printf("capture stops: %s\n", over);
            break;
        }
    }
    if (wav) {
        fseek(wav, 0, SEEK_SET);
        capture_wav_header(wav, (uint32_t)wav_bytes);
        fclose(wav);
    }
    printf("captured %llu frames (%.2f s of music)%s\n", (unsigned long long)frame, (double)frame / 60.0,
           demosys_global.quit ? ", the show ended" : "");
    if (opt.stats) {
        reel_print_statistics(&demosys_global.engine);
        pass_timer_print("engine pass", REEL_PASS_UPDATE, &demosys_global.engine.total_timer);
        pass_timer_print("engine pass", REEL_PASS_RENDER, &demosys_global.engine.total_timer);
        xmemarena_print_high_water(&platform_arena);
        xmemarena_print_high_water(&demosys_global.arena);
        if (demosys_global.engine.arena) {
            xmemarena_print_high_water(demosys_global.engine.arena);
            xmemarena_print_high_water(demosys_global.engine.tmp_arena);
        }
    }
    return 0;
}
