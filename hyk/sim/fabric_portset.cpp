// fabric_portset.cpp -- portsets (virtual switches) of the simulated host:
// the topology control API for portsets, acquisition and release, the walk
// over a portset's ports, switch version and class, class hot swap,
// upgrade-property namespaces and fast-datapath commands.
//
// Ports themselves are in fabric_port.cpp; both share fabric_topology.h.
//
// A hyk_Portset pointer is never dereferenced: it is a key into the table of
// live handles, drawn from a counter, so a stale or forged handle is detected
// (and can never alias a later acquisition) instead of being trusted.
#include <algorithm>
#include <atomic>
#include <sstream>

#include "scheduler.h"
#include "fabric_topology.h"
#include "hyksim/host.h"

namespace hyksim::fabric {

namespace {

// High enough that no real object of the host lives there; aligned like one.
constexpr uintptr_t kHandleBase = 0x5e7000000000ull;
constexpr const char *kNullClass = "nulldev";

void DropEverything(Topology &t) {
   std::lock_guard<std::mutex> lk(t.mu);
   for (auto &[name, ps] : t.portsets) {
      ps->removed = true;
   }
   t.portsets.clear();
   t.ports.clear();
   // No module runs during a reset: nobody is looking identities up.
   t.identities.Clear();
   t.portsById.Clear();
   t.vnicIdentities.Clear();
   t.issuedIdentities.Clear();
   t.handles.clear();
   t.eventNames.clear();
   t.eventIds.clear();
   t.nextPort = 1;
   ::hyksim::sched::NotifyAll(t.cv);
}

// A switch class is an implementation inside its module: when the module
// goes, the portset keeps its ports but switches nothing until a new class
// is swapped in, which is what "nulldev" means.
void FallToNullClass(Topology &t, hyk_ModuleID id, const std::string &module) {
   std::lock_guard<std::mutex> lk(t.mu);
   for (auto &[name, ps] : t.portsets) {
      if (ps->classModule != id) {
         continue;
      }
      HostLog("portset %s: class %s went away with module %s; now %s", name.c_str(),
              ps->className.c_str(), module.c_str(), kNullClass);
      ps->className = kNullClass;
      ps->classModule = HYK_INVALID_MODULE_ID;
   }
}

bool ProvidesClass(hyk_ModuleID id, const std::string &className) {
   std::stringstream classes(ModuleInfo(id, "switchClass"));
   std::string item;
   while (std::getline(classes, item, ',')) {
      item.erase(0, item.find_first_not_of(" \t"));
      item.erase(item.find_last_not_of(" \t") + 1);
      if (item == className) {
         return true;
      }
   }
   return false;
}

hyk_Portset *NewHandle(Topology &t, std::shared_ptr<Portset> ps, uint32_t mode) {
   auto *key = reinterpret_cast<hyk_Portset *>(kHandleBase + 16 * t.nextHandle++);
   t.handles[key] = Handle{std::move(ps), mode, ThreadToken()};
   return key;
}

// Whether this thread already holds `ps` in a way that makes the wanted
// acquisition wait for itself.  A real host would hang there; we stop it.
bool WouldSelfDeadlock(const Portset &ps, uint32_t mode) {
   uint64_t self = ThreadToken();
   if (ps.exclusive && ps.exclusiveThread == self) {
      return true;
   }
   return mode == HYK_PORTSET_ACCESS_EXCL && ps.readers.count(self) != 0;
}

bool Admits(const Portset &ps, uint32_t mode) {
   if (ps.exclusive) {
      return false;
   }
   return mode != HYK_PORTSET_ACCESS_EXCL || ps.readers.empty();
}

// With t.mu held through `lk`: waits for `ps` to admit `mode`, then takes it.
hyk_Status AcquireLocked(Topology &t, std::unique_lock<std::mutex> &lk,
                         std::shared_ptr<Portset> ps, uint32_t mode, hyk_Portset **out) {
   if (WouldSelfDeadlock(*ps, mode)) {
      std::string name = ps->name;
      lk.unlock();
      Panic("portset %s: acquired again (mode %u) by the thread that holds it: self-deadlock",
            name.c_str(), mode);
   }
   ::hyksim::sched::Wait(t.cv, lk, ::hyksim::sched::kNoDeadline, "a portset",
               [&] { return ps->removed || Admits(*ps, mode); });
   if (ps->removed) {
      return HYK_NOT_FOUND;
   }
   if (mode == HYK_PORTSET_ACCESS_EXCL) {
      ps->exclusive = true;
      ps->exclusiveThread = ThreadToken();
   } else {
      ps->readers.insert(ThreadToken());
   }
   *out = NewHandle(t, std::move(ps), mode);
   return HYK_OK;
}

bool ValidMode(uint32_t mode) {
   return mode == HYK_PORTSET_ACCESS_READ || mode == HYK_PORTSET_ACCESS_EXCL;
}

// A namespace name must be terminated inside its fixed-size field.
bool NamespaceString(const hyk_Name *ns, std::string *out) {
   if (ns == nullptr) {
      return false;
   }
   size_t n = BoundedLength(ns->string, HYK_NAME_LEN);
   if (n == 0 || n == HYK_NAME_LEN) {
      return false;
   }
   out->assign(ns->string, n);
   return true;
}

// Clear and Set act on the switch's upgrade properties of every module of
// the namespace; the host records the last action per namespace.
hyk_Status SetUpgradeProperties(hyk_Portset *ps, const hyk_Name *ns, const char *state) {
   std::string name;
   if (!NamespaceString(ns, &name)) {
      return HYK_BAD_PARAM;
   }
   Topology &t = Topo();
   std::lock_guard<std::mutex> lk(t.mu);
   Portset *p = LockedPortset(t, ps);
   if (p == nullptr) {
      return HYK_BAD_PARAM;
   }
   p->upgradeProperties[name] = state;
   auto members = p->namespaces.find(name);
   hyksim::HostLog("portset %s: upgrade properties of namespace %s %s (%zu modules)", p->name.c_str(),
                   name.c_str(), state, members == p->namespaces.end() ? size_t{0} : members->second.size());
   return HYK_OK;
}

PortsetView ViewOf(const Portset &ps) {
   PortsetView v;
   v.name = ps.name;
   v.className = ps.className;
   v.classModule = ps.classModule;
   v.fabricVersion = ps.fabricVersion;
   v.fastDatapath = ps.fastDatapath;
   v.ports.assign(ps.ports.begin(), ps.ports.end());
   v.upgradeNamespaces = ps.namespaces;
   v.upgradeProperties = ps.upgradeProperties;
   const Topology &t = Topo();   // its mutex is held
   for (uint32_t id : ps.events) {
      v.events.push_back(t.eventNames[id]);
   }
   v.fdpCommands = ps.fdpCommands;
   v.fdpCommandClasses = ps.fdpCommandClasses;
   v.acquireCount = static_cast<uint32_t>(ps.readers.size() + (ps.exclusive ? 1 : 0));
   v.exclusive = ps.exclusive;
   return v;
}

}  // namespace

uint64_t ThreadToken() {
   static std::atomic<uint64_t> next{1};
   thread_local uint64_t token = next++;
   return token;
}

Topology &Topo() {
   // Never destroyed: host threads may still look at it while the process exits.
   static Topology *topology = [] {
      auto *t = new Topology;
      OnReset([t] { DropEverything(*t); });
      OnModuleUnloaded([t](hyk_ModuleID id, const std::string &name) { FallToNullClass(*t, id, name); });
      return t;
   }();
   return *topology;
}

Portset *LockedPortset(Topology &t, hyk_Portset *ps) {
   auto it = t.handles.find(ps);
   return it == t.handles.end() ? nullptr : it->second.portset.get();
}

const PortIdentity *FindIdentity(hyk_PortID id) { return Topo().identities.Find(id); }

const PortIdentity *FindVnicIdentity(hyk_VNICHandle vnic) {
   if (vnic >> 32 != kVnicHandleTag) {
      return nullptr;
   }
   return Topo().vnicIdentities.Find(vnic & 0xffffffffu);
}

void WithdrawPort(Topology &t, const Port &p) {
   t.identities.Set(p.id, nullptr);
   t.portsById.Set(p.id, nullptr);
   if (p.vnic != 0) {
      t.vnicIdentities.Set(p.vnic & 0xffffffffu, nullptr);
   }
}

Port *LockedPort(Topology &t, hyk_PortID id) {
   return t.portsById.Find(id);
}

std::string ModuleName(hyk_ModuleID id) {
   if (id == HYK_INVALID_MODULE_ID) {
      return "<none>";
   }
   for (const auto &m : Modules()) {
      if (m.id == id) {
         return m.name;
      }
   }
   return "#" + std::to_string(id);
}

hyk_Portset *BorrowPortset(const std::string &name) {
   Topology &t = Topo();
   std::lock_guard<std::mutex> lk(t.mu);
   auto it = t.portsets.find(name);
   if (it == t.portsets.end()) {
      return nullptr;
   }
   it->second->borrows++;
   return NewHandle(t, it->second, 0);
}

void ReturnPortset(hyk_Portset *ps) {
   Topology &t = Topo();
   std::lock_guard<std::mutex> lk(t.mu);
   auto it = t.handles.find(ps);
   if (it == t.handles.end()) {
      return;   // the host was reset during the delivery
   }
   it->second.portset->borrows--;
   t.handles.erase(it);
}

bool NotePortsetEvent(hyk_Portset *ps, std::string_view event) {
   Topology &t = Topo();
   std::lock_guard<std::mutex> lk(t.mu);
   Portset *p = LockedPortset(t, ps);
   if (p == nullptr) {
      return false;
   }
   auto it = t.eventIds.find(event);
   if (it == t.eventIds.end()) {
      it = t.eventIds.emplace(std::string(event), static_cast<uint32_t>(t.eventNames.size())).first;
      t.eventNames.emplace_back(event);
   }
   p->events.push_back(it->second);
   return true;
}

}  // namespace hyksim::fabric

