/**
 * @file fileutl.h
 * Small questions about files, and the library's file checksum.
 *
 * The checksum is the library's own and is fixed bit by bit (docs/formats.md): the table of the
 * reflected CRC-32 with another entry 0, fed from the most significant end, started at 0, not
 * complemented, and with table index 0 replaced by a counter that cycles through 0 to 255. It agrees with no
 * standard CRC and finds accidents, not attacks.
 *
 * Any thread may call anything here. Nothing here prints or raises.
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

/** 1 when `path` leads to a file of any kind, through symbolic links; 0 when not or when it cannot be told. errno
 * stays. */
KS_API int fileutl_exists(const char *path);

/** stat(2), repeated after interruptions: 0, or -1 with errno and `out` unchanged. */
KS_API int fileutl_stat(const char *path, struct stat *out);

/**
 * 1 with errno EFBIG when a file is too large to be held in memory as one string (its size and 2 more
 * bytes exceed the largest object) or its size is negative; else 0.
 */
KS_API int fileutl_chk_large_file_overflow(const struct stat *st);
/**@}*/

/** @name Checksum */
/**@{*/

/** Result of a checksum that could not be computed; the cause is in `*out_errno`. */
#define FILEUTL_CRC_FAILED (-4)

/**
 * The checksum of `length` bytes; 0 for none.
 * @param buf      may be NULL when `length` is 0
 * @param out_crc  receives the checksum too; may be NULL
 */
KS_API uint32_t fileutl_crc_buffer(const void *buf, uint64_t length, uint32_t *out_crc);

/**
 * Goes on with a checksum over another piece of data. Pieces give the checksum of the whole when
 * both states start at 0 and are handed from piece to piece.
 * @param counter  counter of the state, its value modulo 256 counts
 * @param crc      checksum so far, receives the new one
 * @return the new checksum; with a length of 0 both states are unchanged.
 */
KS_API uint32_t fileutl_crc_buffer_step(const void *buf, uint64_t length, uint32_t *counter, uint32_t *crc);

/**
 * The checksum of everything that can be read from a descriptor, from where it stands to the end.
 *
 * @param out_crc    receives the checksum
 * @param out_bytes  receives the number of bytes read; may be NULL
 * @param out_errno  receives the cause of a failure
 * @return 0; FILEUTL_CRC_FAILED when a read fails, or is interrupted five times in a row (EINTR), and then
 *         only `*out_errno` is stored.
 */
KS_API int fileutl_crc_fd(int fd, uint32_t *out_crc, uint64_t *out_bytes, int *out_errno);

/**
 * fileutl_crc_fd() of a file, which is opened for reading and closed again. An open that fails, or is
 * interrupted five times, is a failure too.
 */
KS_API int fileutl_crc(const char *path, uint32_t *out_crc, int *out_errno);
/**@}*/

#ifdef __cplusplus
}
#endif
#endif
