// What kovactl says of the shared region, as text for people and as JSON for programs.
#pragma once

#include <cstddef>
#include <string>

#include "record_json.h"
#include "region_snapshot.h"

namespace kova::kovactl {

// With at most `history` samples of each history.
[[nodiscard]] std::string region_text(const RegionSnapshot& snapshot, std::size_t history);
[[nodiscard]] Json region_json(const RegionSnapshot& snapshot);

}  // namespace kova::kovactl
