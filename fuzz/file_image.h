// The bytes of a file, in memory that is used again. AddressSanitizer maps and unmaps blocks of that size each time,
// which took most of a run.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <utility>
#include <vector>

#include "fuzz_input.h"

namespace kova::fuzz {

// One thread. New bytes are zero.
class Image {
  public:
    static constexpr std::size_t kMostBytes = 400'000;

    explicit Image(std::size_t size) : bytes_(take_block()) { resize(size); }
    Image(const Image& other) : bytes_(take_block()), size_(other.size_) { std::memcpy(bytes_, other.bytes_, size_); }
    Image& operator=(const Image&) = delete;
    ~Image() { kept().push_back(bytes_); }

    void resize(std::size_t size) {
        KOVA_EXPECT(size <= kMostBytes);
        if (size > size_) std::memset(bytes_ + size_, 0, size - size_);
        size_ = size;
    }

    [[nodiscard]] std::uint8_t* data() { return bytes_; }
    [[nodiscard]] const std::uint8_t* data() const { return bytes_; }
    [[nodiscard]] std::size_t size() const { return size_; }

    bool operator==(const Image& other) const {
        return size_ == other.size_ && std::memcmp(bytes_, other.bytes_, size_) == 0;
    }

  private:
    static std::vector<std::uint8_t*>& kept() {
        static auto& blocks = *new std::vector<std::uint8_t*>;  // outlives main, or its blocks would be leaks
        return blocks;
    }

    static std::uint8_t* take_block() {
        if (kept().empty()) return static_cast<std::uint8_t*>(std::malloc(kMostBytes));
        std::uint8_t* const block = kept().back();
        kept().pop_back();
        return block;
    }

    std::uint8_t* bytes_;
    std::size_t size_ = 0;
};

}  // namespace kova::fuzz
