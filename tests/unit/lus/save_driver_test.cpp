// Tests of the save driver (the save command's sequence) and of the
// single-port save of the filter upgrade.
#include <cstddef>

#include "save_fixture.h"

namespace lustest {
namespace {

class SaveDriverTest : public SaveRestoreTest {
  protected:
   void CompleteNotice() {
      AsLus([] { LusFn<VoidFn>("LUS_StateCollectionComplete")(); });
   }
};

TEST_F(SaveDriverTest, SaveSizesAndSavesEveryPortsetArmsTheTimerAndUnregisters) {
   LoadNew();
   auto fw = Pair("fw", [](TestClientConfig &c) { c.stateSize = 40; });
   auto p0 = MakePortset("ps0", 2);
   auto p1 = MakePortset("ps1", 2, 10);
   SetPortsets({"ps0", "ps1"});
   ASSERT_EQ(Reg(0, LUS_REG_TO), HYK_OK);
   size_t timers = PendingTimers();
   ASSERT_EQ(Save(0), HYK_OK);
   // Completion is announced once per portset saved.
   EXPECT_EQ(fw.from->Calls(kStateCollectionComplete), 2u);
   EXPECT_EQ(fw.from->saved.size(), 4u);
   EXPECT_EQ(ClientStateBytes(), 4u * 40u);
   EXPECT_EQ(PendingTimers(), timers + 1);
   EXPECT_EQ(Var<int32_t>("numFromClients"), 0);
   EXPECT_EQ(fw.from->unregistrationEvents(), 1u);
   EXPECT_EQ(FindV0("vm-10", 0, "fw")->stateLen, 40u);
   // The timer clears what no restore consumed, after 120 seconds exactly.
   hyksim::AdvanceClock(120000000ull - 1);
   EXPECT_EQ(ClientStateBytes(), 4u * 40u);
   EXPECT_EQ(Var<uint64_t>("already_called"), 0u);
   hyksim::AdvanceClock(1);
   EXPECT_EQ(Var<uint64_t>("already_called"), 1u);
   EXPECT_EQ(ClientStateBytes(), 0u);
   EXPECT_EQ(Var<LusHashMap *>("lusHashMap")->count, 0u);
}

// The table keeps names of an earlier, longer list past the count: the save
// sizes and saves the portsets of the list it was given, and only those.
TEST_F(SaveDriverTest, SaveCoversTheCountedPortsetsNotNamesLeftPastTheCount) {
   LoadNew();
   auto fw = Pair("fw", [](TestClientConfig &c) { c.stateSize = 40; });
   auto p0 = MakePortset("ps0", 2);
   auto p1 = MakePortset("ps1", 2, 10);
   SetPortsets({"ps0", "ps1"});
   SetPortsets({"ps0"});
   ASSERT_STREQ((*LusVar<char[128][128]>("lusPortset"))[1], "ps1");
   ASSERT_EQ(Reg(0, LUS_REG_TO), HYK_OK);
   ASSERT_EQ(Save(0), HYK_OK);
   EXPECT_EQ(fw.from->saved.size(), 2u);
   for (hyk_PortID p : p0) EXPECT_EQ(fw.from->saved.count(p), 1u) << p;
   for (hyk_PortID p : p1) EXPECT_EQ(fw.from->saved.count(p), 0u) << p;
   EXPECT_EQ(fw.from->Calls(kStateCollectionComplete), 1u);
   EXPECT_EQ(ClientStateBytes(), 2u * 40u);
}

// The enrolment walks the rows below the count: a client gone since is not
// enrolled on the next portset, nor even looked at.
TEST_F(SaveDriverTest, EnrolmentDoesNotWalkARowLeftPastTheCount) {
   LoadNew();
   Pair("fw");
   MakePortset("ps0", 1);
   MakePortset("ps1", 1, 10);
   EnrolV0({"ps0"});
   RowOf(LUS_REG_FROM, "ghost");
   const size_t ghostLines = hyksim::LogCount("ghost");   // its own registration and unregistration
   SetPortsets({"ps1"});
   ASSERT_EQ(Reg(0, LUS_REG_FROM), HYK_OK);
   EXPECT_NE(FindV0("vm-10", 0, "fw"), nullptr);
   EXPECT_EQ(FindV0("vm-10", 0, "ghost"), nullptr);
   EXPECT_EQ(hyksim::LogCount("ghost"), ghostLines);
}

// The same for the enrolment of a portset in the per-portset upgrade.
TEST_F(SaveDriverTest, PortsetEnrolmentDoesNotWalkARowLeftPastTheCount) {
   LoadNew();
   Pair("fw");
   MakePortset("ps0", 2);
   ASSERT_EQ(Reg(0, LUS_REG_FROM_V1), HYK_OK);
   ASSERT_EQ(Reg(0, LUS_REG_TO_V1), HYK_OK);
   RowOf(LUS_REG_FROM_V1, "ghost");
   RowOf(LUS_REG_TO_V1, "ghost", /*stay=*/true);
   ASSERT_EQ(AsLus([] { return LusFn<PortsetNameFn>("LUS_ClientRegAllPS")("ps0"); }), HYK_OK);
   EXPECT_EQ(Var<LusHashMap *>("lusHashMap")->count, 2u);
   auto ports = hyksim::FindPortset("ps0")->ports;
   for (hyk_PortID p : ports) {
      EXPECT_NE(RecordV1(PortV1("lusHashMap", p), "fw"), nullptr) << p;
      EXPECT_EQ(RecordV1(PortV1("lusHashMap", p), "ghost"), nullptr) << p;
   }
}

// The clear empties every bucket of the map, the last one included.
TEST_F(SaveDriverTest, ClearEmptiesARecordInTheMapsLastBucket) {
   LoadNew();
   Pair("fw");
   // A VM whose UUID hashes to the last of the map's buckets.
   std::vector<uint8_t> storage(TARN_HASH_ALLOC_SIZE + 64);
   auto *probe = reinterpret_cast<LusHashMap *>((reinterpret_cast<uintptr_t>(storage.data()) + 63) &
                                                ~uintptr_t{63});
   TarnHash_Init(probe, 0, LUS_UUID_LEN, offsetof(LusInstance, vmUUID), TARN_HASH_KEY_STRING);
   int last = -1;
   for (int n = 0; n < 4000000 && last < 0; n++) {
      char uuid[LUS_UUID_LEN] = {};
      snprintf(uuid, sizeof uuid, "vm-%d", n);
      if ((TarnHash_HashKey(probe, uuid) & probe->bucketMask) == probe->bucketMask) last = n;
   }
   ASSERT_GE(last, 0);
   MakePortset("ps0", 1, last);
   EnrolV0({"ps0"});
   LusHashMap *map = Var<LusHashMap *>("lusHashMap");
   ASSERT_EQ(map->bucketMask, probe->bucketMask);
   ASSERT_NE(FindV0("vm-" + std::to_string(last), 0, "fw"), nullptr);
   ASSERT_EQ(map->count, 1u);
   AsLus([] { LusFn<ClientClearFn>("LUS_ClientClear")(0); });
   EXPECT_EQ(map->count, 0u);
   EXPECT_EQ(FindV0("vm-" + std::to_string(last), 0, "fw"), nullptr);
}

TEST_F(SaveDriverTest, PortsetThatCannotBeAcquiredFailsTheSizingPassAndClearsTheClients) {
   LoadNew();
   auto fw = Pair("fw");
   MakePortset("ps0", 1);
   MakePortset("ps1", 1, 10);
   SetPortsets({"ps0", "ps1"});
   ASSERT_EQ(Reg(0, LUS_REG_TO), HYK_OK);
   // The registration acquires each portset once; the sizing pass's first
   // acquire (of ps0) is the host not knowing the portset any more.
   hyksim::InjectFault({.op = "hyk_PortsetAcquireByName", .status = HYK_NOT_FOUND, .nth = 3});
   EXPECT_EQ(Save(0), HYK_NOT_FOUND);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUS_GetSize", 3,
                                              "Error acquiring portset during Save ps0  : Not found"),
                              1),
             1u);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUS_Save", 3,
                                              "LUS GetSize on portset ps0 FAIL : Not found"),
                              1),
             1u);
   // Cleared: the clients are gone and nothing was sized after ps0 or saved.
   EXPECT_EQ(Var<uint64_t>("already_called"), 1u);
   EXPECT_EQ(Var<int32_t>("numFromClients"), 0);
   EXPECT_EQ(Var<LusHashMap *>("lusHashMap")->count, 0u);
   EXPECT_EQ(fw.from->Calls(kGetSize), 0u);
   EXPECT_EQ(fw.from->Calls(kGetRuntimeState), 0u);
   EXPECT_EQ(hyksim::FindPortset("ps1")->acquireCount, 0u);
}

