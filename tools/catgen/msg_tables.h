// The one list of all message tables of the library, for whatever goes through all of them.
#pragma once

#include <korvaks/clp.h>
#include <korvaks/date.h>
#include <korvaks/imsg.h>
#include <korvaks/list.h>
#include <korvaks/pfm.h>
#include <korvaks/stg.h>
#include <korvaks/strutl.h>

#include <array>

namespace ks {

// In the order of their catalogue sets.
inline constexpr std::array message_tables{
    &_stg_ks_msg_table, &_list_ks_msg_table, &_pfm_ks_msg_table, &_strutl_ks_msg_table,
    &_ks_ks_msg_table,  &_imsg_ks_msg_table, &_clp_ks_msg_table, &_date_ks_msg_table,
};

} // namespace ks
