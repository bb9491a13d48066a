// All accessors alike: what they answer until the process is attached, where they read, and that nothing in the region
// leads them out of it.
#include <linux/capability.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <random>

#include "kova/cpu_smoothing.h"
#include "kova/data_plane_cpu.h"
#include "kova/process_cpu.h"
#include "kova/system_usage.h"
#include "region_fixture.h"

namespace kova::test {
namespace {

constexpr std::uint32_t kUntouched = 7777;
constexpr std::size_t kWords = KOVA_RESOURCE_REGION_SIZE / 4;

// A call, what it gives while detached (code, output, message), and its output once attached to a region whose every
// word holds its own index; the code is 0 then.
struct Accessor {
    const char* name;
    std::uint32_t (*call)(std::uint32_t* out);
    std::uint32_t detached_code;
    std::uint32_t detached_output;
    std::uint32_t attached_output;
    const char* detached_message = nullptr;
};

template <auto kGet>
std::uint32_t returned(std::uint32_t* value) {
    *value = kGet();
    return 0;
}
std::uint32_t both_figures(std::uint32_t* sum) {
    std::uint64_t first = kUntouched;
    std::uint64_t second = kUntouched;
    const std::uint32_t code = KOVA_GetSysMemInfo(&first, &second);
    *sum = static_cast<std::uint32_t>(first + 10'000 * second);
    return code;
}
std::uint32_t both_thresholds(std::uint32_t* sum) {
    std::uint32_t restore = 0;
    const std::uint32_t code = KOVA_GetSysMemThreshold(sum, &restore);
    *sum += 10'000 * restore;
    return code;
}

const Accessor kAccessors[] = {
    {"system CPU", KOVA_GetSysCpuUsage, 1, 0, 989},
    {"memory", KOVA_GetSysMemUsage, 1, 0, 990},
    {"memory figures", both_figures, 1, 0, 9930991},
    {"thresholds", both_thresholds, 0x00600101, kUntouched, 10161015,
     "[KOVA_GetSysMemThreshold] resourceInfo not ready!"},
    {"overload state", returned<KOVA_GetMemOvloadState>, 0, 0, 1013 % 256, "KovaResourceInitAgent not OK."},
    {"reserved virtual memory", KOVA_GetReservedVirtualMem, 1, 0, 1017},
    {"set reserved memory", [](auto*) { return KOVA_SetReservedMem(5); }, 1, kUntouched, kUntouched},
    {"set virtual memory", [](auto*) { return KOVA_SetReservedVirtualMem(5); }, 1, kUntouched, kUntouched},
    // 897 samples: the newest stands in slot 176.
    {"span", [](auto* out) { return KOVA_GetCpuTimeSpanUsage(1, out); }, 1, 0, 943 % 256},
    {"smooth span", [](auto* out) { return KOVA_GetCpuTimeSpanUsageSmooth(1, out); }, 1, 0, 1062 % 256},
    {"smooth CPU", KOVA_GetSysCpuUsageSmooth, 1, 0, 989},
    {"core", returned<[] { return KOVA_GetDataPlaneCpuUsageByCore(127); }>, 0, 0, 895},
    {"judged core", returned<[] { return KOVA_JudgeDataPlaneCore(6); }>, 0, 1, 0},
    {"sample cycle", returned<KOVA_GetDataPlaneSampleCycle>, 0, 0, 896},
    {"process cycle", returned<KOVA_GetDataPlaneProcessCycle>, 0, 0, 994},
    {"balance", KOVA_GetDataPlaneCpuUsageBlance, 1, 0, 995},
};

void expect_detached_answer(const Accessor& accessor) {
    SCOPED_TRACE(accessor.name);
    std::uint32_t output = kUntouched;
    EXPECT_EQ(accessor.detached_code, accessor.call(&output));
    EXPECT_EQ(accessor.detached_output, output);
}

class Accessors : public RegionTest {};

TEST_F(Accessors, FailUntilTheCallAfterTheOneThatAttached) {
    for (const Accessor& accessor : kAccessors) {
        expect_in_child([&] {
            SCOPED_TRACE(accessor.name);
            Messages expected;
            if (accessor.detached_message != nullptr) expected = {region_error(accessor.detached_message)};
            expect_detached_answer(accessor);  // no daemon
            EXPECT_EQ(0U, GetResourceInitAgentState());
            make_object();
            for (std::uint32_t i = 0; i < kWords; ++i) reinterpret_cast<std::uint32_t*>(&region())[i] = i;
            EXPECT_EQ(expected, log_recorder().take());
            expect_detached_answer(accessor);
            EXPECT_EQ(1U, GetResourceInitAgentState());
            EXPECT_EQ(expected, log_recorder().take());
            std::uint32_t output = kUntouched;
            EXPECT_EQ(0U, accessor.call(&output));
            EXPECT_EQ(accessor.attached_output, output);
            EXPECT_EQ(Messages{}, log_recorder().take());
        });
        ::unlink(kObject);
    }
}

TEST_F(Accessors, LeaveTheProcessDetachedFromAnObjectThatCannotBeUsed) {
    make_object();
    for (const mode_t mode : {0400U, 0066U}) {  // not writable; for everybody but its owner
        expect_in_child([&] {
            // Root loses its right to open everything.
            __user_cap_header_struct header{.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
            __user_cap_data_struct rights[2] = {};
            ASSERT_EQ(0, ::chmod(kObject, mode));
            ASSERT_EQ(0, ::syscall(SYS_capset, &header, rights));
            for (const Accessor& accessor : kAccessors) expect_detached_answer(accessor);
            EXPECT_EQ(0U, GetResourceInitAgentState());
        });
    }
    ::unlink(kObject);
    ASSERT_EQ(0, ::mkfifo(kObject, 0600));
    KOVA_ResourceInfoInitAgent();
    EXPECT_EQ(0U, GetResourceInitAgentState());
    EXPECT_EQ(Messages{region_error("KOVA_ResourceInfoInitAgent ftruncate unsuccessful, 22")}, log_recorder().take());
}

TEST_F(Accessors, SizeAnEmptyObjectAndKeepTheContentsOfAFullOne) {
    for (const std::uint32_t value : {0U, 4U}) {
        ::close(::open(kObject, O_RDWR | O_CREAT, 0600));
        KOVA_ResourceInfoInitAgent();
        EXPECT_EQ(value, g_KovaResourceInfoAgent->reservedVirtualMem);  // SIGBUS where there is nothing
        EXPECT_EQ(0U, KOVA_SetReservedVirtualMem(4));
        detach();
    }
}

TEST_F(Accessors, AnswerWithinTheirRangeWhateverTheRegionHolds) {
    // The region ends where memory ends, and begins there too where pages are of 4 KiB.
    const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    const std::size_t inner = std::max<std::size_t>(page, KOVA_RESOURCE_REGION_SIZE);
    auto* const memory =
        static_cast<char*>(::mmap(nullptr, inner + 2 * page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_EQ(0, ::mprotect(memory + page, inner, PROT_READ | PROT_WRITE));
    auto* const words = reinterpret_cast<std::uint32_t*>(memory + page + inner - KOVA_RESOURCE_REGION_SIZE);
    g_KovaResourceInfoAgent = reinterpret_cast<KovaResourceRegion*>(words);
    KOVA_DataPlaneCpuInitAgent();
    g_KovaResourceInitAgentOK = 1;
    write_file(kSmoothMarker, "");
    const std::uint32_t seed = std::random_device()();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const auto any = [&]() -> std::uint32_t {
        const std::uint32_t edges[] = {0, 1, 127, 128, 359, 360, 361, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF};
        const std::size_t choice = random() % 16;
        return choice < std::size(edges) ? edges[choice] : static_cast<std::uint32_t>(random());
    };
    expect_in_child([&] {
        for (int round = 0; round < 300; ++round) {
            const bool sparse = round % 3 == 0;  // free entries are rare otherwise
            for (std::size_t i = 0; i < kWords; ++i) words[i] = sparse && random() % 8 != 0 ? 0 : any();
            std::uint32_t percent[] = {0, 0, 0};
            for (const Accessor& accessor : kAccessors) accessor.call(&percent[0]);
            for (const std::uint32_t span : {1U, 360U, any()}) KOVA_GetCpuTimeSpanUsage(span, &percent[0]);
            KOVA_GetSysCpuUsageSmooth(&percent[1]);
            KOVA_GetDataPlaneCpuUsage(&percent[2]);
            EXPECT_TRUE(percent[0] <= 255 && percent[1] <= 99 && percent[2] <= 100);
            KOVA_ChangeToSmoothCpu(any());
            KOVA_JudgeDataPlaneCore(any());
            KOVA_GetDataPlaneCpuUsageByCore(any());
            KOVA_SearchIndexByThreadAll();
            KOVA_UpdateDataPlaneCpuUsage(any(), any(), any(), any());
            KOVA_UpdateDataPlaneProcessCpuUsage(any(), any());
            log_recorder().clear();
        }
    });
}

}  // namespace
}  // namespace kova::test
