/**
 * @file strfmt.h
 * Formatted printing for reports whose format the user writes.
 *
 * A control string holds text and directives. The caller brings the vocabulary: the set of conversion
 * letters it knows and a procedure that renders one directive for one object.
 *
 *     %[-][width][.[-]precision][modifiers and bracketed argument]letter
 *
 *  - The width is decimal, a "-" makes it negative (left alignment); likewise the precision. One
 *    that is not given, or has no digits, is STRFMT_NONE; one above that is a bad directive.
 *  - The conversion letter is the first character behind them that is in the caller's set, or "t".
 *    All others in between are modifiers, in their order. White space there is a bad directive.
 *  - The bracketed argument is "[text]", or "[text:argument]" cut at the first ":". Brackets nest.
 *    Either part has at most 1024 bytes. Of two brackets in one directive the last one counts.
 *  - "%%" is a percent sign.
 *  - "%[column]t" fills with blanks up to a column, counted from 1, in the current line with its tabs
 *    expanded: "%[30]t" makes the next character stand in column 30, and does nothing in a line that
 *    is 30 or more columns long. With one of the modifiers S, T or N (the first of them in this order
 *    counts) a line that already reaches the column gets one blank (S), one tab (T), or a line feed and
 *    blanks up to the column (N).
 *
 * Outside directives "\n", "\t" and "\r" are line feed, tab and carriage return, a backslash and one to
 * three octal digits are the byte of that value (above 255: an error), and a backslash before any other
 * character is that character. One at the very end stands for itself. Characters are those of the
 * locale; conversion letters are single-byte ones.
 *
 * Threads: any. Raises: when a message is printed, which is the last thing a call does; and from the
 * caller's procedure.
 */
#ifndef KORVAKS_STRFMT_H
#define KORVAKS_STRFMT_H

#include <korvaks/base.h>

#ifdef __cplusplus
extern "C" {
#endif

/** The width or precision of a directive that gives none. */
#define STRFMT_NONE 2147483647

/** Most bytes of a bracketed text, and of its argument. */
#define STRFMT_BRACKET_MAX 1024

/** A procedure's answer: the value is longer than the space. No number that a procedure gives by habit. */
#define STRFMT_FULL (-2147483647 - 1)

/** A directive, for the procedure that renders it. Its texts are valid during the call. */
typedef struct strfmt_directive {
    int width;             /**< negative: align left; STRFMT_NONE: not given */
    int precision;         /**< STRFMT_NONE: not given */
    const char *text;      /**< bracketed text, "" without one */
    const char *argument;  /**< its part behind the first ":", "" without one */
    const char *modifiers; /**< "" without any */
    char conversion;       /**< the conversion letter */
} strfmt_directive;

/**
 * Renders one directive: writes its value and a NUL to `out`, which has `space` bytes (1 at least).
 *
 * @return 0 when done; STRFMT_FULL when the value does not fit: as much of it as fits may have been
 *         written (and a NUL); any other number rejects the directive.
 * It is called once for a directive. Where the buffer grows it is called again with more space after
 * STRFMT_FULL, and when its value fills the space to the last byte, so that one that cuts its value as
 * snprintf() does loses nothing there. What it wrote when it rejects is dropped.
 */
typedef int (*strfmt_callback)(void *client, char *out, size_t space, const strfmt_directive *directive);

/**
 * Formats into a buffer.
 *
 * @param out          receives the text, always terminated; NULL, or an `out_size` of 0: nothing is done
 * @param out_size     bytes of `out`
 * @param conversions  the caller's conversion letters; NULL counts as ""
 * @param control      control string; NULL counts as ""
 * @param client       handed to the procedure
 * @return 0; 1 after a bad control string (message 0 of "ks/strutl", with the rest of the control
 *         string from the bad place) or when the text does not fit (message 1). `out` then holds the
 *         text up to there, in the second case as much as fits.
 */
KS_API int strfmt_gsprintf(char *out, size_t out_size, const char *conversions, const char *control, void *client,
                           strfmt_callback callback);

/**
 * Formats into a heap buffer that grows as needed, so that nothing is ever cut.
 *
 * @param out   a block of `size` bytes of the heap level (stg_malloc()), which may move, or NULL to
 *              have one made; holds the terminated text afterwards, also on failure, and is freed by
 *              the caller with stg_free(). A NULL `out` itself: nothing is done.
 * @param size  bytes of the block; of a new one, the bytes it has at first
 * @return 0; 1 after a bad control string, as strfmt_gsprintf(), and when memory is exhausted
 *         (reported by the storage module; `*out` is NULL only when there was no block).
 */
KS_API int strfmt_gsprintf_fmt(char **out, size_t size, const char *conversions, const char *control, void *client,
                               strfmt_callback callback);

#ifdef __cplusplus
}
#endif
#endif
