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
 * Raises: only where a comment says so, and where memory is exhausted (which prints).
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
 * Replaces references to environment variables by their values.
 *
 * "$NAME" (the longest run of alphanumeric characters and "_") and "${NAME}" (up to the first "}",
 * or to the end of the string) are references; an unset or empty variable expands to nothing. A
 * backslash makes the next character ordinary and is dropped; one at the very end is kept. Any
 * other "$" stands for itself. Values are inserted as they are, not expanded again.
 *
 * @param str        text
 * @param out_found  receives 1 when a reference was seen, else 0; may be NULL
 * @return a new string (stg_free()), or NULL when memory is exhausted (errno ENOMEM).
 * Raises: yes; what it had allocated is given back first.
 */
KS_API char *strutl_expand_evs_status(const char *str, unsigned *out_found);

/** strutl_expand_evs_status() without the flag. */
KS_API char *strutl_expand_evs(const char *str);

/**
 * Expands again and again until a pass meets no reference, so values may refer to variables.
 *
 * Every pass also removes one level of backslashes: text that must survive n passes needs n levels.
 *
 * @param max_passes  how often the result of a pass with a reference may be expanded again;
 *                    0 stands for 8
 * @return a new string (stg_free()); NULL with errno EINVAL when `max_passes` is negative or the
 *         limit is passed, ENOMEM when memory is exhausted.
 * Raises: yes; what it had allocated is given back first.
 */
KS_API char *strutl_expand_evs_iterate(const char *str, int max_passes);
/**@}*/

/** @name Tokens and numbers */
/**@{*/

/**
 * Cuts a string into tokens, in place, as strtok() does, with the place kept per thread.
 *
 * @param str     string to start on, which must live until it is used up; NULL goes on with the
 *                thread's current one
 * @param delims  delimiter bytes; may change between calls. A character whose first byte is one
 *                of them ends a token, and that byte is overwritten
 * @return the token's start inside the string; NULL when there is none left.
 */
KS_API char *strutl_tokenize(char *str, const char *delims);

/**
 * strtol(), strtoul() and strtod() with a clear result (C11 7.22.1).
 *
 * They fail when the conversion sets errno (out of range, bad base) or consumes nothing; then
 * the value is 0.
 *
 * @param out_value  receives the number; 0 on failure
 * @param out_end    receives the address after the number, as from strtol(); may be NULL
 */
KS_API unsigned strutl_strtol_extended(const char *str, int base, long *out_value, char **out_end);
KS_API unsigned strutl_strtoul_extended(const char *str, int base, unsigned long *out_value, char **out_end);
KS_API unsigned strutl_strtod_extended(const char *str, double *out_value, char **out_end);

/** The same for a whole string: anything after the number is a failure too. The value is 0 on failure. */
KS_API unsigned strutl_strtol(const char *str, int base, long *out_value);
KS_API unsigned strutl_strtoul(const char *str, int base, unsigned long *out_value);
KS_API unsigned strutl_strtod(const char *str, double *out_value);

/**
 * Reads a size as kilobytes: a number and at most one of the letters "k", "m", "g" (either case).
 *
 * Without a letter the number counts bytes. The result is truncated, but a size that is not 0
 * never becomes 0: "100" gives 1. A size beyond the range of the result, or below 0, is a failure.
 */
KS_API unsigned strutl_kstr_to_long(const char *str, unsigned long *out_kbytes);

/** The same as bytes: "1k" gives 1024, "1.5" gives 1. */
KS_API unsigned strutl_kstr_or_str_to_long(const char *str, unsigned long *out_bytes);

/**
 * A decimal parameter within limits: `dflt` when `str` is NULL or not a clean decimal number, else
 * the number, not below `min` and not above `max`. (`min` is tested first.)
 */
KS_API long strutl_process_long_param(const char *str, long dflt, long min, long max);

