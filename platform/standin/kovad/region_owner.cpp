// Creates or takes over the shared region; see region_owner.h.
#include "region_owner.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>

#include <fmt/format.h>

#include "daemon_log.h"

namespace kova::kovad {
namespace {

constexpr char kPath[] = "/dev/shm/" KOVA_RESOURCE_REGION_NAME;
constexpr mode_t kMode = 0660;
constexpr int kOpenAttempts = 3;

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), fmt::format("{}: {}", kPath, what));
}

struct stat status_of(int fd) {
    struct stat status {};
    if (::fstat(fd, &status) != 0) fail("cannot be looked at");
    return status;
}

// The process that holds a lock on the object, or 0.
pid_t lock_holder(int fd) {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return ::fcntl(fd, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK ? lock.l_pid : 0;
}

}  // namespace

RegionOwner::RegionOwner(std::optional<gid_t> group) {
    open();
    lock();
    set_owner(group);
    ensure_length();
    void* const address =
        ::mmap(nullptr, KOVA_RESOURCE_REGION_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, object_.get(), 0);
    if (address == MAP_FAILED) fail("cannot be mapped");
    region_ = static_cast<KovaResourceRegion*>(address);
}

RegionOwner::~RegionOwner() {
    if (region_ != nullptr) ::munmap(region_, KOVA_RESOURCE_REGION_SIZE);
}

// First without O_CREAT: in a sticky directory the kernel may refuse that flag, even to root, for what another user has
// made there.
void RegionOwner::open() {
    for (int attempt = 0; attempt < kOpenAttempts && !object_.is_open(); ++attempt) {
        object_ = UniqueFd(::shm_open(KOVA_RESOURCE_REGION_NAME, O_RDWR, 0));
        was_there_ = object_.is_open();
        if (was_there_) break;
        if (errno != ENOENT) fail("is there, and this user may not use it");
        object_ = UniqueFd(::shm_open(KOVA_RESOURCE_REGION_NAME, O_RDWR | O_CREAT | O_EXCL, kMode));
        if (!object_.is_open() && errno != EEXIST) fail("cannot be created");
    }
    if (!object_.is_open()) fail("comes and goes");
    if (!S_ISREG(status_of(object_.get()).st_mode)) {
        throw std::runtime_error(fmt::format("{}: is not a shared-memory object; remove it", kPath));
    }
}

void RegionOwner::lock() {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    if (::fcntl(object_.get(), F_SETLK, &lock) == 0) return;
    if (errno != EACCES && errno != EAGAIN) fail("cannot be locked");
    const pid_t holder = lock_holder(object_.get());
    throw std::runtime_error(fmt::format("{}: is locked by process {}; kovad runs already", kPath, holder));
}

// Whoever made the object before must not stay its master, nor their group keep its access.
void RegionOwner::set_owner(std::optional<gid_t> group) {
    const struct stat status = status_of(object_.get());
    const uid_t user = ::geteuid();
    const gid_t wanted_group = group.value_or(::getegid());
    if (status.st_uid != user) {
        log(Level::kWarning, "{}: was user {}'s, and is taken over", kPath, status.st_uid);
    }
    if ((status.st_uid != user || status.st_gid != wanted_group) && ::fchown(object_.get(), user, wanted_group) != 0) {
        fail("cannot be given to the daemon's user and group");
    }
    if ((status_of(object_.get()).st_mode & 07777) != kMode && ::fchmod(object_.get(), kMode) != 0) {
        fail("cannot be given mode 0660");
    }
}

void RegionOwner::ensure_length() {
    const off_t length = status_of(object_.get()).st_size;
    if (length >= off_t{KOVA_RESOURCE_REGION_SIZE}) return;
    if (length != 0) log(Level::kWarning, "{}: has {} bytes, and is made longer", kPath, length);
    // Memory for all of it now: a full file system is an error here and would be SIGBUS later.
    if (const int error = ::posix_fallocate(object_.get(), 0, KOVA_RESOURCE_REGION_SIZE); error != 0) {
        errno = error;
        fail("there is no memory for it");
    }
}

}  // namespace kova::kovad
