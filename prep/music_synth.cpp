// The synthesiser: voices rendered one note at a time into float buses, then the echo, the DC
// blocker and the soft clip; and the show's piece, an original tune in A minor at 120 bpm.
#include "music_synth.h"

#include <cmath>
#include <cstring>

#include "diag.h"
#include "music.h"
#include "vmath.h"

constexpr float MUSIC_SYNTH_RATE = (float)MUSIC_SAMPLE_RATE;
constexpr float MUSIC_SYNTH_TWO_PI = 6.28318530718f;
constexpr float MUSIC_SYNTH_PI = 3.14159265359f;
constexpr uint32_t MUSIC_SYNTH_SECONDS_PER_MINUTE = 60;
constexpr uint32_t MUSIC_SYNTH_PITCH_A4 = 69;
constexpr float MUSIC_SYNTH_HZ_A4 = 440.0f;
constexpr float MUSIC_SYNTH_SEMITONES_PER_OCTAVE = 12.0f;
constexpr float MUSIC_SYNTH_CENTS_PER_OCTAVE = 1200.0f;
constexpr float MUSIC_SYNTH_VELOCITY_MAX = 127.0f;
// an exponential fade has reached 1/10,000 (-80 dB) after ln(10,000) time constants
constexpr float MUSIC_SYNTH_SILENT_TIME_CONSTANTS = 9.21f;
// cutoff and vibrato change slowly: their coefficients are recomputed every 16 frames
constexpr uint32_t MUSIC_SYNTH_CONTROL_FRAMES = 16;
constexpr float MUSIC_SYNTH_CUTOFF_MAX_HZ = 0.45f * MUSIC_SYNTH_RATE;  // the filter's tan() stays finite
constexpr float MUSIC_SYNTH_Q_FLAT = 0.70710678f;  // no peak at the cutoff
constexpr float MUSIC_SYNTH_DC_BLOCK_HZ = 10.0f;
constexpr float MUSIC_SYNTH_SOFT_KNEE = 0.75f;  // linear below this share of full scale
constexpr float MUSIC_SYNTH_FULL_SCALE = 32767.0f;
constexpr uint64_t MUSIC_SYNTH_SEED = 0x5EED0F5EC0D5ull;
constexpr uint64_t MUSIC_SYNTH_SEED_SPREAD = 0x9E3779B97F4A7C15ull;  // 2^64 / golden ratio
constexpr uint32_t MUSIC_SYNTH_NOTE_SERIAL_BITS = 20;                // notes per track before serials overlap

// The buses every voice adds into.
struct music_synth_bus {
    float* left;
    float* right;
    float* send;  // mono, into the echo
    uint32_t frames;
};

// A state-variable filter in trapezoidal form: stable for any cutoff below half the rate.
struct music_synth_svf {
    float ic1;
    float ic2;
    float a1;
    float a2;
    float a3;
    float k;
};

static void music_synth_svf_tune(music_synth_svf* f, float hz, float q)
{
    hz = hz > MUSIC_SYNTH_CUTOFF_MAX_HZ ? MUSIC_SYNTH_CUTOFF_MAX_HZ : hz;
    q = q > 0.0f ? q : MUSIC_SYNTH_Q_FLAT;  // an instrument that leaves it out gets no resonance
    const float g = tanf(MUSIC_SYNTH_PI * hz / MUSIC_SYNTH_RATE);
    f->k = 1.0f / q;
    f->a1 = 1.0f / (1.0f + g * (g + f->k));
    f->a2 = g * f->a1;
    f->a3 = g * f->a2;
}

static float music_synth_svf_run(music_synth_svf* f, float in, uint32_t mode)
{
    const float v3 = in - f->ic2;
    const float v1 = f->a1 * f->ic1 + f->a2 * v3;
    const float v2 = f->ic2 + f->a2 * f->ic1 + f->a3 * v3;
    f->ic1 = 2.0f * v1 - f->ic1;
    f->ic2 = 2.0f * v2 - f->ic2;
    if (mode == MUSIC_SYNTH_FILTER_LOW)
        return v2;
    if (mode == MUSIC_SYNTH_FILTER_BAND)
        return v1;
    return in - f->k * v1 - v2;
}

// Per-frame factor of an exponential fade with time constant `seconds`; no time is no sound.
static float music_synth_fade_factor(float seconds)
{
    return seconds > 0.0f ? expf(-1.0f / (seconds * MUSIC_SYNTH_RATE)) : 0.0f;
}

static uint32_t music_synth_seconds_to_frames(float seconds) { return (uint32_t)(seconds * MUSIC_SYNTH_RATE); }

// Residual of a band-limited step (polynomial, two frames wide) at phase t of a wave that
// jumps at phase 0 and advances dt per frame: subtracting it softens the jump's aliasing.
static float music_synth_blep(float t, float dt)
{
    if (t < dt) {
        t /= dt;
        return t + t - t * t - 1.0f;
    }
    if (t > 1.0f - dt) {
        t = (t - 1.0f) / dt;
        return t * t + t + t + 1.0f;
    }
    return 0.0f;
}

static float music_synth_wave_at(uint32_t wave, float phase, float dt)
{
    switch (wave) {
    case MUSIC_SYNTH_WAVE_SAW:
        return 2.0f * phase - 1.0f - music_synth_blep(phase, dt);
    case MUSIC_SYNTH_WAVE_SQUARE: {
        float half = phase + 0.5f;
        half -= half >= 1.0f ? 1.0f : 0.0f;
        return (phase < 0.5f ? 1.0f : -1.0f) + music_synth_blep(phase, dt) - music_synth_blep(half, dt);
    }
    case MUSIC_SYNTH_WAVE_TRIANGLE:
        return 4.0f * fabsf(phase - 0.5f) - 1.0f;  // its harmonics fall fast enough to leave unfiltered
    default:
        return sinf(MUSIC_SYNTH_TWO_PI * phase);
    }
}

static float music_synth_pitch_hz(float pitch)
{
    return MUSIC_SYNTH_HZ_A4 * exp2f((pitch - (float)MUSIC_SYNTH_PITCH_A4) / MUSIC_SYNTH_SEMITONES_PER_OCTAVE);
}

