// The index over timed events.
#include "events/rt_due_index.h"

#include "kernel/stg_quiet.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace ks::rt {

namespace {

constexpr std::size_t blocks_at_first = 16;

} // namespace

bool DueIndex::is_later(const Entry &entry, const rt_event *event)
{
    return entry.tv_sec != event->tv_sec ? entry.tv_sec > event->tv_sec : entry.tv_usec > event->tv_usec;
}

bool DueIndex::is_at(const Entry &entry, const rt_event *event)
{
    return entry.tv_sec == event->tv_sec && entry.tv_usec == event->tv_usec;
}

// The last block that begins no later than the event, or the first. Most events are scheduled behind all others or
// leave from the front.
std::size_t DueIndex::find_block(const rt_event *event) const
{
    if (!is_later(blocks_[block_count_ - 1]->entries[0], event))
        return block_count_ - 1;
    const auto end = blocks_ + block_count_;
    const auto after = std::upper_bound(
        blocks_, end, event, [](const rt_event *e, const Block *block) { return is_later(block->entries[0], e); });
    return after == blocks_ ? 0 : static_cast<std::size_t>(after - blocks_) - 1;
}

DueIndex::Place DueIndex::find(const rt_event *event) const
{
    if (block_count_ == 0)
        return {0, 0, false};
    const std::size_t index = find_block(event);
    const Block &block = *blocks_[index];
    const auto begin = block.entries.begin();
    const auto end = begin + static_cast<std::ptrdiff_t>(block.count);
    const auto after =
        std::upper_bound(begin, end, event, [](const rt_event *e, const Entry &entry) { return is_later(entry, e); });
    if (after == begin)
        return {index, 0, false};
    return {index, static_cast<std::size_t>(after - begin) - 1, true};
}

rt_event *DueIndex::find_before(const rt_event *event) const
{
    const Place place = find(event);
    return place.is_found ? at(place).last : nullptr;
}

// Opens a block at a place in the array; false on exhaustion.
bool DueIndex::insert_block(std::size_t index)
{
    if (block_count_ == capacity_) {
        const std::size_t wanted = std::max(blocks_at_first, capacity_ * 2);
        auto **grown = static_cast<Block **>(heap_try_malloc(wanted * sizeof(Block *)));
        if (grown == nullptr)
            return false;
        std::copy_n(blocks_, block_count_, grown);
        stg_free_int(std::exchange(blocks_, grown), 1);
        capacity_ = wanted;
    }
    Block *block = std::exchange(spare_, nullptr);
    if (block == nullptr)
        block = static_cast<Block *>(heap_try_malloc(sizeof(Block)));
    if (block == nullptr)
        return false;
    block->count = 0;
    std::copy_backward(blocks_ + index, blocks_ + block_count_, blocks_ + block_count_ + 1);
    blocks_[index] = block;
    ++block_count_;
    return true;
}

void DueIndex::remove_block(std::size_t index)
{
    stg_free_int(std::exchange(spare_, blocks_[index]), 1);
    std::copy(blocks_ + index + 1, blocks_ + block_count_, blocks_ + index);
    --block_count_;
}

// Sees to it that an entry can be inserted at `place`; false on exhaustion. A full block is divided; where events come
// in the order of their times the full one is left as it is.
bool DueIndex::make_room(Place &place)
{
    if (block_count_ == 0)
        return insert_block(0);
    if (blocks_[place.block]->count < entries_per_block)
        return true;
    const bool is_at_the_end = place.block + 1 == block_count_ && place.entry == entries_per_block;
    if (!insert_block(place.block + 1))
        return false;
    Block &full = *blocks_[place.block];
    Block &next = *blocks_[place.block + 1];
    const std::size_t kept = is_at_the_end ? entries_per_block : entries_per_block / 2;
    next.count = entries_per_block - kept;
    full.count = kept;
    std::copy_n(full.entries.begin() + kept, next.count, next.entries.begin());
    if (place.entry > kept || is_at_the_end)
        place = {place.block + 1, place.entry - kept, place.is_found};
    return true;
}

// Whether an entry of the event's due time is there, which then names it.
bool DueIndex::update(Place place, rt_event *event)
{
    if (!place.is_found || !is_at(at(place), event))
        return false;
    blocks_[place.block]->entries[place.entry].last = event;
    return true;
}

void DueIndex::insert_entry(Place place, rt_event *event)
{
    Block &block = *blocks_[place.block];
    const auto to = block.entries.begin() + static_cast<std::ptrdiff_t>(place.entry);
    const auto end = block.entries.begin() + static_cast<std::ptrdiff_t>(block.count);
    std::copy_backward(to, end, end + 1);
    *to = {event->tv_sec, event->tv_usec, event};
    ++block.count;
}

void DueIndex::note(rt_event *event)
{
    Place place = find(event);
    if (update(place, event))
        return;
    if (place.is_found)
        ++place.entry; // behind what is due before
    if (make_room(place))
        insert_entry(place, event);
}

void DueIndex::note_in_place(rt_event *event)
{
    Place place = find(event);
    if (block_count_ == 0 || update(place, event))
        return;
    Block &block = *blocks_[place.block];
    if (block.count < entries_per_block)
        insert_entry({place.block, place.entry + (place.is_found ? 1 : 0), true}, event);
    else if (place.is_found)
        block.entries[place.entry] = {event->tv_sec, event->tv_usec, event};
}

void DueIndex::merge_with_next(std::size_t index)
{
    if (index + 1 >= block_count_)
        return;
    Block &block = *blocks_[index];
    const Block &next = *blocks_[index + 1];
    if (block.count + next.count > entries_per_block / 2)
        return;
    std::copy_n(next.entries.begin(), next.count, block.entries.begin() + static_cast<std::ptrdiff_t>(block.count));
    block.count += next.count;
    remove_block(index + 1);
}

void DueIndex::remove_entry(Place place)
{
    Block &block = *blocks_[place.block];
    const auto from = block.entries.begin() + static_cast<std::ptrdiff_t>(place.entry);
    std::copy(from + 1, block.entries.begin() + static_cast<std::ptrdiff_t>(block.count), from);
    if (--block.count == 0)
        remove_block(place.block);
    else
        merge_with_next(place.block);
}

void DueIndex::forget(const rt_event *event)
{
    const Place place = find(event);
    if (!place.is_found || at(place).last != event)
        return;
    rt_event *before = event->prev;
    if (before != nullptr && is_at(at(place), before))
        blocks_[place.block]->entries[place.entry].last = before;
    else
        remove_entry(place);
}

} // namespace ks::rt
