// Whatever records a black box file still holds; see box_salvage.h.
#include "box_salvage.h"

#include <algorithm>

#include "box_verify.h"
#include "record_text.h"

namespace kova::kovactl {
namespace {

SalvagedRecord salvaged(const BoxSnapshot& snapshot, std::uint32_t box, std::uint32_t slot, bool is_counted) {
    SalvagedRecord record{.slot = slot,
                          .offset = slot_place(box, slot),
                          .is_counted = is_counted,
                          .may_be_torn = false,
                          .faults = record_faults(box, snapshot.slot(box, slot))};
    record.may_be_torn = !record.faults.empty();
    return record;
}

}  // namespace

std::vector<SalvagedRecord> salvage(const BoxSnapshot& snapshot, std::uint32_t box) {
    std::vector<SalvagedRecord> records;
    for (const std::uint32_t slot : snapshot.uncounted(box)) records.push_back(salvaged(snapshot, box, slot, false));
    const auto counted = snapshot.newest_first(box);
    for (const StoredRecord& stored : counted) {
        if (!holds_record(box, snapshot.slot(box, stored.slot))) continue;
        records.push_back(salvaged(snapshot, box, stored.slot, true));
        if (stored.slot == counted.back().slot && oldest_may_be_torn(snapshot, box)) records.back().may_be_torn = true;
    }
    const auto has_time = [&](const SalvagedRecord& record) {
        return format_time(time_of(snapshot.slot(box, record.slot)), ' ').has_value();
    };
    const auto timeless = std::stable_partition(records.begin(), records.end(), has_time);
    std::stable_sort(records.begin(), timeless, [&](const SalvagedRecord& left, const SalvagedRecord& right) {
        return time_key(snapshot.slot(box, left.slot)) > time_key(snapshot.slot(box, right.slot));
    });
    return records;
}

std::string state_text(const SalvagedRecord& record) {
    std::string text = record.is_counted ? "counted" : "recovered";
    if (record.may_be_torn) text += ", torn?";
    return text;
}

}  // namespace kova::kovactl
