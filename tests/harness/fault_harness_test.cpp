// The harness itself: operations with one fault each, which it must find.
#include "harness/fault_sweep.h"

#include "kernel/ks_locks.h"

#include <korvaks/pfm.h>
#include <korvaks/stg.h>
#include <korvaks/tls_impl.h>

#include <cstdlib>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

namespace {

using test::fault::Call;
using test::fault::Scenario;
using test::fault::Trial;

// What the harness reports of a scenario, all in one.
template <typename Sweep> std::string reports_of(Sweep sweep)
{
    testing::TestPartResultArray results;
    {
        const testing::ScopedFakeTestPartResultReporter reporter(
            testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &results);
        sweep();
    }
    std::string reports;
    for (int i = 0; i < results.size(); ++i)
        reports += results.GetTestPartResult(i).message();
    return reports;
}

struct Case {
    Scenario scenario;
    const char *report; // "": none
};

void *kept = nullptr;
int fd = -1;

TEST(FaultHarness, FindsWhatAFailingCallLeaves)
{
    const Case cases[] = {
        {{.name = "sound", .act = [] { close(open("/dev/null", O_RDONLY)); }}, ""},
        {{.name = "loses a block",
          .act =
              [] {
                  kept = std::malloc(100);
                  if (fcntl(0, F_GETFD) >= 0)
                      std::free(kept);
              }},
         test::fault::can_fail_allocations() ? "fcntl 1: EACCES: disturbed: 1 blocks lost" : ""},
        {{.name = "loses a descriptor",
          .act =
              [] {
                  fd = open("/dev/null", O_RDONLY);
                  if (dup(fd) >= 0 && fcntl(fd, F_SETFD, 0) == 0)
                      close(fd + 1);
                  close(fd);
              }},
         "fcntl 1: EACCES: disturbed: 1 descriptors lost"},
        {{.name = "keeps a lock",
          .act =
              [] {
                  (void)vlthread_mutex_lock(&ks::ks_product_crit);
                  if (fcntl(0, F_GETFD) >= 0)
                      (void)vlthread_mutex_unlock(&ks::ks_product_crit);
              }},
         "fcntl 1: EACCES: disturbed: a module's lock is held"},
        {{.name = "holds raises off",
          .act =
              [] {
                  pfm_inhibit();
                  if (fcntl(0, F_GETFD) >= 0)
                      pfm_enable();
              }},
         "raises are held off"},
        {{.name = "crashes",
          .act =
              [] {
                  if (fcntl(0, F_GETFD) < 0)
                      __builtin_trap();
              }},
         "fcntl 1: EACCES: ended by signal"},
        {{.name = "panics without being asked to",
          .act =
              [] {
                  if (fcntl(0, F_GETFD) < 0)
                      pfm_panic("lib/ks/here", 12);
              }},
         "fcntl 1: EACCES: ended by signal 6; it said:\nnoname: Error: ***ABORT***  'lib/ks/here':12\n"},
        {{.name = "panics in other words",
          .act =
              [] {
                  if (fcntl(0, F_GETFD) < 0)
                      pfm_panic("lib/ks/here", 12);
              },
          .ends = {{Call::fcntl, "***ABORT***  'lib/ks/there':#\n"}}},
         "fcntl 1: EACCES: ended by signal 6"},
        {{.name = "panics as it should",
          .act =
              [] {
                  if (fcntl(0, F_GETFD) < 0)
                      pfm_panic("lib/ks/here", 12);
              },
          .ends = {{Call::fcntl, "***ABORT***  'lib/ks/here':#\n"}}},
         ""},
        {{.name = "does not panic", .act = [] { (void)fcntl(0, F_GETFD); }, .ends = {{Call::fcntl, ""}}},
         "no failure of fcntl ends it"},
        {{.name = "is broken from then on",
          .act =
              [] {
                  static bool is_broken = false;
                  is_broken = is_broken || fcntl(0, F_GETFD) < 0;
                  kept = is_broken ? nullptr : &fd;
              },
          .check = [](const Trial &trial) { return trial.fired || kept != nullptr ? nullptr : "broken"; }},
         "undisturbed behind it: broken"},
        {{.name = "has nothing that can fail", .act = [] {}},
         test::fault::can_fail_allocations() ? "nothing to disturb" : ""},
    };
    for (const Case &one : cases) {
        SCOPED_TRACE(one.scenario.name);
        const std::string reports = reports_of([&one] { test::fault::sweep(one.scenario); });
        if (*one.report == '\0')
            EXPECT_EQ(reports, "");
        else
            EXPECT_NE(reports.find(one.report), std::string::npos) << reports;
    }
}

TEST(FaultHarness, FindsRaisesThatAreLostOrLeak)
{
    const auto reports = [](const Scenario &scenario) {
        return reports_of([&scenario] { test::fault::sweep_raises(scenario); });
    };
    EXPECT_EQ(reports({.name = "sound", .act = [] { pfm_test_raise(nullptr); }}), "");
    const std::string lost = reports({.name = "loses it", .act = [] {
                                          (void)vlthread_pending_raise(nullptr);
                                          vlthread_reset_raise(nullptr);
                                      }});
    EXPECT_NE(lost.find("raise 1: a raise: disturbed: the raise was lost"), std::string::npos) << lost;
    if (test::fault::can_fail_allocations()) {
        const std::string leaks = reports({.name = "leaks", .act = [] {
                                               void *block = stg_malloc(10);
                                               pfm_test_raise(nullptr);
                                               stg_free(block);
                                           }});
        EXPECT_NE(leaks.find("disturbed: 1 blocks lost"), std::string::npos) << leaks;
    }
}

// Partial and interrupted transfers: who takes a part for the whole, or an interruption for the end.
TEST(FaultHarness, NoiseFindsTransfersThatAreTakenForWhole)
{
    const auto reports = [](void (*act)()) {
        return reports_of([act] {
            test::fault::sweep_noise({.name = "transfer",
                                      .setup =
                                          [] {
                                              fd = open("/dev/zero", O_RDONLY | O_CLOEXEC);
                                              kept = nullptr;
                                          },
                                      .act = act,
                                      .check = [](const Trial &) { return kept == &fd ? nullptr : "not whole"; },
                                      .cleanup = [] { close(fd); }},
                                     50);
        });
    };
    EXPECT_NE(reports([] {
                  char buffer[64];
                  kept = read(fd, buffer, sizeof buffer) == sizeof buffer ? &fd : nullptr;
              }).find("not whole"),
              std::string::npos);
    EXPECT_EQ(reports([] {
                  char buffer[64];
                  for (std::size_t done = 0; done < sizeof buffer;) {
                      const ssize_t got = read(fd, buffer, sizeof buffer - done);
                      if (got > 0)
                          done += static_cast<std::size_t>(got);
                  }
                  kept = &fd;
              }),
              "");
}

} // namespace
