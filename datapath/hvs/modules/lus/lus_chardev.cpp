/*
 * lus_chardev.cpp -- the control device "lus" through which the upgrade
 * tool drives every step of an upgrade, one ioctl per step, and the parts
 * of a portset upgrade that talk to the switch: port blocking, the switch's
 * upgrade-property namespaces and the cswitch events.
 *
 * The device keeps no per-open state and takes no lock: the tool issues one
 * command at a time.  Every command copies its payload into a buffer of
 * lusHeapID_0 and frees it before it returns; the portset upgrade (command
 * 9) hands its buffer to the upgrade world and frees it only once the world
 * is dead.
 *
 * The device is the module's attack surface.  No command reads beyond the
 * bytes it copied or beyond a fixed-size field, whatever the counts and
 * lengths in the payload say: a payload too short for what a command is
 * about to read is refused with bad parameter, and portset names are cut to
 * their 128-byte field before anything uses them as strings.
 */
#include "lus_int.h"

HYK_EXTERN_C_BEGIN

constinit hyk_CharDevHandle lusCharDevHandle = 0;
/* Portsets taking part in the upgrade, filled by the commands that list them. */
constinit char lusPortset[LUS_MAX_PORTSETS][LUS_PORTSET_NAME_LEN] = {};
/* The caller's count, written before it is checked: a rejected count stays. */
constinit uint32_t numPortsets = 0;
/* Written by the block command, read by the outage accounting in event context. */
constinit uint32_t startOutageTime = 0;
constinit uint32_t maxAllowedOutageTime = 0;

HYK_EXTERN_C_END

/*
 * The start function of the upgrade world.  A test build of the module may
 * name another one (a world that ends without reporting, which the shipped
 * world never does) to check what the command makes of such a world.
 */
#ifdef LUS_UPGRADE_WORLD_START
hyk_Status LUS_UPGRADE_WORLD_START(void *data);
#else
#define LUS_UPGRADE_WORLD_START LUSUpgradeWorld
#endif

/* Switches above this fabric version keep some vNIC ports running through an upgrade. */
#define LUS_FABRIC_VERSION_SELECTIVE_BLOCK 106u
#define LUS_PORT_PROP_EXTERNAL_ID "com.corvid.port.extraConfig.vnic.external.id"

#define LUS_NS_FROM_BUILD "tarnUpgradeFromBuild"
#define LUS_NS_TO_BUILD "tarnUpgradeToBuild"
#define LUS_EVENT_CSWITCH_DEACTIVATE "com.corvid.tarn.lus.cswitch.deactivate"
#define LUS_EVENT_CSWITCH_ACTIVATE "com.corvid.tarn.lus.cswitch.activate"
#define LUS_EVENT_NAME_LEN 64
#define LUS_MODULE_NAME_LEN 32

#define LUS_UPGRADE_WORLD_NAME "LUSPsUpgradeWorld"

/* ---- names ---------------------------------------------------------------------- */

hyk_Status lusFormatNameU32(char *buf, uint32_t len, const char *prefix, uint32_t value)
{
   char digits[10];
   uint32_t numDigits = 0;
   do {
      digits[numDigits++] = (char)('0' + value % 10);
      value /= 10;
   } while (value != 0);

   uint32_t prefixLen = lusStrNLen(prefix, len);
   if (len == 0 || prefixLen + numDigits >= len) {
      if (len != 0) {
         buf[0] = '\0';
      }
      return HYK_NAME_TOO_LONG;
   }
   uint32_t at = 0;
   for (; at < prefixLen; at++) {
      buf[at] = prefix[at];
   }
   while (numDigits != 0) {
      buf[at++] = digits[--numDigits];
   }
   buf[at] = '\0';
   return HYK_OK;
}

/*
 * A portset name taken from a payload: the caller may have filled all 128
 * bytes.  The last byte of the field becomes the terminator, so the name is
 * a string within its field for the host calls and log lines that use it
 * (host portset names are at most 127 characters, so no real name changes).
 */
static inline void lusBoundName(char *field)
{
   field[LUS_PORTSET_NAME_LEN - 1] = '\0';
}

/* ---- port blocking ---------------------------------------------------------------- */

/*
 * Visitor of hyk_PortsetForAllPorts: blocks the vNIC and container ports of
 * the portset.  On switches above version 106 (blockFlag 1) a vNIC keeps
 * running unless it is on an LSPG or carries an external id, because only
 * those ports have datapath state that moves with the upgrade.
 */
