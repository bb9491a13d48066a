// Files, processes and numbers.
#include "kova/process_info.h"

#include <unistd.h>
#include <cerrno>
#include <cstring>

#include <gtest/gtest.h>

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

}  // namespace
}  // namespace kova::test
