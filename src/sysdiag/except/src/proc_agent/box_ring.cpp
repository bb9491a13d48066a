// Appending to and rewriting the rings of the black box; see box_ring.h.
//
// Signal context: all of it.
#include "except/src/proc_agent/box_ring.h"

#include <cerrno>

#include "base/system_log.h"
#include "except/src/proc_agent/box_file.h"
#include "kova/black_box.h"

#include "base/signal_path.h"

namespace kova {

Code append_to_box(std::uint32_t box_id, const void* data, std::uint32_t length, std::uint32_t* slot) {
    if (box_id >= kBoxCount) {
        report_to_system_log("[Exception] box id is invalid, boxId = %u", box_id);
        return kFailed;
    }
    LockedBox box(box_id);
    switch (box.open({.prepare = set_box_length})) {
        case OpenStep::kDone:
            break;
        case OpenStep::kOpen:
            report_to_system_log("[Exception] open kova blackbox unsuccessfully, errno = %d", errno);
            return at_step(kBoxOpenFailed, 2);
        case OpenStep::kPrepare:
            report_to_system_log("[Exception] ftruncate kova blackbox unsuccessfully, errno = %d", errno);
            return at_step(kBoxSetLengthFailed, 3);
        case OpenStep::kLock:
            report_to_system_log("[Exception] KOVA_BoxFileLock unsuccessfully, retValue = %u", kBoxLockFailed);
            return at_step(kBoxLockFailed, 4);
    }
    if (const Code rc = box.read_file_head(); rc != kOk) {
        box.close();
        report_to_system_log("[Exception] KOVA_BoxGetHead unsuccessfully, retValue = %u", rc);
        return at_step(rc, 5);
    }
    if (const Code rc = box.read_node_head(); rc != kOk) {
        box.close();
        report_to_system_log("[Exception] KOVA_BoxGetNodeHead unsuccessfully, retValue = %u", rc);
        return at_step(rc, 6);
    }
    NodeHead& node = box.node();
    node.writeIndex = next_slot(node);
    if (const Code rc = box.write_slot(node.writeIndex, data, length); rc != kOk) {
        box.close();
        report_to_system_log("[Exception] Write box data unsuccessfully, retValue = %u", rc);
        return at_step(rc, 7);
    }
    if (slot != nullptr) *slot = node.writeIndex;
    advance(node);
    const Code rc = box.write_node_head();
    box.close();
    if (rc != kOk) report_to_system_log("[Exception] Write box node head unsuccessfully, retValue = %u", rc);
    return rc;
}

Code rewrite_in_box(std::uint32_t box_id, const void* data, std::uint32_t length, std::uint32_t slot) {
    if (box_id >= kBoxCount) return kFailed;
    LockedBox box(box_id);
    if (box.open() != OpenStep::kDone) return kFailed;
    if (box.read_file_head() != kOk || box.read_node_head() != kOk) return kFailed;
    return box.write_slot(slot, data, length) == kOk ? kOk : kFailed;
}

Code change_in_box(std::uint32_t box_id, std::uint32_t slot, void* room, ChangeRecord change, void* context,
                   const CallingThread& thread) {
    if (box_id >= kBoxCount) return kFailed;
    LockedBox box(box_id, thread);
    if (box.open() != OpenStep::kDone) return kFailed;
    if (box.read_file_head() != kOk || box.read_node_head() != kOk) return kFailed;
    if (slot_order_range(box.node(), slot, 1).count == 0) return kFailed;
    if (box.read_slot(slot, room) != kOk || !change(room, context)) return kFailed;
    return box.write_slot(slot, room, box.node().recordLen) == kOk ? kOk : kFailed;
}

}  // namespace kova

uint32_t KOVA_BoxWrite(uint32_t boxId, const void* data, uint32_t length, uint32_t* slot) {
    return kova::append_to_box(boxId, data, length, slot);
}

void KovaFreshBoxNodeHead(KovaBoxNodeHead* node) {
    if (node != nullptr) kova::advance(*node);
}

uint32_t KOVA_BoxRefresh(uint32_t boxId, const void* data, uint32_t length, uint32_t slot) {
    return kova::rewrite_in_box(boxId, data, length, slot);
}
