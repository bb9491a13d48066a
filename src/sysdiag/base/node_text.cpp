// The texts by which reports name the node.
//
// Signal context: all of it.
#include "base/node_text.h"

#include "kova/node_identity.h"
#include "kova_platform/bounded_string.h"
#include "kova_platform/process_globals.h"

#include "base/signal_path.h"

int32_t KOVA_GetSlotIdStr(char* buffer, int32_t size) {
    return sprintf_s(buffer, kova::usable_size(size), "%s", g_kovaSelfSlotid);
}

int32_t KOVA_GetCpuIdStr(char* buffer, int32_t size) {
    return sprintf_s(buffer, kova::usable_size(size), "%u", g_kovaSelfCpuid);
}
