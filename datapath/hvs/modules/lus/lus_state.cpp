/*
 * lus_state.cpp -- saving and restoring the clients' per-port state.
 *
 * Save: the from-build clients size (getSize) and hand over (getRuntimeState)
 * their state for every port, into buffers from the module's client-state
 * heaps that hang off the port instance records of lus_client.  Restore: as
 * each port's restore events arrive, the to-build clients get those buffers
 * back (runtimeRestore), the buffers are freed, the port is unblocked and its
 * outage reported.  Both come in two families: interface version 0 finds a
 * port's records by VM UUID and vNIC index, version 1 by port ID.
 *
 * The restore triggers (the port-unblock network event and the port-enable
 * port event) are subscribed by the first from-build registration of
 * interface version 0 (lus_client) and withdrawn at unload (lus_module).
 * Each handle is 0 exactly when not subscribed, so withdrawing is safe at any
 * time, also twice.
 *
 * Threads: the save runs on the control-device thread or the upgrade world;
 * restore events arrive in the host's event context, for several ports at
 * once from several threads.  The restores change the maps and the records,
 * so they take lusClientLock for writing around that work (the pull restore
 * takes it for reading, and unregistration for writing); see lusRestore.
 */
#include "lus_int.h"

/* ---- calling clients ---------------------------------------------------------------- */

/*
 * Every client callback runs as the client's own module: the host charges
 * what the callback does to it, and a client finds its own context by the
 * current module ID.
 */
template <typename Fn, typename... Args>
static inline hyk_Status lusCallClient(const ClientEntry *client, Fn fn, Args... args)
{
   LusModuleScope scope(client->moduleID, reinterpret_cast<const void *>(fn));
   return fn(args...);
}

/* A callback's start: the counter, then the frequency it ticks at. */
struct LusCBClock {
   uint64_t counter;
   uint64_t freq;
};

static inline LusCBClock lusCBClockNow(void)
{
   LusCBClock c;
   c.counter = hyk_TimerMonotonicCounter();
   c.freq = hyk_GetMonotonicCounterFrequency();
   return c;
}

/*
 * Callback durations are only logged, never held against maxAllowedCBTime:
 * cutting a client short in the middle of a hand-over would lose its state.
 */
template <typename Fn, typename... Args>
static inline hyk_Status lusCallClientTimed(const ClientEntry *client, uint64_t *ms, Fn fn,
                                            Args... args)
{
   LusCBClock start = lusCBClockNow();
   hyk_Status status = lusCallClient(client, fn, args...);
   LusCBClock end = lusCBClockNow();
   *ms = end.counter * 1000 / end.freq - start.counter * 1000 / start.freq;
   return status;
}

/* ---- saved buffers ------------------------------------------------------------------ */

/* A buffer always goes back to the heap it came from; the record keeps its heap tag. */
static void lusDropStateV0(LusInstance *inst)
{
   LUS_Free(inst->stateHeap, inst->state);
   inst->state = nullptr;
   inst->stateLen = 0;
   inst->hasState = 0;
}

/*
 * `state` is also read, without the client lock, by the check for state
 * still waiting (LUS_StateRestoreComplete), hence the atomic store.
 */
static void lusDropStateV1(LusClientInst *rec)
{
   LUS_Free(rec->stateHeap, rec->state);
   __atomic_store_n(&rec->state, nullptr, __ATOMIC_RELAXED);
   rec->stateLen = 0;
   rec->stateInfo &= ~(uint64_t)0xff;
}

/*
 * A saved buffer given up before any new client got it is said out loud,
 * as every removal of a record with state is (lus_client), so that no loss
 * is silent.
 */
static void lusReportDropV1(const char *fn, uint32_t portID, const LusClientInst *rec)
{
   if (rec->state == nullptr || rec->stateLen == 0) {
      return;
   }
   const ClientEntry *client = rec->fromClient != nullptr ? rec->fromClient : rec->toClient;
   LUS_LOG_AS(fn, LUS_LOG_INFO,
              "Dropped saved state of port 0x%x client %s: %lu bytes never restored\n", portID,
              client != nullptr ? client->clientName : "", (unsigned long)rec->stateLen);
}

/* Forgets every buffer of a port whose single-port save failed: no half state is handed over. */
static void lusWipePortStateV1(LusPortInstV1 *port)
{
   for (LusListLinks *e = port->clients.next; e != &port->clients; e = e->next) {
      LusClientInst *rec = reinterpret_cast<LusClientInst *>(e);
      lusReportDropV1("LUSPerPortUpgradeSave", port->portID, rec);
      LUS_Free(rec->stateHeap, rec->state);
      __atomic_store_n(&rec->state, nullptr, __ATOMIC_RELAXED);
      rec->stateHeap = 0;
      rec->stateLen = 0;
   }
}

/* A port that failed its save or size is dropped from both version 1 maps. */
static void lusDropPortV1(uint32_t portID)
{
   LUS_RemovePortFromMapV1(lusHashMap, portID);
   LUS_RemovePortFromMapV1(lusPerPortHashMap, portID);
}

HYK_EXTERN_C_BEGIN

constinit hyk_NetEventHandle lusRestoreEventHandle = 0;
constinit hyk_NetEventHandle lusPortEnableEventHandle = 0;

HYK_EXTERN_C_END

/* Leaves no half subscription behind: a failure of the second undoes the first. */
hyk_Status LUS_Subscribe(void)
{
   hyk_Status status;

   status = hyk_NetEventPortsetEventSubscribe(0, LUS_EVENT_PORT_UNBLOCK, lusRestoreEventCB,
                                              nullptr, &lusRestoreEventHandle);
   if (status != HYK_OK) {
      lusRestoreEventHandle = 0;
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Failed to subscribe to event %s : %s\n",
                     LUS_EVENT_PORT_UNBLOCK);
      return status;
   }

   status = hyk_NetEventPortEventSubscribe(0, LUS_EVENT_PORT_ENABLE, lusPortEventEnableCB, nullptr,
                                           &lusPortEnableEventHandle);
   if (status == HYK_OK) {
      return HYK_OK;
   }
   lusPortEnableEventHandle = 0;
   LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Failed to subscribe to event %s : %s\n",
                  LUS_EVENT_PORT_ENABLE);

   hyk_Status undo = hyk_NetEventPortsetEventUnsubscribe(lusRestoreEventHandle);
   if (undo == HYK_OK) {
      lusRestoreEventHandle = 0;
   } else {
      LUS_LOG_STATUS(LUS_LOG_ERROR, undo, "Failed to unsubscribe event %s : %s\n",
                     LUS_EVENT_PORT_UNBLOCK);
   }
   return status;
}

