/*
 * lus_int.h -- what the source files of the lus module share with each
 * other: the module-wide globals, the one log site, and the operations that
 * one subsystem offers the others.  Nothing here is for clients (see lus.h).
 *
 * Globals and cross-file operations have C linkage and stay visible in the
 * module's symbol table: the host finds parameters by name, and the test
 * harness inspects state the way a kernel debugger would.
 */
#ifndef LUS_INT_H
#define LUS_INT_H

#include <stddef.h>
#include <stdint.h>

#include "hyk/hyk.h"
#include "lus.h"
#include "lus_ioctl.h"
#include "tarn_hash_common.h"

#ifndef LUS_BUILD_NUMBER
#error "LUS_BUILD_NUMBER must be set by the build"
#endif

#define LUS_EVENT_PORT_UNBLOCK "com.corvid.tarn.kcp.port.unblock"
#define LUS_EVENT_PORT_ENABLE "port.state.enable"

#define LUS_CLIENT_CLEAR_TIMEOUT_US 120000000ull

/* The block reason this module sets and clears on ports. */
#define LUS_PORT_BLOCK_REASON 0x2000u

/* Source path named by the registry when it meets an impossible state. */
#define LUS_CLIENT_SOURCE "datapath/hvs/modules/lus/lus_client"

/* ---- the one log site ------------------------------------------------------- */

/*
 * The sub-component suffix is empty in every line, so the tag always reads
 * subcomp="lus"; the %s stays in the format so that a suffix can be added.
 */
#define LUS_SUBCOMP ""
#define LUS_LOG_TAG "%s:%d:[tarn@7391 comp=\"tarn-hvs\" subcomp=\"lus%s\"]"
#define LUS_LOG_TAG_EC "%s:%d:[tarn@7391 comp=\"tarn-hvs\" subcomp=\"lus%s\" errorCode=\"HVS%u\"]"
#define LUS_LOG_URGENCY 1

#define LUS_LOG_ERROR 1
#define LUS_LOG_INFO 3
#define LUS_LOG_VERBOSE 5

/*
 * The error code a status is reported with, or false when the status has no
 * code of its own (low 16 bits zero) and goes out in the plain form.  The
 * host's generic error has no low bits but must still be told apart from a
 * plain line, so it is reported as 65535.
 */
static inline bool lusLogErrorCode(hyk_Status status, uint32_t *code)
{
   if (status == HYK_GENERIC_ERROR) {
      *code = 65535;
      return true;
   }
   if ((status & 0xffffu) != 0) {
      *code = status & 0xffffu;
      return true;
   }
   return false;
}

/*
 * LUS_LOG: a plain line.  The level is tested before the host is called so
 * that a suppressed per-port line costs no formatting at all.
 */
#define LUS_LOG(level, fmt, ...) LUS_LOG_AS(__func__, level, fmt __VA_OPT__(, ) __VA_ARGS__)

/*
 * LUS_LOG_AS: a plain line in the name of `fn`, for a helper that does part
 * of an operation's work and reports it as that operation.
 */
#define LUS_LOG_AS(fn, level, fmt, ...)                                             \
   do {                                                                             \
      if (hyk_LogGetCurrentLogLevel(lusLogHandle) > (level) - 1) {                  \
         hyk_LogLevel(LUS_LOG_URGENCY, lusLogHandle, (level), LUS_LOG_TAG fmt,      \
                      (fn), __LINE__, LUS_SUBCOMP __VA_OPT__(, ) __VA_ARGS__);      \
      }                                                                             \
   } while (0)

/*
 * LUS_LOG_STATUS: a line about a status; `fmt` ends in " : %s\n" and the
 * status's text is appended as the last argument.  A status with an error
 * code goes out in the error-code form, unconditionally (the host filters it
 * by level); one without goes out in the plain form, after the level test,
 * and its text is looked up only then.
 */
#define LUS_LOG_STATUS(level, status, fmt, ...)                                     \
   LUS_LOG_STATUS_AS(__func__, level, status, fmt __VA_OPT__(, ) __VA_ARGS__)

