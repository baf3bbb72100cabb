// Hash tables under exhaustion and raises: a table is made whole or not at all, a key is in it or not,
// and a table that cannot grow goes on.
#include "harness/fault_sweep.h"

#include <korvaks/hash.h>

#include <utility>

namespace {

using test::fault::Call;
using test::fault::Operation;
using test::fault::Trial;

constexpr const char *out_of_memory = "Out of memory";
constexpr uint64_t large = 150000; // bytes: more than a chunk has, so that each cell is an allocation

hash_ht *ht = nullptr;

TEST(FaultHash, Create)
{
    const std::pair<const char *, hash_ht *(*)()> kinds[] = {
        {"hash_int_create", [] { return hash_int_create(1000, 8); }},
        {"hash_str_create", [] { return hash_str_create(1, 0, 1); }},
        {"hash_flen_create", [] { return hash_flen_create(2000000, 8, 1, 16); }},
    };
    for (const auto &[name, create] : kinds)
        Operation(name)
            .act([create = create] { return (ht = create()) != nullptr; })
            .gives([](const Trial &trial) { return !trial.failed(Call::allocation); })
            .says(out_of_memory)
            .cleanup([] { hash_delete_ht(&ht); })
            .sweep();
}

constexpr int key_count = 7;

std::string key_of(int number)
{
    return "key " + std::to_string(number);
}

// On a full table of 7 buckets, whose next key makes it grow.
Operation on_full_table(const char *name, uint64_t dbytes)
{
    return Operation(name)
        .setup([dbytes] {
            ht = hash_str_create(key_count, dbytes, 1);
            hash_set_order(ht);
            hash_set_dynamic(ht, 1);
            for (int i = 0; i < key_count; ++i)
                (void)hash_str_enter(ht, key_of(i).c_str(), nullptr, nullptr);
        })
        .cleanup([] { hash_delete_ht(&ht); });
}

// Whether the keys but the first are there, which may have been removed, and the order holds all cells.
bool is_sound(uint64_t cells)
{
    for (int i = 1; i < key_count; ++i) {
        if (hash_str_lookup(ht, key_of(i).c_str(), nullptr, nullptr) != 1)
            return false;
    }
    uint64_t in_order = 0;
    hash_cursor *cursor = nullptr;
    while (hash_str_next_in_order(ht, &cursor, nullptr, nullptr) == 1)
        ++in_order;
    return in_order == ht->cells && ht->cells == cells;
}

// Enters a key that is not in the table.
bool enter(const char *key)
{
    void *data = nullptr;
    return hash_str_enter(ht, key, nullptr, &data) == 0 && data != nullptr;
}

bool has(const char *key)
{
    return hash_str_lookup(ht, key, nullptr, nullptr) == 1;
}

TEST(FaultHash, EnterWithGrowth)
{
    on_full_table("hash_str_enter that grows the table", large)
        .act([] { return enter("new"); })
        .gives([](const Trial &trial) {
            if (!is_sound(key_count + 1) || !has("new"))
                return false;
            if (ht->nbkts == key_count && trial.failed(Call::allocation))
                (void)enter("newer"); // not enough for new buckets: the next key tries again
            return ht->nbkts == 17;
        })
        .keeps([] { return is_sound(key_count) && !has("new"); })
        .says(out_of_memory)
        .sweep();
}

TEST(FaultHash, EnterInAFreeCell)
{
    const std::string key(large, 'k');
    on_full_table("hash_str_enter into a cell that is used again", 8)
        .setup([] {
            ht = hash_str_create(key_count, 8, 1);
            hash_set_order(ht);
            for (int i = 0; i < key_count; ++i)
                (void)enter(key_of(i).c_str());
            (void)hash_str_free(ht, key_of(0).c_str(), nullptr, nullptr);
        })
        .act([&] { return enter(key.c_str()); })
        .gives([&] { return is_sound(key_count) && has(key.c_str()) && ht->free_cells == nullptr; })
        .keeps([&] { return is_sound(key_count - 1) && !has(key.c_str()) && ht->free_cells != nullptr; })
        .says(out_of_memory)
        .sweep();
}

TEST(FaultHash, RaisesWhileReporting)
{
    const std::pair<const char *, void (*)()> rows[] = {
        {"hash_str_enter(NULL)", [] { (void)hash_str_enter(ht, nullptr, nullptr, nullptr); }},
        {"hash_str_free of a copied key", [] { (void)hash_str_free(ht, "key 3", nullptr, nullptr); }},
        {"hash_dump, hash_dump_stats",
         [] {
             hash_dump(ht);
             hash_dump_stats(ht);
         }},
    };
    for (const auto &[name, act] : rows)
        on_full_table(name, 8)
            .act(act)
            .check([](const Trial &) {
                uint64_t cells = 0;
                hash_cursor *cursor = nullptr;
                while (hash_str_next(ht, &cursor, nullptr, nullptr) == 1)
                    ++cells;
                return cells == ht->cells ? nullptr : "the table is not sound";
            })
            .sweep_raises();
}

} // namespace
