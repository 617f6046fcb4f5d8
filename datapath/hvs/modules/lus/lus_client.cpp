/*
 * lus_client.cpp -- the client registry and the port instance maps.
 *
 * Registry: the from-build and to-build client tables and the event-based
 * handshake that fills them.  lus never calls a client to find it; it posts
 * the registration event with its entry points, and each client registers
 * from inside the delivery.  currRegType says, during that delivery only,
 * which table a registration lands in.
 *
 * Port instance maps: per port (and per client) records that carry a
 * client's saved state from the save (lus_state) to the restore.  Version 0
 * records live in lusHashMap keyed by VM UUID; version 1 ports live in
 * lusHashMap (portset-phase clients) or lusPerPortHashMap (port-phase
 * clients), keyed by port ID, each with a list of per-client records.
 *
 * All records come from heap 0 and are freed to it; saved state buffers come
 * from heap 1 or 2 and are freed to the heap recorded beside them.
 */
#include "lus_int.h"

HYK_EXTERN_C_BEGIN

constinit ClientEntry fromClients[LUS_MAX_CLIENTS] = {};
constinit ClientEntry toClients[LUS_MAX_CLIENTS] = {};
constinit int32_t numFromClients = 0;
constinit int32_t numToClients = 0;
constinit uint32_t currRegType = 0;

/* One payload for every post, rewritten before each. */
constinit LUSEventOps lusEventOps = {};
constinit uint8_t lusTARNQRegistered = 0;
constinit uint8_t lusTARNJRegistered = 0;
/* Guarded by lusClientLock: read by the pull restore while a client runs. */
constinit uint8_t lusClientsUnregistered = 0;

constinit LusHashMap *lusHashMap = nullptr;
constinit LusHashMap *lusPerPortHashMap = nullptr;
constinit uint32_t numLUSInstances = 0;

HYK_EXTERN_C_END

#define LUS_DYNAMO_PORT "dynamoPort"
#define LUS_PORT_EXTERNAL_ID "com.corvid.port.extraConfig.vnic.external.id"
#define LUS_FABRIC_VERSION_EXTERNAL_ID 106u

/* ---- registration tables --------------------------------------------------------- */

/*
 * What a registration under regType (1..4) does, looked up by regType - 1:
 * the counter and table it fills, the clientType stored, and whether the
 * extended descriptor is copied.
 */
static int32_t *const lusRegCounter[4] = {&numFromClients, &numToClients, &numFromClients,
                                          &numToClients};
static ClientEntry *const lusRegTable[4] = {fromClients, toClients, fromClients, toClients};
static constexpr uint32_t lusRegClientType[4] = {LUS_CLIENT_FROM, LUS_CLIENT_TO, LUS_CLIENT_FROM,
                                                 LUS_CLIENT_TO};
static constexpr uint8_t lusRegExtended[4] = {0, 0, 1, 1};

int lusClientExists(const char *name, const ClientEntry *table, int32_t count)
{
   for (int32_t i = 0; i < count; i++) {
      if (lusStrNCmp(name, table[i].clientName, LUS_CLIENT_NAME_LEN) == 0) {
         return 1;
      }
   }
   return 0;
}

hyk_Status LUS_GetToClient(const char *name, uint32_t *index)
{
   if (numToClients < 1) {
      return HYK_NOT_FOUND;
   }
   for (int32_t i = 0; i < numToClients && i < LUS_MAX_CLIENTS; i++) {
      if (lusStrNCmp(name, toClients[i].clientName, LUS_CLIENT_NAME_LEN) == 0) {
         *index = (uint32_t)i;
         return HYK_OK;
      }
   }
   return HYK_NOT_FOUND;
}

/*
 * The table is filled at index `counter` and never compacted: all clients
 * answer one unregistration event together, so a table is emptied as a
 * whole.  A registration after a partial unregistration may land on an entry
 * still in use; that is the table's defined behaviour.
 */
static hyk_Status lusClientRTRegister(hyk_ModuleID moduleID, const char *name,
                                      const ClientInfo *info, ClientEntry **handle)
{
   if (currRegType < LUS_REG_FROM || currRegType > LUS_REG_TO_V1) {
      /* Only a registration event puts a client here; anything else is a programming fault. */
      LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_BAD_PARAM, "Invalid registration type %d : %s\n",
                     currRegType);
      LUS_NOT_REACHED();
   }

   const uint32_t idx = currRegType - 1;
   int32_t *counter = lusRegCounter[idx];
   ClientEntry *table = lusRegTable[idx];
   const uint32_t clientType = lusRegClientType[idx];

   /*
    * Rows are written under lusMapLock: restore events read the to-build
    * rows (names, callbacks, inUse) on other threads while a command
    * registers.
    */
   lusMapLockTake();
   const int32_t used = *counter;
   if (used > LUS_MAX_CLIENTS - 1) {
      lusMapLockDrop();
      LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_BAD_PARAM,
                     "Error: LUS Clients %d for type %d exceeds MAX clients supported : %s\n",
                     used, clientType);
      return HYK_BAD_PARAM;
   }

   /* Every entry below the counter, in use or not, holds a name that counts. */
   if (lusClientExists(name, table, used)) {
      lusMapLockDrop();
      LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_BAD_PARAM,
                     "Client %s has already registered before withregType %d : %s\n", name,
                     currRegType);
      return HYK_BAD_PARAM;
   }

   ClientEntry *entry = &table[used];
   entry->ops.prefetch = info->ops.prefetch;
   entry->ops.getSize = info->ops.getSize;
   entry->ops.getRuntimeState = info->ops.getRuntimeState;
   entry->ops.runtimeRestore = info->ops.runtimeRestore;
   entry->ops.stateCollectionComplete = info->ops.stateCollectionComplete;
   /*
    * Types 1 and 2 leave the extended slots as an earlier occupant of this
    * index left them; only clients of types 3 and 4 have theirs called.
    */
   if (lusRegExtended[idx]) {
      entry->ops.preDualLoadCB = info->ops.preDualLoadCB;
      entry->ops.globalConfigSave = info->ops.globalConfigSave;
      entry->ops.globalConfigRestore = info->ops.globalConfigRestore;
      entry->ops.globalComplete = info->ops.globalComplete;
      entry->ops.psRuntimeSave = info->ops.psRuntimeSave;
      entry->ops.psRuntimeRestore = info->ops.psRuntimeRestore;
      entry->ops.psRuntimeComplete = info->ops.psRuntimeComplete;
      entry->upgradePhase = info->upgradePhase;
   }
   lusStrNCpy(entry->clientName, name, LUS_CLIENT_NAME_LEN);
   entry->clientNameEnd = '\0';
   entry->moduleID = moduleID;
   __atomic_store_n(&entry->inUse, 1, __ATOMIC_RELAXED);
   entry->clientType = clientType;
   *handle = entry;
   (*counter)++;
   const int32_t nFrom = numFromClients;
   const int32_t nTo = numToClients;
   lusMapLockDrop();
   /* A registered client must not be unloaded under us. */
   hyk_ModuleIncUseCount(moduleID);

   LUS_LOG(LUS_LOG_INFO,
           "Successfully registered: client %s numFromClients %d numToClient %d regType %d\n",
           name, nFrom, nTo, currRegType);
   return HYK_OK;
}

