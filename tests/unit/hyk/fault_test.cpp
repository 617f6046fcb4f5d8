// fault_test.cpp -- fault injection (by name, nth call, every call, seeded
// probability, count limit) and the host-call trace.
#include <atomic>
#include <thread>
#include <vector>

#include "hyk_test_support.h"

namespace {

using hyktest::HostTest;

class FaultTest : public HostTest {
  protected:
   // A log component whose level changes make a cheap, counted host call.
   hyk_LogHandle CountedLog() {
      hyk_LogProps props{};
      props.name = "counted";
      props.defaultLevel = 0;
      hyk_LogHandle log = 0;
      EXPECT_EQ(hyk_LogRegister(&props, &log), HYK_OK);
      return log;
   }
   hyk_Status CreateHeap() {
      hyk_HeapProps props = {"h", 0, 0, 100};
      hyk_HeapID heap = 0;
      return hyk_HeapCreate(&props, &heap);
   }
   // The pattern of failures of `n` heap creations, as a string of 'x'/'.'.
   std::string Pattern(int n) {
      std::string out;
      for (int i = 0; i < n; i++) {
         out += CreateHeap() == HYK_OK ? '.' : 'x';
      }
      return out;
   }
};

TEST_F(FaultTest, NthCallFailsWithTheChosenStatus) {
   EXPECT_EQ(CreateHeap(), HYK_OK);  // calls before injection do not count
   hyksim::FaultSpec desc;
   desc.op = "hyk_HeapCreate";
   desc.nth = 3;
   desc.status = HYK_NO_MEMORY;
   hyksim::InjectFault(desc);
   EXPECT_EQ(CreateHeap(), HYK_OK);
   EXPECT_EQ(CreateHeap(), HYK_OK);
   EXPECT_EQ(CreateHeap(), HYK_NO_MEMORY);
   EXPECT_EQ(CreateHeap(), HYK_OK);
   EXPECT_EQ(hyksim::InjectedFaultCount("hyk_HeapCreate"), 1u);
   EXPECT_EQ(hyksim::InjectedFaultCount(), 1u);
   EXPECT_EQ(hyksim::CallCount("hyk_HeapCreate"), 5u);
   EXPECT_EQ(hyksim::Counts().heaps, 4u);
   // Counted since host start, so the log names the 4th call overall.
   EXPECT_TRUE(
      hyksim::LogContains("hyk: injected failure of hyk_HeapCreate (call 4): Out of memory"));
}

TEST_F(FaultTest, OnlyTheNamedOperationFails) {
   hyksim::FaultSpec desc;
   desc.op = "hyk_LockDomainCreate";
   desc.every = true;
   hyksim::InjectFault(desc);
   EXPECT_EQ(CreateHeap(), HYK_OK);
   hyk_LockDomainID d;
   EXPECT_EQ(hyk_LockDomainCreate("d", 0, 0, &d), HYK_FAILURE);
   EXPECT_EQ(hyksim::Counts().lockDomains, 0u);
}

TEST_F(FaultTest, EveryCallFailsUpToTheCount) {
   hyksim::FaultSpec desc;
   desc.op = "hyk_HeapCreate";
   desc.every = true;
   desc.count = 2;
   hyksim::InjectFault(desc);
   EXPECT_EQ(Pattern(4), "xx..");
   hyksim::FaultSpec unlimited = desc;
   unlimited.count = 0;
   hyksim::InjectFault(unlimited);
   EXPECT_EQ(Pattern(3), "xxx");
   hyksim::ClearFaults();
   EXPECT_EQ(Pattern(2), "..");
}

TEST_F(FaultTest, ProbabilityIsReproducibleFromTheSeed) {
   hyksim::FaultSpec desc;
   desc.op = "hyk_HeapCreate";
   desc.probability = 0.5;
   desc.seed = 1234;
   hyksim::InjectFault(desc);
   std::string first = Pattern(64);
   hyksim::HostStart();
   hyksim::InjectFault(desc);
   std::string second = Pattern(64);
   EXPECT_EQ(first, second);
   size_t fails = std::count(first.begin(), first.end(), 'x');
   EXPECT_GT(fails, 16u);
   EXPECT_LT(fails, 48u);
   hyksim::HostStart();
   desc.seed = 99;
   hyksim::InjectFault(desc);
   EXPECT_NE(Pattern(64), first);
}

TEST_F(FaultTest, ProbabilityRespectsTheCount) {
   hyksim::FaultSpec desc;
   desc.op = "hyk_HeapCreate";
   desc.probability = 1.0;
   desc.count = 3;
   hyksim::InjectFault(desc);
   EXPECT_EQ(Pattern(5), "xxx..");
}

TEST_F(FaultTest, AllocationFaultGivesNull) {
   hyk_HeapProps props = {"h", 0, 0, 100};
   hyk_HeapID heap;
   ASSERT_EQ(hyk_HeapCreate(&props, &heap), HYK_OK);
   hyksim::FaultSpec desc;
   desc.op = "hyk_HeapAllocWithRA";
   desc.nth = 2;
   hyksim::InjectFault(desc);
   void *a = hyk_HeapAlloc(heap, 8);
   EXPECT_NE(a, nullptr);
   EXPECT_EQ(hyk_HeapAlloc(heap, 8), nullptr);
   hyk_HeapStats st;
   hyk_HeapGetStats(heap, &st);
   EXPECT_EQ(st.failedAllocations, 1u);
   hyk_HeapFree(heap, a);
}

TEST_F(FaultTest, SpecThatNamesNoCallIsIgnored) {
   hyksim::FaultSpec desc;
   desc.op = "hyk_HeapCreate";
   hyksim::InjectFault(desc);
   EXPECT_EQ(Pattern(3), "...");
   EXPECT_TRUE(hyksim::LogContains("fault desc for hyk_HeapCreate ignored"));
}

TEST_F(FaultTest, EveryFallibleOperationHasAFaultPoint) {
   // One call of each; each must fail with the injected status.
   const hyk_Status kInjected = HYK_NO_RESOURCES;
   for (const char *op : {"hyk_HeapCreate", "hyk_HeapDestroy", "hyk_HeapGetStats",
                          "hyk_LogRegister", "hyk_LogUnregister", "hyk_LogSetLevel",
                          "hyk_TimerQueueCreate", "hyk_TimerQueueDestroy", "hyk_TimerAdd",
                          "hyk_TimerCancel", "hyk_LockDomainCreate", "hyk_LockDomainDestroy",
                          "hyk_SpinlockCreate", "hyk_RWSpinlockCreate", "hyk_SpinlockDestroy",
                          "hyk_RWSpinlockDestroy", "hyk_WorldCreate", "hyk_WorldWaitForDeath",
                          "hyk_WorldSleep", "hyk_ModuleGetName", "hyk_ModuleIncUseCount",
                          "hyk_ModuleDecUseCount", "hyk_NameInitialize"}) {
      hyksim::FaultSpec desc;
      desc.op = op;
      desc.every = true;
      desc.status = kInjected;
      hyksim::InjectFault(desc);
   }
   hyk_HeapProps hp = {"h", 0, 0, 1};
   hyk_HeapID heap;
   hyk_HeapStats hs;
   hyk_LogProps lp = {"l", 1, 0, 0};
   hyk_LogHandle log;
   hyk_TimerQueue q;
   hyk_LockDomainID d;
   hyk_SpinlockID l;
   hyk_WorldProps wp = {"w", 1, [](void *) -> hyk_Status { return HYK_OK; }, nullptr, 100, 0};
   hyk_WorldID w;
   char buf[8];
   hyk_Name name;
   EXPECT_EQ(hyk_HeapCreate(&hp, &heap), kInjected);
   EXPECT_EQ(hyk_HeapDestroy(1), kInjected);
   EXPECT_EQ(hyk_HeapGetStats(1, &hs), kInjected);
   EXPECT_EQ(hyk_LogRegister(&lp, &log), kInjected);
   EXPECT_EQ(hyk_LogUnregister(1), kInjected);
   EXPECT_EQ(hyk_LogSetLevel(1, 1), kInjected);
   EXPECT_EQ(hyk_TimerQueueCreate("q", 0, 0, &q), kInjected);
   EXPECT_EQ(hyk_TimerQueueDestroy(1), kInjected);
   EXPECT_EQ(hyk_TimerAdd(1, nullptr, nullptr, 1, 0, 0, 0, nullptr), kInjected);
   EXPECT_EQ(hyk_TimerCancel(1, 1), kInjected);
   EXPECT_EQ(hyk_LockDomainCreate("d", 0, 0, &d), kInjected);
   EXPECT_EQ(hyk_LockDomainDestroy(1), kInjected);
   EXPECT_EQ(hyk_SpinlockCreate("l", 1, 1, &l), kInjected);
   EXPECT_EQ(hyk_RWSpinlockCreate("l", 1, 1, &l), kInjected);
   EXPECT_EQ(hyk_SpinlockDestroy(1), kInjected);
   EXPECT_EQ(hyk_RWSpinlockDestroy(1), kInjected);
   EXPECT_EQ(hyk_WorldCreate(&wp, &w), kInjected);
   EXPECT_EQ(hyk_WorldWaitForDeath(1), kInjected);
   EXPECT_EQ(hyk_WorldSleep(1), kInjected);
   EXPECT_EQ(hyk_ModuleGetName(1, buf, sizeof buf), kInjected);
   EXPECT_EQ(hyk_ModuleIncUseCount(1), kInjected);
   EXPECT_EQ(hyk_ModuleDecUseCount(1), kInjected);
   EXPECT_EQ(hyk_NameInitialize(&name, "n"), kInjected);
   EXPECT_EQ(hyksim::InjectedFaultCount(), 23u);
   hyksim::FaultSpec getId;
   getId.op = "hyk_ModuleGetID";
   getId.every = true;
   hyksim::InjectFault(getId);
   hyksim::InProcessModule m{"present", {}, {}, {}};
   hyksim::ClearFaults();
   hyk_ModuleID id;
   ASSERT_EQ(hyksim::LoadInProcessModule(m, &id), HYK_OK);
   hyksim::InjectFault(getId);
   EXPECT_EQ(hyk_ModuleGetID("present"), HYK_INVALID_MODULE_ID);
   EXPECT_EQ(hyksim::Counts().heaps + hyksim::Counts().timerQueues + hyksim::Counts().worlds, 0u);
}

TEST_F(FaultTest, TraceListsCallsInOrder) {
   hyk_HeapProps props = {"h", 0, 0, 100};
   hyk_HeapID heap;
   hyk_HeapCreate(&props, &heap);  // before tracing: not in the trace
   hyksim::TraceEnable(true);
   hyk_HeapAlloc(heap, 8);
   hyk_LockDomainID d;
   hyk_LockDomainCreate("d", 0, 0, &d);
   hyk_HeapDestroy(heap);
   hyksim::TraceEnable(false);
   hyk_LockDomainDestroy(d);
   std::vector<std::string> expect = {"hyk_HeapAllocWithRA", "hyk_LockDomainCreate",
                                      "hyk_HeapDestroy"};
   EXPECT_EQ(hyksim::Trace(), expect);
   hyksim::TraceClear();
   EXPECT_TRUE(hyksim::Trace().empty());
   auto counts = hyksim::CallCounts();
   EXPECT_EQ(counts["hyk_HeapCreate"], 1u);
   EXPECT_EQ(counts["hyk_LockDomainDestroy"], 1u);
}

// Calls are counted without a lock while nothing is injected and with one
// while something is: from several threads, with a fault injected and
// cleared meanwhile, every call is counted once and the fault still fires
// on exactly the calls it names.
TEST_F(FaultTest, CallsFromManyThreadsAreCountedExactlyAcrossInjectionAndClearing) {
   const hyk_LogHandle log = CountedLog();
   const uint64_t before = hyksim::CallCount("hyk_LogSetLevel");
   constexpr int kThreads = 4, kCalls = 20000;
   std::atomic<int> failed{0};
   std::atomic<bool> go{false};
   std::vector<std::thread> threads;
   for (int t = 0; t < kThreads; t++) {
      threads.emplace_back([&] {
         while (!go.load()) {
         }
         for (int i = 0; i < kCalls; i++) {
            if (hyk_LogSetLevel(log, 0) != HYK_OK) failed++;
         }
      });
   }
   go = true;
   hyksim::FaultSpec desc;
   desc.op = "hyk_LogSetLevel";
   desc.every = true;
   desc.count = 100;
   hyksim::InjectFault(desc);
   for (auto &t : threads) t.join();
   hyksim::ClearFaults();
   EXPECT_EQ(hyksim::CallCount("hyk_LogSetLevel") - before, uint64_t(kThreads) * kCalls);
   EXPECT_EQ(static_cast<uint64_t>(failed.load()), hyksim::InjectedFaultCount("hyk_LogSetLevel"));
   EXPECT_LE(failed.load(), 100);
   // And after the clearing, the lock-free counting goes on where it was.
   EXPECT_EQ(hyk_LogSetLevel(log, 0), HYK_OK);
   EXPECT_EQ(hyksim::CallCount("hyk_LogSetLevel") - before, uint64_t(kThreads) * kCalls + 1);
}

// Each counting thread owns a slot until it exits; then the next thread
// takes it over with the counts it holds.  More threads at once than there
// are slots share an atomic one.  No call is lost either way.
TEST_F(FaultTest, CountsSurviveThreadsComingAndGoingAndMoreThreadsThanSlots) {
   const hyk_LogHandle log = CountedLog();
   const uint64_t before = hyksim::CallCount("hyk_LogSetLevel");
   constexpr int kWaves = 3, kThreads = 48, kCalls = 500;
   for (int wave = 0; wave < kWaves; wave++) {
      std::atomic<int> started{0};
      std::vector<std::thread> threads;
      for (int t = 0; t < kThreads; t++) {
         threads.emplace_back([&] {
            // All of a wave's threads hold a slot at once.
            started++;
            while (started.load() < kThreads) {
               std::this_thread::yield();
            }
            for (int i = 0; i < kCalls; i++) {
               ASSERT_EQ(hyk_LogSetLevel(log, 0), HYK_OK);
            }
         });
      }
      for (auto &t : threads) t.join();
      EXPECT_EQ(hyksim::CallCount("hyk_LogSetLevel") - before, uint64_t(wave + 1) * kThreads * kCalls);
   }
}

TEST_F(FaultTest, HostStartForgetsFaultsAndCounts) {
   hyksim::FaultSpec desc;
   desc.op = "hyk_HeapCreate";
   desc.every = true;
   hyksim::InjectFault(desc);
   EXPECT_EQ(CreateHeap(), HYK_FAILURE);
   hyksim::HostStart();
   EXPECT_EQ(hyksim::CallCount("hyk_HeapCreate"), 0u);
   EXPECT_EQ(hyksim::InjectedFaultCount(), 0u);
   EXPECT_EQ(CreateHeap(), HYK_OK);
}

}  // namespace
