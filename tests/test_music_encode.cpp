// The music encoder against the player's decoder.
#include <gtest/gtest.h>
#include <cmath>
#include "music.h"
#include "music_encode.h"
#include "vmath.h"

namespace {
typedef std::vector<int16_t> pcm_buffer;  // interleaved stereo
constexpr uint32_t RATE = MUSIC_SAMPLE_RATE;

// Stereo frames, left first: tones of two pitches, full-scale squares of two half periods (in opposite phase) or noise.
pcm_buffer make(uint32_t frames, char kind, double left, double right, double amplitude)
{
    pcm_buffer pcm(2 * frames);
    pcg32 rng = {(uint64_t)left, 2 * (uint64_t)left + 1};
    for (uint32_t i = 0; i < 2 * frames; i++) {
        const double x = i % 2 ? right : left, t = i / 2;
        pcm[i] = (int16_t)lround(kind == 's'   ? amplitude * sin(6.283185307179586 * x * t / RATE)
                                 : kind == 'q' ? ((uint32_t)(t / x) + i % 2) % 2 ? -32768.0 : 32767.0
                                               : amplitude * (2.0f * pcg32_random_float01(&rng) - 1.0f));
    }
    return pcm;
}

// the signal's energy over the squared error of the decoded stream, in dB
double snr_db(const pcm_buffer& pcm, uint32_t beam)
{
    std::vector<uint8_t> stream(pcm.size() / 2);
    pcm_buffer back(pcm.size());
    music_encode_stream(stream.data(), pcm.data(), (uint32_t)stream.size(), beam);
    music_encode_decode(back.data(), stream.data(), (uint32_t)stream.size());
    double signal = 0.0, error = 0.0;
    for (size_t i = 0; i < pcm.size(); i++)
        signal += (double)pcm[i] * pcm[i], error += ((double)pcm[i] - back[i]) * ((double)pcm[i] - back[i]);
    return 10.0 * log10(signal / error);
}
}  // namespace

// The nearest of all sixteen codes at every sample, ties to the lower code, is greedy by
// definition; the encoder tries only the codes near the target.
TEST(music_encode, greedy_takes_the_nearest_code_of_all_sixteen)
{
    for (const pcm_buffer& pcm : {make(RATE / 2, 's', 440, 660, 30000), make(RATE / 4, 'n', 7, 7, 20000),
                                  make(RATE / 8, 'q', 50, 3, 0)}) {
        std::vector<uint8_t> stream(pcm.size() / 2, 0);
        for (uint32_t channel = 0; channel < 2; channel++) {
            adpcm_decoder d;
            adpcm_reset(&d);
            for (uint32_t i = 0; i < stream.size(); i++) {
                uint32_t best_code = 0;
                int64_t best_error = INT64_MAX;
                for (uint32_t code = 0; code < 16; code++) {
                    adpcm_decoder trial = d;
                    const int64_t e = pcm[2 * i + channel] - adpcm_decode_nibble(&trial, code);
                    best_code = e * e < best_error ? (best_error = e * e, code) : best_code;
                }
                adpcm_decode_nibble(&d, best_code);
                stream[i] |= (uint8_t)(best_code << (4 * channel));
            }
        }
        std::vector<uint8_t> encoded(stream.size());
        music_encode_stream(encoded.data(), pcm.data(), (uint32_t)stream.size(), MUSIC_ENCODE_BEAM_GREEDY);
        EXPECT_EQ(encoded, stream);
    }
}

// A wider beam looks further ahead and is never worse than greedy; a tone of a tenth of full scale
// comes back at least 30 dB above the coding noise.
TEST(music_encode, look_ahead_is_never_worse_than_greedy_and_a_tone_survives_the_round_trip)
{
    for (const pcm_buffer& pcm : {make(RATE / 8, 's', 100, 3000, 20000), make(RATE / 8, 'q', 11, 300, 0),
                                  make(RATE / 16, 'n', 1, 1, 2000), make(RATE / 16, 'n', 4, 4, 32000)})
        for (uint32_t beam : {2u, MUSIC_ENCODE_BEAM_DEFAULT, MUSIC_ENCODE_BEAM_MAX})
            EXPECT_GE(snr_db(pcm, beam), snr_db(pcm, MUSIC_ENCODE_BEAM_GREEDY)) << beam;
    EXPECT_GE(snr_db(make(RATE, 's', 440, 660, 3276), MUSIC_ENCODE_BEAM_DEFAULT), 30.0);
}

TEST(music_encode_death, rejects_beam_widths_out_of_range)
{
    const pcm_buffer pcm(4, 0);
    uint8_t out[2];
    EXPECT_DEATH(music_encode_stream(out, pcm.data(), 2, 0), "music_encode_stream");
    EXPECT_DEATH(music_encode_stream(out, pcm.data(), 2, MUSIC_ENCODE_BEAM_MAX + 1), "beam width 33");
}
