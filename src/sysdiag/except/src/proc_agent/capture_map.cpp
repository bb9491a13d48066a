// Copying the memory map into the exception log, and reading it there; see capture_map.h.
//
// Signal context: all of it.
#include "except/src/proc_agent/capture_map.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <limits>
#include <span>

#include "base/checked.h"
#include "base/shared_word.h"
#include "base/signal_scope.h"
#include "except/src/proc_agent/exception_log_file.h"
#include "except/src/proc_agent/map_file.h"
#include "except/src/proc_agent/map_line.h"
#include "kova/memory_map.h"
#include "kova_platform/process_globals.h"

#include "base/signal_path.h"

namespace kova {
namespace {

constexpr std::size_t kWindowSize = 8192;
static_assert(kMapLineSize + kWindowSize <= KOVA_EXCEPT_TEXT_SIZE);

struct MapCopy {
    int fd = -1;  // none that can be used
    off_t first = 0;
    std::uint32_t length = 0;
    std::uint64_t lowest = 0;
    char path[kMapPathSize] = "";  // of what was copied
};

// Whose capture it is; 0 for nobody. A child made with vfork leaves its own mark here, with its own pid in it.
constinit std::atomic<ThreadKey> g_capturing_thread{0};

// Touched by the capturing thread alone.
constinit MapCopy g_copy;

bool is_capturing() {
    return g_capturing_thread.load(std::memory_order_relaxed) == calling_thread().key;
}

void close_copy() {
    if (g_copy.fd < 0) return;
    const ScopedProcessLock no_other_thread(kExceptionLog.lock, log_wait_budget());
    const UniqueFd closing(g_copy.fd);
    g_copy = MapCopy{};
}

// Where the first mapping starts; 0 when that cannot be told.
std::uint64_t lowest_address(std::string_view map) {
    AddressRange range;
    char permissions[kPermissionsSize];
    const std::string_view line(map.data(), std::min(map.find('\n'), map.size()));
    return parse_map_line(line, &range, permissions) ? range.start : 0;
}

// Bytes copied up to the end of the map; -1 when it was not reached.
off_t copy_all(int map, int log, std::uint64_t* lowest) {
    char piece[256];
    off_t copied = 0;
    for (;;) {
        const ssize_t got = read_once(map, piece, sizeof piece);
        if (got == 0) return copied;
        if (got < 0) return -1;
        if (write_once(log, piece, static_cast<std::size_t>(got)) < got) return -1;
        if (copied == 0) *lowest = lowest_address(std::string_view(piece, static_cast<std::size_t>(got)));
        copied += got;
    }
}

// The log holds the copy at its end if nobody has written to it behind the lock's back.
bool is_at_end(int log, off_t first, off_t copied) {
    struct stat status {};
    return ::fstat(log, &status) == 0 && S_ISREG(status.st_mode) && status.st_size - first == copied;
}

void keep_copy(int log, off_t first, off_t copied, std::uint64_t lowest, const char (&path)[kMapPathSize]) {
    if (first < 0 || copied < 0 || copied > std::numeric_limits<std::int32_t>::max()) return;
    if (g_copy.fd >= 0 || !is_at_end(log, first, copied)) return;
    g_copy = MapCopy{.fd = ::fcntl(log, F_DUPFD_CLOEXEC, STDERR_FILENO + 1),
                     .first = first,
                     .length = narrow<std::uint32_t>(copied),
                     .lowest = lowest};
    std::memcpy(g_copy.path, path, sizeof path);
}

// The text buffer is free during a search: what is printed next begins at its head.
std::span<char> search_window() {
    char* const text = load_acquire(g_kovaExceptLogbuf);
    if (text == nullptr) return {};
    return {text + kMapLineSize, kWindowSize};
}

}  // namespace

void begin_capture_map() {
    const ThreadKey self = this_thread_key();
    const ThreadKey before = g_capturing_thread.load(std::memory_order_relaxed);
    // Left by a vfork child, it is the number of a descriptor that is gone; by the parent of a fork, one that the
    // capture of a dying child may leave open.
    if (before != 0 && key_pid(before) != key_pid(self)) g_copy = MapCopy{};
    close_copy();
    g_capturing_thread.store(self, std::memory_order_relaxed);
}

void end_capture_map() {
    if (!is_capturing()) return;
    close_copy();
    g_capturing_thread.store(0, std::memory_order_relaxed);
}

std::uint32_t capture_map_size() {
    return is_capturing() && g_copy.fd >= 0 ? g_copy.length : KovaGetProcMapsSize();
}

MapSource::MapSource() : text_(-1) {
    if (is_capturing() && g_copy.fd >= 0) {
        lowest_ = g_copy.lowest;
        std::memcpy(path_, g_copy.path, sizeof path_);
        text_ = MapText(g_copy.fd, g_copy.first, g_copy.length, search_window());
        is_open_ = true;
        return;
    }
    file_ = open_map_file(path_);
    text_ = MapText(file_.get());
    is_open_ = file_.is_open();
}

}  // namespace kova

void KOVA_DumpMapsFile(void) {
    kova::SharedFile log(kova::kExceptionLog);
    if (log.budget_is_spent()) return;
    char path[kova::kMapPathSize];
    const kova::UniqueFd map = kova::open_map_file(path);
    if (!map.is_open()) return;
    if (log.open_locked() != kova::OpenStep::kDone) return;
    const off_t first = ::lseek(log.fd(), 0, SEEK_END);
    std::uint64_t lowest = 0;
    const off_t copied = kova::copy_all(map.get(), log.fd(), &lowest);
    // The second descriptor outlives the first, whose closing drops the record lock as it should.
    if (kova::is_capturing()) kova::keep_copy(log.fd(), first, copied, lowest, path);
}