TEST_F(SaveDriverTest, PortsetWhoseSaveWalkFailsIsSkippedAndTheSaveStillSucceeds) {
   LoadNew();
   auto fw = Pair("fw");
   auto p0 = MakePortset("ps0", 1);
   auto p1 = MakePortset("ps1", 1, 10);
   SetPortsets({"ps0", "ps1"});
   ASSERT_EQ(Reg(0, LUS_REG_TO), HYK_OK);
   size_t timers = PendingTimers();
   // Client type reads: enrolment (ps0, ps1), sizing (ps0, ps1), then the
   // save walk of ps0.
   hyksim::InjectFault({.op = "hyk_PortGetClientType", .status = HYK_NOT_FOUND, .nth = 5});
   EXPECT_EQ(Save(0), HYK_OK);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUS_SaveState", 3,
                                              "Cannot determine Client Type : Not found"),
                              1),
             1u);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUS_SavePortset", 3,
                                              "Saving LUS Runtime data FAIL : Not found"),
                              1),
             1u);
   EXPECT_EQ(FindV0("vm-0", 0, "fw")->state, nullptr);
   EXPECT_NE(FindV0("vm-10", 0, "fw")->state, nullptr);
   EXPECT_EQ(fw.from->Calls(kStateCollectionComplete), 1u);
   EXPECT_EQ(PendingTimers(), timers + 1);
   EXPECT_EQ(Var<int32_t>("numFromClients"), 0);
}

