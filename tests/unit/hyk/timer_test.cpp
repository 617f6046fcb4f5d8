// timer_test.cpp -- the host clock, the monotonic counter and timer queues
// on virtual time (and one real-clock case).
#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "hyk_test_support.h"

namespace {

using hyktest::HostTest;

class ClockTest : public HostTest {};

TEST_F(ClockTest, VirtualClockMovesOnlyWhenAdvanced) {
   EXPECT_EQ(hyk_GetTimeUS(), 0u);
   EXPECT_EQ(hyk_TimerMonotonicCounter(), 0u);
   std::this_thread::sleep_for(std::chrono::milliseconds(2));
   EXPECT_EQ(hyksim::NowUS(), 0u);
   hyksim::AdvanceClock(1500);
   EXPECT_EQ(hyk_GetTimeUS(), 1500u);
   EXPECT_EQ(hyk_GetMonotonicCounterFrequency(), 1000000000u);
   EXPECT_EQ(hyk_TimerMonotonicCounter(), 1500000u);
}

TEST_F(ClockTest, DelayMovesTheVirtualClockByExactlyItsTime) {
   hyk_TimerDelayUS(1500);
   EXPECT_EQ(hyk_GetTimeUS(), 1500u);
   EXPECT_EQ(hyk_TimerMonotonicCounter(), 1500000u);
   hyk_TimerDelayUS(0);
   EXPECT_EQ(hyk_GetTimeUS(), 1500u);
   hyk_TimerDelayUS(1);
   EXPECT_EQ(hyk_GetTimeUS(), 1501u);
}

TEST_F(ClockTest, DelaysOfTwoThreadsAndAnAdvanceAllAddUp) {
   constexpr int kCalls = 20000;
   std::atomic<bool> go{false};
   auto delayer = [&](uint64_t us) {
      while (!go) std::this_thread::yield();
      for (int i = 0; i < kCalls; i++) hyk_TimerDelayUS(us);
   };
   std::thread a(delayer, 3), b(delayer, 5);
   std::thread c([&] {
      while (!go) std::this_thread::yield();
      for (int i = 0; i < kCalls; i++) hyksim::AdvanceClock(7);
   });
   go = true;
   a.join();
   b.join();
   c.join();
   EXPECT_EQ(hyk_GetTimeUS(), uint64_t(kCalls) * (3 + 5 + 7));
}

TEST_F(ClockTest, DelayWithASpinlockHeldDoesNotCountAsASleep) {
   hyk_LockDomainID domain;
   hyk_SpinlockID lock;
   ASSERT_EQ(hyk_LockDomainCreate("delay", 0, 0, &domain), HYK_OK);
   ASSERT_EQ(hyk_SpinlockCreate("held", domain, 1, &lock), HYK_OK);
   hyk_SpinlockLock(lock);
   hyk_TimerDelayUS(250);
   hyk_SpinlockUnlock(lock);
   EXPECT_EQ(hyk_GetTimeUS(), 250u);
   EXPECT_EQ(hyk_SpinlockDestroy(lock), HYK_OK);
   EXPECT_EQ(hyk_LockDomainDestroy(domain), HYK_OK);
}

TEST_F(ClockTest, DelayLongerThanTheLimitIsCutAndLogged) {
   hyk_TimerDelayUS(HYK_TIMER_DELAY_MAX_US + 5);
   EXPECT_EQ(hyk_GetTimeUS(), uint64_t(HYK_TIMER_DELAY_MAX_US));
   EXPECT_EQ(hyksim::LogCount("hyk_TimerDelayUS: a delay of 100005 us cut to 100000 us"), 1u);
   hyk_TimerDelayUS(HYK_TIMER_DELAY_MAX_US);
   EXPECT_EQ(hyk_GetTimeUS(), 2u * HYK_TIMER_DELAY_MAX_US);
   EXPECT_EQ(hyksim::LogCount("hyk_TimerDelayUS"), 1u);
}

class CounterFrequencyTest : public HostTest {
  protected:
   hyksim::HostOptions Options() override {
      hyksim::HostOptions o;
      o.counterFrequency = 0;  // the host must never report 0
      return o;
   }
};

TEST_F(CounterFrequencyTest, ZeroFrequencyIsReplaced) {
   EXPECT_NE(hyk_GetMonotonicCounterFrequency(), 0u);
   hyksim::HostOptions o;
   o.counterFrequency = 2000;
   hyksim::HostStart(o);
   EXPECT_EQ(hyk_GetMonotonicCounterFrequency(), 2000u);
   hyksim::AdvanceClock(3000000);
   EXPECT_EQ(hyk_TimerMonotonicCounter(), 6000u);
}

class TimerTest : public HostTest {
  protected:
   hyk_TimerQueue queue_ = 0;
   void SetUp() override {
      HostTest::SetUp();
      ASSERT_EQ(hyk_TimerQueueCreate("tq", 7, 0, &queue_), HYK_OK);
   }
   struct Fired {
      std::mutex mu;
      std::vector<std::pair<int, uint64_t>> events;  // (tag, time)
      std::vector<hyk_ModuleID> modules;
   };
   static void Record(void *data, hyk_TimerHandle) {
      auto *slot = static_cast<std::pair<Fired *, int> *>(data);
      std::lock_guard<std::mutex> lk(slot->first->mu);
      slot->first->events.emplace_back(slot->second, hyk_GetTimeUS());
      slot->first->modules.push_back(hyk_ModuleCurrentID());
   }
   hyk_TimerHandle Add(std::pair<Fired *, int> *slot, uint64_t us, bool periodic = false,
                       hyk_TimerQueue q = 0) {
      hyk_TimerHandle t = 0;
      EXPECT_EQ(hyk_TimerAdd(q ? q : queue_, Record, slot, us, HYK_TIMER_DEFAULT_TOLERANCE,
                             periodic, HYK_TIMER_NO_LOCK_CLASS, &t),
                HYK_OK);
      return t;
   }
};

TEST_F(TimerTest, OneShotFiresAtItsDeadlineNotBefore) {
   Fired f;
   std::pair<Fired *, int> slot{&f, 1};
   Add(&slot, 120000000);
   hyksim::AdvanceClock(119999999);
   EXPECT_TRUE(f.events.empty());
   EXPECT_EQ(hyksim::Counts().pendingTimers, 1u);
   hyksim::AdvanceClock(1);
   ASSERT_EQ(f.events.size(), 1u);
   EXPECT_EQ(f.events[0].second, 120000000u);
   EXPECT_EQ(f.modules[0], 7u);  // the queue's owner is current in the callback
   hyksim::AdvanceClock(500000000);
   EXPECT_EQ(f.events.size(), 1u);
   EXPECT_EQ(hyksim::Counts().pendingTimers, 0u);
}

TEST_F(TimerTest, TimersFireInDeadlineOrderAcrossQueues) {
   hyk_TimerQueue other = 0;
   ASSERT_EQ(hyk_TimerQueueCreate("tq2", 8, 0, &other), HYK_OK);
   Fired f;
   std::pair<Fired *, int> a{&f, 1}, b{&f, 2}, c{&f, 3};
   Add(&c, 300);
   Add(&a, 100, false, other);
   Add(&b, 200);
   hyksim::AdvanceClock(1000);
   ASSERT_EQ(f.events.size(), 3u);
   EXPECT_EQ(f.events[0], std::make_pair(1, uint64_t(100)));
   EXPECT_EQ(f.events[1], std::make_pair(2, uint64_t(200)));
   EXPECT_EQ(f.events[2], std::make_pair(3, uint64_t(300)));
   EXPECT_EQ(f.modules[0], 8u);
   EXPECT_EQ(hyk_TimerQueueDestroy(other), HYK_OK);
}

TEST_F(TimerTest, PeriodicFiresEveryPeriodUntilCancelled) {
   Fired f;
   std::pair<Fired *, int> slot{&f, 1};
   hyk_TimerHandle t = Add(&slot, 1000, true);
   hyksim::AdvanceClock(3500);
   ASSERT_EQ(f.events.size(), 3u);
   EXPECT_EQ(f.events[2].second, 3000u);
   EXPECT_EQ(hyk_TimerCancel(queue_, t), HYK_OK);
   hyksim::AdvanceClock(5000);
   EXPECT_EQ(f.events.size(), 3u);
   EXPECT_EQ(hyk_TimerCancel(queue_, t), HYK_NOT_FOUND);
}

TEST_F(TimerTest, CancelledOneShotNeverFires) {
   Fired f;
   std::pair<Fired *, int> slot{&f, 1};
   hyk_TimerHandle t = Add(&slot, 50);
   EXPECT_EQ(hyk_TimerCancel(queue_, t), HYK_OK);
   hyksim::AdvanceClock(100);
   EXPECT_TRUE(f.events.empty());
   EXPECT_EQ(hyk_TimerCancel(queue_, t), HYK_NOT_FOUND);
}

TEST_F(TimerTest, FiredOneShotCannotBeCancelled) {
   Fired f;
   std::pair<Fired *, int> slot{&f, 1};
   hyk_TimerHandle t = Add(&slot, 10);
   hyksim::AdvanceClock(10);
   EXPECT_EQ(f.events.size(), 1u);
   EXPECT_EQ(hyk_TimerCancel(queue_, t), HYK_NOT_FOUND);
}

TEST_F(TimerTest, ZeroTimeoutFiresWithoutAdvancing) {
   Fired f;
   std::pair<Fired *, int> slot{&f, 1};
   Add(&slot, 0);
   hyksim::AdvanceClock(0);  // waits for what is due now
   EXPECT_EQ(f.events.size(), 1u);
}

TEST_F(TimerTest, BadArgumentsAreRefused) {
   hyk_TimerHandle t = 0;
   EXPECT_EQ(hyk_TimerAdd(queue_, nullptr, nullptr, 10, 0, 0, 0, &t), HYK_BAD_PARAM);
   EXPECT_EQ(hyk_TimerAdd(queue_, Record, nullptr, 0, 0, 1, 0, &t), HYK_BAD_PARAM);
   EXPECT_EQ(hyk_TimerAdd(queue_ + 100, Record, nullptr, 10, 0, 0, 0, &t), HYK_INVALID_HANDLE);
   EXPECT_EQ(hyk_TimerCancel(queue_ + 100, 1), HYK_INVALID_HANDLE);
   hyk_TimerQueue q;
   EXPECT_EQ(hyk_TimerQueueCreate("", 0, 0, &q), HYK_BAD_PARAM);
   EXPECT_EQ(hyk_TimerQueueCreate("q", 0, 999, &q), HYK_BAD_PARAM);
   EXPECT_EQ(hyk_TimerQueueDestroy(queue_ + 100), HYK_INVALID_HANDLE);
}

TEST_F(TimerTest, DestroyCancelsPendingTimers) {
   Fired f;
   std::pair<Fired *, int> slot{&f, 1};
   Add(&slot, 100);
   Add(&slot, 200, true);
   EXPECT_EQ(hyksim::Counts().pendingTimers, 2u);
   EXPECT_EQ(hyk_TimerQueueDestroy(queue_), HYK_OK);
   EXPECT_EQ(hyksim::Counts().timerQueues, 0u);
   EXPECT_EQ(hyksim::Counts().pendingTimers, 0u);
   hyksim::AdvanceClock(1000);
   EXPECT_TRUE(f.events.empty());
}

struct Blocker {
   std::atomic<bool> entered{false};
   std::atomic<bool> release{false};
   std::atomic<bool> returned{false};
};

void BlockingCallback(void *data, hyk_TimerHandle) {
   auto *b = static_cast<Blocker *>(data);
   b->entered = true;
   while (!b->release) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
   }
   b->returned = true;
}

