// The renderer's frame records and start-up: creation of framebuffers, coverage and depth
// buffers and the frame contexts that bundle them; the full, uncovered and only-dirty clears;
// the coverage debug view; and n3d_init with the reciprocal tables the rasterizers read.
#include "n3d.h"

#include <cstddef>
#include <cstdio>
#include <cstring>

#include "diag.h"
#include "n3d_draw.h"

xmemarena* n3d_batch_arena;
float n3d_reciprocal_table[N3D_RECIPROCAL_LUT_SIZE];
int32_t n3d_fixed_iiw_lut[N3D_FIXED_IIW_LUT_SIZE];

constexpr uint16_t N3D_ARGB1555_CLEAR = 0x8000;  // opaque black: alpha set, colour 0
constexpr uint16_t N3D_INDEX8_CLEAR = 0;
constexpr uint64_t N3D_BUFFER_ALIGN = 32;  // one 16-value depth block is one aligned 32-byte store
constexpr uint32_t N3D_COVERAGE_WORD_BITS = 32;
constexpr uint32_t N3D_COVERAGE_LEFTMOST = 0x80000000u;  // the most significant bit is the leftmost pixel
constexpr uint32_t N3D_ZBUFFER_BLOCK_VALUES = 16;
// the span table's unit: entry i holds 1 / (16 i); spans index it with iw >> 14
constexpr int64_t N3D_FIXED_IIW_LUT_DIVISOR = 16;

// ---- debug view colours ----
constexpr uint16_t N3D_DISPLAY_UNCOVERED_ARGB1555 = 0x801F;  // opaque pure blue
constexpr uint16_t N3D_DISPLAY_COVERED_ARGB1555 = 0xFC00;    // opaque full red, green and blue added below
constexpr float N3D_DISPLAY_DIM = 0.8f;
constexpr uint8_t N3D_DISPLAY_UNCOVERED_INDEX8 = 0;
constexpr uint8_t N3D_DISPLAY_COVERED_INDEX8 = 255;

static void* n3d_push_record(xmemarena* arena, uint64_t size)
{
    void* p = xmemarena_push_align(arena, size, alignof(std::max_align_t));
    memset(p, 0, size);
    return p;
}

static uint32_t n3d_round_up(uint32_t value, uint32_t multiple)
{
    return (value + multiple - 1) / multiple * multiple;
}

static uint32_t n3d_min(uint32_t a, uint32_t b) { return a < b ? a : b; }

static uint64_t n3d_coverage_bytes(const n3d_coverage_buffer* cb)
{
    return (uint64_t)(cb->width / N3D_COVERAGE_WORD_BITS) * cb->height * sizeof(uint32_t);
}

// ---- start-up ----

static void n3d_fill_reciprocal_tables()
{
    n3d_reciprocal_table[0] = 1.0f;  // stands in for 1/0 so that a look-up near 0 stays finite
    for (uint32_t i = 1; i < N3D_RECIPROCAL_LUT_SIZE; ++i)
        n3d_reciprocal_table[i] = 1.0f / (float)i;

    const int64_t one = (1 << N3D_FIXPT_IIW_LUT_F) - 1;  // 1.0 as a 16-bit fraction, saturated
    n3d_fixed_iiw_lut[0] = (int32_t)one;
    for (int32_t i = 1; i < N3D_FIXED_IIW_LUT_SIZE; ++i) {
        // 1/x falls with x: from the scale-2 index on the entries have that many leading zeros
        // to spare, so they keep that many more fraction bits
        const int32_t extra = i < N3D_FIXPT_IIW_LUT_F_SCALE2_INDEX ? 0 : N3D_FIXPT_IIW_LUT_F_SCALE2_BITS;
        const int64_t numerator = one << extra;
        const int64_t denominator = N3D_FIXED_IIW_LUT_DIVISOR * i;
        n3d_fixed_iiw_lut[i] = (int32_t)((2 * numerator + denominator) / (2 * denominator));  // rounded, halves up
    }
}

