// The vector kernels of the rasterizer family: AVX2 code that draws a segment's 8 pixels at
// once, exactly as the portable kernel in n3d_rasterizers.cpp draws them one pair at a time.
// Part of that file: included inside its anonymous namespace, after the shared span helpers
// (raster_span_ctx, raster_tail, raster_segment_log2) it builds on, first without RASTER_VEC
// for the records the sets share, then once per kernel set in a namespace of its own:
// RASTER_VEC is the set's target attribute, and with RASTER_VEC_512 the AVX-512 set replaces
// table look-ups by register permutes (the reciprocal table, and the large-spans variant's
// phong table) and writes pixels under masks. Texel, palette, shade and phong-word look-ups
// are scalar loads from indices formed in the lanes: the processor's gather instruction is
// slower than that where its microcode guards it. Elsewhere than on x86 only the empty plan
// record remains.
#if RASTER_X86
// ---- the vector kernel: the 8 pixels of a segment at once ----
//
// Inside a segment the portable kernel steps the packed coordinate w by (w + step) AND NOT
// the gap mask. Its 13-bit u field (bits 0-9 and 16-18 of w) then runs through
// u0 + i du modulo 2^12 (bit 12 is cleared after every step), while each carry out of the u
// field lands in v's lowest bit. Only whole-texel bits 4-11 of u and v reach the index, so
// pixel i of the segment has, exactly:
//   S_i = (u0 AND 0xFFF) + i du                  u's index bits are bits 4-11 of S_i
//   V_i = v0 + i dv + C_i                        C_i carries out of the u field so far
// where, with h = bit 12 of du, g = du >> 12 and K the carry of the very first step (whose w
// is not masked, so u0's bit 12 can take part):
//   C_i = K + h ((S_i >> 12) - i g)  for i >= 1, C_0 = 0.
// The carries make a difference: a negative du has bit 12 set, and then nearly every step
// nudges v by a sixteenth.
//
// A span's segment ends are computed 8 at a time first (lane j: the end of segment j), so
// that a segment only broadcasts its values; Q and depth are stepped along the span in
// lanes (lane i: the segment's pixel i).

#ifndef RASTER_VEC
// ---- the records the vector kernel sets share: included once without RASTER_VEC ----

// Per segment of a group of 8: what raster_segment_avx2 broadcasts to its lanes.
struct raster_segment_group {
    alignas(32) int32_t u[RASTER_LANES];       // ramp of S: u0 AND 0xFFF, du
    alignas(32) int32_t v[RASTER_LANES];       // ramp of v0, dv - h g
    alignas(32) int32_t r2[RASTER_LANES];      // phong: ramp of the squared reciprocal
    alignas(32) int32_t u_step[RASTER_LANES];  // affine: the steps (u, v hold the bases)
    alignas(32) int32_t v_step[RASTER_LANES];
    alignas(32) int32_t h_mask[RASTER_LANES];      // -h
    alignas(32) int32_t carry_mask[RASTER_LANES];  // -K
};

// Texel coordinates and squared reciprocal at the ends of a group's segments: the next
// group's first segment starts from the last lane.
struct raster_segment_ends {
    __m256i u, v, r2;
};

// What the vector kernel carries along a span from one segment to the next.
struct raster_span_lanes {
    __m256i q, dq;  // phong: Q and dQ at the next segment's first 8 pixels
    __m128i z;      // depth there (only 16 bits are compared)
};

// A span's first group of segment ends, computed before it is drawn.
struct raster_span_plan {
    raster_segment_group grp;
    raster_segment_ends ends;  // at the ends of grp's segments
};

struct raster_span_plans {
    raster_span_plan plan[2];
    int32_t ready;  // the plan made for the span drawn next, -1 for none, or RASTER_SPAN_HIDDEN
};

// What `ready` holds when the span drawn next was found to draw nothing.
constexpr int32_t RASTER_SPAN_HIDDEN = -2;

// Segments of 8 while at least 8 pixels remain beyond the first, then one of 4, one of 2.
struct raster_segment_counts {
    int32_t count8, partial, count;
};

RASTER_INLINE raster_segment_counts raster_segments_of(const raster_span_job& job)
{
    const int32_t m = job.xr - job.xl - 1;
    return {m >> 3, (m & 4) ? 4 : 2, (m >> 3) + ((m >> 2) & 1) + ((m >> 1) & 1)};
}
#else

// Fills the lane constants of a triangle whose other span values are set.
template <uint32_t F>
RASTER_VEC void raster_lane_setup_avx2(raster_span_ctx* s)
{
    raster_lane_constants* c = &s->lanes;
    const uint32_t mask = s->index_mask;
    const __m128i z_step = _mm_set1_epi16((short)((uint32_t)s->z_x << 3));
    _mm_store_si128((__m128i*)c->z_step, z_step);
    const __m256i qxx = _mm256_set1_epi32(s->qxx);
    _mm256_store_si256((__m256i*)c->mask_u_low, _mm256_set1_epi32((int)(mask & 0xFC)));
    _mm256_store_si256((__m256i*)c->mask_u_high, _mm256_set1_epi32((int)(mask & 0xC000)));
    _mm256_store_si256((__m256i*)c->mask_v_high, _mm256_set1_epi32((int)(mask & 0x3F00)));
    _mm256_store_si256((__m256i*)c->mask_v_low, _mm256_set1_epi32((int)(mask & 3)));
    _mm256_store_si256((__m256i*)c->texel_shift, _mm256_set1_epi32((F & RF_T8) ? (int)(mask & 3) << 3 : (int)(mask & 1) << 4));
    _mm256_store_si256((__m256i*)c->texel_word_bit, _mm256_set1_epi32((int)(mask & 2)));
    _mm256_store_si256((__m256i*)c->q_step, _mm256_mullo_epi32(qxx, _mm256_set1_epi32(28)));  // 8 * 7 / 2 Qxx
    _mm256_store_si256((__m256i*)c->dq_step, _mm256_slli_epi32(qxx, 3));
    _mm256_store_si256((__m256i*)c->lane_qxx, _mm256_mullo_epi32(qxx, _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7)));
    _mm256_store_si256((__m256i*)c->pairs_qxx, _mm256_mullo_epi32(qxx, _mm256_setr_epi32(0, 0, 1, 3, 6, 10, 15, 21)));
    if constexpr (F & RF_PHONG) {
        // the indices the kernel can look up, clamped into the guards as the portable kernel does
        // (large spans: the product's top byte, and the guards' range in spans without segments)
        const int32_t from = (F & RF_LARGE_SPANS) ? RASTER_PHONG_WORDS_LOW : RASTER_PHONG_GUARD_LOW;
        const int32_t to = RASTER_PHONG_GUARD_HIGH;
        int32_t* words = c->phong - RASTER_PHONG_WORDS_LOW;
        const __m256i low5 = _mm256_set1_epi32(0x1F);
        const __m256i below = _mm256_set1_epi32(s->phong[RASTER_PHONG_GUARD_LOW] & 0x1F);
        int32_t i = from;
        for (; i < RASTER_PHONG_GUARD_LOW; i += RASTER_LANES)
            _mm256_storeu_si256((__m256i*)(words + i), below);
        for (; i <= to; i += RASTER_LANES) {
            const __m128i bytes = _mm_loadl_epi64((const __m128i*)(s->phong + i));
            _mm256_storeu_si256((__m256i*)(words + i), _mm256_and_si256(_mm256_cvtepu8_epi32(bytes), low5));
        }
#if RASTER_VEC_512
        // large spans: the same words as bytes, indexed by the product's top byte (two's complement)
        if constexpr (F & RF_LARGE_SPANS)
            for (int32_t k = RASTER_PHONG_WORDS_LOW; k <= 127; k += 16)
                _mm_store_si128((__m128i*)(c->phong_bytes + (k & 255)), _mm512_cvtepi32_epi8(_mm512_loadu_si512(words + k)));
#endif
    }
}

