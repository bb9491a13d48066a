// What the black box's tests share: the file by its offsets, worked out apart from the code, and verbs to damage it.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "kova/black_box.h"
#include "kova/memory.h"
#include "kova_platform/process_globals.h"
#include "support/log_recorder.h"

namespace kova::test {

using Bytes = std::vector<std::uint8_t>;

inline constexpr char kBoxPath[] = "/opt/norvel/var/log/kova_exception_assert";
inline constexpr std::size_t kFileBytes = 389860;
inline constexpr std::size_t kNodeOffset[2] = {36, 199428};
inline constexpr std::uint32_t kCapacity[2] = {20, 100};
inline constexpr std::uint32_t kRecordBytes[2] = {9968, 1904};
inline constexpr std::size_t kWriteIndexAt = 8;
inline constexpr std::size_t kRecordCountAt = 12;

inline std::size_t slot_at(std::uint32_t box, std::size_t slot) {
    return kNodeOffset[box] + 32 + kRecordBytes[box] * slot;
}

inline std::uint32_t word_at(const Bytes& bytes, std::size_t at) {
    return bytes[at] | bytes[at + 1] << 8 | bytes[at + 2] << 16 | static_cast<std::uint32_t>(bytes[at + 3]) << 24;
}

inline void put_word(Bytes& bytes, std::size_t at, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) bytes[at + static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(value >> (8 * i));
}

// Carries are added one by one until none is left.
inline std::uint16_t model_checksum(const std::uint8_t* data, std::size_t length) {
    std::uint64_t sum = 0;
    for (std::size_t i = 0; i < length; ++i) sum += i % 2 == 1 || i + 1 == length ? data[i] * 256u : data[i];
    while (sum > 0xFFFF) sum = sum - 0x10000 + 1;
    return static_cast<std::uint16_t>(0xFFFF - sum);
}

// The checksum stands in the last two of `size` bytes.
inline void fix_checksum(Bytes& bytes, std::size_t at, std::size_t size) {
    const std::uint16_t sum = model_checksum(bytes.data() + at, size - 2);
    bytes[at + size - 2] = static_cast<std::uint8_t>(sum);
    bytes[at + size - 1] = static_cast<std::uint8_t>(sum >> 8);
}

class BlackBox : public ::testing::Test {
  protected:
    void SetUp() override {
        std::filesystem::remove_all(kBoxPath);
        log_recorder().clear();
    }

    static Bytes record(std::uint32_t box, std::uint8_t fill) { return Bytes(kRecordBytes[box], fill); }

    static std::uint32_t append(std::uint32_t box, std::uint8_t fill, std::uint32_t* slot = nullptr) {
        const Bytes data = record(box, fill);
        return KOVA_BoxWrite(box, data.data(), kRecordBytes[box], slot);
    }

    // First byte of each record that a read delivers, after a look that all its bytes are alike.
    struct Answer {
        std::uint32_t code = 0;
        std::uint32_t count = 0;
        Bytes fills{};
        bool has_buffer = false;
        bool operator==(const Answer&) const = default;
    };
    static Answer read_newest(std::uint32_t box, std::uint32_t skip, std::uint32_t wanted) {
        Answer answer{.count = wanted};
        void* records = nullptr;
        answer.code = KOVA_BoxRead(box, skip, &answer.count, &records);
        return finish(answer, box, records);
    }
    static Answer read_slots(std::uint32_t box, std::uint32_t first, std::uint32_t wanted) {
        Answer answer{.count = wanted};
        void* records = nullptr;
        answer.code = KOVA_BoxReadFromBegin(box, first, &answer.count, &records, g_kovaAgentMemHandle);
        return finish(answer, box, records);
    }

    static Bytes file() {
        Bytes bytes(std::filesystem::file_size(kBoxPath));
        std::ifstream in(kBoxPath, std::ios::binary);
        in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        return bytes;
    }
    static void write_file(const Bytes& bytes) {
        std::ofstream out(kBoxPath, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    }
    static void set_node_head(std::uint32_t box, std::uint32_t capacity, std::uint32_t next, std::uint32_t count) {
        Bytes bytes = file();
        put_word(bytes, kNodeOffset[box] + 4, capacity);
        put_word(bytes, kNodeOffset[box] + kWriteIndexAt, next);
        put_word(bytes, kNodeOffset[box] + kRecordCountAt, count);
        fix_checksum(bytes, kNodeOffset[box], 32);
        write_file(bytes);
    }
    static std::uint32_t next_slot_of(std::uint32_t box) { return word_at(file(), kNodeOffset[box] + kWriteIndexAt); }
    static std::uint32_t count_of(std::uint32_t box) { return word_at(file(), kNodeOffset[box] + kRecordCountAt); }

  private:
    static Answer finish(Answer answer, std::uint32_t box, void* records) {
        answer.has_buffer = records != nullptr;
        if (records != nullptr && answer.code == 0) {
            for (std::uint32_t i = 0; i < answer.count; ++i) {
                const auto* data = static_cast<const std::uint8_t*>(records) + std::size_t{i} * kRecordBytes[box];
                answer.fills.push_back(data[0]);
                EXPECT_EQ(0, std::memcmp(data, data + 1, kRecordBytes[box] - 1)) << "record " << i << " is mixed";
            }
        }
        KovaBaseFree(g_kovaAgentMemHandle, records, "test", 0);
        return answer;
    }
};

}  // namespace kova::test
