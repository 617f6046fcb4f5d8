// host_core.cpp -- the host as a whole: its options, start, stop and reset,
// the reset and unload hooks other parts of the host register, the panic
// path and the host's own log lines.
//
// HostStart is the one place that knows the order in which the subsystems
// are torn down: modules first (their cleanup still uses every subsystem),
// then the threads that call into module code (timers, worlds), then the
// passive objects, then the fabric's hooks and the log.
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

#include "core.h"
#include "hyksim/ledger.h"
#include "hyksim/schedule.h"

namespace hyksim {
namespace {

struct Options {
   std::atomic<bool> virtualClock{true};
   std::atomic<bool> sleepAdvancesClock{true};
   std::atomic<uint64_t> counterFrequency{1000000000ull};
   std::atomic<uint64_t> logBufferBytes{0};
   std::mutex mu;  // guards logFile
   std::string logFile;
};

Options &Opts() {
   static Options opts;
   return opts;
}

struct Hooks {
   std::mutex mu;
   std::vector<std::function<void()>> reset;
   std::vector<std::function<void(hyk_ModuleID, const std::string &)>> unloaded;
};

Hooks &TheHooks() {
   static Hooks hooks;
   return hooks;
}

std::mutex &HostMutex() {
   static std::mutex mu;
   return mu;
}

bool gHostRunning = false;  // under HostMutex

std::string VFormat(const char *fmt, va_list ap) {
   va_list copy;
   va_copy(copy, ap);
   int n = vsnprintf(nullptr, 0, fmt, copy);
   va_end(copy);
   if (n <= 0) {
      return std::string();
   }
   std::string out(static_cast<size_t>(n) + 1, '\0');
   vsnprintf(out.data(), out.size(), fmt, ap);
   out.resize(static_cast<size_t>(n));
   return out;
}

void ApplyOptions(const HostOptions &options) {
   Options &o = Opts();
   o.virtualClock = options.virtualClock;
   o.sleepAdvancesClock = options.sleepAdvancesClock;
   // A zero frequency would make every duration a division by zero in the
   // modules; the host promises never to report it.
   o.counterFrequency = options.counterFrequency ? options.counterFrequency : 1000000000ull;
   o.logBufferBytes = options.logBufferBytes;
   std::lock_guard<std::mutex> lk(o.mu);
   o.logFile = options.logFile;
}

// Drops every object of the running host, in dependency order.
void TearDownLocked() {
   core::ModulesUnloadAll();
   core::TimersReset();
   core::WorldsReset();
   core::LocksReset();
   core::HeapsReset();
   core::RunResetHooks();
   core::LogStop();
}

}  // namespace

namespace core {

bool VirtualClock() { return Opts().virtualClock.load(std::memory_order_relaxed); }
bool SleepAdvancesClock() { return Opts().sleepAdvancesClock.load(std::memory_order_relaxed); }
uint64_t CounterFrequency() { return Opts().counterFrequency.load(std::memory_order_relaxed); }
uint64_t LogBufferBytes() { return Opts().logBufferBytes.load(std::memory_order_relaxed); }

std::string LogFilePath() {
   std::lock_guard<std::mutex> lk(Opts().mu);
   return Opts().logFile;
}

void RunUnloadHooks(hyk_ModuleID id, const std::string &name) {
   std::vector<std::function<void(hyk_ModuleID, const std::string &)>> hooks;
   {
      std::lock_guard<std::mutex> lk(TheHooks().mu);
      hooks = TheHooks().unloaded;
   }
   for (auto &hook : hooks) {
      hook(id, name);
   }
}

void RunResetHooks() {
   std::vector<std::function<void()>> hooks;
   {
      std::lock_guard<std::mutex> lk(TheHooks().mu);
      hooks = TheHooks().reset;
   }
   for (auto &hook : hooks) {
      hook();
   }
}

hyk_Status CheckName(const char *name) {
   if (name == nullptr || name[0] == '\0') {
      return HYK_BAD_PARAM;
   }
   if (strnlen(name, HYK_NAME_LEN) >= HYK_NAME_LEN) {
      return HYK_NAME_TOO_LONG;
   }
   return HYK_OK;
}

}  // namespace core

void OnReset(std::function<void()> hook) {
   std::lock_guard<std::mutex> lk(TheHooks().mu);
   TheHooks().reset.push_back(std::move(hook));
}

void OnModuleUnloaded(std::function<void(hyk_ModuleID, const std::string &name)> hook) {
   std::lock_guard<std::mutex> lk(TheHooks().mu);
   TheHooks().unloaded.push_back(std::move(hook));
}

void HostLog(const char *fmt, ...) {
   va_list ap;
   va_start(ap, fmt);
   std::string text = "hyk: " + VFormat(fmt, ap);
   va_end(ap);
   core::LogAppendText("hyk", -1, false, std::move(text));
}

[[noreturn]] static void PanicText(const std::string &msg) {
   static std::atomic<bool> panicking{false};
   std::string text = "hyk: PANIC: " + msg;
   if (panicking.exchange(true)) {
      // A panic while panicking: the log may be what broke, skip it.
      fprintf(stderr, "%s\n", text.c_str());
      abort();
   }
   core::LogPanic(text);
   ScheduleReportFailure(text);
   abort();
}

void Panic(const char *fmt, ...) {
   va_list ap;
   va_start(ap, fmt);
   std::string msg = VFormat(fmt, ap);
   va_end(ap);
   PanicText(msg);
}

void HostStart(const HostOptions &options) {
   std::lock_guard<std::mutex> lk(HostMutex());
   if (gHostRunning) {
      TearDownLocked();
   }
   core::HeapsUseOnePool();
   core::LogReset();
   core::FaultsReset();
   core::ModulesReset();
   core::HeapsClearHistory();
   LedgerClear();
   ApplyOptions(options);
   core::ClockReset(options.virtualClock);
   core::LogStart();
   gHostRunning = true;
   HostLog("host started (%s clock, counter %llu Hz)", options.virtualClock ? "virtual" : "real",
           static_cast<unsigned long long>(core::CounterFrequency()));
}

void HostStop() {
   std::lock_guard<std::mutex> lk(HostMutex());
   if (!gHostRunning) {
      return;
   }
   TearDownLocked();
   gHostRunning = false;
}

HostCounts Counts() {
   HostCounts c{};
   c.heaps = core::HeapCount();
   c.logComponents = core::LogComponentCount();
   c.timerQueues = core::TimerQueueCount();
   c.pendingTimers = core::PendingTimerCount();
   c.lockDomains = core::LockDomainCount();
   c.spinlocks = core::SpinlockCount();
   c.worlds = core::WorldCount();
   return c;
}

HostOptions CurrentHostOptions() {
   HostOptions o;
   o.virtualClock = core::VirtualClock();
   o.sleepAdvancesClock = core::SleepAdvancesClock();
   o.counterFrequency = core::CounterFrequency();
   o.logBufferBytes = core::LogBufferBytes();
   o.logFile = core::LogFilePath();
   return o;
}

}  // namespace hyksim

extern "C" void hyk_PanicWithModuleID(hyk_ModuleID id, const char *fmt, ...) {
   va_list ap;
   va_start(ap, fmt);
   std::string msg = hyksim::VFormat(fmt, ap);
   va_end(ap);
   hyksim::PanicText("module " + hyksim::core::ModuleLabel(id) + ": " + msg);
}
