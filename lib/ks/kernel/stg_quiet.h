// The heap level for code that must not print: it is used while a message is being formatted or
// written, where a report of exhaustion would start a print inside a print.
#pragma once

#include <korvaks/stg.h>

#include <cstddef>

namespace ks {

// stg_malloc() without any message; NULL on exhaustion. Released with stg_free_int(block, 1).
[[nodiscard]] void *heap_try_malloc(std::size_t size);

} // namespace ks
