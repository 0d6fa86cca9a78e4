// Command-line manners and safe output files shared by every tool (see tool.h).
#include "tool.h"

#include "prep_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "bitmap.h"
#include "memarena.h"

namespace {

// Temporary files that exist right now; a tool writes only a few at a time.
constexpr int32_t TOOL_PENDING_MAX = 16;

struct tool_state {
    const tool_info* info;
    char pending[TOOL_PENDING_MAX][TOOL_PATH_MAX];  // empty string: a free slot
    uint32_t cleanup_installed;
};

tool_state tool_global;

const char* tool_name() { return tool_global.info ? tool_global.info->name : "tool"; }

void tool_remove_pending()
{
    for (int32_t i = 0; i < TOOL_PENDING_MAX; i++)
        if (tool_global.pending[i][0]) {
            unlink(tool_global.pending[i]);  // async-signal-safe, so the signal handler may use it
            tool_global.pending[i][0] = 0;
        }
}

void tool_on_signal(int sig)
{
    tool_remove_pending();
    signal(sig, SIG_DFL);
    raise(sig);
}

void tool_vprint(FILE* f, const char* fmt, va_list args)
{
    fflush(stdout);
    fprintf(f, "%s: ", tool_name());
    vfprintf(f, fmt, args);
    fputc('\n', f);
}

int32_t tool_register(const char* temp)
{
    for (int32_t i = 0; i < TOOL_PENDING_MAX; i++)
        if (!tool_global.pending[i][0]) {
            snprintf(tool_global.pending[i], TOOL_PATH_MAX, "%s", temp);
            return i;
        }
    tool_fail("more than %d output files open at once", TOOL_PENDING_MAX);
}

void tool_unregister(tool_output* o)
{
    if (o->slot >= 0)
        tool_global.pending[o->slot][0] = 0;
    o->slot = -1;
}

}  // namespace

void tool_begin(const tool_info* info, int argc, char** argv)
{
    tool_global.info = info;
    if (!tool_global.cleanup_installed) {
        tool_global.cleanup_installed = 1;
        atexit(tool_remove_pending);
        signal(SIGINT, tool_on_signal);
        signal(SIGTERM, tool_on_signal);
    }
    for (int i = 1; i < argc; i++) {
        if (!strcmp(argv[i], "--"))
            break;
        if (!strcmp(argv[i], "--help") || !strcmp(argv[i], "-h")) {
            fputs(info->usage, stdout);
            exit(0);
        }
    }
}

void tool_usage_error(const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    tool_vprint(stderr, fmt, args);
    va_end(args);
    fputs(tool_global.info ? tool_global.info->usage : "", stderr);
    exit(TOOL_EXIT_USAGE);
}

void tool_fail(const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    tool_vprint(stderr, fmt, args);
    va_end(args);
    exit(TOOL_EXIT_FAILURE);
}

const char* tool_option_value(int argc, char** argv, int* i)
{
    if (*i + 1 >= argc)
        tool_usage_error("%s needs a value", argv[*i]);
    *i += 1;
    return argv[*i];
}

const char* tool_one_operand(int argc, char** argv, const char* what)
{
    if (argc < 2)
        tool_usage_error("no %s", what);
    if (argv[1][0] == '-')
        tool_usage_error("unknown option \"%s\"", argv[1]);
    if (argc > 2)
        tool_usage_error("one %s only", what);
    return argv[1];
}

const char* tool_one_operand_with_option(int argc, char** argv, const char* what, const char* option, const char** value)
{
    const char* operand = nullptr;
    for (int i = 1; i < argc; i++) {
        if (strcmp(argv[i], option) == 0)
            *value = tool_option_value(argc, argv, &i);
        else if (argv[i][0] == '-')
            tool_usage_error("unknown option \"%s\"", argv[i]);
        else if (operand)
            tool_usage_error("one %s only", what);
        else
            operand = argv[i];
    }
    if (!operand)
        tool_usage_error("no %s", what);
    return operand;
}