TEST_F(TimerTest, DestroyWaitsForARunningCallback) {
   Blocker b;
   hyk_TimerAdd(queue_, BlockingCallback, &b, 0, 0, 0, 0, nullptr);
   while (!b.entered) {
      std::this_thread::yield();
   }
   std::thread releaser([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      b.release = true;
   });
   EXPECT_EQ(hyk_TimerQueueDestroy(queue_), HYK_OK);
   EXPECT_TRUE(b.returned);  // destroy returned only after the callback did
   releaser.join();
}

// The delay does not wait for timer callbacks: what it passes fires at the
// next advance, which then shows the clock where the delay left it.
TEST_F(TimerTest, DelayLeavesTheTimersItPassesToTheNextAdvance) {
   Fired f;
   std::pair<Fired *, int> slot{&f, 1};
   Add(&slot, 100);
   hyk_TimerDelayUS(250);
   EXPECT_EQ(hyksim::Counts().pendingTimers, 1u);
   {
      std::lock_guard<std::mutex> lk(f.mu);
      EXPECT_TRUE(f.events.empty());
   }
   hyksim::AdvanceClock(0);
   ASSERT_EQ(f.events.size(), 1u);
   EXPECT_EQ(f.events[0].second, 250u);
}

void DelayingCallback(void *data, hyk_TimerHandle) {
   hyk_TimerDelayUS(100);
   *static_cast<uint64_t *>(data) = hyk_GetTimeUS();
}

