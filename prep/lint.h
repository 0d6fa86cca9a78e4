// The script linter: reads a show's sequence.csv and the scene descriptions it names, without
// playing anything, and reports what the engine would refuse (errors) and what it would accept
// but read loosely or not as meant (warnings), each as "FILE:LINE: error|warning: what", then
// the resolved timeline: the absolute start, end and load time of every row.
//
// It is stricter than the engine on purpose: the engine reads "4x8" as 4 and a colour
// component of 300 as 44 without a word, the linter says so. The scene functions it knows are
// the engine's scene table; the arguments of each come from the descriptions in lint.cpp, and
// a scene added to the table without one is reported as not checked.
#pragma once

#include <cstdint>
#include <cstdio>

#include "memarena.h"

// One block of the show's packs (or of its manifests): kind and name, and for texts (kind raw)
// their NUL-terminated contents, else null.
struct lint_resource {
    uint32_t kind;
    const char* name;
    const char* text;
};

struct lint_show {
    uint32_t count;
    const lint_resource* resources;
};

struct lint_result {
    uint32_t errors;
    uint32_t warnings;
    uint32_t notes;
};

constexpr uint32_t LINT_PRINT_TIMELINE = 1;

// Checks the show's "sequence.csv" (kind raw) and every description it names; findings and,
// with LINT_PRINT_TIMELINE and a script the engine accepts, the timeline go to out. Scratch
// comes from arena under a mark.
lint_result lint_check(const lint_show* show, uint32_t flags, xmemarena* arena, FILE* out);

// Prints the scene functions of the engine's table with their arguments, one per line.
void lint_print_scenes(FILE* out);
