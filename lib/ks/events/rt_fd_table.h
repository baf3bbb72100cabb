// The single-descriptor handlers of one kind: found by descriptor, served newest first.
//
// Each handler has a slot; a newer handler has a higher one. So the handlers of ready descriptors, whatever
// their number among the others, come out in their order from a set of slots, and one that is removed meanwhile takes
// its slot out of it.
#pragma once

#include <korvaks/rt.h>

#include <array>
#include <cstddef>
#include <cstdint>

namespace ks::rt {

struct FdHandler {
    rt_fd_fn fn;
    int32_t fd;
    uint32_t slot;
    void *arg;
    uint64_t wait; // during which it was added; it is served after later ones
};

// The highest of a set's descriptors up to `upper`, -1 for none.
int highest_of(const ks_fd_set &set, int upper);

class FdTable {
  public:
    bool has(int fd) const { return by_fd_[static_cast<std::size_t>(fd)] != nullptr; }
    int count() const { return count_; }
    int highest_fd() const { return highest_; } // -1 for none
    const ks_fd_set &members() const { return members_; }

    // The descriptor has no handler yet.
    void add(FdHandler *handler);

    // Takes the handler off the table; NULL when the descriptor has none.
    FdHandler *remove(int fd);

    // Nothing is due any more of what an earlier wait found.
    void forget_due();
    // Takes the descriptors that a wait found ready, and that this table had when it began, out of the first `words`
    // words of `ready`: their handlers are due.
    void mark_due(ks_fd_set &ready, std::size_t words, uint64_t wait);
    // The same for one descriptor, which then is no more than a number.
    void mark_due(int fd, uint64_t wait);

    // The newest handler that is due, which then is not any more; NULL for none.
    const FdHandler *take_due();

  private:
    static constexpr std::size_t slot_max = 32768;
    static constexpr std::size_t bits = 64;
    using SlotSet = std::array<uint64_t, slot_max / bits>;

    void renumber();
    bool is_due(std::size_t slot) const { return (due_[slot / bits] >> slot % bits & 1) != 0; }
    void set_due(std::size_t slot);
    void clear_due(std::size_t slot) { due_[slot / bits] &= ~(uint64_t{1} << slot % bits); }

    std::array<FdHandler *, KS_FD_MAX + 1> by_fd_{};
    std::array<uint16_t, slot_max> fd_of_slot_{}; // as far as the descriptor's handler has the slot
    ks_fd_set members_{};
    SlotSet due_{};
    std::size_t next_slot_ = 0;
    std::size_t due_begin_ = 0; // no word before this one and
    std::size_t due_end_ = 0;   // none from here on has a bit
    int count_ = 0;
    int highest_ = -1;
};

} // namespace ks::rt
