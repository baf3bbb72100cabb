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
 * Writes the formatted text, ":" (no blank after it), the text of errno and a line break to stderr,
 * in one piece among threads that write there. errno stays as it was.
 * @return the result of the last fputc(): the line break, or EOF.
 * Any thread. Raises: no.
 */
KS_API int ks_warn(const char *format, ...) KS_PRINTF(1, 2);

/** ks_warn() without ":" and the error text. */
KS_API int ks_warnx(const char *format, ...) KS_PRINTF(1, 2);

#ifdef __cplusplus
}
#endif
#endif
