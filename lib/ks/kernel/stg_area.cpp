// Storage areas: arenas whose memory is carved from large chunks and released all at once.
#include "kernel/stg_impl.h"

#include "kernel/ks_guard.h"
#include "kernel/ks_locks.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <sched.h>

namespace {

using ks::address_number;
using ks::StgChunk;

constexpr ks::AssertPath here{"lib/ks/stg"};

constexpr uint64_t chunk_bytes_cap = 102400;
constexpr double large_request_share = 0.7;
constexpr uint64_t fill_step_first = 512;
constexpr uint64_t fill_step_max = 16384;
constexpr long area_trace_level = 4;
constexpr long alloc_trace_level = 5;
constexpr long whole_chunk_check_level = 2;

void require_area(const stg_area *area)
{
    here.require(area != STG_AREA_NULL, "area != STG_AREA_NULL");
    here.require(area != STG_AREA_HEAP, "area != STG_AREA_HEAP");
}

// Every area operation runs with the area marked busy, and under its mutex too where it may print or
// wait: an allocation or a deletion while nothing is traced has the mark alone. An output procedure that is called for
// a trace of the area may come back to it: then mutex and mark are its own already.
class AreaLock {
  public:
    explicit AreaLock(stg_area *area) : block_(ks::fault_block_of_caller()), hold_{block_->area_holds, area}
    {
        ks::wait_before_area_lock(block_);
        // Known before it is taken: the child of a fork must find every area that may be locked.
        __atomic_store_n(&block_->area_holds, &hold_, __ATOMIC_RELEASE);
        (void)vlthread_mutex_lock(&area->lock);
        ks::enter_area(block_);
        while (is_outermost() && __atomic_exchange_n(&area->busy, 1, __ATOMIC_ACQUIRE) != 0)
            (void)sched_yield(); // the other thread is a few instructions from the end
    }
    ~AreaLock()
    {
        if (is_outermost())
            __atomic_store_n(&hold_.area->busy, 0, __ATOMIC_RELEASE);
        ks::leave_area(block_);
        (void)vlthread_mutex_unlock(&hold_.area->lock);
        __atomic_store_n(&block_->area_holds, hold_.outer, __ATOMIC_RELEASE);
    }
    AreaLock(const AreaLock &) = delete;
    AreaLock &operator=(const AreaLock &) = delete;

  private:
    bool is_outermost() const { return hold_.area->lock.recursion_count == 1; }

