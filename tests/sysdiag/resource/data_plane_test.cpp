// The tables that data-plane threads and processes write, alone and all at once.
#include "kova/data_plane_cpu.h"

#include <map>
#include <random>
#include <thread>
#include <vector>

#include "region_fixture.h"

namespace kova::test {
namespace {

using Key = std::vector<std::uint32_t>;  // core, pid and tid of a thread; pid of a process

class DataPlane : public RegionTest {
  protected:
    DataPlane() { make_object(); }

    // Every entry of both tables that is not free. Whoever stands there twice is an error.
    [[nodiscard]] std::map<Key, std::uint64_t> taken() const {
        std::map<Key, std::uint64_t> found;
        const auto add = [&](const Key& key, std::uint64_t value) {
            if (key == Key(key.size())) return;
            EXPECT_TRUE(found.emplace(key, value).second);
        };
        for (const KovaThreadTick& entry : region().threadTickTable) {
            add({entry.coreId, entry.pid, entry.tid}, entry.cpuTick);
        }
        for (const KovaProcessCpuUsage& entry : region().processCpuUsageTable) add({entry.pid}, entry.usage);
        return found;
    }
};

TEST_F(DataPlane, TablesHoldWhoCameFirstAndTheirLatest) {
    KOVA_ResourceInfoInitAgent();
    std::mt19937 random(20'240'602);
    const auto below = [&](std::uint32_t limit) { return static_cast<std::uint32_t>(random() % limit); };
    std::map<Key, std::uint64_t> model;
    std::size_t room[] = {128, 8};  // for threads, for processes
    for (std::uint32_t i = 0; i < 3000; ++i) {
        const Key keys[] = {{below(4), below(6), below(9)}, {1 + below(10)}};
        std::size_t refused = 0;
        for (const int table : {0, 1}) {
            const bool is_new = !model.contains(keys[table]);
            if (is_new && room[table] == 0) {
                ++refused;
            } else if (keys[table] != Key{0, 0, 0}) {  // which takes no entry
                room[table] -= is_new ? 1 : 0;
                model[keys[table]] = i;
            }
        }
        KOVA_UpdateDataPlaneCpuUsage(keys[0][0], keys[0][1], keys[0][2], i);
        KOVA_UpdateDataPlaneProcessCpuUsage(keys[1][0], i);
        ASSERT_EQ(refused, log_recorder().take().size()) << i;
        ASSERT_EQ(model, taken()) << i;
    }
    KOVA_UpdateDataPlaneCpuUsage(4, 1, ~0U, 1);
    KOVA_UpdateDataPlaneProcessCpuUsage(11, 1);
    EXPECT_EQ((Messages{base_error("update cputick unsuccessful, corid:4 pid:1 tid:-1"),
                        region_error("update process cpu usage unsuccessful, pid:11")}),
              log_recorder().take());
    const KovaThreadTick& last = region().threadTickTable[127];
    EXPECT_EQ(127U, KOVA_SearchIndexByThread(last.coreId, last.pid, last.tid));
}

constexpr std::uint32_t kProcesses = 4;
constexpr std::uint32_t kThreads = 8;
constexpr std::uint32_t kOwned = 4;  // entries that each thread reports to: all together fill the table
constexpr std::uint32_t kRounds = 500;
constexpr std::uint32_t kReports = 3;
constexpr std::uint32_t kFirstTid = 1024;

// A torn tick shows: both halves hold the report.
constexpr std::uint64_t tick_of(std::uint32_t tid, std::uint32_t report) {
    return std::uint64_t{report} << 32 | (report ^ tid);
}

std::uint64_t read_tick(std::uint32_t index) {
    return __atomic_load_n(&g_CpuUsageIdelTickAgent[index].cpuTick, __ATOMIC_RELAXED);
}

void report_all_rounds(pthread_barrier_t& meeting, std::uint32_t process, std::uint32_t thread) {
    const std::uint32_t pid = 100 + process;
    const std::uint32_t first_tid = kFirstTid + (process * kThreads + thread) * kOwned;
    for (std::uint32_t round = 0; round < kRounds; ++round) {
        ::pthread_barrier_wait(&meeting);
        for (std::uint32_t i = 0; i < kReports * kOwned; ++i) {
            const std::uint32_t tid = first_tid + i % kOwned;
            const std::uint64_t tick = tick_of(tid, i / kOwned);
            KOVA_UpdateDataPlaneCpuUsage(thread, pid, tid, tick);
            KOVA_UpdateDataPlaneProcessCpuUsage(pid, i);
            const std::uint32_t index = KOVA_SearchIndexByThread(thread, pid, tid);
            EXPECT_GT(128U, index);
            if (index == 128) continue;  // the others wait for this thread
            EXPECT_EQ(tick, read_tick(index));
            const std::uint64_t others = read_tick(127 - index);
            const auto others_tid = static_cast<std::uint32_t>(others >> 32 ^ others);
            EXPECT_TRUE(others == 0 || others_tid / 128 == kFirstTid / 128) << others;
            EXPECT_EQ(0U, KOVA_JudgeDataPlaneCore(thread));
        }
        ::pthread_barrier_wait(&meeting);
    }
}

TEST_F(DataPlane, ThreadsOfSeveralProcessesNeverShareAnEntry) {
    void* const shared = ::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    auto& meeting = *static_cast<pthread_barrier_t*>(shared);
    pthread_barrierattr_t between_processes;
    ::pthread_barrierattr_init(&between_processes);
    ::pthread_barrierattr_setpshared(&between_processes, PTHREAD_PROCESS_SHARED);
    ::pthread_barrier_init(&meeting, &between_processes, kProcesses * kThreads + 1);
    std::vector<pid_t> children;
    for (std::uint32_t process = 0; process < kProcesses; ++process) {
        children.push_back(::fork());
        if (children.back() != 0) continue;
        std::vector<std::thread> threads;
        std::uint32_t usage = 0;
        while (KOVA_GetDataPlaneCpuUsageBlance(&usage) != 0) continue;  // attaches by itself
        for (std::uint32_t i = 0; i < kThreads; ++i) {
            threads.emplace_back(report_all_rounds, std::ref(meeting), process, i);
        }
        for (std::thread& thread : threads) thread.join();
        std::_Exit(HasFailure() ? 1 : 0);
    }
    std::map<Key, std::uint64_t> all;
    for (std::uint32_t i = 0; i < kProcesses * kThreads * kOwned; ++i) {
        const std::uint32_t pid = 100 + i / (kThreads * kOwned);
        all[{i / kOwned % kThreads, pid, kFirstTid + i}] = tick_of(kFirstTid + i, kReports - 1);
        all[{pid}] = kReports * kOwned - 1;
    }
    for (std::uint32_t round = 0; round < kRounds; ++round) {
        std::fill_n(region().threadTickTable, 128, KovaThreadTick{});
        std::fill_n(region().processCpuUsageTable, 8, KovaProcessCpuUsage{});
        ::pthread_barrier_wait(&meeting);
        ::pthread_barrier_wait(&meeting);
        EXPECT_EQ(all, taken()) << round;
    }
    for (const pid_t child : children) {
        int status = -1;
        ::waitpid(child, &status, 0);
        EXPECT_EQ(0, status);
    }
}

}  // namespace
}  // namespace kova::test
