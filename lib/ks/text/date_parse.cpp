// What users type: the readers' entry points and the traditional grammar.
#include "text/date_impl.h"

#include <algorithm>
#include <cstring>

namespace ks::date {

namespace {

// Words and separators are short, mostly of one byte: no call of the C library pays for them.
bool begins_with(std::string_view text, std::string_view start)
{
    return start.size() <= text.size() && text[0] == start[0] && (start.size() == 1 || text.starts_with(start));
}

std::size_t find(std::string_view text, std::string_view what)
{
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] == what.front() && begins_with(part_of(text, at), what))
            return at;
    }
    return std::string_view::npos;
}

// Takes a text apart from its front.
class Cursor {
  public:
    explicit Cursor(std::string_view text) : rest_(text) {}

    bool is_at_end() const { return rest_.empty(); }

    bool take(std::string_view literal)
    {
        if (!begins_with(rest_, literal))
            return false;
        rest_.remove_prefix(literal.size());
        return true;
    }

    // A number of one or two digits.
    bool take_number(int &out)
    {
        if (rest_.empty() || !is_digit(rest_.front()))
            return false;
        const std::size_t count = rest_.size() > 1 && is_digit(rest_[1]) ? 2 : 1;
        out = 0;
        for (const char c : rest_.substr(0, count))
            out = out * 10 + (c - '0');
        rest_.remove_prefix(count);
        return true;
    }

    // Everything up to a separator or the end.
    std::string_view take_until(std::string_view separator)
    {
        const std::string_view taken = rest_.substr(0, find(rest_, separator));
        rest_.remove_prefix(taken.size());
        return taken;
    }

    std::string_view rest() const { return rest_; }

  private:
    std::string_view rest_;
};

bool is_word(std::string_view text, DateMsg number)
{
    return text == word(number).compared();
}

// The place of a name in a list of full names and short forms, or -1.
int find_name(std::string_view text, DateMsg first, int count)
{
    const Words &words = date_words();
    for (int i = 0; i < 2 * count; ++i) {
        if (text == words[first + static_cast<unsigned>(i)].compared())
            return i / 2;
    }
    return -1;
}

// [+|-][h[h][:mm]] behind the word UTC.
bool read_offset(Cursor &text, Zone &out)
{
    out = {false, 0};
    const bool is_west = text.take("-");
    if (!is_west)
        (void)text.take("+"); // it need not be there
    if (text.is_at_end())
        return true;
    int hours = 0;
    if (!text.take_number(hours) || hours > 23)
        return false;
    int minutes = 0;
    if (text.take(word(date_msg_time_separator).compared()) &&
        (text.rest().size() != 2 || !text.take_number(minutes) || minutes > 59))
        return false;
    const long offset = hours * seconds_per_hour + minutes * seconds_per_minute;
    out.offset = is_west ? -offset : offset;
    return text.is_at_end();
}

// h[h]:m[m][:s[s]][UTC...]
bool read_time(std::string_view text, TimeOfDay &out, Zone &out_zone)
{
    const std::string_view separator = word(date_msg_time_separator).compared();
    Cursor cursor(text);
    if (!cursor.take_number(out.hour) || !cursor.take(separator) || !cursor.take_number(out.minute))
        return false;
    if (cursor.take(separator) && !cursor.take_number(out.second))
        return false;
    if (out.hour > 23 || out.minute > 59 || out.second > 60)
        return false;
    return cursor.is_at_end() || (cursor.take(word(date_msg_utc).compared()) && read_offset(cursor, out_zone));
}

// Kept exactly: the pivot is 69 here and 70 in numeric tokens; users and file names have their habits.
bool read_year(std::string_view digits, long &out)
{
    Fields fields;
    if (match("YY", digits, fields))
        out = fields.values[field_year] + (fields.values[field_year] < 69 ? 2000 : 1900);
    else if (match("YYYY", digits, fields))
        out = fields.values[field_year];
    else
        return false;
    return out < 100 || out > 1968;
}

// d[d]-<month>[-[yy]yy]
bool read_numbered_day(std::string_view text, long today, long &out_day)
{
    const std::string_view separator = word(date_msg_field_separator).compared();
    Cursor cursor(text);
    int day = 0;
    if (!cursor.take_number(day) || !cursor.take(separator))
        return false;
    const int month = find_name(cursor.take_until(separator), date_msg_january, 12);
    long year = calendar_day(today).year;
    if (month < 0 || (cursor.take(separator) && !read_year(cursor.rest(), year)))
        return false;
    return day_of(year, month + 1, day, out_day);
}

