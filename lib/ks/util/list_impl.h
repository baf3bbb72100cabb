// What the stack needs of the list beyond its public calls: a record inside a block of its own,
// and an insertion that reports exhaustion.
#pragma once

#include "base/ks_base.h"

#include <korvaks/list.h>

namespace ks::list {

inline constexpr ks::AssertPath here{"lib/ks/list"};

// Makes `list` an empty list.
void init(list_record *list, stg_area *area, uint64_t attr_bytes);

// Links a new element behind `after`, or in front when that is NULL; NULL on exhaustion, and then
// the list is as it was. Raises are held off until the element is linked.
list_element *try_insert(list_record *list, list_element *after, void *data);

// Gives the elements of a heap list back, first to last; the list is empty then.
void free_elements(list_record *list);

} // namespace ks::list
