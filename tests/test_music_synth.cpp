// The synthesiser's note grid on small songs whose times and pitches follow from the arithmetic,
// and the show's piece: its length, its sections, no clipping and no silence.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <iterator>
#include <vector>

#include "music.h"
#include "music_synth.h"

namespace {

typedef std::vector<int16_t> pcm_buffer;  // interleaved stereo

constexpr uint32_t RATE = MUSIC_SAMPLE_RATE;
constexpr uint32_t BAR = 44100;  // frames of a bar at 120 bpm
// a bare sine, its filter wide open, held at full level
music_synth_instrument sine_tone()
{
    music_synth_instrument ins = {};
    ins.kind = MUSIC_SYNTH_TONE, ins.gain = 0.5f;
    ins.tone.oscillators[0] = {MUSIC_SYNTH_WAVE_SINE, 0.0f, 1.0f}, ins.tone.oscillator_count = 1;
    ins.tone.attack = 0.001f, ins.tone.decay = 0.1f, ins.tone.sustain = 1.0f, ins.tone.release = 0.01f;
    ins.tone.cutoff_hz = 9000.0f, ins.tone.cutoff_decay = 0.1f;
    return ins;
}

// Up to three tracks of one cue each over `bars` bars at 120 bpm in sixteenths, no echo.
struct small_song {
    music_synth_instrument instruments[3] = {};
    music_synth_cue cues[3] = {};
    music_synth_track tracks[3] = {};
    std::vector<music_synth_pattern> patterns;
    music_synth_song song = {};
    std::vector<uint8_t> memory;

    small_song(uint32_t bars, uint32_t track_count)
    {
        song = {120, 4, 4, bars, nullptr, 0, tracks, track_count, {6, 0.5f, 8000.0f, 0.0f}, 1.0f, {0.01f, 0.1f}};
        for (uint32_t k = 0; k < 3; k++)
            tracks[k] = {&instruments[k], &cues[k], 1};
    }

    uint16_t add_pattern(const music_synth_note* notes, uint32_t count, uint32_t bars)
    {
        patterns.push_back({notes, count, bars});
        return (uint16_t)(patterns.size() - 1);
    }

    pcm_buffer render()
    {
        song.patterns = patterns.data();
        song.pattern_count = (uint32_t)patterns.size();
        memory.assign(music_synth_scratch_bytes(&song), 0xFF);  // NaNs wherever the synthesiser forgets to clear
        xmemarena scratch;
        xmemarena_init(&scratch, "test_synth_scratch", memory.size(), memory.data());
        const uint32_t frames = music_synth_song_frames(&song);
        pcm_buffer pcm(2 * frames + 2, 0x5A5A);  // one frame more, to catch writes past the end
        music_synth_render(pcm.data(), &song, &scratch);
        EXPECT_EQ(pcm[2 * frames], 0x5A5A);
        EXPECT_EQ(xmemarena_get_sp(&scratch), 0u);
        pcm.resize(2 * frames);
        return pcm;
    }
};

// the frequency of a steady tone on the left from its upward zero crossings
double measured_hz(const pcm_buffer& pcm, uint32_t first_frame, uint32_t end_frame)
{
    uint32_t first = 0, last = 0, crossings = 0;
    for (uint32_t i = first_frame + 1; i < end_frame; i++)
        if (pcm[2 * i - 2] < 0 && pcm[2 * i] >= 0)
            first = crossings++ ? first : i, last = i;
    return crossings > 1 ? (double)(crossings - 1) * RATE / (last - first) : 0.0;
}

}  // namespace

TEST(music_synth, places_notes_on_the_grid_at_their_pitch)
{
    const music_synth_note note[] = {{5, 8, 69, 127}};  // A4 from step 5 for two beats
    small_song s(3, 1);
    s.instruments[0] = sine_tone();
    s.cues[0] = {1, 1, s.add_pattern(note, 1, 1), 0, 0.0f, 0.0f, 0.0f, 0.0f};  // the second bar
    EXPECT_EQ(music_synth_song_frames(&s.song), 3u * BAR);
    pcm_buffer pcm = s.render();
    const uint32_t start = BAR + 5 * 11025 / 4;  // step 5: 13,781.25 frames in, rounded down
    for (uint32_t i = 0; i < 2 * start; i++)
        ASSERT_EQ(pcm[i], 0) << "before the note, frame " << i / 2;
    EXPECT_NE(pcm[2 * (start + 2)], 0);
    EXPECT_NEAR(measured_hz(pcm, start + 1000, start + 20000), 440.0, 0.5);
    EXPECT_EQ(pcm[2 * 60000], pcm[2 * 60000 + 1]);  // centred: both sides alike
    EXPECT_EQ(s.render(), pcm) << "the same song renders to the same samples";

    s.cues[0].transpose = 12;  // an octave up
    pcm = s.render();
    EXPECT_NEAR(measured_hz(pcm, start + 1000, start + 20000), 880.0, 1.0);
}

