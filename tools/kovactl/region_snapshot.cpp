// The shared region as it is at one moment; see region_snapshot.h.
#include "region_snapshot.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fmt/format.h>

#include "base/unique_fd.h"

namespace kova::kovactl {
namespace {

constexpr char kPath[] = "/dev/shm/" KOVA_RESOURCE_REGION_NAME;

[[noreturn]] void fail(std::string_view what, int error, std::string_view advice = "") {
    throw NoRegion(fmt::format("'{}' {}: {}{}", kPath, what, std::strerror(error), advice));
}

// The daemon holds a write lock on the object as long as it runs.
std::optional<pid_t> lock_holder(int fd) {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    if (::fcntl(fd, F_GETLK, &lock) != 0 || lock.l_type == F_UNLCK) return std::nullopt;
    return std::max(lock.l_pid, 0);
}

}  // namespace

RegionSnapshot read_region() {
    // A FIFO at the path must not make us wait for its writer.
    const UniqueFd object(::shm_open(KOVA_RESOURCE_REGION_NAME, O_RDONLY | O_NONBLOCK, 0));
    if (!object.is_open()) {
        const int error = errno;
        fail("cannot be opened", error, error == ENOENT ? "; no daemon has run on this node yet: start kovad" : "");
    }
    struct stat status {};
    if (::fstat(object.get(), &status) != 0) fail("cannot be examined", errno);
    if (!S_ISREG(status.st_mode)) throw NoRegion(fmt::format("'{}' is not a shared-memory object", kPath));
    RegionSnapshot snapshot;
    snapshot.length = static_cast<std::uint64_t>(status.st_size);
    snapshot.daemon = lock_holder(object.get());
    auto* const bytes = reinterpret_cast<std::byte*>(&snapshot.region);
    if (read_at(object.get(), bytes, sizeof snapshot.region, 0) < 0) fail("cannot be read", errno);
    return snapshot;
}

std::vector<std::uint32_t> newest_first(const KovaResourceRegion& region,
                                        const std::uint8_t (&history)[KOVA_CPU_USAGE_SAMPLES]) {
    const std::uint32_t length = std::min(region.cpuSampleCount, KOVA_CPU_USAGE_SAMPLES);
    std::vector<std::uint32_t> samples;
    for (std::uint32_t i = 1; i <= length; ++i) {
        samples.push_back(history[(region.cpuSampleCount - i) % KOVA_CPU_USAGE_SAMPLES]);
    }
    return samples;
}

bool is_used(const KovaThreadTick& entry) {
    return entry.coreId != 0 || entry.pid != 0 || entry.tid != 0;
}

}  // namespace kova::kovactl
