// SipHash-2-4, and the seed of the process.
#include <korvaks/hash.h>

#include "base/ks_base.h"

#include <atomic>
#include <bit>
#include <cstring>

#include <sys/auxv.h>
#include <sys/random.h>

namespace {

struct Seed {
    uint64_t words[2];
};
static_assert(sizeof(Seed) == 16);

// The state as the function's authors name it.
struct SipState {
    uint64_t v0, v1, v2, v3;

    explicit SipState(const Seed &seed)
        : v0(seed.words[0] ^ 0x736f6d6570736575), v1(seed.words[1] ^ 0x646f72616e646f6d),
          v2(seed.words[0] ^ 0x6c7967656e657261), v3(seed.words[1] ^ 0x7465646279746573)
    {
    }

    void round()
    {
        v0 += v1;
        v2 += v3;
        v1 = std::rotl(v1, 13) ^ v0;
        v3 = std::rotl(v3, 16) ^ v2;
        v0 = std::rotl(v0, 32);
        v2 += v1;
        v0 += v3;
        v1 = std::rotl(v1, 17) ^ v2;
        v3 = std::rotl(v3, 21) ^ v0;
        v2 = std::rotl(v2, 32);
    }

    void take(uint64_t word)
    {
        v3 ^= word;
        round();
        round();
        v0 ^= word;
    }

    uint64_t finish()
    {
        v2 ^= 0xff;
        for (int i = 0; i < 4; ++i)
            round();
        return v0 ^ v1 ^ v2 ^ v3;
    }
};

// Up to 8 bytes, the first one lowest.
uint64_t load(const unsigned char *bytes, std::size_t count)
{
    uint64_t word = 0;
    if (count == sizeof word && std::endian::native == std::endian::little) {
        std::memcpy(&word, bytes, sizeof word);
        return word;
    }
    for (std::size_t i = 0; i < count; ++i)
        word |= static_cast<uint64_t>(bytes[i]) << 8 * i;
    return word;
}

uint64_t siphash(const Seed &seed, const void *key, std::size_t key_bytes)
{
    SipState state(seed);
    const auto *at = static_cast<const unsigned char *>(key);
    std::size_t left = key_bytes;
    for (; left >= 8; at += 8, left -= 8)
        state.take(load(at, 8));
    state.take(load(at, left) | static_cast<uint64_t>(key_bytes) << 56);
    return state.finish();
}

// The seed of the process; 0 until it is drawn. Each word is set once and never changes, so that it
// needs no lock and a fork can meet it in any state.
constinit std::atomic<uint64_t> process_seed[2]{};

// Bytes for a seed: from the system, or where that has none to give, those that it gave the process
// when it started.
Seed draw_seed()
{
    const ks::ErrnoSaver saver;
    Seed seed;
    if (getrandom(&seed, sizeof seed, 0) == static_cast<ssize_t>(sizeof seed))
        return seed;
    if (const auto *at_start = reinterpret_cast<const void *>(getauxval(AT_RANDOM)); at_start != nullptr)
        std::memcpy(&seed, at_start, sizeof seed);
    else
        seed = {{reinterpret_cast<uintptr_t>(&seed), static_cast<uint64_t>(ks::wall_clock().tv_usec)}};
    return seed;
}

void set_once(std::atomic<uint64_t> &word, uint64_t drawn)
{
    uint64_t unset = 0;
    (void)word.compare_exchange_strong(unset, drawn | 1); // another thread's is as good
}

Seed seed_of_process()
{
    if (process_seed[1].load(std::memory_order_acquire) == 0) [[unlikely]] {
        const Seed drawn = draw_seed();
        set_once(process_seed[0], drawn.words[0]);
        set_once(process_seed[1], drawn.words[1]);
    }
    return {{process_seed[0].load(std::memory_order_relaxed), process_seed[1].load(std::memory_order_relaxed)}};
}

} // namespace

extern "C" {

uint64_t hash_siphash(const void *seed, const void *key, std::size_t key_bytes)
{
    const auto *bytes = static_cast<const unsigned char *>(seed);
    return siphash({{load(bytes, 8), load(bytes + 8, 8)}}, key, key_bytes);
}

uint32_t hash_seeded(const void *key, std::size_t key_bytes)
{
    return static_cast<uint32_t>(siphash(seed_of_process(), key, key_bytes));
}

uint32_t hash_seeded_4_fn(const void *key)
{
    return hash_seeded(key, 4);
}

uint32_t hash_seeded_8_fn(const void *key)
{
    return hash_seeded(key, 8);
}

uint32_t hash_seeded_16_fn(const void *key)
{
    return hash_seeded(key, 16);
}

uint32_t hash_seeded_32_fn(const void *key)
{
    return hash_seeded(key, 32);
}

uint32_t hash_seeded_str_fn(const void *key)
{
    return hash_seeded(key, std::strlen(static_cast<const char *>(key)));
}
}