/** 0 when `str` is not empty and all ASCII digits, else 1; NULL gives 1. */
KS_API unsigned strutl_match_numeric_string(const char *str);

/**
 * A number's digits in a base, lower case.
 *
 * @param base   2 to 36
 * @param width  -1: no leading zeros, at least one digit. 0 to 32: exactly that many digits, with
 *               leading zeros, or the low-order ones of a longer number. Others count as the nearest.
 * @return the thread's own text; NULL for a base out of range, or when memory is exhausted on the
 *         thread's first call. Of a number with more than 32 digits the low-order 32 are kept.
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
 * @param sep    between names; NULL or "" stands for " "
 * @param count  rows of `items`; below 1 none
 * @return the thread's own text of at most 1023 bytes; a longer one is cut. NULL only when memory is
 *         exhausted on the thread's first call.
 */
KS_API char *strutl_flags_to_str(unsigned flags, const char *sep, const strutl_flag_item_t *items, int count);

/**
 * The names as a vector. A row counts only when all its bits are set; a row that is set in part is
 * left out and yet takes its bits out. Bits that remain add an element " UNKNOWN(0x%x)".
 *
 * @param out_names  receives a heap vector of heap strings; free each string, then the vector, with
 *                   stg_free(). It is made even when there are no names.
 * @param out_n      receives the number of names
 * @return 0; 1 when memory is exhausted, with nothing stored.
 * Raises: yes, before anything is made or after the results are stored.
 */
KS_API unsigned strutl_flags_to_str_list(unsigned flags, const strutl_flag_item_t *items, int count, char ***out_names,
                                         int *out_n);

/**
 * Reads names of flags, separated by a string.
 *
 * Only the first 1023 bytes are read. One separator at the very end is allowed; an empty word
 * anywhere else is an unknown word. Empty text is the empty set.
 *
 * @param case_sensitive  not 0: words compare by strcmp(), else by strutl_stricoll()
 * @param sep             NULL or "" stands for " "
 * @param out_bad_word    receives NULL, or the address in `text` of the first unknown word; may be NULL
 * @return the values of all words, ORed; 0 when a word is unknown.
 */
KS_API unsigned strutl_flags_from_str(const char *text, int case_sensitive, const char *sep,
                                      const strutl_flag_item_t *items, size_t count, const char **out_bad_word);

/**
 * XDR of a flag row (RFC 4506): the name as a string without bound, the value as unsigned int.
 * Decoding allocates the name with malloc, for at most what the stream holds; XDR_FREE frees it.
 * @return 1 or 0.
 */
KS_API int xdr_strutl_flag_item_t(struct __rpc_xdr *xdrs, strutl_flag_item_t *item);
/**@}*/

/** @name Hash and formats */
/**@{*/

/**
 * A 32-bit hash: for each byte, rotate left by 5 and add. "" gives the seed. It is fixed and public:
 * strangers can choose strings that collide.
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
 * "*"), a length ("h", "l", "ll") and one of the letters % c d e E f g G i o p s u x X.
 *
 * @param start               where to look from
 * @param dir_size, dir       receives the directive's text, cut to `dir_size` - 1 bytes; size 0: nothing
 * @param out_next            receives the position after the directive; without one, that of the "%"
 *                            that is malformed, or the length of `fmt`
 * @param out_kind            receives its kind; strutl_printf_kind_null without one
 * @param out_star_width, out_star_precision  receive 1 when an int argument gives them, else 0
 * @return 1 when a directive was found, 0 when there is none or it is malformed.
 */
KS_API unsigned strutl_find_printf_directive(const char *fmt, size_t start, size_t dir_size, char *dir,
                                             size_t *out_next, strutl_printf_kind *out_kind, int *out_star_width,
                                             int *out_star_precision);

/** vsnprintf() and snprintf(): bounded, always terminated unless `size` is 0; the length it wanted, or below 0. */
KS_API int strutl_vsnprintf(char *buf, size_t size, const char *format, va_list args) KS_PRINTF(3, 0);
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
 * @param out_str  receives a new string (stg_free())
 */
