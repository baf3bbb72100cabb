// Whole files as strings.
#include "util/strutl_impl.h"

#include "kernel/ks_guard.h"
#include "base/ks_msg.h"
#include "base/msg_port.h"

#include <korvaks/fileutl.h>

#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using ks::strutl::store;

constexpr std::size_t growth = 8192;

// Prints a message that ends with the text of errno, and leaves errno as it was.
template <typename... Arguments> void report_errno(bool quiet, unsigned msg_no, Arguments... arguments)
{
    const int error = errno;
    char buffer[64]; // for numbers that have no text
    if (!quiet)
        (void)imsg_print(ks::msg_error, &_ks_ks_msg_table, msg_no, arguments...,
                         strerror_r(error, buffer, sizeof buffer));
    errno = error;
}

void report_changed(bool quiet, const char *path)
{
    if (!quiet)
        (void)imsg_print(ks::msg_error, &_ks_ks_msg_table, ks_msg_file_changed_size, path);
    errno = EFBIG;
}

// A buffer for text; a fixed one never grows. It always ends with a NUL.
struct Contents {
    stg_area *area = STG_AREA_NULL;
    char *data = nullptr;
    std::size_t used = 0;
    std::size_t capacity = 0;

    bool resize(std::size_t wanted)
    {
        char *grown = static_cast<char *>(area == STG_AREA_HEAP ? stg_realloc(data, wanted) : stg_alloc(area, wanted));
        if (grown == nullptr)
            return false;
        if (area != STG_AREA_HEAP && used > 0)
            std::memcpy(grown, data, used);
        data = grown;
        data[used] = '\0';
        capacity = wanted;
        return true;
    }

    // Bytes that can be added in front of the NUL.
    std::size_t room() const { return capacity - used - 1; }

    bool grow()
    {
        std::size_t wanted = 0;
        return !__builtin_add_overflow(capacity, growth, &wanted) && resize(wanted);
    }

    // Gives the buffer up, with errno as it was. An area keeps it until it is cleared.
    void drop()
    {
        const int error = errno;
        char *dropped = data;
        data = nullptr;
        if (area == STG_AREA_HEAP)
            stg_free(dropped);
        errno = error;
    }
};

// The result of protected reading; a raise goes on when nothing is left behind.
char *pass_on(int32_t raised, Contents &contents)
{
    if (raised != 0) {
        contents.drop();
        pfm_raise(raised);
    }
    return contents.data;
}

enum class Outcome {
    whole,
    overflow,
    no_memory,
    failed,
};

// An interrupted call is made again, but not when a raise waits for it to end.
bool is_interrupted()
{
    return errno == EINTR && vlthread_pending_raise(nullptr) == 0;
}

// Reads up to `count` bytes; fewer only where the stream ends or fails. fgets() would lose what it had of a line
// when it is interrupted.
std::size_t read_bytes(FILE *fp, char *out, std::size_t count)
{
    std::size_t got = 0;
    for (;;) {
        got += std::fread(out + got, 1, count - got, fp);
        if (got == count || std::ferror(fp) == 0 || !is_interrupted())
            return got;
        std::clearerr(fp);
    }
}

// Takes `raw` bytes behind the text into it, as fgets() would take them: a NUL byte hides the rest of its line. Gives
// how many are left over, of a line that goes on.
std::size_t take_lines(Contents &contents, std::size_t raw, bool is_end)
{
    while (raw > 0) {
        char *at = contents.data + contents.used;
        if (std::memchr(at, '\0', raw) == nullptr) {
            contents.used += raw;
            break;
        }
        const auto *newline = static_cast<const char *>(std::memchr(at, '\n', raw));
        if (newline == nullptr && raw < contents.room() && !is_end)
            return raw;
        const std::size_t line = newline == nullptr ? raw : static_cast<std::size_t>(newline + 1 - at);
        const std::size_t shown = strnlen(at, line);
        raw -= line;
        std::memmove(at + shown, at + line, raw);
        contents.used += shown;
    }
    contents.data[contents.used] = '\0';
    return 0;
}

// Kept exactly: what fgets() calls with the room that is left would give.
Outcome read_lines(FILE *fp, Contents &contents, bool grows)
{
    std::size_t raw = 0; // bytes read that are not part of the text yet
    for (;;) {
        if (contents.room() == 0) {
            if (!grows)
                return Outcome::overflow;
            if (!contents.grow())
                return Outcome::no_memory;
        }
        const std::size_t wanted = contents.room() - raw;
        const std::size_t got = read_bytes(fp, contents.data + contents.used + raw, wanted);
        if (std::ferror(fp) != 0)
            return Outcome::failed;
        raw = take_lines(contents, raw + got, got < wanted);
        if (got < wanted)
            return Outcome::whole;
    }
}

