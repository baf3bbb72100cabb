/**
 * @file imsg.h
 * Messages: the one path by which tools, servers and daemons report anything.
 *
 * A message is a number in a message table (base.h). Its text comes from the message catalogue
 * that the table names (NLSPATH, LANG, the installed prefix), else from the table; a catalogue text is
 * used only when it takes the same arguments as the table's. The *kind* gives it a head and a stream:
 *
 *     kind         IMSG_OK  IMSG_OUTPUT  IMSG_WARNING      IMSG_ERROR       IMSG_TRACE        IMSG_SYSTEM
 *     stream       stdout   stdout       stderr            stderr           stderr            stderr
 *     head         -        -            "prog: Warning: " "prog: Error: "  ">>> TIME (prog): " -
 *
 * The kind above each (IMSG_ERROR_MORE) continues it on the same stream without a head. With subsystem
 * display on, "prog" reads "prog/subsystem". With PRINT_SUBSYS_OK set, IMSG_OK and IMSG_OUTPUT have the
 * heads "prog/subsystem: Ok: " and "prog/subsystem: ".
 *
 * Configuration comes from the environment, read on first use: PRINT_SUBSYS, PRINT_SUBSYS_OK,
 * IMSG_IO_INTERLEAVE, IMSG_DUP_OUTPUT, VELLUM_ENABLE_ATE_MESSAGES, VELLUM_IMSG_CAPTURE_LOG,
 * VELLUM_TAB_SIZE, TRACE_VERBOSITY, TRACE_SUBSYS. A setuid or setgid process ignores the one that
 * names a file. The module starts itself: no call needs another one before it.
 *
 * Threads: any thread may call anything; one message is formatted and written in one piece.
 * Raises: every call that prints is a raise point, and the raise is taken before anything is
 * printed. Calls that print only about a misuse of theirs (a NULL table, a number that a table does
 * not have) are raise points only then. errno is kept by every call that prints.
 */
#ifndef KORVAKS_IMSG_H
#define KORVAKS_IMSG_H

#include <stdarg.h>
#include <stdio.h>

#include <korvaks/base.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Message kinds, for every parameter named `kind`. */
enum imsg_kind {
    IMSG_OK = 0,      /**< all is well; standard output */
    IMSG_OK_MORE = 1, /**< goes on with it, as each of the odd kinds with the one before */
    IMSG_OUTPUT = 2,  /**< what the program is run for; standard output */
    IMSG_OUTPUT_MORE = 3,
    IMSG_WARNING = 4, /**< the work goes on; standard error, as all below */
    IMSG_WARNING_MORE = 5,
    IMSG_ERROR = 6, /**< something was not done */
    IMSG_ERROR_MORE = 7,
    IMSG_TRACE = 8, /**< print it when imsg_should_trace() says so */
    IMSG_TRACE_MORE = 9,
    IMSG_SYSTEM = 10 /**< from the system to the user, without a head */
};

/** Number of message kinds, and of output slots. */
#define IMSG_KIND_COUNT 11

/** `msg_no` of a message whose format is given in the place of its table, where `msg_no` is unsigned. */
#define IMSG_RAW 0xFFFFFFFFu

/** The same where `msg_no` is an int. */
#define IMSG_RAW_FORMAT (-1)

/**
 * Style markers, to be put between the pieces of a text: "a " IMSG_STYLE_BOLD "bold" IMSG_STYLE_BOLD_END " word".
 * They are rendered on a terminal that has the style and has an end for it, and are dropped elsewhere. A
 * style lasts until its end, also into the next message.
 */
#define IMSG_STYLE_BOLD "\001\0011B"
#define IMSG_STYLE_BOLD_END "\001\0010B"
#define IMSG_STYLE_STANDOUT "\001\0011I"
#define IMSG_STYLE_STANDOUT_END "\001\0010I"
#define IMSG_STYLE_UNDERLINE "\001\0011U"
#define IMSG_STYLE_UNDERLINE_END "\001\0010U"

/** Size of the buffer that holds an error text. */
#define IMSG_MAX_ERR_LEN 256

/** imsg_get_desired_verbosity() before the environment was asked. */
#define IMSG_VERBOSITY_UNREAD 32767L

/** @name Printing */
/**@{*/

