// Addresses to texts, with the loader's and the patch services' answers chosen by the test.
#include "kova/symbol.h"

#include <dlfcn.h>
#include <cstring>
#include <map>
#include <string>

#include <gtest/gtest.h>

#include "kova_platform/patch.h"

namespace kova::test {
namespace {

struct Answers {
    Dl_info loader = {};  // without a file name: it knows nothing
    std::uint32_t in_library_patch = 0, in_program_patch = 0;
    std::map<std::uint64_t, const char*> program_names = {};  // every address of a library's patch is "lib"
};
Answers g_answers;

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
        g_answers = {.loader = c.loader};
        EXPECT_EQ(c.text, text_for(0x2a2c, c.length));
    }
}

TEST(Symbol, NamesPatchedCode) {
    const auto text_of = [](std::uint32_t in_library, std::uint32_t in_program) {
        g_answers = {
            {}, in_library, in_program, {{3, "0x1"}, {UINT64_MAX, "f"}, {16, "f0x1"}, {12, "0x2"}, {30, "main"}}};
        return text_for(30) + "|" + text_for(16) + "|" + text_for(12) + "|" + text_for(3) + "|" + text_for(40);
    };
    // A name that is only a number gives way to that of the instruction before, if there is one and it has one.
    EXPECT_EQ("main|0x2|0x2|0x1|unchanged", text_of(0, 1));
    EXPECT_EQ("lib|lib|lib|lib|lib", text_of(1, 1));
    EXPECT_EQ("unchanged|unchanged|unchanged|unchanged|unchanged", text_of(2, 3));
}

}  // namespace
}  // namespace kova::test

using kova::test::g_answers;

extern "C" {

int dladdr(const void*, Dl_info* info) noexcept {
    *info = g_answers.loader;
    return info->dli_fname != nullptr ? 1 : 0;
}

uint32_t RUX_DLLPatchSegAddrCheck(uint64_t) {
    return g_answers.in_library_patch;
}
uint32_t RUX_PatchSegAddrCheck(uint64_t) {
    return g_answers.in_program_patch;
}
const char* RUX_DLLPatchSymNameGet_Safe(uint64_t) {
    return "lib";
}
const char* RUX_PatchSymNameGet_Safe(uint64_t address) {
    const auto found = g_answers.program_names.find(address);
    return found != g_answers.program_names.end() ? found->second : nullptr;
}

}  // extern "C"
