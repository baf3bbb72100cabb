// Hash tables under exhaustion and raises: a table is made whole or not at all, a key is in it or not,
// and a table that cannot grow goes on.
#include "harness/fault_sweep.h"

#include <korvaks/hash.h>

#include <string>

#include <gtest/gtest.h>

namespace {

using test::fault::Call;
using test::fault::has_said;
using test::fault::Scenario;
using test::fault::Trial;

constexpr const char *out_of_memory = "Out of memory";
constexpr uint64_t large = 150000; // bytes: more than a chunk has, so that each cell is an allocation

hash_ht *ht = nullptr;
int result = 0;
void *data = nullptr;

void delete_table()
{
    hash_delete_ht(&ht);
}

TEST(FaultHash, Create)
{
    const Scenario kinds[] = {
        {.name = "hash_int_create", .act = [] { ht = hash_int_create(1000, 8); }},
        {.name = "hash_str_create", .act = [] { ht = hash_str_create(1, 0, 1); }},
        {.name = "hash_flen_create", .act = [] { ht = hash_flen_create(2000000, 8, 1, 16); }},
    };
    for (Scenario scenario : kinds) {
        scenario.setup = [] { ht = nullptr; };
        scenario.check = [](const Trial &trial) -> const char * {
            if (ht != nullptr)
                return trial.failed(Call::allocation) ? "made of nothing" : nullptr;
            return trial.fired && has_said(out_of_memory) ? nullptr : "refused without a cause";
        };
        scenario.cleanup = delete_table;
        test::fault::sweep(scenario);
    }
}

constexpr int key_count = 7;

std::string key_of(int number)
{
    return "key " + std::to_string(number);
}

// A full table of 7 buckets, whose next key makes it grow.
void set_up_full_table(uint64_t dbytes)
{
    ht = hash_str_create(key_count, dbytes, 1);
    hash_set_order(ht);
    hash_set_dynamic(ht, 1);
    for (int i = 0; i < key_count; ++i)
        (void)hash_str_enter(ht, key_of(i).c_str(), nullptr, nullptr);
}

const char *check_entered(uint64_t cells_before, const char *key)
{
    if (result != 0)
        return "it was not there before";
    for (int i = 1; i < key_count; ++i) { // the first may have been removed
        if (hash_str_lookup(ht, key_of(i).c_str(), nullptr, nullptr) != 1)
            return "a key is lost";
    }
    uint64_t in_order = 0;
    hash_cursor *cursor = nullptr;
    while (hash_str_next_in_order(ht, &cursor, nullptr, nullptr) == 1)
        ++in_order;
    if (in_order != ht->cells)
        return "the order is broken";
    if (data != nullptr)
        return ht->cells == cells_before + 1 && hash_str_lookup(ht, key, nullptr, nullptr) == 1 ? nullptr
                                                                                                : "not entered";
    return ht->cells == cells_before && hash_str_lookup(ht, key, nullptr, nullptr) == 0 && has_said(out_of_memory)
               ? nullptr
               : "half entered, or not reported";
}

TEST(FaultHash, EnterWithGrowth)
{
    const Scenario growing{
        .name = "hash_str_enter that grows the table",
        .setup = [] { set_up_full_table(large); },
        .act = [] { result = hash_str_enter(ht, "new", nullptr, &data); },
        .check = [](const Trial &trial) -> const char * {
            if (const char *wrong = check_entered(key_count, "new"); wrong != nullptr)
                return wrong;
            if (data != nullptr && ht->nbkts == key_count) { // not enough for new buckets: the next key tries again
                if (!trial.failed(Call::allocation))
                    return "not grown";
                (void)hash_str_enter(ht, "newer", nullptr, nullptr);
            }
            return data == nullptr || ht->nbkts == 17 ? nullptr : "does not grow any more";
        },
        .cleanup = delete_table,
    };
    test::fault::sweep(growing);
}

TEST(FaultHash, EnterInAFreeCell)
{
    static const std::string long_key(large, 'k');
    test::fault::sweep({
        .name = "hash_str_enter into a cell that is used again",
        .setup =
            [] {
                set_up_full_table(8);
                (void)hash_str_free(ht, key_of(0).c_str(), nullptr, nullptr);
            },
        .act = [] { result = hash_str_enter(ht, long_key.c_str(), nullptr, &data); },
        .check = [](const Trial &) -> const char * {
            if (const char *wrong = check_entered(key_count - 1, long_key.c_str()); wrong != nullptr)
                return wrong;
            return (ht->free_cells != nullptr) == (data == nullptr) ? nullptr : "the free cell is lost";
        },
        .cleanup = delete_table,
    });
}

TEST(FaultHash, RaisesWhileReporting)
{
    const Scenario rows[] = {
        {.name = "hash_str_enter(NULL)", .act = [] { result = hash_str_enter(ht, nullptr, nullptr, nullptr); }},
        {.name = "hash_str_free of a copied key", .act = [] { result = hash_str_free(ht, "key 3", nullptr, nullptr); }},
        {.name = "hash_dump, hash_dump_stats",
         .act =
             [] {
                 hash_dump(ht);
                 hash_dump_stats(ht);
             }},
    };
    for (Scenario scenario : rows) {
        scenario.setup = [] { set_up_full_table(8); };
        scenario.check = [](const Trial &) -> const char * {
            uint64_t cells = 0;
            hash_cursor *cursor = nullptr;
            while (hash_str_next(ht, &cursor, nullptr, nullptr) == 1)
                ++cells;
            return cells == ht->cells ? nullptr : "the table is not sound";
        };
        scenario.cleanup = delete_table;
        test::fault::sweep_raises(scenario);
    }
}

} // namespace
