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

    // Small, at the edges of the types, or anything.
    std::uint64_t value() {
        constexpr std::uint64_t kEdges[] = {0,          1,         7,          8,         0x7F,      0x80,
                                            0xFF,       0x7FFF,    0x8000,     0xFFFF,    INT32_MAX, 0x80000000U,
                                            UINT32_MAX, INT64_MAX, 1ULL << 63, UINT64_MAX};
        switch (below(3)) {
            case 0:
                return kEdges[below(std::size(kEdges))];
            case 1:
                return below(1000) - 500;
            default:
                return engine_() >> below(64);
        }
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
    constexpr const char* kLongLengths[] = {"l", "ll", "z", "j", "t"};
    const std::uint64_t which = random->below(std::size(kLetters));
    const char* const flags = which < 2 ? "-0+ " : which == 2 ? "-0" : "-0#";
    if (random->below(2) == 0) {
        constexpr const char* kIntLengths[] = {"", "h", "hh"};
        return try_one(random, flags, std::string(kIntLengths[random->below(3)]) + kLetters[which],
                       static_cast<int>(random->value()), size, 60);
    }
    try_one(random, flags, std::string(kLongLengths[random->below(5)]) + kLetters[which],
            static_cast<long>(random->value()), size, 60);
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

TEST(BoundedFormat, ConversionsOfTheCLibraryWorkAlongside) {
    char text[64];
    EXPECT_EQ(11, snprintf_truncated_s(text, sizeof text, "%d|%5.2f|%ls", 42, 3.14159, L"ab"));
    EXPECT_STREQ("42| 3.14|ab", text);
    EXPECT_EQ(3, snprintf_truncated_s(text, 4, "%f", 1.5));
    EXPECT_STREQ("1.5", text);
    EXPECT_EQ(-1, sprintf_s(text, 4, "%.2f", 1.5));
    EXPECT_STREQ("", text);
}

TEST(BoundedFormat, UnusableCallsWriteAtMostAnEmptyText) {
    char text[8] = "before";
    const char* const no_format = nullptr;
    EXPECT_EQ(-1, snprintf_truncated_s(text, 0, "%d", 1));
    EXPECT_EQ(-1, sprintf_s(text, 0, "%d", 1));
    EXPECT_EQ(-1, snprintf_s(text, SIZE_MAX, 3, "%d", 1));
    EXPECT_EQ(-1, snprintf_truncated_s(nullptr, 8, "%d", 1));
    EXPECT_STREQ("before", text);
    EXPECT_EQ(-1, snprintf_truncated_s(text, sizeof text, no_format));
    EXPECT_STREQ("", text);

    const struct {
        const char* name;
        const char* format;
    } refused[] = {
        {"stores through an argument", "abc%n"},
        {"stores after a conversion of the C library's", "%f%n"},
        {"ends in a conversion", "abc%"},
        {"width beyond an int", "%99999999999d"},
    };
    int target = 17;
    for (const auto& c : refused) {
        SCOPED_TRACE(c.name);
        std::strcpy(text, "before");
        const std::string format = c.format;
        EXPECT_EQ(-1, snprintf_truncated_s(text, sizeof text, format.c_str(), &target));
        EXPECT_STREQ("", text);
    }
    EXPECT_EQ(17, target);
}

}  // namespace