hyk_Status lus_ClientRegister(hyk_ModuleID moduleID, char *name, ClientInfo *info,
                              ClientEntry **handle)
{
   if (handle == nullptr || info == nullptr || name == nullptr) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_BAD_PARAM, "Registration of client %s FAILED : %s\n",
                     name != nullptr ? name : "(null)");
      return HYK_BAD_PARAM;
   }

   hyk_Status status = lusClientRTRegister(moduleID, name, info, handle);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Client: %s Registration FAIL : %s\n", name);
   }
   return status;
}

static hyk_Status lusClientRTUnregister(ClientEntry *handle)
{
   lusMapLockTake();
   if (handle->inUse == 0) {
      lusMapLockDrop();
      LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_BAD_PARAM,
                     "Trying to unregister invalid client handle : %s\n");
      return HYK_BAD_PARAM;
   }

   __atomic_store_n(&handle->inUse, 0, __ATOMIC_RELAXED);
   const uint32_t clientType = handle->clientType;
   if (clientType == LUS_CLIENT_FROM) {
      numFromClients--;
   } else if (clientType == LUS_CLIENT_TO) {
      numToClients--;
   }
   const int32_t nFrom = numFromClients;
   const int32_t nTo = numToClients;
   const hyk_ModuleID moduleID = handle->moduleID;
   lusMapLockDrop();

   if (clientType != LUS_CLIENT_FROM && clientType != LUS_CLIENT_TO) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_BAD_PARAM,
                     "Trying to unregister invalid client of type %d : %s\n", clientType);
      return HYK_BAD_PARAM;
   }

   hyk_ModuleDecUseCount(moduleID);
   LUS_LOG(LUS_LOG_INFO,
           "Successfully unregistered: client %s numFromClients %d numToClients %d\n",
           handle->clientName, nFrom, nTo);
   return HYK_OK;
}

hyk_Status lus_ClientUnregister(ClientEntry *handle)
{
   if (handle == nullptr) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_BAD_PARAM, "Handle is NULL, cannot unregister : %s\n");
      return HYK_BAD_PARAM;
   }

   hyk_Status status = lusClientRTUnregister(handle);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Client Unregistration FAIL : %s\n");
   }
   return status;
}

ClientEntry *LUS_GetClientName(LusClientInst *record)
{
   if (record != nullptr) {
      if (record->fromClient != nullptr &&
          __atomic_load_n(&record->fromClient->inUse, __ATOMIC_RELAXED)) {
         return record->fromClient;
      }
      if (record->toClient != nullptr &&
          __atomic_load_n(&record->toClient->inUse, __ATOMIC_RELAXED)) {
         return record->toClient;
      }
   }
   LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_BAD_PARAM, "Failed to get client name : %s\n");
   return nullptr;
}

/* ---- registration API --------------------------------------------------------------- */

static bool lusMapHoldsV1(const LusHashMap *map);

/*
 * The maps are unpublished under both locks (the pull restore finds the
 * port-phase map under the read side, restore events find the portset-phase
 * map under lusMapLock) and freed after.
 */
void lusFreeHashMaps(void)
{
   /*
    * A map is emptied before it is freed: records enrolled after the
    * once-only clear ran would otherwise go with the map's memory, and a
    * record whose callback is under way must be detached, not freed.
    */
   LusHashMap *maps[2] = {lusHashMap, lusPerPortHashMap};
   for (LusHashMap *map : maps) {
      if (map != nullptr && TarnHash_Count(map) != 0) {
         hyk_RWSpinlockWriteLock(lusClientLock);
         LUS_HashEmpty(lusMapHoldsV1(map) ? 1 : 0, map);
         hyk_RWSpinlockWriteUnlock(lusClientLock);
      }
   }

   hyk_RWSpinlockWriteLock(lusClientLock);
   lusMapLockTake();
   LusHashMap *psMap = lusHashMap;
   LusHashMap *portMap = lusPerPortHashMap;
   lusHashMap = nullptr;
   lusPerPortHashMap = nullptr;
   lusMapLockDrop();
   hyk_RWSpinlockWriteUnlock(lusClientLock);

   if (psMap != nullptr) {
      LUS_Free(psMap->heap, psMap);
   }
   if (portMap != nullptr) {
      LUS_Free(portMap->heap, portMap);
   }
}

/*
 * Asks every client of one edition to register under regType, then makes
 * sure the maps and, for interface version 0, the restore triggers and the
 * enrolment of the listed portsets' ports follow.  A failed post or
 * enrolment undoes the whole registration.
 */
hyk_Status LUS_Reg(uint8_t legacyEdition, uint32_t regType)
{
   hyk_Status status;
   uint32_t mode;

   lusEventOps.unregister = 0;
   lusEventOps.moduleID = lusModID;

   switch (regType) {
   case LUS_REG_FROM:
      mode = 0;
      lusEventOps.buildNumber = fromBuild;
      break;
   case LUS_REG_TO:
      mode = 0;
      lusEventOps.buildNumber = toBuild;
      break;
   case LUS_REG_FROM_V1:
      mode = 1;
      lusEventOps.buildNumber = fromBuild;
      break;
   case LUS_REG_TO_V1:
      mode = 1;
      lusEventOps.buildNumber = toBuild;
      /* Never cleared: later posts carry it as well. */
      lusEventOps.getRestoreStateFn = lusGetRestoreState;
      break;
   default:
      LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_BAD_PARAM, "Invalid registration type : %s\n");
      currRegType = 0;
      return HYK_BAD_PARAM;
   }
   lusEventOps.mode = mode;

   currRegType = regType;
   lusEventOps.registerFn.reg = lus_ClientRegister;
   lusEventOps.getClientNameFn = LUS_GetClientName;

   /*
    * Clients register synchronously, from inside the post.  A post that
    * fails after some clients registered still marks the edition: the clear
    * (and the unload) withdraw registrations only of a marked edition, and
    * those clients hold use counts on their modules.
    */
   const int32_t before = numFromClients + numToClients;
   if (legacyEdition) {
      LUS_LOG(LUS_LOG_INFO, "TARNJ Registration detected, send TARNJ_LUS_CLIENT_REG_UNREG\n");
      status = hyk_NetEventPost(0, LUS_CLIENT_EVENT_LEGACY, &lusEventOps, sizeof(lusEventOps));
      if (status != HYK_OK) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, status,
                        "Error status from LUS Registration event for TARNJ : %s\n");
         if (numFromClients + numToClients != before) {
            __atomic_store_n(&lusTARNJRegistered, 1, __ATOMIC_RELAXED);
         }
         goto clearAndFree;
      }
      __atomic_store_n(&lusTARNJRegistered, 1, __ATOMIC_RELAXED);
   } else {
      LUS_LOG(LUS_LOG_INFO, "Posting reg event to all modules\n");
      status = hyk_NetEventPost(0, LUS_CLIENT_EVENT, &lusEventOps, sizeof(lusEventOps));
      if (status != HYK_OK) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Error status from LUS Registration event : %s\n");
         if (numFromClients + numToClients != before) {
            __atomic_store_n(&lusTARNQRegistered, 1, __ATOMIC_RELAXED);
         }
         goto clearAndFree;
      }
      __atomic_store_n(&lusTARNQRegistered, 1, __ATOMIC_RELAXED);
   }

   if ((regType == LUS_REG_FROM || regType == LUS_REG_FROM_V1) && lusHashMap == nullptr) {
      status = createLUSHash((int32_t)mode);
      if (status != HYK_OK) {
         goto freeMaps;
      }
      if (mode == 1) {
         /* Version 1 ports are enrolled one by one, by the upgrade of their portset. */
         currRegType = 0;
         return HYK_OK;
      }
      status = hyk_NetEventRegister(LUS_EVENT_PORT_UNBLOCK);
      if (status != HYK_OK) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Failed to register event %s : %s\n",
                        LUS_EVENT_PORT_UNBLOCK);
         goto freeMaps;
      }
      status = LUS_Subscribe();
      if (status != HYK_OK) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Error in subscribing to LUS events : %s\n");
         goto freeMaps;
      }
   }

   if (mode == 0) {
      status = LUS_ClientRegAll(regType);
      if (status != HYK_OK) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Registration FAILED : %s\n");
         goto clearAndFree;
      }
   }

   currRegType = 0;
   return HYK_OK;

