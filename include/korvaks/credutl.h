/**
 * @file credutl.h
 * Identities that programs of the product exchange: security identifiers (SIDs), credentials, named users and groups,
 * and the record by which a client tells its host and user. Their layout, their wire forms (XDR, RFC 4506) and the text
 * of a SID.
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
 */
#ifndef KORVAKS_CREDUTL_H
#define KORVAKS_CREDUTL_H

#include <korvaks/base.h>
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

#ifdef __cplusplus
}
#endif
#endif