hyk_Status lusPortBlock(hyk_Portset *ps, hyk_PortID portID, void *blockFlag)
{
   uint32_t clientType = 0;
   hyk_Status status = hyk_PortGetClientType(portID, &clientType);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Failed to get port client type : %s\n");
      return status;
   }
   if (clientType != HYK_PORT_CLIENT_VNIC && clientType != HYK_PORT_CLIENT_CONTAINER) {
      return HYK_OK;
   }

   if (*static_cast<const uint8_t *>(blockFlag) != 0) {
      uint8_t isLSPG = 0;
      status = hyk_FabricPortFlagIsSet(portID, HYK_FABRIC_PORT_FLAG_LSPG, &isLSPG);
      if (status != HYK_OK) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Failed to get LSPG flag for port %d : %s\n",
                        (int)portID);
         return status;
      }
      if (!isLSPG) {
         void *value = nullptr;
         uint32_t valueLen = 0;
         if (hyk_FabricPortDataGet(portID, LUS_PORT_PROP_EXTERNAL_ID, &value, &valueLen) != HYK_OK) {
            return HYK_OK;
         }
      }
   }

   LUS_LOG(LUS_LOG_VERBOSE, "lusPortBlock port: 0x%x (%d)\n", portID, (int)portID);
   status = hyk_PortCustomBlock(portID, LUS_PORT_BLOCK_REASON, 0);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Failed to custom block port 0x%x : %s\n", portID);
      return status;
   }
   return HYK_OK;
}

/* Other modules ask before they act on their own; while lus is loaded the answer is yes. */
int32_t LUS_UpgradeInProgress(void)
{
   return 1;
}

/* ---- switch properties and switch events ------------------------------------------ */

/*
 * Registers (reg true) or unregisters the payload's modules with the
 * switch's upgrade-property namespaces: from-build modules under
 * "tarnUpgradeFromBuild", to-build ones under "tarnUpgradeToBuild".  The
 * payload's module list has been checked against the bytes copied by the
 * command that brought it.  Stops at the first failure; nothing done before
 * it is undone here.
 */
hyk_Status LUSFabricPropUpgradeRegUnreg(const char *psName, const LusPsUpgradeQuery *payload,
                                        bool reg)
{
   hyk_Name fromNs = {};
   hyk_Name toNs = {};
   hyk_Status status = hyk_NameInitialize(&fromNs, LUS_NS_FROM_BUILD);
   if (status == HYK_OK) {
      status = hyk_NameInitialize(&toNs, LUS_NS_TO_BUILD);
   }
   if (status != HYK_OK) {
      return status;
   }

   hyk_Portset *ps = nullptr;
   status = hyk_PortsetAcquireByName(psName, HYK_PORTSET_ACCESS_EXCL, &ps);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Error acquiring portset lock %s : %s\n", psName);
      return status;
   }

   for (uint32_t i = 0; i < payload->numModules; i++) {
      const LusPsUpgradeModule *module = &payload->modules[i];
      const bool fromBuildModule = module->isFromBuild != 0;
      const hyk_Name *ns = fromBuildModule ? &fromNs : &toNs;
      const char *nsName = fromBuildModule ? LUS_NS_FROM_BUILD : LUS_NS_TO_BUILD;
      const uint32_t moduleID = module->moduleID;

      if (reg) {
         status = hyk_PortsetFabricPropUpgradeRegister(ps, ns, moduleID);
         /* A module left registered by an earlier attempt is what we want anyway. */
         if (status == HYK_EXISTS) {
            status = HYK_OK;
         }
         if (status != HYK_OK) {
            LUS_LOG_STATUS(LUS_LOG_ERROR, status,
                           "Failed to register module %u with namespace %s : %s\n", moduleID,
                           nsName);
            break;
         }
      } else {
         status = hyk_PortsetFabricPropUpgradeUnregister(ps, ns, moduleID);
         if (status != HYK_OK) {
            LUS_LOG(LUS_LOG_INFO, "Failed(%s) to unregister module %u from namespace %s\n",
                    hyk_StatusToString(status), moduleID, nsName);
            break;
         }
      }
   }

   hyk_PortsetRelease(&ps);
   return status;
}

