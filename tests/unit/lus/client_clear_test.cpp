// Tests of the client-clear timer and the once-only clearing.
#include <atomic>
#include <thread>

#include "lus_fixture.h"

namespace lustest {
namespace {

class ClientClearTest : public LusTest {
  protected:
   // Both maps filled (a portset-phase and a port-phase client on 3 ports),
   // then the restore command fails at the nth call of `op` (the calls before
   // are its registration's own); the clear that follows must leave the
   // port-phase map alone.
   void AbandonRestoreAt(const char *op, uint64_t nth, hyk_Status status, const char *line) {
      Load({"fromBuild=1000"});
      FillBothMaps("ps0", 3);
      SetPortsets({"ps0"});
      LusHashMap *psMap = Var<LusHashMap *>("lusHashMap");
      LusHashMap *portMap = Var<LusHashMap *>("lusPerPortHashMap");
      ASSERT_EQ(psMap->count, 3u);
      ASSERT_EQ(portMap->count, 3u);

      hyksim::InjectFault({.op = op, .status = status, .nth = nth});
      using RestoreCommandFn = hyk_Status(uint8_t);
      EXPECT_EQ(AsLus([] { return LusFn<RestoreCommandFn>("LUS_Restore")(0); }), status);
      hyksim::ClearFaults();
      EXPECT_EQ(hyksim::LogCount(line), 1u);
      EXPECT_EQ(hyksim::LogCount("Clearing LUS Client data ..."), 1u);
      EXPECT_EQ(psMap->count, 0u);
      EXPECT_EQ(portMap->count, 3u);
      EXPECT_EQ(hyksim::FindPortset("ps0")->acquireCount, 0u);   // let go on the way out
   }
};

const char *kClearing = "Clearing LUS Client data ...";

hyk_Status ArmTimer() {
   return AsLus([] {
      auto *cb = LusFn<TimerCBFn>("LUS_ClientClearTimerCB");
      auto *timer = LusVar<hyk_TimerHandle>("lusTimer");
      return LusFn<ScheduleTimerFn>("LUS_ScheduleTimer")(cb, nullptr, 120000000ull, 0, timer);
   });
}

TEST_F(ClientClearTest, TimerFiresAfterOneHundredTwentySecondsAndUnregistersClients) {
   Load();
   TestClient *c = AddClient("fw_new", kToBuild);
   ASSERT_EQ(Reg(0, LUS_REG_TO), HYK_OK);
   ASSERT_NE(c->handle(), nullptr);
   ASSERT_EQ(ArmTimer(), HYK_OK);
   EXPECT_EQ(CountModuleLines(PlainLineRe("LUS_ScheduleTimer", "Scheduling LUS timer ..."), 3), 1u);

   hyksim::AdvanceClock(119999999ull);
   EXPECT_EQ(hyksim::LogCount(kClearing), 0u);
   EXPECT_EQ(Var<uint64_t>("already_called"), 0u);
   hyksim::AdvanceClock(1);
   EXPECT_EQ(CountModuleLines(PlainLineRe("LUS_ClientClear", kClearing), 3), 1u);
   EXPECT_EQ(Var<uint64_t>("already_called"), 1u);
   EXPECT_EQ(c->handle(), nullptr);
   EXPECT_EQ(Var<int32_t>("numToClients"), 0);
   EXPECT_EQ(Var<uint8_t>("lusTARNQRegistered"), 0u);
   EXPECT_EQ(c->Unload(), HYK_OK);  // its use count was released
}

TEST_F(ClientClearTest, UnloadBeforeTimerFiresClearsOnceAndDestroysTheQueue) {
   Load();
   ASSERT_EQ(ArmTimer(), HYK_OK);
   EXPECT_EQ(hyksim::Counts().pendingTimers, 1u);
   ASSERT_EQ(UnloadLus(), HYK_OK);
   EXPECT_EQ(hyksim::LogCount(kClearing), 1u);
   EXPECT_EQ(hyksim::Counts().timerQueues, 0u);
   EXPECT_EQ(hyksim::Counts().pendingTimers, 0u);
   EXPECT_EQ(hyksim::LogCount("module lus left timer queue"), 0u);
   hyksim::AdvanceClock(200000000ull);
   EXPECT_EQ(hyksim::LogCount(kClearing), 1u);
}

TEST_F(ClientClearTest, TimerFiringAfterAnEarlierClearDoesNothing) {
   Load();
   AsLus([] { LusFn<ClientClearFn>("LUS_ClientClear")(0); });
   ASSERT_EQ(hyksim::LogCount(kClearing), 1u);
   ASSERT_EQ(ArmTimer(), HYK_OK);
   size_t before = ModuleLines().size();
   hyksim::AdvanceClock(120000000ull);
   EXPECT_EQ(hyksim::Counts().pendingTimers, 0u);  // it did fire
   EXPECT_EQ(ModuleLines().size(), before);
   EXPECT_EQ(hyksim::LogCount(kClearing), 1u);
}

// Found by the fault sweep: a registration made after the once-only clear
// (the tool retrying a command after a failed one cleared) took use counts on
// the client modules that the unload's clear, already spent, never gave back.
TEST_F(ClientClearTest, UnloadWithdrawsARegistrationMadeAfterTheClear) {
   Load({"fromBuild=1000"});
   TestClient *c = AddClient("fw_new", kToBuild);
   ASSERT_EQ(Reg(0, LUS_REG_TO), HYK_OK);
   AsLus([] { LusFn<ClientClearFn>("LUS_ClientClear")(0); });
   ASSERT_EQ(c->handle(), nullptr);
   ASSERT_EQ(Reg(0, LUS_REG_TO), HYK_OK);
   ASSERT_NE(c->handle(), nullptr);
   EXPECT_EQ(c->Unload(), HYK_BUSY);

   ASSERT_EQ(UnloadLus(), HYK_OK);
   EXPECT_EQ(hyksim::LogCount(kClearing), 1u);
   EXPECT_EQ(c->handle(), nullptr);
   EXPECT_EQ(c->unregisterStatuses.size(), 2u);
   EXPECT_EQ(c->Unload(), HYK_OK);  // lus gave its use count back
}

TEST_F(ClientClearTest, TwoCallersAtOnceClearExactlyOnce) {
   Load();
   hyk_ModuleID lus = LusID();
   auto *clear = LusFn<ClientClearFn>("LUS_ClientClear");
   std::atomic<int> ready{0};
   std::atomic<bool> go{false};
   std::vector<std::thread> threads;
   for (int i = 0; i < 8; i++) {
      threads.emplace_back([&] {
         hyk_ModuleCookie cookie{};
         hyk_ModulePushId(lus, nullptr, &cookie);
         ready++;
         while (!go.load()) {
         }
         clear(0);
         hyk_ModulePopId();
      });
   }
   while (ready.load() < 8) {
   }
   go = true;
   for (auto &t : threads) {
      t.join();
   }
   EXPECT_EQ(hyksim::LogCount(kClearing), 1u);
}

TEST_F(ClientClearTest, TimerPathEmptiesOnlyThePortsetPhaseMap) {
   Load({"fromBuild=1000"});
   FillBothMaps("ps0", 3);
   LusHashMap *psMap = Var<LusHashMap *>("lusHashMap");
   LusHashMap *portMap = Var<LusHashMap *>("lusPerPortHashMap");
   ASSERT_EQ(psMap->count, 3u);
   ASSERT_EQ(portMap->count, 3u);

   ASSERT_EQ(ArmTimer(), HYK_OK);
   hyksim::AdvanceClock(120000000ull);
   EXPECT_EQ(hyksim::LogCount(kClearing), 1u);
   EXPECT_EQ(psMap->count, 0u);
   EXPECT_EQ(portMap->count, 3u);
}

// Like the timer, a restore command that gives up at a portset clears
// without the port-phase map: that map belongs to a per-portset upgrade.
TEST_F(ClientClearTest, AbandonedRestoreCommandEmptiesOnlyThePortsetPhaseMap) {
   AbandonRestoreAt("hyk_PortsetAcquireByName", 2, HYK_NOT_FOUND, "Error acquiring portset during Restore ps0");
}

TEST_F(ClientClearTest, FailedRestoreWalkEmptiesOnlyThePortsetPhaseMap) {
   AbandonRestoreAt("hyk_PortsetForAllPorts", 3, HYK_FAILURE, "Restoring LUS Runtime data FAIL : Failure");
}

TEST_F(ClientClearTest, UnloadOfFromBuildModuleEmptiesBothMaps) {
   Load({"fromBuild=1000"});
   TestClientConfig from;
   from.moduleName = "port_old";
   from.clientName = "port";
   from.buildNumber = kFromBuild;
   from.upgradePhase = LUS_PHASE_PORT;
   AddClient(from);
   TestClientConfig to = from;
   to.moduleName = "port_new";
   to.buildNumber = kToBuild;
   AddClient(to);
   MakePortset("ps0", 2);
   ASSERT_EQ(Reg(0, LUS_REG_FROM_V1), HYK_OK);
   ASSERT_EQ(Reg(0, LUS_REG_TO_V1), HYK_OK);
   ASSERT_EQ(AsLus([] { return LusFn<RegAllPSFn>("LUS_ClientRegAllPS")("ps0"); }), HYK_OK);
   ASSERT_EQ(Var<LusHashMap *>("lusPerPortHashMap")->count, 2u);
   ASSERT_EQ(UnloadLus(), HYK_OK);
   EXPECT_EQ(hyksim::LogCount("Non empty"), 0u);
   EXPECT_TRUE(hyksim::LeakReports().empty());
}

TEST_F(ClientClearTest, UnloadReportsAPortsetPhaseMapFilledAfterTheOnceOnlyClear) {
   Load({"fromBuild=1000"});
   AddClient("ps_old", kFromBuild, false, "ps");   // portset phase, the default
   AddClient("ps_new", kToBuild, false, "ps");
   MakePortset("ps0", 3);
   AsLus([] { LusFn<ClientClearFn>("LUS_ClientClear")(0); });
   ASSERT_EQ(hyksim::LogCount(kClearing), 1u);
   // Registered and enrolled again after the clear, which runs once only.
   ASSERT_EQ(Reg(0, LUS_REG_FROM_V1), HYK_OK);
   ASSERT_EQ(Reg(0, LUS_REG_TO_V1), HYK_OK);
   ASSERT_EQ(AsLus([] { return LusFn<RegAllPSFn>("LUS_ClientRegAllPS")("ps0"); }), HYK_OK);
   ASSERT_EQ(Var<LusHashMap *>("lusHashMap")->count, 3u);

   ASSERT_EQ(UnloadLus(), HYK_OK);
   EXPECT_EQ(hyksim::LogCount(kClearing), 1u);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("lusCleanup", 86, "Non empty LUS PS phase hash map : Not empty"), 1),
             1u);
   EXPECT_EQ(hyksim::LogCount("Non empty LUS port phase hash map"), 0u);
   // The records and what they held were freed, not left to the heaps' destruction.
   EXPECT_TRUE(hyksim::LeakReports().empty());
}