KS_API unsigned strutl_cstr_to_str(const char *src, int quoted, char **out_str);

/**
 * Tells whether a name is acceptable: 1 or 0. NULL and "" are not.
 *
 * Each character must be printable, not a control character and not white space, and in ASCII not
 * punctuation, or else be one of `extra_ok`. An invalid byte sequence is not acceptable.
 *
 * @param bad_first  characters it must not start with; may be NULL
 * @param extra_ok   further acceptable characters; may be NULL
 */
KS_API unsigned strutl_is_ok_name(const char *name, const char *bad_first, const char *extra_ok);

/**
 * UTF-8 to UTF-16, one code unit per element of `out`.
 *
 * It decodes and does not validate: a stray or wrong continuation byte yields the value that its
 * bits add up to. Characters above U+FFFF become surrogate pairs; values above U+10FFFF, and
 * sequences announced as five or six bytes, become U+FFFD.
 *
 * @param in_len     bytes of `in`, which needs no terminator; NUL bytes are characters
 * @param out_units  elements of `out`, the closing 0 included
 * @param out_used   receives the bytes consumed, on every result; may be NULL
 * @return 0: all consumed. 1: the input ends inside a sequence, which is left. 3: `out` is full;
 *         the characters before fit. The output ends with a 0 unless `out_units` is below 1.
 */
KS_API unsigned strutl_utf8to16(wchar_t *out, const unsigned char *in, long in_len, long out_units, size_t *out_used);

/**
 * UTF-16, one code unit per element, to UTF-8. A high surrogate and a low one after it become one
 * character of four bytes; an unpaired one is encoded as it stands, in three. Values up to 0x1FFFFF
 * are encoded, larger ones become U+FFFD.
 *
 * @param out_size  bytes of `out`, the closing NUL included
 * @return 0: done. 3: `out` is too small; it ends after the last character that fitted.
 */
KS_API unsigned strutl_utf16to8(char *out, const wchar_t *in, long in_units, long out_size);

/** One two-byte character of Shift-JIS in EUC-JP; either result may be NULL. Bytes are not validated. */
KS_API void strutl_cvt_sjis_to_euc(unsigned char lead, unsigned char trail, unsigned char *out_euc_high,
                                   unsigned char *out_euc_low);

/**
 * 0 when two strings are equal but for white space, else 1; it gives no order. White space at either
 * end does not count; a run of it inside stands for one blank.
 */
KS_API unsigned strutl_cmp_ignore_whitespace(const char *a, const char *b);

/** Order of two strings folded to lower case, as from strcoll(): negative, 0 or positive. */
KS_API int strutl_stricoll(const char *a, const char *b);

/**
 * Changes the case of the first character of `src`. One that has no other case is copied.
 *
 * @param to_upper  not 0: to upper case, else to lower
 * @param out       room for MB_LEN_MAX bytes; not terminated
 * @param out_len   receives the bytes written
 * @return bytes of `src` the character had, 0 at its end.
 */
KS_API size_t strutl_cvt_case_char(const char *src, int to_upper, char *out, size_t *out_len);

/**
 * Changes the case of a string.
 * @return 1 when all of it was converted. 0 when the next character does not fit in `out_size` bytes
 *         with a NUL: `out` holds those before it, terminated (unless `out_size` is 0).
 */
KS_API unsigned strutl_cvt_case_string(const char *src, int to_upper, size_t out_size, char *out);

/**
 * Copies a path and replaces every separator character.
 *
 * @param seps         characters that count as separators
 * @param to           what replaces each
 * @param buf          receives the result, of `buf_size` bytes; may be `src` itself
 * @param out_changed  receives 1 when anything was replaced, else 0; may be NULL
 * @return 1 when the result was cut.
 */
