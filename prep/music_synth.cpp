// The synthesiser: the duck keys first, then voices rendered one note at a time into float
// buses, then the echo, the DC blocker and the soft clip. The show's piece is in music_show.cpp.
#include "music_synth.h"

#include <cmath>
#include <cstring>

#include "diag.h"
#include "music.h"
#include "vmath.h"

constexpr float MUSIC_SYNTH_RATE = (float)MUSIC_SAMPLE_RATE;
constexpr float MUSIC_SYNTH_SECONDS_PER_FRAME = 1.0f / MUSIC_SYNTH_RATE;
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
constexpr float MUSIC_SYNTH_Q_FLAT = 0.70710678f;                      // no peak at the cutoff
constexpr float MUSIC_SYNTH_DC_BLOCK_HZ = 10.0f;
constexpr float MUSIC_SYNTH_SOFT_KNEE = 0.75f;  // linear below this share of full scale
constexpr float MUSIC_SYNTH_FULL_SCALE = 32767.0f;
constexpr uint64_t MUSIC_SYNTH_SEED = 0x5EED0F5EC0D5ull;
constexpr uint64_t MUSIC_SYNTH_SEED_SPREAD = 0x9E3779B97F4A7C15ull;  // 2^64 / golden ratio
constexpr uint32_t MUSIC_SYNTH_NOTE_SERIAL_BITS = 20;                // notes per track before serials overlap
constexpr float MUSIC_SYNTH_DB_PER_DECADE = 20.0f;                   // of amplitude
constexpr uint64_t MUSIC_SYNTH_BUS_COUNT = 4;                        // left, right, echo send, duck key

