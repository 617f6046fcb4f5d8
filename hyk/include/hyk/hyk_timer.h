/*
 * hyk_timer.h -- the host clock, the monotonic counter and timer queues.
 *
 * The host has one clock, real or virtual.  Timers fire on the queue's timer
 * thread once the clock has reached their deadline; with the virtual clock
 * that happens when the host's clock is advanced.
 */
#ifndef HYK_TIMER_H
#define HYK_TIMER_H

#include "hyk_types.h"

HYK_EXTERN_C_BEGIN

/*
 * hyk_TimerMonotonicCounter -- the monotonic counter, in ticks of
 * hyk_GetMonotonicCounterFrequency() per second.  Context: any.
 */
uint64_t hyk_TimerMonotonicCounter(void);

/* hyk_GetMonotonicCounterFrequency -- ticks per second; never 0.  Context: any. */
uint64_t hyk_GetMonotonicCounterFrequency(void);

/* hyk_GetTimeUS -- microseconds since the host started.  Context: any. */
uint64_t hyk_GetTimeUS(void);

/* The longest busy-wait hyk_TimerDelayUS performs, in microseconds. */
#define HYK_TIMER_DELAY_MAX_US 100000u

/*
 * hyk_TimerDelayUS -- busy-waits `us` microseconds of host time without
 * sleeping, for code that must let time pass where it may not sleep (with a
 * spinlock held, in a timer callback).  A request longer than
 * HYK_TIMER_DELAY_MAX_US waits that long and the host logs the cut.  With
 * the virtual clock the clock moves forward by exactly `us` at once (the
 * delays of several threads add up); a timer that falls due meanwhile fires
 * at the clock's next advance, since the delay does not wait for timer
 * callbacks (one may need the lock its caller holds).
 * Never fails.
 * Context: any; never sleeps.
 */
void hyk_TimerDelayUS(uint64_t us);

/*
 * hyk_TimerQueueCreate -- creates a timer queue with its own timer thread.
 *   name: the queue's name.  owner: module.  heap: heap the queue is charged to.
 * Returns HYK_OK; HYK_BAD_PARAM; HYK_NAME_TOO_LONG; HYK_NO_RESOURCES.
 * Context: a thread that may block.
 */
hyk_Status hyk_TimerQueueCreate(const char *name, hyk_ModuleID owner, hyk_HeapID heap,
                                hyk_TimerQueue *queue);

/*
 * hyk_TimerQueueDestroy -- cancels the queue's pending timers, waits for a
 * running callback to return and destroys the queue.
 * Returns HYK_OK or HYK_INVALID_HANDLE.
 * Context: a thread that may block; not from a callback of this queue.
 */
hyk_Status hyk_TimerQueueDestroy(hyk_TimerQueue queue);

/* Callback of a timer: runs on the queue's thread with the owner module pushed. */
typedef void (*hyk_TimerCallback)(void *data, hyk_TimerHandle timer);

#define HYK_TIMER_DEFAULT_TOLERANCE 0
#define HYK_TIMER_NO_LOCK_CLASS 0

/*
 * hyk_TimerAdd -- arms `cb(data)` on `queue` after `timeoutUs` microseconds,
 * every `timeoutUs` when `periodic` is non-zero.
 *   toleranceUs: how late the timer may fire (HYK_TIMER_DEFAULT_TOLERANCE).
 *   lockClass: HYK_TIMER_NO_LOCK_CLASS.
 *   timer: out, the timer's handle (may be NULL).
 * Returns HYK_OK; HYK_INVALID_HANDLE; HYK_BAD_PARAM for a null callback or a
 * periodic timer of period 0.
 * Context: any; never sleeps.
 */
hyk_Status hyk_TimerAdd(hyk_TimerQueue queue, hyk_TimerCallback cb, void *data, uint64_t timeoutUs,
                        uint64_t toleranceUs, uint8_t periodic, uint32_t lockClass,
                        hyk_TimerHandle *timer);

/*
 * hyk_TimerCancel -- cancels a pending timer.
 * Returns HYK_OK, or HYK_NOT_FOUND when the timer has fired (one-shot) or was
 * cancelled already.
 * Context: any; never sleeps.
 */
hyk_Status hyk_TimerCancel(hyk_TimerQueue queue, hyk_TimerHandle timer);

HYK_EXTERN_C_END

#endif /* HYK_TIMER_H */
