// Slot text and CPU id of this node, kept in globals of the platform.
#include "kova/node_identity.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>

#include "base/log_message.h"
#include "base/node_text.h"
#include "base/result.h"
#include "kova_platform/bounded_string.h"
#include "kova_platform/node.h"
#include "kova_platform/process_globals.h"

namespace kova {
namespace {

constexpr int32_t kFirstFabricSlot = 21;
constexpr const char* kFabricNames[] = {"SFU1", "SFU2", "SFU3", "SFU4", "SFU5", "SFU6", "SFU7", "SFU8", "SFU9"};

bool is_set(uint32_t answer) {
    return (answer & 1U) != 0;
}

// Slot numbers are unique within the node only where chassis are not stacked, or stacked as boxes.
bool slot_needs_chassis() {
    return is_set(KovaStackIsEnable()) && !is_set(KovaIsBoxStack());
}

// NULL when the slot text does not begin with the number of a fabric slot.
const char* fabric_name() {
    const auto number = static_cast<int32_t>(std::strtol(g_kovaSelfSlotid, nullptr, 10));
    constexpr auto kCount = static_cast<int32_t>(std::size(kFabricNames));
    if (number < kFirstFabricSlot || number >= kFirstFabricSlot + kCount) return nullptr;
    return kFabricNames[number - kFirstFabricSlot];
}

}  // namespace
}  // namespace kova

using kova::Code;
using kova::kIdIdentity;
using kova::kIdSetUp;
using kova::kOk;

uint32_t KOVA_SelfSlotidInit(void) {
    const uint32_t chassis = KovaGetSelfChassisId();
    uint32_t slot = 0;
    if (const Code rc = KovaDevmGetSelfSlotId(&slot); rc != kOk) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdIdentity), "KovaDevmGetSelfSlotId unsuccessful, ret = %d.",
                      static_cast<int>(rc));
        return rc;
    }
    const int written = kova::slot_needs_chassis()
                            ? sprintf_s(g_kovaSelfSlotid, KOVA_SLOT_TEXT_SIZE, "%u/%u", chassis, slot)
                            : sprintf_s(g_kovaSelfSlotid, KOVA_SLOT_TEXT_SIZE, "%u", slot);
    if (written < 0) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdIdentity), "sprintf_s unsuccessful, retCode = %d.", written);
    }
    return kOk;
}

uint32_t KOVA_SelfCpuidInit(void) {
    const Code rc = KovaDrvGetSelfCpuId(&g_kovaSelfCpuid);
    if (rc != kOk) KovaDLogWrite(KOVA_LOG_BASE(kIdIdentity), "KOVA get cpuid unsuccessful, ret = %u.", rc);
    return rc;
}

uint32_t KOVA_SelfCpuidAndSlotInit(void) {
    if (const Code rc = KOVA_SelfCpuidInit(); rc != kOk) {
        KovaDLogWrite(KOVA_LOG_INTERNAL(kIdSetUp), "KOVA init cpu id unsuccessful.(ret=%u)", rc);
    }
    const Code rc = KOVA_SelfSlotidInit();
    if (rc != kOk) KovaDLogWrite(KOVA_LOG_INTERNAL(kIdSetUp), "KOVA init slot id unsuccessful.(ret=%u)", rc);
    return rc;
}

int32_t KOVA_GetSlotIdStrWithSFU(char* buffer, int32_t size) {
    if (const char* name = kova::fabric_name(); name != nullptr) return strcpy_s(buffer, kova::usable_size(size), name);
    const int32_t written = sprintf_s(buffer, kova::usable_size(size), "%s", g_kovaSelfSlotid);
    if (written < 0) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdIdentity), "[KOVA_GetSlotIdStrWithSFU] sprintf_s unsuccessful, ret = %d.",
                      written);
    }
    return written;
}