void LUS_Unsubscribe(void)
{
   hyk_Status status;

   if (lusRestoreEventHandle != 0) {
      status = hyk_NetEventPortsetEventUnsubscribe(lusRestoreEventHandle);
      if (status == HYK_OK) {
         lusRestoreEventHandle = 0;
      } else {
         LUS_LOG_STATUS(LUS_LOG_ERROR, status,
                        "Failed to unsubscribe to event TARN_KCP_PORT_UNBLOCK : %s\n");
      }
   }
   if (lusPortEnableEventHandle != 0) {
      status = hyk_NetEventPortEventUnsubscribe(lusPortEnableEventHandle);
      if (status == HYK_OK) {
         lusPortEnableEventHandle = 0;
      } else {
         LUS_LOG_STATUS(LUS_LOG_ERROR, status,
                        "Failed to unsubscribe to event HYK_PORT_EVENT_STATE_ENABLE : %s\n");
      }
   }
}

/* The datapath posts the unblock event with the port ID as its payload. */
hyk_Status lusRestoreEventCB(hyk_Portset *ps, const char *eventName, void *eventData,
                             uint32_t dataLen, void *cbData)
{
   if (eventData == nullptr || dataLen < sizeof(uint32_t)) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_BAD_PARAM, "Invalid portID, cannot restore : %s\n");
      return HYK_BAD_PARAM;
   }
   uint32_t portID;
   __builtin_memcpy(&portID, eventData, sizeof(portID));
   return lusRestore(portID, LUS_RESTORE_EVENT_UNBLOCK);
}

hyk_Status lusPortEventEnableCB(hyk_PortID portID, const char *eventName, void *cbData)
{
   return lusRestore(portID, LUS_RESTORE_EVENT_ENABLE);
}


/* ---- runtime size collection --------------------------------------------------------- */

/*
 * Visitor of the save command's sizing walk.  A hard failure fails the walk
 * and with it the whole save (nothing is saved after a failed sizing pass).
 * The result is that of the last client: a client whose getSize answers
 * HYK_NO_DATA is tolerated, and that answer reaches the walk only when it
 * came from the last client of the table (the next client's UUID lookup
 * overwrites it); tool and clients rely on that.
 *
 * Each record is claimed while its client is asked: a restore event of an
 * earlier save may be finishing the same port.  A record claimed elsewhere
 * counts as missing.
 */
hyk_Status LUS_GetTotalSize(hyk_Portset *ps, hyk_PortID portID, void *data)
{
   uint32_t clientType = 0;
   hyk_Status status = hyk_PortGetClientType(portID, &clientType);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Failed to get Port Client Type : %s\n");
      return status;
   }
   /* Only VM vNIC ports are keyed by UUID and vNIC index on this path. */
   if (clientType != HYK_PORT_CLIENT_VNIC || numFromClients < 1) {
      return HYK_OK;
   }

   for (int32_t i = 0; i < numFromClients && i < LUS_MAX_CLIENTS; i++) {
      char uuid[LUS_UUID_LEN] = {};
      uint32_t vnicIndex = 0;
      bool busy = false;
      bool stop = false;

      /* Read per client, not per port: a vNIC may move while clients are asked. */
      status = lusGetUUIDVNIC(portID, uuid, &vnicIndex);
      if (status != HYK_OK) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Failed getting VM UUID and vNic index : %s\n");
         return status;
      }
      LusInstance *inst = lusClaimV0(uuid, vnicIndex, fromClients[i].clientName, &busy);
      if (inst == nullptr) {
         /* A client that saves was enrolled on every vNIC port; missing means lost. */
         if (fromClients[i].ops.getRuntimeState != nullptr) {
            LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_NOT_FOUND,
                           "Error finding LUS client %s with portID %d: : %s\n",
                           fromClients[i].clientName, (int)portID);
            return HYK_NOT_FOUND;
         }
         continue;
      }
      /* One pass of a block, so that every exit goes through the release below. */
      ClientEntry *client = inst->fromClient;
      do {
         if (client == nullptr || __atomic_load_n(&client->inUse, __ATOMIC_RELAXED) == 0) {
            break;
         }
         if (client->ops.prefetch != nullptr) {
            LUS_LOG(LUS_LOG_INFO, "Prefetching: Client %s portID 0x%x\n", client->clientName,
                    portID);
            status = lusCallClient(client, client->ops.prefetch, (void *)inst, portID,
                                   &client->clientContext);
            if (status != HYK_OK) {
               LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Prefetch FAIL for client %s : %s\n",
                              client->clientName);
               stop = true;
               break;
            }
         }
         /* Written before the size is known; it says which client is being asked. */
         LUS_LOG(LUS_LOG_INFO, "Runtime data len: client %s portID 0x%x\n", client->clientName,
                 portID);
         if (client->ops.getSize == nullptr) {
            break; /* nothing announced: the save marks the record with length 0 */
         }
         status = lusCallClient(client, client->ops.getSize, (void *)inst, portID,
                                &inst->stateLen, &client->clientContext);
         if (status != HYK_OK) {
            /* A buffer of an earlier save goes back to its heap before its tag is lost. */
            lusForgetStateV0(inst);
            inst->stateLen = 0;
            inst->stateHeap = 0;
            if (status != HYK_NO_DATA) {
               LUS_LOG_STATUS(LUS_LOG_ERROR, status,
                              "Getting Runtime size FAIL for client %s : %s\n",
                              client->clientName);
               stop = true;
            }
         }
      } while (0);
      if (lusReleaseV0(inst)) {
         lusFreeDetachedV0(inst);
      }
      if (stop) {
         return status;
      }
   }
   return status;
}

/*
 * Visitor of the upgrade world's sizing walk.  It never fails the walk: a
 * port whose client cannot be sized is dropped from both maps, so that the
 * portset's upgrade goes on without it (that port then upgrades cold).
 */
