// The asserts that this process stored last, and their items in box 1 of the black box.
//
// The table is the platform's; an entry is trusted only after its item was read back. An item is changed under one hold
// of the file's locks in which it was found to be the entry's: between two holds another process may have gone round
// the ring and put its own record into the slot.
//
// Locks: g_assert_lock guards the table. It is taken before the locks of the black box, is held from look-up to entry,
// and may be taken again by its holder.
// Signal context: not safe (reads allocate).
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>

#include "base/process_lock.h"
#include "base/result.h"
#include "base/thread_annotations.h"
#include "kova/assert_record.h"

namespace kova {

extern ProcessLock g_assert_lock;

[[nodiscard]] bool is_same_assert(const KovaAssertItem& left, const KovaAssertItem& right);

// An entry whose item was found, and the occurrences with the present one.
struct KnownAssert {
    std::uint32_t entry;
    std::uint32_t slot;
    std::uint32_t count;
};

// Finds the item's assert and counts it in the table. An entry whose item is not in its slot any more is cleared.
[[nodiscard]] std::optional<KnownAssert> look_up_assert_locked(const KovaAssertItem& item) KOVA_REQUIRES(g_assert_lock);

// Gives the stored item a new time and one occurrence more. Does nothing when the slot no longer holds it.
void count_repeat_locked(const KnownAssert& known, const KovaAssertItem& item, const struct tm& time)
    KOVA_REQUIRES(g_assert_lock);

// Puts `item` into the slot instead of the stored one. Does nothing when the slot no longer holds that.
void replace_item_locked(const KnownAssert& known, const KovaAssertItem& item) KOVA_REQUIRES(g_assert_lock);

// KOVA_SaveAssertInfo.
Code enter_assert_locked(const KovaAssertItem& item, std::uint32_t slot) KOVA_REQUIRES(g_assert_lock);

}  // namespace kova