// The buses every voice adds into.
struct music_synth_bus {
    float* left;
    float* right;
    float* send;  // mono, into the echo
    float* key;   // how far ducked instruments dip, 0 to 1 (the kick's envelope)
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

static float music_synth_wave_at(uint32_t wave, float phase, float dt, pcg32* rng)
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
    case MUSIC_SYNTH_WAVE_NOISE:
        return 2.0f * pcg32_random_float01(rng) - 1.0f;
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

// A cue's sweep of cutoff and level, placed in frames.
struct music_synth_ramp {
    uint32_t start;
    uint32_t frames;
    const music_synth_cue* cue;
};

static float music_synth_ramp_progress(const music_synth_ramp* r, uint32_t frame)
{
    if (frame <= r->start)
        return 0.0f;
    const uint32_t into = frame - r->start;
    return into >= r->frames ? 1.0f : (float)into / (float)r->frames;
}

// the factor on the instrument's cutoff at a frame
static float music_synth_ramp_cutoff(const music_synth_ramp* r, uint32_t frame)
{
    const float from = r->cue->cutoff_octaves_from;
    return exp2f(from + (r->cue->cutoff_octaves_to - from) * music_synth_ramp_progress(r, frame));
}

// the factor on the instrument's level at a frame
static float music_synth_ramp_level(const music_synth_ramp* r, uint32_t frame)
{
    const float from = r->cue->level_db_from;
    const float db = from + (r->cue->level_db_to - from) * music_synth_ramp_progress(r, frame);
    return powf(10.0f, db / MUSIC_SYNTH_DB_PER_DECADE);
}

// What a key note leaves in the key bus: a linear rise to 1, then an exponential fall; where
// key notes overlap the larger value counts. A ducked voice is scaled by 1 - duck x key.
static void music_synth_key_note(const music_synth_bus* bus, const music_synth_duck* duck, uint32_t start)
{
    const uint32_t attack = music_synth_seconds_to_frames(duck->attack);
    uint32_t end = start + attack + music_synth_seconds_to_frames(duck->release * MUSIC_SYNTH_SILENT_TIME_CONSTANTS);
    end = end < bus->frames ? end : bus->frames;
    const float fade = music_synth_fade_factor(duck->release);
    float fall = 1.0f;
    for (uint32_t n = start; n < end; n++) {
        const uint32_t age = n - start;
        float key = fall;
        if (age < attack)
            key = (float)age / (float)attack;
        else
            fall *= fade;
        bus->key[n] = key > bus->key[n] ? key : bus->key[n];
    }
}

static void music_synth_drum_voice(const music_synth_bus* bus, const music_synth_instrument* ins, uint32_t start,
                                   float amplitude, const music_synth_ramp* ramp, pcg32* rng)
{
    const music_synth_drum* d = &ins->drum;
    const uint32_t bursts = d->noise_bursts > 1 ? d->noise_bursts : 1;
    const uint32_t burst_gap = music_synth_seconds_to_frames(d->burst_gap);
    const float longest = d->tone_decay > d->noise_decay ? d->tone_decay : d->noise_decay;
    uint32_t end =
        start + (bursts - 1) * burst_gap + music_synth_seconds_to_frames(longest * MUSIC_SYNTH_SILENT_TIME_CONSTANTS);
    end = end < bus->frames ? end : bus->frames;
    float pan_left, pan_right;
    music_synth_pan(ins->pan, &pan_left, &pan_right);
    amplitude *= music_synth_ramp_level(ramp, start);

    music_synth_svf filter = {};
    music_synth_svf_tune(&filter, d->noise_hz * music_synth_ramp_cutoff(ramp, start), d->noise_q);
    const float tone_fade = music_synth_fade_factor(d->tone_decay);
    const float noise_fade = music_synth_fade_factor(d->noise_decay);
    const float sweep_fade = music_synth_fade_factor(d->tone_sweep);
    float tone_level = d->tone_level * amplitude;
    float noise_level = 0.0f;
    uint32_t next_burst = start;
    uint32_t bursts_left = bursts;
    float sweep = 1.0f;  // share of the glide still to go
    float phase = 0.0f;  // a sine from phase 0 starts without a click
    const bool has_tone = d->tone_level != 0.0f;
    for (uint32_t n = start; n < end; n++) {
        if (n == next_burst && bursts_left) {
            noise_level = d->noise_level * amplitude;
            next_burst += burst_gap;
            bursts_left--;
        }
        const float noise = 2.0f * pcg32_random_float01(rng) - 1.0f;
        float s = noise_level * music_synth_svf_run(&filter, noise, d->noise_filter);
        if (has_tone) {  // hats and cymbals have none: most drum voices skip the sine
            s += tone_level * sinf(MUSIC_SYNTH_TWO_PI * phase);
            phase += (d->tone_end_hz + (d->tone_start_hz - d->tone_end_hz) * sweep) * MUSIC_SYNTH_SECONDS_PER_FRAME;
            phase -= phase >= 1.0f ? 1.0f : 0.0f;
        }
        s *= 1.0f - ins->duck * bus->key[n];
        bus->left[n] += s * pan_left;
        bus->right[n] += s * pan_right;
        bus->send[n] += s * ins->echo_send;
        sweep *= sweep_fade;
        tone_level *= tone_fade;
        noise_level *= noise_fade;
    }
}

static void music_synth_tone_voice(const music_synth_bus* bus, const music_synth_instrument* ins, uint32_t start,
                                   uint32_t gate, float pitch, float amplitude, const music_synth_ramp* ramp,
                                   pcg32* rng)
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
    // the cue's level moves in straight lines between control frames, without steps
    float level = amplitude * music_synth_ramp_level(ramp, start);
    float level_step = 0.0f;
    music_synth_svf filter = {};

