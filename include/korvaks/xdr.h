/**
 * @file xdr.h
 * XDR (RFC 4506): two streams beside the platform's, and the routines for RPC messages (RFC 5531) and for the
 * library's own types.
 *
 * The platform's RPC library, libtirpc, supplies the XDR handle, its operations and the primitives (xdr_int,
 * xdr_string, ...). Compile with its directory of headers (pkg-config --cflags libtirpc). Whoever calls its primitives
 * links it too; libkorvaks does not and calls nothing of it.
 *
 * Streams. The record stream (ks_xdrrec_) carries records over a connection with the record marking of RFC 5531; the
 * storage stream (xdrstg_) writes to a block that grows, or reads from one. Both are made by a create function, used
 * through the platform's macros and primitives (XDR_GETLONG, xdr_u_int, rpcgen's output, ...), and ended with
 * xdr_destroy(). A stream is not locked: one thread uses it at a time.
 *
 * Routines. An xdr_ routine takes a stream and the address of an object, looks at `x_op` of the stream and encodes
 * the object, decodes into it, or releases what decoding allocated (XDR_FREE, which needs no stream behind the
 * handle). It returns TRUE (1), or FALSE (0) when the stream fails or ends, when what is read is not admitted, or when
 * memory is exhausted; it prints nothing. After a failure the place of the stream is somewhere in the object, what
 * was decoded may be there in part, and XDR_FREE still releases all of it. Memory that decoding allocates comes from
 * malloc(3), as in the platform's primitives; room that the object already points to is used instead, and must hold
 * the largest value that is admitted. None is a raise point unless its comment, or that of the stream, says so.
 */
#ifndef KORVAKS_XDR_H
#define KORVAKS_XDR_H

#include <korvaks/base.h>
#include <korvaks/stg.h>
#include <korvaks/vlthread.h>

#include <netinet/in.h>
#include <rpc/rpc.h>
#include <sys/socket.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifdef __cplusplus
typedef XDR::xdr_ops ks_platform_xdr_ops;
#else
typedef struct xdr_ops ks_platform_xdr_ops;
#endif

/**
 * The operations of a stream of this library: the platform's, whose `x_control` answers FALSE here, and two for words
 * of 32 bits. `x_ops` of such a stream points to `platform`.
 */
struct ks_xdr_ops {
    ks_platform_xdr_ops platform;
    bool_t (*x_getint32)(XDR *xdrs, int32_t *out_word);
    bool_t (*x_putint32)(XDR *xdrs, const int32_t *word);
};

/** @name Record stream */
/**@{*/

/**
 * Reads from the connection of a record stream.
 *
 * @param handle  what ks_xdrrec_create() was given
 * @param buffer  where to, room for `size` bytes
 * @param size    1 or more
 * @return bytes read; 0 at the end of the file; -1 on an error. In non-blocking mode -1 with errno EAGAIN or
 *         EWOULDBLOCK says that nothing is there yet, which is no error. errno is 0 when the function is called. It
 *         goes on by itself after EINTR.
 */
typedef int (*ks_xdrrec_read_fn)(void *handle, void *buffer, int size);

/**
 * Writes to the connection of a record stream, all of it if it can.
 *
 * @return bytes written, or -1 on an error. Anything but `size` fails the operation that wrote.
 */
typedef int (*ks_xdrrec_write_fn)(void *handle, void *buffer, int size);

/** The operations of every record stream, by which one is known: `x_ops == &ks_xdrrec_ops.platform`. */
extern KS_API const struct ks_xdr_ops ks_xdrrec_ops;

