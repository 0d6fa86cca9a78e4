// Process entry: no argument plays the show, any argument runs the rasterizer benchmark.
#include <cstdint>
#include <cstdio>

#include "diag.h"
#include "n3d_benchmark.h"
#include "reel.h"
#include "sdl2_winmain.h"

// Read by hybrid-graphics drivers on Windows to pick the high-performance graphics processor;
// harmless elsewhere.
extern "C" {
__attribute__((visibility("default"), used)) uint32_t NvOptimusEnablement = 1;
__attribute__((visibility("default"), used)) int AmdPowerXpressRequestHighPerformance = 1;
}

int main(int argc, char** argv)
{
    (void)argv;  // only the count matters
    platform* p = &platform_global;
    platform_init(p);
    prof_init();
    if (argc >= 2) {
        n3d_benchmark(&p->display);
        return 0;
    }
    if (demosys_init(&demosys_global, &p->display) != 0) {
        printf("failed init demosys\n");
        return 1;
    }
    platform_choose_packs(&demosys_global);
    return platform_run(p);
}
