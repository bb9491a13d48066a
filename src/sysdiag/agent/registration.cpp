// Keeps the process registered with the daemon; the header tells the states.
//
// Locks: g_kovaAgentRegCtrl.mutex from entry to exit of what a host, the RPC framework or the timer service calls. It
// is held while a request is sent: sending waits for nobody, and a response is delivered by another call on another
// thread.
#include <unistd.h>
#include <cstring>

#include "base/log_message.h"
#include "base/no_cancellation.h"
#include "base/result.h"
#include "kova/agent_registration.h"
#include "kova/process_info.h"
#include "kova_platform/process_globals.h"
#include "kova_platform/rpc.h"

constinit KovaAgentRegCtrl g_kovaAgentRegCtrl = {.mutex = PTHREAD_MUTEX_INITIALIZER,
                                                 .RegState = KOVA_REG_NOT_REGISTERED,
                                                 .client = nullptr,
                                                 .timer = nullptr,
                                                 .timerType = KOVA_REG_TIMER_NONE};
constinit uint32_t g_kovaProcType = 0;

namespace kova {
namespace {

constexpr char kRegisterService[] = "AgentRegInfo";
constexpr std::int32_t kSelf = -1;
constexpr std::int32_t kLinkLost = 0;
constexpr std::uint64_t kGoodStatus = 1;
constexpr std::uint32_t kByConnection = 0;
constexpr std::uint32_t kPassThrough = 1;
constexpr Code kNoTimer = 2;

class RecordLock {
  public:
    RecordLock() : result_(::pthread_mutex_lock(&g_kovaAgentRegCtrl.mutex)) {}
    RecordLock(const RecordLock&) = delete;
    RecordLock& operator=(const RecordLock&) = delete;
    ~RecordLock() {
        if (result_ == 0) static_cast<void>(::pthread_mutex_unlock(&g_kovaAgentRegCtrl.mutex));
    }

    [[nodiscard]] int result() const { return result_; }

  private:
    NoCancellation no_cancellation_;  // sending is full of cancellation points
    int result_;
};

// The code is logged where it arises; what follows from it is the same for every one.
void stop_timer(KovaAgentRegCtrl* ctrl) {
    static_cast<void>(KovaAgentStopRegTimer(ctrl));
}

std::uint32_t own_pid() {
    return static_cast<std::uint32_t>(::getpid());
}

// The publisher may be made by another thread at this moment.
bool has_publisher() {
    return __atomic_load_n(&g_KovaPublisherAgent, __ATOMIC_ACQUIRE) != nullptr;
}

Code fill_request(KovaAgentRegInfo* request) {
    *request = {};
    request->pid = own_pid();
    request->procType = g_kovaProcType;
    request->hasPublisher = has_publisher() ? 1 : 0;
    const Code rc = KovaGetProcName(::getpid(), request->name, sizeof request->name);
    if (rc != kOk) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "Kova Agent get proc namne unsuccessful.(ret=%u).", rc);
    }
    return rc;
}

Code send(KovaVellClient* client, const KovaAgentRegInfo& request, std::uint32_t pass_through) {
    const KovaRpcCallback callback{.handler = KovaAgentRegInfoClientRspPro, .context = nullptr};
    const auto call = pass_through != 0 ? ZIB_PassThroughRpcCall : ZIB_ConnRpcCall;
    return call(client, kRegisterService, &request, sizeof request, &callback, nullptr);
}

// Answers of other processes, and of a daemon that mixes them up, must not pass for ours.
bool is_own(const KovaAgentRegRsp* response) {
    return response != nullptr && KovaAgentCheckRegRspInfo(response->name, response->pid) == 1;
}

}  // namespace
}  // namespace kova

using kova::Code;
using kova::kIdGeneral;
using kova::kIdRegion;
using kova::kIdSetUp;
using kova::kMinusOne;
using kova::kOk;
using kova::RecordLock;
using kova::stop_timer;

uint32_t KovaAgentRegisterInit(uint32_t procType) {
    KovaAgentRegCtrl& ctrl = g_kovaAgentRegCtrl;
    g_kovaProcType = procType;
    if (const int rc = ::pthread_mutex_init(&ctrl.mutex, nullptr); rc != 0) {
        KovaDLogWrite(KOVA_LOG_INTERNAL(kIdSetUp), "Kova Agent init mutex unsuccessful in register init, ret = %d.",
                      rc);
        return kMinusOne;
    }
    ctrl.RegState = KOVA_REG_NOT_REGISTERED;
    ctrl.timer = nullptr;
    ctrl.timerType = KOVA_REG_TIMER_NONE;
    KovaVellClient* const client = KovaAgentRpcConn2Kovad();
    if (client == nullptr) {
        static_cast<void>(::pthread_mutex_destroy(&ctrl.mutex));
        KovaDLogWrite(KOVA_LOG_INTERNAL(kIdSetUp), "Kova Agent conn kovad unsuccessful.");
        return kMinusOne;
    }
    ctrl.client = client;
    if (KovaAgentStartRegister() == kOk) return kOk;
    KovaDestroyVellClientHandle(client);
    ctrl.client = nullptr;
    static_cast<void>(::pthread_mutex_destroy(&ctrl.mutex));
    return kMinusOne;
}

