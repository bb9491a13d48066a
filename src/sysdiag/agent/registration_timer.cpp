// The one timer of the registration, as response timer or as retry timer.
//
// Locks: the caller holds the record's mutex, which the timer's handler takes too. That is why a stopped timer may
// still have a call of its handler waiting: the handler judges by what it finds in the record.
#include "base/log_message.h"
#include "base/result.h"
#include "kova/agent_registration.h"
#include "kova_platform/timer.h"

namespace kova {
namespace {

constexpr std::uint32_t kThreadKind = 2;
constexpr std::uint32_t kRepeats = 1;
constexpr char kTimerName[] = "agent_reg_timer";

constexpr std::uint32_t kResponsePeriodMs = 300000;
constexpr std::uint32_t kRetryPeriodMs = 5000;

// The messages print types with %d.
int as_int(std::uint32_t type) {
    return static_cast<int>(type);
}

// Every attribute is set, whatever becomes of the others: the platform's log then shows all that it refused.
Code set_attributes(ZibTimerAttr* attributes, std::uint32_t type) {
    const ZibTimerHandler handler{.proc = KovaAgentRegTimerProc, .argument = nullptr};
    const std::uint32_t period_ms = KovaAgentTimeOutByType(type);
    Code rc = ZIB_TimerSetAttr(attributes, ZIB_TIMER_ATTR_HANDLER, &handler, sizeof handler);
    rc |= ZIB_TimerSetAttr(attributes, ZIB_TIMER_ATTR_MODE, &kRepeats, sizeof kRepeats);
    rc |= ZIB_TimerSetAttr(attributes, ZIB_TIMER_ATTR_PERIOD, &period_ms, sizeof period_ms);
    rc |= ZIB_TimerSetAttr(attributes, ZIB_TIMER_ATTR_NAME, kTimerName, sizeof kTimerName - 1);
    return rc;
}

ZibTimer* make_timer(KovaSchThread* thread, ZibTimerAttr* attributes, std::uint32_t type) {
    if (const Code rc = set_attributes(attributes, type); rc != kOk) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral),
                      "Kova agent set timer attribute unsuccessful, timerType = %d, ret = %u.", as_int(type), rc);
        return nullptr;
    }
    ZibTimer* const timer = ZIB_TimerCreate(thread, attributes);
    if (timer == nullptr) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "Kova agent create timer unsuccessful. timerType = %u.", type);
    }
    return timer;
}

// Stopped. Null when any of its parts cannot be had.
ZibTimer* make_timer(std::uint32_t type) {
    KovaSchThread* const thread = KovaSchThreadCreate(kThreadKind);
    if (thread == nullptr) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "Kova agent get thread handle unsuccessful. timerType = %u.", type);
        return nullptr;
    }
    ZibTimerAttr* const attributes = ZIB_TimerCreateAttr();
    if (attributes == nullptr) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "Kova agent create timer attr unsuccessful. timerType = %u.", type);
        return nullptr;
    }
    ZibTimer* const timer = make_timer(thread, attributes, type);
    ZIB_TimerDestroyAttr(attributes);
    return timer;
}

}  // namespace
}  // namespace kova

using kova::as_int;
using kova::Code;
using kova::kIdGeneral;
using kova::kMinusOne;
using kova::kOk;

uint32_t KovaAgentStartRegTimer(uint32_t type, KovaAgentRegCtrl* ctrl) {
    if (ctrl == nullptr) return kMinusOne;
    if (ctrl->timer != nullptr) {
        if (KovaAgentAdjustRegTimer(type, ctrl) == kOk) return kOk;
        KovaAgentDestroyRegTimer(ctrl);
    }
    ZibTimer* const timer = kova::make_timer(type);
    if (timer == nullptr) return kMinusOne;
    if (const Code rc = ZIB_TimerStart(timer); rc != kOk) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "Kova agent start new timer unsuccessful, timerType = %d, ret = %u.",
                      as_int(type), rc);
        ZIB_TimerDestroy(timer);
        return kMinusOne;
    }
    ctrl->timer = timer;
    ctrl->timerType = type;
    return kOk;
}

uint32_t KovaAgentAdjustRegTimer(uint32_t type, KovaAgentRegCtrl* ctrl) {
    if (ctrl == nullptr || ctrl->timer == nullptr) return kMinusOne;
    if (const Code rc = ZIB_TimerStop(ctrl->timer); rc != kOk) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "Kova agent stop timer unsuccessful, curTimertype = %d, ret = %u.",
                      as_int(ctrl->timerType), rc);
        return kMinusOne;
    }
    if (const Code rc = ZIB_TimerResize(ctrl->timer, KovaAgentTimeOutByType(type)); rc != kOk) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "Kova agent Resize timer unsuccessful, timerType = %d, ret = %u.",
                      as_int(type), rc);
        return kMinusOne;
    }
    if (const Code rc = ZIB_TimerStart(ctrl->timer); rc != kOk) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "Kova agent start timer unsuccessful, timerType = %d, ret = %u.",
                      as_int(type), rc);
        return kMinusOne;
    }
    ctrl->timerType = type;
    return kOk;
}

uint32_t KovaAgentStopRegTimer(KovaAgentRegCtrl* ctrl) {
    if (ctrl == nullptr || ctrl->timer == nullptr) return kOk;
    const Code rc = ZIB_TimerStop(ctrl->timer);
    if (rc != kOk) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "Kova agent stop timer unsuccessful, timerType = %d, ret = %u.",
                      as_int(ctrl->timerType), rc);
    }
    return rc;
}

void KovaAgentDestroyRegTimer(KovaAgentRegCtrl* ctrl) {
    if (ctrl == nullptr) return;
    if (ctrl->timer != nullptr) ZIB_TimerDestroy(ctrl->timer);
    ctrl->timer = nullptr;
    ctrl->timerType = KOVA_REG_TIMER_NONE;
}

void KovaAgentAddSendRegisterRsq(KovaAgentRegCtrl* ctrl) {
    if (ctrl == nullptr) return;
    if (KovaAgentStartRegTimer(KOVA_REG_TIMER_RETRY, ctrl) != kOk) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "Kova Agent start timer unsuccessful in RegisterTask. (state=%u).",
                      ctrl->RegState);
        return;
    }
    ctrl->RegState = KOVA_REG_NOT_REGISTERED;
}

uint32_t KovaAgentTimeOutByType(uint32_t type) {
    return type == KOVA_REG_TIMER_RESPONSE ? kova::kResponsePeriodMs : kova::kRetryPeriodMs;
}
