// Private to evutl: the record of a private environment.
#pragma once

#include "base/ks_base.h"

#include <korvaks/evutl.h>
#include <korvaks/vlthread.h>

namespace ks::evutl {

inline constexpr ks::AssertPath here{"lib/ks/evutl"};

// What stands in front of the first entry of an array.
struct ArrayHeader {
    uint64_t capacity;     // entries there is room for
    uint64_t element_size; // bytes of each
    stg_area *area;        // where the array comes from
};
static_assert(sizeof(ArrayHeader) % alignof(char *) == 0);

// Saves the entries of `env` in one heap block: the array ended by NULL, then the strings. NULL on
// exhaustion.
char **pack_entries(evutl_env *env);

} // namespace ks::evutl

struct evutl_env {
    char **vars;           // entries NAME=value, ended by NULL; an ArrayHeader stands in front
    uint32_t count;        // of entries, with the NULL
    stg_area *area;        // of the record, the array and the strings
    uint32_t exported;     // the array was handed out
    vlthread_mutex_t lock; // taken by every operation
};
