// Raising asserts: what is new is printed and stored, what is known is counted.
//
// Locks: g_assert_lock (assert_table.h), held from the look-up to the entry in the table.
// Signal context: not safe (allocates, logs).
#include "kova/assert.h"

#include <execinfo.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/log_message.h"
#include "except/src/proc_agent/agent_block.h"
#include "except/src/proc_agent/assert_table.h"
#include "kova/black_box.h"
#include "kova/calendar_time.h"
#include "kova/exception_capture.h"
#include "kova/exception_log.h"
#include "kova/symbol.h"
#include "kova_platform/bounded_string.h"
#include "kova_platform/node.h"

namespace kova {
namespace {

constexpr char kMemoryTag[] = "kova_assert";

// The asserts that this thread is storing: the code that prints one may raise others. One that it raises each time that
// it prints would have no end.
class InProgress {
  public:
    explicit InProgress(const KovaAssertItem& item) : item_(item), outer_(innermost_) { innermost_ = this; }
    ~InProgress() { innermost_ = outer_; }
    InProgress(const InProgress&) = delete;
    InProgress& operator=(const InProgress&) = delete;

    [[nodiscard]] static bool has(const KovaAssertItem& item) {
        for (const InProgress* each = innermost_; each != nullptr; each = each->outer_) {
            if (is_same_assert(each->item_, item)) return true;
        }
        return false;
    }

  private:
    static thread_local constinit const InProgress* innermost_;

    const KovaAssertItem& item_;
    const InProgress* const outer_;
};
thread_local constinit const InProgress* InProgress::innermost_ = nullptr;

// Who asserts about a failed call wants to know its errno afterwards.
class KeptErrno {
  public:
    KeptErrno() = default;
    ~KeptErrno() { errno = saved_; }
    KeptErrno(const KeptErrno&) = delete;
    KeptErrno& operator=(const KeptErrno&) = delete;

  private:
    const int saved_ = errno;
};

// Windows paths come from modules that were built there.
const char* base_name(const char* path) {
    const char* last = std::strrchr(path, '\\');
    if (last == nullptr) last = std::strrchr(path, '/');
    return last == nullptr ? path : last + 1;
}

void copy_base_name(const char* path, char* buffer, std::uint32_t size) {
    if (const int error = strcpy_s(buffer, size, base_name(path)); error != 0) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdIdentity), "strcpy_s unsuccessful, errNum = %u.",
                      static_cast<std::uint32_t>(error));
    }
}

// True when the assert is known, and was counted.
bool count_if_known(const KovaAssertItem& item, const struct tm& now) {
    const ScopedProcessLock lock(g_assert_lock, box_wait_budget());
    return count_if_known_locked(item, now, lock.holder());
}

void store_new(const KovaAssertItem& item, const struct tm& now) {
    const ScopedProcessLock lock(g_assert_lock, box_wait_budget());
    // Another thread may have been faster.
    if (count_if_known_locked(item, now, lock.holder())) return;
    const InProgress in_progress(item);
    KOVA_PrintAssertInfo(&item);
    std::uint32_t slot = 0;
    // After a failed append the entry names slot 0. The next look-up reads that and finds another assert there.
    static_cast<void>(KOVA_BoxWrite(KOVA_BOX_ASSERT, &item, sizeof item, &slot));
    static_cast<void>(enter_assert_locked(item, slot, lock.holder()));
}

// A field of a calendar time as people write it. Any number may stand in an item that is the caller's.
int counted_from(int base, int value) {
    return static_cast<int>(static_cast<unsigned>(base) + static_cast<unsigned>(value));
}

// A text of lines that grows in a buffer and is cut at its end.
struct AssertText {
    char text[10240];
};

class Printer {
  public:
    explicit Printer(AssertText& buffer) : buffer_(buffer) {}

    [[nodiscard]] char* end() const { return buffer_.text + length_; }
    [[nodiscard]] std::size_t left() const { return sizeof buffer_.text - length_; }
    // What the bounded formatter answered for a piece at the end; negative when it wrote nothing.
    void add(int count) { length_ += static_cast<std::uint32_t>(std::max(count, 0)); }
    [[nodiscard]] std::uint32_t length() const { return length_; }

  private:
    AssertText& buffer_;
    std::uint32_t length_ = 0;
};

}  // namespace
}  // namespace kova

using namespace kova;

