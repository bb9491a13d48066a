// Who this node is, for a machine that has no device manager to ask.
//
//     environment             file         default  meaning
//     KOVA_NODE_CHASSIS       chassis      1        chassis number
//     KOVA_NODE_SLOT          slot         1        slot number of this board
//     KOVA_NODE_CPU           cpu          0        CPU id
//     KOVA_NODE_STACK         stack        0        1: chassis stacking is enabled
//     KOVA_NODE_BOX_STACK     box_stack    0        1: a stack whose slot numbers need no chassis in front
//
// All are unsigned decimal numbers. The environment wins over the file, which is /usr/local/etc/kova_node.cfg or what
// KOVA_NODE_FILE names: one "key=value" a line, without blanks; lines of any other form are passed over. A value that
// is no number makes the two calls that can fail fail (EINVAL), so that the mistake is reported; the others take the
// default.
//
// Nothing is kept: every call looks again. Signal context: none of it.
#include "kova_platform/node.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kova_platform/bounded_string.h"

namespace {

constexpr char kNodeFile[] = "/usr/local/etc/kova_node.cfg";
constexpr size_t kLineSize = 128;

struct Setting {
    const char* variable;
    const char* key;
    uint32_t fallback;
};

constexpr Setting kChassis{"KOVA_NODE_CHASSIS", "chassis", 1};
constexpr Setting kSlot{"KOVA_NODE_SLOT", "slot", 1};
constexpr Setting kCpu{"KOVA_NODE_CPU", "cpu", 0};
constexpr Setting kStack{"KOVA_NODE_STACK", "stack", 0};
constexpr Setting kBoxStack{"KOVA_NODE_BOX_STACK", "box_stack", 0};

uint32_t parse(const char* text, uint32_t* number) {
    if (*text < '0' || *text > '9') return EINVAL;
    errno = 0;
    char* end = nullptr;
    const unsigned long value = std::strtoul(text, &end, 10);
    if (errno != 0 || value > UINT32_MAX || (*end != '\0' && *end != '\n')) return EINVAL;
    *number = static_cast<uint32_t>(value);
    return 0;
}

// The text behind "key=" on a line, or NULL.
const char* value_on(const char* line, const char* key) {
    const size_t length = std::strlen(key);
    return std::strncmp(line, key, length) == 0 && line[length] == '=' ? line + length + 1 : nullptr;
}

// The last line with the key counts, as it would if each line were an assignment.
uint32_t read_file(const Setting& setting, uint32_t* number) {
    const char* const other = std::getenv("KOVA_NODE_FILE");
    FILE* const file = std::fopen(other != nullptr ? other : kNodeFile, "re");
    if (file == nullptr) return 0;
    uint32_t result = 0;
    char line[kLineSize];
    while (std::fgets(line, sizeof line, file) != nullptr) {
        if (const char* const value = value_on(line, setting.key); value != nullptr) result = parse(value, number);
    }
    std::fclose(file);
    return result;
}

uint32_t look_up(const Setting& setting, uint32_t* number) {
    if (const char* const value = std::getenv(setting.variable); value != nullptr) return parse(value, number);
    uint32_t found = setting.fallback;
    const uint32_t result = read_file(setting, &found);
    if (result == 0) *number = found;
    return result;
}

uint32_t value_or_default(const Setting& setting) {
    uint32_t number = setting.fallback;
    static_cast<void>(look_up(setting, &number));
    return number;
}

uint32_t look_up_for_caller(const Setting& setting, uint32_t* number) {
    return number != nullptr ? look_up(setting, number) : static_cast<uint32_t>(EINVAL);
}

}  // namespace

uint32_t KovaGetSelfChassisId(void) {
    return value_or_default(kChassis);
}

uint32_t KovaDevmGetSelfSlotId(uint32_t* slotId) {
    return look_up_for_caller(kSlot, slotId);
}

uint32_t KovaStackIsEnable(void) {
    return value_or_default(kStack);
}

uint32_t KovaIsBoxStack(void) {
    return value_or_default(kBoxStack);
}

uint32_t KovaDrvGetSelfCpuId(uint32_t* cpuId) {
    return look_up_for_caller(kCpu, cpuId);
}

void KOVA_GetSlotId(char* buffer, uint32_t size) {
    if (buffer == nullptr || size == 0) return;
    *buffer = '\0';
    uint32_t slot = 0;
    if (KovaDevmGetSelfSlotId(&slot) != 0) return;
    // A text that does not fit is left empty.
    if ((KovaStackIsEnable() & 1U) != 0 && (KovaIsBoxStack() & 1U) == 0) {
        static_cast<void>(sprintf_s(buffer, size, "%u/%u", KovaGetSelfChassisId(), slot));
    } else {
        static_cast<void>(sprintf_s(buffer, size, "%u", slot));
    }
}
