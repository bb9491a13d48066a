// What the tests of asserts and item writers share: the platform's side of them, and what box 1 holds.
#pragma once

#include <atomic>
#include <mutex>

#include "kova/assert_macros.h"
#include "kova/box_items.h"
#include "kova_platform/dead_loop.h"
#include "kova_platform/memory.h"
#include "kova_platform/node.h"
#include "sysdiag/except/box_fixture.h"

namespace kova::test {

struct Platform {
    std::mutex mutex{};
    std::vector<std::string> blocks{};  // given to the diagnostic log
    void (*while_printing)() = nullptr;
    std::atomic<int> live_blocks{0};  // of memory partition 7
    bool no_memory = false;
};
inline Platform& platform() {
    static Platform instance;
    return instance;
}

class Asserts : public BlackBox {
  protected:
    static constexpr std::uint32_t kPartition = 7;

    void SetUp() override {
        BlackBox::SetUp();
        for (auto& entry : g_assertItem) entry = {};
        g_assertCurIndex = 0;
        g_kovaAgentMemHandle = kPartition;
        platform().blocks.clear();
        platform().while_printing = nullptr;
        platform().no_memory = false;
    }
    void TearDown() override {
        EXPECT_EQ(0, platform().live_blocks);
        g_kovaAgentMemHandle = KOVA_MEM_HANDLE_C_HEAP;
    }

    // In the order of their slots.
    static std::vector<KovaAssertItem> items() {
        std::uint32_t count = kCapacity[1];
        void* records = nullptr;
        EXPECT_EQ(0u, KOVA_BoxReadFromBegin(1, 0, &count, &records, KOVA_MEM_HANDLE_C_HEAP));
        const auto* const first = static_cast<const KovaAssertItem*>(records);
        std::vector<KovaAssertItem> items(first, first + (records == nullptr ? 0 : count));
        KovaBaseFree(KOVA_MEM_HANDLE_C_HEAP, records, "test", 0);
        return items;
    }
    // "a.c:1 x2, b.c:7 x1"
    static std::string summary() {
        std::string text;
        for (const KovaAssertItem& item : items()) {
            text += (text.empty() ? "" : ", ") + std::string(item.fileName) + ":" + std::to_string(item.line) + " x" +
                    std::to_string(item.occurrenceCount);
        }
        return text;
    }
};

}  // namespace kova::test

extern "C" {

__attribute__((used)) inline void KOVA_DiagLogInSlice(const char* text, uint32_t length, uint32_t messageId) {
    using kova::test::platform;
    EXPECT_EQ(0x0E40101Du, messageId);
    {
        const std::lock_guard guard(platform().mutex);
        platform().blocks.emplace_back(text, length);
    }
    if (platform().while_printing != nullptr) platform().while_printing();
}

__attribute__((used)) inline void KOVA_GetSlotId(char* buffer, uint32_t size) {
    std::snprintf(buffer, size, "2/5");
}

__attribute__((used)) inline void* RUX_MemAlloc_F(uint32_t, uint32_t, uint32_t size, const char*, uint32_t) {
    if (kova::test::platform().no_memory) return nullptr;
    ++kova::test::platform().live_blocks;
    return ::malloc(size);
}

__attribute__((used)) inline void RUX_MemFree_F(uint32_t, void* block, const char*, uint32_t) {
    --kova::test::platform().live_blocks;
    ::free(block);
}

}  // extern "C"
