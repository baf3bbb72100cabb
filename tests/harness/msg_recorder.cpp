#include "harness/msg_recorder.h"

#include "base/msg_port.h"

#include <korvaks/base.h>

#include <cstdarg>
#include <cstdio>
#include <mutex>

#include <unistd.h>

namespace {

std::mutex mutex;
std::vector<test::RecordedMessage> messages;
// Nothing is traced until a test asks for it.
[[maybe_unused]] const bool is_quiet = (ks::desired_verbosity.store(-1), true);

} // namespace

namespace test {

std::vector<RecordedMessage> recorded_messages()
{
    const std::lock_guard lock(mutex);
    return messages;
}

void clear_recorded_messages()
{
    const std::lock_guard lock(mutex);
    messages.clear();
}

void set_recorder_verbosity(long value)
{
    ks::desired_verbosity.store(value);
}

} // namespace test

extern "C" {

int imsg_should_trace(const char *, long level)
{
    return ks::desired_verbosity.load() >= level ? 1 : 0;
}

int imsg_print(int kind, const msg_table *table, unsigned msg_no, ...)
{
    char text[1024];
    va_list args;
    va_start(args, msg_no);
    const int length = vsnprintf(text, sizeof text, table->default_texts[msg_no], args);
    va_end(args);
    const std::lock_guard lock(mutex);
    messages.push_back({kind, table->subsystem, msg_no, text});
    if (kind != 0)
        (void)!write(STDERR_FILENO, text, static_cast<size_t>(length));
    return 0;
}
}
