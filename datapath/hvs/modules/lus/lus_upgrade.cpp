/*
 * lus_upgrade.cpp -- live upgrade of one portset in the upgrade world, and
 * the filter upgrade of one container port.
 *
 * LUSUpgradeWorld is the start function of the world "LUSPsUpgradeWorld"
 * that command 9 creates and waits for (lus_chardev.cpp).  In one pass it
 * enrols the portset's ports, registers the modules with the switch's
 * upgrade-property namespaces, blocks the ports, saves portset and per-port
 * state of the old build, hands the switch over to the new build (a class
 * hot swap, or the cswitch events for "cswitch" portsets), restores the
 * state into the new build and lets go.  It reports through its context:
 * the command returns whatever the world wrote there.
 *
 * Each failure jumps to the clean-up tail that undoes exactly what was done
 * so far; the tails fall into each other like the unwind labels of a driver
 * probe.  The first failure decides the status; what the tails run cannot
 * change it.
 *
 * LUS_UpgradePort (command 10) upgrades a single port outside a portset
 * upgrade: it saves the port's state (LUSPerPortUpgradeSave, lus_state.cpp),
 * moves its packet-filter property to the new build and waits, bounded, for
 * the new filter to take the state over.
 */
#include "lus_int.h"

#define LUS_NS_FROM_BUILD "tarnUpgradeFromBuild"
#define LUS_NS_TO_BUILD "tarnUpgradeToBuild"

/* Switches above this fabric version keep some vNIC ports running through an upgrade. */
#define LUS_FABRIC_VERSION_SELECTIVE_BLOCK 106u

#define LUS_CLASS_CSWITCH "cswitch"
#define LUS_CLASS_NULLDEV "nulldev"
#define LUS_CLASS_STUB "stub-vswitch"
#define LUS_VSWITCH_MODULE_PREFIX "tarnq-vswitch-"
#define LUS_STUB_VSWITCH_MODULE_PREFIX "tarnq-stub-vswitch-"
#define LUS_SWITCH_MODULE_NAME_LEN 32

/* The bounded wait for a port's filter to be destroyed and re-created: 20 x 100 ms. */
#define LUS_FILTER_WAIT_SLEEP_US 100000u
#define LUS_FILTER_WAIT_SLEEPS 20u

/* ---- the stub switch fallback -------------------------------------------------------- */

/*
 * After a failed hot swap: a portset whose class went to "nulldev" (its old
 * switch module is gone and the new one would not take it) switches
 * nothing, so it is put on the stub switch to stay usable.  The upgrade of
 * that portset is reported as failed all the same; the caller does that.
 *
 * The stub module's ID is looked up by the caller before it took
 * lusDummyLock: the host's module lookup may block.
 */
void lusSwaptoStubVswitch(hyk_Portset *ps, const char *psName, hyk_ModuleID stubModuleID)
{
   char className[HYK_CLASS_NAME_LEN] = {};
   hyk_Status status = hyk_PortsetLookupFabricClassName(ps, className, sizeof(className));
   if (status != HYK_OK || lusStrNCmp(className, LUS_CLASS_NULLDEV, HYK_CLASS_NAME_LEN) != 0) {
      return;
   }
   LUS_LOG(LUS_LOG_INFO, "Hotswap portset %s from nulldev to stub-vswitch\n", psName);
   status = hyk_PortsetClassHotSwap(ps, LUS_CLASS_STUB, stubModuleID);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "HotSwap to stub vswitch failed for portset %s : %s\n",
                     psName);
   }
}

/* ---- the upgrade world ------------------------------------------------------------------- */

/* The world's result: written last, read by the command once the world is reaped. */
static inline hyk_Status lusWorldReport(LusUpgradeCtx *ctx, hyk_Status status)
{
   __atomic_store_n(&ctx->status, status, __ATOMIC_RELEASE);
   return HYK_OK;
}

