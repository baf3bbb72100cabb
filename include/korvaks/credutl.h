/**
 * @file credutl.h
 * Identities that programs of the product have and exchange: security identifiers (SIDs), credentials, named users and
 * groups, and the record by which a client tells its host and user. Their layout, their wire forms (XDR, RFC 4506),
 * their text and names; the identity of the process; the product's own flavour of RPC credentials, and who a server
 * takes a caller for.
 *
 * A SID is a short string of bytes. Byte 0 is its length, byte 1 its kind, and a body of at most 32 bytes follows. A
 * UNIX identity has length 7, kind 2, and as body the uid or gid in 4 bytes, big-endian, and a byte that tells which
 * of the two it is. The SIDs of nobody and of "don't care" have length 2; a SID of length 0 is none at all.
 *
 * The xdr_credutl_ routines are used as those of korvaks/xdr.h: they act by `x_op` of the stream, answer TRUE or FALSE,
 * print nothing, and are no raise points. Besides:
 *
 *  - Decoding fills the whole record with zeros before its first field is read. So all strings and lists are allocated,
 *    with malloc(3); what pointers of the record held before is forgotten, not freed. Release a record with XDR_FREE
 *    before it is decoded into again.
 *  - After a decoding that failed, the record holds what was read so far, and XDR_FREE releases all of it. A number
 *    that was refused is not stored.
 *  - XDR_FREE frees what the pointers of the record lead to, and stores NULL (and a count of 0 for a list behind a
 *    pointer). A record that was filled in by hand must point to blocks of malloc(3) to be released so.
 *  - Lengths and counts are not believed: a string or list without a bound is given room as its bytes arrive, at most
 *    4096 bytes or twice what they need.
 *
 * Nothing that is decoded is proved by anything: who sends a record may claim to be anybody.
 *
 * Servers. One that wants to know its callers registers the product's flavour, and asks in its dispatch routines:
 *
 *     credutl_svc_auth_register();                        // once, at the start
 *
 *     credutl_caller_t caller;                            // in a dispatch routine
 *     if (credutl_identify_caller(request, &caller) == CREDUTL_CALLER_TOLD && is_owner(&caller.credentials.user_sid))
 *         ...
 *
 * Clients put the handle of credutl_auth_create() into their `cl_auth`. SECURITY.md says what a server may conclude.
 */
#ifndef KORVAKS_CREDUTL_H
#define KORVAKS_CREDUTL_H

#include <korvaks/base.h>
#include <korvaks/stg.h>
#include <korvaks/xdr.h>