    pfm_fault_block *block_;
    stg_area_hold hold_;
};

int fill_value(const stg_area *area)
{
    return area->zero != 0 ? 0 : 0xFF;
}

// Fills the chunk up to `end` at least. It goes in steps that grow with what is used, so that what is
// never handed out is never touched.
void fill_up_to(StgChunk *chunk, uint64_t end)
{
    if (end <= chunk->filled)
        return;
    const uint64_t step = std::clamp(chunk->filled, fill_step_first, fill_step_max);
    const uint64_t filled = std::min(chunk->size, std::max(end, chunk->filled + step));
    std::memset(chunk->data + chunk->filled, chunk->fill, filled - chunk->filled);
    chunk->filled = filled;
}

// Chunks ---------------------------------------------------------------------------------------

// A chunk is one heap block, with the data behind the record, or two while "ks/stg" is traced, whose
// traces and guards tell them apart.
bool is_one_block(const StgChunk *chunk)
{
    return chunk->data == reinterpret_cast<const char *>(chunk + 1);
}

StgChunk *chunk_in_block(void *block, uint64_t size)
{
    auto *const chunk = static_cast<StgChunk *>(block);
    if (chunk != nullptr)
        *chunk = {0, nullptr, size, reinterpret_cast<char *>(chunk + 1), 0, 0};
    return chunk;
}

std::size_t block_size(uint64_t size)
{
    std::size_t total = 0;
    return __builtin_add_overflow(size, sizeof(StgChunk), &total) ? SIZE_MAX & ~std::size_t{7} : total;
}

void free_chunk(StgChunk *chunk, int quiet)
{
    if (!is_one_block(chunk))
        stg_free_int(chunk->data, quiet);
    stg_free_int(chunk, quiet);
}

StgChunk *obtain_chunk(uint64_t size, int quiet)
{
    if (!ks::may_be_traced(1))
        return chunk_in_block(stg_malloc_int(block_size(size), quiet), size);
    auto *chunk = static_cast<StgChunk *>(stg_malloc_int(sizeof(StgChunk), quiet));
    if (chunk == nullptr)
        return nullptr;
    *chunk = {0, nullptr, size, static_cast<char *>(stg_malloc_int(size, quiet)), 0, 0};
    if (chunk->data == nullptr) {
        stg_free_int(chunk, quiet);
        errno = ENOMEM;
        return nullptr;
    }
    return chunk;
}

uint64_t grown_size(const stg_area *area)
{
    const float grown = static_cast<float>(area->chunks->size) * area->growth;
    return grown >= static_cast<float>(chunk_bytes_cap) ? chunk_bytes_cap : static_cast<uint64_t>(grown);
}

// What the next chunk should be, before the request that needs it is looked at.
uint64_t wanted_size(const stg_area *area)
{
    uint64_t wanted = area->incr;
    if (area->chunks == nullptr)
        wanted = area->first_size;
    else if (area->growth > 0 && (area->chunks->next != nullptr || area->incr_set == 0))
        wanted = grown_size(area);
    return std::min(wanted, chunk_bytes_cap);
}

// Bytes of data of the next chunk, which is to hold the request.
std::size_t chunk_size(uint64_t wanted, std::size_t request)
{
    std::size_t size = wanted;
    if (static_cast<double>(request) > large_request_share * static_cast<double>(wanted) &&
        __builtin_add_overflow(size, request, &size)) {
        size = SIZE_MAX & ~std::size_t{7}; // reported as exhaustion by the heap level
    }
    if (!ks::round_up_8(size, size))
        size = SIZE_MAX & ~std::size_t{7};
    return size;
}

void add_chunk(stg_area *area, StgChunk *chunk, uint64_t wanted)
{
    area->obtained += chunk->size;
    if (area->chunks != nullptr || area->incr_set == 0)
        area->desired += wanted;
    chunk->fill = fill_value(area);
    chunk->next = area->chunks;
    area->chunks = chunk;
}

StgChunk *make_chunk(stg_area *area, std::size_t request, int quiet)
{
    const uint64_t wanted = wanted_size(area);
    StgChunk *chunk = obtain_chunk(chunk_size(wanted, request), quiet);
    if (chunk == nullptr)
        return nullptr;
    if (quiet == 0 && ks::stg_is_traced(area_trace_level))
        ks::stg_print(ks::msg_trace, ks::stg_msg_chunk_created, address_number(area), address_number(chunk),
                      static_cast<unsigned>(chunk->size));
    add_chunk(area, chunk, wanted);
    return chunk;
}

bool has_room(const StgChunk *chunk, std::size_t request)
{
    return request <= chunk->size - chunk->used;
}

// The newest chunk with room is asked first; among the older ones the oldest with room is taken.
StgChunk *find_room(const stg_area *area, std::size_t request)
{
    if (area->chunks == nullptr)
        return nullptr;
    if (has_room(area->chunks, request))
        return area->chunks;
    StgChunk *found = nullptr;
    for (StgChunk *chunk = area->chunks->next; chunk != nullptr; chunk = chunk->next) {
        if (has_room(chunk, request))
            found = chunk;
    }
    return found;
}

// Bytes about to be handed out must still be as the chunk was filled; reports the first that
// is not, and goes on.
void check_fill(const stg_area *area, const StgChunk *chunk, size_t request)
{
    const auto fill = static_cast<unsigned char>(fill_value(area));
    const char *from = chunk->data + chunk->used;
    const char *end = ks::stg_is_traced(whole_chunk_check_level) ? chunk->data + chunk->size : from + request;
    for (; from < end; ++from) {
        if (static_cast<unsigned char>(*from) != fill) {
            ks::stg_print(ks::msg_error, ks::stg_msg_area_corrupted, address_number(area), address_number(from));
            return;
        }
    }
}

[[gnu::noinline]] void *exhausted()
{
    ks::stg_print(ks::msg_error, ks::stg_msg_no_memory);
    errno = ENOMEM;
    return nullptr;
}

char *take_room(StgChunk *chunk, size_t request)
{
    char *const result = chunk->data + chunk->used;
    chunk->used += request;
    return result;
}

// The rest of the short way, for a request that the newest chunk has no filled room for; NULL when
// memory is exhausted. It says nothing.
[[gnu::noinline]] void *make_room_at_once(stg_area *area, std::size_t request)
{
    StgChunk *chunk = find_room(area, request);
    if (chunk == nullptr) {
        const uint64_t wanted = wanted_size(area);
        const std::size_t size = chunk_size(wanted, request);
        chunk = chunk_in_block(std::malloc(block_size(size)), size);
        if (chunk == nullptr)
            return nullptr;
        add_chunk(area, chunk, wanted);
    }
    fill_up_to(chunk, chunk->used + request);
    return take_room(chunk, request);
}

[[gnu::always_inline]] inline void *allocate_marked(stg_area *area, std::size_t request)
{
    StgChunk *const chunk = area->chunks;
    const bool is_ready = chunk != nullptr && request <= chunk->filled - chunk->used;
    return is_ready ? take_room(chunk, request) : make_room_at_once(area, request);
}

// Kept out of line, so that it does not weigh on the short way.
[[gnu::noinline]] void *allocate_locked(stg_area *area, std::size_t request, int quiet)
{
    const AreaLock lock(area);
    StgChunk *chunk = find_room(area, request);
    if (chunk == nullptr) {
        chunk = make_chunk(area, request, quiet);
        if (chunk == nullptr)
            return nullptr;
    }
    if (quiet == 0 && ks::stg_is_checking()) [[unlikely]] {
        fill_up_to(chunk, chunk->size); // what is checked from now on must have been filled
        check_fill(area, chunk, request);
    }
    fill_up_to(chunk, chunk->used + request);
    char *const result = take_room(chunk, request);
    if (quiet == 0 && ks::stg_is_traced(alloc_trace_level)) [[unlikely]]
        ks::stg_print(ks::msg_trace, ks::stg_msg_area_allocated, address_number(area), address_number(result),
                      static_cast<unsigned>(request));
    return result;
}

[[gnu::always_inline]] inline void *allocate(stg_area *area, std::size_t size, int quiet)
{
    std::size_t request = 0;
    if (!ks::round_up_8(size, request)) [[unlikely]]
        return exhausted();
    // The short way, while "ks/stg" is not traced: nothing is checked or told, and no mutex is needed
    // unless another thread is inside for long or a fork is under way.
    pfm_fault_block *const block = ks::fault_block_of_caller();
    if (!ks::may_be_traced(1) && (ks::try_enter_area(block, area->busy) || ks::try_enter_busy_area(block, area->busy)))
        [[likely]] {
        void *const result = allocate_marked(area, request);
        ks::leave_area(block, area->busy);
        return result != nullptr ? result : exhausted();
    }
    return allocate_locked(area, request, quiet);
}

// Clearing and deleting ------------------------------------------------------------------------

void reset_kept_chunk(stg_area *area, StgChunk *chunk)
{
    chunk->used = 0;
    chunk->filled = 0;
    chunk->fill = fill_value(area);
    area->chunks = chunk;
    area->obtained = chunk->size;
    area->desired = area->incr_set != 0 ? 0 : area->first_size;
}

void clear(stg_area *area, int keep_first, int quiet)
{
    const bool traced = quiet == 0 && ks::stg_is_traced(area_trace_level);
    if (traced)
        ks::stg_print(ks::msg_trace, ks::stg_msg_area_clearing, address_number(area));
    StgChunk *chunk = area->chunks;
    area->chunks = nullptr;
    area->obtained = 0;
    area->desired = 0;
    while (chunk != nullptr) {
        StgChunk *older = chunk->next;
        if (older == nullptr && keep_first != 0) {
            reset_kept_chunk(area, chunk);
            return;
        }
        if (traced)
            ks::stg_print(ks::msg_trace, ks::stg_msg_chunk_freeing, address_number(area), address_number(chunk));
        free_chunk(chunk, quiet);
        chunk = older;
    }
}

// Frees all chunks of an area that is being deleted, without a word; false when somebody is inside.
bool clear_at_once(stg_area *area)
{
    pfm_fault_block *const block = ks::fault_block_of_caller();
    if (!ks::try_enter_area(block, area->busy))
        return false;
    for (StgChunk *chunk = area->chunks; chunk != nullptr;)
        free_chunk(std::exchange(chunk, chunk->next), 1);
    area->chunks = nullptr;
    ks::leave_area(block, area->busy);
    return true;
}

// Making and deleting ---------------------------------------------------------------------------

// An area has its mutex from the start; there is nothing to be made that could fail.
void init_area_lock(stg_area *area)
{
    area->lock = VLTHREAD_MUTEX_INITIALIZER;
    area->lock.level = ks::lock_level_area;
    area->lock.order_class = ks::lock_order();
}

stg_area *create(uint64_t first_size, int quiet)
{
    auto *area = static_cast<stg_area *>(stg_malloc_int(sizeof(stg_area), quiet));
    if (area == nullptr)
        return STG_AREA_NULL;
    *area = {};
    area->first_size = first_size;
    area->incr = first_size;
    init_area_lock(area);
    if (quiet == 0 && ks::stg_is_traced(area_trace_level))
        ks::stg_print(ks::msg_trace, ks::stg_msg_area_created, address_number(area));
    return area;
}

void destroy(stg_area **handle, int quiet)
{
    stg_area *area = *handle;
    require_area(area);
    if (quiet == 0 && ks::stg_is_traced(area_trace_level))
        ks::stg_print(ks::msg_trace, ks::stg_msg_area_deleting, address_number(area));
    if (ks::may_be_traced(1) || !clear_at_once(area)) {
        const AreaLock lock(area);
        clear(area, 0, quiet);
    }
    (void)vlthread_mutex_destroy(&area->lock); // free: its last user was this call
    stg_free_int(area, quiet);
    *handle = STG_AREA_NULL;
}

// Dump -----------------------------------------------------------------------------------------

void dump(stg_area *area)
{
    const AreaLock lock(area);
    unsigned long allocated = 0;
    unsigned long used = 0;
    int count = 0;
    for (const StgChunk *chunk = area->chunks; chunk != nullptr; chunk = chunk->next) {
        allocated += chunk->size;
        used += chunk->used;
        ++count;
    }
    ks::stg_print(ks::msg_ok, ks::stg_msg_area_dump, address_number(area), allocated, used, count, area->first_size,
                  area->incr, area->desired, static_cast<double>(area->growth));
    // Kept exactly: the bytes handed out are shown as "avail"; readers of dumps know it so.
    for (const StgChunk *chunk = area->chunks; chunk != nullptr; chunk = chunk->next)
        ks::stg_print(ks::msg_ok, ks::stg_msg_chunk_dump, address_number(chunk), chunk->size, chunk->used,
                      address_number(chunk->data), address_number(chunk->next));
}

} // namespace

