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

void FdTable::mark_due(ks_fd_set &ready, uint64_t wait)
{
    std::fill_n(due_.begin(), due_words_, 0); // of a pass that was left in its middle
    due_words_ = (next_slot_ + bits - 1) / bits;
    const std::size_t words = (static_cast<std::size_t>(highest_ + 1) + bits - 1) / bits;
    for (std::size_t i = 0; i < words; ++i) {
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
    for (; due_words_ > 0; --due_words_) {
        uint64_t &word = due_[due_words_ - 1];
        if (word == 0)
            continue;
        const std::size_t slot = due_words_ * bits - 1 - static_cast<std::size_t>(std::countl_zero(word));
        clear_due(slot);
        return by_fd_[fd_of_slot_[slot]];
    }
    return nullptr;
}

} // namespace ks::rt
