// core.h -- how the core pieces of the simulated host (host, faults, log,
// clock and timers, heaps, locks, worlds, modules) reach each other.
//
// internal.h is what the whole host shares (the fabric included); this header
// is only for the core files: the reset sequence of HostStart, what each
// subsystem drops when a module is unloaded, and the clock and log plumbing.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "hyksim/host.h"
#include "internal.h"

namespace hyksim::core {

// A lock for critical sections of a few dozen instructions that no thread
// leaves while holding it (no sleep, no callback).  Its unlock is a plain
// release store, where a mutex's unlock is a locked instruction that waits
// until every store the thread made before it has reached the cache: after
// a thread has written into memory the cache does not hold (a log record, a
// state buffer), that wait is most of what the lock costs.  A waiter that
// spins long yields its CPU, since the host may run more threads than cores.
class ShortLock {
  public:
   void lock() {
      for (unsigned spins = 0; locked_.exchange(true, std::memory_order_acquire);) {
         while (locked_.load(std::memory_order_relaxed)) {
            if (++spins < 64) {
#if defined(__x86_64__) || defined(__i386__)
               __builtin_ia32_pause();
#endif
            } else {
               std::this_thread::yield();
            }
         }
      }
   }
   bool try_lock() { return !locked_.exchange(true, std::memory_order_acquire); }
   void unlock() { locked_.store(false, std::memory_order_release); }

  private:
   std::atomic<bool> locked_{false};
};

// ---- per-thread counting slots (fault.cpp) ---------------------------------
// A counter bumped on a hot path keeps one word per thread, summed when read:
// a locked add on a shared word made every caller wait for its pending stores.
// A thread owns slot CountingSlot() from its first count to its exit, and
// only the owner writes it, with a plain load and store; the slot is handed
// on with its counts after the owner exits.  Threads past kCountSlots share
// slot kCountSlots, which takes atomic adds.
constexpr size_t kCountSlots = 32;
constexpr size_t kNoCountingSlot = ~size_t(0);
// The calling thread's slot, kNoCountingSlot until its first count; read
// inline, since every host call counts.
extern thread_local constinit size_t tCountingSlot;
size_t TakeCountingSlot();
inline size_t CountingSlot() {
   const size_t slot = tCountingSlot;
   return slot != kNoCountingSlot ? slot : TakeCountingSlot();
}

// Adds one to `n`, the calling thread's word of a counter (the word of
// CountingSlot()): its owner's plain load and store, or an atomic add on the
// shared slot.
inline void CountInMySlot(std::atomic<uint64_t> &n, size_t slot) {
   if (slot < kCountSlots) {
      n.store(n.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
   } else {
      n.fetch_add(1, std::memory_order_relaxed);
   }
}

// ---- host options (host_core.cpp) ------------------------------------------
// The options are written only by HostStart; the hot flags are atomics so
// that threads of a previous host never race with a restart.
bool VirtualClock();
bool SleepAdvancesClock();
uint64_t CounterFrequency();
std::string LogFilePath();
uint64_t LogBufferBytes();

// ---- clock (clock.cpp) -------------------------------------------------------
void ClockReset(bool virtualClock);
uint64_t ClockNowUS();
// The host is stopping: every sleeper returns early, and so does every
// later sleep until ClockReset starts the next host.
void ClockInterruptSleepers();
// Blocks until the host clock reaches `deadline` (virtual clock: somebody
// else advances it).  false when interrupted by a host stop or restart.
// `what` names the wait in the controlled mode's report.
bool ClockWaitUntil(uint64_t deadlineUS, const char *what = "a sleep");
// Virtual clock: moves it `us` forward, adding to whatever moves it at the
// same time (an advance, another thread's delay), and wakes the sleepers.
void ClockAddVirtual(uint64_t us);

// ---- timers (timer.cpp) ------------------------------------------------------
// Virtual clock: moves the clock `us` forward from deadline to deadline,
// firing every timer that falls due, in deadline order.
void TimersAdvanceBy(uint64_t us);
bool InTimerCallback();
void TimersReset();
void TimersDropModule(hyk_ModuleID id, const std::string &name);
size_t TimerQueueCount();
size_t PendingTimerCount();

// ---- log (log.cpp) -----------------------------------------------------------
void LogStart();                  // starts the logger thread, opens the file
void LogStop();                   // formats what is queued, stops the thread
// Before an object at these address ranges is closed: queued lines stop
// pointing into it.
void LogKeepFormats(const std::vector<std::pair<uintptr_t, uintptr_t>> &ranges);
void LogReset();                  // drops lines and components
// A preformatted line (host lines, plain printers formatted at once).
void LogAppendText(const char *component, int32_t level, bool warning, std::string text);
// The panic path: bounded flush, then the message straight to the sinks.
void LogPanic(const std::string &text);
void LogDropModule(hyk_ModuleID id, const std::string &name);
size_t LogComponentCount();

// ---- heaps (heap.cpp) --------------------------------------------------------
void HeapsReset();
void HeapsUseOnePool();  // once per process, before the host's threads allocate
void HeapsClearHistory();  // names, leak reports: kept from HostStop to the next HostStart
void HeapsDropModule(hyk_ModuleID id, const std::string &name);
size_t HeapCount();
bool HeapExists(hyk_HeapID heap);

// ---- locks (lock.cpp) --------------------------------------------------------
void LocksReset();
void LocksDropModule(hyk_ModuleID id, const std::string &name);
size_t LockDomainCount();
size_t SpinlockCount();
// Panics naming `what` when the calling thread still holds a spinlock.
void AssertNoSpinlocks(const char *what);

// ---- worlds (world.cpp) ------------------------------------------------------
void WorldsReset();
// Reports the module's unreaped worlds; returns false when one still runs
// (its code is still in use, so the module's object must stay mapped).
bool WorldsDropModule(hyk_ModuleID id, const std::string &name);
size_t WorldCount();

// ---- faults (fault.cpp) ------------------------------------------------------
void FaultsReset();

// ---- modules (module.cpp) ----------------------------------------------------
void ModulesUnloadAll();
void ModulesReset();
// Calls fn with `id` pushed as the current module, then checks that fn left
// the thread as it found it (no spinlock held, pushes balanced).
void RunAsModule(hyk_ModuleID id, const void *fnAddr, const char *what,
                 const std::function<void()> &fn);
// "name" of a module for messages, or "#id" when unknown.
std::string ModuleLabel(hyk_ModuleID id);
// Runs the hooks registered with OnModuleUnloaded / OnReset.
void RunUnloadHooks(hyk_ModuleID id, const std::string &name);
void RunResetHooks();

// Validates a host object name: HYK_BAD_PARAM for null/empty,
// HYK_NAME_TOO_LONG past HYK_NAME_LEN - 1 characters.
hyk_Status CheckName(const char *name);

}  // namespace hyksim::core
