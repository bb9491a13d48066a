// kovactl run, as a user calls it.
#include "host/program_under_host.h"

namespace kova::test {
namespace {

using RunCommand = OnFreshNode;

constexpr char kKovactl[] = "../bin/kovactl";

std::vector<std::string> kovactl_run(std::vector<std::string> words) {
    words.insert(words.begin(), {kKovactl, "run"});
    return words;
}

std::string output_of(
    const std::vector<std::string>& command, const std::function<void()>& before_exec = [] {}) {
    const Program program(command, {.host = Host::kNone, .before_exec = before_exec});
    std::string text = program.output();
    EXPECT_EQ(0, program.wait_status());
    return text;
}

TEST_F(RunCommand, TheProgramsEndIsItsOwn) {
    const StartOptions plain{.host = Host::kNone};
    EXPECT_EQ(7, WEXITSTATUS(run(kovactl_run({"--", "sh", "-c", "exit 7"}), plain)));
    // A parser that looks behind the dashes would take this for a list.
    EXPECT_EQ(0, run(kovactl_run({"--", "sh", "-c", "[ a = a ]"}), plain));
    const std::string crash_helper = beside_this_program("crash_helper");
    const int status = run(kovactl_run({"--", crash_helper, "fault", std::to_string(SIGSEGV)}), plain);
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(SIGSEGV, WTERMSIG(status));
    EXPECT_EQ(1U, stored_records().size());
    // Down to the bytes behind its texts.
    EXPECT_EQ(0, run({kKovactl, "box", "verify"}, plain));
}

TEST_F(RunCommand, TellsWhatCannotBeRun) {
    const struct {
        const char* program;
        int exit_code;
    } cases[] = {{"no-such-program", 127}, {"/run/kova/no-such-program", 127}, {"/run/kova", 126}};
    EXPECT_EQ(2, WEXITSTATUS(run({kKovactl, "run"}, {.host = Host::kNone})));
    EXPECT_EQ(2, WEXITSTATUS(run({kKovactl, "box", "--", "true"}, {.host = Host::kNone})));
    for (const auto& c : cases) {
        SCOPED_TRACE(c.program);
        EXPECT_EQ(c.exit_code, WEXITSTATUS(run(kovactl_run({"--", c.program}), {.host = Host::kNone})));
    }
}

TEST_F(RunCommand, StandsInFrontOfWhatIsPreloadedAlready) {
    const auto preload_another = [] { ::setenv("LD_PRELOAD", "libm.so.6", 1); };
    const std::string list = output_of(kovactl_run({"--", "sh", "-c", "echo $LD_PRELOAD"}), preload_another);
    EXPECT_EQ('/', list[0]) << list;
    EXPECT_TRUE(list.ends_with("/lib/libkova_host.so:libm.so.6\n")) << list;
}

TEST_F(RunCommand, HandsOverTheTimeLimitAndTheProgramsOwnOptions) {
    const auto words = kovactl_run({"--timeout", "12", "--", "sh", "-c", "echo $KOVA_HOST_TIMEOUT $0", "--help"});
    EXPECT_EQ("12 --help\n", output_of(words));
}

}  // namespace
}  // namespace kova::test
