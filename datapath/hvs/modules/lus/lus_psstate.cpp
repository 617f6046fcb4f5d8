/*
 * lus_psstate.cpp -- the clients' state that belongs to no port: global
 * configuration, global runtime state, and the runtime state of the portset
 * under upgrade.
 *
 * Global configuration goes straight from an old-build client to the
 * new-build client of the same name in one pass (command 8): the old client
 * saves into a buffer of its own, the new one restores from it, and the old
 * one is told how it went.  Portset runtime state is paired the same way,
 * one portset at a time, by the upgrade world (lus_upgrade.cpp): lusPsState
 * names the portset and lists the pairs.  The buffers stay the clients'
 * own; only the records that point at them come from lusHeapID_0.
 *
 * Save and restore passes stop at the first failing client; completion
 * notices never stop, a client that fails one is only reported.  Two
 * results are deliberately odd and kept: a pass reports the status of its
 * last to-build lookup, so a last client known only to the old build makes
 * the pass read as failed; and a failed portset completion is reported with
 * the wording of the save callback, the line the tooling greps for.
 *
 * Threads: command 8 runs on the control device's thread, the portset passes
 * on the upgrade world; neither takes a lock of its own (one upgrade at a
 * time is the tool's contract).
 */
#include "lus_int.h"

/* ---- calling clients ---------------------------------------------------------------- */

/*
 * Every callback runs as the client's own module and is timed; the duration
 * is only logged.  A hand-over cut short for being slow would lose state.
 */
template <typename Fn, typename... Args>
static inline hyk_Status lusPsCallTimed(const ClientEntry *client, uint64_t *ms, Fn fn,
                                        Args... args)
{
   const uint64_t startCounter = hyk_TimerMonotonicCounter();
   const uint64_t startFreq = hyk_GetMonotonicCounterFrequency();
   hyk_Status status;
   {
      LusModuleScope scope(client->moduleID, reinterpret_cast<const void *>(fn));
      status = fn(args...);
   }
   const uint64_t endCounter = hyk_TimerMonotonicCounter();
   const uint64_t endFreq = hyk_GetMonotonicCounterFrequency();
   *ms = endCounter * 1000 / endFreq - startCounter * 1000 / startFreq;
   return status;
}

static inline void lusPsLogDuration(const ClientEntry *client, uint64_t ms)
{
   LUS_LOG(LUS_LOG_VERBOSE, "Client: %s CB duration (ms): %lu \n", client->clientName,
           (unsigned long)ms);
}

/*
 * The new-build client of `from`'s name, or null.  `lookup` receives the
 * lookup's status, which the passes report as their own (see the top).
 */
static ClientEntry *lusPsToClientOf(const ClientEntry *from, hyk_Status *lookup)
{
   uint32_t idx = 0;
   *lookup = LUS_GetToClient(from->clientName, &idx);
   if (*lookup != HYK_OK || idx >= LUS_MAX_CLIENTS || toClients[idx].inUse == 0) {
      return nullptr;
   }
   return &toClients[idx];
}

/* ---- global configuration and global runtime state ------------------------------------ */

/*
 * Tells the old client how its configuration hand-over went.  A client
 * without the callback is not told; its answer is only reported, by the
 * caller, and never stops the pass.
 */
static hyk_Status lusGlobalConfigComplete(ClientEntry *from, uint32_t result)
{
   if (from->ops.globalComplete == nullptr) {
      return HYK_OK;
   }
   uint64_t ms = 0;
   hyk_Status status =
      lusPsCallTimed(from, &ms, from->ops.globalComplete, from, result, &from->clientContext);
   if (status == HYK_OK) {
      lusPsLogDuration(from, ms);
   }
   return status;
}

