// Starfield state, respawning and drawing. A frame first projects every star, four at a time
// and without branches, then walks the results in star order to respawn, hide and sort them
// into their levels' lists; the lists live in a node pool and pair buffer sized once for the
// worst case and reset by counters, so drawing allocates nothing.
#include "reel_starfield.h"

#include <bit>
#include <cmath>
#include <cstring>
#include <numbers>

static const char* const REEL_STARFIELD_FILE = "src/reel_starfield";

constexpr float REEL_STARFIELD_SCALE = 2.0f;
constexpr float REEL_STARFIELD_NEAR = 0.1f;
constexpr float REEL_STARFIELD_FOV_Y = 1.5707964f;  // pi / 2
constexpr float REEL_STARFIELD_CUBE_ROOT = 0.33333334f;
// brightness falls from 1 at a tenth of the depth range to 0 at its far end, to the fifth power
constexpr float REEL_STARFIELD_FADE_START = 0.1f;
constexpr float REEL_STARFIELD_FADE_RANGE = 0.9f;
constexpr int32_t REEL_STARFIELD_BRIGHT_BITS = 15;  // level16 is 0 to 32767
constexpr float REEL_STARFIELD_BRIGHT_ONE = 32767.0f;
constexpr uint32_t REEL_STARFIELD_THRESHOLD_SHIFT = 7;  // level16 >> 7 meets the image's 8-bit texels

void reel_starfield_init_i8(reel_starfield* sf, uint32_t log2_star_count, reel_star* stars, uint32_t respawn,
                            int32_t width, int32_t height, const reel_palette* palette, int32_t first_level_index,
                            int32_t last_level_index, xmemarena* arena)
{
    const int64_t levels = (int64_t)last_level_index - first_level_index + 1;
    // a count of 0 or below, or beyond what the 15-bit brightness can tell apart, is refused
    // with the same message as any other count that is not a power of two
    if (levels <= 0 || (levels & (levels - 1)) != 0 || levels > (1 << REEL_STARFIELD_MAX_LOG2_LEVELS) ||
        first_level_index < 0)
        crash_in(REEL_STARFIELD_FILE, __LINE__, "reel_starfield_init_i8",
                 "stars brightess levels must be a log2 number of entries but has %d levels\n", (int)levels);
    reel_starfield_init(sf, log2_star_count, stars, respawn, width, height, palette, (uint32_t)first_level_index,
                        (uint32_t)last_level_index, (uint32_t)std::countr_zero((uint64_t)levels), arena);
}

void reel_starfield_init(reel_starfield* sf, uint32_t log2_star_count, reel_star* stars, uint32_t respawn,
                         int32_t width, int32_t height, const reel_palette* palette, uint32_t first_level_index,
                         uint32_t last_level_index, uint32_t log2_levels, xmemarena* arena)
{
    memset(sf, 0, sizeof(*sf));
    sf->random = {REEL_STARFIELD_SEED_STATE, REEL_STARFIELD_SEED_INCREMENT};
    sf->respawn = respawn;
    sf->log2_star_count = log2_star_count;
    sf->stars = stars;
    sf->log2_levels = log2_levels;
    const uint32_t n = 1u << log2_star_count, levels = 1u << log2_levels;
    sf->pair_buffer = (reel_star_pair*)xmemarena_push_align(
        arena, (uint64_t)REEL_STARFIELD_PAIRS_PER_NODE * n * sizeof(reel_star_pair), 16);
    const uint32_t nodes = (n > levels ? n - levels : 0) / REEL_STARFIELD_PAIRS_PER_NODE + levels;
    sf->node_pool = (reel_star_node*)xmemarena_push_align(arena, (uint64_t)nodes * sizeof(reel_star_node), 16);
    sf->level_heads = (reel_star_node**)xmemarena_push_align(arena, levels * sizeof(reel_star_node*), 16);
    sf->level_tails = (reel_star_node**)xmemarena_push_align(arena, levels * sizeof(reel_star_node*), 16);
    sf->projected = (uint32_t*)xmemarena_push_align(arena, (uint64_t)n * sizeof(uint32_t), 32);
    sf->level16 = (uint16_t*)xmemarena_push_align(arena, (uint64_t)n * sizeof(uint16_t), 32);
    sf->scale = REEL_STARFIELD_SCALE;
    sf->near_plane = REEL_STARFIELD_NEAR;
    sf->far_plane = 3.0f * REEL_STARFIELD_SCALE;
    sf->fov_y = REEL_STARFIELD_FOV_Y;
    sf->aspect = (float)width / (float)height;
    sf->fov_x = 2.0f * atanf(sf->aspect * tanf(sf->fov_y / 2.0f));
    sf->focal_length = (float)((double)height / (2.0 * tan((double)sf->fov_y / 2.0)));
    sf->half_extent_x = tanf(sf->fov_x / 2.0f);
    sf->half_extent_y = tanf(sf->fov_y / 2.0f);
    sf->first_level_index = first_level_index;
    sf->last_level_index = last_level_index;
    sf->palette = palette;
}

