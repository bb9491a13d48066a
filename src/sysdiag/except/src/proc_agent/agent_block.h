// A block of the agent's memory partition, cleared, and released at the end of its scope with the handle that it was
// made with, whatever the process sets meanwhile.
//
// Signal context: not safe (allocates).
#pragma once

#include <cstdint>

#include "kova/memory.h"
#include "kova_platform/bounded_string.h"
#include "kova_platform/process_globals.h"

namespace kova {

template <typename T>
class AgentBlock {
  public:
    // The tag must live as long as the block: what is accounted to it is taken off it again.
    AgentBlock(const char* tag, std::uint32_t line)
        : handle_(g_kovaAgentMemHandle),
          tag_(tag),
          block_(static_cast<T*>(KovaBaseMalloc(handle_, 1, sizeof(T), tag, line))) {
        // Cannot fail: the size is the block's own.
        if (block_ != nullptr) static_cast<void>(memset_s(block_, sizeof(T), 0, sizeof(T)));
    }
    ~AgentBlock() { KovaBaseFree(handle_, block_, tag_, __LINE__); }
    AgentBlock(const AgentBlock&) = delete;
    AgentBlock& operator=(const AgentBlock&) = delete;

    [[nodiscard]] bool is_made() const { return block_ != nullptr; }
    [[nodiscard]] T* get() const { return block_; }
    [[nodiscard]] T& operator*() const { return *block_; }
    [[nodiscard]] T* operator->() const { return block_; }

  private:
    const std::uint32_t handle_;
    const char* const tag_;
    T* const block_;
};

}  // namespace kova
