// Exception records as JSON for programs. The names are stable; more may come.
//
// Addresses and registers are texts in hexadecimal, since a JSON number does not hold 64 bits everywhere. Texts of the
// record are escaped as in record_text.h.
#pragma once

#include <nlohmann/json.hpp>

#include "kova/exception_record.h"

namespace kova::kovactl {

using Json = nlohmann::ordered_json;

// "2025-03-04T05:06:07Z", or null for what is no time.
[[nodiscard]] Json time_json(const struct tm& time);

// Time, signal, process, thread, sender.
[[nodiscard]] Json summary_json(const KovaExceptInfo& record);

// The summary and everything else that a record holds.
[[nodiscard]] Json record_json(const KovaExceptInfo& record);

}  // namespace kova::kovactl
