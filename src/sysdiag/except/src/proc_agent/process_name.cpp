// Names of processes and decimal digits, without the C library's formatting; see kova/exception_log.h.
//
// Signal context: all of it.
#include <fcntl.h>
#include <cstring>

#include "base/result.h"
#include "base/text_buffer.h"
#include "base/unique_fd.h"
#include "kova/exception_log.h"

#include "base/signal_path.h"

uint32_t KOVA_GetProcName(uint32_t pid, char* buffer, uint32_t size) {
    if (buffer == nullptr || size < 2) return kova::kFailed;
    char path_text[64];
    kova::TextBuffer path(path_text, sizeof path_text);
    path.append("/proc/");
    path.append_decimal(pid);
    path.append("/comm");
    const kova::UniqueFd file = kova::open_file(path.c_str(), O_RDONLY | O_NOFOLLOW);
    if (!file.is_open()) return kova::kFailed;
    const ssize_t count = kova::read_once(file.get(), buffer, size - 1);
    if (count <= 0) return kova::kFailed;
    const bool ends_with_line_feed = buffer[count - 1] == '\n';
    buffer[ends_with_line_feed ? count - 1 : count] = '\0';
    return kova::kOk;
}

uint32_t KOVA_TranInt2Str(uint32_t value, char* buffer, uint32_t size) {
    char digits[11];  // the largest value has ten
    kova::TextBuffer text(digits, sizeof digits);
    text.append_decimal(value);
    if (buffer == nullptr || size <= text.length()) return kova::kFailed;
    std::memcpy(buffer, digits, text.length() + 1);
    return kova::kOk;
}
