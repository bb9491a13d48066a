// The tables that data-plane threads and processes write, alone and all at once.
#include "kova/data_plane_cpu.h"

#include <atomic>
#include <map>
#include <random>
#include <thread>
#include <tuple>

#include "region_fixture.h"

namespace kova::test {
namespace {

using Thread = std::tuple<std::uint32_t, std::uint32_t, std::uint32_t>;  // core, pid, tid

class DataPlane : public RegionTest {
  protected:
    DataPlane() { attach(); }

    // Every entry that is not free. A thread that stands there twice is an error.
    [[nodiscard]] std::map<Thread, std::uint64_t> ticks() const {
        std::map<Thread, std::uint64_t> found;
        for (const KovaThreadTick& entry : region().threadTickTable) {
            const Thread thread{entry.coreId, entry.pid, entry.tid};
            if (thread == Thread{}) continue;
            EXPECT_TRUE(found.emplace(thread, entry.cpuTick).second);
        }
        return found;
    }
    [[nodiscard]] std::map<std::uint32_t, std::uint32_t> usages() const {
        std::map<std::uint32_t, std::uint32_t> found;
        for (const KovaProcessCpuUsage& entry : region().processCpuUsageTable) {
            if (entry.pid == 0) continue;
            EXPECT_TRUE(found.emplace(entry.pid, entry.usage).second);
        }
        return found;
    }
};

TEST_F(DataPlane, TablesHoldWhoCameFirstAndTheirLatest) {
    std::mt19937 random(20'240'602);
    const auto below = [&](std::uint32_t limit) { return static_cast<std::uint32_t>(random() % limit); };
    std::map<Thread, std::uint64_t> ticks_model;
    std::map<std::uint32_t, std::uint32_t> usages_model;
    for (std::uint32_t i = 0; i < 3000; ++i) {
        const Thread thread{below(4), below(6), below(9)};
        const auto [core, pid, tid] = thread;
        const std::uint64_t tick = (std::uint64_t{i} << 32) + 1;
        KOVA_UpdateDataPlaneCpuUsage(core, pid, tid, tick);
        Messages expected;
        if (thread != Thread{} && (ticks_model.contains(thread) || ticks_model.size() < 128)) {
            ticks_model[thread] = tick;
        } else if (ticks_model.size() == 128) {
            expected = {base_error("update cputick unsuccessful, corid:" + std::to_string(core) +
                                   " pid:" + std::to_string(pid) + " tid:" + std::to_string(tid))};
        }
        const std::uint32_t process = 1 + below(10);
        KOVA_UpdateDataPlaneProcessCpuUsage(process, i);
        if (usages_model.contains(process) || usages_model.size() < 8) {
            usages_model[process] = i;
        } else {
            expected.push_back(region_error("update process cpu usage unsuccessful, pid:" + std::to_string(process)));
        }
        ASSERT_EQ(expected, log_recorder().take()) << i;
        ASSERT_EQ(ticks_model, ticks()) << i;
        ASSERT_EQ(usages_model, usages()) << i;
    }
    EXPECT_EQ(128U, ticks_model.size());
    for (std::uint32_t i = 0; i < 128; ++i) {
        const KovaThreadTick& entry = region().threadTickTable[i];
        EXPECT_EQ(i, KOVA_SearchIndexByThread(entry.coreId, entry.pid, entry.tid));
    }
    EXPECT_EQ(128U, KOVA_SearchIndexByThread(4, 1, 1));
    KOVA_SearchIndexByThreadAll();
    EXPECT_EQ(128U, log_recorder().take().size());
}

TEST_F(DataPlane, ACoreCountsOnceAThreadOfAProcessHasReported) {
    region().threadTickTable[0] = {.coreId = 5, .pid = 0, .tid = 8, .reserved = 0, .cpuTick = 0};
    region().threadTickTable[1] = {.coreId = 5, .pid = 8, .tid = 0, .reserved = 0, .cpuTick = 0};
    EXPECT_EQ(1U, KOVA_JudgeDataPlaneCore(5));
    EXPECT_EQ(1U, KOVA_JudgeDataPlaneCore(0));
    KOVA_UpdateDataPlaneCpuUsage(0, 8, 8, 1);
    EXPECT_EQ(0U, KOVA_JudgeDataPlaneCore(0));
    EXPECT_EQ(1U, KOVA_JudgeDataPlaneCore(128));
    EXPECT_EQ(0U, KOVA_GetDataPlaneCpuUsageByCore(0xFFFFFFFF));
    KOVA_UpdateDataPlaneCpuIdelTick();
    EXPECT_EQ((Messages{region_error("[KOVA_JudgeDataPlaneCore] input coreid exceed limit, coreid=128"),
                        region_error("input coreid exceed limit, coreid=-1"),
                        region_error("Is an old api, the new api is KOVA_UpdateDataPlaneCpuUsage")}),
              log_recorder().take());
}

TEST_F(DataPlane, TheFirstProcessThatLivesSpeaksForAll) {
    std::uint32_t usage = 7;
    EXPECT_EQ(1U, KOVA_GetDataPlaneCpuUsage(&usage));  // nobody
    region().processCpuUsageTable[1] = {.pid = 0x7FFFFFFF, .usage = 100};
    EXPECT_EQ(1U, KOVA_GetDataPlaneCpuUsage(&usage));
    EXPECT_EQ(7U, usage);
    region().processCpuUsageTable[3] = {.pid = 1, .usage = 9999};
    const std::uint32_t stored[][2] = {{4250, 42}, {99, 0}, {10'099, 100}, {12'000, 100}, {0xFFFFFFFF, 100}};
    for (const auto& [hundredths, percent] : stored) {
        region().processCpuUsageTable[2] = {.pid = static_cast<std::uint32_t>(::getpid()), .usage = hundredths};
        EXPECT_EQ(0U, KOVA_GetDataPlaneCpuUsage(&usage));
        EXPECT_EQ(percent, usage) << hundredths;
    }
    EXPECT_EQ(Messages{}, log_recorder().take());
}

constexpr std::uint32_t kProcesses = 4;
constexpr std::uint32_t kThreads = 8;
constexpr std::uint32_t kRounds = 60;
constexpr std::uint32_t kReports = 40;

// A torn tick shows: its halves belong together.
constexpr std::uint64_t tick_of(std::uint32_t report) {
    return std::uint64_t{report} << 32 | (report ^ 0x5A5A5A5A);
}

struct Meeting {
    pthread_barrier_t of_all;  // before and after each round
};

void report_all_rounds(Meeting& meeting, std::uint32_t process, std::uint32_t thread) {
    const std::uint32_t core = thread % 4;
    const std::uint32_t pid = 100 + process;
    const std::uint32_t tid = 1000 + process * kThreads + thread;
    for (std::uint32_t round = 0; round < kRounds; ++round) {
        ::pthread_barrier_wait(&meeting.of_all);
        for (std::uint32_t i = 1; i <= kReports; ++i) {
            KOVA_UpdateDataPlaneCpuUsage(core, pid, tid, tick_of(i));
            KOVA_UpdateDataPlaneProcessCpuUsage(pid, i);
        }
        ::pthread_barrier_wait(&meeting.of_all);
    }
}

void read_meanwhile(const std::atomic<bool>& done) {
    while (!done) {
        for (std::uint32_t i = 0; i < 128; ++i) {
            const std::uint64_t tick = __atomic_load_n(&g_CpuUsageIdelTickAgent[i].cpuTick, __ATOMIC_RELAXED);
            if (tick == 0) continue;
            EXPECT_EQ(tick_of(static_cast<std::uint32_t>(tick >> 32)), tick);
        }
        EXPECT_GE(128U, KOVA_SearchIndexByThread(1, 100, 1001));
        EXPECT_EQ(1U, KOVA_JudgeDataPlaneCore(9));
    }
}

TEST_F(DataPlane, ThreadsOfSeveralProcessesNeverShareAnEntry) {
    auto* const meeting = static_cast<Meeting*>(
        ::mmap(nullptr, sizeof(Meeting), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    pthread_barrierattr_t shared;
    ::pthread_barrierattr_init(&shared);
    ::pthread_barrierattr_setpshared(&shared, PTHREAD_PROCESS_SHARED);
    ::pthread_barrier_init(&meeting->of_all, &shared, kProcesses * kThreads + 1);
    std::vector<pid_t> children;
    for (std::uint32_t process = 0; process < kProcesses; ++process) {
        children.push_back(::fork());
        if (children.back() != 0) continue;
        detach();
        std::uint32_t usage = 0;
        while (KOVA_GetDataPlaneCpuUsageBlance(&usage) != 0) continue;  // attaches on its own
        std::atomic<bool> done = false;
        std::thread reader(read_meanwhile, std::cref(done));
        std::vector<std::thread> threads;
        for (std::uint32_t thread = 0; thread < kThreads; ++thread) {
            threads.emplace_back(report_all_rounds, std::ref(*meeting), process, thread);
        }
        for (std::thread& thread : threads) thread.join();
        done = true;
        reader.join();
        std::_Exit(HasFailure() ? 1 : 0);
    }
    std::map<Thread, std::uint64_t> all_ticks;
    std::map<std::uint32_t, std::uint32_t> all_usages;
    for (std::uint32_t i = 0; i < kProcesses * kThreads; ++i) {
        all_ticks[{i % kThreads % 4, 100 + i / kThreads, 1000 + i}] = tick_of(kReports);
        all_usages[100 + i / kThreads] = kReports;
    }
    for (std::uint32_t round = 0; round < kRounds; ++round) {
        std::fill_n(region().threadTickTable, 128, KovaThreadTick{});
        std::fill_n(region().processCpuUsageTable, 8, KovaProcessCpuUsage{});
        ::pthread_barrier_wait(&meeting->of_all);
        ::pthread_barrier_wait(&meeting->of_all);
        EXPECT_EQ(all_ticks, ticks()) << round;
        EXPECT_EQ(all_usages, usages()) << round;
    }
    for (const pid_t child : children) {
        int status = -1;
        ::waitpid(child, &status, 0);
        EXPECT_EQ(0, status);
    }
    ::munmap(meeting, sizeof *meeting);
}

}  // namespace
}  // namespace kova::test
