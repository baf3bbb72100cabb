/**
 * @file korvaks.hpp
 * An optional, thin dress of the C interface for C++17 and later: scopes, loops and message tables. It adds nothing to
 * the library, needs no exceptions and allocates nothing of its own.
 *
 *     korvaks::with_area(1000, [&](stg_area *area) { ... });                     // deleted on every way out
 *     const int32_t raised = korvaks::protect([&] { ... });                      // 0, or the raise that arrived
 *     const korvaks::Lock lock(mutex);                                           // given back at the end of the block
 *     for (const char *name : korvaks::items<const char>(list)) ...
 *     for (const auto &[key, data] : korvaks::str_cells<Entry>(table)) ...
 *
 *     enum { msg_sum, msg_failed };
 *     constexpr korvaks::MessageTable messages("hello", "hello", 1, {{msg_sum, "%08x  %s\n"}, {msg_failed, "%s:
 * %s\n"}}); imsg_print(IMSG_OUTPUT, messages, msg_sum, crc, name);
 *
 * A raise leaves by siglongjmp(3), and no destructor runs on its way (pfm.h says which calls are raise points). So
 *  - with_area() and protect() are functions that take the work as a lambda: a raise comes back to the cleanup record
 *    that they hold, and they do what is to be done;
 *  - Inhibit, Lock, ReadLock and WriteLock may be objects, since no raise is delivered while one lives: only
 *    pfm_raise() itself, which must not be called in their block, would leave by them;
 *  - in a lambda given to protect() or with_area(), an object whose destructor does anything may be alive across a
 *    raise point only behind one of these guards.
 *
 * An exception must not leave such a lambda either: it ends the process (std::terminate).
 */
#ifndef KORVAKS_KORVAKS_HPP
#define KORVAKS_KORVAKS_HPP

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <type_traits>

#include <korvaks/hash.h>
#include <korvaks/list.h>
#include <korvaks/pfm.h>
#include <korvaks/stg.h>
#include <korvaks/vlthread.h>

namespace korvaks {

namespace detail {

// Runs the work under a record. The caller is inhibited before and after; the work runs without that inhibit. Never
// inlined: the record must not share a frame with locals that the work changes.
[[gnu::noinline]] inline std::int32_t run_recorded(void (*work)(void *argument), void *argument)
{
    pfm_cleanup_rec record = {};
    record.status = sigsetjmp(record.jump, 1);
    if (record.status != 0)
        return pfm_cleanup_start(&record, 0); // inhibits the caller
    (void)pfm_cleanup_start(&record, 0);      // 0: the first pass, and an inhibited caller is delivered nothing
    --record.inh;                             // this inhibit ends before the work
    pfm_enable();
    work(argument);
    pfm_inhibit(); // what is pending still comes to this record
    pfm_cleanup_rls(&record);
    return 0;
}

template <typename Work> std::int32_t run_inhibited(Work &work)
{
    const auto call = [](void *argument) noexcept { (*static_cast<Work *>(argument))(); };
    return run_recorded(call, const_cast<void *>(static_cast<const void *>(std::addressof(work))));
}

} // namespace detail

/**
 * Runs `work()` under a cleanup record.
 *
 * @param work  a callable without arguments; locals that it captures by reference hold after a raise what it stored
 * last
 * @return 0 when it returned. Else the status of the raise that arrived, and the caller runs inhibited: it undoes what
 *         is to be undone and passes the raise on with pfm_raise(status), or stays and calls pfm_enable().
 * Threads: any.
 * Raises:  yes, to the enclosing record: what is pending before the work begins, or arrives after it ended.
 */
template <typename Work> [[nodiscard]] std::int32_t protect(Work &&work)
{
    pfm_inhibit();
    const std::int32_t raised = detail::run_inhibited(work);
    if (raised == 0)
        pfm_enable();
    return raised;
}

/**
 * Makes a storage area, runs `work(area)`, and deletes the area: when the work returns, and when a raise leaves it,
 * which is passed on then. A thread that ends in the work (vlthread_exit(), cancellation) leaves the area behind.
 *
 * @param first_size  as for stg_create_area()
 * @param work        a callable that takes the area
 * @return true; false when the area could not be made (message, errno ENOMEM), and then the work was not run.
 * Threads: any.
 * Raises:  yes: what leaves the work, when the area is deleted; and as protect().
 */
template <typename Work> [[nodiscard]] bool with_area(std::uint64_t first_size, Work &&work)
{
    pfm_inhibit();
    stg_area *area = stg_create_area(first_size);
    if (area == STG_AREA_NULL) {
        pfm_enable();
        return false;
    }
    const auto use = [&] { work(area); };
    const std::int32_t raised = detail::run_inhibited(use);
    stg_delete_area(&area);
    if (raised != 0)
        pfm_raise(raised);
    pfm_enable();
    return true;
}

/**
 * pfm_inhibit() and pfm_enable(). Both ends are raise points: it is the first object of its block, so that nothing
 * with a destructor lives when either jumps.
 * Threads: the one that made it. Raises: yes, in the constructor and in the destructor, not between them.
 */
class Inhibit {
  public:
    Inhibit() { pfm_inhibit(); }
    ~Inhibit() { pfm_enable(); }
    Inhibit(const Inhibit &) = delete;
    Inhibit &operator=(const Inhibit &) = delete;
};

/**
 * Holds a mutex. While a counted one is held no raise is delivered, and giving it back delivers none. A noraise mutex
 * is not counted: the block must have no raise point then. Taking what cannot be taken ends the process (abort).
 * Threads: the one that made it. Raises: no.
 */
class Lock {
  public:
    explicit Lock(vlthread_mutex_t &mutex) : mutex_(mutex)
    {
        if (vlthread_mutex_lock(&mutex_) != 0)
            std::abort();
    }
    ~Lock() { (void)vlthread_mutex_unlock(&mutex_); }
    Lock(const Lock &) = delete;
    Lock &operator=(const Lock &) = delete;

