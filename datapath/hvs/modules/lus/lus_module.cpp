/*
 * lus_module.cpp -- module core of lus: load and unload, module parameters
 * and information records, the three state heaps, the log components and the
 * client-clear timer.
 *
 * Load creates every host resource the other files use, in a fixed order,
 * and a failure at any step releases what the earlier steps made, newest
 * first; unload mirrors load.  Before the log components exist (and after
 * they are gone) only the host's plain printers can be used, so the heap and
 * log-registration failures are printed as host warnings.
 */
#include "lus_int.h"

#define LUS_STR_(x) #x
#define LUS_STR(x) LUS_STR_(x)

/* ---- information records ---------------------------------------------------- */

HYK_MODULE_INFO(nsApi, HYK_MODINFO_NAMESPACE, "com.corvid.hykapi#v3_1_0_0");
HYK_MODULE_INFO(nsCore, HYK_MODINFO_NAMESPACE, "hykcore#nover");
HYK_MODULE_INFO(version, HYK_MODINFO_VERSION,
                "Version 0.0.0-0 RELEASEbuild-" LUS_STR(LUS_BUILD_NUMBER));
HYK_MODULE_INFO(buildType, HYK_MODINFO_BUILD_TYPE, "release");
HYK_MODULE_INFO(license, HYK_MODINFO_LICENSE, "Corvid Proprietary");

/* ---- parameters ----------------------------------------------------------------- */

/*
 * The heap sizes are decimal megabytes and gigabytes on purpose (1,000,000 for
 * "1MB").  They are unsigned 32-bit parameters, which is what the heap
 * creation takes; the 3 GB default still fits.  (The host sets a uint
 * parameter only in a 32-bit variable, so the words are 32 bits wide here.)
 */
/*
 * The host finds parameter variables by name, so they have C linkage and
 * default visibility (what HYK_PARAM_VAR gives; spelled as a linkage block
 * here because the variables are also initialised).
 */
#define LUS_PARAM __attribute__((visibility("default"))) constinit
HYK_EXTERN_C_BEGIN
LUS_PARAM int32_t lusLogLevel = 3;
LUS_PARAM uint32_t LUS_HEAP_MIN_SIZE = 1000000;
LUS_PARAM uint32_t LUS_HEAP_MAX_SIZE = 3000000000u;
LUS_PARAM uint32_t LUS_HEAP_0_MAX_SIZE = 100000000;
/* All ones: not given, i.e. this module is not the from-build side. */
LUS_PARAM uint32_t fromBuild = 0xffffffffu;
HYK_EXTERN_C_END

HYK_MODULE_PARAM(lusLogLevel, HYK_PARAM_INT, "LUS Log Level");
HYK_MODULE_PARAM(LUS_HEAP_MIN_SIZE, HYK_PARAM_UINT, "LUS min heap size (1MB default)");
HYK_MODULE_PARAM(LUS_HEAP_MAX_SIZE, HYK_PARAM_UINT, "LUS max heap size (3GB default)");
HYK_MODULE_PARAM(LUS_HEAP_0_MAX_SIZE, HYK_PARAM_UINT, "LUS heap0 max size (100MB default)");
HYK_MODULE_PARAM(fromBuild, HYK_PARAM_UINT,
                 "Build ID of the from tarn-datapath pak used for live upgrade");

#define LUS_FROM_BUILD_NOT_GIVEN 0xffffffffu
#define LUS_CLIENT_HEAP_INITIAL_SIZE 4096u

/* ---- module-wide state ------------------------------------------------------------ */

HYK_EXTERN_C_BEGIN

constinit hyk_ModuleID lusModID = HYK_INVALID_MODULE_ID;
constinit uint32_t toBuild = 0;
/* Build number compiled in; read-only. */
constinit const uint32_t lusBuildNumber = LUS_BUILD_NUMBER;
/*
 * Intended longest client callback, in milliseconds.  Callback durations are
 * only logged; nothing enforces this, and that is deliberate.
 */
constinit uint64_t maxAllowedCBTime = 200;

