// Private to the duplicate-request cache: its table of callers, and what its operations tell.
//
// Everything of a bucket and of its entries is guarded by the bucket's mutex, but for what an entry is found by, which
// never changes. Under the mutex nothing is printed and no routine of a program runs.
#pragma once

#include "base/ks_base.h"
#include "base/msg_port.h"
#include "kernel/kernel.h"
#include "rpc/wire/rpc_platform.h"

#include <korvaks/llist.h>
#include <korvaks/nirpc.h>
#include <korvaks/rt.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>

#include <netinet/in.h>
#include <sys/socket.h>

namespace ks::nirpc {

inline constexpr ks::AssertPath here{"lib/ks/nirpc"};

inline constexpr std::size_t bucket_count = 53;
// One for each, but for builds in which so many are too many.
inline vlthread_mutex_t &lock_of(std::size_t bucket)
{
    return ks::nirpc_hash_locks[bucket % std::size(ks::nirpc_hash_locks)];
}

// Who calls: an address, in one of his lives.
struct Caller {
    const sockaddr *address; // the transport's; NULL: of another family
    uint64_t boot_time;
    uint32_t hash;
    uint8_t bucket;
};

// A reply that is kept.
struct Reply {
    void *block; // NULL: none
    uint64_t size;
    nirpc_free_fn free_routine; // NULL: none
};

// The latest call of a caller.
//
// A reply expires by the entry's event. To take an expiry back is to say that the event is no more the reply's: it
// stays scheduled, and when it fires it is scheduled again for the reply that is there then. So a caller who calls
// often costs the event runtime nothing, and one event in 300 seconds.
struct Entry {
    llist_link link;
    Reply reply;
    // What every operation looks at: one line of the processor's cache, as the heap lays blocks of this size.
    Entry *next_in_slot;
    sockaddr_in6 address; // or a sockaddr_in
    uint32_t hash;
    uint64_t boot_time;
    uint64_t xid;
    uint32_t reply_due_s; // of the wall clock, as far as it has room: the difference to another counts
    uint8_t bucket;
    bool is_in_progress;
    bool is_event_of_reply; // it was scheduled for the reply that is kept
    rt_event *event_h;      // NULL: nothing is scheduled
};

inline const sockaddr *address_of(const Entry &entry)
{
    return reinterpret_cast<const sockaddr *>(&entry.address);
}

// What a bucket has seen: indexed by answer.
struct Counts {
    std::array<uint64_t, 4> answers;
    uint64_t entries;
    uint64_t replies;
    uint64_t reply_bytes;
    uint64_t expired;
};

// The list of a bucket's entries, and an index over it: chains by the hash of the caller.
struct alignas(64) Bucket {
    Entry **slots;
    std::size_t slot_count; // a power of two
    Counts counts;
    llist_link entries;
    std::array<Entry *, 8> first_slots; // of the index while there are no more entries
};
extern constinit std::array<Bucket, bucket_count> nirpc_hash; // made with the first use

// What an operation has seen and done, told when the mutex is released.
struct Story {
    const void *firing = nullptr; // an entry that was passed over because its expiry is at work
    const void *entry = nullptr;  // that was found
    uint64_t held_xid = 0;        // by it
};

// --- nirpc_table.cpp ---

inline constexpr std::size_t address_words = sizeof(sockaddr_in6) / sizeof(uint32_t);
inline constexpr std::size_t key_words = address_words + 2;
extern constinit std::array<uint64_t, key_words + 1> multipliers; // of the hash: secret, and written before `initted`
extern constinit std::atomic<bool> initted;
inline bool is_made()
{
    return initted.load(std::memory_order_acquire);
}
void make_once();
inline void ensure_made()
{
    if (!is_made()) [[unlikely]]
        make_once();
}
// A new entry without a call. Exhaustion ends the process.
Entry &add(Bucket &bucket, const Caller &caller);
void take_out(Bucket &bucket, Entry &entry);
uint64_t index_bytes(const Bucket &bucket);
inline Entry *&slot_of(const Bucket &bucket, uint32_t hash)
{
    return bucket.slots[hash & (bucket.slot_count - 1)];
}

// --- nirpc_trace.cpp ---

[[noreturn]] void panic_without_storage(int line = __builtin_LINE());

// Whether anything of what follows may be wanted.
inline bool may_be_told()
{
    return ks::may_be_traced(2);
}
void tell_fetch(const Story &story, const Caller &caller, uint64_t xid, int answer);
void tell_save(const Story &story, const Caller &caller, uint64_t xid);
void tell_finish(const Story &story, const Caller &caller, uint64_t xid);

} // namespace ks::nirpc
