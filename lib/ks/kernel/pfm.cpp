// Start of the fault manager, process types, assertions and panics.
#include "kernel/pfm_impl.h"

#include "base/msg_port.h"
#include "kernel/pfm_msg.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cstddef>
#include <type_traits>

static_assert(std::is_standard_layout_v<pfm_cleanup_rec> && std::is_trivially_copyable_v<pfm_cleanup_rec>);
static_assert(offsetof(pfm_cleanup_rec, magic) == 0 && offsetof(pfm_cleanup_rec, next) == 8);
static_assert(offsetof(pfm_cleanup_rec, jump) == 16 && offsetof(pfm_cleanup_rec, inh) == 216);
static_assert(offsetof(pfm_cleanup_rec, inh_susp) == 220 && offsetof(pfm_cleanup_rec, thr_id) == 224);
static_assert(offsetof(pfm_cleanup_rec, status) == 232 && sizeof(pfm_cleanup_rec) == 240);

namespace ks::fault {

namespace {

// What is registered with the process survives a stop and a new start.
constinit bool registered_handlers = false; // guarded by pfm_crit

void register_with_process()
{
    if (registered_handlers)
        return;
    registered_handlers = true;
    here.require(atexit(pfm_atexit_handler) == 0, "atexit(pfm_atexit_handler) == 0");
    register_fork_handlers();
}

// An unset type counts as an ordinary process here: the type is chosen at the end of the start.
bool blocks_async_signals()
{
    return type() == PFM_PROCESS_ORDINARY || type() == PFM_PROCESS_INVALID;
}

void start()
{
    (void)vlthread_init();
    pfm_exiting.store(false, std::memory_order_relaxed);
    build_signal_sets();
    if (blocks_async_signals())
        pfm_proc_asignals(SIG_BLOCK);
    (void)pfm_get_notify_channel();
    if (type() != PFM_PROCESS_FORK_CHILD)
        start_signal_handler_thread();
    record_current_handlers();
    reset_exit_routine();
    if (type() == PFM_PROCESS_SAFE)
        return;
    install_catchers();
    pfm_proc_init(PFM_PROCESS_ORDINARY);
    register_with_process();
    // A thread that is in the start of the library at this moment is attached, or will be.
    here.require(vlthread_try_attach_lib() == 0 || has_library_start_begun(), "vlthread_try_attach_lib() == 0", 1734);
}

// Reports the end of the process once; a failure while that is reported writes one line.
template <typename... Args> [[noreturn]] void report_and_abort(ks::PfmMsg message, const char *format, Args... args)
{
    pfm_fault_block *block = ks::fault_block_of_caller();
    ++block->pfm_inh_count; // a print is a raise point, and this function does not return
    if (block->asserting++ == 0) {
        (void)imsg_print(ks::msg_error, &_pfm_ks_msg_table, message, args...); // the process ends either way
    } else {
        char text[1024];
        const int formatted = std::snprintf(text, sizeof text, format, args...);
        const auto length = static_cast<std::size_t>(formatted < 0 ? 0 : formatted);
        (void)!write(STDERR_FILENO, text, length < sizeof text ? length : sizeof text - 1);
    }
    std::abort();
}

} // namespace

} // namespace ks::fault

extern "C" {

void pfm_init(void)
{
    if (ks::fault::pfm_ready.load(std::memory_order_acquire) || ks::fault::pfm_stopped.load(std::memory_order_acquire))
        return;
    const ks::LockGuard lock(ks::pfm_crit);
    if (ks::fault::pfm_inited.load(std::memory_order_relaxed))
        return;
    ks::fault::pfm_inited.store(true, std::memory_order_relaxed);
    ks::fault::start();
    ks::fault::pfm_ready.store(true, std::memory_order_release);
}

void pfm_proc_init(pfm_proc_type proc_type)
{
    ks::fault::here.require(proc_type != PFM_PROCESS_INVALID, "proc_type != PFM_PROCESS_INVALID", 1572);
    pfm_proc_type unset = PFM_PROCESS_INVALID;
    if (proc_type == PFM_PROCESS_SAFE && ks::fault::type() == PFM_PROCESS_INVALID)
        ks::fault::here.require(!ks::fault::pfm_inited.load(std::memory_order_relaxed), "pfm_inited == 0", 1581);
    if (!ks::fault::pfm_type.compare_exchange_strong(unset, proc_type))
        return;
    ks::fault::pfm_call_libc.store(proc_type == PFM_PROCESS_CHAINING, std::memory_order_relaxed);
    pfm_init();
}

pfm_proc_type pfm_external_proc_init(void)
{
    const pfm_proc_type previous = ks::fault::type();
    if (previous == PFM_PROCESS_INVALID)
        pfm_proc_init(PFM_PROCESS_SAFE);
    return previous;
}

pfm_proc_type pfm_proc(void)
{
    return ks::fault::type();
}

void pfm_assert_fail(const char *expr, const char *file, int line)
{
    ks::fault::report_and_abort(ks::pfm_msg_assertion_failed, "PFM_ASSERT:(%s) failed: '%s':%d\n", expr, file, line);
}

void pfm_panic(const char *file, int line)
{
    ks::fault::report_and_abort(ks::pfm_msg_abort, "***ABORT***  '%s':%d\n", file, line);
}
}