/*
 * Tells the switch modules of an acquired portset to hand over: the old
 * build deactivates first, then the new build activates.  A failed
 * deactivation posts no activation, so two builds never drive the switch.
 */
hyk_Status lusRaiseCswitchEvents(hyk_Portset *ps)
{
   const struct {
      const char *base;
      uint32_t build;
   } events[] = {
      {LUS_EVENT_CSWITCH_DEACTIVATE, fromBuild},
      {LUS_EVENT_CSWITCH_ACTIVATE, toBuild},
   };

   for (const auto &event : events) {
      /* "<base>.<build>": the base name and its point, then the build number. */
      char prefix[LUS_EVENT_NAME_LEN] = {};
      uint32_t baseLen = lusStrNLen(event.base, LUS_EVENT_NAME_LEN - 2);
      for (uint32_t i = 0; i < baseLen; i++) {
         prefix[i] = event.base[i];
      }
      prefix[baseLen] = '.';

      char eventName[LUS_EVENT_NAME_LEN] = {};
      hyk_Status status = lusFormatNameU32(eventName, sizeof(eventName), prefix, event.build);
      if (status != HYK_OK) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, status,
                        "Failed to construct event name %s for build: %u : %s\n", event.base,
                        event.build);
         return status;
      }
      status = hyk_NetEventPortsetEventPost(0, eventName, ps, nullptr, 0);
      if (status != HYK_OK) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Failed to post netevent %s on ps %s : %s\n",
                        eventName, hyk_PortsetName(ps));
         return status;
      }
   }
   return HYK_OK;
}

/* ---- device registration ------------------------------------------------------------ */

/* Named, like every operation of the module, so that a debugger finds the device's table. */
HYK_EXTERN_C_BEGIN
constinit const hyk_CharDevOps charDevOps = {
   lusCharDevOpen, lusCharDevClose, lusCharDevIoctl, nullptr, nullptr, nullptr,
};
HYK_EXTERN_C_END

hyk_Status lusCharDevActivate(void)
{
   hyk_Status status = hyk_CharDevRegister(lusModID, LUS_CHARDEV_NAME, &charDevOps,
                                           lusCharDevUnregCleanup, nullptr, &lusCharDevHandle);
   if (status != HYK_OK) {
      lusCharDevHandle = 0;
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Failed to register character device[%s] : %s\n",
                     LUS_CHARDEV_NAME);
   }
   return status;
}

/* The handle is dropped even when the host refuses: unload must go on. */
void lusCharDevDeactivate(void)
{
   if (lusCharDevHandle != 0) {
      hyk_Status status = hyk_CharDevUnregister(lusCharDevHandle);
      if (status != HYK_OK) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Failed to unregister char devices : %s\n");
      }
   }
   lusCharDevHandle = 0;
}

hyk_Status lusCharDevOpen(hyk_CharDevFile *file)
{
   return HYK_OK;
}

hyk_Status lusCharDevClose(hyk_CharDevFile *file)
{
   return HYK_OK;
}

hyk_Status lusCharDevUnregCleanup(void *privateData)
{
   return HYK_OK;
}

/* ---- taking payloads in ------------------------------------------------------------- */

/* Why a payload was not taken in; the handler logs it under its own name. */
enum LusIntakeRefusal {
   LUS_INTAKE_NONE,
   LUS_INTAKE_COUNT,   /* portset count above the table */
   LUS_INTAKE_ALLOC,   /* no buffer */
   LUS_INTAKE_COPY,    /* the caller's memory did not hold the payload */
   LUS_INTAKE_SIZE,    /* fewer bytes (or, where exact, other bytes) than the count asks for */
};

/*
 * The portset list of commands 0-5: the count goes straight into
 * numPortsets (a rejected count stays there), then count * 136 + 9 bytes are
 * copied whatever the header's length says, and the names go into
 * lusPortset.  On success *query is the caller's buffer to free.
 */