hyk_Status LUS_GetTotalSizeV1(hyk_Portset *ps, hyk_PortID portID, void *data)
{
   LusSizeTotals *totals = static_cast<LusSizeTotals *>(data);
   LusPortInstV1 *port = lusLookupPortV1(lusHashMap, portID);
   if (port == nullptr) {
      return HYK_OK;
   }

   LusListLinks *next;
   for (LusListLinks *e = port->clients.next; e != &port->clients; e = next) {
      next = e->next;
      LusClientInst *inst = reinterpret_cast<LusClientInst *>(e);
      ClientEntry *client = inst->fromClient;
      hyk_Status status;
      uint64_t ms = 0;

      if (client == nullptr) {
         continue; /* a to-build record: nothing of the old build to size */
      }
      /* Tested before the active flag: a record that can never be saved fails its port. */
      if (client->ops.getRuntimeState == nullptr) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_BAD_PARAM,
                        "No save CB registered for portID %d client %s : %s\n", (int)portID,
                        client->clientName);
         goto dropPort;
      }
      if (client->inUse == 0) {
         continue;
      }
      if (client->ops.prefetch != nullptr) {
         LUS_LOG(LUS_LOG_VERBOSE, "Prefetching: Client %s portID 0x%x\n", client->clientName,
                 portID);
         status = lusCallClientTimed(client, &ms, client->ops.prefetch, (void *)inst, portID,
                                     &client->clientContext);
         if (status != HYK_OK) {
            LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Prefetch FAIL for client %s : %s\n",
                           client->clientName);
            lusForgetStateV1(inst);
            inst->stateLen = 0;
            inst->stateHeap = 0;
            goto dropPort;
         }
         LUS_LOG(LUS_LOG_VERBOSE, "Client: %s CB duration (ms): %lu \n", client->clientName,
                 (unsigned long)ms);
      }
      LUS_LOG(LUS_LOG_VERBOSE, "Runtime data len: client %s portID 0x%x\n", client->clientName,
              portID);
      status = client->ops.getSize == nullptr
                  ? (hyk_Status)HYK_OK
                  : lusCallClientTimed(client, &ms, client->ops.getSize, (void *)inst, portID,
                                       &inst->stateLen, &client->clientContext);
      if (status != HYK_OK) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Getting Runtime size FAIL for client %s : %s\n",
                        client->clientName);
         lusForgetStateV1(inst);
         inst->stateLen = 0;
         inst->stateHeap = 0;
         goto dropPort;
      }
      if (totals != nullptr && inst->stateLen != 0) {
         totals->bytes += (uint32_t)inst->stateLen;
         totals->instances++;
      }
      LUS_LOG(LUS_LOG_INFO, "Runtime data: client %s, portID %#x, len: %u\n", client->clientName,
              portID, (unsigned)inst->stateLen);
      LUS_LOG(LUS_LOG_VERBOSE, "Client: %s CB duration (ms): %lu \n", client->clientName,
              (unsigned long)ms);
   }
   return HYK_OK;

dropPort:
   /* What the port's other clients announced goes with it. */
   lusDropPortV1(portID);
   LUS_LOG(LUS_LOG_INFO, "getSize FAILED on portID 0x%x (%d) ...\n", portID, (int)portID);
   return HYK_OK;
}

/* ---- runtime state save --------------------------------------------------------------- */

/*
 * Visitor of the save command's save walk.  The first failure ends the port
 * and the walk; records saved before it stay saved, and a buffer already
 * attached to the failing record stays with it until the record is cleared.
 * Records are claimed while their client saves, as in the sizing walk.
 */
hyk_Status LUS_SaveState(hyk_Portset *ps, hyk_PortID portID, void *data)
{
   uint32_t clientType = 0;
   char uuid[LUS_UUID_LEN] = {};
   uint32_t vnicIndex = 0;

   hyk_Status status = hyk_PortGetClientType(portID, &clientType);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Cannot determine Client Type : %s\n");
      return status;
   }
   if (clientType != HYK_PORT_CLIENT_VNIC) {
      return HYK_OK;
   }
   status = lusGetUUIDVNIC(portID, uuid, &vnicIndex);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Failed getting VM UUID and vNic index : %s\n");
      return status;
   }

   for (int32_t i = 0; i < numFromClients && i < LUS_MAX_CLIENTS; i++) {
      bool busy = false;
      LusInstance *inst = lusClaimV0(uuid, vnicIndex, fromClients[i].clientName, &busy);
      if (inst == nullptr) {
         if (fromClients[i].ops.getRuntimeState != nullptr) {
            LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_NOT_FOUND,
                           "Error finding LUS client %s with portID %d: : %s\n",
                           fromClients[i].clientName, (int)portID);
            return HYK_NOT_FOUND;
         }
         continue;
      }
      status = HYK_OK;
      ClientEntry *client = inst->fromClient;
      /* One pass of a block, so that every exit goes through the release below. */
      do {
         if (client == nullptr) {
            LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_BAD_PARAM, "ClientInfo is invalid : %s\n");
            status = HYK_BAD_PARAM;
            break;
         }
         if (__atomic_load_n(&client->inUse, __ATOMIC_RELAXED) == 0) {
            break; /* left unmarked: an inactive client hands nothing over */
         }

         /* Lengths travel as 32 bits to the client; the announced size is capped to that. */
         const uint32_t length = (uint32_t)inst->stateLen;
         uint32_t stateLen = 0;
         if (length != 0) {
            /* A buffer here means the port was saved before and never restored or cleared. */
            if (inst->state != nullptr) {
               LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_BAD_PARAM,
                              "Non NULL buf before saving runtime data for portID:%d client %s : %s\n",
                              (int)portID, client->clientName);
               status = HYK_BAD_PARAM;
               break;
            }
            inst->state = LUS_ClientStateAlloc(length, &inst->stateHeap);
            if (inst->state == nullptr) {
               LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_NO_MEMORY, "LUS out of memory in all heaps : %s\n");
               status = HYK_NO_MEMORY;
               break;
            }
            inst->portID = portID;
            status = lusCallClient(client, client->ops.getRuntimeState, (void *)inst, inst->portID,
                                   inst->state, length, &stateLen, &client->clientContext);
            if (status != HYK_OK) {
               LUS_LOG_STATUS(LUS_LOG_ERROR, status, "getRuntimeState FAIL for client %s : %s\n",
                              client->clientName);
               break;
            }
            LUS_LOG(LUS_LOG_INFO, "Saved client %s portID 0x%x data length %d\n",
                    client->clientName, portID, (int)stateLen);
            if (stateLen == 0) {
               LUS_LOG(LUS_LOG_INFO,
                       "Size returned after Saving data for client %s portID 0x%x is 0\n",
                       client->clientName, portID);
               LUS_Free(inst->stateHeap, inst->state);
               inst->state = nullptr;
            } else if (stateLen > length) {
               /* The client wrote past what it announced; its state cannot be trusted. */
               LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_BAD_PARAM,
                              "Size of datalen > size of new_lus->len : %s\n");
               status = HYK_BAD_PARAM;
               break;
            }
         }
         /* Marked even with nothing saved, so the restore knows the client was asked. */
         inst->stateLen = stateLen;
         inst->hasState = 1;
      } while (0);
      if (lusReleaseV0(inst)) {
         lusFreeDetachedV0(inst);
      }
      if (status != HYK_OK) {
         return status;
      }
   }
   return HYK_OK;
}

