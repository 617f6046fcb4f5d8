// tool.h -- the upgrade tool `lusctl`: what it needs from where it runs (the
// device and the host's services), the two upgrade flows, and the report.
//
// The tool reaches the device "lus" through one small interface (Device:
// open, ioctl, close), so that transports can be added; today the device of
// a user process of the simulated host.  It asks the host to load and unload
// modules the way a real tool asks its kernel, and builds its report only
// from what a tool can observe on a host (Host): the log, the ports' blocked
// intervals, the sample clients' ledger, module use counts, heap usage.
#pragma once

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "hyk/hyk.h"
#include "hyksim/fabric.h"
#include "hyksim/host.h"
#include "hyksim/ledger.h"
#include "lusctl.h"

namespace lusctl {

// ---- where the tool runs --------------------------------------------------------

class Device {
  public:
   virtual ~Device() = default;
   // Opens the device "lus".
   virtual hyk_Status Open() = 0;
   // Issues command `cmd` with `payload` in the caller's memory and a header
   // that says `length`.
   virtual hyk_Status Ioctl(uint32_t cmd, const std::vector<uint8_t> &payload, uint32_t length) = 0;
   virtual void Close() = 0;
};

struct ModuleInfo {
   std::string name;
   hyk_ModuleID id;
   uint32_t useCount;
};

struct TimerInfo {
   std::string queue;      // the timer queue's name
   std::string owner;      // the module that owns the queue
   uint64_t dueUS = 0;     // when it falls due (host clock)
};

// The host went away, did not answer in time, or answered something that
// is no answer.  Only a transport to another process throws it; the flows
// catch it, say what they know and how to recover.
struct HostError : std::runtime_error {
   using std::runtime_error::runtime_error;
};

class Host {
  public:
   virtual ~Host() = default;
   // The module service: load a module by name (from the host's module
   // directory: "lus-<build>", or "<client>-<build>") with parameters;
   // unload one by the name it has loaded ("lus", "<client>-<build>").
   virtual hyk_Status LoadModule(const std::string &name, const std::vector<std::string> &params,
                                 std::string *error) = 0;
   virtual hyk_Status UnloadModule(const std::string &name) = 0;
   virtual std::vector<ModuleInfo> Modules() = 0;
   virtual std::vector<hyksim::PortsetView> Portsets() = 0;
   virtual std::vector<hyksim::PortView> Ports() = 0;
   // "The new datapath of `build` takes the portset over", from `threads` host threads.
   virtual hyk_Status TakeOver(const std::string &portset, uint32_t build, unsigned threads) = 0;
   // The port comes up (the host raises its enable event).
   virtual hyk_Status EnablePort(uint32_t port) = 0;
   // The new datapath announces the port again: the port-unblock event
   // ("com.corvid.tarn.kcp.port.unblock") is posted on its portset.
   virtual hyk_Status PostRestoreEvent(uint32_t port) = 0;
   // The host's own port service: clears lus's block (0x2000) of the port.
   virtual hyk_Status UnblockPort(uint32_t port) = 0;
   // Timers armed now, with the module that owns each.
   virtual std::vector<TimerInfo> Timers() = 0;
   virtual std::vector<hyksim::LogLine> Log() = 0;
   virtual std::vector<hyksim::LedgerClientView> Ledger() = 0;
   virtual std::vector<hyksim::HeapView> Heaps() = 0;
   virtual uint64_t NowUS() = 0;
};

// A Host that passes every call to another: what a host that changes one
// service (the server's own module parameters) derives from.
class ForwardingHost : public Host {
  public:
   explicit ForwardingHost(Host &inner) : inner_(inner) {}
   hyk_Status LoadModule(const std::string &name, const std::vector<std::string> &params,
                         std::string *error) override {
      return inner_.LoadModule(name, params, error);
   }
   hyk_Status UnloadModule(const std::string &name) override { return inner_.UnloadModule(name); }
   std::vector<ModuleInfo> Modules() override { return inner_.Modules(); }
   std::vector<hyksim::PortsetView> Portsets() override { return inner_.Portsets(); }
   std::vector<hyksim::PortView> Ports() override { return inner_.Ports(); }
   hyk_Status TakeOver(const std::string &portset, uint32_t build, unsigned threads) override {
      return inner_.TakeOver(portset, build, threads);
   }
   hyk_Status EnablePort(uint32_t port) override { return inner_.EnablePort(port); }
   hyk_Status PostRestoreEvent(uint32_t port) override { return inner_.PostRestoreEvent(port); }
   hyk_Status UnblockPort(uint32_t port) override { return inner_.UnblockPort(port); }
   std::vector<TimerInfo> Timers() override { return inner_.Timers(); }
   std::vector<hyksim::LogLine> Log() override { return inner_.Log(); }
   std::vector<hyksim::LedgerClientView> Ledger() override { return inner_.Ledger(); }
   std::vector<hyksim::HeapView> Heaps() override { return inner_.Heaps(); }
   uint64_t NowUS() override { return inner_.NowUS(); }