static hyk_Status lusPortsetListIn(const LusIoctlHeader *header, LusPortsetQuery **query,
                                   LusIntakeRefusal *refusal)
{
   *query = nullptr;
   *refusal = LUS_INTAKE_NONE;

   hyk_Status status = hyk_CopyFromUser(&numPortsets, header->data, sizeof(numPortsets));
   if (status != HYK_OK) {
      *refusal = LUS_INTAKE_COPY;
      return status;
   }
   const uint32_t count = numPortsets;
   if (count > LUS_MAX_PORTSETS) {
      *refusal = LUS_INTAKE_COUNT;
      return HYK_BAD_PARAM;
   }

   const uint32_t size = (uint32_t)LUS_PORTSET_QUERY_SIZE(count);
   LusPortsetQuery *buf = static_cast<LusPortsetQuery *>(LUS_AllocFromHeap(lusHeapID_0, size));
   if (buf == nullptr) {
      *refusal = LUS_INTAKE_ALLOC;
      return HYK_NO_MEMORY;
   }
   status = hyk_CopyFromUser(buf, header->data, size);
   if (status != HYK_OK) {
      LUS_Free(lusHeapID_0, buf);
      *refusal = LUS_INTAKE_COPY;
      return status;
   }

   /*
    * The count comes from the first copy: the caller may have changed the
    * payload's own count in between, and only `count` entries were copied.
    */
   for (uint32_t i = 0; i < count; i++) {
      lusBoundName(buf->entries[i].psName);
      lusStrNCpy(lusPortset[i], buf->entries[i].psName, LUS_PORTSET_NAME_LEN);
   }
   *query = buf;
   return HYK_OK;
}

/* Logs a portset-list refusal under the name of the handler that expands it. */
#define LUS_LOG_PORTSET_LIST_REFUSAL(refusal, status)                                    \
   do {                                                                                 \
      if ((refusal) == LUS_INTAKE_COUNT) {                                              \
         LUS_LOG_STATUS(LUS_LOG_ERROR, (status), "Invalid number of portsets %d : %s\n", \
                        (int)numPortsets);                                              \
      } else if ((refusal) == LUS_INTAKE_ALLOC) {                                       \
         LUS_LOG_STATUS(LUS_LOG_ERROR, (status),                                        \
                        "Could not allocate LUS memory for query : %s\n");              \
      }                                                                                 \
   } while (0)

/*
 * The payload of commands 6, 9, 13 and 14: exactly the header's length,
 * copied into a buffer of that size.  On success *payload is the caller's
 * buffer to free.
 */
static hyk_Status lusPayloadIn(const LusIoctlHeader *header, void **payload,
                               LusIntakeRefusal *refusal)
{
   *payload = nullptr;
   *refusal = LUS_INTAKE_NONE;

   void *buf = LUS_AllocFromHeap(lusHeapID_0, header->length);
   if (buf == nullptr) {
      *refusal = LUS_INTAKE_ALLOC;
      return HYK_NO_MEMORY;
   }
   hyk_Status status = hyk_CopyFromUser(buf, header->data, header->length);
   if (status != HYK_OK) {
      *refusal = LUS_INTAKE_COPY;
      /* Freed by the caller: command 9 clears the clients before it frees. */
      *payload = buf;
      return status;
   }
   *payload = buf;
   return HYK_OK;
}

/* Logs a payload refusal under the name of the handler that expands it. */
#define LUS_LOG_PAYLOAD_REFUSAL(refusal, status)                                         \
   do {                                                                                 \
      if ((refusal) == LUS_INTAKE_ALLOC) {                                              \
         LUS_LOG_STATUS(LUS_LOG_ERROR, (status),                                        \
                        "Could not allocate LUS memory for query : %s\n");              \
      } else if ((refusal) == LUS_INTAKE_COPY) {                                        \
         LUS_LOG_STATUS(LUS_LOG_ERROR, (status), "Failed to copy ioctl data : %s\n");    \
      }                                                                                 \
   } while (0)

/*
 * The portset list of commands 6 and 14, taken as the header's length says.
 * The module reads nothing it did not copy: a payload too short for its own
 * 9-byte head, a count above the table, or a length that does not cover the
 * entries (command 6: exactly; command 14: at least) is refused.  On success
 * *query is the caller's buffer to free; on a refusal nothing is left.
 */