constinit hyk_HeapID lusHeapID_0 = 0;
constinit hyk_HeapID lusHeapID_1 = 0;
constinit hyk_HeapID lusHeapID_2 = 0;
/* Written without a lock by concurrent allocators; accessed atomically. */
constinit hyk_HeapID curHeapID = 0;

constinit hyk_LogHandle lusLogHandle = 0;
constinit hyk_LogHandle lusLogThrotHandle = 0;

constinit hyk_TimerQueue lusTimerQueue = 0;
constinit hyk_TimerHandle lusTimer = 0;
/* Once-only guard of LUS_ClientClear: 0 until the first clearing. */
constinit uint64_t already_called = 0;

constinit hyk_LockDomainID lusLockDomain = HYK_INVALID_LOCK_DOMAIN;
constinit hyk_RWSpinlockID lusClientLock = HYK_INVALID_LOCK;
constinit hyk_SpinlockID lusDummyLock = HYK_INVALID_LOCK;
/*
 * Guards the chains of both port maps, the fields of version 0 records and
 * the rows of the client tables.  A leaf: taken last (highest rank), held
 * for one map operation, never across a client callback, an event post or a
 * host call that may sleep.
 */
constinit hyk_SpinlockID lusMapLock = HYK_INVALID_LOCK;

/* Owner of the registry (LUS_REGISTRY_*); see lusRegistryAcquire. */
constinit uint32_t lusRegistryState = 0;
/* Guarded by lusMapLock, as are the two below (stored atomically: tests look at it). */
constinit uint8_t lusClearInProgress = 0;
constinit uint32_t lusRestoresInFlight = 0;
/* A clear waits for restores under way: the last of them finishes it (see LUS_ClientClear). */
constinit uint8_t lusClearHandedOff = 0;
constinit uint32_t lusClearHandedOffPortPhase = 0;

constinit LusListLinks lusGlobalState = {nullptr, nullptr};
constinit LusPsState lusPsState = {};

HYK_EXTERN_C_END

/* ---- state heaps ---------------------------------------------------------------------- */

void *LUS_AllocFromHeap(hyk_HeapID heap, uint32_t size)
{
   return hyk_HeapAllocWithRA(heap, size, __builtin_return_address(0));
}

void LUS_Free(hyk_HeapID heap, void *ptr)
{
   if (ptr == nullptr) {
      return;
   }
   hyk_HeapFree(heap, ptr);
}

/*
 * Client state may be gigabytes, so it comes from two large heaps.  When the
 * current one is full we switch to the other for good rather than trying the
 * first again on every call: once a heap has filled up, retrying it only
 * costs time.  The switch is a plain word; two callers failing at once may
 * both switch, which is harmless.
 */
void *LUS_ClientStateAlloc(uint32_t size, hyk_HeapID *heapUsed)
{
   hyk_HeapID heap = __atomic_load_n(&curHeapID, __ATOMIC_RELAXED);
   void *mem = LUS_AllocFromHeap(heap, size);
   if (mem != nullptr) {
      *heapUsed = heap;
      return mem;
   }

   heap = (heap == lusHeapID_1) ? lusHeapID_2 : lusHeapID_1;
   __atomic_store_n(&curHeapID, heap, __ATOMIC_RELAXED);
   mem = LUS_AllocFromHeap(heap, size);
   if (mem != nullptr) {
      *heapUsed = heap;
      return mem;
   }

   LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_NO_MEMORY, "Out of Heap memory : %s\n");
   return nullptr;
}

/* Safe to call twice, and with only some heaps made. */
void lusDestroyHeaps(void)
{
   if (lusHeapID_0 != 0) {
      hyk_HeapDestroy(lusHeapID_0);
      lusHeapID_0 = 0;
   }
   if (lusHeapID_1 != 0) {
      hyk_HeapDestroy(lusHeapID_1);
      lusHeapID_1 = 0;
   }
   if (lusHeapID_2 != 0) {
      hyk_HeapDestroy(lusHeapID_2);
      lusHeapID_2 = 0;
   }
   __atomic_store_n(&curHeapID, 0, __ATOMIC_RELAXED);
}

