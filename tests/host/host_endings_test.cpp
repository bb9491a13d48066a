// Captures that are disturbed: second signals, faults of the capture itself, locks that are never released.
#include "program_under_host.h"

namespace kova::test {
namespace {

using HostEndings = OnFreshNode;

std::string text_of(int signal) {
    return std::to_string(signal);
}

TEST_F(HostEndings, TheFirstSignalIsTheOneTheProgramDiesOf) {
    HeldLock log(kLogPath);
    const Program program({"crash_helper", "wait"}, {});
    program.wait_until_ready();
    ::kill(program.pid(), SIGFPE);
    program.wait_until_capturing();
    // One that interrupts the capture, and one that it holds back.
    ::kill(program.pid(), SIGSEGV);
    ::kill(program.pid(), SIGTERM);
    log.release();
    EXPECT_EQ(SIGFPE, WTERMSIG(program.wait_status()));
    EXPECT_EQ(1U, count_of(log_text(), " send Signal[8:SIGFPE]"));
    EXPECT_EQ(1U, count_of(log_text(), " send Signal[11:SIGSEGV]"));
    const auto records = stored_records();
    ASSERT_EQ(1U, records.size());
    EXPECT_EQ(SIGFPE, records[0].signalNumber);
}

TEST_F(HostEndings, ACaptureThatFaultsOrHangsKeepsTheRecordAndTheStatus) {
    const struct {
        const char* name;
        const char* faulty_text;
        const char* from;
        std::size_t records;
    } cases[] = {
        // Every trace line goes wrong again, so there is no capture to keep, and no end to the faults but the host's.
        {"in the trace line", "send Signal", "1", 0},
        {"before the record is stored", "Exception Slot", "1", 1},
        {"after the record is stored", "Exception Slot", "2", 1},
        {"nowhere", "never used", "1", 1},
    };
    for (const auto& c : cases) {
        for (const char* const how : {"fault", "hang"}) {
            SCOPED_TRACE(std::string(how) + " " + c.name);
            SetUp();
            const int status =
                run({"faulty_platform_helper", text_of(SIGFPE), how, c.faulty_text, c.from}, {.timeout_seconds = "1"});
            EXPECT_EQ(SIGFPE, WTERMSIG(status));
            EXPECT_EQ(c.records, stored_records().size());
        }
    }
}

}  // namespace
}  // namespace kova::test
