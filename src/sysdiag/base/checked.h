// Arithmetic on numbers that come from a file, a region or /proc, before they size or index anything.
#pragma once

#include <cassert>
#include <concepts>
#include <limits>
#include <utility>

namespace kova {

template <std::integral T>
[[nodiscard]] constexpr bool checked_add(T a, T b, T* sum) {
    return !__builtin_add_overflow(a, b, sum);
}

template <std::integral T>
[[nodiscard]] constexpr bool checked_mul(T a, T b, T* product) {
    return !__builtin_mul_overflow(a, b, product);
}

template <std::unsigned_integral T>
[[nodiscard]] constexpr T saturating_add(T a, T b) {
    T sum = 0;
    return __builtin_add_overflow(a, b, &sum) ? std::numeric_limits<T>::max() : sum;
}

// For values that the code before has shown to fit.
template <std::integral To, std::integral From>
[[nodiscard]] constexpr To narrow(From value) {
    return static_cast<To>(value);
}

}  // namespace kova