static hyk_Status lusPortsetPayloadIn(const LusIoctlHeader *header, bool exactLength,
                                      LusPortsetQuery **query, uint32_t *count,
                                      LusIntakeRefusal *refusal)
{
   void *payload;
   *query = nullptr;
   *count = 0;
   hyk_Status status = lusPayloadIn(header, &payload, refusal);
   if (status != HYK_OK) {
      LUS_Free(lusHeapID_0, payload);
      return status;
   }
   const uint32_t length = header->length;
   LusPortsetQuery *buf = static_cast<LusPortsetQuery *>(payload);
   if (length < sizeof(LusPortsetQuery)) {
      *refusal = LUS_INTAKE_SIZE;
   } else if ((*count = buf->numPortsets) > LUS_MAX_PORTSETS) {
      *refusal = LUS_INTAKE_COUNT;
   } else if (exactLength ? length != LUS_PORTSET_QUERY_SIZE(*count)
                          : length < LUS_PORTSET_QUERY_SIZE(*count)) {
      *refusal = LUS_INTAKE_SIZE;
   } else {
      *query = buf;
      return HYK_OK;
   }
   LUS_Free(lusHeapID_0, buf);
   return HYK_BAD_PARAM;
}

/* Logs a refusal of lusPortsetPayloadIn under the name of the handler that expands it. */
#define LUS_LOG_PORTSET_PAYLOAD_REFUSAL(refusal, status, count)                          \
   do {                                                                                 \
      if ((refusal) == LUS_INTAKE_SIZE) {                                               \
         LUS_LOG_STATUS(LUS_LOG_ERROR, (status), "Invalid size of input query : %s\n");  \
      } else if ((refusal) == LUS_INTAKE_COUNT) {                                       \
         LUS_LOG_STATUS(LUS_LOG_ERROR, (status), "Invalid number of portsets %d : %s\n", \
                        (int)(count));                                                  \
      } else {                                                                          \
         LUS_LOG_PAYLOAD_REFUSAL(refusal, status);                                      \
      }                                                                                 \
   } while (0)

/* ---- command handlers ---------------------------------------------------------------- */

/* Commands 0-3: registration of type 1-4 for the listed portsets. */
hyk_Status CharDevLUSReg(const LusIoctlHeader *header, uint32_t regType)
{
   LusPortsetQuery *query;
   LusIntakeRefusal refusal;
   hyk_Status status = lusPortsetListIn(header, &query, &refusal);
   if (status != HYK_OK) {
      LUS_LOG_PORTSET_LIST_REFUSAL(refusal, status);
      return status;
   }

   status = LUS_Reg((uint8_t)(int32_t)query->legacyEdition, regType);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Registration FAIL : %s\n");
   }
   LUS_Free(lusHeapID_0, query);
   return status;
}

/* Command 4: save the state of every listed portset. */
hyk_Status CharDevLUSPreUnload(const LusIoctlHeader *header)
{
   LusPortsetQuery *query;
   LusIntakeRefusal refusal;
   hyk_Status status = lusPortsetListIn(header, &query, &refusal);
   if (status != HYK_OK) {
      LUS_LOG_PORTSET_LIST_REFUSAL(refusal, status);
      return status;
   }

   status = LUS_Save(query->legacyEdition);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "LUS PreUnload FAIL : %s\n");
   }
   LUS_Free(lusHeapID_0, query);
   return status;
}

/* Command 5: restore every listed portset. */
hyk_Status CharDevLUSRestore(const LusIoctlHeader *header)
{
   LusPortsetQuery *query;
   LusIntakeRefusal refusal;
   hyk_Status status = lusPortsetListIn(header, &query, &refusal);
   if (status != HYK_OK) {
      LUS_LOG_PORTSET_LIST_REFUSAL(refusal, status);
      return status;
   }

   status = LUS_Restore((uint8_t)(int32_t)query->legacyEdition);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "LUS Restore FAIL : %s\n");
   }
   LUS_Free(lusHeapID_0, query);
   return status;
}

/*
 * Command 6: starts the outage clock and blocks the ports of every listed
 * portset.  The clock starts before anything else, so the outage counts from
 * the moment the command arrived, even when the command is then refused.
 */