clearAndFree:
   LUS_ClientClear(mode);
freeMaps:
   lusFreeHashMaps();
   currRegType = 0;
   return status;
}

hyk_Status LUS_Unreg(uint8_t legacyEdition)
{
   hyk_Status status;

   lusEventOps.unregister = 1;
   lusEventOps.moduleID = lusModID;
   lusEventOps.registerFn.unreg = lus_ClientUnregister;

   /* The pull restore reads this under the read lock while it runs a client. */
   hyk_RWSpinlockWriteLock(lusClientLock);
   lusClientsUnregistered = 1;
   hyk_RWSpinlockWriteUnlock(lusClientLock);

   status = hyk_NetEventPost(0, legacyEdition ? LUS_CLIENT_EVENT_LEGACY : LUS_CLIENT_EVENT,
                             &lusEventOps, sizeof(lusEventOps));
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Error status from LUS Unregistration event : %s\n");
      return status;
   }
   if (legacyEdition) {
      __atomic_store_n(&lusTARNJRegistered, 0, __ATOMIC_RELAXED);
   } else {
      __atomic_store_n(&lusTARNQRegistered, 0, __ATOMIC_RELAXED);
   }
   return HYK_OK;
}

/* ---- port instance maps --------------------------------------------------------------- */

static const char *lusRecordClientName(const ClientEntry *fromClient, const ClientEntry *toClient)
{
   if (fromClient != nullptr) {
      return fromClient->clientName;
   }
   if (toClient != nullptr) {
      return toClient->clientName;
   }
   return "";
}

static bool lusRecordIsClient(const ClientEntry *fromClient, const ClientEntry *toClient,
                              const char *name)
{
   return (fromClient != nullptr &&
           lusStrNCmp(name, fromClient->clientName, LUS_CLIENT_NAME_LEN) == 0) ||
          (toClient != nullptr && lusStrNCmp(name, toClient->clientName, LUS_CLIENT_NAME_LEN) == 0);
}

/*
 * Version 0 maps are keyed by the VM UUID string; version 1 maps by the
 * 4-byte port ID.
 */
static void lusInitMap(LusHashMap *map, int32_t version)
{
   if (version == 0) {
      TarnHash_Init(map, lusHeapID_0, LUS_UUID_LEN, offsetof(LusInstance, vmUUID),
                    TARN_HASH_KEY_STRING);
   } else {
      TarnHash_Init(map, lusHeapID_0, sizeof(hyk_PortID), offsetof(LusPortInstV1, portID),
                    TARN_HASH_KEY_BYTES);
   }
}

static bool lusMapHoldsV1(const LusHashMap *map)
{
   return map->keyLen == sizeof(hyk_PortID);
}

/* A map is published (under lusMapLock) only once it is whole. */
static void lusPublishMap(LusHashMap **slot, LusHashMap *map)
{
   lusMapLockTake();
   *slot = map;
   lusMapLockDrop();
}

hyk_Status createLUSHash(int32_t version)
{
   LUS_LOG(LUS_LOG_INFO, "Creating LUS Hash with version %d\n", version);

   LusHashMap *map = static_cast<LusHashMap *>(LUS_AllocFromHeap(lusHeapID_0, TARN_HASH_ALLOC_SIZE));
   if (map == nullptr) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_NO_MEMORY, "Failed to create portset phase hash table : %s\n");
      return HYK_NO_MEMORY;
   }
   lusInitMap(map, version);
   lusPublishMap(&lusHashMap, map);
   if (version < 1) {
      return HYK_OK;
   }

   /* The caller frees the portset-phase map too when this one fails. */
   map = static_cast<LusHashMap *>(LUS_AllocFromHeap(lusHeapID_0, TARN_HASH_ALLOC_SIZE));
   if (map == nullptr) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_NO_MEMORY, "Failed to create port phase hash table : %s\n");
      return HYK_NO_MEMORY;
   }
   lusInitMap(map, version);
   lusPublishMap(&lusPerPortHashMap, map);
   return HYK_OK;
}

/*
 * A session can register clients of both interface versions (commands 0/1
 * make a version 0 map, commands 2/3 expect version 1 records).  Records of
 * one version must never be read as the other's, so every access checks the
 * map's layout before it looks inside, and an insertion into a map of the
 * other version is refused.
 */
static bool lusMapVersionMismatch(const LusHashMap *map, bool wantV1)
{
   if (map == nullptr || lusMapHoldsV1(map) == wantV1) {
      return false;
   }
   LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_BAD_PARAM,
                  "LUS hash map holds records of interface version %d, not %d : %s\n",
                  wantV1 ? 0 : 1, wantV1 ? 1 : 0);
   return true;
}

/*
 * A version 1 port's records are worked on only by a thread that holds the
 * port's portset exclusively (the upgrade world, the pull restore, the
 * single-port upgrade), and the port is removed only by the registry's
 * owner or by a clear that excludes the pull restore; so the instance found
 * here stays valid for its finder.  The chain walk itself is a map
 * operation and runs under lusMapLock.
 */
