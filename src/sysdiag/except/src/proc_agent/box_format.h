// The format of the black box file, without I/O: layout, heads, checksum, checks, slot arithmetic.
//
// The agent's operations, kovactl, the host and the fuzzers use it. A node head read from a file is hostile input even
// when its checksum is right: the capacity may be 0 or huge, the next slot equal to it. Nothing here overflows, divides
// by zero or points outside the box's own area, whatever a head says.
//
// Signal context: safe.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "kova/black_box.h"

namespace kova {

// Heads are read from and written to the file as they lie in memory.
static_assert(std::endian::native == std::endian::little);

using BoxSpec = KovaBoxSpec;
using FileHead = KovaBoxHead;
using NodeHead = KovaBoxNodeHead;

inline constexpr std::uint32_t kBoxMagic = KOVA_BOX_MAGIC;
inline constexpr std::uint32_t kBoxCount = KOVA_BOX_COUNT;
inline constexpr std::uint32_t kBoxFileBytes = KOVA_BOX_FILE_BYTES;
inline constexpr std::uint32_t kNodeHeadBytes = sizeof(NodeHead);

inline constexpr BoxSpec kBoxSpecs[kBoxCount] = {
    {.nodeOffset = 36, .recordMax = 20, .recordLen = 9968},
    {.nodeOffset = 199428, .recordMax = 100, .recordLen = 1904},
};

// First byte after the slots that the layout gives a box.
[[nodiscard]] constexpr std::uint64_t box_end(const BoxSpec& spec) {
    return std::uint64_t{spec.nodeOffset} + kNodeHeadBytes + std::uint64_t{spec.recordMax} * spec.recordLen;
}

static_assert(kBoxSpecs[0].nodeOffset == sizeof(FileHead));
static_assert(box_end(kBoxSpecs[0]) == kBoxSpecs[1].nodeOffset);
static_assert(box_end(kBoxSpecs[1]) == kBoxFileBytes);

// What a file head says of the system that wrote it.
struct BoxIdentity {
    std::uint32_t os_version = 1;
    std::uint32_t cpu_type = 1;
    std::uint32_t box_len = 0;
};

// Complement of the folded sum of little-endian 16-bit words; an odd last byte counts as the upper half of its word.
[[nodiscard]] std::uint32_t box_checksum(const void* data, std::uint32_t length);
[[nodiscard]] std::uint16_t head_checksum(const FileHead& head);
[[nodiscard]] std::uint16_t head_checksum(const NodeHead& node);

// A valid file head with `reserved` in its reserved word, and the node head of an empty box.
[[nodiscard]] FileHead make_file_head(const BoxSpec (&specs)[kBoxCount], const BoxIdentity& identity,
                                      std::uint16_t reserved);
[[nodiscard]] NodeHead make_node_head(const BoxSpec& spec);

// The first thing wrong with a head, in the order in which the fields are looked at.
enum class FileHeadFault {
    kNone,
    kMagic,
    kOsVersion0,
    kOsVersion1,
    kCpuType,
    kBoxLen,
    kBoxNum,
    kNodeOffset0,
    kNodeOffset1,
    kCheckSum,
};
[[nodiscard]] FileHeadFault check_file_head(const FileHead& head, const BoxSpec (&specs)[kBoxCount],
                                            const BoxIdentity& identity);

// The capacity is not compared with the layout: a head that passes is used with its own.
enum class NodeHeadFault { kNone, kMagic, kCounts, kRecordLen, kCheckSum };
[[nodiscard]] NodeHeadFault check_node_head(const NodeHead& node, const BoxSpec& spec);

// File offset of a record slot. None when the slot is not below the head's capacity, or not wholly inside the area that
// the layout gives the box. node_offset is where the node head stands.
[[nodiscard]] std::optional<std::uint32_t> slot_offset(std::uint32_t node_offset, const NodeHead& node,
                                                       const BoxSpec& spec, std::uint32_t slot);

// Slot that the next append fills. A next slot at or beyond the capacity, which the checks let through, goes round to
// 0 instead of refusing every append.
[[nodiscard]] std::uint32_t next_slot(const NodeHead& node);

// Moves on after a record was stored in `next_slot`: next slot, count, checksum.
void advance(NodeHead& node);

struct SlotRange {
    std::uint32_t start;
    std::uint32_t count;
};

// Newest record after `skip` newer ones, and how many of the wanted there are. None when a box that is not full holds
// no more than `skip`. Meaningful only for a box that holds more records than `skip`; otherwise the count is 0 and the
// start arbitrary.
[[nodiscard]] std::optional<SlotRange> newest_first_range(const NodeHead& node, std::uint32_t skip,
                                                          std::uint32_t wanted);

// Slot of the index-th record of a newest-first range. May be any number for a hostile head: slot_offset decides.
[[nodiscard]] std::uint32_t newest_first_slot(const NodeHead& node, const SlotRange& range, std::uint32_t index);

// Slots from `first` on that hold records, and at most the wanted number of them.
[[nodiscard]] SlotRange slot_order_range(const NodeHead& node, std::uint32_t first, std::uint32_t wanted);

// Slot of the index-th record of a slot-order range. A capacity of 0 gives 0.
[[nodiscard]] std::uint32_t slot_order_slot(const NodeHead& node, const SlotRange& range, std::uint32_t index);

}  // namespace kova
