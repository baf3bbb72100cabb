// Arrays that begin with a long stretch in order, forwards or backwards: all of a sorted or reversed
// array, half of one that rises and falls, most of one to which something was appended. The stretch
// is found with one comparison for each of its elements; only what follows it is left to sort, and
// both are merged in place.
#pragma once

#include "util/ks_sort_impl.h"

#include <algorithm>

namespace ks::sort {

// Exchanges two neighbouring blocks of bytes.
inline void rotate_blocks(unsigned char *base, std::size_t left, std::size_t right)
{
    while (left != 0 && right != 0) {
        const std::size_t step = std::min(left, right);
        swap_blocks(base, base + left, step);
        base += step;
        (left <= right ? right : left) -= step;
    }
}

template <typename Size> class Runs {
  public:
    explicit Runs(const Order<Size> &order) : order_(order) {}

    // Sorts `count` elements, at least 2, if a long run opens them; else changes nothing. What
    // follows the run is sorted by sort_rest(base, count).
    template <typename SortRest> bool sort(unsigned char *base, std::size_t count, SortRest sort_rest) const
    {
        const Run run = run_at(base, count);
        if (!is_worth_keeping(run.count, count))
            return false;
        make_ascending(base, run);
        if (run.count == count)
            return true;
        sort_rest(order_.at(base, run.count), count - run.count);
        merge_runs(base, run.count, count - run.count);
        return true;
    }

  private:
    // Elements are merged in steps that fit in here, beside the array.
    static constexpr std::size_t step_max = 4096;
    static constexpr std::size_t run_min = 32;
    static constexpr std::size_t mergeable_size_max = 1024;
    struct Scratch {
        unsigned char elements[16 * mergeable_size_max];
        bool is_from_right[step_max];
    };

    struct Run {
        std::size_t count;
        bool is_descending;
    };

    bool is_worth_keeping(std::size_t run_count, std::size_t count) const
    {
        if (run_count == count)
            return true;
        return run_count >= run_min && run_count >= count / 4 && order_.size.size() <= mergeable_size_max;
    }

    Run run_at(unsigned char *base, std::size_t count) const
    {
        if (count < 2)
            return {count, false};
        const std::size_t size = order_.size.size();
        const unsigned char *const end = order_.at(base, count);
        const unsigned char *e = base + size;
        const bool is_descending = order_(base, e) > 0;
        if (is_descending)
            while ((e += size) != end && order_(e - size, e) >= 0)
                ;
        else
            while ((e += size) != end && order_(e - size, e) <= 0)
                ;
        return {static_cast<std::size_t>(e - base) / size, is_descending};
    }

    void make_ascending(unsigned char *base, Run run) const
    {
        if (!run.is_descending)
            return;
        unsigned char *last = order_.at(base, run.count - 1);
        for (; base < last; base += order_.size.size(), last -= order_.size.size())
            order_.size.swap(base, last);
    }

    // Not inlined, so that the scratch is not on the stack while the rest is sorted.
    [[gnu::noinline]] void merge_runs(unsigned char *base, std::size_t left, std::size_t right) const
    {
        Scratch scratch;
        merge(base, left, right, scratch);
    }

    // Merges two neighbouring ascending runs: the larger is halved, the other cut at the same value,
    // the inner pieces change places, and both pairs are merged in the same way.
    void merge(unsigned char *base, std::size_t left, std::size_t right, Scratch &scratch) const
    {
        const std::size_t size = order_.size.size();
        const std::size_t fitting = std::min(step_max, sizeof scratch.elements / size);
        while (left != 0 && right != 0) {
            if (left + right <= fitting)
                return merge_step(base, left, right, scratch);
            unsigned char *middle = order_.at(base, left);
            const std::size_t left_cut =
                left >= right ? left / 2 : count_below(base, left, order_.at(middle, right / 2));
            const std::size_t right_cut =
                left >= right ? count_below(middle, right, order_.at(base, left / 2)) : right / 2;
            rotate_blocks(order_.at(base, left_cut), (left - left_cut) * size, right_cut * size);
            merge(base, left_cut, right_cut, scratch);
            base = order_.at(base, left_cut + right_cut);
            left -= left_cut;
            right -= right_cut;
        }
    }

    // Elements of an ascending run that stand before `value`.
    std::size_t count_below(unsigned char *run, std::size_t count, const unsigned char *value) const
    {
        std::size_t low = 0;
        while (low < count) {
            const std::size_t middle = low + (count - low) / 2;
            if (order_(order_.at(run, middle), value) < 0)
                low = middle + 1;
            else
                count = middle;
        }
        return low;
    }

    // All comparisons come first and only note where each element comes from; then the elements
    // move.
    void merge_step(unsigned char *base, std::size_t left_count, std::size_t right_count, Scratch &scratch) const
    {
        const std::size_t size = order_.size.size();
        unsigned char *left = base;
        unsigned char *right = order_.at(base, left_count);
        unsigned char *const left_end = right;
        unsigned char *const right_end = order_.at(right, right_count);
        std::size_t taken = 0;
        while (left != left_end && right != right_end) {
            const bool is_from_right = order_(left, right) > 0;
            scratch.is_from_right[taken++] = is_from_right;
            (is_from_right ? right : left) += size;
        }
        const auto left_rest = static_cast<std::size_t>(left_end - left);
        left = base;
        right = left_end;
        unsigned char *out = scratch.elements;
        for (std::size_t i = 0; i < taken; ++i, out += size) {
            unsigned char *&from = scratch.is_from_right[i] ? right : left;
            order_.size.copy(out, from);
            from += size;
        }
        std::memmove(right_end - left_rest, left, left_rest);
        std::memcpy(base, scratch.elements, taken * size);
    }

    Order<Size> order_;
};

} // namespace ks::sort
