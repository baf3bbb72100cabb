// Keys of hash tables: searching, entering and removing them.
//
// The three kinds of keys are small types with the same members, each in a form for tables with the
// built-in functions, which are compiled in, and one for all others. The operations are written once
// for all of them.
#include "util/hash_impl.h"
#include "util/hash_mix.h"

#include "base/ks_msg.h"
#include "base/msg_port.h"

#include <korvaks/list.h>

#include <cstring>

namespace {

using ks::hash::bucket_of;
using ks::hash::links_of;
using ks::hash::Table;
using ks::hash::table_of;

// Kinds of keys --------------------------------------------------------------------------------

template <bool is_plain> class IntKey {
  public:
    static constexpr uint32_t keytype = HASH_KEY_INT;
    using Stored = const int64_t *;

    explicit IntKey(int64_t value) : value_(value) {}

    uint32_t hval(const hash_ht &ht) const
    {
        if constexpr (is_plain)
            return static_cast<uint32_t>(value_ >> 2);
        else
            return ht.hash_fn(&value_);
    }

    // Kept exactly: every cell of the chain is compared, whatever its hash value. A comparison of the
    // caller's may find integers equal that have different values.
    bool matches(const hash_ht &ht, const hash_cell &cell, uint32_t) const
    {
        if constexpr (is_plain)
            return value_ == cell.key.integer;
        else
            return ht.compare_fn(&value_, &cell.key.integer) != 0;
    }

    static constexpr std::size_t copy_bytes(const hash_ht &) { return 0; }
    static char *copy_for_reuse(const Table &, hash_cell *) { return nullptr; }
    void store(const hash_ht &, hash_cell &cell, char *) const { cell.key.integer = value_; }
    static Stored stored(const hash_cell *cell) { return &cell->key.integer; }

  private:
    int64_t value_;
};

template <bool is_plain> class StrKey {
  public:
    static constexpr uint32_t keytype = HASH_KEY_STR;
    using Stored = const char *;

    explicit StrKey(const char *string) : string_(string), length_(string == nullptr ? 0 : std::strlen(string)) {}

    uint32_t hval(const hash_ht &ht) const
    {
        if constexpr (is_plain)
            return ks::hash::mix<signed char>(string_, length_);
        else
            return string_ == nullptr ? 0 : ht.hash_fn(string_);
    }

    bool matches(const hash_ht &ht, const hash_cell &cell, uint32_t hval) const
    {
        if (cell.hval != hval)
            return false;
        const char *other = cell.key.string;
        if (string_ == nullptr || other == nullptr)
            return string_ == other;
        if constexpr (is_plain)
            return ht.copyk != 0 ? ks::hash::is_equal_to_copy(string_, length_, other)
                                 : std::strcmp(string_, other) == 0;
        else
            return ht.compare_fn(string_, other) != 0;
    }

    std::size_t copy_bytes(const hash_ht &ht) const { return ht.copyk == 0 || string_ == nullptr ? 0 : length_ + 1; }

    // The copy of the key before is not reclaimed: its length is not known any more.
    char *copy_for_reuse(const Table &table, hash_cell *) const
    {
        return static_cast<char *>(stg_alloc(table.record.area, length_ + 1));
    }

    void store(const hash_ht &ht, hash_cell &cell, char *copy) const
    {
        const std::size_t bytes = copy_bytes(ht);
        cell.key.string = bytes == 0 ? string_ : static_cast<char *>(std::memcpy(copy, string_, bytes));
    }

    static Stored stored(const hash_cell *cell) { return cell->key.string; }

  private:
    const char *string_;
    std::size_t length_;
};

template <bool is_plain> class FlenKey {
  public:
    static constexpr uint32_t keytype = HASH_KEY_FLEN;
    using Stored = const void *;

    explicit FlenKey(const void *bytes) : bytes_(bytes) {}

    uint32_t hval(const hash_ht &ht) const
    {
        if (bytes_ == nullptr)
            return 0;
        if (is_plain || ht.hash_fn == nullptr)
            return ks::hash::mix<unsigned char>(static_cast<const char *>(bytes_), ht.key_bytes);
        return ht.hash_fn(bytes_);
    }

    bool matches(const hash_ht &ht, const hash_cell &cell, uint32_t hval) const
    {
        if (cell.hval != hval)
            return false;
        const void *other = cell.key.bytes;
        if (bytes_ == nullptr || other == nullptr)
            return bytes_ == other;
        if (is_plain || ht.compare_fn == nullptr)
            return std::memcmp(bytes_, other, ht.key_bytes) == 0;
        return ht.compare_fn(bytes_, other) != 0;
    }

    // Every cell has room for a key, also one that a NULL key is the first to use.
    static std::size_t copy_bytes(const hash_ht &ht) { return ht.copyk == 0 ? 0 : ht.key_bytes; }

    static char *copy_for_reuse(const Table &table, hash_cell *cell)
    {
        return reinterpret_cast<char *>(cell) + table.key_offset;
    }

    void store(const hash_ht &ht, hash_cell &cell, char *copy) const
    {
        const std::size_t bytes = copy_bytes(ht);
        cell.key.bytes = bytes == 0 || bytes_ == nullptr ? bytes_ : std::memcpy(copy, bytes_, bytes);
    }

    static Stored stored(const hash_cell *cell) { return cell->key.bytes; }

  private:
    const void *bytes_;
};

// Cells ----------------------------------------------------------------------------------------

// The cell that holds a key, or NULL. Compiled into every operation: a look-up is shorter than the
// calls it would otherwise be made of.
template <typename Key>
[[gnu::always_inline]] inline hash_cell *find_cell(const Table &table, const Key &key, uint32_t hval)
{
    hash_cell *cell = table.record.bkts[bucket_of(table, hval)];
    for (; cell != nullptr; cell = cell->next) {
        // A copied key begins behind the data, often in the next line: both come at once.
        if constexpr (Key::keytype != HASH_KEY_INT)
            __builtin_prefetch(reinterpret_cast<const char *>(cell) + table.key_offset);
        if (key.matches(table.record, *cell, hval))
            return cell;
    }
    return nullptr;
}

// The next free cell with the key in it; NULL on exhaustion, and then it is still free.
template <typename Key> hash_cell *reuse_cell(Table &table, const Key &key)
{
    hash_cell *cell = table.record.free_cells;
    char *copy = nullptr;
    if (key.copy_bytes(table.record) != 0) {
        copy = key.copy_for_reuse(table, cell);
        if (copy == nullptr)
            return nullptr;
    }
    table.record.free_cells = cell->next;
    key.store(table.record, *cell, copy);
    return cell;
}

// A cell from the area with the key in it; NULL on exhaustion. The copy of the key lies behind the
// data: one allocation, nothing half-made, and a search that has the cell at hand has its key too.
template <typename Key> hash_cell *carve_cell(Table &table, const Key &key)
{
    const std::size_t links_bytes = table.record.order != 0 ? sizeof(hash_cell_links) : 0;
    std::size_t bytes;
    if (__builtin_add_overflow(links_bytes + table.key_offset, key.copy_bytes(table.record), &bytes))
        return nullptr;
    auto *block = static_cast<char *>(stg_alloc(table.record.area, bytes)); // filled with 0
    if (block == nullptr)
        return nullptr;
    auto *cell = reinterpret_cast<hash_cell *>(block + links_bytes);
    key.store(table.record, *cell, reinterpret_cast<char *>(cell) + table.key_offset);
    return cell;
}

void append_to_order(hash_ht &ht, hash_cell *cell)
{
    links_of(cell) = {nullptr, ht.last_cell};
    (ht.last_cell == nullptr ? ht.first_cell : links_of(ht.last_cell).order) = cell;
    ht.last_cell = cell;
}

void remove_from_order(hash_ht &ht, hash_cell *cell)
{
    const hash_cell_links links = links_of(cell);
    (links.back == nullptr ? ht.first_cell : links_of(links.back).order) = links.order;
    (links.order == nullptr ? ht.last_cell : links_of(links.order).back) = links.back;
}

void link_cell(Table &table, hash_cell *cell, uint32_t hval)
{
    hash_ht &ht = table.record;
    if (ht.order != 0)
        append_to_order(ht, cell);
    cell->hval = hval;
    hash_cell *&head = ht.bkts[bucket_of(table, hval)];
    cell->next = head;
    head = cell;
    ++ht.cells;
    if (ht.limit != 0 && ht.cells > ht.climit)
        ks::hash::resize(table);
}

void free_cell(Table &table, hash_cell *cell)
{
    hash_ht &ht = table.record;
    hash_cell **link = &ht.bkts[bucket_of(table, cell->hval)];
    while (*link != cell)
        link = &(*link)->next;
    *link = cell->next;
    if (ht.order != 0)
        remove_from_order(ht, cell);
    cell->next = ht.free_cells;
    ht.free_cells = cell;
    --ht.cells;
}

// Operations -----------------------------------------------------------------------------------

// Gives a cell out, or twice NULL.
template <typename Key> int give(hash_cell *cell, typename Key::Stored *key_out, void **data_out)
{
    if (key_out != nullptr)
        *key_out = cell == nullptr ? nullptr : Key::stored(cell);
    if (data_out != nullptr)
        *data_out = cell == nullptr ? nullptr : ks::hash::data_of(cell);
    return cell == nullptr ? 0 : 1;
}

struct Lookup {
    template <typename Key>
    static int run(const Table &table, const Key &key, typename Key::Stored *key_out, void **data_out)
    {
        return give<Key>(find_cell(table, key, key.hval(table.record)), key_out, data_out);
    }
};

struct Enter {
    template <typename Key> static int run(Table &table, const Key &key, typename Key::Stored *key_out, void **data_out)
    {
        const uint32_t hval = key.hval(table.record);
        if (hash_cell *cell = find_cell(table, key, hval); cell != nullptr)
            return give<Key>(cell, key_out, data_out);
        hash_cell *cell = table.record.free_cells != nullptr ? reuse_cell(table, key) : carve_cell(table, key);
        if (cell != nullptr)
            link_cell(table, cell, hval);
        (void)give<Key>(cell, key_out, data_out); // new in any case
        if (cell == nullptr)
            ks::hash::report_exhaustion();
        return 0;
    }
};

struct Remove {
    template <typename Key> static int run(Table &table, const Key &key, typename Key::Stored *key_out, void **data_out)
    {
        hash_cell *cell = find_cell(table, key, key.hval(table.record));
        if (cell != nullptr)
            free_cell(table, cell);
        return give<Key>(cell, key_out, data_out);
    }
};

// Reports a NULL key, with which the operation then goes on.
void report_null(const void *key)
{
    if (key == nullptr) [[unlikely]]
        (void)imsg_print(ks::msg_error, &_ks_ks_msg_table, ks_msg_hash_unexpected_error);
}

template <typename Operation, typename Key, typename Ht, typename Value>
[[gnu::noinline]] int run_with_functions(Ht *ht, Value value, typename Key::Stored *key_out, void **data_out)
{
    ks::hash::require_keytype(ht, Key::keytype);
    return Operation::run(table_of(ht), Key(value), key_out, data_out);
}

// Runs an operation with the key in the form that fits the table. The usual form is compiled into the
// exported function; misuse and tables with functions of their own are met on the other way.
template <typename Operation, template <bool> typename Key, typename Ht, typename Value>
int run(Ht *ht, Value value, typename Key<true>::Stored *key_out, void **data_out)
{
    if (ht != nullptr && table_of(ht).plain_keytype == Key<true>::keytype) [[likely]]
        return Operation::run(table_of(ht), Key<true>(value), key_out, data_out);
    return run_with_functions<Operation, Key<false>>(ht, value, key_out, data_out);
}

// Scans ----------------------------------------------------------------------------------------

// A cursor is the current cell, which knows its bucket.
hash_cell *cell_of(hash_cursor *cursor)
{
    return reinterpret_cast<hash_cell *>(cursor);
}

// How many buckets ahead of a scan the head of a chain is fetched, and how many what follows it, when
// the head is there. The cells lie anywhere: one that is waited for takes longer than all else. Always
// inlined: a call of a function that only fetches is dropped, as it seems to do nothing.
constexpr uint64_t heads_ahead = 24;
constexpr uint64_t chains_ahead = 12;

template <typename Key> [[gnu::always_inline]] inline void fetch_ahead(const Table &table, uint64_t bucket)
{
    if (table.record.nbkts - bucket <= heads_ahead)
        return;
    hash_cell *const *at = table.record.bkts + bucket;
    // No fetch of NULL, which would look for its page, and no branch, which nobody could foresee.
    const void *head = at[heads_ahead];
    __builtin_prefetch(head == nullptr ? at : head);
    const hash_cell *cell = at[chains_ahead];
    if (cell == nullptr)
        return;
    const void *next = cell->next;
    __builtin_prefetch(next == nullptr ? at : next);
    if constexpr (Key::keytype != HASH_KEY_INT)
        __builtin_prefetch(cell->key.bytes);
}

template <typename Key> hash_cell *next_by_bucket(const Table &table, const hash_cell *cell)
{
    if (cell != nullptr && cell->next != nullptr)
        return cell->next;
    uint64_t bucket = cell == nullptr ? 0 : bucket_of(table, cell->hval) + 1;
    for (; bucket < table.record.nbkts; ++bucket) {
        fetch_ahead<Key>(table, bucket);
        if (table.record.bkts[bucket] != nullptr)
            return table.record.bkts[bucket];
    }
    return nullptr;
}

void require_cursor(hash_cursor *const *cursor, int line = __builtin_LINE())
{
    ks::hash::here.require(cursor != nullptr, "cursor != NULL", line);
}

template <typename Key>
int next(const hash_ht *ht, hash_cursor **cursor, typename Key::Stored *key_out, void **data_out)
{
    ks::hash::require_keytype(ht, Key::keytype);
    require_cursor(cursor);
    hash_cell *cell = next_by_bucket<Key>(table_of(ht), cell_of(*cursor));
    *cursor = reinterpret_cast<hash_cursor *>(cell);
    return give<Key>(cell, key_out, data_out);
}

template <typename Key>
int next_in_order(const hash_ht *ht, hash_cursor **cursor, typename Key::Stored *key_out, void **data_out)
{
    ks::hash::require_keytype(ht, Key::keytype);
    ks::hash::here.require(ht->order != 0, "ht->order");
    require_cursor(cursor);
    hash_cell *cell = *cursor == nullptr ? ht->first_cell : links_of(cell_of(*cursor)).order;
    *cursor = reinterpret_cast<hash_cursor *>(cell);
    return give<Key>(cell, key_out, data_out);
}

} // namespace