RASTER_VEC RASTER_INLINE __m256i raster_lanes(const int32_t* values) { return _mm256_load_si256((const __m256i*)values); }
RASTER_VEC RASTER_INLINE __m256i raster_lanes_u(const int32_t* values)
{
    return _mm256_loadu_si256((const __m256i*)values);
}

// 8 32-bit words from base + index * Scale bytes. Not the gather instruction: on processors
// whose microcode guards it against data sampling it costs about 23 cycles for 8 lanes,
// while 8 scalar loads put back into lanes take about 7.
template <int Scale>
RASTER_VEC RASTER_INLINE __m256i raster_gather(const void* base, __m256i index)
{
    alignas(32) int32_t at[RASTER_LANES];
    _mm256_store_si256((__m256i*)at, index);
    const uint8_t* b = (const uint8_t*)base;
    int32_t word[RASTER_LANES];
    for (uint32_t i = 0; i < RASTER_LANES; i++)
        memcpy(&word[i], b + (intptr_t)at[i] * Scale, 4);
    __m128i low = _mm_cvtsi32_si128(word[0]);
    __m128i high = _mm_cvtsi32_si128(word[4]);
    low = _mm_insert_epi32(low, word[1], 1), high = _mm_insert_epi32(high, word[5], 1);
    low = _mm_insert_epi32(low, word[2], 2), high = _mm_insert_epi32(high, word[6], 2);
    low = _mm_insert_epi32(low, word[3], 3), high = _mm_insert_epi32(high, word[7], 3);
    return _mm256_inserti128_si256(_mm256_castsi128_si256(low), high, 1);
}

// The phong byte (AND 31) of a product P = Q r2 whose top byte is the index (large spans). The
// AVX2 set leaves the look-up to the scalar pass that reads the texel: its lanes hold the
// index's place in the phong words.
RASTER_VEC RASTER_INLINE __m256i raster_light_of_product(const raster_span_ctx& s, __m256i product)
{
#if RASTER_VEC_512
    // every byte of P is looked up in the 256-byte table (two 128-byte permutes and a select on
    // the byte's top bit); the top byte's result is the one kept
    const __m512i P = _mm512_zextsi256_si512(product);
    const __m512i* t = (const __m512i*)s.lanes.phong_bytes;
    const __m512i looked = _mm512_mask_blend_epi8(_mm512_movepi8_mask(P), _mm512_permutex2var_epi8(t[0], P, t[1]),
                                                  _mm512_permutex2var_epi8(t[2], P, t[3]));
    return _mm256_srli_epi32(_mm512_castsi512_si256(looked), N3D_PHONG_PRODUCT_SHIFT);
#else
    (void)s;
    return _mm256_sub_epi32(_mm256_srai_epi32(product, N3D_PHONG_PRODUCT_SHIFT),
                            _mm256_set1_epi32(RASTER_PHONG_WORDS_LOW));
#endif
}

// Where both look-ups of a pixel are byte and word reads (8-bit texels, and 16-bit texels
// without phong) they are done with scalar loads from one word per lane holding the texel's
// index and the phong byte: cheaper than two round trips between lanes and scalar registers.
template <uint32_t F>
constexpr bool raster_scalar_lookups = (F & RF_T8) || !(F & RF_PHONG);

// The phong byte (AND 31) of a table index, clamped into the guards as raster_shade does. With
// scalar look-ups the phong word is read with the texel: then the lanes hold the index's
// place in the phong words instead (but for large spans with AVX-512, whose segments look up
// bytes).
template <uint32_t F>
RASTER_VEC RASTER_INLINE __m256i raster_light_of_index(const raster_span_ctx& s, __m256i index)
{
    index = _mm256_min_epi32(_mm256_max_epi32(index, _mm256_set1_epi32(RASTER_PHONG_GUARD_LOW)),
                             _mm256_set1_epi32(RASTER_PHONG_GUARD_HIGH));
    if constexpr (raster_scalar_lookups<F> && !((F & RF_LARGE_SPANS) && RASTER_VEC_512))
        return _mm256_sub_epi32(index, _mm256_set1_epi32(RASTER_PHONG_WORDS_LOW));
    else
        return raster_gather<4>(s.lanes.phong - RASTER_PHONG_WORDS_LOW, index);
}

#if !RASTER_VEC_512
// Entry index (0 to 31) of a 32-entry table in each lane: four 8-word permutes and a choice
// between them by the index's bits 3 and 4 (fewer instructions than 8 loads put into lanes).
RASTER_VEC RASTER_INLINE __m256i raster_lut32_lanes(const int32_t* table, __m256i index)
{
    const __m256 r0 = _mm256_castsi256_ps(_mm256_permutevar8x32_epi32(raster_lanes_u(table), index));
    const __m256 r1 = _mm256_castsi256_ps(_mm256_permutevar8x32_epi32(raster_lanes_u(table + 8), index));
    const __m256 r2 = _mm256_castsi256_ps(_mm256_permutevar8x32_epi32(raster_lanes_u(table + 16), index));
    const __m256 r3 = _mm256_castsi256_ps(_mm256_permutevar8x32_epi32(raster_lanes_u(table + 24), index));
    const __m256 bit3 = _mm256_castsi256_ps(_mm256_slli_epi32(index, 28));  // blends test a lane's top bit
    const __m256 bit4 = _mm256_castsi256_ps(_mm256_slli_epi32(index, 27));
    const __m256 low = _mm256_blendv_ps(r0, r1, bit3);
    const __m256 high = _mm256_blendv_ps(r2, r3, bit3);
    return _mm256_castps_si256(_mm256_blendv_ps(low, high, bit4));
}
#endif

// The span reciprocal of scaled iw in each lane, as raster_reciprocal (clamp included).
RASTER_VEC RASTER_INLINE __m256i raster_reciprocal_lanes(__m256i iw)
{
    const __m256i index = _mm256_min_epi32(_mm256_max_epi32(_mm256_srai_epi32(iw, N3D_IW_LUT_SHIFT), _mm256_setzero_si256()),
                                           _mm256_set1_epi32(N3D_FIXED_IIW_LUT_SIZE - 2));
#if RASTER_VEC_512
    // the 32-entry table is two registers: word permutes instead of gathers
    const __m512i lut_low = _mm512_loadu_si512(n3d_fixed_iiw_lut);
    const __m512i lut_high = _mm512_loadu_si512(n3d_fixed_iiw_lut + 16);
    const __m512i wide = _mm512_zextsi256_si512(index);
    const __m256i t0 = _mm512_castsi512_si256(_mm512_permutex2var_epi32(lut_low, wide, lut_high));
    const __m256i t1 = _mm512_castsi512_si256(
        _mm512_permutex2var_epi32(lut_low, _mm512_add_epi32(wide, _mm512_set1_epi32(1)), lut_high));
#else
    const __m256i t0 = raster_lut32_lanes(n3d_fixed_iiw_lut, index);
    const __m256i t1 = raster_lut32_lanes(n3d_fixed_iiw_lut, _mm256_add_epi32(index, _mm256_set1_epi32(1)));
#endif
    const __m256i f = _mm256_and_si256(iw, _mm256_set1_epi32((1 << N3D_IW_LUT_SHIFT) - 1));
    return _mm256_add_epi32(t0, _mm256_srai_epi32(_mm256_mullo_epi32(_mm256_sub_epi32(t1, t0), f), N3D_IW_LUT_SHIFT));
}

