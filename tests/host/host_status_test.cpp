// A program ends under the host as it ends without it.
#include <sched.h>

#include "kova/exception_log.h"
#include "program_under_host.h"

namespace kova::test {
namespace {

using HostStatus = OnFreshNode;

void expect_same_end(
    const std::vector<std::string>& command, const std::function<void()>& before_exec = [] {}) {
    std::string name;
    for (const std::string& word : command) name += word + " ";
    SCOPED_TRACE(name);
    const int plain = run(command, {.host = Host::kNone, .before_exec = before_exec});
    const int hosted = run(command, {.before_exec = before_exec});
    EXPECT_EQ(plain, hosted) << std::hex << "wait status " << plain << " without the host, " << hosted << " with it";
    EXPECT_TRUE(WIFSIGNALED(plain) || WIFEXITED(plain));
}

TEST_F(HostStatus, EverySignalOfTheListEndsTheProgramAsBefore) {
    for (std::uint32_t i = 0; i < g_kovaSignalNum; ++i) {
        const std::string number = std::to_string(g_kovaSignalList[i]);
        for (const char* const mode : {"raise", "kill", "queue"})
            expect_same_end({"crash_helper", mode, number}, allow_core);
        EXPECT_EQ(3U, count_of(log_text(), " send Signal[" + number + ":")) << number;
    }
    // All but SIGTERM leave a record; the box holds 20.
    EXPECT_EQ(20U, stored_records().size());
}

TEST_F(HostStatus, FaultsEndTheProgramAsBefore) {
    const std::string segv = std::to_string(SIGSEGV);
    const std::vector<std::string> cases[] = {
        {"fault", segv},
        {"fault", std::to_string(SIGBUS)},
        {"fault", std::to_string(SIGFPE)},
        {"fault", std::to_string(SIGILL)},
        {"fault-impossible-address"},
        {"abort"},
        {"overflow"},
        {"overflow-thread"},
        {"vanishing-fault"},
        {"child", segv},
        {"child", std::to_string(SIGFPE)},
    };
    std::size_t captured = 0;
    for (std::vector<std::string> command : cases) {
        command.insert(command.begin(), "crash_helper");
        expect_same_end(command, allow_core);
        EXPECT_EQ(++captured, stored_records().size()) << command[1];
    }
}

TEST_F(HostStatus, WithoutTheCoreLimitThereIsNoCore) {
    expect_same_end({"crash_helper", "fault", std::to_string(SIGSEGV)}, [] {
        const rlimit none{};
        ::setrlimit(RLIMIT_CORE, &none);
    });
}

TEST_F(HostStatus, WhatTheProgramArrangedItselfWins) {
    expect_same_end({"crash_helper", "exit", "5"});
    expect_same_end({"crash_helper", "own-handler", std::to_string(SIGSEGV)});
    expect_same_end({"crash_helper", "blocked", std::to_string(SIGTERM)});
    expect_same_end({"crash_helper", "raise", std::to_string(SIGHUP)}, [] { ::signal(SIGHUP, SIG_IGN); });
    EXPECT_EQ("", log_text());
}

TEST_F(HostStatus, ASandboxThatRefusesTheCaptureDoesNotChangeTheEnd) {
    // A thread that counts faults inside the capture as refusals, not as results: no descriptor is made up.
    expect_same_end({"crash_helper", "sandbox", std::to_string(SIGSEGV)});
    expect_same_end({"crash_helper", "sandbox", std::to_string(SIGSYS)});
}

TEST_F(HostStatus, SetUpRaisesTheLimitsAndThreadsLeaveNothingBehind) {
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

TEST_F(HostStatus, ProcessOneOfANamespaceEndsAlthoughItsSignalHasNoEffect) {
    const int status = [] {
        const pid_t child = ::fork();
        if (child == 0) {
            if (::unshare(CLONE_NEWPID) != 0) ::_exit(99);
            const int inner = run({"crash_helper", "kill", std::to_string(SIGTERM)});
            ::_exit(WIFEXITED(inner) ? WEXITSTATUS(inner) : 98);
        }
        int outer = -1;
        ::waitpid(child, &outer, 0);
        return outer;
    }();
    if (WIFEXITED(status) && WEXITSTATUS(status) == 99) GTEST_SKIP() << "no PID namespaces here";
    EXPECT_EQ(128 + SIGTERM, WEXITSTATUS(status));
}

}  // namespace
}  // namespace kova::test
