// A black box file as it was at one moment; see box_snapshot.h.
#include "box_snapshot.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>
#include <utility>

#include <fmt/core.h>

#include "record_check.h"

namespace kova::kovactl {
namespace {

constexpr std::chrono::milliseconds kLockPatience{5000};
constexpr std::chrono::milliseconds kLockPause{50};

struct Descriptor {
    int fd = -1;
    Descriptor() = default;
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() {
        if (fd >= 0) ::close(fd);
    }
};

// Open for reading, locked until it goes out of scope.
class File {
  public:
    explicit File(const std::string& path) : path_(path) {
        // A FIFO at the path must not make us wait for its writer.
        int flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK;
        if (path == kLiveBoxFile) flags |= O_NOFOLLOW;
        file_.fd = ::open(path.c_str(), flags);
        if (file_.fd < 0)
            fail("cannot be opened", errno,
                 errno == ENOENT && path == kLiveBoxFile ? "; nothing was recorded on this node yet" : "");
        struct stat status {};
        if (::fstat(file_.fd, &status) != 0) fail("cannot be examined", errno);
        if (!S_ISREG(status.st_mode)) {
            throw CannotRead(fmt::format("'{}' is not a regular file, so it is no black box", path));
        }
    }

    [[nodiscard]] std::uint64_t length() const {
        struct stat status {};
        if (::fstat(file_.fd, &status) != 0) fail("cannot be examined", errno);
        return static_cast<std::uint64_t>(status.st_size);
    }

    void lock() {
        const auto deadline = std::chrono::steady_clock::now() + kLockPatience;
        while (!set_lock(F_SETLK)) {
            // A file system without record locks, a copy on a stick for instance, has no writers to wait for.
            if (errno == ENOLCK || errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP) return;
            if (errno != EAGAIN && errno != EACCES && errno != EINTR) fail("cannot be locked", errno);
            if (std::chrono::steady_clock::now() >= deadline) {
                throw CannotRead(
                    fmt::format("'{}' could not be locked for {} s, {}; try again, or look at a copy of it with --file",
                                path_, kLockPatience.count() / 1000, holder_text()));
            }
            std::this_thread::sleep_for(kLockPause);
        }
    }

    [[nodiscard]] std::vector<std::uint8_t> read_up_to(std::size_t limit) {
        std::vector<std::uint8_t> bytes(limit);
        std::size_t filled = 0;
        while (filled < limit) {
            const ssize_t count = ::pread(file_.fd, bytes.data() + filled, limit - filled, static_cast<off_t>(filled));
            if (count < 0 && errno == EINTR) continue;
            if (count < 0) fail(fmt::format("cannot be read at byte {}", filled), errno);
            if (count == 0) break;
            filled += static_cast<std::size_t>(count);
        }
        bytes.resize(filled);
        return bytes;
    }

  private:
    bool set_lock(int command, pid_t* holder = nullptr) const {
        struct flock lock {};
        lock.l_type = F_RDLCK;
        lock.l_whence = SEEK_SET;
        const bool granted = ::fcntl(file_.fd, command, &lock) == 0;
        if (holder != nullptr) *holder = granted && lock.l_type != F_UNLCK ? lock.l_pid : 0;
        return granted;
    }

    // Who has it at this moment: perhaps not who had it before.
    [[nodiscard]] std::string holder_text() const {
        pid_t pid = 0;
        set_lock(F_GETLK, &pid);
        return pid != 0 ? fmt::format("now by process {}", pid) : "and is free now";
    }

    [[noreturn]] void fail(std::string_view what, int error, std::string_view advice = "") const {
        throw CannotRead(fmt::format("'{}' {}: {}{}", path_, what, std::strerror(error), advice));
    }

    std::string path_;
    Descriptor file_;
};

template <typename Head>
Head head_at(const std::vector<std::uint8_t>& bytes, std::size_t offset) {
    Head head;
    std::memcpy(&head, bytes.data() + offset, sizeof head);
    return head;
}

template <typename Record, std::uint32_t kBox>
Record record_in(const BoxSnapshot& snapshot, std::uint32_t slot) {
    Record record;
    static_assert(sizeof record == kBoxSpecs[kBox].recordLen);
    std::memcpy(&record, snapshot.slot(kBox, slot).data(), sizeof record);
    return record;
}

}  // namespace

std::uint32_t slot_place(std::uint32_t box, std::uint32_t slot) {
    return kBoxSpecs[box].nodeOffset + kNodeHeadBytes + slot * kBoxSpecs[box].recordLen;
}

BoxSnapshot BoxSnapshot::read(const std::string& path) {
    File file(path);
    file.lock();
    BoxSnapshot snapshot(path, file.read_up_to(kBoxFileBytes));
    snapshot.length_ = file.length();
    return snapshot;
}

BoxSnapshot::BoxSnapshot(std::string path, std::vector<std::uint8_t> bytes)
    : path_(std::move(path)), length_(bytes.size()), bytes_(std::move(bytes)) {
    bytes_.resize(kBoxFileBytes);
}

FileHead BoxSnapshot::file_head() const {
    return head_at<FileHead>(bytes_, 0);
}

NodeHead BoxSnapshot::node_head(std::uint32_t box) const {
    return head_at<NodeHead>(bytes_, kBoxSpecs[box].nodeOffset);
}

bool BoxSnapshot::file_head_is_zero() const {
    return is_zero(std::span(bytes_).first(sizeof(FileHead)));
}

bool BoxSnapshot::is_unused(std::uint32_t box) const {
    const std::size_t begin = kBoxSpecs[box].nodeOffset;
    return is_zero(std::span(bytes_).subspan(begin, static_cast<std::size_t>(box_end(kBoxSpecs[box])) - begin));
}

std::vector<StoredRecord> BoxSnapshot::newest_first(std::uint32_t box) const {
    const NodeHead node = node_head(box);
    std::vector<StoredRecord> records;
    if (check_node_head(node, kBoxSpecs[box]) != NodeHeadFault::kNone) return records;
    const auto range = newest_first_range(node, 0, node.recordCount);
    if (!range.has_value()) return records;
    for (std::uint32_t i = 0; i < range->count; ++i) {
        const std::uint32_t slot = newest_first_slot(node, *range, i);
        const auto offset = slot_offset(kBoxSpecs[box].nodeOffset, node, kBoxSpecs[box], slot);
        if (!offset.has_value()) break;
        records.push_back({.index = i, .slot = slot, .offset = *offset});
    }
    return records;
}

std::vector<std::uint32_t> BoxSnapshot::uncounted(std::uint32_t box) const {
    std::vector<bool> is_counted(kBoxSpecs[box].recordMax);
    for (const StoredRecord& stored : newest_first(box)) is_counted[stored.slot] = true;
    std::vector<std::uint32_t> slots;
    for (std::uint32_t i = kBoxSpecs[box].recordMax; i-- > 0;) {
        if (!is_counted[i] && holds_record(box, slot(box, i))) slots.push_back(i);
    }
    return slots;
}

std::span<const std::uint8_t> BoxSnapshot::slot(std::uint32_t box, std::uint32_t slot) const {
    return std::span(bytes_).subspan(slot_place(box, slot), kBoxSpecs[box].recordLen);
}

KovaExceptInfo BoxSnapshot::exception(std::uint32_t slot_index) const {
    return record_in<KovaExceptInfo, KOVA_BOX_EXCEPTION>(*this, slot_index);
}

KovaAssertItem BoxSnapshot::assert_item(std::uint32_t slot_index) const {
    return record_in<KovaAssertItem, KOVA_BOX_ASSERT>(*this, slot_index);
}

}  // namespace kova::kovactl