  private:
    vlthread_mutex_t &mutex_;
};

/** What ReadLock and WriteLock are: a read/write lock that `Take` took. Otherwise as Lock. */
template <int (*Take)(vlthread_rwlock_t *)> class RwLock {
  public:
    explicit RwLock(vlthread_rwlock_t &rwlock) : rwlock_(rwlock)
    {
        if (Take(&rwlock_) != 0)
            std::abort();
    }
    ~RwLock() { (void)vlthread_rwlock_unlock(&rwlock_); }
    RwLock(const RwLock &) = delete;
    RwLock &operator=(const RwLock &) = delete;

  private:
    vlthread_rwlock_t &rwlock_;
};

using ReadLock = RwLock<vlthread_rwlock_rdlock>;
using WriteLock = RwLock<vlthread_rwlock_wrlock>;

namespace detail {

struct End {};

template <typename Data> class ListIterator {
  public:
    explicit ListIterator(const list_element *at) : at_(at) {}
    Data *operator*() const { return static_cast<Data *>(at_->data); }
    ListIterator &operator++()
    {
        at_ = at_->next;
        return *this;
    }
    bool operator!=(End) const { return at_ != nullptr; }

  private:
    const list_element *at_;
};

template <typename Data> struct Items {
    const list_record *list;
    ListIterator<Data> begin() const { return ListIterator<Data>(list->first); }
    End end() const { return {}; }
};

template <typename Key, typename Data> struct Cell {
    Key key;
    Data *data;
};

template <typename Key> using Next = int (*)(const hash_ht *, hash_cursor **, Key *, void **);

template <typename Key, typename Data, Next<Key> next> class CellIterator {
  public:
    explicit CellIterator(const hash_ht *table) : table_(table) { ++*this; }
    Cell<Key, Data> operator*() const { return {key_, static_cast<Data *>(data_)}; }
    CellIterator &operator++()
    {
        is_at_cell_ = next(table_, &cursor_, &key_, &data_) != 0;
        return *this;
    }
    bool operator!=(End) const { return is_at_cell_; }

  private:
    const hash_ht *table_;
    hash_cursor *cursor_ = nullptr;
    Key key_ = nullptr;
    void *data_ = nullptr;
    bool is_at_cell_ = false;
};

template <typename Key, typename Data, Next<Key> next> struct Cells {
    const hash_ht *table;
    CellIterator<Key, Data, next> begin() const { return CellIterator<Key, Data, next>(table); }
    End end() const { return {}; }
};

} // namespace detail

/**
 * The data pointers of a list, as `Data *`, for a range-based for. Elements appended meanwhile are met; the one that
 * the loop is at must not be removed.
 * Threads: the list's user. Raises: no.
 */
template <typename Data> detail::Items<Data> items(const list_record *list)
{
    return {list};
}

/** @name Cells of a hash table
 * {key, data} of each cell for a range-based for, `data` as `Data *`; `key` points into the table. The rules are those
 * of the scan of the same name in hash.h, for which the loop stands; one that is left early holds nothing. Threads: the
 * table's user. Raises: as the scan.
 */
/**@{*/
template <typename Data> detail::Cells<const std::int64_t *, Data, hash_int_next> int_cells(const hash_ht *table)
{
    return {table};
}

template <typename Data> detail::Cells<const char *, Data, hash_str_next> str_cells(const hash_ht *table)
{
    return {table};
}

template <typename Data> detail::Cells<const void *, Data, hash_flen_next> flen_cells(const hash_ht *table)
{
    return {table};
}

template <typename Data>
detail::Cells<const std::int64_t *, Data, hash_int_next_in_order> int_cells_in_order(const hash_ht *table)
{
    return {table};
}

template <typename Data>
detail::Cells<const char *, Data, hash_str_next_in_order> str_cells_in_order(const hash_ht *table)
{
    return {table};
}

template <typename Data>
detail::Cells<const void *, Data, hash_flen_next_in_order> flen_cells_in_order(const hash_ht *table)
{
    return {table};
}
/**@}*/

/** A message of a table: its number, from an enumeration that begins at 0, and its text. */
struct Message {
    unsigned number;
    const char *text;
};

/**
 * A message table whose messages are counted, and numbered from 1 in the catalogue, by the compiler. It stands where a
 * `const msg_table *` is asked for. Made constexpr, one whose rows are not in the order of their numbers, or that
 * leaves a number out, does not compile; else it ends the process.
 */
template <std::size_t count> class MessageTable {
  public:
    static_assert(count <= 0xFFFF, "a table has at most 65535 messages");

    constexpr MessageTable(const char *catalog_name, const char *subsystem, std::uint16_t set,
                           const Message (&messages)[count])
        : table_{catalog_name, subsystem, set, static_cast<std::uint16_t>(count), texts_, numbers_}
    {
        for (std::size_t i = 0; i < count; ++i) {
            if (messages[i].number != i)
                std::abort();
            texts_[i] = messages[i].text;
            numbers_[i] = static_cast<std::uint16_t>(i + 1);
        }
    }
    MessageTable(const MessageTable &) = delete;
    MessageTable &operator=(const MessageTable &) = delete;

    constexpr operator const msg_table *() const { return &table_; }

  private:
    const char *texts_[count] = {};
    std::uint16_t numbers_[count] = {};
    msg_table table_;
};

} // namespace korvaks

#endif
