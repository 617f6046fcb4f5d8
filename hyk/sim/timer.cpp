// timer.cpp -- timer queues: one real thread per queue on which its one-shot
// and periodic timers fire, with the queue's owner module pushed.
//
// Real clock: the queue thread sleeps until its earliest deadline.  Virtual
// clock: the thread fires whatever the clock has reached, and AdvanceClock
// moves the clock from deadline to deadline over all queues, waiting at each
// step until every queue has run what fell due.  So timers fire in deadline
// order across queues, each sees the clock at its own deadline, and the
// advancer returns only after their callbacks have.
#include <atomic>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

#include "core.h"
#include "hyksim/schedule.h"
#include "scheduler.h"

namespace hyksim {
namespace {

struct Timer {
   hyk_TimerHandle id = 0;
   uint64_t deadline = 0;
   uint64_t period = 0;  // 0: one-shot
   hyk_TimerCallback cb = nullptr;
   void *data = nullptr;
};

using TimerKey = std::pair<uint64_t, uint64_t>;  // (deadline, id): id breaks ties in arming order

// Virtual clock: how far timers may fire, the time the last advance reached.
// The clock itself may be further on, moved by busy-waits (hyk_TimerDelayUS),
// which leave the timers they pass to the next advance; without this horizon
// a queue thread that happened to wake (a timer armed) would fire them at
// once, at a moment no run could reproduce.
std::atomic<uint64_t> gFireHorizon{0};

// The controlled mode moves the clock only when every thread waits, so a
// timer falls due exactly when the clock reaches it.
uint64_t FireHorizon() {
   return core::VirtualClock() && !sched::Active() ? gFireHorizon.load(std::memory_order_acquire)
                                                   : core::ClockNowUS();
}

void ExtendFireHorizon() { gFireHorizon.store(core::ClockNowUS(), std::memory_order_release); }

struct Queue {
   hyk_TimerQueue id = 0;
   std::string name;
   hyk_ModuleID owner = HYK_INVALID_MODULE_ID;
   std::mutex mu;
   std::condition_variable cv;  // both ways: work for the thread, progress for waiters
   std::map<TimerKey, Timer> pending;
   std::unordered_map<hyk_TimerHandle, TimerKey> byId;
   Timer running;               // running.id != 0 while a callback runs
   bool runningCancelled = false;
   bool stop = false;
   HostThread thread;
   std::thread::id threadId;

