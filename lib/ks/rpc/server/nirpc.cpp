// The duplicate-request cache: is a call new, and what was answered to it?
//
// What the table holds is nirpc_table.cpp's. Here is what a call does to an entry: it begins, is answered, ends, and
// expires.
#include "rpc/server/nirpc_impl.h"

#include <korvaks/stg.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace ks::nirpc {

namespace {

constexpr long kept_seconds = 300;

uint32_t now_s()
{
    return static_cast<uint32_t>(ks::wall_clock().tv_sec);
}

// --- Who calls, and his entry ---

template <std::size_t count> uint64_t sum_of_words(const sockaddr *address)
{
    uint32_t words[count];
    std::memcpy(words, address, sizeof words);
    uint64_t sum = 0;
    for (std::size_t i = 0; i < count; ++i)
        sum += multipliers[i] * words[i];
    return sum;
}

// The upper half of a sum of products with random factors: two keys that differ are equal by it with probability
// 2^-32, whoever chose them. Of an IPv4 address it takes what is not always 0.
uint32_t hash_of(const sockaddr *address, uint64_t boot_time)
{
    constexpr std::size_t ipv4_words = offsetof(sockaddr_in, sin_zero) / sizeof(uint32_t);
    uint64_t sum = multipliers[key_words] + multipliers[address_words] * static_cast<uint32_t>(boot_time) +
                   multipliers[address_words + 1] * (boot_time >> 32);
    sum += address->sa_family == AF_INET ? sum_of_words<ipv4_words>(address) : sum_of_words<address_words>(address);
    return static_cast<uint32_t>(sum >> 32);
}

Caller caller_of(const SVCXPRT &xprt, uint64_t boot_time)
{
    static_assert(offsetof(sockaddr_in, sin_port) == offsetof(sockaddr_in6, sin6_port));
    const auto *address = static_cast<const sockaddr *>(xprt.xp_rtaddr.buf);
    if (address == nullptr || (address->sa_family != AF_INET && address->sa_family != AF_INET6))
        return {nullptr, boot_time, 0, 0};
    uint16_t port; // as it is stored
    std::memcpy(&port, reinterpret_cast<const char *>(address) + offsetof(sockaddr_in, sin_port), sizeof port);
    return {address, boot_time, hash_of(address, boot_time), static_cast<uint8_t>(port % bucket_count)};
}

// Whether the loop has taken the event of the entry's reply, whose end waits for the mutex.
bool is_expiring(const Entry &entry)
{
    return entry.is_event_of_reply && rt_event_in_timeout(entry.event_h) != 0;
}

// As sysutl_sockaddr_equal(), which would be called for nothing else; the family is among what is compared.
bool is_same_address(const Entry &entry, const sockaddr *address)
{
    if (address->sa_family == AF_INET)
        return std::memcmp(&entry.address, address, sizeof(sockaddr_in)) == 0;
    return std::memcmp(&entry.address, address, sizeof(sockaddr_in6)) == 0;
}

// The caller's entry; NULL also where it is about to expire.
Entry *find(const Bucket &bucket, const Caller &caller, Story &story)
{
    if (caller.address == nullptr)
        return nullptr;
    for (Entry *entry = slot_of(bucket, caller.hash); entry != nullptr; entry = entry->next_in_slot) {
        if (entry->hash != caller.hash || entry->boot_time != caller.boot_time ||
            !is_same_address(*entry, caller.address))
            continue;
        if (!is_expiring(*entry)) {
            story.entry = entry;
            story.held_xid = entry->xid;
            return entry;
        }
        story.firing = entry;
    }
    return nullptr;
}

// --- Replies and expiry ---

// A fetch's arguments but for the caller.
struct Asked {
    uint64_t xid;
    void *reply_buf;
    uint64_t buf_len;
    uint64_t *reply_len_out;
};

Reply copy_of(const void *reply, uint64_t size, nirpc_free_fn free_routine)
{
    void *block = stg_malloc(size);
    if (block == nullptr)
        panic_without_storage();
    if (size != 0)
        std::memcpy(block, reply, size);
    return {block, size, free_routine};
}

// No mutex is held.
void discard(const Reply &reply)
{
    if (reply.block != nullptr && reply.free_routine != nullptr)
        reply.free_routine(reply.block, 1);
    stg_free(reply.block);
}

void keep(Bucket &bucket, Entry &entry, const Reply &reply)
{
    entry.reply = reply;
    ++bucket.counts.replies;
    bucket.counts.reply_bytes += reply.size;
}

Reply take_reply(Bucket &bucket, Entry &entry)
{
    const Reply reply = std::exchange(entry.reply, {});
    bucket.counts.replies -= reply.block != nullptr ? 1 : 0;
    bucket.counts.reply_bytes -= reply.size;
    return reply;
}

extern "C" void timeout_entry(void *arg);

// The event has fired, but not for the reply that is there, if one is. Where there is no memory for another event the
// reply stays until the next call: a call that ran twice would be worse.
void reschedule(Entry &entry)
{
    entry.event_h = nullptr;
    if (entry.reply.block == nullptr)
        return;
    const long left_s = std::clamp<long>(static_cast<int32_t>(entry.reply_due_s - now_s()), 0, kept_seconds);
    entry.event_h = rt_sched_mt(timeout_entry, &entry, left_s);
    entry.is_event_of_reply = entry.event_h != nullptr;
}

// Under the bucket's mutex: false when the entry stays. `out_reply` is what it held.
bool expire(Bucket &bucket, Entry &entry, Reply &out_reply)
{
    here.require(entry.event_h != nullptr, "entry->event_h != NULL");
    if (!entry.is_event_of_reply) {
        reschedule(entry);
        return false;
    }
    take_out(bucket, entry);
    out_reply = take_reply(bucket, entry);
    ++bucket.counts.expired;
    return true;
}

void timeout_entry(void *arg)
{
    auto &entry = *static_cast<Entry *>(arg);
    // Not pfm_inhibit(): a raise that it delivered would leave the entry with nobody to end it.
    const ks::RaiseHold hold;
    rt_event *event = nullptr;
    Reply reply{};
    bool is_expired = false;
    {
        const ks::LockGuard lock(lock_of(entry.bucket));
        event = entry.event_h;
        is_expired = expire(nirpc_hash[entry.bucket], entry, reply);
    }
    discard(reply);
    if (is_expired)
        stg_free(&entry);
    rt_free_event(event);
}

int answer_again(const Entry &entry, const Asked &asked)
{
    if (entry.is_in_progress)
        return NIRPC_IN_PROGRESS;
    const Reply &reply = entry.reply;
    if (reply.block == nullptr)
        return NIRPC_NEW; // kept exactly: and not in progress
    if (asked.reply_buf != nullptr && asked.buf_len != 0)
        std::memcpy(asked.reply_buf, reply.block, std::min(reply.size, asked.buf_len));
    if (asked.reply_len_out != nullptr)
        *asked.reply_len_out = reply.size;
    return NIRPC_DUPLICATE;
}

int begin(Entry &entry, uint64_t xid)
{
    entry.xid = xid;
    entry.is_in_progress = true;
    entry.is_event_of_reply = false;
    return NIRPC_NEW;
}

// Under the bucket's mutex. `discarded` is the reply of the caller's call before.
int fetch(Bucket &bucket, const Caller &caller, const Asked &asked, Story &story, Reply &discarded)
{
    Entry *entry = find(bucket, caller, story);
    if (entry == nullptr)
        return caller.address != nullptr ? begin(add(bucket, caller), asked.xid) : NIRPC_NEW;
    const auto ahead = static_cast<int64_t>(asked.xid - entry->xid);
    if (ahead == 0)
        return answer_again(*entry, asked);
    if (ahead < 0 && asked.xid != 0)
        return NIRPC_STALE;
    discarded = take_reply(bucket, *entry);
    return begin(*entry, asked.xid);
}

// A save's arguments but for the caller.
struct Answer {
    uint64_t xid;
    Reply reply; // the copy
    uint32_t now_s;
};

// Keeps the reply for as long as an expiry is scheduled; false when there can be none.
bool answer(Bucket &bucket, Entry &entry, const Answer &given)
{
    entry.xid = given.xid;
    if (entry.event_h == nullptr) {
        entry.event_h = rt_sched_mt(timeout_entry, &entry, kept_seconds);
        entry.is_event_of_reply = entry.event_h != nullptr;
    }
    if (entry.event_h == nullptr)
        return false;
    entry.reply_due_s = given.now_s + kept_seconds + 1; // rather later than the fraction of a second
    keep(bucket, entry, given.reply);
    return true;
}

// Under the bucket's mutex: whether the reply is kept. An entry without a reply has no expiry: it was taken back when
// its call began.
bool save(Bucket &bucket, const Caller &caller, const Answer &given, Story &story)
{
    Entry *entry = find(bucket, caller, story);
    if (entry == nullptr)
        return caller.address != nullptr && answer(bucket, add(bucket, caller), given);
    const auto ahead = static_cast<int64_t>(given.xid - entry->xid);
    if (ahead < 0)
        return false; // a newer call came meanwhile
    if (ahead == 0 && entry->reply.block != nullptr)
        return false; // two retransmissions that both ran: callers may have the first reply
    here.require(entry->reply.block == nullptr, "entry->reply == NULL");
    return answer(bucket, *entry, given);
}

} // namespace

} // namespace ks::nirpc

