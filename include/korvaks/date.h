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
 * A text that belongs to the calling thread stays until that thread calls the same function again; other
 * threads' calls do not touch it. Nothing here prints or raises, but for the report of
 * exhausted memory.
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

/**
 * The current time.
 * @param out  receives seconds since 1970 and microseconds, 0 to 999999, of the clock of the system
 *             (CLOCK_REALTIME, which may be set back). It cannot fail.
 * Threads: any. Raises: no.
 */
KS_API void date_get_timeval(struct timeval *out);

/**
 * A time as date and time of day: localtime_r(3) (POSIX.1) under the TZ of this moment.
 *
 * TZ is read under the environment's lock, and a change of it takes effect at once, which
 * localtime_r() alone does not promise.
 *
 * @param t    seconds since 1970, also below 0
 * @param out  receives the fields, among them the offset from UTC in tm_gmtoff
 * @return `out`; NULL with errno EOVERFLOW when the year does not fit into the fields, and then `*out`
 *         has no meaning.
 *
 * Threads: any. A program that changes TZ beside other threads uses putenv_safe() for it.
 * Raises:  no.
 */
KS_API struct tm *date_get_localtime(time_t t, struct tm *out);

/**
 * The same in UTC: gmtime_r(3) (POSIX.1).
 * @return `out`; NULL with errno EOVERFLOW when the year does not fit into the fields.
 * Threads: any. Raises: no.
 */
KS_API struct tm *date_get_gmtime(time_t t, struct tm *out);

/**
 * The time from which on a listing counts a time as recent: about a year before `t`.
 *
 * It is 366 days (31622400 seconds) before when `t` lies, in local time, in April to December of a year
 * divisible by 4 or in January to March of the year after one; else 365 days (31536000 seconds). March
 * counts with the months before the leap day, and every fourth year counts as a leap year.
 *
 * @param t  seconds since 1970. Where local time cannot express it, 365 days before; never less than the
 *           smallest time there is.
 * @return that time. It cannot fail.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API time_t date_one_year_ago(time_t t);
/**@}*/

/**
 * @name Fixed formats of the locale
 * strftime(3) (C11 7.27.3.5) of local time, in the process locale.
 */
/**@{*/

/**
 * Date and time in full, as the locale writes it: "%c".
 *
 * @param t  seconds since 1970
 * @return the thread's own text, at most 127 bytes (a longer one is cut after a whole character), until
 *         the thread calls this function again. NULL with errno EOVERFLOW when local time cannot express
 *         `t`, or ENOMEM when memory is exhausted on the thread's first call.
 *
 * Threads: any, but not while another thread changes the locale.
 * Raises:  only when it reports exhaustion.
 */
KS_API char *date_fmt_long_date_time(time_t t);

/** Date and time, short: "%x %X". Everything else as with date_fmt_long_date_time(), in a text of its own. */
KS_API char *date_fmt_short_date_time(time_t t);

/** The date, short: "%x". Everything else as with date_fmt_long_date_time(), in a text of its own. */
KS_API char *date_fmt_short_date(time_t t);

/** The time of day: "%H:%M:%S". Everything else as with date_fmt_long_date_time(), in a text of its own. */
KS_API char *date_fmt_short_time(time_t t);

/**
 * Date and time in the manner of ls(1): "%b %d %H:%M" for a recent time, else "%b %d  %Y", whose two
 * blanks keep the columns.
 *
 * Recent is a time that is not in the future and later than date_one_year_ago() of now.
 *
 * @param t  seconds since 1970
 * @return the thread's own text, at most 127 bytes, until the thread calls this function again; NULL with
 *         errno EOVERFLOW when local time cannot express `t`, or ENOMEM when memory is exhausted on the
 *         thread's first call.
 *
 * Threads: any, but not while another thread changes the locale.
 * Raises:  only when it reports exhaustion.
 */
KS_API char *date_fmt_ls_date_time(time_t t);
/**@}*/

/** @name Date style of the process */
/**@{*/

/**
 * Sets the style that style 0 and the five short forms below stand for, in all threads.
 *
 * @param style  1 traditional, 2 ISO 8601; another number ends the process (an assertion)
 * @return the style before. On the first use of the style that is what VELM_ISO_DATE_FMT says: 1 when it
 *         is exactly "0", else 2; the variable is not looked at again.
 *
 * Threads: any; guarded by a lock of the module.
 * Raises:  no.
 */
KS_API int date_fmt_set_default_style(int style);

