/*
 * hyk_portset.h -- portsets (virtual switches) and their ports.
 *
 * A portset has a name, a switch class provided by a module, a fabric
 * version, upgrade-property namespaces and ports.  It is acquired before use
 * and released after.  A port passes traffic only while no block reason is
 * set on it; the host records each port's blocked intervals itself.
 */
#ifndef HYK_PORTSET_H
#define HYK_PORTSET_H

#include "hyk_types.h"

HYK_EXTERN_C_BEGIN

#define HYK_PORTSET_NAME_LEN 128
#define HYK_CLASS_NAME_LEN 128
#define HYK_UUID_LEN 133          /* VM UUID text with its NUL */
#define HYK_FABRIC_PORT_ID_LEN 48

/* Access modes of an acquire. */
#define HYK_PORTSET_ACCESS_READ 1
#define HYK_PORTSET_ACCESS_EXCL 2  /* exclusive: other acquirers wait */

/* Port client types. */
#define HYK_PORT_CLIENT_UPLINK 1
#define HYK_PORT_CLIENT_VNIC 2
#define HYK_PORT_CLIENT_INTERNAL 3
#define HYK_PORT_CLIENT_CONTAINER 1000

/* Port flags (hyk_FabricPortFlagIsSet). */
#define HYK_FABRIC_PORT_FLAG_LSPG 0x80

/* Block reasons are bits; HYK_PORT_BLOCK_CUSTOM is the upgrade service's. */
#define HYK_PORT_BLOCK_ADMIN 0x0001
#define HYK_PORT_BLOCK_CUSTOM 0x2000

/* hyk_FabricPortDataSet flags. */
#define HYK_FABRIC_DATA_PERSIST 0x8

/* ---- portsets ------------------------------------------------------------- */

/*
 * hyk_PortsetAcquireByName / hyk_PortsetAcquireByPortID -- acquire a portset
 * by its name or by one of its ports.
 *   mode: HYK_PORTSET_ACCESS_*.  ps: out.
 * Returns HYK_OK; HYK_BAD_PARAM; HYK_NOT_FOUND.
 * Context: a thread that may block, no spinlock held.
 */
hyk_Status hyk_PortsetAcquireByName(const char *name, uint32_t mode, hyk_Portset **ps);
hyk_Status hyk_PortsetAcquireByPortID(hyk_PortID portID, uint32_t mode, hyk_Portset **ps);

/*
 * hyk_PortsetRelease -- releases an acquired portset and sets *ps to NULL.
 * Releasing a portset that is not held (NULL, released already) panics.
 * Exclusive access is not reentrant: a thread that acquires a portset it
 * holds exclusively (or exclusively one it holds for reading) would wait for
 * itself forever; the host panics instead.
 */
void hyk_PortsetRelease(hyk_Portset **ps);

/* hyk_PortsetName -- the name of an acquired portset (valid while acquired). */
const char *hyk_PortsetName(hyk_Portset *ps);

/* Visitor of hyk_PortsetForAllPorts: a non-zero status ends the walk. */
typedef hyk_Status (*hyk_PortVisitor)(hyk_Portset *ps, hyk_PortID portID, void *data);

/*
 * hyk_PortsetForAllPorts -- calls `visitor` for each port of an acquired
 * portset, in port-ID order, on the calling thread.  The walk stops at the
 * first non-zero status, which it returns.  A port removed during the walk
 * is not visited.  Returns HYK_OK after a full walk; HYK_BAD_PARAM.
 * Context: any thread holding the portset; the walk itself never sleeps.
 */
hyk_Status hyk_PortsetForAllPorts(hyk_Portset *ps, hyk_PortVisitor visitor, void *data);

/* hyk_PortsetLookupFabricVersion -- the switch's fabric version.  HYK_OK; HYK_BAD_PARAM. */
hyk_Status hyk_PortsetLookupFabricVersion(hyk_Portset *ps, uint32_t *version);

/*
 * hyk_PortsetLookupFabricClassName -- copies the switch class name (bounded
 * by len).  HYK_OK; HYK_BAD_PARAM; HYK_NOT_FOUND when no class is set.
 */
hyk_Status hyk_PortsetLookupFabricClassName(hyk_Portset *ps, char *className, uint32_t len);

/*
 * hyk_PortsetClassHotSwap -- replaces the portset's switch implementation by
 * class `className` as provided by module `moduleID`, keeping its ports.
 * Returns HYK_OK; HYK_BAD_PARAM; HYK_MODULE_NOT_LOADED for an unknown module;
 * HYK_NOT_SUPPORTED when that module does not provide the class.  A portset
 * whose old implementation went away without a successor falls to class
 * "nulldev".
 */
hyk_Status hyk_PortsetClassHotSwap(hyk_Portset *ps, const char *className, hyk_ModuleID moduleID);

