// Which of many descriptors are worth a look: a set of them that the kernel keeps, beside select().
//
// It only proposes: what is ready is always what a select() says that includes the proposed descriptors. So a
// registration that is out of date (a number that was closed behind the loop's back, while a copy of its file is open
// elsewhere) costs a look and never calls a handler. What it cannot propose, a number that was closed or has become
// another file's, is found by a select() over everything, at least once a second.
//
// Small or busy sets are left to select() alone, which is faster there. All of it is guarded by rt_crit.
#pragma once

#include <korvaks/base.h>

#include <array>
#include <cstdint>

#include <sys/time.h>

namespace ks::rt {

class EpollWatch {
  public:
    static constexpr std::size_t proposals_max = 512;
    using Proposals = std::array<int, proposals_max>;

    // Decides how a wait over these handlers' descriptors, `count` of them, looks: true for proposals, which may be
    // none; false for a select() over everything, which then is made.
    bool begin(const ks_fd_set &reads, const ks_fd_set &writes, int count, Proposals &out, int &out_count);
    // The next wait is over everything.
    void make_full_due() { last_full_ms_ = 0; }

    // Whether everything is watched that was added.
    bool is_complete() const { return is_complete_; }
    // Descriptors that are watched: a wait leaves them out unless they are proposed.
    const ks_fd_set &watched() const { return watched_; }
    // Readable when there is something to propose.
    int fd() const { return fd_; }
    // How long proposals may do.
    timeval time_left() const;

    // A proposed descriptor was not ready: another file's, or ready in a way that select() does not know.
    void reject(int fd);
    // What a wait found: the next one goes by it.
    void note_found(int count) { last_found_ = count; }

    // The handlers of a number change: the registration goes, and with it what it knew of the file. `has_handler`: it
    // still has one, or has one now.
    void forget(int fd, bool has_handler);
    // In the child of a fork: what it inherited is the parent's.
    void drop_inherited();

  private:
    bool is_own() const { return fd_ >= 0 && *mark_ != 0; }
    bool make_mark();
    bool open();
    bool propose(Proposals &out, int &out_count);
    void take_up(const ks_fd_set &reads, const ks_fd_set &writes);
    void abandon();
    void drop();

    int fd_ = -1;
    char *mark_ = nullptr; // 0 in a child, also in one that was forked without the library's knowledge
    bool is_complete_ = false;
    int last_found_ = 0;
    int passes_ = 0;           // since descriptors were last taken up
    int64_t last_full_ms_ = 0; // when the last select() over everything began
    ks_fd_set watched_{};
    ks_fd_set refused_{}; // not tried again before the next select() over everything
};

} // namespace ks::rt
