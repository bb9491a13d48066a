// Log, node identity and the libraries opened at run time. Each case runs in a child, since the environment is read
// once there.
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include "kova_platform/log.h"
#include "kova_platform/memory.h"
#include "kova_platform/node.h"
#include "kova_platform/patch.h"
#include "kova_platform/process_globals.h"

namespace {

std::string g_system_log;

}  // namespace

extern "C" void syslog(int priority, const char* format, ...) {
    char text[4096];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    g_system_log += std::to_string(priority) + ": " + text + "\n";
}

namespace {

// Runs the function in a child and returns what it wrote to standard error.
template <typename Function>
std::string stderr_of_child(Function function) {
    int ends[2] = {};
    EXPECT_EQ(0, ::pipe(ends));
    const pid_t child = ::fork();
    if (child == 0) {
        ::dup2(ends[1], STDERR_FILENO);
        function();
        ::_exit(0);
    }
    ::close(ends[1]);
    std::string text;
    char chunk[512];
    for (ssize_t n = 0; (n = ::read(ends[0], chunk, sizeof chunk)) > 0;) text.append(chunk, static_cast<size_t>(n));
    ::close(ends[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(0, status);
    return text;
}

TEST(PlatformLog, MessagesCarryLevelIdAndTag) {
    const std::string text = stderr_of_child([] {
        errno = EXDEV;
        uint32_t result = KovaDLogWrite(1, 0x0E40105B, "Base", "KovaSystemCmd,ret = %d %s.", -3, "text");
        result |= KovaDLogWrite(3, 0x0E40105B, "Info", "100%%");
        const bool quiet = result == 0 && errno == EXDEV;
        std::fprintf(stderr, "%s%s", g_system_log.c_str(), quiet ? "" : "result or errno changed");
    });
    EXPECT_EQ("3: level=1 id=0x0E40105B [Base] KovaSystemCmd,ret = -3 text.\n6: level=3 id=0x0E40105B [Info] 100%\n",
              text);
}

TEST(PlatformLog, LongMessagesAreCutAndGoToStandardErrorOnRequest) {
    const std::string text(2000, 'x');
    const auto write = [&] { KovaDLogWrite(1, 7, "Base", "%s", text.c_str()); };
    EXPECT_EQ("", stderr_of_child(write));
    const std::string line = stderr_of_child([&] {
        ::setenv("KOVA_LOG_STDERR", "1", 1);
        write();
    });
    ASSERT_EQ(1024U, line.size());
    EXPECT_EQ("level=1 id=0x00000007 [Base] xxx", line.substr(0, 32));
    EXPECT_EQ("x\n", line.substr(1022));
}

void write_node_file(const char* path, const char* text) {
    FILE* const file = std::fopen(path, "w");
    ASSERT_NE(nullptr, file);
    std::fputs(text, file);
    std::fclose(file);
}

// "chassis slot cpu stack boxstack", with "E" and the code where a call fails.
std::string identity() {
    const auto asked = [](uint32_t (*function)(uint32_t*)) {
        uint32_t number = 77;
        const uint32_t result = function(&number);
        EXPECT_TRUE(result == 0 || number == 77U);
        return result == 0 ? std::to_string(number) : "E" + std::to_string(result);
    };
    return std::to_string(KovaGetSelfChassisId()) + ' ' + asked(KovaDevmGetSelfSlotId) + ' ' +
           asked(KovaDrvGetSelfCpuId) + ' ' + std::to_string(KovaStackIsEnable()) + ' ' +
           std::to_string(KovaIsBoxStack());
}

TEST(PlatformNode, EnvironmentWinsOverFileWinsOverDefaults) {
    EXPECT_EQ("1 1 0 0 0", identity());
    write_node_file("/usr/local/etc/kova_node.cfg", "chassis=2\nslot=5\n# cpu=9\ncpuid=8\nstack=1\nslot=6");
    EXPECT_EQ("2 6 0 1 0", identity());
    ::setenv("KOVA_NODE_SLOT", "7", 1);
    ::setenv("KOVA_NODE_BOX_STACK", "1", 1);
    EXPECT_EQ("2 7 0 1 1", identity());
    ::setenv("KOVA_NODE_SLOT", "7a", 1);
    ::setenv("KOVA_NODE_CPU", "4294967296", 1);
    ::setenv("KOVA_NODE_CHASSIS", "", 1);
    EXPECT_EQ("1 E22 E22 1 1", identity());
    for (const char* name : {"KOVA_NODE_SLOT", "KOVA_NODE_CPU", "KOVA_NODE_CHASSIS", "KOVA_NODE_BOX_STACK"}) {
        ::unsetenv(name);
    }
    write_node_file("/run/other.cfg", "cpu=-1\nslot=4294967295\n");
    ::setenv("KOVA_NODE_FILE", "/run/other.cfg", 1);
    EXPECT_EQ("1 4294967295 E22 0 0", identity());
    ::unsetenv("KOVA_NODE_FILE");
}

TEST(PlatformServices, AProcessStartsUnpatchedOnTheCHeapWithNothingCaptured) {
    const auto here = reinterpret_cast<uint64_t>(&identity);
    EXPECT_EQ(0U, RUX_PatchSegAddrCheck(here) | RUX_DLLPatchSegAddrCheck(here));
    EXPECT_EQ(nullptr, RUX_PatchSymNameGet_Safe(here));
    EXPECT_EQ(nullptr, RUX_DLLPatchSymNameGet_Safe(here));
    EXPECT_EQ(KOVA_MEM_HANDLE_C_HEAP, g_kovaAgentMemHandle);
    EXPECT_EQ(nullptr, g_kovaBoxExceptInfo);
    EXPECT_EQ(0, g_kovaExceptionMutex);
    EXPECT_EQ(0, ::pthread_rwlock_trywrlock(&g_exceptLogbufInitlock));
    void* const block = RUX_MemAlloc_F(3, 1, 100, "test", __LINE__);
    ASSERT_NE(nullptr, block);
    std::memset(block, 1, 100);
    RUX_MemFree_F(3, block, "test", __LINE__);
}

TEST(PlatformLibraries, NameAndVersionFillTheirFieldsAndNoMore) {
    void* const library = ::dlopen("libyot_pkg.so", RTLD_LAZY);
    ASSERT_NE(nullptr, library) << ::dlerror();
    const auto query = reinterpret_cast<uint32_t (*)(void*)>(::dlsym(library, "YOT_GetPlatformInfo"));
    ASSERT_NE(nullptr, query);
    char record[160];
    std::memset(record, 0x5A, sizeof record);
    ::setenv("KOVA_PLATFORM_NAME", std::string(100, 'n').c_str(), 1);
    EXPECT_EQ(0U, query(record));
    ::unsetenv("KOVA_PLATFORM_NAME");
    EXPECT_EQ(std::string(63, 'n'), record);
    EXPECT_STREQ("1.0.0", record + 64);
    EXPECT_EQ('\0', record[127]);
    EXPECT_EQ('\x5A', record[128]);
}

TEST(PlatformLibraries, AbnormalExitIsDecidedWhenTheLibraryIsLoaded) {
    for (const char* const value : {"1", "0"}) {
        EXPECT_EQ(value, stderr_of_child([&] {
                      ::setenv("KOVA_ABNORMAL_EXIT", value, 1);
                      void* const library = ::dlopen("libqavmlib.so", RTLD_LAZY);
                      ::unsetenv("KOVA_ABNORMAL_EXIT");
                      const auto query =
                          reinterpret_cast<KovaAbnormalExitQuery>(::dlsym(library, "QAV_IsProcessAbnormalExit"));
                      std::fprintf(stderr, "%u", query());
                  }));
    }
}

}  // namespace