// Texel coordinates (4 fraction bits) at attributes iw, U, V in each lane, as
// raster_texel_coords, and the squared reciprocal there (phong variants; else 0).
template <uint32_t F>
RASTER_VEC RASTER_INLINE void raster_coords_lanes(__m256i iw, __m256i ua, __m256i va, __m256i* u, __m256i* v, __m256i* r2)
{
    const __m256i bias = _mm256_set1_epi32(N3D_TEXEL_BIAS);
    *r2 = _mm256_setzero_si256();
    if constexpr (F & RF_AFFINE) {
        (void)iw;
        *u = _mm256_add_epi32(_mm256_srai_epi32(ua, N3D_AFFINE_SHIFT), bias);
        *v = _mm256_add_epi32(_mm256_srai_epi32(va, N3D_AFFINE_SHIFT), bias);
    } else {
        const __m256i r = raster_reciprocal_lanes(iw);
        *u = _mm256_add_epi32(_mm256_srai_epi32(_mm256_mullo_epi32(ua, r), N3D_UV_PRODUCT_SHIFT), bias);
        *v = _mm256_add_epi32(_mm256_srai_epi32(_mm256_mullo_epi32(va, r), N3D_UV_PRODUCT_SHIFT), bias);
        if constexpr (F & RF_PHONG)  // as raster_rsqr
            *r2 = _mm256_srli_epi32(_mm256_mullo_epi32(r, _mm256_srai_epi32(r, 5)), 13);
    }
}

// A ramp is base + i step over the lanes. Texel coordinates, their steps and squared
// reciprocals fit 16 bits in the perspective variants (a coordinate is a 32-bit product
// shifted right by 18), so there a ramp is one word, step in the low half and base in the
// high half, and one multiply-add of 16-bit pairs makes it. The affine variant's coordinates
// are wider: it keeps base and step apart.

// The word of a 16-bit ramp.
RASTER_VEC RASTER_INLINE __m256i raster_ramp_word(__m256i base, __m256i step)
{
    return _mm256_or_si256(_mm256_slli_epi32(base, 16), _mm256_and_si256(step, _mm256_set1_epi32(0xFFFF)));
}

// Ramp j of a group, lane i holding base + i step.
template <uint32_t F>
RASTER_VEC RASTER_INLINE __m256i raster_ramp(const int32_t* ramps, const int32_t* steps, uint32_t j)
{
    if constexpr (F & RF_AFFINE) {
        const __m256i lane = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
        return _mm256_add_epi32(_mm256_set1_epi32(ramps[j]), _mm256_mullo_epi32(lane, _mm256_set1_epi32(steps[j])));
    } else {
        (void)steps;
        const __m256i lane_and_one = _mm256_setr_epi16(0, 1, 1, 1, 2, 1, 3, 1, 4, 1, 5, 1, 6, 1, 7, 1);
        return _mm256_madd_epi16(lane_and_one, _mm256_set1_epi32(ramps[j]));
    }
}

// The lanes moved up by one, lane 0 taking the last lane of `before`.
RASTER_VEC RASTER_INLINE __m256i raster_lanes_after(__m256i v, __m256i before)
{
    const __m256i up = _mm256_setr_epi32(7, 0, 1, 2, 3, 4, 5, 6);
    return _mm256_blend_epi32(_mm256_permutevar8x32_epi32(v, up), _mm256_permutevar8x32_epi32(before, up), 0x01);
}

// x / 2^k truncating toward zero, k per lane (as raster_div_pow2)
RASTER_VEC RASTER_INLINE __m256i raster_div_pow2_lanes(__m256i x, __m256i k)
{
    const __m256i bias = _mm256_srlv_epi32(_mm256_srai_epi32(x, 31), _mm256_sub_epi32(_mm256_set1_epi32(32), k));
    return _mm256_srav_epi32(_mm256_add_epi32(x, bias), k);
}

// Segments first to first + 7 of a span whose attributes at its first pixel are `a`: their
// ends, and what each segment broadcasts. Segment j < count8 has 8 pixels, then come one of
// `partial` pixels (4 or 2) and, when partial is 4 and a 2 follows, one of 2.
template <uint32_t F>
RASTER_VEC void raster_segment_group_avx2(const raster_span_ctx& s, const raster_attrs& a, int32_t first,
                                                  int32_t count8, int32_t partial, raster_segment_ends* ends,
                                                  raster_segment_group* grp)
{
    const __m256i lane = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
    const __m256i j = _mm256_add_epi32(_mm256_set1_epi32(first), lane);
    // segments past the 8-pixel ones: the first has `partial` pixels, a second one 2
    const __m256i past = _mm256_min_epi32(_mm256_max_epi32(_mm256_sub_epi32(j, _mm256_set1_epi32(count8 - 1)),
                                                           _mm256_setzero_si256()),
                                          _mm256_set1_epi32(2));
    const __m256i partial_end = _mm256_permutevar8x32_epi32(_mm256_setr_epi32(0, partial, partial + 2, 0, 0, 0, 0, 0), past);
    const __m256i log2_length = _mm256_permutevar8x32_epi32(_mm256_setr_epi32(3, partial == 4 ? 2 : 1, 1, 0, 0, 0, 0, 0), past);
    const __m256i end = _mm256_add_epi32(
        _mm256_slli_epi32(_mm256_min_epi32(_mm256_add_epi32(j, _mm256_set1_epi32(1)), _mm256_set1_epi32(count8)), 3),
        partial_end);

    // attributes at the ends, and texel coordinates there
    const __m256i iw = _mm256_add_epi32(_mm256_set1_epi32((int)a.iw), _mm256_mullo_epi32(end, _mm256_set1_epi32(s.iw_x)));
    const __m256i ua = _mm256_add_epi32(_mm256_set1_epi32((int)a.u), _mm256_mullo_epi32(end, _mm256_set1_epi32(s.u_x)));
    const __m256i va = _mm256_add_epi32(_mm256_set1_epi32((int)a.v), _mm256_mullo_epi32(end, _mm256_set1_epi32(s.v_x)));
    __m256i u, v, r2;
    raster_coords_lanes<F>(iw, ua, va, &u, &v, &r2);

    // each segment runs from the previous one's end
    const __m256i u0 = raster_lanes_after(u, ends->u);
    const __m256i v0 = raster_lanes_after(v, ends->v);
    const __m256i du = raster_div_pow2_lanes(_mm256_sub_epi32(u, u0), log2_length);
    const __m256i dv = raster_div_pow2_lanes(_mm256_sub_epi32(v, v0), log2_length);
    const __m256i wrap = _mm256_set1_epi32((int)RASTER_U_WRAP_MASK);
    const __m256i u_low = _mm256_and_si256(u0, wrap);
    const __m256i du_high = _mm256_srai_epi32(du, RASTER_U_WRAP_BITS);
    const __m256i h = _mm256_and_si256(du_high, _mm256_set1_epi32(1));
    const __m256i h_mask = _mm256_sub_epi32(_mm256_setzero_si256(), h);
    const __m256i first_step_wraps = _mm256_srli_epi32(_mm256_add_epi32(u_low, _mm256_and_si256(du, wrap)), RASTER_U_WRAP_BITS);
    const __m256i first_carry = _mm256_and_si256(_mm256_srli_epi32(u0, RASTER_U_WRAP_BITS),
                                                 _mm256_and_si256(_mm256_xor_si256(h, first_step_wraps), _mm256_set1_epi32(1)));
    const __m256i dv_carried = _mm256_sub_epi32(dv, _mm256_and_si256(du_high, h_mask));
    if constexpr (F & RF_AFFINE) {
        _mm256_store_si256((__m256i*)grp->u, u_low);
        _mm256_store_si256((__m256i*)grp->u_step, du);
        _mm256_store_si256((__m256i*)grp->v, v0);
        _mm256_store_si256((__m256i*)grp->v_step, dv_carried);
    } else {
        _mm256_store_si256((__m256i*)grp->u, raster_ramp_word(u_low, du));
        _mm256_store_si256((__m256i*)grp->v, raster_ramp_word(v0, dv_carried));
    }
    _mm256_store_si256((__m256i*)grp->h_mask, h_mask);
    _mm256_store_si256((__m256i*)grp->carry_mask, _mm256_sub_epi32(_mm256_setzero_si256(), first_carry));
    if constexpr (F & RF_PHONG) {
        const __m256i r2_0 = raster_lanes_after(r2, ends->r2);
        const __m256i dr2 = raster_div_pow2_lanes(_mm256_sub_epi32(r2, r2_0), log2_length);
        _mm256_store_si256((__m256i*)grp->r2, raster_ramp_word(r2_0, dr2));
    }
    ends->u = u, ends->v = v, ends->r2 = r2;
}

