// Clients to the daemon, all with the same parameters.
#include "kova/agent_registration.h"
#include "kova_platform/rpc.h"

namespace kova {
namespace {

constexpr char kClientName[] = "KovaSysdiagKovadAgent";
constexpr char kDaemonAddress[] = "domain://peer:kovad_server:1";
constexpr KovaVellOptions kClientOptions{.first = 2, .second = 30};

}  // namespace
}  // namespace kova

KovaVellClient* KovaAgentRpcConn2Kovad(void) {
    return KovaCreateVellClient(kova::kClientName, kova::kDaemonAddress, kova::kClientOptions,
                                KovaAgentConnLinkClientNotify);
}
