/**
 * @file imsg.h
 * Messages: the one path by which tools, servers and daemons report anything.
 *
 * A message is a number in a message table (base.h). Its text comes from the message catalogue
 * that the table names (NLSPATH, LANG), else from the table; a catalogue text is used only when it
 * takes the same arguments as the table's. The *kind* gives it a head and a stream:
 *
 *     kind         0 ok     2 output  4 warning         6 error          8 trace          10 system
 *     stream       stdout   stdout    stderr            stderr           stderr           stderr
 *     head         -        -         "prog: Warning: " "prog: Error: "  ">>> TIME (prog): " -
 *
 * The odd kind above each continues it on the same stream without a head. With subsystem display on,
 * "prog" reads "prog/subsystem". With PRINT_SUBSYS_OK set, kinds 0 and 2 have the heads
 * "prog/subsystem: Ok: " and "prog/subsystem: ". A kind outside 0 to 10 is reported and goes out as
 * an error.
 *
 * Configuration comes from the environment, read on first use: PRINT_SUBSYS, PRINT_SUBSYS_OK,
 * IMSG_IO_INTERLEAVE, IMSG_DUP_OUTPUT, VELLUM_ENABLE_ATE_MESSAGES, VELLUM_IMSG_CAPTURE_LOG,
 * VELLUM_TAB_SIZE, TRACE_VERBOSITY, TRACE_SUBSYS. A setuid or setgid process ignores the one that
 * names a file. The module starts itself: no call needs another one before it.
 *
 * Texts may hold style markers of four bytes: 0x01 0x01, "1" (on) or "0" (off), and "B" (bold), "I"
 * (stand-out) or "U" (underline). They are rendered on a terminal and dropped elsewhere.
 *
 * Threads: any thread may call anything; one message is formatted and written in one piece.
 * Raises: every call that prints is a raise point, and the raise is taken before anything is
 * printed. Calls that print only about a misuse of theirs (a NULL table, a number that a table does
 * not have) are raise points only then. errno is kept by every call that prints.
 *
 * Where a parameter is named `table_or_format`: with `msg_no` -1 it is a printf format, otherwise a
 * `const msg_table *`.
 */
#ifndef KORVAKS_IMSG_H
#define KORVAKS_IMSG_H

#include <stdarg.h>
#include <stdio.h>

#include <korvaks/base.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Number of message kinds, and of output slots. */
#define IMSG_KIND_COUNT 11

/** `msg_no` of a message whose format is given itself. */
#define IMSG_RAW_FORMAT (-1)

/** Size of the buffer that holds an error text. */
#define IMSG_MAX_ERR_LEN 256

/** imsg_get_desired_verbosity() before the environment was asked. */
#define IMSG_VERBOSITY_UNREAD 32767L

/** @name Printing */
/**@{*/

/**
 * Prints message `msg_no` of `table` with the arguments its format needs.
 *
 * @param kind    0 to 10, see above
 * @param table   the module's table; its subsystem is the one shown. NULL is reported as an error.
 * @param msg_no  0 to `table->count` - 1; another number is reported as an error
 * @return 0; -1 when the message could not be formatted or its stream refused it.
 * Raises: yes.
 */
KS_API int imsg_print(int kind, const msg_table *table, unsigned msg_no, ...);

/**
 * imsg_print() with a subsystem name of its own.
 * @param subsys  name to show; NULL means the table's. A raw format has none.
 * Raises: yes.
 */
KS_API int imsg_print_shared(int kind, const char *subsys, const void *table_or_format, unsigned msg_no, ...);
KS_API int imsg_print_sharedv(int kind, const char *subsys, const void *table_or_format, unsigned msg_no, va_list args);

/**
 * Writes a formatted text to a stream, rendering style markers, and flushes the stream.
 * @return 0; -1 when `text` or `stream` is NULL or the stream refused it.
 * Raises: no.
 */
KS_API int imsg_fputs(const char *text, FILE *stream);
/**@}*/

/** @name Formatting without printing */
/**@{*/

/**
 * Formats a message into a buffer, cut to `size` - 1 bytes and terminated.
 *
 * @param size  bytes of `buf`; 0 means no bound (as do the two forms without it)
 * @return the length that the whole text has; -1 when the table or number is wrong (an internal
 *         error is printed) or the text cannot be formatted.
 * Raises: only when it prints.
 */
KS_API int imsg_vsnprintf(char *buf, size_t size, const void *table_or_format, int msg_no, va_list args);
KS_API int imsg_snprintf(char *buf, size_t size, const void *table_or_format, int msg_no, ...);
KS_API int imsg_vsprintf(char *buf, const void *table_or_format, int msg_no, va_list args);
KS_API int imsg_sprintf(char *buf, const void *table_or_format, int msg_no, ...);

/**
 * imsg_vsnprintf() as part of a message that is shown later: the capture log takes note of it.
 * @param tag_mode  2: the ATE form when tagging is enabled; 3: the ATE form in any case; any other
 *                  number: never the ATE form
 */