void n3d_init(xmemarena* arena)
{
    n3d_batch_arena = (xmemarena*)n3d_push_record(arena, sizeof(xmemarena));
    void* batch = xmemarena_push_align(arena, N3D_BATCH_ARENA_SIZE, N3D_BUFFER_ALIGN);
    xmemarena_init(n3d_batch_arena, "batch_arena", N3D_BATCH_ARENA_SIZE, batch);

    n3d_register_rasterizers();

    prof_global.names[BLOCK_RENDER_MESH] = "BLOCK_RENDER_MESH";
    prof_global.names[BLOCK_RENDER_MESH_TRANSFORM_VERTICES] = "BLOCK_RENDER_MESH_TRANSFORM_VERTICES";

    n3d_fill_reciprocal_tables();
}

// ---- creation ----

static void n3d_framebuffer_init_format(n3d_framebuffer* fb, uint32_t width, uint32_t height, xmemarena* arena,
                                        N3D_TEXEL_FORMAT format, uint32_t bytes_per_pixel)
{
    memset(fb, 0, sizeof(*fb));
    fb->format = format;
    fb->width = (int32_t)width;
    fb->height = (int32_t)height;
    fb->row_bytes = (int32_t)(width * bytes_per_pixel);
    // aligned so that the clears' 8-byte stores never straddle a cache line
    fb->pixels = (uint8_t*)xmemarena_push_align(arena, (uint64_t)width * height * bytes_per_pixel, N3D_BUFFER_ALIGN);
}

void n3d_framebuffer_init_argb1555(n3d_framebuffer* fb, uint32_t width, uint32_t height, xmemarena* arena)
{
    n3d_framebuffer_init_format(fb, width, height, arena, N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, 2);
}

void n3d_framebuffer_init_index8(n3d_framebuffer* fb, uint32_t width, uint32_t height, xmemarena* arena)
{
    n3d_framebuffer_init_format(fb, width, height, arena, N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8, 1);
}

void n3d_coverage_buffer_init(n3d_coverage_buffer* cb, uint32_t width, uint32_t height, xmemarena* arena)
{
    memset(cb, 0, sizeof(*cb));
    cb->width = width;
    cb->height = height;
    if (width % N3D_COVERAGE_WORD_BITS != 0)
        crash_in("src/n3d", __LINE__, "n3d_coverage_buffer_init",
                 "coverage buffer only supports width evenly divisable by 32 (was %d)\n", (int)width);
    const uint64_t bytes = n3d_coverage_bytes(cb);
    cb->bits = (uint32_t*)xmemarena_push_align(arena, bytes, N3D_BUFFER_ALIGN);
    if (cb->bits)
        memset(cb->bits, 0, bytes);
}

void n3d_coverage_buffer_clear(n3d_coverage_buffer* cb)
{
    prof_block_begin(BLOCK_CLEAR_COVERAGE);
    if (cb->bits)
        memset(cb->bits, 0, n3d_coverage_bytes(cb));
    prof_block_end(BLOCK_CLEAR_COVERAGE, "src/n3d", __LINE__);
}

void n3d_zbuffer_init(n3d_zbuffer* zb, uint32_t width, uint32_t height, xmemarena* arena)
{
    memset(zb, 0, sizeof(*zb));
    zb->width = width;
    zb->height = height;
    // Widths that are not a multiple of 16: a rasterizer finds a value's block by rounding its
    // address down to a multiple of 32, so the size is padded to whole blocks (the last block
    // never reaches past the buffer), and a row's partial last block gets a bit of its own
    // (16 rounded up rather than down). For multiples of 16 both give exactly width x height x 2
    // bytes and width / 16 blocks.
    zb->values = (uint16_t*)xmemarena_push_align_size(arena, (uint64_t)width * height * sizeof(uint16_t),
                                                      N3D_BUFFER_ALIGN);
    const uint32_t blocks_per_row = (width + N3D_ZBUFFER_BLOCK_VALUES - 1) / N3D_ZBUFFER_BLOCK_VALUES;
    n3d_coverage_buffer_init(&zb->blocks, n3d_round_up(blocks_per_row, N3D_COVERAGE_WORD_BITS), height, arena);
}

void n3d_zbuffer_clear(n3d_zbuffer* zb) { n3d_coverage_buffer_clear(&zb->blocks); }

