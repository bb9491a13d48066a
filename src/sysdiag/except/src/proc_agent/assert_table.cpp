// The asserts that this process stored last; see assert_table.h.
#include "except/src/proc_agent/assert_table.h"

#include <unistd.h>
#include <algorithm>
#include <cstring>
#include <iterator>

#include "except/src/proc_agent/box_ring.h"
#include "kova/assert.h"
#include "kova/black_box.h"
#include "kova/memory.h"
#include "kova_platform/bounded_string.h"
#include "kova_platform/process_globals.h"

namespace kova {

constinit ProcessLock g_assert_lock;

namespace {

// Whose item an entry stands for, which the table has no room for. Several processes of a node raise the same asserts:
// when the ring has gone round, another's item of the same file and line may lie in the very slot. And a forked child
// inherits a table of its parent's items.
struct Origin {
    pid_t saver = 0;               // process that made the entry; 0: nothing is known
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

bool is_own_item(std::uint32_t entry, const KovaAssertItem& stored) KOVA_REQUIRES(g_assert_lock) {
    const Origin& origin = g_origins[entry];
    if (origin.saver == 0 || origin.line != g_assertItem[entry].line || origin.slot != g_assertItem[entry].slot) {
        return true;
    }
    return origin.saver == ::getpid() && origin.process_id == stored.processId;
}

// The item in a slot of box 1, read into a block that is made for it.
class StoredItem {
  public:
    explicit StoredItem(std::uint32_t slot) : handle_(g_kovaAgentMemHandle) {
        std::uint32_t count = 1;
        const Code rc = KOVA_BoxReadFromBegin(KOVA_BOX_ASSERT, slot, &count, &block_, handle_);
        is_read_ = rc == kOk && block_ != nullptr && count == 1;
    }
    ~StoredItem() { KovaBaseFree(handle_, block_, "kova_assert", __LINE__); }
    StoredItem(const StoredItem&) = delete;
    StoredItem& operator=(const StoredItem&) = delete;

    [[nodiscard]] bool is_of(const KovaAssertItem& item) const { return is_read_ && is_same_assert(item, get()); }
    [[nodiscard]] const KovaAssertItem& get() const { return *static_cast<const KovaAssertItem*>(block_); }

  private:
    const std::uint32_t handle_;
    void* block_ = nullptr;
    bool is_read_ = false;
};

// Lets `change` alter the stored item if it still is the known one. False when it is not, or cannot be written.
template <typename Change>
bool change_stored_locked(const KnownAssert& known, const KovaAssertItem& item, Change change)
    KOVA_REQUIRES(g_assert_lock) {
    struct Context {
        const KovaAssertItem& item;
        std::uint32_t entry;
        Change& change;
    } context{item, known.entry, change};
    const auto change_if_known = [](void* record, void* argument) KOVA_REQUIRES(g_assert_lock) {
        const auto& wanted = *static_cast<const Context*>(argument);
        auto& stored = *static_cast<KovaAssertItem*>(record);
        if (!is_same_assert(wanted.item, stored) || !is_own_item(wanted.entry, stored)) return false;
        wanted.change(stored);
        return true;
    };
    KovaAssertItem room;
    return change_in_box(KOVA_BOX_ASSERT, known.slot, &room, change_if_known, &context) == kOk;
}

}  // namespace

bool is_same_assert(const KovaAssertItem& left, const KovaAssertItem& right) {
    return left.line == right.line && is_same_name(left.fileName, right.fileName);
}

std::optional<KnownAssert> look_up_assert_locked(const KovaAssertItem& item) {
    KovaAssertTableEntry* const entry = std::find_if(std::begin(g_assertItem), std::end(g_assertItem),
                                                     [&](const auto& each) { return is_entry_of(each, item); });
    if (entry == std::end(g_assertItem)) return std::nullopt;
    const auto index = static_cast<std::uint32_t>(entry - g_assertItem);
    const StoredItem stored(entry->slot);
    if (stored.is_of(item) && is_own_item(index, stored.get())) {
        ++entry->occurrenceCount;
        return KnownAssert{.entry = index, .slot = entry->slot, .count = entry->occurrenceCount};
    }
    *entry = {};
    g_origins[index] = {};
    return std::nullopt;
}

void count_repeat_locked(const KnownAssert& known, const KovaAssertItem& item, const struct tm& time) {
    // An item that went away just now is found out by the next look-up.
    static_cast<void>(change_stored_locked(known, item, [&](KovaAssertItem& stored) {
        stored.time = time;
        ++stored.occurrenceCount;
    }));
}

void replace_item_locked(const KnownAssert& known, const KovaAssertItem& item) {
    if (change_stored_locked(known, item, [&](KovaAssertItem& stored) { stored = item; })) {
        g_origins[known.entry].process_id = item.processId;
    }
}

Code enter_assert_locked(const KovaAssertItem& item, std::uint32_t slot) {
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
    g_origins[index] = {.saver = ::getpid(), .process_id = item.processId, .line = item.line, .slot = slot};
    g_assertCurIndex = (index + 1) % KOVA_ASSERT_TABLE_SIZE;
    return static_cast<Code>(copied);
}

}  // namespace kova

using namespace kova;

uint32_t KOVA_AssertExist(const KovaAssertItem* item, uint32_t* slot, uint32_t* count) {
    if (item == nullptr) return 0;
    const ScopedProcessLock lock(g_assert_lock, box_wait_budget());
    const auto known = look_up_assert_locked(*item);
    if (!known.has_value()) return 0;
    if (slot != nullptr) *slot = known->slot;
    if (count != nullptr) *count = known->count;
    return 1;
}

uint32_t KOVA_AssertExistInBox(const KovaAssertItem* item, uint32_t slot) {
    return item != nullptr && StoredItem(slot).is_of(*item) ? 1 : 0;
}

uint32_t KOVA_SaveAssertInfo(const KovaAssertItem* item, uint32_t slot) {
    if (item == nullptr) return kFailed;
    const ScopedProcessLock lock(g_assert_lock, box_wait_budget());
    return enter_assert_locked(*item, slot);
}
