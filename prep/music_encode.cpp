// ADPCM encoding by a beam search over code sequences, simulated with the player's own decoder.
#include "music_encode.h"

#include <cmath>
#include <cstring>

#include "diag.h"
#include "music.h"

constexpr uint32_t MUSIC_ENCODE_CODE_BITS = 4;
constexpr uint32_t MUSIC_ENCODE_CODE_MASK = 15;
constexpr uint32_t MUSIC_ENCODE_SIGN_BIT = 8;
constexpr uint32_t MUSIC_ENCODE_MAGNITUDE_MAX = 7;
// the nibble of the code that is decided next sits at the top of the history
constexpr uint32_t MUSIC_ENCODE_OLDEST_SHIFT = (MUSIC_ENCODE_DECISION_DELAY - 1) * MUSIC_ENCODE_CODE_BITS;
static_assert(MUSIC_ENCODE_DECISION_DELAY * MUSIC_ENCODE_CODE_BITS <= 64, "the history is one 64-bit word");

// One candidate code sequence: its summed squared error, its most recent codes and the
// decoder's state after them.
struct music_encode_path {
    int64_t cost;
    uint64_t history;  // newest code in the low nibble
    adpcm_decoder decoder;
};

// Offers a path to the beam of the next sample, which is kept sorted by cost so that its worst
// path is the last. Two paths in the same decoder state have the same future, so only the
// cheaper one is kept; that leaves room for paths that differ. The path comes as scalars (the
// step follows from its index) and is stored field by field: reading a record back whole just
// after the decoder wrote its fields one by one stalls the store buffer.
static void music_encode_offer(music_encode_path* beam, uint32_t* count, uint32_t width, int64_t cost, uint64_t history,
                               int32_t predictor, int32_t step_index)
{
    uint32_t end = *count;
    if (end == width && cost >= beam[end - 1].cost)
        return;
    for (uint32_t i = 0; i < end; i++) {
        if (beam[i].decoder.predictor == predictor && beam[i].decoder.step_index == step_index) {
            if (cost >= beam[i].cost)
                return;
            end = i;  // the dearer twin goes; the new path moves up from its place
            break;
        }
    }
    if (end == width)
        end--;  // the worst path goes
    else if (end == *count)
        (*count)++;
    uint32_t at = end;
    for (; at > 0 && beam[at - 1].cost > cost; at--)
        beam[at] = beam[at - 1];
    beam[at].cost = cost;
    beam[at].history = history;
    beam[at].decoder.predictor = predictor;
    beam[at].decoder.step_index = step_index;
    beam[at].decoder.step = adpcm_step_table[step_index];
}

// The codes worth trying from a decoder state towards a target, as a mask of bits by code: the
// one or two nearest codes of the target's direction and one more on either side of them, the
// largest code that way (the step grows fastest, for a big move ahead), and the smallest code
// the other way. The codes left out miss by at least half a step now and did not pay that back
// later in measurements; skipping them is most of the encoder's speed. Where each code really
// lands only the decoder says.
static uint32_t music_encode_candidates(const adpcm_decoder* decoder, int32_t target)
{
    const int32_t distance = target - decoder->predictor;
    const uint32_t sign = distance < 0 ? MUSIC_ENCODE_SIGN_BIT : 0;
    const int32_t magnitude = distance < 0 ? -distance : distance;
    // a code k moves by about (k + 1/2) quarter steps
    int32_t nearest = (magnitude - (decoder->step >> 3)) * 4 / decoder->step;
    nearest = nearest < 0                                     ? 0
              : nearest > (int32_t)MUSIC_ENCODE_MAGNITUDE_MAX ? (int32_t)MUSIC_ENCODE_MAGNITUDE_MAX
                                                              : nearest;
    uint32_t mask = 1u << (sign | MUSIC_ENCODE_MAGNITUDE_MAX);
    mask |= 1u << (sign ^ MUSIC_ENCODE_SIGN_BIT);
    for (int32_t k = nearest - 1; k <= nearest + 2; k++)
        if (k >= 0 && k <= (int32_t)MUSIC_ENCODE_MAGNITUDE_MAX)
            mask |= 1u << (sign | (uint32_t)k);
    return mask;
}

