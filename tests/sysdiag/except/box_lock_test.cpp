// The black box's locks: what record locks do not do, and what is done about it.
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <barrier>
#include <ctime>
#include <thread>

#include "sysdiag/except/box_calls.h"

namespace {

// Pauses of the library pass at once; the clock goes on by them.
std::atomic<std::int64_t> g_paused_ns{0};
std::function<void()> g_on_pause;

}  // namespace

extern "C" {

int nanosleep(const timespec* pause, timespec* rest) {
    if (!kova::test::calls().recording) return static_cast<int>(::syscall(SYS_nanosleep, pause, rest));
    g_paused_ns += pause->tv_sec * 1'000'000'000 + pause->tv_nsec;
    if (g_on_pause) g_on_pause();
    return 0;
}

int clock_gettime(clockid_t clock, timespec* now) noexcept {
    const long result = ::syscall(SYS_clock_gettime, clock, now);
    const std::int64_t nanoseconds = now->tv_nsec + (clock != CLOCK_REALTIME ? g_paused_ns.load() : 0);
    now->tv_sec += nanoseconds / 1'000'000'000;
    now->tv_nsec = nanoseconds % 1'000'000'000;
    return static_cast<int>(result);
}

}  // extern "C"

namespace kova::test {
namespace {

class BoxLocks : public BlackBox {
  protected:
    // All records appended to box 1 and rewritten there are found again; box 0 is appended to, read and emptied.
    static bool work(std::uint32_t worker, std::uint32_t count) {
        bool good = true;
        for (std::uint32_t i = 0; i < count; ++i) {
            std::uint32_t slot = 0;
            const std::uint32_t value = worker * count + i + 1;
            good &= append(1, ~value, &slot) == 0 && rewrite(1, value, slot) == 0;
            const Answer all = read_newest(1, 0, 100);
            good &= std::ranges::count(all.values, value) == 1 && std::ranges::count(all.values, kMixed) == 0;
            good &= append(0, value) == 0 && (i % 4 != 3 || KOVA_BoxReset(0) == 0);
            good &= std::ranges::count(read_slots(0, 0, 20).values, kMixed) == 0;
        }
        return good;
    }
    // Threads that start together and, with let_others_in(), let each other in before every write.
    static bool work_in_threads(std::uint32_t first, std::uint32_t count) {
        std::barrier start(3);
        std::array<bool, 3> good{};
        std::array<std::thread, 3> threads;
        for (std::uint32_t t = 0; t < 3; ++t) {
            threads[t] = std::thread([=, &good, &start] {
                start.arrive_and_wait();
                good[t] = work(first + t, count);
            });
        }
        for (auto& thread : threads) thread.join();
        return good == std::array{true, true, true};
    }

