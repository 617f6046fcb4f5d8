// fabric_topology.h -- the switch topology the simulated host keeps: portsets,
// their ports, and the handles of acquired portsets.
//
// One mutex guards all of it.  It is never held while the host calls out
// (port visitors, event handlers), so a module may call back into the host
// from anything the host calls.  Exclusive acquisition waits on `cv`.
//
// What never changes about a port once it is added (its identity: client
// type, VM UUID, vNIC, distributed-switch port ID, fabric flags) is also
// published in lock-free tables keyed by port ID and by vNIC, so that the
// lookups a module makes for every port of an upgrade take no mutex.
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

// The high word of every vNIC handle; the low word numbers the vNIC.
constexpr uint64_t kVnicHandleTag = 0x7f1c;

// A port's identity: written once before it is published, then only read.
// Identities outlive their ports until the host resets, so that a lookup
// racing a removal reads a live object (and finds the port or not, as a
// lookup under the mutex would, one side of the removal or the other).
struct PortIdentity {
   hyk_PortID id = 0;
   uint32_t clientType = 0;
   uint32_t vnicIndex = 0;
   uint32_t flags = 0;        // HYK_FABRIC_PORT_FLAG_*
   hyk_VNICHandle vnic = 0;   // 0 unless the port is a vNIC
   std::string vmUUID;
   std::string fabricPortID;
};

// A table from a dense number to a published pointer: lock-free lookups,
// changes under the owner's mutex.  Chunks of entries are allocated as
// numbers reach them and never move, so a reader needs no lock to walk
// the two levels.  Numbers at or past kCapacity have no entry.
template <class T>
class IdTable {
  public:
   static constexpr uint64_t kChunkBits = 10;
   static constexpr uint64_t kChunks = uint64_t(1) << 14;
   static constexpr uint64_t kCapacity = kChunks << kChunkBits;

   IdTable() = default;
   IdTable(const IdTable &) = delete;
   IdTable &operator=(const IdTable &) = delete;
   ~IdTable() { Clear(); }

   T *Find(uint64_t n) const {
      if (n >= kCapacity) {
         return nullptr;
      }
      const Chunk *c = chunks_[n >> kChunkBits].load(std::memory_order_acquire);
      return c == nullptr ? nullptr : c->at[n & kMask].load(std::memory_order_acquire);
   }

   // Under the owner's mutex; false when n is past the capacity.
   bool Set(uint64_t n, T *value) {
      if (n >= kCapacity) {
         return false;
      }
      std::atomic<Chunk *> &slot = chunks_[n >> kChunkBits];
      Chunk *c = slot.load(std::memory_order_relaxed);
      if (c == nullptr) {
         c = new Chunk();
         slot.store(c, std::memory_order_release);
      }
      c->at[n & kMask].store(value, std::memory_order_release);
      return true;
   }

   // Only while nobody can be looking up (a host reset).
   void Clear() {
      for (auto &slot : chunks_) {
         if (slot.load(std::memory_order_relaxed) != nullptr) {
            delete slot.exchange(nullptr, std::memory_order_acq_rel);
         }
      }
   }

  private:
   static constexpr uint64_t kMask = (uint64_t(1) << kChunkBits) - 1;
   struct Chunk {
      std::atomic<T *> at[uint64_t(1) << kChunkBits] = {};
   };
   std::atomic<Chunk *> chunks_[kChunks] = {};
};

// Identities in slabs, in the order ports are added: an upgrade visits
// ports in that order, so the identities it reads lie side by side in
// memory instead of one allocation apart.  Handed out until the host
// resets, never freed one by one.
class IdentityArena {
  public:
   PortIdentity *New() {
      if (slabs_.empty() || used_ == kSlab) {
         slabs_.push_back(std::make_unique<PortIdentity[]>(kSlab));
         used_ = 0;
      }
      return &slabs_.back()[used_++];
   }
   void Clear() {
      slabs_.clear();
      used_ = 0;
   }

  private:
   static constexpr size_t kSlab = 1024;
   std::vector<std::unique_ptr<PortIdentity[]>> slabs_;
   size_t used_ = 0;
};

struct Port {
   hyk_PortID id = 0;
   std::string portset;
   PortSpec desc;                // desc.properties is rebuilt from `props` for views
   // Property values with a trailing NUL the length leaves out; the host
   // hands out pointers into these, valid until the property changes.
   // Found by a module's key without building a string of it.
   std::map<std::string, std::vector<uint8_t>, std::less<>> props;
   uint32_t reasons = 0;
   // Room for a few intervals is made when the port is added, so that an
   // upgrade's block (one per port) allocates nothing.
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
   std::vector<uint32_t> events;   // posted on it, in order: indexes of Topology::eventNames
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
   // The identities of live ports by port ID and by vNIC number (the low
   // word of a vNIC handle), and every identity handed out since the last
   // reset (see PortIdentity).
   IdTable<const PortIdentity> identities;
   IdTable<const PortIdentity> vnicIdentities;
   // The same ports by ID for LockedPort: an index, not a hash and a
   // node chase (under `mu` like `ports`; the nodes never move).
   IdTable<Port> portsById;
   IdentityArena issuedIdentities;
   std::unordered_map<const hyk_Portset *, Handle> handles;
   // The names of portset events, each stored once: a portset's record of
   // its events holds indexes, so a post (one per port in an upgrade) adds
   // four bytes, not a copy of a 32-character name.
   std::vector<std::string> eventNames;
   std::map<std::string, uint32_t, std::less<>> eventIds;
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

// Without any lock: the identity of a live port, or nullptr.
const PortIdentity *FindIdentity(hyk_PortID id);
// Without any lock: the identity of the port a live vNIC handle names, or nullptr.
const PortIdentity *FindVnicIdentity(hyk_VNICHandle vnic);

// With Topo().mu held, before the port leaves `ports`: it no longer answers
// lookups by ID (LockedPort) nor the lock-free ones.
void WithdrawPort(Topology &t, const Port &p);

}  // namespace hyksim::fabric
