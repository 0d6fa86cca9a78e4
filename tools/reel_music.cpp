// reel_music: makes the show's music. Renders the piece with the synthesiser, encodes it to the
// player's 4-bit ADPCM stream and writes the raw bytes (one per stereo frame, no header: the
// pack stores them as a blob). For a person to listen to, it can also write the synthesised
// PCM and the stream decoded again as WAV files. It prints the length, the time taken, the
// signal-to-noise ratio of the stream (and of a greedy encoding, for comparison) and the
// levels of the music.
//
//   reel_music OUT.bin [--wav OUT.wav] [--decoded-wav OUT.wav] [--beam N]
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "diag.h"
#include "memarena.h"
#include "music.h"
#include "music_encode.h"
#include "music_synth.h"

namespace {

constexpr uint32_t MUSIC_TOOL_FRAME_BYTES = 4;  // two signed 16-bit samples
constexpr uint32_t MUSIC_TOOL_WAV_HEADER_BYTES = 44;
constexpr uint32_t MUSIC_TOOL_WAV_FMT_BYTES = 16;
constexpr uint16_t MUSIC_TOOL_WAV_PCM = 1;
constexpr uint16_t MUSIC_TOOL_BITS = 16;
constexpr double MUSIC_TOOL_FULL_SCALE = 32768.0;
constexpr double MUSIC_TOOL_NS_PER_MS = 1e6;

struct music_tool_options {
    const char* out_path;
    const char* wav_path;
    const char* decoded_wav_path;
    uint32_t beam_width;
};

[[noreturn]] void music_tool_usage(const char* why)
{
    if (why)
        fprintf(stderr, "reel_music: %s\n", why);
    fprintf(stderr,
            "usage: reel_music OUT.bin [--wav OUT.wav] [--decoded-wav OUT.wav] [--beam N]\n"
            "  renders the show's music, encodes it as 4-bit stereo ADPCM at 22,050 Hz and writes the\n"
            "  stream to OUT.bin (one byte per stereo frame, no header)\n"
            "  --wav FILE          also write the synthesised music (16-bit stereo WAV)\n"
            "  --decoded-wav FILE  also write the stream as the player decodes it\n"
            "  --beam N            paths the encoder keeps, 1 (greedy) to %u (default %u)\n",
            MUSIC_ENCODE_BEAM_MAX, MUSIC_ENCODE_BEAM_DEFAULT);
    exit(1);
}

music_tool_options music_tool_parse(int argc, char** argv)
{
    music_tool_options o = {nullptr, nullptr, nullptr, MUSIC_ENCODE_BEAM_DEFAULT};
    for (int i = 1; i < argc; i++) {
        const char* a = argv[i];
        const char* next = i + 1 < argc ? argv[i + 1] : nullptr;
        if (!strcmp(a, "--wav")) {
            if (!next)
                music_tool_usage("--wav needs a file name");
            o.wav_path = next, i++;
        } else if (!strcmp(a, "--decoded-wav")) {
            if (!next)
                music_tool_usage("--decoded-wav needs a file name");
            o.decoded_wav_path = next, i++;
        } else if (!strcmp(a, "--beam")) {
            char* end = nullptr;
            errno = 0;
            const long width = next ? strtol(next, &end, 10) : 0;
            if (!next || !*next || *end || errno || width < 1 || width > (long)MUSIC_ENCODE_BEAM_MAX) {
                char why[256];
                snprintf(why, sizeof(why), "--beam needs a whole number from 1 to %u", MUSIC_ENCODE_BEAM_MAX);
                music_tool_usage(why);
            }
            o.beam_width = (uint32_t)width;
            i++;
        } else if (!strcmp(a, "--help") || !strcmp(a, "-h")) {
            music_tool_usage(nullptr);
        } else if (a[0] == '-') {
            char why[256];
            snprintf(why, sizeof(why), "unknown option \"%s\"", a);
            music_tool_usage(why);
        } else if (o.out_path) {
            music_tool_usage("only one output file");
        } else {
            o.out_path = a;
        }
    }
    if (!o.out_path)
        music_tool_usage("no output file");
    return o;
}

void music_tool_put_u16(uint8_t* p, uint16_t v)
{
    p[0] = (uint8_t)v;  // WAV is little-endian whatever the machine
    p[1] = (uint8_t)(v >> 8);
}

void music_tool_put_u32(uint8_t* p, uint32_t v)
{
    music_tool_put_u16(p, (uint16_t)v);
    music_tool_put_u16(p + 2, (uint16_t)(v >> 16));
}

bool music_tool_write_file(const char* path, const void* head, size_t head_bytes, const void* data, size_t bytes)
{
    FILE* f = fopen(path, "wb");
    if (!f) {
        fprintf(stderr, "reel_music: could not create \"%s\"\n", path);
        return false;
    }
    const bool ok = fwrite(head, 1, head_bytes, f) == head_bytes && fwrite(data, 1, bytes, f) == bytes;
    if (fclose(f) != 0 || !ok) {
        fprintf(stderr, "reel_music: could not write \"%s\"\n", path);
        return false;
    }
    return true;
}

// Samples are written as they lie in memory, which is little-endian on every host we build for.
bool music_tool_write_wav(const char* path, const int16_t* pcm, uint32_t frames)
{
    const uint32_t data_bytes = frames * MUSIC_TOOL_FRAME_BYTES;
    uint8_t h[MUSIC_TOOL_WAV_HEADER_BYTES];
    memcpy(h, "RIFF", 4);
    music_tool_put_u32(h + 4, MUSIC_TOOL_WAV_HEADER_BYTES - 8 + data_bytes);
    memcpy(h + 8, "WAVEfmt ", 8);
    music_tool_put_u32(h + 16, MUSIC_TOOL_WAV_FMT_BYTES);
    music_tool_put_u16(h + 20, MUSIC_TOOL_WAV_PCM);
    music_tool_put_u16(h + 22, MUSIC_CHANNELS);
    music_tool_put_u32(h + 24, MUSIC_SAMPLE_RATE);
    music_tool_put_u32(h + 28, MUSIC_SAMPLE_RATE * MUSIC_TOOL_FRAME_BYTES);
    music_tool_put_u16(h + 32, MUSIC_TOOL_FRAME_BYTES);
    music_tool_put_u16(h + 34, MUSIC_TOOL_BITS);
    memcpy(h + 36, "data", 4);
    music_tool_put_u32(h + 40, data_bytes);
    return music_tool_write_file(path, h, sizeof(h), pcm, data_bytes);
}

double music_tool_dbfs(double level) { return level > 0.0 ? 20.0 * log10(level / MUSIC_TOOL_FULL_SCALE) : -INFINITY; }

// Peak, loudness and DC of one channel: what a person would first check of a mix.
void music_tool_print_levels(const char* name, const int16_t* pcm, uint32_t frames)
{
    double sum = 0.0;
    double squares = 0.0;
    int32_t peak = 0;
    for (uint32_t i = 0; i < frames; i++) {
        const int32_t v = pcm[2 * i];
        sum += v;
        squares += (double)v * v;
        peak = abs(v) > peak ? abs(v) : peak;
    }
    printf("%s: peak %.1f dBFS, rms %.1f dBFS, dc %.2f\n", name, music_tool_dbfs(peak),
           music_tool_dbfs(sqrt(squares / frames)), sum / frames);
}

double music_tool_ms_since(uint64_t start_ns)
{
    return (double)(prof_monotonic_ns() - start_ns) / MUSIC_TOOL_NS_PER_MS;
}

}  // namespace

