// Each name of the dead-loop monitor reaches its function, a patch hook its own library only, and patches find their
// landing pads.
#include <dlfcn.h>
#include <link.h>
#include <array>
#include <cstring>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "kova/box_items.h"
#include "kova/patch_hooks.h"
#include "kova_platform/dead_loop.h"
#include "support/log_recorder.h"

namespace kova::test {
namespace {

using namespace std::string_view_literals;

std::string g_reached;
std::array<std::uintptr_t, 8> g_words;

#define MONITOR(name)                               \
    extern "C" uintptr_t name(KOVA_MONITOR_WORDS) { \
        g_reached += #name;                         \
        g_words = {a0, a1, a2, a3, a4, a5, a6, a7}; \
        return 0xC0FFEE0012345678;                  \
    }
MONITOR(KOVA_InitDeadloopMonInner)
MONITOR(KOVA_InitDeadloopMonitorInner)
MONITOR(KOVA_RegDeadloopMonInner)
MONITOR(KOVA_RegDeadloopMonCallbackInner)
MONITOR(KOVA_UnRegDeadloopMonInner)
MONITOR(KOVA_DmOpersInner)
MONITOR(KOVA_CheckAndRepairDeadloopInner)
MONITOR(KOVA_GetCallstackByPthreadIdInner)
MONITOR(RecordThreadDeadLoopInfo)
MONITOR(KovaRegDeadloopEventReport)
MONITOR(KovaGetDeadloopCfgCount)
MONITOR(KovaGetDeadloopCfg)
MONITOR(KovaRecordExternalThreadDeadLoopInfo)

TEST(DeadLoopMonitor, EveryNameForwardsEightWordsAndTheResult) {
    const struct {
        std::uintptr_t (*facade)(KOVA_MONITOR_WORDS);
        const char* target;
    } cases[] = {{KOVA_InitDeadloopMon, "KOVA_InitDeadloopMonInner"},
                 {KOVA_InitDeadloopMonitor, "KOVA_InitDeadloopMonitorInner"},
                 {KOVA_RegDeadloopMon, "KOVA_RegDeadloopMonInner"},
                 {KOVA_RegDeadloopMonCallback, "KOVA_RegDeadloopMonCallbackInner"},
                 {KOVA_UnRegDeadloopMon, "KOVA_UnRegDeadloopMonInner"},
                 {KOVA_DmOpers, "KOVA_DmOpersInner"},
                 {KOVA_CheckAndRepairDeadloop, "KOVA_CheckAndRepairDeadloopInner"},
                 {KOVA_GetCallstackByPthreadId, "KOVA_GetCallstackByPthreadIdInner"},
                 {InitDeadloopMon, "KOVA_InitDeadloopMonInner"},
                 {regDeadloopMon, "KOVA_RegDeadloopMonInner"},
                 {dm_opers, "KOVA_DmOpersInner"},
                 {KOVA_InitDeadloopInfoRegion, "KOVA_InitDeadloopMonInner"},
                 {KOVA_RecordDeadloopInfo, "RecordThreadDeadLoopInfo"},
                 {KOVA_RegDeadloopEventReport, "KovaRegDeadloopEventReport"},
                 {KOVA_GetDeadloopCfgCount, "KovaGetDeadloopCfgCount"},
                 {KOVA_GetDeadloopCfg, "KovaGetDeadloopCfg"}};
    for (std::uintptr_t i = 0; i < std::size(cases); ++i) {
        g_reached.clear();
        const auto w =
            std::to_array<std::uintptr_t>({i, ~i, i << 32, i << 63, 4, 5, 0x8877665544332211, ~std::uintptr_t{7}});
        EXPECT_EQ(0xC0FFEE0012345678, cases[i].facade(w[0], w[1], w[2], w[3], w[4], w[5], w[6], w[7]));
        EXPECT_EQ(cases[i].target, g_reached) << i;
        EXPECT_EQ(w, g_words) << i;
    }
    EXPECT_EQ(0U, KOVA_WriteDeadloopBox(1, 2, 3, 4, 5, 6, 7, UINTPTR_MAX));
    EXPECT_EQ(std::to_array<std::uintptr_t>({1, 2, 3, 4, 5, 6, 7, UINTPTR_MAX}), g_words);
}

TEST(PatchHook, RunsAKnownOperationOnItsOwnLibraryOnly) {
    const struct {
        std::int32_t operation;
        const char* library;
        std::uint32_t result, handled;
        std::vector<LoggedMessage> logged;
    } cases[] = {
        {0, "libkova_base.so", 0, 1, {info_message("Kova reserved patch c2h active")}},
        {1, "libkova_base.so", 0, 1, {info_message("Kova reserved patch c2h deactive")}},
        {2,
         "libkova_base.so",
         1,
         1,
         {error_message(0x0E40105B, "Base", "Kova base c2h active or deactive unsuccessful.")}},
        {0, "libkova_base.so.1", 0, 0, {}},
    };
    for (const auto& c : cases) {
        std::vector<char> record(397 + std::strlen(c.library) + 1, 'x');
        std::strcpy(record.data() + 397, c.library);
        std::uint32_t handled = 7;
        EXPECT_EQ(c.result, libkova_base_PAT_C2HSyncHookFunc(c.operation, 99, record.data(), &handled));
        EXPECT_EQ(c.handled, handled);
        EXPECT_EQ(c.logged, log_recorder().take());
    }
}

// Four no-operations, and how many bytes of frame set-up may stand before them: about eight instructions.
#if defined(__x86_64__)
constexpr auto kPad = "\x0F\x1F\x44\0\0\x0F\x1F\x44\0\0\x0F\x1F\x44\0\0\x0F\x1F\x44\0\0"sv;
constexpr std::size_t kMostSetUp = 24;
#elif defined(__aarch64__)
constexpr auto kPad = "\x1F\x20\x03\xD5\x1F\x20\x03\xD5\x1F\x20\x03\xD5\x1F\x20\x03\xD5"sv;
constexpr std::size_t kMostSetUp = 32;
#endif

constexpr char kPatchable[] =
    "libkova_sysdiag_agent_native_ResPatchC2hActivefunc libkova_sysdiag_agent_native_ResPatchC2hDeactivefunc "
    "libkova_base_ResPatchC2hActivefunc libkova_base_ResPatchC2hDeactivefunc KovaGetOOMThreshold "
    "KOVA_InitDeadloopMon KOVA_InitDeadloopMonitor KOVA_RegDeadloopMon KOVA_RegDeadloopMonCallback "
    "KOVA_UnRegDeadloopMon KOVA_DmOpers KOVA_CheckAndRepairDeadloop KOVA_GetCallstackByPthreadId "
    "InitDeadloopMon regDeadloopMon dm_opers KOVA_InitDeadloopInfoRegion KOVA_RecordDeadloopInfo "
    "KOVA_RegDeadloopEventReport KOVA_GetDeadloopCfgCount KOVA_GetDeadloopCfg KOVA_BoxGetCpuType "
    "KOVA_BoxGetOsVersion KOVA_BoxGetBoxLen KOVA_WriteDeadloopBox KOVA_DumpMemParamSet KovaIsMemReady "
    "KOVA_GetCpuTimeSpanUsage KOVA_GetCpuTimeSpanUsageSmooth KOVA_GetCputick KOVA_GetDataPlaneSampleCycle "
    "KOVA_GetDataPlaneProcessCycle KOVA_DiagLogHookReg";

TEST(LandingPad, StandsAtTheStartOfEachPatchableFunction) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "calls of the sanitizer stand before it";
#endif
    void* const library = ::dlopen("libkova_sysdiag_agent_native.so", RTLD_NOW | RTLD_NOLOAD);
    std::istringstream names(kPatchable);
    for (std::string name; names >> name;) {
        const void* const address = ::dlsym(library, name.c_str());
        ASSERT_NE(nullptr, address) << name;
        Dl_info info{};
        void* symbol = nullptr;
        ASSERT_NE(0, ::dladdr1(address, &info, &symbol, RTLD_DL_SYMENT)) << name;
        const std::string_view code(static_cast<const char*>(address), static_cast<ElfW(Sym)*>(symbol)->st_size);
        EXPECT_LE(code.find(kPad), kMostSetUp) << name;
    }
}

}  // namespace
}  // namespace kova::test
