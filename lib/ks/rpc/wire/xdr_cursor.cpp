// Cursors that travel as an index into a table which the caller shares among its calls.
//
// The mutex guards the table and is never held while the stream is used: a peer that reads slowly holds up its own call
// and no other.
#include "kernel/ks_guard.h"
#include "rpc/wire/xdr_fields.h"

#include <korvaks/xdr.h>

#include <algorithm>
#include <utility>

namespace {

constexpr uint32_t first_capacity = 4;

// What an encoding stored, and what it found there.
struct Entry {
    uint32_t index;
    void *before;
};

// The table and the count that belongs to it; used with the mutex held.
class Cursors {
  public:
    Cursors(ks_cursor_table *&table, uint32_t &count) : table_(table), count_(count) {}

    // Makes the table if there is none.
    bool exists()
    {
        if (table_ != nullptr)
            return true;
        if (!replace(first_capacity, 0))
            return false;
        count_ = 1;
        return true;
    }

    bool has(uint32_t index) const { return index > 0 && index < count_; }

    void *&at(uint32_t index) { return entries()[index]; }

    // The lowest entry that is free, made behind the last one if need be; 0 when there is no memory for it.
    uint32_t take_free_entry()
    {
        void **const end = entries() + count_;
        void **const free_entry = std::find(entries() + 1, end, nullptr);
        if (free_entry != end)
            return static_cast<uint32_t>(free_entry - entries());
        if (count_ >= table_->capacity && !grow())
            return 0;
        return count_++;
    }

  private:
    void **entries() { return reinterpret_cast<void **>(table_ + 1); }

    bool grow()
    {
        const uint64_t capacity = std::max(uint64_t{count_} + 1, 2 * uint64_t{table_->capacity});
        return capacity <= UINT32_MAX && replace(static_cast<uint32_t>(capacity), count_);
    }

    bool replace(uint32_t capacity, uint32_t kept)
    {
        auto *larger = static_cast<ks_cursor_table *>(stg_malloc(sizeof *table_ + capacity * sizeof(void *)));
        if (larger == nullptr)
            return false;
        *larger = {capacity, sizeof(void *), KS_CURSOR_TABLE_OWN};
        auto **fresh = reinterpret_cast<void **>(larger + 1);
        if (kept > 0)
            std::copy_n(entries(), kept, fresh);
        std::fill(fresh + kept, fresh + capacity, nullptr);
        if (table_ != nullptr && table_->ownership == KS_CURSOR_TABLE_OWN)
            stg_free(table_);
        table_ = larger;
        return true;
    }

    ks_cursor_table *&table_;
    uint32_t &count_;
};
static_assert(sizeof(ks_cursor_table) == 8);

// Stores a cursor, in the entry it has or in a free one.
bool store(Cursors cursors, void *cursor, uint32_t index, Entry &out_entry)
{
    if (!cursors.exists() || (index != 0 && !cursors.has(index)))
        return false;
    if (index == 0 && cursor != nullptr) {
        index = cursors.take_free_entry();
        if (index == 0)
            return false;
    }
    out_entry = {index, nullptr};
    if (index != 0)
        out_entry.before = std::exchange(cursors.at(index), cursor);
    return true;
}

bool find(Cursors cursors, uint32_t index, void *&out_cursor)
{
    if (!cursors.exists() || (index != 0 && (!cursors.has(index) || cursors.at(index) == nullptr)))
        return false;
    out_cursor = index != 0 ? cursors.at(index) : nullptr;
    return true;
}

// A cursor whose number did not reach the stream is nobody's: the entry is as before.
bool encode(XDR *xdrs, void *cursor, uint32_t &index, Cursors cursors, vlthread_mutex_t &mutex)
{
    Entry entry{};
    {
        const ks::LockGuard lock(mutex);
        if (!store(cursors, cursor, index, entry))
            return false;
    }
    if (ks::xdr::put_word(xdrs, cursor != nullptr ? entry.index : 0)) {
        index = 0;
        return true;
    }
    const ks::LockGuard lock(mutex);
    if (entry.index != 0)
        cursors.at(entry.index) = entry.before;
    return false;
}

bool decode(XDR *xdrs, void *&out_cursor, uint32_t &out_index, Cursors cursors, vlthread_mutex_t &mutex)
{
    uint32_t index = 0;
    if (!ks::xdr::get_word(xdrs, index))
        return false;
    const ks::LockGuard lock(mutex);
    if (!find(cursors, index, out_cursor))
        return false;
    out_index = index;
    return true;
}

} // namespace

extern "C" bool_t xdr_ks_generic_cursor_t(XDR *xdrs, void **cursor, uint32_t *index, ks_cursor_table **table,
                                          uint32_t *count, vlthread_mutex_t *mutex)
{
    const Cursors cursors(*table, *count);
    if (xdrs->x_op == XDR_ENCODE)
        return encode(xdrs, *cursor, *index, cursors, *mutex) ? TRUE : FALSE;
    if (xdrs->x_op == XDR_DECODE)
        return decode(xdrs, *cursor, *index, cursors, *mutex) ? TRUE : FALSE;
    return TRUE;
}
