// ADPCM decoding, lead-in, fade and the show clock.
#include "music.h"

#include <cstring>

const int16_t adpcm_step_table[89] = {
    7,     8,     9,     10,    11,    12,    13,    14,    16,    17,    19,    21,    23,    25,    28,
    31,    34,    37,    41,    45,    50,    55,    60,    66,    73,    80,    88,    97,    107,   118,
    130,   143,   157,   173,   190,   209,   230,   253,   279,   307,   337,   371,   408,   449,   494,
    544,   598,   658,   724,   796,   876,   963,   1060,  1166,  1282,  1411,  1552,  1707,  1878,  2066,
    2272,  2499,  2749,  3024,  3327,  3660,  4026,  4428,  4871,  5358,  5894,  6484,  7132,  7845,  8630,
    9493,  10442, 11487, 12635, 13899, 15289, 16818, 18500, 20350, 22385, 24623, 27086, 29794, 32767,
};

const int8_t adpcm_index_table[16] = {-1, -1, -1, -1, 2, 4, 6, 8, -1, -1, -1, -1, 2, 4, 6, 8};

music_player music_global;

void adpcm_reset(adpcm_decoder* decoder)
{
    decoder->predictor = 0;
    decoder->step_index = 0;
    decoder->step = adpcm_step_table[0];
}

int32_t adpcm_decode_nibble(adpcm_decoder* decoder, uint32_t code)
{
    const int32_t step = decoder->step;
    // a product, not the usual sum of shifted steps: code 3 at step 7 gives 5, code 7 gives 12
    const int32_t diff = ((step * (int32_t)(code & 7)) >> 2) + (step >> 3);
    int32_t predictor = (code & 8) ? decoder->predictor - diff : decoder->predictor + diff;
    if (predictor > 32767)
        predictor = 32767;
    if (predictor < -32768)
        predictor = -32768;
    decoder->predictor = predictor;
    int32_t index = decoder->step_index + adpcm_index_table[code & 15];
    if (index < 0)
        index = 0;
    if (index > MUSIC_STEP_INDEX_MAX)
        index = MUSIC_STEP_INDEX_MAX;
    decoder->step_index = index;
    decoder->step = adpcm_step_table[index];
    return predictor;
}

void music_prepare(int32_t lead_in)
{
    music_global.lead_in.store(lead_in, std::memory_order_relaxed);
    music_global.sample_counter.store(0, std::memory_order_relaxed);
    music_global.ready.store(1, std::memory_order_release);
}

void music_start(const uint8_t* data, uint32_t length, int32_t fade_start)
{
    music_global.data.store(data, std::memory_order_relaxed);
    music_global.length.store(length, std::memory_order_relaxed);
    music_global.music_position.store(0, std::memory_order_relaxed);
    music_global.fade_start.store(fade_start, std::memory_order_relaxed);
    // the callback resets its decoders when it sees a new generation
    music_global.start_generation.fetch_add(1, std::memory_order_release);
    music_global.started.store(1, std::memory_order_release);
}

void music_set_fade_start(int32_t music_position)
{
    music_global.fade_start.store(music_position, std::memory_order_relaxed);
}

void music_seek(int32_t delta)
{
    int32_t old = music_global.sample_counter.load(std::memory_order_relaxed);
    int32_t moved;
    do {
        moved = (int32_t)((uint32_t)old + (uint32_t)delta);  // wraps like the 32-bit counter it is
        if (moved < 0)
            moved = 0;
    } while (!music_global.sample_counter.compare_exchange_weak(old, moved, std::memory_order_relaxed));
}

void music_reset()
{
    music_global.started.store(0);
    music_global.ready.store(0);
    music_global.sample_counter.store(0);
    music_global.lead_in.store(0);
    music_global.music_position.store(0);
    music_global.data.store(nullptr);
    music_global.length.store(0);
    music_global.fade_start.store(0);
    adpcm_reset(&music_global.left);
    adpcm_reset(&music_global.right);
    music_global.decoded_generation = music_global.start_generation.load();
}

void music_mix(int16_t* stream, uint32_t frames)
{
    music_player* m = &music_global;
    if (!m->started.load(std::memory_order_acquire) || !m->ready.load(std::memory_order_acquire)) {
        memset(stream, 0, (size_t)frames * 4);
        return;
    }
    const uint32_t generation = m->start_generation.load(std::memory_order_acquire);
    if (generation != m->decoded_generation) {
        m->decoded_generation = generation;
        adpcm_reset(&m->left);
        adpcm_reset(&m->right);
    }

    const int32_t counter = m->sample_counter.load(std::memory_order_relaxed);
    const int32_t lead_in = m->lead_in.load(std::memory_order_relaxed);
    uint32_t advanced = 0;
    if (counter < lead_in) {
        const uint32_t gap = (uint32_t)((int64_t)lead_in - counter);
        const uint32_t silent = frames < gap ? frames : gap;
        memset(stream, 0, (size_t)silent * 4);
        stream += silent * 2;
        frames -= silent;
        advanced = silent;
        if (frames == 0) {
            m->sample_counter.fetch_add((int32_t)advanced, std::memory_order_relaxed);
            return;
        }
    }

    const int32_t position = (int32_t)((uint32_t)counter + advanced - (uint32_t)lead_in);
    m->music_position.store(position, std::memory_order_relaxed);
    const uint8_t* data = m->data.load(std::memory_order_relaxed);
    const int64_t remaining = (int64_t)m->length.load(std::memory_order_relaxed) - position;
    const uint32_t decode = remaining <= 0 ? 0 : (remaining < frames ? (uint32_t)remaining : frames);

    const int32_t fade_start = m->fade_start.load(std::memory_order_relaxed);
    int32_t volume = 127;
    bool fading = false;
    if (fade_start != 0 && position > fade_start) {
        int64_t a = ((int64_t)position - fade_start) >> MUSIC_FADE_SHIFT;
        if (a > 127)
            a = 127;
        volume = 127 - (int32_t)a;
        fading = true;
    }

    // a position below 0 cannot occur here: the lead-in branch above covers it
    const uint8_t* bytes = data + (decode ? position : 0);
    for (uint32_t i = 0; i < decode; i++) {
        const uint8_t b = bytes[i];
        int32_t left = adpcm_decode_nibble(&m->left, b & 15);
        int32_t right = adpcm_decode_nibble(&m->right, b >> 4);
        if (fading) {
            left = (left * volume) >> 7;
            right = (right * volume) >> 7;
        }
        stream[2 * i] = (int16_t)left;
        stream[2 * i + 1] = (int16_t)right;
    }
    memset(stream + 2 * decode, 0, (size_t)(frames - decode) * 4);

    m->music_position.store(position + (int32_t)decode, std::memory_order_relaxed);
    m->sample_counter.fetch_add((int32_t)(advanced + frames), std::memory_order_relaxed);
}

void audio_callback(void* user_data, uint8_t* stream, int length)
{
    (void)user_data;
    music_mix((int16_t*)stream, (uint32_t)length / 4);
}