/**
 * The style of the process.
 * @return 1 or 2; on its first use the style is settled as date_fmt_set_default_style() tells.
 * Threads: any. Raises: no.
 */
KS_API int date_fmt_get_default_date_style(void);
/**@}*/

/** @name Date tokens */
/**@{*/

/**
 * Makes a date token, a text without blanks.
 *
 * Kept exactly: with precision 0, 1 and 3 the traditional style has two digits of the year, as logs and scripts
 * know it. date_str_to_time2() takes 69 to 99 for 1969 to 1999 and refuses what lies before 1970, so the token of a time
 * from 2069 on is refused, or read back as one of a century before or earlier. The ISO style is not cut.
 *
 * It never prints, so that a log may use the ISO style in the middle of a message. The traditional style
 * fetches words from the message catalogue, once per process, and is not to be used while a lock of the
 * message modules is held.
 *
 * @param t          seconds since 1970, not below 0
 * @param precision  0: date and time. 1: date. 2: short: date and time without year, seconds and
 *                   zone when recent, else the date (traditional: with four digits of the year). 3: as 0;
 *                   the ISO style adds ".%06d" microseconds
 * @param style      0 the default, 1 traditional, 2 ISO 8601
 * @param usec       microseconds, 0 to 999999, for precision 3
 * @param utc        not 0: UTC, which the token says with "UTC" or "Z". Else local time; in the ISO
 *                   style a time has the offset from UTC, "+01:00", and "Z" where it is 0
 * @param reserved   changes nothing; pass 0
 * @return a new token of at most 127 bytes, freed with stg_free(). NULL for a time below 0 (errno EINVAL),
 *         beyond the calendar (EOVERFLOW) or when memory is exhausted (ENOMEM, without a message).
 * Another precision, style or number of microseconds ends the process.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API char *date_fmt_token_general(time_t t, int precision, int style, int usec, int utc, int reserved);

/**
 * The token of a date and a time in the default style, local time: "2024-03-05T14:03:59+01:00", or
 * "05-Mar-24.14:03:59".
 *
 * @param t  seconds since 1970, not below 0
 * @return the thread's own token, at most 127 bytes, until the thread calls any of the five functions from
 *         here to date_fmt_token_date_time_pname(): they share one place. NULL for a time below 0 (errno
 *         EINVAL), beyond the calendar (EOVERFLOW), or when memory is exhausted on the thread's first call.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API char *date_fmt_token_date_time(time_t t);

/** The date alone: "2024-03-05", or "05-Mar-24". Everything else as with date_fmt_token_date_time(). */
KS_API char *date_fmt_token_date(time_t t);

/**
 * The short form: of a recent time (not in the future, and later than date_one_year_ago() of now) date and
 * time without the year, "--03-05T14:03" or "05-Mar.14:03"; else the date with its year, "2024-03-05" or
 * "05-Mar-2024". Everything else as with date_fmt_token_date_time().
 */
KS_API char *date_fmt_token_short_date_time(time_t t);

/** Date and time in UTC: "2024-03-05T14:03:59Z", or "05-Mar-24.14:03:59UTC". Else as date_fmt_token_date_time(). */
KS_API char *date_fmt_token_utc(time_t t);

/** The form for use inside path names, which is the same token. Everything as with date_fmt_token_date_time(). */
KS_API char *date_fmt_token_date_time_pname(time_t t);
/**@}*/

/**
 * @name Numeric tokens
 * Compact texts for file names, in local time, the same in every locale and catalogue.
 *
 *     0  %y%m%d-%H%M%S      3  %Y%m%d-%H%M      6  the seconds in decimal
 *     1  %Y%m%d-%H%M%S      4  %y%m%d           7  the seconds in hexadecimal, lower case
 *     2  %y%m%d-%H%M        5  %Y%m%d           8  %y%m%d-%H:%M
 */
/**@{*/

/**
 * Writes a numeric token.
 *
 * Kept exactly: forms 0, 2, 4 and 8 have two digits of the year, since files are named so.
 * date_numeric_str_to_time() reads back what was written for the years 1970 to 2069; another year comes back as the
 * one of these that ends alike. Forms 1, 3 and 5 have four digits, and read back every year from 0 to 9999.
 *
 * @param form  0 to 8, from the table above; another number ends the process (an assertion)
 * @param t     seconds since 1970; a time below 0 is written as well, in form 7 as its 64 bits
 * @return the thread's own text until the thread calls this function again; NULL with errno EOVERFLOW
 *         when local time cannot express `t` (not in forms 6 and 7), or ENOMEM when memory is exhausted on
 *         the thread's first call.
 *
 * Threads: any.
 * Raises:  only when it reports exhaustion.
 */
