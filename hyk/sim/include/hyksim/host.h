// host.h -- control API of the simulated host: what tests and the host
// program use to drive and inspect the host (modules, clock, faults, log,
// heaps).  The topology (portsets, ports, events, devices, user processes)
// is in fabric.h.
//
// There is one host per process.  Every call here is thread-safe.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "hyk/hyk.h"

namespace hyksim {

// ---- the host as a whole -----------------------------------------------------

struct HostOptions {
   bool virtualClock = true;         // false: the real monotonic clock
   bool sleepAdvancesClock = true;   // virtual clock: hyk_WorldSleep moves time itself
   std::string logFile;              // "" = keep the log in memory only
   uint64_t counterFrequency = 1000000000ull;  // ticks per second of the monotonic counter
   // Log memory made ready when the host starts, as a kernel sizes its log
   // buffer at boot: lines queued within it touch no fresh memory.  0:
   // memory is taken as lines come.  Kept (never shrunk) across restarts.
   uint64_t logBufferBytes = 0;
};

// Starts (or restarts) the host: every object of an earlier host is dropped,
// loaded modules are unloaded (cleanup_module is called) first.
void HostStart(const HostOptions &options = {});
// Unloads every module, flushes the log and stops host threads.
void HostStop();
// The options the running host was started with.
HostOptions CurrentHostOptions();

// ---- modules ------------------------------------------------------------------

struct ModuleInfoView {
   hyk_ModuleID id;
   std::string name;
   std::string path;        // "" for an in-process module
   uint32_t useCount;
   std::vector<std::pair<std::string, std::string>> info;   // information records
};

// Loads a module file: checks its information records (required namespaces
// must be ones this host provides), applies "name=value" parameters, pushes
// its ID and calls init_module.  `name` "" derives the name from the file
// (basename without a "lib" prefix and the ".so" suffix).
// Returns HYK_OK and *id; HYK_NOT_FOUND (no file); HYK_EXEC_FORMAT (not a
// module, or no init_module); HYK_VERSION_MISMATCH; HYK_BAD_PARAM (unknown
// parameter or bad value); HYK_EXISTS (a module of that name is loaded);
// HYK_FAILURE when init_module returned non-zero (the object is closed again).
// *error, when given, receives a sentence saying why.
hyk_Status LoadModule(const std::string &path, const std::vector<std::string> &params,
                      hyk_ModuleID *id, std::string *error = nullptr,
                      const std::string &name = "");

// From now on, the objects of module files stay mapped after their unload,
// and each later load of the same file first copies back the object's
// writable data as it was right after its first mapping: fresh globals
// without a new mapping, for coverage-guided fuzzers whose counters live in
// the object.  Process-wide and for the rest of the process.
void KeepModuleObjectsResident(bool on);

// An in-process module: callbacks in the calling program play the module's
// entry points.  Loaded and unloaded like a file module.
struct InProcessModule {
   std::string name;
   std::function<int()> init;          // may be empty: success
   std::function<void()> cleanup;      // may be empty
   std::vector<std::pair<std::string, std::string>> info;  // e.g. {"switchClass", "cswitch"}
};
hyk_Status LoadInProcessModule(const InProcessModule &module, hyk_ModuleID *id);

// Unloads: refused with HYK_BUSY while the module's use count is not 0,
// HYK_NOT_FOUND for an unknown module.  Otherwise calls cleanup_module with
// the module pushed, flushes the log, reports in the host log what the module
// left behind (heaps, log components, timer queues, lock domains, devices,
// subscriptions, worlds), drops it, and closes the object.
hyk_Status UnloadModule(const std::string &name);
hyk_Status UnloadModule(hyk_ModuleID id);

// Sets parameters of a loaded module file, as at load ("name=value"): for a
// test or scenario that switches a module's behaviour while it is idle.
// HYK_NOT_FOUND (not loaded), HYK_NOT_SUPPORTED (in-process module),
// HYK_BAD_PARAM (unknown parameter or bad value; *error says which).
hyk_Status SetModuleParams(const std::string &name, const std::vector<std::string> &params,
                           std::string *error = nullptr);

std::vector<ModuleInfoView> Modules();
std::optional<ModuleInfoView> FindModule(const std::string &name);

// ---- clock ---------------------------------------------------------------------

uint64_t NowUS();
// Virtual clock: moves time forward by `us`, firing every timer that falls
// due on its queue's thread in deadline order, and waits for those callbacks
// to return.  Real clock: sleeps.
void AdvanceClock(uint64_t us);

// ---- fault injection ---------------------------------------------------------

struct FaultSpec {
   std::string op;               // a hyk_ operation name, e.g. "hyk_HeapCreate"
   hyk_Status status = HYK_FAILURE;
   uint64_t nth = 0;             // fail only the nth call (1-based) counted from injection; 0 = see below
   uint64_t from = 0;            // fail every call from the from-th on (1-based); 0 = see below
   bool every = false;           // fail every call
   double probability = 0.0;     // fail with this probability ...
   uint64_t seed = 1;            // ... drawn from this seed
   uint64_t count = 0;           // with every/probability: at most this many failures (0 = unlimited)
};
void InjectFault(const FaultSpec &desc);
void ClearFaults();
// Number of faults injected so far (all operations, or one).
uint64_t InjectedFaultCount(const std::string &op = "");
// Number of calls made to an operation since host start.
uint64_t CallCount(const std::string &op);
// Every operation called since host start with its number of calls (the
// first pass of a fault sweep).
std::map<std::string, uint64_t> CallCounts();

// Host-call trace: every fallible hyk_ call, in order, as "op" strings.
void TraceEnable(bool on);
std::vector<std::string> Trace();
void TraceClear();

// ---- log ------------------------------------------------------------------------

struct LogLine {
   uint64_t seq;
   uint64_t timeUS;
   std::string component;   // "" for the plain printers, "hyk" for the host's own
   int32_t level;           // -1 for the plain printers and the host's own
   bool warning;            // _hyk_WarningMessage
   std::string text;        // formatted, trailing newline removed
};

// Waits until every queued line is formatted, then returns a copy.
std::vector<LogLine> LogLines();
// Waits until every line queued so far is formatted (and written to the file).
void FlushLog();
// Number of lines whose text contains `needle`.
size_t LogCount(const std::string &needle);
bool LogContains(const std::string &needle);
void LogClear();
// The whole log as text, one line each.
std::string LogText();
// The first failure to open or write the log file of HostOptions::logFile
// ("PATH: reason"), after flushing what is queued; "" when there was none.
// Kept after HostStop, until the next start.
std::string LogFileError();

// Log components.
struct LogComponentView {
   std::string name;
   int32_t level;
   uint32_t throttle;
   hyk_ModuleID owner;      // the module current when it was registered
   hyk_LogHandle handle = 0;
   uint64_t linesReceived = 0;   // hyk_LogLevel calls on it, including those its level filtered
};
std::vector<LogComponentView> LogComponents();
// The administrator's level change: sets the level of every component of that
// name.  HYK_OK or HYK_NOT_FOUND.
hyk_Status SetLogComponentLevel(const std::string &name, int32_t level);

// ---- heaps -----------------------------------------------------------------------

struct HeapView {
   hyk_HeapID id;
   std::string name;
   hyk_ModuleID owner;
   uint64_t initialSize, maxSize;
   uint64_t bytesInUse, liveAllocations, peakBytes, failedAllocations;
};
std::vector<HeapView> Heaps();
std::optional<HeapView> FindHeap(const std::string &name);
// Heap reports written when a heap was destroyed with live allocations.
struct LeakReport {
   std::string heap;
   uint64_t bytes, allocations;
};
std::vector<LeakReport> LeakReports();

// ---- other host objects (for tests of cleanup) ---------------------------------

struct HostCounts {
   size_t heaps, logComponents, timerQueues, pendingTimers, lockDomains, spinlocks, worlds;
};
HostCounts Counts();

// Timers armed now, per queue: the queue's name, the module that owns it,
// and when the timer falls due (host clock).
struct PendingTimerView {
   std::string queue;
   hyk_ModuleID owner;
   uint64_t deadlineUS;
};
std::vector<PendingTimerView> PendingTimers();

// Panics: by default a panic aborts the process (use death tests).  The
// message goes to stderr as "hyk: PANIC: <message>", after the log is flushed.
}  // namespace hyksim

// Every injected failure passes through here: the place for a breakpoint
// ("break hyksim_FaultInjected") when a fault sweep finds a bad unwind.
extern "C" void hyksim_FaultInjected(const char *op, hyk_Status status, uint64_t call);
