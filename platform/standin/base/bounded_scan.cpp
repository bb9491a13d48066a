// The bounded scanning functions.
//
// A small scanner for %d %i %u %x %X %o %s %c %% with widths, '*' and lengths, in the C locale. It counts and ends like
// the C library's: the result is the number of values stored, or -1 when the input ends before the first one. %s and %c
// take two arguments, the buffer and its size (size_t); an item that does not fit leaves an empty text (%s) and ends
// the scan like input that does not match. A conversion that is not served ends it too.
//
// Signal context: none of it.
#include "kova_platform/bounded_string.h"

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace kova_standin {
namespace {

struct ScanArguments {
    va_list list;
};

// Characters one by one, from a text or a stream, with one character of look-ahead. A stream gets back what was only
// looked at.
class Input {
  public:
    explicit Input(const char* text) : text_(text) {}
    explicit Input(FILE* stream) : stream_(stream) { ::flockfile(stream_); }
    Input(const Input&) = delete;
    Input& operator=(const Input&) = delete;
    ~Input() {
        if (stream_ == nullptr) return;
        if (ahead_ >= 0) static_cast<void>(std::ungetc(ahead_, stream_));
        ::funlockfile(stream_);
    }

    // EOF at the end.
    int peek() {
        if (ahead_ == kNone) ahead_ = stream_ != nullptr ? ::getc_unlocked(stream_) : next_of_text();
        return ahead_;
    }

    // Behind a peek() that did not give EOF.
    void take() { ahead_ = kNone; }

  private:
    static constexpr int kNone = -2;
    static_assert(EOF == -1);  // NOLINT(misc-redundant-expression): it is -1 as a macro, here

    int next_of_text() { return *text_ == '\0' ? EOF : static_cast<unsigned char>(*text_++); }

    const char* text_ = nullptr;
    FILE* stream_ = nullptr;
    int ahead_ = kNone;
};

enum class Match : std::uint8_t { kYes, kNo, kEndOfInput };

struct Directive {
    bool suppressed = false;
    std::size_t width = SIZE_MAX;  // most characters taken
    bool has_width = false;
    std::size_t value_bytes = sizeof(int);
    char letter = '\0';
};

bool is_space(int c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

int digit_of(int c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'z') return c - 'a' + 10;
    if (c >= 'A' && c <= 'Z') return c - 'A' + 10;
    return 99;
}

void skip_space(Input* input) {
    while (is_space(input->peek())) input->take();
}

void parse_scan_length(const char** at, Directive* directive) {
    const char first = **at;
    switch (first) {
        case 'h':
            directive->value_bytes = sizeof(short);
            break;
        case 'l':
        case 'z':
        case 'j':
        case 't':
            directive->value_bytes = sizeof(std::uint64_t);
            break;
        default:
            return;
    }
    ++*at;
    if (**at != first || (first != 'h' && first != 'l')) return;
    if (first == 'h') directive->value_bytes = 1;
    ++*at;
}
static_assert(sizeof(long) == 8 && sizeof(long long) == 8 && sizeof(std::size_t) == 8);

// From behind the '%' to behind the letter.
Directive parse_directive(const char** at) {
    Directive directive;
    if (**at == '*') {
        directive.suppressed = true;
        ++*at;
    }
    std::size_t width = 0;
    for (; **at >= '0' && **at <= '9'; ++*at) {
        if (width < SIZE_MAX / 16) width = width * 10 + static_cast<std::size_t>(**at - '0');
    }
    directive.has_width = width != 0;
    if (directive.has_width) directive.width = width;
    parse_scan_length(at, &directive);
    directive.letter = **at;
    if (directive.letter != '\0') ++*at;
    return directive;
}

// Reads an optional sign, an optional base prefix and digits. Too large a value becomes the largest one, as strtol and
// strtoul have it.
class NumberReader {
  public:
    NumberReader(Input* input, std::size_t width) : input_(input), left_(width) {}

    Match read(int base, bool is_signed, std::uint64_t* value) {
        const bool negative = read_sign();
        base = read_prefix(base);
        for (int digit = 0; left_ != 0 && (digit = digit_of(input_->peek())) < base; take()) add(base, digit);
        if (!any_) return Match::kNo;
        *value = result(negative, is_signed);
        return Match::kYes;
    }

  private:
    void take() {
        input_->take();
        --left_;
    }

    bool read_sign() {
        const int c = left_ != 0 ? input_->peek() : EOF;
        if (c == '-' || c == '+') take();
        return c == '-';
    }

    // Base 0 is told by the prefix.
    int read_prefix(int base) {
        if (left_ == 0 || input_->peek() != '0' || (base != 0 && base != 16)) return base == 0 ? 10 : base;
        take();
        any_ = true;
        if (left_ == 0 || (input_->peek() != 'x' && input_->peek() != 'X')) return base == 0 ? 8 : base;
        take();
        any_ = false;  // "0x" alone is no number
        return 16;
    }

    void add(int base, int digit) {
        any_ = true;
        if (__builtin_mul_overflow(value_, static_cast<std::uint64_t>(base), &value_) ||
            __builtin_add_overflow(value_, static_cast<std::uint64_t>(digit), &value_)) {
            overflow_ = true;
        }
    }

    [[nodiscard]] std::uint64_t result(bool negative, bool is_signed) const {
        if (!is_signed) {
            if (overflow_) return UINT64_MAX;
            return negative ? 0 - value_ : value_;
        }
        constexpr std::uint64_t kLowest = std::uint64_t{1} << 63;
        if (negative) return overflow_ || value_ > kLowest ? kLowest : 0 - value_;
        return overflow_ || value_ >= kLowest ? kLowest - 1 : value_;
    }

    Input* input_;
    std::size_t left_;
    std::uint64_t value_ = 0;
    bool any_ = false;
    bool overflow_ = false;
};

void store(void* target, std::size_t bytes, std::uint64_t value) {
    switch (bytes) {
        case 1:
            *static_cast<std::uint8_t*>(target) = static_cast<std::uint8_t>(value);
            return;
        case 2:
            *static_cast<std::uint16_t*>(target) = static_cast<std::uint16_t>(value);
            return;
        case 4:
            *static_cast<std::uint32_t*>(target) = static_cast<std::uint32_t>(value);
            return;
        default:
            *static_cast<std::uint64_t*>(target) = value;
            return;
    }
}

Match scan_number(Input* input, const Directive& directive, int base, bool is_signed, ScanArguments* arguments) {
    std::uint64_t value = 0;
    if (NumberReader(input, directive.width).read(base, is_signed, &value) != Match::kYes) return Match::kNo;
    if (!directive.suppressed) store(va_arg(arguments->list, void*), directive.value_bytes, value);
    return Match::kYes;
}

Match skip_word(Input* input, std::size_t width) {
    for (; width != 0 && input->peek() != EOF && !is_space(input->peek()); --width) input->take();
    return Match::kYes;
}

Match scan_word(Input* input, const Directive& directive, ScanArguments* arguments) {
    if (directive.suppressed) return skip_word(input, directive.width);
    char* const buffer = va_arg(arguments->list, char*);
    const std::size_t size = va_arg(arguments->list, std::size_t);
    if (buffer == nullptr || size == 0) return Match::kNo;
    std::size_t length = 0;
    for (; length < directive.width && input->peek() != EOF && !is_space(input->peek()); ++length) {
        if (length == size - 1) {
            *buffer = '\0';
            return Match::kNo;
        }
        buffer[length] = static_cast<char>(input->peek());
        input->take();
    }
    buffer[length] = '\0';
    return Match::kYes;
}

// Exactly as many characters as the width says, one without it; not terminated.
Match scan_characters(Input* input, const Directive& directive, ScanArguments* arguments) {
    const std::size_t count = directive.has_width ? directive.width : 1;
    char* buffer = nullptr;
    if (!directive.suppressed) {
        buffer = va_arg(arguments->list, char*);
        if (va_arg(arguments->list, std::size_t) < count || buffer == nullptr) return Match::kNo;
    }
    for (std::size_t i = 0; i < count; ++i) {
        // What there is counts, if it is anything at all.
        if (input->peek() == EOF) return i == 0 ? Match::kEndOfInput : Match::kYes;
        if (buffer != nullptr) buffer[i] = static_cast<char>(input->peek());
        input->take();
    }
    return Match::kYes;
}

Match scan_literal(Input* input, char wanted) {
    const int c = input->peek();
    if (c == EOF) return Match::kEndOfInput;
    if (c != static_cast<unsigned char>(wanted)) return Match::kNo;
    input->take();
    return Match::kYes;
}

Match scan_directive(Input* input, const Directive& directive, ScanArguments* arguments) {
    if (directive.letter == 'c') return scan_characters(input, directive, arguments);
    skip_space(input);
    if (input->peek() == EOF) return Match::kEndOfInput;
    switch (directive.letter) {
        case 'd':
            return scan_number(input, directive, 10, true, arguments);
        case 'i':
            return scan_number(input, directive, 0, true, arguments);
        case 'u':
            return scan_number(input, directive, 10, false, arguments);
        case 'o':
            return scan_number(input, directive, 8, false, arguments);
        case 'x':
        case 'X':
            return scan_number(input, directive, 16, false, arguments);
        case 's':
            return scan_word(input, directive, arguments);
        case '%':
            return scan_literal(input, '%');
        default:
            return Match::kNo;
    }
}

int scan(Input* input, const char* format, ScanArguments* arguments) {
    int stored = 0;
    while (*format != '\0') {
        if (is_space(static_cast<unsigned char>(*format))) {
            ++format;
            skip_space(input);
            continue;
        }
        Match match = Match::kNo;
        bool stores = false;
        if (*format == '%') {
            ++format;
            const Directive directive = parse_directive(&format);
            stores = !directive.suppressed && directive.letter != '%';
            match = scan_directive(input, directive, arguments);
        } else {
            match = scan_literal(input, *format++);
        }
        if (match == Match::kEndOfInput) return stored == 0 ? EOF : stored;
        if (match == Match::kNo) return stored;
        if (stores) ++stored;
    }
    return stored;
}

}  // namespace
}  // namespace kova_standin

int sscanf_s(const char* text, const char* format, ...) {
    if (text == nullptr || format == nullptr) return EOF;
    kova_standin::Input input(text);
    kova_standin::ScanArguments arguments;
    va_start(arguments.list, format);
    const int stored = kova_standin::scan(&input, format, &arguments);
    va_end(arguments.list);
    return stored;
}

int fscanf_s(FILE* stream, const char* format, ...) {
    if (stream == nullptr || format == nullptr) return EOF;
    kova_standin::Input input(stream);
    kova_standin::ScanArguments arguments;
    va_start(arguments.list, format);
    const int stored = kova_standin::scan(&input, format, &arguments);
    va_end(arguments.list);
    return stored;
}
