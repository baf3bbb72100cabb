// The heap level: malloc, and a checking heap while "ks/stg" is traced.
//
// A checked block is an 8-byte header with the requested size, the caller's bytes, and 8 to 15
// guard bytes. Whether a new block is checked is decided afresh at each call. Of a block that exists,
// its address says how it was made: malloc's blocks begin at multiples of 16, so the caller's bytes
// of a checked block begin 8 behind one. So tracing may be switched while blocks are out, those of the
// library's own structures among them.
#include "kernel/stg_impl.h"

#include "kernel/stg_quiet.h"

#include <cstdlib>
#include <cstring>

namespace {

constexpr std::size_t header_bytes = 8;
constexpr std::size_t malloc_alignment = 16;
static_assert(alignof(std::max_align_t) == malloc_alignment);
constexpr std::size_t overhead_bytes = 16;
constexpr unsigned char fresh_fill = 0xFF;
constexpr unsigned char guard_fill = 0xAA;
constexpr uint64_t freed_pattern = 0x41EBD5B7DDE00000; // the double 3735928559.0
constexpr long block_trace_level = 5;

void *report_exhaustion()
{
    ks::stg_print(ks::msg_error, ks::stg_msg_no_memory);
    errno = ENOMEM;
    return nullptr;
}

template <typename... Args> void trace_block(int quiet, ks::StgMsg message, Args... args)
{
    if (quiet == 0 && ks::stg_is_traced(block_trace_level))
        ks::stg_print(ks::msg_trace, message, args...);
}

// Size of a checked block with header and guard; false on overflow.
bool checked_size(std::size_t size, std::size_t &out_total)
{
    return ks::round_up_8(size, out_total) && !__builtin_add_overflow(out_total, overhead_bytes, &out_total);
}

bool is_checked(const void *ptr)
{
    return ks::address_number(ptr) % malloc_alignment == header_bytes;
}

// Some allocators align blocks below 16 bytes to 8 only.
size_t plain_size(size_t size)
{
    return size < malloc_alignment ? malloc_alignment : size;
}

std::size_t &requested_size(char *block)
{
    return *reinterpret_cast<std::size_t *>(block);
}

void write_guard(char *block, size_t size, size_t total)
{
    std::memset(block + header_bytes + size, guard_fill, total - header_bytes - size);
}

// Reports the first guard byte that was overwritten, and goes on.
void check_guard(char *block, int quiet)
{
    const std::size_t size = requested_size(block);
    std::size_t total = 0;
    if (quiet != 0 || !ks::stg_is_checking() || !checked_size(size, total))
        return;
    for (std::size_t i = header_bytes + size; i < total; ++i) {
        if (static_cast<unsigned char>(block[i]) != guard_fill) {
            ks::stg_print(ks::msg_error, ks::stg_msg_guard_overwritten, ks::address_number(block + header_bytes),
                          ks::address_number(block + i));
            return;
        }
    }
}

void *checked_malloc(size_t size)
{
    std::size_t total = 0;
    auto *block = checked_size(size, total) ? static_cast<char *>(std::malloc(total)) : nullptr;
    if (block == nullptr)
        return nullptr;
    requested_size(block) = size;
    std::memset(block + header_bytes, fresh_fill, size);
    write_guard(block, size, total);
    return block + header_bytes;
}

void *checked_realloc(void *ptr, size_t size, int quiet)
{
    char *block = static_cast<char *>(ptr) - header_bytes;
    check_guard(block, quiet);
    std::size_t total = 0;
    auto *moved = checked_size(size, total) ? static_cast<char *>(std::realloc(block, total)) : nullptr;
    if (moved == nullptr)
        return nullptr;
    requested_size(moved) = size;
    write_guard(moved, size, total);
    return moved + header_bytes;
}

void poison(char *block)
{
    std::size_t total = 0;
    if (!checked_size(requested_size(block), total))
        return;
    for (std::size_t at = 0; at < total; at += sizeof freed_pattern)
        std::memcpy(block + at, &freed_pattern, sizeof freed_pattern);
}

void checked_free(void *ptr, int quiet)
{
    char *block = static_cast<char *>(ptr) - header_bytes;
    check_guard(block, quiet);
    poison(block);
    std::free(block);
}

[[gnu::noinline]] void *malloc_in_full(std::size_t size, int quiet)
{
    void *block = ks::heap_try_malloc(size);
    if (block == nullptr)
        return report_exhaustion();
    trace_block(quiet, ks::stg_msg_block_allocated, ks::address_number(block), static_cast<unsigned>(size));
    return block;
}

[[gnu::noinline]] void free_in_full(void *ptr, int quiet)
{
    trace_block(quiet, ks::stg_msg_block_freeing, ks::address_number(ptr));
    if (is_checked(ptr))
        checked_free(ptr, quiet);
    else
        std::free(ptr);
}

// Lists and tables are made of single blocks, so while nothing is traced there is one step to the C library's heap.
[[gnu::always_inline]] inline void *malloc_block(std::size_t size, int quiet)
{
    if (ks::may_be_traced(1)) [[unlikely]]
        return malloc_in_full(size, quiet);
    void *block = std::malloc(plain_size(size));
    return block != nullptr ? block : report_exhaustion();
}

[[gnu::always_inline]] inline void free_block(void *ptr, int quiet)
{
    if (ptr == nullptr)
        return;
    if (ks::may_be_traced(1) || is_checked(ptr)) [[unlikely]]
        free_in_full(ptr, quiet);
    else
        std::free(ptr);
}

} // namespace

namespace ks {

void *heap_try_malloc(size_t size)
{
    return stg_is_checking() ? checked_malloc(size == 0 ? 1 : size) : std::malloc(plain_size(size));
}

} // namespace ks

extern "C" {

void *stg_malloc_int(size_t size, int quiet)
{
    return malloc_block(size, quiet);
}

void *stg_malloc(size_t size)
{
    return malloc_block(size, 0);
}

void *stg_realloc_int(void *ptr, size_t size, int quiet)
{
    if (ptr == nullptr)
        return stg_malloc_int(size, quiet);
    if (size == 0)
        size = 1;
    const unsigned long old_address = ks::address_number(ptr);
    void *block = is_checked(ptr) ? checked_realloc(ptr, size, quiet) : std::realloc(ptr, plain_size(size));
    if (block == nullptr)
        return report_exhaustion();
    trace_block(quiet, ks::stg_msg_block_reallocated, old_address, ks::address_number(block),
                static_cast<unsigned>(size));
    return block;
}

void *stg_realloc(void *ptr, size_t size)
{
    return stg_realloc_int(ptr, size, 0);
}

void stg_free_int(void *ptr, int quiet)
{
    free_block(ptr, quiet);
}

void stg_free(void *ptr)
{
    free_block(ptr, 0);
}

char *stg_strdup(const char *s)
{
    const std::size_t size = std::strlen(s) + 1;
    auto *copy = static_cast<char *>(stg_malloc(size));
    if (copy != nullptr)
        std::memcpy(copy, s, size);
    return copy;
}
}
