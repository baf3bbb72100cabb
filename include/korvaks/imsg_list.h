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
 * Makes an empty list: a one-message buffer of 16384 bytes and a list buffer of 512, both on the heap.
 *
 * @param tag_mode  how messages are tagged: 1, 2 or 3 as in imsg_vsnprintf_taggable(); any other number
 *                  counts as 2
 * @param list      record to be filled; what it holds is not looked at, so a list that is in use is destroyed
 *                  first. NULL ends the process (assertion "imsg_list_p != NULL").
 * Further arguments are accepted and ignored.
 *
 * Exhaustion ends the process (assertions "imsg_list_p->one_msg_buf != NULL", "imsg_list_p->list_buf != NULL").
 * The list is ended with imsg_list_destroy().
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API void imsg_list_create_taggable(int tag_mode, imsg_list *list, ...);

/**
 * Makes an empty list whose messages are never tagged: imsg_list_create_taggable() with mode 1.
 *
 * @param list  record to be filled; what it holds is not looked at. NULL ends the process (assertion
 *              "imsg_list_p != NULL").
 * Further arguments are accepted and ignored.
 *
 * Exhaustion ends the process. The list is ended with imsg_list_destroy().
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API void imsg_list_create(imsg_list *list, ...);

/**
 * Formats a message and appends it, whatever its length; nothing stands between it and what came before. A
 * message longer than the one-message buffer makes that grow, and it stays so.
 *
 * @param list             a list that was created; NULL or another ends the process
 * @param table_or_format, msg_no  as in imsg_snprintf(): a table and a number, or a format and
 *                         IMSG_RAW, with the arguments behind them
 * @return 0; -1 when the message could not be formatted, and then what was made of it is appended (explained
 *         on standard error while "ks/imsg" is traced at level 1); -1 when memory is exhausted, and then the
 *         text is as it was.
 *
 * Threads: the list's own.
 * Raises:  only when the table or number is wrong, which is printed; the text is as it was then.
 */
KS_API int imsg_list_add_msg(imsg_list *list, const void *table_or_format, unsigned msg_no, ...);

/**
 * Appends a text as it is. The list buffer grows by as many multiples of 512 bytes as the text and its NUL need.
 *
 * @param list  a list that was created; NULL or another ends the process
 * @param text  the text, copied; NULL and "" change nothing. It may be the list's own.
 * @return 0; -1 with errno ENOMEM when memory is exhausted or the text would have 4 GiB, and then the list is as
 *         it was.
 *
 * Threads: the list's own.
 * Raises:  no.
 */
KS_API int imsg_list_add_str(imsg_list *list, const char *text);

/**
 * Gives the collected text, without copying it.
 *
 * @param list  a list that was created; NULL or another ends the process
 * @param buf   receives the text too; may be NULL
 * @return the text, always terminated, "" at first; `list->used` bytes long. It belongs to the list and is valid
 *         until something is added, or the list is reset or destroyed.
 *
 * Threads: the list's own.
 * Raises:  no.
 */
KS_API char *imsg_list_get_buf(imsg_list *list, char **buf);

/**
 * Prints the text as one message of a kind, with the kind's head in front of it; the list keeps the text. An
 * empty text is printed too.
 *
 * @param list  a list that was created; NULL or another ends the process
 * @param kind  message kind, as of imsg_print()
 * @return as imsg_print().
 *
 * Threads: the list's own.
 * Raises:  yes, as imsg_print(); the list is as it was.
 */
KS_API int imsg_list_print(imsg_list *list, int kind);

/**
 * Writes the text to a stream, without any head, and flushes it; the list keeps the text. Style markers in it
 * become what imsg_fputs() makes of them for that stream.
 *
 * @param list    a list that was created; NULL or another ends the process
 * @param stream  an open stream; NULL is refused
 * @return 0; -1 when the stream refused.
 *
 * Threads: the list's own.
 * Raises:  no.
 */
KS_API int imsg_list_fprint(imsg_list *list, FILE *stream);

/**
 * Drops the text, and with it a list buffer that has grown: it has 512 bytes again, unless there is no memory
 * for them, and then the large one stays. The one-message buffer stays as large as it is. What
 * imsg_list_get_buf() returned is not valid any more. An empty list is left alone.
 *
 * @param list  a list that was created; NULL or another ends the process
 *
 * Threads: the list's own.
 * Raises:  no.
 */
KS_API void imsg_list_reset(imsg_list *list);

/**
 * Frees both buffers and clears the record, which stays the caller's and may be created again. A list that was
 * destroyed may be destroyed again; any other use of it ends the process.
 *
 * @param list  a list that was created; NULL is ignored
 *
 * Threads: the list's own.
 * Raises:  no.
 */
KS_API void imsg_list_destroy(imsg_list *list);

#ifdef __cplusplus
}
#endif
#endif
