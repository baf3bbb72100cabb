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
 * Compiles a pattern.
 *
 * @param pattern       pattern text
 * @param size          bytes of `buf`. The compiled form with its NUL takes at most `size` - 4 of them; it is
 *                      never longer than twice the text, and its NUL.
 * @param buf           receives the compiled form; after a failure it holds nothing of use
 * @param out_has_wild  receives 1 when the pattern holds `*`, `?`, a set or "...", else 0; may be NULL.
 *                      Unchanged after a failure
 * @return the compiled form's length with its NUL; WILD_MALFORMED, also for the byte 1 in a set; WILD_LIMIT
 *         when it does not fit.
 * Raises: no.
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
 * The time is bounded by a product of the lengths, never exponential. An attempt that has reached a `*` or a "..."
 * at some position makes every other way to a later position of the same component (for "...": of the
 * string) superfluous, so that of the items passed only those are gone back to from which `?` or a
 * set could take a '/', and those remember how far they have been tried. Up to 32 of them cost no memory;
 * more take some from the heap.
 *
 * @param path_mode  not 0: '/' separates components
 * @return 1 on a match, else 0. Where memory is needed and there is none, 0 with errno ENOMEM; errno is
 *         otherwise unchanged.
 * Raises: no.
 */
KS_API int wild_match(const char *compiled, const char *string, int path_mode);

/** 1 when a compiled pattern is a lone `*`, else 0. */
KS_API int wild_is_any_pat(const char *compiled);

/**
 * 1 when a text holds '[', '?', '*', '~' or "..." anywhere, escaped or not, else 0; NULL gives 0. Whole
 * characters are looked at.
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
 * A word with several "..." names a path once for each way to it.
 *
 * Deeper down, a directory that cannot be opened (or has a path beyond the system's limit) or that holds too
 * many matches is passed over, and what was found elsewhere is kept.
 *
 * @param words    words
 * @param dir      where relative words start; NULL and "" stand for "."
 * @param root     where absolute words start, instead of "/"; NULL and "" stand for "/"
 * @param split    0: everything behind leading separators is one word
 * @param out_list receives the words found, each after the other with one blank between, as a heap
 *                 string (stg_free()); "" without any. NULL after a failure
 * @return 0 or one of
 *   - WILD_MALFORMED: a word is a malformed pattern;
 *   - WILD_LIMIT: memory ran out; a user name of more than 255 bytes; a component whose compiled form
 *     takes more than 2044 bytes with its NUL; more than 1024 "..."; more than 4095 matching names, or for "..."
 *     subdirectories, where the expansion starts;
 *   - WILD_NO_HOME, WILD_NO_DIRECTORY, WILD_NO_MATCH.
 *   Nothing is printed.
 *
 * Raises: yes, between parts of directories; everything is given back and closed first.
 */
KS_API int wild_glob_ext(const char *words, const char *dir, const char *root, int split, char **out_list);

/** wild_glob_ext() with the usual root, of words. */
KS_API int wild_glob(const char *words, const char *dir, char **out_list);

/** wild_glob_ext() with the usual root, of one word. */
KS_API int wild_glob_single(const char *word, const char *dir, char **out_list);

/**
 * A copy of a string as a word of a list: each double quote behind a backslash, and all of it in
 * double quotes when it holds a blank.
 * @return a heap string (stg_free()); NULL on exhaustion (errno ENOMEM, nothing printed).
 * Raises: no.
 */
KS_API char *transform_string(const char *s);
/**@}*/

#ifdef __cplusplus
}
#endif
#endif
