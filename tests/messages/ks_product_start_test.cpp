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

#include <sys/stat.h>

#include "harness/child.h"

namespace {

TEST(KsSystemInit, StartsOnceAndAttachesTheCaller)
{
    test::in_child([] {
        umask(0051);
        EXPECT_EQ(ks_initialized(), 0U);
        EXPECT_EQ(ks_system_init(), 1U);
        EXPECT_EQ(vlthread_attached_tid(), vlthread_self());
        umask(0);
        EXPECT_EQ(pfm_proc(), PFM_PROCESS_ORDINARY);
        EXPECT_EQ(sysutl_get_umask(), 0051U);
        // Inside the critical section it only passes through.
        vlthread_enter_critical_section();
        EXPECT_EQ(ks_system_init(), 0U);
        EXPECT_EQ(pfm_inhibit_count(), 1);
        vlthread_leave_critical_section();
        // Another thread takes the attachment over; any thread's block tells that the library is in use.
        std::thread([] {
            EXPECT_EQ(ks_system_init(), 0U);
            EXPECT_EQ(vlthread_attached_tid(), vlthread_self());
            EXPECT_NE(ks_tls_get(), nullptr);
        }).join();
        EXPECT_NE(ks_initialized(), 0U);
    });
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
