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

constexpr std::uint32_t kGeneral = 0x0E40105B;
constexpr std::uint32_t kShellResult = 0x0E401062;

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
    const struct {
        const char* command;
        std::uint32_t code;
    } cases[] = {
        {"exit 3", 3}, {"exit 255", 255}, {"true", 0}, {"", 0}, {"/no/such/program", 127}, {"kill -9 $$", 0},
    };
    for (const auto& c : cases) EXPECT_EQ(c.code, KovaSystemCmd(c.command)) << c.command;
    log_recorder().clear();
    EXPECT_EQ(127U, KovaSystemCmd(nullptr));
    const std::vector<LoggedMessage> expected = {error_message(kGeneral, "Base", "KovaSystemCmd,command is null.")};
    EXPECT_EQ(expected, log_recorder().take());
}

TEST(ShellCommand, TheShellIgnoresTerminalSignalsAndTheCallerKeepsItsOwn) {
    std::signal(SIGINT, count_signal);
    std::signal(SIGUSR1, count_signal);
    const std::string before = read_file("/proc/thread-self/status");
    EXPECT_EQ(0U, KovaSystemCmd("exec cat /proc/self/status > /run/shell-status"));
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

TEST(ShellCommand, AWaitThatASignalInterruptsIsResumed) {
    struct sigaction action {};
    action.sa_handler = count_signal;  // without SA_RESTART
    struct sigaction old {};
    ASSERT_EQ(0, ::sigaction(SIGUSR1, &action, &old));
    g_handled = 0;
    EXPECT_EQ(5U, KovaSystemCmd("kill -USR1 $PPID; exit 5"));
    EXPECT_EQ(1, g_handled);
    ASSERT_EQ(0, ::sigaction(SIGUSR1, &old, nullptr));
}

TEST(ShellCommand, AnEndThatNobodyCanWaitForCountsAsZero) {
    std::signal(SIGCHLD, SIG_IGN);
    EXPECT_EQ(0U, KovaSystemCmd("exit 3"));
    std::signal(SIGCHLD, SIG_DFL);
}

TEST(ShellCommand, AFailedExecGoesToTheSystemLogOnly) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "this sanitizer makes a fork of every vfork: the child's word does not reach the caller";
#endif
    const std::string too_long(1 << 20, 'x');
    log_recorder().clear();
    EXPECT_EQ(127U, KovaSystemCmd(too_long.c_str()));
    const auto messages = log_recorder().take();
    ASSERT_EQ(1U, messages.size());
    EXPECT_EQ("syslog", messages[0].tag);
    EXPECT_EQ(0U, messages[0].text.find("[KOVA-LOG] execl xxxx"));

    const CoveredFile shell("/bin/sh", "not executable");
    EXPECT_EQ(127U, KovaSystemCmd("true"));
    EXPECT_EQ(std::vector<LoggedMessage>{syslog_message("[KOVA-LOG] execl true unsuccessful, ret = -1")},
              log_recorder().take());
}

TEST(ShellResult, LogsTheExitCodeOfWhateverIsNotANormalEnd) {
    const struct {
        std::int32_t status;
        std::uint32_t result;
        const char* message;
    } cases[] = {
        {0, 0, nullptr},
        {0x80, 0, nullptr},
        {256, 127, "envmgr setenv env_fastboot unsuccessful and exit code is 1."},
        {-1, 127, "envmgr setenv env_fastboot unsuccessful and exit status = 255."},
        {9, 127, "envmgr setenv env_fastboot unsuccessful and exit status = 0."},
    };
    for (const auto& c : cases) {
        log_recorder().clear();
        EXPECT_EQ(c.result, KOVA_SystemRetCheck(c.status)) << c.status;
        std::vector<LoggedMessage> expected;
        if (c.message != nullptr) expected.push_back(error_message(kShellResult, "Base", c.message));
        EXPECT_EQ(expected, log_recorder().take());
    }
}

}  // namespace
}  // namespace kova::test
