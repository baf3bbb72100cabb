/**
 * @file wild.h
 * Wildcard patterns: matching names and path names, and expanding words into lists of files.
 *
 * Pattern text. `*` stands for any run of characters, `?` for any one character, a set in brackets for
 * one of its members. "..." stands for any number of whole components where it is a component of
 * its own: at the start or behind a '/', and before a '/' or the end. A backslash makes the next
 * character ordinary; before '/' it is dropped, at the end it stands for itself.
 *
 * Sets. A '-' behind a member makes a range up to the next member, ends included, by the locale's
 * collation where characters may have several bytes, else by *signed* bytes, so that bytes from
 * 0x80 on come before ASCII. A '-' at the start is a member; one at the end ends the set, so that [a-]
 * matches only "a". '!' and '^' are ordinary members, an empty set matches nothing, and a '/' in a set is a member. A
 * backslash does not make a '-' ordinary. The byte 1 cannot be a member.
 *
 * A pattern is compiled once and matched often. The compiled form is a NUL-terminated string in which
 * the byte 1 begins an item: 1,1 is the byte 1 itself, 1,2 `*`, 1,3 `?`, 1,4 a set, whose members follow up to
 * a byte 1, and 1,5 "...". Everything else stands for itself. An item with another code, or without an
 * end, matches nothing.
 *
 * Characters are those of the process locale, whole; an invalid sequence counts byte by byte. Any
 * thread may call anything here; nothing is shared.
 */
#ifndef KORVAKS_WILD_H
#define KORVAKS_WILD_H

#include <korvaks/base.h>

