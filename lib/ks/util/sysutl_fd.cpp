// Flags of descriptors, and files opened with care.
#include <korvaks/sysutl.h>

#include "base/ks_base.h"
#include "util/ks_open.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// 0, or the errno that says why the file is not the caller's alone.
int refusal_of_foreign(int fd)
{
    struct stat st;
    if (fstat(fd, &st) != 0)
        return errno;
    if (!S_ISREG(st.st_mode))
        return EINVAL;
    if (st.st_nlink != 1)
        return EMLINK;
    return st.st_uid == geteuid() || st.st_uid == 0 ? 0 : EPERM;
}

} // namespace

namespace ks {

int open_own_file(const char *path, int flags, mode_t mode)
{
    return open_judged(path, flags, mode, refusal_of_foreign);
}

int open_judged(const char *path, int flags, mode_t mode, int (*refusal_of)(int fd))
{
    // Without blocking, as the name may be a pipe's that nobody reads.
    constexpr int careful = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    UniqueFd fd;
    do
        fd.reset(open(path, flags | careful, mode));
    while (!fd && errno == EINTR);
    if (!fd)
        return -1;
    if (const int refusal = refusal_of(fd.get()); refusal != 0) {
        fd.reset();
        errno = refusal;
        return -1;
    }
    return above_stdio(fd.release());
}

} // namespace ks

extern "C" int sysutl_set_cloexec_file(int fd)
{
    const int flags = fcntl(fd, F_GETFD);
    if (flags < 0)
        return -1;
    return fcntl(fd, F_SETFD, flags | FD_CLOEXEC) < 0 ? -1 : 0;
}
