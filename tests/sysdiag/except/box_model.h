// What the black box's operations do to its file, worked out apart from the code: each operation as the calls it makes,
// with the result of each call's failure and the bytes of each write. Whatever happens to an operation midway, the file
// it leaves is the one that its first calls make.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

namespace kova::test {

using Bytes = std::vector<std::uint8_t>;
using Values = std::vector<std::uint32_t>;

inline constexpr std::size_t kFileBytes = 389860;
inline constexpr std::size_t kNodeOffset[2] = {36, 199428};
inline constexpr std::uint32_t kCapacity[2] = {20, 100};
inline constexpr std::uint32_t kRecordBytes[2] = {9968, 1904};
inline constexpr std::size_t kWriteIndexAt = 8;
inline constexpr std::size_t kRecordCountAt = 12;

inline std::size_t slot_at(std::uint32_t box, std::size_t slot) {
    return kNodeOffset[box] + 32 + kRecordBytes[box] * slot;
}

// What lies beyond the end is zero.
inline std::uint32_t word_at(const Bytes& bytes, std::size_t at) {
    std::uint32_t word = 0;
    for (std::size_t i = 4; i-- > 0;) word = word << 8 | (at + i < bytes.size() ? bytes[at + i] : 0u);
    return word;
}

inline void put_word(Bytes& bytes, std::size_t at, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) bytes[at + static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(value >> (8 * i));
}

inline std::uint32_t next_slot_of(const Bytes& image, std::uint32_t box) {
    return word_at(image, kNodeOffset[box] + kWriteIndexAt);
}
inline std::uint32_t count_of(const Bytes& image, std::uint32_t box) {
    return word_at(image, kNodeOffset[box] + kRecordCountAt);
}

// The word in the middle of each record stored.
inline Values newest_first(const Bytes& image, std::uint32_t box) {
    Values values;
    const std::uint32_t newest = next_slot_of(image, box) + kCapacity[box] - 1;
    for (std::uint32_t i = 0; i < count_of(image, box); ++i) {
        values.push_back(word_at(image, slot_at(box, (newest - i) % kCapacity[box]) + 400));
    }
    return values;
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

inline Bytes of_words(std::initializer_list<std::uint32_t> words) {
    Bytes bytes(words.size() * 4);
    std::size_t at = 0;
    for (const std::uint32_t word : words) put_word(bytes, std::exchange(at, at + 4), word);
    fix_checksum(bytes, 0, bytes.size());
    return bytes;
}
inline Bytes sound_file_head(std::uint32_t reserved) {
    return of_words({0x1A2B3C4D, 1, 1, 1, 0, 2, 36, 199428, reserved & 0xFFFF});
}
inline Bytes sound_node_head(std::uint32_t box, std::uint32_t next, std::uint32_t count) {
    return of_words({0x1A2B3C4D, kCapacity[box], next, count, 0xFFFFFFFF, 0, kRecordBytes[box], 0});
}

// A record says the same word throughout: a mixture of two shows.
inline Bytes record_of(std::uint32_t box, std::uint32_t value) {
    const std::vector<std::uint32_t> words(kRecordBytes[box] / 4, value);
    Bytes bytes(kRecordBytes[box]);
    std::memcpy(bytes.data(), words.data(), bytes.size());
    return bytes;
}

inline bool stands_at(const Bytes& image, std::size_t at, const Bytes& part) {
    return at + part.size() <= image.size() &&
           std::equal(part.begin(), part.end(), image.begin() + static_cast<std::ptrdiff_t>(at));
}

inline bool file_head_is_sound(const Bytes& image) {
    return stands_at(image, 0, sound_file_head(word_at(image, 32)));
}
// As the operations take care to keep it: they themselves admit more.
inline bool node_head_is_sound(const Bytes& image, std::uint32_t box) {
    const std::uint32_t next = next_slot_of(image, box), count = count_of(image, box), capacity = kCapacity[box];
    return stands_at(image, kNodeOffset[box], sound_node_head(box, next, count)) &&
           (count < capacity ? next == count : count == capacity && next < capacity);
}
inline bool heads_are_sound(const Bytes& image) {
    return image.size() == kFileBytes && file_head_is_sound(image) && node_head_is_sound(image, 0) &&
           node_head_is_sound(image, 1);
}

struct Write {
    std::size_t at;
    Bytes data;
};
// The first `length` bytes of it.
inline void put_into(Bytes& image, const Write& write, std::size_t length) {
    if (length == 0) return;
    if (image.size() < write.at + length) image.resize(write.at + length);
    std::copy_n(write.data.begin(), length, image.begin() + static_cast<std::ptrdiff_t>(write.at));
}

enum class Op { kAppend, kRewrite, kReset, kCreate, kRead, kReadSlots };

struct Operation {
    Op op = Op::kAppend;
    std::uint32_t box = 0;
    std::uint32_t value = 0;  // of the record that an append or a rewrite stores
    std::uint32_t slot = 0;   // that is rewritten
};

constexpr std::uint32_t kGoesOn = 0;             // the operation does not fail for this
constexpr std::uint32_t kReplaces = 0xFFFFFFF0;  // the operation removes the file and tries again

struct Step {
    std::string_view call;
    std::uint32_t code = kGoesOn;  // of the operation, when this call fails
    Write write{};
};

inline void put_into(Bytes& image, const Step& step) {
    if (step.call == "ftruncate") image.resize(kFileBytes);
    put_into(image, step.write, step.write.data.size());
}

class Plan {
  public:
    // What `operation` does to a file that stands as in `image`; a missing file stands as an empty one.
    Plan(const Operation& operation, Bytes image) : image_(std::move(image)), op_(operation.op) {
        const std::uint32_t box = operation.box;
        const bool replaces = op_ == Op::kReset || op_ == Op::kCreate;
        const bool appends = op_ == Op::kAppend;
        call("open", replaces ? kReplaces : 22);
        // What is not to be changed before the lock is looked at once, after it.
        if (replaces || appends) call("fstat", replaces ? kReplaces : 22);
        if (appends) call("ftruncate", 33);
        if (op_ == Op::kCreate) call("ftruncate", 0xFFFFFFF8);
        call("lock", appends ? 54 : 53);
        call("fstat", kGoesOn);
        head(0, sound_file_head(word_at(image_, 32)), file_head_is_sound(image_), appends ? 5 : 4, 1);
        for (const std::uint32_t id : {0u, 1u}) {
            if (id != box && op_ != Op::kCreate) continue;
            head(kNodeOffset[id], sound_node_head(id, 0, 0), node_head_is_sound(image_, id), appends ? 6 : 5, 2);
        }
        const std::uint32_t next = next_slot_of(image_, box), count = count_of(image_, box);
        switch (op_) {
            case Op::kAppend:
                write(slot_at(box, next), record_of(box, operation.value), 67, 87);
                write(kNodeOffset[box],
                      sound_node_head(box, (next + 1) % kCapacity[box], std::min(count + 1, kCapacity[box])), 6, 8);
                break;
            case Op::kRewrite:
                write(slot_at(box, operation.slot), record_of(box, operation.value), 1, 1);
                break;
            case Op::kReset:
                if (count == 0) break;
                write(slot_at(box, 0), Bytes(std::size_t{kRecordBytes[box]} * count), kGoesOn, kGoesOn);
                write(kNodeOffset[box], sound_node_head(box, 0, 0), 66, 86);
                break;
            case Op::kRead:
            case Op::kReadSlots:
                for (std::uint32_t i = 0; i < count; ++i) {
                    steps_.push_back({"lseek"});
                    steps_.push_back({"read"});
                }
                break;
            case Op::kCreate:
                break;
        }
        call("unlock", kGoesOn);
        call("close", kGoesOn);
    }

    [[nodiscard]] const std::vector<Step>& steps() const { return steps_; }
    [[nodiscard]] const Bytes& image() const { return image_; }  // after all of them

    // The file when only the calls before `count` were made, and half of that one's write if it is `halved`.
    [[nodiscard]] static Bytes image_after(Bytes image, const std::vector<Step>& steps, std::size_t count,
                                           bool halved) {
        for (std::size_t i = 0; i < count; ++i) put_into(image, steps[i]);
        if (halved) put_into(image, steps[count].write, steps[count].write.data.size() / 2);
        return image;
    }

  private:
    void call(std::string_view name, std::uint32_t code) {
        const bool always_1 = op_ == Op::kRewrite || op_ == Op::kReadSlots;
        steps_.push_back({name, always_1 && code != kGoesOn ? 1 : code});
        put_into(image_, steps_.back());
    }
    void write(std::size_t at, Bytes data, std::uint32_t seek_code, std::uint32_t code) {
        call("lseek", seek_code);
        call("write", code);
        steps_.back().write = {at, std::move(data)};
        put_into(image_, steps_.back());
    }
    // Read, and where it is damaged written anew.
    void head(std::size_t at, const Bytes& fresh, bool sound, std::uint32_t step, std::uint32_t read_step) {
        call("lseek", 600 + read_step * 10 + step);
        call("read", 700 + read_step * 10 + step);
        if (!sound) write(at, fresh, 600 + (read_step + 1) * 10 + step, 800 + (read_step + 1) * 10 + step);
    }

    Bytes image_;
    Op op_;
    std::vector<Step> steps_{};
};

}  // namespace kova::test