static hyk_Status lusCreateHeap(const char *name, uint32_t initialSize, uint32_t maxSize,
                                hyk_HeapID *heap)
{
   hyk_HeapProps props = {};
   props.name = name;
   props.owner = lusModID;
   props.initialSize = initialSize;
   props.maxSize = maxSize;
   hyk_Status status = hyk_HeapCreate(&props, heap);
   if (status != HYK_OK) {
      *heap = 0;
      _hyk_WarningMessage("LUS - failed to create heap %s: %s\n", name, hyk_StatusToString(status));
   }
   return status;
}

/* ---- log components ------------------------------------------------------------------ */

/* Both handles are attempted whatever happens to the other. */
void lusCleanupLogHandle(void)
{
   hyk_Status status;

   if (lusLogHandle != 0) {
      status = hyk_LogUnregister(lusLogHandle);
      if (status != HYK_OK) {
         _hyk_WarningMessage("LUS - failed to unregister log handle : %s\n",
                             hyk_StatusToString(status));
      }
      lusLogHandle = 0;
   }
   if (lusLogThrotHandle != 0) {
      status = hyk_LogUnregister(lusLogThrotHandle);
      if (status != HYK_OK) {
         _hyk_WarningMessage("LUS - failed to unregister throttle log handle : %s\n",
                             hyk_StatusToString(status));
      }
      lusLogThrotHandle = 0;
   }
}

/* ---- client-clear timer --------------------------------------------------------------- */

hyk_Status LUS_ScheduleTimer(hyk_TimerCallback callback, void *data, uint64_t timeout,
                             uint8_t periodic, hyk_TimerHandle *timer)
{
   LUS_LOG(LUS_LOG_INFO, "Scheduling LUS timer ...\n");
   hyk_Status status = hyk_TimerAdd(lusTimerQueue, callback, data, timeout,
                                    HYK_TIMER_DEFAULT_TOLERANCE, periodic,
                                    HYK_TIMER_NO_LOCK_CLASS, timer);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Scheduling LUS Timer FAIL : %s\n");
   }
   return status;
}

/* ---- the registry's owner ----------------------------------------------------------------- */

enum : uint32_t {
   LUS_REGISTRY_COMMAND = 0x1, /* a command (or the unload) owns it */
   LUS_REGISTRY_CLEAR = 0x2,   /* a clear from outside owns it */
   LUS_REGISTRY_PENDING = 0x4, /* a clear from outside waits for the owner to let go */
   LUS_REGISTRY_DRAIN = 0x8,   /* a clear waits for restores under way; the last one ends it */
};

/* A command that finds the registry taken sleeps, first briefly, then up to this long. */
#define LUS_REGISTRY_WAIT_MIN_US 100u
#define LUS_REGISTRY_WAIT_MAX_US 10000u

/*
 * Commands run one at a time.  The owner may be another command, which can
 * run for seconds (client callbacks that sleep, event posts, the upgrade
 * world, command 10's filter waits), or a clear that waits for restores
 * under way: so a command that finds the registry taken sleeps between
 * looks, never spins.  Commands and the unload may sleep.
 */
void lusRegistryAcquire(void)
{
   uint32_t waitUS = LUS_REGISTRY_WAIT_MIN_US;
   for (;;) {
      uint32_t expected = 0;
      if (__atomic_compare_exchange_n(&lusRegistryState, &expected, LUS_REGISTRY_COMMAND, false,
                                      __ATOMIC_ACQUIRE, __ATOMIC_RELAXED)) {
         return;
      }
      /* An interrupted sleep only means an earlier look. */
      (void)hyk_WorldSleep(waitUS);
      waitUS = waitUS * 2 < LUS_REGISTRY_WAIT_MAX_US ? waitUS * 2 : LUS_REGISTRY_WAIT_MAX_US;
   }
}

/*
 * Gives up `mine` of the registry: the command or clear that owns it, or the
 * drain of a clear handed to the restores.  A clear that came from outside
 * meanwhile is run here first, so that it never overlaps a registration.
 */
