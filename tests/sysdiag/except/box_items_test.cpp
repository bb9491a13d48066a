// The item writers: what is copied from a source record, and what refuses it.
#include "sysdiag/except/assert_fixture.h"

namespace kova::test {
namespace {

using BoxItems = Asserts;

struct Part {
    std::size_t begin, size;
};
// Where texts lie in items, and what is never copied there.
const std::vector<Part> kTexts[2] = {
    {{76, 16}, {104, 32}, {136, 50}, {192, 50}, {9792, 64}, {9856, 64}, {9920, 32}},
    {{76, 32}, {108, 50}, {158, 32}, {196, 64}, {260, 64}, {324, 128}},
};
const std::vector<Part> kReserved[2] = {
    {{0, 8}, {186, 2}, {242, 14}, {4652, 4}, {7236, 4}, {7764, 4}, {8292, 4}, {8308, 4}, {9952, 16}},
    {{0, 8}, {190, 2}, {452, 4}},
};

std::size_t source_at(std::uint32_t box, std::size_t item_at) {
    return item_at - (box == 0 && item_at >= 242 ? 16 : 8);
}

// A source record in which every byte says something, and the texts are as long as they may be.
Bytes source(std::uint32_t box) {
    Bytes bytes(box == 0 ? 9936 : 1896);
    for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<std::uint8_t>(i % 251 + 1);
    for (const Part& text : kTexts[box]) bytes[source_at(box, text.begin + text.size - 1)] = 0;
    return bytes;
}

Bytes expected_item(std::uint32_t box, const Bytes& from) {
    Bytes item(kRecordBytes[box]);
    for (std::size_t at = 8; at < item.size(); ++at) {
        if (source_at(box, at) < from.size()) item[at] = from[source_at(box, at)];
    }
    for (const Part& part : kReserved[box]) std::memset(item.data() + part.begin, 0, part.size);
    put_word(item, 0, box == 0 ? 0xECECECEC : 0xAEAEAEAE);
    return item;
}

std::uint32_t store(std::uint32_t box, const Bytes& bytes) {
    return box == 0 ? KOVA_WriteExceptionBox(reinterpret_cast<const KovaExceptSourceRecord*>(bytes.data()))
                    : KOVA_WriteAssertBox(reinterpret_cast<const KovaAssertSourceRecord*>(bytes.data()));
}

constexpr const char* kName[2] = {"exception", "assert"};
constexpr const char* kWriter[2] = {"KOVA_WriteExceptionBox", "KOVA_WriteAssertBox"};
constexpr const char* kNoMemory[2] = {"[exceptItem]mem alloc unsuccessfully.", "[assertItem]mem alloc unsuccessfully."};

TEST_F(BoxItems, EveryFieldIsCopiedOrNothingIsStored) {
    for (const std::uint32_t box : {0u, 1u}) {
        SCOPED_TRACE(kName[box]);
        const Bytes from = source(box);
        ASSERT_EQ(0u, store(box, from));
        const Bytes image = file(), item = expected_item(box, from);
        for (std::size_t i = 0; i < item.size(); ++i) ASSERT_EQ(item[i], image[slot_at(box, 0) + i]) << "byte " << i;

        log_recorder().clear();
        std::vector<LoggedMessage> expected;
        std::string refusal = "[";
        refusal.append(kWriter[box]).append("] strcpy_s ").append(kName[box]).append(" info unsuccessful, ret= ");
        refusal.append(std::to_string(ERANGE)).append(".");
        for (const Part& text : kTexts[box]) {
            Bytes bad = from;
            bad[source_at(box, text.begin + text.size - 1)] = 'x';
            EXPECT_EQ(static_cast<std::uint32_t>(ERANGE), store(box, bad)) << text.begin;
            expected.push_back(error_message(0x0E40105B, "Base", refusal));
        }
        platform().no_memory = true;
        EXPECT_EQ(1u, store(box, from));
        expected.push_back(error_message(0x0E401061, "Base", kNoMemory[box]));
        platform().no_memory = false;
        EXPECT_EQ(expected, log_recorder().messages());
        EXPECT_EQ(image, file());

        std::filesystem::remove(kBoxPath);
        std::filesystem::create_directory(kBoxPath);
        EXPECT_EQ(22u, store(box, from));
        const std::string no_file = std::string(kWriter[box]) + " unsuccessful, ret = 22.";
        EXPECT_EQ(1, log_recorder().count_of(error_message(0x0E401061, "Base", no_file)));
        std::filesystem::remove(kBoxPath);
    }
}

TEST_F(BoxItems, ARepeatedAssertReplacesItsItem) {
    KovaAssertSourceRecord record{};
    record.occurrenceCount = 1;
    record.processId = 811;
    record.line = 7;
    std::strcpy(record.fileName, "x.c");
    EXPECT_EQ(0u, KOVA_WriteAssertBox(&record));
    record.processId = 812;
    record.threadId = 5;
    EXPECT_EQ(0u, KOVA_WriteAssertBox(&record));
    EXPECT_EQ("x.c:7 x2", summary());
    EXPECT_EQ(5u, items()[0].threadId);
    EXPECT_EQ(0u, KOVA_WriteAssertBox(&record));
    KOVA_Assert("/src/x.c", 7, nullptr);
    EXPECT_EQ("x.c:7 x4", summary());
    KOVA_BoxReset(1);
    EXPECT_EQ(0u, KOVA_WriteAssertBox(&record));
    EXPECT_EQ("x.c:7 x1", summary());
}

}  // namespace
}  // namespace kova::test
