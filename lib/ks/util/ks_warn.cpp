// Messages of last resort, straight to stderr.
#include <korvaks/ks_warn.h>

#include "base/ks_base.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

// The lock of the stream is recursive: it holds the pieces of a line together.
int write_line(const char *format, std::va_list args, const char *error_text)
{
    flockfile(stderr);
    (void)std::vfprintf(stderr, format, args); // there is nowhere left to report a failure
    if (error_text != nullptr) {
        (void)std::fputc(':', stderr);
        (void)std::fputs(error_text, stderr);
    }
    const int result = std::fputc('\n', stderr);
    funlockfile(stderr);
    return result;
}

} // namespace

extern "C" {

int ks_warn(const char *format, ...)
{
    const ks::ErrnoSaver saver;
    char buffer[256];
    const char *error_text = strerror_r(saver.saved(), buffer, sizeof buffer);
    std::va_list args;
    va_start(args, format);
    errno = saver.saved(); // for %m
    const int result = write_line(format, args, error_text);
    va_end(args);
    return result;
}

int ks_warnx(const char *format, ...)
{
    const ks::ErrnoSaver saver;
    std::va_list args;
    va_start(args, format);
    const int result = write_line(format, args, nullptr);
    va_end(args);
    return result;
}
}
