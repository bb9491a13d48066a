// The black box as its users see it, through the shared library and the file it leaves.
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <deque>
#include <random>
#include <thread>

#include "sysdiag/except/box_fixture.h"

namespace kova::test {
namespace {

bool heads_are_valid(const Bytes& bytes) {
    if (bytes.size() != kFileBytes) return false;
    Bytes expected(bytes.begin(), bytes.begin() + 36);
    const std::uint32_t words[] = {0x1A2B3C4D, 1, 1, 1, 0, 2, 36, 199428};
    for (std::size_t i = 0; i < std::size(words); ++i) put_word(expected, i * 4, words[i]);
    fix_checksum(expected, 0, 36);
    if (!std::equal(expected.begin(), expected.end(), bytes.begin())) return false;
    for (const std::uint32_t box : {0u, 1u}) {
        Bytes node(bytes.begin() + static_cast<std::ptrdiff_t>(kNodeOffset[box]),
                   bytes.begin() + static_cast<std::ptrdiff_t>(kNodeOffset[box] + 32));
        const Bytes found = node;
        const std::uint32_t fixed[][2] = {{0, 0x1A2B3C4D}, {4, kCapacity[box]},     {16, 0xFFFFFFFF},
                                          {20, 0},         {24, kRecordBytes[box]}, {28, 0}};
        for (const auto& [at, value] : fixed) put_word(node, at, value);
        fix_checksum(node, 0, 32);
        if (node != found) return false;
    }
    return true;
}

TEST_F(BlackBox, CreateMakesAnEmptyFileOfFullLength) {
    ::umask(0);
    ASSERT_EQ(0u, KOVA_CreateBox());
    const Bytes bytes = file();
    EXPECT_TRUE(heads_are_valid(bytes));
    EXPECT_EQ(0u, count_of(0));
    EXPECT_EQ(0u, count_of(1));
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

// A ring as a queue: what the oldest records are is not computed but remembered.
struct ModelBox {
    struct Stored {
        std::uint32_t slot;
        std::uint8_t fill;
    };
    std::deque<Stored> stored{};
    std::uint32_t next = 0;
};

TEST_F(BlackBox, AnyOrderOfOperationsAgreesWithAModel) {
    const std::uint32_t seed = std::random_device{}();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const auto below = [&](std::uint32_t limit) { return static_cast<std::uint32_t>(random() % limit); };
    std::array<ModelBox, 2> model;
    for (int step = 0; step < 1500; ++step) {
        SCOPED_TRACE(step);
        const std::uint32_t box = below(2);
        ModelBox& ring = model[box];
        const auto fill = static_cast<std::uint8_t>(1 + below(255));
        const std::uint32_t choice = below(100);
        const auto stored = static_cast<std::uint32_t>(ring.stored.size());
        if (choice < 60) {
            std::uint32_t slot = 999;
            ASSERT_EQ(0u, append(box, fill, &slot));
            ASSERT_EQ(ring.next, slot);
            if (stored == kCapacity[box]) ring.stored.pop_front();
            ring.stored.push_back({slot, fill});
            ring.next = slot + 1 == kCapacity[box] ? 0 : slot + 1;
        } else if (choice < 70 && stored != 0) {
            ModelBox::Stored& chosen = ring.stored[below(stored)];
            ASSERT_EQ(0u, KOVA_BoxRefresh(box, record(box, fill).data(), kRecordBytes[box], chosen.slot));
            chosen.fill = fill;
        } else if (choice < 84) {
            const std::uint32_t skip = below(stored + 3), wanted = 1 + below(kCapacity[box] + 3);
            Answer expected;
            for (std::uint32_t i = skip; i < stored && i < skip + wanted; ++i) {
                expected.fills.push_back(ring.stored[stored - 1 - i].fill);
            }
            expected.count = static_cast<std::uint32_t>(expected.fills.size());
            expected.has_buffer = expected.count != 0;
            ASSERT_EQ(expected, read_newest(box, skip, wanted));
        } else if (choice < 99) {
            const std::uint32_t first = below(stored + 3), wanted = below(kCapacity[box] + 3);
            Answer expected;
            for (std::uint32_t slot = first; slot < stored && slot < first + wanted; ++slot) {
                const auto found = std::ranges::find(ring.stored, slot, &ModelBox::Stored::slot);
                expected.fills.push_back(found->fill);
            }
            expected.count = static_cast<std::uint32_t>(expected.fills.size());
            expected.has_buffer = expected.count != 0;
            expected.code = first == stored && stored != 0 && wanted != 0 ? 1 : 0;
            ASSERT_EQ(expected, read_slots(box, first, wanted));
        } else {
            ASSERT_EQ(0u, KOVA_BoxReset(box));
            const Bytes bytes = file();
            const auto* slots = bytes.data() + slot_at(box, 0);
            ASSERT_TRUE(std::all_of(slots, slots + std::size_t{kRecordBytes[box]} * stored,
                                    [](std::uint8_t byte) { return byte == 0; }));
            ring = {};
        }
    }
    EXPECT_TRUE(heads_are_valid(file()));
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
    EXPECT_EQ(1u, KOVA_BoxRefresh(1, data.data(), 1904, 0xFFFFFFFF));
    EXPECT_EQ(1u, KOVA_BoxReset(2));
    EXPECT_EQ(15u, read_newest(2, 0, 1).code);
    EXPECT_EQ(1u, read_slots(2, 0, 1).code);
    EXPECT_EQ((Answer{.code = 127}), read_newest(0, 0, 0));
    EXPECT_EQ(before, file());
}

TEST_F(BlackBox, AFlippedBitOfANodeHeadEmptiesThatBoxOnly) {
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(0u, append(0, 5));
        ASSERT_EQ(0u, append(1, 6));
    }
    const Bytes sound = file();
    for (const std::uint32_t box : {0u, 1u}) {
        for (std::size_t bit = 0; bit < 32 * 8; ++bit) {
            SCOPED_TRACE(::testing::Message() << "box " << box << " bit " << bit);
            Bytes damaged = sound;
            damaged[kNodeOffset[box] + bit / 8] ^= static_cast<std::uint8_t>(1 << bit % 8);
            write_file(damaged);
            ASSERT_EQ(0u, read_newest(box, 0, 5).count);
            ASSERT_EQ(3u, read_newest(1 - box, 0, 5).count);
            ASSERT_TRUE(heads_are_valid(file()));
        }
    }
}

TEST_F(BlackBox, AFlippedBitOfTheFileHeadCostsNoRecord) {
    ASSERT_EQ(0u, KOVA_CreateBox());
    ASSERT_EQ(0u, append(0, 5));
    const Bytes sound = file();
    for (std::size_t bit = 0; bit < 36 * 8; ++bit) {
        SCOPED_TRACE(bit);
        Bytes damaged = sound;
        damaged[bit / 8] ^= static_cast<std::uint8_t>(1 << bit % 8);
        write_file(damaged);
        ASSERT_EQ((Answer{.count = 1, .fills = {5}, .has_buffer = true}), read_newest(0, 0, 5));
        // The reserved word keeps what was read there; everything else is put right.
        const bool reserved = bit / 8 == 32 || bit / 8 == 33;
        ASSERT_TRUE(heads_are_valid(file()));
        ASSERT_EQ(!reserved, file() == sound);
    }
}

TEST_F(BlackBox, AShortFileReadsAsZerosAndIsMadeWholeByAnAppend) {
    ASSERT_EQ(0u, append(0, 5));
    ASSERT_EQ(0u, append(0, 6));
    for (const std::size_t length : {std::size_t{0}, std::size_t{20}, std::size_t{50}, slot_at(0, 1), slot_at(0, 2)}) {
        SCOPED_TRACE(length);
        std::filesystem::resize_file(kBoxPath, length);
        const bool heads_gone = length < 68;
        const Answer answer = read_newest(0, 0, 9);
        EXPECT_EQ(heads_gone ? 0u : 2u, answer.count);
        if (length == slot_at(0, 1)) {
            EXPECT_EQ((Bytes{0, 5}), answer.fills);
        }
        ASSERT_EQ(0u, KOVA_BoxReset(0));
        ASSERT_EQ(0u, append(0, 5));
        ASSERT_EQ(0u, append(0, 6));
        ASSERT_EQ(0u, KOVA_CreateBox());
        EXPECT_TRUE(heads_are_valid(file()));
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
    for (std::uint8_t i = 0; i < 20; ++i) ASSERT_EQ(0u, append(0, i));
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
                EXPECT_EQ(0u, count_of(0));
            } else {
                EXPECT_EQ(c.append_code, append(0, 0xAA, &slot));
                EXPECT_EQ(c.slot, slot);
            }
            EXPECT_EQ(outside(sound), outside(file()));
        }
    }
}

