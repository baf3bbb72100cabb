// Private to ks_product: its assertions, and the hook through which it asks a question.
#pragma once

#include "base/ks_base.h"

#include <atomic>

namespace ks::product {

inline constexpr ks::AssertPath here{"lib/ks/ks_product"};

// Shows a message as a question with the answer "proceed". The prompts stand above this module and
// put themselves here; while it is empty the message is printed as output.
using ProceedPrompt = void (*)(const msg_table *table, unsigned msg_no);
inline constinit std::atomic<ProceedPrompt> proceed_prompt{nullptr};

} // namespace ks::product
