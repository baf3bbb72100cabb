// Handles under failing calls and raises.
#include "harness/fault_sweep.h"

#include <korvaks/auth.h>
#include <korvaks/imsg.h>

#include <grp.h>
#include <unistd.h>

#include <gtest/gtest.h>

TEST(FaultAuth, HandlesOfAProcessInManyGroupsAreMadeOrRefused)
{
    static AUTH *auth;
    static int group_count = 0;
    test::fault::Operation("ks_authunix_create_default, traced")
        .setup([] {
            constexpr gid_t groups[17]{};
            group_count = setgroups(17, groups) == 0 ? 16 : getgroups(0, nullptr); // which may not be permitted
            imsg_set_trace_verbosity(1);
            imsg_set_trace_subsys("ks/rpc");
            auth = nullptr;
        })
        .act([] { return (auth = ks_authunix_create_default()) != nullptr; })
        .gives([] {
            return auth->ah_cred.oa_base[auth->ah_cred.oa_length - 4 * static_cast<u_int>(group_count) - 1] ==
                   group_count;
        })
        .says("ks_authunix_create: out of memory\n")
        .cleanup([] {
            if (auth != nullptr)
                auth_destroy(auth);
        })
        .sweep()
        .sweep_raises();
}
