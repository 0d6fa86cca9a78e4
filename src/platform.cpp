// Host loop arithmetic shared by the SDL host and the tests.
#include "platform.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>

platform_rect platform_destination_rect(int32_t window_w, int32_t window_h)
{
    const float aspect = (float)PLATFORM_FRAMEBUFFER_WIDTH / (float)PLATFORM_FRAMEBUFFER_HEIGHT;
    const float width = (float)window_h * aspect;
    platform_rect r;
    r.x = (int32_t)((float)window_w - width) / 2;
    r.y = 0;
    r.w = (int32_t)width;
    r.h = window_h;
    return r;
}

int32_t platform_scale_mouse_x(int32_t x)
{
    return (int32_t)((float)x / (float)PLATFORM_NOMINAL_WINDOW_WIDTH * (float)PLATFORM_FRAMEBUFFER_WIDTH);
}

int32_t platform_scale_mouse_y(int32_t y)
{
    return (int32_t)((float)y / (float)PLATFORM_NOMINAL_WINDOW_HEIGHT * (float)PLATFORM_FRAMEBUFFER_HEIGHT);
}

uint32_t platform_fill_key_table(uint8_t* key_table, const uint8_t* state, int32_t n,
                                 platform_key_from_scancode_fn* key_from_scancode)
{
    memset(key_table, 0, PLATFORM_KEY_TABLE_SIZE);
    for (int32_t s = 0; s < n; s++) {
        if (!state[s])
            continue;
        if (s == PLATFORM_SCANCODE_ESCAPE)
            return 1;
        const int32_t k = key_from_scancode(s);
        if (k >= 0 && k < (int32_t)PLATFORM_KEY_TABLE_SIZE)
            key_table[k] = state[s];
    }
    return 0;
}

void platform_find_packs(platform_pack_search* search, const char* folder, const char* first_pack,
                         const char* exe_dir)
{
    memset(search, 0, sizeof(*search));
    search->found = -1;
    snprintf(search->tried[search->tried_count++], PLATFORM_PATH_MAX, "%s", folder);
    if (exe_dir) {
        snprintf(search->tried[search->tried_count++], PLATFORM_PATH_MAX, "%s%s", exe_dir, folder);
        snprintf(search->tried[search->tried_count++], PLATFORM_PATH_MAX, "%s../%s", exe_dir, folder);
    }
    for (uint32_t i = 0; i < search->tried_count; i++) {
        char path[PLATFORM_PATH_MAX + 64];
        snprintf(path, sizeof(path), "%s/%s", search->tried[i], first_pack);
        if (access(path, R_OK) == 0) {
            search->found = (int32_t)i;
            return;
        }
    }
}

void platform_frame_stats_add(platform_frame_stats* stats, uint64_t now)
{
    const uint64_t ticks = now - stats->last;
    stats->frames++;
    stats->ticks_sum += ticks;
    stats->ticks_worst = ticks > stats->ticks_worst ? ticks : stats->ticks_worst;
    stats->last = now;
}

void platform_print_summary(const platform_frame_stats* stats, uint64_t loop_ticks, uint64_t ticks_per_second)
{
    const double ms_per_tick = 1000.0 / (double)ticks_per_second;
    const double mean = stats->frames ? (double)stats->ticks_sum / (double)stats->frames * ms_per_tick : 0.0;
    printf("played %.2f s: %llu frames presented, frame time mean %.2f ms, worst %.2f ms\n",
           (double)loop_ticks / (double)ticks_per_second, (unsigned long long)stats->frames, mean,
           (double)stats->ticks_worst * ms_per_tick);
}