// Low 16 bits of each 32-bit lane, as 8 16-bit lanes.
RASTER_VEC RASTER_INLINE __m128i raster_pack_lanes(__m256i v)
{
    const __m256i low_halves = _mm256_setr_epi8(0, 1, 4, 5, 8, 9, 12, 13, -1, -1, -1, -1, -1, -1, -1, -1, 0, 1, 4, 5,
                                                8, 9, 12, 13, -1, -1, -1, -1, -1, -1, -1, -1);
    return _mm256_castsi256_si128(_mm256_permute4x64_epi64(_mm256_shuffle_epi8(v, low_halves), 0x08));
}

// The coverage bits of columns x to x + 7 as one byte, column x in the most significant bit;
// the next word is read only when the `count` columns drawn run into it.
RASTER_INLINE int raster_coverage_byte(const uint32_t* cov, int32_t x, uint32_t count)
{
    const uint32_t* word = cov + (x >> 5);
    const uint32_t bit = (uint32_t)x & 31;
    uint64_t window = (uint64_t)word[0] << 32;
    if (bit + count > 32)
        window |= word[1];
    return (int)((window << bit) >> 56);
}

// The texel at whole-and-fraction coordinates S (u, 12 bits) and V (v) in each lane.
template <uint32_t F>
RASTER_VEC RASTER_INLINE __m256i raster_texels(const raster_span_ctx& s, __m256i S, __m256i V)
{
    const raster_lane_constants& c = s.lanes;
    // swizzled index without v's two lowest bits, which pick the texel inside an aligned
    // 32-bit word: the word is gathered whole so that no read leaves the level
    const __m256i index_high = _mm256_or_si256(
        _mm256_or_si256(_mm256_and_si256(_mm256_srli_epi32(S, 2), raster_lanes(c.mask_u_low)),
                        _mm256_and_si256(_mm256_slli_epi32(S, 4), raster_lanes(c.mask_u_high))),
        _mm256_and_si256(_mm256_slli_epi32(V, 2), raster_lanes(c.mask_v_high)));
    __m256i texel;
    if constexpr (F & RF_T8) {
        // v's bits 4-5 are the byte inside the word: a shift of 8 times them
        const __m256i shift = _mm256_and_si256(_mm256_srli_epi32(V, 1), raster_lanes(c.texel_shift));
        texel = _mm256_srlv_epi32(raster_gather<1>(s.tex8, index_high), shift);
    } else {
        // v's bit 4 is the half inside the word, bit 5 part of the word's index
        const __m256i word = _mm256_or_si256(index_high, _mm256_and_si256(_mm256_srli_epi32(V, 4), raster_lanes(c.texel_word_bit)));
        const __m256i shift = _mm256_and_si256(V, raster_lanes(c.texel_shift));
        texel = _mm256_srlv_epi32(raster_gather<2>(s.tex16, word), shift);
    }
    return texel;
}

// The pixel of a texel lit by phong byte b (phong variants) in each lane.
template <uint32_t F>
RASTER_VEC RASTER_INLINE __m256i raster_pixels(const raster_span_ctx& s, __m256i texel, __m256i b)
{
    __m256i pixel;
    if constexpr (F & RF_PHONG) {
        if constexpr (F & RF_T8) {
            // shade table entry texel * 32 + b, gathered as the word holding it
            const __m256i entry_word = _mm256_or_si256(
                _mm256_and_si256(_mm256_slli_epi32(texel, 4), _mm256_set1_epi32(0xFF0)), _mm256_srli_epi32(b, 1));
            const __m256i half = _mm256_slli_epi32(_mm256_and_si256(b, _mm256_set1_epi32(1)), 4);
            pixel = _mm256_srlv_epi32(raster_gather<4>(s.shade_table, entry_word), half);
        } else {
            // channels spread 10 bits apart so one multiply scales all three
            const __m256i spread = _mm256_or_si256(
                _mm256_or_si256(_mm256_and_si256(texel, _mm256_set1_epi32(0x1F)),
                                _mm256_and_si256(_mm256_slli_epi32(texel, 5), _mm256_set1_epi32(0x1F << 10))),
                _mm256_and_si256(_mm256_slli_epi32(texel, 10), _mm256_set1_epi32(0x1F << 20)));
            const __m256i p = _mm256_mullo_epi32(spread, b);
            pixel = _mm256_or_si256(
                _mm256_or_si256(_mm256_and_si256(_mm256_srli_epi32(p, 5), _mm256_set1_epi32(0x1F)),
                                _mm256_and_si256(_mm256_srli_epi32(p, 10), _mm256_set1_epi32(0x1F << 5))),
                _mm256_or_si256(_mm256_and_si256(_mm256_srli_epi32(p, 15), _mm256_set1_epi32(0x1F << 10)),
                                _mm256_set1_epi32(0x8000)));
        }
    } else {
        (void)b;
        if constexpr (F & RF_T8) {
            const __m256i entry_word = _mm256_and_si256(_mm256_srli_epi32(texel, 1), _mm256_set1_epi32(0x7F));
            const __m256i half = _mm256_slli_epi32(_mm256_and_si256(texel, _mm256_set1_epi32(1)), 4);
            pixel = _mm256_srlv_epi32(raster_gather<4>(s.palette, entry_word), half);
        } else {
            pixel = texel;
        }
    }
    return pixel;
}

