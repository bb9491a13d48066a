// The memory around the general registers and the heap blocks found there; see kova/memory_map.h.
//
// Signal context: all of it.
#include "base/checked.h"
#include "base/result.h"
#include "base/shared_word.h"
#include "base/text_buffer.h"
#include "except/src/proc_agent/exception_log_file.h"
#include "kova/memory_map.h"
#include "kova_platform/process_globals.h"

#include "base/signal_path.h"

namespace kova {
namespace {

// x29, x30, sp and pc have sections of their own in the report.
constexpr unsigned kRegisterCount = 29;

constexpr std::uint32_t kBytesBefore = 768;
constexpr std::uint32_t kBytesAfter = 1024;
constexpr std::uint32_t kRegisterMemorySize = kBytesBefore + kBytesAfter;  // of g_kovaRegMemory

struct Heap {
    std::uint64_t start = 0;
    std::uint64_t end = 0;
    bool is_known = false;
};

void report_register(KovaDumpMemParam& param, std::uint8_t* memory, const Heap& heap, char* text) {
    if (KOVA_DumpRegisterContext(memory, kRegisterMemorySize, &param) != kOk) return;
    std::uint32_t text_length = 0;
    KOVA_PrintRegMemInfo(&param, memory, kRegisterMemorySize, text, &text_length);
    write_section_to_log({text, text_length});
    if (!heap.is_known) return;
    KOVA_ProcRegContextInHeap(narrow<std::uint32_t>(param.length), memory, heap.start, heap.end, text);
}

}  // namespace
}  // namespace kova

void KOVA_PrintRegisterInfo2log(const KovaExceptInfo* record, uint32_t mapSize, char* text) {
    uint8_t* const memory = kova::load_acquire(g_kovaRegMemory);
    if (record == nullptr || memory == nullptr) return;
    kova::Heap heap;
    heap.is_known = KOVA_GetHeapStartAndEndInfo(&heap.start, &heap.end, "[heap]") == 1;
    for (unsigned number = 0; number < kova::kRegisterCount; ++number) {
        char label_text[4];
        kova::TextBuffer label(label_text, sizeof label_text);
        label.append('X');
        label.append_decimal(number);
        KovaDumpMemParam param{.value = record->machineContext.registers.x[number],
                               .name = label_text,
                               .before = kova::kBytesBefore,
                               .after = kova::kBytesAfter,
                               .start = 0,
                               .length = 0,
                               .mapSize = static_cast<int32_t>(mapSize)};
        kova::report_register(param, memory, heap, text);
    }
}
