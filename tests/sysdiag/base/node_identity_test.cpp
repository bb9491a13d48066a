// Slot texts as people read them.
#include "kova/node_identity.h"

#include <cstring>
#include <utility>

#include <gtest/gtest.h>

#include "kova_platform/process_globals.h"

namespace kova::test {
namespace {

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
