// A small synthesiser that renders music described in code to 16-bit stereo PCM at 22,050 Hz,
// and the show's own piece written for it. A song is a tempo, a grid of steps, patterns of
// notes on that grid and tracks that place patterns bar by bar, each track playing one
// instrument: a drum (a pitch-swept sine and a filtered noise burst, both decaying) or a tone
// (a few oscillators through a low-pass filter, shaped by an envelope). A cue can sweep its
// notes' filter and level across its bars, and instruments can duck under a key (the kick).
// Voices feed a dry mix and a ping-pong echo; the sum loses its DC and is soft-clipped to 16
// bits.
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
constexpr uint32_t MUSIC_SYNTH_SHOW_INTRO_BAR = 1;        // pad chords, hi-hats and a soft arpeggio
constexpr uint32_t MUSIC_SYNTH_SHOW_BUILD_BAR = 9;        // kick, then bass, then snare; the filters open
constexpr uint32_t MUSIC_SYNTH_SHOW_MAIN_BAR = 21;        // the full groove and the lead melody
constexpr uint32_t MUSIC_SYNTH_SHOW_BREAK_BAR = 45;       // drums and bass out: pad, a quiet lead, echo
constexpr uint32_t MUSIC_SYNTH_SHOW_CLIMAX_BAR = 53;      // everything, the lead an octave up, denser drums
constexpr uint32_t MUSIC_SYNTH_SHOW_ENDING_BAR = 77;      // the parts drop out one by one
constexpr uint32_t MUSIC_SYNTH_SHOW_LAST_CHORD_BAR = 85;  // the last chord, struck on the bar's first beat
constexpr uint32_t MUSIC_SYNTH_SHOW_TAIL_BAR = 87;        // nothing new: the chord and the echo ring out
constexpr uint32_t MUSIC_SYNTH_SHOW_BARS = 88;            // 86 bars of music and a tail of 2
constexpr uint32_t MUSIC_SYNTH_SHOW_FRAMES = MUSIC_SYNTH_SHOW_BARS * MUSIC_SYNTH_SHOW_BAR_FRAMES;

// The sections by name, each from its first bar up to the next one's.
struct music_synth_show_section {
    const char* name;
    uint32_t first_bar;
    uint32_t end_bar;  // the first bar after it
};
constexpr music_synth_show_section MUSIC_SYNTH_SHOW_SECTIONS[] = {
    {"intro", MUSIC_SYNTH_SHOW_INTRO_BAR, MUSIC_SYNTH_SHOW_BUILD_BAR},
    {"build-up", MUSIC_SYNTH_SHOW_BUILD_BAR, MUSIC_SYNTH_SHOW_MAIN_BAR},
    {"main", MUSIC_SYNTH_SHOW_MAIN_BAR, MUSIC_SYNTH_SHOW_BREAK_BAR},
    {"break", MUSIC_SYNTH_SHOW_BREAK_BAR, MUSIC_SYNTH_SHOW_CLIMAX_BAR},
    {"climax", MUSIC_SYNTH_SHOW_CLIMAX_BAR, MUSIC_SYNTH_SHOW_ENDING_BAR},
    {"ending", MUSIC_SYNTH_SHOW_ENDING_BAR, MUSIC_SYNTH_SHOW_TAIL_BAR},
    {"tail", MUSIC_SYNTH_SHOW_TAIL_BAR, MUSIC_SYNTH_SHOW_BARS + 1},
};

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
    MUSIC_SYNTH_WAVE_NOISE = 4,  // white, from the note's own generator; pitch and detune do nothing
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
    // A clap: the noise strikes again this many times in all (0 counts as 1), `burst_gap`
    // seconds apart, each strike at full level.
    uint32_t noise_bursts;
    float burst_gap;
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
    uint32_t duck_key;  // not 0: every note of this instrument ducks the instruments with `duck`
    float duck;         // 0 to 1: how far this instrument's level dips at a key note
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

// Notes' steps count from the pattern's first bar, so a pattern may span several bars.
struct music_synth_pattern {
    const music_synth_note* notes;
    uint32_t count;
    uint32_t bars;  // its length, after which it repeats; 0 counts as 1
};

// A pattern played over `bars` bars from `bar` (counted from 0 here), repeated as often as it
// fits and cut at the cue's end, transposed by some semitones. Across the cue's bars its notes'
// filter cutoff glides from `cutoff_octaves_from` to `cutoff_octaves_to` octaves off the
// instrument's own and their level from `level_db_from` to `level_db_to` decibels, evenly in
// octaves and decibels; the end values hold for the tails that ring past the cue. A drum takes
// the values of its strike, for its noise filter and its level. All zeros leave the instrument
// as it is.
struct music_synth_cue {
    uint16_t bar;
    uint16_t bars;
    uint16_t pattern;
    int8_t transpose;
    float cutoff_octaves_from;
    float cutoff_octaves_to;
    float level_db_from;
    float level_db_to;
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

// The dip of a ducked instrument follows each key note: a linear fall to 1 - duck over
// `attack` seconds, then an exponential return with time constant `release`.
struct music_synth_duck {
    float attack;
    float release;
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
    music_synth_duck duck;
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
