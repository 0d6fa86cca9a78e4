// The SDL host brought up for real, headless (offscreen driver) or under an X server.
#include <gtest/gtest.h>

#include <SDL.h>

#include <cstring>

#include "diag.h"
#include "reel.h"
#include "sdl2_winmain.h"
#include "tool_fixture.h"

TEST(host, init_creates_fullscreen_window_surfaces_and_display)
{
    platform* p = &platform_global;
    platform_init(p);
    ASSERT_TRUE(p->window && p->audio_device && p->composition_surface);
    EXPECT_EQ(SDL_GetWindowFlags(p->window) & SDL_WINDOW_FULLSCREEN_DESKTOP, (uint32_t)SDL_WINDOW_FULLSCREEN_DESKTOP);
    EXPECT_STREQ(SDL_GetWindowTitle(p->window), "Window");
    const SDL_Surface* s = p->composition_surface;
    EXPECT_TRUE(s->w == 640 && s->h == 480 && s->format->format == SDL_PIXELFORMAT_RGBA8888);
    EXPECT_TRUE(p->arena.capacity == 10u << 20 && p->display.overlay.width == 640 &&
                !strcmp(p->arena.name, "platform_arena"));
    EXPECT_EQ(SDL_GetAudioDeviceStatus(p->audio_device), SDL_AUDIO_PAUSED);
    // under an X server, the window takes the desktop's size (REEL_EXPECT_DESKTOP=WxH)
    if (const char* expect = getenv("REEL_EXPECT_DESKTOP")) {
        int w = 0, h = 0;
        SDL_GetWindowSize(p->window, &w, &h);
        EXPECT_EQ(std::to_string(w) + "x" + std::to_string(h), expect);
    }
    SDL_Quit();
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

platform* host_start()
{
    platform_init(&platform_global);
    prof_init();
    memset(&demosys_global, 0, sizeof(demosys_global));
    return &platform_global;
}
}  // namespace

// Both ways out (a quit event, the engine's quit flag) close block 0, then print the rasterizer
// report and one line for a person.
TEST(host, quitting_closes_block_zero_and_prints_a_summary)
{
    for (bool by_event : {true, false}) {
        platform* p = host_start();
        if (by_event)
            host_push_key(SDL_QUIT, 0);
        demosys_global.quit = !by_event;
        testing::internal::CaptureStdout();
        EXPECT_EQ(platform_run(p), 0);
        const std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(out.rfind("[100.00%][hits:           1]", 0), 0u) << out;
        EXPECT_TRUE(testing::internal::RE::PartialMatch(
            out,
            "\\[CYCLES_BLOCK_TOTAL\\]\ntotal cycles: [0-9.]+\nplayed "
            "[0-9.]+ s: 0 frames presented, frame time mean 0.00 ms, worst 0.00 ms\n$"))
            << out;
    }
}

// 'm' toggles relative mouse mode on its release only: press, release, press leaves it toggled
// once (off, since it starts on). Escape, sent by a timer, ends the loop.
TEST(host, m_toggles_relative_mouse_on_release_until_escape)
{
    platform* p = host_start();
    const bool relative_supported = SDL_SetRelativeMouseMode(SDL_TRUE) == 0;
    host_push_key(SDL_KEYDOWN, SDLK_m);
    host_push_key(SDL_KEYUP, SDLK_m);
    host_push_key(SDL_KEYDOWN, SDLK_m);
    SDL_InitSubSystem(SDL_INIT_TIMER);
    const SDL_TimerCallback escape = [](Uint32, void*) -> Uint32 {
        host_relative_mode_before_escape = SDL_GetRelativeMouseMode();
        host_push_key(SDL_KEYDOWN, SDLK_ESCAPE);
        return 0;
    };
    SDL_AddTimer(100, escape, nullptr);
    testing::internal::CaptureStdout();
    EXPECT_EQ(platform_run(p), 0);
    testing::internal::GetCapturedStdout();
    // the offscreen driver has no relative mode; X11 has
    EXPECT_TRUE(!relative_supported || host_relative_mode_before_escape == SDL_FALSE);
}

// The program as a person starts it, from a folder of its own: with no packs anywhere it names the
// folders it tried; then it finds a show beside its executable. The show lasts a third of a
// second: the music starts, fades and ends it.
TEST(host_program, started_elsewhere_it_finds_the_packs_by_the_executable_or_names_the_folders_it_tried)
{
    const std::string root = tool_fixture_dir(REEL_TEST_OUTPUT_DIR, "packs_by_executable");
    std::system(
        ("mkdir -p '" + root + "/bin' '" + root + "/elsewhere' && cp '" REEL_PROGRAM "' '" + root + "/bin/reel'")
            .c_str());
    const std::string env = "SDL_VIDEODRIVER=offscreen SDL_AUDIODRIVER=dummy ../bin/reel";
    tool_run_result r = tool_fixture_run(root + "/elsewhere", env);
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    const std::string bin = std::filesystem::canonical(root).string() + "/bin/";
    EXPECT_EQ(r.out, "video: SDL's offscreen driver, as SDL_VIDEODRIVER asks: nothing is shown\n"
                     "no show packs (pak0.rpk) in: assets/reel/le, " + bin + "assets/reel/le, " + bin +
                         "../assets/reel/le\nassets/reel/le/pak0.rpk: No such file or directory\n"
                         "fopen failed, path: assets/reel/le/pak0.rpk\n");
    EXPECT_NE(r.err.find("failed read \"assets/reel/le/pak0.rpk\"\n"), std::string::npos) << r.err;

    ASSERT_EQ(tool_fixture_pack_show(root, REEL_TOOLS_DIR,
                                     "mode,ref,start,preload,mode,ref,end,function,args\n"
                                     "abs,,0,0,abs,,100,music_start,music\nabs,,0,0,abs,,300,fade_out_music\n",
                                     22050),
              0);
    r = tool_fixture_run(root + "/elsewhere", env);
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_NE(r.out.find("playing the show in " + bin +
                         "../assets/reel/le/ - keys: Escape quits, x pauses, q/e seek 0.1 s, "
                         "a/d seek 1 s\n"),
              std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("frames presented"), std::string::npos) << "it ends by itself, as a person ends it";
}
