// Reading and emptying the rings of the black box.
//
// What is read goes to a buffer made here, which belongs to the caller. The number of records comes from the file: the
// buffer's size is computed in 64 bits, and one that does not fit an allocation counts as no memory.
//
// Signal context: not safe, everything here allocates.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>

#include "base/result.h"
#include "except/src/proc_agent/box_file.h"
#include "except/src/proc_agent/box_open.h"
#include "kova/black_box.h"
#include "kova/memory.h"
#include "kova_platform/process_globals.h"

namespace kova {
namespace {

constexpr std::uint32_t kAllocationKind = 1;
constexpr char kMemoryTag[] = "kova_box";

// Codes of the newest-first range and of the copying below it.
constexpr Code kSkipTooLarge = 9;
constexpr Code kNullArgument = 11;
constexpr Code kNoMemory = 12;

// Null when the size does not fit, and for 0 records.
void* allocate_records(std::uint32_t handle, std::uint32_t record_len, std::uint32_t count, std::uint32_t line) {
    const std::uint64_t bytes = std::uint64_t{record_len} * count;
    if (bytes > std::numeric_limits<std::uint32_t>::max()) return nullptr;
    return KovaBaseMalloc(handle, kAllocationKind, static_cast<std::uint32_t>(bytes), kMemoryTag, line);
}

// Reads the slots that slot_of(i) names, for i from 0 on, into the buffer. Answers how many there were before the first
// that cannot be read.
template <typename SlotOf>
std::uint32_t copy_slots(int fd, const FileHead& head, const NodeHead& node, std::uint32_t box_id, std::uint32_t count,
                         void* buffer, SlotOf slot_of) {
    auto* record = static_cast<std::byte*>(buffer);
    for (std::uint32_t i = 0; i < count; ++i, record += node.recordLen) {
        if (read_slot(fd, head, node, box_id, slot_of(i), record) != kOk) return i;
    }
    return count;
}

Code read_newest_first(int fd, const FileHead& head, const NodeHead& node, std::uint32_t box_id, std::uint32_t skip,
                       std::uint32_t* count, void** records) {
    const auto range = newest_first_range(node, skip, *count);
    if (!range.has_value()) return at_step(kSkipTooLarge, 1);
    *count = range->count;
    *records = allocate_records(g_kovaAgentMemHandle, node.recordLen, range->count, __LINE__);
    if (*records == nullptr) return kNoMemory;
    *count = copy_slots(fd, head, node, box_id, range->count, *records,
                        [&](std::uint32_t i) { return newest_first_slot(node, *range, i); });
    return kOk;
}

Code read_box(std::uint32_t box_id, std::uint32_t skip, std::uint32_t* count, void** records) {
    if (count == nullptr || records == nullptr) return kFailed;
    LockedBox box(box_id);
    switch (box.open()) {
        case OpenStep::kDone:
            break;
        case OpenStep::kLock:
            return at_step(kBoxLockFailed, 3);
        default:
            return at_step(kBoxOpenFailed, 2);
    }
    if (const Code rc = box.read_file_head(); rc != kOk) return at_step(rc, 4);
    if (const Code rc = box.read_node_head(); rc != kOk) return at_step(rc, 5);
    const NodeHead& node = box.node();
    if (node.recordCount <= skip) {
        *count = 0;
        return kOk;
    }
    if (node.recordLen == 0) return 6;
    const Code rc = read_newest_first(box.fd(), box.head(), node, box_id, skip, count, records);
    return rc == kOk ? kOk : at_step(rc, 7);
}

Code read_box_from(std::uint32_t box_id, std::uint32_t first, std::uint32_t* count, void** records,
                   std::uint32_t mem_handle) {
    if (count == nullptr || records == nullptr) return kFailed;
    LockedBox box(box_id);
    if (box.open() != OpenStep::kDone) return kFailed;
    if (box.read_file_head() != kOk || box.read_node_head() != kOk) return kFailed;
    const NodeHead& node = box.node();
    if (node.recordCount == 0 || node.recordCount < first || *count == 0) {
        *count = 0;
        return kOk;
    }
    if (node.recordLen == 0) return kFailed;
    const SlotRange range = slot_order_range(node, first, *count);
    *count = range.count;
    *records = allocate_records(mem_handle, node.recordLen, range.count, __LINE__);
    if (*records == nullptr) return kFailed;
    *count = copy_slots(box.fd(), box.head(), node, box_id, range.count, *records,
                        [&](std::uint32_t i) { return slot_order_slot(node, range, i); });
    return kOk;
}

// Best effort: what cannot be cleared is no longer counted all the same. A count that the file claims and the box has
// no room for ends at the box's last slot.
void clear_used_slots(const LockedBox& box) {
    const NodeHead& node = box.node();
    if (std::uint64_t{node.recordLen} * node.recordCount > std::numeric_limits<std::uint32_t>::max()) return;
    const std::uint32_t count = std::min(node.recordCount, box.spec().recordMax);
    void* const zeros = allocate_records(g_kovaAgentMemHandle, node.recordLen, count, __LINE__);
    if (zeros == nullptr) return;
    const std::uint32_t bytes = node.recordLen * count;
    std::memset(zeros, 0, bytes);
    static_cast<void>(
        write_record(box.fd(), box.spec().nodeOffset + kNodeHeadBytes, zeros, static_cast<std::int32_t>(bytes)));
    KovaBaseFree(g_kovaAgentMemHandle, zeros, kMemoryTag, __LINE__);
}

Code reset_box(std::uint32_t box_id) {
    if (box_id >= kBoxCount) return kFailed;
    LockedBox box(box_id);
    Code open_code = kOk;
    switch (box.open({.open = open_or_replace_box_step, .context = &open_code})) {
        case OpenStep::kDone:
            break;
        case OpenStep::kLock:
            return at_step(kBoxLockFailed, 3);
        default:
            return at_step(open_code, 1);
    }
    if (const Code rc = box.read_file_head(); rc != kOk) return at_step(rc, 4);
    if (const Code rc = box.read_node_head(); rc != kOk) return at_step(rc, 5);
    if (box.node().recordCount == 0) return kOk;
    clear_used_slots(box);
    box.node() = make_node_head(box.spec());
    const Code rc = box.write_node_head();
    return rc == kOk ? kOk : at_step(rc, 6);
}

}  // namespace
}  // namespace kova

