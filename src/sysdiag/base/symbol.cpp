// From a code address to module and function, or to the platform's name for hot-patched code.
//
// Signal context: all of it. dladdr() waits for the loader's lock, so the record handler looks without it. Both may
// fault on damaged memory: the record handler arms a recovery point around them.
#include "kova/symbol.h"

#include <dlfcn.h>
#include <algorithm>
#include <cstring>

#include "base/loaded_symbol.h"
#include "base/result.h"
#include "base/signal_scope.h"
#include "base/system_log.h"
#include "kova_platform/bounded_string.h"
#include "kova_platform/patch.h"

#include "base/signal_path.h"

namespace kova {
namespace {

// Every other answer than 1 is a no.
constexpr uint32_t kInSegment = 1;
constexpr uint64_t kInstructionBytes = 4;

struct PatchName {
    Code code = kUnavailable;
    bool looked_up = false;
    const char* at_address = nullptr;
    const char* best = nullptr;  // the name of the instruction before, where the first one is only a number
};

PatchName find_patch_name(uint64_t address) {
    const char* (*name_of)(uint64_t) = nullptr;
    if (RUX_DLLPatchSegAddrCheck(address) == kInSegment) {
        name_of = RUX_DLLPatchSymNameGet_Safe;
    } else if (RUX_PatchSegAddrCheck(address) == kInSegment) {
        name_of = RUX_PatchSymNameGet_Safe;
    } else {
        return {};
    }
    PatchName name{.looked_up = true, .at_address = name_of(address)};
    name.best = name.at_address;
    if (name.at_address == nullptr) return name;
    name.code = kOk;
    if (std::strstr(name.at_address, "0x") != nullptr && address >= kInstructionBytes) {
        name.best = name_of(address - kInstructionBytes);
    }
    return name;
}

Code write_patch_name(uint64_t address, char* buffer, uint32_t length) {
    const PatchName name = find_patch_name(address);
    if (name.code != kOk) return kFailed;
    const char* text = name.best != nullptr ? name.best : name.at_address;
    if (snprintf_truncated_s(buffer, length, "%s", text) < 0) {
        report_to_system_log("snprintf_truncated_s unsuccessful.(funcName=%s)", text);
    }
    return kOk;
}

// Answers the characters written, 0 when that failed.
std::size_t write_module(const Dl_info& info, uint64_t offset, char* buffer, std::size_t size) {
    const char* slash = std::strrchr(info.dli_fname, '/');
    const char* file_name = slash != nullptr ? slash + 1 : info.dli_fname;
    const int written = snprintf_truncated_s(buffer, size, "[%s+0x%lx]", file_name, offset);
    if (written >= 0) return static_cast<std::size_t>(written);
    if (slash != nullptr) {
        report_to_system_log("fileNameStart isn't NULL, snprintf_truncated_s unsuccessful.");
    } else {
        report_to_system_log("fileNameStart is NULL, snprintf_truncated_s unsuccessful.");
    }
    return 0;
}

void write_symbol(const char* name, uint64_t offset, char* buffer, std::size_t size) {
    if (name != nullptr) {
        if (snprintf_truncated_s(buffer, size, "(%s+0x%lx)", name, offset) < 0) {
            report_to_system_log("dli_sname isn't NULL, snprintf_truncated_s unsuccessful.");
        }
    } else if (snprintf_truncated_s(buffer, size, "(0x%lx)", offset) < 0) {
        report_to_system_log("dli_sname is NULL, snprintf_truncated_s unsuccessful.");
    }
}

bool find_symbol(uint64_t address, Dl_info* info) {
    const void* const pointer = reinterpret_cast<const void*>(static_cast<uintptr_t>(address));
    return in_signal_scope() ? find_loaded_symbol(pointer, info) : ::dladdr(pointer, info) != 0;
}

uint64_t as_number(const void* pointer) {
    return reinterpret_cast<uintptr_t>(pointer);
}

}  // namespace
}  // namespace kova

using kova::as_number;
using kova::kFailed;
using kova::kOk;

uint32_t KOVA_GetFuncSymbol(uint64_t address, char* buffer, uint32_t length) {
    if (buffer == nullptr) return kFailed;
    Dl_info info{};
    if (!kova::find_symbol(address, &info)) return kova::write_patch_name(address, buffer, length);
    const uint64_t module_start = as_number(info.dli_fbase);
    const uint64_t symbol_start = as_number(info.dli_saddr);  // 0 where there is no symbol
    if (module_start > address || symbol_start > address) return kFailed;
    const std::size_t written = kova::write_module(info, address - module_start, buffer, length);
    if (written < length)
        kova::write_symbol(info.dli_sname, address - symbol_start, buffer + written, length - written);
    return kOk;
}

uint32_t KovaGetPatchFuncName(uint64_t address, const char** name) {
    if (name == nullptr) return kova::kUnavailable;
    const kova::PatchName found = kova::find_patch_name(address);
    if (found.looked_up) *name = found.best;
    return found.code;
}
