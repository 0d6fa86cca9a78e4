// The show engine's top level as the host sees it: the `demosys` record and its four calls.
// The engine itself (packs, resources, script, sequencer, scenes) is not in this build yet;
// `demosys_init` says so and fails, and the host reports that through its own message.
#pragma once

#include <cstdint>

#include "display.h"
#include "memarena.h"

constexpr uint64_t REEL_DEMO_ARENA_SIZE = 40ull * 1024 * 1024;

struct demosys {
    uint32_t quit;  // non-zero ends the host loop; first field by contract with the host
    xmemarena arena;
    int32_t mouse_buttons;
    int32_t mouse_x;
    int32_t mouse_y;
    int32_t mouse_dx;
    int32_t mouse_dy;
    uint32_t engine_enabled;
};

extern demosys demosys_global;

// 0 on success.
int demosys_init(demosys* sys, display_device* display);
void demosys_update(demosys* sys, display_device* display, const uint8_t* key_table, void* host);
void demosys_render(demosys* sys, display_device* display, const uint8_t* key_table, void* host);
void demosys_shutdown(demosys* sys);
