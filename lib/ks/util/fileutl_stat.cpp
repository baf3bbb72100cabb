// Questions about files.
#include <korvaks/fileutl.h>

#include "base/ks_base.h"

#include <cstdint>

namespace {

// What a string needs beside the bytes of a file.
constexpr int64_t string_extra_bytes = 2;

} // namespace

extern "C" {

int fileutl_stat(const char *path, struct stat *out)
{
    struct stat found {};
    int result = -1;
    do {
        result = stat(path, &found);
    } while (result != 0 && errno == EINTR);
    if (result == 0)
        *out = found;
    return result;
}

int fileutl_exists(const char *path)
{
    const ks::ErrnoSaver saver;
    struct stat ignored;
    return fileutl_stat(path, &ignored) == 0 ? 1 : 0;
}

int fileutl_chk_large_file_overflow(const struct stat *st)
{
    if (st->st_size >= 0 && st->st_size <= PTRDIFF_MAX - string_extra_bytes)
        return 0;
    errno = EFBIG;
    return 1;
}
}
