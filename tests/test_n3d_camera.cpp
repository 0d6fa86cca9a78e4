// Camera records, the perspective projection and the debug fly camera.
#include <gtest/gtest.h>

#include <cmath>

#include "n3d_camera.h"
#include "test_fatal.h"

constexpr float PI = 3.14159265358979f;

TEST(n3d_camera, perspective_has_no_far_plane_and_flips_y_and_init_takes_aspect_and_position)
{
    auto ndc_depth = [](const mat4x4 projection, float d) {  // of a camera-space point d in front of the camera
        const vec4 p = {0.0f, 0.0f, -d, 1.0f};
        vec4 clip;
        mat4x4_mul_vec4(clip, projection, p);
        return clip[2] / clip[3];
    };
    mat4x4 m;
    n3d_perspective(m, 320.0f, 240.0f, PI / 4.0f, 0.5f);
    const float expected[4][4] = {{1.8106601f, 0, 0, 0}, {0, -2.4142137f, 0, 0}, {0, 0, -1, -1}, {0, 0, -1, 0}};
    for (int i = 0; i < 16; ++i)
        EXPECT_FLOAT_EQ(m[i / 4][i % 4], expected[i / 4][i % 4]) << i / 4 << "," << i % 4;
    // normalised depth 1 - 2 near / d: -1 at the near plane, approaching 1 far away
    for (const auto& [d, z] : {std::pair{0.5f, -1.0f}, {1.0f, 0.0f}, {1000.0f, 0.999f}})
        EXPECT_FLOAT_EQ(ndc_depth(m, d), z) << d;

    n3d_perspective(m, 320.0f, 240.0f, PI / 4.0f, 0.25f);
    EXPECT_FLOAT_EQ(ndc_depth(m, 0.25f), -1.0f);
    EXPECT_FATAL(
        n3d_perspective(m, 320.0f, 240.0f, PI / 4.0f, 0.24f),
        test_fatal("n3d_perspective", "src/n3d",
                   "near_plane must be >= N3D_ZBUFFER_MIN_NEAR_PLANE but is 0.24 (impacts z-buffer number of bits "
                   "to avoid overflow!) define N3D_IGNORE_ZBUFFER_MIN_NEAR_PLANE_CHECK to 1 to skip this check\n"));

    // init takes the aspect from the framebuffer and the position from camera_to_world
    n3d_framebuffer fb = {N3D_TEXEL_FORMAT_ARGB1555_DISPLAY_ARGB1555, 640, 240, 1280, nullptr};
    n3d_framecontext fc = {0, &fb, nullptr, {nullptr, nullptr}};
    mat4x4 translated, camera_to_world, view;
    mat4x4_translate(translated, 1.0f, 2.0f, 3.0f);
    mat4x4_rotate(camera_to_world, translated, 0.0f, 1.0f, 0.0f, 0.7f);
    mat4x4_invert(view, camera_to_world);
    n3d_camera camera;
    n3d_camera_init(&camera, &fc, view, camera_to_world, PI / 3.0f, 0.5f);
    EXPECT_FLOAT_EQ(camera.projection[0][0], (float)(1.0 / tan(PI / 6.0) / (640.0 / 240.0)));
    // camera_to_world's translation, not view's
    EXPECT_TRUE(camera.position[0] == 1.0f && camera.position[1] == 2.0f && camera.position[2] == 3.0f);
    // view_projection applies view first: a point 2 units ahead lands on the axis at depth 0.5
    const vec4 ahead_camera = {0.0f, 0.0f, -2.0f, 1.0f};
    vec4 clip;
    mat4x4_mul_vec4(clip, camera_to_world, ahead_camera);
    mat4x4_mul_vec4(clip, camera.view_projection, clip);
    EXPECT_TRUE(fabsf(clip[0]) < 1e-5f && fabsf(clip[1]) < 1e-5f && fabsf(clip[2] - 1) < 1e-5f &&
                fabsf(clip[3] - 2) < 1e-5f);
}

TEST(n3d_camera, fly_camera_turns_with_the_mouse_and_never_looks_straight_up_or_down)
{
    fly_camera cam = {{0.0f, 0.0f, 0.0f}, 0.0f, 0.0f, 0.1f, 2.0f};  // at the origin, looking down -z
    uint8_t keys[256] = {};
    int32_t mouse[2] = {0, 0};
    mat4x4 view;
    fly_camera_update(&cam, keys, mouse, 0.5f, view);
    EXPECT_TRUE(fabsf(view[0][0] - 1.0f) < 1e-6f && fabsf(view[2][2] - 1.0f) < 1e-6f);  // at rest: the identity view

    // mouse right turns right: after a quarter turn +x is straight ahead
    mouse[0] = 10;
    cam.mouse_sensitivity = PI / 20.0f;
    fly_camera_update(&cam, keys, mouse, 0.5f, view);
    vec3 p = {1.0f, 0.0f, 0.0f};
    mat4x4_mul_vec3(p, view, p, 1.0f);
    EXPECT_TRUE(fabsf(p[0]) < 1e-6f && fabsf(p[2] + 1.0f) < 1e-6f);

    // mouse down looks down, but stops short of straight down, however far it moves
    mouse[0] = 0;
    for (int32_t dy : {100000, 100000, -200000}) {
        mouse[1] = dy;
        fly_camera_update(&cam, keys, mouse, 0.5f, view);
        EXPECT_EQ(cam.pitch, dy > 0 ? -1.5607964f : 1.5607964f);
        EXPECT_GT(view[1][1], 0.0f);  // the camera's up still leans to world +y: no flip
    }
}

// Held keys move the camera at speed x dt (here 1) along where it looks (w, s) and sideways (a and
// d by 1, z and c by 2): s wins over w, and of a, d, z, c the later in that order wins. At
// yaw 0 and pitch 0 it looks down -z with +x to its right, so a and z move it towards -x.
TEST(n3d_camera, fly_camera_keys_move_it_and_later_keys_win)
{
    struct {
        const char* held;
        float x, z;
    } const cases[] = {
        {"", 0, 0},   {"w", 0, -1},  {"s", 0, 1},    {"ws", 0, 1},    {"a", -1, 0},   {"d", 1, 0},
        {"z", -2, 0}, {"c", 2, 0},   {"ad", 1, 0},   {"adz", -2, 0},  {"adzc", 2, 0}, {"dz", -2, 0},
        {"ca", 2, 0}, {"wa", -1, -1}, {"sc", 2, 1},
    };
    for (const auto& c : cases) {
        fly_camera cam = {{0.0f, 0.0f, 0.0f}, 0.0f, 0.0f, 0.1f, 2.0f};
        uint8_t keys[256] = {};
        for (const char* k = c.held; *k; k++)
            keys[(uint8_t)*k] = 1;
        const int32_t mouse[2] = {0, 0};
        mat4x4 view;
        fly_camera_update(&cam, keys, mouse, 0.5f, view);
        EXPECT_NEAR(cam.position[0], c.x, 1e-6f) << c.held;
        EXPECT_NEAR(cam.position[1], 0.0f, 1e-6f) << c.held;
        EXPECT_NEAR(cam.position[2], c.z, 1e-6f) << c.held;
    }
}