LusPortInstV1 *lusLookupPortV1(LusHashMap *map, uint32_t portID)
{
   if (map == nullptr || !lusMapHoldsV1(map)) {
      return nullptr;
   }
   lusMapLockTake();
   LusPortInstV1 *port = reinterpret_cast<LusPortInstV1 *>(TarnHash_Lookup(map, &portID));
   lusMapLockDrop();
   return port;
}

LusClientInst *lusFindInstanceV1(LusPortInstV1 *instance, const char *name)
{
   for (LusListLinks *e = instance->clients.next; e != &instance->clients; e = e->next) {
      LusClientInst *rec = reinterpret_cast<LusClientInst *>(e);
      if (lusRecordIsClient(rec->fromClient, rec->toClient, name)) {
         return rec;
      }
   }
   return nullptr;
}

LusClientInst *LUS_FindMatchingInstanceV1(uint32_t portID, const char *name, uint32_t upgradePhase)
{
   LusHashMap *map = upgradePhase != 0 ? lusPerPortHashMap : lusHashMap;
   LusPortInstV1 *instance = lusLookupPortV1(map, portID);
   if (instance == nullptr) {
      LUS_LOG(LUS_LOG_VERBOSE, "Port %d (0x%x) not found in Hash\n", portID, portID);
      return nullptr;
   }
   return lusFindInstanceV1(instance, name);
}

/*
 * Counts the new port instance in numLUSInstances, as version 0 records are
 * counted, so that removing the port (which decrements it) leaves the
 * counter where it was before the port was enrolled.
 */
LusClientInst *lusClientInstInitV1(uint32_t portID, LusRegContext *ctx, ClientEntry **client,
                                   uint32_t upgradePhase)
{
   LusHashMap *map = upgradePhase != 0 ? lusPerPortHashMap : lusHashMap;
   if (map == nullptr) {
      /* No version 1 registration made the maps; the caller reports. */
      return nullptr;
   }
   if (lusMapVersionMismatch(map, true)) {
      return nullptr;
   }

   LusClientInst *rec =
      static_cast<LusClientInst *>(LUS_AllocFromHeap(lusHeapID_0, sizeof(LusClientInst)));
   if (rec == nullptr) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_NO_MEMORY, "LUS Client Mem Alloc failed : %s\n");
      return nullptr;
   }
   __builtin_memset(rec, 0, sizeof(*rec));
   rec->fromClient = ctx->fromEntry;
   rec->toClient = *client;
   const char *name = lusRecordClientName(rec->fromClient, rec->toClient);

   LUS_LOG(LUS_LOG_INFO, "upgrade phase: %s\n", upgradePhase != 0 ? "PORT" : "PORTSET");

   LusPortInstV1 *instance = lusLookupPortV1(map, portID);
   if (instance != nullptr) {
      LusList_InsertHead(&instance->clients, &rec->link);
   } else {
      instance = static_cast<LusPortInstV1 *>(LUS_AllocFromHeap(lusHeapID_0, sizeof(LusPortInstV1)));
      if (instance == nullptr) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_NO_MEMORY, "LUS Port Mem Alloc failed : %s\n");
         LUS_Free(lusHeapID_0, rec);
         return nullptr;
      }
      __builtin_memset(instance, 0, sizeof(*instance));
      instance->valid = 1;
      instance->portID = portID;
      LusList_Init(&instance->clients);
      LusList_InsertHead(&instance->clients, &rec->link);
      lusMapLockTake();
      TarnHash_Insert(map, &instance->link);
      lusMapLockDrop();
      __atomic_fetch_add(&numLUSInstances, 1u, __ATOMIC_RELAXED);
      if (map == lusPerPortHashMap) {
         LUS_LOG(LUS_LOG_INFO, "port %u client %s added in lus per port hash map\n", portID, name);
      }
   }

   LUS_LOG(LUS_LOG_VERBOSE, "Client Instance created for port: %d, client %s \n", portID, name);
   return rec;
}

/*
 * A record's fields a lookup reads lie on three cache lines of its 216
 * bytes (the links and clients, vmUUID from offset 68, vnicIndex at 204),
 * and by the time a phase of the upgrade comes back to a record the state
 * buffers streaming through have evicted it.  Asking for the three lines at
 * once lets their misses overlap instead of following one another.
 */
static inline void lusPrefetchRecordV0(const LusInstance *rec)
{
   __builtin_prefetch(rec);
   __builtin_prefetch(reinterpret_cast<const char *>(rec) + offsetof(LusInstance, vmUUID));
   __builtin_prefetch(&rec->vnicIndex);
}

/*
 * The version 0 lookup: the first record, in bucket order, whose UUID and
 * vNIC index are the given ones (and whose client has the given name, when
 * one is given).  Walking every one of the 16,384 buckets would find it too.
 * Every record of one UUID hashes to one bucket (the key is the UUID), so
 * the first match of that walk is the first match in that bucket's chain,
 * which keeps insertion order: we walk that bucket alone, with the same
 * result and a cost that does not grow with the map (the full walk stays in
 * the tests as the reference of a differential test).  The caller holds
 * lusMapLock.
 */
LusInstance *lusScanV0(const char *uuid, uint32_t vnicIndex, const char *name)
{
   if (lusHashMap == nullptr || lusMapHoldsV1(lusHashMap)) {
      return nullptr;
   }
   LusListLinks *chain = &TarnHash_BucketOfKey(lusHashMap, uuid)->chain;
   for (LusListLinks *e = chain->next; e != chain; e = e->next) {
      LusInstance *rec = reinterpret_cast<LusInstance *>(e);
      lusPrefetchRecordV0(rec);
      if (rec->vnicIndex != vnicIndex || lusStrNCmp(rec->vmUUID, uuid, LUS_UUID_LEN) != 0) {
         continue;
      }
      if (name == nullptr || lusRecordIsClient(rec->fromClient, rec->toClient, name)) {
         return rec;
      }
   }
   return nullptr;
}

/*
 * Whether some record of this port is claimed by a restore under way, or was
 * due (no restore event left to wait for) but still holds its state: a
 * callback failed on it.  Either way the port must stay blocked for now; the
 * restore under way decides when it ends.  The caller holds lusMapLock.
 */
bool lusPortHasUnfinishedV0(const char *uuid, uint32_t vnicIndex)
{
   if (lusHashMap == nullptr || lusMapHoldsV1(lusHashMap)) {
      return false;
   }
   LusListLinks *chain = &TarnHash_BucketOfKey(lusHashMap, uuid)->chain;
   for (LusListLinks *e = chain->next; e != chain; e = e->next) {
      const LusInstance *rec = reinterpret_cast<const LusInstance *>(e);
      if (rec->vnicIndex != vnicIndex || lusStrNCmp(rec->vmUUID, uuid, LUS_UUID_LEN) != 0) {
         continue;
      }
      if ((rec->claim & LUS_CLAIM_BUSY) != 0) {
         return true;
      }
      if (rec->requiredRestoreEvent == 0 && rec->state != nullptr && rec->stateLen != 0) {
         return true;
      }
   }
   return false;
}

