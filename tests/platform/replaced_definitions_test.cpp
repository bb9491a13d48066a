// Whatever a program defines itself takes the place of the platform's: functions and variables, for reads and for
// writes. Every test that injects a failure stands on this.
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include <dlfcn.h>
#include <gtest/gtest.h>

#include "kova/node_identity.h"
#include "kova_platform/log.h"
#include "kova_platform/node.h"
#include "kova_platform/process_globals.h"

namespace {

std::string g_logged;
uint32_t g_cpu_query_result = 0;

// Of the stand-in itself, past the definition in this program.
template <typename Variable>
Variable* stand_in_variable(const char* name) {
    void* const library = ::dlopen("libkova_platform.so", RTLD_LAZY | RTLD_NOLOAD);
    return library != nullptr ? static_cast<Variable*>(::dlsym(library, name)) : nullptr;
}

}  // namespace

uint32_t g_kovaSelfCpuid = 11;
char g_kovaSelfSlotid[KOVA_SLOT_TEXT_SIZE] = "before";

uint32_t KovaDrvGetSelfCpuId(uint32_t* cpuId) {
    if (g_cpu_query_result == 0) *cpuId = 42;
    return g_cpu_query_result;
}

uint32_t KovaDLogWrite(uint32_t, uint32_t, const char*, const char* format, ...) {
    char text[256];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    g_logged = text;
    return 0;
}

namespace {

TEST(ReplacedDefinitions, TheAgentCallsTheProgramsFunctions) {
    g_cpu_query_result = 5;
    EXPECT_EQ(5U, KOVA_SelfCpuidInit());
    g_cpu_query_result = 0;
    EXPECT_EQ("KOVA get cpuid unsuccessful, ret = 5.", g_logged);
}

TEST(ReplacedDefinitions, TheAgentReadsTheProgramsVariables) {
    char text[16];
    g_kovaSelfCpuid = 1234567;
    EXPECT_EQ(7, KOVA_GetCpuIdStr(text, sizeof text));
    EXPECT_STREQ("1234567", text);
    std::strcpy(g_kovaSelfSlotid, "22");
    EXPECT_EQ(0, KOVA_GetSlotIdStrWithSFU(text, sizeof text));
    EXPECT_STREQ("SFU2", text);
}

TEST(ReplacedDefinitions, TheAgentWritesTheProgramsVariables) {
    EXPECT_EQ(0U, KOVA_SelfCpuidAndSlotInit());
    EXPECT_EQ(42U, g_kovaSelfCpuid);
    EXPECT_STREQ("1", g_kovaSelfSlotid);

    const auto* const unused_cpu = stand_in_variable<uint32_t>("g_kovaSelfCpuid");
    const auto* const unused_slot = stand_in_variable<char>("g_kovaSelfSlotid");
    ASSERT_NE(nullptr, unused_cpu);
    ASSERT_NE(nullptr, unused_slot);
    EXPECT_NE(&g_kovaSelfCpuid, unused_cpu);
    EXPECT_EQ(0U, *unused_cpu);
    EXPECT_STREQ("", unused_slot);
}

}  // namespace
