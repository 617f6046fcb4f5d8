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
#include <memory>
#include <optional>
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
   virtual std::vector<hyksim::LogLine> Log() = 0;
   virtual std::vector<hyksim::LedgerClientView> Ledger() = 0;
   virtual std::vector<hyksim::HeapView> Heaps() = 0;
   virtual uint64_t NowUS() = 0;
};

// The tool's environment: a host, and a device of that host per opening.
struct Environment {
   Host *host = nullptr;
   std::function<std::unique_ptr<Device>()> openDevice;
};

// The simulated host of this process: a user process's device, and the
// host's control API.  `moduleDir` holds the builds of lus (b<build>/lus.so)
// and the client modules (clients/<name>-<build>.so).
std::unique_ptr<Host> MakeSimHost(const std::string &moduleDir);
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
std::optional<Remote> MakeRemote(const std::string &socketPath, std::string *error);

// The server side: answers one request line on behalf of the host of this
// process; `scenario` runs a line of the scenario language ("" or why not),
// `device` is the connection's own device.
struct ServerSession {
   std::function<std::string(const std::string &line, std::string *output)> scenario;
   std::unique_ptr<Device> device;
   Host *host = nullptr;
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
   uint64_t startUS = 0, endUS = 0;
   uint64_t logSeqStart = 0;    // the report looks at log lines from here on
};

// Progress: called before and after each step.
using Progress = std::function<void(const StepRecord &step, int total, bool done)>;

FlowResult RunFlow(Environment &env, const FlowOptions &opts, const Progress &progress);

// ---- the report -----------------------------------------------------------------------

struct PortRow {
   uint32_t port = 0;
   std::string portset;
   uint64_t fromUS = 0;          // when the last blocked interval began (host clock)
   uint64_t hostUS = 0;          // last blocked interval, as the host measured it
   int moduleSec = -1;           // outage lus logged, whole seconds (-1: none logged)
   bool overBudget = false;
   bool blocked = false;         // still blocked at the end
};

struct ClientRow {
   std::string client;
   hyksim::LedgerCount saved, restored, verified, converted, mismatched, refused;
   uint64_t droppedBytes = 0;    // reported dropped by lus
   uint64_t droppedPorts = 0;
};

struct Report {
   std::string flow;
   uint32_t fromBuild = 0, toBuild = 0, budgetSec = 0;
   std::vector<std::string> portsets;
   FlowResult result;
   std::vector<PortRow> ports;
   std::vector<ClientRow> clients;
   std::vector<std::string> failures;          // lus's level-1 lines
   struct LeftBehind {
      std::vector<uint32_t> portsBlocked;
      uint64_t stateBytes = 0;                  // client state still in lus's heaps
      std::vector<std::string> clientsRegistered;   // client modules still pinned
      std::vector<std::string> modulesLoaded;   // lus and client modules loaded
   } left;
   // Per-callback durations lus logged (level 5), for the trace.
   struct Callback {
      std::string client;
      uint64_t endUS, ms;
   };
   std::vector<Callback> callbacks;
};

Report BuildReport(Environment &env, const FlowOptions &opts, const FlowResult &result);
void PrintSummary(std::ostream &out, const Report &r);
void PrintTables(std::ostream &out, const Report &r, size_t worstPorts = 10);
std::string ReportJson(const Report &r);
std::string TraceJson(const Report &r);
std::string ChartSvg(const Report &r);

// ---- the command line ---------------------------------------------------------------------

// Runs the tool with `args` (without the program name); returns the exit
// code: 0 success, 1 a command or step failed, 2 bad usage.  `interactive`:
// progress as a live line (a terminal) rather than plain lines.
// `footer` is added to the help (the host program's own options).
// `report`, when given, receives the report of a flow the command ran.
int RunCli(Environment &env, const std::vector<std::string> &args, std::ostream &out,
           std::ostream &err, bool interactive = false, const std::string &footer = "",
           Report *report = nullptr);

}  // namespace lusctl