void n3d_framecontext_init(n3d_framecontext* fc, xmemarena* arena, uint32_t width, uint32_t height,
                           N3D_TEXEL_FORMAT format, uint32_t flags)
{
    memset(fc, 0, sizeof(*fc));
    if (flags & N3D_FRAMECONTEXT_ZBUFFER) {
        fc->zbuffer = (n3d_zbuffer*)n3d_push_record(arena, sizeof(n3d_zbuffer));
        n3d_zbuffer_init(fc->zbuffer, width, height, arena);
        n3d_zbuffer_clear(fc->zbuffer);
    }
    if (flags & N3D_FRAMECONTEXT_COVERAGE) {
        for (n3d_coverage_buffer*& cb : fc->coverage) {
            cb = (n3d_coverage_buffer*)n3d_push_record(arena, sizeof(n3d_coverage_buffer));
            n3d_coverage_buffer_init(cb, width, height, arena);
        }
        for (n3d_coverage_buffer* cb : fc->coverage)
            n3d_coverage_buffer_clear(cb);
    }
    // Format 0 leaves the record empty for the caller, who may fill it in or point
    // fc->framebuffer at a record of its own (the show points it at the display planes).
    fc->framebuffer = (n3d_framebuffer*)n3d_push_record(arena, sizeof(n3d_framebuffer));
    switch (format) {
    case N3D_TEXEL_FORMAT_NONE:
        break;
    case N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555:
        n3d_framebuffer_init_argb1555(fc->framebuffer, width, height, arena);
        n3d_framebuffer_clear(fc->framebuffer);
        break;
    case N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8:
        n3d_framebuffer_init_index8(fc->framebuffer, width, height, arena);
        n3d_framebuffer_clear(fc->framebuffer);
        break;
    default:
        crash_in("src/n3d", __LINE__, "n3d_framecontext_init",
                 "init framecontext with bad format %d? or not yet implemented?", (int)format);
    }
}

// ---- clears ----

// `count` pixels from p: 8-bit pixels through memset, 16-bit ones sixteen to a 32-byte store.
static void n3d_fill_pixels(uint8_t* p, uint32_t count, uint32_t bytes_per_pixel, uint16_t value)
{
    if (bytes_per_pixel == 1) {
        memset(p, (uint8_t)value, count);
        return;
    }
    const uint64_t four = value * 0x0001000100010001ull;
    const uint64_t sixteen[4] = {four, four, four, four};
    uint8_t* const end = p + (size_t)count * 2;
    // memcpy: rows of a display plane need not start on an 8-byte boundary
    for (; end - p >= (ptrdiff_t)sizeof(sixteen); p += sizeof(sixteen))
        memcpy(p, sixteen, sizeof(sixteen));
    for (; end - p >= (ptrdiff_t)sizeof(four); p += sizeof(four))
        memcpy(p, &four, sizeof(four));
    for (; p < end; p += sizeof(value))
        memcpy(p, &value, sizeof(value));
}

// The pixels of one 32-pixel group whose bits are set, a run of adjacent bits at a time so that
// long runs get wide stores.
static void n3d_fill_runs(uint8_t* group, uint32_t bits, uint32_t bytes_per_pixel, uint16_t value)
{
    while (bits != 0) {
        const uint32_t first = u32_clz(bits);
        const uint32_t length = u32_clz_or_32(~(bits << first));  // ones from the run's start
        n3d_fill_pixels(group + first * bytes_per_pixel, length, bytes_per_pixel, value);
        const uint32_t end = first + length;
        bits &= end >= N3D_COVERAGE_WORD_BITS ? 0u : 0xFFFFFFFFu >> end;
    }
}

// The bits of coverage word `word` that stand for pixels inside a row of `width` pixels.
static uint32_t n3d_row_word_mask(uint32_t word, uint32_t width)
{
    const uint32_t first = word * N3D_COVERAGE_WORD_BITS;
    if (first + N3D_COVERAGE_WORD_BITS <= width)
        return 0xFFFFFFFFu;
    return ~(0xFFFFFFFFu >> (width - first));
}

