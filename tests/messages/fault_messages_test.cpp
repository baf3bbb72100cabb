// Messages under failing calls and raises: what can still be said is said, and nothing is lost.
#include "harness/child.h"
#include "harness/fault_sweep.h"

#include <korvaks/imsg.h>
#include <korvaks/pfm.h>
#include <korvaks/stg.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

using test::fault::Call;
using test::fault::ends_of_start;
using test::fault::has_said;
using test::fault::Scenario;
using test::fault::Trial;

constexpr unsigned no_storage = 15; // of the library's table
constexpr const char *no_buffer = "noname: Error: PFM_ASSERT:(out_buf_p != NULL) failed: 'lib/ks/imsg':#\n";

int result = 0;
int error = 0;

const Scenario message{
    .name = "imsg_print",
    .act =
        [] {
            errno = 77;
            result = imsg_print(6, &_ks_ks_msg_table, no_storage);
            error = errno;
        },
    .check = [](const Trial &trial) -> const char * {
        if (trial.raised != 0)
            return has_said("Unable to allocate storage.\n") ? "raised, and printed all the same" : nullptr;
        if (result != 0 || error != 77)
            return "a failure, or errno is not kept";
        return has_said("noname: Error: Unable to allocate storage.\n") ? nullptr : "not printed";
    },
};

Scenario with_ends_of_start(Scenario scenario)
{
    scenario.ends = ends_of_start(std::move(scenario.ends));
    return scenario;
}

TEST(FaultMessages, Print)
{
    test::fault::sweep_first_use(with_ends_of_start(message));
    test::fault::sweep_raises(message);
}

// A catalogue that is looked for, and a capture log that is written.
TEST(FaultMessages, PrintWithCatalogueAndCaptureLog)
{
    const test::TempDir directory;
    setenv("VELLUM_IMSG_CAPTURE_LOG", directory.file("log").c_str(), 1);
    setenv("NLSPATH", directory.file("%N.cat").c_str(), 1);
    test::write_file(directory.file("ks_lib.cat"), "no catalogue");
    test::fault::sweep_first_use(with_ends_of_start(message));
    test::fault::sweep(message);
    unsetenv("VELLUM_IMSG_CAPTURE_LOG");
    unsetenv("NLSPATH");
}

// Standard output is a terminal, whose description is read.
TEST(FaultMessages, StartOnATerminal)
{
    setenv("TERM", "xterm", 1);
    test::fault::sweep_first_use(with_ends_of_start({
        .name = "imsg_initialize on a terminal",
        .setup =
            [] {
                static int terminal = -1;
                if (terminal >= 0)
                    return;
                terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
                if (terminal < 0 || grantpt(terminal) != 0 || unlockpt(terminal) != 0)
                    _exit(1);
                const int line = open(ptsname(terminal), O_RDWR | O_NOCTTY | O_CLOEXEC);
                dup2(line, STDOUT_FILENO);
                close(line);
            },
        .act =
            [] {
                imsg_initialize();
                result = imsg_print(0, &_ks_ks_msg_table, 8);
            },
        .check = [](const Trial &) { return result == 0 ? nullptr : "not printed"; },
    }));
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
    const Scenario print{
        .name = "imsg_print of a long text",
        .setup = make_long_text,
        .act =
            [] { result = imsg_print_shared(0, nullptr, "%s\n", static_cast<unsigned>(IMSG_RAW_FORMAT), long_text); },
        .check = [](const Trial &) { return result == 0 ? nullptr : "not printed"; },
        .ends = {{Call::allocation, no_buffer}},
    };
    test::fault::sweep(print);
    // To a procedure: a private copy is made, or the text goes to the stream.
    Scenario redirected = print;
    redirected.name = "imsg_print of a long text to a procedure";
    redirected.setup = [] {
        make_long_text();
        received = 0;
        imsg_redirect_output(receive, nullptr, nullptr, nullptr);
    };
    redirected.check = [](const Trial &trial) -> const char * {
        if (trial.raised != 0)
            return nullptr;
        if (result != 0)
            return "not printed";
        return received == long_length + 1 || (received == 0 && trial.failed(Call::allocation)) ? nullptr
                                                                                                : "not received";
    };
    redirected.cleanup = [] { imsg_redirect_output(nullptr, nullptr, nullptr, nullptr); };
    test::fault::sweep(redirected);
    redirected.ends.clear();
    is_raising = true;
    test::fault::sweep_raises(redirected);
    is_raising = false;
}

