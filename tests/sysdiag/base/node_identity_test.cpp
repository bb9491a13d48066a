// Slot text and CPU id, with the platform's queries replaced by this program's.
#include "kova/node_identity.h"

#include <cstring>

#include <gtest/gtest.h>

#include "kova_platform/node.h"
#include "kova_platform/process_globals.h"
#include "support/log_recorder.h"

namespace kova::test {
namespace {

struct Node {
    std::uint32_t chassis = 2, slot = 5, cpu = 3, stacked = 0, box_stack = 0, slot_error = 0, cpu_error = 0;
};
Node g_node;

constexpr std::uint32_t kIdentity = 0x0E401061;
constexpr std::uint32_t kSetUp = 0x0E40105A;

class NodeIdentity : public ::testing::Test {
  protected:
    void SetUp() override {
        g_node = Node{};
        std::memset(g_kovaSelfSlotid, 0, KOVA_SLOT_TEXT_SIZE);
        g_kovaSelfCpuid = 0;
        log_recorder().clear();
    }
};

TEST_F(NodeIdentity, NamesTheChassisOnlyOnAStackThatNeedsIt) {
    const struct {
        std::uint32_t stacked, box_stack;
        const char* text;
    } cases[] = {{0, 0, "5"}, {0, 1, "5"}, {1, 0, "2/5"}, {1, 1, "5"}, {2, 0, "5"}, {3, 2, "2/5"}};
    for (const auto& c : cases) {
        g_node.stacked = c.stacked;
        g_node.box_stack = c.box_stack;
        EXPECT_EQ(0U, KOVA_SelfCpuidAndSlotInit());
        EXPECT_STREQ(c.text, g_kovaSelfSlotid);
    }
    EXPECT_EQ(3U, g_kovaSelfCpuid);
    char text[8];
    EXPECT_EQ(3, KOVA_GetSlotIdStr(text, sizeof text));
    EXPECT_STREQ("2/5", text);
    EXPECT_EQ(1, KOVA_GetCpuIdStr(text, sizeof text));
    EXPECT_STREQ("3", text);
    EXPECT_TRUE(log_recorder().take().empty());
}

TEST_F(NodeIdentity, SurvivesFailedQueries) {
    g_node.cpu_error = 9;
    EXPECT_EQ(0U, KOVA_SelfCpuidAndSlotInit());
    g_node.slot_error = 0xFFFFFFFF;
    g_node.slot = 6;
    g_node.cpu_error = 0;
    EXPECT_EQ(0xFFFFFFFFU, KOVA_SelfCpuidAndSlotInit());
    EXPECT_STREQ("5", g_kovaSelfSlotid);
    const std::vector<LoggedMessage> expected = {
        error_message(kIdentity, "Base", "KOVA get cpuid unsuccessful, ret = 9."),
        error_message(kSetUp, "Internal", "KOVA init cpu id unsuccessful.(ret=9)"),
        error_message(kIdentity, "Base", "KovaDevmGetSelfSlotId unsuccessful, ret = -1."),
        error_message(kSetUp, "Internal", "KOVA init slot id unsuccessful.(ret=4294967295)"),
    };
    EXPECT_EQ(expected, log_recorder().take());
}

TEST_F(NodeIdentity, NamesFabricSlots) {
    const struct {
        const char* slot;
        const char* name;
    } cases[] = {{"20", "20"},     {"21", "SFU1"},   {"25", "SFU5"}, {"29", "SFU9"}, {"30", "30"},
                 {"2/21", "2/21"}, {"21/2", "SFU1"}, {"", ""},       {"x21", "x21"}, {"5%d", "5%d"}};
    for (const auto& c : cases) {
        std::strcpy(g_kovaSelfSlotid, c.slot);
        char text[8] = "old";
        const std::int32_t result = KOVA_GetSlotIdStrWithSFU(text, sizeof text);
        EXPECT_STREQ(c.name, text);
        EXPECT_EQ(c.name[0] == 'S' ? 0 : static_cast<std::int32_t>(std::strlen(c.name)), result) << c.slot;
    }
    EXPECT_TRUE(log_recorder().take().empty());
}

TEST_F(NodeIdentity, TextsThatDoNotFitFail) {
    std::strcpy(g_kovaSelfSlotid, "10/10");
    g_kovaSelfCpuid = 12345;
    char text[8] = "old";
    for (const std::int32_t size : {5, 0, -8}) {
        EXPECT_LT(KOVA_GetSlotIdStr(text, size), 0);
        EXPECT_LT(KOVA_GetCpuIdStr(text, size), 0);
        EXPECT_TRUE(log_recorder().take().empty());
        EXPECT_LT(KOVA_GetSlotIdStrWithSFU(text, size), 0);
        const std::vector<LoggedMessage> expected = {
            error_message(kIdentity, "Base", "[KOVA_GetSlotIdStrWithSFU] sprintf_s unsuccessful, ret = -1.")};
        EXPECT_EQ(expected, log_recorder().take());
    }
    std::strcpy(g_kovaSelfSlotid, "21");
    EXPECT_NE(0, KOVA_GetSlotIdStrWithSFU(text, 4));
}

}  // namespace
}  // namespace kova::test

using kova::test::g_node;

extern "C" {

uint32_t KovaGetSelfChassisId(void) {
    return g_node.chassis;
}
uint32_t KovaStackIsEnable(void) {
    return g_node.stacked;
}
uint32_t KovaIsBoxStack(void) {
    return g_node.box_stack;
}

uint32_t KovaDevmGetSelfSlotId(uint32_t* slotId) {
    if (g_node.slot_error == 0) *slotId = g_node.slot;
    return g_node.slot_error;
}

uint32_t KovaDrvGetSelfCpuId(uint32_t* cpuId) {
    if (g_node.cpu_error == 0) *cpuId = g_node.cpu;
    return g_node.cpu_error;
}

}  // extern "C"
