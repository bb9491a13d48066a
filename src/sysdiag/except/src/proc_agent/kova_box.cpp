// Turns the records of other callers into items of the black box.
//
// Locks: g_assert_lock (assert_table.h), held from the look-up of an assert to its entry in the table.
// Signal context: not safe (allocates, logs).
#include <cstddef>
#include <cstring>
#include <span>

#include "base/landing_pad.h"
#include "base/log_message.h"
#include "except/src/proc_agent/agent_block.h"
#include "except/src/proc_agent/assert_table.h"
#include "kova/black_box.h"
#include "kova/box_items.h"
#include "kova_platform/bounded_string.h"
#include "kova_platform/dead_loop.h"

namespace kova {
namespace {

constexpr char kMemoryTag[] = "src/sysdiag/except/src/proc_agent/kova_box";

// Where a field lies in the item and in the source record.
struct Field {
    std::size_t item_at;
    std::size_t source_at;
    std::size_t size;
};

#define KOVA_EXCEPT_FIELD(field) \
    { offsetof(KovaExceptInfo, field), offsetof(KovaExceptSourceRecord, field), sizeof(KovaExceptInfo::field) }
#define KOVA_ASSERT_FIELD(field) \
    { offsetof(KovaAssertItem, field), offsetof(KovaAssertSourceRecord, field), sizeof(KovaAssertItem::field) }

constexpr Field kExceptFields[] = {
    KOVA_EXCEPT_FIELD(time),
    KOVA_EXCEPT_FIELD(cpuTickHigh),
    KOVA_EXCEPT_FIELD(cpuTickLow),
    KOVA_EXCEPT_FIELD(signalNumber),
    KOVA_EXCEPT_FIELD(signalCode),
    KOVA_EXCEPT_FIELD(threadId),
    KOVA_EXCEPT_FIELD(processId),
    KOVA_EXCEPT_FIELD(senderProcessId),
    KOVA_EXCEPT_FIELD(machineContext),
    KOVA_EXCEPT_FIELD(spDumpStart),
    KOVA_EXCEPT_FIELD(spDumpLength),
    KOVA_EXCEPT_FIELD(word4656),
    KOVA_EXCEPT_FIELD(spDump),
    KOVA_EXCEPT_FIELD(pcDumpStart),
    KOVA_EXCEPT_FIELD(pcDumpLength),
    KOVA_EXCEPT_FIELD(pcDump),
    KOVA_EXCEPT_FIELD(lrDumpStart),
    KOVA_EXCEPT_FIELD(lrDumpLength),
    KOVA_EXCEPT_FIELD(lrDump),
    KOVA_EXCEPT_FIELD(fpDumpStart),
    KOVA_EXCEPT_FIELD(fpDumpLength),
    KOVA_EXCEPT_FIELD(fpDump),
    KOVA_EXCEPT_FIELD(word8296),
    KOVA_EXCEPT_FIELD(word8304),
    // One block: depth, addresses and symbols, with the word between.
    {offsetof(KovaExceptInfo, callStackDepth), offsetof(KovaExceptSourceRecord, callStack), sizeof(KovaCallStack)},
    KOVA_EXCEPT_FIELD(bytes9760),
};
constexpr Field kExceptTexts[] = {
    KOVA_EXCEPT_FIELD(signalName),        KOVA_EXCEPT_FIELD(processName),  KOVA_EXCEPT_FIELD(text136),
    KOVA_EXCEPT_FIELD(senderProcessName), KOVA_EXCEPT_FIELD(platformName), KOVA_EXCEPT_FIELD(platformVersion),
    KOVA_EXCEPT_FIELD(text9920),
};
static_assert(offsetof(KovaExceptInfo, callStackDepth) + sizeof(KovaCallStack) == offsetof(KovaExceptInfo, bytes9760));

constexpr Field kAssertFields[] = {
    KOVA_ASSERT_FIELD(time),     KOVA_ASSERT_FIELD(occurrenceCount),
    KOVA_ASSERT_FIELD(threadId), KOVA_ASSERT_FIELD(processId),
    KOVA_ASSERT_FIELD(line),     KOVA_ASSERT_FIELD(callStack),
};
constexpr Field kAssertTexts[] = {
    KOVA_ASSERT_FIELD(processName),  KOVA_ASSERT_FIELD(slotText),        KOVA_ASSERT_FIELD(fileName),
    KOVA_ASSERT_FIELD(platformName), KOVA_ASSERT_FIELD(platformVersion), KOVA_ASSERT_FIELD(withLog),
};

#undef KOVA_EXCEPT_FIELD
#undef KOVA_ASSERT_FIELD

// Sum of the results of the text copies. A text that does not fit is left empty, and the next ones are copied.
Code copy_to_item(void* item, const void* source, std::span<const Field> fields, std::span<const Field> texts) {
    auto* const to = static_cast<std::byte*>(item);
    const auto* const from = static_cast<const std::byte*>(source);
    for (const Field& field : fields) std::memcpy(to + field.item_at, from + field.source_at, field.size);
    Code sum = kOk;
    for (const Field& text : texts) {
        sum += static_cast<Code>(strcpy_s(reinterpret_cast<char*>(to + text.item_at), text.size,
                                          reinterpret_cast<const char*>(from + text.source_at)));
    }
    return sum;
}

Code store_assert(KovaAssertItem& item) {
    const ScopedProcessLock lock(g_assert_lock, box_wait_budget());
    if (replace_if_known_locked(item, lock.holder())) return kOk;
    std::uint32_t slot = 0;
    if (const Code rc = KOVA_BoxWrite(KOVA_BOX_ASSERT, &item, sizeof item, &slot); rc != kOk) return rc;
    // The name was copied from a field of the same size just now.
    static_cast<void>(enter_assert_locked(item, slot, lock.holder()));
    return kOk;
}

}  // namespace
}  // namespace kova

