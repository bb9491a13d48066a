// Asserts of one thread: what is printed, stored, counted, forgotten.
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <functional>
#include <span>

#include "kova/exception_capture.h"
#include "sysdiag/except/assert_fixture.h"

namespace kova::test {
namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::uint32_t kFirstFrame = 1;  // the sanitizer's own backtrace() stands before
#else
constexpr std::uint32_t kFirstFrame = 0;
#endif

__attribute__((noinline)) void raise_somewhere(bool holds, const char* text) {
    KOVA_ASSERT_LOG(holds, text);
    __asm__ volatile("");  // the frame is needed: no tail call
}

TEST_F(Asserts, ANewOneIsPrintedAndStoredWhole) {
    ASSERT_EQ(0u, KOVA_CreateBox());
    log_recorder().clear();
    std::strcpy(g_kovaPlatformName, "shelf");
    std::strcpy(g_kovaPlatformVersion, "V1");
    const std::time_t before = std::time(nullptr);
    raise_somewhere(true, "unseen");
    raise_somewhere(false, "route %s is gone");
    ASSERT_EQ(1u, items().size());
    const KovaAssertItem item = items()[0];
    KovaAssertItem expected{};
    expected.magic = 0xAEAEAEAE;
    expected.time = item.time;
    expected.occurrenceCount = 1;
    expected.threadId = expected.processId = static_cast<std::uint32_t>(::getpid());
    std::strcpy(expected.processName, "assert_test");
    std::strcpy(expected.slotText, "2/5");
    std::strcpy(expected.fileName, "assert_test.cpp");
    expected.line = item.line;
    std::strcpy(expected.platformName, "shelf");
    std::strcpy(expected.platformVersion, "V1");
    std::strcpy(expected.withLog, "route %s is gone");
    expected.callStack = item.callStack;
    EXPECT_TRUE(std::ranges::equal(std::as_bytes(std::span(&expected, 1)), std::as_bytes(std::span(&item, 1))));
    struct tm time = item.time;
    EXPECT_LE(before, ::timegm(&time));
    EXPECT_NE(nullptr, std::strstr(item.callStack.symbol[kFirstFrame], "(KOVA_Assert+"));
    EXPECT_LT(item.callStack.address[kFirstFrame + 1] - reinterpret_cast<std::uint64_t>(&raise_somewhere), 200u);

    ASSERT_EQ(1u, platform().blocks.size());
    const std::string& block = platform().blocks[0];
    const std::string place = "\nErrinfo at file: 'assert_test.cpp', Line:" + std::to_string(item.line) + "\n";
    for (const std::string& line : {place, std::string("\nWithlog:       route %s is gone\n"),
                                    "\n# 0 " + std::string(item.callStack.symbol[0]) + "\r\n"}) {
        EXPECT_NE(std::string::npos, block.find(line)) << block;
    }
    EXPECT_TRUE(log_recorder().messages().empty());
}

TEST_F(Asserts, WhatIsKnownIsCountedWhatIsNotIsStored) {
    const std::string longest(31, 'n');
    const std::string too_long(32, 'n');
    const struct {
        const char* name;
        std::vector<const char*> files;  // raised in their order, each at line 1
        std::string box;
        std::size_t printed;
        std::ptrdiff_t complaints = 0;
    } cases[] = {
        {"no file", {nullptr}, "", 0},
        {"folders do not count", {"C:\\src\\a\\a.c", "/src/b/a.c", "a.c"}, "a.c:1 x3", 1},
        {"a backslash goes before a slash", {"/x\\b/a.c", "b/a.c"}, "b/a.c:1 x1, a.c:1 x1", 2},
        {"no name", {"dir/", ""}, ":1 x2", 1},
        {"the longest name", {longest.c_str()}, longest + ":1 x1", 1},
        {"a longer one", {too_long.c_str(), too_long.c_str()}, ":1 x2", 1, 2},
        {"five are known", {"a", "b", "c", "d", "e", "a", "e"}, "a:1 x2, b:1 x1, c:1 x1, d:1 x1, e:1 x2", 5},
        {"the sixth takes the place of the first",
         {"a", "b", "c", "d", "e", "f", "b", "a", "b"},
         "a:1 x1, b:1 x2, c:1 x1, d:1 x1, e:1 x1, f:1 x1, a:1 x1, b:1 x1",
         8},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        SetUp();
        for (const char* const file : c.files) EXPECT_EQ(0u, KOVA_LirraAssertPreHook(file, 1));
        EXPECT_EQ(c.box, summary());
        EXPECT_EQ(c.printed, platform().blocks.size());
        EXPECT_EQ(c.complaints,
                  log_recorder().count_of(error_message(
                      0x0E401061, "Base", "strcpy_s unsuccessful, errNum = " + std::to_string(ERANGE) + ".")));
    }
    SetUp();
    g_assertCurIndex = 0xFFFFFFFF;
    KOVA_Assert("a", 1, std::string(127, 't').c_str());
    KOVA_Assert("a", 2, std::string(128, 't').c_str());
    EXPECT_EQ(2u, g_assertCurIndex);
    EXPECT_EQ(std::string(127, 't'), items()[0].withLog);
    EXPECT_STREQ("", items()[1].withLog);
}

// Puts another process's item of the same assert into slot 0, over what is there, or into the next one.
void put_other(std::uint32_t slot) {
    KovaAssertItem item{};
    item.occurrenceCount = 9;
    item.processId = 1;
    std::strcpy(item.fileName, "a");
    item.line = 1;
    ASSERT_EQ(0u,
              slot == 0 ? KOVA_BoxRefresh(1, &item, sizeof item, 0) : KOVA_BoxWrite(1, &item, sizeof item, nullptr));
}

TEST_F(Asserts, WhatIsNotInItsSlotAnyMoreIsNew) {
    const auto raise = [] { KOVA_Assert("a", 1, nullptr); };
    const struct {
        const char* name;
        std::function<void()> happen;
        const char* box;  // after the assert was raised again, and then once more
    } cases[] = {
        {"the box is emptied", [] { KOVA_BoxReset(1); }, "a:1 x2"},
        {"another process's item of the same assert", [] { put_other(0); }, "a:1 x9, a:1 x2"},
        {"a child raises its parent's",
         [=] {
             const pid_t child = ::fork();
             if (child == 0) ::_exit((raise(), raise(), 0));
             ::waitpid(child, nullptr, 0);
         },
         "a:1 x3, a:1 x2"},
        {"an entry that is somebody else's work is trusted", [] { put_other(1), g_assertItem[0].slot = 1; },
         "a:1 x1, a:1 x11"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        SetUp();
        raise();
        c.happen();
        raise();
        raise();
        EXPECT_EQ(c.box, summary());
    }
    SetUp();  // and when the ring went round
    raise();
    for (std::uint32_t i = 0; i < 100; ++i) ASSERT_EQ(0u, append(1, i + 1));
    raise();
    raise();
    EXPECT_EQ(2u, items()[1].occurrenceCount);
    EXPECT_EQ(0u, g_assertItem[0].line) << "cleared";
}

TEST_F(Asserts, LeaveErrnoToWhoAssertsAboutAFailedCall) {
    std::filesystem::create_directory(kBoxPath);
    errno = 77;
    KOVA_Assert("a", 1, nullptr);
    EXPECT_EQ(77, errno);
    std::filesystem::remove(kBoxPath);
}

TEST_F(Asserts, PrintingMayRaiseAsserts) {
    platform().while_printing = [] {
        KOVA_Assert("log.c", 1, nullptr);  // each time
        KOVA_Assert("a", 1, nullptr);
    };
    KOVA_Assert("a", 1, nullptr);
    EXPECT_EQ("log.c:1 x1, a:1 x1", summary());
    EXPECT_EQ(2u, platform().blocks.size());
}

TEST_F(Asserts, OnlyARepeatAsksWhoseItemItIs) {
    KOVA_Assert("a", 1, nullptr);
    put_other(0);
    const KovaAssertItem others = items()[0];
    std::uint32_t slot = 77, count = 77;
    EXPECT_EQ(1u, KOVA_AssertExist(&others, &slot, &count));
    EXPECT_EQ(0u, slot);
    EXPECT_EQ(2u, count);
    KOVA_Assert("a", 1, nullptr);
    EXPECT_EQ("a:1 x9, a:1 x1", summary());
}

}  // namespace
}  // namespace kova::test
