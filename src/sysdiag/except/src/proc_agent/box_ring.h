// Changing the rings of the black box.
//
// A ring is a node head (capacity, next slot, count, checksum) and its record slots. The head is written after the
// record: a process killed between the two leaves a filled slot that is not counted, and the next append reuses it. In
// a full box that slot is the oldest record's, which is then the new one or, after a write cut short, a mixture of
// both.
//
// Signal context: safe; nothing allocates.
#pragma once

#include <cstdint>

#include "base/result.h"
#include "base/signal_scope.h"

namespace kova {

// KOVA_BoxWrite and KOVA_BoxRefresh.
[[nodiscard]] Code append_to_box(std::uint32_t box_id, const void* data, std::uint32_t length, std::uint32_t* slot);
[[nodiscard]] Code rewrite_in_box(std::uint32_t box_id, const void* data, std::uint32_t length, std::uint32_t slot);

// Changes one record under a single hold of the file's locks: reads a counted slot into `room`, which has the size of a
// record, and writes back what `change` makes of it there. kFailed, with nothing written, when no record is counted in
// that slot, something fails, or `change` answers false.
using ChangeRecord = bool (*)(void* record, void* context);
[[nodiscard]] Code change_in_box(std::uint32_t box_id, std::uint32_t slot, void* room, ChangeRecord change,
                                 void* context, const CallingThread& thread = calling_thread());

}  // namespace kova
