// Numbers out of texts, and percentages.
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>

#include "base/log_message.h"
#include "base/result.h"
#include "kova/process_info.h"

using kova::kFailed;
using kova::kIdGeneral;
using kova::kOk;
using kova::kUnavailable;

uint32_t KovaIsDigitString(const char* text) {
    if (text == nullptr || *text == '\0') return 0;
    for (; *text != '\0'; ++text) {
        if (std::isdigit(static_cast<unsigned char>(*text)) == 0) return 0;
    }
    return 1;
}

uint32_t KovaCalcVmUsePercent(uint32_t* percent, uint32_t total, uint32_t part) {
    if (total == 0 || total < part) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "Invalued  Mem use data! Total is %x, unused is %x.", total, part);
        return kUnavailable;
    }
    if (percent == nullptr) return kUnavailable;
    // Multiply first only where that stays within 32 bits.
    constexpr uint32_t kLargestMultiplied = 10'000;
    *percent = total <= kLargestMultiplied ? part * 100 / total : part / (total / 100);
    return kOk;
}

uint32_t KovaParsesString2Number(const char* text, uint64_t* number) {
    errno = 0;
    if (text == nullptr || number == nullptr) return kFailed;
    char* end = nullptr;
    const unsigned long value = std::strtoul(text, &end, 10);
    if (end == text || *end != '\0' || (value == ULONG_MAX && errno == ERANGE)) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "Kova parse string to number unsuccess, str=%s.", text);
        return kUnavailable;
    }
    *number = value;
    return kOk;
}
