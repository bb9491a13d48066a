// The table of everything that a capture has to survive: each case lets a program die under the host in a bad way or on
// a bad node, and looks at its report, its record, its end and at what was stored before.
//
// A case prints one row, which scripts/hostile.sh collects:
//
//     @@hostile|case|machine|report|record|exit status|ok
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/utsname.h>

#include <cctype>
#include <cstdio>
#include <cstring>

#include "host/crash_helper_modes.h"
#include "hostile/hostile_case.h"
#include "kova/exception_log.h"

namespace kova::test {
namespace {

constexpr int kExitNotPossibleHere[] = {kNotPossibleHere, 99};
constexpr int kPatienceSeconds = 30;  // over the host's own limit, for slow machines
constexpr int kRaceRounds = 200;
#if defined(__aarch64__)
constexpr int kQuickRaceRounds = 1;  // on the emulated machine
#else
constexpr int kQuickRaceRounds = 3;
#endif

bool is_regular(const char* path) {
    struct stat status {};
    return ::lstat(path, &status) == 0 && S_ISREG(status.st_mode);
}

std::string text_in_log() {
    return is_regular(kLogPath) ? log_text() : "";
}

std::vector<KovaExceptInfo> records_in_box() {
    std::uint32_t code = 0;
    return is_regular(kBoxPath) ? readable_records(&code) : std::vector<KovaExceptInfo>{};
}

KovaExceptInfo earlier_record() {
    KovaExceptInfo record{};
    std::memset(&record, 0x5A, sizeof record);
    return record;
}

void leave_earlier_crashes() {
    std::ofstream(kLogPath) << "an earlier report\n";
    const KovaExceptInfo record = earlier_record();
    EXPECT_EQ(0U, KOVA_BoxWrite(0, &record, sizeof record, nullptr));
}

std::string words_of(int status) {
    if (WIFSIGNALED(status)) return std::string("killed by ") + g_kovaSignalName[WTERMSIG(status)];
    return "exit " + std::to_string(WEXITSTATUS(status));
}

// The first part of a report that is not there; empty when it is whole.
std::string missing_part(const std::string& text, int captures) {
    if (captures > 1) {
        // Pieces of several reports may lie between each other.
        const auto wanted = static_cast<std::size_t>(captures);
        if (count_of(text, "===== Exception info (no:") != 2 * wanted) return "a header";
        return count_of(text, "Show CallStack:\n#0 ") == wanted ? "" : "a call stack";
    }
    constexpr const char* kParts[] = {" send Signal[",
                                      "Exception Time:",
                                      "Exception Info(ProcessName=",
                                      "[stack]",
                                      "===== Exception info (no:",
                                      "Register Contents:",
                                      "faultaddr",
                                      "Show CallStack:\n",
                                      "===== Exception info (no:",
                                      "Register Contents:",
                                      "Show CallStack:\n#0 "};
    std::size_t at = 0;
    for (const char* const part : kParts) {
        at = text.find(part, at);
        if (at == text.npos) return part;
        at += std::strlen(part);
    }
    return count_of(text, "Exception Info(") == 1 ? "" : "a report of its own";
}

const char* words_of_report(const std::string& text, int captures) {
    if (text.empty()) return "none";
    if (missing_part(text, captures).empty()) return "complete";
    return text.find("Exception Time:") == text.npos ? "trace line" : "cut";
}

class HostileCase : public testing::TestWithParam<Case> {
  protected:
    void TearDown() override {
        utsname system{};
        ::uname(&system);
        const char* const ok = IsSkipped() ? "not possible here" : HasFailure() ? "NO" : "ok";
        std::printf("@@hostile|%s|%s|%s|%s|%s|%s\n", GetParam().name.c_str(), system.machine, report_.c_str(),
                    record_.c_str(), status_.c_str(), ok);
        std::fflush(stdout);
    }

    void run_rounds(int rounds) {
        const Case& c = GetParam();
        ASSERT_EQ(0, ::chdir("/run/kova"));
        std::optional<int> expected = c.wait_status;
        if (!expected.has_value()) {
            HostileNode node(c.node_bytes);
            expected = run_on(node, Host::kNone);
            ASSERT_TRUE(expected.has_value()) << "does not end without the host";
            for (const int code : kExitNotPossibleHere) {
                if (*expected == W_EXITCODE(code, 0)) GTEST_SKIP() << "not possible here";
            }
            ASSERT_NE(W_EXITCODE(kSetUpFailed, 0), *expected) << "the program could not bring itself into trouble";
        }
        for (int round = 0; round < rounds && !HasFailure(); ++round) {
            SCOPED_TRACE("round " + std::to_string(round));
            HostileNode node(c.node_bytes);
            const std::optional<int> ended = run_on(node, Host::kPreloaded);
            status_ = ended.has_value() ? words_of(*ended) : "hangs";
            EXPECT_EQ(expected, ended) << "wait status without and with the host";
            expect_what_was_stored();
        }
    }

