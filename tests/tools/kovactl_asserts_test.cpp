// kovactl asserts: its exact output on asserts in the black box.
#include <nlohmann/json.hpp>

#include "kova/assert_record.h"
#include "kovactl_box_fixture.h"

namespace kova::kovactl {
namespace {

using KovactlAsserts = KovactlBox;

void append_assert(std::uint32_t number, std::uint32_t count) {
    KovaAssertItem item{};
    item.magic = KOVA_ASSERT_MARKER;
    item.time.tm_year = 125;
    item.time.tm_mday = 7;
    item.time.tm_sec = static_cast<int>(count);  // repeated later, the more often
    item.occurrenceCount = count;
    item.threadId = 830;
    item.processId = 812;
    item.line = 210 + number;
    std::strcpy(item.processName, "routed");
    std::strcpy(item.slotText, "2/5");
    std::strcpy(item.fileName, "route.c");
    std::strcpy(item.platformName, "shelf");
    std::strcpy(item.withLog, number % 2 == 0 ? "" : "table\nfull");
    item.callStack.depth = 1;
    item.callStack.address[0] = 0x1234;
    std::strcpy(item.callStack.symbol[0], "[routed+0x34](add+0x4)");
    ASSERT_EQ(0u, KOVA_BoxWrite(1, &item, sizeof item, nullptr));
}

TEST_F(KovactlAsserts, ListsAndShowsThem) {
    append_assert(1, 3);
    append_assert(2, 1);
    const std::string expected =
        "No  Time (UTC)           Count  Assert       Process      Thread  Text\n"
        "0   2025-01-07 00:00:01  1      route.c:212  routed[812]  830\n"
        "1   2025-01-07 00:00:03  3      route.c:211  routed[812]  830     table\\x0afull\n";
    EXPECT_EQ(expected, kovactl("asserts").output);
    EXPECT_EQ(
        "Record 1, slot 0\n"
        "  assert    route.c:211\n"
        "  text      table\\x0afull\n"
        "  raised    3 times, last at 2025-01-07 00:00:03 UTC\n"
        "  process   routed[812]\n"
        "  thread    830\n"
        "  slot      2/5\n"
        "  platform  shelf \n"
        "\nCall stack\n  #0  0000000000001234 [routed+0x34](add+0x4)\n",
        kovactl("asserts show 1").output);
    EXPECT_TRUE(kovactl("asserts show --slot 1").output.starts_with("Slot 1, counted\n  assert    route.c:212\n"));

    EXPECT_EQ(3, nlohmann::json::parse(kovactl("asserts --json").output)["records"][1]["occurrences"]);
    const auto shown = nlohmann::json::parse(kovactl("asserts show --json").output);
    EXPECT_EQ("route.c", shown["file"]);
    EXPECT_EQ("0x0000000000001234", shown["call_stack"][0]["address"]);
    EXPECT_TRUE(kovactl("asserts show 2").output.ends_with("which holds 2; see kovactl asserts list\n"));
}

}  // namespace
}  // namespace kova::kovactl
