// The table of single-descriptor handlers.
#include "events/rt_fd_table.h"

#include <algorithm>
#include <bit>
#include <utility>

namespace ks::rt {

int highest_of(const ks_fd_set &set, int upper)
{
    constexpr std::size_t bits = 64;
    auto word = static_cast<std::size_t>(upper + static_cast<int>(bits)) / bits;
    while (word > 0 && set.words[word - 1] == 0)
        --word;
    return word == 0 ? -1 : static_cast<int>(word * bits) - 1 - std::countl_zero(set.words[word - 1]);
}

void FdTable::add(FdHandler *handler)
{
    // Slots of removed handlers are taken up when they are most of them, so that a walk over the slots costs what the
    // handlers do. There are fewer handlers than half the slots.
    if (next_slot_ > 2 * static_cast<std::size_t>(count_) + 2 * bits || next_slot_ == slot_max)
        renumber();
    handler->slot = static_cast<uint32_t>(next_slot_);
    fd_of_slot_[next_slot_++] = static_cast<uint16_t>(handler->fd);
    by_fd_[static_cast<std::size_t>(handler->fd)] = handler;
    ks_fd_add(&members_, handler->fd);
    highest_ = std::max(highest_, handler->fd);
    ++count_;
}

// Gives the handlers the lowest slots, in their order.
void FdTable::renumber()
{
    std::size_t to = 0;
    for (std::size_t from = 0; from < next_slot_; ++from) {
        const uint16_t fd = fd_of_slot_[from];
        FdHandler *handler = by_fd_[fd];
        if (handler == nullptr || handler->slot != from)
            continue;
        const bool was_due = is_due(from);
        clear_due(from);
        if (was_due)
            set_due(to);
        handler->slot = static_cast<uint32_t>(to);
        fd_of_slot_[to++] = fd;
    }
    next_slot_ = to;
}

FdHandler *FdTable::remove(int fd)
{
    FdHandler *handler = std::exchange(by_fd_[static_cast<std::size_t>(fd)], nullptr);
    if (handler == nullptr)
        return nullptr;
    clear_due(handler->slot);
    ks_fd_remove(&members_, fd);
    --count_;
    if (fd == highest_)
        highest_ = highest_of(members_, fd);
    return handler;
}

void FdTable::set_due(std::size_t slot)
{
    const std::size_t word = slot / bits;
    due_begin_ = due_end_ == 0 ? word : std::min(due_begin_, word);
    due_end_ = std::max(due_end_, word + 1);
    due_[word] |= uint64_t{1} << slot % bits;
}

void FdTable::forget_due()
{
    if (due_end_ != 0)
        std::fill(due_.begin() + static_cast<std::ptrdiff_t>(due_begin_),
                  due_.begin() + static_cast<std::ptrdiff_t>(due_end_), 0);
    due_end_ = 0;
}

void FdTable::mark_due(int fd, uint64_t wait)
{
    const FdHandler *handler = by_fd_[static_cast<std::size_t>(fd)];
    if (handler != nullptr && handler->wait < wait) // else what was found is another file's
        set_due(handler->slot);
}

void FdTable::mark_due(ks_fd_set &ready, std::size_t words, uint64_t wait)
{
    const std::size_t end = std::min(words, static_cast<std::size_t>(highest_ + 1 + static_cast<int>(bits) - 1) / bits);
    for (std::size_t i = 0; i < end; ++i) {
        for (uint64_t both = ready.words[i] & members_.words[i]; both != 0; both &= both - 1) {
            const std::size_t fd = i * bits + static_cast<std::size_t>(std::countr_zero(both));
            if (by_fd_[fd]->wait >= wait)
                continue; // what was found is another file's
            set_due(by_fd_[fd]->slot);
            ks_fd_remove(&ready, static_cast<int>(fd));
        }
    }
}

const FdHandler *FdTable::take_due()
{
    for (; due_end_ > due_begin_; --due_end_) {
        const uint64_t word = due_[due_end_ - 1];
        if (word == 0)
            continue;
        const std::size_t slot = due_end_ * bits - 1 - static_cast<std::size_t>(std::countl_zero(word));
        clear_due(slot);
        return by_fd_[fd_of_slot_[slot]];
    }
    due_end_ = 0;
    return nullptr;
}

} // namespace ks::rt
