// The boot environment, with a tool that behaves and with ones that do not.
#include "kova/boot_environment.h"

#include <dlfcn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <csignal>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/covered_file.h"
#include "support/log_recorder.h"

namespace kova::test {
namespace {

std::vector<std::string> g_commands;  // what the agent gave to system()
std::vector<int> g_statuses;          // what it is answered, first to last; then commands are run
volatile std::sig_atomic_t g_interruptions;

extern "C" int system(const char* command) {
    g_commands.emplace_back(command);
    if (g_statuses.empty()) return reinterpret_cast<int (*)(const char*)>(::dlsym(RTLD_NEXT, "system"))(command);
    const int status = g_statuses.front();
    g_statuses.erase(g_statuses.begin());
    return status;
}

void expect_logged(const std::string& text) {
    const std::vector expected(text.empty() ? 0 : 1, error_message(0x0E401062, "Base", text));
    EXPECT_EQ(expected, log_recorder().take());
}

// Reads with a tool of this script.
void expect_answer(std::uint32_t (*get)(std::uint32_t*), const std::string& script, std::uint32_t result,
                   std::uint32_t value, const std::string& message) {
    SCOPED_TRACE(script);
    static const std::string path = std::getenv("PATH");
    ::mkdir("/run/tool", 0755);
    write_file("/run/tool/envmgr", "#!/bin/sh\n" + script + "\n");
    ::chmod("/run/tool/envmgr", 0755);
    ::setenv("PATH", ("/run/tool:" + path).c_str(), 1);
    std::uint32_t answer = 7;
    EXPECT_EQ(result, get(&answer));
    EXPECT_EQ(value, answer);
    expect_logged(message);
    ::setenv("PATH", path.c_str(), 1);
}

TEST(BootEnvironment, OneDigitAndALineEndAreAValue) {
    const auto mode = KOVA_GetStartupMode;
    const auto flag = KOVA_GetLocalEnable;
    const std::string no_mode = "env_fastboot not exist, return mode = STARTUP_MODE_NETWORK.";
    const std::string too_high = "envmgr getenv env_fastboot unsuccessful, envInt = ";
    const std::string malformed = "get env_fastboot unsuccessful, env = ";
    expect_answer(mode, "[ \"$*\" = 'getenv env_fastboot' ] && echo 2", 0, 2, "");
    expect_answer(mode, "echo 3; echo more; exit 9", 0, 3, "");
    expect_answer(mode, "echo x", 0, 0, "");
    expect_answer(mode, "echo 4", 127, 0, too_high + "4.");
    expect_answer(mode, "printf 12", 127, 0, too_high + "12.");
    expect_answer(mode, "printf -- -1", 127, 0, too_high + "-1.");
    expect_answer(mode, "echo 12", 127, 0, malformed + "12\n, len = 3.");
    expect_answer(mode, "printf 2", 127, 0, malformed + "2, len = 1.");
    expect_answer(mode, "head -c 300000 /dev/zero | tr '\\000' 1", 127, 0,
                  malformed + std::string(127, '1') + ", len = 127.");
    for (const char* script : {"", "exit 1", "kill -9 $$", "rm $0; exec envmgr"}) {
        expect_answer(mode, script, 0, 0, no_mode);
    }
    expect_answer(flag, "[ \"$*\" = 'getenv env_localenable' ] && echo 1", 0, 1, "");
    expect_answer(flag, "echo 2", 127, 0, "envmgr getenv env_localenable unsuccessful, envInt = 2.");
    expect_answer(flag, "echo 11", 127, 0, "get env_localenable unsuccessful, env = 11\n, len = 3.");
    expect_answer(flag, "", 0, 0, "env_localenable not exist, return enable = 0.");
    EXPECT_EQ(127U, mode(nullptr));
    expect_logged("KOVA_GetStartupMode err, mode = NULL.");
    EXPECT_EQ(127U, flag(nullptr));
    expect_logged("KOVA_GetLocalEnable err, enable = NULL.");
}

TEST(BootEnvironment, AToolThatCannotBeStartedIsAFailure) {
    rlimit limit{};
    ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &limit));
    const rlimit none{0, limit.rlim_max};
    std::uint32_t answer = 7;
    ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &none));
    EXPECT_EQ(127U, KOVA_GetStartupMode(&answer));
    ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &limit));
    EXPECT_EQ(0U, answer);
    expect_logged("envmgr getenv popen unsuccessful.");
}

TEST(BootEnvironment, ASignalBetweenDigitAndLineEndLosesNothing) {
    struct sigaction action {};
    action.sa_handler = [](int) { g_interruptions = g_interruptions + 1; };  // without SA_RESTART
    ASSERT_EQ(0, ::sigaction(SIGUSR1, &action, nullptr));
    const std::string reader = std::to_string(::getpid());
    const std::string wait = "until grep -q '^State:.S' /proc/" + reader + "/status; do :; done; ";  // for more to read
    const std::string interrupt = wait + "kill -USR1 " + reader + "; " + wait;
    expect_answer(KOVA_GetStartupMode, interrupt + "printf 2; " + interrupt + "echo", 0, 2, "");
    EXPECT_EQ(2, g_interruptions);
}

// The statuses are those of setenv and saveenv: where one is missing, the command must not be run.
void expect_set(std::uint32_t mode, std::vector<int> statuses, std::uint32_t result, const std::string& message) {
    std::vector<std::string> commands = {"envmgr setenv env_fastboot " + std::to_string(mode), "envmgr saveenv"};
    commands.resize(statuses.size());
    g_commands.clear();
    g_statuses = std::move(statuses);
    EXPECT_EQ(result, KOVA_SetStartupMode(mode));
    EXPECT_EQ(commands, g_commands);
    expect_logged(message);
}

TEST(BootEnvironment, SettingTheModeSavesItOnlyWhenItCouldBeSet) {
    expect_set(0, {0, 0}, 0, "");
    expect_set(1, {0, 127 << 8}, 0, "");
    expect_set(1, {0, -1}, 127, "envmgr saveenv unsuccessful, ret = -1.");
    expect_set(2, {-1}, 127, "envmgr setenv env_fastboot 2 unsuccessful, ret = -1.");
    expect_set(3, {127 << 8}, 127, "envmgr setenv env_fastboot unsuccessful and exit code is 127.");
    expect_set(3, {9}, 127, "envmgr setenv env_fastboot unsuccessful and exit status = 0.");
    expect_set(4, {}, 127, "KOVA_SetStartupMode mode err, mode = 4.");
    expect_set(0xFFFFFFFF, {}, 127, "KOVA_SetStartupMode mode err, mode = -1.");
}

TEST(BootEnvironment, WhatIsSetIsReadBackFromTheFile) {
    ::setenv("PATH", (ENVMGR_FOLDER ":" + std::string(std::getenv("PATH"))).c_str(), 1);
    std::uint32_t mode = 7;
    EXPECT_EQ(0U, KOVA_SetStartupMode(1));
    EXPECT_EQ(0U, KOVA_SetStartupMode(3));
    EXPECT_EQ(0U, KOVA_GetStartupMode(&mode));
    EXPECT_EQ(3U, mode);
    EXPECT_EQ("env_fastboot=3\n", read_file("/usr/local/etc/kova_boot.env"));
}

}  // namespace
}  // namespace kova::test