/*
 * Visitor of the upgrade world's save walk.  Never fails the walk: a port
 * whose save fails is dropped from both maps (its attached buffers go with
 * it) and upgrades without its state.
 */
hyk_Status LUS_SaveStateV1(hyk_Portset *ps, hyk_PortID portID, void *data)
{
   LusPortInstV1 *port = lusLookupPortV1(lusHashMap, portID);
   if (port == nullptr) {
      return HYK_OK;
   }

   LusListLinks *next;
   for (LusListLinks *e = port->clients.next; e != &port->clients; e = next) {
      next = e->next;
      LusClientInst *inst = reinterpret_cast<LusClientInst *>(e);
      ClientEntry *client = inst->fromClient;
      const uint32_t length = (uint32_t)inst->stateLen;
      uint32_t stateLen = 0;
      uint64_t ms = 0;
      hyk_Status status;

      if (client == nullptr || client->inUse == 0) {
         continue;
      }
      if (length == 0) {
         inst->stateInfo |= 1; /* asked, nothing to hand over */
         continue;
      }
      if (inst->state != nullptr) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_BAD_PARAM,
                        "Non NULL buf before saving runtime data for portID:%d client %s : %s\n",
                        (int)portID, client->clientName);
         goto dropPort;
      }
      inst->state = LUS_ClientStateAlloc(length, &inst->stateHeap);
      if (inst->state == nullptr) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_NO_MEMORY, "LUS out of memory in all heaps : %s\n");
         goto dropPort;
      }
      status = lusCallClientTimed(client, &ms, client->ops.getRuntimeState, (void *)inst, portID,
                                  inst->state, length, &stateLen, &client->clientContext);
      if (status != HYK_OK) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, status, "getRuntimeState FAIL for client %s : %s\n",
                        client->clientName);
         goto dropPort;
      }
      LUS_LOG(LUS_LOG_VERBOSE, "Client: %s CB duration (ms): %lu \n", client->clientName,
              (unsigned long)ms);
      LUS_LOG(LUS_LOG_VERBOSE, "Saved client %s portID 0x%x data length %d\n", client->clientName,
              portID, (int)stateLen);
      if (stateLen == 0) {
         LUS_LOG(LUS_LOG_VERBOSE, "Size returned after Saving data for client %s portID 0x%x is 0\n",
                 client->clientName, portID);
         LUS_Free(inst->stateHeap, inst->state);
         inst->state = nullptr;
      } else if (stateLen > length) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_BAD_PARAM,
                        "Client: %s Size of datalen > size of new_lus->len : %s\n",
                        client->clientName);
         goto dropPort;
      }
      inst->stateLen = stateLen;
      inst->stateInfo |= 1;
   }
   return HYK_OK;

dropPort:
   lusDropPortV1(portID);
   LUS_LOG(LUS_LOG_INFO, "getRuntimeState FAILED on portID 0x%x (%d) ...\n", portID, (int)portID);
   return HYK_OK;
}

/* ---- save driver ------------------------------------------------------------------------ */

hyk_Status LUS_GetSize(const char *portsetName)
{
   hyk_Portset *ps = nullptr;
   hyk_Status status = hyk_PortsetAcquireByName(portsetName, HYK_PORTSET_ACCESS_EXCL, &ps);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Error acquiring portset during Save %s  : %s\n",
                     portsetName);
      return status;
   }
   status = hyk_PortsetForAllPorts(ps, LUS_GetTotalSize, nullptr);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status,
                     "FAILED to get total runtime data size for portset %s : %s\n", portsetName);
   }
   hyk_PortsetRelease(&ps);
   return status;
}

/* Clients are told that collection is complete once per portset saved in full. */
hyk_Status LUS_SavePortset(const char *portsetName)
{
   hyk_Portset *ps = nullptr;
   hyk_Status status = hyk_PortsetAcquireByName(portsetName, HYK_PORTSET_ACCESS_EXCL, &ps);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Error acquiring portset during Save %s  : %s\n",
                     portsetName);
      return status;
   }
   status = hyk_PortsetForAllPorts(ps, LUS_SaveState, nullptr);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Saving LUS Runtime data FAIL : %s\n");
   } else {
      LUS_StateCollectionComplete();
   }
   hyk_PortsetRelease(&ps);
   return status;
}

/* A notice, not a step of the save: what the clients answer changes nothing. */
void LUS_StateCollectionComplete(void)
{
   for (int32_t i = 0; i < numFromClients && i < LUS_MAX_CLIENTS; i++) {
      ClientEntry *client = &fromClients[i];
      if (client->inUse != 0 && client->ops.stateCollectionComplete != nullptr) {
         lusCallClient(client, client->ops.stateCollectionComplete, client, 0u, (void *)nullptr,
                       &client->clientContext);
      }
   }
}

/*
 * The save command: register the from-build clients, size every listed
 * portset, save them, arm the clear timer and unregister.  Sizing is all or
 * nothing (a failure clears the clients and saves nothing); a portset that
 * fails to save is logged by LUS_SavePortset and the others go on, so that
 * one bad switch does not cost every other port its state.
 */
hyk_Status LUS_Save(int8_t regFlag)
{
   hyk_Status status = LUS_Reg((uint8_t)regFlag, LUS_REG_FROM);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "LUS Registration FAIL : %s\n");
      return status;
   }

   for (uint32_t i = 0; i < numPortsets && i < LUS_MAX_PORTSETS; i++) {
      status = LUS_GetSize(lusPortset[i]);
      if (status != HYK_OK) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, status, "LUS GetSize on portset %s FAIL : %s\n",
                        lusPortset[i]);
         LUS_ClientClear(0);
         return status;
      }
   }
   for (uint32_t i = 0; i < numPortsets && i < LUS_MAX_PORTSETS; i++) {
      LUS_SavePortset(lusPortset[i]);
   }

   /* If no restore consumes the saved state in time, the timer frees it. */
   status = LUS_ScheduleTimer(LUS_ClientClearTimerCB, nullptr, LUS_CLIENT_CLEAR_TIMEOUT_US, 0,
                              &lusTimer);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Unable to Schedule LUS Timer : %s\n");
      LUS_ClientClear(0);
      return status;
   }

   status = LUS_Unreg((uint8_t)regFlag);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "LUS Unregistration FAIL : %s\n");
      LUS_HashEmpty(0, lusHashMap);
   }
   return status;
}

