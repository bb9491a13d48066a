// The road of a fatal signal, seen from outside: what real and made-up signals leave in the log and in the black box.
#include "sysdiag/except/capture_fixture.h"

extern "C" [[gnu::noinline]] __attribute__((no_sanitize("address", "undefined", "thread"))) void write_to_null() {
    volatile int* nothing = nullptr;
    asm volatile("" : "+r"(nothing));
    *nothing = 1;
}

namespace kova::test {
namespace {

constexpr std::string_view kHeading = "===================== Exception info (no:  0  idx:  0) =====================";

// Everything of `parts` in this order.
void expect_in_order(std::string_view text, const std::vector<std::string>& parts) {
    std::size_t at = 0;
    for (const std::string& part : parts) {
        const std::size_t found = text.find(part, at);
        ASSERT_NE(text.npos, found) << "missing, or before its place: " << part;
        at = found + part.size();
    }
}

TEST_F(Capture, BeforeSetUpLeavesOneTraceLine) {
    expect_in_child([] {
        siginfo_t info = sent_by(::getpid(), SIGABRT);
        KOVA_SignalInfoRecordHandler(SIGABRT, &info, nullptr);
        KOVA_SignalInfoRecordHandler(SIGABRT, nullptr, nullptr);
    });
    const std::string log = log_text();
    const std::string self = log.substr(log.find("Proc["), log.find("] send") + 1 - log.find("Proc["));
    EXPECT_TRUE(self.ends_with(":capture_test]")) << log;
    // Behind its date, which is 21 characters long.
    EXPECT_EQ("[[Native]KOVA_SignalInfoRecordHandler][KOVA][ERROR] " + self + " send Signal[6:SIGABRT/SIGIOT] to " +
                  self + ".\n",
              log.substr(21));
    EXPECT_NE(0, ::access(kBoxPath, F_OK));
}

TEST_F(Capture, AFaultLeavesTheWholeReportAndARecord) {
    const int status = in_child([] {
        KOVA_ExceptInit();
        install_host();
        const PaintedStack stack(65536);
        write_to_null();
    });
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(SIGSEGV, WTERMSIG(status));

    const auto records = stored_records();
    ASSERT_EQ(1U, records.size());
    const KovaExceptInfo& record = records[0];
    EXPECT_EQ(KOVA_EXCEPT_MARKER, record.magic);
    EXPECT_EQ(SIGSEGV, record.signalNumber);
    EXPECT_STREQ("SIGSEGV", record.signalName);
    EXPECT_STREQ("capture_test", record.processName);
    EXPECT_EQ(0U, record.machineContext.registers.faultAddress);
    ASSERT_GE(record.callStackDepth, 3U);
    EXPECT_EQ(record.machineContext.registers.pc, record.callStackAddress[0]);
    EXPECT_NE(nullptr, std::strstr(record.callStackSymbol[0], "(write_to_null+0x")) << record.callStackSymbol[0];
    EXPECT_EQ(1536U, record.spDumpLength);
    EXPECT_GT(record.pcDumpLength, 0U);
    const auto* const code = reinterpret_cast<const std::uint8_t*>(record.pcDumpStart);
    EXPECT_EQ(0, std::memcmp(code, record.pcDump, record.pcDumpLength));  // this program's own text

    const std::string log = log_text();
    expect_in_order(
        log, {"send Signal[11:SIGSEGV]", "\nException Time:", "Exception Info(ProcessName=capture_test,", "-", " r",
              "[stack]", "\n" + std::string(kHeading), "Exception Slot/CPU:", "Register Contents:\n",
              "faultaddr, Val = 0x0000000000000000;\nShow CallStack:\n\n", "===Dump Register SP[",
              "===Dump Register PC[", "===Dump Register FP[", kHeading.data(), "Register Contents:\n",
              "Show CallStack:\n#0  Instruction Address: 0x", "(write_to_null+0x", "#1  "});
    EXPECT_EQ(2U, count_of(log, kHeading));
    EXPECT_EQ(0U, count_of(log, "KOVA Box Write unsuccessful"));
}

TEST_F(Capture, ANullContextDumpsNothing) {
    expect_in_child([] {
        KOVA_ExceptInit();
        siginfo_t info = sent_by(::getppid(), SIGQUIT);
        errno = 4711;
        KOVA_SignalInfoRecordHandler(SIGQUIT, &info, nullptr);
        ::_exit(errno == 4711 && g_kovaExceptionMutex == 0 ? 0 : 1);
    });
    const auto records = stored_records();
    ASSERT_EQ(1U, records.size());
    EXPECT_EQ(0U,
              records[0].spDumpLength + records[0].pcDumpLength + records[0].lrDumpLength + records[0].fpDumpLength);
    const KovaMachineContext zero{};
    EXPECT_EQ(0, std::memcmp(&zero, &records[0].machineContext, sizeof zero));
    EXPECT_EQ(static_cast<std::uint32_t>(::getpid()), records[0].senderProcessId);
    EXPECT_STREQ("capture_test", records[0].senderProcessName);
    EXPECT_EQ(0U, count_of(log_text(), "===Dump"));
}

std::uint32_t g_abnormal_exit = 0;

TEST_F(Capture, TerminationLeavesACallStackOnlyWhenTheExitIsAbnormal) {
    const struct {
        const char* name;
        KovaAbnormalExitQuery query;
        std::uint32_t answer;
        bool stack;
    } cases[] = {
        {"no query", nullptr, 0, false},
        {"normal", [] { return g_abnormal_exit; }, 2, false},
        {"abnormal", [] { return g_abnormal_exit; }, 3, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        remove_log_and_box();
        expect_in_child([&c] {
            KOVA_ExceptInit();
            g_kovaIsProcessAbnormalExit = c.query;
            g_abnormal_exit = c.answer;
            siginfo_t info = sent_by(::getppid(), SIGTERM);
            ucontext_t context = context_at(0x1234);
            KOVA_RegExceptCallStackDumpHook(
                [](void*, std::uint32_t, std::uint32_t, std::uint64_t*, std::uint32_t*) { return 1U; });
            KOVA_SignalInfoRecordHandler(SIGTERM, &info, &context);
        });
        const std::string log = log_text();
        const std::string after_trace = log.substr(log.find('\n') + 1);
        EXPECT_EQ(c.stack ? "Show CallStack:\n#0  Instruction Address: 0x0000000000001234, Func:\n\n" : "",
                  after_trace);
        EXPECT_NE(0, ::access(kBoxPath, F_OK));
    }
}

TEST_F(Capture, AHookThatFailsOrLiesLeavesAUsableStack) {
    const struct {
        const char* name;
        KovaExceptCallStackHook hook;
        std::uint32_t depth;
        std::uint64_t first;
    } cases[] = {
        {"fails after writing",
         [](void*, std::uint32_t, std::uint32_t, std::uint64_t* addresses, std::uint32_t* depth) {
             addresses[0] = addresses[5] = 7;
             *depth = 6;
             return 1U;
         },
         1, 0x1234},
        {"reports more than there is room for",
         [](void*, std::uint32_t max, std::uint32_t zero, std::uint64_t* addresses, std::uint32_t* depth) {
             std::fill_n(addresses, max, 9);
             *depth = 21 + zero;
             return 0U;
         },
         20, 9},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        remove_log_and_box();
        expect_in_child([&c] {
            KOVA_ExceptInit();
            KOVA_RegExceptCallStackDumpHook(c.hook);
            siginfo_t info = sent_by(1, SIGQUIT);
            ucontext_t context = context_at(0x1234);
            KOVA_SignalInfoRecordHandler(SIGQUIT, &info, &context);
        });
        const auto records = stored_records();
        ASSERT_EQ(1U, records.size());
        EXPECT_EQ(c.depth, records[0].callStackDepth);
        EXPECT_EQ(c.first, records[0].callStackAddress[0]);
        EXPECT_EQ(c.depth == 20 ? 9U : 0U, records[0].callStackAddress[5]);
    }
}

}  // namespace
}  // namespace kova::test
