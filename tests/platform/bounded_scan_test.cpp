// The scanner against the C library's, over random texts and formats, and the bounded words that only it has.
#include "kova_platform/bounded_string.h"

#include <cstdint>
#include <cstdio>
#include <random>
#include <string>

#include <gtest/gtest.h>

namespace {

// Formats are made at run time here.
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"

struct Values {
    std::uint64_t v[4] = {0x5A5A5A5A5A5A5A5AU, 0x5A5A5A5A5A5A5A5AU, 0x5A5A5A5A5A5A5A5AU, 0x5A5A5A5A5A5A5A5AU};
    bool operator==(const Values&) const = default;
};

// Up to four conversions, of numbers only where they store: for them both scanners take the same arguments.
constexpr const char* kFormats[] = {"%d",  "%u",   "%x",    "%o",   "%i",       "%ld",        "%llu", "%llx",
                                    "%hu", "%hhu", "%zu",   "%2d",  "%4x",      "%*s",        "%*d",  "%*c",
                                    ",%d", " ,%d", "-%llx", "%%%d", "cpu %llu", "MemTotal:%u"};
// No "0x" without a digit behind: the two judge it differently.
constexpr const char* kTexts[] = {" ",   "\t",        "\n",       "+", "-",  ",",  "%",          "0x1",
                                  "0",   "7",         "42",       "r", "1f", "-1", "4294967296", "9223372036854775808",
                                  "cpu", "MemTotal:", "7f00-8000"};

TEST(BoundedScan, NumbersAreScannedAndStreamsLeftLikeByTheCLibrary) {
    const unsigned seed = std::random_device{}();
    std::mt19937 random(seed);
    for (int round = 0; round < 50'000; ++round) {
        std::string text;
        std::string format;
        for (std::size_t n = 1 + random() % 8; n > 0; --n) text += kTexts[random() % std::size(kTexts)];
        for (std::size_t n = 1 + random() % 4; n > 0; --n) format += kFormats[random() % std::size(kFormats)];
        SCOPED_TRACE(::testing::Message() << "seed " << seed << " \"" << text << "\" by \"" << format << "\"");
        FILE* const stream = ::fmemopen(text.data(), text.size(), "r");
        Values model;
        const int expected = std::fscanf(stream, format.c_str(), &model.v[0], &model.v[1], &model.v[2], &model.v[3]);
        const long position = std::ftell(stream);
        std::rewind(stream);
        Values got;
        ASSERT_EQ(expected, fscanf_s(stream, format.c_str(), &got.v[0], &got.v[1], &got.v[2], &got.v[3]));
        ASSERT_EQ(model, got);
        ASSERT_EQ(position, std::ftell(stream));
        std::fclose(stream);
        got = Values{};
        ASSERT_EQ(expected, sscanf_s(text.c_str(), format.c_str(), &got.v[0], &got.v[1], &got.v[2], &got.v[3]));
        ASSERT_EQ(model, got);
    }
}

TEST(BoundedScan, WordsFitOrLeaveAnEmptyTextAndEndTheScan) {
    const struct {
        const char* text;
        const char* format;
        std::size_t size;
        int result;
        const char* word;
    } cases[] = {
        {"  abc 5", "%s%u", 4, 2, "abc"},    {"abcd 5", "%s%u", 4, 0, ""},      {"abc5", "%3s%u", 4, 2, "abc"},
        {"abcdef 5", "%9s%u", 4, 0, ""},     {"abc 5", "%s%u", 0, 0, "before"}, {"  ", "%s%u", 4, -1, "before"},
        {" abefore", "%2c", 4, 1, " afore"}, {"abcdef", "%5c", 4, 0, "before"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        char word[8] = "before";
        unsigned number = 9;
        EXPECT_EQ(c.result, sscanf_s(c.text, c.format, word, c.size, &number));
        EXPECT_STREQ(c.word, word);
        EXPECT_EQ(c.result == 2 ? 5U : 9U, number);
    }
}

}  // namespace
