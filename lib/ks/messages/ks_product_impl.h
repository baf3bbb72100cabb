// Private to ks_product: its assertions.
#pragma once

#include "base/ks_base.h"

namespace ks::product {

inline constexpr AssertPath here{"lib/ks/ks_product"};

} // namespace ks::product