static void lusRegistryLetGo(uint32_t mine)
{
   uint32_t state = __atomic_load_n(&lusRegistryState, __ATOMIC_RELAXED);
   for (;;) {
      if ((state & LUS_REGISTRY_PENDING) != 0) {
         if (__atomic_compare_exchange_n(&lusRegistryState, &state, state & ~LUS_REGISTRY_PENDING,
                                         false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED)) {
            LUS_ClientClear(0);
            state = __atomic_load_n(&lusRegistryState, __ATOMIC_RELAXED);
         }
         continue;
      }
      if (__atomic_compare_exchange_n(&lusRegistryState, &state, state & ~mine, false,
                                      __ATOMIC_RELEASE, __ATOMIC_RELAXED)) {
         return;
      }
   }
}

/*
 * Lets go of the registry.  A clear the owner ran that now waits for
 * restores under way keeps it taken (LUS_REGISTRY_DRAIN) until the last of
 * them has finished that clear.
 */
void lusRegistryRelease(void)
{
   lusRegistryLetGo(__atomic_load_n(&lusRegistryState, __ATOMIC_RELAXED) &
                    (LUS_REGISTRY_COMMAND | LUS_REGISTRY_CLEAR));
}

void lusClientClearFromOutside(void)
{
#if LUS_REINTRODUCED_BUG == 3
   /* The old bug, for the schedule explorer's proof: the clear ignores the registry's owner. */
   LUS_ClientClear(0);
   return;
#endif
   uint32_t state = __atomic_load_n(&lusRegistryState, __ATOMIC_RELAXED);
   for (;;) {
      if (state == 0) {
         if (__atomic_compare_exchange_n(&lusRegistryState, &state, LUS_REGISTRY_CLEAR, false,
                                         __ATOMIC_ACQUIRE, __ATOMIC_RELAXED)) {
            LUS_ClientClear(0);
            lusRegistryRelease();
            return;
         }
         continue;
      }
      if ((state & LUS_REGISTRY_PENDING) != 0) {
         return;
      }
      if (__atomic_compare_exchange_n(&lusRegistryState, &state, state | LUS_REGISTRY_PENDING,
                                      false, __ATOMIC_RELEASE, __ATOMIC_RELAXED)) {
         return;
      }
   }
}

/*
 * The timer is never cancelled: if a restore, a failed registration or the
 * unload cleared first, the firing finds the clearing done and returns.  A
 * command inside the registry when it fires runs the clear as it finishes.
 */
void LUS_ClientClearTimerCB(void *data, hyk_TimerHandle timer)
{
   lusClientClearFromOutside();
}

/* The clear's withdrawal and emptying, once no restore is under way. */
static void lusClientClearFinish(uint32_t alsoPortPhase)
{
   if (__atomic_load_n(&lusTARNQRegistered, __ATOMIC_RELAXED) == 1) {
      LUS_Unreg(0);
   }
   if (__atomic_load_n(&lusTARNJRegistered, __ATOMIC_RELAXED) == 1) {
      LUS_Unreg(1);
   }

   /* The pull restore walks the port-phase map under the read side. */
   hyk_RWSpinlockWriteLock(lusClientLock);
   LUS_HashEmpty((int32_t)alsoPortPhase, lusHashMap);
   if (alsoPortPhase != 0) {
      LUS_HashEmpty((int32_t)alsoPortPhase, lusPerPortHashMap);
   }
   hyk_RWSpinlockWriteUnlock(lusClientLock);

   lusMapLockTake();
   __atomic_store_n(&lusClearInProgress, 0, __ATOMIC_RELAXED);
   lusMapLockDrop();
}

/*
 * Withdraws every client registration and empties the maps, at most once in
 * the life of the module: whichever of timer, unload, restore end or failed
 * registration gets here first does the work.  The timer passes 0 and so
 * leaves the port-phase map alone; that map belongs to a per-portset upgrade
 * whose own end clears it.  Runs only as the registry's owner.
 *
 * From the first withdrawal to the end of the emptying, restore events must
 * not hand state to clients that are going away, nor unblock a port whose
 * state is about to be dropped: lusClearInProgress makes new ones leave the
 * maps alone (the ports stay blocked, and the emptying reports what it
 * dropped), and those already at work on a port finish it first, their
 * clients still registered: a port is restored whole or not at all.  Their
 * client callbacks may sleep, and the clear may run in the timer's callback,
 * which may not: so the clear does not wait for them.  The last of them
 * finishes the clear (lusRestoreDone), and until then the registry stays
 * taken, so no registration slips in between.  A record still claimed when
 * a map is emptied is detached, not freed; its claimer finishes it.
 */
