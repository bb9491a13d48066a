// How much memory the machine has, and the free-memory threshold that follows from it.
#include <fcntl.h>
#include <cstring>

#include "base/landing_pad.h"
#include "base/log_message.h"
#include "base/unique_fd.h"
#include "kova/process_info.h"
#include "kova_platform/bounded_string.h"

namespace kova {
namespace {

constexpr std::size_t kReadSize = 128;  // MemTotal is the first line
constexpr uint32_t kKbPerGib = 1'048'576;

}  // namespace
}  // namespace kova

using kova::kIdGeneral;

uint32_t KovaGetSysMemTotal(void) {
    char text[kova::kReadSize] = {};
    ssize_t count = 0;
    {
        const kova::UniqueFd meminfo = kova::open_file("/proc/meminfo", O_RDONLY | O_NOFOLLOW);
        if (!meminfo.is_open()) {
            KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "[KovaGetSysMemTotal] open /proc/meminfo unsuccessful");
            return 0;
        }
        count = kova::read_once(meminfo.get(), text, sizeof text - 1);
    }
    if (count < 0) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "[KovaGetSysMemTotal] read (%s) unsuccessful", text);
        return 0;
    }
    const char* total = std::strstr(text, "MemTotal");
    if (total == nullptr) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "[KovaGetSysMemTotal] strstr (%s) unsuccessful", text);
        return 0;
    }
    uint32_t kilobytes = 0;
    if (sscanf_s(total, "MemTotal:%u", &kilobytes) != 1) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "[KovaGetSysMemTotal] sscanf_s (%s) unsuccessful", total);
        return 0;
    }
    return kilobytes;
}

KOVA_PATCHABLE uint32_t KovaGetOOMThreshold(void) {
    KOVA_LANDING_PAD();
    constexpr uint32_t kSmall = 50;
    constexpr uint32_t kMedium = 100;
    constexpr uint32_t kLarge = 160;
    const uint32_t total_kb = KovaGetSysMemTotal();
    if (total_kb == 0) return kLarge;  // unknown
    if (total_kb <= kova::kKbPerGib) return kSmall;
    if (total_kb <= 2 * kova::kKbPerGib) return kMedium;
    return kLarge;
}
