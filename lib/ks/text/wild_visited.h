// Where a walk with several "..." has been. Such a walk comes to one directory in many ways, and more often the
// deeper it lies; each is gone through once for all that may be left of the word.
#pragma once

#include "text/wild_impl.h"

#include <cstdint>

namespace ks::wild {

// Directories have numbers, 0 is the one where the walk starts. False: memory ran out. It is released by its owner.
class Visited {
  public:
    // The number of the directory `name` in another one.
    [[nodiscard]] bool number_below(std::uint32_t above, std::string_view name, std::uint32_t &out_number);

    // Remembers a visit with what is left of the word, for which any number may stand.
    [[nodiscard]] bool enter(std::uint32_t number, std::size_t left, bool &out_is_first);

    void release();

  private:
    // Row n has the number n + 1. A visit is a row as well, by a name that no directory has.
    struct Row {
        std::size_t offset; // of the name in the names
        std::size_t size;
        std::uint32_t above;
        std::uint32_t hash;
    };

    [[nodiscard]] bool grow_slots();
    std::uint32_t *slot_of(const Row &row, std::string_view name) const;

    Store<Row> rows_;
    Text names_;
    std::uint32_t *slots_ = nullptr; // numbers by hash, 0 for none; never more than half of them in use
    std::size_t slot_count_ = 0;     // a power of 2
};

} // namespace ks::wild