// The named day up to today, from today, or in this week.
long named_day(int day_of_week, int flags, long today)
{
    const int ahead = day_of_week - weekday(today);
    if (flags == 0)
        return today + ahead - (ahead > 0 ? 7 : 0);
    if (flags == 1)
        return today + ahead + (ahead < 0 ? 7 : 0);
    return today + ahead;
}

bool read_day(std::string_view text, int flags, long today, long &out_day)
{
    if (is_word(text, date_msg_today) || is_word(text, date_msg_yesterday)) {
        out_day = today - (is_word(text, date_msg_today) ? 0 : 1);
        return true;
    }
    const int name = find_name(text, date_msg_monday, 7);
    if (name < 0)
        return read_numbered_day(text, today, out_day);
    out_day = named_day(name + 1, flags, today);
    return true;
}

struct Parts {
    std::string_view day;
    std::string_view time;
    bool has_day;
    bool has_time;
};

Parts split(std::string_view text)
{
    const std::string_view separator = word(date_msg_date_time_separator).compared();
    const std::size_t at = find(text, separator);
    if (at != std::string_view::npos)
        return {text.substr(0, at), part_of(text, at + separator.size()), true, true};
    const bool is_time = find(text, word(date_msg_time_separator).compared()) != std::string_view::npos;
    return {text, text, !is_time, is_time};
}

template <typename... Readers> int read_text(const char *s, int flags, time_t *out, Readers... readers)
{
    here.require(out != nullptr, "out != NULL");
    const std::size_t length = s == nullptr ? 0 : strnlen(s, read_size);
    const std::string_view text = trimmed({s, length});
    time_t t = 0;
    if (length == read_size || text.empty() || !(readers(text, flags, t) || ...))
        return 1;
    *out = t;
    return 0;
}

} // namespace

// Without branches but for the length: texts change too often for them to be guessed.
bool match(const Pattern &pattern, std::string_view text, Fields &out)
{
    if (pattern.text.size() != text.size())
        return false;
    out.digits = pattern.digits;
    bool is_same = true;
    int value = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i] == 'w' ? 'W' : text[i];
        const Field field = pattern.fields[i];
        is_same &= field == field_none ? c == pattern.text[i] : is_digit(c);
        value = value * ((pattern.continues >> i & 1U) != 0 ? 10 : 0) + (c - '0');
        out.values[field] = value;
    }
    return is_same;
}

bool time_of(const Fields &fields, TimeOfDay &out)
{
    out = {fields.get(field_hour, 0), fields.get(field_minute, 0), fields.get(field_second, 0)};
    return out.hour <= 23 && out.minute <= 59 && out.second <= 60;
}

bool day_of(long year, int month, int day, long &out_day)
{
    if (month < 1 || month > 12 || day < 1 || day > days_in_month(year, month))
        return false;
    out_day = day_number(year, month, day);
    return true;
}

bool read_traditional(std::string_view typed, int flags, time_t &out)
{
    constexpr std::size_t too_many_digits = 3; // for any number; and no word begins with them
    if (typed.size() >= too_many_digits && std::all_of(typed.begin(), typed.begin() + too_many_digits, is_digit))
        return false;
    char room[read_size];
    std::string_view text;
    if (!fold(typed, room, text))
        return false;
    if (is_word(text, date_msg_none) || is_word(text, date_msg_now)) {
        out = is_word(text, date_msg_none) ? 0 : time(nullptr);
        return true;
    }
    const Parts parts = split(text);
    TimeOfDay time_of_day;
    Zone zone;
    if (parts.has_time && !read_time(parts.time, time_of_day, zone))
        return false;
    long day = 0;
    if (!local_day(time(nullptr), day) || (parts.has_day && !read_day(parts.day, flags, day, day)))
        return false;
    return moment_at(day, time_of_day, zone, out) && out >= 0;
}

} // namespace ks::date

extern "C" {

int date_str_to_time_legacy(const char *s, int flags, time_t *out)
{
    return ks::date::read_text(s, flags, out, ks::date::read_traditional);
}

int date_str_to_time2(const char *s, int flags, time_t *out)
{
    return ks::date::read_text(s, flags, out, ks::date::read_traditional, ks::date::read_iso);
}

int date_str_to_time(const char *s, int flags, time_t *out)
{
    return date_str_to_time2(s, flags, out);
}
}