// Many small operations of several threads in several processes at once. Each record is one of a kind.
TEST_F(BlackBox, NoAppendOfAnotherThreadOrProcessIsLost) {
    constexpr std::uint8_t kProcesses = 4, kThreads = 3, kAppends = 8;  // 96 of 100 slots
    std::vector<pid_t> children;
    for (std::uint8_t process = 0; process < kProcesses; ++process) {
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            std::array<std::thread, kThreads> threads;
            std::array<std::uint32_t, kThreads> failures{};
            for (std::uint8_t t = 0; t < kThreads; ++t) {
                threads[t] = std::thread([=, &failures] {
                    for (std::uint8_t i = 0; i < kAppends; ++i) {
                        const int fill = (process * kThreads + t) * kAppends + i;
                        failures[t] += append(1, static_cast<std::uint8_t>(fill)) != 0;
                        failures[t] += append(0, static_cast<std::uint8_t>(fill)) != 0;
                    }
                });
            }
            for (auto& thread : threads) thread.join();
            ::_exit(failures == std::array<std::uint32_t, kThreads>{} ? 0 : 1);
        }
        children.push_back(child);
    }
    for (const pid_t child : children) {
        int status = -1;
        ASSERT_EQ(child, ::waitpid(child, &status, 0));
        EXPECT_EQ(0, status);
    }
    Answer all = read_newest(1, 0, 100);
    std::ranges::sort(all.fills);
    Bytes expected;
    for (int fill = 0; fill < kProcesses * kThreads * kAppends; ++fill) {
        expected.push_back(static_cast<std::uint8_t>(fill));
    }
    EXPECT_EQ(expected, all.fills);
    EXPECT_EQ(20u, read_newest(0, 0, 100).count);
    EXPECT_EQ(96u % 20, next_slot_of(0));
    EXPECT_TRUE(heads_are_valid(file()));
}

}  // namespace
}  // namespace kova::test