// --- Formatting without printing, names and lists ---

char *formatted = nullptr;
const char *app_name = nullptr;

TEST(FaultMessages, Formatting)
{
    const Scenario dynamic{
        .name = "imsg_dynamic_len_snprintf",
        .setup = [] { formatted = nullptr; },
        .act =
            [] {
                result = imsg_dynamic_len_snprintf(&formatted, 4, 1000, "%s and %s",
                                                   static_cast<unsigned>(IMSG_RAW_FORMAT), "one", "another");
            },
        .check = [](const Trial &trial) -> const char * {
            if (trial.raised != 0)
                return nullptr;
            if (formatted == nullptr)
                return trial.failed(Call::allocation) && result == -1 ? nullptr : "refused without a cause";
            return result == 15 && std::strcmp(formatted, "one and another") == 0 ? nullptr : "not the text";
        },
        .cleanup = [] { stg_free(formatted); },
    };
    test::fault::sweep(dynamic);
    test::fault::sweep({
        .name = "imsg_set_app_name, imsg_get_app_name",
        .setup = [] { imsg_set_app_name("/bin/before"); },
        .act =
            [] {
                imsg_set_app_name("/usr/bin/tool");
                app_name = imsg_get_app_name();
            },
        .check = [](const Trial &trial) -> const char * {
            if (std::strcmp(app_name, "tool") == 0)
                return trial.failed(Call::allocation) ? "set without memory" : nullptr;
            return trial.failed(Call::allocation) && std::strcmp(app_name, "before") == 0 ? nullptr : "no name";
        },
        .cleanup = [] { imsg_set_app_name(nullptr); },
    });
    test::fault::sweep_first_use(with_ends_of_start({
        .name = "imsg_get_app_name, imsg_strerror",
        .act =
            [] {
                imsg_set_app_name("tool");
                app_name = imsg_get_app_name();
                error = static_cast<int>(std::strlen(imsg_strerror(ENOENT)));
            },
        .check = [](const Trial &trial) -> const char * {
            const bool is_right = std::strcmp(app_name, "tool") == 0 ||
                                  (trial.failed(Call::allocation) && std::strcmp(app_name, "noname") == 0);
            return is_right && error > 0 ? nullptr : "no name";
        },
    }));
}

TEST(FaultMessages, TraceList)
{
    static char list[64];
    test::fault::sweep_first_use(with_ends_of_start({
        .name = "imsg_set_trace_subsys",
        .setup =
            [] {
                static int number = 0;
                imsg_set_trace_verbosity(3);
                imsg_set_trace_subsys("before");
                snprintf(list, sizeof list, "list%d", ++number);
            },
        .act = [] { imsg_set_trace_subsys(list); },
        .check = [](const Trial &trial) -> const char * {
            const bool is_set = imsg_should_trace(list, 1) != 0;
            const bool is_as_before = imsg_should_trace("before", 1) != 0;
            return is_set == !trial.fired && is_as_before == trial.fired ? nullptr : "neither the new nor the old list";
        },
        .cleanup = [] { imsg_set_trace_subsys(nullptr); },
    }));
}

// --- Streams ---

int fd = -1;
FILE *stream = nullptr;
constexpr const char *styled = "\001\0011Btext\001\0010B and a line\nand another\n";

const Scenario put_to_stream{
    .name = "imsg_fputs",
    .setup =
        [] {
            fd = memfd_create("stream", MFD_CLOEXEC);
            stream = test::fault::stream_over(dup(fd), "w");
        },
    .act = [] { result = imsg_fputs(styled, stream); },
    .check = [](const Trial &trial) -> const char * {
        if (result != 0)
            return trial.fired && trial.plan.noise == 0 ? nullptr : "refused without a cause";
        char written[64] = "";
        return pread(fd, written, sizeof written - 1, 0) >= 0 &&
                       std::strcmp(written, "text and a line\nand another\n") == 0
                   ? nullptr
                   : "success, and the text is not there";
    },
    .cleanup =
        [] {
            fclose(stream);
            close(fd);
        },
};

TEST(FaultMessages, Stream)
{
    test::fault::sweep(put_to_stream);
}

} // namespace
