// fabric_port.cpp -- ports of the simulated host's switches: the topology
// control API for ports, the port lookups a module makes (client type, VM
// UUID, vNIC, distributed-switch port ID, flags, port properties), custom
// blocking, and the packet filter's revalidation.
//
// Blocking is the host's oracle for outage accounting: the host itself
// records when each port stopped and started passing traffic, with the host
// clock, independently of what the module believes.  A port passes traffic
// only while its set of block reasons is empty; an interval opens when the
// set goes from empty to non-empty and closes when it becomes empty again.
#include <algorithm>

#include "fabric_topology.h"

namespace hyksim::fabric {

namespace {

bool IsVnic(const PortSpec &desc) {
   return desc.clientType == HYK_PORT_CLIENT_VNIC;
}
bool IsVnic(const PortIdentity &id) {
   return id.clientType == HYK_PORT_CLIENT_VNIC;
}

PortView ViewOf(const Port &p, uint64_t now) {
   PortView v;
   v.id = p.id;
   v.portset = p.portset;
   v.desc = p.desc;
   v.desc.properties.clear();
   for (const auto &[key, bytes] : p.props) {
      v.desc.properties[key] = std::string(bytes.begin(), bytes.end() - 1);
   }
   v.blockReasons = p.reasons;
   v.passesTraffic = p.reasons == 0;
   v.blocked = p.blocked;
   v.blockedTotalUS = 0;
   for (const auto &b : p.blocked) {
      v.blockedTotalUS += (b.open ? now : b.toUS) - b.fromUS;
   }
   return v;
}

std::vector<uint8_t> Stored(const void *value, uint32_t len) {
   const auto *bytes = static_cast<const uint8_t *>(value);
   std::vector<uint8_t> stored(bytes, bytes + len);
   stored.push_back(0);
   return stored;
}

// The port's lookups share their preamble: the port must exist.
template <typename Fn>
hyk_Status WithPort(hyk_PortID id, Fn &&fn) {
   Topology &t = Topo();
   std::lock_guard<std::mutex> lk(t.mu);
   Port *p = LockedPort(t, id);
   if (p == nullptr) {
      return HYK_NOT_FOUND;
   }
   return fn(*p);
}

// The same for what never changes about a port: no lock (see PortIdentity).
template <typename Fn>
hyk_Status WithIdentity(hyk_PortID id, Fn &&fn) {
   const PortIdentity *identity = FindIdentity(id);
   if (identity == nullptr) {
      return HYK_NOT_FOUND;
   }
   return fn(*identity);
}

// Applies a change to the reason set and records the interval edge, under
// the topology lock so that concurrent block and unblock see one order.
hyk_Status ChangeReasons(hyk_PortID id, uint32_t set, uint32_t clear) {
   return WithPort(id, [&](Port &p) -> hyk_Status {
      uint32_t before = p.reasons;
      p.reasons = (p.reasons | set) & ~clear;
      if (before == 0 && p.reasons != 0) {
         p.blocked.push_back(BlockedInterval{hyk_GetTimeUS(), 0, true});
      } else if (before != 0 && p.reasons == 0) {
         p.blocked.back().toUS = hyk_GetTimeUS();
         p.blocked.back().open = false;
      }
      return HYK_OK;
   });
}

}  // namespace

}  // namespace hyksim::fabric

// ---- control API -------------------------------------------------------------------