uint32_t KovaAgentStartRegister(void) {
    const RecordLock lock;
    if (lock.result() != 0) {
        KovaDLogWrite(KOVA_LOG_INTERNAL(kIdSetUp), "KovaAgentStartRegister: lock unsuccessfully. ret = %d.",
                      lock.result());
        return kMinusOne;
    }
    const Code rc = KovaAgentSendRegister(&g_kovaAgentRegCtrl, kova::kByConnection);
    if (rc == kova::kNoTimer) {
        KovaDLogWrite(KOVA_LOG_INTERNAL(kIdSetUp), "Kova Agent send register unsuccessful.");
        return kMinusOne;
    }
    if (rc != kOk) KovaAgentAddSendRegisterRsq(&g_kovaAgentRegCtrl);
    return kOk;
}

uint32_t KovaAgentSendRegister(KovaAgentRegCtrl* ctrl, uint32_t passThrough) {
    if (ctrl == nullptr) return kMinusOne;
    KovaAgentRegInfo request;
    if (kova::fill_request(&request) != kOk) return kMinusOne;
    if (KovaAgentStartRegTimer(KOVA_REG_TIMER_RESPONSE, ctrl) != kOk) return kova::kNoTimer;
    const Code rc = kova::send(ctrl->client, request, passThrough);
    if (rc == kOk) {
        ctrl->RegState = KOVA_REG_REQUEST_SENT;
        KovaDLogWrite(KOVA_LOG_INFO, "Kova Agent register send msg. name = %s, pid = %u.", request.name, request.pid);
        return kOk;
    }
    stop_timer(ctrl);
    // A daemon that is not there yet is no news every five seconds.
    if (rc != KOVA_RPC_NO_DAEMON) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral),
                      "Kova Agent register send msg unsuccessful. name = %s, pid = %u, type = %u, ret=%u.",
                      request.name, request.pid, request.procType, rc);
    }
    return kMinusOne;
}

void KovaAgentRegInfoClientRspPro(uint64_t status, uintptr_t /*ignored*/, void* response, void* /*context*/) {
    KovaAgentRegCtrl& ctrl = g_kovaAgentRegCtrl;
    const RecordLock lock;
    if (lock.result() != 0) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "KovaAgentRegInfoClientRspPro: lock unsuccessfully. ret = %d.",
                      lock.result());
        return;
    }
    stop_timer(&ctrl);
    if (status != kova::kGoodStatus || !kova::is_own(static_cast<const KovaAgentRegRsp*>(response))) {
        KovaAgentAddSendRegisterRsq(&ctrl);
        return;
    }
    ctrl.RegState = KOVA_REG_REGISTERED;
    KovaAgentDestroyRegTimer(&ctrl);
}

uint32_t KovaAgentCheckRegRspInfo(const char* name, uint32_t pid) {
    const uint32_t own_pid = kova::own_pid();
    if (pid != own_pid) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "Kova Agent Check RegRspInfo unsuccessful.pid=%u, processPid=%u",
                      own_pid, pid);
        return 0;
    }
    if (name == nullptr) return 0;
    char own_name[128] = "";
    if (const Code rc = KovaGetProcName(kova::kSelf, own_name, sizeof own_name); rc != kOk) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "Kova Agent get proc namne unsuccessful in Check RegRspInfo.(ret=%u).",
                      rc);
        return 0;
    }
    // From the wire: perhaps not terminated.
    char answered_name[KOVA_REG_NAME_SIZE + 1] = "";
    std::memcpy(answered_name, name, ::strnlen(name, KOVA_REG_NAME_SIZE));
    if (std::strcmp(own_name, answered_name) == 0) return 1;
    KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral),
                  "Kova Agent Check RegRspInfo unsuccessful.tempProcName=%s, processName=%s.", own_name, answered_name);
    return 0;
}

void KovaAgentConnLinkClientNotify(int32_t event, const char* service, const char* address) {
    KovaDLogWrite(KOVA_LOG_STARTUP(kIdRegion), "Kova Agent link notification, event:%d service:%s, addr:%s.", event,
                  service != nullptr ? service : "", address != nullptr ? address : "");
    if (event != kova::kLinkLost) return;
    const RecordLock lock;
    if (lock.result() != 0) {
        KovaDLogWrite(KOVA_LOG_INTERNAL(kIdSetUp), "KovaAgentConnLinkClientNotify: lock unsuccessfully, ret = %d.",
                      lock.result());
        return;
    }
    stop_timer(&g_kovaAgentRegCtrl);
    KovaAgentAddSendRegisterRsq(&g_kovaAgentRegCtrl);
}

uint32_t KovaAgentRegTimerProc(void* /*argument*/) {
    KovaAgentRegCtrl& ctrl = g_kovaAgentRegCtrl;
    const RecordLock lock;
    if (lock.result() != 0) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "KovaAgentRegTimerProc: lock unsuccessfully. ret = %d.",
                      lock.result());
        return kMinusOne;
    }
    stop_timer(&ctrl);
    if (ctrl.timerType == KOVA_REG_TIMER_RESPONSE) {
        KovaDLogWrite(KOVA_LOG_STARTUP(kIdRegion), "KovaAgentRegTimerProc: timeout reg not rsp.");
    }
    const Code rc = KovaAgentSendRegister(&ctrl, kova::kPassThrough);
    if (rc == kova::kNoTimer) {
        KovaDLogWrite(KOVA_LOG_INTERNAL(kIdSetUp), "Kova Agent send register unsuccessful in proc timmer.");
        return kMinusOne;
    }
    if (rc != kOk) KovaAgentAddSendRegisterRsq(&ctrl);
    return kOk;
}