// A callback's delay adds to the advance that fired it.
TEST_F(TimerTest, DelayInACallbackAddsToTheAdvance) {
   uint64_t seen = 0;
   ASSERT_EQ(hyk_TimerAdd(queue_, DelayingCallback, &seen, 5, 0, 0, 0, nullptr), HYK_OK);
   hyksim::AdvanceClock(10);
   EXPECT_EQ(seen, 105u);
   EXPECT_EQ(hyk_GetTimeUS(), 110u);
}

void SleepingCallback(void *, hyk_TimerHandle) { hyk_WorldSleep(10); }

TEST_F(TimerTest, SleepingInACallbackPanics) {
   EXPECT_DEATH(
      {
         hyk_TimerAdd(queue_, SleepingCallback, nullptr, 5, 0, 0, 0, nullptr);
         hyksim::AdvanceClock(10);
      },
      "hyk_WorldSleep called from a timer callback");
}

class RealClockTimerTest : public HostTest {
  protected:
   hyksim::HostOptions Options() override {
      hyksim::HostOptions o;
      o.virtualClock = false;
      return o;
   }
};

void CountCallback(void *data, hyk_TimerHandle) { ++*static_cast<std::atomic<int> *>(data); }

// On the real clock the delay spins; a request past the limit is cut there
// too (the spin ends: the test returns).
TEST_F(RealClockTimerTest, DelayLongerThanTheLimitIsCut) {
   hyk_TimerDelayUS(uint64_t(1) << 40);
   EXPECT_EQ(hyksim::LogCount("hyk_TimerDelayUS: a delay of 1099511627776 us cut to 100000 us"), 1u);
}

TEST_F(RealClockTimerTest, TimersFireOnTheirOwn) {
   hyk_TimerQueue q;
   ASSERT_EQ(hyk_TimerQueueCreate("real", 0, 0, &q), HYK_OK);
   std::atomic<int> n{0};
   uint64_t start = hyk_GetTimeUS();
   ASSERT_EQ(hyk_TimerAdd(q, CountCallback, &n, 5000, 0, 0, 0, nullptr), HYK_OK);
   EXPECT_EQ(n.load(), 0);
   for (int i = 0; i < 2000 && n.load() == 0; i++) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
   }
   EXPECT_EQ(n.load(), 1);
   EXPECT_GE(hyk_GetTimeUS() - start, 5000u);
   EXPECT_EQ(hyk_TimerQueueDestroy(q), HYK_OK);
}

}  // namespace
