/*
 * What the diagnosis daemon calls in a process that has subscribed, and the list of subscriptions that it pages
 * through.
 *
 * The RPC framework finds a service by its name: it calls the function of that name with the message from the daemon
 * and a place for the reply, and afterwards passes the reply to the function with "_free" behind the name, also after
 * a failure. Messages are little-endian.
 *
 * The daemon calls the query services one at a time: the list that they share has no lock. All failures are logged at
 * level 1, tag "Base".
 *
 * Threads: those of the RPC framework. Signals: none of them is safe.
 */
#ifndef KOVA_SUBSCRIPTION_SERVICES_H
#define KOVA_SUBSCRIPTION_SERVICES_H

#include <stddef.h>
#include <stdint.h>

#include "kova/export.h"
#include "kova/subscription_registry.h"

KOVA_BEGIN_DECLS

#define KOVA_SUBSCRIBE_TYPE_NAME_SIZE 32
#define KOVA_QUERY_PAGE_MAX 20U       /* items in one reply */
#define KOVA_QUERY_SNAPSHOT_MAX 1000U /* subscriptions in one list */

typedef struct UpdateResourceInfoIn {
    uint32_t subType; /* resource type */
    uint32_t value;   /* in that type's unit; percent for the data-plane CPU */
} UpdateResourceInfoIn;

typedef struct UpdateResourceInfoOut {
    uint32_t result; /* always 0 */
} UpdateResourceInfoOut;

typedef struct GetSubscribeIn {
    uint32_t reserved; /* not read */
    uint32_t start;    /* index of the first item; 0 begins a new query */
    uint32_t queryNum; /* items wanted, 0 to 20 */
} GetSubscribeIn;

/* One subscription in a reply. */
typedef struct SubscribeInfo {
    char moduleName[KOVA_MODULE_NAME_SIZE];
    char subType[KOVA_SUBSCRIBE_TYPE_NAME_SIZE]; /* "dataPlaneCpu", or empty for a type without a name */
    uint32_t overload;
    uint32_t recover;
} SubscribeInfo;

typedef struct GetSubscribeOut {
    uint32_t count; /* items returned */
    uint32_t padding;
    SubscribeInfo *items; /* queryNum items of malloc(), the ones beyond count zero; or NULL */
    uint32_t reserved[3];
    uint32_t result; /* 0xFFFFFFFF until the page is filled, then 0 */
} GetSubscribeOut;

/* One subscription in the list that a query works on. */
typedef struct QuerySubscribeRecord {
    char moduleName[KOVA_SUBSCRIBER_NAME_SIZE];
    char subType[KOVA_SUBSCRIBE_TYPE_NAME_SIZE];
    uint32_t overload;
    uint32_t recover;
} QuerySubscribeRecord;

typedef struct QuerySubscribe {
    uint32_t count;
    QuerySubscribeRecord *records; /* one block of KovaBaseMalloc, or NULL when there is no list */
} QuerySubscribe;

KOVA_STATIC_ASSERT(sizeof(UpdateResourceInfoIn) == 8, "UpdateResourceInfoIn");
KOVA_STATIC_ASSERT(sizeof(UpdateResourceInfoOut) == 4, "UpdateResourceInfoOut");
KOVA_STATIC_ASSERT(sizeof(GetSubscribeIn) == 12, "GetSubscribeIn");
KOVA_STATIC_ASSERT(sizeof(SubscribeInfo) == 72, "SubscribeInfo");
KOVA_STATIC_ASSERT(offsetof(SubscribeInfo, overload) == 64, "SubscribeInfo");
KOVA_STATIC_ASSERT(sizeof(GetSubscribeOut) == 32, "GetSubscribeOut");
KOVA_STATIC_ASSERT(offsetof(GetSubscribeOut, items) == 8, "GetSubscribeOut");
KOVA_STATIC_ASSERT(offsetof(GetSubscribeOut, result) == 28, "GetSubscribeOut");
KOVA_STATIC_ASSERT(sizeof(QuerySubscribeRecord) == 104, "QuerySubscribeRecord");
KOVA_STATIC_ASSERT(offsetof(QuerySubscribeRecord, overload) == 96, "QuerySubscribeRecord");
KOVA_STATIC_ASSERT(sizeof(QuerySubscribe) == 16, "QuerySubscribe");

