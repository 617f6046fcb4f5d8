// schedule_test.cpp -- the controlled scheduling mode: one seed is one
// schedule (decisions, trace, what the threads saw), seeds differ, a thread
// that would spin on a spinlock is blocked, the clock moves only when every
// thread waits, PCT of depth 1 runs threads to completion one by one, and a
// deadlock is reported, not hung on.
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <string>
#include <vector>

#include "hyk/hyk.h"
#include "hyksim/host.h"
#include "hyksim/schedule.h"

namespace {

struct Contended {
   hyksim::ScheduleSummary summary;
   std::vector<int> order;        // which thread entered the critical section, in turn
   std::vector<uint64_t> seen;    // clock readings the threads made
};

// Three threads that each take a spinlock four times and append their
// number under it (the lock makes the appends safe on real threads too).
Contended Contend(const hyksim::ScheduleOptions &o) {
   hyksim::ScheduleBegin(o);
   hyksim::HostStart();
   Contended r;
   hyk_LockDomainID domain = 0;
   hyk_SpinlockID lock = 0;
   EXPECT_EQ(hyk_LockDomainCreate("sched-test", 1, 0, &domain), HYK_OK);
   EXPECT_EQ(hyk_SpinlockCreate("sched-test-lock", domain, 1, &lock), HYK_OK);
   {
      std::vector<hyksim::HostThread> threads;
      for (int t = 0; t < 3; t++) {
         threads.emplace_back("worker " + std::to_string(t), [&, t] {
            for (int i = 0; i < 4; i++) {
               hyk_SpinlockLock(lock);
               r.order.push_back(t);
               hyk_TimerDelayUS(5);   // busy under the lock: the others must wait, blocked
               r.seen.push_back(hyk_GetTimeUS());
               hyk_SpinlockUnlock(lock);
            }
         });
      }
      for (auto &t : threads) t.Join();
   }
   EXPECT_EQ(hyk_SpinlockDestroy(lock), HYK_OK);
   EXPECT_EQ(hyk_LockDomainDestroy(domain), HYK_OK);
   hyksim::HostStop();
   r.summary = hyksim::ScheduleEnd();
   return r;
}

hyksim::ScheduleOptions Seed(uint64_t seed, uint32_t depth = 0) {
   hyksim::ScheduleOptions o;
   o.seed = seed;
   o.pctDepth = depth;
   o.pctSteps = 200;
   return o;
}

TEST(ScheduleTest, OneSeedIsOneScheduleAndSeedsDiffer) {
   Contended a = Contend(Seed(42));
   Contended b = Contend(Seed(42));
   EXPECT_EQ(a.summary.traceHash, b.summary.traceHash);
   EXPECT_EQ(a.summary.steps, b.summary.steps);
   EXPECT_EQ(a.summary.lastDecisions, b.summary.lastDecisions);
   EXPECT_EQ(a.order, b.order);
   EXPECT_EQ(a.seen, b.seen);
   EXPECT_EQ(a.order.size(), 12u);
   std::set<uint64_t> traces;
   std::set<std::vector<int>> orders;
   for (uint64_t seed = 1; seed <= 20; seed++) {
      Contended r = Contend(Seed(seed));
      traces.insert(r.summary.traceHash);
      orders.insert(r.order);
   }
   EXPECT_GT(traces.size(), 10u) << "twenty seeds gave almost one schedule";
   EXPECT_GT(orders.size(), 5u);
}

// Twelve critical sections of 5 us each, one at a time: the clock moved by
// their busy-waits alone, to 60 us, and every reading inside a section is
// after the one before (no thread ran its section while another held it).
TEST(ScheduleTest, ASpinlockWaiterIsBlockedAndTheClockMovesOnlyWhenAllWait) {
   Contended r = Contend(Seed(7));
   ASSERT_EQ(r.seen.size(), 12u);
   for (size_t i = 0; i < r.seen.size(); i++) EXPECT_EQ(r.seen[i], 5u * (i + 1)) << "section " << i;
   EXPECT_GE(r.summary.threads, 4u);
   EXPECT_GT(r.summary.clockMoves, 0u);
}

// PCT of depth 1 has no change point: the thread of highest priority runs
// until it blocks or ends, so the sections come in runs of one thread.
TEST(ScheduleTest, PctOfDepthOneRunsEachThreadToItsEnd) {
   for (uint64_t seed = 1; seed <= 5; seed++) {
      Contended r = Contend(Seed(seed, 1));
      ASSERT_EQ(r.order.size(), 12u);
      int switches = 0;
      for (size_t i = 1; i < r.order.size(); i++) switches += r.order[i] != r.order[i - 1];
      EXPECT_EQ(switches, 2) << "seed " << seed;
   }
}

// With a change point, the running thread drops below the others at some
// step: over a few seeds some schedule interleaves the sections.
TEST(ScheduleTest, PctChangePointsPreemptTheRunningThread) {
   int interleaved = 0;
   for (uint64_t seed = 1; seed <= 10; seed++) {
      Contended r = Contend(Seed(seed, 3));
      int switches = 0;
      for (size_t i = 1; i < r.order.size(); i++) switches += r.order[i] != r.order[i - 1];
      interleaved += switches > 2;
   }
   EXPECT_GT(interleaved, 0);
}

// A thread that waits for a world that waits for it: no thread can run and
// none waits for a time.  The host panics naming the deadlock.
TEST(ScheduleDeathTest, ADeadlockIsReportedWithTheBlockedThreads) {
   GTEST_FLAG_SET(death_test_style, "threadsafe");
   EXPECT_DEATH(
      {
         hyksim::ScheduleBegin(Seed(3));
         hyksim::HostStart();
         hyk_LockDomainID domain = 0;
         hyk_SpinlockID a = 0;
         hyk_LockDomainCreate("dl", 1, 0, &domain);
         hyk_SpinlockCreate("dl-a", domain, 1, &a);
         hyk_SpinlockLock(a);
         hyksim::HostThread other("other", [&] { hyk_SpinlockLock(a); });
         other.Join();   // waits for a thread that waits for our lock
      },
      "deadlock: no thread can run and none waits for a time");
}

}  // namespace
