// Slot text and CPU id, with the platform's queries replaced by this program's.
#include "kova/node_identity.h"

#include <cstring>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "kova_platform/node.h"
#include "kova_platform/process_globals.h"

namespace kova::test {
namespace {

std::uint32_t g_stacked, g_box_stack, g_slot_error;

TEST(NodeIdentity, NamesTheChassisOnlyOnAStackThatNeedsIt) {
    const auto slot_text = [](std::uint32_t stacked, std::uint32_t box_stack) -> std::string {
        g_stacked = stacked;
        g_box_stack = box_stack;
        EXPECT_EQ(g_slot_error, KOVA_SelfCpuidAndSlotInit());
        return g_kovaSelfSlotid;
    };
    EXPECT_EQ("5", slot_text(2, 0));
    EXPECT_EQ("5", slot_text(1, 1));
    EXPECT_EQ("2/5", slot_text(3, 2));
    EXPECT_EQ(3U, g_kovaSelfCpuid);
    g_slot_error = 8;
    EXPECT_EQ("2/5", slot_text(0, 0));  // as it was
}

TEST(NodeIdentity, NamesFabricSlotsAndFailsWithoutRoom) {
    char text[8];
    for (const auto& [slot, name] : {std::pair{"20", "20"},
                                     {"21", "SFU1"},
                                     {"29", "SFU9"},
                                     {"30", "30"},
                                     {"25/2", "SFU5"},
                                     {"2/21", "2/21"},
                                     {"5%d", "5%d"}}) {
        std::strcpy(g_kovaSelfSlotid, slot);
        const auto length = static_cast<std::int32_t>(std::strlen(slot));
        EXPECT_EQ(name[0] == 'S' ? 0 : length, KOVA_GetSlotIdStrWithSFU(text, sizeof text));
        EXPECT_STREQ(name, text);
    }
    for (const std::int32_t size : {3, 0, -8}) EXPECT_LT(KOVA_GetSlotIdStrWithSFU(text, size), 0);
}

}  // namespace
}  // namespace kova::test

extern "C" {

uint32_t KovaGetSelfChassisId(void) {
    return 2;
}
uint32_t KovaStackIsEnable(void) {
    return kova::test::g_stacked;
}
uint32_t KovaIsBoxStack(void) {
    return kova::test::g_box_stack;
}
uint32_t KovaDevmGetSelfSlotId(uint32_t* slotId) {
    *slotId = 5;
    return kova::test::g_slot_error;
}
uint32_t KovaDrvGetSelfCpuId(uint32_t* cpuId) {
    *cpuId = 3;
    return 0;
}

}  // extern "C"
