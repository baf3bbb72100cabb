// Makes calls of the C library fail: the n-th of a kind, or all from the n-th on, with an answer
// chosen from those the call is documented to give.
//
// Linked into a test program, it stands in front of the C library for the program itself and for
// every library it loads. Between begin() and end() it counts the calls of all threads and fails
// those that the plan names; a child that is forked in between goes on by the same plan and counts
// in the same numbers. Outside it only counts blocks of memory.
//
//  - Memory: malloc(), calloc() and realloc(), and so also what the C library
//    allocates for its caller. A sanitizer has an allocator of its own: there memory never fails
//    and is not counted (can_fail_allocations()); everything else works the same.
//  - System calls, as the program makes them. What the C library does inside its own calls cannot be
//    reached; so that a stream's transfers can, fopen() gives a stream over the interposed calls
//    while a plan is in force, and stream_over() makes one of any descriptor.
//  - An eventfd is read and written undisturbed: the kernel gives no failure that is documented
//    for the way it is used, and a lost wake-up would hang any program.
//  - Delivery checks of raises: the n-th finds a raise pending. Programs are linked with
//    --wrap=vlthread_pending_raise for that.
#pragma once

#include <array>
#include <cstddef>
#include <cstdio>
#include <span>

namespace test::fault {

enum class Call : unsigned {
    allocation,
    open,
    read,
    write,
    close,
    pipe,
    fork,
    fcntl,
    stat,
    select,
    poll,
    eventfd,
    sigaction,
    thread,    // pthread_create() and the attribute before it
    mutex,     // pthread_mutex_init() and the attribute before it
    key,       // pthread_key_create(), pthread_setspecific()
    at_exit,   // atexit()
    catalogue, // catopen()
    limit,     // getrlimit()
    name,      // uname()
    user,      // getpwuid_r(), getpwnam_r(), getgrgid_r(), getgrnam_r()
    wait,      // waitid()
    kill,
    socket,
    connect,  // an interrupted one goes on, as the system's does
    transfer, // of a socket: send(), sendto(), recv(), recvfrom()
    sockopt,  // getsockopt(), setsockopt(), ioctl()
    peer,     // getpeername()
    sync,     // fsync()
    raise,    // a delivery check of the thread that called begin()
};
inline constexpr std::size_t call_kinds = static_cast<std::size_t>(Call::raise) + 1;

const char *name_of(Call call);

// Answers: an error number, or one of these.
inline constexpr int answer_short = -1; // part of a transfer is done; a read gives 1 byte, a write half
inline constexpr int answer_end = -2;   // a read finds the end

// Every answer that the interposer gives for a kind of call.
std::span<const int> answers_of(Call call);

struct Plan {
    Call call{};
    long nth = 0;         // from 1; 0: nothing fails and calls are only counted
    bool goes_on = false; // the n-th and all behind it. Interruptions end after `interruptions_max`.
    int answer = 0;
    unsigned noise = 0; // not 0, a seed: reads and writes are short or interrupted at random instead
};

// An interruption that never ends is no fault that a program could survive.
inline constexpr long interruptions_max = 16;

struct Seen {
    bool fired = false;                   // the plan made a call fail
    std::array<long, call_kinds> calls{}; // made between begin() and end()
    long of(Call call) const { return calls[static_cast<std::size_t>(call)]; }
};

void begin(const Plan &plan);
Seen end();

// Blocks that the process has obtained and not freed; the difference of two is exact.
long blocks_outstanding();

bool can_fail_allocations();

// A stream whose transfers are calls of read() and write(); closes the descriptor with it.
FILE *stream_over(int fd, const char *mode);

} // namespace test::fault
