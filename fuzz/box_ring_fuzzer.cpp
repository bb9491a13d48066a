// The agent's operations on the black box, over a file that anybody may have written. Runs on a private node: the path
// is the real one.
//
// Input: number of operations (1 byte), then for each what it is (1), the box (1) and two numbers (4 and 4); then the
// file, see box_image.h.
//
// Beyond what the sanitizers see: an operation changes nothing but heads and the slots that it may write, leaves heads
// that are valid, and hands out nothing but what stands in the box's slots.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <vector>

#include "box_image.h"
#include "except/src/proc_agent/box_file.h"
#include "kova/memory.h"
#include "kova_platform/process_globals.h"

namespace kova::fuzz {
namespace {

constexpr std::uint32_t kMostOperations = 4;
constexpr std::uint32_t kPartition = 7;

struct Operation {
    std::uint8_t kind;
    std::uint32_t box;
    std::uint32_t first, second;
};

int open_file() {
    const int fd = ::open(kBoxPath, O_RDWR | O_CREAT | O_CLOEXEC, kBoxMode);
    KOVA_EXPECT(fd >= 0);
    return fd;
}

void write_file(const Image& image) {
    const int fd = open_file();
    KOVA_EXPECT(::ftruncate(fd, static_cast<off_t>(image.size())) == 0);
    KOVA_EXPECT(::pwrite(fd, image.data(), image.size(), 0) == static_cast<ssize_t>(image.size()));
    ::close(fd);
}

Image read_file() {
    const int fd = open_file();
    struct stat status {};
    KOVA_EXPECT(::fstat(fd, &status) == 0);
    Image image(static_cast<std::size_t>(status.st_size));
    KOVA_EXPECT(::pread(fd, image.data(), image.size(), 0) == static_cast<ssize_t>(image.size()));
    ::close(fd);
    return image;
}

struct Range {
    std::size_t begin, end;
};

Range box_slots(std::uint32_t box) {
    return {kBoxSpecs[box].nodeOffset + kNodeHeadBytes, static_cast<std::size_t>(box_end(kBoxSpecs[box]))};
}

Range box_slot(std::uint32_t box, std::uint32_t slot) {
    const std::size_t begin = box_slots(box).begin + std::size_t{slot} * kBoxSpecs[box].recordLen;
    return {begin, begin + kBoxSpecs[box].recordLen};
}

// The file as it was, where it may not have changed. What lies beyond its end counts as zero.
void expect_unchanged_outside(Image before, const Image& after, Range allowed) {
    before.resize(after.size());
    const Range heads[] = {{0, sizeof(FileHead)},
                           {kBoxSpecs[0].nodeOffset, kBoxSpecs[0].nodeOffset + kNodeHeadBytes},
                           {kBoxSpecs[1].nodeOffset, kBoxSpecs[1].nodeOffset + kNodeHeadBytes},
                           allowed};
    for (const Range& range : heads) {
        const std::size_t end = std::min(range.end, after.size());
        if (range.begin < end) std::memcpy(before.data() + range.begin, after.data() + range.begin, end - range.begin);
    }
    KOVA_EXPECT(before == after);
}

void expect_valid_heads(const Image& image, std::uint32_t box) {
    FileHead head;
    NodeHead node;
    KOVA_EXPECT(image.size() >= kBoxSpecs[box].nodeOffset + sizeof node);
    std::memcpy(&head, image.data(), sizeof head);
    std::memcpy(&node, image.data() + kBoxSpecs[box].nodeOffset, sizeof node);
    KOVA_EXPECT(check_file_head(head, kBoxSpecs, {}) == FileHeadFault::kNone);
    KOVA_EXPECT(check_node_head(node, kBoxSpecs[box]) == NodeHeadFault::kNone);
}

// Takes the records over.
void expect_records_of_box(Image image, std::uint32_t box, std::uint32_t wanted, std::uint32_t count, void* records,
                           std::uint32_t handle) {
    image.resize(std::max<std::size_t>(image.size(), kBoxFileBytes));
    const std::uint32_t length = kBoxSpecs[box].recordLen;
    KOVA_EXPECT(count <= wanted);
    KOVA_EXPECT(count == 0 || records != nullptr);
    for (std::uint32_t i = 0; i < count; ++i) {
        const auto* const record = static_cast<const std::uint8_t*>(records) + std::size_t{i} * length;
        bool is_found = false;
        for (std::uint32_t slot = 0; slot < kBoxSpecs[box].recordMax && !is_found; ++slot) {
            is_found = std::memcmp(record, image.data() + box_slot(box, slot).begin, length) == 0;
        }
        KOVA_EXPECT(is_found);
    }
    KovaBaseFree(handle, records, "fuzz", __LINE__);
}

std::vector<std::uint8_t> record_for(const Operation& operation) {
    std::vector<std::uint8_t> record(operation.second % (kBoxSpecs[0].recordLen + 2));
    for (std::size_t i = 0; i < record.size(); ++i) record[i] = static_cast<std::uint8_t>(operation.first + i);
    return record;
}

void read_newest(const Operation& operation, const Image& before) {
    std::uint32_t count = operation.second;
    void* records = nullptr;
    const std::uint32_t rc = KOVA_BoxRead(operation.box, operation.first, &count, &records);
    const Image after = read_file();
    expect_unchanged_outside(before, after, {});
    if (rc != 0) {
        KovaBaseFree(g_kovaAgentMemHandle, records, "fuzz", __LINE__);
        return;
    }
    expect_valid_heads(after, operation.box);
    expect_records_of_box(after, operation.box, operation.second, count, records, g_kovaAgentMemHandle);
}

void read_in_slot_order(const Operation& operation, const Image& before) {
    std::uint32_t count = operation.second;
    void* records = nullptr;
    const std::uint32_t rc = KOVA_BoxReadFromBegin(operation.box, operation.first, &count, &records, kPartition);
    const Image after = read_file();
    expect_unchanged_outside(before, after, {});
    if (rc != 0) {
        KovaBaseFree(kPartition, records, "fuzz", __LINE__);
        return;
    }
    expect_valid_heads(after, operation.box);
    expect_records_of_box(after, operation.box, operation.second, count, records, kPartition);
}

// With heads as they stand in the file, unchecked.
void read_with_given_heads(const Operation& operation, const Image& before) {
    Image image = before;
    image.resize(std::max<std::size_t>(image.size(), kBoxFileBytes));
    const std::uint32_t box = operation.box % kBoxCount;
    FileHead head;
    NodeHead node;
    std::memcpy(&head, image.data(), sizeof head);
    std::memcpy(&node, image.data() + kBoxSpecs[box].nodeOffset, sizeof node);
    std::uint32_t count = operation.second;
    void* records = nullptr;
    const int fd = open_file();
    const std::uint32_t rc = KOVA_BoxReadWithCondition(fd, &head, &node, box, operation.first, &count, &records);
    ::close(fd);
    KOVA_EXPECT(rc != 0 || count <= operation.second);
    KOVA_EXPECT(read_file() == before);
    KovaBaseFree(g_kovaAgentMemHandle, records, "fuzz", __LINE__);
}

void append(const Operation& operation, const Image& before) {
    const std::vector<std::uint8_t> record = record_for(operation);
    std::uint32_t slot = UINT32_MAX;
    const auto length = static_cast<std::uint32_t>(record.size());
    const std::uint32_t rc = KOVA_BoxWrite(operation.box, record.data(), length, &slot);
    const Image after = read_file();
    if (rc != 0) {
        expect_unchanged_outside(before, after, {});
        return;
    }
    KOVA_EXPECT(slot < kBoxSpecs[operation.box].recordMax);
    const Range written = box_slot(operation.box, slot);
    expect_unchanged_outside(before, after, {written.begin, written.begin + length});
    expect_valid_heads(after, operation.box);
    KOVA_EXPECT(std::equal(record.begin(), record.end(), after.data() + written.begin));
}

void rewrite(const Operation& operation, const Image& before) {
    const std::vector<std::uint8_t> record = record_for(operation);
    const auto length = static_cast<std::uint32_t>(record.size());
    const std::uint32_t rc = KOVA_BoxRefresh(operation.box, record.data(), length, operation.first);
    const Range written = rc == 0 ? box_slot(operation.box, operation.first) : Range{};
    KOVA_EXPECT(rc != 0 || operation.first < kBoxSpecs[operation.box].recordMax);
    expect_unchanged_outside(before, read_file(), {written.begin, written.begin + (rc == 0 ? length : 0)});
}

void reset(const Operation& operation, const Image& before) {
    const std::uint32_t rc = KOVA_BoxReset(operation.box);
    const Image after = read_file();
    expect_unchanged_outside(before, after, operation.box < kBoxCount ? box_slots(operation.box) : Range{});
    if (rc != 0) return;
    expect_valid_heads(after, operation.box);
    std::uint32_t count = 1;
    void* records = nullptr;
    KOVA_EXPECT(KOVA_BoxRead(operation.box, 0, &count, &records) == 0 && count == 0 && records == nullptr);
}

using Run = void (*)(const Operation& operation, const Image& before);
constexpr Run kRuns[] = {read_newest, read_in_slot_order, read_with_given_heads, append, rewrite, reset};

}  // namespace

void run(Input& input) {
    g_kovaAgentMemHandle = kPartition;
    std::vector<Operation> operations(1 + input.number<std::uint8_t>() % kMostOperations);
    for (Operation& operation : operations) {
        operation.kind = static_cast<std::uint8_t>(input.number<std::uint8_t>() % std::size(kRuns));
        operation.box = input.number<std::uint8_t>() % (kBoxCount + 1);  // one that does not exist, too
        operation.first = input.number<std::uint32_t>();
        operation.second = input.number<std::uint32_t>();
    }
    write_file(make_box_image(input));
    for (const Operation& operation : operations) kRuns[operation.kind](operation, read_file());
}

}  // namespace kova::fuzz
