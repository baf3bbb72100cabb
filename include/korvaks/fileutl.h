/**
 * @file fileutl.h
 * Small questions about files, temporary files, and the library's file checksum.
 *
 * The checksum is the library's own and is fixed bit by bit (docs/formats.md): the table of the
 * reflected CRC-32 with another entry 0, fed from the most significant end, started at 0, not
 * complemented, and with table index 0 replaced by a counter that cycles through 0 to 255. It agrees
 * with no standard CRC and finds accidents, not attacks.
 *
 * Nothing here prints, allocates or raises, and any thread may call anything.
 */
#ifndef KORVAKS_FILEUTL_H
#define KORVAKS_FILEUTL_H

#include <sys/stat.h>

#include <korvaks/base.h>

#ifdef __cplusplus
extern "C" {
#endif

/** @name Questions */
/**@{*/

/**
 * Tells whether a path leads to something: a file of any kind, through symbolic links.
 * @return 1; 0 when there is nothing, and also when it cannot be told (a directory on the way that may
 *         not be searched, a name that is too long). errno stays as it was either way.
 * Threads: any. Raises: no.
 */
KS_API int fileutl_exists(const char *path);

/**
 * stat(2) (POSIX.1), made again as long as a signal interrupts it.
 *
 * @param path  file, followed through symbolic links
 * @param out   receives its status
 * @return 0; -1 with the errno of stat(2), and then `*out` is as it was.
 * Threads: any. Raises: no.
 */
KS_API int fileutl_stat(const char *path, struct stat *out);

/**
 * Tells whether a file is too large to be held in memory as one string: whether its size and 2 more
 * bytes exceed the largest object (PTRDIFF_MAX), or its size is negative.
 *
 * @param st  its status, from fileutl_stat(); only the size is looked at
 * @return 0; 1 with errno EFBIG when it is too large.
 * Threads: any. Raises: no.
 */
KS_API int fileutl_chk_large_file_overflow(const struct stat *st);
/**@}*/

/** @name Temporary files */
/**@{*/

/**
 * Makes an empty temporary file, for another program to write to: a new one with a name that nobody can know
 * beforehand, mode 0600, in the directory that TMPDIR names (not in a set-user-ID process), else /tmp.
 *
 * @param prefix    begins the name in front of six random characters
 * @param ext       ends it, such as ".txt"; "": nothing
 * @param out_path  `size` bytes; receives the path, which the caller unlinks
 * @param size      PATH_MAX is always enough
 * @return 0; -1 with the errno of mkstemp(3), such as ENOENT or EACCES for the directory, or ENAMETOOLONG where
 *         the path does not fit, and then there is no file and `out_path` is as it was.
 * Threads: any. Raises: no.
 */
KS_API int fileutl_tmpfile_ext(const char *prefix, const char *ext, char *out_path, size_t size);
/**@}*/

/** @name Checksum */
/**@{*/

/** Result of a checksum that could not be computed; the cause is in `*out_errno`. */
#define FILEUTL_CRC_FAILED (-4)

/**
 * The checksum of bytes in memory. It cannot fail.
 *
 * @param buf      the bytes; may be NULL when `length` is 0
 * @param length   how many; none have the checksum 0
 * @param out_crc  receives the checksum too; may be NULL
 * @return the checksum.
 *
 * Threads: any; nothing is kept between calls.
 * Raises:  no.
 */
KS_API uint32_t fileutl_crc_buffer(const void *buf, uint64_t length, uint32_t *out_crc);

/**
 * Goes on with a checksum over another piece of data.
 *
 * Pieces give the checksum of the whole when both states begin at 0 and are handed on from piece to
 * piece; with a fresh counter for each they mostly do not.
 *
 * @param buf      the piece; may be NULL when `length` is 0
 * @param length   its bytes; with 0 both states stay as they are
 * @param counter  state: the counter that stands for table index 0. Its value modulo 256 counts; it is
 *                 left between 0 and 255
 * @param crc      state: the checksum so far, and then the new one
 * @return the new checksum.
 *
 * Threads: any; the states are the caller's.
 * Raises:  no.
 */
KS_API uint32_t fileutl_crc_buffer_step(const void *buf, uint64_t length, uint32_t *counter, uint32_t *crc);

/**
 * The checksum of everything that can be read from a descriptor, from where it stands to the end.
 *
 * The descriptor stays open and stands at the end. It should block: one that does not fails with
 * EAGAIN where nothing is there yet.
 *
 * @param fd         descriptor
 * @param out_crc    receives the checksum; 0 when nothing was left to read
 * @param out_bytes  receives the number of bytes read; may be NULL
 * @param out_errno  receives the cause of a failure, and is as it was on success
 * @return 0; FILEUTL_CRC_FAILED when a read fails, or is interrupted five times in a row (EINTR). Then
 *         only `*out_errno` is stored, and what was read is gone from the descriptor.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API int fileutl_crc_fd(int fd, uint32_t *out_crc, uint64_t *out_bytes, int *out_errno);

/**
 * The checksum of a file, which is opened for reading and closed again in every case.
 *
 * @param path       file, followed through symbolic links
 * @param out_crc    receives the checksum; 0 for an empty file
 * @param out_errno  receives the cause of a failure, and is as it was on success
 * @return 0; FILEUTL_CRC_FAILED when it cannot be opened or read, or either is interrupted five times in
 *         a row (EINTR). Then only `*out_errno` is stored: for example ENOENT, EACCES, or EISDIR for a
 *         directory. A FIFO is waited for, as open(2) does.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API int fileutl_crc(const char *path, uint32_t *out_crc, int *out_errno);
/**@}*/

#ifdef __cplusplus
}
#endif
#endif