   bool Due() const { return !pending.empty() && pending.begin()->first.first <= FireHorizon(); }
   bool Idle() const { return running.id == 0 && !Due(); }
};

struct Registry {
   std::mutex mu;
   std::map<hyk_TimerQueue, std::shared_ptr<Queue>> queues;
   hyk_TimerQueue nextQueue = 1;
   std::atomic<uint64_t> nextTimer{1};
};

Registry &Reg() {
   static Registry *r = new Registry();
   return *r;
}

thread_local bool tInCallback = false;

std::shared_ptr<Queue> Find(hyk_TimerQueue id) {
   std::lock_guard<std::mutex> lk(Reg().mu);
   auto it = Reg().queues.find(id);
   return it == Reg().queues.end() ? nullptr : it->second;
}

std::vector<std::shared_ptr<Queue>> All() {
   std::lock_guard<std::mutex> lk(Reg().mu);
   std::vector<std::shared_ptr<Queue>> out;
   for (auto &[id, q] : Reg().queues) {
      out.push_back(q);
   }
   return out;
}

void Insert(Queue &q, const Timer &t) {
   TimerKey key{t.deadline, t.id};
   q.pending.emplace(key, t);
   q.byId[t.id] = key;
}

// Runs the earliest timer; called with lk held, returns with it held.
void FireOne(Queue &q, std::unique_lock<std::mutex> &lk) {
   auto it = q.pending.begin();
   q.running = it->second;
   q.runningCancelled = false;
   q.byId.erase(it->second.id);
   q.pending.erase(it);
   Timer t = q.running;
   lk.unlock();
   tInCallback = true;
   core::RunAsModule(q.owner, reinterpret_cast<const void *>(t.cb), "timer callback",
                     [&] { t.cb(t.data, t.id); });
   tInCallback = false;
   lk.lock();
   if (t.period != 0 && !q.runningCancelled && !q.stop) {
      // Keep the period's phase; a real-clock queue that fell behind skips
      // the missed firings rather than running them back to back.
      t.deadline += t.period;
      uint64_t now = core::ClockNowUS();
      if (!core::VirtualClock() && t.deadline < now) {
         t.deadline = now + t.period - (now - t.deadline) % t.period;
      }
      Insert(q, t);
   }
   q.running = Timer{};
   sched::NotifyAll(q.cv);
}

void WaitForWork(Queue &q, std::unique_lock<std::mutex> &lk) {
   if (sched::Active() && sched::Controlled()) {
      // Until the earliest timer's time, or new work (a timer armed, a stop).
      // The caller looks again at whatever woke it.
      const uint64_t due = q.pending.empty() ? sched::kNoDeadline : q.pending.begin()->first.first;
      lk.unlock();
      sched::Block(&q.cv, due, "a timer");
      lk.lock();
      return;
   }
   if (core::VirtualClock() || q.pending.empty()) {
      q.cv.wait(lk);
      return;
   }
   uint64_t now = core::ClockNowUS();
   uint64_t deadline = q.pending.begin()->first.first;
   // Real clock: bounded waits keep the thread honest if the clock is reset.
   uint64_t waitUS = std::min<uint64_t>(deadline - now, 100000);
   q.cv.wait_for(lk, std::chrono::microseconds(waitUS));
}

void QueueMain(Queue *q) {
   std::unique_lock<std::mutex> lk(q->mu);
   while (!q->stop) {
      if (q->Due()) {
         FireOne(*q, lk);
      } else {
         WaitForWork(*q, lk);
      }
   }
}

// Stops the thread after cancelling what is pending; waits for a running
// callback.  The queue is already out of the registry.
void Shutdown(Queue &q) {
   {
      std::lock_guard<std::mutex> lk(q.mu);
      q.stop = true;
      q.pending.clear();
      q.byId.clear();
      sched::NotifyAll(q.cv);
   }
   if (q.thread.Joinable()) {
      q.thread.Join();
   }
}

std::shared_ptr<Queue> Remove(hyk_TimerQueue id) {
   std::lock_guard<std::mutex> lk(Reg().mu);
   auto it = Reg().queues.find(id);
   if (it == Reg().queues.end()) {
      return nullptr;
   }
   auto q = it->second;
   Reg().queues.erase(it);
   return q;
}

// Earliest deadline over all queues, or UINT64_MAX.
uint64_t EarliestDeadline(const std::vector<std::shared_ptr<Queue>> &queues) {
   uint64_t best = UINT64_MAX;
   for (auto &q : queues) {
      std::lock_guard<std::mutex> lk(q->mu);
      if (!q->pending.empty()) {
         best = std::min(best, q->pending.begin()->first.first);
      }
   }
   return best;
}

void WaitAllIdle(const std::vector<std::shared_ptr<Queue>> &queues) {
   for (auto &q : queues) {
      std::unique_lock<std::mutex> lk(q->mu);
      q->cv.notify_all();
      q->cv.wait(lk, [&] { return q->stop || q->Idle(); });
   }
}

}  // namespace

namespace core {

bool InTimerCallback() { return tInCallback; }

void TimersAdvanceBy(uint64_t us) {
   // The clock moves by steps added to it, never by stores of a time read
   // before: another thread's hyk_TimerDelayUS may move it meanwhile, and its
   // time must add to this advance, not be overwritten by it.
   uint64_t left = us;
   for (;;) {
      auto queues = All();
      const uint64_t next = EarliestDeadline(queues);
      const uint64_t now = ClockNowUS();
      const uint64_t step = next > now ? next - now : 0;
      if (next == UINT64_MAX || step > left) {
         break;
      }
      ClockAddVirtual(step);
      left -= step;
      ExtendFireHorizon();
      // A callback may arm a timer on a queue already passed over, so the
      // loop re-reads every queue until nothing within the advance is left.
      WaitAllIdle(queues);
   }
   ClockAddVirtual(left);
   ExtendFireHorizon();
   WaitAllIdle(All());
}

void TimersReset() {
   std::vector<std::shared_ptr<Queue>> queues;
   {
      std::lock_guard<std::mutex> lk(Reg().mu);
      for (auto &[id, q] : Reg().queues) {
         queues.push_back(q);
      }
      Reg().queues.clear();
      Reg().nextQueue = 1;
   }
   gFireHorizon.store(0, std::memory_order_release);
   for (auto &q : queues) {
      Shutdown(*q);
   }
}

void TimersDropModule(hyk_ModuleID id, const std::string &name) {
   for (auto &q : All()) {
      if (q->owner != id) {
         continue;
      }
      size_t n;
      {
         std::lock_guard<std::mutex> lk(q->mu);
         n = q->pending.size();
      }
      HostLog("module %s left timer queue %s (%zu pending timers); destroying it", name.c_str(),
              q->name.c_str(), n);
      if (Remove(q->id)) {
         Shutdown(*q);
      }
   }
}

size_t TimerQueueCount() {
   std::lock_guard<std::mutex> lk(Reg().mu);
   return Reg().queues.size();
}

size_t PendingTimerCount() {
   size_t n = 0;
   for (auto &q : All()) {
      std::lock_guard<std::mutex> lk(q->mu);
      n += q->pending.size();
   }
   return n;
}

}  // namespace core

std::vector<PendingTimerView> PendingTimers() {
   std::vector<PendingTimerView> out;
   for (auto &q : All()) {
      std::lock_guard<std::mutex> lk(q->mu);
      for (const auto &[key, t] : q->pending) out.push_back({q->name, q->owner, key.first});
   }
   return out;
}

}  // namespace hyksim

