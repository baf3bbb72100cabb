// The open structures have exactly these fields, in this order and of these types: programs were
// compiled against them. Compiling this file is the check.
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include <korvaks/list.h>
#include <korvaks/llist.h>
#include <korvaks/pfm.h>
#include <korvaks/strutl.h>
#include <korvaks/vlthread.h>

namespace {

constexpr std::size_t rounded_up(std::size_t offset, std::size_t alignment)
{
    return (offset + alignment - 1) / alignment * alignment;
}

#define END_OF(type, field) (offsetof(type, field) + sizeof(type::field))

#define FIRST(type, field_type, field)                                                                                 \
    static_assert(offsetof(type, field) == 0);                                                                         \
    static_assert(std::is_same_v<decltype(type::field), field_type>)

// `field` stands straight behind `previous`, with nothing but padding between them.
#define NEXT(type, previous, field_type, field)                                                                        \
    static_assert(offsetof(type, field) == rounded_up(END_OF(type, previous), alignof(decltype(type::field))));        \
    static_assert(std::is_same_v<decltype(type::field), field_type>)

#define LAST(type, field)                                                                                              \
    static_assert(sizeof(type) == rounded_up(END_OF(type, field), alignof(type)));                                     \
    static_assert(std::is_standard_layout_v<type> && std::is_trivially_copyable_v<type>)

FIRST(vlthread_mutex_t, pthread_mutex_t, lock);
NEXT(vlthread_mutex_t, lock, vlthread_t, owner);
NEXT(vlthread_mutex_t, owner, llist_link, order_link);
NEXT(vlthread_mutex_t, order_link, void *, locker);
NEXT(vlthread_mutex_t, locker, vlthread_order_class *, order_class);
NEXT(vlthread_mutex_t, order_class, std::int16_t, level);
NEXT(vlthread_mutex_t, level, std::uint16_t, flags);
NEXT(vlthread_mutex_t, flags, std::int32_t, recursion_count);
NEXT(vlthread_mutex_t, recursion_count, std::int32_t, raise_mode);
NEXT(vlthread_mutex_t, raise_mode, std::uint32_t, lock_count);
NEXT(vlthread_mutex_t, lock_count, timeval, wait_time);
NEXT(vlthread_mutex_t, wait_time, timeval, hold_time);
NEXT(vlthread_mutex_t, hold_time, timeval, cond_time);
NEXT(vlthread_mutex_t, cond_time, timeval, locked_at);
LAST(vlthread_mutex_t, locked_at);

FIRST(vlthread_rwlock_t, pthread_rwlock_t, lock);
NEXT(vlthread_rwlock_t, lock, std::int32_t, raise_mode);
NEXT(vlthread_rwlock_t, raise_mode, vlthread_t, writer);
LAST(vlthread_rwlock_t, writer);

using ViolationCallback = void (*)(vlthread_mutex_t *locking, vlthread_mutex_t *held);
FIRST(vlthread_order_class, ViolationCallback, violation);

FIRST(pfm_cleanup_rec, std::uint32_t, magic);
NEXT(pfm_cleanup_rec, magic, pfm_cleanup_rec *, next);
NEXT(pfm_cleanup_rec, next, sigjmp_buf, jump);
NEXT(pfm_cleanup_rec, jump, std::int32_t, inh);
NEXT(pfm_cleanup_rec, inh, std::int32_t, inh_susp);
NEXT(pfm_cleanup_rec, inh_susp, vlthread_t, thr_id);
NEXT(pfm_cleanup_rec, thr_id, std::int32_t, status);
LAST(pfm_cleanup_rec, status);

FIRST(llist_link, llist_link *, next);
NEXT(llist_link, next, llist_link *, prev);
NEXT(llist_link, prev, void *, owner);
LAST(llist_link, owner);

FIRST(msg_table, const char *, catalog_name);
NEXT(msg_table, catalog_name, const char *, subsystem);
NEXT(msg_table, subsystem, std::uint16_t, set);
NEXT(msg_table, set, std::uint16_t, count);
NEXT(msg_table, count, const char *const *, default_texts);
NEXT(msg_table, default_texts, const std::uint16_t *, catalog_numbers);
LAST(msg_table, catalog_numbers);

FIRST(list_record, list_element *, first);
NEXT(list_record, first, list_element *, last);
NEXT(list_record, last, stg_area *, area);
NEXT(list_record, area, std::uint64_t, attr_bytes);
LAST(list_record, attr_bytes);

// Attribute bytes follow an element, so nothing may stand behind its last field.
FIRST(list_element, list_element *, next);
NEXT(list_element, next, void *, data);
LAST(list_element, data);

FIRST(strutl_flag_item_t, const char *, name);
NEXT(strutl_flag_item_t, name, unsigned long, value);
LAST(strutl_flag_item_t, value);

} // namespace