using namespace kova;

uint32_t KOVABoxExcInfoCopyToItem(KovaExceptInfo* item, const KovaExceptSourceRecord* source) {
    if (item == nullptr || source == nullptr) return kFailed;
    item->magic = KOVA_EXCEPT_MARKER;
    return copy_to_item(item, source, kExceptFields, kExceptTexts);
}

uint32_t KOVA_WriteExceptionBox(const KovaExceptSourceRecord* source) {
    if (source == nullptr) return kFailed;
    const AgentBlock<KovaExceptInfo> item(kMemoryTag, __LINE__);
    if (!item.is_made()) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdIdentity), "[exceptItem]mem alloc unsuccessfully.");
        return kFailed;
    }
    if (const Code rc = KOVABoxExcInfoCopyToItem(item.get(), source); rc != kOk) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral),
                      "[KOVA_WriteExceptionBox] strcpy_s exception info unsuccessful, ret= %u.", rc);
        return rc;
    }
    const Code rc = KOVA_BoxWrite(KOVA_BOX_EXCEPTION, item.get(), sizeof *item, nullptr);
    if (rc != kOk) KovaDLogWrite(KOVA_LOG_BASE(kIdIdentity), "KOVA_WriteExceptionBox unsuccessful, ret = %u.", rc);
    return rc;
}

uint32_t KOVABoxAssInfoCopyToItem(KovaAssertItem* item, const KovaAssertSourceRecord* source) {
    if (item == nullptr || source == nullptr) return kFailed;
    item->magic = KOVA_ASSERT_MARKER;
    return copy_to_item(item, source, kAssertFields, kAssertTexts);
}

uint32_t KOVA_WriteAssertBox(const KovaAssertSourceRecord* source) {
    if (source == nullptr) return kFailed;
    const AgentBlock<KovaAssertItem> item(kMemoryTag, __LINE__);
    if (!item.is_made()) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdIdentity), "[assertItem]mem alloc unsuccessfully.");
        return kFailed;
    }
    if (const Code rc = KOVABoxAssInfoCopyToItem(item.get(), source); rc != kOk) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "[KOVA_WriteAssertBox] strcpy_s assert info unsuccessful, ret= %u.",
                      rc);
        return rc;
    }
    const Code rc = store_assert(*item);
    if (rc != kOk) KovaDLogWrite(KOVA_LOG_BASE(kIdIdentity), "KOVA_WriteAssertBox unsuccessful, ret = %u.", rc);
    return rc;
}

KOVA_PATCHABLE uint32_t KOVA_WriteDeadloopBox(uintptr_t a0, uintptr_t a1, uintptr_t a2, uintptr_t a3, uintptr_t a4,
                                              uintptr_t a5, uintptr_t a6, uintptr_t a7) {
    KOVA_LANDING_PAD();
    // The monitor's answer is nothing that a caller here could act on.
    static_cast<void>(KovaRecordExternalThreadDeadLoopInfo(a0, a1, a2, a3, a4, a5, a6, a7));
    return kOk;
}
