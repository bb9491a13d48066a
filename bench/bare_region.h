// What the accessors of the shared region cannot do without, in a library of its own: reached through the PLT, as they
// are.
#pragma once

#include <cstdint>

#include "kova/resource_region.h"

namespace kova::bench {

// Loads a field and stores it where the caller wants it.
__attribute__((visibility("default"))) void bare_load(const std::uint32_t* field, std::uint32_t* out);

// Looks through the table for one thread and stores its tick.
__attribute__((visibility("default"))) void bare_scan(KovaThreadTick* table, std::uint32_t core, std::uint32_t pid,
                                                      std::uint32_t tid, std::uint64_t tick);

}  // namespace kova::bench
