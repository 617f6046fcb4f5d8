// Stress: the classic upgrade with its restore events arriving from several
// host threads at once, the 120-second clear timer crossing its deadline,
// commands on the command thread and unloads in the middle of it, and the
// narrow windows (the timer firing inside a save or a restore callback) made
// deterministic with a client callback hook.  Every run ends with the ledger
// of stress_fixture.h.
#include <condition_variable>
#include <mutex>

#include "stress_fixture.h"

namespace lustest {
namespace {

constexpr uint64_t kClearDeadlineUS = 120ull * 1000000ull;

// A one-shot latch between a test thread and a client callback.
class Latch {
  public:
   void Open() {
      std::lock_guard<std::mutex> lock(mu_);
      open_ = true;
      cv_.notify_all();
   }
   void Wait() {
      std::unique_lock<std::mutex> lock(mu_);
      cv_.wait(lock, [&] { return open_; });
   }

  private:
   std::mutex mu_;
   std::condition_variable cv_;
   bool open_ = false;
};


class ClassicStressTest : public StressTest {
  protected:
   // Moves the virtual clock from just before the clear deadline to past it in
   // 0.1 s steps, once the new build has `fraction` of the ports back.
   std::thread StartClockThread(double fraction, const std::atomic<bool> &eventsDone) {
      return std::thread([this, fraction, &eventsDone] {
         WaitForRestored(fraction, eventsDone);
         const uint64_t deadline = saveTimeUS_ + kClearDeadlineUS;
         if (hyksim::NowUS() + 1000000 < deadline) {
            hyksim::AdvanceClock(deadline - 1000000 - hyksim::NowUS());
         }
         while (hyksim::NowUS() <= deadline + 500000) {
            hyksim::AdvanceClock(100000);
            std::this_thread::sleep_for(std::chrono::microseconds(300));
         }
      });
   }

   // The whole run: events from four threads, the clock thread, and the
   // command thread (this one) issuing `commands` once the new build has some
   // ports back.  Returns the ledger's figures.
   LedgerFigures Run(const std::vector<uint32_t> &commands) {
      std::atomic<bool> eventsDone{false};
      auto events = StartEventThreads(4);
      std::thread clock = StartClockThread(0.5, eventsDone);
      std::thread waiter([&] {
         for (auto &t : events) t.join();
         eventsDone = true;
      });

      WaitForRestored(0.25, eventsDone);
      lusctl::Client &tool = Tool();
      const auto portsets = Names({"ps0", "ps1"});
      for (uint32_t cmd : commands) {
         switch (cmd) {
         case 0: case 1: case 2: case 3:
            statuses_.push_back(tool.Register(cmd + 1, portsets));
            break;
         case 4:
            statuses_.push_back(tool.PreUnload(portsets));
            break;
         case 5:
            statuses_.push_back(tool.Restore(portsets));
            break;
         case 12:
            statuses_.push_back(tool.StateRestoreComplete());
            break;
         }
      }
      waiter.join();
      clock.join();
      // The host runs every timer due by now before this returns.
      hyksim::AdvanceClock(1000000);
      return CheckLedger();
   }

