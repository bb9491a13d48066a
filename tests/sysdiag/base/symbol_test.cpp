// Addresses to texts, with the loader's answers chosen by the test.
#include "kova/symbol.h"

#include <dlfcn.h>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

namespace kova::test {
namespace {

Dl_info g_answer;  // without a file name: the loader knows nothing

void* pointer(std::uint64_t address) {
    return reinterpret_cast<void*>(address);
}

// What stands in the buffer; the result tells the same.
std::string text_for(std::uint64_t address, std::uint32_t length = 64) {
    char text[65] = "unchanged";
    const std::uint32_t result = KOVA_GetFuncSymbol(address, text, length);
    EXPECT_EQ(result != 0 || length == 0, std::strcmp(text, "unchanged") == 0);
    return text;
}

TEST(Symbol, NamesModuleAndFunction) {
    const struct {
        Dl_info loader;
        std::uint32_t length;
        const char* text;
    } cases[] = {
        {{"/lib/libfoo.so", pointer(0x1000), "bar", pointer(0x2000)}, 64, "[libfoo.so+0x1a2c](bar+0xa2c)"},
        {{"libfoo.so", pointer(0x1000), nullptr, nullptr}, 64, "[libfoo.so+0x1a2c](0x2a2c)"},
        {{"/a/%s%n", pointer(0x1000), "%d", pointer(0x2a2c)}, 64, "[%s%n+0x1a2c](%d+0x0)"},
        {{"/lib/m", pointer(0x1000), "bar", pointer(0x2000)}, 7, "[m+0x1"},
        {{"/lib/m", pointer(0x1000), "bar", pointer(0x2000)}, 14, "[m+0x1a2c](ba"},
        {{"/lib/m", pointer(0x1000), "bar", pointer(0x2000)}, 0, "unchanged"},
        {{"/lib/m", pointer(0x3000), nullptr, nullptr}, 64, "unchanged"},
        {{"/lib/m", pointer(0x1000), "bar", pointer(0x2a2d)}, 64, "unchanged"},
    };
    for (const auto& c : cases) {
        g_answer = c.loader;
        EXPECT_EQ(c.text, text_for(0x2a2c, c.length));
    }
}

}  // namespace
}  // namespace kova::test

extern "C" int dladdr(const void*, Dl_info* info) noexcept {
    *info = kova::test::g_answer;
    return info->dli_fname != nullptr ? 1 : 0;
}