/*
 * Upgrade-property namespaces of a portset.
 *   Register: adds module `moduleID` to namespace `ns` (HYK_EXISTS when it is in it).
 *   Unregister: removes it (HYK_NOT_FOUND when it is not).
 *   Clear: clears the upgrade properties of every module of `ns`.
 *   Set: sets them.
 * Each returns HYK_OK or the status named; HYK_BAD_PARAM for null arguments.
 */
hyk_Status hyk_PortsetFabricPropUpgradeRegister(hyk_Portset *ps, const hyk_Name *ns, hyk_ModuleID moduleID);
hyk_Status hyk_PortsetFabricPropUpgradeUnregister(hyk_Portset *ps, const hyk_Name *ns, hyk_ModuleID moduleID);
hyk_Status hyk_PortsetFabricPropUpgradeClear(hyk_Portset *ps, const hyk_Name *ns);
hyk_Status hyk_PortsetFabricPropUpgradeSet(hyk_Portset *ps, const hyk_Name *ns);

/*
 * hyk_FdpSwitchCommand -- sends a command record to the fast-datapath switch
 * of the portset named `psName`.
 *   cmd: command class (0xFFF: upgrade operation).  record, len: the record.
 *   reply, replyLen: optional reply buffer (may be NULL).
 * Returns HYK_OK; HYK_BAD_PARAM; HYK_NOT_FOUND (no such portset);
 * HYK_NOT_SUPPORTED (the portset has no fast datapath).
 */
hyk_Status hyk_FdpSwitchCommand(const char *psName, uint32_t cmd, const void *record, uint32_t len,
                                void *reply, uint32_t *replyLen);

/* ---- ports ---------------------------------------------------------------- */

/* hyk_PortGetClientType -- HYK_PORT_CLIENT_* of the port.  HYK_OK; HYK_NOT_FOUND; HYK_BAD_PARAM. */
hyk_Status hyk_PortGetClientType(hyk_PortID portID, uint32_t *clientType);

/*
 * hyk_PortGetVMUUID -- copies the VM UUID of a vNIC port (bounded by len).
 * HYK_OK; HYK_NOT_FOUND (no port); HYK_NOT_SUPPORTED (not a vNIC); HYK_BAD_PARAM.
 */
hyk_Status hyk_PortGetVMUUID(hyk_PortID portID, char *uuid, uint32_t len);

/* hyk_VNICHandleGet -- the vNIC behind a vNIC port.  As hyk_PortGetVMUUID. */
hyk_Status hyk_VNICHandleGet(hyk_PortID portID, hyk_VNICHandle *vnic);

/* hyk_VNICIndexGet -- the vNIC's index within its VM.  HYK_OK; HYK_INVALID_HANDLE. */
hyk_Status hyk_VNICIndexGet(hyk_VNICHandle vnic, uint32_t *index);

/* hyk_PortLookupFabricPortID -- copies the port's distributed-switch port ID (bounded). */
hyk_Status hyk_PortLookupFabricPortID(hyk_PortID portID, char *fabricPortID, uint32_t len);

/* hyk_FabricPortFlagIsSet -- *isSet = 1 when `flag` is set on the port, else 0. */
hyk_Status hyk_FabricPortFlagIsSet(hyk_PortID portID, uint32_t flag, uint8_t *isSet);

/*
 * hyk_FabricPortDataGet -- the port property `key`: *value points at the
 * host's copy (valid until the property changes), *len is its length.
 * HYK_OK; HYK_NOT_FOUND (no port or no such property); HYK_BAD_PARAM.
 */
hyk_Status hyk_FabricPortDataGet(hyk_PortID portID, const char *key, void **value, uint32_t *len);

/* hyk_FabricPortDataSet -- sets property `key` to a copy of value[0..len).  flags: HYK_FABRIC_DATA_*. */
hyk_Status hyk_FabricPortDataSet(hyk_PortID portID, const char *key, const void *value, uint32_t len,
                                 uint32_t flags);

/* hyk_FabricPortDataClear -- removes property `key`; clearing an absent property succeeds. */
hyk_Status hyk_FabricPortDataClear(hyk_PortID portID, const char *key);

/*
 * hyk_PortCustomBlock / hyk_PortCustomUnblock -- set or clear block reason
 * bits on a port.  The port passes traffic only with no reason set.
 *   reason: HYK_PORT_BLOCK_* bits.  flags: 0.
 * HYK_OK; HYK_NOT_FOUND; HYK_BAD_PARAM (reason 0).
 * Context: any; never sleeps.
 */
hyk_Status hyk_PortCustomBlock(hyk_PortID portID, uint32_t reason, uint32_t flags);
hyk_Status hyk_PortCustomUnblock(hyk_PortID portID, uint32_t reason, uint32_t flags);

HYK_EXTERN_C_END

#endif /* HYK_PORTSET_H */
