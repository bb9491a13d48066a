// The black box's format: checksum, head checks, slot arithmetic, against values worked out by hand.
#include "except/src/proc_agent/box_format.h"

#include <gtest/gtest.h>

#include <cstring>

#include "sysdiag/except/box_model.h"

namespace kova {
namespace {

constexpr std::uint32_t kHuge = 0xFFFFFFFF;

NodeHead node_head(std::uint32_t capacity, std::uint32_t next, std::uint32_t count) {
    NodeHead node = make_node_head(kBoxSpecs[0]);
    node.recordMax = capacity;
    node.writeIndex = next;
    node.recordCount = count;
    node.checkSum = head_checksum(node);
    return node;
}

TEST(BoxFormat, ChecksumFoldsItsCarries) {
    EXPECT_EQ(0xFFFFu, box_checksum(nullptr, 0));
    const std::uint8_t one[] = {0x01};
    EXPECT_EQ(0xFEFFu, box_checksum(one, 1));
    const std::uint8_t odd[] = {0x34, 0x12, 0x01};
    EXPECT_EQ(0xECCBu, box_checksum(odd, 3));  // ~(0x1234 + 0x0100)
    const std::uint8_t carry[] = {0xFF, 0xFF, 0x02, 0x00};
    EXPECT_EQ(0xFFFDu, box_checksum(carry, 4));
    const test::Bytes large(131073, 0xFE);  // so many words that folding once leaves a carry
    for (const std::uint32_t length : {2u, 9967u, 131073u, 131072u}) {
        EXPECT_EQ(test::model_checksum(large.data(), length), box_checksum(large.data(), length)) << length;
    }
}

TEST(BoxFormat, NodeHeadFaultsComeInTheirOrder) {
    NodeHead node = node_head(20, 4, 3);
    node.recordLen = 1904;
    EXPECT_EQ(NodeHeadFault::kCounts, check_node_head(node, kBoxSpecs[0]));
    node.recordCount = 21;
    EXPECT_EQ(NodeHeadFault::kCounts, check_node_head(node, kBoxSpecs[0]));
    node.recordCount = 4;
    EXPECT_EQ(NodeHeadFault::kRecordLen, check_node_head(node, kBoxSpecs[0]));
    node.magic = 0;
    EXPECT_EQ(NodeHeadFault::kMagic, check_node_head(node, kBoxSpecs[0]));
    EXPECT_EQ(NodeHeadFault::kNone, check_node_head(node_head(7, 7, 7), kBoxSpecs[0])) << "its own capacity";
}

TEST(BoxFormat, ASlotIsAdmittedOnlyInsideItsBox) {
    const struct {
        const char* name;
        std::uint32_t node_offset, capacity, record_len, slot;
        std::int64_t offset;  // -1: refused
    } cases[] = {
        {"first", 36, 20, 9968, 0, 68},
        {"last", 36, 20, 9968, 19, 189460},
        {"at the capacity", 36, 20, 9968, 20, -1},
        {"at a smaller capacity", 36, 5, 9968, 5, -1},
        {"below a larger capacity, in the other box", 36, 100, 9968, 20, -1},
        {"huge", 36, kHuge, 9968, 430881, -1},  // 9968 * 430881 wraps to 32 bits
        {"head inside the other box", 199428, 20, 9968, 0, -1},
        {"head before the file's", 4, 20, 9968, 0, -1},
        {"record longer than the box", 36, 20, kHuge, 0, -1},
        {"record of another length across the end", 36, 20, 9969, 19, -1},
        {"capacity 0", 36, 0, 9968, 0, -1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        NodeHead node = node_head(c.capacity, 0, 0);
        node.recordLen = c.record_len;
        const auto offset = slot_offset(c.node_offset, node, kBoxSpecs[0], c.slot);
        EXPECT_EQ(c.offset, offset.has_value() ? std::int64_t{*offset} : -1);
    }
}

TEST(BoxFormat, NewestFirstRangeStaysWithinWhatIsStored) {
    const struct {
        const char* name;
        std::uint32_t capacity, next, stored, skip, wanted;
        bool possible;
        std::uint32_t count;
        std::vector<std::uint32_t> slots;
    } cases[] = {
        {"fewer stored than wanted", 20, 3, 3, 0, 5, true, 3, {2, 1, 0}},
        {"skips all", 20, 3, 3, 3, 5, false, 0, {}},
        {"empty, skips", 20, 0, 0, 7, 5, true, 0, {}},
        {"full, start goes round", 4, 1, 4, 2, 9, true, 2, {2, 1}},
        {"full, skips more than there are", 4, 1, 4, 5, 9, true, 0, {}},
        {"full, next slot at the capacity", 4, 4, 4, 0, 9, true, 4, {3, 2, 1, 0}},
        {"capacity 0", 0, 0, 0, 0, 5, true, 0, {}},
        {"huge and full", kHuge, kHuge, kHuge, kHuge - 1, kHuge, true, 1, {0}},
        {"next slot behind the count", 20, 2, 5, 0, 9, true, 2, {1, 0}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const NodeHead node = node_head(c.capacity, c.next, c.stored);
        const auto range = newest_first_range(node, c.skip, c.wanted);
        ASSERT_EQ(c.possible, range.has_value());
        if (!range.has_value()) continue;
        ASSERT_EQ(c.count, range->count);
        for (std::uint32_t i = 0; i < c.slots.size(); ++i) EXPECT_EQ(c.slots[i], newest_first_slot(node, *range, i));
    }
    EXPECT_EQ(0u, slot_order_range(node_head(20, 2, 5), 4, 9).count) << "first beyond the next slot";
    EXPECT_EQ(0u, slot_order_range(node_head(0, 0, 0), 0, 9).count);
}

}  // namespace
}  // namespace kova
