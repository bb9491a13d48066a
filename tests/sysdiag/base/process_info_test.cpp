// Files, processes, numbers and memory.
#include "kova/process_info.h"

#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>

#include <gtest/gtest.h>

#include "kova/memory.h"
#include "support/covered_file.h"

namespace kova::test {
namespace {

constexpr std::uint32_t kFailure = 0xFFFFFFFF;

std::string own_file(const char* name) {
    return "/proc/" + std::to_string(::getpid()) + "/" + name;
}

TEST(FirstLine, LosesItsLineBreakAndIsCutToTheBuffer) {
    const auto first_line = [](const char* file) -> std::string {
        write_file("/run/line", file);
        char buffer[5] = "?";
        return KovaReadFile2Buf("/run/line", buffer, sizeof buffer) == 0 ? buffer : "failed";
    };
    EXPECT_EQ("ab", first_line("ab\r\nsecond\n"));
    EXPECT_EQ("abcd", first_line("abcde\n"));
    EXPECT_EQ("\n", first_line("\nsecond\n"));
    EXPECT_EQ("failed", first_line(""));
}

TEST(Processes, AreFoundByTheirPid) {
    char name[16] = {};
    ASSERT_EQ(0, ::prctl(PR_SET_NAME, "base services"));
    for (const std::int32_t pid : {-1, ::getpid()}) EXPECT_EQ(0U, KovaGetProcName(pid, name, sizeof name)) << pid;
    EXPECT_STREQ("base services", name);
    EXPECT_EQ(127U, KovaGetProcName(INT_MAX, name, sizeof name));
    const auto pid = static_cast<std::uint32_t>(::getpid());
    EXPECT_EQ(0U, KovaIsProcessIdExist(pid));
    EXPECT_EQ(kFailure, KovaIsProcessIdExist(kFailure));
    EXPECT_EQ(0U, KovaIsThreadExist(pid, static_cast<std::uint32_t>(::syscall(SYS_gettid))));
    EXPECT_EQ(kFailure, KovaIsThreadExist(pid, kFailure));
    EXPECT_EQ(0U, ProcIsKernel(pid));
    EXPECT_EQ(1U, ProcIsKernel(kFailure));
}

TEST(Processes, TellMonitorAndLocationProcesses) {
    const auto answer = [](const std::string& name, const std::string& command_line) {
        const CoveredFile covered_name(own_file("comm"), name);
        const CoveredFile covered_command_line(own_file("cmdline"), command_line);
        return IsNorvelProcess(static_cast<std::uint32_t>(::getpid()));
    };
    EXPECT_EQ(1U, answer("monitoring\n", ""));
    EXPECT_EQ(0U, answer("monito\n", "/bin/x"));
    EXPECT_EQ(1U, answer("x\n", "/opt/relocations/x"));
    EXPECT_EQ(0U, answer("x\n", std::string("/bin/x\0location", 15)));  // an argument
}

TEST(Processes, SizeIsTakenFromItsLineOnly) {
    std::uint32_t kilobytes = 7;
    const auto result_for = [&](const std::string& file) {
        const CoveredFile status(own_file("status"), file);
        return KovaGetProcessVmSize(static_cast<std::uint32_t>(::getpid()), &kilobytes);
    };
    EXPECT_EQ(kFailure, result_for("Name:\tkswapd\nPid:\t9\n"));
    EXPECT_EQ(kFailure, result_for("VmSize:\tnone kB\n"));
    EXPECT_EQ(7U, kilobytes);
    EXPECT_EQ(0U, result_for("Name:\t" + std::string(300, 'x') + "\nVmSize:\t  1234 kB\n"));
    EXPECT_EQ(1234U, kilobytes);
}

TEST(Numbers, StayWithinTheirTypes) {
    const auto percent = [](std::uint32_t total, std::uint32_t part) {
        std::uint32_t answer = 7;
        return KovaCalcVmUsePercent(&answer, total, part) == 0 ? answer : 1000;
    };
    EXPECT_EQ(99U, percent(10'000, 9'999));
    EXPECT_EQ(99U, percent(10'099, 9'999));
    EXPECT_EQ(100U, percent(UINT32_MAX, UINT32_MAX));
    EXPECT_EQ(1000U, percent(0, 0));
    EXPECT_EQ(1000U, percent(5, 6));

    std::uint64_t number = 7;
    for (const char* text : {"18446744073709551616", "42 ", "x", ""}) {
        EXPECT_EQ(127U, KovaParsesString2Number(text, &number)) << text;
    }
    EXPECT_EQ(7U, number);
    errno = ERANGE;  // of an earlier call
    EXPECT_EQ(0U, KovaParsesString2Number("18446744073709551615", &number));
    EXPECT_EQ(UINT64_MAX, number);
    for (const char* text : {"", "1 ", "-1", "\xB2"}) EXPECT_EQ(0U, KovaIsDigitString(text)) << text;
    EXPECT_EQ(1U, KovaIsDigitString("0123456789"));
}

TEST(MachineMemory, ThresholdFollowsTheTotal) {
    for (const auto& [total, threshold] : {std::pair{" 1048576 kB\nMemFree: 1 kB", 50U},
                                           {" 1048577 kB", 100U},
                                           {" 2097152 kB", 100U},
                                           {" 2097153 kB", 160U},
                                           {" none", 160U}}) {
        const CoveredFile meminfo("/proc/meminfo", std::string("MemTotal:") + total);
        EXPECT_EQ(threshold, KovaGetOOMThreshold()) << total;
    }
}

std::string g_partition_calls;
char g_partition_block[8];

TEST(PartitionMemory, GoesToThePartitionOrToTheHeap) {
    void* block = KovaBaseMalloc(0xFFFFFFFF, 1, 100, "tag", 1);
    ASSERT_NE(nullptr, block);
    std::memset(block, 1, 100);
    KovaBaseFree(0xFFFFFFFF, block, "tag", 2);
    KovaBaseFree(5, nullptr, "tag", 3);
    EXPECT_EQ(nullptr, KovaBaseMalloc(5, 1, 0, "tag", 4));
    EXPECT_EQ(g_partition_block, KovaBaseMalloc(5, 1, 100, "tag", 77));
    KovaBaseFree(6, g_partition_block, "tag", 78);
    EXPECT_EQ("5 1 100 77 tag\n6 78 tag\n", g_partition_calls);
}

}  // namespace
}  // namespace kova::test

extern "C" void* RUX_MemAlloc_F(uint32_t handle, uint32_t kind, uint32_t size, const char* tag, uint32_t line) {
    for (const std::uint32_t number : {handle, kind, size, line}) {
        kova::test::g_partition_calls += std::to_string(number) + ' ';
    }
    kova::test::g_partition_calls += std::string(tag) + '\n';
    return kova::test::g_partition_block;
}

extern "C" void RUX_MemFree_F(uint32_t handle, void* block, const char* tag, uint32_t line) {
    EXPECT_EQ(kova::test::g_partition_block, block);
    kova::test::g_partition_calls += std::to_string(handle) + ' ' + std::to_string(line) + ' ' + tag + '\n';
}
