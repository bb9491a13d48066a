// How fields of the shared region that other threads and processes write at the same time are read and written.
//
// Relaxed and in the field's own width: plain loads and stores in the machine code, never torn and never read twice.
// That is enough because no field vouches for another one; the two that do have an order of their own (the attached
// flag, reservedMemSet). What comes out of the region is whatever any process of the node has put there.
#pragma once

#include <concepts>
#include <type_traits>

namespace kova {

template <typename T>
concept RegionField = std::unsigned_integral<T> || std::is_pointer_v<T>;

template <RegionField T>
[[nodiscard]] T load(const T& field) {
    return __atomic_load_n(&field, __ATOMIC_RELAXED);
}

template <RegionField T>
void store(T& field, std::type_identity_t<T> value) {
    __atomic_store_n(&field, value, __ATOMIC_RELAXED);
}

}  // namespace kova