/*
 * The exported lookups answer whether a record exists; a caller that goes on
 * to use the record claims it instead (lusClaimV0), since a restore event
 * may free it the moment the lock is let go.
 */
LusInstance *LUS_FindMatchingInstance(const char *uuid, uint32_t vnicIndex, const char *name)
{
   lusMapLockTake();
   LusInstance *rec = lusScanV0(uuid, vnicIndex, name);
   lusMapLockDrop();
   return rec;
}

LusInstance *LUS_CheckPortInHash(const char *uuid, uint32_t vnicIndex)
{
   lusMapLockTake();
   LusInstance *rec = lusScanV0(uuid, vnicIndex, nullptr);
   lusMapLockDrop();
   return rec;
}

LusInstance *lusClaimV0(const char *uuid, uint32_t vnicIndex, const char *name, bool *busy)
{
   lusMapLockTake();
   LusInstance *rec = lusScanV0(uuid, vnicIndex, name);
   if (rec != nullptr && (rec->claim & LUS_CLAIM_BUSY) != 0) {
      *busy = true;
      rec = nullptr;
   } else if (rec != nullptr) {
      rec->claim = LUS_CLAIM_BUSY;
   }
   lusMapLockDrop();
   return rec;
}

bool lusReleaseV0(LusInstance *record)
{
   lusMapLockTake();
   const bool detached = (record->claim & LUS_CLAIM_DETACHED) != 0;
   record->claim = 0;
   lusMapLockDrop();
   return detached;
}

void lusForgetStateV0(LusInstance *record)
{
   if (record->state != nullptr) {
      LUS_Free(record->stateHeap, record->state);
      record->state = nullptr;
   }
}

void lusForgetStateV1(LusClientInst *record)
{
   void *state = __atomic_load_n(&record->state, __ATOMIC_RELAXED);
   if (state != nullptr) {
      LUS_Free(record->stateHeap, state);
      __atomic_store_n(&record->state, nullptr, __ATOMIC_RELAXED);
   }
}

void lusFreeDetachedV0(LusInstance *record)
{
   lusForgetStateV0(record);
   LUS_Free(lusHeapID_0, record);
}

hyk_Status lusGetUUIDVNIC(hyk_PortID port, char *uuid, uint32_t *vnicIndex)
{
   hyk_Status status;
   hyk_VNICHandle vnic = 0;

   status = hyk_PortGetVMUUID(port, uuid, LUS_UUID_LEN);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Failed getting VM UUID : %s\n");
      return status;
   }
   status = hyk_VNICHandleGet(port, &vnic);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Failed getting VNIC handle : %s\n");
      return status;
   }
   status = hyk_VNICIndexGet(vnic, vnicIndex);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Failed getting vnic index : %s\n");
      return status;
   }
   return HYK_OK;
}

/* ---- enrolment ------------------------------------------------------------------------------ */

/*
 * Visitor of hyk_PortsetForAllPorts: enrols one port for the client in the
 * context.  Only VM vNIC ports (and, for the per-port map, container ports)
 * carry client state.
 */
hyk_Status lusRegForAllPorts(hyk_Portset *ps, hyk_PortID portID, void *data)
{
   LusRegContext *ctx = static_cast<LusRegContext *>(data);
   hyk_Status status;
   uint32_t clientType = 0;
   char uuid[LUS_UUID_LEN] = {};
   uint32_t vnicIndex = 0;

   status = hyk_PortGetClientType(portID, &clientType);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Cannot determine Client Type for portID %d : %s\n",
                     portID);
      return status;
   }
   if (clientType != HYK_PORT_CLIENT_VNIC && clientType != HYK_PORT_CLIENT_CONTAINER) {
      return HYK_OK;
   }
   if (clientType == HYK_PORT_CLIENT_CONTAINER &&
       (ctx->regType == LUS_REG_FROM || ctx->regType == LUS_REG_TO)) {
      return HYK_OK;
   }

   if (clientType == HYK_PORT_CLIENT_VNIC) {
      char fabricPortID[HYK_FABRIC_PORT_ID_LEN] = {};
      if (hyk_PortLookupFabricPortID(portID, fabricPortID, sizeof(fabricPortID)) == HYK_OK &&
          lusStrNCmp(fabricPortID, LUS_DYNAMO_PORT, sizeof(fabricPortID)) == 0) {
         LUS_LOG(LUS_LOG_INFO, "Skip port registration for dynamo port, id %u fabricportID %s\n",
                 portID, fabricPortID);
         return HYK_OK;
      }
      status = lusGetUUIDVNIC(portID, uuid, &vnicIndex);
      if (status != HYK_OK) {
         return status;
      }
   }

   switch (ctx->regType) {
   case LUS_REG_FROM: {
      const char *name = ctx->fromEntry->clientName;

      if (LUS_FindMatchingInstance(uuid, vnicIndex, name) != nullptr) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_FAILURE,
                        "Duplicate registration attempted for client %s with type %d : %s\n", name,
                        ctx->regType);
         return HYK_FAILURE;
      }
      if (lusMapVersionMismatch(lusHashMap, false)) {
         return HYK_BAD_PARAM;
      }
      if (__atomic_load_n(&numLUSInstances, __ATOMIC_RELAXED) == LUS_MAX_INSTANCES) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_FAILURE, "Cannot insert any more LUS instances : %s\n");
         return HYK_FAILURE;
      }
      LusInstance *rec = static_cast<LusInstance *>(LUS_AllocFromHeap(lusHeapID_0, sizeof(LusInstance)));
      if (rec == nullptr) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_NO_MEMORY, "LUS Mem Alloc failed : %s\n");
         return HYK_FAILURE;
      }
      __builtin_memset(rec, 0, sizeof(*rec));
      rec->toClient = ctx->toEntry;
      rec->fromClient = ctx->fromEntry;
      rec->stateLen = 0;
      rec->state = nullptr;
      rec->stateHeap = lusHeapID_0;
      rec->portID = portID;
      lusStrNCpy(rec->vmUUID, uuid, LUS_UUID_LEN);
      rec->vmUUID[LUS_UUID_LEN - 1] = '\0';
      rec->vnicIndex = vnicIndex;
      /* A legacy-edition datapath also raises the port-enable event; wait for both. */
      rec->requiredRestoreEvent = __atomic_load_n(&lusTARNJRegistered, __ATOMIC_RELAXED)
                                     ? LUS_RESTORE_EVENT_BOTH
                                     : LUS_RESTORE_EVENT_UNBLOCK;

      lusMapLockTake();
      TarnHash_Insert(lusHashMap, &rec->link);
      lusMapLockDrop();
      LUS_LOG(LUS_LOG_INFO, "Client Instance created for VM UUID: %s vnic: %d port: 0x%x Client %s\n",
              rec->vmUUID, vnicIndex, portID, name);
      uint32_t n = __atomic_add_fetch(&numLUSInstances, 1u, __ATOMIC_RELAXED);
      LUS_LOG(LUS_LOG_INFO, "numLUSInstances %d\n", n);
      return HYK_OK;
   }
   case LUS_REG_TO: {
      const char *name = ctx->fromEntry->clientName;
      /* Matched under the lock: a restore event may be reading the record. */
      lusMapLockTake();
      LusInstance *rec = lusScanV0(uuid, vnicIndex, name);
      if (rec != nullptr) {
         rec->toClient = ctx->toEntry;
      }
      lusMapLockDrop();
      if (rec != nullptr) {
         LUS_LOG(LUS_LOG_INFO, "Matched VM UUID: %s vNic: %d for portID %d (0x%x), client %s\n",
                 uuid, vnicIndex, portID, portID, name);
      } else {
         LUS_LOG_STATUS(LUS_LOG_INFO, HYK_NOT_FOUND,
                        "Restore registration for client %s as client not register during save : %s\n",
                        name);
      }
      return HYK_OK;
   }
   case LUS_REG_TO_V1: {
      uint32_t version = 0;
      ClientEntry *from = ctx->fromEntry;
      ClientEntry *to = ctx->toEntry;

      status = hyk_PortsetLookupFabricVersion(ps, &version);
      if (status != HYK_OK) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Failed to get fabric version for ps %s : %s\n",
                        hyk_PortsetName(ps));
         return status;
      }
      if (version > LUS_FABRIC_VERSION_EXTERNAL_ID) {
         uint8_t isLSPG = 0;
         status = hyk_FabricPortFlagIsSet(portID, HYK_FABRIC_PORT_FLAG_LSPG, &isLSPG);
         if (status != HYK_OK) {
            LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Failed to get LSPG flag for port %d : %s\n", portID);
            return status;
         }
         if (!isLSPG) {
            void *value = nullptr;
            uint32_t len = 0;
            if (hyk_FabricPortDataGet(portID, LUS_PORT_EXTERNAL_ID, &value, &len) == HYK_OK &&
                value != nullptr) {
               uint32_t n = len < LUS_UUID_LEN - 1 ? len : LUS_UUID_LEN - 1;
               __builtin_memcpy(uuid, value, n);
               uuid[n] = '\0';
            }
         }
      }

      if (LUS_FindMatchingInstanceV1(portID, from->clientName, from->upgradePhase) != nullptr) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_FAILURE,
                        "Duplicate registration attempted for port %d client %s with type %d : %s\n",
                        portID, from->clientName, ctx->regType);
         return HYK_FAILURE;
      }

      if (from->ops.getSize != nullptr && from->ops.getRuntimeState != nullptr && to != nullptr &&
          to->ops.runtimeRestore != nullptr) {
         ClientEntry *toEntry = to;
         if (lusClientInstInitV1(portID, ctx, &toEntry, from->upgradePhase) == nullptr) {
            return HYK_FAILURE;
         }
      } else {
         LUS_LOG(LUS_LOG_INFO, "No Save/Restore CB registered for client %s Skip registration on port %d\n",
                 from->clientName, portID);
      }
      return HYK_OK;
   }
   default:
      LUS_NOT_REACHED();
      LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_FAILURE, "LUS registration type invalid : %s\n");
      return HYK_FAILURE;
   }
}

