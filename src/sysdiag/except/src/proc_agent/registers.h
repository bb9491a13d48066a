// The one place that knows the processor: registers out of a user context. One file per architecture, chosen by CMake.
//
// Signal context: safe.
#pragma once

#include <ucontext.h>

#include "kova/exception_record.h"

namespace kova {

void copy_registers(const ucontext_t& context, KovaRegisterBlock* registers);

}  // namespace kova
