/*
 * The platform's timer service.
 *
 * A timer is made from attributes, belongs to a scheduling thread and calls its handler there. It may be started,
 * stopped, resized and destroyed by any thread, from inside its own handler too, and by a caller that holds a lock
 * which the handler takes: none of these waits. Once a timer is stopped or destroyed no further call of its handler
 * begins; one that has begun on the other thread goes on.
 *
 * Threads: any. Signals: not safe. A forked child inherits its parent's timers stopped.
 */
#ifndef KOVA_PLATFORM_TIMER_H
#define KOVA_PLATFORM_TIMER_H

#include <stdint.h>

#include "kova/export.h"

KOVA_BEGIN_DECLS

/* Results of the functions that answer with a code; 0 is success. */
#define KOVA_TIMER_INVALID 0x03028001U     /* an argument or attribute that does not exist */
#define KOVA_TIMER_NO_RESOURCE 0x03028002U /* no memory or thread */

/* Opaque. */
struct KovaSchThread;
struct ZibTimer;
struct ZibTimerAttr;

/* Called when a timer expires. Its result is the handler's own report, nobody looks at it. */
typedef uint32_t (*ZibTimerProc)(void *argument);

/* Value of ZIB_TIMER_ATTR_HANDLER. */
struct ZibTimerHandler {
    ZibTimerProc proc;
    void *argument;
};

/* Attribute ids. */
#define ZIB_TIMER_ATTR_HANDLER 0U /* struct ZibTimerHandler, 16 bytes */
#define ZIB_TIMER_ATTR_MODE 1U    /* uint32_t: 1 expires again and again until it is stopped, 0 once */
#define ZIB_TIMER_ATTR_PERIOD 2U  /* uint32_t, ms */
#define ZIB_TIMER_ATTR_NAME 3U    /* characters, without terminator */

/**
 * @param kind Of the thread's duties; the agent asks for 2. The stand-in has one thread for all.
 * @return The thread, started if it was not, or NULL. Lives as long as the process.
 */
KOVA_API struct KovaSchThread *KovaSchThreadCreate(uint32_t kind);

/** @return Empty attributes, or NULL. Yours: release them with ZIB_TimerDestroyAttr. */
KOVA_API struct ZibTimerAttr *ZIB_TimerCreateAttr(void);

/**
 * @param value  Copied. length is in bytes and must be that of the attribute; of a name 1 to 31.
 * @return 0; KOVA_TIMER_INVALID.
 */
KOVA_API uint32_t ZIB_TimerSetAttr(struct ZibTimerAttr *attr, uint32_t id, const void *value, uint32_t length);

/** Timers made from the attributes do not need them any more. NULL does nothing. */
KOVA_API void ZIB_TimerDestroyAttr(struct ZibTimerAttr *attr);

/** @return A stopped timer, or NULL, also for attributes without a handler. Release it with ZIB_TimerDestroy. */
KOVA_API struct ZibTimer *ZIB_TimerCreate(struct KovaSchThread *thread, const struct ZibTimerAttr *attr);

/** Starts a timer; one that runs begins its period anew. @return 0; KOVA_TIMER_*. */
KOVA_API uint32_t ZIB_TimerStart(struct ZibTimer *timer);

/** Stops a timer; one that does not run stays as it is. @return 0; KOVA_TIMER_INVALID. */
KOVA_API uint32_t ZIB_TimerStop(struct ZibTimer *timer);

/**
 * Changes the period. One that runs begins its period anew.
 *
 * @return 0; KOVA_TIMER_*.
 */
KOVA_API uint32_t ZIB_TimerResize(struct ZibTimer *timer, uint32_t periodMs);

/** NULL does nothing. */
KOVA_API void ZIB_TimerDestroy(struct ZibTimer *timer);

KOVA_END_DECLS

#endif /* KOVA_PLATFORM_TIMER_H */
