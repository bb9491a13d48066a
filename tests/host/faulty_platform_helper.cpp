// A program whose own formatting function faults or hangs while a capture uses it.
//
//     faulty_platform_helper SIGNAL fault|hang TEXT NUMBER
//
// It raises SIGNAL; formats that contain TEXT are the ones that go wrong, from the NUMBER-th on.
#include <signal.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kova_platform/bounded_string.h"

namespace {

const char* g_faulty_text = nullptr;
bool g_hangs = false;
int g_sound_ones = 0;

void go_wrong_when_asked(const char* format) {
    if (g_faulty_text == nullptr || std::strstr(format, g_faulty_text) == nullptr) return;
    if (--g_sound_ones >= 0) return;
    while (g_hangs) ::pause();
    *static_cast<volatile int*>(nullptr) = 1;  // NOLINT(clang-analyzer-core.NullDereference): it is to fault
}

}  // namespace

// In front of the platform's.
int snprintf_truncated_s(char* buffer, size_t size, const char* format, ...) {
    go_wrong_when_asked(format);
    va_list arguments;
    va_start(arguments, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the line above initialises it
    const int length = std::vsnprintf(buffer, size, format, arguments);
    va_end(arguments);
    return length < static_cast<int>(size) ? length : static_cast<int>(size) - 1;
}

int main(int, char** argv) {
    g_hangs = std::strcmp(argv[2], "hang") == 0;
    g_sound_ones = std::atoi(argv[4]) - 1;
    g_faulty_text = argv[3];
    ::raise(std::atoi(argv[1]));
    return 3;
}
