// A small synthesiser that renders music described in code to 16-bit stereo PCM at 22,050 Hz,
// and the show's own piece written for it. A song is a tempo, a grid of steps, patterns of
// notes on that grid and tracks that place patterns bar by bar, each track playing one
// instrument: a drum (a pitch-swept sine and a filtered noise burst, both decaying) or a tone
// (a few oscillators through a low-pass filter, shaped by an envelope). Voices feed a dry mix
// and a ping-pong echo; the sum loses its DC and is soft-clipped to 16 bits.
//
// Everything is in floats, the noise comes from PCG32 seeded per note, and the order of work
// is fixed, so a song renders to the same samples every time. Working memory comes from the
// caller's arena, under a mark that is given back.
#pragma once

#include <cstdint>

#include "memarena.h"

// ---- the show's music: its timing, which the show's script follows ----

constexpr uint32_t MUSIC_SYNTH_SHOW_BPM = 120;
constexpr uint32_t MUSIC_SYNTH_SHOW_BEAT_FRAMES = 11025;  // 22,050 frames a second, 2 beats a second
constexpr uint32_t MUSIC_SYNTH_SHOW_BEATS_PER_BAR = 4;
constexpr uint32_t MUSIC_SYNTH_SHOW_BAR_FRAMES = MUSIC_SYNTH_SHOW_BEAT_FRAMES * MUSIC_SYNTH_SHOW_BEATS_PER_BAR;
constexpr uint32_t MUSIC_SYNTH_SHOW_BAR_MS = 2000;
constexpr uint32_t MUSIC_SYNTH_SHOW_STEPS_PER_BEAT = 4;  // the note grid is in sixteenths
// Bars are counted from 1, as musicians do; each constant is the first bar of its section.
constexpr uint32_t MUSIC_SYNTH_SHOW_INTRO_BAR = 1;   // pad chords and hi-hats
constexpr uint32_t MUSIC_SYNTH_SHOW_GROOVE_BAR = 3;  // kick on every beat, snare on 2 and 4, bass
constexpr uint32_t MUSIC_SYNTH_SHOW_LEAD_BAR = 7;    // the melody joins the groove
constexpr uint32_t MUSIC_SYNTH_SHOW_BREAK_BAR = 15;  // drums and bass stop but for a snare roll; pad and lead
constexpr uint32_t MUSIC_SYNTH_SHOW_CHORD_BAR = 16;  // the last chord, struck on the bar's first beat
constexpr uint32_t MUSIC_SYNTH_SHOW_TAIL_BAR = 17;   // nothing new: the chord and the echo ring out
constexpr uint32_t MUSIC_SYNTH_SHOW_BARS = 18;       // 16 bars of music and a tail of 2
constexpr uint32_t MUSIC_SYNTH_SHOW_FRAMES = MUSIC_SYNTH_SHOW_BARS * MUSIC_SYNTH_SHOW_BAR_FRAMES;

// The frame and the millisecond at which a bar (counted from 1) starts.
static constexpr uint32_t music_synth_show_bar_frame(uint32_t bar) { return (bar - 1) * MUSIC_SYNTH_SHOW_BAR_FRAMES; }
static constexpr uint32_t music_synth_show_bar_ms(uint32_t bar) { return (bar - 1) * MUSIC_SYNTH_SHOW_BAR_MS; }

// ---- songs ----

constexpr uint32_t MUSIC_SYNTH_OSCILLATORS_MAX = 3;

enum music_synth_kind : uint32_t {
    MUSIC_SYNTH_DRUM = 0,  // swept sine plus filtered noise; the note's pitch and length are ignored
    MUSIC_SYNTH_TONE = 1,  // oscillators, filter and envelope at the note's pitch, held for its length
};

enum music_synth_wave : uint32_t {
    MUSIC_SYNTH_WAVE_SINE = 0,
    MUSIC_SYNTH_WAVE_SAW = 1,     // band-limited at its jumps
    MUSIC_SYNTH_WAVE_SQUARE = 2,  // band-limited at its jumps
    MUSIC_SYNTH_WAVE_TRIANGLE = 3,
};

