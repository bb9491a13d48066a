// Addresses to texts, with the loader's and the patch services' answers chosen by the test.
#include "kova/symbol.h"

#include <dlfcn.h>
#include <cstring>
#include <map>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "kova_platform/patch.h"
#include "support/log_recorder.h"

namespace kova::test {
namespace {

struct Answers {
    std::optional<Dl_info> loader;  // nothing: the real loader is asked
    std::uint32_t library_check = 0;
    std::uint32_t program_check = 0;
    std::map<std::uint64_t, const char*> library_names;
    std::map<std::uint64_t, const char*> program_names;
};
Answers g_answers;

const char* name_in(const std::map<std::uint64_t, const char*>& names, std::uint64_t address) {
    const auto found = names.find(address);
    return found != names.end() ? found->second : nullptr;
}

void* pointer(std::uint64_t address) {
    return reinterpret_cast<void*>(address);
}

constexpr std::uint64_t kNowhere = 0x10;  // in no module

class Symbol : public ::testing::Test {
  protected:
    void SetUp() override {
        g_answers = Answers{};
        log_recorder().clear();
    }
    void TearDown() override { g_answers = Answers{}; }
};

TEST_F(Symbol, NamesModuleAndFunction) {
    const std::string long_name = "/lib/" + std::string(60, 'm');
    const struct {
        const char* name;
        Dl_info loader;
        std::uint32_t length, result;
        std::string text;
    } cases[] = {
        {"symbol", {"/lib/libfoo.so", pointer(0x1000), "bar", pointer(0x2000)}, 64, 0, "[libfoo.so+0x1a2c](bar+0xa2c)"},
        {"no symbol", {"/lib/libfoo.so", pointer(0x1000), nullptr, nullptr}, 64, 0, "[libfoo.so+0x1a2c](0x2a2c)"},
        {"no slash", {"libfoo.so", pointer(0x1000), nullptr, nullptr}, 64, 0, "[libfoo.so+0x1a2c](0x2a2c)"},
        {"percent", {"/a/%s%n", pointer(0x1000), "%d", pointer(0x2a2c)}, 64, 0, "[%s%n+0x1a2c](%d+0x0)"},
        {"module cut",
         {long_name.c_str(), pointer(0x1000), "bar", pointer(0x2000)},
         64,
         0,
         "[" + std::string(60, 'm') + "+0"},
        {"symbol cut", {"/lib/m", pointer(0x1000), "bar", pointer(0x2000)}, 14, 0, "[m+0x1a2c](ba"},
        {"one byte", {"/lib/m", pointer(0x1000), "bar", pointer(0x2000)}, 1, 0, ""},
        {"module above", {"/lib/m", pointer(0x3000), nullptr, nullptr}, 64, 1, "old"},
        {"symbol above", {"/lib/m", pointer(0x1000), "bar", pointer(0x2a2d)}, 64, 1, "old"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        g_answers.loader = c.loader;
        char text[80] = "old";
        std::memset(text + 4, '#', sizeof text - 4);
        EXPECT_EQ(c.result, KOVA_GetFuncSymbol(0x2a2c, text, c.length));
        EXPECT_EQ(c.text, text);
        EXPECT_EQ(std::string(sizeof text - 64, '#'), std::string(text + 64, sizeof text - 64));
    }
    EXPECT_EQ(1U, KOVA_GetFuncSymbol(0x2a2c, nullptr, 64));
    EXPECT_TRUE(log_recorder().take().empty());
}

TEST_F(Symbol, WithoutRoomReportsAndWritesNothing) {
    char text[4] = "old";
    g_answers.loader = Dl_info{"/lib/m", pointer(0x1000), "bar", pointer(0x2000)};
    EXPECT_EQ(0U, KOVA_GetFuncSymbol(0x2a2c, text, 0));
    g_answers.loader->dli_fname = "m";
    EXPECT_EQ(0U, KOVA_GetFuncSymbol(0x2a2c, text, 0));
    g_answers.loader.reset();
    g_answers.library_check = 1;
    g_answers.library_names = {{kNowhere, "patched"}};
    EXPECT_EQ(0U, KOVA_GetFuncSymbol(kNowhere, text, 0));
    EXPECT_STREQ("old", text);
    const std::vector<LoggedMessage> expected = {
        syslog_message("fileNameStart isn't NULL, snprintf_truncated_s unsuccessful."),
        syslog_message("fileNameStart is NULL, snprintf_truncated_s unsuccessful."),
        syslog_message("snprintf_truncated_s unsuccessful.(funcName=patched)"),
    };
    EXPECT_EQ(expected, log_recorder().take());
}

TEST_F(Symbol, AsksTheRealLoader) {
    char text[128] = {};
    void* function = ::dlsym(RTLD_DEFAULT, "KOVA_GetFuncSymbol");
    EXPECT_EQ(0U, KOVA_GetFuncSymbol(reinterpret_cast<std::uint64_t>(function) + 4, text, sizeof text));
    EXPECT_NE(nullptr, std::strstr(text, "[libkova_sysdiag_agent_native.so+0x")) << text;
    EXPECT_NE(nullptr, std::strstr(text, "](KOVA_GetFuncSymbol+0x4)")) << text;
}

TEST_F(Symbol, NamesPatchedCode) {
    const struct {
        const char* name;
        std::uint64_t address;
        std::uint32_t library_check, program_check;
        std::map<std::uint64_t, const char*> library_names, program_names;
        std::uint32_t lookup_result, text_result;
        const char* looked_up;
        const char* text;
    } cases[] = {
        {"of a library", kNowhere, 1, 1, {{kNowhere, "lib"}}, {{kNowhere, "main"}}, 0, 0, "lib", "lib"},
        {"of the program", kNowhere, 0, 1, {{kNowhere, "lib"}}, {{kNowhere, "main"}}, 0, 0, "main", "main"},
        {"only 1 is a yes", kNowhere, 2, 3, {{kNowhere, "lib"}}, {{kNowhere, "main"}}, 127, 1, "old", "old"},
        {"nameless", kNowhere, 1, 1, {}, {{kNowhere, "main"}}, 127, 1, nullptr, "old"},
        {"a number", kNowhere, 1, 0, {{kNowhere, "f0x1"}, {kNowhere - 4, "f"}}, {}, 0, 0, "f", "f"},
        {"a number twice", kNowhere, 0, 1, {}, {{kNowhere, "0x1"}, {kNowhere - 4, "0x2"}}, 0, 0, "0x2", "0x2"},
        {"a number without a name before", kNowhere, 1, 0, {{kNowhere, "0x1"}}, {}, 0, 0, nullptr, "0x1"},
        {"a number at 4", 4, 1, 0, {{4, "0x1"}, {0, "f"}}, {}, 0, 0, "f", "f"},
        {"a number below 4", 3, 1, 0, {{3, "0x1"}, {UINT64_MAX, "f"}}, {}, 0, 0, "0x1", "0x1"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        g_answers = Answers{{}, c.library_check, c.program_check, c.library_names, c.program_names};
        const char* name = "old";
        EXPECT_EQ(c.lookup_result, KovaGetPatchFuncName(c.address, &name));
        EXPECT_STREQ(c.looked_up, name);
        char text[16] = "old";
        EXPECT_EQ(c.text_result, KOVA_GetFuncSymbol(c.address, text, sizeof text));
        EXPECT_STREQ(c.text, text);
    }
    EXPECT_TRUE(log_recorder().take().empty());
}

}  // namespace
}  // namespace kova::test

using kova::test::g_answers;

extern "C" {

int dladdr(const void* address, Dl_info* info) noexcept {
    if (g_answers.loader.has_value()) {
        *info = *g_answers.loader;
        return 1;
    }
    static const auto real = reinterpret_cast<int (*)(const void*, Dl_info*)>(::dlsym(RTLD_NEXT, "dladdr"));
    return real(address, info);
}

uint32_t RUX_DLLPatchSegAddrCheck(uint64_t) {
    return g_answers.library_check;
}
uint32_t RUX_PatchSegAddrCheck(uint64_t) {
    return g_answers.program_check;
}

const char* RUX_DLLPatchSymNameGet_Safe(uint64_t address) {
    return kova::test::name_in(g_answers.library_names, address);
}
const char* RUX_PatchSymNameGet_Safe(uint64_t address) {
    return kova::test::name_in(g_answers.program_names, address);
}

}  // extern "C"
