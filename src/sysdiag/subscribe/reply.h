// Replies of the services that the daemon calls. They belong to the RPC framework, which hands each back to the
// service's "_free" companion once it is sent.
#pragma once

#include "base/result.h"
#include "kova_platform/rpc.h"

namespace kova {

inline constexpr Code kNoReplyMemory = 12;

// A zeroed reply, or null without memory.
template <typename Reply>
[[nodiscard]] Reply* make_reply(const char* service) {
    auto* const reply = static_cast<Reply*>(RPC_IdlMsgCreate(sizeof(Reply), 0, service));
    if (reply != nullptr) *reply = Reply{};
    return reply;
}

inline void destroy_reply(void* reply, const char* companion) {
    RPC_IdlMsgDestroy(reply, g_uiVellModuleId, companion);
}

}  // namespace kova
