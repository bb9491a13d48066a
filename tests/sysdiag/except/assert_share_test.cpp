// Asserts of many threads and processes at once: nothing is lost, torn or somebody else's.
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <barrier>
#include <thread>

#include "sysdiag/except/assert_fixture.h"

namespace {

struct Seen {
    std::atomic<int> appended{0}, rewritten{0}, printed{0}, wrong{0};
};
Seen* g_seen = nullptr;  // shared by parent and children; null: nobody looks

}  // namespace

// Every item on its way into the file, with what stands there: a rewrite is of the process's own, one occurrence more.
extern "C" ssize_t write(int fd, const void* data, size_t length) {
    if (g_seen != nullptr && length == sizeof(KovaAssertItem)) {
        const auto& item = *static_cast<const KovaAssertItem*>(data);
        if (item.occurrenceCount == 1) {
            ++g_seen->appended;
        } else {
            KovaAssertItem there{};
            const off_t at = ::syscall(SYS_lseek, fd, 0, SEEK_CUR);
            static_cast<void>(!::pread(fd, &there, sizeof there, at));
            ++g_seen->rewritten;
            if (there.processId != static_cast<std::uint32_t>(::getpid()) || there.processId != item.processId ||
                there.line != item.line || there.occurrenceCount + 1 != item.occurrenceCount) {
                ++g_seen->wrong;
            }
        }
    }
    return ::syscall(SYS_write, fd, data, length);
}

namespace kova::test {
namespace {

using AssertSharing = Asserts;

bool is_whole(const KovaAssertItem& item) {
    KovaAssertSourceRecord source;
    std::memcpy(&source, &item.time, sizeof source);
    KovaAssertItem copy{};
    return item.magic == KOVA_ASSERT_MARKER && KOVABoxAssInfoCopyToItem(&copy, &source) == 0 &&
           std::memcmp(&copy, &item, sizeof copy) == 0 && std::string(item.fileName) + "!" == item.withLog;
}

TEST_F(AssertSharing, EightThreadsRaiseTheSameAndDifferentOnes) {
    constexpr std::uint32_t kThreads = 8, kRounds = 60;
    std::barrier start(kThreads);
    std::vector<std::thread> threads;
    for (std::uint32_t t = 0; t < kThreads; ++t) {
        threads.emplace_back([&start, t] {
            start.arrive_and_wait();
            for (std::uint32_t i = 0; i < kRounds; ++i) {
                KOVA_Assert("all.c", 1, "all.c!");
                KOVA_Assert(t % 2 == 0 ? "even.c" : "odd.c", t % 4, t % 2 == 0 ? "even.c!" : "odd.c!");
            }
        });
    }
    for (auto& thread : threads) thread.join();
    std::uint32_t all = 0;
    for (const KovaAssertItem& item : items()) {
        EXPECT_TRUE(is_whole(item));
        EXPECT_EQ(item.line == 1 && item.fileName[0] == 'a' ? kThreads * kRounds : 2 * kRounds, item.occurrenceCount);
        all += item.occurrenceCount;
    }
    EXPECT_EQ(2 * kThreads * kRounds, all);
    EXPECT_EQ(5u, platform().blocks.size());
}

TEST_F(AssertSharing, ProcessesThatGoRoundTheRingTouchTheirOwnItemsOnly) {
    constexpr int kProcesses = 4, kRounds = 100;
    void* const shared = ::mmap(nullptr, sizeof(Seen), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, shared);
    g_seen = new (shared) Seen;
    platform().while_printing = [] { ++g_seen->printed; };
    std::vector<pid_t> children;
    for (int process = 0; process < kProcesses; ++process) {
        const pid_t child = ::fork();
        if (child != 0) {
            children.push_back(child);
            continue;
        }
        // Four that all have, known most of the time, and many that nobody raises twice.
        for (std::uint32_t i = 0; i < kRounds; ++i) {
            for (std::uint32_t line = 1; line <= 4; ++line) KOVA_Assert("common.c", line, "common.c!");
            if (i % 2 == 0) KOVA_Assert("once.c", 100 + i, "once.c!");
        }
        ::_exit(0);
    }
    for (const pid_t child : children) {
        int status = -1;
        EXPECT_EQ(child, ::waitpid(child, &status, 0));
        EXPECT_EQ(0, status);
    }
    EXPECT_EQ(0, g_seen->wrong);
    EXPECT_EQ(g_seen->printed, g_seen->appended) << "whatever was new was stored";
    EXPECT_LT(100 + kProcesses * kRounds / 2, g_seen->appended) << "the ring went round";
    EXPECT_EQ(kProcesses * (4 * kRounds + kRounds / 2), g_seen->appended + g_seen->rewritten);
    for (const KovaAssertItem& item : items()) EXPECT_TRUE(is_whole(item));
    g_seen = nullptr;
    ::munmap(shared, sizeof(Seen));
}

}  // namespace
}  // namespace kova::test
