/**
 * @file date.h
 * Dates: times as text, and what users type as times.
 *
 * Times are seconds since 1970 (time_t). A *date token* is one word, in one of two styles:
 *
 *     style            with time                    date          short, recent
 *     1 traditional    05-Mar-24.14:03:59           05-Mar-24     05-Mar.14:03
 *     2 ISO 8601       2024-03-05T14:03:59+01:00    2024-03-05    --03-05T14:03
 *
 * Style 0 stands for the default style of the process: 2, or 1 when VELM_ISO_DATE_FMT was exactly
 * "0" at the first use of the style. *Recent* is a time that is not in the future and later than
 * date_one_year_ago() of now.
 *
 * Local time is that of TZ at the moment of the call, as if tzset(3) had been called first. Where
 * the C library cannot express a time (the year does not fit), the result is NULL and errno EOVERFLOW.
 *
 * Keywords, separators and the word UTC of the traditional style come from the message catalogue,
 * once per process, for writing and reading alike; the month's name in a token is the locale's. ISO 8601
 * texts and numeric tokens have the same characters everywhere.
 *
 * Results. Unless a comment says otherwise a text belongs to the calling thread and stays until it
 * calls the same function again; NULL when memory is exhausted on the first call. Readers return
 * 0 for success and 1 for failure, and leave their result untouched on failure.
 *
 * Threads: any thread may call anything. Raises: nothing here raises. The traditional style is not to be
 * used while a lock of the message modules is held.
 */
#ifndef KORVAKS_DATE_H
#define KORVAKS_DATE_H

#include <sys/time.h>
#include <time.h>

#include <korvaks/base.h>

#ifdef __cplusplus
extern "C" {
#endif

/** @name Times */
/**@{*/

/** The current time with microseconds. */
KS_API void date_get_timeval(struct timeval *out);

/** localtime_r(3) and gmtime_r(3) (POSIX.1): `out`, or NULL (errno EOVERFLOW). */
KS_API struct tm *date_get_localtime(time_t t, struct tm *out);
KS_API struct tm *date_get_gmtime(time_t t, struct tm *out);

/**
 * One year before `t`: 366 days when `t` lies, in local time, in April to December of a year
 * divisible by 4 or in January to March of the year after one; else 365 days.
 */
KS_API time_t date_one_year_ago(time_t t);
/**@}*/

/**
 * @name Fixed formats of the locale
 * strftime(3) of local time, at most 127 bytes; a longer text is cut after a whole character.
 */
/**@{*/

/** "%c" */
KS_API char *date_fmt_long_date_time(time_t t);
/** "%x %X" */
KS_API char *date_fmt_short_date_time(time_t t);
/** "%x" */
KS_API char *date_fmt_short_date(time_t t);
/** "%H:%M:%S" */
KS_API char *date_fmt_short_time(time_t t);

/** The style of ls(1): "%b %d %H:%M" for a recent time, else "%b %d  %Y" (two blanks). */
KS_API char *date_fmt_ls_date_time(time_t t);
/**@}*/

/** @name Date style of the process */
/**@{*/

/** Sets the default style, 1 or 2 (another one ends the process); returns the one before. */
KS_API int date_fmt_set_default_style(int style);

/** The default style: 1 or 2. */
KS_API int date_fmt_get_default_date_style(void);
/**@}*/

/** @name Date tokens */
/**@{*/

/**
 * Makes a date token.
 *
 * @param precision  0: date and time. 1: date. 2: short: date and time without year, seconds and
 *                   zone when recent, else the date (traditional: with four digits of the year). 3: as 0;
 *                   the ISO style adds ".%06d" microseconds
 * @param style      0 the default, 1 traditional, 2 ISO 8601
 * @param usec       microseconds, 0 to 999999, for precision 3
 * @param utc        not 0: UTC, which the token says with "UTC" or "Z". Else local time; in the ISO
 *                   style a time has the offset from UTC, "+01:00", and "Z" where it is 0
 * @param reserved   changes nothing
 * @return a new token of at most 127 bytes (stg_free()); NULL for a time below 0 (errno EINVAL), beyond the
 *         calendar (EOVERFLOW) or when memory is exhausted (ENOMEM). It never prints, so that a log may use
 *         the ISO style in the middle of a message.
 * Numbers out of range end the process.
 */
KS_API char *date_fmt_token_general(time_t t, int precision, int style, int usec, int utc, int reserved);

/**
 * Tokens in the default style, all in one place of the thread: each stays until the thread calls any
 * of these five. NULL as above.
 */
/** Precision 0. */
KS_API char *date_fmt_token_date_time(time_t t);
/** Precision 1. */
KS_API char *date_fmt_token_date(time_t t);
/** Precision 2. */
KS_API char *date_fmt_token_short_date_time(time_t t);
/** Precision 0, UTC. */
KS_API char *date_fmt_token_utc(time_t t);
/** Precision 0, for use inside path names. */
KS_API char *date_fmt_token_date_time_pname(time_t t);
/**@}*/

/**
 * @name Numeric tokens
 * Compact texts for file names, in local time. Another form than 0 to 8 ends the process.
 *
 *     0  %y%m%d-%H%M%S      3  %Y%m%d-%H%M      6  the seconds in decimal
 *     1  %Y%m%d-%H%M%S      4  %y%m%d           7  the seconds in hexadecimal, lower case
 *     2  %y%m%d-%H%M        5  %Y%m%d           8  %y%m%d-%H:%M
 */
/**@{*/

/** A numeric token of `t`. */
KS_API char *date_fmt_token_numeric(int form, time_t t);

/**
 * Reads a numeric token, all of `s`. Two-digit years 00 to 69 are 2000 to 2069, 70 to 99 are 1970 to
 * 1999. What a form leaves out is 0. Forms 6 and 7 are read as "%ld" and "%lx" read them.
 *
 * Kept exactly: the sense of the result is the opposite of the other readers', and of their pivot.
 * @return 1 and the time in `out`; 0 when `s` is NULL, not of that form, or no time.
 */
KS_API int date_numeric_str_to_time(int form, const char *s, time_t *out);
/**@}*/

/**
 * @name Reading dates
 * docs/dates.md has both grammars with all their cases.
 */
/**@{*/

/**
 * Reads a date as a user types it: the traditional grammar (see date_usage_date_time()), else ISO 8601.
 *
 * White space at both ends is allowed, inside it is a failure; so is a text of more than 1023 bytes.
 * Letters may have either case. A date without time is 00:00:00, a time without date is today's (today in the zone that
 * the text names, else the local one).
 *
 * @param s      text; NULL is a failure
 * @param flags  completes what stands in part, an ISO date without year or a day of the week. 0: the
 *               latest such moment that is not after now (for a traditional day of the week: today or before). 1:
 *               the earliest not before now (today or after). Other numbers: in the current
 *               year, month or week as it stands
 * @param out    receives the time
 * @return 0; 1 when the text is not a date.
 */
KS_API int date_str_to_time2(const char *s, int flags, time_t *out);

/** The same as date_str_to_time2(). */
KS_API int date_str_to_time(const char *s, int flags, time_t *out);

/** date_str_to_time2() with the traditional grammar only, which has no times before 1970. */
KS_API int date_str_to_time_legacy(const char *s, int flags, time_t *out);

/** Describes the traditional grammar, in three lines. */
KS_API char *date_usage_date_time(void);
/**@}*/

/** The module's messages, subsystem "ks/date": keywords, separators and the usage text. */
extern KS_API const msg_table _date_ks_msg_table;

#ifdef __cplusplus
}
#endif
#endif
