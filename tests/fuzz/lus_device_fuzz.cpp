// lus_device_fuzz.cpp -- fuzzes the control device "lus" the way a hostile
// or broken upgrade tool would reach it: one user process issuing a sequence
// of ioctls with arbitrary command numbers, headers and payloads.
//
// Each input runs on a fresh small host (three portsets with vNIC, LSPG,
// external-id, uplink, internal and container ports; a from-build and a
// to-build client; the fast-datapath modules of both builds) with lus loaded
// once for the input, so every input replays exactly.  The input is decoded
// structure-aware: most commands get a well-formed payload for their command
// number whose counts, names and header length are then bent; some get raw
// bytes; some get a header whose data address, or the header itself, lies
// outside the process.  One host call may be made to fail once.
//
// lus's object stays mapped across inputs (the host's resident objects):
// the fuzzer's coverage counters live in the object, and the host copies
// the object's pristine data back at every load, so each input still starts
// from fresh globals.
//
// What counts as a finding, besides what ASan and UBSan report: a host panic
// (lock order, double free, freeing to the wrong heap, ...), a command
// answering a status the host does not know, lus refusing to unload when the
// process has gone, a command of the device's own that leaves an allocation
// behind in lus_heap_0, and after the unload: any lus heap destroyed with
// live allocations, a world still alive, a portset still acquired, or a
// client module still pinned.
//
// Commands 9 and 10 stay in: the host runs on its virtual clock, so the
// sleeps of the single-port upgrade and the world's waits cost no real time,
// and the portset-upgrade command only waits for a world that runs one pass.

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "hyksim/fabric.h"
#include "hyksim/host.h"
#include "lus_ioctl.h"
#include "lus_test_client.h"
#include "lus_test_support.h"
#include "lusctl.h"

namespace {

constexpr uint32_t kFromBuild = 1000;
constexpr uint32_t kToBuild = 2000;
constexpr int kMaxCommands = 12;
// Raw payloads and padding stay small: the protocol's largest payload is
// 128 * 136 + 9 bytes, and longer ones only cost time.
constexpr size_t kMaxRawBytes = 20000;

// Reads the input front to back; past its end every read yields zeros.
class Reader {
  public:
   Reader(const uint8_t *data, size_t size) : p_(data), n_(size) {}
   bool empty() const { return n_ == 0; }
   uint8_t U8() {
      if (n_ == 0) return 0;
      n_--;
      return *p_++;
   }
   uint16_t U16() { return static_cast<uint16_t>(U8() | (U8() << 8)); }
   uint32_t U32() { return U16() | (static_cast<uint32_t>(U16()) << 16); }
   std::vector<uint8_t> Bytes(size_t len) {
      len = std::min(len, n_);
      std::vector<uint8_t> out(p_, p_ + len);
      p_ += len;
      n_ -= len;
      return out;
   }

