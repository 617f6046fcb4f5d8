/*
 * lus.h -- what a datapath module needs to take part in a live upgrade.
 *
 * Clients never link against lus.  lus posts the registration event
 * ("com.corvid.tarn.lus.client", or "com.corvid.tarnj.lus.client" for the
 * legacy edition) whose payload is a LUSEventOps; a client answers from inside
 * the delivery by calling ops->registerFn.reg with its name and ClientInfo, and
 * keeps the ClientEntry handle it gets back for the unregistration event
 * (ops->unregister set), where it calls ops->registerFn.unreg(handle).
 *
 * lus copies the ClientInfo and keeps no pointer to it.  Every callback runs
 * with the client's own module ID pushed as the current module.
 */
#ifndef LUS_H
#define LUS_H

#include <stddef.h>
#include <stdint.h>

#include "hyk/hyk.h"
#include "tarn_hash_common.h"

#define LUS_CLIENT_EVENT "com.corvid.tarn.lus.client"
#define LUS_CLIENT_EVENT_LEGACY "com.corvid.tarnj.lus.client"

#define LUS_CLIENT_NAME_LEN 32
#define LUS_MAX_CLIENTS 24
#define LUS_UUID_LEN 133
#define LUS_MAX_INSTANCES 16384u

/* Registration types (the regType of LUS_Reg and of the registration event). */
enum : uint32_t {
   LUS_REG_FROM = 1,    /* from build, interface version 0 */
   LUS_REG_TO = 2,      /* to build, interface version 0 */
   LUS_REG_FROM_V1 = 3, /* from build, extended descriptor (version 1) */
   LUS_REG_TO_V1 = 4,   /* to build, extended descriptor, pull restore */
};

/* ClientEntry.clientType */
enum : uint32_t { LUS_CLIENT_FROM = 1, LUS_CLIENT_TO = 2 };

/* upgradePhase: where the client keeps its state. */
enum : uint32_t { LUS_PHASE_PORTSET = 0, LUS_PHASE_PORT = 1 };

/* Restore events a saved record waits for. */
enum : uint32_t {
   LUS_RESTORE_EVENT_UNBLOCK = 0x1,
   LUS_RESTORE_EVENT_ENABLE = 0x2,
   LUS_RESTORE_EVENT_BOTH = 0x3,
};

/* Result handed to the completion callbacks of the global and portset passes. */
enum : uint32_t { LUS_COMPLETE_SUCCESS = 1, LUS_COMPLETE_FAILURE = 2 };

struct ClientEntry;

/*
 * Callbacks.  `record` is the saved-state record of the client for the port:
 * a LusInstance for interface version 0, a LusClientInst for version 1.
 * `clientContext` points at ClientEntry.clientContext, the client's own word.
 */
typedef hyk_Status (*LusPrefetchFn)(void *record, uint32_t portID, uint64_t *clientContext);
typedef hyk_Status (*LusGetSizeFn)(void *record, uint32_t portID, uint64_t *stateLen,
                                   uint64_t *clientContext);
typedef hyk_Status (*LusGetRuntimeStateFn)(void *record, uint32_t portID, void *buffer,
                                           uint32_t length, uint32_t *stateLen,
                                           uint64_t *clientContext);
/* `flags` is always 0. */
typedef hyk_Status (*LusRuntimeRestoreFn)(void *record, uint32_t portID, void *buffer,
                                          uint32_t length, uint32_t flags);
/* `arg1` and `arg2` are always 0; the result is ignored. */
typedef hyk_Status (*LusStateCollectionCompleteFn)(ClientEntry *client, uint32_t arg1, void *arg2,
                                                   uint64_t *clientContext);
typedef hyk_Status (*LusPreDualLoadFn)(ClientEntry *client);
/* The buffer stays the client's: lus never frees it. */
typedef hyk_Status (*LusGlobalConfigSaveFn)(ClientEntry *fromClient, void **buffer,
                                            uint32_t *length, uint64_t *clientContext);