#define LUS_LOG_STATUS_AS(fn, level, status, fmt, ...)                              \
   do {                                                                             \
      hyk_Status lusLogSt_ = (status);                                              \
      uint32_t lusLogCode_;                                                         \
      if (lusLogErrorCode(lusLogSt_, &lusLogCode_)) {                               \
         hyk_LogLevel(LUS_LOG_URGENCY, lusLogHandle, (level), LUS_LOG_TAG_EC fmt,   \
                      (fn), __LINE__, LUS_SUBCOMP, lusLogCode_,                     \
                      __VA_ARGS__ __VA_OPT__(, ) hyk_StatusToString(lusLogSt_));    \
      } else if (hyk_LogGetCurrentLogLevel(lusLogHandle) > (level) - 1) {           \
         hyk_LogLevel(LUS_LOG_URGENCY, lusLogHandle, (level), LUS_LOG_TAG fmt,      \
                      (fn), __LINE__, LUS_SUBCOMP,                                  \
                      __VA_ARGS__ __VA_OPT__(, ) hyk_StatusToString(lusLogSt_));    \
      }                                                                             \
   } while (0)

/* Stops the host: the registry reached a state that no caller can produce. */
#define LUS_NOT_REACHED()                                                           \
   hyk_PanicWithModuleID(hyk_ModuleCurrentID(), "Failed at %s:%d -- NOT REACHED",   \
                         LUS_CLIENT_SOURCE, __LINE__)

/* ---- bounded string helpers (the module links no C library) ------------------ */

static inline uint32_t lusStrNLen(const char *s, uint32_t max)
{
   return TarnHash_StrLen(s, max);
}

/* strncmp over at most `max` characters: 0 when equal. */
static inline int lusStrNCmp(const char *a, const char *b, uint32_t max)
{
   for (uint32_t i = 0; i < max; i++) {
      unsigned char ca = (unsigned char)a[i];
      unsigned char cb = (unsigned char)b[i];
      if (ca != cb) {
         return ca < cb ? -1 : 1;
      }
      if (ca == '\0') {
         return 0;
      }
   }
   return 0;
}

/* strncpy: copies at most `max` bytes and pads the rest with NULs. */
static inline void lusStrNCpy(char *dst, const char *src, uint32_t max)
{
   uint32_t i = 0;
   for (; i < max && src[i] != '\0'; i++) {
      dst[i] = src[i];
   }
   for (; i < max; i++) {
      dst[i] = '\0';
   }
}

/* Scoped push of a client's module ID around a call into the client. */
struct LusModuleScope {
   hyk_ModuleCookie cookie;
   LusModuleScope(hyk_ModuleID id, const void *fn) { hyk_ModulePushId(id, fn, &cookie); }
   ~LusModuleScope() { hyk_ModulePopId(); }
   LusModuleScope(const LusModuleScope &) = delete;
   LusModuleScope &operator=(const LusModuleScope &) = delete;
};

HYK_EXTERN_C_BEGIN

/* ---- module core (lus_module.cpp) -------------------------------------------- */

extern hyk_ModuleID lusModID;
extern uint32_t toBuild;
extern uint32_t fromBuild;
extern int32_t lusLogLevel;
extern uint64_t maxAllowedCBTime;
extern hyk_HeapID lusHeapID_0, lusHeapID_1, lusHeapID_2;
extern hyk_HeapID curHeapID;
extern hyk_LogHandle lusLogHandle, lusLogThrotHandle;
extern hyk_TimerQueue lusTimerQueue;
extern hyk_TimerHandle lusTimer;
extern uint64_t already_called;
extern hyk_LockDomainID lusLockDomain;
extern hyk_RWSpinlockID lusClientLock;
extern hyk_SpinlockID lusDummyLock;
extern hyk_SpinlockID lusMapLock;
extern LusListLinks lusGlobalState;

/* The portset under upgrade and its clients' portset records. */
struct LusPsState {
   char name[LUS_PORTSET_NAME_LEN];
   LusListLinks clients;
};
static_assert(sizeof(LusPsState) == 144, "lusPsState layout");
extern LusPsState lusPsState;

void *LUS_AllocFromHeap(hyk_HeapID heap, uint32_t size);
void LUS_Free(hyk_HeapID heap, void *ptr);
void *LUS_ClientStateAlloc(uint32_t size, hyk_HeapID *heapUsed);
void lusDestroyHeaps(void);
void lusCleanupLogHandle(void);
void lusCleanup(uint32_t fromBuildGiven);
hyk_Status LUS_ScheduleTimer(hyk_TimerCallback callback, void *data, uint64_t timeout,
                             uint8_t periodic, hyk_TimerHandle *timer);
void LUS_ClientClearTimerCB(void *data, hyk_TimerHandle timer);
void LUS_ClientClear(uint32_t alsoPortPhase);

