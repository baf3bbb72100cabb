// Date tokens, and the style in which they are written.
#include "text/date_impl.h"

#include "kernel/ks_guard.h"
#include "kernel/stg_quiet.h"
#include "kernel/ks_locks.h"
#include "text/date_stamp.h"

#include <korvaks/evutl.h>
#include <korvaks/stg.h>
#include <korvaks/tls_impl.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>

#include <langinfo.h>

namespace ks::date {

namespace {

enum Style : int { style_unread = 0, style_traditional = 1, style_iso = 2 };
enum Precision : int { precision_time = 0, precision_date = 1, precision_short = 2, precision_microseconds = 3 };

constinit std::atomic<int> default_style{style_unread}; // written under default_date_style_crit

// The caller holds default_date_style_crit.
int settled_style()
{
    const int style = default_style.load(std::memory_order_relaxed);
    if (style != style_unread)
        return style;
    char value[3];
    const bool is_traditional =
        getenv_safe("VELM_ISO_DATE_FMT", value, sizeof value, 0) != nullptr && std::strcmp(value, "0") == 0;
    return is_traditional ? style_traditional : style_iso;
}

// "00" to "99".
constexpr auto two_digits = [] {
    std::array<char, 200> digits{};
    for (std::size_t i = 0; i < digits.size(); ++i)
        digits[i] = static_cast<char>('0' + (i % 2 == 0 ? i / 20 : i / 2 % 10));
    return digits;
}();

const char *digits_of(int value)
{
    return &two_digits[2 * static_cast<std::size_t>(value)];
}

// Fills a buffer from the front; what does not fit is dropped. Blanks of words and names are left out, so that
// a token is one word.
class TokenWriter {
  public:
    explicit TokenWriter(char *buffer) : at_(buffer), end_(buffer + text_size - 1) {}

    void put(char c)
    {
        if (at_ < end_)
            *at_++ = c;
    }

    void put(const char *text)
    {
        for (; *text != '\0'; ++text) {
            if (*text != ' ')
                put(*text);
        }
    }

    void put_two(int value)
    {
        put(digits_of(value)[0]);
        put(digits_of(value)[1]);
    }

    void put_number(long value)
    {
        char digits[20];
        int count = 0;
        for (; value > 0; value /= 10)
            digits[count++] = static_cast<char>('0' + value % 10);
        while (count > 0)
            put(digits[--count]);
    }

    void finish() { *at_ = '\0'; }

  private:
    char *at_;
    char *end_;
};

struct Request {
    time_t t;
    int precision;
    int style;
    int usec;
    bool is_utc;
};

long year_of(const tm &fields)
{
    return fields.tm_year + 1900L;
}

// The ISO style has no text of another's making, so that its tokens, the longest with a year of ten digits,
// always fit.
char *put_digits(char *at, long value, int count)
{
    for (int i = count; i-- > 0; value /= 10)
        at[i] = static_cast<char>('0' + value % 10);
    return at + count;
}

char *put_two(char *at, char before, int value)
{
    at[0] = before;
    std::memcpy(at + 1, digits_of(value), 2);
    return at + 3;
}

char *put_year(char *at, long year)
{
    if (year >= 0 && year <= 9999) [[likely]] {
        std::memcpy(at, digits_of(static_cast<int>(year / 100)), 2);
        std::memcpy(at + 2, digits_of(static_cast<int>(year % 100)), 2);
        return at + 4;
    }
    int count = 4;
    for (long rest = year / 10000; rest > 0; rest /= 10)
        ++count;
    return put_digits(at, year, count);
}

char *put_offset(char *at, long offset)
{
    // A text has no room for the seconds that a few zones of the past had.
    const long minutes = (offset < 0 ? -offset : offset) / seconds_per_minute;
    if (minutes == 0) {
        *at = 'Z';
        return at + 1;
    }
    at = put_two(at, offset < 0 ? '-' : '+', static_cast<int>(minutes / 60));
    return put_two(at, ':', static_cast<int>(minutes % 60));
}

// The end of the text.
char *write_iso(char *at, const Request &request, const tm &fields)
{
    const bool is_short = request.precision == precision_short;
    const bool is_recent_short = is_short && is_recent(request.t);
    if (is_recent_short)
        *at++ = '-';
    else
        at = put_year(at, year_of(fields));
    at = put_two(at, '-', fields.tm_mon + 1);
    at = put_two(at, '-', fields.tm_mday);
    if (request.precision == precision_date || (is_short && !is_recent_short))
        return at;
    at = put_two(at, 'T', fields.tm_hour);
    at = put_two(at, ':', fields.tm_min);
    if (is_short)
        return at;
    at = put_two(at, ':', fields.tm_sec);
    if (request.precision == precision_microseconds) {
        *at++ = '.';
        at = put_digits(at, request.usec, 6);
    }
    return put_offset(at, fields.tm_gmtoff);
}

void put_traditional_minute(TokenWriter &out, const Words &words, const tm &fields)
{
    out.put(words[date_msg_date_time_separator].shown);
    out.put_two(fields.tm_hour);
    out.put(words[date_msg_time_separator].shown);
    out.put_two(fields.tm_min);
}

void put_traditional(TokenWriter &out, const Request &request, const tm &fields)
{
    const Words &words = date_words();
    const char *separator = words[date_msg_field_separator].shown;
    const char *zone = request.is_utc ? words[date_msg_utc].shown : "";
    out.put_two(fields.tm_mday);
    out.put(separator);
    out.put(nl_langinfo(ABMON_1 + fields.tm_mon));
    if (request.precision == precision_short && is_recent(request.t)) {
        put_traditional_minute(out, words, fields);
        out.put(zone);
        return;
    }
    out.put(separator);
    if (request.precision == precision_short) {
        out.put_number(year_of(fields));
        return;
    }
    out.put_two(static_cast<int>(year_of(fields) % 100));
    if (request.precision == precision_date)
        return;
    put_traditional_minute(out, words, fields);
    out.put(words[date_msg_time_separator].shown);
    out.put_two(fields.tm_sec);
    out.put(zone);
}

// Into a buffer of text_size bytes; false with errno.
bool write_token(char *buffer, const Request &request, date_tls &section)
{
    if (request.t < 0) {
        errno = EINVAL;
        return false;
    }
    tm fields{};
    if (request.is_utc ? gmtime_r(&request.t, &fields) == nullptr : !local_fields(request.t, section, fields))
        return false;
    if (request.style == style_iso) {
        *write_iso(buffer, request, fields) = '\0';
        return true;
    }
    TokenWriter out(buffer);
    put_traditional(out, request, fields);
    out.finish();
    return true;
}

// In the thread's place for a token, which keeps its room for the next one.
char *keep_token(time_t t, Precision precision, bool is_utc)
{
    date_tls &section = ks_tls_get()->date;
    if (section.token == nullptr) {
        section.token = static_cast<char *>(ks::heap_try_malloc(text_size));
        section.release.fn = date_token_tls_destructor;
    }
    const Request request{t, precision, date_fmt_get_default_date_style(), 0, is_utc};
    return section.token != nullptr && write_token(section.token, request, section) ? section.token : nullptr;
}

} // namespace

} // namespace ks::date

