// The directories that a walk has been to.
#include "text/wild_visited.h"

#include "kernel/stg_quiet.h"

#include <korvaks/hash.h>

#include <algorithm>

namespace ks::wild {

bool Visited::enter(std::uint32_t number, std::size_t left, bool &out_is_first)
{
    char name[1 + sizeof left] = {'/'};
    std::memcpy(name + 1, &left, sizeof left);
    const std::size_t count = rows_.count;
    std::uint32_t unused = 0;
    if (!number_below(number, {name, sizeof name}, unused))
        return false;
    out_is_first = rows_.count > count;
    return true;
}

void Visited::release()
{
    rows_.release();
    names_.release();
    stg_free_int(slots_, 1);
    *this = Visited{};
}

bool Visited::number_below(std::uint32_t above, std::string_view name, std::uint32_t &out_number)
{
    constexpr std::uint32_t spread = 0x9E3779B1; // of one name in many directories
    const Row row{names_.size, name.size(), above, hash_seeded(name.data(), name.size()) + above * spread};
    if (rows_.count >= slot_count_ / 2 && !grow_slots())
        return false;
    std::uint32_t *slot = slot_of(row, name);
    if (*slot == 0) {
        if (rows_.count == UINT32_MAX || !names_.append(name) || !rows_.push(row))
            return false;
        *slot = static_cast<std::uint32_t>(rows_.count);
    }
    out_number = *slot;
    return true;
}

// The slot that has the row, or the free one for it.
std::uint32_t *Visited::slot_of(const Row &row, std::string_view name) const
{
    const auto is_it = [&](const Row &other) {
        return other.hash == row.hash && other.above == row.above &&
               part_of(names_.view(), other.offset, other.size) == name;
    };
    const std::size_t mask = slot_count_ - 1;
    std::size_t at = row.hash & mask;
    while (slots_[at] != 0 && !is_it(rows_.data[slots_[at] - 1]))
        at = (at + 1) & mask;
    return &slots_[at];
}

bool Visited::grow_slots()
{
    constexpr std::size_t first_count = 256;
    const std::size_t count = std::max(first_count, slot_count_ * 2);
    auto *grown = static_cast<std::uint32_t *>(heap_try_malloc(count * sizeof *slots_));
    if (grown == nullptr)
        return false;
    std::fill_n(grown, count, 0U);
    stg_free_int(slots_, 1);
    slots_ = grown;
    slot_count_ = count;
    for (std::size_t i = 0; i < rows_.count; ++i) {
        std::size_t at = rows_.data[i].hash & (count - 1);
        while (slots_[at] != 0)
            at = (at + 1) & (count - 1);
        slots_[at] = static_cast<std::uint32_t>(i + 1);
    }
    return true;
}

} // namespace ks::wild
