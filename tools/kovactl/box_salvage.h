// Whatever records a black box file still holds, counted or not: every slot is looked at where the layout has it, and
// no head is believed.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "box_snapshot.h"
#include "record_check.h"

namespace kova::kovactl {

struct SalvagedRecord {
    std::uint32_t slot;
    std::uint64_t offset;  // in the file, bytes
    bool is_counted;       // listed by the box's head; else recovered
    bool may_be_torn;      // its contents are impossible, or it is an oldest record that is later than the newest
    std::vector<RecordFault> faults;
};

// Newest first by their time; those whose time is none come last. Of records of the same second those not counted come
// first, since a record is stored before it is counted.
[[nodiscard]] std::vector<SalvagedRecord> salvage(const BoxSnapshot& snapshot, std::uint32_t box);

// "counted", "recovered", and ", torn?" behind it.
[[nodiscard]] std::string state_text(const SalvagedRecord& record);

}  // namespace kova::kovactl
