/*
 * The platform's RPC framework and its agent link.
 *
 * A client stands for one user of a daemon's address. Requests are sent over a client and answered later, on a thread
 * of the framework, through the callback that came with the request. A daemon also calls services in the process: a
 * service is an exported function of its own name with a companion NAME_free, both found by name.
 *
 *     uint32_t KovaSomething(const struct SomethingIn *in, struct SomethingOut **out);
 *     void KovaSomething_free(struct SomethingOut *out);
 *
 * Creating a client never connects, sending a request never waits: neither for the daemon nor for a thread of the
 * framework, so that a caller may hold a lock which its handlers take. A handler never runs inside the call that sent
 * the request. After a request was refused its handler is never called; an accepted one is called exactly once, with
 * the response or with what became of it, unless the client is destroyed first.
 *
 * Threads: any. Signals: not safe. A forked child inherits its parent's clients, not their connection: the first
 * request connects anew, and what the parent has under way is never answered in the child.
 */
#ifndef KOVA_PLATFORM_RPC_H
#define KOVA_PLATFORM_RPC_H

#include <stdint.h>

#include "kova/export.h"

KOVA_BEGIN_DECLS

/* Results of a request that was refused, and errNo of one that was accepted and came to nothing. */
#define KOVA_RPC_INVALID 0x03018001U     /* an argument, an address or a service that does not exist */
#define KOVA_RPC_NO_RESOURCE 0x03018002U /* no memory, thread or descriptor */
#define KOVA_RPC_REFUSED 0x03018003U     /* the daemon's socket does not take this process */
#define KOVA_RPC_BUSY 0x03018004U        /* the daemon takes no more now, or too much is under way */
#define KOVA_RPC_LINK_LOST 0x03018005U   /* the connection ended before the response came */
#define KOVA_RPC_NO_SERVICE 0x03018006U  /* the other side does not know the service */
#define KOVA_RPC_NO_DAEMON 0x03018007U   /* nobody listens at the address: usual while a node starts */

/* Opaque. */
struct KovaVellClient;

/* Two words of the platform's own, passed by value. The stand-in looks at neither. */
struct KovaVellOptions {
    uint32_t first;
    uint32_t second;
};

/*
 * Tells about the connection below a client.
 *
 * event    0 an established connection was lost, 1 one is up. Others belong to the platform.
 * service  Name of the daemon, "kovad_server". Valid during the call, like address.
 */
typedef void (*KovaLinkNotify)(int32_t event, const char *service, const char *address);

/*
 * Receives the response to a request.
 *
 * status    bsuccess in the low, errNo in the high 32 bits: 1 when the daemon has answered, else KOVA_RPC_* or the
 *           daemon's own code above a 0.
 * unused    0.
 * response  At least as long as the service defines, aligned for any of its fields, valid during the call. NULL when
 *           there is none, which goes with every status but 1.
 * context   As given with the request.
 */
typedef void (*KovaRpcResponse)(uint64_t status, uintptr_t unused, void *response, void *context);

/* Who receives the response. Passed by address, copied by the framework. */
struct KovaRpcCallback {
    KovaRpcResponse handler;
    void *context;
};

/**
 * @param localName Name of this user, for the platform's own displays.
 * @param address   "domain://peer:NAME:NUMBER". Copied, like the name.
 * @param notify    Told about the connection from the client's first accepted request on; NULL for nobody.
 * @return The client, or NULL. Yours: release it with KovaDestroyVellClientHandle.
 */
KOVA_API struct KovaVellClient *KovaCreateVellClient(const char *localName, const char *address,
                                                     struct KovaVellOptions options, KovaLinkNotify notify);

/**
 * Releases a client. NULL does nothing. Responses that are still to come are dropped. Never waits: a handler that has
 * begun on another thread goes on, no further one begins. May be called from inside the client's own handlers.
 */
KOVA_API void KovaDestroyVellClientHandle(struct KovaVellClient *client);

/**
 * Sends a request.
 *
 * @param service  Name of a service of the daemon.
 * @param request  Copied. length is in bytes.
 * @param reserved NULL.
 * @return 0 accepted; else KOVA_RPC_*.
 */
KOVA_API uint32_t ZIB_ConnRpcCall(struct KovaVellClient *client, const char *service, const void *request,
                                  uint32_t length, const struct KovaRpcCallback *callback, void *reserved);

/** The same, in the framework's pass-through mode. The stand-in has one mode. */
KOVA_API uint32_t ZIB_PassThroughRpcCall(struct KovaVellClient *client, const char *service, const void *request,
                                         uint32_t length, const struct KovaRpcCallback *callback, void *reserved);

/**
 * Makes the reply of a service.
 *
 * @param size    Bytes, not initialised.
 * @param flags   0.
 * @param service Name of the service, for the platform's accounting.
 * @return The message, or NULL. The framework hands it to the service's companion, which destroys it.
 */
KOVA_API void *RPC_IdlMsgCreate(uint32_t size, uint32_t flags, const char *service);

/**
 * @param message   Of RPC_IdlMsgCreate. NULL does nothing.
 * @param moduleId  g_uiVellModuleId.
 * @param companion Name of the companion that destroys it.
 */
KOVA_API void RPC_IdlMsgDestroy(void *message, uint32_t moduleId, const char *companion);

/* The process's module id in the framework. Initially 0. */
extern KOVA_API uint32_t g_uiVellModuleId;

/**
 * Sets up the agent's link, so that a daemon can reach the services of this process once a request has connected it.
 *
 * @param kind 1, the native link.
 * @return 0; KOVA_RPC_INVALID for another kind; KOVA_RPC_NO_RESOURCE.
 */
KOVA_API uint32_t KovaAgentLinkInit(uint32_t kind);

KOVA_END_DECLS

#endif /* KOVA_PLATFORM_RPC_H */
