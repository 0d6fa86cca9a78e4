// The SDL host brought up for real, headless (offscreen driver) or under an X server.
#include <gtest/gtest.h>

#include <SDL.h>

#include <cstdlib>
#include <cstring>

#include "diag.h"
#include "reel.h"
#include "sdl2_winmain.h"

TEST(host, init_creates_fullscreen_window_surfaces_and_display)
{
    platform* p = &platform_global;
    platform_init(p);
    ASSERT_NE(p->window, nullptr);
    EXPECT_NE(p->audio_device, 0u);
    const uint32_t flags = SDL_GetWindowFlags(p->window);
    EXPECT_EQ(flags & SDL_WINDOW_FULLSCREEN_DESKTOP, (uint32_t)SDL_WINDOW_FULLSCREEN_DESKTOP);
    EXPECT_STREQ(SDL_GetWindowTitle(p->window), "Window");
    ASSERT_NE(p->composition_surface, nullptr);
    EXPECT_EQ(p->composition_surface->w, 640);
    EXPECT_EQ(p->composition_surface->h, 480);
    EXPECT_EQ(p->composition_surface->format->format, (uint32_t)SDL_PIXELFORMAT_RGBA8888);
    EXPECT_EQ(p->arena.capacity, 10u * 1024 * 1024);
    EXPECT_STREQ(p->arena.name, "platform_arena");
    EXPECT_EQ(p->display.overlay.width, 640u);
    EXPECT_EQ(SDL_GetAudioDeviceStatus(p->audio_device), SDL_AUDIO_PAUSED);

    // under an X server, the window takes the desktop's size (REEL_EXPECT_DESKTOP=WxH)
    if (const char* expect = getenv("REEL_EXPECT_DESKTOP")) {
        int w = 0, h = 0;
        SDL_GetWindowSize(p->window, &w, &h);
        char got[32];
        snprintf(got, sizeof(got), "%dx%d", w, h);
        EXPECT_STREQ(got, expect);
        SDL_DisplayMode mode;
        ASSERT_EQ(SDL_GetDesktopDisplayMode(0, &mode), 0);
        EXPECT_EQ(w, mode.w);
        EXPECT_EQ(h, mode.h);
    }
    SDL_Quit();
}

TEST(host, quit_event_ends_the_loop_without_block_zero)
{
    platform* p = &platform_global;
    platform_init(p);
    prof_init();
    memset(&demosys_global, 0, sizeof(demosys_global));
    SDL_Event quit;
    SDL_zero(quit);
    quit.type = SDL_QUIT;
    SDL_PushEvent(&quit);
    testing::internal::CaptureStdout();
    EXPECT_EQ(platform_run(p), 0);
    // block 0 has no hits: an empty table, then the rasterizer report with no blocks hit
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "total cycles: 0.000000\n");
}

TEST(host, engine_quit_flag_ends_the_loop_and_prints_block_zero)
{
    platform* p = &platform_global;
    platform_init(p);
    prof_init();
    memset(&demosys_global, 0, sizeof(demosys_global));
    demosys_global.quit = 1;
    testing::internal::CaptureStdout();
    EXPECT_EQ(platform_run(p), 0);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("[100.00%][hits:           1]"), std::string::npos) << out;
    EXPECT_NE(out.find("[CYCLES_BLOCK_TOTAL]\n"), std::string::npos) << out;
}

namespace {
SDL_bool host_relative_mode_before_escape;

void host_push_key(Uint32 type, SDL_Keycode key)
{
    SDL_Event e;
    SDL_zero(e);
    e.type = type;
    e.key.keysym.sym = key;
    SDL_PushEvent(&e);
}
}  // namespace

// 'm' toggles relative mouse mode on its release only: press, release, press leaves it toggled
// once (off, since it starts on). Escape, sent by a timer, ends the loop.
TEST(host, m_toggles_relative_mouse_on_release_until_escape)
{
    platform* p = &platform_global;
    platform_init(p);
    prof_init();
    memset(&demosys_global, 0, sizeof(demosys_global));
    const bool relative_supported = SDL_SetRelativeMouseMode(SDL_TRUE) == 0;
    host_push_key(SDL_KEYDOWN, SDLK_m);
    host_push_key(SDL_KEYUP, SDLK_m);
    host_push_key(SDL_KEYDOWN, SDLK_m);
    SDL_InitSubSystem(SDL_INIT_TIMER);
    SDL_AddTimer(
        100,
        [](Uint32, void*) -> Uint32 {
            host_relative_mode_before_escape = SDL_GetRelativeMouseMode();
            host_push_key(SDL_KEYDOWN, SDLK_ESCAPE);
            return 0;
        },
        nullptr);
    testing::internal::CaptureStdout();
    EXPECT_EQ(platform_run(p), 0);
    testing::internal::GetCapturedStdout();
    if (relative_supported) {  // the offscreen driver has no relative mode; X11 has
        EXPECT_EQ(host_relative_mode_before_escape, SDL_FALSE);
    }
}