hyk_Status CharDevLUSBlockPorts(const LusIoctlHeader *header)
{
   const uint32_t now =
      (uint32_t)(hyk_TimerMonotonicCounter() / hyk_GetMonotonicCounterFrequency());
   __atomic_store_n(&startOutageTime, now, __ATOMIC_RELAXED);

   LusPortsetQuery *query;
   uint32_t count;
   LusIntakeRefusal refusal;
   hyk_Status status = lusPortsetPayloadIn(header, true, &query, &count, &refusal);
   if (status != HYK_OK) {
      LUS_LOG_PORTSET_PAYLOAD_REFUSAL(refusal, status, count);
      return status;
   }

   __atomic_store_n(&maxAllowedOutageTime, query->maxOutageTime, __ATOMIC_RELAXED);

   status = HYK_OK;
   for (uint32_t i = 0; i < count; i++) {
      char *psName = query->entries[i].psName;
      lusBoundName(psName);

      hyk_Portset *ps = nullptr;
      status = hyk_PortsetAcquireByName(psName, HYK_PORTSET_ACCESS_EXCL, &ps);
      if (status != HYK_OK) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Error acquiring portset during port block %s : %s\n",
                        psName);
         break;
      }
      uint32_t version = 0;
      status = hyk_PortsetLookupFabricVersion(ps, &version);
      if (status != HYK_OK) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Failed to get fabric version for ps %s : %s\n",
                        hyk_PortsetName(ps));
         hyk_PortsetRelease(&ps);
         break;
      }
      uint8_t blockFlag = version > LUS_FABRIC_VERSION_SELECTIVE_BLOCK ? 1 : 0;
      status = hyk_PortsetForAllPorts(ps, lusPortBlock, &blockFlag);
      if (status != HYK_OK) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Failed to block vnic ports : %s\n");
         hyk_PortsetRelease(&ps);
         break;
      }
      hyk_PortsetRelease(&ps);
   }

   LUS_Free(lusHeapID_0, query);
   return status;
}

/*
 * Command 9: upgrades one portset in the upgrade world and waits for it.
 * The world reads the payload buffer for its whole life, so the buffer is
 * freed only once the world is dead.
 */
hyk_Status CharDevLUSPsUpgrade(const LusIoctlHeader *header)
{
   void *payload;
   LusIntakeRefusal refusal;
   hyk_Status status = lusPayloadIn(header, &payload, &refusal);
   if (status != HYK_OK) {
      LUS_LOG_PAYLOAD_REFUSAL(refusal, status);
      if (refusal == LUS_INTAKE_COPY) {
         LUS_ClientClear(1);
      }
      LUS_Free(lusHeapID_0, payload);
      return status;
   }
   LusPsUpgradeQuery *query = static_cast<LusPsUpgradeQuery *>(payload);

   /*
    * The world reads the portset name and numModules module entries; a
    * payload too short for them is refused before anything is started.  A
    * malformed request changes nothing, so the clients stay registered for a
    * well-formed retry.
    */
   const uint32_t length = header->length;
   if (length < sizeof(LusPsUpgradeQuery) || length < LUS_PS_UPGRADE_QUERY_SIZE(query->numModules)) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_BAD_PARAM, "Invalid size of input query : %s\n");
      LUS_Free(lusHeapID_0, payload);
      return HYK_BAD_PARAM;
   }
   lusBoundName(query->psName);

   LusUpgradeCtx ctx;
   ctx.query = query;
   ctx.status = HYK_FAILURE;

   hyk_WorldProps props = {};
   props.name = LUS_UPGRADE_WORLD_NAME;
   props.moduleID = lusModID;
   props.start = LUS_UPGRADE_WORLD_START;
   props.data = &ctx;
   props.schedShares = HYK_WORLD_SCHED_DEFAULT;
   props.heap = lusHeapID_0;

   hyk_WorldID world = 0;
   status = hyk_WorldCreate(&props, &world);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Failed to create upgrade world for ps: %s : %s\n",
                     query->psName);
      LUS_ClientClear(1);
      LUS_Free(lusHeapID_0, payload);
      return status;
   }

   /* Each wait is a bounded slice; only the world's death (or its being gone) ends it. */
   do {
      status = hyk_WorldWaitForDeath(world);
   } while (status != HYK_OK && status != HYK_NO_SUCH_WORLD);

   status = __atomic_load_n(&ctx.status, __ATOMIC_ACQUIRE);
   LUS_Free(lusHeapID_0, payload);
   return status;
}

