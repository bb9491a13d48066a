// Name and version of the platform's software, for a machine without software management.
//
// KOVA_PLATFORM_NAME and KOVA_PLATFORM_VERSION in the environment replace the defaults "Kova Platform" and "1.0.0";
// each is cut at 63 characters.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "kova/export.h"

namespace {

constexpr size_t kTextSize = 64;

// The head of the caller's record. The rest of it belongs to callers of other releases and is left alone.
struct PlatformInfo {
    char name[kTextSize];
    char version[kTextSize];
};
static_assert(sizeof(PlatformInfo) == 2 * kTextSize);

void fill(char (&field)[kTextSize], const char* variable, const char* fallback) {
    const char* const value = std::getenv(variable);
    const char* const text = value != nullptr ? value : fallback;
    const size_t length = ::strnlen(text, kTextSize - 1);
    std::memset(field, 0, kTextSize);
    std::memcpy(field, text, length);
}

}  // namespace

// The caller passes its record by an untyped address: it knows a longer one. 0 done, 1 no record.
extern "C" KOVA_API uint32_t YOT_GetPlatformInfo(void* info);

uint32_t YOT_GetPlatformInfo(void* info) {
    if (info == nullptr) return 1;
    auto* const record = static_cast<PlatformInfo*>(info);
    fill(record->name, "KOVA_PLATFORM_NAME", "Kova Platform");
    fill(record->version, "KOVA_PLATFORM_VERSION", "1.0.0");
    return 0;
}
