// The host's set-up, and a capture that a second signal interrupts. How programs end under it is in the table of
// tests/hostile.
#include "host/program_under_host.h"

namespace kova::test {
namespace {

using HostedProgram = OnFreshNode;

TEST_F(HostedProgram, DiesOfTheFirstSignal) {
    HeldLock log(kLogPath);
    const Program program({"crash_helper", "wait"}, {});
    program.wait_until_ready();
    ::kill(program.pid(), SIGFPE);
    program.wait_until_capturing();
    // One that interrupts the capture, and one that it holds back.
    ::kill(program.pid(), SIGSEGV);
    ::kill(program.pid(), SIGTERM);
    log.release();
    EXPECT_EQ(SIGFPE, WTERMSIG(program.wait_status()));
    EXPECT_EQ(1U, count_of(log_text(), " send Signal[8:SIGFPE]"));
    EXPECT_EQ(1U, count_of(log_text(), " send Signal[11:SIGSEGV]"));
    const auto records = stored_records();
    ASSERT_EQ(1U, records.size());
    EXPECT_EQ(SIGFPE, records[0].signalNumber);
}

TEST_F(HostedProgram, HasItsLimitsRaisedAndIsLeftNothingOfItsThreads) {
    const auto lower_limits = [] {
        for (const auto resource : {RLIMIT_NOFILE, RLIMIT_FSIZE}) {
            rlimit limit{};
            ::getrlimit(resource, &limit);
            limit.rlim_cur = 1000;
            ::setrlimit(resource, &limit);
        }
    };
    EXPECT_EQ(10, WEXITSTATUS(run({"crash_helper", "setup"}, {.host = Host::kNone, .before_exec = lower_limits})));
    EXPECT_EQ(0, run({"crash_helper", "setup"}, {.before_exec = lower_limits}));
}

}  // namespace
}  // namespace kova::test
