/**
 * @file auth.h
 * Authentication of remote calls: the flavours AUTH_NONE (0) and AUTH_UNIX (1) of RFC 5531, for clients and servers.
 *
 * Clients. A handle (AUTH, the platform's) holds what its calls carry: a credential and a verifier. Put it into a
 * client's `cl_auth`, and end it with auth_destroy(). The platform's macros work on these handles (auth_marshall(),
 * auth_validate(), auth_refresh(), auth_wrap() and so on); arguments and results are not protected by either flavour.
 *
 *     AUTH *auth = ks_authunix_create_default();
 *     if (auth != NULL)
 *         client->cl_auth = auth;
 *
 * Servers. Each call's credential is checked by _ks_authenticate() before the call is made. AUTH_NONE and AUTH_UNIX are
 * admitted as they are: the caller's claims are not proved by anything. AUTH_SHORT (2) is always refused. A program
 * adds checkers of further flavours with ks_svc_auth_reg().
 *
 * The types and macros are the platform's (libtirpc), as korvaks/xdr.h says; nothing of its library is called.
 */
#ifndef KORVAKS_AUTH_H
#define KORVAKS_AUTH_H

#include <korvaks/base.h>
#include <korvaks/xdr.h>

#ifdef __cplusplus
extern "C" {
#endif

/** @name Clients */
/**@{*/

/**
 * Gives the handle of AUTH_NONE: flavour 0 and no body, in credential and verifier. There is one for the process.
 *
 * It admits every verifier of a reply, cannot be refreshed (auth_refresh() gives FALSE), and auth_destroy() on it does
 * nothing. Its fields must not be changed.
 *
 * @return the handle, never NULL. It lives as long as the process, and belongs to the library.
 *
 * Threads: any; all may use the handle at once.
 * Raises:  no.
 */
KS_API AUTH *ks_authnone_create(void);

/**
 * Makes a handle of AUTH_UNIX: machine, user, group and further groups, with the time of day as stamp (RFC 5531,
 * appendix A).
 *
 * @param machname  name of the machine, copied: 0 to 255 bytes; a longer one, or NULL, ends the process (assertion
 *                  "xdr_ks_authunix_parms(&xdrs, &aup)")
 * @param uid       user
 * @param gid       group
 * @param len       number of further groups. The first 16 travel, which is all that the flavour has room for; that
 *                  some do not is a trace of "ks/rpc" at level 1. A negative number, or groups that are NULL, end the
 *                  process (assertion "len == 0 || (len > 0 && gids != NULL)").
 * @param gids      the further groups, copied; NULL only with `len` 0
 * @return the handle, ended with auth_destroy() or ks_authunix_destroy(); NULL on exhaustion (errno ENOMEM, the line
 *         "ks_authunix_create: out of memory" through ks_warnx()).
 *
 * Threads: any; one at a time for a handle.
 * Raises:  only where the trace is printed, before anything is allocated.
 */
KS_API AUTH *ks_authunix_create(const char *machname, uid_t uid, gid_t gid, int len, const gid_t *gids);

/**
 * Makes a handle of AUTH_UNIX for the calling process: the host's name (gethostname(2)), the effective user and group,
 * and the supplementary groups as getgroups(2) lists them. Of more than 16 the first 16 travel, as
 * ks_authunix_create() says; a process may be in any number.
 *
 * @return the handle, as ks_authunix_create(); NULL on exhaustion, which is said in the same line. A host's name or a
 *         list of groups that the system does not give ends the process by an assertion.
 *
 * The identity is that of this moment: later changes of the process's do not move it.
 *
 * Threads: any; one at a time for a handle.
 * Raises:  only where the trace is printed, before anything is allocated.
 */
KS_API AUTH *ks_authunix_create_default(void);

/**
 * Writes what a call carries, credential and verifier, to a stream; auth_marshall() does it for clients.
 *
 * @param auth  a handle of AUTH_UNIX; any other ends the process (assertion "auth->ah_ops == &ks_authunix_ops")
 * @param xdrs  an encoding stream
 * @return TRUE; FALSE when the stream fails.
 *
 * Threads: one at a time for a handle.
 * Raises:  as the stream.
 */
KS_API int ks_authunix_marshal(AUTH *auth, XDR *xdrs);

/**
 * Looks at the verifier of a reply; auth_validate() does it for clients.
 *
 * One of flavour AUTH_SHORT (2) holds a short-hand credential, which is copied and sent in the place of the full one
 * from the next call on, until another one comes or the handle is refreshed. When its body cannot be decoded the full
 * credential is sent again. So it is when the short-hand one is too long for a call of this handle (a body above 384
 * bytes); then the line "auth_none.c - Fatal marshalling problem" goes through ks_warnx(). Verifiers of other flavours
 * change nothing.
 *
 * @param auth      a handle of AUTH_UNIX; any other ends the process, as in ks_authunix_marshal()
 * @param verifier  the verifier, which stays the caller's
 * @return TRUE in any case. Where memory is exhausted the full credential is sent.
 *
 * Threads: one at a time for a handle.
 * Raises:  no.
 */
KS_API int ks_authunix_validate(AUTH *auth, struct opaque_auth *verifier);

/**
 * Goes back to the full credential, with the time of day as its stamp, when a server has refused the short-hand one;
 * auth_refresh() does it for clients. The short-hand one is forgotten.
 *
 * @param auth  a handle of AUTH_UNIX; any other ends the process, as in ks_authunix_marshal()
 * @return TRUE: the call may be tried again; FALSE when the handle sends the full credential already, nothing changed,
 *         since another try would be refused as well.
 *
 * Threads: one at a time for a handle.
 * Raises:  no.
 */
KS_API int ks_authunix_refresh(AUTH *auth);

/**
 * Ends a handle of AUTH_UNIX and frees all it has; auth_destroy() does it too. Clients that have it in `cl_auth` must
 * get another one, or end, first.
 *
 * @param auth  a handle of AUTH_UNIX; any other, and NULL, end the process, as in ks_authunix_marshal()
 *
 * Threads: one at a time for a handle.
 * Raises:  no.
 */
KS_API void ks_authunix_destroy(AUTH *auth);
/**@}*/

/** @name Servers */
/**@{*/

/** Bytes that `rq_clntcred` of a request must have room for, on a multiple of 8. */
#define KS_SVC_CREDENTIAL_SIZE 400

/**
 * Checks the credential of a call.
 *
 * @param request  a call as the server hands it to dispatch routines. `rq_cred` and the verifier for the reply in
 *                 `rq_xprt->xp_verf` (flavour 0, length 0) are set here; `rq_clntcred` points to
 *                 KS_SVC_CREDENTIAL_SIZE bytes (NULL ends the process for AUTH_UNIX: assertion
 *                 "request->rq_clntcred != NULL").
 * @param message  the decoded call, whose credential is checked: a copy in `rq_cred` shares its body
 * @return AUTH_OK (0) for flavour 0; for flavour 1 AUTH_OK with `rq_clntcred` holding a `struct authunix_parms`, its
 *         name and its groups, good as long as that room, or AUTH_BADCRED (1): a name above 255 bytes, more than 16
 *         groups, a body shorter than its fields claim; bytes behind the fields are ignored. AUTH_REJECTEDCRED (2) for
 *         AUTH_SHORT and for a flavour without a checker; else the answer of the checker.
 *
 * A body that lies on a multiple of 4 and is shorter than its fields claim also writes a line to standard output, "bad
 * auth_len gid %d str %ld auth %u": groups, bytes of the name with its padding (both 0 when the body ends before they
 * are known), bytes of the body. Strangers can cause it, so that 32 lines a minute are written; the next one behind
 * that minute comes with a line that says how many were held back.
 *
 * Threads: any; checkers run one at a time in the process.
 * Raises:  no; a checker runs under a lock that holds raises off.
 */
KS_API enum auth_stat _ks_authenticate(struct svc_req *request, struct rpc_msg *message);

/**
 * Checks a call of a flavour that a program has added: AUTH_OK, or why the call is refused. It may fill in what
 * `rq_clntcred` points to and the body of `rq_xprt->xp_verf`. It runs with raises and cancellation held off, and must
 * not enter the library critical section, make children whose deaths are reported, or leave by a jump.
 */
typedef enum auth_stat (*ks_svc_auth_checker)(struct svc_req *request, struct rpc_msg *message);

/**
 * Adds the checker of a flavour. It stays for the life of the process.
 *
 * @param flavour  number of the flavour; 0 to 2 are built in
 * @param checker  called by _ks_authenticate() for each call of the flavour, with the lock of the registry held: no two
 *                 calls are checked by added checkers at once, and one that waits makes those calls wait. NULL ends the
 *                 process (assertion "checker != NULL").
 * @return 0; 1 for a flavour that is built in or has a checker already, nothing changed; -1 on exhaustion (errno
 *         ENOMEM), nothing changed.
 *
 * Threads: any, also from a checker.
 * Raises:  no.
 */
KS_API int ks_svc_auth_reg(int flavour, ks_svc_auth_checker checker);

/**
 * How many AUTH_UNIX credentials this process has refused, for whatever reason; lines on standard output tell of some
 * of them. Threads: any. Raises: no.
 */
KS_API uint64_t ks_svc_auth_refused(void);
/**@}*/

#ifdef __cplusplus
}
#endif
#endif
