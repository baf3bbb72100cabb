// Messages under failing calls and raises: what can still be said is said, and nothing is lost.
#include "harness/child.h"
#include "harness/fault_sweep.h"

#include <korvaks/imsg.h>
#include <korvaks/pfm.h>
#include <korvaks/stg.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

using test::fault::Call;
using test::fault::has_said;
using test::fault::Operation;
using test::fault::Trial;

constexpr unsigned no_storage = 15; // of the library's table
constexpr const char *no_buffer = "noname: Error: PFM_ASSERT:(out_buf_p != NULL) failed: 'lib/ks/imsg':#\n";

// A stream may refuse a text; an interruption and a short write are no refusal.
bool may_be_refused(const Trial &trial)
{
    return trial.failed(Call::write) && trial.plan.answer != EINTR && trial.plan.answer != test::fault::answer_short;
}

Operation message()
{
    return Operation("imsg_print")
        .act([] {
            errno = 77;
            return imsg_print(6, &_ks_ks_msg_table, no_storage) == 0;
        })
        .check([](const Trial &trial) -> const char * {
            if (trial.raised != 0)
                return has_said("Unable to allocate storage.\n") ? "raised, and printed all the same" : nullptr;
            if (trial.error != 77)
                return "errno is not kept";
            if (!trial.is_done)
                return may_be_refused(trial) ? nullptr : "a failure";
            return has_said("noname: Error: Unable to allocate storage.\n") ? nullptr : "not printed";
        });
}

TEST(FaultMessages, Print)
{
    message().sweep_first_use().sweep_raises();
}

// A catalogue that is looked for, and a capture log that is written.
TEST(FaultMessages, PrintWithCatalogueAndCaptureLog)
{
    const test::TempDir directory;
    setenv("VELLUM_IMSG_CAPTURE_LOG", directory.file("log").c_str(), 1);
    setenv("NLSPATH", directory.file("%N.cat").c_str(), 1);
    test::write_file(directory.file("ks_lib.cat"), "no catalogue");
    message().sweep_first_use().sweep();
    unsetenv("VELLUM_IMSG_CAPTURE_LOG");
    unsetenv("NLSPATH");
}

void make_output_a_terminal()
{
    static int terminal = -1;
    if (terminal >= 0)
        return;
    terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (terminal < 0 || grantpt(terminal) != 0 || unlockpt(terminal) != 0)
        _exit(1);
    const int line = open(ptsname(terminal), O_RDWR | O_NOCTTY | O_CLOEXEC);
    dup2(line, STDOUT_FILENO);
    close(line);
}

// Standard output is a terminal, whose description is read.
TEST(FaultMessages, StartOnATerminal)
{
    setenv("TERM", "xterm", 1);
    bool is_printed = false;
    Operation("imsg_initialize on a terminal")
        .setup(make_output_a_terminal)
        .act([&] {
            imsg_initialize();
            is_printed = imsg_print(0, &_ks_ks_msg_table, 8) == 0;
        })
        .gives([&](const Trial &trial) { return is_printed || may_be_refused(trial); })
        .sweep_first_use();
}

// --- Long texts ---

std::size_t long_length = 20000;
char long_text[4000000];

void make_long_text()
{
    long_length += 1000; // each is longer than all before, so that the buffer must grow
    if (long_length >= sizeof long_text)
        _exit(1);
    std::memset(long_text, 'x', long_length);
    long_text[long_length] = '\0';
}

std::size_t received = 0;
bool is_raising = false;

void receive(void *, const char *text)
{
    received = std::strlen(text);
    if (is_raising)
        pfm_test_raise(nullptr);
}

