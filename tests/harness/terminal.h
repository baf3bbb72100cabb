// A process with a terminal of its own, whose user is the test.
#pragma once

#include <cstdio>
#include <functional>
#include <string>
#include <utility>

#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace test {

class Terminal {
  public:
    // `body` is the process, and its result the exit status.
    explicit Terminal(const std::function<int()> &body)
    {
        const winsize size{24, 80, 0, 0};
        pid_ = forkpty(&terminal_, nullptr, nullptr, &size);
        if (pid_ == 0) {
            setvbuf(stdout, nullptr, _IONBF, 0); // whatever the output of the test itself is
            exit(body());
        }
    }
    ~Terminal()
    {
        if (pid_ > 0)
            kill(pid_, SIGKILL);
        close(terminal_);
    }
    Terminal(const Terminal &) = delete;
    Terminal &operator=(const Terminal &) = delete;

    pid_t pid() const { return pid_; }

    void type(const std::string &keys) const
    {
        EXPECT_EQ(write(terminal_, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
    }

    // What the terminal was shown until `text` was, which is expected; "": to the end.
    std::string shown_until(const std::string &text)
    {
        char bytes[4096];
        while (text.empty() || shown_.find(text) == std::string::npos) {
            pollfd ready{terminal_, POLLIN, 0};
            const ssize_t count = poll(&ready, 1, 20000) == 1 ? read(terminal_, bytes, sizeof bytes) : 0;
            if (count <= 0) {
                EXPECT_TRUE(text.empty()) << "not shown: " << text << "\nbut: " << shown_;
                return std::exchange(shown_, "");
            }
            shown_.append(bytes, static_cast<std::size_t>(count));
        }
        const std::size_t end = shown_.find(text) + text.size();
        const std::string before = shown_.substr(0, end);
        shown_.erase(0, end);
        return before;
    }

    bool echoes() const
    {
        termios modes{};
        return tcgetattr(terminal_, &modes) == 0 && (modes.c_lflag & ECHO) != 0;
    }

    // As waitpid() gives it.
    int wait_status()
    {
        int status = -1;
        EXPECT_EQ(waitpid(pid_, &status, 0), pid_);
        pid_ = 0;
        return status;
    }

    // Waits for the end, which must be an exit with 0, and gives what was shown.
    std::string shown_at_end()
    {
        const std::string shown = shown_until("");
        EXPECT_EQ(wait_status(), 0) << shown;
        return shown;
    }

  private:
    int terminal_ = -1;
    pid_t pid_ = 0;
    std::string shown_; // and not asked for yet
};

} // namespace test