KS_API unsigned strutl_xlate_pname_sep(const char *src, const char *seps, char to, char *buf, size_t buf_size,
                                       int *out_changed);

/**
 * Copies a string and replaces each character of a set by a string of its own.
 *
 * @param dst           receives the result with a NUL, without a bound; NULL only measures
 * @param chars         the set
 * @param replacements  what stands for the first, second ... character of the set
 * @return the length of the result without the NUL.
 */
KS_API size_t strutl_xlate_chars_to_strings(char *dst, const char *src, const char *chars,
                                            const char *const *replacements);

/**
 * Turns a string into printable ASCII text (head) and back (tail), to keep it from being read in
 * passing. It is no encryption. The text of one string differs with the time; n bytes become about
 * 4n/3 + 2 characters. "" becomes "".
 *
 * @param out_size  bytes of `out`, the closing NUL included
 * @return 0; 1 when `out` is too small, and in strutl_extract_tail() when `src` is no such text;
 *         `out` then holds "" (unless `out_size` is 0).
 */
KS_API unsigned strutl_extract_head(const char *src, char *out, size_t out_size);
KS_API unsigned strutl_extract_tail(const char *src, char *out, size_t out_size);
/**@}*/

/** @name Characters */
/**@{*/

/** Bytes of the character at `s` within `n` bytes, as mblen(); 1 for an invalid one, 0 for NUL and for `n` 0. */
KS_API int strutl_mblen(const char *s, size_t n);

/** 1 when the locale's characters are single bytes, 2 otherwise. */
KS_API unsigned strutl_get_sys_char_type(void);

/**
 * The first character of a string; of an invalid sequence its first byte's value.
 * @param out_char  receives it, 0 at the end of the string; may be NULL
 * @return its length, 0 at the end of the string.
 */
KS_API size_t strutl_mb_char_from_str(const char *str, wchar_t *out_char);

/** Characters of a string. */
KS_API size_t strutl_mb_strlen(const char *str);

/** The same two for wide strings, of which every element is a character. */
KS_API size_t strutl_wide_char_from_str(const wchar_t *str, wchar_t *out_char);
KS_API size_t strutl_wide_strlen(const wchar_t *str);

/**
 * Converts a string to a wide string in an area (or STG_AREA_HEAP), by the locale.
 *
 * Failures print: NULL `src` message 3, no memory 2, an invalid character 4 with the text from there
 * on, a string that ends inside a character 5 with the string.
 * Raises: when it prints; nothing is lost by that.
 */
KS_API unsigned strutl_cvt_str_to_wide_str(stg_area *area, const char *src, wchar_t **out_str);

/** The way back; a character that the locale does not have prints message 6. */
KS_API unsigned strutl_cvt_wide_str_to_str(stg_area *area, const wchar_t *src, char **out_str);

/** Classes of strutl_test_char(). */
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
 * 1 when the first character of `s` is in all of the classes, else 0. An invalid sequence is tested
 * by its first byte.
 *
 * @param n        bytes that may be looked at
 * @param classes  STRUTL_ bits; none asks only for a character
 * @param out_len  receives its length, 0 at the end; may be NULL
 */
KS_API unsigned strutl_test_char(const char *s, size_t n, unsigned classes, size_t *out_len);
/**@}*/

/** @name Searching */
/**@{*/

/**
 * First character from `start` on that is in a set of characters.
 * @param out_pos    receives its position; may be NULL
 * @param out_which  receives its offset in `set`; may be NULL
 */
KS_API unsigned strutl_find_char_from(const char *str, size_t start, const char *set, size_t *out_pos,
                                      size_t *out_which);

/** First, or last, occurrence of a single-byte character (not NUL); `out_pos` may be NULL. */
KS_API unsigned strutl_find_char(const char *str, int ch, size_t *out_pos);
KS_API unsigned strutl_find_last_char(const char *str, int ch, size_t *out_pos);