extern "C" {

int hash_int_lookup(const hash_ht *ht, int64_t key, const int64_t **key_out, void **data_out)
{
    return run<Lookup, IntKey>(ht, key, key_out, data_out);
}

int hash_int_enter(hash_ht *ht, int64_t key, const int64_t **key_out, void **data_out)
{
    return run<Enter, IntKey>(ht, key, key_out, data_out);
}

int hash_int_free(hash_ht *ht, int64_t key, const int64_t **key_out, void **data_out)
{
    return run<Remove, IntKey>(ht, key, key_out, data_out);
}

int hash_str_lookup(const hash_ht *ht, const char *key, const char **key_out, void **data_out)
{
    report_null(key);
    return run<Lookup, StrKey>(ht, key, key_out, data_out);
}

int hash_str_enter(hash_ht *ht, const char *key, const char **key_out, void **data_out)
{
    report_null(key);
    return run<Enter, StrKey>(ht, key, key_out, data_out);
}

// Kept exactly: the warning comes on every call for a table that copies its keys, found or not.
int hash_str_free(hash_ht *ht, const char *key, const char **key_out, void **data_out)
{
    if (ht != nullptr && ht->copyk != 0)
        (void)imsg_print(ks::msg_warning, &_ks_ks_msg_table, ks_msg_hash_copied_key_leak);
    report_null(key);
    return run<Remove, StrKey>(ht, key, key_out, data_out);
}

int hash_flen_lookup(const hash_ht *ht, const void *key, const void **key_out, void **data_out)
{
    report_null(key);
    return run<Lookup, FlenKey>(ht, key, key_out, data_out);
}

int hash_flen_enter(hash_ht *ht, const void *key, const void **key_out, void **data_out)
{
    report_null(key);
    return run<Enter, FlenKey>(ht, key, key_out, data_out);
}

int hash_flen_free(hash_ht *ht, const void *key, const void **key_out, void **data_out)
{
    report_null(key);
    return run<Remove, FlenKey>(ht, key, key_out, data_out);
}

// Kept exactly: one new string makes the result 0; callers ask whether they had them all before.
int hash_str_enter_list(hash_ht *ht, const list_record *list)
{
    ks::hash::require_keytype(ht, HASH_KEY_STR);
    if (list == nullptr)
        return 1;
    int all_present = 1;
    void *string = nullptr;
    for (list_element *at = list_next(list, nullptr, &string); at != nullptr; at = list_next(list, at, &string)) {
        if (hash_str_enter(ht, static_cast<const char *>(string), nullptr, nullptr) == 0)
            all_present = 0;
    }
    return all_present;
}

int hash_int_next(const hash_ht *ht, hash_cursor **cursor, const int64_t **key_out, void **data_out)
{
    return next<IntKey<false>>(ht, cursor, key_out, data_out);
}

int hash_str_next(const hash_ht *ht, hash_cursor **cursor, const char **key_out, void **data_out)
{
    return next<StrKey<false>>(ht, cursor, key_out, data_out);
}

int hash_flen_next(const hash_ht *ht, hash_cursor **cursor, const void **key_out, void **data_out)
{
    return next<FlenKey<false>>(ht, cursor, key_out, data_out);
}

int hash_int_next_in_order(const hash_ht *ht, hash_cursor **cursor, const int64_t **key_out, void **data_out)
{
    return next_in_order<IntKey<false>>(ht, cursor, key_out, data_out);
}

int hash_str_next_in_order(const hash_ht *ht, hash_cursor **cursor, const char **key_out, void **data_out)
{
    return next_in_order<StrKey<false>>(ht, cursor, key_out, data_out);
}

int hash_flen_next_in_order(const hash_ht *ht, hash_cursor **cursor, const void **key_out, void **data_out)
{
    return next_in_order<FlenKey<false>>(ht, cursor, key_out, data_out);
}

void hash_term_scan(hash_cursor **cursor)
{
    require_cursor(cursor);
    *cursor = nullptr;
}
}
