/**
 * @file ks_warn.h
 * Messages of last resort: they go straight to stderr, with no table, catalogue, head or log.
 */
#ifndef KORVAKS_KS_WARN_H
#define KORVAKS_KS_WARN_H

#include <korvaks/base.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Writes a text with the description of errno to stderr: the formatted text, ":" with no blank after it,
 * strerror(3) of errno, and a line break. They stay together among threads that write there by stdio.
 *
 *     ks_warn("open %s", path);   // open /x:No such file or directory
 *
 * @param format  printf format (not NULL) with its arguments; %m in it is the text of errno too
 * @return the result of the last fputc(3): '\n', or EOF when the stream refused the line break. A failure
 *         before it is not reported. errno stays as it was in any case.
 *
 * It starts nothing of the library and can be called before ks_system_init().
 *
 * Threads: any; not from signal handlers, as stdio.
 * Raises:  no.
 */
KS_API int ks_warn(const char *format, ...) KS_PRINTF(1, 2);

/**
 * Writes a text to stderr: the formatted text and a line break, in one piece among threads that write there
 * by stdio. It is ks_warn() without ":" and the error text.
 *
 * @param format  printf format (not NULL) with its arguments
 * @return the result of the last fputc(3): '\n', or EOF when the stream refused the line break. A failure
 *         before it is not reported. errno stays as it was in any case.
 *
 * Threads: any; not from signal handlers, as stdio.
 * Raises:  no.
 */
KS_API int ks_warnx(const char *format, ...) KS_PRINTF(1, 2);

#ifdef __cplusplus
}
#endif
#endif
