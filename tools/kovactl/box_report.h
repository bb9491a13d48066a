// What kovactl says of a black box file, as text for people and as JSON for programs. Every byte of the file is
// hostile; what comes out is printable ASCII.
#pragma once

#include <cstdint>
#include <string>

#include "box_snapshot.h"
#include "box_verify.h"
#include "record_json.h"

namespace kova::kovactl {

// "box 0, slot 3, byte 29972: ..."
[[nodiscard]] std::string finding_text(const Finding& finding);

// The counted records of a box.
[[nodiscard]] std::string list_text(const BoxSnapshot& snapshot, std::uint32_t box);
[[nodiscard]] Json list_json(const BoxSnapshot& snapshot, std::uint32_t box);

// One of them.
[[nodiscard]] std::string record_report_text(const BoxSnapshot& snapshot, std::uint32_t box,
                                             const StoredRecord& stored);
[[nodiscard]] Json record_report_json(const BoxSnapshot& snapshot, std::uint32_t box, const StoredRecord& stored);

// What a slot of a box holds, counted or not; the JSON is an entry of salvage_json, null for a slot without a record.
[[nodiscard]] std::string slot_report_text(const BoxSnapshot& snapshot, std::uint32_t box, std::uint32_t slot);
[[nodiscard]] Json slot_report_json(const BoxSnapshot& snapshot, std::uint32_t box, std::uint32_t slot);

[[nodiscard]] std::string verify_text(const BoxSnapshot& snapshot, const Verdict& verdict);
[[nodiscard]] Json verify_json(const BoxSnapshot& snapshot, const Verdict& verdict);

// Both boxes. JSON has the records whole.
[[nodiscard]] std::string salvage_text(const BoxSnapshot& snapshot);
[[nodiscard]] Json salvage_json(const BoxSnapshot& snapshot);

}  // namespace kova::kovactl
