#include "kova_platform/bounded_string.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include <sys/mman.h>

namespace {

// All texts and counts that are about as long as the buffer, each against what the rules say in one sentence: the text
// fits with its end, or an empty text is left and an error told; nothing else of the buffer changes.
TEST(BoundedCopy, TextsFitOrLeaveAnEmptyTextAndNothingElse) {
    for (std::size_t size = 1; size < 8; ++size) {
        for (std::size_t length = 0; length < 9; ++length) {
            for (std::size_t count = 0; count < 9; ++count) {
                SCOPED_TRACE(testing::Message() << "size " << size << " length " << length << " count " << count);
                const std::string source(length, 'x');
                const auto expect = [&](const std::string& whole, const std::string& before, auto function) {
                    char buffer[9] = "########";
                    std::memcpy(buffer, before.c_str(), before.size() + 1);
                    const bool fits = whole.size() < size;
                    EXPECT_EQ(fits ? 0 : ERANGE, function(buffer));
                    EXPECT_STREQ(fits ? whole.c_str() : "", buffer);
                    EXPECT_EQ(std::string(8 - size, '#'), buffer + size);
                };
                expect(source, "", [&](char* buffer) { return strcpy_s(buffer, size, source.c_str()); });
                expect(source.substr(0, count), "",
                       [&](char* buffer) { return strncpy_s(buffer, size, source.c_str(), count); });
                const std::string before(std::min(count, size - 1), 'b');
                expect(before + source, before, [&](char* buffer) { return strcat_s(buffer, size, source.c_str()); });
            }
        }
    }
    char text[8] = "before";
    for (const std::size_t size : {std::size_t{0}, SIZE_MAX}) EXPECT_EQ(EINVAL, strcpy_s(text, size, "abc"));
    EXPECT_STREQ("before", text);
    EXPECT_EQ(ERANGE, strcat_s(text, 6, ""));  // unterminated
    EXPECT_EQ(EINVAL, strcpy_s(text, 8, nullptr));
}

TEST(BoundedCopy, SourceIsNotReadPastTheDestinationSize) {
    constexpr std::size_t kPage = 65536;  // or a multiple of it
    auto* const pages =
        static_cast<char*>(::mmap(nullptr, 2 * kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_EQ(0, ::mprotect(pages + kPage, kPage, PROT_NONE));
    char* const unterminated = pages + kPage - 8;
    std::memset(unterminated, 'x', 8);
    char buffer[16] = {};
    EXPECT_EQ(ERANGE, strcpy_s(buffer, 8, unterminated));
    EXPECT_EQ(0, strncpy_s(buffer, sizeof buffer, unterminated, 8));
    EXPECT_STREQ("xxxxxxxx", buffer);
    EXPECT_EQ(ERANGE, strcat_s(buffer, sizeof buffer, unterminated));
    EXPECT_EQ(7, snprintf_truncated_s(buffer, 8, "%s", unterminated));
    EXPECT_EQ(-1, sprintf_s(buffer, 8, "%s", unterminated));
    EXPECT_EQ(8, snprintf_truncated_s(buffer, sizeof buffer, "%.8s", unterminated));
    ::munmap(pages, 2 * kPage);
}

}  // namespace