/**
 * Makes a record stream over a connection, for both directions; the caller sets `x_op` before each use.
 *
 * Output is collected and leaves through `writeit` when the buffer is full or a record is ended. Input is read ahead
 * through `readit`; call ks_xdrrec_skiprecord() before each record that is decoded. Four-byte words are decoded
 * unsigned by XDR_GETLONG: a negative value comes back as one of 2^31 to 2^32 - 1. Positions are not supported:
 * xdr_getpos() gives (u_int)-1 and xdr_setpos() FALSE. XDR_INLINE() gives NULL when the bytes are not whole in the
 * buffer, or do not lie on a multiple of 4.
 *
 * @param xdrs        handle to fill in, of any content
 * @param sendsize    bytes of the send buffer, headers included. Below 100: 4000; else rounded up to a multiple of 4,
 *                    at most 2^31 - 4
 * @param recvsize    bytes of the receive buffer, by the same rule
 * @param tcp_handle  passed to both functions, not looked at
 * @param readit      not NULL where the stream decodes
 * @param writeit     not NULL where the stream encodes
 *
 * On exhaustion the line "ks_xdrrec_create: out of memory" is written by ks_warnx() and `x_private` is NULL: such a
 * stream is not to be used, and xdr_destroy() does nothing on it. Else `x_private` is not NULL, and xdr_destroy()
 * frees the buffers; it writes nothing and closes nothing.
 *
 * Threads: any; one at a time for a stream.
 * Raises:  no, unless `readit` or `writeit` is one; then a raise leaves the stream fit for xdr_destroy() only.
 */
KS_API void ks_xdrrec_create(XDR *xdrs, u_int sendsize, u_int recvsize, void *tcp_handle, ks_xdrrec_read_fn readit,
                             ks_xdrrec_write_fn writeit);

/**
 * Ends the record that is being encoded.
 *
 * Its header says that the fragment is the record's last. With `sendnow` 0 the record stays in the buffer behind
 * those before it, so that several small ones leave in one write, unless a part of it was written already or no further
 * header fits: then, and with any other `sendnow`, everything in the buffer is written.
 *
 * @param xdrs     a record stream
 * @param sendnow  0: the record may stay in the buffer
 * @return TRUE, or FALSE when `writeit` wrote less than it was given. The connection is then of no further use: the
 *         bytes stay in the buffer, and the next write would send them again.
 *
 * An empty record is one header of 0x80000000.
 *
 * Threads: one at a time for a stream. Raises: as `writeit`.
 */
KS_API bool_t ks_xdrrec_endofrecord(XDR *xdrs, bool_t sendnow);

/**
 * Moves to the start of the next record: reads over what is left of the current one, all its fragments. At the very
 * start of a stream, and right behind the last byte of a record, nothing is read.
 *
 * @param xdrs  a record stream
 * @return TRUE, the next thing decoded is at the start of a record; FALSE when the connection ends or fails before,
 *         or sends a header of 0, which ends the stream's use.
 *
 * In non-blocking mode it is one call of __ks_xdrrec_getrec() without `expectdata`: TRUE when that completed a record,
 * which is then passed over, not decoded; also TRUE when nothing is left to decode and the status was XPRT_MOREREQS;
 * else FALSE. A server that assembles records does not need it: what it decodes next begins where it should.
 *
 * Threads: one at a time for a stream. Raises: as `readit`.
 */
KS_API bool_t ks_xdrrec_skiprecord(XDR *xdrs);

/**
 * Tells whether nothing is left to serve: reads over the rest of the current record, and looks whether the buffer holds
 * bytes behind it. It does not read more to find out.
 *
 * @param xdrs  a record stream
 * @return TRUE when nothing more is in the buffer, when the connection ends or fails in the record, and always in
 *         non-blocking mode (where the rest of the record is given up too); FALSE when bytes of a further record are
 *         there.
 *
 * Threads: one at a time for a stream. Raises: as `readit`.
 */
KS_API bool_t ks_xdrrec_eof(XDR *xdrs);

/**
 * Switches the input of a record stream to non-blocking assembly: __ks_xdrrec_getrec() reads, and decoding only takes
 * what it has assembled. There is no way back. Output is not changed.
 *
 * @param xdrs    a record stream from which nothing was decoded yet
 * @param maxrec  bytes of the largest record that is accepted, headers not counted; 0 or less: the size of the receive
 *                buffer
 * @return TRUE.
 *
 * Threads: one at a time for a stream. Raises: no.
 */
KS_API bool_t __ks_xdrrec_setnonblock(XDR *xdrs, int maxrec);

