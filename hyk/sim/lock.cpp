// lock.cpp -- lock domains and ranked spinlocks (exclusive and
// reader-writer), with the checks a real host's lock debugging makes.
//
// The locks spin for real (with a yield after a short burst, because the
// host may have fewer cores than spinning threads); a spinlock never sleeps.
// Each thread keeps the list of spinlocks it holds, which gives the rank
// check, hyk_SpinlocksHeld, the "may sleep" assertion and the unlock check.
#include <sched.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <vector>

#include "core.h"
#include "scheduler.h"

namespace hyksim {
namespace {

struct Domain {
   std::string name;
   hyk_ModuleID owner = HYK_INVALID_MODULE_ID;
   size_t locks = 0;
};

struct Lock {
   uint64_t id = 0;
   std::string name;
   hyk_LockDomainID domain = 0;
   std::string domainName;
   uint32_t rank = 0;
   bool rw = false;
   std::atomic<int32_t> state{0};  // 0 free, > 0 readers, -1 writer
   std::atomic<int32_t> writersWaiting{0};
};

struct Held {
   Lock *lock;  // kept alive by Registry::everyLock
   bool write;
};

// Live locks by ID for lock and unlock: no registry lock and no reference
// count per call.  A lock object stays allocated for the rest of its host
// life (Registry::everyLock) after its destruction, so a pointer read here
// or held in a thread's list never dangles.
constexpr uint64_t kFastLocks = 4096;
std::atomic<Lock *> gLiveLock[kFastLocks];

struct Registry {
   std::shared_mutex mu;
   std::map<hyk_LockDomainID, Domain> domains;
   std::map<uint64_t, std::shared_ptr<Lock>> locks;
   std::vector<std::shared_ptr<Lock>> everyLock;  // of this host life
   hyk_LockDomainID nextDomain = 1;
   uint64_t nextLock = 1;
};

Registry &Reg() {
   static Registry *r = new Registry();
   return *r;
}

thread_local std::vector<Held> tHeld;

void Relax(unsigned spins) {
   if (spins < 64) {
#if defined(__x86_64__) || defined(__i386__)
      __builtin_ia32_pause();
#endif
   } else {
      sched_yield();
   }
}

Lock *FindLock(uint64_t id, bool rw, const char *op) {
   if (id < kFastLocks) {
      Lock *l = gLiveLock[id].load(std::memory_order_acquire);
      if (l != nullptr && l->rw == rw) {
         return l;
      }
   } else {
      std::shared_lock<std::shared_mutex> lk(Reg().mu);
      auto it = Reg().locks.find(id);
      if (it != Reg().locks.end() && it->second->rw == rw) {
         return it->second.get();
      }
   }
   Panic("%s: invalid %s handle %#llx", op, rw ? "reader-writer spinlock" : "spinlock",
         static_cast<unsigned long long>(id));
}

// The order check, made before spinning so that a violation is reported
// even when it would not deadlock this time.
void CheckRank(const Lock &l, const char *op) {
   for (const Held &h : tHeld) {
      if (h.lock == &l) {
         Panic("%s: spinlock %s is already held by this thread (recursive acquisition)", op,
               l.name.c_str());
      }
      if (h.lock->domain == l.domain && h.lock->rank >= l.rank) {
         Panic("%s: rank violation in lock domain %s: taking %s (rank %u) while holding %s "
               "(rank %u)",
               op, l.domainName.c_str(), l.name.c_str(), l.rank, h.lock->name.c_str(),
               h.lock->rank);
      }
   }
}

void AcquireWrite(Lock &l) {
   // A free lock is taken at once; only a writer that has to wait says so
   // (it keeps new readers out), which costs two more atomic operations.
   int32_t free = 0;
   if (l.state.compare_exchange_strong(free, -1, std::memory_order_acquire,
                                       std::memory_order_relaxed)) {
      return;
   }
   l.writersWaiting.fetch_add(1, std::memory_order_relaxed);
   for (unsigned spins = 0;; spins++) {
      int32_t expected = 0;
      if (l.state.compare_exchange_weak(expected, -1, std::memory_order_acquire,
                                        std::memory_order_relaxed)) {
         break;
      }
      Relax(spins);
   }
   l.writersWaiting.fetch_sub(1, std::memory_order_relaxed);
}

void AcquireRead(Lock &l) {
   for (unsigned spins = 0;; spins++) {
      int32_t cur = l.state.load(std::memory_order_relaxed);
      // Waiting writers keep new readers out, so a writer is not starved.
      if (cur >= 0 && l.writersWaiting.load(std::memory_order_relaxed) == 0 &&
          l.state.compare_exchange_weak(cur, cur + 1, std::memory_order_acquire,
                                        std::memory_order_relaxed)) {
         return;
      }
      Relax(spins);
   }
}

// The controlled mode: a thread that would spin is blocked until a release.
bool TryAcquire(Lock &l, bool write) {
   int32_t cur = l.state.load(std::memory_order_relaxed);
   if (write) {
      return cur == 0 && l.state.compare_exchange_strong(cur, -1, std::memory_order_acquire);
   }
   return cur >= 0 && l.state.compare_exchange_strong(cur, cur + 1, std::memory_order_acquire);
}

void AcquireControlled(Lock &l, bool write) {
   while (!TryAcquire(l, write)) {
      sched::Block(&l, sched::kNoDeadline, write ? "a spinlock" : "a spinlock's read side");
   }
}

void Take(uint64_t id, bool rw, bool write, const char *op) {
   sched::Point(op);
   Lock *l = FindLock(id, rw, op);
   CheckRank(*l, op);
   if (sched::Active() && sched::Controlled()) {
      AcquireControlled(*l, write);
   } else if (write) {
      AcquireWrite(*l);
   } else {
      AcquireRead(*l);
   }
   tHeld.push_back({l, write});
}

void Release(uint64_t id, bool rw, bool write, const char *op) {
   for (auto it = tHeld.rbegin(); it != tHeld.rend(); ++it) {
      Lock &l = *it->lock;
      if (l.id != id || l.rw != rw) {
         continue;
      }
      if (it->write != write) {
         Panic("%s: spinlock %s is held in %s mode, not released as such", op, l.name.c_str(),
               it->write ? "write" : "read");
      }
      if (write) {
         l.state.store(0, std::memory_order_release);
      } else {
         l.state.fetch_sub(1, std::memory_order_release);
      }
      tHeld.erase(std::next(it).base());
      if (sched::Active()) {
         sched::Wake(&l);
         sched::Point(op);
      }
      return;
   }
   Lock *l = FindLock(id, rw, op);
   Panic("%s: spinlock %s is not held by this thread", op, l->name.c_str());
}

hyk_Status CreateLock(const char *name, hyk_LockDomainID domain, uint32_t rank, bool rw,
                      uint64_t *out) {
   if (out == nullptr || rank == 0 || rank > 0xffff) {
      return HYK_BAD_PARAM;
   }
   hyk_Status st = core::CheckName(name);
   if (st != HYK_OK) {
      return st;
   }
   std::unique_lock<std::shared_mutex> lk(Reg().mu);
   auto d = Reg().domains.find(domain);
   if (d == Reg().domains.end()) {
      return HYK_INVALID_HANDLE;
   }
   auto l = std::make_shared<Lock>();
   l->id = Reg().nextLock++;
   l->name = name;
   l->domain = domain;
   l->domainName = d->second.name;
   l->rank = rank;
   l->rw = rw;
   d->second.locks++;
   Reg().locks[l->id] = l;
   Reg().everyLock.push_back(l);
   if (l->id < kFastLocks) {
      gLiveLock[l->id].store(l.get(), std::memory_order_release);
   }
   *out = l->id;
   return HYK_OK;
}

void Unpublish(uint64_t id) {
   if (id < kFastLocks) {
      gLiveLock[id].store(nullptr, std::memory_order_release);
   }
}

hyk_Status DestroyLock(uint64_t id, bool rw) {
   std::unique_lock<std::shared_mutex> lk(Reg().mu);
   auto it = Reg().locks.find(id);
   if (it == Reg().locks.end() || it->second->rw != rw) {
      return HYK_INVALID_HANDLE;
   }
   if (it->second->state.load() != 0) {
      std::string name = it->second->name;
      lk.unlock();
      Panic("spinlock %s destroyed while it is held", name.c_str());
   }
   auto d = Reg().domains.find(it->second->domain);
   if (d != Reg().domains.end()) {
      d->second.locks--;
   }
   Unpublish(id);
   Reg().locks.erase(it);
   return HYK_OK;
}

}  // namespace

void AssertMaySleep(const char *op) {
   if (!tHeld.empty()) {
      Panic("%s may sleep, but the thread holds spinlock %s (%zu held)", op,
            tHeld.back().lock->name.c_str(), tHeld.size());
   }
}

namespace core {

void AssertNoSpinlocks(const char *what) {
   if (!tHeld.empty()) {
      Panic("%s returned holding spinlock %s", what, tHeld.back().lock->name.c_str());
   }
}

// Between host lives no thread runs module code, so none holds a lock; the
// thread stopping the host forgets any it still lists (a test that ended
// holding one), since the objects go now.
void LocksReset() {
   tHeld.clear();
   std::unique_lock<std::shared_mutex> lk(Reg().mu);
   for (const auto &[id, l] : Reg().locks) {
      Unpublish(id);
   }
   Reg().domains.clear();
   Reg().locks.clear();
   Reg().everyLock.clear();
   Reg().nextDomain = 1;
   Reg().nextLock = 1;
}

void LocksDropModule(hyk_ModuleID id, const std::string &name) {
   std::vector<std::string> report;
   {
      std::unique_lock<std::shared_mutex> lk(Reg().mu);
      for (auto d = Reg().domains.begin(); d != Reg().domains.end();) {
         if (d->second.owner != id) {
            ++d;
            continue;
         }
         report.push_back(d->second.name + " (" + std::to_string(d->second.locks) + " locks)");
         std::erase_if(Reg().locks, [&](const auto &kv) {
            if (kv.second->domain != d->first) {
               return false;
            }
            Unpublish(kv.first);
            return true;
         });
         d = Reg().domains.erase(d);
      }
   }
   for (const std::string &r : report) {
      HostLog("module %s left lock domain %s; destroying it", name.c_str(), r.c_str());
   }
}

size_t LockDomainCount() {
   std::shared_lock<std::shared_mutex> lk(Reg().mu);
   return Reg().domains.size();
}

size_t SpinlockCount() {
   std::shared_lock<std::shared_mutex> lk(Reg().mu);
   return Reg().locks.size();
}

}  // namespace core
}  // namespace hyksim

