/**
 * @file compress.h
 * A small, fast compressor for blocks held in memory.
 *
 * It looks for repetitions of 3 to 34 bytes at distances up to 4096 and packs them, and the bytes
 * between them, into a stream of bits. It trades ratio for speed. The format is fixed:
 *
 *     offset 0, 1 byte   format number, 1
 *     offset 1, 4 bytes  length of the data, big-endian, its low 32 bits
 *     offset 5           bits, the most significant of each byte first:
 *         0 + 7 bits                    the 8 bits are a byte below 0x80
 *         1 + 8 bits                    the 8 bits are a byte of 0x80 or above
 *         10 + 12 bits D + 5 bits L     copy L + 3 bytes from D + 1 bytes back, one by one
 *       then zero bits up to a whole byte
 *
 * The same data gives the same block on every machine. A block carries no checksum: damage that
 * still decodes to the declared length is not noticed. Nothing is kept between calls.
 */
#ifndef KORVAKS_COMPRESS_H
#define KORVAKS_COMPRESS_H

#include <korvaks/base.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Compresses `length` bytes.
 *
 * The block is never longer than 9/8 of the data and 6 bytes; the memory that holds it is 5/4 of
 * the data and 32 bytes, and 32000 bytes more are used during the work. Data of 2^32 bytes or more
 * can be packed but not read back with compress_uncompress(), because the header holds only the low
 * 32 bits of the length.
 *
 * @param length      bytes of data; 0 is allowed, and the block is then the header alone
 * @param data        the data, which is only read, and not kept; may be NULL when `length` is 0
 * @param out_length  receives the size of the block in bytes; 0 on failure
 * @return the block, owned by the caller and freed with stg_free(). NULL when memory is exhausted:
 *         errno ENOMEM, the storage level has printed its message, nothing is left behind.
 *
 * Threads: any.
 * Raises:  yes: at the start, at the end, and each time about a MiB of the data has been read. The
 *          block and the working memory are given back first, and `*out_length` is as it was.
 */
KS_API unsigned char *compress_compress(size_t length, const unsigned char *data, size_t *out_length);

/**
 * Restores what compress_compress() packed.
 *
 * Any bytes may be given. A block that is no block, that is cut short, or that copies from before its
 * start or past its declared length is refused, without a read or write outside of the buffers; a
 * length that `length` bytes cannot hold (about 14 times as much) is refused before memory is asked
 * for. Bytes behind the last token are ignored. A failure is told by a message as well:
 * "Bad format number for \"compressed data\"\n" for every block that is refused, "Unable to allocate
 * storage.\n" for exhaustion.
 *
 * @param length      bytes at `block`
 * @param block       the block, which is only read, and not kept; may be NULL when `length` is 0
 * @param out_length  receives the size of the data in bytes; 0 on failure
 * @return the data, owned by the caller and freed with stg_free(); a block of no data gives an empty
 *         buffer, not NULL. NULL on failure, with nothing left behind: errno EINVAL for a block that
 *         is refused, ENOMEM when memory is exhausted.
 *
 * Threads: any.
 * Raises:  yes: where it prints, and each time about a MiB of data has been restored. The data is
 *          given back first, and `*out_length` is as it was.
 */
KS_API unsigned char *compress_uncompress(size_t length, const unsigned char *block, size_t *out_length);

/**
 * compress_uncompress() without its messages, for a caller that says itself what is wrong with a file, or that tries a
 * block that may be none. Where memory is exhausted the storage level is quiet as well.
 *
 * @param length, block, out_length  as for compress_uncompress()
 * @return as compress_uncompress(): NULL with errno EINVAL for a block that is refused, ENOMEM when memory is
 * exhausted.
 *
 * Threads: any.
 * Raises:  yes: each time about a MiB of data has been restored. The data is given back first, and `*out_length` is
 *          as it was.
 */
KS_API unsigned char *compress_uncompress_quiet(size_t length, const unsigned char *block, size_t *out_length);

#ifdef __cplusplus
}
#endif
#endif
