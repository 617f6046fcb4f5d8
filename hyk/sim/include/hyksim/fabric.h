// fabric.h -- control API of the simulated host's network fabric: portsets,
// ports, network and port events, character devices and user processes.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "hyk/hyk.h"

namespace hyksim {

// ---- topology -----------------------------------------------------------------

struct PortsetSpec {
   std::string name;
   std::string className = "etherswitch";   // switch class
   std::string classModule;                 // module providing the class ("" = the host's own)
   uint32_t fabricVersion = 107;
   bool fastDatapath = false;               // accepts hyk_FdpSwitchCommand
};

struct PortSpec {
   uint32_t clientType = HYK_PORT_CLIENT_VNIC;
   std::string vmUUID;                       // vNIC ports
   uint32_t vnicIndex = 0;                   // vNIC ports
   std::string fabricPortID;                 // distributed-switch port ID ("" = none)
   uint32_t flags = 0;                       // HYK_FABRIC_PORT_FLAG_*
   std::map<std::string, std::string> properties;  // fabric port data (bytes as string)
   bool enabled = true;
};

hyk_Status AddPortset(const PortsetSpec &desc);
hyk_Status RemovePortset(const std::string &name);
// Adds a port to a portset; *portID receives the host's port ID (IDs are
// allocated in increasing order).  HYK_LIMIT_EXCEEDED once the host has
// handed out 16 M port IDs since it started, or 16 M vNICs in this process.
hyk_Status AddPort(const std::string &portset, const PortSpec &desc, hyk_PortID *portID);
hyk_Status RemovePort(hyk_PortID portID);

// Enabling a port raises HYK_PORT_EVENT_STATE_ENABLE to its subscribers, on
// the calling thread (which plays the host's event context), on every call:
// enabling an enabled port is how a test says "the port came up again".
// Returns HYK_NOT_FOUND for an unknown port, else the first failing
// subscriber's status (HYK_OK when every subscriber succeeded).
hyk_Status EnablePort(hyk_PortID portID);
hyk_Status DisablePort(hyk_PortID portID);
// The host's own port service, as an operator reaches it: clears block
// `reason` of the port (the host's custom-block bits), whoever set it.
// HYK_NOT_FOUND for an unknown port; clearing a reason not set succeeds.
hyk_Status UnblockPort(hyk_PortID portID, uint32_t reason);

// ---- inspection -------------------------------------------------------------------

struct BlockedInterval {
   uint64_t fromUS, toUS;   // toUS == 0 while still blocked
   bool open = false;       // still blocked (tells an open interval from one closed at time 0)
};

struct PortView {
   hyk_PortID id;
   std::string portset;
   PortSpec desc;
   uint32_t blockReasons;       // bits set now
   bool passesTraffic;          // blockReasons == 0
   std::vector<BlockedInterval> blocked;   // every interval the port was blocked, as the host saw it
   uint64_t blockedTotalUS;     // sum of closed intervals (and the open one up to now)
};
std::optional<PortView> FindPort(hyk_PortID portID);
std::vector<PortView> Ports(const std::string &portset = "");

struct PortsetView {
   std::string name;
   std::string className;
   hyk_ModuleID classModule;
   uint32_t fabricVersion;
   std::vector<hyk_PortID> ports;
   std::map<std::string, std::vector<hyk_ModuleID>> upgradeNamespaces;  // namespace -> modules
   std::map<std::string, std::string> upgradeProperties;              // namespace -> "set" | "cleared"
   std::vector<std::string> events;           // portset events posted on it, in order
   std::vector<std::vector<uint8_t>> fdpCommands;  // fast-datapath command records received
   uint32_t acquireCount;                     // times acquired and not yet released
   std::vector<uint32_t> fdpCommandClasses;   // the command class of each record, in order
   bool exclusive = false;                    // held with HYK_PORTSET_ACCESS_EXCL now
   bool fastDatapath = false;                 // accepts hyk_FdpSwitchCommand
};
std::optional<PortsetView> FindPortset(const std::string &name);
std::vector<PortsetView> Portsets();

// ---- events -------------------------------------------------------------------------

// Posts a network event on a portset from the host side (as the datapath
// would): e.g. "com.corvid.tarn.kcp.port.unblock" with a port ID payload.
// Runs on the calling thread, which plays the host's event context; several
// threads may post at once.  Subscribers get a private copy of the payload
// and a portset reference valid for the delivery (the post does not acquire
// the portset, so it does not wait for a module that holds it).
// Returns HYK_NOT_FOUND for an unknown portset, else the first failing
// subscriber's status.
hyk_Status PostPortsetEvent(const std::string &portset, const std::string &name,
                            const void *payload, uint32_t len);
hyk_Status PostGlobalEvent(const std::string &name, const void *payload, uint32_t len);
// "The new datapath of `build` takes portset X over" (hyksim/datapath.h):
// posts the takeover event on the portset from `threads` host threads at
// once, each with its share of the ports, and waits for them.  The switch
// module of that build answers by posting the port-unblock event for each
// port of its share.  Returns the first failing post's status.
hyk_Status TakeOverPortset(const std::string &portset, uint32_t build, unsigned threads = 1);

struct SubscriptionView {
   std::string event;
   hyk_ModuleID module;
   bool portEvent;
};
std::vector<SubscriptionView> Subscriptions();
std::vector<std::string> RegisteredEvents();

// ---- character devices and user processes --------------------------------------------

// A user process: its own memory (a set of mapped ranges at user addresses)
// and a thread of its own.  Device calls made on that thread go through the
// host's device layer; the module sees them as that process's calls, and
// hyk_CopyFromUser / hyk_CopyToUser reach exactly the process's ranges.
//
// Memory: each Alloc maps a new range at a page-aligned user address from
// 0x10000000 up, separated from its neighbours by an unmapped guard page, so
// a copy that runs past the end of a range fails.  The ranges together may
// not exceed `memoryBytes`; Alloc returns 0 when they would (or for len 0).
//
// An open file pins the device's owner module (its use count), so the module
// cannot be unloaded while a process has its device open: UnloadModule
// answers HYK_BUSY.  Destroying the process closes its open files first, as
// a process exit does.
class UserProcess {
  public:
   explicit UserProcess(const std::string &name, uint64_t memoryBytes = 1 << 20);
   ~UserProcess();
   UserProcess(const UserProcess &) = delete;
   UserProcess &operator=(const UserProcess &) = delete;

