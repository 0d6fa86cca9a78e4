// The music stream and the show clock. The music is 4-bit stereo ADPCM at 22,050 Hz, one byte
// per stereo frame (low nibble left, high nibble right), decoded on the fly by the audio
// callback; the number of stereo samples the callback has produced, `sample_counter`, is the
// clock of the whole show. No SDL in here: the host hooks `audio_callback` to its device, and a
// headless host calls `music_mix` itself.
//
// Threads: the audio thread runs the callback, the main thread everything else. Every shared
// field is a std::atomic of 32 bits (or a pointer), so each read sees a whole value, and the
// clock is never lost to a race: the callback reads the counter once and then *adds* the frames
// it produced (fetch_add) instead of storing a value computed from its earlier read, and a seek
// adds its delta with a compare-and-swap that clamps at 0. A seek that lands while a callback is
// running therefore survives it; that callback merely decodes from the pre-seek position. The
// decoders belong to the audio thread alone: `music_start` bumps a generation number that the
// callback notices and answers by resetting them, so the main thread never writes decoder state.
#pragma once

#include <atomic>
#include <cstdint>

constexpr uint32_t MUSIC_SAMPLE_RATE = 22050;
constexpr uint32_t MUSIC_CHANNELS = 2;
constexpr uint32_t MUSIC_CALLBACK_FRAMES = 1024;
constexpr uint32_t MUSIC_FADE_SHIFT = 9;  // the volume drops one step per 512 samples
constexpr int32_t MUSIC_STEP_INDEX_MAX = 88;

struct adpcm_decoder {
    int32_t predictor;   // the last output sample
    int32_t step_index;  // 0 to 88
    int32_t step;        // adpcm_step_table[step_index]
};

extern const int16_t adpcm_step_table[89];
extern const int8_t adpcm_index_table[16];

void adpcm_reset(adpcm_decoder* decoder);
int32_t adpcm_decode_nibble(adpcm_decoder* decoder, uint32_t code);

struct music_player {
    std::atomic<int32_t> sample_counter;  // the show clock, compared as signed
    std::atomic<uint32_t> started;
    std::atomic<uint32_t> ready;
    std::atomic<int32_t> lead_in;         // clock value at which music byte 0 plays
    std::atomic<int32_t> music_position;  // next byte to decode
    std::atomic<const uint8_t*> data;
    std::atomic<uint32_t> length;
    std::atomic<int32_t> fade_start;  // music position after which the fade runs; 0: no fade
    std::atomic<uint32_t> start_generation;
    // audio thread only
    uint32_t decoded_generation;
    adpcm_decoder left;
    adpcm_decoder right;
};

extern music_player music_global;

// Main thread.
void music_prepare(int32_t lead_in);
void music_start(const uint8_t* data, uint32_t length, int32_t fade_start);
void music_set_fade_start(int32_t music_position);
void music_seek(int32_t delta);
// Back to the state of process start (not started, not ready, clock 0); for hosts and tests.
void music_reset();
static inline int32_t music_sample_counter() { return music_global.sample_counter.load(std::memory_order_relaxed); }
static inline double music_seconds() { return music_sample_counter() / 22050.0; }

// Audio thread (or a headless host standing in for it): writes `frames` stereo frames of
// signed 16-bit samples and advances the clock.
void music_mix(int16_t* stream, uint32_t frames);
// The device callback: length in bytes, 4 per frame.
void audio_callback(void* user_data, uint8_t* stream, int length);
