/**
 * @file nirpc.h
 * The duplicate-request cache: a server that must not run a call twice recognises one that is sent again, and answers
 * it with the reply that it gave before ("at most once").
 *
 *     switch (nirpc_fetch(transport, boot_time, xid, buffer, sizeof buffer, &length)) {
 *     case NIRPC_NEW:
 *         run();                                                  // and encode the reply
 *         nirpc_save(transport, boot_time, xid, reply, length, NULL);
 *         send(reply, length);
 *         nirpc_set_finish(transport, boot_time, xid);
 *         break;
 *     case NIRPC_DUPLICATE:
 *         send(buffer, length);                                   // where it did fit
 *         break;
 *     default:                                                    // stale, or in progress: no reply
 *         break;
 *     }
 *
 * A caller is a socket address and a boot time, a number that is another one after each restart of the client. The
 * cache remembers the latest call of each. Calls are numbered by xid, rising within a boot time; numbers are compared
 * as the signed difference of 64 bits, so that they may wrap.
 *
 * What a client keeps to: one call at a time per address and boot time. Once it has sent its next call, the one before
 * is forgotten: if the reply to that was lost, a retransmission of it is "stale" and gets no answer. Clients that call
 * from several threads take an address, or a boot time, for each.
 *
 * What a server keeps to: it fetches before a call runs, saves before it sends the reply, and calls nirpc_set_finish()
 * on every way out. Between save and finish the call still counts as in progress.
 *
 * How long it is remembered. A reply is kept for 300 seconds, or two more, and its caller with it; after that a
 * retransmission is new. That is done by an event (rt.h), so the server's loop must be rt_run(): under ks_svc_run(),
 * which fires no events, nothing expires. When the caller's next call begins, the expiry of the one before is taken
 * back.
 *
 * What is kept without an expiry: a caller whose call was fetched and never saved, for good. Its address holds the
 * port, so that each restart of a client may be a new one. A server that 100,000 clients visit once, with no reply
 * saved, keeps 13 MiB for them, 138 bytes each; with a reply of 100 bytes saved for each, it keeps 31 MiB for 300
 * seconds (measured, with events and the heap's overhead). nirpc_get_counters() tells how many there are.
 *
 * Callers whose address is neither IPv4 nor IPv6 cannot be told from each other: each of their calls is new, and
 * nothing of them is kept.
 *
 * There are 53 lists of callers, by port, each with a mutex of its own: calls of callers in different lists do not wait
 * for each other. Callers are found by a seeded hash, with 100,000 of them as with one.
 *
 * Forks. A child of vlthread_fork() finds the cache as it was, whole and unlocked, and expires what it holds by its own
 * rt_run(). An entry whose expiry had begun in another thread of the parent stays in the child's memory, unused.
 *
 * TRACE_SUBSYS "ks" at TRACE_VERBOSITY 2 shows stale calls, at 3 every operation.
 */
#ifndef KORVAKS_NIRPC_H
#define KORVAKS_NIRPC_H

#include <korvaks/base.h>
#include <korvaks/xdr.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Answers of nirpc_fetch(). */
enum {
    NIRPC_NEW = 0,         /**< execute the call */
    NIRPC_STALE = 1,       /**< an older one than the caller's latest: drop it */
    NIRPC_DUPLICATE = 2,   /**< the reply was copied out: send it again */
    NIRPC_IN_PROGRESS = 3, /**< the same call is being executed now: drop this one */
};

/**
 * Called with the cache's copy of a reply, and 1, before the cache frees the copy: for a program that keeps something
 * beside it. It is called with no lock held and raises held off, by whoever discards the reply: a thread that
 * fetches, or the one in rt_run(). It does not free the copy, and does not leave by a raise.
 */
typedef void (*nirpc_free_fn)(void *reply, int is_last);

