// Asserts of one thread: what is printed, stored, counted, forgotten.
#include <sys/wait.h>

#include <ctime>

#include "kova/exception_capture.h"
#include "sysdiag/except/assert_fixture.h"

namespace kova::test {
namespace {

__attribute__((noinline)) void raise_somewhere(bool holds, const char* text) {
    KOVA_ASSERT_LOG(holds, text);
    __asm__ volatile("");  // the frame is needed: no tail call
}

TEST_F(Asserts, ANewOneIsPrintedAndStoredWhole) {
    std::strcpy(g_kovaPlatformName, "shelf");
    std::strcpy(g_kovaPlatformVersion, "V1");
    ASSERT_EQ(0u, KOVA_CreateBox());
    log_recorder().clear();
    const std::time_t before = std::time(nullptr);
    raise_somewhere(true, "unseen");
    raise_somewhere(false, "route %s is gone");
    ASSERT_EQ(1u, items().size());
    KovaAssertItem item = items()[0];
    const auto self = static_cast<std::uint32_t>(::getpid());
    EXPECT_EQ(0xAEAEAEAEu, item.magic);
    EXPECT_LE(before, ::timegm(&item.time));
    EXPECT_GE(std::time(nullptr), ::timegm(&item.time));
    EXPECT_EQ(1u, item.occurrenceCount);
    EXPECT_EQ(self, item.processId);
    EXPECT_EQ(self, item.threadId) << "the main thread";
    EXPECT_STREQ("assert_test", item.processName);
    EXPECT_STREQ("2/5", item.slotText);
    EXPECT_STREQ("assert_test.cpp", item.fileName);
    EXPECT_STREQ("shelf V1", (std::string(item.platformName) + " " + item.platformVersion).c_str());
    EXPECT_STREQ("route %s is gone", item.withLog);
    ASSERT_LE(2u, item.callStack.depth);
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    constexpr std::uint32_t kFirst = 1;  // the sanitizer's own backtrace() stands before
#else
    constexpr std::uint32_t kFirst = 0;
#endif
    EXPECT_NE(nullptr, std::strstr(item.callStack.symbol[kFirst], "(KOVA_Assert+")) << item.callStack.symbol[kFirst];
    const auto raiser = reinterpret_cast<std::uint64_t>(&raise_somewhere);
    EXPECT_LT(item.callStack.address[kFirst + 1] - raiser, 200u);

    char head[400];
    std::snprintf(head, sizeof head,
                  "=======================================assert info======================================\n"
                  "%d-%02d-%02d %02d:%02d:%02d, Process:assert_test(ID:%u), ThreadId:assert_test(ID:%u)\n"
                  "Errinfo at file: 'assert_test.cpp', Line:%u\n"
                  "Withlog:       route %%s is gone\n"
                  "Call Stack:\n"
                  " No FunctionName\n",
                  item.time.tm_year + 1900, item.time.tm_mon + 1, item.time.tm_mday, item.time.tm_hour,
                  item.time.tm_min, item.time.tm_sec, self, self, item.line);
    std::string block = head;
    for (std::uint32_t i = 0; i < item.callStack.depth; ++i) {
        std::snprintf(head, sizeof head, "#%2u %s\r\n", i, item.callStack.symbol[i]);
        block += head;
    }
    block += "========================================================================================";
    EXPECT_EQ(std::vector{block}, platform().blocks);
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
        {"twice", {"a.c", "a.c"}, "a.c:1 x2", 1},
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

KovaAssertItem of_another_process() {
    KovaAssertItem item{};
    item.occurrenceCount = 9;
    item.processId = 1;
    std::strcpy(item.fileName, "a");
    item.line = 1;
    return item;
}

TEST_F(Asserts, WhatIsNotInItsSlotAnyMoreIsNew) {
    const struct {
        const char* name;
        void (*happen)();
        const char* box;  // after the assert was raised again, and then once more
    } cases[] = {
        {"nothing", [] {}, "a:1 x3"},
        {"the box is emptied", [] { KOVA_BoxReset(1); }, "a:1 x2"},
        {"the file is removed", [] { ::unlink(kBoxPath); }, "a:1 x2"},
        {"another process's same assert",
         [] {
             const KovaAssertItem other = of_another_process();
             KOVA_BoxRefresh(1, &other, sizeof other, 0);
         },
         "a:1 x9, a:1 x2"},
        {"another assert's item",
         [] {
             KovaAssertItem other = of_another_process();
             other.line = 2;
             KOVA_BoxRefresh(1, &other, sizeof other, 0);
         },
         "a:2 x9, a:1 x2"},
        {"a child raises its parent's assert",
         [] {
             const pid_t child = ::fork();
             if (child == 0) {
                 KOVA_Assert("a", 1, nullptr);
                 KOVA_Assert("a", 1, nullptr);
                 ::_exit(0);
             }
             ::waitpid(child, nullptr, 0);
         },
         "a:1 x3, a:1 x2"},
        {"the table is somebody else's work: its items are trusted",
         [] {
             const KovaAssertItem other = of_another_process();
             KOVA_BoxWrite(1, &other, sizeof other, nullptr);
             g_assertItem[0].slot = 1;
         },
         "a:1 x1, a:1 x11"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        SetUp();
        KOVA_Assert("a", 1, nullptr);
        c.happen();
        KOVA_Assert("a", 1, nullptr);
        KOVA_Assert("a", 1, nullptr);
        EXPECT_EQ(c.box, summary());
    }
    // Gone round the ring: the item is the newest again, in another slot.
    SetUp();
    KOVA_Assert("a", 1, nullptr);
    for (std::uint32_t i = 0; i < 100; ++i) ASSERT_EQ(0u, append(1, i + 1));
    KOVA_Assert("a", 1, nullptr);
    KOVA_Assert("a", 1, nullptr);
    EXPECT_EQ(2u, items()[1].occurrenceCount);
    EXPECT_EQ(1u, g_assertItem[1].slot);
    EXPECT_EQ(0u, g_assertItem[0].line) << "cleared";
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

TEST_F(Asserts, WhatCannotBeStoredIsPrintedAndNewAgain) {
    std::filesystem::create_directory(kBoxPath);
    KOVA_Assert("a", 1, nullptr);
    KOVA_Assert("a", 1, nullptr);
    EXPECT_EQ(2u, platform().blocks.size());
    std::filesystem::remove(kBoxPath);
    platform().no_memory = true;
    KOVA_Assert("b", 1, nullptr);
    EXPECT_FALSE(std::filesystem::exists(kBoxPath));
}

// An item that is the caller's is believed in nothing.
TEST_F(Asserts, BuildingBlocksBoundWhatTheyAreGiven) {
    KovaAssertItem item;
    std::memset(&item, 0x7F, sizeof item);
    KOVA_PrintAssertInfo(&item);
    ASSERT_EQ(1u, platform().blocks.size());
    EXPECT_NE(std::string::npos, platform().blocks[0].find("'" + std::string(32, '\x7F') + "', Line:"));
    EXPECT_NE(std::string::npos, platform().blocks[0].find("#19 " + std::string(64, '\x7F') + "\r\n"));
    EXPECT_EQ(static_cast<std::uint32_t>(ERANGE), KOVA_SaveAssertInfo(&item, 0));
    std::uint32_t slot = 77, count = 77;
    EXPECT_EQ(0u, KOVA_AssertExist(&item, &slot, &count));

    KovaAssertItem free_entry{};
    ASSERT_EQ(0u, KOVA_BoxWrite(1, &free_entry, sizeof free_entry, nullptr));
    EXPECT_EQ(0u, KOVA_AssertExist(&free_entry, &slot, &count)) << "a free entry is no assert";
    EXPECT_EQ(77u, slot + count - 77);
    EXPECT_EQ(1u, KOVA_AssertExistInBox(&free_entry, 0));
    EXPECT_EQ(0u, KOVA_AssertExistInBox(&free_entry, 1));
    item = of_another_process();
    ASSERT_EQ(0u, KOVA_BoxWrite(1, &item, sizeof item, &slot));
    EXPECT_EQ(0u, KOVA_SaveAssertInfo(&item, slot));
    EXPECT_EQ(1u, KOVA_AssertExist(&item, &slot, &count));
    EXPECT_EQ(1u, slot);
    EXPECT_EQ(10u, count);
    EXPECT_EQ(9u, items()[1].occurrenceCount) << "looking up changes nothing there";
    EXPECT_EQ(1u, KOVA_AssertGetCallStack(nullptr));
    EXPECT_EQ(1u, KOVA_AssertExistInBox(&item, 1));
}

}  // namespace
}  // namespace kova::test
