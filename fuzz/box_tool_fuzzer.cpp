// What kovactl makes of a black box file that anybody may have written: everything that it prints of it. Input: the
// file, see box_image.h.
//
// Beyond what the sanitizers see: whatever is printed is printable ASCII, and JSON that a parser takes.
#include <string>

#include <fmt/format.h>

#include "box_image.h"
#include "box_snapshot.h"
#include "box_verify.h"
#include "record_json.h"
#include "record_text.h"

namespace kova::fuzz {
namespace {

using namespace kova::kovactl;

void expect_printable(const std::string& text) {
    for (const char c : text) KOVA_EXPECT(c == '\n' || (c >= 0x20 && c < 0x7F));
}

void expect_printable(const Verdict& verdict) {
    for (const auto* const findings : {&verdict.faults, &verdict.notes}) {
        for (const Finding& finding : *findings) expect_printable(finding.where + finding.what);
    }
}

void run(Input& input) {
    const BoxSnapshot snapshot("file", make_box_image(input));
    expect_printable(verify(snapshot));
    for (const StoredRecord& stored : snapshot.newest_first(0)) {
        const KovaExceptInfo record = snapshot.exception(stored.slot);
        expect_printable(record_text(record));
        expect_printable(record_json(record).dump());
    }
    KOVA_EXPECT(snapshot.newest_first(1).size() <= kBoxSpecs[1].recordMax);
}

}  // namespace
}  // namespace kova::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    kova::fuzz::Input input({data, size});
    kova::fuzz::run(input);
    return 0;
}
