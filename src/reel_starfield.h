// The starfield: a camera flies through a cloud of point stars kept in camera-relative world
// space; every frame each star is transformed, culled, projected, given one of a power-of-two
// number of brightness levels by its depth, and queued on that level's list of pixel pairs;
// then the levels are written darkest first, so the palette look-up and clamp happen once per
// level and the brighter star wins a shared pixel. A star that leaves the view volume is
// placed again at random inside it, so the cloud never thins out. An optional stencil hides
// stars behind a shape, an optional image gives a brightness threshold per pixel.
#pragma once

#include <cstdint>

#include "reel.h"
#include "vmath.h"

constexpr uint64_t REEL_STARFIELD_SEED_STATE = 0x853c49e6748fea9bull;
constexpr uint64_t REEL_STARFIELD_SEED_INCREMENT = 0xda3e39cb94b95bdbull;
constexpr uint32_t REEL_STARFIELD_PAIRS_PER_NODE = 8;
constexpr uint32_t REEL_STARFIELD_MAX_LOG2_LEVELS = 15;  // levels are the top bits of a 15-bit brightness
constexpr uint32_t REEL_STARFIELD_CULLED = 0xFFFFFFFFu;  // outside the view volume or the frame

struct reel_star {
    float x, y, z;
};
static_assert(sizeof(reel_star) == REEL_STAR_BYTES, "a star is three floats");

struct reel_star_pair {
    uint16_t x, y;
};

struct reel_star_node {
    uint32_t pair_count;
    reel_star_pair* pairs;  // a block of REEL_STARFIELD_PAIRS_PER_NODE pairs
    reel_star_node* next;
};
static_assert(sizeof(reel_star_node) == 24, "a node is 24 bytes");

struct reel_starfield {
    pcg32 random;
    uint32_t respawn;
    uint32_t log2_star_count;
    reel_star* stars;
    uint32_t log2_levels;
    uint32_t pairs_used;
    reel_star_pair* pair_buffer;  // 8 x star count pairs
    uint32_t nodes_used;
    reel_star_node* node_pool;    // (max(n - L, 0)) / 8 + L nodes: the worst case of a frame
    reel_star_node** level_heads;
    reel_star_node** level_tails;
    float scale;
    float camera[3];
    float pitch;
    float yaw;
    float near_plane;
    float far_plane;
    float fov_y;
    float fov_x;
    float focal_length;  // pixels
    float aspect;
    float half_extent_x;  // tan(fov_x / 2)
    float half_extent_y;
    uint32_t first_level_index;
    uint32_t last_level_index;
    const reel_palette* palette;
    const n3d_coverage_buffer* stencil;  // or null
    const reel_image* image;             // or null
    int32_t x_offset, y_offset;
    uint32_t* projected;  // per star, each frame: py << 16 | px, or REEL_STARFIELD_CULLED
    uint16_t* level16;    // per star, each frame: brightness 0 to 32767
};

// Checks that last - first + 1 is a power of two (fatal otherwise), then reel_starfield_init.
void reel_starfield_init_i8(reel_starfield* sf, uint32_t log2_star_count, reel_star* stars, uint32_t respawn,
                            int32_t width, int32_t height, const reel_palette* palette, int32_t first_level_index,
                            int32_t last_level_index, xmemarena* arena);
void reel_starfield_init(reel_starfield* sf, uint32_t log2_star_count, reel_star* stars, uint32_t respawn,
                         int32_t width, int32_t height, const reel_palette* palette, uint32_t first_level_index,
                         uint32_t last_level_index, uint32_t log2_levels, xmemarena* arena);
void reel_starfield_reset_all(reel_starfield* sf);
void reel_starfield_reset_star(reel_starfield* sf, uint32_t i);
// Draws every star into fc's framebuffer (index8 or ARGB1555) and coverage[0].
void reel_starfield_draw_i8(reel_starfield* sf, n3d_framecontext* fc, reel_engine* engine);
