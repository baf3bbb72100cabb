// The callers that the duplicate-request cache knows: 53 lists, and an index over each.
//
// The lists are by port, of which callers have the choice. So callers are found by a hash of address and boot time with
// secret multipliers. The index only speeds a search up: where there is no memory for a larger one its chains grow
// longer.
#include "rpc/server/nirpc_impl.h"

#include "kernel/stg_quiet.h"

#include <korvaks/hash.h>
#include <korvaks/stg.h>
#include <korvaks/sysutl.h>

#include <algorithm>
#include <cstring>
#include <type_traits>

namespace ks::nirpc {

constinit std::array<Bucket, bucket_count> nirpc_hash{};
constinit std::array<uint64_t, key_words + 1> multipliers{};
constinit std::atomic<bool> initted{false};

namespace {

static_assert(std::is_trivially_copyable_v<Entry> && sizeof(sockaddr_in6) == 28);

void draw_multipliers()
{
    for (std::size_t i = 0; i < multipliers.size(); ++i) {
        const std::size_t parts[] = {2 * i, 2 * i + 1};
        multipliers[i] = static_cast<uint64_t>(hash_seeded(&parts[0], sizeof parts[0])) << 32 |
                         hash_seeded(&parts[1], sizeof parts[1]);
    }
}

void put_in_slot(Bucket &bucket, Entry &entry)
{
    Entry *&slot = slot_of(bucket, entry.hash);
    entry.next_in_slot = slot;
    slot = &entry;
}

void take_out_of_slot(Bucket &bucket, Entry &entry)
{
    Entry **place = &slot_of(bucket, entry.hash);
    while (*place != &entry)
        place = &(*place)->next_in_slot;
    *place = entry.next_in_slot;
}

void free_index(Bucket &bucket)
{
    if (bucket.slots != bucket.first_slots.data())
        stg_free_int(bucket.slots, 1);
}

// Where there is no memory the index stays as it is.
void resize_index(Bucket &bucket, std::size_t slot_count)
{
    const bool is_first = slot_count == bucket.first_slots.size();
    auto **slots =
        is_first ? bucket.first_slots.data() : static_cast<Entry **>(ks::heap_try_malloc(slot_count * sizeof(Entry *)));
    if (slots == nullptr)
        return;
    free_index(bucket);
    std::fill_n(slots, slot_count, nullptr);
    bucket.slots = slots;
    bucket.slot_count = slot_count;
    for (llist_link *link = bucket.entries.next; link != &bucket.entries; link = link->next)
        put_in_slot(bucket, *static_cast<Entry *>(link->owner));
}

// An entry for each to four slots.
void fit_index(Bucket &bucket)
{
    if (bucket.counts.entries > bucket.slot_count)
        resize_index(bucket, 2 * bucket.slot_count);
    else if (bucket.slot_count > bucket.first_slots.size() && bucket.counts.entries < bucket.slot_count / 4)
        resize_index(bucket, bucket.slot_count / 2);
}

} // namespace

void make_once()
{
    const ks::LockGuard lock(ks::nirpc_init_lock);
    if (is_made())
        return;
    for (vlthread_mutex_t &mutex : ks::nirpc_hash_locks) {
        // Adaptive: held for less time than it takes to sleep.
        const int error =
            vlthread_mutex_init_full(&mutex, PTHREAD_MUTEX_ADAPTIVE_NP, lock_level_nirpc_hash_locks, 0, lock_order());
        here.require(error == 0, "vlthread_mutex_init_full(&mutex) == 0");
    }
    for (Bucket &bucket : nirpc_hash) {
        bucket.slots = bucket.first_slots.data();
        bucket.slot_count = bucket.first_slots.size();
        bucket.entries = {&bucket.entries, &bucket.entries, nullptr};
    }
    draw_multipliers();
    initted.store(true, std::memory_order_release);
}

Entry &add(Bucket &bucket, const Caller &caller)
{
    auto *entry = static_cast<Entry *>(stg_malloc(sizeof(Entry)));
    if (entry == nullptr)
        panic_without_storage();
    *entry = {};
    (void)sysutl_copy_sockaddr(reinterpret_cast<sockaddr *>(&entry->address), caller.address); // of a known family
    entry->hash = caller.hash;
    entry->boot_time = caller.boot_time;
    entry->bucket = caller.bucket;
    llist_d_insert(&bucket.entries, entry, &entry->link, LLIST_AT_TAIL);
    put_in_slot(bucket, *entry);
    ++bucket.counts.entries;
    fit_index(bucket);
    return *entry;
}

void take_out(Bucket &bucket, Entry &entry)
{
    (void)llist_d_remove(&entry.link); // the owner is this entry
    take_out_of_slot(bucket, entry);
    --bucket.counts.entries;
    fit_index(bucket);
}

uint64_t index_bytes(const Bucket &bucket)
{
    return bucket.slots != bucket.first_slots.data() ? bucket.slot_count * sizeof(Entry *) : 0;
}

} // namespace ks::nirpc
