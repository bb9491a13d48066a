// Programs that die in bad ways on a node that is well.
#include "hostile/hostile_case.h"
#include "kova/exception_log.h"

namespace kova::test {

std::vector<Case> memory_cases() {
    const std::vector<std::string> program_sections = {"Register SP[", "Register PC["};
    const auto with = [&program_sections](const char* text) {
        std::vector<std::string> sections = program_sections;
        sections.emplace_back(text);
        return sections;
    };
    return {
        {.name = "registers at a truncated file",
         .victim = {"crash_helper", "truncated-file"},
         .in_report = program_sections,
         .not_in_report = {"Register X0["}},
        {.name = "registers at a forbidden page",
         .victim = {"crash_helper", "forbidden-page"},
         .in_report = program_sections,
         .not_in_report = {"Register X0["}},
        {.name = "registers at the last word of a mapping",
         .victim = {"crash_helper", "last-bytes", "4"},
         .in_report = with("Register X0[")},
        {.name = "registers at the last byte of a mapping",
         .victim = {"crash_helper", "last-bytes", "1"},
         .in_report = with("Register X0[")},
        {.name = "registers at a mapping that comes and goes",
         .victim = {"crash_helper", "vanishing-mapping"},
         .in_report = program_sections,
         .is_a_race = true},
        {.name = "20000 mappings", .victim = {"crash_helper", "many-mappings", "20000"}, .in_report = program_sections},
        {.name = "stack overflow", .victim = {"crash_helper", "overflow"}},
        {.name = "stack overflow in a thread", .victim = {"crash_helper", "overflow-thread"}},
        {.name = "smashed stack", .victim = {"crash_helper", "smashed-stack"}, .in_report = program_sections},
        {.name = "stack pointer nowhere",
         .victim = {"crash_helper", "stack-pointer-nowhere"},
         .in_report = {"Register PC["},
         .not_in_report = {"Register SP["}},
        {.name = "jump to no mapping",
         .victim = {"crash_helper", "jump-to-no-mapping"},
         .in_report = {"Register SP["},
         .not_in_report = {"Register PC["}},
        {.name = "jump to data", .victim = {"crash_helper", "jump-to-data"}, .in_report = program_sections},
        {.name = "fault at an impossible address", .victim = {"crash_helper", "fault-impossible-address"}},
        {.name = "fault that does not repeat", .victim = {"crash_helper", "vanishing-fault"}, .is_a_race = true},
        {.name = "reading refused with EPERM", .victim = {"crash_helper", "refused-read", "1"}},
        {.name = "reading refused with SIGSYS", .victim = {"crash_helper", "refused-read", "31"}},
        {.name = "opening refused with SIGSYS",
         .victim = {"crash_helper", "refused-open", "31"},
         .report = Report::kNone,
         .record = Record::kNone},
    };
}

std::vector<Case> thread_cases() {
    return {
        {.name = "two threads fault together", .victim = {"crash_helper", "many-threads", "2"}, .is_a_race = true},
        {.name = "50 threads fault together", .victim = {"crash_helper", "many-threads", "50"}, .is_a_race = true},
        {.name = "six programs at once", .victim = {"crash_helper", "fault", "11"}, .at_once = 6, .is_a_race = true},
        {.name = "another thread is loading a library",
         .victim = {"crash_helper", "another-loads"},
         .in_report = {"](__libc_start_main+0x"}},
        {.name = "another thread lists the modules", .victim = {"crash_helper", "another-lists-modules"}},
        {.name = "crash in a constructor", .victim = {"crash_helper", "in-a-constructor"}},
        {.name = "signals rain down meanwhile", .victim = {"crash_helper", "in-a-storm"}, .is_a_race = true},
        {.name = "forked child, then its parent", .victim = {"crash_helper", "after-forked-child"}, .captures = 2},
        {.name = "vforked child, then its parent", .victim = {"crash_helper", "after-vforked-child"}, .captures = 2},
    };
}

std::vector<Case> signal_cases() {
    std::vector<Case> cases;
    for (std::uint32_t i = 0; i < g_kovaSignalNum; ++i) {
        const int number = g_kovaSignalList[i];
        const std::string text = std::to_string(number);
        const bool is_termination = number == SIGTERM;
        Case raised{.name = std::string(g_kovaSignalName[number]) + " raised",
                    .victim = {"crash_helper", "raise", text}};
        Case sent{.name = std::string(g_kovaSignalName[number]) + " sent", .victim = {"crash_helper", "wait"}};
        sent.disturb = [number](const Program& program) { ::kill(program.pid(), number); };
        for (Case* const c : {&raised, &sent}) {
            if (is_termination) c->report = Report::kTraceLine;
            if (is_termination) c->record = Record::kNone;
            c->before_exec = allow_core;
            cases.push_back(*c);
        }
    }
    return cases;
}

std::vector<Case> ending_cases() {
    std::vector<Case> cases{
        {.name = "exit", .victim = {"crash_helper", "exit", "5"}},
        {.name = "handler of its own", .victim = {"crash_helper", "own-handler", "11"}},
        {.name = "blocked signal", .victim = {"crash_helper", "blocked", "15"}},
        {.name = "signal ignored from the beginning",
         .victim = {"crash_helper", "raise", "1"},
         .before_exec = [] { ::signal(SIGHUP, SIG_IGN); }},
        {.name = "signal seen to be ignored",
         .victim = {"crash_helper", "default-again", "1"},
         .before_exec = [] { ::signal(SIGHUP, SIG_IGN); }},
    };
    for (Case& c : cases) {
        c.report = Report::kNone;
        c.record = Record::kNone;
    }
    cases.push_back({.name = "abort", .victim = {"crash_helper", "abort"}, .before_exec = allow_core});
    for (const int number : {SIGSEGV, SIGBUS, SIGFPE, SIGILL}) {
        cases.push_back({.name = std::string("fault with ") + g_kovaSignalName[number],
                         .victim = {"crash_helper", "fault", std::to_string(number)},
                         .before_exec = allow_core});
    }
    for (const int number : {SIGINT, SIGSEGV, SIGXFSZ, SIGHUP}) {
        cases.push_back({.name = std::string(g_kovaSignalName[number]) + " put back to its default",
                         .victim = {"crash_helper", "default-again", std::to_string(number)}});
    }
    return cases;
}

std::vector<Case> fault_cases() {
    std::vector<Case> cases{
        {.name = "hook that faults",
         .victim = {"crash_helper", "with-hook", "0"},
         .not_in_report = {"0x0000000000001234, Func"}},
        {.name = "hook that hangs",
         .victim = {"crash_helper", "with-hook", "1"},
         .report = Report::kCut,
         .timeout_seconds = "1"},
        {.name = "fault in KOVA_GetFuncSymbol", .victim = {"faulty_step_helper", "KOVA_GetFuncSymbol", "fault", "1"}},
    };
    // {step, from which call of it on}. What stands behind a call must be there although the call went wrong.
    const struct {
        const char* how;
        const char* function;
        const char* call;
    } steps[] = {
        {"fault", "KOVA_WriteBaseInfoToLog", "1"},       {"fault", "KOVA_DumpMapsFile", "1"},
        {"fault", "KOVA_CopyRegisterInfo", "1"},         {"fault", "KOVA_FillExceptBaseInfo", "1"},
        {"fault", "KOVA_DumpRegisterContext", "1"},      {"fault", "KOVA_DumpRegisterContext", "9"},
        {"fault", "KOVA_PrintExceptInfo2log", "1"},      {"fault", "KOVA_PrintRegisterInfo2log", "1"},
        {"fault", "KOVA_PrintRegSpInfo", "1"},           {"fault", "KOVA_GetCallStack", "1"},
        {"fault", "KOVA_PrintfExceptBaseInfo2log", "2"}, {"hang", "KOVA_DumpMapsFile", "1"},
        {"hang", "KOVA_FillExceptBaseInfo", "1"},        {"hang", "KOVA_GetFuncSymbol", "1"},
        {"hang", "KOVA_PrintfExceptBaseInfo2log", "2"},
    };
    for (const auto& step : steps) {
        cases.push_back({.name = std::string(step.how) + " in " + step.function + " " + step.call,
                         .victim = {"faulty_step_helper", step.function, step.how, step.call},
                         .report = Report::kCut,
                         .timeout_seconds = "1"});
    }
    // Every trace line goes wrong again, so there is no capture to keep, and no end to the faults but the host's.
    for (const char* const how : {"fault", "hang"}) {
        cases.push_back({.name = std::string(how) + " in the trace line",
                         .victim = {"faulty_step_helper", "KOVA_WriteSigTrace2Log", how, "1"},
                         .report = Report::kNone,
                         .record = Record::kNone,
                         .timeout_seconds = "1"});
    }
    return cases;
}

}  // namespace kova::test
