// The look-up without the loader's lock against the loader's own.
#include "base/loaded_symbol.h"

#include <gtest/gtest.h>
#include <link.h>

#include <cstdint>
#include <cstring>
#include <string>

namespace kova::test {
namespace {

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

int expect_answers_in(dl_phdr_info* module, std::size_t, void* kernel_module_seen) {
    constexpr std::uintptr_t kStep = 1021;  // comes to lie everywhere within functions
    SCOPED_TRACE(module->dlpi_name);
    if (std::strstr(module->dlpi_name, "vdso") != nullptr) *static_cast<bool*>(kernel_module_seen) = true;
    for (int i = 0; i < module->dlpi_phnum && !testing::Test::HasFailure(); ++i) {
        const auto& header = module->dlpi_phdr[i];
        if (header.p_type != PT_LOAD) continue;
        const std::uintptr_t start = module->dlpi_addr + header.p_vaddr, end = start + header.p_memsz;
        const bool code = (header.p_flags & PF_X) != 0;
        expect_the_loaders_answer(end - 1, code);
        for (std::uintptr_t at = start; at < end; at += kStep) expect_the_loaders_answer(at, code);
    }
    return 0;
}

TEST(LoadedSymbol, AnswersWhatTheLoaderAnswers) {
    bool kernel_module_seen = false;
    ::dl_iterate_phdr(expect_answers_in, &kernel_module_seen);
    EXPECT_TRUE(kernel_module_seen) << "its tables are read-only and look different";
}

}  // namespace
}  // namespace kova::test