// Clears the pixels whose bit in `current` is 0 (and, for OnlyDirty, whose bit in `previous` is
// 1), one coverage word of 32 pixels at a time; a word with nothing to clear costs one test.
// Only the area that the framebuffer and the coverage buffers share is visited.
template <bool OnlyDirty>
static void n3d_clear_by_coverage(n3d_framebuffer* fb, uint32_t bytes_per_pixel, uint16_t value,
                                  const n3d_coverage_buffer* current, const n3d_coverage_buffer* previous)
{
    uint32_t width = n3d_min((uint32_t)fb->width, current->width);
    uint32_t height = n3d_min((uint32_t)fb->height, current->height);
    if constexpr (OnlyDirty) {
        width = n3d_min(width, previous->width);
        height = n3d_min(height, previous->height);
    }
    const uint32_t current_stride = current->width / N3D_COVERAGE_WORD_BITS;
    const uint32_t previous_stride = OnlyDirty ? previous->width / N3D_COVERAGE_WORD_BITS : 0;
    const uint32_t full_words = width / N3D_COVERAGE_WORD_BITS;
    const uint32_t words = (width + N3D_COVERAGE_WORD_BITS - 1) / N3D_COVERAGE_WORD_BITS;
    const uint32_t group_bytes = N3D_COVERAGE_WORD_BITS * bytes_per_pixel;
    for (uint32_t y = 0; y < height; ++y) {
        uint8_t* row = fb->pixels + (int64_t)y * fb->row_bytes;
        const uint32_t* now = current->bits + (uint64_t)y * current_stride;
        const uint32_t* before = OnlyDirty ? previous->bits + (uint64_t)y * previous_stride : nullptr;
        for (uint32_t w = 0; w < words; ++w) {
            uint32_t bits = ~now[w];
            if constexpr (OnlyDirty)
                bits &= before[w];
            if (w >= full_words)
                bits &= n3d_row_word_mask(w, width);  // the row ends inside this word
            if (bits != 0)
                n3d_fill_runs(row + w * group_bytes, bits, bytes_per_pixel, value);
        }
    }
}

void n3d_framebuffer_clear(n3d_framebuffer* fb)
{
    prof_block_begin(BLOCK_CLEAR_FRAMEBUFFER);
    uint32_t bytes_per_pixel = 1;
    uint16_t value = N3D_INDEX8_CLEAR;
    switch (fb->format) {
    case N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555:
        bytes_per_pixel = 2;
        value = N3D_ARGB1555_CLEAR;
        break;
    case N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555:
    case N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8:
        break;
    default:
        crash_in("src/n3d", __LINE__, "n3d_framebuffer_clear", "not implemented\n");
    }
    const uint32_t width = (uint32_t)fb->width;
    const uint32_t height = (uint32_t)fb->height;
    if ((uint64_t)fb->row_bytes == (uint64_t)width * bytes_per_pixel) {
        n3d_fill_pixels(fb->pixels, width * height, bytes_per_pixel, value);  // no gap: one run
    } else {
        // wider rows (the video plane's 1024 bytes) keep their tail
        for (uint32_t y = 0; y < height; ++y)
            n3d_fill_pixels(fb->pixels + (int64_t)y * fb->row_bytes, width, bytes_per_pixel, value);
    }
    prof_block_end(BLOCK_CLEAR_FRAMEBUFFER, "src/n3d", __LINE__);
}

void n3d_framebuffer_clear_uncovered(n3d_framebuffer* fb, const n3d_coverage_buffer* cb)
{
    prof_block_begin(BLOCK_CLEAR_FRAMEBUFFER);
    switch (fb->format) {
    case N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555:
        n3d_clear_by_coverage<false>(fb, 2, N3D_ARGB1555_CLEAR, cb, nullptr);
        break;
    case N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555:
        n3d_clear_by_coverage<false>(fb, 1, N3D_INDEX8_CLEAR, cb, nullptr);
        break;
    default:
        crash_in("src/n3d", __LINE__, "n3d_framebuffer_clear_uncovered", "not implemented\n");
    }
    prof_block_end(BLOCK_CLEAR_FRAMEBUFFER, "src/n3d", __LINE__);
}

void n3d_framebuffer_clear_only_dirty(n3d_framebuffer* fb, const n3d_coverage_buffer* cb_current,
                                      const n3d_coverage_buffer* cb_previous)
{
    prof_block_begin(BLOCK_CLEAR_FRAMEBUFFER_ONLY_DIRTY);
    switch (fb->format) {
    case N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555:
        n3d_clear_by_coverage<true>(fb, 2, N3D_ARGB1555_CLEAR, cb_current, cb_previous);
        break;
    case N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555:
    case N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8:
        n3d_clear_by_coverage<true>(fb, 1, N3D_INDEX8_CLEAR, cb_current, cb_previous);
        break;
    default:
        crash_in("src/n3d", __LINE__, "n3d_framebuffer_clear_only_dirty", "not implemented for format %d\n",
                 (int)fb->format);
    }
    prof_block_end(BLOCK_CLEAR_FRAMEBUFFER_ONLY_DIRTY, "src/n3d", __LINE__);
}