void reel_starfield_reset_star(reel_starfield* sf, uint32_t i)
{
    const float u1 = pcg32_random_float01(&sf->random);
    const float u2 = pcg32_random_float01(&sf->random);
    const float u3 = pcg32_random_float01(&sf->random);
    const float n3 = sf->near_plane * sf->near_plane * sf->near_plane;
    const float f3 = sf->far_plane * sf->far_plane * sf->far_plane;
    // uniform in volume, not in depth: the far shells hold more stars
    const float r = powf(u1 * (f3 - n3) + n3, REEL_STARFIELD_CUBE_ROOT);
    const float xv = (2.0f * u2 - 1.0f) * r * sf->half_extent_x;
    const float yv = (2.0f * u3 - 1.0f) * r * sf->half_extent_y;
    const float cy = cosf(sf->yaw), sy = sinf(sf->yaw), cp = cosf(sf->pitch), sp = sinf(sf->pitch);
    const float z2 = -yv * sp + r * cp;
    reel_star* s = &sf->stars[i];
    s->x = sf->camera[0] + (xv * cy - z2 * sy);
    s->y = sf->camera[1] + (yv * cp + r * sp);
    s->z = sf->camera[2] + (xv * sy + z2 * cy);
}

void reel_starfield_reset_all(reel_starfield* sf)
{
    const uint32_t n = 1u << sf->log2_star_count;
    for (uint32_t i = 0; i < n; i++)
        reel_starfield_reset_star(sf, i);
}

static inline void reel_starfield_append(reel_starfield* sf, uint32_t k, uint16_t px, uint16_t py)
{
    reel_star_node* tail = sf->level_tails[k];
    if (!tail || tail->pair_count == REEL_STARFIELD_PAIRS_PER_NODE) {
        reel_star_node* node = &sf->node_pool[sf->nodes_used++];
        node->pair_count = 0;
        node->pairs = &sf->pair_buffer[sf->pairs_used];
        node->next = nullptr;
        sf->pairs_used += REEL_STARFIELD_PAIRS_PER_NODE;
        if (tail)
            tail->next = node;
        else
            sf->level_heads[k] = node;
        sf->level_tails[k] = node;
        tail = node;
    }
    tail->pairs[tail->pair_count++] = {px, py};
}

// Four lanes of floats and of 32-bit integers: the projection runs on four stars at a time.
typedef float reel_starfield_v4f __attribute__((vector_size(16)));
typedef int32_t reel_starfield_v4i __attribute__((vector_size(16)));
typedef uint32_t reel_starfield_v4u __attribute__((vector_size(16)));

// roundf (halves away from zero) of lanes in (-0.5, 2^23), without a call into the maths
// library: the fraction left after truncating is exact in float.
static inline reel_starfield_v4i reel_starfield_round4(reel_starfield_v4f v)
{
    const reel_starfield_v4i i = __builtin_convertvector(v, reel_starfield_v4i);
    const reel_starfield_v4f fraction = v - __builtin_convertvector(i, reel_starfield_v4f);
    return i - (fraction >= 0.5f);  // a true comparison is -1 in every bit
}

