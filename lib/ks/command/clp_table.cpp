// Tables of flags: what may be wrong with them, and the constraints that are kept for them.
//
// Markers of groups are known by their value where a table is examined and scanned, and by their name
// where the flag of an alias is looked for. Both hold for entries made with the macros.
#include "command/clp_impl.h"

#include <climits>
#include <cstring>

static_assert(sizeof(clp_flag_desc) == 16 && offsetof(clp_flag_desc, value) == 8);
static_assert(offsetof(clp_flag_desc, flags) == 12);
static_assert(sizeof(clp_constraint) == 8 && offsetof(clp_constraint, link) == 4);

namespace {

using ks::clp::is_alias;
using ks::clp::Table;

constexpr int no_link = -1;

// In front of the constraints: their area, so that a copy of a handle can go there too.
struct ConstraintsHeader {
    stg_area *area;
};
static_assert(sizeof(ConstraintsHeader) % alignof(clp_constraint) == 0);

bool is_marker(const clp_flag_desc &entry)
{
    return entry.value == ks::clp::start_of_group || entry.value == ks::clp::end_of_group;
}

bool is_named(const clp_flag_desc &entry, const char *name)
{
    return std::strcmp(entry.name, name) == 0;
}

bool is_flag_of(const clp_flag_desc &alias, const clp_flag_desc &entry)
{
    return !is_alias(entry) && entry.value == alias.value;
}

// The index of the flag that an alias stands for; `no_link` without one.
int find_link(const clp_flag_desc *table, int alias)
{
    // Kept exactly: going back only the start of a group stops the search, so that an alias behind a
    // group may stand for a flag of it. Tables put their aliases last.
    for (int i = alias - 1; i >= 0 && !is_named(table[i], "Start Mutual Exclusion"); --i)
        if (is_flag_of(table[alias], table[i]))
            return i;
    for (int i = alias + 1; table[i].name != nullptr && !is_named(table[i], "End Mutual Exclusion"); ++i)
        if (is_flag_of(table[alias], table[i]))
            return i;
    return no_link;
}

const clp_flag_desc *find_twin(const clp_flag_desc *entry)
{
    for (const clp_flag_desc *later = entry + 1; later->name != nullptr; ++later)
        if (is_flag_of(*entry, *later))
            return later;
    return nullptr;
}

void note_fault(Table &table, clp_msg fault, const char *first = nullptr, const char *second = nullptr)
{
    if (table.is_faulty)
        return;
    table.is_faulty = true;
    table.fault = fault;
    table.names[0] = first;
    table.names[1] = second;
}

void examine_groups_and_values(Table &table)
{
    bool is_in_group = false;
    for (const clp_flag_desc *entry = table.descriptors; entry->name != nullptr; ++entry) {
        if (entry->value == ks::clp::start_of_group) {
            if (is_in_group)
                note_fault(table, clp_msg_nested_groups);
            is_in_group = true;
        } else if (entry->value == ks::clp::end_of_group) {
            if (!is_in_group)
                note_fault(table, clp_msg_end_without_start);
            is_in_group = false;
        } else if (!is_alias(*entry)) {
            const clp_flag_desc *const twin = find_twin(entry);
            if (twin != nullptr)
                note_fault(table, clp_msg_same_value, entry->name, twin->name);
        }
        ks::clp::here.require(table.count < INT_MAX, "count < INT_MAX");
        ++table.count;
    }
}

void examine_aliases(Table &table)
{
    for (int i = 0; i < table.count; ++i) {
        const clp_flag_desc &entry = table.descriptors[i];
        if (is_alias(entry) && !is_marker(entry) && find_link(table.descriptors, i) == no_link)
            note_fault(table, clp_msg_alias_of_nothing, entry.name);
    }
}

} // namespace

namespace ks::clp {

Table examine_table(const clp_flag_desc *descriptors)
{
    Table table;
    table.descriptors = descriptors;
    if (descriptors != nullptr) {
        examine_groups_and_values(table);
        examine_aliases(table);
    }
    return table;
}

Result report_fault(const Table &table)
{
    const Result result = fail(table.fault, table.names[0], table.names[1]);
    if (table.fault != clp_msg_same_value)
        std::abort();
    return result;
}

clp_constraint *make_constraints(const Table &table, stg_area *area)
{
    const auto count = static_cast<std::size_t>(table.count); // below 2^31, so that no product overflows
    void *const block = stg_alloc(area, sizeof(ConstraintsHeader) + count * sizeof(clp_constraint));
    if (block == nullptr)
        return nullptr;
    auto *const header = static_cast<ConstraintsHeader *>(block);
    *header = {area};
    auto *const constraints = reinterpret_cast<clp_constraint *>(header + 1);
    for (int i = 0; i < table.count; ++i) {
        const clp_flag_desc &entry = table.descriptors[i];
        const bool has_link = is_alias(entry) && !is_marker(entry);
        constraints[i] = {0, has_link ? find_link(table.descriptors, i) : no_link};
    }
    return constraints;
}

stg_area *area_of(const clp_constraint *constraints)
{
    return (reinterpret_cast<const ConstraintsHeader *>(constraints) - 1)->area;
}

} // namespace ks::clp
