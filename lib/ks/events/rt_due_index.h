// An index over the list of timed events by due time, which stands outside the events: their record is interface.
//
// For each due time it knows the last event of the list that is due then. It only speeds a search up: an entry for
// which there was no memory is missing, and the search, which ends with a few steps along the list, takes more of
// them. Entries lie sorted in blocks, the blocks in an array.
#pragma once

#include <korvaks/rt.h>

#include <array>
#include <cstddef>
#include <cstdint>

namespace ks::rt {

inline bool is_earlier(const rt_event &a, const rt_event &b)
{
    return a.tv_sec != b.tv_sec ? a.tv_sec < b.tv_sec : a.tv_usec < b.tv_usec;
}

class DueIndex {
  public:
    // The last entry due no later than a time; `is_found` is false when there is none. Good until the next change.
    struct Place {
        std::size_t block;
        std::size_t entry;
        bool is_found;
    };
    Place find(const rt_event *event) const;
    // The same for an event that is due no earlier than all of the list.
    Place find_end() const;

    // An event of the list that is due no later than the one whose place it is, and close before it; NULL when none is
    // known.
    rt_event *before(Place place) const { return place.is_found ? at(place).last : nullptr; }

    // `event`, whose place this is, is on the list now, behind all of its due time.
    void note(Place place, rt_event *event);

    // The same for a signal's way, without memory: where there is no room the entry before gives its place up, so that
    // a search still begins close to the event.
    void note_in_place(Place place, rt_event *event);

    // `event` is about to be taken off the list.
    void forget(const rt_event *event);

  private:
    struct Entry {
        int64_t tv_sec;
        int64_t tv_usec;
        rt_event *last;
    };
    static constexpr std::size_t entries_per_block = 42; // about a KiB
    struct Block {
        std::size_t count; // at least 1
        std::array<Entry, entries_per_block> entries;
    };
    // In the array a block stands with the time that it begins with: a search touches one block only.
    struct Slot {
        int64_t tv_sec;
        int64_t tv_usec;
        Block *block;
    };

    static bool is_at(const Entry &entry, const rt_event *event);
    Block &block(std::size_t index) const { return *slots_[index].block; }
    const Entry &at(Place place) const { return block(place.block).entries[place.entry]; }
    Place find_own(const rt_event *event) const;
    void note_begin(std::size_t index);
    bool update(Place place, rt_event *event);
    void insert_entry(Place place, rt_event *event);
    bool make_room(Place &place);
    bool insert_block(std::size_t index);
    void remove_block(std::size_t index);
    void remove_entry(Place place);
    void merge_with_next(std::size_t index);

    Slot *slots_ = nullptr;
    std::size_t block_count_ = 0; // 0: the index is empty
    std::size_t capacity_ = 0;
    Block *spare_ = nullptr; // so that blocks do not come and go with one event
};

} // namespace ks::rt
