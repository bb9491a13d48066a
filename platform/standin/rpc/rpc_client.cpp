// What callers of the RPC framework see; connection.h tells how it works.
#include <cstdlib>
#include <string_view>

#include "connection.h"
#include "kova_platform/rpc.h"
#include "rpc_address.h"
#include "runtime.h"

struct KovaVellClient {
    std::shared_ptr<kova::rpc::Client> client;
};

uint32_t g_uiVellModuleId = 0;

namespace kova::rpc {
namespace {

std::uint32_t connection_locked(Runtime* runtime, const Client& client, std::shared_ptr<Connection>* connection) {
    if (const auto found = runtime->connections.find(client.address); found != runtime->connections.end()) {
        *connection = found->second;
        return 0;
    }
    return Connection::connect_locked(runtime, client, connection);
}

std::uint32_t send_request(const std::shared_ptr<Client>& client, const wire::Service& service,
                           std::span<const std::byte> payload, const KovaRpcCallback& callback) {
    Runtime* const runtime = Runtime::current();
    if (runtime == nullptr) return KOVA_RPC_NO_RESOURCE;
    const std::lock_guard lock(runtime->mutex);
    // A daemon that has ended shows when something is sent to it; the next one may be there already.
    for (int attempt = 0; attempt < 2; ++attempt) {
        std::shared_ptr<Connection> connection;
        if (const std::uint32_t rc = connection_locked(runtime, *client, &connection); rc != 0) return rc;
        const std::uint32_t rc = connection->request_locked(client, service, payload, callback);
        if (rc != KOVA_RPC_LINK_LOST) return rc;
        connection->lose_locked();
    }
    return KOVA_RPC_LINK_LOST;
}

std::uint32_t call(const KovaVellClient* handle, const char* name, const void* request, std::uint32_t length,
                   const KovaRpcCallback* callback) noexcept {
    if (handle == nullptr || name == nullptr || request == nullptr) return KOVA_RPC_INVALID;
    if (callback == nullptr || callback->handler == nullptr) return KOVA_RPC_INVALID;
    const wire::Service* const service = wire::find_service(wire::Server::kDaemon, name);
    if (service == nullptr || length < service->least_request) return KOVA_RPC_INVALID;
    return or_else<std::uint32_t>(KOVA_RPC_NO_RESOURCE, [&] {
        return send_request(handle->client, *service, {static_cast<const std::byte*>(request), length}, *callback);
    });
}

}  // namespace
}  // namespace kova::rpc

using kova::rpc::Client;
using kova::rpc::or_else;
using kova::rpc::Runtime;

KovaVellClient* KovaCreateVellClient(const char* localName, const char* address, KovaVellOptions /*options*/,
                                     KovaLinkNotify notify) {
    if (localName == nullptr || address == nullptr) return nullptr;
    sockaddr_un socket;
    if (!kova::wire::socket_of_address(address, &socket)) return nullptr;
    return or_else<KovaVellClient*>(nullptr, [&] {
        const auto client =
            std::make_shared<Client>(Client{.address = address,
                                            .socket = socket,
                                            .service = std::string(kova::wire::service_of_address(address)),
                                            .notify = notify,
                                            .is_destroyed = false});
        return new KovaVellClient{client};
    });
}

void KovaDestroyVellClientHandle(KovaVellClient* client) {
    if (client == nullptr) return;
    // Without a Runtime of this process nobody else knows the client.
    if (Runtime* const runtime = Runtime::existing(); runtime != nullptr) {
        const std::lock_guard lock(runtime->mutex);
        client->client->is_destroyed = true;
        const auto found = runtime->connections.find(client->client->address);
        if (found != runtime->connections.end()) found->second->forget_client_locked(*client->client);
    }
    delete client;
}

uint32_t ZIB_ConnRpcCall(KovaVellClient* client, const char* service, const void* request, uint32_t length,
                         const KovaRpcCallback* callback, void* /*reserved*/) {
    return kova::rpc::call(client, service, request, length, callback);
}

uint32_t ZIB_PassThroughRpcCall(KovaVellClient* client, const char* service, const void* request, uint32_t length,
                                const KovaRpcCallback* callback, void* /*reserved*/) {
    return kova::rpc::call(client, service, request, length, callback);
}

void* RPC_IdlMsgCreate(uint32_t size, uint32_t /*flags*/, const char* /*service*/) {
    return std::malloc(size);
}

void RPC_IdlMsgDestroy(void* message, uint32_t /*moduleId*/, const char* /*companion*/) {
    std::free(message);
}

uint32_t KovaAgentLinkInit(uint32_t kind) {
    constexpr uint32_t kNative = 1;
    if (kind != kNative) return KOVA_RPC_INVALID;
    return Runtime::current() != nullptr ? 0 : KOVA_RPC_NO_RESOURCE;
}