void LUS_ClientClear(uint32_t alsoPortPhase)
{
   uint64_t expected = 0;
   if (!__atomic_compare_exchange_n(&already_called, &expected, 1, false, __ATOMIC_ACQ_REL,
                                    __ATOMIC_ACQUIRE)) {
      return;
   }

   LUS_LOG(LUS_LOG_INFO, "Clearing LUS Client data ...\n");

   lusMapLockTake();
   __atomic_store_n(&lusClearInProgress, 1, __ATOMIC_RELAXED);
   bool handOff = lusRestoresInFlight != 0;
#if LUS_REINTRODUCED_BUG == 1
   /* The old bug, for the schedule explorer's proof: the clear does not wait for restores. */
   handOff = false;
#endif
   if (handOff) {
      lusClearHandedOff = 1;
      lusClearHandedOffPortPhase = alsoPortPhase;
      __atomic_fetch_or(&lusRegistryState, LUS_REGISTRY_DRAIN, __ATOMIC_RELAXED);
   }
   lusMapLockDrop();
   if (!handOff) {
      lusClientClearFinish(alsoPortPhase);
   }
}

/*
 * A restore that found its port is done with it.  The last one to finish
 * while a clear waits for them finishes that clear, then gives up the
 * registry the clear kept taken.
 */
void lusRestoreDone(void)
{
   lusMapLockTake();
   lusRestoresInFlight--;
   const bool finishClear = lusRestoresInFlight == 0 && lusClearHandedOff != 0;
   const uint32_t alsoPortPhase = lusClearHandedOffPortPhase;
   if (finishClear) {
      lusClearHandedOff = 0;
   }
   lusMapLockDrop();
   if (finishClear) {
      lusClientClearFinish(alsoPortPhase);
      lusRegistryLetGo(LUS_REGISTRY_DRAIN);
   }
}

/* ---- load -------------------------------------------------------------------------------- */

static void lusDestroyTimerQueue(void)
{
   if (lusTimerQueue != 0) {
      hyk_TimerQueueDestroy(lusTimerQueue);
      lusTimerQueue = 0;
   }
}

static void lusDestroyLocks(void)
{
   if (lusMapLock != HYK_INVALID_LOCK) {
      hyk_SpinlockDestroy(lusMapLock);
      lusMapLock = HYK_INVALID_LOCK;
   }
   if (lusDummyLock != HYK_INVALID_LOCK) {
      hyk_SpinlockDestroy(lusDummyLock);
      lusDummyLock = HYK_INVALID_LOCK;
   }
   if (lusClientLock != HYK_INVALID_LOCK) {
      hyk_RWSpinlockDestroy(lusClientLock);
      lusClientLock = HYK_INVALID_LOCK;
   }
   if (lusLockDomain != HYK_INVALID_LOCK_DOMAIN) {
      hyk_LockDomainDestroy(lusLockDomain);
      lusLockDomain = HYK_INVALID_LOCK_DOMAIN;
   }
}

/*
 * Heaps, log components, timer queue and control device.  Returns 0, or -1
 * with everything it made released again.
 */
