// Files for the asset-preparation tools: whole-file reads and the step that gives a complete
// temporary file its final name.
#include "prep_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

uint8_t* prep_file_read(const char* path, xmemarena* arena, uint64_t* size, char* why, size_t why_size)
{
    FILE* f = fopen(path, "rb");
    if (!f) {
        snprintf(why, why_size, "%s: %s", path, strerror(errno));
        return nullptr;
    }
    struct stat st;
    const int stat_error = fstat(fileno(f), &st) != 0 ? errno : S_ISDIR(st.st_mode) ? EISDIR : 0;
    if (stat_error || !S_ISREG(st.st_mode)) {
        snprintf(why, why_size, "%s: %s", path, stat_error ? strerror(stat_error) : "not a regular file");
        fclose(f);
        return nullptr;
    }
    const uint64_t mark = xmemarena_get_sp(arena);
    if ((uint64_t)st.st_size > xmemarena_free_size(arena) / 2) {
        snprintf(why, why_size, "%s: %s", path, strerror(EFBIG));
        fclose(f);
        return nullptr;
    }
    auto* data = (uint8_t*)xmemarena_push_align(arena, (uint64_t)st.st_size + 1, 32);
    const size_t got = fread(data, 1, (size_t)st.st_size, f);
    const int read_error = ferror(f) ? errno : 0;
    fclose(f);
    if (got != (size_t)st.st_size) {
        snprintf(why, why_size, "%s: %s", path, read_error ? strerror(read_error) : "the file shrank while it was read");
        xmemarena_set_sp(arena, mark);
        return nullptr;
    }
    *size = (uint64_t)st.st_size;
    return data;
}

int32_t prep_file_commit(const char* temporary, const char* path)
{
    struct stat st;
    if (stat(path, &st) != 0 || S_ISREG(st.st_mode)) {
        if (rename(temporary, path) == 0)
            return 0;
        const int e = errno;
        unlink(temporary);
        errno = e;
        return 1;
    }
    FILE* in = fopen(temporary, "rb");
    FILE* out = in ? fopen(path, "wb") : nullptr;
    bool ok = in && out;
    int e = ok ? 0 : errno;
    char buffer[1 << 16];
    while (ok && !e) {
        const size_t n = fread(buffer, 1, sizeof(buffer), in);
        if (n == 0)
            break;
        if (fwrite(buffer, 1, n, out) != n)
            e = errno ? errno : EIO;
    }
    if (out && fflush(out) != 0 && !e)
        e = errno;
    if (out && fclose(out) != 0 && !e)
        e = errno;
    if (in)
        fclose(in);
    unlink(temporary);
    errno = e;
    return e ? 1 : 0;
}
