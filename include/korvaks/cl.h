/**
 * @file cl.h
 * A small scanner for options, arguments and subcommands in a list of words.
 *
 * A handle is made from an argument vector or from one line of text, and holds copies of the words.
 * The caller pulls what it expects, one thing at a time:
 *
 *     int err;
 *     cl_handle *clh = cl_parse_argv(argc, argv, &err);
 *     int letter;
 *     while ((letter = cl_getopt(clh, "[ab]d:")) != 0) {
 *         if (letter == 'd')
 *             directory = cl_getarg(clh);      // "-d DIR"; never glued to the letter
 *         else if (letter == '?')
 *             complain(cl_strerror(cl_errno(clh)), cl_eopt(clh), cl_estr(clh));
 *     }
 *     while ((file = cl_getarg(clh)) != NULL)
 *         work_on(file);
 *     cl_destroy(&clh);
 *
 * Option strings. Each character is an option letter (one byte). "[" and "]" enclose a group of
 * letters of which one may be given, once; letters outside groups may repeat. ":" may stand
 * anywhere and means nothing: it reminds the reader that the letter takes an argument.
 *
 * Words and options. A word that begins with "-" holds options; letters may share a word ("-ab").
 * Every "-" in such a word is skipped: "---x" reads as -x and "-a-b" as -ab. A word "--" ends the
 * options. A lone "-" is dropped by the option calls, and never delivered after them.
 *
 * Errors are never printed. A call that fails leaves a number, the word and the letter it failed
 * on, for cl_errno(), cl_estr() and cl_eopt(); a call that succeeds clears all three. The calls
 * that only ask (these three and cl_getoffset()) leave them.
 *
 * Threads: a handle belongs to one thread at a time; different handles are independent.
 * Raises:  no, but for misuse. The storage module prints its message when memory is exhausted.
 * A handle that is NULL or already destroyed ends the process.
 */
#ifndef KORVAKS_CL_H
#define KORVAKS_CL_H

#include <korvaks/base.h>