// ---- frames ----

void n3d_framecontext_begin_frame(n3d_framecontext* fc, uint32_t flags)
{
    n3d_coverage_buffer* previous = fc->coverage[0];
    fc->coverage[0] = fc->coverage[1];
    fc->coverage[1] = previous;
    // a context made without coverage has nothing to clear
    if (!(flags & N3D_FRAMECONTEXT_KEEP_COVERAGE) && fc->coverage[0])
        n3d_coverage_buffer_clear(fc->coverage[0]);
    fc->flags = flags;
}

void n3d_framecontext_clear_dirty(n3d_framecontext* fc)
{
    if (!(fc->flags & N3D_FRAMECONTEXT_KEEP_COVERAGE))
        n3d_framebuffer_clear_only_dirty(fc->framebuffer, fc->coverage[0], fc->coverage[1]);
}

// ---- debug view and checks ----

void n3d_coverage_buffer_display(const n3d_coverage_buffer* cb, n3d_framebuffer* fb)
{
    const uint32_t bytes_per_pixel =
        n3d_bytes_per_texel(fb->format, "src/n3d", __LINE__, "n3d_coverage_buffer_display");
    // positions of the coverage buffer outside the framebuffer are skipped
    const uint32_t width = n3d_min(cb->width, (uint32_t)fb->width);
    const uint32_t height = n3d_min(cb->height, (uint32_t)fb->height);
    const uint32_t stride = cb->width / N3D_COVERAGE_WORD_BITS;
    for (uint32_t y = 0; y < height; ++y) {
        uint8_t* row = fb->pixels + (int64_t)y * fb->row_bytes;
        const uint32_t* bits = cb->bits + (uint64_t)y * stride;
        for (uint32_t x = 0; x < width; ++x) {
            const uint32_t mask = N3D_COVERAGE_LEFTMOST >> (x % N3D_COVERAGE_WORD_BITS);
            const bool covered = (bits[x / N3D_COVERAGE_WORD_BITS] & mask) != 0;
            uint8_t* p = row + x * bytes_per_pixel;
            if (fb->format == N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555) {
                uint16_t old;
                memcpy(&old, p, sizeof(old));
                const float green = (float)((old >> 5) & 31) / 31.0f;
                const float blue = (float)(old & 31) / 31.0f;
                uint16_t shown = N3D_DISPLAY_UNCOVERED_ARGB1555;
                if (covered) {
                    // single precision: truncation then gives exactly channel x 0.8 rounded down
                    // (a double 0.8 would lose one on every multiple of 5)
                    const uint32_t g = (uint32_t)(31.0f * green * N3D_DISPLAY_DIM);
                    const uint32_t b = (uint32_t)(31.0f * blue * N3D_DISPLAY_DIM);
                    shown = (uint16_t)(N3D_DISPLAY_COVERED_ARGB1555 | (g << 5) | b);
                }
                memcpy(p, &shown, sizeof(shown));
            } else {
                *p = covered ? N3D_DISPLAY_COVERED_INDEX8 : N3D_DISPLAY_UNCOVERED_INDEX8;
            }
        }
    }
}

uint32_t n3d_framebuffer_check_dims(const n3d_framebuffer* fb)
{
    // only the formats the rasterizers draw into
    if (fb->format != N3D_TEXEL_FORMAT_INDEX8_DISPLAY_ARGB1555 &&
        fb->format != N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555)
        return 1;
    if (fb->width > N3D_MAX_FRAME_DIM) {
        printf("frame w must be < N3D_MAX_FRAME_DIM, frame w is %d max is %d\n", fb->width, N3D_MAX_FRAME_DIM);
        return 1;
    }
    return 0;
}

void n3d_framebuffer_wrap(n3d_framebuffer* fb, N3D_TEXEL_FORMAT format, uint32_t width, uint32_t height,
                          uint32_t row_bytes, uint8_t* pixels)
{
    memset(fb, 0, sizeof(*fb));
    fb->format = format;
    fb->width = (int32_t)width;
    fb->height = (int32_t)height;
    fb->row_bytes = (int32_t)row_bytes;
    fb->pixels = pixels;
}
