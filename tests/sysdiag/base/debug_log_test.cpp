// The private debug log, its head and its times, and the words that pass through to the platform.
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

#include "kova/process_info.h"
#include "support/covered_file.h"
#include "support/log_recorder.h"
#include "sysdiag/base/clock_fakes.h"

namespace kova::test {
namespace {

constexpr char kLog[] = "/opt/norvel/var/log/kova_debug.log";
constexpr time_t kNoon = 1709294405;  // 2024-03-01 12:00:05
constexpr char kPercentHead[] = "[2024-03-01 12:00:05:042][Process:a%d%][Thread:a%d%][ERROR]";

class DebugLog : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(0, ::prctl(PR_SET_NAME, "a%d%"));
        ::unlink(kLog);
        log_recorder().clear();
    }
    ClockAt clock_{kNoon, 42'999'999};
};

TEST_F(DebugLog, AppendsLinesWithAHeadThatIsTakenLiterally) {
    KovaDebugLog(KOVA_DEBUG_ERROR, "open %s, %d%%", "failed", 7);
    KovaDebugLog(KOVA_DEBUG_ERROR, "again");
    EXPECT_EQ(std::string(kPercentHead) + " [SYSDIAG]open failed, 7%\n" + kPercentHead + " [SYSDIAG]again\n",
              read_file(kLog));
    EXPECT_TRUE(log_recorder().take().empty());
}

TEST_F(DebugLog, WritesTheMessageAloneWhenHeadAndFormatDoNotFit) {
    // Between head and format stand the 10 characters " [SYSDIAG]", behind them the line break: 1023 in all.
    const std::size_t longest = 1023 - std::strlen(kPercentHead) - 10 - 1;
    const std::string fits(longest, 'f');
    KovaDebugLog(KOVA_DEBUG_ERROR, fits.c_str(), 0);
    EXPECT_EQ(std::string(kPercentHead) + " [SYSDIAG]" + fits + "\n", read_file(kLog));
    ::unlink(kLog);
    const std::string too_long = "%d" + std::string(longest - 1, 'f');
    KovaDebugLog(KOVA_DEBUG_ERROR, too_long.c_str(), 5);
    EXPECT_EQ("5" + too_long.substr(2), read_file(kLog));
}

TEST_F(DebugLog, NamesTheLevel) {
    const struct {
        std::uint32_t level;
        const char* name;
        const char* report;
    } cases[] = {
        {0, "[INFO]", nullptr},
        {1, "[WARNING]", nullptr},
        {2, "[ERROR]", nullptr},
        {3, "[UNKNOW]", "[KOVA-LOG] level is illegal. level=3"},
        {0xFFFFFFFF, "[UNKNOW]", "[KOVA-LOG] level is illegal. level=-1"},
    };
    for (const auto& c : cases) {
        char head[128] = {};
        EXPECT_EQ(0U, KovaGetPrivateLogHead(head, sizeof head, c.level));
        EXPECT_NE(nullptr, std::strstr(head, c.name)) << head;
        std::vector<LoggedMessage> expected;
        if (c.report != nullptr) expected.push_back(syslog_message(c.report));
        EXPECT_EQ(expected, log_recorder().take());
    }
}

TEST_F(DebugLog, GoesOnWithoutAHead) {
    const std::string pid = std::to_string(::getpid());
    const CoveredFile name("/proc/" + pid + "/comm", "");
    KovaDebugLog(KOVA_DEBUG_INFO, "message");
    EXPECT_EQ(" [SYSDIAG]message\n", read_file(kLog));
    const std::vector<LoggedMessage> expected = {
        syslog_message("Read file unsuccessful.(path=/proc/" + pid + "/comm, len=128)"),
        syslog_message("[KOVA-LOG] kova log get process name unsuccessful. procId=" + pid + " ret=127"),
        syslog_message("[KOVA-LOG] kova debug get log head unsuccessful. logHeadBuf= ret=1"),
    };
    EXPECT_EQ(expected, log_recorder().take());
}

TEST_F(DebugLog, ReportsAnEmptyThreadNameThoughItsCodeIsZero) {
    // The process keeps its name: this is the name of another thread.
    std::thread([] {
        ASSERT_EQ(0, ::prctl(PR_SET_NAME, ""));
        KovaDebugLog(KOVA_DEBUG_INFO, "message");
    }).join();
    EXPECT_EQ(" [SYSDIAG]message\n", read_file(kLog));
    const auto messages = log_recorder().take();
    ASSERT_EQ(2U, messages.size());
    EXPECT_EQ(0U, messages[0].text.find("[KOVA-LOG] kova log get thread name unsuccessful. threadId="));
    EXPECT_EQ("[KOVA-LOG] kova debug get log head unsuccessful. logHeadBuf= ret=0", messages[1].text);
}

TEST_F(DebugLog, DropsTheLineWhereThereIsNoFileForIt) {
    ASSERT_EQ(0, std::rename("/opt/norvel/var/log", "/opt/norvel/var/away"));
    KovaDebugLog(KOVA_DEBUG_ERROR, "lost");
    ASSERT_EQ(0, std::rename("/opt/norvel/var/away", "/opt/norvel/var/log"));
    ASSERT_EQ(0, ::mkfifo(kLog, 0600));
    KovaDebugLog(KOVA_DEBUG_ERROR, "lost");
    ASSERT_EQ(0, ::unlink(kLog));
    EXPECT_TRUE(log_recorder().take().empty());
}