/** 0 when the last character of `str` is `ch`, else 1. */
KS_API unsigned strutl_match_last_char(const char *str, int ch);

/** Address of the last occurrence of a single-byte character, NULL without one. */
KS_API char *strutl_right_char(const char *str, int ch);

/**
 * First occurrence of a string, in whole characters, that lies between two positions.
 * @param start, end  from and up to; an `end` past the string's length stands for it
 * @param sub         what to find; "" is found at `start`
 * @param out_pos     receives its position; may be NULL
 */
KS_API unsigned strutl_find_str_range(const char *str, size_t start, size_t end, const char *sub, size_t *out_pos);

/** The same up to the string's end. */
KS_API unsigned strutl_find_str(const char *str, size_t start, const char *sub, size_t *out_pos);

/**
 * Replaces the first occurrence of a string from `start` on.
 *
 * @param old_text  what to find, not empty
 * @param out_next  receives the position after the new text, to go on from; may be NULL
 * @return 1 when there is none, or (message 1) when the result does not fit in `buf_size` bytes;
 *         `buf` is then as it was.
 * Raises: when it prints.
 */
KS_API unsigned strutl_find_replace_substr(char *buf, size_t start, size_t buf_size, const char *old_text,
                                           const char *new_text, size_t *out_next);

/**
 * Finds the delimiter that closes the opening one at `start`, over nested pairs. When both are the
 * same character the next one closes.
 * @param start    position of the opening delimiter; another character there is a failure
 * @param open, close  single-byte characters
 * @param out_pos  receives the position of the closing one; may be NULL
 */
KS_API unsigned strutl_find_end_delim(const char *str, size_t start, int open, int close, size_t *out_pos);

/** Address of the last character of a string that is in a set; NULL without one. */
KS_API char *strutl_strrpbrk(const char *str, const char *set);

/**
 * Length of the common prefix of two strings, in whole characters.
 * @return 0 only when the strings are equal, else 1.
 */
KS_API unsigned strutl_match_prefix(const char *a, const char *b, size_t *out_len);

/** 1 when a list (list.h) of strings holds one equal to `str`, else 0; 0 for a NULL list. */
KS_API unsigned strutl_str_in_list(const char *str, const struct list_record *list);
/**@}*/

/** @name Copying and changing in place */
/**@{*/

/**
 * Copies at most `size` - 1 bytes and terminates.
 * @return 1 when the source was cut or `size` is 0, else 0.
 */
KS_API unsigned strutl_cpy_buf(char *dst, const char *src, size_t size);

/** Copies at most the first `n` bytes of `src` and terminates: `dst` has room for n + 1. 1 when cut. */
KS_API unsigned strutl_ncpy(char *dst, const char *src, size_t n);

/** The first `n` bytes of `src` into a buffer of `size` bytes, as strutl_cpy_buf(). 1 when the size cut it. */
KS_API unsigned strutl_ncpy_buf(char *dst, const char *src, size_t n, size_t size);

/** What stands before the first `stop` (a single-byte character) in `src`, or all of it, as strutl_cpy_buf(). */
KS_API unsigned strutl_ccpy_buf(char *dst, const char *src, int stop, size_t size);

/** Puts `prefix` in front of the string in `buf`; 1 with `buf` unchanged when that does not fit in `size` bytes. */
KS_API unsigned strutl_prepend(char *buf, size_t size, const char *prefix);

/**
 * Appends piece by piece: copies `src` to `*dst` as strutl_cpy_buf() into `*left` bytes, then moves
 * `*dst` to the new NUL and takes what was written off `*left`. 1 when cut.
 */
KS_API unsigned strutl_cpy_and_advance(char **dst, size_t *left, const char *src);

/**
 * Joins `n` strings in a buffer. When the first one is `buf` itself, it is kept and the others are
 * appended; none of the others may lie in `buf`. A NULL string counts as "".
 * @return 1 when the result was cut or `size` is 0, else 0.
 */
