// Can the bytes of a slot be a record that its writer finished? What a torn write or a flipped bit leaves behind shows
// in texts and lengths: a record is made in zeroed memory and stored by one write.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <span>
#include <string>
#include <vector>

#include "except/src/proc_agent/box_format.h"
#include "kova/assert_record.h"
#include "kova/exception_record.h"

namespace kova::kovactl {

using SlotBytes = std::span<const std::uint8_t>;

// The first word of the records of each box.
inline constexpr std::uint32_t kMarkers[kBoxCount] = {KOVA_EXCEPT_MARKER, KOVA_ASSERT_MARKER};

[[nodiscard]] bool is_zero(std::span<const std::uint8_t> bytes);

[[nodiscard]] std::uint32_t marker_of(SlotBytes slot);
[[nodiscard]] bool holds_record(std::uint32_t box, SlotBytes slot);

// Both boxes have it at the same place. Not trusted: any field may be any number.
[[nodiscard]] struct tm time_of(SlotBytes slot);

// Year, month, ... second, to be compared.
using TimeKey = std::array<std::int32_t, 6>;
[[nodiscard]] TimeKey time_key(SlotBytes slot);

struct RecordFault {
    std::size_t at;  // byte in the record
    std::string what;
};

// What is impossible in a record, the marker aside; in the order of the bytes.
[[nodiscard]] std::vector<RecordFault> record_faults(std::uint32_t box, SlotBytes slot);

}  // namespace kova::kovactl