namespace hyksim {

using fabric::Topo;
using fabric::Topology;

hyk_Status AddPort(const std::string &portset, const PortSpec &desc, hyk_PortID *portID) {
   if (portID == nullptr || desc.vmUUID.size() >= HYK_UUID_LEN ||
       desc.fabricPortID.size() >= HYK_FABRIC_PORT_ID_LEN) {
      return HYK_BAD_PARAM;
   }
   Topology &t = Topo();
   std::lock_guard<std::mutex> lk(t.mu);
   auto ps = t.portsets.find(portset);
   if (ps == t.portsets.end()) {
      return HYK_NOT_FOUND;
   }
   if (t.nextPort >= fabric::IdTable<fabric::Port>::kCapacity ||
       t.nextVnic >= fabric::IdTable<fabric::Port>::kCapacity) {
      return HYK_LIMIT_EXCEEDED;
   }
   fabric::Port port;
   port.id = t.nextPort++;
   port.portset = portset;
   port.desc = desc;
   port.blocked.reserve(4);
   for (const auto &[key, value] : desc.properties) {
      port.props[key] = fabric::Stored(value.data(), static_cast<uint32_t>(value.size()));
   }
   uint64_t vnicNumber = 0;
   if (fabric::IsVnic(desc)) {
      vnicNumber = t.nextVnic++;
      port.vnic = (uint64_t{fabric::kVnicHandleTag} << 32) | vnicNumber;
   }
   fabric::PortIdentity *identity = t.issuedIdentities.New();
   identity->id = port.id;
   identity->clientType = desc.clientType;
   identity->vnicIndex = desc.vnicIndex;
   identity->flags = desc.flags;
   identity->vnic = port.vnic;
   identity->vmUUID = desc.vmUUID;
   identity->fabricPortID = desc.fabricPortID;
   t.identities.Set(port.id, identity);
   if (vnicNumber != 0) {
      t.vnicIdentities.Set(vnicNumber, identity);
   }
   ps->second->ports.push_back(port.id);  // IDs only grow: stays sorted
   *portID = port.id;
   auto placed = t.ports.emplace(port.id, std::move(port)).first;
   t.portsById.Set(placed->first, &placed->second);
   return HYK_OK;
}

hyk_Status RemovePort(hyk_PortID portID) {
   Topology &t = Topo();
   std::lock_guard<std::mutex> lk(t.mu);
   fabric::Port *p = fabric::LockedPort(t, portID);
   if (p == nullptr) {
      return HYK_NOT_FOUND;
   }
   fabric::Portset &ps = *t.portsets.at(p->portset);
   auto member = std::lower_bound(ps.ports.begin(), ps.ports.end(), portID);
   if (member != ps.ports.end() && *member == portID) {
      ps.ports.erase(member);
   }
   ps.removals.fetch_add(1, std::memory_order_release);
   fabric::WithdrawPort(t, *p);
   t.ports.erase(portID);
   return HYK_OK;
}

hyk_Status EnablePort(hyk_PortID portID) {
   hyk_Status status = fabric::WithPort(portID, [](fabric::Port &p) -> hyk_Status {
      p.desc.enabled = true;
      return HYK_OK;
   });
   if (status != HYK_OK) {
      return status;
   }
   return fabric::RaisePortEvent(portID, HYK_PORT_EVENT_STATE_ENABLE);
}

hyk_Status UnblockPort(hyk_PortID portID, uint32_t reason) {
   return fabric::ChangeReasons(portID, 0, reason);
}

hyk_Status DisablePort(hyk_PortID portID) {
   return fabric::WithPort(portID, [](fabric::Port &p) -> hyk_Status {
      p.desc.enabled = false;
      return HYK_OK;
   });
}

std::optional<PortView> FindPort(hyk_PortID portID) {
   uint64_t now = hyk_GetTimeUS();
   Topology &t = Topo();
   std::lock_guard<std::mutex> lk(t.mu);
   fabric::Port *p = fabric::LockedPort(t, portID);
   if (p == nullptr) {
      return std::nullopt;
   }
   return fabric::ViewOf(*p, now);
}

std::vector<PortView> Ports(const std::string &portset) {
   uint64_t now = hyk_GetTimeUS();
   Topology &t = Topo();
   std::lock_guard<std::mutex> lk(t.mu);
   std::vector<PortView> views;
   for (const auto &[id, port] : t.ports) {
      if (portset.empty() || port.portset == portset) {
         views.push_back(fabric::ViewOf(port, now));
      }
   }
   std::sort(views.begin(), views.end(), [](const PortView &a, const PortView &b) { return a.id < b.id; });
   return views;
}

uint32_t PFilterRevalidations(hyk_PortID portID) {
   Topology &t = Topo();
   std::lock_guard<std::mutex> lk(t.mu);
   fabric::Port *p = fabric::LockedPort(t, portID);
   return p == nullptr ? 0 : p->revalidations;
}

}  // namespace hyksim

// ---- module interface ------------------------------------------------------------------

using hyksim::fabric::Port;
using hyksim::fabric::WithPort;
using hyksim::fabric::PortIdentity;
using hyksim::fabric::WithIdentity;

