// The private debug log, its head and its times.
#include "kova/debug_log.h"

#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cstdio>
#include <cstring>
#include <set>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "support/covered_file.h"
#include "support/log_recorder.h"
#include "sysdiag/base/clock_fakes.h"

namespace kova::test {
namespace {

constexpr char kLog[] = "/opt/norvel/var/log/kova_debug.log";
constexpr time_t kNoon = 1709294405;  // 2024-03-01 12:00:05

// The head for this process, whose name would swallow the arguments if it were taken for a format.
std::string line(const std::string& level, const std::string& text) {
    return "[2024-03-01 12:00:05:042][Process:a%d%][Thread:a%d%][" + level + "] [SYSDIAG]" + text + "\n";
}

class DebugLog : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(0, ::prctl(PR_SET_NAME, "a%d%"));
        ::unlink(kLog);
        log_recorder().clear();
    }
    ClockAt clock_{kNoon, 42'999'999};
};

TEST_F(DebugLog, AppendsLinesWithALiteralHeadThatNamesTheLevel) {
    for (const std::uint32_t level : {0U, 1U, 2U, 0xFFFFFFFFU}) KovaDebugLog(level, "%s, %d%%", "failed", 7);
    EXPECT_EQ(line("INFO", "failed, 7%") + line("WARNING", "failed, 7%") + line("ERROR", "failed, 7%") +
                  line("UNKNOW", "failed, 7%"),
              read_file(kLog));
    EXPECT_EQ(std::vector<LoggedMessage>{syslog_message("[KOVA-LOG] level is illegal. level=-1")},
              log_recorder().take());
}

TEST_F(DebugLog, WritesTheMessageAloneWhenHeadAndFormatDoNotFit) {
    const std::string fits(1023 - line("ERROR", "").size(), 'f');
    KovaDebugLog(KOVA_DEBUG_ERROR, fits.c_str(), 0);
    EXPECT_EQ(line("ERROR", fits), read_file(kLog));
    ::unlink(kLog);
    KovaDebugLog(KOVA_DEBUG_ERROR, ("%d" + fits.substr(1)).c_str(), 5);
    EXPECT_EQ("5" + fits.substr(1), read_file(kLog));
}

TEST_F(DebugLog, GoesOnWithoutAHeadButWritesIntoAFileOnly) {
    {
        const CoveredFile name("/proc/" + std::to_string(::getpid()) + "/comm", "");
        KovaDebugLog(KOVA_DEBUG_INFO, "message");
    }
    EXPECT_EQ(" [SYSDIAG]message\n", read_file(kLog));
    ASSERT_EQ(0, ::unlink(kLog));
    ASSERT_EQ(0, ::mkfifo(kLog, 0600));
    KovaDebugLog(KOVA_DEBUG_ERROR, "lost");  // and does not wait for a reader
}

TEST_F(DebugLog, LinesOfSeveralThreadsDoNotMix) {
    constexpr int kLines = 200;
    const std::string filling(6'000, 'x');
    const auto write_lines = [&](int thread) {
        for (int i = 0; i < kLines; ++i) KovaDebugLog(KOVA_DEBUG_INFO, "%s|%d.%d|", filling.c_str(), thread, i);
    };
    std::thread other(write_lines, 1);
    write_lines(2);
    other.join();
    std::istringstream lines(read_file(kLog));
    std::set<std::string> ends;
    for (std::string text; std::getline(lines, text);) {
        const std::size_t end = text.find(" [SYSDIAG]" + filling + "|");
        ASSERT_NE(std::string::npos, end);
        ends.insert(text.substr(end));
    }
    EXPECT_EQ(static_cast<std::size_t>(2 * kLines), ends.size());
}

}  // namespace
}  // namespace kova::test