KS_API int imsg_vsnprintf_taggable(int tag_mode, char *buf, size_t size, const void *table_or_format, int msg_no,
                                   va_list args);
KS_API int imsg_snprintf_taggable(int tag_mode, char *buf, size_t size, const void *table_or_format, int msg_no, ...);

/** imsg_snprintf() with the head of `kind` in front, as imsg_print() would build it. */
KS_API int imsg_snprintf_type(int kind, char *buf, size_t size, const void *table_or_format, int msg_no, ...);

/**
 * Formats a message into a new buffer, with ATE tags when tagging is enabled.
 *
 * @param out         receives the buffer, freed with stg_free(); NULL on failure
 * @param start_size  bytes tried first, at least 1 and at most `max_size`
 * @param max_size    bytes never exceeded
 * @return the text's length, which is at most the buffer's size (a text of exactly that length is
 *         accepted as it stands, cut by one byte); -1 on wrong sizes, a text that does not fit and
 *         exhaustion (explained on standard error while "ks/imsg" is traced at level 1).
 * Raises: only when memory is exhausted or the table or number is wrong.
 */
KS_API int imsg_dynamic_len_snprintf(char **out, long start_size, long max_size, const void *table_or_format,
                                     unsigned msg_no, ...);

/**
 * The text of an error number: the system's text, cut to 255 bytes, or the number in decimal where
 * there is none (and for 0 and below). Per thread, until its next call. Raises: no.
 */
KS_API const char *imsg_strerror(long errnum);
/**@}*/

/** @name Tracing */
/**@{*/

/**
 * Tells whether a trace message of a subsystem and level is wanted: 1 or 0.
 *
 * It is when `level` is at most the desired verbosity and the list of traced subsystems is "*" or
 * holds `subsys` as an element between colons. The first call that gets that far reads
 * TRACE_VERBOSITY (a decimal number, else 0) and, when no list was set, TRACE_SUBSYS.
 * Takes no lock of this module and allocates nothing that it hands out. Raises: no.
 */
KS_API int imsg_should_trace(const char *subsys, long level);

/** The verbosity that TRACE_VERBOSITY asks for now, 0 without one. Changes nothing. */
KS_API long imsg_get_verbosity_ev(void);

/** The desired verbosity as it is stored; IMSG_VERBOSITY_UNREAD before the environment was read. */
KS_API long imsg_get_desired_verbosity(void);

/** Sets the verbosity; IMSG_VERBOSITY_UNREAD makes the next decision read the environment. */
KS_API void imsg_set_trace_verbosity(long verbosity);

/**
 * Sets the list of traced subsystems, names between colons or "*"; NULL and "" trace nothing. The
 * list is copied, and kept as it was when memory is exhausted.
 */
KS_API void imsg_set_trace_subsys(const char *subsystems);
/**@}*/

/** @name What heads show */
/**@{*/

/**
 * Sets the program name that heads show: what follows the last "/" of `argv0`; NULL restores
 * "noname". The command line is noted in the command history while "ks/imsg" is traced at level 1.
 */
KS_API void imsg_set_app_name(const char *argv0);

/** The program name: a copy of the calling thread's own, until its next call. */
KS_API const char *imsg_get_app_name(void);

/** Switches the display of subsystem names on or off; returns 1 if it was on, else 0. */
KS_API int imsg_output_subsys(int on);

/** Switches all heads off or on again; returns 1 if they were off, else 0. */
KS_API int imsg_suppress_prefix(int on);
/**@}*/

/** @name Redirecting output to procedures */
/**@{*/

/**
 * Takes a finished message in the place of a stream. `text` is the procedure's until it returns. It
 * is called with no lock held and may print, and raise.
 */
typedef void (*imsg_output_proc)(void *info, const char *text);

/** In a slot: messages of this kind are dropped. */
#define IMSG_PROC_SUPPRESS ((imsg_output_proc)(intptr_t)-1)

/** One procedure per kind. NULL: write to the stream. */
typedef struct imsg_redirect_procs {
    imsg_output_proc proc[IMSG_KIND_COUNT];
} imsg_redirect_procs;

/** A procedure and what it is handed. */
typedef struct imsg_window {
    imsg_output_proc proc;
    void *info;
} imsg_window;

/**
 * In a slot: write to the stream, as an empty slot does. Called itself, it writes `text` to standard
 * output.
 */
KS_API void imsg_default_output(void *info, const char *text);

/**
 * Installs one procedure per kind, handed `info` each. Kinds 2 and 3 use the slots of 0 and 1 while
 * theirs are empty. NULL empties all slots. While a log file is open nothing is redirected; with
 * IMSG_DUP_OUTPUT not 0 redirected messages are written to the stream as well.
 */
KS_API void imsg_set_redirect_procs(const imsg_redirect_procs *procs, void *info);

