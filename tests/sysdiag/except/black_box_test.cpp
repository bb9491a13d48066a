// The black box as its users see it, through the shared library and the file it leaves.
#include <algorithm>
#include <random>

#include "sysdiag/except/box_fixture.h"

namespace kova::test {
namespace {

// Of the records in `all`, those from `skip` on and at most `wanted`.
Values part(const Values& all, std::uint32_t skip, std::uint32_t wanted) {
    const auto begin = all.begin() + std::min<std::ptrdiff_t>(skip, std::ssize(all));
    return {begin, begin + std::min<std::ptrdiff_t>(wanted, all.end() - begin)};
}

TEST_F(BlackBox, AnyOrderOfOperationsAgreesWithTheModel) {
    const std::uint32_t seed = std::random_device{}();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const auto below = [&](std::uint32_t limit) { return static_cast<std::uint32_t>(random() % limit); };
    Bytes image;
    for (int step = 0; step < by_effort(300, 1500, 10'000); ++step) {
        SCOPED_TRACE(step);
        const std::uint32_t box = below(2), choice = below(100), value = below(kMixed);
        Values stored = newest_first(image, box);
        const auto count = static_cast<std::uint32_t>(stored.size());
        const std::uint32_t skip = below(count + 3), wanted = below(kCapacity[box] + 3);
        Operation operation{.op = Op::kAppend, .box = box, .value = value};
        if (choice >= 99) operation.op = Op::kReset;
        if (choice < 60 || choice >= 99) {
            ASSERT_EQ(0u, perform(operation).code);
        } else if (choice < 70) {
            if (count == 0) continue;
            operation.op = Op::kRewrite;
            operation.slot = below(count);
            ASSERT_EQ(0u, perform(operation).code);
        } else if (choice < 84) {
            operation.op = Op::kRead;
            Answer expected{.values = part(stored, skip, wanted + 1)};
            expected.count = static_cast<std::uint32_t>(expected.values.size());
            expected.has_buffer = expected.count != 0;
            ASSERT_EQ(expected, read_newest(box, skip, wanted + 1));
        } else {
            operation.op = Op::kReadSlots;
            std::rotate(stored.begin(), stored.begin() + next_slot_of(image, box) % std::max(count, 1u), stored.end());
            std::ranges::reverse(stored);
            Answer expected{.code = skip == count && count != 0 && wanted != 0, .values = part(stored, skip, wanted)};
            expected.count = static_cast<std::uint32_t>(expected.values.size());
            expected.has_buffer = expected.count != 0;
            ASSERT_EQ(expected, read_slots(box, skip, wanted));
        }
        image = Plan(operation, image).image();
        ASSERT_EQ(image, file());
    }
}

TEST_F(BlackBox, RefusesWhatItCannotStore) {
    ASSERT_EQ(0u, append(0, 1));
    ASSERT_EQ(0u, append(1, 2));
    const Bytes before = file();
    const Bytes data(20000, 0xEE);
    std::uint32_t slot = 77;
    EXPECT_EQ(1u, KOVA_BoxWrite(2, data.data(), 1904, &slot));
    EXPECT_EQ(syslog_message("[Exception] box id is invalid, boxId = 2"), log_recorder().take().back());
    EXPECT_EQ(17u, KOVA_BoxWrite(0, data.data(), 9969, &slot));
    EXPECT_EQ(17u, KOVA_BoxWrite(1, nullptr, 1904, &slot));
    EXPECT_EQ(syslog_message("[Exception] Write box data unsuccessfully, retValue = 1"), log_recorder().take().back());
    EXPECT_EQ(77u, slot);
    EXPECT_EQ(1u, KOVA_BoxRefresh(2, data.data(), 1904, 0));
    EXPECT_EQ(1u, KOVA_BoxRefresh(1, data.data(), 1905, 0));
    EXPECT_EQ(1u, KOVA_BoxRefresh(0, data.data(), 9968, 20));
    EXPECT_EQ(1u, KOVA_BoxReset(2));
    EXPECT_EQ(15u, read_newest(2, 0, 1).code);
    EXPECT_EQ(1u, read_slots(2, 0, 1).code);
    EXPECT_EQ((Answer{.code = 127}), read_newest(0, 0, 0));
    EXPECT_EQ(before, file());
}

TEST_F(BlackBox, AHostileNodeHeadReachesNothingOutsideItsBox) {
    constexpr std::uint32_t kNumbers[] = {0, 3, 20, 100, 430881, 0xFFFFFFFF};  // 9968 * 430881 wraps to 32 bits
    for (std::uint32_t i = 0; i < 20; ++i) ASSERT_EQ(0u, append(0, i));
    ASSERT_EQ(0u, append(1, 9));
    const Bytes sound = file();
    const auto begin = static_cast<std::ptrdiff_t>(kNodeOffset[0]), end = static_cast<std::ptrdiff_t>(kNodeOffset[1]);
    for (const std::uint32_t capacity : kNumbers) {
        for (const std::uint32_t next : kNumbers) {
            for (const std::uint32_t count : kNumbers) {
                SCOPED_TRACE(::testing::Message() << "capacity " << capacity << " next " << next << " count " << count);
                write_file(sound);
                set_node_head(0, capacity, next, count);
                EXPECT_GE(20u, read_newest(0, 0, 0xFFFFFFFF).values.size());
                EXPECT_GE(20u, read_slots(0, 0, 0xFFFFFFFF).values.size());
                append(0, 0xAA);
                EXPECT_EQ(0u, KOVA_BoxReset(0));
                const Bytes after = file();
                ASSERT_EQ(sound.size(), after.size());
                EXPECT_TRUE(std::equal(sound.begin(), sound.begin() + begin, after.begin()));
                EXPECT_TRUE(std::equal(sound.begin() + end, sound.end(), after.begin() + end));
                EXPECT_EQ(0u, count_of(after, 0));
            }
        }
    }
}

}  // namespace
}  // namespace kova::test