TEST_F(SaveDriverTest, StateCollectionCompleteSkipsInactiveClientsAndClientsWithoutIt) {
   LoadNew();
   auto a = Pair("alpha");
   auto b = Pair("beta", [](TestClientConfig &c) { c.slots[kStateCollectionComplete] = false; });
   auto g = Pair("gamma");
   ASSERT_EQ(Reg(0, LUS_REG_FROM), HYK_OK);
   g.from->handle()->inUse = 0;
   CompleteNotice();
   EXPECT_EQ(a.from->Calls(kStateCollectionComplete), 1u);
   EXPECT_EQ(b.from->Calls(kStateCollectionComplete), 0u);
   EXPECT_EQ(g.from->Calls(kStateCollectionComplete), 0u);
   g.from->handle()->inUse = 1;
   // Its answer changes nothing.
   a.from->config().result[kStateCollectionComplete] = HYK_FAILURE;
   CompleteNotice();
   EXPECT_EQ(a.from->Calls(kStateCollectionComplete), 2u);
   EXPECT_EQ(g.from->Calls(kStateCollectionComplete), 1u);
   EXPECT_EQ(CountModuleLines("^LUS_StateCollectionComplete:.*"), 0u);  // no log, no result
}

TEST_F(SaveDriverTest, FailedRegistrationEndsTheSaveBeforeAnything) {
   LoadNew();
   auto fw = Pair("fw");
   MakePortset("ps0", 1);
   SetPortsets({"ps0"});
   hyksim::InjectFault({.op = "hyk_NetEventPost", .status = HYK_BUSY, .nth = 1});
   EXPECT_EQ(Save(0), HYK_BUSY);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUS_Save", 4, "LUS Registration FAIL : Busy"), 1),
             1u);
   EXPECT_EQ(fw.from->Calls(kGetSize), 0u);
   EXPECT_EQ(hyksim::CallCount("hyk_TimerAdd"), 0u);
}

TEST_F(SaveDriverTest, TimerThatCannotBeArmedClearsTheClients) {
   LoadNew();
   Pair("fw");
   MakePortset("ps0", 1);
   SetPortsets({"ps0"});
   ASSERT_EQ(Reg(0, LUS_REG_TO), HYK_OK);
   hyksim::InjectFault({.op = "hyk_TimerAdd", .status = HYK_INVALID_HANDLE, .nth = 1});
   EXPECT_EQ(Save(0), HYK_INVALID_HANDLE);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUS_Save", 8,
                                              "Unable to Schedule LUS Timer : Invalid handle"),
                              1),
             1u);
   EXPECT_EQ(Var<uint64_t>("already_called"), 1u);
   EXPECT_EQ(ClientStateBytes(), 0u);
   // The clear is the classic one: the portset-phase map is emptied as
   // version 0's, with its line, and the port-phase map is not its business.
   EXPECT_EQ(CountModuleLines(PlainLineRe("LUS_HashEmpty", "LUS hash table free'd"), 3), 1u);
}

