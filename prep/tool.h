// What every program in tools/ does the same way, so that they all behave like Unix tools:
//
// - `--help` (or `-h`) anywhere on the command line prints the usage to standard output and
//   exits with status 0; wrong arguments print the reason and the usage to standard error and
//   exit with status 2; any other failure prints "<tool>: <what failed>" with the path and the
//   system's reason to standard error and exits with status 1.
// - Output folders are created with their parents (a path that exists and is not a folder is
//   refused with a reason).
// - Output files are written under a temporary name beside the final one and renamed when
//   complete, so a failed or interrupted run never leaves a half-written file under the final
//   name; temporary files still open at exit or on SIGINT / SIGTERM are removed. A path that
//   exists and is not a regular file (/dev/stdout, a pipe, /dev/full) is written directly.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "diag.h"

struct bitmap;
struct xmemarena;

constexpr uint32_t TOOL_PATH_MAX = 4096;
constexpr int TOOL_EXIT_FAILURE = 1;
constexpr int TOOL_EXIT_USAGE = 2;

struct tool_info {
    const char* name;   // "reel_capture": the prefix of every message
    const char* usage;  // the whole usage text, ending with a line feed
};

// Remembers the tool for later messages, installs the clean-up of temporary files and handles
// `--help` / `-h` (arguments after a lone "--" are not looked at).
void tool_begin(const tool_info* info, int argc, char** argv);

// "<tool>: <message>\n" and the usage on standard error, exit status 2.
[[noreturn]] void tool_usage_error(const char* fmt, ...) DIAG_PRINTF(1, 2);
// "<tool>: <message>\n" on standard error, exit status 1.
[[noreturn]] void tool_fail(const char* fmt, ...) DIAG_PRINTF(1, 2);

// The value after option argv[*i]; advances *i. A missing value is a usage error.
const char* tool_option_value(int argc, char** argv, int* i);
// The one operand of a tool that takes exactly one (named `what` in messages); anything else,
// an option included, is a usage error.
const char* tool_one_operand(int argc, char** argv, const char* what);
// The same with one option that takes a value: `option` VALUE may come anywhere, its value is
// stored in *value (left as it is when the option is not given).
const char* tool_one_operand_with_option(int argc, char** argv, const char* what, const char* option, const char** value);
// A whole number in [min, max] written in base 10 and nothing else; otherwise a usage error
// that names the option.
uint64_t tool_parse_u64(const char* option, const char* text, uint64_t min, uint64_t max);
// A finite decimal number in [min, max]; otherwise a usage error.
double tool_parse_double(const char* option, const char* text, double min, double max);

// dir + "/" + name into out (TOOL_PATH_MAX bytes); a path too long fails (status 1).
void tool_join_path(char* out, const char* dir, const char* name);
// Creates the folder and its parents; an existing folder is fine. Fails (status 1) with the
// path and the system's reason.
void tool_make_dir(const char* path);
// Creates the folder that holds the file `path` names, with its parents ("a/b/c.png": "a/b").
void tool_make_parent_dir(const char* path);

// One output file on its way to its final name.
struct tool_output {
    FILE* file;                   // open while written through tool_output_write
    char path[TOOL_PATH_MAX];     // the final name
    char temp[TOOL_PATH_MAX];     // where it is written; equal to path when written in place
    uint32_t direct;              // 1: path is a device or a pipe, which no rename may replace
    int32_t slot;                 // its entry in the clean-up list, -1 when none
};

// For writers that take a path: chooses the name to write under (o->temp), checks that it can
// be created (fails with the reason) and registers it for clean-up. For a device the bytes
// go to a file in $TMPDIR that tool_output_commit copies in.
void tool_output_begin(tool_output* o, const char* path);
// Opens the file to write through tool_output_write: under a temporary name, or in place for
// a device or a pipe (so /dev/stdout streams). Fails with the reason.
void tool_output_open(tool_output* o, const char* path);
// Writes all bytes or fails with the final path and the system's reason.
void tool_output_write(tool_output* o, const void* data, size_t bytes);
// Flushes and closes the file if open, then gives it its final name; fails with the reason.
void tool_output_commit(tool_output* o);
// Removes the temporary file (a failure that the tool reports itself).
void tool_output_abandon(tool_output* o);

// The whole file at once: head then data.
void tool_write_file(const char* path, const void* head, size_t head_bytes, const void* data, size_t bytes);
// A resource file, its folder created: the byte-order marker in this machine's order, then the
// block.
void tool_write_resource(const char* path, const void* block, size_t bytes);
// The picture as a PNG, through a temporary name; fails with the path and the reason.
void tool_save_png(const bitmap* bm, const char* path, xmemarena* tmp);
