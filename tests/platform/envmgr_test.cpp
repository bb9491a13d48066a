// The boot-environment tool: what it prints, what it refuses, and what is left when it is killed.
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "environment_file.h"
#include "support/covered_file.h"
#include "support/run_command.h"

namespace kova::test {
namespace {

constexpr char kFile[] = "/run/boot.env";
constexpr char kPending[] = "/run/boot.env.pending";

// What the tool prints, and its exit status where that is not 0.
std::string envmgr(const std::string& arguments) {
    const CommandResult result = run_command(ENVMGR " " + arguments);
    return result.status == 0 ? result.output : std::to_string(result.status) + " " + result.output;
}

void start_with(const std::string& text, const std::string& pending = "") {
    ::setenv("KOVA_ENV_FILE", kFile, 1);
    ::unlink(kPending);
    write_file(kFile, text);
    if (!pending.empty()) write_file(kPending, pending);
}

TEST(Envmgr, ShowsWhatIsSetAtOnceAndKeepsWhatIsSaved) {
    const std::string before = "# kept as it is\na=1\nb=2\na=3";
    start_with(before);
    EXPECT_EQ("3\n", envmgr("getenv a"));
    EXPECT_EQ("", envmgr("getenv c"));
    EXPECT_EQ("", envmgr("setenv a 'x = y'"));
    EXPECT_EQ("", envmgr("setenv b ''"));
    EXPECT_EQ("x = y\n", envmgr("getenv a"));
    EXPECT_EQ("", envmgr("getenv b"));
    EXPECT_EQ(before, read_file(kFile));
    EXPECT_EQ("", envmgr("saveenv"));
    EXPECT_EQ("", envmgr("saveenv"));
    EXPECT_EQ("# kept as it is\na=x = y\n", read_file(kFile));
}

TEST(Envmgr, BadUseGivesTheUsageAndChangesNothing) {
    start_with("");
    for (const char* arguments : {"", "getenv", "getenv a b", "getenv ''", "getenv a=b", "setenv a", "setenv a 1 2",
                                  "setenv 'a b' 1", "setenv a '1\n2'", "saveenv a", "resetenv", "--help a"}) {
        EXPECT_EQ(0U, envmgr(arguments).find("2 usage: envmgr getenv NAME\n")) << arguments;
    }
    EXPECT_NE(0, ::access(kPending, F_OK));
    start_with(std::string(70000, 'x'));
    EXPECT_EQ("1 envmgr: cannot read /run/boot.env: File too large\n", envmgr("setenv a 1"));
}

// Changes the file in a child that is killed at a system-call stop: there is one before each call and one after. False
// when the child ended before.
bool killed_at(int last, const std::function<bool(envmgr::EnvironmentFile*)>& change) {
    const pid_t child = ::fork();
    if (child == 0) {
        if (::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) ::_exit(2);
        ::raise(SIGTRAP);
        envmgr::EnvironmentFile file(kFile);
        ::_exit(file.lock() && change(&file) ? 0 : 1);
    }
    int status = 0;
    for (int stop = 0; ::waitpid(child, &status, 0) == child && WIFSTOPPED(status); ++stop) {
        ::ptrace(stop == last ? PTRACE_KILL : PTRACE_SYSCALL, child, nullptr, nullptr);
    }
    EXPECT_TRUE(WIFSIGNALED(status) || status == 0) << status;
    return WIFSIGNALED(status);
}

TEST(Envmgr, KilledAtAnyCallLeavesTheOldOrTheNewEnvironment) {
    const std::string before = "a=1\nb=2\n";
    const std::string after = "b=2\na=9\n";
    const auto set = [&](envmgr::EnvironmentFile* file) { return file->set_pending(after); };
    const auto save = [](envmgr::EnvironmentFile* file) { return file->save(); };
    for (const bool saving : {false, true}) {
        bool killed = true;
        std::string pending;
        for (int stop = 0; killed; ++stop) {
            SCOPED_TRACE(::testing::Message() << (saving ? "saveenv, stop " : "setenv, stop ") << stop);
            start_with(before, saving ? after : "");
            killed = saving ? killed_at(stop, save) : killed_at(stop, set);
            pending = read_file(kPending);
            ASSERT_EQ(saving && pending.empty() ? after : before, read_file(kFile));
            ASSERT_TRUE(pending.empty() || pending == after) << pending;
        }
        EXPECT_EQ(saving ? "" : after, pending);  // the last one was not killed
    }
}

}  // namespace
}  // namespace kova::test
