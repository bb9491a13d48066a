// Files, processes, numbers and memory.
#include "kova/process_info.h"

#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <climits>
#include <cstring>

#include <gtest/gtest.h>

#include "kova/memory.h"
#include "support/covered_file.h"
#include "support/log_recorder.h"

namespace kova::test {
namespace {

constexpr std::uint32_t kFailure = 0xFFFFFFFF;
constexpr std::uint32_t kGeneral = 0x0E40105B;
constexpr std::uint32_t kStatusFile = 0x0E40105F;

std::string own_file(const char* name) {
    return "/proc/" + std::to_string(::getpid()) + "/" + name;
}

std::vector<LoggedMessage> base_error(std::uint32_t id, std::string text) {
    return {error_message(id, "Base", std::move(text))};
}

TEST(FirstLine, LosesItsLineBreakAndIsCutToTheBuffer) {
    const struct {
        const char* name;
        std::string file;
        std::uint32_t length, result;
        const char* line;
    } cases[] = {
        {"CR LF", "abc\r\nsecond\n", 16, 0, "abc"},
        {"LF", "a\n", 16, 0, "a"},
        {"lone LF stays", "\nsecond\n", 16, 0, "\n"},
        {"CR LF alone keeps the CR", "\r\n", 16, 0, "\r"},
        {"no line break", "abc", 16, 0, "abc"},
        {"cut before the break", "abcdef\n", 5, 0, "abcd"},
        {"break just inside", "abc\n", 5, 0, "abc"},
        {"empty file", "", 16, kFailure, "old"},
        {"no buffer to read into", "abc\n", 0, kFailure, "old"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        write_file("/run/line", c.file);
        char buffer[16] = "old";
        log_recorder().clear();
        EXPECT_EQ(c.result, KovaReadFile2Buf("/run/line", buffer, c.length));
        EXPECT_STREQ(c.line, buffer);
        std::vector<LoggedMessage> expected;
        if (c.result != 0) {
            expected.push_back(
                syslog_message("Read file unsuccessful.(path=/run/line, len=" + std::to_string(c.length) + ")"));
        }
        EXPECT_EQ(expected, log_recorder().take());
    }
    char buffer[4] = {};
    EXPECT_EQ(kFailure, KovaReadFile2Buf("/run/none", buffer, sizeof buffer));
    EXPECT_EQ(kFailure, KovaReadFile2Buf(nullptr, buffer, sizeof buffer));
    const std::vector<LoggedMessage> expected = {syslog_message("Open file unsuccessful.(path=/run/none)"),
                                                 syslog_message("IllegalArgumentException")};
    EXPECT_EQ(expected, log_recorder().take());
}

TEST(FirstLine, AnUnterminatedBufferIsLeftAlone) {
    char text[4] = {'a', 'b', '\r', '\n'};
    KovaRemoveLastRn(text, sizeof text);
    EXPECT_EQ('\r', text[2]);
    KovaRemoveLastRn(nullptr, 4);
}

TEST(ProcessNames, OfThisProcessByEitherPid) {
    char name[16] = {};
    char command_line[PATH_MAX] = {};
    ASSERT_EQ(0, ::prctl(PR_SET_NAME, "base services"));
    for (const std::int32_t pid : {-1, ::getpid()}) {
        EXPECT_EQ(0U, KovaGetProcName(pid, name, sizeof name));
        EXPECT_STREQ("base services", name);
        EXPECT_EQ(0U, KovaGetCmdLine(pid, command_line, sizeof command_line));
        EXPECT_NE(nullptr, std::strstr(command_line, program_invocation_short_name));
    }
    log_recorder().clear();
    EXPECT_EQ(127U, KovaGetProcName(INT_MAX, name, sizeof name));
    EXPECT_EQ(127U, KovaGetCmdLine(INT_MAX, command_line, sizeof command_line));
    EXPECT_EQ(1, log_recorder().count_of(error_message(
                     0x0E40105E, "Base",
                     "Read process cmdline unsuccessful. (pid=2147483647, path=/proc/2147483647/cmdline)")));
    EXPECT_EQ(3U, log_recorder().take().size());
}

TEST(ProcessNames, TellMonitorAndLocationProcesses) {
    const struct {
        const char* name;
        std::string command_line;
        std::uint32_t answer;
    } cases[] = {
        {"monitor\n", "/bin/x", 1},
        {"monitoring\n", "/bin/x", 1},
        {"monito\n", "/bin/x", 0},
        {"x\n", std::string("/opt/relocations/x\0arg", 22), 1},
        {"x\n", std::string("/bin/x\0location", 15), 0},
        {"monitor\n", "", 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name + c.command_line);
        const CoveredFile name(own_file("comm"), c.name);
        const CoveredFile command_line(own_file("cmdline"), c.command_line);
        EXPECT_EQ(c.answer, IsNorvelProcess(KOVA_SELF_PID));
        EXPECT_EQ(c.answer, IsNorvelProcess(static_cast<std::uint32_t>(::getpid())));
    }
}

TEST(Processes, ExistHaveASizeAndAreNotOfTheKernel) {
    const auto pid = static_cast<std::uint32_t>(::getpid());
    const auto tid = static_cast<std::uint32_t>(::syscall(SYS_gettid));
    std::uint32_t kilobytes = 0;
    EXPECT_EQ(0U, KovaIsProcessIdExist(pid));
    EXPECT_EQ(kFailure, KovaIsProcessIdExist(kFailure));
    EXPECT_EQ(0U, KovaIsThreadExist(pid, tid));
    EXPECT_EQ(kFailure, KovaIsThreadExist(pid, kFailure));
    EXPECT_EQ(0U, ProcIsKernel(pid));
    EXPECT_EQ(1U, ProcIsKernel(kFailure));
    EXPECT_EQ(0U, KovaGetProcessVmSize(pid, &kilobytes));
    EXPECT_GT(kilobytes, 1000U);
    const CoveredFile command_line(own_file("cmdline"), "");
    EXPECT_EQ(1U, ProcIsKernel(pid));
}

TEST(Processes, SizeIsTakenFromItsLineOnly) {
    const auto pid = static_cast<std::uint32_t>(::getpid());
    const std::string long_line(300, 'x');
    const struct {
        const char* name;
        std::string file;
        std::uint32_t result, kilobytes;
        const char* message;
    } cases[] = {
        {"behind a long line", "Name:\t" + long_line + "\nVmSize:\t  1234 kB\n", 0, 1234, nullptr},
        {"kernel thread", "Name:\tkswapd\nPid:\t9\n", kFailure, 7,
         "GetProcessVmSize : fgets status file unsuccessful. errno = 0."},
        {"no number", "VmSize:\tnone kB\n", kFailure, 7, "GetProcessVmSize : sscanf_s status file unsuccessful."},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const CoveredFile status(own_file("status"), c.file);
        std::uint32_t kilobytes = 7;
        log_recorder().clear();
        EXPECT_EQ(c.result, KovaGetProcessVmSize(pid, &kilobytes));
        EXPECT_EQ(c.kilobytes, kilobytes);
        EXPECT_EQ(c.message != nullptr ? base_error(kStatusFile, c.message) : std::vector<LoggedMessage>{},
                  log_recorder().take());
    }
    log_recorder().clear();
    std::uint32_t kilobytes = 0;
    EXPECT_EQ(kFailure, KovaGetProcessVmSize(kFailure, &kilobytes));
    EXPECT_EQ(base_error(kStatusFile, "GetProcessVmSize : open status file unsuccessful."), log_recorder().take());
}

TEST(Paths, KnowDirectoriesAndFiles) {
    ASSERT_EQ(0, ::mkfifo("/run/pipe", 0600));
    EXPECT_EQ(1U, KovaCheckDirIsExist("/run"));
    EXPECT_EQ(0U, KovaCheckDirIsExist("/run/pipe"));
    EXPECT_EQ(1U, KOVA_IsFileExist("/run"));
    EXPECT_EQ(1U, KOVA_IsFileExist("/run/pipe"));
    EXPECT_EQ(0U, KOVA_IsFileExist("/run/none"));
    EXPECT_EQ(0U, KOVA_IsFileExist(nullptr));
}

TEST(Numbers, DigitsPercentAndTexts) {
    for (const char* text : {"0", "0123456789"}) EXPECT_EQ(1U, KovaIsDigitString(text)) << text;
    for (const char* text : {"", "1 ", "-1", "\xB2", "1x2"}) EXPECT_EQ(0U, KovaIsDigitString(text)) << text;
    EXPECT_EQ(0U, KovaIsDigitString(nullptr));

    const struct {
        std::uint32_t total, part, result, percent;
    } percents[] = {
        {10'000, 2'500, 0, 25},
        {10'000, 9'999, 0, 99},
        {10'001, 10'001, 0, 100},
        {10'099, 9'999, 0, 99},
        {1'000'000, 250'000, 0, 25},
        {1, 1, 0, 100},
        {UINT32_MAX, UINT32_MAX, 0, 100},
        {0, 0, 127, 7},
        {5, 6, 127, 7},
    };
    for (const auto& c : percents) {
        std::uint32_t percent = 7;
        EXPECT_EQ(c.result, KovaCalcVmUsePercent(&percent, c.total, c.part));
        EXPECT_EQ(c.percent, percent) << c.total << " " << c.part;
    }
    log_recorder().clear();
    std::uint32_t percent = 0;
    EXPECT_EQ(127U, KovaCalcVmUsePercent(&percent, 171, 255));
    EXPECT_EQ(base_error(kGeneral, "Invalued  Mem use data! Total is ab, unused is ff."), log_recorder().take());

    const struct {
        const char* text;
        std::uint32_t result;
        std::uint64_t number;
    } texts[] = {
        {"42", 0, 42},
        {"  +42", 0, 42},
        {"-1", 0, UINT64_MAX},
        {"18446744073709551615", 0, UINT64_MAX},
        {"18446744073709551616", 127, 7},
        {"42x", 127, 7},
        {"42 ", 127, 7},
        {"x", 127, 7},
        {"", 127, 7},
    };
    for (const auto& c : texts) {
        SCOPED_TRACE(c.text);
        std::uint64_t number = 7;
        errno = ERANGE;
        log_recorder().clear();
        EXPECT_EQ(c.result, KovaParsesString2Number(c.text, &number));
        EXPECT_EQ(c.number, number);
        EXPECT_EQ(c.result == 0
                      ? std::vector<LoggedMessage>{}
                      : base_error(kGeneral, "Kova parse string to number unsuccess, str=" + std::string(c.text) + "."),
                  log_recorder().take());
    }
    std::uint64_t number = 0;
    EXPECT_EQ(1U, KovaParsesString2Number(nullptr, &number));
    EXPECT_EQ(1U, KovaParsesString2Number("1", nullptr));
    EXPECT_TRUE(log_recorder().take().empty());
}

TEST(MachineMemory, ThresholdFollowsTheTotal) {
    const struct {
        const char* file;
        std::uint32_t total_kb, threshold;
        const char* message;
    } cases[] = {
        {"MemTotal:        1048576 kB\nMemFree: 1 kB\n", 1'048'576, 50, nullptr},
        {"MemTotal:        1048577 kB\n", 1'048'577, 100, nullptr},
        {"MemTotal:        2097152 kB\n", 2'097'152, 100, nullptr},
        {"MemTotal:        2097153 kB\n", 2'097'153, 160, nullptr},
        {"MemTotal:              0 kB\n", 0, 160, nullptr},
        {"Other: 1\n", 0, 160, "[KovaGetSysMemTotal] strstr (Other: 1\n) unsuccessful"},
        {"", 0, 160, "[KovaGetSysMemTotal] strstr () unsuccessful"},
        {"xMemTotal: many\n", 0, 160, "[KovaGetSysMemTotal] sscanf_s (MemTotal: many\n) unsuccessful"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file);
        const CoveredFile meminfo("/proc/meminfo", c.file);
        log_recorder().clear();
        EXPECT_EQ(c.total_kb, KovaGetSysMemTotal());
        EXPECT_EQ(c.message != nullptr ? base_error(kGeneral, c.message) : std::vector<LoggedMessage>{},
                  log_recorder().take());
        EXPECT_EQ(c.threshold, KovaGetOOMThreshold());
    }
}

struct PartitionCall {
    std::uint32_t handle, kind, size, line;
    const char* tag;
    void* block;
};
PartitionCall g_partition_call;
char g_partition_block[8];

TEST(PartitionMemory, GoesToThePartitionOrToTheHeap) {
    constexpr char kTag[] = "kova_box";
    EXPECT_EQ(nullptr, KovaBaseMalloc(0xFFFFFFFF, 1, 0, kTag, 1));
    EXPECT_EQ(nullptr, KovaBaseMalloc(5, 1, 0, kTag, 1));
    void* block = KovaBaseMalloc(0xFFFFFFFF, 1, 100, kTag, 1);
    ASSERT_NE(nullptr, block);
    std::memset(block, 1, 100);
    KovaBaseFree(0xFFFFFFFF, block, kTag, 1);
    EXPECT_EQ(nullptr, g_partition_call.tag);

    EXPECT_EQ(g_partition_block, KovaBaseMalloc(5, 1, 100, kTag, 77));
    EXPECT_TRUE(g_partition_call.handle == 5 && g_partition_call.kind == 1 && g_partition_call.size == 100 &&
                g_partition_call.tag == kTag && g_partition_call.line == 77);
    KovaBaseFree(6, g_partition_block, kTag, 78);
    EXPECT_TRUE(g_partition_call.handle == 6 && g_partition_call.block == g_partition_block &&
                g_partition_call.tag == kTag && g_partition_call.line == 78);
    g_partition_call = {};
    KovaBaseFree(5, nullptr, kTag, 1);
    EXPECT_EQ(nullptr, g_partition_call.tag);
}

}  // namespace
}  // namespace kova::test

extern "C" void* RUX_MemAlloc_F(uint32_t handle, uint32_t kind, uint32_t size, const char* tag, uint32_t line) {
    kova::test::g_partition_call = {handle, kind, size, line, tag, nullptr};
    return kova::test::g_partition_block;
}

extern "C" void RUX_MemFree_F(uint32_t handle, void* block, const char* tag, uint32_t line) {
    kova::test::g_partition_call = {handle, 0, 0, line, tag, block};
}
