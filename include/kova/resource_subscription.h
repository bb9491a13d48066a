/*
 * How a module hears about overload of a resource, and how the daemon's sampling is set and looked at.
 *
 *     static uint32_t on_usage(const SubscribeEvent *event, void *arg) { ... }
 *
 *     SubscribeRequest request = {.subType = KOVA_SUBSCRIBE_DATA_PLANE_CPU, .moduleName = "router",
 *                                 .overload = 80, .recover = 60, .publishHook = on_usage};
 *     if (KOVA_SubscribeResource(&request) != 0) ...
 *
 * A subscription lives in this process; the daemon is only asked to monitor the type for it, and publishes from then
 * on. Requests to the daemon are sent and not waited for: a call that returns 0 has sent its request, and what the
 * daemon answers shows in the log alone.
 *
 * All failures are logged at level 1, tag "Base" unless told otherwise.
 *
 * Threads: any, but not from inside a hook: the lock of the registry is held there. Signals: none of them is safe.
 */
#ifndef KOVA_RESOURCE_SUBSCRIPTION_H
#define KOVA_RESOURCE_SUBSCRIPTION_H

#include <stdint.h>

#include "kova/export.h"
#include "kova/subscription_registry.h"

KOVA_BEGIN_DECLS

/* Resource type of the memory usage cycle. */
#define KOVA_CYCLE_MEM_USAGE 0U
#define KOVA_MEM_USAGE_CYCLE_DEFAULT 10000U /* ms */

/* Request of the service "KovaRestCycleTime". */
typedef struct ResCycleMsg {
    uint32_t cycle; /* ms */
    uint32_t resourceType;
} ResCycleMsg;

/* Request of the service "KovaAppSubscribe". */
typedef struct AppSubscribeMsg {
    uint32_t subType;
    uint32_t pid; /* of the process that subscribes */
} AppSubscribeMsg;

KOVA_STATIC_ASSERT(sizeof(ResCycleMsg) == 8, "ResCycleMsg");
KOVA_STATIC_ASSERT(sizeof(AppSubscribeMsg) == 8, "AppSubscribeMsg");

/**
 * Subscribes a module to a resource type.
 *
 * The daemon is asked to monitor the type, then the hook is called for every value that it publishes; the first call
 * comes from inside this function when a value for the same type and thresholds is known already. A module that is
 * subscribed to the type keeps its first subscription, hook and thresholds included; only that first call, if any,
 * tells about the thresholds of the new request.
 *
 * Holds the registry's lock all through, the sending included.
 *
 * @param request Type 0; name of 1 to 31 characters; overload at most 100, recover below it. Not kept.
 * @return 0; 1 the request is not valid, the lock cannot be taken, the daemon cannot be asked or no memory. What was
 *         registered before the failing step stays and does no harm.
 */
KOVA_API uint32_t KOVA_SubscribeResource(const SubscribeRequest *request);

/**
 * Ends a module's subscription: its hook is not called any more once this returns. Nothing is sent to the daemon.
 *
 * @param request Only subType and moduleName are read.
 * @return 0; 1 nothing is subscribed under that name and type, or the lock cannot be taken.
 */
KOVA_API uint32_t KOVA_UnSubscribeResource(const SubscribeRequest *request);

/** The check of a request by itself. @return 0 valid; 1 not. */
KOVA_API uint32_t KOVA_SubscribeResourceCheckPara(const SubscribeRequest *request);

/**
 * Sets up the link to the daemon and asks it to monitor a resource type for this process.
 *
 * @return 0 sent; the error of the link; 0xFFFFFFFF not sent.
 */
KOVA_API uint32_t KovaResourceNotify(uint32_t subType);

/** Asks the daemon to monitor a resource type for this process. @return 0 sent; 0xFFFFFFFF. */
KOVA_API uint32_t KovaStartResourceMonitor(uint32_t subType);

/**
 * Asks the daemon to sample a resource in another cycle, for the whole node.
 *
 * @param cycle Milliseconds.
 * @return 0 sent; 0xFFFFFFFF.
 */
KOVA_API uint32_t KovaSetResourceCycle(uint32_t resourceType, uint32_t cycle);

/**
 * Asks the daemon for one of its two memory usage cycles.
 *
 * @param mode 1 for 1000 ms, anything else for 10000 ms.
 * @return 0 sent; 1.
 */
KOVA_API uint32_t KOVA_SetMemUsageBaseCycle(int32_t mode);

/**
 * @param cycle Out: milliseconds between two memory samples of the daemon, from the shared region; 10000 while the
 *              daemon has published none and, with result 1, while this process is not attached to the region.
 * @return 0; 1 cycle is NULL (logged with tag "Startup") or not attached, in which case this call has tried to attach.
 */
KOVA_API uint32_t KOVA_GetMemUsageCycle(uint32_t *cycle);

/**
 * @param type Resource type; only 0 is known, others are logged with tag "Startup".
 * @return 1 the daemon monitors the type, for any process of the node; 0 it does not, the type is not known or this
 *         process was not attached to the shared region, in which case this call has tried to attach.
 */
KOVA_API uint32_t KOVA_GetResourceMonitorStatus(int32_t type);

/**
 * What the RPC framework calls when "KovaRestCycleTime" is answered or has failed. Releases the client that it was
 * sent over.
 *
 * @param stStatus Low word bsuccess, not 0 when the call completed; high word errNo.
 * @param unused   Not read.
 * @param response First word: the daemon's result, 0 for success. Or NULL.
 * @param client   The client's handle.
 */
KOVA_API void KovaSetResCycleCallBack(uint64_t stStatus, uintptr_t unused, void *response, void *client);

/** The same for "KovaAppSubscribe". */
KOVA_API void KovaAppSubscribeCallBack(uint64_t stStatus, uintptr_t unused, void *response, void *client);

KOVA_END_DECLS

#endif /* KOVA_RESOURCE_SUBSCRIPTION_H */
