// fault.cpp -- fault injection and the host-call trace.
//
// Every fallible hyk_ operation calls FaultCheck first.  It counts the call,
// appends it to the trace when tracing is on, and asks the injected
// faults whether this call fails.  While no fault is injected and no trace
// taken (an upgrade's ordinary run), a call only bumps its operation's
// counter, found through a small table keyed by the address of the
// operation's name: no lock, no string hashing on the module's hot paths.  A sweep driver runs a scenario once to
// count the calls, then again failing call k for every k; each injected
// failure is logged by the host and passes through hyksim_FaultInjected, the
// function to put a breakpoint on.
#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "core.h"
#include "scheduler.h"

extern "C" __attribute__((noinline)) void hyksim_FaultInjected(const char *op, hyk_Status status,
                                                              uint64_t call) {
   // Nothing to do: this function exists to be a breakpoint.  The asm keeps
   // the compiler from folding the call away.
   asm volatile("" : : "r"(op), "r"(status), "r"(call) : "memory");
}

namespace hyksim {
namespace {

struct StringHash {
   using is_transparent = void;
   size_t operator()(std::string_view s) const { return std::hash<std::string_view>{}(s); }
};

struct ActiveSpec {
   FaultSpec desc;
   uint64_t seen = 0;     // calls of desc.op since injection
   uint64_t failed = 0;   // failures this fault has injected
   uint64_t rng = 0;      // splitmix64 state for probability faults
};

// A call count summed over its slots when read.  A reset moves the zero
// (`base_`) instead of writing other threads' slots.
class CallCount {
  public:
   void Add() {
      const size_t i = core::CountingSlot();
      core::CountInMySlot(slots_[i].n, i);
   }
   uint64_t Load() const { return Sum() - base_.load(std::memory_order_relaxed); }
   void Zero() { base_.store(Sum(), std::memory_order_relaxed); }