hyk_Status LUSUpgradeWorld(void *data)
{
   LusUpgradeCtx *ctx = static_cast<LusUpgradeCtx *>(data);
   const LusPsUpgradeQuery *query = ctx->query;
   const char *psName = query->psName;
   hyk_Name fromNs = {};
   hyk_Name toNs = {};
   hyk_Portset *ps = nullptr;
   hyk_Status status;
   uint32_t completion = LUS_COMPLETE_FAILURE;
   uint32_t version = 0;
   uint8_t blockFlag = 0;
   char className[HYK_CLASS_NAME_LEN] = {};
   char moduleName[LUS_SWITCH_MODULE_NAME_LEN] = {};
   char stubModuleName[LUS_SWITCH_MODULE_NAME_LEN] = {};
   hyk_ModuleID moduleID;
   hyk_ModuleID stubModuleID;

   /* 1: the namespaces, and the portset the portset-phase state is about. */
   status = hyk_NameInitialize(&fromNs, LUS_NS_FROM_BUILD);
   if (status == HYK_OK) {
      status = hyk_NameInitialize(&toNs, LUS_NS_TO_BUILD);
   }
   if (status != HYK_OK) {
      goto clearClients;
   }
   for (uint32_t i = 0; i < LUS_PORTSET_NAME_LEN; i++) {
      lusPsState.name[i] = '\0';
   }
   lusStrNCpy(lusPsState.name, psName, LUS_PORTSET_NAME_LEN);

   /* 2: every port of the portset, for every client pair. */
   status = LUS_ClientRegAllPS(psName);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status,
                     "Per portset Client Registration FAILED for portset %s : %s\n", psName);
      goto clearClients;
   }

   /* 3: the old and new modules, with the switch's upgrade properties (it logs). */
   status = LUSFabricPropUpgradeRegUnreg(psName, query, true);
   if (status != HYK_OK) {
      goto clearClients;
   }

   /* 4 */
   status = LUS_PsClientsInit();
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Failed to init LUS runtime client state : %s\n");
      goto unregisterModules;
   }

   /* 5 */
   status = hyk_PortsetAcquireByName(psName, HYK_PORTSET_ACCESS_EXCL, &ps);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Error acquiring portset lock %s : %s\n", psName);
      goto destroyPsClients;
   }

   /*
    * The switch modules of the new build are looked up now, before
    * lusDummyLock is taken: the host's module lookup may block, and nothing
    * may block under a spinlock.  A module that goes away in between makes
    * the hot swap fail, which is handled there.
    */
   lusFormatNameU32(moduleName, sizeof(moduleName), LUS_VSWITCH_MODULE_PREFIX, toBuild);
   moduleID = hyk_ModuleGetID(moduleName);
   lusFormatNameU32(stubModuleName, sizeof(stubModuleName), LUS_STUB_VSWITCH_MODULE_PREFIX,
                    toBuild);
   stubModuleID = hyk_ModuleGetID(stubModuleName);

   /* 6: held until the portset is let go, so no other path of the module runs meanwhile. */
   hyk_SpinlockLock(lusDummyLock);

   /* 7, 8 */
   status = hyk_PortsetLookupFabricVersion(ps, &version);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Failed to get fabric version for ps %s : %s\n",
                     hyk_PortsetName(ps));
      goto releasePortset;
   }
   blockFlag = version > LUS_FABRIC_VERSION_SELECTIVE_BLOCK ? 1 : 0;

   /* 9, 10 */
   LUS_LOG(LUS_LOG_INFO, "Starting upgrade for portset %s\n", psName);
   status = hyk_PortsetForAllPorts(ps, lusPortBlock, &blockFlag);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Failed to block vnic ports : %s\n");
      goto releasePortset;
   }

   /* 11: a failed save has told the clients itself, hence no completion here. */
   status = LUS_PsRuntimeSave(ps);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "PortSet runtime save failed of ps %s : %s\n", psName);
      goto releasePortset;
   }

   /* 12, 13 */
   status = hyk_PortsetForAllPorts(ps, LUS_GetTotalSizeV1, nullptr);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Failed to getSize for LUS per port state : %s\n");
      goto completePs;
   }
   status = hyk_PortsetForAllPorts(ps, LUS_SaveStateV1, nullptr);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Failed to save LUS per port runtime state : %s\n");
      goto completePs;
   }

   /* 14, 15 */
   LUS_LOG(LUS_LOG_INFO, "LUS state collection complete.\n");
   LUS_LOG(LUS_LOG_INFO, "Starting FabricSW properties clear for upgrade.\n");
   status = hyk_PortsetFabricPropUpgradeClear(ps, &fromNs);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Error using the new clear API %s : %s\n", psName);
      goto completePs;
   }
   LUS_LOG(LUS_LOG_INFO, "FabricSW properties clear for upgrade completed\n");

   /* 16 was done before the lock; 17 */
   status = hyk_PortsetLookupFabricClassName(ps, className, sizeof(className));
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Error fetching className for psName %s : %s\n",
                     psName);
      goto completePs;
   }

   /* 18: "cswitch" modules hand over among themselves; every other class is swapped. */
   if (lusStrNCmp(className, LUS_CLASS_CSWITCH, HYK_CLASS_NAME_LEN) == 0) {
      status = lusRaiseCswitchEvents(ps);
      if (status != HYK_OK) {
         goto completePs;
      }
   } else {
      status = hyk_PortsetClassHotSwap(ps, className, moduleID);
      if (status != HYK_OK) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, status, "HotSwap failed for ps %s with class %s : %s\n",
                        psName, className);
         lusSwaptoStubVswitch(ps, psName, stubModuleID);
         goto completePs;
      }
   }
   LUS_LOG(LUS_LOG_INFO, "Hotswap completed.\n");

   /* 20 */
   status = hyk_PortsetFabricPropUpgradeSet(ps, &toNs);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Error using the new set API %s : %s\n", psName);
      goto completePs;
   }
   LUS_LOG(LUS_LOG_INFO, "FabricSW properties set for upgrade completed\n");

   /* 21 */
   status = LUS_PsRuntimeRestore(ps);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "PortSet runtime restore failed of ps %s : %s\n",
                     psName);
      goto completePs;
   }

   /* 22, 23: the portset already runs on the new build, so its clients hear success. */
   LUS_LOG(LUS_LOG_INFO, "Starting per port LUS state restore.\n");
   status = hyk_PortsetForAllPorts(ps, LUS_RestoreDualLoad, nullptr);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Failed to restore LUS per port runtime state : %s\n");
      completion = LUS_COMPLETE_SUCCESS;
      goto completePs;
   }

   /* 24: the clients stay registered; only this portset's enrolment goes. */
   LUS_LOG(LUS_LOG_INFO, "Portset %s upgrade completed\n", psName);
   hyk_SpinlockUnlock(lusDummyLock);
   hyk_PortsetRelease(&ps);
   /* The portset is let go first; the clients hear of success without a handle to it. */
   LUS_PsRuntimeComplete(ps, LUS_COMPLETE_SUCCESS);
   LUS_PsClientsDestroy();
   LUSFabricPropUpgradeRegUnreg(psName, query, false);
   LUS_HashEmpty(1, lusHashMap);
   return lusWorldReport(ctx, HYK_OK);

