// The black box when system calls fail, one at a time or all from one on, and when something else stands at its path.
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <algorithm>
#include <thread>

#include "sysdiag/except/box_calls.h"

namespace kova::test {
namespace {

class BoxFaults : public BlackBox {
  protected:
    struct Failure {
        int error = EIO;
        bool for_ever = false;
        bool short_write = false;
    };

    // What an operation comes to whose calls fail from the at-th on, or the at-th only.
    struct Outcome {
        std::uint32_t code = 0;
        Bytes image{};
    };
    static Outcome outcome(const Operation& operation, const Bytes& before, std::size_t at, const Failure& failure) {
        const Plan plan(operation, before);
        const std::vector<Step>& steps = plan.steps();
        constexpr std::string_view kRepeated[] = {"open", "ftruncate", "lock", "read", "write"};
        if (failure.error == EINTR && std::ranges::count(kRepeated, steps[at].call) != 0) return {0, plan.image()};
        Bytes image = before;
        for (std::size_t i = 0; i < steps.size(); ++i) {
            if (i < at || (i > at && !failure.for_ever)) {
                put_into(image, steps[i]);
                continue;
            }
            if (failure.short_write) put_into(image, steps[i].write, steps[i].write.data.size() / 2);
            // Removed and opened again; when nothing can be removed, that is the failure.
            const bool nothing_there = before.empty() && steps[i].call == "open";
            if (steps[i].code == kReplaces && (failure.for_ever || nothing_there)) return {41, before};
            if (steps[i].code == kReplaces) return {0, Plan(operation, {}).image()};
            if (steps[i].code != kGoesOn) return {steps[i].code, image};
            if (steps[i].call == "lseek") ++i;  // and no transfer is tried
        }
        return {0, image};
    }

    static int open_descriptors() {
        int count = 0;
        for (int fd = 0; fd < 64; ++fd) count += ::syscall(SYS_fcntl, fd, F_GETFD) >= 0;
        return count;
    }
    // A lock that belongs to a descriptor meets record locks of the same process, too.
    static bool is_locked(int fd) {
        struct flock lock {};
        lock.l_type = F_WRLCK;
        EXPECT_EQ(0, ::syscall(SYS_fcntl, fd, F_OFD_GETLK, &lock));
        return lock.l_type != F_UNLCK;
    }

    static void fail_each_call(const Operation& operation, const State& state) {
        const Plan plan(operation, state.image);
        put(state.image);
        Watch clean;
        const Answer full = perform(operation);
        ASSERT_EQ(0u, full.code);
        std::vector<std::string_view> names;
        for (const Step& step : plan.steps()) names.push_back(step.call);
        ASSERT_EQ(names, calls().made) << "not these calls and no others";
        ASSERT_EQ(plan.image(), file());

        static constexpr Failure kFailures[] = {{EIO, true},    {ENOSPC, false}, {EDQUOT, true},    {EROFS, false},
                                                {ESTALE, true}, {EINTR, false},  {EIO, false, true}};
        for (std::size_t at = 0; at < plan.steps().size(); ++at) {
            if (at > 20 && at + 8 < plan.steps().size()) continue;  // one record is read like another
            const int turn = points_;
            for (const Failure& failure : kFailures) {
                // Usually a third of them, with each call another one.
                if ((&failure - kFailures + turn) % by_effort(5, 3, 1) != 0 && !failure.short_write) continue;
                if (failure.short_write && names[at] != "write") continue;
                SCOPED_TRACE(::testing::Message() << "call " << at << ", " << names[at] << ", error " << failure.error);
                put(state.image);
                fail(operation, at, failure, outcome(operation, state.image, at, failure), full);
            }
        }
    }

    static void fail(const Operation& operation, std::size_t at, const Failure& failure, const Outcome& expected,
                     const Answer& full) {
        const int descriptors = open_descriptors();
        Answer answer;
        // Another thread each time: one that left the lock between threads held would stop the next for ever.
        std::thread([&] {
            const Watch watch([&](std::string_view) {
                const std::size_t index = calls().made.size();
                if (index != at && !(failure.for_ever && index > at)) return Fate::kNormal;
                errno = failure.error;
                return failure.short_write ? Fate::kHalf : Fate::kFail;
            });
            answer = perform(operation);
            sigset_t mask;
            ::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
            EXPECT_FALSE(::sigismember(&mask, SIGTERM));
        }).join();
        ++points_;
        ASSERT_EQ(expected.code, answer.code);
        ASSERT_LE(answer.values.size(), full.values.size());
        ASSERT_TRUE(std::equal(answer.values.begin(), answer.values.end(), full.values.begin()));
        ASSERT_EQ(expected.image, file());
        ASSERT_EQ(descriptors, open_descriptors());
        if (const int probe = ::open(kBoxPath, O_RDWR | O_CLOEXEC); probe >= 0) {
            ASSERT_FALSE(is_locked(probe));
            ::close(probe);
        }
    }

