// The black box as its users see it, through the shared library and the file it leaves.
#include <algorithm>
#include <random>

#include "sysdiag/except/box_fixture.h"

namespace kova::test {
namespace {

TEST_F(BlackBox, CreateMakesAnEmptyFileOfFullLength) {
    ::umask(0);
    ASSERT_EQ(0u, KOVA_CreateBox());
    const Bytes bytes = file();
    EXPECT_TRUE(heads_are_sound(bytes));
    EXPECT_EQ(0u, count_of(file(), 0));
    EXPECT_EQ(0u, count_of(file(), 1));
    struct stat status {};
    ASSERT_EQ(0, ::stat(kBoxPath, &status));
    EXPECT_EQ(0660u, status.st_mode & 07777u);
    const std::vector<LoggedMessage> expected = {
        syslog_message("[Exception]boxHead is invalid."),
        syslog_message("[Exception]Kova box head is invalid or not initialized."),
        syslog_message("[Exception]box magic is invalid, magic = 0."),
        syslog_message("[Exception]Box node head is invalid."),
        syslog_message("[Exception]box magic is invalid, magic = 0."),
        syslog_message("[Exception]Box node head is invalid."),
    };
    EXPECT_EQ(expected, log_recorder().take());
    EXPECT_EQ(0u, KOVA_CreateBox());
    EXPECT_EQ(bytes, file()) << "a sound file stays as it is";
    EXPECT_TRUE(log_recorder().take().empty());
}

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

TEST_F(BlackBox, AFlippedBitOfAHeadCostsAtMostTheRecordsOfThatBox) {
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(0u, append(0, 5));
        ASSERT_EQ(0u, append(1, 6));
    }
    const Bytes sound = file();
    const struct {
        std::size_t offset, bytes;
        std::uint32_t left[2];  // records
    } heads[] = {{0, 36, {3, 3}}, {kNodeOffset[0], 32, {0, 3}}, {kNodeOffset[1], 32, {3, 0}}};
    for (const auto& head : heads) {
        for (std::size_t bit = 0; bit < head.bytes * 8; bit += by_effort(5u, 1u, 1u)) {
            SCOPED_TRACE(::testing::Message() << "bit " << bit << " of the head at " << head.offset);
            Bytes damaged = sound;
            damaged[head.offset + bit / 8] ^= static_cast<std::uint8_t>(1 << bit % 8);
            write_file(damaged);
            for (const std::uint32_t box : {0u, 1u}) ASSERT_EQ(head.left[box], read_newest(box, 0, 5).count);
            ASSERT_TRUE(heads_are_sound(file()));
            // Of the file's head everything is put right but the reserved word.
            ASSERT_EQ(head.offset == 0 && bit / 8 != 32 && bit / 8 != 33, file() == sound);
        }
    }
}

TEST_F(BlackBox, AHostileNodeHeadReachesNothingOutsideItsBox) {
    constexpr std::uint32_t kHuge = 0xFFFFFFFF;
    const struct {
        const char* name;
        std::uint32_t capacity, next, count;
        std::uint32_t append_code, slot, read_code, read_count, from_code;
    } cases[] = {
        {"capacity 0", 0, 0, 0, 17, 999, 0, 0, 0},
        {"next slot at the capacity", 20, 20, 20, 0, 0, 0, 20, 0},
        {"smaller capacity, full", 3, 3, 3, 0, 0, 0, 3, 0},
        {"larger capacity, next slot in the other box", 100, 20, 20, 17, 999, 0, 20, 0},
        {"larger capacity, full", 60, 50, 60, 17, 999, 0, 0, 0},
        {"huge", kHuge, kHuge, kHuge, 0, 0, 127, 0, 1},
        {"huge, next slot in the other box", kHuge, 20, kHuge, 17, 999, 127, 0, 1},
        {"next slot behind the count", 20, 2, 5, 0, 2, 0, 2, 0},
        {"next slot 0 in a box that is not full", 20, 0, 5, 0, 0, 127, 0, 1},
    };
    ASSERT_EQ(0u, KOVA_CreateBox());
    for (std::uint32_t i = 0; i < 20; ++i) ASSERT_EQ(0u, append(0, i));
    ASSERT_EQ(0u, append(1, 9));
    const Bytes sound = file();
    const auto outside = [](const Bytes& bytes) {
        Bytes rest(bytes.begin(), bytes.begin() + 36);
        rest.insert(rest.end(), bytes.begin() + static_cast<std::ptrdiff_t>(kNodeOffset[1]), bytes.end());
        return rest;
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        for (const bool reset : {false, true}) {
            write_file(sound);
            set_node_head(0, c.capacity, c.next, c.count);
            const Answer answer = read_newest(0, 0, kHuge);
            EXPECT_EQ(c.read_code, answer.code);
            if (c.read_code == 0) {
                EXPECT_EQ(c.read_count, answer.count);
            }
            EXPECT_EQ(c.from_code, read_slots(0, 0, kHuge).code);
            std::uint32_t slot = 999;
            if (reset) {
                EXPECT_EQ(0u, KOVA_BoxReset(0));
                EXPECT_EQ(0u, count_of(file(), 0));
            } else {
                EXPECT_EQ(c.append_code, append(0, 0xAA, &slot));
                EXPECT_EQ(c.slot, slot);
            }
            EXPECT_EQ(outside(sound), outside(file()));
        }
    }
}

}  // namespace
}  // namespace kova::test
