// reel_lint: checks a show's script and scene descriptions without playing it (see lint.h):
// from its packs (FOLDER/assets/reel/le/ or FOLDER/ itself) or from its source folder (the
// pack manifests FOLDER/pak0.manifest to pak2.manifest and the files they name).
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "lint.h"
#include "memarena.h"
#include "n3d_io.h"
#include "pack_manifest.h"
#include "reel.h"
#include "reel_fs.h"
#include "tool.h"

namespace {

constexpr uint64_t LINT_TOOL_ARENA_BYTES = 256ull << 20;  // untouched pages cost nothing
constexpr uint32_t LINT_TOOL_MAX_RESOURCES = 65536;

const char LINT_TOOL_USAGE[] =
    "usage: reel_lint [--no-timeline] [FOLDER]\n"
    "       reel_lint --scenes\n"
    "Checks the show in FOLDER (default: the current folder) without playing it: its packs in\n"
    "FOLDER/assets/reel/le/ or in FOLDER itself, or its source, the manifests FOLDER/pak0.manifest to\n"
    "pak2.manifest and the files they name. Prints every finding as FILE:LINE: error|warning: what,\n"
    "then the resolved timeline (start, end and load time of every row in seconds).\n"
    "  --no-timeline  findings only\n"
    "  --scenes       list the scene functions the engine knows, with their arguments\n"
    "Exit status: 0 without errors (warnings allowed), 1 with errors, 2 for wrong arguments.\n";

const tool_info LINT_TOOL = {"reel_lint", LINT_TOOL_USAGE};

struct lint_tool_show {
    lint_resource* resources;
    uint32_t count;
};

bool lint_tool_exists(const char* folder, const char* name)
{
    char path[TOOL_PATH_MAX];
    tool_join_path(path, folder, name);
    return access(path, R_OK) == 0;
}

void lint_tool_add(lint_tool_show* show, uint32_t kind, const char* name, const char* text)
{
    if (show->count == LINT_TOOL_MAX_RESOURCES)
        tool_fail("more than %u resources", LINT_TOOL_MAX_RESOURCES);
    show->resources[show->count++] = {kind, name, text};
}

// A block as a NUL-terminated text (a pack's texts usually carry their NUL, but need not).
const char* lint_tool_text(const uint8_t* data, uint32_t size, xmemarena* arena)
{
    auto* text = (char*)xmemarena_push(arena, (uint64_t)size + 1);
    memcpy(text, data, size);
    text[size] = 0;
    return text;
}

void lint_tool_read_packs(lint_tool_show* show, const char* folder, xmemarena* arena)
{
    for (uint32_t i = 0; i < REEL_PACK_COUNT; i++) {
        char name[32], path[TOOL_PATH_MAX];
        snprintf(name, sizeof(name), "pak%u.rpk", i);
        tool_join_path(path, folder, name);
        reel_fs_pack pack;
        reel_fs_open_file(&pack, path, arena);  // a damaged pack ends the program with its fault named
        for (uint32_t e = 0; e < pack.count; e++) {
            const reel_fs_entry* entry = &pack.entries[e];
            const bool text = entry->kind == REEL_KIND_RAW;
            lint_tool_add(show, entry->kind, entry->name, text ? lint_tool_text(entry->data, entry->size, arena) : nullptr);
        }
    }
}

void lint_tool_read_manifests(lint_tool_show* show, const char* folder, xmemarena* arena)
{
    for (uint32_t i = 0; i < REEL_PACK_COUNT; i++) {
        char name[32];
        snprintf(name, sizeof(name), "pak%u.manifest", i);
        auto* path = (char*)xmemarena_push(arena, TOOL_PATH_MAX);
        tool_join_path(path, folder, name);
        if (access(path, R_OK) != 0)
            continue;  // a show may leave a pack empty
        pack_manifest m = {path, 0, nullptr, 1};
        pack_manifest_read(&m, arena);
        for (uint32_t e = 0; e < m.count; e++) {
            const pack_manifest_entry* entry = &m.entries[e];
            const char* text = nullptr;
            if (entry->kind == REEL_KIND_RAW && !(text = file_read_text(entry->path, arena)))
                tool_fail("cannot read \"%s\" (the reason is above)", entry->path);
            lint_tool_add(show, entry->kind, entry->name, text);
        }
    }
}

}  // namespace

int main(int argc, char** argv)
{
    tool_begin(&LINT_TOOL, argc, argv);
    const char* folder = nullptr;
    uint32_t flags = LINT_PRINT_TIMELINE;
    for (int i = 1; i < argc; i++) {
        if (!strcmp(argv[i], "--scenes")) {
            lint_print_scenes(stdout);
            return 0;
        }
        if (!strcmp(argv[i], "--no-timeline"))
            flags &= ~LINT_PRINT_TIMELINE;
        else if (argv[i][0] == '-')
            tool_usage_error("unknown option \"%s\"", argv[i]);
        else if (folder)
            tool_usage_error("one folder only");
        else
            folder = argv[i];
    }
    if (!folder)
        folder = ".";

    void* memory = malloc(LINT_TOOL_ARENA_BYTES);
    if (!memory)
        tool_fail("no memory for %llu bytes", (unsigned long long)LINT_TOOL_ARENA_BYTES);
    xmemarena arena;
    xmemarena_init(&arena, "reel_lint", LINT_TOOL_ARENA_BYTES, memory);
    lint_tool_show show = {(lint_resource*)xmemarena_push_align(&arena, sizeof(lint_resource) * LINT_TOOL_MAX_RESOURCES,
                                                                 alignof(lint_resource)),
                           0};
    char packs[TOOL_PATH_MAX];
    tool_join_path(packs, folder, REEL_PACK_FOLDER);
    if (lint_tool_exists(packs, "pak0.rpk")) {
        printf("checking the packs in %s/\n", packs);
        lint_tool_read_packs(&show, packs, &arena);
    } else if (lint_tool_exists(folder, "pak0.rpk")) {
        printf("checking the packs in %s/\n", folder);
        lint_tool_read_packs(&show, folder, &arena);
    } else if (lint_tool_exists(folder, "pak0.manifest")) {
        printf("checking the show source in %s/ (its pack manifests)\n", folder);
        lint_tool_read_manifests(&show, folder, &arena);
    } else {
        tool_fail("no show in \"%s\": none of %s/pak0.rpk, %s/pak0.rpk, %s/pak0.manifest", folder, packs, folder, folder);
    }
    const lint_show view = {show.count, show.resources};
    const lint_result r = lint_check(&view, flags, &arena, stdout);
    printf("%u errors, %u warnings\n", r.errors, r.warnings);
    free(memory);
    return r.errors ? 1 : 0;
}