uint64_t tool_parse_u64(const char* option, const char* text, uint64_t min, uint64_t max)
{
    char* end = nullptr;
    errno = 0;
    const unsigned long long v = strtoull(text, &end, 10);
    if (text[0] >= '0' && text[0] <= '9' && !*end && !errno && v >= min && v <= max)
        return v;
    if (max == UINT64_MAX)
        tool_usage_error("%s needs a whole number of at least %llu, not \"%s\"", option, (unsigned long long)min, text);
    tool_usage_error("%s needs a whole number from %llu to %llu, not \"%s\"", option, (unsigned long long)min,
                     (unsigned long long)max, text);
}

double tool_parse_double(const char* option, const char* text, double min, double max)
{
    char* end = nullptr;
    errno = 0;
    const double v = strtod(text, &end);
    if (end == text || *end || errno || !std::isfinite(v) || v < min || v > max)
        tool_usage_error("%s needs a number from %g to %g, not \"%s\"", option, min, max, text);
    return v;
}

void tool_join_path(char* out, const char* dir, const char* name)
{
    if (snprintf(out, TOOL_PATH_MAX, "%s/%s", dir, name) >= (int)TOOL_PATH_MAX)
        tool_fail("path too long: \"%s/%s\"", dir, name);
}

void tool_make_dir(const char* path)
{
    if (!path[0])
        tool_fail("cannot create a folder with an empty name");
    char partial[TOOL_PATH_MAX];
    const size_t length = strlen(path);
    if (length >= TOOL_PATH_MAX)
        tool_fail("folder name too long: \"%s\"", path);
    memcpy(partial, path, length + 1);
    // every parent first, then the folder itself; "a//b/" and a leading "/" are fine
    for (size_t i = 1; i <= length; i++) {
        if (partial[i] != '/' && partial[i] != 0)
            continue;
        const char kept = partial[i];
        partial[i] = 0;
        struct stat st;
        if (stat(partial, &st) == 0) {
            if (!S_ISDIR(st.st_mode))
                tool_fail("cannot create folder \"%s\": \"%s\" exists and is not a folder", path, partial);
        } else if (mkdir(partial, 0777) != 0 && errno != EEXIST) {
            tool_fail("cannot create folder \"%s\": %s", partial, strerror(errno));
        }
        partial[i] = kept;
    }
}

void tool_make_parent_dir(const char* path)
{
    const char* slash = strrchr(path, '/');
    if (!slash || slash == path)
        return;
    char dir[TOOL_PATH_MAX];
    if ((size_t)(slash - path) >= TOOL_PATH_MAX)
        tool_fail("folder name too long: \"%s\"", path);
    memcpy(dir, path, (size_t)(slash - path));
    dir[slash - path] = 0;
    tool_make_dir(dir);
}

// Where the bytes for path go first, registered for clean-up: beside the final name, so that
// the rename stays within one file system, and with its extension, for writers that choose a
// format by it ("a/show.mp4" -> "a/show.tmp123.mp4"); in $TMPDIR when the path is a device.
static void tool_output_temp(tool_output* o, const char* path, bool device)
{
    const char* dir = getenv("TMPDIR");
    char base[TOOL_PATH_MAX];
    snprintf(base, TOOL_PATH_MAX, "%s/%s", dir && dir[0] ? dir : "/tmp", tool_name());
    const char* name = device ? base : path;
    const char* slash = strrchr(name, '/');
    const char* dot = strrchr(name, '.');
    const size_t stem = dot && dot > (slash ? slash + 1 : name) ? (size_t)(dot - name) : strlen(name);
    snprintf(o->temp, TOOL_PATH_MAX, "%.*s.tmp%ld%s", (int)stem, name, (long)getpid(), name + stem);
    o->slot = tool_register(o->temp);
}