    for (uint32_t n = start; n < end; n++) {
        const uint32_t age = n - start;
        if (age % MUSIC_SYNTH_CONTROL_FRAMES == 0) {
            music_synth_svf_tune(&filter, (t->cutoff_hz + cutoff_env) * music_synth_ramp_cutoff(ramp, n),
                                 t->resonance_q);
            cutoff_env *= cutoff_fade;
            bend = exp2f(t->vibrato_cents / MUSIC_SYNTH_CENTS_PER_OCTAVE * sinf(MUSIC_SYNTH_TWO_PI * vibrato_phase));
            vibrato_phase += vibrato_rate;
            vibrato_phase -= floorf(vibrato_phase);
            const float target = amplitude * music_synth_ramp_level(ramp, n + MUSIC_SYNTH_CONTROL_FRAMES);
            level_step = (target - level) / (float)MUSIC_SYNTH_CONTROL_FRAMES;
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
            mixed += t->oscillators[i].level * music_synth_wave_at(t->oscillators[i].wave, phase[i], dt, rng);
            phase[i] += dt;
            phase[i] -= phase[i] >= 1.0f ? 1.0f : 0.0f;
        }
        const float duck = 1.0f - ins->duck * bus->key[n];
        const float s = level * duck * envelope * music_synth_svf_run(&filter, mixed, MUSIC_SYNTH_FILTER_LOW);
        level += level_step;
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
    const uint64_t buses = MUSIC_SYNTH_BUS_COUNT * music_synth_song_frames(song) * sizeof(float);
    const uint64_t lines = 2ull * music_synth_echo_frames(song) * sizeof(float);
    return buses + lines + (MUSIC_SYNTH_BUS_COUNT + 2) * alignment_slack;
}

// Calls play(cue, note, step on the song's grid, ramp, serial) for every note of track k that
// starts inside the song, in the order of its cues and of their patterns' notes.
template <typename Play>
static void music_synth_track_notes(const music_synth_song* song, uint32_t k, uint32_t frames, Play play)
{
    const uint32_t steps_per_bar = song->steps_per_beat * song->beats_per_bar;
    const music_synth_track* track = &song->tracks[k];
    uint64_t serial = (uint64_t)k << MUSIC_SYNTH_NOTE_SERIAL_BITS;
    for (uint32_t c = 0; c < track->cue_count; c++) {
        const music_synth_cue* cue = &track->cues[c];
        if (cue->pattern >= song->pattern_count)
            crash_in("src/music_synth", __LINE__, "music_synth_render", "track %u cue %u: no pattern %u\n", k, c,
                     cue->pattern);
        const music_synth_pattern* pattern = &song->patterns[cue->pattern];
        const uint64_t first = (uint64_t)cue->bar * steps_per_bar;
        const uint64_t cue_steps = (uint64_t)cue->bars * steps_per_bar;
        const uint64_t pattern_steps = (uint64_t)(pattern->bars ? pattern->bars : 1) * steps_per_bar;
        const uint32_t ramp_start = music_synth_step_frame(song, first);
        const music_synth_ramp ramp = {ramp_start, music_synth_step_frame(song, first + cue_steps) - ramp_start, cue};
        for (uint64_t repeat = 0; repeat < cue_steps; repeat += pattern_steps) {
            for (uint32_t i = 0; i < pattern->count; i++) {
                const music_synth_note* note = &pattern->notes[i];
                if (repeat + note->step >= cue_steps)
                    continue;
                const uint64_t step = first + repeat + note->step;
                if (music_synth_step_frame(song, step) < frames)
                    play(note, step, &ramp, serial);
                serial++;
            }
        }
    }
}

static void music_synth_play_tracks(const music_synth_bus* bus, const music_synth_song* song)
{
    // the keys first: a ducked voice needs them whichever track it is on
    for (uint32_t k = 0; k < song->track_count; k++) {
        if (!song->tracks[k].instrument->duck_key)
            continue;
        music_synth_track_notes(song, k, bus->frames,
                                [&](const music_synth_note*, uint64_t step, const music_synth_ramp*, uint64_t) {
                                    music_synth_key_note(bus, &song->duck, music_synth_step_frame(song, step));
                                });
    }
    for (uint32_t k = 0; k < song->track_count; k++) {
        const music_synth_instrument* ins = song->tracks[k].instrument;
        music_synth_track_notes(
            song, k, bus->frames,
            [&](const music_synth_note* note, uint64_t step, const music_synth_ramp* ramp, uint64_t serial) {
                // every note has its own noise and phases, whatever else the song holds
                pcg32 rng = {MUSIC_SYNTH_SEED ^ (serial * MUSIC_SYNTH_SEED_SPREAD), 2 * serial + 1};
                pcg32_random(&rng);
                const uint32_t start = music_synth_step_frame(song, step);
                const float amplitude = ins->gain * (float)note->velocity / MUSIC_SYNTH_VELOCITY_MAX;
                if (ins->kind == MUSIC_SYNTH_DRUM) {
                    music_synth_drum_voice(bus, ins, start, amplitude, ramp, &rng);
                    return;
                }
                const uint32_t gate = music_synth_step_frame(song, step + note->length) - start;
                const float pitch = (float)note->pitch + (float)ramp->cue->transpose;
                music_synth_tone_voice(bus, ins, start, gate, pitch, amplitude, ramp, &rng);
            });
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
    float** buses[MUSIC_SYNTH_BUS_COUNT] = {&bus.left, &bus.right, &bus.send, &bus.key};
    const uint64_t bytes = (uint64_t)bus.frames * sizeof(float);
    for (float** b : buses) {
        *b = (float*)xmemarena_push_align(scratch, bytes, alignof(float));
        memset(*b, 0, bytes);
    }

    music_synth_play_tracks(&bus, song);
    music_synth_echo_run(&bus, song, scratch);
    music_synth_master(out, bus.left, bus.frames, song->master_gain);
    music_synth_master(out + 1, bus.right, bus.frames, song->master_gain);
    xmemarena_set_sp(scratch, mark);
}