static int lusInit(void)
{
   hyk_Status status;

   /* Heap 0 keeps the module's own records; client state starts in heap 1. */
   if (lusCreateHeap("lus_heap_0", LUS_HEAP_MIN_SIZE, LUS_HEAP_0_MAX_SIZE, &lusHeapID_0) !=
       HYK_OK) {
      goto destroyHeaps;
   }
   if (lusCreateHeap("lus_heap_1", LUS_CLIENT_HEAP_INITIAL_SIZE, LUS_HEAP_MAX_SIZE,
                     &lusHeapID_1) != HYK_OK) {
      goto destroyHeaps;
   }
   if (lusCreateHeap("lus_heap_2", LUS_CLIENT_HEAP_INITIAL_SIZE, LUS_HEAP_MAX_SIZE,
                     &lusHeapID_2) != HYK_OK) {
      goto destroyHeaps;
   }
   __atomic_store_n(&curHeapID, lusHeapID_1, __ATOMIC_RELAXED);

   _hyk_LogMessage("LUS Log level set to %d\n", lusLogLevel);

   {
      /* Named after heap 0 on purpose: the host's log collector keys on it. */
      hyk_LogProps props = {};
      props.name = "lus_heap_0";
      props.defaultLevel = lusLogLevel;
      props.heap = lusHeapID_0;
      props.throttle = HYK_LOG_THROTTLE_NONE;
      status = hyk_LogRegister(&props, &lusLogHandle);
      if (status != HYK_OK) {
         lusLogHandle = 0;
         _hyk_WarningMessage("LUS - failed to register log handle : %s\n",
                             hyk_StatusToString(status));
         goto destroyHeaps;
      }
   }
   {
      /* Nothing is logged through the throttled component, but it lives as long as the other. */
      hyk_LogProps props = {};
      props.name = "lus_heap_0_throt";
      props.defaultLevel = lusLogLevel;
      props.heap = lusHeapID_0;
      props.throttle = HYK_LOG_THROTTLE_COUNT;
      status = hyk_LogRegister(&props, &lusLogThrotHandle);
      if (status != HYK_OK) {
         lusLogThrotHandle = 0;
         hyk_LogUnregister(lusLogHandle);
         lusLogHandle = 0;
         _hyk_WarningMessage("LUS - failed to register log handle : %s\n",
                             hyk_StatusToString(status));
         goto destroyHeaps;
      }
   }

   status = hyk_TimerQueueCreate("lus_heap_0", lusModID, lusHeapID_0, &lusTimerQueue);
   if (status != HYK_OK) {
      lusTimerQueue = 0;
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Failed to create timer queue : %s\n");
      goto unregisterLogs;
   }

   status = lusCharDevActivate();
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "LUS - failed to register char device : %s\n");
      goto destroyTimerQueue;
   }
   return 0;

destroyTimerQueue:
   lusDestroyTimerQueue();
unregisterLogs:
   lusCleanupLogHandle();
destroyHeaps:
   lusDestroyHeaps();
   return -1;
}

/* The lock domain and its two spinlocks; on failure releases what it made. */
static hyk_Status lusLockInit(void)
{
   hyk_Status status;

   status = hyk_LockDomainCreate("tarnq-lus", lusModID, lusHeapID_0, &lusLockDomain);
   if (status != HYK_OK) {
      lusLockDomain = HYK_INVALID_LOCK_DOMAIN;
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Failed to create lock domain tarnq-lus : %s\n");
      return status;
   }

   status = hyk_RWSpinlockCreate("tarnq-lus", lusLockDomain, 2, &lusClientLock);
   if (status != HYK_OK) {
      lusClientLock = HYK_INVALID_LOCK;
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Failed to create lus client lock : %s\n");
      goto destroyDomain;
   }

   status = hyk_SpinlockCreate("tarnq-lus", lusLockDomain, 1, &lusDummyLock);
   if (status != HYK_OK) {
      lusDummyLock = HYK_INVALID_LOCK;
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Failed to create lus dummy lock : %s\n");
      goto destroyClientLock;
   }

   /* Highest rank: taken inside the world's lusDummyLock and the pull restore's read lock. */
   status = hyk_SpinlockCreate("tarnq-lus-map", lusLockDomain, 3, &lusMapLock);
   if (status != HYK_OK) {
      lusMapLock = HYK_INVALID_LOCK;
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Failed to create lus map lock : %s\n");
      goto destroyDummyLock;
   }
   return HYK_OK;

destroyDummyLock:
   hyk_SpinlockDestroy(lusDummyLock);
   lusDummyLock = HYK_INVALID_LOCK;
destroyClientLock:
   hyk_RWSpinlockDestroy(lusClientLock);
   lusClientLock = HYK_INVALID_LOCK;
destroyDomain:
   hyk_LockDomainDestroy(lusLockDomain);
   lusLockDomain = HYK_INVALID_LOCK_DOMAIN;
   return status;
}