// The pixel of one lane's key: the texel index, and with phong the phong byte << 16 (large
// spans, AVX-512) or its place in the phong words << 16.
template <uint32_t F>
RASTER_INLINE uint32_t raster_lookup_pixel(const raster_span_ctx& s, uint32_t key)
{
    if constexpr ((F & RF_LARGE_SPANS) && RASTER_VEC_512)
        return s.shade_table[((uint32_t)s.tex8[key & 0xFFFF] << 5) | (key >> 16)];
    else if constexpr (F & RF_PHONG)
        return s.shade_table[((uint32_t)s.tex8[key & 0xFFFF] << 5) | (uint32_t)s.lanes.phong[key >> 16]];
    else if constexpr (F & RF_T8)
        return s.palette[s.tex8[key]];
    else
        return s.tex16[key];
}

// The keys of raster_lookup_pixel at texel coordinates S, V and phong bytes b, stored in key.
template <uint32_t F>
RASTER_VEC RASTER_INLINE void raster_pixel_keys(const raster_span_ctx& s, __m256i S, __m256i V, __m256i b, uint32_t* key)
{
    const raster_lane_constants& c = s.lanes;
    __m256i index = _mm256_or_si256(
        _mm256_or_si256(_mm256_and_si256(_mm256_srli_epi32(S, 2), raster_lanes(c.mask_u_low)),
                        _mm256_and_si256(_mm256_slli_epi32(S, 4), raster_lanes(c.mask_u_high))),
        _mm256_and_si256(_mm256_slli_epi32(V, 2), raster_lanes(c.mask_v_high)));
    // v's two lowest whole bits: the texel inside the 4 of the index's word
    index = _mm256_or_si256(index, _mm256_and_si256(_mm256_srli_epi32(V, N3D_TEXEL_FRACTION_BITS), raster_lanes(c.mask_v_low)));
    if constexpr (F & RF_PHONG)
        index = _mm256_or_si256(index, _mm256_slli_epi32(b, 16));
    _mm256_store_si256((__m256i*)key, index);
}

// The 8 pixels at texel coordinates S, V lit by phong bytes b, as 16-bit lanes.
template <uint32_t F>
RASTER_VEC RASTER_INLINE __m128i raster_pixel_lanes(const raster_span_ctx& s, __m256i S, __m256i V, __m256i b)
{
    if constexpr (raster_scalar_lookups<F>) {
        alignas(32) uint32_t key[RASTER_LANES];
        raster_pixel_keys<F>(s, S, V, b, key);
        // a vector load of 16-bit stores waits for them to reach the cache; still measured faster
        // than four pixels to a 64-bit register, and than extracting the keys from the lanes
        alignas(16) uint16_t pixel[RASTER_LANES];
#pragma GCC unroll 8
        for (uint32_t i = 0; i < RASTER_LANES; i++)
            pixel[i] = (uint16_t)raster_lookup_pixel<F>(s, key[i]);
        return _mm_load_si128((const __m128i*)pixel);
    } else {
        return raster_pack_lanes(raster_pixels<F>(s, raster_texels<F>(s, S, V), b));
    }
}

#if RASTER_VEC_512
// The first `count` lanes' pixels written to out where `write` has their bit (AVX-512). With
// scalar look-ups each pixel is stored as it is read and the lanes not written get their old
// value back after: no vector waits for 16-bit stores.
template <uint32_t F>
RASTER_VEC RASTER_INLINE void raster_store_pixels(const raster_span_ctx& s, __m256i S, __m256i V, __m256i b, uint16_t* out,
                                                  uint32_t count, __mmask8 write)
{
    if constexpr (raster_scalar_lookups<F>) {
        alignas(32) uint32_t key[RASTER_LANES];
        raster_pixel_keys<F>(s, S, V, b, key);
        __asm__("" : "+m"(key));  // read back with loads, not with extracts that queue on one port
        const __mmask8 kept = (__mmask8)(~write & (0xFFu >> (8 - count)));
        __m128i old = _mm_setzero_si128();
        if constexpr (F & (RF_COV_READ | RF_DEPTH))
            old = _mm_maskz_loadu_epi16(kept, out);
#pragma GCC unroll 8
        for (uint32_t i = 0; i < count; i++)
            out[i] = (uint16_t)raster_lookup_pixel<F>(s, key[i]);
        if constexpr (F & (RF_COV_READ | RF_DEPTH))
            _mm_mask_storeu_epi16(out, kept, old);
    } else {
        _mm_mask_storeu_epi16(out, write, raster_pixel_lanes<F>(s, S, V, b));
    }
}
#endif

// The pixels of 8-pixel segment j of a group, from column x (the shorter ones at a span's end
// are drawn by raster_last_lanes).
template <uint32_t F>
RASTER_VEC RASTER_INLINE void raster_segment_avx2(const raster_span_ctx& s, const raster_segment_group& grp, uint32_t j,
                                                  raster_span_lanes* l, uint16_t* dst, const uint32_t* cov,
                                                  uint16_t* zrow, int32_t x)
{
    const raster_lane_constants& c = s.lanes;
    // Q at the segment's 8 pixels; the lanes move on by 8 pixels
    const __m256i q = l->q;
    if constexpr (F & RF_PHONG) {
        l->q = _mm256_add_epi32(l->q, _mm256_add_epi32(_mm256_slli_epi32(l->dq, 3), raster_lanes(c.q_step)));
        l->dq = _mm256_add_epi32(l->dq, raster_lanes(c.dq_step));
    }

    // the coverage and depth tests first: a segment hidden whole needs no texel
    uint16_t* out = dst + x;
#if RASTER_VEC_512
    // masked stores: the lanes written are those of the segment that are uncovered and nearer
    __mmask8 write = 0xFF;
#else
    // lanes that keep what is there: covered, or not nearer
    __m128i keep = _mm_setzero_si128();
#endif
    if constexpr (F & RF_COV_READ) {
        const int bits = raster_coverage_byte(cov, x, RASTER_LANES);
        const __m128i lane_bit = _mm_setr_epi16(0x80, 0x40, 0x20, 0x10, 8, 4, 2, 1);
#if RASTER_VEC_512
        write &= (__mmask8)~_mm_test_epi16_mask(_mm_set1_epi16((short)bits), lane_bit);
#else
        keep = _mm_cmpeq_epi16(_mm_and_si128(_mm_set1_epi16((short)bits), lane_bit), lane_bit);
#endif
    }
    if constexpr (F & RF_DEPTH) {
#if RASTER_VEC_512
        uint16_t* zout = zrow + x;
        write &= _mm_cmpgt_epu16_mask(l->z, _mm_maskz_loadu_epi16(write, zout));
        _mm_mask_storeu_epi16(zout, write, l->z);
#else
        __m128i* zout = (__m128i*)(zrow + x);
        // the nearer of the two is what stays: the stored value where the test fails
        const __m128i z_old = _mm_loadu_si128(zout);
        const __m128i z_new = _mm_max_epu16(l->z, z_old);
        keep = _mm_or_si128(keep, _mm_cmpeq_epi16(z_new, z_old));
        _mm_storeu_si128(zout, z_new);
#endif
        l->z = _mm_add_epi16(l->z, _mm_load_si128((const __m128i*)c.z_step));
    }
    (void)cov;
    (void)zrow;
#if RASTER_VEC_512
    if (!write)
        return;
#else
    if (_mm_movemask_epi8(keep) == 0xFFFF)
        return;
#endif

    // texel coordinates of the 8 pixels in closed form (see above)
    const __m256i lane_past_first = _mm256_setr_epi32(0, 1, 1, 1, 1, 1, 1, 1);
    const __m256i S = raster_ramp<F>(grp.u, grp.u_step, j);
    __m256i V = raster_ramp<F>(grp.v, grp.v_step, j);
    V = _mm256_add_epi32(V, _mm256_and_si256(_mm256_srai_epi32(S, RASTER_U_WRAP_BITS), _mm256_set1_epi32(grp.h_mask[j])));
    V = _mm256_add_epi32(V, _mm256_and_si256(lane_past_first, _mm256_set1_epi32(grp.carry_mask[j])));

    // the lighting look-up before the texel's: it does not wait for the texel, so it is under
    // way while the texel's index is formed
    __m256i b = _mm256_setzero_si256();
    if constexpr (F & RF_PHONG) {
        const __m256i r2 = raster_ramp<F>(grp.r2, nullptr, j);
        if constexpr (F & RF_LARGE_SPANS) {
            b = raster_light_of_product(s, _mm256_mullo_epi32(q, r2));  // P = Q r2, what the cubic steps
        } else {
            const __m256i index = _mm256_mullo_epi32(_mm256_srai_epi32(q, N3D_PHONG_Q_SHIFT), r2);
            b = raster_light_of_index<F>(s, _mm256_srai_epi32(index, N3D_PHONG_INDEX_SHIFT));
        }
    }

#if RASTER_VEC_512
    raster_store_pixels<F>(s, S, V, b, out, RASTER_LANES, write);
#else
    const __m128i pixels = raster_pixel_lanes<F>(s, S, V, b);
    if constexpr (F & (RF_COV_READ | RF_DEPTH))
        _mm_storeu_si128((__m128i*)out, _mm_blendv_epi8(pixels, _mm_loadu_si128((const __m128i*)out), keep));
    else
        _mm_storeu_si128((__m128i*)out, pixels);
#endif
}

