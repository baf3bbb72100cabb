// veldepotd: watches a depot, has what changes in it verified, serves it to clients, and keeps a log of that.
//
// The program's start and end. `veldepotd -h` tells how it is called.
#include "daemon/daemon_msg.h"
#include "daemon/serve.h"
#include "daemon/watch.h"
#include "depot_process.h"
#include "depot_report.h"

#include <korvaks/cl.h>
#include <korvaks/evutl.h>
#include <korvaks/imsg_log.h>
#include <korvaks/ks_product.h>
#include <korvaks/pfm.h>
#include <korvaks/rt.h>
#include <korvaks/rt_notify.h>
#include <korvaks/stg.h>
#include <korvaks/strutl.h>

#include <atomic>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

namespace {

using namespace depot;

enum class Next {
    run,
    done,
    misused,
};

struct Options {
    char depot[PATH_MAX] = "";
    char log[PATH_MAX] = "";
    long interval = 60;
    Serving serving;
};

constexpr long longest_interval = 86400;
constexpr char log_suffix[] = ".log";

// --- Command line ---

constexpr struct {
    const char *name;
    int letter;
} long_options[] = {{"d[epot]", 'd'},   {"l[og]", 'l'},     {"i[nterval]", 'i'}, {"s[erve]", 's'},
                    {"t[hreads]", 't'}, {"V[ersion]", 'V'}, {"h[elp]", 'h'}};

// The next option's letter, whichever way it was written; 0 at their end, '?' for what is none.
int next_option(cl_handle *clh)
{
    char *longopt = nullptr;
    int letter = cl_getopt_long(clh, "d:l:i:s:t:Vh", &longopt);
    if (longopt == nullptr)
        return letter;
    letter = '?';
    for (const auto &option : long_options)
        if (cl_match(longopt, option.name) != 0)
            letter = option.letter;
    if (letter == '?')
        say(IMSG_ERROR, msg_daemon_option, cl_strerror(CL_BAD_OPTION), shown(longopt));
    stg_free(longopt);
    return letter;
}

bool copy_path(const char *word, char *path)
{
    return word != nullptr && strutl_cpy_buf(path, word, PATH_MAX) == 0;
}

bool read_long(const char *word, long least, long most, long &out_number)
{
    return word != nullptr && strutl_strtol(word, 10, &out_number) == 0 && out_number >= least && out_number <= most;
}

bool read_interval(const char *word, long &out_seconds)
{
    if (read_long(word, 1, longest_interval, out_seconds))
        return true;
    say(IMSG_ERROR, msg_daemon_interval, shown(word == nullptr ? "" : word), 1L, longest_interval);
    return false;
}

bool read_threads(const char *word, long &out_count)
{
    if (read_long(word, 0, threads_max, out_count))
        return true;
    say(IMSG_ERROR, msg_daemon_threads, shown(word == nullptr ? "" : word), threads_max);
    return false;
}

// Whether a place is right is seen while there is somebody at the terminal.
bool add_place(const char *word, Serving &serving)
{
    if (serving.place_count == places_max)
        say(IMSG_ERROR, msg_daemon_many, places_max);
    else if (!is_place(word) || strutl_cpy_buf(serving.places[serving.place_count], word, place_bytes_max) != 0)
        say(IMSG_ERROR, msg_daemon_place, shown(word));
    else
        return ++serving.place_count > 0;
    return false;
}

Next take_option(cl_handle *clh, int letter, Options &options)
{
    bool is_good = true;
    switch (letter) {
    case 'd':
        is_good = copy_path(cl_getarg(clh), options.depot);
        break;
    case 'l':
        is_good = copy_path(cl_getarg(clh), options.log);
        break;
    case 'i':
        return read_interval(cl_getarg(clh), options.interval) ? Next::run : Next::misused;
    case 's':
        if (const char *const word = cl_getarg(clh); word != nullptr)
            return add_place(word, options.serving) ? Next::run : Next::misused;
        is_good = false;
        break;
    case 't':
        return read_threads(cl_getarg(clh), options.serving.threads) ? Next::run : Next::misused;
    case 'V':
        say(IMSG_OUTPUT, msg_daemon_version, VELDEPOT_VERSION);
        return Next::done;
    case 'h':
        say(IMSG_OUTPUT, msg_daemon_usage, imsg_get_app_name());
        return Next::done;
    default:
        is_good = false;
    }
    if (!is_good && letter != '?' && cl_errno(clh) == 0)
        say(IMSG_ERROR, msg_daemon_needs, letter, PATH_MAX - 1);
    else if (!is_good && cl_errno(clh) != 0)
        say(IMSG_ERROR, msg_daemon_option, cl_strerror(cl_errno(clh)), shown(cl_estr(clh)));
    return is_good ? Next::run : Next::misused;
}

Next read_words(cl_handle *clh, Options &options)
{
    Next next = Next::run;
    for (int letter = 0; next == Next::run && (letter = next_option(clh)) != 0;)
        next = take_option(clh, letter, options);
    const char *const word = next == Next::run ? cl_getarg(clh) : nullptr;
    if (word == nullptr)
        return next;
    say(IMSG_ERROR, msg_daemon_words, shown(word));
    return Next::misused;
}

// What the command line leaves open.
bool complete(Options &options)
{
    if (options.depot[0] == '\0' &&
        getenv_safe("VELDEPOT_DIR", options.depot, sizeof options.depot, EVUTL_GETENV_NONEMPTY) == nullptr) {
        say(IMSG_ERROR, msg_daemon_no_depot);
        return false;
    }
    if (options.log[0] == '\0')
        (void)strutl_snprintf(options.log, sizeof options.log, "%s%s", options.depot, log_suffix);
    return true;
}

Next read_command_line(int argc, char **argv, Options &options)
{
    int error = 0;
    cl_handle *clh = cl_parse_argv(argc, argv, &error);
    if (clh == nullptr)
        return Next::misused;
    Next next = read_words(clh, options);
    cl_destroy(&clh);
    return next == Next::run && !complete(options) ? Next::misused : next;
}

// --- Life ---

constinit Options options{};
constinit Watch watch{};
constinit std::atomic<int> stop_signal{0};
constinit std::atomic<bool> is_reopening{false};

// Events that handlers of signals schedule, which may not need memory.
constinit rt_event stop_event{};
constinit rt_event reopen_event{};

extern "C" void stop(void *)
{
    say(IMSG_OK, msg_daemon_stopping, strsignal(stop_signal));
    (void)rt_notify_stopping(strsignal(stop_signal)); // there may be nobody who listens
    stop_serving(options.serving);
    stop_watch(watch, rt_shutdown);
}

extern "C" void note_stop(int signal)
{
    if (int none = 0; stop_signal.compare_exchange_strong(none, signal))
        (void)rt_sched_int(stop, nullptr, 0, &stop_event, sizeof stop_event);
}

extern "C" void reopen_log(void *)
{
    is_reopening = false;
    if (imsg_open_daemon(options.log) == 0)
        say(IMSG_OK, msg_daemon_reopened, shown(options.log));
}

extern "C" void note_reopen(int)
{
    if (!is_reopening.exchange(true))
        (void)rt_sched_int(reopen_log, nullptr, 0, &reopen_event, sizeof reopen_event);
}

// The tool stands beside the daemon.
const char *find_verifier()
{
    static char path[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
    char *const slash = length < 0 ? nullptr : static_cast<char *>(memrchr(path, '/', static_cast<size_t>(length)));
    const auto room = slash == nullptr ? 0 : static_cast<size_t>(path + sizeof path - (slash + 1));
    return slash != nullptr && strutl_cpy_buf(slash + 1, "veldepot", room) == 0 ? path : "veldepot";
}

// Whoever started the daemon may have left a terminal or a pipe there.
void put_nothing_on_standard_input()
{
    const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (fd > STDIN_FILENO) {
        (void)dup2(fd, STDIN_FILENO);
        (void)close(fd);
    }
}

void report_start()
{
    say(IMSG_OK, msg_daemon_started, VELDEPOT_VERSION, long{getpid()}, shown(options.depot), options.interval);
}

void report_stop(const char *reason)
{
    rt_counters counters = {};
    imsg_log_counters log = {};
    report_calls(options.serving);
    (void)imsg_drain_pipes_fully(); // what children have left without an end comes before the last words
    rt_get_counters(&counters);
    imsg_get_log_counters(&log);
    say(IMSG_OK, msg_daemon_counts, static_cast<unsigned long long>(counters.events_fired),
        static_cast<unsigned long long>(counters.handlers_run),
        static_cast<unsigned long long>(counters.children_reaped), static_cast<unsigned long long>(log.written),
        static_cast<unsigned long long>(log.lost));
    say(IMSG_OK, msg_daemon_stopped, VELDEPOT_VERSION, long{getpid()}, reason);
}

int serve()
{
    if (!open_depot(options.depot, false, watch.depot) || imsg_init_daemon(options.log) != 0)
        return EXIT_FAILURE;
    put_nothing_on_standard_input();
    watch.verifier = find_verifier();
    watch.interval = options.interval;
    report_start();
    handle_stop_signals(note_stop);
    (void)pfm_signal(SIGUSR1, note_reopen);
    if (!start_serving(options.serving, options.depot) || !start_watch(watch)) {
        stop_serving(options.serving);
        return EXIT_FAILURE;
    }
    (void)rt_notify_ready(options.depot); // there may be nobody who listens
    rt_run();
    return EXIT_SUCCESS;
}

// Also a raise, such as that of a fault, leaves a line in the log.
int serve_protected()
{
    int status = EXIT_FAILURE;
    const int32_t raised = korvaks::protect([&] { status = serve(); });
    close_depot(watch.depot);
    if (imsg_am_daemon() == 0)
        return status;
    char reason[32];
    (void)strutl_snprintf(reason, sizeof reason, "raise %d", int{raised});
    const char *const way_out = status == EXIT_SUCCESS ? strsignal(stop_signal) : "failed";
    report_stop(raised != 0 ? reason : way_out);
    if (raised != 0)
        pfm_raise(raised);
    return status;
}

} // namespace

int main(int argc, char **argv)
{
    fill_standard_streams();
    ks_system_init();
    int status = EXIT_FAILURE;
    if (start_messages(argv[0])) {
        const Next next = read_command_line(argc, argv, options);
        if (next == Next::run)
            status = serve_protected();
        else
            status = next == Next::done ? EXIT_SUCCESS : 2;
        end_messages();
    }
    pfm_exit(status);
}
