// Choosing, opening and measuring the memory-map file; see map_file.h and kova/memory_map.h.
//
// Signal context: all of it.
#include "except/src/proc_agent/map_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>

#include "base/checked.h"
#include "base/result.h"
#include "base/text_buffer.h"
#include "kova/memory_map.h"

#include "base/signal_path.h"

namespace kova {
namespace {

TextBuffer format_path(char (&path)[kMapPathSize], std::uint32_t pid, std::string_view name) {
    TextBuffer text(path, sizeof path);
    text.append("/proc/");
    text.append_decimal(pid);
    text.append(name);
    return text;
}

[[gnu::noinline]] bool exists(const char* path) {
    struct stat status {};
    return ::stat(path, &status) == 0;
}

}  // namespace

UniqueFd open_map_file(char (&path)[kMapPathSize]) {
    if (KOVA_GetProcessMapsFilePathByProcessID(path, sizeof path, static_cast<std::uint32_t>(::getpid())) != kOk) {
        errno = ENAMETOOLONG;
        return {};
    }
    return open_regular_file(path, O_RDONLY | O_NOFOLLOW);
}

}  // namespace kova

uint32_t KOVA_GetProcessMapsFilePathByProcessID(char* path, uint32_t size, uint32_t pid) {
    if (path == nullptr || size == 0) return kova::kFailed;
    char chosen[kova::kMapPathSize];
    kova::TextBuffer text = kova::format_path(chosen, pid, "/maps_merge");
    if (!kova::exists(chosen)) text = kova::format_path(chosen, pid, "/maps");
    if (text.length() >= size) return kova::kFailed;
    std::memcpy(path, chosen, text.length() + 1);
    return kova::kOk;
}

uint32_t KovaGetProcMapsSize(void) {
    char path[kova::kMapPathSize];
    const kova::UniqueFd file = kova::open_map_file(path);
    if (!file.is_open()) return 0;
    char piece[256];
    std::uint32_t size = 0;
    for (;;) {
        const ssize_t count = kova::read_once(file.get(), piece, sizeof piece);
        if (count < 0) return 0;
        if (count == 0) return size;
        size = kova::saturating_add(size, static_cast<std::uint32_t>(count));
    }
}
