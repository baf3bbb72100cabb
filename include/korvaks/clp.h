/**
 * @file clp.h
 * The command parser: a tool's command line against its table of flags; command strings; the stack of
 * commands being run; the host's command history.
 *
 * A tool declares its flags, makes a handle and pulls flags and words from it:
 *
 *     enum { f_comment, f_force, f_list };
 *     static const clp_flag_desc flags[] = {
 *         {"-c[omment]", f_comment, 0},
 *         CLP_START_MUTUAL_EXCLUSION,
 *         {"-f[orce]", f_force, 0},
 *         {"-l[ist]", f_list, CLP_REPEATABLE_FLAG},
 *         CLP_END_MUTUAL_EXCLUSION,
 *         {"-ls", f_list, CLP_ALIAS_FLAG},
 *         {NULL, 0, 0}};
 *
 *     clp_handle *hdl = clp_create_hdl_using_argv(argc, argv, flags, STG_AREA_NULL);
 *     char *word;
 *     uint32_t flag;
 *     int result;
 *     clp_get_next_arg(hdl, &word);                                  // the command's name
 *     while ((result = clp_get_next_flag_value(hdl, 0, &flag)) == 0) {
 *         if (flag == f_comment && clp_get_next_arg(hdl, &comment) != 0)
 *             return usage();
 *         else if (flag == f_list)
 *             while (clp_get_next_subarg(hdl, &word) == 0)            // -list one,two,three
 *                 add(word);
 *     }
 *     if (result == 1)
 *         return usage();                                            // already reported
 *     while (clp_get_next_arg(hdl, &word) == 0)
 *         work_on(word);
 *     clp_destroy_hdl(&hdl);
 *
 * Results are 0 for success, 1 for an error that has been reported, and 2 for "nothing more", unless a
 * comment says otherwise.
 *
 * Words are used in place and belong to the caller. A negative number of words counts as none.
 *
 * Misuse ends the process with a message and abort(): a handle that is NULL (message 8) or not one (7),
 * a flag scan without a table (9) or constraints (10), a scan without a vector (11) or at a word that is
 * NULL (12), and a table with faulty groups (0, 1) or an alias of nothing (3).
 *
 * What is printed goes through imsg.h, as errors and warnings of the subsystem "ks/clp". errno is an answer
 * only where memory is exhausted: ENOMEM, reported by the storage module.
 *
 * Threads: a handle belongs to one thread at a time. The command stack and the command's text are the
 * calling thread's own.
 * Raises:  every call that prints is a raise point; none owns anything at that moment and no handle is
 * left half changed.
 */
#ifndef KORVAKS_CLP_H
#define KORVAKS_CLP_H

#include <sys/time.h>

#include <korvaks/base.h>
#include <korvaks/stg.h>

