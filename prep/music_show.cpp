// The show's piece: an original tune in D minor at 120 bpm, 88 bars (2:56) in seven sections
// whose first bars the header names. Below: the chords, the instruments, the patterns (one bar,
// or a whole chord cycle of four), and per instrument the cues that place them section by
// section. Pitches are MIDI numbers (62 = D4, 69 = A4).
#include <array>
#include <cstddef>

#include "music.h"
#include "music_synth.h"

namespace {

// ---- harmony ----
//
// The main cycle is Dm, Bb, F, C, a bar each. The break borrows Gm, Bb, F and ends on A major,
// whose C sharp pulls back to D for the climax. The last chord is D minor with an added ninth.
struct music_synth_show_chord {
    uint8_t root;      // the bass's note, in octave 2 or low in 1
    uint8_t tones[3];  // the pad's and the arpeggio's voicing, around D4, led by the nearest steps
};
constexpr music_synth_show_chord MUSIC_SYNTH_SHOW_DM = {38, {62, 65, 69}};  // D F A
constexpr music_synth_show_chord MUSIC_SYNTH_SHOW_BB = {34, {62, 65, 70}};  // D F Bb
constexpr music_synth_show_chord MUSIC_SYNTH_SHOW_F = {41, {60, 65, 69}};   // C F A
constexpr music_synth_show_chord MUSIC_SYNTH_SHOW_C = {36, {60, 64, 67}};   // C E G
constexpr music_synth_show_chord MUSIC_SYNTH_SHOW_GM = {43, {62, 67, 70}};  // D G Bb
constexpr music_synth_show_chord MUSIC_SYNTH_SHOW_A = {45, {61, 64, 69}};   // C# E A

constexpr music_synth_show_chord MUSIC_SYNTH_SHOW_CYCLE[] = {MUSIC_SYNTH_SHOW_DM, MUSIC_SYNTH_SHOW_BB,
                                                             MUSIC_SYNTH_SHOW_F, MUSIC_SYNTH_SHOW_C};
constexpr music_synth_show_chord MUSIC_SYNTH_SHOW_BREAK_CYCLE[] = {MUSIC_SYNTH_SHOW_GM, MUSIC_SYNTH_SHOW_BB,
                                                                   MUSIC_SYNTH_SHOW_F, MUSIC_SYNTH_SHOW_A};
constexpr uint32_t MUSIC_SYNTH_SHOW_CYCLE_BARS = 4;
constexpr uint16_t MUSIC_SYNTH_SHOW_STEPS = MUSIC_SYNTH_SHOW_STEPS_PER_BEAT * MUSIC_SYNTH_SHOW_BEATS_PER_BAR;
constexpr uint8_t MUSIC_SYNTH_SHOW_OCTAVE = 12;

// ---- parts written out per chord ----

// the pad: the root an octave above the bass under the voicing, held for the bar
constexpr uint32_t MUSIC_SYNTH_SHOW_PAD_NOTES = 4;
template <size_t Bars>
constexpr std::array<music_synth_note, MUSIC_SYNTH_SHOW_PAD_NOTES * Bars> music_synth_show_pad_part(
    const music_synth_show_chord (&chords)[Bars])
{
    std::array<music_synth_note, MUSIC_SYNTH_SHOW_PAD_NOTES* Bars> notes = {};
    for (size_t b = 0; b < Bars; b++) {
        const uint16_t at = (uint16_t)(b * MUSIC_SYNTH_SHOW_STEPS);
        notes[4 * b] = {at, MUSIC_SYNTH_SHOW_STEPS, (uint8_t)(chords[b].root + MUSIC_SYNTH_SHOW_OCTAVE), 100};
        for (size_t i = 0; i < 3; i++)
            notes[4 * b + 1 + i] = {at, MUSIC_SYNTH_SHOW_STEPS, chords[b].tones[i], 96};
    }
    return notes;
}

// the arpeggio: sixteenths up and down the voicing and its octave, accented on the beats
constexpr uint8_t MUSIC_SYNTH_SHOW_ARP_FIGURE[MUSIC_SYNTH_SHOW_STEPS] = {0, 1, 2, 3, 2, 1, 0, 1,
                                                                         2, 3, 2, 1, 0, 1, 2, 3};
template <size_t Bars>
constexpr std::array<music_synth_note, MUSIC_SYNTH_SHOW_STEPS * Bars> music_synth_show_arp_part(
    const music_synth_show_chord (&chords)[Bars])
{
    std::array<music_synth_note, MUSIC_SYNTH_SHOW_STEPS* Bars> notes = {};
    for (size_t b = 0; b < Bars; b++) {
        for (uint16_t s = 0; s < MUSIC_SYNTH_SHOW_STEPS; s++) {
            const uint8_t k = MUSIC_SYNTH_SHOW_ARP_FIGURE[s];
            const uint8_t pitch = k < 3 ? chords[b].tones[k] : (uint8_t)(chords[b].tones[0] + MUSIC_SYNTH_SHOW_OCTAVE);
            const uint8_t velocity = s % MUSIC_SYNTH_SHOW_STEPS_PER_BEAT ? 72 : 104;
            notes[MUSIC_SYNTH_SHOW_STEPS * b + s] = {(uint16_t)(b * MUSIC_SYNTH_SHOW_STEPS + s), 1, pitch, velocity};
        }
    }
    return notes;
}

// the bass: an eighth-note groove of root, octave and fifth; every fifth of the cycle is perfect
struct music_synth_show_bass_step {
    uint16_t step;
    uint16_t length;
    uint8_t interval;  // semitones above the root
    uint8_t velocity;
};
constexpr music_synth_show_bass_step MUSIC_SYNTH_SHOW_BASS_GROOVE[] = {
    {0, 2, 0, 120}, {3, 1, 0, 90},  {4, 1, 12, 105},  {6, 2, 0, 110}, {8, 2, 7, 110},
    {10, 1, 0, 90}, {11, 1, 0, 80}, {12, 2, 12, 110}, {14, 2, 7, 100}};
constexpr size_t MUSIC_SYNTH_SHOW_BASS_NOTES =
    sizeof(MUSIC_SYNTH_SHOW_BASS_GROOVE) / sizeof(MUSIC_SYNTH_SHOW_BASS_GROOVE[0]);
template <size_t Bars>
constexpr std::array<music_synth_note, MUSIC_SYNTH_SHOW_BASS_NOTES * Bars> music_synth_show_bass_part(
    const music_synth_show_chord (&chords)[Bars])
{
    std::array<music_synth_note, MUSIC_SYNTH_SHOW_BASS_NOTES* Bars> notes = {};
    for (size_t b = 0; b < Bars; b++) {
        for (size_t i = 0; i < MUSIC_SYNTH_SHOW_BASS_NOTES; i++) {
            const music_synth_show_bass_step& g = MUSIC_SYNTH_SHOW_BASS_GROOVE[i];
            notes[MUSIC_SYNTH_SHOW_BASS_NOTES * b + i] = {(uint16_t)(b * MUSIC_SYNTH_SHOW_STEPS + g.step), g.length,
                                                          (uint8_t)(chords[b].root + g.interval), g.velocity};
        }
    }
    return notes;
}

// the snare: two and four for `Bars` bars, the last with a pick-up into the next phrase
template <size_t Bars>
constexpr std::array<music_synth_note, 2 * Bars + 3> music_synth_show_backbeat_part()
{
    std::array<music_synth_note, 2 * Bars + 3> notes = {};
    for (size_t b = 0; b < Bars; b++) {
        notes[2 * b] = {(uint16_t)(b * MUSIC_SYNTH_SHOW_STEPS + 4), 1, 0, 118};
        notes[2 * b + 1] = {(uint16_t)(b * MUSIC_SYNTH_SHOW_STEPS + 12), 1, 0, 118};
    }
    const uint16_t last = (uint16_t)((Bars - 1) * MUSIC_SYNTH_SHOW_STEPS);
    notes[2 * Bars] = {(uint16_t)(last + 13), 1, 0, 60};
    notes[2 * Bars + 1] = {(uint16_t)(last + 14), 1, 0, 85};
    notes[2 * Bars + 2] = {(uint16_t)(last + 15), 1, 0, 105};
    return notes;
}

// ---- instruments ----
//
// Levels: the kick leads, the bass sits 3 dB under it, pad, arpeggio and lead further back, the
// hats quiet. Pad, arpeggio and bass dip under the kick so that it punches through.

const music_synth_instrument music_synth_show_kick = {
    .kind = MUSIC_SYNTH_DRUM,
    .gain = 0.75f,
    .pan = 0.0f,
    .echo_send = 0.0f,
    .duck_key = 1,
    .duck = 0.0f,
    .drum = {.tone_level = 1.0f,
             .tone_start_hz = 165.0f,
             .tone_end_hz = 45.0f,
             .tone_sweep = 0.032f,
             .tone_decay = 0.16f,
             .noise_level = 0.12f,  // the beater's click
             .noise_filter = MUSIC_SYNTH_FILTER_LOW,
             .noise_hz = 3000.0f,
             .noise_q = 0.0f,
             .noise_decay = 0.004f,
             .noise_bursts = 0,
             .burst_gap = 0.0f},
    .tone = {},
};
const music_synth_instrument music_synth_show_snare = {
    .kind = MUSIC_SYNTH_DRUM,
    .gain = 0.62f,
    .pan = 0.05f,
    .echo_send = 0.12f,
    .duck_key = 0,
    .duck = 0.0f,
    .drum = {.tone_level = 0.45f,
             .tone_start_hz = 230.0f,
             .tone_end_hz = 180.0f,
             .tone_sweep = 0.04f,
             .tone_decay = 0.07f,
             .noise_level = 0.85f,
             .noise_filter = MUSIC_SYNTH_FILTER_BAND,
             .noise_hz = 2200.0f,
             .noise_q = 0.8f,
             .noise_decay = 0.12f,
             .noise_bursts = 0,
             .burst_gap = 0.0f},
    .tone = {},
};
// Noise alone through one filter, fading with one time constant: hats, cymbals and claps.
struct music_synth_show_noise {
    float gain;
    float pan;
    float echo_send;
    uint32_t filter;  // music_synth_filter
    float hz;
    float q;
    float decay;      // seconds
    uint32_t bursts;  // strikes per note, 0 or 1 for one
    float burst_gap;  // seconds between strikes
};

constexpr music_synth_instrument music_synth_show_noise_drum(const music_synth_show_noise& n)
{
    music_synth_instrument ins = {};
    ins.kind = MUSIC_SYNTH_DRUM;
    ins.gain = n.gain;
    ins.pan = n.pan;
    ins.echo_send = n.echo_send;
    ins.drum.noise_level = 1.0f;
    ins.drum.noise_filter = n.filter;
    ins.drum.noise_hz = n.hz;
    ins.drum.noise_q = n.q;
    ins.drum.noise_decay = n.decay;
    ins.drum.noise_bursts = n.bursts;
    ins.drum.burst_gap = n.burst_gap;
    return ins;
}

// {gain, pan, echo send, filter, Hz, q, decay, strikes, seconds between}
// a clap: three quick strikes of band-passed noise, a little left of the snare it doubles
const music_synth_instrument music_synth_show_clap =
    music_synth_show_noise_drum({0.45f, -0.2f, 0.2f, MUSIC_SYNTH_FILTER_BAND, 1300.0f, 1.4f, 0.045f, 3, 0.011f});
// hats and the crash are high-passed noise
const music_synth_instrument music_synth_show_hat =
    music_synth_show_noise_drum({0.28f, 0.30f, 0.0f, MUSIC_SYNTH_FILTER_HIGH, 7000.0f, 0.0f, 0.03f, 1, 0.0f});
const music_synth_instrument music_synth_show_open_hat =
    music_synth_show_noise_drum({0.17f, 0.35f, 0.05f, MUSIC_SYNTH_FILTER_HIGH, 6500.0f, 0.0f, 0.16f, 1, 0.0f});
const music_synth_instrument music_synth_show_crash =
    music_synth_show_noise_drum({0.20f, -0.25f, 0.15f, MUSIC_SYNTH_FILTER_HIGH, 4500.0f, 0.0f, 0.75f, 1, 0.0f});
// a saw and a square an octave below it, through a filter that opens on each note
const music_synth_instrument music_synth_show_bass = {
    .kind = MUSIC_SYNTH_TONE,
    .gain = 0.40f,
    .pan = 0.0f,
    .echo_send = 0.0f,
    .duck_key = 0,
    .duck = 0.3f,
    .drum = {},
    .tone = {.oscillators = {{MUSIC_SYNTH_WAVE_SAW, 0.0f, 0.6f}, {MUSIC_SYNTH_WAVE_SQUARE, -12.0f, 0.4f}, {}},
             .oscillator_count = 2,
             .attack = 0.004f,
             .decay = 0.18f,
             .sustain = 0.55f,
             .release = 0.04f,
             .cutoff_hz = 200.0f,
             .cutoff_env_hz = 950.0f,
             .cutoff_decay = 0.11f,
             .resonance_q = 1.3f,
             .vibrato_cents = 0.0f,
             .vibrato_hz = 0.0f},
};
// three saws 9 cents apart, slow to rise and to fade, darkly filtered
const music_synth_instrument music_synth_show_pad = {
    .kind = MUSIC_SYNTH_TONE,
    .gain = 0.15f,
    .pan = -0.2f,
    .echo_send = 0.22f,
    .duck_key = 0,
    .duck = 0.5f,
    .drum = {},
    .tone = {.oscillators = {{MUSIC_SYNTH_WAVE_SAW, -0.09f, 0.35f},
                             {MUSIC_SYNTH_WAVE_SAW, 0.0f, 0.35f},
                             {MUSIC_SYNTH_WAVE_SAW, 0.09f, 0.35f}},
             .oscillator_count = 3,
             .attack = 0.25f,
             .decay = 1.2f,
             .sustain = 0.7f,
             .release = 0.3f,
             .cutoff_hz = 850.0f,
             .cutoff_env_hz = 500.0f,
             .cutoff_decay = 0.9f,
             .resonance_q = 0.8f,
             .vibrato_cents = 0.0f,
             .vibrato_hz = 0.0f},
};
// a plucked square and saw, short and bright, thrown into the echo
const music_synth_instrument music_synth_show_pluck = {
    .kind = MUSIC_SYNTH_TONE,
    .gain = 0.16f,
    .pan = 0.35f,
    .echo_send = 0.4f,
    .duck_key = 0,
    .duck = 0.3f,
    .drum = {},
    .tone = {.oscillators = {{MUSIC_SYNTH_WAVE_SQUARE, 0.0f, 0.5f}, {MUSIC_SYNTH_WAVE_SAW, 0.06f, 0.4f}, {}},
             .oscillator_count = 2,
             .attack = 0.003f,
             .decay = 0.12f,
             .sustain = 0.0f,
             .release = 0.08f,
             .cutoff_hz = 900.0f,
             .cutoff_env_hz = 2500.0f,
             .cutoff_decay = 0.1f,
             .resonance_q = 1.2f,
             .vibrato_cents = 0.0f,
             .vibrato_hz = 0.0f},
};
// a square and a saw in unison with a triangle an octave up, a plucked filter and some vibrato
const music_synth_instrument music_synth_show_lead = {
    .kind = MUSIC_SYNTH_TONE,
    .gain = 0.27f,
    .pan = 0.15f,
    .echo_send = 0.35f,
    .duck_key = 0,
    .duck = 0.0f,
    .drum = {},
    .tone = {.oscillators = {{MUSIC_SYNTH_WAVE_SQUARE, 0.0f, 0.45f},
                             {MUSIC_SYNTH_WAVE_SAW, 0.07f, 0.45f},
                             {MUSIC_SYNTH_WAVE_TRIANGLE, 12.0f, 0.3f}},
             .oscillator_count = 3,
             .attack = 0.008f,
             .decay = 0.25f,
             .sustain = 0.6f,
             .release = 0.12f,
             .cutoff_hz = 1500.0f,
             .cutoff_env_hz = 2200.0f,
             .cutoff_decay = 0.18f,
             .resonance_q = 1.4f,
             .vibrato_cents = 14.0f,
             .vibrato_hz = 5.5f},
};
// a sine with its octave and a triangle an octave and a fifth up: a soft bell for the break's
// melody and the climax's counter-melody
const music_synth_instrument music_synth_show_bell = {
    .kind = MUSIC_SYNTH_TONE,
    .gain = 0.24f,
    .pan = -0.35f,
    .echo_send = 0.5f,
    .duck_key = 0,
    .duck = 0.0f,
    .drum = {},
    .tone = {.oscillators = {{MUSIC_SYNTH_WAVE_SINE, 0.0f, 0.6f},
                             {MUSIC_SYNTH_WAVE_SINE, 12.0f, 0.3f},
                             {MUSIC_SYNTH_WAVE_TRIANGLE, 19.0f, 0.12f}},
             .oscillator_count = 3,
             .attack = 0.005f,
             .decay = 0.6f,
             .sustain = 0.3f,
             .release = 0.45f,
             .cutoff_hz = 6000.0f,
             .cutoff_env_hz = 0.0f,
             .cutoff_decay = 0.1f,
             .resonance_q = 0.0f,
             .vibrato_cents = 0.0f,
             .vibrato_hz = 0.0f},
};
// noise through a resonant low-pass; its cues sweep the filter up and the level in
const music_synth_instrument music_synth_show_riser = {
    .kind = MUSIC_SYNTH_TONE,
    .gain = 0.16f,
    .pan = 0.0f,
    .echo_send = 0.25f,
    .duck_key = 0,
    .duck = 0.0f,
    .drum = {},
    .tone = {.oscillators = {{MUSIC_SYNTH_WAVE_NOISE, 0.0f, 1.0f}, {}, {}},
             .oscillator_count = 1,
             .attack = 0.2f,
             .decay = 1.0f,
             .sustain = 1.0f,
             .release = 0.1f,
             .cutoff_hz = 300.0f,
             .cutoff_env_hz = 0.0f,
             .cutoff_decay = 0.1f,
             .resonance_q = 2.5f,
             .vibrato_cents = 0.0f,
             .vibrato_hz = 0.0f},
};
// the last chord: the pad's voices, struck harder and brighter, left to ring into the tail
const music_synth_instrument music_synth_show_last_chord = {
    .kind = MUSIC_SYNTH_TONE,
    .gain = 0.15f,
    .pan = -0.1f,
    .echo_send = 0.3f,
    .duck_key = 0,
    .duck = 0.0f,
    .drum = {},
    .tone = {.oscillators = {{MUSIC_SYNTH_WAVE_SAW, -0.09f, 0.35f},
                             {MUSIC_SYNTH_WAVE_SAW, 0.0f, 0.35f},
                             {MUSIC_SYNTH_WAVE_SAW, 0.09f, 0.35f}},
             .oscillator_count = 3,
             .attack = 0.02f,
             .decay = 1.5f,
             .sustain = 0.55f,
             .release = 0.8f,
             .cutoff_hz = 900.0f,
             .cutoff_env_hz = 1800.0f,
             .cutoff_decay = 0.7f,
             .resonance_q = 0.8f,
             .vibrato_cents = 0.0f,
             .vibrato_hz = 0.0f},
};

// ---- patterns ----
//
// notes: {step, length in steps, pitch, velocity}; drums have no pitch or length. Steps count
// from a pattern's first bar: 16 a bar, so 16 is bar 2 and 48 bar 4.

constexpr music_synth_note music_synth_show_four_on_the_floor[] = {
    {0, 1, 0, 127}, {4, 1, 0, 127}, {8, 1, 0, 127}, {12, 1, 0, 127}};
// the climax's kick pushes into beat four with an extra sixteenth
constexpr music_synth_note music_synth_show_kick_drive[] = {
    {0, 1, 0, 127}, {4, 1, 0, 127}, {8, 1, 0, 127}, {11, 1, 0, 80}, {12, 1, 0, 127}};
constexpr music_synth_note music_synth_show_downbeat[] = {{0, 1, 0, 127}};
constexpr music_synth_note music_synth_show_two_and_four[] = {{4, 1, 0, 118}, {12, 1, 0, 118}};
constexpr auto music_synth_show_backbeat_phrase = music_synth_show_backbeat_part<8>();
// bar 20: eighths, then sixteenths growing into the main part
constexpr music_synth_note music_synth_show_build_roll[] = {
    {0, 1, 0, 50},  {2, 1, 0, 58},  {4, 1, 0, 66},  {6, 1, 0, 74},   {8, 1, 0, 82},   {9, 1, 0, 86},
    {10, 1, 0, 90}, {11, 1, 0, 94}, {12, 1, 0, 98}, {13, 1, 0, 104}, {14, 1, 0, 112}, {15, 1, 0, 120}};
// bar 52: sixteenths from a whisper to full
constexpr music_synth_note music_synth_show_break_roll[] = {
    {0, 1, 0, 20},  {1, 1, 0, 26},   {2, 1, 0, 32},   {3, 1, 0, 38},  {4, 1, 0, 44},  {5, 1, 0, 50},
    {6, 1, 0, 56},  {7, 1, 0, 62},   {8, 1, 0, 68},   {9, 1, 0, 75},  {10, 1, 0, 82}, {11, 1, 0, 89},
    {12, 1, 0, 96}, {13, 1, 0, 104}, {14, 1, 0, 112}, {15, 1, 0, 120}};
constexpr music_synth_note music_synth_show_hat_eighths[] = {{0, 1, 0, 45},  {2, 1, 0, 90}, {4, 1, 0, 45},
                                                             {6, 1, 0, 90},  {8, 1, 0, 45}, {10, 1, 0, 90},
                                                             {12, 1, 0, 45}, {14, 1, 0, 90}};
constexpr music_synth_note music_synth_show_hat_sixteenths[] = {
    {0, 1, 0, 60},  {1, 1, 0, 28},  {2, 1, 0, 100}, {3, 1, 0, 28}, {4, 1, 0, 60},   {5, 1, 0, 28},
    {6, 1, 0, 100}, {7, 1, 0, 28},  {8, 1, 0, 60},  {9, 1, 0, 28}, {10, 1, 0, 100}, {11, 1, 0, 28},
    {12, 1, 0, 60}, {13, 1, 0, 28}, {14, 1, 0, 70}, {15, 1, 0, 40}};
constexpr music_synth_note music_synth_show_open_hat_last_offbeat[] = {{14, 1, 0, 110}};
constexpr music_synth_note music_synth_show_open_hat_offbeats[] = {
    {2, 1, 0, 100}, {6, 1, 0, 100}, {10, 1, 0, 100}, {14, 1, 0, 115}};

constexpr auto music_synth_show_bass_cycle = music_synth_show_bass_part(MUSIC_SYNTH_SHOW_CYCLE);
constexpr music_synth_note music_synth_show_bass_last[] = {{0, 24, 38, 127}};  // a low D under the last chord
constexpr auto music_synth_show_pad_cycle = music_synth_show_pad_part(MUSIC_SYNTH_SHOW_CYCLE);
constexpr auto music_synth_show_pad_break = music_synth_show_pad_part(MUSIC_SYNTH_SHOW_BREAK_CYCLE);
constexpr auto music_synth_show_arp_cycle = music_synth_show_arp_part(MUSIC_SYNTH_SHOW_CYCLE);
constexpr auto music_synth_show_arp_break = music_synth_show_arp_part(MUSIC_SYNTH_SHOW_BREAK_CYCLE);
// D minor with an added ninth, from the D an octave above the bass to the E at the top
constexpr music_synth_note music_synth_show_last_chord_notes[] = {{0, 32, 50, 110}, {0, 32, 57, 100}, {0, 32, 62, 100},
                                                                  {0, 32, 65, 100}, {0, 32, 69, 95},  {0, 32, 76, 85}};
constexpr music_synth_note music_synth_show_riser_four_bars[] = {{0, 64, 62, 120}};
constexpr music_synth_note music_synth_show_riser_two_bars[] = {{0, 32, 62, 120}};

// The melody's first phrase, eight bars over two turns of the cycle: it climbs from the A
// through the D minor chord and falls back, answers a step higher, and comes to rest on the E
// of the C chord.
constexpr music_synth_note music_synth_show_melody_a[] = {
    {0, 3, 69, 110},  {3, 3, 74, 95},   {6, 2, 77, 100},   {8, 2, 76, 90},    {10, 2, 74, 90},  {12, 4, 69, 95},
    {16, 3, 70, 110}, {19, 3, 74, 95},  {22, 4, 77, 100},  {26, 2, 79, 90},   {28, 2, 77, 90},  {30, 2, 74, 90},
    {32, 3, 72, 110}, {35, 3, 77, 95},  {38, 4, 81, 105},  {42, 2, 79, 90},   {44, 2, 77, 90},  {46, 2, 76, 90},
    {48, 6, 76, 110}, {54, 2, 74, 90},  {56, 4, 72, 100},  {60, 4, 67, 90},   {64, 3, 69, 110}, {67, 3, 74, 95},
    {70, 2, 77, 100}, {72, 2, 76, 90},  {74, 2, 74, 90},   {76, 4, 77, 95},   {80, 3, 79, 110}, {83, 3, 77, 95},
    {86, 4, 74, 100}, {90, 2, 70, 90},  {92, 2, 72, 90},   {94, 2, 74, 90},   {96, 4, 72, 110}, {100, 4, 69, 95},
    {104, 2, 72, 90}, {106, 2, 77, 95}, {108, 4, 76, 100}, {112, 8, 76, 110}, {120, 4, 79, 95}, {124, 4, 76, 90}};
// The second phrase sits a fifth higher and moves more, peaking on the high D.
constexpr music_synth_note music_synth_show_melody_b[] = {
    {0, 2, 77, 110},   {2, 2, 81, 95},   {4, 4, 86, 105},  {8, 2, 84, 90},   {10, 2, 81, 90},   {12, 4, 77, 95},
    {16, 2, 77, 110},  {18, 2, 82, 95},  {20, 4, 86, 105}, {24, 2, 84, 90},  {26, 2, 82, 90},   {28, 2, 81, 90},
    {30, 2, 79, 90},   {32, 4, 81, 110}, {36, 2, 84, 95},  {38, 2, 81, 90},  {40, 4, 77, 100},  {44, 2, 79, 90},
    {46, 2, 81, 90},   {48, 6, 79, 110}, {54, 2, 76, 90},  {56, 4, 79, 100}, {60, 4, 84, 100},  {64, 4, 86, 115},
    {68, 2, 84, 95},   {70, 2, 81, 90},  {72, 2, 77, 90},  {74, 2, 81, 95},  {76, 4, 86, 105},  {80, 4, 82, 110},
    {84, 2, 81, 90},   {86, 2, 79, 90},  {88, 4, 77, 100}, {92, 4, 74, 90},  {96, 2, 72, 105},  {98, 2, 77, 90},
    {100, 4, 81, 100}, {104, 2, 79, 90}, {106, 2, 77, 90}, {108, 4, 72, 95}, {112, 4, 76, 110}, {116, 4, 79, 95},
    {120, 4, 84, 105}, {124, 4, 76, 90}};
// The variation: the first phrase's opening four bars, then this turn in running eighths that
// ends on a long E.
constexpr music_synth_note music_synth_show_melody_turn[] = {
    {0, 2, 69, 110}, {2, 2, 74, 90},   {4, 2, 77, 95},   {6, 2, 81, 100}, {8, 2, 79, 90},  {10, 2, 77, 90},
    {12, 2, 76, 90}, {14, 2, 74, 90},  {16, 3, 77, 110}, {19, 3, 74, 95}, {22, 2, 70, 90}, {24, 2, 74, 90},
    {26, 2, 77, 95}, {28, 4, 82, 105}, {32, 3, 81, 110}, {35, 3, 79, 95}, {38, 2, 77, 90}, {40, 2, 76, 90},
    {42, 2, 77, 95}, {44, 4, 79, 100}, {48, 4, 76, 110}, {52, 4, 74, 95}, {56, 8, 76, 105}};
// The break's bell: few notes, long ones, for the echo to fill; it ends on the E of A major.
constexpr music_synth_note music_synth_show_bell_break[] = {
    {0, 8, 74, 100}, {8, 4, 70, 85},    {12, 4, 67, 85},  {16, 12, 65, 95}, {28, 4, 70, 85},   {32, 8, 72, 100},
    {40, 8, 69, 90}, {48, 16, 73, 100}, {64, 4, 74, 100}, {68, 4, 77, 90},  {72, 8, 79, 100},  {80, 8, 77, 95},
    {88, 8, 74, 90}, {96, 8, 72, 100},  {104, 4, 69, 85}, {108, 4, 72, 90}, {112, 16, 76, 105}};
// The climax's counter-melody under the lead: half notes moving against the chords.
constexpr music_synth_note music_synth_show_bell_counter[] = {
    {0, 6, 69, 100},  {6, 2, 67, 85},  {8, 8, 65, 95},  {16, 6, 65, 100},  {22, 2, 67, 85}, {24, 8, 70, 95},
    {32, 6, 69, 100}, {38, 2, 70, 85}, {40, 8, 72, 95}, {48, 12, 67, 100}, {60, 4, 64, 85}};

enum music_synth_show_pattern_id : uint16_t {
    MUSIC_SYNTH_SHOW_PAT_FOUR_ON_THE_FLOOR,
    MUSIC_SYNTH_SHOW_PAT_KICK_DRIVE,
    MUSIC_SYNTH_SHOW_PAT_DOWNBEAT,
    MUSIC_SYNTH_SHOW_PAT_TWO_AND_FOUR,
    MUSIC_SYNTH_SHOW_PAT_BACKBEAT_PHRASE,
    MUSIC_SYNTH_SHOW_PAT_BUILD_ROLL,
    MUSIC_SYNTH_SHOW_PAT_BREAK_ROLL,
    MUSIC_SYNTH_SHOW_PAT_HAT_EIGHTHS,
    MUSIC_SYNTH_SHOW_PAT_HAT_SIXTEENTHS,
    MUSIC_SYNTH_SHOW_PAT_OPEN_HAT_LAST_OFFBEAT,
    MUSIC_SYNTH_SHOW_PAT_OPEN_HAT_OFFBEATS,
    MUSIC_SYNTH_SHOW_PAT_BASS_CYCLE,
    MUSIC_SYNTH_SHOW_PAT_BASS_LAST,
    MUSIC_SYNTH_SHOW_PAT_PAD_CYCLE,
    MUSIC_SYNTH_SHOW_PAT_PAD_BREAK,
    MUSIC_SYNTH_SHOW_PAT_ARP_CYCLE,
    MUSIC_SYNTH_SHOW_PAT_ARP_BREAK,
    MUSIC_SYNTH_SHOW_PAT_LAST_CHORD,
    MUSIC_SYNTH_SHOW_PAT_RISER_FOUR_BARS,
    MUSIC_SYNTH_SHOW_PAT_RISER_TWO_BARS,
    MUSIC_SYNTH_SHOW_PAT_MELODY_A,
    MUSIC_SYNTH_SHOW_PAT_MELODY_B,
    MUSIC_SYNTH_SHOW_PAT_MELODY_TURN,
    MUSIC_SYNTH_SHOW_PAT_BELL_BREAK,
    MUSIC_SYNTH_SHOW_PAT_BELL_COUNTER,
    MUSIC_SYNTH_SHOW_PATTERN_COUNT
};

template <size_t N>
constexpr music_synth_pattern music_synth_show_pattern(const music_synth_note (&notes)[N], uint32_t bars)
{
    return {notes, (uint32_t)N, bars};
}

template <size_t N>
constexpr music_synth_pattern music_synth_show_pattern(const std::array<music_synth_note, N>& notes, uint32_t bars)
{
    return {notes.data(), (uint32_t)N, bars};
}

const music_synth_pattern music_synth_show_patterns[MUSIC_SYNTH_SHOW_PATTERN_COUNT] = {
    music_synth_show_pattern(music_synth_show_four_on_the_floor, 1),
    music_synth_show_pattern(music_synth_show_kick_drive, 1),
    music_synth_show_pattern(music_synth_show_downbeat, 1),
    music_synth_show_pattern(music_synth_show_two_and_four, 1),
    music_synth_show_pattern(music_synth_show_backbeat_phrase, 8),
    music_synth_show_pattern(music_synth_show_build_roll, 1),
    music_synth_show_pattern(music_synth_show_break_roll, 1),
    music_synth_show_pattern(music_synth_show_hat_eighths, 1),
    music_synth_show_pattern(music_synth_show_hat_sixteenths, 1),
    music_synth_show_pattern(music_synth_show_open_hat_last_offbeat, 1),
    music_synth_show_pattern(music_synth_show_open_hat_offbeats, 1),
    music_synth_show_pattern(music_synth_show_bass_cycle, MUSIC_SYNTH_SHOW_CYCLE_BARS),
    music_synth_show_pattern(music_synth_show_bass_last, 1),
    music_synth_show_pattern(music_synth_show_pad_cycle, MUSIC_SYNTH_SHOW_CYCLE_BARS),
    music_synth_show_pattern(music_synth_show_pad_break, MUSIC_SYNTH_SHOW_CYCLE_BARS),
    music_synth_show_pattern(music_synth_show_arp_cycle, MUSIC_SYNTH_SHOW_CYCLE_BARS),
    music_synth_show_pattern(music_synth_show_arp_break, MUSIC_SYNTH_SHOW_CYCLE_BARS),
    music_synth_show_pattern(music_synth_show_last_chord_notes, 2),
    music_synth_show_pattern(music_synth_show_riser_four_bars, 4),
    music_synth_show_pattern(music_synth_show_riser_two_bars, 2),
    music_synth_show_pattern(music_synth_show_melody_a, 8),
    music_synth_show_pattern(music_synth_show_melody_b, 8),
    music_synth_show_pattern(music_synth_show_melody_turn, 4),
    music_synth_show_pattern(music_synth_show_bell_break, 8),
    music_synth_show_pattern(music_synth_show_bell_counter, MUSIC_SYNTH_SHOW_CYCLE_BARS),
};

// ---- the score: cues per instrument ----
//
// (first bar, bars, pattern, transpose[, cutoff from, to in octaves, level from, to in dB]);
// cue bars count from 0, so each section's constant is its header bar minus 1.
constexpr uint16_t MUSIC_SYNTH_SHOW_INTRO = MUSIC_SYNTH_SHOW_INTRO_BAR - 1;
constexpr uint16_t MUSIC_SYNTH_SHOW_BUILD = MUSIC_SYNTH_SHOW_BUILD_BAR - 1;
constexpr uint16_t MUSIC_SYNTH_SHOW_MAIN = MUSIC_SYNTH_SHOW_MAIN_BAR - 1;
constexpr uint16_t MUSIC_SYNTH_SHOW_BREAK = MUSIC_SYNTH_SHOW_BREAK_BAR - 1;
constexpr uint16_t MUSIC_SYNTH_SHOW_CLIMAX = MUSIC_SYNTH_SHOW_CLIMAX_BAR - 1;
constexpr uint16_t MUSIC_SYNTH_SHOW_ENDING = MUSIC_SYNTH_SHOW_ENDING_BAR - 1;
constexpr uint16_t MUSIC_SYNTH_SHOW_LAST_CHORD = MUSIC_SYNTH_SHOW_LAST_CHORD_BAR - 1;
constexpr uint16_t MUSIC_SYNTH_SHOW_PHRASE = 8;  // bars
constexpr uint16_t MUSIC_SYNTH_SHOW_BUILD_BARS = MUSIC_SYNTH_SHOW_MAIN_BAR - MUSIC_SYNTH_SHOW_BUILD_BAR;
constexpr uint16_t MUSIC_SYNTH_SHOW_MAIN_BARS = MUSIC_SYNTH_SHOW_BREAK_BAR - MUSIC_SYNTH_SHOW_MAIN_BAR;
constexpr uint16_t MUSIC_SYNTH_SHOW_BREAK_BARS = MUSIC_SYNTH_SHOW_CLIMAX_BAR - MUSIC_SYNTH_SHOW_BREAK_BAR;
constexpr uint16_t MUSIC_SYNTH_SHOW_CLIMAX_BARS = MUSIC_SYNTH_SHOW_ENDING_BAR - MUSIC_SYNTH_SHOW_CLIMAX_BAR;
constexpr int8_t MUSIC_SYNTH_SHOW_OCTAVE_UP = 12;

// a cue that plays its pattern as the instrument is
constexpr music_synth_cue music_synth_show_play(uint16_t bar, uint16_t bars, uint16_t pattern, int8_t transpose = 0)
{
    return {bar, bars, pattern, transpose, 0.0f, 0.0f, 0.0f, 0.0f};
}

// a cue that sweeps the cutoff (octaves) and the level (dB) across its bars
constexpr music_synth_cue music_synth_show_swept(uint16_t bar, uint16_t bars, uint16_t pattern, int8_t transpose,
                                                 float octaves_from, float octaves_to, float db_from, float db_to)
{
    return {bar, bars, pattern, transpose, octaves_from, octaves_to, db_from, db_to};
}

// Kick: in with the build-up, four on the floor; pushed in the climax; it stops two bars before
// the last chord and strikes once more with it.
const music_synth_cue music_synth_show_kick_cues[] = {
    music_synth_show_swept(MUSIC_SYNTH_SHOW_BUILD, MUSIC_SYNTH_SHOW_BUILD_BARS, MUSIC_SYNTH_SHOW_PAT_FOUR_ON_THE_FLOOR,
                           0, 0, 0, -6, 0),
    music_synth_show_play(MUSIC_SYNTH_SHOW_MAIN, MUSIC_SYNTH_SHOW_MAIN_BARS, MUSIC_SYNTH_SHOW_PAT_FOUR_ON_THE_FLOOR),
    music_synth_show_play(MUSIC_SYNTH_SHOW_CLIMAX, MUSIC_SYNTH_SHOW_CLIMAX_BARS, MUSIC_SYNTH_SHOW_PAT_KICK_DRIVE),
    music_synth_show_play(MUSIC_SYNTH_SHOW_ENDING, 6, MUSIC_SYNTH_SHOW_PAT_FOUR_ON_THE_FLOOR),
    music_synth_show_play(MUSIC_SYNTH_SHOW_LAST_CHORD, 1, MUSIC_SYNTH_SHOW_PAT_DOWNBEAT),
};
// Snare and clap: from the build-up's third phrase, with a roll into the main part; pick-ups
// every eight bars; a roll out of the break; out four bars before the last chord.
const music_synth_cue music_synth_show_snare_cues[] = {
    music_synth_show_play(MUSIC_SYNTH_SHOW_BUILD + 8, 3, MUSIC_SYNTH_SHOW_PAT_TWO_AND_FOUR),
    music_synth_show_play(MUSIC_SYNTH_SHOW_BUILD + 11, 1, MUSIC_SYNTH_SHOW_PAT_BUILD_ROLL),
    music_synth_show_play(MUSIC_SYNTH_SHOW_MAIN, MUSIC_SYNTH_SHOW_MAIN_BARS, MUSIC_SYNTH_SHOW_PAT_BACKBEAT_PHRASE),
    music_synth_show_play(MUSIC_SYNTH_SHOW_BREAK + 7, 1, MUSIC_SYNTH_SHOW_PAT_BREAK_ROLL),
    music_synth_show_play(MUSIC_SYNTH_SHOW_CLIMAX, MUSIC_SYNTH_SHOW_CLIMAX_BARS, MUSIC_SYNTH_SHOW_PAT_BACKBEAT_PHRASE),
    music_synth_show_play(MUSIC_SYNTH_SHOW_ENDING, 4, MUSIC_SYNTH_SHOW_PAT_TWO_AND_FOUR),
};
const music_synth_cue music_synth_show_clap_cues[] = {
    music_synth_show_play(MUSIC_SYNTH_SHOW_MAIN, MUSIC_SYNTH_SHOW_MAIN_BARS, MUSIC_SYNTH_SHOW_PAT_TWO_AND_FOUR),
    music_synth_show_play(MUSIC_SYNTH_SHOW_CLIMAX, MUSIC_SYNTH_SHOW_CLIMAX_BARS, MUSIC_SYNTH_SHOW_PAT_TWO_AND_FOUR),
    music_synth_show_play(MUSIC_SYNTH_SHOW_ENDING, 4, MUSIC_SYNTH_SHOW_PAT_TWO_AND_FOUR),
};
// Hats: eighths from the first beat, sixteenths from the snare's entry on; out in the break;
// the last to go, fading over the ending.
const music_synth_cue music_synth_show_hat_cues[] = {
    music_synth_show_swept(MUSIC_SYNTH_SHOW_INTRO, MUSIC_SYNTH_SHOW_BUILD + 8, MUSIC_SYNTH_SHOW_PAT_HAT_EIGHTHS, 0, 0,
                           0, -4, 0),
    music_synth_show_play(MUSIC_SYNTH_SHOW_BUILD + 8, 4, MUSIC_SYNTH_SHOW_PAT_HAT_SIXTEENTHS),
    music_synth_show_play(MUSIC_SYNTH_SHOW_MAIN, MUSIC_SYNTH_SHOW_MAIN_BARS, MUSIC_SYNTH_SHOW_PAT_HAT_SIXTEENTHS),
    music_synth_show_play(MUSIC_SYNTH_SHOW_CLIMAX, MUSIC_SYNTH_SHOW_CLIMAX_BARS, MUSIC_SYNTH_SHOW_PAT_HAT_SIXTEENTHS),
    music_synth_show_swept(MUSIC_SYNTH_SHOW_ENDING, 8, MUSIC_SYNTH_SHOW_PAT_HAT_SIXTEENTHS, 0, 0, 0, 0, -12),
};
const music_synth_cue music_synth_show_open_hat_cues[] = {
    music_synth_show_play(MUSIC_SYNTH_SHOW_MAIN, MUSIC_SYNTH_SHOW_MAIN_BARS,
                          MUSIC_SYNTH_SHOW_PAT_OPEN_HAT_LAST_OFFBEAT),
    music_synth_show_play(MUSIC_SYNTH_SHOW_CLIMAX, MUSIC_SYNTH_SHOW_CLIMAX_BARS,
                          MUSIC_SYNTH_SHOW_PAT_OPEN_HAT_OFFBEATS),
};
// Crash on the first beat of each phrase of the main part and the climax, and on the last chord.
const music_synth_cue music_synth_show_crash_cues[] = {
    music_synth_show_play(MUSIC_SYNTH_SHOW_MAIN, 1, MUSIC_SYNTH_SHOW_PAT_DOWNBEAT),
    music_synth_show_play(MUSIC_SYNTH_SHOW_MAIN + 8, 1, MUSIC_SYNTH_SHOW_PAT_DOWNBEAT),
    music_synth_show_play(MUSIC_SYNTH_SHOW_MAIN + 16, 1, MUSIC_SYNTH_SHOW_PAT_DOWNBEAT),
    music_synth_show_play(MUSIC_SYNTH_SHOW_CLIMAX, 1, MUSIC_SYNTH_SHOW_PAT_DOWNBEAT),
    music_synth_show_play(MUSIC_SYNTH_SHOW_CLIMAX + 8, 1, MUSIC_SYNTH_SHOW_PAT_DOWNBEAT),
    music_synth_show_play(MUSIC_SYNTH_SHOW_CLIMAX + 16, 1, MUSIC_SYNTH_SHOW_PAT_DOWNBEAT),
    music_synth_show_play(MUSIC_SYNTH_SHOW_LAST_CHORD, 1, MUSIC_SYNTH_SHOW_PAT_DOWNBEAT),
};
// Bass: enters in the build-up's second phrase with its filter closed and opening; out in the
// break; leaves two bars before the last chord, which it holds under.
const music_synth_cue music_synth_show_bass_cues[] = {
    music_synth_show_swept(MUSIC_SYNTH_SHOW_BUILD + 4, 8, MUSIC_SYNTH_SHOW_PAT_BASS_CYCLE, 0, -1.5f, 0, -3, 0),
    music_synth_show_play(MUSIC_SYNTH_SHOW_MAIN, MUSIC_SYNTH_SHOW_MAIN_BARS, MUSIC_SYNTH_SHOW_PAT_BASS_CYCLE),
    music_synth_show_swept(MUSIC_SYNTH_SHOW_CLIMAX, MUSIC_SYNTH_SHOW_CLIMAX_BARS, MUSIC_SYNTH_SHOW_PAT_BASS_CYCLE, 0,
                           0.3f, 0.3f, 0, 0),
    music_synth_show_play(MUSIC_SYNTH_SHOW_ENDING, 6, MUSIC_SYNTH_SHOW_PAT_BASS_CYCLE),
    music_synth_show_play(MUSIC_SYNTH_SHOW_LAST_CHORD, 1, MUSIC_SYNTH_SHOW_PAT_BASS_LAST),
};
// Pad: from the first beat to the last chord; dark in the intro, opening through the build-up,
// closing again over the ending.
const music_synth_cue music_synth_show_pad_cues[] = {
    music_synth_show_swept(MUSIC_SYNTH_SHOW_INTRO, 8, MUSIC_SYNTH_SHOW_PAT_PAD_CYCLE, 0, -0.6f, -0.4f, 1, 3),
    music_synth_show_swept(MUSIC_SYNTH_SHOW_BUILD, MUSIC_SYNTH_SHOW_BUILD_BARS, MUSIC_SYNTH_SHOW_PAT_PAD_CYCLE, 0,
                           -0.4f, 0.5f, 3, 0),
    music_synth_show_swept(MUSIC_SYNTH_SHOW_MAIN, MUSIC_SYNTH_SHOW_MAIN_BARS, MUSIC_SYNTH_SHOW_PAT_PAD_CYCLE, 0, 0.5f,
                           0.5f, -2, -2),
    music_synth_show_play(MUSIC_SYNTH_SHOW_BREAK, MUSIC_SYNTH_SHOW_BREAK_BARS, MUSIC_SYNTH_SHOW_PAT_PAD_BREAK),
    music_synth_show_swept(MUSIC_SYNTH_SHOW_CLIMAX, MUSIC_SYNTH_SHOW_CLIMAX_BARS, MUSIC_SYNTH_SHOW_PAT_PAD_CYCLE, 0,
                           1.0f, 1.0f, 1, 1),
    music_synth_show_swept(MUSIC_SYNTH_SHOW_ENDING, 8, MUSIC_SYNTH_SHOW_PAT_PAD_CYCLE, 0, 1.0f, -1.0f, 1, -3),
};
// Arpeggio: soft from the first beat, brightening through the build-up, back under the lead in
// the main part, the break's own voice as its filter opens towards the climax, an octave up in
// the climax; it leaves after the ending's first four bars.
const music_synth_cue music_synth_show_arp_cues[] = {
    music_synth_show_swept(MUSIC_SYNTH_SHOW_INTRO, 8, MUSIC_SYNTH_SHOW_PAT_ARP_CYCLE, 0, -1.0f, -0.8f, -3, -2),
    music_synth_show_swept(MUSIC_SYNTH_SHOW_BUILD, MUSIC_SYNTH_SHOW_BUILD_BARS, MUSIC_SYNTH_SHOW_PAT_ARP_CYCLE, 0,
                           -0.8f, 0.8f, -2, 0),
    music_synth_show_swept(MUSIC_SYNTH_SHOW_MAIN, MUSIC_SYNTH_SHOW_MAIN_BARS, MUSIC_SYNTH_SHOW_PAT_ARP_CYCLE, 0, 0, 0,
                           -9, -9),
    music_synth_show_swept(MUSIC_SYNTH_SHOW_BREAK, MUSIC_SYNTH_SHOW_BREAK_BARS, MUSIC_SYNTH_SHOW_PAT_ARP_BREAK, 0,
                           -1.5f, 0.5f, -8, -2),
    music_synth_show_swept(MUSIC_SYNTH_SHOW_CLIMAX, MUSIC_SYNTH_SHOW_CLIMAX_BARS, MUSIC_SYNTH_SHOW_PAT_ARP_CYCLE,
                           MUSIC_SYNTH_SHOW_OCTAVE_UP, 0, 0, -5, -5),
    music_synth_show_swept(MUSIC_SYNTH_SHOW_ENDING, 4, MUSIC_SYNTH_SHOW_PAT_ARP_CYCLE, 0, 0, -1.5f, -5, -10),
};
// Riser: four bars into the main part, two into the climax.
const music_synth_cue music_synth_show_riser_cues[] = {
    music_synth_show_swept(MUSIC_SYNTH_SHOW_MAIN - 4, 4, MUSIC_SYNTH_SHOW_PAT_RISER_FOUR_BARS, 0, 0, 4.8f, -30, 0),
    music_synth_show_swept(MUSIC_SYNTH_SHOW_CLIMAX - 2, 2, MUSIC_SYNTH_SHOW_PAT_RISER_TWO_BARS, 0, 0.5f, 4.8f, -24, 0),
};
// Lead: two phrases and the variation in the main part; in the climax the first phrase an
// octave up, the second as written over the bell, the variation an octave up again.
const music_synth_cue music_synth_show_lead_cues[] = {
    music_synth_show_play(MUSIC_SYNTH_SHOW_MAIN, MUSIC_SYNTH_SHOW_PHRASE, MUSIC_SYNTH_SHOW_PAT_MELODY_A),
    music_synth_show_play(MUSIC_SYNTH_SHOW_MAIN + 8, MUSIC_SYNTH_SHOW_PHRASE, MUSIC_SYNTH_SHOW_PAT_MELODY_B),
    music_synth_show_play(MUSIC_SYNTH_SHOW_MAIN + 16, 4, MUSIC_SYNTH_SHOW_PAT_MELODY_A),
    music_synth_show_play(MUSIC_SYNTH_SHOW_MAIN + 20, 4, MUSIC_SYNTH_SHOW_PAT_MELODY_TURN),
    music_synth_show_play(MUSIC_SYNTH_SHOW_CLIMAX, MUSIC_SYNTH_SHOW_PHRASE, MUSIC_SYNTH_SHOW_PAT_MELODY_A,
                          MUSIC_SYNTH_SHOW_OCTAVE_UP),
    music_synth_show_play(MUSIC_SYNTH_SHOW_CLIMAX + 8, MUSIC_SYNTH_SHOW_PHRASE, MUSIC_SYNTH_SHOW_PAT_MELODY_B),
    music_synth_show_play(MUSIC_SYNTH_SHOW_CLIMAX + 16, 4, MUSIC_SYNTH_SHOW_PAT_MELODY_A, MUSIC_SYNTH_SHOW_OCTAVE_UP),
    music_synth_show_play(MUSIC_SYNTH_SHOW_CLIMAX + 20, 4, MUSIC_SYNTH_SHOW_PAT_MELODY_TURN,
                          MUSIC_SYNTH_SHOW_OCTAVE_UP),
};
// Bell: the break's melody, then the counter-melody of the climax's last sixteen bars and the
// ending's first two.
const music_synth_cue music_synth_show_bell_cues[] = {
    music_synth_show_play(MUSIC_SYNTH_SHOW_BREAK, MUSIC_SYNTH_SHOW_BREAK_BARS, MUSIC_SYNTH_SHOW_PAT_BELL_BREAK),
    music_synth_show_play(MUSIC_SYNTH_SHOW_CLIMAX + 8, 18, MUSIC_SYNTH_SHOW_PAT_BELL_COUNTER),
};
const music_synth_cue music_synth_show_last_chord_cues[] = {
    music_synth_show_play(MUSIC_SYNTH_SHOW_LAST_CHORD, 2, MUSIC_SYNTH_SHOW_PAT_LAST_CHORD),
};

template <size_t N>
constexpr music_synth_track music_synth_show_track(const music_synth_instrument* instrument,
                                                   const music_synth_cue (&cues)[N])
{
    return {instrument, cues, (uint32_t)N};
}

const music_synth_track music_synth_show_tracks[] = {
    music_synth_show_track(&music_synth_show_kick, music_synth_show_kick_cues),
    music_synth_show_track(&music_synth_show_snare, music_synth_show_snare_cues),
    music_synth_show_track(&music_synth_show_clap, music_synth_show_clap_cues),
    music_synth_show_track(&music_synth_show_hat, music_synth_show_hat_cues),
    music_synth_show_track(&music_synth_show_open_hat, music_synth_show_open_hat_cues),
    music_synth_show_track(&music_synth_show_crash, music_synth_show_crash_cues),
    music_synth_show_track(&music_synth_show_bass, music_synth_show_bass_cues),
    music_synth_show_track(&music_synth_show_pad, music_synth_show_pad_cues),
    music_synth_show_track(&music_synth_show_pluck, music_synth_show_arp_cues),
    music_synth_show_track(&music_synth_show_riser, music_synth_show_riser_cues),
    music_synth_show_track(&music_synth_show_lead, music_synth_show_lead_cues),
    music_synth_show_track(&music_synth_show_bell, music_synth_show_bell_cues),
    music_synth_show_track(&music_synth_show_last_chord, music_synth_show_last_chord_cues),
};

const music_synth_song music_synth_show_piece = {
    MUSIC_SYNTH_SHOW_BPM,
    MUSIC_SYNTH_SHOW_STEPS_PER_BEAT,
    MUSIC_SYNTH_SHOW_BEATS_PER_BAR,
    MUSIC_SYNTH_SHOW_BARS,
    music_synth_show_patterns,
    MUSIC_SYNTH_SHOW_PATTERN_COUNT,
    music_synth_show_tracks,
    sizeof(music_synth_show_tracks) / sizeof(music_synth_show_tracks[0]),
    {3, 0.38f, 3000.0f, 0.42f},  // repeats a dotted eighth apart
    0.72f,
    {0.006f, 0.11f},  // the duck: quick down, back within about a beat
};

constexpr uint32_t MUSIC_SYNTH_SHOW_SECONDS_PER_MINUTE = 60;
static_assert(MUSIC_SYNTH_SHOW_BEAT_FRAMES * MUSIC_SYNTH_SHOW_BPM ==
                  MUSIC_SAMPLE_RATE * MUSIC_SYNTH_SHOW_SECONDS_PER_MINUTE,
              "the beat length follows from the tempo");
static_assert(MUSIC_SYNTH_SHOW_BAR_MS * MUSIC_SAMPLE_RATE == MUSIC_SYNTH_SHOW_BAR_FRAMES * 1000, "a bar is 2 s");
static_assert(MUSIC_SYNTH_SHOW_LAST_CHORD_BAR + 2 == MUSIC_SYNTH_SHOW_TAIL_BAR, "the last chord is held two bars");

}  // namespace

const music_synth_song* music_synth_show_song() { return &music_synth_show_piece; }

void music_synth_render_show(int16_t* out, xmemarena* scratch)
{
    music_synth_render(out, &music_synth_show_piece, scratch);
}