/*
 * The registry: the client tables, the registration payload and the maps'
 * existence change only on the thread that owns it.  A control-device
 * command owns it for its whole run (the upgrade world it waits for runs
 * under that ownership), and so does the unload.  A clear that starts
 * elsewhere (the timer, the last restore event) takes it only if it is free;
 * otherwise it leaves the clear to the owner, who runs it as it lets go.
 * Commands sleep while a clear is under way; clears never wait: one that
 * finds restores under way leaves its end to the last of them, and the
 * registry stays taken until then.
 */
void lusRegistryAcquire(void);
void lusRegistryRelease(void);
/* LUS_ClientClear(0) from outside the owner: now, or by the owner when it lets go. */
void lusClientClearFromOutside(void);

/* Non-zero while a clear is between its first withdrawal and its emptying (lusMapLock). */
extern uint8_t lusClearInProgress;
/* Restore events that found their port and have not finished it yet (lusMapLock). */
extern uint32_t lusRestoresInFlight;
/* A restore that found its port is done with it; may finish a clear that waited for it. */
void lusRestoreDone(void);

/*
 * LUS_REINTRODUCED_BUG (test-only builds): 1 a clear that does not wait for
 * restores under way, 2 a restore that calls a client back without claiming
 * its record, 3 a clear from outside that ignores the registry's owner.
 * The schedule explorer's tests prove that they are found.
 */
#ifndef LUS_REINTRODUCED_BUG
#define LUS_REINTRODUCED_BUG 0
#endif

/* ---- client registry and port maps (lus_client.cpp) --------------------------- */

extern ClientEntry fromClients[LUS_MAX_CLIENTS];
extern ClientEntry toClients[LUS_MAX_CLIENTS];
extern int32_t numFromClients, numToClients;
extern uint32_t currRegType;
extern LUSEventOps lusEventOps;
extern uint8_t lusTARNQRegistered, lusTARNJRegistered, lusClientsUnregistered;
extern LusHashMap *lusHashMap;
extern LusHashMap *lusPerPortHashMap;
extern uint32_t numLUSInstances;

hyk_Status LUS_Reg(uint8_t legacyEdition, uint32_t regType);
hyk_Status LUS_Unreg(uint8_t legacyEdition);
hyk_Status LUS_GetToClient(const char *name, uint32_t *index);
int lusClientExists(const char *name, const ClientEntry *table, int32_t count);
hyk_Status createLUSHash(int32_t version);
void lusFreeHashMaps(void);
LusClientInst *lusClientInstInitV1(uint32_t portID, LusRegContext *ctx, ClientEntry **client,
                                   uint32_t upgradePhase);
LusClientInst *LUS_FindMatchingInstanceV1(uint32_t portID, const char *name,
                                          uint32_t upgradePhase);
LusClientInst *lusFindInstanceV1(LusPortInstV1 *instance, const char *name);
LusPortInstV1 *lusLookupPortV1(LusHashMap *map, uint32_t portID);
LusInstance *LUS_FindMatchingInstance(const char *uuid, uint32_t vnicIndex, const char *name);
LusInstance *LUS_CheckPortInHash(const char *uuid, uint32_t vnicIndex);
hyk_Status lusGetUUIDVNIC(hyk_PortID port, char *uuid, uint32_t *vnicIndex);
hyk_Status LUS_ClientRegAll(uint32_t regType);
hyk_Status LUS_ClientRegAllPS(const char *portsetName);
hyk_Status lusRegForAllPorts(hyk_Portset *ps, hyk_PortID portID, void *data);
void lusDeleteEntry(LusHashMap *map, LusInstance *record);
/* The rest of lusDeleteEntry for a record its caller already took out of the map. */
void lusDeleteEntryUnlinked(LusInstance *record);
/* lusMapLock, taken and released around each map operation, never across a call out. */
static inline void lusMapLockTake(void) { hyk_SpinlockLock(lusMapLock); }
static inline void lusMapLockDrop(void) { hyk_SpinlockUnlock(lusMapLock); }
/*
 * Claims (under lusMapLock) the version 0 record of this UUID, vNIC index
 * and client for a callback: null when there is none or when another thread
 * holds it (then *busy is set).  lusReleaseV0 ends the claim; it returns
 * true when a clear detached the record meanwhile and the caller must free
 * it (buffer and record) itself.
 */