    static inline int points_ = 0;
};

TEST_F(BoxFaults, EachFailedCallHasItsCodeAndLosesNothing) {
    for (const Op op : {Op::kAppend, Op::kRewrite, Op::kReset, Op::kCreate, Op::kRead, Op::kReadSlots}) {
        for (const State& state : states()) {
            for (const std::uint32_t box : {0u, 1u}) {
                SCOPED_TRACE(::testing::Message()
                             << "op " << static_cast<int>(op) << ", box " << box << " of a file " << state.name);
                fail_each_call({op, box, 0xAA}, state);
                if (HasFatalFailure()) return;
            }
        }
    }
    std::printf("failed calls: %d\n", points_);
}

TEST_F(BoxFaults, OnlyOpenBoxRemovesWhatStandsInTheWay) {
    namespace fs = std::filesystem;
    const auto link = [] { fs::create_symlink("/opt/elsewhere", kBoxPath); };
    const auto fifo = [] { ASSERT_EQ(0, ::mkfifo(kBoxPath, 0600)); };
    const auto directory = [] { fs::create_directory(kBoxPath); };
    for (void (*const obstruct)() : {+link, +fifo, +directory}) {
        SetUp();
        obstruct();
        EXPECT_EQ(22u, append(0, 0xAA));
        EXPECT_EQ(22u, read_newest(0, 0, 5).code);
        EXPECT_EQ(1u, read_slots(0, 0, 5).code);
        EXPECT_EQ(1u, rewrite(0, 0xBB, 0));
        EXPECT_FALSE(fs::is_regular_file(kBoxPath));
        log_recorder().clear();
        ::umask(077);
        ASSERT_EQ(0u, KOVA_BoxReset(0));
        EXPECT_EQ("chown -h kova:tessal /opt/norvel/var/log/kova_exception_assert", calls().command);
        struct stat status {};
        ASSERT_EQ(0, ::lstat(kBoxPath, &status));
        EXPECT_EQ(S_IFREG | 0660u, status.st_mode);
        EXPECT_EQ(0u, append(0, 0xAA));
        EXPECT_FALSE(fs::exists("/opt/elsewhere"));
    }
}

bool descriptor_is_open(int fd) {
    return ::syscall(SYS_fcntl, fd, F_GETFD) >= 0;
}

TEST_F(BoxFaults, TheFileNeverTakesAStandardDescriptor) {
    expect_in_child([] {
        for (const int fd : {0, 1, 2}) ::close(fd);
        bool taken = false;
        const Watch watch([&](std::string_view call) {
            for (const int fd : {0, 1, 2}) taken |= call == "lock" && descriptor_is_open(fd);
            return Fate::kNormal;
        });
        EXPECT_EQ(0u, append(0, 0xAA));
        EXPECT_FALSE(taken);
        EXPECT_EQ(1, std::ranges::count(calls().made, "lock"));
    });
    EXPECT_EQ(1u, count_of(file(), 0));
}

// Only reset and create, which replace what they cannot open, cost records when there is no descriptor left.
TEST_F(BoxFaults, NoDescriptorLeft) {
    const Bytes& full = states()[3].image;
    const std::pair<Op, std::uint32_t> codes[] = {{Op::kAppend, 22},   {Op::kRead, 22},  {Op::kRewrite, 1},
                                                  {Op::kReadSlots, 1}, {Op::kReset, 21}, {Op::kCreate, 21}};
    // With the standard descriptors closed the file is opened on one of them and finds no place above.
    for (const bool standard_closed : {false, true}) {
        for (const auto& [op, code] : codes) {
            SCOPED_TRACE(::testing::Message() << static_cast<int>(op) << ", closed " << standard_closed);
            put(full);
            expect_in_child([&, op = op, code = code] {
                for (int fd = 0; fd < 3 && standard_closed; ++fd) ::close(fd);
                rlimit limit{};
                ::getrlimit(RLIMIT_NOFILE, &limit);
                limit.rlim_cur = standard_closed ? 3 : 0;
                while (!standard_closed && descriptor_is_open(static_cast<int>(limit.rlim_cur))) ++limit.rlim_cur;
                ::setrlimit(RLIMIT_NOFILE, &limit);
                EXPECT_EQ(code, perform({op}).code);
                EXPECT_FALSE(standard_closed && descriptor_is_open(0));
            });
            const bool replaces = op == Op::kReset || op == Op::kCreate;
            EXPECT_EQ(replaces ? Bytes{} : full, file());
        }
    }
}

// A file system of its own under the file, of a few pages.
class SmallDisk {
  public:
    static constexpr char kDirectory[] = "/opt/norvel/var/log";
    static constexpr char kFiller[] = "/opt/norvel/var/log/filler";

