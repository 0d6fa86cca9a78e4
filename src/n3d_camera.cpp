// Camera records, the perspective projection and the debug fly camera.
#include "n3d_camera.h"

#include <cmath>

#include "diag.h"

// A build that accepts the depth buffer's overflow near the camera may define this to 1.
#ifndef N3D_IGNORE_ZBUFFER_MIN_NEAR_PLANE_CHECK
#define N3D_IGNORE_ZBUFFER_MIN_NEAR_PLANE_CHECK 0
#endif

void n3d_perspective(mat4x4 m, float width, float height, float fov_y, float near_plane)
{
    const double aspect = (double)width / (double)height;
    const double f = 1.0 / tan((double)fov_y / 2.0);
    // written as "not >=" so that a NaN fails too
    if (!N3D_IGNORE_ZBUFFER_MIN_NEAR_PLANE_CHECK && !(near_plane >= N3D_ZBUFFER_MIN_NEAR_PLANE))
        crash_in("src/n3d", __LINE__, "n3d_perspective",
                 "near_plane must be >= N3D_ZBUFFER_MIN_NEAR_PLANE but is %.2f (impacts z-buffer number of bits to "
                 "avoid overflow!) define N3D_IGNORE_ZBUFFER_MIN_NEAR_PLANE_CHECK to 1 to skip this check\n",
                 (double)near_plane);
    vec4_set(m[0], (float)(f / aspect), 0.0f, 0.0f, 0.0f);
    vec4_set(m[1], 0.0f, (float)-f, 0.0f, 0.0f);  // screen rows grow downwards
    vec4_set(m[2], 0.0f, 0.0f, -1.0f, -1.0f);     // clip w = -z: distance in front of the camera
    vec4_set(m[3], 0.0f, 0.0f, -2.0f * near_plane, 0.0f);
}

void n3d_camera_init(n3d_camera* camera, const n3d_framecontext* fc, const mat4x4 view, const mat4x4 camera_to_world,
                     float fov_y, float near_plane)
{
    n3d_perspective(camera->projection, (float)fc->framebuffer->width, (float)fc->framebuffer->height, fov_y,
                    near_plane);
    mat4x4_dup(camera->view, view);
    mat4x4_dup(camera->camera_to_world, camera_to_world);
    mat4x4_mul(camera->view_projection, camera->projection, camera->view);
    camera->fov_y = fov_y;
    camera->near_plane = near_plane;
    vec3_set(camera->position, camera_to_world[3][0], camera_to_world[3][1], camera_to_world[3][2]);
}

void fly_camera_update(fly_camera* state, const uint8_t* keys, const int32_t mouse_delta[2], float dt,
                       mat4x4 view_out)
{
    const float dyaw = (float)mouse_delta[0] * state->mouse_sensitivity;
    const float dpitch = -(float)mouse_delta[1] * state->mouse_sensitivity;  // mouse down looks down

    // later keys override earlier ones: 's' over 'w', and 'z' / 'c' (double speed) over 'a' / 'd'
    const float step = state->speed * dt;
    float forward = 0.0f;
    float side = 0.0f;
    if (keys[(uint8_t)'w'])
        forward = step;
    if (keys[(uint8_t)'s'])
        forward = -step;
    if (keys[(uint8_t)'a'])
        side = step;
    if (keys[(uint8_t)'d'])
        side = -step;
    if (keys[(uint8_t)'z'])
        side = 2.0f * step;
    if (keys[(uint8_t)'c'])
        side = -2.0f * step;

    state->yaw += dyaw;
    state->pitch += dpitch;
    if (state->pitch > FLY_CAMERA_PITCH_LIMIT)
        state->pitch = FLY_CAMERA_PITCH_LIMIT;
    if (state->pitch < -FLY_CAMERA_PITCH_LIMIT)
        state->pitch = -FLY_CAMERA_PITCH_LIMIT;

    // yaw 0 and pitch 0 look down -z, the camera's own forward axis
    vec3 dir;
    vec3_set(dir, cosf(state->pitch) * sinf(state->yaw), sinf(state->pitch), -cosf(state->pitch) * cosf(state->yaw));
    vec3_norm(dir, dir);
    const vec3 world_up = {0.0f, 1.0f, 0.0f};
    vec3 right;
    vec3_mul_cross(right, dir, world_up);
    vec3_norm(right, right);
    vec3 up;
    vec3_mul_cross(up, right, dir);

    vec3 move;
    vec3_scale(move, dir, forward);
    vec3_add(state->position, state->position, move);
    vec3_scale(move, right, side);
    vec3_sub(state->position, state->position, move);  // positive side goes left

    vec3 center;
    vec3_add(center, state->position, dir);
    mat4x4_look_at(view_out, state->position, center, up);
}
