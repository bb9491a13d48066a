// What kovactl makes of a black box file that anybody may have written. Input: which report (1 byte), then the file,
// see box_image.h.
//
// Beyond what the sanitizers see: every report is printable ASCII, and a salvage finds what is counted and what is not.
#include <string>
#include <vector>

#include "box_image.h"
#include "box_report.h"
#include "box_salvage.h"

namespace kova::fuzz {
namespace {

using namespace kova::kovactl;

constexpr std::uint32_t kReports = 8;

// Throws when a text is not UTF-8.
std::string dump(const Json& json) {
    return json.dump(2);
}

std::string report(const BoxSnapshot& snapshot, const Verdict& verdict, std::uint32_t number) {
    const std::uint32_t box = number / 128 % kBoxCount;  // low numbers are the exceptions', as they always were
    const auto records = snapshot.newest_first(box);
    const std::uint32_t some_slot = number % kBoxSpecs[box].recordMax;
    switch (number % kReports) {
        case 0:
            return list_text(snapshot, box);
        case 1:
            return dump(list_json(snapshot, box));
        case 2:
            return verify_text(snapshot, verdict);
        case 3:
            return dump(verify_json(snapshot, verdict));
        case 4:
            return salvage_text(snapshot);
        case 5:
            return dump(salvage_json(snapshot));
        case 6:
            return slot_report_text(snapshot, box, some_slot) + dump(slot_report_json(snapshot, box, some_slot));
        default:
            if (records.empty()) return "";
            return record_report_text(snapshot, box, records.back()) +
                   dump(record_report_json(snapshot, box, records.front()));
    }
}

void expect_salvage_is_whole(const BoxSnapshot& snapshot, std::uint32_t box) {
    std::vector<int> found(kBoxSpecs[box].recordMax);
    for (const SalvagedRecord& record : salvage(snapshot, box)) ++found[record.slot];
    for (std::uint32_t slot = 0; slot < found.size(); ++slot) {
        KOVA_EXPECT(found[slot] == (holds_record(box, snapshot.slot(box, slot)) ? 1 : 0));
    }
}

}  // namespace

void run(Input& input) {
    const auto number = input.number<std::uint8_t>();
    const Image image = make_box_image(input);
    const BoxSnapshot snapshot("file", {image.data(), image.data() + image.size()});
    for (const char c : report(snapshot, verify(snapshot), number)) {
        KOVA_EXPECT(c == '\n' || (c >= 0x20 && c < 0x7F));
    }
    for (std::uint32_t box = 0; box < kBoxCount; ++box) expect_salvage_is_whole(snapshot, box);
}

}  // namespace kova::fuzz