// base + i step in lane i
RASTER_VEC RASTER_INLINE __m256i raster_lane_ramp(uint32_t base, int32_t step)
{
    const __m256i lane = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
    return _mm256_add_epi32(_mm256_set1_epi32((int)base), _mm256_mullo_epi32(lane, _mm256_set1_epi32(step)));
}

// Depth z + i z_x in 16-bit lane i (only 16 bits are compared).
RASTER_VEC RASTER_INLINE __m128i raster_depth_lanes(uint32_t z, int32_t z_x)
{
    return _mm_add_epi16(_mm_set1_epi16((short)z),
                         _mm_mullo_epi16(_mm_setr_epi16(0, 1, 2, 3, 4, 5, 6, 7), _mm_set1_epi16((short)z_x)));
}

// The segments of fewer than 8 pixels at a span's end, and the last 8-pixel one, as their
// groups hold them: slot 0 the segment of 4, slot 1 the one of 2, slot 2 the last of 8.
constexpr int32_t RASTER_SLOT_4 = 0, RASTER_SLOT_2 = 1, RASTER_SLOT_8 = 2;
struct raster_final_segments {
    alignas(32) int32_t u[RASTER_LANES], u_step[RASTER_LANES];
    alignas(32) int32_t v[RASTER_LANES], v_step[RASTER_LANES];
    alignas(32) int32_t r2[RASTER_LANES];
    alignas(32) int32_t h_mask[RASTER_LANES], carry_mask[RASTER_LANES];
};

RASTER_INLINE void raster_final_take(raster_final_segments* f, int32_t slot, const raster_segment_group& g, uint32_t j)
{
    f->u[slot] = g.u[j], f->u_step[slot] = g.u_step[j];
    f->v[slot] = g.v[j], f->v_step[slot] = g.v_step[j];
    f->r2[slot] = g.r2[j];
    f->h_mask[slot] = g.h_mask[j], f->carry_mask[slot] = g.carry_mask[j];
}

// Lane i of a ramp picked per lane: base + offset step of the slot each lane names.
template <uint32_t F>
RASTER_VEC RASTER_INLINE __m256i raster_ramp_of_slots(const int32_t* ramps, const int32_t* steps, __m256i slot,
                                                       __m256i offset)
{
    const __m256i word = _mm256_permutevar8x32_epi32(raster_lanes(ramps), slot);
    if constexpr (F & RF_AFFINE) {
        return _mm256_add_epi32(word, _mm256_mullo_epi32(offset, _mm256_permutevar8x32_epi32(raster_lanes(steps), slot)));
    } else {
        (void)steps;  // the word holds the step low and the base high: (offset, 1) pairs make it
        return _mm256_madd_epi16(_mm256_or_si256(offset, _mm256_set1_epi32(0x10000)), word);
    }
}

