// SDL host: start-up, the never-sleeping frame loop, presentation and the audio device.
#include "sdl2_winmain.h"

#include <SDL.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "diag.h"
#include "music.h"
#include "n3d_draw.h"
#include "platform.h"
#include "reel.h"

platform platform_global;
static platform_host platform_host_record;
static uint8_t platform_key_table[PLATFORM_KEY_TABLE_SIZE];

uint32_t platform_audio_open()
{
    SDL_AudioSpec desired;
    SDL_AudioSpec obtained;
    SDL_zero(desired);
    SDL_zero(obtained);
    desired.freq = (int)MUSIC_SAMPLE_RATE;
    desired.format = AUDIO_S16LSB;
    desired.channels = (Uint8)MUSIC_CHANNELS;
    desired.samples = (Uint16)MUSIC_CALLBACK_FRAMES;
    desired.callback = audio_callback;
    const SDL_AudioDeviceID device = SDL_OpenAudioDevice(nullptr, 0, &desired, &obtained, 0);
    if (device == 0) {
        printf("no sound device: %s (SDL_AUDIODRIVER=dummy plays the show without sound)\n", SDL_GetError());
        fflush(stdout);
        fprintf(stderr, "SDL_OpenAudioDevice failed\n");
        exit(1);
    }
    if (obtained.freq != desired.freq || obtained.format != desired.format || obtained.channels != desired.channels) {
        fprintf(stderr, "freq/format/ch not as desired\n");
        exit(1);
    }
    return device;
}

// SDL falls back to its offscreen driver when there is no display: the show would play unseen.
static void platform_report_video_driver()
{
    const char* driver = SDL_GetCurrentVideoDriver();
    if (!driver || strcmp(driver, "offscreen") != 0)
        return;
    const char* asked = SDL_getenv("SDL_VIDEODRIVER");
    if (asked && strcmp(asked, "offscreen") == 0)
        printf("video: SDL's offscreen driver, as SDL_VIDEODRIVER asks: nothing is shown\n");
    else
        printf("video: no display found, so SDL uses its offscreen driver and the show plays unseen "
               "(run it in a desktop session, or set DISPLAY)\n");
}

void platform_init(platform* p)
{
    if (SDL_Init(SDL_INIT_VIDEO | SDL_INIT_AUDIO) != 0) {
        printf("SDL could not start: %s (SDL_VIDEODRIVER=offscreen and SDL_AUDIODRIVER=dummy run without a "
               "display and a sound device)\n",
               SDL_GetError());
        fflush(stdout);
        fprintf(stderr, "SDL_Init failed\n");
        exit(1);
    }
    xmemarena_init(&p->arena, "platform_arena", PLATFORM_ARENA_SIZE, malloc(PLATFORM_ARENA_SIZE));
    p->audio_device = platform_audio_open();
    // the desktop's size: a fullscreen window asked for as 0 x 0 comes out 1 x 1 when no
    // window manager resizes it
    SDL_DisplayMode desktop;
    SDL_zero(desktop);
    SDL_GetDesktopDisplayMode(0, &desktop);
    p->window = SDL_CreateWindow("Window", SDL_WINDOWPOS_UNDEFINED, SDL_WINDOWPOS_UNDEFINED, desktop.w, desktop.h,
                                 SDL_WINDOW_FULLSCREEN_DESKTOP);
    p->window_surface = SDL_GetWindowSurface(p->window);
    p->composition_surface = SDL_CreateRGBSurfaceWithFormat(0, (int)PLATFORM_FRAMEBUFFER_WIDTH,
                                                            (int)PLATFORM_FRAMEBUFFER_HEIGHT, 0,
                                                            SDL_PIXELFORMAT_RGBA8888);
    display_init(&p->display, &p->arena);
    platform_host_record.host_platform = p;
}

static int32_t platform_key_from_scancode(int32_t scancode)
{
    return (int32_t)SDL_GetKeyFromScancode((SDL_Scancode)scancode);
}

static void platform_present(platform* p)
{
    display_flip(&p->display);
    SDL_LockSurface(p->composition_surface);
    display_output_rgba(&p->display, p->composition_surface->pixels, (uint32_t)p->composition_surface->pitch);
    SDL_UnlockSurface(p->composition_surface);

    int w = 0;
    int h = 0;
    SDL_GetWindowSize(p->window, &w, &h);
    const platform_rect r = platform_destination_rect(w, h);
    SDL_Rect src = {0, 0, (int)PLATFORM_FRAMEBUFFER_WIDTH, (int)PLATFORM_FRAMEBUFFER_HEIGHT};
    SDL_Rect dst = {r.x, r.y, r.w, r.h};
    // the window surface may be replaced after a resize; ask for the current one
    p->window_surface = SDL_GetWindowSurface(p->window);
    SDL_UpperBlitScaled(p->composition_surface, &src, p->window_surface, &dst);
    SDL_UpdateWindowSurface(p->window);
    platform_host_record.frames_presented++;
}

