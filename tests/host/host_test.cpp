// The host's set-up, and a capture that a second signal interrupts. How programs end under it is in the table of
// tests/hostile.
#include <filesystem>
#include <iterator>

#include "host/program_under_host.h"
#include "support/test_daemon.h"

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

std::size_t thread_count(const Program& program) {
    const std::filesystem::directory_iterator tasks("/proc/" + std::to_string(program.pid()) + "/task");
    return static_cast<std::size_t>(std::distance(begin(tasks), end(tasks)));
}

pid_t thread_named(const Program& program, const std::string& name) {
    for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(program.pid()) + "/task")) {
        if (read_file(task.path() / "comm") == name + "\n") return std::stoi(task.path().filename());
    }
    return -1;
}

TEST_F(HostedProgram, IsRegisteredWhenThatIsWantedAndThenOnly) {
    TestDaemon daemon;
    for (const bool is_wanted : {false, true}) {
        const auto environment = [&] { ::setenv("KOVA_HOST_REGISTER", is_wanted ? "1" : "0", 1); };
        const Program program({"crash_helper", "wait"}, {.before_exec = environment});
        program.wait_until_ready();
        EXPECT_EQ(is_wanted ? 3U : 1U, thread_count(program));
        Peer peer;
        wire::Message asked;
        if (is_wanted) {
            peer = daemon.accept();
            EXPECT_EQ(program.pid(), peer.pid());
            ASSERT_TRUE(peer.receive(&asked));
            EXPECT_EQ("AgentRegInfo", asked.service);
            EXPECT_EQ(0, std::memcmp("crash_helper", asked.payload.data(), sizeof "crash_helper"));
        }
        // It dies as ever, whatever threads there are and whichever of them is hit.
        ::syscall(SYS_tgkill, program.pid(), is_wanted ? thread_named(program, "kova_rpc") : program.pid(), SIGFPE);
        EXPECT_EQ(SIGFPE, WTERMSIG(program.wait_status()));
        EXPECT_FALSE(is_wanted && peer.receive(&asked));
    }
    const auto records = stored_records();
    ASSERT_EQ(2U, records.size());
    EXPECT_NE(records[0].processId, records[0].threadId);
}

}  // namespace
}  // namespace kova::test