using namespace hyksim;

extern "C" hyk_Status hyk_TimerQueueCreate(const char *name, hyk_ModuleID owner, hyk_HeapID heap,
                                           hyk_TimerQueue *queue) {
   HYKSIM_FAULT_POINT("hyk_TimerQueueCreate");
   AssertMaySleep("hyk_TimerQueueCreate");
   hyk_Status st = core::CheckName(name);
   if (st != HYK_OK) {
      return st;
   }
   if (queue == nullptr || (heap != 0 && !core::HeapExists(heap))) {
      return HYK_BAD_PARAM;
   }
   auto q = std::make_shared<Queue>();
   q->name = name;
   q->owner = owner;
   {
      std::lock_guard<std::mutex> lk(Reg().mu);
      q->id = Reg().nextQueue++;
   }
   try {
      q->thread = HostThread("timer queue " + q->name, [raw = q.get()] { QueueMain(raw); });
   } catch (const std::system_error &) {
      return HYK_NO_RESOURCES;
   }
   q->threadId = q->thread.Id();
   std::lock_guard<std::mutex> lk(Reg().mu);
   Reg().queues[q->id] = q;
   *queue = q->id;
   return HYK_OK;
}

extern "C" hyk_Status hyk_TimerQueueDestroy(hyk_TimerQueue queue) {
   HYKSIM_FAULT_POINT("hyk_TimerQueueDestroy");
   AssertMaySleep("hyk_TimerQueueDestroy");
   auto q = Find(queue);
   if (q == nullptr) {
      return HYK_INVALID_HANDLE;
   }
   if (std::this_thread::get_id() == q->threadId) {
      Panic("timer queue %s destroyed from its own callback (it would wait for itself)",
            q->name.c_str());
   }
   if (Remove(queue) == nullptr) {
      return HYK_INVALID_HANDLE;  // a concurrent destroy won
   }
   Shutdown(*q);
   return HYK_OK;
}

extern "C" hyk_Status hyk_TimerAdd(hyk_TimerQueue queue, hyk_TimerCallback cb, void *data,
                                   uint64_t timeoutUs, uint64_t toleranceUs, uint8_t periodic,
                                   uint32_t lockClass, hyk_TimerHandle *timer) {
   HYKSIM_FAULT_POINT("hyk_TimerAdd");
   if (cb == nullptr || (periodic && timeoutUs == 0)) {
      return HYK_BAD_PARAM;
   }
   auto q = Find(queue);
   if (q == nullptr) {
      return HYK_INVALID_HANDLE;
   }
   Timer t;
   t.id = Reg().nextTimer.fetch_add(1);
   t.deadline = core::ClockNowUS() + timeoutUs;
   t.period = periodic ? timeoutUs : 0;
   t.cb = cb;
   t.data = data;
   // The handle is written before the timer can fire: a zero timeout may run
   // the callback at once, and it may look at the handle.
   if (timer != nullptr) {
      *timer = t.id;
   }
   std::lock_guard<std::mutex> lk(q->mu);
   if (q->stop) {
      return HYK_INVALID_HANDLE;
   }
   Insert(*q, t);
   sched::NotifyAll(q->cv);
   return HYK_OK;
}

extern "C" hyk_Status hyk_TimerCancel(hyk_TimerQueue queue, hyk_TimerHandle timer) {
   HYKSIM_FAULT_POINT("hyk_TimerCancel");
   auto q = Find(queue);
   if (q == nullptr) {
      return HYK_INVALID_HANDLE;
   }
   std::lock_guard<std::mutex> lk(q->mu);
   auto it = q->byId.find(timer);
   if (it != q->byId.end()) {
      q->pending.erase(it->second);
      q->byId.erase(it);
      return HYK_OK;
   }
   // A periodic timer whose callback is running: it is not re-armed.
   if (q->running.id == timer && q->running.period != 0 && !q->runningCancelled) {
      q->runningCancelled = true;
      return HYK_OK;
   }
   return HYK_NOT_FOUND;
}
