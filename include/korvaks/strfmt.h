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
 *    that is not given, or has no digits, is STRFMT_NONE. A width above STRFMT_WIDTH_MAX or a precision
 *    above STRFMT_NONE is a bad directive.
 *  - The conversion letter is the first character behind them that is in the caller's set, or "t".
 *    All others in between are modifiers, in their order. White space there is a bad directive.
 *  - The bracketed argument is "[text]", or "[text:argument]" cut at the first ":". Brackets nest.
 *    Either part has at most STRFMT_BRACKET_MAX bytes. Of two brackets in one directive the last one counts.
 *  - "%%" is a percent sign.
 *  - "%[column]t" fills with blanks up to a column, counted from 1 and at most STRFMT_WIDTH_MAX, in the
 *    current line with its tabs expanded: "%[30]t" makes the next character stand in column 30, and
 *    does nothing in a line that is 30 or more columns long. With one of the modifiers S, T or N (the first
 *    of them in this order counts) a line that already reaches the column gets one blank (S), one tab (T),
 *    or a line feed and blanks up to the column (N).
 *
 * Outside directives "\n", "\t" and "\r" are line feed, tab and carriage return, a backslash and one to
 * three octal digits are the byte of that value (above 255: an error), and a backslash before any other
 * character is that character. One at the very end stands for itself. Characters are those of the
 * locale; conversion letters are single-byte ones.
 *
 * The time grows with the control string and with what is written, not faster.
 */
#ifndef KORVAKS_STRFMT_H
#define KORVAKS_STRFMT_H

#include <korvaks/base.h>

#ifdef __cplusplus
extern "C" {
#endif

/** The width or precision of a directive that gives none. */
#define STRFMT_NONE 2147483647

/** The largest width and column. */
#define STRFMT_WIDTH_MAX 1048576

/** Most bytes of a bracketed text, and of its argument. */
#define STRFMT_BRACKET_MAX 1024

/** Bytes, beside those of the width, that a procedure finds free in a buffer that grows. */
#define STRFMT_SPACE_MIN 65536

/** A procedure's answer: the value is longer than the space. No number that a procedure gives by habit. */
#define STRFMT_FULL (-2147483647 - 1)

/** A directive, for the procedure that renders it. It and its texts are valid during the call. */
typedef struct strfmt_directive {
    int width;             /**< negative: align left; STRFMT_NONE: not given */
    int precision;         /**< STRFMT_NONE: not given */
    const char *text;      /**< bracketed text, "" without one */
    const char *argument;  /**< its part behind the first ":", "" without one */
    const char *modifiers; /**< "" without any */
    char conversion;       /**< the conversion letter */
    void *output;          /**< for strfmt_more_space() alone */
} strfmt_directive;

/**
 * Renders one directive: writes its value and a NUL to `out`, which has `space` bytes.
 *
 * It is called once for each directive, in their order, whatever the space is. In a buffer of fixed size there
 * is at least 1 byte, in one that grows at least STRFMT_SPACE_MIN more than the width; for a value that may be
 * longer strfmt_more_space() gives what it needs.
 *
 * @param client     as handed to the formatting call
 * @param out        where the value begins; the text before it is none of the procedure's business
 * @param space      bytes from there on, the NUL's included
 * @param directive  what the user wrote; never NULL
 * @return 0 when done; STRFMT_FULL when the value does not fit: as much of it as fits may have been
 *         written (and a NUL), it is kept and the formatting ends; any other number rejects the directive,
 *         what was written is dropped, and the formatting ends with the directive as the bad place.
 *         Without a NUL within the space the last byte is taken for it, and the value for one that does not fit; in
 *         a buffer that grows so is one that fills the space, since it may have been cut.
 *
 * Threads: the one that formats, without any lock held. Raises: may; a block that grows is the caller's at
 * every moment.
 */
typedef int (*strfmt_callback)(void *client, char *out, size_t space, const strfmt_directive *directive);

/**
 * Gives the procedure that is being called more space for its value.
 *
 * A buffer that grows is enlarged when it has fewer than `bytes` bytes left, and may move: the value is then
 * written from the returned place on, and `out` and what it held of the value are there now. A buffer of fixed
 * size has what it has.
 *
 * @param directive  the procedure's own, or a copy of it
 * @param bytes      bytes wanted from the value's start on, its NUL included; 0 counts as 1
 * @return where the value begins, with at least `bytes` bytes; NULL when a buffer of fixed size has fewer, or
 *         memory is exhausted (reported by the storage module): nothing has changed, and the procedure
 *         gives STRFMT_FULL.
 *
 * Threads: the one that formats, from within a procedure's call; anywhere else it is undefined.
 * Raises: when exhaustion is reported.
 */
KS_API char *strfmt_more_space(const strfmt_directive *directive, size_t bytes);

/**
 * Formats into a buffer of fixed size.
 *
 * @param out          receives the text, terminated after every step, so that after a raise as well; NULL, or an
 *                     `out_size` of 0: nothing is done and 0 returned
 * @param out_size     bytes of `out`, the NUL's included
 * @param conversions  the caller's conversion letters; NULL counts as "". "t" is built in, whether it is
 *                     among them or not
 * @param control      control string; NULL counts as ""
 * @param client       handed to the procedure; may be NULL
 * @param callback     the procedure; may be NULL when no letter of the caller's occurs, otherwise the
 *                     process is ended
 * @return 0; 1 after
 *   - a bad control string or a rejected directive: message 0 of "ks/strutl" is printed with the rest of the
 *     control string from the bad place, and `out` holds the text before it;
 *   - a text that does not fit: message 1 is printed, and `out` holds as much as fits, in whole characters.
 *   errno is not set.
 *
 * Threads: any; nothing is shared.
 * Raises: between directives of a long control string; when a message is printed, which is the last thing a
 * call does; and from the procedure.
 */
KS_API int strfmt_gsprintf(char *out, size_t out_size, const char *conversions, const char *control, void *client,
                           strfmt_callback callback);

/**
 * Formats into a heap buffer that grows as needed, so that nothing is cut but by a procedure.
 *
 * The block is replaced by a larger one before a step for which it may be too small, and is `*out`
 * again at once: at least the larger of twice its size, and what is needed and 153600 bytes.
 *
 * @param out          a block of `size` bytes of the heap level (stg_malloc()), or NULL to have one made. It
 *                     holds the terminated text afterwards, also after a failure and a raise, and is freed
 *                     by the caller with stg_free(). A NULL `out` itself: nothing is done and 0 returned
 * @param size         bytes of the block; of a new one, the bytes it has at first. 0 counts as 1, and with
 *                     a block as if there were no room in it
 * @param conversions  as for strfmt_gsprintf(), and the rest too
 * @return 0; 1 after
 *   - a bad control string or a rejected directive, as strfmt_gsprintf();
 *   - STRFMT_FULL from a procedure, or a value that may have been cut: message 1 is printed;
 *   - exhaustion, reported by the storage module; `*out` holds the text up to there, and is NULL only when there
 *     was no block.
 *
 * Threads: any; nothing is shared. Raises: as strfmt_gsprintf(), and when exhaustion is reported.
 */
KS_API int strfmt_gsprintf_fmt(char **out, size_t size, const char *conversions, const char *control, void *client,
                               strfmt_callback callback);

#ifdef __cplusplus
}
#endif
#endif