void KOVA_Assert(const char* file, uint32_t line, const char* withLog) {
    if (file == nullptr) return;
    const KeptErrno kept_errno;
    const AgentBlock<KovaAssertItem> item(kMemoryTag, __LINE__);
    if (!item.is_made()) return;
    struct tm now {};
    // Fails only for a null argument.
    static_cast<void>(KOVA_GetGMTTime(&now));
    copy_base_name(file, item->fileName, sizeof item->fileName);
    item->line = line;
    if (withLog != nullptr && withLog[0] != '\0') {
        // A text that does not fit is left out, and the assert is recorded all the same.
        static_cast<void>(strcpy_s(item->withLog, sizeof item->withLog, withLog));
    }
    if (InProgress::has(*item) || count_if_known(*item, now)) return;
    // Without the lock: naming frames waits for the loader, which may be running a constructor that raises an assert.
    static_cast<void>(KOVA_AssertFillBaseInfo(item.get(), &now));
    static_cast<void>(KOVA_AssertGetCallStack(&item->callStack));
    store_new(*item, now);
}

uint32_t KOVA_LirraAssertPreHook(const char* file, uint32_t line) {
    KOVA_Assert(file, line, nullptr);
    return kOk;
}

void KOVA_PrintAssertInfo(const KovaAssertItem* item) {
    if (item == nullptr) return;
    const AgentBlock<AssertText> buffer(kMemoryTag, __LINE__);
    if (!buffer.is_made()) return;
    char thread_name[sizeof item->processName] = {};
    // A thread that is gone has no name.
    static_cast<void>(KOVA_GetProcName(item->threadId, thread_name, sizeof thread_name));

    // The item is the caller's: its texts end at their fields at the latest.
    Printer out(*buffer);
    const struct tm& time = item->time;
    out.add(snprintf_truncated_s(
        out.end(), out.left(), "%s",
        "=======================================assert info======================================\n"));
    out.add(snprintf_truncated_s(
        out.end(), out.left(), "%d-%02d-%02d %02d:%02d:%02d, Process:%.32s(ID:%u), ThreadId:%s(ID:%u)\n",
        counted_from(1900, time.tm_year), counted_from(1, time.tm_mon), time.tm_mday, time.tm_hour, time.tm_min,
        time.tm_sec, item->processName, item->processId, thread_name, item->threadId));
    out.add(snprintf_truncated_s(out.end(), out.left(),
                                 "Errinfo at file: '%.32s', Line:%u\nWithlog:       %.128s\n%s\n", item->fileName,
                                 item->line, item->withLog, "Call Stack:"));
    out.add(snprintf_truncated_s(out.end(), out.left(), "%3s %s\n", "No", "FunctionName"));
    const std::uint32_t depth = std::min<std::uint32_t>(item->callStack.depth, KOVA_CALL_STACK_MAX);
    for (std::uint32_t i = 0; i < depth; ++i) {
        out.add(snprintf_truncated_s(out.end(), out.left(), "#%2u %.64s\r\n", i, item->callStack.symbol[i]));
    }
    out.add(snprintf_truncated_s(
        out.end(), out.left(), "%s",
        "========================================================================================"));
    KOVA_DiagLogInSlice(buffer->text, out.length(), kIdAssertBlock);
}

// Calls the unwinder itself: the first frame that is collected is the one to be dropped.
__attribute__((noinline)) uint32_t KOVA_AssertGetCallStack(KovaCallStack* callStack) {
    if (callStack == nullptr) return kFailed;
    void* frames[KOVA_CALL_STACK_MAX];
    const int count = ::backtrace(frames, KOVA_CALL_STACK_MAX);
    if (count <= 1) {
        callStack->depth = 0;
        return kFailed;
    }
    callStack->depth = static_cast<std::uint32_t>(count - 1);
    for (std::uint32_t i = 0; i < callStack->depth; ++i) {
        callStack->address[i] = reinterpret_cast<std::uint64_t>(frames[i + 1]);
        // An address that belongs to nothing known leaves the text as it is.
        static_cast<void>(KOVA_GetFuncSymbol(callStack->address[i], callStack->symbol[i], KOVA_SYMBOL_TEXT_SIZE));
    }
    return kOk;
}

void KOVA_GetFileName(const char* path, char* buffer, uint32_t size) {
    if (path != nullptr) copy_base_name(path, buffer, size);
}

uint32_t KOVA_AssertFillBaseInfo(KovaAssertItem* item, const struct tm* time) {
    if (item == nullptr) return kFailed;
    item->occurrenceCount = 1;
    item->magic = KOVA_ASSERT_MARKER;
    item->threadId = static_cast<std::uint32_t>(::syscall(SYS_gettid));
    item->processId = static_cast<std::uint32_t>(::getpid());
    KOVA_GetSlotId(item->slotText, sizeof item->slotText);
    // What cannot be found out stays empty.
    static_cast<void>(KOVA_GetProcName(item->processId, item->processName, sizeof item->processName));
    static_cast<void>(KOVA_GetVersion(item->platformName, sizeof item->platformName, item->platformVersion,
                                      sizeof item->platformVersion));
    return static_cast<Code>(memcpy_s(&item->time, sizeof item->time, time, sizeof *time));
}
