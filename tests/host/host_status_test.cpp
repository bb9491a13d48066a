// A program ends under the host as it ends without it.

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

TEST_F(HostStatus, AProgramSeesTheDefaultAndCanPutItBack) {
    for (const int number : {SIGINT, SIGSEGV, SIGXFSZ, SIGHUP}) {
        SetUp();
        expect_same_end({"crash_helper", "default-again", std::to_string(number)});
        EXPECT_EQ(1U, stored_records().size()) << number;
    }
    // What was ignored from the beginning is seen as such.
    SetUp();
    const auto ignore = [] { ::signal(SIGHUP, SIG_IGN); };
    EXPECT_EQ(10, WEXITSTATUS(run({"crash_helper", "default-again", std::to_string(SIGHUP)}, {.before_exec = ignore})));
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

}  // namespace
}  // namespace kova::test
