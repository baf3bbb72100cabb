/**
 * @file ezrpc.h
 * libezrpc.so: the product's small RPC support library beside libkorvaks.so.
 *
 * Link it with -lezrpc -ltirpc. It allocates with malloc, as the platform's XDR routines do.
 */
#ifndef KORVAKS_EZRPC_H
#define KORVAKS_EZRPC_H

#include <korvaks/base.h>

#ifdef __cplusplus
extern "C" {
#endif

struct __rpc_xdr;

/**
 * Encodes, decodes or frees a counted string without a bound, in the wire form of xdr_string (RFC 4506, 4.11):
 * length as an unsigned 32-bit integer, the bytes, zero bytes up to a multiple of 4. It has the form of an
 * xdrproc_t, for rpcgen's output and for tables of XDR routines.
 *
 * @param xdrs    an XDR stream of the platform; its x_op says which of the three is done
 * @param string  address of the string, not NULL. Encoding fails when NULL is there. Decoding needs NULL there
 *                (anything else fails, because its room is not known) and stores a string made with malloc(3),
 *                which the caller frees. XDR_FREE releases it with free(3) and stores NULL; NULL is left alone.
 * @return 1, or 0 when the stream fails or memory is exhausted, with `*string` as it was; the stream's place is
 *         then anywhere in the string.
 *
 * A length from the stream is not believed: decoding never allocates more than 4096 bytes or twice what the
 * stream has delivered. A NUL byte among the bytes ends the string for its reader.
 *
 * Threads: any, one stream at a time.
 * Raises:  no.
 */
KS_API int xdr_ez_string8(struct __rpc_xdr *xdrs, char **string);

#ifdef __cplusplus
}
#endif
#endif