enum music_synth_filter : uint32_t {
    MUSIC_SYNTH_FILTER_LOW = 0,
    MUSIC_SYNTH_FILTER_BAND = 1,
    MUSIC_SYNTH_FILTER_HIGH = 2,
};

struct music_synth_oscillator {
    uint32_t wave;    // music_synth_wave
    float semitones;  // from the note's pitch; fractions detune
    float level;
};

struct music_synth_drum {
    float tone_level;
    float tone_start_hz;  // the sine glides from here ...
    float tone_end_hz;    // ... to here
    float tone_sweep;     // time constant of the glide, seconds
    float tone_decay;     // time constant of the sine's level, seconds
    float noise_level;
    uint32_t noise_filter;  // music_synth_filter
    float noise_hz;         // the filter's cutoff or centre
    float noise_q;  // 0.707 (or 0) is flat, more rings at the cutoff
    float noise_decay;  // time constant of the noise's level, seconds
};

struct music_synth_tone {
    music_synth_oscillator oscillators[MUSIC_SYNTH_OSCILLATORS_MAX];
    uint32_t oscillator_count;
    float attack;         // seconds of the linear rise
    float decay;          // time constant of the fall to the sustain level, seconds
    float sustain;        // level while the note is held, 0 to 1
    float release;        // time constant of the fade after the note ends, seconds
    float cutoff_hz;      // the low-pass filter's resting cutoff
    float cutoff_env_hz;  // added at the note's start, falling with cutoff_decay
    float cutoff_decay;   // seconds
    float resonance_q;    // 0.707 (or 0) is flat, more rings at the cutoff
    float vibrato_cents;
    float vibrato_hz;
};

struct music_synth_instrument {
    uint32_t kind;  // music_synth_kind
    float gain;     // level of a note of velocity 127
    float pan;      // -1 left, 0 centre, +1 right
    float echo_send;
    music_synth_drum drum;
    music_synth_tone tone;
};

// A note on the grid of its pattern. Drums ignore pitch and length.
struct music_synth_note {
    uint16_t step;     // from the start of the bar the pattern is placed at
    uint16_t length;   // in steps; may reach past the bar
    uint8_t pitch;     // MIDI numbering: 69 is A at 440 Hz
    uint8_t velocity;  // 1 to 127
};

struct music_synth_pattern {
    const music_synth_note* notes;
    uint32_t count;
};

// A pattern played in `bars` bars in a row from `bar` (counted from 0 here), transposed by
// some semitones.
struct music_synth_cue {
    uint16_t bar;
    uint16_t bars;
    uint16_t pattern;
    int8_t transpose;
};

struct music_synth_track {
    const music_synth_instrument* instrument;
    const music_synth_cue* cues;
    uint32_t cue_count;
};

struct music_synth_echo {
    uint32_t delay_steps;  // each side of the ping-pong
    float feedback;
    float damping_hz;  // the repeats lose their highs above this
    float wet;
};

struct music_synth_song {
    uint32_t bpm;  // with 22,050 frames a second, beats fall on whole frames when 1,323,000 / bpm is whole
    uint32_t steps_per_beat;
    uint32_t beats_per_bar;
    uint32_t bars;  // the length of the rendering, tails included
    const music_synth_pattern* patterns;
    uint32_t pattern_count;
    const music_synth_track* tracks;
    uint32_t track_count;
    music_synth_echo echo;
    float master_gain;
};

// The length of a song in stereo frames.
uint32_t music_synth_song_frames(const music_synth_song* song);
// The scratch a rendering takes from the arena.
uint64_t music_synth_scratch_bytes(const music_synth_song* song);
// Renders the whole song into `out` (music_synth_song_frames stereo frames). A cue naming a
// pattern the song does not have is fatal; sounds reaching past the song's end are cut there.
void music_synth_render(int16_t* out, const music_synth_song* song, xmemarena* scratch);

// The show's piece as data, and its rendering: MUSIC_SYNTH_SHOW_FRAMES stereo frames.
const music_synth_song* music_synth_show_song();
void music_synth_render_show(int16_t* out, xmemarena* scratch);