TEST_F(DebugLog, LinesOfSeveralThreadsDoNotMix) {
    constexpr int kThreads = 4;
    constexpr int kLines = 100;
    const std::string filling(6'000, 'x');
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&filling, t] {
            for (int i = 0; i < kLines; ++i) KovaDebugLog(KOVA_DEBUG_INFO, "%s|%d.%d|", filling.c_str(), t, i);
        });
    }
    for (std::thread& thread : threads) thread.join();
    std::istringstream lines(read_file(kLog));
    std::set<std::string> ends;
    for (std::string line; std::getline(lines, line);) {
        const std::size_t text = line.find(" [SYSDIAG]" + filling + "|");
        ASSERT_NE(std::string::npos, text);
        ends.insert(line.substr(text + 10 + filling.size()));
    }
    EXPECT_EQ(static_cast<std::size_t>(kThreads * kLines), ends.size());
}

TEST_F(DebugLog, HeadAndTimeReportBuffersThatAreTooSmall) {
    char small[16] = "old";
    EXPECT_EQ(0xFFFFFFFFU, KovaGetPrivateLogHead(small, sizeof small, KOVA_DEBUG_INFO));
    EXPECT_STREQ("", small);
    EXPECT_EQ(1, log_recorder().count_of(
                     syslog_message("[KOVA-LOG] kova log sprintf_s head unsuccessful. logHeadBuf= ret=-1")));
    log_recorder().clear();
    EXPECT_EQ(0xFFFFFFFFU, KovaGetLogTime(small, 0));
    EXPECT_EQ(0U, log_recorder().take().at(0).text.find(
                      "[KOVA-LOG] kova log sprintf_s time unsuccessful. timeBuf= ret=-1 errno="));
}

TEST_F(DebugLog, TimesAreTruncatedToTheMillisecond) {
    const struct {
        long nanoseconds;
        const char* text;
    } cases[] = {{999'999'999, "2024-03-01 12:00:05:999"}, {5'000'000, "2024-03-01 12:00:05:005"}};
    for (const auto& c : cases) {
        g_clock.now.tv_nsec = c.nanoseconds;
        char text[24];
        EXPECT_EQ(0U, KovaGetLogTime(text, sizeof text));
        EXPECT_STREQ(c.text, text);
    }
    char text[32];
    g_clock.now.tv_sec = INT64_MAX;  // a year that no int holds
    EXPECT_EQ(1U, KovaGetLogTime(text, sizeof text));
    g_clock.fails = true;
    EXPECT_EQ(0xFFFFFFFFU, KovaGetLogTime(text, sizeof text));
    const std::vector<LoggedMessage> expected = {
        syslog_message("[KOVA-LOG] kova log change time unsuccessful. errno=75"),
        syslog_message("[KOVA-LOG] kova log get time unsuccessful. ret=-1, errno=1"),
    };
    EXPECT_EQ(expected, log_recorder().take());
}

TEST(LogTime, HasTheZoneOffsetAndNeedsSixtyFourBytes) {
    const ClockAt clock(kNoon, 0, "HERE-8");
    char text[64] = "old";
    EXPECT_EQ(nullptr, GetLogTime(text, 63));
    EXPECT_EQ(nullptr, GetLogTime(text, -1));
    EXPECT_EQ(nullptr, GetLogTime(nullptr, 64));
    EXPECT_STREQ("old", text);
    EXPECT_EQ(text, GetLogTime(text, 64));
    EXPECT_STREQ("2024-03-01 20:00:05 +0800", text);
    g_clock.now.tv_sec = INT64_MAX;
    EXPECT_EQ(nullptr, GetLogTime(text, 64));
}

// Four no-operations in a row near the start of the function; what a sanitizer does on entry comes before.
bool has_landing_pad(const void* function) {
#if defined(__x86_64__)
    constexpr unsigned char kNop[] = {0x0F, 0x1F, 0x44, 0x00, 0x00};
#else
    constexpr unsigned char kNop[] = {0x1F, 0x20, 0x03, 0xD5};
#endif
    std::string pad;
    for (int i = 0; i < 4; ++i) pad.append(reinterpret_cast<const char*>(kNop), sizeof kNop);
    const std::string start(static_cast<const char*>(function), 256);
    return start.find(pad) != std::string::npos;
}

TEST(DiagLogHook, PassesSixWordsThroughBehindALandingPad) {
    EXPECT_EQ(123456U, KOVA_DiagLogHookReg(1, 2, 3, 4, 5, 6));
    EXPECT_TRUE(has_landing_pad(reinterpret_cast<const void*>(&KOVA_DiagLogHookReg)));
    EXPECT_TRUE(has_landing_pad(reinterpret_cast<const void*>(&KovaGetOOMThreshold)));
    KovaDbgLog(0, "nothing");
    KOVA_Log(0, "nothing");
}

}  // namespace
}  // namespace kova::test

extern "C" uintptr_t KOVA_SetDiagLogFun(uintptr_t a0, uintptr_t a1, uintptr_t a2, uintptr_t a3, uintptr_t a4,
                                        uintptr_t a5) {
    return ((((a0 * 10 + a1) * 10 + a2) * 10 + a3) * 10 + a4) * 10 + a5;
}
