// The boot environment, through the platform's tool: popen to read, system to write.
//
// What the tool prints is not trusted: it may be absent, print nothing, print anything, or be killed.
#include "kova/boot_environment.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/checked.h"
#include "base/log_message.h"
#include "base/no_cancellation.h"
#include "base/result.h"
#include "kova/shell_command.h"
#include "kova_platform/bounded_string.h"

namespace kova {
namespace {

constexpr std::size_t kLineSize = 128;
constexpr std::size_t kDigitAndLineEnd = 2;

constexpr char kBackUpPath[] = "/opt/boot_backup";

// The variables of one digit, with their messages.
struct StartupMode {
    static constexpr char kCommand[] = "envmgr getenv env_fastboot";
    static constexpr std::uint32_t kHighest = 3;
    static constexpr char kNullOutput[] = "KOVA_GetStartupMode err, mode = NULL.";
    static constexpr char kNoPipe[] = "envmgr getenv popen unsuccessful.";
    static constexpr char kAbsent[] = "env_fastboot not exist, return mode = STARTUP_MODE_NETWORK.";
    static constexpr char kMalformed[] = "get env_fastboot unsuccessful, env = %s, len = %zu.";
    static constexpr char kOutOfRange[] = "envmgr getenv env_fastboot unsuccessful, envInt = %d.";
};

struct LocalEnable {
    static constexpr char kCommand[] = "envmgr getenv env_localenable";
    static constexpr std::uint32_t kHighest = 1;
    static constexpr char kNullOutput[] = "KOVA_GetLocalEnable err, enable = NULL.";
    static constexpr char kNoPipe[] = "envmgr getenv env_localenable popen unsuccessful.";
    static constexpr char kAbsent[] = "env_localenable not exist, return enable = 0.";
    static constexpr char kMalformed[] = "get env_localenable unsuccessful, env = %s, len = %zu.";
    static constexpr char kOutOfRange[] = "envmgr getenv env_localenable unsuccessful, envInt = %d.";
};

struct SetCommand {
    const char* command;
    const char* not_run;
};

constexpr SetCommand kSetStartupMode[] = {
    {"envmgr setenv env_fastboot 0", "envmgr setenv env_fastboot 0 unsuccessful, ret = -1."},
    {"envmgr setenv env_fastboot 1", "envmgr setenv env_fastboot 1 unsuccessful, ret = -1."},
    {"envmgr setenv env_fastboot 2", "envmgr setenv env_fastboot 2 unsuccessful, ret = -1."},
    {"envmgr setenv env_fastboot 3", "envmgr setenv env_fastboot 3 unsuccessful, ret = -1."},
};

// Reads up to a line end into a cleared buffer; false when there is nothing to read. A signal may interrupt the read
// between two characters: what came before it stands in the buffer, and the rest of the line is put behind it.
bool read_line(std::FILE* pipe, char (&line)[kLineSize]) {
    for (;;) {
        const std::size_t length = std::strlen(line);
        errno = 0;
        if (std::fgets(line + length, static_cast<int>(sizeof line - length), pipe) != nullptr) return true;
        if (std::ferror(pipe) == 0 || errno != EINTR) return line[0] != '\0';
        std::clearerr(pipe);
    }
}

// The output is 0 on every way out but the last.
template <typename Variable>
Code read_digit(std::uint32_t* output) {
    if (output == nullptr) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdLock), Variable::kNullOutput);
        return kUnavailable;
    }
    *output = 0;
    const NoCancellation no_cancellation;  // a cancelled read would leave the pipe and a zombie
    std::FILE* const pipe = ::popen(Variable::kCommand, "re");
    if (pipe == nullptr) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdLock), Variable::kNoPipe);
        return kUnavailable;
    }
    char line[kLineSize] = {};
    const bool exists = read_line(pipe, line);
    if (!exists) KovaDLogWrite(KOVA_LOG_BASE(kIdLock), Variable::kAbsent);
    static_cast<void>(::pclose(pipe));  // the output alone counts: the tool's exit code tells nothing more
    if (!exists) return kOk;
    const std::size_t length = std::strlen(line);
    if (length != kDigitAndLineEnd) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdLock), Variable::kMalformed, line, length);
        return kUnavailable;
    }
    const int value = narrow<int>(std::strtol(line, nullptr, 10));
    if (static_cast<std::uint32_t>(value) > Variable::kHighest) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdLock), Variable::kOutOfRange, value);
        return kUnavailable;
    }
    *output = static_cast<std::uint32_t>(value);
    return kOk;
}

}  // namespace
}  // namespace kova

using kova::kIdLock;
using kova::kUnavailable;

uint32_t KOVA_GetStartupMode(uint32_t* mode) {
    return kova::read_digit<kova::StartupMode>(mode);
}

uint32_t KOVA_SetStartupMode(uint32_t mode) {
    if (mode > kova::StartupMode::kHighest) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdLock), "KOVA_SetStartupMode mode err, mode = %d.", static_cast<int32_t>(mode));
        return kUnavailable;
    }
    const kova::SetCommand& set = kova::kSetStartupMode[mode];
    const int status = std::system(set.command);
    if (status == -1) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdLock), "%s", set.not_run);
        return kUnavailable;
    }
    if (KOVA_SystemRetCheck(status) != kova::kOk) return kUnavailable;
    if (std::system("envmgr saveenv") == -1) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdLock), "envmgr saveenv unsuccessful, ret = -1.");
        return kUnavailable;
    }
    return kova::kOk;
}

uint32_t KOVA_GetLocalEnable(uint32_t* enable) {
    return kova::read_digit<kova::LocalEnable>(enable);
}

uint32_t KOVA_GetBackUpPath(char* path, uint32_t size) {
    if (path == nullptr) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdLock), "KOVA_GetBackUpPath err, path = NULL.");
        return kUnavailable;
    }
    if (sizeof kova::kBackUpPath > size) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdLock), "KOVA_GetBackUpPath err, size=%d.", static_cast<int32_t>(size));
        return kUnavailable;
    }
    const int written = sprintf_s(path, size, "%s", kova::kBackUpPath);
    if (written < 0) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdLock), "KOVA_GetBackUpPath err, sprintf_s return len=%d.", written);
        return kUnavailable;
    }
    return kova::kOk;
}
