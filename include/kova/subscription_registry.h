/*
 * Who in this process wants to hear about which resource figure.
 *
 *     Publisher ──▶ Subscriber, one per module name ──▶ its Subscriptions, at most one per resource type
 *         └───────▶ Target, one per (subType, overload, recover) ──▶ the same Subscriptions
 *
 * A target holds the last value published for its type and whether that means overload. A subscription belongs to one
 * subscriber and to one target and is released when either is deleted. New members stand at the head of their list, so
 * every walk meets the newest first. Records are zeroed blocks of malloc(); whoever deletes a record must not use it,
 * or what it owned, afterwards.
 *
 * Modules use resource_subscription.h. The functions here are what that is made of: but for the two of the mutex none
 * of them locks, and the caller holds g_kovaSubscribeMutexLock around every use of a record. A NULL record does
 * nothing and gives NULL.
 *
 * Threads: any that holds the lock. Signals: none of them is safe.
 */
#ifndef KOVA_SUBSCRIPTION_REGISTRY_H
#define KOVA_SUBSCRIPTION_REGISTRY_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#include "kova/export.h"

KOVA_BEGIN_DECLS

/* Sizes of name fields, terminator included. What a module asks with and what its hook gets are the shorter ones. */
#define KOVA_MODULE_NAME_SIZE 32
#define KOVA_SUBSCRIBER_NAME_SIZE 64

/* Resource types. */
#define KOVA_SUBSCRIBE_DATA_PLANE_CPU 0U /* usage of the data-plane processes, percent */

/* What a subscriber's hook receives. Lives on the notifier's stack: valid during the call only. */
typedef struct SubscribeEvent {
    uint32_t pubType; /* resource type */
    char moduleName[KOVA_MODULE_NAME_SIZE];
    uint32_t state; /* 1 overloaded, 0 not */
    uint32_t value; /* just published, or last published when the module has only now subscribed */
} SubscribeEvent;

/**
 * A module's hook. Called for every value that is published, whether or not the state has changed, and once from
 * inside KOVA_SubscribeResource when a value is known already.
 *
 * Runs with g_kovaSubscribeMutexLock held, on the thread that publishes: a call from here that subscribes,
 * unsubscribes, publishes or queries waits for ever, and a hook that blocks holds up every other one of the process.
 *
 * @param hookArg As the module gave it.
 * @return Nobody looks at it.
 */
typedef uint32_t (*KovaPublishHook)(const SubscribeEvent *event, void *hookArg);

/* What a module asks for. Read during the call only. */
typedef struct SubscribeRequest {
    uint32_t subType;
    char moduleName[KOVA_MODULE_NAME_SIZE]; /* 1 to 31 characters, terminated */
    uint32_t overload;                      /* this value and above are overload; at most 100 */
    uint32_t recover;                       /* this value and below are none; less than overload */
    KovaPublishHook publishHook;
    void *hookArg;
} SubscribeRequest;

struct Subscriber;
struct Subscription;
struct Target;

typedef struct Publisher {
    struct Subscriber *subscribers;
    struct Target *targets;
} Publisher;

typedef struct Subscriber {
    struct Subscriber *next;
    char moduleName[KOVA_SUBSCRIBER_NAME_SIZE]; /* the key */
    Publisher *publisher;
    struct Subscription *subscriptions; /* linked by nextInSubscriber */
} Subscriber;

typedef struct Target {
    struct Target *next;
    uint32_t updated; /* 0 until the first value is published, then 1 */
    uint32_t subType;
    uint32_t recover;
    uint32_t overload;
    uint32_t state; /* 1 overloaded, 0 not; between the thresholds it stays as it was */
    uint32_t value;
    uint32_t previousState; /* before the latest value */
    Publisher *publisher;
    struct Subscription *subscriptions; /* linked by nextInTarget */
} Target;

typedef struct Subscription {
    struct Subscription *nextInSubscriber;
    struct Subscription *nextInTarget;
    Subscriber *subscriber;
    uint32_t subType;
    Target *target;
    KovaPublishHook publishHook;
    void *hookArg;
} Subscription;

KOVA_STATIC_ASSERT(sizeof(SubscribeEvent) == 44, "SubscribeEvent");
KOVA_STATIC_ASSERT(sizeof(SubscribeRequest) == 64, "SubscribeRequest");
KOVA_STATIC_ASSERT(offsetof(SubscribeRequest, publishHook) == 48, "SubscribeRequest");
KOVA_STATIC_ASSERT(sizeof(Subscriber) == 88, "Subscriber");
KOVA_STATIC_ASSERT(sizeof(Target) == 56, "Target");
KOVA_STATIC_ASSERT(offsetof(Target, publisher) == 40, "Target");
KOVA_STATIC_ASSERT(sizeof(Subscription) == 56, "Subscription");
KOVA_STATIC_ASSERT(offsetof(Subscription, target) == 32, "Subscription");