// Equal-power panning: the centre sits 3 dB down on both sides.
static void music_synth_pan(float pan, float* left, float* right)
{
    const float angle = (pan + 1.0f) * (MUSIC_SYNTH_PI / 4.0f);
    *left = cosf(angle);
    *right = sinf(angle);
}

static void music_synth_drum_voice(const music_synth_bus* bus, const music_synth_instrument* ins, uint32_t start,
                                   float amplitude, pcg32* rng)
{
    const music_synth_drum* d = &ins->drum;
    const float longest = d->tone_decay > d->noise_decay ? d->tone_decay : d->noise_decay;
    uint32_t end = start + music_synth_seconds_to_frames(longest * MUSIC_SYNTH_SILENT_TIME_CONSTANTS);
    end = end < bus->frames ? end : bus->frames;
    float pan_left, pan_right;
    music_synth_pan(ins->pan, &pan_left, &pan_right);

    music_synth_svf filter = {};
    music_synth_svf_tune(&filter, d->noise_hz, d->noise_q);
    const float tone_fade = music_synth_fade_factor(d->tone_decay);
    const float noise_fade = music_synth_fade_factor(d->noise_decay);
    const float sweep_fade = music_synth_fade_factor(d->tone_sweep);
    float tone_level = d->tone_level * amplitude;
    float noise_level = d->noise_level * amplitude;
    float sweep = 1.0f;  // share of the glide still to go
    float phase = 0.0f;  // a sine from phase 0 starts without a click
    for (uint32_t n = start; n < end; n++) {
        const float hz = d->tone_end_hz + (d->tone_start_hz - d->tone_end_hz) * sweep;
        const float noise = 2.0f * pcg32_random_float01(rng) - 1.0f;
        const float s = tone_level * sinf(MUSIC_SYNTH_TWO_PI * phase) +
                        noise_level * music_synth_svf_run(&filter, noise, d->noise_filter);
        bus->left[n] += s * pan_left;
        bus->right[n] += s * pan_right;
        bus->send[n] += s * ins->echo_send;
        phase += hz / MUSIC_SYNTH_RATE;
        phase -= phase >= 1.0f ? 1.0f : 0.0f;
        sweep *= sweep_fade;
        tone_level *= tone_fade;
        noise_level *= noise_fade;
    }
}

static void music_synth_tone_voice(const music_synth_bus* bus, const music_synth_instrument* ins, uint32_t start,
                                   uint32_t gate, float pitch, float amplitude, pcg32* rng)
{
    const music_synth_tone* t = &ins->tone;
    uint32_t end = start + gate + music_synth_seconds_to_frames(t->release * MUSIC_SYNTH_SILENT_TIME_CONSTANTS);
    end = end < bus->frames ? end : bus->frames;
    float pan_left, pan_right;
    music_synth_pan(ins->pan, &pan_left, &pan_right);

    float phase[MUSIC_SYNTH_OSCILLATORS_MAX];
    float rate[MUSIC_SYNTH_OSCILLATORS_MAX];  // phase per frame without vibrato
    const float hz = music_synth_pitch_hz(pitch);
    for (uint32_t i = 0; i < t->oscillator_count; i++) {
        phase[i] = pcg32_random_float01(rng);  // detuned copies starting in step would sound like one
        rate[i] = hz * exp2f(t->oscillators[i].semitones / MUSIC_SYNTH_SEMITONES_PER_OCTAVE) / MUSIC_SYNTH_RATE;
    }

    const uint32_t attack_frames = music_synth_seconds_to_frames(t->attack);
    const float attack_rise = attack_frames ? 1.0f / (float)attack_frames : 1.0f;
    const float decay_fade = music_synth_fade_factor(t->decay);
    const float release_fade = music_synth_fade_factor(t->release);
    const float cutoff_fade = powf(music_synth_fade_factor(t->cutoff_decay), (float)MUSIC_SYNTH_CONTROL_FRAMES);
    float envelope = 0.0f;
    bool attacking = true;
    float cutoff_env = t->cutoff_env_hz;
    float vibrato_phase = 0.0f;
    const float vibrato_rate = t->vibrato_hz * (float)MUSIC_SYNTH_CONTROL_FRAMES / MUSIC_SYNTH_RATE;
    float bend = 1.0f;
    music_synth_svf filter = {};

    for (uint32_t n = start; n < end; n++) {
        const uint32_t age = n - start;
        if (age % MUSIC_SYNTH_CONTROL_FRAMES == 0) {
            music_synth_svf_tune(&filter, t->cutoff_hz + cutoff_env, t->resonance_q);
            cutoff_env *= cutoff_fade;
            bend = exp2f(t->vibrato_cents / MUSIC_SYNTH_CENTS_PER_OCTAVE * sinf(MUSIC_SYNTH_TWO_PI * vibrato_phase));
            vibrato_phase += vibrato_rate;
            vibrato_phase -= floorf(vibrato_phase);
        }
        if (age >= gate) {
            envelope *= release_fade;
        } else if (attacking) {
            envelope += attack_rise;
            if (envelope >= 1.0f) {
                envelope = 1.0f;
                attacking = false;
            }
        } else {
            envelope = t->sustain + (envelope - t->sustain) * decay_fade;
        }

        float mixed = 0.0f;
        for (uint32_t i = 0; i < t->oscillator_count; i++) {
            const float dt = rate[i] * bend;
            mixed += t->oscillators[i].level * music_synth_wave_at(t->oscillators[i].wave, phase[i], dt);
            phase[i] += dt;
            phase[i] -= phase[i] >= 1.0f ? 1.0f : 0.0f;
        }
        const float s = amplitude * envelope * music_synth_svf_run(&filter, mixed, MUSIC_SYNTH_FILTER_LOW);
        bus->left[n] += s * pan_left;
        bus->right[n] += s * pan_right;
        bus->send[n] += s * ins->echo_send;
    }
}

// The frame at which a step of the song's grid starts; beats land on whole frames when the
// tempo divides evenly, steps between them are rounded down.
static uint32_t music_synth_step_frame(const music_synth_song* song, uint64_t step)
{
    return (uint32_t)(step * MUSIC_SAMPLE_RATE * MUSIC_SYNTH_SECONDS_PER_MINUTE /
                      ((uint64_t)song->bpm * song->steps_per_beat));
}

