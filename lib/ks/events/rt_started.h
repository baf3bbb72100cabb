// Whether the event runtime has started. Who only wants to know starts nothing.
#pragma once

namespace ks {

bool rt_has_started();

} // namespace ks
