// A whole capture against the system calls that it cannot do without, and the stack that it needs.
#include <sys/mman.h>
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "bare_capture.h"
#include "kova/exception_capture.h"
#include "made_up_crash.h"
#include "side_by_side.h"

namespace kova::bench {
namespace {

// Header, 14 general registers, 32 heap sections, sp, pc, fp, and the header again with the call stack.
constexpr std::size_t kSectionsWanted = 1 + kGeneralSections + 32 + 3 + 1;

std::string read_log() {
    std::ifstream log(kLogPath, std::ios::binary);
    return {std::istreambuf_iterator<char>(log), {}};
}

void whole_capture(benchmark::State& state, std::size_t mappings) {
    if (KOVA_ExceptInit() != 0) return state.SkipWithError("the capture cannot be set up");
    MadeUpCrash crash(mappings);
    crash.start_afresh();
    crash.capture();
    const BareCapture bare(read_log(), crash.context());
    if (bare.sections() != kSectionsWanted) return state.SkipWithError("the report lacks sections");
    state.SetLabel(std::to_string(crash.mappings()) + " mappings");
    compare(state, {.ours = [&] { crash.capture(); },
                    .theirs = [&] { bare.run(); },
                    .prepare = [] { MadeUpCrash::start_afresh(); }});
}

void few_mappings(benchmark::State& state) {
    whole_capture(state, 30);
}

void thousand_mappings(benchmark::State& state) {
    whole_capture(state, 1'000);
}

void many_mappings(benchmark::State& state) {
    whole_capture(state, 20'000);
}

// A signal that arrives on an alternate stack of a known pattern: the signal frame counts too.
class PaintedStack {
  public:
    PaintedStack()
        : base_(static_cast<unsigned char*>(
              ::mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))) {
        std::memset(base_, kPaint, kSize);
        const stack_t stack{.ss_sp = base_, .ss_flags = 0, .ss_size = kSize};
        ::sigaltstack(&stack, &old_);
    }
    ~PaintedStack() {
        ::sigaltstack(&old_, nullptr);
        ::munmap(base_, kSize);
    }
    PaintedStack(const PaintedStack&) = delete;
    PaintedStack& operator=(const PaintedStack&) = delete;

    [[nodiscard]] std::size_t deepest_use() const {
        return kSize -
               static_cast<std::size_t>(
                   std::find_if(base_, base_ + kSize, [](unsigned char byte) { return byte != kPaint; }) - base_);
    }

  private:
    static constexpr std::size_t kSize = 256 * 1024;
    static constexpr unsigned char kPaint = 0xA5;
    unsigned char* base_;
    stack_t old_{};
};

ucontext_t g_context;

void capture_made_up_context(int signal, siginfo_t* info, void* /*context*/) {
    KOVA_SignalInfoRecordHandler(signal, info, &g_context);
}

void stack_of_a_capture(benchmark::State& state) {
    constexpr std::size_t kSmallStack = 16 * 1024;
    if (KOVA_ExceptInit() != 0) return state.SkipWithError("the capture cannot be set up");
    const MadeUpCrash crash(0);
    g_context = crash.context();
    struct sigaction action {};
    struct sigaction old {};
    action.sa_sigaction = capture_made_up_context;
    action.sa_flags = SA_ONSTACK | SA_SIGINFO;
    ::sigaction(SIGQUIT, &action, &old);
    std::size_t deepest = 0;
    for ([[maybe_unused]] auto _ : state) {
        const PaintedStack stack;
        MadeUpCrash::start_afresh();
        ::raise(SIGQUIT);
        deepest = std::max(deepest, stack.deepest_use());
        state.SetIterationTime(1e-6);
    }
    ::sigaction(SIGQUIT, &old, nullptr);
    char text[120];
    std::snprintf(text, sizeof text, "%zu bytes, signal frame included; %ld of 16384 left", deepest,
                  static_cast<long>(kSmallStack) - static_cast<long>(deepest));
    state.SetLabel(text);
}

BENCHMARK(few_mappings)->Name("capture, few mappings/its system calls")->UseManualTime()->Iterations(200);
BENCHMARK(thousand_mappings)->Name("capture, 1,000 mappings/its system calls")->UseManualTime()->Iterations(100);
BENCHMARK(many_mappings)->Name("capture, 20,000 mappings/its system calls")->UseManualTime()->Iterations(25);
BENCHMARK(stack_of_a_capture)->Name("stack of a capture")->UseManualTime()->Iterations(5);

}  // namespace
}  // namespace kova::bench