/**
 * Asks whether a call is to be executed, and notes that it is.
 *
 * @param xprt           transport of the call, whose remote address names the caller; not NULL
 * @param boot_time      the caller's, any number
 * @param xid            number of the call. 0 has no order: it is the same call where the caller's latest was 0 too,
 *                       else the next one.
 * @param reply_buf      receives as much of a saved reply as there is room for; NULL: nothing is copied
 * @param buf_len        bytes of `reply_buf`
 * @param reply_len_out  receives the whole length of a saved reply, which may be more than `buf_len`; may be NULL
 * @return NIRPC_NEW: the caller is unknown, or this is his next call, or the call has ended without a saved reply;
 *         NIRPC_STALE: `xid` is below that of the caller's latest call;
 *         NIRPC_DUPLICATE: the reply was saved; only then `reply_buf` and `reply_len_out` are written;
 *         NIRPC_IN_PROGRESS: the call has neither ended by nirpc_set_finish() nor expired.
 *
 * With NIRPC_NEW the call is in progress, and what was saved of the caller's call before is discarded. Kept exactly:
 * where the call has ended without a saved reply, it is executed again and is not in progress; two retransmissions of
 * it may then run at once.
 *
 * Exhaustion ends the process, after the message "Unable to allocate storage.".
 *
 * Threads: any. Raises: no; they are held off meanwhile, and one that arrives is delivered later.
 */
KS_API int nirpc_fetch(SVCXPRT *xprt, uint64_t boot_time, uint64_t xid, void *reply_buf, uint64_t buf_len,
                       uint64_t *reply_len_out);

/**
 * Keeps a copy of the reply to a call for 300 seconds. The call stays in progress until nirpc_set_finish().
 *
 * A call that was not fetched may be saved as well; it is not in progress then.
 *
 * @param xprt, boot_time, xid  as for nirpc_fetch()
 * @param reply         the encoded reply; may be NULL where there are no bytes
 * @param reply_len     its bytes, also 0. It is copied once, into storage of this length.
 * @param free_routine  called when the copy is discarded; NULL: none. It is not called for a reply that is not kept.
 *
 * Not kept is a reply to a call that is older than the caller's latest, and a second one to the same call: callers may
 * have the first. Nor is one whose expiry cannot be scheduled for want of memory (message "Malloc failed at ..."): a
 * retransmission is executed again. A reply to a call after one whose reply is kept, without a fetch in between, ends
 * the process (assertion "entry->reply == NULL"). Exhaustion of storage for the copy ends the process, after the
 * message "Unable to allocate storage.".
 *
 * Threads: any. Raises: no.
 */
KS_API void nirpc_save(SVCXPRT *xprt, uint64_t boot_time, uint64_t xid, const void *reply, uint64_t reply_len,
                       nirpc_free_fn free_routine);

/**
 * Ends a call: it is not in progress any more. With a saved reply a retransmission is a duplicate from now on, without
 * one it is new. For a call that is not the caller's latest, or not known, nothing happens.
 *
 * @param xprt, boot_time, xid  as for nirpc_fetch()
 *
 * Threads: any. Raises: no.
 */
KS_API void nirpc_set_finish(SVCXPRT *xprt, uint64_t boot_time, uint64_t xid);

/** What the cache holds, and what it has answered since the process began (a child of a fork counts on). */
typedef struct nirpc_counters {
    uint64_t entries; /**< callers, now */
    uint64_t replies; /**< of them with a reply that is kept */
    uint64_t bytes;   /**< of callers, replies and the index, without what the heap and events take */
    uint64_t fetched_new;
    uint64_t fetched_stale;
    uint64_t fetched_duplicate;
    uint64_t fetched_in_progress;
    uint64_t expired; /**< replies whose 300 seconds were over */
} nirpc_counters;

/**
 * Reads the counters of the cache, list by list: they are not all of the same moment.
 *
 * @param out_counters  filled in; not NULL
 * Threads: any. Raises: no.
 */
KS_API void nirpc_get_counters(nirpc_counters *out_counters);

#ifdef __cplusplus
}
#endif
#endif
