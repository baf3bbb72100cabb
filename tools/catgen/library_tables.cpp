// The catalogue "ks_lib": all message tables of the library.
#include "catgen.h"

#include <korvaks/clp.h>
#include <korvaks/credutl.h>
#include <korvaks/date.h>
#include <korvaks/imsg.h>
#include <korvaks/list.h>
#include <korvaks/pfm.h>
#include <korvaks/rt.h>
#include <korvaks/stg.h>
#include <korvaks/strutl.h>

namespace {

constexpr const msg_table *tables[] = {
    &_stg_ks_msg_table,  &_list_ks_msg_table, &_pfm_ks_msg_table,  &_strutl_ks_msg_table, &_ks_ks_msg_table,
    &_imsg_ks_msg_table, &_clp_ks_msg_table,  &_date_ks_msg_table, &_rt_ks_msg_table,     &_credutl_ks_msg_table,
};

} // namespace

constinit const std::span<const msg_table *const> catalogue_tables = tables;
