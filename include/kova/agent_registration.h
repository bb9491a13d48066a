/*
 * Registration of the process with the daemon kovad, and clients to the daemon.
 *
 * A process calls KovaAgentRegisterInit once. From then on the registration keeps itself alive: a response timer runs
 * while a request is outstanding, a retry timer after any failure and after the loss of the connection. It is never
 * given up and never undone. Nothing else here has to be called; the other functions are what the platform's RPC
 * framework and timer service call, and the steps that they are made of.
 *
 *     state     event                                         state  timer afterwards
 *     0         request sent                                  1      response timer, 5 minutes
 *     1         response with our pid and name                2      none
 *     1         any other response, or none that came back    0      retry timer, 5 seconds
 *     1         response timer expired, request sent again    1      response timer, 5 minutes
 *     0, 1      request could not be sent                     0      retry timer, 5 seconds
 *     any       connection lost                               0      retry timer, 5 seconds
 *
 * Where the retry timer cannot be armed the state stays, and the loss of a connection is what tries again.
 *
 * Codes: 0 success, 0xFFFFFFFF failure, unless a function names others. Each failure is logged at level 1, a request
 * that was sent at level 3. A NULL record does nothing, fails where a function can, and is not logged.
 *
 * Threads: KovaAgentRegisterInit, KovaAgentRegInfoClientRspPro, KovaAgentConnLinkClientNotify and KovaAgentRegTimerProc
 * take the record's mutex, as KovaAgentStartRegister does; functions that are given the record expect their caller to
 * hold it. Signals: none of them is safe.
 */
#ifndef KOVA_AGENT_REGISTRATION_H
#define KOVA_AGENT_REGISTRATION_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#include "kova/export.h"

KOVA_BEGIN_DECLS

/* Handles of the platform, opaque. */
struct KovaVellClient;
struct ZibTimer;

#define KOVA_REG_NOT_REGISTERED 0U
#define KOVA_REG_REQUEST_SENT 1U
#define KOVA_REG_REGISTERED 2U

#define KOVA_REG_TIMER_NONE 0U
#define KOVA_REG_TIMER_RESPONSE 1U /* 300000 ms */
#define KOVA_REG_TIMER_RETRY 2U    /* 5000 ms */

typedef struct KovaAgentRegCtrl {
    pthread_mutex_t mutex; /* guards every other field */
    uint32_t RegState;     /* KOVA_REG_* */
    struct KovaVellClient *client;
    struct ZibTimer *timer; /* NULL when timerType is KOVA_REG_TIMER_NONE */
    uint32_t timerType;     /* KOVA_REG_TIMER_* */
} KovaAgentRegCtrl;

/* The registration of this process. */
extern KOVA_API KovaAgentRegCtrl g_kovaAgentRegCtrl;

/* Process type as given to KovaAgentRegisterInit. Written there only. */
extern KOVA_API uint32_t g_kovaProcType;

#define KOVA_REG_NAME_SIZE 32

/* Request of the daemon's service "AgentRegInfo", host byte order. */
typedef struct KovaAgentRegInfo {
    char name[KOVA_REG_NAME_SIZE]; /* process name, terminated, zeros behind it */
    uint32_t pid;
    uint32_t procType;
    uint8_t hasPublisher; /* 1 in a process that publishes resource events, else 0 */
    uint8_t reserved[3];
} KovaAgentRegInfo;

KOVA_STATIC_ASSERT(sizeof(KovaAgentRegInfo) == 44, "request");
KOVA_STATIC_ASSERT(offsetof(KovaAgentRegInfo, pid) == 32, "request");
KOVA_STATIC_ASSERT(offsetof(KovaAgentRegInfo, procType) == 36, "request");
KOVA_STATIC_ASSERT(offsetof(KovaAgentRegInfo, hasPublisher) == 40, "request");

/* Response to it. May be longer. */
typedef struct KovaAgentRegRsp {
    uint32_t notExamined;
    char name[KOVA_REG_NAME_SIZE]; /* of the process that the daemon has registered */
    uint32_t pid;
} KovaAgentRegRsp;

KOVA_STATIC_ASSERT(sizeof(KovaAgentRegRsp) == 40, "response");
KOVA_STATIC_ASSERT(offsetof(KovaAgentRegRsp, pid) == 36, "response");