typedef hyk_Status (*LusGlobalConfigRestoreFn)(ClientEntry *toClient, void *buffer,
                                               uint32_t length);
typedef hyk_Status (*LusGlobalCompleteFn)(ClientEntry *fromClient, uint32_t result,
                                          uint64_t *clientContext);
typedef hyk_Status (*LusPsRuntimeSaveFn)(ClientEntry *fromClient, hyk_Portset *ps, void **buffer,
                                         uint32_t *length, uint64_t *clientContext);
typedef hyk_Status (*LusPsRuntimeRestoreFn)(ClientEntry *toClient, hyk_Portset *ps, void *buffer,
                                            uint32_t length);
typedef hyk_Status (*LusPsRuntimeCompleteFn)(ClientEntry *fromClient, hyk_Portset *ps,
                                             uint32_t result, uint64_t *clientContext);

/*
 * The twelve callback slots, in slot order.  Slots 0-4 are the basic
 * descriptor; slots 5-11 (and upgradePhase) the extended one, taken only from
 * registrations of type 3 and 4.  Any slot may be null.
 */
struct LusClientOps {
   LusPrefetchFn prefetch;                               /* 0 */
   LusGetSizeFn getSize;                                 /* 1 */
   LusGetRuntimeStateFn getRuntimeState;                 /* 2 */
   LusRuntimeRestoreFn runtimeRestore;                   /* 3 */
   LusStateCollectionCompleteFn stateCollectionComplete; /* 4 */
   LusPreDualLoadFn preDualLoadCB;                       /* 5 */
   LusGlobalConfigSaveFn globalConfigSave;               /* 6 */
   LusGlobalConfigRestoreFn globalConfigRestore;         /* 7 */
   LusGlobalCompleteFn globalComplete;                   /* 8 */
   LusPsRuntimeSaveFn psRuntimeSave;                     /* 9 */
   LusPsRuntimeRestoreFn psRuntimeRestore;               /* 10 */
   LusPsRuntimeCompleteFn psRuntimeComplete;             /* 11 */
};
static_assert(sizeof(LusClientOps) == 12 * sizeof(void *), "twelve callback slots");

#define LUS_BASIC_SLOTS 5

/* What a client hands over when it registers. */
struct ClientInfo {
   LusClientOps ops;
   uint32_t upgradePhase; /* LUS_PHASE_* */
};
static_assert(offsetof(ClientInfo, upgradePhase) == 96, "ClientInfo layout");

/* A registered client: a row of fromClients or toClients. */
struct ClientEntry {
   char clientName[LUS_CLIENT_NAME_LEN]; /* the key; first, so an entry reads as its name */
   /*
    * Always NUL: a name of 32 characters fills clientName without a
    * terminator, and every line that prints the name with %s stops here
    * instead of running on into moduleID.
    */
   char clientNameEnd;
   hyk_ModuleID moduleID;
   uint8_t inUse;
   uint64_t clientContext;
   LusClientOps ops;
   uint32_t upgradePhase;
   uint32_t clientType; /* LUS_CLIENT_* */
};
static_assert(offsetof(ClientEntry, clientNameEnd) == LUS_CLIENT_NAME_LEN, "ClientEntry layout");
static_assert(offsetof(ClientEntry, moduleID) == 36, "ClientEntry layout");
static_assert(offsetof(ClientEntry, clientContext) == 48, "ClientEntry layout");
static_assert(offsetof(ClientEntry, ops) == 56, "ClientEntry layout");
static_assert(sizeof(ClientEntry) == 160, "ClientEntry layout");

/*
 * Saved state of one client for one port, interface version 0, in
 * lusHashMap (keyed by the VM UUID; told apart by vNIC index and client).
 */