/* Guards the publisher that g_KovaPublisherAgent points to, and every record below it. Not recursive. */
extern KOVA_API pthread_mutex_t g_kovaSubscribeMutexLock;

/** @return 0, or the error number of pthread_mutex_lock(). Threads: any. */
KOVA_API int32_t KOVA_Subscriber_Mutex_Lock(void);

/** @return 0, or the error number of pthread_mutex_unlock(). Threads: the holder. */
KOVA_API int32_t KOVA_Subscriber_Mutex_Unlock(void);

/** @return A publisher with empty lists, or NULL without memory. Yours: release it with KOVA_Delete_Publisher. */
KOVA_API Publisher *KOVA_Create_Publisher(void);

/** Deletes a publisher with everything below it. Whoever deletes the process's own clears g_KovaPublisherAgent too. */
KOVA_API void KOVA_Delete_Publisher(Publisher *publisher);

/** @return The subscriber of that name, or NULL. The publisher keeps it. */
KOVA_API Subscriber *KOVA_Publisher_GetSubsriber(Publisher *publisher, const char *moduleName);

/** @return The target of the request's type and thresholds, or NULL. The publisher keeps it. */
KOVA_API Target *KOVA_Publisher_GetTarget(Publisher *publisher, const SubscribeRequest *request);

/**
 * @param moduleName At most 63 characters; one of more than 31 can never be notified.
 * @return The subscriber of that name, found or made; NULL without memory or when the name does not fit, which is
 *         logged. The publisher keeps it.
 */
KOVA_API Subscriber *KOVA_Create_Subscriber(Publisher *publisher, const char *moduleName);

/** Takes a subscriber from its publisher and releases it with its subscriptions. */
KOVA_API void KOVA_Delete_Subscriber(Subscriber *subscriber);

/** Puts a subscription at the head of the subscriber's list and names the subscriber in it, unless it is there. */
KOVA_API void KOVA_Subscriber_Subscribe(Subscriber *subscriber, Subscription *subscription);

/** Takes a subscription from the subscriber's list; one that is not there stays as it is. Releases nothing. */
KOVA_API void KOVA_Unsubscribe_Subscriber(Subscriber *subscriber, Subscription *subscription);

/** @return The subscriber's subscription of that resource type, or NULL. */
KOVA_API Subscription *KOVA_GetSubscription(Subscriber *subscriber, uint32_t subType);

/**
 * Joins a subscriber to a target.
 *
 * @param request Type, hook and hook argument of a new subscription.
 * @return The subscriber's subscription of the request's type, unchanged if it had one already, whatever its target;
 *         else a new one; NULL without memory. Both owners keep it.
 */
KOVA_API Subscription *KOVA_Create_Subscription(Subscriber *subscriber, Target *target,
                                                const SubscribeRequest *request);

/** Takes a subscription from its target, then from its subscriber, and releases it. */
KOVA_API void KOVA_Delete_Subscription(Subscription *subscription);

/**
 * @return The target of the request's type and thresholds, found or made, without a value when made; NULL without
 *         memory. The publisher keeps it.
 */
KOVA_API Target *KOVA_Create_Target(Publisher *publisher, const SubscribeRequest *request);

/** Takes a target from its publisher and releases it with its subscriptions. */
KOVA_API void KOVA_Delete_Target(Target *target);

/** Puts a subscription at the head of the target's list and names the target in it, unless it is there. */
KOVA_API void KOVA_Subscribe_Target(Target *target, Subscription *subscription);

/** Takes a subscription from the target's list; one that is not there stays as it is. Releases nothing. */
KOVA_API void KOVA_Unsubscribe_Target(Target *target, Subscription *subscription);

/**
 * Publishes a value on one target: sets its state and calls the hook of each of its subscriptions, newest first.
 *
 * At overload and above the state becomes 1, at recover and below it becomes 0, and in between it stays. If the
 * thresholds are the wrong way round, recover decides.
 */
KOVA_API void KOVA_Target_UpdateByValue(Target *target, uint32_t value);

/**
 * Calls the subscription's hook with the target's state and value. A target without a value calls nothing. A hook that
 * is NULL and a module name that does not fit the event are logged instead.
 */
KOVA_API void KOVA_Notify_Subscription(Subscription *subscription, Target *target);

KOVA_END_DECLS

#endif /* KOVA_SUBSCRIPTION_REGISTRY_H */
