// What the tests of kovactl box share: the tool as a user runs it, records, and files to be damaged byte by byte.
#pragma once

#include <filesystem>

#include "box_snapshot.h"
#include "support/crash_traces.h"
#include "support/run_command.h"

namespace kova::kovactl {

namespace fs = std::filesystem;
using Bytes = std::string;
using test::read_file;
using test::write_file;

inline constexpr char kCopy[] = "/opt/copy";

using Result = test::CommandResult;

inline Result kovactl(const std::string& arguments) {
    return test::run_command(KOVACTL " " + arguments);
}

inline KovaExceptInfo make_record(int number) {
    KovaExceptInfo record{};
    record.magic = KOVA_EXCEPT_MARKER;
    record.time.tm_year = 125;
    record.time.tm_mon = 10;
    record.time.tm_mday = 5;
    record.time.tm_hour = 23;
    record.time.tm_sec = number;
    record.signalNumber = number % 2 == 0 ? 11 : 15;
    std::strcpy(record.signalName, number % 2 == 0 ? "SIGSEGV" : "SIGTERM");
    record.signalCode = number % 2 == 0 ? 1 : 0;
    record.processId = 4000 + number;
    record.threadId = 5000 + number;
    std::strcpy(record.processName, "routed");
    record.senderProcessId = 77;
    std::strcpy(record.senderProcessName, "init");
    return record;
}

inline void append(const KovaExceptInfo& record) {
    ASSERT_EQ(0u, KOVA_BoxWrite(0, &record, sizeof record, nullptr));
}

template <typename T>
T* at(Bytes& bytes, std::size_t offset) {
    return reinterpret_cast<T*>(bytes.data() + offset);
}

class KovactlBox : public ::testing::Test {
  protected:
    void SetUp() override { fs::remove_all(kLiveBoxFile); }
};

}  // namespace kova::kovactl