HYK_MODULE_ENTRY int init_module(void)
{
   lusModID = hyk_ModuleCurrentID();
   toBuild = lusBuildNumber;

   if (lusInit() != 0) {
      return -1;
   }

   if (lusLockInit() != HYK_OK) {
      lusCharDevDeactivate();
      lusDestroyTimerQueue();
      lusCleanupLogHandle();
      lusDestroyHeaps();
      return -1;
   }

   LusList_Init(&lusGlobalState);
   LusList_Init(&lusPsState.clients);
   return 0;
}

/* ---- unload ------------------------------------------------------------------------------- */

/*
 * A client whose unregistration event could not be posted (or that missed
 * it) would keep the use count its registration took on its module for
 * ever, pointing into a lus that is gone.  The module is going: release
 * every row still in use here, as its own unregistration would.
 */
static void lusReleaseStrandedClients(void)
{
   ClientEntry *const tables[2] = {fromClients, toClients};
   for (ClientEntry *table : tables) {
      for (int32_t i = 0; i < LUS_MAX_CLIENTS; i++) {
         if (__atomic_load_n(&table[i].inUse, __ATOMIC_RELAXED) == 0) {
            continue;
         }
         LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_BUSY,
                        "Client %s still registered at unload, releasing it : %s\n",
                        table[i].clientName);
         lus_ClientUnregister(&table[i]);
      }
   }
}

/*
 * Unloading never fails and never waits for an upgrade to finish: a map that
 * still holds records is reported and freed all the same.
 */
void lusCleanup(uint32_t fromBuildGiven)
{
   hyk_Status status;

   /* No restore event runs once this returns; the host waits for those under way. */
   LUS_Unsubscribe();
   /* A clear the timer started is finished first; a later firing finds the registry taken. */
   lusRegistryAcquire();
   LUS_ClientClear(fromBuildGiven);
   /*
    * The clear runs once in the module's life.  Clients that registered after
    * it (a command retried after a failed one cleared), or whose unregistration
    * event failed, still hold the use counts their registration took: the
    * module is going, so withdraw them now.
    */
   if (__atomic_load_n(&lusTARNQRegistered, __ATOMIC_RELAXED) == 1) {
      LUS_Unreg(0);
   }
   if (__atomic_load_n(&lusTARNJRegistered, __ATOMIC_RELAXED) == 1) {
      LUS_Unreg(1);
   }
   lusReleaseStrandedClients();

   /* The from-build side never registered the unblock event; the other side did. */
   if (fromBuildGiven == 0) {
      status = hyk_NetEventUnregister(LUS_EVENT_PORT_UNBLOCK);
      if (status != HYK_OK) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Failed to unregister event %s : %s\n",
                        LUS_EVENT_PORT_UNBLOCK);
      }
   }

   /*
    * Records enrolled after the once-only clear are still here.  They are
    * reported, then freed with what they hold (each saved buffer reported
    * as dropped) rather than left in the heaps for the host to find.
    */
   if (lusHashMap != nullptr && TarnHash_Count(lusHashMap) != 0) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_NOT_EMPTY, "Non empty LUS PS phase hash map : %s\n");
   }
   if (lusPerPortHashMap != nullptr && TarnHash_Count(lusPerPortHashMap) != 0) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_NOT_EMPTY, "Non empty LUS port phase hash map : %s\n");
   }
   lusFreeHashMaps();

   lusDestroyLocks();
   lusDestroyTimerQueue();
   lusCharDevDeactivate();
   lusCleanupLogHandle();
   lusDestroyHeaps();
}

HYK_MODULE_ENTRY void cleanup_module(void)
{
   lusCleanup(fromBuild != LUS_FROM_BUILD_NOT_GIVEN ? 1 : 0);
}
