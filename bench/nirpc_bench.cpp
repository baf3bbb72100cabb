// What does it cost a server to run no call twice? One fetch, save and finish for each call of one and of two threads,
// whose callers are the given number, taken at random, each thread's its own. The peer does the same job behind one
// mutex: a copy of the reply in storage of its own length, which goes 300 s later or with the caller's next call.
//
// The library's cache is one for the process, and so is the peer's.
#include "bench_input.h"

#include <korvaks/nirpc.h>

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include <netinet/in.h>

namespace {

constexpr std::size_t calls_per_round = 10000;
constexpr char reply[128]{};

// Ports of one in sixteen hosts each, as of clients behind a few gateways.
sockaddr_in address_of(std::size_t caller)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(0x0A000000 + static_cast<uint32_t>(caller % 16));
    address.sin_port = htons(static_cast<uint16_t>(1024 + caller / 16));
    return address;
}

// --- The library ---

class Korvaks {
  public:
    static Korvaks &get()
    {
        static Korvaks cache;
        return cache;
    }
    int fetch(SVCXPRT &transport, uint64_t boot_time, uint64_t xid)
    {
        return nirpc_fetch(&transport, boot_time, xid, nullptr, 0, nullptr);
    }
    void save(SVCXPRT &transport, uint64_t boot_time, uint64_t xid)
    {
        nirpc_save(&transport, boot_time, xid, reply, sizeof reply, nullptr);
    }
    void finish(SVCXPRT &transport, uint64_t boot_time, uint64_t xid) { nirpc_set_finish(&transport, boot_time, xid); }
};

// --- The peer ---

// Of either family.
struct Key {
    explicit Key(const SVCXPRT &transport, uint64_t of_boot) : address{}, boot_time(of_boot)
    {
        const auto *from = static_cast<const sockaddr *>(transport.xp_rtaddr.buf);
        std::memcpy(&address, from, from->sa_family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6));
    }
    bool operator==(const Key &other) const { return std::memcmp(this, &other, sizeof other) == 0; }

    sockaddr_in6 address;
    uint32_t unused = 0;
    uint64_t boot_time;
};

struct HashOfKey {
    std::size_t operator()(const Key &key) const
    {
        return std::hash<std::string_view>()({reinterpret_cast<const char *>(&key), sizeof key});
    }
};

class UnorderedMap {
  public:
    static UnorderedMap &get()
    {
        static UnorderedMap cache;
        return cache;
    }
    int fetch(SVCXPRT &transport, uint64_t boot_time, uint64_t xid)
    {
        const Key key(transport, boot_time);
        const std::lock_guard lock(mutex_);
        const auto [at, is_new] = entries_.try_emplace(key);
        Entry &entry = at->second;
        if (!is_new && xid < entry.xid)
            return NIRPC_STALE;
        if (!is_new && xid == entry.xid)
            return entry.is_in_progress ? NIRPC_IN_PROGRESS : entry.reply ? NIRPC_DUPLICATE : NIRPC_NEW;
        if (entry.reply) {
            entry.due.splice(entry.due.begin(), due_, entry.place);
            entry.reply.reset();
        }
        entry.xid = xid;
        entry.is_in_progress = true;
        return NIRPC_NEW;
    }
    void save(SVCXPRT &transport, uint64_t boot_time, uint64_t xid)
    {
        const Key key(transport, boot_time);
        const std::lock_guard lock(mutex_);
        const auto [at, is_new] = entries_.try_emplace(key);
        Entry &entry = at->second;
        if (entry.xid > xid || entry.reply)
            return;
        entry.xid = xid;
        entry.reply = std::make_unique<char[]>(sizeof reply);
        std::memcpy(entry.reply.get(), reply, sizeof reply);
        entry.reply_len = sizeof reply;
        const auto now = Clock::now();
        if (entry.due.empty())
            entry.due.emplace_back();
        entry.due.front() = {now + std::chrono::seconds(300), &at->first};
        entry.place = entry.due.begin();
        due_.splice(due_.end(), entry.due, entry.place);
        while (due_.front().when <= now) {
            const Key expired = *due_.front().key;
            due_.pop_front();
            entries_.erase(expired);
        }
    }
    void finish(SVCXPRT &transport, uint64_t boot_time, uint64_t xid)
    {
        const Key key(transport, boot_time);
        const std::lock_guard lock(mutex_);
        const auto at = entries_.find(key);
        if (at != entries_.end() && at->second.xid == xid)
            at->second.is_in_progress = false;
    }

  private:
    using Clock = std::chrono::system_clock;
    struct Due {
        Clock::time_point when;
        const Key *key;
    };
    struct Entry {
        uint64_t xid = 0;
        bool is_in_progress = false;
        std::unique_ptr<char[]> reply;
        std::size_t reply_len = 0;
        std::list<Due> due; // while no reply is kept
        std::list<Due>::iterator place;
    };

    std::mutex mutex_;
    std::unordered_map<Key, Entry, HashOfKey> entries_;
    std::list<Due> due_;
};

// --- The job ---

template <typename Cache> void call_once(const sockaddr_in &address, uint64_t boot_time, uint64_t xid)
{
    thread_local SVCXPRT transport{};
    transport.xp_rtaddr = {sizeof address, sizeof address, const_cast<sockaddr_in *>(&address)};
    Cache &cache = Cache::get();
    benchmark::DoNotOptimize(cache.fetch(transport, boot_time, xid));
    cache.save(transport, boot_time, xid);
    cache.finish(transport, boot_time, xid);
}

template <typename Cache> void call(benchmark::State &state, std::size_t callers, std::size_t thread_count)
{
    static uint64_t next_xid = 0;
    std::vector<sockaddr_in> addresses;
    for (std::size_t i = 0; i < callers; ++i)
        addresses.push_back(address_of(i));
    const auto work = [&addresses, callers](std::size_t thread, uint64_t xid) {
        bench::Random random(xid + thread + 1);
        const uint64_t boot_time = 1000 * callers + thread; // the callers are this thread's own
        for (std::size_t i = 0; i < calls_per_round; ++i)
            call_once<Cache>(addresses[random.below(callers)], boot_time, ++xid);
    };
    for (std::size_t thread = 0; thread < thread_count; ++thread) // every caller is known
        for (std::size_t i = 0; i < callers; ++i)
            call_once<Cache>(addresses[i], 1000 * callers + thread, ++next_xid);
    for (auto _ : state) {
        std::vector<std::thread> others;
        for (std::size_t thread = 1; thread < thread_count; ++thread)
            others.emplace_back(work, thread, next_xid);
        work(0, next_xid);
        for (std::thread &other : others)
            other.join();
        next_xid += calls_per_round;
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(calls_per_round * thread_count));
}

template <typename Cache> void enter(const std::string &name, std::size_t callers, std::size_t threads)
{
    auto *entered = benchmark::RegisterBenchmark(name.c_str(), call<Cache>, callers, threads);
    if (threads > 1) // of which one is timed
        entered->UseRealTime();
}

const bool is_entered = [] {
    for (const std::size_t callers : {1, 1000, 100000}) {
        for (const std::size_t threads : {1, 2}) {
            const std::string job = "nirpc/callers_" + std::to_string(callers) + "_threads_" + std::to_string(threads);
            enter<Korvaks>(job + "/korvaks", callers, threads);
            enter<UnorderedMap>(job + "/unordered_map", callers, threads);
        }
    }
    return true;
}();

} // namespace