completePs: /* tail 5 */
   LUS_PsRuntimeComplete(ps, completion);
releasePortset: /* tail 4 */
   hyk_SpinlockUnlock(lusDummyLock);
   hyk_PortsetRelease(&ps);
destroyPsClients: /* tail 3 */
   LUS_PsClientsDestroy();
unregisterModules: /* tail 2 */
   LUSFabricPropUpgradeRegUnreg(psName, query, false);
clearClients: /* tail 1 */
   LUS_ClientClear(1);
   return lusWorldReport(ctx, status);
}

/* ---- the filter upgrade of a single port --------------------------------------------------- */

hyk_Status LUSContainerFilterUpgrade(uint32_t portID, const void *value, uint32_t length)
{
   hyk_Status status = hyk_FabricPortDataClear(portID, LUS_PORT_PROP_PFILTER_ALT);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Failed to clear fabricsw prop %s for port 0x%x : %s\n",
                     LUS_PORT_PROP_PFILTER_ALT, portID);
      return status;
   }
   if (value == nullptr) {
      return HYK_OK;
   }
   status = hyk_FabricPortDataSet(portID, LUS_PORT_PROP_PFILTER_ALT, value, length,
                                  HYK_FABRIC_DATA_PERSIST);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Failed to set fabricsw prop %s for port 0x%x : %s\n",
                     LUS_PORT_PROP_PFILTER_ALT, portID);
      return status;
   }
   return HYK_OK;
}