// One channel: `pcm` steps by two samples, each code goes into `out` at bit `shift` (nowhere
// when `out` is null). Returns the summed squared error of the codes chosen: all survivors
// share the decided codes and the open ones come from the best path, so that is its cost.
static int64_t music_encode_channel(uint8_t* out, const int16_t* pcm, uint32_t frames, uint32_t width, uint32_t shift)
{
    music_encode_path beams[2][MUSIC_ENCODE_BEAM_MAX];
    music_encode_path* current = beams[0];
    music_encode_path* next = beams[1];
    uint32_t current_count = 1;
    current[0].cost = 0;
    current[0].history = 0;
    adpcm_reset(&current[0].decoder);

    for (uint32_t t = 0; t < frames; t++) {
        const int32_t target = pcm[2 * t];
        uint32_t next_count = 0;
        for (uint32_t p = 0; p < current_count; p++) {
            const music_encode_path* from = &current[p];
            // lower codes first: among paths of equal cost the first offered stays
            for (uint32_t mask = music_encode_candidates(&from->decoder, target); mask; mask &= mask - 1) {
                const uint32_t code = (uint32_t)__builtin_ctz(mask);
                adpcm_decoder decoder = from->decoder;
                const int32_t predictor = adpcm_decode_nibble(&decoder, code);
                const int64_t error = target - predictor;
                const uint64_t history = (from->history << MUSIC_ENCODE_CODE_BITS) | code;
                music_encode_offer(next, &next_count, width, from->cost + error * error, history, predictor,
                                   decoder.step_index);
            }
        }

        if (t + 1 >= MUSIC_ENCODE_DECISION_DELAY) {
            // the best path, the first, decides the oldest open code; paths that chose otherwise are dropped,
            // so every survivor shares all decided codes and the decisions stay one sequence
            const uint32_t code = (uint32_t)(next[0].history >> MUSIC_ENCODE_OLDEST_SHIFT) & MUSIC_ENCODE_CODE_MASK;
            if (out)
                out[t + 1 - MUSIC_ENCODE_DECISION_DELAY] |= (uint8_t)(code << shift);
            uint32_t kept = 0;
            for (uint32_t i = 0; i < next_count; i++)
                if (((next[i].history >> MUSIC_ENCODE_OLDEST_SHIFT) & MUSIC_ENCODE_CODE_MASK) == code)
                    next[kept++] = next[i];
            next_count = kept;
        }

        music_encode_path* swap = current;
        current = next;
        next = swap;
        current_count = next_count;
    }

    // the codes still open come from the best path as a whole
    const music_encode_path* best = &current[0];
    const uint32_t first_open = frames >= MUSIC_ENCODE_DECISION_DELAY ? frames + 1 - MUSIC_ENCODE_DECISION_DELAY : 0;
    for (uint32_t s = first_open; out && s < frames; s++) {
        const uint32_t age = frames - 1 - s;
        const uint32_t code = (uint32_t)(best->history >> (age * MUSIC_ENCODE_CODE_BITS)) & MUSIC_ENCODE_CODE_MASK;
        out[s] |= (uint8_t)(code << shift);
    }
    return best->cost;
}

// A beam prunes paths by what it has seen so far and now and then drops one that would have
// done better later, so on some signals it can end behind the greedy choice. Greedy costs a
// tenth of a beam of 8: it is measured as well, and its codes are taken when they are better.
static void music_encode_channel_best(uint8_t* out, const int16_t* pcm, uint32_t frames, uint32_t width, uint32_t shift)
{
    const int64_t beam_cost = music_encode_channel(out, pcm, frames, width, shift);
    if (width == MUSIC_ENCODE_BEAM_GREEDY ||
        music_encode_channel(nullptr, pcm, frames, MUSIC_ENCODE_BEAM_GREEDY, shift) >= beam_cost)
        return;
    for (uint32_t i = 0; i < frames; i++)
        out[i] &= (uint8_t) ~(MUSIC_ENCODE_CODE_MASK << shift);
    music_encode_channel(out, pcm, frames, MUSIC_ENCODE_BEAM_GREEDY, shift);
}

void music_encode_stream(uint8_t* out, const int16_t* pcm, uint32_t frames, uint32_t beam_width)
{
    if (beam_width == 0 || beam_width > MUSIC_ENCODE_BEAM_MAX)
        crash_in("src/music_encode", __LINE__, "music_encode_stream", "beam width %u not in 1 ... %u\n", beam_width,
                 MUSIC_ENCODE_BEAM_MAX);
    memset(out, 0, frames);
    music_encode_channel_best(out, pcm, frames, beam_width, 0);
    music_encode_channel_best(out, pcm + 1, frames, beam_width, MUSIC_ENCODE_CODE_BITS);
}

void music_encode_decode(int16_t* pcm, const uint8_t* stream, uint32_t frames)
{
    adpcm_decoder left, right;
    adpcm_reset(&left);
    adpcm_reset(&right);
    for (uint32_t i = 0; i < frames; i++) {
        pcm[2 * i] = (int16_t)adpcm_decode_nibble(&left, stream[i] & MUSIC_ENCODE_CODE_MASK);
        pcm[2 * i + 1] = (int16_t)adpcm_decode_nibble(&right, stream[i] >> MUSIC_ENCODE_CODE_BITS);
    }
}

double music_encode_snr_db(const int16_t* original, const int16_t* decoded, uint32_t frames)
{
    double signal = 0.0;  // the squares are exact integers in a double; their sums nearly so
    double noise = 0.0;
    for (uint64_t i = 0; i < 2ull * frames; i++) {
        const double x = original[i];
        const double e = x - decoded[i];
        signal += x * x;
        noise += e * e;
    }
    if (noise == 0.0)
        return INFINITY;
    if (signal == 0.0)
        return -INFINITY;
    return 10.0 * log10(signal / noise);
}
