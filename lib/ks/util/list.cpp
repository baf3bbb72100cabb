// Singly linked list with attribute bytes behind each element.
#include <korvaks/list.h>

#include "base/ks_base.h"
#include "base/msg_port.h"
#include "kernel/ks_guard.h"
#include "util/list_impl.h"
#include "util/list_msg.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <type_traits>

static_assert(std::is_standard_layout_v<list_record> && std::is_trivially_copyable_v<list_record>);
static_assert(offsetof(list_record, first) == 0 && offsetof(list_record, last) == 8);
static_assert(offsetof(list_record, area) == 16 && offsetof(list_record, attr_bytes) == 24);
static_assert(sizeof(list_record) == 32);
static_assert(std::is_standard_layout_v<list_element> && std::is_trivially_copyable_v<list_element>);
static_assert(offsetof(list_element, next) == 0 && offsetof(list_element, data) == 8);
static_assert(sizeof(list_element) == 16);

namespace {

using ks::list::here;

void *attrs_of(list_element *element)
{
    return element + 1;
}

const void *attrs_of(const list_element *element)
{
    return element + 1;
}

list_element *new_element(const list_record &list, void *data)
{
    std::size_t bytes;
    if (__builtin_add_overflow(sizeof(list_element), list.attr_bytes, &bytes))
        return nullptr;
    auto *element = static_cast<list_element *>(stg_alloc(list.area, bytes));
    if (element != nullptr)
        *element = {nullptr, data};
    return element;
}

void link_behind(list_record &list, list_element *after, list_element *element)
{
    list_element *&link = after == nullptr ? list.first : after->next;
    element->next = link;
    link = element;
    if (element->next == nullptr)
        list.last = element;
}

void unlink(list_record &list, list_element *element)
{
    list_element *before = nullptr;
    list_element *place = list.first;
    while (place != nullptr && place != element) {
        before = place;
        place = place->next;
    }
    here.require(place != nullptr, "elem != NULL");
    (before == nullptr ? list.first : before->next) = element->next;
    if (list.last == element)
        list.last = before;
}

[[noreturn]] void panic_without_storage(int line = __builtin_LINE())
{
    (void)imsg_print(ks::msg_error, &_list_ks_msg_table, list_msg_no_storage);
    here.panic(line);
}

// The message prints its counts as ints.
int as_printed(uint64_t bytes)
{
    return static_cast<int>(std::min<uint64_t>(bytes, INT_MAX));
}

// The step of a walk: the element itself and its data, or twice NULL.
list_element *give(list_element *element, void **out_data)
{
    if (out_data != nullptr)
        *out_data = element == nullptr ? nullptr : element->data;
    return element;
}

// Inlined: an append takes hardly longer than a call.
[[gnu::always_inline]] inline list_element *insert_new(list_record &list, list_element *after, void *data)
{
    // Held off before the element exists: it would be lost if a raise came between.
    const ks::ShortInhibitGuard no_raise;
    list_element *element = new_element(list, data);
    if (element != nullptr)
        link_behind(list, after, element);
    return element;
}

[[gnu::always_inline]] inline list_element *insert_or_panic(list_record *list, list_element *after, void *data)
{
    list_element *element = insert_new(*list, after, data);
    if (element == nullptr) [[unlikely]]
        panic_without_storage();
    return element;
}

// Adds the copy of an element; raises are held off until its attribute bytes are in place too.
void append_copy(list_record *dest, const list_element *original, std::size_t attr_bytes)
{
    const ks::ShortInhibitGuard no_raise;
    list_element *copy = list_append(dest, original->data);
    if (attr_bytes != 0)
        std::memcpy(attrs_of(copy), attrs_of(original), attr_bytes);
}

} // namespace