/**
 * One step of the assembly of a record, for a stream in non-blocking mode; called whenever the connection is readable.
 * It calls `readit` at most twice: for a header and for what is missing behind it.
 *
 * The buffer grows to the size of the record when its length is known, up to `maxrec`; memory behind what has arrived
 * is not touched. What was assembled before and is not decoded yet is lost once bytes of the next record arrive.
 *
 * @param xdrs        a record stream in non-blocking mode
 * @param statp       not NULL; on return
 *                    XPRT_MOREREQS  something arrived: the record is complete, or more calls are needed
 *                    XPRT_IDLE      nothing is there yet (`readit` said EAGAIN), or the connection has ended and
 *                                   `expectdata` is 0
 *                    XPRT_DIED      the connection failed, or ended with `expectdata` not 0; a fragment of length 0;
 *                                   a fragment or a record above `maxrec`; no memory for the record. A further call
 *                                   after a bad length says the same again
 * @param expectdata  not 0: an end of the connection is a failure, wherever it comes
 * @return TRUE when a whole record can be decoded, else FALSE.
 *
 * Threads: one at a time for a stream. Raises: as `readit`.
 */
KS_API bool_t __ks_xdrrec_getrec(XDR *xdrs, enum xprt_stat *statp, bool_t expectdata);

/**@}*/
/** @name Storage stream */
/**@{*/

/** The operations of every storage stream, by which one is known: `x_ops == &xdrstg_ops.platform`. */
extern KS_API const struct ks_xdr_ops xdrstg_ops;

/**
 * Makes a stream over a block of its own from stg_malloc().
 *
 * An encoding stream grows as it is written: by as much as it holds, at most 4096 bytes, or by what a write lacks if
 * that is more. The block may move then, and what XDR_INLINE() gave before is no longer valid. When it cannot grow, the
 * message "Operation stg_realloc: (error)" is printed as an error and the write fails with everything as it was. A
 * stream holds 2^32 - 1 bytes at most.
 *
 * `x_base` is the block and xdr_getpos() the number of bytes written. xdr_setpos() goes anywhere up to the end of
 * the block, which xdr_destroy() frees. To read back what was written: xdr_setpos(xdrs, 0) and `x_op = XDR_DECODE`.
 * A decoding stream reads no further than the end of the block: what does not fit there fails. Four-byte words are
 * decoded signed by XDR_GETLONG. XDR_INLINE() gives NULL, and does not grow the block, when fewer bytes are left, or
 * when the place is not on a multiple of 4.
 *
 * @param xdrs  handle to fill in, of any content
 * @param size  bytes at first, any number; a stream of 0 grows with each write
 * @param op    XDR_ENCODE; XDR_DECODE, and then the caller fills the block; XDR_FREE: there is no block
 * @return 0; or 1 on exhaustion ("Operation stg_malloc: (error)" is printed as an error), and then there is no block:
 *         xdr_destroy() does nothing.
 *
 * Threads: any; one at a time for a stream.
 * Raises:  yes, but only in the message of an exhaustion, here and in a write: the stream is then as before.
 */
KS_API int xdrstg_create(XDR *xdrs, u_int size, enum xdr_op op);

/**
 * Makes a decoding stream over bytes that are there. It reads no further than `len`.
 *
 * @param xdrs  handle to fill in, of any content
 * @param buf   the bytes; NULL only with `len` 0. The stream takes the block over: xdr_destroy() frees it with
 *              stg_free(), so that it must come from stg_malloc(). A caller who keeps it does not destroy the
 *              stream, which owns nothing else.
 * @param len   bytes
 * @return 0.
 *
 * Threads: any; one at a time for a stream. Raises: no.
 */
KS_API int xdrstg_create_decode_buf(XDR *xdrs, void *buf, u_int len);

/**
 * Ends a storage stream, as xdr_destroy() does: frees the block with stg_free() if there is one, also that of
 * xdrstg_create_decode_buf(), and clears base, position and count. A second call finds none. On a stream of XDR_FREE
 * it does nothing.
 *
 * @param xdrs  a storage stream
 * Threads: one at a time for a stream. Raises: no.
 */
KS_API void xdrstg_destroy(XDR *xdrs);

/**@}*/
/**
 * @name RPC messages
 * In the layout of RFC 5531. The structures are the platform's (<rpc/rpc_msg.h>, <rpc/auth.h>, <rpc/auth_unix.h>).
 */
/**@{*/

/** Bytes of the body of a credential or a verifier, at most. */
#define KS_MAX_AUTH_BYTES 400

