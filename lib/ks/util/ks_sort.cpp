// Quicksort around the median of three.
//
// A range that is known to be in order needs no partition: that is how a run at its beginning, or a
// heap sort in place of splits that keep going wrong, cut the work short.
#include <korvaks/ks_sort.h>

#include "util/ks_sort_impl.h"
#include "util/ks_sort_runs.h"

#include <algorithm>
#include <bit>

namespace {

using ks::sort::AnySize;
using ks::sort::Order;
using ks::sort::Runs;
using ks::sort::SizeOf;
using ks::sort::Words;

constexpr std::size_t insertion_max = 3;
constexpr std::size_t median_of_three_min = 6;

// A split of at least so many elements that leaves more than 7/8 of them on one side is bad.
constexpr std::size_t bad_split_min = 64;

// What a partition leaves; between the two parts stand the pivot and elements that equal it.
struct Parts {
    std::size_t left_count;
    std::size_t right_first;
};

template <typename Size> class Quicksort {
  public:
    explicit Quicksort(const Order<Size> &order) : order_(order) {}

    // Straight insertion of up to 3 elements.
    void insertion_sort(unsigned char *base, std::size_t count) const
    {
        if (count < 2)
            return;
        unsigned char *second = at(base, 1);
        order_pair(base, second);
        if (count == 2 || order_(second, at(base, 2)) <= 0)
            return;
        order_.size.swap(second, at(base, 2));
        order_pair(base, second);
    }

    void sort(unsigned char *base, std::size_t count, unsigned bad_splits_left) const
    {
        while (count > insertion_max) {
            choose_pivot(base, count);
            const Parts parts = partition(base, count);
            unsigned char *right = at(base, parts.right_first);
            const std::size_t right_count = count - parts.right_first;
            if (is_bad_split(std::max(parts.left_count, right_count), count)) [[unlikely]] {
                if (bad_splits_left-- == 0)
                    return heap_sort(base, count);
                break_pattern(base, parts.left_count);
                break_pattern(right, right_count);
            }
            // The part that is not larger goes first, so calls never nest deeper than log2(count).
            if (parts.left_count <= right_count) {
                sort(base, parts.left_count, bad_splits_left);
                base = right;
                count = right_count;
            } else {
                sort(right, right_count, bad_splits_left);
                count = parts.left_count;
            }
        }
        insertion_sort(base, count);
    }

  private:
    unsigned char *at(unsigned char *base, std::size_t index) const { return order_.at(base, index); }

    void order_pair(unsigned char *a, unsigned char *b) const
    {
        if (order_(a, b) > 0)
            order_.size.swap(a, b);
    }

    // Puts the pivot into the middle.
    void choose_pivot(unsigned char *base, std::size_t count) const
    {
        if (count < median_of_three_min)
            return;
        unsigned char *middle = at(base, count / 2);
        order_.size.swap(middle, median_of_three(base, middle, at(base, count - 1)));
    }

    unsigned char *median_of_three(unsigned char *a, unsigned char *b, unsigned char *c) const
    {
        if (order_(a, b) > 0)
            std::swap(a, b);
        if (order_(b, c) <= 0)
            return b;
        return order_(a, c) > 0 ? a : c;
    }

    // The pivot waits in front while the others are told apart, then takes its place. Where many
    // elements equal it, a second pass brings them beside it: they are in no part any more.
    Parts partition(unsigned char *base, std::size_t count) const
    {
        order_.size.swap(base, at(base, count / 2));
        const Gathered below = gather(base, count, 0);
        unsigned char *pivot = at(base, below.count);
        order_.size.swap(base, pivot);
        Parts parts = {below.count, below.count + 1};
        if (below.equal_count > count / 8)
            parts.right_first += gather(pivot, count - below.count, 1).count;
        return parts;
    }

    struct Gathered {
        std::size_t count;
        std::size_t equal_count; // among all that were looked at
    };

    // Behind the first element: brings to the front those whose comparison with it gives less than
    // `limit`. Small elements are swapped in any case, which is cheaper than a branch.
    [[gnu::always_inline]] Gathered gather(unsigned char *base, std::size_t count, int limit) const
    {
        const std::size_t size = order_.size.size();
        const unsigned char *const end = at(base, count);
        unsigned char *front = base + size;
        std::size_t equal_count = 0;
        for (unsigned char *element = front; element != end; element += size) {
            const int result = order_(element, base);
            equal_count += result == 0;
            if (Size::is_cheap_to_swap || result < limit)
                order_.size.swap(front, element);
            front += result < limit ? size : 0;
        }
        return {static_cast<std::size_t>(front - base) / size - 1, equal_count};
    }

    static bool is_bad_split(std::size_t larger_count, std::size_t count)
    {
        return count >= bad_split_min && larger_count > count - count / 8;
    }

    // Brings other elements to the three places among which the next pivot is chosen.
    void break_pattern(unsigned char *base, std::size_t count) const
    {
        if (count < median_of_three_min)
            return;
        uint64_t random = count;
        for (const std::size_t place : {std::size_t{0}, count / 2, count - 1}) {
            random = random * 6364136223846793005u + 1442695040888963407u;
            order_.size.swap(at(base, place), at(base, (random >> 32) % count));
        }
    }

    void heap_sort(unsigned char *base, std::size_t count) const
    {
        for (std::size_t i = count / 2; i-- > 0;)
            sift_down(base, i, count);
        while (--count > 0) {
            order_.size.swap(base, at(base, count));
            sift_down(base, 0, count);
        }
    }

    void sift_down(unsigned char *base, std::size_t parent, std::size_t count) const
    {
        for (std::size_t child; (child = 2 * parent + 1) < count; parent = child) {
            if (child + 1 < count && order_(at(base, child), at(base, child + 1)) < 0)
                ++child;
            if (order_(at(base, parent), at(base, child)) >= 0)
                return;
            order_.size.swap(at(base, parent), at(base, child));
        }
    }

    Order<Size> order_;
};

template <typename Size> void sort_range(const Order<Size> &order, unsigned char *base, std::size_t count)
{
    const auto sort_rest = [&](unsigned char *rest, std::size_t rest_count) { sort_range(order, rest, rest_count); };
    if (count > insertion_max && Runs<Size>(order).sort(base, count, sort_rest))
        return;
    Quicksort<Size>(order).sort(base, count, static_cast<unsigned>(std::bit_width(count)));
}

// Calls work(order, first element) with the order that suits the element size.
template <typename Work> void with_order(void *base, std::size_t size, ks_compare_fn compare, void *ctx, Work work)
{
    auto *first = static_cast<unsigned char *>(base);
    switch (size) {
    case 0:
        return;
    case 4:
        return work(Order<SizeOf<uint32_t>>{{}, compare, ctx}, first);
    case 8:
        return work(Order<SizeOf<uint64_t>>{{}, compare, ctx}, first);
    case 16:
        return work(Order<SizeOf<Words<2>>>{{}, compare, ctx}, first);
    case 32:
        return work(Order<SizeOf<Words<4>>>{{}, compare, ctx}, first);
    case 64:
        return work(Order<SizeOf<Words<8>>>{{}, compare, ctx}, first);
    default:
        return work(Order<AnySize>{{size}, compare, ctx}, first);
    }
}

} // namespace

extern "C" {

void ks_qsort(void *base, std::size_t count, std::size_t size, ks_compare_fn compare, void *ctx)
{
    if (count > insertion_max)
        return ks_quick_sort(base, count, size, compare, ctx);
    with_order(base, size, compare, ctx, [count]<typename Size>(const Order<Size> &order, unsigned char *first) {
        Quicksort<Size>(order).insertion_sort(first, count);
    });
}

void ks_quick_sort(void *base, std::size_t count, std::size_t size, ks_compare_fn compare, void *ctx)
{
    with_order(base, size, compare, ctx,
               [count](const auto &order, unsigned char *first) { sort_range(order, first, count); });
}
}
