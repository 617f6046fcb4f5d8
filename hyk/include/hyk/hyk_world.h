/*
 * hyk_world.h -- worlds: the host's kernel threads.
 */
#ifndef HYK_WORLD_H
#define HYK_WORLD_H

#include "hyk_types.h"

HYK_EXTERN_C_BEGIN

/* Start function of a world; its result is the world's exit status. */
typedef hyk_Status (*hyk_WorldStartFn)(void *data);

#define HYK_WORLD_SCHED_DEFAULT 100

typedef struct hyk_WorldProps {
   const char *name;        /* the world's name */
   hyk_ModuleID moduleID;   /* owner, pushed as the current module of the world */
   hyk_WorldStartFn start;
   void *data;              /* passed to start */
   uint32_t schedShares;    /* scheduling shares; HYK_WORLD_SCHED_DEFAULT */
   hyk_HeapID heap;         /* heap the world's bookkeeping is charged to */
} hyk_WorldProps;

/*
 * hyk_WorldCreate -- creates and starts a world (a real thread) running
 * props->start(props->data) with props->moduleID as its current module.
 * Returns HYK_OK; HYK_BAD_PARAM; HYK_NO_RESOURCES.
 * Context: a thread that may block.
 */
hyk_Status hyk_WorldCreate(const hyk_WorldProps *props, hyk_WorldID *world);

/*
 * hyk_WorldWaitForDeath -- waits a bounded slice for `world` to end.
 * Returns HYK_OK when the world has ended (its death is then reaped and the
 * ID no longer valid); HYK_WAIT_INTERRUPTED when the slice ran out first
 * (call again); HYK_NO_SUCH_WORLD for an unknown or already reaped world.
 * Context: a thread that may block, no spinlock held.
 */
hyk_Status hyk_WorldWaitForDeath(hyk_WorldID world);

/*
 * hyk_WorldSleep -- sleeps `us` microseconds of host time.  Sleeping with a
 * spinlock held panics the host.  With the virtual clock a sleeping world
 * moves the clock forward itself unless the host is told not to.
 * Returns HYK_OK or HYK_WAIT_INTERRUPTED.
 * Context: a thread that may block, no spinlock held.
 */
hyk_Status hyk_WorldSleep(uint64_t us);

/* hyk_WorldCurrentID -- the calling world's ID, 0 for a thread that is not a world. */
hyk_WorldID hyk_WorldCurrentID(void);

HYK_EXTERN_C_END

#endif /* HYK_WORLD_H */