/* ---- single-port save ---------------------------------------------------------------------- */

/*
 * Saves one port in one pass for the upgrade of a single port: block it, ask
 * each client for its size and at once for its state.  The port stays
 * blocked while any client has state waiting for the restore side, which
 * unblocks it; with nothing saved it is unblocked again here.  Any failure
 * wipes every client's state of the port and leaves it blocked, so no
 * client of the new build gets half a port.
 *
 * Every record is asked, active or not: the port is upgraded on its own and
 * its old clients are all still loaded.
 */
void LUSPerPortUpgradeSave(LusPortInstV1 *port)
{
   const uint32_t portID = port->portID;
   bool savedSomething = false;

   hyk_Status status = hyk_PortCustomBlock(portID, LUS_PORT_BLOCK_REASON, 0);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Failed to custom block port: 0x%x : %s\n", portID);
      return;
   }

   LusListLinks *next;
   for (LusListLinks *e = port->clients.next; e != &port->clients; e = next) {
      next = e->next;
      LusClientInst *inst = reinterpret_cast<LusClientInst *>(e);
      ClientEntry *client = inst->fromClient;
      uint32_t length;
      uint32_t stateLen = 0;
      uint64_t ms = 0;

      /* To-build records and clients that keep no port state have nothing to hand over. */
      if (client == nullptr || client->ops.getSize == nullptr ||
          client->ops.getRuntimeState == nullptr) {
         continue;
      }
      if (client->ops.prefetch != nullptr) {
         LUS_LOG(LUS_LOG_VERBOSE, "Prefetch Client %s portID 0x%x\n", client->clientName, portID);
         status = lusCallClientTimed(client, &ms, client->ops.prefetch, (void *)inst, portID,
                                     &client->clientContext);
         if (status != HYK_OK) {
            LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Prefetch FAIL for client %s port 0x%x : %s\n",
                           client->clientName, portID);
            goto wipe;
         }
         LUS_LOG(LUS_LOG_VERBOSE, "Client: %s CB duration (ms): %lu \n", client->clientName,
                 (unsigned long)ms);
      }
      status = lusCallClientTimed(client, &ms, client->ops.getSize, (void *)inst, portID,
                                  &inst->stateLen, &client->clientContext);
      if (status != HYK_OK) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, status,
                        "Getting Runtime size FAIL for client %s port 0x%x : %s\n",
                        client->clientName, portID);
         goto wipe;
      }
      LUS_LOG(LUS_LOG_VERBOSE, "Client: %s CB duration (ms): %lu \n", client->clientName,
              (unsigned long)ms);
      LUS_LOG(LUS_LOG_VERBOSE, "Runtime data len: client %s portID 0x%x len %u\n",
              client->clientName, portID, (unsigned)inst->stateLen);
      length = (uint32_t)inst->stateLen;
      if (length == 0) {
         continue;
      }

      inst->state = LUS_ClientStateAlloc(length, &inst->stateHeap);
      if (inst->state == nullptr) {
         inst->stateLen = 0;
         LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_NO_MEMORY, "LUS out of memory in allheaps : %s\n");
         goto wipe;
      }
      status = lusCallClientTimed(client, &ms, client->ops.getRuntimeState, (void *)inst, portID,
                                  inst->state, length, &stateLen, &client->clientContext);
      if (status != HYK_OK) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, status, "getRuntimeState FAIL for client %s port 0x%x : %s\n",
                        client->clientName, portID);
         goto wipe;
      }
      LUS_LOG(LUS_LOG_VERBOSE, "Client: %s CB duration (ms): %lu \n", client->clientName,
              (unsigned long)ms);
      LUS_LOG(LUS_LOG_VERBOSE, "Saved Runtime data len: client %s portID 0x%x len %u\n",
              client->clientName, portID, stateLen);
      if (length < stateLen) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_FAILURE,
                        "Client %s saved more data(%u) than it requested(%u) : %s\n",
                        client->clientName, stateLen, length);
         goto wipe;
      }
      if (stateLen == 0) {
         LUS_LOG(LUS_LOG_INFO, "client %s requested %d saved %d state for portID 0x%x\n",
                 client->clientName, (int)length, 0, portID);
         LUS_Free(inst->stateHeap, inst->state);
         inst->state = nullptr;
         inst->stateHeap = 0;
         inst->stateLen = 0;
         continue;
      }
      inst->stateLen = stateLen;
      savedSomething = true;
   }

   if (!savedSomething) {
      status = hyk_PortCustomUnblock(portID, LUS_PORT_BLOCK_REASON, 0);
      if (status != HYK_OK) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Failed to custom unblock port: 0x%x : %s\n",
                        portID);
      }
   }
   return;

wipe:
   /* Left blocked on purpose: the port must not pass traffic with half its state. */
   lusWipePortStateV1(port);
   __atomic_store_n(&port->valid, 0, __ATOMIC_RELAXED);
}

/* ---- restoring one port ------------------------------------------------------------------ */

/*
 * What a restore event needs of a to-build client, read under lusMapLock
 * when it claims the client's record: a registration may rewrite the row
 * while the callback runs.
 */
struct LusRestoreTarget {
   LusRuntimeRestoreFn fn;
   hyk_ModuleID moduleID;
   char name[LUS_CLIENT_NAME_LEN + 1];
};

static void lusTargetOf(const ClientEntry *client, LusRestoreTarget *target)
{
   target->fn = client->ops.runtimeRestore;
   target->moduleID = client->moduleID;
   lusStrNCpy(target->name, client->clientName, LUS_CLIENT_NAME_LEN);
   target->name[LUS_CLIENT_NAME_LEN] = '\0';
}

/*
 * Restores one port of interface version 0 for the restore events in
 * `restoreEvent`, then unblocks it.  A client whose record still waits for
 * another event stays in the map; the port is unblocked all the same,
 * because the datapath announced with this event that it can carry it.
 *
 * Restore events for different ports (and the two events of one port) run
 * at once on several threads.  Each record is claimed under lusMapLock
 * before its client is called and removed after, so that no other path
 * frees it meanwhile; the callback itself runs with no lock of ours held.
 * A port is unblocked by the event that finishes its last claim, when no
 * record of it failed: an event that finds a record of its port claimed by
 * another thread skips that record, and each finisher looks again once its
 * own claims are gone.  A restore that has found its port is finished before any
 * clear empties the map (lusRestoresInFlight: the last such restore ends the
 * clear that waited for it), and
 * one that arrives while a clear is under way leaves the port alone,
 * blocked (the clear reports the state it drops).
 *
 * The clear when the last record goes runs at once when no command owns the
 * registry, and otherwise when the command lets go of it -- also when the
 * command is the restore command's own walk, which holds a portset that the
 * clients of restores under way may need.
 */