// The last pixels of a span (at most 8) in one pass of lanes, from column x where the span's
// 8-pixel segments ended (a holds the attributes there): first the segment of 4 and the one
// of 2 when the span has them (n4, n2 pixels: `fin` holds their ramps), each pixel exactly as
// raster_segment_avx2 would draw it, then the tail as raster_tail draws it, each pixel with
// its own reciprocal and clamped coordinates. The large-spans variant lights the tail by
// carrying the last segment's squared-reciprocal ramp on; without any segment (fin null) the
// whole span is tail, lit through its own reciprocals. The AVX-512 set writes the lanes with
// masked stores, the AVX2 set one by one under the coverage and depth rules.
template <uint32_t F>
RASTER_VEC void raster_last_lanes(const raster_span_ctx& s, uint16_t* dst, const uint32_t* cov, uint16_t* zrow,
                                  int32_t x, int32_t count, const raster_attrs& a, const raster_final_segments* fin,
                                  int32_t n4, int32_t n2)
{
    if (count <= 0)
        return;
    // the coverage and depth tests first: pixels that all keep what is there need no texel
#if RASTER_VEC_512
    // masked stores of the lanes, as a segment writes its own
    __mmask8 write = (__mmask8)(0xFFu >> (8 - count));
    if constexpr (F & RF_COV_READ) {
        const int bits = raster_coverage_byte(cov, x, (uint32_t)count);
        const __m128i lane_bit = _mm_setr_epi16(0x80, 0x40, 0x20, 0x10, 8, 4, 2, 1);
        write &= (__mmask8)~_mm_test_epi16_mask(_mm_set1_epi16((short)bits), lane_bit);
    }
    if constexpr (F & RF_DEPTH) {
        const __m128i z = raster_depth_lanes(a.z, s.z_x);
        write &= _mm_cmpgt_epu16_mask(z, _mm_maskz_loadu_epi16(write, zrow + x));
        _mm_mask_storeu_epi16(zrow + x, write, z);
    }
    if (!write)
        return;
#else
    if constexpr (F & RF_DEPTH) {
        // (covered pixels are left to raster_put)
        bool nearer = false;
        uint32_t z = a.z;
        for (int32_t i = 0; i < count; i++, z += (uint32_t)s.z_x)
            nearer |= (uint16_t)z > zrow[x + i];
        if (!nearer)
            return;
    }
#endif
    const __m256i lane = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
    __m256i u, v, r2;
    raster_coords_lanes<F>(raster_lane_ramp(a.iw, s.iw_x), raster_lane_ramp(a.u, s.u_x), raster_lane_ramp(a.v, s.v_x),
                           &u, &v, &r2);
    u = _mm256_min_epi32(_mm256_max_epi32(u, _mm256_setzero_si256()), _mm256_set1_epi32(s.u_max));
    v = _mm256_min_epi32(_mm256_max_epi32(v, _mm256_setzero_si256()), _mm256_set1_epi32(s.v_max));
    __m256i seg_r2 = r2;
    if (fin) {
        // lanes below n4 + n2 are segment pixels: the segment's slot and the pixel's place in it
        const __m256i n4v = _mm256_set1_epi32(n4), segv = _mm256_set1_epi32(n4 + n2);
        const __m256i in_2 = _mm256_andnot_si256(_mm256_cmpgt_epi32(n4v, lane), _mm256_cmpgt_epi32(segv, lane));
        const __m256i in_seg = _mm256_cmpgt_epi32(segv, lane);
        const __m256i slot = _mm256_and_si256(in_2, _mm256_set1_epi32(RASTER_SLOT_2));
        const __m256i offset = _mm256_sub_epi32(lane, _mm256_and_si256(in_2, n4v));
        const __m256i S = raster_ramp_of_slots<F>(fin->u, fin->u_step, slot, offset);
        __m256i V = raster_ramp_of_slots<F>(fin->v, fin->v_step, slot, offset);
        const __m256i h = _mm256_permutevar8x32_epi32(raster_lanes(fin->h_mask), slot);
        const __m256i carry = _mm256_permutevar8x32_epi32(raster_lanes(fin->carry_mask), slot);
        V = _mm256_add_epi32(V, _mm256_and_si256(_mm256_srai_epi32(S, RASTER_U_WRAP_BITS), h));
        // past a segment's first pixel the first step's carry K (the mask is -K)
        V = _mm256_sub_epi32(V, _mm256_andnot_si256(_mm256_cmpeq_epi32(offset, _mm256_setzero_si256()), carry));
        u = _mm256_blendv_epi8(u, S, in_seg);
        v = _mm256_blendv_epi8(v, V, in_seg);
        if constexpr (F & RF_PHONG) {
            // segment pixels step the squared reciprocal along their segment; so do the tail's
            // with large spans, on the last segment's ramp (the others use their own)
            const int32_t last_slot = n2 ? RASTER_SLOT_2 : (n4 ? RASTER_SLOT_4 : RASTER_SLOT_8);
            const int32_t last_start = n2 ? n4 : (n4 ? 0 : -8);
            const __m256i tail_slot = _mm256_set1_epi32(last_slot);
            const __m256i ramp_slot = (F & RF_LARGE_SPANS) ? _mm256_blendv_epi8(tail_slot, slot, in_seg) : slot;
            const __m256i ramp_offset =
                (F & RF_LARGE_SPANS)
                    ? _mm256_blendv_epi8(_mm256_sub_epi32(lane, _mm256_set1_epi32(last_start)), offset, in_seg)
                    : offset;
            const __m256i ramp = raster_ramp_of_slots<F & ~RF_AFFINE>(fin->r2, nullptr, ramp_slot, ramp_offset);
            seg_r2 = (F & RF_LARGE_SPANS) ? ramp : _mm256_blendv_epi8(r2, ramp, in_seg);
        }
    }
    __m256i b = _mm256_setzero_si256();
    if constexpr (F & RF_PHONG) {
        // Q + i dQ + i (i - 1) / 2 Qxx, as stepping Q += dQ, dQ += Qxx i times
        const __m256i q = _mm256_add_epi32(raster_lane_ramp(a.q, (int32_t)a.dq), raster_lanes(s.lanes.pairs_qxx));
        if ((F & RF_LARGE_SPANS) && fin)
            b = raster_light_of_product(s, _mm256_mullo_epi32(q, seg_r2));
        else
            b = raster_light_of_index<F>(
                s, _mm256_srai_epi32(_mm256_mullo_epi32(_mm256_srai_epi32(q, N3D_PHONG_Q_SHIFT), seg_r2), N3D_PHONG_INDEX_SHIFT));
    }
#if RASTER_VEC_512
    raster_store_pixels<F>(s, u, v, b, dst + x, (uint32_t)count, write);
#else
    const __m128i pixels = raster_pixel_lanes<F>(s, u, v, b);
    alignas(16) uint16_t pixel[RASTER_LANES];
    _mm_store_si128((__m128i*)pixel, pixels);
    uint32_t z = a.z;
    for (int32_t i = 0; i < count; i++, z += (uint32_t)s.z_x)
        raster_put<F>(dst, cov, zrow, x + i, pixel[i], z);
#endif
}

// Whether a span draws nothing because every pixel of it fails the depth test (AVX-512: 32
// pixels a compare under a mask; AVX2: 16 or 8 a compare, the last ones overlapping).
template <uint32_t F>
RASTER_VEC RASTER_INLINE bool raster_span_behind(const raster_span_ctx& s, const raster_span_job& job)
{
#if RASTER_VEC_512
    const __m256i lane_bytes = _mm256_setr_epi8(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19,
                                                20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31);
    __m512i z = _mm512_add_epi16(_mm512_set1_epi16((short)job.a.z),
                                 _mm512_mullo_epi16(_mm512_cvtepu8_epi16(lane_bytes), _mm512_set1_epi16((short)s.z_x)));
    const __m512i step = _mm512_set1_epi16((short)((uint32_t)s.z_x << 5));
    for (int32_t x = job.xl; x < job.xr; x += 32) {
        const int32_t left = job.xr - x;
        const __mmask32 in = left >= 32 ? 0xFFFFFFFFu : (1u << left) - 1;
        if (_mm512_mask_cmpgt_epu16_mask(in, z, _mm512_maskz_loadu_epi16(in, job.zrow + x)))
            return false;
        z = _mm512_add_epi16(z, step);
    }
#else
    // 16 pixels a compare; the last 16 of a span of at least 16 overlap the ones before, and a
    // shorter span is compared 8 at a time the same way, or one at a time below 8
    const int32_t n = job.xr - job.xl;
    if (n >= 16) {
        const __m256i ramp = _mm256_mullo_epi16(
            _mm256_setr_epi16(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15), _mm256_set1_epi16((short)s.z_x));
        for (int32_t o = 0;; o += 16) {
            o = o + 16 > n ? n - 16 : o;
            const uint32_t z_o = job.a.z + (uint32_t)o * (uint32_t)s.z_x;
            const __m256i z = _mm256_add_epi16(_mm256_set1_epi16((short)z_o), ramp);
            // nearer (unsigned): the larger of the two is not the stored value
            const __m256i old = _mm256_loadu_si256((const __m256i*)(job.zrow + job.xl + o));
            if (_mm256_movemask_epi8(_mm256_cmpeq_epi16(_mm256_max_epu16(z, old), old)) != -1)
                return false;
            if (o + 16 == n)
                break;
        }
    } else if (n >= 8) {
        for (int32_t o = 0;; o = n - 8) {
            const __m128i z = raster_depth_lanes(job.a.z + (uint32_t)o * (uint32_t)s.z_x, s.z_x);
            const __m128i old = _mm_loadu_si128((const __m128i*)(job.zrow + job.xl + o));
            if (_mm_movemask_epi8(_mm_cmpeq_epi16(_mm_max_epu16(z, old), old)) != 0xFFFF)
                return false;
            if (o == n - 8)
                break;
        }
    } else {
        uint32_t z = job.a.z;
        for (int32_t x = job.xl; x < job.xr; x++) {
            if ((uint16_t)z > job.zrow[x])
                return false;
            z += (uint32_t)s.z_x;
        }
    }
#endif
    return true;
}