#ifdef __cplusplus
extern "C" {
#endif

/** @name Results */
/**@{*/
#define WILD_MALFORMED (-1)    /**< a set that is not closed, one inside another, or a ']' without '[' */
#define WILD_LIMIT (-3)        /**< a buffer or list limit was exceeded, or memory ran out */
#define WILD_NO_HOME (-4)      /**< the home directory of a `~` word is unknown */
#define WILD_NO_DIRECTORY (-5) /**< the directory where an expansion starts cannot be opened */
#define WILD_NO_MATCH (-6)     /**< a word with wildcards matched nothing */
/**@}*/

/** @name Patterns */
/**@{*/

/**
 * Compiles a pattern into the form that wild_match() takes.
 *
 * @param pattern       pattern text, as above; "" gives a pattern that matches "" alone
 * @param size          bytes of `buf`. The compiled form with its NUL takes at most `size` - 4 of them; it is
 *                      never longer than twice the text, and its NUL. A size of 4 or less, or one that
 *                      became large by a change of sign, is too small for anything
 * @param buf           receives the compiled form, the caller's; nothing is written beyond `size` - 4. After
 *                      a failure it holds nothing of use
 * @param out_has_wild  receives 1 when the pattern holds `*`, `?`, a set or "...", else 0; may be NULL.
 *                      Unchanged after a failure
 * @return the compiled form's length in bytes with its NUL; WILD_MALFORMED for a set that is not closed, a '['
 *         or the byte 1 in a set, a ']' outside; WILD_LIMIT when it does not fit. errno is not set.
 *
 * Threads: any. Raises: no.
 */
KS_API int wild_compile_pattern(const char *pattern, size_t size, char *buf, int *out_has_wild);

/**
 * Matches a whole string against a compiled pattern.
 *
 * In path mode `*` stays within a component, runs of slashes count as one, and slashes that are left
 * over at the string's end do not count. `?` and sets take a '/' in either mode. Outside path mode `*`
 * crosses slashes. "..." matches at the place where it stands and behind every later '/' of the string, in
 * either mode.
 *
 * A string that ends early matches when the rest of the pattern is `*` and "..." only, or (path mode) such
 * items and then slashes, each perhaps followed by "..."; but not where it ends behind a '/' that
 * the pattern follows with `*`. So "a/" and "a" do not match a/\*, and "a" matches a/.
 *
 * The time is at most a product of the lengths, never exponential: each `*` and "..." is tried once at most from
 * each place of the string. (In path mode a run of slashes is passed whole with each try.) In path mode up to 32 of
 * those that have to be remembered at once cost no memory, more take some from the heap, once in a call; outside
 * path mode none is taken.
 *
 * @param compiled   from wild_compile_pattern(). Bytes that are no such pattern are safe as long as a NUL ends
 *                   them: what is no item matches nothing
 * @param string     the whole of it must match
 * @param path_mode  not 0: '/' separates components
 * @return 1 on a match, else 0. Where memory is needed and there is none, 0 with errno ENOMEM (nothing is
 *         printed); errno is otherwise unchanged.
 *
 * Threads: any. Raises: no.
 */
KS_API int wild_match(const char *compiled, const char *string, int path_mode);

/** 1 when a compiled pattern is a lone `*`, else 0. Threads: any. Raises: no. */
KS_API int wild_is_any_pat(const char *compiled);

/**
 * Whether a text may be meant as a pattern: 1 when it holds '[', '?', '*', '~' or "..." anywhere, escaped
 * or not, else 0.
 *
 * Whole characters are looked at, so that a byte of a longer one is none of these. It is a first look: a text
 * with such a character may be malformed, or have no wildcards once it is compiled, and ']' alone is not looked
 * for.
 *
 * @param s  text as a user wrote it, not a compiled one; NULL gives 0
 *
 * Threads: any. Raises: no.
 */
KS_API int wild_contains_wildcard_symbols(const char *s);
/**@}*/

/** @name Expansion */
/**@{*/

/**
 * Expands words into the names of existing files.
 *
 * Words are separated by blanks, tabs and newlines outside quotes. A quote, single or double, that is not
 * escaped by a backslash opens a stretch up to the same quote. Quotes and backslashes stay in the
 * word. A word that begins with `~` has what stands before its first '/' replaced by the home directory of the
 * user of that name, or of the caller's login name. Then
 *  - a word that begins with a quote, and one without wildcards, is taken as it stands, whether there is such
 *    a file or not;
 *  - any other is replaced by the paths that it matches, directory by directory in the order of strcmp().
 *    Names that begin with '.' match only components that do, and "..." does not enter such
 *    directories; "." and ".." never match a wildcard. Each path is the starting directory ("." left out), and
 *    the components; it is in the form that transform_string() gives.
 *
 * A word that ends in '/' matches directories only, and its paths end in '/'. "..." enters a symbolic link to a
 * directory but does not descend through it; as the last component it gives the directories themselves.
 *
 * Each directory is gone through once for each rest of a word, so that a word with several "..." names a path
 * once, where the first way to it leads. With several of them the directories that have been gone through are
 * remembered; otherwise memory grows with the depth of the tree and the size of its directories alone.
 * Neither takes stack or descriptors.
 *
 * `root` is not left by "..": when it is given, a ".." in an absolute word with wildcards takes back the component
 * before it, whatever that names (nothing at the root, and not "..."), and neither stands in the paths. A
 * symbolic link below it is followed wherever it leads.
 *
 * Deeper down, a directory that cannot be opened (or has a path beyond the system's limit), and one in which more
 * than 4095 names match a component other than "...", is passed over, and what was found elsewhere is kept.
 *
 * @param words    words; "" and separators alone give ""
 * @param dir      where relative words start; NULL and "" stand for "."
 * @param root     where absolute words start, instead of "/"; NULL and "" stand for "/"
 * @param split    0: everything behind leading separators is one word
 * @param out_list receives the words found, each after the other with one blank between, as a heap
 *                 string of the caller's (stg_free()); "" without any. NULL after a failure and a raise
 * @return 0, or for the first word that fails one of
 *   - WILD_MALFORMED: it is a malformed pattern;
 *   - WILD_LIMIT: memory ran out; a user name of more than 255 bytes; a component whose compiled form
 *     takes more than 2044 bytes with its NUL; more than 4095 matching names where the expansion starts, or more than
 *     4095 subdirectories of any directory that "..." enters;
 *   - WILD_NO_HOME: the home directory of the user is not known;
 *   - WILD_NO_DIRECTORY: the directory where the wildcards start cannot be read;
 *   - WILD_NO_MATCH: it has wildcards and added nothing.
 *   Nothing is printed, and errno tells nothing.
 *
 * Threads: any; it takes 16 KiB of stack at most, 64 KiB where the user database is asked for `~`.
 * Raises: yes, between parts of directories; everything is given back and closed first.
 */
KS_API int wild_glob_ext(const char *words, const char *dir, const char *root, int split, char **out_list);

/**
 * Expands words with the usual root: wild_glob_ext() with a NULL root and a split of 1.
 *
 * @param words     words, separated by blanks, tabs and newlines outside quotes
 * @param dir       where relative words start; NULL and "" stand for "."
 * @param out_list  receives the list, a heap string of the caller's (stg_free()); NULL after a failure
 * @return 0 or a code, as wild_glob_ext(), whose rules hold.
 *
 * Threads: any. Raises: yes, as wild_glob_ext().
 */
KS_API int wild_glob(const char *words, const char *dir, char **out_list);

/**
 * Expands one word, which may hold separators: wild_glob_ext() with a NULL root and a split of 0.
 *
 * @param word      everything behind leading blanks, tabs and newlines is the word
 * @param dir       where a relative word starts; NULL and "" stand for "."
 * @param out_list  receives the list, a heap string of the caller's (stg_free()); NULL after a failure
 * @return 0 or a code, as wild_glob_ext(), whose rules hold.
 *
 * Threads: any. Raises: yes, as wild_glob_ext().
 */
KS_API int wild_glob_single(const char *word, const char *dir, char **out_list);

/**
 * Expands words as wild_glob_ext() does, into an array of names, each exactly as it is: what holds blanks, quotes or
 * line breaks needs no reading back.
 *
 * Paths that a pattern matches are the same, in the same order. A word that wild_glob_ext() takes as it stands becomes
 * the name that it stands for: one that begins with a quote loses all its quotes, and either kind the backslash before
 * each character that it escapes. So "a b" in quotes, and a\ b, are both the name of three characters.
 *
 * @param words, dir, root, split  as for wild_glob_ext()
 * @param out_names  receives the names with a NULL behind the last, as one heap block of the caller's: stg_free() of it
 *                   frees the names too. An array of the NULL alone when there are none; NULL after a failure and a
 *                   raise
 * @param out_count  receives the number of names; 0 after a failure and a raise
 * @return 0 or a code, as wild_glob_ext(), whose rules hold. Nothing is printed, and errno tells nothing.
 *
 * Threads: any, as wild_glob_ext(). Raises: yes, as wild_glob_ext().
 */
KS_API int wild_glob_list(const char *words, const char *dir, const char *root, int split, char ***out_names,
                          size_t *out_count);

/**
 * Makes a copy of a string as a word of a list: each double quote behind a backslash, and all of it in
 * double quotes when it holds a blank.
 *
 * Other separators, backslashes and single quotes stay as they are, so that a name with one of those does not
 * come back whole when the list is cut into words: wild_glob_list() gives names themselves.
 *
 * @param s  any text; "" gives ""
 * @return a heap string of the caller's (stg_free()); NULL on exhaustion (errno ENOMEM, nothing printed).
 *
 * Threads: any. Raises: no.
 */
KS_API char *transform_string(const char *s);
/**@}*/

#ifdef __cplusplus
}
#endif
#endif
