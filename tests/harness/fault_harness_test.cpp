// The harness itself: operations with one fault each, which it must find.
#include "harness/fault_sweep.h"

#include <korvaks/pfm.h>

#include <cstdlib>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest-spi.h>

namespace {

using test::fault::Call;
using test::fault::can_fail_allocations;
using test::fault::End;
using test::fault::Mode;
using test::fault::Operation;
using test::fault::Trial;

// What the harness reports of an operation, all in one.
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

void *kept = nullptr;

bool fails()
{
    return fcntl(0, F_GETFD) < 0;
}

TEST(FaultHarness, FindsWhatAFailingCallLeaves)
{
    const std::string at_first = "fcntl 1: EACCES: ";
    const struct {
        const char *name;
        void (*act)();
        std::string report; // "": none
        std::vector<End> ends = {};
    } cases[] = {
        {"sound", [] { close(open("/dev/null", O_RDONLY)); }, ""},
        {"loses a block",
         [] {
             kept = std::malloc(100);
             if (!fails())
                 std::free(kept);
         },
         can_fail_allocations() ? at_first + "disturbed: 1 blocks lost" : ""},
        {"holds raises off",
         [] {
             pfm_inhibit();
             if (!fails())
                 pfm_enable();
         },
         "raises are held off"},
        {"panics in other words",
         [] { fails() ? pfm_panic("lib/ks/here", 12) : void(); },
         at_first + "ended by signal 6",
         {{Call::fcntl, "***ABORT***  'lib/ks/there':#\n"}}},
        {"panics as it should",
         [] { fails() ? pfm_panic("lib/ks/here", 12) : void(); },
         "",
         {{Call::fcntl, "***ABORT***  'lib/ks/here':#\n"}}},
        {"has nothing that can fail", [] {}, can_fail_allocations() ? "nothing to disturb" : ""},
    };
    for (const auto &one : cases) {
        SCOPED_TRACE(one.name);
        const std::string reports = reports_of([&] { Operation(one.name).act(one.act).ends(one.ends).sweep(); });
        if (one.report.empty())
            EXPECT_EQ(reports, "");
        else
            EXPECT_NE(reports.find(one.report), std::string::npos) << reports;
    }
}

TEST(FaultHarness, FindsWhatIsHalfDone)
{
    static bool has_failed = false;
    const auto answers = [](bool is_done) { return [is_done] { return !(has_failed = fails()) || is_done; }; };
    const std::pair<Operation, const char *> cases[] = {
        {Operation("sound").act(answers(false)).notices().sets_errno(), ""},
        {Operation("unseen").act(answers(true)).notices(), "disturbed: a failing call goes unseen"},
        {Operation("half").act(answers(false)).keeps([] { return false; }), "refused, and not as before"},
        {Operation("errno").act([] { return !fails() || (errno = 0) != 0; }).sets_errno(), "errno is not the failing"},
        {Operation("broken from then on").act([] { has_failed = has_failed || fails(); }).check([](const Trial &trial) {
             return trial.fired || !has_failed ? nullptr : "broken";
         }),
         "undisturbed behind it: broken"},
        {Operation("says nothing").act([] { return (kept = std::malloc(1)) != nullptr; }).says("why").cleanup([] {
             std::free(kept);
         }),
         can_fail_allocations() ? "the exhaustion is not reported" : ""},
    };
    for (const auto &[operation, report] : cases) {
        const std::string reports = reports_of([&operation = operation] { Operation(operation).sweep(); });
        EXPECT_NE(reports.find(report), std::string::npos) << report << "\n" << reports;
        EXPECT_EQ(reports.empty(), *report == '\0') << reports;
    }
}

TEST(FaultHarness, FindsRaisesThatAreLostOrLeak)
{
    const auto reports = [](void (*act)()) {
        return reports_of([act] { Operation("raised").act(act).sweep_raises(); });
    };
    EXPECT_EQ(reports([] { pfm_test_raise(nullptr); }), "");
    const std::string lost = reports([] {
        (void)vlthread_pending_raise(nullptr);
        vlthread_reset_raise(nullptr);
    });
    EXPECT_NE(lost.find("raise 1: a raise: disturbed: the raise was lost"), std::string::npos) << lost;
}

} // namespace