hyk_Status lusRestore(uint32_t portID, uint32_t restoreEvent)
{
   hyk_Status status;
   uint32_t clientType = 0;
   char uuid[LUS_UUID_LEN] = {};
   uint32_t vnicIndex = 0;
   bool deleted = false;
   bool othersUnfinished = false;
   bool empty;
   uint32_t firstRequired = 0;
   LusInstance *first;

   status = hyk_PortGetClientType(portID, &clientType);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Cannot determine Client Type : %s\n");
      return status;
   }
   if (clientType == HYK_PORT_CLIENT_CONTAINER) {
      /* Container ports carry no saved state on this path; they were only blocked. */
      LUS_LOG(LUS_LOG_INFO, "lusRestore Container port %d\n", (int)portID);
      goto unblock;
   }
   if (clientType != HYK_PORT_CLIENT_VNIC) {
      return HYK_OK;
   }

   status = lusGetUUIDVNIC(portID, uuid, &vnicIndex);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Failed getting VM UUID and vNic index : %s\n");
      goto done;
   }

   lusMapLockTake();
   first = lusClearInProgress ? nullptr : lusScanV0(uuid, vnicIndex, nullptr);
   if (first != nullptr) {
      firstRequired = first->requiredRestoreEvent;
      /* From here the port is ours to finish: a clear waits for it. */
      lusRestoresInFlight++;
   }
   lusMapLockDrop();
   if (first == nullptr) {
      /* Not blocked by us either (or its state is being cleared): leave the port as it is. */
      LUS_LOG(LUS_LOG_INFO, "PortID 0x%x not part of LUS hash. SKIP LUS Restore\n", portID);
      return HYK_OK;
   }
   LUS_LOG(LUS_LOG_INFO,
           "Restoring LUS data on PortID: 0x%x (%d) restoreEvent: 0x%x , requiredRestoreEvent: 0x%x\n",
           portID, (int)portID, restoreEvent, firstRequired);

   for (int32_t i = 0; i < LUS_MAX_CLIENTS; i++) {
      LusRestoreTarget target;
      lusMapLockTake();
      if (i >= numToClients) {
         lusMapLockDrop();
         break;
      }
      LusInstance *inst = lusScanV0(uuid, vnicIndex, toClients[i].clientName);
      if (inst == nullptr) {
         lusMapLockDrop();
         continue;
      }
      if ((inst->claim & LUS_CLAIM_BUSY) != 0) {
         lusMapLockDrop();
         continue; /* another event is restoring this client of the port */
      }
      ClientEntry *client = inst->toClient;
      if (client == nullptr) {
         lusMapLockDrop();
         LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_BAD_PARAM, "ClientInfo is invalid : %s\n");
         status = HYK_BAD_PARAM;
         break;
      }
      inst->requiredRestoreEvent &= ~restoreEvent;
      if (inst->requiredRestoreEvent != 0) {
         lusMapLockDrop();
         continue; /* waits for its further event */
      }
      const bool withState = inst->hasState != 0 && client->inUse != 0 && inst->stateLen != 0 &&
                             inst->state != nullptr;
      lusTargetOf(client, &target);
#if LUS_REINTRODUCED_BUG != 2
      inst->claim = LUS_CLAIM_BUSY;
#endif
      lusMapLockDrop();

      if (withState) {
         if (target.fn == nullptr) {
            LUS_LOG(LUS_LOG_INFO, "PortID: %d client: %s Skipping Runtime state Restore\n",
                    (int)portID, target.name);
         } else {
            LusModuleScope scope(target.moduleID, reinterpret_cast<const void *>(target.fn));
            status = target.fn((void *)inst, portID, inst->state, (uint32_t)inst->stateLen, 0u);
         }
         if (status != HYK_OK) {
            /* The record keeps its buffer; the port stays blocked for the tool to see. */
            LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Restore Runtime State FAIL for client %s : %s\n",
                           target.name);
            if (lusReleaseV0(inst)) {
               /* A clear took the map meanwhile: nobody is left to retry this state. */
               LUS_LOG(LUS_LOG_ERROR,
                       "Saved state of port 0x%x client %s dropped (%lu bytes): client data cleared during its restore\n",
                       portID, target.name, (unsigned long)inst->stateLen);
               lusFreeDetachedV0(inst);
            }
            break;
         }
         if (target.fn != nullptr) {
            LUS_LOG(LUS_LOG_INFO, "PortID: %d client: %s Runtime state Restore SUCCESS \n",
                    (int)portID, target.name);
         }
         lusDropStateV0(inst);
      }

      /* Done with the record: out of the map, unless a clear took it out already. */
      lusMapLockTake();
      const bool detached = (inst->claim & LUS_CLAIM_DETACHED) != 0;
      if (!detached) {
         LusHashBucket *bucket =
            TarnHash_BucketOfKey(lusHashMap, TarnHash_EntryKey(lusHashMap, &inst->link));
         TarnHash_RemoveFromBucket(lusHashMap, bucket, &inst->link);
      }
      lusMapLockDrop();
      if (detached) {
         lusFreeDetachedV0(inst);
      } else {
         lusDeleteEntryUnlinked(inst);
      }
      deleted = true;
   }

   /* Outage is accounted once some client of the port has its state back. */
   if (deleted) {
      LUS_CheckOutage(portID);
   }
   if (status == HYK_OK) {
      /*
       * Whoever finishes a port's last claim unblocks it: an event that
       * skipped a record claimed by another leaves the port to that one, and
       * every finisher looks again, after letting go of its own claims.
       */
      lusMapLockTake();
      othersUnfinished = lusPortHasUnfinishedV0(uuid, vnicIndex);
      lusMapLockDrop();
   }
   if (status == HYK_OK && !othersUnfinished) {
      LUS_LOG(LUS_LOG_INFO, "Custom Unblock port: 0x%x (%d)\n", portID, (int)portID);
      status = hyk_PortCustomUnblock(portID, LUS_PORT_BLOCK_REASON, 0);
      if (status != HYK_OK) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Custom Unblock Port 0x%x FAILED : %s\n", portID);
      }
   }
   lusRestoreDone();
   goto done;

