// Which module and symbol an address belongs to, without the loader's lock.
//
// Signal context: safe; reads tables that a broken program may have damaged, so a recovery point belongs around it.
#pragma once

#include <dlfcn.h>

namespace kova {

// Answers what dladdr() answers, with the same strings. False when the address is in no module.
[[nodiscard]] bool find_loaded_symbol(const void* address, Dl_info* info);

}  // namespace kova
