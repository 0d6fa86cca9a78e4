// The SDL host brought up for real, headless (offscreen driver) or under an X server.
#include <gtest/gtest.h>

#include <SDL.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "diag.h"
#include "reel.h"
#include "sdl2_winmain.h"

TEST(host, init_creates_fullscreen_window_surfaces_and_display)
{
    platform* p = &platform_global;
    platform_init(p);
    ASSERT_TRUE(p->window && p->audio_device && p->composition_surface);
    EXPECT_EQ(SDL_GetWindowFlags(p->window) & SDL_WINDOW_FULLSCREEN_DESKTOP, (uint32_t)SDL_WINDOW_FULLSCREEN_DESKTOP);
    EXPECT_STREQ(SDL_GetWindowTitle(p->window), "Window");
    const SDL_Surface* s = p->composition_surface;
    EXPECT_TRUE(s->w == 640 && s->h == 480 && s->format->format == SDL_PIXELFORMAT_RGBA8888);
    EXPECT_TRUE(p->arena.capacity == 10u << 20 && p->display.overlay.width == 640);
    EXPECT_STREQ(p->arena.name, "platform_arena");
    EXPECT_EQ(SDL_GetAudioDeviceStatus(p->audio_device), SDL_AUDIO_PAUSED);

    // under an X server, the window takes the desktop's size (REEL_EXPECT_DESKTOP=WxH)
    if (const char* expect = getenv("REEL_EXPECT_DESKTOP")) {
        int w = 0, h = 0;
        SDL_GetWindowSize(p->window, &w, &h);
        EXPECT_EQ(std::to_string(w) + "x" + std::to_string(h), expect);
        SDL_DisplayMode mode;
        ASSERT_EQ(SDL_GetDesktopDisplayMode(0, &mode), 0);
        EXPECT_TRUE(w == mode.w && h == mode.h);
    }
    SDL_Quit();
}

// Both ways out (a quit event, the engine's quit flag) close block 0, then print the rasterizer
// report and one line for a person.
TEST(host, quitting_closes_block_zero_and_prints_a_summary)
{
    platform* p = &platform_global;
    for (bool by_event : {true, false}) {
        platform_init(p);
        prof_init();
        memset(&demosys_global, 0, sizeof(demosys_global));
        SDL_Event quit;
        SDL_zero(quit);
        quit.type = SDL_QUIT;
        if (by_event)
            SDL_PushEvent(&quit);
        demosys_global.quit = !by_event;
        testing::internal::CaptureStdout();
        EXPECT_EQ(platform_run(p), 0);
        const std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(out.rfind("[100.00%][hits:           1]", 0), 0u) << out;
        EXPECT_TRUE(testing::internal::RE::PartialMatch(
            out, "\\[CYCLES_BLOCK_TOTAL\\]\ntotal cycles: [0-9.]+\nplayed [0-9.]+ s: 0 frames presented, frame time "
                 "mean 0.00 ms, worst 0.00 ms\n$"))
            << out;
    }
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

// ---- the program as a person starts it: where it finds the show ----

#include "tool_fixture.h"

namespace {

const std::string host_root = REEL_TEST_OUTPUT_DIR;

// root/bin/reel, a copy of the program, with nothing else around it.
std::string host_program_copy(const std::string& name)
{
    const std::string root = tool_fixture_dir(host_root, name);
    std::system(("mkdir -p '" + root + "/bin' '" + root + "/elsewhere' && cp '" REEL_PROGRAM "' '" + root +
                 "/bin/reel'")
                    .c_str());
    return root;
}

const std::string host_env = "SDL_VIDEODRIVER=offscreen SDL_AUDIODRIVER=dummy ";

}  // namespace

TEST(host_program, started_elsewhere_it_finds_the_packs_by_the_executable)
{
    const std::string root = host_program_copy("packs_by_executable");
    // a show of a third of a second: the music starts, fades and ends it
    ASSERT_EQ(tool_fixture_pack_show(root, REEL_TOOLS_DIR,
                                     "mode,ref,start,preload,mode,ref,end,function,args\n"
                                     "abs,,0,0,abs,,100,music_start,music\n"
                                     "abs,,0,0,abs,,300,fade_out_music\n",
                                     22050),
              0);
    const tool_run_result r = tool_fixture_run(root + "/elsewhere", host_env + "../bin/reel");
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_NE(r.out.find("playing the show in "), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("/bin/../assets/reel/le/ - keys: Escape quits, x pauses, q/e seek 0.1 s, a/d seek 1 s\n"),
              std::string::npos)
        << r.out;
    EXPECT_TRUE(testing::internal::RE::PartialMatch(r.out, "\nplayed [0-9.]+ s: [0-9]+ frames presented, frame time "
                                                           "mean [0-9.]+ ms, worst [0-9.]+ ms\n$"))
        << r.out;
}

TEST(host_program, without_packs_anywhere_it_names_the_folders_it_tried)
{
    const std::string root = host_program_copy("no_packs");
    const tool_run_result r = tool_fixture_run(root + "/elsewhere", host_env + "../bin/reel");
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    char resolved[PATH_MAX];
    ASSERT_NE(realpath(root.c_str(), resolved), nullptr);
    const std::string bin = std::string(resolved) + "/bin/";
    EXPECT_EQ(r.out, "video: SDL's offscreen driver, as SDL_VIDEODRIVER asks: nothing is shown\n"
                     "no show packs (pak0.rpk) in: assets/reel/le, " +
                         bin + "assets/reel/le, " + bin +
                         "../assets/reel/le\n"
                         "assets/reel/le/pak0.rpk: No such file or directory\n"
                         "fopen failed, path: assets/reel/le/pak0.rpk\n");
    EXPECT_NE(r.err.find("failed read \"assets/reel/le/pak0.rpk\"\n"), std::string::npos) << r.err;
}
