// The loop of a server that does nothing else.
#include "rpc/server/svc_impl.h"

#include "kernel/ks_guard.h"

#include <korvaks/ks_warn.h>

#include <algorithm>
#include <cerrno>

namespace ks::svc {

constinit std::atomic<bool> is_running{false};

namespace {

constexpr int64_t us_per_ms = 1000;
constexpr int64_t clean_every_us = int64_t{idle_seconds} * 1'000'000;

int ms_until(int64_t moment_us)
{
    return static_cast<int>(std::clamp<int64_t>((moment_us - now_us()) / us_per_ms + 1, 0, idle_seconds * 1000));
}

// Until waiting fails; errno says why.
void run(Watch &watch)
{
    ks_fd_set ready;
    for (int64_t clean_at = now_us() + clean_every_us;;) {
        pfm_test_raise(nullptr);
        const ks::RaiseHold hold;
        if (!watch.is_open() && !watch.open()) // a child of a fork goes on with one of its own
            return;
        if (!watch.follow_set())
            return;
        const int found = watch.wait(ms_until_resume(ms_until(clean_at)), ready);
        if (found < 0 && errno != EINTR)
            return;
        if (found > 0)
            serve_set(ready);
        else
            resume_when_due();
        if (now_us() >= clean_at) { // also while others keep it busy
            clean_idle_connections();
            clean_at = now_us() + clean_every_us;
        }
    }
}

} // namespace

} // namespace ks::svc

extern "C" void ks_svc_run(void)
{
    using namespace ks::svc;
    pfm_init(); // a raise is to wake it from its first wait on
    if (ks_svc_setup_threads() == FALSE) {
        (void)ks_warn("ks_svc_run: could not initiate thread state");
        return;
    }
    Watch watch;
    is_running = true;
    const int32_t status = ks::protect([&] {
        run(watch);
        (void)ks_warn("ks_svc_run: - select failed");
    });
    watch.close();
    is_running = false;
    if (status != 0)
        pass_on(status, std::exchange(served_by_main_thread, nullptr));
}