namespace ks::list {

void init(list_record *list, stg_area *area, uint64_t attr_bytes)
{
    *list = {nullptr, nullptr, area, attr_bytes};
}

list_element *try_insert(list_record *list, list_element *after, void *data)
{
    return insert_new(*list, after, data);
}

void free_elements(list_record *list)
{
    while (list_element *element = list->first) {
        list_element *next = element->next;
        stg_free(element);
        list->first = next;
    }
    list->last = nullptr;
}

} // namespace ks::list

extern "C" {

list_record *list_create(stg_area *area, uint64_t attr_bytes)
{
    auto *list = static_cast<list_record *>(stg_alloc(area, sizeof(list_record)));
    if (list == nullptr)
        panic_without_storage();
    ks::list::init(list, area, attr_bytes);
    return list;
}

void list_destroy(list_record *list)
{
    if (list == nullptr || list->area != STG_AREA_HEAP)
        return;
    ks::list::free_elements(list);
    stg_free(list);
}

list_element *list_append(list_record *list, void *data)
{
    here.require(list != nullptr, "list != NULL");
    return insert_or_panic(list, list->last, data);
}

list_element *list_insert(list_record *list, list_element *after, void *data)
{
    here.require(list != nullptr, "list != NULL");
    return insert_or_panic(list, after, data);
}

void list_remove(list_record *list, list_element *element)
{
    here.require(list != nullptr, "list != NULL");
    const ks::ShortInhibitGuard no_raise;
    unlink(*list, element);
    if (list->area == STG_AREA_HEAP)
        stg_free(element);
}

list_element *list_next(const list_record *list, const list_element *element, void **out_data)
{
    here.require(list != nullptr, "list != NULL");
    return give(element == nullptr ? list->first : element->next, out_data);
}

list_element *list_final(const list_record *list, void **out_data)
{
    here.require(list != nullptr, "list != NULL");
    return give(list->last, out_data);
}

void list_concat(list_record *dest, const list_record *src)
{
    here.require(dest != nullptr, "dest != NULL");
    here.require(src != nullptr, "src != NULL");
    const std::size_t attr_bytes = std::min(dest->attr_bytes, src->attr_bytes);
    // The end is taken beforehand, so that a list appended to itself is walked once.
    const list_element *const final = src->last;
    for (const list_element *element = src->first; element != nullptr; element = element->next) {
        append_copy(dest, element, attr_bytes);
        if (element == final)
            return;
    }
}

void list_set_attrs(const list_record *list, list_element *element, uint64_t nbytes, const void *bytes)
{
    here.require(list != nullptr, "list != NULL");
    here.require(element != nullptr, "elem != NULL");
    if (nbytes > list->attr_bytes) {
        (void)imsg_print(ks::msg_error, &_list_ks_msg_table, list_msg_too_many_attrs, as_printed(nbytes),
                         as_printed(list->attr_bytes));
        here.panic();
    }
    if (nbytes != 0)
        std::memcpy(attrs_of(element), bytes, nbytes);
}

void *list_get_attrs(const list_record *list, list_element *element, uint64_t *out_nbytes)
{
    here.require(list != nullptr, "list != NULL");
    here.require(element != nullptr, "elem != NULL");
    if (out_nbytes != nullptr)
        *out_nbytes = list->attr_bytes;
    return attrs_of(element);
}

void list_set_data(const list_record *list, list_element *element, void *data)
{
    here.require(list != nullptr, "list != NULL");
    here.require(element != nullptr, "elem != NULL");
    element->data = data;
}

void *list_get_data(const list_record *list, const list_element *element)
{
    here.require(list != nullptr, "list != NULL");
    here.require(element != nullptr, "elem != NULL");
    return element->data;
}

std::size_t list_length(const list_record *list)
{
    if (list == nullptr)
        return 0;
    std::size_t count = 0;
    for (const list_element *element = list->first; element != nullptr; element = element->next)
        ++count;
    return count;
}

int list_is_empty(const list_record *list)
{
    return list == nullptr || list->first == nullptr;
}
}