hyk_Status LUS_GlobalConfigSaveRestore(void)
{
   if (numFromClients < 1) {
      return HYK_OK;
   }

   hyk_Status result = HYK_OK;
   for (int32_t i = 0; i < numFromClients && i < LUS_MAX_CLIENTS; i++) {
      ClientEntry *from = &fromClients[i];
      void *buffer = nullptr;
      uint32_t length = 0;
      uint64_t ms = 0;

      if (from->inUse == 0 || from->ops.globalConfigSave == nullptr) {
         continue;
      }
      ClientEntry *to = lusPsToClientOf(from, &result);
      if (to == nullptr) {
         LUS_LOG(LUS_LOG_INFO,
                 "Client %s registered to LUS in from Build only. Skipping global config save/restore.\n",
                 from->clientName);
         continue;
      }
      if (to->ops.globalConfigRestore == nullptr) {
         LUS_LOG(LUS_LOG_INFO,
                 "Client %s has not registered for global config restore.Skipping global config save/restore.\n",
                 from->clientName);
         continue;
      }

      hyk_Status status = lusPsCallTimed(from, &ms, from->ops.globalConfigSave, from, &buffer,
                                         &length, &from->clientContext);
      if (status != HYK_OK) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Global config save CB failed for client %s : %s\n",
                        from->clientName);
         return status;
      }
      lusPsLogDuration(from, ms);
      LUS_LOG(LUS_LOG_INFO, "Client %s saved %u bytes of global config data\n", from->clientName,
              length);
      if (length == 0) {
         continue;
      }

      result = lusPsCallTimed(to, &ms, to->ops.globalConfigRestore, to, buffer, length);
      if (result == HYK_OK) {
         lusPsLogDuration(to, ms);
         status = lusGlobalConfigComplete(from, LUS_COMPLETE_SUCCESS);
         if (status != HYK_OK) {
            LUS_LOG_STATUS(LUS_LOG_ERROR, status,
                           "Global config complete CB failed for client %s : %s\n",
                           from->clientName);
         }
         continue;
      }
      /* The new client may hold half a configuration: nobody after it is handed anything. */
      LUS_LOG_STATUS(LUS_LOG_ERROR, result, "Global config restore CB failed for client %s : %s\n",
                     from->clientName);
      status = lusGlobalConfigComplete(from, LUS_COMPLETE_FAILURE);
      if (status != HYK_OK) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Global config complete CB failed for client %s : %s\n",
                        from->clientName);
      }
      return result;
   }
   return result;
}

void LUS_GlobalRuntimeComplete(uint32_t result)
{
   for (LusListLinks *e = lusGlobalState.next; e != &lusGlobalState; e = e->next) {
      LusGlobalStateEntry *entry = reinterpret_cast<LusGlobalStateEntry *>(e);
      if (entry->length == 0) {
         continue;
      }
      ClientEntry *client = entry->client;
      if (client->ops.globalComplete == nullptr) {
         /* Nobody to tell; the buffer is the client's to drop all the same. */
         entry->buffer = nullptr;
         entry->length = 0;
         continue;
      }
      uint64_t ms = 0;
      hyk_Status status = lusPsCallTimed(client, &ms, client->ops.globalComplete, client, result,
                                         &client->clientContext);
      /* Told once, whatever it answered: the buffer is the client's to drop now. */
      entry->buffer = nullptr;
      entry->length = 0;
      if (status != HYK_OK) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Global runtime save CB failed for client %s : %s\n",
                        client->clientName);
         continue;
      }
      lusPsLogDuration(client, ms);
      LUS_LOG(LUS_LOG_INFO, "Global complete CB called for client %s\n", client->clientName);
   }
}

void LUS_GlobalStateClientsDestroy(void)
{
   while (!LusList_IsEmpty(&lusGlobalState)) {
      LusListLinks *e = lusGlobalState.next;
      LusList_Remove(e);
      LUS_Free(lusHeapID_0, e);
   }
}

/* ---- portset runtime state ------------------------------------------------------------- */

hyk_Status LUS_PsClientsInit(void)
{
   hyk_Status lookup = HYK_OK;
   /*
    * A world that failed before it destroyed its list (tail 2) leaves
    * records behind; pairing again on top of them would save, restore and
    * complete those clients twice.
    */
   LUS_PsClientsDestroy();
   for (int32_t i = 0; i < numFromClients && i < LUS_MAX_CLIENTS; i++) {
      ClientEntry *from = &fromClients[i];
      if (from->inUse == 0 || from->ops.psRuntimeSave == nullptr) {
         continue;
      }
      ClientEntry *to = lusPsToClientOf(from, &lookup);
      if (to == nullptr) {
         LUS_LOG(LUS_LOG_INFO,
                 "Client %s registered to LUS in from Build only. Skipping ps runtime save/restore for %s\n",
                 from->clientName, lusPsState.name);
         continue;
      }
      if (to->ops.psRuntimeRestore == nullptr) {
         LUS_LOG(LUS_LOG_INFO,
                 "Client %s has not registered for ps runtime restore. Skipping ps runtime save/restore for %s \n",
                 from->clientName, lusPsState.name);
         continue;
      }

      LusPsClient *rec =
         static_cast<LusPsClient *>(LUS_AllocFromHeap(lusHeapID_0, sizeof(LusPsClient)));
      if (rec == nullptr) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_NO_MEMORY, "Could not allocate LUS memory : %s\n");
         /* Half a pairing would upgrade some clients' portset state and not others'. */
         LUS_PsClientsDestroy();
         return HYK_NO_MEMORY;
      }
      rec->fromClient = from;
      rec->toClient = to;
      rec->buffer = nullptr;
      rec->length = 0;
      LusList_InsertTail(&lusPsState.clients, &rec->link);
      LUS_LOG(LUS_LOG_VERBOSE, "LUS PS client %s init for ps %s\n", from->clientName,
              lusPsState.name);
   }
   return lookup;
}

