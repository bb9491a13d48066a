// The heap in reports: where it is, which dumped values point into it, and what they point at; see kova/memory_map.h.
//
// Signal context: all of it. g_heapPrintMaxTime belongs to the thread that holds the capture flag.
#include <algorithm>
#include <cstring>
#include <string_view>

#include "base/checked.h"
#include "base/result.h"
#include "except/src/proc_agent/capture_map.h"
#include "except/src/proc_agent/exception_log_file.h"
#include "except/src/proc_agent/map_line.h"
#include "except/src/proc_agent/memory_section.h"
#include "kova/memory_map.h"

#include "base/signal_path.h"

constinit uint32_t g_heapPrintMaxTime = 0;

namespace kova {
namespace {

constexpr std::uint32_t kHeapSectionsMax = 32;  // for the life of a process
constexpr std::uint32_t kBytesBelow = 64;
constexpr std::uint32_t kBytesAround = 128;
constexpr std::uint32_t kPointerSize = sizeof(std::uint64_t);
constexpr std::uint32_t kPointerStep = 4;

// Hands out the map's lines one after the other, reading it once from start to end. A line longer than a piece comes in
// pieces, one byte after each piece being lost; so it always was, and a report must not depend on who reads the map.
class MapLines {
  public:
    explicit MapLines(MapText& text) : text_(text) {}

    bool next(std::string_view* line) {
        drop_returned();
        std::size_t line_feed = find_line_feed();
        while (line_feed == std::string_view::npos && held_ < kPieceSize) {
            const ssize_t count = text_.read({piece_ + held_, kPieceSize - held_});
            if (count <= 0) break;
            held_ += static_cast<std::size_t>(count);
            line_feed = find_line_feed();
        }
        if (held_ == 0) return false;
        const bool is_whole = line_feed != std::string_view::npos;
        *line = std::string_view(piece_, is_whole ? line_feed : held_);
        returned_ = is_whole ? line_feed + 1 : held_;
        lose_one_ = !is_whole;
        return true;
    }

  private:
    static constexpr std::size_t kPieceSize = 511;

    std::size_t find_line_feed() const { return std::string_view(piece_, held_).find('\n'); }

    void drop_returned() {
        held_ -= returned_;
        std::memmove(piece_, piece_ + returned_, held_);
        returned_ = 0;
        char lost = 0;
        // Nothing more to read: the next piece will tell.
        if (lose_one_) static_cast<void>(text_.read({&lost, 1}));
        lose_one_ = false;
    }

    MapText& text_;
    std::size_t held_ = 0;
    std::size_t returned_ = 0;
    bool lose_one_ = false;
    char piece_[kPieceSize];
};

bool find_named(MapText& text, std::string_view wanted, AddressRange* range) {
    if (text.seek(0) != 0) return false;
    MapLines lines(text);
    std::string_view line;
    std::string_view name;
    while (lines.next(&line)) {
        if (parse_named_line(line, range, &name) && name == wanted) return true;
    }
    return false;
}

bool is_heap_pointer(std::uint64_t candidate, std::uint64_t heap_start, std::uint64_t heap_end) {
    return candidate % kPointerStep == 0 && candidate >= heap_start && candidate <= heap_end;
}

}  // namespace
}  // namespace kova

uint32_t KOVA_GetHeapStartAndEndInfo(uint64_t* start, uint64_t* end, const char* name) {
    if (start == nullptr || end == nullptr || name == nullptr) return 0;
    kova::MapSource map;
    kova::AddressRange heap;
    if (!map.is_open() || !kova::find_named(map.text(), name, &heap)) return 0;
    *start = heap.start;
    *end = heap.end;
    return 1;
}

void KOVA_ProcGetDumpStartAddAndLen(uint64_t address, uint64_t lower, uint64_t upper, uint64_t* start,
                                    uint32_t* length) {
    if (start == nullptr || length == nullptr) return;
    const bool has_room_below = address > kova::kBytesBelow && address - kova::kBytesBelow > lower;
    const uint64_t first = has_room_below ? address - kova::kBytesBelow : lower;
    const uint64_t last = std::min(kova::saturating_add<uint64_t>(first, *length), upper);
    *start = first;
    *length = last > first ? kova::narrow<uint32_t>(last - first) : 0;
}

uint32_t KOVA_CheckAddrIsInHeapAndPrintText(uint64_t candidate, uint64_t heapStart, uint64_t heapEnd, char* text) {
    if (!kova::is_heap_pointer(candidate, heapStart, heapEnd)) return 0;
    ++g_heapPrintMaxTime;
    uint64_t first = 0;
    uint32_t length = kova::kBytesAround;
    KOVA_ProcGetDumpStartAddAndLen(candidate, heapStart, heapEnd, &first, &length);
    uint32_t text_length = 0;
    KOVA_PrintHeapMemInfo(first, length, text, &text_length);
    kova::write_section_to_log({text, text_length});
    return 1;
}

void KOVA_ProcRegContextInHeap(uint32_t length, const uint8_t* bytes, uint64_t heapStart, uint64_t heapEnd,
                               char* text) {
    if (bytes == nullptr || length < kova::kPointerSize || g_heapPrintMaxTime >= kova::kHeapSectionsMax) return;
    const uint32_t last = length - kova::kPointerSize;
    for (uint32_t offset = 0; offset <= last; offset += kova::kPointerStep) {
        uint64_t candidate = 0;
        std::memcpy(&candidate, bytes + offset, sizeof candidate);
        if (!kova::is_heap_pointer(candidate, heapStart, heapEnd)) continue;
        if (g_heapPrintMaxTime >= kova::kHeapSectionsMax) return;
        // It counts and prints by itself.
        static_cast<void>(KOVA_CheckAddrIsInHeapAndPrintText(candidate, heapStart, heapEnd, text));
    }
}

uint32_t KOVA_PrintHeapMemInfo(uint64_t address, uint32_t length, char* text, uint32_t* currentLength) {
    kova::append_section(text, currentLength, [&](kova::TextBuffer& out) {
        kova::append_heap_header(out, address, address + length);
        kova::append_live_words(out, address, length);
    });
    return kova::kOk;
}
