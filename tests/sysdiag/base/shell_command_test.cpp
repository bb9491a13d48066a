// Shell commands: exit codes, what the shell inherits, and what the caller keeps.
#include "kova/shell_command.h"

#include <unistd.h>
#include <csignal>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "support/covered_file.h"
#include "support/log_recorder.h"

namespace kova::test {
namespace {

volatile std::sig_atomic_t g_handled;

void count_signal(int) {
    g_handled = g_handled + 1;
}

// "SigIgn" or "SigBlk" of a /proc status text as a mask; bit 0 is signal 1.
std::uint64_t signal_mask(const std::string& status, const char* key) {
    const std::size_t at = status.find(key);
    EXPECT_NE(std::string::npos, at) << status;
    return at == std::string::npos ? 0 : std::stoull(status.substr(at + std::strlen(key) + 1), nullptr, 16);
}

constexpr std::uint64_t bit_of(int signal) {
    return std::uint64_t{1} << (signal - 1);
}

TEST(ShellCommand, AnswersTheExitCode) {
    EXPECT_EQ(255U, KovaSystemCmd("exit 255"));
    EXPECT_EQ(127U, KovaSystemCmd("/no/such/program"));
    EXPECT_EQ(0U, KovaSystemCmd("kill -9 $$"));
    std::signal(SIGCHLD, SIG_IGN);  // so nobody can wait for the end
    EXPECT_EQ(0U, KovaSystemCmd("exit 3"));
    std::signal(SIGCHLD, SIG_DFL);
}

TEST(ShellCommand, TheShellIgnoresTerminalSignalsAndTheCallerKeepsItsOwn) {
    struct sigaction action {};
    action.sa_handler = count_signal;  // without SA_RESTART, so that a signal interrupts the wait
    ASSERT_EQ(0, ::sigaction(SIGINT, &action, nullptr));
    ASSERT_EQ(0, ::sigaction(SIGUSR1, &action, nullptr));
    const std::string before = read_file("/proc/thread-self/status");
    g_handled = 0;
    // What cat inherits: the shell itself blocks signals while it starts it.
    EXPECT_EQ(5U, KovaSystemCmd("cat /proc/self/status > /run/shell-status; kill -USR1 $PPID; exit 5"));
    EXPECT_EQ(1, g_handled);
    const std::string after = read_file("/proc/thread-self/status");
    for (const char* key : {"SigBlk:", "SigIgn:", "SigCgt:"}) {
        EXPECT_EQ(signal_mask(before, key), signal_mask(after, key)) << key;
    }
    const std::string shell = read_file("/run/shell-status");
    // Not SIGCHLD: some shells take that one for themselves.
    constexpr std::uint64_t kTerminal = bit_of(SIGQUIT) | bit_of(SIGINT);
    EXPECT_EQ(kTerminal, signal_mask(shell, "SigIgn:") & (kTerminal | bit_of(SIGUSR1)));
    EXPECT_EQ(signal_mask(before, "SigBlk:"), signal_mask(shell, "SigBlk:"));
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGUSR1, SIG_DFL);
}

TEST(ShellResult, IsZeroForANormalEndOnly) {
    for (const std::int32_t status : {0, 0x80}) EXPECT_EQ(0U, KOVA_SystemRetCheck(status)) << status;
    for (const std::int32_t status : {256, -1, 9}) EXPECT_EQ(127U, KOVA_SystemRetCheck(status)) << status;
}

}  // namespace
}  // namespace kova::test