hyk_Status LUS_PsRuntimeSave(hyk_Portset *ps)
{
   for (LusListLinks *e = lusPsState.clients.next; e != &lusPsState.clients; e = e->next) {
      LusPsClient *rec = reinterpret_cast<LusPsClient *>(e);
      ClientEntry *from = rec->fromClient;
      uint64_t ms = 0;
      hyk_Status status = lusPsCallTimed(from, &ms, from->ops.psRuntimeSave, from, ps, &rec->buffer,
                                         &rec->length, &from->clientContext);
      if (status != HYK_OK) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, status, "PS runtime save CB failed for client %s ps %s : %s\n",
                        from->clientName, lusPsState.name);
         /* Those that saved already are told the attempt is over, so the caller need not. */
         LUS_PsRuntimeComplete(ps, LUS_COMPLETE_FAILURE);
         return status;
      }
      lusPsLogDuration(from, ms);
      LUS_LOG(LUS_LOG_INFO, "Client %s saved %u bytes of runtime state for ps %s\n",
              from->clientName, rec->length, lusPsState.name);
   }
   return HYK_OK;
}

hyk_Status LUS_PsRuntimeRestore(hyk_Portset *ps)
{
   for (LusListLinks *e = lusPsState.clients.next; e != &lusPsState.clients; e = e->next) {
      LusPsClient *rec = reinterpret_cast<LusPsClient *>(e);
      if (rec->length == 0) {
         continue;
      }
      ClientEntry *to = rec->toClient;
      uint64_t ms = 0;
      hyk_Status status =
         lusPsCallTimed(to, &ms, to->ops.psRuntimeRestore, to, ps, rec->buffer, rec->length);
      if (status != HYK_OK) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, status,
                        "PS runtime restore CB failed for client %s ps %s : %s\n", to->clientName,
                        lusPsState.name);
         LUS_PsRuntimeComplete(ps, LUS_COMPLETE_FAILURE);
         return status;
      }
      lusPsLogDuration(to, ms);
      LUS_LOG(LUS_LOG_INFO, "Client %s restored %u bytes of runtime state for ps %s\n",
              to->clientName, rec->length, lusPsState.name);
   }
   return HYK_OK;
}

/*
 * Lengths are cleared whatever a client answers, so every client is told
 * once per attempt and a second call does nothing.
 */
void LUS_PsRuntimeComplete(hyk_Portset *ps, uint32_t result)
{
   for (LusListLinks *e = lusPsState.clients.next; e != &lusPsState.clients; e = e->next) {
      LusPsClient *rec = reinterpret_cast<LusPsClient *>(e);
      if (rec->length == 0) {
         continue;
      }
      ClientEntry *from = rec->fromClient;
      if (from->ops.psRuntimeComplete == nullptr) {
         rec->buffer = nullptr;
         rec->length = 0;
         continue;
      }
      uint64_t ms = 0;
      hyk_Status status = lusPsCallTimed(from, &ms, from->ops.psRuntimeComplete, from, ps, result,
                                         &from->clientContext);
      rec->buffer = nullptr;
      rec->length = 0;
      if (status != HYK_OK) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, status, "PS runtime save CB failed for client %s ps %s : %s\n",
                        from->clientName, lusPsState.name);
         continue;
      }
      lusPsLogDuration(from, ms);
      LUS_LOG(LUS_LOG_INFO, "PS complete CB called for client %s ps %s\n", from->clientName,
              lusPsState.name);
   }
}

void LUS_PsClientsDestroy(void)
{
   while (!LusList_IsEmpty(&lusPsState.clients)) {
      LusListLinks *e = lusPsState.clients.next;
      LusList_Remove(e);
      LUS_Free(lusHeapID_0, e);
   }
}
