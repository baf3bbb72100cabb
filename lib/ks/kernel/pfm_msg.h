// Messages of the fault manager, by event.
#pragma once

#include <korvaks/pfm.h>

namespace ks {

enum PfmMsg : unsigned {
    pfm_msg_abort = 0,
    pfm_msg_assertion_failed = 1,
    pfm_msg_notify_failed = 2,
    pfm_msg_notify_short = 3,
};

} // namespace ks
