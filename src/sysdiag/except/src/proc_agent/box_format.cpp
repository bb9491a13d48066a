// The format of the black box file; see box_format.h.
//
// Signal context: all of it.
#include "except/src/proc_agent/box_format.h"

#include <algorithm>

#include "base/signal_path.h"

namespace kova {

std::uint32_t box_checksum(const void* data, std::uint32_t length) {
    if (data == nullptr) length = 0;
    const auto* byte = static_cast<const std::uint8_t*>(data);
    std::uint32_t sum = 0;
    for (; length > 1; length -= 2, byte += 2) sum += byte[0] | (std::uint32_t{byte[1]} << 8);
    if (length == 1) sum += std::uint32_t{byte[0]} << 8;
    sum = (sum >> 16) + (sum & 0xFFFF);
    sum += sum >> 16;
    return ~sum & 0xFFFF;
}

std::uint16_t head_checksum(const FileHead& head) {
    return static_cast<std::uint16_t>(box_checksum(&head, offsetof(FileHead, checkSum)));
}

std::uint16_t head_checksum(const NodeHead& node) {
    return static_cast<std::uint16_t>(box_checksum(&node, offsetof(NodeHead, checkSum)));
}

FileHead make_file_head(const BoxSpec (&specs)[kBoxCount], const BoxIdentity& identity, std::uint16_t reserved) {
    FileHead head{
        .magic = kBoxMagic,
        .osVersion = {identity.os_version, identity.os_version},
        .cpuType = identity.cpu_type,
        .boxLen = identity.box_len,
        .boxNum = kBoxCount,
        .nodeOffset = {specs[0].nodeOffset, specs[1].nodeOffset},
        .reserved = reserved,
        .checkSum = 0,
    };
    head.checkSum = head_checksum(head);
    return head;
}

NodeHead make_node_head(const BoxSpec& spec) {
    NodeHead node{
        .magic = kBoxMagic,
        .recordMax = spec.recordMax,
        .writeIndex = 0,
        .recordCount = 0,
        .reserved16 = 0xFFFFFFFF,
        .reserved20 = 0,
        .recordLen = spec.recordLen,
        .reserved28 = 0,
        .checkSum = 0,
    };
    node.checkSum = head_checksum(node);
    return node;
}

FileHeadFault check_file_head(const FileHead& head, const BoxSpec (&specs)[kBoxCount], const BoxIdentity& identity) {
    if (head.magic != kBoxMagic) return FileHeadFault::kMagic;
    if (head.osVersion[0] != identity.os_version) return FileHeadFault::kOsVersion0;
    if (head.osVersion[1] != identity.os_version) return FileHeadFault::kOsVersion1;
    if (head.cpuType != identity.cpu_type) return FileHeadFault::kCpuType;
    if (head.boxLen != identity.box_len) return FileHeadFault::kBoxLen;
    if (head.boxNum != kBoxCount) return FileHeadFault::kBoxNum;
    if (head.nodeOffset[0] != specs[0].nodeOffset) return FileHeadFault::kNodeOffset0;
    if (head.nodeOffset[1] != specs[1].nodeOffset) return FileHeadFault::kNodeOffset1;
    if (head.checkSum != head_checksum(head)) return FileHeadFault::kCheckSum;
    return FileHeadFault::kNone;
}

NodeHeadFault check_node_head(const NodeHead& node, const BoxSpec& spec) {
    if (node.magic != kBoxMagic) return NodeHeadFault::kMagic;
    if (node.recordCount < node.writeIndex || node.recordCount > node.recordMax) return NodeHeadFault::kCounts;
    if (node.recordLen != spec.recordLen) return NodeHeadFault::kRecordLen;
    if (node.checkSum != head_checksum(node)) return NodeHeadFault::kCheckSum;
    return NodeHeadFault::kNone;
}

std::optional<std::uint32_t> slot_offset(std::uint32_t node_offset, const NodeHead& node, const BoxSpec& spec,
                                         std::uint32_t slot) {
    if (slot >= node.recordMax) return std::nullopt;
    const std::uint64_t begin = std::uint64_t{node_offset} + kNodeHeadBytes + std::uint64_t{node.recordLen} * slot;
    const std::uint64_t end = begin + node.recordLen;
    if (begin < std::uint64_t{spec.nodeOffset} + kNodeHeadBytes || end > box_end(spec)) return std::nullopt;
    return static_cast<std::uint32_t>(begin);
}

std::uint32_t next_slot(const NodeHead& node) {
    return node.writeIndex < node.recordMax ? node.writeIndex : 0;
}

void advance(NodeHead& node) {
    const std::uint64_t next = std::uint64_t{node.writeIndex} + 1;
    node.writeIndex = next >= node.recordMax ? 0 : static_cast<std::uint32_t>(next);
    if (node.recordCount < node.recordMax) ++node.recordCount;
    node.checkSum = head_checksum(node);
}

std::optional<SlotRange> newest_first_range(const NodeHead& node, std::uint32_t skip, std::uint32_t wanted) {
    const std::uint32_t newest =
        node.writeIndex - 1;  // wraps for next slot 0; so does the start, until it is put right
    SlotRange range{.start = newest - skip, .count = 0};
    if (node.recordCount < node.recordMax) {
        if (newest < skip) return std::nullopt;
        range.count = node.writeIndex > skip ? node.writeIndex - skip : 0;
    } else {
        if (std::uint64_t{skip} + 1 > node.writeIndex) range.start += node.recordMax;
        range.count = node.recordMax > skip ? node.recordMax - skip : 0;
    }
    range.count = std::min(range.count, wanted);
    return range;
}

std::uint32_t newest_first_slot(const NodeHead& node, const SlotRange& range, std::uint32_t index) {
    const std::uint32_t slot = range.start - index;
    return index > range.start ? slot + node.recordMax : slot;
}

SlotRange slot_order_range(const NodeHead& node, std::uint32_t first, std::uint32_t wanted) {
    const std::uint32_t end = node.recordCount < node.recordMax ? node.writeIndex : node.recordMax;
    return {.start = first, .count = std::min(end > first ? end - first : 0, wanted)};
}

std::uint32_t slot_order_slot(const NodeHead& node, const SlotRange& range, std::uint32_t index) {
    if (node.recordMax == 0) return 0;
    return static_cast<std::uint32_t>((std::uint64_t{range.start} + index) % node.recordMax);
}

}  // namespace kova
