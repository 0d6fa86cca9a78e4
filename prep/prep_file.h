// Files for the asset-preparation tools: reads that report the path and the system's reason,
// and the rename that puts a complete temporary file into place (tool.h writes through it).
#pragma once

#include <cstddef>
#include <cstdint>

#include "memarena.h"

// The whole file into a 32-byte-aligned block from arena, or null with the arena as it was and
// "PATH: REASON" in why.
uint8_t* prep_file_read(const char* path, xmemarena* arena, uint64_t* size, char* why, size_t why_size);

// Gives a complete temporary file its final name: renamed over PATH, or, when PATH is a device
// or a pipe (/dev/stdout, /dev/full), which no rename may replace, copied into it and removed.
// 0, or 1 with the system's reason in errno and the temporary file removed.
int32_t prep_file_commit(const char* temporary, const char* path);
