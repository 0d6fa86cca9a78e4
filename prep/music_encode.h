// The encoder of the show's music stream: turns 16-bit stereo PCM at 22,050 Hz into the 4-bit
// ADPCM bytes that the player in music.h decodes (one byte per stereo frame, low nibble left,
// high nibble right), plus a decoder to PCM and a signal-to-noise measure for tests and tools.
//
// The decoder has no code for "no change" and its step adapts to every code, so the code that
// is nearest now can leave the step too small or too large for what follows. The encoder
// therefore searches: per channel it keeps a beam of the best few code sequences (by summed
// squared error against the input), simulating the real decoder on copies of its state, and
// fixes each code once it lies MUSIC_ENCODE_DECISION_DELAY samples behind the newest one. A
// beam of one is the plain greedy choice per sample (the nearest code, ties to the lower one);
// a wider beam also measures greedy and keeps it for a channel where it was better, so no
// width ever does worse than greedy. All working memory is on the stack.
#pragma once

#include <cstdint>

constexpr uint32_t MUSIC_ENCODE_BEAM_GREEDY = 1;   // nearest code per sample, no look-ahead
constexpr uint32_t MUSIC_ENCODE_BEAM_DEFAULT = 8;  // what the tool and the show use
constexpr uint32_t MUSIC_ENCODE_BEAM_MAX = 32;
// Codes are decided this many samples late; 16 codes of 4 bits fill one 64-bit history.
constexpr uint32_t MUSIC_ENCODE_DECISION_DELAY = 16;

// Writes `frames` bytes to `out` for `frames` interleaved stereo frames of `pcm`. A beam width
// of 0 or above MUSIC_ENCODE_BEAM_MAX is fatal. The result depends on nothing but the input.
void music_encode_stream(uint8_t* out, const int16_t* pcm, uint32_t frames, uint32_t beam_width);

// Decodes a stream from reset decoders, exactly as the player does: `frames` bytes to
// `frames` interleaved stereo frames.
void music_encode_decode(int16_t* pcm, const uint8_t* stream, uint32_t frames);

// 10 log10(signal energy / error energy) over both channels of `frames` stereo frames;
// +infinity when the two are equal, -infinity when the original is silent and they differ.
double music_encode_snr_db(const int16_t* original, const int16_t* decoded, uint32_t frames);
