// The SDL host: window, composition surface, audio device, input and the frame loop that
// drives the engine. Everything else the host calls is free of SDL.
#pragma once

#include <cstdint>

#include "display.h"
#include "memarena.h"

struct SDL_Surface;
struct SDL_Window;

constexpr uint64_t PLATFORM_ARENA_SIZE = 0xa00000;  // 10 MiB

struct platform {
    xmemarena arena;  // "platform_arena"
    display_device display;
    uint32_t audio_device;
    SDL_Surface* window_surface;
    SDL_Window* window;
    SDL_Surface* composition_surface;  // 640 x 480 RGBA8888
};

// The record behind the host pointer that update and render pass through to the scenes:
// the engine never looks inside; it lets a scene that knows the host reach the platform.
struct platform_host {
    platform* host_platform;
    uint64_t frames_presented;
};

extern platform platform_global;

void platform_init(platform* p);
int platform_run(platform* p);
uint32_t platform_audio_open();
struct demosys;
// Before the show: says on standard output when SDL plays it unseen (offscreen driver), finds
// the show's packs (the working folder first, then by the executable), points the engine at
// them and says where they are and which keys work, or which folders were tried.
void platform_choose_packs(demosys* sys);
