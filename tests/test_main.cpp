// Test entry: every test runs headless unless the environment asks for a real display or
// audio device (the X server run of the host tests sets its own drivers).
#include <gtest/gtest.h>

#include <cstdlib>

int main(int argc, char** argv)
{
    setenv("SDL_VIDEODRIVER", "offscreen", 0);
    setenv("SDL_AUDIODRIVER", "dummy", 0);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
