// The asserts that this process stored last; see assert_table.h.
#include "except/src/proc_agent/assert_table.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "except/src/proc_agent/box_ring.h"
#include "kova/assert.h"
#include "kova/black_box.h"
#include "kova_platform/bounded_string.h"
#include "kova_platform/process_globals.h"

namespace kova {

constinit ProcessLock g_assert_lock;

namespace {

// Whose item an entry stands for, which the table has no room for. Several processes of a node raise the same asserts:
// when the ring has gone round, another's item of the same file and line may lie in the very slot. And a forked child
// inherits a table of its parent's items.
struct Origin {
    std::uint32_t saver = 0;       // process that made the entry; 0: nothing is known
    std::uint32_t process_id = 0;  // as the stored item has it
    std::uint32_t line = 0;        // of the entry, which others may have changed since
    std::uint32_t slot = 0;
};
constinit Origin g_origins[KOVA_ASSERT_TABLE_SIZE] KOVA_GUARDED_BY(g_assert_lock) = {};

// The names are the platform's or a file's: not necessarily terminated.
bool is_same_name(const char (&left)[KOVA_ASSERT_FILE_NAME_SIZE], const char (&right)[KOVA_ASSERT_FILE_NAME_SIZE]) {
    return std::strncmp(left, right, sizeof left) == 0;
}

bool is_free(const KovaAssertTableEntry& entry) {
    return entry.fileName[0] == '\0' && entry.line == 0 && entry.slot == 0 && entry.occurrenceCount == 0;
}

bool is_entry_of(const KovaAssertTableEntry& entry, const KovaAssertItem& item) {
    return entry.line == item.line && is_same_name(entry.fileName, item.fileName) && !is_free(entry);
}

bool is_own_item(const KovaAssertTableEntry& entry, const Origin& origin, const KovaAssertItem& stored,
                 const CallingThread& thread) {
    if (origin.saver == 0 || origin.line != entry.line || origin.slot != entry.slot) return true;
    return origin.saver == key_pid(thread.key) && origin.process_id == stored.processId;
}

// Reads the record in a slot of box 1; when it is the one that `is_wanted` looks for, lets `change` alter it and
// answers true. It is written back if `change` answers true; whether that succeeded is not told.
template <typename IsWanted, typename Change>
bool change_if_wanted(std::uint32_t slot, const CallingThread& thread, IsWanted is_wanted, Change change) {
    struct Context {
        IsWanted& is_wanted;
        Change& change;
        bool is_found = false;
    } context{is_wanted, change};
    KovaAssertItem room;
    // What failed later than the look at the record is what is not told.
    static_cast<void>(change_in_box(
        KOVA_BOX_ASSERT, slot, &room,
        [](void* record, void* argument) {
            auto& stored = *static_cast<KovaAssertItem*>(record);
            auto& asked = *static_cast<Context*>(argument);
            asked.is_found = asked.is_wanted(stored);
            return asked.is_found && asked.change(stored);
        },
        &context, thread));
    return context.is_found;
}

enum class Whose { kOwn, kAnyones };

// The entry of a known assert, counted; null when it is not known. `change` gets the stored item, which is of the
// processes asked for, and the occurrences with the present one.
template <typename Change>
KovaAssertTableEntry* change_if_known_locked(const KovaAssertItem& item, const CallingThread& thread, Whose whose,
                                             Change change) KOVA_REQUIRES(g_assert_lock) {
    KovaAssertTableEntry* const entry = std::find_if(std::begin(g_assertItem), std::end(g_assertItem),
                                                     [&](const auto& each) { return is_entry_of(each, item); });
    if (entry == std::end(g_assertItem)) return nullptr;
    Origin* const origin = &g_origins[entry - g_assertItem];
    const bool is_known = change_if_wanted(
        entry->slot, thread,
        [&](const KovaAssertItem& stored) {
            return is_same_assert(item, stored) &&
                   (whose == Whose::kAnyones || is_own_item(*entry, *origin, stored, thread));
        },
        [&](KovaAssertItem& stored) { return change(stored, ++entry->occurrenceCount); });
    if (is_known) return entry;
    *entry = {};
    *origin = {};
    return nullptr;
}

}  // namespace

bool is_same_assert(const KovaAssertItem& left, const KovaAssertItem& right) {
    return left.line == right.line && is_same_name(left.fileName, right.fileName);
}

bool count_if_known_locked(const KovaAssertItem& item, const struct tm& time, const CallingThread& thread) {
    return change_if_known_locked(item, thread, Whose::kOwn, [&](KovaAssertItem& stored, std::uint32_t) {
               stored.time = time;
               ++stored.occurrenceCount;
               return true;
           }) != nullptr;
}

bool replace_if_known_locked(KovaAssertItem& item, const CallingThread& thread) {
    const KovaAssertTableEntry* const entry =
        change_if_known_locked(item, thread, Whose::kOwn, [&](KovaAssertItem& stored, std::uint32_t count) {
            item.occurrenceCount = count;
            stored = item;
            return true;
        });
    if (entry == nullptr) return false;
    g_origins[entry - g_assertItem].process_id = item.processId;
    return true;
}

Code enter_assert_locked(const KovaAssertItem& item, std::uint32_t slot, const CallingThread& thread) {
    // Read once: the platform's, and not necessarily below the size of its table.
    std::uint32_t index = g_assertCurIndex;
    if (index >= KOVA_ASSERT_TABLE_SIZE) {
        index = 0;
        g_assertCurIndex = 0;
    }
    KovaAssertTableEntry& entry = g_assertItem[index];
    entry.line = item.line;
    const int copied = strcpy_s(entry.fileName, sizeof entry.fileName, item.fileName);
    entry.slot = slot;
    entry.occurrenceCount = item.occurrenceCount;
    g_origins[index] = {.saver = key_pid(thread.key), .process_id = item.processId, .line = item.line, .slot = slot};
    g_assertCurIndex = (index + 1) % KOVA_ASSERT_TABLE_SIZE;
    return static_cast<Code>(copied);
}

}  // namespace kova

using namespace kova;

uint32_t KOVA_AssertExist(const KovaAssertItem* item, uint32_t* slot, uint32_t* count) {
    if (item == nullptr) return 0;
    const ScopedProcessLock lock(g_assert_lock, box_wait_budget());
    const auto leave = [](const KovaAssertItem&, std::uint32_t) { return false; };
    const KovaAssertTableEntry* const entry = change_if_known_locked(*item, lock.holder(), Whose::kAnyones, leave);
    if (entry == nullptr) return 0;
    if (slot != nullptr) *slot = entry->slot;
    if (count != nullptr) *count = entry->occurrenceCount;
    return 1;
}

uint32_t KOVA_AssertExistInBox(const KovaAssertItem* item, uint32_t slot) {
    if (item == nullptr) return 0;
    const auto is_wanted = [item](const KovaAssertItem& stored) { return is_same_assert(*item, stored); };
    return change_if_wanted(slot, calling_thread(), is_wanted, [](const KovaAssertItem&) { return false; }) ? 1 : 0;
}

uint32_t KOVA_SaveAssertInfo(const KovaAssertItem* item, uint32_t slot) {
    if (item == nullptr) return kFailed;
    const ScopedProcessLock lock(g_assert_lock, box_wait_budget());
    return enter_assert_locked(*item, slot, lock.holder());
}
