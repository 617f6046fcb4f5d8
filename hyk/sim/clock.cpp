// clock.cpp -- the host's one clock, virtual or real, and the monotonic
// counter derived from it.
//
// With the virtual clock time stands still until a test (AdvanceClock) or a
// sleeping world moves it, so a 120-second timer costs microseconds and every
// run sees the same times.  Advancing is serialised: timers fire in deadline
// order across all queues (timer.cpp) and the clock shows each timer's
// deadline while its callback runs.  A busy-wait (hyk_TimerDelayUS) adds its
// time to the clock at once, from any thread and under any lock, and leaves
// the timers it passes to the next advance: it must not wait for a timer
// callback that may want the spinlock its caller holds.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "core.h"
#include "scheduler.h"

namespace hyksim {
namespace {

using SteadyClock = std::chrono::steady_clock;

struct Clock {
   std::atomic<bool> isVirtual{true};
   std::atomic<uint64_t> virtualUS{0};
   std::atomic<int64_t> realStartNS{0};
   std::mutex mu;  // sleepers wait on cv under mu
   std::condition_variable cv;
   bool interrupted = false;  // host stopping: sleeps end at once, until the next start
   std::mutex advanceMu;
};

Clock &TheClock() {
   static Clock *c = new Clock();
   return *c;
}

int64_t SteadyNS() {
   return std::chrono::duration_cast<std::chrono::nanoseconds>(SteadyClock::now().time_since_epoch())
      .count();
}

uint64_t RealElapsedNS() {
   int64_t d = SteadyNS() - TheClock().realStartNS.load(std::memory_order_relaxed);
   return d < 0 ? 0 : static_cast<uint64_t>(d);
}

}  // namespace

namespace core {

void ClockReset(bool virtualClock) {
   Clock &c = TheClock();
   c.isVirtual = virtualClock;
   c.virtualUS = 0;
   c.realStartNS = SteadyNS();
   std::lock_guard<std::mutex> lk(c.mu);
   c.interrupted = false;
}

uint64_t ClockNowUS() {
   Clock &c = TheClock();
   if (c.isVirtual.load(std::memory_order_relaxed)) {
      return c.virtualUS.load(std::memory_order_acquire);
   }
   return RealElapsedNS() / 1000;
}

void ClockAddVirtual(uint64_t us) {
   Clock &c = TheClock();
   c.virtualUS.fetch_add(us, std::memory_order_acq_rel);
   std::lock_guard<std::mutex> lk(c.mu);
   c.cv.notify_all();
}

void ClockInterruptSleepers() {
   Clock &c = TheClock();
   std::lock_guard<std::mutex> lk(c.mu);
   c.interrupted = true;
   c.cv.notify_all();
}

bool ClockWaitUntil(uint64_t deadlineUS, const char *what) {
   if (sched::Active() && sched::Controlled()) {
      // The clock moves when every controlled thread waits, to the earliest wait's time.
      while (ClockNowUS() < deadlineUS) sched::Block(nullptr, deadlineUS, what);
      return true;
   }
   Clock &c = TheClock();
   std::unique_lock<std::mutex> lk(c.mu);
   auto reached = [&] { return c.interrupted || ClockNowUS() >= deadlineUS; };
   if (c.isVirtual) {
      c.cv.wait(lk, reached);
   } else {
      auto until = SteadyClock::time_point(std::chrono::nanoseconds(c.realStartNS.load())) +
                   std::chrono::microseconds(deadlineUS);
      c.cv.wait_until(lk, until, reached);
   }
   return !c.interrupted;
}

}  // namespace core

uint64_t NowUS() { return core::ClockNowUS(); }

void AdvanceClock(uint64_t us) {
   if (core::InTimerCallback()) {
      Panic("the clock was advanced from a timer callback (it would wait for itself)");
   }
   Clock &c = TheClock();
   if (!c.isVirtual) {
      std::this_thread::sleep_for(std::chrono::microseconds(us));
      return;
   }
   if (sched::Active() && sched::Controlled()) {
      // Time passes for the caller alone: the others run meanwhile, and the
      // timers that fall due fire on their queues as the clock reaches them.
      core::ClockWaitUntil(core::ClockNowUS() + us, "a clock advance");
      return;
   }
   std::lock_guard<std::mutex> lk(c.advanceMu);
   core::TimersAdvanceBy(us);
}

}  // namespace hyksim

using namespace hyksim;

extern "C" uint64_t hyk_GetMonotonicCounterFrequency(void) { return core::CounterFrequency(); }

extern "C" uint64_t hyk_TimerMonotonicCounter(void) {
   unsigned __int128 freq = core::CounterFrequency();
   if (TheClock().isVirtual.load(std::memory_order_relaxed)) {
      return static_cast<uint64_t>(core::ClockNowUS() * freq / 1000000u);
   }
   return static_cast<uint64_t>(RealElapsedNS() * freq / 1000000000u);
}

extern "C" uint64_t hyk_GetTimeUS(void) { return core::ClockNowUS(); }

extern "C" void hyk_TimerDelayUS(uint64_t us) {
   if (us > HYK_TIMER_DELAY_MAX_US) {
      HostLog("hyk_TimerDelayUS: a delay of %llu us cut to %u us", (unsigned long long)us,
              HYK_TIMER_DELAY_MAX_US);
      us = HYK_TIMER_DELAY_MAX_US;
   }
   if (us == 0) {
      return;
   }
   Clock &c = TheClock();
   if (sched::Active() && sched::Controlled()) {
      // The caller is busy for `us`; the other CPUs go on meanwhile.
      sched::Point("hyk_TimerDelayUS");
      core::ClockWaitUntil(core::ClockNowUS() + us, "a busy-wait");
      return;
   }
   if (c.isVirtual.load(std::memory_order_relaxed)) {
      core::ClockAddVirtual(us);
      return;
   }
   // Bounded by the cut above: the spin ends once the steady clock has moved
   // `us` on, whatever the thread's scheduling.  A long spin yields its CPU
   // now and then, since the host may run more threads than there are cores;
   // the time it waits is the same.
   const int64_t until = SteadyNS() + static_cast<int64_t>(us) * 1000;
   for (unsigned spins = 0; SteadyNS() < until; spins++) {
      if (spins % 64 != 63) {
#if defined(__x86_64__) || defined(__i386__)
         __builtin_ia32_pause();
#endif
      } else {
         std::this_thread::yield();
      }
   }
}
