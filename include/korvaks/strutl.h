/**
 * @file strutl.h
 * The toolbox for byte strings in the process locale.
 *
 * Characters. Strings are NUL-terminated bytes in the locale's encoding. Where the longest
 * character is one byte (MB_CUR_MAX below 2) every routine works byte by byte; elsewhere it steps
 * by whole characters, so that a byte inside a multibyte character is never taken for a delimiter.
 * An invalid byte sequence counts as a character of one byte. Cutting a text to a size never leaves
 * part of a character behind.
 *
 * Results. A routine that succeeds or fails returns 0 for success and 1 for failure, unless its
 * comment says otherwise; a search succeeds when it finds. On failure results are left untouched,
 * unless its comment says otherwise. Positions and lengths are bytes; a position lies between 0 and
 * the string's length, on the first byte of a character.
 *
 * Ownership. "New" strings come from the heap level and are freed with stg_free(), or from the
 * area that the caller named. A per-thread result stays valid until the same thread calls the same
 * routine again. Exhaustion is reported by the storage module, sets errno ENOMEM and is a failure.
 *
 * Threads: any thread may call anything here; nothing is shared but the process environment, which
 * is read under its lock. Changing the locale while another thread is in here is not safe.
 * Raises: only where a comment says so; "as stg_malloc()" stands for what allocating may do, which prints
 * when memory is exhausted.
 * Arguments named `str`, `src` and the like are not NULL unless a comment gives NULL a meaning.
 */
#ifndef KORVAKS_STRUTL_H
#define KORVAKS_STRUTL_H

#include <stdarg.h>
#include <stdio.h>
#include <wchar.h>

#include <korvaks/base.h>
#include <korvaks/stg.h>