/**
 * A credential or a verifier: flavour, and a body of at most 400 bytes, counted and padded.
 *
 * @param xdrs  any stream
 * @param auth  encoding fails with `oa_length` above 400. Decoding puts the body where `oa_base` points, room for
 *              400 bytes, or allocates one of the body's size when it is NULL; with an empty body `oa_base` stays as it
 *              is. XDR_FREE frees `oa_base` and stores NULL.
 * @return TRUE, or FALSE as the head of this file says; a longer body is refused before it is read.
 *
 * Threads: any, one at a time for a stream. Raises: no.
 */
KS_API bool_t xdr_ks_opaque_auth(XDR *xdrs, struct opaque_auth *auth);

/**
 * A block of 8 opaque bytes.
 * @return TRUE or FALSE, as the head of this file says. Threads: any, one at a time for a stream. Raises: no.
 */
KS_API bool_t xdr_ks_des_block(XDR *xdrs, des_block *block);

/**
 * The part of a call that does not change from one to the next: xid, direction, RPC version, program and version, 20
 * bytes. Clients encode it once. The direction is set to CALL and the RPC version to 2, in `msg` too.
 *
 * @param xdrs  an encoding stream; with any other `x_op` the answer is FALSE and nothing is done
 * @param msg   xid, program and version are read from it
 * @return TRUE, or FALSE when the stream fails.
 *
 * Threads: any, one at a time for a stream. Raises: no.
 */
KS_API bool_t xdr_ks_callhdr(XDR *xdrs, struct rpc_msg *msg);

/**
 * A whole call up to its arguments: xid, direction, RPC version, program, version, procedure, credential, verifier.
 *
 * Where the stream hands its bytes out in place they are copied at once, else field by field; both agree.
 *
 * @param xdrs  any stream
 * @param msg   its direction must be CALL and its RPC version 2; each body has 400 bytes at most. Anything else fails,
 *              in each operation, and when encoding before anything is written. Decoding puts a body that is not empty
 *              where `oa_base` points, room for 400 bytes; where it is NULL, 400 bytes are allocated. XDR_FREE frees
 *              both bodies and stores NULL: not for a caller's own room.
 * @return TRUE, or FALSE as the head of this file says.
 *
 * Threads: any, one at a time for a stream. Raises: no.
 */
KS_API bool_t xdr_ks_callmsg(XDR *xdrs, struct rpc_msg *msg);

/**
 * A whole reply: xid, direction (must be REPLY), reply status, and then by it an accepted reply (0,
 * xdr_ks_accepted_reply()) or a denied one (1, xdr_ks_rejected_reply()). Any other status fails.
 *
 * @param xdrs  any stream
 * @param msg   for an accepted call set `acpted_rply.ar_results` before decoding, as xdr_ks_accepted_reply() says
 * @return TRUE, or FALSE as the head of this file says.
 *
 * Threads: any, one at a time for a stream. Raises: as the routine for the results.
 */
KS_API bool_t xdr_ks_replymsg(XDR *xdrs, struct rpc_msg *msg);

/**
 * The body of an accepted reply: verifier (as xdr_ks_opaque_auth()), accept status, and then with SUCCESS (0) the
 * results, with PROG_MISMATCH (2) the lowest and highest version that is served, with any other status, known or not,
 * nothing.
 *
 * @param xdrs   any stream
 * @param reply  with SUCCESS `ar_results.proc` is called with the stream and `ar_results.where`; NULL there fails
 * @return TRUE, or FALSE as the head of this file says.
 *
 * Decoding overwrites `ar_vers`, which shares its memory with `ar_results`, only with PROG_MISMATCH.
 *
 * Threads: any, one at a time for a stream. Raises: as the routine for the results.
 */
KS_API bool_t xdr_ks_accepted_reply(XDR *xdrs, struct accepted_reply *reply);

/**
 * The body of a denied reply: reject status, and then with RPC_MISMATCH (0) the lowest and highest RPC version, with
 * AUTH_ERROR (1) the auth status, any number. Any other status fails.
 *
 * @return TRUE, or FALSE as the head of this file says. Threads: any, one at a time for a stream. Raises: no.
 */
KS_API bool_t xdr_ks_rejected_reply(XDR *xdrs, struct rejected_reply *reply);