// ---- control API -------------------------------------------------------------------

namespace hyksim {

using fabric::Topo;
using fabric::Topology;

hyk_Status AddPortset(const PortsetSpec &desc) {
   if (desc.name.empty() || desc.name.size() >= HYK_PORTSET_NAME_LEN ||
       desc.className.size() >= HYK_CLASS_NAME_LEN) {
      return HYK_BAD_PARAM;
   }
   hyk_ModuleID classModule = HYK_INVALID_MODULE_ID;
   if (!desc.classModule.empty()) {
      auto m = FindModule(desc.classModule);
      if (!m) {
         return HYK_MODULE_NOT_LOADED;
      }
      classModule = m->id;
   }
   Topology &t = Topo();
   std::lock_guard<std::mutex> lk(t.mu);
   if (t.portsets.count(desc.name) != 0) {
      return HYK_EXISTS;
   }
   auto ps = std::make_shared<fabric::Portset>();
   ps->name = desc.name;
   ps->className = desc.className;
   ps->classModule = classModule;
   ps->fabricVersion = desc.fabricVersion;
   ps->fastDatapath = desc.fastDatapath;
   t.portsets.emplace(desc.name, std::move(ps));
   return HYK_OK;
}

hyk_Status RemovePortset(const std::string &name) {
   Topology &t = Topo();
   std::lock_guard<std::mutex> lk(t.mu);
   auto it = t.portsets.find(name);
   if (it == t.portsets.end()) {
      return HYK_NOT_FOUND;
   }
   fabric::Portset &ps = *it->second;
   if (ps.exclusive || !ps.readers.empty() || ps.borrows != 0) {
      return HYK_BUSY;
   }
   for (hyk_PortID id : ps.ports) {
      fabric::WithdrawPort(t, t.ports[id]);
      t.ports.erase(id);
   }
   ps.removals.fetch_add(ps.ports.size(), std::memory_order_release);
   ps.removed = true;
   t.portsets.erase(it);
   ::hyksim::sched::NotifyAll(t.cv);
   return HYK_OK;
}

std::optional<PortsetView> FindPortset(const std::string &name) {
   Topology &t = Topo();
   std::lock_guard<std::mutex> lk(t.mu);
   auto it = t.portsets.find(name);
   if (it == t.portsets.end()) {
      return std::nullopt;
   }
   return fabric::ViewOf(*it->second);
}

std::vector<PortsetView> Portsets() {
   Topology &t = Topo();
   std::lock_guard<std::mutex> lk(t.mu);
   std::vector<PortsetView> views;
   for (const auto &[name, ps] : t.portsets) {
      views.push_back(fabric::ViewOf(*ps));
   }
   return views;
}

}  // namespace hyksim

