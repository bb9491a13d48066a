// The look-up without the loader's lock against the loader's own.
#include "base/loaded_symbol.h"

#include <gtest/gtest.h>
#include <link.h>

#include <cstdint>
#include <string>
#include <vector>

namespace kova::test {
namespace {

struct Range {
    std::string module;
    std::uintptr_t start, end;
    bool code;
};

std::vector<Range> loaded_segments() {
    std::vector<Range> ranges;
    ::dl_iterate_phdr(
        [](dl_phdr_info* info, std::size_t, void* list) {
            for (int i = 0; i < info->dlpi_phnum; ++i) {
                const auto& header = info->dlpi_phdr[i];
                if (header.p_type != PT_LOAD) continue;
                const std::uintptr_t start = info->dlpi_addr + header.p_vaddr;
                static_cast<std::vector<Range>*>(list)->push_back(
                    {info->dlpi_name, start, start + header.p_memsz, (header.p_flags & PF_X) != 0});
            }
            return 0;
        },
        &ranges);
    return ranges;
}

std::string text_of(bool known, const Dl_info& info) {
    if (!known) return "in no module";
    std::string text =
        std::string(info.dli_fname) + " " + std::to_string(reinterpret_cast<std::uintptr_t>(info.dli_fbase));
    if (info.dli_sname != nullptr) text += std::string(" ") + info.dli_sname;
    return text + " " + std::to_string(reinterpret_cast<std::uintptr_t>(info.dli_saddr));
}

// Data may be missing from the lock-free list: the loader's own, where holes lie between its segments.
void expect_the_loaders_answer(std::uintptr_t address, bool code = true) {
    const void* const pointer = reinterpret_cast<const void*>(address);
    Dl_info expected{};
    const bool expected_known = ::dladdr(pointer, &expected) != 0;
    Dl_info found{};
    const bool known = find_loaded_symbol(pointer, &found);
    if (!known && !code) return;
    EXPECT_EQ(text_of(expected_known, expected), text_of(known, found)) << std::hex << address;
}

TEST(LoadedSymbol, AnswersWhatTheLoaderAnswers) {
    constexpr std::uintptr_t kStep = 1021;  // comes to lie everywhere within functions
    bool kernel_module_seen = false;
    for (const Range& range : loaded_segments()) {
        SCOPED_TRACE(range.module);
        kernel_module_seen |= range.module.find("vdso") != std::string::npos;
        expect_the_loaders_answer(range.start, range.code);
        expect_the_loaders_answer(range.end - 1, range.code);
        for (std::uintptr_t at = range.start; at < range.end; at += kStep) expect_the_loaders_answer(at, range.code);
        if (HasFailure()) return;
    }
    EXPECT_TRUE(kernel_module_seen) << "its tables are read-only and look different";
}

TEST(LoadedSymbol, KnowsSymbolStartsAndWhatIsNoCode) {
    const char local_text[] = "on the stack";
    expect_the_loaders_answer(reinterpret_cast<std::uintptr_t>(&local_text));
    expect_the_loaders_answer(0);
    expect_the_loaders_answer(~std::uintptr_t{0});
    for (const char* const name : {"malloc", "environ", "pthread_create", "_dl_find_object"}) {
        const auto start = reinterpret_cast<std::uintptr_t>(::dlsym(RTLD_DEFAULT, name));
        for (const std::uintptr_t at : {start - 1, start, start + 1}) expect_the_loaders_answer(at);
    }
}

}  // namespace
}  // namespace kova::test
