// Is a black box file sound? See box_verify.h.
#include "box_verify.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <tuple>

#include <fmt/format.h>

namespace kova::kovactl {
namespace {

constexpr std::uint32_t kMarkers[kBoxCount] = {KOVA_EXCEPT_MARKER, 0xAEAEAEAE};
constexpr std::size_t kTimeOffset = 8;  // in the records of both boxes, broken down

std::uint32_t word_at(std::span<const std::uint8_t> bytes, std::size_t offset) {
    std::uint32_t word = 0;
    std::memcpy(&word, bytes.data() + offset, sizeof word);
    return word;
}

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

// Seconds, minutes, ... years of a record's time as something that can be compared.
std::array<std::int32_t, 6> time_key(std::span<const std::uint8_t> record) {
    std::array<std::int32_t, 6> fields{};
    std::memcpy(fields.data(), record.data() + kTimeOffset, sizeof fields);
    std::ranges::reverse(fields);
    return fields;
}

void check_exception(const KovaExceptInfo& record, HeadCheck& check) {
    const struct {
        const char* name;
        std::size_t at;
        std::uint32_t length, room;
    } lengths[] = {
        {"spDumpLength", offsetof(KovaExceptInfo, spDumpLength), record.spDumpLength, sizeof record.spDump},
        {"pcDumpLength", offsetof(KovaExceptInfo, pcDumpLength), record.pcDumpLength, sizeof record.pcDump},
        {"lrDumpLength", offsetof(KovaExceptInfo, lrDumpLength), record.lrDumpLength, sizeof record.lrDump},
        {"fpDumpLength", offsetof(KovaExceptInfo, fpDumpLength), record.fpDumpLength, sizeof record.fpDump},
        {"callStackDepth", offsetof(KovaExceptInfo, callStackDepth), record.callStackDepth, KOVA_CALL_STACK_MAX},
    };
    for (const auto& field : lengths) {
        if (field.length > field.room) {
            check.fault(field.at, fmt::format("{} is {}, at most {} fit", field.name, field.length, field.room));
        }
    }
    const struct {
        const char* name;
        std::size_t at;
        std::span<const char> text;
    } texts[] = {
        {"signalName", offsetof(KovaExceptInfo, signalName), record.signalName},
        {"processName", offsetof(KovaExceptInfo, processName), record.processName},
        {"senderProcessName", offsetof(KovaExceptInfo, senderProcessName), record.senderProcessName},
        {"platformName", offsetof(KovaExceptInfo, platformName), record.platformName},
        {"platformVersion", offsetof(KovaExceptInfo, platformVersion), record.platformVersion},
    };
    for (const auto& field : texts) {
        if (std::ranges::find(field.text, '\0') == field.text.end()) {
            check.fault(field.at, fmt::format("{} is not terminated", field.name));
        }
    }
}

void check_records(const BoxSnapshot& snapshot, std::uint32_t box, Verdict& verdict) {
    const NodeHead node = snapshot.node_head(box);
    if (kova::check_node_head(node, kBoxSpecs[box]) != NodeHeadFault::kNone) return;
    const auto records = snapshot.newest_first(box);
    for (const StoredRecord& stored : records) {
        const auto bytes = snapshot.slot(box, stored.slot);
        HeadCheck check(verdict.faults, fmt::format("box {}, slot {}", box, stored.slot), stored.offset);
        check.equal_hex("marker", 0, word_at(bytes, 0), kMarkers[box]);
        if (box == KOVA_BOX_EXCEPTION) check_exception(snapshot.exception(stored.slot), check);
    }
    if (records.size() < node.recordCount) {
        verdict.faults.push_back({fmt::format("box {}", box), kBoxSpecs[box].nodeOffset,
                                  fmt::format("{} of the {} records counted do not lie in the box's slots",
                                              node.recordCount - records.size(), node.recordCount)});
    }
    const std::uint32_t next = next_slot(node);
    if (next >= kBoxSpecs[box].recordMax) return;
    const std::uint64_t next_offset =
        std::uint64_t{kBoxSpecs[box].nodeOffset} + kNodeHeadBytes + std::uint64_t{kBoxSpecs[box].recordLen} * next;
    const std::string where = fmt::format("box {}, slot {}", box, next);
    if (node.recordCount < node.recordMax) {
        if (word_at(snapshot.slot(box, next), 0) == kMarkers[box]) {
            verdict.notes.push_back({where, next_offset,
                                     "holds a record that is not counted: its writer died before counting it, or the "
                                     "box was emptied because its head was damaged"});
        }
    } else if (oldest_may_be_torn(snapshot, box)) {
        verdict.notes.push_back({where, next_offset,
                                 "the oldest record is later than the newest: a writer that was replacing it may have "
                                 "died, and it may be a mixture of both"});
    }
}

}  // namespace

bool oldest_may_be_torn(const BoxSnapshot& snapshot, std::uint32_t box) {
    const auto records = snapshot.newest_first(box);
    if (records.size() < 2 || records.size() < snapshot.node_head(box).recordMax) return false;
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
    }
    return verdict;
}

}  // namespace kova::kovactl