// ---- module interface ------------------------------------------------------------------

using hyksim::fabric::Topo;
using hyksim::fabric::Topology;

extern "C" {

hyk_Status hyk_PortsetAcquireByName(const char *name, uint32_t mode, hyk_Portset **ps) {
   HYKSIM_FAULT_POINT("hyk_PortsetAcquireByName");
   hyksim::AssertMaySleep("hyk_PortsetAcquireByName");
   if (name == nullptr || ps == nullptr || !hyksim::fabric::ValidMode(mode)) {
      return HYK_BAD_PARAM;
   }
   Topology &t = Topo();
   std::unique_lock<std::mutex> lk(t.mu);
   auto it = t.portsets.find(std::string(name, hyksim::fabric::BoundedLength(name, HYK_PORTSET_NAME_LEN)));
   if (it == t.portsets.end()) {
      return HYK_NOT_FOUND;
   }
   return hyksim::fabric::AcquireLocked(t, lk, it->second, mode, ps);
}

hyk_Status hyk_PortsetAcquireByPortID(hyk_PortID portID, uint32_t mode, hyk_Portset **ps) {
   HYKSIM_FAULT_POINT("hyk_PortsetAcquireByPortID");
   hyksim::AssertMaySleep("hyk_PortsetAcquireByPortID");
   if (ps == nullptr || !hyksim::fabric::ValidMode(mode)) {
      return HYK_BAD_PARAM;
   }
   Topology &t = Topo();
   std::unique_lock<std::mutex> lk(t.mu);
   hyksim::fabric::Port *port = hyksim::fabric::LockedPort(t, portID);
   if (port == nullptr) {
      return HYK_NOT_FOUND;
   }
   return hyksim::fabric::AcquireLocked(t, lk, t.portsets.at(port->portset), mode, ps);
}

void hyk_PortsetRelease(hyk_Portset **ps) {
   if (ps == nullptr || *ps == nullptr) {
      hyksim::Panic("hyk_PortsetRelease: no portset to release (released twice?)");
   }
   Topology &t = Topo();
   std::unique_lock<std::mutex> lk(t.mu);
   auto it = t.handles.find(*ps);
   if (it == t.handles.end() || it->second.mode == 0) {
      const void *bad = *ps;
      lk.unlock();
      hyksim::Panic("hyk_PortsetRelease: %p is not an acquired portset (released twice?)", bad);
   }
   hyksim::fabric::Portset &p = *it->second.portset;
   if (it->second.mode == HYK_PORTSET_ACCESS_EXCL) {
      p.exclusive = false;
   } else {
      p.readers.erase(p.readers.find(it->second.thread));
   }
   t.handles.erase(it);
   *ps = nullptr;
   ::hyksim::sched::NotifyAll(t.cv);
}

const char *hyk_PortsetName(hyk_Portset *ps) {
   Topology &t = Topo();
   std::unique_lock<std::mutex> lk(t.mu);
   hyksim::fabric::Portset *p = hyksim::fabric::LockedPortset(t, ps);
   if (p == nullptr) {
      lk.unlock();
      hyksim::Panic("hyk_PortsetName: %p is not an acquired portset", static_cast<const void *>(ps));
   }
   // The name never changes and the portset cannot go while it is held.
   return p->name.c_str();
}

// The walk does not sleep: the portset is held by the caller, and visitors
// run with whatever the caller holds (a module may walk under its own
// spinlock; a visitor that sleeps is caught where it sleeps).  The port IDs
// are taken first so that a visitor may call the host freely; a port removed
// during the walk is not visited.
hyk_Status hyk_PortsetForAllPorts(hyk_Portset *ps, hyk_PortVisitor visitor, void *data) {
   HYKSIM_FAULT_POINT("hyk_PortsetForAllPorts");
   if (visitor == nullptr) {
      return HYK_BAD_PARAM;
   }
   Topology &t = Topo();
   std::vector<hyk_PortID> ids;
   std::shared_ptr<hyksim::fabric::Portset> portset;
   uint64_t removals;
   {
      std::lock_guard<std::mutex> lk(t.mu);
      auto it = t.handles.find(ps);
      if (it == t.handles.end()) {
         return HYK_BAD_PARAM;
      }
      portset = it->second.portset;
      ids = portset->ports;
      removals = portset->removals.load(std::memory_order_relaxed);
   }
   for (hyk_PortID id : ids) {
      // A port removed during the walk is not visited.
      if (portset->removals.load(std::memory_order_acquire) != removals) {
         std::lock_guard<std::mutex> lk(t.mu);
         if (!portset->HasPort(id)) {
            continue;
         }
      }
      hyk_Status status = visitor(ps, id, data);
      if (status != HYK_OK) {
         return status;
      }
   }
   return HYK_OK;
}

hyk_Status hyk_PortsetLookupFabricVersion(hyk_Portset *ps, uint32_t *version) {
   HYKSIM_FAULT_POINT("hyk_PortsetLookupFabricVersion");
   if (version == nullptr) {
      return HYK_BAD_PARAM;
   }
   Topology &t = Topo();
   std::lock_guard<std::mutex> lk(t.mu);
   hyksim::fabric::Portset *p = hyksim::fabric::LockedPortset(t, ps);
   if (p == nullptr) {
      return HYK_BAD_PARAM;
   }
   *version = p->fabricVersion;
   return HYK_OK;
}

hyk_Status hyk_PortsetLookupFabricClassName(hyk_Portset *ps, char *className, uint32_t len) {
   HYKSIM_FAULT_POINT("hyk_PortsetLookupFabricClassName");
   if (className == nullptr || len == 0) {
      return HYK_BAD_PARAM;
   }
   Topology &t = Topo();
   std::lock_guard<std::mutex> lk(t.mu);
   hyksim::fabric::Portset *p = hyksim::fabric::LockedPortset(t, ps);
   if (p == nullptr) {
      return HYK_BAD_PARAM;
   }
   if (p->className.empty()) {
      return HYK_NOT_FOUND;
   }
   return hyksim::fabric::CopyBounded(p->className, className, len);
}

// The module's identity is checked before the topology lock is taken: the
// module table has its own lock, and the host never nests it inside ours.
hyk_Status hyk_PortsetClassHotSwap(hyk_Portset *ps, const char *className, hyk_ModuleID moduleID) {
   HYKSIM_FAULT_POINT("hyk_PortsetClassHotSwap");
   if (className == nullptr) {
      return HYK_BAD_PARAM;
   }
   size_t n = hyksim::fabric::BoundedLength(className, HYK_CLASS_NAME_LEN);
   if (n == 0 || n == HYK_CLASS_NAME_LEN) {
      return HYK_BAD_PARAM;
   }
   std::string cls(className, n);
   if (!hyksim::ModuleLoaded(moduleID)) {
      return HYK_MODULE_NOT_LOADED;
   }
   bool provided = hyksim::fabric::ProvidesClass(moduleID, cls);
   std::string module = hyksim::fabric::ModuleName(moduleID);
   Topology &t = Topo();
   std::lock_guard<std::mutex> lk(t.mu);
   hyksim::fabric::Portset *p = hyksim::fabric::LockedPortset(t, ps);
   if (p == nullptr) {
      return HYK_BAD_PARAM;
   }
   if (!provided) {
      hyksim::HostLog("portset %s: hot swap to class %s refused: module %s does not provide it",
                      p->name.c_str(), cls.c_str(), module.c_str());
      return HYK_NOT_SUPPORTED;
   }
   hyksim::HostLog("portset %s: class %s hot-swapped to class %s of module %s", p->name.c_str(),
                   p->className.c_str(), cls.c_str(), module.c_str());
   p->className = cls;
   p->classModule = moduleID;
   return HYK_OK;
}

hyk_Status hyk_PortsetFabricPropUpgradeRegister(hyk_Portset *ps, const hyk_Name *ns, hyk_ModuleID moduleID) {
   HYKSIM_FAULT_POINT("hyk_PortsetFabricPropUpgradeRegister");
   std::string name;
   if (!hyksim::fabric::NamespaceString(ns, &name) || moduleID == HYK_INVALID_MODULE_ID) {
      return HYK_BAD_PARAM;
   }
   Topology &t = Topo();
   std::lock_guard<std::mutex> lk(t.mu);
   hyksim::fabric::Portset *p = hyksim::fabric::LockedPortset(t, ps);
   if (p == nullptr) {
      return HYK_BAD_PARAM;
   }
   auto &members = p->namespaces[name];
   if (std::find(members.begin(), members.end(), moduleID) != members.end()) {
      return HYK_EXISTS;
   }
   members.push_back(moduleID);
   return HYK_OK;
}

hyk_Status hyk_PortsetFabricPropUpgradeUnregister(hyk_Portset *ps, const hyk_Name *ns, hyk_ModuleID moduleID) {
   HYKSIM_FAULT_POINT("hyk_PortsetFabricPropUpgradeUnregister");
   std::string name;
   if (!hyksim::fabric::NamespaceString(ns, &name)) {
      return HYK_BAD_PARAM;
   }
   Topology &t = Topo();
   std::lock_guard<std::mutex> lk(t.mu);
   hyksim::fabric::Portset *p = hyksim::fabric::LockedPortset(t, ps);
   if (p == nullptr) {
      return HYK_BAD_PARAM;
   }
   auto it = p->namespaces.find(name);
   if (it == p->namespaces.end()) {
      return HYK_NOT_FOUND;
   }
   auto member = std::find(it->second.begin(), it->second.end(), moduleID);
   if (member == it->second.end()) {
      return HYK_NOT_FOUND;
   }
   it->second.erase(member);
   if (it->second.empty()) {
      p->namespaces.erase(it);
   }
   return HYK_OK;
}

hyk_Status hyk_PortsetFabricPropUpgradeClear(hyk_Portset *ps, const hyk_Name *ns) {
   HYKSIM_FAULT_POINT("hyk_PortsetFabricPropUpgradeClear");
   return hyksim::fabric::SetUpgradeProperties(ps, ns, "cleared");
}

hyk_Status hyk_PortsetFabricPropUpgradeSet(hyk_Portset *ps, const hyk_Name *ns) {
   HYKSIM_FAULT_POINT("hyk_PortsetFabricPropUpgradeSet");
   return hyksim::fabric::SetUpgradeProperties(ps, ns, "set");
}

// The fast-datapath switch answers nothing the module reads; the host keeps
// every record it was sent so a test can check what the module asked for.
hyk_Status hyk_FdpSwitchCommand(const char *psName, uint32_t cmd, const void *record, uint32_t len,
                                void *reply, uint32_t *replyLen) {
   HYKSIM_FAULT_POINT("hyk_FdpSwitchCommand");
   if (psName == nullptr || (record == nullptr && len != 0)) {
      return HYK_BAD_PARAM;
   }
   std::string name(psName, hyksim::fabric::BoundedLength(psName, HYK_PORTSET_NAME_LEN));
   Topology &t = Topo();
   std::lock_guard<std::mutex> lk(t.mu);
   auto it = t.portsets.find(name);
   if (it == t.portsets.end()) {
      return HYK_NOT_FOUND;
   }
   if (!it->second->fastDatapath) {
      return HYK_NOT_SUPPORTED;
   }
   const auto *bytes = static_cast<const uint8_t *>(record);
   it->second->fdpCommands.emplace_back(bytes, bytes + len);
   it->second->fdpCommandClasses.push_back(cmd);
   if (replyLen != nullptr) {
      *replyLen = 0;
   }
   return HYK_OK;
}

}  // extern "C"
