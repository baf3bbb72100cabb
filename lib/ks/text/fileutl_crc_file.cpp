// The file checksum over descriptors and files.
#include <korvaks/fileutl.h>

#include "base/ks_base.h"

#include <fcntl.h>

namespace {

constexpr std::size_t read_bytes = 8192;
constexpr int attempts_max = 5;

// Makes a call that gives a negative result and errno on failure, again while it is interrupted.
template <typename Call> auto with_attempts(Call call)
{
    auto result = call();
    for (int attempt = 1; result < 0 && errno == EINTR && attempt < attempts_max; ++attempt)
        result = call();
    return result;
}

int fail(int *out_errno)
{
    *out_errno = errno;
    return FILEUTL_CRC_FAILED;
}

} // namespace

extern "C" {

int fileutl_crc_fd(int fd, uint32_t *out_crc, uint64_t *out_bytes, int *out_errno)
{
    unsigned char block[read_bytes];
    uint32_t counter = 0;
    uint32_t crc = 0;
    uint64_t bytes = 0;
    for (;;) {
        const ssize_t got = with_attempts([&] { return read(fd, block, sizeof block); });
        if (got < 0)
            return fail(out_errno);
        if (got == 0)
            break;
        const auto count = static_cast<std::size_t>(got);
        (void)fileutl_crc_buffer_step(block, count, &counter, &crc); // left in `crc`
        bytes += count;
    }
    *out_crc = crc;
    if (out_bytes != nullptr)
        *out_bytes = bytes;
    return 0;
}

int fileutl_crc(const char *path, uint32_t *out_crc, int *out_errno)
{
    const ks::UniqueFd file(with_attempts([&] { return open(path, O_RDONLY | O_CLOEXEC); }));
    if (!file)
        return fail(out_errno);
    return fileutl_crc_fd(file.get(), out_crc, nullptr, out_errno);
}
}