/**
 * Prints a message of a table, with the arguments that its format needs.
 *
 * What the stream's buffer holds goes out first, then the whole message in one write past the buffer. A signal
 * that interrupts the write loses nothing: it goes on, unless a raise is pending for the caller. A text of any
 * length is printed whole. Where a procedure stands in the place of the stream, it is called with the text.
 *
 * @param kind    IMSG_OK to IMSG_SYSTEM. Any other number is reported as an error, and the message goes out
 *                as an error with the head "System message: ".
 * @param table   the module's table; its subsystem is the one shown. NULL is reported as an error.
 * @param msg_no  0 to `table->count` - 1; another number is reported as an error, and the message is not
 *                printed.
 * @return 0; -1 when the table or number was wrong, the text could not be formatted (a wide character that
 *         the locale lacks) or the stream refused it. A procedure is not asked whether it succeeded.
 * errno is kept, and is what a "%m" of the format shows. Memory exhausted for a text above 16 KiB ends the
 * process by an assertion.
 *
 * Threads: any; messages of several threads never mix. Raises: yes, before anything is printed, and what a
 * procedure raises.
 */
KS_API int imsg_print(int kind, const msg_table *table, unsigned msg_no, ...);

/**
 * imsg_print() with a subsystem name of its own, or with a format in the place of a table.
 *
 * @param kind             as in imsg_print()
 * @param subsys           name to show where heads show the subsystem; NULL: the table's; "": none
 * @param table_or_format  with `msg_no` IMSG_RAW: a printf format, which has no subsystem whatever `subsys`
 *                         says and is in no catalogue. Else a `const msg_table *`. NULL is reported as an
 *                         error.
 * @param msg_no           as in imsg_print(), or IMSG_RAW
 * @return as imsg_print().
 *
 * Threads: any. Raises: as imsg_print().
 */
KS_API int imsg_print_shared(int kind, const char *subsys, const void *table_or_format, unsigned msg_no, ...);

/**
 * imsg_print_shared() for a function that has its own arguments in a list.
 *
 * @param args  the arguments, at the first that the format takes; after the call the list is as behind a
 *              vprintf(): the caller ends it with va_end() and uses it no more
 * @return as imsg_print().
 *
 * Threads: any. Raises: as imsg_print(); a va_list needs no cleanup on the platforms served.
 */
KS_API int imsg_print_sharedv(int kind, const char *subsys, const void *table_or_format, unsigned msg_no, va_list args);

/**
 * Writes a finished text to a stream, rendering its style markers, and flushes the stream.
 *
 * What the stream still holds in its buffer goes out first. To a terminal, pipe or socket, and to the streams of
 * messages, the text itself goes past the buffer; a signal that interrupts the write loses nothing, as in
 * imsg_print(). To any other file it goes through the stream, whose position stays right.
 *
 * @param text    any text; it is no format. Characters are written whole.
 * @param stream  open for writing; styles are shown only where it is a terminal
 * @return 0, with errno as it was; -1 when `text` or `stream` is NULL, or, with errno, when the stream
 *         refused the text or a part of it.
 *
 * Threads: any; not mixed with messages. Raises: no.
 */
KS_API int imsg_fputs(const char *text, FILE *stream);
/**@}*/

/** @name Formatting without printing */
/**@{*/

/**
 * Formats a message into a buffer, cut to `size` - 1 bytes and terminated.
 *
 * @param buf              `size` bytes; with `size` 0 as many as the whole text and its NUL need
 * @param size             0: no bound
 * @param table_or_format  with `msg_no` IMSG_RAW_FORMAT a printf format, else a `const msg_table *`
 * @param msg_no           0 to the table's count - 1, or IMSG_RAW_FORMAT
 * @param args             as in imsg_print_sharedv()
 * @return the length of the whole text, also where it was cut; -1 when the table or format is NULL or the
 *         number wrong (an error is printed, `buf` is not touched), or the text cannot be formatted (errno,
 *         as vsnprintf() sets it).
 *
 * Threads: any. Raises: only when it prints.
 */
KS_API int imsg_vsnprintf(char *buf, size_t size, const void *table_or_format, int msg_no, va_list args);

/** imsg_vsnprintf() with the arguments themselves. */
KS_API int imsg_snprintf(char *buf, size_t size, const void *table_or_format, int msg_no, ...);

/** imsg_vsnprintf() without a bound: only for texts whose length is known, catalogue texts included. */
KS_API int imsg_vsprintf(char *buf, const void *table_or_format, int msg_no, va_list args);

/** imsg_vsprintf() with the arguments themselves. */
KS_API int imsg_sprintf(char *buf, const void *table_or_format, int msg_no, ...);

