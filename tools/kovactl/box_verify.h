// Is a black box file sound? Recomputes every checksum and holds every invariant against what stands in the file.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "box_snapshot.h"

namespace kova::kovactl {

struct Finding {
    std::string where;     // "box 0, node head"
    std::uint64_t offset;  // in the file, bytes
    std::string what;
};

struct Verdict {
    std::vector<Finding> faults;
    // What happens to sound files too: a writer died between record and head, a clock went back.
    std::vector<Finding> notes;
};

[[nodiscard]] Verdict verify(const BoxSnapshot& snapshot);

// The part of verify() that concerns the heads of the file and of one box: what a reader of that box must know.
[[nodiscard]] Verdict verify_heads(const BoxSnapshot& snapshot, std::uint32_t box);

// "0, 3, 5 to 7" of slots that go up.
[[nodiscard]] std::string slots_text(std::span<const std::uint32_t> slots);

// The oldest record of a full box carries a later time than the newest: a writer that was replacing it died before the
// record was counted, so it is the new one or a mixture of both. Or a clock went back.
[[nodiscard]] bool oldest_may_be_torn(const BoxSnapshot& snapshot, std::uint32_t box);

}  // namespace kova::kovactl