  private:
   const uint8_t *p_;
   size_t n_;
};

// Portset names the payloads draw from: the three that exist, one that does
// not, one of the longest legal length, and one that fills its whole field
// with no terminator (index kUnterminated).
constexpr int kUnterminated = 5;
const std::vector<std::string> &NamePool() {
   static const std::vector<std::string> pool = {
      "ps-new", "ps-old", "ps-cs", "ps-missing", std::string(127, 'n'), "",
   };
   return pool;
}

// Host operations a single injected failure may hit.  Waiting for a world's
// death is left out: the portset-upgrade command keeps waiting until the
// world is gone, which is what it must do, so failing that wait for ever
// would only hang the run.
const char *const kFaultOps[] = {
   "hyk_CopyFromUser",        "hyk_HeapAllocWithRA",          "hyk_PortsetAcquireByName",
   "hyk_PortsetLookupFabricVersion", "hyk_PortsetForAllPorts", "hyk_PortGetClientType",
   "hyk_FabricPortFlagIsSet", "hyk_FabricPortDataGet",        "hyk_PortCustomBlock",
   "hyk_NetEventPortsetEventPost", "hyk_NetEventPost",        "hyk_FdpSwitchCommand",
   "hyk_WorldCreate",         "hyk_NameInitialize",           "hyk_PortsetFabricPropUpgradeRegister",
};

struct Host {
   std::vector<std::unique_ptr<lustest::TestClient>> clients;
   std::vector<hyk_PortID> ports;
   std::vector<std::string> portsetOf;   // by index in ports
   hyk_ModuleID fdpFrom = HYK_INVALID_MODULE_ID, fdpTo = HYK_INVALID_MODULE_ID;
};

void Check(bool ok, const char *what) {
   if (!ok) {
      fprintf(stderr, "lus_device_fuzz: %s\n", what);
      abort();
   }
}

void AddPort(Host &h, const std::string &ps, hyksim::PortSpec desc) {
   hyk_PortID id = 0;
   Check(hyksim::AddPort(ps, desc, &id) == HYK_OK, "AddPort failed");
   h.ports.push_back(id);
   h.portsetOf.push_back(ps);
}

hyksim::PortSpec Vnic(const std::string &uuid) {
   hyksim::PortSpec s;
   s.vmUUID = uuid;
   return s;
}

void BuildHost(Host &h) {
   hyksim::HostOptions opts;
   opts.virtualClock = true;
   hyksim::HostStart(opts);

   hyksim::PortsetSpec ps;
   ps.name = "ps-new";
   ps.fabricVersion = 107;
   ps.fastDatapath = true;
   Check(hyksim::AddPortset(ps) == HYK_OK, "AddPortset ps-new");
   AddPort(h, "ps-new", Vnic("vm-1"));
   hyksim::PortSpec lspg = Vnic("vm-2");
   lspg.flags = HYK_FABRIC_PORT_FLAG_LSPG;
   AddPort(h, "ps-new", lspg);
   hyksim::PortSpec ext = Vnic("vm-3");
   ext.properties["com.corvid.port.extraConfig.vnic.external.id"] = "ext-3";
   AddPort(h, "ps-new", ext);
   hyksim::PortSpec uplink;
   uplink.clientType = HYK_PORT_CLIENT_UPLINK;
   AddPort(h, "ps-new", uplink);
   hyksim::PortSpec container;
   container.clientType = HYK_PORT_CLIENT_CONTAINER;
   container.properties["com.corvid.common.port.pfilteraltkpx"] = "kpx";
   AddPort(h, "ps-new", container);

   ps = {};
   ps.name = "ps-old";
   ps.fabricVersion = 106;
   Check(hyksim::AddPortset(ps) == HYK_OK, "AddPortset ps-old");
   AddPort(h, "ps-old", Vnic("vm-4"));
   AddPort(h, "ps-old", Vnic("vm-5"));
   hyksim::PortSpec internal;
   internal.clientType = HYK_PORT_CLIENT_INTERNAL;
   AddPort(h, "ps-old", internal);

   ps = {};
   ps.name = "ps-cs";
   ps.className = "cswitch";
   Check(hyksim::AddPortset(ps) == HYK_OK, "AddPortset ps-cs");
   AddPort(h, "ps-cs", Vnic("vm-6"));

   for (uint32_t build : {kFromBuild, kToBuild}) {
      hyksim::InProcessModule fdp;
      fdp.name = "tarnq-fdp-" + std::to_string(build);
      hyk_ModuleID id = HYK_INVALID_MODULE_ID;
      Check(hyksim::LoadInProcessModule(fdp, &id) == HYK_OK, "fdp module");
      (build == kFromBuild ? h.fdpFrom : h.fdpTo) = id;
   }

   lustest::TestClientConfig from;
   from.moduleName = "fz-switch-from";
   from.clientName = "fz-switch";
   from.buildNumber = kFromBuild;
   lustest::TestClientConfig to = from;
   to.moduleName = "fz-switch-to";
   to.buildNumber = kToBuild;
   for (const auto &cfg : {from, to}) {
      h.clients.push_back(std::make_unique<lustest::TestClient>(cfg));
      Check(h.clients.back()->Load() == HYK_OK, "test client load");
   }
}

// A portset-list payload as the tool builds it, then bent by the input.
std::vector<uint8_t> PortsetPayload(Reader &r) {
   uint32_t count;
   switch (r.U8() % 8) {
      case 0: count = 0; break;
      case 1: case 2: count = 1; break;
      case 3: count = 2; break;
      case 4: count = 3; break;
      case 5: count = LUS_MAX_PORTSETS; break;
      case 6: count = LUS_MAX_PORTSETS + 1; break;
      default: count = r.U32(); break;
   }
   // Entries actually present: the count, or fewer when it is out of range.
   const uint32_t present = count <= LUS_MAX_PORTSETS ? count : r.U8() % 4;
   const bool legacy = (r.U8() & 1) != 0;
   const uint32_t maxOutage = r.U8() < 200 ? 10 : r.U32();

   std::vector<lusctl::PortsetArg> args;
   std::vector<bool> unterminated;
   for (uint32_t i = 0; i < present; i++) {
      lusctl::PortsetArg a;
      const size_t pick = r.U8() % NamePool().size();
      a.name = NamePool()[pick];
      const uint8_t op = r.U8();
      a.op = op % 4 == 3 ? r.U32() : op % 3;
      a.fdpMode = r.U8();
      args.push_back(a);
      unterminated.push_back(pick == kUnterminated);
   }
   std::vector<uint8_t> buf = lusctl::PortsetQuery(args, legacy, maxOutage);
   for (uint32_t i = 0; i < present; i++) {
      if (unterminated[i]) {
         std::memset(buf.data() + sizeof(LusPortsetQuery) + i * sizeof(LusPortsetEntry), 'x',
                     LUS_PORTSET_NAME_LEN);
      }
   }
   std::memcpy(buf.data(), &count, sizeof count);
   return buf;
}

std::vector<uint8_t> PsUpgradePayload(Reader &r, const Host &h) {
   uint32_t count;
   switch (r.U8() % 6) {
      case 0: count = 0; break;
      case 1: case 2: count = 1; break;
      case 3: count = 3; break;
      default: count = r.U32(); break;
   }
   const uint32_t present = count <= 8 ? count : r.U8() % 4;
   const size_t pick = r.U8() % NamePool().size();
   std::vector<lusctl::ModuleArg> modules;
   for (uint32_t i = 0; i < present; i++) {
      lusctl::ModuleArg m{};
      m.isFromBuild = (r.U8() & 1) != 0;
      switch (r.U8() % 4) {
         case 0: m.moduleID = h.clients[0]->id(); break;
         case 1: m.moduleID = h.clients[1]->id(); break;
         case 2: m.moduleID = lustest::LusID(); break;
         default: m.moduleID = r.U32(); break;
      }
      modules.push_back(m);
   }
   std::vector<uint8_t> buf = lusctl::PsUpgradeQuery(NamePool()[pick], modules);
   if (pick == kUnterminated) {
      std::memset(buf.data() + offsetof(LusPsUpgradeQuery, psName), 'x', LUS_PORTSET_NAME_LEN);
   }
   std::memcpy(buf.data(), &count, sizeof count);
   return buf;
}

std::vector<uint8_t> UpgradePortPayload(Reader &r, const Host &h) {
   const uint32_t arg0 = r.U8();
   const uint8_t pick = r.U8();
   const hyk_PortID port = pick < 200 ? h.ports[pick % h.ports.size()] : r.U32();
   return lusctl::UpgradePortQuery(arg0, port, static_cast<int8_t>(r.U8()));
}

// The header's length for a payload of `size` bytes: mostly exact, sometimes
// one byte off either way, sometimes far off.
uint32_t BendLength(Reader &r, size_t size) {
   const int64_t n = static_cast<int64_t>(size);
   switch (r.U8() % 10) {
      case 6: return static_cast<uint32_t>(std::max<int64_t>(n - 1, 0));
      case 7: return static_cast<uint32_t>(n + 1);
      case 8: return static_cast<uint32_t>(std::max<int64_t>(n - r.U8(), 0));
      case 9: return r.U8() < 128 ? static_cast<uint32_t>(n + r.U8()) : r.U32();
      default: return static_cast<uint32_t>(n);
   }
}

// A status the host's table names ("Unknown status" is what it says otherwise).
bool KnownStatus(hyk_Status st) {
   return strcmp(hyk_StatusToString(st), "Unknown status") != 0;
}

// What must hold once lus has unloaded, whatever the input did.
void CheckNothingLeft(const Host &h) {
   for (const auto &leak : hyksim::LeakReports()) {
      if (leak.heap.rfind("lus_heap_", 0) == 0) {
         fprintf(stderr, "heap %s destroyed with %llu bytes in %llu allocations\n", leak.heap.c_str(),
                 (unsigned long long)leak.bytes, (unsigned long long)leak.allocations);
         Check(false, "lus left allocations in its heaps");
      }
   }
   Check(hyksim::Counts().worlds == 0, "a world outlived lus");
   for (const auto &ps : hyksim::Portsets()) {
      if (ps.acquireCount != 0) {
         fprintf(stderr, "portset %s acquired %u times\n", ps.name.c_str(), ps.acquireCount);
         Check(false, "lus left a portset acquired");
      }
   }
   for (const auto &c : h.clients) {
      auto view = hyksim::FindModule(c->config().moduleName);
      Check(!view || view->useCount == 0, "lus left a client module pinned");
   }
}

uint64_t Heap0Live() {
   auto heap = hyksim::FindHeap("lus_heap_0");
   return heap ? heap->liveAllocations : 0;
}

// Besides ioctls, an input may make the host do what the datapath does
// between commands, so that the restore paths run too: command bytes 240 and
// up.  Their pseudo command numbers are kHostAction + the action.
constexpr uint8_t kFirstHostAction = 240;
constexpr uint32_t kHostAction = 0xffffff00u;

hyk_Status HostAction(uint8_t action, Reader &r, const Host &h) {
   const size_t i = r.U8() % h.ports.size();
   uint32_t port = h.ports[i];
   switch (action % 4) {
      case 0:   // the new switch carries the port: its unblock (restore) event
         return hyksim::PostPortsetEvent(h.portsetOf[i], "com.corvid.tarn.kcp.port.unblock", &port, sizeof port);
      case 1:   // the port comes up
         return hyksim::EnablePort(port);
      case 2:   // past the clear timer
         hyksim::AdvanceClock(121ull * 1000000ull);
         return HYK_OK;
      default:  // an unblock event for a port that does not exist
         port = r.U32();
         return hyksim::PostPortsetEvent(h.portsetOf[i], "com.corvid.tarn.kcp.port.unblock", &port, sizeof port);
   }
}

hyk_Status IssueOne(Reader &r, lusctl::Client &client, hyksim::UserProcess &proc, const Host &h,
                    uint32_t *cmdOut) {
   const uint8_t c = r.U8();
   if (c >= kFirstHostAction && c != 255) {
      *cmdOut = kHostAction + (c - kFirstHostAction);
      return HostAction(c - kFirstHostAction, r, h);
   }
   const uint32_t cmd = c % 16 == 15 ? r.U32() : c % 16;
   *cmdOut = cmd;
   const uint8_t shape = r.U8() % 8;

   if (shape <= 4) {
      std::vector<uint8_t> payload;
      switch (cmd) {
         case LUS_IOCTL_PS_UPGRADE: payload = PsUpgradePayload(r, h); break;
         case LUS_IOCTL_UPGRADE_PORT: payload = UpgradePortPayload(r, h); break;
         case LUS_IOCTL_PRE_DUAL_LOAD: case LUS_IOCTL_GLOBAL_CONFIG:
         case LUS_IOCTL_STATE_COLLECTED: case LUS_IOCTL_RESTORE_COMPLETE: break;
         default: payload = PortsetPayload(r); break;
      }
      const uint32_t length = BendLength(r, payload.size());
      // A header that claims more than was written gets the rest mapped
      // (zeros) about half the time, so that both the refusal of the extra
      // bytes and the failing copy are reached.
      if (length > payload.size() && length - payload.size() <= kMaxRawBytes && (r.U8() & 1)) {
         payload.resize(length);
      }
      return client.Raw(cmd, payload, length);
   }
   if (shape == 5) {
      std::vector<uint8_t> raw = r.Bytes(r.U16() % (kMaxRawBytes + 1));
      return client.Raw(cmd, raw, BendLength(r, raw.size()));
   }
   if (shape == 6) {
      // Data address outside (or at the edge of) the process's memory.
      hyk_UserVA data;
      switch (r.U8() % 4) {
         case 0: data = 0; break;
         case 1: data = client.lastPayload() + r.U16(); break;
         case 2: data = 0x10000000ull - r.U8(); break;
         default: data = (static_cast<uint64_t>(r.U32()) << 32) | r.U32(); break;
      }
      return client.RawAt(cmd, data, r.U8() < 128 ? r.U8() : r.U32());
   }
   // The header itself outside the process's memory.
   (void)proc;
   const hyk_UserVA header = r.U8() < 128 ? client.lastPayload() + r.U16() : r.U32();
   return client.RawHeaderAt(cmd, header);
}

void RunInput(const uint8_t *data, size_t size) {
   static const bool resident = (hyksim::KeepModuleObjectsResident(true), true);
   (void)resident;
   Reader r(data, size);
   Host h;
   BuildHost(h);

   const uint8_t setup = r.U8();
   std::vector<std::string> params = {"LUS_HEAP_0_MAX_SIZE=16000000"};
   if ((setup & 0x1) == 0) {
      params.push_back("fromBuild=" + std::to_string(kFromBuild));
   }
   if (setup & 0x2) {
      params.push_back("lusLogLevel=5");
   }
   Check(lustest::LoadLus(params) == HYK_OK, "lus did not load");

   if (setup & 0x4) {
      hyksim::FaultSpec fault;
      fault.op = kFaultOps[r.U8() % (sizeof kFaultOps / sizeof kFaultOps[0])];
      fault.nth = 1 + r.U8() % 16;
      fault.status = (r.U8() & 1) ? HYK_FAILURE : HYK_NO_MEMORY;
      hyksim::InjectFault(fault);
   }

   {
      hyksim::UserProcess proc("lusctl");
      lusctl::Client client(proc);
      Check(client.ok(), "device did not open");
      static const bool trace = getenv("LUS_FUZZ_TRACE") != nullptr;
      for (int i = 0; i < kMaxCommands && !r.empty(); i++) {
         const uint64_t before = Heap0Live();
         uint32_t cmd = 0;
         hyk_Status st = IssueOne(r, client, proc, h, &cmd);
         if (trace) fprintf(stderr, "  command %u -> 0x%x\n", cmd, st);
         if (cmd >= kHostAction) {
            continue;
         }
         if (!KnownStatus(st)) {
            fprintf(stderr, "command %u answered 0x%x\n", cmd, st);
            Check(false, "a command answered a status the host does not know");
         }
         // The block, fast-datapath and switch-event commands and refused
         // command numbers allocate nothing that outlives them, whatever the
         // payload: a change in lus_heap_0 is a buffer lost on some path.
         // (The other commands hand over to registration, save, restore and
         // upgrade code that keeps records by design.)
         if (cmd == LUS_IOCTL_BLOCK_PORTS || cmd == LUS_IOCTL_FDP_OP ||
             cmd == LUS_IOCTL_CSWITCH_EVENTS || cmd >= LUS_IOCTL_NUM_CMDS) {
            if (Heap0Live() != before) {
               fprintf(stderr, "command %u (status 0x%x) changed lus_heap_0 from %llu to %llu live allocations\n",
                       cmd, st, (unsigned long long)before, (unsigned long long)Heap0Live());
               Check(false, "a command lost a buffer");
            }
         }
      }
   }

   hyksim::ClearFaults();
   Check(lustest::UnloadLus() == HYK_OK, "lus refused to unload after its user went away");
   CheckNothingLeft(h);
   hyksim::HostStop();
   h.clients.clear();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
   RunInput(data, size);
   return 0;
}