#ifdef __cplusplus
extern "C" {
#endif

struct list_record;
struct __rpc_xdr;

/** @name Environment variables in strings */
/**@{*/

/**
 * Replaces references to environment variables by their values, once.
 *
 * "$NAME" (the longest run of alphanumeric characters and "_") and "${NAME}" (up to the first "}",
 * or to the end of the string) are references; an unset or empty variable expands to nothing. A
 * backslash makes the next character ordinary and is dropped; one at the very end is kept. Any
 * other "$" stands for itself. Values are inserted as they are, not expanded again, and the result has
 * no bound but memory.
 *
 * @param str        text, not changed
 * @param out_found  receives 1 when a reference was seen, else 0, also on failure; may be NULL
 * @return a new string, freed with stg_free(); NULL when memory is exhausted (message, errno ENOMEM).
 *
 * Threads: any; each value is read under the environment's lock.
 * Raises:  yes; what it had allocated is given back first.
 */
KS_API char *strutl_expand_evs_status(const char *str, unsigned *out_found);

/**
 * Replaces references to environment variables by their values, once: strutl_expand_evs_status() without
 * the flag.
 *
 * @param str  text, not changed
 * @return a new string, freed with stg_free(); NULL when memory is exhausted (message, errno ENOMEM).
 *
 * Threads: any; each value is read under the environment's lock.
 * Raises:  yes; what it had allocated is given back first.
 */
KS_API char *strutl_expand_evs(const char *str);

/**
 * Expands again and again until a pass meets no reference, so values may refer to variables.
 *
 * Each pass does what strutl_expand_evs_status() does, so it also removes one level of backslashes: text
 * that must survive n passes needs n levels. Since each pass can multiply the text, what it gives may be at
 * most 1 MiB (1048576 bytes) longer than `str`.
 *
 * @param str         text, not changed
 * @param max_passes  how often the result of a pass with a reference may be expanded again;
 *                    0 stands for 8
 * @return a new string, freed with stg_free(). NULL with errno EINVAL when `max_passes` is negative, when
 *         that many passes do not end it ("$A" for A="$B" and B="$A"), or when a text would pass the bound;
 *         with ENOMEM (message) when memory is exhausted. Nothing is left behind.
 *
 * Threads: any; each value is read under the environment's lock.
 * Raises:  yes; what it had allocated is given back first.
 */
KS_API char *strutl_expand_evs_iterate(const char *str, int max_passes);
/**@}*/

/** @name Tokens and numbers */
/**@{*/

/**
 * Cuts a string into tokens, in place, as strtok() does (C11 7.24.5.8), with the place kept per thread.
 *
 * Delimiters in front of a token are skipped as bytes. The token then ends at the first character whose
 * first byte is a delimiter, and that byte is overwritten with a NUL.
 *
 * @param str     string to start on, which is changed and must live until it is used up; NULL goes on with
 *                the thread's current one
 * @param delims  delimiter bytes; may change between calls, and "" makes one token of what is left
 * @return the token's start inside the string; NULL when there is none left, and from then on until a new
 *         string is given.
 *
 * Threads: any; each has a place of its own.
 * Raises:  no.
 */
KS_API char *strutl_tokenize(char *str, const char *delims);

/**
 * strtol() (C11 7.22.1.4) with a clear result.
 *
 * @param str        text; white space in front of the number is skipped
 * @param base       2 to 36, or 0 for the one that the text shows ("0x1f", "017", "31")
 * @param out_value  receives the number; 0 on failure
 * @param out_end    receives the address after the number, as from strtol(), on failure too (`str` itself
 *                   when there is no number or the base is bad); may be NULL
 * @return 0; 1 when the number is out of range (errno ERANGE), the base is bad (EINVAL) or there is no number
 *         (errno as it was). On success errno stays as it was.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API unsigned strutl_strtol_extended(const char *str, int base, long *out_value, char **out_end);

/**
 * strtoul() (C11 7.22.1.4) with a clear result: as strtol(), it takes a sign too, and "-1" is ULONG_MAX.
 * Arguments, result and errno are those of strutl_strtol_extended().
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API unsigned strutl_strtoul_extended(const char *str, int base, unsigned long *out_value, char **out_end);

/**
 * strtod() (C11 7.22.1.3) with a clear result.
 *
 * It reads what strtod() reads in the locale: decimal and hexadecimal numbers, "inf" and "nan".
 *
 * @param str        text; white space in front of the number is skipped
 * @param out_value  receives the number; 0 on failure
 * @param out_end    receives the address after the number, on failure too; may be NULL
 * @return 0; 1 when the number is too large or too small for a double (errno ERANGE) or there is none (errno
 *         as it was). On success errno stays as it was.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API unsigned strutl_strtod_extended(const char *str, double *out_value, char **out_end);

/**
 * Reads a whole string as a number: strutl_strtol_extended(), and anything after the number is a failure.
 *
 * @param str        text; white space in front is allowed, behind it is not
 * @param base       2 to 36, or 0 for the one that the text shows
 * @param out_value  receives the number; 0 on failure
 * @return 0; 1 on failure: errno ERANGE out of range, EINVAL for a bad base, else as it was.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API unsigned strutl_strtol(const char *str, int base, long *out_value);

/** strutl_strtol() for an unsigned number, of which "-1" is ULONG_MAX. Threads: any. Raises: no. */
KS_API unsigned strutl_strtoul(const char *str, int base, unsigned long *out_value);

/** strutl_strtol() for a number that strtod() reads, without a base. Threads: any. Raises: no. */
KS_API unsigned strutl_strtod(const char *str, double *out_value);

/**
 * Reads a size as kilobytes: a number as strtod() reads it, and at most one of the letters "k", "m", "g" in
 * either case, which count kilobytes, megabytes and gigabytes. Without a letter the number counts bytes.
 *
 * The result is truncated toward zero, but a size that is not 0 never becomes 0: "100" gives 1 kilobyte,
 * and so do "-1", a thousandth of a kilobyte below 0, and "nan".
 *
 * @param str         text; anything else behind the number is a failure ("1kb", "1 k")
 * @param out_kbytes  receives the size; as it was on failure
 * @return 0; 1 when it is no size, or its kilobytes are -1 or less, or 2^64 or more. errno is ERANGE when the
 *         number itself passes the range of a double, else as it was.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API unsigned strutl_kstr_to_long(const char *str, unsigned long *out_kbytes);

/**
 * Reads a size as bytes: as strutl_kstr_to_long(), and "1k" gives 1024, "1.5" and "-0.5" give 1, "-1" fails.
 *
 * @param str        text
 * @param out_bytes  receives the size; as it was on failure
 * @return 0; 1 when it is no size, or its bytes are -1 or less, or 2^64 or more.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API unsigned strutl_kstr_or_str_to_long(const char *str, unsigned long *out_bytes);

/**
 * A decimal parameter within limits.
 *
 * @param str   text; NULL, and what strutl_strtol() refuses with base 10, stand for `dflt`
 * @param dflt  the value then, whatever the limits
 * @param min   a number below it becomes it; tested first
 * @param max   a number above it becomes it
 * @return the number within the limits, or `dflt`. It cannot fail.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API long strutl_process_long_param(const char *str, long dflt, long min, long max);

/** 0 when `str` is not empty and all ASCII digits, else 1; NULL gives 1. Threads: any. Raises: no. */
KS_API unsigned strutl_match_numeric_string(const char *str);

/**
 * A number's digits in a base, lower case.
 *
 * @param value  number; of one with more than 32 digits the low-order 32 are kept
 * @param base   2 to 36
 * @param width  -1: no leading zeros, at least one digit. 0 to 32: exactly that many digits, with
 *               leading zeros, or the low-order ones of a longer number; 0 gives "". Others count as the
 *               nearest of these.
 * @return the thread's own text until the thread calls this function again; NULL for a base out of range
 *         (errno as it was), or when memory is exhausted on the thread's first call (message, ENOMEM).
 *
 * Threads: any.
 * Raises:  only when it reports exhaustion.
 */
KS_API char *strutl_u32tostr(unsigned long value, int base, int width);
/**@}*/

/** @name Flag sets */
/**@{*/

/** One row of a flag table: a word and the bit or bits it stands for (low 32 bits are used). */
typedef struct strutl_flag_item_t {
    const char *name;
    unsigned long value;
} strutl_flag_item_t;

/**
 * Names the flags of a set.
 *
 * Row by row, a row that shares a bit with the flags adds its name and takes its bits out. Bits that
 * remain add " UNKNOWN(0x%x)", always with its own blank and no separator.
 *
 * @param flags  the set; 0 gives ""
 * @param sep    between names; NULL or "" stands for " "
 * @param items  the table, in the order of the names; may be NULL when `count` is below 1
 * @param count  its rows; below 1 none
 * @return the thread's own text of at most 1023 bytes (a longer one is cut), until the thread calls this
 *         function again; NULL when memory is exhausted on the thread's first call (message, errno ENOMEM).
 *
 * Threads: any.
 * Raises:  only when it reports exhaustion.
 */
KS_API char *strutl_flags_to_str(unsigned flags, const char *sep, const strutl_flag_item_t *items, int count);

/**
 * Names the flags of a set in a vector.
 *
 * Other than in strutl_flags_to_str() a row counts only when all its bits are set; a row that is set in
 * part is left out and yet takes its bits out. Bits that remain add an element " UNKNOWN(0x%x)".
 *
 * @param flags      the set
 * @param items      the table, in the order of the names; may be NULL when `count` is below 1
 * @param count      its rows; below 1 none
 * @param out_names  receives a heap vector of heap strings, the caller's: free each string, then the
 *                   vector, with stg_free(). It is made even when there are no names.
 * @param out_n      receives the number of names
 * @return 0; 1 when memory is exhausted (message, errno ENOMEM), with nothing stored and nothing left behind.
 *
 * Threads: any.
 * Raises:  yes, before anything is made or after the results are stored.
 */
KS_API unsigned strutl_flags_to_str_list(unsigned flags, const strutl_flag_item_t *items, int count, char ***out_names,
                                         int *out_n);

/**
 * Reads names of flags, separated by a string.
 *
 * Only the first 1023 bytes are read, and a word that stands there is cut. One separator at the very end is
 * allowed; an empty word anywhere else is an unknown word. Empty text is the empty set.
 *
 * @param text            names; not NULL
 * @param case_sensitive  not 0: words compare by strcmp(), else by strutl_stricoll()
 * @param sep             NULL or "" stands for " "
 * @param items           the table; may be NULL when `count` is 0
 * @param count           its rows
 * @param out_bad_word    receives NULL, or the address in `text` of the first unknown word; may be NULL
 * @return the values of all words, ORed; 0 when a word is unknown, which `*out_bad_word` tells from an empty
 *         set. errno tells nothing.
 *
 * Threads: any.
 * Raises:  no; with words of more than a few hundred bytes, and `case_sensitive` 0, as strutl_stricoll().
 */
KS_API unsigned strutl_flags_from_str(const char *text, int case_sensitive, const char *sep,
                                      const strutl_flag_item_t *items, size_t count, const char **out_bad_word);

/**
 * XDR of a flag row (RFC 4506): the name as a string without bound, the value as unsigned int, of which only
 * the low 32 bits travel.
 *
 * Decoding allocates the name with malloc(), for what the stream really holds and not for what it announces;
 * XDR_FREE frees it.
 *
 * @param xdrs  stream of the platform's XDR, for encoding, decoding or freeing
 * @param item  the row. For decoding its name is NULL: the room behind an address is not known, and one is refused.
 *              For encoding it is not NULL
 * @return 1; 0 when the stream ends or refuses, or memory is exhausted. A name that was decoded before stays in the
 *         row, to be freed.
 *
 * Threads: any, with a stream of its own.
 * Raises:  no.
 */
KS_API int xdr_strutl_flag_item_t(struct __rpc_xdr *xdrs, strutl_flag_item_t *item);
/**@}*/

/** @name Hash and formats */
/**@{*/

/**
 * A 32-bit hash of a string: for each byte, rotate left by 5 and add, modulo 2^32.
 *
 * It is fixed and public: strangers can choose strings that collide, so it is not for a table of their keys.
 *
 * @param seed  value to begin with, the hash of ""
 * @param str   string, as bytes whatever the locale
 * @return the hash.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API unsigned strutl_str_to_hash32(unsigned seed, const char *str);

/** What a printf directive takes. Valid kinds lie strictly between the first and the last. */
typedef enum strutl_printf_kind {
    strutl_printf_kind_null = 1,
    strutl_printf_kind_percent = 2, /**< "%%": no argument */
    strutl_printf_kind_pointer = 3,
    strutl_printf_kind_string = 4,
    strutl_printf_kind_double = 5,
    strutl_printf_kind_int = 6,
    strutl_printf_kind_unsigned_int = 7, /**< "c" too */
    strutl_printf_kind_long = 8,
    strutl_printf_kind_unsigned_long = 9,
    strutl_printf_kind_long_long = 10,
    strutl_printf_kind_unsigned_long_long = 11,
    strutl_printf_kind_end_marker = 12
} strutl_printf_kind;

/**
 * Finds the next directive of a printf format.
 *
 * A directive is "%", at most one flag, a width (digits or "*"), a precision ("." and digits or
 * "*"), a length ("h", "l", "ll") and one of the letters % c d e E f g G i o p s u x X. A length in front of a
 * letter that takes none is read and means nothing.
 *
 * @param fmt                 format; characters are those of the locale
 * @param start               where to look from, up to the length of `fmt`
 * @param dir_size, dir       receives the directive's text, cut to `dir_size` - 1 bytes and terminated; with
 *                            size 0 nothing is stored, and `dir` may be NULL. Left alone without a directive
 * @param out_next            receives the position after the directive; without one, that of the "%"
 *                            that is malformed, or the length of `fmt`
 * @param out_kind            receives its kind; strutl_printf_kind_null without one
 * @param out_star_width, out_star_precision  receive 1 when an int argument gives them, else 0
 * @return 1 when a directive was found, 0 when there is none or it is malformed (not the usual sense).
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API unsigned strutl_find_printf_directive(const char *fmt, size_t start, size_t dir_size, char *dir,
                                             size_t *out_next, strutl_printf_kind *out_kind, int *out_star_width,
                                             int *out_star_precision);

/**
 * Bounded formatting: vsnprintf() (C11 7.21.6.12).
 *
 * @param buf     receives the text, cut to `size` - 1 bytes (perhaps inside a character) and terminated
 * @param size    bytes of `buf`; 0 stores nothing, and `buf` may be NULL
 * @param format  printf format
 * @param args    its arguments; indeterminate afterwards
 * @return the length that the whole text has; below 0 with errno (EILSEQ, EOVERFLOW, ENOMEM) when it cannot
 *         be made.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API int strutl_vsnprintf(char *buf, size_t size, const char *format, va_list args) KS_PRINTF(3, 0);

/** strutl_vsnprintf() with the arguments themselves. Threads: any. Raises: no. */
KS_API int strutl_snprintf(char *buf, size_t size, const char *format, ...) KS_PRINTF(3, 4);
/**@}*/

/** @name Conversion and checks */
/**@{*/

/**
 * Undoes the backslash escapes of a string literal.
 *
 * \" \' \? \\ \a \b \f \n \r \t \v as in C; \0 is a NUL byte; \x takes one or two hexadecimal digits;
 * any other character after the backslash starts one to three octal digits of a value up to 255.
 *
 * @param src      text; NULL is a failure
 * @param quoted   not 0: the text stands in double quotes, which are not copied, and a double quote
 *                 inside it is written twice
 * @param out_str  receives a new string, freed with stg_free(); as it was on failure. A \0 makes a NUL byte
 *                 inside it, behind which only the caller knows how much there is
 * @return 0; 1 for a literal that is not well formed (errno as it was) or when memory is exhausted (message,
 *         errno ENOMEM). Nothing is left behind.
 *
 * Threads: any.
 * Raises:  as stg_malloc(), before anything is made.
 */
KS_API unsigned strutl_cstr_to_str(const char *src, int quoted, char **out_str);

/**
 * Tells whether a name is acceptable.
 *
 * Each character must be printable, not a control character and not white space, and in ASCII not
 * punctuation, or else be one of `extra_ok`. An invalid byte sequence is not acceptable, whatever stands in
 * `extra_ok`.
 *
 * @param name       name; NULL and "" are not acceptable
 * @param bad_first  characters it must not start with; may be NULL
 * @param extra_ok   further acceptable characters; may be NULL
 * @return 1 when it is acceptable, 0 when not (not the usual sense).
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API unsigned strutl_is_ok_name(const char *name, const char *bad_first, const char *extra_ok);

/**
 * UTF-8 to UTF-16, one code unit per element of `out`, whatever the locale.
 *
 * It decodes and does not validate: a stray or wrong continuation byte yields the value that its
 * bits add up to. Characters above U+FFFF become surrogate pairs; values above U+10FFFF, and
 * sequences announced as five or six bytes, become U+FFFD.
 *
 * @param out        receives the units and a closing 0, which is there on every result unless `out_units` is
 *                   below 1
 * @param in         bytes, which need no terminator; NUL bytes are characters
 * @param in_len     how many; below 1 none
 * @param out_units  elements of `out`, the closing 0 included
 * @param out_used   receives the bytes consumed, on every result; may be NULL
 * @return 0: all consumed. 1: the input ends inside a sequence, which is left. 3: `out` is full;
 *         the characters before fit.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API unsigned strutl_utf8to16(wchar_t *out, const unsigned char *in, long in_len, long out_units, size_t *out_used);

/**
 * UTF-16, one code unit per element, to UTF-8, whatever the locale.
 *
 * A high surrogate and a low one after it become one character of four bytes; an unpaired one is encoded as
 * it stands, in three. Values up to 0x1FFFFF are encoded, larger ones become U+FFFD.
 *
 * @param out       receives the bytes and a closing NUL, on every result unless `out_size` is below 1
 * @param in        code units, which need no terminator; 0 is a character
 * @param in_units  how many; below 1 none
 * @param out_size  bytes of `out`, the closing NUL included
 * @return 0: done. 3: `out` is too small; it ends after the last character that fitted.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API unsigned strutl_utf16to8(char *out, const wchar_t *in, long in_units, long out_size);

/**
 * One two-byte character of Shift-JIS in EUC-JP, by arithmetic and whatever the locale.
 *
 * @param lead, trail                the character; not validated, other bytes give some two bytes
 * @param out_euc_high, out_euc_low  receive its two bytes, each with the high bit set; either may be NULL
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API void strutl_cvt_sjis_to_euc(unsigned char lead, unsigned char trail, unsigned char *out_euc_high,
                                   unsigned char *out_euc_low);

/**
 * Tells whether two strings are equal but for white space. White space at either end does not count; a run
 * of it inside stands for one blank, so "a b" and "ab" differ.
 *
 * @return 0 when they are equal, else 1; it gives no order.
 * Threads: any. Raises: no.
 */
KS_API unsigned strutl_cmp_ignore_whitespace(const char *a, const char *b);

/**
 * Compares two strings by the locale's order, without regard to case: both folded to lower case, by
 * strcoll() (C11 7.24.4.3).
 *
 * Strings that together need no more than 1024 bytes, at the locale's longest character for each byte, are
 * folded on the stack; longer ones on the heap. Without memory the strings as given are compared.
 *
 * @return below 0, 0 or above 0.
 *
 * Threads: any.
 * Raises:  only when it reports exhaustion.
 */
KS_API int strutl_stricoll(const char *a, const char *b);

/**
 * Changes the case of the first character of a string. One that has no other case, or is no valid
 * character, is copied.
 *
 * @param src       string
 * @param to_upper  not 0: to upper case, else to lower
 * @param out       room for MB_LEN_MAX bytes; not terminated, and untouched at the end of the string
 * @param out_len   receives the bytes written, which may differ from those read; 0 at the end
 * @return bytes of `src` the character had; 0 at its end.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API size_t strutl_cvt_case_char(const char *src, int to_upper, char *out, size_t *out_len);

/**
 * Changes the case of a string, character by character.
 *
 * The result may be longer than the string: at most MB_CUR_MAX bytes for each of its bytes.
 *
 * @param src       string
 * @param to_upper  not 0: to upper case, else to lower
 * @param out_size  bytes of `out`
 * @param out       receives the result; must not overlap `src`
 * @return 1 when all of it was converted (not the usual sense). 0 when the next character does not fit in
 *         `out_size` bytes with a NUL: `out` holds those before it, terminated, and nothing when `out_size` is 0.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API unsigned strutl_cvt_case_string(const char *src, int to_upper, size_t out_size, char *out);

/**
 * Copies a path and replaces every separator character.
 *
 * @param src          path
 * @param seps         characters that count as separators; they may have several bytes
 * @param to           the one byte that replaces each
 * @param buf          receives the result, cut to whole characters and terminated; may be `src` itself
 * @param buf_size     bytes of `buf`; 0 stores nothing
 * @param out_changed  receives 1 when anything was replaced, else 0; may be NULL
 * @return 0; 1 when the result was cut or `buf_size` is 0.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API unsigned strutl_xlate_pname_sep(const char *src, const char *seps, char to, char *buf, size_t buf_size,
                                       int *out_changed);

/**
 * Copies a string and replaces each character of a set by a string of its own.
 *
 * @param dst           receives the result with a NUL, without a bound, and must not overlap `src`; NULL only
 *                      measures, so that a second call can fill a buffer of the right size
 * @param src           string
 * @param chars         the set
 * @param replacements  what stands for the first, second ... character of the set; "" removes it
 * @return the length of the result without the NUL.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API size_t strutl_xlate_chars_to_strings(char *dst, const char *src, const char *chars,
                                            const char *const *replacements);

/**
 * Turns a string into printable ASCII text, to keep it from being read in passing. It is no encryption:
 * strutl_extract_tail() turns it back without a secret.
 *
 * The text of one string differs with the time. n bytes become n / 3 * 4 characters, and those of the rest,
 * and one more; "" becomes "".
 *
 * @param src       string
 * @param out       receives the text: letters, digits, "+" and "-"
 * @param out_size  bytes of `out`, the closing NUL included; 4 * n / 3 + 4 is always enough
 * @return 0; 1 when `out` is too small, and it then holds "" (unless `out_size` is 0).
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API unsigned strutl_extract_head(const char *src, char *out, size_t out_size);

/**
 * Turns a text of strutl_extract_head() back into the string. Texts of every earlier version can be read.
 *
 * @param src       text; any bytes may be given
 * @param out       receives the string
 * @param out_size  bytes of `out`, the closing NUL included; 3 / 4 of the text's length and 1 are always enough
 * @return 0; 1 when `out` is too small, or `src` has a length or a character that no such text has. `out`
 *         then holds "" (unless `out_size` is 0). A damaged text may also give another string: there is no check
 *         beyond that.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API unsigned strutl_extract_tail(const char *src, char *out, size_t out_size);
/**@}*/

/** @name Characters */
/**@{*/

/**
 * Bytes of the character at `s`, as mblen() (C11 7.22.7.1) but without a state.
 *
 * @param s  text; NULL gives 0
 * @param n  bytes that may be looked at
 * @return its length; 1 for an invalid character and one that `n` cuts, 0 for NUL and for `n` 0.
 * Threads: any. Raises: no.
 */
KS_API int strutl_mblen(const char *s, size_t n);

/** 1 when the locale's characters are single bytes (MB_CUR_MAX below 2), 2 otherwise. Threads: any. Raises: no. */
KS_API unsigned strutl_get_sys_char_type(void);

/**
 * The first character of a string.
 *
 * @param str       string
 * @param out_char  receives it: as mbtowc() gives it, of an invalid sequence and in a single-byte locale the
 *                  first byte's value, 0 at the end of the string; may be NULL
 * @return its length in bytes, 0 at the end of the string.
 * Threads: any. Raises: no.
 */
KS_API size_t strutl_mb_char_from_str(const char *str, wchar_t *out_char);

/** Characters of a string; each byte of an invalid sequence counts. Threads: any. Raises: no. */
KS_API size_t strutl_mb_strlen(const char *str);

/** The first character of a wide string in `*out_char` (may be NULL); 1, or 0 at its end. Threads: any. Raises: no. */
KS_API size_t strutl_wide_char_from_str(const wchar_t *str, wchar_t *out_char);

/** Characters of a wide string, of which every element is one. Threads: any. Raises: no. */
KS_API size_t strutl_wide_strlen(const wchar_t *str);

/**
 * Converts a string to a wide string, by the locale.
 *
 * Each failure prints a message of "ks/strutl", by number, and leaves nothing behind.
 *
 * @param area     area of the result, or STG_AREA_HEAP
 * @param src      string
 * @param out_str  receives the result, which belongs to the area, or is freed with stg_free(); as it was on
 *                 failure
 * @return 0. 1 with errno EINVAL for a NULL `src` (message 3); EILSEQ for an invalid character (4, with the
 *         text from there on) and for a string that ends inside one (5, with the string); ENOMEM when memory is
 *         exhausted (2).
 *
 * Threads: any; the area serialises its callers.
 * Raises:  when it prints.
 */
KS_API unsigned strutl_cvt_str_to_wide_str(stg_area *area, const char *src, wchar_t **out_str);

/**
 * Converts a wide string to a string, by the locale.
 *
 * @param area     area of the result, or STG_AREA_HEAP
 * @param src      wide string
 * @param out_str  receives the result, which belongs to the area, or is freed with stg_free(); as it was on
 *                 failure
 * @return 0. 1, with a message of "ks/strutl", and errno EINVAL for a NULL `src` (message 3), EILSEQ for a
 *         character that the locale does not have (6), ENOMEM when memory is exhausted (2).
 *
 * Threads: any; the area serialises its callers.
 * Raises:  when it prints.
 */
KS_API unsigned strutl_cvt_wide_str_to_str(stg_area *area, const wchar_t *src, char **out_str);

/** Classes of strutl_test_char(), as isalpha() and its like (C11 7.4.1) have them. */
enum {
    STRUTL_ALPHA = 0x1,
    STRUTL_UPPER = 0x2,
    STRUTL_LOWER = 0x4,
    STRUTL_DIGIT = 0x8,
    STRUTL_XDIGIT = 0x10,
    STRUTL_ALNUM = 0x20,
    STRUTL_SPACE = 0x40,
    STRUTL_PUNCT = 0x80,
    STRUTL_PRINT = 0x100,
    STRUTL_GRAPH = 0x200
};

/**
 * Tells whether the first character of a text is in all of some classes, by the locale. An invalid sequence
 * is tested by its first byte.
 *
 * @param s        text
 * @param n        bytes that may be looked at
 * @param classes  STRUTL_ bits; none asks only for a character
 * @param out_len  receives the character's length in bytes, 0 at the end; may be NULL
 * @return 1 when it is in all of them, 0 when not, and at the end of the text (a NUL, or `n` 0).
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API unsigned strutl_test_char(const char *s, size_t n, unsigned classes, size_t *out_len);
/**@}*/

/** @name Searching */
/**@{*/

/**
 * Finds the first character, from a position on, that is in a set of characters.
 *
 * @param str        string
 * @param start      where to look from, on the first byte of a character
 * @param set        the characters; "" has none
 * @param out_pos    receives its position; as it was when there is none; may be NULL
 * @param out_which  receives its offset in `set`; as it was when there is none; may be NULL
 * @return 0; 1 when there is none.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API unsigned strutl_find_char_from(const char *str, size_t start, const char *set, size_t *out_pos,
                                      size_t *out_which);

/**
 * Finds the first occurrence of a single-byte character.
 * @param ch       the character; NUL is never found
 * @param out_pos  receives its position; as it was when there is none; may be NULL
 * @return 0; 1 when there is none.
 * Threads: any. Raises: no.
 */
KS_API unsigned strutl_find_char(const char *str, int ch, size_t *out_pos);

/** Finds the last occurrence of a single-byte character; everything as with strutl_find_char(). */
KS_API unsigned strutl_find_last_char(const char *str, int ch, size_t *out_pos);

/** 0 when the last character of `str` is the single byte `ch`, else 1, also for "". Threads: any. Raises: no. */
KS_API unsigned strutl_match_last_char(const char *str, int ch);

/** Address of the last occurrence of a single-byte character (not NUL), NULL without one. Threads: any. Raises: no. */
KS_API char *strutl_right_char(const char *str, int ch);

/**
 * Finds the first occurrence of a string, in whole characters, that lies between two positions.
 *
 * What it costs grows with the sum of both lengths, whatever they hold.
 *
 * @param str      string
 * @param start    from here on, on the first byte of a character
 * @param end      up to here: the occurrence ends before or at it. A position past the string's length stands
 *                 for that; one before `start` is a failure
 * @param sub      what to find; "" is found at `start`
 * @param out_pos  receives its position in `str`; as it was when there is none; may be NULL
 * @return 0; 1 when there is none.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API unsigned strutl_find_str_range(const char *str, size_t start, size_t end, const char *sub, size_t *out_pos);

/**
 * Finds the first occurrence of a string, in whole characters, from a position on: strutl_find_str_range() up
 * to the string's end.
 *
 * @param str      string
 * @param start    from here on, on the first byte of a character
 * @param sub      what to find; "" is found at `start`
 * @param out_pos  receives its position in `str`; as it was when there is none; may be NULL
 * @return 0; 1 when there is none.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API unsigned strutl_find_str(const char *str, size_t start, const char *sub, size_t *out_pos);

/**
 * Replaces the first occurrence of a string, in whole characters, from a position on.
 *
 * @param buf       the string, in a buffer; changed in place
 * @param start     from here on, on the first byte of a character
 * @param buf_size  bytes of the buffer, the NUL included
 * @param old_text  what to find; "" is never found
 * @param new_text  what replaces it, not in `buf`
 * @param out_next  receives the position after the new text, to go on from; may be NULL
 * @return 0. 1 when there is none, or (message 1, "Supplied buffer too small.\n") when the result does not
 *         fit; `buf` and `*out_next` are then as they were.
 *
 * Threads: any.
 * Raises:  when it prints.
 */
KS_API unsigned strutl_find_replace_substr(char *buf, size_t start, size_t buf_size, const char *old_text,
                                           const char *new_text, size_t *out_next);

/**
 * Finds the delimiter that closes the opening one at a position, over nested pairs. When both are the
 * same character the next one closes.
 *
 * @param str      string
 * @param start    position of the opening delimiter; another character there is a failure
 * @param open, close  single-byte characters, not NUL
 * @param out_pos  receives the position of the closing one; as it was when there is none; may be NULL
 * @return 0; 1 when there is none.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API unsigned strutl_find_end_delim(const char *str, size_t start, int open, int close, size_t *out_pos);

/** Address of the last character of a string that is in a set of characters; NULL without one. Threads: any. Raises:
 * no. */
KS_API char *strutl_strrpbrk(const char *str, const char *set);

/**
 * Length of the common beginning of two strings, in whole characters.
 *
 * @param out_len  receives it in bytes, on both results; may be NULL
 * @return 0 only when the strings are equal, else 1.
 * Threads: any. Raises: no.
 */
KS_API unsigned strutl_match_prefix(const char *a, const char *b, size_t *out_len);

/**
 * Tells whether a list holds a string.
 *
 * @param str   string
 * @param list  list (list.h) whose elements are strings, compared by strcmp(); NULL holds none
 * @return 1 when one is equal to `str`, else 0 (not the usual sense).
 * Threads: any that may read the list. Raises: no.
 */
KS_API unsigned strutl_str_in_list(const char *str, const struct list_record *list);
/**@}*/

/** @name Copying and changing in place */
/**@{*/

/**
 * Copies a string into a buffer, cut to whole characters, and terminates it.
 *
 * @param dst   buffer; may be `src` itself
 * @param src   string
 * @param size  bytes of the buffer; 0 stores nothing
 * @return 0; 1 when the source was cut or `size` is 0.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API unsigned strutl_cpy_buf(char *dst, const char *src, size_t size);

/**
 * Copies at most the first `n` bytes of a string, cut to whole characters, and terminates.
 *
 * @param dst  buffer with room for n + 1 bytes
 * @param src  string
 * @param n    bytes; 0 gives ""
 * @return 0; 1 when the source was cut.
 * Threads: any. Raises: no.
 */
KS_API unsigned strutl_ncpy(char *dst, const char *src, size_t n);

/**
 * Copies the first `n` bytes of a text into a buffer of a size, and terminates.
 *
 * The text needs no NUL; nothing is read behind its `n` bytes. Where they end inside a character its bytes
 * count one by one.
 *
 * @param dst   buffer
 * @param src   text
 * @param n     its bytes; it also ends at a NUL
 * @param size  bytes of the buffer; 0 stores nothing. It cuts to whole characters
 * @return 0; 1 when the size cut the text or is 0.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API unsigned strutl_ncpy_buf(char *dst, const char *src, size_t n, size_t size);

/**
 * Copies what stands before a character, or all of a string, into a buffer, and terminates.
 *
 * @param dst   buffer
 * @param src   string
 * @param stop  single-byte character that ends the copy and is not copied; a string without it is copied whole
 * @param size  bytes of the buffer; 0 stores nothing. It cuts to whole characters
 * @return 0; 1 when the size cut the text or is 0.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API unsigned strutl_ccpy_buf(char *dst, const char *src, int stop, size_t size);

/**
 * Puts a string in front of another one, in place.
 *
 * @param buf     the string, in a buffer
 * @param size    bytes of the buffer
 * @param prefix  what to put there, not in `buf`
 * @return 0; 1 when both do not fit with a NUL, and `buf` is then as it was.
 * Threads: any. Raises: no.
 */
KS_API unsigned strutl_prepend(char *buf, size_t size, const char *prefix);

/**
 * Appends piece by piece to a buffer.
 *
 * Copies `src` to `*dst` as strutl_cpy_buf() into `*left` bytes, then moves `*dst` to the new NUL and takes
 * what was written, without the NUL, off `*left`.
 *
 * @param dst   where the next piece goes
 * @param left  bytes that the buffer has from there on; 0 stores nothing
 * @param src   the piece
 * @return 0; 1 when it was cut (the part is there) or nothing was left.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API unsigned strutl_cpy_and_advance(char **dst, size_t *left, const char *src);

/**
 * Joins strings in a buffer, cut to whole characters and terminated.
 *
 * @param buf   buffer
 * @param size  its bytes; 0 stores nothing
 * @param n     number of strings; below 1 makes ""
 * @param ...   the strings; NULL counts as "". When the first one is `buf` itself it is kept and the others
 *              are appended; none of the others may lie in `buf`
 * @return 0; 1 when the result was cut or `size` is 0. What follows a string that was cut is left out.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API unsigned strutl_concat(char *buf, size_t size, int n, ...);

/**
 * Joins strings in a new string on the heap.
 *
 * @param n    number of strings, up to 32; below 1 makes ""
 * @param ...  the strings; NULL counts as ""
 * @return the new string, freed with stg_free(). NULL for more than 32 strings (errno as it was) and when
 *         memory is exhausted (errno ENOMEM).
 *
 * Threads: any.
 * Raises:  as stg_malloc().
 */
KS_API char *strutl_concat_heap(int n, ...);

/**
 * Joins strings in a new string of an area: strutl_concat_heap() with the area's memory.
 *
 * @param area  area that the string belongs to, or STG_AREA_HEAP
 * @param n     number of strings, up to 32; below 1 makes ""
 * @param ...   the strings; NULL counts as ""
 * @return the new string; NULL for more than 32 strings and when memory is exhausted (errno ENOMEM).
 *
 * Threads: any; the area serialises its callers.
 * Raises:  as stg_alloc().
 */
KS_API char *strutl_concat_area(stg_area *area, int n, ...);

/** Removes white space (of the locale) at both ends, in place; returns `str`. Threads: any. Raises: no. */
KS_API char *strutl_strip_whitespace(char *str);

/**
 * Moves the tail of a string, with its NUL, in place.
 *
 * @param str    string, in a buffer that holds the result
 * @param pos    where the tail begins, up to the string's length
 * @param delta  above 0: up by so many bytes; the gap's bytes stay as they are. Below 0: down, over what stood
 *               there. A tail that would start before the string ends the process (an assertion)
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API void strutl_slide_tail(char *str, size_t pos, long delta);

/**
 * Replaces a part of a string, in place.
 *
 * @param buf       the string, in a buffer
 * @param pos       where the part begins
 * @param buf_size  bytes of the buffer, the NUL included
 * @param old_len   bytes of the part; 0 inserts. A part past the string's end ends the process (an assertion)
 * @param new_text  what replaces it, not in `buf`
 * @return 0; 1 (message 1, "Supplied buffer too small.\n") when the result does not fit, and `buf` is then as
 *         it was.
 *
 * Threads: any.
 * Raises:  when it prints.
 */
KS_API unsigned strutl_replace_substr(char *buf, size_t pos, size_t buf_size, size_t old_len, const char *new_text);
/**@}*/

/** @name Whole files */
/**@{*/

/**
 * Reads a file as one string.
 *
 * A line that holds a NUL byte is kept only up to it, as fgets() leaves it. Signals that interrupt it do not
 * end it, unless they bring a raise.
 *
 * @param area        area of the result, or STG_AREA_HEAP (stg_free())
 * @param path        file, through symbolic links; a FIFO or device whose status shows no size counts as one
 *                    that grows, unless it gives nothing
 * @param ignored     has no meaning; pass NULL
 * @param quiet       not 0: failures print nothing, but for exhausted memory
 * @param missing_ok  not 0: a file that does not exist reads as ""
 * @return the contents. NULL with a message and errno: that of open() or read(), EINTR when a raise waits,
 *         EFBIG when the file is too large for memory or grew while it was read, ENOMEM when memory is
 *         exhausted. Of a failure an area keeps the memory until it is cleared; nothing else is left behind.
 *
 * Threads: any; the area serialises its callers.
 * Raises:  yes, but not while the file is open; a heap result is given back first.
 */
KS_API char *strutl_read(stg_area *area, const char *path, const void *ignored, int quiet, int missing_ok);

/**
 * Reads the rest of a stream as one string.
 *
 * As fgets() would: a line that holds a NUL byte is kept only up to it. Signals that interrupt it do not
 * end it, unless they bring a raise. The stream stays open; with a buffer that was full it stands behind what
 * was taken.
 *
 * @param area          area of the result, or STG_AREA_HEAP (stg_free())
 * @param size_hint     bytes of the buffer, NUL included; 0: as many as it takes, in steps of 8192
 * @param fp            stream, open for reading
 * @param quiet         not 0: a failing stream prints nothing
 * @param out_overflow  receives 1 when the buffer of `size_hint` bytes was full before the end of
 *                      the stream was seen, else 0; may be NULL
 * @return what was read; NULL when the stream fails (message, errno of the read, EINTR when a raise waits) or
 *         memory is exhausted (message, ENOMEM). An area keeps such memory until it is cleared.
 *
 * Threads: any; the stream must not be used by others meanwhile.
 * Raises:  when it prints; a heap result is given back first.
 */
KS_API char *strutl_read_fp(stg_area *area, size_t size_hint, FILE *fp, int quiet, int *out_overflow);

/**
 * Makes a file of a string, replacing what it held.
 *
 * A file that is new has the mode 0666 without the process's umask. Signals that interrupt it do not end it,
 * unless they bring a raise.
 *
 * @param text     what to write; NULL does nothing and succeeds
 * @param path     file, through symbolic links
 * @param ignored  has no meaning; pass NULL
 * @param quiet    not 0: failures print nothing
 * @return 0; 1 (message, errno of open(), write() or close()) when it cannot be opened or written. The file may
 *         then hold a part, and what it held is gone.
 *
 * Threads: any.
 * Raises:  yes, but not while the file is open.
 */
KS_API unsigned strutl_write(const char *text, const char *path, const void *ignored, int quiet);
/**@}*/

/** @name Lists of strings (list.h) */
/**@{*/

/** Receives text instead of the message output: `info` is the caller's. */
typedef void (*strutl_print_fn)(void *info, const char *text);

/**
 * Prints each string of a list as a line, then an empty line, as output.
 *
 * @param list  list (list.h) whose elements are strings, printed as they are; NULL prints nothing, not even
 *              the empty line
 *
 * Threads: any that may read the list; lines of others may come in between.
 * Raises:  yes, between any two lines.
 */
KS_API void strutl_list_print(const struct list_record *list);

/**
 * Prints each string of a list as a line, then an empty line, as trace. Whether a trace is wanted is for the
 * caller to ask: it is not asked here.
 *
 * @param list  list (list.h) whose elements are strings; NULL prints nothing
 *
 * Threads: any that may read the list.
 * Raises:  yes, between any two lines.
 */
KS_API void strutl_list_trace_print(const struct list_record *list);

/**
 * Gives the text of strutl_list_trace_print() to a procedure: each string, and each line end, in a call of
 * its own.
 *
 * @param list   list (list.h) whose elements are strings; NULL calls nothing
 * @param print  procedure, called with no lock held; it must not change the list
 * @param info   handed to it
 *
 * Threads: any that may read the list.
 * Raises:  only what the procedure raises; there is nothing to give back.
 */
KS_API void strutl_list_trace_print_redirect(const struct list_record *list, strutl_print_fn print, void *info);
/**@}*/

/** The module's messages, subsystem "ks/strutl". */
extern KS_API const msg_table _strutl_ks_msg_table;

#ifdef __cplusplus
}
#endif
#endif