KS_API unsigned strutl_concat(char *buf, size_t size, int n, ...);

/**
 * Joins `n` strings in a new string, on the heap or in an area. No string gives "".
 * @return the string; NULL for more than 32, and when memory is exhausted.
 */
KS_API char *strutl_concat_heap(int n, ...);
KS_API char *strutl_concat_area(stg_area *area, int n, ...);

/** Removes white space at both ends, in place; returns `str`. */
KS_API char *strutl_strip_whitespace(char *str);

/**
 * Moves the tail of a string, from `pos` on and with its NUL: up by `delta` bytes (the gap's bytes
 * stay as they are, and `str` has room), or down by -`delta`, over what stood there. A tail that would
 * start before the string is misuse.
 */
KS_API void strutl_slide_tail(char *str, size_t pos, long delta);

/**
 * Replaces `old_len` bytes at `pos` by a string that does not lie in `buf`. A range past the string's
 * end is misuse.
 * @return 1 (message 1, `buf` as it was) when the result does not fit in `buf_size` bytes.
 * Raises: when it prints.
 */
KS_API unsigned strutl_replace_substr(char *buf, size_t pos, size_t buf_size, size_t old_len, const char *new_text);
/**@}*/

/** @name Whole files */
/**@{*/

/**
 * Reads a file as one string.
 *
 * A line that holds a NUL byte is kept only up to it, as fgets() leaves it.
 *
 * @param area        area of the result, or STG_AREA_HEAP (stg_free())
 * @param ignored     has no meaning; pass NULL
 * @param quiet       not 0: failures print nothing
 * @param missing_ok  not 0: a file that does not exist reads as ""
 * @return the contents; NULL with errno and a message: it cannot be opened or read, is too large for
 *         memory or grew while it was read (both EFBIG).
 * Raises: yes, but not while the file is open; a heap result is given back first.
 */
KS_API char *strutl_read(stg_area *area, const char *path, const void *ignored, int quiet, int missing_ok);

/**
 * Reads the rest of a stream as one string.
 *
 * @param size_hint     bytes of the buffer, NUL included; 0: as many as it takes
 * @param quiet         not 0: a failing stream prints nothing
 * @param out_overflow  receives 1 when the buffer of `size_hint` bytes was full before the end of
 *                      the stream, else 0; may be NULL
 * @return what was read; NULL when the stream fails or memory is exhausted (errno).
 * Raises: when it prints.
 */
KS_API char *strutl_read_fp(stg_area *area, size_t size_hint, FILE *fp, int quiet, int *out_overflow);

/**
 * Makes a file of a string, replacing what it held. NULL `text` does nothing and succeeds.
 *
 * @param ignored  has no meaning; pass NULL
 * @param quiet    not 0: failures print nothing
 * @return 1 (message, errno) when it cannot be opened or written; the file may then hold a part.
 * Raises: yes, but not while the file is open.
 */
KS_API unsigned strutl_write(const char *text, const char *path, const void *ignored, int quiet);
/**@}*/

/** @name Lists of strings (list.h) */
/**@{*/

/** Receives text instead of the message output: `info` is the caller's. */
typedef void (*strutl_print_fn)(void *info, const char *text);

/**
 * Prints each string of a list as a line, then an empty line: as output, or as trace. Whether a trace
 * is wanted is for the caller to ask. NULL prints nothing. Raises: yes.
 */
KS_API void strutl_list_print(const struct list_record *list);
KS_API void strutl_list_trace_print(const struct list_record *list);

/** The same text to a procedure: each string, and each line end, in a call of its own. */
KS_API void strutl_list_trace_print_redirect(const struct list_record *list, strutl_print_fn print, void *info);
/**@}*/

/** The module's messages, subsystem "ks/strutl". */
extern KS_API const msg_table _strutl_ks_msg_table;

#ifdef __cplusplus
}
#endif
#endif
