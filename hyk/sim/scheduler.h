// scheduler.h -- the hooks of the controlled scheduling mode (schedule.h) in
// the host's own code: scheduling points, blocking instead of waiting, and
// the condition-variable and mutex forms that honour both modes.
//
// The rule that keeps the controlled mode sound: a controlled thread never
// reaches a scheduling point or blocks while it holds one of the host's own
// mutexes, since the thread picked next may need that mutex and would wait
// for it for real, with nobody left to run.  Host calls take their mutexes
// after their scheduling point and drop them before calling module code.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>

namespace hyksim::sched {

extern std::atomic<bool> gActive;
inline bool Active() { return gActive.load(std::memory_order_relaxed); }

constexpr uint64_t kNoDeadline = UINT64_MAX;

void PointSlow(const char *op);
// A scheduling point: the scheduler may let another thread run first.
inline void Point(const char *op) {
   if (Active()) PointSlow(op);
}

// The calling thread is one the scheduler runs.
bool Controlled();

// Blocks the calling controlled thread until Wake(channel) or until the
// virtual clock reaches deadlineUS.  Returns true when the time ended it.
bool Block(const void *channel, uint64_t deadlineUS, const char *what);
// Makes every thread blocked on `channel` runnable again.
void Wake(const void *channel);

// A schedule that cannot go on (every thread blocked, none on a time):
// reported with the threads and the last decisions, then the process ends.
[[noreturn]] void Deadlock();

// cv.wait(lk, pred), bounded by the virtual time deadlineUS in the
// controlled mode (kNoDeadline: none); returns pred().  Outside it, a plain
// wait without a bound.
template <class Pred>
bool Wait(std::condition_variable &cv, std::unique_lock<std::mutex> &lk, uint64_t deadlineUS,
          const char *what, Pred pred) {
   if (!Active() || !Controlled()) {
      cv.wait(lk, pred);
      return true;
   }
   while (!pred()) {
      lk.unlock();
      const bool late = Block(&cv, deadlineUS, what);
      lk.lock();
      if (late) return pred();
   }
   return true;
}

// cv.notify_all(), and the controlled threads blocked on it made runnable.
inline void NotifyAll(std::condition_variable &cv) {
   cv.notify_all();
   if (Active()) Wake(&cv);
}

// A recursive mutex that may be held across module code (a module's load):
// in the controlled mode a thread that finds it taken is blocked, not left
// waiting for real on a thread that cannot run.
class RecursiveMutex {
  public:
   void lock();
   void unlock();

  private:
   std::recursive_mutex real_;
   const void *owner_ = nullptr;   // controlled mode: the owning thread's record
   uint32_t depth_ = 0;
};

}  // namespace hyksim::sched
