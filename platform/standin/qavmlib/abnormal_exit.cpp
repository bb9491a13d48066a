// Tells whether the process is exiting abnormally, for a machine without process management.
//
// KOVA_ABNORMAL_EXIT=1 in the environment says so. It is read when the library is loaded: the question is asked in
// signal handlers, where the environment may be half changed.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "kova/export.h"

namespace {

constinit uint32_t g_abnormal_exit = 0;

[[gnu::constructor]] void read_environment() {
    const char* const value = std::getenv("KOVA_ABNORMAL_EXIT");
    if (value != nullptr && std::strcmp(value, "1") == 0) g_abnormal_exit = 1;
}

}  // namespace

// Signals: safe.
extern "C" KOVA_API uint32_t QAV_IsProcessAbnormalExit(void);

uint32_t QAV_IsProcessAbnormalExit(void) {
    return g_abnormal_exit;
}
