// The synthesiser, one feature at a time on small songs whose levels and times follow from the
// arithmetic, and the show's piece: its length, its sections, its mix.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <vector>

#include "music.h"
#include "music_synth.h"

namespace {

typedef std::vector<int16_t> pcm_buffer;  // interleaved stereo

constexpr uint32_t RATE = MUSIC_SAMPLE_RATE;
constexpr uint32_t BAR = 44100;  // frames of a bar at 120 bpm
constexpr double PI = 3.141592653589793;
// a centred voice of gain 0.5 at full velocity: equal-power panning leaves cos(pi/4) per side
const double CENTRED_HALF = 0.5 * cos(PI / 4.0) * 32767.0;

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

// a drum of noise alone, nearly unfiltered
music_synth_instrument noise_drum(float decay)
{
    music_synth_instrument ins = {};
    ins.kind = MUSIC_SYNTH_DRUM, ins.gain = 0.5f;
    ins.drum.noise_level = 1.0f, ins.drum.noise_filter = MUSIC_SYNTH_FILTER_HIGH, ins.drum.noise_hz = 50.0f;
    ins.drum.noise_decay = decay;
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
    music_synth_note single_note = {};

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

    // one note of one instrument in a cue; the cue's pattern is that note's
    pcm_buffer play(const music_synth_instrument& ins, music_synth_note note, music_synth_cue cue)
    {
        single_note = note;
        instruments[0] = ins;
        cues[0] = cue;
        cues[0].pattern = add_pattern(&single_note, 1, 1);
        return render();
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

// the upward zero crossings on the left, and from them the frequency of a steady tone
uint32_t upward_crossings(const pcm_buffer& pcm, uint32_t first_frame, uint32_t end_frame, double* hz = nullptr)
{
    uint32_t first = 0, last = 0, crossings = 0;
    for (uint32_t i = first_frame + 1; i < end_frame; i++)
        if (pcm[2 * i - 2] < 0 && pcm[2 * i] >= 0)
            first = crossings++ ? first : i, last = i;
    if (hz)
        *hz = crossings > 1 ? (double)(crossings - 1) * RATE / (last - first) : 0.0;
    return crossings;
}

double measured_hz(const pcm_buffer& pcm, uint32_t first_frame, uint32_t end_frame)
{
    double hz;
    upward_crossings(pcm, first_frame, end_frame, &hz);
    return hz;
}

// the amplitude of a tone of some hundred hertz around a frame: its largest sample within a period
double amplitude_at(const pcm_buffer& pcm, uint32_t frame)
{
    int32_t peak = 0;
    for (uint32_t i = frame - 25; i <= frame + 25; i++)
        peak = std::max(peak, abs((int32_t)pcm[2 * i]));
    return peak;
}

double rms(const pcm_buffer& pcm, uint32_t first_frame, uint32_t end_frame)
{
    double squares = 0.0;
    for (uint32_t i = 2 * first_frame; i < 2 * end_frame; i++)
        squares += (double)pcm[i] * pcm[i];
    return sqrt(squares / (2.0 * (end_frame - first_frame)));
}

// the gain of a second-order Butterworth low-pass mapped by the bilinear transform with its
// cutoff prewarped, at `hz`
double butterworth_gain(double hz, double cutoff_hz)
{
    const double ratio = tan(PI * hz / RATE) / tan(PI * cutoff_hz / RATE);
    return 1.0 / sqrt(1.0 + pow(ratio, 4.0));
}

}  // namespace

// ---- notes on the grid ----

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

// ---- drums ----

TEST(music_synth, drum_tone_glides_from_its_start_pitch_to_its_end_pitch)
{
    // f(t) = 100 + 300 e^(-t / 0.05) Hz, so the cycles between t0 and t1 are
    // 100 (t1 - t0) + 300 x 0.05 (e^(-t0 / 0.05) - e^(-t1 / 0.05))
    music_synth_instrument kick = {};
    kick.kind = MUSIC_SYNTH_DRUM, kick.gain = 0.5f;
    kick.drum = {1.0f, 400.0f, 100.0f, 0.05f, 10.0f, 0.0f, MUSIC_SYNTH_FILTER_LOW, 1000.0f, 0.0f, 0.01f, 0, 0.0f};
    small_song s(2, 1);
    const pcm_buffer pcm = s.play(kick, {0, 1, 0, 127}, {1, 1, 0, 0, 0.0f, 0.0f, 0.0f, 0.0f});

    struct span {
        double from_s, to_s;
    };
    const span spans[] = {{0.0, 0.1}, {0.0, 0.2}, {0.1, 0.2}, {0.3, 0.4}};
    for (const span& t : spans) {
        const double cycles = 100.0 * (t.to_s - t.from_s) + 15.0 * (exp(-t.from_s / 0.05) - exp(-t.to_s / 0.05));
        const uint32_t counted =
            upward_crossings(pcm, BAR + (uint32_t)(t.from_s * RATE), BAR + (uint32_t)(t.to_s * RATE));
        EXPECT_NEAR(counted, cycles, 1.0) << t.from_s << " s to " << t.to_s << " s";
    }
}

TEST(music_synth, clap_strikes_again_after_each_gap_and_no_more)
{
    // three strikes 220 frames apart (0.01 s); each fades by e^-5 before the next
    music_synth_instrument clap = noise_drum(0.002f);
    clap.drum.noise_bursts = 3, clap.drum.burst_gap = 0.01f;
    small_song s(2, 1);
    const pcm_buffer pcm = s.play(clap, {0, 1, 0, 127}, {1, 1, 0, 0, 0.0f, 0.0f, 0.0f, 0.0f});
    for (uint32_t strike = 1; strike <= 3; strike++) {
        const uint32_t at = BAR + strike * 220;
        const double before = rms(pcm, at - 20, at);
        const double after = rms(pcm, at, at + 20);
        if (strike < 3)
            EXPECT_GT(after, 10.0 * before) << "strike " << strike;
        else
            EXPECT_LT(after, before) << "a fourth strike";
    }
}

// ---- sweeps along a cue ----

TEST(music_synth, cue_sweeps_the_level_evenly_in_decibels_and_holds_its_end)
{
    // -20 dB to 0 dB across a one-bar cue; the note is held for two bars
    small_song s(3, 1);
    const pcm_buffer pcm = s.play(sine_tone(), {0, 32, 69, 127}, {0, 1, 0, 0, 0.0f, 0.0f, -20.0f, 0.0f});
    for (uint32_t frame : {1000u, BAR / 4, BAR / 2, 3 * BAR / 4, BAR + 10000}) {
        const double db = -20.0 + 20.0 * std::min(1.0, (double)frame / BAR);
        const double expected = CENTRED_HALF * pow(10.0, db / 20.0);
        EXPECT_NEAR(amplitude_at(pcm, frame), expected, 0.01 * expected + 2.0) << "frame " << frame;
    }
}

TEST(music_synth, cue_sweeps_the_cutoff_in_octaves_and_holds_its_end)
{
    // A4 (440 Hz) through a flat low-pass whose cutoff goes from 110 Hz up two octaves across a
    // one-bar cue: at the end the tone sits exactly on the cutoff, 3 dB down
    music_synth_instrument ins = sine_tone();
    ins.tone.cutoff_hz = 110.0f;
    small_song s(3, 1);
    const pcm_buffer pcm = s.play(ins, {0, 32, 69, 127}, {0, 1, 0, 0, 0.0f, 2.0f, 0.0f, 0.0f});

    struct point {
        uint32_t frame;
        double cutoff_hz;
        double tolerance;  // the cutoff moves under a filter that takes time to follow
    };
    const point points[] = {{BAR / 2, 220.0, 0.03}, {BAR + 5000, 440.0, 0.01}, {2 * BAR - 5000, 440.0, 0.01}};
    for (const point& p : points) {
        const double expected = CENTRED_HALF * butterworth_gain(440.0, p.cutoff_hz);
        EXPECT_NEAR(amplitude_at(pcm, p.frame), expected, p.tolerance * expected) << "frame " << p.frame;
    }
}

// ---- ducking ----

TEST(music_synth, ducked_instrument_dips_under_the_key_and_recovers)
{
    // a held sine ducked by 0.6 under a silent key note at bar 1: down over 220 frames (0.01 s),
    // then back as 1 - 0.6 e^(-t / 0.1 s)
    const music_synth_note held[] = {{0, 48, 69, 127}}, hit[] = {{0, 1, 0, 127}};
    small_song s(3, 2);
    s.instruments[0] = sine_tone(), s.instruments[0].duck = 0.6f;
    s.instruments[1].kind = MUSIC_SYNTH_DRUM, s.instruments[1].duck_key = 1, s.instruments[1].drum.noise_decay = 0.01f;
    s.cues[0] = {0, 1, s.add_pattern(held, 1, 1), 0, 0.0f, 0.0f, 0.0f, 0.0f};
    s.cues[1] = {1, 1, s.add_pattern(hit, 1, 1), 0, 0.0f, 0.0f, 0.0f, 0.0f};
    const pcm_buffer pcm = s.render();

    constexpr uint32_t attack = 220;  // 0.01 s of 22,050 frames, whole frames
    constexpr double release = 0.1 * RATE;
    const double ln2 = log(2.0);
    const double after_attack[] = {release * ln2, release * 2.0 * ln2, release * 4.0};
    EXPECT_NEAR(amplitude_at(pcm, BAR - 5000), CENTRED_HALF, 0.01 * CENTRED_HALF) << "before the key";
    for (double t : after_attack) {
        const double expected = CENTRED_HALF * (1.0 - 0.6 * exp(-t / release));
        EXPECT_NEAR(amplitude_at(pcm, BAR + attack + (uint32_t)lround(t)), expected, 0.01 * expected)
            << t << " frames after the dip";
    }
}

// ---- echo ----

TEST(music_synth, echo_repeats_a_delay_apart_left_then_right)
{
    // three sixteenths at 120 bpm are 3 x 11,025 / 4 = 8,268.75 frames, rounded down; the
    // first repeat comes back on the left, the second crosses to the right
    music_synth_instrument hat = noise_drum(0.0005f);  // silent 101 frames after the strike
    hat.echo_send = 1.0f;
    small_song s(2, 1);
    s.song.echo = {3, 0.5f, 8000.0f, 0.5f};
    const pcm_buffer pcm = s.play(hat, {0, 1, 0, 127}, {1, 1, 0, 0, 0.0f, 0.0f, 0.0f, 0.0f});
    constexpr uint32_t delay = 8268;
    ASSERT_GE(abs(pcm[2 * BAR]), 8) << "the strike's first frame must be loud enough to see its repeats";

    struct side {
        uint32_t channel;
        uint32_t first_repeat;
    };
    for (const side& c : {side{0, BAR + delay}, side{1, BAR + 2 * delay}}) {
        for (uint32_t i = BAR + 2000; i < c.first_repeat; i++)
            ASSERT_EQ(pcm[2 * i + c.channel], 0) << "channel " << c.channel << " frame " << i;
        EXPECT_NE(pcm[2 * c.first_repeat + c.channel], 0) << "channel " << c.channel;
    }
}

// ---- the show's piece ----

namespace {

// The show's piece, rendered once for all the tests that look at it.
const pcm_buffer& show_music()
{
    static pcm_buffer pcm;
    if (pcm.empty()) {
        const uint64_t scratch_bytes = music_synth_scratch_bytes(music_synth_show_song());
        std::vector<uint8_t> memory(scratch_bytes);
        xmemarena scratch;
        xmemarena_init(&scratch, "test_music_scratch", scratch_bytes, memory.data());
        pcm.resize(2 * MUSIC_SYNTH_SHOW_FRAMES);
        music_synth_render_show(pcm.data(), &scratch);
    }
    return pcm;
}

double section_db(const char* name)
{
    for (const music_synth_show_section& s : MUSIC_SYNTH_SHOW_SECTIONS)
        if (!strcmp(s.name, name))
            return 20.0 * log10(rms(show_music(), music_synth_show_bar_frame(s.first_bar),
                                    music_synth_show_bar_frame(s.end_bar)) /
                                32768.0);
    ADD_FAILURE() << "no section " << name;
    return 0.0;
}

}  // namespace

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
    const pcm_buffer& pcm = show_music();
    int32_t peak = 0;
    uint32_t clipped_run = 0, clipped_longest = 0, first_sound = UINT32_MAX, silent_run = 0, silent_longest = 0;
    for (uint32_t i = 0; i < 2 * MUSIC_SYNTH_SHOW_FRAMES; i++) {
        const int32_t v = pcm[i];
        peak = std::max(peak, abs(v));
        clipped_run = v >= 32767 || v <= -32768 ? clipped_run + 1 : 0;
        clipped_longest = std::max(clipped_longest, clipped_run);
    }
    for (uint32_t i = 0; i < music_synth_show_bar_frame(MUSIC_SYNTH_SHOW_LAST_CHORD_BAR); i++) {
        const bool silent = abs(pcm[2 * i]) < quiet && abs(pcm[2 * i + 1]) < quiet;
        first_sound = silent || first_sound != UINT32_MAX ? first_sound : i;
        silent_run = silent ? silent_run + 1 : 0;
        silent_longest = std::max(silent_longest, silent_run);
    }
    EXPECT_LT(peak, 32767) << "the peak stays below full scale";
    EXPECT_LE(clipped_longest, 3u);
    EXPECT_LT(first_sound, RATE / 10) << "sound from the first beat";
    EXPECT_LE(silent_longest, RATE) << "frames of silence in a row";
}

TEST(music_synth_show, sections_differ_in_loudness_as_scored)
{
    struct louder {
        const char* loud;
        const char* quiet;
        double by_db;
    };
    const louder pairs[] = {
        {"build-up", "intro", 3.0}, {"main", "build-up", 2.0}, {"main", "break", 6.0},
        {"climax", "break", 6.0},   {"climax", "main", 0.3},   {"ending", "tail", 10.0},
    };
    for (const louder& p : pairs)
        EXPECT_GE(section_db(p.loud) - section_db(p.quiet), p.by_db) << p.loud << " over " << p.quiet;
}
