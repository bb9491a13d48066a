// Reading the first line of a file.
//
// The debug log depends on it, so failures go to the system log and never to the platform's log writer.
#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>

#include "base/result.h"
#include "base/system_log.h"
#include "base/unique_file.h"
#include "kova/process_info.h"

namespace kova {
namespace {

constexpr std::size_t kReadBufferSize = 256;  // more than the first lines that are read hold

}  // namespace
}  // namespace kova

using kova::Code;
using kova::kMinusOne;
using kova::kOk;
using kova::report_to_system_log;

uint32_t KovaReadFile2Buf(const char* path, char* buffer, uint32_t length) {
    if (path == nullptr || buffer == nullptr) {
        report_to_system_log("IllegalArgumentException");
        return kMinusOne;
    }
    // The stream's buffer: it must outlive the stream. One of its own would be allocated, after a look at the file.
    char read_buffer[kova::kReadBufferSize];
    const kova::UniqueFile file(std::fopen(path, "re"));
    if (!file.is_open()) {
        report_to_system_log("Open file unsuccessful.(path=%s)", path);
        return kMinusOne;
    }
    static_cast<void>(std::setvbuf(file.get(), read_buffer, _IOFBF, sizeof read_buffer));
    Code result = kOk;
    const int limit = static_cast<int>(std::min<uint32_t>(length, INT_MAX));
    if (limit == 0 || std::fgets(buffer, limit, file.get()) == nullptr) {
        report_to_system_log("Read file unsuccessful.(path=%s, len=%u)", path, length);
        result = kMinusOne;
    }
    KovaRemoveLastRn(buffer, length);
    return result;
}

void KovaRemoveLastRn(char* text, uint32_t length) {
    if (text == nullptr) return;
    const std::size_t n = ::strnlen(text, length);
    if (n >= length) return;
    if (n >= 3 && text[n - 2] == '\r' && text[n - 1] == '\n') text[n - 2] = '\0';
    if (n >= 2 && (text[n - 1] == '\r' || text[n - 1] == '\n')) text[n - 1] = '\0';
}