/*
 * Enrols the registered clients on every port of every listed portset
 * (interface version 0).  From-build enrolment (1) makes a record per port
 * for each client that has a to-build twin able to restore; to-build
 * matching (2) attaches the to-build twins to the records saved earlier.
 */
hyk_Status LUS_ClientRegAll(uint32_t regType)
{
   hyk_Status status;

   if (numPortsets == 0) {
      return HYK_OK;
   }

   /* numPortsets keeps a rejected caller count; never index past the table. */
   for (uint32_t i = 0; i < numPortsets && i < LUS_MAX_PORTSETS; i++) {
      hyk_Portset *ps = nullptr;
      status = hyk_PortsetAcquireByName(lusPortset[i], HYK_PORTSET_ACCESS_EXCL, &ps);
      if (status != HYK_OK) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, status, "REG: Error acquiring portset %s : %s\n",
                        lusPortset[i]);
         return status;
      }

      /* The rows walked are fromClients' whatever the type; only the count differs. */
      int32_t count = currRegType == LUS_REG_TO ? numToClients : numFromClients;
      for (int32_t j = 0; j < count && j < LUS_MAX_CLIENTS; j++) {
         ClientEntry *from = &fromClients[j];
         LusRegContext ctx = {from, nullptr, regType};
         uint32_t toIdx = 0;

         if (regType == LUS_REG_FROM) {
            if (LUS_GetToClient(from->clientName, &toIdx) != HYK_OK) {
               LUS_LOG(LUS_LOG_INFO, "Client %s registered to LUS in from Build only\n",
                       from->clientName);
               continue;
            }
            ClientEntry *to = &toClients[toIdx];
            if (to->ops.runtimeRestore == nullptr || from->ops.getRuntimeState == nullptr) {
               LUS_LOG(LUS_LOG_VERBOSE,
                       "Skipping port client init for client %s as it registered no save/restore callback.\n",
                       from->clientName);
               continue;
            }
            ctx.toEntry = to;
         } else if (regType == LUS_REG_TO) {
            if (from->ops.getRuntimeState == nullptr) {
               LUS_LOG(LUS_LOG_INFO,
                       "Skipping port client init for client %s as it registered no save callback.\n",
                       from->clientName);
               continue;
            }
            if (LUS_GetToClient(from->clientName, &toIdx) == HYK_OK) {
               ctx.toEntry = &toClients[toIdx];
            }
         } else {
            LUS_NOT_REACHED();
            hyk_PortsetRelease(&ps);
            LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_FAILURE, "LUS registration type invalid : %s\n");
            return HYK_FAILURE;
         }

         status = hyk_PortsetForAllPorts(ps, lusRegForAllPorts, &ctx);
         if (status != HYK_OK) {
            LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Client: %s Registration FAIL : %s\n",
                           from->clientName);
            hyk_PortsetRelease(&ps);
            return status;
         }
      }
      hyk_PortsetRelease(&ps);
   }
   return HYK_OK;
}

