// Flags of descriptors.
#include <korvaks/sysutl.h>

#include <fcntl.h>

extern "C" int sysutl_set_cloexec_file(int fd)
{
    const int flags = fcntl(fd, F_GETFD);
    if (flags < 0)
        return -1;
    return fcntl(fd, F_SETFD, flags | FD_CLOEXEC) < 0 ? -1 : 0;
}
