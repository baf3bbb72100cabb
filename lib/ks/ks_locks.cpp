// The process-wide locks, constant-initialised so that any of them can be taken before main.
#include "ks_locks.h"

#include <array>

namespace ks {

constinit vlthread_mutex_t vlthread_critical_section_mutex = VLTHREAD_MUTEX_INITIALIZER;
constinit vlthread_mutex_t pfm_crit = VLTHREAD_MUTEX_INITIALIZER;
constinit vlthread_mutex_t cl_crit = VLTHREAD_MUTEX_INITIALIZER;
constinit vlthread_mutex_t stg_area_crit = VLTHREAD_MUTEX_INITIALIZER;
constinit vlthread_mutex_t ks_product_crit = VLTHREAD_MUTEX_INITIALIZER;
constinit vlthread_mutex_t evutl_environ_crit = VLTHREAD_MUTEX_INITIALIZER;
// The kernel's innermost locks are not counted: the code under them decides about raises and
// reads the very count that a counted lock would change.
constinit vlthread_mutex_t pfm_exit_crit = VLTHREAD_MUTEX_INITIALIZER_NORAISE;
constinit vlthread_mutex_t pfm_inh_susp_crit = VLTHREAD_MUTEX_INITIALIZER_NORAISE;
constinit vlthread_mutex_t pfm_libc_handler_crit = VLTHREAD_MUTEX_INITIALIZER_NORAISE;
constinit vlthread_mutex_t vlthread_lock = VLTHREAD_MUTEX_INITIALIZER_NORAISE;

namespace {

constexpr std::array<vlthread_mutex_t *, 4> module_lock_table{&cl_crit, &stg_area_crit, &ks_product_crit,
                                                              &evutl_environ_crit};

} // namespace

std::span<vlthread_mutex_t *const> module_locks()
{
    return module_lock_table;
}

} // namespace ks