/* The version 0 scan itself; the caller holds lusMapLock. */
LusInstance *lusScanV0(const char *uuid, uint32_t vnicIndex, const char *name);
/* A record of this port is under restore elsewhere, or failed its restore (lusMapLock held). */
bool lusPortHasUnfinishedV0(const char *uuid, uint32_t vnicIndex);
LusInstance *lusClaimV0(const char *uuid, uint32_t vnicIndex, const char *name, bool *busy);
bool lusReleaseV0(LusInstance *record);
/* Frees a detached record and whatever buffer it still holds. */
void lusFreeDetachedV0(LusInstance *record);
/* Forgets a record's saved buffer, freeing it to its heap first. */
void lusForgetStateV0(LusInstance *record);
void lusForgetStateV1(LusClientInst *record);
void lusDeleteEntryV1(LusHashMap *map, LusPortInstV1 *instance);
void LUS_RemovePortFromMapV1(LusHashMap *map, uint32_t portID);
hyk_Status LUS_HashEmpty(int32_t version, LusHashMap *map);

/* ---- control device (lus_chardev.cpp) ---------------------------------------- */

extern hyk_CharDevHandle lusCharDevHandle;
extern char lusPortset[LUS_MAX_PORTSETS][LUS_PORTSET_NAME_LEN];
extern uint32_t numPortsets;
extern uint32_t startOutageTime;
extern uint32_t maxAllowedOutageTime;

hyk_Status lusCharDevActivate(void);
void lusCharDevDeactivate(void);
hyk_Status lusCharDevOpen(hyk_CharDevFile *file);
hyk_Status lusCharDevClose(hyk_CharDevFile *file);
hyk_Status lusCharDevUnregCleanup(void *privateData);
hyk_Status lusCharDevIoctl(hyk_CharDevFile *file, uint32_t cmd, hyk_UserVA arg);
extern const hyk_CharDevOps charDevOps;

/* The command handlers that take a payload of their own (commands 0-6, 9, 13, 14). */
hyk_Status CharDevLUSReg(const LusIoctlHeader *header, uint32_t regType);
hyk_Status CharDevLUSPreUnload(const LusIoctlHeader *header);
hyk_Status CharDevLUSRestore(const LusIoctlHeader *header);
hyk_Status CharDevLUSBlockPorts(const LusIoctlHeader *header);
hyk_Status CharDevLUSPsUpgrade(const LusIoctlHeader *header);
hyk_Status CharDevLUSFdpOp(const LusIoctlHeader *header);
hyk_Status CharDevLUSRaiseCswitchEvents(const LusIoctlHeader *header);

/*
 * Context of the upgrade world: the command 9 payload (the handler's heap
 * copy, alive until the world is dead) and the status the world reports.
 * The creator presets the status to the host's generic failure so that a
 * world that ends without reporting still reads as failed.  The world writes
 * the word before it ends and the creator reads it only after the world's
 * death has been reaped, which orders the two accesses.
 */
struct LusUpgradeCtx {
   const LusPsUpgradeQuery *query;
   uint32_t status;
};

/* Port blocking: the per-port visitor of the block command and the world. */
hyk_Status lusPortBlock(hyk_Portset *ps, hyk_PortID portID, void *blockFlag);
/* Exported for other modules: an upgrade counts as in progress while lus is loaded. */
int32_t LUS_UpgradeInProgress(void);

/* Switch upgrade-property namespaces and the cswitch deactivate/activate events. */
hyk_Status LUSFabricPropUpgradeRegUnreg(const char *psName, const LusPsUpgradeQuery *payload,
                                        bool reg);
hyk_Status lusRaiseCswitchEvents(hyk_Portset *ps);

/*
 * "<prefix><value>" with value in decimal, NUL-terminated within len bytes;
 * HYK_NAME_TOO_LONG (buffer emptied) when it does not fit.
 */
hyk_Status lusFormatNameU32(char *buf, uint32_t len, const char *prefix, uint32_t value);

/* ---- portset upgrade, single-port upgrade, global configuration ---------------- */

/* Start function of the world "LUSPsUpgradeWorld"; data is a LusUpgradeCtx. */
hyk_Status LUSUpgradeWorld(void *data);
hyk_Status LUS_UpgradePort(uint32_t arg0, uint32_t portID, int8_t mode);
hyk_Status LUS_GlobalConfigSaveRestore(void);

/* ---- state save and restore (lus_state.cpp) ------------------------------------ */

extern hyk_NetEventHandle lusRestoreEventHandle;
extern hyk_NetEventHandle lusPortEnableEventHandle;

