// The process-wide locks, constant-initialised so that any of them can be taken before main.
#include "kernel/ks_locks.h"

#include <korvaks/tls_impl.h>

#include <array>
#include <cstdio>

namespace ks {

namespace {

#ifdef NDEBUG
constexpr vlthread_order_class *process_order = nullptr;
#else
extern "C" void end_on_violation(vlthread_mutex_t *locking, vlthread_mutex_t *held);
constinit vlthread_order_class process_order_class{end_on_violation};
constexpr vlthread_order_class *process_order = &process_order_class;

extern "C" void end_on_violation(vlthread_mutex_t *locking, vlthread_mutex_t *held)
{
    if (pfm_tls_get()->asserting != 0)
        return; // the process is ending, and says why under whatever the thread holds
    char text[96];
    (void)snprintf(text, sizeof text, "lock of level %d taken under one of level %d", locking->level, held->level);
    vlthread_assert_fail(text, __LINE__);
}
#endif

consteval vlthread_mutex_t lock_at(LockLevel level, int32_t raise_mode = VLTHREAD_RAISE_COUNTED)
{
    vlthread_mutex_t mutex = VLTHREAD_MUTEX_INITIALIZER_MODE(raise_mode);
    mutex.order_class = process_order;
    mutex.level = level;
    return mutex;
}

} // namespace

constinit vlthread_mutex_t vlthread_critical_section_mutex = lock_at(lock_level_vlthread_critical_section_mutex);
constinit vlthread_mutex_t pfm_crit = lock_at(lock_level_pfm_crit);
constinit vlthread_mutex_t cl_crit = lock_at(lock_level_cl_crit);
constinit vlthread_mutex_t clp_collectdatas_crit = lock_at(lock_level_clp_collectdatas_crit);
constinit vlthread_mutex_t clp_collectdatai_crit = lock_at(lock_level_clp_collectdatai_crit);
constinit vlthread_mutex_t stg_area_crit = lock_at(lock_level_stg_area_crit);
constinit vlthread_mutex_t ks_product_crit = lock_at(lock_level_ks_product_crit);
constinit vlthread_mutex_t default_date_style_crit = lock_at(lock_level_default_date_style_crit);
constinit vlthread_mutex_t evutl_environ_crit = lock_at(lock_level_evutl_environ_crit);
// The kernel's innermost locks are not counted: the code under them decides about raises and
// reads the very count that a counted lock would change.
constinit vlthread_mutex_t pfm_exit_crit = lock_at(lock_level_pfm_exit_crit, VLTHREAD_RAISE_IGNORED);
constinit vlthread_mutex_t pfm_inh_susp_crit = lock_at(lock_level_pfm_inh_susp_crit, VLTHREAD_RAISE_IGNORED);
constinit vlthread_mutex_t pfm_libc_handler_crit = lock_at(lock_level_pfm_libc_handler_crit, VLTHREAD_RAISE_IGNORED);
constinit vlthread_mutex_t vlthread_lock = lock_at(lock_level_vlthread_lock, VLTHREAD_RAISE_IGNORED);

namespace {

constexpr std::array module_lock_table{&cl_crit,           &clp_collectdatas_crit, &clp_collectdatai_crit,
                                       &stg_area_crit,     &ks_product_crit,       &default_date_style_crit,
                                       &evutl_environ_crit};

} // namespace

vlthread_order_class *lock_order()
{
    return process_order;
}

std::span<vlthread_mutex_t *const> module_locks()
{
    return module_lock_table;
}

} // namespace ks
