// Engine entry points. Until the engine frame lands, initialisation reports that it is
// missing and fails, so the program ends honestly instead of showing a blank screen.
#include "reel.h"

#include <cstdio>
#include <cstring>

demosys demosys_global;

int demosys_init(demosys* sys, display_device* display)
{
    (void)display;
    memset(sys, 0, sizeof(*sys));
    printf("demosys: the show engine is not part of this build yet\n");
    return 1;
}

void demosys_update(demosys* sys, display_device* display, const uint8_t* key_table, void* host)
{
    (void)sys, (void)display, (void)key_table, (void)host;
}

void demosys_render(demosys* sys, display_device* display, const uint8_t* key_table, void* host)
{
    (void)sys, (void)display, (void)key_table, (void)host;
}

void demosys_shutdown(demosys* sys) { (void)sys; }