/* Command 13: deactivates the old or activates the new fast-datapath module of one portset. */
hyk_Status CharDevLUSFdpOp(const LusIoctlHeader *header)
{
   LusFdpCmdRecord record;
   for (uint32_t i = 0; i < sizeof(record); i++) {
      reinterpret_cast<uint8_t *>(&record)[i] = 0;
   }

   void *payload;
   LusIntakeRefusal refusal;
   hyk_Status status = lusPayloadIn(header, &payload, &refusal);
   if (status != HYK_OK) {
      LUS_LOG_PAYLOAD_REFUSAL(refusal, status);
      LUS_Free(lusHeapID_0, payload);
      return status;
   }
   /* Entry 0 is all that is read: the 9-byte head and one 136-byte entry. */
   if (header->length < LUS_PORTSET_QUERY_SIZE(1)) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_BAD_PARAM, "Invalid size of input query : %s\n");
      LUS_Free(lusHeapID_0, payload);
      return HYK_BAD_PARAM;
   }
   LusPortsetEntry *entry = &static_cast<LusPortsetQuery *>(payload)->entries[0];
   lusBoundName(entry->psName);
   const char *psName = entry->psName;
   const uint32_t op = entry->op;
   const uint32_t fdpMode = entry->fdpMode;

   lusStrNCpy(record.name, LUS_FDP_OP_NAME, sizeof(record.name));
   record.length = 16;

   char moduleName[LUS_MODULE_NAME_LEN];
   hyk_ModuleID moduleID;
   if (op == 0) {
      lusFormatNameU32(moduleName, sizeof(moduleName), "tarnq-fdp-", fromBuild);
      moduleID = hyk_ModuleGetID(moduleName);
      LUS_LOG(LUS_LOG_INFO, "PS: %s, FdpDeactivate: FDP FROM Build module: %s, modID: %d\n", psName,
              moduleName, (int)moduleID);
      record.deactivate = 1;
      record.moduleID = moduleID;
   } else if (op == 1) {
      lusFormatNameU32(moduleName, sizeof(moduleName), "tarnq-fdp-", toBuild);
      moduleID = hyk_ModuleGetID(moduleName);
      LUS_LOG(LUS_LOG_INFO, "PS: %s, FdpActivate: FDP Mode: %d, TO Build module: %s, modID: %d\n",
              psName, (int)fdpMode, moduleName, (int)moduleID);
      record.deactivate = 0;
      record.moduleID = moduleID;
      record.fdpMode = fdpMode;
   } else {
      LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_BAD_PARAM, "Invalid FDP Op mode : %s\n");
      LUS_Free(lusHeapID_0, payload);
      return HYK_BAD_PARAM;
   }

   status = hyk_FdpSwitchCommand(psName, LUS_FDP_SWITCH_CMD, &record, sizeof(record), nullptr,
                                 nullptr);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "FDP Operation FAIL, PS: %s : %s\n", psName);
   }
   LUS_Free(lusHeapID_0, payload);
   return status;
}

/* Command 14: raises the cswitch deactivate/activate events on every listed portset. */
hyk_Status CharDevLUSRaiseCswitchEvents(const LusIoctlHeader *header)
{
   /* Trailing bytes are tolerated here (unlike command 6); missing entries are not. */
   LusPortsetQuery *query;
   uint32_t count;
   LusIntakeRefusal refusal;
   hyk_Status status = lusPortsetPayloadIn(header, false, &query, &count, &refusal);
   if (status != HYK_OK) {
      LUS_LOG_PORTSET_PAYLOAD_REFUSAL(refusal, status, count);
      return status;
   }

   status = HYK_OK;
   for (uint32_t i = 0; i < count; i++) {
      char *psName = query->entries[i].psName;
      lusBoundName(psName);

      hyk_Portset *ps = nullptr;
      status = hyk_PortsetAcquireByName(psName, HYK_PORTSET_ACCESS_EXCL, &ps);
      if (status != HYK_OK) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Error acquiring portset lock, ps: %s : %s\n",
                        psName);
         break;
      }
      status = lusRaiseCswitchEvents(ps);
      hyk_PortsetRelease(&ps);
      if (status != HYK_OK) {
         break;
      }
   }

   LUS_Free(lusHeapID_0, query);
   return status;
}

/* ---- commands without a payload list ---------------------------------------------------- */

static hyk_Status lusCmdRegFrom(const LusIoctlHeader *header)
{
   return CharDevLUSReg(header, LUS_REG_FROM);
}

static hyk_Status lusCmdRegTo(const LusIoctlHeader *header)
{
   return CharDevLUSReg(header, LUS_REG_TO);
}

static hyk_Status lusCmdRegFromV1(const LusIoctlHeader *header)
{
   return CharDevLUSReg(header, LUS_REG_FROM_V1);
}

