// kovactl box salvage and what verify says of records: nothing that a file still holds goes unnoticed.
#include <nlohmann/json.hpp>

#include "kovactl_box_fixture.h"

namespace kova::kovactl {
namespace {

using KovactlSalvage = KovactlBox;

constexpr std::size_t kSlot0 = 68;
constexpr std::size_t kRecord = 9968;
constexpr std::size_t kAssertSlot0 = 199460;

void append_assert(int number) {
    KovaAssertItem item{};
    item.magic = KOVA_ASSERT_MARKER;
    item.time.tm_year = 125;
    item.time.tm_mday = 7;
    item.time.tm_min = number;
    item.occurrenceCount = 1;
    item.processId = static_cast<std::uint32_t>(4000 + number);
    std::strcpy(item.processName, "routed");
    ASSERT_EQ(0u, KOVA_BoxWrite(1, &item, sizeof item, nullptr));
}

// The head as it was before the last append: its writer died between record and head.
void forget_last(Bytes& bytes, std::uint32_t box, std::uint32_t kept) {
    NodeHead* const node = at<NodeHead>(bytes, kBoxSpecs[box].nodeOffset);
    *node = make_node_head(kBoxSpecs[box]);
    for (std::uint32_t i = 0; i < kept; ++i) advance(*node);
}

TEST_F(KovactlSalvage, FindsWhatTheHeadsDoNotCount) {
    for (int i = 0; i < 4; ++i) append(make_record(i));
    append_assert(0);
    append_assert(1);
    Bytes bytes = read_file(kLiveBoxFile);
    forget_last(bytes, 0, 3);
    forget_last(bytes, 1, 1);
    bytes[kSlot0 + kRecord + offsetof(KovaExceptInfo, processName) + 20] = 'x';
    // As far as a torn write got into a slot that was empty before: nothing of it can be believed, least of all its
    // time.
    *at<std::uint32_t>(bytes, kSlot0 + 19 * kRecord) = KOVA_EXCEPT_MARKER;
    *at<std::int32_t>(bytes, kSlot0 + 19 * kRecord + offsetof(KovaExceptInfo, time) + offsetof(struct tm, tm_year)) =
        0x7FFFFFFF;
    write_file(kCopy, bytes);

    const Result salvage = kovactl("box salvage --file /opt/copy");
    EXPECT_EQ(
        "kovactl: warning: '/opt/copy' is damaged; see kovactl box verify\n"
        "box 0 (exceptions): 3 counted, 2 recovered\n"
        "Slot  Time (UTC)           State             Signal      Process       Thread  Sender\n"
        "3     2025-11-05 23:00:03  recovered         15 SIGTERM  routed[4003]  5003    init[77]\n"
        "2     2025-11-05 23:00:02  counted           11 SIGSEGV  routed[4002]  5002    -\n"
        "1     2025-11-05 23:00:01  counted, torn?    15 SIGTERM  routed[4001]  5001    init[77]\n"
        "0     2025-11-05 23:00:00  counted           11 SIGSEGV  routed[4000]  5000    -\n"
        "19    (not a time)         recovered, torn?  0           [0]           0       [0]\n"
        "box 1 (asserts): 1 counted, 1 recovered\n"
        "Slot  Time (UTC)           State      Count  Assert  Process       Thread  Text\n"
        "1     2025-01-07 00:01:00  recovered  1      :0      routed[4001]  0\n"
        "0     2025-01-07 00:00:00  counted    1      :0      routed[4000]  0\n",
        salvage.output);
    EXPECT_EQ(1, salvage.status);

    const auto json = nlohmann::json::parse(kovactl("box salvage --json --file /opt/copy 2> /dev/null").output);
    const auto& torn = json["boxes"][0]["records"][2];
    EXPECT_EQ("counted", torn["state"]);
    EXPECT_EQ(true, torn["torn"]);
    EXPECT_EQ(kSlot0 + kRecord + 124, torn["faults"][0]["offset"]);
    EXPECT_EQ("0x0000000000000000", torn["registers"]["x30"]);
    EXPECT_EQ("2025-01-07T00:01:00Z", json["boxes"][1]["records"][0]["time"]);

    EXPECT_EQ(
        "No  Time (UTC)           Signal      Process       Thread  Sender\n"
        "0   2025-11-05 23:00:02  11 SIGSEGV  routed[4002]  5002    -\n"
        "1   2025-11-05 23:00:01  15 SIGTERM  routed[4001]  5001    init[77]  ! may be torn\n"
        "2   2025-11-05 23:00:00  11 SIGSEGV  routed[4000]  5000    -\n"
        "note: 2 records are not counted, in slots 3, 19; see kovactl box salvage\n",
        kovactl("box --file /opt/copy").output);
    EXPECT_TRUE(kovactl("box show --slot 3 --file /opt/copy").output.starts_with("Slot 3, recovered\n  time "));
    EXPECT_TRUE(kovactl("box show --slot 1 --file /opt/copy")
                    .output.starts_with("Slot 1, counted, torn?\n  ! byte 10160: processName goes on"));
    EXPECT_EQ(bytes, read_file(kCopy));
}

// The agent takes a box with a damaged head for empty and goes on from slot 0.
TEST_F(KovactlSalvage, FindsTheRecordsOfABoxWhoseHeadWasLost) {
    for (int i = 0; i < 23; ++i) append(make_record(i));
    Bytes bytes = read_file(kLiveBoxFile);
    bytes[66] ^= 1;
    write_file(kLiveBoxFile, bytes);
    const Result damaged = kovactl("box salvage 2> /dev/null");
    EXPECT_EQ(1, damaged.status);
    EXPECT_TRUE(damaged.output.starts_with("box 0 (exceptions): 0 counted, 20 recovered\nSlot  ")) << damaged.output;

    append(make_record(30));
    const Result rebuilt = kovactl("box salvage");
    EXPECT_EQ(0, rebuilt.status);
    EXPECT_TRUE(rebuilt.output.starts_with("box 0 (exceptions): 1 counted, 19 recovered\n")) << rebuilt.output;
    EXPECT_TRUE(
        kovactl("box").output.ends_with("note: 19 records are not counted, in slots 1 to 19; see kovactl box "
                                        "salvage\n"));
    EXPECT_EQ(0, kovactl("box verify").status);

    fs::remove(kLiveBoxFile);
    append(make_record(0));
    ASSERT_EQ(0u, KOVA_BoxReset(0));
    EXPECT_EQ("box 0 (exceptions): 0 counted, 0 recovered\nbox 1 (asserts): 0 counted, 0 recovered\n",
              kovactl("box salvage").output);
}

TEST_F(KovactlSalvage, VerifyNamesTheDamageOfARecord) {
    append(make_record(1));
    append_assert(1);
    const Bytes sound = read_file(kLiveBoxFile);
    const struct {
        std::size_t begin, end;  // bytes that become 's'
        const char* fault;
    } cases[] = {
        {kSlot0 + 8, kSlot0 + 9, "box 0, slot 0, byte 76: time is none that a calendar has"},
        {kSlot0 + 91, kSlot0 + 92,
         "box 0, slot 0, byte 159: signalName goes on behind its end with 0x73, expected zeros"},
        {kSlot0 + 6209, kSlot0 + 6210, "box 0, slot 0, byte 6276: pcDumpLength is 29440, at most 1024 fit"},
        {kSlot0 + 9696, kSlot0 + 9760, "box 0, slot 0, byte 9764: callStackSymbol[19] is not terminated"},
        {kAssertSlot0 + 158, kAssertSlot0 + 190, "box 1, slot 0, byte 199618: fileName is not terminated"},
        {kAssertSlot0 + 457, kAssertSlot0 + 458, "box 1, slot 0, byte 199916: callStackDepth is 29440, at most 20 fit"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.begin);
        Bytes bytes = sound;
        std::fill(bytes.data() + c.begin, bytes.data() + c.end, 's');
        write_file(kCopy, bytes);
        const Result result = kovactl("box verify --file /opt/copy");
        std::string faults;
        for (std::size_t begin = 0; (begin = result.output.find("fault: ", begin)) != std::string::npos; ++begin) {
            faults += result.output.substr(begin, result.output.find('\n', begin) + 1 - begin);
        }
        EXPECT_EQ("fault: " + std::string(c.fault) + "\n", faults);
        EXPECT_EQ(1, result.status);
    }
}

}  // namespace
}  // namespace kova::kovactl
