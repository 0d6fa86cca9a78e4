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
        fprintf(stderr, "SDL_OpenAudioDevice failed\n");
        exit(1);
    }
    if (obtained.freq != desired.freq || obtained.format != desired.format || obtained.channels != desired.channels) {
        fprintf(stderr, "freq/format/ch not as desired\n");
        exit(1);
    }
    return device;
}

void platform_init(platform* p)
{
    if (SDL_Init(SDL_INIT_VIDEO | SDL_INIT_AUDIO) != 0) {
        fprintf(stderr, "SDL_Init failed\n");
        exit(1);
    }
    xmemarena_init(&p->arena, "platform_arena", PLATFORM_ARENA_SIZE, malloc(PLATFORM_ARENA_SIZE));
    p->audio_device = platform_audio_open();
    p->window = SDL_CreateWindow("Window", SDL_WINDOWPOS_UNDEFINED, SDL_WINDOWPOS_UNDEFINED, 0, 0,
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
        }
    }
    if (!quit_requested)
        prof_block_end(CYCLES_BLOCK_TOTAL, "src/sdl2_winmain", __LINE__);

    prof_print();
    n3d_profile_report_rasterizers();
    demosys_shutdown(sys);
    SDL_DestroyWindow(p->window);
    SDL_Quit();
    return 0;
}
