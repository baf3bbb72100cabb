// What the files of the date module share: local time, the words of the traditional grammar, and
// texts that follow a pattern.
#pragma once

#include <korvaks/date.h>

#include "text/date_calendar.h"
#include "text/date_msg.h"
#include "text/date_pattern.h"
#include "base/ks_base.h"

#include <array>
#include <cstddef>
#include <string_view>

struct date_tls;

namespace ks::date {

inline constexpr AssertPath here{"lib/ks/date"};

// What a thread's result buffers hold, and the longest token with its NUL.
inline constexpr std::size_t text_size = 128;

// The clock that is read, or the one that a text names by its offset.
struct Zone {
    bool is_local = true;
    long offset = 0; // seconds east of UTC, where it is not local
};

struct TimeOfDay {
    int hour = 0;
    int minute = 0;
    int second = 0; // 60, a leap second, counts as the next minute's 0
};

// Local time under the TZ of this moment; false with errno EOVERFLOW.
bool local_fields(time_t t, tm &out);
bool local_fields(time_t t, date_tls &section, tm &out);

// The number of the day that it is at `now` in local time: the user's own today, whatever zone a text names.
bool local_day(time_t now, long &out_day);

// The moment at which a clock shows a time of a day: either one where it shows it twice; where it never does,
// mktime(3) decides.
bool moment_at(long day, const TimeOfDay &time, const Zone &zone, time_t &out);

// `t` is not in the future and less than a year ago.
bool is_recent(time_t t);

// A word of the message table, fetched from the catalogue once per process. It is kept in capitals
// as well: that is how texts are compared.
struct Word {
    char shown[64];
    char upper[64];
    std::size_t upper_length;

    std::string_view compared() const { return {upper, upper_length}; }
};
using Words = std::array<Word, date_msg_utc + 1>;
const Words &date_words();

inline const Word &word(unsigned number)
{
    return date_words()[number];
}

// The longest text that is read, with its NUL.
inline constexpr std::size_t read_size = 1024;

// Without the white space at its ends.
std::string_view trimmed(std::string_view text);

// Copies a text in capitals to `room`, of read_size bytes. False when it has white space inside or does not fit.
bool fold(std::string_view text, char *room, std::string_view &out_text);

// Both grammars, for a trimmed text that is not empty.
bool read_traditional(std::string_view text, int flags, time_t &out);
bool read_iso(std::string_view text, int flags, time_t &out);

// What the hour, minute and second of a text say; false when one is out of range.
bool time_of(const Fields &fields, TimeOfDay &out);

// The day of a year, month and day; false when there is none.
bool day_of(long year, int month, int day, long &out_day);

} // namespace ks::date

// Frees the token of a thread at its end.
extern "C" void date_token_tls_destructor(void *section);
