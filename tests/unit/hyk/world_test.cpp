// world_test.cpp -- worlds: creation with the owner module pushed, the
// bounded wait for death and reaping, and sleeping on host time.
#include <atomic>
#include <thread>

#include "hyk_test_support.h"

namespace {

using hyktest::HostTest;

class WorldTest : public HostTest {};

struct Probe {
   std::atomic<hyk_ModuleID> module{0};
   std::atomic<hyk_WorldID> self{0};
   std::atomic<bool> release{false};
   std::atomic<uint64_t> wokeAt{0};
   hyk_Status result = HYK_OK;
};

hyk_Status ProbeMain(void *data) {
   auto *p = static_cast<Probe *>(data);
   p->module = hyk_ModuleCurrentID();
   p->self = hyk_WorldCurrentID();
   while (!p->release) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
   }
   return p->result;
}

hyk_Status SleeperMain(void *data) {
   auto *p = static_cast<Probe *>(data);
   hyk_Status st = hyk_WorldSleep(2500000);
   p->wokeAt = hyk_GetTimeUS();
   return st;
}

hyk_WorldID Start(hyk_WorldStartFn fn, Probe *p, hyk_ModuleID module = 5) {
   hyk_WorldProps props = {"probe", module, fn, p, HYK_WORLD_SCHED_DEFAULT, 0};
   hyk_WorldID w = 0;
   EXPECT_EQ(hyk_WorldCreate(&props, &w), HYK_OK);
   EXPECT_NE(w, 0u);
   return w;
}

TEST_F(WorldTest, RunsWithItsModuleAndIsReapedOnce) {
   Probe p;
   hyk_WorldID w = Start(ProbeMain, &p);
   EXPECT_EQ(hyksim::Counts().worlds, 1u);
   EXPECT_EQ(hyk_WorldWaitForDeath(w), HYK_WAIT_INTERRUPTED);  // still running
   p.release = true;
   hyk_Status st;
   while ((st = hyk_WorldWaitForDeath(w)) == HYK_WAIT_INTERRUPTED) {
   }
   EXPECT_EQ(st, HYK_OK);
   EXPECT_EQ(p.module.load(), 5u);
   EXPECT_EQ(p.self.load(), w);
   EXPECT_EQ(hyk_WorldWaitForDeath(w), HYK_NO_SUCH_WORLD);
   EXPECT_EQ(hyksim::Counts().worlds, 0u);
}

TEST_F(WorldTest, CallerIsNotAWorld) {
   EXPECT_EQ(hyk_WorldCurrentID(), 0u);
   EXPECT_EQ(hyk_WorldWaitForDeath(12345), HYK_NO_SUCH_WORLD);
}

TEST_F(WorldTest, CreateRefusesBadProperties) {
   hyk_WorldID w;
   hyk_WorldProps noStart = {"w", 1, nullptr, nullptr, HYK_WORLD_SCHED_DEFAULT, 0};
   EXPECT_EQ(hyk_WorldCreate(&noStart, &w), HYK_BAD_PARAM);
   hyk_WorldProps noName = {nullptr, 1, ProbeMain, nullptr, HYK_WORLD_SCHED_DEFAULT, 0};
   EXPECT_EQ(hyk_WorldCreate(&noName, &w), HYK_BAD_PARAM);
   EXPECT_EQ(hyk_WorldCreate(nullptr, &w), HYK_BAD_PARAM);
   EXPECT_EQ(hyksim::Counts().worlds, 0u);
}

TEST_F(WorldTest, SleepAdvancesTheVirtualClock) {
   Probe p;
   hyk_WorldID w = Start(SleeperMain, &p);
   while (hyk_WorldWaitForDeath(w) == HYK_WAIT_INTERRUPTED) {
   }
   EXPECT_EQ(p.wokeAt.load(), 2500000u);
   EXPECT_EQ(hyksim::NowUS(), 2500000u);
}

void Tick(void *data, hyk_TimerHandle) { ++*static_cast<std::atomic<int> *>(data); }

TEST_F(WorldTest, SleepFiresTimersOnTheWay) {
   hyk_TimerQueue q;
   ASSERT_EQ(hyk_TimerQueueCreate("q", 0, 0, &q), HYK_OK);
   std::atomic<int> ticks{0};
   ASSERT_EQ(hyk_TimerAdd(q, Tick, &ticks, 1000000, 0, 1, 0, nullptr), HYK_OK);
   EXPECT_EQ(hyk_WorldSleep(3000000), HYK_OK);
   EXPECT_EQ(ticks.load(), 3);
}

class ManualClockWorldTest : public HostTest {
  protected:
   hyksim::HostOptions Options() override {
      hyksim::HostOptions o;
      o.sleepAdvancesClock = false;
      return o;
   }
};

TEST_F(ManualClockWorldTest, SleeperWaitsForTheClock) {
   Probe p;
   hyk_WorldID w = Start(SleeperMain, &p);
   EXPECT_EQ(hyk_WorldWaitForDeath(w), HYK_WAIT_INTERRUPTED);
   hyksim::AdvanceClock(2000000);
   EXPECT_EQ(hyk_WorldWaitForDeath(w), HYK_WAIT_INTERRUPTED);
   EXPECT_EQ(p.wokeAt.load(), 0u);
   hyksim::AdvanceClock(500000);
   hyk_Status st;
   while ((st = hyk_WorldWaitForDeath(w)) == HYK_WAIT_INTERRUPTED) {
   }
   EXPECT_EQ(st, HYK_OK);
   EXPECT_EQ(p.wokeAt.load(), 2500000u);
}

TEST_F(ManualClockWorldTest, HostStopInterruptsASleeper) {
   Probe p;
   Start(SleeperMain, &p);
   hyksim::HostStop();  // must not hang on the sleeping world
   EXPECT_EQ(p.wokeAt.load(), 0u);
   EXPECT_EQ(hyksim::Counts().worlds, 0u);
}

hyk_Status ExitsHoldingALock(void *data) {
   hyk_SpinlockLock(*static_cast<hyk_SpinlockID *>(data));
   return HYK_OK;
}

void RunCarelessWorld() {
   hyk_LockDomainID d;
   static hyk_SpinlockID l;
   hyk_LockDomainCreate("d", 0, 0, &d);
   hyk_SpinlockCreate("forgotten", d, 1, &l);
   hyk_WorldProps props = {"careless", 1, ExitsHoldingALock, &l, HYK_WORLD_SCHED_DEFAULT, 0};
   hyk_WorldID w;
   hyk_WorldCreate(&props, &w);
   while (hyk_WorldWaitForDeath(w) == HYK_WAIT_INTERRUPTED) {
   }
}

TEST_F(WorldTest, WorldEndingWithASpinlockHeldPanics) {
   EXPECT_DEATH(RunCarelessWorld(), "world careless returned holding spinlock forgotten");
}

}  // namespace