// Transforms and projects every star, four at a time and with no branches, into its pixel (or
// culled) and its brightness. Lanes outside the view or the frame are masked to 0 before any
// conversion, so nothing out of range is ever converted. Frames whose width or height exceed
// 16 bits are not drawn (the pixel pairs are 16-bit).
static void reel_starfield_project(reel_starfield* sf, int32_t w, int32_t h)
{
    typedef reel_starfield_v4f v4f;
    typedef reel_starfield_v4i v4i;
    typedef reel_starfield_v4u v4u;
    const float inv_range = 1.0f / (sf->far_plane - sf->near_plane);
    const float fx = sf->focal_length * sf->aspect, fy = sf->focal_length;
    const float cos_yaw = cosf(sf->yaw), sin_yaw = sinf(sf->yaw);
    const float cos_pitch = cosf(sf->pitch), sin_pitch = sinf(sf->pitch);
    const float near_plane = sf->near_plane, far_plane = sf->far_plane;
    const float ox = (float)sf->x_offset + (float)(w / 2), oy = (float)sf->y_offset + (float)(h / 2);
    // round(v) lies in [0, W) exactly when v lies in (-0.5, W - 0.5)
    const float x_end = (float)w - 0.5f, y_end = (float)h - 0.5f;
    const reel_star* stars = sf->stars;
    const uint32_t n = 1u << sf->log2_star_count;
    for (uint32_t i = 0; i < n; i += 4) {
        v4f dx, dy, dz;
        for (uint32_t k = 0; k < 4; k++) {  // fields of up to four stars; the last repeats for n < 4
            const reel_star* s = &stars[i + k < n ? i + k : n - 1];
            dx[k] = s->x - sf->camera[0], dy[k] = s->y - sf->camera[1], dz[k] = s->z - sf->camera[2];
        }
        const v4f x1 = dx * cos_yaw + dz * sin_yaw;
        const v4f z1 = -dx * sin_yaw + dz * cos_yaw;
        const v4f y2 = dy * cos_pitch - z1 * sin_pitch;
        const v4f z2 = dy * sin_pitch + z1 * cos_pitch;
        const v4f vx = ox + fx * x1 / z2, vy = oy + fy * y2 / z2;
        // NaN fails every test
        const v4i inside = (z2 >= near_plane) & (z2 <= far_plane) & (vx > -0.5f) & (vx < x_end) & (vy > -0.5f) &
                           (vy < y_end);
        const v4i px = reel_starfield_round4((v4f)((v4i)vx & inside));
        const v4i py = reel_starfield_round4((v4f)((v4i)vy & inside));
        const v4f depth = (z2 - near_plane) * inv_range;
        const v4f b = 1.0f - (depth - REEL_STARFIELD_FADE_START) / REEL_STARFIELD_FADE_RANGE;
        const v4f b2 = b * b;
        v4f bright = b2 * b2 * b;
        bright = bright < 0.0f ? 0.0f : bright;
        bright = bright > 1.0f ? 1.0f : bright;
        const v4i level = reel_starfield_round4((v4f)((v4i)(bright * REEL_STARFIELD_BRIGHT_ONE) & inside));
        const v4u packed = ((v4u)py << 16) | (v4u)px | ~(v4u)inside;  // culled lanes become all ones
        for (uint32_t k = 0; k < 4 && i + k < n; k++) {
            sf->projected[i + k] = packed[k];
            sf->level16[i + k] = (uint16_t)level[k];
        }
    }
}

