// Stores the record of a capture that could not finish; see stored_record.h.
//
// The file is only looked at: no lock (somebody who stopped while holding it may be why the capture hangs), no
// allocation, no repair. A torn or damaged head counts as "not stored": one record too many is better than none.
//
// Signal context: all of it.
#include "stored_record.h"

#include <fcntl.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "except/src/proc_agent/box_format.h"
#include "kova/black_box.h"
#include "kova_platform/process_globals.h"

#include "base/signal_path.h"

namespace kova::host {
namespace {

constexpr char kBoxPath[] = "/opt/norvel/var/log/kova_exception_assert";

constexpr const BoxSpec& kSpec = kBoxSpecs[KOVA_BOX_EXCEPTION];

// The beginning of a record: marker, time, signal, thread, process and sender. No two captures agree in all of it.
constexpr std::size_t kIdentityBytes = 256;
static_assert(offsetof(KovaExceptInfo, machineContext) == kIdentityBytes);

bool read_at(int fd, void* buffer, std::size_t length, std::uint32_t offset) {
    return ::pread(fd, buffer, length, static_cast<off_t>(offset)) == static_cast<ssize_t>(length);
}

bool is_in_slot(int fd, const NodeHead& node, std::uint32_t slot, const KovaExceptInfo& record) {
    const auto offset = slot_offset(kSpec.nodeOffset, node, kSpec, slot);
    std::byte stored[kIdentityBytes];
    return offset && read_at(fd, stored, sizeof stored, *offset) && std::memcmp(stored, &record, sizeof stored) == 0;
}

bool is_in_box(int fd, const KovaExceptInfo& record) {
    NodeHead node{};
    if (!read_at(fd, &node, sizeof node, kSpec.nodeOffset)) return false;
    if (check_node_head(node, kSpec) != NodeHeadFault::kNone) return false;
    const std::uint32_t count = std::min(node.recordCount, kSpec.recordMax);
    for (std::uint32_t slot = 0; slot < count; ++slot) {
        // The next append goes here: what stands in it was cut off before it was counted, or is about to go.
        if (slot == next_slot(node)) continue;
        if (is_in_slot(fd, node, slot, record)) return true;
    }
    return false;
}

bool is_stored(const KovaExceptInfo& record) {
    const int fd = ::open(kBoxPath, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return false;
    const bool found = is_in_box(fd, record);
    // Left open: closing any descriptor of the file drops the process's record lock on it, which another thread may
    // hold for an append that it will report as stored. The process is about to end.
    return found;
}

}  // namespace

void store_unfinished_record() {
    if (std::atomic_ref<std::int32_t>(g_kovaExceptionMutex).load() != 1) return;
    const KovaExceptInfo* const record = std::atomic_ref<KovaExceptInfo*>(g_kovaBoxExceptInfo).load();
    if (record == nullptr || record->magic != KOVA_EXCEPT_MARKER || is_stored(*record)) return;
    // Nobody is left to tell.
    static_cast<void>(KOVA_BoxWrite(KOVA_BOX_EXCEPTION, record, sizeof *record, nullptr));
}

}  // namespace kova::host
