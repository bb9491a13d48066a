// Reads and writes fields of the shared region, which other processes read and write at the same time.
//
// Relaxed and of the field's own width: no value is ever torn, and nobody may conclude from one field what another
// holds.
#pragma once

#include <atomic>

namespace kova::kovad {

template <typename T>
[[nodiscard]] T load(T& field) {
    return std::atomic_ref<T>(field).load(std::memory_order_relaxed);
}

template <typename T>
void store(T& field, T value) {
    std::atomic_ref<T>(field).store(value, std::memory_order_relaxed);
}

}  // namespace kova::kovad
