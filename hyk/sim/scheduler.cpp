// scheduler.cpp -- the controlled scheduling mode (schedule.h): one controlled
// thread runs at a time, holding the token; at each scheduling point the
// seeded scheduler picks the thread that holds it next.
//
// A controlled thread is a real thread that waits on its own condition
// variable, under the scheduler's mutex, until the token is handed to it.
// So every controlled thread is, at any moment, either the one running or
// parked in this file; what they share is therefore only touched by one of
// them at a time, and each hand-over (a mutex release and acquire) orders
// the memory of the one before with the one after.
//
// Blocked threads wait on a channel (the address of what they wait for),
// on a time of the virtual clock, or both.  When no thread can run, the
// clock moves to the earliest such time; when none waits for a time
// either, the schedule is a deadlock.
#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <random>
#include <vector>

#include "core.h"
#include "hyksim/schedule.h"
#include "scheduler.h"

namespace hyksim {
namespace sched {

std::atomic<bool> gActive{false};

namespace {

enum class State { kRunnable, kBlocked, kDone };

struct Thread {
   uint32_t id = 0;
   std::string name;
   State state = State::kRunnable;
   const void *channel = nullptr;
   uint64_t deadline = kNoDeadline;
   bool late = false;          // the time ended its block
   const char *what = "";      // what it waits for, or the call it stopped at
   uint64_t priority = 0;      // PCT
   std::map<std::string, uint64_t> waits;   // what it was blocked on, how often
   std::condition_variable cv;
};

struct Decision {
   uint64_t step;
   uint32_t from;
   uint32_t to;
   const char *op;
   uint64_t nowUS;
};

struct Scheduler {
   std::mutex mu;
   ScheduleOptions opts;
   std::vector<std::unique_ptr<Thread>> threads;   // in order of creation: the IDs
   Thread *current = nullptr;
   std::mt19937_64 rng;
   std::vector<uint64_t> changePoints;              // PCT, ascending
   size_t nextChange = 0;
   ScheduleSummary summary;
   std::deque<Decision> decisions;
   std::function<void(const std::string &)> failureHook;
};

Scheduler &S() {
   static Scheduler *s = new Scheduler();
   return *s;
}

thread_local Thread *tSelf = nullptr;

void Mix(uint64_t &h, uint64_t v) {
   h ^= v + 0x9e3779b97f4a7c15ull + (h << 6) + (h >> 2);
}

uint64_t HashText(const char *s) {
   uint64_t h = 1469598103934665603ull;
   for (; *s != '\0'; s++) h = (h ^ static_cast<unsigned char>(*s)) * 1099511628211ull;
   return h;
}

bool CanRun(const Thread &t, uint64_t now) {
   return t.state == State::kRunnable || (t.state == State::kBlocked && t.deadline <= now);
}

std::string Describe(const Thread &t) { return "T" + std::to_string(t.id) + "(" + t.name + ")"; }

std::string Format(const Scheduler &s, const Decision &d) {
   char head[64];
   snprintf(head, sizeof(head), "step %6" PRIu64 " %4" PRIu64 ".%06" PRIu64 "s  ", d.step,
            d.nowUS / 1000000, d.nowUS % 1000000);
   return head + Describe(*s.threads[d.from]) + " at " + d.op + " -> " +
          (d.from == d.to ? std::string("stays") : Describe(*s.threads[d.to]));
}

std::vector<std::string> Recent(const Scheduler &s) {
   std::vector<std::string> out;
   for (const Decision &d : s.decisions) out.push_back(Format(s, d));
   return out;
}

std::vector<std::string> Waits(const Scheduler &s) {
   std::vector<std::string> out;
   for (const auto &t : s.threads) {
      if (t->waits.empty()) continue;
      std::string line = Describe(*t) + ":";
      const char *sep = " ";
      for (const auto &[what, n] : t->waits) {
         line += sep + what + " x" + std::to_string(n);
         sep = ", ";
      }
      out.push_back(line);
   }
   return out;
}

// The thread that runs next, among those that can; moves the clock when
// none can.  Called with s.mu held.
Thread *Pick(Scheduler &s) {
   uint64_t now = core::ClockNowUS();
   std::vector<Thread *> ready;
   for (auto &t : s.threads) {
      if (CanRun(*t, now)) ready.push_back(t.get());
   }
   if (ready.empty()) {
      uint64_t earliest = kNoDeadline;
      for (auto &t : s.threads) {
         if (t->state == State::kBlocked) earliest = std::min(earliest, t->deadline);
      }
      if (earliest == kNoDeadline) return nullptr;
      core::ClockAddVirtual(earliest - now);
      s.summary.clockMoves++;
      now = earliest;
      for (auto &t : s.threads) {
         if (CanRun(*t, now)) ready.push_back(t.get());
      }
   }
   Thread *next;
   if (s.opts.pctDepth == 0) {
      next = ready[std::uniform_int_distribution<size_t>(0, ready.size() - 1)(s.rng)];
   } else {
      next = *std::max_element(ready.begin(), ready.end(),
                               [](const Thread *a, const Thread *b) { return a->priority < b->priority; });
   }
   if (next->state == State::kBlocked) {
      next->late = true;   // only its time can have made a blocked thread runnable
      next->state = State::kRunnable;
   }
   return next;
}

void Record(Scheduler &s, Thread *from, Thread *to, const char *op) {
   s.summary.steps++;
   if (from != to) s.summary.switches++;
   Mix(s.summary.traceHash, from->id);
   Mix(s.summary.traceHash, HashText(op));
   if (s.opts.keepDecisions == 0) return;
   if (s.decisions.size() == s.opts.keepDecisions) s.decisions.pop_front();
   s.decisions.push_back({s.summary.steps, from->id, to->id, op, core::ClockNowUS()});
}

// Hands the token from `self` to `next` and waits until it comes back.
void HandOver(Scheduler &s, std::unique_lock<std::mutex> &lk, Thread *self, Thread *next) {
   s.current = next;
   if (next == self) return;
   next->cv.notify_one();
   self->cv.wait(lk, [&] { return s.current == self; });
}

Thread *PickOrDeadlock(Scheduler &s, std::unique_lock<std::mutex> &lk) {
   Thread *next = Pick(s);
   if (next == nullptr) {
      lk.unlock();
      Deadlock();
   }
   return next;
}

// PCT: at a change point the running thread drops below every thread's
// starting priority, to the change point's own (lower for later ones).
void ChangePriority(Scheduler &s, Thread *self) {
   if (s.opts.pctDepth == 0) return;
   while (s.nextChange < s.changePoints.size() && s.changePoints[s.nextChange] <= s.summary.steps) {
      self->priority = s.opts.pctDepth - 1 - s.nextChange;
      s.nextChange++;
   }
}

Thread *NewThread(Scheduler &s, const std::string &name) {
   auto t = std::make_unique<Thread>();
   t->id = static_cast<uint32_t>(s.threads.size());
   t->name = name;
   // Starting priorities are above every change point's (which are < depth).
   t->priority = s.opts.pctDepth + (s.rng() >> 16);
   s.threads.push_back(std::move(t));
   s.summary.threads = static_cast<uint32_t>(s.threads.size());
   return s.threads.back().get();
}

}  // namespace

bool Controlled() { return tSelf != nullptr; }

void PointSlow(const char *op) {
   Thread *self = tSelf;
   if (self == nullptr) return;
   Scheduler &s = S();
   std::unique_lock<std::mutex> lk(s.mu);
   ChangePriority(s, self);
   self->what = op;
   Thread *next = PickOrDeadlock(s, lk);
   Record(s, self, next, op);
   HandOver(s, lk, self, next);
}

bool Block(const void *channel, uint64_t deadlineUS, const char *what) {
   Thread *self = tSelf;
   Scheduler &s = S();
   std::unique_lock<std::mutex> lk(s.mu);
   self->state = State::kBlocked;
   self->channel = channel;
   self->deadline = deadlineUS;
   self->late = false;
   self->what = what;
   self->waits[what]++;
   Thread *next = PickOrDeadlock(s, lk);
   Record(s, self, next, what);
   HandOver(s, lk, self, next);
   self->channel = nullptr;
   self->deadline = kNoDeadline;
   return self->late;
}

void Wake(const void *channel) {
   Scheduler &s = S();
   std::lock_guard<std::mutex> lk(s.mu);
   for (auto &t : s.threads) {
      if (t->state == State::kBlocked && t->channel == channel) {
         t->state = State::kRunnable;
         t->late = false;
      }
   }
}

void Deadlock() {
   Scheduler &s = S();
   std::string why = "deadlock: no thread can run and none waits for a time";
   {
      std::lock_guard<std::mutex> lk(s.mu);
      for (auto &t : s.threads) {
         if (t->state == State::kBlocked) why += "\n  " + Describe(*t) + " blocked: " + t->what;
      }
   }
   Panic("%s", why.c_str());
}

void RecursiveMutex::lock() {
   if (!Active() || !Controlled()) {
      real_.lock();
      return;
   }
   while (owner_ != nullptr && owner_ != tSelf) Block(this, kNoDeadline, "a module load or unload");
   owner_ = tSelf;
   depth_++;
}

void RecursiveMutex::unlock() {
   if (!Active() || !Controlled()) {
      real_.unlock();
      return;
   }
   if (--depth_ == 0) {
      owner_ = nullptr;
      Wake(this);
   }
}

}  // namespace sched

using namespace sched;

void ScheduleBegin(const ScheduleOptions &options) {
   Scheduler &s = S();
   std::lock_guard<std::mutex> lk(s.mu);
   if (gActive.load()) Panic("ScheduleBegin: a schedule is already running");
   s.opts = options;
   s.threads.clear();
   s.rng.seed(options.seed);
   s.summary = ScheduleSummary{};
   s.decisions.clear();
   s.changePoints.clear();
   s.nextChange = 0;
   for (uint32_t i = 1; i < options.pctDepth; i++) {
      s.changePoints.push_back(1 + s.rng() % std::max<uint64_t>(options.pctSteps, 1));
   }
   std::sort(s.changePoints.begin(), s.changePoints.end());
   Thread *main = NewThread(s, "main");
   s.current = main;
   tSelf = main;
   gActive.store(true);
}

ScheduleSummary ScheduleSoFar() {
   Scheduler &s = S();
   std::lock_guard<std::mutex> lk(s.mu);
   ScheduleSummary out = s.summary;
   out.lastDecisions = Recent(s);
   out.waits = Waits(s);
   return out;
}

ScheduleSummary ScheduleEnd() {
   Scheduler &s = S();
   std::unique_lock<std::mutex> lk(s.mu);
   for (auto &t : s.threads) {
      if (t.get() != tSelf && t->state != State::kDone) {
         std::string name = Describe(*t);
         lk.unlock();
         Panic("the schedule ends with thread %s still alive", name.c_str());
      }
   }
   gActive.store(false);
   tSelf = nullptr;
   ScheduleSummary out = s.summary;
   out.lastDecisions = Recent(s);
   out.waits = Waits(s);
   return out;
}

bool ScheduleControlled() { return Active(); }

void SetScheduleFailureHook(std::function<void(const std::string &)> hook) {
   Scheduler &s = S();
   std::lock_guard<std::mutex> lk(s.mu);
   s.failureHook = std::move(hook);
}

// The panic path: the schedule's last decisions go with the panic's text.
void ScheduleReportFailure(const std::string &why) {
   if (!Active()) return;
   Scheduler &s = S();
   std::function<void(const std::string &)> hook;
   {
      std::unique_lock<std::mutex> lk(s.mu, std::try_to_lock);
      if (!lk.owns_lock()) return;
      hook = s.failureHook;
   }
   if (hook) hook(why);
}

// ---- host threads ---------------------------------------------------------------

HostThread::HostThread(std::string name, std::function<void()> fn) {
   if (!Active() || !Controlled()) {
      thread_ = std::thread(std::move(fn));
      return;
   }
   Scheduler &s = S();
   Thread *t;
   {
      std::lock_guard<std::mutex> lk(s.mu);
      t = NewThread(s, name);
   }
   controlled_ = t;
   thread_ = std::thread([t, fn = std::move(fn)] {
      Scheduler &s = S();
      {
         std::unique_lock<std::mutex> lk(s.mu);
         t->cv.wait(lk, [&] { return s.current == t; });
      }
      tSelf = t;
      fn();
      std::unique_lock<std::mutex> lk(s.mu);
      t->state = State::kDone;
      for (auto &other : s.threads) {
         if (other->state == State::kBlocked && other->channel == t) other->state = State::kRunnable;
      }
      tSelf = nullptr;
      Thread *next = PickOrDeadlock(s, lk);
      Record(s, t, next, "thread exit");
      s.current = next;
      next->cv.notify_one();
   });
   // The new thread runs when the scheduler picks it, at the creator's next
   // point (not here: a creator may hold a host mutex, as the world registry's).
}

HostThread::HostThread(HostThread &&other) noexcept
    : thread_(std::move(other.thread_)), controlled_(other.controlled_) {
   other.controlled_ = nullptr;
}

HostThread &HostThread::operator=(HostThread &&other) noexcept {
   if (this != &other) {
      if (thread_.joinable()) Join();
      thread_ = std::move(other.thread_);
      controlled_ = other.controlled_;
      other.controlled_ = nullptr;
   }
   return *this;
}

HostThread::~HostThread() {
   if (thread_.joinable()) Join();
}

void HostThread::Join() {
   auto *t = static_cast<Thread *>(controlled_);
   if (t != nullptr && Active() && Controlled()) {
      for (;;) {
         {
            std::lock_guard<std::mutex> lk(S().mu);
            if (t->state == State::kDone) break;
         }
         Block(t, kNoDeadline, "a thread's end");
      }
   }
   thread_.join();
   controlled_ = nullptr;
}

void HostThread::Detach() {
   thread_.detach();
   controlled_ = nullptr;
}

}  // namespace hyksim