namespace ks {

void stg_free_foreign_area_lock(stg_area *area)
{
    if (is_held_by_caller(&area->lock))
        return;
    init_area_lock(area);
    area->busy = 0;
}

} // namespace ks

extern "C" {

stg_area *stg_create_area(uint64_t first_size)
{
    return create(first_size, 0);
}

stg_area *stg_create_area_nr(uint64_t first_size)
{
    return create(first_size, 1);
}

void *stg_alloc(stg_area *area, size_t size)
{
    if (area == STG_AREA_HEAP)
        return stg_malloc(size);
    require_area(area);
    return allocate(area, size, 0);
}

void *stg_alloc_nr(stg_area *area, size_t size)
{
    if (area == STG_AREA_HEAP)
        return stg_malloc_int(size, 1);
    require_area(area);
    return allocate(area, size, 1);
}

char *stg_area_strdup(stg_area *area, const char *s)
{
    if (s == nullptr)
        return nullptr;
    const std::size_t size = std::strlen(s) + 1;
    auto *copy = static_cast<char *>(stg_alloc(area, size));
    if (copy != nullptr)
        std::memcpy(copy, s, size);
    return copy;
}

void stg_set_growth(stg_area *area, double factor)
{
    require_area(area);
    const AreaLock lock(area);
    if (factor > 1.0)
        area->growth = static_cast<float>(factor);
}

void stg_set_incr(stg_area *area, uint64_t bytes)
{
    require_area(area);
    const AreaLock lock(area);
    area->incr = bytes;
    area->incr_set = 1;
}

void stg_set_zero(stg_area *area)
{
    require_area(area);
    const AreaLock lock(area);
    area->zero = 1;
}

void stg_free_area(stg_area *area, int keep_first)
{
    require_area(area);
    const AreaLock lock(area);
    clear(area, keep_first, 0);
}

void stg_free_area_nr(stg_area *area, int keep_first)
{
    require_area(area);
    const AreaLock lock(area);
    clear(area, keep_first, 1);
}

void stg_delete_area(stg_area **area)
{
    destroy(area, 0);
}

void stg_delete_area_nr(stg_area **area)
{
    destroy(area, 1);
}

void stg_dump_area(stg_area *area)
{
    require_area(area);
    dump(area);
}

// Kept exactly: areas are entered in a registry whose bitmap is combined with AND and so stays clear. Every
// area has its first slot, none is ever found there, and nobody need enter any: there is nothing to print.
void stg_dump(void)
{
    const ks::InhibitGuard inhibit;
}
}
