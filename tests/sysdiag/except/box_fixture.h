// What the black box's tests share: verbs for its operations and for damage to its file.
#pragma once

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>

#include "support/crash_traces.h"
#include "support/log_recorder.h"
#include "sysdiag/except/box_model.h"

namespace kova::test {

inline constexpr std::uint32_t kMixed = 0xFFFFFFFF;  // of a record that is not the same word throughout

// How much of a proof to run: usually a part of it, less where everything takes ten times as long (under sanitizers,
// and on the emulated arm64 machine), all of it with KOVA_NIGHTLY in the environment.
template <typename T>
T by_effort([[maybe_unused]] T least, [[maybe_unused]] T usual, T all) {
    if (std::getenv("KOVA_NIGHTLY") != nullptr) return all;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(__aarch64__)
    return least;
#else
    return usual;
#endif
}

class BlackBox : public ::testing::Test {
  protected:
    void SetUp() override {
        std::filesystem::remove_all(kBoxPath);
        log_recorder().clear();
    }

    static std::uint32_t append(std::uint32_t box, std::uint32_t value, std::uint32_t* slot = nullptr) {
        return KOVA_BoxWrite(box, record_of(box, value).data(), kRecordBytes[box], slot);
    }
    static std::uint32_t rewrite(std::uint32_t box, std::uint32_t value, std::uint32_t slot) {
        return KOVA_BoxRefresh(box, record_of(box, value).data(), kRecordBytes[box], slot);
    }

    // What a read delivers: the word of each record.
    struct Answer {
        std::uint32_t code = 0;
        std::uint32_t count = 0;
        Values values{};
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

    // Reads ask for all that a box may hold.
    static Answer perform(const Operation& operation) {
        const std::uint32_t box = operation.box;
        switch (operation.op) {
            case Op::kAppend:
                return {.code = append(box, operation.value)};
            case Op::kRewrite:
                return {.code = rewrite(box, operation.value, operation.slot)};
            case Op::kReset:
                return {.code = KOVA_BoxReset(box)};
            case Op::kCreate:
                return {.code = KOVA_CreateBox()};
            case Op::kRead:
                return read_newest(box, 0, kCapacity[box]);
            case Op::kReadSlots:
                return read_slots(box, 0, kCapacity[box]);
        }
        return {};
    }

    // The file in every state that matters to an operation. Record i of a box says i, counted from 1.
    struct State {
        const char* name;
        Bytes image;
    };
    static const std::vector<State>& states() {
        static const std::vector<State> all = [] {
            const auto filled = [](Bytes image, std::uint32_t more0, std::uint32_t more1) {
                for (std::uint32_t i = 0; i < more0; ++i) image = Plan({Op::kAppend, 0, i + 1}, image).image();
                for (std::uint32_t i = 0; i < more1; ++i) image = Plan({Op::kAppend, 1, i + 1}, image).image();
                return image;
            };
            const Bytes empty = Plan({Op::kCreate}, {}).image();
            const Bytes full = filled(empty, 23, 103);
            Bytes damaged = full;
            for (const std::size_t at : {std::size_t{5}, kNodeOffset[0] + 30, kNodeOffset[1] + 9}) damaged[at] ^= 1;
            return std::vector<State>{{"absent", {}},
                                      {"empty", empty},
                                      {"filling", filled(empty, 3, 3)},
                                      {"full", full},
                                      {"damaged", damaged}};
        }();
        return all;
    }
    // An empty image is a missing file.
    static void put(const Bytes& image) {
        std::filesystem::remove_all(kBoxPath);
        if (!image.empty()) write_file(image);
    }

    static Bytes file() {
        if (!std::filesystem::exists(kBoxPath)) return {};
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

  private:
    static Answer finish(Answer answer, std::uint32_t box, void* records) {
        answer.has_buffer = records != nullptr;
        if (records != nullptr && answer.code == 0) {
            for (std::uint32_t i = 0; i < answer.count; ++i) {
                const auto* data = static_cast<const std::uint8_t*>(records) + std::size_t{i} * kRecordBytes[box];
                std::uint32_t value = 0;
                std::memcpy(&value, data, sizeof value);
                answer.values.push_back(std::memcmp(data, data + 4, kRecordBytes[box] - 4) == 0 ? value : kMixed);
            }
        }
        KovaBaseFree(g_kovaAgentMemHandle, records, "test", 0);
        return answer;
    }
};

}  // namespace kova::test
