// The start of the library.
#include <korvaks/ks_product.h>

#include "messages/ks_product_impl.h"
#include "kernel/kernel.h"

#include <korvaks/pfm.h>
#include <korvaks/sysutl.h>

#include <clocale>
#include <cstring>

namespace {

constinit bool system_initialized = false; // guarded by the critical section

// A program that chose a locale keeps it.
void take_users_locale()
{
    const char *current = std::setlocale(LC_ALL, nullptr);
    if (current != nullptr && std::strcmp(current, "C") == 0)
        (void)std::setlocale(LC_ALL, ""); // a locale that is not installed leaves "C"
}

// 1 for the first caller.
uint32_t start_once()
{
    if (system_initialized)
        return 0;
    pfm_init();
    take_users_locale();
    (void)sysutl_get_max_fds(); // reads and keeps it
    system_initialized = true;
    return 1;
}

} // namespace

extern "C" {

uint32_t ks_system_init(void)
{
    (void)vlthread_init();
    ks::enter_critical_section_to_start();
    sysutl_umask_init();
    const uint32_t started = start_once();
    // Leaving and attaching are one step, so that no other starting thread attaches in between.
    ks::product::here.require(ks::leave_critical_section_attached() == 0, "vlthread_try_attach_lib() == 0", 714);
    return started;
}

uint32_t ks_initialized(void)
{
    return ks::has_any_tls_block() ? 1 : 0;
}
}