uint32_t music_synth_song_frames(const music_synth_song* song)
{
    return music_synth_step_frame(song, (uint64_t)song->bars * song->beats_per_bar * song->steps_per_beat);
}

static uint32_t music_synth_echo_frames(const music_synth_song* song)
{
    const uint32_t frames = music_synth_step_frame(song, song->echo.delay_steps);
    return frames ? frames : 1;
}

uint64_t music_synth_scratch_bytes(const music_synth_song* song)
{
    constexpr uint64_t alignment_slack = 64;
    const uint64_t buses = 3ull * music_synth_song_frames(song) * sizeof(float);
    const uint64_t lines = 2ull * music_synth_echo_frames(song) * sizeof(float);
    return buses + lines + 5 * alignment_slack;
}

static void music_synth_play_tracks(const music_synth_bus* bus, const music_synth_song* song)
{
    const uint32_t steps_per_bar = song->steps_per_beat * song->beats_per_bar;
    for (uint32_t k = 0; k < song->track_count; k++) {
        const music_synth_track* track = &song->tracks[k];
        const music_synth_instrument* ins = track->instrument;
        uint64_t serial = (uint64_t)k << MUSIC_SYNTH_NOTE_SERIAL_BITS;
        for (uint32_t c = 0; c < track->cue_count; c++) {
            const music_synth_cue* cue = &track->cues[c];
            if (cue->pattern >= song->pattern_count)
                crash_in("src/music_synth", __LINE__, "music_synth_render", "track %u cue %u: no pattern %u\n", k, c,
                         cue->pattern);
            const music_synth_pattern* pattern = &song->patterns[cue->pattern];
            for (uint32_t i = 0; i < (uint32_t)cue->bars * pattern->count; i++, serial++) {
                const music_synth_note* note = &pattern->notes[i % pattern->count];
                const uint64_t bar = cue->bar + i / pattern->count;
                const uint64_t step = bar * steps_per_bar + note->step;
                const uint32_t start = music_synth_step_frame(song, step);
                if (start >= bus->frames)
                    continue;
                // every note has its own noise and phases, whatever else the song holds
                pcg32 rng = {MUSIC_SYNTH_SEED ^ (serial * MUSIC_SYNTH_SEED_SPREAD), 2 * serial + 1};
                pcg32_random(&rng);
                const float amplitude = ins->gain * (float)note->velocity / MUSIC_SYNTH_VELOCITY_MAX;
                if (ins->kind == MUSIC_SYNTH_DRUM) {
                    music_synth_drum_voice(bus, ins, start, amplitude, &rng);
                } else {
                    const uint32_t gate = music_synth_step_frame(song, step + note->length) - start;
                    const float pitch = (float)note->pitch + (float)cue->transpose;
                    music_synth_tone_voice(bus, ins, start, gate, pitch, amplitude, &rng);
                }
            }
        }
    }
}

// Ping-pong: the send enters on the left, each repeat crosses to the other side, loses
// `feedback` of its level and some of its highs.
static void music_synth_echo_run(const music_synth_bus* bus, const music_synth_song* song, xmemarena* scratch)
{
    const uint32_t length = music_synth_echo_frames(song);
    auto* line_left = (float*)xmemarena_push_align(scratch, (uint64_t)length * sizeof(float), alignof(float));
    auto* line_right = (float*)xmemarena_push_align(scratch, (uint64_t)length * sizeof(float), alignof(float));
    memset(line_left, 0, (size_t)length * sizeof(float));
    memset(line_right, 0, (size_t)length * sizeof(float));
    const float damping = 1.0f - music_synth_fade_factor(1.0f / (MUSIC_SYNTH_TWO_PI * song->echo.damping_hz));
    float damped_left = 0.0f;
    float damped_right = 0.0f;
    uint32_t at = 0;
    for (uint32_t n = 0; n < bus->frames; n++) {
        const float out_left = line_left[at];
        const float out_right = line_right[at];
        damped_left += damping * (out_left - damped_left);
        damped_right += damping * (out_right - damped_right);
        line_left[at] = bus->send[n] + song->echo.feedback * damped_right;
        line_right[at] = song->echo.feedback * damped_left;
        bus->left[n] += song->echo.wet * out_left;
        bus->right[n] += song->echo.wet * out_right;
        at = at + 1 == length ? 0 : at + 1;
    }
}

// Linear below the knee, then a tanh curve that meets it with slope 1 and never reaches 1.
static float music_synth_soft_clip(float x)
{
    const float magnitude = fabsf(x);
    if (magnitude <= MUSIC_SYNTH_SOFT_KNEE)
        return x;
    const float room = 1.0f - MUSIC_SYNTH_SOFT_KNEE;
    const float bent = MUSIC_SYNTH_SOFT_KNEE + room * tanhf((magnitude - MUSIC_SYNTH_SOFT_KNEE) / room);
    return x < 0.0f ? -bent : bent;
}

static void music_synth_master(int16_t* out, const float* bus, uint32_t frames, float gain)
{
    const float pole = 1.0f - MUSIC_SYNTH_TWO_PI * MUSIC_SYNTH_DC_BLOCK_HZ / MUSIC_SYNTH_RATE;
    float last_in = 0.0f;
    float last_out = 0.0f;
    for (uint32_t n = 0; n < frames; n++) {
        const float x = bus[n] * gain;
        last_out = x - last_in + pole * last_out;
        last_in = x;
        out[2 * n] = (int16_t)f32_round_to_int(music_synth_soft_clip(last_out) * MUSIC_SYNTH_FULL_SCALE);
    }
}

