// The name that goes to dlsym is that of a table row, never bytes from the wire.
#include "service_call.h"

#include <dlfcn.h>
#include <cstring>
#include <string>

#include "kova_platform/rpc.h"
#include "runtime.h"

namespace kova::rpc {
namespace {

using Handler = std::uint32_t (*)(const void* request, void** reply);
using Companion = void (*)(void* reply);

constexpr std::size_t kWantedItemsOffset = 8;  // in the request of a subscribe page

// Looked up each time: a module that brought the service may be gone.
template <typename Function>
Function find_function(const std::string& name) {
    return reinterpret_cast<Function>(::dlsym(RTLD_DEFAULT, name.c_str()));
}

std::vector<std::byte> plain_reply(const wire::Service& service, const void* reply) {
    const auto* const bytes = static_cast<const std::byte*>(reply);
    return {bytes, bytes + service.least_response};
}

// Empty when the page is not one.
std::vector<std::byte> page_reply(const void* reply, std::span<const std::byte> request) {
    wire::SubscribePage page;
    std::memcpy(&page, reply, sizeof page);
    std::uint32_t wanted = 0;
    std::memcpy(&wanted, request.data() + kWantedItemsOffset, sizeof wanted);
    std::vector<std::byte> payload(wire::kSubscribePageLimit);
    payload.resize(wire::marshal_page(page, wanted, payload));
    return payload;
}

}  // namespace

ServiceResult call_service(const wire::Service& service, std::span<const std::byte> request) {
    const std::string name(service.name);
    const auto handler = find_function<Handler>(name);
    const auto companion = find_function<Companion>(name + "_free");
    if (handler == nullptr || companion == nullptr) return {.status = KOVA_RPC_NO_SERVICE, .payload = {}};

    void* reply = nullptr;
    ServiceResult result{.status = handler(request.data(), &reply), .payload = {}};
    if (reply != nullptr) {
        result.payload = service.response_marshalling == wire::Marshalling::kPlain ? plain_reply(service, reply)
                                                                                   : page_reply(reply, request);
        companion(reply);
    }
    // Success without a reply to show for it is none.
    if (result.status == 0 && result.payload.empty()) {
        KovaDLogWrite(kLogError, kLogId, "Base", "RPC service %s gave no reply that can be sent", name.c_str());
        result.status = KOVA_RPC_INVALID;
    }
    return result;
}

}  // namespace kova::rpc