TEST(FaultMessages, LongTexts)
{
    int result = 0;
    Operation print("imsg_print of a long text");
    print.setup(make_long_text)
        .act([&] { result = imsg_print_shared(0, nullptr, "%s\n", IMSG_RAW, long_text); })
        .gives([&](const Trial &trial) { return result == 0 || may_be_refused(trial); })
        .ends({{Call::allocation, no_buffer}})
        .sweep();
    // To a procedure: a private copy is made, or the text goes to the stream.
    print
        .setup([] {
            make_long_text();
            received = 0;
            imsg_redirect_output(receive, nullptr, nullptr, nullptr);
        })
        .gives([&](const Trial &trial) {
            return result == 0 && (received == long_length + 1 || (received == 0 && trial.failed(Call::allocation)));
        })
        .cleanup([] { imsg_redirect_output(nullptr, nullptr, nullptr, nullptr); })
        .sweep();
    is_raising = true;
    print.sweep_raises();
    is_raising = false;
}

// --- Formatting without printing, names and lists ---

TEST(FaultMessages, Formatting)
{
    char *formatted = nullptr;
    int length = 0;
    Operation("imsg_dynamic_len_snprintf")
        .setup([&] { formatted = nullptr; })
        .act([&] {
            length = imsg_dynamic_len_snprintf(&formatted, 4, 1000, "%s and %s", IMSG_RAW, "one", "another");
            return formatted != nullptr;
        })
        .gives([&] { return length == 15 && std::strcmp(formatted, "one and another") == 0; })
        .keeps([&](const Trial &trial) { return length == -1 && trial.failed(Call::allocation); })
        .cleanup([&] { stg_free(formatted); })
        .sweep();
    const char *name = nullptr;
    Operation("imsg_set_app_name, imsg_get_app_name")
        .setup([] { imsg_set_app_name("/bin/before"); })
        .act([&] {
            imsg_set_app_name("/usr/bin/tool");
            name = imsg_get_app_name();
            return std::strcmp(name, "tool") == 0;
        })
        .keeps([&] { return std::strcmp(name, "before") == 0; })
        .cleanup([] { imsg_set_app_name(nullptr); })
        .notices()
        .sweep();
    Operation("imsg_get_app_name, imsg_strerror")
        .act([&] {
            imsg_set_app_name("tool");
            name = imsg_get_app_name();
            return *imsg_strerror(ENOENT) != '\0' && std::strcmp(name, "tool") == 0;
        })
        .keeps([&](const Trial &trial) { return std::strcmp(name, "noname") == 0 && trial.failed(Call::allocation); })
        .sweep_first_use();
}

TEST(FaultMessages, TraceList)
{
    static char list[4096]; // longer than the room that there is without memory
    static int number = 0;
    const auto traces_only = [](const char *traced, const char *other) {
        return imsg_should_trace(traced, 1) != 0 && imsg_should_trace(other, 1) == 0;
    };
    Operation("imsg_set_trace_subsys")
        .setup([] {
            imsg_set_trace_verbosity(3);
            imsg_set_trace_subsys("before");
            std::snprintf(list, sizeof list, "%02000d", ++number);
        })
        .act([] { imsg_set_trace_subsys(list); })
        .gives(
            [&](const Trial &trial) { return trial.fired ? traces_only("before", list) : traces_only(list, "before"); })
        .cleanup([] { imsg_set_trace_subsys(nullptr); })
        .sweep_first_use();
}

// --- Streams ---

TEST(FaultMessages, Stream)
{
    int fd = -1;
    FILE *stream = nullptr;
    Operation("imsg_fputs")
        .setup([&] {
            fd = memfd_create("stream", MFD_CLOEXEC);
            stream = test::fault::stream_over(dup(fd), "w");
        })
        .act([&] { return imsg_fputs("\001\0011Btext\001\0010B and a line\nand another\n", stream) == 0; })
        .gives([&] {
            char written[64] = "";
            return pread(fd, written, sizeof written - 1, 0) >= 0 &&
                   std::strcmp(written, "text and a line\nand another\n") == 0;
        })
        .cleanup([&] {
            fclose(stream);
            close(fd);
        })
        .sweep();
}

} // namespace
