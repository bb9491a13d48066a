// One flipped bit anywhere in a black box file: found, or in what a record says.
//
// Usually a part of the bits outside the heads; all 3,118,880 (some minutes) with KOVA_NIGHTLY set. Prints what became
// of them.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

#include "box_snapshot.h"
#include "box_verify.h"
#include "sysdiag/except/box_model.h"

namespace kova::kovactl {
namespace {

using test::Bytes;
using test::kNodeOffset;
using test::Op;
using test::Plan;

constexpr std::uint32_t kStored[2] = {23, 60};  // one box went round, one is filling

Bytes file_with_records() {
    Bytes image;
    for (const std::uint32_t box : {0u, 1u}) {
        for (std::uint32_t i = 0; i < kStored[box]; ++i) {
            image = Plan({Op::kAppend, box, 0x01010101 * (i + 1)}, image).image();
            // What a finished record holds: a time that goes on, texts with nothing behind their ends.
            KovaExceptInfo record{};
            auto* const stored = image.data() + test::slot_at(box, i % test::kCapacity[box]);
            record.magic = box == 0 ? KOVA_EXCEPT_MARKER : 0xAEAEAEAE;
            record.time.tm_sec = static_cast<int>(i);
            record.time.tm_mday = 1;
            record.time.tm_year = 125;
            if (box == 0) {
                std::strcpy(record.signalName, "SIGSEGV");
                std::strcpy(record.processName, "routed");
                std::strcpy(record.senderProcessName, "init");
                std::strcpy(record.platformName, "platform");
                std::strcpy(record.platformVersion, "1.2");
                record.spDumpLength = sizeof record.spDump;
                record.pcDumpLength = sizeof record.pcDump;
                record.lrDumpLength = sizeof record.lrDump;
                record.callStackDepth = 12;
            }
            std::memcpy(stored, &record, test::kRecordBytes[box]);
        }
    }
    return image;
}

struct Place {
    const char* name;
    std::size_t begin, end;  // the head or slot that a finding must name
    bool must_be_found = true;
};

Place place_of(std::size_t at) {
    if (at < kNodeOffset[0]) return {"file head", 0, kNodeOffset[0]};
    const std::uint32_t box = at < kNodeOffset[1] ? 0 : 1;
    const std::size_t slots = test::slot_at(box, 0);
    if (at < slots) return {"node heads", kNodeOffset[box], slots};
    const std::size_t slot = (at - slots) / test::kRecordBytes[box];
    const std::size_t begin = test::slot_at(box, slot), end = test::slot_at(box, slot + 1);
    if (slot >= kStored[box]) return {"slots without a record", begin, end, false};
    if (at - begin < 4) return {"markers of records", begin, end};
    return {box == 0 ? "exception records" : "assert records", begin, end, false};
}

struct Tally {
    int flipped = 0, found = 0, noted = 0;
};

TEST(BoxFlips, EachIsFoundOrInARecordsContent) {
    std::size_t stride = std::getenv("KOVA_NIGHTLY") != nullptr ? 1 : 241;
#if defined(__SANITIZE_ADDRESS__) || defined(__aarch64__)
    stride = 1009;  // the whole takes an hour there
#endif
    BoxSnapshot snapshot("file", file_with_records());
    ASSERT_TRUE(verify(snapshot).faults.empty());
    // Three million copies of the file would take minutes: the one that there is, is changed under its reader.
    auto* const bytes = const_cast<std::uint8_t*>(snapshot.slot(0, 0).data()) - test::slot_at(0, 0);
    std::map<std::string, Tally> tallies;
    for (std::size_t bit = 0; bit < test::kFileBytes * 8; ++bit) {
        const std::size_t at = bit / 8;
        const Place place = place_of(at);
        if (!place.must_be_found && bit % stride != 0) continue;
        bytes[at] ^= static_cast<std::uint8_t>(1 << bit % 8);
        const Verdict verdict = verify(snapshot);
        bytes[at] ^= static_cast<std::uint8_t>(1 << bit % 8);
        Tally& tally = tallies[place.name];
        ++tally.flipped;
        tally.found += !verdict.faults.empty();
        tally.noted += verdict.faults.empty() && !verdict.notes.empty();
        ASSERT_TRUE(!place.must_be_found || !verdict.faults.empty()) << "bit " << bit;
        for (const Finding& fault : verdict.faults) {
            ASSERT_TRUE(place.begin <= fault.offset && fault.offset < place.end) << "bit " << bit << fault.what;
        }
    }
    ASSERT_TRUE(verify(snapshot).faults.empty());
    for (const auto& [name, tally] : tallies) {
        std::printf("%-24s flipped %8d, found %8d, noted %6d, unseen %8d\n", name.c_str(), tally.flipped, tally.found,
                    tally.noted, tally.flipped - tally.found - tally.noted);
    }
}

}  // namespace
}  // namespace kova::kovactl
