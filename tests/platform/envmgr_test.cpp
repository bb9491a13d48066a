// The boot-environment tool: what it prints, what it refuses, and what is left when it is killed.
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "support/covered_file.h"

namespace kova::test {
namespace {

constexpr char kFile[] = "/run/boot.env";
constexpr char kPending[] = "/run/boot.env.pending";

// What the tool prints, and its exit status where that is not 0.
std::string envmgr(const std::string& arguments) {
    std::string text;
    std::FILE* const pipe = ::popen((ENVMGR " " + arguments + " 2>&1").c_str(), "re");
    for (int c = std::getc(pipe); c != EOF; c = std::getc(pipe)) text += static_cast<char>(c);
    const int status = ::pclose(pipe);
    return status == 0 ? text : std::to_string(WEXITSTATUS(status)) + " " + text;
}

void start_with(const std::string& text) {
    ::setenv("KOVA_ENV_FILE", kFile, 1);
    ::unlink(kPending);
    write_file(kFile, text);
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

// Runs the tool and kills it at a system-call stop: there is one before each call and one after. Answers how many there
// were.
int run_with_stops(const char* const* arguments, int last) {
    const pid_t child = ::fork();
    if (child == 0) {
        ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        ::execv(ENVMGR, const_cast<char* const*>(arguments));
        ::_exit(126);
    }
    int status = 0;
    int stops = 0;
    for (; ::waitpid(child, &status, 0) == child && WIFSTOPPED(status); ++stops) {
        ::ptrace(stops == last ? PTRACE_KILL : PTRACE_SYSCALL, child, nullptr, nullptr);
    }
    EXPECT_TRUE(WIFSIGNALED(status) || status == 0) << status;
    return stops;
}

TEST(Envmgr, KilledAtAnyCallLeavesTheOldOrTheNewEnvironment) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the leak checker does not run under ptrace";
#endif
    const std::string before = "a=1\nb=2\n";
    const std::string after = "b=2\na=9\n";
    const char* const set[] = {"envmgr", "setenv", "a", "9", nullptr};
    const char* const save[] = {"envmgr", "saveenv", nullptr};
    constexpr int kOwnStops = 60;  // the many before are those of the loader
    bool saved = false;
    for (const bool saving : {false, true}) {
        const char* const* const command = saving ? save : set;
        start_with(before);
        const int stops = run_with_stops(command, -1);
        for (int last = std::max(stops - kOwnStops, 0); last <= stops; ++last) {
            SCOPED_TRACE(::testing::Message() << command[1] << ", stop " << last << " of " << stops);
            start_with(before);
            if (saving) envmgr("setenv a 9");
            run_with_stops(command, last);
            const std::string left = read_file(kFile);
            saved = saving && left == after;
            ASSERT_EQ(saved ? after : before, left);
            ASSERT_EQ("", envmgr("setenv a 9"));
            ASSERT_EQ("", envmgr("saveenv"));
            ASSERT_EQ(after, read_file(kFile));
        }
    }
    EXPECT_TRUE(saved);  // the last one was not killed
}

}  // namespace
}  // namespace kova::test
