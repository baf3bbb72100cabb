// What does sorting a million elements through a comparison function cost, in random order and in
// the orders that programs meet? Copying the input is not timed.
#include "bench_input.h"

#include <korvaks/ks_sort.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

constexpr std::size_t count = 1'000'000;

struct Record {
    int key;
    unsigned char payload[60];
};
static_assert(sizeof(Record) == 64);

int key_of(int number)
{
    return number;
}

int key_of(const Record &record)
{
    return record.key;
}

void set_key(int &number, int key)
{
    number = key;
}

void set_key(Record &record, int key)
{
    record.key = key;
}

template <typename Element> int compare(const void *a, const void *b, void *)
{
    const int left = key_of(*static_cast<const Element *>(a));
    const int right = key_of(*static_cast<const Element *>(b));
    return (left > right) - (left < right);
}

enum class Input { random, sorted, reversed, equal, organ_pipe };

template <typename Element> std::vector<Element> make_input(Input input)
{
    bench::Random random(0xABCDEF);
    std::vector<Element> elements(count);
    for (std::size_t i = 0; i < count; ++i) {
        std::size_t key = random.below(1u << 30);
        if (input == Input::sorted)
            key = i;
        else if (input == Input::reversed)
            key = count - i;
        else if (input == Input::equal)
            key = 7;
        else if (input == Input::organ_pipe)
            key = std::min(i, count - i);
        set_key(elements[i], static_cast<int>(key));
    }
    return elements;
}

template <typename Element> struct Korvaks {
    static void sort(std::vector<Element> &elements)
    {
        ks_qsort(elements.data(), elements.size(), sizeof(Element), compare<Element>, nullptr);
    }
};

template <typename Element> struct CLibrary {
    static void sort(std::vector<Element> &elements)
    {
        qsort_r(elements.data(), elements.size(), sizeof(Element), compare<Element>, nullptr);
    }
};

// The template, with the comparison that the others have: a function that the compiler does not see.
template <typename Element> struct StdSort {
    static void sort(std::vector<Element> &elements)
    {
        ks_compare_fn function = compare<Element>;
        benchmark::DoNotOptimize(function);
        std::sort(elements.begin(), elements.end(),
                  [function](const Element &a, const Element &b) { return function(&a, &b, nullptr) < 0; });
    }
};

template <typename Element, typename Sorter> void sort(benchmark::State &state, Input input)
{
    const std::vector<Element> original = make_input<Element>(input);
    std::vector<Element> elements = original;
    for (auto _ : state) {
        state.PauseTiming();
        std::copy(original.begin(), original.end(), elements.begin());
        state.ResumeTiming();
        Sorter::sort(elements);
    }
    if (!std::is_sorted(elements.begin(), elements.end(),
                        [](const Element &a, const Element &b) { return key_of(a) < key_of(b); }))
        state.SkipWithError("not sorted");
}

template <typename Element> void add(const std::string &job, Input input)
{
    const auto add_sorter = [&](const char *name, void (*run)(benchmark::State &, Input)) {
        benchmark::RegisterBenchmark(("sort/" + job + "/" + name).c_str(), run, input)->Unit(benchmark::kMillisecond);
    };
    add_sorter("korvaks", sort<Element, Korvaks<Element>>);
    add_sorter("qsort_r", sort<Element, CLibrary<Element>>);
    add_sorter("std_sort", sort<Element, StdSort<Element>>);
}

const bool added = [] {
    add<int>("ints_random", Input::random);
    add<Record>("records_random", Input::random);
    add<int>("ints_sorted", Input::sorted);
    add<int>("ints_reversed", Input::reversed);
    add<int>("ints_equal", Input::equal);
    add<int>("ints_organ_pipe", Input::organ_pipe);
    return true;
}();

} // namespace