/**
 * Creates the client to the daemon and sends the first request. Neither waits for the daemon: the call succeeds while
 * the daemon is absent, and the registration follows when it comes.
 *
 * @param procType Process type, chosen by the host process and shown by the daemon.
 * @return 0; 0xFFFFFFFF when the mutex, the client or the first timer cannot be made; nothing is left behind then.
 *
 * Threads: once per process. A second call is not guarded against.
 */
KOVA_API uint32_t KovaAgentRegisterInit(uint32_t procType);

/**
 * Creates a client to the daemon.
 *
 * @return The client, or NULL. Yours: release it with KovaDestroyVellClientHandle.
 *
 * Threads: any. Takes no lock.
 */
KOVA_API struct KovaVellClient *KovaAgentRpcConn2Kovad(void);

/**
 * First attempt to register. A request that cannot be sent is no failure, the retry timer takes over.
 *
 * @return 0; 0xFFFFFFFF when the lock or the response timer fails.
 */
KOVA_API uint32_t KovaAgentStartRegister(void);

/**
 * Arms the response timer and sends one request. When that cannot be sent the timer is stopped and kept.
 *
 * @param passThrough Any value but 0 sends in the framework's pass-through mode.
 * @return 0 sent; 2 the response timer cannot be started, nothing was sent; 0xFFFFFFFF any other failure.
 */
KOVA_API uint32_t KovaAgentSendRegister(KovaAgentRegCtrl *ctrl, uint32_t passThrough);

/**
 * Receives the response.
 *
 * @param status   bsuccess in the low, errNo in the high 32 bits. Good is 1 and nothing else.
 * @param ignored  Not used.
 * @param response KovaAgentRegRsp, or NULL.
 * @param context  Not used.
 */
KOVA_API void KovaAgentRegInfoClientRspPro(uint64_t status, uintptr_t ignored, void *response, void *context);

/**
 * @param name 32 bytes at most, terminated or not.
 * @return 1 when name and pid are those of this process; 0.
 */
KOVA_API uint32_t KovaAgentCheckRegRspInfo(const char *name, uint32_t pid);

/**
 * Told by the framework about the connection.
 *
 * @param event 0 the connection was lost: a new registration follows 5 s later. Others are only logged.
 */
KOVA_API void KovaAgentConnLinkClientNotify(int32_t event, const char *service, const char *address);

/**
 * Called when the registration timer expires: sends the request again.
 *
 * @param argument Not used.
 * @return 0; 0xFFFFFFFF when the lock or the response timer fails.
 */
KOVA_API uint32_t KovaAgentRegTimerProc(void *argument);

/**
 * Arms the registration timer anew, or makes it. One that cannot be armed is destroyed and made anew.
 *
 * @param type KOVA_REG_TIMER_RESPONSE or KOVA_REG_TIMER_RETRY.
 * @return 0; 0xFFFFFFFF, with no timer.
 */
KOVA_API uint32_t KovaAgentStartRegTimer(uint32_t type, KovaAgentRegCtrl *ctrl);

/**
 * Stops the timer that there is and starts it with the period of another type.
 *
 * @return 0; 0xFFFFFFFF, also without a timer. The timer stays.
 */
KOVA_API uint32_t KovaAgentAdjustRegTimer(uint32_t type, KovaAgentRegCtrl *ctrl);

/** Stops the timer and keeps it. @return 0, also without one; else the timer service's code. */
KOVA_API uint32_t KovaAgentStopRegTimer(KovaAgentRegCtrl *ctrl);

/** Destroys the timer, if there is one. */
KOVA_API void KovaAgentDestroyRegTimer(KovaAgentRegCtrl *ctrl);

/** Arms the retry timer; then the state is KOVA_REG_NOT_REGISTERED. When that fails the state stays. */
KOVA_API void KovaAgentAddSendRegisterRsq(KovaAgentRegCtrl *ctrl);

/** @return Period in ms: 300000 for KOVA_REG_TIMER_RESPONSE, 5000 for any other type. */
KOVA_API uint32_t KovaAgentTimeOutByType(uint32_t type);

KOVA_END_DECLS

#endif /* KOVA_AGENT_REGISTRATION_H */
