// The services that a process calls while it lives, against the system calls or the library functions below them.
#include <dlfcn.h>
#include <execinfo.h>
#include <sys/prctl.h>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "bare_files.h"
#include "kova/assert.h"
#include "kova/calendar_time.h"
#include "kova/debug_log.h"
#include "kova/memory.h"
#include "kova/symbol.h"
#include "kova_platform/process_globals.h"
#include "side_by_side.h"

namespace kova::bench {
namespace {

constexpr std::uint32_t kExceptionBox = 0;
constexpr std::uint32_t kRecords = 20;
constexpr char kDebugLog[] = "/opt/norvel/var/log/kova_debug.log";
constexpr int kConversions = 20'000;  // a single one is shorter than the clock can tell
constexpr int kLookUps = 500;

void append(benchmark::State& state) {
    static KovaExceptInfo record;
    record.magic = KOVA_EXCEPT_MARKER;
    compare(state, {.ours = [] { static_cast<void>(KOVA_BoxWrite(kExceptionBox, &record, sizeof record, nullptr)); },
                    .theirs = [] { append_record(&record); }});
}

void read_records() {
    std::uint32_t count = kRecords;
    void* records = nullptr;
    if (KOVA_BoxRead(kExceptionBox, 0, &count, &records) != 0 || count != kRecords) std::abort();
    KovaBaseFree(g_kovaAgentMemHandle, records, "bench", __LINE__);
}

void bare_read_records() {
    const int box = open_locked(kBoxFile, 0);
    KovaBoxHead head;
    KovaBoxNodeHead node;
    read_at(box, 0, &head, sizeof head);
    read_at(box, kFirstNodeHead, &node, sizeof node);
    auto* const records = static_cast<unsigned char*>(std::malloc(kRecords * sizeof(KovaExceptInfo)));
    for (std::size_t i = 0; i < kRecords; ++i) {
        const std::size_t offset = i * sizeof(KovaExceptInfo);
        read_at(box, kFirstRecord + static_cast<off_t>(offset), records + offset, sizeof(KovaExceptInfo));
    }
    unlock_close(box);
    benchmark::DoNotOptimize(records);
    std::free(records);
}

void read_twenty(benchmark::State& state) {
    static const KovaExceptInfo kRecord{};
    for (std::uint32_t i = 0; i < kRecords; ++i) {
        static_cast<void>(KOVA_BoxWrite(kExceptionBox, &kRecord, sizeof kRecord, nullptr));
    }
    compare(state, {.ours = read_records, .theirs = bare_read_records});
}

void bare_repeat() {
    constexpr off_t kNodeHead = 199428;
    constexpr off_t kItem = kNodeHead + static_cast<off_t>(sizeof(KovaBoxNodeHead));
    static KovaAssertItem item;
    const int box = open_locked(kBoxFile, 0);
    KovaBoxHead head;
    KovaBoxNodeHead node;
    read_at(box, 0, &head, sizeof head);
    read_at(box, kNodeHead, &node, sizeof node);
    read_at(box, kItem, &item, sizeof item);
    write_at(box, kItem, &item, sizeof item);
    unlock_close(box);
}

void repeat_assert(benchmark::State& state) {
    KOVA_Assert("bench/route.c", 211, "raised over and over");
    compare(state, {.ours = [] { KOVA_Assert("bench/route.c", 211, "raised over and over"); }, .theirs = bare_repeat});
}

// As many bytes as the line has that debug_line() writes.
void bare_debug_line() {
    const int log = ::open(kDebugLog, O_RDWR | O_CREAT | O_APPEND, 0666);
    struct stat status {};
    ::fstat(log, &status);
    static const std::string kPath = proc_path("comm");
    char name[128];
    static_cast<void>(::getpid());
    const int comm = ::open(kPath.c_str(), O_RDONLY | O_CLOEXEC);
    static_cast<void>(!::read(comm, name, sizeof name));
    ::close(comm);
    ::prctl(PR_GET_NAME, name);
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    static constexpr char kLine[] =
        "[2026-01-01 12:00:00:000][Process:kova_bench][Thread:kova_bench][INFO] [SYSDIAG]slot 4711 of board is up\n";
    static_cast<void>(!::write(log, kLine, sizeof kLine - 1));
    ::close(log);
}

void debug_line(benchmark::State& state) {
    compare(state, {.ours = [] { KovaDebugLog(0, "slot %d of %s is up", 4711, "board"); },
                    .theirs = bare_debug_line,
                    .prepare = [] { static_cast<void>(!::truncate(kDebugLog, 0)); }});
}

void calendar(benchmark::State& state) {
    const auto convert_all = [](auto convert) {
        // Eight years, in steps that let every field change.
        for (std::int64_t i = 0; i < kConversions; ++i) {
            tm time{};
            convert(1'700'000'000 + i * 12'345, &time);
            benchmark::DoNotOptimize(time);
        }
    };
    compare(state, {.ours = [&] { convert_all([](std::int64_t at, tm* out) { KovaGmtimeNolocks(out, at); }); },
                    .theirs = [&] { convert_all([](time_t at, tm* out) { ::gmtime_r(&at, out); }); },
                    .goal = 1.0});
}

void symbol(benchmark::State& state) {
    void* const addresses[] = {reinterpret_cast<char*>(&std::malloc) + 5, reinterpret_cast<char*>(&::gmtime_r) + 5,
                               reinterpret_cast<char*>(&KOVA_BoxWrite) + 5};
    const auto ours = [&] {
        for (int i = 0; i < kLookUps; ++i) {
            for (void* const address : addresses) {
                char text[64];
                KOVA_GetFuncSymbol(reinterpret_cast<std::uint64_t>(address), text, sizeof text);
                benchmark::DoNotOptimize(text);
            }
        }
    };
    const auto theirs = [&] {
        for (int i = 0; i < kLookUps; ++i) {
            for (void* const address : addresses) {
                char** const text = ::backtrace_symbols(&address, 1);
                benchmark::DoNotOptimize(text);
                std::free(static_cast<void*>(text));
            }
        }
    };
    compare(state, {.ours = ours, .theirs = theirs, .goal = 1.0});
}

BENCHMARK(append)->Name("append to the black box/its system calls")->UseManualTime()->Iterations(3000);
BENCHMARK(read_twenty)->Name("read 20 records/their system calls")->UseManualTime()->Iterations(2000);
BENCHMARK(repeat_assert)->Name("repeat of an assert/its system calls")->UseManualTime()->Iterations(3000);
BENCHMARK(debug_line)->Name("line in the debug log/its system calls")->UseManualTime()->Iterations(3000);
BENCHMARK(calendar)->Name("seconds to calendar time/gmtime_r")->UseManualTime()->Iterations(300);
BENCHMARK(symbol)->Name("address to symbol/backtrace_symbols")->UseManualTime()->Iterations(200);

}  // namespace
}  // namespace kova::bench
