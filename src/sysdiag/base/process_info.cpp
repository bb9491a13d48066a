// What /proc says about a process: name, command line, size, whether it exists.
#include "kova/process_info.h"

#include <sys/stat.h>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/log_message.h"
#include "base/result.h"
#include "base/unique_file.h"
#include "kova_platform/bounded_string.h"

namespace kova {
namespace {

constexpr std::size_t kPathSize = 128;
constexpr std::size_t kNameSize = 128;
constexpr std::size_t kLineSize = 128;
constexpr int32_t kSelf = -1;

// Cannot fail: the longest pid and file name fit.
void make_path(char (&path)[kPathSize], int32_t pid, const char* file) {
    if (pid == kSelf) {
        static_cast<void>(snprintf_truncated_s(path, sizeof path, "/proc/self/%s", file));
    } else {
        static_cast<void>(snprintf_truncated_s(path, sizeof path, "/proc/%d/%s", pid, file));
    }
}

bool is_directory(const char* path) {
    struct stat status {};
    return ::stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

// Takes the number out of "VmSize:     1234 kB". Longer lines come in pieces, which does no harm: this one is short.
Code scan_vm_size(std::FILE* status, uint32_t* vm_size_kb) {
    char line[kLineSize];
    for (;;) {
        errno = 0;
        if (std::fgets(line, sizeof line, status) == nullptr) {
            const int reason = errno;
            if (reason != EINTR) {
                KovaDLogWrite(KOVA_LOG_BASE(kIdStatusFile),
                              "GetProcessVmSize : fgets status file unsuccessful. errno = %d.", reason);
                return kMinusOne;
            }
            if (std::feof(status) != 0) return kMinusOne;
            continue;
        }
        if (std::strstr(line, "VmSize") == nullptr) continue;
        uint32_t kilobytes = 0;
        if (sscanf_s(line, "%*s%u%*s", &kilobytes) != 1) {
            KovaDLogWrite(KOVA_LOG_BASE(kIdStatusFile), "GetProcessVmSize : sscanf_s status file unsuccessful.");
            return kMinusOne;
        }
        *vm_size_kb = kilobytes;
        return kOk;
    }
}

}  // namespace
}  // namespace kova

using kova::kIdCommandLine;
using kova::kIdGeneral;
using kova::kIdStatusFile;
using kova::kMinusOne;
using kova::kOk;
using kova::kUnavailable;

uint32_t KovaGetProcName(int32_t pid, char* buffer, uint32_t length) {
    char path[kova::kPathSize];
    kova::make_path(path, pid, "comm");
    return KovaReadFile2Buf(path, buffer, length) == kOk ? kOk : kUnavailable;
}

uint32_t KovaGetCmdLine(int32_t pid, char* buffer, uint32_t length) {
    char path[kova::kPathSize];
    kova::make_path(path, pid, "cmdline");
    if (KovaReadFile2Buf(path, buffer, length) == kOk) return kOk;
    KovaDLogWrite(KOVA_LOG_BASE(kIdCommandLine), "Read process cmdline unsuccessful. (pid=%d, path=%s)", pid, path);
    return kUnavailable;
}

uint32_t IsNorvelProcess(uint32_t pid) {
    const auto signed_pid = static_cast<int32_t>(pid);
    char name[kova::kNameSize] = {};
    char command_line[kova::kNameSize] = {};
    // What cannot be read stays empty and matches nothing.
    static_cast<void>(KovaGetProcName(signed_pid, name, sizeof name));
    static_cast<void>(KovaGetCmdLine(signed_pid, command_line, sizeof command_line));
    constexpr char kMonitor[] = "monitor";
    if (std::strncmp(name, kMonitor, sizeof kMonitor - 1) == 0) return 1;
    return std::strstr(command_line, "location") != nullptr ? 1 : 0;
}

uint32_t KovaGetProcessVmSize(uint32_t pid, uint32_t* vmSizeKb) {
    if (vmSizeKb == nullptr) return kMinusOne;
    char path[kova::kPathSize];
    if (snprintf_s(path, sizeof path, sizeof path - 1, "/proc/%u/status", pid) < 0) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdStatusFile), "GetProcessVmSize : snprintf_s status file unsuccessful.");
        return kMinusOne;
    }
    const kova::UniqueFile status(std::fopen(path, "re"));
    if (!status.is_open()) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdStatusFile), "GetProcessVmSize : open status file unsuccessful.");
        return kMinusOne;
    }
    return kova::scan_vm_size(status.get(), vmSizeKb);
}

uint32_t KovaCheckDirIsExist(const char* path) {
    return path != nullptr && kova::is_directory(path) ? 1 : 0;
}

uint32_t KovaIsProcessIdExist(uint32_t pid) {
    char path[kova::kPathSize];
    if (snprintf_s(path, sizeof path, sizeof path - 1, "/proc/%u", pid) < 0) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "[KovaIsProcessIdExist] sprintf process dir unsuccessful.");
        return kMinusOne;
    }
    return kova::is_directory(path) ? kOk : kMinusOne;
}

uint32_t KovaIsThreadExist(uint32_t pid, uint32_t tid) {
    char path[kova::kPathSize];
    if (snprintf_s(path, sizeof path, sizeof path - 1, "/proc/%u/task/%u", pid, tid) < 0) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "[KovaIsThreadExist] sprintf process dir unsuccessful.");
        return kMinusOne;
    }
    return kova::is_directory(path) ? kOk : kMinusOne;
}

uint32_t KOVA_IsFileExist(const char* path) {
    struct stat status {};
    return path != nullptr && ::stat(path, &status) == 0 ? 1 : 0;
}

uint32_t ProcIsKernel(uint32_t pid) {
    char path[kova::kPathSize];
    static_cast<void>(snprintf_truncated_s(path, sizeof path, "/proc/%u/cmdline", pid));  // always fits
    const kova::UniqueFile command_line(std::fopen(path, "re"));
    if (!command_line.is_open()) return 1;
    // A user process that cleared its command line looks the same.
    static_cast<void>(std::fgetc(command_line.get()));
    return std::feof(command_line.get()) != 0 ? 1 : 0;
}
