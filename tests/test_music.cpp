#include <gtest/gtest.h>

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
        for (uint32_t i = 2 * from; i < 2 * to; i++)
            if (out[i] != 0)
                return false;
        return true;
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

// the decoder straight from its definition, to compare whole streams against
struct reference_decoder {
    int32_t predictor = 0, index = 0;
    int32_t decode(uint32_t n)
    {
        const int32_t step = adpcm_step_table[index];
        const int32_t diff = ((step * (int32_t)(n & 7)) >> 2) + (step >> 3);
        predictor += (n & 8) ? -diff : diff;
        predictor = predictor < -32768 ? -32768 : predictor > 32767 ? 32767 : predictor;
        index += adpcm_index_table[n];
        index = index < 0 ? 0 : index > 88 ? 88 : index;
        return predictor;
    }
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
    adpcm_decoder reset;
    adpcm_reset(&reset);
    EXPECT_TRUE(reset.predictor == 0 && reset.step_index == 0 && reset.step == 7);
}

TEST_F(music_fixture, clock_stands_until_started_and_ready)
{
    mix(1024);
    EXPECT_TRUE(silent(0, 1024));
    EXPECT_EQ(music_sample_counter(), 0);
    music_prepare(0);
    mix(1024);
    EXPECT_EQ(music_sample_counter(), 0);  // ready but not started
    static const uint8_t data[4] = {0x77, 0x77, 0x77, 0x77};
    music_start(data, 4, 0);
    mix(16);
    EXPECT_EQ(music_sample_counter(), 16);
}

TEST_F(music_fixture, lead_in_then_music_byte_zero)
{
    const std::vector<uint8_t> data = varied_stream(4000);
    play(data, 1500);
    music_seek(1000);
    mix(1024);
    EXPECT_TRUE(silent(0, 500));
    reference_decoder left, right;
    for (uint32_t i = 0; i < 524; i++) {
        ASSERT_EQ(out[2 * (500 + i)], left.decode(data[i] & 15)) << i;
        ASSERT_EQ(out[2 * (500 + i) + 1], right.decode(data[i] >> 4)) << i;
    }
    EXPECT_TRUE(music_sample_counter() == 2024 && music_global.music_position.load() == 524);
    // the next callback continues the stream without a gap
    mix(10);
    EXPECT_EQ(out[0], left.decode(data[524] & 15));
}

TEST_F(music_fixture, end_of_music_is_silence_while_the_clock_runs)
{
    std::vector<uint8_t> data(1000, 0x77);
    play(data);
    mix(1024);
    EXPECT_TRUE(out[2 * 999] != 0 && silent(1000, 1024) && music_sample_counter() == 1024);
    mix(1024);
    EXPECT_TRUE(silent(0, 1024) && music_sample_counter() == 2048);
}

// Volume 128 - (position - fade start) / 512 from the fade start on, applied as (sample x
// volume) >> 7: the stream is mixed up to the position, so the decoder state matches.
TEST_F(music_fixture, fade_volume_steps_every_512_samples)
{
    std::vector<uint8_t> data(80000);
    for (size_t i = 0; i < data.size(); i++)
        data[i] = (i & 1) ? 0x77 : 0xFF;
    reference_decoder left;
    std::vector<int32_t> ref_left(data.size());
    for (size_t i = 0; i < data.size(); i++)
        ref_left[i] = left.decode(data[i] & 15);
    const int32_t cases[][2] = {{10000, 128}, {10511, 127}, {10512, 126}, {75024, 0}};  // position, volume
    for (const auto& c : cases) {
        music_reset();
        play(data);
        music_set_fade_start(10000);  // as the fade_out_music scene does, after the start
        std::vector<int16_t> skip(2 * (size_t)c[0] + 2);
        music_mix(skip.data(), (uint32_t)c[0]);
        int16_t frame[2];
        music_mix(frame, 1);
        ASSERT_NE(ref_left[c[0]], 0);
        EXPECT_EQ(frame[0], (ref_left[c[0]] * c[1]) >> 7) << c[0];
    }
}

TEST_F(music_fixture, seek_moves_only_the_clock_keeps_the_decoders_and_stops_at_zero)
{
    const std::vector<uint8_t> data = varied_stream(12000);
    play(data);
    mix(100);
    music_seek(9900);
    EXPECT_EQ(music_sample_counter(), 10000);
    // the byte at the new position, decoded with the predictor and step the first 100 bytes left
    reference_decoder left, right;
    for (size_t i = 0; i < 100; i++)
        left.decode(data[i] & 15), right.decode(data[i] >> 4);
    mix(1);
    EXPECT_TRUE(out[0] == left.decode(data[10000] & 15) && out[1] == right.decode(data[10000] >> 4));
    music_seek(-1), music_seek(-22050);
    EXPECT_EQ(music_sample_counter(), 0);
    music_seek(2205), music_seek(-2205);
    EXPECT_EQ(music_sample_counter(), 0);
    EXPECT_DOUBLE_EQ((music_seek(22050), music_seconds()), 1.0);
}

TEST_F(music_fixture, prepare_resets_the_clock_and_restart_resets_decoders)
{
    std::vector<uint8_t> data(64, 0x77);
    play(data);
    mix(32);
    const int16_t first = out[0];
    music_prepare(0);
    EXPECT_EQ(music_sample_counter(), 0);
    music_start(data.data(), 64, 0);
    mix(1);
    EXPECT_EQ(out[0], first);  // decoders start from scratch, not from the old predictor
}

TEST_F(music_fixture, callback_mixes_length_over_four_frames)
{
    std::vector<uint8_t> data(2048, 0x70);
    play(data);
    audio_callback(nullptr, (uint8_t*)out.data(), 4096);
    EXPECT_EQ(music_sample_counter(), 1024);
}