unblock:
   LUS_LOG(LUS_LOG_INFO, "Custom Unblock port: 0x%x (%d)\n", portID, (int)portID);
   status = hyk_PortCustomUnblock(portID, LUS_PORT_BLOCK_REASON, 0);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Custom Unblock Port 0x%x FAILED : %s\n", portID);
   }

done:
   /* The last record gone: nothing is left to hand over, so the clients can go. */
   lusMapLockTake();
   empty = lusHashMap != nullptr && TarnHash_Count(lusHashMap) == 0;
   lusMapLockDrop();
   if (empty) {
      LUS_LOG(LUS_LOG_INFO, "LUS Hash is Empty, Unregistering LUS Clients ...\n");
      lusClientClearFromOutside();
   }
   return status;
}

/*
 * Visitor of the edition-migration walk: both restore events count as seen.
 * It never fails the walk, so one port's failed restore costs no other port
 * its state.
 */
hyk_Status lusRestoreV2T(hyk_Portset *ps, hyk_PortID portID, void *data)
{
   hyk_Status status = lusRestore(portID, LUS_RESTORE_EVENT_BOTH);
   LUS_LOG(LUS_LOG_INFO, "LUS restore for portID %d, status = %s\n", (int)portID,
           hyk_StatusToString(status));
   return HYK_OK;
}

/*
 * Dual-load restore of one port (interface version 1): every client record
 * with state gets it back, no restore events gate it, and the records stay
 * (their buffers freed) for the upgrade's end to clear.  A port the map does
 * not know is unblocked all the same: the upgrade world blocked every port.
 * A client that fails loses the port's state and the port stays blocked.
 *
 * It runs in the upgrade world, which holds the portset exclusively: the
 * pull restore, which acquires the portset too, cannot work on the same
 * port meanwhile, so no lock of ours is held across the callbacks (the
 * world's lusDummyLock is, as the upgrade world's pass requires).
 */
hyk_Status lusRestoreV1(uint32_t portID)
{
   hyk_Status status;
   uint64_t ms = 0;

   LusPortInstV1 *port = lusLookupPortV1(lusPerPortHashMap, portID);
   if (port != nullptr) {
      LUS_LOG(LUS_LOG_VERBOSE, "Restoring LUS data on PortID: 0x%x (%d) \n", portID, (int)portID);
      for (LusListLinks *e = port->clients.next; e != &port->clients; e = e->next) {
         LusClientInst *rec = reinterpret_cast<LusClientInst *>(e);
         ClientEntry *client = rec->toClient;
         if (client == nullptr || __atomic_load_n(&client->inUse, __ATOMIC_RELAXED) == 0 ||
             rec->stateLen == 0 ||
             rec->state == nullptr) {
            continue;
         }
         if (client->ops.runtimeRestore == nullptr) {
            LUS_LOG(LUS_LOG_INFO, "PortID: %d client: %s Skipping Runtime state Restore\n",
                    (int)portID, client->clientName);
            lusDropStateV1(rec);
            continue;
         }
         status = lusCallClientTimed(client, &ms, client->ops.runtimeRestore, (void *)rec, portID,
                                     rec->state, (uint32_t)rec->stateLen, 0u);
         if (status != HYK_OK) {
            LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Restore Runtime State FAIL for client %s : %s\n",
                           client->clientName);
            LUS_RemovePortFromMapV1(lusPerPortHashMap, portID);
            LUS_LOG(LUS_LOG_INFO, "runtimeRestore FAILED on portID 0x%x (%d) ...\n", portID,
                    (int)portID);
            return HYK_OK;
         }
         LUS_LOG(LUS_LOG_VERBOSE, "Client: %s CB duration (ms): %lu \n", client->clientName,
                 (unsigned long)ms);
         LUS_LOG(LUS_LOG_VERBOSE, "PortID: %d client: %s Runtime state Restore SUCCESS \n",
                 (int)portID, client->clientName);
         lusDropStateV1(rec);
      }
   }

   LUS_LOG(LUS_LOG_INFO, "Custom Unblock port: 0x%x (%d)\n", portID, (int)portID);
   status = hyk_PortCustomUnblock(portID, LUS_PORT_BLOCK_REASON, 0);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Custom Unblock Port 0x%x FAILED : %s\n", portID);
   }
   return HYK_OK;
}

/*
 * The pull restore: a to-build client of registration type 4 asks for its
 * own state of one port.  The port is unblocked when the last client with
 * state waiting has pulled it; `valid` then says the port is done, so a late
 * pull finds nothing.  The read side of lusClientLock, taken inside the
 * portset reference, keeps the clients registered while the callback runs.
 */
void lusGetRestoreState(char *clientName, uint32_t portID)
{
   hyk_Portset *ps = nullptr;
   bool othersPending = false;
   hyk_Status status = HYK_OK;
   uint64_t ms = 0;
   LusPortInstV1 *port;
   LusClientInst *failed = nullptr;

   status = hyk_PortsetAcquireByPortID(portID, HYK_PORTSET_ACCESS_EXCL, &ps);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Error acquiring portset for portId 0x%x : %s\n",
                     portID);
      return;
   }
   hyk_RWSpinlockReadLock(lusClientLock);
   if (lusClientsUnregistered != 0) {
      goto out;
   }
   port = lusLookupPortV1(lusPerPortHashMap, portID);
   if (port == nullptr || __atomic_load_n(&port->valid, __ATOMIC_RELAXED) == 0) {
      goto out;
   }

   for (LusListLinks *e = port->clients.next; e != &port->clients; e = e->next) {
      LusClientInst *rec = reinterpret_cast<LusClientInst *>(e);
      ClientEntry *client = rec->toClient;
      if (rec->stateLen == 0 || client == nullptr) {
         continue;
      }
      if (lusStrNCmp(client->clientName, clientName, LUS_CLIENT_NAME_LEN) != 0) {
         othersPending = true;
         continue;
      }
      if (client->ops.runtimeRestore == nullptr) {
         continue;
      }
      status = lusCallClientTimed(client, &ms, client->ops.runtimeRestore, (void *)rec, portID,
                                  rec->state, (uint32_t)rec->stateLen, 0u);
      if (status != HYK_OK) {
         failed = rec;
         break;
      }
      LUS_LOG(LUS_LOG_VERBOSE, "Client: %s CB duration (ms): %lu \n", client->clientName,
              (unsigned long)ms);
      lusDropStateV1(rec);
      LUS_LOG(LUS_LOG_VERBOSE, "LUS restored state for client %s port 0x%x\n",
              client->clientName, portID);
   }

   if (failed != nullptr) {
      /* A port restored in part is worse than none: every client's state goes. */
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Restore Runtime state FAIL for client %s port 0x%x : %s\n",
                     failed->toClient->clientName, portID);
      for (LusListLinks *e = port->clients.next; e != &port->clients; e = e->next) {
         lusReportDropV1(__func__, portID, reinterpret_cast<LusClientInst *>(e));
         lusDropStateV1(reinterpret_cast<LusClientInst *>(e));
      }
      if (!othersPending) {
         __atomic_store_n(&port->valid, 0, __ATOMIC_RELAXED);
      }
   } else if (!othersPending) {
      status = hyk_PortCustomUnblock(portID, LUS_PORT_BLOCK_REASON, 0);
      if (status != HYK_OK) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Failed to custom unblock port: 0x%x : %s\n",
                        portID);
      }
      __atomic_store_n(&port->valid, 0, __ATOMIC_RELAXED);
   }

