#include "depot_status.h"

#include "depot_report.h"

#include <iterator>

namespace depot {

namespace {

// In the order of the counters.
constexpr Msg meanings[] = {
    msg_counter_uptime,       msg_counter_open,          msg_counter_accepted,   msg_counter_refused,
    msg_counter_idled,        msg_counter_pauses,        msg_counter_dead,       msg_counter_bad_records,
    msg_counter_calls,        msg_counter_succeeded,     msg_counter_no_program, msg_counter_bad_version,
    msg_counter_no_procedure, msg_counter_bad_arguments, msg_counter_failed,     msg_counter_denied,
    msg_counter_abandoned,    msg_counter_queued,        msg_counter_workers,    msg_counter_busy,
    msg_counter_puts,         msg_counter_repeated,      msg_counter_dropped,    msg_counter_remembered};
static_assert(std::size(meanings) == counter_count);

} // namespace

Status show_status(Job &job)
{
    if (const Status status = open_server(job); status != Status::done)
        return status;
    Counters counters;
    if (!job.remote.read_counters(counters))
        return Status::failed;
    for (std::uint32_t i = 0; i < counter_count; ++i)
        report(IMSG_OUTPUT, msg_counter, static_cast<unsigned long long>(counters.values[i]), text_of(meanings[i]));
    return Status::done;
}

} // namespace depot