uint32_t KOVA_BoxRead(uint32_t boxId, uint32_t skip, uint32_t* count, void** records) {
    return kova::read_box(boxId, skip, count, records);
}

uint32_t KOVA_BoxReadFromBegin(uint32_t boxId, uint32_t first, uint32_t* count, void** records, uint32_t memHandle) {
    return kova::read_box_from(boxId, first, count, records, memHandle);
}

uint32_t KOVA_BoxReset(uint32_t boxId) {
    return kova::reset_box(boxId);
}

uint32_t KOVA_BoxReadGetStartAndNum(const KovaBoxNodeHead* node, uint32_t skip, uint32_t* start, uint32_t* count) {
    if (node == nullptr || start == nullptr || count == nullptr) return kova::kFailed;
    const auto range = kova::newest_first_range(*node, skip, *count);
    if (!range.has_value()) return kova::kSkipTooLarge;
    *start = range->start;
    *count = range->count;
    return kova::kOk;
}

uint32_t KOVA_BoxReadGetStartAndNumFromBegin(const KovaBoxNodeHead* node, const uint32_t* first, uint32_t* count) {
    if (node == nullptr || first == nullptr || count == nullptr) return kova::kFailed;
    *count = kova::slot_order_range(*node, *first, *count).count;
    return kova::kOk;
}

uint32_t KOVA_BoxReadWithCondition(int fd, const KovaBoxHead* head, const KovaBoxNodeHead* node, uint32_t boxId,
                                   uint32_t skip, uint32_t* count, void** records) {
    if (head == nullptr || node == nullptr || boxId >= kova::kBoxCount || count == nullptr || records == nullptr) {
        return kova::kNullArgument;
    }
    return kova::read_newest_first(fd, *head, *node, boxId, skip, count, records);
}