extern "C" {

hyk_Status hyk_PortGetClientType(hyk_PortID portID, uint32_t *clientType) {
   HYKSIM_FAULT_POINT("hyk_PortGetClientType");
   if (clientType == nullptr) {
      return HYK_BAD_PARAM;
   }
   return WithIdentity(portID, [&](const PortIdentity &id) -> hyk_Status {
      *clientType = id.clientType;
      return HYK_OK;
   });
}

hyk_Status hyk_PortGetVMUUID(hyk_PortID portID, char *uuid, uint32_t len) {
   HYKSIM_FAULT_POINT("hyk_PortGetVMUUID");
   if (uuid == nullptr || len == 0) {
      return HYK_BAD_PARAM;
   }
   return WithIdentity(portID, [&](const PortIdentity &id) -> hyk_Status {
      if (!hyksim::fabric::IsVnic(id)) {
         return HYK_NOT_SUPPORTED;
      }
      return hyksim::fabric::CopyBounded(id.vmUUID, uuid, len);
   });
}

hyk_Status hyk_VNICHandleGet(hyk_PortID portID, hyk_VNICHandle *vnic) {
   HYKSIM_FAULT_POINT("hyk_VNICHandleGet");
   if (vnic == nullptr) {
      return HYK_BAD_PARAM;
   }
   return WithIdentity(portID, [&](const PortIdentity &id) -> hyk_Status {
      if (!hyksim::fabric::IsVnic(id)) {
         return HYK_NOT_SUPPORTED;
      }
      *vnic = id.vnic;
      return HYK_OK;
   });
}

hyk_Status hyk_VNICIndexGet(hyk_VNICHandle vnic, uint32_t *index) {
   HYKSIM_FAULT_POINT("hyk_VNICIndexGet");
   if (index == nullptr) {
      return HYK_BAD_PARAM;
   }
   const auto *id = hyksim::fabric::FindVnicIdentity(vnic);
   if (id == nullptr) {
      return HYK_INVALID_HANDLE;
   }
   *index = id->vnicIndex;
   return HYK_OK;
}

// A port outside any distributed switch has an empty port ID: the lookup
// succeeds, there is just nothing to read.
hyk_Status hyk_PortLookupFabricPortID(hyk_PortID portID, char *fabricPortID, uint32_t len) {
   HYKSIM_FAULT_POINT("hyk_PortLookupFabricPortID");
   if (fabricPortID == nullptr || len == 0) {
      return HYK_BAD_PARAM;
   }
   return WithIdentity(portID, [&](const PortIdentity &id) -> hyk_Status {
      return hyksim::fabric::CopyBounded(id.fabricPortID, fabricPortID, len);
   });
}

hyk_Status hyk_FabricPortFlagIsSet(hyk_PortID portID, uint32_t flag, uint8_t *isSet) {
   HYKSIM_FAULT_POINT("hyk_FabricPortFlagIsSet");
   if (isSet == nullptr || flag == 0) {
      return HYK_BAD_PARAM;
   }
   return WithIdentity(portID, [&](const PortIdentity &id) -> hyk_Status {
      *isSet = (id.flags & flag) == flag ? 1 : 0;
      return HYK_OK;
   });
}

hyk_Status hyk_FabricPortDataGet(hyk_PortID portID, const char *key, void **value, uint32_t *len) {
   HYKSIM_FAULT_POINT("hyk_FabricPortDataGet");
   if (key == nullptr || *key == '\0' || value == nullptr || len == nullptr) {
      return HYK_BAD_PARAM;
   }
   return WithPort(portID, [&](Port &p) -> hyk_Status {
      auto it = p.props.find(key);
      if (it == p.props.end()) {
         return HYK_NOT_FOUND;
      }
      *value = it->second.data();
      *len = static_cast<uint32_t>(it->second.size() - 1);
      return HYK_OK;
   });
}

hyk_Status hyk_FabricPortDataSet(hyk_PortID portID, const char *key, const void *value, uint32_t len,
                                 uint32_t flags) {
   HYKSIM_FAULT_POINT("hyk_FabricPortDataSet");
   if (key == nullptr || *key == '\0' || (value == nullptr && len != 0) ||
       (flags & ~uint32_t{HYK_FABRIC_DATA_PERSIST}) != 0) {
      return HYK_BAD_PARAM;
   }
   return WithPort(portID, [&](Port &p) -> hyk_Status {
      p.props[key] = hyksim::fabric::Stored(value, len);
      return HYK_OK;
   });
}

hyk_Status hyk_FabricPortDataClear(hyk_PortID portID, const char *key) {
   HYKSIM_FAULT_POINT("hyk_FabricPortDataClear");
   if (key == nullptr || *key == '\0') {
      return HYK_BAD_PARAM;
   }
   return WithPort(portID, [&](Port &p) -> hyk_Status {
      p.props.erase(key);
      return HYK_OK;
   });
}

// Never sleeps: callable with spinlocks held.
hyk_Status hyk_PortCustomBlock(hyk_PortID portID, uint32_t reason, uint32_t flags) {
   HYKSIM_FAULT_POINT("hyk_PortCustomBlock");
   if (reason == 0 || flags != 0) {
      return HYK_BAD_PARAM;
   }
   return hyksim::fabric::ChangeReasons(portID, reason, 0);
}

// Clearing a reason that is not set changes nothing and succeeds.
hyk_Status hyk_PortCustomUnblock(hyk_PortID portID, uint32_t reason, uint32_t flags) {
   HYKSIM_FAULT_POINT("hyk_PortCustomUnblock");
   if (reason == 0 || flags != 0) {
      return HYK_BAD_PARAM;
   }
   return hyksim::fabric::ChangeReasons(portID, 0, reason);
}

// The filter is destroyed and re-created from the port's properties; the
// host counts each revalidation so a test can see the module asked for it.
hyk_Status PFilter_TblRevalidateVmPort(hyk_PortID portID) {
   HYKSIM_FAULT_POINT("PFilter_TblRevalidateVmPort");
   hyksim::AssertMaySleep("PFilter_TblRevalidateVmPort");
   hyk_Status status = WithPort(portID, [](Port &p) -> hyk_Status {
      p.revalidations++;
      return HYK_OK;
   });
   if (status == HYK_OK) {
      hyksim::HostLog("pfilter: port 0x%x revalidated", portID);
   }
   return status;
}

}  // extern "C"