   uint32_t pid() const;
   // Allocates `len` bytes of the process's memory, returns its user address.
   hyk_UserVA Alloc(uint64_t len);
   // Copies into / out of the process's memory (host side, no fault injection).
   void Write(hyk_UserVA addr, const void *src, uint64_t len);
   void Read(hyk_UserVA addr, void *dst, uint64_t len) const;

   // Device calls: run on the process's own thread, wait for the result.
   // Open: HYK_NOT_FOUND for no such device (or one being unregistered),
   // else the device's open status.  The others: HYK_INVALID_HANDLE for an
   // fd that is not open, HYK_NOT_SUPPORTED for an empty operation slot.
   // Close always closes the file and returns the device's close status.
   hyk_Status Open(const std::string &device, int *fd);
   hyk_Status Close(int fd);
   hyk_Status Ioctl(int fd, uint32_t cmd, hyk_UserVA arg);
   hyk_Status DevRead(int fd, hyk_UserVA buf, uint64_t len, uint64_t *done);
   hyk_Status DevWrite(int fd, hyk_UserVA buf, uint64_t len, uint64_t *done);
   hyk_Status Poll(int fd, uint32_t *events);
   // Number of files the process has open.
   size_t OpenFiles() const;

   // Runs fn on the process's thread (for several device calls in a row).
   void Run(const std::function<void()> &fn);

  private:
   struct Impl;
   Impl *impl_;
};

struct CharDevView {
   std::string name;
   hyk_ModuleID owner;
   uint32_t openFiles;
};
std::vector<CharDevView> CharDevs();

// ---- packet filter ---------------------------------------------------------------

// Revalidations received per port (PFilter_TblRevalidateVmPort).
uint32_t PFilterRevalidations(hyk_PortID portID);

}  // namespace hyksim