out:
   hyk_RWSpinlockReadUnlock(lusClientLock);
   hyk_PortsetRelease(&ps);
}

/* ---- restore drivers and whole-upgrade hooks ---------------------------------------------- */

/*
 * Edition migration: the to-build clients register, every port of every
 * upgraded portset is restored with both events counted as seen, and the
 * clients are unregistered.  A portset that cannot be acquired or walked
 * abandons the whole migration and clears the clients.
 */
hyk_Status LUS_Restore(uint8_t legacyEdition)
{
   hyk_Status status = LUS_Reg(legacyEdition, LUS_REG_TO);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "LUS Registration FAIL : %s\n");
      return status;
   }

   for (uint32_t i = 0; i < numPortsets && i < LUS_MAX_PORTSETS; i++) {
      hyk_Portset *ps = nullptr;
      status = hyk_PortsetAcquireByName(lusPortset[i], HYK_PORTSET_ACCESS_EXCL, &ps);
      if (status != HYK_OK) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Error acquiring portset during Restore %s  : %s\n",
                        lusPortset[i]);
         LUS_ClientClear(0);
         return status;
      }
      status = hyk_PortsetForAllPorts(ps, lusRestoreV2T, nullptr);
      if (status != HYK_OK) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Restoring LUS Runtime data FAIL : %s\n");
         hyk_PortsetRelease(&ps);
         LUS_ClientClear(0);
         return status;
      }
      hyk_PortsetRelease(&ps);
   }

   status = LUS_Unreg(legacyEdition);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "LUS Unregistration FAIL : %s\n");
   }
   return status;
}

/* Visitor of the upgrade world's dual-load walk. */
hyk_Status LUS_RestoreDualLoad(hyk_Portset *ps, hyk_PortID portID, void *data)
{
   hyk_Status status = lusRestoreV1(portID);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Fail to restore LUS state for portID %d : %s\n",
                     (int)portID);
   }
   return status;
}

/*
 * Lets each old-build client clean up before the new build is loaded beside
 * it.  The first failure stops the notice: the tool must not load the new
 * build over a client that could not make room for it.
 */
hyk_Status LUS_PreDualLoad(void)
{
   for (int32_t i = 0; i < numFromClients && i < LUS_MAX_CLIENTS; i++) {
      ClientEntry *client = &fromClients[i];
      uint64_t ms = 0;
      if (client->inUse == 0 || client->ops.preDualLoadCB == nullptr) {
         continue;
      }
      LUS_LOG(LUS_LOG_INFO, "Calling PreDualLoad cleanup for Module %s\n", client->clientName);
      hyk_Status status = lusCallClientTimed(client, &ms, client->ops.preDualLoadCB, client);
      if (status != HYK_OK) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, status, "preDualLoadCB FAIL for client %s : %s\n",
                        client->clientName);
         return status;
      }
      LUS_LOG(LUS_LOG_VERBOSE, "Client: %s CB duration (ms): %lu \n", client->clientName,
              (unsigned long)ms);
   }
   return HYK_OK;
}

/*
 * Tells the tool whether per-port state is still waiting in the port-phase
 * map (HYK_NO_DATA) or all of it has been handed over.  Pull restores may
 * be freeing buffers meanwhile; a buffer is read atomically for that.
 */
hyk_Status LUS_StateRestoreComplete(void)
{
   hyk_Status status = HYK_OK;
   lusMapLockTake();
   LusHashMap *map = lusPerPortHashMap;
   if (map == nullptr) {
      lusMapLockDrop();
      return HYK_OK;
   }
   LusHashBucket *buckets = TarnHash_Buckets(map);
   for (uint32_t b = 0; b <= map->bucketMask && status == HYK_OK; b++) {
      LusListLinks *chain = &buckets[b].chain;
      for (LusListLinks *p = chain->next; p != chain && status == HYK_OK; p = p->next) {
         LusPortInstV1 *port = reinterpret_cast<LusPortInstV1 *>(p);
         for (LusListLinks *e = port->clients.next; e != &port->clients; e = e->next) {
            LusClientInst *rec = reinterpret_cast<LusClientInst *>(e);
            if (__atomic_load_n(&rec->state, __ATOMIC_RELAXED) != nullptr) {
               status = HYK_NO_DATA;
               break;
            }
         }
      }
   }
   lusMapLockDrop();
   return status;
}

/* ---- outage accounting ----------------------------------------------------------------------- */

/*
 * Reports how long a port has been out of service, in whole seconds of the
 * monotonic counter since the tool started the outage clock.  The 32-bit
 * difference wraps on purpose: an outage clock that was never started (or
 * started after a counter reset) shows as a huge value that trips any limit.
 * Exceeding the allowed outage is only reported; the restore goes on.
 */
void LUS_CheckOutage(uint32_t portID)
{
   uint64_t counter = hyk_TimerMonotonicCounter();
   uint64_t freq = hyk_GetMonotonicCounterFrequency();
   uint32_t nowSec = (uint32_t)(counter / freq);
   uint32_t elapsed = nowSec - __atomic_load_n(&startOutageTime, __ATOMIC_RELAXED);
   uint32_t allowed = __atomic_load_n(&maxAllowedOutageTime, __ATOMIC_RELAXED);

   LUS_LOG(LUS_LOG_INFO, "Port 0x%x LUS block outage in Seconds: %d\n", portID, (int)elapsed);
   if (elapsed > allowed && allowed != 0) {
      LUS_LOG(LUS_LOG_INFO,
              "Port 0x%x has been blocked in LUS for:  %d Sec, Allowed duration: %d Sec\n",
              portID, (int)elapsed, (int)allowed);
   }
}
