// Process-wide variables that one thread sets while another, perhaps in a signal handler, reads them.
#pragma once

#include <atomic>

namespace kova {

template <typename T>
[[nodiscard]] T load_acquire(T& variable) {
    return std::atomic_ref<T>(variable).load(std::memory_order_acquire);
}

template <typename T>
void store_release(T& variable, T value) {
    std::atomic_ref<T>(variable).store(value, std::memory_order_release);
}

}  // namespace kova