  private:
    // The wait status of all programs of the case; nothing when one hangs or one ends in another way.
    std::optional<int> run_on(HostileNode& node, Host host) {
        const Case& c = GetParam();
        if (c.after_earlier_crashes) leave_earlier_crashes();
        log_before_ = text_in_log();
        c.prepare(node);
        if (is_regular(kLogPath)) log_before_ = log_text();

        const auto before_exec = [&c] {
            const rlimit no_core{.rlim_cur = 0, .rlim_max = RLIM_INFINITY};
            static_cast<void>(::setrlimit(RLIMIT_CORE, &no_core));
            c.before_exec();
        };
        std::vector<std::unique_ptr<Program>> programs;
        programs.reserve(static_cast<std::size_t>(c.at_once));
        for (int i = 0; i < c.at_once; ++i) {
            programs.push_back(std::make_unique<Program>(
                c.victim,
                StartOptions{.host = host, .timeout_seconds = c.timeout_seconds, .before_exec = before_exec}));
        }
        std::optional<int> status;
        for (const auto& program : programs) {
            if (c.disturb != nullptr) {
                program->wait_until_ready();
                c.disturb(*program);
            }
            const auto ended = program->wait_status_within(std::atoi(c.timeout_seconds) + kPatienceSeconds);
            if (!ended.has_value() || (status.has_value() && status != ended)) return std::nullopt;
            status = ended;
        }
        node.release_locks();
        c.afterwards();
        return status;
    }

    void expect_what_was_stored() {
        const Case& c = GetParam();
        const std::string log = text_in_log();
        EXPECT_EQ(0U, log.find(log_before_)) << "what stood in the log before is damaged";
        const std::string text = log.size() > log_before_.size() ? log.substr(log_before_.size()) : "";
        expect_report(text);
        expect_records(records_in_box());
        if (HasFailure() && c.report != Report::kNone) std::printf("%s\n", text.substr(0, 3000).c_str());
    }

    void expect_report(const std::string& text) {
        const Case& c = GetParam();
        const int captures = c.at_once * c.captures;
        report_ = words_of_report(text, captures);
        switch (c.report) {
            case Report::kWhole:
                EXPECT_EQ("", missing_part(text, captures));
                break;
            case Report::kCut:
                EXPECT_NE(std::string::npos, text.find(" send Signal["));
                EXPECT_NE("", missing_part(text, captures));
                break;
            case Report::kTraceLine:
                EXPECT_EQ("trace line", report_);
                break;
            case Report::kNone:
                EXPECT_EQ("", text);
                break;
            case Report::kAny:
                break;
        }
        for (const std::string& part : c.in_report) EXPECT_NE(std::string::npos, text.find(part)) << part;
        for (const std::string& part : c.not_in_report) EXPECT_EQ(std::string::npos, text.find(part)) << part;
    }

    void expect_records(const std::vector<KovaExceptInfo>& records) {
        const Case& c = GetParam();
        // Every record is one of those that were there or a new one: a full ring gives its oldest away.
        std::size_t own = 0, earlier = 0;
        const KovaExceptInfo model = earlier_record();
        for (const KovaExceptInfo& record : records) {
            if (record.magic == KOVA_EXCEPT_MARKER && record.processId != 0) ++own;
            // Byte for byte, what stands between the fields included: so it was stored.
            // NOLINTNEXTLINE(bugprone-suspicious-memory-comparison)
            if (std::memcmp(&record, &model, sizeof model) == 0) ++earlier;
        }
        record_ = own == 0 ? "none" : own == 1 ? "kept" : std::to_string(own) + " kept";
        const auto captures = static_cast<std::size_t>(c.at_once) * static_cast<std::size_t>(c.captures);
        if (c.record != Record::kAny) {
            EXPECT_EQ(c.record == Record::kKept ? captures : 0, own);
        }
        if (c.after_earlier_crashes) {
            EXPECT_EQ(1U, earlier) << "the earlier record is damaged";
        }
        if (own == 0 || c.record != Record::kKept) return;
        EXPECT_NE(0, records[0].signalNumber);
        if (c.report == Report::kWhole) {
            EXPECT_NE(0U, records[0].callStackDepth);
        }
    }

    std::string log_before_;
    std::string report_ = "-", record_ = "-", status_ = "-";
};

TEST_P(HostileCase, IsSurvived) {
    run_rounds(GetParam().is_a_race ? kQuickRaceRounds : 1);
}

using HostileRace = HostileCase;

TEST_P(HostileRace, IsSurvivedEveryTime) {
    run_rounds(kRaceRounds);
}

std::vector<Case> all_cases() {
    std::vector<Case> all;
    for (const auto& part : {memory_cases(), thread_cases(), fault_cases(), resource_cases(), path_cases(),
                             signal_cases(), ending_cases()}) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

std::vector<Case> races() {
    std::vector<Case> all = all_cases();
    std::erase_if(all, [](const Case& c) { return !c.is_a_race; });
    return all;
}

std::string test_name(const testing::TestParamInfo<Case>& info) {
    std::string name = info.param.name;
    for (char& letter : name) {
        if (std::isalnum(static_cast<unsigned char>(letter)) == 0) letter = '_';
    }
    return name;
}

INSTANTIATE_TEST_SUITE_P(Quick, HostileCase, testing::ValuesIn(all_cases()), test_name);
INSTANTIATE_TEST_SUITE_P(Nightly, HostileRace, testing::ValuesIn(races()), test_name);

}  // namespace

// What GoogleTest prints of a parameter.
void PrintTo(const Case& c, std::ostream* out) {
    *out << c.name;
}

}  // namespace kova::test