/** The procedures in force, and the information of slot 0; either pointer may be NULL. */
KS_API void imsg_get_redirect_procs(imsg_redirect_procs *out_procs, void **out_info);

/**
 * The older form with two channels: `out_proc` takes kinds 0 to 3, `err_proc` the others; each may
 * be NULL or IMSG_PROC_SUPPRESS.
 */
KS_API void imsg_redirect_output(imsg_output_proc out_proc, void *out_info, imsg_output_proc err_proc, void *err_info);

/** What imsg_redirect_output() or imsg_use_window() set last, all NULL before; each pointer may be NULL. */
KS_API void imsg_get_redirect_info(imsg_output_proc *out_proc, void **out_info, imsg_output_proc *err_proc,
                                   void **err_info);

/** Sends both channels to the same procedure; NULL ends that. */
KS_API void imsg_use_window(const imsg_window *window);

/** 1 when slot 0 holds a procedure: the process runs under a front end. Else 0. */
KS_API int imsg_in_gui(void);
/**@}*/

/** @name Clock procedure */
/**@{*/

/** Called by imsg_clock() with the argument it was installed with, and no lock held. */
typedef void (*imsg_clock_proc)(void *arg);

/** Installs the procedure; NULL removes it. */
KS_API void imsg_set_clock_callback(imsg_clock_proc proc, void *arg);

/** Calls the installed procedure, if any. Raises: what the procedure raises. */
KS_API void imsg_clock(void);
/**@}*/

/** @name ATE tagging: messages in a form that a test program can take apart */
/**@{*/

/** Switches tagging on or off for the process; VELLUM_ENABLE_ATE_MESSAGES "True" switches it on at start. */
KS_API void imsg_ate_enable_tagging(void);
KS_API void imsg_ate_disable_tagging(void);

/** 1 when tagging is enabled, else 0. */
KS_API int imsg_ate_tagging_is_enabled(void);
/**@}*/

/**
 * @name Text on a display
 * Columns are those of wcwidth() in the process locale. None of these prints or raises.
 */
/**@{*/

/**
 * Columns of the first character of `s`, of which `n` bytes may be read; `n` when they make no
 * character that has a width; 0 for an empty `s` and for `n` below 1.
 */
KS_API int imsg_disp_width(const char *s, int n);

/** Columns of a string; its length in bytes where characters are single bytes. */
KS_API size_t imsg_strwidth(const char *s);

/** Characters of a string. */
KS_API size_t imsg_charcount(const char *s);

/** Cuts `str` after the last character that ends within `max_bytes`; 1 when it cut, else 0. */
KS_API int imsg_truncate(char *str, size_t max_bytes);

/**
 * Makes a string exactly `width` columns wide: pads it with blanks or cuts characters off.
 *
 * @param out, out_size  receives the text, always terminated unless `out_size` is 0
 * @param keep_end  0: its start is kept and blanks follow it. Else: its end is kept, blanks before it.
 * @return 1; 0 when `out` is too small and holds only the characters that fit.
 */
KS_API int imsg_make_width(char *out, size_t out_size, const char *str, int width, int keep_end);

/**
 * Copies one line with its tabs expanded to blanks.
 *
 * @param tab_size   columns between tab stops; 0 or below: VELLUM_TAB_SIZE (read once), else 8
 * @param start_col  column in which the line starts, from 0; stops count from column 0
 * @param src        ends at its first line feed, which is copied and takes no column, or at its NUL
 * @param max_cols   columns to take at most; -1: no limit. A character that would pass it is left.
 * @param out_size   bytes of `out`, the closing NUL included; a character that does not fit is left
 * @param out        receives the text, terminated unless `out_size` is 0; NULL: only measure
 * @param out_cols   receives the columns taken (`start_col` not counted); may be NULL
 * @param out_bytes  receives the bytes of `src` taken; may be NULL
 * @return 1 when the whole line was taken, else 0.
 */
KS_API int imsg_detabify_general(int tab_size, int start_col, const char *src, int max_cols, size_t out_size, char *out,
                                 int *out_cols, size_t *out_bytes);

/** imsg_detabify_general() with the default tab size. */
KS_API int imsg_detabify(int start_col, const char *src, int max_cols, size_t out_size, char *out, int *out_cols,
                         size_t *out_bytes);

/** Copies `in` without its style markers; `out` has room for all of `in`, and may be `in`. */
KS_API void imsg_strip_style_chars(char *out, const char *in);
/**@}*/

/**
 * Starts the module: environment, terminal, texts of heads. Every entry point does so on first use;
 * it is called itself only to settle the time at which the environment is read.
 */
KS_API void imsg_initialize(void);

/** The library's own messages, subsystem "ks"; and this module's, subsystem "ks/imsg". */
extern KS_API const msg_table _ks_ks_msg_table;
extern KS_API const msg_table _imsg_ks_msg_table;

#ifdef __cplusplus
}
#endif
#endif