int platform_run(platform* p)
{
    demosys* sys = &demosys_global;
    SDL_bool relative_mouse = SDL_TRUE;
    const uint64_t ticks_per_frame = SDL_GetPerformanceFrequency() / PLATFORM_FRAMES_PER_SECOND;
    memset(platform_key_table, 0, sizeof(platform_key_table));
    uint64_t last = SDL_GetPerformanceCounter();
    SDL_PauseAudioDevice(p->audio_device, 0);  // the callback plays silence until the music starts
    SDL_SetRelativeMouseMode(relative_mouse);

    prof_block_begin(CYCLES_BLOCK_TOTAL);
    const uint64_t loop_start = SDL_GetPerformanceCounter();
    platform_frame_stats frame_stats = {0, 0, 0, loop_start};
    bool quit_requested = false;
    while (sys->quit == 0 && !quit_requested) {
        int32_t dx = 0;
        int32_t dy = 0;
        SDL_Event event;
        while (SDL_PollEvent(&event)) {
            if (event.type == SDL_QUIT ||
                (event.type == SDL_KEYDOWN && event.key.keysym.sym == PLATFORM_KEY_ESCAPE)) {
                quit_requested = true;
                break;
            }
            if (event.type == SDL_KEYUP && event.key.keysym.sym == PLATFORM_KEY_M) {
                relative_mouse = relative_mouse ? SDL_FALSE : SDL_TRUE;
                SDL_SetRelativeMouseMode(relative_mouse);
            } else if (event.type == SDL_MOUSEMOTION) {
                dx = event.motion.xrel;  // the pass's last motion event wins; motion is not summed
                dy = event.motion.yrel;
            }
        }
        if (quit_requested)
            break;

        int mx = 0;
        int my = 0;
        sys->mouse_buttons = (int32_t)SDL_GetMouseState(&mx, &my);
        sys->mouse_x = platform_scale_mouse_x(mx);
        sys->mouse_y = platform_scale_mouse_y(my);
        sys->mouse_dx = dx;
        sys->mouse_dy = dy;

        SDL_PumpEvents();
        int n = 0;
        const Uint8* state = SDL_GetKeyboardState(&n);
        if (platform_fill_key_table(platform_key_table, state, n, platform_key_from_scancode)) {
            quit_requested = true;
            break;
        }

        demosys_update(sys, &p->display, platform_key_table, &platform_host_record);

        const uint64_t now = SDL_GetPerformanceCounter();
        if (platform_frame_due(now, last, ticks_per_frame)) {
            last = SDL_GetPerformanceCounter();  // a slow frame is not caught up
            demosys_render(sys, &p->display, platform_key_table, &platform_host_record);
            platform_present(p);
            platform_frame_stats_add(&frame_stats, SDL_GetPerformanceCounter());
        }
    }
    // closed on every way out, so that a run ended with Escape has a total to show
    prof_block_end(CYCLES_BLOCK_TOTAL, "src/sdl2_winmain", __LINE__);

    prof_print();
    n3d_profile_report_rasterizers();
    platform_print_summary(&frame_stats, SDL_GetPerformanceCounter() - loop_start, SDL_GetPerformanceFrequency());
    demosys_shutdown(sys);
    SDL_DestroyWindow(p->window);
    SDL_Quit();
    return 0;
}

void platform_choose_packs(demosys* sys)
{
    platform_report_video_driver();  // said for the show only: the benchmark's output is its table
    static platform_pack_search search;
    char* base = SDL_GetBasePath();
    platform_find_packs(&search, REEL_PACK_FOLDER, "pak0.rpk", base);
    SDL_free(base);
    if (search.found < 0) {
        // the engine then looks where it always has, and its message names the missing pack
        printf("no show packs (pak0.rpk) in:");
        for (uint32_t i = 0; i < search.tried_count; i++)
            printf(" %s%s", search.tried[i], i + 1 < search.tried_count ? "," : "\n");
        return;
    }
    sys->engine.pack_folder = search.tried[search.found];
    printf("playing the show in %s/ - keys: Escape quits, x pauses, q/e seek 0.1 s, a/d seek 1 s\n",
           sys->engine.pack_folder);
}