static void tool_output_start(tool_output* o, const char* path, bool by_path)
{
    memset(o, 0, sizeof(*o));
    o->slot = -1;
    if (!path[0])
        tool_fail("an output file needs a name");
    if (strlen(path) + 64 >= TOOL_PATH_MAX)
        tool_fail("file name too long: \"%s\"", path);
    snprintf(o->path, TOOL_PATH_MAX, "%s", path);
    struct stat st;
    const bool exists = stat(path, &st) == 0;
    if (exists && S_ISDIR(st.st_mode))
        tool_fail("cannot write \"%s\": %s", path, strerror(EISDIR));
    if (exists && !S_ISREG(st.st_mode)) {
        // a device or a pipe: no rename can replace it, and none should; a writer that takes
        // a path writes a temporary file that is copied in at the end
        o->direct = 1;
        if (by_path)
            tool_output_temp(o, path, true);
        else
            snprintf(o->temp, TOOL_PATH_MAX, "%s", path);
        return;
    }
    tool_output_temp(o, path, false);
}

void tool_output_begin(tool_output* o, const char* path)
{
    tool_output_start(o, path, true);
    // a path that cannot be written is said now, with the reason, not by the writer later
    FILE* probe = fopen(o->temp, "wb");
    if (!probe) {
        const int e = errno;
        tool_unregister(o);
        tool_fail("cannot write \"%s\": %s", path, strerror(e));
    }
    fclose(probe);
}

void tool_output_open(tool_output* o, const char* path)
{
    tool_output_start(o, path, false);
    o->file = fopen(o->temp, "wb");
    if (!o->file) {
        const int e = errno;
        tool_unregister(o);
        tool_fail("cannot write \"%s\": %s", path, strerror(e));
    }
}

void tool_output_write(tool_output* o, const void* data, size_t bytes)
{
    if (bytes && fwrite(data, 1, bytes, o->file) != bytes)
        tool_fail("cannot write \"%s\": %s", o->path, strerror(errno));
}

void tool_output_commit(tool_output* o)
{
    if (o->file) {
        FILE* f = o->file;
        o->file = nullptr;
        const bool flushed = fflush(f) == 0;
        const int e = errno;
        if (fclose(f) != 0 || !flushed)
            tool_fail("cannot write \"%s\": %s", o->path, strerror(flushed ? errno : e));
    }
    if (o->slot < 0)
        return;  // written in place
    if (prep_file_commit(o->temp, o->path) != 0) {
        tool_unregister(o);
        tool_fail("cannot write \"%s\": %s", o->path, strerror(errno));
    }
    tool_unregister(o);
}

void tool_output_abandon(tool_output* o)
{
    if (o->file)
        fclose(o->file);
    o->file = nullptr;
    if (o->slot >= 0)
        unlink(o->temp);
    tool_unregister(o);
}

void tool_write_file(const char* path, const void* head, size_t head_bytes, const void* data, size_t bytes)
{
    tool_output o;
    tool_output_open(&o, path);
    tool_output_write(&o, head, head_bytes);
    tool_output_write(&o, data, bytes);
    tool_output_commit(&o);
}

void tool_write_resource(const char* path, const void* block, size_t bytes)
{
    const uint32_t marker = BYTE_ORDER_MARKER;  // in this machine's order, as the block is
    tool_make_parent_dir(path);
    tool_write_file(path, &marker, sizeof(marker), block, bytes);
}

void tool_save_png(const bitmap* bm, const char* path, xmemarena* tmp)
{
    const uint64_t mark = xmemarena_get_sp(tmp);
    uint64_t bytes = 0;
    const uint8_t* png = bitmap_encode_png(bm, tmp, &bytes);
    if (!png)
        tool_fail("cannot encode \"%s\" as PNG", path);
    tool_write_file(path, png, bytes, nullptr, 0);
    xmemarena_set_sp(tmp, mark);
}
