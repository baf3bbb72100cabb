// The stamp in front of a record of a daemon's log.
#pragma once

#include <cstddef>

#include <sys/time.h>

struct date_tls;

namespace ks {

inline constexpr std::size_t date_stamp_size = 128;

// The token of date_fmt_token_general() in the ISO style, local time, with microseconds, for a record that is written
// under the lock of the messages: there the thread's own block must not be asked for, which may have to be made, and
// memory need not be. `known` is the caller's place for what is known of the zone.
//
// The length of the token in `buffer`, of date_stamp_size bytes; 0 with errno where that function gives NULL.
[[nodiscard]] std::size_t write_date_stamp(const timeval &now, date_tls &known, char *buffer);

} // namespace ks
