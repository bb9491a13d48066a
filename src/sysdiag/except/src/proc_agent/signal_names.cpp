// Signals: which ones a host catches, and how reports name them; see kova/exception_log.h.
//
// The tables are exported and may be changed by the host, so an entry is not trusted to be short or to be there.
//
// Signal context: all of it.
#include <csignal>

#include "base/result.h"
#include "base/text_buffer.h"
#include "kova/exception_log.h"

#include "base/signal_path.h"

constinit int32_t g_kovaSignalList[KOVA_SIGNAL_LIST_SIZE] = {SIGHUP, SIGINT,  SIGQUIT, SIGILL,  SIGABRT, SIGBUS,
                                                             SIGFPE, SIGSEGV, SIGTERM, SIGXCPU, SIGXFSZ, SIGSYS};

constinit uint32_t g_kovaSignalNum = KOVA_SIGNAL_LIST_SIZE;

constinit const char* g_kovaSignalName[KOVA_SIGNAL_NAME_COUNT] = {
    "SIG0",        "SIGHUP",      "SIGINT",      "SIGQUIT",     "SIGILL",      "SIGTRAP",     "SIGABRT/SIGIOT",
    "SIGBUS",      "SIGFPE",      "SIGKILL",     "SIGUSR1",     "SIGSEGV",     "SIGUSR2",     "SIGPIPE",
    "SIGALRM",     "SIGTERM",     "SIGSTKFLT",   "SIGCHLD",     "SIGCONT",     "SIGSTOP",     "SIGTSTP",
    "SIGTTIN",     "SIGTTOU",     "SIGURG",      "SIGXCPU",     "SIGXFSZ",     "SIGVTALRM",   "SIGPROF",
    "SIGWINCH",    "SIGIO",       "SIGPWR",      "SIGSYS",      "SIG32",       "SIG33",       "SIGRTMIN",
    "SIGRTMIN+1",  "SIGRTMIN+2",  "SIGRTMIN+3",  "SIGRTMIN+4",  "SIGRTMIN+5",  "SIGRTMIN+6",  "SIGRTMIN+7",
    "SIGRTMIN+8",  "SIGRTMIN+9",  "SIGRTMIN+10", "SIGRTMIN+11", "SIGRTMIN+12", "SIGRTMIN+13", "SIGRTMIN+14",
    "SIGRTMIN+15", "SIGRTMAX-14", "SIGRTMAX-13", "SIGRTMAX-12", "SIGRTMAX-11", "SIGRTMAX-10", "SIGRTMAX-9",
    "SIGRTMAX-8",  "SIGRTMAX-7",  "SIGRTMAX-6",  "SIGRTMAX-5",  "SIGRTMAX-4",  "SIGRTMAX-3",  "SIGRTMAX-2",
    "SIGRTMAX-1",  "SIGRTMAX",
};

namespace kova {
namespace {

const char* name_of(int32_t signal) {
    // SIGRTMAX is asked of the C library at run time; it may keep some for itself.
    const bool is_named = signal >= 0 && signal <= SIGRTMAX && signal < KOVA_SIGNAL_NAME_COUNT;
    const char* const name = is_named ? g_kovaSignalName[signal] : nullptr;
    return name != nullptr ? name : "UNKNOWN";
}

}  // namespace
}  // namespace kova

uint32_t KOVA_GetSignalName(int32_t signal, char* buffer) {
    if (buffer == nullptr) return kova::kFailed;
    kova::TextBuffer name(buffer, KOVA_SIGNAL_NAME_SIZE);
    name.append(kova::name_of(signal));
    return name.was_cut() ? kova::kFailed : kova::kOk;
}
