// Is a black box file sound? See box_verify.h.
#include "box_verify.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include <fmt/format.h>

#include "record_check.h"

namespace kova::kovactl {
namespace {

// Looks at one head and keeps what it finds, with where it stands.
class HeadCheck {
  public:
    HeadCheck(std::vector<Finding>& faults, std::string where, std::uint64_t offset)
        : faults_(faults), where_(std::move(where)), offset_(offset) {}

    void equal(const char* field, std::size_t at, std::uint32_t found, std::uint32_t expected) {
        if (found != expected) fault(at, fmt::format("{} is {}, expected {}", field, found, expected));
    }
    void equal_hex(const char* field, std::size_t at, std::uint32_t found, std::uint32_t expected) {
        if (found != expected) fault(at, fmt::format("{} is 0x{:08x}, expected 0x{:08x}", field, found, expected));
    }
    void checksum(std::size_t at, std::uint16_t found, std::uint16_t computed) {
        if (found != computed) fault(at, fmt::format("checkSum is 0x{:04x}, computed 0x{:04x}", found, computed));
    }
    void fault(std::size_t at, std::string what) { faults_.push_back({where_, offset_ + at, std::move(what)}); }

  private:
    std::vector<Finding>& faults_;
    std::string where_;
    std::uint64_t offset_;
};

void check_length(const BoxSnapshot& snapshot, Verdict& verdict) {
    if (snapshot.length() > kBoxFileBytes) {
        verdict.faults.push_back(
            {"file", kBoxFileBytes, fmt::format("{} bytes, expected {}", snapshot.length(), kBoxFileBytes)});
    } else if (snapshot.length() < kBoxFileBytes) {
        // Only an append gives the file its full length; a read that finds no file makes a short one.
        verdict.notes.push_back(
            {"file", snapshot.length(),
             fmt::format("{} of {} bytes; the rest counts as zero", snapshot.length(), kBoxFileBytes)});
    }
}

void check_file_head(const BoxSnapshot& snapshot, Verdict& verdict) {
    if (snapshot.file_head_is_zero()) {
        const bool unused = snapshot.is_unused(0) && snapshot.is_unused(1);
        (unused ? verdict.notes : verdict.faults).push_back({"file head", 0, "never written"});
        return;
    }
    const FileHead head = snapshot.file_head();
    const FileHead expected = make_file_head(kBoxSpecs, {}, head.reserved);
    HeadCheck check(verdict.faults, "file head", 0);
    check.equal_hex("magic", offsetof(FileHead, magic), head.magic, expected.magic);
    check.equal("osVersion[0]", offsetof(FileHead, osVersion[0]), head.osVersion[0], expected.osVersion[0]);
    check.equal("osVersion[1]", offsetof(FileHead, osVersion[1]), head.osVersion[1], expected.osVersion[1]);
    check.equal("cpuType", offsetof(FileHead, cpuType), head.cpuType, expected.cpuType);
    check.equal("boxLen", offsetof(FileHead, boxLen), head.boxLen, expected.boxLen);
    check.equal("boxNum", offsetof(FileHead, boxNum), head.boxNum, expected.boxNum);
    check.equal("nodeOffset[0]", offsetof(FileHead, nodeOffset[0]), head.nodeOffset[0], expected.nodeOffset[0]);
    check.equal("nodeOffset[1]", offsetof(FileHead, nodeOffset[1]), head.nodeOffset[1], expected.nodeOffset[1]);
    check.checksum(offsetof(FileHead, checkSum), head.checkSum, head_checksum(head));
}

void check_node_head(const BoxSnapshot& snapshot, std::uint32_t box, Verdict& verdict) {
    const BoxSpec& spec = kBoxSpecs[box];
    const std::string where = fmt::format("box {}, node head", box);
    // A box is first written to when it is first used: no fault, and nothing to say.
    if (snapshot.is_unused(box)) return;
    const NodeHead node = snapshot.node_head(box);
    const NodeHead expected = make_node_head(spec);
    HeadCheck check(verdict.faults, where, spec.nodeOffset);
    check.equal_hex("magic", offsetof(NodeHead, magic), node.magic, expected.magic);
    check.equal("recordMax", offsetof(NodeHead, recordMax), node.recordMax, expected.recordMax);
    if (node.recordCount > node.recordMax) {
        check.fault(offsetof(NodeHead, recordCount),
                    fmt::format("recordCount is {}, above recordMax {}", node.recordCount, node.recordMax));
    }
    if (node.writeIndex >= node.recordMax) {
        check.fault(offsetof(NodeHead, writeIndex),
                    fmt::format("writeIndex is {}, expected below recordMax {}", node.writeIndex, node.recordMax));
    } else if (node.recordCount < node.recordMax && node.writeIndex != node.recordCount) {
        check.fault(offsetof(NodeHead, writeIndex),
                    fmt::format("writeIndex is {}, expected recordCount {}, since the box is not full", node.writeIndex,
                                node.recordCount));
    }
    check.equal_hex("reserved word 16", offsetof(NodeHead, reserved16), node.reserved16, expected.reserved16);
    check.equal_hex("reserved word 20", offsetof(NodeHead, reserved20), node.reserved20, expected.reserved20);
    check.equal("recordLen", offsetof(NodeHead, recordLen), node.recordLen, expected.recordLen);
    check.equal("reserved word 28", offsetof(NodeHead, reserved28), node.reserved28, expected.reserved28);
    check.checksum(offsetof(NodeHead, checkSum), node.checkSum, head_checksum(node));
    if (kova::check_node_head(node, spec) != NodeHeadFault::kNone) {
        check.fault(0, "the next operation on this box will take it for empty and write a new head");
    }
}

// A record that is not counted stands at the write index when its writer died between the two. Further ones are what a
// rebuilt head no longer knows of.
void note_uncounted(const BoxSnapshot& snapshot, std::uint32_t box, Verdict& verdict) {
    std::vector<std::uint32_t> slots = snapshot.uncounted(box);
    const NodeHead node = snapshot.node_head(box);
    const std::uint32_t next = next_slot(node);
    if (kova::check_node_head(node, kBoxSpecs[box]) == NodeHeadFault::kNone && std::erase(slots, next) != 0) {
        verdict.notes.push_back({fmt::format("box {}, slot {}", box, next), slot_place(box, next),
                                 "holds a record that is not counted: its writer died before counting it, or the box "
                                 "was emptied because its head was damaged"});
    }
    if (slots.empty()) return;
    std::ranges::reverse(slots);
    verdict.notes.push_back({fmt::format("box {}, slot{} {}", box, slots.size() == 1 ? "" : "s", slots_text(slots)),
                             slot_place(box, slots.front()),
                             fmt::format("{} not counted, since the box's head is damaged or was written anew; see "
                                         "kovactl box salvage",
                                         slots.size() == 1 ? "a record is" : "records are")});
}

void check_records(const BoxSnapshot& snapshot, std::uint32_t box, Verdict& verdict) {
    const NodeHead node = snapshot.node_head(box);
    if (kova::check_node_head(node, kBoxSpecs[box]) != NodeHeadFault::kNone) return;
    const auto records = snapshot.newest_first(box);
    for (const StoredRecord& stored : records) {
        const auto slot = snapshot.slot(box, stored.slot);
        HeadCheck check(verdict.faults, fmt::format("box {}, slot {}", box, stored.slot), stored.offset);
        check.equal_hex("marker", 0, marker_of(slot), kMarkers[box]);
        for (RecordFault& fault : record_faults(box, slot)) check.fault(fault.at, std::move(fault.what));
    }
    if (records.size() < node.recordCount) {
        verdict.faults.push_back({fmt::format("box {}", box), kBoxSpecs[box].nodeOffset,
                                  fmt::format("{} of the {} records counted do not lie in the box's slots",
                                              node.recordCount - records.size(), node.recordCount)});
    }
    if (oldest_may_be_torn(snapshot, box)) {
        const StoredRecord& oldest = records.back();
        verdict.notes.push_back({fmt::format("box {}, slot {}", box, oldest.slot), oldest.offset,
                                 "the oldest record is later than the newest: a writer that was replacing it may have "
                                 "died, and it may be a mixture of both"});
    }
}

}  // namespace

std::string slots_text(std::span<const std::uint32_t> slots) {
    std::string text;
    for (std::size_t i = 0; i < slots.size();) {
        std::size_t last = i;
        while (last + 1 < slots.size() && slots[last + 1] == slots[last] + 1) ++last;
        text += fmt::format("{}{}", text.empty() ? "" : ", ", slots[i]);
        if (last > i) text += fmt::format("{}{}", last == i + 1 ? ", " : " to ", slots[last]);
        i = last + 1;
    }
    return text;
}

bool oldest_may_be_torn(const BoxSnapshot& snapshot, std::uint32_t box) {
    const auto records = snapshot.newest_first(box);
    if (records.size() < 2 || records.size() < snapshot.node_head(box).recordMax) return false;
    // A repeated assert has the time of its latest occurrence; what an append brings was raised once.
    if (box == KOVA_BOX_ASSERT && snapshot.assert_item(records.back().slot).occurrenceCount > 1) return false;
    return time_key(snapshot.slot(box, records.back().slot)) > time_key(snapshot.slot(box, records.front().slot));
}

Verdict verify_heads(const BoxSnapshot& snapshot, std::uint32_t box) {
    Verdict verdict;
    check_file_head(snapshot, verdict);
    check_node_head(snapshot, box, verdict);
    return verdict;
}

Verdict verify(const BoxSnapshot& snapshot) {
    Verdict verdict;
    check_length(snapshot, verdict);
    check_file_head(snapshot, verdict);
    for (std::uint32_t box = 0; box < kBoxCount; ++box) {
        check_node_head(snapshot, box, verdict);
        check_records(snapshot, box, verdict);
        note_uncounted(snapshot, box, verdict);
    }
    return verdict;
}

}  // namespace kova::kovactl
