// kovactl box: its exact output on files that the agent wrote. That no file harms it is fuzzed.
#include <sys/stat.h>

#include <string>

#include <nlohmann/json.hpp>

#include "kovactl_box_fixture.h"

namespace kova::kovactl {
namespace {

TEST_F(KovactlBox, ListsNewestFirst) {
    append(make_record(1));
    append(make_record(2));
    const Bytes before = read_file(kLiveBoxFile);
    const std::string expected =
        "No  Time (UTC)           Signal      Process       Thread  Sender\n"
        "0   2025-11-05 23:00:02  11 SIGSEGV  routed[4002]  5002    -\n"
        "1   2025-11-05 23:00:01  15 SIGTERM  routed[4001]  5001    init[77]\n";
    for (const char* const command : {"box", "box list", "box --file /opt/norvel/var/log/kova_exception_assert list"}) {
        const Result result = kovactl(command);
        EXPECT_EQ(expected, result.output);
        EXPECT_EQ(0, result.status);
    }
    const auto json = nlohmann::json::parse(kovactl("--json box").output);
    EXPECT_EQ(2u, json["records"].size());
    EXPECT_EQ("2025-11-05T23:00:01Z", json["records"][1]["time"]);
    EXPECT_EQ(nullptr, json["records"][0]["sender"]);
    EXPECT_EQ(json, nlohmann::json::parse(kovactl("box list --json").output));
    EXPECT_EQ(before, read_file(kLiveBoxFile));
}

TEST_F(KovactlBox, ShowsARecordWithoutTrustingIt) {
    KovaExceptInfo record = make_record(3);
    std::memset(record.processName, 'n', sizeof record.processName);  // not terminated
    std::memcpy(record.text136, "not a part of the name", 22);
    std::strcpy(record.senderProcessName, "\x1b[2J\\\xC3\xA4");
    record.time.tm_mon = 12;
    record.callStackDepth = 4000;
    record.callStackAddress[1] = 0x1234;
    std::memset(record.callStackSymbol, 's', sizeof record.callStackSymbol);
    record.spDumpStart = 0xFFFFFFFFFFFFFFF8;
    record.spDumpLength = 0xFFFFFFFF;
    record.pcDumpStart = 0x1000;
    record.pcDumpLength = 18;
    std::strcpy(reinterpret_cast<char*>(record.pcDump), "ABCDEFGHIJKLMNOP~");
    record.machineContext.registers.x[30] = 0xABC;
    append(record);
    const Result result = kovactl("box show");
    EXPECT_EQ(0, result.status);
    const std::string name(32, 'n'), symbol(64, 's');
    for (const std::string& line : {
             std::string("  time      (not a time) UTC\n"),
             "  process   " + name + "[4003]\n",
             std::string("  sender    \\x1b[2J\\\\\\xc3\\xa4[77]\n"),
             std::string("  (the record claims 4000 frames; it has room for 20)\n"),
             "  #1  0000000000001234 " + symbol + "\n",
             std::string(" x30 0000000000000abc\n"),
             std::string("Memory around SP, 1536 bytes\n  fffffffffffffff8  00"),
             std::string("Memory around PC, 18 bytes\n"
                         "  0000000000001000  41 42 43 44 45 46 47 48 49 4a 4b 4c 4d 4e 4f 50  ABCDEFGHIJKLMNOP\n"
                         "  0000000000001010  7e 00                                            ~.\n"),
             std::string("Memory around FP\n  (not readable)\n"),
         }) {
        EXPECT_NE(std::string::npos, result.output.find(line)) << line << result.output;
    }
    const auto json = nlohmann::json::parse(kovactl("box show 0 --json").output);
    EXPECT_EQ("0x0000000000000abc", json["registers"]["x30"]);
    EXPECT_EQ(20u, json["call_stack"].size());
    EXPECT_EQ("4142434445464748494a4b4c4d4e4f507e00", json["dumps"]["pc"]["bytes"]);
    EXPECT_EQ(1, kovactl("box verify").status);
}

TEST_F(KovactlBox, VerifySaysWhatIsWrongWhere) {
    for (int i = 0; i < 3; ++i) append(make_record(i));
    const Bytes sound = read_file(kLiveBoxFile);
    const std::string live = kLiveBoxFile;
    EXPECT_EQ(live +
                  ": sound\nbox 0 (exceptions): 3 of 20 records, next slot 3\n"
                  "box 1 (asserts): never written, empty\n",
              kovactl("box verify").output);
    const struct {
        const char* name;
        void (*damage)(Bytes& bytes);
        int status;
        const char* line;
    } cases[] = {
        {"count", [](Bytes& b) { at<NodeHead>(b, 36)->recordCount = 5; }, 1,
         "fault: box 0, node head, byte 44: writeIndex is 3, expected recordCount 5, since the box is not full\n"},
        {"too long", [](Bytes& b) { b.resize(400000); }, 1,
         "fault: file, byte 389860: 400000 bytes, expected 389860\n"},
        {"short, but nothing lost", [](Bytes& b) { b.resize(68 + 3 * 9968); }, 0,
         "note: file, byte 29972: 29972 of 389860 bytes; the rest counts as zero\n"},
        {"short, a record lost", [](Bytes& b) { b.resize(68 + 2 * 9968); }, 1,
         "fault: box 0, slot 2, byte 20004: marker is 0x00000000, expected 0xecececec\n"},
        {"writer died before counting",
         [](Bytes& b) {
             *at<NodeHead>(b, 36) = make_node_head(kBoxSpecs[0]);
             for (int i = 0; i < 2; ++i) advance(*at<NodeHead>(b, 36));
         },
         0, "note: box 0, slot 2, byte 20004: holds a record that is not counted"},
        {"empty file", [](Bytes& b) { b.clear(); }, 0, "note: file head, byte 0: never written\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Bytes bytes = sound;
        c.damage(bytes);
        write_file(kCopy, bytes);
        const Result result = kovactl("box verify --file /opt/copy");
        EXPECT_EQ(c.status, result.status);
        EXPECT_NE(std::string::npos, result.output.find(c.line)) << result.output;
        const auto json = nlohmann::json::parse(kovactl("box verify --json --file /opt/copy").output);
        EXPECT_EQ(c.status == 0, json["sound"]);
        EXPECT_EQ(bytes, read_file(kCopy));
    }
}

TEST_F(KovactlBox, TellsWhatItCannotRead) {
    append(make_record(0));
    fs::remove_all("/opt/fifo");
    ASSERT_EQ(0, ::mkfifo("/opt/fifo", 0600));
    const struct {
        const char* arguments;
        int status;
        const char* output;
    } cases[] = {
        {"box --file /opt/none", 2, "kovactl: '/opt/none' cannot be opened: No such file or directory\n"},
        {"box verify --file /opt/fifo", 2, "kovactl: '/opt/fifo' is not a regular file, so it is no black box\n"},
        {"box show 3", 1,
         "kovactl: there is no record 3 in '/opt/norvel/var/log/kova_exception_assert', which holds 1; see kovactl box "
         "list\n"},
        {"box list > /dev/full", 2, "kovactl: cannot write to standard output\n"},
    };
    for (const auto& c : cases) {
        const Result result = kovactl(c.arguments);
        EXPECT_EQ(c.status, result.status) << c.arguments;
        EXPECT_EQ(c.output, result.output);
    }
    for (const char* none : {"-1", "4294967296", "x"})
        EXPECT_EQ(2, kovactl(std::string("box show ") + none).status) << none;
    EXPECT_EQ(2, kovactl("box nonsense").status);
    EXPECT_EQ(0, kovactl("").status);
    fs::rename(kLiveBoxFile, kCopy);
    fs::create_symlink(kCopy, kLiveBoxFile);
    EXPECT_EQ(2, kovactl("box").status) << "the live file is never a link";
    EXPECT_EQ(0, kovactl("box --file /opt/copy").status);
}

}  // namespace
}  // namespace kova::kovactl