extern "C" {

int nirpc_fetch(SVCXPRT *xprt, uint64_t boot_time, uint64_t xid, void *reply_buf, uint64_t buf_len,
                uint64_t *reply_len_out)
{
    const ks::RaiseHold hold;
    ks::nirpc::ensure_made();
    const ks::nirpc::Caller caller = ks::nirpc::caller_of(*xprt, boot_time);
    ks::nirpc::Bucket &bucket = ks::nirpc::nirpc_hash[caller.bucket];
    ks::nirpc::Story story;
    ks::nirpc::Reply discarded{};
    int answer = 0;
    {
        const ks::LockGuard lock(ks::nirpc::lock_of(caller.bucket));
        answer = ks::nirpc::fetch(bucket, caller, {xid, reply_buf, buf_len, reply_len_out}, story, discarded);
        ++bucket.counts.answers[static_cast<std::size_t>(answer)];
    }
    ks::nirpc::discard(discarded);
    if (ks::nirpc::may_be_told()) [[unlikely]]
        ks::nirpc::tell_fetch(story, caller, xid, answer);
    return answer;
}

void nirpc_save(SVCXPRT *xprt, uint64_t boot_time, uint64_t xid, const void *reply, uint64_t reply_len,
                nirpc_free_fn free_routine)
{
    const ks::RaiseHold hold;
    ks::nirpc::ensure_made();
    const ks::nirpc::Caller caller = ks::nirpc::caller_of(*xprt, boot_time);
    const ks::nirpc::Answer answer{xid, ks::nirpc::copy_of(reply, reply_len, free_routine), ks::nirpc::now_s()};
    ks::nirpc::Story story;
    bool is_kept = false;
    {
        const ks::LockGuard lock(ks::nirpc::lock_of(caller.bucket));
        is_kept = ks::nirpc::save(ks::nirpc::nirpc_hash[caller.bucket], caller, answer, story);
    }
    if (!is_kept)
        stg_free(answer.reply.block); // it was never kept, and is nothing to the program's routine
    if (ks::nirpc::may_be_told()) [[unlikely]]
        ks::nirpc::tell_save(story, caller, xid);
}

void nirpc_set_finish(SVCXPRT *xprt, uint64_t boot_time, uint64_t xid)
{
    const ks::RaiseHold hold;
    ks::nirpc::ensure_made();
    const ks::nirpc::Caller caller = ks::nirpc::caller_of(*xprt, boot_time);
    ks::nirpc::Story story;
    {
        const ks::LockGuard lock(ks::nirpc::lock_of(caller.bucket));
        ks::nirpc::Entry *entry = ks::nirpc::find(ks::nirpc::nirpc_hash[caller.bucket], caller, story);
        if (entry != nullptr && entry->xid == xid)
            entry->is_in_progress = false;
    }
    if (ks::nirpc::may_be_told()) [[unlikely]]
        ks::nirpc::tell_finish(story, caller, xid);
}

void nirpc_get_counters(nirpc_counters *out_counters)
{
    *out_counters = {};
    if (!ks::nirpc::is_made())
        return;
    for (std::size_t number = 0; number < ks::nirpc::bucket_count; ++number) {
        const ks::LockGuard lock(ks::nirpc::lock_of(number));
        const ks::nirpc::Bucket &bucket = ks::nirpc::nirpc_hash[number];
        const ks::nirpc::Counts &counts = bucket.counts;
        out_counters->entries += counts.entries;
        out_counters->replies += counts.replies;
        out_counters->bytes +=
            counts.entries * sizeof(ks::nirpc::Entry) + counts.reply_bytes + ks::nirpc::index_bytes(bucket);
        out_counters->fetched_new += counts.answers[NIRPC_NEW];
        out_counters->fetched_stale += counts.answers[NIRPC_STALE];
        out_counters->fetched_duplicate += counts.answers[NIRPC_DUPLICATE];
        out_counters->fetched_in_progress += counts.answers[NIRPC_IN_PROGRESS];
        out_counters->expired += counts.expired;
    }
}
}