/*
 * The list that the daemon is paging through: one consistent picture of the registry, taken when a query began. It
 * lives until a query reaches its end or a new one begins.
 */
extern KOVA_API QuerySubscribe g_kovaQuerySubscribe;

/**
 * Service "KovaUpdateResourceInfo": a new value of a resource type. Every target of the type takes it, every hook on
 * them is called before this returns, with g_kovaSubscribeMutexLock held.
 *
 * @param outMsg Out: the reply, for KovaUpdateResourceInfo_free.
 * @return 0, also when nobody has subscribed or the lock cannot be taken; 1 inMsg is NULL; 12 no memory for the reply.
 */
KOVA_API uint32_t KovaUpdateResourceInfo(const UpdateResourceInfoIn *inMsg, UpdateResourceInfoOut **outMsg);

/** Destroys a reply of KovaUpdateResourceInfo. */
KOVA_API void KovaUpdateResourceInfo_free(UpdateResourceInfoOut *outMsg);

/** KovaUpdateResourceInfo without a reply. @return 0. Threads: any. */
KOVA_API uint32_t KovaPublishEvent(const UpdateResourceInfoIn *inMsg);

/**
 * Service "KovaGetSubscribe": one page of the list of this process's subscriptions. A page shorter than queryNum is
 * the last one.
 *
 * @param outMsg Out: the reply, for KovaGetSubscribe_free; set unless inMsg is NULL or the result is 12 for want of a
 *               reply. After a failure its result is 0xFFFFFFFF and its count 0.
 * @return 0; 0xFFFFFFFF inMsg is NULL, queryNum is above 20 or the list cannot be taken; 12 no memory.
 */
KOVA_API uint32_t KovaGetSubscribe(const GetSubscribeIn *inMsg, GetSubscribeOut **outMsg);

/** Releases a reply of KovaGetSubscribe with its items. */
KOVA_API void KovaGetSubscribe_free(GetSubscribeOut *outMsg);

/**
 * The paging itself, on g_kovaQuerySubscribe.
 *
 * @param start    Index of the first item. 0 takes a new list; without a list there is nothing to return.
 * @param items    Out: room for `most` items.
 * @param returned Out: items filled. The page that comes back short has released the list; a page that ends exactly at
 *                 the last item keeps it, and the next one is empty.
 * @return 0; 0xFFFFFFFF the list cannot be taken.
 */
KOVA_API uint32_t KovaGetSubscribeInner(uint32_t start, SubscribeInfo *items, uint32_t most, uint32_t *returned);

/**
 * Takes a list of all subscriptions: targets in list order, in each its subscriptions in list order.
 *
 * The registry is not locked between counting and copying. One that shrinks meanwhile gives a shorter list, one that
 * grows fails the call.
 *
 * @param snapshot Out; what it held is forgotten, not released. Yours: release it with KovaFreeQuerySubscribe.
 * @return 0, with count 0 and NULL when there is no subscription or the first lock fails; 0xFFFFFFFF more than 1000
 *         subscriptions, no memory, the second lock fails or the registry has grown.
 */
KOVA_API uint32_t KovaSaveQuerySubscribe(QuerySubscribe *snapshot);

/** Releases the records of a list, with the memory handle that is set now, and leaves it empty. */
KOVA_API void KovaFreeQuerySubscribe(QuerySubscribe *snapshot);

/** @return Number of subscriptions in the registry; 0 when nobody has subscribed yet or the lock fails. Threads: any.
 */
KOVA_API uint32_t KovaGetSubscriptionCnt(void);

/**
 * Fills one record of a list. The caller holds g_kovaSubscribeMutexLock.
 *
 * @return 0; 1 when a text does not fit, with what stands behind it in the record left alone.
 */
KOVA_API uint32_t KovaCopyQuerySubscribeInfo(QuerySubscribeRecord *record, const Target *target,
                                             const Subscriber *subscriber);

KOVA_END_DECLS

#endif /* KOVA_SUBSCRIPTION_SERVICES_H */
