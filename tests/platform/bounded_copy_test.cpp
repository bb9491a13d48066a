#include "kova_platform/bounded_string.h"

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include <sys/mman.h>
#include <unistd.h>

namespace {

// The last bytes before a page that cannot be touched.
class GuardedEnd {
  public:
    GuardedEnd() {
        base_ =
            static_cast<char*>(::mmap(nullptr, 2 * page_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        ::mprotect(base_ + page_, page_, PROT_NONE);
    }
    ~GuardedEnd() { ::munmap(base_, 2 * page_); }
    char* last(std::size_t bytes) { return base_ + page_ - bytes; }

  private:
    std::size_t page_ = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    char* base_ = nullptr;
};

enum class Function { kStrcpy, kStrncpy, kStrcat };

TEST(BoundedCopy, TextsFitOrLeaveAnEmptyTextAndNothingElse) {
    const struct {
        const char* name;
        Function function;
        const char* before;
        std::size_t size;
        const char* src;
        std::size_t count;
        int result;
        const char* after;
    } cases[] = {
        {"fills the buffer", Function::kStrcpy, "?", 4, "abc", 0, 0, "abc"},
        {"one character too many", Function::kStrcpy, "?", 4, "abcd", 0, ERANGE, ""},
        {"no source", Function::kStrcpy, "?", 4, nullptr, 0, EINVAL, ""},
        {"size 0 writes nothing", Function::kStrcpy, "?", 0, "abc", 0, EINVAL, "?"},
        {"a converted negative size writes nothing", Function::kStrcpy, "?", SIZE_MAX, "abc", 0, EINVAL, "?"},
        {"count cuts", Function::kStrncpy, "?", 4, "abcdef", 3, 0, "abc"},
        {"count without room for the end", Function::kStrncpy, "?", 4, "abcdef", 4, ERANGE, ""},
        {"count beyond the text", Function::kStrncpy, "?", 4, "ab", 99, 0, "ab"},
        {"count 0", Function::kStrncpy, "?", 4, "ab", 0, 0, ""},
        {"appends up to the end", Function::kStrcat, "ab", 6, "cde", 0, 0, "abcde"},
        {"append one too many", Function::kStrcat, "ab", 6, "cdef", 0, ERANGE, ""},
        {"append to an unterminated text", Function::kStrcat, "abcdef", 6, "", 0, ERANGE, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        char buffer[16];
        std::memset(buffer, 0x5A, sizeof buffer);
        std::strcpy(buffer, c.before);
        char untouched[sizeof buffer];
        std::memcpy(untouched, buffer, sizeof buffer);
        switch (c.function) {
            case Function::kStrcpy:
                EXPECT_EQ(c.result, strcpy_s(buffer, c.size, c.src));
                break;
            case Function::kStrncpy:
                EXPECT_EQ(c.result, strncpy_s(buffer, c.size, c.src, c.count));
                break;
            case Function::kStrcat:
                EXPECT_EQ(c.result, strcat_s(buffer, c.size, c.src));
                break;
        }
        EXPECT_STREQ(c.after, buffer);
        const std::size_t changed = c.result == 0 ? std::strlen(c.after) + 1 : 1;
        EXPECT_EQ(0, std::memcmp(buffer + changed, untouched + changed, sizeof buffer - changed));
    }
}

TEST(BoundedCopy, SourceIsNotReadPastTheDestinationSize) {
    GuardedEnd guard;
    char* const unterminated = guard.last(8);
    std::memset(unterminated, 'x', 8);
    char buffer[16] = {};
    EXPECT_EQ(ERANGE, strcpy_s(buffer, 8, unterminated));
    EXPECT_EQ(0, strncpy_s(buffer, sizeof buffer, unterminated, 8));
    EXPECT_STREQ("xxxxxxxx", buffer);
    std::strcpy(buffer, "12345678");
    EXPECT_EQ(ERANGE, strcat_s(buffer, sizeof buffer, unterminated));
    EXPECT_EQ(7, snprintf_truncated_s(buffer, 8, "%s", unterminated));
    EXPECT_EQ(-1, sprintf_s(buffer, 8, "%s", unterminated));
    EXPECT_EQ(8, snprintf_truncated_s(buffer, sizeof buffer, "%.8s", unterminated));
}

TEST(BoundedCopy, BlocksFitOrAreLeftAlone) {
    char block[8] = "abcdefg";
    EXPECT_EQ(ERANGE, memcpy_s(block, 4, "12345", 5));
    EXPECT_EQ(EINVAL, memcpy_s(nullptr, 4, "12345", 4));
    EXPECT_EQ(EINVAL, memcpy_s(block, 4, nullptr, 4));
    EXPECT_EQ(ERANGE, memset_s(block, 4, 0, 5));
    EXPECT_EQ(ERANGE, memset_s(block, SIZE_MAX, 0, 5));
    EXPECT_STREQ("abcdefg", block);
    EXPECT_EQ(0, memcpy_s(block, sizeof block, block + 2, 5));  // overlapping
    EXPECT_STREQ("cdefgfg", block);
    EXPECT_EQ(0, memset_s(block, 3, 'z', 3));
    EXPECT_STREQ("zzzfgfg", block);
}

}  // namespace