KS_API char *date_fmt_token_numeric(int form, time_t t);

/**
 * Reads a numeric token, all of `s`, as local time.
 *
 * Each field has exactly its digits, and separators stand as written. Two-digit years 00 to 69 are 2000
 * to 2069, 70 to 99 are 1970 to 1999 (another pivot than that of the other readers). What a form leaves
 * out is 0. Forms 6 and 7 are read as "%ld" and "%lx" read them. A local time that occurs twice is either
 * moment, one that daylight saving skips is moved as mktime(3) moves it.
 *
 * Kept exactly: the sense of the result is the opposite of the other readers'.
 *
 * @param form  0 to 8, as with date_fmt_token_numeric(); another number ends the process, as does a
 *              NULL `out`
 * @param s     text; NULL is a failure
 * @param out   receives the time; as it was on failure
 * @return 1; 0 when `s` is not of that form, or no time.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API int date_numeric_str_to_time(int form, const char *s, time_t *out);
/**@}*/

/**
 * @name Reading dates
 * docs/dates.md has both grammars with all their cases.
 */
/**@{*/

/**
 * Reads a date as a user types it: the traditional grammar, else ISO 8601 (see date_usage_date_time()).
 *
 * White space at both ends is allowed, inside it is a failure; so is a text of more than 1023 bytes.
 * Letters may have either case. A date without time is 00:00:00. A time without date is today's, and
 * "today" is always the user's own, the local date, whatever zone the text names: at 23:30 UTC, with UTC as
 * local time, "14:03UTC+1" is 13:03 UTC of the day that ends. A time before 1970 is negative.
 *
 * @param s      text; NULL is a failure
 * @param flags  completes what stands in part, an ISO date without year or a day of the week. 0: the
 *               latest such moment that is not after now (for a traditional day of the week: today or
 *               before). 1: the earliest not before now (today or after). Other numbers: in the current
 *               year, month or week of local time as it stands
 * @param out    receives the time in seconds since 1970; as it was on failure. NULL ends the process
 * @return 0; 1 when the text is not a date. errno tells nothing.
 *
 * Threads: any. The words of the grammar are fetched from the message catalogue, once per process, so it is
 *          not to be called while a lock of the message modules is held.
 * Raises:  no.
 */
KS_API int date_str_to_time2(const char *s, int flags, time_t *out);

/** The same as date_str_to_time2(), under its older name. */
KS_API int date_str_to_time(const char *s, int flags, time_t *out);

/**
 * Reads the traditional grammar only:
 * "now", "none", <date>.<time>, <date> or <time>, as the first lines of date_usage_date_time() describe them.
 *
 * Years 00 to 68 are 2000 to 2068, 69 to 99 are 1969 to 1999; years 100 to 1968 fail, and so does every
 * time before 1970. Without a year it is the current one, whatever `flags` says. Everything else, and what
 * is no date, as with date_str_to_time2().
 *
 * @param flags  for a day of the week: 0 the latest up to today, 1 the first from today on, others the one
 *               of this week, which began on Monday
 * @param out    receives the time; as it was on failure. NULL ends the process
 * @return 0; 1 when the text is not a date.
 *
 * Threads: any, as date_str_to_time2().
 * Raises:  no.
 */
KS_API int date_str_to_time_legacy(const char *s, int flags, time_t *out);

/**
 * Describes what date_str_to_time2() reads, for a tool's usage text: the traditional grammar in three lines, and in a
 * fourth that ISO 8601 is read as well, with examples.
 *
 * The text comes from the message catalogue. It is there for people: a translated one changes nothing of
 * what is read.
 *
 * @return the thread's own text of at most 1023 bytes, each line with its line feed, until the thread calls
 *         this function again; NULL with errno ENOMEM when memory is exhausted on the thread's first call.
 *
 * Threads: any, but not while a lock of the message modules is held.
 * Raises:  only when it reports exhaustion.
 */
KS_API char *date_usage_date_time(void);
/**@}*/

/** The module's messages, subsystem "ks/date": keywords, separators and the usage text. */
extern KS_API const msg_table _date_ks_msg_table;

#ifdef __cplusplus
}
#endif
#endif
