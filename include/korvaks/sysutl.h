/**
 * @file sysutl.h
 * Small services around the system: umask, descriptors, names of host and user.
 *
 * Results: 0, or -1 with errno. Any thread may call anything here. Nothing here prints or raises.
 */
#ifndef KORVAKS_SYSUTL_H
#define KORVAKS_SYSUTL_H

#include <sys/types.h>

#include <korvaks/base.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Records the process's umask, if no call of this or of sysutl_get_umask() has done so before.
 * ks_system_init() calls it, so that the answer is the one the process was started with.
 *
 * The umask is read from /proc/self/status. Where that does not tell it, umask(2) is set to 077 for a
 * moment and back: files that other threads make meanwhile are open to their owner alone.
 *
 * Threads: any; the first value that a thread has read stands.
 * Raises:  no. errno is unchanged.
 */
KS_API void sysutl_umask_init(void);

/**
 * The umask that the process had at its start: at the first call of this or of sysutl_umask_init(). It does
 * not follow later calls of umask(2).
 *
 * @return permission bits, 0 to 0777; it cannot fail. errno is unchanged.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API mode_t sysutl_get_umask(void);

/**
 * How many descriptors the process may have: the soft limit (RLIMIT_NOFILE, getrlimit(2)), at most KS_FD_MAX.
 * It is read once, at the first call (ks_system_init() makes one), and kept: later changes of the limit
 * are not seen. The limit itself is not changed.
 *
 * @return the number; KS_FD_MAX also when there is no limit or it cannot be read. errno is unchanged.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API int sysutl_get_max_fds(void);

/**
 * Marks a descriptor close-on-exec (FD_CLOEXEC); its other flags stay. Descriptors that another thread's
 * fork may catch in between are better opened with O_CLOEXEC.
 *
 * @param fd  an open descriptor
 * @return 0; -1 with errno EBADF when it is not open.
 *
 * Threads: any; also from signal handlers.
 * Raises:  no.
 */
KS_API int sysutl_set_cloexec_file(int fd);

/**
 * Gives the host's name as the kernel has it (uname(2)): with or without a domain, as it was set.
 *
 * @param buf   receives the name and its NUL; unchanged on failure
 * @param size  bytes of `buf`. 65 are enough for any name; 0 is too small for every one.
 * @return 0; -1 with errno ENAMETOOLONG when name and NUL do not fit.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API int sysutl_myhostname(char *buf, size_t size);

/**
 * Gives the host's domain: its NIS domain (getdomainname(2)) or, where that is empty or "(none)", what follows
 * the first '.' in the host's name. It asks no name service.
 *
 * @param buf   receives the domain and its NUL; unchanged on failure
 * @param size  bytes of `buf`; 65 are enough for any domain
 * @return 0; -1 with errno: ENOENT when there is neither, ENAMETOOLONG when domain and NUL do not fit.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API int sysutl_get_host_domain_name(char *buf, size_t size);

/**
 * Gives the login name of the process's real user (getuid(2)); the user's number in decimal when the user
 * database has no such user. The environment (USER, LOGNAME) is not asked.
 *
 * @param buf   receives the name and its NUL; unchanged on failure
 * @param size  bytes of `buf`
 * @return 0; -1 with errno: ENAMETOOLONG when name and NUL do not fit, or the error of getpwuid_r(3), such as
 *         EMFILE, ENOMEM, and ERANGE for an entry of more than 16 KiB. An interrupted look-up goes on.
 *
 * Threads: any. It may wait for a directory service, and takes 16 KiB of stack.
 * Raises:  no.
 */
KS_API int sysutl_user_name(char *buf, size_t size);

/**
 * Gives the home directory of a user, as the user database has it; HOME is not asked. Whether the directory
 * exists is not looked at.
 *
 * @param user  login name, not NULL
 * @param buf   receives the path and its NUL; unchanged on failure
 * @param size  bytes of `buf`
 * @return 0; -1 with errno: ENOENT when there is no such user, ENAMETOOLONG when path and NUL do not fit, or
 *         the error of getpwnam_r(3), such as EMFILE, ENOMEM, and ERANGE for an entry of more than 16 KiB.
 *         An interrupted look-up goes on.
 *
 * Threads: any. It may wait for a directory service, and takes 16 KiB of stack.
 * Raises:  no.
 */
KS_API int sysutl_home_dir(const char *user, char *buf, size_t size);

#ifdef __cplusplus
}
#endif
#endif
