// A published value on its way from the target to the modules' hooks.
#pragma once

#include <cstdint>

#include "kova/subscription_registry.h"

namespace kova {

// The caller holds g_kovaSubscribeMutexLock; hooks run under it.
void update_target_locked(Target& target, std::uint32_t value);

}  // namespace kova
