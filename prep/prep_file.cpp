// Files for the asset-preparation tools: whole-file reads, folder creation and writes that
// become visible only when complete.
#include "prep_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

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

int32_t prep_file_make_dirs(const char* path, char* why, size_t why_size)
{
    std::string p = path;
    for (size_t i = 1; i <= p.size(); i++) {
        if (i < p.size() && p[i] != '/')
            continue;
        const std::string part = p.substr(0, i);
        struct stat st;
        if (mkdir(part.c_str(), 0777) != 0 && errno != EEXIST) {
            snprintf(why, why_size, "%s: %s", part.c_str(), strerror(errno));
            return 1;
        }
        if (stat(part.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
            snprintf(why, why_size, "%s: %s", part.c_str(), strerror(ENOTDIR));
            return 1;
        }
    }
    return 0;
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

int32_t prep_file_write(const char* path, const void* data, uint64_t size, char* why, size_t why_size)
{
    const char* slash = strrchr(path, '/');
    if (slash && slash != path && prep_file_make_dirs(std::string(path, (size_t)(slash - path)).c_str(), why, why_size))
        return 1;
    const std::string temporary = std::string(path) + ".tmp-" + std::to_string((long)getpid());
    FILE* f = fopen(temporary.c_str(), "wb");
    if (!f) {
        snprintf(why, why_size, "%s: %s", temporary.c_str(), strerror(errno));
        return 1;
    }
    const bool written = fwrite(data, 1, (size_t)size, f) == size;
    const int write_error = errno;
    if (fclose(f) != 0 || !written) {
        snprintf(why, why_size, "%s: %s", temporary.c_str(), strerror(written ? errno : write_error));
        unlink(temporary.c_str());
        return 1;
    }
    if (prep_file_commit(temporary.c_str(), path) != 0) {
        snprintf(why, why_size, "%s: %s", path, strerror(errno));
        return 1;
    }
    return 0;
}