  private:
   uint64_t Sum() const {
      uint64_t sum = 0;
      for (const auto &s : slots_) {
         sum += s.n.load(std::memory_order_relaxed);
      }
      return sum;
   }
   struct alignas(64) Padded {
      std::atomic<uint64_t> n{0};
   };
   Padded slots_[core::kCountSlots + 1];
   std::atomic<uint64_t> base_{0};
};

struct OpCounters {
   CallCount calls;
   uint64_t injected = 0;   // under FaultState::mu
};

// The fast path's table: an operation's name (the address its call site
// passes) and its counters, which live as long as the process (a host reset
// zeroes them, it never frees them).
struct FastEntry {
   const char *op;
   OpCounters *counters;
};
constexpr size_t kFastSlots = 1024;
std::atomic<const FastEntry *> gFast[kFastSlots];
// Set while a fault is injected or a trace is taken: every call then takes the lock.
std::atomic<bool> gSlowPath{false};

size_t FastSlotOf(const char *op) {
   auto v = reinterpret_cast<uintptr_t>(op);
   return (v >> 3 ^ v >> 13) % kFastSlots;
}

struct FaultState {
   std::mutex mu;
   std::unordered_map<std::string, OpCounters, StringHash, std::equal_to<>> ops;
   std::vector<ActiveSpec> descs;
   uint64_t injectedTotal = 0;
   bool tracing = false;
   std::vector<std::string> trace;
   std::vector<std::unique_ptr<FastEntry>> fastEntries;   // every entry ever published
};

FaultState &State() {
   static FaultState state;
   return state;
}

uint64_t SplitMix64(uint64_t *s) {
   uint64_t z = (*s += 0x9e3779b97f4a7c15ull);
   z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
   z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
   return z ^ (z >> 31);
}

bool UnderLimit(const ActiveSpec &a) { return a.desc.count == 0 || a.failed < a.desc.count; }

// Decides whether this call of a.desc.op fails.  Every matching desc sees
// every call, so an nth count is not disturbed by another desc on the op.
bool SpecFires(ActiveSpec &a) {
   a.seen++;
   if (a.desc.nth != 0) {
      return a.seen == a.desc.nth;
   }
   if (a.desc.from != 0) {
      return a.seen >= a.desc.from && UnderLimit(a);
   }
   if (a.desc.every) {
      return UnderLimit(a);
   }
   if (a.desc.probability > 0.0) {
      double draw = static_cast<double>(SplitMix64(&a.rng) >> 11) * 0x1.0p-53;
      return draw < a.desc.probability && UnderLimit(a);
   }
   return false;
}

// Under s.mu.
OpCounters &CountersFor(FaultState &s, const char *op) {
   auto it = s.ops.find(std::string_view(op));
   if (it == s.ops.end()) {
      it = s.ops.try_emplace(std::string(op)).first;
   }
   // Publish this call site's name for the fast path (unordered_map nodes do not move).
   std::atomic<const FastEntry *> &slot = gFast[FastSlotOf(op)];
   const FastEntry *cur = slot.load(std::memory_order_acquire);
   if (cur == nullptr || cur->op != op) {
      s.fastEntries.push_back(std::make_unique<FastEntry>(FastEntry{op, &it->second}));
      slot.store(s.fastEntries.back().get(), std::memory_order_release);
   }
   return it->second;
}

// Under s.mu.
void UpdateSlowPath(const FaultState &s) {
   gSlowPath.store(s.tracing || !s.descs.empty(), std::memory_order_release);
}

}  // namespace

bool FaultCheck(const char *op, hyk_Status *status) {
   sched::Point(op);
   if (!gSlowPath.load(std::memory_order_acquire)) {
      const FastEntry *e = gFast[FastSlotOf(op)].load(std::memory_order_acquire);
      if (e != nullptr && e->op == op) {
         e->counters->calls.Add();
         return false;
      }
   }
   FaultState &s = State();
   hyk_Status chosen = HYK_OK;
   uint64_t callNo = 0;
   bool fire = false;
   {
      std::lock_guard<std::mutex> lk(s.mu);
      OpCounters &c = CountersFor(s, op);
      // Every caller takes the lock while this path is on, so the sum is
      // this call's number.
      c.calls.Add();
      callNo = c.calls.Load();
      if (s.tracing) {
         s.trace.emplace_back(op);
      }
      for (ActiveSpec &a : s.descs) {
         if (a.desc.op == op && SpecFires(a) && !fire) {
            fire = true;
            a.failed++;
            chosen = a.desc.status;
         }
      }
      if (fire) {
         c.injected++;
         s.injectedTotal++;
      }
   }
   if (!fire) {
      return false;
   }
   HostLog("injected failure of %s (call %llu): %s", op, static_cast<unsigned long long>(callNo),
           hyk_StatusToString(chosen));
   hyksim_FaultInjected(op, chosen, callNo);
   *status = chosen;
   return true;
}

void InjectFault(const FaultSpec &desc) {
   if (desc.nth == 0 && desc.from == 0 && !desc.every && desc.probability <= 0.0) {
      HostLog("fault desc for %s ignored: it names no call to fail", desc.op.c_str());
      return;
   }
   ActiveSpec a;
   a.desc = desc;
   a.rng = desc.seed;
   std::lock_guard<std::mutex> lk(State().mu);
   State().descs.push_back(a);
   UpdateSlowPath(State());
}

void ClearFaults() {
   std::lock_guard<std::mutex> lk(State().mu);
   State().descs.clear();
   UpdateSlowPath(State());
}

uint64_t InjectedFaultCount(const std::string &op) {
   FaultState &s = State();
   std::lock_guard<std::mutex> lk(s.mu);
   if (op.empty()) {
      return s.injectedTotal;
   }
   auto it = s.ops.find(op);
   return it == s.ops.end() ? 0 : it->second.injected;
}

uint64_t CallCount(const std::string &op) {
   FaultState &s = State();
   std::lock_guard<std::mutex> lk(s.mu);
   auto it = s.ops.find(op);
   return it == s.ops.end() ? 0 : it->second.calls.Load();
}

std::map<std::string, uint64_t> CallCounts() {
   FaultState &s = State();
   std::lock_guard<std::mutex> lk(s.mu);
   std::map<std::string, uint64_t> out;
   for (const auto &[op, c] : s.ops) {
      const uint64_t calls = c.calls.Load();
      if (calls != 0) {   // a reset zeroes counters rather than forgetting operations
         out[op] = calls;
      }
   }
   return out;
}

void TraceEnable(bool on) {
   std::lock_guard<std::mutex> lk(State().mu);
   State().tracing = on;
   UpdateSlowPath(State());
}

void TraceClear() {
   std::lock_guard<std::mutex> lk(State().mu);
   State().trace.clear();
}

std::vector<std::string> Trace() {
   std::lock_guard<std::mutex> lk(State().mu);
   return State().trace;
}

namespace core {

namespace {

// The counting slots' owners (see core.h).  The pool's mutex orders a
// slot's last owner's stores before the next owner's loads.
class SlotPool {
  public:
   size_t Take() {
      std::lock_guard<std::mutex> lk(mu_);
      for (size_t i = 0; i < kCountSlots; i++) {
         if (!used_[i]) {
            used_[i] = true;
            return i;
         }
      }
      return kCountSlots;
   }
   void Give(size_t i) {
      std::lock_guard<std::mutex> lk(mu_);
      if (i < kCountSlots) {
         used_[i] = false;
      }
   }

  private:
   std::mutex mu_;
   bool used_[kCountSlots] = {};
};

SlotPool &Pool() {
   static SlotPool *pool = new SlotPool();  // never destroyed: threads count until exit
   return *pool;
}

// Gives the thread's slot back when it exits.  A count the thread makes
// after that (another thread-local's destructor may still call the host)
// goes to the shared slot.
struct SlotOwner {
   size_t index = Pool().Take();
   ~SlotOwner() {
      tCountingSlot = kCountSlots;
      Pool().Give(index);
   }
};

}  // namespace

thread_local constinit size_t tCountingSlot = kNoCountingSlot;

size_t TakeCountingSlot() {
   thread_local SlotOwner owner;
   tCountingSlot = owner.index;
   return owner.index;
}

void FaultsReset() {
   FaultState &s = State();
   std::lock_guard<std::mutex> lk(s.mu);
   // The fast path's entries point at these counters: zeroed, never freed.
   for (auto &[op, c] : s.ops) {
      c.calls.Zero();
      c.injected = 0;
   }
   s.descs.clear();
   s.injectedTotal = 0;
   s.tracing = false;
   s.trace.clear();
   UpdateSlowPath(s);
}

}  // namespace core
}  // namespace hyksim
