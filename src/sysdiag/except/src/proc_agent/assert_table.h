// The asserts that this process stored last, and their items in box 1 of the black box.
//
// The table is the platform's; an entry is trusted only when its item was read back. An item is read, found to be the
// entry's and changed under one hold of the file's locks: between two holds another process may go round the ring and
// put its own record into the slot. It is half the system calls as well.
//
// Locks: g_assert_lock guards the table. It is taken before the locks of the black box, is held from look-up to entry,
// and may be taken again by its holder.
// Signal context: not safe (asserts allocate and log).
#pragma once

#include <cstdint>
#include <ctime>

#include "base/process_lock.h"
#include "base/result.h"
#include "base/thread_annotations.h"
#include "kova/assert_record.h"

namespace kova {

extern ProcessLock g_assert_lock;

[[nodiscard]] bool is_same_assert(const KovaAssertItem& left, const KovaAssertItem& right);

// Both answer whether the assert is known: it has an entry, and the entry's item is in its slot. Then it was counted in
// the table, and the stored item changed, as far as it can be written. An entry without its item is cleared. `thread`
// is the holder of g_assert_lock.
//
// The first gives the stored item a new time and one occurrence more; the second puts `item` in its place, with one
// occurrence more than the table had, which `item` receives too.
[[nodiscard]] bool count_if_known_locked(const KovaAssertItem& item, const struct tm& time, const CallingThread& thread)
    KOVA_REQUIRES(g_assert_lock);
[[nodiscard]] bool replace_if_known_locked(KovaAssertItem& item, const CallingThread& thread)
    KOVA_REQUIRES(g_assert_lock);

// KOVA_SaveAssertInfo.
Code enter_assert_locked(const KovaAssertItem& item, std::uint32_t slot, const CallingThread& thread)
    KOVA_REQUIRES(g_assert_lock);

}  // namespace kova
