// Each name of the dead-loop monitor reaches its function, a patch hook the functions of its library only, and patches
// find their landing pads.
#include <dlfcn.h>
#include <link.h>
#include <array>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

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

// In the place of the library's, as a patch would be, to tell apart what logs the same; then the library's own runs.
#define RESERVED(name)                                             \
    extern "C" void name(void) {                                   \
        g_reached += #name;                                        \
        reinterpret_cast<void (*)()>(::dlsym(RTLD_NEXT, #name))(); \
    }
RESERVED(libkova_sysdiag_agent_native_ResPatchC2hActivefunc)
RESERVED(libkova_sysdiag_agent_native_ResPatchC2hDeactivefunc)
RESERVED(libkova_base_ResPatchC2hActivefunc)
RESERVED(libkova_base_ResPatchC2hDeactivefunc)

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
}

TEST(PatchHooks, RunTheReservedFunctionOfTheirLibraryOnly) {
    const auto agent = libkova_sysdiag_agent_native_PAT_C2HSyncHookFunc;
    const auto base = libkova_base_PAT_C2HSyncHookFunc;
    const auto active = info_message("Kova reserved patch c2h active");
    const auto deactive = info_message("Kova reserved patch c2h deactive");
    const auto refused = [](const char* text) { return error_message(0x0E40105B, "Base", text); };
    const struct {
        decltype(agent) hook;
        const char* library;
        std::int32_t operation;
        std::uint32_t result;
        const char* reached;
        std::vector<LoggedMessage> logged;  // none when the patch is another library's
    } cases[] = {
        {agent,
         "libkova_sysdiag_agent_native.so",
         0,
         0,
         "libkova_sysdiag_agent_native_ResPatchC2hActivefunc",
         {active}},
        {agent,
         "libkova_sysdiag_agent_native.so",
         1,
         0,
         "libkova_sysdiag_agent_native_ResPatchC2hDeactivefunc",
         {deactive}},
        {agent,
         "libkova_sysdiag_agent_native.so",
         2,
         1,
         "",
         {refused("Kova libkova_sysdiag_agent_native c2h active or deactive unsuccessful.")}},
        {base, "libkova_base.so", 0, 0, "libkova_base_ResPatchC2hActivefunc", {active}},
        {base, "libkova_base.so", 1, 0, "libkova_base_ResPatchC2hDeactivefunc", {deactive}},
        {base, "libkova_base.so", -1, 1, "", {refused("Kova base c2h active or deactive unsuccessful.")}},
        {agent, "libkova_base.so", 0, 0, "", {}},
        {base, "libkova_base.so.1", 2, 0, "", {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << "library " << c.library << ", operation " << c.operation);
        std::vector<char> record(397 + std::strlen(c.library) + 1, 'x');
        std::strcpy(record.data() + 397, c.library);
        g_reached.clear();
        log_recorder().clear();
        std::uint32_t handled = 7;
        EXPECT_EQ(c.result, c.hook(c.operation, 99, record.data(), &handled));
        EXPECT_EQ(c.logged.size(), handled);
        EXPECT_EQ(c.reached, g_reached);
        EXPECT_EQ(c.logged, log_recorder().take());
    }
}

TEST(PatchHooks, StubsLogTheirOwnNumber) {
    for (int number = 11; number <= 20; ++number) {
        const std::string name = "KovaPatchStubfunc" + std::to_string(number);
        log_recorder().clear();
        EXPECT_EQ(0U, reinterpret_cast<std::uint32_t (*)()>(::dlsym(RTLD_DEFAULT, name.c_str()))());
        EXPECT_EQ(std::vector{info_message("Kova patch stub func" + std::to_string(number))}, log_recorder().take());
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

TEST(LandingPad, StandsAtTheStartOfEachPatchableFunction) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "calls of the sanitizer stand before it";
#endif
    void* const library = ::dlopen("libkova_sysdiag_agent_native.so", RTLD_NOW | RTLD_NOLOAD);
    for (const char* name : {"libkova_sysdiag_agent_native_ResPatchC2hActivefunc",
                             "libkova_sysdiag_agent_native_ResPatchC2hDeactivefunc",
                             "libkova_base_ResPatchC2hActivefunc",
                             "libkova_base_ResPatchC2hDeactivefunc",
                             "KovaGetOOMThreshold",
                             "KOVA_InitDeadloopMon",
                             "KOVA_InitDeadloopMonitor",
                             "KOVA_RegDeadloopMon",
                             "KOVA_RegDeadloopMonCallback",
                             "KOVA_UnRegDeadloopMon",
                             "KOVA_DmOpers",
                             "KOVA_CheckAndRepairDeadloop",
                             "KOVA_GetCallstackByPthreadId",
                             "InitDeadloopMon",
                             "regDeadloopMon",
                             "dm_opers",
                             "KOVA_InitDeadloopInfoRegion",
                             "KOVA_RecordDeadloopInfo",
                             "KOVA_RegDeadloopEventReport",
                             "KOVA_GetDeadloopCfgCount",
                             "KOVA_GetDeadloopCfg",
                             "KOVA_BoxGetCpuType",
                             "KOVA_BoxGetOsVersion",
                             "KOVA_BoxGetBoxLen",
                             "KOVA_WriteDeadloopBox",
                             "KOVA_DumpMemParamSet",
                             "KovaIsMemReady",
                             "KOVA_GetCpuTimeSpanUsage",
                             "KOVA_GetCpuTimeSpanUsageSmooth",
                             "KOVA_GetCputick",
                             "KOVA_GetDataPlaneSampleCycle",
                             "KOVA_GetDataPlaneProcessCycle",
                             "KOVA_DiagLogHookReg"}) {
        const void* const address = ::dlsym(library, name);
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