using namespace hyksim;

extern "C" hyk_Status hyk_LockDomainCreate(const char *name, hyk_ModuleID owner, hyk_HeapID heap,
                                           hyk_LockDomainID *domain) {
   HYKSIM_FAULT_POINT("hyk_LockDomainCreate");
   AssertMaySleep("hyk_LockDomainCreate");
   hyk_Status st = core::CheckName(name);
   if (st != HYK_OK) {
      return st;
   }
   if (domain == nullptr || (heap != 0 && !core::HeapExists(heap))) {
      return HYK_BAD_PARAM;
   }
   std::unique_lock<std::shared_mutex> lk(Reg().mu);
   hyk_LockDomainID id = Reg().nextDomain++;
   Reg().domains[id] = Domain{name, owner, 0};
   *domain = id;
   return HYK_OK;
}

extern "C" hyk_Status hyk_LockDomainDestroy(hyk_LockDomainID domain) {
   HYKSIM_FAULT_POINT("hyk_LockDomainDestroy");
   std::unique_lock<std::shared_mutex> lk(Reg().mu);
   auto d = Reg().domains.find(domain);
   if (d == Reg().domains.end()) {
      return HYK_INVALID_HANDLE;
   }
   if (d->second.locks != 0) {
      return HYK_BUSY;
   }
   Reg().domains.erase(d);
   return HYK_OK;
}

