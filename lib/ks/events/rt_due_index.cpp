// The index over timed events.
#include "events/rt_due_index.h"

#include "kernel/stg_quiet.h"

#include <algorithm>
#include <utility>

namespace ks::rt {

namespace {

constexpr std::size_t blocks_at_first = 16;

template <typename Time> std::size_t is_until(const Time &time, const rt_event *event)
{
    return static_cast<std::size_t>((time.tv_sec < event->tv_sec) |
                                    ((time.tv_sec == event->tv_sec) & (time.tv_usec <= event->tv_usec)));
}

// How many of sorted times are due no later than the event. By arithmetic, not by jumps, which nobody could foretell:
// the places of events that are scheduled in no order are found twice as fast.
template <typename Time> std::size_t count_until(const Time *times, std::size_t count, const rt_event *event)
{
    const Time *base = times;
    while (count > 1) {
        const std::size_t half = count / 2;
        base += is_until(base[half - 1], event) * half;
        count -= half;
    }
    return static_cast<std::size_t>(base - times) + (count == 1 ? is_until(*base, event) : 0);
}

} // namespace

bool DueIndex::is_at(const Entry &entry, const rt_event *event)
{
    return entry.tv_sec == event->tv_sec && entry.tv_usec == event->tv_usec;
}

DueIndex::Place DueIndex::find(const rt_event *event) const
{
    const std::size_t begun = count_until(slots_, block_count_, event);
    if (begun == 0)
        return {0, 0, false};
    const Block &found = block(begun - 1);
    return {begun - 1, count_until(found.entries.data(), found.count, event) - 1, true};
}

DueIndex::Place DueIndex::find_end() const
{
    if (block_count_ == 0)
        return {0, 0, false};
    return {block_count_ - 1, block(block_count_ - 1).count - 1, true};
}

// The place of an event that is on the list; most leave it at its ends.
DueIndex::Place DueIndex::find_own(const rt_event *event) const
{
    constexpr Place front{0, 0, true};
    if (block_count_ != 0 && is_at(at(front), event))
        return front;
    return event->next == nullptr ? find_end() : find(event);
}

// After a change of a block's first entry.
void DueIndex::note_begin(std::size_t index)
{
    slots_[index].tv_sec = block(index).entries[0].tv_sec;
    slots_[index].tv_usec = block(index).entries[0].tv_usec;
}

// Opens a block at a place in the array; false on exhaustion.
bool DueIndex::insert_block(std::size_t index)
{
    if (block_count_ == capacity_) {
        const std::size_t wanted = std::max(blocks_at_first, capacity_ * 2);
        auto *grown = static_cast<Slot *>(heap_try_malloc(wanted * sizeof(Slot)));
        if (grown == nullptr)
            return false;
        std::copy_n(slots_, block_count_, grown);
        stg_free_int(std::exchange(slots_, grown), 1);
        capacity_ = wanted;
    }
    Block *opened = std::exchange(spare_, nullptr);
    if (opened == nullptr)
        opened = static_cast<Block *>(heap_try_malloc(sizeof(Block)));
    if (opened == nullptr)
        return false;
    opened->count = 0;
    std::copy_backward(slots_ + index, slots_ + block_count_, slots_ + block_count_ + 1);
    slots_[index].block = opened;
    ++block_count_;
    return true;
}

void DueIndex::remove_block(std::size_t index)
{
    stg_free_int(std::exchange(spare_, slots_[index].block), 1);
    std::copy(slots_ + index + 1, slots_ + block_count_, slots_ + index);
    --block_count_;
}

// Sees to it that an entry can be inserted at `place`; false on exhaustion. A full block is divided; where events come
// in the order of their times the full one is left as it is.
bool DueIndex::make_room(Place &place)
{
    if (block_count_ == 0)
        return insert_block(0);
    if (block(place.block).count < entries_per_block)
        return true;
    const bool is_at_the_end = place.block + 1 == block_count_ && place.entry == entries_per_block;
    if (!insert_block(place.block + 1))
        return false;
    Block &full = block(place.block);
    Block &next = block(place.block + 1);
    const std::size_t kept = is_at_the_end ? entries_per_block : entries_per_block / 2;
    next.count = entries_per_block - kept;
    full.count = kept;
    std::copy_n(full.entries.begin() + kept, next.count, next.entries.begin());
    if (next.count != 0)
        note_begin(place.block + 1);
    if (place.entry > kept || is_at_the_end)
        place = {place.block + 1, place.entry - kept, place.is_found};
    return true;
}

// Whether an entry of the event's due time is there, which then names it.
bool DueIndex::update(Place place, rt_event *event)
{
    if (!place.is_found || !is_at(at(place), event))
        return false;
    block(place.block).entries[place.entry].last = event;
    return true;
}

void DueIndex::insert_entry(Place place, rt_event *event)
{
    Block &into = block(place.block);
    const auto to = into.entries.begin() + static_cast<std::ptrdiff_t>(place.entry);
    const auto end = into.entries.begin() + static_cast<std::ptrdiff_t>(into.count);
    std::copy_backward(to, end, end + 1);
    *to = {event->tv_sec, event->tv_usec, event};
    ++into.count;
    if (place.entry == 0)
        note_begin(place.block);
}

void DueIndex::note(Place place, rt_event *event)
{
    if (update(place, event))
        return;
    if (place.is_found)
        ++place.entry; // behind what is due before
    if (make_room(place))
        insert_entry(place, event);
}

void DueIndex::note_in_place(Place place, rt_event *event)
{
    if (block_count_ == 0 || update(place, event))
        return;
    if (block(place.block).count < entries_per_block) {
        insert_entry({place.block, place.entry + (place.is_found ? 1 : 0), true}, event);
    } else if (place.is_found) {
        block(place.block).entries[place.entry] = {event->tv_sec, event->tv_usec, event};
        note_begin(place.block);
    }
}

void DueIndex::merge_with_next(std::size_t index)
{
    if (index + 1 >= block_count_)
        return;
    Block &into = block(index);
    const Block &next = block(index + 1);
    if (into.count + next.count > entries_per_block / 2)
        return;
    std::copy_n(next.entries.begin(), next.count, into.entries.begin() + static_cast<std::ptrdiff_t>(into.count));
    into.count += next.count;
    remove_block(index + 1);
}

void DueIndex::remove_entry(Place place)
{
    Block &from = block(place.block);
    const auto entry = from.entries.begin() + static_cast<std::ptrdiff_t>(place.entry);
    std::copy(entry + 1, from.entries.begin() + static_cast<std::ptrdiff_t>(from.count), entry);
    if (--from.count == 0) {
        remove_block(place.block);
        return;
    }
    if (place.entry == 0)
        note_begin(place.block);
    merge_with_next(place.block);
}

void DueIndex::forget(const rt_event *event)
{
    const Place place = find_own(event);
    if (!place.is_found || at(place).last != event)
        return;
    rt_event *prev = event->prev;
    if (prev != nullptr && is_at(at(place), prev))
        block(place.block).entries[place.entry].last = prev;
    else
        remove_entry(place);
}

} // namespace ks::rt
