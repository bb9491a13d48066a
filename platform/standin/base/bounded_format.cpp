// A small formatter, and the bounded formatting functions on top of it.
//
// It does %d %i %u %x %X %o %c %s %p %% with all flags, widths, precisions and lengths itself and agrees with the C
// library byte for byte. Any other conversion (floating point, wide characters) sends the whole call to vsnprintf; %n
// is refused. A %s argument is read up to the destination's size at most, since it may be a damaged, unterminated text.
//
// Signal context: all of it but format_by_c_library(), which only the other conversions reach. Frames are small: the
// largest local is one number's digits.
#include "bounded_format.h"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "kova_platform/bounded_string.h"

namespace kova_standin {
namespace {

// va_list is an array on some machines and cannot be passed on by reference there; in a struct it can.
struct Arguments {
    va_list list;
};

// Where the text goes: counts without a destination, and never takes more than there is room for.
class Sink {
  public:
    Sink(char* dst, std::size_t room) : dst_(dst), room_(room) {}

    // Most padding and prefixes are empty.
    void put(const char* text, std::size_t length) {
        if (length == 0) return;
        const std::size_t taken = take(length);
        if (dst_ != nullptr) std::memmove(dst_ + count_ - taken, text, taken);
    }

    void pad(char c, std::size_t length) {
        if (length == 0) return;
        const std::size_t taken = take(length);
        if (dst_ != nullptr) std::memset(dst_ + count_ - taken, c, taken);
    }

    [[nodiscard]] std::size_t count() const { return count_; }
    [[nodiscard]] std::size_t room() const { return room_ - count_; }
    [[nodiscard]] bool is_overrun() const { return overrun_; }

  private:
    std::size_t take(std::size_t length) {
        if (length > room_ - count_) {
            length = room_ - count_;
            overrun_ = true;
        }
        count_ += length;
        return length;
    }

