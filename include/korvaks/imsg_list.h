/**
 * @file imsg_list.h
 * Message lists: messages gathered into one growing text, to be shown together, written to a file or
 * handed on.
 *
 * Life cycle: imsg_list_create() or imsg_list_create_taggable() fills a record of the caller's, then
 * messages and texts are added, then the text is printed, written or fetched; imsg_list_reset() starts
 * again, imsg_list_destroy() gives the buffers back. The text is what was added since, one behind the
 * other; each message brings its own line feeds.
 *
 * Threads: a list belongs to one thread at a time. Exhaustion while adding is reported by the storage
 * module and leaves the list as it was. A list that was not created, or was destroyed, is misuse and
 * ends the process.
 */
#ifndef KORVAKS_IMSG_LIST_H
#define KORVAKS_IMSG_LIST_H

#include <stdio.h>

#include <korvaks/base.h>

#ifdef __cplusplus
extern "C" {
#endif

/** A message list. Its fields may be read; only the functions below change them. */
typedef struct imsg_list {
    uint32_t one_msg_buf_size; /**< bytes of `one_msg_buf`, 16384 at first */
    char *one_msg_buf;         /**< where a message is formatted */
    uint32_t growth_unit;      /**< 512: `list_buf` has a multiple of it */
    uint32_t list_buf_size;    /**< bytes of `list_buf`, 512 at first */
    uint32_t used;             /**< bytes of text, without the NUL */
    char *list_buf;            /**< the text, always terminated */
    int tag_mode;              /**< 1 to 3, as in imsg_vsnprintf_taggable() */
} imsg_list;

/**
 * Makes an empty list.
 *
 * @param tag_mode  how messages are tagged: 1, 2 or 3 as in imsg_vsnprintf_taggable(); any other number
 *                  counts as 2
 * @param list      record to be filled; what it holds is not looked at
 * Further arguments are accepted and ignored. Exhaustion ends the process.
 */
KS_API void imsg_list_create_taggable(int tag_mode, imsg_list *list, ...);

/** imsg_list_create_taggable() with mode 1: messages are never tagged. */
KS_API void imsg_list_create(imsg_list *list, ...);

/**
 * Formats a message and appends it, whatever its length.
 *
 * @param table_or_format, msg_no  as in imsg_snprintf(): a table and a number, or a format and -1
 * @return 0; -1 when the message could not be formatted, and then what was made of it is appended
 *         (explained on standard error while "ks/imsg" is traced at level 1), or memory is exhausted.
 * Raises: only when the table or number is wrong.
 */
KS_API int imsg_list_add_msg(imsg_list *list, const void *table_or_format, unsigned msg_no, ...);

/** Appends a text; NULL and "" change nothing. 0, or -1 when memory is exhausted. Raises: no. */
KS_API int imsg_list_add_str(imsg_list *list, const char *text);

/**
 * The text; also stored in `*buf` unless that is NULL. It belongs to the list and is valid until the
 * list is changed. Raises: no.
 */
KS_API char *imsg_list_get_buf(imsg_list *list, char **buf);

/** Prints the text as one message of a kind, with the kind's head. As imsg_print(). Raises: yes. */
KS_API int imsg_list_print(imsg_list *list, int kind);

/** Writes the text to a stream with imsg_fputs() and flushes it. 0, or -1 when the stream refused. Raises: no. */
KS_API int imsg_list_fprint(imsg_list *list, FILE *stream);

/** Drops the text, and with it a list buffer that has grown. The one-message buffer stays. Raises: no. */
KS_API void imsg_list_reset(imsg_list *list);

/** Frees both buffers; the record is the caller's, and may be created again. NULL is ignored. Raises: no. */
KS_API void imsg_list_destroy(imsg_list *list);

#ifdef __cplusplus
}
#endif
#endif
