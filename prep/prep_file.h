// Files for the asset-preparation tools, with Unix manners: reads that report the path and the
// system's reason, outputs written under a temporary name and renamed into place (so a failed
// or interrupted run leaves no half-written file), and output folders created as needed.
#pragma once

#include <cstddef>
#include <cstdint>

#include "memarena.h"

// The whole file into a 32-byte-aligned block from arena, or null with the arena as it was and
// "PATH: REASON" in why.
uint8_t* prep_file_read(const char* path, xmemarena* arena, uint64_t* size, char* why, size_t why_size);

// Creates the folder and every missing parent (an existing folder is fine): 0, or 1 with
// "PATH: REASON" in why.
int32_t prep_file_make_dirs(const char* path, char* why, size_t why_size);

// Gives a complete temporary file its final name: renamed over PATH, or, when PATH is a device
// or a pipe (/dev/stdout, /dev/full), which no rename may replace, copied into it and removed.
// 0, or 1 with the system's reason in errno and the temporary file removed.
int32_t prep_file_commit(const char* temporary, const char* path);

// Writes the bytes to PATH.tmp-PID, creating the file's folder first, then renames it to PATH:
// 0, or 1 with "PATH: REASON" in why and no file left behind.
int32_t prep_file_write(const char* path, const void* data, uint64_t size, char* why, size_t why_size);
