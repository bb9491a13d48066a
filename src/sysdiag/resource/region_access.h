// How fields that other threads and processes write at the same time are read and written, and how an accessor finds
// the region.
//
// Relaxed and in the field's own width: plain loads and stores in the machine code, never torn and never read twice.
// That is enough because no field vouches for another one; the three that do have an order of their own (the attached
// flag, reservedMemSet, the thread id by which an entry is taken). What comes out of the region is whatever any process
// of the node has put there.
#pragma once

#include <concepts>
#include <cstdint>
#include <type_traits>

#include "base/shared_word.h"
#include "kova/resource_region.h"
#include "kova_platform/process_globals.h"

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

// The flag is read with acquire: the pointers that attaching stored before it are there.
[[nodiscard]] inline bool is_attached() {
    return load_acquire(g_KovaResourceInitAgentOK) != 0;
}

// Null while detached. The mapping lives as long as the process.
[[nodiscard]] inline KovaResourceRegion* attached_region() {
    return is_attached() ? load(g_KovaResourceInfoAgent) : nullptr;
}

}  // namespace kova
