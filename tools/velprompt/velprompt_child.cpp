// Running a dialog program.
#include "velprompt.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

namespace velprompt {

namespace {

std::atomic<pid_t> running{0};
std::atomic<int> end_signal{0};
static_assert(std::atomic<pid_t>::is_always_lock_free && std::atomic<int>::is_always_lock_free);

extern "C" void hand_on(int signal)
{
    end_signal = signal;
    if (const pid_t pid = running; pid > 0)
        kill(pid, SIGTERM);
}

constexpr std::array end_signals = {SIGTERM, SIGHUP, SIGINT, SIGQUIT};

// While a dialog runs, a request to end goes to it first.
class SignalsHandedOn {
  public:
    SignalsHandedOn()
    {
        struct sigaction action = {};
        action.sa_handler = hand_on;
        for (std::size_t i = 0; i < end_signals.size(); ++i)
            sigaction(end_signals[i], &action, &before_[i]);
    }
    ~SignalsHandedOn()
    {
        for (std::size_t i = 0; i < end_signals.size(); ++i)
            sigaction(end_signals[i], &before_[i], nullptr);
    }
    SignalsHandedOn(const SignalsHandedOn &) = delete;
    SignalsHandedOn &operator=(const SignalsHandedOn &) = delete;

  private:
    std::array<struct sigaction, end_signals.size()> before_;
};

// The terminal as it was: a dialog that a signal ends leaves it raw.
class Modes {
  public:
    Modes() : is_saved_(tcgetattr(STDIN_FILENO, &modes_) == 0) {}
    void restore() const
    {
        if (!is_saved_)
            return;
        (void)tcsetattr(STDIN_FILENO, TCSANOW, &modes_);
        constexpr char leave_screen[] = "\033[?1049l\033[?25h\033[m\r\n"; // of the terminals that dialogs are shown on
        (void)!write(STDERR_FILENO, leave_screen, sizeof leave_screen - 1);
    }

  private:
    termios modes_{};
    bool is_saved_;
};

[[noreturn]] void execute(const Run &run, int input, int output)
{
    std::vector<char *> argv;
    for (const std::string &word : run.words)
        argv.push_back(const_cast<char *>(word.c_str())); // which exec does not change
    argv.push_back(nullptr);
    for (const int signal : end_signals)
        std::signal(signal, SIG_DFL);
    if (run.answer_fd != STDOUT_FILENO) { // a dialog on the terminal, wherever the standard streams lead
        const int terminal = open("/dev/tty", O_RDWR);
        dup2(terminal, STDIN_FILENO);
        dup2(terminal, STDOUT_FILENO);
    } else if (input >= 0) {
        dup2(input, STDIN_FILENO);
    }
    dup2(output, run.answer_fd);
    execvp(argv[0], argv.data());
    _exit(127);
}

std::string read_all(int fd)
{
    std::string text;
    char bytes[4096];
    for (;;) {
        const ssize_t got = read(fd, bytes, sizeof bytes);
        if (got > 0)
            text.append(bytes, static_cast<std::size_t>(got));
        else if (got == 0 || errno != EINTR)
            return text;
    }
}

// A file that nobody else sees, at its beginning; -1 with errno.
int file_with(const std::string &text)
{
    std::FILE *file = std::tmpfile();
    if (file == nullptr)
        return -1;
    std::fwrite(text.data(), 1, text.size(), file);
    std::rewind(file);
    return fileno(file); // open until the process ends
}

int wait_for(pid_t pid)
{
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR)
        ;
    running = 0;
    return status;
}

void end_by_signal()
{
    if (const int signal = end_signal; signal != 0) {
        std::signal(signal, SIG_DFL);
        std::raise(signal);
    }
}

} // namespace

Answer run(const Run &run)
{
    const Modes modes;
    const int input = run.input ? file_with(*run.input) : -1;
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return std::nullopt;
    std::string output;
    int status = 0;
    {
        const SignalsHandedOn handed_on;
        const pid_t pid = fork();
        if (pid == 0)
            execute(run, input, ends[1]);
        close(ends[1]);
        if (pid < 0) {
            close(ends[0]);
            return std::nullopt;
        }
        running = pid;
        if (end_signal != 0)
            kill(pid, SIGTERM); // it came before there was anybody to hand it on to
        output = read_all(ends[0]);
        close(ends[0]);
        status = wait_for(pid);
    }
    if (WIFSIGNALED(status) && run.answer_fd != STDOUT_FILENO)
        modes.restore();
    end_by_signal();
    const bool is_good = WIFEXITED(status) && (WEXITSTATUS(status) == 0 || WEXITSTATUS(status) == run.also_good);
    return is_good ? Answer(output) : std::nullopt;
}

} // namespace velprompt