TEST_F(SaveDriverTest, FailedUnregistrationEmptiesTheMapAndLeavesTheTimerArmed) {
   LoadNew();
   Pair("fw");
   MakePortset("ps0", 2);
   SetPortsets({"ps0"});
   ASSERT_EQ(Reg(0, LUS_REG_TO), HYK_OK);
   size_t timers = PendingTimers();
   // Posts of the save: the registration event, then the unregistration event.
   hyksim::InjectFault({.op = "hyk_NetEventPost", .status = HYK_WOULD_BLOCK, .nth = 2});
   EXPECT_EQ(Save(0), HYK_WOULD_BLOCK);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUS_Save", 2,
                                              "LUS Unregistration FAIL : Would block"),
                              1),
             1u);
   EXPECT_EQ(Var<LusHashMap *>("lusHashMap")->count, 0u);
   EXPECT_EQ(ClientStateBytes(), 0u);
   EXPECT_EQ(PendingTimers(), timers + 1);
}

// ---- single-port save ----------------------------------------------------------------

class PerPortSaveTest : public SaveRestoreTest {
  protected:
   void SaveOne(hyk_PortID port) {
      LusPortInstV1 *entry = PortV1("lusHashMap", port);
      ASSERT_NE(entry, nullptr);
      AsLus([&] { LusFn<PerPortSaveFn>("LUSPerPortUpgradeSave")(entry); });
   }
};

TEST_F(PerPortSaveTest, AllSizesZeroBlocksThenUnblocksWithoutAllocating) {
   LoadNew();
   auto a = Pair("alpha", [](TestClientConfig &c) { c.stateSize = 0; });
   auto b = Pair("beta", [](TestClientConfig &c) { c.stateSize = 0; });
   auto ports = MakePortset("ps0", 1);
   EnrolV1("ps0");
   SaveOne(ports[0]);
   auto view = hyksim::FindPort(ports[0]);
   ASSERT_EQ(view->blocked.size(), 1u);
   EXPECT_FALSE(view->blocked[0].open);
   EXPECT_TRUE(view->passesTraffic);
   EXPECT_EQ(a.from->Calls(kGetSize), 1u);
   EXPECT_EQ(b.from->Calls(kGetSize), 1u);
   EXPECT_EQ(a.from->Calls(kGetRuntimeState) + b.from->Calls(kGetRuntimeState), 0u);
   EXPECT_EQ(hyksim::FindHeap("lus_heap_1")->peakBytes, 0u);
   EXPECT_EQ(hyksim::FindHeap("lus_heap_2")->peakBytes, 0u);
}

TEST_F(PerPortSaveTest, ExactLengthIsKeptAndThePortStaysBlocked) {
   LoadNew(5);
   auto fw = Pair("fw", [](TestClientConfig &c) { c.stateSize = 24; });
   auto ports = MakePortset("ps0", 1);
   EnrolV1("ps0");
   SaveOne(ports[0]);
   LusPortInstV1 *entry = PortV1("lusHashMap", ports[0]);
   LusClientInst *rec = RecordV1(entry, "fw");
   EXPECT_EQ(rec->stateLen, 24u);
   ASSERT_NE(rec->state, nullptr);
   EXPECT_EQ(std::vector<uint8_t>(static_cast<uint8_t *>(rec->state),
                                  static_cast<uint8_t *>(rec->state) + 24),
             fw.from->saved.at(ports[0]));
   EXPECT_TRUE(Blocked(ports[0]));
   EXPECT_EQ(entry->valid, 1u);
   // Saved through the single-port path, the has-saved-state flag is not set.
   EXPECT_EQ(rec->stateInfo, 0u);
   std::string port = Hex(ports[0]);
   EXPECT_EQ(CountModuleLines(PlainLineRe("LUSPerPortUpgradeSave",
                                          "Runtime data len: client fw portID 0x" + port + " len 24"),
                              5),
             1u);
   EXPECT_EQ(CountModuleLines(PlainLineRe("LUSPerPortUpgradeSave",
                                          "Saved Runtime data len: client fw portID 0x" + port +
                                             " len 24"),
                              5),
             1u);
   EXPECT_EQ(CountModuleLines(PlainLineRe("LUSPerPortUpgradeSave",
                                          "Prefetch Client fw portID 0x" + port),
                              5),
             1u);
}