#ifdef __cplusplus
extern "C" {
#endif

/** @name Tables of flags */
/**@{*/

/** Bits of clp_flag_desc.flags */
#define CLP_REPEATABLE_FLAG 1u /**< may be given more than once */
#define CLP_ALIAS_FLAG 2u      /**< another name for the flag that has the same value and not this bit */
#define CLP_OBSOLETE_FLAG 4u   /**< accepted as VELLUM_OBSO_SYN says, see clp_check_obsolete() */

/**
 * A flag. A table is an array of these, ended by a NULL name; it must outlive the handles that use it.
 *
 * Values are the caller's, but no two flags share one, aliases apart, and 0xfffffffd and 0xfffffffe mark
 * groups. An alias in a group stands for a flag of that group; one outside any group stands for the
 * nearest flag before it, back to the last start of a group, or else the first one behind it, up to
 * the next end of a group.
 */
typedef struct clp_flag_desc {
    const char *name; /**< as typed, with its '-'; a '[' marks where it may be cut off: "-c[omment]" */
    uint32_t value;   /**< what clp_get_next_flag_value() gives for it */
    uint32_t flags;   /**< CLP_ bits, or 0 */
} clp_flag_desc;

/** Table entries around a group: of the flags between them at most one may be used. Groups do not nest. */
/* clang-format off */
#define CLP_START_MUTUAL_EXCLUSION {"Start Mutual Exclusion", (uint32_t)-2, 0}
#define CLP_END_MUTUAL_EXCLUSION {"End Mutual Exclusion", (uint32_t)-3, 0}
/* clang-format on */

/** What is known about a table entry while a line is scanned. */
typedef struct clp_constraint {
    uint32_t seen; /**< 1: the flag, or one of the group that starts here, was used */
    int32_t link;  /**< alias: index of its flag; start of a group: index of the flag that used it; else -1 */
} clp_constraint;
/**@}*/

/** @name Handles */
/**@{*/

/** clp_handle.magic */
#define CLP_MAGIC 0x17171717u

/** A command line being parsed. The fields may be read; they are changed through the calls below. */
typedef struct clp_handle {
    uint32_t magic;                   /**< CLP_MAGIC */
    stg_area *area;                   /**< the handle's own, when it made one */
    int argc;                         /**< words */
    char **argv;                      /**< the caller's words, not copied */
    int index;                        /**< current word */
    char *next_value;                 /**< the word behind the last flag, or the rest of a comma list */
    int end_of_flags;                 /**< not 0: "--" was met */
    int descriptor_count;             /**< entries of the table, its end not counted */
    const clp_flag_desc *descriptors; /**< the table */
    clp_constraint *constraints;      /**< one for each entry */
    int obsolete_mode;                /**< 0 silent, 1 warn, 2 fail */
    const char *last_flag_name;       /**< of the last flag that matched, as in its table */
} clp_handle;

/**
 * Makes a handle for a vector of words. The scan starts at word 0, and how obsolete flags are taken is read
 * from VELLUM_OBSO_SYN (clp_check_obsolete()).
 *
 * @param argc         words; below 0 counts as 0
 * @param argv         used in place: the words must outlive the handle, and clp_get_next_subarg() writes into
 *                     them
 * @param descriptors  table of flags, which must outlive the handle; NULL for a handle from which only words
 *                     are pulled
 * @param area         area for what the handle needs. STG_AREA_NULL or STG_AREA_HEAP: one that the
 *                     handle makes and owns
 * @return the handle, ended with clp_destroy_hdl() or with the area given. NULL when two flags of the table
 *         have the same value (message 2) or memory is exhausted (ENOMEM); an area of the handle's own is then
 *         gone, one that was given may hold bytes that nobody uses. A table with faulty groups (messages 0
 *         and 1) or an alias of nothing (3) ends the process.
 *
 * Threads: any. Raises: when a fault is reported.
 */
KS_API clp_handle *clp_create_hdl_using_argv(int argc, char **argv, const clp_flag_desc *descriptors, stg_area *area);

/**
 * Makes a handle for a line, which clp_parse_string() splits into the handle's area; the line itself is not
 * kept.
 *
 * @param command      the line; NULL ends the process, "" gives a handle without words
 * @param descriptors  as in clp_create_hdl_using_argv()
 * @param area         as in clp_create_hdl_using_argv(); the words live in it too
 * @return as clp_create_hdl_using_argv(); NULL also for a line that cannot be split (message 4 or 17), which is
 *         reported before the table is looked at.
 *
 * Threads: any; the calling thread's buffer for words is used. Raises: when a fault is reported.
 */
KS_API clp_handle *clp_create_hdl_using_string(const char *command, const clp_flag_desc *descriptors, stg_area *area);

/**
 * Installs another table for the rest of the line, with no flag used so far: for a command whose subcommands
 * have flags of their own. The place in the line is kept, the name of the last flag is forgotten.
 *
 * @param descriptors  as in clp_create_hdl_using_argv()
 * @param area         where to keep what the table needs, as long as the handle uses it; STG_AREA_NULL or
 *                     STG_AREA_HEAP: the handle's own area
 * @return 0; 1 with the handle unchanged: no area is given and the handle has none of its own (message
 *         13), two flags have the same value (message 2), memory is exhausted (ENOMEM). Faulty groups and an
 *         alias of nothing end the process.
 *
 * Threads: the handle's. Raises: when a fault is reported.
 */
KS_API int clp_switch_flags(clp_handle *hdl, const clp_flag_desc *descriptors, stg_area *area);

/**
 * Keeps the state of a scan, for clp_restore_hdl().
 *
 * The copy lies in the handle's own area, or in that of its table when it has none, ends with the area, and
 * is not destroyed by itself. Words, table, and which flags have been used are shared with the handle.
 *
 * @return the copy; NULL when memory is exhausted (ENOMEM). A handle without constraints ends the process
 *         (message 10).
 *
 * Threads: the handle's. Raises: no.
 */
KS_API clp_handle *clp_save_hdl(const clp_handle *hdl);

/**
 * Goes back to a state kept by clp_save_hdl(): all fields but the magic are copied, the table among them, so
 * that a switch in between is undone. Flags used since stay used, and commas that clp_get_next_subarg() has
 * overwritten stay so. `saved` can be used again.
 *
 * @return 0.
 *
 * Threads: the handle's. Raises: no.
 */
KS_API int clp_restore_hdl(clp_handle *hdl, const clp_handle *saved);

/**
 * Ends a handle and sets *hdl to NULL. With an area of its own, all that lies in it goes: saved states, and the
 * words of a line. In an area of the caller's the handle is only marked, and a later use of it ends the
 * process. `hdl` and *hdl must not be NULL (message 8).
 *
 * @return 0.
 *
 * Threads: the handle's. Raises: no.
 */
KS_API int clp_destroy_hdl(clp_handle **hdl);
/**@}*/

/** @name Flags and words */
/**@{*/

/**
 * Takes the next flag.
 *
 * A word matches the first entry whose name it equals, or is a beginning of, cut off no earlier than
 * at its '['. Letter case counts. "--" ends the flags: it is passed, and every later call gives 2.
 *
 * @param quiet      not 0: a word that begins with '-' and is no flag is not reported; all else is
 * @param out_value  receives the flag's value, for an alias that of its flag; (uint32_t)-1 with the
 *                   results 1 and 2
 * @return 0: the flag is passed; the word behind it is now what clp_get_next_subarg() starts on.
 *         2: no word is left, or the current one is no flag and does not begin with '-'.
 *         1: it begins with '-' and is no flag (message 14); the flag was used before and is not
 *         repeatable (5); another flag of its group was used (6); it is obsolete and that is an error (15).
 *         The word is not passed; clp_get_next_arg() takes it.
 * A handle without table (message 9), constraints (10), vector (11) or current word (12) ends the process.
 *
 * Threads: the handle's. Raises: when something is reported, a warning of an obsolete flag too; the flag is then
 * neither used nor passed.
 */
KS_API int clp_get_next_flag_value(clp_handle *hdl, int quiet, uint32_t *out_value);

/**
 * Takes the current word, whatever it looks like, "--" too: a flag's argument, or an operand.
 *
 * @param out_arg  receives the word, the caller's own of the vector; NULL at the end
 * @return 0; 2 at the end. A handle without a vector (message 11) or word (12) there ends the process.
 *
 * Threads: the handle's. Raises: no.
 */
KS_API int clp_get_next_arg(clp_handle *hdl, char **out_arg);

/**
 * Steps back one word, so that it is taken again. A flag that was used and a "--" that was met stay so, and
 * what clp_get_next_subarg() works on does not change.
 *
 * @return 0; 2 with nothing changed at the first word.
 *
 * Threads: the handle's. Raises: no.
 */
KS_API int clp_unget_arg(clp_handle *hdl);

/**
 * Takes the next piece of a list "a,b,c".
 *
 * The list is the word behind the last flag; with its first piece that word is passed. The comma that
 * ends a piece is overwritten by a NUL in the caller's word. An empty piece is one too.
 *
 * @param out_subarg  receives the piece, which lies in the caller's word; NULL with the result 2
 * @return 0; 2 behind the last piece. Then the current word, if there is one, becomes the list, and the next
 *         call starts on it. A handle without a vector (message 11) or word (12) ends the process.
 *
 * Threads: the handle's. Raises: no.
 */
KS_API int clp_get_next_subarg(clp_handle *hdl, char **out_subarg);

/**
 * The name of the last flag that matched, also of one that was then refused, as in its table; for messages.
 *
 * @param strip  not 0: without '[' and ']'
 * @param size   bytes of `buf`; the name is cut to size - 1 bytes and ends with a NUL. Below 1 nothing is stored.
 * @param buf    the caller's
 * @return 0; 2 with `buf` unchanged when no flag of the present table has matched.
 *
 * Threads: the handle's. Raises: no.
 */
KS_API int clp_get_last_flag_name(const clp_handle *hdl, int strip, int size, char *buf);

/**
 * Tells whether a word is an acceptable spelling of a flag's name.
 *
 * It equals the name without its '[', or is a beginning of it cut off at the '[' or later: "-c[omment]"
 * accepts "-c", "-co" and so on up to "-comment", and the "]" that a name may end with as well. Bytes are
 * compared as they are: letter case counts, the locale does not.
 *
 * @param word  not NULL; "" is accepted by "" and by a name that begins with '['
 * @param name  not NULL
 * @return 1 or 0.
 *
 * Threads: any. Raises: no.
 */
KS_API int clp_match(const char *word, const char *name);

/** Word 0, the caller's own, wherever the scan stands: 0; 2 with NULL when there are no words. Raises: no. */
KS_API int clp_get_command_name(const clp_handle *hdl, char **out_name);

/** The number of words as it was given, word 0 among them. Raises: no. */
KS_API int clp_get_argc(const clp_handle *hdl);

/**
 * Reports obsolete syntax that the caller itself found, as the environment variable VELLUM_OBSO_SYN wants it,
 * whose case does not count:
 *
 *     unset, or "WARN"   a warning (message 16), and 0
 *     "FAIL"             an error (message 16), and 1
 *     any other value    nothing, and 0
 *
 * Flags that are obsolete by their table are taken by the same rule with message 15, and there the variable
 * is read once, when the handle is made. This call reads it each time.
 *
 * Threads: any. Raises: when something is printed.
 */
KS_API int clp_check_obsolete(void);
/**@}*/

/** @name Command strings */
/**@{*/

/**
 * Splits a string into words.
 *
 *  - White space (isspace() in the locale) separates words outside quotes. Characters of more than one
 *    byte are kept whole and are never white space.
 *  - ' and " quote and are dropped. The quote that closes ends the word there and then: x'a b'c is the
 *    two words "xa b" and "c".
 *  - Outside quotes a backslash before ', " or a backslash is dropped and makes it ordinary; before
 *    anything else it stays. Inside quotes both stay, and the quote does not close.
 *  - There are never more words than the string has runs of characters that are not white space. Words
 *    beyond that number are dropped: 'ab'cd is the one word "ab", 'a b'cd are two.
 *
 * @param command   the string, not changed and not kept; NULL ends the process
 * @param area      area of the vector and of the words, never STG_AREA_NULL; with STG_AREA_HEAP each is freed
 *                  with stg_free()
 * @param out_argc  receives the number of words, 0 for a string of white space
 * @param out_argv  receives the vector, which has a NULL behind the last word
 * @return 0; 1 with nothing stored: a quote is not closed (message 4), a word has 8192 bytes or more
 *         (message 17), no memory for the vector (ENOMEM), 2^31 - 1 words or more. When memory ends at a later word,
 * the result is 0 and the words are those before it.
 *
 * Threads: any; each has a buffer of its own for the word being read. Raises: when a fault is reported.
 */
KS_API int clp_parse_string(const char *command, stg_area *area, int *out_argc, char ***out_argv);

/**
 * Joins words in one string, with blanks between them.
 *
 *  - A word that begins with ' or " must end with the same character. It is written with `escape` in
 *    front of both: 'a b' gives \'a b\' for a backslash, and stays as it is for an `escape` of 0.
 *  - Any other word that holds a blank, tab, CR, LF or one of ?*~[] is written in double quotes.
 *  - Everything else is written as it is, also quotes inside and an empty word.
 *
 * So clp_parse_string() reads the words back only where no word is empty, none holds a quote, a backslash
 * or white space but those named, and each is shorter than 8192 bytes.
 *
 * @param argc     words; below 0 counts as 0
 * @param argv     the words, each not NULL, else the process ends; NULL only without words
 * @param escape   a character, or 0
 * @param area     area of the string, never STG_AREA_NULL; with STG_AREA_HEAP it is freed with stg_free()
 * @param out_str  receives the string, "" for no words
 * @return 0; 1 with nothing stored: a word begins with a quote and does not end with it (message 4), or memory
 *         is exhausted (ENOMEM).
 *
 * Threads: any. Raises: when the fault is reported.
 */
KS_API int clp_argv_to_string(int argc, char *const *argv, stg_area *area, int escape, char **out_str);
/**@}*/

/** @name The stack of commands being run, one for each thread */
/**@{*/

/** Bytes that the text of the stack stays below. */
#define CLP_MAX_STACK_STRING 250

/**
 * Puts a command on the calling thread's stack, as it begins. The first ten are stored, further ones are only
 * counted, so that as many pops as pushes lead back.
 *
 * @param name  not copied: it must live until it is popped. NULL ends the process.
 * @return 0.
 *
 * Threads: any, each with a stack of its own. Raises: no.
 */
KS_API int clp_push_cmd(const char *name);

/**
 * Takes the last command off the calling thread's stack, as it ends. A stored name goes only when no command
 * above it is merely counted.
 *
 * A pop of an empty stack is counted too: a later stack of more than ten then loses a stored name one pop too
 * early. So pops belong to pushes.
 *
 * @return 0.
 *
 * Threads: any. Raises: no.
 */
KS_API int clp_pop_cmd(void);

/**
 * The calling thread's stack as text, each stored name followed by ':', when it has changed: "A:B:" for B begun
 * within A.
 *
 * @param generation  the state that the caller has seen, 0 at first; receives the present one
 * @return the text, the thread's own, until its next call; NULL when `*generation` is the present one. With
 *         an empty stack it is the text that was built last, so that a report names the command that has just
 *         ended. A text of 250 bytes or more ends the process (assertion "ptr < CLP_MAX_STACK_STRING").
 *
 * Threads: any. Raises: no.
 */
KS_API const char *clp_get_cmd_stack(uint32_t *generation);
/**@}*/

/**
 * @name Command history
 *
 * It is kept while the file "collect_history" exists in the host configuration directory, in the file
 * "vellum_history" in the "log" directory of the host-data directory. The directory is not made here, the
 * file is, with mode 0666 less the umask. A record is one line that starts with local time and
 * milliseconds, "2026:03:05:14:03:59.042 ", and is written in one piece behind what other processes write.
 *
 * The file must be a regular one of that name only, owned by the caller or by root, and is not followed
 * through a symbolic link: where several users' commands are recorded, root makes it, with mode 0666. It is
 * locked for writing (F_OFD_SETLK) while a record is added. A record that was cut, by a full disk, a limit or
 * the end of its process, stays a line of its own; empty lines mean nothing. Control characters are shown
 * as '?', tabs excepted, and so are U+0080 to U+009F in UTF-8.
 *
 * Recording never stands in a tool's way: nothing is said when the file cannot be opened, locked within
 * a second or written, or its path is longer than 1023 bytes, and SIGXFSZ is not raised; the record is then
 * left out. A host without a data directory keeps no history.
 */
/**@{*/

/**
 * Remembers a command line for clp_get_command(), and writes it to the history:
 *
 *     TIME (uid=1000) (pid=4711) NAME 'word' 'word' in /working/directory took TOOK
 *
 * NAME and the words have 256 bytes; words from the first that does not fit are left out. The user is the
 * effective one. Whether history is kept is asked at each call.
 *
 * @param name  what the command is called, cut to 256 bytes; NULL counts as ""
 * @param argc  words; below 0 counts as 0
 * @param argv  the words, each not NULL, else the process ends; NULL only without words
 * @param took  time taken, as text; NULL: the record ends before "took"
 * errno is kept.
 *
 * Threads: any; the text is the calling thread's own. Raises: no.
 */
KS_API void clp_log_cl_args(const char *name, int argc, char *const *argv, const char *took);

/**
 * clp_log_cl_args() with all words of a handle, wherever its scan stands. Commas that clp_get_next_subarg()
 * has overwritten end their words. A handle that is NULL (message 8) or not one (7) ends the process.
 *
 * Threads: the handle's. Raises: no.
 */
KS_API void clp_log_command(const char *name, const clp_handle *hdl, const char *took);

/**
 * The calling thread's last command line given to clp_log_cl_args(), NAME 'word' 'word', whether history is kept
 * or not; the text is the thread's own, until its next one. "No command" without one, or when it is empty.
 * imsg_set_app_name() gives one too while "ks/imsg" is traced.
 *
 * Threads: any. Raises: no.
 */
KS_API const char *clp_get_command(void);

/** The current time (date_get_timeval()), taken as a tool begins for the calls below. Threads: any. Raises: no. */
KS_API void clp_get_starttime(struct timeval *out_time);

/**
 * Records a tool's end: clp_log_cl_args() with the program's name (imsg_get_app_name()) and the time since
 * `start`, as "took  0.042000 s ". Only for programs named "veltool", "spantool" or "velmake" with anything
 * behind it; for others nothing happens, and the command is not remembered either.
 *
 * @param argc   as in clp_log_cl_args()
 * @param argv   as in clp_log_cl_args()
 * @param start  from clp_get_starttime(); NULL ends the process. The time since is counted in single
 *               precision, so that its last digits mean little after some seconds, and is below 0 where the
 *               clock was put back.
 *
 * Threads: any. Raises: no.
 */
KS_API void clp_exit_log_args(int argc, char *const *argv, const struct timeval *start);

/**
 * clp_exit_log_args() with the words of a handle. A handle that is NULL (message 8) or not one (7) ends
 * the process, whatever the program is called.
 *
 * Threads: the handle's. Raises: no.
 */
KS_API void clp_exit_log_command(const clp_handle *hdl, const struct timeval *start);

/**
 * Writes the record "TIME TAG 'TEXT': ", of any length.
 *
 * Whether history is kept is asked once per process, by the first call, and apart from clp_collectdatai(). A
 * marker that appears or goes later makes no difference; a child of fork() has its parent's answer.
 *
 * @param tag   NULL counts as ""
 * @param text  NULL counts as ""
 * errno is kept.
 *
 * Threads: any. Raises: no.
 */
KS_API void clp_collectdatas(const char *tag, const char *text);

/**
 * Writes a record of a text and a number, "TIME TEXT 'TEXT                NUMBER': ": the whole text as tag, then its
 * first 1000 bytes and the number in 20 columns. With a number of 0 it stands alone, its first 1024 bytes.
 *
 * Whether history is kept is asked once per process, by the first call, and apart from clp_collectdatas().
 *
 * @param text    NULL counts as ""
 * @param number  any
 * errno is kept.
 *
 * Threads: any. Raises: no.
 */
KS_API void clp_collectdatai(const char *text, int number);
/**@}*/

/** The module's messages, subsystem "ks/clp". */
extern KS_API const msg_table _clp_ks_msg_table;

#ifdef __cplusplus
}
#endif
#endif