// The same with version 0 records: freed at unload as what they are.
TEST_F(ClientClearTest, UnloadFreesVersionZeroRecordsEnrolledAfterTheOnceOnlyClear) {
   Load({"fromBuild=1000"});
   AddClient("fw_old", kFromBuild, false, "fw");
   AddClient("fw_new", kToBuild, false, "fw");
   MakePortset("ps0", 3);
   AsLus([] { LusFn<ClientClearFn>("LUS_ClientClear")(0); });
   SetPortsets({"ps0"});
   ASSERT_EQ(Reg(0, LUS_REG_TO), HYK_OK);
   ASSERT_EQ(Reg(0, LUS_REG_FROM), HYK_OK);
   ASSERT_EQ(Var<LusHashMap *>("lusHashMap")->count, 3u);
   const size_t cleared = hyksim::LogCount("Client entry cleared: portID:");
   const size_t freed = hyksim::LogCount("LUS hash table free'd");

   ASSERT_EQ(UnloadLus(), HYK_OK);
   EXPECT_EQ(hyksim::LogCount("Non empty LUS PS phase hash map : Not empty"), 1u);
   EXPECT_EQ(hyksim::LogCount("Client entry cleared: portID:") - cleared, 3u);
   // Emptied as a version 0 map, which says so.
   EXPECT_EQ(hyksim::LogCount("LUS hash table free'd") - freed, 1u);
   EXPECT_TRUE(hyksim::LeakReports().empty());
}

TEST_F(ClientClearTest, ScheduleFailureIsLoggedAndReturned) {
   Load();
   hyksim::FaultSpec desc;
   desc.op = "hyk_TimerAdd";
   desc.nth = 1;
   desc.status = HYK_INVALID_HANDLE;
   hyksim::InjectFault(desc);
   EXPECT_EQ(ArmTimer(), HYK_INVALID_HANDLE);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUS_ScheduleTimer", 8, "Scheduling LUS Timer FAIL : Invalid handle"), 1), 1u);
}

}  // namespace
}  // namespace lustest