/**
 * The parameters of AUTH_UNIX: time stamp, machine name of at most 255 bytes, user, group, at most 16 further groups.
 *
 * The stamp travels as 32 bits; whether its upper half comes back as zeros or as copies of bit 31 is the stream's.
 *
 * @param xdrs   any stream
 * @param parms  encoding fails with a longer or absent name (NULL) and with more groups. Decoding puts the name where
 *               `aup_machname` points, room for 256 bytes, and the groups where `aup_gids` points, room for 16; it
 *               allocates what is NULL there, groups only if there are any. XDR_FREE frees both and stores NULL.
 * @return TRUE, or FALSE as the head of this file says; a false length is refused before anything is allocated.
 *
 * Threads: any, one at a time for a stream. Raises: no.
 */
KS_API bool_t xdr_ks_authunix_parms(XDR *xdrs, struct authunix_parms *parms);

/**@}*/
/**
 * @name Base types
 * All return TRUE, or FALSE as the head of this file says. Any thread may call them, one at a time for a stream, and
 * none is a raise point. With XDR_FREE those that hold no memory do nothing.
 */
/**@{*/

typedef uint32_t ks_uint32_t;             /**< 32 bits */
typedef int64_t ks_int64_t;               /**< 64 bits, signed */
typedef uint64_t ks_uint64_t;             /**< 64 bits, unsigned */
typedef int64_t ks_off64_t;               /**< offset in a file */
typedef int32_t ks_off32_t;               /**< offset in a small file */
typedef uint8_t ks_byte_t;                /**< a number of 0 to 255 */
typedef int ks_boolean_t;                 /**< 0 or 1; other values travel too */
typedef signed char ks_char_t;            /**< a number of -128 to 127 */
typedef char *ks_canon_pname_p_t;         /**< canonical path name, or NULL */
typedef const char *ks_canon_pname_c_p_t; /**< the same, not changed through the pointer */
typedef char ks_canon_pname_t[4096];      /**< canonical path name held by value, NUL included */

/** An unsigned int: one word. */
KS_API bool_t xdr_ks_uint32_t(XDR *xdrs, ks_uint32_t *value);

/** An unsigned long as one unsigned word: encoding drops the upper half, decoding makes it zero. */
KS_API bool_t xdr_u_long_as_int(XDR *xdrs, u_long *value);

/** A hyper: the upper word, signed, then the lower. */
KS_API bool_t xdr_ks_int64_t(XDR *xdrs, ks_int64_t *value);

/** An unsigned hyper: the upper word, then the lower. */
KS_API bool_t xdr_ks_uint64_t(XDR *xdrs, ks_uint64_t *value);

/** An offset as xdr_ks_int64_t(). */
KS_API bool_t xdr_ks_off64_t(XDR *xdrs, ks_off64_t *value);

/** An offset as an int: one word. */
KS_API bool_t xdr_ks_off32_t(XDR *xdrs, ks_off32_t *value);

/** A byte in a word of its own. Decoding takes the lowest byte of any word, as the platform's xdr_u_char(). */
KS_API bool_t xdr_ks_byte_t(XDR *xdrs, ks_byte_t *value);

/** A truth value as an int. Any number is passed as it is. */
KS_API bool_t xdr_ks_boolean_t(XDR *xdrs, ks_boolean_t *value);

/** A signed char widened to an int. Decoding takes the lowest byte of any word, as the platform's xdr_char(). */
KS_API bool_t xdr_ks_char_t(XDR *xdrs, ks_char_t *value);

/**
 * A canonical path name of any length, as xdr_ez_string8() (ezrpc.h), with its wire form and its rules: encoding NULL
 * fails; decoding needs NULL there and stores a string made with malloc(3); XDR_FREE frees it and stores NULL.
 */
KS_API bool_t xdr_ks_canon_pname_p_t(XDR *xdrs, ks_canon_pname_p_t *path);

/** xdr_ks_canon_pname_p_t() for a pointer to const; the string that decoding makes is freed with XDR_FREE all the same.
 */
KS_API bool_t xdr_ks_canon_pname_c_p_t(XDR *xdrs, ks_canon_pname_c_p_t *path);

/**
 * A canonical path name held by value, in the same wire form. Decoding fails on one of 4096 bytes or more, and
 * allocates nothing; XDR_FREE does nothing.
 */
KS_API bool_t xdr_ks_canon_pname_t(XDR *xdrs, ks_canon_pname_t path);

