// The capture log: one line for each message that was shown, by catalogue, subsystem and number.
#include "messages/imsg_impl.h"

#include "kernel/stg_quiet.h"
#include "util/ks_open.h"

#include <korvaks/evutl.h>
#include <korvaks/strutl.h>

#include <fcntl.h>

namespace {

using ks::imsg::state;

// Opened and closed for each line, so that it can be moved away. A log that cannot be opened or written, or that
// somebody else has put there, is skipped in silence.
void append(std::string_view line)
{
    const ks::ErrnoSaver saver;
    const ks::UniqueFd log(ks::open_own_file(state.capture_log, O_RDWR | O_APPEND | O_CREAT, 0666));
    if (log)
        (void)ks::write_all(log.get(), line.data(), line.size());
}

const char *or_empty(const char *text)
{
    return text != nullptr ? text : "";
}

int format_line(char *buffer, std::size_t size, const msg_table &table, unsigned number)
{
    return strutl_snprintf(buffer, size, "%s : %s : %d : %s\n", or_empty(table.catalog_name), or_empty(table.subsystem),
                           table.catalog_numbers == nullptr ? 0 : table.catalog_numbers[number],
                           ks::imsg::default_text_of(table, number));
}

} // namespace

namespace ks::imsg {

void start_capture_log()
{
    char value[env_size];
    if (getenv_safe("VELLUM_IMSG_CAPTURE_LOG", value, sizeof value, EVUTL_GETENV_NONEMPTY | EVUTL_GETENV_SECURE) ==
        nullptr)
        return;
    (void)strutl_snprintf(state.capture_log, sizeof state.capture_log, "%s.%d", value, static_cast<int>(getpid()));
    append("## library : subsys : msg ID : msg text\n");
}

void note_in_capture_log(const msg_table &table, unsigned number)
{
    if (state.capture_log[0] == '\0') // settled at the start
        return;
    char short_line[1024];
    const int length = format_line(short_line, sizeof short_line, table, number);
    const std::size_t size = length < 0 ? 0 : static_cast<std::size_t>(length);
    if (size < sizeof short_line)
        return append({short_line, size});
    if (auto *line = static_cast<char *>(heap_try_malloc(size + 1)); line != nullptr) {
        (void)format_line(line, size + 1, table, number); // into what it has measured
        append({line, size});
        stg_free_int(line, 1);
    }
}

} // namespace ks::imsg
