// The reference rasterizers: the first, straightforward form of every variant, kept so that
// rewrites of the engine's variants can be checked pixel for pixel.
#pragma once

#include <cstdint>

#include "n3d_rasterizers.h"

namespace raster_reference {
// Draws with the reference form of the variant registered under these flags; -1 if none.
int draw(uint32_t registry_flags, n3d_raster_call* call);
}  // namespace raster_reference