int main(int argc, char** argv)
{
    const music_tool_options opt = music_tool_parse(argc, argv);
    const music_synth_song* song = music_synth_show_song();
    const uint32_t frames = music_synth_song_frames(song);
    const uint64_t pcm_bytes = (uint64_t)frames * MUSIC_TOOL_FRAME_BYTES;
    const uint64_t capacity = 2 * pcm_bytes + frames + music_synth_scratch_bytes(song) + 256;
    void* memory = malloc(capacity);
    if (!memory) {
        fprintf(stderr, "reel_music: no memory for %llu bytes\n", (unsigned long long)capacity);
        return 1;
    }
    xmemarena arena;
    xmemarena_init(&arena, "reel_music", capacity, memory);
    auto* pcm = (int16_t*)xmemarena_push_align(&arena, pcm_bytes, alignof(int16_t));
    auto* decoded = (int16_t*)xmemarena_push_align(&arena, pcm_bytes, alignof(int16_t));
    auto* stream = (uint8_t*)xmemarena_push(&arena, frames);

    uint64_t start = prof_monotonic_ns();
    music_synth_render(pcm, song, &arena);
    const double synth_ms = music_tool_ms_since(start);

    start = prof_monotonic_ns();
    music_encode_stream(stream, pcm, frames, MUSIC_ENCODE_BEAM_GREEDY);
    const double greedy_ms = music_tool_ms_since(start);
    music_encode_decode(decoded, stream, frames);
    const double greedy_snr = music_encode_snr_db(pcm, decoded, frames);

    start = prof_monotonic_ns();
    music_encode_stream(stream, pcm, frames, opt.beam_width);
    const double encode_ms = music_tool_ms_since(start);
    music_encode_decode(decoded, stream, frames);
    const double snr = music_encode_snr_db(pcm, decoded, frames);

    printf("music: %u frames, %.3f s, %u bars at %u bpm, %u bytes\n", frames, (double)frames / MUSIC_SAMPLE_RATE,
           song->bars, song->bpm, frames);
    printf("synthesis: %.0f ms\n", synth_ms);
    printf("encoding: %.0f ms with a beam of %u (greedy: %.0f ms)\n", encode_ms, opt.beam_width, greedy_ms);
    printf("snr: %.2f dB (greedy: %.2f dB)\n", snr, greedy_snr);
    music_tool_print_levels("left", pcm, frames);
    music_tool_print_levels("right", pcm + 1, frames);

    bool ok = music_tool_write_file(opt.out_path, "", 0, stream, frames);
    if (ok && opt.wav_path)
        ok = music_tool_write_wav(opt.wav_path, pcm, frames);
    if (ok && opt.decoded_wav_path)
        ok = music_tool_write_wav(opt.decoded_wav_path, decoded, frames);
    if (ok)
        printf("wrote %s%s%s%s%s\n", opt.out_path, opt.wav_path ? ", " : "", opt.wav_path ? opt.wav_path : "",
               opt.decoded_wav_path ? ", " : "", opt.decoded_wav_path ? opt.decoded_wav_path : "");
    free(memory);
    return ok ? 0 : 1;
}
