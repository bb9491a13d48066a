// Parsing map lines; see map_line.h.
//
// Signal context: all of it.
#include "except/src/proc_agent/map_line.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "kova/memory_map.h"

#include "base/signal_path.h"

namespace kova {
namespace {

bool is_space(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Takes fields off the front of a line. A NUL ends the line, as it ends a C string.
class Fields {
  public:
    explicit Fields(std::string_view line) : rest_(line) {
        if (const std::size_t nul = line.find('\0'); nul != line.npos) rest_.remove_suffix(line.size() - nul);
    }

    // "%lx": sign and "0x" allowed, the largest value for anything larger.
    bool address(std::uint64_t* value) {
        skip_space();
        const bool is_negative = next_is('-');
        if (is_negative || next_is('+')) rest_.remove_prefix(1);
        bool has_digits = false;
        if (rest_.size() >= 2 && rest_[0] == '0' && (rest_[1] == 'x' || rest_[1] == 'X')) {
            rest_.remove_prefix(2);
            has_digits = true;  // the zero is one
        }
        std::uint64_t magnitude = 0;
        bool overflowed = false;
        for (int digit = 0; !rest_.empty() && (digit = hex_digit(rest_.front())) >= 0; rest_.remove_prefix(1)) {
            has_digits = true;
            overflowed |= magnitude >> 60 != 0;
            magnitude = (magnitude << 4) | static_cast<std::uint64_t>(digit);
        }
        if (overflowed) {
            *value = std::numeric_limits<std::uint64_t>::max();
        } else {
            *value = is_negative ? 0 - magnitude : magnitude;
        }
        return has_digits;
    }

    bool hyphen() {
        if (!next_is('-')) return false;
        rest_.remove_prefix(1);
        return true;
    }

    // "%s".
    bool word(std::string_view* word) {
        skip_space();
        std::size_t length = 0;
        while (length < rest_.size() && !is_space(rest_[length])) ++length;
        *word = std::string_view(rest_.data(), length);
        rest_.remove_prefix(length);
        return length > 0;
    }

    bool range(AddressRange* range) { return address(&range->start) && hyphen() && address(&range->end); }

  private:
    bool next_is(char c) const { return !rest_.empty() && rest_.front() == c; }

    void skip_space() {
        while (!rest_.empty() && is_space(rest_.front())) rest_.remove_prefix(1);
    }

    std::string_view rest_;
};

}  // namespace

bool parse_map_line(std::string_view line, AddressRange* range, char (&permissions)[kPermissionsSize]) {
    Fields fields(line);
    AddressRange bounds;
    std::string_view word;
    if (!fields.range(&bounds) || !fields.word(&word)) return false;
    const std::size_t length = std::min(word.size(), kPermissionsSize - 1);
    std::memcpy(permissions, word.data(), length);
    permissions[length] = '\0';
    *range = bounds;
    return true;
}

bool parse_named_line(std::string_view line, AddressRange* range, std::string_view* name) {
    Fields fields(line);
    AddressRange bounds;
    std::string_view word;
    if (!fields.range(&bounds)) return false;
    for (int skipped = 0; skipped < 4; ++skipped) {  // permissions, offset, device, inode
        if (!fields.word(&word)) return false;
    }
    if (!fields.word(&word)) return false;
    *range = bounds;
    *name = word;
    return true;
}

}  // namespace kova

uint32_t KOVA_RemoveExtraSpaces(char* text) {
    if (text == nullptr) return 0;
    char* kept = text;
    const char* from = text;
    for (bool after_space = false; *from != '\0'; ++from) {
        const bool is_extra = after_space && *from == ' ';
        after_space = *from == ' ';
        if (!is_extra) *kept++ = *from;
    }
    *kept = '\0';
    return static_cast<uint32_t>(from - text);
}