/* Enrols the clients able to save and restore on one portset's ports (version 1). */
hyk_Status LUS_ClientRegAllPS(const char *portsetName)
{
   hyk_Status status;
   hyk_Portset *ps = nullptr;

   status = hyk_PortsetAcquireByName(portsetName, HYK_PORTSET_ACCESS_EXCL, &ps);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "RegAllPS: Error acquiring portset %s : %s\n",
                     portsetName);
      return status;
   }

   for (int32_t i = 0; i < numFromClients && i < LUS_MAX_CLIENTS; i++) {
      ClientEntry *from = &fromClients[i];
      uint32_t toIdx = 0;
      if (LUS_GetToClient(from->clientName, &toIdx) != HYK_OK) {
         continue;
      }
      ClientEntry *to = &toClients[toIdx];
      if (to->ops.runtimeRestore == nullptr || from->ops.getRuntimeState == nullptr) {
         continue;
      }
      LusRegContext ctx = {from, to, LUS_REG_TO_V1};
      status = hyk_PortsetForAllPorts(ps, lusRegForAllPorts, &ctx);
      if (status != HYK_OK) {
         break;
      }
   }

   hyk_PortsetRelease(&ps);
   return status;
}

hyk_Status LUS_RegClientForPortV2(int32_t portID, LusRegContext *ctx, uint8_t isFromBuild)
{
   if (ctx == nullptr) {
      return HYK_BAD_PARAM;
   }
   ClientEntry *client = isFromBuild ? ctx->fromEntry : ctx->toEntry;
   if (client == nullptr) {
      return HYK_BAD_PARAM;
   }
   const uint32_t port = (uint32_t)portID;
   uint32_t clientType = 0;

   LUS_LOG(LUS_LOG_INFO, "LUS_RegClientForPortV2 for portID %d (0x%x), client: %s\n", portID,
           port, client->clientName);
   hyk_PortGetClientType(port, &clientType);
   LUS_LOG(LUS_LOG_INFO, "clientType: %d \n", clientType);

   /* Single ports keep their state with the portset phase. */
   client->upgradePhase = LUS_PHASE_PORTSET;
   if (LUS_FindMatchingInstanceV1(port, client->clientName, LUS_PHASE_PORTSET) != nullptr) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_FAILURE,
                     "Duplicate registration attempted for port %#x, client %s, with regType %d : %s\n",
                     port, client->clientName, ctx->regType);
      return HYK_FAILURE;
   }

   if (isFromBuild) {
      if (!(client->ops.getSize != nullptr && client->ops.getRuntimeState != nullptr) &&
          client->ops.preDualLoadCB == nullptr) {
         LUS_LOG(LUS_LOG_INFO,
                 "No state save/clear CB registered for client %s. Skip registration on port %d\n",
                 client->clientName, portID);
         return HYK_OK;
      }
   } else if (client->ops.runtimeRestore == nullptr) {
      LUS_LOG(LUS_LOG_INFO,
              "No state restore CB registered for client %s. Skip registration on port %d\n",
              client->clientName, portID);
      return HYK_OK;
   }

   ClientEntry *toEntry = ctx->toEntry;
   LusClientInst *rec = lusClientInstInitV1(port, ctx, &toEntry, LUS_PHASE_PORTSET);
   if (rec == nullptr) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_FAILURE,
                     "lusClientInstInitV1 failed for port %#x, client %s, with type %d : %s\n",
                     port, client->clientName, ctx->regType);
      return HYK_FAILURE;
   }
   if (!isFromBuild) {
      rec->stateInfo = 1;
   }
   return HYK_OK;
}

/* ---- removal ----------------------------------------------------------------------------------- */

/* Takes a version 0 record out of its bucket; the caller holds lusMapLock. */
static void lusUnlinkV0(LusHashMap *map, LusInstance *record)
{
   LusHashBucket *bucket = TarnHash_BucketOfKey(map, TarnHash_EntryKey(map, &record->link));
   TarnHash_RemoveFromBucket(map, bucket, &record->link);
}

/* The rest of a removal, once the record is out of the map. */
static void lusReportClearedV0(const LusInstance *record)
{
   uint32_t n = __atomic_sub_fetch(&numLUSInstances, 1u, __ATOMIC_RELAXED);
   LUS_LOG_AS("lusDeleteEntry", LUS_LOG_INFO, "Client entry cleared: portID: 0x%x client: %s\n",
              record->portID, lusRecordClientName(record->fromClient, record->toClient));
   LUS_LOG_AS("lusDeleteEntry", LUS_LOG_INFO, "numLUSInstances %d\n", n);
}

void lusDeleteEntryUnlinked(LusInstance *record)
{
   lusReportClearedV0(record);
   if (record->state != nullptr && record->stateLen != 0) {
      /* Removed with its state still here: no new client will ever get it. */
      LUS_LOG_AS("lusDeleteEntry", LUS_LOG_INFO,
                 "Dropped saved state of port 0x%x client %s: %lu bytes never restored\n",
                 record->portID, lusRecordClientName(record->fromClient, record->toClient),
                 (unsigned long)record->stateLen);
   }
   if (record->stateHeap != 0 && record->state != nullptr) {
      LUS_Free(record->stateHeap, record->state);
   }
   LUS_Free(lusHeapID_0, record);
}

/*
 * Removes one version 0 record.  The caller has the record to itself: it
 * holds the claim on it, or is the registry's owner on a path no restore
 * event reaches.
 */
void lusDeleteEntry(LusHashMap *map, LusInstance *record)
{
   lusMapLockTake();
   lusUnlinkV0(map, record);
   lusMapLockDrop();
   lusDeleteEntryUnlinked(record);
}

/* Frees a version 1 port that is already out of its map, with every client record. */
static void lusFreePortV1(LusPortInstV1 *instance)
{
   const uint32_t portID = instance->portID;

   LusListLinks *e = instance->clients.next;
   while (e != &instance->clients) {
      LusListLinks *next = e->next;
      LusClientInst *rec = reinterpret_cast<LusClientInst *>(e);
      LusList_Remove(e);
      if (rec->state != nullptr && rec->stateLen != 0) {
         LUS_LOG_AS("lusDeleteEntryV1", LUS_LOG_INFO,
                    "Dropped saved state of port 0x%x client %s: %lu bytes never restored\n",
                    portID, lusRecordClientName(rec->fromClient, rec->toClient),
                    (unsigned long)rec->stateLen);
      }
      if (rec->stateHeap != 0) {
         LUS_Free(rec->stateHeap, rec->state);
      }
      if (rec->stateHeap == 0 || (rec->state != nullptr && rec->stateHeap == 0)) {
         LUS_LOG_STATUS_AS("lusDeleteEntryV1", LUS_LOG_ERROR, HYK_NO_DATA,
                        "Client %s with no state present in clientList : %s\n",
                        lusRecordClientName(rec->fromClient, rec->toClient));
      }
      LUS_Free(lusHeapID_0, rec);
      e = next;
   }

   if (!LusList_IsEmpty(&instance->clients)) {
      LUS_LOG_STATUS_AS("lusDeleteEntryV1", LUS_LOG_ERROR, HYK_FAILURE, "Clearing port %d clientList FAILED : %s\n",
                     portID);
   } else {
      LUS_LOG_AS("lusDeleteEntryV1", LUS_LOG_VERBOSE, "Client list successfully emptied for port %d\n", portID);
   }
   LUS_LOG_AS("lusDeleteEntryV1", LUS_LOG_VERBOSE, "Deleting Port %d (0x%x) in Hash\n", portID, portID);
}