struct LusInstance {
   LusListLinks link;
   uint8_t hasState;
   /*
    * LUS_CLAIM_* bits, under lusMapLock: a thread that runs a client
    * callback on this record has claimed it, so that no other path frees it
    * meanwhile.  Lives in what was padding; the layout is unchanged.
    */
   uint8_t claim;
   uint8_t pad0[6];
   ClientEntry *toClient;
   ClientEntry *fromClient;
   uint64_t stateLen;
   void *state;
   hyk_HeapID stateHeap;
   hyk_PortID portID;
   char vmUUID[LUS_UUID_LEN];
   uint32_t vnicIndex;
   uint32_t requiredRestoreEvent;
};
static_assert(offsetof(LusInstance, hasState) == 16, "LusInstance layout");
static_assert(offsetof(LusInstance, toClient) == 24, "LusInstance layout");

/* Claim bits of a version 0 record. */
enum : uint8_t {
   LUS_CLAIM_BUSY = 0x1,     /* a callback on this record is under way */
   LUS_CLAIM_DETACHED = 0x2, /* a clear unlinked it meanwhile: the claimer frees it */
};
static_assert(offsetof(LusInstance, vmUUID) == 68, "LusInstance layout");
static_assert(sizeof(LusInstance) == 216, "the version 0 record is 216 bytes");

/* Saved state of one client for one port, interface version 1. */
struct LusClientInst {
   LusListLinks link; /* in LusPortInstV1.clients */
   uint64_t stateInfo;
   ClientEntry *toClient;
   ClientEntry *fromClient;
   uint64_t stateLen;
   void *state;
   hyk_HeapID stateHeap;
};
static_assert(sizeof(LusClientInst) == 64, "LusClientInst layout");

/* One port of interface version 1, keyed by port ID, with its clients' records. */
struct LusPortInstV1 {
   LusListLinks link;
   LusListLinks clients; /* LusClientInst, newest first */
   hyk_PortID portID;
   uint8_t valid;
};
static_assert(offsetof(LusPortInstV1, portID) == 32, "LusPortInstV1 layout");

/* Context of an enrolment walk (LUS_RegClientForPortV2 takes one too). */
struct LusRegContext {
   ClientEntry *fromEntry;
   ClientEntry *toEntry;  /* the to-build client of the same name, or null */
   uint32_t regType;      /* 1, 2 or 4 */
};

typedef hyk_Status (*LusClientRegisterFn)(hyk_ModuleID moduleID, char *name, ClientInfo *info,
                                          ClientEntry **handle);
typedef hyk_Status (*LusClientUnregisterFn)(ClientEntry *handle);
typedef ClientEntry *(*LusGetClientNameFn)(LusClientInst *record);
typedef void (*LusGetRestoreStateFn)(char *clientName, uint32_t portID);

/* Payload of the registration event. */
struct LUSEventOps {
   uint32_t mode;      /* 0: interface version 0 (types 1, 2); 1: version 1 (types 3, 4) */
   hyk_ModuleID moduleID;
   uint8_t unregister; /* 1: unregister with registerFn.unreg */
   union {
      LusClientRegisterFn reg;
      LusClientUnregisterFn unreg;
   } registerFn;
   LusGetClientNameFn getClientNameFn;
   uint32_t buildNumber; /* the build whose clients are asked to register */
   LusGetRestoreStateFn getRestoreStateFn; /* set by type-4 registrations */
};
static_assert(offsetof(LUSEventOps, registerFn) == 16, "LUSEventOps layout");
static_assert(offsetof(LUSEventOps, buildNumber) == 32, "LUSEventOps layout");
static_assert(sizeof(LUSEventOps) == 48, "LUSEventOps layout");

HYK_EXTERN_C_BEGIN

/* Entry points reached through the registration event. */
hyk_Status lus_ClientRegister(hyk_ModuleID moduleID, char *name, ClientInfo *info,
                              ClientEntry **handle);
hyk_Status lus_ClientUnregister(ClientEntry *handle);
ClientEntry *LUS_GetClientName(LusClientInst *record);
void lusGetRestoreState(char *clientName, uint32_t portID);

/* Exported for datapath modules. */
hyk_Status LUS_RegClientForPortV2(int32_t portID, LusRegContext *ctx, uint8_t isFromBuild);

HYK_EXTERN_C_END

#endif /* LUS_H */