namespace ks {

static_assert(date_stamp_size == date::text_size);

std::size_t write_date_stamp(const timeval &now, date_tls &known, char *buffer)
{
    const date::Request request{now.tv_sec, date::precision_microseconds, date::style_iso,
                                static_cast<int>(now.tv_usec), false};
    return date::write_token(buffer, request, known) ? std::strlen(buffer) : 0;
}

} // namespace ks

extern "C" {

void date_token_tls_destructor(void *section)
{
    auto *own = static_cast<date_tls *>(section);
    stg_free_int(own->token, 1);
    own->token = nullptr;
}

int date_fmt_set_default_style(int style)
{
    ks::date::here.require(style == ks::date::style_traditional || style == ks::date::style_iso,
                           "style == 1 || style == 2");
    const ks::LockGuard lock(ks::default_date_style_crit);
    const int previous = ks::date::settled_style();
    ks::date::default_style.store(style, std::memory_order_release);
    return previous;
}

int date_fmt_get_default_date_style(void)
{
    const int style = ks::date::default_style.load(std::memory_order_acquire);
    if (style != ks::date::style_unread)
        return style;
    const ks::LockGuard lock(ks::default_date_style_crit);
    ks::date::default_style.store(ks::date::settled_style(), std::memory_order_release);
    return ks::date::default_style.load(std::memory_order_relaxed);
}

char *date_fmt_token_general(time_t t, int precision, int style, int usec, int utc, int)
{
    ks::date::here.require(precision >= ks::date::precision_time && precision <= ks::date::precision_microseconds,
                           "precision >= 0 && precision <= 3");
    ks::date::here.require(style >= ks::date::style_unread && style <= ks::date::style_iso, "style >= 0 && style <= 2");
    ks::date::here.require(usec >= 0 && usec <= 999999, "usec >= 0 && usec <= 999999");
    if (style == ks::date::style_unread)
        style = date_fmt_get_default_date_style();
    char buffer[ks::date::text_size];
    if (!ks::date::write_token(buffer, {t, precision, style, usec, utc != 0}, ks_tls_get()->date))
        return nullptr;
    // Quietly: a daemon's log makes its stamps with this in the middle of a message.
    const std::size_t size = std::strlen(buffer) + 1;
    auto *token = static_cast<char *>(ks::heap_try_malloc(size));
    if (token == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    std::memcpy(token, buffer, size);
    return token;
}

char *date_fmt_token_date_time(time_t t)
{
    return ks::date::keep_token(t, ks::date::precision_time, false);
}

char *date_fmt_token_date(time_t t)
{
    return ks::date::keep_token(t, ks::date::precision_date, false);
}

char *date_fmt_token_short_date_time(time_t t)
{
    return ks::date::keep_token(t, ks::date::precision_short, false);
}

char *date_fmt_token_utc(time_t t)
{
    return ks::date::keep_token(t, ks::date::precision_time, true);
}

char *date_fmt_token_date_time_pname(time_t t)
{
    return ks::date::keep_token(t, ks::date::precision_time, false);
}
}