/**
 * imsg_vsnprintf() as part of a message that is shown later: the capture log takes note of it, and it can take
 * the form that test programs take apart.
 *
 * @param tag_mode  2: that form when tagging is enabled (imsg_ate_enable_tagging()); 3: in any case; any
 *                  other number: never
 * @param buf, size, table_or_format, msg_no, args  as in imsg_vsnprintf()
 * @return as imsg_vsnprintf(). A capture log that cannot be written is skipped in silence.
 *
 * Threads: any. Raises: only when it prints.
 */
KS_API int imsg_vsnprintf_taggable(int tag_mode, char *buf, size_t size, const void *table_or_format, int msg_no,
                                   va_list args);

/** imsg_vsnprintf_taggable() with the arguments themselves. */
KS_API int imsg_snprintf_taggable(int tag_mode, char *buf, size_t size, const void *table_or_format, int msg_no, ...);

/**
 * imsg_snprintf() with the head of a kind in front, as imsg_print() would build it at this moment.
 *
 * @param kind  as in imsg_print(); an unknown one has the head "System message: " and is not reported
 * @param buf, size, table_or_format, msg_no  as in imsg_vsnprintf()
 * @return the length of head and text, also where they were cut; else as imsg_vsnprintf(). Never tagged, and
 *         not noted in the capture log.
 *
 * Threads: any. Raises: only when it prints.
 */
KS_API int imsg_snprintf_type(int kind, char *buf, size_t size, const void *table_or_format, int msg_no, ...);

/**
 * Formats a message into a new buffer, in the tagged form when tagging is enabled.
 *
 * @param out              receives the buffer, freed with stg_free(); NULL on failure
 * @param start_size       bytes tried first, at least 1 and at most `max_size`
 * @param max_size         bytes never exceeded
 * @param table_or_format  with `msg_no` IMSG_RAW a printf format, else a `const msg_table *`
 * @param msg_no           0 to the table's count - 1, or IMSG_RAW
 * @return the text's length, which is at most the buffer's size (a text of exactly that length is
 *         accepted as it stands, cut by one byte); -1 on wrong sizes, a text that does not fit, one that
 *         cannot be formatted, a wrong table or number (an error is printed), and exhaustion. While "ks/imsg"
 *         is traced at level 1, wrong sizes, a text that does not fit and exhaustion are explained on standard
 *         error.
 *
 * Threads: any. Raises: only when it prints, and `*out` is then NULL.
 */
KS_API int imsg_dynamic_len_snprintf(char **out, long start_size, long max_size, const void *table_or_format,
                                     unsigned msg_no, ...);

/**
 * The text of an error number, as strerror() gives it in the process locale, cut to 255 bytes.
 *
 * @param errnum  an errno; where the system has no text for it, and for 0 and below, the text is the number
 *                in decimal
 * @return the text, in a buffer of the calling thread, until its next call. Never NULL. errno is kept.
 *
 * Threads: any. Raises: no.
 */
KS_API const char *imsg_strerror(long errnum);
/**@}*/

/** @name Tracing */
/**@{*/

/**
 * Tells whether a trace message of a subsystem and level is wanted.
 *
 * It is when `level` is at most the desired verbosity and the list of traced subsystems is "*" or
 * holds `subsys` as an element between colons. The first call that gets that far reads
 * TRACE_VERBOSITY (a decimal number, else 0) and, when no list was set, TRACE_SUBSYS.
 *
 * @param subsys  "ks/stg"; NULL is in no list, but "*" means it too
 * @param level   from 1 for what is said seldom, upwards; any number is taken
 * @return 1 when it is wanted, else 0. errno is kept.
 *
 * Threads: any, also with any lock of the library held: it takes none but the environment's, and that only to
 * read the environment; it allocates nothing. Raises: no.
 */
KS_API int imsg_should_trace(const char *subsys, long level);

/** The verbosity that TRACE_VERBOSITY asks for now, 0 without one. Changes nothing. Threads: any. Raises: no. */
KS_API long imsg_get_verbosity_ev(void);

/**
 * The desired verbosity as it is stored: IMSG_VERBOSITY_UNREAD before the environment was read, and that
 * is not done for this call. Threads: any; one load. Raises: no.
 */
KS_API long imsg_get_desired_verbosity(void);

/**
 * Sets the desired verbosity, in the place of TRACE_VERBOSITY.
 *
 * @param verbosity  highest level that is traced; 0 and below: none of the library's own.
 *                   IMSG_VERBOSITY_UNREAD makes the next decision read the environment.
 * Threads: any; decisions of other threads see it at their next call. Raises: no.
 */
KS_API void imsg_set_trace_verbosity(long verbosity);

