// Starfield state, respawning and drawing. Per star the frame costs a rotation, a division and
// an append to its level's list; the lists live in a node pool and pair buffer sized once for
// the worst case and reset by counters, so drawing allocates nothing.
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

// Transforms, culls and sorts every star into its level; one variant per optional input.
template <bool Stencil, bool Image>
static void reel_starfield_sort(reel_starfield* sf, int32_t w, int32_t h)
{
    const float inv_range = 1.0f / (sf->far_plane - sf->near_plane);
    const float cx = (float)(w / 2), cy = (float)(h / 2);
    const float fx = sf->focal_length * sf->aspect, fy = sf->focal_length;
    const float cos_yaw = cosf(sf->yaw), sin_yaw = sinf(sf->yaw);
    const float cos_pitch = cosf(sf->pitch), sin_pitch = sinf(sf->pitch);
    const float near_plane = sf->near_plane, far_plane = sf->far_plane;
    const float ox = (float)sf->x_offset + cx, oy = (float)sf->y_offset + cy;
    const float fw = (float)w, fh = (float)h;
    const uint32_t level_shift = REEL_STARFIELD_BRIGHT_BITS - sf->log2_levels;
    const uint32_t last_level = (1u << sf->log2_levels) - 1;
    const uint32_t* stencil_bits = Stencil ? sf->stencil->bits : nullptr;
    const uint32_t stencil_words = Stencil ? sf->stencil->width / 32 : 0;
    const uint8_t* texels = Image ? (const uint8_t*)sf->image->texture.mips[0] : nullptr;
    const uint32_t texel_shift = Image ? sf->image->texture.log2_w : 0;
    const uint32_t n = 1u << sf->log2_star_count;
    for (uint32_t i = 0; i < n; i++) {
        const reel_star* s = &sf->stars[i];
        const float dx = s->x - sf->camera[0], dy = s->y - sf->camera[1], dz = s->z - sf->camera[2];
        const float x1 = dx * cos_yaw + dz * sin_yaw;
        const float z1 = -dx * sin_yaw + dz * cos_yaw;
        const float y2 = dy * cos_pitch - z1 * sin_pitch;
        const float z2 = dy * sin_pitch + z1 * cos_pitch;
        if (z2 < near_plane || z2 > far_plane) {
            if (sf->respawn)
                reel_starfield_reset_star(sf, i);
            continue;
        }
        // compared as rounded floats, so no value outside the frame is ever converted
        const float rx = roundf(ox + fx * x1 / z2), ry = roundf(oy + fy * y2 / z2);
        if (!(rx >= 0.0f && rx < fw && ry >= 0.0f && ry < fh)) {
            if (sf->respawn)
                reel_starfield_reset_star(sf, i);
            continue;
        }
        const uint32_t px = (uint32_t)rx, py = (uint32_t)ry;
        if constexpr (Stencil) {
            if ((stencil_bits[py * stencil_words + (px >> 5)] << (px & 31)) & 0x80000000u)
                continue;  // hidden, not respawned
        }
        const float depth = (z2 - near_plane) * inv_range;
        const float b = 1.0f - (depth - REEL_STARFIELD_FADE_START) / REEL_STARFIELD_FADE_RANGE;
        const float b2 = b * b;
        float bright = b2 * b2 * b;
        bright = bright < 0.0f ? 0.0f : (bright > 1.0f ? 1.0f : bright);
        const uint32_t level16 = (uint32_t)roundf(bright * REEL_STARFIELD_BRIGHT_ONE);
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
    if (sf->stencil)
        sf->image ? reel_starfield_sort<true, true>(sf, fb->width, fb->height)
                  : reel_starfield_sort<true, false>(sf, fb->width, fb->height);
    else
        sf->image ? reel_starfield_sort<false, true>(sf, fb->width, fb->height)
                  : reel_starfield_sort<false, false>(sf, fb->width, fb->height);
    if (fb->format == N3D_TEXEL_FORMAT_INDEX8_DISPLAY_INDEX8)
        reel_starfield_write<uint8_t>(sf, fb, fc->coverage[0]);
    else if (fb->format == N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555)
        reel_starfield_write<uint16_t>(sf, fb, fc->coverage[0]);
}
