// The formatter against the C library's, over random formats and values.
#include "kova_platform/bounded_string.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>

#include <gtest/gtest.h>

namespace {

// Formats are made at run time here.
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"

constexpr char kUntouched = '\x5A';

class RandomFormats {
  public:
    explicit RandomFormats(unsigned seed) : engine_(seed) {}

    std::uint64_t below(std::uint64_t limit) { return engine_() % limit; }

    // Near the edge of a type, small, or anything.
    std::uint64_t value() {
        const std::uint64_t edge = below(3) == 0 ? 0 : std::uint64_t{1} << below(64);
        return below(2) == 0 ? edge + below(3) - 1 : engine_() >> below(64);
    }

    // "%" and flags, without those that have no meaning for the letter.
    std::string flags(const char* allowed) {
        std::string text = "%";
        for (std::uint64_t n = below(4); n != 0; --n) text += allowed[below(std::strlen(allowed))];
        return text;
    }

    std::string number_or_star(bool* star, std::uint64_t limit) {
        *star = below(4) == 0;
        return *star ? "*" : std::to_string(below(limit));
    }

  private:
    std::mt19937_64 engine_;
};

// Holds one call against the C library: whole, cut at `size`, and refused where it does not fit.
template <typename... Arguments>
void expect_like_c_library(const std::string& format, std::size_t size, Arguments... arguments) {
    SCOPED_TRACE("format \"" + format + "\", size " + std::to_string(size));
    char model[2048];
    const int length = std::snprintf(model, sizeof model, format.c_str(), arguments...);
    ASSERT_GE(length, 0);
    ASSERT_LT(static_cast<std::size_t>(length), sizeof model);
    const auto length_or_room = std::min<std::size_t>(static_cast<std::size_t>(length), size - 1);

    char text[2048];
    std::memset(text, kUntouched, sizeof text);
    ASSERT_EQ(static_cast<int>(length_or_room), snprintf_truncated_s(text, size, format.c_str(), arguments...));
    ASSERT_EQ(std::string(model, length_or_room), text);
    ASSERT_EQ(kUntouched, text[size]);

    const bool fits = static_cast<std::size_t>(length) < size;
    for (const bool counted : {false, true}) {
        std::memset(text, kUntouched, sizeof text);
        ASSERT_EQ(fits ? length : -1, counted ? snprintf_s(text, sizeof text, size - 1, format.c_str(), arguments...)
                                              : sprintf_s(text, size, format.c_str(), arguments...));
        ASSERT_STREQ(fits ? model : "", text);
        ASSERT_EQ(kUntouched, text[fits ? length + 1 : 1]);
    }
}

template <typename Value>
void try_one(RandomFormats* random, const char* flags, const std::string& conversion, Value value, std::size_t size,
             std::uint64_t width_limit) {
    bool width_star = false;
    bool precision_star = false;
    std::string format = "a" + random->flags(flags);
    if (random->below(2) == 0) format += random->number_or_star(&width_star, width_limit);
    if (random->below(2) == 0 && conversion != "c") {
        format += '.' + random->number_or_star(&precision_star, 40);
    }
    format += conversion + "z%%";
    const int width = static_cast<int>(random->below(2 * width_limit)) - static_cast<int>(width_limit);
    const int precision = static_cast<int>(random->below(60)) - 20;
    if (width_star && precision_star) return expect_like_c_library(format, size, width, precision, value);
    if (width_star) return expect_like_c_library(format, size, width, value);
    if (precision_star) return expect_like_c_library(format, size, precision, value);
    expect_like_c_library(format, size, value);
}

void try_number(RandomFormats* random, std::size_t size) {
    constexpr const char* kLetters[] = {"d", "i", "u", "x", "X", "o"};
    constexpr const char* kLengths[] = {"", "h", "hh", "l", "ll", "z", "j", "t"};
    const std::uint64_t letter = random->below(std::size(kLetters));
    const std::uint64_t length = random->below(std::size(kLengths));
    const char* const flags = letter < 2 ? "-0+ " : letter == 2 ? "-0" : "-0#";
    const std::string conversion = std::string(kLengths[length]) + kLetters[letter];
    if (length < 3) return try_one(random, flags, conversion, static_cast<int>(random->value()), size, 60);
    try_one(random, flags, conversion, static_cast<long>(random->value()), size, 60);
}

void try_text(RandomFormats* random, std::size_t size) {
    constexpr const char* kTexts[] = {"", "x", "text", "a text of some thirty characters", nullptr};
    // Whether a text that is cut is padded in front depends on its full length, which is not looked at.
    const std::uint64_t width_limit = std::min<std::uint64_t>(size, 50);
    switch (random->below(3)) {
        case 0:
            return try_one(random, "-", "s", kTexts[random->below(5)], size, width_limit);
        case 1:
            return try_one(random, "-", "c", static_cast<int>(1 + random->below(255)), size, 50);
        default:
            return try_one(random, "-", "p", reinterpret_cast<void*>(random->value()), size, 50);
    }
}

TEST(BoundedFormat, AgreesWithTheCLibrary) {
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    RandomFormats random(seed);
    for (int round = 0; round < 50000 && !::testing::Test::HasFatalFailure(); ++round) {
        const std::size_t size = 1 + random.below(random.below(2) == 0 ? 12 : 200);
        round % 3 == 0 ? try_text(&random, size) : try_number(&random, size);
    }
}

TEST(BoundedFormat, UnusableCallsWriteAtMostAnEmptyText) {
    char text[16] = "";
    EXPECT_EQ(11, snprintf_truncated_s(text, sizeof text, "%d|%5.2f|%ls", 42, 3.14159, L"ab"));
    EXPECT_STREQ("42| 3.14|ab", text) << "left to the C library";
    std::strcpy(text, "before");
    EXPECT_EQ(-1, sprintf_s(text, 0, "%d", 1));
    EXPECT_EQ(-1, snprintf_s(text, SIZE_MAX, 3, "%d", 1));
    EXPECT_STREQ("before", text);
    int target = 17;
    for (const std::string format : {"abc%n", "%f%n", "abc%", "%99999999999d"}) {
        EXPECT_EQ(-1, snprintf_truncated_s(text, sizeof text, format.c_str(), &target)) << format;
        EXPECT_STREQ("", text);
    }
    EXPECT_EQ(17, target);
}

}  // namespace
