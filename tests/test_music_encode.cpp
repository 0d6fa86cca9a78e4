// The music encoder against the player's decoder.
#include <gtest/gtest.h>
#include <cmath>
#include <vector>
#include "music.h"
#include "music_encode.h"
#include "vmath.h"

namespace {
typedef std::vector<int16_t> pcm_buffer;  // interleaved stereo
constexpr uint32_t RATE = MUSIC_SAMPLE_RATE;
constexpr double TWO_PI = 6.283185307179586;

// stereo frames from f(frame, channel), left first
template <class F>
pcm_buffer make(uint32_t frames, F f)
{
    pcm_buffer pcm(2 * frames);
    for (uint32_t i = 0; i < 2 * frames; i++)
        pcm[i] = (int16_t)lround(f(i / 2, i % 2));
    return pcm;
}

pcm_buffer make_sine(uint32_t frames, double hz_left, double hz_right, double amplitude)
{
    return make(frames, [=](uint32_t i, uint32_t c) { return amplitude * sin(TWO_PI * (c ? hz_right : hz_left) * i / RATE); });
}

pcm_buffer make_square(uint32_t frames, uint32_t half_period_left, uint32_t half_period_right)
{
    return make(frames, [=](uint32_t i, uint32_t c) {
        return (i / (c ? half_period_right : half_period_left) + c) % 2 ? -32768.0 : 32767.0;
    });
}

pcm_buffer make_noise(uint32_t frames, uint64_t seed, float amplitude)
{
    pcg32 rng = {seed, 2 * seed + 1};
    return make(frames, [&](uint32_t, uint32_t) { return amplitude * (2.0f * pcg32_random_float01(&rng) - 1.0f); });
}

std::vector<uint8_t> encode(const pcm_buffer& pcm, uint32_t beam)
{
    std::vector<uint8_t> stream(pcm.size() / 2);
    music_encode_stream(stream.data(), pcm.data(), (uint32_t)stream.size(), beam);
    return stream;
}

// the squared error of the decoded stream against the input
double squared_error(const pcm_buffer& pcm, uint32_t beam)
{
    pcm_buffer back(pcm.size());
    music_encode_decode(back.data(), encode(pcm, beam).data(), (uint32_t)pcm.size() / 2);
    double sum = 0.0;
    for (size_t i = 0; i < pcm.size(); i++)
        sum += ((double)pcm[i] - back[i]) * ((double)pcm[i] - back[i]);
    return sum;
}

// The nearest of all sixteen codes at every sample, ties to the lower code: greedy by definition.
std::vector<uint8_t> reference_greedy(const pcm_buffer& pcm)
{
    const uint32_t frames = (uint32_t)pcm.size() / 2;
    std::vector<uint8_t> stream(frames, 0);
    for (uint32_t channel = 0; channel < 2; channel++) {
        adpcm_decoder d;
        adpcm_reset(&d);
        for (uint32_t i = 0; i < frames; i++) {
            uint32_t best_code = 0;
            int64_t best_error = INT64_MAX;
            for (uint32_t code = 0; code < 16; code++) {
                adpcm_decoder trial = d;
                const int64_t e = pcm[2 * i + channel] - adpcm_decode_nibble(&trial, code);
                if (e * e < best_error)
                    best_error = e * e, best_code = code;
            }
            adpcm_decode_nibble(&d, best_code);
            stream[i] |= (uint8_t)(best_code << (4 * channel));
        }
    }
    return stream;
}
}  // namespace

TEST(music_encode, greedy_takes_the_nearest_code_of_all_sixteen)
{
    // the encoder tries only the codes near the target; this shows none of the others was better
    for (const pcm_buffer& pcm :
         {make_sine(RATE / 2, 440.0, 660.0, 30000.0), make_noise(RATE / 4, 7, 20000.0f), make_square(RATE / 8, 50, 3)})
        EXPECT_EQ(encode(pcm, MUSIC_ENCODE_BEAM_GREEDY), reference_greedy(pcm));
}

TEST(music_encode, look_ahead_is_never_worse_than_greedy)
{
    std::vector<pcm_buffer> signals = {make_sine(RATE / 8, 100.0, 3000.0, 20000.0), make_square(RATE / 8, 11, 300),
                                       pcm_buffer(2 * 1000, 0)};
    for (uint64_t seed = 1; seed <= 4; seed++)
        signals.push_back(make_noise(RATE / 16, seed, 2000.0f * (float)seed * (float)seed));
    for (size_t s = 0; s < signals.size(); s++)
        for (uint32_t beam : {2u, MUSIC_ENCODE_BEAM_DEFAULT, MUSIC_ENCODE_BEAM_MAX})
            EXPECT_LE(squared_error(signals[s], beam), squared_error(signals[s], MUSIC_ENCODE_BEAM_GREEDY)) << s << " " << beam;
}

TEST(music_encode_death, rejects_beam_widths_out_of_range)
{
    const pcm_buffer pcm(4, 0);
    uint8_t out[2];
    EXPECT_DEATH(music_encode_stream(out, pcm.data(), 2, 0), "music_encode_stream");
    EXPECT_DEATH(music_encode_stream(out, pcm.data(), 2, MUSIC_ENCODE_BEAM_MAX + 1), "beam width 33");
}