// Whether a span draws nothing: wholly covered, or wholly behind what is drawn. Its plan and
// its look-ups are then skipped; the row loop still writes its coverage.
template <uint32_t F>
RASTER_VEC RASTER_INLINE bool raster_span_hidden(const raster_span_ctx& s, const raster_span_job& job)
{
    if constexpr (F & RF_COV_READ) {
        if (raster_coverage_full(job.cov, job.xl, job.xr))
            return true;
    }
    if constexpr (F & RF_DEPTH)
        return raster_span_behind<F>(s, job);
    (void)s;
    return false;
}

// Q, dQ and depth at a span's first 8 pixels, from the attributes a at its first. (Made when
// the span is drawn, not when it is planned: then they stay in registers, which measured faster.)
template <uint32_t F>
RASTER_VEC RASTER_INLINE raster_span_lanes raster_first_lanes(const raster_span_ctx& s, const raster_attrs& a)
{
    const __m256i lane = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
    raster_span_lanes l;
    l.q = _mm256_setzero_si256();
    l.dq = _mm256_setzero_si256();
    if constexpr (F & RF_PHONG) {
        // Q + i dQ + i (i - 1) / 2 Qxx, and dQ + i Qxx
        l.q = _mm256_add_epi32(
            _mm256_add_epi32(_mm256_set1_epi32((int)a.q), _mm256_mullo_epi32(lane, _mm256_set1_epi32((int)a.dq))),
            raster_lanes(s.lanes.pairs_qxx));
        l.dq = _mm256_add_epi32(_mm256_set1_epi32((int)a.dq), raster_lanes(s.lanes.lane_qxx));
    }
    l.z = _mm_setzero_si128();
    if constexpr (F & RF_DEPTH)
        l.z = raster_depth_lanes(a.z, s.z_x);
    return l;
}

// The vector kernel's preparation of a span: its first group of segments.
template <uint32_t F>
RASTER_VEC RASTER_INLINE void raster_plan_avx2(const raster_span_ctx& s, const raster_span_job& job,
                                               raster_span_plan* plan)
{
    if (job.xr - job.xl - 1 < 4)
        return;  // no segment: the whole span is tail
    const raster_segment_counts n = raster_segments_of(job);
    const raster_attrs& a = job.a;
    int32_t u0, v0, r;
    raster_texel_coords<F>(a.iw, a.u, a.v, &u0, &v0, &r);
    plan->ends.u = _mm256_set1_epi32(u0);
    plan->ends.v = _mm256_set1_epi32(v0);
    plan->ends.r2 = _mm256_set1_epi32((F & RF_PHONG) ? raster_rsqr(r) : 0);
    raster_segment_group_avx2<F>(s, a, 0, n.count8, n.partial, &plan->ends, &plan->grp);
}

// The AVX-512 set's span is inlined into the row walk; the AVX2 set's stays a call of its own:
// with 16 vector registers, the walk's values around its segment loop cost more in spills
// than the call (13 % slower measured).
#if RASTER_VEC_512
#define RASTER_SPAN_LINKAGE
#else
#define RASTER_SPAN_LINKAGE __attribute__((noinline))
#endif

// The vector form of raster_span_portable: the same segments and the same tail, the 8-pixel
// segments drawn by raster_segment_avx2, the shorter ones and the tail by raster_last_lanes.
template <uint32_t F>
RASTER_VEC RASTER_SPAN_LINKAGE void raster_span_avx2(const raster_span_ctx& s, const raster_span_job& job,
                                                     const raster_span_job* next, raster_span_plans* plans)
{
    int32_t current = plans->ready;
    const bool hidden = current == RASTER_SPAN_HIDDEN || (current < 0 && raster_span_hidden<F>(s, job));
    if (current < 0) {
        current = 0;
        if (!hidden)
            raster_plan_avx2<F>(s, job, &plans->plan[0]);
    }
    plans->ready = -1;
    if (next) {
        if (raster_span_hidden<F>(s, *next)) {
            plans->ready = RASTER_SPAN_HIDDEN;
        } else {
            raster_plan_avx2<F>(s, *next, &plans->plan[current ^ 1]);
            plans->ready = current ^ 1;
        }
    }
    if (hidden)
        return;

    uint16_t* dst = job.dst;
    const uint32_t* cov = job.cov;
    uint16_t* zrow = job.zrow;
    const int32_t m = job.xr - job.xl - 1;
    if (m < 4) {
        raster_last_lanes<F>(s, dst, cov, zrow, job.xl, m + 1, job.a, nullptr, 0, 0);
        return;
    }
    const raster_segment_counts n = raster_segments_of(job);
    raster_span_plan& plan = plans->plan[current];
    raster_span_lanes l = raster_first_lanes<F>(s, job.a);
    // groups after the first are computed one ahead of the one drawn, for the same reason
    raster_segment_group spare[2];
    const raster_segment_group* grp = &plan.grp;
    raster_final_segments fin;
    const int32_t n4 = m & 4, n2 = m & 2;
    int32_t x = job.xl;
    for (int32_t first = 0; first < n.count; first += RASTER_LANES) {
        const raster_segment_group* following = nullptr;
        if (first + (int32_t)RASTER_LANES < n.count) {
            raster_segment_group* g = &spare[(first / RASTER_LANES) & 1];
            raster_segment_group_avx2<F>(s, job.a, first + RASTER_LANES, n.count8, n.partial, &plan.ends, g);
            following = g;
        }
        // the group's 8-pixel segments; the one of 4 and the one of 2 are drawn with the tail
        const int32_t full = n.count8 - first < (int32_t)RASTER_LANES ? n.count8 - first : (int32_t)RASTER_LANES;
        for (int32_t k = 0; k < full; k++, x += 8)
            raster_segment_avx2<F>(s, *grp, (uint32_t)k, &l, dst, cov, zrow, x);
        if (full > 0)
            raster_final_take(&fin, RASTER_SLOT_8, *grp, (uint32_t)(full - 1));
        const uint32_t lane4 = (uint32_t)(n.count8 - first), lane2 = lane4 + (n4 ? 1 : 0);
        if (n4 && lane4 < RASTER_LANES)
            raster_final_take(&fin, RASTER_SLOT_4, *grp, lane4);
        if (n2 && lane2 < RASTER_LANES)
            raster_final_take(&fin, RASTER_SLOT_2, *grp, lane2);
        grp = following;
    }

    // the segments of 4 and 2 and the tail start where the 8-pixel segments ended
    raster_attrs a = job.a;
    const uint32_t done = (uint32_t)(x - job.xl);
    a.iw += done * (uint32_t)s.iw_x, a.u += done * (uint32_t)s.u_x, a.v += done * (uint32_t)s.v_x;
    a.z += done * (uint32_t)s.z_x;
    if constexpr (F & RF_PHONG) {
        const uint32_t qxx = (uint32_t)s.qxx;
        a.q += done * a.dq + qxx * (done * (done - 1) / 2);
        a.dq += done * qxx;
    }
    raster_last_lanes<F>(s, dst, cov, zrow, x, m + 1 - (int32_t)done, a, &fin, n4, n2);
}

// A triangle half's rows.
template <uint32_t F>
RASTER_VEC uint32_t raster_rows_avx2(raster_rows* w)
{
    return raster_walk_rows<F, raster_span_avx2<F>>(w);
}
#undef RASTER_SPAN_LINKAGE
#endif  // RASTER_VEC
#elif !defined(RASTER_VEC)
struct raster_span_plans {
    int32_t ready;
};
#endif
