// reel_music: makes the show's music. Renders the piece with the synthesiser, encodes it to the
// player's 4-bit ADPCM stream and writes the raw bytes (one per stereo frame, no header: the
// pack stores them as a blob). For a person to listen to, it can also write the synthesised
// PCM and the stream decoded again as WAV files. It prints the length, the time taken, the
// signal-to-noise ratio of the stream, the levels of the music and, section by section, those
// of the stream as the player decodes it: loudness, peak, the longest run of samples at full
// scale and the longest near-silence.
//
//   reel_music OUT.bin [--wav OUT.wav] [--decoded-wav OUT.wav] [--beam N]
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "diag.h"
#include "memarena.h"
#include "music.h"
#include "music_encode.h"
#include "music_synth.h"
#include "tool.h"

namespace {

constexpr uint32_t MUSIC_TOOL_FRAME_BYTES = 4;  // two signed 16-bit samples
constexpr uint32_t MUSIC_TOOL_WAV_HEADER_BYTES = 44;
constexpr uint32_t MUSIC_TOOL_WAV_FMT_BYTES = 16;
constexpr uint16_t MUSIC_TOOL_WAV_PCM = 1;
constexpr uint16_t MUSIC_TOOL_BITS = 16;
constexpr double MUSIC_TOOL_FULL_SCALE = 32768.0;
constexpr double MUSIC_TOOL_NS_PER_MS = 1e6;
constexpr int32_t MUSIC_TOOL_CLIPPED = 32767;  // and -32768: the decoder's clamps
constexpr int32_t MUSIC_TOOL_QUIET = 33;       // below -60 dBFS on both sides counts as silence

struct music_tool_options {
    const char* out_path;
    const char* wav_path;
    const char* decoded_wav_path;
    uint32_t beam_width;
};

const char MUSIC_TOOL_USAGE[] =
    "usage: reel_music OUT.bin [--wav OUT.wav] [--decoded-wav OUT.wav] [--beam N]\n"
    "Renders the show's music, encodes it as 4-bit stereo ADPCM at 22,050 Hz and writes the\n"
    "stream to OUT.bin (one byte per stereo frame, no header).\n"
    "  --wav FILE          also write the synthesised music (16-bit stereo WAV)\n"
    "  --decoded-wav FILE  also write the stream as the player decodes it\n"
    "  --beam N            paths the encoder keeps, 1 (greedy) to 32 (default 8)\n";
static_assert(MUSIC_ENCODE_BEAM_MAX == 32 && MUSIC_ENCODE_BEAM_DEFAULT == 8, "the usage text names both");

const tool_info MUSIC_TOOL = {"reel_music", MUSIC_TOOL_USAGE};

music_tool_options music_tool_parse(int argc, char** argv)
{
    music_tool_options o = {nullptr, nullptr, nullptr, MUSIC_ENCODE_BEAM_DEFAULT};
    for (int i = 1; i < argc; i++) {
        const char* a = argv[i];
        if (!strcmp(a, "--wav")) {
            o.wav_path = tool_option_value(argc, argv, &i);
        } else if (!strcmp(a, "--decoded-wav")) {
            o.decoded_wav_path = tool_option_value(argc, argv, &i);
        } else if (!strcmp(a, "--beam")) {
            o.beam_width = (uint32_t)tool_parse_u64(a, tool_option_value(argc, argv, &i), MUSIC_ENCODE_BEAM_GREEDY,
                                                    MUSIC_ENCODE_BEAM_MAX);
        } else if (a[0] == '-') {
            tool_usage_error("unknown option \"%s\"", a);
        } else if (o.out_path) {
            tool_usage_error("only one output file");
        } else {
            o.out_path = a;
        }
    }
    if (!o.out_path)
        tool_usage_error("no output file");
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

// Samples are written as they lie in memory, which is little-endian on every host we build for.
void music_tool_write_wav(const char* path, const int16_t* pcm, uint32_t frames)
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
    tool_write_file(path, h, sizeof(h), pcm, data_bytes);
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

// The figures of one section of the decoded stream, both channels together.
void music_tool_print_section(const music_synth_show_section* section, const int16_t* pcm)
{
    const uint32_t first = music_synth_show_bar_frame(section->first_bar);
    const uint32_t end = music_synth_show_bar_frame(section->end_bar);
    double squares = 0.0;
    int32_t peak = 0;
    uint32_t clipped_run[2] = {0, 0};
    uint32_t clipped_longest = 0;
    uint32_t quiet_run = 0;
    uint32_t quiet_longest = 0;
    for (uint32_t i = first; i < end; i++) {
        bool quiet = true;
        for (uint32_t c = 0; c < MUSIC_CHANNELS; c++) {
            const int32_t v = pcm[MUSIC_CHANNELS * i + c];
            squares += (double)v * v;
            peak = abs(v) > peak ? abs(v) : peak;
            quiet = quiet && abs(v) < MUSIC_TOOL_QUIET;
            clipped_run[c] = v >= MUSIC_TOOL_CLIPPED || v < -MUSIC_TOOL_CLIPPED ? clipped_run[c] + 1 : 0;
            clipped_longest = clipped_run[c] > clipped_longest ? clipped_run[c] : clipped_longest;
        }
        quiet_run = quiet ? quiet_run + 1 : 0;
        quiet_longest = quiet_run > quiet_longest ? quiet_run : quiet_longest;
    }
    printf(
        "%-9s bars %2u-%2u  %5.1f-%5.1f s: rms %6.1f dBFS, peak %5.1f dBFS, longest clipped run %u, "
        "longest silence %.3f s\n",
        section->name, section->first_bar, section->end_bar - 1, (double)first / MUSIC_SAMPLE_RATE,
        (double)end / MUSIC_SAMPLE_RATE, music_tool_dbfs(sqrt(squares / (MUSIC_CHANNELS * (end - first)))),
        music_tool_dbfs(peak), clipped_longest, (double)quiet_longest / MUSIC_SAMPLE_RATE);
}

double music_tool_ms_since(uint64_t start_ns)
{
    return (double)(prof_monotonic_ns() - start_ns) / MUSIC_TOOL_NS_PER_MS;
}

}  // namespace

int main(int argc, char** argv)
{
    tool_begin(&MUSIC_TOOL, argc, argv);
    const music_tool_options opt = music_tool_parse(argc, argv);
    const music_synth_song* song = music_synth_show_song();
    const uint32_t frames = music_synth_song_frames(song);
    const uint64_t pcm_bytes = (uint64_t)frames * MUSIC_TOOL_FRAME_BYTES;
    const uint64_t capacity = 2 * pcm_bytes + frames + music_synth_scratch_bytes(song) + 256;
    void* memory = malloc(capacity);
    if (!memory) {
        tool_fail("no memory for %llu bytes", (unsigned long long)capacity);
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
    music_encode_stream(stream, pcm, frames, opt.beam_width);
    const double encode_ms = music_tool_ms_since(start);
    music_encode_decode(decoded, stream, frames);
    const double snr = music_encode_snr_db(pcm, decoded, frames);

    printf("music: %u frames, %.3f s, %u bars at %u bpm, %u bytes\n", frames, (double)frames / MUSIC_SAMPLE_RATE,
           song->bars, song->bpm, frames);
    printf("synthesis: %.0f ms\n", synth_ms);
    printf("encoding: %.0f ms with a beam of %u\n", encode_ms, opt.beam_width);
    printf("snr: %.2f dB\n", snr);
    music_tool_print_levels("left", pcm, frames);
    music_tool_print_levels("right", pcm + 1, frames);
    // the sections belong to the show's piece, which is the song rendered here
    printf("decoded, by section:\n");
    for (const music_synth_show_section& section : MUSIC_SYNTH_SHOW_SECTIONS)
        music_tool_print_section(&section, decoded);

    tool_write_file(opt.out_path, "", 0, stream, frames);
    if (opt.wav_path)
        music_tool_write_wav(opt.wav_path, pcm, frames);
    if (opt.decoded_wav_path)
        music_tool_write_wav(opt.decoded_wav_path, decoded, frames);
    printf("wrote %s%s%s%s%s\n", opt.out_path, opt.wav_path ? ", " : "", opt.wav_path ? opt.wav_path : "",
           opt.decoded_wav_path ? ", " : "", opt.decoded_wav_path ? opt.decoded_wav_path : "");
    free(memory);
    return 0;
}
