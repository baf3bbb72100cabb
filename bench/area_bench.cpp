// What do a thousand small blocks cost that live and end together?
//
// Sizes of 16 to 256 bytes; the store is made before and ended after them. An area may be used by
// any thread, so the fair peers have a lock too: the standard arena with a mutex around it, the heap.
#include "bench_input.h"

#include <korvaks/stg.h>

#include <benchmark/benchmark.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <memory_resource>
#include <mutex>
#include <thread>

#ifdef BENCH_APR
#include <apr_general.h>
#include <apr_pools.h>
#endif

namespace {

constexpr std::size_t block_count = 1000;
constexpr std::size_t first_chunk = 65536;
constexpr std::size_t small_chunk = 1024;

std::array<std::size_t, block_count> make_sizes()
{
    bench::Random random(0x1234567);
    std::array<std::size_t, block_count> sizes{};
    for (std::size_t &size : sizes)
        size = 16 + random.below(241);
    return sizes;
}

const std::array<std::size_t, block_count> sizes = make_sizes();

// Every user of a block writes to it.
void use(void *block)
{
    *static_cast<std::uint64_t *>(block) = 1;
    benchmark::ClobberMemory();
}

void use_area(benchmark::State &state)
{
    for (auto _ : state) {
        stg_area *area = stg_create_area(first_chunk);
        for (const std::size_t size : sizes)
            use(stg_alloc(area, size));
        stg_delete_area(&area);
    }
}
BENCHMARK(use_area)->Name("area/allocations_1000/korvaks");

void use_guarded_monotonic(benchmark::State &state)
{
    for (auto _ : state) {
        std::mutex mutex;
        std::pmr::monotonic_buffer_resource resource(first_chunk);
        for (const std::size_t size : sizes) {
            const std::lock_guard lock(mutex);
            use(resource.allocate(size, 8));
        }
    }
}
BENCHMARK(use_guarded_monotonic)->Name("area/allocations_1000/pmr_with_mutex");

// An area as most calls use one: a few blocks, and gone.
void use_small_area(benchmark::State &state)
{
    for (auto _ : state) {
        stg_area *area = stg_create_area(small_chunk);
        for (std::size_t size = 16; size <= 64; size += 16)
            use(stg_alloc(area, size));
        stg_delete_area(&area);
    }
}
BENCHMARK(use_small_area)->Name("area/small/korvaks");

void use_small_monotonic(benchmark::State &state)
{
    for (auto _ : state) {
        std::mutex mutex;
        std::pmr::monotonic_buffer_resource resource(small_chunk);
        for (std::size_t size = 16; size <= 64; size += 16) {
            const std::lock_guard lock(mutex);
            use(resource.allocate(size, 8));
        }
    }
}
BENCHMARK(use_small_monotonic)->Name("area/small/pmr_with_mutex");

// One store for two threads, each of which takes a thousand blocks in a round.
void share_area(benchmark::State &state)
{
    for (auto _ : state) {
        stg_area *area = stg_create_area(first_chunk);
        const auto allocate = [area] {
            for (const std::size_t size : sizes)
                use(stg_alloc(area, size));
        };
        std::thread other(allocate);
        allocate();
        other.join();
        stg_delete_area(&area);
    }
}
BENCHMARK(share_area)->Name("area/shared/korvaks")->UseRealTime();

void share_monotonic(benchmark::State &state)
{
    for (auto _ : state) {
        std::mutex mutex;
        std::pmr::monotonic_buffer_resource resource(first_chunk);
        const auto allocate = [&mutex, &resource] {
            for (const std::size_t size : sizes) {
                const std::lock_guard lock(mutex);
                use(resource.allocate(size, 8));
            }
        };
        std::thread other(allocate);
        allocate();
        other.join();
    }
}
BENCHMARK(share_monotonic)->Name("area/shared/pmr_with_mutex")->UseRealTime();

void use_heap(benchmark::State &state)
{
    std::array<void *, block_count> blocks{};
    for (auto _ : state) {
        for (std::size_t i = 0; i < block_count; ++i)
            use(blocks[i] = malloc(sizes[i]));
        for (void *block : blocks)
            free(block);
    }
}
BENCHMARK(use_heap)->Name("area/allocations_1000/malloc");

#ifdef BENCH_APR
void use_apr(benchmark::State &state)
{
    apr_initialize();
    for (auto _ : state) {
        apr_pool_t *pool = nullptr;
        if (apr_pool_create(&pool, nullptr) != APR_SUCCESS)
            return state.SkipWithError("no pool");
        for (const std::size_t size : sizes)
            use(apr_palloc(pool, size));
        apr_pool_destroy(pool);
    }
    apr_terminate();
}
BENCHMARK(use_apr)->Name("area/allocations_1000/apr_pool");
#endif

} // namespace
