// Whatever a program defines itself takes the place of the platform's: functions and variables, for reads and for
// writes. Every test that injects a failure stands on this.
#include <cstdint>

#include <dlfcn.h>
#include <gtest/gtest.h>

#include "kova/node_identity.h"
#include "kova_platform/node.h"
#include "kova_platform/process_globals.h"

uint32_t g_kovaSelfCpuid = 11;
char g_kovaSelfSlotid[KOVA_SLOT_TEXT_SIZE] = "before";

uint32_t KovaDrvGetSelfCpuId(uint32_t* cpuId) {
    *cpuId = 42;
    return 0;
}

uint32_t KovaStackIsEnable(void) {
    return 3;
}

namespace {

TEST(ReplacedDefinitions, TheAgentCallsReadsAndWritesTheProgramsOwn) {
    char text[16];
    EXPECT_EQ(2, KOVA_GetCpuIdStr(text, sizeof text));
    EXPECT_STREQ("11", text);
    EXPECT_EQ(6, KOVA_GetSlotIdStr(text, sizeof text));
    EXPECT_STREQ("before", text);
    EXPECT_EQ(0U, KOVA_SelfCpuidAndSlotInit());
    EXPECT_EQ(42U, g_kovaSelfCpuid);
    EXPECT_STREQ("1/1", g_kovaSelfSlotid) << "on a stack the chassis stands in front";
    // The stand-in's own variable exists and is not used.
    void* const stand_in = ::dlsym(::dlopen("libkova_platform.so", RTLD_LAZY | RTLD_NOLOAD), "g_kovaSelfCpuid");
    ASSERT_NE(nullptr, stand_in);
    EXPECT_EQ(0U, *static_cast<uint32_t*>(stand_in));
}

}  // namespace