/**
 * Sets the list of traced subsystems, in the place of TRACE_SUBSYS.
 *
 * @param subsystems  names between colons, or "*" for all; copied. "" traces nothing; so does NULL, which also
 *                    lets TRACE_SUBSYS be read again when the verbosity is.
 * A list that there is no memory for leaves the one before in force. Only a list longer than all before it
 * takes memory: what this function is given never adds up.
 * Threads: any; a decision that another thread is taking sees the list before or the new one. Raises: no.
 */
KS_API void imsg_set_trace_subsys(const char *subsystems);
/**@}*/

/** @name What heads show */
/**@{*/

/**
 * Sets the program name that heads show, at first "noname".
 *
 * @param argv0  the name is what follows its last "/" ("" when nothing does); copied. NULL restores "noname".
 * A name that there is no memory for leaves the one before. While "ks/imsg" is traced at level 1 the command
 * line of the process is then noted in the command history (clp.h).
 *
 * Threads: any. Raises: no; while "ks/imsg" is traced, as clp_log_cl_args().
 */
KS_API void imsg_set_app_name(const char *argv0);

/**
 * The program name.
 *
 * @return a copy of the calling thread's own, until its next call; never NULL. Without memory for the copy, the
 *         last one that could be made, at first "noname".
 * Threads: any. Raises: no.
 */
KS_API const char *imsg_get_app_name(void);

/**
 * Switches the display of subsystem names in heads.
 *
 * @param on  0: off; else on. At the start it is on when PRINT_SUBSYS or PRINT_SUBSYS_OK is not empty.
 * @return what it was, 1 or 0.
 * Threads: any; holds for the process. Raises: no.
 */
KS_API int imsg_output_subsys(int on);

/**
 * Switches heads off altogether, those of traces too.
 *
 * @param on  not 0: no heads; 0: heads again, as at the start
 * @return what it was, 1 or 0.
 * Threads: any; holds for the process. Raises: no.
 */
KS_API int imsg_suppress_prefix(int on);
/**@}*/

/** @name Redirecting output to procedures */
/**@{*/

/**
 * Takes a finished message in the place of a stream. `info` is what it was installed with; `text` is the
 * procedure's until it returns. It is called with no lock held, by the thread that prints, and may print, and
 * raise: a raise goes on to the record of the code that printed. Two threads may be in it at once.
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
 * The procedure that stands for the stream itself: in a slot it means what NULL means. Called as a function it
 * writes `text` to the standard output of the start, as imsg_fputs() does; `info` is not looked at, and a stream
 * that refuses is not reported. Threads: any. Raises: no.
 */
KS_API void imsg_default_output(void *info, const char *text);

/**
 * Installs one procedure for each kind, in the place of all that were installed before.
 *
 * IMSG_OUTPUT and IMSG_OUTPUT_MORE use the slots of IMSG_OK and IMSG_OK_MORE while theirs are empty. With
 * IMSG_DUP_OUTPUT set to a number that is not 0, what goes to a procedure goes to the stream as well. A
 * message that there is no memory to hand over goes to the stream.
 *
 * @param procs  copied; each one a procedure, NULL or IMSG_PROC_SUPPRESS. NULL empties all slots.
 * @param info   handed to each of them; must live as long as they are installed
 * Threads: any; holds for the process, from the next message on. Raises: no.
 */
KS_API void imsg_set_redirect_procs(const imsg_redirect_procs *procs, void *info);

/**
 * The procedures in force, however they were installed.
 *
 * @param out_procs  receives them; may be NULL
 * @param out_info   receives the information of IMSG_OK's; may be NULL
 * Threads: any. Raises: no.
 */
KS_API void imsg_get_redirect_procs(imsg_redirect_procs *out_procs, void **out_info);

/**
 * Installs procedures in the older form with two channels, in the place of all that were installed before.
 *
 * @param out_proc, out_info  for IMSG_OK to IMSG_OUTPUT_MORE: a procedure and what it is handed; NULL: write to
 *                            the stream; IMSG_PROC_SUPPRESS: drop
 * @param err_proc, err_info  the same for all other kinds
 * Threads: any; holds for the process, from the next message on. Raises: no.
 */
KS_API void imsg_redirect_output(imsg_output_proc out_proc, void *out_info, imsg_output_proc err_proc, void *err_info);

/**
 * What imsg_redirect_output() or imsg_use_window() set last; all NULL before. imsg_set_redirect_procs() does not
 * change it. Each pointer may be NULL. Threads: any. Raises: no.
 */
KS_API void imsg_get_redirect_info(imsg_output_proc *out_proc, void **out_info, imsg_output_proc *err_proc,
                                   void **err_info);

