// The music player: the ADPCM decoder, the clock, lead-in, end, fade and seek.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "music.h"

namespace {

struct music_fixture : testing::Test {
    std::vector<int16_t> out = std::vector<int16_t>(2 * 4096, 0x5555);
    void SetUp() override { music_reset(); }
    void mix(uint32_t frames) { music_mix(out.data(), frames); }
    void play(const std::vector<uint8_t>& data, int32_t lead_in = 0)
    {
        music_prepare(lead_in);
        music_start(data.data(), (uint32_t)data.size(), 0);
    }
    bool silent(uint32_t from, uint32_t to) const
    {
        return std::all_of(out.begin() + 2 * from, out.begin() + 2 * to, [](int16_t v) { return v == 0; });
    }
};

// a stream whose bytes vary, so that every code occurs
std::vector<uint8_t> varied_stream(size_t size)
{
    std::vector<uint8_t> data(size);
    for (size_t i = 0; i < size; i++)
        data[i] = (uint8_t)(i * 37 + 11);
    return data;
}

// A decoder from the reset state, whose single steps the table below pins down.
struct stream_decoder {
    adpcm_decoder d;
    stream_decoder() { adpcm_reset(&d); }
    int32_t decode(uint32_t code) { return adpcm_decode_nibble(&d, code); }
};

}  // namespace

TEST(music_adpcm, products_not_shifted_sums_and_clamped_predictor_and_index)
{
    // decoder state, code, then sample, step index and step after it. From the reset state (step
    // 7): 7 x 3 >> 2 + 7 >> 3 = 5; code 0 adds 7 >> 3 = 0; code 8 and up subtract. Step 2272 at
    // index 60: code 0 adds 284 and clamps at 32767; the index stays inside 0 to 88.
    const struct { adpcm_decoder d; uint32_t code; int32_t sample, index, step; } cases[] = {
        {{0, 0, 7}, 3, 5, 0, 7},     {{0, 0, 7}, 7, 12, 8, 16},     {{0, 0, 7}, 0, 0, 0, 7},
        {{0, 0, 7}, 15, -12, 8, 16}, {{32760, 60, 2272}, 0, 32767, 59, 2066},
        {{-32760, 88, 32767}, 15, -32768, 88, 32767}, {{0, 0, 7}, 1, 1, 0, 7}};
    for (const auto& c : cases) {
        adpcm_decoder d = c.d;
        EXPECT_EQ(adpcm_decode_nibble(&d, c.code), c.sample) << c.code;
        EXPECT_TRUE(d.step_index == c.index && d.step == c.step) << c.code << " " << d.step_index << " " << d.step;
    }
    const stream_decoder reset;
    EXPECT_TRUE(reset.d.predictor == 0 && reset.d.step_index == 0 && reset.d.step == 7);
}

// The clock stands until the music is both prepared and started. Byte i holds frame i: its low
// nibble the left sample, its high one the right. A seek moves only the clock: the decoders go on
// from the state the bytes played so far left.
TEST_F(music_fixture, lead_in_then_music_byte_zero_and_seeks_keep_the_decoders)
{
    const std::vector<uint8_t> data = varied_stream(12000);
    music_prepare(1500);
    mix(16);
    EXPECT_EQ(music_sample_counter(), 0) << "ready, not started: the clock stands";
    music_start(data.data(), (uint32_t)data.size(), 0);
    music_seek(1000);
    mix(1024);
    EXPECT_TRUE(silent(0, 500));
    stream_decoder left, right;
    for (uint32_t i = 0; i < 524; i++) {
        ASSERT_EQ(out[2 * (500 + i)], left.decode(data[i] & 15)) << i;
        ASSERT_EQ(out[2 * (500 + i) + 1], right.decode(data[i] >> 4)) << i;
    }
    EXPECT_TRUE(music_sample_counter() == 2024 && music_global.music_position.load() == 524);
    mix(10);  // the next callback continues the stream without a gap
    for (uint32_t i = 524; i < 534; i++)
        ASSERT_TRUE(out[2 * (i - 524)] == left.decode(data[i] & 15) &&
                    out[2 * (i - 524) + 1] == right.decode(data[i] >> 4));
    music_seek(9000);
    EXPECT_EQ(music_sample_counter(), 11034);
    mix(1);
    EXPECT_TRUE(out[0] == left.decode(data[9534] & 15) && out[1] == right.decode(data[9534] >> 4));
    music_seek(-1);
    music_seek(-22050);
    EXPECT_EQ(music_sample_counter(), 0) << "a seek stops at zero";
    EXPECT_DOUBLE_EQ((music_seek(22050), music_seconds()), 1.0);
}

// Past its end the music is silence while the clock runs; preparing again resets the clock and
// a new start the decoders.
TEST_F(music_fixture, end_of_music_is_silence_while_the_clock_runs_and_a_restart_starts_afresh)
{
    std::vector<uint8_t> data(1000, 0x77);
    play(data);
    mix(1024);
    const int16_t first = out[0];
    EXPECT_TRUE(out[2 * 999] != 0 && silent(1000, 1024) && music_sample_counter() == 1024);
    audio_callback(nullptr, (uint8_t*)out.data(), 4096);  // bytes, four to a stereo frame
    EXPECT_TRUE(silent(0, 1024) && music_sample_counter() == 2048);
    EXPECT_EQ((music_prepare(0), music_sample_counter()), 0);
    music_start(data.data(), 1000, 0);
    mix(1);
    EXPECT_EQ(out[0], first);  // decoders start from scratch, not from the old predictor
}

// Volume 128 - (position - fade start) / 512 from the fade start on, applied as (sample x
// volume) >> 7: the stream is mixed up to the position, so the decoder state matches.
TEST_F(music_fixture, fade_volume_steps_every_512_samples)
{
    std::vector<uint8_t> data(80000);
    std::vector<int32_t> left;
    stream_decoder decoder;
    for (size_t i = 0; i < data.size(); i++) {
        data[i] = (i & 1) ? 0x77 : 0xFF;
        left.push_back(decoder.decode(data[i] & 15));
    }
    const int32_t cases[][2] = {{10000, 128}, {10511, 127}, {10512, 126}, {75024, 0}};  // position, volume
    for (const auto& c : cases) {
        music_reset();
        play(data);
        music_set_fade_start(10000);  // as the fade_out_music scene does, after the start
        std::vector<int16_t> skip(2 * (size_t)c[0] + 2);
        music_mix(skip.data(), (uint32_t)c[0]);
        music_mix(skip.data(), 1);
        ASSERT_NE(left[c[0]], 0);
        EXPECT_EQ(skip[0], (left[c[0]] * c[1]) >> 7) << c[0];
    }
}
