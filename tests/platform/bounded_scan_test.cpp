#include "kova_platform/bounded_string.h"

#include <cstdint>
#include <cstdio>
#include <cstring>

#include <gtest/gtest.h>

namespace {

// Formats come from a table here.
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"

constexpr std::uint64_t kUntouched = 0x5A5A5A5A5A5A5A5AU;

struct Values {
    std::uint64_t v[4] = {kUntouched, kUntouched, kUntouched, kUntouched};
    bool operator==(const Values&) const = default;
};

// Numbers only: for them both scanners take the same arguments.
constexpr struct {
    const char* text;
    const char* format;
} kNumberCases[] = {
    {"42", "%u"},
    {"  42abc", "%u"},
    {"-7 +8", "%d%d"},
    {"-1", "%u"},
    {"4294967296", "%u"},
    {"99999999999999999999", "%llu"},
    {"-99999999999999999999", "%lld"},
    {"9223372036854775808", "%lld"},
    {"70000 300", "%hu%hhu"},
    {"12345", "%2d%2d%2d"},
    {"+", "%d"},
    {"- 1", "%d"},
    {"", "%d"},
    {"   ", "%d"},
    {"   ", " "},
    {"abc", "%d"},
    {"1,2", "%d,%d"},
    {"1 ,2", "%d,%d"},
    {"1 ,2", "%d ,%d"},
    {"1", "%d,%d"},
    {"7f00-8000 r", "%llx-%llx"},
    {"0x1F 1f", "%x%x"},
    {"0 x", "%x"},
    {"010 0x10 10", "%i%i%i"},
    {"17 8", "%o%o"},
    {"0x12345", "%4x%x"},
    {"VmSize:\t  1234 kB\n", "%*s%u%*s"},
    {"VmSize:", "%*s%u%*s"},
    {"VmSize: none", "%*s%u%*s"},
    {"MemTotal:     123 kB", "MemTotal:%u"},
    {"MemTotal", "MemTotal:%u"},
    {"MemFree:  1", "MemTotal:%u"},
    {"cpu 1 2 3", "cpu %llu %llu %llu %llu"},
    {"cpux 1 2 3", "cpu %llu %llu %llu %llu"},
    {"100%5", "%d%%%d"},
    {"100 %5", "%d%%%d"},
    {"S 1 2 3 77", "%*s %*s %*d %*u %zu"},
    {"abc", "%*c%*c%*c%d"},
    {"5 6", "%*d%ld"},
};

TEST(BoundedScan, NumbersAreScannedLikeTheCLibraryDoes) {
    for (const auto& c : kNumberCases) {
        SCOPED_TRACE(std::string("\"") + c.text + "\" by \"" + c.format + "\"");
        Values model;
        const int expected = std::sscanf(c.text, c.format, &model.v[0], &model.v[1], &model.v[2], &model.v[3]);
        Values got;
        EXPECT_EQ(expected, sscanf_s(c.text, c.format, &got.v[0], &got.v[1], &got.v[2], &got.v[3]));
        EXPECT_EQ(model, got);
    }
}

TEST(BoundedScan, StreamsAreLeftWhereTheCLibraryLeavesThem) {
    for (const auto& c : kNumberCases) {
        if (*c.text == '\0') continue;
        SCOPED_TRACE(std::string("\"") + c.text + "\" by \"" + c.format + "\"");
        FILE* const stream = ::fmemopen(const_cast<char*>(c.text), std::strlen(c.text), "r");
        ASSERT_NE(nullptr, stream);
        Values model;
        const int expected = std::fscanf(stream, c.format, &model.v[0], &model.v[1], &model.v[2], &model.v[3]);
        const long position = std::ftell(stream);
        std::rewind(stream);
        Values got;
        EXPECT_EQ(expected, fscanf_s(stream, c.format, &got.v[0], &got.v[1], &got.v[2], &got.v[3]));
        EXPECT_EQ(model, got);
        EXPECT_EQ(position, std::ftell(stream));
        std::fclose(stream);
    }
}

TEST(BoundedScan, WordsFitOrLeaveAnEmptyTextAndEndTheScan) {
    const struct {
        const char* name;
        const char* text;
        const char* format;
        std::size_t size;
        int result;
        const char* word;
        unsigned number;
    } cases[] = {
        {"fits exactly", "  abc 5", "%s%u", 4, 2, "abc", 5},
        {"one too long", "abcd 5", "%s%u", 4, 0, "", 0},
        {"width makes it fit", "abc5", "%3s%u", 4, 2, "abc", 5},
        {"width larger than the buffer", "abcdef 5", "%9s%u", 4, 0, "", 0},
        {"size 0 writes nothing", "abc 5", "%s%u", 0, 0, "before", 0},
        {"nothing left", "  ", "%s%u", 4, -1, "before", 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        char word[8] = "before";
        unsigned number = 0;
        EXPECT_EQ(c.result, sscanf_s(c.text, c.format, word, c.size, &number));
        EXPECT_STREQ(c.word, word);
        EXPECT_EQ(c.number, number);
    }
}

TEST(BoundedScan, CharactersAreTakenAsTheyStand) {
    char characters[4] = {'1', '2', '3', '4'};
    const std::size_t size = sizeof characters;
    EXPECT_EQ(1, sscanf_s(" ab", "%3c", characters, size));
    EXPECT_EQ(0, std::memcmp(" ab4", characters, size));
    EXPECT_EQ(1, sscanf_s("x", "%c", characters, size));
    EXPECT_EQ('x', characters[0]);
    EXPECT_EQ(0, sscanf_s("abcdef", "%5c", characters, size));
    EXPECT_EQ(-1, sscanf_s("", "%c", characters, size));
}

TEST(BoundedScan, UnusableCallsStoreNothing) {
    unsigned number = 9;
    EXPECT_EQ(-1, sscanf_s(nullptr, "%u", &number));
    EXPECT_EQ(-1, sscanf_s("1", nullptr, &number));
    EXPECT_EQ(-1, fscanf_s(nullptr, "%u", &number));
    EXPECT_EQ(0, sscanf_s("1.5", "%f", &number));
    EXPECT_EQ(0, sscanf_s("1", "%", &number));
    EXPECT_EQ(9U, number);
}

}  // namespace