/**
 * imsg_redirect_output() with the same procedure for both channels.
 * @param window  copied; NULL: back to the streams
 * Threads: any. Raises: no.
 */
KS_API void imsg_use_window(const imsg_window *window);

/**
 * Tells whether the process runs under a front end: 1 when IMSG_OK goes to a procedure (neither NULL,
 * IMSG_PROC_SUPPRESS nor imsg_default_output()), else 0. Threads: any. Raises: no.
 */
KS_API int imsg_in_gui(void);
/**@}*/

/** @name Clock procedure */
/**@{*/

/** Called by imsg_clock() with the argument it was installed with, and no lock held. */
typedef void (*imsg_clock_proc)(void *arg);

/**
 * Installs the procedure that long work calls through imsg_clock(), so that a front end stays alive.
 *
 * @param proc  NULL removes the one before
 * @param arg   handed to it; must live as long as it is installed, and as a call of it that has begun
 * Threads: any; holds for the process. Raises: no.
 */
KS_API void imsg_set_clock_callback(imsg_clock_proc proc, void *arg);

/** Calls the installed procedure, if there is one. Threads: any, several at once. Raises: what the procedure raises. */
KS_API void imsg_clock(void);
/**@}*/

/** @name ATE tagging: messages in a form that a test program can take apart */
/**@{*/

/**
 * Switches tagging on: messages are printed as subsystem, number, raw format and values, between tags. It is on
 * from the start with VELLUM_ENABLE_ATE_MESSAGES "True" in any letter case.
 * Threads: any; holds for the process, from the next message on. Raises: no.
 */
KS_API void imsg_ate_enable_tagging(void);

/** Switches tagging off. Threads: any. Raises: no. */
KS_API void imsg_ate_disable_tagging(void);

/** 1 when tagging is on, else 0. Threads: any. Raises: no. */
KS_API int imsg_ate_tagging_is_enabled(void);
/**@}*/

/**
 * @name Text on a display
 * Columns are those of wcwidth() in the process locale. No string may be NULL. Threads: any, and none of these
 * prints or raises; the texts are the caller's to keep from changing.
 */
/**@{*/

/**
 * Columns of the first character of a text.
 *
 * @param s  text, at most `n` bytes of which are read
 * @param n  bytes; below 1 there is no character
 * @return 0 to 2 as wcwidth() tells; `n` when the bytes make no character, or one without a width such as a tab;
 *         0 for an empty text and for `n` below 1.
 */
KS_API int imsg_disp_width(const char *s, int n);

/**
 * Columns of a string: the sum over its characters, where a byte that belongs to no character counts 1. In a
 * locale of single-byte characters its length in bytes.
 */
KS_API size_t imsg_strwidth(const char *s);

/** Characters of a string; a byte that belongs to no character counts as one. */
KS_API size_t imsg_charcount(const char *s);

/**
 * Cuts a string after the last character that ends within `max_bytes`, in place.
 *
 * @param max_bytes  bytes without the NUL; 0 leaves ""
 * @return 1 when it cut, 0 when the string was short enough.
 */
KS_API int imsg_truncate(char *str, size_t max_bytes);

/**
 * Makes a string exactly `width` columns wide: pads it with blanks or cuts characters off.
 *
 * @param out       receives the text, terminated unless `out_size` is 0; does not overlap `str`
 * @param out_size  bytes of `out`; a character of `width` columns may have several
 * @param str       text; one that is cut in the middle of a wide character gets a blank in its place
 * @param width     columns; 0 and below give ""
 * @param keep_end  0: its start is kept and blanks follow it. Else: its end is kept, blanks before it.
 * @return 1; 0 when `out` is too small and holds only what fits.
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

/**
 * Copies a text without its style markers. What only looks like the beginning of one is text.
 *
 * @param out  room for all of `in` and its NUL; may be `in` itself
 */
KS_API void imsg_strip_style_chars(char *out, const char *in);
/**@}*/

/**
 * Starts the module: environment, terminal, texts of heads, the capture log. Every entry point does so on first
 * use; it is called itself only to settle the time at which the environment is read. A second call does nothing.
 * Where standard output is a terminal, its modes are put back at exit as they were found. errno is kept.
 *
 * Threads: any, several at once. Raises: no.
 */
KS_API void imsg_initialize(void);

/** The library's own messages, subsystem "ks"; and this module's, subsystem "ks/imsg". */
extern KS_API const msg_table _ks_ks_msg_table;
extern KS_API const msg_table _imsg_ks_msg_table;

#ifdef __cplusplus
}
#endif
#endif
