// The start of the library, each time in a process of its own.
#include <korvaks/ks_product.h>

#include <korvaks/pfm.h>
#include <korvaks/sysutl.h>
#include <korvaks/tls_impl.h>
#include <korvaks/vlthread.h>

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "harness/child.h"

namespace {

TEST(KsSystemInit, StartsOnceAndAttachesTheCaller)
{
    const auto result = test::run_child([] {
        umask(0051);
        if (ks_initialized() != 0 || ks_system_init() != 1 || !vlthread_equal(vlthread_attached_tid(), vlthread_self()))
            return 1;
        umask(0);
        if (pfm_proc() != PFM_PROCESS_ORDINARY || sysutl_get_umask() != 0051)
            return 2;
        if (ks_system_init() != 0 || !vlthread_equal(vlthread_attached_tid(), vlthread_self()))
            return 3;
        // Inside the critical section it only passes through.
        vlthread_enter_critical_section();
        if (ks_system_init() != 0 || pfm_inhibit_count() != 1)
            return 4;
        vlthread_leave_critical_section();
        // Another thread takes the attachment over; any thread's block tells that the library is in use.
        bool is_right = false;
        std::thread([&is_right] {
            is_right = ks_system_init() == 0 && vlthread_equal(vlthread_attached_tid(), vlthread_self()) &&
                       ks_tls_get() != nullptr;
        }).join();
        return is_right && ks_initialized() != 0 ? 0 : 5;
    });
    EXPECT_EQ(result.exit_status, 0) << result.err;
}

TEST(KsSystemInit, UsersLocaleUnlessTheProgramChoseOne)
{
    const char *const cases[][3] = {
        {"C.UTF-8", "C", "C.UTF-8\n"}, {"C.UTF-8", "POSIX", "C.UTF-8\n"}, {"C", "C.UTF-8", "C.UTF-8\n"}};
    for (const auto &[of_user, chosen, expected] : cases) {
        const auto result = test::run_child([of_user = of_user, chosen = chosen] {
            setenv("LC_ALL", of_user, 1);
            setlocale(LC_ALL, chosen);
            ks_system_init();
            puts(setlocale(LC_ALL, nullptr));
        });
        EXPECT_EQ(result.out, expected);
    }
}

} // namespace
