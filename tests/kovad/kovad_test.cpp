// The daemon's life: start, second start, end, and taking over what is there.
#include <poll.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <atomic>

#include "kova/resource_region.h"
#include "kovad/daemon_process.h"

namespace kova::test {
namespace {

constexpr char kFast[] = "--cpu-interval 20 --memory-cycle 20 --data-plane-sample-cycle 20";

// A process that was attached before the daemon came.
class Attached {
  public:
    explicit Attached(off_t length) {
        fd_ = ::shm_open(KOVA_RESOURCE_REGION_NAME, O_RDWR | O_CREAT, 0600);
        EXPECT_EQ(0, ::ftruncate(fd_, length));
        static_cast<void>(!::fchown(fd_, static_cast<uid_t>(-1), 1));  // only where there is such a group
        region_ = static_cast<KovaResourceRegion*>(
            ::mmap(nullptr, KOVA_RESOURCE_REGION_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0));
    }
    Attached(const Attached&) = delete;
    Attached& operator=(const Attached&) = delete;
    ~Attached() {
        ::munmap(region_, KOVA_RESOURCE_REGION_SIZE);
        ::close(fd_);
    }
    KovaResourceRegion* operator->() { return region_; }

    [[nodiscard]] struct stat status() const {
        struct stat status {};
        ::fstat(fd_, &status);
        return status;
    }

    // Waits for `count` more samples.
    [[nodiscard]] bool is_fed(std::uint32_t count) {
        const std::uint32_t first = samples();
        for (int tries = 0; tries < 3000 && samples() - first < count; ++tries) ::poll(nullptr, 0, 10);
        return samples() - first >= count;
    }

  private:
    std::uint32_t samples() { return std::atomic_ref(region_->cpuSampleCount).load(std::memory_order_relaxed); }

    int fd_ = -1;
    KovaResourceRegion* region_ = nullptr;
};

class Kovad : public testing::Test {
  protected:
    void SetUp() override { ::shm_unlink(KOVA_RESOURCE_REGION_NAME); }
};

TEST_F(Kovad, OneFeedsTheRegionUntilItIsStopped) {
    const CommandResult none = run_command(KOVACTL " region");
    EXPECT_EQ(2, none.status);
    EXPECT_NE(std::string::npos, none.output.find("start kovad")) << none.output;

    DaemonProcess daemon(kFast);
    ASSERT_TRUE(daemon.wait_for("ready"));
    const CommandResult second = run_command(KOVAD);
    EXPECT_EQ(1, second.status);
    const std::string holder = "locked by process " + std::to_string(daemon.pid());
    EXPECT_NE(std::string::npos, second.output.find(holder)) << second.output;
    const CommandResult shown = run_command(KOVACTL " region --json");
    EXPECT_EQ(0, shown.status);
    EXPECT_NE(std::string::npos, shown.output.find("\"daemon\": " + std::to_string(daemon.pid()))) << shown.output;

    const int status = daemon.stop(SIGTERM);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_EQ(1, run_command(KOVACTL " region").status) << "figures without a daemon are old";
}

TEST_F(Kovad, TakesOverInPlaceWhateverIsThere) {
    for (const off_t length : {0, 100, 8192, 20'000}) {
        SCOPED_TRACE(length);
        Attached before(length);
        {
            DaemonProcess daemon(kFast);
            ASSERT_TRUE(daemon.wait_for("taken over"));
            ASSERT_TRUE(before.is_fed(2));
            EXPECT_EQ(std::max<off_t>(length, KOVA_RESOURCE_REGION_SIZE), before.status().st_size);
            EXPECT_EQ(0660U, before.status().st_mode & 07777);
            EXPECT_EQ(::getegid(), before.status().st_gid);
            EXPECT_GE(before->memInfoFirst, before->memInfoSecond);
            EXPECT_EQ(90U, before->memThreshold);
        }
        // Killed, and another one comes.
        DaemonProcess next(kFast);
        ASSERT_TRUE(next.wait_for("ready"));
        EXPECT_TRUE(before.is_fed(2));
        EXPECT_EQ(1U, before.status().st_nlink) << "replaced";
    }
}

TEST_F(Kovad, SaysWhyItCannotRun) {
    ASSERT_EQ(0, ::mkfifo("/dev/shm/" KOVA_RESOURCE_REGION_NAME, 0600));
    EXPECT_EQ(1, run_command(KOVAD).status);
    EXPECT_EQ(2, run_command(KOVACTL " region").status);
    ::shm_unlink(KOVA_RESOURCE_REGION_NAME);
    for (const char* const wrong : {"--cpu-interval 0", "--memory-restore 90", "--group no-such-group", "extra"}) {
        EXPECT_EQ(2, run_command(std::string(KOVAD " ") + wrong).status) << wrong;
    }
}

}  // namespace
}  // namespace kova::test