/**
 * A string that may be absent: a word that tells whether it follows (0, else it does), then the string as
 * xdr_ez_string8(). NULL is encoded as absent. Decoding needs NULL there, and stores NULL or a string made with
 * malloc(3); XDR_FREE frees it and stores NULL.
 */
KS_API bool_t xdr_string_pointer(XDR *xdrs, char **string);

/** The place of a storage area, which never travels: encoding sends 0, decoding reads a word and stores NULL. */
KS_API bool_t xdr_stg_area_rpc_ptr_t(XDR *xdrs, stg_area **area);

/**
 * A socket address: its family (1 for IPv4, 2 for IPv6, whatever the system's numbers are) and then
 * xdr_sockaddr_in() or xdr_sockaddr_in6(). An address of another family fails, when encoded before anything is written.
 * Decoding fills as much of the record as the family's own has, and nothing on a failure.
 */
KS_API bool_t xdr_ks_sockaddr_storage_t(XDR *xdrs, struct sockaddr_storage *address);

/**
 * An IPv4 address and port: address as unsigned int, port as unsigned short. Decoding sets the family AF_INET, and all
 * else to 0; on a failure it changes nothing.
 */
KS_API bool_t xdr_sockaddr_in(XDR *xdrs, struct sockaddr_in *address);

/**
 * An IPv6 address and port: 16 bytes, each in a word of its own, and the port as unsigned short. Flow label and scope
 * do not travel. Decoding sets the family AF_INET6, and all else to 0; on a failure it changes nothing.
 */
KS_API bool_t xdr_sockaddr_in6(XDR *xdrs, struct sockaddr_in6 *address);

/**@}*/
/** @name Cursors */
/**@{*/

/** Kinds of ownership of a table of cursors. */
enum {
    KS_CURSOR_TABLE_FOREIGN = 0, /**< the caller's memory; left alone when the table is replaced by a larger one */
    KS_CURSOR_TABLE_OWN = 1      /**< a block of stg_malloc(), freed when it is replaced */
};

/**
 * The head of a table of cursors. Behind it stand `capacity` pointers: `(void **)(table + 1)`. The first is never used;
 * a free one is NULL.
 */
typedef struct ks_cursor_table {
    uint32_t capacity;     /**< entries */
    uint16_t element_size; /**< 8 */
    uint16_t ownership;    /**< KS_CURSOR_TABLE_OWN or _FOREIGN */
} ks_cursor_table;

/**
 * A cursor of a server, a pointer, that its clients hold as a small number: its index in a table.
 *
 * Encoding with `*index` not 0 stores the cursor in that entry (NULL makes it free) and sends the index, or 0 for
 * NULL. With `*index` 0, a cursor is stored in the lowest free entry, behind the last used one if there is none, and
 * the entry's number is sent; NULL sends 0. Then `*index` is 0. An index that is not below `*count` fails. When sending
 * fails, the entry is as before, and so is `*index`.
 *
 * Decoding reads an index into `*index`: 0 gives a NULL cursor, and one below `*count` whose entry is not free gives
 * that entry's cursor. Any other fails and changes nothing. XDR_FREE does nothing.
 *
 * @param xdrs    any stream; nothing is read or written while the mutex is held
 * @param cursor  address of the pointer
 * @param index   address of its number, 0 for a cursor that was not decoded
 * @param table   address of the table, shared by all callers; NULL there, and one of 4 entries is made. It grows to
 * twice its size (at least `*count` + 1); then it moves, and a block of its own is freed. The last one is freed by its
 * owner, with stg_free()
 * @param count   address of the number of entries that were ever used, and 1 for entry 0; set when a table is made
 * @param mutex   guards table and count; taken here, free or the caller's own (it is recursive)
 * @return TRUE, or FALSE as the head of this file says (exhaustion prints the message of stg_malloc()).
 *
 * A search for a free entry looks at each in turn.
 *
 * Threads: any, one at a time for a stream; the table may be shared. Raises: no.
 */
KS_API bool_t xdr_ks_generic_cursor_t(XDR *xdrs, void **cursor, uint32_t *index, ks_cursor_table **table,
                                      uint32_t *count, vlthread_mutex_t *mutex);

/**@}*/

#ifdef __cplusplus
}
#endif
#endif