static hyk_Status lusCmdRegToV1(const LusIoctlHeader *header)
{
   return CharDevLUSReg(header, LUS_REG_TO_V1);
}

static hyk_Status lusCmdPreDualLoad(const LusIoctlHeader *header)
{
   return LUS_PreDualLoad();
}

static hyk_Status lusCmdGlobalConfig(const LusIoctlHeader *header)
{
   return LUS_GlobalConfigSaveRestore();
}

/*
 * Command 10: the 9-byte single-port payload, whatever the header's length.
 * The port upgrade's own status is not the tool's business: the port is
 * left to the new build either way.
 */
static hyk_Status lusCmdUpgradePort(const LusIoctlHeader *header)
{
   LusUpgradePortQuery query;
   hyk_Status status = hyk_CopyFromUser(&query, header->data, sizeof(query));
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Failed to copy ioctl data : %s\n");
      return status;
   }
   (void)LUS_UpgradePort(query.arg0, query.portID, query.mode);
   return HYK_OK;
}

/* Command 11: completion is a notice to the clients; how they took it does not fail the tool. */
static hyk_Status lusCmdStateCollected(const LusIoctlHeader *header)
{
   LUS_StateCollectionComplete();
   return HYK_OK;
}

static hyk_Status lusCmdRestoreComplete(const LusIoctlHeader *header)
{
   return LUS_StateRestoreComplete();
}

typedef hyk_Status (*LusIoctlHandler)(const LusIoctlHeader *header);

/* One row per command number; a number without a row is refused before dispatch. */
static constinit const LusIoctlHandler lusIoctlTable[LUS_IOCTL_NUM_CMDS] = {
   /* LUS_IOCTL_REG_FROM */ lusCmdRegFrom,
   /* LUS_IOCTL_REG_TO */ lusCmdRegTo,
   /* LUS_IOCTL_REG_FROM_EXT */ lusCmdRegFromV1,
   /* LUS_IOCTL_REG_TO_EXT */ lusCmdRegToV1,
   /* LUS_IOCTL_PRE_UNLOAD */ CharDevLUSPreUnload,
   /* LUS_IOCTL_RESTORE */ CharDevLUSRestore,
   /* LUS_IOCTL_BLOCK_PORTS */ CharDevLUSBlockPorts,
   /* LUS_IOCTL_PRE_DUAL_LOAD */ lusCmdPreDualLoad,
   /* LUS_IOCTL_GLOBAL_CONFIG */ lusCmdGlobalConfig,
   /* LUS_IOCTL_PS_UPGRADE */ CharDevLUSPsUpgrade,
   /* LUS_IOCTL_UPGRADE_PORT */ lusCmdUpgradePort,
   /* LUS_IOCTL_STATE_COLLECTED */ lusCmdStateCollected,
   /* LUS_IOCTL_RESTORE_COMPLETE */ lusCmdRestoreComplete,
   /* LUS_IOCTL_FDP_OP */ CharDevLUSFdpOp,
   /* LUS_IOCTL_CSWITCH_EVENTS */ CharDevLUSRaiseCswitchEvents,
};
static_assert(LUS_IOCTL_CSWITCH_EVENTS == 14 && LUS_IOCTL_NUM_CMDS == 15,
              "one table row per command number");

hyk_Status lusCharDevIoctl(hyk_CharDevFile *file, uint32_t cmd, hyk_UserVA arg)
{
   LusIoctlHeader header;
   hyk_Status status = hyk_CopyFromUser(&header, arg, sizeof(header));
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Failed to copy out ioctl data from user.  : %s\n");
      return status;
   }

   if (cmd >= LUS_IOCTL_NUM_CMDS) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_BAD_PARAM, "LUS - Unknown IOCTL cmd : %s\n");
      return HYK_BAD_PARAM;
   }

   /* The runtime-phase registrations pair two builds; without fromBuild there is no pair. */
   if ((cmd == LUS_IOCTL_REG_FROM_EXT || cmd == LUS_IOCTL_REG_TO_EXT) && fromBuild == 0xffffffffu) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, HYK_BAD_PARAM, "LUS not loaded with fromBuild MOD PARAM : %s\n");
      return HYK_BAD_PARAM;
   }

   /* A command owns the registry for its whole run, the upgrade world included. */
   lusRegistryAcquire();
   status = lusIoctlTable[cmd](&header);
   lusRegistryRelease();
   return status;
}