extern "C" hyk_Status hyk_SpinlockCreate(const char *name, hyk_LockDomainID domain, uint32_t rank,
                                         hyk_SpinlockID *lock) {
   HYKSIM_FAULT_POINT("hyk_SpinlockCreate");
   AssertMaySleep("hyk_SpinlockCreate");
   return CreateLock(name, domain, rank, false, lock);
}

extern "C" hyk_Status hyk_RWSpinlockCreate(const char *name, hyk_LockDomainID domain,
                                           uint32_t rank, hyk_RWSpinlockID *lock) {
   HYKSIM_FAULT_POINT("hyk_RWSpinlockCreate");
   AssertMaySleep("hyk_RWSpinlockCreate");
   return CreateLock(name, domain, rank, true, lock);
}

extern "C" hyk_Status hyk_SpinlockDestroy(hyk_SpinlockID lock) {
   HYKSIM_FAULT_POINT("hyk_SpinlockDestroy");
   return DestroyLock(lock, false);
}

extern "C" hyk_Status hyk_RWSpinlockDestroy(hyk_RWSpinlockID lock) {
   HYKSIM_FAULT_POINT("hyk_RWSpinlockDestroy");
   return DestroyLock(lock, true);
}

extern "C" void hyk_SpinlockLock(hyk_SpinlockID lock) {
   Take(lock, false, true, "hyk_SpinlockLock");
}

extern "C" void hyk_SpinlockUnlock(hyk_SpinlockID lock) {
   Release(lock, false, true, "hyk_SpinlockUnlock");
}

extern "C" void hyk_RWSpinlockReadLock(hyk_RWSpinlockID lock) {
   Take(lock, true, false, "hyk_RWSpinlockReadLock");
}

extern "C" void hyk_RWSpinlockReadUnlock(hyk_RWSpinlockID lock) {
   Release(lock, true, false, "hyk_RWSpinlockReadUnlock");
}

extern "C" void hyk_RWSpinlockWriteLock(hyk_RWSpinlockID lock) {
   Take(lock, true, true, "hyk_RWSpinlockWriteLock");
}

extern "C" void hyk_RWSpinlockWriteUnlock(hyk_RWSpinlockID lock) {
   Release(lock, true, true, "hyk_RWSpinlockWriteUnlock");
}

extern "C" uint32_t hyk_SpinlocksHeld(void) { return static_cast<uint32_t>(tHeld.size()); }
