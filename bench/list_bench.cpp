// What does a list of a thousand pointers cost that is built at its end, walked once and destroyed?
#include <korvaks/list.h>
#include <korvaks/stg.h>

#include <benchmark/benchmark.h>

#include <cstdint>
#include <list>

#ifdef BENCH_GLIB
#include <glib.h>
#endif

namespace {

constexpr std::uintptr_t element_count = 1000;

void *element(std::uintptr_t number)
{
    return reinterpret_cast<void *>(number * 8 + 8);
}

void append_and_walk(list_record *list)
{
    for (std::uintptr_t i = 0; i < element_count; ++i)
        list_append(list, element(i));
    void *data = nullptr;
    for (list_element *e = list_next(list, nullptr, &data); e != nullptr; e = list_next(list, e, &data))
        benchmark::DoNotOptimize(data);
}

void use_list_on_heap(benchmark::State &state)
{
    for (auto _ : state) {
        list_record *list = list_create(STG_AREA_HEAP, 0);
        append_and_walk(list);
        list_destroy(list);
    }
}
BENCHMARK(use_list_on_heap)->Name("list/heap_1000/korvaks");

void use_list_in_area(benchmark::State &state)
{
    for (auto _ : state) {
        stg_area *area = stg_create_area(element_count * sizeof(list_element));
        append_and_walk(list_create(area, 0));
        stg_delete_area(&area);
    }
}
BENCHMARK(use_list_in_area)->Name("list/area_1000/korvaks");

void use_std_list(benchmark::State &state)
{
    for (auto _ : state) {
        std::list<void *> list;
        for (std::uintptr_t i = 0; i < element_count; ++i)
            list.push_back(element(i));
        for (void *data : list)
            benchmark::DoNotOptimize(data);
    }
}
BENCHMARK(use_std_list)->Name("list/heap_1000/std_list");
BENCHMARK(use_std_list)->Name("list/area_1000/std_list");

#ifdef BENCH_GLIB
void use_g_queue(benchmark::State &state)
{
    for (auto _ : state) {
        GQueue *queue = g_queue_new();
        for (std::uintptr_t i = 0; i < element_count; ++i)
            g_queue_push_tail(queue, element(i));
        for (GList *link = queue->head; link != nullptr; link = link->next)
            benchmark::DoNotOptimize(link->data);
        g_queue_free(queue);
    }
}
BENCHMARK(use_g_queue)->Name("list/heap_1000/g_queue");
BENCHMARK(use_g_queue)->Name("list/area_1000/g_queue");
#endif

} // namespace
