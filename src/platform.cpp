// Host loop arithmetic shared by the SDL host and the tests.
#include "platform.h"

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