#ifdef __cplusplus
extern "C" {
#endif

/** @name Identities */
/**@{*/

enum {
    CREDUTL_SID_BODY_MAX = 32,   /**< bytes of a SID's body */
    CREDUTL_SID_LENGTH_MIN = 2,  /**< length of a SID without a body */
    CREDUTL_SID_LENGTH_MAX = 34, /**< length of the longest SID */
    CREDUTL_SID_STR_SIZE = 185,  /**< bytes for the text of any SID, NUL included */
    CREDUTL_GROUPS_MAX = 32,     /**< groups in a record that holds them itself */
    CREDUTL_NAME_SIZE = 256      /**< bytes for the name of a domain or host, NUL included */
};

/** Kinds of SIDs. All others are foreign. */
enum {
    CREDUTL_SID_NOBODY = 0,   /**< nobody: uid or gid -2 */
    CREDUTL_SID_DONTCARE = 1, /**< whoever it may be: uid or gid -1 */
    CREDUTL_SID_UNIX = 2      /**< a user or group of this system's kind */
};

/** Types of UNIX identities. */
enum {
    CREDUTL_SID_UNIX_UID = 1, /**< a user */
    CREDUTL_SID_UNIX_GID = 2  /**< a group */
};

typedef unsigned long credutl_uid_t; /**< a user's number */
typedef unsigned long credutl_gid_t; /**< a group's number */

/** A security identifier; 34 bytes. */
typedef struct credutl_sid_t {
    ks_char_t length;                         /**< bytes that count, with this one and the next; 0: no SID */
    ks_char_t kind;                           /**< one of the kinds, or a foreign one of -128 to 127 */
    unsigned char body[CREDUTL_SID_BODY_MAX]; /**< `length` - 2 bytes count */
} credutl_sid_t;

/** Credentials by number. */
typedef struct credutl_credentials_t {
    credutl_uid_t uid;
    credutl_gid_t gid;
    int ngroups;
    credutl_gid_t groups[CREDUTL_GROUPS_MAX];
} credutl_credentials_t;

/** Credentials by SID. */
typedef struct credutl_sid_credentials_t {
    credutl_sid_t user_sid;
    credutl_sid_t group_sid;
    int ngroups;
    credutl_sid_t group_sids[CREDUTL_GROUPS_MAX];
} credutl_sid_credentials_t;

/** Credentials by SID with any number of groups. */
typedef struct credutl_whole_credentials_t {
    credutl_sid_t user_sid;
    credutl_sid_t group_sid;
    int ngroups;
    credutl_sid_t *group_sids; /**< `ngroups` of them; may be NULL when there are none */
} credutl_whole_credentials_t;

/** Credentials by name. */
typedef struct credutl_string_credentials_t {
    char *user_name;
    char *group_name;
    int ngroups;
    char *group_names[CREDUTL_GROUPS_MAX];
} credutl_string_credentials_t;

/** Credentials by name with any number of groups. */
typedef struct credutl_whole_string_credentials_t {
    char *user_name;
    char *group_name;
    int ngroups;
    char **group_names; /**< `ngroups` of them; may be NULL when there are none */
} credutl_whole_string_credentials_t;

/** A user: name, number and SID. */
typedef struct credutl_user_sid_t {
    char *name;
    credutl_uid_t uid;
    credutl_sid_t sid;
} credutl_user_sid_t;

/** A group: name, number and SID. */
typedef struct credutl_group_sid_t {
    char *name;
    credutl_gid_t gid;
    credutl_sid_t sid;
} credutl_group_sid_t;

/** An account: user, primary group and two strings. */
typedef struct credutl_passwd_sid_t {
    credutl_user_sid_t user;
    credutl_group_sid_t group;
    char *info;     /**< as whoever looked up the account has filled it */
    char *home_dir; /**< home directory */
} credutl_passwd_sid_t;

/** What a client record of the product's flavour tells. */
typedef enum credutl_auth_vellum_kind_t {
    CREDUTL_AUTH_VELLUM_HOST = 0,       /**< the host */
    CREDUTL_AUTH_VELLUM_CREDENTIALS = 1 /**< the host and who calls there */
} credutl_auth_vellum_kind_t;

/** A client of the product's own flavour; 800 bytes. */
typedef struct credutl_auth_vellum_t {
    credutl_auth_vellum_kind_t kind;
    char domain_name[CREDUTL_NAME_SIZE];
    char host_name[CREDUTL_NAME_SIZE];
    credutl_string_credentials_t credentials; /**< only with CREDUTL_AUTH_VELLUM_CREDENTIALS */
} credutl_auth_vellum_t;

typedef credutl_auth_vellum_t *credutl_auth_vellum_p_t; /**< such a client, or NULL */

/** Families of client records. */
typedef enum credutl_auth_family_t {
    CREDUTL_AUTH_FAMILY_VELLUM = 1 /**< the product's own flavour, the only one that travels */
} credutl_auth_family_t;

/** A client. */
typedef struct credutl_client_t {
    credutl_auth_family_t auth_family;
    credutl_auth_vellum_p_t record;
} credutl_client_t;

/**
 * Writes a SID as text:
 *
 *     NOBODY             kind 0, of any length
 *     DONTCARE           kind 1, of any length
 *     UNIX:UID-1234      kind 2 and length 7: the number signed, as int32_t ("UNIX:UID--3" for 4294967293);
 *     UNIX:GID-100       so for a group
 *     SID:9.00ff         any other: the kind in decimal (-128 to 127), and the body, two digits for a byte
 *
 * A UNIX identity whose type, `body[4]`, is neither of the two ends the process: assertion
 * "type == CREDUTL_SID_UNIX_UID || type == CREDUTL_SID_UNIX_GID". Decoding lets such a SID through, so look at the type
 * before you print one that came from outside.
 *
 * @param sid   a SID, not NULL. Of a length above 34 there are 32 bytes of body, and of one below 2 none.
 * @param size  bytes of `buf`; CREDUTL_SID_STR_SIZE is enough for any. 0 writes nothing.
 * @param buf   receives the text and its NUL. A text that does not fit is not cut, since it would name another: then it
 *              is "", which is no SID's.
 * @return `buf`
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API char *credutl_sid_to_str(const credutl_sid_t *sid, size_t size, char *buf);

/**
 * Tells whether two SIDs are the same: length, kind, and the bytes of the body that count. Two of length 0 are.
 * @return 1 or 0. Threads: any. Raises: no.
 */
KS_API int credutl_sid_eq(const credutl_sid_t *a, const credutl_sid_t *b);

/**
 * Makes the SID of a uid: nobody for -2, "don't care" for -1 (both of 32 bits, or widened with their sign), else a UNIX
 * identity. A number of more than 32 bits, which the system has no user for, is nobody.
 * Threads: any. Raises: no.
 */
KS_API void credutl_uid_to_sid(credutl_uid_t uid, credutl_sid_t *out_sid);

/** Makes the SID of a gid, as credutl_uid_to_sid() does it. */
KS_API void credutl_gid_to_sid(credutl_gid_t gid, credutl_sid_t *out_sid);

/**
 * Gives the uid of a SID: 4294967295 (-1) for "don't care", the number of a UNIX user, and for all others 4294967294
 * (-2): nobody, groups, foreign ones, none at all.
 * Threads: any. Raises: no.
 */
KS_API credutl_uid_t credutl_sid_to_uid(const credutl_sid_t *sid);

/** Gives the gid of a SID, as credutl_sid_to_uid() does it; users are -2. */
KS_API credutl_gid_t credutl_sid_to_gid(const credutl_sid_t *sid);

/**@}*/
/**
 * @name Wire forms
 * Each in the order of the fields. The rules at the head of this file hold for all.
 */
/**@{*/

/**
 * A uid as one unsigned word (xdr_u_long_as_int()): encoding drops the upper half, decoding makes it zero. XDR_FREE
 * does nothing.
 * @return TRUE, or FALSE when the stream fails. Threads: any, one at a time for a stream. Raises: no.
 */
KS_API bool_t xdr_credutl_uid_t(XDR *xdrs, credutl_uid_t *uid);

/** A gid, as xdr_credutl_uid_t() does it. */
KS_API bool_t xdr_credutl_gid_t(XDR *xdrs, credutl_gid_t *gid);

/**
 * A SID: its length and its kind, each in a word as xdr_ks_char_t() does it, and the body, padded to a multiple of 4
 * bytes. One of length 0 is that word alone, and one of length 2 has no body.
 *
 * @param xdrs  any stream
 * @param sid   its length is 0 or 2 to 34. Any other fails: when encoding before anything is written, when decoding
 *              before more is read. The kind and what the body says are not looked at. XDR_FREE does nothing.
 * @return TRUE, or FALSE when the length is not admitted or the stream fails; a decoded SID is then cut or empty.
 *
 * Of the word with the length the lowest byte counts, and it is signed: 128 to 255 are negative and fail.
 *
 * Threads: any, one at a time for a stream. Raises: no.
 */
KS_API bool_t xdr_credutl_sid_t(XDR *xdrs, credutl_sid_t *sid);

/**
 * Credentials by number: uid, gid, number of groups as int, and always all 32 groups: 35 words.
 *
 * The number of groups is not looked at and may be anything, also when it comes from outside: whoever uses the groups
 * takes 32 at most, and none for a negative number.
 *
 * @param xdrs         any stream
 * @param credentials  all of it travels, used or not. XDR_FREE does nothing.
 * @return TRUE, or FALSE when the stream fails.
 *
 * Threads: any, one at a time for a stream. Raises: no.
 */
KS_API bool_t xdr_credutl_credentials_t(XDR *xdrs, credutl_credentials_t *credentials);

/**
 * Credentials by SID: user, group, number of groups as int, and that many groups; each SID as xdr_credutl_sid_t().
 *
 * @param xdrs         any stream
 * @param credentials  a number of groups below 0 or above 32 fails, when encoding before anything is written. XDR_FREE
 *                     does nothing.
 * @return TRUE, or FALSE as said there, when a SID is not admitted, or when the stream fails.
 *
 * Threads: any, one at a time for a stream. Raises: no.
 */
KS_API bool_t xdr_credutl_sid_credentials_t(XDR *xdrs, credutl_sid_credentials_t *credentials);

/**
 * Credentials by SID without a bound: user, group, number of groups as unsigned word, and that many groups.
 *
 * @param xdrs         any stream
 * @param credentials  encoding fails behind user and group with a number below 0, or with groups at NULL; decoding
 *                     fails with a number above 2^31 - 1, and leaves `group_sids` NULL without any. After a failure
 *                     `ngroups` is the number of groups that came, the last one perhaps in part.
 * @return TRUE, or FALSE as said there, when a SID is not admitted, when the stream fails, or on exhaustion.
 *
 * Threads: any, one at a time for a stream. Raises: no.
 */
KS_API bool_t xdr_credutl_whole_credentials_t(XDR *xdrs, credutl_whole_credentials_t *credentials);

/**
 * Credentials by name: user, group, number of groups as int, and that many names. A name has at most 1023 bytes, and
 * NULL is sent as "".
 *
 * @param xdrs         any stream; with an `x_op` of none of the three operations it does nothing and answers TRUE
 * @param credentials  a number of groups below 0 or above 32 fails, when encoding before anything is written. A longer
 *                     name fails before its own bytes, and what precedes it is written. XDR_FREE frees the user's and
 *                     group's name, and the first `ngroups` groups', if that number is admitted.
 * @return TRUE, or FALSE as said there, when the stream fails, or on exhaustion.
 *
 * Threads: any, one at a time for a stream. Raises: no.
 */
KS_API bool_t xdr_credutl_string_credentials_t(XDR *xdrs, credutl_string_credentials_t *credentials);

/**
 * Credentials by name without a bound: user and group, at most 1023 bytes each, number of groups as unsigned word, and
 * that many names of any length.
 *
 * @param xdrs         any stream; with an `x_op` of none of the three operations it does nothing and answers TRUE
 * @param credentials  encoding fails where a name is NULL; unlike elsewhere it is not sent as "". The number and the
 *                     groups as in xdr_credutl_whole_credentials_t().
 * @return TRUE, or FALSE as said there, when a name is too long, when the stream fails, or on exhaustion.
 *
 * Threads: any, one at a time for a stream. Raises: no.
 */
KS_API bool_t xdr_credutl_whole_string_credentials_t(XDR *xdrs, credutl_whole_string_credentials_t *credentials);

/**
 * A user: name of any length (NULL is sent as ""), uid (xdr_credutl_uid_t()) and SID (xdr_credutl_sid_t()).
 *
 * @param xdrs  any stream; with an `x_op` of none of the three operations it does nothing and answers TRUE
 * @param user  XDR_FREE frees its name
 * @return TRUE, or FALSE when the SID is not admitted, when the stream fails, or on exhaustion.
 *
 * Threads: any, one at a time for a stream. Raises: no.
 */
KS_API bool_t xdr_credutl_user_sid_t(XDR *xdrs, credutl_user_sid_t *user);

/** A group: name, gid and SID, as xdr_credutl_user_sid_t() does it. */
KS_API bool_t xdr_credutl_group_sid_t(XDR *xdrs, credutl_group_sid_t *group);

/**
 * An account: user and group as above, then the two strings, of any length (NULL is sent as "").
 *
 * @param xdrs     any stream; with an `x_op` of none of the three operations it does nothing and answers TRUE
 * @param account  XDR_FREE frees its four strings
 * @return TRUE, or FALSE when a SID is not admitted, when the stream fails, or on exhaustion.
 *
 * Threads: any, one at a time for a stream. Raises: no.
 */
KS_API bool_t xdr_credutl_passwd_sid_t(XDR *xdrs, credutl_passwd_sid_t *account);

/**
 * A client of the product's flavour: kind, names of domain and host (at most 255 bytes each), and with kind 1 its
 * credentials as xdr_credutl_string_credentials_t().
 *
 * @param xdrs    any stream
 * @param record  a kind other than 0 and 1 fails, when encoding before anything is written. A name that is not ended by
 *                a NUL within its array fails before its own bytes, and what precedes it is written. Decoding allocates
 *                for the credentials only, and XDR_FREE frees what they hold, with kind 1; it leaves the rest as it is.
 * @return TRUE, or FALSE as said there, when the credentials are not admitted, when the stream fails, or on exhaustion.
 *
 * Threads: any, one at a time for a stream. Raises: no.
 */
KS_API bool_t xdr_credutl_auth_vellum_t(XDR *xdrs, credutl_auth_vellum_t *record);

/**
 * A client of the product's flavour that may be absent: a word that tells whether it follows (0, else it does), then
 * the client as xdr_credutl_auth_vellum_t().
 *
 * @param xdrs    any stream
 * @param record  address of the pointer. NULL is encoded as absent. Decoding fills in the record that is there, or one
 *                from malloc(3) when the pointer is NULL; it stores NULL for an absent one, and does not free what was
 *                there. XDR_FREE frees what the record holds and the record, which must come from malloc(3), and stores
 *                NULL.
 * @return TRUE, or FALSE as xdr_credutl_auth_vellum_t() has it; a record that was made stays, for XDR_FREE.
 *
 * Threads: any, one at a time for a stream. Raises: no.
 */
KS_API bool_t xdr_credutl_auth_vellum_p_t(XDR *xdrs, credutl_auth_vellum_p_t *record);

/**
 * A client: its family, and then the record of the family, as xdr_credutl_auth_vellum_t().
 *
 * @param xdrs    any stream
 * @param client  a family other than CREDUTL_AUTH_FAMILY_VELLUM fails in each operation, and encoding fails with the
 *                record at NULL, both before anything is written. Decoding makes the record, with malloc(3); XDR_FREE
 *                frees what it holds and the record, and stores NULL.
 * @return TRUE, or FALSE as said there, when the record is not admitted, when the stream fails, or on exhaustion. A
 *         client whose family could not be read has no record, and XDR_FREE answers FALSE for it.
 *
 * Threads: any, one at a time for a stream. Raises: no.
 */
KS_API bool_t xdr_credutl_client_t(XDR *xdrs, credutl_client_t *client);

/**@}*/

/**
 * @name Names
 * In the system's database of users and groups (getpwuid_r(3), getgrgid_r(3), getpwnam_r(3), getgrnam_r(3)). Each call
 * asks it anew. An entry may be of any size up to 64 MiB, which a group with very many members can need; an interrupted
 * look-up goes on. They may wait for a directory service, take a few KiB of stack and print nothing.
 */
/**@{*/

/**
 * Gives the name of a user or group: that of the database; the text of the SID (credutl_sid_to_str()) where the
 * database has none, and for nobody, "don't care" and foreign SIDs.
 *
 * @param sid  a SID, not NULL
 * @return the name, freed with free(3); NULL on failure, with errno: ENOMEM, EINVAL for a UNIX identity that is neither
 *         user nor group, ERANGE for an entry above 64 MiB, else what the database says (such as EIO, EMFILE).
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API char *credutl_sid_to_name(const credutl_sid_t *sid);

/**
 * Finds the user of a name. "NOBODY", "DONTCARE" and "UNIX:UID-1234", as credutl_sid_to_name() gives them, are known
 * without the database.
 *
 * @param name     the name. NULL, "", and one with a ":" or a control character is nobody's; the database is not asked
 * @param out_sid  the user's SID; nobody's where the result is 1
 * @return 0; 1 with errno: ENOENT where there is no such user, ENOMEM, ERANGE for an entry above 64 MiB, else what the
 *         database says: then it is not known whether there is one.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API int credutl_user_name_to_sid(const char *name, credutl_sid_t *out_sid);

/** Finds the group of a name, as credutl_user_name_to_sid() finds a user; by number it is "UNIX:GID-100". */
KS_API int credutl_group_name_to_sid(const char *name, credutl_sid_t *out_sid);

/**@}*/

/**
 * @name Credentials in other shapes
 * A number of groups below 0 counts as 0, and one above 32 as 32, in all records that hold their groups themselves.
 * Results are stored when all of them is there: after a failure they are as they were.
 */
/**@{*/

/**
 * Normalises an identity: of the groups, those other than the primary one, sorted by their numbers, each once.
 *
 * @param maxgroups    most groups that are admitted; negative: no limit. More ends the process (assertion "ngroup <=
 *                     maxgroups"): cut the list before.
 * @param uid, gid     user and primary group, stored as they are
 * @param ngroup       number of groups; a negative one ends the process (assertion "ngroup >= 0")
 * @param groups       that many groups in any order; NULL only with 0
 * @param uid_out, gid_out, ngroups_out  receive user, primary group, and the number of groups that are left
 * @param groups_out   receives them; room for `ngroup`. Not the list itself, nor a part of it
 * @return 0; 1 with errno ENOMEM, nothing stored.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API int credutl_init_credentials_throttled(int maxgroups, credutl_uid_t uid, credutl_gid_t gid, int ngroup,
                                              const credutl_gid_t *groups, credutl_uid_t *uid_out,
                                              credutl_gid_t *gid_out, int *ngroups_out, credutl_gid_t *groups_out);

/**
 * Writes numbers as SIDs, each as credutl_uid_to_sid() and credutl_gid_to_sid() do it; the groups in their order.
 * Threads: any. Raises: no.
 */
KS_API void credutl_credentials_to_sid_credentials(const credutl_credentials_t *creds,
                                                   credutl_sid_credentials_t *out_creds);

/**
 * Writes SIDs as numbers. A user or primary group that is none of this system's kind becomes -2 (-1 for "don't care");
 * such a further group is left out, as it gives no right here. The groups are normalised.
 *
 * @return 0; 1 with errno ENOMEM.
 * Threads: any. Raises: no.
 */
KS_API int credutl_sid_credentials_to_credentials(const credutl_sid_credentials_t *creds,
                                                  credutl_credentials_t *out_creds);

/**
 * Writes SIDs as names, each as credutl_sid_to_name() does it; the groups in their order.
 *
 * @param creds      the SIDs
 * @param out_creds  receives the names, released with credutl_free_string_credentials(); what it held is not looked at
 * @return 0; 1 with the errno of credutl_sid_to_name().
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API int credutl_sid_credentials_to_string_credentials(const credutl_sid_credentials_t *creds,
                                                         credutl_string_credentials_t *out_creds);

/**
 * Writes names as SIDs, by the database of this host. A user or primary group that it does not know becomes nobody; a
 * further group that it does not know, or that is nobody or "don't care", is left out. The groups are normalised.
 *
 * @return 0, also for names that are not known; 1 with the errno of credutl_user_name_to_sid() when the database could
 *         not be asked, or ENOMEM.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API int credutl_string_credentials_to_sid_credentials(const credutl_string_credentials_t *creds,
                                                         credutl_sid_credentials_t *out_creds);

/**
 * Copies credentials into the shape without a bound.
 *
 * @param creds      the credentials
 * @param area       where the groups are put; with STG_AREA_HEAP they are freed with stg_free(). Without groups nothing
 *                   is taken of it, and `group_sids` is NULL.
 * @param out_creds  receives them; what it held is not looked at
 * @return 0; 1 with errno ENOMEM (message).
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API int credutl_sid_credentials_to_whole_credentials(const credutl_sid_credentials_t *creds, stg_area *area,
                                                        credutl_whole_credentials_t *out_creds);

/**
 * Copies credentials into the shape that holds its groups itself.
 * @return 0; 1 with errno EOVERFLOW for a number of groups below 0 or above 32.
 * Threads: any. Raises: no.
 */
KS_API int credutl_whole_credentials_to_sid_credentials(const credutl_whole_credentials_t *creds,
                                                        credutl_sid_credentials_t *out_creds);

/**
 * Frees the names of a record, and makes all of it zeros; it may be released again. The names must come from malloc(3),
 * as those of this module do. Threads: any, one at a time for a record. Raises: no.
 */
KS_API void credutl_free_string_credentials(credutl_string_credentials_t *creds);

/**@}*/

/** @name The process's own identity */
/**@{*/

/**
 * Gives the effective identity of the process: uid, gid, and of the supplementary groups, as getgroups(2) lists them,
 * the first 32, normalised: so there may be fewer than 32 although there were more.
 *
 * @param creds  filled in; as it was on failure
 * @return 0; 1 with errno: the error "getgroups failed: ..." when the system does not tell them, or when there is no
 *         memory for their list (ENOMEM); no message when it is missing later.
 *
 * Threads: any.
 * Raises:  yes: where it prints.
 */
KS_API int credutl_get_credentials(credutl_credentials_t *creds);

/** credutl_get_credentials() as SIDs. */
KS_API int credutl_get_sid_credentials(credutl_sid_credentials_t *creds);

/**
 * Makes a record the identity of the process, of all its threads: setgroups(2), setgid(2) and setuid(2), in this order.
 * For a privileged process it is for good: real, effective and saved ids change.
 *
 * Behind the change of the group and behind that of the user, whether they succeed or not, the process is marked
 * dumpable, since the system clears that mark: debuggers may attach and core files are written, and what the process
 * has in memory from before is in them.
 *
 * @param creds  the record, which stays as it is; of more than 32 groups the first 32 count. A number that is none of
 *               the system's (above 32 bits) is refused with EINVAL: it would be somebody else's when it is cut.
 * @return 0; 1 with errno: ENOMEM without a message; else the error "setgroups failed: ...", "setgid N failed: ..." or
 *         "setuid N failed: ..." with the system's reason (EPERM for a process without the privilege). What was changed
 *         before stays changed: end the process, or set another identity, rather than go on.
 *
 * Threads: one at a time.
 * Raises:  yes: where it prints.
 */
KS_API int credutl_set_credentials(const credutl_credentials_t *creds);

/**
 * Makes a record the effective identity of the process: setgroups(2), setegid(2) and seteuid(2), else as
 * credutl_set_credentials(). Real and saved ids stay, so that a privileged process can go back: with seteuid(2) first,
 * as the groups cannot be set without the privilege.
 *
 * @param creds  the record; a number of groups above 32 is set to 32 in it, in any case
 * @return as credutl_set_credentials(); it needs no memory.
 *
 * Threads: one at a time.
 * Raises:  yes: where it prints.
 */
KS_API int credutl_set_effective_credentials(credutl_credentials_t *creds);

/** 1 when the group is the record's primary one or among its further ones, else 0. Threads: any. Raises: no. */
KS_API int credutl_has_group(credutl_gid_t gid, const credutl_credentials_t *creds);

/** credutl_has_group() for SIDs, compared by credutl_sid_eq(). */
KS_API int credutl_has_group_sid(const credutl_sid_t *sid, const credutl_sid_credentials_t *creds);

/** 1 when the effective uid is 0, else 0. Threads: any. Raises: no. */
KS_API int credutl_is_root(void);

/** The same as credutl_is_root(). */
KS_API int credutl_is_privileged(void);

/** 1 when the SID is that of uid 0, else 0; group 0 is not. Threads: any. Raises: no. */
KS_API int credutl_is_privileged_sid(const credutl_sid_t *sid);

/** 1 when the effective uid differs from the real one, else 0. Threads: any. Raises: no. */
KS_API int credutl_running_setuid(void);

/**@}*/

/** @name Names of domains and hosts, and credentials as text */
/**@{*/

/**
 * Gives the host's domain (sysutl_get_host_domain_name()), "<unknown>" where there is none. What was found once is
 * given for the life of the process; where none was, the system is asked again.
 *
 * @return the name, which belongs to the library and stays; never NULL.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API const char *credutl_get_domain(void);

/**
 * Splits a fully qualified name, "DOMAIN/user" or "DOMAIN\user", at the first slash or backslash. Without one the
 * domain is "<unknown>". Backslashes that are a byte of a character of the locale are none.
 *
 * @param name                      the name; NULL ends the process (assertion "name != NULL")
 * @param domain_buf, domain_size   receives the domain, cut to whole characters; a size of 0 stores nothing
 * @param user_buf, user_size       receives what follows, "" when nothing does; the same
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API void credutl_crack_fq_name(const char *name, char *domain_buf, size_t domain_size, char *user_buf,
                                  size_t user_size);

/**
 * Writes credentials for traces and messages: "UID: UNIX:UID-7 GID: UNIX:GID-8 Groups: UNIX:GID-9 UNIX:GID-10 ", each
 * with a blank behind it. The words are in the message catalogue.
 *
 * @param user_sid, group_sid  user and primary group
 * @param ngroups     number of further groups; without any "Groups: " is left out
 * @param group_sids  that many. A UNIX identity of no known type ends the process, as in credutl_sid_to_str().
 * @param size        bytes of `buf`; 0 writes nothing
 * @param buf         receives the text. Where user and group, or the word behind them, fill it, the last character is
 *                    "+". The first group whose text does not fit, and all behind it, are left out: "+ " follows, "+"
 *                    where there is room for no more, or "+" in the place of the last character where there is none.
 * @return `buf`
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API char *credutl_creds_to_str(const credutl_sid_t *user_sid, const credutl_sid_t *group_sid, int ngroups,
                                  const credutl_sid_t *group_sids, size_t size, char *buf);

/**
 * Makes the machine name that AUTH_UNIX credentials of the product carry (ks_authunix_create()): the domain
 * (credutl_get_domain()), "/" and the host's name (sysutl_myhostname()).
 *
 * @param buf   receives the name. Where it does not fit, a warning is printed and the buffer holds
 *              "<credutl authunix machname too long>", as much of it as fits.
 * @param size  bytes of `buf`. 256 are what a credential takes; 130 are enough for any domain and host.
 *
 * Threads: any.
 * Raises:  yes: where it prints; the buffer is filled in then.
 */
KS_API void credutl_mk_authunix_machname(char *buf, size_t size);

/**
 * Splits such a name at its first "/": what is before it is the domain, all that follows the host. Without one the
 * domain is "" and all of it the host.
 *
 * @param machname             the name; NULL makes both ""
 * @param domain, domain_size  receives the domain, cut to whole characters; a size of 0 stores nothing
 * @param host, host_size      receives the host, the same
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API void credutl_crack_authunix_machname(const char *machname, char *domain, size_t domain_size, char *host,
                                            size_t host_size);

/**@}*/

/** @name Clients */
/**@{*/

/**
 * The product's flavour of RPC credentials, the letters "VELL". It is not registered with anybody; no registered one is
 * known to have this number. The body of a credential is a client record as xdr_credutl_client_t() encodes it, at most
 * 400 bytes, and its verifier is that of AUTH_NONE. docs/formats.md has the bytes.
 */
#define CREDUTL_AUTH_FLAVOUR 0x56454C4C

/**
 * Makes the record of this process.
 *
 * @param kind        CREDUTL_AUTH_VELLUM_HOST: domain and host; CREDUTL_AUTH_VELLUM_CREDENTIALS: also the names of user
 *                    and groups, from credutl_get_sid_credentials()
 * @param record      filled in; what it held is not looked at
 * @param client_out  made to point to it; credutl_free_client() releases what they hold. As it was on failure, and then
 *                    there is nothing to release.
 * @return 0; 1 with errno when the host's name, the groups of the process (an error is printed) or the names are not to
 *         be had.
 *
 * Threads: any.
 * Raises:  yes: where it prints; nothing is lost.
 */
KS_API int credutl_mk_client_vellum(credutl_auth_vellum_kind_t kind, credutl_auth_vellum_t *record,
                                    credutl_client_t *client_out);

/**
 * Takes a client's record apart.
 *
 * @param client               a client; a family other than CREDUTL_AUTH_FAMILY_VELLUM ends the process (assertion
 *                             "client_p->auth_family == CREDUTL_AUTH_FAMILY_VELLUM")
 * @param domain, domain_size  receives the domain, cut to whole characters; a size of 0 stores nothing
 * @param host, host_size      receives the host, the same
 * @param out_creds            receives copies of the names, released with credutl_free_string_credentials(). A client
 *                             that told its host only is user "NOBODY", group "NOBODY", without further groups.
 * @return 0; 1 with errno ENOMEM, `out_creds` as it was.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API int credutl_crack_client_vellum(const credutl_client_t *client, char *domain, size_t domain_size, char *host,
                                       size_t host_size, credutl_string_credentials_t *out_creds);

/**
 * Frees the names that a client's record holds, makes domain and host "", and all of the client zeros. The record
 * itself is the caller's; one that was decoded is released with XDR_FREE instead, which frees it too. Threads: any, one
 * at a time for a client. Raises: no.
 */
KS_API void credutl_free_client(credutl_client_t *client);

/**
 * Makes a handle of the product's flavour for the calling process (credutl_mk_client_vellum() with its credentials).
 * Put it into a client's `cl_auth`, and end it with auth_destroy(), when no client has it any more.
 *
 * The identity is that of this moment: later changes of the process's do not move it. A credential has 400 bytes: of
 * more groups than fit the first ones are sent, which is a trace of "credutl" at level 1. Verifiers of replies are all
 * admitted, and the handle cannot be refreshed (auth_refresh() gives FALSE).
 *
 * @return the handle; NULL with errno: as credutl_mk_client_vellum(); EMSGSIZE where domain, host, user and group alone
 *         do not fit; ENOMEM.
 *
 * Threads: any; one at a time for a handle.
 * Raises:  yes: where it prints or traces; nothing is lost.
 */
KS_API AUTH *credutl_auth_create(void);

/**
 * Makes a handle of the product's flavour for any client, as credutl_auth_create() does it.
 *
 * @param client  a client, which is read and stays the caller's; a family other than CREDUTL_AUTH_FAMILY_VELLUM ends
 *                the process, as in credutl_crack_client_vellum()
 * @return as credutl_auth_create(); EINVAL for a number of groups below 0 or above 32, of which nothing is sent;
 *         EMSGSIZE also for what xdr_credutl_client_t() does not admit.
 *
 * Threads: any; one at a time for a handle.
 * Raises:  where it traces; nothing is lost.
 */
KS_API AUTH *credutl_auth_create_for(const credutl_client_t *client);

/**@}*/

/** @name Servers: who calls */
/**@{*/

/** What a call tells of its caller. */
enum {
    CREDUTL_CALLER_ERROR = -1,          /**< it could not be found out: errno */
    CREDUTL_CALLER_TOLD = 0,            /**< a user, who may have been refused belief and be nobody */
    CREDUTL_CALLER_UNKNOWN_FLAVOUR = 1, /**< a flavour that is not known here */
    CREDUTL_CALLER_UNTOLD = 2           /**< no user */
};

/** Who calls. Its texts have no control characters: each of theirs is a "?". */
typedef struct credutl_caller_t {
    credutl_sid_credentials_t credentials; /**< whom the caller is taken for; the SIDs of nobody, without groups, where
                                              it is not believed or did not say */
    char domain_name[CREDUTL_NAME_SIZE];   /**< as it claims; "" where it does not */
    char host_name[CREDUTL_NAME_SIZE];     /**< as it claims; "" where it does not */
    char claimed_user[CREDUTL_NAME_SIZE]; /**< as it claims, for logs: "UNIX:UID-7" (AUTH_UNIX) or a name, cut to fit */
} credutl_caller_t;

/**
 * Makes servers of this process admit calls of the product's flavour. Their credentials are checked for their form and
 * all limits: what is refused gets AUTH_BADCRED. More than the record in the body, and a NUL in a name, are refused
 * too.
 *
 * @return 0; 1 when it is done already; -1 on exhaustion (errno ENOMEM).
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API int credutl_svc_auth_register(void);

/**
 * Tells who makes a call, in AUTH_UNIX or in the product's flavour. Call it in a dispatch routine, before it returns.
 *
 * A caller may claim to be anybody, and neither flavour proves anything. Nobody is what it is taken for when it claims
 *  - uid 0, by number or name, unless both the host's name is this host's and the call comes from one of this host's
 *    own addresses (credutl_is_own_address()): the name is the caller's choice, the address is less so;
 *  - a name that this host's database does not know, uid -1 or -2, or what is no user of this system's kind.
 * Whoever is not believed is in no group either. AUTH_UNIX is taken by its numbers, and no database is asked; a record
 * of the product's flavour by its names (credutl_string_credentials_to_sid_credentials()), with a look-up for each,
 * which may wait for a directory service.
 *
 * @param request     the request of a dispatch routine; `rq_clntcred` as its checker has left it
 * @param out_caller  filled in, in any case
 * @return CREDUTL_CALLER_TOLD; CREDUTL_CALLER_UNTOLD for AUTH_NONE, and for a client that tells its host only;
 *         CREDUTL_CALLER_UNKNOWN_FLAVOUR; CREDUTL_CALLER_ERROR when the database could not be asked, with errno: the
 *         caller is nobody then.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API int credutl_identify_caller(const struct svc_req *request, credutl_caller_t *out_caller);

/**
 * Tells whether an address is one of this host's: a loopback address (127.0.0.0/8, ::1), or that of an interface
 * (getifaddrs(3)), whatever its port. IPv4 in the form of IPv6 is IPv4; of addresses that are valid on one link the
 * link counts.
 *
 * @param addr  an address as long as its family says; of a family other than AF_INET and AF_INET6 it is not
 * @return 1 or 0; 0 also where the interfaces cannot be asked.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API int credutl_is_own_address(const struct sockaddr *addr);

/**
 * Gives the SIDs of an AUTH_UNIX call: uid, gid and the groups in their order. A uid of -2 or -1 is nobody
 * (credutl_interpret_client_uid()), and so is uid 0 of a host whose name, in the credential, is not this host's, upper
 * and lower case being the same. That name is the caller's choice: a server that grants anything asks
 * credutl_identify_caller() instead.
 *
 * @param request              the request of a dispatch routine
 * @param out_creds            receives them; the SIDs of nobody, without groups, where the result is not 0 or the
 *                             caller is not trusted
 * @param domain, domain_size  receives the domain of the machine name (credutl_crack_authunix_machname()), "" for other
 *                             flavours; not printable as it stands. NULL, or a size of 0: not given
 * @param host, host_size      receives the host, the same
 * @return CREDUTL_CALLER_TOLD (0), CREDUTL_CALLER_UNTOLD (2) for AUTH_NONE, CREDUTL_CALLER_UNKNOWN_FLAVOUR (1) for all
 *         others, the product's flavour too.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API int credutl_crack_rpc_auth(const struct svc_req *request, credutl_sid_credentials_t *out_creds, char *domain,
                                  size_t domain_size, char *host, size_t host_size);

/**
 * credutl_crack_rpc_auth() into the shape without a bound.
 *
 * @param area  where the groups are put, as in credutl_sid_credentials_to_whole_credentials()
 * @return as there; CREDUTL_CALLER_ERROR on exhaustion (message, errno ENOMEM), and the SIDs are nobody's then.
 */
KS_API int credutl_crack_whole_rpc_auth(const struct svc_req *request, stg_area *area,
                                        credutl_whole_credentials_t *out_creds, char *domain, size_t domain_size,
                                        char *host, size_t host_size);

/**
 * Tells what a client's uid stands for, before it is taken by its number: -1 and -2, and numbers of more than 32 bits,
 * stand for nobody.
 *
 * @param uid        as a call has it
 * @param out_creds  receives the SIDs of nobody, without groups, where the result is 1; else as it was
 * @return 1 when the credentials are filled in here, 0 when uid and groups of the call are to be taken.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API int credutl_interpret_client_uid(credutl_uid_t uid, credutl_sid_credentials_t *out_creds);

/**@}*/

/** The module's messages, subsystem "credutl". */
extern KS_API const msg_table _credutl_ks_msg_table;

#ifdef __cplusplus
}
#endif
#endif