#ifdef __cplusplus
extern "C" {
#endif

/** First word of every handle. */
#define CL_MAGIC 0xdeadbeefu

/** @name Error numbers */
/**@{*/
#define CL_NO_ERROR 0
#define CL_OUT_OF_MEMORY 301
#define CL_BAD_OPTION 302   /**< letter not in the option string */
#define CL_CONFLICT 303     /**< second letter of a group, or the same one again */
#define CL_BAD_ARGUMENT 304 /**< argument asked for inside a cluster of letters */
/**@}*/

/** A list of words and the place in it; its insides are private. */
typedef struct cl_handle cl_handle;

/** @name Making and ending a handle */
/**@{*/

/**
 * Makes a handle from an argument vector. Scanning starts at word 1, behind the command's name; word 0 is
 * reached with cl_setoffset() only.
 *
 * @param argc  number of words; 0 gives a handle without words. Below 0 ends the process.
 * @param argv  the words, each not NULL; they are copied and may change or go afterwards. NULL only with an
 *              `argc` of 0.
 * @param err   receives 0, or 301 when there is no handle
 * @return the handle, the caller's, ended with cl_destroy(). NULL with *err 301 when memory is exhausted
 *         (reported by the storage module, errno ENOMEM; nothing is left allocated) or the words with a NUL
 *         each take more than INT_MAX bytes (not reported).
 *
 * Threads: any. Raises: no.
 */
KS_API cl_handle *cl_parse_argv(int argc, char *const *argv, int *err);

/**
 * Makes a handle from a line of text. Scanning starts at word 0.
 *
 * The line ends at its NUL or at the first newline that is not escaped. Characters of the locale's
 * encoding are kept whole.
 *  - Blanks (white space by the locale) outside quotes separate words.
 *  - ' and " quote: they are dropped, and up to the same character blanks and the other quote are
 *    ordinary. A quoted stretch may be empty and may be part of a word: a"b c"d is one word. One
 *    that is not closed ends with the line.
 *  - A backslash, in quotes or not, is dropped and makes the next character ordinary, a newline
 *    included. It does not protect a blank outside quotes: a, backslash, blank, b are the two words
 *    a and b, and the backslash goes on to the next character that is no blank.
 *
 * @param line  the text, not kept; NULL ends the process
 * @param err   receives 0, or 301 when there is no handle
 * @return as cl_parse_argv(). An empty line, and one that begins with a newline, give a handle without
 *         words.
 *
 * Threads: any. Raises: no.
 */
KS_API cl_handle *cl_parse_line(const char *line, int *err);

/**
 * Ends a handle: frees it and the words that it delivered, and sets *clh to NULL. Copies of long options are
 * the caller's and stay. A `clh` or a handle that is NULL, and one that was destroyed already, end the process.
 *
 * Threads: the handle's. Raises: no.
 */
KS_API void cl_destroy(cl_handle **clh);
/**@}*/

/** @name Pulling options and words */
/**@{*/

/**
 * Takes the next option letter, in the manner of getopt (POSIX.1) but for arguments, groups and errors.
 *
 * A letter is used up as it is returned, also as an error; with its last letter the word is passed. Every "-"
 * before a letter is skipped, and a word of nothing else is dropped. Letters are bytes.
 *
 * @param optstring  letters and groups, see above; may change between calls. "" knows no letter.
 * @return the letter, 1 to 255. 0 at the end of the options: no word is left, the current one does not
 *         begin with "-" (it stays current), or it is "--" (it is passed, and words behind it are delivered
 *         by cl_getarg() only). '?' on an error: 302 for a letter that is not in `optstring`, 303 for one of a
 *         group that has been used, with the word as cl_estr() and the letter as cl_eopt(). An option '?'
 *         is told from an error by cl_errno().
 *
 * Threads: the handle's. Raises: no.
 */
KS_API int cl_getopt(cl_handle *clh, const char *optstring);

/**
 * cl_getopt() with long options: a word that begins with "--" and is longer is one option.
 *
 * The word is taken whole, "name=value" too, and also when letters of it were taken by cl_getopt(). Behind a
 * "--" there are none.
 *
 * @param optstring  as in cl_getopt(), for words with one "-"
 * @param longopt    receives a copy of the word behind its two dashes, the caller's, freed with stg_free();
 *                   the result is then 0 and the scan at the next word. Set *longopt to NULL before each
 *                   call: it is left alone otherwise, and tells a long option from the end.
 * @return as cl_getopt(); also '?' with error 301 when there is no memory for the copy (reported, errno
 *         ENOMEM), and then the word is still to come.
 *
 * Threads: the handle's. Raises: no.
 */
KS_API int cl_getopt_long(cl_handle *clh, const char *optstring, char **longopt);

/**
 * Takes the current word, whatever it looks like; the scan moves to the next one.
 *
 * An option's argument is taken so, and must be a word of its own: asked for behind 'a' of "-ab" it is an
 * error, and the scan stays where it is.
 *
 * @return the word, the handle's, as long as that lives and not to be changed; "" is a word too. NULL without
 *         an error when no word is left. NULL with error 304, and the word as cl_estr(), when the scan
 *         stands inside a word.
 *
 * Threads: the handle's. Raises: no.
 */
KS_API char *cl_getarg(cl_handle *clh);

/** cl_getarg(), for fetching the name of a command. */
KS_API char *cl_getname(cl_handle *clh);

/**
 * cl_getarg(), but a word that begins with "-" stays and gives NULL without an error, also when the scan
 * stands inside it: for an argument that may be left out. A word behind "--" that begins with "-" stays too.
 *
 * Threads: the handle's. Raises: no.
 */
KS_API char *cl_getarg_noopt(cl_handle *clh);

/**
 * Takes the next word with cl_getarg() and finds it in a list of names.
 *
 * @param count  number of names; 0 and less: none
 * @param names  names in the form of cl_match(), each not NULL; the first that matches counts
 * @return index of the name; -1 when none matches (the word is consumed all the same, and cl_errno() is 0) or
 *         cl_getarg() gave NULL (cl_errno() 304 inside a word, 0 at the end).
 *
 * Threads: the handle's. Raises: no.
 */
KS_API int cl_get_subcommand(cl_handle *clh, int count, const char *const *names);

/**
 * Tells whether a word is an acceptable spelling of a name.
 *
 * Characters are compared without regard to letter case, by the locale. A "[" in the name marks where it may
 * be cut off: "ch[eckout]" accepts "ch", "che" and so on up to "checkout". A "]" is an ordinary character of
 * the name: nothing but itself matches it, and what stands behind it is only reached so.
 *
 * @param word  not NULL; "" is accepted by "" and by a name that begins with "["
 * @param name  not NULL
 * @return 1 or 0.
 *
 * Threads: any. Raises: no.
 */
KS_API int cl_match(const char *word, const char *name);
/**@}*/

/** @name Place in the words */
/**@{*/

/**
 * The place of the scan, for cl_setoffset(): bytes from the first word's start, each word counting one more for
 * its end; 0 in a handle without words. The last error stays.
 *
 * Threads: the handle's. Raises: no.
 */
KS_API int cl_getoffset(cl_handle *clh);

/**
 * Moves the scan to a place given by cl_getoffset(); clears the last error.
 *
 * A place at the end of a word means the start of the next one. So a place at an empty word means
 * the word behind it. Letters seen stay so, as far as groups are concerned, and so does a "--" already met.
 *
 * @param offset  any number; one below 0 is the first word, one beyond the words their end
 *
 * Threads: the handle's. Raises: no.
 */
KS_API void cl_setoffset(cl_handle *clh, int offset);
/**@}*/

/** @name The last error */
/**@{*/

/** Its number, 0 when the last call succeeded; see above. Threads: the handle's. Raises: no. */
KS_API int cl_errno(cl_handle *clh);

/** The word it arose in, "" when none; lives as long as the handle. Threads: the handle's. Raises: no. */
KS_API const char *cl_estr(cl_handle *clh);

/**
 * The option letter it is about as a string of one byte, "" when none (as with 301 and 304). The text is the
 * handle's own and changes with its next call. Threads: the handle's. Raises: no.
 */
KS_API const char *cl_eopt(cl_handle *clh);

/**
 * The text of an error number, from the message catalogue: "Out of memory", "Bad option", "Duplicate or
 * conflicting option", "Bad argument" for 301 to 304 where no catalogue says otherwise.
 *
 * @return "" for 0, "Unknown error" for a number that is not one of the module's. The texts are made by the
 *         first call, in the language of that moment, cut to 255 bytes, and live as long as the process.
 *
 * Threads: any. Raises: no.
 */
KS_API const char *cl_strerror(int number);
/**@}*/

/** @name Counters for tests; shared by all handles and not locked */
/**@{*/

extern KS_API int cl_mallocs; /**< blocks allocated so far */
extern KS_API int cl_frees;   /**< blocks freed so far */

/** While not 0, each allocation counts it down, and the one that brings it from 1 to 0 fails. */
extern KS_API int cl_brkit;
/**@}*/

#ifdef __cplusplus
}
#endif
#endif
