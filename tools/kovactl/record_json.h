// Exception and assert records as JSON for programs. The names are stable; more may come.
//
// Addresses and registers are texts in hexadecimal, since a JSON number does not hold 64 bits everywhere. Texts of the
// record are escaped as in record_text.h.
#pragma once

#include <nlohmann/json.hpp>

#include "kova/assert_record.h"
#include "kova/exception_record.h"

namespace kova::kovactl {

using Json = nlohmann::ordered_json;

// "2025-03-04T05:06:07Z", or null for what is no time.
[[nodiscard]] Json time_json(const struct tm& time);

// Time, process, thread, and of an exception signal and sender, of an assert place, text and occurrences.
[[nodiscard]] Json summary_json(const KovaExceptInfo& record);
[[nodiscard]] Json summary_json(const KovaAssertItem& record);

// The summary and everything else that a record holds.
[[nodiscard]] Json record_json(const KovaExceptInfo& record);
[[nodiscard]] Json record_json(const KovaAssertItem& record);

}  // namespace kova::kovactl
