// What the duplicate-request cache says: traces of subsystem "ks", and its last word.
//
// Lines about an entry name what it held before, and then the call that was given.
#include "rpc/server/nirpc_impl.h"

#include "base/ks_msg.h"

#include <korvaks/imsg.h>
#include <korvaks/sysutl.h>

namespace ks::nirpc {

namespace {

constexpr const char *subsystem = "ks";
constexpr long stale_level = 2;
constexpr long trace_level = 3;

template <typename... Args> void print(const char *format, Args... args)
{
    (void)imsg_print_shared(IMSG_TRACE, subsystem, format, IMSG_RAW, args...); // nobody could be told
}

unsigned long thread_number()
{
    return static_cast<unsigned long>(vlthread_self());
}

void tell_found(const Story &story, const Caller &caller)
{
    if (story.firing != nullptr)
        print("%lx found/timeout %p %lx\n", thread_number(), story.firing, caller.boot_time);
    if (story.entry != nullptr)
        print("%lx found %p %lx.%lu\n", thread_number(), story.entry, caller.boot_time, story.held_xid);
}

// The caller that is held is the one that was looked for.
void tell_stale(const Story &story, const Caller &caller, uint64_t xid)
{
    char address[SYSUTL_ADDR_TEXT_SIZE];
    (void)sysutl_sockaddr_to_str(caller.address, sizeof address, address);
    print("nirpc: stale RPC packet received: \n");
    print("\t\t\t(caller, boot_time, xid)\n");
    print("\tStale RPC req:%s %lx %lu\n", static_cast<const char *>(address), caller.boot_time, xid);
    print("\tLast cached RPC:%s %lx %lu\n", static_cast<const char *>(address), caller.boot_time, story.held_xid);
}

// How the line of an answer that was found in an entry is worded.
const char *format_of(const Story &story, uint64_t xid, int answer)
{
    if (answer == NIRPC_IN_PROGRESS)
        return "%lx fetch %p %lx.%lu inprog %lu\n";
    if (answer == NIRPC_DUPLICATE)
        return "%lx fetch %p %lx.%lu duplicate %lu\n";
    return xid == story.held_xid ? "%lx fetch %p %lx.%lu new noreply %lu\n" : "%lx fetch %p %lx.%lu new incr %lu\n";
}

} // namespace

void panic_without_storage(int line)
{
    (void)imsg_print(ks::msg_error, &_ks_ks_msg_table, ks_msg_no_storage);
    here.panic(line);
}

void tell_fetch(const Story &story, const Caller &caller, uint64_t xid, int answer)
{
    const bool is_told = ks::is_traced(subsystem, trace_level);
    if (is_told)
        tell_found(story, caller);
    if (answer == NIRPC_STALE && ks::is_traced(subsystem, stale_level))
        tell_stale(story, caller, xid);
    if (!is_told)
        return;
    if (story.entry == nullptr)
        print("%lx fetch %lx.%lu new\n", thread_number(), caller.boot_time, xid);
    else if (answer == NIRPC_STALE)
        print("%lx fetch %lx.%lu stale %lu\n", thread_number(), caller.boot_time, story.held_xid, xid);
    else
        print(format_of(story, xid, answer), thread_number(), story.entry, caller.boot_time, story.held_xid, xid);
}

void tell_save(const Story &story, const Caller &caller, uint64_t xid)
{
    if (!ks::is_traced(subsystem, trace_level))
        return;
    tell_found(story, caller);
    if (story.entry != nullptr)
        print("%lx save %p %lx.%lu replace %lu\n", thread_number(), story.entry, caller.boot_time, story.held_xid, xid);
    else
        print("%lx save %lx.%lu brand new\n", thread_number(), caller.boot_time, xid);
}

void tell_finish(const Story &story, const Caller &caller, uint64_t xid)
{
    if (!ks::is_traced(subsystem, trace_level))
        return;
    tell_found(story, caller);
    if (story.entry != nullptr)
        print("%lx finish %p %lx.%lu from %lu\n", thread_number(), story.entry, caller.boot_time, story.held_xid, xid);
    else
        print("%lx finish %lx.%lu not found\n", thread_number(), caller.boot_time, xid);
}

} // namespace ks::nirpc
