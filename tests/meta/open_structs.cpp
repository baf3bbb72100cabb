// The open structures have exactly these fields, in this order and of these types: programs were
// compiled against them. Compiling this file is the check.
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include <korvaks/clp.h>
#include <korvaks/hash.h>
#include <korvaks/imsg_list.h>
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

FIRST(clp_flag_desc, const char *, name);
NEXT(clp_flag_desc, name, std::uint32_t, value);
NEXT(clp_flag_desc, value, std::uint32_t, flags);
LAST(clp_flag_desc, flags);

FIRST(clp_constraint, std::uint32_t, seen);
NEXT(clp_constraint, seen, std::int32_t, link);
LAST(clp_constraint, link);

FIRST(clp_handle, std::uint32_t, magic);
NEXT(clp_handle, magic, stg_area *, area);
NEXT(clp_handle, area, int, argc);
NEXT(clp_handle, argc, char **, argv);
NEXT(clp_handle, argv, int, index);
NEXT(clp_handle, index, char *, next_value);
NEXT(clp_handle, next_value, int, end_of_flags);
NEXT(clp_handle, end_of_flags, int, descriptor_count);
NEXT(clp_handle, descriptor_count, const clp_flag_desc *, descriptors);
NEXT(clp_handle, descriptors, clp_constraint *, constraints);
NEXT(clp_handle, constraints, int, obsolete_mode);
NEXT(clp_handle, obsolete_mode, const char *, last_flag_name);
LAST(clp_handle, last_flag_name);

FIRST(hash_ht, hash_cell **, bkts);
NEXT(hash_ht, bkts, stg_area *, area);
NEXT(hash_ht, area, std::uint64_t, cells);
NEXT(hash_ht, cells, hash_cell *, first_cell);
NEXT(hash_ht, first_cell, hash_cell *, last_cell);
NEXT(hash_ht, last_cell, hash_cell *, free_cells);
NEXT(hash_ht, free_cells, std::uint64_t, dbytes);
NEXT(hash_ht, dbytes, std::uint64_t, key_bytes);
NEXT(hash_ht, key_bytes, std::uint64_t, nbkts);
NEXT(hash_ht, nbkts, std::uint64_t, limit);
NEXT(hash_ht, limit, std::uint64_t, climit);
NEXT(hash_ht, climit, std::uint32_t, keytype);
NEXT(hash_ht, keytype, std::uint32_t, copyk);
NEXT(hash_ht, copyk, std::uint32_t, order);
NEXT(hash_ht, order, hash_key_fn, hash_fn);
NEXT(hash_ht, hash_fn, hash_compare_fn, compare_fn);
LAST(hash_ht, compare_fn);

// Data follow a cell, and the links of an ordered table stand straight in front of it.
FIRST(hash_cell, hash_cell *, next);
NEXT(hash_cell, next, hash_key, key);
NEXT(hash_cell, key, std::uint32_t, hval);
LAST(hash_cell, hval);
FIRST(hash_cell_links, hash_cell *, order);
NEXT(hash_cell_links, order, hash_cell *, back);
LAST(hash_cell_links, back);

FIRST(imsg_list, std::uint32_t, one_msg_buf_size);
NEXT(imsg_list, one_msg_buf_size, char *, one_msg_buf);
NEXT(imsg_list, one_msg_buf, std::uint32_t, growth_unit);
NEXT(imsg_list, growth_unit, std::uint32_t, list_buf_size);
NEXT(imsg_list, list_buf_size, std::uint32_t, used);
NEXT(imsg_list, used, char *, list_buf);
NEXT(imsg_list, list_buf, int, tag_mode);
LAST(imsg_list, tag_mode);

} // namespace
