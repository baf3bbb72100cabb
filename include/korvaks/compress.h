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
 * still decodes to the declared length is not noticed.
 *
 * Both calls work on memory of their own and may run in any thread.
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
 * The block is never longer than 9/8 of the data and 6 bytes; its memory is 5/4 of the data and 32
 * bytes. Data of 2^32 bytes or more cannot be read back with compress_uncompress(), because the
 * header holds only the low 32 bits of the length.
 *
 * @param length      bytes of data, 0 allowed (the block is then the header alone)
 * @param data        the data, not kept; may be NULL when `length` is 0
 * @param out_length  receives the size of the block
 * @return the block, freed with stg_free(); NULL and length 0 on exhaustion (the storage level has
 *         printed its message).
 * Raises: yes; a raise that arrives in the middle leaves nothing behind.
 */
KS_API unsigned char *compress_compress(size_t length, const unsigned char *data, size_t *out_length);

/**
 * Restores what compress_compress() packed.
 *
 * Any bytes may be given: a block that is no block, that is cut short, or that copies from before
 * its start is refused without a read or write outside of it, and a length that `length` bytes
 * cannot hold is refused before memory is asked for. Bytes behind the last token are ignored.
 *
 * @param length      bytes at `block`
 * @param block       the block, not kept
 * @param out_length  receives the size of the data
 * @return the data, freed with stg_free(); a block of no data gives an empty buffer, not NULL.
 *         NULL and length 0 after an error message: "Bad format number for \"compressed data\"\n"
 *         for a block that is refused, "Unable to allocate storage.\n" on exhaustion.
 * Raises: when it prints; nothing is leaked then.
 */
KS_API unsigned char *compress_uncompress(size_t length, const unsigned char *block, size_t *out_length);

#ifdef __cplusplus
}
#endif
#endif