hyk_Status LUS_Subscribe(void);
void LUS_Unsubscribe(void);
hyk_Status lusRestoreEventCB(hyk_Portset *ps, const char *eventName, void *eventData,
                             uint32_t dataLen, void *cbData);
hyk_Status lusPortEventEnableCB(hyk_PortID portID, const char *eventName, void *cbData);
hyk_Status lusRestore(uint32_t portID, uint32_t restoreEvent);
hyk_Status lusRestoreV2T(hyk_Portset *ps, hyk_PortID portID, void *data);
hyk_Status lusRestoreV1(uint32_t portID);
hyk_Status LUS_RestoreDualLoad(hyk_Portset *ps, hyk_PortID portID, void *data);

/*
 * Optional tally of LUS_GetTotalSizeV1, handed in as the walk's data: the
 * records that announced state, and the bytes they announced.
 */
struct LusSizeTotals {
   uint32_t instances;
   uint32_t bytes;
};

/* Per-port visitors of the sizing and save walks (version 0, then version 1). */
hyk_Status LUS_GetTotalSize(hyk_Portset *ps, hyk_PortID portID, void *data);
hyk_Status LUS_GetTotalSizeV1(hyk_Portset *ps, hyk_PortID portID, void *data);
hyk_Status LUS_SaveState(hyk_Portset *ps, hyk_PortID portID, void *data);
hyk_Status LUS_SaveStateV1(hyk_Portset *ps, hyk_PortID portID, void *data);
hyk_Status LUS_GetSize(const char *portsetName);
hyk_Status LUS_SavePortset(const char *portsetName);
/* Single-port save of the filter upgrade: blocks, sizes and saves one port. */
void LUSPerPortUpgradeSave(LusPortInstV1 *port);

/* Save driver, restore driver and outage accounting (entry points of the
 * control device's commands 4, 5, 7, 11 and 12). */
hyk_Status LUS_Save(int8_t regFlag);
hyk_Status LUS_Restore(uint8_t legacyEdition);
hyk_Status LUS_PreDualLoad(void);
void LUS_StateCollectionComplete(void);
hyk_Status LUS_StateRestoreComplete(void);
void LUS_CheckOutage(uint32_t portID);

/* ---- portset and global state, upgrade world (lus_psstate.cpp, lus_upgrade.cpp) ---- */

/*
 * One client's global runtime state on lusGlobalState.  The buffer is the
 * client's own; the element (from lusHeapID_0) is ours.
 */
struct LusGlobalStateEntry {
   LusListLinks link;
   ClientEntry *client;
   void *buffer;
   uint32_t length; /* 0: nothing saved */
};
static_assert(sizeof(LusGlobalStateEntry) == 40, "global state element layout");

/* One old/new client pair of the portset under upgrade, on lusPsState.clients. */
struct LusPsClient {
   LusListLinks link;
   ClientEntry *fromClient;
   ClientEntry *toClient;
   void *buffer;    /* saved by fromClient, the client's own */
   uint32_t length; /* 0: nothing saved, or completed */
};
static_assert(sizeof(LusPsClient) == 48, "portset client record is 48 bytes");

/* The packet-filter alternate-VM property carried over by a single-port upgrade. */
#define LUS_PORT_PROP_PFILTER_ALT "com.corvid.common.port.pfilteraltkpx"

/* Global runtime state (exported; the configuration pass is declared above). */
void LUS_GlobalRuntimeComplete(uint32_t result);
void LUS_GlobalStateClientsDestroy(void);

/* Portset runtime state of the portset named in lusPsState (upgrade world). */
hyk_Status LUS_PsClientsInit(void);
hyk_Status LUS_PsRuntimeSave(hyk_Portset *ps);
hyk_Status LUS_PsRuntimeRestore(hyk_Portset *ps);
void LUS_PsRuntimeComplete(hyk_Portset *ps, uint32_t result);
void LUS_PsClientsDestroy(void);

/* Falls a portset whose class went to "nulldev" back to the stub switch. */
void lusSwaptoStubVswitch(hyk_Portset *ps, const char *psName, hyk_ModuleID stubModuleID);
/* Moves the packet-filter alternate-VM property of a port to `value` (none: cleared). */
hyk_Status LUSContainerFilterUpgrade(uint32_t portID, const void *value, uint32_t length);

HYK_EXTERN_C_END

#endif /* LUS_INT_H */