    static void let_others_in(std::string_view call) {
        if (call == "write") ::sched_yield();
    }
};

TEST_F(BoxLocks, ThreadsAndProcessesTogetherLoseNothing) {
    const Watch watch;
    calls().recording = false;
    calls().observe = let_others_in;
    std::array<pid_t, 4> children{};
    for (std::uint32_t process = 0; process < 4; ++process) {
        children[process] = ::fork();
        if (children[process] == 0) ::_exit(work_in_threads(process * 3, 8) ? 0 : 1);
    }
    for (const pid_t child : children) EXPECT_EQ(0, end_of_child(child));
    Values all = read_newest(1, 0, 100).values, expected;
    std::ranges::sort(all);
    for (std::uint32_t value = 1; value <= 96; ++value) expected.push_back(value);
    EXPECT_EQ(expected, all);
    EXPECT_TRUE(heads_are_sound(file()));
}

// Closing any descriptor of the file drops the process's record lock. The library's own threads keep out of each
// other's way; against a program that opens the file itself, as the second half does, nothing helps.
TEST_F(BoxLocks, TheRecordLockIsHeldAtEveryAccess) {
    ASSERT_EQ(0u, KOVA_CreateBox());
    // A lock that belongs to a descriptor meets record locks of the same process, too. Closed last of all.
    const int probe = ::open(kBoxPath, O_RDWR | O_CLOEXEC);
    std::atomic<int> locked{0}, unlocked{0};
    std::atomic<bool> meddle{false};
    {
        const Watch watch;
        calls().recording = false;
        calls().observe = [&](std::string_view call) {
            if (call != "lseek" && call != "read" && call != "write") return;
            struct flock lock {};
            lock.l_type = F_WRLCK;
            if (::syscall(SYS_fcntl, probe, F_OFD_GETLK, &lock) == 0) ++(lock.l_type == F_UNLCK ? unlocked : locked);
            let_others_in(call);
            if (meddle) ::syscall(SYS_close, ::syscall(SYS_openat, AT_FDCWD, kBoxPath, O_RDONLY));
        };
        EXPECT_TRUE(work_in_threads(0, 10));
        EXPECT_EQ(0, unlocked);
        EXPECT_LT(1000, locked);
        meddle = true;
        EXPECT_EQ(0u, append(0, 1));
    }
    EXPECT_EQ(7, unlocked) << "all but the first access";
    ::close(probe);
}

TEST_F(BoxLocks, AForkedChildOfTheHolderIsNotHeldUp) {
    pid_t child = -1;
    {
        const Watch watch([&](std::string_view call) {
            if (call != "write" || child != -1) return Fate::kNormal;
            child = ::fork();
            if (child == 0) {
                // The lock between threads is held in what it inherited, by a thread that it does not have.
                calls().recording = false;
                ::_exit(static_cast<int>(append(0, 2)));
            }
            return Fate::kNormal;
        });
        ASSERT_EQ(0u, append(0, 1));
    }
    EXPECT_EQ(0, end_of_child(child));
    EXPECT_EQ((Values{2, 1}), read_newest(0, 0, 9).values);
}

TEST_F(BoxLocks, AFileThatGoesAwayUnderAWaitingWriter) {
    static constexpr char kOther[] = "/opt/norvel/var/log/other";
    const struct {
        const char* name;
        int times;
        void (*happen)();
        std::uint32_t code;
        Values here, there;  // in the file, in the one that it was renamed to
    } cases[] = {
        {"removed", 1, [] { ::unlink(kBoxPath); }, 0, {2}, {}},
        {"removed three times", 3, [] { ::unlink(kBoxPath); }, 0, {2}, {}},
        {"removed again and again", 4, [] { ::unlink(kBoxPath); }, 54, {}, {}},
        {"replaced", 1, [] { ::rename(kOther, kBoxPath); }, 0, {2, 7}, {}},
        // It still is a file that somebody has: the record is in it.
        {"renamed", 1, [] { ::rename(kBoxPath, kOther); }, 0, {}, {2, 1}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        SetUp();
        ASSERT_EQ(0u, append(0, 7));
        ASSERT_EQ(0, ::rename(kBoxPath, kOther));
        ASSERT_EQ(0u, append(0, 1));
        {
            const Watch watch([&, times = c.times](std::string_view call) mutable {
                if (call == "lock" && times-- > 0) c.happen();
                return Fate::kNormal;
            });
            EXPECT_EQ(c.code, append(0, 2));
        }
        EXPECT_EQ(c.here, read_newest(0, 0, 9).values);
        if (!c.there.empty()) {
            ASSERT_EQ(0, ::rename(kOther, kBoxPath));
            EXPECT_EQ(c.there, read_newest(0, 0, 9).values);
        }
        ::unlink(kOther);
    }
}

// The kernel sees a circle of processes where the thread that holds the box waits for nothing.
TEST_F(BoxLocks, AWronglyReportedDeadlockIsWaitedOut) {
    int pauses = 0;
    g_on_pause = [&pauses] { ++pauses; };
    {
        const Watch watch(failing("lock", 1, 3, EDEADLK));
        EXPECT_EQ(0u, append(0, 2));
    }
    EXPECT_EQ(3, pauses);
    const Watch watch(failing("lock", 1, 1 << 20, EDEADLK));
    g_paused_ns = 0;
    EXPECT_EQ(54u, append(0, 3));
    EXPECT_LE(4'900'000'000, g_paused_ns.load());
    EXPECT_GE(5'100'000'000, g_paused_ns.load());
    g_on_pause = nullptr;
}

}  // namespace
}  // namespace kova::test
