#include <cstdlib>
#include <cstring>

#include "kova/agent_registration.h"
#include "kova_platform/memory.h"
#include "registry_fixture.h"

using kova::test::g_fakes;

namespace {

// Whatever relies on zeros that nobody has written is found.
void* dirty_block(std::size_t size, int* alive) {
    ++*alive;
    return std::memset(std::malloc(size), 0xA5, size);
}

}  // namespace

extern "C" {

uint32_t g_uiVellModuleId = 0x77;

KovaVellClient* KovaAgentRpcConn2Kovad(void) {
    if (!g_fakes.has_client) return nullptr;
    return static_cast<KovaVellClient*>(*g_fakes.clients.insert(std::malloc(1)).first);
}

void KovaDestroyVellClientHandle(KovaVellClient* client) {
    EXPECT_EQ(1U, g_fakes.clients.erase(client)) << "released twice, or not one of ours";
    std::free(client);
}

uint32_t ZIB_ConnRpcCall(KovaVellClient* client, const char* service, const void* request, uint32_t length,
                         const KovaRpcCallback* callback, void*) {
    EXPECT_EQ(client, callback->context);
    std::vector<std::uint32_t> words(length / 4);
    std::memcpy(words.data(), request, words.size() * 4);
    g_fakes.sent.push_back({service, words, *callback});
    return g_fakes.call_result;
}

uint32_t KovaAgentLinkInit(uint32_t kind) {
    EXPECT_EQ(1U, kind);
    return g_fakes.link_result;
}

void* RPC_IdlMsgCreate(uint32_t size, uint32_t, const char*) {
    return g_fakes.has_reply_memory ? dirty_block(size, &g_fakes.replies) : nullptr;
}

void RPC_IdlMsgDestroy(void* message, uint32_t moduleId, const char* companion) {
    EXPECT_EQ(0x77U, moduleId);
    EXPECT_NE(nullptr, std::strstr(companion, "_free"));
    --g_fakes.replies;
    std::free(message);
}

void* RUX_MemAlloc_F(uint32_t, uint32_t, uint32_t size, const char*, uint32_t) {
    return g_fakes.on_allocation() ? dirty_block(size, &g_fakes.blocks) : nullptr;
}

void RUX_MemFree_F(uint32_t handle, void* block, const char* tag, uint32_t) {
    EXPECT_EQ(7U, handle);
    EXPECT_STREQ("kova_subscribe", tag);
    --g_fakes.blocks;
    std::free(block);
}

}  // extern "C"