/*
 * `arg0` is carried in the command for the tool's own bookkeeping and is
 * not used here.  With `mode` set the filter property moves to the new
 * build and the new filter is waited for; with `mode` 0 the port's filters
 * are only revalidated.  A port without a record has no state of ours: with
 * `mode` set only its property moves, with `mode` 0 nothing is done.
 */
hyk_Status LUS_UpgradePort(uint32_t arg0, uint32_t portID, int8_t mode)
{
   (void)arg0;
   hyk_Portset *ps = nullptr;
   void *copy = nullptr;
   bool waitForFilter = false;
   hyk_Status status;

   /* Absent is not an error: the port simply carries no state of ours. */
   LusPortInstV1 *port = lusLookupPortV1(lusPerPortHashMap, portID);

   status = hyk_PortsetAcquireByPortID(portID, HYK_PORTSET_ACCESS_EXCL, &ps);
   if (status != HYK_OK) {
      LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Error acquiring portset for portId 0x%x : %s\n",
                     portID);
      return status;
   }

   if (mode != 0) {
      void *value = nullptr;
      uint32_t length = 0;
      status = hyk_FabricPortDataGet(portID, LUS_PORT_PROP_PFILTER_ALT, &value, &length);
      if (status != HYK_OK) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Get prop for Associated port 0x%x failed: %s\n",
                        portID);
         goto out;
      }
      /*
       * The host's copy changes with the property, which we are about to
       * clear: keep our own.  An empty value is nothing to carry over, and
       * the property then stays cleared.
       */
      if (length != 0 && value != nullptr) {
         copy = LUS_AllocFromHeap(lusHeapID_0, length);
         if (copy == nullptr) {
            status = HYK_NO_MEMORY;
            LUS_LOG_STATUS(LUS_LOG_ERROR, status, "LUS Mem alloc failed : %s\n");
            goto out;
         }
         __builtin_memcpy(copy, value, length);
      }
      if (port != nullptr) {
         status = hyk_PortCustomBlock(portID, LUS_PORT_BLOCK_REASON, 0);
         if (status != HYK_OK) {
            LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Failed to custom block port: 0x%x : %s\n",
                           portID);
            goto out;
         }
         LUSPerPortUpgradeSave(port);
      }
      status = LUSContainerFilterUpgrade(portID, copy, copy != nullptr ? length : 0);
      /* Only a moved property brings a new filter to wait for. */
      waitForFilter = status == HYK_OK && port != nullptr;
   } else if (port != nullptr) {
      status = hyk_PortCustomBlock(portID, LUS_PORT_BLOCK_REASON, 0);
      if (status != HYK_OK) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Failed to custom block port: 0x%x : %s\n", portID);
         goto out;
      }
      LUSPerPortUpgradeSave(port);
      /* Revalidation may block, and re-creating the filter needs the portset. */
      hyk_PortsetRelease(&ps);
      status = PFilter_TblRevalidateVmPort(portID);
      if (status != HYK_OK) {
         LUS_LOG_STATUS(LUS_LOG_ERROR, status, "Failed to revalidate port: 0x%x : %s\n", portID);
      }
   }

out:
   if (ps != nullptr) {
      hyk_PortsetRelease(&ps);
   }
   if (copy != nullptr) {
      LUS_Free(lusHeapID_0, copy);
   }
   /*
    * Wait for the port's filter to be destroyed and re-created.  The port's
    * record is pending (valid) from enrolment until the new build's filter,
    * re-created from the moved property, has pulled its state
    * (lusGetRestoreState), or until a failed save wiped it.  The pull takes
    * the portset, which is free by now.  A filter slower than the bound is
    * left to finish on its own, its state kept for the pull: the tool is not
    * held up further.
    */
   if (waitForFilter) {
      uint32_t sleeps = 0;
      while (__atomic_load_n(&port->valid, __ATOMIC_ACQUIRE) != 0) {
         if (sleeps == LUS_FILTER_WAIT_SLEEPS) {
            /* The elapsed time is not measured; the field reads 0, as the tooling expects. */
            LUS_LOG(LUS_LOG_INFO, "Port 0x%x pFilter was not destroyed/createdin %lu ms\n", portID,
                    (unsigned long)0);
            break;
         }
         hyk_WorldSleep(LUS_FILTER_WAIT_SLEEP_US);
         sleeps++;
      }
   }
   return status;
}