// Respawns culled stars (in star order, so the random stream is the same as placing them one at
// a time), drops hidden ones and sorts the rest into their levels; one variant per optional input.
template <bool Stencil, bool Image>
static void reel_starfield_sort(reel_starfield* sf)
{
    const uint32_t level_shift = REEL_STARFIELD_BRIGHT_BITS - sf->log2_levels;
    const uint32_t last_level = (1u << sf->log2_levels) - 1;
    const uint32_t* stencil_bits = Stencil ? sf->stencil->bits : nullptr;
    const uint32_t stencil_words = Stencil ? sf->stencil->width / 32 : 0;
    const uint8_t* texels = Image ? (const uint8_t*)sf->image->texture.mips[0] : nullptr;
    const uint32_t texel_shift = Image ? sf->image->texture.log2_w : 0;
    const uint32_t n = 1u << sf->log2_star_count;
    for (uint32_t i = 0; i < n; i++) {
        const uint32_t p = sf->projected[i];
        if (p == REEL_STARFIELD_CULLED) {
            if (sf->respawn)
                reel_starfield_reset_star(sf, i);
            continue;
        }
        const uint32_t px = p & 0xFFFF, py = p >> 16;
        if constexpr (Stencil) {
            if ((stencil_bits[py * stencil_words + (px >> 5)] << (px & 31)) & 0x80000000u)
                continue;  // hidden, not respawned
        }
        const uint32_t level16 = sf->level16[i];
        if constexpr (Image) {
            if ((level16 >> REEL_STARFIELD_THRESHOLD_SHIFT) <= texels[(py << texel_shift) + px])
                continue;
        }
        uint32_t k = level16 >> level_shift;
        k = k > last_level ? last_level : k;
        reel_starfield_append(sf, k, (uint16_t)px, (uint16_t)py);
    }
}

// Writes the sorted levels darkest first; Pixel is the framebuffer's texel type.
template <typename Pixel>
static void reel_starfield_write(reel_starfield* sf, n3d_framebuffer* fb, n3d_coverage_buffer* coverage)
{
    const uint32_t levels = 1u << sf->log2_levels;
    const uint32_t coverage_words = coverage->width / 32;
    for (uint32_t k = 0; k < levels; k++) {
        Pixel value;
        if constexpr (sizeof(Pixel) == 1) {
            const uint32_t last = sf->palette->first + sf->palette->count - 1;  // the load checked count >= 1
            const uint32_t c = sf->palette->first + sf->first_level_index + k;
            value = (Pixel)(c < last ? c : last);
        } else {
            value = (Pixel)(0x8000u | (k << 10) | (k << 5) | k);
        }
        for (const reel_star_node* node = sf->level_heads[k]; node; node = node->next)
            for (uint32_t j = 0; j < node->pair_count; j++) {
                const uint32_t px = node->pairs[j].x, py = node->pairs[j].y;
                ((Pixel*)(fb->pixels + (uint64_t)py * fb->row_bytes))[px] = value;
                coverage->bits[py * coverage_words + (px >> 5)] |= 0x80000000u >> (px & 31);
            }
    }
}

void reel_starfield_draw_i8(reel_starfield* sf, n3d_framecontext* fc, reel_engine* engine)
{
    (void)engine;
    n3d_framebuffer* fb = fc->framebuffer;
    const uint32_t levels = 1u << sf->log2_levels;
    memset(sf->level_heads, 0, levels * sizeof(reel_star_node*));
    memset(sf->level_tails, 0, levels * sizeof(reel_star_node*));
    sf->pairs_used = 0;
    sf->nodes_used = 0;
    if (fb->width > 0xFFFF || fb->height > 0xFFFF)
        return;
    reel_starfield_project(sf, fb->width, fb->height);
    if (sf->stencil)
        sf->image ? reel_starfield_sort<true, true>(sf) : reel_starfield_sort<true, false>(sf);
    else
        sf->image ? reel_starfield_sort<false, true>(sf) : reel_starfield_sort<false, false>(sf);
    if (fb->format == N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8)
        reel_starfield_write<uint8_t>(sf, fb, fc->coverage[0]);
    else if (fb->format == N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555)
        reel_starfield_write<uint16_t>(sf, fb, fc->coverage[0]);
}