// The caller drops the contents of anything but a success, and when a raise leaves this.
Outcome read_stream(FILE *fp, std::size_t size_hint, bool quiet, Contents &contents)
{
    if (!contents.resize(size_hint != 0 ? size_hint : growth))
        return Outcome::no_memory;
    const Outcome outcome = read_lines(fp, contents, size_hint == 0);
    if (outcome == Outcome::failed)
        report_errno(quiet, ks_msg_operation, "read");
    return outcome;
}

// Makes a call that gives `failure` and errno again while it is interrupted.
template <typename Result, typename Call> Result with_interruptions(Result failure, Call call)
{
    Result result = call();
    while (result == failure && is_interrupted())
        result = call();
    return result;
}

// Opens, reads and closes; the caller holds raises off.
Outcome read_path(const char *path, std::size_t size, bool quiet, Contents &contents)
{
    FILE *fp = with_interruptions<FILE *>(nullptr, [path] { return std::fopen(path, "r"); });
    if (fp == nullptr) {
        report_errno(quiet, ks_msg_unable_to_open, path);
        return Outcome::failed;
    }
    const Outcome outcome = read_stream(fp, size, quiet, contents);
    const int error = errno;
    (void)std::fclose(fp); // nothing was written
    errno = error;
    if (outcome == Outcome::overflow)
        report_changed(quiet, path);
    return outcome;
}

Outcome read_file(const char *path, bool quiet, bool missing_ok, Contents &contents)
{
    constexpr std::size_t spare = 2; // the NUL, and a byte that shows growth
    struct stat status {};
    if (fileutl_stat(path, &status) != 0) {
        if (errno == ENOENT && missing_ok)
            return contents.resize(1) ? Outcome::whole : Outcome::no_memory;
        report_errno(quiet, ks_msg_unable_to_open, path);
        return Outcome::failed;
    }
    if (fileutl_chk_large_file_overflow(&status) != 0) {
        report_errno(quiet, ks_msg_unable_to_open, path);
        return Outcome::failed;
    }
    return read_path(path, static_cast<std::size_t>(status.st_size) + spare, quiet, contents);
}

bool write_text(int fd, const char *text)
{
    for (std::size_t left = std::strlen(text); left > 0;) {
        const ssize_t put = with_interruptions<ssize_t>(-1, [=] { return write(fd, text, left); });
        if (put < 0)
            return false;
        text += put;
        left -= static_cast<std::size_t>(put);
    }
    return true;
}

bool write_and_close(int fd, const char *text)
{
    const bool written = write_text(fd, text);
    const int error = errno;
    const bool closed = close(fd) == 0;
    if (!written)
        errno = error;
    return written && closed;
}

} // namespace

extern "C" {

char *strutl_read(stg_area *area, const char *path, [[maybe_unused]] const void *ignored, int quiet, int missing_ok)
{
    Contents contents{area};
    const int32_t raised = ks::protect([&] {
        const ks::InhibitGuard no_raises;
        if (read_file(path, quiet != 0, missing_ok != 0, contents) != Outcome::whole)
            contents.drop();
    });
    return pass_on(raised, contents);
}

char *strutl_read_fp(stg_area *area, size_t size_hint, FILE *fp, int quiet, int *out_overflow)
{
    Contents contents{area};
    int overflow = 0;
    const int32_t raised = ks::protect([&] {
        const Outcome outcome = read_stream(fp, size_hint, quiet != 0, contents);
        overflow = outcome == Outcome::overflow ? 1 : 0;
        if (outcome != Outcome::whole && outcome != Outcome::overflow)
            contents.drop();
    });
    store(out_overflow, overflow);
    return pass_on(raised, contents);
}

unsigned strutl_write(const char *text, const char *path, [[maybe_unused]] const void *ignored, int quiet)
{
    if (text == nullptr)
        return 0;
    const ks::InhibitGuard no_raises;
    constexpr int flags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC;
    const int fd = with_interruptions<int>(-1, [path] { return open(path, flags, 0666); });
    if (fd < 0) {
        report_errno(quiet != 0, ks_msg_unable_to_open, path);
        return 1;
    }
    if (!write_and_close(fd, text)) {
        report_errno(quiet != 0, ks_msg_operation_on, "write", path);
        return 1;
    }
    return 0;
}
}