void music_synth_render(int16_t* out, const music_synth_song* song, xmemarena* scratch)
{
    const uint64_t mark = xmemarena_get_sp(scratch);
    music_synth_bus bus;
    bus.frames = music_synth_song_frames(song);
    const uint64_t bytes = (uint64_t)bus.frames * sizeof(float);
    bus.left = (float*)xmemarena_push_align(scratch, bytes, alignof(float));
    bus.right = (float*)xmemarena_push_align(scratch, bytes, alignof(float));
    bus.send = (float*)xmemarena_push_align(scratch, bytes, alignof(float));
    memset(bus.left, 0, bytes);
    memset(bus.right, 0, bytes);
    memset(bus.send, 0, bytes);

    music_synth_play_tracks(&bus, song);
    music_synth_echo_run(&bus, song, scratch);
    music_synth_master(out, bus.left, bus.frames, song->master_gain);
    music_synth_master(out + 1, bus.right, bus.frames, song->master_gain);
    xmemarena_set_sp(scratch, mark);
}

// ---- the show's piece ----
//
// A minor, four chords a cycle: Am7, Fmaj7, Dm7, then E7sus4 resolving to E7 halfway through
// the bar. The intro plays the cycle's second half (Dm7, E7) so that the groove opens on the
// tonic; the break sits on Fmaj7 and E7 again before the last chord, A minor with an added
// ninth. Pitches below are MIDI numbers (57 = A3, 69 = A4).