  protected:
   Host &inner_;
};

// The tool's environment: a host, and a device of that host per opening.
struct Environment {
   Host *host = nullptr;
   std::function<std::unique_ptr<Device>()> openDevice;
   std::string hostPath;   // the socket of a host in another process ("" for this process's)
};

// ---- where modules are ----------------------------------------------------------------

// The programs' own modules: PREFIX/lib/lus/modules beside an installed
// PREFIX/bin, or the build tree's modules/ -- found from the program's own
// place, so that an installed tree can move.
std::string OwnModuleDir();
// "A:B:C" -> {A, B, C} (empty parts dropped).
std::vector<std::string> SplitPath(const std::string &list);
// `own`, then HYKSIM_MODULE_PATH's directories, then each of `extra` (each
// a colon-separated list, as --module-path takes it).
std::vector<std::string> ModuleSearchPath(const std::string &own, const std::vector<std::string> &extra);
// The file of module `name` ("lus-2000": b2000/lus.so; "tarnq-dfw-1000":
// tarnq-dfw-1000.so or clients/tarnq-dfw-1000.so) along `dirs`; "" with
// *error when it is nowhere, found twice (both named) or not a name.
std::string FindModuleFile(const std::vector<std::string> &dirs, const std::string &name, std::string *error);
struct ModuleFile {
   std::string name, path;
};
// Every module along `dirs`, by name (a name twice is listed twice).
std::vector<ModuleFile> ListModuleFiles(const std::vector<std::string> &dirs);

// The simulated host of this process: a user process's device, and the
// host's control API.  `modulePath` is a colon-separated list of module
// directories (see FindModuleFile).
std::unique_ptr<Host> MakeSimHost(const std::string &modulePath);
std::unique_ptr<Device> MakeSimDevice();

// A host served by `hyksim serve` on a Unix socket: one connection carries
// both the host's services and the device (one request, one answer, each a
// line of JSON).  MakeRemote returns null with *error when it cannot connect.
struct RemoteConnection;
struct Remote {
   std::unique_ptr<Host> host;
   std::function<std::unique_ptr<Device>()> openDevice;
   std::shared_ptr<RemoteConnection> connection;
};
// A host that does not answer a request within `timeoutMS` is taken as gone.
std::optional<Remote> MakeRemote(const std::string &socketPath, std::string *error, int timeoutMS = 30000);

// The server side: answers one request line on behalf of the host of this
// process; `scenario` runs a line of the scenario language ("" or why not),
// `device` is the connection's own device.
struct ServerSession {
   std::function<std::string(const std::string &line, std::string *output)> scenario;
   std::unique_ptr<Device> device;
   Host *host = nullptr;
   uint32_t maxTakeoverThreads = 64;   // a takeover request may ask for 1 to this many
};
std::string HandleRequest(ServerSession &session, const std::string &line, bool *shutdown);

// ---- commands -------------------------------------------------------------------

// The device commands by the names the tool uses for them.
struct CommandName {
   const char *name;
   uint32_t number;
};
const std::vector<CommandName> &Commands();
std::string CommandLabel(uint32_t cmd);   // "save (command 4)"
std::string StatusText(hyk_Status status);   // "0xbad0007 Bad parameter"

// ---- flows --------------------------------------------------------------------------

struct FlowOptions {
   enum Kind { kClassic, kPortset } kind = kClassic;
   uint32_t fromBuild = 0, toBuild = 0;
   std::vector<std::string> portsets;
   uint32_t maxOutageSec = 30;
   bool legacy = false;
   std::vector<std::string> modules;        // per-portset: extra modules of command 9
   std::vector<uint32_t> containerPorts;    // per-portset: ports upgraded alone (command 10)
   std::vector<std::string> moduleParams;   // given to every module of the new build (its seed)
   std::vector<std::string> lusParams;      // given to lus besides fromBuild (its log level)
   std::vector<std::string> clients;        // client names; empty: every loaded "<x>-<from>"
   bool dryRun = false;
   unsigned restoreRounds = 20;             // command 12 retries before giving up
   unsigned takeoverThreads = 2;            // host threads posting the restore events
};

struct StepRecord {
   int index = 0;
   std::string name;            // "save", "load lus", ...
   std::string command;         // "save (command 4)", or "" for a host action
   uint32_t number = UINT32_MAX;
   hyk_Status status = HYK_OK;
   uint64_t startUS = 0, endUS = 0;
   std::string detail;          // payload hex in a dry run, or what a host step did
};

struct FlowResult {
   std::vector<StepRecord> steps;
   bool ok = true;
   int failedStep = -1;
   // Pre-checks that failed: the flow refused to start and did nothing.
   std::vector<std::string> refusals;
   // The step at which state leaves the old build ("unload old build" in the
   // classic flow, the first "ps-upgrade" in the per-portset one).  A flow
   // that fails before it undoes what it did; after it, `lusctl recover`
   // carries the upgrade forward.
   int pointOfNoReturn = 0;
   std::string pointOfNoReturnName;
   bool pastPointOfNoReturn = false;
   bool rolledBack = false;
   std::vector<std::string> undone;   // what the undo did, in order
   // The host went away, did not answer or answered garbage (HostError).
   std::string hostError;
   // Ports a recovery unblocked without their state, each with what was given up.
   std::vector<std::string> givenUp;
   std::vector<uint32_t> givenUpPorts;
   uint64_t startUS = 0, endUS = 0;
   uint64_t logSeqStart = 0;    // the report looks at log lines from here on
};

// The parameters of module `module` (a name without its build; "lus" for
// lus) among --module-param's: a bare NAME=VALUE goes to every module of
// the new build (not to lus), MODULE:NAME=VALUE to that module alone.
std::vector<std::string> ParamsFor(const std::vector<std::string> &params, const std::string &module,
                                   uint32_t build);

// A step's record before it runs: its number, name and device command.
StepRecord NewStepRecord(int index, const std::string &name, uint32_t number);

// Blocked by lus (its block reason, 0x2000), whatever else blocks the port.
inline bool IsLusBlocked(const hyksim::PortView &p) { return (p.blockReasons & HYK_PORT_BLOCK_CUSTOM) != 0; }

// Progress: called before and after each step.
using Progress = std::function<void(const StepRecord &step, int total, bool done)>;

FlowResult RunFlow(Environment &env, const FlowOptions &opts, const Progress &progress);

// ---- the report -----------------------------------------------------------------------

struct PortRow {
   uint32_t port = 0;
   std::string portset;
   std::string name;             // "PORTSET#INDEX": the INDEX-th port made in PORTSET
   std::string vm;               // the VM's UUID ("" for a port of no VM)
   int vnic = -1;                // the vNIC's index (-1: not a vNIC port)
   uint64_t fromUS = 0;          // when the last blocked interval began (host clock)
   uint64_t hostUS = 0;          // last blocked interval, as the host measured it
   int moduleSec = -1;           // outage lus logged, whole seconds (-1: none logged)
   bool overBudget = false;
   bool blocked = false;         // still blocked by lus at the end
   bool passes = false;          // passes traffic at the end (no block reason at all)
   bool everBlocked = false;     // blocked by lus at some time during the flow
   bool upgraded = false;        // blocked, handed to the new build, and passes traffic
   bool inUpgrade = false;       // of a portset the flow upgrades
   // Every blocked interval during the flow: [from, to) on the host clock.
   std::vector<std::pair<uint64_t, uint64_t>> intervals;
};
struct ClientRow {
   std::string client;
   hyksim::LedgerCount saved, restored, verified, converted, mismatched, refused;
   uint64_t droppedBytes = 0;    // reported dropped by lus, unexpectedly
   uint64_t droppedPorts = 0;
   uint64_t byDesignBytes = 0;   // dropped by the per-portset flow's design (portset-phase maps)
   uint64_t byDesignPorts = 0;
   std::vector<uint32_t> mismatchedPorts, refusedPorts;   // from the ledger, by port
   hyksim::LedgerCount sharedMismatched, sharedRefused;   // portset and global state
};

// One thing that keeps an upgrade from being "completed".  `kind` is what
// --allow names: over-budget, mismatched, refused, dropped, lost, blocked.
struct Violation {
   std::string kind;
   std::string text;
};
const std::vector<std::string> &ViolationKinds();

// A lus log line, verbatim, with the port and the client it is about.
struct AttributedLine {
   uint32_t port = 0;            // 0: no port
   std::string portName;
   std::string client;
   std::string text;             // lus's message as logged
   bool byDesign = false;        // a drop the flow's design intends
};

// Per client and callback, from lus's level-5 duration lines.
struct CallbackStats {
   std::string client, callback;
   uint64_t count = 0, totalMS = 0, p50MS = 0, p99MS = 0, maxMS = 0;
};

struct Report {
   std::string flow;
   uint32_t fromBuild = 0, toBuild = 0, budgetSec = 0;
   std::vector<std::string> portsets;
   FlowResult result;
   std::vector<PortRow> ports;
   std::vector<ClientRow> clients;
   std::vector<std::string> failures;          // lus's level-1 lines
   std::vector<AttributedLine> attributed;     // lus's failure and drop lines, by port and client
   std::vector<Violation> violations;
   std::vector<std::string> allowed;           // violation kinds the user accepts
   std::string hostPath;                       // where the host is, for the recover command
   struct LeftBehind {
      std::vector<uint32_t> portsBlocked;
      uint64_t stateBytes = 0;                  // client state still in lus's heaps
      std::vector<std::string> clientsRegistered;   // client modules still pinned
      std::vector<std::string> modulesLoaded;   // lus and client modules loaded
      bool clearTimerArmed = false;
   } left;
   // Per-callback durations lus logged (level 5), for the trace.
   struct Callback {
      std::string client, callback;
      uint64_t endUS, ms;
   };
   std::vector<Callback> callbacks;
   std::vector<CallbackStats> callbackStats;
   // The ports' names ("PORTSET#INDEX") by ID, for every port of the host.
   std::map<uint32_t, std::string> names;
};

// 1234567 -> "1,234,567".
std::string Thousands(uint64_t v);

// "PORTSET#INDEX" of every port of the host, by port ID.
std::map<uint32_t, std::string> PortNames(const std::vector<hyksim::PortView> &ports);

Report BuildReport(Environment &env, const FlowOptions &opts, const FlowResult &result,
                   const std::vector<std::string> &allowed = {});
// What a report comes to: the exit code (0 completed, 1 a step failed or the
// flow was refused, 3 finished with violations) and its word.
int ExitCode(const Report &r);
std::string Verdict(const Report &r);
// The command that carries a stopped upgrade to an end.
std::string RecoverCommand(const Report &r);
void PrintSummary(std::ostream &out, const Report &r);
void PrintTables(std::ostream &out, const Report &r, size_t worstPorts = 10);
std::string ReportJson(const Report &r);
std::string TraceJson(const Report &r);
std::string ChartSvg(const Report &r);
// The value at fraction `p` (0 to 1) of `v` sorted, nearest rank; 0 when empty.
uint64_t Percentile(std::vector<uint64_t> v, double p);
// Text made safe inside an SVG/XML element or attribute.
std::string Xml(const std::string &s);
// A 1, 2 or 5 times a power of ten, giving about `ticks` ticks over `span`.
double NiceStep(double span, int ticks);

// ---- the fleet's report -----------------------------------------------------------------

// What a rollout with deploy/ansible left in its report directory, host by
// host in the fleet's order: DIR/fleet.json (the fleet and its bounds),
// HOST.host.json (the host's wave and what the role decided), HOST.upgrade.json
// and HOST.recovery.json (this tool's reports).  A host with no HOST.host.json
// was not reached.
struct FleetHost {
   std::string host;
   bool canary = false;           // of the canary group
   int wave = 0;                  // 0: not reached
   std::string outcome;           // passed, failed, checked, already upgraded, not reached
   std::string verdict;           // the upgrade report's ("" without one)
   size_t ports = 0;              // ports of the upgrade
   std::vector<uint64_t> outagesUS;   // each port's outage, as the host measured it
   uint64_t p50US = 0, p99US = 0, maxUS = 0;
   size_t stillBlocked = 0;       // ports lus still blocked when the upgrade ended
   uint64_t bytesMoved = 0;       // state restored to the new build (after any recovery)
   uint64_t bytesLost = 0;        // dropped by lus, mismatched or refused (after any recovery)
   std::string firstFailure;
   bool recovered = false;        // a recovery ran
   bool recoveryClean = false;    // and left no upgrade unfinished
   std::string recoveryVerdict;
   std::vector<std::string> gateReasons;
};
struct FleetReport {
   std::string dir;
   uint32_t fromBuild = 0, toBuild = 0;
   std::vector<FleetHost> hosts;
   int waves = 0;                 // waves reached
   int stoppedAfterWave = 0;      // the wave a failure ended the rollout after (0: none)
   double gateMaxOutageSec = -1;  // the fleet's bound (-1: unknown)
   bool checkMode = false;
};
// Reads DIR; false with *error naming the file and what is wrong with it.
bool ReadFleetReport(const std::string &dir, FleetReport *out, std::string *error);
void PrintFleetReport(std::ostream &out, const FleetReport &f);
std::string FleetReportJson(const FleetReport &f);
std::string FleetReportSvg(const FleetReport &f);

// ---- status and recovery ----------------------------------------------------------------

// What the host holds now, as far as an upgrade is concerned.
struct HostStatus {
   bool lusLoaded = false;
   uint64_t stateBytes = 0;                 // client state in lus's heaps
   struct BlockedPort {
      uint32_t port = 0;
      std::string name, portset, vm;
      int vnic = -1;
      uint64_t blockedUS = 0;               // blocked for this long so far
      std::map<std::string, uint64_t> heldBytes;   // client -> bytes saved and not restored (ledger)
   };
   std::vector<BlockedPort> blocked;        // ports blocked by lus
   std::vector<std::string> registered;     // client modules lus holds (use count > 0)
   std::map<uint32_t, std::vector<std::string>> builds;   // build -> its modules loaded
   std::map<std::string, std::string> carriers;           // portset -> the module that carries it
   bool clearTimerArmed = false;
   uint64_t clearTimerInUS = 0;             // fires in this long
};
HostStatus ReadStatus(Host &host);
void PrintStatus(std::ostream &out, const HostStatus &s, const std::string &hostPath);
std::string StatusJson(const HostStatus &s);

struct RecoverOptions {
   uint32_t fromBuild = 0, toBuild = 0;
   bool portsetFlow = false;     // the upgrade was the per-portset flow
   bool unblockLost = false;     // unblock, through the host, the ports whose state is gone
};
// Brings a host left by a failed or interrupted upgrade to a clean end:
// back to the old build while it still carries its portsets, else forward.
// `opts` receives the flow options its report is built with.
FlowResult Recover(Environment &env, const RecoverOptions &ropts, FlowOptions *opts, const Progress &progress);

// ---- the command line ---------------------------------------------------------------------

// Runs the tool with `args` (without the program name); returns the exit
// code: 0 success, 1 a command or step failed, 2 bad usage, 3 an upgrade
// finished with violations.  `interactive`:
// progress as a live line (a terminal) rather than plain lines.
// `footer` is added to the help (the host program's own options).
// `report`, when given, receives the report of a flow the command ran.
int RunCli(Environment &env, const std::vector<std::string> &args, std::ostream &out,
           std::ostream &err, bool interactive = false, const std::string &footer = "",
           Report *report = nullptr);

}  // namespace lusctl
