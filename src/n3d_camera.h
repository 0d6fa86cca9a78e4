// The camera every 3D draw reads (projection for the current framebuffer, view, its inverse,
// their product and the world position), the infinite-far-plane perspective projection, and
// the free-flying debug camera steered by keyboard and mouse.
#pragma once

#include <cstdint>

#include "n3d.h"
#include "vmath.h"

// Below this the depth values of near geometry outgrow the depth buffer's bits.
constexpr float N3D_ZBUFFER_MIN_NEAR_PLANE = 0.25f;

struct n3d_camera {
    mat4x4 projection;
    mat4x4 view;             // world to camera
    mat4x4 camera_to_world;  // the inverse of view
    mat4x4 view_projection;  // projection x view
    float fov_y;             // vertical field of view, radians
    float near_plane;
    vec3 position;  // world position: column 3 of camera_to_world
};

// fc's framebuffer gives the aspect ratio; near_plane below N3D_ZBUFFER_MIN_NEAR_PLANE is fatal.
void n3d_camera_init(n3d_camera* camera, const n3d_framecontext* fc, const mat4x4 view, const mat4x4 camera_to_world,
                     float fov_y, float near_plane);
// Right-handed camera space looking down -z, no far plane, y flipped for rows that grow
// downwards: depth d in front maps to 1 - 2 near_plane / d (-1 at the near plane).
void n3d_perspective(mat4x4 m, float width, float height, float fov_y, float near_plane);

// ---- debug fly camera ----

constexpr float FLY_CAMERA_PITCH_LIMIT = 1.5607964f;  // pi/2 - 0.01: straight up or down would flip the view

struct fly_camera {
    vec3 position;
    float yaw;                // radians
    float pitch;              // radians, within +-FLY_CAMERA_PITCH_LIMIT
    float mouse_sensitivity;  // radians per mouse unit
    float speed;              // units per second
};

// keys: the host's 256 key-down bytes, indexed by character code ('w' 's' forward and back,
// 'a' 'd' strafe, 'z' 'c' strafe at twice the speed); mouse_delta: (dx, dy) since the last call.
void fly_camera_update(fly_camera* state, const uint8_t* keys, const int32_t mouse_delta[2], float dt,
                       mat4x4 view_out);