   std::vector<hyk_Status> statuses_;
};

// Restore events, port-enable events, the clear timer and the restore-complete
// command overlap: every port's state reaches the new build or is reported
// dropped by the clear, and no port passes traffic without a report.
TEST_F(ClassicStressTest, RestoreEventsAndTheClearTimerOverlapWithoutLosingState) {
   SetUpClassic();
   SaveThroughDevice();
   LedgerFigures f = Run({12, 12, 12, 12});
   Print("events + timer + command 12", f);
   EXPECT_EQ(f.restored + f.dropped, f.records);
   EXPECT_GT(f.restored, 0u);
   EXPECT_EQ(hyksim::LogCount("Clearing LUS Client data ..."), 1u);
   UnloadAndCheckNothingPinned();
}

// The same with registration, save and restore commands issued meanwhile
// (commands 0 to 5 and 12): each may clear the clients, and the clear waits
// for no command and overlaps none.
TEST_F(ClassicStressTest, CommandsZeroToFiveAndTwelveDuringRestoreEventsAndTheTimer) {
   SetUpClassic();
   SaveThroughDevice();
   LedgerFigures f = Run({5, 12, 0, 1, 12, 2, 3, 4, 5, 12, 5, 12});
   Print("events + timer + commands 0-5, 12", f);
   EXPECT_EQ(f.restored + f.dropped, f.records);
   EXPECT_EQ(statuses_.size(), 12u);
   UnloadAndCheckNothingPinned();
}

// lus unloads while restore events are in flight (one is held inside its
// client callback when the unload begins, the others keep coming): the host
// waits for the deliveries under way, the unload clears what is left and
// reports it, and nothing stays pinned or allocated.  Half the ports never
// get their event, so the unload has state to drop whatever the timing.
TEST_F(ClassicStressTest, UnloadWhileRestoreEventsAreInFlight) {
   SetUpClassic();
   SaveThroughDevice();
   Latch holding, release;
   std::atomic<int> calls{0};
   pairs_[0].to->config().onCall = [&](Slot slot) {
      if (slot == kRuntimeRestore && calls++ == 10) {
         holding.Open();
         release.Wait();
      }
   };
   const size_t half = ports_.size() / 2;
   std::vector<std::thread> events;
   for (int t = 0; t < 4; t++) {
      events.emplace_back([this, t, half] {
         for (size_t i = t; i < half; i += 4) {
            PostUnblock(ports_[i].portset, ports_[i].id);
         }
      });
   }
   holding.Wait();
   tool_.reset();
   proc_.reset();
   std::thread unloader([] { EXPECT_EQ(UnloadLus(), HYK_OK); });
   std::this_thread::sleep_for(std::chrono::milliseconds(20));
   release.Open();
   unloader.join();
   for (auto &t : events) t.join();

   LedgerFigures f = CheckLedger();
   Print("unload during events", f);
   EXPECT_EQ(f.restored + f.dropped, f.records);
   EXPECT_GE(f.dropped, half * pairs_.size());
   for (const char *heap : {"lus_heap_0", "lus_heap_1", "lus_heap_2"}) {
      EXPECT_FALSE(hyksim::FindHeap(heap).has_value()) << heap;
   }
   EXPECT_TRUE(hyksim::LeakReports().empty());
   for (auto &p : pairs_) {
      EXPECT_EQ(p.to->Unload(), HYK_OK);
   }
}

// The timer fires while a restore callback runs: the clear stops new restore
// events at once, waits for the restore under way, which finishes its port
// whole (both clients, unblocked), and only then withdraws the clients and
// drops every other port's state, with a report.
TEST_F(ClassicStressTest, TimerFiringDuringARestoreWaitsForThatPortAndDropsTheRest) {
   SetUpClassic();
   SaveThroughDevice();
   Latch inCallback;
   std::atomic<int> calls{0};
   uint8_t *clearing = LusVar<uint8_t>("lusClearInProgress");
   pairs_[0].to->config().onCall = [&](Slot slot) {
      if (slot == kRuntimeRestore && calls++ == 0) {
         inCallback.Open();
         // Held here until the clear has started: it must wait for this port.
         while (__atomic_load_n(clearing, __ATOMIC_ACQUIRE) == 0) {
            std::this_thread::sleep_for(std::chrono::microseconds(100));
         }
      }
   };
   const StressPort first = ports_[0];
   std::thread poster([&] { PostUnblock(first.portset, first.id); });
   inCallback.Wait();
   hyksim::AdvanceClock(saveTimeUS_ + kClearDeadlineUS + 1000 - hyksim::NowUS());
   poster.join();

   LedgerFigures f = CheckLedger();
   Print("timer during a restore", f);
   EXPECT_EQ(f.restored, static_cast<size_t>(ClientPairs()));   // every client of the first port
   EXPECT_EQ(f.dropped, f.records - f.restored);
   EXPECT_FALSE(Blocked(first.id));
   EXPECT_EQ(f.portsBlocked, ports_.size() - 1);
   EXPECT_EQ(hyksim::LogCount("Clearing LUS Client data ..."), 1u);
   EXPECT_EQ(hyksim::LogCount("Dropped saved state that was never restored"), 1u);
   // Restore events that come after the clear find nothing and leave their port blocked.
   PostUnblock(ports_[1].portset, ports_[1].id);
   EXPECT_TRUE(Blocked(ports_[1].id));
   UnloadAndCheckNothingPinned();
}

// The timer fires while a restore callback sleeps: the timer's callback may
// not sleep, so the clear does not wait there.  It stops new restores, keeps
// the registry taken and returns; the restore under way finishes its port
// and then the clear.  A command that comes meanwhile sleeps until the clear
// has ended.  (The callback gives the timer a bounded real-time while to
// come back, so a clear that waited inside the timer ends the test with a
// failure instead of a hang.)
TEST_F(ClassicStressTest, TheTimersClearLeavesItsEndToTheRestoreUnderWay) {
   SetUpClassic();
   SaveThroughDevice();
   Latch inCallback;
   std::atomic<bool> timerReturned{false};
   std::atomic<bool> sawTimerReturn{false};
   std::atomic<int> calls{0};
   pairs_[0].to->config().onCall = [&](Slot slot) {
      if (slot != kRuntimeRestore || calls++ != 0) return;
      inCallback.Open();
      for (int i = 0; i < 5000 && !timerReturned.load(); i++) {
         hyk_WorldSleep(1000);  // a restore callback may sleep
         std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
      sawTimerReturn = timerReturned.load();
   };
   const StressPort first = ports_[0];
   std::thread poster([&] { PostUnblock(first.portset, first.id); });
   inCallback.Wait();
   hyksim::AdvanceClock(saveTimeUS_ + kClearDeadlineUS + 1000 - hyksim::NowUS());
   timerReturned = true;
   const uint32_t registry = __atomic_load_n(LusVar<uint32_t>("lusRegistryState"), __ATOMIC_ACQUIRE);
   std::atomic<bool> commandDone{false};
   hyk_Status commandStatus = HYK_FAILURE;
   std::thread command([&] {
      commandStatus = Tool().StateRestoreComplete();
      commandDone = true;
   });
   poster.join();
   command.join();

   EXPECT_TRUE(sawTimerReturn.load()) << "the clear waited inside the timer's callback";
   EXPECT_EQ(registry, 0x8u) << "the registry is held for the clear's end, by nobody else";
   EXPECT_EQ(__atomic_load_n(LusVar<uint32_t>("lusRegistryState"), __ATOMIC_ACQUIRE), 0u);
   EXPECT_TRUE(commandDone.load());
   EXPECT_NE(commandStatus, HYK_FAILURE);
   LedgerFigures f = CheckLedger();
   EXPECT_EQ(f.restored, static_cast<size_t>(ClientPairs()));   // the port under way, whole
   EXPECT_EQ(f.dropped, f.records - f.restored);
   EXPECT_FALSE(Blocked(first.id));
   EXPECT_EQ(hyksim::LogCount("Clearing LUS Client data ..."), 1u);
   UnloadAndCheckNothingPinned();
}

// A map emptied while a restore callback runs (the save command's
// unregistration post fails, so it empties the map at once, without the
// clear's wait): the record under restore is detached, not freed.  Its
// callback then fails, nobody is left to retry that state, so the restore
// frees it and reports it dropped; the port stays blocked.
TEST_F(ClassicStressTest, MapEmptiedUnderAFailingRestoreCallbackReportsThatStateDropped) {
   SetUpClassic();
   SaveThroughDevice();
   TestClient *to = pairs_[0].to;
   to->config().result[kRuntimeRestore] = HYK_FAILURE;
   Latch inCallback, emptied;
   to->config().onCall = [&](Slot slot) {
      if (slot == kRuntimeRestore && to->Calls(kRuntimeRestore) == 1) {
         inCallback.Open();
         emptied.Wait();
      }
   };
   const StressPort first = ports_[0];
   std::thread poster([&] { PostUnblock(first.portset, first.id); });
   inCallback.Wait();
   hyksim::FaultSpec fault;
   fault.op = "hyk_NetEventPost";
   fault.nth = 2;   // the save's unregistration post, after its registration post
   hyksim::InjectFault(fault);
   EXPECT_EQ(Tool().PreUnload(Names({"ps0", "ps1"})), HYK_FAILURE);
   hyksim::ClearFaults();
   EXPECT_EQ(Var<LusHashMap *>("lusHashMap")->count, 0u);
   emptied.Open();
   poster.join();

   // The callback saw the bytes but failed: the module's report is what counts.
   to->restored.clear();
   to->restoreOrder.clear();
   LedgerFigures f = CheckLedger();
   EXPECT_EQ(f.restored, 0u);
   EXPECT_EQ(f.dropped, f.records);
   EXPECT_EQ(hyksim::LogCount("client data cleared during its restore"), 1u);
   EXPECT_TRUE(Blocked(first.id));
   UnloadAndCheckNothingPinned();
}

// The timer fires inside a save (command 4, from the old client's
// getRuntimeState on the first port; the timer is one an earlier save left
// armed): the command owns the registry, so the clear waits for the command
// to finish and runs as it lets go -- never while the save is registering,
// sizing or saving.  What the save had just saved is then reported dropped.
TEST_F(ClassicStressTest, TimerFiringInsideASaveRunsTheClearWhenTheCommandEnds) {
   SetUpClassic();
   lusctl::Client &tool = Tool();
   const auto portsets = Names({"ps0", "ps1"});
   ASSERT_EQ(tool.Register(LUS_REG_TO, portsets), HYK_OK);
   ASSERT_EQ(tool.BlockPorts(portsets, 30), HYK_OK);
   using ScheduleFn = hyk_Status(hyk_TimerCallback, void *, uint64_t, uint8_t, hyk_TimerHandle *);
   ASSERT_EQ(AsLus([&] {
                return LusFn<ScheduleFn>("LUS_ScheduleTimer")(
                   LusFn<void(void *, hyk_TimerHandle)>("LUS_ClientClearTimerCB"), nullptr,
                   1000000, 0, &Var<hyk_TimerHandle>("lusTimer"));
             }),
             HYK_OK);
   bool fired = false;
   pairs_[0].from->config().onCall = [&](Slot slot) {
      if (slot == kGetRuntimeState && !fired) {
         fired = true;
         hyksim::AdvanceClock(2000000);
         EXPECT_EQ(hyksim::LogCount("Clearing LUS Client data ..."), 0u)
            << "the clear ran inside the save";
      }
   };
   EXPECT_EQ(tool.PreUnload(portsets), HYK_OK);
   EXPECT_TRUE(fired);

   // It ran as the command let go of the registry, after the save's own lines.
   auto lines = ModuleLines();
   size_t clearAt = 0, savedAt = 0;
   for (size_t i = 0; i < lines.size(); i++) {
      if (lines[i].text.find("Clearing LUS Client data ...") != std::string::npos) clearAt = i;
      if (lines[i].text.find("Saved client") != std::string::npos) savedAt = i;
   }
   EXPECT_GT(savedAt, 0u);
   EXPECT_GT(clearAt, savedAt);
   EXPECT_EQ(hyksim::LogCount("Clearing LUS Client data ..."), 1u);
   EXPECT_EQ(Var<LusHashMap *>("lusHashMap")->count, 0u);
   for (auto &p : pairs_) {
      ASSERT_EQ(p.from->Unload(), HYK_OK);
   }
   LedgerFigures f = CheckLedger();
   EXPECT_EQ(f.dropped, f.records);
   EXPECT_EQ(f.portsBlocked, ports_.size());
   UnloadAndCheckNothingPinned();
}

// A new-build client whose runtimeRestore makes host calls that may sleep
// (acquires a portset, looks up a module) completes a classic upgrade driven
// by restore events from several threads: no lock of the module is held
// across the callback.
TEST_F(ClassicStressTest, RestoreCallbacksThatSleepCompleteUnderConcurrentEvents) {
   SetUpClassic();
   SaveThroughDevice();
   for (auto &pair : pairs_) {
      pair.to->config().onCall = [](Slot slot) {
         if (slot != kRuntimeRestore) {
            return;
         }
         hyk_Portset *ps = nullptr;
         EXPECT_EQ(hyk_PortsetAcquireByName("ps1", HYK_PORTSET_ACCESS_EXCL, &ps), HYK_OK);
         hyk_PortsetRelease(&ps);
         EXPECT_NE(hyk_ModuleGetID("lus"), HYK_INVALID_MODULE_ID);
      };
   }
   auto events = StartEventThreads(4);
   for (auto &t : events) t.join();
   LedgerFigures f = CheckLedger();
   Print("sleeping callbacks", f);
   EXPECT_EQ(f.restored, f.records);
   EXPECT_EQ(f.portsPassing, ports_.size());
   // The last record gone, the clients were cleared (by an event thread).
   EXPECT_EQ(hyksim::LogCount("LUS Hash is Empty, Unregistering LUS Clients ..."), 1u);
   UnloadAndCheckNothingPinned();
}

}  // namespace
}  // namespace lustest
