// fabric_topology.h -- the switch topology the simulated host keeps: portsets,
// their ports, and the handles of acquired portsets.
//
// One mutex guards all of it.  It is never held while the host calls out
// (port visitors, event handlers), so a module may call back into the host
// from anything the host calls.  Exclusive acquisition waits on `cv`.
#pragma once

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "fabric_common.h"
#include "hyksim/fabric.h"

namespace hyksim::fabric {

struct Port {
   hyk_PortID id = 0;
   std::string portset;
   PortSpec desc;                // desc.properties is rebuilt from `props` for views
   // Property values with a trailing NUL the length leaves out; the host
   // hands out pointers into these, valid until the property changes.
   std::map<std::string, std::vector<uint8_t>> props;
   uint32_t reasons = 0;
   std::vector<BlockedInterval> blocked;
   hyk_VNICHandle vnic = 0;
   uint32_t revalidations = 0;
};

struct Portset {
   std::string name;
   std::string className;
   hyk_ModuleID classModule = HYK_INVALID_MODULE_ID;
   uint32_t fabricVersion = 0;
   bool fastDatapath = false;
   // Member ports in ID order; a port's ID is larger than any before it, so
   // adding one appends.  Walked whole on every phase of an upgrade: a
   // vector, not a tree of scattered nodes.
   std::vector<hyk_PortID> ports;
   bool HasPort(hyk_PortID id) const { return std::binary_search(ports.begin(), ports.end(), id); }
   // Ports removed so far (changed under the topology mutex): a walk of the
   // ports re-checks membership only once this moved.
   std::atomic<uint64_t> removals{0};
   std::map<std::string, std::vector<hyk_ModuleID>> namespaces;
   std::map<std::string, std::string> upgradeProperties;
   std::vector<std::string> events;
   std::vector<std::vector<uint8_t>> fdpCommands;
   std::vector<uint32_t> fdpCommandClasses;
   // Acquisition: any number of readers or one exclusive holder.
   std::multiset<uint64_t> readers;   // ThreadToken of each reader
   bool exclusive = false;
   uint64_t exclusiveThread = 0;
   uint32_t borrows = 0;       // host-side event deliveries in progress
   bool removed = false;       // wakes and fails acquirers still waiting
};

// What a hyk_Portset pointer stands for.
struct Handle {
   std::shared_ptr<Portset> portset;
   uint32_t mode = 0;          // 0 for a borrowed reference
   uint64_t thread = 0;        // ThreadToken of the acquirer
};

struct Topology {
   std::mutex mu;
   std::condition_variable cv;
   std::map<std::string, std::shared_ptr<Portset>> portsets;
   // Looked up on every port call of a module: hashed (Ports() sorts its view).
   std::unordered_map<hyk_PortID, Port> ports;
   std::unordered_map<hyk_VNICHandle, hyk_PortID> vnics;
   std::unordered_map<const hyk_Portset *, Handle> handles;
   hyk_PortID nextPort = 1;
   uint64_t nextVnic = 1;
   uint64_t nextHandle = 1;
};

// A number naming the calling thread, never reused within the process
// (std::thread::id values of ended threads are reused, which would make a
// new thread look like the holder of a portset an ended thread acquired).
uint64_t ThreadToken();

// The host's topology; the first use hooks it to host reset and module unload.
Topology &Topo();

// With Topo().mu held: the portset behind a live handle, or nullptr.
Portset *LockedPortset(Topology &t, hyk_Portset *ps);
// With Topo().mu held: the port of that ID, or nullptr.
Port *LockedPort(Topology &t, hyk_PortID id);

}  // namespace hyksim::fabric