namespace {

enum music_synth_show_pattern : uint16_t {
    MUSIC_SYNTH_SHOW_PAT_KICK,
    MUSIC_SYNTH_SHOW_PAT_KICK_ONCE,
    MUSIC_SYNTH_SHOW_PAT_SNARE,
    MUSIC_SYNTH_SHOW_PAT_SNARE_FILL,
    MUSIC_SYNTH_SHOW_PAT_SNARE_ROLL,
    MUSIC_SYNTH_SHOW_PAT_HAT_INTRO,
    MUSIC_SYNTH_SHOW_PAT_HAT_GROOVE,
    MUSIC_SYNTH_SHOW_PAT_OPEN_HAT,
    MUSIC_SYNTH_SHOW_PAT_CRASH,
    MUSIC_SYNTH_SHOW_PAT_BASS,
    MUSIC_SYNTH_SHOW_PAT_BASS_FINAL,
    MUSIC_SYNTH_SHOW_PAT_PAD_AM7,
    MUSIC_SYNTH_SHOW_PAT_PAD_FMAJ7,
    MUSIC_SYNTH_SHOW_PAT_PAD_DM7,
    MUSIC_SYNTH_SHOW_PAT_PAD_E7,
    MUSIC_SYNTH_SHOW_PAT_PAD_BREAK,
    MUSIC_SYNTH_SHOW_PAT_PAD_FINAL,
    MUSIC_SYNTH_SHOW_PAT_LEAD_1,
    MUSIC_SYNTH_SHOW_PAT_LEAD_2,
    MUSIC_SYNTH_SHOW_PAT_LEAD_3,
    MUSIC_SYNTH_SHOW_PAT_LEAD_4,
    MUSIC_SYNTH_SHOW_PAT_LEAD_5,
    MUSIC_SYNTH_SHOW_PAT_LEAD_6,
    MUSIC_SYNTH_SHOW_PAT_LEAD_7,
    MUSIC_SYNTH_SHOW_PAT_LEAD_8,
    MUSIC_SYNTH_SHOW_PAT_LEAD_BREAK,
    MUSIC_SYNTH_SHOW_PAT_LEAD_FINAL,
    MUSIC_SYNTH_SHOW_PATTERN_COUNT
};

// cue bars count from 0: the header's bar N is cue bar N - 1
constexpr uint16_t MUSIC_SYNTH_SHOW_INTRO = MUSIC_SYNTH_SHOW_INTRO_BAR - 1;
constexpr uint16_t MUSIC_SYNTH_SHOW_GROOVE = MUSIC_SYNTH_SHOW_GROOVE_BAR - 1;
constexpr uint16_t MUSIC_SYNTH_SHOW_LEAD = MUSIC_SYNTH_SHOW_LEAD_BAR - 1;
constexpr uint16_t MUSIC_SYNTH_SHOW_BREAK = MUSIC_SYNTH_SHOW_BREAK_BAR - 1;
constexpr uint16_t MUSIC_SYNTH_SHOW_CHORD = MUSIC_SYNTH_SHOW_CHORD_BAR - 1;
constexpr uint16_t MUSIC_SYNTH_SHOW_GROOVE_BARS = MUSIC_SYNTH_SHOW_BREAK_BAR - MUSIC_SYNTH_SHOW_GROOVE_BAR;
constexpr uint16_t MUSIC_SYNTH_SHOW_LEAD_BARS = MUSIC_SYNTH_SHOW_BREAK_BAR - MUSIC_SYNTH_SHOW_LEAD_BAR;
// the bass line is written over A; the cycle moves it down to F, D and E
constexpr int8_t MUSIC_SYNTH_SHOW_TO_F = -4;
constexpr int8_t MUSIC_SYNTH_SHOW_TO_D = -7;
constexpr int8_t MUSIC_SYNTH_SHOW_TO_E = -5;

template <size_t N>
constexpr music_synth_pattern music_synth_show_pattern(const music_synth_note (&notes)[N])
{
    return {notes, (uint32_t)N};
}

template <size_t N>
constexpr music_synth_track music_synth_show_track(const music_synth_instrument* instrument,
                                                   const music_synth_cue (&cues)[N])
{
    return {instrument, cues, (uint32_t)N};
}

// Levels: the kick leads, the bass sits 3 dB under it, pad and lead further back, the hats
// quiet; the master gain leaves the loudest beats near 2 dB below full scale.
const music_synth_instrument music_synth_show_kick = {
    .kind = MUSIC_SYNTH_DRUM,
    .gain = 0.75f,
    .pan = 0.0f,
    .echo_send = 0.0f,
    .drum = {.tone_level = 1.0f,
             .tone_start_hz = 165.0f,
             .tone_end_hz = 47.0f,
             .tone_sweep = 0.032f,
             .tone_decay = 0.16f,
             .noise_level = 0.12f,  // the beater's click
             .noise_filter = MUSIC_SYNTH_FILTER_LOW,
             .noise_hz = 3000.0f,
             .noise_q = 0.0f,
             .noise_decay = 0.004f},
    .tone = {},
};
const music_synth_instrument music_synth_show_snare = {
    .kind = MUSIC_SYNTH_DRUM,
    .gain = 0.70f,
    .pan = 0.05f,
    .echo_send = 0.12f,
    .drum = {.tone_level = 0.45f,
             .tone_start_hz = 230.0f,
             .tone_end_hz = 180.0f,
             .tone_sweep = 0.04f,
             .tone_decay = 0.07f,
             .noise_level = 0.85f,
             .noise_filter = MUSIC_SYNTH_FILTER_BAND,
             .noise_hz = 2200.0f,
             .noise_q = 0.8f,
             .noise_decay = 0.12f},
    .tone = {},
};
// hats and the crash are high-passed noise alone
const music_synth_instrument music_synth_show_hat = {
    .kind = MUSIC_SYNTH_DRUM,
    .gain = 0.30f,
    .pan = 0.30f,
    .echo_send = 0.0f,
    .drum = {.tone_level = 0.0f,
             .tone_start_hz = 0.0f,
             .tone_end_hz = 0.0f,
             .tone_sweep = 0.0f,
             .tone_decay = 0.0f,
             .noise_level = 1.0f,
             .noise_filter = MUSIC_SYNTH_FILTER_HIGH,
             .noise_hz = 7000.0f,
             .noise_q = 0.0f,
             .noise_decay = 0.03f},
    .tone = {},
};
const music_synth_instrument music_synth_show_open_hat = {
    .kind = MUSIC_SYNTH_DRUM,
    .gain = 0.18f,
    .pan = 0.30f,
    .echo_send = 0.05f,
    .drum = {.tone_level = 0.0f,
             .tone_start_hz = 0.0f,
             .tone_end_hz = 0.0f,
             .tone_sweep = 0.0f,
             .tone_decay = 0.0f,
             .noise_level = 1.0f,
             .noise_filter = MUSIC_SYNTH_FILTER_HIGH,
             .noise_hz = 6500.0f,
             .noise_q = 0.0f,
             .noise_decay = 0.16f},
    .tone = {},
};
const music_synth_instrument music_synth_show_crash = {
    .kind = MUSIC_SYNTH_DRUM,
    .gain = 0.20f,
    .pan = -0.25f,
    .echo_send = 0.15f,
    .drum = {.tone_level = 0.0f,
             .tone_start_hz = 0.0f,
             .tone_end_hz = 0.0f,
             .tone_sweep = 0.0f,
             .tone_decay = 0.0f,
             .noise_level = 1.0f,
             .noise_filter = MUSIC_SYNTH_FILTER_HIGH,
             .noise_hz = 4500.0f,
             .noise_q = 0.0f,
             .noise_decay = 0.75f},
    .tone = {},
};
// a saw and a square an octave below it, through a filter that opens on each note
const music_synth_instrument music_synth_show_bass = {
    .kind = MUSIC_SYNTH_TONE,
    .gain = 0.40f,
    .pan = 0.0f,
    .echo_send = 0.0f,
    .drum = {},
    .tone = {.oscillators = {{MUSIC_SYNTH_WAVE_SAW, 0.0f, 0.6f}, {MUSIC_SYNTH_WAVE_SQUARE, -12.0f, 0.45f}, {}},
             .oscillator_count = 2,
             .attack = 0.004f,
             .decay = 0.18f,
             .sustain = 0.55f,
             .release = 0.04f,
             .cutoff_hz = 180.0f,
             .cutoff_env_hz = 950.0f,
             .cutoff_decay = 0.11f,
             .resonance_q = 1.3f,
             .vibrato_cents = 0.0f,
             .vibrato_hz = 0.0f},
};
// three saws 9 cents apart, slow to rise and to fade, darkly filtered
const music_synth_instrument music_synth_show_pad = {
    .kind = MUSIC_SYNTH_TONE,
    .gain = 0.17f,
    .pan = -0.2f,
    .echo_send = 0.22f,
    .drum = {},
    .tone = {.oscillators = {{MUSIC_SYNTH_WAVE_SAW, -0.09f, 0.35f},
                             {MUSIC_SYNTH_WAVE_SAW, 0.0f, 0.35f},
                             {MUSIC_SYNTH_WAVE_SAW, 0.09f, 0.35f}},
             .oscillator_count = 3,
             .attack = 0.30f,
             .decay = 1.2f,
             .sustain = 0.7f,
             .release = 0.45f,
             .cutoff_hz = 850.0f,
             .cutoff_env_hz = 600.0f,
             .cutoff_decay = 0.9f,
             .resonance_q = 0.8f,
             .vibrato_cents = 0.0f,
             .vibrato_hz = 0.0f},
};
// the last chord: the pad's voices, struck harder and brighter, left to ring into the tail
const music_synth_instrument music_synth_show_chord = {
    .kind = MUSIC_SYNTH_TONE,
    .gain = 0.16f,
    .pan = -0.1f,
    .echo_send = 0.25f,
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
// a square and a saw in unison with a triangle an octave up, a plucked filter and some vibrato
const music_synth_instrument music_synth_show_lead = {
    .kind = MUSIC_SYNTH_TONE,
    .gain = 0.30f,
    .pan = 0.15f,
    .echo_send = 0.35f,
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

// notes: {step, length in steps, pitch, velocity}; drums have no pitch or length
const music_synth_note music_synth_show_kick_notes[] = {
    {0, 1, 0, 127}, {4, 1, 0, 127}, {8, 1, 0, 127}, {12, 1, 0, 127}};
const music_synth_note music_synth_show_kick_once_notes[] = {{0, 1, 0, 127}};
const music_synth_note music_synth_show_snare_notes[] = {{4, 1, 0, 120}, {12, 1, 0, 120}};
const music_synth_note music_synth_show_snare_fill_notes[] = {
    {4, 1, 0, 120}, {12, 1, 0, 120}, {13, 1, 0, 60}, {14, 1, 0, 85}, {15, 1, 0, 105}};
const music_synth_note music_synth_show_snare_roll_notes[] = {{8, 1, 0, 30},   {9, 1, 0, 40},  {10, 1, 0, 50},
                                                              {11, 1, 0, 60},  {12, 1, 0, 72}, {13, 1, 0, 86},
                                                              {14, 1, 0, 100}, {15, 1, 0, 115}};
const music_synth_note music_synth_show_hat_intro_notes[] = {{0, 1, 0, 50},  {2, 1, 0, 95}, {4, 1, 0, 50},
                                                             {6, 1, 0, 95},  {8, 1, 0, 50}, {10, 1, 0, 95},
                                                             {12, 1, 0, 50}, {14, 1, 0, 95}};
const music_synth_note music_synth_show_hat_groove_notes[] = {
    {0, 1, 0, 60},  {1, 1, 0, 28},  {2, 1, 0, 100}, {3, 1, 0, 28}, {4, 1, 0, 60},   {5, 1, 0, 28},
    {6, 1, 0, 100}, {7, 1, 0, 28},  {8, 1, 0, 60},  {9, 1, 0, 28}, {10, 1, 0, 100}, {11, 1, 0, 28},
    {12, 1, 0, 60}, {13, 1, 0, 28}, {14, 1, 0, 70}, {15, 1, 0, 40}};
const music_synth_note music_synth_show_open_hat_notes[] = {{14, 1, 0, 110}};
const music_synth_note music_synth_show_crash_notes[] = {{0, 1, 0, 127}};
const music_synth_note music_synth_show_bass_notes[] = {{0, 2, 45, 120}, {3, 1, 45, 90},   {4, 1, 57, 105},
                                                        {6, 2, 45, 110}, {8, 2, 52, 110},  {10, 1, 45, 90},
                                                        {11, 1, 45, 80}, {12, 2, 57, 110}, {14, 2, 52, 100}};
const music_synth_note music_synth_show_bass_final_notes[] = {{0, 12, 45, 127}};
const music_synth_note music_synth_show_pad_am7_notes[] = {
    {0, 16, 57, 100}, {0, 16, 60, 100}, {0, 16, 64, 100}, {0, 16, 67, 100}};
const music_synth_note music_synth_show_pad_fmaj7_notes[] = {
    {0, 16, 53, 100}, {0, 16, 57, 100}, {0, 16, 60, 100}, {0, 16, 64, 100}};
const music_synth_note music_synth_show_pad_dm7_notes[] = {
    {0, 16, 53, 100}, {0, 16, 57, 100}, {0, 16, 60, 100}, {0, 16, 62, 100}};
const music_synth_note music_synth_show_pad_e7_notes[] = {
    {0, 16, 52, 100}, {0, 8, 57, 100}, {8, 8, 56, 100}, {0, 16, 59, 100}, {0, 16, 62, 100}};
const music_synth_note music_synth_show_pad_break_notes[] = {{0, 8, 53, 100}, {0, 8, 57, 100}, {0, 8, 60, 100},
                                                             {0, 8, 64, 100}, {8, 8, 52, 100}, {8, 8, 56, 100},
                                                             {8, 8, 59, 100}, {8, 8, 62, 100}};
const music_synth_note music_synth_show_pad_final_notes[] = {{0, 16, 45, 110}, {0, 16, 57, 100}, {0, 16, 60, 100},
                                                             {0, 16, 64, 100}, {0, 16, 71, 90},  {0, 16, 76, 80}};
// the melody: four bars that climb through the chords, then four that answer them and end on a
// high E before the break
const music_synth_note music_synth_show_lead_1_notes[] = {{0, 4, 76, 110}, {4, 2, 79, 95},  {6, 4, 81, 110},
                                                          {10, 2, 79, 90}, {12, 2, 76, 95}, {14, 2, 74, 90}};
const music_synth_note music_synth_show_lead_2_notes[] = {
    {0, 6, 72, 110}, {6, 2, 76, 90}, {8, 4, 77, 105}, {12, 2, 76, 90}, {14, 2, 72, 90}};
const music_synth_note music_synth_show_lead_3_notes[] = {
    {0, 4, 74, 110}, {4, 2, 77, 95}, {6, 6, 81, 110}, {12, 4, 84, 100}};
const music_synth_note music_synth_show_lead_4_notes[] = {
    {0, 4, 83, 110}, {4, 4, 81, 95}, {8, 4, 80, 105}, {12, 4, 76, 95}};
const music_synth_note music_synth_show_lead_5_notes[] = {{0, 2, 81, 110}, {2, 2, 84, 100}, {4, 2, 83, 95},
                                                          {6, 2, 81, 95},  {8, 4, 79, 105}, {12, 4, 76, 95}};
const music_synth_note music_synth_show_lead_6_notes[] = {{0, 2, 77, 105}, {2, 2, 76, 95},  {4, 4, 72, 100},
                                                          {8, 2, 69, 90},  {10, 2, 72, 95}, {12, 4, 76, 100}};
const music_synth_note music_synth_show_lead_7_notes[] = {{0, 2, 74, 105}, {2, 2, 77, 95},  {4, 4, 81, 105},
                                                          {8, 2, 84, 100}, {10, 2, 81, 95}, {12, 4, 77, 95}};
const music_synth_note music_synth_show_lead_8_notes[] = {
    {0, 6, 76, 110}, {6, 2, 80, 95}, {8, 4, 83, 105}, {12, 4, 88, 110}};
const music_synth_note music_synth_show_lead_break_notes[] = {
    {0, 4, 76, 100}, {4, 2, 74, 85}, {6, 2, 72, 85}, {8, 4, 71, 95}, {12, 4, 68, 90}};
const music_synth_note music_synth_show_lead_final_notes[] = {{0, 10, 76, 105}};

const music_synth_pattern music_synth_show_patterns[MUSIC_SYNTH_SHOW_PATTERN_COUNT] = {
    music_synth_show_pattern(music_synth_show_kick_notes),
    music_synth_show_pattern(music_synth_show_kick_once_notes),
    music_synth_show_pattern(music_synth_show_snare_notes),
    music_synth_show_pattern(music_synth_show_snare_fill_notes),
    music_synth_show_pattern(music_synth_show_snare_roll_notes),
    music_synth_show_pattern(music_synth_show_hat_intro_notes),
    music_synth_show_pattern(music_synth_show_hat_groove_notes),
    music_synth_show_pattern(music_synth_show_open_hat_notes),
    music_synth_show_pattern(music_synth_show_crash_notes),
    music_synth_show_pattern(music_synth_show_bass_notes),
    music_synth_show_pattern(music_synth_show_bass_final_notes),
    music_synth_show_pattern(music_synth_show_pad_am7_notes),
    music_synth_show_pattern(music_synth_show_pad_fmaj7_notes),
    music_synth_show_pattern(music_synth_show_pad_dm7_notes),
    music_synth_show_pattern(music_synth_show_pad_e7_notes),
    music_synth_show_pattern(music_synth_show_pad_break_notes),
    music_synth_show_pattern(music_synth_show_pad_final_notes),
    music_synth_show_pattern(music_synth_show_lead_1_notes),
    music_synth_show_pattern(music_synth_show_lead_2_notes),
    music_synth_show_pattern(music_synth_show_lead_3_notes),
    music_synth_show_pattern(music_synth_show_lead_4_notes),
    music_synth_show_pattern(music_synth_show_lead_5_notes),
    music_synth_show_pattern(music_synth_show_lead_6_notes),
    music_synth_show_pattern(music_synth_show_lead_7_notes),
    music_synth_show_pattern(music_synth_show_lead_8_notes),
    music_synth_show_pattern(music_synth_show_lead_break_notes),
    music_synth_show_pattern(music_synth_show_lead_final_notes),
};

// {first bar, bars in a row, pattern, transpose}
const music_synth_cue music_synth_show_kick_cues[] = {
    {MUSIC_SYNTH_SHOW_GROOVE, MUSIC_SYNTH_SHOW_GROOVE_BARS, MUSIC_SYNTH_SHOW_PAT_KICK, 0},
    {MUSIC_SYNTH_SHOW_CHORD, 1, MUSIC_SYNTH_SHOW_PAT_KICK_ONCE, 0},
};
const music_synth_cue music_synth_show_snare_cues[] = {
    {MUSIC_SYNTH_SHOW_GROOVE, MUSIC_SYNTH_SHOW_GROOVE_BARS - 1, MUSIC_SYNTH_SHOW_PAT_SNARE, 0},
    {MUSIC_SYNTH_SHOW_BREAK - 1, 1, MUSIC_SYNTH_SHOW_PAT_SNARE_FILL, 0},
    {MUSIC_SYNTH_SHOW_BREAK, 1, MUSIC_SYNTH_SHOW_PAT_SNARE_ROLL, 0},
};
const music_synth_cue music_synth_show_hat_cues[] = {
    {MUSIC_SYNTH_SHOW_INTRO, MUSIC_SYNTH_SHOW_GROOVE - MUSIC_SYNTH_SHOW_INTRO, MUSIC_SYNTH_SHOW_PAT_HAT_INTRO, 0},
    {MUSIC_SYNTH_SHOW_GROOVE, MUSIC_SYNTH_SHOW_GROOVE_BARS, MUSIC_SYNTH_SHOW_PAT_HAT_GROOVE, 0},
};
const music_synth_cue music_synth_show_open_hat_cues[] = {
    {MUSIC_SYNTH_SHOW_LEAD, MUSIC_SYNTH_SHOW_LEAD_BARS, MUSIC_SYNTH_SHOW_PAT_OPEN_HAT, 0},
};
const music_synth_cue music_synth_show_crash_cues[] = {
    {MUSIC_SYNTH_SHOW_GROOVE, 1, MUSIC_SYNTH_SHOW_PAT_CRASH, 0},
    {MUSIC_SYNTH_SHOW_LEAD, 1, MUSIC_SYNTH_SHOW_PAT_CRASH, 0},
    {MUSIC_SYNTH_SHOW_LEAD + 4, 1, MUSIC_SYNTH_SHOW_PAT_CRASH, 0},
    {MUSIC_SYNTH_SHOW_CHORD, 1, MUSIC_SYNTH_SHOW_PAT_CRASH, 0},
};
// three turns of the chord cycle: A, F, D, E
const music_synth_cue music_synth_show_bass_cues[] = {
    {MUSIC_SYNTH_SHOW_GROOVE + 0, 1, MUSIC_SYNTH_SHOW_PAT_BASS, 0},
    {MUSIC_SYNTH_SHOW_GROOVE + 1, 1, MUSIC_SYNTH_SHOW_PAT_BASS, MUSIC_SYNTH_SHOW_TO_F},
    {MUSIC_SYNTH_SHOW_GROOVE + 2, 1, MUSIC_SYNTH_SHOW_PAT_BASS, MUSIC_SYNTH_SHOW_TO_D},
    {MUSIC_SYNTH_SHOW_GROOVE + 3, 1, MUSIC_SYNTH_SHOW_PAT_BASS, MUSIC_SYNTH_SHOW_TO_E},
    {MUSIC_SYNTH_SHOW_GROOVE + 4, 1, MUSIC_SYNTH_SHOW_PAT_BASS, 0},
    {MUSIC_SYNTH_SHOW_GROOVE + 5, 1, MUSIC_SYNTH_SHOW_PAT_BASS, MUSIC_SYNTH_SHOW_TO_F},
    {MUSIC_SYNTH_SHOW_GROOVE + 6, 1, MUSIC_SYNTH_SHOW_PAT_BASS, MUSIC_SYNTH_SHOW_TO_D},
    {MUSIC_SYNTH_SHOW_GROOVE + 7, 1, MUSIC_SYNTH_SHOW_PAT_BASS, MUSIC_SYNTH_SHOW_TO_E},
    {MUSIC_SYNTH_SHOW_GROOVE + 8, 1, MUSIC_SYNTH_SHOW_PAT_BASS, 0},
    {MUSIC_SYNTH_SHOW_GROOVE + 9, 1, MUSIC_SYNTH_SHOW_PAT_BASS, MUSIC_SYNTH_SHOW_TO_F},
    {MUSIC_SYNTH_SHOW_GROOVE + 10, 1, MUSIC_SYNTH_SHOW_PAT_BASS, MUSIC_SYNTH_SHOW_TO_D},
    {MUSIC_SYNTH_SHOW_GROOVE + 11, 1, MUSIC_SYNTH_SHOW_PAT_BASS, MUSIC_SYNTH_SHOW_TO_E},
    {MUSIC_SYNTH_SHOW_CHORD, 1, MUSIC_SYNTH_SHOW_PAT_BASS_FINAL, 0},
};
const music_synth_cue music_synth_show_pad_cues[] = {
    {MUSIC_SYNTH_SHOW_INTRO, 1, MUSIC_SYNTH_SHOW_PAT_PAD_DM7, 0},
    {MUSIC_SYNTH_SHOW_INTRO + 1, 1, MUSIC_SYNTH_SHOW_PAT_PAD_E7, 0},
    {MUSIC_SYNTH_SHOW_GROOVE + 0, 1, MUSIC_SYNTH_SHOW_PAT_PAD_AM7, 0},
    {MUSIC_SYNTH_SHOW_GROOVE + 1, 1, MUSIC_SYNTH_SHOW_PAT_PAD_FMAJ7, 0},
    {MUSIC_SYNTH_SHOW_GROOVE + 2, 1, MUSIC_SYNTH_SHOW_PAT_PAD_DM7, 0},
    {MUSIC_SYNTH_SHOW_GROOVE + 3, 1, MUSIC_SYNTH_SHOW_PAT_PAD_E7, 0},
    {MUSIC_SYNTH_SHOW_GROOVE + 4, 1, MUSIC_SYNTH_SHOW_PAT_PAD_AM7, 0},
    {MUSIC_SYNTH_SHOW_GROOVE + 5, 1, MUSIC_SYNTH_SHOW_PAT_PAD_FMAJ7, 0},
    {MUSIC_SYNTH_SHOW_GROOVE + 6, 1, MUSIC_SYNTH_SHOW_PAT_PAD_DM7, 0},
    {MUSIC_SYNTH_SHOW_GROOVE + 7, 1, MUSIC_SYNTH_SHOW_PAT_PAD_E7, 0},
    {MUSIC_SYNTH_SHOW_GROOVE + 8, 1, MUSIC_SYNTH_SHOW_PAT_PAD_AM7, 0},
    {MUSIC_SYNTH_SHOW_GROOVE + 9, 1, MUSIC_SYNTH_SHOW_PAT_PAD_FMAJ7, 0},
    {MUSIC_SYNTH_SHOW_GROOVE + 10, 1, MUSIC_SYNTH_SHOW_PAT_PAD_DM7, 0},
    {MUSIC_SYNTH_SHOW_GROOVE + 11, 1, MUSIC_SYNTH_SHOW_PAT_PAD_E7, 0},
    {MUSIC_SYNTH_SHOW_BREAK, 1, MUSIC_SYNTH_SHOW_PAT_PAD_BREAK, 0},
};
const music_synth_cue music_synth_show_chord_cues[] = {
    {MUSIC_SYNTH_SHOW_CHORD, 1, MUSIC_SYNTH_SHOW_PAT_PAD_FINAL, 0},
};
const music_synth_cue music_synth_show_lead_cues[] = {
    {MUSIC_SYNTH_SHOW_LEAD + 0, 1, MUSIC_SYNTH_SHOW_PAT_LEAD_1, 0},
    {MUSIC_SYNTH_SHOW_LEAD + 1, 1, MUSIC_SYNTH_SHOW_PAT_LEAD_2, 0},
    {MUSIC_SYNTH_SHOW_LEAD + 2, 1, MUSIC_SYNTH_SHOW_PAT_LEAD_3, 0},
    {MUSIC_SYNTH_SHOW_LEAD + 3, 1, MUSIC_SYNTH_SHOW_PAT_LEAD_4, 0},
    {MUSIC_SYNTH_SHOW_LEAD + 4, 1, MUSIC_SYNTH_SHOW_PAT_LEAD_5, 0},
    {MUSIC_SYNTH_SHOW_LEAD + 5, 1, MUSIC_SYNTH_SHOW_PAT_LEAD_6, 0},
    {MUSIC_SYNTH_SHOW_LEAD + 6, 1, MUSIC_SYNTH_SHOW_PAT_LEAD_7, 0},
    {MUSIC_SYNTH_SHOW_LEAD + 7, 1, MUSIC_SYNTH_SHOW_PAT_LEAD_8, 0},
    {MUSIC_SYNTH_SHOW_BREAK, 1, MUSIC_SYNTH_SHOW_PAT_LEAD_BREAK, 0},
    {MUSIC_SYNTH_SHOW_CHORD, 1, MUSIC_SYNTH_SHOW_PAT_LEAD_FINAL, 0},
};

const music_synth_track music_synth_show_tracks[] = {
    music_synth_show_track(&music_synth_show_kick, music_synth_show_kick_cues),
    music_synth_show_track(&music_synth_show_snare, music_synth_show_snare_cues),
    music_synth_show_track(&music_synth_show_hat, music_synth_show_hat_cues),
    music_synth_show_track(&music_synth_show_open_hat, music_synth_show_open_hat_cues),
    music_synth_show_track(&music_synth_show_crash, music_synth_show_crash_cues),
    music_synth_show_track(&music_synth_show_bass, music_synth_show_bass_cues),
    music_synth_show_track(&music_synth_show_pad, music_synth_show_pad_cues),
    music_synth_show_track(&music_synth_show_chord, music_synth_show_chord_cues),
    music_synth_show_track(&music_synth_show_lead, music_synth_show_lead_cues),
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
    {3, 0.38f, 3000.0f, 0.45f},  // repeats a dotted eighth apart
    0.72f,                       // the loudest beats peak near 2 dB below full scale
};

static_assert(MUSIC_SYNTH_SHOW_BEAT_FRAMES * MUSIC_SYNTH_SHOW_BPM == MUSIC_SAMPLE_RATE * MUSIC_SYNTH_SECONDS_PER_MINUTE,
              "the beat length follows from the tempo");
static_assert(MUSIC_SYNTH_SHOW_BAR_MS * MUSIC_SAMPLE_RATE == MUSIC_SYNTH_SHOW_BAR_FRAMES * 1000, "a bar is 2 s");

}  // namespace

const music_synth_song* music_synth_show_song() { return &music_synth_show_piece; }

void music_synth_render_show(int16_t* out, xmemarena* scratch)
{
    music_synth_render(out, &music_synth_show_piece, scratch);
}