TEST_F(PerPortSaveTest, OverrunByOneByteLosesEveryClientsStateAndKeepsThePortBlocked) {
   LoadNew();
   // Enrolled first, so asked last: the other client has saved by then.
   auto bad = Pair("beta", [](TestClientConfig &c) {
      c.stateSize = 16;
      c.claimExtra = 1;
   });
   auto good = Pair("alpha", [](TestClientConfig &c) { c.stateSize = 16; });
   auto ports = MakePortset("ps0", 1);
   EnrolV1("ps0");
   SaveOne(ports[0]);
   EXPECT_EQ(good.from->Calls(kGetRuntimeState), 1u);
   EXPECT_EQ(bad.from->Calls(kGetRuntimeState), 1u);
   LusPortInstV1 *entry = PortV1("lusHashMap", ports[0]);
   for (const char *name : {"alpha", "beta"}) {
      LusClientInst *rec = RecordV1(entry, name);
      EXPECT_EQ(rec->state, nullptr) << name;
      EXPECT_EQ(rec->stateLen, 0u) << name;
      EXPECT_EQ(rec->stateHeap, 0u) << name;
   }
   EXPECT_EQ(entry->valid, 0u);
   EXPECT_TRUE(Blocked(ports[0]));
   EXPECT_EQ(ClientStateBytes(), 0u);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUSPerPortUpgradeSave", 1,
                                              "Client beta saved more data(17) than it requested(16) : Failure"),
                              1),
             1u);
}

TEST_F(PerPortSaveTest, ZeroSavedOfANonZeroRequestIsLoggedAndDoesNotKeepThePortBlocked) {
   LoadNew();
   Pair("fw", [](TestClientConfig &c) {
      c.stateSize = 32;
      c.bytesSaved = 0u;
   });
   auto ports = MakePortset("ps0", 1);
   EnrolV1("ps0");
   SaveOne(ports[0]);
   LusClientInst *rec = RecordV1(PortV1("lusHashMap", ports[0]), "fw");
   EXPECT_EQ(rec->state, nullptr);
   EXPECT_EQ(rec->stateLen, 0u);
   EXPECT_EQ(rec->stateHeap, 0u);
   EXPECT_FALSE(Blocked(ports[0]));
   EXPECT_EQ(hyksim::FindPort(ports[0])->blocked.size(), 1u);
   EXPECT_EQ(ClientStateBytes(), 0u);
   EXPECT_EQ(CountModuleLines(PlainLineRe("LUSPerPortUpgradeSave",
                                          "client fw requested 32 saved 0 state for portID 0x" +
                                             Hex(ports[0])),
                              3),
             1u);
}

TEST_F(PerPortSaveTest, InactiveClientIsStillAskedForItsState) {
   LoadNew();
   auto fw = Pair("fw");
   auto ports = MakePortset("ps0", 1);
   EnrolV1("ps0");
   LusClientInst *rec = RecordV1(PortV1("lusHashMap", ports[0]), "fw");
   rec->fromClient->inUse = 0;
   SaveOne(ports[0]);
   EXPECT_EQ(fw.from->Calls(kGetSize), 1u);
   EXPECT_EQ(fw.from->Calls(kGetRuntimeState), 1u);
   EXPECT_EQ(rec->stateLen, 64u);
   EXPECT_TRUE(Blocked(ports[0]));
   rec->fromClient->inUse = 1;
}

TEST_F(PerPortSaveTest, PortThatCannotBeBlockedIsLeftUntouched) {
   LoadNew();
   auto fw = Pair("fw");
   auto ports = MakePortset("ps0", 1);
   EnrolV1("ps0");
   hyksim::InjectFault({.op = "hyk_PortCustomBlock", .status = HYK_NOT_FOUND, .nth = 1});
   SaveOne(ports[0]);
   EXPECT_EQ(fw.from->Calls(kGetSize), 0u);
   EXPECT_EQ(PortV1("lusHashMap", ports[0])->valid, 1u);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUSPerPortUpgradeSave", 3,
                                              "Failed to custom block port: 0x" + Hex(ports[0]) +
                                                 " : Not found"),
                              1),
             1u);
}

TEST_F(PerPortSaveTest, FailingGetSizeWipesThePort) {
   LoadNew();
   auto bad = Pair("beta", [](TestClientConfig &c) { c.result[kGetSize] = HYK_TIMEOUT; });
   auto good = Pair("alpha");
   auto ports = MakePortset("ps0", 1);
   EnrolV1("ps0");
   SaveOne(ports[0]);
   EXPECT_EQ(ClientStateBytes(), 0u);
   EXPECT_EQ(PortV1("lusHashMap", ports[0])->valid, 0u);
   EXPECT_TRUE(Blocked(ports[0]));
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUSPerPortUpgradeSave", 10,
                                              "Getting Runtime size FAIL for client beta port 0x" +
                                                 Hex(ports[0]) + " : Timeout"),
                              1),
             1u);
   (void)good;
   (void)bad;
}

}  // namespace
}  // namespace lustest
