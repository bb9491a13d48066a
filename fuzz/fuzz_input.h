// What the fuzzers share: numbers taken off the front of an input, and an expectation that ends the program.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>

namespace kova::fuzz {

using Bytes = std::span<const std::uint8_t>;

// Not assert: it must hold in every build, and libFuzzer keeps the input of a program that aborts.
#define KOVA_EXPECT(condition)                                                            \
    do {                                                                                  \
        if (!(condition)) {                                                               \
            std::fprintf(stderr, "%s:%d: expected %s\n", __FILE__, __LINE__, #condition); \
            std::abort();                                                                 \
        }                                                                                 \
    } while (false)

class Input {
  public:
    explicit Input(Bytes bytes) : rest_(bytes) {}

    // Zero where the input ends early, so that an input need not be complete.
    template <typename T>
    T number() {
        T value{};
        const Bytes bytes = take(sizeof value);
        std::memcpy(&value, bytes.data(), bytes.size());
        return value;
    }

    // At most `length` bytes.
    Bytes take(std::size_t length) {
        const Bytes taken = rest_.first(length < rest_.size() ? length : rest_.size());
        rest_ = rest_.subspan(taken.size());
        return taken;
    }

    [[nodiscard]] Bytes rest() const { return rest_; }
    [[nodiscard]] bool is_empty() const { return rest_.empty(); }

  private:
    Bytes rest_;
};

// What each fuzzer does with an input.
void run(Input& input);

}  // namespace kova::fuzz
