// Log and node identity.
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>
#include <syslog.h>

#include "kova_platform/log.h"
#include "kova_platform/node.h"
#include "support/covered_file.h"

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

TEST(PlatformLog, MessagesCarryLevelIdAndTagAndAreCut) {
    ::setenv("KOVA_LOG_STDERR", "1", 1);
    testing::internal::CaptureStderr();
    errno = EXDEV;
    KovaDLogWrite(1, 0x0E40105B, "Base", "%d%s", -3, std::string(2000, 'x').c_str());
    EXPECT_EQ(EXDEV, errno);
    const std::string line = testing::internal::GetCapturedStderr();
    ASSERT_EQ(1024U, line.size());
    EXPECT_EQ("level=1 id=0x0E40105B [Base] -3xxxxx", line.substr(0, 36));
    EXPECT_EQ("x\n", line.substr(1022));
    EXPECT_EQ("3: level=1 id=0x0E40105B [Base] -3xxxxx", g_system_log.substr(0, 39));
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
    kova::test::write_file("/usr/local/etc/kova_node.cfg", "chassis=2\nslot=5\n# cpu=9\ncpuid=8\nstack=1\nslot=6");
    EXPECT_EQ("2 6 0 1 0", identity());
    ::setenv("KOVA_NODE_SLOT", "7", 1);
    ::setenv("KOVA_NODE_CPU", "4294967296", 1);
    ::setenv("KOVA_NODE_BOX_STACK", "1", 1);
    EXPECT_EQ("2 7 E22 1 1", identity());
    kova::test::write_file("/run/other.cfg", "cpu=-1\nslot=4294967295\n");
    ::setenv("KOVA_NODE_FILE", "/run/other.cfg", 1);
    ::unsetenv("KOVA_NODE_CPU");
    ::setenv("KOVA_NODE_SLOT", "7a", 1);
    EXPECT_EQ("1 E22 E22 0 1", identity());
}

}  // namespace