    char* dst_;
    std::size_t room_;
    std::size_t count_ = 0;
    bool overrun_ = false;
};

enum class Length : std::uint8_t { kChar, kShort, kInt, kLong, kLongLong, kSize, kMax, kDifference };

struct Conversion {
    bool left = false;
    bool zero = false;
    bool plus = false;
    bool space = false;
    bool alternate = false;
    bool has_precision = false;
    Length length = Length::kInt;
    char letter = '\0';
    std::size_t width = 0;
    std::size_t precision = 0;
};

enum class Outcome : std::uint8_t {
    kDone,     // formatted, or no room left
    kForeign,  // a conversion that is left to the C library
    kRefused,  // a format that nobody can serve
};

// A number above INT_MAX is refused: the text could not be counted in an int.
bool parse_number(const char** at, std::size_t* number) {
    std::size_t value = 0;
    for (; **at >= '0' && **at <= '9'; ++*at) {
        value = value * 10 + static_cast<std::size_t>(**at - '0');
        if (value > INT_MAX) return false;
    }
    *number = value;
    return true;
}

void parse_flags(const char** at, Conversion* conversion) {
    for (;; ++*at) {
        switch (**at) {
            case '-':
                conversion->left = true;
                break;
            case '0':
                conversion->zero = true;
                break;
            case '+':
                conversion->plus = true;
                break;
            case ' ':
                conversion->space = true;
                break;
            case '#':
                conversion->alternate = true;
                break;
            default:
                return;
        }
    }
}

bool parse_width(const char** at, Conversion* conversion, Arguments* arguments) {
    if (**at != '*') return parse_number(at, &conversion->width);
    ++*at;
    const int width = va_arg(arguments->list, int);
    if (width == INT_MIN) return false;
    if (width < 0) conversion->left = true;
    conversion->width = static_cast<std::size_t>(width < 0 ? -width : width);
    return true;
}

bool parse_precision(const char** at, Conversion* conversion, Arguments* arguments) {
    if (**at != '.') return true;
    ++*at;
    conversion->has_precision = true;
    if (**at != '*') return parse_number(at, &conversion->precision);
    ++*at;
    const int precision = va_arg(arguments->list, int);
    conversion->has_precision = precision >= 0;  // a negative one counts as none
    if (precision >= 0) conversion->precision = static_cast<std::size_t>(precision);
    return true;
}

void parse_length(const char** at, Conversion* conversion) {
    const char first = **at;
    switch (first) {
        case 'h':
            conversion->length = Length::kShort;
            break;
        case 'l':
            conversion->length = Length::kLong;
            break;
        case 'z':
            conversion->length = Length::kSize;
            break;
        case 'j':
            conversion->length = Length::kMax;
            break;
        case 't':
            conversion->length = Length::kDifference;
            break;
        default:
            return;
    }
    ++*at;
    if (**at != first || (first != 'h' && first != 'l')) return;
    conversion->length = first == 'h' ? Length::kChar : Length::kLongLong;
    ++*at;
}

// From behind the '%' to behind the letter.
bool parse_conversion(const char** at, Conversion* conversion, Arguments* arguments) {
    parse_flags(at, conversion);
    if (!parse_width(at, conversion, arguments)) return false;
    if (!parse_precision(at, conversion, arguments)) return false;
    parse_length(at, conversion);
    conversion->letter = **at;
    if (conversion->letter != '\0') ++*at;
    return true;
}

std::int64_t signed_argument(Length length, Arguments* arguments) {
    switch (length) {
        case Length::kChar:
            return static_cast<signed char>(va_arg(arguments->list, int));
        case Length::kShort:
            return static_cast<short>(va_arg(arguments->list, int));
        case Length::kInt:
            return va_arg(arguments->list, int);
        case Length::kLong:
            return va_arg(arguments->list, long);
        case Length::kLongLong:
            return va_arg(arguments->list, long long);
        case Length::kSize:
            return va_arg(arguments->list, ssize_t);
        case Length::kMax:
            return va_arg(arguments->list, std::intmax_t);
        case Length::kDifference:
            return va_arg(arguments->list, std::ptrdiff_t);
    }
    return 0;
}

std::uint64_t unsigned_argument(Length length, Arguments* arguments) {
    const auto value = static_cast<std::uint64_t>(signed_argument(length, arguments));
    switch (length) {
        case Length::kChar:
            return static_cast<unsigned char>(value);
        case Length::kShort:
            return static_cast<unsigned short>(value);
        case Length::kInt:
            return static_cast<unsigned int>(value);
        default:
            return value;
    }
}

// sign or base prefix, zeros, digits, within the width. The precision is the least number of digits.
// Backwards from `end`; answers the first digit. A base known to the compiler spares a division for each.
template <unsigned kBase>
char* digits_before(char* end, std::uint64_t value, const char* alphabet) {
    for (; value != 0; value /= kBase) *--end = alphabet[value % kBase];
    return end;
}

void put_number(Sink* sink, const Conversion& conversion, std::uint64_t value, unsigned base, const char* prefix) {
    char digits[22];  // 64 bits in octal
    const char* const alphabet = conversion.letter == 'X' ? "0123456789ABCDEF" : "0123456789abcdef";
    char* const end = digits + sizeof digits;
    const char* const first = base == 10  ? digits_before<10>(end, value, alphabet)
                              : base == 8 ? digits_before<8>(end, value, alphabet)
                                          : digits_before<16>(end, value, alphabet);
    const auto count = static_cast<std::size_t>(end - first);

    const std::size_t precision = conversion.has_precision ? conversion.precision : 1;
    std::size_t zeros = precision > count ? precision - count : 0;
    if (base == 8 && conversion.alternate && zeros == 0) zeros = 1;
    const std::size_t prefix_length = std::strlen(prefix);
    const std::size_t length = prefix_length + zeros + count;
    std::size_t padding = conversion.width > length ? conversion.width - length : 0;
    if (conversion.zero && !conversion.left && !conversion.has_precision) {
        zeros += padding;
        padding = 0;
    }

    if (!conversion.left) sink->pad(' ', padding);
    sink->put(prefix, prefix_length);
    sink->pad('0', zeros);
    sink->put(first, count);
    if (conversion.left) sink->pad(' ', padding);
}

const char* sign_of(const Conversion& conversion, bool negative) {
    if (negative) return "-";
    if (conversion.plus) return "+";
    return conversion.space ? " " : "";
}

void put_signed(Sink* sink, const Conversion& conversion, std::int64_t value) {
    const auto bits = static_cast<std::uint64_t>(value);
    put_number(sink, conversion, value < 0 ? 0 - bits : bits, 10, sign_of(conversion, value < 0));
}

void put_unsigned(Sink* sink, const Conversion& conversion, std::uint64_t value) {
    switch (conversion.letter) {
        case 'o':
            put_number(sink, conversion, value, 8, "");
            return;
        case 'x':
            put_number(sink, conversion, value, 16, conversion.alternate && value != 0 ? "0x" : "");
            return;
        case 'X':
            put_number(sink, conversion, value, 16, conversion.alternate && value != 0 ? "0X" : "");
            return;
        default:
            put_number(sink, conversion, value, 10, "");
            return;
    }
}

void put_padded(Sink* sink, const Conversion& conversion, const char* text, std::size_t length) {
    const std::size_t padding = conversion.width > length ? conversion.width - length : 0;
    if (!conversion.left) sink->pad(' ', padding);
    sink->put(text, length);
    if (conversion.left) sink->pad(' ', padding);
}

void put_string(Sink* sink, const Conversion& conversion, const char* text) {
    constexpr char kNull[] = "(null)";
    const std::size_t most = conversion.has_precision ? conversion.precision : SIZE_MAX;
    if (text == nullptr) {
        const std::size_t length = most < sizeof kNull - 1 ? 0 : sizeof kNull - 1;
        return put_padded(sink, conversion, kNull, length);
    }
    // One character more than there is room for shows that the text is too long; the rest is not looked at, and such a
    // text is not padded.
    const std::size_t room = sink->room();
    const std::size_t length = ::strnlen(text, std::min(most, room + 1));
    if (length > room) return sink->put(text, length);
    put_padded(sink, conversion, text, length);
}

void put_pointer(Sink* sink, const Conversion& conversion, const void* pointer) {
    if (pointer == nullptr) return put_padded(sink, conversion, "(nil)", sizeof "(nil)" - 1);
    char prefix[4] = {};
    std::strcpy(prefix, sign_of(conversion, false));
    std::strcat(prefix, "0x");
    put_number(sink, conversion, reinterpret_cast<std::uintptr_t>(pointer), 16, prefix);
}

Outcome put_conversion(Sink* sink, const Conversion& conversion, Arguments* arguments) {
    switch (conversion.letter) {
        case 'd':
        case 'i':
            put_signed(sink, conversion, signed_argument(conversion.length, arguments));
            return Outcome::kDone;
        case 'u':
        case 'x':
        case 'X':
        case 'o':
            put_unsigned(sink, conversion, unsigned_argument(conversion.length, arguments));
            return Outcome::kDone;
        case 'p':
            put_pointer(sink, conversion, va_arg(arguments->list, const void*));
            return Outcome::kDone;
        case '%':
            sink->put("%", 1);
            return Outcome::kDone;
        case 'n':
            return Outcome::kRefused;
        default:
            break;
    }
    if (conversion.length != Length::kInt) return Outcome::kForeign;
    if (conversion.letter == 's') {
        put_string(sink, conversion, va_arg(arguments->list, const char*));
        return Outcome::kDone;
    }
    if (conversion.letter == 'c') {
        const char c = static_cast<char>(va_arg(arguments->list, int));
        put_padded(sink, conversion, &c, 1);
        return Outcome::kDone;
    }
    return Outcome::kForeign;
}

Outcome format_into(Sink* sink, const char* format, va_list arguments) {
    Arguments own;
    va_copy(own.list, arguments);
    Outcome outcome = Outcome::kDone;
    while (*format != '\0' && outcome == Outcome::kDone && !sink->is_overrun()) {
        const auto literal = static_cast<std::size_t>(::strchrnul(format, '%') - format);
        sink->put(format, literal);
        format += literal;
        if (*format == '\0') break;
        ++format;
        Conversion conversion;
        outcome =
            parse_conversion(&format, &conversion, &own) ? put_conversion(sink, conversion, &own) : Outcome::kRefused;
    }
    va_end(own.list);
    return outcome;
}

// A "%n" anywhere: the C library would store through an argument.
bool stores_a_count(const char* format) {
    while ((format = std::strchr(format, '%')) != nullptr) {
        format += 1 + std::strspn(format + 1, "-+ #0123456789.*'$hlLqjzt");
        if (*format == 'n') return true;
        if (*format != '\0') ++format;
    }
    return false;
}

// Not safe in signal handlers.
[[gnu::noinline]] int format_by_c_library(char* dst, std::size_t size, const char* format, va_list arguments) {
    if (stores_a_count(format)) return -1;
    va_list own;
    va_copy(own, arguments);
    const int length = std::vsnprintf(dst, size, format, own);
    va_end(own);
    return length;
}

bool is_usable(const char* dst, std::size_t size) {
    return dst != nullptr && size != 0 && size <= INT_MAX;
}

int refuse(char* dst) {
    *dst = '\0';
    return -1;
}

// Most texts fit here, which spares them the measuring. Small: signal handlers have little stack.
constexpr std::size_t kShortText = 256;

// Formats a text of at most `room` characters or nothing: the destination is not touched before the text is known to
// fit. It is made elsewhere if it is short, else measured.
int format_whole(char* dst, std::size_t room, const char* format, va_list arguments) {
    char text[kShortText];
    Sink made(text, std::min(room, sizeof text));
    Outcome outcome = format_into(&made, format, arguments);
    if (outcome == Outcome::kDone && !made.is_overrun()) {
        std::memcpy(dst, text, made.count());
        dst[made.count()] = '\0';
        return static_cast<int>(made.count());
    }
    Sink measure(nullptr, room);
    outcome = format_into(&measure, format, arguments);
    if (outcome == Outcome::kRefused || measure.is_overrun()) return refuse(dst);
    if (outcome == Outcome::kForeign) {
        const int length = format_by_c_library(nullptr, 0, format, arguments);
        if (length < 0 || static_cast<std::size_t>(length) > room) return refuse(dst);
        return format_by_c_library(dst, room + 1, format, arguments);
    }
    // Another thread may have changed a text in between: what counts is what is written now.
    Sink sink(dst, room);
    static_cast<void>(format_into(&sink, format, arguments));
    dst[sink.count()] = '\0';
    return static_cast<int>(sink.count());
}

}  // namespace

int format_truncated(char* dst, std::size_t size, const char* format, va_list arguments) {
    if (!is_usable(dst, size)) return -1;
    if (format == nullptr) return refuse(dst);
    Sink sink(dst, size - 1);
    const Outcome outcome = format_into(&sink, format, arguments);
    if (outcome == Outcome::kRefused) return refuse(dst);
    if (outcome == Outcome::kForeign) {
        const int length = format_by_c_library(dst, size, format, arguments);
        return length < 0 ? refuse(dst) : std::min(length, static_cast<int>(size - 1));
    }
    dst[sink.count()] = '\0';
    return static_cast<int>(sink.count());
}

int format_text(char* dst, std::size_t size, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = format_truncated(dst, size, format, arguments);
    va_end(arguments);
    return length;
}

}  // namespace kova_standin

int sprintf_s(char* dst, size_t dstSize, const char* format, ...) {
    if (!kova_standin::is_usable(dst, dstSize)) return -1;
    if (format == nullptr) return kova_standin::refuse(dst);
    va_list arguments;
    va_start(arguments, format);
    const int length = kova_standin::format_whole(dst, dstSize - 1, format, arguments);
    va_end(arguments);
    return length;
}

int snprintf_s(char* dst, size_t dstSize, size_t count, const char* format, ...) {
    if (!kova_standin::is_usable(dst, dstSize)) return -1;
    if (format == nullptr) return kova_standin::refuse(dst);
    va_list arguments;
    va_start(arguments, format);
    const int length = kova_standin::format_whole(dst, std::min(count, dstSize - 1), format, arguments);
    va_end(arguments);
    return length;
}

int snprintf_truncated_s(char* dst, size_t dstSize, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = kova_standin::format_truncated(dst, dstSize, format, arguments);
    va_end(arguments);
    return length;
}
