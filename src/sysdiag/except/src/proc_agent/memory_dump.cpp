// Dumps of the memory around a register: finding the range, copying it, printing it; see kova/memory_map.h.
//
// The range is clipped to one readable mapping of the map file; the kernel then has the last word on what can be read.
//
// Signal context: all of it.
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

#include "base/checked.h"
#include "base/landing_pad.h"
#include "base/result.h"
#include "base/shared_word.h"
#include "except/src/proc_agent/capture_map.h"
#include "except/src/proc_agent/memory_reader.h"
#include "except/src/proc_agent/memory_section.h"
#include "kova/memory_map.h"
#include "kova_platform/process_globals.h"

#include "base/signal_path.h"

namespace kova {
namespace {

constexpr Code kNoTextBuffer = EINVAL;

struct DumpRange {
    std::uint64_t start = 0;
    std::uint64_t length = 0;
};

// Looks the value's mapping up in the map that this thread reads. 0, the errno of a failed open, or kFailed.
Code find_value(const KovaDumpMemParam& param, KovaMapRecord& record) {
    MapSource map;
    const int open_error = errno;
    TextBuffer(g_mapsFileName, sizeof g_mapsFileName).append(map.path());
    if (map.path().empty()) return kFailed;
    if (!map.is_open()) return static_cast<Code>(open_error);
    if (param.value < map.lowest_address()) return kFailed;
    record.mapSize = param.mapSize;
    return find_mapping(map.text(), param.value, record, {load_acquire(g_kovaExceptLogbuf), kMapLineSize}) == 1
               ? kOk
               : kFailed;
}

// What to dump of the memory around the value, clipped to its mapping.
Code find_range(const KovaDumpMemParam& param, DumpRange* range) {
    KovaMapRecord mapping{};
    if (const Code rc = find_value(param, mapping); rc != kOk) return rc;
    if (std::strchr(mapping.permissions, 'r') == nullptr) return kFailed;
    // The search is content with the address just past the mapping. No memory is there.
    if (param.value < mapping.start || param.value >= mapping.end) return kFailed;
    const std::uint64_t lower = param.value - std::min<std::uint64_t>(param.before, param.value);
    const std::uint64_t upper = saturating_add<std::uint64_t>(param.value, param.after);
    range->start = std::max(lower, mapping.start);
    range->length = std::min(upper, mapping.end) - range->start;
    return range->length > 0 ? kOk : kFailed;
}

// All or nothing: half a range would be taken for memory that holds zeros.
Code copy_range(const DumpRange& range, std::uint8_t* destination, std::uint32_t size) {
    if (destination == nullptr || range.length > size) return kFailed;
    const std::size_t length = range.length;
    if (read_memory(range.start, {destination, length}) == length) return kOk;
    std::memset(destination, 0, length);
    return kFailed;
}

}  // namespace
}  // namespace kova

uint32_t KOVA_DumpRegisterContext(void* destination, uint32_t size, KovaDumpMemParam* param) {
    if (kova::load_acquire(g_kovaExceptLogbuf) == nullptr) return kova::kNoTextBuffer;
    if (param == nullptr) return kova::kFailed;
    param->start = 0;
    param->length = 0;
    kova::DumpRange range;
    if (const kova::Code rc = kova::find_range(*param, &range); rc != kova::kOk) return rc;
    if (const kova::Code rc = kova::copy_range(range, static_cast<uint8_t*>(destination), size); rc != kova::kOk) {
        return rc;
    }
    param->start = range.start;
    param->length = range.length;
    return kova::kOk;
}

void KOVA_FillSpDumpInfo(KovaSpDumpRange* range, const KovaDumpMemParam* param) {
    if (range == nullptr || param == nullptr || kova::load_acquire(g_kovaExceptLogbuf) == nullptr) return;
    kova::DumpRange found;
    if (kova::find_range(*param, &found) != kova::kOk) return;
    range->start = found.start;
    range->end = found.start + found.length;
    range->length = kova::narrow<uint32_t>(std::min<uint64_t>(found.length, std::numeric_limits<uint32_t>::max()));
}

KOVA_PATCHABLE void KOVA_DumpMemParamSet(KovaDumpMemParam* param, uint64_t value, const char* name, uint64_t start,
                                         uint64_t length) {
    KOVA_LANDING_PAD();
    if (param == nullptr) return;
    param->value = value;
    param->name = name;
    param->start = start;
    param->length = length;
}

uint32_t KOVA_PrintRegMemInfo(const KovaDumpMemParam* param, const uint8_t* bytes, uint32_t bytesSize, char* text,
                              uint32_t* currentLength) {
    if (param == nullptr) return kova::kOk;
    kova::append_section(text, currentLength, [&](kova::TextBuffer& out) {
        kova::append_register_header(out, param->name, param->value, param->start, param->start + param->length);
        if (bytes == nullptr) return;
        kova::append_words(out, param->start, {bytes, std::min<std::size_t>(param->length, bytesSize)});
    });
    return kova::kOk;
}

uint32_t KOVA_PrintRegSpInfo(const KovaSpDumpRange* range, const KovaDumpMemParam* param, char* text,
                             uint32_t* currentLength) {
    if (range == nullptr || param == nullptr || range->length == 0) return kova::kOk;
    kova::append_section(text, currentLength, [&](kova::TextBuffer& out) {
        kova::append_register_header(out, param->name, param->value, range->start, range->end);
        kova::append_live_words(out, range->start, range->length);
    });
    return kova::kOk;
}
