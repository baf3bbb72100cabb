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

/** Records the process's umask, the first time it is called; ks_system_init() calls it. */
KS_API void sysutl_umask_init(void);

/** The umask that the process had at its start (at the first call of this or of sysutl_umask_init()). */
KS_API mode_t sysutl_get_umask(void);

/**
 * How many descriptors the process may have: the soft limit (RLIMIT_NOFILE), at most KS_FD_MAX. It is read
 * once and kept; the limit itself is not changed.
 */
KS_API int sysutl_get_max_fds(void);

/** Marks a descriptor close-on-exec; its other flags stay. */
KS_API int sysutl_set_cloexec_file(int fd);

/**
 * The host's name, as uname(2) gives it.
 * @param buf   receives the name and its NUL
 * @param size  bytes of `buf`; a name that does not fit is a failure (ENAMETOOLONG) and `buf` is unchanged
 */
KS_API int sysutl_myhostname(char *buf, size_t size);

/**
 * The host's domain: its NIS domain (getdomainname(2)) or, where there is none, what follows the first '.' in
 * its name. Asks no name service. ENOENT when there is neither, ENAMETOOLONG as above.
 */
KS_API int sysutl_get_host_domain_name(char *buf, size_t size);

/**
 * The login name of the process's real user; its number in decimal when the user database has no such user.
 * ENAMETOOLONG as above, or the error of getpwuid_r(3).
 */
KS_API int sysutl_user_name(char *buf, size_t size);

/**
 * The home directory of a user, by login name, as the user database has it.
 * ENOENT when there is no such user, ENAMETOOLONG as above, or the error of getpwnam_r(3).
 */
KS_API int sysutl_home_dir(const char *user, char *buf, size_t size);

#ifdef __cplusplus
}
#endif
#endif