static void lusFinishDeletePortV1(LusPortInstV1 *instance)
{
   const uint32_t portID = instance->portID;
   __atomic_fetch_sub(&numLUSInstances, 1u, __ATOMIC_RELAXED);
   LUS_Free(lusHeapID_0, instance);
   LUS_LOG_AS("lusDeleteEntryV1", LUS_LOG_VERBOSE, "SUCCESS: Port %d entry in Hash Map deleted.\n", portID);
}

/* Takes the instance out of its bucket if it is there; the caller holds lusMapLock. */
static bool lusUnlinkPortV1(LusHashMap *map, LusPortInstV1 *instance)
{
   LusHashBucket *bucket = TarnHash_BucketOfKey(map, &instance->portID);
   for (LusListLinks *c = bucket->chain.next; c != &bucket->chain; c = c->next) {
      if (c == &instance->link) {
         TarnHash_RemoveFromBucket(map, bucket, c);
         return true;
      }
   }
   return false;
}

void lusDeleteEntryV1(LusHashMap *map, LusPortInstV1 *instance)
{
   lusFreePortV1(instance);
   lusMapLockTake();
   const bool found = lusUnlinkPortV1(map, instance);
   lusMapLockDrop();
   if (found) {
      lusFinishDeletePortV1(instance);
   }
}

void LUS_RemovePortFromMapV1(LusHashMap *map, uint32_t portID)
{
   LusPortInstV1 *instance = lusLookupPortV1(map, portID);
   if (instance != nullptr) {
      lusDeleteEntryV1(map, instance);
   }
}

/* What an emptying dropped: saved state that no new client was handed. */
struct LusDropTally {
   uint32_t ports;
   uint32_t records;
   uint64_t bytes;
};

static bool lusHoldsStateV0(const LusInstance *rec)
{
   return rec->state != nullptr && rec->stateLen != 0;
}

/* Counts a record of a bucket; records of one port share a UUID and so a bucket. */
static void lusTallyV0(LusDropTally *tally, LusListLinks *gone, LusListLinks *bucketStart,
                       const LusInstance *rec)
{
   if (!lusHoldsStateV0(rec)) {
      return;
   }
   bool portSeen = false;
   for (LusListLinks *e = bucketStart->next; e != gone; e = e->next) {
      const LusInstance *other = reinterpret_cast<const LusInstance *>(e);
      if (other->portID == rec->portID && lusHoldsStateV0(other)) {
         portSeen = true;
         break;
      }
   }
   tally->ports += portSeen ? 0 : 1;
   tally->records++;
   tally->bytes += rec->stateLen;
}

static void lusTallyV1(LusDropTally *tally, const LusPortInstV1 *port)
{
   bool any = false;
   for (const LusListLinks *e = port->clients.next; e != &port->clients; e = e->next) {
      const LusClientInst *rec = reinterpret_cast<const LusClientInst *>(e);
      if (rec->state != nullptr && rec->stateLen != 0) {
         any = true;
         tally->records++;
         tally->bytes += rec->stateLen;
      }
   }
   tally->ports += any ? 1 : 0;
}

/*
 * Takes every entry out of the map onto `gone`, under lusMapLock.  A
 * version 0 record whose callback is under way stays with its claimer,
 * marked detached: the claimer frees it when the callback returns.
 */
static void lusDetachAll(LusHashMap *map, bool v1, LusListLinks *gone, LusDropTally *tally)
{
   LusHashBucket *buckets = TarnHash_Buckets(map);
   uint32_t left = 0;
   for (uint32_t b = 0; b <= map->bucketMask; b++) {
      if (TarnHash_Count(map) <= left) {
         break;
      }
      LusListLinks *chain = &buckets[b].chain;
      LusListLinks *bucketStart = gone->prev;
      LusListLinks *e = chain->next;
      while (e != chain) {
         LusListLinks *next = e->next;
         TarnHash_RemoveFromBucket(map, &buckets[b], e);
         if (v1) {
            lusTallyV1(tally, reinterpret_cast<LusPortInstV1 *>(e));
            LusList_InsertTail(gone, e);
         } else {
            LusInstance *rec = reinterpret_cast<LusInstance *>(e);
            if ((rec->claim & LUS_CLAIM_BUSY) != 0) {
               rec->claim |= LUS_CLAIM_DETACHED;
               lusReportClearedV0(rec);
            } else {
               lusTallyV0(tally, gone, bucketStart, rec);
               LusList_InsertTail(gone, e);
            }
         }
         e = next;
      }
      left += buckets[b].count;
   }
}

/*
 * Removes every entry of a map; the map itself stays allocated.  Entries are
 * removed as what the map holds: a caller's version that disagrees with the
 * map's layout (the clear at unload passes whether fromBuild was given, not
 * the version the maps were made with) must not make us free one kind of
 * record as the other.  The entries are taken out under lusMapLock and freed
 * after; saved state that had not been handed over is reported, so that no
 * clear loses a port's state silently.
 */
hyk_Status LUS_HashEmpty(int32_t version, LusHashMap *map)
{
   if (map == nullptr) {
      return HYK_OK;
   }

   const bool v1 = lusMapHoldsV1(map);
   LusListLinks gone;
   LusDropTally dropped = {};
   LusList_Init(&gone);

   lusMapLockTake();
   lusDetachAll(map, v1, &gone, &dropped);
   lusMapLockDrop();

   LusListLinks *e = gone.next;
   while (e != &gone) {
      LusListLinks *next = e->next;
      if (v1) {
         LusPortInstV1 *port = reinterpret_cast<LusPortInstV1 *>(e);
         lusFreePortV1(port);
         lusFinishDeletePortV1(port);
      } else {
         lusDeleteEntryUnlinked(reinterpret_cast<LusInstance *>(e));
      }
      e = next;
   }

   if (version == 0) {
      LUS_LOG(LUS_LOG_INFO, "LUS hash table free'd\n");
   }
   if (dropped.ports != 0) {
      LUS_LOG(LUS_LOG_ERROR,
              "Dropped saved state that was never restored: %u ports, %u client records, %lu bytes\n",
              dropped.ports, dropped.records, (unsigned long)dropped.bytes);
   }

   lusMapLockTake();
   uint32_t remaining = TarnHash_Count(map);
   lusMapLockDrop();
   if (remaining != 0) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_BAD_PARAM,
                     "Unable to empty hash, No. of hash entries remaining in hash %lu : %s\n",
                     (unsigned long)remaining);
      return HYK_BAD_PARAM;
   }
   LUS_LOG(LUS_LOG_INFO, "All entries in LUS hash table deleted.\n");
   return HYK_OK;
}