    SmallDisk() { EXPECT_EQ(0, ::mount("small", kDirectory, "tmpfs", 0, "size=1m")); }
    SmallDisk(const SmallDisk&) = delete;
    SmallDisk& operator=(const SmallDisk&) = delete;
    ~SmallDisk() { EXPECT_EQ(0, ::umount2(kDirectory, MNT_DETACH)); }

    // Takes all pages but so many.
    static void leave(std::size_t pages) {
        std::filesystem::remove(kFiller);
        std::ofstream(kFiller) << std::string((256 - used_pages() - pages) * 4096, 'f');
    }
    static void leave_all() { std::filesystem::remove(kFiller); }
    static void remount(unsigned long flags) {
        EXPECT_EQ(0, ::mount(nullptr, kDirectory, nullptr, MS_REMOUNT | flags, "size=1m"));
    }

  private:
    static std::size_t used_pages() {
        const auto space = std::filesystem::space(kDirectory);
        return (space.capacity - space.free) / 4096;
    }
};

TEST_F(BoxFaults, AFullDiskRefusesAndLaterGoesOnWhereItStopped) {
    for (std::size_t pages = 0; pages <= 8; ++pages) {
        SCOPED_TRACE(pages);
        const SmallDisk disk;
        SmallDisk::leave(pages);
        Bytes model;
        std::uint32_t stored = 0, code = 0;
        while ((code = append(0, stored + 1)) == 0) model = Plan({Op::kAppend, 0, ++stored}, model).image();
        // Without a page the file's first head cannot be made; later a record finds no room for all of it.
        EXPECT_EQ(pages == 0 ? 825u : 87u, code);
        EXPECT_EQ(pages == 0 ? 824u : 0u, read_newest(0, 0, 20).code);
        EXPECT_EQ(stored, read_newest(0, 0, 20).values.size());
        EXPECT_EQ(pages == 0 ? 825u : 836u, append(1, 7));
        EXPECT_EQ(pages == 0 ? 824u : 835u, read_newest(1, 0, 9).code);
        SmallDisk::leave_all();
        EXPECT_EQ(stored, read_newest(0, 0, 20).count);
        EXPECT_EQ(0u, append(0, stored + 1));
        EXPECT_EQ(0u, append(1, 7));
        model = Plan({Op::kAppend, 0, stored + 1}, model).image();
        EXPECT_EQ(Plan({Op::kAppend, 1, 7}, model).image(), file());
    }
}

TEST_F(BoxFaults, AReadOnlyDiskKeepsADamagedFileUntilItCanBeRepaired) {
    const Bytes& damaged = states().back().image;
    const SmallDisk disk;
    put(damaged);
    SmallDisk::remount(MS_RDONLY);
    const std::pair<Op, std::uint32_t> codes[] = {{Op::kAppend, 22},   {Op::kRead, 22},  {Op::kRewrite, 1},
                                                  {Op::kReadSlots, 1}, {Op::kReset, 41}, {Op::kCreate, 41}};
    for (const auto& [op, code] : codes) EXPECT_EQ(code, perform({op}).code) << static_cast<int>(op);
    EXPECT_EQ(damaged, file());
    SmallDisk::remount(0);
    EXPECT_EQ(0u, KOVA_CreateBox());
    EXPECT_EQ(Plan({Op::kCreate}, damaged).image(), file());
}

}  // namespace
}  // namespace kova::test