TEST(music_synth, repeats_a_long_pattern_and_cuts_it_at_the_cue_end)
{
    // a two-bar pattern, A4 then A5, in a cue of three bars: A4, A5, A4 again, then nothing
    const music_synth_note notes[] = {{0, 8, 69, 127}, {16, 8, 81, 127}};
    small_song s(4, 1);
    s.instruments[0] = sine_tone();
    s.cues[0] = {0, 3, s.add_pattern(notes, 2, 2), 0, 0.0f, 0.0f, 0.0f, 0.0f};
    const pcm_buffer pcm = s.render();
    const double expected_hz[] = {440.0, 880.0, 440.0, 0.0};
    for (uint32_t bar = 0; bar < 4; bar++)
        EXPECT_NEAR(measured_hz(pcm, bar * BAR + 1000, bar * BAR + 20000), expected_hz[bar], 1.0) << "bar " << bar;
}

TEST(music_synth_death, a_cue_naming_a_missing_pattern_is_fatal)
{
    const music_synth_note note[] = {{0, 1, 69, 127}};
    small_song s(1, 1);
    s.instruments[0] = sine_tone();
    s.add_pattern(note, 1, 1);
    s.cues[0] = {0, 1, 1, 0, 0.0f, 0.0f, 0.0f, 0.0f};
    EXPECT_EXIT(s.render(), testing::ExitedWithCode(1), "track 0 cue 0: no pattern 1");
}

TEST(music_synth_show, lasts_88_bars_of_two_seconds_in_the_planned_sections)
{
    EXPECT_EQ(music_synth_song_frames(music_synth_show_song()), 88u * 44100u);  // 176 s
    EXPECT_EQ(music_synth_show_bar_ms(MUSIC_SYNTH_SHOW_LAST_CHORD_BAR), 168000u);
    // intro, build-up, main, break, climax, ending and tail: each ends where the next begins
    const uint32_t first_bar[] = {1, 9, 21, 45, 53, 77, 87, 89}, first_ms[] = {0, 16000, 40000, 88000, 104000, 152000, 172000};
    ASSERT_EQ(std::size(MUSIC_SYNTH_SHOW_SECTIONS), 7u);
    for (size_t i = 0; i < 7; i++) {
        const music_synth_show_section& s = MUSIC_SYNTH_SHOW_SECTIONS[i];
        EXPECT_TRUE(s.first_bar == first_bar[i] && s.end_bar == first_bar[i + 1]) << s.name;
        EXPECT_EQ(music_synth_show_bar_ms(s.first_bar), first_ms[i]) << s.name;
    }
}

TEST(music_synth_show, never_clips_and_never_falls_silent_before_the_fade)
{
    // a frame is silent when both sides stay below -60 dBFS; the script fades from bar 85 on
    constexpr int32_t quiet = 33;
    std::vector<uint8_t> memory(music_synth_scratch_bytes(music_synth_show_song()));
    xmemarena scratch;
    xmemarena_init(&scratch, "test_music_scratch", memory.size(), memory.data());
    pcm_buffer pcm(2 * MUSIC_SYNTH_SHOW_FRAMES);
    music_synth_render_show(pcm.data(), &scratch);
    int32_t peak = 0;
    uint32_t first_sound = UINT32_MAX, silent_run = 0, silent_longest = 0;
    for (int16_t v : pcm)
        peak = std::max(peak, abs(v));
    for (uint32_t i = 0; i < music_synth_show_bar_frame(MUSIC_SYNTH_SHOW_LAST_CHORD_BAR); i++) {
        const bool silent = abs(pcm[2 * i]) < quiet && abs(pcm[2 * i + 1]) < quiet;
        first_sound = silent || first_sound != UINT32_MAX ? first_sound : i;
        silent_run = silent ? silent_run + 1 : 0;
        silent_longest = std::max(silent_longest, silent_run);
    }
    EXPECT_LT(peak, 32767) << "the peak stays below full scale: nothing clips";
    EXPECT_LT(first_sound, RATE / 10) << "sound from the first beat";
    EXPECT_LE(silent_longest, RATE) << "frames of silence in a row";
}
